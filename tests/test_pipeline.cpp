/*
 * The CPU pipeline: task layouts, the byte and slot rules, records, and
 * whole frames through the threads with a stand-in ray whose colour names
 * its pixel.
 */
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "cpu/ray_pixel.h"
#include "cpu/ray_dispatch.h"
#include "cpu/ray_dispatch_state.h"
#include "support.h"

namespace {


struct Layout {
    int levels;
    std::vector<int> i, j, w, h, thr;
};

Layout build(int W, int H)
{
    Layout l;
    l.levels = Ray_Layout_Levels(W * H);
    l.i.resize(W * H), l.j.resize(W * H), l.w.resize(W * H), l.h.resize(W * H), l.thr.resize(l.levels);
    Ray_Layout_Fill(W, H, l.levels, l.i.data(), l.j.data(), l.w.data(), l.h.data());
    Ray_Layout_Thresholds(W, H, l.levels, l.thr.data());
    return l;
}


/* The stand-in ray: its colour names slot and pixel; it can be slowed or held. */
std::atomic<int> cast_count{0};
std::atomic<int> hold_at{0};     /* the cast with this number waits for release() */
std::atomic<int> delay_us{0};
std::mutex hold_lock;
std::condition_variable hold_cv;
bool held = false, released = false;

unsigned int colour(int s, int x, int y) { return 0x80000000u | (s << 24) | (y << 12) | x; }

unsigned int fake_pixel(int s, const Ray_View&, int x, int y)
{
    int c = ++cast_count;
    if (c == hold_at.load()) {
        std::unique_lock<std::mutex> g(hold_lock);
        held = true;
        hold_cv.notify_all();
        hold_cv.wait(g, [] { return released; });
    }
    if (delay_us.load()) std::this_thread::sleep_for(std::chrono::microseconds(delay_us.load()));
    return colour(s, x, y);
}

void wait_held()
{
    std::unique_lock<std::mutex> g(hold_lock);
    ASSERT_TRUE(hold_cv.wait_for(g, std::chrono::seconds(20), [] { return held; }));
}

void release()
{
    std::lock_guard<std::mutex> g(hold_lock);
    released = true;
    hold_cv.notify_all();
}

/*
 * Every pixel holds the colour of a block that covers it, at some level.
 * With several workers this is all a finished frame promises: a worker
 * held up in a coarse task writes its block after the finer tasks that
 * others finished meanwhile.
 */
bool covered(const Boxs& box, int s)
{
    for (int y = 0; y < box.height; y++)
        for (int x = 0; x < box.width; x++) {
            unsigned int v = box.Graph_Normal[y * box.width + x];
            bool ok = false;
            for (int mask = 0; mask < 64 && !ok; mask = mask * 2 + 1)
                ok = v == colour(s, x & ~mask, y & ~mask);
            if (!ok) {
                ADD_FAILURE() << "pixel (" << x << ", " << y << ") holds " << std::hex << v;
                return false;
            }
        }
    return true;
}
bool holds(const Boxs& box, int s, int mask)
{
    for (int y = 0; y < box.height; y++)
        for (int x = 0; x < box.width; x++)
            if (box.Graph_Normal[y * box.width + x] != colour(s, x & ~mask, y & ~mask)) {
                ADD_FAILURE() << "pixel (" << x << ", " << y << ") holds " << std::hex
                              << box.Graph_Normal[y * box.width + x];
                return false;
            }
    return true;
}

/* Waits up to 10 s for a condition that another thread brings about. */
template <class F>
bool eventually(F f)
{
    for (int k = 0; k < 2000 && !f(); k++) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return f();
}

/* Binds a box to a slot as a frame request does. */
void bind(int s, Boxs& box)
{
    Critical_Ray_In("test");
    Ray_Volume.box[s] = &box;
    Ray_Volume.box_w[s] = box.width;
    Ray_Volume.box_h[s] = box.height;
    Critical_Ray_Out("test");
}

class Pipeline : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::thread([] {}).join();   /* a sanitizer's own helper thread starts with the first thread */
        Critical_Ray_Create();
        Ray_Dispatch_Pixel = &fake_pixel;
        fds0 = count_dir("/proc/self/fd");
        tasks0 = count_dir("/proc/self/task");
    }
    void TearDown() override
    {
        release();
        Ray_CPU_Exit();
        EXPECT_EQ(count_dir("/proc/self/fd"), fds0);
        EXPECT_EQ(count_dir("/proc/self/task"), tasks0);
    }
    /* Boxes outlive the pipeline: they go after TearDown has ended its threads. */
    Watched_Box& box(int W, int H)
    {
        boxes.emplace_back(new Watched_Box(W, H));
        return *boxes.back();
    }
    std::vector<std::unique_ptr<Watched_Box>> boxes;
    int fds0 = 0, tasks0 = 0;
    Trace_Capture trace{false};
};

}  // namespace

