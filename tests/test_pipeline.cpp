/* The CPU pipeline: task layouts, byte and slot rules, records; frames with a ray whose colour names its pixel. */
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>

#include "cpu/ray_dispatch.h"
#include "cpu/ray_dispatch_state.h"
#include "support.h"

namespace {

/* The stand-in ray: its colour names slot and pixel; it can be slowed, or held at one cast until released. */
std::atomic<int> cast_count{0}, hold_at{0}, delay_us{0};
std::atomic<bool> held{false}, released{false};

unsigned colour(int s, int x, int y) { return 0x80000000u | (s << 24) | (y << 12) | x; }

unsigned fake_pixel(int s, const Ray_View&, int x, int y)
{
    if (++cast_count == hold_at.load()) {
        held = true;
        while (!released) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::this_thread::sleep_for(std::chrono::microseconds(delay_us.load()));
    return colour(s, x, y);
}

/* Every pixel holds the colour of a block that covers it, of a side from 1 << lo to 1 << hi. */
bool holds(const Boxs& box, int s, int lo, int hi)
{
    for (int p = 0; p < box.width * box.height; p++) {
        int x = p % box.width, y = p / box.width, k = lo;
        while (k <= hi && box.Graph_Normal[p] != colour(s, x & -(1 << k), y & -(1 << k))) k++;
        if (k > hi) {
            ADD_FAILURE() << "pixel (" << x << ", " << y << ") holds " << std::hex << box.Graph_Normal[p];
            return false;
        }
    }
    return true;
}

template <class T>
T locked(const T& v)
{
    Critical_Ray_In("test");
    T r = v;
    Critical_Ray_Out("test");
    return r;
}

class Pipeline : public ::testing::Test {
protected:
    void SetUp() override
    {
        tasks0 = count_tasks(), fds0 = count_dir("/proc/self/fd");
        Critical_Ray_Create(), Ray_Dispatch_Pixel = &fake_pixel;
    }
    void TearDown() override
    {
        released = true, Ray_CPU_Exit();
        EXPECT_EQ(count_dir("/proc/self/fd"), fds0);
        EXPECT_TRUE(eventually([&] { return count_dir("/proc/self/task") == tasks0; }));
    }
    /* A box bound to slot s as a frame request binds it; boxes outlive the pipeline. */
    Watched_Box& box(int s, int W, int H)
    {
        boxes.emplace_back(new Watched_Box(W, H));
        Critical_Ray_In("test");
        Ray_Volume.box[s] = &boxes.back()->box;
        Ray_Volume.box_w[s] = W, Ray_Volume.box_h[s] = H;
        Critical_Ray_Out("test");
        return *boxes.back();
    }
    std::vector<std::unique_ptr<Watched_Box>> boxes;
    int fds0 = 0, tasks0 = 0;
    Trace_Capture trace{false};
};

}  // namespace

/* Level counts, thresholds, and a layout in which every pixel is the origin of one task, coarse to fine. */
TEST(Layout, LevelsThresholdsAndOrder)
{
    const int n[] = {0, 3999, 4000, 15999, 16000, 63999, 64000, 255999, 256000, 1023999, 1024000};
    const int l[] = {1, 1, 2, 2, 3, 3, 4, 4, 5, 5, 6};
    for (int k = 0; k < 11; k++) EXPECT_EQ(Ray_Layout_Levels(n[k]), l[k]) << n[k];
    struct {
        int w, h;
        std::vector<int> thr;
    } boxes[] = {{60, 60, {0}}, {100, 100, {0, 7500}}, {640, 480, {0, 230400, 288000, 302400, 306000}},
                 {1000, 300, {0, 225000, 281250, 295250, 298803}}, {1, 1, {0}}, {7, 3, {}}, {333, 77, {}}, {129, 257, {}}};
    for (auto& b : boxes) {
        int W = b.w, H = b.h, N = W * H, L = Ray_Layout_Levels(N);
        std::vector<int> ti(N), tj(N), tw(N), th(N), thr(L + 1, N);
        Ray_Layout_Fill(W, H, L, ti.data(), tj.data(), tw.data(), th.data());
        Ray_Layout_Thresholds(W, H, L, thr.data());
        EXPECT_TRUE(b.thr.empty() || std::vector<int>(thr.begin(), thr.end() - 1) == b.thr) << W << "x" << H;
        /* Task t, level k: above thr[k] and below thr[k + 1]; levels coarse first, rows top first, left to right. */
        std::vector<char> seen(N, 0);
        long long prev = -1;
        for (int t = N - 1; t >= 0; t--) {
            int x = ti[t], y = tj[t], k = L - 1;
            ASSERT_TRUE(x >= 0 && y >= 0 && x < W && y < H && seen[y * W + x]++ == 0) << t;
            while ((x | y) & ((1 << k) - 1)) k--;
            long long key = (static_cast<long long>(L - k) * H + y) * W + x;
            ASSERT_TRUE(key > prev && t >= thr[k] && t < thr[k + 1]) << W << "x" << H << " task " << t;
            ASSERT_EQ(tw[t], std::min(1 << k, W - x));
            ASSERT_EQ(th[t], std::min(1 << k, H - y));
            prev = key;
        }
    }
}

TEST(Rules, WorkerBytesSlotChoiceAndRecords)
{
    using B = std::vector<unsigned char>;
    struct {
        bool working;
        B bytes;
        Ray_Byte_Verdict v;
    } bytes[] = {{0, {0x01}, RAY_VERDICT_WORK},       {0, {0xFF}, RAY_VERDICT_STOP},        {0, {0x00}, RAY_VERDICT_LEAVE},
                 {0, {0x01, 0xFF}, RAY_VERDICT_STOP}, {0, {0xFF, 0x01}, RAY_VERDICT_STOP},  {0, {0xFF, 0x00}, RAY_VERDICT_LEAVE},
                 {0, {0x00, 0xFF}, RAY_VERDICT_STOP}, {0, {0x90}, RAY_VERDICT_STOP},        {0, {0x7F}, RAY_VERDICT_WORK},
                 {0, {}, RAY_VERDICT_WORK},           {1, {0x01, 0x01}, RAY_VERDICT_WORK},  {1, {0x01, 0xFF}, RAY_VERDICT_STOP},
                 {1, {0xFF, 0x00}, RAY_VERDICT_STOP}, {1, {0x00, 0xFF}, RAY_VERDICT_LEAVE}, {1, {0x7F, 0x80}, RAY_VERDICT_STOP}};
    for (auto& c : bytes)
        EXPECT_EQ((c.working ? Ray_Byte_Working : Ray_Byte_Waiting)(c.bytes.data(), static_cast<int>(c.bytes.size())), c.v);

    /* all at fill, then the listed slots set: the choice and its value */
    struct {
        int fill;
        std::vector<std::pair<int, int>> set;
        int slot, value;
    } choices[] = {{-1, {}, 0, -1}, {-1, {{2, 500}, {7, 500}}, 2, 500}, {-1, {{2, 500}, {7, 600}}, 7, 600},
                   {-20000, {}, 0, -10000}, {-20000, {{31, -9999}}, 31, -9999}};
    for (auto& c : choices) {
        std::vector<int> next(32, c.fill);
        for (auto& p : c.set) next[p.first] = p.second;
        int v = 0, slot = Ray_Choose_Slot(next.data(), &v);
        EXPECT_TRUE(slot == c.slot && v == c.value) << slot << " " << v;
    }

    /* records: start of slot 5 and of slot 0, level 2 of slot 5; a slot of three bytes */
    unsigned char r[12];
    Ray_Record_Encode(r, 5, 1), Ray_Record_Encode(r + 4, 0, 1), Ray_Record_Encode(r + 8, 5, 2);
    EXPECT_EQ(B(r, r + 12), B({1, 5, 0, 0, 1, 0, 0, 0, 2, 5, 0, 0}));
    int s, c;
    Ray_Record_Encode(r, 0x123456, 0), Ray_Record_Decode(r, &s, &c);
    EXPECT_TRUE(s == 0x123456 && c == 0) << s << " " << c;
}

/* A 100 x 100 frame: the first level lands whole before any finer pixel, then the rest; one redraw per level. */
TEST_F(Pipeline, FrameRefinesLevelByLevel)
{
    ASSERT_EQ(Ray_CPU_Init(1), 1);
    Watched_Box& wb = box(5, 100, 100);
    hold_at = 2501;
    Ray_CPU_Start(5);
    ASSERT_TRUE(eventually([] { return held.load(); }));
    ASSERT_TRUE(wb.wait_draws(1));
    EXPECT_TRUE(holds(wb.box, 5, 1, 1));
    released = true;
    ASSERT_TRUE(wb.wait_draws(2));
    EXPECT_TRUE(holds(wb.box, 5, 0, 0) && cast_count.load() == 10000) << cast_count.load();
    EXPECT_TRUE(trace.has("-> Ray_Thread_Ctrl(): Dim changed 100x100") &&
                trace.has("-> Ray_Thread_Ctrl(): Start ray id:5, res:100x100"));
    EXPECT_TRUE(eventually([&] { return trace.has("-> Ray_Thread_Ray(0): Finish"); }));

    /* the same size again: no new layout, the frame starts over; then two shapes of the same N */
    trace.clear();
    Ray_CPU_Start(5);
    ASSERT_TRUE(wb.wait_draws(4));
    EXPECT_EQ(trace.count("Dim changed"), 0u);
    Watched_Box& tall = box(5, 200, 50);
    Ray_CPU_Start(5);
    ASSERT_TRUE(tall.wait_draws(2));
    Watched_Box& wide = box(5, 50, 200);
    Ray_CPU_Start(5);
    ASSERT_TRUE(wide.wait_draws(2));
    EXPECT_TRUE(holds(wide.box, 5, 0, 0) && trace.count("Dim changed") == 2u);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(wb.count() + tall.count() + wide.count(), 8);
}

/* A worker held up in a coarse task while the other finishes every finer one: its late block keeps them. */
TEST_F(Pipeline, LateCoarseBlockKeepsFinerPixels)
{
    ASSERT_EQ(Ray_CPU_Init(2), 1);
    Watched_Box& wb = box(5, 100, 100);
    hold_at = 2400;
    Ray_CPU_Start(5);
    ASSERT_TRUE(eventually([] { return held.load(); }));
    ASSERT_TRUE(eventually([] { return cast_count.load() == 10000; }));
    released = true;
    ASSERT_TRUE(wb.wait_draws(2));
    EXPECT_TRUE(holds(wb.box, 5, 0, 0));
}

TEST_F(Pipeline, StopOneSlotThenAll)
{
    ASSERT_EQ(Ray_CPU_Init(2), 1);
    Watched_Box &a = box(3, 200, 100), &b = box(4, 200, 100);
    delay_us = 20;
    Ray_CPU_Start(3), Ray_CPU_Start(4);
    Ray_CPU_Stop(3);
    EXPECT_EQ(locked(Ray_Thread_Next[3]), -1);
    ASSERT_TRUE(b.wait_draws(3));   /* slot 4 completes; slot 3 never reaches its last level */
    EXPECT_TRUE(a.count() < 3 && Ray_Thread_Run == 1);

    int c0 = cast_count;
    Ray_CPU_Start(4);
    while (cast_count < c0 + 100) std::this_thread::yield();
    Ray_CPU_Stop(0);
    EXPECT_TRUE(Ray_Thread_Run == 0 && locked(Ray_Thread_Next[4]) == -1 && locked(Ray_Thread_Busy) == 0u);
    int seen = b.count(), a0 = a.count();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(b.count(), seen);
    delay_us = 0;
    Ray_CPU_Start(3);   /* the stopped pipeline renders again */
    ASSERT_TRUE(a.wait_draws(a0 + 3));
    EXPECT_TRUE(holds(a.box, 3, 0, 5));
}

/* A worker held in its ray while thousands of requests arrive: its pipe fills, yet nobody blocks while
 * holding the lock and every request is taken once the worker goes on. */
TEST_F(Pipeline, FullWorkerPipeNeverBlocksTheLock)
{
    ASSERT_EQ(Ray_CPU_Init(1), 1);
    Watched_Box& wb = box(6, 64, 64);
    hold_at = 1;
    Ray_CPU_Start(6);
    ASSERT_TRUE(eventually([] { return held.load(); }));
    std::atomic<bool> lock_free{false};
    std::thread helper([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        Critical_Ray_In("helper");   /* would hang if a writer held it */
        Critical_Ray_Out("helper");
        lock_free = true;
        released = true;
    });
    for (int k = 0; k < 6000; k++) Ray_CPU_Start(6);
    helper.join();
    EXPECT_TRUE(lock_free);
    Ray_CPU_Stop(0);   /* stop bytes into a full pipe do not block either */
    EXPECT_EQ(trace.count("Start ray id:6"), 6001u);
    int seen = wb.count();
    Ray_CPU_Start(6);
    ASSERT_TRUE(wb.wait_draws(seen + 2));
    Wait_For_Threads();
    EXPECT_TRUE(holds(wb.box, 6, 0, 0));
}
