/*
 * ray_packet_lanes.h - the packet walk's body (see ray_packet.h), included
 * by one source file per instruction set, each built with its own flags
 * and naming the functions it defines in RAY_PACKET_WALK and
 * RAY_PACKET_SETUP.
 *
 * Nothing here calls an inline function of a shared header: such a
 * function would be compiled for the wider instruction set in that file
 * and could be the copy that the linker keeps for the whole library.  The
 * header's constants are used; every operation is written out below with
 * its one-ray counterpart named.  Everything but those two has internal
 * linkage.
 */
#if !defined(RAY_PACKET_WALK) || !defined(RAY_PACKET_SETUP)
#error "define RAY_PACKET_WALK and RAY_PACKET_SETUP, the names of the functions this file defines"
#endif

#include "cpu/ray_packet.h"

#if defined(__AVX2__)
#include <immintrin.h>

#include <cmath>
#include <cstddef>
#include <cstdint>

namespace {

typedef __m256 F8;
typedef __m256i I8;

inline I8 ones() { return _mm256_set1_epi32(-1); }
inline I8 i8(int v) { return _mm256_set1_epi32(v); }
inline F8 f8(float v) { return _mm256_set1_ps(v); }
inline I8 and_(I8 a, I8 b) { return _mm256_and_si256(a, b); }
inline I8 or_(I8 a, I8 b) { return _mm256_or_si256(a, b); }
inline I8 andnot(I8 a, I8 b) { return _mm256_andnot_si256(a, b); }   /* ~a & b */
/* m ? a : b, lane by lane (m all ones or all zeros per lane). */
inline I8 sel(I8 m, I8 a, I8 b) { return _mm256_blendv_epi8(b, a, m); }
inline F8 sel(I8 m, F8 a, F8 b) { return _mm256_blendv_ps(b, a, _mm256_castsi256_ps(m)); }
inline I8 mask(F8 m) { return _mm256_castps_si256(m); }
inline int any(I8 m) { return _mm256_movemask_ps(_mm256_castsi256_ps(m)); }
/* Signed comparisons of 32-bit lanes. */
inline I8 gt(I8 a, I8 b) { return _mm256_cmpgt_epi32(a, b); }
inline I8 le(I8 a, I8 b) { return andnot(gt(a, b), ones()); }
/* 0 <= v < n for n >= 0: v as unsigned below n, as Ray_Inside asks. */
inline I8 below(I8 v, I8 n) { return andnot(gt(i8(0), v), gt(n, v)); }
/* Ordered float comparisons: false where either side is NaN, as in C. */
inline I8 f_le(F8 a, F8 b) { return mask(_mm256_cmp_ps(a, b, _CMP_LE_OQ)); }
inline I8 f_lt(F8 a, F8 b) { return mask(_mm256_cmp_ps(a, b, _CMP_LT_OQ)); }
inline I8 f_gt(F8 a, F8 b) { return mask(_mm256_cmp_ps(a, b, _CMP_GT_OQ)); }
inline I8 f_ge(F8 a, F8 b) { return mask(_mm256_cmp_ps(a, b, _CMP_GE_OQ)); }
inline F8 add(F8 a, F8 b) { return _mm256_add_ps(a, b); }
inline F8 sub(F8 a, F8 b) { return _mm256_sub_ps(a, b); }
inline F8 mul(F8 a, F8 b) { return _mm256_mul_ps(a, b); }
inline F8 neg(F8 a) { return _mm256_xor_ps(a, f8(-0.0f)); }
inline I8 add(I8 a, I8 b) { return _mm256_add_epi32(a, b); }   /* wraps, as Ray_Add32 */
inline I8 sub(I8 a, I8 b) { return _mm256_sub_epi32(a, b); }
inline I8 mul(I8 a, I8 b) { return _mm256_mullo_epi32(a, b); }  /* low 32 bits, as unsigned int products */
inline F8 to_f(I8 a) { return _mm256_cvtepi32_ps(a); }         /* static_cast<float>(int) */
inline I8 to_i(F8 a) { return _mm256_cvttps_epi32(a); }       /* Ray_F2I<RAY_CPU>: 0x80000000 out of range */
inline F8 gather(const float* base, I8 index, I8 m)
{
    return _mm256_mask_i32gather_ps(_mm256_setzero_ps(), base, index, _mm256_castsi256_ps(m), 4);
}
inline I8 gather(const int* base, I8 index, I8 m)
{
    return _mm256_mask_i32gather_epi32(_mm256_setzero_si256(), base, index, m, 4);
}

/*
 * The bytes p[index] of lanes m: four bytes read from at most three before
 * (never before p, so the array needs four bytes at least), then shifted.
 */
inline I8 byte_gather(const unsigned char* p, I8 index, I8 m)
{
    I8 from = _mm256_max_epi32(sub(index, i8(3)), _mm256_setzero_si256());
    I8 word = _mm256_mask_i32gather_epi32(_mm256_setzero_si256(), reinterpret_cast<const int*>(p), from, m, 1);
    return and_(_mm256_srlv_epi32(word, _mm256_slli_epi32(sub(index, from), 3)), i8(0xFF));
}

/*
 * The run flag with an acquire load, as a builtin: std::atomic's member
 * functions are inline functions of a shared header (not inlined at -O0).
 */
inline int run_flag(const std::atomic<int>* run)
{
    static_assert(sizeof(std::atomic<int>) == sizeof(int), "the flag is a plain int in memory");
    return __atomic_load_n(reinterpret_cast<const int*>(run), __ATOMIC_ACQUIRE);
}

/* Ray_Clamp01: 0 at or below 0, 1 at or above 1, NaN passes. */
inline F8 clamp01(F8 x)
{
    F8 r = sel(f_le(x, f8(0.0f)), f8(0.0f), x);
    return sel(f_ge(x, f8(1.0f)), f8(1.0f), r);
}

/* The eight rays' state: Rays, accumulators and transparency, one lane each. */
struct Lanes {
    I8 vox[3], step[3], delta[3], t_max[3], t_end[3];
    F8 org[3], dir[3], entry;
    I8 t_prev;
    F8 col[3], T;
    I8 active;
};

void load(Lanes& r, const Rays* rays, int n)
{
    alignas(32) int vi[5][3][8] = {};
    alignas(32) float vf[7][8] = {};
    alignas(32) int live[8] = {};
    for (int l = 0; l < n; l++) {
        const Rays& y = rays[l];
        for (int a = 0; a < 3; a++) {
            vi[0][a][l] = y.vox[a];
            vi[1][a][l] = y.step[a];
            vi[2][a][l] = y.t_delta[a];
            vi[3][a][l] = y.t_max[a];
            vi[4][a][l] = y.t_end[a];
            vf[a][l] = y.org[a];
            vf[3 + a][l] = y.dir[a];
        }
        vf[6][l] = y.entry;
        live[l] = -1;
    }
    for (int a = 0; a < 3; a++) {
        r.vox[a] = _mm256_load_si256(reinterpret_cast<const I8*>(vi[0][a]));
        r.step[a] = _mm256_load_si256(reinterpret_cast<const I8*>(vi[1][a]));
        r.delta[a] = _mm256_load_si256(reinterpret_cast<const I8*>(vi[2][a]));
        r.t_max[a] = _mm256_load_si256(reinterpret_cast<const I8*>(vi[3][a]));
        r.t_end[a] = _mm256_load_si256(reinterpret_cast<const I8*>(vi[4][a]));
        r.org[a] = _mm256_load_ps(vf[a]);
        r.dir[a] = _mm256_load_ps(vf[3 + a]);
        r.col[a] = _mm256_setzero_ps();
    }
    r.entry = _mm256_load_ps(vf[6]);
    r.t_prev = _mm256_setzero_si256();
    r.T = f8(1.0f);
    r.active = _mm256_load_si256(reinterpret_cast<const I8*>(live));
}

/*
 * One DDA step of the live lanes: the nearest crossing (ties to x, then y)
 * and its parameter, returned; lanes whose crossing reaches their end or
 * whose step leaves the volume end.
 */
inline I8 dda_step(Lanes& r, const I8* dim)
{
    I8 m0 = and_(le(r.t_max[0], r.t_max[1]), le(r.t_max[0], r.t_max[2]));
    I8 m1 = andnot(m0, le(r.t_max[1], r.t_max[2]));
    I8 m2 = andnot(or_(m0, m1), ones());
    I8 t = sel(m0, r.t_max[0], sel(m1, r.t_max[1], r.t_max[2]));
    I8 end = sel(m0, r.t_end[0], sel(m1, r.t_end[1], r.t_end[2]));
    r.active = andnot(le(end, t), r.active);
    const I8 axis[3] = {and_(m0, r.active), and_(m1, r.active), and_(m2, r.active)};
    for (int a = 0; a < 3; a++) {
        r.t_max[a] = add(r.t_max[a], and_(r.delta[a], axis[a]));
        r.vox[a] = add(r.vox[a], and_(r.step[a], axis[a]));
    }
    for (int a = 0; a < 3; a++) r.active = and_(r.active, below(r.vox[a], dim[a]));
    return t;
}

#if defined(__AVX512F__)
/*
 * Eight lanes of doubles in one 512-bit register: integers up to 2^53
 * exactly.  The operations take the mask of every lane (GCC 12's forms
 * without a mask start from an undefined register, which its warnings
 * flag).
 */
const __mmask8 k_all = 0xFF;
struct D8 {
    __m512d v;
};
inline D8 d8(double x) { return {_mm512_set1_pd(x)}; }
inline D8 to_d(I8 v) { return {_mm512_maskz_cvtepi32_pd(k_all, v)}; }
/* Double lanes of float lanes, and float lanes of double lanes (rounded). */
inline D8 to_d(F8 v) { return {_mm512_maskz_cvtps_pd(k_all, v)}; }
inline F8 to_f(D8 d) { return _mm512_maskz_cvtpd_ps(k_all, d.v); }
/* Integral values within 32 bits back to lanes. */
inline I8 to_i(D8 d) { return _mm512_maskz_cvttpd_epi32(k_all, d.v); }
inline D8 add(D8 a, D8 b) { return {_mm512_add_pd(a.v, b.v)}; }
inline D8 sub(D8 a, D8 b) { return {_mm512_sub_pd(a.v, b.v)}; }
inline D8 mul(D8 a, D8 b) { return {_mm512_mul_pd(a.v, b.v)}; }
inline D8 div(D8 a, D8 b) { return {_mm512_div_pd(a.v, b.v)}; }
inline D8 min_(D8 a, D8 b) { return {_mm512_maskz_min_pd(k_all, a.v, b.v)}; }
inline D8 max_(D8 a, D8 b) { return {_mm512_maskz_max_pd(k_all, a.v, b.v)}; }
/* The smallest integer at or above a / b, for integers a and b > 0 below 2^53: the quotient is never within rounding of another integer. */
inline D8 ceil_div(D8 a, D8 b) { return {_mm512_maskz_roundscale_pd(k_all, div(a, b).v, _MM_FROUND_TO_POS_INF | _MM_FROUND_NO_EXC)}; }
/* m ? a : b for lanes of doubles. */
inline D8 sel(I8 m, D8 a, D8 b) { return {_mm512_mask_blend_pd(_mm256_movepi32_mask(m), b.v, a.v)}; }
/* a <= b per lane, as a lane mask. */
inline I8 d_le(D8 a, D8 b) { return _mm256_movm_epi32(_mm512_cmp_pd_mask(a.v, b.v, _CMP_LE_OQ)); }
#else
/* Eight lanes of doubles, as two registers of four (lanes 0-3, 4-7): integers up to 2^53 exactly. */
struct D8 {
    __m256d lo, hi;
};
inline D8 d8(double x) { return {_mm256_set1_pd(x), _mm256_set1_pd(x)}; }
inline D8 to_d(I8 v)
{
    return {_mm256_cvtepi32_pd(_mm256_castsi256_si128(v)), _mm256_cvtepi32_pd(_mm256_extracti128_si256(v, 1))};
}
/* Double lanes of float lanes, and float lanes of double lanes (rounded). */
inline D8 to_d(F8 v)
{
    return {_mm256_cvtps_pd(_mm256_castps256_ps128(v)), _mm256_cvtps_pd(_mm256_extractf128_ps(v, 1))};
}
inline F8 to_f(D8 d) { return _mm256_set_m128(_mm256_cvtpd_ps(d.hi), _mm256_cvtpd_ps(d.lo)); }
/* Integral values within 32 bits back to lanes. */
inline I8 to_i(D8 d) { return _mm256_set_m128i(_mm256_cvttpd_epi32(d.hi), _mm256_cvttpd_epi32(d.lo)); }
inline D8 add(D8 a, D8 b) { return {_mm256_add_pd(a.lo, b.lo), _mm256_add_pd(a.hi, b.hi)}; }
inline D8 sub(D8 a, D8 b) { return {_mm256_sub_pd(a.lo, b.lo), _mm256_sub_pd(a.hi, b.hi)}; }
inline D8 mul(D8 a, D8 b) { return {_mm256_mul_pd(a.lo, b.lo), _mm256_mul_pd(a.hi, b.hi)}; }
inline D8 div(D8 a, D8 b) { return {_mm256_div_pd(a.lo, b.lo), _mm256_div_pd(a.hi, b.hi)}; }
inline D8 min_(D8 a, D8 b) { return {_mm256_min_pd(a.lo, b.lo), _mm256_min_pd(a.hi, b.hi)}; }
inline D8 max_(D8 a, D8 b) { return {_mm256_max_pd(a.lo, b.lo), _mm256_max_pd(a.hi, b.hi)}; }
/* The smallest integer at or above a / b, for integers a and b > 0 below 2^53: the quotient is never within rounding of another integer. */
inline D8 ceil_div(D8 a, D8 b)
{
    const int up = _MM_FROUND_TO_POS_INF | _MM_FROUND_NO_EXC;
    D8 q = div(a, b);
    return {_mm256_round_pd(q.lo, up), _mm256_round_pd(q.hi, up)};
}
/* m ? a : b for lanes of doubles. */
inline D8 sel(I8 m, D8 a, D8 b)
{
    __m256d lo = _mm256_castsi256_pd(_mm256_cvtepi32_epi64(_mm256_castsi256_si128(m)));
    __m256d hi = _mm256_castsi256_pd(_mm256_cvtepi32_epi64(_mm256_extracti128_si256(m, 1)));
    return {_mm256_blendv_pd(b.lo, a.lo, lo), _mm256_blendv_pd(b.hi, a.hi, hi)};
}
/* a <= b per lane, as a lane mask. */
inline I8 d_le(D8 a, D8 b)
{
    const I8 even = _mm256_setr_epi32(0, 2, 4, 6, 0, 2, 4, 6);
    __m256 lo = _mm256_permutevar8x32_ps(_mm256_castpd_ps(_mm256_cmp_pd(a.lo, b.lo, _CMP_LE_OQ)), even);
    __m256 hi = _mm256_permutevar8x32_ps(_mm256_castpd_ps(_mm256_cmp_pd(a.hi, b.hi, _CMP_LE_OQ)), even);
    return _mm256_castps_si256(_mm256_blend_ps(lo, hi, 0xF0));
}
#endif

/*
 * Lanes m, each in a macro block where every step is leaped: the DDA
 * crossings before the first one that leaves the macro block (or the
 * volume) or that could end the ray, taken at once.  Each lane ends where
 * the one-ray walk, leaping step by step, would be after those crossings:
 * the same voxel, next crossings and previous crossing.  A lane whose
 * crossings would not all stay within 32 bits, or with an axis that does
 * not step forward before them, is left to step.  Returns the lanes that
 * moved.
 */
inline I8 jump(Lanes& r, const I8* dim, I8 m)
{
    const int side = 1 << (RAY_BLOCK_SHIFT + RAY_MACRO_SHIFT);
    const D8 inf = d8(INFINITY);
    /* The first crossing not taken: any axis's end, or the macro block's exit on a stepping axis. */
    D8 tau = to_d(_mm256_min_epi32(_mm256_min_epi32(r.t_end[0], r.t_end[1]), r.t_end[2]));
    D8 tm[3], de[3];
    I8 stepping[3];
    for (int a = 0; a < 3; a++) {
        I8 lo = and_(r.vox[a], i8(~(side - 1)));
        I8 hi = _mm256_min_epi32(add(lo, i8(side - 1)), sub(dim[a], i8(1)));
        I8 left = sel(gt(r.step[a], i8(0)), sub(hi, r.vox[a]), sub(r.vox[a], lo));
        stepping[a] = gt(r.delta[a], i8(0));
        tm[a] = to_d(r.t_max[a]);
        de[a] = to_d(r.delta[a]);
        tau = min_(tau, sel(stepping[a], add(tm[a], mul(to_d(left), de[a])), inf));
    }
    /* Crossings per axis before tau, the axis's next crossing after them, the last one taken. */
    const D8 zero = d8(0.0);
    const D8 top = d8(2147483647.0);
    D8 last = d8(-INFINITY);
    I8 ok = m, any_j = _mm256_setzero_si256();
    I8 j[3];
    D8 next[3];
    for (int a = 0; a < 3; a++) {
        D8 k = max_(zero, ceil_div(sub(tau, tm[a]), sel(stepping[a], de[a], top)));
        k = sel(stepping[a], k, zero);
        ok = and_(ok, or_(stepping[a], d_le(tau, tm[a])));
        next[a] = add(tm[a], mul(k, de[a]));
        ok = and_(ok, d_le(next[a], top));
        j[a] = to_i(k);
        I8 some = gt(j[a], i8(0));
        any_j = or_(any_j, some);
        last = max_(last, sel(some, sub(next[a], de[a]), last));
    }
    I8 moved = and_(ok, any_j);
    if (!any(moved)) return moved;
    for (int a = 0; a < 3; a++) {
        r.t_max[a] = sel(moved, to_i(next[a]), r.t_max[a]);
        r.vox[a] = sel(moved, add(r.vox[a], mul(r.step[a], j[a])), r.vox[a]);
    }
    r.t_prev = sel(moved, to_i(last), r.t_prev);
    return moved;
}

/* Index of the block of side 2^shift, in a grid of n[0] x n[1] blocks, of voxel (x, y, z) per lane. */
inline I8 grid_index(const I8* v, int shift, const int* n)
{
    I8 bx = _mm256_srli_epi32(v[0], shift);
    I8 by = _mm256_srli_epi32(v[1], shift);
    I8 bz = _mm256_srli_epi32(v[2], shift);
    return add(mul(add(mul(bz, i8(n[1])), by), i8(n[0])), bx);
}

/* Block index of voxel (x, y, z) per lane, as the one-ray sampler's block_of. */
inline I8 block_of(const Ray_Render_Layout& L, const I8* v) { return grid_index(v, RAY_BLOCK_SHIFT, L.bdim); }

/* Macro block index of voxel (x, y, z) per lane. */
inline I8 macro_of(const Ray_Render_Layout& L, const I8* v)
{
    return grid_index(v, RAY_BLOCK_SHIFT + RAY_MACRO_SHIFT, L.mdim);
}

/* The bound fields of blocks b (Ray_Block_Bound, five 32-bit words each). */
const int k_block_words = sizeof(Ray_Block_Bound) / 4;
static_assert(sizeof(Ray_Block_Bound) == 5 * 4, "a block bound is five 32-bit words");
inline F8 block_field(const Ray_Render_Layout& L, I8 b, int word, I8 m)
{
    return gather(reinterpret_cast<const float*>(L.block) + word, mul(b, i8(k_block_words)), m);
}

/*
 * The folded own and near bounds of blocks b, lanes m, as one 32-bit word
 * each: own_of and near_of take them apart.
 */
static_assert(sizeof(Ray_Grey_Pair) == 4, "a block's bounds are one word, own in the low half on x86");
inline I8 grey_pair(const Ray_Grey_Pair* t, I8 b, I8 m) { return gather(reinterpret_cast<const int*>(t), b, m); }
inline F8 own_of(I8 pair) { return _mm256_castsi256_ps(_mm256_slli_epi32(pair, 16)); }
inline F8 near_of(I8 pair) { return _mm256_castsi256_ps(and_(pair, i8(static_cast<int>(0xFFFF0000u)))); }

/*
 * The folded grey bounds of blocks b in table t, lanes m (each entry read
 * as the low half of a 32-bit word: the table has one more).
 */
inline F8 grey_bound(const Ray_Grey16* t, I8 b, I8 m)
{
    I8 word = _mm256_mask_i32gather_epi32(_mm256_setzero_si256(), reinterpret_cast<const int*>(t), b, m, 2);
    return _mm256_castsi256_ps(_mm256_slli_epi32(word, 16));
}

/* Ray_Alpha_Is_Zero_Any_Tag for colour modes 0 and 1 with a finite threshold, from a folded bound. */
inline I8 zero_any_tag(F8 bound, F8 cut, I8 m) { return and_(f_le(bound, cut), m); }

/* at[l] = base + index (in floats, 0 <= index < 2^31) of lane l. */
inline void pointers(const float* base, I8 index, const float** at)
{
    const __m256i b = _mm256_set1_epi64x(static_cast<long long>(reinterpret_cast<uintptr_t>(base)));
    __m256i lo = _mm256_cvtepu32_epi64(_mm256_castsi256_si128(index));
    __m256i hi = _mm256_cvtepu32_epi64(_mm256_extracti128_si256(index, 1));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(at), _mm256_add_epi64(b, _mm256_slli_epi64(lo, 2)));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(at + 4), _mm256_add_epi64(b, _mm256_slli_epi64(hi, 2)));
}

