/*
 * ray_cuda_host.cpp - the GPU frame's entry points in a build without CUDA.
 *
 * Without the device code no slot can be drawn on the GPU: registration
 * sees no free device memory and sends every volume to the CPU.  These
 * entry points exist so that the frame request links; they do nothing.
 */
#include "gpu/ray_cuda.h"

#if !defined(VOXELUNE_WITH_CUDA)

int Ray_GPU_Start(unsigned short) { return 1; }

int Ray_Cuda(unsigned short) { return 1; }

#endif
