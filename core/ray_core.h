/*
 * ray_core.h - the per-ray algorithm, written once for the CPU and the
 * device: pixel to ray, entry into the volume, the integer 3D-DDA set-up,
 * the voxel walk with its trilinear samples, clip flags and clip-plane
 * overlay, colour, opacity and shading, and the packing of the pixel word.
 *
 * Every function here is VX_HD: compiled by the host compiler it is an
 * ordinary inline function, compiled by nvcc it serves host and device.
 * The two renderers differ in a handful of arithmetic details; those are
 * chosen at compile time by the form parameter F (RAY_CPU or RAY_GPU) of
 * the templates below, never by a second copy of the code:
 *
 *   point                      RAY_CPU                       RAY_GPU
 *   entry plane, d < 0         (high - p) formed in double   formed in float
 *   entry point inside test    low <= p < high               0 <= p <= dim
 *   interpolation sum          v*wx*wy*wz, then add          fmaf(v*wx*wy, wz, sum)
 *   colour accumulators        floats, truncated at packing  int32, truncated per add
 *   float -> int32 out of      0x80000000 (x86 cvttss2si)    saturated, NaN -> 0
 *     range or NaN                                            (cvt.rzi)
 *   stop request               Run policy, every step        none
 *   missing buffers            pixel 0 at the first sample   not checked
 *
 * Both forms build for the host, so the device arithmetic is unit-tested
 * on the CPU.  What a ray reads (volume, clip state, render parameters) is
 * gathered in a Ray_Scene, filled from the slot tables by the CPU renderer
 * and from the device constants by the kernel.
 */
#ifndef VOXELUNE_CORE_RAY_CORE_H
#define VOXELUNE_CORE_RAY_CORE_H

#include <climits>
#include <cmath>

#include "ray_hd.h"

/*
 * The CPU form's conversions are the x86 instructions themselves where the
 * host compiler targets x86-64 (written as instructions: a compiler may
 * fold the intrinsics' out-of-range results differently).
 */
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__CUDACC__)
#define RAY_X86_CONVERT 1
#else
#define RAY_X86_CONVERT 0
#endif

/* ------------------------------------------------------------------ types */

/* The two arithmetic forms of the ray core. */
enum Ray_Form { RAY_CPU = 0, RAY_GPU = 1 };

/* One ray through set-up, walk and shading.  Field order is fixed. */
struct Rays {
    float entry;     /* distance from org to the entry point; 0 inside */
    float org[3];    /* eye point, voxel space */
    float dir[3];    /* unit direction */
    float pos[3];    /* current sample point */
    float col[3];    /* CPU colour accumulators, channel bytes 0, 1, 2 */
    float trans;     /* CPU remaining transparency */
    int vox[3];      /* current voxel */
    int step[3];     /* +1 or -1 per axis */
    int t_delta[3];  /* DDA units to cross one voxel along the axis */
    int t_max[3];    /* DDA parameter of the next crossing of the axis */
    int t_end[3];    /* bound at which the axis stops stepping */
};

/* A colour as four bytes: channel bytes 0, 1, 2 and an unused fourth. */
struct Color {
    unsigned char ch[4];
};

/*
 * Everything a walk reads besides its ray.  The CPU fills it per ray from
 * the slot tables and Ray_Params (arrays by pointer, so they are read as
 * they stand); the kernel fills it from the device constants.
 */
struct Ray_Scene {
    int dim[3];                         /* dim_x, dim_y, dim_z */
    const float* gli;                   /* grey levels */
    const unsigned char* tag;           /* tags */
    const float* grad_a;                /* gradient magnitude */
    const float* grad_x;                /* unit gradient */
    const float* grad_y;
    const float* grad_z;
    float clip;                         /* depth clip distance */
    unsigned int vol_flag;              /* clip bits */
    int clip_lo[3];                     /* low clip bound per axis */
    int clip_hi[3];                     /* high clip bound per axis */
    float threshold;
    unsigned char col_mode;
    unsigned char map_nb;
    const unsigned char* map_col;       /* 256, by tag */
    const unsigned char* map_id;        /* 256, by tag */
    const unsigned int* tag_col;        /* 256, by colour index */
    unsigned short light_nb;
    const unsigned char* light_status;  /* 5 */
    const unsigned int* light_color;    /* 5 */
    const float* light_dir_x;           /* light i at light_dir_x[i * light_stride] */
    const float* light_dir_y;
    const float* light_dir_z;
    int light_stride;
    const unsigned int* phong;          /* 1024 entries */
};

/* -------------------------------------------------------------- constants */

/* |d| at or below this counts as parallel to the axis's faces (0x3951B717). */
constexpr float RAY_PARALLEL_EPS = 0.0002f;
/* Inset of the entry plane behind each face (a double). */
constexpr double RAY_ENTRY_INSET = 0.03125;
/* DDA units per voxel length. */
constexpr float RAY_DDA_UNITS = 10000.0f;
/* t_max and t_end of an axis the ray is parallel to. */
constexpr int RAY_DDA_FAR = 536870911;
/* Entry candidate of a parallel axis whose slab holds the origin (0xD3000000). */
constexpr float RAY_ENTRY_NONE = -549755813888.0f;
/* Miss codes of the entry test; any result at or above the first is a miss. */
constexpr float RAY_MISS_X = 549755813888.0f;        /* 0x53000000 */
constexpr float RAY_MISS_Y = 1099511627776.0f;       /* 0x53800000 */
constexpr float RAY_MISS_Z = 1649267441664.0f;       /* 0x53C00000 */
constexpr float RAY_MISS_BEHIND = 2199023255552.0f;  /* 0x54000000 */
constexpr float RAY_MISS_OUTSIDE = 2748779069440.0f; /* 0x54200000 */
constexpr float RAY_MISS = RAY_MISS_X;
/* DDA units to voxel lengths (0x38D1B717). */
constexpr float RAY_DDA_TO_LEN = 0.0001f;
/*
 * Sample weight per DDA unit, 5.773e-5 with the bits 0x3872231D (one below
 * the float nearest to 5.773e-5, which is 0x3872231E): written in hex.
 */
