// Vector replicas of the C library's expf, logf, tanf, atanf and atan2f (of complex parts) for
// processors with AVX-512 (F, DQ and VL), equal to the library (glibc 2.36 on x86-64) bit for bit, as
// the AVX2 replicas (libm_avx2.cpp) are and by the same arithmetic: sixteen binary32 lanes a step,
// their binary64 work in two halves of eight. They pay where the AVX2 ones are held back: expf's and
// logf's tables are registers looked up by permutes instead of gathers, which are slow on some
// processors, and the long chains of dependent steps of the older single-precision code (tanf, atanf)
// keep twice as many lanes in flight, their branches chosen by masks instead of blends.
//
// Whether they may be used in a process is decided once by the gate (libm_gate.cpp).
#define ZV_LIBM_IMPLEMENTATION
#include <immintrin.h>
// GCC 12's AVX-512 conversions start from a register left undefined on purpose, and then warn about
// it where they are inlined.
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

#include <cmath>

#include "kernels/libm_constants.h"
#include "kernels/libm_internal.h"

#define ZV_AVX512 __attribute__((target("avx512f,avx512dq,avx512vl,avx2,fma")))

namespace {

// ---- lanes -----------------------------------------------------------------------------------------

// Subnormal lanes become zeros of their sign (decided on the bits).
ZV_AVX512 inline __m512 FlushLanes(__m512 x) {
  const __m512i b = _mm512_castps_si512(x);
  const __mmask16 tiny = _mm512_testn_epi32_mask(b, _mm512_set1_epi32(0x7f800000));
  return _mm512_castsi512_ps(_mm512_mask_and_epi32(b, tiny, b, _mm512_set1_epi32(INT32_MIN)));
}

// Sixteen binary32 lanes through an eight-lane binary64 evaluation, low half then high half.
template <__m256 (*Half)(__m256)> ZV_AVX512 inline __m512 ByHalves(__m512 x) {
  const __m256 lo = Half(_mm512_castps512_ps256(x));
  const __m256 hi = Half(_mm512_extractf32x8_ps(x, 1));
  return _mm512_insertf32x8(_mm512_castps256_ps512(lo), hi, 1);
}

// One step of sixteen values (those of keep stored): flushed arguments, the replica, the library for
// the lanes the replica leaves (Eval sets them in *special), flushed results.
template <__m512 (*Eval)(__m512, __mmask16 *), float (*F)(float)>
ZV_AVX512 inline void Step(__m512 x, float *d, __mmask16 keep) {
  x = FlushLanes(x);
  __mmask16 special = 0;
  __m512 y = Eval(x, &special);
  if (__builtin_expect(special != 0, 0)) {
    alignas(64) float xs[16], ys[16];
    _mm512_store_ps(xs, x);
    _mm512_store_ps(ys, y);
    for (unsigned m = special; m != 0; m &= m - 1) {
      const int j = __builtin_ctz(m);
      ys[j] = F(xs[j]);
    }
    y = _mm512_load_ps(ys);
  }
  _mm512_mask_storeu_ps(d, keep, FlushLanes(y));
}

// s and d may be the same: each step loads before it stores. Everything is inlined into the loop, so
// that the constants stay in registers across steps.
template <__m512 (*Eval)(__m512, __mmask16 *), float (*F)(float)>
__attribute__((flatten)) ZV_AVX512 void Map(const float *s, float *d, uint64_t n) {
  uint64_t i = 0;
  for (; i + 16 <= n; i += 16) Step<Eval, F>(_mm512_loadu_ps(s + i), d + i, 0xffff);
  if (i < n) {
    // The last few values, padded with ones (a main-path argument of each function); the masked
    // load and store touch only the values themselves.
    const __mmask16 keep = static_cast<__mmask16>((1u << (n - i)) - 1);
    Step<Eval, F>(_mm512_mask_loadu_ps(_mm512_set1_ps(1.0f), keep, s + i), d + i, keep);
  }
}

// ---- expf --------------------------------------------------------------------------------------------
// As in libm_avx2.cpp; the table of 32 is four registers, two permutes of sixteen chosen by bit 4.

ZV_AVX512 inline __m256 ExpHalf(__m256 x) {
  const __m512d xd = _mm512_cvtps_pd(x);
  const __m512d inv_ln2n = _mm512_set1_pd(kExpInvLn2N), shift = _mm512_set1_pd(kExpShift);
  // kd = round(x*32/ln2) by the shift; fused as in the library's FMA build.
  __m512d kd = _mm512_fmadd_pd(inv_ln2n, xd, shift);
  const __m512i ki = _mm512_castpd_si512(kd);
  kd = _mm512_sub_pd(kd, shift);
  // r = x*32/ln2 - kd; fused as in the library's FMA build.
  const __m512d r = _mm512_fmsub_pd(inv_ln2n, xd, kd);
  // The table entry of ki's bits 0 to 4 (the permutes read bits 0 to 3).
  const __m512i low = _mm512_permutex2var_epi64(_mm512_load_si512(kExpTable), ki, _mm512_load_si512(kExpTable + 8));
  const __m512i high =
      _mm512_permutex2var_epi64(_mm512_load_si512(kExpTable + 16), ki, _mm512_load_si512(kExpTable + 24));
  const __m512i entry = _mm512_mask_blend_epi64(_mm512_test_epi64_mask(ki, _mm512_set1_epi64(16)), low, high);
  const __m512i t = _mm512_add_epi64(entry, _mm512_slli_epi64(ki, 47));
  // The cubic; its three multiply-adds are fused as in the library's FMA build, r*r and the scaling
  // are plain products.
  const __m512d z = _mm512_fmadd_pd(_mm512_set1_pd(kExpC0), r, _mm512_set1_pd(kExpC1));
  const __m512d r2 = _mm512_mul_pd(r, r);
  __m512d y = _mm512_fmadd_pd(_mm512_set1_pd(kExpC2), r, _mm512_set1_pd(1.0));
  y = _mm512_fmadd_pd(z, r2, y);
  y = _mm512_mul_pd(y, _mm512_castsi512_pd(t));
  return _mm512_cvtpd_ps(y);
}

// Main path: |x| < 88 (biased exponent and top mantissa bits at most 0x42a); the rest (overflow,
// underflow, infinities, NaN) is the library's.
ZV_AVX512 __m512 ExpEval(__m512 x, __mmask16 *special) {
  const __m512i top12 = _mm512_and_si512(_mm512_srli_epi32(_mm512_castps_si512(x), 20), _mm512_set1_epi32(0x7ff));
  *special = _mm512_cmpgt_epi32_mask(top12, _mm512_set1_epi32(0x42a));
  return ByHalves<ExpHalf>(x);
}

// ---- logf --------------------------------------------------------------------------------------------
// As in libm_avx2.cpp; the table's columns of 1/c and log(c), each two registers of eight.

struct LogColumns {
  alignas(64) double invc[16];
  alignas(64) double logc[16];
};
constexpr LogColumns MakeLogColumns() {
  LogColumns t{};
  for (int i = 0; i < 16; ++i) t.invc[i] = kLogTable[i][0], t.logc[i] = kLogTable[i][1];
  return t;
}
constexpr LogColumns kLogColumns = MakeLogColumns();

// column[i] for the index i in bits 0 to 3 of each 64-bit lane (the permute reads no other bits).
ZV_AVX512 inline __m512d Lookup16(const double *column, __m512i i) {
  return _mm512_permutex2var_pd(_mm512_load_pd(column), i, _mm512_load_pd(column + 8));
}

ZV_AVX512 inline __m256 LogHalf(__m256 x) {
  const __m256i ix = _mm256_castps_si256(x);
  const __m256i tmp = _mm256_sub_epi32(ix, _mm256_set1_epi32(0x3f330000));
  const __m512i i = _mm512_cvtepu32_epi64(_mm256_srli_epi32(tmp, 19));
  const __m256i k = _mm256_srai_epi32(tmp, 23);
  const __m256i iz = _mm256_sub_epi32(ix, _mm256_and_si256(tmp, _mm256_set1_epi32(static_cast<int>(0xff800000u))));
  const __m512d invc = Lookup16(kLogColumns.invc, i);
  const __m512d logc = Lookup16(kLogColumns.logc, i);
  const __m512d z = _mm512_cvtps_pd(_mm256_castsi256_ps(iz));
  // y0 = k*ln2 + log(c) and r = z/c - 1; both fused as in the library's FMA build.
  const __m512d y0 = _mm512_fmadd_pd(_mm512_cvtepi32_pd(k), _mm512_set1_pd(kLogLn2), logc);
  const __m512d r = _mm512_fmadd_pd(z, invc, _mm512_set1_pd(-1.0));
  // The cubic; its three multiply-adds are fused as in the library's FMA build, r*r and r + y0 are not.
  __m512d y = _mm512_fmadd_pd(r, _mm512_set1_pd(kLogA1), _mm512_set1_pd(kLogA2));
  const __m512d r2 = _mm512_mul_pd(r, r);
  const __m512d t = _mm512_add_pd(r, y0);
  y = _mm512_fmadd_pd(_mm512_set1_pd(kLogA0), r2, y);
  y = _mm512_fmadd_pd(y, r2, t);
  return _mm512_cvtpd_ps(y);
}

// Main path: the positive normal numbers (bits 0x00800000 to 0x7f7fffff); zeros, negatives,
// infinities and NaN are the library's.
ZV_AVX512 __m512 LogEval(__m512 x, __mmask16 *special) {
  const __m512i above_normal = _mm512_sub_epi32(_mm512_castps_si512(x), _mm512_set1_epi32(0x00800000));
  *special = _mm512_cmpge_epu32_mask(above_normal, _mm512_set1_epi32(0x7f000000));
  return ByHalves<LogHalf>(x);
}

// ---- tanf -----------------------------------------------------------------------------------------
// As in libm_avx2.cpp: the reduction in binary64 without fused steps, then the single-precision
// kernel with every branch computed and chosen per lane by masks.

ZV_AVX512 inline __m512 Mul(__m512 a, __m512 b) { return _mm512_mul_ps(a, b); }
ZV_AVX512 inline __m512 Add(__m512 a, __m512 b) { return _mm512_add_ps(a, b); }
ZV_AVX512 inline __m512 Sub(__m512 a, __m512 b) { return _mm512_sub_ps(a, b); }
ZV_AVX512 inline __m512 Set(float v) { return _mm512_set1_ps(v); }

// The reduction of eight lanes: high and low binary32 parts of x - n*pi/2 and the quadrant n.
ZV_AVX512 inline void TanReduceHalf(__m256 x, __m256 *high, __m256 *low, __m256i *n) {
  const __m512d xd = _mm512_cvtps_pd(x);
  *n = _mm256_srai_epi32(_mm256_add_epi32(_mm512_cvttpd_epi32(_mm512_mul_pd(xd, _mm512_set1_pd(kHalfPiInv))),
                                          _mm256_set1_epi32(0x800000)), 24);
  const __m512d r = _mm512_sub_pd(xd, _mm512_mul_pd(_mm512_cvtepi32_pd(*n), _mm512_set1_pd(kHalfPi)));
  *high = _mm512_cvtpd_ps(r);
  *low = _mm512_cvtpd_ps(_mm512_sub_pd(r, _mm512_cvtps_pd(*high)));
}

// The single-precision kernel: tan(x + y), or -1/tan(x + y) in the odd lanes.
ZV_AVX512 __m512 TanKernel(__m512 x, __m512 y, __mmask16 odd) {
  const __m512 sign = _mm512_castsi512_ps(_mm512_set1_epi32(INT32_MIN));
  const __m512 one = Set(1.0f);
  const __m512i hx = _mm512_castps_si512(x);
  const __m512i ix = _mm512_and_si512(hx, _mm512_set1_epi32(0x7fffffff));
  const __mmask16 negative = _mm512_movepi32_mask(hx);
  const __m512 fiy = _mm512_mask_blend_ps(odd, one, Set(-1.0f));
  // From 0.6744 on: x + y folded into pi/4 - |x + y|.
  const __mmask16 fold = _mm512_cmpgt_epi32_mask(ix, _mm512_set1_epi32(0x3f2ca13f));
  const __m512 folded = Add(Sub(Set(7.8539812565e-01f), _mm512_mask_xor_ps(x, negative, x, sign)),
                            Sub(Set(3.7748947079e-08f), _mm512_mask_xor_ps(y, negative, y, sign)));
  x = _mm512_mask_blend_ps(fold, x, folded);
  y = _mm512_maskz_mov_ps(static_cast<__mmask16>(~fold), y);
  // sgn = -1 for negative x, as a factor.
  const __m512 sgn = _mm512_mask_blend_ps(negative, one, Set(-1.0f));
  const __m512 z = Mul(x, x), w = Mul(z, z);
  __m512 r = Add(Set(kTanT[1]), Mul(w, Add(Set(kTanT[3]), Mul(w, Add(Set(kTanT[5]), Mul(w, Add(Set(kTanT[7]),
             Mul(w, Add(Set(kTanT[9]), Mul(w, Set(kTanT[11])))))))))));
  const __m512 v = Mul(z, Add(Set(kTanT[2]), Mul(w, Add(Set(kTanT[4]), Mul(w, Add(Set(kTanT[6]), Mul(w,
                   Add(Set(kTanT[8]), Mul(w, Add(Set(kTanT[10]), Mul(w, Set(kTanT[12]))))))))))));
  const __m512 s = Mul(z, x);
  r = Add(y, Mul(z, Add(Mul(s, Add(r, v)), y)));
  r = Add(r, Mul(Set(kTanT[0]), s));
  const __m512 sum = Add(x, r);
  // Each lane's one division, its operands chosen by the lane's branch: below 2^-13 (before folding)
  // -1/x, folded (x + r)^2/(x + r + iy), otherwise -1/(x + r).
  const __mmask16 tiny = _mm512_cmplt_epi32_mask(ix, _mm512_set1_epi32(0x39000000));
  const __m512 x0 = _mm512_castsi512_ps(hx);
  const __m512 num = _mm512_mask_blend_ps(fold, Set(-1.0f), Mul(sum, sum));
  const __m512 den = _mm512_mask_blend_ps(tiny, _mm512_mask_blend_ps(fold, sum, Add(sum, fiy)), x0);
  const __m512 q = _mm512_div_ps(num, den);
  // Folded: sgn * (iy - 2*(x - (q - r))).
  const __m512 folded_result = Mul(sgn, Sub(fiy, Mul(Set(2.0f), Sub(x, Sub(q, r)))));
  // Odd quadrant: -1/(x + r) = q with the high halves of the parts.
  const __m512 keep_high = _mm512_castsi512_ps(_mm512_set1_epi32(static_cast<int>(0xfffff000u)));
  const __m512 zh = _mm512_and_ps(sum, keep_high);
  const __m512 vh = Sub(r, Sub(zh, x));
  const __m512 t = _mm512_and_ps(q, keep_high);
  const __m512 inverse = Add(t, Mul(q, Add(Add(one, Mul(t, zh)), Mul(t, vh))));
  __m512 result = _mm512_mask_blend_ps(fold, _mm512_mask_blend_ps(odd, sum, inverse), folded_result);
  // Folded to below 2^-13: sgn*iy * (1 - 2*iy*x).
  const __mmask16 near = _mm512_mask_cmp_ps_mask(fold, _mm512_abs_ps(x), Set(0x1p-13f), _CMP_LT_OQ);
  result = _mm512_mask_blend_ps(near, result, Mul(Mul(sgn, fiy), Sub(one, Mul(Add(fiy, fiy), x))));
  // Below 2^-13: x, -1/x = q, and +inf for +0 with iy = -1.
  __m512 small = _mm512_mask_blend_ps(odd, x0, q);
  small = _mm512_mask_blend_ps(odd & _mm512_testn_epi32_mask(ix, ix), small, Set(INFINITY));
  return _mm512_mask_blend_ps(tiny, result, small);
}

// Main path: |x| < 120; from there on (and infinities, NaN) the library's.
ZV_AVX512 __m512 TanEval(__m512 x, __mmask16 *special) {
  const __m512i ix = _mm512_and_si512(_mm512_castps_si512(x), _mm512_set1_epi32(0x7fffffff));
  *special = _mm512_cmpgt_epi32_mask(ix, _mm512_set1_epi32(0x42efffff));
  __m256 high_lo, low_lo, high_hi, low_hi;
  __m256i n_lo, n_hi;
  TanReduceHalf(_mm512_castps512_ps256(x), &high_lo, &low_lo, &n_lo);
  TanReduceHalf(_mm512_extractf32x8_ps(x, 1), &high_hi, &low_hi, &n_hi);
  const __m512 high = _mm512_insertf32x8(_mm512_castps256_ps512(high_lo), high_hi, 1);
  const __m512 low = _mm512_insertf32x8(_mm512_castps256_ps512(low_lo), low_hi, 1);
  const __m512i n = _mm512_inserti32x8(_mm512_castsi256_si512(n_lo), n_hi, 1);
  // Up to pi/4 (bits 0x3f490fda) no reduction: the kernel of x, 0 and an even quadrant.
  const __mmask16 reduce = _mm512_cmpgt_epi32_mask(ix, _mm512_set1_epi32(0x3f490fda));
  const __mmask16 odd = _mm512_mask_test_epi32_mask(reduce, n, _mm512_set1_epi32(1));
  return TanKernel(_mm512_mask_blend_ps(reduce, x, high), _mm512_maskz_mov_ps(reduce, low), odd);
}

// ---- atanf, atan2f on complex parts -------------------------------------------------------------
// As in libm_avx2.cpp: every lane takes its own reduction, as numerator and denominator of one
// division, without fused steps.

ZV_AVX512 inline __mmask16 Below(__m512i ix, uint32_t bound) {  // ix < bound, for 0 <= ix < 2^31
  return _mm512_cmplt_epi32_mask(ix, _mm512_set1_epi32(static_cast<int>(bound)));
}

// atanf of every lane that is not NaN (from 2^25 on: +-(pi/2 high + low)).
ZV_AVX512 inline __m512 AtanLanes(__m512 x) {
  const __m512 sign = _mm512_castsi512_ps(_mm512_set1_epi32(INT32_MIN));
  const __m512 ax = _mm512_abs_ps(x);
  const __m512i ix = _mm512_castps_si512(ax);
  const __mmask16 small = Below(ix, 0x3ee00000);  // |x| < 7/16: no reduction
  const __mmask16 r0 = Below(ix, 0x3f300000), r1 = Below(ix, 0x3f980000), r2 = Below(ix, 0x401c0000);
  // Reductions: (2x-1)/(2+x), (x-1)/(x+1), (x-1.5)/(1+1.5x), -1/x on |x|; x/1 below 7/16.
  const __m512 one = Set(1.0f);
  __m512 num = _mm512_mask_blend_ps(r1, Sub(ax, Set(1.5f)), Sub(ax, one));
  __m512 den = _mm512_mask_blend_ps(r1, Add(one, Mul(Set(1.5f), ax)), Add(ax, one));
  num = _mm512_mask_blend_ps(r0, num, Sub(Mul(Set(2.0f), ax), one));
  den = _mm512_mask_blend_ps(r0, den, Add(Set(2.0f), ax));
  num = _mm512_mask_blend_ps(small, _mm512_mask_blend_ps(r2, Set(-1.0f), num), x);
  den = _mm512_mask_blend_ps(small, _mm512_mask_blend_ps(r2, ax, den), one);
  const __m512 t = _mm512_div_ps(num, den);
  const __m512 z = Mul(t, t), w = Mul(z, z);
  const __m512 s1 = Mul(z, Add(Set(kAtanT[0]), Mul(w, Add(Set(kAtanT[2]), Mul(w, Add(Set(kAtanT[4]),
                    Mul(w, Add(Set(kAtanT[6]), Mul(w, Add(Set(kAtanT[8]), Mul(w, Set(kAtanT[10]))))))))))));
  const __m512 s2 = Mul(w, Add(Set(kAtanT[1]), Mul(w, Add(Set(kAtanT[3]), Mul(w, Add(Set(kAtanT[5]),
                    Mul(w, Add(Set(kAtanT[7]), Mul(w, Set(kAtanT[9]))))))))));
  const __m512 p = Mul(t, Add(s1, s2));
  // The reduction's atan(c) = hi + lo, by the index of the reduction, 0 to 3 (the masks are nested).
  const __m512i index = _mm512_add_epi32(_mm512_add_epi32(_mm512_movm_epi32(r0), _mm512_movm_epi32(r1)),
                                         _mm512_add_epi32(_mm512_movm_epi32(r2), _mm512_set1_epi32(3)));
  const __m512 hi = _mm512_permutexvar_ps(index, _mm512_broadcast_f32x4(_mm_loadu_ps(kAtanHi)));
  const __m512 lo = _mm512_permutexvar_ps(index, _mm512_broadcast_f32x4(_mm_loadu_ps(kAtanLo)));
  const __m512 reduced = _mm512_xor_ps(Sub(hi, Sub(Sub(p, lo), t)), _mm512_and_ps(x, sign));
  __m512 y = _mm512_mask_blend_ps(small, reduced, Sub(t, p));
  y = _mm512_mask_blend_ps(Below(ix, 0x31000000), y, x);  // |x| < 2^-29: x itself
  const __m512 huge = _mm512_or_ps(Add(Set(kAtanHi[3]), Set(kAtanLo[3])), _mm512_and_ps(x, sign));
  return _mm512_mask_blend_ps(_mm512_cmpgt_epi32_mask(ix, _mm512_set1_epi32(0x4bffffff)), y, huge);
}

// Main path: every value but NaN.
ZV_AVX512 __m512 AtanEval(__m512 x, __mmask16 *special) {
  const __m512i ix = _mm512_and_si512(_mm512_castps_si512(x), _mm512_set1_epi32(0x7fffffff));
  *special = _mm512_cmpgt_epi32_mask(ix, _mm512_set1_epi32(0x7f800000));
  return AtanLanes(x);
}

// atan2f(b, a) from the quotient's atan, by the signs of a and b. Zero, infinite and NaN parts and
// a = 1 are the library's.
ZV_AVX512 inline __m512 PhaseEval(__m512 a, __m512 b, __mmask16 *special) {
  const __m512i hx = _mm512_castps_si512(a), hy = _mm512_castps_si512(b);
  const __m512i magnitude = _mm512_set1_epi32(0x7fffffff), largest = _mm512_set1_epi32(0x7f7fffff);
  const __m512i ix = _mm512_and_si512(hx, magnitude), iy = _mm512_and_si512(hy, magnitude);
  *special = _mm512_testn_epi32_mask(ix, ix) | _mm512_testn_epi32_mask(iy, iy) |
             _mm512_cmpgt_epi32_mask(ix, largest) | _mm512_cmpgt_epi32_mask(iy, largest) |
             _mm512_cmpeq_epi32_mask(hx, _mm512_set1_epi32(0x3f800000));
  // k = (iy - ix) >> 23: beyond 60 the quotient is taken as huge (pi/2 + pi_lo/2), below -60 with a
  // negative a as zero, otherwise z = atanf(|b/a|).
  const __m512i k = _mm512_srai_epi32(_mm512_sub_epi32(iy, ix), 23);
  __m512 z = AtanLanes(_mm512_abs_ps(_mm512_div_ps(b, a)));
  const __mmask16 x_negative = _mm512_movepi32_mask(hx), y_negative = _mm512_movepi32_mask(hy);
  const __mmask16 big = _mm512_cmpgt_epi32_mask(k, _mm512_set1_epi32(60));
  const __mmask16 little = _mm512_mask_cmplt_epi32_mask(x_negative, k, _mm512_set1_epi32(-60));
  const float pi_lo = -8.7422776573e-08f, pi = 3.1415927410e+00f;
  z = _mm512_mask_blend_ps(big, z, Add(Set(1.5707963705e+00f), Mul(Set(0.5f), Set(pi_lo))));
  z = _mm512_maskz_mov_ps(static_cast<__mmask16>(~little), z);
  // By the signs: (+, +) z; (b < 0, a > 0) -z; (b >= 0, a < 0) pi - (z - pi_lo); (-, -) (z - pi_lo) - pi.
  const __m512 zl = Sub(z, Set(pi_lo));
  const __m512 right = _mm512_mask_xor_ps(z, y_negative, z, _mm512_castsi512_ps(_mm512_set1_epi32(INT32_MIN)));
  const __m512 left = _mm512_mask_blend_ps(y_negative, Sub(Set(pi), zl), Sub(zl, Set(pi)));
  return _mm512_mask_blend_ps(x_negative, right, left);
}

// Two-argument functions over pairs (a, b): sixteen pairs a step (those of keep stored), as Step.
template <__m512 (*Eval)(__m512, __m512, __mmask16 *), float (*F)(float, float)>
ZV_AVX512 inline void PairStep(__m512 p0, __m512 p1, float *d, __mmask16 keep) {
  p0 = FlushLanes(p0);
  p1 = FlushLanes(p1);
  // Deinterleave: even parts are the real parts a, odd ones the imaginary parts b.
  const __m512i even = _mm512_setr_epi32(0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30);
  const __m512 a = _mm512_permutex2var_ps(p0, even, p1);
  const __m512 b = _mm512_permutex2var_ps(p0, _mm512_add_epi32(even, _mm512_set1_epi32(1)), p1);
  __mmask16 special = 0;
  __m512 y = Eval(a, b, &special);
  special &= keep;
  if (__builtin_expect(special != 0, 0)) {
    alignas(64) float as[16], bs[16], ys[16];
    _mm512_store_ps(as, a);
    _mm512_store_ps(bs, b);
    _mm512_store_ps(ys, y);
    for (unsigned m = special; m != 0; m &= m - 1) {
      const int j = __builtin_ctz(m);
      ys[j] = F(as[j], bs[j]);
    }
    y = _mm512_load_ps(ys);
  }
  _mm512_mask_storeu_ps(d, keep, FlushLanes(y));
}

template <__m512 (*Eval)(__m512, __m512, __mmask16 *), float (*F)(float, float)>
__attribute__((flatten)) ZV_AVX512 void PairMap(const float *pairs, float *d, uint64_t n) {
  uint64_t i = 0;
  for (; i + 16 <= n; i += 16)
    PairStep<Eval, F>(_mm512_loadu_ps(pairs + 2 * i), _mm512_loadu_ps(pairs + 2 * i + 16), d + i, 0xffff);
  if (i < n) {
    // The last few pairs, padded with ones; the padding lanes are neither stored nor handed to F.
    const uint32_t parts = static_cast<uint32_t>(2 * (n - i));
    const __mmask16 low = static_cast<__mmask16>(parts >= 16 ? 0xffff : (1u << parts) - 1);
    const __mmask16 high = static_cast<__mmask16>(parts > 16 ? (1u << (parts - 16)) - 1 : 0);
    PairStep<Eval, F>(_mm512_mask_loadu_ps(_mm512_set1_ps(1.0f), low, pairs + 2 * i),
                      _mm512_mask_loadu_ps(_mm512_set1_ps(1.0f), high, pairs + 2 * i + 16), d + i,
                      static_cast<__mmask16>((1u << (n - i)) - 1));
  }
}

inline float Phase(float a, float b) { return atan2f(b, a); }

}  // namespace

const LibMapFn kAvx512Maps[kLibUnaryCount] = {Map<ExpEval, expf>, Map<LogEval, logf>, nullptr, nullptr,
                                              Map<TanEval, tanf>, nullptr, nullptr, Map<AtanEval, atanf>};
const LibPairMapFn kAvx512PairMaps[kLibPairCount] = {PairMap<PhaseEval, Phase>, nullptr};
