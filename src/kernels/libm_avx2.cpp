// Vector replicas of the C library's binary32 functions (expf, logf, sinf, cosf, tanf, asinf, acosf,
// atanf, and atan2f and hypotf of complex parts) for processors with AVX2 and FMA, equal to the
// library (glibc 2.36 on x86-64) bit for bit.
//
// expf, logf, sinf and cosf are evaluated by the library in binary64, from a small table and a short
// polynomial, and rounded once to binary32; the replicas do the same arithmetic on four binary64
// lanes at a time with the library's constants and order of operations. The library's build for
// processors with FMA contracts some multiply-add steps into fused multiply-adds; the replicas fuse
// exactly those steps (each is marked "fused as in the library's FMA build") and no others. The
// other functions are older single-precision code with branches, of which the library has only a
// build without fused steps; the replicas compute every branch on eight binary32 lanes and blend.
// Lanes outside a replica's main path (huge, infinite or NaN arguments and the like) are handed to
// the library itself. Arguments are flushed before and results after, as for the scalar calls.
//
// Whether the replicas may be used in a process is decided once by the gate (libm_gate.cpp).
#define ZV_LIBM_IMPLEMENTATION
#include <immintrin.h>

#include <bit>
#include <cstring>

#include "kernels/libm_constants.h"
#include "kernels/libm_internal.h"

#define ZV_AVX2 __attribute__((target("avx2,fma")))

