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

#if defined(__AVX512F__)
/*
 * Sixteen lanes, one 512-bit register of floats or of 32-bit integers; a
 * lane mask is a mask register, a bit a lane.
 */
const int LANES = RAY_PACKET_LANES_AVX512;
typedef __m512 Fv;
typedef __m512i Iv;
typedef __mmask16 Mk;
/* Every lane: GCC 12's forms without a mask start from an undefined register, which its warnings flag. */
const __mmask16 K = 0xFFFF;
inline Mk all() { return K; }
inline Mk none() { return 0; }
inline Mk and_(Mk a, Mk b) { return static_cast<Mk>(a & b); }
inline Mk or_(Mk a, Mk b) { return static_cast<Mk>(a | b); }
inline Mk andnot(Mk a, Mk b) { return static_cast<Mk>(~a & b); }   /* ~a & b */
/* The first n lanes. */
inline Mk lanes_of(int n) { return static_cast<Mk>(n >= LANES ? K : (1u << n) - 1); }
/* v in the lanes m, 0 elsewhere. */
inline Iv keep(Mk m, Iv v) { return _mm512_maskz_mov_epi32(m, v); }
inline Iv iv(int v) { return _mm512_set1_epi32(v); }
inline Fv fv(float v) { return _mm512_set1_ps(v); }
inline Iv zero_i() { return _mm512_setzero_si512(); }
inline Fv zero_f() { return _mm512_setzero_ps(); }
inline Iv and_(Iv a, Iv b) { return _mm512_and_si512(a, b); }
inline Iv or_(Iv a, Iv b) { return _mm512_or_si512(a, b); }
inline Iv andnot(Iv a, Iv b) { return _mm512_maskz_andnot_epi32(K, a, b); }   /* ~a & b */
inline Iv xor_(Iv a, Iv b) { return _mm512_xor_si512(a, b); }
/* m ? a : b, lane by lane. */
inline Iv sel(Mk m, Iv a, Iv b) { return _mm512_mask_blend_epi32(m, b, a); }
inline Fv sel(Mk m, Fv a, Fv b) { return _mm512_mask_blend_ps(m, b, a); }
/* Bit l set where lane l of m is. */
inline int any(Mk m) { return m; }
/* Signed comparisons of 32-bit lanes. */
inline Mk gt(Iv a, Iv b) { return _mm512_cmpgt_epi32_mask(a, b); }
inline Mk eq(Iv a, Iv b) { return _mm512_cmpeq_epi32_mask(a, b); }
/* Float comparisons: the ordered ones false where either side is NaN, as in C. */
template <int P>
inline Mk f_cmp(Fv a, Fv b) { return _mm512_cmp_ps_mask(a, b, P); }
inline Fv add(Fv a, Fv b) { return _mm512_add_ps(a, b); }
inline Fv sub(Fv a, Fv b) { return _mm512_sub_ps(a, b); }
inline Fv mul(Fv a, Fv b) { return _mm512_mul_ps(a, b); }
inline Fv div(Fv a, Fv b) { return _mm512_div_ps(a, b); }
inline Fv sqrt_(Fv a) { return _mm512_maskz_sqrt_ps(K, a); }
inline Fv floor_(Fv a) { return _mm512_maskz_roundscale_ps(K, a, _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC); }
inline Iv bits(Fv a) { return _mm512_castps_si512(a); }
inline Fv from_bits(Iv a) { return _mm512_castsi512_ps(a); }
inline Iv add(Iv a, Iv b) { return _mm512_add_epi32(a, b); }   /* wraps, as Ray_Add32 */
inline Iv sub(Iv a, Iv b) { return _mm512_sub_epi32(a, b); }
inline Iv mul(Iv a, Iv b) { return _mm512_mullo_epi32(a, b); }  /* low 32 bits, as unsigned int products */
inline Iv min_i(Iv a, Iv b) { return _mm512_maskz_min_epi32(K, a, b); }
inline Iv max_i(Iv a, Iv b) { return _mm512_maskz_max_epi32(K, a, b); }
inline Iv min_u(Iv a, Iv b) { return _mm512_maskz_min_epu32(K, a, b); }
inline Iv srl(Iv a, unsigned n) { return _mm512_maskz_srli_epi32(K, a, n); }
inline Iv sra(Iv a, unsigned n) { return _mm512_maskz_srai_epi32(K, a, n); }
inline Iv sll(Iv a, unsigned n) { return _mm512_maskz_slli_epi32(K, a, n); }
inline Iv srlv(Iv a, Iv n) { return _mm512_maskz_srlv_epi32(K, a, n); }
inline Fv to_f(Iv a) { return _mm512_maskz_cvtepi32_ps(K, a); }         /* static_cast<float>(int) */
inline Iv to_i(Fv a) { return _mm512_maskz_cvttps_epi32(K, a); }       /* Ray_F2I<RAY_CPU>: 0x80000000 out of range */
inline Fv load_f(const float* p) { return _mm512_loadu_ps(p); }
inline Iv load_i(const int* p) { return _mm512_loadu_si512(p); }
inline void store_f(float* p, Fv a) { _mm512_storeu_ps(p, a); }
inline void store_i(int* p, Iv a) { _mm512_storeu_si512(p, a); }
/* The words at base + index * S (bytes) of lanes m, 0 elsewhere. */
template <int S>
inline Iv gather_words(const void* base, Iv index, Mk m) { return _mm512_mask_i32gather_epi32(zero_i(), m, index, base, S); }
inline Fv gather(const float* base, Iv index, Mk m) { return _mm512_mask_i32gather_ps(zero_f(), m, index, base, 4); }
/* Four floats at at[q + 4k] + off into the k-th quarter, k < LANES / 4. */
inline Fv quads(const float* const* at, int q, size_t off)
{
    Fv v = _mm512_castps128_ps512(_mm_loadu_ps(at[q] + off));
    v = _mm512_insertf32x4(v, _mm_loadu_ps(at[q + 4] + off), 1);
    v = _mm512_insertf32x4(v, _mm_loadu_ps(at[q + 8] + off), 2);
    return _mm512_insertf32x4(v, _mm_loadu_ps(at[q + 12] + off), 3);
}
/* Within each 128-bit quarter, as the instructions of these names. */
inline Fv unpacklo(Fv a, Fv b) { return _mm512_maskz_unpacklo_ps(K, a, b); }
inline Fv unpackhi(Fv a, Fv b) { return _mm512_maskz_unpackhi_ps(K, a, b); }
template <int S>
inline Fv shuffle(Fv a, Fv b) { return _mm512_shuffle_ps(a, b, S); }
/* at[l] = base + index (in floats, 0 <= index < 2^31) of lane l. */
inline void pointers(const float* base, Iv index, const float** at)
{
    const __m512i b = _mm512_set1_epi64(static_cast<long long>(reinterpret_cast<uintptr_t>(base)));
    __m512i lo = _mm512_maskz_cvtepu32_epi64(0xFF, _mm512_maskz_extracti64x4_epi64(0xF, index, 0));
    __m512i hi = _mm512_maskz_cvtepu32_epi64(0xFF, _mm512_maskz_extracti64x4_epi64(0xF, index, 1));
    _mm512_storeu_si512(at, _mm512_add_epi64(b, _mm512_maskz_slli_epi64(0xFF, lo, 2)));
    _mm512_storeu_si512(at + 8, _mm512_add_epi64(b, _mm512_maskz_slli_epi64(0xFF, hi, 2)));
}
#else
/* Eight lanes, one 256-bit register of floats or of 32-bit integers; a lane mask is a lane all ones or all zeros. */
const int LANES = RAY_PACKET_LANES_AVX2;
typedef __m256 Fv;
typedef __m256i Iv;
typedef __m256i Mk;
inline Mk all() { return _mm256_set1_epi32(-1); }
inline Mk none() { return _mm256_setzero_si256(); }
/* The first n lanes. */
inline Mk lanes_of(int n) { return _mm256_cmpgt_epi32(_mm256_set1_epi32(n), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7)); }
inline Iv iv(int v) { return _mm256_set1_epi32(v); }
inline Fv fv(float v) { return _mm256_set1_ps(v); }
inline Iv zero_i() { return _mm256_setzero_si256(); }
inline Fv zero_f() { return _mm256_setzero_ps(); }
inline Iv and_(Iv a, Iv b) { return _mm256_and_si256(a, b); }
inline Iv or_(Iv a, Iv b) { return _mm256_or_si256(a, b); }
inline Iv andnot(Iv a, Iv b) { return _mm256_andnot_si256(a, b); }   /* ~a & b */
inline Iv xor_(Iv a, Iv b) { return _mm256_xor_si256(a, b); }
/* v in the lanes m, 0 elsewhere. */
inline Iv keep(Mk m, Iv v) { return and_(m, v); }
/* m ? a : b, lane by lane. */
inline Iv sel(Iv m, Iv a, Iv b) { return _mm256_blendv_epi8(b, a, m); }
inline Fv sel(Iv m, Fv a, Fv b) { return _mm256_blendv_ps(b, a, _mm256_castsi256_ps(m)); }
/* Bit l set where lane l of m is. */
inline int any(Iv m) { return _mm256_movemask_ps(_mm256_castsi256_ps(m)); }
/* Signed comparisons of 32-bit lanes. */
inline Iv gt(Iv a, Iv b) { return _mm256_cmpgt_epi32(a, b); }
inline Iv eq(Iv a, Iv b) { return _mm256_cmpeq_epi32(a, b); }
/* Float comparisons: the ordered ones false where either side is NaN, as in C. */
template <int P>
inline Iv f_cmp(Fv a, Fv b) { return _mm256_castps_si256(_mm256_cmp_ps(a, b, P)); }
inline Fv add(Fv a, Fv b) { return _mm256_add_ps(a, b); }
inline Fv sub(Fv a, Fv b) { return _mm256_sub_ps(a, b); }
inline Fv mul(Fv a, Fv b) { return _mm256_mul_ps(a, b); }
inline Fv div(Fv a, Fv b) { return _mm256_div_ps(a, b); }
inline Fv sqrt_(Fv a) { return _mm256_sqrt_ps(a); }
inline Fv floor_(Fv a) { return _mm256_floor_ps(a); }
inline Iv bits(Fv a) { return _mm256_castps_si256(a); }
inline Fv from_bits(Iv a) { return _mm256_castsi256_ps(a); }
inline Iv add(Iv a, Iv b) { return _mm256_add_epi32(a, b); }   /* wraps, as Ray_Add32 */
inline Iv sub(Iv a, Iv b) { return _mm256_sub_epi32(a, b); }
inline Iv mul(Iv a, Iv b) { return _mm256_mullo_epi32(a, b); }  /* low 32 bits, as unsigned int products */
inline Iv min_i(Iv a, Iv b) { return _mm256_min_epi32(a, b); }
inline Iv max_i(Iv a, Iv b) { return _mm256_max_epi32(a, b); }
inline Iv min_u(Iv a, Iv b) { return _mm256_min_epu32(a, b); }
inline Iv srl(Iv a, int n) { return _mm256_srli_epi32(a, n); }
inline Iv sra(Iv a, int n) { return _mm256_srai_epi32(a, n); }
inline Iv sll(Iv a, int n) { return _mm256_slli_epi32(a, n); }
inline Iv srlv(Iv a, Iv n) { return _mm256_srlv_epi32(a, n); }
inline Fv to_f(Iv a) { return _mm256_cvtepi32_ps(a); }         /* static_cast<float>(int) */
inline Iv to_i(Fv a) { return _mm256_cvttps_epi32(a); }       /* Ray_F2I<RAY_CPU>: 0x80000000 out of range */
inline Fv load_f(const float* p) { return _mm256_loadu_ps(p); }
inline Iv load_i(const int* p) { return _mm256_loadu_si256(reinterpret_cast<const Iv*>(p)); }
inline void store_f(float* p, Fv a) { _mm256_storeu_ps(p, a); }
inline void store_i(int* p, Iv a) { _mm256_storeu_si256(reinterpret_cast<Iv*>(p), a); }
/* The words at base + index * S (bytes) of lanes m, 0 elsewhere. */
template <int S>
inline Iv gather_words(const void* base, Iv index, Iv m)
{
    return _mm256_mask_i32gather_epi32(zero_i(), static_cast<const int*>(base), index, m, S);
}
inline Fv gather(const float* base, Iv index, Iv m)
{
    return _mm256_mask_i32gather_ps(zero_f(), base, index, _mm256_castsi256_ps(m), 4);
}
/* Four floats at at[q + 4k] + off into the k-th quarter, k < LANES / 4. */
inline Fv quads(const float* const* at, int q, size_t off)
{
    return _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(at[q] + off)), _mm_loadu_ps(at[q + 4] + off), 1);
}
/* Within each 128-bit quarter, as the instructions of these names. */
inline Fv unpacklo(Fv a, Fv b) { return _mm256_unpacklo_ps(a, b); }
inline Fv unpackhi(Fv a, Fv b) { return _mm256_unpackhi_ps(a, b); }
template <int S>
inline Fv shuffle(Fv a, Fv b) { return _mm256_shuffle_ps(a, b, S); }
/* at[l] = base + index (in floats, 0 <= index < 2^31) of lane l. */
inline void pointers(const float* base, Iv index, const float** at)
{
    const __m256i b = _mm256_set1_epi64x(static_cast<long long>(reinterpret_cast<uintptr_t>(base)));
    __m256i lo = _mm256_cvtepu32_epi64(_mm256_castsi256_si128(index));
    __m256i hi = _mm256_cvtepu32_epi64(_mm256_extracti128_si256(index, 1));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(at), _mm256_add_epi64(b, _mm256_slli_epi64(lo, 2)));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(at + 4), _mm256_add_epi64(b, _mm256_slli_epi64(hi, 2)));
}
#endif
static_assert(LANES <= RAY_PACKET_LANES, "a packet's lanes fit the callers' arrays");

