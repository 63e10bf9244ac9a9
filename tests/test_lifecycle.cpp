/*
 * Starting and stopping the library and asking for frames through the
 * exports: worker counts, what Ray_Exit releases and keeps, refused
 * requests, the slot binding, whole frames against Ray_Pixel, and many
 * start-stop cycles that must leave no thread or descriptor behind.
 */
#include <gtest/gtest.h>
#include <voxelune/voxelune.h>


#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "cpu/ray_pixel.h"
#include "cpu/ray_dispatch.h"
#include "cpu/ray_dispatch_state.h"
#include "scene.h"
#include "support.h"

namespace {


/* The thread count to come back to; a sanitizer's helper thread starts with the first thread. */
int task_baseline()
{
    std::thread([] {}).join();
    return count_dir("/proc/self/task");
}

float zero_jitter() { return 0.0f; }

/* A registered phantom (the library's own gradient block), deterministic rays. */
Scene_Phantom register_phantom(int slot, int dim)
{
    Scene_Phantom p;
    Scene_Sphere(p, dim, dim, dim);
    Ray_Set_Volume(static_cast<unsigned short>(slot), dim, dim, dim, p.gli.data(), p.tag.data());
    Scene_Params();
    Corekit_Set_Random(&zero_jitter);
    return p;
}

/* Slot s has no task left and no worker is casting. */
bool slot_done(int s)
{
    Critical_Ray_In("test");
    bool done = Ray_Thread_Next[s] < 0 && Ray_Thread_Busy == 0;
    Critical_Ray_Out("test");
    return done;
}

template <class F>
bool eventually(F f)
{
    for (int k = 0; k < 4000 && !f(); k++) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return f();
}

/* The frame in the box equals Ray_Pixel at every pixel. */
void expect_frame(int s, Boxs& box)
{
    int bad = 0;
    std::set<unsigned int> values;
    for (int y = 0; y < box.height; y++)
        for (int x = 0; x < box.width; x++) {
            unsigned int v = box.Graph_Normal[y * box.width + x];
            bad += v != Ray_Pixel(s, x, y, box.width, box.height);
            values.insert(v);
        }
    EXPECT_EQ(bad, 0);
    EXPECT_GT(values.size(), 50u);   /* a shaded picture, not an empty one */
}

unsigned int flat_pixel(int, const Ray_View&, int, int) { return 0xFF000000u; }

}  // namespace

TEST(Lifecycle, WorkerCountIsClamped)
{
    SKIP_WITHOUT_PROC();
    int tasks0 = task_baseline();
    const unsigned short asked[] = {0, 1, 64, 1000};
    const int got[] = {1, 1, 64, 64};
    for (int k = 0; k < 4; k++) {
        EXPECT_EQ(Ray_Init(asked[k]), 1);
        EXPECT_EQ(Ray_Thread_Nb, got[k]);
        EXPECT_EQ(count_dir("/proc/self/task"), tasks0 + 2 + got[k]);
        EXPECT_EQ(Ray_Exit(), 1);
        EXPECT_EQ(count_dir("/proc/self/task"), tasks0);
    }
}

TEST(Lifecycle, SecondInitAndEarlyExitOnlyTrace)
{
    Trace_Capture trace(false);
    EXPECT_EQ(Ray_Exit(), 1);
    ASSERT_EQ(trace.lines().size(), 1u);
    EXPECT_EQ(trace.lines()[0].text, ">>> in  Voxelune: Ray_Exit()");
    Ray_Init(2);
    ASSERT_NE(Phong_table, nullptr);
    EXPECT_EQ(Phong_table[851], 0u);
    EXPECT_EQ(Phong_table[852], 1u);
    EXPECT_EQ(Phong_table[1023], 247u);
    EXPECT_EQ(trace.count("<<< out Voxelune: Ray_Init(done)"), 1u);
    trace.clear();
    EXPECT_EQ(Ray_Init(2), 1);
    /* the host thread's lines only: the new workers trace their own start meanwhile */
    std::vector<std::string> host;
    for (auto& l : trace.lines())
        if (l.text.find("Ray_Thread_") == std::string::npos) host.push_back(l.text);
    ASSERT_EQ(host.size(), 1u);
    EXPECT_EQ(host[0], ">>> in  Voxelune: Ray_Init()");
    EXPECT_EQ(trace.count(">>> in  Voxelune: Ray_Init()"), 1u);
    Ray_Exit();
    EXPECT_EQ(Phong_table, nullptr);
    EXPECT_EQ(trace.count("<<< out Voxelune: Ray_Exit(done)"), 1u);
}