/*
 * Channels 0 to 4 of the voxel at at[l] + off, lane l from at[l]: eight
 * eight-float loads (the layout's padding covers the last voxel's) turned
 * into one register per channel.
 */
inline void corner_channels(const float* const* at, size_t off, F8* v)
{
    F8 r[8];
    for (int l = 0; l < 8; l++) r[l] = _mm256_loadu_ps(at[l] + off);
    F8 t[8], u[8];
    for (int k = 0; k < 4; k++) {
        t[2 * k] = _mm256_unpacklo_ps(r[2 * k], r[2 * k + 1]);       /* ch 0 1 | 4 5 of two lanes */
        t[2 * k + 1] = _mm256_unpackhi_ps(r[2 * k], r[2 * k + 1]);   /* ch 2 3 | 6 7 */
    }
    for (int h = 0; h < 2; h++) {   /* lanes 0-3, then 4-7 */
        F8 a = t[4 * h], b = t[4 * h + 1], c = t[4 * h + 2], d = t[4 * h + 3];
        u[4 * h] = _mm256_shuffle_ps(a, c, 0x44);       /* ch 0 | 4 of four lanes */
        u[4 * h + 1] = _mm256_shuffle_ps(a, c, 0xEE);   /* ch 1 | 5 */
        u[4 * h + 2] = _mm256_shuffle_ps(b, d, 0x44);   /* ch 2 | 6 */
        u[4 * h + 3] = _mm256_shuffle_ps(b, d, 0xEE);   /* ch 3 | 7 */
    }
    for (int ch = 0; ch < 4; ch++) v[ch] = _mm256_permute2f128_ps(u[ch], u[4 + ch], 0x20);
    v[4] = _mm256_permute2f128_ps(u[0], u[4], 0x31);
}

