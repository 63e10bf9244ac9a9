/*
 * ray_gradient_int.h - the inside of volume preprocessing, shared by the
 * host side (ray_gradient.cpp), the device side (ray_gradient.cu) and the
 * project's tests and benchmarks.
 */
#ifndef VOXELUNE_GPU_RAY_GRADIENT_INT_H
#define VOXELUNE_GPU_RAY_GRADIENT_INT_H

#include "../core/ray_preproc.h"

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
 * 1 when an operation on n voxels goes to the GPU: the host allows CUDA
 * (Test_Cuda(3, 0)) and the free device memory is strictly greater than
 * n * factor (signed 32-bit product) * unit bytes, compared in unsigned
 * 64 bits.  The filter asks with (5, 4), the gradient with (10, 1).
 */
int Ray_Prep_Use_Gpu(int n, int factor, unsigned int unit);

/*
 * Host result buffers: n floats (at least one, so that an empty volume is
 * not taken for a failure).  Small buffers are zeroed; large ones (4 MiB
 * and up) are not, since the paths write every element.  A failure
 * writes the memory error line with the caller's source line and
 * returns null.
 */
float* Ray_Prep_Alloc(int n, int line);
/* The gradient block and its four buffers; on failure nothing is kept. */
float** Ray_Grad_Alloc(int n);

/* Test hook: the k-th next host allocation (counting from 1) fails.  0: off. */
extern int Ray_Prep_Fail_Alloc_At;

/*
 * The CPU path.  out / grad hold dim_x * dim_y * dim_z floats; threads is
 * the number of threads to share the z slices among (1: the caller's
 * thread only).  Results are identical for every thread count.
 */
void Ray_Vol_Filter_Cpu(int dim_x, int dim_y, int dim_z, const float* in, float* out, int threads);
void Ray_Vol_Gradient_Cpu(int dim_x, int dim_y, int dim_z, const float* in, float** grad,
                          int threads);
/* The thread count the operations use for n voxels in dim_z slices. */
int Ray_Prep_Threads(int n, int dim_z);

/*
 * The reference form: one voxel after another with the per-voxel
 * functions, on the caller's thread.  The CPU path must equal it bit for
 * bit.
 */
void Ray_Vol_Filter_Scalar(int dim_x, int dim_y, int dim_z, const float* in, float* out);
void Ray_Vol_Gradient_Scalar(int dim_x, int dim_y, int dim_z, const float* in, float** grad);

/*
 * The GPU path: uploads, kernel launch, copy back, device buffers freed;
 * every CUDA call checked.  Returns the host result, or null when host
 * memory runs out (after freeing the device buffers).
 */
float* Ray_Gpu_Filter(int dim_x, int dim_y, int dim_z, const float* volume);
float** Ray_Gpu_Gradient(int dim_x, int dim_y, int dim_z, const float* volume);

#endif
