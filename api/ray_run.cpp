/*
 * ray_run.cpp - starting and stopping the library, and frame requests.
 *
 * Ray_Init creates the lock, the Phong table and the CPU pipeline;
 * Ray_Exit stops the pipeline and releases everything the library owns.
 * Ray_Start binds a display box to a slot, builds the slot's view matrix
 * and hands the frame to the slot's renderer; Ray_Stop ends CPU renders.
 */
#include <voxelune/voxelune.h>

#include <cstdlib>

#include "core/ray_core.h"
#include "core/ray_state.h"
#include "cpu/ray_dispatch.h"
#include "cpu/ray_dispatch_state.h"
#include "cpu/ray_render_layout.h"
#include "gpu/cuda_rt.h"
#include "gpu/ray_cuda.h"
#include "gpu/ray_gradient.h"

/* Allocation failures of this file name their source as "ray_init". */
#define RAY_SRC "ray_init"

/* ------------------------------------------------------------ start, stop */

int Ray_Init(unsigned short nb_thread)
{
    Ray_Trace(RAY_TR_EXPORT, ">>> in  Voxelune: Ray_Init()");
    if (Ray_Init_Done == 1) return 1;
    Ray_Init_Done = 1;
    Critical_Ray_Create();

    unsigned short n = nb_thread;
    if (n < 1) n = 1;
    if (n > RAY_MAX_WORKERS) n = RAY_MAX_WORKERS;

    if (!Phong_table) {
        Phong_table = static_cast<unsigned int*>(
            Ray_Malloc(RAY_PHONG_SIZE * sizeof(unsigned int), __LINE__, RAY_SRC, "Phong_table", RAY_PHONG_SIZE, 4));
        if (Phong_table) Ray_Phong_Build(Phong_table);
    }
    if (!Ray_CPU_Init(n)) {
        /* The pipeline wrote why.  Nothing half-started stays behind: the
         * library is not started, and a later Ray_Init tries again. */
        Ray_CPU_Exit();
        free(Phong_table);
        Phong_table = nullptr;
        Critical_Ray_Cleanup();
        Ray_Init_Done = 0;
    }
    Ray_Trace(RAY_TR_EXPORT, "<<< out Voxelune: Ray_Init(done)");
    return 1;
}

int Ray_Exit()
{
    Ray_Trace(RAY_TR_EXPORT, ">>> in  Voxelune: Ray_Exit()");
    if (Ray_Init_Done == 0) return 1;
    Ray_Init_Done = 0;

    /* The pipeline's threads have ended when this returns: nobody reads a slot below. */
    Ray_CPU_Exit();

    free(Phong_table);
    Phong_table = nullptr;

    Critical_Ray_In("Vol_Ray_Exit");
    for (int s = 0; s < RAY_SLOTS; s++) {
        Ray_Volume.box_w[s] = 0;
        Ray_Volume.box_h[s] = 0;
        Ray_Volume.vol_flag[s] = 0;
        Ray_Volume.gli[s] = nullptr;
        Ray_Volume.tag[s] = nullptr;
        if (Ray_Volume.grad[s]) {
            Ray_Grad_Release(Ray_Volume.grad[s]);
            Ray_Volume.grad[s] = nullptr;
        }
        Ray_Render_Layout_Release(Ray_Volume.render[s]);
        Ray_Volume.render[s] = nullptr;
    }
    Critical_Ray_Out("Vol_Ray_Exit");

    for (int s = 0; s < RAY_SLOTS; s++) Ray_Free_Device_Buffers(s);

    Critical_Ray_Cleanup();
    Ray_Trace(RAY_TR_EXPORT, "<<< out Voxelune: Ray_Exit(done)");
    return 1;
}

/* ----------------------------------------------------------------- frames */