/*
 * Channels 0 to 4 of the voxels at at[l] + off and of the next ones along x,
 * lane l from at[l]: the ten floats of each lane read as three groups of
 * four (the layout's padding covers the last group's two past the voxel),
 * lanes l and l + 4 in one register, each group turned into one register
 * per float.
 */
inline void corner_pair(const float* const* at, size_t off, F8* v0, F8* v1)
{
    F8 e[12];
    for (int k = 0; k < 3; k++) {
        F8 g[4];
        for (int q = 0; q < 4; q++)
            g[q] = _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(at[q] + off + 4 * k)),
                                        _mm_loadu_ps(at[q + 4] + off + 4 * k), 1);
        F8 lo01 = _mm256_unpacklo_ps(g[0], g[1]), lo23 = _mm256_unpacklo_ps(g[2], g[3]);
        e[4 * k] = _mm256_shuffle_ps(lo01, lo23, 0x44);
        e[4 * k + 1] = _mm256_shuffle_ps(lo01, lo23, 0xEE);
        if (k == 2) break;
        F8 hi01 = _mm256_unpackhi_ps(g[0], g[1]), hi23 = _mm256_unpackhi_ps(g[2], g[3]);
        e[4 * k + 2] = _mm256_shuffle_ps(hi01, hi23, 0x44);
        e[4 * k + 3] = _mm256_shuffle_ps(hi01, hi23, 0xEE);
    }
    for (int ch = 0; ch < RAY_CH_NB; ch++) v0[ch] = e[ch], v1[ch] = e[RAY_CH_NB + ch];
}

