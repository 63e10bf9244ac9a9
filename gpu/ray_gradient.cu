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

#include "../core/ray_state.h"
#include "ray_cuda_check.h"
#include "ray_gradient.h"
#include "ray_gradient_int.h"

/* The 5x5x5 weights (z offset slowest) and the size of the volume. */
__constant__ float cst_kern[RAY_KERN_SIZE];
__constant__ unsigned int cst_dim[3];

__global__ void Cuda_Filter(int n, float* out, float* in)
{
    unsigned int u = blockIdx.x * blockDim.x + threadIdx.x;
    if (n < 0 || u >= static_cast<unsigned int>(n)) return;
    int i = static_cast<int>(u);
    short x, y, z;
    Ray_Voxel_Coords(i, cst_dim, &x, &y, &z);
    out[i] = Ray_Filter_Voxel(cst_kern, in, static_cast<int>(cst_dim[0]),
                              static_cast<int>(cst_dim[1]), static_cast<int>(cst_dim[2]), x, y, z);
}

__global__ void Cuda_Gradient(int n, float* grad_a, float* grad_x, float* grad_y, float* grad_z,
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
#define RAY_CHECK(call, label) Ray_Cuda_Check((call), (label), RAY_GRADIENT_SRC, __LINE__)

/*
 * The launch shape: blocks of Cuda_Thread_Block threads, enough of them
 * to cover n voxels.  A block size of 0 is left for the launch to refuse.
 */
static void Ray_Prep_Grid(int n, dim3* grid, dim3* block)
{
    unsigned int b = Cuda_Thread_Block;
    uint64_t blocks = b ? (static_cast<uint64_t>(n) + b - 1) / b : 1;
    *block = dim3(b, 1, 1);
    *grid = dim3(static_cast<unsigned int>(blocks), 1, 1);
}

/*
 * Waits for the kernel; a launch that was refused reports under the same
 * label, since its results would never arrive.
 */
static cudaError_t Ray_Prep_Wait()
{
    cudaError_t code = cudaGetLastError();
    if (code != cudaSuccess) return code;
    return cudaDeviceSynchronize();
}

float* Ray_Gpu_Filter(int dim_x, int dim_y, int dim_z, const float* volume)
{
    const int n = Ray_Mul32(Ray_Mul32(dim_x, dim_y), dim_z);
    const size_t bytes = static_cast<size_t>(n) * sizeof(float);
    unsigned int dim[3] = {static_cast<unsigned int>(dim_x), static_cast<unsigned int>(dim_y),
                           static_cast<unsigned int>(dim_z)};
    float* cuda_gli = nullptr;
    float* cuda_filter = nullptr;

    RAY_CHECK(cudaMemcpyToSymbol(cst_dim, dim, sizeof(dim), 0, cudaMemcpyHostToDevice),
              "cudaMemcpyToSymbol[cst_dim]");
    RAY_CHECK(cudaMemcpyToSymbol(cst_kern, Ray_Filter_Kern, sizeof(Ray_Filter_Kern), 0,
                                 cudaMemcpyHostToDevice),
              "cudaMemcpyToSymbol[cst_kern]");
    RAY_CHECK(cudaMalloc(reinterpret_cast<void**>(&cuda_gli), bytes), "cudaMalloc[cuda_gli]");
    RAY_CHECK(cudaMemcpy(cuda_gli, volume, bytes, cudaMemcpyHostToDevice), "cudaMemcpy[cuda_gli]");
    RAY_CHECK(cudaMalloc(reinterpret_cast<void**>(&cuda_filter), bytes),
              "cudaMalloc[cuda_filter]");

    if (n > 0) {
        dim3 grid, block;
        Ray_Prep_Grid(n, &grid, &block);
        Cuda_Filter<<<grid, block>>>(n, cuda_filter, cuda_gli);
        RAY_CHECK(Ray_Prep_Wait(), "cudaDeviceSynchronize[Cuda_Filter]");
    }

    float* mean = Ray_Prep_Alloc(n, __LINE__);
    if (mean) RAY_CHECK(cudaMemcpy(mean, cuda_filter, bytes, cudaMemcpyDeviceToHost), "cudaMemcpy[mean]");

    RAY_CHECK(cudaFree(cuda_gli), "cudaFree[cuda_gli]");
    RAY_CHECK(cudaFree(cuda_filter), "cudaFree[cuda_filter]");
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

    RAY_CHECK(cudaMemcpyToSymbol(cst_dim, dim, sizeof(dim), 0, cudaMemcpyHostToDevice),
              "cudaMemcpyToSymbol[cst_dim]");
    RAY_CHECK(cudaMalloc(reinterpret_cast<void**>(&cuda_gli), bytes), "cudaMalloc[cuda_gli]");
    RAY_CHECK(cudaMemcpy(cuda_gli, volume, bytes, cudaMemcpyHostToDevice), "cudaMemcpy[cuda_gli]");
    RAY_CHECK(cudaMalloc(reinterpret_cast<void**>(&cuda_grad_a), bytes), "cudaMalloc[cuda_grad_a]");
    RAY_CHECK(cudaMalloc(reinterpret_cast<void**>(&cuda_grad_x), bytes), "cudaMalloc[cuda_grad_x]");
    RAY_CHECK(cudaMalloc(reinterpret_cast<void**>(&cuda_grad_y), bytes), "cudaMalloc[cuda_grad_y]");
    RAY_CHECK(cudaMalloc(reinterpret_cast<void**>(&cuda_grad_z), bytes), "cudaMalloc[cuda_grad_z]");

    if (n > 0) {
        dim3 grid, block;
        Ray_Prep_Grid(n, &grid, &block);
        Cuda_Gradient<<<grid, block>>>(n, cuda_grad_a, cuda_grad_x, cuda_grad_y, cuda_grad_z,
                                       cuda_gli);
        RAY_CHECK(Ray_Prep_Wait(), "cudaDeviceSynchronize[Cuda_Gradient]");
    }

    float** grad = Ray_Grad_Alloc(n);
    if (grad) {
        float* device[4] = {cuda_grad_a, cuda_grad_x, cuda_grad_y, cuda_grad_z};
        for (int k = 0; k < 4; k++)
            RAY_CHECK(cudaMemcpy(grad[k], device[k], bytes, cudaMemcpyDeviceToHost),
                      "cudaMemcpy[mean]");
    }

    RAY_CHECK(cudaFree(cuda_gli), "cudaFree[cuda_gli]");
    RAY_CHECK(cudaFree(cuda_grad_a), "cudaFree[cuda_grad_a]");
    RAY_CHECK(cudaFree(cuda_grad_x), "cudaFree[cuda_grad_x]");
    RAY_CHECK(cudaFree(cuda_grad_y), "cudaFree[cuda_grad_y]");
    RAY_CHECK(cudaFree(cuda_grad_z), "cudaFree[cuda_grad_z]");
    return grad;
}
