/*
 * ray_preproc.h - the per-voxel arithmetic of volume preprocessing: the
 * 5x5x5 Gaussian weights, the smoothing of one voxel and the gradient of
 * one voxel.
 *
 * Every function here is written once and compiled twice: by the host
 * compiler for the CPU path and by nvcc for the kernels Cuda_Filter and
 * Cuda_Gradient.  Host code is built without floating-point contraction
 * and device code with --fmad=false, so both compile every sum below as
 * the same sequence of single-precision roundings and give the same bits.
 *
 * Volumes are dim_x * dim_y * dim_z floats, x fastest; voxel (x, y, z) is
 * element (z * dim_y + y) * dim_x + x, in signed 32-bit arithmetic.  The
 * callers make sure that the voxel count fits in 32 bits, so that every
 * index computed here from coordinates inside the volume is in range.
 */
#ifndef VOXELUNE_CORE_RAY_PREPROC_H
#define VOXELUNE_CORE_RAY_PREPROC_H

#include <math.h>

#include "ray_hd.h"

#define RAY_KERN_RADIUS 2
#define RAY_KERN_WIDTH 5                 /* 2 * radius + 1 */
#define RAY_KERN_SIZE 125                /* width cubed */

/*
 * The filter weight of the tap at offset (a, b, c) along (z, y, x):
 * exp(-(a^2 + b^2 + c^2) / 4), a Gaussian of variance 2 along each axis,
 * in single precision.  Not normalised: the filter divides by the sum of
 * the weights of the taps that it uses.
 */
VX_HD inline float Ray_Kern_Weight(int a, int b, int c)
{
    return expf(-static_cast<float>(a * a + b * b + c * c) * 0.25f);
}

/* Position of the weight of offset (a, b, c) in the 125-entry table. */
VX_HD inline int Ray_Kern_Index(int a, int b, int c)
{
    return (a + RAY_KERN_RADIUS) * 25 + (b + RAY_KERN_RADIUS) * 5 + (c + RAY_KERN_RADIUS);
}

/* Index of voxel (x, y, z) in a volume of dim_x * dim_y voxels per slice. */
VX_HD inline int Ray_Voxel_Index(int dim_x, int dim_y, int x, int y, int z)
{
    return (z * dim_y + y) * dim_x + x;
}

/*
 * Splits a thread's voxel number i into coordinates the way the kernels
 * do: from the unsigned sizes, each coordinate held as a signed 16-bit
 * value.  Dimensions above 32767 therefore wrap; the inside-the-volume
 * tests of the two voxel functions keep every read in range even then.
 */
VX_HD inline void Ray_Voxel_Coords(int i, const unsigned int* dim, short* x, short* y, short* z)
{
    unsigned int ui = static_cast<unsigned int>(i);
    short zz = static_cast<short>(ui / (dim[0] * dim[1]));
    short yy = static_cast<short>(ui / dim[0] - static_cast<unsigned int>(zz) * dim[1]);
    short xx = static_cast<short>(ui - (static_cast<unsigned int>(yy) +
                                        static_cast<unsigned int>(zz) * dim[1]) * dim[0]);
    *x = xx;
    *y = yy;
    *z = zz;
}

/*
 * The smoothed value of voxel (x, y, z): over the taps a, b, c from -2 to
 * 2 (z offset outermost, x offset innermost) whose voxel lies inside the
 * volume, sum += w * value and weight += w, in that order; the result is
 * sum / weight, or 0 when no weight was used.
 */
VX_HD inline float Ray_Filter_Voxel(const float* kern, const float* in, int dim_x, int dim_y,
                                    int dim_z, int x, int y, int z)
{
    float sum = 0.0f;
    float weight = 0.0f;

    for (int a = -RAY_KERN_RADIUS; a <= RAY_KERN_RADIUS; a++) {
        int zz = z + a;
        if (zz < 0 || zz >= dim_z) continue;
        for (int b = -RAY_KERN_RADIUS; b <= RAY_KERN_RADIUS; b++) {
            int yy = y + b;
            if (yy < 0 || yy >= dim_y) continue;
            const float* row = in + Ray_Voxel_Index(dim_x, dim_y, 0, yy, zz);
            const float* w = kern + Ray_Kern_Index(a, b, 0);
            for (int c = -RAY_KERN_RADIUS; c <= RAY_KERN_RADIUS; c++) {
                int xx = x + c;
                if (xx < 0 || xx >= dim_x) continue;
                sum = sum + w[c] * row[xx];
                weight = weight + w[c];
            }
        }
    }
    return weight != 0.0f ? sum / weight : 0.0f;
}

/*
 * The 18 neighbours of a voxel that share a face or an edge with it, named
 * by their offsets along x, y, z: m is -1, p is +1, 0 is none.  So m00 is
 * the voxel at x - 1, and 0pm the one at y + 1, z - 1.
 */
