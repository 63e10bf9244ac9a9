/*
 * ray_pixel.cpp - the CPU renderer's side of the ray core: a scene from
 * the slot tables and the render parameters, the stop request of the
 * pipeline, the sampler over a slot's render layout, and one pixel from
 * set-up to packed word.
 */
#include "cpu/ray_pixel.h"

#include <cmath>
#include <cstddef>
#include <cstring>
#if defined(__SSE2__)
#include <immintrin.h>
#endif

#include "core/ray_scene.h"
#include "core/ray_state.h"
#include "cpu/ray_packet.h"
#include "cpu/ray_render_layout.h"

/* ------------------------------------------------------------ stop request */

bool Ray_Run_Locked::operator()() const
{
    Critical_Ray_In("DDDA_Volume");
    int run = Ray_Thread_Run.load(std::memory_order_relaxed);
    Critical_Ray_Out("DDDA_Volume");
    return run != 0;
}

/* The run flag alone: the lock would add nothing but lines nobody reads. */
struct Ray_Run_Atomic {
    bool operator()() const { return Ray_Thread_Run.load(std::memory_order_acquire) != 0; }
};


/* ---------------------------------------------------- the layout sampler */

/*
 * The five channels of a stencil whose eight corners all lie in the
 * volume, summed corner by corner: out[ch] = the sum over the corners, in
 * order, whose value is not NaN, of value * wx * wy * wz.  On x86-64 four
 * channels go through one SSE register (the fifth through the low lane of
 * a second); elsewhere channel by channel.  Either way each channel sees
 * exactly the float operations of the plain interpolation.
 */
#if defined(__SSE2__)
static inline __m128 add_unless_nan(__m128 sum, __m128 v, __m128 p)
{
    __m128 keep = _mm_cmpord_ps(v, v);   /* all ones where v is not NaN */
    return _mm_or_ps(_mm_and_ps(keep, _mm_add_ps(sum, p)), _mm_andnot_ps(keep, sum));
}

/*
 * Every x86-64: channels 0 to 3 in one register, channel 4 in the low lane
 * of another.  Where the block holds no NaN the corners are simply added.
 * (An eight-lane AVX form of the same measured far slower.)
 */
template <bool NaNs>
static inline void interp_full(const float* first, const size_t* corner, const float* wx, const float* wy,
                               const float* wz, float* out)
{
    const __m128 x[2] = {_mm_set1_ps(wx[0]), _mm_set1_ps(wx[1])};
    const __m128 y[2] = {_mm_set1_ps(wy[0]), _mm_set1_ps(wy[1])};
    const __m128 z[2] = {_mm_set1_ps(wz[0]), _mm_set1_ps(wz[1])};
    __m128 s4 = _mm_setzero_ps(), s1 = _mm_setzero_ps();
    for (int c = 0; c < 8; c++) {
        const float* at = first + corner[c];
        __m128 v4 = _mm_loadu_ps(at);
        __m128 v1 = _mm_load_ss(at + 4);
        __m128 p4 = _mm_mul_ps(_mm_mul_ps(_mm_mul_ps(v4, x[c & 1]), y[(c >> 1) & 1]), z[c >> 2]);
        __m128 p1 = _mm_mul_ss(_mm_mul_ss(_mm_mul_ss(v1, x[c & 1]), y[(c >> 1) & 1]), z[c >> 2]);
        if (NaNs) {
            s4 = add_unless_nan(s4, v4, p4);
            s1 = add_unless_nan(s1, v1, p1);
        } else {
            s4 = _mm_add_ps(s4, p4);
            s1 = _mm_add_ss(s1, p1);
        }
    }
    _mm_storeu_ps(out, s4);
    _mm_store_ss(out + 4, s1);
}
#else
/* Other processors: channel by channel (NaN corners left out either way). */
template <bool NaNs>
static void interp_full(const float* first, const size_t* corner, const float* wx, const float* wy, const float* wz,
                        float* out)
{
    for (int ch = 0; ch < RAY_CH_NB; ch++) {
        float sum = 0.0f;
        for (int c = 0; c < 8; c++)
            Ray_Interp_Add<RAY_CPU>(sum, first[corner[c] + ch], wx[c & 1], wy[(c >> 1) & 1], wz[c >> 2]);
        out[ch] = sum;
    }
}
#endif

/*
 * The samples of a slot with a render layout.  Every channel is summed
 * over the same corners in the same order and with the same float
 * operations as the plain sampler does, five channels at once; corners
 * outside the volume and NaN values are left out as there.  Bounds of the
 * block that holds the sample's voxel tell when its opacity must be 0.
 */
