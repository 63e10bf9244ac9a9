/*
 * ray_hd.h - the annotation that lets one function serve the CPU and the
 * device: compiled by nvcc it is callable from host and device code,
 * compiled by the host compiler it is an ordinary function.
 */
#ifndef VOXELUNE_CORE_RAY_HD_H
#define VOXELUNE_CORE_RAY_HD_H

#if defined(__CUDACC__)
#define VX_HD __host__ __device__
#else
#define VX_HD
#endif

#endif
