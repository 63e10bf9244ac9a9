/*
 * bench_pixel.cpp - single-thread cost of Ray_Pixel, the CPU renderer's
 * per-pixel function: a 512 x 512 frame of a 256^3 smooth phantom (a
 * sphere with two tag regions and noise), colour mode 1, ambient plus two
 * directional lights, run flag set and read under the lock at every step.
 *
 * Reported: rays/s, and samples/s and s/sample from a sample count taken
 * once beforehand by an instrumented walk of the same rays (the library
 * itself counts nothing).  Rates are per CPU second of the one thread.
 */
#include <benchmark/benchmark.h>

#include <cstdint>

#include "core/ray_core.h"
#include "cpu/ray_pixel.h"
#include "core/ray_state.h"
#include "scene.h"

namespace {

const int k_slot = 1;
const int k_dim = 256;
const int k_w = 512, k_h = 512;

/* Stop policy of the instrumented walk: counts the steps that go on to a sample. */
struct Step_Count {
    uint64_t* steps;
    bool operator()() const
    {
        ++*steps;
        return true;
    }
};

struct Frame_Setup {
    Scene_Phantom phantom;
    uint64_t samples = 0;
    unsigned int phong[RAY_PHONG_SIZE];

    Frame_Setup()
    {
        Scene_Sphere(phantom, k_dim, k_dim, k_dim);
        Scene_Install(k_slot, phantom);
        Scene_Bind(k_slot, k_w, k_h, Matrix_4x4());
        Scene_Params();
        Ray_Phong_Build(phong);
        Phong_table = phong;
        Ray_Thread_Run = 1;
        samples = count_samples();
    }

    /*
     * Samples of one frame: the same set-up as Ray_Pixel with draws of 0,
     * then the walk with a counting stop policy.  With no clip box and the
     * depth clip nearer than the volume, every step past the index test
     * is a sample.
     */
    uint64_t count_samples() const
    {
        uint64_t steps = 0;
        std::array<float, 16> m = Ray_Volume.transfo[k_slot].to_float();
        const float low[3] = {0, 0, 0}, high[3] = {k_dim, k_dim, k_dim};
        Ray_Scene sc;
        Ray_Scene_Slot(&sc, k_slot, Ray_Params.threshold, Ray_Volume.clip[k_slot]);
        Step_Count run{&steps};
        for (int j = 0; j < k_h; j++)
            for (int i = 0; i < k_w; i++) {
                float eye[3], d[3], inv;
                Ray_Pixel_Ray(m.data(), i, j, k_w, k_h, 0.0f, 0.0f, eye, d, &inv);
                float dir[3] = {d[0] * inv, d[1] * inv, d[2] * inv};
                float pos[3] = {eye[0], eye[1], eye[2]};
                float entry = Ray_DDDA_Origin<RAY_CPU>(pos, dir, low, high);
                if (entry >= RAY_MISS) continue;
                Rays r = {};
                Ray_DDDA_Param<RAY_CPU>(&r, pos, dir, low, high);
                r.entry = entry;
                for (int a = 0; a < 3; a++) {
                    r.org[a] = eye[a];
                    r.dir[a] = dir[a];
                }
                Ray_DDDA_Walk<RAY_CPU>(&r, sc, run);
            }
        return steps;
    }
};

Frame_Setup& frame()
{
    static Frame_Setup f;
    return f;
}

void report(benchmark::State& state, uint64_t samples)
{
    double frames = static_cast<double>(state.iterations());
    state.counters["rays/s"] = benchmark::Counter(frames * k_w * k_h, benchmark::Counter::kIsRate);
    state.counters["samples/s"] =
        benchmark::Counter(frames * static_cast<double>(samples), benchmark::Counter::kIsRate);
    /* Seconds per sample, shown with an SI prefix ("45n" is 45 ns). */
    state.counters["s/sample"] = benchmark::Counter(frames * static_cast<double>(samples),
                                                    benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["samples/frame"] = static_cast<double>(samples);
}

/* The whole frame through Ray_Pixel, as a ray worker casts it. */
void BM_Ray_Pixel_Frame(benchmark::State& state)
{
    Frame_Setup& f = frame();
    uint64_t sum = 0;
    for (auto _ : state) {
        for (int j = 0; j < k_h; j++)
            for (int i = 0; i < k_w; i++) sum += Ray_Pixel(k_slot, i, j, k_w, k_h);
    }
    benchmark::DoNotOptimize(sum);
    report(state, f.samples);
}
BENCHMARK(BM_Ray_Pixel_Frame)->Unit(benchmark::kMillisecond);

/* The plain walk (five separate volumes, the run flag under the lock at every step), as before. */
void BM_Plain_Locked_Frame(benchmark::State& state)
{
    Frame_Setup& f = frame();
    std::array<float, 16> m = Ray_Volume.transfo[k_slot].to_float();
    Ray_Scene sc;
    Ray_Scene_Slot(&sc, k_slot, Ray_Params.threshold, Ray_Volume.clip[k_slot]);
    struct Locked {
        bool operator()() const
        {
            Critical_Ray_In("DDDA_Volume");
            int run = Ray_Thread_Run.load();
            Critical_Ray_Out("DDDA_Volume");
            return run != 0;
        }
    } run;
    uint64_t sum = 0;
    for (auto _ : state) {
        for (int j = 0; j < k_h; j++)
            for (int i = 0; i < k_w; i++) {
                float eye[3], d[3], inv;
                Ray_Pixel_Ray(m.data(), i, j, k_w, k_h, Fct_Random_Float(), Fct_Random_Float(), eye, d, &inv);
                float dir[3] = {d[0] * inv, d[1] * inv, d[2] * inv};
                sum += Ray_Cast<RAY_CPU>(eye, dir, sc, run);
            }
    }
    benchmark::DoNotOptimize(sum);
    report(state, f.samples);
}
BENCHMARK(BM_Plain_Locked_Frame)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
