/*
 * ray_render_layout.cpp - building a CPU slot's render layout: the
 * interleaved channels and the per-block bounds.
 */
#include "cpu/ray_render_layout.h"

#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/ray_state.h"

/* Allocation failures at registration name their source as "ray_init". */
#define RAY_SRC "ray_init"

/* Values above this could overflow a sum of eight weighted corners. */
static const float k_huge = 1.0e37f;

namespace {

/* What the bounds need of a set of voxels (NaN values do not count). */
struct Stat {
    float g_max = 0.0f;   /* max(0, grey levels) */
    float g_abs = 0.0f;   /* max |grey level| */
    float a_min = 0.0f;   /* min(0, magnitudes) */
    float a_max = 0.0f;   /* max(0, magnitudes) */
    float a_abs = 0.0f;
    bool nan = false;     /* a NaN in any of the five channels */

    /* NaN compares false: it changes nothing. */
    static void up(float& m, float v) { m = v > m ? v : m; }
    static void down(float& m, float v) { m = v < m ? v : m; }
    void add(const float* v)   /* one voxel's five channels */
    {
        float g = v[RAY_CH_G], a = v[RAY_CH_A];
        nan = nan || g != g || a != a || v[RAY_CH_X] != v[RAY_CH_X] || v[RAY_CH_Y] != v[RAY_CH_Y] ||
              v[RAY_CH_Z] != v[RAY_CH_Z];
        up(g_max, g);
        up(g_abs, g < 0.0f ? -g : g);
        down(a_min, a);
        up(a_max, a);
        up(a_abs, a < 0.0f ? -a : a);
    }
    void add(const Stat& o)
    {
        up(g_max, o.g_max);
        up(g_abs, o.g_abs);
        down(a_min, o.a_min);
        up(a_max, o.a_max);
        up(a_abs, o.a_abs);
        nan = nan || o.nan;
    }
};

/* Voxel range [lo, hi) of block b's stencils along an axis of n voxels: the block and one voxel either side. */
void support(int b, int n, int* lo, int* hi)
{
    int first = (b << RAY_BLOCK_SHIFT) - 1;
    int last = ((b + 1) << RAY_BLOCK_SHIFT) + 1;
    *lo = first < 0 ? 0 : first;
    *hi = last > n ? n : last;
}

/*
 * The bounds of a block from the statistics of its stencils' voxels.  A
 * sample's grey level is a sum of at most eight corners whose weights lie
 * in [0, 1] and add up to at most 1 (plus rounding): it stays below the
 * largest positive corner plus a rounding margin of 2^-16 of the largest
 * magnitude, far above what the float products and sums can add.
 */
Ray_Block_Bound bound_of(const Stat& st)
{
    Ray_Block_Bound b = {INFINITY, INFINITY, INFINITY, INFINITY, st.nan ? 0u : RAY_BLOCK_NO_NAN};
    if (st.a_min < 0.0f || !(st.g_abs <= k_huge) || !(st.a_abs <= k_huge)) return b;
    b.a_hi = st.a_max;
    double g = static_cast<double>(st.g_max) + static_cast<double>(st.g_abs) * (1.0 / 65536.0);
    b.g_hi = std::nextafter(static_cast<float>(g), INFINITY);
    /* |sample| <= max |corner| when each axis's weights add up to at most 1 in magnitude */
    double ga = static_cast<double>(st.g_abs) * (1.0 + 1.0 / 65536.0);
    b.a_near = b.a_hi;
    b.g_near = std::nextafter(static_cast<float>(ga), INFINITY);
    return b;
}

/* The near bounds: each block's widened to its 26 neighbours (+inf spreads). */
void widen(Ray_Render_Layout* L)
{
    const int* n = L->bdim;
    std::vector<Ray_Block_Bound> own(L->block, L->block + static_cast<size_t>(n[0]) * n[1] * n[2]);
    auto at = [&](int x, int y, int z) { return (static_cast<size_t>(z) * n[1] + y) * n[0] + x; };
    for (int z = 0; z < n[2]; z++)
        for (int y = 0; y < n[1]; y++)
            for (int x = 0; x < n[0]; x++) {
                float a = 0.0f, g = 0.0f;
                for (int k = z - 1; k <= z + 1; k++)
                    for (int j = y - 1; j <= y + 1; j++)
                        for (int i = x - 1; i <= x + 1; i++) {
                            if (i < 0 || j < 0 || k < 0 || i >= n[0] || j >= n[1] || k >= n[2]) continue;
                            const Ray_Block_Bound& o = own[at(i, j, k)];
                            a = o.a_near > a ? o.a_near : a;
                            g = o.g_near > g ? o.g_near : g;
                        }
                L->block[at(x, y, z)].a_near = a;
                L->block[at(x, y, z)].g_near = g;
            }
}

}  // namespace

