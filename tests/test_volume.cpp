/* Volume registration: store, query, clear, the GPU or CPU choice, refusals. */
#include <gtest/gtest.h>

#include <vector>

#include <voxelune/voxelune.h>

#include "core/ray_state.h"
#include "gpu/ray_cuda_check.h"
#include "support.h"

namespace {

struct Volume {
    int nx, ny, nz;
    std::vector<float> gli;
    std::vector<unsigned char> tag;
    Volume(int x, int y, int z) : nx(x), ny(y), nz(z), gli(size_t(x) * y * z), tag(size_t(x) * y * z)
    {
        for (size_t i = 0; i < gli.size(); i++) gli[i] = float(i % 7) * 0.1f;
    }
    int reg(unsigned short id) { return Ray_Set_Volume(id, nx, ny, nz, gli.data(), tag.data()); }
};

int query(unsigned short id, int x, int y, int z) { return Ray_Set_Volume(id, x, y, z, nullptr, nullptr); }

int g_hook_calls;
uint64_t g_free_bytes;
uint64_t fake_free() { g_hook_calls++; return g_free_bytes; }

} // namespace

TEST(Volume, QuerySemantics)
{
    Corekit_Set_Cuda_Permission(0);
    Volume v(6, 5, 4);
    Trace_Capture cap;
    EXPECT_EQ(query(3, 6, 5, 4), 0);
    EXPECT_EQ(v.reg(3), 1);
    EXPECT_EQ(query(3, 6, 5, 4), 1);
    EXPECT_EQ(query(35, 6, 5, 4), 1);    /* 35 & 31 = 3 */
    EXPECT_EQ(query(3, 6, 5, 5), 0);
    EXPECT_EQ(query(4, 6, 5, 4), 0);
    EXPECT_TRUE(cap.has(">>> in  Voxelune: Ray_Set_Volume(id=35)"));
    EXPECT_TRUE(cap.has("<<< out Voxelune: Ray_Set_Volume(querry->1)"));
    EXPECT_TRUE(cap.has("<<< out Voxelune: Ray_Set_Volume(querry->0)"));
    EXPECT_TRUE(cap.has("<<< out Voxelune: Ray_Set_Volume(done)"));
    EXPECT_EQ(Ray_Volume.use_cuda[3], 0u);
    ASSERT_NE(Ray_Volume.grad[3], nullptr);
    for (int k = 0; k < 4; k++) EXPECT_NE(Ray_Volume.grad[3][k], nullptr);
    EXPECT_EQ(Ray_Volume.gli[3], v.gli.data());   /* kept by pointer, not copied */
}

TEST(Volume, ClearReleasesAndReportsNoX)
{
    Corekit_Set_Cuda_Permission(0);
    Volume v(4, 4, 4);
    v.reg(37);
    Trace_Capture cap;
    EXPECT_EQ(Ray_Set_Volume(5, 0, 0, 0, nullptr, nullptr), 1);
    EXPECT_TRUE(cap.has("<<< out Voxelune: Ray_Set_Volume(!x)"));
    EXPECT_EQ(Ray_Volume.grad[5], nullptr);
    EXPECT_EQ(query(5, 4, 4, 4), 0);
    /* registering again replaces the old gradient block (no leak under ASan) */
    v.reg(5);
    v.reg(5);
    EXPECT_EQ(query(5, 4, 4, 4), 1);
}

TEST(Volume, PermissionRefusedNeverAsksTheDevice)
{
    Corekit_Set_Cuda_Permission(0);
    Ray_Gpu_Free_Memory_Hook = fake_free;
    g_free_bytes = ~0ull;
    Volume v(3, 3, 3);
    v.reg(1);
    EXPECT_EQ(Ray_Volume.use_cuda[1], 0u);
    EXPECT_EQ(Ray_Cuda_GLI[1], nullptr);
    Ray_Gpu_Free_Memory_Hook = nullptr;
}

TEST(Volume, DeviceNeedsMoreThanTwentyOneBytesPerVoxelPlusOneMiB)
{
    Corekit_Set_Cuda_Permission(1);
    Ray_Gpu_Free_Memory_Hook = fake_free;
    Volume v(2, 2, 2);
    /* exactly the threshold: the CPU (and the preprocessing stays on the CPU too) */
    g_free_bytes = 21 * 8 + 1048576;
    v.reg(2);
    EXPECT_EQ(Ray_Volume.use_cuda[2], 0u);
    EXPECT_EQ(query(2, 2, 2, 2), 1);
    Ray_Gpu_Free_Memory_Hook = nullptr;
}

TEST(VolumeDeathTest, OneByteMoreGoesToTheDevice)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    /* With no device here the first upload fails, which is fatal: that
       failure shows the registration chose the GPU.  The smoothing and the
       gradient ask first; they are told there is nothing free. */
    EXPECT_EXIT(
        {
            Corekit_Set_Cuda_Permission(1);
            Ray_Gpu_Free_Memory_Hook = [] { return ++g_hook_calls <= 2 ? uint64_t(0) : uint64_t(21 * 8 + 1048576 + 1); };
            Volume v(2, 2, 2);
            v.reg(2);
        },
        testing::ExitedWithCode(0), "cudaMalloc\\[Ray_Cuda_GLI\\]");
}

TEST(Volume, RefusedRegistrationsChangeNothing)
{
    Corekit_Set_Cuda_Permission(0);
    Volume v(4, 3, 2);
    v.reg(9);
    float** grad = Ray_Volume.grad[9];
    Trace_Capture cap;
    float g = 0;
    EXPECT_EQ(Ray_Set_Volume(9, -4, 3, 2, &g, v.tag.data()), 1);
    EXPECT_EQ(Ray_Set_Volume(9, 4, -3, 2, &g, v.tag.data()), 1);
    EXPECT_EQ(Ray_Set_Volume(9, 4096, 4096, 256, &g, v.tag.data()), 1);  /* 2^32 voxels */
    EXPECT_EQ(Ray_Set_Volume(9, 65536, 32768, 1, &g, v.tag.data()), 1);   /* 2^31 voxels */
    EXPECT_EQ(Ray_Set_Volume(9, 4, 3, 2, v.gli.data(), nullptr), 1);
    size_t errors = 0;
    for (auto& l : cap.lines())
        if (l.flags == 2u) errors++;
    EXPECT_EQ(errors, 5u);
    EXPECT_EQ(Ray_Volume.grad[9], grad);
    EXPECT_EQ(Ray_Volume.dim_x[9], 4);
    EXPECT_EQ(query(9, 4, 3, 2), 1);
}

TEST(Volume, ZeroSizedDimensionIsHarmless)
{
    Corekit_Set_Cuda_Permission(0);
    float g = 1;
    unsigned char t = 0;
    EXPECT_EQ(Ray_Set_Volume(4, 3, 0, 2, &g, &t), 1);
    EXPECT_EQ(Ray_Volume.dim_y[4], 0);
}
