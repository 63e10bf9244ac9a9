// Smoothing and gradients: known volumes, every path against the per-voxel loop bit for bit, the path choice.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "core/ray_state.h"
#include "cpu/ray_preproc_cpu.h"
#include "gpu/ray_cuda_check.h"
#include "gpu/ray_gradient.h"
#include "gpu/ray_gradient_int.h"
#include "support.h"

namespace {

struct Dims {
    int x, y, z;
    int n() const { return x * y * z; }
};

// Values of varied sign and magnitude, so that the order of additions shows.
std::vector<float> Random_Volume(Dims d, unsigned salt)
{
    std::mt19937 gen(salt);
    std::uniform_real_distribution<float> mant(-1.0f, 1.0f);
    std::uniform_int_distribution<int> expo(-6, 10);
    std::vector<float> v(d.n());
    for (float& f : v) f = std::ldexp(mant(gen), expo(gen));
    return v;
}

bool Same_Bits(const float* p, const float* q, int n) { return std::memcmp(p, q, sizeof(float) * size_t(n)) == 0; }

// Buffers for both operations' results: the smoothed volume, then grad_a .. grad_z.
struct Result {
    std::vector<float> b[5];
    float* g[4];
    explicit Result(int n)
    {
        for (int k = 0; k < 5; k++) b[k].assign(n, -7.0f);
        for (int k = 0; k < 4; k++) g[k] = b[k + 1].data();
    }
    bool same(const float* mean, float* const* grad) const   // bit for bit
    {
        bool same = Same_Bits(mean, b[0].data(), int(b[0].size()));
        for (int k = 0; k < 4; k++) same = same && Same_Bits(grad[k], g[k], int(b[0].size()));
        return same;
    }
};

// The plain per-voxel loop.
void Scalar(Dims d, const std::vector<float>& v, Result* r)
{
    Ray_Filter_Kern_Build();
    Ray_Vol_Filter_Scalar(Ray_Filter_Kern, d.x, d.y, d.z, v.data(), r->b[0].data());
    Ray_Vol_Gradient_Scalar(d.x, d.y, d.z, v.data(), r->g);
}

uint64_t g_free_bytes = 0;
uint64_t Fake_Free() { return g_free_bytes; }

}  // namespace

// Constant, ramp and single-voxel volumes; the weights are built on the first filter.
TEST(Preproc, KnownVolumes)
{
    Corekit_Set_Cuda_Permission(0);
    EXPECT_EQ(Ray_Filter_Radius, 0);
    const Dims d = {8, 6, 5};
    std::vector<float> level(d.n(), 2.0f), ramp(d.n());
    for (int i = 0; i < d.n(); i++) ramp[i] = static_cast<float>(i % d.x);

    // A power-of-two level is kept exactly, the borders included (the weights in use divide).
    float* mean = Ray_Vol_Filter(d.x, d.y, d.z, level.data());
    float sum = 0.0f;
    for (float w : Ray_Filter_Kern) sum += w;
    EXPECT_TRUE(Ray_Filter_Radius == 2 && Ray_Filter_Kern[62] == 1.0f && std::fabs(sum - 35.72f) < 0.01f);
    for (int i = 0; i < d.n(); i++) ASSERT_EQ(mean[i], 2.0f) << i;
    Ray_Vol_Release(mean);

    // Ramp along x: (6, -1, 0, 0) off the faces; a face's missing neighbours take the voxel's own value.
    float** g = Ray_Vol_Gradient(d.x, d.y, d.z, ramp.data());
    auto at = [&](int k, int x, int y, int z) { return g[k][(z * d.y + y) * d.x + x]; };
    for (int z = 1; z < d.z - 1; z++)
        for (int y = 1; y < d.y - 1; y++)
            for (int x = 1; x < d.x - 1; x++)
                ASSERT_TRUE(at(0, x, y, z) == 6.0f && at(1, x, y, z) == -1.0f && at(2, x, y, z) == 0.0f &&
                            at(3, x, y, z) == 0.0f);
    const float mag = sqrtf(6.5f);   /* x and y face: gx = -2.5, gy = -0.5 */
    const struct { int x, y, k; float want; } faces[] = {
        {0, 2, 0, 3.0f}, {7, 2, 0, 3.0f}, {0, 2, 1, -1.0f}, {3, 0, 0, 5.0f}, {3, 0, 2, 0.0f},
        {0, 0, 0, mag}, {0, 0, 1, -2.5f * (1.0f / mag)}, {0, 0, 2, -0.5f * (1.0f / mag)}, {0, 0, 3, 0.0f}};
    for (const auto& f : faces) EXPECT_EQ(at(f.k, f.x, f.y, 2), f.want) << f.x << "," << f.y << " " << f.k;
    Ray_Grad_Release(g);

    float one = -17.375f;   /* a single voxel: kept, no gradient */
    mean = Ray_Vol_Filter(1, 1, 1, &one);
    g = Ray_Vol_Gradient(1, 1, 1, &one);
    EXPECT_TRUE(mean[0] == one && g[0][0] == 0.0f && g[1][0] == 0.0f && g[2][0] == 0.0f && g[3][0] == 0.0f);
    Ray_Vol_Release(mean), Ray_Grad_Release(g);
}

