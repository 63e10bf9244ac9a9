/* The CPU renderer's walk through a slot's render layout (interleaved channels, block bounds, the run flag
 * read without the lock) against the plain walk over the separate volumes: the same pixel word. */
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "core/ray_core.h"
#include "core/ray_state.h"
#include "cpu/ray_packet.h"
#include "cpu/ray_pixel.h"
#include "cpu/ray_render_layout.h"
#include "scene.h"
#include "support.h"

namespace {

struct Rng {
    uint64_t s;
    uint32_t next() { return s ^= s << 13, s ^= s >> 7, s ^= s << 17, static_cast<uint32_t>(s >> 11); }
    int range(int lo, int hi) { return lo + static_cast<int>(next() % static_cast<uint32_t>(hi - lo + 1)); }
    float unit() { return static_cast<float>(next() & 0xFFFFFF) / 16777216.0f; }
};

/* Boxes of constant or noisy grey level on an empty background, voxels exactly at the opacity threshold,
 * NaN voxels, tag regions; the phantom's gradient block, with a few magnitudes of exactly 0. */
void random_volume(Scene_Phantom& p, Rng& rng, float thr)
{
    for (int a = 0; a < 3; a++) p.dim[a] = rng.range(3, 40);
    const int* d = p.dim;
    size_t n = static_cast<size_t>(d[0]) * d[1] * d[2];
    p.gli.assign(n, 0.0f), p.tag.assign(n, 0);
    for (int b = rng.range(1, 5); b > 0; b--) {
        int lo[3], hi[3];
        for (int a = 0; a < 3; a++) lo[a] = rng.range(0, d[a] - 1), hi[a] = rng.range(lo[a], d[a] - 1);
        float base = rng.unit() * 1.2f - 0.1f, noise = (rng.next() & 1) ? rng.unit() * 0.3f : 0.0f;
        unsigned char t = static_cast<unsigned char>(rng.range(0, 4));
        for (int z = lo[2]; z <= hi[2]; z++)
            for (int y = lo[1]; y <= hi[1]; y++)
                for (int x = lo[0]; x <= hi[0]; x++) {
                    size_t i = Scene_Index(p, x, y, z);
                    p.gli[i] = base + noise * (rng.unit() - 0.5f), p.tag[i] = t;
                }
    }
    for (int k = rng.range(0, 6); k > 0; k--) p.gli[rng.next() % n] = thr - 0.1f;
    Scene_Gradient(p);
    for (int k = rng.range(0, 6); k > 0; k--) p.gli[rng.next() % n] = std::numeric_limits<float>::quiet_NaN();
    for (int k = rng.range(0, 6); k > 0; k--) p.g[0][rng.next() % n] = 0.0f;
    if (rng.next() % 8 == 0) p.g[1][rng.next() % n] = std::numeric_limits<float>::quiet_NaN();
}

unsigned int g_phong[RAY_PHONG_SIZE];

/* Any colour mode, maps, tag colours and lights (some off), one in four with a Phong table that is 0 up to any entry; a
 * view from any side, sometimes from inside the volume, one in four along axes and diagonals (where crossings tie); a
 * clip box on some planes, and a depth clip. */
void random_scene(int slot, Rng& rng, float thr)
{
    Scene_Params();
    Phong_table = nullptr;
    if (rng.next() % 4 == 0) {
        int from = rng.range(0, RAY_PHONG_SIZE);
        for (int i = 0; i < RAY_PHONG_SIZE; i++) g_phong[i] = i < from ? 0u : rng.next() % 256u;
        Phong_table = g_phong;
    }
    Ray_Params.threshold = thr;
    Ray_Params.col_mode = static_cast<unsigned char>(rng.range(0, 6));
    Ray_Params.map_nb = static_cast<unsigned char>(rng.range(0, 4));
    for (int t = 0; t < 5; t++)
        Ray_Params.map_col[t] = static_cast<unsigned char>(rng.range(0, 3)),
        Ray_Params.map_id[t] = static_cast<unsigned char>(rng.range(0, 3));
    for (int c = 1; c < 4; c++) Ray_Params.tag_col[c] = rng.next() & 0xFFFFFF;
    Ray_Params.light_nb = static_cast<unsigned short>(rng.range(1, 5));
    for (int l = 1; l < 5; l++) Ray_Params.light_status[l] = rng.next() % 4 != 0;
    Matrix_4x4 m;
    bool ties = rng.next() % 4 == 0;
    for (int a = 0; a < 3; a++) {
        float angle = ties ? 0.78539816f * static_cast<float>(rng.range(0, 7)) : rng.unit() * 6.3f;
        a == 0 ? m.rot_x(angle) : a == 1 ? m.rot_y(angle) : m.rot_z(angle);
    }
    float s = 0.3f + rng.unit() * 1.5f;
    m.scale(s, s, s);
    if (rng.next() % 4 == 0) m.translate(0.0f, 0.0f, 1.5f + rng.unit());
    Scene_Bind(slot, 24, 20, m);
    unsigned int vf = 0;
    if (rng.next() % 2) {
        vf = RAY_VF_CLIP;
        for (unsigned int p : {RAY_VF_LOW_X, RAY_VF_LOW_Y, RAY_VF_LOW_Z, RAY_VF_HIGH_X, RAY_VF_HIGH_Y, RAY_VF_HIGH_Z})
            if (rng.next() % 3 == 0) vf |= p;
    }
    Ray_Volume.vol_flag[slot] = vf;
    const int dims[3] = {Ray_Volume.dim_x[slot], Ray_Volume.dim_y[slot], Ray_Volume.dim_z[slot]};
    for (int k = 0; k < 6; k++) Ray_Volume.clip_box[slot][k] = rng.range(-1, dims[k / 2]);
    if (rng.next() % 3 == 0) Ray_Volume.clip[slot] += rng.unit() * Ray_Diagonal(dims[0], dims[1], dims[2]);
}

/* The draws r1 (columns), r2 (rows) of every pixel, taken in turn. */
float g_draw[2];
int g_draws = 0;
float next_draw() { return g_draw[g_draws++ & 1]; }

/* The plain walk of pixel (i, j) in the slot's view, the run flag under the lock. */
unsigned int plain_pixel(int slot, int i, int j, int W, int H)
{
    Ray_Run_Locked run;
    Ray_View v;
    Ray_View_Of(slot, W, H, &v);
    float eye[3], d[3], inv;
    Ray_Pixel_Ray(v.m, i, j, W, H, g_draw[0], g_draw[1], eye, d, &inv);
    const float unit[3] = {d[0] * inv, d[1] * inv, d[2] * inv};
    Ray_Scene sc;
    Ray_Scene_Slot(&sc, slot, Ray_Params.threshold, Ray_Volume.clip[slot]);
    return Ray_Cast<RAY_CPU>(eye, unit, sc, run);
}

/*
 * Every pixel of a W x H frame of slot equal to the plain walk's: as
 * Ray_Pixel gives it (when single), and in rows through Ray_Pixels_View
 * with the packets of each build this processor runs, and without.
 */
void expect_frame(int slot, int W, int H, bool single, const std::string& what)
{
    int differ = 0, differ_rows[RAY_PACKET_AVX512 + 1] = {};
    Ray_View view;
    Ray_View_Of(slot, W, H, &view);
    std::vector<int> is(W), js(W);
    std::vector<unsigned int> row[RAY_PACKET_AVX512 + 1];
    for (int j = 0; j < H; j++) {
        for (int i = 0; i < W; i++) is[i] = i, js[i] = j;
        for (int kind = RAY_PACKET_NONE; kind <= RAY_PACKET_AVX512; kind++) {
            Ray_Packet_Widest = kind;
            row[kind].resize(W);
            Ray_Pixels_View(slot, view, W, is.data(), js.data(), row[kind].data());
        }
        for (int i = 0; i < W; i++) {
            unsigned int want = plain_pixel(slot, i, j, W, H);
            if (single) differ += Ray_Pixel(slot, i, j, W, H) != want;
            for (int kind = RAY_PACKET_NONE; kind <= RAY_PACKET_AVX512; kind++) differ_rows[kind] += row[kind][i] != want;
        }
    }
    Ray_Packet_Widest = RAY_PACKET_AVX512;
    ASSERT_EQ(differ, 0) << what;
    for (int kind = RAY_PACKET_NONE; kind <= RAY_PACKET_AVX512; kind++)
        ASSERT_EQ(differ_rows[kind], 0) << "rows, packets " << kind << ": " << what;
}

}  // namespace