TEST(Layout, LevelCounts)
{
    const int n[] = {0, 1, 3600, 3999, 4000, 15999, 16000, 63999, 64000, 255999, 256000, 1023999, 1024000};
    const int l[] = {1, 1, 1, 1, 2, 2, 3, 3, 4, 4, 5, 5, 6};
    for (int k = 0; k < 13; k++) EXPECT_EQ(Ray_Layout_Levels(n[k]), l[k]) << n[k];
    EXPECT_EQ(build(200, 20).levels, 2);
}

TEST(Layout, SixtyBySixtyIsRowOrder)
{
    Layout l = build(60, 60);
    ASSERT_EQ(l.levels, 1);
    EXPECT_EQ(l.thr, std::vector<int>({0}));
    for (int t = 0; t < 3600; t++) {
        int k = 3599 - t;
        EXPECT_EQ(l.i[t], k % 60);
        EXPECT_EQ(l.j[t], k / 60);
        EXPECT_EQ(l.w[t] * l.h[t], 1);
    }
}

TEST(Layout, HundredByHundred)
{
    Layout l = build(100, 100);
    ASSERT_EQ(l.levels, 2);
    EXPECT_EQ(l.thr, std::vector<int>({0, 7500}));
    const int idx[][3] = {{9999, 0, 0}, {9998, 2, 0}, {9950, 98, 0}, {9949, 0, 2},
                          {7499, 1, 0}, {7450, 99, 0}, {7449, 0, 1}, {0, 99, 99}};
    for (auto& e : idx) {
        EXPECT_EQ(l.i[e[0]], e[1]) << e[0];
        EXPECT_EQ(l.j[e[0]], e[2]) << e[0];
    }
    EXPECT_EQ(l.w[7500], 2);
    EXPECT_EQ(l.w[7499], 1);
}

TEST(Layout, LevelsAndEdges)
{
    Layout a = build(640, 480);
    EXPECT_EQ(a.thr, std::vector<int>({0, 230400, 288000, 302400, 306000}));
    std::map<int, int> per_size;
    for (size_t t = 0; t < a.w.size(); t++)
        if (a.i[t] % a.w[t] == 0) per_size[a.w[t]]++;
    EXPECT_EQ(per_size, (std::map<int, int>{{1, 230400}, {2, 57600}, {4, 14400}, {8, 3600}, {16, 1200}}));

    Layout b = build(1000, 300);
    ASSERT_EQ(b.levels, 5);
    EXPECT_EQ(b.thr, std::vector<int>({0, 225000, 281250, 295250, 298803}));
    const int first = 300000 - 1197;   /* the first level fills indices 299999 down to this */
    EXPECT_EQ(b.i[first], 992);
    EXPECT_EQ(b.j[first], 288);
    EXPECT_EQ(b.w[first], 8);
    EXPECT_EQ(b.h[first], 12);
    EXPECT_EQ(b.w[300000 - 63], 8);    /* end of the first row */
    EXPECT_EQ(b.h[300000 - 63], 16);
    EXPECT_EQ(b.w[first - 1], 8);      /* the second level begins */
}

