/*
 * test_fast_walk.cpp - the CPU renderer's walk through a slot's render
 * layout (interleaved channels, block bounds, the run flag read without
 * the lock) against the plain walk over the five separate volumes with the
 * run flag under the lock: the same pixel word, on many random scenes.
 */
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "core/ray_core.h"
#include "core/ray_state.h"
#include "cpu/ray_pixel.h"
#include "cpu/ray_render_layout.h"
#include "scene.h"
#include "support.h"

namespace {

/* A small deterministic generator for the scenes. */
struct Rng {
    uint64_t s;
    explicit Rng(uint64_t seed) : s(seed * 2654435761u + 1) {}
    uint32_t next()
    {
        s ^= s << 13;
        s ^= s >> 7;
        s ^= s << 17;
        return static_cast<uint32_t>(s >> 11);
    }
    int range(int lo, int hi) { return lo + static_cast<int>(next() % static_cast<uint32_t>(hi - lo + 1)); }
    float unit() { return static_cast<float>(next() & 0xFFFFFF) / 16777216.0f; }
};

/*
 * A volume with empty regions and sharp edges: a few boxes of constant or
 * noisy grey level on an empty background, some voxels exactly at the
 * opacity threshold, NaN voxels and tag regions.  The gradient block is
 * the test phantom's (central differences), with a few magnitudes set to
 * exactly 0 inside busy regions.
 */
void random_volume(Scene_Phantom& p, Rng& rng, float thr)
{
    int d[3] = {rng.range(3, 40), rng.range(3, 40), rng.range(3, 40)};
    for (int a = 0; a < 3; a++) p.dim[a] = d[a];
    size_t n = static_cast<size_t>(d[0]) * d[1] * d[2];
    p.gli.assign(n, 0.0f);
    p.tag.assign(n, 0);
    for (int b = rng.range(1, 5); b > 0; b--) {
        int lo[3], hi[3];
        for (int a = 0; a < 3; a++) {
            lo[a] = rng.range(0, d[a] - 1);
            hi[a] = rng.range(lo[a], d[a] - 1);
        }
        float base = rng.unit() * 1.2f - 0.1f;
        float noise = (rng.next() & 1) ? rng.unit() * 0.3f : 0.0f;
        unsigned char t = static_cast<unsigned char>(rng.range(0, 4));
        for (int z = lo[2]; z <= hi[2]; z++)
            for (int y = lo[1]; y <= hi[1]; y++)
                for (int x = lo[0]; x <= hi[0]; x++) {
                    size_t i = Scene_Index(p, x, y, z);
                    p.gli[i] = base + noise * (rng.unit() - 0.5f);
                    p.tag[i] = t;
                }
    }
    for (int k = rng.range(0, 6); k > 0; k--) p.gli[rng.next() % n] = thr - 0.1f;   /* exactly at the threshold */
    Scene_Gradient(p);
    for (int k = rng.range(0, 6); k > 0; k--) p.gli[rng.next() % n] = std::numeric_limits<float>::quiet_NaN();
    for (int k = rng.range(0, 6); k > 0; k--) p.g[0][rng.next() % n] = 0.0f;
    if (rng.next() % 8 == 0) p.g[1][rng.next() % n] = std::numeric_limits<float>::quiet_NaN();
}

/* Render parameters: any colour mode, maps, tag colours, lights and a threshold. */
void random_params(Rng& rng, float thr)
{
    Scene_Params();
    Ray_Params.threshold = thr;
    Ray_Params.col_mode = static_cast<unsigned char>(rng.range(0, 6));
    Ray_Params.map_nb = static_cast<unsigned char>(rng.range(0, 4));
    for (int t = 0; t < 5; t++) {
        Ray_Params.map_col[t] = static_cast<unsigned char>(rng.range(0, 3));
        Ray_Params.map_id[t] = static_cast<unsigned char>(rng.range(0, 3));
    }
    for (int c = 1; c < 4; c++) Ray_Params.tag_col[c] = rng.next() & 0xFFFFFF;
    Ray_Params.light_nb = static_cast<unsigned short>(rng.range(1, 5));
}

/*
 * A view from any side, at any distance, sometimes from inside the volume;
 * one in four along axes and diagonals, where crossings tie.
 */
Matrix_4x4 random_view(Rng& rng)
{
    Matrix_4x4 m;
    bool ties = rng.next() % 4 == 0;
    for (int a = 0; a < 3; a++) {
        float angle = ties ? 0.78539816f * static_cast<float>(rng.range(0, 7)) : rng.unit() * 6.3f;
        if (a == 0) m.rot_x(angle);
        if (a == 1) m.rot_y(angle);
        if (a == 2) m.rot_z(angle);
    }
    float s = 0.3f + rng.unit() * 1.5f;
    m.scale(s, s, s);
    if (rng.next() % 4 == 0) m.translate(0.0f, 0.0f, 1.5f + rng.unit());   /* the eye inside */
    return m;
}

/* A clip box on some planes, and a depth clip. */
void random_clip(int slot, Rng& rng)
{
    static const unsigned int planes[] = {RAY_VF_LOW_X, RAY_VF_LOW_Y, RAY_VF_LOW_Z,
                                          RAY_VF_HIGH_X, RAY_VF_HIGH_Y, RAY_VF_HIGH_Z};
    unsigned int vf = 0;
    if (rng.next() % 2) {
        vf = RAY_VF_CLIP;
        for (unsigned int p : planes)
            if (rng.next() % 3 == 0) vf |= p;
    }
    Ray_Volume.vol_flag[slot] = vf;
    int dims[3] = {Ray_Volume.dim_x[slot], Ray_Volume.dim_y[slot], Ray_Volume.dim_z[slot]};
    for (int a = 0; a < 3; a++) {
        Ray_Volume.clip_box[slot][2 * a] = rng.range(-1, dims[a]);
        Ray_Volume.clip_box[slot][2 * a + 1] = rng.range(-1, dims[a]);
    }
    if (rng.next() % 3 == 0) Ray_Volume.clip[slot] += rng.unit() * Ray_Diagonal(dims[0], dims[1], dims[2]);
}

float g_draw = 0.0f;
float fixed_draw() { return g_draw; }

/* The plain walk of pixel (i, j) in the slot's view, the run flag under the lock. */
unsigned int plain_pixel(int slot, int i, int j, int W, int H)
{
    Ray_Run_Locked run;
    Ray_View v;
    Ray_View_Of(slot, W, H, &v);
    float eye[3], d[3], inv;
    Ray_Pixel_Ray(v.m, i, j, W, H, g_draw, g_draw, eye, d, &inv);
    Vector_4 dir(d[0], d[1], d[2], 0.0f);
    dir *= inv;
    const float unit[3] = {dir.x, dir.y, dir.z};
    Ray_Scene sc;
    Ray_Scene_Slot(&sc, slot, Ray_Params.threshold, Ray_Volume.clip[slot]);
    return Ray_Cast<RAY_CPU>(eye, unit, sc, run);
}

struct FastWalk : ::testing::Test {
    void SetUp() override
    {
        Critical_Ray_Create();
        Ray_Thread_Run = 1;
        Corekit_Set_Random(&fixed_draw);
    }
    void TearDown() override
    {
        Corekit_Set_Random(nullptr);
        Scene_Uninstall(3);
        Critical_Ray_Cleanup();
    }
};

}  // namespace

/*
 * Word for word on 300 random scenes (views, volumes, every colour mode,
 * maps and tags, clip box, depth clip, NaN voxels, voxels at the threshold),
 * each also with the threshold moved between two frames.
 */
TEST_F(FastWalk, SameWordAsThePlainWalk)
{
    const int slot = 3, W = 24, H = 20;
    for (int scene = 0; scene < 300; scene++) {
        Rng rng(static_cast<uint64_t>(scene));
        float thr = rng.unit();
        Scene_Phantom p;
        random_volume(p, rng, thr);
        Scene_Install(slot, p);
        random_params(rng, thr);
        Scene_Bind(slot, W, H, random_view(rng));
        random_clip(slot, rng);
        g_draw = rng.unit() * 2.0f - 1.0f;
        for (int frame = 0; frame < 2; frame++) {
            if (frame == 1) Ray_Params.threshold = rng.unit();
            int differ = 0;
            for (int j = 0; j < H; j++)
                for (int i = 0; i < W; i++) differ += Ray_Pixel(slot, i, j, W, H) != plain_pixel(slot, i, j, W, H);
            ASSERT_EQ(differ, 0) << "scene " << scene << " frame " << frame;
        }
        Scene_Uninstall(slot);
    }
}
