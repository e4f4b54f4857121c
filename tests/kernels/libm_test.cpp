// The tool's block calls of the C library's functions, and its vector replicas of them, against the
// library itself.
#include <gtest/gtest.h>

#include <sstream>

#include "libm_sweep.h"

namespace {

// The block calls and, where they apply, the vector replicas themselves (which the gate must then
// admit) against the library element by element: every 4099th argument, the arguments where the
// library's builds differ and the edges of the replicas' main paths (2^-12, 0.75, 88, 120, 2^25, the
// normal range, infinity) with their neighbours, both signs; for the functions of complex parts a
// structured sample of pairs. CI's libm_proof compares every argument.
TEST(Functions, LibraryBlockCallsEqualTheLibrary) {
  std::vector<uint32_t> centres = {0x39800000, 0x3f400000, 0x42b00000, 0x42f00000, 0x4c000000, 0x00800000, 0x7f800000};
  for (const LibProbes &p : kLibProbes) centres.insert(centres.end(), p.args, p.args + p.n);
  const bool replicas = LibReplicatedVariant();
  const auto fail = [](auto... bits) {
    std::ostringstream text;
    ((text << std::hex << " 0x" << bits), ...);
    ADD_FAILURE() << "arguments, result, library:" << text.str();
  };
  for (const auto &c : kLibFunctions) {
    const LibMapFn replica = kAvx2Maps[static_cast<uint32_t>(c.f)];
    const auto sweep = [&](auto map) {
      SweepFunction(c, map, 0, 0xffffffff, 4099, fail);
      for (uint32_t centre : centres)
        for (uint32_t x : {centre, centre | 0x80000000u}) SweepFunction(c, map, x - 40, x + 40, 1, fail);
    };
    sweep([&](const float *s, float *d, uint64_t n) { LibMap(c.f, s, d, n); });
    if (replicas && replica != nullptr) {
      sweep(replica);
      EXPECT_TRUE(LibCheckGate().unary >> static_cast<uint32_t>(c.f) & 1) << c.name;
    }
  }
  for (const auto &c : kLibPairFunctions) {
    SweepPairs(c, [&](const float *p, float *d, uint64_t n) { LibMapPairs(c.f, p, d, n); }, 0, 0xffffffff, 16411, fail);
    if (replicas) {
      SweepPairs(c, kAvx2PairMaps[static_cast<uint32_t>(c.f)], 0, 0xffffffff, 16411, fail);
      EXPECT_TRUE(LibCheckGate().pair >> static_cast<uint32_t>(c.f) & 1) << c.name;
    }
  }
}

}  // namespace