TEST(Lifecycle, ExitReleasesSlotsKeepsTheRest)
{
    Ray_Init(1);
    Scene_Phantom p = register_phantom(3, 16);
    Ray_Set_Clip(3, 0.1f, 0.9f, 0.f, 1.f, 0.f, 1.f);
    Ray_Set_Threshold(0.25f);
    Watched_Box wb(40, 40);
    Ray_Start(&wb.box, 3);
    ASSERT_TRUE(wb.wait_draws(1));
    Ray_Exit();
    EXPECT_EQ(Ray_Volume.gli[3], nullptr);
    EXPECT_EQ(Ray_Volume.tag[3], nullptr);
    EXPECT_EQ(Ray_Volume.grad[3], nullptr);
    EXPECT_EQ(Ray_Volume.box_w[3], 0u);
    EXPECT_EQ(Ray_Volume.vol_flag[3], 0u);
    EXPECT_EQ(Ray_Volume.dim_z[3], 16);
    EXPECT_EQ(Ray_Volume.box[3], &wb.box);
    EXPECT_FLOAT_EQ(Ray_Volume.clip_frac_x[3][1], 0.9f);
    EXPECT_EQ(Ray_Params.threshold, 0.25f);
    Ray_Init(1);
    EXPECT_EQ(Ray_Set_Volume(3, 16, 16, 16, nullptr, nullptr), 0);
    /* a slot that Ray_Exit emptied draws an empty frame: rays find no volume */
    Trace_Capture trace(false);
    Ray_Start(&wb.box, 3);
    EXPECT_EQ(trace.count("refused"), 0u);
    EXPECT_TRUE(eventually([&] { return trace.count("Start ray id:3") == 1 && slot_done(3); }));
    Ray_Exit();
}

/* Refused requests: the entry line, one error line (flag word 2), nothing else. */
TEST(Lifecycle, RefusedRequests)
{
    Watched_Box good(20, 20);
    Boxs no_image;
    no_image.width = no_image.height = 20;
    Watched_Box flat(20, 0), negative(20, 20);
    negative.box.width = -20;
    Trace_Capture trace(true);
    Ray_Start(&good.box, 1);   /* before Ray_Init */
    Ray_Stop(1);
    Ray_Init(1);
    Scene_Phantom p = register_phantom(1, 8);
    Boxs* refused[] = {nullptr, &no_image, &flat.box, &negative.box};
    for (Boxs* b : refused) Ray_Start(b, 1);
    negative.box.width = 20;
    auto lines = trace.lines();
    std::vector<Trace_Capture::Line> kept;
    for (auto& l : lines)
        if (l.text.find("Ray_St") != std::string::npos || l.flags == RAY_TR_ERROR) kept.push_back(l);
    ASSERT_EQ(kept.size(), 12u);
    for (size_t k = 0; k < kept.size(); k += 2) {
        EXPECT_EQ(kept[k].text.rfind(">>> in  Voxelune: Ray_St", 0), 0u) << kept[k].text;
        EXPECT_EQ(kept[k + 1].flags, RAY_TR_ERROR) << kept[k + 1].text;
    }
    EXPECT_EQ(kept[2].flags, RAY_TR_RENDER);   /* Ray_Stop's entry line */
    EXPECT_EQ(Ray_Volume.box[1], nullptr);
    EXPECT_EQ(trace.count("Ray_CPU_Start"), 0u);

    /* an empty slot is no refusal: its frame is drawn, and every ray gives 0 */
    for (int k = 0; k < 400; k++) good.box.Graph_Normal[k] = 0x12345678u;
    Ray_Start(&good.box, 2);
    ASSERT_TRUE(good.wait_draws(1));
    for (int k = 0; k < 400; k++) ASSERT_EQ(good.box.Graph_Normal[k], 0u) << k;
    Ray_Exit();
}

