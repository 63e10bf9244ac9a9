/* Starting and stopping the library, and frames asked for through the exports. */
#include <gtest/gtest.h>
#include <voxelune/voxelune.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <set>

#include "cpu/ray_dispatch.h"
#include "cpu/ray_dispatch_state.h"
#include "scene.h"
#include "support.h"

namespace {

/* A phantom registered in slot (the library's own gradients and layout), deterministic rays. */
std::unique_ptr<Scene_Phantom> register_phantom(int slot, int dim)
{
    std::unique_ptr<Scene_Phantom> p(new Scene_Phantom);
    Scene_Sphere(*p, dim, dim, dim);
    Ray_Set_Volume(static_cast<unsigned short>(slot), dim, dim, dim, p->gli.data(), p->tag.data());
    Scene_Params();
    Corekit_Set_Random([] { return 0.0f; });
    return p;
}

/* The frame in the box equals Ray_Pixel at every pixel, and shows a shaded picture. */
void expect_frame(int s, Boxs& box)
{
    int bad = 0;
    std::set<unsigned> values;
    for (int y = 0; y < box.height; y++)
        for (int x = 0; x < box.width; x++) {
            unsigned v = box.Graph_Normal[y * box.width + x];
            bad += v != Ray_Pixel(s, x, y, box.width, box.height);
            values.insert(v);
        }
    EXPECT_EQ(bad, 0);
    EXPECT_GT(values.size(), 50u);
}

/* The real ray, watched: casts, rays in flight, rays seen while the test says the slot is stopped; slowed
 * by slow_us, the next long_rays by 150 ms. */
std::atomic<int> casts{0}, flying{0}, late{0}, slow_us{0}, long_rays{0};
std::atomic<bool> stopped{false};

unsigned watched_pixel(int s, const Ray_View& view, int i, int j)
{
    casts++, flying++;
    late += stopped.load();
    std::this_thread::sleep_for(std::chrono::microseconds(long_rays-- > 0 ? 150000 : slow_us.load()));
    unsigned v = Ray_Pixel_View(s, view, i, j);
    late += stopped.load();
    flying--;
    return v;
}

/* True when the pipeline's failure lines name source lines holding call, and there is one at least. */
bool lines_name(const Trace_Capture& trace, const std::string& call)
{
    std::string path = __FILE__;
    std::ifstream src(path.substr(0, path.rfind("/tests/")) + "/cpu/ray_dispatch.cpp");
    std::vector<std::string> code(1);
    for (std::string l; std::getline(src, l);) code.push_back(l);
    int named = 0;
    for (const std::string& t : trace.texts()) {
        int n = 0;
        if (sscanf(t.c_str(), "file:ray_dispatch line:%d", &n) != 1 &&
            (t.find(" of ray_dispatch") == std::string::npos || sscanf(t.c_str(), "line %d", &n) != 1))
            continue;
        named++;
        std::string line = n > 0 && n < static_cast<int>(code.size()) ? code[n] : "";
        if (line.find(call) == std::string::npos) return ADD_FAILURE() << "\"" << t << "\" names: " << line, false;
    }
    return named > 0;
}

/* The library started with two workers that cast the watched ray. */
class Requests : public ::testing::Test {
protected:
    void SetUp() override { Ray_Init(2), Ray_Dispatch_Pixel = &watched_pixel; }
    void TearDown() override { Ray_Exit(), Ray_Dispatch_Pixel = &Ray_Pixel_View; }
};

}  // namespace

/* Cycles of start, a frame (or an exit right after the request), exit: the clamped worker count, 2 + n
 * threads and 2n + 4 descriptors, the Phong table, nothing left behind; the slots' volumes released, their
 * binding kept.  An early Ray_Exit and a second Ray_Init write their entry line only. */
