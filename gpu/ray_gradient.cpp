/*
 * ray_gradient.cpp - volume preprocessing, host side: the 5x5x5 Gaussian
 * smoothing (Ray_Vol_Filter) and the gradient block (Ray_Vol_Gradient),
 * each sent to the GPU or done on the CPU.
 *
 * The CPU path computes every voxel with exactly the arithmetic of the
 * per-voxel functions of core/ray_preproc.h (which the kernels use too),
 * but arranged for speed: the volume is cut into slabs of z slices, one
 * per thread, and inside a slab whole rows of voxels are processed tap
 * by tap, so that the compiler can run neighbouring x voxels in the
 * lanes of one vector.  Each lane still adds its own voxel's terms in the
 * order of the per-voxel function, so the results are bit-identical to
 * the plain loop kept here as Ray_Vol_Filter_Scalar / _Gradient_Scalar.
 */
#include "ray_gradient.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <system_error>
#include <thread>

#if defined(__linux__)
#include <sys/mman.h>
#endif

#include "../core/ray_state.h"
#include "ray_cuda_check.h"
#include "ray_gradient_int.h"

float Ray_Filter_Kern[RAY_KERN_SIZE];
int Ray_Filter_Radius = 0;
int Ray_Prep_Fail_Alloc_At = 0;

/* ------------------------------------------------------------ weights */

void Ray_Filter_Kern_Build()
{
    if (Ray_Filter_Radius != 0) return;
    for (int a = -RAY_KERN_RADIUS; a <= RAY_KERN_RADIUS; a++)
        for (int b = -RAY_KERN_RADIUS; b <= RAY_KERN_RADIUS; b++)
            for (int c = -RAY_KERN_RADIUS; c <= RAY_KERN_RADIUS; c++)
                Ray_Filter_Kern[Ray_Kern_Index(a, b, c)] = Ray_Kern_Weight(a, b, c);
    Ray_Filter_Radius = RAY_KERN_RADIUS;
}

/* ------------------------------------------------------ path and memory */

int Ray_Prep_Use_Gpu(int n, int factor, unsigned int unit)
{
    if (Test_Cuda(3, 0) == 0) return 0;
    uint64_t free_bytes = Ray_Gpu_Free_Memory();
    /* n * factor wraps in 32 bits; a negative product widens with its sign. */
    int scaled = Ray_Mul32(n, factor);
    uint64_t need = static_cast<uint64_t>(static_cast<int64_t>(scaled)) * unit;
    return free_bytes > need ? 1 : 0;
}

static void Ray_Prep_Memory_Error(int line)
{
    Ray_Trace(RAY_TR_ALLOC, "line %-4d of %hs \nmemory error in new", line, RAY_GRADIENT_SRC);
}

/* One host allocation of count elements of size bytes, or null. */
static void* Ray_Prep_Calloc(size_t count, size_t size)
{
    if (Ray_Prep_Fail_Alloc_At > 0 && --Ray_Prep_Fail_Alloc_At == 0) return nullptr;
    return std::calloc(count, size);
}

/*
 * Result buffers of a real volume are tens of megabytes that are written
 * once, right away.  Faulting them in 4 KiB pages can cost more than the
 * arithmetic (notably under virtualisation), so on Linux they are aligned
 * to and advised for 2 MiB pages.  Such a buffer is not cleared: every
 * element of it is written by the path that asked for it.  It is
 * released with free() like the others.
 */
#define RAY_PREP_HUGE_PAGE (size_t(2) << 20)
#define RAY_PREP_HUGE_MIN (size_t(4) << 20)

static void* Ray_Prep_Alloc_Large(size_t bytes)
{
#if defined(__linux__)
    size_t rounded = (bytes + RAY_PREP_HUGE_PAGE - 1) & ~(RAY_PREP_HUGE_PAGE - 1);
    void* p = std::aligned_alloc(RAY_PREP_HUGE_PAGE, rounded);
    if (p) madvise(p, rounded, MADV_HUGEPAGE);   /* a hint: failure is harmless */
    return p;
#else
    return std::calloc(bytes, 1);
#endif
}

float* Ray_Prep_Alloc(int n, int line)
{
    size_t count = n > 0 ? static_cast<size_t>(n) : 1;
    float* p;
    if (count * sizeof(float) >= RAY_PREP_HUGE_MIN) {
        p = Ray_Prep_Fail_Alloc_At > 0 && --Ray_Prep_Fail_Alloc_At == 0
                ? nullptr
                : static_cast<float*>(Ray_Prep_Alloc_Large(count * sizeof(float)));
    } else {
        p = static_cast<float*>(Ray_Prep_Calloc(count, sizeof(float)));
    }
    if (!p) Ray_Prep_Memory_Error(line);
    return p;
}

