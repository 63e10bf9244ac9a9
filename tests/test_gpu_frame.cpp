/*
 * The GPU frame.  Its per-pixel code (the ray core in its device form) is
 * checked here on the CPU, and block sizes the kernel cannot take are
 * refused; with a CUDA device present, whole frames of several scenes are
 * rendered on the GPU for block sizes up to 1024 and compared, word for
 * word, with the same frames computed on the host.  Without a device those
 * cases skip.
 */
#include <gtest/gtest.h>

#include <cstdio>
#include <vector>

#include <voxelune/voxelune.h>

#include "core/ray_pixel.h"
#include "core/ray_state.h"
#include "gpu/ray_cuda.h"
#include "gpu/ray_cuda_check.h"
#include "scene.h"
#include "support.h"

namespace {

float one() { return 1.0f; }

struct Phantom_Test : testing::Test {
    Scene_Phantom p;
    void SetUp() override
    {
        Scene_Sphere(p, 40, 36, 30);
        Scene_Install(3, p);
        Scene_Params();
        Phong_table = new unsigned int[RAY_PHONG_SIZE];
        Ray_Phong_Build(Phong_table);
        Corekit_Set_Random(one);
        Ray_Thread_Run = 1;
        Critical_Ray_Create();
    }
    void TearDown() override
    {
        Scene_Uninstall(3);
        delete[] Phong_table;
        Phong_table = nullptr;
        Corekit_Set_Random(nullptr);
    }
};

} // namespace

/*
 * With all draws 1.0 the device form casts the CPU ray of the same pixel
 * (row i / w, column i % w): the same hits, samples and transparency; the
 * device truncates its colour sums after every addition, so it never gets more.
 */
TEST_F(Phantom_Test, DeviceFormDiffersFromCpuOnlyByIntegerAccumulation)
{
    Matrix_4x4 view;
    view.rot_x(0.4f);
    view.rot_y(-0.3f);
    Scene_Bind(3, 48, 40, view);
    std::vector<unsigned int> dev(48 * 40);
    Ray_Device_Frame_Host(3, 48, 40, p.grad, dev.data());
    int compared = 0;
    for (int i = 0; i < 48 * 40; i++) {
        unsigned int d = dev[static_cast<size_t>(i)], c = Ray_Pixel(3, i % 48, i / 48, 48, 40);
        ASSERT_EQ(d == 0, c == 0) << i;
        if (!d) continue;
        compared++;
        EXPECT_EQ(d >> 24, c >> 24);
        for (int k = 0; k < 3; k++) {
            int dk = (d >> (8 * k)) & 0xFF, ck = (c >> (8 * k)) & 0xFF;
            EXPECT_TRUE(dk <= ck && dk >= ck - 64) << i << " " << k;
        }
    }
    EXPECT_GT(compared, 500);
}

#if defined(VOXELUNE_WITH_CUDA)

/* A block size the kernel cannot take: one error line before any CUDA call, the box untouched. */
TEST_F(Phantom_Test, BlockSizeOutOfRangeRefused)
{
    Boxs box(8, 8);
    box.Graph_Normal[5] = 0x12345678u;
    Ray_Volume.box[3] = &box;
    for (unsigned short block : {0, 1025, 65535}) {
        Trace_Capture trace;
        Cuda_Thread_Block = block;
        EXPECT_EQ(Ray_Cuda(3), 1);
        EXPECT_EQ(trace.count("ERROR: Ray_Cuda(id=3): the CUDA block size must be 1 to 1024"), 1u) << block;
        EXPECT_EQ(box.Graph_Normal[5], 0x12345678u);
    }
    Cuda_Thread_Block = 256;
    Ray_Volume.box[3] = nullptr;
}

namespace {

bool have_device()
{
    int count = 0;
    return cudaGetDeviceCount(&count) == cudaSuccess && count > 0;
}

struct Gpu_Scene {
    const char* name;
    int w, h;
    unsigned short block;        /* Cuda_Thread_Block */
    unsigned char col_mode;
    float threshold;
    float rot[3];
    float scale;
    float depth;                 /* Ray_Set_Clip(float) */
    float box[6];                /* clip fractions */
};

} // namespace