// The gradient's sums in their written order, on random values (an inside and a corner voxel).
TEST(Preproc, GradientSummationOrder)
{
    const Dims d = {6, 5, 4};
    std::vector<float> v = Random_Volume(d, 7);
    float** g = Ray_Vol_Gradient(d.x, d.y, d.z, v.data());
    const int probes[][3] = {{2, 2, 1}, {5, 4, 3}};
    for (const int* p : probes) {
        const int i = (p[2] * d.y + p[1]) * d.x + p[0];
        auto S = [&](int a, int b, int c) {
            int x = p[0] + a, y = p[1] + b, z = p[2] + c;
            return x < 0 || x >= d.x || y < 0 || y >= d.y || z < 0 || z >= d.z ? v[i] : v[(z * d.y + y) * d.x + x];
        };
        float gx = (S(-1, 0, 0) - S(1, 0, 0)) + 0.5f * ((((S(-1, -1, 0) - S(1, -1, 0)) + (S(-1, 1, 0) - S(1, 1, 0))) +
                                                          (S(-1, 0, -1) - S(1, 0, -1))) + (S(-1, 0, 1) - S(1, 0, 1)));
        float gy = (S(0, -1, 0) - S(0, 1, 0)) + 0.5f * ((((S(-1, -1, 0) - S(-1, 1, 0)) + (S(1, -1, 0) - S(1, 1, 0))) +
                                                          (S(0, -1, -1) - S(0, 1, -1))) + (S(0, -1, 1) - S(0, 1, 1)));
        float gz = (S(0, 0, -1) - S(0, 0, 1)) + 0.5f * ((((S(-1, 0, -1) - S(-1, 0, 1)) + (S(1, 0, -1) - S(1, 0, 1))) +
                                                          (S(0, -1, -1) - S(0, -1, 1))) + (S(0, 1, -1) - S(0, 1, 1)));
        float mag = sqrtf(gx * gx + gy * gy + gz * gz), inv = 1.0f / mag;
        const float want[4] = {mag, gx * inv, gy * inv, gz * inv};
        for (int k = 0; k < 4; k++) EXPECT_TRUE(Same_Bits(&g[k][i], &want[k], 1)) << i << " " << k;
    }
    Ray_Grad_Release(g);
}

