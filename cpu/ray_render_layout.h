/*
 * ray_render_layout.h - what a CPU slot renders from, built when the
 * volume is registered.
 *
 * The five channels that a sample interpolates (grey level, gradient
 * magnitude, unit gradient x, y, z) lie side by side per voxel, so one
 * trilinear stencil touches a few cache lines instead of forty scattered
 * words.  Per block of 4 x 4 x 4 voxels, bounds of the grey level and the
 * gradient magnitude over every stencil a sample in the block can use let
 * the walk see, before it interpolates, that a sample cannot add anything.
 */
#ifndef VOXELUNE_CPU_RAY_RENDER_LAYOUT_H
#define VOXELUNE_CPU_RAY_RENDER_LAYOUT_H

#include <cstddef>

/* Channels of a voxel, in this order. */
enum { RAY_CH_G = 0, RAY_CH_A = 1, RAY_CH_X = 2, RAY_CH_Y = 3, RAY_CH_Z = 4, RAY_CH_NB = 5 };
/* Floats past the last voxel that the packets' four-float loads may read (two). */
#define RAY_LAYOUT_PAD 3
/* log2 of the block side. */
#define RAY_BLOCK_SHIFT 2

/*
 * Bounds over the stencils of the samples whose voxel (the integer part
 * of the sample point) lies in the block: every interpolated grey level
 * is at most g_hi and every interpolated magnitude lies in [0, a_hi], both
 * finite.  +inf where the block's values allow no such statement (an
 * infinite or huge value, a negative magnitude).
 */
struct Ray_Block_Bound {
    float a_hi;
    float g_hi;
    /*
     * The same for every sample point within 4 voxels of the block on
     * each axis, whatever the weights' signs: the largest a_hi of the
     * block and its 26 neighbours, and a bound of the grey level's
     * magnitude over them.
     */
    float a_near;
    float g_near;
    unsigned int flags;   /* RAY_BLOCK_NO_NAN: no NaN in any channel of the block's stencils */
};
#define RAY_BLOCK_NO_NAN 1u

/*
 * The same bounds folded for the colour modes that weigh by grey level
 * (0 and 1), where a sample is transparent when its magnitude is 0 or its
 * grey level at or below the cut: a grey bound at or below which every
 * sample of the block is transparent, -inf where the magnitude bound is 0
 * (any finite cut then passes).  Kept as the top 16 bits of the float,
 * rounded toward +inf (so still a bound), per block side by side (the
 * packets read both with one gather) and per macro block.
 */
typedef unsigned short Ray_Grey16;
Ray_Grey16 Ray_Grey16_Of(float bound);
/* A block's two, read as one 32-bit word: own in the low half, near in the high. */
struct Ray_Grey_Pair {
    Ray_Grey16 own;
    Ray_Grey16 near;
};
/*
 * log2 of a macro block's side in blocks: per macro block the largest near
 * bound of its blocks, so that a packet lane in a macro block where every
 * step is leaped takes the steps up to the block's faces at once.
 */
#define RAY_MACRO_SHIFT 2
struct Ray_Render_Layout {
    int dim[3];
    int bdim[3];               /* blocks per axis */
    float* voxel;              /* RAY_CH_NB floats per voxel, then RAY_LAYOUT_PAD */
    size_t row, slice;         /* floats from a voxel to the next along y, along z */
    Ray_Block_Bound* block;    /* bdim[0] * bdim[1] * bdim[2], x fastest */
    Ray_Grey_Pair* grey;       /* per block: own a_hi <= 0 ? -inf : g_hi, near a_near <= 0 ? -inf : g_near */
    int mdim[3];               /* macro blocks per axis */
    Ray_Grey16* grey_macro;    /* per macro block: the largest near bound of its blocks, then one unused entry */
    bool any_nan;              /* some block's stencils hold a NaN */
};

/*
 * Builds the layout of a dx x dy x dz volume from its grey levels and
 * gradient block (grad_a, grad_x, grad_y, grad_z); null when memory runs
 * out (the allocation-failure line is written).
 */
Ray_Render_Layout* Ray_Render_Layout_Build(int dx, int dy, int dz, const float* gli, float* const* grad);
void Ray_Render_Layout_Release(Ray_Render_Layout* layout);
/* Bytes the layout holds. */
size_t Ray_Render_Layout_Bytes(const Ray_Render_Layout* layout);

#endif