/*
 * Block bounds by separable maxima: rows of x blocks per voxel row, then
 * y blocks per slice, then z blocks; each step widens by one voxel.
 */
static void build_bounds(Ray_Render_Layout* L)
{
    const int dx = L->dim[0], dy = L->dim[1], dz = L->dim[2];
    const int bx = L->bdim[0], by = L->bdim[1], bz = L->bdim[2];
    std::vector<Stat> rows(static_cast<size_t>(dy) * bx);     /* one slice: per voxel row, per x block */
    std::vector<Stat> slices(static_cast<size_t>(dz) * by * bx);  /* per slice, per y block, per x block */
    for (int z = 0; z < dz; z++) {
        for (int y = 0; y < dy; y++) {
            size_t row = (static_cast<size_t>(z) * dy + y) * dx;
            for (int b = 0; b < bx; b++) {
                int lo, hi;
                support(b, dx, &lo, &hi);
                Stat st;
                for (int x = lo; x < hi; x++) st.add(L->voxel + (row + x) * RAY_CH_NB);
                rows[static_cast<size_t>(y) * bx + b] = st;
            }
        }
        for (int b = 0; b < by; b++) {
            int lo, hi;
            support(b, dy, &lo, &hi);
            for (int c = 0; c < bx; c++) {
                Stat st;
                for (int y = lo; y < hi; y++) st.add(rows[static_cast<size_t>(y) * bx + c]);
                slices[(static_cast<size_t>(z) * by + b) * bx + c] = st;
            }
        }
    }
    for (int b = 0; b < bz; b++) {
        int lo, hi;
        support(b, dz, &lo, &hi);
        for (int r = 0; r < by * bx; r++) {
            Stat st;
            for (int z = lo; z < hi; z++) st.add(slices[static_cast<size_t>(z) * by * bx + r]);
            L->block[static_cast<size_t>(b) * by * bx + r] = bound_of(st);
        }
    }
    widen(L);
    /* The folded bounds, and per macro block the largest near one of its blocks (rounding up keeps the order). */
    size_t nm = static_cast<size_t>(L->mdim[0]) * L->mdim[1] * L->mdim[2];
    std::vector<float> macro(nm, -INFINITY);
    size_t b = 0;
    for (int z = 0; z < bz; z++)
        for (int y = 0; y < by; y++)
            for (int x = 0; x < bx; x++, b++) {
                const Ray_Block_Bound& o = L->block[b];
                float near = o.a_near <= 0.0f ? -INFINITY : o.g_near;
                L->grey[b].own = Ray_Grey16_Of(o.a_hi <= 0.0f ? -INFINITY : o.g_hi);
                L->grey[b].near = Ray_Grey16_Of(near);
                L->any_nan = L->any_nan || !(o.flags & RAY_BLOCK_NO_NAN);
                float& m = macro[(static_cast<size_t>(z >> RAY_MACRO_SHIFT) * L->mdim[1] + (y >> RAY_MACRO_SHIFT)) *
                                     L->mdim[0] +
                                 (x >> RAY_MACRO_SHIFT)];
                m = near > m ? near : m;
            }
    for (size_t k = 0; k < nm; k++) L->grey_macro[k] = Ray_Grey16_Of(macro[k]);
    L->grey_macro[nm] = 0;
}

Ray_Grey16 Ray_Grey16_Of(float bound)
{
    unsigned int u;
    memcpy(&u, &bound, sizeof u);
    /* a positive value with bits below the top 16 goes up one step; a negative one truncates up */
    if (!(u >> 31) && (u & 0xFFFFu)) u += 0x10000u;
    return static_cast<Ray_Grey16>(u >> 16);
}

