/*
 * The GPU frame.  Its per-pixel code (the ray core in its device form) is
 * checked here on the CPU; with a CUDA device present, whole frames of
 * several scenes are rendered on the GPU and compared, pixel by pixel,
 * with the same code run on the host, and the GPU preprocessing with the
 * CPU path.  Without a device those cases skip.
 */
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include <voxelune/voxelune.h>

#include "core/ray_device_pixel.h"
#include "cpu/ray_pixel.h"
#include "core/ray_state.h"
#include "gpu/ray_cuda_check.h"
#include "gpu/ray_gradient.h"
#include "scene.h"
#include "support.h"

namespace {

float one() { return 1.0f; }

/* The scene of slot s as the GPU frame would upload it, with host buffers. */
Ray_Scene device_scene(int s, float** grad)
{
    Ray_Scene sc;
    Ray_Scene_Slot(&sc, s, Ray_Params.threshold, Ray_Volume.clip[s]);
    const float* frac[3] = {Ray_Volume.clip_frac_x[s], Ray_Volume.clip_frac_y[s], Ray_Volume.clip_frac_z[s]};
    const int dim[3] = {Ray_Volume.dim_x[s], Ray_Volume.dim_y[s], Ray_Volume.dim_z[s]};
    for (int a = 0; a < 3; a++) {
        sc.clip_lo[a] = Ray_F2I<RAY_CPU>(static_cast<float>(dim[a]) * frac[a][0]);
        sc.clip_hi[a] = Ray_F2I<RAY_CPU>(static_cast<float>(dim[a]) * frac[a][1]);
    }
    sc.grad_a = grad[0];
    sc.grad_x = grad[1];
    sc.grad_y = grad[2];
    sc.grad_z = grad[3];
    return sc;
}

/* A GPU frame of slot s reproduced on the host. */
std::vector<unsigned int> host_device_frame(int s, int w, int h, float** grad)
{
    Ray_Scene sc = device_scene(s, grad);
    std::array<float, 16> m = Ray_Volume.transfo[s].to_float();
    std::vector<unsigned int> out(static_cast<size_t>(w) * h);
    unsigned int state = 0;
    for (int i = 0; i < w * h; i++) out[i] = Ray_Device_Pixel(i, w, h, m.data(), sc, &state);
    return out;
}

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

TEST_F(Phantom_Test, DevicePixelMapsIndexToRowAndColumn)
{
    Matrix_4x4 view;
    Scene_Bind(3, 7, 5, view);
    /* with all draws 1.0 the device form casts the CPU ray of the same pixel */
    Ray_Scene sc = device_scene(3, p.grad);
    std::array<float, 16> m = Ray_Volume.transfo[3].to_float();
    unsigned int state = 0;
    int hits = 0;
    for (int i = 0; i < 35; i++) {
        unsigned int dev = Ray_Device_Pixel(i, 7, 5, m.data(), sc, &state);
        unsigned int cpu = Ray_Pixel(3, i % 7, i / 7, 7, 5);
        EXPECT_EQ(dev == 0, cpu == 0) << i;
        if (dev) hits++;
    }
    EXPECT_GT(hits, 0);
    EXPECT_EQ(state, 2147483647u);
}

TEST_F(Phantom_Test, DeviceFormDiffersFromCpuOnlyByIntegerAccumulation)
{
    Matrix_4x4 view;
    view.rot_x(0.4f);
    view.rot_y(-0.3f);
    Scene_Bind(3, 48, 40, view);
    std::vector<unsigned int> dev = host_device_frame(3, 48, 40, p.grad);
    int compared = 0;
    for (int j = 0; j < 40; j++)
        for (int i = 0; i < 48; i++) {
            unsigned int d = dev[static_cast<size_t>(j) * 48 + i], c = Ray_Pixel(3, i, j, 48, 40);
            ASSERT_EQ(d == 0, c == 0) << i << "," << j;
            if (!d) continue;
            compared++;
            /* the same samples and transparency; the device truncates its
               colour sums after every addition, so it never gets more */
            EXPECT_EQ(d >> 24, c >> 24);
            for (int k = 0; k < 3; k++) {
                int dk = (d >> (8 * k)) & 0xFF, ck = (c >> (8 * k)) & 0xFF;
                EXPECT_LE(dk, ck);
                EXPECT_GE(dk, ck - 64);
            }
        }
    EXPECT_GT(compared, 500);
}

#if defined(VOXELUNE_WITH_CUDA)

namespace {

bool have_device()
{
    int count = 0;
    return cudaGetDeviceCount(&count) == cudaSuccess && count > 0;
}

std::vector<float> device_copy(const float* d, size_t n)
{
    std::vector<float> h(n);
    EXPECT_EQ(cudaMemcpy(h.data(), d, n * 4, cudaMemcpyDeviceToHost), cudaSuccess);
    return h;
}

struct Gpu_Scene {
    const char* name;
    int w, h;
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
    std::vector<float> ga = device_copy(Ray_Cuda_Grad_A[s], n), gx = device_copy(Ray_Cuda_Grad_X[s], n),
                       gy = device_copy(Ray_Cuda_Grad_Y[s], n), gz = device_copy(Ray_Cuda_Grad_Z[s], n);
    float* grad[4] = {ga.data(), gx.data(), gy.data(), gz.data()};

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
        {"mode 0", 64, 64, 0, 0.5f, {0, 0, 0}, 1.0f, 0.0f, {0, 1, 0, 1, 0, 1}},
        {"mode 1 rotated", 97, 61, 1, 0.45f, {20, 35, -10}, 1.0f, 0.0f, {0, 1, 0, 1, 0, 1}},
        {"mode 2 bands", 33, 250, 2, 0.75f, {-30, 10, 5}, 1.0f, 0.0f, {0, 1, 0, 1, 0, 1}},
        {"mode 3 scaled", 128, 96, 3, 0.5f, {10, -50, 0}, 1.7f, 0.0f, {0, 1, 0, 1, 0, 1}},
        {"mode 4 clip box", 120, 120, 4, 0.6f, {25, 25, 0}, 1.0f, 0.0f, {0.2f, 0.9f, 0.1f, 0.7f, 0, 1}},
        {"mode 5 draws nothing", 50, 40, 5, 0.5f, {0, 90, 0}, 1.0f, 0.0f, {0, 1, 0.3f, 1, 0, 0.6f}},
        {"depth clip", 100, 80, 1, 0.5f, {5, 15, 0}, 0.8f, 0.45f, {0, 1, 0, 1, 0, 1}},
    };
    for (const Gpu_Scene& sc : scenes) {
        SCOPED_TRACE(sc.name);
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
        int draws = 0;
        box.draw_context = &draws;
        box.draw_handler = [](Boxs*, void* c) { (*static_cast<int*>(c))++; };
        Ray_Start(&box, s);
        EXPECT_EQ(draws, 0);
        std::vector<unsigned int> want = host_device_frame(s, sc.w, sc.h, grad);
        int differ = 0, lit = 0;
        for (int i = 0; i < sc.w * sc.h; i++) {
            if (box.Graph_Normal[i] != want[static_cast<size_t>(i)]) differ++;
            if (want[static_cast<size_t>(i)] & 0xFFFFFF) lit++;
        }
        EXPECT_EQ(differ, 0);
        std::printf("[ gpu ] %-22s %4dx%-4d %6d lit pixels, %d differ\n", sc.name, sc.w, sc.h, lit, differ);
    }
    Ray_Exit();
}

TEST(GpuFrame, PreprocessingMatchesTheCpuPath)
{
    if (!have_device()) GTEST_SKIP() << "no CUDA device";
    Scene_Phantom p;
    Scene_Sphere(p, 70, 50, 40);
    Corekit_Set_Cuda_Permission(0);
    float* f_cpu = Ray_Vol_Filter(70, 50, 40, p.gli.data());
    float** g_cpu = Ray_Vol_Gradient(70, 50, 40, f_cpu);
    Corekit_Set_Cuda_Permission(1);
    float* f_gpu = Ray_Vol_Filter(70, 50, 40, p.gli.data());
    float** g_gpu = Ray_Vol_Gradient(70, 50, 40, f_cpu);
    double worst_f = 0, worst_g = 0;
    for (size_t i = 0; i < p.gli.size(); i++) {
        worst_f = std::max(worst_f, double(std::fabs(f_cpu[i] - f_gpu[i])));
        for (int k = 0; k < 4; k++) worst_g = std::max(worst_g, double(std::fabs(g_cpu[k][i] - g_gpu[k][i])));
    }
    std::printf("[ gpu ] largest difference: filter %g, gradient %g\n", worst_f, worst_g);
    EXPECT_LE(worst_f, 1e-6);
    EXPECT_LE(worst_g, 1e-5);
    Ray_Vol_Release(f_cpu);
    Ray_Vol_Release(f_gpu);
    Ray_Grad_Release(g_cpu);
    Ray_Grad_Release(g_gpu);
}

#endif
