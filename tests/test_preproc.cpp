/*
 * test_preproc.cpp - smoothing and gradients of a volume: values on known
 * volumes, the fast CPU path against the plain per-voxel loop, the choice
 * between GPU and CPU, trace lines and allocation failures.
 */
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "core/ray_state.h"
#include "gpu/ray_cuda_check.h"
#include "gpu/ray_gradient.h"
#include "gpu/ray_gradient_int.h"
#include "support.h"

namespace {

struct Dims {
    int x, y, z;
    int n() const { return x * y * z; }
};

/* Values of varied sign and magnitude, so that the order of additions shows. */
std::vector<float> Random_Volume(Dims d, unsigned salt)
{
    std::mt19937 gen(salt);
    std::uniform_real_distribution<float> mant(-1.0f, 1.0f);
    std::uniform_int_distribution<int> expo(-6, 10);
    std::vector<float> v(d.n());
    for (float& f : v) f = std::ldexp(mant(gen), expo(gen));
    return v;
}

struct Grad_Set {
    std::vector<float> a, x, y, z;
    float* ptr[4];
    explicit Grad_Set(int n) : a(n, -7.0f), x(n, -7.0f), y(n, -7.0f), z(n, -7.0f)
    {
        ptr[0] = a.data(), ptr[1] = x.data(), ptr[2] = y.data(), ptr[3] = z.data();
    }
};

bool Same_Bits(const float* p, const float* q, int n)
{
    return std::memcmp(p, q, sizeof(float) * static_cast<size_t>(n)) == 0;
}

uint64_t g_free_bytes = 0;
uint64_t Fake_Free() { return g_free_bytes; }

/* The CPU path, chosen explicitly. */
class Preproc : public ::testing::Test {
protected:
    void SetUp() override { Corekit_Set_Cuda_Permission(0); }
};

}  // namespace

TEST_F(Preproc, WeightTableBuiltOnceOnFirstFilter)
{
    EXPECT_EQ(Ray_Filter_Radius, 0);
    float v = 1.0f;
    float* out = Ray_Vol_Filter(1, 1, 1, &v);
    ASSERT_NE(out, nullptr);
    Ray_Vol_Release(out);
    EXPECT_EQ(Ray_Filter_Radius, 2);

    float sum = 0.0f;
    for (int a = -2; a <= 2; a++)
        for (int b = -2; b <= 2; b++)
            for (int c = -2; c <= 2; c++) {
                float w = Ray_Filter_Kern[(a + 2) * 25 + (b + 2) * 5 + (c + 2)];
                EXPECT_EQ(w, expf(-static_cast<float>(a * a + b * b + c * c) * 0.25f));
                sum += w;
            }
    EXPECT_EQ(Ray_Filter_Kern[62], 1.0f);
    EXPECT_NEAR(sum, 35.72f, 0.01f);
    /* Slowest index is the z offset: (a=-2, b=0, c=0) differs from (0, 0, -2) only by position. */
    EXPECT_EQ(Ray_Filter_Kern[Ray_Kern_Index(-2, 0, 0)], Ray_Filter_Kern[Ray_Kern_Index(0, 0, -2)]);
    EXPECT_EQ(Ray_Kern_Index(-2, -1, 1), 0 * 25 + 1 * 5 + 3);
}

TEST_F(Preproc, ConstantVolumeKeepsLevelAndHasNoGradient)
{
    const Dims d = {9, 6, 4};
    for (float level : {2.0f, 3.25f}) {
        std::vector<float> v(d.n(), level);
        float* mean = Ray_Vol_Filter(d.x, d.y, d.z, v.data());
        ASSERT_NE(mean, nullptr);
        for (int i = 0; i < d.n(); i++) {
            if (level == 2.0f)
                ASSERT_EQ(mean[i], level) << i;   /* power of two: every step exact */
            else
                ASSERT_NEAR(mean[i], level, 4e-6f) << i;
        }
        Ray_Vol_Release(mean);

        float** g = Ray_Vol_Gradient(d.x, d.y, d.z, v.data());
        ASSERT_NE(g, nullptr);
        for (int k = 0; k < 4; k++)
            for (int i = 0; i < d.n(); i++) ASSERT_EQ(g[k][i], 0.0f) << k << " " << i;
        Ray_Grad_Release(g);
    }
}