TEST(GpuFrame, FramesEqualTheDeviceFormOnTheHost)
{
    if (!have_device()) GTEST_SKIP() << "no CUDA device";
    Ray_Init(2);
    Corekit_Set_Cuda_Permission(1);
    Scene_Phantom p;
    Scene_Sphere(p, 64, 56, 48);
    const int s = 7;
    Ray_Set_Volume(s, 64, 56, 48, p.gli.data(), p.tag.data());
    ASSERT_EQ(Ray_Volume.use_cuda[s], 1u);
    EXPECT_EQ(Ray_Set_Volume(s, 64, 56, 48, nullptr, nullptr), 0);  /* no host gradients: queries answer 0 */

    size_t n = p.gli.size();
    std::vector<float> g[4];
    float* grad[4];
    float* device[4] = {Ray_Cuda_Grad_A[s], Ray_Cuda_Grad_X[s], Ray_Cuda_Grad_Y[s], Ray_Cuda_Grad_Z[s]};
    for (int k = 0; k < 4; k++) {
        g[k].resize(n);
        grad[k] = g[k].data();
        ASSERT_EQ(cudaMemcpy(grad[k], device[k], n * 4, cudaMemcpyDeviceToHost), cudaSuccess);
    }

    unsigned short c16[4] = {0, 255, 40, 200}, c8[4] = {0, 60, 255, 200}, c0[4] = {0, 60, 40, 20};
    Ray_Set_Color_TAG(4, c16, c8, c0);
    unsigned char l0[] = {1}, l1[] = {2};
    unsigned char count[] = {1, 1}, col[] = {1, 2};
    unsigned char* list[] = {l0, l1};
    Ray_Set_Color_Map(2, count, list, col);
    Vector_4 d1(0.3f, -0.2f, 1.0f, 0), d2(-0.6f, 0.3f, 0.8f, 0), d0(0, 0, 1, 0);
    Ray_Set_Light(0, 1, 0x303030, &d0);
    Ray_Set_Light(1, 1, 0xFFFFFF, &d1);
    Ray_Set_Light(3, 1, 0x8080FF, &d2);

    const Gpu_Scene scenes[] = {
        {"mode 0", 64, 64, 256, 0, 0.5f, {0, 0, 0}, 1.0f, 0.0f, {0, 1, 0, 1, 0, 1}},
        {"mode 1 rotated", 97, 61, 1, 1, 0.45f, {20, 35, -10}, 1.0f, 0.0f, {0, 1, 0, 1, 0, 1}},
        {"mode 2 bands", 33, 250, 897, 2, 0.75f, {-30, 10, 5}, 1.0f, 0.0f, {0, 1, 0, 1, 0, 1}},
        {"mode 3 scaled", 128, 96, 1024, 3, 0.5f, {10, -50, 0}, 1.7f, 0.0f, {0, 1, 0, 1, 0, 1}},
        {"mode 4 clip box", 120, 120, 1000, 4, 0.6f, {25, 25, 0}, 1.0f, 0.0f, {0.2f, 0.9f, 0.1f, 0.7f, 0, 1}},
        {"mode 5 draws nothing", 50, 40, 33, 5, 0.5f, {0, 90, 0}, 1.0f, 0.0f, {0, 1, 0.3f, 1, 0, 0.6f}},
        {"depth clip", 100, 80, 960, 1, 0.5f, {5, 15, 0}, 0.8f, 0.45f, {0, 1, 0, 1, 0, 1}},
    };
    for (const Gpu_Scene& sc : scenes) {
        SCOPED_TRACE(sc.name);
        Cuda_Thread_Block = sc.block;
        Ray_Set_Color_Scheme(sc.col_mode);
        Ray_Set_Threshold(sc.threshold);
        Ray_Set_Rotation(sc.rot[0], sc.rot[1], sc.rot[2]);
        if (sc.scale != 1.0f) {
            Matrix_4x4 v = Ray_Params.view_transfo;
            v.scale(sc.scale, sc.scale, sc.scale);
            Ray_Set_Transfo(&v);
        }
        Ray_Set_Clip(sc.depth);
        Ray_Set_Clip(s, sc.box[0], sc.box[1], sc.box[2], sc.box[3], sc.box[4], sc.box[5]);
        Boxs box(sc.w, sc.h);
        for (int i = 0; i < sc.w * sc.h; i++) box.Graph_Normal[i] = 0xDEADBEEFu;   /* every word must be written */
        int draws = 0;
        box.draw_context = &draws;
        box.draw_handler = [](Boxs*, void* c) { (*static_cast<int*>(c))++; };
        Ray_Start(&box, s);
        EXPECT_EQ(draws, 0);
        std::vector<unsigned int> want(static_cast<size_t>(sc.w) * sc.h);
        Ray_Device_Frame_Host(s, sc.w, sc.h, grad, want.data());
        int differ = 0, lit = 0;
        for (int i = 0; i < sc.w * sc.h; i++) {
            differ += box.Graph_Normal[i] != want[static_cast<size_t>(i)];
            lit += (want[static_cast<size_t>(i)] & 0xFFFFFF) != 0;
        }
        EXPECT_EQ(differ, 0);
        std::printf("[ gpu ] %-22s %4dx%-4d block %4d: %6d lit pixels, %d differ\n", sc.name, sc.w, sc.h, sc.block,
                    lit, differ);
    }
    Cuda_Thread_Block = 256;
    Ray_Exit();
}

#endif
