/* The render-parameter setters and the mouse trackball. */
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include <voxelune/voxelune.h>

#include "core/ray_state.h"
#include "support.h"

namespace {

void expect_dir(const Vector_4& v, float x, float y, float z)
{
    EXPECT_TRUE(std::fabs(v.x - x) < 1e-6f && std::fabs(v.y - y) < 1e-6f && std::fabs(v.z - z) < 1e-6f)
        << v.x << " " << v.y << " " << v.z;
}

} // namespace

TEST(Setters, TraceLinesAndStores)
{
    Trace_Capture cap;
    Ray_Set_Threshold(0.456f), Ray_Set_Color_Scheme(3), Ray_Set_Clip(0.5f);
    EXPECT_TRUE(Ray_Params.threshold == 0.456f && Ray_Params.col_mode == 3);
    const std::string in = ">>> in  Voxelune: Ray_Set_", out = "<<< out Voxelune: Ray_Set_";
    EXPECT_EQ(cap.texts(), (std::vector<std::string>{in + "Threshold(val=0.46)", out + "Threshold(done)",
                                                     in + "Color_Scheme(val=3)", out + "Color_Scheme(done)",
                                                     in + "Clip(val=0.50)", out + "Clip(done)"}));
    EXPECT_EQ(cap.lines()[0].flags, 0x90002004u);
}

TEST(Setters, LightsGrowAndTurnWithTheInverseTransposeOfTheView)
{
    Vector_4 amb(1, 2, 3, 4), z(0, 0, 1, 0);
    Ray_Set_Light(0, 7, 0x123456, &amb); /* ambient: stored, no direction */
    Ray_Set_Light(3, 1, 0xFFFFFF, &z), Ray_Set_Light(1, 1, 0x808080, &z); /* the count never shrinks */
    EXPECT_EQ(Ray_Params.light_nb * 100 + Ray_Params.light_status[0] * 10 + Ray_Params.light_status[2], 470);
    EXPECT_TRUE(Ray_Params.light_color[0] == 0x123456u && Ray_Params.light_vec[0].w == 4.0f);
    expect_dir(Ray_Params.light_dir[0], 0, 0, 0);
    expect_dir(Ray_Params.light_dir[3], 0, 0, 1);

    const float q = static_cast<float>(M_PI / 2), r = 1.0f / std::sqrt(1.25f);
    struct { float turn, scale_x, scale, shift, x, y, ex, ey; } views[] = {
        {q, 1, 1, 0, 1, 0, 0, 1},        /* rot_z turns x toward y */
        {q, 1, 3, 10, 1, 0, 0, 1},       /* uniform scale and translation do not count */
        {0, 2, 1, 0, 1, 1, 0.5f * r, r}, /* non-uniform scale: (1, 1, 0) diag(1/2, 1, 1) */
    };
    for (auto& v : views) {
        Vector_4 d(v.x, v.y, 0, 0);
        Ray_Set_Light(1, 1, 0xFFFFFF, &d);
        Matrix_4x4 m;
        m.rot_z(v.turn);
        m.scale(v.scale_x * v.scale, v.scale, v.scale, combine_after);
        m.translate(v.shift, -v.shift, v.shift, combine_after);
        Ray_Set_Transfo(&m);
        Ray_Set_Light(2, 1, 0xFFFFFF, &d); /* set under the view: the same direction */
        expect_dir(Ray_Params.light_dir[1], v.ex, v.ey, 0), expect_dir(Ray_Params.light_dir[2], v.ex, v.ey, 0);
    }
    Ray_Set_Rotation(0, 0, 0); /* a fresh view: the translation goes too */
    for (int i = 0; i < 16; i++) EXPECT_EQ(Ray_Params.view_transfo[i / 4][i % 4], i % 5 == 0 ? 1.0 : 0.0);
}

