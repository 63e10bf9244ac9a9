/*
 * ray_cuda.cu - the GPU frame.
 *
 * Everything a ray of the frame needs besides the volume buffers sits in
 * constant memory.  Ray_GPU_Start uploads the render parameters and the
 * slot's values, Ray_Cuda the frame size, then one launch of
 * Ray_Individual renders the whole frame, one thread per pixel, and the
 * result is copied into the box's Graph_Normal.  Every runtime call is
 * checked; a failure is fatal.
 */
#include <chrono>
#include <cstdint>
#include <cstring>

#include "core/ray_device_pixel.h"
#include "core/ray_state.h"
#include "ray_cuda.h"
#include "ray_cuda_check.h"
#include "ray_cuda_timing.h"

#define RAY_CUDA_SRC "ray_cuda"
#define RAY_CHECK(call, label) Ray_Cuda_Check((call), (label), RAY_CUDA_SRC, __LINE__)

/* ---- device constants, in the order they are declared and registered ---- */

__constant__ unsigned int cst_box_dim[2];
__constant__ unsigned int cst_vol_dim[3];
__constant__ unsigned int cst_Phong_table[RAY_PHONG_SIZE];
__constant__ float cst_clip;
__constant__ unsigned int cst_vol_flag;
__constant__ int cst_clip_x[2];
__constant__ int cst_clip_y[2];
__constant__ int cst_clip_z[2];
__constant__ float cst_threshold;
__constant__ float cst_transfo[16];
__constant__ unsigned short cst_light_nb;
__constant__ unsigned char cst_light_status[RAY_LIGHTS];
__constant__ float cst_light_dir_x[RAY_LIGHTS];
__constant__ float cst_light_dir_y[RAY_LIGHTS];
__constant__ float cst_light_dir_z[RAY_LIGHTS];
__constant__ unsigned int cst_light_color[RAY_LIGHTS];
__constant__ unsigned char cst_col_mode;
__constant__ unsigned char cst_map_nb;
__constant__ unsigned char cst_map_col[256];
__constant__ unsigned char cst_map_id[256];
__constant__ unsigned int cst_tag_col[256];

/* State of the random generator; only the kernel's threads touch it. */
__device__ unsigned int Seed;

Ray_Cuda_Times Ray_Cuda_Timing;

/* The scene of a frame, as the device constants describe it. */
__device__ static void Ray_Device_Scene(Ray_Scene* sc, const float* gli, const unsigned char* tag,
                                        const float* grad_a, const float* grad_x, const float* grad_y,
                                        const float* grad_z)
{
    for (int a = 0; a < 3; a++) sc->dim[a] = static_cast<int>(cst_vol_dim[a]);
    sc->gli = gli;
    sc->tag = tag;
    sc->grad_a = grad_a;
    sc->grad_x = grad_x;
    sc->grad_y = grad_y;
    sc->grad_z = grad_z;
    sc->clip = cst_clip;
    sc->vol_flag = cst_vol_flag;
    sc->clip_lo[0] = cst_clip_x[0];
    sc->clip_hi[0] = cst_clip_x[1];
    sc->clip_lo[1] = cst_clip_y[0];
    sc->clip_hi[1] = cst_clip_y[1];
    sc->clip_lo[2] = cst_clip_z[0];
    sc->clip_hi[2] = cst_clip_z[1];
    sc->threshold = cst_threshold;
    sc->col_mode = cst_col_mode;
    sc->map_nb = cst_map_nb;
    sc->map_col = cst_map_col;
    sc->map_id = cst_map_id;
    sc->tag_col = cst_tag_col;
    sc->light_nb = cst_light_nb;
    sc->light_status = cst_light_status;
    sc->light_color = cst_light_color;
    sc->light_dir_x = cst_light_dir_x;
    sc->light_dir_y = cst_light_dir_y;
    sc->light_dir_z = cst_light_dir_z;
    sc->light_stride = 1;
    sc->phong = cst_Phong_table;
}

/*
 * One thread per pixel; threads past the last pixel write nothing.  The
 * launch bounds hold the kernel to the registers that let a block of 1024
 * threads launch on every architecture built (65536 / 1024 = 64 each);
 * a test reads the linker's resource report for the count and for spills.
 */
__global__ void __launch_bounds__(RAY_CUDA_MAX_BLOCK) Ray_Individual(int n, unsigned int* out, float* gli, unsigned char* tag, float* grad_a,
                               float* grad_x, float* grad_y, float* grad_z)
{
    int i = static_cast<int>(blockIdx.x * blockDim.x + threadIdx.x);
    if (i >= n) return;
    Ray_Scene sc;
    Ray_Device_Scene(&sc, gli, tag, grad_a, grad_x, grad_y, grad_z);
    out[i] = Ray_Device_Pixel(i, cst_box_dim[0], cst_box_dim[1], cst_transfo, sc, &Seed);
}