TEST(Lifecycle, StartBindsTheSlot)
{
    Ray_Init(2);
    Ray_Dispatch_Pixel = &flat_pixel;   /* the volume below is only a size */
    std::vector<float> gli(8);
    std::vector<unsigned char> tag(8);
    float* g[4] = {gli.data(), gli.data(), gli.data(), gli.data()};
    Ray_Volume.dim_x[5] = 100, Ray_Volume.dim_y[5] = 200, Ray_Volume.dim_z[5] = 50;
    Ray_Volume.gli[5] = gli.data(), Ray_Volume.tag[5] = tag.data(), Ray_Volume.grad[5] = g;
    Ray_Set_Clip(5, 0.1f, 0.9f, 0.25f, 0.5f, 0.0f, 1.0f);
    Watched_Box wb(30, 20);
    Trace_Capture trace(true);
    Ray_Start(&wb.box, 37);
    ASSERT_TRUE(wb.wait_draws(1));
    /* the host thread's own lines: the pipeline's threads write theirs in between */
    std::vector<Trace_Capture::Line> lines;
    for (auto& l : trace.lines()) {
        bool pipeline = l.text.find("Ray_Thread_") != std::string::npos;
        bool other_lock = l.flags == RAY_TR_LOCK && l.text.find(" \"Ray_Start\"") == std::string::npos;
        if (!pipeline && !other_lock) lines.push_back(l);
    }
    ASSERT_GE(lines.size(), 5u);
    EXPECT_EQ(lines[0].text, ">>> in  Voxelune: Ray_Start(id=37)");
    EXPECT_EQ(lines[1].flags, RAY_TR_LOCK);
    EXPECT_NE(lines[1].text.find(" \"Ray_Start\""), std::string::npos);
    EXPECT_EQ(lines[2].flags, RAY_TR_LOCK);
    EXPECT_EQ(lines[3].text, ">>> in  Voxelune: Ray_CPU_Start()");
    EXPECT_EQ(trace.count("<<< out Voxelune: Ray_Start(done)"), 1u);
    EXPECT_EQ(Ray_Volume.box[5], &wb.box);
    EXPECT_EQ(Ray_Volume.box_w[5], 30u);
    EXPECT_EQ(Ray_Volume.box_h[5], 20u);
    Vector_4 o(0, 0, 0, 1), x(1, 0, 0, 1);
    o *= Ray_Volume.transfo[5];
    x *= Ray_Volume.transfo[5];
    EXPECT_FLOAT_EQ(o.x, 50.0f);
    EXPECT_FLOAT_EQ(o.y, 100.0f);
    EXPECT_FLOAT_EQ(o.z, 25.0f);
    EXPECT_NEAR(x.x, 164.5644f, 1e-4);
    const int cb[6] = {10, 90, 50, 100, 0, 50};
    for (int k = 0; k < 6; k++) EXPECT_EQ(Ray_Volume.clip_box[5][k], cb[k]);
    Ray_Volume.dim_x[5] = 10;
    Ray_Set_Clip(5, 0.0f, 0.999f, 0.25f, 0.5f, 0.0f, 1.0f);
    Ray_Start(&wb.box, 5);
    EXPECT_EQ(Ray_Volume.clip_box[5][1], 9);

    /* Ray_Stop(33) stops slot 1 only, Ray_Stop(32) every slot */
    trace.clear();
    Ray_Stop(33);
    EXPECT_EQ(Ray_Thread_Next[1], -1);
    EXPECT_EQ(Ray_Thread_Run, 1);
    Ray_Stop(32);
    EXPECT_EQ(Ray_Thread_Run, 0);
    bool found = false;
    for (auto& l : trace.lines())
        if (l.text == "<<< out Voxelune: Ray_Stop(done)") found = l.flags == RAY_TR_RENDER;
    EXPECT_TRUE(found);
    Scene_Uninstall(5);
    Ray_Exit();
    Ray_Dispatch_Pixel = &Ray_Pixel_View;
}