/* 300 random scenes, each also with the threshold moved between two frames, then as the packets take them. */
TEST(FastWalk, SameWordAsThePlainWalk)
{
    const int slot = 3, W = 24, H = 20;
    Critical_Ray_Create();
    Ray_Thread_Run = 1;
    Corekit_Set_Random(&next_draw);
    for (int scene = 0; scene < 300; scene++) {
        Rng rng{static_cast<uint64_t>(scene) * 2654435761u + 1};
        float thr = rng.unit();
        Scene_Phantom p;
        random_volume(p, rng, thr);
        Scene_Install(slot, p);
        random_scene(slot, rng, thr);
        g_draw[0] = rng.unit() * 2.0f - 1.0f, g_draw[1] = rng.unit() * 2.0f - 1.0f;
        for (int frame = 0; frame < 4; frame++) {
            if (frame == 1) Ray_Params.threshold = rng.unit();
            if (frame == 2) {
                /* the scenes that eight-ray packets walk: no clip box, colour mode 0 or 1, a light along z */
                Ray_Volume.vol_flag[slot] = 0;
                Ray_Params.col_mode = static_cast<unsigned char>(scene & 1);
                Ray_Params.light_dir[2] = Vector_4(0.0f, 0.0f, 1.0f, 0.0f);
            }
            if (frame == 3) Ray_Params.threshold = rng.unit();
            std::string what = "scene " + std::to_string(scene) + " frame " + std::to_string(frame);
            ASSERT_NO_FATAL_FAILURE(expect_frame(slot, W, H, true, what));
        }
        Scene_Uninstall(slot);
    }
    Phong_table = nullptr;
    Corekit_Set_Random(nullptr);
}

