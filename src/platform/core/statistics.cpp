// Block statistics on binary32 data.
//
// Sums are accumulated in binary64 over eight independent lanes (platform/core/lanes.h). A binary32
// value, and the square of one, are exact in binary64, and 2^24 of them sum with little rounding: the
// sum of 2^24 equal values is exact, so the mean of such a block is that value itself.
#include "platform/core/statistics.h"

#include <cstddef>

#include "platform/core/lanes.h"

namespace {

// Sum of n values taken at the given stride (1 for real data, 2 for one part of complex data).
template <size_t Stride> double SumValues(uint64_t n, const float *p) {
  double lane[kSumLanes] = {};
  SumLanes(n, [&](size_t j, uint64_t i) { lane[j] += static_cast<double>(p[i * Stride]); });
  return FoldLanes(lane);
}

// Sum of the squares of m consecutive values (a complex block is 2n consecutive parts).
double SumSquares(uint64_t m, const float *p) {
  double lane[kSumLanes] = {};
  SumLanes(m, [&](size_t j, uint64_t i) {
    double x = static_cast<double>(p[i]);
    lane[j] += x * x;
  });
  return FoldLanes(lane);
}

// dst[k] = src[k] - mean[k % Components] for the count * Components values of a block (2 for complex
// data), subtracted in binary64 and rounded once. Chunks of constant length let the loop vectorise.
template <size_t Components>
void SubtractMean(uint64_t count, const float *src, float *dst, const double (&mean)[Components]) {
  constexpr size_t kChunk = 8;
  uint64_t m = count * Components, i = 0;
  for (; i + kChunk <= m; i += kChunk) {
    // Read the whole chunk first: src and dst are usually the same buffer.
    float r[kChunk];
    for (size_t j = 0; j < kChunk; ++j) r[j] = static_cast<float>(static_cast<double>(src[i + j]) - mean[j % Components]);
    for (size_t j = 0; j < kChunk; ++j) dst[i + j] = r[j];
  }
  for (; i < m; ++i) dst[i] = static_cast<float>(static_cast<double>(src[i]) - mean[i % Components]);
}

}  // namespace

uint32_t ZeromeanReal(uint64_t count, const float *src, float *dst) {
  if (count == 0) return 0;
  const double mean[1] = {SumValues<1>(count, src) / static_cast<double>(count)};
  SubtractMean(count, src, dst, mean);
  return 0;
}

uint32_t ZeromeanCmplx(uint64_t count, const float *src, float *dst) {
  if (count == 0) return 0;
  double n = static_cast<double>(count);
  const double mean[2] = {SumValues<2>(count, src) / n, SumValues<2>(count, src + 1) / n};
  SubtractMean(count, src, dst, mean);
  return 0;
}

uint32_t Sumabs2Real(uint64_t count, const float *data, float *result) {
  *result = static_cast<float>(SumSquares(count, data));
  return 0;
}

uint32_t Sumabs2Cmplx(uint64_t count, const float *data, float *result) {
  // |z|^2 summed over the block is the sum of the squares of all parts.
  *result = static_cast<float>(SumSquares(2 * count, data));
  return 0;
}
