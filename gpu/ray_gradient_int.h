/*
 * ray_gradient_int.h - the inside of volume preprocessing, shared by the
 * host side (ray_gradient.cpp), the device side (ray_gradient.cu) and the
 * project's tests and benchmarks.  The CPU path is cpu/ray_preproc_cpu.h.
 */
#ifndef VOXELUNE_GPU_RAY_GRADIENT_INT_H
#define VOXELUNE_GPU_RAY_GRADIENT_INT_H

#include <atomic>

#include "core/ray_preproc.h"

/* Source name written into memory error lines and CUDA checks. */
#define RAY_GRADIENT_SRC "ray_gradient"

/*
 * The filter weights, z offset slowest, x offset fastest, and the radius
 * that marks them built (0 until the first Ray_Vol_Filter, then 2).
 */
extern float Ray_Filter_Kern[RAY_KERN_SIZE];
extern int Ray_Filter_Radius;
/* Builds the weight table unless it is built already. */
void Ray_Filter_Kern_Build();

/*
 * 1 when an operation on n voxels goes to the GPU: Ray_Gpu_Room with
 * n * factor (signed 32-bit product) * unit bytes, compared in unsigned
 * 64 bits, and a block size the kernels take.  The filter asks with
 * (5, 4), the gradient with (10, 1).
 */
int Ray_Prep_Use_Gpu(int n, int factor, unsigned int unit);

/*
 * Host result buffers: n floats (at least one, so that an empty volume is
 * not taken for a failure).  Small buffers are zeroed; large ones (4 MiB
 * and up) are not, since the paths write every element.  A failure
 * writes the memory error line with var and line (the caller's
 * __LINE__, on the line of the call) and returns null.
 */
float* Ray_Prep_Alloc(int n, const char* var, int line);
/* The gradient block and its four buffers; on failure nothing is kept. */
float** Ray_Grad_Alloc(int n);

/* Test hook: the k-th next host allocation (counting from 1) fails.  0: off. */
extern std::atomic<int> Ray_Prep_Fail_Alloc_At;

/*
 * The GPU path: uploads, kernel launch, copy back, device buffers freed;
 * every CUDA call checked.  Returns the host result, or null when host
 * memory runs out (after freeing the device buffers).
 */
float* Ray_Gpu_Filter(int dim_x, int dim_y, int dim_z, const float* volume);
float** Ray_Gpu_Gradient(int dim_x, int dim_y, int dim_z, const float* volume);

#endif
