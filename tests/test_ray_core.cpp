/* test_ray_core.cpp - the per-ray algorithm in both arithmetic forms: pixel to ray, entry, DDA set-up,
 * interpolation, shading, colour and opacity, the walk with its clips and overlay, and Ray_Pixel. */
#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cmath>
#include <vector>

#include "core/ray_core.h"
#include "core/ray_state.h"
#include "cpu/ray_pixel.h"
#include "scene.h"
#include "support.h"

namespace {

/* A d^3 volume of grey level 1, gradient magnitude 1 and tag 1, normals facing an eye that looks along
 * +x, +y or +z; tag 1 coloured 0x80FF40 and in map 1 of 2, threshold 0.5, an ambient white light. */
struct Grid {
    std::vector<float> gli, ga, gx, gy, gz;
    std::vector<unsigned char> tag;
    unsigned char map_col[256] = {0, 1}, map_id[256] = {0, 1}, light_status[5] = {};
    unsigned int tag_col[256] = {0, 0x80FF40u}, light_color[5] = {0xFFFFFFu}, phong[RAY_PHONG_SIZE];
    float lx[5] = {}, ly[5] = {}, lz[5] = {};
    Ray_Scene sc{};

    explicit Grid(int d, int mode = 0)
    {
        size_t n = static_cast<size_t>(d) * d * d;
        gli.assign(n, 1.0f), ga.assign(n, 1.0f), gx.assign(n, 0.0f), gy.assign(n, 0.0f), gz.assign(n, -1.0f);
        tag.assign(n, 1), Ray_Phong_Build(phong);
        sc.dim[0] = sc.dim[1] = sc.dim[2] = d;
        sc.gli = gli.data(), sc.tag = tag.data(), sc.grad_a = ga.data();
        sc.grad_x = gx.data(), sc.grad_y = gy.data(), sc.grad_z = gz.data();
        sc.clip = -1.0f, sc.threshold = 0.5f, sc.col_mode = static_cast<unsigned char>(mode), sc.map_nb = 2;
        sc.map_col = map_col, sc.map_id = map_id, sc.tag_col = tag_col, sc.phong = phong;
        sc.light_nb = 1, sc.light_status = light_status, sc.light_color = light_color;
        sc.light_dir_x = lx, sc.light_dir_y = ly, sc.light_dir_z = lz, sc.light_stride = 1;
    }
};

/* Stop policy that records the voxel and the last sample's x at every step. */
struct Recorder {
    const Rays* ray = nullptr;
    int calls = 0, stop_at = INT_MAX; /* the call that answers "stop" */
    std::vector<std::array<int, 3>> vox;
    std::vector<float> pos_x;
    explicit Recorder(int stop = INT_MAX) : stop_at(stop) {}
    bool operator()()
    {
        vox.push_back({ray->vox[0], ray->vox[1], ray->vox[2]}), pos_x.push_back(ray->pos[0]);
        return ++calls < stop_at;
    }
};

const float k_low[3] = {0, 0, 0}, k_ten[3] = {10, 10, 10};
const float k_row[3] = {0.03125f, 5.5f, 5.5f}, k_x[3] = {1, 0, 0}; /* the row (5, 5) along +x */

/* A ray from p along d, starting inside g's volume (entry 0). */
Rays ray_in(const Grid& g, const float* p, const float* d)
{
    Rays r = {};
    const float high[3] = {float(g.sc.dim[0]), float(g.sc.dim[1]), float(g.sc.dim[2])};
    Ray_DDDA_Param<RAY_CPU>(&r, p, d, k_low, high);
    for (int a = 0; a < 3; a++) r.org[a] = p[a], r.dir[a] = d[a];
    return r;
}

/* The walk in form F of r through g, asking rec at every step. */
template <int F = RAY_CPU>
unsigned int walk(const Grid& g, Rays& r, Recorder& rec) { return rec.ray = &r, Ray_DDDA_Walk<F>(&r, g.sc, rec); }

} // namespace