namespace {

// ---- lanes -----------------------------------------------------------------------------------------

// Table lookup (the masked form: the plain one leaves its merge operand undefined, which the
// compiler warns about).
ZV_AVX2 inline __m256i Gather64(const uint64_t *table, __m256i index) {
  return _mm256_mask_i64gather_epi64(_mm256_setzero_si256(), reinterpret_cast<const long long *>(table), index,
                                     _mm256_set1_epi64x(-1), 8);
}

// Subnormal lanes become zeros of their sign (decided on the bits).
ZV_AVX2 inline __m256 FlushLanes(__m256 x) {
  const __m256i b = _mm256_castps_si256(x);
  const __m256i tiny = _mm256_cmpeq_epi32(_mm256_and_si256(b, _mm256_set1_epi32(0x7f800000)), _mm256_setzero_si256());
  return _mm256_castsi256_ps(_mm256_andnot_si256(_mm256_and_si256(tiny, _mm256_set1_epi32(0x7fffffff)), b));
}

// The biased exponent and the top mantissa bits of |x|, as the library tests them (abstop12).
ZV_AVX2 inline __m256i AbsTop12(__m256 x) {
  return _mm256_and_si256(_mm256_srli_epi32(_mm256_castps_si256(x), 20), _mm256_set1_epi32(0x7ff));
}

// Eight binary32 lanes through a four-lane binary64 evaluation, low half then high half.
template <__m128 (*Half)(__m128)> ZV_AVX2 inline __m256 ByHalves(__m256 x) {
  const __m128 lo = Half(_mm256_castps256_ps128(x));
  const __m128 hi = Half(_mm256_extractf128_ps(x, 1));
  return _mm256_insertf128_ps(_mm256_castps128_ps256(lo), hi, 1);
}

// One step of eight values: flushed arguments, the replica, the library for the lanes the replica
// leaves (Eval sets their bits in *special), flushed results. s and d may be the same.
template <__m256 (*Eval)(__m256, int *), float (*F)(float)> ZV_AVX2 inline void Step(const float *s, float *d) {
  const __m256 x = FlushLanes(_mm256_loadu_ps(s));
  int special = 0;
  __m256 y = Eval(x, &special);
  if (__builtin_expect(special != 0, 0)) {
    alignas(32) float xs[8], ys[8];
    _mm256_store_ps(xs, x);
    _mm256_store_ps(ys, y);
    for (unsigned m = static_cast<unsigned>(special); m != 0; m &= m - 1) {
      const int j = __builtin_ctz(m);
      ys[j] = F(xs[j]);
    }
    y = _mm256_load_ps(ys);
  }
  _mm256_storeu_ps(d, FlushLanes(y));
}

template <__m256 (*Eval)(__m256, int *), float (*F)(float)> ZV_AVX2 void Map(const float *s, float *d, uint64_t n) {
  uint64_t i = 0;
  for (; i + 8 <= n; i += 8) Step<Eval, F>(s + i, d + i);
  if (i < n) {
    // The last few values, padded with ones (a main-path argument of every function).
    alignas(32) float in[8] = {1, 1, 1, 1, 1, 1, 1, 1}, out[8];
    std::memcpy(in, s + i, (n - i) * sizeof(float));
    Step<Eval, F>(in, out);
    std::memcpy(d + i, out, (n - i) * sizeof(float));
  }
}

// ---- expf --------------------------------------------------------------------------------------------
// exp(x) = 2^(k/32) * 2^(r/32), k the nearest integer to x*32/ln2 and r the rest; 2^(k/32) from a
// table of 2^(i/32) (bits minus i << 47) with k's high part added to the exponent, 2^(r/32) from a
// cubic.

ZV_AVX2 inline __m128 ExpHalf(__m128 x) {
  const __m256d xd = _mm256_cvtps_pd(x);
  const __m256d inv_ln2n = _mm256_set1_pd(kExpInvLn2N), shift = _mm256_set1_pd(kExpShift);
  // kd = round(x*32/ln2) by the shift; fused as in the library's FMA build.
  __m256d kd = _mm256_fmadd_pd(inv_ln2n, xd, shift);
  const __m256i ki = _mm256_castpd_si256(kd);
  kd = _mm256_sub_pd(kd, shift);
  // r = x*32/ln2 - kd; fused as in the library's FMA build.
  const __m256d r = _mm256_fmsub_pd(inv_ln2n, xd, kd);
  const __m256i t = _mm256_add_epi64(
      Gather64(kExpTable, _mm256_and_si256(ki, _mm256_set1_epi64x(31))),
      _mm256_slli_epi64(ki, 47));
  // The cubic; its three multiply-adds are fused as in the library's FMA build, r*r and the scaling
  // are plain products.
  const __m256d z = _mm256_fmadd_pd(_mm256_set1_pd(kExpC0), r, _mm256_set1_pd(kExpC1));
  const __m256d r2 = _mm256_mul_pd(r, r);
  __m256d y = _mm256_fmadd_pd(_mm256_set1_pd(kExpC2), r, _mm256_set1_pd(1.0));
  y = _mm256_fmadd_pd(z, r2, y);
  y = _mm256_mul_pd(y, _mm256_castsi256_pd(t));
  return _mm256_cvtpd_ps(y);
}

// Main path: |x| < 88 (abstop12 at most 0x42a); the rest (overflow, underflow, infinities, NaN) is
// the library's.
ZV_AVX2 __m256 ExpEval(__m256 x, int *special) {
  *special = _mm256_movemask_ps(_mm256_castsi256_ps(_mm256_cmpgt_epi32(AbsTop12(x), _mm256_set1_epi32(0x42a))));
  return ByHalves<ExpHalf>(x);
}

// ---- logf --------------------------------------------------------------------------------------------
// x = 2^k z with z in [0x3f330000, 2*0x3f330000) as bits; log(x) = log1p(z/c - 1) + log(c) + k*ln2,
// c near the middle of z's sixteenth of the range (1/c and log(c) from the table), log1p from a cubic.

// The table's columns as 32-bit halves, each half two registers of eight, looked up with permutes
// (the gathers are slow on some processors with AVX2).
struct LogHalves {
  alignas(32) uint32_t invc_lo[16], invc_hi[16], logc_lo[16], logc_hi[16];
};
constexpr LogHalves MakeLogHalves() {
  LogHalves t{};
  for (int i = 0; i < 16; ++i) {
    const uint64_t invc = std::bit_cast<uint64_t>(kLogTable[i][0]), logc = std::bit_cast<uint64_t>(kLogTable[i][1]);
    t.invc_lo[i] = static_cast<uint32_t>(invc), t.invc_hi[i] = static_cast<uint32_t>(invc >> 32);
    t.logc_lo[i] = static_cast<uint32_t>(logc), t.logc_hi[i] = static_cast<uint32_t>(logc >> 32);
  }
  return t;
}
constexpr LogHalves kLogHalves = MakeLogHalves();

// half[i] for the index i in bits 0 to 2 of each lane (the permutes read no other bits) and bit 3 in
// the sign bit of upper.
ZV_AVX2 inline __m256i Lookup16(const uint32_t *half, __m256i i, __m256 upper) {
  const __m256 a = _mm256_permutevar8x32_ps(_mm256_load_ps(reinterpret_cast<const float *>(half)), i);
  const __m256 b = _mm256_permutevar8x32_ps(_mm256_load_ps(reinterpret_cast<const float *>(half + 8)), i);
  return _mm256_castps_si256(_mm256_blendv_ps(a, b, upper));
}

// Four lanes: the argument bits, 1/c and log(c).
ZV_AVX2 inline __m128 LogHalf(__m128i ix, __m256d invc, __m256d logc) {
  const __m128i tmp = _mm_sub_epi32(ix, _mm_set1_epi32(0x3f330000));
  const __m128i k = _mm_srai_epi32(tmp, 23);
  const __m128i iz = _mm_sub_epi32(ix, _mm_and_si128(tmp, _mm_set1_epi32(static_cast<int>(0xff800000u))));
  const __m256d z = _mm256_cvtps_pd(_mm_castsi128_ps(iz));
  // y0 = k*ln2 + log(c) and r = z/c - 1; both fused as in the library's FMA build.
  const __m256d y0 = _mm256_fmadd_pd(_mm256_cvtepi32_pd(k), _mm256_set1_pd(kLogLn2), logc);
  const __m256d r = _mm256_fmadd_pd(z, invc, _mm256_set1_pd(-1.0));
  // The cubic; its three multiply-adds are fused as in the library's FMA build, r*r and r + y0 are not.
  __m256d y = _mm256_fmadd_pd(r, _mm256_set1_pd(kLogA1), _mm256_set1_pd(kLogA2));
  const __m256d r2 = _mm256_mul_pd(r, r);
  const __m256d t = _mm256_add_pd(r, y0);
  y = _mm256_fmadd_pd(_mm256_set1_pd(kLogA0), r2, y);
  y = _mm256_fmadd_pd(y, r2, t);
  return _mm256_cvtpd_ps(y);
}

// Main path: the positive normal numbers (bits 0x00800000 to 0x7f7fffff); zeros, negatives,
// infinities and NaN are the library's.
ZV_AVX2 __m256 LogEval(__m256 x, int *special) {
  const __m256i ix = _mm256_castps_si256(x);
  const __m256i out = _mm256_or_si256(_mm256_cmpgt_epi32(_mm256_set1_epi32(0x00800000), ix),
                                      _mm256_cmpgt_epi32(ix, _mm256_set1_epi32(0x7f7fffff)));
  *special = _mm256_movemask_ps(_mm256_castsi256_ps(out));
  // The index looked up with lanes 2, 3 and 4, 5 swapped, so that interleaving the low and high
  // halves in each 128-bit lane yields the binary64 values of lanes 0 to 3, then of lanes 4 to 7.
  const __m256i tmp = _mm256_sub_epi32(_mm256_permute4x64_epi64(ix, 0xd8), _mm256_set1_epi32(0x3f330000));
  const __m256i i = _mm256_srli_epi32(tmp, 19);
  const __m256 upper = _mm256_castsi256_ps(_mm256_slli_epi32(tmp, 9));
  const __m256i invc_lo = Lookup16(kLogHalves.invc_lo, i, upper), invc_hi = Lookup16(kLogHalves.invc_hi, i, upper);
  const __m256i logc_lo = Lookup16(kLogHalves.logc_lo, i, upper), logc_hi = Lookup16(kLogHalves.logc_hi, i, upper);
  const __m128 lo = LogHalf(_mm256_castsi256_si128(ix), _mm256_castsi256_pd(_mm256_unpacklo_epi32(invc_lo, invc_hi)),
                            _mm256_castsi256_pd(_mm256_unpacklo_epi32(logc_lo, logc_hi)));
  const __m128 hi =
      LogHalf(_mm256_extracti128_si256(ix, 1), _mm256_castsi256_pd(_mm256_unpackhi_epi32(invc_lo, invc_hi)),
              _mm256_castsi256_pd(_mm256_unpackhi_epi32(logc_lo, logc_hi)));
  return _mm256_insertf128_ps(_mm256_castps128_ps256(lo), hi, 1);
}

// ---- sinf, cosf ----------------------------------------------------------------------------------
// x - n*pi/2 with n the nearest integer to x*2/pi (taken from x*2^24*2/pi so that the quadrant lands
// in bits 24 and up), then the sine polynomial for even n and the cosine polynomial for odd n (cosf:
// the other way round), with the signs of the quadrant.

constexpr double kCos0 = 0x1p0, kCos1 = -0x1.ffffffd0c621cp-2, kCos2 = 0x1.55553e1068f19p-5,
                 kCos3 = -0x1.6c087e89a359dp-10, kCos4 = 0x1.99343027bf8c3p-16;
constexpr double kSin1 = -0x1.555545995a603p-3, kSin2 = 0x1.1107605230bc4p-7, kSin3 = -0x1.994eb3774cf24p-13;

// kCos: cosine, which is the sine one quadrant on.
template <bool kCos> ZV_AVX2 inline __m128 SinCosHalf(__m128 x) {
  const __m256d xd = _mm256_cvtps_pd(x);
  const __m256d q = _mm256_mul_pd(xd, _mm256_set1_pd(kHalfPiInv));
  const __m128i n = _mm_srai_epi32(_mm_add_epi32(_mm256_cvttpd_epi32(q), _mm_set1_epi32(0x800000)), 24);
  // x - n*pi/2; fused as in the library's FMA build.
  const __m256d xr = _mm256_fnmadd_pd(_mm256_cvtepi32_pd(n), _mm256_set1_pd(kHalfPi), xd);
  const __m256d x2 = _mm256_mul_pd(xr, xr);
  // Quadrant bits as binary64 sign bits: the sine's sign is - in quadrants 1 and 2 (the library
  // multiplies by -1.0, which only flips the sign), the cosine's in quadrants 2 and 3.
  const __m256i n64 = _mm256_cvtepi32_epi64(n);
  const __m256i sin_sign = _mm256_slli_epi64(_mm256_xor_si256(n64, _mm256_srli_epi64(n64, 1)), 63);
  const __m256i cos_sign = _mm256_slli_epi64(_mm256_srli_epi64(n64, 1), 63);
  const __m256d xs = _mm256_xor_pd(xr, _mm256_castsi256_pd(sin_sign));
  // Sine polynomial; its multiply-adds are fused as in the library's FMA build.
  const __m256d s1 = _mm256_fmadd_pd(x2, _mm256_set1_pd(kSin3), _mm256_set1_pd(kSin2));
  const __m256d x3 = _mm256_mul_pd(x2, xs);
  const __m256d x7 = _mm256_mul_pd(x2, x3);
  const __m256d s = _mm256_fmadd_pd(x3, _mm256_set1_pd(kSin1), xs);
  const __m256d sine = _mm256_fmadd_pd(s1, x7, s);
  // Cosine polynomial; its multiply-adds are fused as in the library's FMA build. For quadrants 2
  // and 3 the library uses the negated coefficients, which negates the result exactly.
  const __m256d x4 = _mm256_mul_pd(x2, x2);
  const __m256d c1 = _mm256_fmadd_pd(x2, _mm256_set1_pd(kCos1), _mm256_set1_pd(kCos0));
  const __m256d c2 = _mm256_fmadd_pd(x2, _mm256_set1_pd(kCos4), _mm256_set1_pd(kCos3));
  const __m256d x6 = _mm256_mul_pd(x2, x4);
  const __m256d c = _mm256_fmadd_pd(x4, _mm256_set1_pd(kCos2), c1);
  const __m256d cosine = _mm256_xor_pd(_mm256_fmadd_pd(c2, x6, c), _mm256_castsi256_pd(cos_sign));
  // Odd quadrants take the other polynomial.
  __m256i odd = _mm256_slli_epi64(n64, 63);
  if constexpr (kCos) odd = _mm256_xor_si256(odd, _mm256_set1_epi64x(static_cast<long long>(0x8000000000000000u)));
  return _mm256_cvtpd_ps(_mm256_blendv_pd(sine, cosine, _mm256_castsi256_pd(odd)));
}

// Main path: 2^-12 <= |x| < 120 (below 0.75 the library skips the reduction, which is the same as
// reducing by n = 0). Below 2^-12 sinf gives x and cosf 1; from 120 on, infinities and NaN are the
// library's.
template <bool kCos> ZV_AVX2 __m256 SinCosEval(__m256 x, int *special) {
  const __m256i top = AbsTop12(x);
  *special = _mm256_movemask_ps(_mm256_castsi256_ps(_mm256_cmpgt_epi32(top, _mm256_set1_epi32(0x42e))));
  const __m256 y = ByHalves<SinCosHalf<kCos>>(x);
  const __m256 tiny = _mm256_castsi256_ps(_mm256_cmpgt_epi32(_mm256_set1_epi32(0x398), top));
  return _mm256_blendv_ps(y, kCos ? _mm256_set1_ps(1.0f) : x, tiny);
}

// ---- atanf ----------------------------------------------------------------------------------------
// The older single-precision code, all in binary32 and without fused steps (the library has only its
// SSE2 build): |x| is brought into [-7/16, 7/16] by one of four reductions chosen by its size (none
// below 7/16), then an odd polynomial in two interleaved halves, and the reduction's atan added back.
// Here every lane takes its own reduction, as numerator and denominator of one division.

ZV_AVX2 inline __m256 Mul(__m256 a, __m256 b) { return _mm256_mul_ps(a, b); }
ZV_AVX2 inline __m256 Add(__m256 a, __m256 b) { return _mm256_add_ps(a, b); }
ZV_AVX2 inline __m256 Sub(__m256 a, __m256 b) { return _mm256_sub_ps(a, b); }
ZV_AVX2 inline __m256 Set(float v) { return _mm256_set1_ps(v); }
ZV_AVX2 inline __m256 Below(__m256i ix, uint32_t bound) {  // ix < bound, for 0 <= ix < 2^31
  return _mm256_castsi256_ps(_mm256_cmpgt_epi32(_mm256_set1_epi32(static_cast<int>(bound)), ix));
}

// atanf of every lane that is not NaN (from 2^25 on: +-(pi/2 high + low)).
ZV_AVX2 __m256 AtanLanes(__m256 x) {
  const __m256 sign = _mm256_castsi256_ps(_mm256_set1_epi32(static_cast<int>(0x80000000u)));
  const __m256 ax = _mm256_andnot_ps(sign, x);
  const __m256i ix = _mm256_castps_si256(ax);
  const __m256 small = Below(ix, 0x3ee00000);  // |x| < 7/16: no reduction
  const __m256 r0 = Below(ix, 0x3f300000), r1 = Below(ix, 0x3f980000), r2 = Below(ix, 0x401c0000);
  // Reductions: (2x-1)/(2+x), (x-1)/(x+1), (x-1.5)/(1+1.5x), -1/x on |x|; x/1 below 7/16.
  const __m256 one = Set(1.0f);
  __m256 num = _mm256_blendv_ps(Sub(ax, Set(1.5f)), Sub(ax, one), r1);
  __m256 den = _mm256_blendv_ps(Add(one, Mul(Set(1.5f), ax)), Add(ax, one), r1);
  num = _mm256_blendv_ps(num, Sub(Mul(Set(2.0f), ax), one), r0);
  den = _mm256_blendv_ps(den, Add(Set(2.0f), ax), r0);
  num = _mm256_blendv_ps(_mm256_blendv_ps(Set(-1.0f), num, r2), x, small);
  den = _mm256_blendv_ps(_mm256_blendv_ps(ax, den, r2), one, small);
  const __m256 t = _mm256_div_ps(num, den);
  const __m256 z = Mul(t, t), w = Mul(z, z);
  const __m256 s1 = Mul(z, Add(Set(kAtanT[0]), Mul(w, Add(Set(kAtanT[2]), Mul(w, Add(Set(kAtanT[4]),
                    Mul(w, Add(Set(kAtanT[6]), Mul(w, Add(Set(kAtanT[8]), Mul(w, Set(kAtanT[10]))))))))))));
  const __m256 s2 = Mul(w, Add(Set(kAtanT[1]), Mul(w, Add(Set(kAtanT[3]), Mul(w, Add(Set(kAtanT[5]),
                    Mul(w, Add(Set(kAtanT[7]), Mul(w, Set(kAtanT[9]))))))))));
  const __m256 p = Mul(t, Add(s1, s2));
  // The reduction's atan(c) = hi + lo, by the index of the reduction, 0 to 3 (the masks are nested,
  // each -1 where it holds).
  const __m256i index = _mm256_add_epi32(_mm256_add_epi32(_mm256_castps_si256(r0), _mm256_castps_si256(r1)),
                                         _mm256_add_epi32(_mm256_castps_si256(r2), _mm256_set1_epi32(3)));
  const __m256 hi = _mm256_permutevar8x32_ps(_mm256_castps128_ps256(_mm_loadu_ps(kAtanHi)), index);
  const __m256 lo = _mm256_permutevar8x32_ps(_mm256_castps128_ps256(_mm_loadu_ps(kAtanLo)), index);
  const __m256 reduced = _mm256_xor_ps(Sub(hi, Sub(Sub(p, lo), t)), _mm256_and_ps(x, sign));
  __m256 y = _mm256_blendv_ps(reduced, Sub(t, p), small);
  y = _mm256_blendv_ps(y, x, Below(ix, 0x31000000));  // |x| < 2^-29: x itself
  const __m256 huge = _mm256_or_ps(Add(Set(kAtanHi[3]), Set(kAtanLo[3])), _mm256_and_ps(x, sign));
  return _mm256_blendv_ps(y, huge, _mm256_castsi256_ps(_mm256_cmpgt_epi32(ix, _mm256_set1_epi32(0x4bffffff))));
}

// Main path: every value but NaN.
ZV_AVX2 __m256 AtanEval(__m256 x, int *special) {
  const __m256i ix = _mm256_and_si256(_mm256_castps_si256(x), _mm256_set1_epi32(0x7fffffff));
  *special = _mm256_movemask_ps(_mm256_castsi256_ps(_mm256_cmpgt_epi32(ix, _mm256_set1_epi32(0x7f800000))));
  return AtanLanes(x);
}

// ---- tanf -----------------------------------------------------------------------------------------
// The library's tanf reduces |x| > pi/4 by x - n*pi/2 in binary64 as sinf does, but its only build has
// no fused steps, splits the result into a binary32 high and low part and hands them to the older
// single-precision kernel, which has a branch for tiny arguments, folds arguments from 0.6744 on
// around pi/4, and for odd n computes -1/tan carefully. Every lane computes every branch here.

// The reduction of four lanes: high and low binary32 parts of x - n*pi/2 (not fused in this build)
// and the quadrant n.
ZV_AVX2 inline void TanReduceHalf(__m128 x, __m128 *high, __m128 *low, __m128i *n) {
  const __m256d xd = _mm256_cvtps_pd(x);
  *n = _mm_srai_epi32(_mm_add_epi32(_mm256_cvttpd_epi32(_mm256_mul_pd(xd, _mm256_set1_pd(kHalfPiInv))),
                                    _mm_set1_epi32(0x800000)), 24);
  const __m256d r = _mm256_sub_pd(xd, _mm256_mul_pd(_mm256_cvtepi32_pd(*n), _mm256_set1_pd(kHalfPi)));
  *high = _mm256_cvtpd_ps(r);
  *low = _mm256_cvtpd_ps(_mm256_sub_pd(r, _mm256_cvtps_pd(*high)));
}

// The single-precision kernel: tan(x + y) for iy = 1, -1/tan(x + y) for iy = -1.
ZV_AVX2 __m256 TanKernel(__m256 x, __m256 y, __m256i iy) {
  const __m256 sign = _mm256_castsi256_ps(_mm256_set1_epi32(static_cast<int>(0x80000000u)));
  const __m256 one = Set(1.0f);
  const __m256i hx = _mm256_castps_si256(x);
  const __m256i ix = _mm256_andnot_si256(_mm256_castps_si256(sign), hx);
  const __m256 odd = _mm256_castsi256_ps(_mm256_cmpeq_epi32(iy, _mm256_set1_epi32(-1)));
  const __m256 negative = _mm256_castsi256_ps(_mm256_cmpgt_epi32(_mm256_setzero_si256(), hx));
  const __m256 fiy = _mm256_cvtepi32_ps(iy);
  // From 0.6744 on: x + y folded into pi/4 - |x + y|.
  const __m256 fold = _mm256_castsi256_ps(_mm256_cmpgt_epi32(ix, _mm256_set1_epi32(0x3f2ca13f)));
  const __m256 flip = _mm256_and_ps(negative, sign);
  const __m256 folded = Add(Sub(Set(7.8539812565e-01f), _mm256_xor_ps(x, flip)),
                            Sub(Set(3.7748947079e-08f), _mm256_xor_ps(y, flip)));
  x = _mm256_blendv_ps(x, folded, fold);
  y = _mm256_andnot_ps(fold, y);
  // sgn = -1 for negative x, as a factor.
  const __m256 sgn = _mm256_blendv_ps(one, Set(-1.0f), negative);
  const __m256 z = Mul(x, x), w = Mul(z, z);
  __m256 r = Add(Set(kTanT[1]), Mul(w, Add(Set(kTanT[3]), Mul(w, Add(Set(kTanT[5]), Mul(w, Add(Set(kTanT[7]),
             Mul(w, Add(Set(kTanT[9]), Mul(w, Set(kTanT[11])))))))))));
  const __m256 v = Mul(z, Add(Set(kTanT[2]), Mul(w, Add(Set(kTanT[4]), Mul(w, Add(Set(kTanT[6]), Mul(w,
                   Add(Set(kTanT[8]), Mul(w, Add(Set(kTanT[10]), Mul(w, Set(kTanT[12]))))))))))));
  const __m256 s = Mul(z, x);
  r = Add(y, Mul(z, Add(Mul(s, Add(r, v)), y)));
  r = Add(r, Mul(Set(kTanT[0]), s));
  const __m256 sum = Add(x, r);
  // Each lane's one division, its operands chosen by the lane's branch (a quotient is correctly
  // rounded, so it is the same whichever other lanes divide): below 2^-13 (before folding) -1/x,
  // folded (x + r)^2/(x + r + iy), otherwise -1/(x + r). The two ranges do not meet.
  const __m256 tiny = Below(ix, 0x39000000);
  const __m256 x0 = _mm256_castsi256_ps(hx);
  const __m256 num = _mm256_blendv_ps(Set(-1.0f), Mul(sum, sum), fold);
  const __m256 den = _mm256_blendv_ps(_mm256_blendv_ps(sum, Add(sum, fiy), fold), x0, tiny);
  const __m256 q = _mm256_div_ps(num, den);
  // Folded: sgn * (iy - 2*(x - (q - r))).
  const __m256 folded_result = Mul(sgn, Sub(fiy, Mul(Set(2.0f), Sub(x, Sub(q, r)))));
  // Odd quadrant: -1/(x + r) = q with the high halves of the parts.
  const __m256 keep_high = _mm256_castsi256_ps(_mm256_set1_epi32(static_cast<int>(0xfffff000u)));
  const __m256 zh = _mm256_and_ps(sum, keep_high);
  const __m256 vh = Sub(r, Sub(zh, x));
  const __m256 t = _mm256_and_ps(q, keep_high);
  const __m256 inverse = Add(t, Mul(q, Add(Add(one, Mul(t, zh)), Mul(t, vh))));
  __m256 result = _mm256_blendv_ps(_mm256_blendv_ps(sum, inverse, odd), folded_result, fold);
  // Folded to below 2^-13: sgn*iy * (1 - 2*iy*x).
  const __m256 near = _mm256_and_ps(fold, _mm256_cmp_ps(_mm256_andnot_ps(sign, x), Set(0x1p-13f), _CMP_LT_OQ));
  result = _mm256_blendv_ps(result, Mul(Mul(sgn, fiy), Sub(one, Mul(Add(fiy, fiy), x))), near);
  // Below 2^-13: x, -1/x = q, and +inf for +0 with iy = -1.
  __m256 small = _mm256_blendv_ps(x0, q, odd);
  small = _mm256_blendv_ps(small, Set(INFINITY),
                           _mm256_and_ps(odd, _mm256_castsi256_ps(_mm256_cmpeq_epi32(ix, _mm256_setzero_si256()))));
  return _mm256_blendv_ps(result, small, tiny);
}

// Main path: |x| < 120; from there on (and infinities, NaN) the library's.
ZV_AVX2 __m256 TanEval(__m256 x, int *special) {
  const __m256i ix = _mm256_and_si256(_mm256_castps_si256(x), _mm256_set1_epi32(0x7fffffff));
  *special = _mm256_movemask_ps(_mm256_castsi256_ps(_mm256_cmpgt_epi32(ix, _mm256_set1_epi32(0x42efffff))));
  __m128 high_lo, low_lo, high_hi, low_hi;
  __m128i n_lo, n_hi;
  TanReduceHalf(_mm256_castps256_ps128(x), &high_lo, &low_lo, &n_lo);
  TanReduceHalf(_mm256_extractf128_ps(x, 1), &high_hi, &low_hi, &n_hi);
  const __m256 high = _mm256_insertf128_ps(_mm256_castps128_ps256(high_lo), high_hi, 1);
  const __m256 low = _mm256_insertf128_ps(_mm256_castps128_ps256(low_lo), low_hi, 1);
  const __m256i n = _mm256_inserti128_si256(_mm256_castsi128_si256(n_lo), n_hi, 1);
  // Up to pi/4 (bits 0x3f490fda) no reduction: the kernel of x, 0 and iy = 1.
  const __m256 reduce = _mm256_castsi256_ps(_mm256_cmpgt_epi32(ix, _mm256_set1_epi32(0x3f490fda)));
  const __m256i iy = _mm256_sub_epi32(_mm256_set1_epi32(1), _mm256_slli_epi32(_mm256_and_si256(n, _mm256_set1_epi32(1)), 1));
  return TanKernel(_mm256_blendv_ps(x, high, reduce), _mm256_and_ps(reduce, low),
                   _mm256_blendv_epi8(_mm256_set1_epi32(1), iy, _mm256_castps_si256(reduce)));
}

// ---- asinf, acosf ---------------------------------------------------------------------------------
// The older single-precision code of the library's only build: a polynomial in x*x below 0.5 and in
// (1 - |x|)/2 above, with its square root, and some splitting into high and low parts. Every lane
// computes its branches here. For |x| > 1 the library's wrapper gives its own NaN, 0x7fc00000 (not the
// kernel's); NaN arguments go to the library.

constexpr float kAsinP[5] = {1.666675248e-1f, 7.495297643e-2f, 4.547037598e-2f, 2.417951451e-2f, 4.216630880e-2f};

ZV_AVX2 inline __m256 AsinPoly(__m256 t) {
  return Mul(t, Add(Set(kAsinP[0]), Mul(t, Add(Set(kAsinP[1]), Mul(t, Add(Set(kAsinP[2]),
             Mul(t, Add(Set(kAsinP[3]), Mul(t, Set(kAsinP[4]))))))))));
}

// |x| > 1 (ix the magnitude bits, NaN excluded): the wrapper's NaN.
ZV_AVX2 inline __m256 OutsideUnitInterval(__m256 y, __m256i ix) {
  const __m256 outside = _mm256_castsi256_ps(_mm256_cmpgt_epi32(ix, _mm256_set1_epi32(0x3f800000)));
  return _mm256_blendv_ps(y, _mm256_castsi256_ps(_mm256_set1_epi32(0x7fc00000)), outside);
}

ZV_AVX2 inline __m256 KeepHigh(__m256 x) {
  return _mm256_and_ps(x, _mm256_castsi256_ps(_mm256_set1_epi32(static_cast<int>(0xfffff000u))));
}

ZV_AVX2 __m256 AsinEval(__m256 x, int *special) {
  const __m256 sign = _mm256_castsi256_ps(_mm256_set1_epi32(static_cast<int>(0x80000000u)));
  const __m256i ix = _mm256_castps_si256(_mm256_andnot_ps(sign, x));
  *special = _mm256_movemask_ps(_mm256_castsi256_ps(_mm256_cmpgt_epi32(ix, _mm256_set1_epi32(0x7f800000))));
  const float pio2_hi = 1.57079637050628662109375f, pio2_lo = -4.37113900018624283e-8f;
  const float pio4_hi = 0.785398185253143310546875f;
  const __m256 one = Set(1.0f), two = Set(2.0f);
  // Below 0.5: x + x*w with w = t*P(t), t = x*x.
  const __m256 xx = Mul(x, x);
  const __m256 below = Add(x, Mul(x, AsinPoly(xx)));
  // From 0.5: t = (1 - |x|)/2, s = sqrt(t).
  const __m256 t = Mul(Sub(one, _mm256_andnot_ps(sign, x)), Set(0.5f));
  const __m256 p = AsinPoly(t);
  const __m256 s = _mm256_sqrt_ps(t);
  const __m256 near_one = Sub(Set(pio2_hi), Sub(Mul(two, Add(s, Mul(s, p))), Set(pio2_lo)));
  const __m256 w = KeepHigh(s);
  const __m256 c = _mm256_div_ps(Sub(t, Mul(w, w)), Add(s, w));
  const __m256 pp = Sub(Mul(Mul(two, s), p), Sub(Set(pio2_lo), Mul(two, c)));
  const __m256 q = Sub(Set(pio4_hi), Mul(two, w));
  const __m256 middle = Sub(Set(pio4_hi), Sub(pp, q));
  __m256 above = _mm256_blendv_ps(middle, near_one, _mm256_castsi256_ps(_mm256_cmpgt_epi32(ix, _mm256_set1_epi32(0x3f799999))));
  above = _mm256_xor_ps(above, _mm256_and_ps(x, sign));
  __m256 y = _mm256_blendv_ps(above, below, Below(ix, 0x3f000000));
  y = _mm256_blendv_ps(y, x, Below(ix, 0x32000000));  // below 2^-27: x itself
  // |x| = 1: x*pio2_hi + x*pio2_lo.
  const __m256 unit = Add(Mul(x, Set(pio2_hi)), Mul(x, Set(pio2_lo)));
  y = _mm256_blendv_ps(y, unit, _mm256_castsi256_ps(_mm256_cmpeq_epi32(ix, _mm256_set1_epi32(0x3f800000))));
  return OutsideUnitInterval(y, ix);
}

constexpr float kAcosP[6] = {1.6666667163e-01f, -3.2556581497e-01f, 2.0121252537e-01f,
                             -4.0055535734e-02f, 7.9153501429e-04f, 3.4793309169e-05f};
constexpr float kAcosQ[4] = {-2.4033949375e+00f, 2.0209457874e+00f, -6.8828397989e-01f, 7.7038154006e-02f};

ZV_AVX2 __m256 AcosEval(__m256 x, int *special) {
  const __m256 sign = _mm256_castsi256_ps(_mm256_set1_epi32(static_cast<int>(0x80000000u)));
  const __m256i hx = _mm256_castps_si256(x);
  const __m256i ix = _mm256_castps_si256(_mm256_andnot_ps(sign, x));
  *special = _mm256_movemask_ps(_mm256_castsi256_ps(_mm256_cmpgt_epi32(ix, _mm256_set1_epi32(0x7f800000))));
  const float pi = 3.1415925026e+00f, pio2_hi = 1.5707962513e+00f, pio2_lo = 7.5497894159e-08f;
  const __m256 one = Set(1.0f), two = Set(2.0f), half = Set(0.5f);
  const __m256 small = Below(ix, 0x3f000000);
  const __m256 negative = _mm256_castsi256_ps(_mm256_cmpgt_epi32(_mm256_setzero_si256(), hx));
  // z: x*x below 0.5, (1 + x)/2 for x <= -0.5, (1 - x)/2 for x >= 0.5; r = P(z)/Q(z).
  __m256 z = Mul(_mm256_blendv_ps(Sub(one, x), Add(one, x), negative), half);
  z = _mm256_blendv_ps(z, Mul(x, x), small);
  const __m256 p = Mul(z, Add(Set(kAcosP[0]), Mul(z, Add(Set(kAcosP[1]), Mul(z, Add(Set(kAcosP[2]),
                   Mul(z, Add(Set(kAcosP[3]), Mul(z, Add(Set(kAcosP[4]), Mul(z, Set(kAcosP[5]))))))))))));
  const __m256 q = Add(one, Mul(z, Add(Set(kAcosQ[0]), Mul(z, Add(Set(kAcosQ[1]), Mul(z, Add(Set(kAcosQ[2]),
                   Mul(z, Set(kAcosQ[3])))))))));
  const __m256 r = _mm256_div_ps(p, q);
  const __m256 s = _mm256_sqrt_ps(z);
  const __m256 below = Sub(Set(pio2_hi), Sub(x, Sub(Set(pio2_lo), Mul(x, r))));
  const __m256 left = Sub(Set(pi), Mul(two, Add(s, Sub(Mul(r, s), Set(pio2_lo)))));
  const __m256 df = KeepHigh(s);
  const __m256 c = _mm256_div_ps(Sub(z, Mul(df, df)), Add(s, df));
  const __m256 right = Mul(two, Add(df, Add(Mul(r, s), c)));
  __m256 y = _mm256_blendv_ps(_mm256_blendv_ps(right, left, negative), below, small);
  y = _mm256_blendv_ps(y, Add(Set(pio2_hi), Set(pio2_lo)),
                       _mm256_castsi256_ps(_mm256_cmpgt_epi32(_mm256_set1_epi32(0x32800001), ix)));
  // |x| = 1: 0 for 1, pi + 2*pio2_lo for -1.
  const __m256 unit = _mm256_and_ps(negative, Add(Set(pi), Mul(two, Set(pio2_lo))));
  y = _mm256_blendv_ps(y, unit, _mm256_castsi256_ps(_mm256_cmpeq_epi32(ix, _mm256_set1_epi32(0x3f800000))));
  return OutsideUnitInterval(y, ix);
}

// ---- hypotf, atan2f on complex parts ---------------------------------------------------------------

// Two-argument functions over pairs (a, b): eight pairs at a time, the parts flushed, the lanes Eval
// leaves to the library computed by F(a, b), the results flushed.
template <__m256 (*Eval)(__m256, __m256, int *), float (*F)(float, float)>
ZV_AVX2 inline void PairStep(const float *p, float *d) {
  const __m256 p0 = FlushLanes(_mm256_loadu_ps(p)), p1 = FlushLanes(_mm256_loadu_ps(p + 8));
  // Deinterleave: even parts are the real parts a, odd ones the imaginary parts b.
  const __m256 a = _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(_mm256_shuffle_ps(p0, p1, 0x88)), 0xd8));
  const __m256 b = _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(_mm256_shuffle_ps(p0, p1, 0xdd)), 0xd8));
  int special = 0;
  __m256 y = Eval(a, b, &special);
  if (__builtin_expect(special != 0, 0)) {
    alignas(32) float as[8], bs[8], ys[8];
    _mm256_store_ps(as, a);
    _mm256_store_ps(bs, b);
    _mm256_store_ps(ys, y);
    for (unsigned m = static_cast<unsigned>(special); m != 0; m &= m - 1) {
      const int j = __builtin_ctz(m);
      ys[j] = F(as[j], bs[j]);
    }
    y = _mm256_load_ps(ys);
  }
  _mm256_storeu_ps(d, FlushLanes(y));
}