TEST(Setters, ColorTablesTakeLowBytesAndLaterMapsWin)
{
    Ray_Params.tag_col[200] = 99;
    unsigned short c16[2] = {0x1FF, 1}, c8[2] = {0x2AB, 2}, c0[2] = {0x0CD, 3};
    Ray_Set_Color_TAG(2, c16, c8, c0);
    EXPECT_EQ(std::vector<unsigned>({Ray_Params.tag_col[0], Ray_Params.tag_col[1], Ray_Params.tag_col[200]}),
              std::vector<unsigned>({0x00FFABCDu, 0x00010203u, 0}));
    unsigned char l0[] = {5, 9}, l1[] = {7}, l2[] = {9}, count[] = {2, 1, 1}, col[] = {10, 11, 12};
    unsigned char* list[] = {l0, l1, l2};
    Ray_Params.map_col[100] = 1;
    Ray_Set_Color_Map(3, count, list, col);
    EXPECT_EQ((std::vector<int>{Ray_Params.map_nb, Ray_Params.map_id[9], Ray_Params.map_col[9], Ray_Params.map_id[5],
                                Ray_Params.map_col[5], Ray_Params.map_col[100]}),
              (std::vector<int>{3, 2, 12, 0, 10, 0}));
    Ray_Set_Color_Map(0, nullptr, nullptr, nullptr);
    EXPECT_EQ(Ray_Params.map_nb + Ray_Params.map_col[9], 0);
}

TEST(Setters, ClipBoxFlagsFractionsAndDepth)
{
    struct { int id, slot; float f[6]; unsigned int before, after; } rows[] = {
        {5, 5, {0, 1, 0, 1, 0, 1}, 0xFF3, 0x3}, /* clears bits 4 to 11 only */
        {5, 5, {0.2f, 1, 0, 0.5f, 0, 1}, 0x3, 0x293},
        {37, 5, {0, 1, 0, 1, 0.1f, 0.9f}, 0x293, 0x4C3},
        {6, 6, {NAN, 1, 0, 1, 0, 1}, 0, 0x90},
        {7, 7, {0.9f, 0.1f, -1, 2, 0, 1}, 0, 0x3B0}, /* stored as given: no clamping, no ordering */
    };
    for (auto& r : rows) {
        Ray_Volume.vol_flag[r.slot] = r.before;
        Ray_Set_Clip(r.id, r.f[0], r.f[1], r.f[2], r.f[3], r.f[4], r.f[5]);
        EXPECT_EQ(Ray_Volume.vol_flag[r.slot], r.after) << r.id;
        EXPECT_EQ(std::memcmp(Ray_Volume.clip_frac_x[r.slot], r.f, 8) | std::memcmp(Ray_Volume.clip_frac_y[r.slot], r.f + 2, 8) |
                      std::memcmp(Ray_Volume.clip_frac_z[r.slot], r.f + 4, 8), 0) << r.id;
    }
    Ray_Volume.dim_x[2] = Ray_Volume.dim_y[2] = Ray_Volume.dim_z[2] = 100;
    Ray_Set_Clip(0.0f);
    EXPECT_TRUE(std::fabs(Ray_Volume.clip[2] - 43.301f) < 1e-3f && Ray_Volume.clip[3] == 0.0f) << Ray_Volume.clip[2];
    /* the squares are 32-bit: 50000^2 wraps negative (without undefined behaviour), a NaN root */
    Ray_Volume.dim_x[4] = 50000;
    Ray_Volume.dim_y[4] = Ray_Volume.dim_z[4] = 1;
    Ray_Set_Clip(1.0f);
    EXPECT_TRUE(std::fabs(Ray_Volume.clip[2] - 259.808f) < 1e-3f && std::isnan(Ray_Volume.clip[4])) << Ray_Volume.clip[2];
}