TEST(RayForms, ConversionsRandomDrawAndPixelRay)
{
    /* Float to int32 out of range: x86's 0x80000000 on the CPU, saturated (NaN 0) on the device. */
    EXPECT_EQ((std::array<int, 7>{Ray_F2I<RAY_CPU>(-7.9f), Ray_F2I<RAY_CPU>(3e9f), Ray_F2I<RAY_CPU>(NAN),
                                  Ray_F2I<RAY_GPU>(3e9f), Ray_F2I<RAY_GPU>(NAN), Ray_D2I<RAY_CPU>(2147483648.0),
                                  Ray_D2I<RAY_GPU>(2147483648.0)}),
              (std::array<int, 7>{-7, INT_MIN, INT_MIN, INT_MAX, 0, INT_MIN, INT_MAX}));
    /* The device draw: from state 0 the fixed point 2147483647, 1.0 forever; Park and Miller's check. */
    unsigned int state = 0;
    for (int i = 0; i < 3; i++) EXPECT_EQ(Cuda_Random_Float(&state), 1.0f);
    EXPECT_EQ(state, 2147483647u);
    state = 1;
    for (int i = 0; i < 10000; i++) Cuda_Random_Float(&state);
    EXPECT_EQ(state, 1043618065u);
    /* 640 x 480, draws of 1.0: pixel (320, 240) through (0.5 s, 0.5 s, 0), the eye at z = -2. */
    const float id[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    float eye[3], d[3], inv, p[3];
    Ray_Pixel_Ray(id, 320, 240, 640, 480, 1.0f, 1.0f, eye, d, &inv);
    EXPECT_EQ((std::array<float, 6>{eye[0], eye[1], eye[2], d[0], d[1], d[2]}),
              (std::array<float, 6>{0, 0, -2, 0.5f * 0.003125f, 0.5f * 0.003125f, 2}));
    EXPECT_FLOAT_EQ(inv, 1.0f / std::sqrt(d[0] * d[0] + d[1] * d[1] + 4.0f));
    /* Odd width 5: W >> 1 = 2, column 4 at offset 2 (s = 2/5); r1 moves columns, r2 rows. */
    Ray_Pixel_Ray(id, 4, 0, 5, 3, 0.0f, 1.0f, eye, d, &inv);
    EXPECT_EQ((std::array<float, 2>{d[0], d[1]}), (std::array<float, 2>{2.0f * 0.4f, -0.5f * 0.4f}));
    /* A w' of 2 halves every point. */
    const float m[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 4, 6, 8, 2};
    Ray_Map_Point(m, 2.0f, 0.0f, -2.0f, p);
    EXPECT_EQ((std::array<float, 3>{p[0], p[1], p[2]}), (std::array<float, 3>{3, 3, 3}));
}

TEST(RayEntry, Cases)
{
    const float kX = 549755813888.0f, kY = 1099511627776.0f, kZ = 1649267441664.0f;
    const float kBehind = 2199023255552.0f, kOut = 2748779069440.0f;
    struct { int form; float p[3], d[3], high_x, want, moved[3]; } cases[] = {
        {RAY_CPU, {5, 0, 9.5f}, {0.6f, 0.8f, 0}, 10, 0, {5, 0, 9.5f}}, /* inside: unmoved */
        {RAY_CPU, {-4, 5.5f, 5.5f}, {1, 0, 0}, 10, 4.03125f, {0.03125f, 5.5f, 5.5f}},
        {RAY_GPU, {14, 5.5f, 5.5f}, {-1, 0, 0}, 10, 4.03125f, {9.96875f, 5.5f, 5.5f}},
        {RAY_CPU, {-1, 50, 50}, {0.0001f, 0.6f, 0.8f}, 10, kX, {}}, /* parallel, outside its slab */
        {RAY_GPU, {10.5f, 5, 5}, {0.0001f, 0.6f, 0.8f}, 10, kX, {}},
        {RAY_CPU, {-5, 11, 5}, {0.6f, -0.0002f, 0.8f}, 10, kY, {}},
        {RAY_CPU, {-5, 5, -0.5f}, {0.6f, 0.8f, 0}, 10, kZ, {}},
        {RAY_CPU, {-3, 5, 5}, {-1, 0, 0}, 10, kBehind, {}},
        {RAY_CPU, {-5, 20, 5}, {0.6f, 0.8f, 0}, 10, kOut, {}}, /* entry plane beside the box */
        /* Entry points on a high face: a miss on the CPU, accepted on the device. */
        {RAY_CPU, {-5, 5, 10}, {1, 0, 0}, 10, kOut, {}},
        {RAY_GPU, {-5, 5, 10}, {1, 0, 0}, 10, 5.03125f, {0.03125f, 5, 10}},
        {RAY_CPU, {-1, 8.96875f, 5}, {1, 1, 0}, 10, kOut, {}},
        {RAY_GPU, {-1, 8.96875f, 5}, {1, 1, 0}, 10, 1.03125f, {0.03125f, 10, 5}},
        /* high - p = -16777217 lies between two floats: the device rounds it, the CPU does not. */
        {RAY_CPU, {16777218.0f, 5, 5}, {-1, 0, 0}, 1, 16777218.0f, {0, 5, 5}},
        {RAY_GPU, {16777218.0f, 5, 5}, {-1, 0, 0}, 1, kOut, {}},
    };
    for (const auto& c : cases) {
        float p[3] = {c.p[0], c.p[1], c.p[2]};
        const float high[3] = {c.high_x, 10, 10};
        float t = c.form == RAY_CPU ? Ray_DDDA_Origin<RAY_CPU>(p, c.d, k_low, high)
                                    : Ray_DDDA_Origin<RAY_GPU>(p, c.d, k_low, high);
        EXPECT_EQ(t, c.want) << "row " << &c - cases;
        for (int a = 0; a < 3 && c.want < kX; a++) EXPECT_EQ(p[a], c.moved[a]) << "row " << &c - cases;
    }
}

TEST(RayParam, Cases)
{
    struct { float p[3], d[3]; int axis, step, t_delta, t_max, t_end, vox; } cases[] = {
        {{0.03125f, 5.5f, 5.5f}, {1, 0, 0}, 0, 1, 10000, 9687, 94687, 0}, /* e = 99687 */
        {{9.96875f, 2.25f, 5.5f}, {-1, 0, 0}, 0, -1, 10000, 9687, 94687, 9},
        {{2.25f, 7.75f, 3}, {0.6f, -0.8f, 0}, 0, 1, 16666, 12499, 120833, 2},
        {{2.25f, 7.75f, 3}, {0.6f, -0.8f, 0}, 1, -1, 12500, 9375, 90625, 7},
        /* The distance to the next boundary is formed in double: 1 - 1e-8 is not 1. */
        {{2.25f, 1e-8f, 3}, {0.6f, 0.8f, 0}, 1, 1, 12500, 12499, 118750, 0},
    };
    for (const auto& c : cases)
        for (int form : {RAY_CPU, RAY_GPU}) {
            Rays r = {};
            r.step[2] = 7;
            form == RAY_CPU ? Ray_DDDA_Param<RAY_CPU>(&r, c.p, c.d, k_low, k_ten)
                            : Ray_DDDA_Param<RAY_GPU>(&r, c.p, c.d, k_low, k_ten);
            int a = c.axis;
            EXPECT_EQ((std::array<int, 5>{r.step[a], r.t_delta[a], r.t_max[a], r.t_end[a], r.vox[a]}),
                      (std::array<int, 5>{c.step, c.t_delta, c.t_max, c.t_end, c.vox}))
                << "row " << &c - cases << " form " << form;
            /* z is parallel: far bounds, no crossing, its step kept; only the CPU starts the transparency. */
            EXPECT_EQ((std::array<int, 5>{r.t_max[2], r.t_end[2], r.t_delta[2], r.step[2], r.trans == 1.0f}),
                      (std::array<int, 5>{536870911, 536870911, 0, 7, form == RAY_CPU}));
        }
}

TEST(RayInterp, BorderNanHalfAndTheFormsSums)
{
    std::vector<float> v(1000);
    for (size_t i = 0; i < v.size(); i++) v[i] = 1.0f + 0.37f * static_cast<float>(i % 17);
    const size_t row = (5 * 10 + 5) * 10; /* voxel (0, 5, 5) */
    /* (0.2, 5.5, 5.5): neighbour -1 is outside, its weight 0.3 lost; 5.5 weighs 1 and 0. */
    const float p[3] = {0.2f, 5.5f, 5.5f}, half[3] = {1.5f, 5.5f, 5.5f}, q[3] = {4.7f, 4.7f, 4.7f};
    EXPECT_EQ(Ray_Interpolate_Linear<RAY_CPU>(p, 10, 10, 10, v.data()), v[row] * 0.7f);
    EXPECT_EQ(Ray_Interpolate_Linear<RAY_GPU>(p, 10, 10, 10, v.data()), v[row] * 0.7f);
    /* A CPU sum adds value x wx x wy x wz; the device fuses the last product with the addition. */
    int differ = 0;
    const int dim[3] = {10, 10, 10};
    for (unsigned int k = 0, state = 7; k < 500; k++) {
        float pt[3], cpu = 0.0f, gpu = 0.0f;
        for (float& c : pt) c = Cuda_Random_Float(&state) * 5.0f + 5.0f;
        Ray_Stencil st;
        Ray_Interp_Setup<RAY_CPU>(&st, pt, dim);
        for (int c = 0; c < 8; c++) {
            float t = st.valid >> c & 1 ? v[size_t(st.index[c])] * st.wx[c & 1] * st.wy[c >> 1 & 1] : 0.0f;
            cpu = cpu + t * st.wz[c >> 2], gpu = std::fma(t, st.wz[c >> 2], gpu);
        }
        ASSERT_EQ(Ray_Interpolate_Linear<RAY_CPU>(pt, 10, 10, 10, v.data()), cpu);
        ASSERT_EQ(Ray_Interpolate_Linear<RAY_GPU>(pt, 10, 10, 10, v.data()), gpu);
        differ += cpu != gpu;
    }
    EXPECT_GT(differ, 0);
    /* A fraction of exactly 0.5: n weighs 1, n + 1 weighs 0 but counts (inf x 0 is NaN). */
    EXPECT_EQ(Ray_Interpolate_Linear<RAY_CPU>(half, 10, 10, 10, v.data()), v[row + 1]);
    v[row + 2] = INFINITY;
    EXPECT_TRUE(std::isnan(Ray_Interpolate_Linear<RAY_CPU>(half, 10, 10, 10, v.data())));
    /* A NaN corner is skipped: the sum loses that corner's share (0.2^3), nothing more. */
    std::vector<float> two(1000, 2.0f);
    two[(5 * 10 + 5) * 10 + 5] = NAN;
    EXPECT_NEAR(Ray_Interpolate_Linear<RAY_CPU>(q, 10, 10, 10, two.data()), 2.0f * 0.992f, 1e-5f);
    EXPECT_NEAR(Ray_Interpolate_Linear<RAY_GPU>(q, 10, 10, 10, two.data()), 2.0f * 0.992f, 1e-5f);
}

TEST(RayShade, Cases)
{
    struct { /* the eye's direction, the normal, the ambient light, light 1 (colour, direction, status) */
        float dir[3], n[3];
        unsigned int ambient, light;
        float L[3];
        int on, nb, flags;
        unsigned int base, want;
    } cases[] = {
        {{0, 0, 1}, {0, 0, 1}, 0xFFFFFF, 0xFFFFFF, {0, 0, 1}, 1, 2, 7, 0xFFFFFF, 0x3F3F3F}, /* back face */
        {{0, 0, 1}, {0.1f, 0, 0.5f}, 0xFFFFFF, 0, {}, 1, 2, 7, 0x0380FD, 0x00203F},
        {{0, 0, 1}, {0, 0, -1}, 0xFFFFFF, 0, {}, 0, 1, 7, 0xFFFFFF, 0xFEFEFE}, /* ambient */
        {{0, 0, 1}, {0, 0, -1}, 0x80FF00, 0, {}, 0, 1, 7, 0x204080, 0x103F00},
        {{0, 0, 1}, {0, 0, -1}, 0xFFFFFF, 0, {}, 0, 1, 6, 0xFFFFFF, 0},
        /* Diffuse with d = 1, seen edge-on (e = 0): 253; with the ambient it saturates; off: nothing. */
        {{1, 0, 0}, {0, 0, -1}, 0, 0xFFFFFF, {0, 0, 1}, 1, 2, 7, 0xFFFFFF, 0xFDFDFD},
        {{1, 0, 0}, {0, 0, -1}, 0xFFFFFF, 0xFFFFFF, {0, 0, 1}, 1, 2, 7, 0xFFFFFF, 0xFFFFFF},
        {{1, 0, 0}, {0, 0, -1}, 0xFFFFFF, 0xFFFFFF, {0, 0, 1}, 0, 2, 7, 0xFFFFFF, 0xFEFEFE},
        {{1, 0, 0}, {0, 0, -1}, 0, 0xFFFFFF, {0, 0, 1}, 1, 60000, 7, 0xFFFFFF, 0xFDFDFD}, /* 5 read */
        /* Zero normal: no back face, d = 0, R = L: e = 0.9765625 is index 1000, 125 adds 124. */
        {{0, 0, -0.9765625f}, {0, 0, 0}, 0, 0xFFFFFF, {0, 0, 1}, 1, 2, 7, 0xFFFFFF, 0x7C7C7C},
        {{0, 0, -0.9765625f}, {0, 0, 0}, 0, 0xFFFFFF, {0, 0, 1}, 1, 2, 3, 0xFFFFFF, 0},
        {{0, 0, -0.5f}, {0, 0, 0}, 0, 0xFFFFFF, {0, 0, 1}, 1, 2, 7, 0xFFFFFF, 0}, /* index 512: 0 */
        {{0, 0, -1.5f}, {0, 0, 0}, 0, 0xFFFFFF, {0, 0, 1}, 1, 2, 7, 0xFFFFFF, 0xF6F6F6}, /* last entry */
        /* A light from behind (d < 0) still gives a highlight, in the light's colour alone. */
        {{0, 0, 1}, {0, 0, -0.01f}, 0, 0x0000FF, {0, 0, -1}, 1, 2, 7, 0xFFFFFF, 0x0000F6},
        /* d = 0.8 (q = 204: 202), R = (0, -0.6, -0.8), e = 0.936: index 958 (34: 33). */
        {{0, 0.28f, 0.96f}, {0, 0, -1}, 0, 0xFFFFFF, {0, -0.6f, 0.8f}, 1, 2, 7, 0xFFFFFF, 0xEBEBEB},
    };
    Grid g(2);
    for (const auto& c : cases) {
        Rays r = {};
        for (int a = 0; a < 3; a++) r.dir[a] = c.dir[a];
        g.light_color[0] = c.ambient, g.light_color[1] = c.light, g.light_status[1] = c.on != 0;
        g.lx[1] = c.L[0], g.ly[1] = c.L[1], g.lz[1] = c.L[2], g.sc.light_nb = static_cast<unsigned short>(c.nb);
        Color out = Ray_DDDA_Shade(&r, Ray_Color_Of(c.base), c.n, static_cast<unsigned char>(c.flags), g.sc);
        EXPECT_EQ(Ray_Color_Word(out), c.want) << "row " << &c - cases;
    }
}

TEST(RayColour, BaseColourAndOpacityByMode)
{
    Grid g(2);
    Ray_Scene& sc = g.sc;
    struct { int mode, mc; float a, g, w, want; bool grey; /* reads the grey level */ } cases[] = {
        {0, 0, 0.1f, 0.45f, 0.5f, 0.05f, true}, {0, 9, 0.3f, 0.7f, 0.5f, 0.5f, true}, /* 0.4 x 0.5 x 0.25 */
        {0, 0, 0.3f, 0.39f, 0.5f, 0.0f, true},  {3, 0, 0.1f, 1.0f, 0.5f, 0.0f, false}, /* untagged */
        {3, 4, 0.1f, 0.0f, 0.5f, 0.2f, false},  {4, 4, 0.4f, 0.0f, 0.5f, 0.2f, false}, /* 2 thr a */
        {4, 0, 0.1f, 0.45f, 0.5f, 0.05f, true}, {5, 4, 1, 1, 1, 0, false}, {255, 4, 1, 1, 1, 0, false},
    };
    for (const auto& c : cases) {
        sc.col_mode = static_cast<unsigned char>(c.mode);
        EXPECT_NEAR(Ray_Alpha(sc, c.a, c.g, c.w, static_cast<unsigned char>(c.mc), 0, 0), c.want, 1e-7f)
            << "row " << &c - cases;
        EXPECT_EQ(Ray_Alpha_Needs_Grey(sc, static_cast<unsigned char>(c.mc)), c.grey) << "row " << &c - cases;
        /* The tag's colour in every mode but 0; white for an untagged voxel. */
        EXPECT_EQ(Ray_Base_Color(sc, 1), c.mode == 0 ? 0xFFFFFFu : 0x80FF40u);
        EXPECT_EQ(Ray_Base_Color(sc, 8), 0xFFFFFFu);
    }
    /* Mode 2, three maps (B = 0.5): band 1 rises from 0 to 4 at 0.5 and falls to 0 at 1. */
    sc.map_nb = 3;
    float B = Ray_Band_Width(sc);
    const float thr_map_band[][3] = {{0.25f, 1, 2}, {0.75f, 1, 2}, {0.5f, 1, 4}, {0, 1, 0}, {1, 1, 0},
                                     {1, 2, 4}};
    for (const auto& t : thr_map_band) {
        sc.threshold = t[0];
        EXPECT_EQ(Ray_Band(sc, B, static_cast<unsigned char>(t[1])), t[2]) << t[0] << " " << t[1];
    }
    sc.col_mode = 2;
    EXPECT_FLOAT_EQ(Ray_Alpha(sc, 0.3f, 0.0f, 0.9f, 1, B, 2.0f), 0.5f * 0.6f);
    sc.map_nb = 1; /* fewer than two maps: transparent */
    EXPECT_EQ(Ray_Alpha(sc, 1.0f, 1.0f, 1.0f, 1, 1.0f, 4.0f), 0.0f);
}

TEST(RayWalk, NineSamplesTiesAndTheWeights)
{
    /* Entry x = 0.03125 in 10 voxels: crossings at 9687 + 10000 k into x = 1..9, then t_end. */
    Grid g(10, 5);
    Rays r = ray_in(g, k_row, k_x), far = r, one = r;
    Recorder rec, far_rec, first(3);
    EXPECT_EQ(walk(g, r, rec), 0xFF000000u);
    ASSERT_EQ(rec.calls, 9);
    for (int k = 0; k < 9; k++) EXPECT_EQ(rec.vox[size_t(k)], (std::array<int, 3>{k + 1, 5, 5}));
    /* Sample k is seen at call k + 1: mid 4843, then t_prev + 5000. */
    EXPECT_EQ((std::array<float, 2>{rec.pos_x[1], rec.pos_x[2]}),
              (std::array<float, 2>{0.03125f + 4843.0f * 0.0001f, 0.03125f + 14687.0f * 0.0001f}));
    /* A t_end far off still stops at the box: the index test ends the ray. */
    far.t_end[0] = INT_MAX;
    walk(g, far, far_rec);
    EXPECT_EQ((std::array<int, 2>{far_rec.calls, far.vox[0]}), (std::array<int, 2>{9, 10}));
    /* Ties: (5000, 5000, 7000) steps x then y; (6000, 5000, 5000) y then z. */
    const int t_max[2][3] = {{5000, 5000, 7000}, {6000, 5000, 5000}};
    const std::array<int, 3> want[2][2] = {{{{6, 5, 5}}, {{6, 6, 5}}}, {{{5, 6, 5}}, {{5, 6, 6}}}};
    const float centre[3] = {5.5f, 5.5f, 5.5f}, diag[3] = {0.6f, 0.6f, 0.52915f};
    for (int k = 0; k < 2; k++) {
        Rays tie = ray_in(g, centre, diag);
        for (int a = 0; a < 3; a++) tie.t_max[a] = t_max[k][a];
        Recorder steps(2);
        walk(g, tie, steps);
        EXPECT_EQ(steps.vox, (std::vector<std::array<int, 3>>{want[k][0], want[k][1]})) << "tie " << k;
    }
    /* Opacity = weight (mode 3, a = 1): the first two are 9687 and 10000 x 5.773e-5 (bits 0x3872231D). */
    g.sc.col_mode = 3;
    walk(g, one, first);
    EXPECT_EQ(one.trans, (1.0f - 9687.0f * 0x1.e4463ap-15f) * (1.0f - 10000.0f * 0x1.e4463ap-15f));
}

TEST(RayWalk, Cases)
{
    const int kAny = -1;
    struct { /* the volume's side and colour mode, its clip bits and planes, the ray, its stop and word */
        int form, dim, mode, vf, x_lo, x_hi, y_lo, y_hi;
        float clip, p[3], d[3];
        int stop_at, calls;
        unsigned int want;
    } cases[] = {
        /* Mode 2, two maps, map 1 at threshold 0.5, a = 1: the first sample is opaque and ends the ray. */
        {RAY_CPU, 10, 2, 0, 0, 0, 0, 0, -1, {0.03125f, 5.5f, 5.5f}, {1, 0, 0}, 0, 1, 0x007FFE3F},
        {RAY_GPU, 10, 2, 0, 0, 0, 0, 0, -1, {0.03125f, 5.5f, 5.5f}, {1, 0, 0}, 0, 0, 0x007FFE3F},
        {RAY_CPU, 10, 2, 0, 0, 0, 0, 0, -1, {0.03125f, 5.5f, 5.5f}, {1, 0, 0}, 1, 1, 0xFF000000}, /* stop */
        /* Mode 3, opacity = weight, until T <= 1/255: the device truncates its sums at every addition. */
        {RAY_CPU, 10, 3, 0, 0, 0, 0, 0, -1, {0.03125f, 5.5f, 5.5f}, {1, 0, 0}, 0, 7, 0x007EFD3E},
        {RAY_GPU, 10, 3, 0, 0, 0, 0, 0, -1, {0.03125f, 5.5f, 5.5f}, {1, 0, 0}, 0, 0, 0x007CFA3C},
        /* Depth clip: segments that start nearer than it are skipped; one that starts at it is drawn. */
        {RAY_CPU, 10, 3, 0, 0, 0, 0, 0, 20, {0.03125f, 5.5f, 5.5f}, {1, 0, 0}, 0, 9, 0xFF000000},
        {RAY_CPU, 10, 3, 0, 0, 0, 0, 0, 7, {0.03125f, 5.5f, 5.5f}, {1, 0, 0}, 0, 9, 0x6B499224},
        {RAY_CPU, 10, 3, 0, 0, 0, 0, 0, 6, {0.03125f, 5.5f, 5.5f}, {1, 0, 0}, 0, 9, 0x2D68D033},
        {RAY_CPU, 10, 3, 0, 0, 0, 0, 0, 0.9687f, {0.03125f, 5.5f, 5.5f}, {1, 0, 0}, 3, 3, 0x6B499224},
        /* Clip-plane overlay over a transparent volume; plane bits without 0x80 draw nothing. */
        {RAY_CPU, 20, 5, 0x10, 10, 0, 0, 0, -1, {0.03125f, 5.5f, 5.5f}, {1, 0, 0}, 0, kAny, 0xFF000000},
        /* Low x plane at 10: yellow at 16/255, on both forms. */
        {RAY_CPU, 20, 5, 0x90, 10, 0, 0, 0, -1, {0.03125f, 5.5f, 5.5f}, {1, 0, 0}, 0, kAny, 0xEF101000},
        {RAY_GPU, 20, 5, 0x90, 10, 0, 0, 0, -1, {0.03125f, 5.5f, 5.5f}, {1, 0, 0}, 0, kAny, 0xEF101000},
        /* The plane on a y or z face of the volume (flags 0x212, 0x412): opaque yellow. */
        {RAY_CPU, 20, 5, 0x90, 10, 0, 0, 0, -1, {0.03125f, 0.5f, 5.5f}, {1, 0, 0}, 0, kAny, 0x00FFFF00},
        {RAY_CPU, 20, 5, 0x90, 10, 0, 0, 0, -1, {0.03125f, 5.5f, 19.5f}, {1, 0, 0}, 0, kAny, 0x00FFFF00},
        /* The high y plane on the border, where x clips: half white (first sample only). */
        {RAY_CPU, 20, 5, 0x290, 10, 0, 0, 19, -1, {0.03125f, 19.5f, 5.5f}, {1, 0, 0}, 2, kAny, 0x7F7F7F7F},
        /* The edge of two planes (flags exactly 0x030): opaque, and the walk goes on to the end... */
        {RAY_CPU, 20, 5, 0xB0, 10, 0, 10, 0, -1, {9.5f, 10.5f, 5.5f}, {1, 0, 0}, 0, 10, 0x00FFFF00},
        /* ...or to the next ordinary sample: (10, 11) is the x plane again, (11, 11) stops. */
        {RAY_CPU, 20, 5, 0xB0, 10, 0, 10, 0, -1, {9.5f, 10.1f, 5.5f}, {0.8f, 0.6f, 0}, 0, 3, 0x00FFFF00},
        /* The edge at z = 0 (flags 0x432) is on the border: half white. */
        {RAY_CPU, 20, 5, 0xB0, 10, 0, 10, 0, -1, {9.5f, 10.5f, 0.5f}, {1, 0, 0}, 2, kAny, 0x7F7F7F7F},
        /* High x plane at 4: samples in voxels 1..3, the plane at 4, then nothing (clipped). */
        {RAY_CPU, 20, 3, 0x180, 0, 4, 0, 0, -1, {0.03125f, 5.5f, 5.5f}, {1, 0, 0}, 0, 19, 0x1276EB3A},
    };
    for (const auto& c : cases) {
        Grid g(c.dim, c.mode);
        g.sc.clip = c.clip, g.sc.vol_flag = static_cast<unsigned int>(c.vf);
        g.sc.clip_lo[0] = c.x_lo, g.sc.clip_hi[0] = c.x_hi, g.sc.clip_lo[1] = c.y_lo, g.sc.clip_hi[1] = c.y_hi;
        Recorder rec(c.stop_at ? c.stop_at : INT_MAX);
        Rays r = ray_in(g, c.p, c.d);
        unsigned int px = c.form == RAY_CPU ? walk<RAY_CPU>(g, r, rec) : walk<RAY_GPU>(g, r, rec);
        EXPECT_EQ(px, c.want) << "row " << &c - cases << std::hex << " got " << px;
        EXPECT_EQ(rec.calls, c.calls == kAny ? rec.calls : c.calls) << "row " << &c - cases;
    }
}

TEST(RayWalk, ClipFlags)
{
    Grid g(20, 3);
    /* Flags with the low x plane at 10 and the high y plane at 15. */
    g.sc.vol_flag = 0x80u | 0x10u | 0x200u;
    g.sc.clip_lo[0] = 10, g.sc.clip_hi[1] = 15;
    const struct { int v[3]; unsigned int want; } cases[] = {
        {{10, 5, 5}, 0x010}, {{9, 5, 5}, 0x001}, {{12, 16, 5}, 0x001},
        {{10, 0, 19}, 0x010 | 0x002 | 0x200 | 0x400}, {{19, 15, 5}, 0x002 | 0x100 | 0x020},
    };
    for (const auto& c : cases) EXPECT_EQ(Ray_Clip_Flags(g.sc, c.v), c.want) << "row " << &c - cases;
}

namespace {
struct Pixel_Fixture : ::testing::Test {
    Scene_Phantom p;
    const int slot = 3;
    void SetUp() override
    {
        Corekit_Set_Random([] { return 0.0f; }), Scene_Sphere(p, 24, 20, 16), Scene_Install(slot, p);
        Scene_Bind(slot, 64, 48, Matrix_4x4()), Scene_Params(), Ray_Thread_Run = 1;
    }
    void TearDown() override { Scene_Uninstall(slot), Corekit_Set_Random(nullptr); }
};
} // namespace

TEST_F(Pixel_Fixture, RunFlagUnderTheLockStepForStepWhileTracedBadSlotRefused)
{
    struct Count { int steps = 0; bool operator()() { return ++steps > 0; } } count;   /* the plain walk's steps */
    std::array<float, 16> m = Ray_Volume.transfo[slot].to_float();
    float eye[3], d[3], inv;
    Ray_Pixel_Ray(m.data(), 32, 24, 64, 48, 0.0f, 0.0f, eye, d, &inv);
    const float dir[3] = {d[0] * inv, d[1] * inv, d[2] * inv};
    Ray_Scene sc;
    Ray_Scene_Slot(&sc, slot, Ray_Params.threshold, Ray_Volume.clip[slot]);
    Ray_Cast<RAY_CPU>(eye, dir, sc, count);
    Trace_Capture trace;
    Ray_Pixel(slot, 32, 24, 64, 48);
    EXPECT_GT(count.steps, 0);
    EXPECT_EQ(trace.count("\"DDDA_Volume\""), 2u * static_cast<size_t>(count.steps)); /* in and out */
    EXPECT_EQ(Plat_Rlock_Count(&Ray_Critical), 0u);
    trace.clear();
    EXPECT_EQ(Ray_Pixel(32, 32, 24, 64, 48) | Ray_Pixel(-1, 32, 24, 64, 48), 0u);
    ASSERT_EQ(trace.lines().size(), 2u); /* one error line each */
    EXPECT_EQ(trace.lines()[0].flags, 2u);
}

TEST_F(Pixel_Fixture, MissingVolumeArraysGiveZero)
{
    /* A registered CPU slot renders from its layout alone: no separate gradient block needed. */
    Ray_Volume.grad[slot] = nullptr;
    unsigned int with_layout = Ray_Pixel(slot, 32, 24, 64, 48);
    EXPECT_LT(with_layout >> 24, 255u);
    /* Without a layout the pixel reads the arrays: any one missing gives 0 at the first sample. */
    Scene_Install(slot, p, false);
    EXPECT_EQ(Ray_Pixel(slot, 32, 24, 64, 48), with_layout);
    float* partial[4];
    for (int k = 0; k < 7; k++) {   /* one gradient array, the whole block, the grey levels, the tags */
        for (int a = 0; a < 4; a++) partial[a] = a == k ? nullptr : p.grad[a];
        Ray_Volume.grad[slot] = k == 4 ? nullptr : partial;
        Ray_Volume.gli[slot] = k == 5 ? nullptr : p.gli.data();
        Ray_Volume.tag[slot] = k == 6 ? nullptr : p.tag.data();
        EXPECT_EQ(Ray_Pixel(slot, 32, 24, 64, 48), 0u) << k;
    }
    /* A cleared run flag stops every ray before its first sample (0xFF000000, buffers or not); a miss is 0. */
    Ray_Thread_Run = 0;
    EXPECT_EQ(Ray_Pixel(slot, 32, 24, 64, 48), 0xFF000000u);
    Scene_Install(slot, p);
    EXPECT_EQ((std::array<unsigned int, 2>{Ray_Pixel(slot, 32, 24, 64, 48), Ray_Pixel(slot, 0, 0, 64, 48)}),
              (std::array<unsigned int, 2>{0xFF000000u, 0u}));
}
