/* The render-parameter setters and the mouse trackball. */
#include <gtest/gtest.h>

#include <cmath>

#include <voxelune/voxelune.h>

#include "core/ray_state.h"
#include "support.h"

namespace {

void expect_dir(const Vector_4& v, float x, float y, float z)
{
    EXPECT_NEAR(v.x, x, 1e-6);
    EXPECT_NEAR(v.y, y, 1e-6);
    EXPECT_NEAR(v.z, z, 1e-6);
}

} // namespace

TEST(Setters, TraceLinesAndStores)
{
    Trace_Capture cap;
    Ray_Set_Threshold(0.456f);
    Ray_Set_Color_Scheme(3);
    Ray_Set_Clip(0.5f);
    EXPECT_FLOAT_EQ(Ray_Params.threshold, 0.456f);
    EXPECT_EQ(Ray_Params.col_mode, 3);
    auto l = cap.lines();
    ASSERT_EQ(l.size(), 6u);
    EXPECT_EQ(l[0].text, ">>> in  Voxelune: Ray_Set_Threshold(val=0.46)");
    EXPECT_EQ(l[0].flags, 0x90002004u);
    EXPECT_EQ(l[1].text, "<<< out Voxelune: Ray_Set_Threshold(done)");
    EXPECT_EQ(l[2].text, ">>> in  Voxelune: Ray_Set_Color_Scheme(val=3)");
    EXPECT_EQ(l[4].text, ">>> in  Voxelune: Ray_Set_Clip(val=0.50)");
}

TEST(Setters, LightNumberGrowsAndNeverShrinks)
{
    Vector_4 d(0, 0, 1, 0);
    Ray_Set_Light(3, 1, 0xFFFFFF, &d);
    EXPECT_EQ(Ray_Params.light_nb, 4);
    EXPECT_EQ(Ray_Params.light_status[1], 0);
    EXPECT_EQ(Ray_Params.light_color[2], 0u);
    Ray_Set_Light(1, 1, 0x808080, &d);
    EXPECT_EQ(Ray_Params.light_nb, 4);
    expect_dir(Ray_Params.light_dir[3], 0, 0, 1);
}

TEST(Setters, AmbientLightHasNoDirection)
{
    Vector_4 d(1, 2, 3, 4);
    Ray_Set_Light(0, 7, 0x123456, &d);
    EXPECT_EQ(Ray_Params.light_nb, 1);
    EXPECT_EQ(Ray_Params.light_status[0], 7);
    EXPECT_EQ(Ray_Params.light_color[0], 0x123456u);
    EXPECT_EQ(Ray_Params.light_vec[0].w, 4.0f);
    for (int i = 0; i < RAY_LIGHTS; i++) expect_dir(Ray_Params.light_dir[i], 0, 0, 0);
}

TEST(Setters, LightsFollowRotationAndIgnoreUniformScale)
{
    Vector_4 d(1, 2, 2, 0);
    Ray_Set_Light(2, 1, 0xFFFFFF, &d);
    Matrix_4x4 r;
    r.rot_z(0.7f);
    r.rot_x(-0.3f);
    Ray_Set_Transfo(&r);
    Vector_4 expect = d;
    expect *= r;
    expect = expect.normalise();
    expect_dir(Ray_Params.light_dir[2], expect.x, expect.y, expect.z);

    Matrix_4x4 rs = r;
    rs.scale(3, 3, 3, combine_after);
    rs.translate(10, -5, 2, combine_after);
    Ray_Set_Transfo(&rs);
    expect_dir(Ray_Params.light_dir[2], expect.x, expect.y, expect.z);
}

TEST(Setters, LightsUnderNonUniformScaleUseInverseTranspose)
{
    Vector_4 d(1, 1, 0, 0);
    Ray_Set_Light(1, 1, 0xFFFFFF, &d);
    Matrix_4x4 s;
    s.scale(2, 1, 1);
    Ray_Set_Transfo(&s);
    /* (1, 1, 0) times diag(1/2, 1, 1), normalised */
    expect_dir(Ray_Params.light_dir[1], 0.5f / std::sqrt(1.25f), 1.0f / std::sqrt(1.25f), 0);
}

TEST(Setters, RotationZeroIsIdentityAndLosesTranslation)
{
    Matrix_4x4 t;
    t.translate(5, 6, 7);
    Ray_Set_Transfo(&t);
    Ray_Set_Rotation(0, 0, 0);
    for (int i = 0; i < 4; i++)
        for (int j = 0; j < 4; j++) EXPECT_EQ(Ray_Params.view_transfo[i][j], i == j ? 1.0 : 0.0);
}

TEST(Setters, ColorTagUsesLowBytes)
{
    Ray_Params.tag_col[200] = 99;
    unsigned short c16[2] = {0x1FF, 1}, c8[2] = {0x2AB, 2}, c0[2] = {0x0CD, 3};
    Ray_Set_Color_TAG(2, c16, c8, c0);
    EXPECT_EQ(Ray_Params.tag_col[0], 0x00FFABCDu);
    EXPECT_EQ(Ray_Params.tag_col[1], 0x00010203u);
    for (int i = 2; i < 256; i++) ASSERT_EQ(Ray_Params.tag_col[i], 0u);
}