TEST(Setters, RefusalsWriteOneErrorLineEachAndChangeNothing)
{
    Vector_4 d(1, 0, 0, 0);
    Ray_Set_Light(1, 1, 0xFF, &d);
    Ray_Params.view_transfo[0][0] = 2;
    unsigned short c[300] = {};
    unsigned char count[] = {1}, *list[] = {nullptr};
    Ray_Params.tag_col[0] = 0xABC;
    Ray_Params.map_col[3] = 4;
    Ray_Volume.vol_flag[31] = 0x90;
    Trace_Capture cap;
    Ray_Set_Light(5, 1, 0xFF, &d), Ray_Set_Light(2, 1, 0xFF, nullptr);
    Ray_Set_Color_TAG(257, c, c, c), Ray_Set_Color_TAG(1, c, nullptr, c);
    Ray_Set_Color_Map(1, count, list, count), Ray_Set_Color_Map(2, nullptr, list, count);
    EXPECT_EQ(Ray_Set_Transfo(nullptr) + Ray_Set_Clip(-1, 0.5f, 1, 0, 1, 0, 1), 2);
    Ray_Mouse_Click(nullptr, 0x10, 1, 1), Ray_Mouse_Get_Rot(nullptr);
    Ray_Mouse_Click(nullptr, 0, 1, 1); /* a release needs no box */
    EXPECT_TRUE(Ray_Volume.vol_flag[31] == 0x90u && Ray_Params.light_nb == 2 && !Ray_Params.light_status[2]);
    EXPECT_TRUE(Ray_Params.tag_col[0] == 0xABCu && Ray_Params.map_col[3] == 4 && Ray_Params.view_transfo[0][0] == 2.0);
    auto lines = cap.lines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](const Trace_Capture::Line& l) { return l.flags == 2u; }), 10);
    EXPECT_EQ(lines.size(), 18u); /* and the entry lines of the eight setters */
}

TEST(Mouse, DragsTurnMoveAndScaleTheView)
{
    Boxs box;
    box.x = 100, box.y = 50, box.width = 200, box.height = 100; /* the centre is (200, 100) */
    Vector_4 z(0, 0, 1, 0);
    Ray_Set_Light(1, 1, 0xFFFFFF, &z);
    const double s1 = std::sin(-1.0);
    struct { int first, button; float mx, my; int r, c; double expect; } drags[] = {
        {0, 0x40, 300, 100, 3, 0, -1.0}, /* translate: dx = -1 */
        {0, 0x20, 100, 100, 0, 0, 1.5},  /* scale from the left edge */
        {0, 0x50, 300, 100, 1, 1, 0.5},  /* scale from the right edge */
        {0, 0x11, 200, 50, 1, 2, s1},    /* dy = 1: rot_x(-1); the low nibble is ignored */
        {0x11, 0x30, 200, 50, 1, 2, s1}, /* an unknown mode keeps the last one */
        {0, 0x10, 100, 100, 2, 0, s1},   /* dx = 1: rot_y(-1) */
    };
    for (auto& d : drags) {
        Ray_Set_Rotation(0, 0, 0);
        if (d.first) Ray_Mouse_Click(&box, d.first, 0, 0);
        Ray_Mouse_Click(&box, d.button, 200, 100);
        Ray_Mouse_Motion(&box, 0, d.mx, d.my);
        EXPECT_NEAR(Ray_Params.view_transfo[d.r][d.c], d.expect, 1e-7) << d.button;
    }
    expect_dir(Ray_Params.light_dir[1], static_cast<float>(s1), 0, static_cast<float>(std::cos(-1.0)));
    Ray_Mouse_Click(&box, 0, 0, 0); /* a release ends the drag: motion does nothing */
    Trace_Capture cap;
    Ray_Mouse_Motion(&box, 0, 300, 100);
    EXPECT_TRUE(std::fabs(Ray_Params.view_transfo[2][0] - s1) < 1e-7 && cap.lines().empty());
}

TEST(Mouse, GetRotReadsAnglesBack)
{
    float rot[3];
    const float angles[][3] = {{30, 0, 0}, {10, -20, 40}, {0, 90, 0}};
    for (auto& a : angles) {
        Ray_Set_Rotation(a[0], a[1], a[2]), Ray_Mouse_Get_Rot(rot);
        for (int k = a[1] == 90 ? 1 : 0; k < (a[1] == 90 ? 2 : 3); k++) /* at 90 only y is defined */
            EXPECT_NEAR(rot[k], a[k] * M_PI / 180, 1e-6) << a[0] << " " << k;
    }
}
