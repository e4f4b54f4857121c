// Sweeps of the tool's block calls of the C library's functions against the library itself, called
// element by element on the flushed argument with its result flushed: shared by the sampled test and
// the exhaustive proof program.
#pragma once
#include <algorithm>
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

// The functions of complex parts (a, b): atan2f(b, a) and hypotf(a, b).
struct LibPairCase {
  const char *name;
  LibPair f;
  float (*lib)(float a, float b);
};
inline float SweepPhase(float a, float b) { return atan2f(b, a); }
inline float SweepMagnitude(float a, float b) { return hypotf(a, b); }
inline const LibPairCase kLibPairFunctions[] = {{"phase", LibPair::Phase, SweepPhase},
                                                {"abs", LibPair::Magnitude, SweepMagnitude}};

// Special values of either part: zeros, ones, the edges of the normal and subnormal range, the
// largest finite value, infinities and NaN (quiet and signalling, with payloads), both signs.
inline const uint32_t kSweepSpecials[] = {0x00000000, 0x3f800000, 0x40000000, 0x3f000000, 0x00800000, 0x007fffff,
                                          0x00000001, 0x7f7fffff, 0x7f800000, 0x7fc00000, 0x7fa00001, 0x7fc12345,
                                          0x3f800001, 0x4b800000, 0x5f800000, 0x1f800000};

// An argument-structured sweep: every first, first + stride, ... up to last (bit patterns) as one part
// against a partner, in turn a special value, the same value (and its negation) and a value of the
// same binary exponent with scrambled significand and sign, each in either position; then all pairs of
// special values. Compares map with the library as SweepFunction does.
template <class Map, class Mismatch>
uint64_t SweepPairs(const LibPairCase &c, Map map, uint64_t first, uint64_t last, uint64_t stride, Mismatch mismatch) {
  std::vector<uint32_t> args;
  for (uint32_t a : kSweepSpecials)
    for (uint32_t b : kSweepSpecials)
      for (uint32_t signs = 0; signs < 4; ++signs) args.insert(args.end(), {a | signs << 31, b | (signs & 2) << 30});
  uint64_t bad = 0, blocks = 0;
  const auto check = [&] {
    const uint64_t n = args.size() / 2, split = std::min(n, n / 2 + blocks++ % 16);
    std::vector<float> p(args.size()), y(n);
    std::memcpy(p.data(), args.data(), args.size() * 4);
    // In two calls, so that the vector loops see every tail and alignment.
    map(p.data(), y.data(), split);
    map(p.data() + 2 * split, y.data() + split, n - split);
    for (uint64_t k = 0; k < n; ++k) {
      const float a = std::bit_cast<float>(SweepFlushBits(args[2 * k])), b = std::bit_cast<float>(SweepFlushBits(args[2 * k + 1]));
      const uint32_t want = SweepFlushBits(std::bit_cast<uint32_t>(c.lib(a, b)));
      const uint32_t got = std::bit_cast<uint32_t>(y[k]);
      if (got != want) ++bad, mismatch(args[2 * k], args[2 * k + 1], got, want);
    }
    args.clear();
  };
  for (uint64_t x = first; x <= last; x += stride) {
    const uint32_t v = static_cast<uint32_t>(x), h = v * 0x9e3779b1u;
    uint32_t partner;
    switch (h >> 30) {
      case 0: partner = kSweepSpecials[h % 16] | (h & 0x80000000u); break;
      case 1: partner = v ^ (h & 0x80000000u); break;
      default: partner = (v & 0x7f800000u) | (h >> 1 & 0x807fffffu); break;
    }
    if (h & 0x10000) args.insert(args.end(), {v, partner});
    else args.insert(args.end(), {partner, v});
    if (args.size() >= 2 * 16000) check();
  }
  check();
  return bad;
}
