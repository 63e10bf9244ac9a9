/*
 * ray_cuda_check.h - the check that follows every CUDA call, and the
 * free-memory figure that decides between the GPU and the CPU.
 */
#ifndef VOXELUNE_GPU_RAY_CUDA_CHECK_H
#define VOXELUNE_GPU_RAY_CUDA_CHECK_H

#include <cstdint>

#include "cuda_rt.h"

/*
 * Returns when code is cudaSuccess (writing "-> label" when the trace
 * level asks for it); otherwise shows the fatal message box, calls the
 * host's crash callback and ends the process with status 0.
 */
void Ray_Cuda_Check(cudaError_t code, const char* label, const char* source, int line);

/* The free device memory in bytes; 0 when cudaMemGetInfo fails. */
uint64_t Ray_Gpu_Free_Memory();

/* Test hook: when set, Ray_Gpu_Free_Memory returns what it returns. */
extern uint64_t (*Ray_Gpu_Free_Memory_Hook)();

#endif