/* Index of voxel v per lane, x fastest (Ray_Voxel_Index). */
inline I8 voxel_index(const Ray_Render_Layout& L, const I8* v)
{
    return add(mul(add(mul(v[2], i8(L.dim[1])), v[1]), i8(L.dim[0])), v[0]);
}

/*
 * One corner's share of channels C0 to C1 - 1 added to val: value * wx *
 * wy * wz, in that order, in the lanes keep and where the value is not
 * NaN (every lane where check is false: no NaN there).
 */
template <int C0, int C1>
inline void add_corner(F8* val, const F8* v, F8 wx, F8 wy, F8 wz, I8 keep, bool check)
{
    for (int ch = C0; ch < C1; ch++) {
        F8 s = add(val[ch], mul(mul(mul(v[ch], wx), wy), wz));
        val[ch] = check ? sel(and_(keep, mask(_mm256_cmp_ps(v[ch], v[ch], _CMP_ORD_Q))), s, val[ch]) : s;
    }
}

/*
 * Channels C0 to C1 - 1 at the sample points pos of the lanes m, each
 * summed over the stencil's corners in order with the one-ray sampler's
 * float operations; val[RAY_CH_*] (the other channels left as they are).
 */
template <int C0, int C1>
void interpolate(const Ray_Packet_Scene& ps, const F8* pos, const I8* cell, I8 m, I8 no_nan, F8* val)
{
    const Ray_Render_Layout& L = *ps.layout;
    I8 lo[3];
    F8 w[3][2];
    I8 inside = ones();
    for (int a = 0; a < 3; a++) {
        /* Ray_Interp_Axis_At */
        F8 f = sub(pos[a], to_f(cell[a]));
        I8 low = f_lt(f, f8(0.5f));
        lo[a] = sel(low, sub(cell[a], i8(1)), cell[a]);
        w[a][0] = sel(low, sub(f8(0.5f), f), sub(f8(1.5f), f));
        w[a][1] = sel(low, add(f, f8(0.5f)), sub(f, f8(0.5f)));
        inside = and_(inside, below(lo[a], i8(L.dim[a] - 1)));
    }
    I8 full = and_(m, inside);
    for (int ch = C0; ch < C1; ch++) val[ch] = _mm256_setzero_ps();
    if (!any(andnot(inside, m))) {
        if (!any(full)) return;
        /*
         * Every stencil inside the volume: each lane's from its first
         * corner; a lane without one reads voxel 0's, which exists whenever
         * some lane's does.
         */
        const float* at[8];
        pointers(L.voxel, and_(mul(voxel_index(L, lo), i8(RAY_CH_NB)), full), at);
        bool nans = (any(andnot(no_nan, full)) != 0);
#pragma GCC unroll 4
        for (int c = 0; c < 8; c += 2) {
            const size_t off = ((c & 2) ? L.row : 0) + ((c & 4) ? L.slice : 0);
            F8 v0[RAY_CH_NB], v1[RAY_CH_NB];
            corner_pair(at, off, v0, v1);
            add_corner<C0, C1>(val, v0, w[0][0], w[1][(c >> 1) & 1], w[2][c >> 2], ones(), nans);
            add_corner<C0, C1>(val, v1, w[0][1], w[1][(c >> 1) & 1], w[2][c >> 2], ones(), nans);
        }
        return;
    }
    /*
     * Some stencils cross the volume's faces: corner by corner, each lane's
     * corners outside the volume left out (a lane reads voxel 0 for them),
     * as the plain sampler does.
     */
#pragma GCC unroll 8
    for (int c = 0; c < 8; c++) {
        const I8 corner[3] = {add(lo[0], i8(c & 1)), add(lo[1], i8((c >> 1) & 1)), add(lo[2], i8(c >> 2))};
        I8 valid = m;
        for (int a = 0; a < 3; a++) valid = and_(valid, below(corner[a], i8(L.dim[a])));
        const float* at[8];
        pointers(L.voxel, and_(mul(voxel_index(L, corner), i8(RAY_CH_NB)), valid), at);
        F8 v[RAY_CH_NB];
        corner_channels(at, 0, v);
        add_corner<C0, C1>(val, v, w[0][c & 1], w[1][(c >> 1) & 1], w[2][c >> 2], valid, true);
    }
}

