/*
 * voxelune_layout.h - the coarse-to-fine layout of a CPU frame, shared by
 * the library's pipeline and its hosts.
 *
 * A CPU frame of width x height pixels is refined in levels: the first
 * casts one ray per block of pixels, each following level halves the
 * block side, the last casts one ray per pixel.  The box is redrawn once
 * per level, so a host that waits for a frame waits for this many redraws.
 */
#ifndef VOXELUNE_VOXELUNE_LAYOUT_H
#define VOXELUNE_VOXELUNE_LAYOUT_H

#include <math.h>

/*
 * Number of refinement levels of a width x height frame:
 * 1 + floor(log2(max(1, sqrt(N / 1000)))) with N = width * height, in
 * single precision.  An empty box (N < 1) has one level.  N must fit an
 * int: the pipeline refuses larger boxes.
 */
inline int Voxelune_Level_Count(int width, int height)
{
    long long n = (width < 0 || height < 0) ? 0 : (long long)width * height;
    if (n < 1)
        return 1;
    float s = sqrtf((float)n / 1000.0f);
    if (s < 1.0f)
        s = 1.0f;
    return 1 + (int)log2f(s);
}

#endif
