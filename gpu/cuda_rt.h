/*
 * cuda_rt.h - the CUDA runtime as the library's host code sees it.
 *
 * Built with CUDA, this is the runtime's own header.  Built without it,
 * the few runtime calls the library makes are stand-ins that report "no
 * device": the free memory reads as 0, so every volume goes to the CPU,
 * and the code that would talk to a device still compiles unchanged.
 */
#ifndef VOXELUNE_GPU_CUDA_RT_H
#define VOXELUNE_GPU_CUDA_RT_H

#include <cstddef>

#if defined(VOXELUNE_WITH_CUDA)
#include <cuda_runtime_api.h>
#else
typedef int cudaError_t;
enum { cudaSuccess = 0, cudaErrorNoDevice = 100 };
enum cudaMemcpyKind { cudaMemcpyHostToDevice = 1, cudaMemcpyDeviceToHost = 2 };
static inline cudaError_t cudaMemGetInfo(size_t* free_bytes, size_t* total_bytes)
{
    *free_bytes = 0;
    *total_bytes = 0;
    return cudaErrorNoDevice;
}
static inline cudaError_t cudaMalloc(void** p, size_t)
{
    *p = nullptr;
    return cudaErrorNoDevice;
}
static inline cudaError_t cudaMemcpy(void*, const void*, size_t, cudaMemcpyKind) { return cudaErrorNoDevice; }
static inline cudaError_t cudaFree(void* p) { return p ? cudaErrorNoDevice : cudaSuccess; }
static inline cudaError_t cudaGetLastError() { return cudaSuccess; }
static inline const char* cudaGetErrorString(cudaError_t e)
{
    return e == cudaSuccess ? "no error" : "no CUDA-capable device is detected";
}
#endif

#endif