constexpr float RAY_WEIGHT_PER_UNIT = 0x1.e4463ap-15f;
/* Clip-plane voxel: colour and opacity (16/255, 0x3D808081). */
constexpr unsigned int RAY_PLANE_COLOR = 0xFFFF00u;
constexpr float RAY_PLANE_ALPHA = 0.0627451f;
/* Clip-plane voxel on the volume border. */
constexpr unsigned int RAY_BORDER_COLOR = 0xFFFFFFu;
constexpr float RAY_BORDER_ALPHA = 0.5f;
/* The walk stops once the transparency is at or below 1/255 (0x3B808081). */
constexpr float RAY_OPAQUE = 0.003921569f;

/* Sample flags. */
#define RAY_SF_CLIPPED 0x001u
#define RAY_SF_BORDER 0x002u
#define RAY_SF_PLANE_X 0x010u
#define RAY_SF_PLANES 0x070u
#define RAY_SF_FACE_X 0x100u

/* Ray_DDDA_Shade flags. */
#define RAY_SHADE_AMBIENT 1u
#define RAY_SHADE_DIFFUSE 2u
#define RAY_SHADE_SPECULAR 4u
#define RAY_SHADE_ALL 7u

/* ------------------------------------------------------ integer helpers */

/*
 * Float to int32, truncated toward zero.  In range both forms agree; out of
 * range (and for NaN) the CPU gives 0x80000000 as the x86 conversion does,
 * the device saturates and gives 0 for NaN as its conversion does.
 */
template <int F>
VX_HD inline int Ray_F2I(float x)
{
    if constexpr (F == RAY_GPU) {
#if defined(__CUDA_ARCH__)
        return __float2int_rz(x);
#else
        if (x != x) return 0;
        if (x >= 2147483648.0f) return INT_MAX;
        if (x < -2147483648.0f) return INT_MIN;
        return static_cast<int>(x);
#endif
    } else {
#if RAY_X86_CONVERT
        int r;   /* the x86 conversion itself, never folded by the compiler */
        __asm__("cvttss2si %1, %0" : "=r"(r) : "x"(x));
        return r;
#else
        return (x >= -2147483648.0f && x < 2147483648.0f) ? static_cast<int>(x) : INT_MIN;
#endif
    }
}

/* Double to int32, truncated toward zero, with the same out-of-range rules. */
template <int F>
VX_HD inline int Ray_D2I(double x)
{
    if constexpr (F == RAY_GPU) {
#if defined(__CUDA_ARCH__)
        return __double2int_rz(x);
#else
        if (x != x) return 0;
        if (x >= 2147483648.0) return INT_MAX;
        if (x <= -2147483649.0) return INT_MIN;
        return static_cast<int>(x);
#endif
    } else {
#if RAY_X86_CONVERT
        int r;
        __asm__("cvttsd2si %1, %0" : "=r"(r) : "x"(x));
        return r;
#else
        return (x > -2147483649.0 && x < 2147483648.0) ? static_cast<int>(x) : INT_MIN;
#endif
    }
}

/* Wrapping 32-bit addition and subtraction, as the hardware does them. */
VX_HD inline int Ray_Add32(int a, int b)
{
    return static_cast<int>(static_cast<unsigned int>(a) + static_cast<unsigned int>(b));
}
VX_HD inline int Ray_Sub32(int a, int b)
{
    return static_cast<int>(static_cast<unsigned int>(a) - static_cast<unsigned int>(b));
}

/* Element of voxel (x, y, z): (dim_y * z + y) * dim_x + x, in 32 bits. */
VX_HD inline int Ray_Voxel_Index(const int* dim, int x, int y, int z)
{
    unsigned int i = (static_cast<unsigned int>(dim[1]) * static_cast<unsigned int>(z) + static_cast<unsigned int>(y)) *
                         static_cast<unsigned int>(dim[0]) +
                     static_cast<unsigned int>(x);
    return static_cast<int>(i);
}

/* Whether voxel v lies in [0, dim) on every axis (one unsigned test per axis). */
VX_HD inline bool Ray_Inside(const int* v, const int* dim)
{
    return static_cast<unsigned int>(v[0]) < static_cast<unsigned int>(dim[0]) &&
           static_cast<unsigned int>(v[1]) < static_cast<unsigned int>(dim[1]) &&
           static_cast<unsigned int>(v[2]) < static_cast<unsigned int>(dim[2]);
}

/* clamp(x): 0 at or below 0, 1 at or above 1, else x (NaN passes through). */
VX_HD inline float Ray_Clamp01(float x)
{
    if (x <= 0.0f) return 0.0f;
    if (x >= 1.0f) return 1.0f;
    return x;
}

/* ------------------------------------------------------- random draw */

/*
 * Park and Miller's minimal standard generator by Schrage's method, state
 * in *state; returns a float in (-1, 1].  From state 0 the first step gives
 * 2147483647, a fixed point, so draws from the initial state are all 1.0.
 */
VX_HD inline float Cuda_Random_Float(unsigned int* state)
{
    const unsigned int a = 16807u, m = 2147483647u, n = 1073741823u, q = 127773u, r = 2836u;
    unsigned int hi = *state / q;
    unsigned int lo = *state % q;
    /* a * lo < 2^31 and r * hi < 2^27: both fit in signed 32 bits. */
    int test = static_cast<int>(a * lo) - static_cast<int>(r * hi);
    *state = test > 0 ? static_cast<unsigned int>(test) : static_cast<unsigned int>(test) + m;
    return static_cast<float>(static_cast<double>(*state) / static_cast<double>(n)) - 1.0f;
}

