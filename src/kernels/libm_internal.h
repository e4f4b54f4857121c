// Between the block calls of the C library's functions, their run-time gate and the vector replicas.
#pragma once
#include <cstdint>

#include "kernels/libm.h"

using LibMapFn = void (*)(const float *src, float *dst, uint64_t n);
using LibPairMapFn = void (*)(const float *pairs, float *dst, uint64_t n);

inline constexpr uint32_t kLibUnaryCount = static_cast<uint32_t>(LibUnary::Count);
inline constexpr uint32_t kLibPairCount = static_cast<uint32_t>(LibPair::Count);

// Vector replicas for processors with AVX2 and FMA, equal to the library's results on every binary32
// input where the gate admits them (null: no replica). They flush like the scalar block calls.
extern const LibMapFn kAvx2Maps[kLibUnaryCount];
extern const LibPairMapFn kAvx2PairMaps[kLibPairCount];
// The same for processors with AVX-512 (F, DQ and VL), for the functions where they are faster.
extern const LibMapFn kAvx512Maps[kLibUnaryCount];
extern const LibPairMapFn kAvx512PairMaps[kLibPairCount];

// Whether this process runs where the replicas were verified: the floating-point control state of the
// verification, a processor with AVX2 and FMA, and a libm build on the verified list.
bool LibVerifiedHost();

// Which replicas may stand in for the library in this process: bit f of unary, bit f of pair. On a
// verified host, each replica whose function the library binds in the replicated variant; avx512:
// the processor has AVX-512 F, DQ and VL and the system saves its registers.
struct LibGate {
  uint32_t unary = 0, pair = 0;
  bool avx512 = false;
};
LibGate LibCheckGate();
// The replica that stands in for f under the gate g (null: the scalar calls): the AVX-512 one where
// there is one and the gate admits it, otherwise the AVX2 one.
LibMapFn LibReplica(const LibGate &g, LibUnary f);
LibPairMapFn LibReplica(const LibGate &g, LibPair f);

// Arguments on which the library's FMA and SSE2 builds give different results, per function (none
// for the functions whose builds agree everywhere): the gate's probes of the bound build.
struct LibProbes {
  LibUnary f;
  const uint32_t *args;
  uint32_t n;
};
extern const LibProbes kLibProbes[3];

// The scalar block calls, which flush on both sides (the fallback and the reference).
void LibMapScalar(LibUnary f, const float *src, float *dst, uint64_t n);