struct Ray_Nbr18 {
    float m00, p00, _0m0, _0p0, _00m, _00p;          /* faces */
    float mm0, pm0, mp0, pp0;                        /* edges in the z slice */
    float m0m, p0m, m0p, p0p;                        /* edges in the y row */
    float _0mm, _0pm, _0mp, _0pp;                    /* edges in the x column */
};

/* A gradient before normalisation: points toward decreasing values. */
struct Ray_Grad_Vec {
    float x, y, z;
};

/* One voxel of the gradient block: magnitude and unit direction. */
struct Ray_Grad_Out {
    float a, x, y, z;
};

/*
 * The gradient from the 18 neighbours.  Each difference is the lower
 * side minus the higher side; the four edge differences are summed left
 * to right, halved, and added to the face difference.
 */
VX_HD inline Ray_Grad_Vec Ray_Grad_Sum(const Ray_Nbr18& s)
{
    Ray_Grad_Vec g;
    g.x = (s.m00 - s.p00) +
          0.5f * ((((s.mm0 - s.pm0) + (s.mp0 - s.pp0)) + (s.m0m - s.p0m)) + (s.m0p - s.p0p));
    g.y = (s._0m0 - s._0p0) +
          0.5f * ((((s.mm0 - s.mp0) + (s.pm0 - s.pp0)) + (s._0mm - s._0pm)) + (s._0mp - s._0pp));
    g.z = (s._00m - s._00p) +
          0.5f * ((((s.m0m - s.m0p) + (s.p0m - s.p0p)) + (s._0mm - s._0mp)) + (s._0pm - s._0pp));
    return g;
}

/* The square of the gradient's length, summed x, y, z. */
VX_HD inline float Ray_Grad_Norm2(Ray_Grad_Vec g)
{
    return g.x * g.x + g.y * g.y + g.z * g.z;
}

/*
 * Magnitude sqrt(norm2) and the components multiplied by 1 / magnitude;
 * a zero gradient keeps its components as computed.  (Multiplying by 1
 * leaves every value, signed zeros included, as it is.)
 */
VX_HD inline Ray_Grad_Out Ray_Grad_Normalise(Ray_Grad_Vec g, float norm2)
{
    Ray_Grad_Out o;
    float mag = sqrtf(norm2);
    float inv = 1.0f / mag;
    float scale = mag != 0.0f ? inv : 1.0f;
    o.a = mag;
    o.x = g.x * scale;
    o.y = g.y * scale;
    o.z = g.z * scale;
    return o;
}

/*
 * Value of the neighbour at (x + dx, y + dy, z + dz), or own (the voxel's
 * own value) when that neighbour lies outside the volume.
 */
VX_HD inline float Ray_Grad_Sample(const float* in, int dim_x, int dim_y, int dim_z, int x, int y,
                                   int z, int dx, int dy, int dz, float own)
{
    int xx = x + dx, yy = y + dy, zz = z + dz;
    if (xx < 0 || xx >= dim_x || yy < 0 || yy >= dim_y || zz < 0 || zz >= dim_z) return own;
    return in[Ray_Voxel_Index(dim_x, dim_y, xx, yy, zz)];
}

/* The gradient of voxel (x, y, z), whose own value is own. */
VX_HD inline Ray_Grad_Out Ray_Grad_Voxel(const float* in, int dim_x, int dim_y, int dim_z, int x,
                                         int y, int z, float own)
{
#define RAY_S(dx, dy, dz) Ray_Grad_Sample(in, dim_x, dim_y, dim_z, x, y, z, dx, dy, dz, own)
    Ray_Nbr18 s;
    s.m00 = RAY_S(-1, 0, 0);
    s.p00 = RAY_S(+1, 0, 0);
    s._0m0 = RAY_S(0, -1, 0);
    s._0p0 = RAY_S(0, +1, 0);
    s._00m = RAY_S(0, 0, -1);
    s._00p = RAY_S(0, 0, +1);
    s.mm0 = RAY_S(-1, -1, 0);
    s.pm0 = RAY_S(+1, -1, 0);
    s.mp0 = RAY_S(-1, +1, 0);
    s.pp0 = RAY_S(+1, +1, 0);
    s.m0m = RAY_S(-1, 0, -1);
    s.p0m = RAY_S(+1, 0, -1);
    s.m0p = RAY_S(-1, 0, +1);
    s.p0p = RAY_S(+1, 0, +1);
    s._0mm = RAY_S(0, -1, -1);
    s._0pm = RAY_S(0, +1, -1);
    s._0mp = RAY_S(0, -1, +1);
    s._0pp = RAY_S(0, +1, +1);
#undef RAY_S
    Ray_Grad_Vec g = Ray_Grad_Sum(s);
    return Ray_Grad_Normalise(g, Ray_Grad_Norm2(g));
}

#endif
