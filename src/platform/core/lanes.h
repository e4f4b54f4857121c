// Eight-lane binary64 summation, shared by the block statistics and the image-file library's header
// statistics. Element i of a run goes to lane i % 8 and the lanes are folded pairwise in a fixed
// order, so a sum does not depend on the vector width the compiler chooses; the eight independent
// chains of additions also overlap in the processor, where one accumulator would wait on each add.
#pragma once
#include <cstddef>
#include <cstdint>

inline constexpr size_t kSumLanes = 8;

// Calls step(lane, i) for i = 0 .. n-1 in order, element i on lane i % 8.
template <class Step>
inline __attribute__((always_inline)) void SumLanes(uint64_t n, Step step) {
  uint64_t i = 0;
  for (; i + kSumLanes <= n; i += kSumLanes)
    for (size_t j = 0; j < kSumLanes; ++j) step(j, i + j);
  for (size_t j = 0; i < n; ++i, ++j) step(j, i);
}

// The lanes added pairwise, in a fixed order.
inline double FoldLanes(const double (&lane)[kSumLanes]) {
  return ((lane[0] + lane[1]) + (lane[2] + lane[3])) + ((lane[4] + lane[5]) + (lane[6] + lane[7]));
}
