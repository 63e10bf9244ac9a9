/*
 * ray_preproc_cpu.h - volume preprocessing on the CPU: the 5x5x5 Gaussian
 * smoothing and the gradient block, computed with the per-voxel arithmetic
 * of core/ray_preproc.h (which the kernels use too), arranged for speed.
 */
#ifndef VOXELUNE_CPU_RAY_PREPROC_CPU_H
#define VOXELUNE_CPU_RAY_PREPROC_CPU_H

/*
 * kern is the 125-entry weight table (z offset slowest).  out / grad hold
 * dim_x * dim_y * dim_z floats; threads is the number of threads to share
 * the z slices among (1: the caller's thread only).  Results are
 * identical, bit for bit, for every thread count and to the reference form
 * below.
 */
void Ray_Vol_Filter_Cpu(const float* kern, int dim_x, int dim_y, int dim_z, const float* in, float* out,
                        int threads);
void Ray_Vol_Gradient_Cpu(int dim_x, int dim_y, int dim_z, const float* in, float** grad, int threads);

/* The thread count the operations use for n voxels in dim_z slices. */
int Ray_Prep_Threads(int n, int dim_z);

/* The reference form: one voxel after another with the per-voxel functions, on the caller's thread. */
void Ray_Vol_Filter_Scalar(const float* kern, int dim_x, int dim_y, int dim_z, const float* in, float* out);
void Ray_Vol_Gradient_Scalar(int dim_x, int dim_y, int dim_z, const float* in, float** grad);

#endif
