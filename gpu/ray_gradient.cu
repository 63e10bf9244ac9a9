/*
 * ray_gradient.cu - volume preprocessing on the GPU: the device constants
 * of the preprocessing module, the kernels Cuda_Filter and Cuda_Gradient
 * (one thread per voxel) and the host sequences that feed them.
 *
 * The kernels call the same per-voxel functions as the CPU path
 * (core/ray_preproc.h).  Built with --fmad=false and IEEE division and
 * square root, the device rounds every step as the host does.
 */
#include <cstdint>

#include "core/ray_state.h"
#include "ray_cuda_check.h"
#include "ray_gradient.h"
#include "ray_gradient_int.h"

/* The 5x5x5 weights (z offset slowest) and the size of the volume. */
__constant__ float cst_kern[RAY_KERN_SIZE];
__constant__ unsigned int cst_dim[3];

/* Launch bounds: every block size up to 1024 launches (see Ray_Individual). */
__global__ void __launch_bounds__(RAY_CUDA_MAX_BLOCK) Cuda_Filter(int n, float* out, float* in)
{
    unsigned int u = blockIdx.x * blockDim.x + threadIdx.x;
    if (n < 0 || u >= static_cast<unsigned int>(n)) return;
    int i = static_cast<int>(u);
    short x, y, z;
    Ray_Voxel_Coords(i, cst_dim, &x, &y, &z);
    out[i] = Ray_Filter_Voxel(cst_kern, in, static_cast<int>(cst_dim[0]),
                              static_cast<int>(cst_dim[1]), static_cast<int>(cst_dim[2]), x, y, z);
}

__global__ void __launch_bounds__(RAY_CUDA_MAX_BLOCK) Cuda_Gradient(int n, float* grad_a, float* grad_x, float* grad_y, float* grad_z,
                              float* in)
{
    unsigned int u = blockIdx.x * blockDim.x + threadIdx.x;
    if (n < 0 || u >= static_cast<unsigned int>(n)) return;
    int i = static_cast<int>(u);
    short x, y, z;
    Ray_Voxel_Coords(i, cst_dim, &x, &y, &z);
    Ray_Grad_Out g = Ray_Grad_Voxel(in, static_cast<int>(cst_dim[0]), static_cast<int>(cst_dim[1]),
                                    static_cast<int>(cst_dim[2]), x, y, z, in[i]);
    grad_a[i] = g.a;
    grad_x[i] = g.x;
    grad_y[i] = g.y;
    grad_z[i] = g.z;
}

/* Checks one CUDA call of this file with its label. */
#define RAY_PREP_CHECK(call, label) Ray_Cuda_Check((call), (label), RAY_GRADIENT_SRC, __LINE__)

/*
 * The launch shape: blocks of Cuda_Thread_Block threads (a size the
 * kernels take: the path choice made sure of it), enough of them to cover
 * n voxels.
 */
static void Ray_Prep_Grid(int n, dim3* grid, dim3* block)
{
    unsigned int b = Ray_Cuda_Block();
    *block = dim3(b, 1, 1);
    *grid = dim3(static_cast<unsigned int>((static_cast<uint64_t>(n) + b - 1) / b), 1, 1);
}

float* Ray_Gpu_Filter(int dim_x, int dim_y, int dim_z, const float* volume)
{
    const int n = Ray_Mul32(Ray_Mul32(dim_x, dim_y), dim_z);
    const size_t bytes = static_cast<size_t>(n) * sizeof(float);
    unsigned int dim[3] = {static_cast<unsigned int>(dim_x), static_cast<unsigned int>(dim_y),
                           static_cast<unsigned int>(dim_z)};
    float* cuda_gli = nullptr;
    float* cuda_filter = nullptr;

    RAY_PREP_CHECK(cudaMemcpyToSymbol(cst_dim, dim, sizeof(dim), 0, cudaMemcpyHostToDevice),
              "cudaMemcpyToSymbol[cst_dim]");
    RAY_PREP_CHECK(cudaMemcpyToSymbol(cst_kern, Ray_Filter_Kern, sizeof(Ray_Filter_Kern), 0,
                                 cudaMemcpyHostToDevice),
              "cudaMemcpyToSymbol[cst_kern]");
    RAY_PREP_CHECK(cudaMalloc(reinterpret_cast<void**>(&cuda_gli), bytes), "cudaMalloc[cuda_gli]");
    RAY_PREP_CHECK(cudaMemcpy(cuda_gli, volume, bytes, cudaMemcpyHostToDevice), "cudaMemcpy[cuda_gli]");
    RAY_PREP_CHECK(cudaMalloc(reinterpret_cast<void**>(&cuda_filter), bytes),
              "cudaMalloc[cuda_filter]");

    if (n > 0) {
        dim3 grid, block;
        Ray_Prep_Grid(n, &grid, &block);
        Ray_Cuda_Launch([&] { Cuda_Filter<<<grid, block>>>(n, cuda_filter, cuda_gli); },
                        "cudaLaunchKernel[Cuda_Filter]", RAY_GRADIENT_SRC, __LINE__);
        RAY_PREP_CHECK(cudaDeviceSynchronize(), "cudaDeviceSynchronize[Cuda_Filter]");
    }

    float* mean = Ray_Prep_Alloc(n, "mean", __LINE__);
    if (mean) RAY_PREP_CHECK(cudaMemcpy(mean, cuda_filter, bytes, cudaMemcpyDeviceToHost), "cudaMemcpy[mean]");

    RAY_PREP_CHECK(cudaFree(cuda_gli), "cudaFree[cuda_gli]");
    RAY_PREP_CHECK(cudaFree(cuda_filter), "cudaFree[cuda_filter]");
    return mean;
}