TEST(Setters, ColorMapLaterMapWins)
{
    unsigned char l0[] = {5, 9}, l1[] = {7}, l2[] = {9};
    unsigned char count[] = {2, 1, 1}, col[] = {10, 11, 12};
    unsigned char* list[] = {l0, l1, l2};
    Ray_Params.map_col[100] = 1;
    Ray_Set_Color_Map(3, count, list, col);
    EXPECT_EQ(Ray_Params.map_nb, 3);
    EXPECT_EQ(Ray_Params.map_id[9], 2);
    EXPECT_EQ(Ray_Params.map_col[9], 12);
    EXPECT_EQ(Ray_Params.map_id[5], 0);
    EXPECT_EQ(Ray_Params.map_col[5], 10);
    EXPECT_EQ(Ray_Params.map_col[100], 0);
    Ray_Set_Color_Map(0, nullptr, nullptr, nullptr);
    EXPECT_EQ(Ray_Params.map_nb, 0);
    EXPECT_EQ(Ray_Params.map_col[9], 0);
}

TEST(Setters, ClipBoxFlags)
{
    Ray_Volume.vol_flag[5] = 0x3;
    Ray_Set_Clip(5, 0, 1, 0, 1, 0, 1);
    EXPECT_EQ(Ray_Volume.vol_flag[5], 0x3u);
    Ray_Set_Clip(5, 0.2f, 1, 0, 0.5f, 0, 1);
    EXPECT_EQ(Ray_Volume.vol_flag[5], 0x293u);
    Ray_Set_Clip(37, 0, 1, 0, 1, 0.1f, 0.9f);
    EXPECT_EQ(Ray_Volume.vol_flag[5], 0x4C3u);
    EXPECT_EQ(Ray_Volume.clip_frac_z[5][0], 0.1f);
    EXPECT_EQ(Ray_Volume.clip_frac_z[5][1], 0.9f);
    Ray_Set_Clip(6, NAN, 1, 0, 1, 0, 1);
    EXPECT_EQ(Ray_Volume.vol_flag[6], 0x90u);
    /* fractions are stored as given: no clamping, no ordering */
    Ray_Set_Clip(7, 0.9f, 0.1f, -1, 2, 0, 1);
    EXPECT_EQ(Ray_Volume.clip_frac_x[7][0], 0.9f);
    EXPECT_EQ(Ray_Volume.clip_frac_y[7][1], 2.0f);
}

TEST(Setters, DepthClipFromDiagonal)
{
    Ray_Volume.dim_x[2] = Ray_Volume.dim_y[2] = Ray_Volume.dim_z[2] = 100;
    Ray_Set_Clip(0.0f);
    EXPECT_NEAR(Ray_Volume.clip[2], 43.301f, 1e-3);
    EXPECT_EQ(Ray_Volume.clip[3], 0.0f);
    Ray_Set_Clip(1.0f);
    EXPECT_NEAR(Ray_Volume.clip[2], 259.808f, 1e-3);
    /* the squares are 32-bit: 50000^2 wraps negative (and must not be
       undefined behaviour), so the root is not a number */
    Ray_Volume.dim_x[4] = 50000;
    Ray_Volume.dim_y[4] = Ray_Volume.dim_z[4] = 1;
    Ray_Set_Clip(1.0f);
    EXPECT_TRUE(std::isnan(Ray_Volume.clip[4]));
}

TEST(Setters, RefusedInputChangesNothing)
{
    Vector_4 d(1, 0, 0, 0);
    Ray_Set_Light(1, 1, 0xFF, &d);
    Matrix_4x4 before = Ray_Params.view_transfo;
    unsigned short c[300] = {};
    Ray_Params.tag_col[0] = 0xABC;
    Ray_Params.map_col[3] = 4;
    Trace_Capture cap;
    EXPECT_EQ(Ray_Set_Light(5, 1, 0xFF, &d), 1);
    EXPECT_EQ(Ray_Set_Light(2, 1, 0xFF, nullptr), 1);
    EXPECT_EQ(Ray_Set_Color_TAG(257, c, c, c), 1);
    EXPECT_EQ(Ray_Set_Color_TAG(1, c, nullptr, c), 1);
    unsigned char count[] = {1};
    unsigned char* list[] = {nullptr};
    EXPECT_EQ(Ray_Set_Color_Map(1, count, list, count), 1);
    EXPECT_EQ(Ray_Set_Color_Map(2, nullptr, list, count), 1);
    EXPECT_EQ(Ray_Set_Transfo(nullptr), 1);
    Ray_Volume.vol_flag[31] = 0x90;
    EXPECT_EQ(Ray_Set_Clip(-1, 0.5f, 1, 0, 1, 0, 1), 1);
    EXPECT_EQ(Ray_Volume.vol_flag[31], 0x90u);
    EXPECT_EQ(Ray_Params.light_nb, 2);
    EXPECT_EQ(Ray_Params.light_status[2], 0);
    EXPECT_EQ(Ray_Params.tag_col[0], 0xABCu);
    EXPECT_EQ(Ray_Params.map_col[3], 4);
    EXPECT_EQ(Ray_Params.view_transfo[0][0], before[0][0]);
    size_t errors = 0;
    for (auto& l : cap.lines())
        if (l.flags == 2u) errors++;
    EXPECT_EQ(errors, 8u);
}