TEST(Lifecycle, CyclesCountThreadsAndLeaveNothing)
{
    int tasks0 = count_tasks(), fds0 = count_dir("/proc/self/fd");
    const unsigned short asked[] = {0, 1, 64, 1000, 2, 3};
    const int got[] = {1, 1, 64, 64, 2, 3};
    for (int k = 0; k < 12; k++) {
        Trace_Capture trace(false);
        Ray_Exit();
        Ray_Init(asked[k % 6]);
        Ray_Init(2);
        int n = got[k % 6];
        ASSERT_EQ(Ray_Thread_Nb, n);
        EXPECT_TRUE(tasks0 < 0 ||   /* Linux only: /proc */
                    (count_dir("/proc/self/task") == tasks0 + 2 + n && count_dir("/proc/self/fd") == fds0 + 4 + 2 * n));
        EXPECT_EQ((std::vector<size_t>{trace.count("Voxelune: Ray_Exit("), trace.count(">>> in  Voxelune: Ray_Init()"),
                                       trace.count("<<< out Voxelune: Ray_Init(done)")}), (std::vector<size_t>{1, 2, 1}));
        EXPECT_TRUE(trace.has("[00] Success starting ray-tracing thread") && trace.has("[63] Starting ray-tracing thread") == (n == 64));
        EXPECT_EQ(Ray_CPU_Init(2), 0);   /* already running */
        EXPECT_TRUE(Phong_table && Phong_table[1000] == 125u);   /* its entries: the shading tests */
        auto p = register_phantom(6, 12);
        Watched_Box wb(48, 32);
        Ray_Start(&wb.box, 6);
        if (k >= 6) {
            ASSERT_TRUE(wb.wait_draws(1));
            Ray_Stop(0);
        }
        auto t0 = std::chrono::steady_clock::now();
        Ray_Exit();
        EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(1));
        EXPECT_EQ(Phong_table, nullptr);
        EXPECT_TRUE(!Ray_Volume.gli[6] && !Ray_Volume.tag[6] && !Ray_Volume.render[6] && !Ray_Volume.box_w[6] &&
                    Ray_Volume.box[6] == &wb.box && Ray_Volume.dim_x[6] == 12);
        ASSERT_TRUE(eventually([&] { return count_dir("/proc/self/task") == tasks0; })) << "cycle " << k;
        ASSERT_EQ(count_dir("/proc/self/fd"), fds0) << "cycle " << k;
    }
}

/* The workers' own pixel with no sink listening: tasks taken 32 at a time and, where the processor has
 * AVX2, walked eight side by side.  The frame equals Ray_Pixel word for word with one and with two workers. */
TEST(Lifecycle, BatchedFrameEqualsThePixels)
{
    for (int workers : {1, 2}) {
        Ray_Init(static_cast<unsigned short>(workers));
        auto p = register_phantom(5, 40);
        Watched_Box wb(101, 67);
        Ray_Start(&wb.box, 5);
        ASSERT_TRUE(wb.wait_draws(Ray_Layout_Levels(101 * 67)));
        expect_frame(5, wb.box);
        Ray_Exit();
    }
}

/* Each failure of the pipeline's start, and of the control thread's allocations at the first frame: its
 * lines, naming the failing call's own line.  A failed start is undone whole; a control thread that ended
 * leaves requests that fail without blocking. */