Ray_Render_Layout* Ray_Render_Layout_Build(int dx, int dy, int dz, const float* gli, float* const* grad)
{
    if (dx <= 0 || dy <= 0 || dz <= 0 || !gli || !grad || !grad[0] || !grad[1] || !grad[2] || !grad[3])
        return nullptr;
    size_t n = static_cast<size_t>(dx) * dy * dz;
    auto* L = static_cast<Ray_Render_Layout*>(
        Ray_Calloc(1, sizeof(Ray_Render_Layout), __LINE__, RAY_SRC, "Ray_Render_Layout", 1, 1));
    if (!L) return nullptr;
    L->dim[0] = dx;
    L->dim[1] = dy;
    L->dim[2] = dz;
    L->row = static_cast<size_t>(dx) * RAY_CH_NB;
    L->slice = L->row * static_cast<size_t>(dy);
    for (int a = 0; a < 3; a++) L->bdim[a] = ((L->dim[a] - 1) >> RAY_BLOCK_SHIFT) + 1;
    for (int a = 0; a < 3; a++) L->mdim[a] = ((L->bdim[a] - 1) >> RAY_MACRO_SHIFT) + 1;
    size_t nb = static_cast<size_t>(L->bdim[0]) * L->bdim[1] * L->bdim[2];
    size_t nm = static_cast<size_t>(L->mdim[0]) * L->mdim[1] * L->mdim[2];
    L->voxel = static_cast<float*>(Ray_Malloc((n * RAY_CH_NB + RAY_LAYOUT_PAD) * sizeof(float), __LINE__, RAY_SRC,
                                              "Ray_Render_Layout.voxel", static_cast<int>(n), 4 * RAY_CH_NB));
    if (L->voxel)
        L->block = static_cast<Ray_Block_Bound*>(Ray_Malloc(nb * sizeof(Ray_Block_Bound), __LINE__, RAY_SRC,
                                                            "Ray_Render_Layout.block", static_cast<int>(nb), 20));
    if (L->block)
        L->grey = static_cast<Ray_Grey_Pair*>(Ray_Malloc(nb * sizeof(Ray_Grey_Pair), __LINE__, RAY_SRC,
                                                         "Ray_Render_Layout.grey", static_cast<int>(nb), 4));
    if (L->grey)
        L->grey_macro = static_cast<Ray_Grey16*>(Ray_Malloc((nm + 1) * sizeof(Ray_Grey16), __LINE__, RAY_SRC,
                                                             "Ray_Render_Layout.grey_macro", static_cast<int>(nm + 1), 2));
    if (!L->grey_macro) {
        Ray_Render_Layout_Release(L);
        return nullptr;
    }
    float* v = L->voxel;
    for (size_t i = 0; i < n; i++, v += RAY_CH_NB) {
        v[RAY_CH_G] = gli[i];
        v[RAY_CH_A] = grad[0][i];
        v[RAY_CH_X] = grad[1][i];
        v[RAY_CH_Y] = grad[2][i];
        v[RAY_CH_Z] = grad[3][i];
    }
    for (int k = 0; k < RAY_LAYOUT_PAD; k++) v[k] = 0.0f;
    build_bounds(L);
    return L;
}

void Ray_Render_Layout_Release(Ray_Render_Layout* L)
{
    if (!L) return;
    free(L->voxel);
    free(L->block);
    free(L->grey);
    free(L->grey_macro);
    free(L);
}

size_t Ray_Render_Layout_Bytes(const Ray_Render_Layout* L)
{
    if (!L) return 0;
    size_t n = static_cast<size_t>(L->dim[0]) * L->dim[1] * L->dim[2];
    size_t nb = static_cast<size_t>(L->bdim[0]) * L->bdim[1] * L->bdim[2];
    size_t nm = static_cast<size_t>(L->mdim[0]) * L->mdim[1] * L->mdim[2];
    return sizeof *L + (n * RAY_CH_NB + RAY_LAYOUT_PAD) * sizeof(float) + nb * sizeof(Ray_Block_Bound) +
           nb * sizeof(Ray_Grey_Pair) + (nm + 1) * sizeof(Ray_Grey16);
}
