// Uniform and Gaussian noise, added to or multiplied into a real32 block. All randomness comes from
// the C library's generator, the sequence rand() gives, whose range is 0 .. 2^31-1; draws are taken
// strictly in element order, so a run reproduces its noise whether it writes a new file or works in
// place.
#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <immintrin.h>

#include "kernels/element.h"

namespace {

// rand()'s generator is glibc's additive feedback generator with 128 bytes of state: values
// r[i] = r[i-31] + r[i-3] modulo 2^32, each giving the draw r[i] >> 1. The library seeds it
// (initstate_r gives exactly srand's state); from there it runs here, a batch of draws at a time,
// instead of one call and, through rand(), one lock per draw.
constexpr uint32_t kLag = 31, kShortLag = 3;
constexpr uint32_t kBatch = 1023;  // a multiple of the short lag
constexpr uint32_t kKeptWords = (kBatch + 63) / 64;

struct Generator {
  uint32_t r[kBatch + kLag + 1];  // the batch's values after the 31 values before it (one more made)
  int32_t draws[kBatch + 1];
  uint32_t next = kBatch;  // the next unused draw
  uint64_t batch = 0;      // batches made so far
};
Generator gGen;
bool gSeeded = false;

// The vector loops of the generator and the Gaussian noise, also compiled for AVX2 (wider vectors,
// the same integer and IEEE operations) and chosen once by the processor.
#define ZV_NOISE_AVX2 __attribute__((target("avx2")))
inline bool UseAvx2() {
  static const bool avx2 = __builtin_cpu_supports("avx2");
  return avx2;
}

// Eight values at a time (1024 made, one past the batch): value i + l is value i + l % 3 - 3 (of the
// eight before) plus the values i + l - 31, i + l - 34, ... down to lane l % 3 of the eight. The values
// 31 back are taken from the registers of four and five steps before (loads across the stores of two
// steps would wait for them).
// One step: the eight values after before (into before, r and draws) from the eight values x 31 back.
ZV_NOISE_AVX2 inline __m256i RefillStep(__m256i x, __m256i &before, uint32_t *r, int32_t *draws) {
  const __m256i lag3 = _mm256_setr_epi32(0, 0, 0, 0, 1, 2, 3, 4), from3 = _mm256_setr_epi32(0, 0, 0, -1, -1, -1, -1, -1);
  const __m256i lag6 = _mm256_setr_epi32(0, 0, 0, 0, 0, 0, 0, 1), from6 = _mm256_setr_epi32(0, 0, 0, 0, 0, 0, -1, -1);
  const __m256i sum = _mm256_add_epi32(_mm256_add_epi32(x, _mm256_and_si256(_mm256_permutevar8x32_epi32(x, lag3), from3)),
                                       _mm256_and_si256(_mm256_permutevar8x32_epi32(x, lag6), from6));
  before = _mm256_add_epi32(sum, _mm256_permutevar8x32_epi32(before, _mm256_setr_epi32(5, 6, 7, 5, 6, 7, 5, 6)));
  _mm256_storeu_si256(reinterpret_cast<__m256i *>(r), before);
  _mm256_storeu_si256(reinterpret_cast<__m256i *>(draws), _mm256_srli_epi32(before, 1));
  return before;
}
// Lanes 1 to 7 of a, then lane 0 of b.
ZV_NOISE_AVX2 inline __m256i NextLanes(__m256i a, __m256i b) {
  return _mm256_alignr_epi8(_mm256_permute2x128_si256(a, b, 0x21), a, 4);
}
ZV_NOISE_AVX2 void RefillAvx2(uint32_t *r, int32_t *draws) {
  const auto at = [r](uint32_t j) { return reinterpret_cast<const __m256i *>(r + j); };
  __m256i before = _mm256_loadu_si256(at(kLag - 8));
  __m256i v0 = RefillStep(_mm256_loadu_si256(at(0)), before, r + kLag, draws);
  __m256i v1 = RefillStep(_mm256_loadu_si256(at(8)), before, r + kLag + 8, draws + 8);
  __m256i v2 = RefillStep(_mm256_loadu_si256(at(16)), before, r + kLag + 16, draws + 16);
  __m256i v3 = RefillStep(NextLanes(_mm256_loadu_si256(at(23)), v0), before, r + kLag + 24, draws + 24);
  for (uint32_t i = 32; i < kBatch; i += 32) {
    const __m256i w0 = RefillStep(NextLanes(v0, v1), before, r + kLag + i, draws + i);
    const __m256i w1 = RefillStep(NextLanes(v1, v2), before, r + kLag + i + 8, draws + i + 8);
    const __m256i w2 = RefillStep(NextLanes(v2, v3), before, r + kLag + i + 16, draws + i + 16);
    const __m256i w3 = RefillStep(NextLanes(v3, w0), before, r + kLag + i + 24, draws + i + 24);
    v0 = w0, v1 = w1, v2 = w2, v3 = w3;
  }
}

void Refill() {
  if (!gSeeded) ComputeRandomSeed(1);  // unseeded, rand() starts as if seeded with 1
  uint32_t *r = gGen.r;
  std::memmove(r, r + kBatch, kLag * sizeof *r);  // the last 31 values start the next batch
  if (UseAvx2()) {
    RefillAvx2(r, gGen.draws);
  } else {
    // Three interleaved chains kept in registers (value i needs value i-3 at once).
    uint32_t a = r[kLag - 3], b = r[kLag - 2], c = r[kLag - 1];
    for (uint32_t i = kLag; i < kBatch + kLag; i += kShortLag) {
      r[i] = a += r[i - kLag];
      r[i + 1] = b += r[i + 1 - kLag];
      r[i + 2] = c += r[i + 2 - kLag];
    }
    for (uint32_t i = 0; i < kBatch; ++i) gGen.draws[i] = static_cast<int32_t>(r[kLag + i] >> 1);
  }
  gGen.next = 0;
  ++gGen.batch;
}

inline int32_t Draw() {
  if (__builtin_expect(gGen.next == kBatch, 0)) Refill();
  return gGen.draws[gGen.next++];
}

// The next draws in order, as many as are ready and at most want (at least one).
const int32_t *TakeDraws(uint64_t want, uint64_t *got) {
  if (gGen.next == kBatch) Refill();
  *got = std::min<uint64_t>(want, kBatch - gGen.next);
  const int32_t *p = gGen.draws + gGen.next;
  gGen.next += static_cast<uint32_t>(*got);
  return p;
}

// Scales a draw into [0, 1]; as a binary32 draw rounds up to 2^31 from 2147483584 on, 1 is reached.
constexpr float kUniformScale = 0x1p-31f;

// The binary64 nearest to 1 / (2^31 - 1), and the midpoint of the draw range for the sign.
constexpr double kDrawScale = 4.656612875245797e-10;
constexpr double kSignThreshold = 1073741823.5;
constexpr uint64_t kSignBit = uint64_t{1} << 63;

// The polar method's pair: draws u and v (u first) until s = v*v + u*u < 1. draw() gives the draws.
template <class DrawFn> inline void DrawPair(DrawFn draw, double *s, double *u) {
  double uu, vv, ss;
  do {
    uu = static_cast<double>(draw()) * kDrawScale;
    vv = static_cast<double>(draw()) * kDrawScale;
    ss = vv * vv + uu * uu;
  } while (ss >= 1.0);
  *s = ss;
  *u = uu;
}

// The polar method's pairs of a whole batch, computed in vector loops: for every draw j the pair that
// starts there (u = draw j, v = draw j+1) and whether it would be kept (bit j of kept). A run of
// samples then finds its pairs by bit scans instead of a loop with an unpredictable branch.
struct PairTable {
  double u[kBatch], s[kKeptWords * 64];
  uint64_t kept[kKeptWords + 1] = {};  // words past the batch stay zero
  uint64_t batch = 0;                   // the batch described (0: none yet)
};
PairTable gPairs;

// s = v*v + u*u of the four pairs at square[j] and their tests (bits 0 to 3).
inline uint64_t FourPairsBaseline(const double *square, double *s) {
  const __m128d one = _mm_set1_pd(1.0);
  const __m128d s0 = _mm_add_pd(_mm_loadu_pd(square + 1), _mm_load_pd(square));
  const __m128d s1 = _mm_add_pd(_mm_loadu_pd(square + 3), _mm_load_pd(square + 2));
  _mm_storeu_pd(s, s0);
  _mm_storeu_pd(s + 2, s1);
  return static_cast<uint64_t>(_mm_movemask_pd(_mm_cmplt_pd(s0, one)) | _mm_movemask_pd(_mm_cmplt_pd(s1, one)) << 2);
}
ZV_NOISE_AVX2 inline uint64_t FourPairsAvx2(const double *square, double *s) {
  const __m256d s4 = _mm256_add_pd(_mm256_loadu_pd(square + 1), _mm256_load_pd(square));
  _mm256_storeu_pd(s, s4);
  return static_cast<uint64_t>(_mm256_movemask_pd(_mm256_cmp_pd(s4, _mm256_set1_pd(1.0), _CMP_LT_OQ)));
}

template <uint64_t (*FourPairs)(const double *, double *)>
[[gnu::always_inline]] inline void PairTableLoops(PairTable &t) {
  alignas(32) double square[kKeptWords * 64 + 1];
  for (uint32_t j = 0; j < kBatch; ++j) {
    t.u[j] = static_cast<double>(gGen.draws[j]) * kDrawScale;
    square[j] = t.u[j] * t.u[j];
  }
  for (uint32_t j = kBatch; j <= kKeptWords * 64; ++j) square[j] = 1.0;  // v in the next batch: never kept here
  for (uint32_t w = 0; w < kKeptWords; ++w) {
    uint64_t bits = 0;
    for (uint32_t b = 0; b < 64; b += 4) bits |= FourPairs(&square[w * 64 + b], &t.s[w * 64 + b]) << b;
    t.kept[w] = bits;
  }
}
void PairTableBaseline(PairTable &t) { PairTableLoops<FourPairsBaseline>(t); }
ZV_NOISE_AVX2 void PairTableAvx2(PairTable &t) { PairTableLoops<FourPairsAvx2>(t); }

void MakePairTable() {
  if (UseAvx2()) PairTableAvx2(gPairs);
  else PairTableBaseline(gPairs);
  gPairs.batch = gGen.batch;
}

// Across the end of a batch (or before its table is made): draw by draw.
[[gnu::noinline]] void DrawNormalSlowly(double *s, double *u, uint64_t *negate) {
  DrawPair(Draw, s, u);
  *negate = static_cast<double>(Draw()) >= kSignThreshold ? 0 : kSignBit;
  if (gGen.next < kBatch / 2 && gPairs.batch != gGen.batch) MakePairTable();
}

// The draws of m samples: each accepted pair's s and u, and the sign bit to flip in g (a draw is at
// least the threshold exactly when its bit 30 is set).
// The cursor p stays in a register. Most pairs are kept, so the pair at p is taken on a predicted
// branch (which does not wait for the table); otherwise the first kept pair among p, p + 2, ... in
// the next 64 draws is found by a bit scan.
void DrawNormals(uint64_t m, double *s, double *u, uint64_t *negate) {
  uint32_t p = gGen.next;
  bool ready = gPairs.batch == gGen.batch;
  for (uint64_t j = 0; j < m; ++j) {
    uint32_t at = p;
    bool found = ready && (gPairs.kept[p / 64] >> (p % 64) & 1);
    if (__builtin_expect(!found && ready, 0)) {
      const uint32_t w = p / 64, shift = p % 64;
      const uint64_t window = (gPairs.kept[w] >> shift) | (shift ? gPairs.kept[w + 1] << (64 - shift) : 0);
      const uint64_t even = window & 0x5555555555555555u;
      found = even != 0;
      at = p + static_cast<uint32_t>(__builtin_ctzll(even | (uint64_t{1} << 63)));
    }
    if (__builtin_expect(found && at + 2 < kBatch, 1)) {
      s[j] = gPairs.s[at];
      u[j] = gPairs.u[at];
      negate[j] = static_cast<uint64_t>(~gGen.draws[at + 2] & 0x40000000) << 33;
      p = at + 3;
    } else {
      gGen.next = p;
      DrawNormalSlowly(&s[j], &u[j], &negate[j]);
      p = gGen.next;
      ready = gPairs.batch == gGen.batch;
    }
  }
  gGen.next = p;
}

enum class Noise { AddUniform, MulUniform, AddNormal, MulNormal };

// The amplitude of element j as binary32: its own element, or the single number.
template <class A> struct Amplitude {
  const A *amp;
  bool per_element;
  float operator[](uint64_t j) const { return ElementToReal32(amp[per_element ? j : 0]); }
};

// Uniform noise over the draws as they come, in runs that vectorise.
template <Noise N, class A> void UniformLoop(Amplitude<A> amp, uint64_t count, float *d) {
  const float c = amp.per_element ? 0.0f : amp[0] * kUniformScale;
  for (uint64_t k = 0; k < count;) {
    uint64_t m;
    const int32_t *r = TakeDraws(count - k, &m);
    float *dk = d + k;
    if (amp.per_element) {
      const A *b = amp.amp + k;
      for (uint64_t j = 0; j < m; ++j) {
        if constexpr (N == Noise::AddUniform)
          dk[j] = (ElementToReal32(b[j]) * kUniformScale) * static_cast<float>(r[j]) + dk[j];
        else dk[j] = ((dk[j] * kUniformScale) * ElementToReal32(b[j])) * static_cast<float>(r[j]);
      }
    } else {
      for (uint64_t j = 0; j < m; ++j) {
        if constexpr (N == Noise::AddUniform) dk[j] = static_cast<float>(r[j]) * c + dk[j];
        else dk[j] = (dk[j] * c) * static_cast<float>(r[j]);
      }
    }
    k += m;
  }
}

// Gaussian noise piece by piece: the draws element by element (pairs until one is accepted, then the
// sign), the library's binary64 log of each accepted s, and then the rest in vector loops, in the
// order RandomNormal computes it (the sign applied by negating g, before the amplitude).
// g = sqrt((log(s) * -2) / s) * u, its sign, the amplitude, and the combination with d, in the order
// RandomNormal computes them.
template <Noise N>
inline void FinishLoop(uint64_t m, const double *log_s, const double *s, const double *u, const uint64_t *negate,
                       const double *a, float *d) {
  for (uint64_t j = 0; j < m; ++j) {
    const double g = std::sqrt((log_s[j] * -2.0) / s[j]) * u[j];
    const double noise = std::bit_cast<double>(std::bit_cast<uint64_t>(g) ^ negate[j]) * a[j];
    if constexpr (N == Noise::AddNormal) d[j] = static_cast<float>(static_cast<double>(d[j]) + noise);
    else d[j] = static_cast<float>(noise * static_cast<double>(d[j]));
  }
}
template <Noise N> void FinishBaseline(uint64_t m, const double *l, const double *s, const double *u,
                                       const uint64_t *negate, const double *a, float *d) {
  FinishLoop<N>(m, l, s, u, negate, a, d);
}
template <Noise N> ZV_NOISE_AVX2 void FinishAvx2(uint64_t m, const double *l, const double *s, const double *u,
                                                 const uint64_t *negate, const double *a, float *d) {
  FinishLoop<N>(m, l, s, u, negate, a, d);
}

template <Noise N, class A> void NormalLoop(Amplitude<A> amp, uint64_t count, float *d) {
  constexpr uint64_t kPiece = 256;
  double s[kPiece], u[kPiece], log_s[kPiece], a[kPiece];
  uint64_t negate[kPiece];  // sign bit of g to flip
  const auto finish = UseAvx2() ? FinishAvx2<N> : FinishBaseline<N>;
  if (!amp.per_element) std::fill(a, a + kPiece, static_cast<double>(amp[0]));
  for (uint64_t k = 0; k < count; k += kPiece) {
    const uint64_t m = std::min(kPiece, count - k);
    DrawNormals(m, s, u, negate);
    for (uint64_t j = 0; j < m; ++j) log_s[j] = LibLog64(s[j]);
    if (amp.per_element) {
      for (uint64_t j = 0; j < m; ++j) a[j] = static_cast<double>(ElementToReal32(amp.amp[k + j]));
    }
    finish(m, log_s, s, u, negate, a, d + k);
  }
}

template <Noise N> uint32_t NoiseKernel(ZV_KERNEL_ARGS) {
  if (dst_type != TypeReal32) return ComputeTypeError(dst_type);
  if (src1 != dst) {
    if (uint32_t status = ComputeConvert(0, src1, src1_type, nullptr, 0, count, dst, TypeReal32)) return status;
  }
  float *d = static_cast<float *>(dst);
  return DispatchType(src2_type, [&](auto tag) -> uint32_t {
    using A = decltype(tag);
    if constexpr (kIsCmplx<A>) {
      return ComputeTypeError(src2_type);
    } else {
      const Amplitude<A> amp{static_cast<const A *>(src2), operand2_is_array != 0};
      if constexpr (N == Noise::AddUniform || N == Noise::MulUniform) UniformLoop<N>(amp, count, d);
      else NormalLoop<N>(amp, count, d);
      return 0;
    }
  });
}

}  // namespace

