/*
 * test_ray_core.cpp - the per-ray algorithm in both arithmetic forms:
 * ray set-up, entry test, DDA set-up, interpolation, the walk with its
 * clip flags and overlay, colour, opacity and shading, and Ray_Pixel.
 */
#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cmath>
#include <cstring>
#include <vector>

#include "core/ray_core.h"
#include "cpu/ray_pixel.h"
#include "core/ray_state.h"
#include "scene.h"
#include "support.h"

namespace {

unsigned int bits(float f)
{
    unsigned int u;
    std::memcpy(&u, &f, 4);
    return u;
}

/* A small volume with its own render parameters, outside the slot tables. */
struct Grid {
    int dim[3];
    std::vector<float> gli, ga, gx, gy, gz;
    std::vector<unsigned char> tag;
    unsigned char map_col[256] = {}, map_id[256] = {};
    unsigned int tag_col[256] = {};
    unsigned char light_status[5] = {};
    unsigned int light_color[5] = {};
    float lx[5] = {}, ly[5] = {}, lz[5] = {};
    unsigned int phong[1024];
    Ray_Scene sc{};

    Grid(int dx, int dy, int dz) : dim{dx, dy, dz}
    {
        size_t n = static_cast<size_t>(dx) * dy * dz;
        gli.assign(n, 0.0f);
        ga.assign(n, 0.0f);
        gx.assign(n, 0.0f);
        gy.assign(n, 0.0f);
        gz.assign(n, -1.0f); /* normals face an eye looking along +z or +x */
        tag.assign(n, 0);
        Ray_Phong_Build(phong);
        for (int a = 0; a < 3; a++) sc.dim[a] = dim[a];
        sc.gli = gli.data();
        sc.tag = tag.data();
        sc.grad_a = ga.data();
        sc.grad_x = gx.data();
        sc.grad_y = gy.data();
        sc.grad_z = gz.data();
        sc.clip = -1.0f;
        sc.map_col = map_col;
        sc.map_id = map_id;
        sc.tag_col = tag_col;
        sc.light_status = light_status;
        sc.light_color = light_color;
        sc.light_dir_x = lx;
        sc.light_dir_y = ly;
        sc.light_dir_z = lz;
        sc.light_stride = 1;
        sc.phong = phong;
    }
    size_t at(int x, int y, int z) const { return (static_cast<size_t>(z) * dim[1] + y) * dim[0] + x; }
    void fill(float g, float a, unsigned char t)
    {
        std::fill(gli.begin(), gli.end(), g);
        std::fill(ga.begin(), ga.end(), a);
        std::fill(tag.begin(), tag.end(), t);
    }
    /* A ray from p along d, starting inside the volume (entry 0). */
    template <int F>
    Rays ray(float px, float py, float pz, float dx, float dy, float dz) const
    {
        Rays r = {};
        const float low[3] = {0, 0, 0};
        const float high[3] = {static_cast<float>(dim[0]), static_cast<float>(dim[1]), static_cast<float>(dim[2])};
        const float p[3] = {px, py, pz}, d[3] = {dx, dy, dz};
        Ray_DDDA_Param<F>(&r, p, d, low, high);
        r.entry = 0.0f;
        for (int a = 0; a < 3; a++) {
            r.org[a] = p[a];
            r.dir[a] = d[a];
        }
        return r;
    }
};

/* Stop policy that records the voxel and last sample point at every step. */
struct Recorder {
    const Rays* ray = nullptr;
    int calls = 0;
    int stop_at = INT_MAX; /* the call that answers "stop" */
    std::vector<std::array<int, 3>> vox;
    std::vector<std::array<float, 3>> pos;
    bool operator()()
    {
        calls++;
        vox.push_back({ray->vox[0], ray->vox[1], ray->vox[2]});
        pos.push_back({ray->pos[0], ray->pos[1], ray->pos[2]});
        return calls < stop_at;
    }
};

template <int F>
unsigned int walk(Grid& g, Rays& r, Recorder* rec = nullptr)
{
    Recorder none;
    Recorder& run = rec ? *rec : none;
    run.ray = &r;
    return Ray_DDDA_Walk<F>(&r, g.sc, run);
}

const float k_low[3] = {0, 0, 0};
const float k_ten[3] = {10, 10, 10};

} // namespace

/* ------------------------------------------------------------- constants */

TEST(RayConstants, BitPatterns)
{
    EXPECT_EQ(bits(RAY_PARALLEL_EPS), 0x3951B717u);
    EXPECT_EQ(bits(RAY_ENTRY_NONE), 0xD3000000u);
    EXPECT_EQ(bits(RAY_MISS_X), 0x53000000u);
    EXPECT_EQ(bits(RAY_MISS_Y), 0x53800000u);
    EXPECT_EQ(bits(RAY_MISS_Z), 0x53C00000u);
    EXPECT_EQ(bits(RAY_MISS_BEHIND), 0x54000000u);
    EXPECT_EQ(bits(RAY_MISS_OUTSIDE), 0x54200000u);
    EXPECT_EQ(bits(RAY_DDA_TO_LEN), 0x38D1B717u);
    EXPECT_EQ(bits(RAY_WEIGHT_PER_UNIT), 0x3872231Du);
    EXPECT_NE(RAY_WEIGHT_PER_UNIT, 5.773e-5f); /* not the nearest float */
    EXPECT_EQ(bits(RAY_PLANE_ALPHA), 0x3D808081u);
    EXPECT_EQ(bits(RAY_OPAQUE), 0x3B808081u);
}

TEST(RayConstants, PhongTable)
{
    unsigned int t[1024];
    Ray_Phong_Build(t);
    for (int i = 0; i < 852; i++) ASSERT_EQ(t[i], 0u) << i;
    EXPECT_EQ(t[852], 1u);
    EXPECT_EQ(t[900], 5u);
    EXPECT_EQ(t[960], 36u);
    EXPECT_EQ(t[1000], 125u);
    EXPECT_EQ(t[1023], 247u);
    for (int i = 1; i < 1024; i++) ASSERT_LE(t[i - 1], t[i]);
}

TEST(RayConstants, TruncationOutOfRangeDiffersByForm)
{
    EXPECT_EQ(Ray_F2I<RAY_CPU>(-7.9f), -7);
    EXPECT_EQ(Ray_F2I<RAY_GPU>(-7.9f), -7);
    EXPECT_EQ(Ray_F2I<RAY_CPU>(3e9f), INT_MIN);
    EXPECT_EQ(Ray_F2I<RAY_GPU>(3e9f), INT_MAX);
    EXPECT_EQ(Ray_F2I<RAY_CPU>(-3e9f), INT_MIN);
    EXPECT_EQ(Ray_F2I<RAY_GPU>(-3e9f), INT_MIN);
    EXPECT_EQ(Ray_F2I<RAY_CPU>(NAN), INT_MIN);
    EXPECT_EQ(Ray_F2I<RAY_GPU>(NAN), 0);
    EXPECT_EQ(Ray_D2I<RAY_CPU>(2147483647.9), INT_MAX);
    EXPECT_EQ(Ray_D2I<RAY_CPU>(2147483648.0), INT_MIN);
    EXPECT_EQ(Ray_D2I<RAY_GPU>(2147483648.0), INT_MAX);
}