/*
 * Asks the caches for the rows of the stencils of voxels v, lanes m, ahead
 * of their samples: four rows of two voxels, each by the cache line that
 * holds its second voxel.  Every lane asks, the lanes not in m for voxel
 * 0: a branch per lane or per row costs more in mispredictions than the
 * prefetches it saves, and so does asking for both lines of each row.
 */
inline void prefetch_rows(const Ray_Render_Layout& L, const I8* v, I8 m)
{
    if (!any(m)) return;
    alignas(32) int first[8];
    _mm256_store_si256(reinterpret_cast<I8*>(first), and_(mul(voxel_index(L, v), i8(RAY_CH_NB)), m));
    /* Addresses as integers: a row past the volume's last one is asked for, never read. */
    const uintptr_t row = L.row * sizeof(float), slice = L.slice * sizeof(float);
    const uintptr_t rows[4] = {0, row, slice, slice + row};
    const uintptr_t second = reinterpret_cast<uintptr_t>(L.voxel) + RAY_CH_NB * sizeof(float);
    for (int l = 0; l < 8; l++) {
        uintptr_t at = second + static_cast<uintptr_t>(static_cast<unsigned int>(first[l])) * sizeof(float);
        for (uintptr_t o : rows) _mm_prefetch(reinterpret_cast<const char*>(at + o), _MM_HINT_T0);
    }
}