struct Ray_Layout_Sampler {
    const Ray_Scene& sc;
    const Ray_Render_Layout& L;
    size_t corner[8];   /* offset of each corner from the stencil's first, in floats */
    float val[8];
    /*
     * Set by bound() for the sample that at() then reads: its point's
     * integer parts (the stencil's cell) when known, and whether its block
     * holds no NaN.
     */
    int cell[3];
    bool cell_known = false;
    bool no_nan = false;

    Ray_Layout_Sampler(const Ray_Scene& scene, const Ray_Render_Layout& layout) : sc(scene), L(layout)
    {
        for (int c = 0; c < 8; c++) corner[c] = (c & 1) * RAY_CH_NB + ((c & 2) ? L.row : 0) + ((c & 4) ? L.slice : 0);
    }

    /* Offset in floats of voxel (x, y, z), all in [0, dim). */
    size_t offset_of(int x, int y, int z) const
    {
        return static_cast<size_t>(z) * L.slice + static_cast<size_t>(y) * L.row + static_cast<size_t>(x) * RAY_CH_NB;
    }

    bool missing() const { return false; }

    /* The block that holds voxel (x, y, z), all in [0, dim). */
    size_t block_of(unsigned int x, unsigned int y, unsigned int z) const
    {
        return (static_cast<size_t>(z >> RAY_BLOCK_SHIFT) * static_cast<size_t>(L.bdim[1]) + (y >> RAY_BLOCK_SHIFT)) *
                   static_cast<size_t>(L.bdim[0]) +
               (x >> RAY_BLOCK_SHIFT);
    }

    /*
     * The sample of a walk step lies in the voxel the DDA leaves, give or
     * take the rounding of its point and the DDA's truncated increments:
     * less than 2 voxels on any axis while every index stays below 8192
     * and the eye within 2^19 voxels, so within the block's neighbours.
     * Their near bounds then decide for any tag; one verdict per block.
     */
    bool leap_ok = false;
    size_t leap_block = ~size_t(0);
    bool leap_zero = false;

    void begin(const Rays* ray)
    {
        leap_ok = L.dim[0] < 8192 && L.dim[1] < 8192 && L.dim[2] < 8192;
        for (int a = 0; a < 3; a++) leap_ok = leap_ok && ray->org[a] < 524288.0f && ray->org[a] > -524288.0f;
        leap_ok = leap_ok && ray->entry < 524288.0f;
    }

    bool leap(const int* v, const Ray_Zero_Rule& z)
    {
        if (!leap_ok) return false;
        size_t b = block_of(v[0], v[1], v[2]);
        if (b != leap_block) {
            leap_block = b;
            leap_zero = Ray_Alpha_Is_Zero_Any_Tag(z, L.block[b].a_near, L.block[b].g_near);
        }
        return leap_zero;
    }

    /* Asks the caches for the rows of voxel v's stencils ahead of their sample. */
    void prefetch(const int* v) const
    {
        const float* at = L.voxel + offset_of(v[0], v[1], v[2]);
        for (int c = 0; c < 8; c += 2) __builtin_prefetch(at + corner[c]);
    }

    bool bound(const float* pos, float* a_hi, float* g_hi)
    {
        /*
         * Weights lie in [0, 1] only for points at or above 0: every sign
         * bit clear (a NaN that passes converts out of range below).
         */
        no_nan = cell_known = false;
        unsigned int sign[3];
        memcpy(sign, pos, sizeof sign);
        if ((sign[0] | sign[1] | sign[2]) >> 31) return false;
        for (int a = 0; a < 3; a++) cell[a] = Ray_F2I<RAY_CPU>(pos[a]);
        cell_known = true;
        unsigned int n[3];
        for (int a = 0; a < 3; a++) {
            n[a] = static_cast<unsigned int>(cell[a]);
            if (n[a] >= static_cast<unsigned int>(L.dim[a])) return false;
        }
        size_t b = block_of(n[0], n[1], n[2]);
        *a_hi = L.block[b].a_hi;
        *g_hi = L.block[b].g_hi;
        no_nan = (L.block[b].flags & RAY_BLOCK_NO_NAN) != 0;
        return true;
    }