template <__m256 (*Eval)(__m256, __m256, int *), float (*F)(float, float)>
ZV_AVX2 void PairMap(const float *pairs, float *d, uint64_t n) {
  uint64_t i = 0;
  for (; i + 8 <= n; i += 8) PairStep<Eval, F>(pairs + 2 * i, d + i);
  if (i < n) {
    alignas(32) float in[16], out[8];
    for (float &v : in) v = 1.0f;
    std::memcpy(in, pairs + 2 * i, (n - i) * 2 * sizeof(float));
    PairStep<Eval, F>(in, out);
    std::memcpy(d + i, out, (n - i) * sizeof(float));
  }
}

inline float Phase(float a, float b) { return atan2f(b, a); }
inline float Magnitude(float a, float b) { return hypotf(a, b); }

// hypotf: the binary64 square root of a*a + b*b in binary64 (the products are exact), rounded to
// binary32. Infinite and NaN parts are the library's.
ZV_AVX2 inline __m128 MagnitudeHalf(__m128 a, __m128 b) {
  const __m256d ad = _mm256_cvtps_pd(a), bd = _mm256_cvtps_pd(b);
  return _mm256_cvtpd_ps(_mm256_sqrt_pd(_mm256_add_pd(_mm256_mul_pd(ad, ad), _mm256_mul_pd(bd, bd))));
}
ZV_AVX2 __m256 MagnitudeEval(__m256 a, __m256 b, int *special) {
  const __m256i exp = _mm256_set1_epi32(0x7f800000);
  const __m256i nonfinite = _mm256_or_si256(
      _mm256_cmpeq_epi32(_mm256_and_si256(_mm256_castps_si256(a), exp), exp),
      _mm256_cmpeq_epi32(_mm256_and_si256(_mm256_castps_si256(b), exp), exp));
  *special = _mm256_movemask_ps(_mm256_castsi256_ps(nonfinite));
  const __m128 lo = MagnitudeHalf(_mm256_castps256_ps128(a), _mm256_castps256_ps128(b));
  const __m128 hi = MagnitudeHalf(_mm256_extractf128_ps(a, 1), _mm256_extractf128_ps(b, 1));
  return _mm256_insertf128_ps(_mm256_castps128_ps256(lo), hi, 1);
}

