/*
 * ray_pixel.h - one pixel of a CPU frame, from set-up to packed word.
 */
#ifndef VOXELUNE_CORE_RAY_PIXEL_H
#define VOXELUNE_CORE_RAY_PIXEL_H

/*
 * Casts the ray of pixel (i, j) of a W x H box through slot's volume and
 * returns its pixel word: 0 for a ray that misses the volume.  Called by
 * the ray workers without the library lock; the walk takes the lock at
 * every voxel step to read Ray_Thread_Run.
 */
unsigned int Ray_Pixel(int slot, int i, int j, int W, int H);

#endif