    void at(const float* pos)
    {
        int lo[3][2];
        float w[3][2];
        unsigned int inside = 1;
        for (int a = 0; a < 3; a++) {
            if (cell_known)
                Ray_Interp_Axis_At(pos[a], cell[a], lo[a], w[a]);
            else
                Ray_Interp_Axis<RAY_CPU>(pos[a], lo[a], w[a]);
            /* both neighbours in [0, dim) */
            inside &= static_cast<unsigned int>(lo[a][0]) < static_cast<unsigned int>(L.dim[a] - 1);
        }
        if (inside) {
            size_t first = offset_of(lo[0][0], lo[1][0], lo[2][0]);
            if (no_nan)
                interp_full<false>(L.voxel + first, corner, w[0], w[1], w[2], val);
            else
                interp_full<true>(L.voxel + first, corner, w[0], w[1], w[2], val);
            return;
        }
        /* Near the faces: corner by corner, as the plain sampler. */
        Ray_Stencil st;
        Ray_Interp_Setup<RAY_CPU>(&st, pos, L.dim);
        for (int ch = 0; ch < RAY_CH_NB; ch++) {
            float sum = 0.0f;
            for (int c = 0; c < 8; c++) {
                if (!(st.valid & (1u << c))) continue;
                size_t at = static_cast<size_t>(static_cast<unsigned int>(st.index[c])) * RAY_CH_NB + ch;
                Ray_Interp_Add<RAY_CPU>(sum, L.voxel[at], st.wx[c & 1], st.wy[(c >> 1) & 1], st.wz[c >> 2]);
            }
            val[ch] = sum;
        }
    }

    float a() const { return val[RAY_CH_A]; }
    float g() const { return val[RAY_CH_G]; }
    void normal(float* n) const
    {
        n[0] = val[RAY_CH_X];
        n[1] = val[RAY_CH_Y];
        n[2] = val[RAY_CH_Z];
    }
};

/* ------------------------------------------------------------ one pixel */

/*
 * Calls fn(run, smp) with the stop request and the sampler that slot's
 * rays use now: the slot's render layout when it has one, the run flag
 * under the lock only while a trace sink listens.
 */
template <class Fn>
static unsigned int with_policies(int slot, const Ray_Scene& sc, Fn fn)
{
    const Ray_Render_Layout* layout = Ray_Volume.render[slot];
    bool listening = Corekit_Trace_Listening() != 0;
    Ray_Run_Locked locked;
    Ray_Run_Atomic atomic;
    if (layout) {
        Ray_Layout_Sampler smp(sc, *layout);
        return listening ? fn(locked, smp) : fn(atomic, smp);
    }
    Ray_Plain_Sampler<RAY_CPU> smp(sc);
    return listening ? fn(locked, smp) : fn(atomic, smp);
}

/* The ray through pixel (i, j) of view, jittered by two draws: its eye point and unit direction. */
static void pixel_ray(const Ray_View& view, int i, int j, float* eye, float* unit)
{
    float r1 = Fct_Random_Float();
    float r2 = Fct_Random_Float();
    float d[3], inv_len;
    Ray_Pixel_Ray(view.m, i, j, view.w, view.h, r1, r2, eye, d, &inv_len);
    Vector_4 dir(d[0], d[1], d[2], 0.0f);
    dir *= inv_len;
    unit[0] = dir.x, unit[1] = dir.y, unit[2] = dir.z;
}

void Ray_View_Of(int slot, int w, int h, Ray_View* view)
{
    std::array<float, 16> m = Ray_Volume.transfo[slot].to_float();
    for (int k = 0; k < 16; k++) view->m[k] = m[static_cast<size_t>(k)];
    for (int k = 0; k < 6; k++) view->clip_box[k] = Ray_Volume.clip_box[slot][k];
    view->w = w;
    view->h = h;
}

unsigned int Ray_Pixel_View(int slot, const Ray_View& view, int i, int j)
{
    if (slot < 0 || slot >= RAY_SLOTS) {
        Ray_Trace(RAY_TR_ERROR, "Ray_Pixel: slot %d out of range", slot);
        return 0;
    }

    float eye[3], unit[3];
    pixel_ray(view, i, j, eye, unit);

    /* Entry, set-up and walk through the slot's volume, threshold and depth clip. */
    Ray_Scene sc;
    Ray_Scene_Of(&sc, slot, view.clip_box, Ray_Params.threshold, Ray_Volume.clip[slot]);
    return with_policies(slot, sc, [&](auto& run, auto& smp) { return Ray_Cast<RAY_CPU>(eye, unit, sc, run, smp); });
}

unsigned int Ray_Pixel(int slot, int i, int j, int W, int H)
{
    if (slot < 0 || slot >= RAY_SLOTS) {
        Ray_Trace(RAY_TR_ERROR, "Ray_Pixel: slot %d out of range", slot);
        return 0;
    }
    Ray_View view;
    Ray_View_Of(slot, W, H, &view);
    return Ray_Pixel_View(slot, view, i, j);
}