float** Ray_Gpu_Gradient(int dim_x, int dim_y, int dim_z, const float* volume)
{
    const int n = Ray_Mul32(Ray_Mul32(dim_x, dim_y), dim_z);
    const size_t bytes = static_cast<size_t>(n) * sizeof(float);
    unsigned int dim[3] = {static_cast<unsigned int>(dim_x), static_cast<unsigned int>(dim_y),
                           static_cast<unsigned int>(dim_z)};
    float* cuda_gli = nullptr;
    float* cuda_grad_a = nullptr;
    float* cuda_grad_x = nullptr;
    float* cuda_grad_y = nullptr;
    float* cuda_grad_z = nullptr;

    RAY_PREP_CHECK(cudaMemcpyToSymbol(cst_dim, dim, sizeof(dim), 0, cudaMemcpyHostToDevice),
              "cudaMemcpyToSymbol[cst_dim]");
    RAY_PREP_CHECK(cudaMalloc(reinterpret_cast<void**>(&cuda_gli), bytes), "cudaMalloc[cuda_gli]");
    RAY_PREP_CHECK(cudaMemcpy(cuda_gli, volume, bytes, cudaMemcpyHostToDevice), "cudaMemcpy[cuda_gli]");
    RAY_PREP_CHECK(cudaMalloc(reinterpret_cast<void**>(&cuda_grad_a), bytes), "cudaMalloc[cuda_grad_a]");
    RAY_PREP_CHECK(cudaMalloc(reinterpret_cast<void**>(&cuda_grad_x), bytes), "cudaMalloc[cuda_grad_x]");
    RAY_PREP_CHECK(cudaMalloc(reinterpret_cast<void**>(&cuda_grad_y), bytes), "cudaMalloc[cuda_grad_y]");
    RAY_PREP_CHECK(cudaMalloc(reinterpret_cast<void**>(&cuda_grad_z), bytes), "cudaMalloc[cuda_grad_z]");

    if (n > 0) {
        dim3 grid, block;
        Ray_Prep_Grid(n, &grid, &block);
        Ray_Cuda_Launch(
            [&] { Cuda_Gradient<<<grid, block>>>(n, cuda_grad_a, cuda_grad_x, cuda_grad_y, cuda_grad_z, cuda_gli); },
            "cudaLaunchKernel[Cuda_Gradient]", RAY_GRADIENT_SRC, __LINE__);
        RAY_PREP_CHECK(cudaDeviceSynchronize(), "cudaDeviceSynchronize[Cuda_Gradient]");
    }

    float** grad = Ray_Grad_Alloc(n);
    if (grad) {
        float* device[4] = {cuda_grad_a, cuda_grad_x, cuda_grad_y, cuda_grad_z};
        for (int k = 0; k < 4; k++)
            RAY_PREP_CHECK(cudaMemcpy(grad[k], device[k], bytes, cudaMemcpyDeviceToHost),
                      "cudaMemcpy[mean]");
    }

    RAY_PREP_CHECK(cudaFree(cuda_gli), "cudaFree[cuda_gli]");
    RAY_PREP_CHECK(cudaFree(cuda_grad_a), "cudaFree[cuda_grad_a]");
    RAY_PREP_CHECK(cudaFree(cuda_grad_x), "cudaFree[cuda_grad_x]");
    RAY_PREP_CHECK(cudaFree(cuda_grad_y), "cudaFree[cuda_grad_y]");
    RAY_PREP_CHECK(cudaFree(cuda_grad_z), "cudaFree[cuda_grad_z]");
    return grad;
}
