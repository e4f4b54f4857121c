// Sweeps of the tool's block calls of the C library's functions against the library itself, called
// element by element on the flushed argument with its result flushed: shared by the sampled test and
// the exhaustive proof program.
#pragma once
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "kernels/libm_internal.h"

struct LibFunctionCase {
  const char *name;
  LibUnary f;
  float (*lib)(float);
};
inline const LibFunctionCase kLibFunctions[] = {
    {"exp", LibUnary::Exp, expf},   {"ln", LibUnary::Log, logf},     {"sin", LibUnary::Sin, sinf},
    {"cos", LibUnary::Cos, cosf},   {"tan", LibUnary::Tan, tanf},    {"asin", LibUnary::Asin, asinf},
    {"acos", LibUnary::Acos, acosf}, {"atan", LibUnary::Atan, atanf}};

inline uint32_t SweepFlushBits(uint32_t b) { return (b & 0x7f800000u) == 0 ? b & 0x80000000u : b; }

// Whether the library binds the variant the replicas follow: its selection on a processor with FMA,
// unless tunables change it.
inline bool LibReplicatedVariant() {
  const char *t = std::getenv("GLIBC_TUNABLES");
  return LibVerifiedHost() && (t == nullptr || std::strstr(t, "hwcaps") == nullptr);
}

// Compares map (the tool's block call, or a replica itself) on the arguments first, first + stride,
// ... up to last (bit patterns) in blocks of up to 2^16, each block at a different offset in its
// buffer so that the vector loops see every alignment and tail; calls mismatch(bits, got, want) for
// each difference and returns their number.
template <class Map, class Mismatch>
uint64_t SweepFunction(const LibFunctionCase &c, Map map, uint64_t first, uint64_t last, uint64_t stride,
                       Mismatch mismatch) {
  std::vector<float> x(1 << 16), y(1 << 16);
  uint64_t bad = 0, block = 0;
  for (uint64_t b = first; b <= last;) {
    const uint64_t n = (1 << 16) - 8, offset = block++ % 8;
    uint64_t m = 0;
    for (; m < n && b <= last; ++m, b += stride) x[offset + m] = std::bit_cast<float>(static_cast<uint32_t>(b));
    map(&x[offset], &y[offset], m);
    for (uint64_t k = 0; k < m; ++k) {
      const uint32_t arg = std::bit_cast<uint32_t>(x[offset + k]);
      const uint32_t want = SweepFlushBits(std::bit_cast<uint32_t>(c.lib(std::bit_cast<float>(SweepFlushBits(arg)))));
      const uint32_t got = std::bit_cast<uint32_t>(y[offset + k]);
      if (got != want) ++bad, mismatch(arg, got, want);
    }
  }
  return bad;
}