void ComputeRandomSeed(uint32_t seed) {
  random_data data{};
  char state[128];
  initstate_r(seed, state, sizeof state, &data);
  // The library's ring of 31 values, oldest (the one its next step replaces) first.
  const int32_t *ring = data.state;
  const long oldest = data.fptr - ring;
  for (uint32_t j = 0; j < kLag; ++j) gGen.r[kBatch + j] = static_cast<uint32_t>(ring[(oldest + j) % kLag]);
  gGen.next = kBatch;
  gSeeded = true;
}

int32_t ComputeRandomDraw() { return Draw(); }

// Polar method on the first quadrant; a separate draw gives the sign.
double RandomNormal(double a) {
  double s, u;
  DrawPair(Draw, &s, &u);
  double g = std::sqrt((LibLog64(s) * -2.0) / s) * u;
  if (static_cast<double>(Draw()) >= kSignThreshold) return g * a;
  return (-g) * a;
}

uint32_t ComputeAddUniform(ZV_KERNEL_ARGS) {
  return NoiseKernel<Noise::AddUniform>(operand2_is_array, src1, src1_type, src2, src2_type, count, dst, dst_type);
}

uint32_t ComputeMulUniform(ZV_KERNEL_ARGS) {
  return NoiseKernel<Noise::MulUniform>(operand2_is_array, src1, src1_type, src2, src2_type, count, dst, dst_type);
}

uint32_t ComputeAddNormal(ZV_KERNEL_ARGS) {
  return NoiseKernel<Noise::AddNormal>(operand2_is_array, src1, src1_type, src2, src2_type, count, dst, dst_type);
}

uint32_t ComputeMulNormal(ZV_KERNEL_ARGS) {
  return NoiseKernel<Noise::MulNormal>(operand2_is_array, src1, src1_type, src2, src2_type, count, dst, dst_type);
}