/* ------------------------------------------------------- pixel to ray */

/* A view-space point through the 16 floats m of a row-vector matrix. */
VX_HD inline void Ray_Map_Point(const float* m, float x, float y, float z, float* out)
{
    float xo = m[0] * x + m[4] * y + m[8] * z + m[12];
    float yo = m[1] * x + m[5] * y + m[9] * z + m[13];
    float zo = m[2] * x + m[6] * y + m[10] * z + m[14];
    float wo = m[3] * x + m[7] * y + m[11] * z + m[15];
    if (!(wo == 1.0f)) {
        float r = 1.0f / wo;
        xo *= r;
        yo *= r;
        zo *= r;
    }
    out[0] = xo;
    out[1] = yo;
    out[2] = zo;
}

/*
 * The ray of pixel (i, j) of a W x H box, with the draws r1 (columns) and
 * r2 (rows): the eye in eye[3], the unnormalised direction D = P - E in
 * d[3], and 1 / |D| in *inv_len.  The caller scales D by *inv_len.
 */
VX_HD inline void Ray_Pixel_Ray(const float* m, int i, int j, int W, int H, float r1, float r2, float* eye, float* d,
                                float* inv_len)
{
    float s = 2.0f / static_cast<float>(W > H ? W : H);
    float u = (r1 * 0.5f + static_cast<float>(Ray_Sub32(i, W >> 1))) * s;
    float v = (r2 * 0.5f + static_cast<float>(Ray_Sub32(j, H >> 1))) * s;
    float p[3];
    Ray_Map_Point(m, 0.0f, 0.0f, -2.0f, eye);
    Ray_Map_Point(m, u, v, 0.0f, p);
    d[0] = p[0] - eye[0];
    d[1] = p[1] - eye[1];
    d[2] = p[2] - eye[2];
    *inv_len = 1.0f / sqrtf(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
}

/* ------------------------------------------------ entry into the volume */

/*
 * Moves pos to where the ray (pos, dir) enters the box [low, high) and
 * returns the distance travelled: 0 when pos already lies inside, or a miss
 * code (RAY_MISS or more) when the ray does not enter.
 */
template <int F = RAY_CPU>
VX_HD inline float Ray_DDDA_Origin(float* pos, const float* dir, const float* low, const float* high)
{
    if (low[0] <= pos[0] && pos[0] < high[0] && low[1] <= pos[1] && pos[1] < high[1] && low[2] <= pos[2] &&
        pos[2] < high[2])
        return 0.0f;

    float t[3];
    for (int a = 0; a < 3; a++) {
        float p = pos[a], d = dir[a];
        if (d > RAY_PARALLEL_EPS) {
            t[a] = static_cast<float>(((static_cast<double>(low[a]) - static_cast<double>(p)) + RAY_ENTRY_INSET) /
                                      static_cast<double>(d));
        } else if (d < -RAY_PARALLEL_EPS) {
            double gap;
            if constexpr (F == RAY_CPU)
                gap = static_cast<double>(high[a]) - static_cast<double>(p);
            else
                gap = static_cast<double>(high[a] - p);
            t[a] = static_cast<float>((gap - RAY_ENTRY_INSET) / static_cast<double>(d));
        } else {
            if (p < low[a] || p > high[a]) return a == 0 ? RAY_MISS_X : a == 1 ? RAY_MISS_Y : RAY_MISS_Z;
            t[a] = RAY_ENTRY_NONE;
        }
    }

    float tt = t[1] > t[0] ? t[1] : t[0];
    if (t[2] > tt) tt = t[2];
    if (tt < RAY_PARALLEL_EPS) return RAY_MISS_BEHIND;

    for (int a = 0; a < 3; a++) pos[a] = pos[a] + tt * dir[a];

    for (int a = 0; a < 3; a++) {
        bool inside;
        if constexpr (F == RAY_CPU)
            inside = low[a] <= pos[a] && pos[a] < high[a];
        else
            inside = low[a] <= pos[a] && pos[a] <= high[a];
        if (!inside) return RAY_MISS_OUTSIDE;
    }
    return tt;
}

/* ------------------------------------------------------------ DDA set-up */

/*
 * Fills the DDA fields of out for a ray starting at pos (the entry point)
 * with direction dir in the box [low, high); the CPU form also clears the
 * colour and sets the transparency to 1.  A parallel axis keeps its step.
 */
template <int F = RAY_CPU>
VX_HD inline Rays* Ray_DDDA_Param(Rays* out, const float* pos, const float* dir, const float* low, const float* high)
{
    for (int a = 0; a < 3; a++) {
        float d = dir[a];
        float inv = RAY_DDA_UNITS / d;
        float rel = pos[a] - low[a];
        int e;
        if (d > RAY_PARALLEL_EPS) {
            out->step[a] = 1;
            out->t_delta[a] = Ray_F2I<F>(inv);
            double frac = (static_cast<double>(floorf(rel)) + 1.0) - static_cast<double>(rel);
            out->t_max[a] = Ray_D2I<F>(frac * static_cast<double>(out->t_delta[a]));
            e = Ray_F2I<F>((high[a] - pos[a]) * inv);
        } else if (d < -RAY_PARALLEL_EPS) {
            out->step[a] = -1;
            out->t_delta[a] = Ray_F2I<F>(-inv);
            out->t_max[a] = Ray_F2I<F>((rel - floorf(rel)) * static_cast<float>(out->t_delta[a]));
            e = Ray_F2I<F>((low[a] - pos[a]) * inv);
        } else {
            out->t_delta[a] = 0;
            out->t_max[a] = RAY_DDA_FAR;
            e = RAY_DDA_FAR;
        }
        out->t_end[a] = Ray_Sub32(e, out->t_delta[a] >> 1);
        out->vox[a] = Ray_F2I<F>(rel);
    }
    if constexpr (F == RAY_CPU) {
        out->col[0] = out->col[1] = out->col[2] = 0.0f;
        out->trans = 1.0f;
    }
    return out;
}

/* ------------------------------------------------ trilinear interpolation */

/*
 * The eight corners around a sample point and their weights; set up once
 * per sample and applied to each of the five volumes.  Corner c = 4z+2y+x
 * (0 low, 1 high), visited in that order; a corner outside the volume has
 * its bit clear in valid.
 */
struct Ray_Stencil {
    int index[8];
    unsigned int valid;
    float wx[2], wy[2], wz[2];
};

/* Neighbours and weights of one axis at p, with n = p truncated toward zero in the form's conversion. */
VX_HD inline void Ray_Interp_Axis_At(float p, int n, int* lo, float* w)
{
    float f = p - static_cast<float>(n);
    if (f < 0.5f) {
        lo[0] = Ray_Sub32(n, 1);
        lo[1] = n;
        w[0] = 0.5f - f;
        w[1] = f + 0.5f;
    } else {
        lo[0] = n;
        lo[1] = Ray_Add32(n, 1);
        w[0] = 1.5f - f;
        w[1] = f - 0.5f;
    }
}

/* Neighbours and weights of one axis. */
template <int F>
VX_HD inline void Ray_Interp_Axis(float p, int* lo, float* w)
{
    Ray_Interp_Axis_At(p, Ray_F2I<F>(p), lo, w);
}

template <int F>
VX_HD inline void Ray_Interp_Setup(Ray_Stencil* st, const float* pos, const int* dim)
{
    int x[2], y[2], z[2];
    Ray_Interp_Axis<F>(pos[0], x, st->wx);
    Ray_Interp_Axis<F>(pos[1], y, st->wy);
    Ray_Interp_Axis<F>(pos[2], z, st->wz);
    /* Bit i of each mask: neighbour i of that axis lies in [0, dimension). */
    unsigned int mx = (x[0] >= 0 && x[0] < dim[0]) | (x[1] >= 0 && x[1] < dim[0]) << 1;
    unsigned int my = (y[0] >= 0 && y[0] < dim[1]) | (y[1] >= 0 && y[1] < dim[1]) << 1;
    unsigned int mz = (z[0] >= 0 && z[0] < dim[2]) | (z[1] >= 0 && z[1] < dim[2]) << 1;
    unsigned int rows = 0; /* bit 2z+y: row (y, z) lies inside */
    for (int c = 0; c < 4; c++)
        if (((my >> (c & 1)) & 1) && ((mz >> (c >> 1)) & 1)) rows |= 1u << c;
    st->valid = 0;
    for (int c = 0; c < 4; c++)
        if ((rows >> c) & 1) st->valid |= mx << (2 * c);
    /*
     * The high neighbour is always the low one plus 1: the low corner's
     * element and the steps of one row and one slice give all eight, in
     * wrapping 32-bit arithmetic; only the valid corners are ever read.
     */
    unsigned int dy = static_cast<unsigned int>(dim[0]);
    unsigned int dz = static_cast<unsigned int>(dim[0]) * static_cast<unsigned int>(dim[1]);
    unsigned int base = static_cast<unsigned int>(Ray_Voxel_Index(dim, x[0], y[0], z[0]));
    for (int c = 0; c < 8; c++)
        st->index[c] = static_cast<int>(base + static_cast<unsigned int>(c & 1) + ((c & 2) ? dy : 0u) +
                                        ((c & 4) ? dz : 0u));
}

/* One corner's share added to the sum, in the form's arithmetic. */
template <int F>
VX_HD inline void Ray_Interp_Add(float& sum, float v, float wx, float wy, float wz)
{
    if (v != v) return;
    float p = v * wx * wy;
    if constexpr (F == RAY_CPU)
        sum += p * wz;
    else
        sum = fmaf(p, wz, sum);
}

/*
 * Sum over the valid corners whose value is not NaN of value * wx * wy * wz:
 * on the CPU multiplied in that order and added, on the device the last
 * product fused with the addition.  Lost weights are not redistributed.
 */
template <int F>
VX_HD inline float Ray_Interp_Apply(const Ray_Stencil* st, const float* data)
{
    float sum = 0.0f;
    if (st->valid == 0xFFu) {
        /* Away from the faces, the common case: no corner to skip. */
        float v[8];
        for (int c = 0; c < 8; c++) v[c] = data[st->index[c]];
        for (int c = 0; c < 8; c++) Ray_Interp_Add<F>(sum, v[c], st->wx[c & 1], st->wy[(c >> 1) & 1], st->wz[c >> 2]);
        return sum;
    }
    for (int c = 0; c < 8; c++) {
        if (!(st->valid & (1u << c))) continue;
        Ray_Interp_Add<F>(sum, data[st->index[c]], st->wx[c & 1], st->wy[(c >> 1) & 1], st->wz[c >> 2]);
    }
    return sum;
}

/* Trilinear interpolation of a dim_x x dim_y x dim_z float volume at pos. */
template <int F = RAY_CPU>
VX_HD inline float Ray_Interpolate_Linear(const float* pos, int dim_x, int dim_y, int dim_z, const float* data)
{
    const int dim[3] = {dim_x, dim_y, dim_z};
    Ray_Stencil st;
    Ray_Interp_Setup<F>(&st, pos, dim);
    return Ray_Interp_Apply<F>(&st, data);
}

/* ------------------------------------------------------ colour and shading */

VX_HD inline Color Ray_Color_Of(unsigned int word)
{
    Color c;
    c.ch[0] = static_cast<unsigned char>(word);
    c.ch[1] = static_cast<unsigned char>(word >> 8);
    c.ch[2] = static_cast<unsigned char>(word >> 16);
    c.ch[3] = 0;
    return c;
}

VX_HD inline unsigned int Ray_Color_Word(Color c)
{
    return static_cast<unsigned int>(c.ch[0]) | static_cast<unsigned int>(c.ch[1]) << 8 |
           static_cast<unsigned int>(c.ch[2]) << 16 | static_cast<unsigned int>(c.ch[3]) << 24;
}

/* Base colour of tag t: its tag colour when it has one and col_mode is not 0. */
VX_HD inline unsigned int Ray_Base_Color(const Ray_Scene& sc, unsigned char t)
{
    unsigned char mc = sc.map_col[t];
    return (mc != 0 && sc.col_mode != 0) ? sc.tag_col[mc] : 0xFFFFFFu;
}

/*
 * Shaded colour of base colour c with normal n seen along ray->dir: back
 * faces a quarter of c; else ambient (flags 1), then per directional light
 * that is on, diffuse (flags 2) and specular (flags 4) terms; saturated.
 */
VX_HD inline Color Ray_DDDA_Shade(const Rays* ray, Color c, const float* n, unsigned char flags, const Ray_Scene& sc)
{
    const float* dir = ray->dir;
    Color out;
    if (n[0] * dir[0] + n[1] * dir[1] + n[2] * dir[2] > 0.0f) {
        out.ch[0] = static_cast<unsigned char>(c.ch[0] >> 2);
        out.ch[1] = static_cast<unsigned char>(c.ch[1] >> 2);
        out.ch[2] = static_cast<unsigned char>(c.ch[2] >> 2);
        out.ch[3] = 0;
        return out;
    }

    unsigned int s[3] = {0, 0, 0};
    if (flags & RAY_SHADE_AMBIENT) {
        unsigned int lc = sc.light_color[0];
        for (int k = 0; k < 3; k++) s[k] = (((lc >> (8 * k)) & 0xFFu) * c.ch[k]) >> 8;
    }

    /* The tables hold five lights; a larger count reads no further. */
    int nb = sc.light_nb < 5 ? sc.light_nb : 5;
    for (int i = 1; i < nb; i++) {
        if (sc.light_status[i] == 0) continue;
        unsigned int lc = sc.light_color[i];
        float L[3] = {sc.light_dir_x[i * sc.light_stride], sc.light_dir_y[i * sc.light_stride],
                      sc.light_dir_z[i * sc.light_stride]};
        float d = -(n[0] * L[0]) - n[1] * L[1] - n[2] * L[2];
        if ((flags & RAY_SHADE_DIFFUSE) && d > 0.0f) {
            unsigned int q = static_cast<unsigned int>(Ray_F2I<RAY_CPU>(d * 255.0f)) & 0xFFu;
            for (int k = 0; k < 3; k++) s[k] += (((lc >> (8 * k)) & 0xFFu) * c.ch[k] * q) >> 16;
        }
        if (flags & RAY_SHADE_SPECULAR) {
            float R[3];
            for (int a = 0; a < 3; a++) R[a] = 2.0f * d * n[a] + L[a];
            float e = -(R[1] * dir[1]) - R[0] * dir[0] - R[2] * dir[2];
            if (e > 0.0f) {
                /* e of 1 or more gives index 1024: the table's last entry serves. */
                int idx = static_cast<int>((e < 1.0f ? e : 1.0f) * 1024.0f);
                if (idx > 1023) idx = 1023;
                unsigned int p = sc.phong[idx];
                for (int k = 0; k < 3; k++) s[k] += (p * ((lc >> (8 * k)) & 0xFFu)) >> 8;
            }
        }
    }

    for (int k = 0; k < 3; k++) out.ch[k] = static_cast<unsigned char>(s[k] > 255u ? 255u : s[k]);
    out.ch[3] = 0;
    return out;
}

/* Band distance B of col_mode 2: 1 / (map_nb - 1); needs map_nb >= 2. */
VX_HD inline float Ray_Band_Width(const Ray_Scene& sc)
{
    return 1.0f / static_cast<float>(sc.map_nb - 1);
}

/*
 * Band factor x of map number m in col_mode 2, with B = Ray_Band_Width:
 * rises from the neighbouring band centres to 4 at m's own centre.
 */
VX_HD inline float Ray_Band(const Ray_Scene& sc, float B, unsigned char m)
{
    float thr = sc.threshold;
    float low = static_cast<float>(m - 1) * B;
    float centre = static_cast<float>(m) * B;
    float high = static_cast<float>(m + 1) * B;
    if (low < thr && thr <= centre) return (thr - low) / B * 4.0f;
    if (centre < thr && thr <= high) return (1.0f - (thr - centre) / B) * 4.0f;
    return 0.0f;
}

/* Whether col_mode needs the grey level g of a sample whose colour index is mc. */
VX_HD inline bool Ray_Alpha_Needs_Grey(const Ray_Scene& sc, unsigned char mc)
{
    return sc.col_mode <= 1 || (sc.col_mode == 4 && mc == 0);
}

/*
 * Opacity of a sample by col_mode.  a: gradient magnitude, g: grey level
 * (read only where Ray_Alpha_Needs_Grey says so), w: sample weight, mc: the
 * tag's colour index; mode 2 only: B = Ray_Band_Width, band = Ray_Band of
 * the tag's map number.
 */
VX_HD inline float Ray_Alpha(const Ray_Scene& sc, float a, float g, float w, unsigned char mc, float B, float band)
{
    float thr = sc.threshold;
    switch (sc.col_mode) {
    case 0:
    case 1:
        return Ray_Clamp01(4.0f * a) * w * Ray_Clamp01(5.0f * (g - (thr - 0.1f)));
    case 2:
        /* With fewer than two maps the bands are undefined: transparent. */
        if (sc.map_nb < 2) return 0.0f;
        return B * Ray_Clamp01(a * band);
    case 3:
        return mc != 0 ? w * Ray_Clamp01(4.0f * a) : 0.0f;
    case 4:
        if (mc != 0) return w * Ray_Clamp01(2.0f * thr * a);
        return Ray_Clamp01(4.0f * a) * w * Ray_Clamp01(5.0f * (g - (thr - 0.1f)));
    default:
        return 0.0f;
    }
}

/*
 * What tells, from bounds of a sample's values, that Ray_Alpha is exactly
 * 0 for it: worked out once per ray from the render parameters.  With a
 * threshold that is not finite nothing is ever known to be 0.
 */
struct Ray_Zero_Rule {
    bool known;     /* the threshold is finite */
    bool always;    /* the colour mode gives 0 to every sample */
    bool by_grey;   /* modes 0 and 1: a grey level at or below cut gives 0 */
    float cut;      /* threshold - 0.1 */
};

VX_HD inline Ray_Zero_Rule Ray_Zero_Rule_Of(const Ray_Scene& sc)
{
    Ray_Zero_Rule z;
    float thr = sc.threshold;
    z.known = thr - thr == 0.0f;   /* false for NaN and infinities */
    z.always = sc.col_mode >= 5 || (sc.col_mode == 2 && sc.map_nb < 2);
    z.by_grey = sc.col_mode <= 1;
    z.cut = thr - 0.1f;
    return z;
}

/*
 * Whether Ray_Alpha is exactly 0 for every sample of any tag whose
 * interpolated values satisfy 0 <= a <= a_hi and g <= g_hi, both finite
 * (w finite).  Bounds that are not finite (+inf) say nothing.  An a of
 * +-0 makes clamp(k a) 0 in every mode; conservative: false whenever that
 * cannot be told.
 */
VX_HD inline bool Ray_Alpha_Is_Zero_Any_Tag(const Ray_Zero_Rule& z, float a_hi, float g_hi)
{
    return z.known && (z.always || a_hi <= 0.0f || (z.by_grey && g_hi <= z.cut));
}

/* The same for a sample whose tag has colour index mc and band factor band (mode 2). */
VX_HD inline bool Ray_Alpha_Is_Zero(const Ray_Scene& sc, const Ray_Zero_Rule& z, unsigned char mc, float band,
                                    float a_hi, float g_hi)
{
    if (!z.known) return false;
    if (Ray_Alpha_Is_Zero_Any_Tag(z, a_hi, g_hi)) return true;
    switch (sc.col_mode) {
    case 2:
        return band == 0.0f && a_hi <= 3.0e38f;   /* a finite: a * 0 is 0 */
    case 3:
        return mc == 0;
    case 4:
        return mc == 0 && g_hi <= z.cut;
    default:
        return false;
    }
}

/* ------------------------------------------------------------ the walk */

/* The device form's stop policy: the walk runs to its end. */
struct Ray_Run_Always {
    VX_HD bool operator()() const { return true; }
};

/*
 * Pixel word: channel bytes 0 to 2 from the accumulators, byte 3 from the
 * transparency, each truncated toward zero and capped at 255.
 */
VX_HD inline unsigned int Ray_Pack_Byte(int v)
{
    return v >= 255 ? 255u : static_cast<unsigned int>(v) & 0xFFu;
}

/*
 * Sample flags of voxel v: border, clip planes, faces and the clip-box
 * clipping (the depth clip is the caller's).  Only with vol_flag 0x80.
 */
VX_HD inline unsigned int Ray_Clip_Flags(const Ray_Scene& sc, const int* v)
{
    unsigned int vf = sc.vol_flag, fl = 0;
    const int* dim = sc.dim;
    if (v[0] == 0 || v[0] == dim[0] - 1 || v[1] == 0 || v[1] == dim[1] - 1 || v[2] == 0 || v[2] == dim[2] - 1)
        fl |= RAY_SF_BORDER;
    for (int a = 0; a < 3; a++) {
        unsigned int plane = RAY_SF_PLANE_X << a, face = RAY_SF_FACE_X << a;
        if (vf & (0x10u << a)) {
            if (v[a] == sc.clip_lo[a])
                fl |= plane;
            else if (v[a] < sc.clip_lo[a])
                fl |= RAY_SF_CLIPPED;
        } else if (v[a] == 0) {
            fl |= face;
        }
        if (vf & (0x100u << a)) {
            if (v[a] == sc.clip_hi[a])
                fl |= plane;
            else if (v[a] > sc.clip_hi[a])
                fl |= RAY_SF_CLIPPED;
        } else if (v[a] == dim[a] - 1) {
            fl |= face;
        }
    }
    return fl;
}

/* Colour and opacity of a clip-plane sample with flags fl. */
VX_HD inline unsigned int Ray_Overlay(unsigned int fl, float* alpha)
{
    unsigned int col = RAY_PLANE_COLOR;
    *alpha = RAY_PLANE_ALPHA;
    if (fl & RAY_SF_BORDER) {
        col = RAY_BORDER_COLOR;
        *alpha = RAY_BORDER_ALPHA;
    }
    if (fl == 0x030u || fl == 0x050u || fl == 0x060u) *alpha = 1.0f;
    unsigned int f = fl & 0xFF1u;
    if (f == 0x120u || f == 0x140u || f == 0x210u || f == 0x240u || f == 0x410u || f == 0x420u) {
        col = RAY_PLANE_COLOR;
        *alpha = 1.0f;
    }
    return col;
}

/* Front-to-back accumulation in the form's arithmetic. */
template <int F>
struct Ray_Accum;

template <>
struct Ray_Accum<RAY_CPU> {
    float col[3] = {0.0f, 0.0f, 0.0f};
    VX_HD void add(int k, float b, float alpha, float T) { col[k] += b * alpha * T; }
    VX_HD int byte(int k) const { return Ray_F2I<RAY_CPU>(col[k]); }
};

template <>
struct Ray_Accum<RAY_GPU> {
    int col[3] = {0, 0, 0};
    VX_HD void add(int k, float b, float alpha, float T)
    {
        col[k] = Ray_F2I<RAY_GPU>(static_cast<float>(col[k]) + T * (alpha * b));
    }
    VX_HD int byte(int k) const { return col[k]; }
};

template <int F>
VX_HD inline void Ray_Composite(Ray_Accum<F>& acc, float& T, unsigned int word, float alpha)
{
    acc.add(0, static_cast<float>(word & 0xFFu), alpha, T);
    acc.add(1, static_cast<float>((word >> 8) & 0xFFu), alpha, T);
    acc.add(2, static_cast<float>((word >> 16) & 0xFFu), alpha, T);
    float keep = 1.0f - alpha;
    T = T * (keep > 0.0f ? keep : 0.0f);
}

/*
 * One crossing along axis A: false when t_max has reached t_end; else the
 * crossing's parameter in *t, t_max advanced and the voxel stepped.
 */
template <int A>
VX_HD inline bool Ray_Cross(Rays* ray, int* t)
{
    if (ray->t_max[A] >= ray->t_end[A]) return false;
    *t = ray->t_max[A];
    ray->t_max[A] = Ray_Add32(ray->t_max[A], ray->t_delta[A]);
    ray->vox[A] = Ray_Add32(ray->vox[A], ray->step[A]);
    return true;
}

/*
 * How the walk gets a sample's interpolated values.  The plain sampler
 * interpolates the scene's five separate volumes corner by corner, as
 * both renderers specify it; the CPU renderer plugs in a faster one over
 * its render layout (same values, word for word).  at() prepares the
 * sample at pos; a(), g() and normal() read it.  bound() may give, before
 * at(), bounds a_hi and g_hi of the sample's values (see
 * Ray_Alpha_Is_Zero), false when it has none; leap() may tell, from the
 * voxel in which the walk's sample lies (before its point is computed),
 * that its opacity is 0 whatever its tag; missing() is the CPU form's
 * check for absent buffers.
 */
template <int F>
struct Ray_Plain_Sampler {
    const Ray_Scene& sc;
    Ray_Stencil st;
    VX_HD explicit Ray_Plain_Sampler(const Ray_Scene& scene) : sc(scene) {}
    VX_HD bool missing() const
    {
        return !sc.grad_a || !sc.grad_x || !sc.grad_y || !sc.grad_z || !sc.gli || !sc.tag;
    }
    VX_HD bool bound(const float*, float*, float*) const { return false; }
    VX_HD void begin(const Rays*) {}
    VX_HD void prefetch(const int*) const {}
    VX_HD bool leap(const int*, const Ray_Zero_Rule&) { return false; }
    VX_HD void at(const float* pos) { Ray_Interp_Setup<F>(&st, pos, sc.dim); }
    VX_HD float a() const { return Ray_Interp_Apply<F>(&st, sc.grad_a); }
    VX_HD float g() const { return Ray_Interp_Apply<F>(&st, sc.gli); }
    VX_HD void normal(float* n) const
    {
        n[0] = Ray_Interp_Apply<F>(&st, sc.grad_x);
        n[1] = Ray_Interp_Apply<F>(&st, sc.grad_y);
        n[2] = Ray_Interp_Apply<F>(&st, sc.grad_z);
    }
};

/*
 * Walks the ray prepared by Ray_DDDA_Param through sc's volume, one sample
 * per voxel crossed, and returns the pixel word.  run() is asked at every
 * step on the CPU (false ends the ray); the device form never asks.  smp
 * gives the samples' values (see Ray_Plain_Sampler).
 */
template <int F, class Run, class Sampler>
VX_HD inline unsigned int Ray_DDDA_Walk(Rays* ray, const Ray_Scene& sc, Run& run, Sampler& smp)
{
    Ray_Accum<F> acc;
    float T = 1.0f;
    int t_prev = 0;
    const int* dim = sc.dim;
    const bool clip_box = (sc.vol_flag & 0x80u) != 0;
    const bool band_on = sc.col_mode == 2 && sc.map_nb >= 2;
    const float band_b = band_on ? Ray_Band_Width(sc) : 0.0f;
    int band_map = -1;
    float band_x = 0.0f;
    const Ray_Zero_Rule zero = Ray_Zero_Rule_Of(sc);
    smp.begin(ray);

    for (;;) {
        /*
         * The axis of the nearest crossing (ties to x, then y), its bound,
         * and the crossing into the next voxel at parameter t.  Constant
         * indices keep the record in registers on the device.
         */
        int t;
        const int here[3] = {ray->vox[0], ray->vox[1], ray->vox[2]};   /* the voxel the sample lies in */
        if (ray->t_max[0] <= ray->t_max[1] && ray->t_max[0] <= ray->t_max[2]) {
            if (!Ray_Cross<0>(ray, &t)) break;
        } else if (ray->t_max[1] <= ray->t_max[2]) {
            if (!Ray_Cross<1>(ray, &t)) break;
        } else {
            if (!Ray_Cross<2>(ray, &t)) break;
        }

        /* Leave when the voxel entered is outside the volume. */
        const int* v = ray->vox;
        if (!Ray_Inside(v, dim)) break;

        /* A stop request ends the ray here. */
        if constexpr (F == RAY_CPU) {
            if (!run()) break;
        }

        /*
         * Without clip planes a sample of opacity 0 is a step that changes
         * nothing, depth-clipped or not, and T stays above the stop mark:
         * where the sampler can tell that from the voxel the sample lies
         * in alone, the step ends here.
         */
        if (!clip_box && smp.leap(here, zero)) {
            t_prev = t;
            continue;
        }
        smp.prefetch(v);   /* the next sample lies in the voxel just entered */

        /* Depth clip, then the clip box. */
        unsigned int fl =
            sc.clip > static_cast<float>(t_prev) * RAY_DDA_TO_LEN + ray->entry ? RAY_SF_CLIPPED : 0u;
        if (clip_box) fl |= Ray_Clip_Flags(sc, v);

        /* A clip-plane voxel is drawn as overlay, clipped or not, with no opacity test after it. */
        if (fl & RAY_SF_PLANES) {
            float alpha;
            unsigned int col = Ray_Overlay(fl, &alpha);
            Ray_Composite<F>(acc, T, col, alpha);
            t_prev = t;
            continue;
        }
        if (fl & RAY_SF_CLIPPED) {
            t_prev = t;
            continue;
        }

        /* The sample lies mid-segment, in the voxel before the crossing. */
        int len = Ray_Sub32(t, t_prev);
        float w = static_cast<float>(len) * RAY_WEIGHT_PER_UNIT;
        int mid = Ray_Add32(len >> 1, t_prev);
        float d = static_cast<float>(mid) * RAY_DDA_TO_LEN + ray->entry;
        for (int k = 0; k < 3; k++) ray->pos[k] = ray->org[k] + d * ray->dir[k];

        if constexpr (F == RAY_CPU) {
            if (smp.missing()) {
                ray->col[0] = acc.col[0];
                ray->col[1] = acc.col[1];
                ray->col[2] = acc.col[2];
                ray->trans = T;
                return 0;
            }
        }
        /*
         * A sample of opacity exactly 0 adds 0 and keeps T: where bounds
         * show that opacity, whatever the tag or for the sample's tag, it
         * needs neither interpolation nor shading.
         */
        float a_hi = 0.0f, g_hi = 0.0f;
        bool bounded = smp.bound(ray->pos, &a_hi, &g_hi);
        if (!bounded || !Ray_Alpha_Is_Zero_Any_Tag(zero, a_hi, g_hi)) {
            /* The tag of the voxel entered, its colour index and band. */
            unsigned char tg = sc.tag[Ray_Voxel_Index(dim, v[0], v[1], v[2])];
            unsigned char mc = sc.map_col[tg];
            float band = 0.0f;
            if (band_on) {
                /* Tags come in runs: recompute the band only when the map changes. */
                unsigned char m = sc.map_id[tg];
                if (m != band_map) {
                    band_map = m;
                    band_x = Ray_Band(sc, band_b, m);
                }
                band = band_x;
            }
            if (!bounded || !Ray_Alpha_Is_Zero(sc, zero, mc, band, a_hi, g_hi)) {
                /* Opacity, then, if it is not 0, the normal, shading and compositing. */
                smp.at(ray->pos);
                float ga = smp.a();
                float g = Ray_Alpha_Needs_Grey(sc, mc) ? smp.g() : 0.0f;
                float alpha = Ray_Alpha(sc, ga, g, w, mc, band_b, band);
                if (alpha != 0.0f) {
                    float n[3];
                    smp.normal(n);
                    Color base = Ray_Color_Of(Ray_Base_Color(sc, tg));
                    Color shaded = Ray_DDDA_Shade(ray, base, n, RAY_SHADE_ALL, sc);
                    Ray_Composite<F>(acc, T, Ray_Color_Word(shaded), alpha);
                }
            }
        }

        /* Opaque enough. */
        if (T <= RAY_OPAQUE) break;
        t_prev = t;
    }

    if constexpr (F == RAY_CPU) {
        ray->col[0] = acc.col[0];
        ray->col[1] = acc.col[1];
        ray->col[2] = acc.col[2];
        ray->trans = T;
    }
    return Ray_Pack_Byte(acc.byte(0)) | Ray_Pack_Byte(acc.byte(1)) << 8 | Ray_Pack_Byte(acc.byte(2)) << 16 |
           Ray_Pack_Byte(Ray_F2I<F>(T * 255.0f)) << 24;
}

/* The walk with the plain sampler. */
template <int F, class Run>
VX_HD inline unsigned int Ray_DDDA_Walk(Rays* ray, const Ray_Scene& sc, Run& run)
{
    Ray_Plain_Sampler<F> smp(sc);
    return Ray_DDDA_Walk<F>(ray, sc, run, smp);
}

/* ---------------------------------------------------------- one whole ray */

/*
 * The ray from eye along the unit direction dir through sc's volume box
 * (0, 0, 0) - dim: its entry and DDA set-up into *ray; false when it
 * misses the volume.  Ray_Cast then walks it with the sampler smp and
 * returns the pixel word; 0 for a miss.
 */
template <int F>
VX_HD inline bool Ray_Setup(const float* eye, const float* dir, const Ray_Scene& sc, Rays* ray)
{
    const float low[3] = {0.0f, 0.0f, 0.0f};
    const float high[3] = {static_cast<float>(sc.dim[0]), static_cast<float>(sc.dim[1]),
                           static_cast<float>(sc.dim[2])};
    float start[3] = {eye[0], eye[1], eye[2]};
    float entry = Ray_DDDA_Origin<F>(start, dir, low, high);
    if (entry >= RAY_MISS) return false;

    *ray = Rays{};
    Ray_DDDA_Param<F>(ray, start, dir, low, high);
    ray->entry = entry;
    for (int a = 0; a < 3; a++) {
        ray->org[a] = eye[a];
        ray->dir[a] = dir[a];
    }
    return true;
}

template <int F, class Run, class Sampler>
VX_HD inline unsigned int Ray_Cast(const float* eye, const float* dir, const Ray_Scene& sc, Run& run, Sampler& smp)
{
    Rays ray;
    if (!Ray_Setup<F>(eye, dir, sc, &ray)) return 0;
    return Ray_DDDA_Walk<F>(&ray, sc, run, smp);
}

/* The whole ray with the plain sampler. */
template <int F, class Run>
VX_HD inline unsigned int Ray_Cast(const float* eye, const float* dir, const Ray_Scene& sc, Run& run)
{
    Ray_Plain_Sampler<F> smp(sc);
    return Ray_Cast<F>(eye, dir, sc, run, smp);
}

#endif
