// Header statistics, summed about the first value ever seen over the eight lanes of the core's
// binary64 summation. A NaN element makes the sum of squares NaN, which nothing else can (infinities
// only make it infinite): that is the NaN test.
#include "platform/imageio/header_stats.h"

#include <algorithm>
#include <cmath>
#include <type_traits>

#include "platform/core/lanes.h"
#include "platform/core/types.h"
#include "platform/imageio/block_access.h"
#include "platform/imageio/handle.h"

namespace {

template <class T>
inline __attribute__((always_inline)) void Accumulate(ImageioStats &s, const T *p, uint64_t n) {
  if (n == 0) return;
  if (s.n == 0) {
    double x0 = static_cast<double>(p[0]);
    s.shift = std::isfinite(x0) ? x0 : 0.0;
    s.min = s.max = x0;
  }
  const double sh = s.shift;
  double mn[kSumLanes], mx[kSumLanes], a1[kSumLanes] = {}, a2[kSumLanes] = {};
  for (size_t j = 0; j < kSumLanes; ++j) mn[j] = s.min, mx[j] = s.max;
  SumLanes(n, [&](size_t j, uint64_t i) {
    double x = static_cast<double>(p[i]), dx = x - sh;
    mn[j] = x < mn[j] ? x : mn[j];
    mx[j] = x > mx[j] ? x : mx[j];
    a1[j] += dx;
    a2[j] += dx * dx;
  });
  for (size_t j = 0; j < kSumLanes; ++j) {
    s.min = mn[j] < s.min ? mn[j] : s.min;
    s.max = mx[j] > s.max ? mx[j] : s.max;
  }
  double sum2 = FoldLanes(a2);
  s.s1 += FoldLanes(a1);
  s.s2 += sum2;
  s.nan |= sum2 != sum2;
  s.n += n;
}

// One-byte elements: integer sums of the values and of their squares, exact in any order, from which
// the sums about the shift follow exactly (they stay far below 2^53), as summing element by element
// in binary64 would give them. Signed bytes are counted as unsigned ones with the sign bit flipped
// (value + 128), so that one loop of unsigned byte minima, maxima and sums serves both; each of the
// loops runs as vector code.
template <class T>
void AccumulateBytes(ImageioStats &s, const T *p, uint64_t n) {
  static_assert(sizeof(T) == 1);
  if (n == 0) return;
  if (s.n == 0) s.shift = s.min = s.max = static_cast<double>(p[0]);
  constexpr uint8_t flip = std::is_signed_v<T> ? 0x80 : 0;
  constexpr int64_t bias = std::is_signed_v<T> ? 128 : 0;
  const auto *b = reinterpret_cast<const uint8_t *>(p);
  uint8_t lo = 255, hi = 0;
  for (uint64_t k = 0; k < n; ++k) {
    uint8_t u = b[k] ^ flip;
    lo = u < lo ? u : lo;
    hi = u > hi ? u : hi;
  }
  // 32-bit partial sums: 2^15 squares of at most 2^16 each fit.
  uint64_t sum = 0, sum2 = 0;
  constexpr uint64_t kRun = 1u << 15;
  for (uint64_t i = 0; i < n; i += kRun) {
    const uint64_t end = std::min(n, i + kRun);
    uint32_t a = 0, q = 0;
    for (uint64_t k = i; k < end; ++k) {
      uint32_t u = static_cast<uint8_t>(b[k] ^ flip);
      a += u;
      q += u * u;
    }
    sum += a;
    sum2 += q;
  }
  // Back to the values: v = u - bias.
  const int64_t dn = static_cast<int64_t>(n);
  const int64_t vsum = static_cast<int64_t>(sum) - bias * dn;
  const int64_t vsum2 = static_cast<int64_t>(sum2) - 2 * bias * static_cast<int64_t>(sum) + bias * bias * dn;
  s.min = std::min(s.min, static_cast<double>(lo - bias));
  s.max = std::max(s.max, static_cast<double>(hi - bias));
  // sum (v - sh) and sum (v - sh)^2; sh is one of the byte values.
  const double sh = s.shift, ds = static_cast<double>(vsum), dnn = static_cast<double>(n);
  s.s1 += ds - dnn * sh;
  s.s2 += static_cast<double>(vsum2) - 2.0 * sh * ds + dnn * sh * sh;
  s.n += n;
}

// real32, the common case, also has a variant for processors with AVX2, chosen when the program
// starts: its vectors hold the same binary64 lanes, so both variants give identical sums.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
__attribute__((target_clones("avx2", "default")))
#endif
void AccumulateReal32(ImageioStats &s, const float *p, uint64_t n) {
  Accumulate(s, p, n);
}

// Statistics of the whole image as stored now, in one pass.
uint32_t ComputeStats(ImageioHandle *h, ImageioStats *stats) {
  *stats = ImageioStats{};
  const uint64_t chunk = 1u << 22;
  for (uint64_t first = 0; first < h->count; first += chunk) {
    uint64_t n = std::min(chunk, h->count - first);
    uint32_t st;
    void *p = ImageioPeek(h, first, n, &st);
    if (!p) return st;
    ImageioAccumulateBlock(*stats, h->type, p, n);
  }
  return 0;
}

}  // namespace

void ImageioAccumulateBlock(ImageioStats &s, uint32_t type, const void *p, uint64_t n) {
  switch (type) {
    case TypeUint8: AccumulateBytes(s, static_cast<const uint8_t *>(p), n); break;
    case TypeUint16: Accumulate(s, static_cast<const uint16_t *>(p), n); break;
    case TypeUint32: Accumulate(s, static_cast<const uint32_t *>(p), n); break;
    case TypeUint64: Accumulate(s, static_cast<const uint64_t *>(p), n); break;
    case TypeInt8: AccumulateBytes(s, static_cast<const int8_t *>(p), n); break;
    case TypeInt16: Accumulate(s, static_cast<const int16_t *>(p), n); break;
    case TypeInt32: Accumulate(s, static_cast<const int32_t *>(p), n); break;
    case TypeInt64: Accumulate(s, static_cast<const int64_t *>(p), n); break;
    case TypeReal32: AccumulateReal32(s, static_cast<const float *>(p), n); break;
    case TypeReal64: Accumulate(s, static_cast<const double *>(p), n); break;
    default: break;  // complex and imaginary data have no header statistics
  }
}

uint32_t ImageioFinalStats(ImageioHandle *h, ImageioStats *stats) {
  if (h->in_order && h->next_write == h->count) {
    *stats = h->stats;
    return 0;
  }
  return ComputeStats(h, stats);
}

bool ImageioStatsResult(const ImageioStats &s, float *dmin, float *dmax, float *dmean, float *rms) {
  if (s.n == 0) return false;
  if (s.nan) {
    *dmin = *dmax = *dmean = *rms = std::nanf("");
    return true;
  }
  double n = static_cast<double>(s.n);
  double m1 = s.s1 / n;
  double var = s.s2 / n - m1 * m1;
  *dmin = static_cast<float>(s.min);
  *dmax = static_cast<float>(s.max);
  *dmean = static_cast<float>(s.shift + m1);
  *rms = static_cast<float>(std::sqrt(var < 0 ? 0.0 : var));  // rounding can take var below 0; a NaN (infinities) stays
  return true;
}