/* The colour byte k (0, 1, 2) of words c. */
inline I8 byte_of(I8 c, int k) { return and_(_mm256_srli_epi32(c, 8 * k), i8(0xFF)); }

/*
 * Ray_DDDA_Shade with every flag, lane by lane: base colours c, normals n,
 * directions dir; the three shaded channel bytes in out.
 */
void shade(const Ray_Packet_Scene& ps, I8 c, const F8* n, const F8* dir, I8 m, I8* out)
{
    I8 ck[3] = {byte_of(c, 0), byte_of(c, 1), byte_of(c, 2)};
    I8 back = f_gt(add(add(mul(n[0], dir[0]), mul(n[1], dir[1])), mul(n[2], dir[2])), f8(0.0f));
    I8 s[3];
    for (int k = 0; k < 3; k++) s[k] = _mm256_srli_epi32(mul(i8(ps.light_rgb[0][k]), ck[k]), 8);
    for (int i = 1; i <= ps.lights; i++) {
        I8 lk[3];
        for (int k = 0; k < 3; k++) lk[k] = i8(ps.light_rgb[i][k]);
        const F8 L[3] = {f8(ps.light_dir[i][0]), f8(ps.light_dir[i][1]), f8(ps.light_dir[i][2])};
        F8 d = sub(sub(neg(mul(n[0], L[0])), mul(n[1], L[1])), mul(n[2], L[2]));
        I8 diffuse = f_gt(d, f8(0.0f));
        if (any(and_(diffuse, m))) {
            I8 q = and_(to_i(mul(d, f8(255.0f))), i8(0xFF));
            for (int k = 0; k < 3; k++)
                s[k] = add(s[k], and_(diffuse, _mm256_srli_epi32(mul(mul(lk[k], ck[k]), q), 16)));
        }
        F8 R[3];
        for (int a = 0; a < 3; a++) R[a] = add(mul(mul(f8(2.0f), d), n[a]), L[a]);
        F8 e = sub(sub(neg(mul(R[1], dir[1])), mul(R[0], dir[0])), mul(R[2], dir[2]));
        /* Lanes whose index finds 0 in the table add nothing: left out. */
        I8 specular = and_(and_(f_gt(e, f8(0.0f)), f_ge(e, f8(ps.spec_from))), m);
        if (any(specular)) {
            F8 ec = sel(f_lt(e, f8(1.0f)), e, f8(1.0f));
            I8 idx = _mm256_min_epi32(to_i(mul(ec, f8(1024.0f))), i8(1023));
            I8 p = gather(reinterpret_cast<const int*>(ps.phong), idx, specular);
            for (int k = 0; k < 3; k++) s[k] = add(s[k], and_(specular, _mm256_srli_epi32(mul(p, lk[k]), 8)));
        }
    }
    for (int k = 0; k < 3; k++)
        out[k] = sel(back, _mm256_srli_epi32(ck[k], 2), _mm256_min_epu32(s[k], i8(255)));
}

/* A view-space point (x, y, z) per lane through the 16 floats m (Ray_Map_Point). */
inline void map_point(const float* m, F8 x, F8 y, F8 z, F8* out)
{
    F8 o[4];
    for (int k = 0; k < 4; k++)
        o[k] = add(add(add(mul(f8(m[k]), x), mul(f8(m[4 + k]), y)), mul(f8(m[8 + k]), z)), f8(m[12 + k]));
    I8 one = mask(_mm256_cmp_ps(o[3], f8(1.0f), _CMP_EQ_OQ));
    F8 r = _mm256_div_ps(f8(1.0f), o[3]);
    for (int k = 0; k < 3; k++) out[k] = sel(one, o[k], mul(o[k], r));
}


/* Pack_Byte of each lane: 255 at or above, else the low byte. */
inline unsigned int pack_byte(int v) { return v >= 255 ? 255u : static_cast<unsigned int>(v) & 0xFFu; }

}  // namespace

