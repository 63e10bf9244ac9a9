/*
 * ray_gradient.cpp - volume preprocessing, host side: the 5x5x5 Gaussian
 * smoothing (Ray_Vol_Filter) and the gradient block (Ray_Vol_Gradient),
 * each sent to the GPU (ray_gradient.cu) or done on the CPU
 * (cpu/ray_preproc_cpu.cpp); the weight table and the host result buffers.
 */
#include "ray_gradient.h"

#include <cstdint>
#include <cstdlib>

#include "core/ray_state.h"
#include "cpu/ray_preproc_cpu.h"
#include "ray_cuda_check.h"
#include "ray_gradient_int.h"

float Ray_Filter_Kern[RAY_KERN_SIZE];
int Ray_Filter_Radius = 0;
std::atomic<int> Ray_Prep_Fail_Alloc_At{0};

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
    /* n * factor wraps in 32 bits; a negative product widens with its sign. */
    uint64_t need = static_cast<uint64_t>(static_cast<int64_t>(Ray_Mul32(n, factor))) * unit;
    /* A block size the kernels cannot take leaves the work to the CPU, whose results are the same. */
    return Ray_Gpu_Room(need) && Ray_Cuda_Block() != 0;
}

/* Buffers of this size and more are large: see Plat_Alloc_Large. */
#define RAY_PREP_LARGE (size_t(4) << 20)

/*
 * One host allocation of count elements of size bytes, or null after the
 * memory error line naming var and line, the line of the failing call.
 */
static void* Ray_Prep_Get(size_t count, size_t size, const char* var, int line)
{
    void* p = nullptr;
    if (!Plat_Injected_Failure(Ray_Prep_Fail_Alloc_At))
        p = count * size >= RAY_PREP_LARGE ? Plat_Alloc_Large(count * size) : std::calloc(count, size);
    if (!p) Ray_Trace_Alloc(line, RAY_GRADIENT_SRC, "new", var, static_cast<int>(count), static_cast<int>(size));
    return p;
}

float* Ray_Prep_Alloc(int n, const char* var, int line)
{
    return static_cast<float*>(Ray_Prep_Get(n > 0 ? static_cast<size_t>(n) : 1, sizeof(float), var, line));
}

float** Ray_Grad_Alloc(int n)
{
    float** grad = static_cast<float**>(Ray_Prep_Get(4, sizeof(float*), "grad", __LINE__));
    if (!grad) return nullptr;
    static const char* const names[4] = {"grad_a", "grad_x", "grad_y", "grad_z"};
    for (int k = 0; k < 4; k++) {
        grad[k] = Ray_Prep_Alloc(n, names[k], __LINE__);
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

    float* mean = Ray_Prep_Alloc(n, "mean", __LINE__);
    if (!mean) return nullptr;
    Ray_Vol_Filter_Cpu(Ray_Filter_Kern, dim_x, dim_y, dim_z, volume, mean, Ray_Prep_Threads(n, dim_z));
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