/*
 * Large volumes, empty but for a few small boxes, as the packets take them:
 * lanes cross whole empty regions at once before and after the boxes.
 */
TEST(FastWalk, LongEmptyStretchesAsThePlainWalk)
{
    const int slot = 3, W = 24, H = 20;
    Critical_Ray_Create();
    Ray_Thread_Run = 1;
    Corekit_Set_Random(&next_draw);
    for (int scene = 0; scene < 40; scene++) {
        Rng rng{static_cast<uint64_t>(scene) * 40503u + 7};
        float thr = 0.2f + 0.5f * rng.unit();
        Scene_Phantom p;
        for (int a = 0; a < 3; a++) p.dim[a] = rng.range(33, 72);
        size_t n = static_cast<size_t>(p.dim[0]) * p.dim[1] * p.dim[2];
        p.gli.assign(n, 0.0f), p.tag.assign(n, 0);
        for (int b = rng.range(2, 10); b > 0; b--) {
            int lo[3];
            for (int a = 0; a < 3; a++) lo[a] = rng.range(0, p.dim[a] - 6);
            float v = thr + 0.1f + rng.unit() * 0.6f;
            for (int z = lo[2]; z < lo[2] + rng.range(1, 6); z++)
                for (int y = lo[1]; y < lo[1] + 5; y++)
                    for (int x = lo[0]; x < lo[0] + 4; x++) p.gli[Scene_Index(p, x, y, z)] = v;
        }
        Scene_Gradient(p);
        Scene_Install(slot, p);
        random_scene(slot, rng, thr);
        Ray_Volume.vol_flag[slot] = 0;
        Ray_Params.col_mode = static_cast<unsigned char>(scene & 1);
        g_draw[0] = rng.unit() * 2.0f - 1.0f, g_draw[1] = rng.unit() * 2.0f - 1.0f;
        ASSERT_NO_FATAL_FAILURE(expect_frame(slot, W, H, false, "scene " + std::to_string(scene)));
        Scene_Uninstall(slot);
    }
    Phong_table = nullptr;
    Corekit_Set_Random(nullptr);
}

/* The packets' 16-bit grey bounds are still bounds: never below the float they stand for, exact where it fits. */
TEST(FastWalk, GreyBoundsRoundUp)
{
    const float inf = std::numeric_limits<float>::infinity();
    auto back = [](float v) {
        unsigned int u = static_cast<unsigned int>(Ray_Grey16_Of(v)) << 16;
        float f;
        memcpy(&f, &u, sizeof f);
        return f;
    };
    for (float v : {1.0000001f, -1.0000001f, 0.15f, -0.15f, 3.0e38f, 3.4028235e38f, -3.4028235e38f, 1.0e-40f, -1.0e-40f})
        EXPECT_GE(back(v), v) << v;
    for (float v : {0.0f, 1.0f, -0.5f, 0.25f, inf, -inf}) EXPECT_EQ(back(v), v) << v;
}

/*
 * The packets' grey tables against the samples they answer for, on a volume
 * with one voxel of grey level and magnitude 1: a sample that sees it (its
 * plain interpolation is not 0) has a block bound above 0, in the own table
 * for the block of its point's integer parts, in the near table for the
 * block of any voxel within 2 voxels of its point.
 */
