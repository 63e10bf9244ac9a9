/* Volume registration: store, query, clear, the GPU or CPU choice, refusals. */
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include <voxelune/voxelune.h>

#include "core/ray_state.h"
#include "gpu/ray_cuda_check.h"
#include "support.h"

namespace {

struct Volume {
    int n[3];
    std::vector<float> gli;
    std::vector<unsigned char> tag;
    Volume(int x, int y, int z) : n{x, y, z}, gli(size_t(x) * y * z, 0.3f), tag(gli.size()) {}
    int reg(unsigned short id) { return Ray_Set_Volume(id, n[0], n[1], n[2], gli.data(), tag.data()); }
};

int query(unsigned short id, int x, int y, int z) { return Ray_Set_Volume(id, x, y, z, nullptr, nullptr); }

/* The smoothing and the gradient ask first (told: nothing free), then the registration. */
int g_asked;
uint64_t g_free_bytes;
uint64_t fake_free() { return ++g_asked <= 2 ? 0 : g_free_bytes; }

} // namespace

TEST(Volume, RegisterQueryAndClear)
{
    Corekit_Set_Cuda_Permission(0);
    Volume v(6, 5, 4);
    Trace_Capture cap;
    EXPECT_EQ(query(3, 6, 5, 4), 0);
    EXPECT_EQ(v.reg(35), 1); /* 35 & 31 = 3 */
    EXPECT_EQ(query(3, 6, 5, 4) * 100 + query(3, 6, 5, 5) * 10 + query(4, 6, 5, 4), 100);
    /* a CPU slot keeps its gradients in its render layout only, the grey levels by pointer */
    EXPECT_TRUE(!Ray_Volume.use_cuda[3] && Ray_Volume.render[3] && !Ray_Volume.grad[3] && Ray_Volume.gli[3] == v.gli.data());
    v.reg(3);                                    /* the old layout goes (no leak under ASan) */
    EXPECT_EQ(Ray_Set_Volume(3, 0, 0, 0, nullptr, nullptr), 1);
    const std::string out = "<<< out Voxelune: Ray_Set_Volume(";
    for (auto line : {out + "done)", out + "querry->1)", out + "querry->0)", out + "!x)"})
        EXPECT_TRUE(cap.has(line)) << line;
    EXPECT_TRUE(cap.has(">>> in  Voxelune: Ray_Set_Volume(id=35)"));
    EXPECT_TRUE(Ray_Volume.render[3] == nullptr && query(3, 6, 5, 4) == 0);
}

TEST(Volume, RefusedRegistrationsChangeNothing)
{
    Corekit_Set_Cuda_Permission(0);
    Volume v(4, 3, 2);
    v.reg(9);
    Ray_Render_Layout* layout = Ray_Volume.render[9];
    Trace_Capture cap;
    float g = 0;
    const int dims[][3] = {{-4, 3, 2}, {4, -3, 2}, {4096, 4096, 256}, {65536, 32768, 1}}; /* 2^32, 2^31 */
    for (auto& d : dims) EXPECT_EQ(Ray_Set_Volume(9, d[0], d[1], d[2], &g, v.tag.data()), 1);
    EXPECT_EQ(Ray_Set_Volume(9, 4, 3, 2, v.gli.data(), nullptr), 1);
    EXPECT_EQ(Ray_Set_Volume(4, 3, 0, 2, &g, v.tag.data()), 1); /* a zero-sized dimension is taken */
    EXPECT_EQ(Ray_Volume.dim_x[4], 3);
    auto lines = cap.lines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](const Trace_Capture::Line& l) { return l.flags == 2u; }), 5);
    EXPECT_TRUE(Ray_Volume.render[9] == layout && query(9, 4, 3, 2) == 1);
}

TEST(Volume, CpuUnlessAllowedAndMoreThanTwentyOneBytesPerVoxelPlusOneMiBAreFree)
{
    Ray_Gpu_Free_Memory_Hook = fake_free;
    Util_Cuda_Crash = [] { std::abort(); }; /* a device upload here must not pass as an exit(0) */
    Volume v(2, 2, 2);
    const struct { int allowed; uint64_t free; } cases[] = {{0, ~0ull}, {1, 21 * 8 + 1048576}};
    for (auto& c : cases) {
        Corekit_Set_Cuda_Permission(c.allowed);
        g_free_bytes = c.free, g_asked = 0;
        v.reg(2);
        EXPECT_TRUE(!Ray_Volume.use_cuda[2] && !Ray_Cuda_GLI[2] && query(2, 2, 2, 2) == 1) << c.allowed;
    }
    Ray_Gpu_Free_Memory_Hook = nullptr;
}

TEST(VolumeDeathTest, OneByteMoreGoesToTheDevice)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    /* With no device here the first upload fails, which is fatal: that
       failure shows the registration chose the GPU. */
    EXPECT_EXIT(
        {
            Corekit_Set_Cuda_Permission(1);
            Ray_Gpu_Free_Memory_Hook = fake_free;
            g_free_bytes = 21 * 8 + 1048576 + 1;
            Volume(2, 2, 2).reg(2);
        },
        testing::ExitedWithCode(0), "cudaMalloc\\[Ray_Cuda_GLI\\]");
}
