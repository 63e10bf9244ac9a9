/*
 * bench_pixel.cpp - single-thread cost of the CPU renderer's pixel: a
 * 512 x 512 frame of a 256^3 smooth phantom (a sphere with two tag
 * regions and noise), colour mode 1, ambient plus two directional lights,
 * run flag set.
 *
 *   BM_Ray_Pixel_Frame     the frame through Ray_Pixel, as a ray worker
 *                          casts it: render layout, run flag read without
 *                          the lock (no trace sink listens)
 *   BM_Ray_Packet_Frame    the frame in the pipeline's batches of pixels
 *                          walked side by side, by the AVX2 build (/1,
 *                          eight lanes) and the AVX-512 build (/2,
 *                          sixteen) where the processor runs them
 *   BM_Plain_Locked_Frame  the same rays through the plain walk over the
 *                          five separate volumes, the run flag read under
 *                          the lock at every step: the figure before the
 *                          fast walk
 *
 * Reported per CPU second of the one thread: rays/s, frames/s, samples/s
 * and s/sample.  The samples of a frame are counted once beforehand by
 * casting its rays with a stop policy that counts the steps (the library
 * itself counts nothing).
 */
#include <benchmark/benchmark.h>

#include <cstdint>

#include "core/ray_core.h"
#include "core/ray_state.h"
#include "cpu/ray_packet.h"
#include "cpu/ray_pixel.h"
#include "scene.h"

namespace {

const int k_slot = 1;
const int k_dim = 256;
const int k_w = 512, k_h = 512;

/* Stop policy that counts the steps that go on to a sample and never stops. */
struct Step_Count {
    uint64_t steps = 0;
    bool operator()()
    {
        ++steps;
        return true;
    }
};

/*
 * Casts every ray of the frame through the plain core with the stop policy
 * run: the rays of Ray_Pixel, with the two draws of Fct_Random_Float when
 * jitter is set, else with draws of 0.  Returns the sum of the pixel words.
 */
template <class Run>
uint64_t plain_frame(Run& run, bool jitter)
{
    Ray_View view;
    Ray_View_Of(k_slot, k_w, k_h, &view);
    Ray_Scene sc;
    Ray_Scene_Of(&sc, k_slot, view.clip_box, Ray_Params.threshold, Ray_Volume.clip[k_slot]);
    uint64_t sum = 0;
    for (int j = 0; j < k_h; j++)
        for (int i = 0; i < k_w; i++) {
            float r1 = jitter ? Fct_Random_Float() : 0.0f;
            float r2 = jitter ? Fct_Random_Float() : 0.0f;
            float eye[3], d[3], inv;
            Ray_Pixel_Ray(view.m, i, j, k_w, k_h, r1, r2, eye, d, &inv);
            const float dir[3] = {d[0] * inv, d[1] * inv, d[2] * inv};
            sum += Ray_Cast<RAY_CPU>(eye, dir, sc, run);
        }
    return sum;
}

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
        Critical_Ray_Create();
        Ray_Thread_Run = 1;
        /*
         * With no clip box and the depth clip nearer than the volume, every
         * step past the index test is a sample; the jitter of a frame moves
         * the count by a few in a million.
         */
        Step_Count count;
        plain_frame(count, false);
        samples = count.steps;
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
    state.counters["frames/s"] = benchmark::Counter(frames, benchmark::Counter::kIsRate);
    state.counters["rays/s"] = benchmark::Counter(frames * k_w * k_h, benchmark::Counter::kIsRate);
    state.counters["samples/s"] =
        benchmark::Counter(frames * static_cast<double>(samples), benchmark::Counter::kIsRate);
    /* Seconds per sample, shown with an SI prefix ("45n" is 45 ns). */
    state.counters["s/sample"] = benchmark::Counter(frames * static_cast<double>(samples),
                                                    benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["samples/frame"] = static_cast<double>(samples);
}

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

/* The frame in the pipeline's batches: RAY_BATCH pixels of a row at a time (rays walked side by side). */
void BM_Ray_Packet_Frame(benchmark::State& state)
{
    Frame_Setup& f = frame();
    Ray_View view;
    Ray_View_Of(k_slot, k_w, k_h, &view);
    int kind = static_cast<int>(state.range(0));
    Ray_Packet_Walk_Fn own = kind == RAY_PACKET_AVX2 ? &Ray_Packet_Walk_Avx2 : &Ray_Packet_Walk_Avx512;
    if (Ray_Packet_Walk_For(kind) != own) state.SkipWithError("this processor has not that build's instruction set");
    Ray_Packet_Widest = kind;
    uint64_t sum = 0;
    for (auto _ : state) {
        for (int j = 0; j < k_h; j++)
            for (int i = 0; i < k_w; i += RAY_BATCH) {
                int is[RAY_BATCH], js[RAY_BATCH];
                unsigned int word[RAY_BATCH];
                for (int k = 0; k < RAY_BATCH; k++) is[k] = i + k, js[k] = j;
                Ray_Pixels_View(k_slot, view, RAY_BATCH, is, js, word);
                for (int k = 0; k < RAY_BATCH; k++) sum += word[k];
            }
    }
    Ray_Packet_Widest = RAY_PACKET_AVX512;
    benchmark::DoNotOptimize(sum);
    report(state, f.samples);
}
BENCHMARK(BM_Ray_Packet_Frame)->Arg(RAY_PACKET_AVX2)->Arg(RAY_PACKET_AVX512)->Unit(benchmark::kMillisecond);

void BM_Plain_Locked_Frame(benchmark::State& state)
{
    Frame_Setup& f = frame();
    /* The run flag under the library lock at every step, as the walk took it before. */
    Ray_Run_Locked run;
    uint64_t sum = 0;
    for (auto _ : state) sum += plain_frame(run, true);
    benchmark::DoNotOptimize(sum);
    report(state, f.samples);
}
BENCHMARK(BM_Plain_Locked_Frame)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
