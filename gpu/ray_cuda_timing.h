/*
 * ray_cuda_timing.h - where the time of the last GPU frame went, for the
 * benchmarks: uploads (constants and the frame buffer's allocation), the
 * kernel with its synchronisation, and the copy back with the release.
 */
#ifndef VOXELUNE_GPU_RAY_CUDA_TIMING_H
#define VOXELUNE_GPU_RAY_CUDA_TIMING_H

struct Ray_Cuda_Times {
    double upload_ms;
    double kernel_ms;
    double copy_ms;
};
extern Ray_Cuda_Times Ray_Cuda_Timing;

#endif