inline Mk le(Iv a, Iv b) { return andnot(gt(a, b), all()); }
/* 0 <= v < n for n >= 0: v as unsigned below n, as Ray_Inside asks. */
inline Mk below(Iv v, Iv n) { return andnot(gt(iv(0), v), gt(n, v)); }
inline Mk f_le(Fv a, Fv b) { return f_cmp<_CMP_LE_OQ>(a, b); }
inline Mk f_lt(Fv a, Fv b) { return f_cmp<_CMP_LT_OQ>(a, b); }
inline Mk f_gt(Fv a, Fv b) { return f_cmp<_CMP_GT_OQ>(a, b); }
inline Mk f_ge(Fv a, Fv b) { return f_cmp<_CMP_GE_OQ>(a, b); }
inline Mk f_eq(Fv a, Fv b) { return f_cmp<_CMP_EQ_OQ>(a, b); }
/* a != b or either NaN, as C's != */
inline Mk f_ne(Fv a, Fv b) { return f_cmp<_CMP_NEQ_UQ>(a, b); }
/* Not NaN. */
inline Mk f_ord(Fv a) { return f_cmp<_CMP_ORD_Q>(a, a); }
inline Fv neg(Fv a) { return from_bits(xor_(bits(a), iv(static_cast<int>(0x80000000u)))); }

