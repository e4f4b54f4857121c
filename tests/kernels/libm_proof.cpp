// The proof that a vector replica of a C library function gives the library's results: every binary32
// argument (or a range of them), bit for bit, NaN payloads included, under the tool's flush-to-zero
// mode, and that the run-time gate then admits it. Where the gate chooses an AVX-512 replica, the AVX2
// one is compared with it on every argument (pair) too. Run by CI, one function per process (tens of
// seconds each).
//
//   libm_proof FUNCTION [FIRST LAST]    FUNCTION: exp ln sin cos tan asin acos atan
//   libm_proof phase|abs [FIRST LAST]   complex parts: an argument-structured sweep of every fourth
//                                       binary32 value against partners (over 10^9 pairs)
//
// Exit status 0: equal everywhere; 1: mismatches (the first ones are listed) or a replica the gate
// refuses; 2: usage; 77: skipped, because the function has no replica or the replicas do not apply
// here (not a verified libm build, a processor without AVX2 and FMA, or tunables that change the
// library's variant), so there is nothing to prove.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "libm_sweep.h"
#include "platform/core/fpu.h"

namespace {

const char *kNotHere = "the replicas do not apply here (libm build not verified, processor without AVX2 and FMA, "
                       "or tunables that change the library's variant)";

int ProvePairs(const LibPairCase &c, uint64_t first, uint64_t last) {
  const uint32_t f = static_cast<uint32_t>(c.f);
  if (!LibReplicatedVariant()) {
    std::printf("libm_proof %s: skipped: %s\n", c.name, kNotHere);
    return 77;
  }
  const LibPairMapFn replica = LibReplica(LibCheckGate(), c.f);
  if (replica == nullptr) {
    std::printf("libm_proof %s: the gate refuses the replica\n", c.name);
    return 1;
  }
  const LibPairMapFn narrow = replica != kAvx2PairMaps[f] ? kAvx2PairMaps[f] : nullptr;
  std::vector<float> other;
  uint64_t shown = 0, apart = 0;
  const auto map = [&](const float *p, float *d, uint64_t n) {
    replica(p, d, n);
    if (narrow == nullptr) return;
    other.resize(n);
    narrow(p, other.data(), n);
    apart += std::memcmp(d, other.data(), n * 4) != 0;
  };
  const uint64_t bad = SweepPairs(c, map, first, last, 4, [&](uint32_t a, uint32_t b, uint32_t got, uint32_t want) {
    if (shown++ < 20) std::printf("%s(0x%08x, 0x%08x): 0x%08x, library 0x%08x\n", c.name, a, b, got, want);
  });
  std::printf("libm_proof %s (%s): 0x%08" PRIx64 "..0x%08" PRIx64 " by 4 against partners: %" PRIu64 " mismatches\n",
              c.name, narrow ? "AVX-512" : "AVX2", first, last, bad);
  if (narrow != nullptr)
    std::printf("libm_proof %s: the AVX2 replica differs in %" PRIu64 " blocks\n", c.name, apart);
  return bad == 0 && apart == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
  CoreSetFlushToZero();
  const LibFunctionCase *c = nullptr;
  const LibPairCase *pc = nullptr;
  for (const auto &k : kLibFunctions)
    if (argc > 1 && std::strcmp(argv[1], k.name) == 0) c = &k;
  for (const auto &k : kLibPairFunctions)
    if (argc > 1 && std::strcmp(argv[1], k.name) == 0) pc = &k;
  if ((c == nullptr && pc == nullptr) || (argc != 2 && argc != 4)) {
    std::fprintf(stderr, "usage: libm_proof exp|ln|sin|cos|tan|asin|acos|atan|phase|abs [FIRST LAST]\n");
    return 2;
  }
  const uint64_t first = argc == 4 ? std::strtoull(argv[2], nullptr, 0) : 0;
  const uint64_t last = argc == 4 ? std::strtoull(argv[3], nullptr, 0) : 0xffffffffu;
  if (pc != nullptr) return ProvePairs(*pc, first, last);
  const uint32_t f = static_cast<uint32_t>(c->f);
  if (kAvx2Maps[f] == nullptr) {
    std::printf("libm_proof %s: skipped: no vector replica of this function\n", c->name);
    return 77;
  }
  if (!LibReplicatedVariant()) {
    std::printf("libm_proof %s: skipped: %s\n", c->name, kNotHere);
    return 77;
  }
  // The replica the gate chooses here against the library; where that is the AVX-512 one, the AVX2
  // one against it on the same arguments.
  const LibGate gate = LibCheckGate();
  const LibMapFn replica = LibReplica(gate, c->f);
  if (replica == nullptr) {
    std::printf("libm_proof %s: the gate refuses the replica\n", c->name);
    return 1;
  }
  const LibMapFn narrow = replica != kAvx2Maps[f] ? kAvx2Maps[f] : nullptr;
  std::vector<float> other(1 << 16);
  uint64_t shown = 0, apart = 0;
  const auto map = [&](const float *s, float *d, uint64_t n) {
    replica(s, d, n);
    if (narrow == nullptr) return;
    narrow(s, other.data(), n);
    for (uint64_t k = 0; k < n; ++k)
      if (std::memcmp(&d[k], &other[k], 4) != 0 && apart++ < 20)
        std::printf("%s(0x%08x): AVX2 0x%08x, AVX-512 0x%08x\n", c->name, std::bit_cast<uint32_t>(s[k]),
                    std::bit_cast<uint32_t>(other[k]), std::bit_cast<uint32_t>(d[k]));
  };
  const uint64_t bad = SweepFunction(*c, map, first, last, 1, [&](uint32_t arg, uint32_t got, uint32_t want) {
    if (shown++ < 20) std::printf("%s(0x%08x): 0x%08x, library 0x%08x\n", c->name, arg, got, want);
  });
  std::printf("libm_proof %s (%s): 0x%08" PRIx64 "..0x%08" PRIx64 ": %" PRIu64 " mismatches\n", c->name,
              narrow ? "AVX-512" : "AVX2", first, last, bad);
  if (narrow != nullptr)
    std::printf("libm_proof %s: the AVX2 replica differs at %" PRIu64 " arguments\n", c->name, apart);
  return bad == 0 && apart == 0 ? 0 : 1;
}