float** Ray_Grad_Alloc(int n)
{
    float** grad = static_cast<float**>(Ray_Prep_Calloc(4, sizeof(float*)));
    if (!grad) {
        Ray_Prep_Memory_Error(__LINE__);
        return nullptr;
    }
    for (int k = 0; k < 4; k++) {
        grad[k] = Ray_Prep_Alloc(n, __LINE__);
        if (!grad[k]) {
            Ray_Grad_Release(grad);
            return nullptr;
        }
    }
    return grad;
}

void Ray_Vol_Release(float* volume) { std::free(volume); }

void Ray_Grad_Release(float** grad)
{
    if (!grad) return;
    for (int k = 0; k < 4; k++) std::free(grad[k]);
    std::free(grad);
}

/* ------------------------------------------------------ reference form */

void Ray_Vol_Filter_Scalar(int dim_x, int dim_y, int dim_z, const float* in, float* out)
{
    for (int z = 0; z < dim_z; z++)
        for (int y = 0; y < dim_y; y++)
            for (int x = 0; x < dim_x; x++)
                out[Ray_Voxel_Index(dim_x, dim_y, x, y, z)] =
                    Ray_Filter_Voxel(Ray_Filter_Kern, in, dim_x, dim_y, dim_z, x, y, z);
}

void Ray_Vol_Gradient_Scalar(int dim_x, int dim_y, int dim_z, const float* in, float** grad)
{
    for (int z = 0; z < dim_z; z++)
        for (int y = 0; y < dim_y; y++)
            for (int x = 0; x < dim_x; x++) {
                int i = Ray_Voxel_Index(dim_x, dim_y, x, y, z);
                Ray_Grad_Out g = Ray_Grad_Voxel(in, dim_x, dim_y, dim_z, x, y, z, in[i]);
                grad[0][i] = g.a;
                grad[1][i] = g.x;
                grad[2][i] = g.y;
                grad[3][i] = g.z;
            }
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
static void Ray_Filter_Row(const float* in, int dim_x, int dim_y, int dim_z, int y, int z,
                           float* out_row)
{
    const int x0 = RAY_KERN_RADIUS, x1 = dim_x - RAY_KERN_RADIUS;

    if (x1 <= x0) {
        for (int x = 0; x < dim_x; x++)
            out_row[x] = Ray_Filter_Voxel(Ray_Filter_Kern, in, dim_x, dim_y, dim_z, x, y, z);
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
            const float* w = Ray_Filter_Kern + Ray_Kern_Index(a, b, -RAY_KERN_RADIUS);
            for (int c = 0; c < RAY_KERN_WIDTH; c++) weight = weight + w[c];
            Ray_Filter_Taps5(out_row, in + Ray_Voxel_Index(dim_x, dim_y, 0, yy, zz), w, x0, x1);
        }
    }
    if (weight != 0.0f)
        for (int x = x0; x < x1; x++) out_row[x] = out_row[x] / weight;
    else
        for (int x = x0; x < x1; x++) out_row[x] = 0.0f;

    for (int x = 0; x < x0; x++)
        out_row[x] = Ray_Filter_Voxel(Ray_Filter_Kern, in, dim_x, dim_y, dim_z, x, y, z);
    for (int x = x1; x < dim_x; x++)
        out_row[x] = Ray_Filter_Voxel(Ray_Filter_Kern, in, dim_x, dim_y, dim_z, x, y, z);
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
    int filter;                  /* 1: smoothing, 0: gradient */
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
            if (job->filter)
                Ray_Filter_Row(job->in, dim_x, dim_y, dim_z, y, z,
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

void Ray_Vol_Filter_Cpu(int dim_x, int dim_y, int dim_z, const float* in, float* out, int threads)
{
    if (dim_x < 1 || dim_y < 1 || dim_z < 1) return;
    Ray_Prep_Job job = {1, dim_x, dim_y, dim_z, in, out, nullptr, 0, dim_z};
    Ray_Prep_Run(job, threads);
}

void Ray_Vol_Gradient_Cpu(int dim_x, int dim_y, int dim_z, const float* in, float** grad,
                          int threads)
{
    if (dim_x < 1 || dim_y < 1 || dim_z < 1) return;
    Ray_Prep_Job job = {0, dim_x, dim_y, dim_z, in, nullptr, grad, 0, dim_z};
    Ray_Prep_Run(job, threads);
}

/* -------------------------------------------------------- the operations */

/*
 * Refuses sizes that the voxel loops cannot take safely: a negative
 * dimension, a voxel count beyond 32 bits, or a missing input.  Returns
 * 1 and sets *n when the input is usable; else writes an error line.
 */
static int Ray_Prep_Check_Input(const char* who, int dim_x, int dim_y, int dim_z,
                                const float* volume, int* n)
{
    int64_t count = static_cast<int64_t>(dim_x) * dim_y * dim_z;
    if (dim_x < 0 || dim_y < 0 || dim_z < 0 || count > INT32_MAX) {
        Ray_Trace(RAY_TR_ERROR, "ERROR: %hs(%d, %d, %d): volume size out of range", who, dim_x,
                  dim_y, dim_z);
        return 0;
    }
    if (count > 0 && !volume) {
        Ray_Trace(RAY_TR_ERROR, "ERROR: %hs(): no volume", who);
        return 0;
    }
    *n = static_cast<int>(count);
    return 1;
}

float* Ray_Vol_Filter(int dim_x, int dim_y, int dim_z, float* volume)
{
    Ray_Trace(RAY_TR_PREP, ">>> in  Voxelune: Ray_Vol_Filter()");
    int n = 0;
    if (!Ray_Prep_Check_Input("Ray_Vol_Filter", dim_x, dim_y, dim_z, volume, &n)) return nullptr;

    int use_gpu = Ray_Prep_Use_Gpu(n, 5, 4);
    Ray_Filter_Kern_Build();

    if (use_gpu) {
        float* mean = Ray_Gpu_Filter(dim_x, dim_y, dim_z, volume);
        if (!mean) return nullptr;
        Ray_Trace(RAY_TR_PREP, "<<< out Voxelune: Ray_Vol_Filter(Cuda)");
        return mean;
    }

    float* mean = Ray_Prep_Alloc(n, __LINE__);
    if (!mean) return nullptr;
    Ray_Vol_Filter_Cpu(dim_x, dim_y, dim_z, volume, mean, Ray_Prep_Threads(n, dim_z));
    Ray_Trace(RAY_TR_PREP, "<<< out Voxelune: Ray_Vol_Filter(done)");
    return mean;
}

float** Ray_Vol_Gradient(int dim_x, int dim_y, int dim_z, float* volume)
{
    Ray_Trace(RAY_TR_PREP, ">>> in  Voxelune: Ray_Vol_Gradient()");
    int n = 0;
    if (!Ray_Prep_Check_Input("Ray_Vol_Gradient", dim_x, dim_y, dim_z, volume, &n))
        return nullptr;

    if (Ray_Prep_Use_Gpu(n, 10, 1)) {
        float** grad = Ray_Gpu_Gradient(dim_x, dim_y, dim_z, volume);
        if (!grad) return nullptr;
        Ray_Trace(RAY_TR_PREP, "<<< out Voxelune: Ray_Vol_Gradient(Cuda)");
        return grad;
    }

    float** grad = Ray_Grad_Alloc(n);
    if (!grad) return nullptr;
    Ray_Vol_Gradient_Cpu(dim_x, dim_y, dim_z, volume, grad, Ray_Prep_Threads(n, dim_z));
    Ray_Trace(RAY_TR_PREP, "<<< out Voxelune: Ray_Vol_Gradient(done)");
    return grad;
}

/* ------------------------------------------------ no CUDA in this build */

#if !defined(VOXELUNE_WITH_CUDA)
/*
 * Without the device code the free device memory reads 0, so these are
 * reached only when a test forces the figure: the first CUDA step fails
 * as it would with no device, and the check ends the process.
 */
float* Ray_Gpu_Filter(int, int, int, const float*)
{
    Ray_Cuda_Check(cudaErrorNoDevice, "cudaMemcpyToSymbol[cst_dim]", RAY_GRADIENT_SRC, __LINE__);
    return nullptr;
}

float** Ray_Gpu_Gradient(int, int, int, const float*)
{
    Ray_Cuda_Check(cudaErrorNoDevice, "cudaMemcpyToSymbol[cst_dim]", RAY_GRADIENT_SRC, __LINE__);
    return nullptr;
}
#endif