/*
 * The bytes p[index] of lanes m: four bytes read from at most three before
 * (never before p, so the array needs four bytes at least), then shifted.
 */
inline Iv byte_gather(const unsigned char* p, Iv index, Mk m)
{
    Iv from = max_i(sub(index, iv(3)), zero_i());
    Iv word = gather_words<1>(p, from, m);
    return and_(srlv(word, sll(sub(index, from), 3)), iv(0xFF));
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
inline Fv clamp01(Fv x)
{
    Fv r = sel(f_le(x, fv(0.0f)), fv(0.0f), x);
    return sel(f_ge(x, fv(1.0f)), fv(1.0f), r);
}

/* The packet's rays: Rays, accumulators and transparency, one lane each. */
struct Lanes {
    Iv vox[3], step[3], delta[3], t_max[3], t_end[3];
    Fv org[3], dir[3], entry;
    Iv t_prev;
    Fv col[3], T;
    Mk active;
};

void load(Lanes& r, const Rays* rays, int n)
{
    int vi[5][3][LANES] = {};
    float vf[7][LANES] = {};
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
    }
    for (int a = 0; a < 3; a++) {
        r.vox[a] = load_i(vi[0][a]);
        r.step[a] = load_i(vi[1][a]);
        r.delta[a] = load_i(vi[2][a]);
        r.t_max[a] = load_i(vi[3][a]);
        r.t_end[a] = load_i(vi[4][a]);
        r.org[a] = load_f(vf[a]);
        r.dir[a] = load_f(vf[3 + a]);
        r.col[a] = zero_f();
    }
    r.entry = load_f(vf[6]);
    r.t_prev = zero_i();
    r.T = fv(1.0f);
    r.active = lanes_of(n);
}

/*
 * One DDA step of the live lanes: the nearest crossing (ties to x, then y)
 * and its parameter, returned; lanes whose crossing reaches their end or
 * whose step leaves the volume end.
 */
inline Iv dda_step(Lanes& r, const Iv* dim)
{
    Mk m0 = and_(le(r.t_max[0], r.t_max[1]), le(r.t_max[0], r.t_max[2]));
    Mk m1 = andnot(m0, le(r.t_max[1], r.t_max[2]));
    Mk m2 = andnot(or_(m0, m1), all());
    Iv t = sel(m0, r.t_max[0], sel(m1, r.t_max[1], r.t_max[2]));
    Iv end = sel(m0, r.t_end[0], sel(m1, r.t_end[1], r.t_end[2]));
    r.active = andnot(le(end, t), r.active);
    const Mk axis[3] = {and_(m0, r.active), and_(m1, r.active), and_(m2, r.active)};
    for (int a = 0; a < 3; a++) {
        r.t_max[a] = add(r.t_max[a], keep(axis[a], r.delta[a]));
        r.vox[a] = add(r.vox[a], keep(axis[a], r.step[a]));
    }
    for (int a = 0; a < 3; a++) r.active = and_(r.active, below(r.vox[a], dim[a]));
    return t;
}

#if defined(__AVX512F__)
/*
 * Sixteen lanes of doubles as two 512-bit registers (lanes 0-7, 8-15):
 * integers up to 2^53 exactly.  The operations take the mask of every
 * lane (GCC 12's forms without a mask start from an undefined register,
 * which its warnings flag).
 */