TEST(FastWalk, GreyBoundsCoverTheSamplesTheyAnswerFor)
{
    const int dim[3] = {7, 6, 5};
    const size_t n = 7 * 6 * 5;
    auto above0 = [](Ray_Grey16 g) { return static_cast<short>(g) > 0; };   /* sign bit clear, not 0 */
    Rng rng{7};
    for (int trial = 0; trial < 12; trial++) {
        std::vector<float> gli(n, 0.0f), a(n, 0.0f), zero(n, 0.0f);
        size_t hot = rng.next() % n;
        gli[hot] = a[hot] = 1.0f;
        float* grad[4] = {a.data(), zero.data(), zero.data(), zero.data()};
        Ray_Render_Layout* L = Ray_Render_Layout_Build(dim[0], dim[1], dim[2], gli.data(), grad);
        ASSERT_NE(L, nullptr);
        auto block = [&](const int* v) {
            return ((static_cast<size_t>(v[2] >> RAY_BLOCK_SHIFT) * L->bdim[1]) + (v[1] >> RAY_BLOCK_SHIFT)) * L->bdim[0] +
                   (v[0] >> RAY_BLOCK_SHIFT);
        };
        const float off[] = {-1.99f, -1.0f, 0.0f, 0.5f, 1.99f, 2.99f};
        int seen = 0;
        for (int v = 0; v < static_cast<int>(n); v++) {
            const int vox[3] = {v % dim[0], v / dim[0] % dim[1], v / (dim[0] * dim[1])};
            for (int k = 0; k < 216; k++) {
                const float pos[3] = {vox[0] + off[k % 6], vox[1] + off[k / 6 % 6], vox[2] + off[k / 36]};
                Ray_Stencil st;
                Ray_Interp_Setup<RAY_CPU>(&st, pos, dim);
                float g = 0.0f;
                for (int c = 0; c < 8; c++)
                    if (st.valid & (1u << c))
                        Ray_Interp_Add<RAY_CPU>(g, gli[static_cast<size_t>(st.index[c])], st.wx[c & 1],
                                                st.wy[(c >> 1) & 1], st.wz[c >> 2]);
                if (g == 0.0f) continue;
                seen++;
                ASSERT_TRUE(above0(L->grey[block(vox)].near)) << "hot " << hot << " voxel " << v << " point " << k;
                int cell[3];
                bool inside = true;
                for (int ax = 0; ax < 3; ax++) {
                    cell[ax] = static_cast<int>(pos[ax]);
                    inside = inside && pos[ax] >= 0.0f && cell[ax] < dim[ax];
                }
                if (inside) {
                    ASSERT_TRUE(above0(L->grey[block(cell)].own)) << "hot " << hot << " point " << k;
                }
            }
        }
        EXPECT_GT(seen, 0);
        Ray_Render_Layout_Release(L);
    }
}

/*
 * The packets' set-up of eight pixels, in each build, field for field as one
 * pixel's (Ray_Pixel_Ray, the Vector_4 scaling, Ray_Setup), with the same
 * rays entering: affine and projective views from outside and inside the
 * box, the eye on its faces, rays along its faces (a centre pixel of an axis
 * view, no draw), views whose w' is 0, eyes beyond the miss codes; and two
 * rays parallel to a face: just outside its slab (a miss, though the moved
 * point would lie inside), and on its high face (a miss there).
 */