TEST_F(Preproc, RampAlongXGradient)
{
    const Dims d = {8, 6, 5};
    std::vector<float> v(d.n());
    for (int i = 0; i < d.n(); i++) v[i] = static_cast<float>(i % d.x);
    float** g = Ray_Vol_Gradient(d.x, d.y, d.z, v.data());
    ASSERT_NE(g, nullptr);
    auto at = [&](int k, int x, int y, int z) { return g[k][(z * d.y + y) * d.x + x]; };

    for (int z = 1; z < d.z - 1; z++)
        for (int y = 1; y < d.y - 1; y++)
            for (int x = 1; x < d.x - 1; x++) {
                ASSERT_EQ(at(0, x, y, z), 6.0f);
                ASSERT_EQ(at(1, x, y, z), -1.0f);
                ASSERT_EQ(at(2, x, y, z), 0.0f);
                ASSERT_EQ(at(3, x, y, z), 0.0f);
            }
    /* x faces: the missing neighbour takes the voxel's own value, one-sided difference. */
    EXPECT_EQ(at(0, 0, 2, 2), 3.0f);
    EXPECT_EQ(at(0, d.x - 1, 2, 2), 3.0f);
    EXPECT_EQ(at(1, 0, 2, 2), -1.0f);
    /* y face: the two edge differences across it vanish. */
    EXPECT_EQ(at(0, 3, 0, 2), 5.0f);
    EXPECT_EQ(at(2, 3, 0, 2), 0.0f);
    /* x and y face together: gx = -2.5, gy = -0.5 before normalisation. */
    float mag = sqrtf(6.5f);
    EXPECT_EQ(at(0, 0, 0, 2), mag);
    EXPECT_EQ(at(1, 0, 0, 2), -2.5f * (1.0f / mag));
    EXPECT_EQ(at(2, 0, 0, 2), -0.5f * (1.0f / mag));
    EXPECT_EQ(at(3, 0, 0, 2), 0.0f);
    Ray_Grad_Release(g);
}

/* The gradient's sums are taken in their written order (checked on random values). */
TEST_F(Preproc, GradientSummationOrder)
{
    const Dims d = {6, 5, 4};
    std::vector<float> v = Random_Volume(d, 7);
    float** g = Ray_Vol_Gradient(d.x, d.y, d.z, v.data());
    ASSERT_NE(g, nullptr);
    const int probes[][3] = {{2, 2, 1}, {3, 1, 2}, {0, 2, 2}, {5, 4, 3}};
    for (const int* p : probes) {
        const int x = p[0], y = p[1], z = p[2], i = (z * d.y + y) * d.x + x;
        auto S = [&](int a, int b, int c) {
            int xx = x + a, yy = y + b, zz = z + c;
            if (xx < 0 || xx >= d.x || yy < 0 || yy >= d.y || zz < 0 || zz >= d.z) return v[i];
            return v[(zz * d.y + yy) * d.x + xx];
        };
        float gx = (S(-1, 0, 0) - S(1, 0, 0)) +
                   0.5f * ((((S(-1, -1, 0) - S(1, -1, 0)) + (S(-1, 1, 0) - S(1, 1, 0))) +
                            (S(-1, 0, -1) - S(1, 0, -1))) + (S(-1, 0, 1) - S(1, 0, 1)));
        float gy = (S(0, -1, 0) - S(0, 1, 0)) +
                   0.5f * ((((S(-1, -1, 0) - S(-1, 1, 0)) + (S(1, -1, 0) - S(1, 1, 0))) +
                            (S(0, -1, -1) - S(0, 1, -1))) + (S(0, -1, 1) - S(0, 1, 1)));
        float gz = (S(0, 0, -1) - S(0, 0, 1)) +
                   0.5f * ((((S(-1, 0, -1) - S(-1, 0, 1)) + (S(1, 0, -1) - S(1, 0, 1))) +
                            (S(0, -1, -1) - S(0, -1, 1))) + (S(0, 1, -1) - S(0, 1, 1)));
        float mag = sqrtf(gx * gx + gy * gy + gz * gz);
        float inv = 1.0f / mag;
        const float expect[4] = {mag, gx * inv, gy * inv, gz * inv};
        for (int k = 0; k < 4; k++) EXPECT_TRUE(Same_Bits(&g[k][i], &expect[k], 1)) << i << " " << k;
    }
    Ray_Grad_Release(g);
}