/* ---- host side ---- */

static double Ray_Now_Ms()
{
    using namespace std::chrono;
    return duration<double, std::milli>(steady_clock::now().time_since_epoch()).count();
}

int Ray_GPU_Start(unsigned short slot)
{
    Ray_Trace(RAY_TR_RENDER, ">>> in  Voxelune: Ray_GPU_Start(id=%d)", static_cast<int>(slot));
    const int s = slot & 31;
    double t0 = Ray_Now_Ms();

    RAY_CHECK(cudaMemcpyToSymbol(cst_Phong_table, Phong_table, sizeof(unsigned int) * RAY_PHONG_SIZE),
              "cudaMemcpyToSymbol[cst_Phong_table]");
    std::array<float, 16> m = Ray_Volume.transfo[s].to_float();
    RAY_CHECK(cudaMemcpyToSymbol(cst_transfo, m.data(), sizeof(float) * 16), "cudaMemcpyToSymbol[cst_transfo]");
    RAY_CHECK(cudaMemcpyToSymbol(cst_threshold, &Ray_Params.threshold, 4), "cudaMemcpyToSymbol[cst_threshold]");
    RAY_CHECK(cudaMemcpyToSymbol(cst_clip, &Ray_Volume.clip[s], 4), "cudaMemcpyToSymbol[cst_clip]");
    RAY_CHECK(cudaMemcpyToSymbol(cst_vol_flag, &Ray_Volume.vol_flag[s], 4), "cudaMemcpyToSymbol[cst_vol_flag]");

    /* A clip pair is uploaded only when its axis clips. */
    const unsigned int vf = Ray_Volume.vol_flag[s];
    int clip_box[6];
    Ray_Clip_Box(s, clip_box);
    if (vf & (RAY_VF_LOW_X | RAY_VF_HIGH_X))
        RAY_CHECK(cudaMemcpyToSymbol(cst_clip_x, clip_box, 8), "cudaMemcpyToSymbol[cst_clip_x]");
    if (vf & (RAY_VF_LOW_Y | RAY_VF_HIGH_Y))
        RAY_CHECK(cudaMemcpyToSymbol(cst_clip_y, clip_box + 2, 8), "cudaMemcpyToSymbol[cst_clip_y]");
    if (vf & (RAY_VF_LOW_Z | RAY_VF_HIGH_Z))
        RAY_CHECK(cudaMemcpyToSymbol(cst_clip_z, clip_box + 4, 8), "cudaMemcpyToSymbol[cst_clip_z]");

    RAY_CHECK(cudaMemcpyToSymbol(cst_col_mode, &Ray_Params.col_mode, 1), "cudaMemcpyToSymbol[cst_col_mode]");
    RAY_CHECK(cudaMemcpyToSymbol(cst_map_nb, &Ray_Params.map_nb, 1), "cudaMemcpyToSymbol[cst_map_nb]");
    RAY_CHECK(cudaMemcpyToSymbol(cst_map_col, Ray_Params.map_col, 256), "cudaMemcpyToSymbol[cst_map_col]");
    RAY_CHECK(cudaMemcpyToSymbol(cst_map_id, Ray_Params.map_id, 256), "cudaMemcpyToSymbol[cst_map_id]");
    RAY_CHECK(cudaMemcpyToSymbol(cst_tag_col, Ray_Params.tag_col, 1024), "cudaMemcpyToSymbol[cst_tag_col]");
    RAY_CHECK(cudaMemcpyToSymbol(cst_light_nb, &Ray_Params.light_nb, 2), "cudaMemcpyToSymbol[cst_light_nb]");
    RAY_CHECK(cudaMemcpyToSymbol(cst_light_status, Ray_Params.light_status, RAY_LIGHTS),
              "cudaMemcpyToSymbol[cst_light_status]");

    /* Light 0 has no direction; entries past the last light are not read. */
    float lx[RAY_LIGHTS] = {}, ly[RAY_LIGHTS] = {}, lz[RAY_LIGHTS] = {};
    int nb = Ray_Params.light_nb < RAY_LIGHTS ? Ray_Params.light_nb : RAY_LIGHTS;
    for (int k = 1; k < nb; k++) {
        lx[k] = Ray_Params.light_dir[k].x;
        ly[k] = Ray_Params.light_dir[k].y;
        lz[k] = Ray_Params.light_dir[k].z;
    }
    RAY_CHECK(cudaMemcpyToSymbol(cst_light_dir_x, lx, sizeof lx), "cudaMemcpyToSymbol[cst_light_dir_x]");
    RAY_CHECK(cudaMemcpyToSymbol(cst_light_dir_y, ly, sizeof ly), "cudaMemcpyToSymbol[cst_light_dir_y]");
    RAY_CHECK(cudaMemcpyToSymbol(cst_light_dir_z, lz, sizeof lz), "cudaMemcpyToSymbol[cst_light_dir_z]");
    RAY_CHECK(cudaMemcpyToSymbol(cst_light_color, Ray_Params.light_color, sizeof(unsigned int) * RAY_LIGHTS),
              "cudaMemcpyToSymbol[cst_light_color]");
    Ray_Cuda_Timing.upload_ms = Ray_Now_Ms() - t0;

    Ray_Cuda(slot);
    Ray_Trace(RAY_TR_RENDER, "<<< out Voxelune: Ray_GPU_Start(done)");
    return 1;
}

