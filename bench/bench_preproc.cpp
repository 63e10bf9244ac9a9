/*
 * bench_preproc.cpp - smoothing and gradients of a 256^3 volume on the
 * CPU path (threads, vectorised rows), beside the plain per-voxel loop on
 * one thread.  The counter "identical" is 1 when the fast results equal
 * the plain loop's bit for bit.
 */
#include <benchmark/benchmark.h>

#include <corekit/corekit.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "cpu/ray_preproc_cpu.h"
#include "gpu/ray_gradient.h"
#include "gpu/ray_gradient_int.h"

namespace {

const int k_dim = 256;
const int k_n = k_dim * k_dim * k_dim;

/* A smooth blob plus noise: a volume with structure, like a scan. */
const std::vector<float>& Volume()
{
    static std::vector<float> v;
    if (v.empty()) {
        v.resize(k_n);
        std::mt19937 gen(42);
        std::uniform_real_distribution<float> noise(-8.0f, 8.0f);
        for (int z = 0; z < k_dim; z++)
            for (int y = 0; y < k_dim; y++)
                for (int x = 0; x < k_dim; x++) {
                    float dx = x - 128.0f, dy = y - 110.0f, dz = z - 140.0f;
                    float r = std::sqrt(dx * dx + dy * dy + dz * dz);
                    v[(z * k_dim + y) * k_dim + x] = (r < 90.0f ? 200.0f : 20.0f) + noise(gen);
                }
    }
    return v;
}

void Set_Counters(benchmark::State& state, double voxels_per_iter)
{
    state.counters["Mvoxel/s"] = benchmark::Counter(
        voxels_per_iter * static_cast<double>(state.iterations()) / 1e6, benchmark::Counter::kIsRate);
}

bool Same(const float* a, const float* b)
{
    return std::memcmp(a, b, sizeof(float) * static_cast<size_t>(k_n)) == 0;
}

/* Filter then gradient through the library's operations (CPU path). */
void BM_FilterGradient_Cpu(benchmark::State& state)
{
    Corekit_Set_Cuda_Permission(0);
    std::vector<float> in = Volume();
    float* mean = nullptr;
    float** grad = nullptr;
    for (auto _ : state) {
        Ray_Vol_Release(mean);
        Ray_Grad_Release(grad);
        mean = Ray_Vol_Filter(k_dim, k_dim, k_dim, in.data());
        grad = Ray_Vol_Gradient(k_dim, k_dim, k_dim, mean);
        benchmark::DoNotOptimize(grad);
    }
    Set_Counters(state, k_n);

    /* The same through the plain loop, once, for the bit comparison. */
    std::vector<float> ref(k_n);
    Ray_Vol_Filter_Scalar(Ray_Filter_Kern, k_dim, k_dim, k_dim, in.data(), ref.data());
    std::vector<float> ga(k_n), gx(k_n), gy(k_n), gz(k_n);
    float* gref[4] = {ga.data(), gx.data(), gy.data(), gz.data()};
    Ray_Vol_Gradient_Scalar(k_dim, k_dim, k_dim, ref.data(), gref);
    bool same = Same(mean, ref.data());
    for (int k = 0; k < 4; k++) same = same && Same(grad[k], gref[k]);
    state.counters["identical"] = same ? 1 : 0;
    state.counters["threads"] = Ray_Prep_Threads(k_n, k_dim);
    Ray_Vol_Release(mean);
    Ray_Grad_Release(grad);
}
BENCHMARK(BM_FilterGradient_Cpu)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Filter_Cpu(benchmark::State& state)
{
    Corekit_Set_Cuda_Permission(0);
    std::vector<float> in = Volume();
    for (auto _ : state) {
        float* mean = Ray_Vol_Filter(k_dim, k_dim, k_dim, in.data());
        benchmark::DoNotOptimize(mean);
        Ray_Vol_Release(mean);
    }
    Set_Counters(state, k_n);
}
BENCHMARK(BM_Filter_Cpu)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Gradient_Cpu(benchmark::State& state)
{
    Corekit_Set_Cuda_Permission(0);
    std::vector<float> in = Volume();
    for (auto _ : state) {
        float** grad = Ray_Vol_Gradient(k_dim, k_dim, k_dim, in.data());
        benchmark::DoNotOptimize(grad);
        Ray_Grad_Release(grad);
    }
    Set_Counters(state, k_n);
}
BENCHMARK(BM_Gradient_Cpu)->Unit(benchmark::kMillisecond)->UseRealTime();

/* The plain per-voxel loops, one thread, into buffers already touched. */
void BM_Filter_Scalar(benchmark::State& state)
{
    Ray_Filter_Kern_Build();
    std::vector<float> in = Volume();
    std::vector<float> out(k_n);
    for (auto _ : state) {
        Ray_Vol_Filter_Scalar(Ray_Filter_Kern, k_dim, k_dim, k_dim, in.data(), out.data());
        benchmark::DoNotOptimize(out.data());
    }
    Set_Counters(state, k_n);
}
BENCHMARK(BM_Filter_Scalar)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

void BM_Gradient_Scalar(benchmark::State& state)
{
    std::vector<float> in = Volume();
    std::vector<float> ga(k_n), gx(k_n), gy(k_n), gz(k_n);
    float* grad[4] = {ga.data(), gx.data(), gy.data(), gz.data()};
    for (auto _ : state) {
        Ray_Vol_Gradient_Scalar(k_dim, k_dim, k_dim, in.data(), grad);
        benchmark::DoNotOptimize(grad[0]);
    }
    Set_Counters(state, k_n);
}
BENCHMARK(BM_Gradient_Scalar)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