/* --------------------------------------------------- a batch of pixels */

std::atomic<int> Ray_Packet_Widest{RAY_PACKET_AVX512};

/* The widest build this processor runs, up to kind. */
static int packet_kind(int kind)
{
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__CUDACC__)
    static const bool avx2 = __builtin_cpu_supports("avx2");
    static const bool avx512 = avx2 && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512vl") &&
                               __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512dq");
    if (kind >= RAY_PACKET_AVX512 && avx512) return RAY_PACKET_AVX512;
    if (kind >= RAY_PACKET_AVX2 && avx2) return RAY_PACKET_AVX2;
#else
    (void)kind;
#endif
    return RAY_PACKET_NONE;
}

/* Each build's walk, set-up and lanes, by Ray_Packet_Kind. */
static const struct {
    Ray_Packet_Walk_Fn walk;
    Ray_Packet_Setup_Fn setup;
    int lanes;
} k_packet_build[] = {
    {nullptr, nullptr, 0},
    {&Ray_Packet_Walk_Avx2, &Ray_Packet_Setup_Avx2, RAY_PACKET_LANES_AVX2},
    {&Ray_Packet_Walk_Avx512, &Ray_Packet_Setup_Avx512, RAY_PACKET_LANES_AVX512},
};

Ray_Packet_Walk_Fn Ray_Packet_Walk_For(int kind) { return k_packet_build[packet_kind(kind)].walk; }

Ray_Packet_Setup_Fn Ray_Packet_Setup_For(int kind) { return k_packet_build[packet_kind(kind)].setup; }

int Ray_Packet_Lanes_For(int kind) { return k_packet_build[packet_kind(kind)].lanes; }

/*
 * Whether the packet walk computes the rays of scene sc: a render layout
 * whose channel offsets fit its 32-bit lanes and of four voxels at least, no clip box, colour mode 0
 * or 1, a finite threshold, no trace sink.
 */
static bool packet_fits(int slot, const Ray_Scene& sc, bool listening)
{
    const Ray_Render_Layout* L = Ray_Volume.render[slot];
    if (!L || listening) return false;
    double floats = static_cast<double>(L->dim[0]) * L->dim[1] * L->dim[2] * RAY_CH_NB;
    Ray_Zero_Rule z = Ray_Zero_Rule_Of(sc);
    return floats < 2147483647.0 && floats >= 4.0 * RAY_CH_NB && !(sc.vol_flag & 0x80u) && sc.col_mode <= 1 && z.known && sc.tag;
}

/*
 * The smallest e whose specular index finds an entry other than 0 in the
 * Phong table: the index of the first such entry / 1024 (exact), infinity
 * when every entry is 0.  The index of e in [0, 1) is e x 1024 truncated,
 * below the first such entry for every e below its quotient.
 */
static float phong_from(const unsigned int* phong)
{
    for (int b = 0; b < RAY_PHONG_SIZE; b += 16) {
        unsigned int some = 0;
        for (int k = 0; k < 16; k++) some |= phong[b + k];
        if (some == 0) continue;
        int i = b;
        while (phong[i] == 0) i++;
        return static_cast<float>(i) * 0.0009765625f;
    }
    return INFINITY;
}

static void packet_scene(int slot, const Ray_Scene& sc, Ray_Packet_Scene* ps)
{
    ps->layout = Ray_Volume.render[slot];
    ps->tag = sc.tag;
    /* Without a tag that has a colour index, every base colour is white: the tags need not be read. */
    unsigned long long any = 0;
    for (int k = 0; k < 32; k++) {
        unsigned long long word;
        memcpy(&word, sc.map_col + 8 * k, sizeof word);
        any |= word;
    }
    bool indexed = any != 0;
    ps->tag_colours = sc.col_mode != 0 && indexed;
    /* Each tag's base colour at once: one lookup a lane instead of two. */
    if (ps->tag_colours)
        for (int t = 0; t < 256; t++) ps->tag_base[t] = Ray_Base_Color(sc, static_cast<unsigned char>(t));
    ps->clip = sc.clip;
    ps->cut = sc.threshold - 0.1f;
    /* The ambient light, then the directional lights on among the first light_nb (at most 5). */
    int looked = sc.light_nb < 5 ? sc.light_nb : 5;
    for (int k = 0; k < 3; k++) ps->light_rgb[0][k] = static_cast<int>((sc.light_color[0] >> (8 * k)) & 0xFFu);
    ps->lights = 0;
    for (int i = 1; i < looked; i++) {
        if (sc.light_status[i] == 0) continue;
        int n = ++ps->lights;
        for (int k = 0; k < 3; k++) ps->light_rgb[n][k] = static_cast<int>((sc.light_color[i] >> (8 * k)) & 0xFFu);
        ps->light_dir[n][0] = sc.light_dir_x[i * sc.light_stride];
        ps->light_dir[n][1] = sc.light_dir_y[i * sc.light_stride];
        ps->light_dir[n][2] = sc.light_dir_z[i * sc.light_stride];
    }
    ps->phong = sc.phong;
    ps->specular_from = phong_from(sc.phong);
    ps->run = &Ray_Thread_Run;
}

