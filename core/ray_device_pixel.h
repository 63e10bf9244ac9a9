/*
 * ray_device_pixel.h - one pixel of a GPU frame, as each thread of the
 * frame kernel renders it.  Written on top of the shared ray core in its
 * device form; it compiles for the host as well, so a GPU frame can be
 * reproduced (and tested) pixel by pixel on the CPU.
 */
#ifndef VOXELUNE_CORE_RAY_DEVICE_PIXEL_H
#define VOXELUNE_CORE_RAY_DEVICE_PIXEL_H

#include "ray_core.h"

/*
 * Pixel i of a w x h frame: m is the slot's view matrix (16 floats),
 * sc the scene as the device constants hold it, state the state of the
 * random generator.  Returns the pixel word; 0 for a ray that misses.
 */
VX_HD inline unsigned int Ray_Device_Pixel(int i, unsigned int w, unsigned int h, const float* m,
                                           const Ray_Scene& sc, unsigned int* state)
{
    int W = static_cast<int>(w), H = static_cast<int>(h);
    /* The pixel's row and column, held in signed 16 bits. */
    int r = i / W;
    short row = static_cast<short>(r);
    short col = static_cast<short>(i - r * W);

    float r1 = Cuda_Random_Float(state);
    float r2 = Cuda_Random_Float(state);
    float eye[3], d[3], inv_len;
    Ray_Pixel_Ray(m, col, row, W, H, r1, r2, eye, d, &inv_len);
    float dir[3] = {d[0] * inv_len, d[1] * inv_len, d[2] * inv_len};

    Ray_Run_Always run;
    return Ray_Cast<RAY_GPU>(eye, dir, sc, run);
}

#endif