/* Why a frame request cannot be taken as it stands, or null. */
static const char* start_refusal(const Boxs* box, int s)
{
    if (!Ray_Init_Done) return "the library is not started (Ray_Init)";
    if (!box) return "no box";
    if (box->width < 0 || box->height < 0) return "the box has a negative size";
    if (!box->Graph_Normal && box->width > 0 && box->height > 0) return "the box has no image buffer";
    if (static_cast<long long>(box->width) * box->height > 0x7FFFFFFFLL) return "the box has too many pixels";
    if (!Phong_table) return "no Phong table";
    /* The kernel would read the device buffers unchecked; a CPU frame of
       an empty slot is simply empty (every ray gives 0). */
    if (Ray_Volume.use_cuda[s] == 1 && (!Ray_Cuda_GLI[s] || !Ray_Cuda_TAG[s] || !Ray_Cuda_Grad_A[s] ||
                                        !Ray_Cuda_Grad_X[s] || !Ray_Cuda_Grad_Y[s] || !Ray_Cuda_Grad_Z[s]))
        return "the slot's volume is no longer on the device";
    return nullptr;
}


int Ray_Start(Boxs* box, unsigned short id)
{
    Ray_Trace(RAY_TR_EXPORT, ">>> in  Voxelune: Ray_Start(id=%d)", static_cast<int>(id));
    int s = Ray_Slot(id);
    const char* why = start_refusal(box, s);
    if (why) {
        Ray_Trace(RAY_TR_ERROR, "ERROR: Ray_Start(id=%d) refused: %hs", static_cast<int>(id), why);
        return 1;
    }

    /*
     * The binding is written under the lock; a worker copies it under the
     * same lock when it takes a task, so a ray sees the old binding or the
     * new one, never a mix.  Rays of the old frame in flight land in it as
     * stale pixels that the new frame's tasks overwrite.
     */
    Critical_Ray_In("Ray_Start");
    /* the draw thread reads the box pointer without the lock */
    __atomic_store_n(&Ray_Volume.box[s], box, __ATOMIC_RELAXED);
    Ray_Volume.box_w[s] = static_cast<unsigned int>(box->width);
    Ray_Volume.box_h[s] = static_cast<unsigned int>(box->height);

    int dx = Ray_Volume.dim_x[s], dy = Ray_Volume.dim_y[s], dz = Ray_Volume.dim_z[s];
    Matrix_4x4& m = Ray_Volume.transfo[s];
    m = Ray_Params.view_transfo;
    float h = Ray_Diagonal(dx, dy, dz) * 0.5f;
    m.scale(h, h, h, combine_after);
    m.translate(static_cast<float>(dx) * 0.5f, static_cast<float>(dy) * 0.5f, static_cast<float>(dz) * 0.5f,
                combine_after);

    bool gpu = Ray_Volume.use_cuda[s] == 1;
    if (!gpu) {
        /* Written before the lock is left: part of the binding. */
        Ray_Clip_Box(s, Ray_Volume.clip_box[s]);
    }
    Critical_Ray_Out("Ray_Start");

    if (gpu)
        Ray_GPU_Start(static_cast<unsigned short>(s));
    else
        Ray_CPU_Start(static_cast<unsigned short>(s));
    Ray_Trace(RAY_TR_EXPORT, "<<< out Voxelune: Ray_Start(done)");
    return 1;
}

int Ray_Stop(unsigned short id)
{
    Ray_Trace(RAY_TR_RENDER, ">>> in  Voxelune: Ray_Stop(id=%d)", static_cast<int>(id));
    if (!Ray_Init_Done) {
        Ray_Trace(RAY_TR_ERROR, "ERROR: Ray_Stop(id=%d) refused: the library is not started (Ray_Init)",
                  static_cast<int>(id));
        return 1;
    }
    Ray_CPU_Stop(static_cast<unsigned short>(Ray_Slot(id)));
    Ray_Trace(RAY_TR_RENDER, "<<< out Voxelune: Ray_Stop(done)");
    return 1;
}
