/*
 * ray_cuda_host.cpp - the GPU frame on the host: the same pixels computed
 * by the CPU (for the tests and the benchmark that check a device's
 * frames), and the frame's entry points in a build without CUDA.
 */
#include <array>
#include <vector>

#include "core/ray_device_pixel.h"
#include "core/ray_scene.h"
#include "core/ray_state.h"
#include "ray_cuda.h"
#include "ray_cuda_check.h"

void Ray_Device_Frame_Host(int s, int w, int h, float* const* grad, unsigned int* out)
{
    std::vector<float> copy[4];
    float* from_device[4];
    if (!grad) {
        float* device[4] = {Ray_Cuda_Grad_A[s], Ray_Cuda_Grad_X[s], Ray_Cuda_Grad_Y[s], Ray_Cuda_Grad_Z[s]};
        size_t n = static_cast<size_t>(Ray_Mul32(Ray_Mul32(Ray_Volume.dim_x[s], Ray_Volume.dim_y[s]), Ray_Volume.dim_z[s]));
        for (int k = 0; k < 4; k++) {
            copy[k].resize(n);
            from_device[k] = copy[k].data();
            Ray_Cuda_Check(cudaMemcpy(from_device[k], device[k], n * 4, cudaMemcpyDeviceToHost),
                           "cudaMemcpy[Ray_Cuda_Grad]", "ray_cuda", __LINE__);
        }
        grad = from_device;
    }
    Ray_Scene sc;
    Ray_Scene_Slot(&sc, s, Ray_Params.threshold, Ray_Volume.clip[s]);
    int box[6];
    Ray_Clip_Box(s, box);
    for (int a = 0; a < 3; a++) {
        sc.clip_lo[a] = box[2 * a];
        sc.clip_hi[a] = box[2 * a + 1];
    }
    sc.grad_a = grad[0];
    sc.grad_x = grad[1];
    sc.grad_y = grad[2];
    sc.grad_z = grad[3];
    std::array<float, 16> m = Ray_Volume.transfo[s].to_float();
    unsigned int state = 0;
    for (int i = 0; i < w * h; i++)
        out[i] = Ray_Device_Pixel(i, static_cast<unsigned int>(w), static_cast<unsigned int>(h), m.data(), sc, &state);
}

#if !defined(VOXELUNE_WITH_CUDA)
/*
 * Without the device code no slot can be drawn on the GPU: registration
 * sees no free device memory and sends every volume to the CPU.  These
 * entry points exist so that the frame request links; they do nothing.
 */
int Ray_GPU_Start(unsigned short) { return 1; }

int Ray_Cuda(unsigned short) { return 1; }
#endif