int Ray_Cuda(unsigned short slot)
{
    Ray_Trace(RAY_TR_RENDER, ">>> in   Voxelune: Ray_Cuda()");
    const int s = slot & 31;
    Boxs* box = Ray_Volume.box[s];
    const unsigned int block = Ray_Cuda_Block();
    if (!box || block == 0) {
        /* No box to draw into, or a block size the kernel cannot take: the box is left as it is. */
        Ray_Trace(RAY_TR_ERROR, "ERROR: Ray_Cuda(id=%d): %hs", s,
                  box ? "the CUDA block size must be 1 to 1024" : "the slot has no box");
        return 1;
    }
    double t0 = Ray_Now_Ms();

    unsigned int box_dim[2] = {static_cast<unsigned int>(box->width), static_cast<unsigned int>(box->height)};
    RAY_CHECK(cudaMemcpyToSymbol(cst_box_dim, box_dim, 8), "cudaMemcpyToSymbol[cst_box_dim]");
    unsigned int vol_dim[3] = {static_cast<unsigned int>(Ray_Volume.dim_x[s]),
                               static_cast<unsigned int>(Ray_Volume.dim_y[s]),
                               static_cast<unsigned int>(Ray_Volume.dim_z[s])};
    RAY_CHECK(cudaMemcpyToSymbol(cst_vol_dim, vol_dim, 12), "cudaMemcpyToSymbol[cst_vol_dim]");

    const int n = Ray_Mul32(box->width, box->height);
    const size_t bytes = static_cast<size_t>(static_cast<int64_t>(n) * 4);
    unsigned int* cuda_color = nullptr;
    RAY_CHECK(cudaMalloc(reinterpret_cast<void**>(&cuda_color), bytes), "cudaMalloc[cuda_color]");
    double t1 = Ray_Now_Ms();

    /* An empty box has no pixel to cast: a launch of no block would be refused. */
    if (n > 0) {
        const int grid = (n + static_cast<int>(block) - 1) / static_cast<int>(block);
        Ray_Cuda_Launch(
            [&] {
                Ray_Individual<<<dim3(static_cast<unsigned int>(grid), 1, 1), dim3(block, 1, 1)>>>(
                    n, cuda_color, Ray_Cuda_GLI[s], Ray_Cuda_TAG[s], Ray_Cuda_Grad_A[s], Ray_Cuda_Grad_X[s],
                    Ray_Cuda_Grad_Y[s], Ray_Cuda_Grad_Z[s]);
            },
            "cudaLaunchKernel[Ray_Individual]", RAY_CUDA_SRC, __LINE__);
        RAY_CHECK(cudaDeviceSynchronize(), "cudaDeviceSynchronize[Ray_Individual]");
    }
    double t2 = Ray_Now_Ms();

    RAY_CHECK(cudaMemcpy(box->Graph_Normal, cuda_color, bytes, cudaMemcpyDeviceToHost),
              "cudaMemcpy[box->Graph_Normal]");
    RAY_CHECK(cudaFree(cuda_color), "cudaFree[cuda_img]");
    double t3 = Ray_Now_Ms();

    Ray_Cuda_Timing.upload_ms += t1 - t0;
    Ray_Cuda_Timing.kernel_ms = t2 - t1;
    Ray_Cuda_Timing.copy_ms = t3 - t2;
    Ray_Trace(RAY_TR_RENDER, "<<< out Voxelune: Ray_Cuda(done)");
    return 1;
}
