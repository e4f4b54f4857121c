// Block calls of the C library's binary32 functions with subnormals flushed on both sides.
//
// Checking each element around its call costs the library loop more than the check itself (the
// loop is sensitive to anything on the path of the call), so the flushing is done per piece of a
// block, by vector loops before and after the calls: a piece whose arguments hold no subnormal (the
// usual case) goes through the plain loop of calls, and every result of a piece is then flushed.
//
// Where the gate admits them, vector replicas of the library's functions take the place of the calls
// (libm_avx2.cpp, libm_avx512.cpp); the gate runs at the first block call, so runs that call no
// function never pay for it.
#define ZV_LIBM_IMPLEMENTATION
#include "kernels/libm_internal.h"

#include <algorithm>
#include <iterator>

namespace {

constexpr uint64_t kPiece = 1024;  // binary32 values per piece: stays in the first-level cache

inline uint32_t Bits(float x) {
  uint32_t b;
  std::memcpy(&b, &x, 4);
  return b;
}
// Magnitude bits 1 to 0x7fffff: a subnormal.
inline bool IsSubnormal(uint32_t b) { return (b & 0x7fffffffu) - 1u < 0x7fffffu; }

bool AnySubnormal(const float *p, uint64_t n) {
  uint32_t any = 0;
  for (uint64_t k = 0; k < n; ++k) any |= IsSubnormal(Bits(p[k]));
  return any != 0;
}

void FlushSubnormals(float *p, uint64_t n) {
  for (uint64_t k = 0; k < n; ++k) {
    uint32_t b = Bits(p[k]);
    b = IsSubnormal(b) ? b & 0x80000000u : b;
    std::memcpy(&p[k], &b, 4);
  }
}

// Each piece's arguments are all read before its results are stored, so dst may be src.
template <float (*F)(float)> void MapScalar(const float *src, float *dst, uint64_t n) {
  for (uint64_t i = 0; i < n; i += kPiece) {
    const uint64_t m = std::min(kPiece, n - i);
    const float *s = src + i;
    float *d = dst + i;
    if (__builtin_expect(AnySubnormal(s, m), 0)) {
      for (uint64_t k = 0; k < m; ++k) d[k] = F(FlushSubnormal(s[k]));
    } else {
      for (uint64_t k = 0; k < m; ++k) d[k] = F(s[k]);
    }
    FlushSubnormals(d, m);
  }
}

inline float Phase(float a, float b) { return atan2f(b, a); }
inline float Magnitude(float a, float b) { return hypotf(a, b); }

template <float (*F)(float, float)> void MapPairsScalar(const float *pairs, float *dst, uint64_t n) {
  for (uint64_t i = 0; i < n; i += kPiece / 2) {
    const uint64_t m = std::min(kPiece / 2, n - i);
    const float *p = pairs + 2 * i;
    float *d = dst + i;
    if (__builtin_expect(AnySubnormal(p, 2 * m), 0)) {
      for (uint64_t k = 0; k < m; ++k) d[k] = F(FlushSubnormal(p[2 * k]), FlushSubnormal(p[2 * k + 1]));
    } else {
      for (uint64_t k = 0; k < m; ++k) d[k] = F(p[2 * k], p[2 * k + 1]);
    }
    FlushSubnormals(d, m);
  }
}

constexpr LibMapFn kScalarMaps[] = {MapScalar<expf>,  MapScalar<logf>,  MapScalar<sinf>,  MapScalar<cosf>,
                                 MapScalar<tanf>,  MapScalar<asinf>, MapScalar<acosf>, MapScalar<atanf>};
static_assert(std::size(kScalarMaps) == static_cast<size_t>(LibUnary::Count));
constexpr LibPairMapFn kScalarPairMaps[] = {MapPairsScalar<Phase>, MapPairsScalar<Magnitude>};
static_assert(std::size(kScalarPairMaps) == static_cast<size_t>(LibPair::Count));

// The functions in use, chosen at the first call.
LibMapFn gMaps[kLibUnaryCount];
LibPairMapFn gPairMaps[kLibPairCount];
bool gChosen = false;

void Choose() {
  const LibGate gate = LibCheckGate();
  for (uint32_t f = 0; f < kLibUnaryCount; ++f) {
    const LibMapFn replica = LibReplica(gate, static_cast<LibUnary>(f));
    gMaps[f] = replica ? replica : kScalarMaps[f];
  }
  for (uint32_t f = 0; f < kLibPairCount; ++f) {
    const LibPairMapFn replica = LibReplica(gate, static_cast<LibPair>(f));
    gPairMaps[f] = replica ? replica : kScalarPairMaps[f];
  }
  gChosen = true;
}

}  // namespace

void LibMapScalar(LibUnary f, const float *src, float *dst, uint64_t n) {
  kScalarMaps[static_cast<uint32_t>(f)](src, dst, n);
}

void LibMap(LibUnary f, const float *src, float *dst, uint64_t n) {
  if (__builtin_expect(!gChosen, 0)) Choose();
  gMaps[static_cast<uint32_t>(f)](src, dst, n);
}

void LibMapPairs(LibPair f, const float *pairs, float *dst, uint64_t n) {
  if (__builtin_expect(!gChosen, 0)) Choose();
  gPairMaps[static_cast<uint32_t>(f)](pairs, dst, n);
}