TEST_F(Preproc, SingleVoxelAndEmptyVolume)
{
    float v = -17.375f;
    float* mean = Ray_Vol_Filter(1, 1, 1, &v);
    ASSERT_NE(mean, nullptr);
    EXPECT_EQ(mean[0], v);
    Ray_Vol_Release(mean);
    float** g = Ray_Vol_Gradient(1, 1, 1, &v);
    ASSERT_NE(g, nullptr);
    for (int k = 0; k < 4; k++) EXPECT_EQ(g[k][0], 0.0f);
    Ray_Grad_Release(g);

    /* No slice: nothing computed, a buffer still returned. */
    Trace_Capture trace;
    mean = Ray_Vol_Filter(4, 4, 0, nullptr);
    EXPECT_NE(mean, nullptr);
    Ray_Vol_Release(mean);
    g = Ray_Vol_Gradient(4, 4, 0, nullptr);
    EXPECT_NE(g, nullptr);
    Ray_Grad_Release(g);
    EXPECT_TRUE(trace.has("<<< out Voxelune: Ray_Vol_Filter(done)"));
    EXPECT_TRUE(trace.has("<<< out Voxelune: Ray_Vol_Gradient(done)"));
}

/* The fast CPU path, at every thread count, equals the per-voxel loop bit for bit. */
TEST_F(Preproc, FastPathBitIdenticalToScalar)
{
    Ray_Filter_Kern_Build();
    const Dims sizes[] = {{1, 1, 1}, {7, 5, 3}, {33, 17, 9}, {3, 40, 6}, {5, 2, 7},
                          {6, 1, 1}, {2, 9, 11}, {64, 33, 20}};
    unsigned salt = 1;
    for (Dims d : sizes) {
        SCOPED_TRACE(testing::Message() << d.x << "x" << d.y << "x" << d.z);
        std::vector<float> v = Random_Volume(d, salt++);
        std::vector<float> ref(d.n());
        Ray_Vol_Filter_Scalar(d.x, d.y, d.z, v.data(), ref.data());
        Grad_Set gref(d.n());
        Ray_Vol_Gradient_Scalar(d.x, d.y, d.z, v.data(), gref.ptr);

        for (int threads : {1, 3}) {
            std::vector<float> out(d.n(), -7.0f);
            Ray_Vol_Filter_Cpu(d.x, d.y, d.z, v.data(), out.data(), threads);
            EXPECT_TRUE(Same_Bits(out.data(), ref.data(), d.n())) << threads;
            Grad_Set g(d.n());
            Ray_Vol_Gradient_Cpu(d.x, d.y, d.z, v.data(), g.ptr, threads);
            for (int k = 0; k < 4; k++)
                EXPECT_TRUE(Same_Bits(g.ptr[k], gref.ptr[k], d.n())) << threads << " " << k;
        }

        /* The kernels' form: coordinates from the voxel number, per-voxel functions. */
        unsigned int dim[3] = {unsigned(d.x), unsigned(d.y), unsigned(d.z)};
        for (int i = 0; i < d.n(); i++) {
            short x, y, z;
            Ray_Voxel_Coords(i, dim, &x, &y, &z);
            ASSERT_EQ(Ray_Voxel_Index(d.x, d.y, x, y, z), i);
            float f = Ray_Filter_Voxel(Ray_Filter_Kern, v.data(), d.x, d.y, d.z, x, y, z);
            Ray_Grad_Out o = Ray_Grad_Voxel(v.data(), d.x, d.y, d.z, x, y, z, v[i]);
            ASSERT_TRUE(Same_Bits(&f, &ref[i], 1)) << i;
            ASSERT_TRUE(Same_Bits(&o.a, &gref.a[i], 1) && Same_Bits(&o.x, &gref.x[i], 1) &&
                        Same_Bits(&o.y, &gref.y[i], 1) && Same_Bits(&o.z, &gref.z[i], 1))
                << i;
        }
    }
}

