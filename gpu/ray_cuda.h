/*
 * ray_cuda.h - the GPU frame: device constants, one kernel launch per frame.
 */
#ifndef VOXELUNE_GPU_RAY_CUDA_H
#define VOXELUNE_GPU_RAY_CUDA_H

/* Uploads the parameters of slot and renders its frame into the box. */
int Ray_GPU_Start(unsigned short slot);
int Ray_Cuda(unsigned short slot);

/*
 * The GPU frame of slot s as the host computes it, word for word: w x h
 * pixel words into out, each the device pixel of the scene that
 * Ray_GPU_Start uploads, with grad as the slot's four gradient arrays
 * (null: those of a GPU slot, copied from the device).
 */
void Ray_Device_Frame_Host(int s, int w, int h, float* const* grad, unsigned int* out);

#endif
