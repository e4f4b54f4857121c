// Block statistics: mean removal and sums of squares, including full-size blocks where a binary32
// accumulator would lose the small terms.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "platform/core/statistics.h"

namespace {

constexpr uint64_t kFullBlock = uint64_t{1} << 24;

TEST(ZeromeanReal, SmallBlockInPlaceAndSeparate) {
  std::vector<float> v = {1, 2, 3, 6};
  std::vector<float> out(4, -99.0f);
  ZeromeanReal(4, v.data(), out.data());
  EXPECT_EQ(out, (std::vector<float>{-2, -1, 0, 3}));
  EXPECT_EQ(v, (std::vector<float>{1, 2, 3, 6}));  // source untouched when dst differs
  ZeromeanReal(4, v.data(), v.data());
  EXPECT_EQ(v, (std::vector<float>{-2, -1, 0, 3}));
}

TEST(ZeromeanReal, OneElementBecomesZeroAndEmptyBlockIsHarmless) {
  float x = -7.25f;
  ZeromeanReal(1, &x, &x);
  EXPECT_EQ(x, 0.0f);
  float untouched = 5.0f;
  ZeromeanReal(0, &untouched, &untouched);
  EXPECT_EQ(untouched, 5.0f);
}

TEST(ZeromeanReal, FullBlockOfEqualValuesGivesExactZeros) {
  // 0.1f is not a short binary fraction; summing it 2^24 times in binary32 would drift far off.
  std::vector<float> v(kFullBlock, 0.1f);
  ZeromeanReal(v.size(), v.data(), v.data());
  uint64_t nonzero = 0;
  for (float x : v) nonzero += (x != 0.0f);
  EXPECT_EQ(nonzero, 0u);
}

TEST(ZeromeanReal, FullBlockOfTwoAlternatingValues) {
  const float lo = 0.1f, hi = 0.3f;
  std::vector<float> v(kFullBlock);
  for (uint64_t i = 0; i < v.size(); ++i) v[i] = (i % 2) ? hi : lo;
  ZeromeanReal(v.size(), v.data(), v.data());
  // The mean is exactly halfway; each deviation is half the difference, rounded once.
  const float half = static_cast<float>((static_cast<double>(hi) - static_cast<double>(lo)) / 2.0);
  EXPECT_EQ(v[0], -half);
  EXPECT_EQ(v[1], half);
  uint64_t wrong = 0;
  for (uint64_t i = 0; i < v.size(); ++i) wrong += v[i] != ((i % 2) ? half : -half);
  EXPECT_EQ(wrong, 0u);
}

TEST(ZeromeanCmplx, PartsHaveSeparateMeans) {
  std::vector<float> v = {1, 10, 2, 20, 3, 30, 6, 60, 8, 80};  // 5 complex values
  std::vector<float> out(10);
  ZeromeanCmplx(5, v.data(), out.data());
  EXPECT_EQ(out, (std::vector<float>{-3, -30, -2, -20, -1, -10, 2, 20, 4, 40}));
  ZeromeanCmplx(5, v.data(), v.data());
  EXPECT_EQ(v, out);
}

TEST(ZeromeanCmplx, FullBlockOfEqualValuesGivesExactZeros) {
  std::vector<float> v(2 * kFullBlock);
  for (uint64_t i = 0; i < v.size(); i += 2) {
    v[i] = 0.1f;
    v[i + 1] = -0.7f;
  }
  ZeromeanCmplx(kFullBlock, v.data(), v.data());
  uint64_t nonzero = 0;
  for (float x : v) nonzero += (x != 0.0f);
  EXPECT_EQ(nonzero, 0u);
}

TEST(Sumabs2, SmallBlocks) {
  float s = -1.0f;
  std::vector<float> r = {3, -4};
  Sumabs2Real(2, r.data(), &s);
  EXPECT_EQ(s, 25.0f);
  std::vector<float> c = {3, 4, -1, 2, 0, -2};  // |z|^2 = 25, 5, 4
  Sumabs2Cmplx(3, c.data(), &s);
  EXPECT_EQ(s, 34.0f);
  Sumabs2Real(0, r.data(), &s);
  EXPECT_EQ(s, 0.0f);
  Sumabs2Cmplx(0, c.data(), &s);
  EXPECT_EQ(s, 0.0f);
}

TEST(Sumabs2, FullBlockKeepsSmallTerms) {
  // 0.25 added to 2^22 in binary32 is a tie that rounds back down: a binary32 sum would stall there.
  std::vector<float> v(kFullBlock, 0.5f);
  float s = 0.0f;
  Sumabs2Real(v.size(), v.data(), &s);
  EXPECT_EQ(s, static_cast<float>(kFullBlock) * 0.25f);
  // Same data read as 2^23 complex values (0.5, 0.5).
  Sumabs2Cmplx(v.size() / 2, v.data(), &s);
  EXPECT_EQ(s, static_cast<float>(kFullBlock) * 0.25f);
}

TEST(Sumabs2, NonFiniteValuesPropagate) {
  std::vector<float> v = {1.0f, std::numeric_limits<float>::infinity(), 2.0f};
  float s = 0.0f;
  Sumabs2Real(3, v.data(), &s);
  EXPECT_EQ(s, std::numeric_limits<float>::infinity());
  v[1] = std::numeric_limits<float>::quiet_NaN();
  Sumabs2Real(3, v.data(), &s);
  EXPECT_TRUE(std::isnan(s));
  // Squares that overflow binary32 are still summed in binary64, then rounded to infinity.
  std::vector<float> big = {3e38f, 1.0f};
  Sumabs2Real(2, big.data(), &s);
  EXPECT_EQ(s, std::numeric_limits<float>::infinity());
}

}  // namespace
