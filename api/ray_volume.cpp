/*
 * ray_volume.cpp - volume registration in the 32 slots.
 *
 * Registering a volume smooths it, computes its gradient block and
 * decides where the slot renders: on the GPU when the host allows it and
 * the device has room for the six volume buffers plus 1 MiB, otherwise on
 * the CPU.  A GPU slot keeps device copies and no host gradients; a CPU
 * slot keeps the host gradient block.
 */
#include <voxelune/voxelune.h>

#include <cstdint>

#include "core/ray_state.h"
#include "cpu/ray_render_layout.h"
#include "gpu/ray_cuda_check.h"
#include "gpu/ray_gradient.h"

/* Error trace lines of this file name their source as "ray_init". */
#define RAY_SRC "ray_init"

/* Releases the slot's device buffers, unchecked. */
void Ray_Free_Device_Buffers(int s)
{
    void** bufs[6] = {reinterpret_cast<void**>(&Ray_Cuda_GLI[s]), reinterpret_cast<void**>(&Ray_Cuda_TAG[s]),
                      reinterpret_cast<void**>(&Ray_Cuda_Grad_A[s]), reinterpret_cast<void**>(&Ray_Cuda_Grad_X[s]),
                      reinterpret_cast<void**>(&Ray_Cuda_Grad_Y[s]), reinterpret_cast<void**>(&Ray_Cuda_Grad_Z[s])};
    for (void** b : bufs)
        if (*b) {
            (void)cudaFree(*b);
            *b = nullptr;
        }
}

/* Allocates a device buffer of size bytes and copies src into it; fatal on failure. */
static void upload(void** dst, const void* src, size_t size, const char* malloc_label, const char* copy_label)
{
    Ray_Cuda_Check(cudaMalloc(dst, size), malloc_label, RAY_SRC, __LINE__);
    Ray_Cuda_Check(cudaMemcpy(*dst, src, size, cudaMemcpyHostToDevice), copy_label, RAY_SRC, __LINE__);
}

static void upload_slot(int s, int n)
{
    size_t n4 = static_cast<size_t>(n) * 4u;
    float** grad = Ray_Volume.grad[s];
    upload(reinterpret_cast<void**>(&Ray_Cuda_GLI[s]), Ray_Volume.gli[s], n4, "cudaMalloc[Ray_Cuda_GLI]",
           "cudaMemcpy[Ray_Cuda_GLI]");
    upload(reinterpret_cast<void**>(&Ray_Cuda_TAG[s]), Ray_Volume.tag[s], static_cast<size_t>(n),
           "cudaMalloc[Ray_Cuda_TAG]", "cudaMemcpy[Ray_Cuda_TAG]");
    upload(reinterpret_cast<void**>(&Ray_Cuda_Grad_A[s]), grad[0], n4, "cudaMalloc[Ray_Cuda_Grad_A]",
           "cudaMemcpy[Ray_Cuda_Grad_A]");
    upload(reinterpret_cast<void**>(&Ray_Cuda_Grad_X[s]), grad[1], n4, "cudaMalloc[Ray_Cuda_Grad_X]",
           "cudaMemcpy[Ray_Cuda_Grad_X]");
    upload(reinterpret_cast<void**>(&Ray_Cuda_Grad_Y[s]), grad[2], n4, "cudaMalloc[Ray_Cuda_Grad_Y]",
           "cudaMemcpy[Ray_Cuda_Grad_Y]");
    upload(reinterpret_cast<void**>(&Ray_Cuda_Grad_Z[s]), grad[3], n4, "cudaMalloc[Ray_Cuda_Grad_Z]",
           "cudaMemcpy[Ray_Cuda_Grad_Z]");
}

/* A registration the library cannot take as is; see the header. */
static const char* refusal(int dim_x, int dim_y, int dim_z, const unsigned char* tag)
{
    if (dim_x < 0 || dim_y < 0 || dim_z < 0) return "a dimension is negative";
    if (static_cast<int64_t>(dim_x) * dim_y * dim_z > INT32_MAX) return "the voxel count exceeds 2^31 - 1";
    if (!tag) return "no tag volume given";
    return nullptr;
}

int Ray_Set_Volume(unsigned short id, int dim_x, int dim_y, int dim_z, float* gli, unsigned char* tag)
{
    Ray_Trace(RAY_TR_EXPORT, ">>> in  Voxelune: Ray_Set_Volume(id=%d)", id);
    int s = Ray_Slot(id);

    if (dim_x != 0 && !gli) {
        int held = dim_x == Ray_Volume.dim_x[s] && dim_y == Ray_Volume.dim_y[s] &&
                   dim_z == Ray_Volume.dim_z[s] && Ray_Volume.gli[s] && Ray_Volume.tag[s] &&
                   (Ray_Volume.grad[s] || Ray_Volume.render[s]);
        Ray_Trace(RAY_TR_EXPORT, held ? "<<< out Voxelune: Ray_Set_Volume(querry->1)"
                                      : "<<< out Voxelune: Ray_Set_Volume(querry->0)");
        return held;
    }
    if (dim_x != 0) {
        const char* why = refusal(dim_x, dim_y, dim_z, tag);
        if (why) {
            Ray_Trace(RAY_TR_ERROR, "ERROR: Ray_Set_Volume(id=%d): %hs", id, why);
            return 1;
        }
    }

    Ray_Volume.gli[s] = gli;
    Ray_Volume.dim_x[s] = dim_x;
    Ray_Volume.dim_y[s] = dim_y;
    Ray_Volume.dim_z[s] = dim_z;
    Ray_Volume.tag[s] = tag;
    Ray_Grad_Release(Ray_Volume.grad[s]);
    Ray_Volume.grad[s] = nullptr;
    Ray_Render_Layout_Release(Ray_Volume.render[s]);
    Ray_Volume.render[s] = nullptr;
    Ray_Free_Device_Buffers(s);

    if (dim_x == 0) {
        Ray_Trace(RAY_TR_EXPORT, "<<< out Voxelune: Ray_Set_Volume(!x)");
        return 1;
    }

    float* smooth = Ray_Vol_Filter(dim_x, dim_y, dim_z, gli);
    if (smooth) {
        Ray_Volume.grad[s] = Ray_Vol_Gradient(dim_x, dim_y, dim_z, smooth);
        Ray_Vol_Release(smooth);
    }

    int n = dim_x * dim_y * dim_z;
    Ray_Volume.use_cuda[s] = 0;
    if (Ray_Volume.grad[s] && Ray_Gpu_Room(21ull * static_cast<uint64_t>(n) + 1048576ull))
        Ray_Volume.use_cuda[s] = 1;

    if (Ray_Volume.use_cuda[s]) {
        upload_slot(s, n);
        Ray_Grad_Release(Ray_Volume.grad[s]);
        Ray_Volume.grad[s] = nullptr;
    } else if (Ray_Volume.grad[s]) {
        /* A CPU slot renders from its layout, which holds the gradients:
         * the separate arrays go (without memory for a layout they stay). */
        Ray_Volume.render[s] = Ray_Render_Layout_Build(dim_x, dim_y, dim_z, gli, Ray_Volume.grad[s]);
        if (Ray_Volume.render[s]) {
            Ray_Grad_Release(Ray_Volume.grad[s]);
            Ray_Volume.grad[s] = nullptr;
        }
    }
    Ray_Trace(RAY_TR_EXPORT, "<<< out Voxelune: Ray_Set_Volume(done)");
    return 1;
}
