/*
 * The CPU pipeline on a whole 512 x 512 frame of a 256^3 phantom: frame
 * time and time to the first redraw with 1 and 2 workers, the same rays
 * cast in a plain loop on one thread (the pipeline's overhead is the
 * difference to one worker), and the cost of the run-flag lock that the
 * voxel walk takes at every step.
 */
#include <benchmark/benchmark.h>
#include <voxelune/voxelune.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>

#include "cpu/ray_pixel.h"
#include "cpu/ray_dispatch_state.h"
#include "scene.h"

namespace {

const int kW = 512, kH = 512, kSlot = 1;

Scene_Phantom& phantom()
{
    static Scene_Phantom p;
    if (p.gli.empty()) Scene_Sphere(p, 256, 256, 256);
    return p;
}

struct Frame_Box {
    Boxs box{kW, kH};
    std::mutex m;
    std::condition_variable cv;
    int draws = 0;
    std::chrono::steady_clock::time_point first;
    Frame_Box()
    {
        box.draw_context = this;
        box.draw_handler = [](Boxs*, void* c) {
            Frame_Box* self = static_cast<Frame_Box*>(c);
            std::lock_guard<std::mutex> g(self->m);
            if (self->draws++ == 0) self->first = std::chrono::steady_clock::now();
            self->cv.notify_all();
        };
    }
};

/* Starts the library with n workers and the phantom in kSlot. */
void start(int workers)
{
    Ray_Init(static_cast<unsigned short>(workers));
    Scene_Install(kSlot, phantom());
    Scene_Params();
    Ray_Set_Rotation(25.0f, 40.0f, 0.0f);
}

void stop()
{
    Ray_Stop(0);
    Scene_Uninstall(kSlot);
    Ray_Exit();
}

/* One whole frame through the pipeline; counters: time to the first redraw. */
void BM_Frame(benchmark::State& state)
{
    start(static_cast<int>(state.range(0)));
    Frame_Box fb;
    int levels = Ray_Layout_Levels(kW * kH);
    double first_total = 0;
    for (auto _ : state) {
        {
            std::lock_guard<std::mutex> g(fb.m);
            fb.draws = 0;
        }
        auto t0 = std::chrono::steady_clock::now();
        Ray_Start(&fb.box, kSlot);
        std::unique_lock<std::mutex> g(fb.m);
        fb.cv.wait(g, [&] { return fb.draws >= levels; });
        auto t1 = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(t1 - t0).count());
        first_total += std::chrono::duration<double>(fb.first - t0).count();
    }
    state.counters["first_draw_ms"] = 1e3 * first_total / static_cast<double>(state.iterations());
    stop();
}
BENCHMARK(BM_Frame)->Arg(1)->Arg(2)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(3.0);

/* The same rays in a plain loop on this thread, every step still taking the lock. */
void BM_Plain_Loop(benchmark::State& state)
{
    start(1);
    Frame_Box fb;
    Ray_Start(&fb.box, kSlot);   /* binds the slot and sets the run flag */
    while (true) {
        std::lock_guard<std::mutex> g(fb.m);
        if (fb.draws >= Ray_Layout_Levels(kW * kH)) break;
    }
    for (auto _ : state)
        for (int y = 0; y < kH; y++)
            for (int x = 0; x < kW; x++) benchmark::DoNotOptimize(Ray_Pixel(kSlot, x, y, kW, kH));
    stop();
}
BENCHMARK(BM_Plain_Loop)->Unit(benchmark::kMillisecond)->MinTime(3.0);

/* One enter and leave of the lock as the walk does it, nobody else wanting it. */
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

/* How many voxel steps one frame takes: the walk's lock lines, counted once. */
std::atomic<long> step_lines{0};
void count_steps(unsigned int flags, const char* line, void*)
{
    if (flags == RAY_TR_LOCK && std::strstr(line, "DDDA_Volume")) step_lines++;
}

void BM_Frame_Steps(benchmark::State& state)
{
    start(1);
    Frame_Box fb;
    Ray_Start(&fb.box, kSlot);
    while (true) {
        std::lock_guard<std::mutex> g(fb.m);
        if (fb.draws >= Ray_Layout_Levels(kW * kH)) break;
    }
    for (auto _ : state) {
        step_lines = 0;
        Corekit_Set_Trace_Sink(&count_steps, nullptr);
        for (int y = 0; y < kH; y++)
            for (int x = 0; x < kW; x++) benchmark::DoNotOptimize(Ray_Pixel(kSlot, x, y, kW, kH));
        Corekit_Set_Trace_Sink(nullptr, nullptr);
    }
    state.counters["steps"] = static_cast<double>(step_lines.load() / 2);
    stop();
}
BENCHMARK(BM_Frame_Steps)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
