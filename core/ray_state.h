/*
 * ray_state.h - the library's global state: render parameters, the 32
 * volume slots, the Phong table, the library lock and the trace helpers.
 *
 * Per-slot state is one 32-entry table per field, indexed by the slot
 * (the host's id & 31).  The setters write the parameters without the
 * lock; the renderers read them without it.
 */
#ifndef VOXELUNE_CORE_RAY_STATE_H
#define VOXELUNE_CORE_RAY_STATE_H

#include <corekit/corekit.h>
#include <panelkit/panelkit.h>

#include <atomic>
#include <cstddef>

#include "platform.h"

#define RAY_SLOTS 32
#define RAY_LIGHTS 5
#define RAY_PHONG_SIZE 1024

/* Flag words of the trace lines. */
#define RAY_TR_EXPORT 0x90002004u  /* entry and exit of the exports */
#define RAY_TR_PREP 0x90002006u    /* volume preprocessing */
#define RAY_TR_RENDER 0x90002008u  /* render path, Ray_Stop */
#define RAY_TR_LOCK 0x90004006u    /* lock lines */
#define RAY_TR_ALLOC 1u            /* allocation failures */
#define RAY_TR_ERROR 2u            /* error lines, refused input */
#define RAY_TR_CUDA 0x80082008u    /* "-> %hs" after a successful CUDA call */

/* One trace line through the host's Error_Fct (narrow or wide format). */
#define Ray_Trace(flags, ...) Error_Fct(hwnd, (flags), __VA_ARGS__)

/*
 * The allocation-failure line (flags 1): the source line of the failing
 * call (pass __LINE__ written on the line of the call), the source name,
 * the allocator ("malloc", "calloc", "realloc", "new"), the variable and
 * its two dimensions.
 */
void Ray_Trace_Alloc(int line, const char* file, const char* call, const char* var, int d1, int d2);

/*
 * malloc, calloc and realloc that write the allocation-failure line when
 * they fail (a large malloc is taken in 2 MiB pages, see Plat_Alloc_Large;
 * every block is released with free()): line is the caller's __LINE__, written on the line of the
 * call; var, d1 and d2 name the variable and its dimensions.  Each call
 * counts Ray_Fail_Alloc_At down (tests inject failures with it).
 */
void* Ray_Malloc(size_t bytes, int line, const char* file, const char* var, int d1, int d2);
void* Ray_Calloc(size_t n, size_t size, int line, const char* file, const char* var, int d1, int d2);
void* Ray_Realloc(void* p, size_t bytes, int line, const char* file, const char* var, int d1, int d2);
/* The n-th next Ray_Malloc, Ray_Calloc or Ray_Realloc (counting from 1) fails; 0 disables. */
extern std::atomic<int> Ray_Fail_Alloc_At;

/* The global render parameters. */
struct Ray_Params_Table {
    float threshold;
    unsigned char col_mode;
    unsigned char map_nb;
    unsigned char map_id[256];
    unsigned char map_col[256];
    unsigned int tag_col[256];
    unsigned short light_nb;
    unsigned char light_status[RAY_LIGHTS];
    unsigned int light_color[RAY_LIGHTS];
    Vector_4 light_vec[RAY_LIGHTS];
    Vector_4 light_dir[RAY_LIGHTS];   /* volume space, unit length; entry 0 stays zero */
    Matrix_4x4 view_transfo;
};
extern Ray_Params_Table Ray_Params;

/* A CPU slot's interleaved channels and block bounds (cpu/ray_render_layout.h). */
struct Ray_Render_Layout;