void Ray_Pixels_View(int slot, const Ray_View& view, int n, const int* i, const int* j, unsigned int* out)
{
    if (slot < 0 || slot >= RAY_SLOTS) {
        for (int k = 0; k < n; k++) out[k] = Ray_Pixel_View(slot, view, i[k], j[k]);
        return;
    }
    Ray_Scene sc;
    Ray_Scene_Of(&sc, slot, view.clip_box, Ray_Params.threshold, Ray_Volume.clip[slot]);
    int kind = Ray_Packet_Widest.load(std::memory_order_relaxed);
    Ray_Packet_Walk_Fn walk = Ray_Packet_Walk_For(kind);
    Ray_Packet_Setup_Fn setup = Ray_Packet_Setup_For(kind);
    const int width = Ray_Packet_Lanes_For(kind);
    if (!walk || !packet_fits(slot, sc, Corekit_Trace_Listening() != 0)) {
        for (int k = 0; k < n; k++) {
            float eye[3], unit[3];
            pixel_ray(view, i[k], j[k], eye, unit);
            out[k] = with_policies(slot, sc, [&](auto& run, auto& smp) { return Ray_Cast<RAY_CPU>(eye, unit, sc, run, smp); });
        }
        return;
    }
    Ray_Packet_Scene ps;
    packet_scene(slot, sc, &ps);
    const Ray_Render_Layout* L = Ray_Volume.render[slot];

    Rays lane[RAY_PACKET_LANES];
    int lane_pixel[RAY_PACKET_LANES];
    int lanes = 0;
    unsigned int words[RAY_PACKET_LANES];
    for (int k0 = 0; k0 < n; k0 += width) {
        /* Set up a packet's worth at a time, as Ray_Cast does one; the draws taken pixel by pixel, as one at a time. */
        int m = n - k0 < width ? n - k0 : width;
        float r1[RAY_PACKET_LANES], r2[RAY_PACKET_LANES];
        for (int l = 0; l < m; l++) {
            r1[l] = Fct_Random_Float();
            r2[l] = Fct_Random_Float();
        }
        Rays set[RAY_PACKET_LANES];
        int hit = setup(view.m, view.w, view.h, sc.dim, m, i + k0, j + k0, r1, r2, set);
        for (int l = 0; l < m; l++) {
            int k = k0 + l;
            if (!((hit >> l) & 1)) {
                out[k] = 0;
                continue;
            }
            /* Walked in a packet where its sampler may leap. */
            Ray_Layout_Sampler probe(sc, *L);
            probe.begin(&set[l]);
            if (!probe.leap_ok) {
                Ray_Run_Atomic run;
                out[k] = Ray_DDDA_Walk<RAY_CPU>(&set[l], sc, run, probe);
                continue;
            }
            lane[lanes] = set[l];
            lane_pixel[lanes++] = k;
            if (lanes == width) {
                walk(ps, lane, lanes, words);
                for (int q = 0; q < lanes; q++) out[lane_pixel[q]] = words[q];
                lanes = 0;
            }
        }
    }
    if (lanes > 0) {
        walk(ps, lane, lanes, words);
        for (int l = 0; l < lanes; l++) out[lane_pixel[l]] = words[l];
    }
}

/* ------------------------------------------------ the walk's CPU forms */

unsigned int Ray_DDDA_Walk(Rays* ray, int slot, float threshold, float clip)
{
    if (slot < 0 || slot >= RAY_SLOTS) return 0;
    Ray_Scene sc;
    Ray_Scene_Slot(&sc, slot, threshold, clip);
    return with_policies(slot, sc, [&](auto& run, auto& smp) { return Ray_DDDA_Walk<RAY_CPU>(ray, sc, run, smp); });
}
