/*
 * ray_gradient.h - volume preprocessing: the 5x5x5 Gaussian smoothing and
 * the gradient block, on the GPU or on the CPU.
 */
#ifndef VOXELUNE_GPU_RAY_GRADIENT_H
#define VOXELUNE_GPU_RAY_GRADIENT_H

/* The smoothed volume (n floats, released with Ray_Vol_Release), or null. */
float* Ray_Vol_Filter(int dim_x, int dim_y, int dim_z, float* volume);

/* The gradient block grad_a, grad_x, grad_y, grad_z (released with
 * Ray_Grad_Release), or null. */
float** Ray_Vol_Gradient(int dim_x, int dim_y, int dim_z, float* volume);

/* Releases a smoothed volume. */
void Ray_Vol_Release(float* volume);

/* Releases each of the four arrays that is set, then the block.  Null is fine. */
void Ray_Grad_Release(float** grad);

#endif
