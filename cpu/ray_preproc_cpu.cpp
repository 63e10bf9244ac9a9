/*
 * ray_preproc_cpu.cpp - volume preprocessing on the CPU.
 *
 * Every voxel is computed with exactly the arithmetic of the per-voxel
 * functions of core/ray_preproc.h (which the kernels use too), but
 * arranged for speed: the volume is cut into slabs of z slices, one per
 * thread, and inside a slab whole rows of voxels are processed tap by
 * tap, so that the compiler can run neighbouring x voxels in the lanes of
 * one vector.  Each lane still adds its own voxel's terms in the order of
 * the per-voxel function, so the results are bit-identical to the plain
 * loop kept here as Ray_Vol_Filter_Scalar / Ray_Vol_Gradient_Scalar.
 */
#include "ray_preproc_cpu.h"

#include <algorithm>
#include <cstdint>
#include <system_error>
#include <thread>

#include "core/ray_preproc.h"

/* ------------------------------------------------------ reference form */

void Ray_Vol_Filter_Scalar(const float* kern, int dim_x, int dim_y, int dim_z, const float* in, float* out)
{
    for (int z = 0; z < dim_z; z++)
        for (int y = 0; y < dim_y; y++)
            for (int x = 0; x < dim_x; x++)
                out[Ray_Voxel_Index(dim_x, dim_y, x, y, z)] = Ray_Filter_Voxel(kern, in, dim_x, dim_y, dim_z, x, y, z);
}

/* One voxel of the gradient block through the per-voxel function. */
static void Ray_Grad_Store_Voxel(const float* in, int dim_x, int dim_y, int dim_z, int x, int y,
                                 int z, float** grad)
{
    int i = Ray_Voxel_Index(dim_x, dim_y, x, y, z);
    Ray_Grad_Out o = Ray_Grad_Voxel(in, dim_x, dim_y, dim_z, x, y, z, in[i]);
    grad[0][i] = o.a;
    grad[1][i] = o.x;
    grad[2][i] = o.y;
    grad[3][i] = o.z;
}

void Ray_Vol_Gradient_Scalar(int dim_x, int dim_y, int dim_z, const float* in, float** grad)
{
    for (int z = 0; z < dim_z; z++)
        for (int y = 0; y < dim_y; y++)
            for (int x = 0; x < dim_x; x++) Ray_Grad_Store_Voxel(in, dim_x, dim_y, dim_z, x, y, z, grad);
}

/* ------------------------------------------------------ CPU filter rows */

/*
 * Adds the five taps of one (z, y) offset to the running sums o[x] of
 * the voxels x0 <= x < x1, whose five x neighbours are all inside the
 * row s.  Per voxel this is sum = sum + w * value for c = -2 .. 2, as in
 * Ray_Filter_Voxel; across x the voxels are independent and vectorise.
 */
static void Ray_Filter_Taps5(float* __restrict o, const float* __restrict s, const float* w,
                             int x0, int x1)
{
    const float w0 = w[0], w1 = w[1], w2 = w[2], w3 = w[3], w4 = w[4];
    for (int x = x0; x < x1; x++)
        o[x] = ((((o[x] + w0 * s[x - 2]) + w1 * s[x - 1]) + w2 * s[x]) + w3 * s[x + 1]) +
               w4 * s[x + 2];
}

/*
 * One row (y, z) of the smoothed volume.  Voxels 2 .. dim_x - 3 use every
 * x tap, so they share one set of (z, y) taps and one weight sum (added
 * in the same order as the per-voxel function would); the rest go
 * through the per-voxel function.
 */
static void Ray_Filter_Row(const float* kern, const float* in, int dim_x, int dim_y, int dim_z, int y,
                           int z, float* out_row)
{
    const int x0 = RAY_KERN_RADIUS, x1 = dim_x - RAY_KERN_RADIUS;

    if (x1 <= x0) {
        for (int x = 0; x < dim_x; x++)
            out_row[x] = Ray_Filter_Voxel(kern, in, dim_x, dim_y, dim_z, x, y, z);
        return;
    }

    for (int x = x0; x < x1; x++) out_row[x] = 0.0f;
    float weight = 0.0f;
    for (int a = -RAY_KERN_RADIUS; a <= RAY_KERN_RADIUS; a++) {
        int zz = z + a;
        if (zz < 0 || zz >= dim_z) continue;
        for (int b = -RAY_KERN_RADIUS; b <= RAY_KERN_RADIUS; b++) {
            int yy = y + b;
            if (yy < 0 || yy >= dim_y) continue;
            const float* w = kern + Ray_Kern_Index(a, b, -RAY_KERN_RADIUS);
            for (int c = 0; c < RAY_KERN_WIDTH; c++) weight = weight + w[c];
            Ray_Filter_Taps5(out_row, in + Ray_Voxel_Index(dim_x, dim_y, 0, yy, zz), w, x0, x1);
        }
    }
    if (weight != 0.0f)
        for (int x = x0; x < x1; x++) out_row[x] = out_row[x] / weight;
    else
        for (int x = x0; x < x1; x++) out_row[x] = 0.0f;

    for (int x = 0; x < x0; x++)
        out_row[x] = Ray_Filter_Voxel(kern, in, dim_x, dim_y, dim_z, x, y, z);
    for (int x = x1; x < dim_x; x++)
        out_row[x] = Ray_Filter_Voxel(kern, in, dim_x, dim_y, dim_z, x, y, z);
}