TEST(Lifecycle, FailuresNameTheirLineAndAreUndone)
{
    int tasks0 = count_tasks(), fds0 = count_dir("/proc/self/fd");
    const std::string E = "\xC3\xB1\x04" "ERROR:\x02", pipe = E + "\t Unable to create raytracing pipe!";
    const std::string pipe_out = "<<< out Voxelune: Ray_CPU_Init(! pipe)", thread_out = "<<< out Voxelune: Ray_CPU_Init(! thread)";
    struct {
        int pipe_at, thread_at, alloc_at;   /* allocation 1 is the Phong table, or the first of a frame's layout */
        bool in_frame;
        std::string error, out, call;
    } cases[] = {
        {1, 0, 0, 0, pipe, pipe_out, "make_pipe(Ray_Pipe_Ctrl)"},
        {2, 0, 0, 0, pipe, pipe_out, "make_pipe(Ray_Pipe_Draw)"},
        {5, 0, 0, 0, pipe, pipe_out, "make_pipe(Ray_Pipe_Compute[i])"},
        {0, 1, 0, 0, E + " Unable to start Ray-tracing Ctrl thread", thread_out, "start_thread(&Ray_Handle_Ctrl"},
        {0, 2, 0, 0, E + " Unable to start Ray-tracing Draw thread", thread_out, "start_thread(&Ray_Handle_Draw"},
        {0, 4, 0, 0, E + " Unable to start Ray-tracing thread", thread_out, "start_thread(&Ray_Thread_Compute[i]"},
        {0, 0, 2, 0, "memory error in calloc (var=Ray_Pipe_Compute, dim=4x8)", "", "Ray_Calloc("},
        {0, 0, 3, 0, "memory error in calloc (var=Ray_Thread_Compute, dim=4x8)", "", "Ray_Calloc("},
        {0, 0, 1, 1, "memory error in malloc (var=Ray_Thread_Seminal_Val[vol_id], dim=2x4)", "", "Ray_Malloc("},
        {0, 0, 2, 1, "memory error in realloc (var=Ray_Thread_I[vol_id], dim=10000x4)", "", "table_resize(&Ray_Thread_I[s]"},
        {0, 0, 3, 1, "memory error in realloc (var=Ray_Thread_J[vol_id], dim=10000x4)", "", "table_resize(&Ray_Thread_J[s]"},
        {0, 0, 4, 1, "memory error in realloc (var=Ray_Thread_W[vol_id], dim=10000x4)", "", "table_resize(&Ray_Thread_W[s]"},
        {0, 0, 5, 1, "memory error in realloc (var=Ray_Thread_H[vol_id], dim=10000x4)", "", "table_resize(&Ray_Thread_H[s]"},
    };
    for (auto& c : cases) {
        Trace_Capture trace(false);
        Watched_Box wb(100, 100);
        Plat_Fail_Pipe_At = c.pipe_at;
        Plat_Fail_Thread_At = c.thread_at;
        Ray_Fail_Alloc_At = c.in_frame ? 0 : c.alloc_at;
        EXPECT_EQ(Ray_Init(4), 1);
        if (c.in_frame) {
            Ray_Fail_Alloc_At = c.alloc_at;
            Ray_Start(&wb.box, 4);
            EXPECT_TRUE(eventually([&] { return trace.count("memory error in") > 0; }));
            EXPECT_EQ(trace.count("Ray_Thread_Ctrl(exit)"), 0u);
        }
        EXPECT_EQ(trace.count(c.error), 1u) << c.error;
        EXPECT_EQ(trace.count("Ray_CPU_Init(!"), c.out.empty() ? 0u : 1u);
        EXPECT_TRUE(c.out.empty() || trace.has(c.out)) << c.out;
        EXPECT_EQ(trace.count("Ray_CPU_Init(done)"), c.in_frame ? 1u : 0u);
        EXPECT_TRUE(trace.has("<<< out Voxelune: Ray_Init(done)"));
        EXPECT_TRUE(lines_name(trace, c.call)) << c.call;
        EXPECT_EQ(Ray_Init_Done, c.in_frame ? 1 : 0);
        if (c.in_frame && c.alloc_at == 4) {
            trace.clear();
            for (int r = 0; r < 1100; r++) Ray_Start(&wb.box, 4);
            EXPECT_TRUE(lines_name(trace, "post_record(Ray_Pipe_Ctrl[1]"));
            EXPECT_GE(trace.count("fail in \"_write\""), 1u);
        }
        Ray_Exit();
        EXPECT_EQ(wb.count(), 0);
        EXPECT_EQ(Phong_table, nullptr);
        EXPECT_TRUE(eventually([&] { return count_dir("/proc/self/task") == tasks0; }));
        EXPECT_EQ(count_dir("/proc/self/fd"), fds0);
    }
    Ray_Init(3);   /* the next start is a whole library: an empty slot is no refusal, its every ray 0 */
    Watched_Box wb(80, 80);
    std::fill(wb.box.Graph_Normal, wb.box.Graph_Normal + 6400, 0x12345678u);
    Ray_Start(&wb.box, 2);
    EXPECT_TRUE(wb.wait_draws(2));
    EXPECT_EQ(std::count(wb.box.Graph_Normal, wb.box.Graph_Normal + 6400, 0u), 6400);
    Ray_Exit();
}