/* Every pixel is the origin of exactly one task, blocks fit the box, coarse first. */
TEST(Layout, CoversEveryPixelOnce)
{
    const int sizes[][2] = {{1, 1}, {7, 3}, {200, 20}, {333, 77}, {129, 257}, {640, 480}};
    for (auto& sz : sizes) {
        int W = sz[0], H = sz[1];
        Layout l = build(W, H);
        std::vector<char> seen(W * H, 0);
        int prev = 1 << 30;
        for (int t = W * H - 1; t >= 0; t--) {
            int x = l.i[t], y = l.j[t];
            ASSERT_TRUE(x < W && y < H);
            ASSERT_EQ(seen[y * W + x]++, 0);
            /* the level of an origin: the largest block size dividing both coordinates */
            int s = 1 << (l.levels - 1);
            while (x % s || y % s) s >>= 1;
            ASSERT_LE(s, prev);
            ASSERT_EQ(l.w[t], std::min(s, W - x));
            ASSERT_EQ(l.h[t], std::min(s, H - y));
            prev = s;
        }
    }
}

TEST(Rules, WorkerBytes)
{
    auto wait = [](std::vector<unsigned char> b) { return Ray_Byte_Waiting(b.data(), (int)b.size()); };
    auto work = [](std::vector<unsigned char> b) { return Ray_Byte_Working(b.data(), (int)b.size()); };
    EXPECT_EQ(wait({0x01}), RAY_VERDICT_WORK);
    EXPECT_EQ(wait({0xFF}), RAY_VERDICT_STOP);
    EXPECT_EQ(wait({0x00}), RAY_VERDICT_LEAVE);
    EXPECT_EQ(wait({0x01, 0xFF}), RAY_VERDICT_STOP);
    EXPECT_EQ(wait({0xFF, 0x01}), RAY_VERDICT_STOP);
    EXPECT_EQ(wait({0xFF, 0x00}), RAY_VERDICT_LEAVE);
    EXPECT_EQ(wait({0x00, 0xFF}), RAY_VERDICT_STOP);
    EXPECT_EQ(wait({0x90}), RAY_VERDICT_STOP);
    EXPECT_EQ(wait({0x7F}), RAY_VERDICT_WORK);
    EXPECT_EQ(wait({}), RAY_VERDICT_WORK);
    EXPECT_EQ(work({0x01, 0x01}), RAY_VERDICT_WORK);
    EXPECT_EQ(work({0x01, 0xFF}), RAY_VERDICT_STOP);
    EXPECT_EQ(work({0xFF, 0x00}), RAY_VERDICT_STOP);
    EXPECT_EQ(work({0x00, 0xFF}), RAY_VERDICT_LEAVE);
    EXPECT_EQ(work({0x7F, 0x80}), RAY_VERDICT_STOP);
}

TEST(Rules, SlotChoice)
{
    int next[32], v;
    for (int& n : next) n = -1;
    EXPECT_EQ(Ray_Choose_Slot(next, &v), 0);
    EXPECT_EQ(v, -1);
    next[2] = next[7] = 500;
    EXPECT_EQ(Ray_Choose_Slot(next, &v), 2);
    next[7] = 600;
    EXPECT_EQ(Ray_Choose_Slot(next, &v), 7);
    EXPECT_EQ(v, 600);
    for (int& n : next) n = -20000;
    EXPECT_EQ(Ray_Choose_Slot(next, &v), 0);
    EXPECT_EQ(v, -10000);
    next[9] = -9999;
    EXPECT_EQ(Ray_Choose_Slot(next, &v), 9);
}

TEST(Rules, Records)
{
    unsigned char r[4];
    auto bytes = [&] { return std::vector<int>(r, r + 4); };
    Ray_Record_Encode(r, 5, 1);
    EXPECT_EQ(bytes(), std::vector<int>({1, 5, 0, 0}));
    Ray_Record_Encode(r, 0, 1);
    EXPECT_EQ(bytes(), std::vector<int>({1, 0, 0, 0}));
    Ray_Record_Encode(r, 5, 2);
    EXPECT_EQ(bytes(), std::vector<int>({2, 5, 0, 0}));
    Ray_Record_Encode(r, 0x123456, 0);
    int s, c;
    Ray_Record_Decode(r, &s, &c);
    EXPECT_EQ(s, 0x123456);
    EXPECT_EQ(c, 0);
}

