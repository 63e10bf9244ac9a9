// The GPU frame: its pixel (the ray core's device form) on the CPU, refused
// block sizes, and on a device whole frames for block sizes up to 1024
// against the same frames computed on the host, word for word.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include <voxelune/voxelune.h>

#include "cpu/ray_pixel.h"
#include "core/ray_state.h"
#include "gpu/ray_cuda.h"
#include "gpu/ray_cuda_check.h"
#include "scene.h"
#include "support.h"

// With all draws 1.0 the device form casts the CPU ray of the same pixel
// (row i / w, column i % w): the same hits, samples and transparency; the
// device truncates its colour sums after every addition, so it never gets more.
TEST(GpuPixel, DeviceFormDiffersFromCpuOnlyByIntegerAccumulation)
{
    Scene_Phantom p;
    Scene_Sphere(p, 40, 36, 30), Scene_Install(3, p), Scene_Params();
    unsigned int phong[RAY_PHONG_SIZE];
    Ray_Phong_Build(Phong_table = phong);
    Corekit_Set_Random([] { return 1.0f; });
    Ray_Thread_Run = 1;
    Matrix_4x4 view;
    view.rot_x(0.4f), view.rot_y(-0.3f);
    Scene_Bind(3, 48, 40, view);
    std::vector<unsigned int> dev(48 * 40);
    Ray_Device_Frame_Host(3, 48, 40, p.grad, dev.data());
    int compared = 0;
    for (int i = 0; i < 48 * 40; i++) {
        unsigned int d = dev[static_cast<size_t>(i)], c = Ray_Pixel(3, i % 48, i / 48, 48, 40);
        ASSERT_EQ(d == 0, c == 0) << i;
        compared += d != 0;
        for (int k = 0; d && k < 3; k++) {
            int dk = (d >> (8 * k)) & 0xFF, ck = (c >> (8 * k)) & 0xFF;
            EXPECT_TRUE(dk <= ck && dk >= ck - 64 && d >> 24 == c >> 24) << i << " " << k;
        }
    }
    EXPECT_GT(compared, 500);
    Scene_Uninstall(3), Phong_table = nullptr;
}

#if defined(VOXELUNE_WITH_CUDA)

// A block size the kernel cannot take: one error line before any CUDA call, the box untouched.
TEST(GpuFrame, BlockSizeOutOfRangeRefused)
{
    Boxs box(8, 8);
    box.Graph_Normal[5] = 0x12345678u;
    Ray_Volume.box[3] = &box;
    for (unsigned short block : {0, 1025, 65535}) {
        Trace_Capture trace;
        Cuda_Thread_Block = block, Ray_Cuda(3);
        EXPECT_EQ(trace.count("ERROR: Ray_Cuda(id=3): the CUDA block size must be 1 to 1024"), 1u) << block;
        EXPECT_EQ(box.Graph_Normal[5], 0x12345678u);
    }
    Cuda_Thread_Block = 256, Ray_Volume.box[3] = nullptr;
}

TEST(GpuFrame, FramesEqualTheDeviceFormOnTheHost)
{
    int devices = 0;
    if (cudaGetDeviceCount(&devices) != cudaSuccess || devices == 0) GTEST_SKIP() << "no CUDA device";
    Ray_Init(2), Corekit_Set_Cuda_Permission(1);
    Scene_Phantom p;
    Scene_Sphere(p, 64, 56, 48);
    const int s = 7;
    Ray_Set_Volume(s, 64, 56, 48, p.gli.data(), p.tag.data());
    ASSERT_EQ(Ray_Volume.use_cuda[s], 1u);
    EXPECT_EQ(Ray_Set_Volume(s, 64, 56, 48, nullptr, nullptr), 0);  /* no host gradients: queries answer 0 */
    Scene_Params();

    // name, w, h, block, col_mode, threshold, rotation, scale, depth clip, clip box
    const struct { const char* name; int w, h; unsigned short block; unsigned char col_mode; float threshold, rot[3],
                   scale, depth, box[6]; } scenes[] = {
        {"mode 0", 64, 64, 256, 0, 0.5f, {0, 0, 0}, 1.0f, 0.0f, {0, 1, 0, 1, 0, 1}},
        {"mode 1 rotated", 97, 61, 1, 1, 0.45f, {20, 35, -10}, 1.0f, 0.0f, {0, 1, 0, 1, 0, 1}},
        {"mode 2 bands", 33, 250, 897, 2, 0.75f, {-30, 10, 5}, 1.0f, 0.0f, {0, 1, 0, 1, 0, 1}},
        {"mode 3 scaled", 128, 96, 1024, 3, 0.5f, {10, -50, 0}, 1.7f, 0.0f, {0, 1, 0, 1, 0, 1}},
        {"mode 4 clip box", 120, 120, 1000, 4, 0.6f, {25, 25, 0}, 1.0f, 0.0f, {0.2f, 0.9f, 0.1f, 0.7f, 0, 1}},
        {"mode 5 draws nothing", 50, 40, 33, 5, 0.5f, {0, 90, 0}, 1.0f, 0.0f, {0, 1, 0.3f, 1, 0, 0.6f}},
        {"depth clip", 100, 80, 960, 1, 0.5f, {5, 15, 0}, 0.8f, 0.45f, {0, 1, 0, 1, 0, 1}},
    };
    for (const auto& sc : scenes) {
        SCOPED_TRACE(sc.name);
        Cuda_Thread_Block = sc.block;
        Ray_Set_Color_Scheme(sc.col_mode), Ray_Set_Threshold(sc.threshold), Ray_Set_Rotation(sc.rot[0], sc.rot[1], sc.rot[2]);
        Matrix_4x4 v = Ray_Params.view_transfo;
        v.scale(sc.scale, sc.scale, sc.scale);
        Ray_Set_Transfo(&v), Ray_Set_Clip(sc.depth);
        Ray_Set_Clip(s, sc.box[0], sc.box[1], sc.box[2], sc.box[3], sc.box[4], sc.box[5]);
        Watched_Box box(sc.w, sc.h);
        std::fill(box.box.Graph_Normal, box.box.Graph_Normal + sc.w * sc.h, 0xDEADBEEFu);   /* all must be written */
        Ray_Start(&box.box, s);
        EXPECT_EQ(box.count(), 0);   /* a GPU frame does not call Draw */
        std::vector<unsigned int> want(static_cast<size_t>(sc.w) * sc.h);
        Ray_Device_Frame_Host(s, sc.w, sc.h, nullptr, want.data());
        EXPECT_TRUE(std::equal(want.begin(), want.end(), box.box.Graph_Normal));
    }
    Cuda_Thread_Block = 256, Ray_Exit();
}

#endif
