/*
 * bench_pipeline.cpp - the CPU pipeline on whole frames, as a host drives
 * it: Ray_Init with 1 or 2 workers, Ray_Set_Volume of a 256^3 phantom
 * (smoothing, gradients and the render layout), then Ray_Start of a
 * 512 x 512 box again and again.
 *
 *   BM_Frame/n        wall time from Ray_Start to the box's last redraw
 *                     (one per refinement level), with n workers; the
 *                     counters give frames/s and first_redraw_ms, the time
 *                     from Ray_Start to the first redraw
 *   BM_Run_Flag_Lock  one enter and leave of the library lock as the walk
 *                     takes it while a trace sink listens, nobody else
 *                     wanting it
 *
 * The single-thread cost of the pixel itself is bench_pixel's.  For steady
 * figures give the frames a few seconds: --benchmark_min_time=3.
 */
#include <benchmark/benchmark.h>
#include <voxelune/voxelune.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "cpu/ray_dispatch_state.h"
#include "scene.h"

namespace {

using Clock = std::chrono::steady_clock;

const int kW = 512, kH = 512, kSlot = 1, kDim = 256;

Scene_Phantom& phantom()
{
    static Scene_Phantom p;
    if (p.gli.empty()) Scene_Sphere(p, kDim, kDim, kDim);
    return p;
}

/* A box that notes the time of each redraw of the current frame. */
struct Frame_Box {
    Boxs box{kW, kH};
    std::mutex m;
    std::condition_variable cv;
    int draws = 0;
    Clock::time_point first, last;
    Frame_Box()
    {
        box.draw_context = this;
        box.draw_handler = [](Boxs*, void* c) {
            Frame_Box* self = static_cast<Frame_Box*>(c);
            std::lock_guard<std::mutex> g(self->m);
            self->last = Clock::now();
            if (self->draws++ == 0) self->first = self->last;
            self->cv.notify_all();
        };
    }
    /* Starts a frame of slot and waits for its n redraws; false after 60 s without them. */
    bool frame(int n, Clock::time_point* t0)
    {
        std::unique_lock<std::mutex> g(m);
        draws = 0;
        g.unlock();
        *t0 = Clock::now();
        Ray_Start(&box, kSlot);
        g.lock();
        return cv.wait_for(g, std::chrono::seconds(60), [&] { return draws >= n; });
    }
};

void BM_Frame(benchmark::State& state)
{
    Scene_Phantom& p = phantom();
    Ray_Init(static_cast<unsigned short>(state.range(0)));
    Ray_Set_Volume(kSlot, kDim, kDim, kDim, p.gli.data(), p.tag.data());
    Scene_Params();
    Ray_Set_Rotation(25.0f, 40.0f, 0.0f);
    Frame_Box fb;
    const int levels = Ray_Layout_Levels(kW * kH);
    double first_total = 0, frame_total = 0;
    for (auto _ : state) {
        Clock::time_point t0;
        if (!fb.frame(levels, &t0)) {
            state.SkipWithError("the frame did not complete in 60 s");
            break;
        }
        double seconds = std::chrono::duration<double>(fb.last - t0).count();
        state.SetIterationTime(seconds);
        frame_total += seconds;
        first_total += std::chrono::duration<double>(fb.first - t0).count();
    }
    double frames = static_cast<double>(state.iterations());
    /* By hand: a rate counter would divide by this thread's CPU time, spent waiting. */
    state.counters["frames/s"] = frame_total > 0 ? frames / frame_total : 0.0;
    state.counters["first_redraw_ms"] = frames > 0 ? 1e3 * first_total / frames : 0.0;
    Ray_Stop(0);
    Ray_Exit();
}
BENCHMARK(BM_Frame)->Arg(1)->Arg(2)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_Run_Flag_Lock(benchmark::State& state)
{
    Critical_Ray_Create();
    for (auto _ : state) {
        Critical_Ray_In("DDDA_Volume");
        benchmark::DoNotOptimize(Ray_Thread_Run);
        Critical_Ray_Out("DDDA_Volume");
    }
}
BENCHMARK(BM_Run_Flag_Lock);

} // namespace

BENCHMARK_MAIN();