// The fast CPU path at every thread count, and the kernels' form, equal the per-voxel loop bit for bit.
TEST(Preproc, FastPathBitIdenticalToScalar)
{
    Corekit_Set_Cuda_Permission(0);
    const Dims sizes[] = {{1, 1, 1}, {7, 5, 3}, {33, 17, 9}, {3, 40, 6}, {6, 1, 1}, {2, 9, 11}, {130, 97, 84}};
    unsigned salt = 1;
    for (Dims d : sizes) {
        SCOPED_TRACE(testing::Message() << d.x << "x" << d.y << "x" << d.z);
        std::vector<float> v = Random_Volume(d, salt++);
        Result ref(d.n());
        Scalar(d, v, &ref);
        if (d.n() > (1 << 20)) {   /* the operations: several threads, buffers over 4 MiB */
            float* mean = Ray_Vol_Filter(d.x, d.y, d.z, v.data());
            float** g = Ray_Vol_Gradient(d.x, d.y, d.z, v.data());
            EXPECT_TRUE(ref.same(mean, g));
            Ray_Vol_Release(mean), Ray_Grad_Release(g);
            continue;
        }
        for (int threads : {1, 3}) {
            Result out(d.n());
            Ray_Vol_Filter_Cpu(Ray_Filter_Kern, d.x, d.y, d.z, v.data(), out.b[0].data(), threads);
            Ray_Vol_Gradient_Cpu(d.x, d.y, d.z, v.data(), out.g, threads);
            EXPECT_TRUE(ref.same(out.b[0].data(), out.g)) << threads;
        }
        unsigned int dim[3] = {unsigned(d.x), unsigned(d.y), unsigned(d.z)};
        for (int i = 0; i < d.n(); i++) {   // the kernels' voxel coordinates
            short x, y, z;
            Ray_Voxel_Coords(i, dim, &x, &y, &z);
            ASSERT_EQ(Ray_Voxel_Index(d.x, d.y, x, y, z), i);
        }
    }
}

// Entry and exit lines; an empty volume still gets a buffer; refusals and allocation failures.
TEST(Preproc, TracesRefusalsAndAllocationFailures)
{
    Corekit_Set_Cuda_Permission(0);
    Trace_Capture trace;
    float v[27] = {1, 2, 3, 4, 5, 6, 7, 8};
    float* mean = Ray_Vol_Filter(2, 2, 2, v);
    Ray_Grad_Release(Ray_Vol_Gradient(2, 2, 2, mean));
    Ray_Vol_Release(mean);
    EXPECT_EQ(trace.texts(), (std::vector<std::string>{">>> in  Voxelune: Ray_Vol_Filter()", "<<< out Voxelune: Ray_Vol_Filter(done)",
                                                       ">>> in  Voxelune: Ray_Vol_Gradient()", "<<< out Voxelune: Ray_Vol_Gradient(done)"}));
    for (const Trace_Capture::Line& l : trace.lines()) EXPECT_EQ(l.flags, 0x90002006u);
    float* empty = Ray_Vol_Filter(4, 4, 0, nullptr);   // no slice: nothing computed, a buffer all the same
    float** g = Ray_Vol_Gradient(4, 4, 0, nullptr);
    EXPECT_TRUE(empty && g);
    Ray_Vol_Release(empty), Ray_Grad_Release(g);

    trace.clear();
    EXPECT_EQ(Ray_Vol_Filter(-2, 2, 1, v), nullptr);
    EXPECT_EQ(Ray_Vol_Gradient(2, -2, -1, v), nullptr);
    EXPECT_EQ(Ray_Vol_Filter(2048, 2048, 1024, v), nullptr);   /* 2^32 voxels */
    EXPECT_EQ(Ray_Vol_Gradient(2, 2, 1, nullptr), nullptr);
    Ray_Prep_Fail_Alloc_At = 1;
    EXPECT_EQ(Ray_Vol_Filter(3, 3, 3, v), nullptr);
    for (int k = 1; k <= 5; k++) {   /* the block, then each of its four buffers */
        Ray_Prep_Fail_Alloc_At = k;
        EXPECT_EQ(Ray_Vol_Gradient(3, 3, 3, v), nullptr) << k;
    }
    size_t refused = 0, memory = 0;
    for (const Trace_Capture::Line& l : trace.lines()) {
        refused += l.flags == 2u;
        memory += l.flags == 1u && l.text.rfind("line ", 0) == 0 && l.text.find(" of ray_gradient \nmemory error in new") != std::string::npos;
    }
    EXPECT_TRUE(refused == 4u && memory == 6u) << refused << " " << memory;
    EXPECT_EQ(trace.count("<<< out"), 0u);
}