int RAY_PACKET_SETUP(const float* m, int W, int H, const int* dim, int n, const int* i, const int* j, const float* r1,
                     const float* r2, Rays* rays)
{
    alignas(32) int pi[8] = {}, pj[8] = {};
    alignas(32) float d1[8] = {}, d2[8] = {};
    for (int l = 0; l < n; l++) pi[l] = i[l], pj[l] = j[l], d1[l] = r1[l], d2[l] = r2[l];
    /* Ray_Pixel_Ray, then the direction scaled as Vector_4 does. */
    F8 sc = f8(2.0f / static_cast<float>(W > H ? W : H));
    F8 u = mul(add(mul(_mm256_load_ps(d1), f8(0.5f)), to_f(sub(_mm256_load_si256(reinterpret_cast<const I8*>(pi)), i8(W >> 1)))), sc);
    F8 v = mul(add(mul(_mm256_load_ps(d2), f8(0.5f)), to_f(sub(_mm256_load_si256(reinterpret_cast<const I8*>(pj)), i8(H >> 1)))), sc);
    F8 eye[3], p[3], dir[3];
    map_point(m, f8(0.0f), f8(0.0f), f8(-2.0f), eye);
    map_point(m, u, v, f8(0.0f), p);
    F8 d[3];
    for (int a = 0; a < 3; a++) d[a] = sub(p[a], eye[a]);
    F8 inv_len = _mm256_div_ps(f8(1.0f), _mm256_sqrt_ps(add(add(mul(d[0], d[0]), mul(d[1], d[1])), mul(d[2], d[2]))));
    for (int a = 0; a < 3; a++) dir[a] = mul(d[a], inv_len);

    /* Ray_DDDA_Origin in the box 0 - dim. */
    F8 high[3];
    for (int a = 0; a < 3; a++) high[a] = f8(static_cast<float>(dim[a]));
    const F8 zero = _mm256_setzero_ps(), eps = f8(RAY_PARALLEL_EPS);
    I8 inside = ones();
    for (int a = 0; a < 3; a++) inside = and_(inside, and_(f_le(zero, eye[a]), f_lt(eye[a], high[a])));
    I8 miss = _mm256_setzero_si256();
    F8 t[3];
    I8 up[3], down[3];
    const D8 inset = d8(RAY_ENTRY_INSET);
    for (int a = 0; a < 3; a++) {
        up[a] = f_gt(dir[a], eps);
        down[a] = f_lt(dir[a], neg(eps));
        D8 pd = to_d(eye[a]), dd = to_d(dir[a]);
        /* The distance to the low face going up, to the high face going down: one division for either. */
        D8 to_low = add(sub(to_d(zero), pd), inset), to_high = sub(sub(to_d(high[a]), pd), inset);
        D8 gap = sel(up[a], to_low, to_high);
        D8 q = div(gap, dd);
        I8 outside = or_(f_lt(eye[a], zero), f_gt(eye[a], high[a]));
        miss = or_(miss, andnot(or_(up[a], down[a]), outside));
        t[a] = sel(or_(up[a], down[a]), to_f(q), f8(RAY_ENTRY_NONE));
    }
    F8 tt = sel(f_gt(t[1], t[0]), t[1], t[0]);
    tt = sel(f_gt(t[2], tt), t[2], tt);
    miss = or_(miss, f_lt(tt, eps));
    F8 start[3];
    for (int a = 0; a < 3; a++) {
        start[a] = add(eye[a], mul(tt, dir[a]));
        miss = or_(miss, andnot(and_(f_le(zero, start[a]), f_lt(start[a], high[a])), ones()));
    }
    miss = andnot(inside, or_(miss, f_ge(tt, f8(RAY_MISS))));
    F8 entry = sel(inside, zero, tt);
    for (int a = 0; a < 3; a++) start[a] = sel(inside, eye[a], start[a]);

    /* Ray_DDDA_Param at the entry point. */
    alignas(32) int vi[5][3][8];
    alignas(32) float vf[7][8];
    for (int a = 0; a < 3; a++) {
        F8 inv = _mm256_div_ps(f8(RAY_DDA_UNITS), dir[a]);
        F8 rel = sub(start[a], zero);
        F8 fl = _mm256_floor_ps(rel);
        I8 delta_up = to_i(inv), delta_down = to_i(neg(inv));
        D8 frac = sub(add(to_d(fl), d8(1.0)), to_d(rel));
        I8 max_up = to_i(mul(frac, to_d(delta_up)));   /* Ray_D2I<RAY_CPU> */
        I8 max_down = to_i(mul(sub(rel, fl), to_f(delta_down)));
        I8 e_up = to_i(mul(sub(high[a], start[a]), inv));
        I8 e_down = to_i(mul(sub(zero, start[a]), inv));
        const I8 far = i8(RAY_DDA_FAR);
        I8 step = sel(up[a], i8(1), sel(down[a], i8(-1), _mm256_setzero_si256()));
        I8 delta = sel(up[a], delta_up, sel(down[a], delta_down, _mm256_setzero_si256()));
        I8 t_max = sel(up[a], max_up, sel(down[a], max_down, far));
        I8 e = sel(up[a], e_up, sel(down[a], e_down, far));
        _mm256_store_si256(reinterpret_cast<I8*>(vi[0][a]), to_i(rel));
        _mm256_store_si256(reinterpret_cast<I8*>(vi[1][a]), step);
        _mm256_store_si256(reinterpret_cast<I8*>(vi[2][a]), delta);
        _mm256_store_si256(reinterpret_cast<I8*>(vi[3][a]), t_max);
        _mm256_store_si256(reinterpret_cast<I8*>(vi[4][a]), sub(e, _mm256_srai_epi32(delta, 1)));
        _mm256_store_ps(vf[a], eye[a]);
        _mm256_store_ps(vf[3 + a], dir[a]);
    }
    _mm256_store_ps(vf[6], entry);
    for (int l = 0; l < n; l++) {
        Rays& y = rays[l];
        y = Rays{};
        for (int a = 0; a < 3; a++) {
            y.vox[a] = vi[0][a][l];
            y.step[a] = vi[1][a][l];
            y.t_delta[a] = vi[2][a][l];
            y.t_max[a] = vi[3][a][l];
            y.t_end[a] = vi[4][a][l];
            y.org[a] = vf[a][l];
            y.dir[a] = vf[3 + a][l];
        }
        y.entry = vf[6][l];
        y.trans = 1.0f;
    }
    return ~any(miss) & ((1 << n) - 1);
}