/* ---- mouse ---- */

TEST(Mouse, MotionWithoutModeChangesNothing)
{
    Boxs box;
    box.x = 100; box.y = 50; box.width = 200; box.height = 100;
    Trace_Capture cap;
    Ray_Mouse_Motion(&box, 0, 300, 100);
    EXPECT_EQ(Ray_Params.view_transfo[3][0], 0.0);
    EXPECT_TRUE(cap.lines().empty());
}

TEST(Mouse, TranslateExample)
{
    Boxs box;
    box.x = 100; box.y = 50; box.width = 200; box.height = 100;
    Ray_Mouse_Click(&box, 0x40, 200, 100);   /* stores (0, 0) */
    Ray_Mouse_Motion(&box, 0, 300, 100);     /* dx = -1, dy = 0 */
    EXPECT_DOUBLE_EQ(Ray_Params.view_transfo[3][0], -1.0);
    EXPECT_DOUBLE_EQ(Ray_Params.view_transfo[3][1], 0.0);
    /* a release stops the drag */
    Ray_Mouse_Click(&box, 0, 0, 0);
    Ray_Mouse_Motion(&box, 0, 100, 100);
    EXPECT_DOUBLE_EQ(Ray_Params.view_transfo[3][0], -1.0);
}

TEST(Mouse, ScaleExamples)
{
    Boxs box;
    box.width = 200; box.height = 100;
    Ray_Mouse_Click(&box, 0x20, 100, 50);    /* centre */
    Ray_Mouse_Motion(&box, 0, 0, 50);        /* to the left edge: s = 1.5 */
    EXPECT_DOUBLE_EQ(Ray_Params.view_transfo[0][0], 1.5);
    Ray_Set_Rotation(0, 0, 0);
    Ray_Mouse_Click(&box, 0x50, 100, 50);
    Ray_Mouse_Motion(&box, 0, 200, 50);      /* to the right edge: s = 0.5 */
    EXPECT_DOUBLE_EQ(Ray_Params.view_transfo[1][1], 0.5);
}

TEST(Mouse, ClickModesUseHighNibble)
{
    Boxs box;
    box.width = 100; box.height = 100;
    Ray_Mouse_Click(&box, 0x11, 50, 50);     /* rotate */
    Ray_Mouse_Click(&box, 0x30, 50, 50);     /* keeps rotate, stores the position */
    Ray_Mouse_Motion(&box, 0, 50, 0);        /* dy = 1: rot_x(-1) */
    EXPECT_NEAR(Ray_Params.view_transfo[1][1], std::cos(-1.0), 1e-7);
    EXPECT_NEAR(Ray_Params.view_transfo[1][2], std::sin(-1.0), 1e-7);
}

TEST(Mouse, RotationMovesLights)
{
    Vector_4 d(0, 0, 1, 0);
    Ray_Set_Light(1, 1, 0xFFFFFF, &d);
    Boxs box;
    box.width = 100; box.height = 100;
    Ray_Mouse_Click(&box, 0x10, 50, 50);
    Ray_Mouse_Motion(&box, 0, 0, 50);        /* dx = 1: rot_y(-1) */
    Vector_4 e = d;
    e *= Ray_Params.view_transfo;
    e = e.normalise();
    expect_dir(Ray_Params.light_dir[1], e.x, e.y, e.z);
    EXPECT_GT(std::fabs(Ray_Params.light_dir[1].x), 0.5f);
}

TEST(Mouse, GetRotReadsAnglesBack)
{
    float rot[3];
    Ray_Set_Rotation(30, 0, 0);
    Ray_Mouse_Get_Rot(rot);
    EXPECT_FLOAT_EQ(rot[0], 0.5235988f);
    EXPECT_EQ(rot[1], 0.0f);
    EXPECT_EQ(rot[2], 0.0f);
    Ray_Set_Rotation(10, -20, 40);
    Ray_Mouse_Get_Rot(rot);
    EXPECT_NEAR(rot[0], 10 * M_PI / 180, 1e-6);
    EXPECT_NEAR(rot[1], -20 * M_PI / 180, 1e-6);
    EXPECT_NEAR(rot[2], 40 * M_PI / 180, 1e-6);
    Ray_Set_Rotation(0, 90, 0);
    Ray_Mouse_Get_Rot(rot);
    EXPECT_NEAR(rot[1], M_PI / 2, 1e-6);
}

TEST(Mouse, NullArgumentsAreRefused)
{
    Trace_Capture cap;
    Ray_Mouse_Click(nullptr, 0x10, 1, 1);
    Ray_Mouse_Get_Rot(nullptr);
    Ray_Mouse_Click(nullptr, 0, 1, 1);   /* a release needs no box */
    EXPECT_EQ(cap.lines().size(), 2u);
}