/* The 32 volume slots, one table per field. */
struct Ray_Volume_Table {
    int dim_x[RAY_SLOTS], dim_y[RAY_SLOTS], dim_z[RAY_SLOTS];
    float* gli[RAY_SLOTS];            /* the host's grey levels */
    unsigned char* tag[RAY_SLOTS];    /* the host's tags */
    float** grad[RAY_SLOTS];          /* grad_a, grad_x, grad_y, grad_z; owned */
    Ray_Render_Layout* render[RAY_SLOTS]; /* a CPU slot's gradients, as it renders them; owned */
    unsigned int use_cuda[RAY_SLOTS];
    float clip[RAY_SLOTS];            /* depth clip distance */
    float clip_frac_x[RAY_SLOTS][2];
    float clip_frac_y[RAY_SLOTS][2];
    float clip_frac_z[RAY_SLOTS][2];
    unsigned int vol_flag[RAY_SLOTS];
    Boxs* box[RAY_SLOTS];
    unsigned int box_w[RAY_SLOTS], box_h[RAY_SLOTS];
    Matrix_4x4 transfo[RAY_SLOTS];    /* view space to the slot's voxel space */
    int clip_box[RAY_SLOTS][6];       /* x low, x high, y low, y high, z low, z high */
};
extern Ray_Volume_Table Ray_Volume;

/* Device copies of a GPU slot's volume (null without CUDA). */
extern float* Ray_Cuda_GLI[RAY_SLOTS];
extern unsigned char* Ray_Cuda_TAG[RAY_SLOTS];
extern float* Ray_Cuda_Grad_A[RAY_SLOTS];
extern float* Ray_Cuda_Grad_X[RAY_SLOTS];
extern float* Ray_Cuda_Grad_Y[RAY_SLOTS];
extern float* Ray_Cuda_Grad_Z[RAY_SLOTS];
/* Releases each of the slot's device buffers that is set, unchecked. */
void Ray_Free_Device_Buffers(int s);

/* vol_flag bits */
#define RAY_VF_LOW_X 0x10u
#define RAY_VF_LOW_Y 0x20u
#define RAY_VF_LOW_Z 0x40u
#define RAY_VF_CLIP 0x80u
#define RAY_VF_HIGH_X 0x100u
#define RAY_VF_HIGH_Y 0x200u
#define RAY_VF_HIGH_Z 0x400u

/*
 * The slot's clip box in voxels, in the order of clip_box: for each axis
 * its dimension (as a float) times the low and the high fraction of
 * clip_frac_*, truncated toward zero to an int32 as the CPU converts it
 * (out of range: INT32_MIN).  Frame requests store it in clip_box for the
 * CPU walk; the GPU frame uploads its pairs to the device.
 */
void Ray_Clip_Box(int s, int box[6]);

/* The Phong table: 1024 entries, built by Ray_Init, released by Ray_Exit. */
extern unsigned int* Phong_table;
extern float Phong_exponent;
/* Fills table[0..1023] with trunc(min(1, (i/1024)^Phong_exponent) * 255). */
void Ray_Phong_Build(unsigned int* table);

/*
 * The CPU pipeline's run flag, written under the lock.  The walk reads it
 * under the lock while a trace sink listens, else with an acquire load.
 */
extern std::atomic<int> Ray_Thread_Run;

/* The library lock, traced on every enter and leave. */
extern Plat_Rlock Ray_Critical;
void Critical_Ray_Create();
void Critical_Ray_Cleanup();
void Critical_Ray_In(const char* who);
void Critical_Ray_Out(const char* who);

/* 1 between a successful Ray_Init and the next Ray_Exit. */
extern int Ray_Init_Done;

/* The slot of a host id. */
static inline int Ray_Slot(unsigned int id) { return static_cast<int>(id & 31u); }

/*
 * n = dim_x * dim_y * dim_z as the renderers compute it (signed 32-bit,
 * wrapping); 32-bit square of a dimension, likewise.
 */
static inline int Ray_Mul32(int a, int b)
{
    return static_cast<int>(static_cast<unsigned int>(a) * static_cast<unsigned int>(b));
}

/* d = sqrt(float(x^2) + float(y^2) + float(z^2)), squares in 32 bits. */
float Ray_Diagonal(int dim_x, int dim_y, int dim_z);

#endif