// atan2f(b, a), also the older single-precision code: from the quotient's atan, by the signs of a and
// b. Zero, infinite and NaN parts and a = 1 are the library's.
ZV_AVX2 __m256 PhaseEval(__m256 a, __m256 b, int *special) {
  const __m256i sign = _mm256_set1_epi32(static_cast<int>(0x80000000u));
  const __m256i hx = _mm256_castps_si256(a), hy = _mm256_castps_si256(b);
  const __m256i ix = _mm256_andnot_si256(sign, hx), iy = _mm256_andnot_si256(sign, hy);
  const __m256i zero = _mm256_setzero_si256();
  const __m256i off = _mm256_or_si256(
      _mm256_or_si256(_mm256_cmpeq_epi32(ix, zero), _mm256_cmpeq_epi32(iy, zero)),
      _mm256_or_si256(_mm256_or_si256(_mm256_cmpgt_epi32(ix, _mm256_set1_epi32(0x7f7fffff)),
                                      _mm256_cmpgt_epi32(iy, _mm256_set1_epi32(0x7f7fffff))),
                      _mm256_cmpeq_epi32(hx, _mm256_set1_epi32(0x3f800000))));
  *special = _mm256_movemask_ps(_mm256_castsi256_ps(off));
  // k = (iy - ix) >> 23: beyond 60 the quotient is taken as huge (pi/2 + pi_lo/2), below -60 with a
  // negative a as zero, otherwise z = atanf(|b/a|).
  const __m256i k = _mm256_srai_epi32(_mm256_sub_epi32(iy, ix), 23);
  const __m256 quotient = _mm256_andnot_ps(_mm256_castsi256_ps(sign), _mm256_div_ps(b, a));
  __m256 z = AtanLanes(quotient);
  const __m256 big = _mm256_castsi256_ps(_mm256_cmpgt_epi32(k, _mm256_set1_epi32(60)));
  const __m256 little = _mm256_castsi256_ps(_mm256_and_si256(_mm256_cmpgt_epi32(_mm256_set1_epi32(-60), k),
                                                             _mm256_cmpgt_epi32(zero, hx)));
  const float pi_lo = -8.7422776573e-08f, pi = 3.1415927410e+00f;
  z = _mm256_blendv_ps(z, Add(Set(1.5707963705e+00f), Mul(Set(0.5f), Set(pi_lo))), big);
  z = _mm256_andnot_ps(little, z);
  // By the signs: (+, +) z; (b < 0, a > 0) -z; (b >= 0, a < 0) pi - (z - pi_lo); (-, -) (z - pi_lo) - pi.
  const __m256 x_negative = _mm256_castsi256_ps(_mm256_cmpgt_epi32(zero, hx));
  const __m256 y_negative = _mm256_castsi256_ps(_mm256_cmpgt_epi32(zero, hy));
  const __m256 zl = Sub(z, Set(pi_lo));
  const __m256 right = _mm256_xor_ps(z, _mm256_and_ps(y_negative, _mm256_castsi256_ps(sign)));
  const __m256 left = _mm256_blendv_ps(Sub(Set(pi), zl), Sub(zl, Set(pi)), y_negative);
  return _mm256_blendv_ps(right, left, x_negative);
}

}  // namespace

const LibMapFn kAvx2Maps[kLibUnaryCount] = {
    Map<ExpEval, expf>, Map<LogEval, logf>, Map<SinCosEval<false>, sinf>, Map<SinCosEval<true>, cosf>,
    Map<TanEval, tanf>, Map<AsinEval, asinf>, Map<AcosEval, acosf>, Map<AtanEval, atanf>};
const LibPairMapFn kAvx2PairMaps[kLibPairCount] = {PairMap<PhaseEval, Phase>, PairMap<MagnitudeEval, Magnitude>};