/* Refused requests: the entry line, one error line, nothing else. */
TEST(Lifecycle, RefusedRequests)
{
    Watched_Box good(20, 20), negative(-20, 20);
    Boxs no_image;
    no_image.width = no_image.height = 20;
    Trace_Capture trace(true);
    Ray_Start(&good.box, 1);   /* before Ray_Init */
    Ray_Stop(1);
    Ray_Init(1);
    for (Boxs* b : {static_cast<Boxs*>(nullptr), &no_image, &negative.box}) Ray_Start(b, 1);
    std::vector<Trace_Capture::Line> kept;
    for (auto& l : trace.lines())
        if (l.text.find("Ray_St") != std::string::npos || l.flags == RAY_TR_ERROR) kept.push_back(l);
    ASSERT_EQ(kept.size(), 10u);
    for (size_t k = 0; k < kept.size(); k += 2) {
        EXPECT_EQ(kept[k].text.rfind(">>> in  Voxelune: Ray_St", 0), 0u) << kept[k].text;
        EXPECT_EQ(kept[k + 1].flags, RAY_TR_ERROR) << kept[k + 1].text;
    }
    EXPECT_EQ(kept[2].flags, RAY_TR_RENDER);   /* Ray_Stop's entry line */
    EXPECT_EQ(Ray_Volume.box[1], nullptr);
    EXPECT_EQ(trace.count("Ray_CPU_Start"), 0u);
    Ray_Exit();
}

TEST(Lifecycle, StartBindsTheSlot)
{
    Ray_Init(2);
    Ray_Dispatch_Pixel = [](int, const Ray_View&, int, int) { return 0xFF000000u; };   /* the volume is a size only */
    Ray_Volume.dim_x[5] = 100, Ray_Volume.dim_y[5] = 200, Ray_Volume.dim_z[5] = 50;
    Ray_Set_Clip(5, 0.1f, 0.9f, 0.25f, 0.5f, 0.0f, 1.0f);
    Watched_Box wb(30, 20);
    Trace_Capture trace(true);
    Ray_Start(&wb.box, 37);
    ASSERT_TRUE(wb.wait_draws(1));
    EXPECT_TRUE(trace.has("<<< out Voxelune: Ray_Start(done)") && trace.has("<<< out Voxelune: Ray_CPU_Start(done)"));
    EXPECT_TRUE(Ray_Volume.box[5] == &wb.box && Ray_Volume.box_w[5] == 30u && Ray_Volume.box_h[5] == 20u);
    Vector_4 o(0, 0, 0, 1), x(1, 0, 0, 1);
    o *= Ray_Volume.transfo[5], x *= Ray_Volume.transfo[5];
    EXPECT_TRUE(o.x == 50.0f && o.y == 100.0f && o.z == 25.0f && std::fabs(x.x - 164.5644f) < 1e-4f) << x.x;
    EXPECT_EQ(std::vector<int>(Ray_Volume.clip_box[5], Ray_Volume.clip_box[5] + 6), std::vector<int>({10, 90, 50, 100, 0, 50}));
    Ray_Volume.dim_x[5] = 10;
    Ray_Set_Clip(5, 0.0f, 0.999f, 0.25f, 0.5f, 0.0f, 1.0f);
    Ray_Start(&wb.box, 5);
    EXPECT_EQ(Ray_Volume.clip_box[5][1], 9);

    Ray_Stop(33);   /* slot 1 only */
    EXPECT_TRUE(Ray_Thread_Next[1] == -1 && Ray_Thread_Run == 1);
    Ray_Stop(32);   /* every slot */
    EXPECT_TRUE(Ray_Thread_Run == 0 && trace.has("<<< out Voxelune: Ray_Stop(done)"));
    Ray_Exit();
    Ray_Dispatch_Pixel = &Ray_Pixel_View;
}

/* Start, stop at once, register the slot again and free the old buffers, round after round, every other
 * round with a trace sink (the walk then takes the lock at every step), some with rays that outlast the
 * stop's pause: once Ray_Stop returns, the start was taken, no ray of the slot runs and the box is not
 * drawn again. */
