/*
 * ray_pixel.h - one pixel of a CPU frame, from set-up to packed word.
 */
#ifndef VOXELUNE_CPU_RAY_PIXEL_H
#define VOXELUNE_CPU_RAY_PIXEL_H

#include "core/ray_core.h"
#include "core/ray_scene.h"

/*
 * What a ray of a slot's frame reads of the slot's binding: the view
 * matrix as 16 floats, the voxel clip box and the box size.  A worker
 * copies it under the lock when it takes a task, so that a Ray_Start that
 * rebinds the slot meanwhile never hands a ray half a binding.
 */
struct Ray_View {
    float m[16];
    int clip_box[6];
    int w, h;
};

/* The stop request under the library lock, with its two trace lines: what a step reads while a sink listens. */
struct Ray_Run_Locked {
    bool operator()() const;
};

/* The CPU walk of slot's volume, with the stop request of the pipeline. */
unsigned int Ray_DDDA_Walk(Rays* ray, int slot, float threshold, float clip);

/* The binding of slot as its tables hold it now, for a w x h box. */
void Ray_View_Of(int slot, int w, int h, Ray_View* view);

/*
 * Casts the ray of pixel (i, j) of slot's frame in view and returns its
 * pixel word: 0 for a ray that misses the volume.  Called without the
 * library lock.  The walk reads the run flag at every voxel step: under
 * the lock, with its two trace lines, while a trace sink listens, with an
 * acquire load otherwise.  A slot with a render layout is walked through
 * it; the result is the same word as the plain walk's.
 */
unsigned int Ray_Pixel_View(int slot, const Ray_View& view, int i, int j);

/*
 * The words of pixels (i[k], j[k]), k < n, of slot's frame in view, into
 * out[k]: each the word Ray_Pixel_View gives, with the jitter draws taken
 * pixel by pixel in the same order.  Where the processor and the scene
 * allow, eight rays (AVX2) or sixteen (AVX-512) are walked at once.
 */
void Ray_Pixels_View(int slot, const Ray_View& view, int n, const int* i, const int* j, unsigned int* out);

/* Ray_Pixel_View with the slot's binding as it stands, for a W x H box. */
unsigned int Ray_Pixel(int slot, int i, int j, int W, int H);

#endif