/* ---------------------------------------------------- CPU gradient rows */

/* The nine rows around row (y, z) that the 18-neighbourhood touches. */
struct Ray_Grad_Rows {
    const float* c;                      /* (y, z) itself */
    const float *ym, *yp, *zm, *zp;      /* y - 1, y + 1, z - 1, z + 1 */
    const float *ym_zm, *yp_zm, *ym_zp, *yp_zp;
};

/*
 * First pass over the voxels x0 <= x < x1 of a row whose 18 neighbours
 * all lie inside: the unnormalised gradient into gx, gy, gz and its
 * squared length into ga.  Plain arithmetic, vectorised across x.
 */
static void Ray_Grad_Row_Sum(const Ray_Grad_Rows& r, float* __restrict ga, float* __restrict gx,
                             float* __restrict gy, float* __restrict gz, int x0, int x1)
{
    const float* __restrict c = r.c;
    const float* __restrict ym = r.ym;
    const float* __restrict yp = r.yp;
    const float* __restrict zm = r.zm;
    const float* __restrict zp = r.zp;
    const float* __restrict ym_zm = r.ym_zm;
    const float* __restrict yp_zm = r.yp_zm;
    const float* __restrict ym_zp = r.ym_zp;
    const float* __restrict yp_zp = r.yp_zp;
    for (int x = x0; x < x1; x++) {
        Ray_Nbr18 s;
        s.m00 = c[x - 1];
        s.p00 = c[x + 1];
        s._0m0 = ym[x];
        s._0p0 = yp[x];
        s._00m = zm[x];
        s._00p = zp[x];
        s.mm0 = ym[x - 1];
        s.pm0 = ym[x + 1];
        s.mp0 = yp[x - 1];
        s.pp0 = yp[x + 1];
        s.m0m = zm[x - 1];
        s.p0m = zm[x + 1];
        s.m0p = zp[x - 1];
        s.p0p = zp[x + 1];
        s._0mm = ym_zm[x];
        s._0pm = yp_zm[x];
        s._0mp = ym_zp[x];
        s._0pp = yp_zp[x];
        Ray_Grad_Vec g = Ray_Grad_Sum(s);
        gx[x] = g.x;
        gy[x] = g.y;
        gz[x] = g.z;
        ga[x] = Ray_Grad_Norm2(g);
    }
}

/* Second pass: magnitude and unit direction, in place. */
static void Ray_Grad_Row_Normalise(float* __restrict ga, float* __restrict gx,
                                   float* __restrict gy, float* __restrict gz, int x0, int x1)
{
    for (int x = x0; x < x1; x++) {
        Ray_Grad_Vec g = {gx[x], gy[x], gz[x]};
        Ray_Grad_Out o = Ray_Grad_Normalise(g, ga[x]);
        ga[x] = o.a;
        gx[x] = o.x;
        gy[x] = o.y;
        gz[x] = o.z;
    }
}

/*
 * One row (y, z) of the gradient block.  Off the faces of the volume the
 * row goes through the two passes; voxels with a neighbour outside go
 * through the per-voxel function.
 */
static void Ray_Grad_Row(const float* in, int dim_x, int dim_y, int dim_z, int y, int z,
                         float** grad)
{
    if (y < 1 || y > dim_y - 2 || z < 1 || z > dim_z - 2 || dim_x < 3) {
        for (int x = 0; x < dim_x; x++) Ray_Grad_Store_Voxel(in, dim_x, dim_y, dim_z, x, y, z, grad);
        return;
    }
    const int row = dim_x, slice = dim_x * dim_y;
    const int i0 = Ray_Voxel_Index(dim_x, dim_y, 0, y, z);
    Ray_Grad_Rows r;
    r.c = in + i0;
    r.ym = r.c - row;
    r.yp = r.c + row;
    r.zm = r.c - slice;
    r.zp = r.c + slice;
    r.ym_zm = r.zm - row;
    r.yp_zm = r.zm + row;
    r.ym_zp = r.zp - row;
    r.yp_zp = r.zp + row;

    float* ga = grad[0] + i0;
    float* gx = grad[1] + i0;
    float* gy = grad[2] + i0;
    float* gz = grad[3] + i0;
    Ray_Grad_Row_Sum(r, ga, gx, gy, gz, 1, dim_x - 1);
    Ray_Grad_Row_Normalise(ga, gx, gy, gz, 1, dim_x - 1);
    Ray_Grad_Store_Voxel(in, dim_x, dim_y, dim_z, 0, y, z, grad);
    Ray_Grad_Store_Voxel(in, dim_x, dim_y, dim_z, dim_x - 1, y, z, grad);
}