TEST(FastWalk, PacketSetUpAsOneRay)
{
    if (!Ray_Packet_Available()) GTEST_SKIP() << "no packet build on this processor";
    int hits = 0, misses = 0, parallel = 0;
    auto check = [&](const float* m, int W, int H, const int* dim, int n, const int* is, const int* js, const float* r1,
                     const float* r2, const std::string& what) {
        Ray_Scene sc{};
        for (int a = 0; a < 3; a++) sc.dim[a] = dim[a];
        for (int build = RAY_PACKET_AVX2; build <= RAY_PACKET_AVX512; build++) {
            Rays got[RAY_PACKET_LANES];
            int lanes = n < Ray_Packet_Lanes_For(build) ? n : Ray_Packet_Lanes_For(build);
            int entered = Ray_Packet_Setup_For(build)(m, W, H, dim, lanes, is, js, r1, r2, got);
            ASSERT_EQ(entered >> lanes, 0) << what << " build " << build;
            for (int l = 0; l < lanes; l++) {
                float eye[3], d[3], inv;
                Ray_Pixel_Ray(m, is[l], js[l], W, H, r1[l], r2[l], eye, d, &inv);
                Vector_4 unit(d[0], d[1], d[2], 0.0f);
                unit *= inv;
                const float dir[3] = {unit.x, unit.y, unit.z};
                Rays want;
                bool hit = Ray_Setup<RAY_CPU>(eye, dir, sc, &want);
                ASSERT_EQ(((entered >> l) & 1) != 0, hit) << what << " lane " << l << " build " << build;
                hits += hit, misses += !hit;
                parallel += hit && (want.t_delta[0] == 0 || want.t_delta[1] == 0 || want.t_delta[2] == 0);
                if (hit) {
                    ASSERT_EQ(memcmp(&got[l], &want, sizeof want), 0) << what << " lane " << l << " build " << build;
                }
            }
        }
    };
    Rng rng{11};
    for (int trial = 0; trial < 3000; trial++) {
        float m[16] = {};
        int kind = trial % 4;
        for (int k = 0; k < 12; k++) m[k] = kind == 0 ? 0.0f : rng.unit() * 4.0f - 2.0f;
        if (kind == 0)   /* an axis view: x, y, z taken to a permutation of the axes, with any signs */
            for (int r = 0, perm = rng.range(0, 5); r < 3; r++)
                m[4 * r + (r + perm % 3 + (perm > 2 && r ? 1 : 0)) % 3] = (rng.next() & 1 ? 1.0f : -1.0f) * (0.1f + rng.unit());
        for (int k = 12; k < 15; k++) m[k] = rng.unit() * 400.0f - 50.0f;
        m[15] = 1.0f;
        if (kind == 2) m[3] = rng.unit() * 0.02f - 0.01f, m[7] = rng.unit() * 0.02f - 0.01f, m[11] = rng.unit() * 0.2f;
        if (kind == 3 && trial % 16 == 3) m[15] = 0.0f;
        const int dim[3] = {rng.range(1, 300), rng.range(1, 300), rng.range(1, 300)};
        if (kind == 1 && trial % 8 == 1)   /* the eye exactly on a face of the box (its w' 1) */
            for (int a = 0, face = rng.range(0, 5); a < 3; a++) {
                m[11] = 0.0f;
                m[8 + a] = static_cast<float>(rng.range(-2048, 2048)) / 1024.0f;
                if (a == face / 2) m[12 + a] = 2.0f * m[8 + a] + static_cast<float>(face & 1 ? dim[a] : 0);
            }
        if (kind == 3 && trial % 16 == 7)   /* an eye so far off that its entry lies beyond the miss codes */
            for (int k = 12; k < 15; k++) m[k] *= 1.0e10f;
        int W = rng.range(1, 600), H = rng.range(1, 600), n = rng.range(1, RAY_PACKET_LANES);
        int is[RAY_PACKET_LANES], js[RAY_PACKET_LANES];
        float r1[RAY_PACKET_LANES], r2[RAY_PACKET_LANES];
        for (int l = 0; l < n; l++) {
            bool centre = rng.next() % 3 == 0;
            is[l] = centre ? W >> 1 : rng.range(-2, W + 1), js[l] = centre ? H >> 1 : rng.range(-2, H + 1);
            r1[l] = centre ? 0.0f : rng.unit() * 2.0f - 1.0f, r2[l] = centre ? 0.0f : rng.unit() * 2.0f - 1.0f;
        }
        ASSERT_NO_FATAL_FAILURE(check(m, W, H, dim, n, is, js, r1, r2, "trial " + std::to_string(trial)));
    }
    EXPECT_GT(hits, 1000);
    EXPECT_GT(misses, 1000);
    EXPECT_GT(parallel, 100);
    /* Looking along z from z = -1002 in a 2 x 2 box: direction (0.0001, 0, 2) before scaling. */
    const int dim[3] = {20, 20, 20}, is[2] = {1, 1}, js[2] = {1, 1};
    const float r1[2] = {0.0002f, 0.0002f}, r2[2] = {0.0f, 0.0f};
    const float off_slab[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, -0.001f, 5, -1000, 1};
    const float on_face[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 5, 20, -1000, 1};
    misses = 0;
    check(off_slab, 2, 2, dim, 2, is, js, r1, r2, "just outside the x slab");
    check(on_face, 2, 2, dim, 2, is, js, r1, r2, "on the high y face");
    EXPECT_EQ(misses, 8);
}