const __mmask8 k_all = 0xFF;
struct Dv {
    __m512d lo, hi;
};
inline Dv dv(double x) { return {_mm512_set1_pd(x), _mm512_set1_pd(x)}; }
inline Dv to_d(Iv v)
{
    return {_mm512_maskz_cvtepi32_pd(k_all, _mm512_maskz_extracti64x4_epi64(0xF, v, 0)),
            _mm512_maskz_cvtepi32_pd(k_all, _mm512_maskz_extracti64x4_epi64(0xF, v, 1))};
}
/* Double lanes of float lanes, and float lanes of double lanes (rounded). */
inline Dv to_d(Fv v)
{
    return {_mm512_maskz_cvtps_pd(k_all, _mm512_maskz_extractf32x8_ps(k_all, v, 0)),
            _mm512_maskz_cvtps_pd(k_all, _mm512_maskz_extractf32x8_ps(k_all, v, 1))};
}
inline Fv to_f(Dv d)
{
    return _mm512_maskz_insertf32x8(K, _mm512_castps256_ps512(_mm512_maskz_cvtpd_ps(k_all, d.lo)),
                                    _mm512_maskz_cvtpd_ps(k_all, d.hi), 1);
}
/* Integral values within 32 bits back to lanes. */
inline Iv to_i(Dv d)
{
    return _mm512_maskz_inserti64x4(k_all, _mm512_castsi256_si512(_mm512_maskz_cvttpd_epi32(k_all, d.lo)),
                                    _mm512_maskz_cvttpd_epi32(k_all, d.hi), 1);
}
inline Dv add(Dv a, Dv b) { return {_mm512_add_pd(a.lo, b.lo), _mm512_add_pd(a.hi, b.hi)}; }
inline Dv sub(Dv a, Dv b) { return {_mm512_sub_pd(a.lo, b.lo), _mm512_sub_pd(a.hi, b.hi)}; }
inline Dv mul(Dv a, Dv b) { return {_mm512_mul_pd(a.lo, b.lo), _mm512_mul_pd(a.hi, b.hi)}; }
inline Dv div(Dv a, Dv b) { return {_mm512_div_pd(a.lo, b.lo), _mm512_div_pd(a.hi, b.hi)}; }
inline Dv min_(Dv a, Dv b) { return {_mm512_maskz_min_pd(k_all, a.lo, b.lo), _mm512_maskz_min_pd(k_all, a.hi, b.hi)}; }
inline Dv max_(Dv a, Dv b) { return {_mm512_maskz_max_pd(k_all, a.lo, b.lo), _mm512_maskz_max_pd(k_all, a.hi, b.hi)}; }
/* The smallest integer at or above a / b, for integers a and b > 0 below 2^53: the quotient is never within rounding of another integer. */
inline Dv ceil_div(Dv a, Dv b)
{
    const int up = _MM_FROUND_TO_POS_INF | _MM_FROUND_NO_EXC;
    Dv q = div(a, b);
    return {_mm512_maskz_roundscale_pd(k_all, q.lo, up), _mm512_maskz_roundscale_pd(k_all, q.hi, up)};
}
/* m ? a : b for lanes of doubles. */
inline Dv sel(Mk m, Dv a, Dv b)
{
    return {_mm512_mask_blend_pd(static_cast<__mmask8>(m), b.lo, a.lo),
            _mm512_mask_blend_pd(static_cast<__mmask8>(m >> 8), b.hi, a.hi)};
}
/* a <= b per lane, as a lane mask. */
inline Mk d_le(Dv a, Dv b)
{
    unsigned lo = _mm512_cmp_pd_mask(a.lo, b.lo, _CMP_LE_OQ), hi = _mm512_cmp_pd_mask(a.hi, b.hi, _CMP_LE_OQ);
    return static_cast<Mk>(lo | hi << 8);
}
#else
/* Eight lanes of doubles, as two registers of four (lanes 0-3, 4-7): integers up to 2^53 exactly. */
struct Dv {
    __m256d lo, hi;
};
inline Dv dv(double x) { return {_mm256_set1_pd(x), _mm256_set1_pd(x)}; }
inline Dv to_d(Iv v)
{
    return {_mm256_cvtepi32_pd(_mm256_castsi256_si128(v)), _mm256_cvtepi32_pd(_mm256_extracti128_si256(v, 1))};
}
/* Double lanes of float lanes, and float lanes of double lanes (rounded). */
inline Dv to_d(Fv v)
{
    return {_mm256_cvtps_pd(_mm256_castps256_ps128(v)), _mm256_cvtps_pd(_mm256_extractf128_ps(v, 1))};
}
inline Fv to_f(Dv d) { return _mm256_set_m128(_mm256_cvtpd_ps(d.hi), _mm256_cvtpd_ps(d.lo)); }
/* Integral values within 32 bits back to lanes. */
inline Iv to_i(Dv d) { return _mm256_set_m128i(_mm256_cvttpd_epi32(d.hi), _mm256_cvttpd_epi32(d.lo)); }
inline Dv add(Dv a, Dv b) { return {_mm256_add_pd(a.lo, b.lo), _mm256_add_pd(a.hi, b.hi)}; }
inline Dv sub(Dv a, Dv b) { return {_mm256_sub_pd(a.lo, b.lo), _mm256_sub_pd(a.hi, b.hi)}; }
inline Dv mul(Dv a, Dv b) { return {_mm256_mul_pd(a.lo, b.lo), _mm256_mul_pd(a.hi, b.hi)}; }
inline Dv div(Dv a, Dv b) { return {_mm256_div_pd(a.lo, b.lo), _mm256_div_pd(a.hi, b.hi)}; }
inline Dv min_(Dv a, Dv b) { return {_mm256_min_pd(a.lo, b.lo), _mm256_min_pd(a.hi, b.hi)}; }
inline Dv max_(Dv a, Dv b) { return {_mm256_max_pd(a.lo, b.lo), _mm256_max_pd(a.hi, b.hi)}; }
/* The smallest integer at or above a / b, for integers a and b > 0 below 2^53: the quotient is never within rounding of another integer. */
inline Dv ceil_div(Dv a, Dv b)
{
    const int up = _MM_FROUND_TO_POS_INF | _MM_FROUND_NO_EXC;
    Dv q = div(a, b);
    return {_mm256_round_pd(q.lo, up), _mm256_round_pd(q.hi, up)};
}
/* m ? a : b for lanes of doubles. */
inline Dv sel(Mk m, Dv a, Dv b)
{
    __m256d lo = _mm256_castsi256_pd(_mm256_cvtepi32_epi64(_mm256_castsi256_si128(m)));
    __m256d hi = _mm256_castsi256_pd(_mm256_cvtepi32_epi64(_mm256_extracti128_si256(m, 1)));
    return {_mm256_blendv_pd(b.lo, a.lo, lo), _mm256_blendv_pd(b.hi, a.hi, hi)};
}
/* a <= b per lane, as a lane mask. */
inline Mk d_le(Dv a, Dv b)
{
    const Iv even = _mm256_setr_epi32(0, 2, 4, 6, 0, 2, 4, 6);
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
inline Mk jump(Lanes& r, const Iv* dim, Mk m)
{
    const int side = 1 << (RAY_BLOCK_SHIFT + RAY_MACRO_SHIFT);
    const Dv inf = dv(INFINITY);
    /* The first crossing not taken: any axis's end, or the macro block's exit on a stepping axis. */
    Dv tau = to_d(min_i(min_i(r.t_end[0], r.t_end[1]), r.t_end[2]));
    Dv tm[3], de[3];
    Mk stepping[3];
    for (int a = 0; a < 3; a++) {
        Iv lo = and_(r.vox[a], iv(~(side - 1)));
        Iv hi = min_i(add(lo, iv(side - 1)), sub(dim[a], iv(1)));
        Iv left = sel(gt(r.step[a], iv(0)), sub(hi, r.vox[a]), sub(r.vox[a], lo));
        stepping[a] = gt(r.delta[a], iv(0));
        tm[a] = to_d(r.t_max[a]);
        de[a] = to_d(r.delta[a]);
        tau = min_(tau, sel(stepping[a], add(tm[a], mul(to_d(left), de[a])), inf));
    }
    /* Crossings per axis before tau, the axis's next crossing after them, the last one taken. */
    const Dv zero = dv(0.0);
    const Dv top = dv(2147483647.0);
    Dv last = dv(-INFINITY);
    Mk ok = m, any_j = none();
    Iv j[3];
    Dv next[3];
    for (int a = 0; a < 3; a++) {
        Dv k = max_(zero, ceil_div(sub(tau, tm[a]), sel(stepping[a], de[a], top)));
        k = sel(stepping[a], k, zero);
        ok = and_(ok, or_(stepping[a], d_le(tau, tm[a])));
        next[a] = add(tm[a], mul(k, de[a]));
        ok = and_(ok, d_le(next[a], top));
        j[a] = to_i(k);
        Mk some = gt(j[a], iv(0));
        any_j = or_(any_j, some);
        last = max_(last, sel(some, sub(next[a], de[a]), last));
    }
    Mk moved = and_(ok, any_j);
    if (!any(moved)) return moved;
    for (int a = 0; a < 3; a++) {
        r.t_max[a] = sel(moved, to_i(next[a]), r.t_max[a]);
        r.vox[a] = sel(moved, add(r.vox[a], mul(r.step[a], j[a])), r.vox[a]);
    }
    r.t_prev = sel(moved, to_i(last), r.t_prev);
    return moved;
}

/* Index of the block of side 2^shift, in a grid of n[0] x n[1] blocks, of voxel (x, y, z) per lane. */
inline Iv grid_index(const Iv* v, int shift, const int* n)
{
    Iv bx = srl(v[0], shift);
    Iv by = srl(v[1], shift);
    Iv bz = srl(v[2], shift);
    return add(mul(add(mul(bz, iv(n[1])), by), iv(n[0])), bx);
}

/* Block index of voxel (x, y, z) per lane, as the one-ray sampler's block_of. */
inline Iv block_of(const Ray_Render_Layout& L, const Iv* v) { return grid_index(v, RAY_BLOCK_SHIFT, L.bdim); }

/* Macro block index of voxel (x, y, z) per lane. */
inline Iv macro_of(const Ray_Render_Layout& L, const Iv* v)
{
    return grid_index(v, RAY_BLOCK_SHIFT + RAY_MACRO_SHIFT, L.mdim);
}

/* The bound fields of blocks b (Ray_Block_Bound, five 32-bit words each). */
const int k_block_words = sizeof(Ray_Block_Bound) / 4;
static_assert(sizeof(Ray_Block_Bound) == 5 * 4, "a block bound is five 32-bit words");
inline Fv block_field(const Ray_Render_Layout& L, Iv b, int word, Mk m)
{
    return gather(reinterpret_cast<const float*>(L.block) + word, mul(b, iv(k_block_words)), m);
}

/*
 * The folded own and near bounds of blocks b, lanes m, as one 32-bit word
 * each: own_of and near_of take them apart.
 */
static_assert(sizeof(Ray_Grey_Pair) == 4, "a block's bounds are one word, own in the low half on x86");
inline Iv grey_pair(const Ray_Grey_Pair* t, Iv b, Mk m) { return gather_words<4>(t, b, m); }
inline Fv own_of(Iv pair) { return from_bits(sll(pair, 16)); }
inline Fv near_of(Iv pair) { return from_bits(and_(pair, iv(static_cast<int>(0xFFFF0000u)))); }

/*
 * The folded grey bounds of blocks b in table t, lanes m (each entry read
 * as the low half of a 32-bit word: the table has one more).
 */
inline Fv grey_bound(const Ray_Grey16* t, Iv b, Mk m)
{
    return from_bits(sll(gather_words<2>(t, b, m), 16));
}

/* Ray_Alpha_Is_Zero_Any_Tag for colour modes 0 and 1 with a finite threshold, from a folded bound. */
inline Mk zero_any_tag(Fv bound, Fv cut, Mk m) { return and_(f_le(bound, cut), m); }

/*
 * Channels 0 to 4 of the voxels at at[l] + off and of the next ones along x,
 * lane l from at[l]: the ten floats of each lane read as three groups of
 * four (the layout's padding covers the last group's two past the voxel),
 * lanes l, l + 4, ... in one register, each group turned into one register
 * per float.
 */
inline void corner_pair(const float* const* at, size_t off, Fv* v0, Fv* v1)
{
    Fv e[12];
    for (int k = 0; k < 3; k++) {
        Fv g[4];
        for (int q = 0; q < 4; q++) g[q] = quads(at, q, off + 4 * k);
        Fv lo01 = unpacklo(g[0], g[1]), lo23 = unpacklo(g[2], g[3]);
        e[4 * k] = shuffle<0x44>(lo01, lo23);
        e[4 * k + 1] = shuffle<0xEE>(lo01, lo23);
        if (k == 2) break;
        Fv hi01 = unpackhi(g[0], g[1]), hi23 = unpackhi(g[2], g[3]);
        e[4 * k + 2] = shuffle<0x44>(hi01, hi23);
        e[4 * k + 3] = shuffle<0xEE>(hi01, hi23);
    }
    for (int ch = 0; ch < RAY_CH_NB; ch++) v0[ch] = e[ch], v1[ch] = e[RAY_CH_NB + ch];
}

/* Index of voxel v per lane, x fastest (Ray_Voxel_Index). */
inline Iv voxel_index(const Ray_Render_Layout& L, const Iv* v)
{
    return add(mul(add(mul(v[2], iv(L.dim[1])), v[1]), iv(L.dim[0])), v[0]);
}

/*
 * One corner's share of channels C0 to C1 - 1 added to val: value * wx *
 * wy * wz, in that order, in the lanes in and where the value is not
 * NaN (every lane where check is false: no NaN there).
 */
template <int C0, int C1>
inline void add_corner(Fv* val, const Fv* v, Fv wx, Fv wy, Fv wz, Mk in, bool check)
{
    for (int ch = C0; ch < C1; ch++) {
        Fv s = add(val[ch], mul(mul(mul(v[ch], wx), wy), wz));
        val[ch] = check ? sel(and_(in, f_ord(v[ch])), s, val[ch]) : s;
    }
}

/*
 * Channels C0 to C1 - 1 at the sample points pos of the lanes m, each
 * summed over the stencil's corners in order with the one-ray sampler's
 * float operations; val[RAY_CH_*] (the other channels left as they are).
 */
template <int C0, int C1>
void interpolate(const Ray_Packet_Scene& ps, const Fv* pos, const Iv* cell, Mk m, Mk no_nan, Fv* val)
{
    const Ray_Render_Layout& L = *ps.layout;
    Iv lo[3];
    Fv w[3][2];
    Mk inside = all();
    for (int a = 0; a < 3; a++) {
        /* Ray_Interp_Axis_At */
        Fv f = sub(pos[a], to_f(cell[a]));
        Mk low = f_lt(f, fv(0.5f));
        lo[a] = sel(low, sub(cell[a], iv(1)), cell[a]);
        w[a][0] = sel(low, sub(fv(0.5f), f), sub(fv(1.5f), f));
        w[a][1] = sel(low, add(f, fv(0.5f)), sub(f, fv(0.5f)));
        inside = and_(inside, below(lo[a], iv(L.dim[a] - 1)));
    }
    Mk full = and_(m, inside);
    for (int ch = C0; ch < C1; ch++) val[ch] = zero_f();
    if (!any(andnot(inside, m))) {
        if (!any(full)) return;
        /*
         * Every stencil inside the volume: each lane's from its first
         * corner; a lane without one reads voxel 0's, which exists whenever
         * some lane's does.
         */
        const float* at[LANES];
        pointers(L.voxel, keep(full, mul(voxel_index(L, lo), iv(RAY_CH_NB))), at);
        bool nans = (any(andnot(no_nan, full)) != 0);
#pragma GCC unroll 4
        for (int c = 0; c < 8; c += 2) {
            const size_t off = ((c & 2) ? L.row : 0) + ((c & 4) ? L.slice : 0);
            Fv v0[RAY_CH_NB], v1[RAY_CH_NB];
            corner_pair(at, off, v0, v1);
            add_corner<C0, C1>(val, v0, w[0][0], w[1][(c >> 1) & 1], w[2][c >> 2], all(), nans);
            add_corner<C0, C1>(val, v1, w[0][1], w[1][(c >> 1) & 1], w[2][c >> 2], all(), nans);
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
        const Iv corner[3] = {add(lo[0], iv(c & 1)), add(lo[1], iv((c >> 1) & 1)), add(lo[2], iv(c >> 2))};
        Mk valid = m;
        for (int a = 0; a < 3; a++) valid = and_(valid, below(corner[a], iv(L.dim[a])));
        /* Each channel's lanes at once (rare: a gather is cheaper than a transposition here). */
        Iv at = keep(valid, mul(voxel_index(L, corner), iv(RAY_CH_NB)));
        Fv v[RAY_CH_NB];
        for (int ch = 0; ch < RAY_CH_NB; ch++) v[ch] = gather(L.voxel + ch, at, all());
        add_corner<C0, C1>(val, v, w[0][c & 1], w[1][(c >> 1) & 1], w[2][c >> 2], valid, true);
    }
}

/*
 * Asks the caches for the rows of the stencils of voxels v, lanes m, ahead
 * of their samples: four rows of two voxels, each by the cache line that
 * holds its second voxel.  Every lane asks (every other one of sixteen:
 * neighbouring pixels' stencils share most lines, and the asking costs),
 * the lanes not in m for voxel 0: a branch per lane or per row costs more
 * in mispredictions than the prefetches it saves, and so does asking for
 * both lines of each row.
 */
inline void prefetch_rows(const Ray_Render_Layout& L, const Iv* v, Mk m)
{
    if (!any(m)) return;
    int first[LANES];
    store_i(first, keep(m, mul(voxel_index(L, v), iv(RAY_CH_NB))));
    /* Addresses as integers: a row past the volume's last one is asked for, never read. */
    const uintptr_t row = L.row * sizeof(float), slice = L.slice * sizeof(float);
    const uintptr_t rows[4] = {0, row, slice, slice + row};
    const uintptr_t second = reinterpret_cast<uintptr_t>(L.voxel) + RAY_CH_NB * sizeof(float);
    for (int l = 0; l < LANES; l += LANES / 8) {
        uintptr_t at = second + static_cast<uintptr_t>(static_cast<unsigned int>(first[l])) * sizeof(float);
        for (uintptr_t o : rows) _mm_prefetch(reinterpret_cast<const char*>(at + o), _MM_HINT_T0);
    }
}

/* The colour byte k (0, 1, 2) of words c. */
inline Iv byte_of(Iv c, int k) { return and_(srl(c, 8 * k), iv(0xFF)); }

/*
 * Ray_DDDA_Shade with every flag, lane by lane: base colours c, normals n,
 * directions dir; the three shaded channel bytes in out.
 */
void shade(const Ray_Packet_Scene& ps, Iv c, const Fv* n, const Fv* dir, Mk m, Iv* out)
{
    Iv ck[3] = {byte_of(c, 0), byte_of(c, 1), byte_of(c, 2)};
    Mk back = f_gt(add(add(mul(n[0], dir[0]), mul(n[1], dir[1])), mul(n[2], dir[2])), fv(0.0f));
    Iv s[3];
    for (int k = 0; k < 3; k++) s[k] = srl(mul(iv(ps.light_rgb[0][k]), ck[k]), 8);
    for (int i = 1; i <= ps.lights; i++) {
        Iv lk[3];
        for (int k = 0; k < 3; k++) lk[k] = iv(ps.light_rgb[i][k]);
        const Fv L[3] = {fv(ps.light_dir[i][0]), fv(ps.light_dir[i][1]), fv(ps.light_dir[i][2])};
        Fv d = sub(sub(neg(mul(n[0], L[0])), mul(n[1], L[1])), mul(n[2], L[2]));
        Mk diffuse = f_gt(d, fv(0.0f));
        if (any(and_(diffuse, m))) {
            Iv q = and_(to_i(mul(d, fv(255.0f))), iv(0xFF));
            for (int k = 0; k < 3; k++)
                s[k] = add(s[k], keep(diffuse, srl(mul(mul(lk[k], ck[k]), q), 16)));
        }
        Fv R[3];
        for (int a = 0; a < 3; a++) R[a] = add(mul(mul(fv(2.0f), d), n[a]), L[a]);
        Fv e = sub(sub(neg(mul(R[1], dir[1])), mul(R[0], dir[0])), mul(R[2], dir[2]));
        /* Lanes whose index finds 0 in the table add nothing: left out. */
        Mk specular = and_(and_(f_gt(e, fv(0.0f)), f_ge(e, fv(ps.specular_from))), m);
        if (any(specular)) {
            Fv ec = sel(f_lt(e, fv(1.0f)), e, fv(1.0f));
            Iv idx = min_i(to_i(mul(ec, fv(1024.0f))), iv(1023));
            Iv p = gather_words<4>(ps.phong, idx, specular);
            for (int k = 0; k < 3; k++) s[k] = add(s[k], keep(specular, srl(mul(p, lk[k]), 8)));
        }
    }
    for (int k = 0; k < 3; k++)
        out[k] = sel(back, srl(ck[k], 2), min_u(s[k], iv(255)));
}

/* A view-space point (x, y, z) per lane through the 16 floats m (Ray_Map_Point). */
inline void map_point(const float* m, Fv x, Fv y, Fv z, Fv* out)
{
    Fv o[4];
    for (int k = 0; k < 4; k++)
        o[k] = add(add(add(mul(fv(m[k]), x), mul(fv(m[4 + k]), y)), mul(fv(m[8 + k]), z)), fv(m[12 + k]));
    Mk one = f_eq(o[3], fv(1.0f));
    Fv r = div(fv(1.0f), o[3]);
    for (int k = 0; k < 3; k++) out[k] = sel(one, o[k], mul(o[k], r));
}


/* Pack_Byte of each lane: 255 at or above, else the low byte. */
inline unsigned int pack_byte(int v) { return v >= 255 ? 255u : static_cast<unsigned int>(v) & 0xFFu; }

}  // namespace

int RAY_PACKET_SETUP(const float* m, int W, int H, const int* dim, int n, const int* i, const int* j, const float* r1,
                     const float* r2, Rays* rays)
{
    int pi[LANES] = {}, pj[LANES] = {};
    float d1[LANES] = {}, d2[LANES] = {};
    for (int l = 0; l < n; l++) pi[l] = i[l], pj[l] = j[l], d1[l] = r1[l], d2[l] = r2[l];
    /* Ray_Pixel_Ray, then the direction scaled as Vector_4 does. */
    Fv sc = fv(2.0f / static_cast<float>(W > H ? W : H));
    Fv u = mul(add(mul(load_f(d1), fv(0.5f)), to_f(sub(load_i(pi), iv(W >> 1)))), sc);
    Fv v = mul(add(mul(load_f(d2), fv(0.5f)), to_f(sub(load_i(pj), iv(H >> 1)))), sc);
    Fv eye[3], p[3], dir[3];
    map_point(m, fv(0.0f), fv(0.0f), fv(-2.0f), eye);
    map_point(m, u, v, fv(0.0f), p);
    Fv d[3];
    for (int a = 0; a < 3; a++) d[a] = sub(p[a], eye[a]);
    Fv inv_len = div(fv(1.0f), sqrt_(add(add(mul(d[0], d[0]), mul(d[1], d[1])), mul(d[2], d[2]))));
    for (int a = 0; a < 3; a++) dir[a] = mul(d[a], inv_len);

    /* Ray_DDDA_Origin in the box 0 - dim. */
    Fv high[3];
    for (int a = 0; a < 3; a++) high[a] = fv(static_cast<float>(dim[a]));
    const Fv zero = zero_f(), eps = fv(RAY_PARALLEL_EPS);
    Mk inside = all();
    for (int a = 0; a < 3; a++) inside = and_(inside, and_(f_le(zero, eye[a]), f_lt(eye[a], high[a])));
    Mk miss = none();
    Fv t[3];
    Mk up[3], down[3];
    const Dv inset = dv(RAY_ENTRY_INSET);
    for (int a = 0; a < 3; a++) {
        up[a] = f_gt(dir[a], eps);
        down[a] = f_lt(dir[a], neg(eps));
        Dv pd = to_d(eye[a]), dd = to_d(dir[a]);
        /* The distance to the low face going up, to the high face going down: one division for either. */
        Dv to_low = add(sub(to_d(zero), pd), inset), to_high = sub(sub(to_d(high[a]), pd), inset);
        Dv gap = sel(up[a], to_low, to_high);
        Dv q = div(gap, dd);
        Mk outside = or_(f_lt(eye[a], zero), f_gt(eye[a], high[a]));
        miss = or_(miss, andnot(or_(up[a], down[a]), outside));
        t[a] = sel(or_(up[a], down[a]), to_f(q), fv(RAY_ENTRY_NONE));
    }
    Fv tt = sel(f_gt(t[1], t[0]), t[1], t[0]);
    tt = sel(f_gt(t[2], tt), t[2], tt);
    miss = or_(miss, f_lt(tt, eps));
    Fv start[3];
    for (int a = 0; a < 3; a++) {
        start[a] = add(eye[a], mul(tt, dir[a]));
        miss = or_(miss, andnot(and_(f_le(zero, start[a]), f_lt(start[a], high[a])), all()));
    }
    miss = andnot(inside, or_(miss, f_ge(tt, fv(RAY_MISS))));
    Fv entry = sel(inside, zero, tt);
    for (int a = 0; a < 3; a++) start[a] = sel(inside, eye[a], start[a]);

    /* Ray_DDDA_Param at the entry point. */
    int vi[5][3][LANES];
    float vf[7][LANES];
    for (int a = 0; a < 3; a++) {
        Fv inv = div(fv(RAY_DDA_UNITS), dir[a]);
        Fv rel = sub(start[a], zero);
        Fv fl = floor_(rel);
        Iv delta_up = to_i(inv), delta_down = to_i(neg(inv));
        Dv frac = sub(add(to_d(fl), dv(1.0)), to_d(rel));
        Iv max_up = to_i(mul(frac, to_d(delta_up)));   /* Ray_D2I<RAY_CPU> */
        Iv max_down = to_i(mul(sub(rel, fl), to_f(delta_down)));
        Iv e_up = to_i(mul(sub(high[a], start[a]), inv));
        Iv e_down = to_i(mul(sub(zero, start[a]), inv));
        const Iv far = iv(RAY_DDA_FAR);
        Iv step = sel(up[a], iv(1), sel(down[a], iv(-1), zero_i()));
        Iv delta = sel(up[a], delta_up, sel(down[a], delta_down, zero_i()));
        Iv t_max = sel(up[a], max_up, sel(down[a], max_down, far));
        Iv e = sel(up[a], e_up, sel(down[a], e_down, far));
        store_i(vi[0][a], to_i(rel));
        store_i(vi[1][a], step);
        store_i(vi[2][a], delta);
        store_i(vi[3][a], t_max);
        store_i(vi[4][a], sub(e, sra(delta, 1)));
        store_f(vf[a], eye[a]);
        store_f(vf[3 + a], dir[a]);
    }
    store_f(vf[6], entry);
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
    const Iv dim[3] = {iv(L.dim[0]), iv(L.dim[1]), iv(L.dim[2])};
    const Fv cut = fv(ps.cut);
    const Fv clip = fv(ps.clip);

    /*
     * The DDA runs a step ahead of the samples: the near bound of the block
     * a sample lies in (the voxel its step leaves) is asked for two steps
     * before it is read.
     */
    Iv near_b = block_of(L, r.vox);
    Iv pair = grey_pair(L.grey, near_b, r.active);
    Fv near = near_of(pair), near_own = own_of(pair);
    bool grey_first = false;
    Iv t = dda_step(r, dim);
    Iv next_b = block_of(L, r.vox);
    Iv next = grey_pair(L.grey, next_b, r.active);
    while (any(r.active)) {
        /* A stop request ends every ray. */
        if (run_flag(ps.run) == 0) break;

        /* The one-ray walk's leap: the near bound of the block the sample lies in (the voxel left). */
        Mk leap = zero_any_tag(near, cut, r.active);
        Mk smp = andnot(leap, r.active);
        /* Depth clip. */
        smp = andnot(f_gt(clip, add(mul(to_f(r.t_prev), fv(RAY_DDA_TO_LEN)), r.entry)), smp);

        if (any(smp)) {
            /* The sample mid-segment, its weight. */
            Iv len = sub(t, r.t_prev);
            Fv w = mul(to_f(len), fv(RAY_WEIGHT_PER_UNIT));
            Iv mid = add(sra(len, 1), r.t_prev);
            Fv d = add(mul(to_f(mid), fv(RAY_DDA_TO_LEN)), r.entry);
            Fv pos[3];
            for (int a = 0; a < 3; a++) pos[a] = add(r.org[a], mul(d, r.dir[a]));

            /* The sampler's bound: the block of the sample point, where every coordinate is >= 0 and inside. */
            Iv cell[3];
            Mk bounded = smp;
            Iv signs = or_(or_(bits(pos[0]), bits(pos[1])), bits(pos[2]));
            bounded = andnot(gt(iv(0), signs), bounded);
            for (int a = 0; a < 3; a++) {
                cell[a] = to_i(pos[a]);
                bounded = and_(bounded, below(cell[a], dim[a]));
            }
            Iv bs = block_of(L, cell);
            Mk no_nan = bounded;
            if (L.any_nan) {
                Iv flags = bits(block_field(L, bs, 4, bounded));
                no_nan = and_(bounded, gt(and_(flags, iv(RAY_BLOCK_NO_NAN)), iv(0)));
            }
            /* The own bound of the block the point lies in, where that is the voxel's block; else the near bound. */
            Fv own = sel(eq(bs, near_b), near_own, near);
            smp = andnot(zero_any_tag(own, cut, bounded), smp);
            /* Lanes whose magnitudes are all finite: a grey level at or below the cut makes their opacity 0. */
            Mk finite = and_(bounded, f_lt(own, fv(INFINITY)));

            int todo = any(smp);
            if (todo) {
                /* The tag of the voxel entered and its base colour. */
                Iv base = iv(0xFFFFFF);
                if (ps.tag_colours) {
                    Iv tag = byte_gather(ps.tag, voxel_index(L, r.vox), smp);
                    base = sel(smp, gather_words<4>(ps.tag_base, tag, smp), base);
                }
                /*
                 * The grey level first where the last sampling step had no
                 * lane above the cut: the other channels only when one is.
                 */
                Fv val[RAY_CH_NB];
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
                Fv alpha = mul(mul(clamp01(mul(fv(4.0f), val[RAY_CH_A])), w),
                               clamp01(mul(fv(5.0f), sub(val[RAY_CH_G], cut))));
                Mk lit = and_(smp, f_ne(alpha, fv(0.0f)));
                if (any(lit)) {
                    /* Shading and front-to-back compositing. */
                    const Fv nrm[3] = {val[RAY_CH_X], val[RAY_CH_Y], val[RAY_CH_Z]};
                    Iv ch[3];
                    shade(ps, base, nrm, r.dir, lit, ch);
                    for (int k = 0; k < 3; k++)
                        r.col[k] = sel(lit, add(r.col[k], mul(mul(to_f(ch[k]), alpha), r.T)), r.col[k]);
                    Fv left = sub(fv(1.0f), alpha);
                    left = sel(f_gt(left, fv(0.0f)), left, zero_f());
                    r.T = sel(lit, mul(r.T, left), r.T);
                    /* Opaque enough. */
                    r.active = andnot(and_(lit, f_le(r.T, fv(RAY_OPAQUE))), r.active);
                }
                }
            }
        }
        r.t_prev = sel(r.active, t, r.t_prev);
        near = near_of(next), near_own = own_of(next), near_b = next_b;
        /* Lanes in a macro block where every step is leaped cross it at once (their near bound stays below the cut). */
        Mk empty = zero_any_tag(near, cut, r.active);
        if (any(empty)) {
            Fv macro = grey_bound(L.grey_macro, macro_of(L, r.vox), empty);
            Mk across = zero_any_tag(macro, cut, empty);
            if (any(across)) {
                Mk moved = jump(r, dim, across);
                near = sel(moved, macro, near);
                near_b = sel(moved, iv(-1), near_b);
            }
        }
        prefetch_rows(L, r.vox, andnot(zero_any_tag(near, cut, r.active), r.active));
        t = dda_step(r, dim);
        next_b = block_of(L, r.vox);
        next = grey_pair(L.grey, next_b, r.active);
    }

    /* The pixel words. */
    int c[3][LANES], tb[LANES];
    for (int k = 0; k < 3; k++) store_i(c[k], to_i(r.col[k]));
    store_i(tb, to_i(mul(r.T, fv(255.0f))));
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