/* -------------------------------------------------------- slabs, threads */

/* What one thread is given: the operation, its volume and a z slab. */
struct Ray_Prep_Job {
    const float* kern;           /* smoothing: the weights; gradient: null */
    int dim_x, dim_y, dim_z;
    const float* in;
    float* out;                  /* smoothing result */
    float** grad;                /* gradient block */
    int z0, z1;
};

static void Ray_Prep_Slab(const Ray_Prep_Job* job)
{
    const int dim_x = job->dim_x, dim_y = job->dim_y, dim_z = job->dim_z;
    for (int z = job->z0; z < job->z1; z++)
        for (int y = 0; y < dim_y; y++) {
            if (job->kern)
                Ray_Filter_Row(job->kern, job->in, dim_x, dim_y, dim_z, y, z,
                               job->out + Ray_Voxel_Index(dim_x, dim_y, 0, y, z));
            else
                Ray_Grad_Row(job->in, dim_x, dim_y, dim_z, y, z, job->grad);
        }
}

#define RAY_PREP_MAX_THREADS 64
/* Below this many voxels a second thread costs more than it saves. */
#define RAY_PREP_MIN_PARALLEL (1 << 16)

int Ray_Prep_Threads(int n, int dim_z)
{
    if (n < RAY_PREP_MIN_PARALLEL || dim_z < 2) return 1;
    int cores = static_cast<int>(std::thread::hardware_concurrency());
    if (cores < 1) cores = 1;
    return std::min(std::min(cores, RAY_PREP_MAX_THREADS), dim_z);
}

/*
 * Cuts the z slices into threads slabs; every slab but the last runs on
 * a thread of its own, the last on the caller's.  A thread that cannot
 * be started leaves its slab to the caller.  All threads are joined
 * before returning.
 */
static void Ray_Prep_Run(Ray_Prep_Job base, int threads)
{
    if (threads > RAY_PREP_MAX_THREADS) threads = RAY_PREP_MAX_THREADS;
    if (threads > base.dim_z) threads = base.dim_z;
    if (threads < 1) threads = 1;

    Ray_Prep_Job jobs[RAY_PREP_MAX_THREADS];
    std::thread workers[RAY_PREP_MAX_THREADS];
    int started[RAY_PREP_MAX_THREADS] = {0};

    for (int k = 0; k < threads; k++) {
        jobs[k] = base;
        jobs[k].z0 = static_cast<int>(static_cast<int64_t>(base.dim_z) * k / threads);
        jobs[k].z1 = static_cast<int>(static_cast<int64_t>(base.dim_z) * (k + 1) / threads);
    }
    for (int k = 0; k < threads - 1; k++) {
        try {
            workers[k] = std::thread(Ray_Prep_Slab, &jobs[k]);
            started[k] = 1;
        } catch (const std::system_error&) {
            started[k] = 0;
        }
    }
    Ray_Prep_Slab(&jobs[threads - 1]);
    for (int k = 0; k < threads - 1; k++) {
        if (started[k])
            workers[k].join();
        else
            Ray_Prep_Slab(&jobs[k]);
    }
}

void Ray_Vol_Filter_Cpu(const float* kern, int dim_x, int dim_y, int dim_z, const float* in, float* out,
                        int threads)
{
    if (dim_x < 1 || dim_y < 1 || dim_z < 1) return;
    Ray_Prep_Job job = {kern, dim_x, dim_y, dim_z, in, out, nullptr, 0, dim_z};
    Ray_Prep_Run(job, threads);
}

void Ray_Vol_Gradient_Cpu(int dim_x, int dim_y, int dim_z, const float* in, float** grad, int threads)
{
    if (dim_x < 1 || dim_y < 1 || dim_z < 1) return;
    Ray_Prep_Job job = {nullptr, dim_x, dim_y, dim_z, in, nullptr, grad, 0, dim_z};
    Ray_Prep_Run(job, threads);
}