/* ---------------------------------------------------------- random draw */

TEST(RayRandom, InitialStateGivesOnesForever)
{
    unsigned int state = 0;
    for (int i = 0; i < 5; i++) {
        EXPECT_EQ(Cuda_Random_Float(&state), 1.0f);
        EXPECT_EQ(state, 2147483647u);
    }
}

TEST(RayRandom, MinimalStandardSequence)
{
    /* Park and Miller's check value: from 1, the 10000th state is 1043618065. */
    unsigned int state = 1;
    float first = Cuda_Random_Float(&state);
    EXPECT_EQ(state, 16807u);
    EXPECT_EQ(first, static_cast<float>(16807.0 / 1073741823.0) - 1.0f);
    for (int i = 1; i < 10000; i++) Cuda_Random_Float(&state);
    EXPECT_EQ(state, 1043618065u);
    for (int i = 0; i < 1000; i++) {
        float f = Cuda_Random_Float(&state);
        ASSERT_GT(f, -1.0f);
        ASSERT_LE(f, 1.0f);
    }
}

/* -------------------------------------------------------- pixel to ray */

TEST(RaySetup, PixelRayThroughImagePlane)
{
    const float id[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    float eye[3], d[3], inv;
    /* 640 x 480, draws of 1.0: pixel (320, 240) at (0.5 s, 0.5 s, 0). */
    Ray_Pixel_Ray(id, 320, 240, 640, 480, 1.0f, 1.0f, eye, d, &inv);
    EXPECT_EQ(eye[0], 0.0f);
    EXPECT_EQ(eye[1], 0.0f);
    EXPECT_EQ(eye[2], -2.0f);
    EXPECT_EQ(d[0], 0.5f * 0.003125f);
    EXPECT_EQ(d[1], 0.5f * 0.003125f);
    EXPECT_EQ(d[2], 2.0f);
    EXPECT_FLOAT_EQ(inv, 1.0f / std::sqrt(d[0] * d[0] + d[1] * d[1] + 4.0f));

    /* Odd width 5: W >> 1 = 2, columns 0..4 map to -2..2 (s = 2/5). */
    Ray_Pixel_Ray(id, 0, 0, 5, 3, 0.0f, 0.0f, eye, d, &inv);
    EXPECT_EQ(d[0], -2.0f * 0.4f);
    EXPECT_EQ(d[1], -1.0f * 0.4f);
    Ray_Pixel_Ray(id, 4, 2, 5, 3, 0.0f, 0.0f, eye, d, &inv);
    EXPECT_EQ(d[0], 2.0f * 0.4f);
    EXPECT_EQ(d[1], 1.0f * 0.4f);
}

TEST(RaySetup, HomogeneousDivision)
{
    /* w' = 2 everywhere: every mapped point is halved. */
    const float m[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 4, 6, 8, 2};
    float p[3];
    Ray_Map_Point(m, 2.0f, 0.0f, -2.0f, p);
    EXPECT_EQ(p[0], 3.0f);
    EXPECT_EQ(p[1], 3.0f);
    EXPECT_EQ(p[2], 3.0f);
    /* A NaN w' is "not 1": the point becomes NaN. */
    const float n[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, NAN};
    Ray_Map_Point(n, 1.0f, 1.0f, 1.0f, p);
    EXPECT_TRUE(std::isnan(p[0]));
}

/* ------------------------------------------------------ entry into volume */

TEST(RayEntry, InsideOriginIsZeroAndUnmoved)
{
    float p[3] = {5.0f, 0.0f, 9.5f};
    const float d[3] = {0.6f, 0.8f, 0.0f};
    EXPECT_EQ(Ray_DDDA_Origin<RAY_CPU>(p, d, k_low, k_ten), 0.0f);
    EXPECT_EQ(p[0], 5.0f);
    EXPECT_EQ(p[1], 0.0f);
    EXPECT_EQ(p[2], 9.5f);
}

TEST(RayEntry, EntersThroughLowFaceWithInset)
{
    float p[3] = {-4.0f, 5.5f, 5.5f};
    const float d[3] = {1.0f, 0.0f, 0.0f};
    float t = Ray_DDDA_Origin<RAY_CPU>(p, d, k_low, k_ten);
    EXPECT_EQ(t, 4.03125f);
    EXPECT_EQ(p[0], 0.03125f);
    EXPECT_EQ(p[1], 5.5f);

    float q[3] = {14.0f, 5.5f, 5.5f};
    const float e[3] = {-1.0f, 0.0f, 0.0f};
    EXPECT_EQ(Ray_DDDA_Origin<RAY_GPU>(q, e, k_low, k_ten), 4.03125f);
    EXPECT_EQ(q[0], 9.96875f);
}

TEST(RayEntry, MissCodes)
{
    const float px[3] = {0.0001f, 0.6f, 0.8f};
    float p[3] = {-1.0f, 50.0f, 50.0f}; /* x slab missed, y and z whatever */
    EXPECT_EQ(Ray_DDDA_Origin<RAY_CPU>(p, px, k_low, k_ten), RAY_MISS_X);
    float p2[3] = {10.5f, 5.0f, 5.0f};
    EXPECT_EQ(Ray_DDDA_Origin<RAY_GPU>(p2, px, k_low, k_ten), RAY_MISS_X);

    const float py[3] = {0.6f, -0.0002f, 0.8f};
    float q[3] = {-5.0f, 11.0f, 5.0f};
    EXPECT_EQ(Ray_DDDA_Origin<RAY_CPU>(q, py, k_low, k_ten), RAY_MISS_Y);

    const float pz[3] = {0.6f, 0.8f, 0.0f};
    float r[3] = {-5.0f, 5.0f, -0.5f};
    EXPECT_EQ(Ray_DDDA_Origin<RAY_CPU>(r, pz, k_low, k_ten), RAY_MISS_Z);
    /* On the slab's face the parallel ray goes on, to a point on the high face. */
    const float px1[3] = {1.0f, 0.0f, 0.0f};
    float r2[3] = {-5.0f, 5.0f, 10.0f};
    EXPECT_EQ(Ray_DDDA_Origin<RAY_CPU>(r2, px1, k_low, k_ten), RAY_MISS_OUTSIDE);
    float r3[3] = {-5.0f, 5.0f, 10.0f};
    EXPECT_EQ(Ray_DDDA_Origin<RAY_GPU>(r3, px1, k_low, k_ten), 5.03125f);

    /* Volume behind the eye. */
    const float back[3] = {-1.0f, 0.0f, 0.0f};
    float s[3] = {-3.0f, 5.0f, 5.0f};
    EXPECT_EQ(Ray_DDDA_Origin<RAY_CPU>(s, back, k_low, k_ten), RAY_MISS_BEHIND);

    /* Entry plane reached beside the volume. */
    const float diag[3] = {0.6f, 0.8f, 0.0f};
    float u[3] = {-5.0f, 20.0f, 5.0f};
    EXPECT_EQ(Ray_DDDA_Origin<RAY_CPU>(u, diag, k_low, k_ten), RAY_MISS_OUTSIDE);
}

TEST(RayEntry, HighFaceMissOnCpuOnly)
{
    /* t = 1.03125 moves y from 8.96875 to exactly 10, the high face. */
    const float d[3] = {1.0f, 1.0f, 0.0f};
    float c[3] = {-1.0f, 8.96875f, 5.0f};
    float g[3] = {-1.0f, 8.96875f, 5.0f};
    EXPECT_EQ(Ray_DDDA_Origin<RAY_CPU>(c, d, k_low, k_ten), RAY_MISS_OUTSIDE);
    EXPECT_EQ(Ray_DDDA_Origin<RAY_GPU>(g, d, k_low, k_ten), 1.03125f);
    EXPECT_EQ(g[1], 10.0f);
}

TEST(RayEntry, NegativeDirectionGapPrecisionByForm)
{
    /*
     * high - p = -16777217 lies half-way between two floats: the device
     * rounds it (to even) before going on in double, the CPU does not.
     */
    const float high[3] = {1.0f, 10.0f, 10.0f};
    const float d[3] = {-1.0f, 0.0f, 0.0f};
    float c[3] = {16777218.0f, 5.0f, 5.0f};
    float g[3] = {16777218.0f, 5.0f, 5.0f};
    EXPECT_EQ(Ray_DDDA_Origin<RAY_CPU>(c, d, k_low, high), 16777218.0f);
    EXPECT_EQ(c[0], 0.0f);
    EXPECT_EQ(Ray_DDDA_Origin<RAY_GPU>(g, d, k_low, high), RAY_MISS_OUTSIDE);
}

/* ------------------------------------------------------------- DDA set-up */

TEST(RayParam, ExampleAlongX)
{
    const float p[3] = {0.03125f, 5.5f, 5.5f};
    const float d[3] = {1.0f, 0.0f, 0.0f};
    Rays r;
    std::memset(&r, 0x5A, sizeof r);
    Ray_DDDA_Param<RAY_CPU>(&r, p, d, k_low, k_ten);
    EXPECT_EQ(r.step[0], 1);
    EXPECT_EQ(r.t_delta[0], 10000);
    EXPECT_EQ(r.t_max[0], 9687);
    EXPECT_EQ(r.t_end[0], 94687);
    EXPECT_EQ(r.vox[0], 0);
    EXPECT_EQ(r.vox[1], 5);
    EXPECT_EQ(r.vox[2], 5);
    for (int a = 1; a < 3; a++) {
        EXPECT_EQ(r.t_max[a], 536870911);
        EXPECT_EQ(r.t_end[a], 536870911);
        EXPECT_EQ(r.t_delta[a], 0);
        EXPECT_EQ(r.step[a], 0x5A5A5A5A); /* a parallel axis keeps its step */
    }
    EXPECT_EQ(r.col[0], 0.0f);
    EXPECT_EQ(r.trans, 1.0f);

    Rays g = {};
    g.trans = 0.25f;
    Ray_DDDA_Param<RAY_GPU>(&g, p, d, k_low, k_ten);
    EXPECT_EQ(g.t_max[0], 9687);
    EXPECT_EQ(g.t_end[0], 94687);
    EXPECT_EQ(g.t_max[1], 536870911);
    EXPECT_EQ(g.trans, 0.25f); /* the device form leaves col and trans alone */
}

TEST(RayParam, NegativeDirection)
{
    const float p[3] = {9.96875f, 2.25f, 5.5f};
    const float d[3] = {-1.0f, 0.0f, 0.0f};
    Rays r = {};
    Ray_DDDA_Param<RAY_CPU>(&r, p, d, k_low, k_ten);
    EXPECT_EQ(r.step[0], -1);
    EXPECT_EQ(r.t_delta[0], 10000);
    EXPECT_EQ(r.t_max[0], 9687);
    EXPECT_EQ(r.t_end[0], 94687);
    EXPECT_EQ(r.vox[0], 9);
    EXPECT_EQ(r.vox[1], 2);
}

TEST(RayParam, ObliqueAxes)
{
    /* d = (0.6, -0.8, 0): t_delta 16666 and 12500. */
    const float p[3] = {2.25f, 7.75f, 3.0f};
    const float d[3] = {0.6f, -0.8f, 0.0f};
    Rays r = {};
    Ray_DDDA_Param<RAY_CPU>(&r, p, d, k_low, k_ten);
    EXPECT_EQ(r.t_delta[0], static_cast<int>(10000.0f / 0.6f));
    EXPECT_EQ(r.t_max[0], static_cast<int>(0.75 * r.t_delta[0]));
    EXPECT_EQ(r.t_delta[1], 12500);
    EXPECT_EQ(r.t_max[1], 9375);
    EXPECT_EQ(r.t_end[1], static_cast<int>(-7.75f * (10000.0f / -0.8f)) - 6250);

    /* The distance to the next boundary is formed in double: 1 - 1e-8 is not 1. */
    const float q[3] = {2.25f, 1e-8f, 3.0f};
    const float e[3] = {0.6f, 0.8f, 0.0f};
    Ray_DDDA_Param<RAY_CPU>(&r, q, e, k_low, k_ten);
    EXPECT_EQ(r.t_max[1], 12499);
}

/* ------------------------------------------------------------ interpolation */

TEST(RayInterp, BorderLosesOutsideWeight)
{
    std::vector<float> v(1000);
    for (size_t i = 0; i < v.size(); i++) v[i] = 1.0f + 0.37f * static_cast<float>(i % 17);
    const float p[3] = {0.2f, 5.5f, 5.5f};
    float want = v[(5 * 10 + 5) * 10 + 0] * (0.2f + 0.5f);
    EXPECT_EQ(Ray_Interpolate_Linear<RAY_CPU>(p, 10, 10, 10, v.data()), want);
    EXPECT_EQ(Ray_Interpolate_Linear<RAY_GPU>(p, 10, 10, 10, v.data()), want);

    /* At a fraction of exactly 0.5 the neighbours are n (weight 1) and n + 1 (weight 0). */
    const float c[3] = {1.5f, 5.5f, 5.5f};
    EXPECT_EQ(Ray_Interpolate_Linear<RAY_CPU>(c, 10, 10, 10, v.data()), v[(5 * 10 + 5) * 10 + 1]);
    v[(5 * 10 + 5) * 10 + 2] = INFINITY; /* counts, with weight 0: inf x 0 */
    EXPECT_TRUE(std::isnan(Ray_Interpolate_Linear<RAY_CPU>(c, 10, 10, 10, v.data())));
    EXPECT_TRUE(std::isnan(Ray_Interpolate_Linear<RAY_GPU>(c, 10, 10, 10, v.data())));
}

TEST(RayInterp, NanCornerIsSkipped)
{
    std::vector<float> v(1000, 2.0f);
    const float p[3] = {4.7f, 4.7f, 4.7f}; /* corners 4 (weight 0.8) and 5 (0.2) */
    float all = Ray_Interpolate_Linear<RAY_CPU>(p, 10, 10, 10, v.data());
    EXPECT_NEAR(all, 2.0f, 1e-5f);
    v[(5 * 10 + 5) * 10 + 5] = NAN; /* the high corner, weight 0.2^3 */
    float cpu = Ray_Interpolate_Linear<RAY_CPU>(p, 10, 10, 10, v.data());
    float gpu = Ray_Interpolate_Linear<RAY_GPU>(p, 10, 10, 10, v.data());
    EXPECT_NEAR(cpu, 2.0f * (1.0f - 0.2f * 0.2f * 0.2f), 1e-5f);
    EXPECT_NEAR(gpu, cpu, 1e-5f);
}

TEST(RayInterp, FormsSumInTheirOwnArithmetic)
{
    /* Reference sums written out corner by corner, z outermost. */
    std::vector<float> v(8 * 8 * 8);
    unsigned int state = 7;
    for (float& x : v) x = Cuda_Random_Float(&state) * 1000.0f;
    int differ = 0;
    for (int k = 0; k < 2000; k++) {
        float p[3];
        for (float& c : p) c = (Cuda_Random_Float(&state) + 1.0f) * 4.0f;
        int lo[3][2];
        float w[3][2];
        for (int a = 0; a < 3; a++) {
            int n = static_cast<int>(p[a]);
            float f = p[a] - static_cast<float>(n);
            bool below = f < 0.5f;
            lo[a][0] = below ? n - 1 : n;
            lo[a][1] = below ? n : n + 1;
            w[a][0] = below ? 0.5f - f : 1.5f - f;
            w[a][1] = below ? f + 0.5f : f - 0.5f;
        }
        float cpu = 0.0f, gpu = 0.0f;
        for (int zi = 0; zi < 2; zi++)
            for (int yi = 0; yi < 2; yi++)
                for (int xi = 0; xi < 2; xi++) {
                    int x = lo[0][xi], y = lo[1][yi], z = lo[2][zi];
                    if (x < 0 || x >= 8 || y < 0 || y >= 8 || z < 0 || z >= 8) continue;
                    float val = v[static_cast<size_t>((z * 8 + y) * 8 + x)];
                    float t = val * w[0][xi] * w[1][yi];
                    cpu = cpu + t * w[2][zi];
                    gpu = std::fma(t, w[2][zi], gpu);
                }
        ASSERT_EQ(Ray_Interpolate_Linear<RAY_CPU>(p, 8, 8, 8, v.data()), cpu);
        ASSERT_EQ(Ray_Interpolate_Linear<RAY_GPU>(p, 8, 8, 8, v.data()), gpu);
        differ += cpu != gpu;
    }
    EXPECT_GT(differ, 0); /* the device's fused add is visible */
}

/* ---------------------------------------------------------------- shading */

namespace {
struct Shade_Fixture : ::testing::Test {
    Grid g{4, 4, 4};
    Rays r = {};
    void SetUp() override
    {
        r.dir[2] = 1.0f; /* looking along +z */
        g.sc.light_nb = 1;
        g.light_color[0] = 0xFFFFFFu;
    }
    unsigned int shade(unsigned int base, float nx, float ny, float nz, unsigned char flags = 7)
    {
        const float n[3] = {nx, ny, nz};
        return Ray_Color_Word(Ray_DDDA_Shade(&r, Ray_Color_Of(base), n, flags, g.sc));
    }
    void light(int i, unsigned int color, float x, float y, float z, unsigned char on = 1)
    {
        g.light_status[i] = on;
        g.light_color[i] = color;
        g.lx[i] = x;
        g.ly[i] = y;
        g.lz[i] = z;
        if (g.sc.light_nb < i + 1) g.sc.light_nb = static_cast<unsigned short>(i + 1);
    }
};
} // namespace

TEST_F(Shade_Fixture, BackFaceIsAQuarterWithNoLight)
{
    light(1, 0xFFFFFFu, 0, 0, 1);
    EXPECT_EQ(shade(0xFFFFFFu, 0, 0, 1), 0x3F3F3Fu);
    EXPECT_EQ(shade(0x0380FDu, 0.1f, 0, 0.5f), 0x00203Fu);
}

TEST_F(Shade_Fixture, AmbientOnly)
{
    EXPECT_EQ(shade(0xFFFFFFu, 0, 0, -1), 0xFEFEFEu);
    g.light_color[0] = 0x80FF00u;
    EXPECT_EQ(shade(0x204080u, 0, 0, -1), (0x20u * 0x80 >> 8) << 16 | (0x40u * 0xFF >> 8) << 8);
    EXPECT_EQ(shade(0xFFFFFFu, 0, 0, -1, 6), 0u);
}

TEST_F(Shade_Fixture, DiffuseFullFacing)
{
    g.light_color[0] = 0;
    r.dir[0] = 1.0f; /* seen edge-on: no highlight (e = 0) */
    r.dir[2] = 0.0f;
    light(1, 0xFFFFFFu, 0, 0, 1);
    EXPECT_EQ(shade(0xFFFFFFu, 0, 0, -1), 0xFDFDFDu);
    g.light_color[0] = 0xFFFFFFu;
    EXPECT_EQ(shade(0xFFFFFFu, 0, 0, -1), 0xFFFFFFu); /* 254 + 253 saturates */
    g.light_status[1] = 0;
    EXPECT_EQ(shade(0xFFFFFFu, 0, 0, -1), 0xFEFEFEu);
}

TEST_F(Shade_Fixture, SpecularIndexAndTable)
{
    g.light_color[0] = 0;
    light(1, 0xFFFFFFu, 0, 0, 1);
    /* Zero normal: no back face, d = 0, R = L, e = -(L . dir). */
    r.dir[2] = -0.9765625f; /* index 1000: entry 125, adds 124 */
    EXPECT_EQ(shade(0xFFFFFFu, 0, 0, 0), 0x7C7C7Cu);
    r.dir[2] = -0.5f; /* index 512: entry 0 */
    EXPECT_EQ(shade(0xFFFFFFu, 0, 0, 0), 0u);
    EXPECT_EQ(shade(0xFFFFFFu, 0, 0, 0, 3), 0u);

    /* e of 1 or more reads the table's last entry. */
    for (int i = 0; i < 1024; i++) g.phong[i] = static_cast<unsigned int>(i) & 0xFFu;
    r.dir[2] = -1.0f;
    EXPECT_EQ(shade(0xFFFFFFu, 0, 0, 0), 0xFEFEFEu); /* (255 * 255) >> 8 */
    r.dir[2] = -1.5f;
    EXPECT_EQ(shade(0xFFFFFFu, 0, 0, 0), 0xFEFEFEu);
    r.dir[2] = -0.9990234375f; /* index 1023 exactly */
    EXPECT_EQ(shade(0xFFFFFFu, 0, 0, 0), 0xFEFEFEu);
    r.dir[2] = -0.998046875f; /* index 1022 */
    EXPECT_EQ(shade(0xFFFFFFu, 0, 0, 0), 0xFDFDFDu);
}

TEST_F(Shade_Fixture, HighlightTakesLightColourBehindSurface)
{
    g.light_color[0] = 0;
    /* d < 0 (light from behind), yet e > 0: only the highlight, in the light's colour. */
    light(1, 0x0000FFu, 0.0f, 0.0f, -1.0f);
    r.dir[0] = 0.0f;
    r.dir[2] = 1.0f;
    /* n = (0, 0, -0.01): d = -0.01, R = (0, 0, -1 + 0.0002), e ~ 0.9998 */
    EXPECT_EQ(shade(0xFFFFFFu, 0, 0, -0.01f), (g.phong[1023] * 0xFFu) >> 8);
}

TEST_F(Shade_Fixture, DiffuseAndHighlightTogether)
{
    g.light_color[0] = 0;
    /* n = (0, 0, -1), L = (0, -0.6, 0.8): d = 0.8, R = (0, -0.6, -0.8). */
    light(1, 0xFFFFFFu, 0.0f, -0.6f, 0.8f);
    r.dir[1] = 0.28f; /* e = 0.168 + 0.768 = 0.936: index 958 */
    r.dir[2] = 0.96f;
    unsigned int k = 202u + ((g.phong[958] * 255u) >> 8); /* (255 * 255 * 204) >> 16 = 202 */
    ASSERT_GT(g.phong[958], 0u);
    EXPECT_EQ(shade(0xFFFFFFu, 0, 0, -1), k << 16 | k << 8 | k);
}

TEST_F(Shade_Fixture, LightsBeyondFiveAreNotRead)
{
    light(1, 0xFFFFFFu, 0, 0, 1);
    g.light_color[0] = 0;
    r.dir[0] = 1.0f;
    r.dir[2] = 0.0f;
    g.sc.light_nb = 60000;
    EXPECT_EQ(shade(0xFFFFFFu, 0, 0, -1), 0xFDFDFDu);
}

/* ------------------------------------------------------ colour and opacity */

TEST(RayColour, BaseColourByMode)
{
    Grid g(2, 2, 2);
    g.map_col[7] = 3;
    g.tag_col[3] = 0x123456u;
    g.sc.col_mode = 0;
    EXPECT_EQ(Ray_Base_Color(g.sc, 7), 0xFFFFFFu);
    for (int mode : {1, 2, 3, 4, 5, 255}) {
        g.sc.col_mode = static_cast<unsigned char>(mode);
        EXPECT_EQ(Ray_Base_Color(g.sc, 7), 0x123456u);
        EXPECT_EQ(Ray_Base_Color(g.sc, 8), 0xFFFFFFu);
    }
}

TEST(RayColour, OpacityByMode)
{
    Grid g(2, 2, 2);
    Ray_Scene& sc = g.sc;
    sc.threshold = 0.5f;
    sc.col_mode = 0;
    EXPECT_NEAR(Ray_Alpha(sc, 0.1f, 0.45f, 0.5f, 0, 0, 0), 0.05f, 1e-7f);
    EXPECT_EQ(Ray_Alpha(sc, 0.3f, 0.7f, 0.5f, 9, 0, 0), 0.5f); /* both clamps at 1 */
    EXPECT_EQ(Ray_Alpha(sc, 0.3f, 0.39f, 0.5f, 0, 0, 0), 0.0f);
    EXPECT_TRUE(Ray_Alpha_Needs_Grey(sc, 3));

    sc.col_mode = 3;
    EXPECT_EQ(Ray_Alpha(sc, 0.1f, 1.0f, 0.5f, 0, 0, 0), 0.0f);
    EXPECT_FLOAT_EQ(Ray_Alpha(sc, 0.1f, 0.0f, 0.5f, 4, 0, 0), 0.2f);
    EXPECT_FALSE(Ray_Alpha_Needs_Grey(sc, 0));

    sc.col_mode = 4;
    EXPECT_FLOAT_EQ(Ray_Alpha(sc, 0.4f, 0.0f, 0.5f, 4, 0, 0), 0.5f * 0.4f);
    EXPECT_NEAR(Ray_Alpha(sc, 0.1f, 0.45f, 0.5f, 0, 0, 0), 0.05f, 1e-7f);
    EXPECT_TRUE(Ray_Alpha_Needs_Grey(sc, 0));
    EXPECT_FALSE(Ray_Alpha_Needs_Grey(sc, 4));

    for (int mode : {5, 128, 255}) {
        sc.col_mode = static_cast<unsigned char>(mode);
        EXPECT_EQ(Ray_Alpha(sc, 1.0f, 1.0f, 1.0f, 4, 0, 0), 0.0f);
    }
}

TEST(RayColour, MapBandRule)
{
    Grid g(2, 2, 2);
    Ray_Scene& sc = g.sc;
    sc.col_mode = 2;
    sc.map_nb = 3;
    float B = Ray_Band_Width(sc);
    EXPECT_EQ(B, 0.5f);
    sc.threshold = 0.25f; /* rising side of band 1 */
    EXPECT_EQ(Ray_Band(sc, B, 1), 2.0f);
    EXPECT_FLOAT_EQ(Ray_Alpha(sc, 0.3f, 0.0f, 0.9f, 1, B, Ray_Band(sc, B, 1)), 0.5f * 0.6f);
    sc.threshold = 0.75f; /* falling side */
    EXPECT_EQ(Ray_Band(sc, B, 1), 2.0f);
    sc.threshold = 0.5f; /* the centre itself */
    EXPECT_EQ(Ray_Band(sc, B, 1), 4.0f);
    sc.threshold = 0.0f; /* low edge excluded, high edge included */
    EXPECT_EQ(Ray_Band(sc, B, 1), 0.0f);
    sc.threshold = 1.0f;
    EXPECT_EQ(Ray_Band(sc, B, 1), 0.0f);
    EXPECT_EQ(Ray_Band(sc, B, 2), 4.0f);

    /* Fewer than two maps: transparent. */
    for (int nb : {0, 1}) {
        sc.map_nb = static_cast<unsigned char>(nb);
        EXPECT_EQ(Ray_Alpha(sc, 1.0f, 1.0f, 1.0f, 1, 1.0f, 4.0f), 0.0f);
    }
}

/* ------------------------------------------------------------------ walk */

TEST(RayWalk, ExampleNineSamples)
{
    Grid g(10, 10, 10);
    g.fill(0.0f, 0.0f, 0);
    Rays r = g.ray<RAY_CPU>(0.03125f, 5.5f, 5.5f, 1, 0, 0);
    Recorder rec;
    EXPECT_EQ(walk<RAY_CPU>(g, r, &rec), 0xFF000000u);
    ASSERT_EQ(rec.calls, 9); /* crossings into x = 1 .. 9 */
    for (int k = 0; k < 9; k++) EXPECT_EQ(rec.vox[static_cast<size_t>(k)][0], k + 1);
    /* pos as seen at call k + 1 is sample k: mid 4843, then t_prev + 5000. */
    EXPECT_EQ(rec.pos[1][0], 0.03125f + 4843.0f * 0.0001f);
    EXPECT_EQ(rec.pos[2][0], 0.03125f + 14687.0f * 0.0001f);
    EXPECT_EQ(rec.pos[1][1], 5.5f);
    EXPECT_EQ(r.trans, 1.0f);

    /* Opacity = weight (mode 3, tagged, a = 1): the first weight is 9687 x 5.773e-5. */
    g.fill(0.0f, 1.0f, 1);
    g.map_col[1] = 1;
    g.sc.col_mode = 3;
    Rays r2 = g.ray<RAY_CPU>(0.03125f, 5.5f, 5.5f, 1, 0, 0);
    Recorder one;
    one.stop_at = 2;
    walk<RAY_CPU>(g, r2, &one);
    EXPECT_EQ(r2.trans, 1.0f - 9687.0f * RAY_WEIGHT_PER_UNIT);
}

TEST(RayWalk, TiesStepXThenYThenZ)
{
    Grid g(10, 10, 10);
    Rays r = g.ray<RAY_CPU>(5.5f, 5.5f, 5.5f, 0.6f, 0.6f, 0.52915f);
    r.t_max[0] = 5000;
    r.t_max[1] = 5000;
    r.t_max[2] = 7000;
    Recorder rec;
    rec.stop_at = 2;
    walk<RAY_CPU>(g, r, &rec);
    EXPECT_EQ(rec.vox[0], (std::array<int, 3>{6, 5, 5}));
    EXPECT_EQ(rec.vox[1], (std::array<int, 3>{6, 6, 5}));

    Rays s = g.ray<RAY_CPU>(5.5f, 5.5f, 5.5f, 0.6f, 0.6f, 0.52915f);
    s.t_max[0] = 6000;
    s.t_max[1] = 5000;
    s.t_max[2] = 5000;
    Recorder rec2;
    rec2.stop_at = 2;
    walk<RAY_CPU>(g, s, &rec2);
    EXPECT_EQ(rec2.vox[0], (std::array<int, 3>{5, 6, 5}));
    EXPECT_EQ(rec2.vox[1], (std::array<int, 3>{5, 6, 6}));
}

TEST(RayWalk, StopsAtIndexTestAndTEnd)
{
    /* A t_end far off still stops at the box: the index test ends the ray. */
    Grid g(10, 10, 10);
    Rays r = g.ray<RAY_CPU>(0.03125f, 5.5f, 5.5f, 1, 0, 0);
    r.t_end[0] = INT_MAX;
    Recorder rec;
    walk<RAY_CPU>(g, r, &rec);
    EXPECT_EQ(rec.calls, 9);
    EXPECT_EQ(r.vox[0], 10);
}

TEST(RayWalk, OpaqueFirstSampleStops)
{
    /* Mode 2, map_nb 2 (B = 1), map 1 at threshold 0.5: x = 2, a = 1: alpha 1. */
    Grid g(10, 10, 10);
    g.fill(0.0f, 1.0f, 1);
    g.map_col[1] = 1;
    g.map_id[1] = 1;
    g.tag_col[1] = 0x80FF40u;
    g.sc.col_mode = 2;
    g.sc.map_nb = 2;
    g.sc.threshold = 0.5f;
    g.sc.light_nb = 1;
    g.light_color[0] = 0xFFFFFFu;
    for (int form = 0; form < 2; form++) {
        Rays r = g.ray<RAY_CPU>(0.03125f, 5.5f, 5.5f, 1, 0, 0);
        Recorder rec;
        unsigned int px = form == 0 ? walk<RAY_CPU>(g, r, &rec) : walk<RAY_GPU>(g, r, &rec);
        EXPECT_EQ(px, 0x007FFE3Fu); /* ambient white times the tag colour, T = 0 */
        EXPECT_EQ(rec.calls, form == 0 ? 1 : 0);
    }
}

TEST(RayWalk, FormsAccumulateDifferently)
{
    /* Nine samples of colour 0xFEFEFE and opacity = weight (mode 3). */
    Grid g(10, 10, 10);
    g.fill(0.0f, 1.0f, 1);
    g.map_col[1] = 1;
    g.tag_col[1] = 0xFFFFFFu;
    g.sc.col_mode = 3;
    g.sc.light_nb = 1;
    g.light_color[0] = 0xFFFFFFu;
    float cpu = 0.0f, T = 1.0f;
    int gpu = 0;
    float Tg = 1.0f;
    int t_prev = 0;
    for (int k = 0; k < 9; k++) {
        int t = 9687 + 10000 * k;
        float w = static_cast<float>(t - t_prev) * RAY_WEIGHT_PER_UNIT;
        cpu += 254.0f * w * T;
        T *= 1.0f - w;
        gpu = static_cast<int>(static_cast<float>(gpu) + Tg * (w * 254.0f));
        Tg *= 1.0f - w;
        t_prev = t;
        if (T <= 0.003921569f) break;
    }
    unsigned int b3 = static_cast<unsigned int>(T * 255.0f);
    unsigned int bc = static_cast<unsigned int>(cpu), bg = static_cast<unsigned int>(gpu);
    ASSERT_NE(bc, bg);
    Rays rc = g.ray<RAY_CPU>(0.03125f, 5.5f, 5.5f, 1, 0, 0);
    Rays rg = g.ray<RAY_GPU>(0.03125f, 5.5f, 5.5f, 1, 0, 0);
    EXPECT_EQ(walk<RAY_CPU>(g, rc), b3 << 24 | bc << 16 | bc << 8 | bc);
    EXPECT_EQ(walk<RAY_GPU>(g, rg), b3 << 24 | bg << 16 | bg << 8 | bg);
    EXPECT_EQ(rc.col[0], cpu);
    EXPECT_EQ(rc.trans, T);
}

TEST(RayWalk, DepthClip)
{
    Grid g(10, 10, 10);
    g.fill(0.0f, 1.0f, 1);
    g.map_col[1] = 1;
    g.sc.col_mode = 3;
    g.sc.light_nb = 1;
    g.light_color[0] = 0xFFFFFFu;
    /* Beyond every sample: nothing drawn. */
    g.sc.clip = 20.0f;
    Rays r = g.ray<RAY_CPU>(0.03125f, 5.5f, 5.5f, 1, 0, 0);
    EXPECT_EQ(walk<RAY_CPU>(g, r), 0xFF000000u);
    /* Samples whose segment starts nearer than the clip are skipped. */
    const float w = 10000.0f * RAY_WEIGHT_PER_UNIT;
    g.sc.clip = 7.0f; /* only the segment from 7.9687 */
    Rays s = g.ray<RAY_CPU>(0.03125f, 5.5f, 5.5f, 1, 0, 0);
    walk<RAY_CPU>(g, s);
    EXPECT_EQ(s.trans, 1.0f - w);
    g.sc.clip = 6.0f; /* from 6.9687 and 7.9687 */
    Rays u = g.ray<RAY_CPU>(0.03125f, 5.5f, 5.5f, 1, 0, 0);
    walk<RAY_CPU>(g, u);
    EXPECT_EQ(u.trans, (1.0f - w) * (1.0f - w));
    /* A segment starting exactly at the clip distance is drawn. */
    g.sc.clip = 9687.0f * RAY_DDA_TO_LEN;
    Rays e = g.ray<RAY_CPU>(0.03125f, 5.5f, 5.5f, 1, 0, 0);
    Recorder two;
    two.stop_at = 3; /* the first two samples only */
    walk<RAY_CPU>(g, e, &two);
    EXPECT_EQ(e.trans, 1.0f - w);
}

TEST(RayWalk, MissingBuffersGiveZeroAtFirstSample)
{
    Grid g(10, 10, 10);
    const float** fields[] = {&g.sc.grad_a, &g.sc.grad_x, &g.sc.grad_y, &g.sc.grad_z, &g.sc.gli};
    for (const float** f : fields) {
        const float* keep = *f;
        *f = nullptr;
        Rays r = g.ray<RAY_CPU>(0.03125f, 5.5f, 5.5f, 1, 0, 0);
        EXPECT_EQ(walk<RAY_CPU>(g, r), 0u);
        /* A ray that ends before its first sample packs as usual. */
        Rays s = g.ray<RAY_CPU>(0.03125f, 5.5f, 5.5f, 1, 0, 0);
        Recorder rec;
        rec.stop_at = 1;
        EXPECT_EQ(walk<RAY_CPU>(g, s, &rec), 0xFF000000u);
        *f = keep;
    }
}

/* ------------------------------------------------------- clip and overlay */

namespace {
/* A transparent 20^3 volume (mode 5), so only the overlay draws. */
struct Overlay_Fixture : ::testing::Test {
    Grid g{20, 20, 20};
    void SetUp() override
    {
        g.sc.col_mode = 5;
        g.sc.light_nb = 1;
        g.light_color[0] = 0xFFFFFFu;
    }
    void planes(unsigned int vf, int xl, int xh, int yl, int yh, int zl, int zh)
    {
        g.sc.vol_flag = vf;
        g.sc.clip_lo[0] = xl;
        g.sc.clip_hi[0] = xh;
        g.sc.clip_lo[1] = yl;
        g.sc.clip_hi[1] = yh;
        g.sc.clip_lo[2] = zl;
        g.sc.clip_hi[2] = zh;
    }
    template <int F = RAY_CPU>
    unsigned int along_x(float y, float z, Recorder* rec = nullptr)
    {
        Rays r = g.ray<F>(0.03125f, y, z, 1, 0, 0);
        return walk<F>(g, r, rec);
    }
};
} // namespace

TEST_F(Overlay_Fixture, FlagsOfVoxels)
{
    planes(0x80u | 0x10u | 0x200u, 10, 0, 0, 15, 0, 0);
    const int inner[3] = {10, 5, 5};
    EXPECT_EQ(Ray_Clip_Flags(g.sc, inner), 0x010u);
    const int below[3] = {9, 5, 5};
    EXPECT_EQ(Ray_Clip_Flags(g.sc, below), 0x001u);
    const int above_y[3] = {12, 16, 5};
    EXPECT_EQ(Ray_Clip_Flags(g.sc, above_y), 0x001u);
    const int corner[3] = {10, 0, 19};
    EXPECT_EQ(Ray_Clip_Flags(g.sc, corner), 0x010u | 0x002u | 0x200u | 0x400u);
    const int high_x_face[3] = {19, 15, 5};
    EXPECT_EQ(Ray_Clip_Flags(g.sc, high_x_face), 0x002u | 0x100u | 0x020u);
}

TEST_F(Overlay_Fixture, NoClipBoxNoOverlay)
{
    planes(0x10u, 10, 0, 0, 0, 0, 0); /* plane bits without 0x80 */
    EXPECT_EQ(along_x(5.5f, 5.5f), 0xFF000000u);
}

TEST_F(Overlay_Fixture, LowXPlaneIsTranslucentYellow)
{
    planes(0x90u, 10, 0, 0, 0, 0, 0);
    unsigned int b = static_cast<unsigned int>(255.0f * RAY_PLANE_ALPHA);
    unsigned int t = static_cast<unsigned int>((1.0f - RAY_PLANE_ALPHA) * 255.0f);
    EXPECT_EQ(b, 16u);
    EXPECT_EQ(along_x(5.5f, 5.5f), t << 24 | b << 16 | b << 8);
    EXPECT_EQ(along_x<RAY_GPU>(5.5f, 5.5f), t << 24 | b << 16 | b << 8);
}

TEST_F(Overlay_Fixture, ClippedPlaneVoxelOnBorderIsHalfWhite)
{
    /* y = 19 is the high y plane and the border: drawn even where x clips. */
    planes(0x80u | 0x10u | 0x200u, 10, 0, 0, 19, 0, 0);
    Recorder rec;
    rec.stop_at = 2; /* the first sample only */
    EXPECT_EQ(along_x(19.5f, 5.5f, &rec), 0x7F7F7F7Fu);
}

TEST_F(Overlay_Fixture, PlaneMeetingFaceIsOpaque)
{
    planes(0x90u, 10, 0, 0, 0, 0, 0);
    EXPECT_EQ(along_x(0.5f, 5.5f), 0x00FFFF00u);  /* flags 0x212 */
    EXPECT_EQ(along_x(5.5f, 19.5f), 0x00FFFF00u); /* flags 0x412 */
}

TEST_F(Overlay_Fixture, EdgeOfTwoPlanesIsOpaqueAndWalkGoesOn)
{
    planes(0x80u | 0x10u | 0x20u, 10, 0, 10, 0, 0, 0);
    /* From voxel (9, 10): the first voxel entered is the edge (flags exactly 0x030). */
    Rays r = g.ray<RAY_CPU>(9.5f, 10.5f, 5.5f, 1, 0, 0);
    Recorder rec;
    EXPECT_EQ(walk<RAY_CPU>(g, r, &rec), 0x00FFFF00u);
    EXPECT_EQ(rec.calls, 10); /* no stop test after overlay samples: on to the end */

    /* The next ordinary sample (voxel (11, 11) here) stops it. */
    Rays s = g.ray<RAY_CPU>(9.5f, 10.1f, 5.5f, 0.8f, 0.6f, 0.0f);
    Recorder rec2;
    EXPECT_EQ(walk<RAY_CPU>(g, s, &rec2), 0x00FFFF00u);
    ASSERT_EQ(rec2.calls, 3);
    EXPECT_EQ(rec2.vox[1], (std::array<int, 3>{10, 11, 5})); /* the x plane: overlay again */
    EXPECT_EQ(rec2.vox[2], (std::array<int, 3>{11, 11, 5}));
}

TEST_F(Overlay_Fixture, EdgeOnTheBorderIsHalfWhite)
{
    /* The edge of two planes at z = 0: flags 0x432, not exactly 0x030. */
    planes(0x80u | 0x10u | 0x20u, 10, 0, 10, 0, 0, 0);
    Rays r = g.ray<RAY_CPU>(9.5f, 10.5f, 0.5f, 1, 0, 0);
    Recorder rec;
    rec.stop_at = 2;
    EXPECT_EQ(walk<RAY_CPU>(g, r, &rec), 0x7F7F7F7Fu);
}

TEST_F(Overlay_Fixture, ClippedSamplesAddNothing)
{
    /* High x plane at 4: voxels 5.. are clipped, 4 is the plane. */
    planes(0x180u, 0, 4, 0, 0, 0, 0);
    g.fill(1.0f, 1.0f, 1);
    g.map_col[1] = 1;
    g.sc.col_mode = 3;
    Recorder rec;
    unsigned int px = along_x(5.5f, 5.5f, &rec);
    EXPECT_EQ(rec.calls, 19);
    /* Samples 1..3 (voxels 1..3 entered), the plane at 4; nothing after. */
    float T = 1.0f;
    T *= 1.0f - 9687.0f * RAY_WEIGHT_PER_UNIT;
    for (int k = 0; k < 2; k++) T *= 1.0f - 10000.0f * RAY_WEIGHT_PER_UNIT;
    T *= 1.0f - RAY_PLANE_ALPHA;
    EXPECT_EQ(px >> 24, static_cast<unsigned int>(T * 255.0f));
}

/* --------------------------------------------------------------- Ray_Pixel */

namespace {
float draw_zero() { return 0.0f; }
/* Draws 0.25, -0.75, 0.25, ... */
int g_draws = 0;
float draw_alternate() { return (g_draws++ & 1) ? -0.75f : 0.25f; }

struct Pixel_Fixture : ::testing::Test {
    Scene_Phantom p;
    const int slot = 3;
    void SetUp() override
    {
        Corekit_Set_Random(&draw_zero);
        Scene_Sphere(p, 24, 20, 16);
        Scene_Install(slot, p);
        Scene_Bind(slot, 64, 48, Matrix_4x4());
        Scene_Params();
        Ray_Thread_Run = 1;
    }
    void TearDown() override
    {
        Scene_Uninstall(slot);
        Corekit_Set_Random(nullptr);
    }
};
} // namespace

TEST_F(Pixel_Fixture, CentreHitsCornersMiss)
{
    unsigned int centre = Ray_Pixel(slot, 32, 24, 64, 48);
    EXPECT_NE(centre, 0u);
    EXPECT_LT(centre >> 24, 255u); /* the sphere gathered colour */
    EXPECT_EQ(Ray_Pixel(slot, 0, 0, 64, 48), 0u);
    EXPECT_EQ(Ray_Pixel(slot, 63, 47, 64, 48), 0u);
}

TEST_F(Pixel_Fixture, MatchesTheCoreStepByStep)
{
    Corekit_Set_Random(&draw_alternate); /* r1 = 0.25 along the row, r2 = -0.75 */
    std::array<float, 16> m = Ray_Volume.transfo[slot].to_float();
    for (int j = 0; j < 48; j += 5)
        for (int i = 0; i < 64; i += 3) {
            float eye[3], d[3], inv;
            Ray_Pixel_Ray(m.data(), i, j, 64, 48, 0.25f, -0.75f, eye, d, &inv);
            float dir[3] = {d[0] * inv, d[1] * inv, d[2] * inv};
            const float high[3] = {24, 20, 16};
            float pos[3] = {eye[0], eye[1], eye[2]};
            float entry = Ray_DDDA_Origin<RAY_CPU>(pos, dir, k_low, high);
            unsigned int want = 0;
            if (entry < RAY_MISS) {
                Rays r = {};
                Ray_DDDA_Param<RAY_CPU>(&r, pos, dir, k_low, high);
                r.entry = entry;
                for (int a = 0; a < 3; a++) {
                    r.org[a] = eye[a];
                    r.dir[a] = dir[a];
                }
                want = Ray_DDDA_Walk(&r, slot, Ray_Params.threshold, Ray_Volume.clip[slot]);
            }
            ASSERT_EQ(Ray_Pixel(slot, i, j, 64, 48), want) << i << "," << j;
        }
}

TEST_F(Pixel_Fixture, ClearedRunFlagGivesEmptyPixels)
{
    Ray_Thread_Run = 0;
    int entered = 0;
    for (int j = 0; j < 48; j += 4)
        for (int i = 0; i < 64; i += 4) {
            unsigned int px = Ray_Pixel(slot, i, j, 64, 48);
            ASSERT_TRUE(px == 0u || px == 0xFF000000u) << std::hex << px;
            entered += px != 0;
        }
    EXPECT_GT(entered, 0);
}

TEST_F(Pixel_Fixture, RunFlagReadUnderTheLock)
{
    Trace_Capture trace;
    Ray_Pixel(slot, 32, 24, 64, 48);
    size_t in = trace.count("\"DDDA_Volume\"");
    EXPECT_GT(in, 0u);
    EXPECT_EQ(in % 2, 0u); /* every enter has its leave */
    EXPECT_EQ(Plat_Rlock_Count(&Ray_Critical), 0u);
}

TEST_F(Pixel_Fixture, MissingGradientBlockGivesZero)
{
    Ray_Volume.grad[slot] = nullptr;
    EXPECT_EQ(Ray_Pixel(slot, 32, 24, 64, 48), 0u);
    float* partial[4] = {p.grad[0], p.grad[1], nullptr, p.grad[3]};
    Ray_Volume.grad[slot] = partial;
    EXPECT_EQ(Ray_Pixel(slot, 32, 24, 64, 48), 0u);
    Ray_Volume.grad[slot] = p.grad;
    Ray_Volume.gli[slot] = nullptr;
    EXPECT_EQ(Ray_Pixel(slot, 32, 24, 64, 48), 0u);
}

TEST_F(Pixel_Fixture, BadSlotRefused)
{
    Trace_Capture trace;
    EXPECT_EQ(Ray_Pixel(32, 32, 24, 64, 48), 0u);
    EXPECT_EQ(Ray_Pixel(-1, 32, 24, 64, 48), 0u);
    ASSERT_EQ(trace.lines().size(), 2u);
    EXPECT_EQ(trace.lines()[0].flags, 2u);
}

TEST_F(Pixel_Fixture, EyeInsideTheVolume)
{
    /* Scale the view down so the eye (view z = -2) lands inside the volume. */
    Matrix_4x4 view;
    view.scale(0.1f, 0.1f, 0.1f);
    Scene_Bind(slot, 64, 48, view);
    unsigned int px = Ray_Pixel(slot, 32, 24, 64, 48);
    EXPECT_NE(px, 0u); /* entry 0: the walk starts at the eye */
}
