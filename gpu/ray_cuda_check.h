/*
 * ray_cuda_check.h - the check that follows every CUDA call, the check of
 * a kernel launch, and the choice between the GPU and the CPU.
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

/*
 * Runs launch (one kernel launch) and checks the launch itself: a launch
 * the device refuses (a block it cannot take, resources it lacks) is
 * fatal at once under label, before anything waits for results that will
 * never come.  An error left pending by an earlier call that nobody
 * checked is cleared first, so that it is not taken for the launch's.  A
 * launch that succeeds writes no trace line: the synchronisation after it
 * is the checked call.
 */
template <typename Launch>
inline void Ray_Cuda_Launch(Launch launch, const char* label, const char* source, int line)
{
    (void)cudaGetLastError();
    launch();
    cudaError_t code = cudaGetLastError();
    if (code != cudaSuccess) Ray_Cuda_Check(code, label, source, line);
}

/* Largest block every kernel of the library launches with (launch bounds). */
#define RAY_CUDA_MAX_BLOCK 1024

/* The host's Cuda_Thread_Block when the kernels can take it (1 to 1024), else 0. */
unsigned int Ray_Cuda_Block();

/* The free device memory in bytes; 0 when cudaMemGetInfo fails. */
uint64_t Ray_Gpu_Free_Memory();

/*
 * The choice between GPU and CPU: 1 when the host allows CUDA
 * (Test_Cuda(3, 0)) and the free device memory is strictly greater than
 * need bytes; without the host's permission the device is not asked.
 */
int Ray_Gpu_Room(uint64_t need);

/* Test hook: when set, Ray_Gpu_Free_Memory returns what it returns. */
extern uint64_t (*Ray_Gpu_Free_Memory_Hook)();

#endif