/* Whole frames with 1 and 3 workers: one redraw per level, the image equals Ray_Pixel. */
TEST(Lifecycle, FramesEqualRayPixel)
{
    for (unsigned short workers : {1, 3}) {
        Ray_Init(workers);
        Scene_Phantom p = register_phantom(2, 32);
        Ray_Set_Rotation(20.0f, 35.0f, 0.0f);
        Watched_Box wb(100, 80);
        Ray_Start(&wb.box, 2);
        ASSERT_TRUE(wb.wait_draws(2));
        ASSERT_TRUE(eventually([] { return slot_done(2); }));
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        EXPECT_EQ(wb.count(), 2);
        expect_frame(2, wb.box);
        Ray_Exit();
    }
}

/* A new request while the slot renders: the new view wins, whole. */
TEST(Lifecycle, RestartWhileRendering)
{
    Ray_Init(2);
    Scene_Phantom p = register_phantom(4, 48);
    Trace_Capture trace(false);
    Watched_Box wb(160, 120);
    Ray_Start(&wb.box, 4);
    ASSERT_TRUE(wb.wait_draws(1));
    Ray_Set_Rotation(0.0f, 90.0f, 0.0f);
    Ray_Start(&wb.box, 4);
    ASSERT_TRUE(eventually([&] { return trace.count("Start ray id:4") == 2 && slot_done(4); }));
    expect_frame(4, wb.box);
    Ray_Exit();
}

TEST(Lifecycle, ExitWhileRendering)
{
    int tasks0 = task_baseline(), fds0 = count_dir("/proc/self/fd");
    Ray_Init(4);
    Scene_Phantom p = register_phantom(0, 64);
    Watched_Box a(512, 512), b(300, 200);
    Ray_Start(&a.box, 0);
    Ray_Start(&b.box, 1);   /* slot 1 holds no volume: an empty frame */
    Ray_Start(&b.box, 32);
    auto t0 = std::chrono::steady_clock::now();
    Ray_Exit();
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(1));
    EXPECT_EQ(count_dir("/proc/self/task"), tasks0);
    EXPECT_EQ(count_dir("/proc/self/fd"), fds0);
}

/* 200 cycles of start, one frame, stop and exit leave nothing behind. */
TEST(Lifecycle, ManyCyclesLeaveNothing)
{
    int tasks0 = task_baseline(), fds0 = count_dir("/proc/self/fd");
    Scene_Phantom p;
    Scene_Sphere(p, 12, 12, 12);
    Scene_Params();
    for (int k = 0; k < 200; k++) {
        Ray_Init(static_cast<unsigned short>(1 + k % 3));
        Ray_Set_Volume(6, 12, 12, 12, p.gli.data(), p.tag.data());
        Watched_Box wb(48, 32);
        Ray_Start(&wb.box, 6);
        ASSERT_TRUE(wb.wait_draws(1));
        Ray_Stop(0);
        Ray_Exit();
        ASSERT_EQ(count_dir("/proc/self/task"), tasks0) << "cycle " << k;
        ASSERT_EQ(count_dir("/proc/self/fd"), fds0) << "cycle " << k;
    }
}