// The GPU or CPU choice: strictly more free memory than n * factor * unit bytes, a usable block size.
TEST(PreprocPath, MemoryThresholds)
{
    Ray_Gpu_Free_Memory_Hook = Fake_Free;
    const int big = 300000000;   /* n * 5 fits 32 bits; n * 10 wraps negative: a huge need */
    const struct { int allowed, n, factor; unsigned unit; uint64_t free; unsigned short block; int gpu; } cases[] = {
        {1, 1000, 5, 4, 20000, 256, 0},        {1, 1000, 5, 4, 20001, 256, 1},   {1, 1000, 10, 1, 10000, 256, 0},
        {1, 1000, 10, 1, 10001, 256, 1},       {1, big, 5, 4, 6000000000ull, 256, 0},
        {1, big, 5, 4, 6000000001ull, 256, 1}, {1, big, 10, 1, uint64_t(1) << 62, 256, 0},
        {0, 1000, 5, 4, ~uint64_t(0), 256, 0}, {1, 1000, 5, 4, 20001, 0, 0},   {1, 1000, 5, 4, 20001, 1025, 0},
        {1, 1000, 5, 4, 20001, 1024, 1}};
    for (const auto& c : cases) {
        Corekit_Set_Cuda_Permission(c.allowed);
        g_free_bytes = c.free, Cuda_Thread_Block = c.block;
        EXPECT_EQ(Ray_Prep_Use_Gpu(c.n, c.factor, c.unit), c.gpu) << c.n << " " << c.factor << " " << c.free;
    }
    Cuda_Thread_Block = 256, Ray_Gpu_Free_Memory_Hook = nullptr;
}

// With room on the device the GPU path is taken.  Where a device exists its
// results equal the CPU's bit for bit, for block sizes up to 1024; elsewhere
// the first CUDA call fails and the check ends the process with status 0.
TEST(PreprocPath, GpuPathBitIdentical)
{
    Corekit_Set_Cuda_Permission(1);
    const Dims d = {37, 23, 19};
    std::vector<float> v = Random_Volume(d, 5);
    if (Ray_Gpu_Free_Memory() > uint64_t(d.n()) * 20) {
        Result ref(d.n());
        Scalar(d, v, &ref);
        for (unsigned short block : {1, 96, 256, 1000, 1024}) {
            SCOPED_TRACE(block);
            Cuda_Thread_Block = block;
            Trace_Capture trace;
            float* mean = Ray_Vol_Filter(d.x, d.y, d.z, v.data());
            float** g = Ray_Vol_Gradient(d.x, d.y, d.z, v.data());
            EXPECT_TRUE(trace.has("<<< out Voxelune: Ray_Vol_Filter(Cuda)") &&
                        trace.has("<<< out Voxelune: Ray_Vol_Gradient(Cuda)"));   // the device path ran
            EXPECT_TRUE(ref.same(mean, g));
            Ray_Grad_Release(g), Ray_Vol_Release(mean);
        }
        Cuda_Thread_Block = 256;
        return;
    }
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Ray_Gpu_Free_Memory_Hook = Fake_Free, g_free_bytes = uint64_t(d.n()) * 20 + 1;
    EXPECT_EXIT(Ray_Vol_Filter(d.x, d.y, d.z, v.data()), ::testing::ExitedWithCode(0), "cudaMemcpyToSymbol\\[cst_dim\\]");
    EXPECT_EXIT(Ray_Vol_Gradient(d.x, d.y, d.z, v.data()), ::testing::ExitedWithCode(0), "cudaMemcpyToSymbol\\[cst_dim\\]");
    Ray_Gpu_Free_Memory_Hook = nullptr;
}

// Past 32767 voxels along an axis the kernels' 16-bit coordinates wrap; reads stay inside.
TEST(PreprocPath, WrappedCoordinatesStayInside)
{
    Ray_Filter_Kern_Build();
    const int dx = 40000;
    std::vector<float> v(dx * 2, 1.0f);
    unsigned int dim[3] = {unsigned(dx), 2, 1};
    short x, y, z;
    Ray_Voxel_Coords(35000, dim, &x, &y, &z);
    EXPECT_TRUE(x == static_cast<short>(35000) && Ray_Filter_Voxel(Ray_Filter_Kern, v.data(), dx, 2, 1, x, y, z) == 0.0f &&
                Ray_Grad_Voxel(v.data(), dx, 2, 1, x, y, z, v[35000]).a == 0.0f);
}