/* The bytes of a start request as they reach the control pipe. */
TEST_F(Pipeline, StartRecordBytes)
{
    int fds[2];
    ASSERT_EQ(Plat_Pipe(fds, 128), 0);
    Ray_Pipe_Ctrl[0] = fds[0];
    Ray_Pipe_Ctrl[1] = fds[1];
    Ray_CPU_Start(5);
    Ray_CPU_Start(0);
    unsigned char b[8];
    ASSERT_EQ(Plat_Read(fds[0], b, 8), 8);
    EXPECT_EQ(std::vector<int>(b, b + 8), std::vector<int>({1, 5, 0, 0, 1, 0, 0, 0}));
    /* Ray_CPU_Exit closes what exists: here the two ends of this pipe */
}

TEST_F(Pipeline, ThreadsAndFds)
{
    SKIP_WITHOUT_PROC();
    ASSERT_EQ(Ray_CPU_Init(1), 1);
    EXPECT_EQ(count_dir("/proc/self/task"), tasks0 + 3);
    EXPECT_EQ(count_dir("/proc/self/fd"), fds0 + 6);
    Ray_CPU_Exit();
    /* a joined thread can linger in /proc for a moment after it ended */
    EXPECT_TRUE(eventually([&] { return count_dir("/proc/self/task") == tasks0; }));
    ASSERT_EQ(Ray_CPU_Init(64), 1);
    EXPECT_EQ(count_dir("/proc/self/task"), tasks0 + 66);
    EXPECT_EQ(count_dir("/proc/self/fd"), fds0 + 132);
    EXPECT_TRUE(trace.has("[00] Success starting ray-tracing thread"));
    EXPECT_TRUE(trace.has("[63] Starting ray-tracing thread"));
    EXPECT_EQ(Ray_CPU_Init(2), 0);   /* already running */
}

/* A 100 x 100 frame: the first level lands whole before any finer pixel, then the rest. */
TEST_F(Pipeline, FrameRefinesLevelByLevel)
{
    ASSERT_EQ(Ray_CPU_Init(1), 1);
    Watched_Box& wb = box(100, 100);
    bind(5, wb.box);
    hold_at = 2501;
    Ray_CPU_Start(5);
    wait_held();
    ASSERT_TRUE(wb.wait_draws(1));
    EXPECT_TRUE(holds(wb.box, 5, 1));
    release();
    ASSERT_TRUE(wb.wait_draws(2));
    EXPECT_TRUE(holds(wb.box, 5, 0));
    EXPECT_EQ(cast_count.load(), 10000);
    EXPECT_TRUE(trace.has("-> Ray_Thread_Ctrl(): Dim changed 100x100"));
    EXPECT_TRUE(trace.has("-> Ray_Thread_Ctrl(): Start ray id:5, res:100x100"));
    EXPECT_TRUE(eventually([&] { return trace.has("-> Ray_Thread_Ray(0): Finish"); }));

    /* same size again: no rebuild, the frame starts over; then a new shape of the same N */
    trace.clear();
    Ray_CPU_Start(5);
    ASSERT_TRUE(wb.wait_draws(4));
    EXPECT_EQ(trace.count("Dim changed"), 0u);
    Watched_Box &tall = box(200, 50), &wide = box(50, 200);
    bind(5, tall.box);
    Ray_CPU_Start(5);
    ASSERT_TRUE(tall.wait_draws(2));
    bind(5, wide.box);
    Ray_CPU_Start(5);
    ASSERT_TRUE(wide.wait_draws(2));
    EXPECT_TRUE(holds(wide.box, 5, 0));
    EXPECT_EQ(trace.count("Dim changed"), 2u);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(wb.count() + tall.count() + wide.count(), 8);   /* one redraw per level, no more */
}

/*
 * A worker held up in a coarse task while the other finishes every finer
 * one: its block, written last, must not cover the finer pixels.
 */
TEST_F(Pipeline, LateCoarseBlockKeepsFinerPixels)
{
    ASSERT_EQ(Ray_CPU_Init(2), 1);
    Watched_Box& wb = box(100, 100);
    bind(5, wb.box);
    hold_at = 2400;   /* a 2 x 2 task near the end of the first level */
    Ray_CPU_Start(5);
    wait_held();
    ASSERT_TRUE(eventually([] { return cast_count.load() == 10000; }));
    release();
    ASSERT_TRUE(wb.wait_draws(2));
    EXPECT_TRUE(holds(wb.box, 5, 0));
}

