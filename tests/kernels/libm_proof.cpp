// The proof that a vector replica of a C library function gives the library's results: every binary32
// argument (or a range of them), bit for bit, NaN payloads included, under the tool's flush-to-zero
// mode, and that the run-time gate then admits it. Run by CI, one function per process (tens of
// seconds each).
//
//   libm_proof FUNCTION [FIRST LAST]    FUNCTION: exp ln sin cos tan asin acos atan
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

int main(int argc, char **argv) {
  CoreSetFlushToZero();
  const LibFunctionCase *c = nullptr;
  for (const auto &k : kLibFunctions)
    if (argc > 1 && std::strcmp(argv[1], k.name) == 0) c = &k;
  if (c == nullptr || (argc != 2 && argc != 4)) {
    std::fprintf(stderr, "usage: libm_proof exp|ln|sin|cos|tan|asin|acos|atan [FIRST LAST]\n");
    return 2;
  }
  const uint64_t first = argc == 4 ? std::strtoull(argv[2], nullptr, 0) : 0;
  const uint64_t last = argc == 4 ? std::strtoull(argv[3], nullptr, 0) : 0xffffffffu;
  const uint32_t f = static_cast<uint32_t>(c->f);
  if (kAvx2Maps[f] == nullptr) {
    std::printf("libm_proof %s: skipped: no vector replica of this function\n", c->name);
    return 77;
  }
  if (!LibReplicatedVariant()) {
    std::printf("libm_proof %s: skipped: the replicas do not apply here (libm build not verified, processor "
                "without AVX2 and FMA, or tunables that change the library's variant)\n", c->name);
    return 77;
  }
  uint64_t shown = 0;
  const uint64_t bad = SweepFunction(*c, kAvx2Maps[f], first, last, 1, [&](uint32_t arg, uint32_t got, uint32_t want) {
    if (shown++ < 20) std::printf("%s(0x%08x): 0x%08x, library 0x%08x\n", c->name, arg, got, want);
  });
  std::printf("libm_proof %s: 0x%08" PRIx64 "..0x%08" PRIx64 ": %" PRIu64 " mismatches\n", c->name, first, last, bad);
  if (!(LibCheckGate().unary >> f & 1)) {
    std::printf("libm_proof %s: the gate refuses the replica\n", c->name);
    return 1;
  }
  return bad == 0 ? 0 : 1;
}
