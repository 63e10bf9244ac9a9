/*
 * ray_cuda.h - the GPU frame: device constants, one kernel launch per frame.
 */
#ifndef VOXELUNE_GPU_RAY_CUDA_H
#define VOXELUNE_GPU_RAY_CUDA_H

/* Uploads the parameters of slot and renders its frame into the box. */
int Ray_GPU_Start(unsigned short slot);
int Ray_Cuda(unsigned short slot);

#endif