TEST_F(Pipeline, SeveralSlotsAndRestart)
{
    ASSERT_EQ(Ray_CPU_Init(4), 1);
    Watched_Box &a = box(320, 240), &b = box(60, 60), &c = box(500, 150);
    bind(1, a.box), bind(2, b.box), bind(31, c.box);
    Ray_CPU_Start(1), Ray_CPU_Start(2), Ray_CPU_Start(31);
    Ray_CPU_Start(1);   /* a restart while it renders */
    ASSERT_TRUE(b.wait_draws(1));
    ASSERT_TRUE(c.wait_draws(4));
    ASSERT_TRUE(a.wait_draws(4));
    Wait_For_Threads();
    EXPECT_TRUE(covered(a.box, 1));
    EXPECT_TRUE(covered(b.box, 2));
    EXPECT_TRUE(covered(c.box, 31));
}

TEST_F(Pipeline, StopOneSlotThenAll)
{
    ASSERT_EQ(Ray_CPU_Init(2), 1);
    Watched_Box &a = box(200, 100), &b = box(200, 100);
    bind(3, a.box), bind(4, b.box);
    delay_us = 20;
    Ray_CPU_Start(3), Ray_CPU_Start(4);
    ASSERT_TRUE(eventually([&] { return trace.count("Start ray id:4") == 1; }));
    Ray_CPU_Stop(3);
    Critical_Ray_In("test");
    EXPECT_EQ(Ray_Thread_Next[3], -1);
    Critical_Ray_Out("test");
    ASSERT_TRUE(b.wait_draws(3));   /* slot 4 completes; slot 3 never reaches its last level */
    EXPECT_LT(a.count(), 3);
    EXPECT_EQ(Ray_Thread_Run, 1);

    int c0 = cast_count;
    Ray_CPU_Start(4);
    while (cast_count < c0 + 100) std::this_thread::yield();
    Ray_CPU_Stop(0);
    Critical_Ray_In("test");
    EXPECT_EQ(Ray_Thread_Run, 0);
    EXPECT_EQ(Ray_Thread_Busy, 0u);
    EXPECT_EQ(Ray_Thread_Next[4], -1);
    Critical_Ray_Out("test");
    int seen = b.count();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(b.count(), seen);
    delay_us = 0;
    int a0 = a.count();
    Ray_CPU_Start(3);   /* the stopped pipeline renders again */
    ASSERT_TRUE(a.wait_draws(a0 + 3));
    EXPECT_TRUE(covered(a.box, 3));
}

/*
 * A worker held in its ray while thousands of requests arrive: its pipe
 * fills, yet nobody blocks while holding the lock and every request is
 * taken once the worker goes on.
 */
TEST_F(Pipeline, FullWorkerPipeNeverBlocksTheLock)
{
    ASSERT_EQ(Ray_CPU_Init(1), 1);
    Watched_Box& wb = box(64, 64);
    bind(6, wb.box);
    hold_at = 1;
    Ray_CPU_Start(6);
    wait_held();
    std::atomic<bool> lock_free{false};
    std::thread helper([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        Critical_Ray_In("helper");   /* would hang if a writer held it */
        Critical_Ray_Out("helper");
        lock_free = true;
        release();
    });
    for (int k = 0; k < 6000; k++) Ray_CPU_Start(6);
    helper.join();
    EXPECT_TRUE(lock_free);
    Ray_CPU_Stop(0);   /* stop bytes into a full pipe do not block either */
    ASSERT_TRUE(eventually([&] { return trace.count("Start ray id:6") == 6001; }));
    Ray_CPU_Stop(0);
    int seen = wb.count();
    Ray_CPU_Start(6);
    ASSERT_TRUE(wb.wait_draws(seen + 2));
    Wait_For_Threads();
    EXPECT_TRUE(holds(wb.box, 6, 0));
}