TEST_F(Preproc, PublicOperationsMatchScalarOnLargeVolume)
{
    const Dims d = {130, 97, 84};   /* several threads, buffers over 4 MiB */
    std::vector<float> v = Random_Volume(d, 99);
    float* mean = Ray_Vol_Filter(d.x, d.y, d.z, v.data());
    ASSERT_NE(mean, nullptr);
    std::vector<float> ref(d.n());
    Ray_Vol_Filter_Scalar(d.x, d.y, d.z, v.data(), ref.data());
    EXPECT_TRUE(Same_Bits(mean, ref.data(), d.n()));

    float** g = Ray_Vol_Gradient(d.x, d.y, d.z, mean);
    ASSERT_NE(g, nullptr);
    Grad_Set gref(d.n());
    Ray_Vol_Gradient_Scalar(d.x, d.y, d.z, mean, gref.ptr);
    for (int k = 0; k < 4; k++) EXPECT_TRUE(Same_Bits(g[k], gref.ptr[k], d.n())) << k;
    Ray_Grad_Release(g);
    Ray_Vol_Release(mean);
}

TEST_F(Preproc, TraceLines)
{
    Trace_Capture trace;
    float v[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    float* mean = Ray_Vol_Filter(2, 2, 2, v);
    float** g = Ray_Vol_Gradient(2, 2, 2, mean);
    Ray_Grad_Release(g);
    Ray_Vol_Release(mean);
    std::vector<Trace_Capture::Line> lines = trace.lines();
    ASSERT_EQ(lines.size(), 4u);
    const char* expect[] = {">>> in  Voxelune: Ray_Vol_Filter()",
                            "<<< out Voxelune: Ray_Vol_Filter(done)",
                            ">>> in  Voxelune: Ray_Vol_Gradient()",
                            "<<< out Voxelune: Ray_Vol_Gradient(done)"};
    for (int k = 0; k < 4; k++) {
        EXPECT_EQ(lines[k].text, expect[k]);
        EXPECT_EQ(lines[k].flags, 0x90002006u);
    }
}

TEST_F(Preproc, AllocationFailureReleasesAndReturnsNull)
{
    std::vector<float> v(27, 1.0f);
    Trace_Capture trace;
    Ray_Prep_Fail_Alloc_At = 1;
    EXPECT_EQ(Ray_Vol_Filter(3, 3, 3, v.data()), nullptr);
    for (int k = 1; k <= 5; k++) {   /* the block, then each of its four buffers */
        Ray_Prep_Fail_Alloc_At = k;
        EXPECT_EQ(Ray_Vol_Gradient(3, 3, 3, v.data()), nullptr) << k;
    }
    Ray_Prep_Fail_Alloc_At = 0;
    size_t errors = 0;
    for (const Trace_Capture::Line& l : trace.lines())
        if (l.flags == 1u) {
            errors++;
            EXPECT_EQ(l.text.rfind("line ", 0), 0u);
            EXPECT_NE(l.text.find(" of ray_gradient \nmemory error in new"), std::string::npos);
        }
    EXPECT_EQ(errors, 6u);
    EXPECT_EQ(trace.count("<<< out"), 0u);   /* no exit line after a failure */
}

TEST_F(Preproc, BadSizesRefused)
{
    Trace_Capture trace;
    float v[4] = {0, 0, 0, 0};
    EXPECT_EQ(Ray_Vol_Filter(-2, 2, 1, v), nullptr);
    EXPECT_EQ(Ray_Vol_Gradient(2, -2, -1, v), nullptr);
    EXPECT_EQ(Ray_Vol_Filter(2048, 2048, 1024, v), nullptr);   /* 2^32 voxels */
    EXPECT_EQ(Ray_Vol_Gradient(2, 2, 1, nullptr), nullptr);
    size_t errors = 0;
    for (const Trace_Capture::Line& l : trace.lines()) errors += l.flags == 2u;
    EXPECT_EQ(errors, 4u);
    EXPECT_EQ(trace.count("<<< out"), 0u);
}

TEST(PreprocPath, MemoryThresholds)
{
    Ray_Gpu_Free_Memory_Hook = Fake_Free;
    Corekit_Set_Cuda_Permission(1);
    const int n = 1000;
    g_free_bytes = 20000;            /* filter: n * 5 * 4 bytes, strictly more needed */
    EXPECT_EQ(Ray_Prep_Use_Gpu(n, 5, 4), 0);
    g_free_bytes = 20001;
    EXPECT_EQ(Ray_Prep_Use_Gpu(n, 5, 4), 1);
    g_free_bytes = 10000;            /* gradient: n * 10 bytes */
    EXPECT_EQ(Ray_Prep_Use_Gpu(n, 10, 1), 0);
    g_free_bytes = 10001;
    EXPECT_EQ(Ray_Prep_Use_Gpu(n, 10, 1), 1);

    /* n * 5 still fits 32 bits here, the factor 4 is applied in 64 bits. */
    const int big = 300000000;
    g_free_bytes = 6000000000ull;
    EXPECT_EQ(Ray_Prep_Use_Gpu(big, 5, 4), 0);
    g_free_bytes = 6000000001ull;
    EXPECT_EQ(Ray_Prep_Use_Gpu(big, 5, 4), 1);
    /* n * 10 wraps negative in 32 bits and widens to a huge need: CPU. */
    g_free_bytes = uint64_t(1) << 62;
    EXPECT_EQ(Ray_Prep_Use_Gpu(big, 10, 1), 0);

    /* Without the host's permission the memory is not even asked. */
    Corekit_Set_Cuda_Permission(0);
    g_free_bytes = ~uint64_t(0);
    EXPECT_EQ(Ray_Prep_Use_Gpu(n, 5, 4), 0);
    Ray_Gpu_Free_Memory_Hook = nullptr;
}

/*
 * With room on the device the GPU path is taken.  Where a device exists
 * its results equal the CPU's; elsewhere the first CUDA call fails and
 * the check ends the process with status 0.
 */
TEST(PreprocPath, GpuPathTakenAboveThreshold)
{
    Corekit_Set_Cuda_Permission(1);
    const Dims d = {13, 7, 5};
    std::vector<float> v = Random_Volume(d, 5);
    if (Ray_Gpu_Free_Memory() > uint64_t(d.n()) * 20) {
        Trace_Capture trace;
        float* mean = Ray_Vol_Filter(d.x, d.y, d.z, v.data());
        ASSERT_NE(mean, nullptr);
        std::vector<float> ref(d.n());
        Ray_Vol_Filter_Scalar(d.x, d.y, d.z, v.data(), ref.data());
        EXPECT_TRUE(Same_Bits(mean, ref.data(), d.n()));
        float** g = Ray_Vol_Gradient(d.x, d.y, d.z, mean);
        ASSERT_NE(g, nullptr);
        Grad_Set gref(d.n());
        Ray_Vol_Gradient_Scalar(d.x, d.y, d.z, mean, gref.ptr);
        for (int k = 0; k < 4; k++) EXPECT_TRUE(Same_Bits(g[k], gref.ptr[k], d.n())) << k;
        EXPECT_TRUE(trace.has("<<< out Voxelune: Ray_Vol_Filter(Cuda)"));
        EXPECT_TRUE(trace.has("<<< out Voxelune: Ray_Vol_Gradient(Cuda)"));
        Ray_Grad_Release(g);
        Ray_Vol_Release(mean);
        return;
    }
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Ray_Gpu_Free_Memory_Hook = Fake_Free;
    g_free_bytes = uint64_t(d.n()) * 20 + 1;
    EXPECT_EXIT(Ray_Vol_Filter(d.x, d.y, d.z, v.data()), ::testing::ExitedWithCode(0),
                "cudaMemcpyToSymbol\\[cst_dim\\]");
    g_free_bytes = uint64_t(d.n()) * 10 + 1;
    EXPECT_EXIT(Ray_Vol_Gradient(d.x, d.y, d.z, v.data()), ::testing::ExitedWithCode(0),
                "cudaMemcpyToSymbol\\[cst_dim\\]");
    Ray_Gpu_Free_Memory_Hook = nullptr;
}

/* Past 32767 voxels along an axis the kernels' 16-bit coordinates wrap; reads stay inside. */
TEST(PreprocPath, WrappedCoordinatesStayInside)
{
    Ray_Filter_Kern_Build();
    const int dx = 40000;
    std::vector<float> v(dx * 2, 1.0f);
    unsigned int dim[3] = {unsigned(dx), 2, 1};
    short x, y, z;
    Ray_Voxel_Coords(35000, dim, &x, &y, &z);
    EXPECT_EQ(x, static_cast<short>(35000));
    EXPECT_LT(x, 0);
    EXPECT_EQ(Ray_Filter_Voxel(Ray_Filter_Kern, v.data(), dx, 2, 1, x, y, z), 0.0f);
    Ray_Grad_Out o = Ray_Grad_Voxel(v.data(), dx, 2, 1, x, y, z, v[35000]);
    EXPECT_EQ(o.a, 0.0f);
}
