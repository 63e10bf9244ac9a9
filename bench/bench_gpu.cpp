/*
 * GPU frames: 512 x 512 of a 256^3 phantom and 1024 x 1024 of a 512^3
 * phantom, with the time split into uploads, kernel and copy-back, and the
 * registration time (preprocessing and uploads) of each volume.  A volume
 * that does not go to the GPU, or a frame that differs from the host form
 * of the device pixel, is reported as an error.  Without a CUDA device
 * every benchmark reports an error and skips.
 */
#include <benchmark/benchmark.h>

#include <chrono>
#include <vector>

#include <voxelune/voxelune.h>

#include "core/ray_state.h"
#include "gpu/cuda_rt.h"
#include "gpu/ray_cuda.h"
#include "gpu/ray_cuda_timing.h"
#include "scene.h"

namespace {

bool have_device()
{
#if defined(VOXELUNE_WITH_CUDA)
    int count = 0;
    return cudaGetDeviceCount(&count) == cudaSuccess && count > 0;
#else
    return false;
#endif
}

struct Volume {
    Scene_Phantom p;
    int size = 0;
};

Volume& volume(int size)
{
    static Volume v256, v512;
    Volume& v = size == 256 ? v256 : v512;
    if (v.size != size) {
        Scene_Sphere(v.p, size, size, size);
        v.size = size;
    }
    return v;
}

void setup_params()
{
    unsigned short c16[3] = {0, 255, 60}, c8[3] = {0, 80, 255}, c0[3] = {0, 80, 60};
    Ray_Set_Color_TAG(3, c16, c8, c0);
    unsigned char l0[] = {1}, l1[] = {2}, count[] = {1, 1}, col[] = {1, 2};
    unsigned char* list[] = {l0, l1};
    Ray_Set_Color_Map(2, count, list, col);
    Ray_Set_Color_Scheme(1);
    Ray_Set_Threshold(0.5f);
    Vector_4 d0(0, 0, 1, 0), d1(0.3f, -0.2f, 1, 0), d2(-0.5f, 0.4f, 1, 0);
    Ray_Set_Light(0, 1, 0x404040, &d0);
    Ray_Set_Light(1, 1, 0xFFFFFF, &d1);
    Ray_Set_Light(2, 1, 0x8080FF, &d2);
    Ray_Set_Rotation(20, 30, 0);
    Ray_Set_Clip(0.0f);
}

void BM_GpuRegistration(benchmark::State& state)
{
    if (!have_device()) {
        state.SkipWithError("no CUDA device");
        return;
    }
    int size = static_cast<int>(state.range(0));
    Volume& v = volume(size);
    Corekit_Set_Cuda_Permission(1);
    for (auto _ : state) {
        Ray_Set_Volume(1, size, size, size, v.p.gli.data(), v.p.tag.data());
        if (Ray_Volume.use_cuda[1] != 1) state.SkipWithError("the volume did not go to the GPU");
    }
    Ray_Set_Volume(1, 0, 0, 0, nullptr, nullptr);
    state.counters["Mvoxel/s"] = benchmark::Counter(double(size) * size * size * state.iterations() / 1e6,
                                                    benchmark::Counter::kIsRate);
}
BENCHMARK(BM_GpuRegistration)->Arg(256)->Arg(512)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_GpuFrame(benchmark::State& state)
{
    if (!have_device()) {
        state.SkipWithError("no CUDA device");
        return;
    }
    int size = static_cast<int>(state.range(0)), px = static_cast<int>(state.range(1));
    Volume& v = volume(size);
    Ray_Init(1);
    Corekit_Set_Cuda_Permission(1);
    Ray_Set_Volume(1, size, size, size, v.p.gli.data(), v.p.tag.data());
    setup_params();
    Boxs box(px, px);
    double up = 0, kern = 0, copy = 0;
    for (auto _ : state) {
        if (Ray_Volume.use_cuda[1] != 1) {
            state.SkipWithError("the volume did not go to the GPU");
            break;
        }
        Ray_Start(&box, 1);
        up += Ray_Cuda_Timing.upload_ms;
        kern += Ray_Cuda_Timing.kernel_ms;
        copy += Ray_Cuda_Timing.copy_ms;
    }
    double it = double(state.iterations());
    state.counters["fps"] = benchmark::Counter(it, benchmark::Counter::kIsRate);
    state.counters["upload_ms"] = up / it;
    state.counters["kernel_ms"] = kern / it;
    state.counters["copy_ms"] = copy / it;
    if (Ray_Volume.use_cuda[1] == 1) {
        /* The last frame against the host form of the device pixel, word for word. */
        std::vector<unsigned int> want(static_cast<size_t>(px) * px);
        Ray_Device_Frame_Host(1, px, px, nullptr, want.data());
        size_t differ = 0;
        for (size_t i = 0; i < want.size(); i++) differ += box.Graph_Normal[i] != want[i];
        state.counters["differ"] = static_cast<double>(differ);
        if (differ) state.SkipWithError("the frame differs from the host form of the device pixel");
    }
    Ray_Set_Volume(1, 0, 0, 0, nullptr, nullptr);
    Ray_Exit();
}
BENCHMARK(BM_GpuFrame)->Args({256, 512})->Args({512, 1024})->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