/* Each failure of Ray_CPU_Init: its lines, and an exit that undoes exactly what was made. */
TEST_F(Pipeline, InitFailuresAreUndone)
{
    const char* pipe_err = "\xC3\xB1\x04" "ERROR:\x02\t Unable to create raytracing pipe!";
    struct Case {
        int pipe_at, thread_at, alloc_at;
        const char* error;
        const char* out;
    } cases[] = {
        {1, 0, 0, pipe_err, "<<< out Voxelune: Ray_CPU_Init(! pipe)"},
        {2, 0, 0, pipe_err, "<<< out Voxelune: Ray_CPU_Init(! pipe)"},
        {5, 0, 0, pipe_err, "<<< out Voxelune: Ray_CPU_Init(! pipe)"},
        {0, 1, 0, "\xC3\xB1\x04" "ERROR:\x02 Unable to start Ray-tracing Ctrl thread", "<<< out Voxelune: Ray_CPU_Init(! thread)"},
        {0, 2, 0, "\xC3\xB1\x04" "ERROR:\x02 Unable to start Ray-tracing Draw thread", "<<< out Voxelune: Ray_CPU_Init(! thread)"},
        {0, 4, 0, "\xC3\xB1\x04" "ERROR:\x02 Unable to start Ray-tracing thread", "<<< out Voxelune: Ray_CPU_Init(! thread)"},
        {0, 0, 1, "line 0 ", nullptr},
        {0, 0, 2, "line 0 ", nullptr},
    };
    for (const Case& c : cases) {
        trace.clear();
        Plat_Fail_Pipe_At = c.pipe_at;
        Plat_Fail_Thread_At = c.thread_at;
        Ray_Fail_Alloc_At = c.alloc_at;
        EXPECT_EQ(Ray_CPU_Init(4), 0);
        if (c.alloc_at) {
            EXPECT_EQ(trace.count(c.alloc_at == 1 ? "memory error in calloc (var=Ray_Pipe_Compute, dim=4x8)"
                                                  : "memory error in calloc (var=Ray_Thread_Compute, dim=4x8)"),
                      1u);
            EXPECT_EQ(trace.count("Ray_CPU_Init(done)") + trace.count("Ray_CPU_Init(!"), 0u);
        } else {
            EXPECT_TRUE(trace.has(c.error)) << c.error;
            EXPECT_TRUE(trace.has(c.out));
            EXPECT_EQ(trace.count("file:ray_dispatch line:"), 1u);
            EXPECT_EQ(trace.count("\xC3\xB1"), 2u);
        }
        Ray_CPU_Stop(0);
        Ray_CPU_Start(1);   /* refused by a dead pipe, never blocks */
        Ray_CPU_Exit();
        EXPECT_EQ(count_dir("/proc/self/fd"), fds0);
        EXPECT_EQ(count_dir("/proc/self/task"), tasks0);
    }
    Watched_Box& wb = box(80, 80);   /* and the next start is a whole pipeline */
    bind(2, wb.box);
    ASSERT_EQ(Ray_CPU_Init(3), 1);
    Ray_CPU_Start(2);
    ASSERT_TRUE(wb.wait_draws(2));
}

/* The control thread ends on an allocation failure; requests then fail without blocking. */
TEST_F(Pipeline, ControlAllocationFailure)
{
    ASSERT_EQ(Ray_CPU_Init(2), 1);
    Watched_Box& wb = box(100, 100);
    bind(4, wb.box);
    Ray_Fail_Alloc_At = 4;   /* thresholds, then I, J, W: the W table */
    Ray_CPU_Start(4);
    eventually([&] { return trace.count("memory error in realloc") > 0; });
    EXPECT_EQ(trace.count("memory error in realloc (var=Ray_Thread_W[vol_id], dim=10000x4)"), 1u);
    for (int k = 0; k < 1100; k++) Ray_CPU_Start(4);
    EXPECT_GE(trace.count("fail in \"_write\""), 1u);
    EXPECT_EQ(trace.count("Ray_Thread_Ctrl(exit)"), 0u);
    EXPECT_EQ(wb.count(), 0);
}

TEST_F(Pipeline, EmptyBoxRendersNothing)
{
    ASSERT_EQ(Ray_CPU_Init(1), 1);
    Boxs empty;
    empty.height = 10;
    bind(7, empty);
    Ray_CPU_Start(7);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    Critical_Ray_In("test");
    EXPECT_EQ(Ray_Thread_Next[7], -1);
    EXPECT_EQ(Ray_Thread_Level_Nb[7], 1);
    EXPECT_EQ(Ray_Thread_I[7], nullptr);
    Critical_Ray_Out("test");
    EXPECT_EQ(cast_count.load(), 0);
}