void RAY_PACKET_WALK(const Ray_Packet_Scene& ps, const Rays* rays, int n, unsigned int* out)
{
    const Ray_Render_Layout& L = *ps.layout;
    Lanes r;
    load(r, rays, n);
    const I8 dim[3] = {i8(L.dim[0]), i8(L.dim[1]), i8(L.dim[2])};
    const F8 cut = f8(ps.cut);
    const F8 clip = f8(ps.clip);

    /*
     * The DDA runs a step ahead of the samples: the near bound of the block
     * a sample lies in (the voxel its step leaves) is asked for two steps
     * before it is read.
     */
    I8 near_b = block_of(L, r.vox);
    I8 pair = grey_pair(L.grey, near_b, r.active);
    F8 near = near_of(pair), near_own = own_of(pair);
    bool grey_first = false;
    I8 t = dda_step(r, dim);
    I8 next_b = block_of(L, r.vox);
    I8 next = grey_pair(L.grey, next_b, r.active);
    while (any(r.active)) {
        /* A stop request ends every ray. */
        if (run_flag(ps.run) == 0) break;

        /* The one-ray walk's leap: the near bound of the block the sample lies in (the voxel left). */
        I8 leap = zero_any_tag(near, cut, r.active);
        I8 smp = andnot(leap, r.active);
        /* Depth clip. */
        smp = andnot(f_gt(clip, add(mul(to_f(r.t_prev), f8(RAY_DDA_TO_LEN)), r.entry)), smp);

        if (any(smp)) {
            /* The sample mid-segment, its weight. */
            I8 len = sub(t, r.t_prev);
            F8 w = mul(to_f(len), f8(RAY_WEIGHT_PER_UNIT));
            I8 mid = add(_mm256_srai_epi32(len, 1), r.t_prev);
            F8 d = add(mul(to_f(mid), f8(RAY_DDA_TO_LEN)), r.entry);
            F8 pos[3];
            for (int a = 0; a < 3; a++) pos[a] = add(r.org[a], mul(d, r.dir[a]));

            /* The sampler's bound: the block of the sample point, where every coordinate is >= 0 and inside. */
            I8 cell[3];
            I8 bounded = smp;
            I8 signs = or_(or_(_mm256_castps_si256(pos[0]), _mm256_castps_si256(pos[1])), _mm256_castps_si256(pos[2]));
            bounded = andnot(gt(i8(0), signs), bounded);
            for (int a = 0; a < 3; a++) {
                cell[a] = to_i(pos[a]);
                bounded = and_(bounded, below(cell[a], dim[a]));
            }
            I8 bs = block_of(L, cell);
            I8 no_nan = bounded;
            if (L.any_nan) {
                I8 flags = _mm256_castps_si256(block_field(L, bs, 4, bounded));
                no_nan = and_(bounded, gt(and_(flags, i8(RAY_BLOCK_NO_NAN)), i8(0)));
            }
            /* The own bound of the block the point lies in, where that is the voxel's block; else the near bound. */
            F8 own = sel(_mm256_cmpeq_epi32(bs, near_b), near_own, near);
            smp = andnot(zero_any_tag(own, cut, bounded), smp);
            /* Lanes whose magnitudes are all finite: a grey level at or below the cut makes their opacity 0. */
            I8 finite = and_(bounded, f_lt(own, f8(INFINITY)));

            int todo = any(smp);
            if (todo) {
                /* The tag of the voxel entered and its base colour. */
                I8 base = i8(0xFFFFFF);
                if (ps.tag_colours) {
                    I8 tag = byte_gather(ps.tag, voxel_index(L, r.vox), smp);
                    base = sel(smp, gather(reinterpret_cast<const int*>(ps.tag_base), tag, smp), base);
                }
                /*
                 * The grey level first where the last sampling step had no
                 * lane above the cut: the other channels only when one is.
                 */
                F8 val[RAY_CH_NB];
                bool open = true;
                if (grey_first) {
                    interpolate<RAY_CH_G, RAY_CH_G + 1>(ps, pos, cell, smp, no_nan, val);
                    open = any(andnot(and_(f_le(val[RAY_CH_G], cut), finite), smp)) != 0;
                    if (open) interpolate<RAY_CH_G + 1, RAY_CH_NB>(ps, pos, cell, smp, no_nan, val);
                } else {
                    interpolate<0, RAY_CH_NB>(ps, pos, cell, smp, no_nan, val);
                    open = any(andnot(and_(f_le(val[RAY_CH_G], cut), finite), smp)) != 0;
                }
                grey_first = !open;
                if (open) {
                /* Opacity of colour modes 0 and 1. */
                F8 alpha = mul(mul(clamp01(mul(f8(4.0f), val[RAY_CH_A])), w),
                               clamp01(mul(f8(5.0f), sub(val[RAY_CH_G], cut))));
                I8 lit = and_(smp, mask(_mm256_cmp_ps(alpha, f8(0.0f), _CMP_NEQ_UQ)));
                if (any(lit)) {
                    /* Shading and front-to-back compositing. */
                    const F8 nrm[3] = {val[RAY_CH_X], val[RAY_CH_Y], val[RAY_CH_Z]};
                    I8 ch[3];
                    shade(ps, base, nrm, r.dir, lit, ch);
                    for (int k = 0; k < 3; k++)
                        r.col[k] = sel(lit, add(r.col[k], mul(mul(to_f(ch[k]), alpha), r.T)), r.col[k]);
                    F8 keep = sub(f8(1.0f), alpha);
                    keep = _mm256_and_ps(keep, _mm256_cmp_ps(keep, f8(0.0f), _CMP_GT_OQ));
                    r.T = sel(lit, mul(r.T, keep), r.T);
                    /* Opaque enough. */
                    r.active = andnot(and_(lit, f_le(r.T, f8(RAY_OPAQUE))), r.active);
                }
                }
            }
        }
        r.t_prev = sel(r.active, t, r.t_prev);
        near = near_of(next), near_own = own_of(next), near_b = next_b;
        /* Lanes in a macro block where every step is leaped cross it at once (their near bound stays below the cut). */
        I8 empty = zero_any_tag(near, cut, r.active);
        if (any(empty)) {
            F8 macro = grey_bound(L.grey_macro, macro_of(L, r.vox), empty);
            I8 across = zero_any_tag(macro, cut, empty);
            if (any(across)) {
                I8 moved = jump(r, dim, across);
                near = sel(moved, macro, near);
                near_b = sel(moved, i8(-1), near_b);
            }
        }
        prefetch_rows(L, r.vox, andnot(zero_any_tag(near, cut, r.active), r.active));
        t = dda_step(r, dim);
        next_b = block_of(L, r.vox);
        next = grey_pair(L.grey, next_b, r.active);
    }

    /* The pixel words. */
    alignas(32) int c[3][8], tb[8];
    for (int k = 0; k < 3; k++) _mm256_store_si256(reinterpret_cast<I8*>(c[k]), to_i(r.col[k]));
    _mm256_store_si256(reinterpret_cast<I8*>(tb), to_i(mul(r.T, f8(255.0f))));
    for (int l = 0; l < n; l++)
        out[l] = pack_byte(c[0][l]) | pack_byte(c[1][l]) << 8 | pack_byte(c[2][l]) << 16 | pack_byte(tb[l]) << 24;
}

#else

/* Built without the instruction set: never asked for (Ray_Packet_Walk_For). */
void RAY_PACKET_WALK(const Ray_Packet_Scene&, const Rays*, int, unsigned int* out) { (void)out; }
int RAY_PACKET_SETUP(const float*, int, int, const int*, int, const int*, const int*, const float*, const float*, Rays*)
{
    return 0;
}

#endif