TEST_F(Requests, StopCoversEveryStartBeforeIt)
{
    const char* env = std::getenv("VOXELUNE_STOP_ROUNDS");
    int rounds = env ? std::atoi(env) : 40;
    slow_us = 200;
    auto p = register_phantom(5, 24);
    Watched_Box wb(96, 64);
    for (int k = 0; k < rounds; k++) {
        std::unique_ptr<Trace_Capture> trace(k % 2 ? new Trace_Capture(false) : nullptr);
        stopped = false;
        long_rays = k % 8 < 2 ? 2 : 0;
        Ray_Start(&wb.box, 5);
        Ray_Stop(k % 4 < 2 ? 5 : 32);
        stopped = true;
        int drawn = wb.count();   /* a level may complete before the stop (where sleeps are coarse) */
        ASSERT_EQ(flying.load(), 0) << "round " << k;
        EXPECT_TRUE(!trace || trace->count("Start ray id:5") == 1u) << "round " << k;
        auto old = std::move(p);
        p = register_phantom(5, 24);
        old.reset();
        ASSERT_EQ(late.load(), 0) << "round " << k;
        ASSERT_EQ(wb.count(), drawn) << "round " << k;
    }
    int drawn = wb.count();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(late.load(), 0);
    EXPECT_EQ(wb.count(), drawn);
}

/* A box without pixels is a frame of no task, on an idle slot and on a slot whose frame it stops. */
TEST_F(Requests, ZeroSizeBox)
{
    auto p = register_phantom(3, 24);
    Trace_Capture trace(false);
    Watched_Box idle(0, 20), big(320, 240), flat(20, 0);
    Ray_Start(&idle.box, 4);
    slow_us = 200;
    Ray_Start(&big.box, 3);
    ASSERT_TRUE(big.wait_draws(1));
    Ray_Start(&flat.box, 3);
    ASSERT_TRUE(eventually([&] { return trace.has("-> Ray_Thread_Ctrl(): Start ray id:3, res:20x0"); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    /* a redraw the old frame asked for may still reach the slot's new box (the draw thread draws the bound box) */
    int draws = big.count() + flat.count(), cast = casts;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(big.count() + flat.count(), draws);
    EXPECT_EQ(casts.load(), cast);
    for (const char* l : {"-> Ray_Thread_Ctrl(): Dim changed 0x20", "-> Ray_Thread_Ctrl(): Start ray id:4, res:0x20",
                          "-> Ray_Thread_Ctrl(): Dim changed 20x0"})
        EXPECT_TRUE(trace.has(l)) << l;
    EXPECT_EQ(trace.count("refused"), 0u);
    EXPECT_EQ(idle.count(), 0);
    Critical_Ray_In("test");
    for (int s : {3, 4}) EXPECT_TRUE(Ray_Thread_Next[s] == -1 && Ray_Thread_Level_Nb[s] == 1 && !Ray_Thread_I[s]) << s;
    Critical_Ray_Out("test");
}

/* Restarts in a tight loop while slow rays are in flight: each Ray_Start returns at once.  Once the old
 * rays have landed, the last view's frame equals Ray_Pixel word for word. */
TEST_F(Requests, RestartsReturnAtOnce)
{
    auto p = register_phantom(4, 48);
    Trace_Capture trace(false);
    Watched_Box wb(160, 120);
    slow_us = 30000;
    Ray_Start(&wb.box, 4);
    ASSERT_TRUE(eventually([] { return flying.load() == 2; }));
    const int R = 200;
    for (int k = 0; k < R; k++) {
        Ray_Set_Rotation(20.0f + 0.1f * k, 35.0f, 0.0f);
        auto t0 = std::chrono::steady_clock::now();
        Ray_Start(&wb.box, 4);
        ASSERT_LT(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(20)) << "restart " << k;
    }
    slow_us = 0;
    ASSERT_TRUE(eventually([] { return flying.load() == 0; }));
    Ray_Start(&wb.box, 4);
    ASSERT_TRUE(eventually([&] {
        Critical_Ray_In("test");
        bool idle = Ray_Thread_Next[4] < 0 && Ray_Thread_Busy == 0;
        Critical_Ray_Out("test");
        return idle && trace.count("Start ray id:4") == R + 2u;
    }));
    expect_frame(4, wb.box);
    Ray_Exit();   /* before the box goes */
}
