// Minimum and maximum: which operand survives for NaN and for equal values (+0 against -0) with an
// image or a number as second operand, every operand type, long blocks through the grouped loops, in
// place, and the refusals.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "function_samples.h"

using namespace samples;

namespace {

// NaNs with their own payloads, so that the stored one can be told apart.
const float kNanA = FromBits(0x7fc0000a);
const float kNanB = FromBits(0x7fc0000b);

std::vector<float> Image(Kernel kernel, const std::vector<float> &a, const std::vector<float> &b) {
  std::vector<float> dst(a.size());
  EXPECT_EQ(kernel(1, a.data(), TypeReal32, b.data(), TypeReal32, a.size(), dst.data(), TypeReal32), 0u);
  return dst;
}

std::vector<float> Number(Kernel kernel, const std::vector<float> &a, float b) {
  std::vector<float> dst(a.size());
  EXPECT_EQ(kernel(0, a.data(), TypeReal32, &b, TypeReal32, a.size(), dst.data(), TypeReal32), 0u);
  return dst;
}

::testing::AssertionResult SameBits(const std::vector<float> &got, const std::vector<float> &want) {
  for (size_t k = 0; k < want.size(); ++k)
    if (k >= got.size() || Bits(got[k]) != Bits(want[k]))
      return ::testing::AssertionFailure() << "element " << k << ": got " << std::hex << Bits(got[k])
                                           << ", want " << Bits(want[k]);
  return ::testing::AssertionSuccess();
}

// Expected results from the stated rule rather than from a comparison in a fixed order: with an image,
// the first value stays on NaN or equality; with a number, the number is stored on NaN or equality.
float ExpectImage(bool max, float d, float b) {
  if (std::isnan(d) || std::isnan(b) || d == b) return d;
  return (max ? d > b : d < b) ? d : b;
}
float ExpectNumber(bool max, float d, float b) {
  if (std::isnan(d) || std::isnan(b) || d == b) return b;
  return (max ? d > b : d < b) ? d : b;
}

// The pattern repeated to a length that covers several groups of eight and a tail.
std::vector<float> Repeat(const std::vector<float> &v, size_t n) {
  std::vector<float> out;
  while (out.size() < n) out.push_back(v[out.size() % v.size()]);
  return out;
}

TEST(MinMax, NaNWithNumber) {
  EXPECT_TRUE(SameBits(Number(ComputeMax, {1, NAN, 3}, 2), {2, 2, 3}));
  EXPECT_TRUE(SameBits(Number(ComputeMin, {1, NAN, 3}, 2), {1, 2, 2}));
  // A NaN number makes every result that NaN.
  EXPECT_TRUE(SameBits(Number(ComputeMax, {1, kNanA, -INFINITY}, kNanB), {kNanB, kNanB, kNanB}));
  EXPECT_TRUE(SameBits(Number(ComputeMin, {1, kNanA, INFINITY}, kNanB), {kNanB, kNanB, kNanB}));
}

TEST(MinMax, NaNWithImage) {
  EXPECT_TRUE(SameBits(Image(ComputeMax, {1, NAN, 3}, {2, 2, NAN}), {2, NAN, 3}));
  EXPECT_TRUE(SameBits(Image(ComputeMin, {1, NAN, 3}, {2, 2, NAN}), {1, NAN, 3}));
  // Both NaN: the first operand's NaN stays.
  EXPECT_TRUE(SameBits(Image(ComputeMax, {kNanA}, {kNanB}), {kNanA}));
  EXPECT_TRUE(SameBits(Image(ComputeMin, {kNanA}, {kNanB}), {kNanA}));
}

TEST(MinMax, SignedZeros) {
  EXPECT_TRUE(SameBits(Image(ComputeMax, {-0.0f}, {0.0f}), {-0.0f}));
  EXPECT_TRUE(SameBits(Image(ComputeMin, {0.0f}, {-0.0f}), {0.0f}));
  EXPECT_TRUE(SameBits(Number(ComputeMax, {-0.0f}, 0.0f), {0.0f}));
  EXPECT_TRUE(SameBits(Number(ComputeMin, {0.0f}, -0.0f), {-0.0f}));
}

// Every pairing of edge values, in blocks long enough for the grouped loops, against the rule.
TEST(MinMax, LongBlocksFollowTheRule) {
  const std::vector<float> edges = {0.0f, -0.0f, kNanA, 1.0f, -1.0f, INFINITY, -INFINITY, 2.5f, -2.5f, 1e-30f};
  std::vector<float> a, b;
  for (float x : edges)
    for (float y : edges) a.push_back(x), b.push_back(y);
  for (size_t i = 0; i < 3; ++i) a.push_back(7.0f), b.push_back(kNanB);  // tail of a 103-element block
  for (bool max : {false, true}) {
    const Kernel kernel = max ? ComputeMax : ComputeMin;
    const std::vector<float> got = Image(kernel, a, b);
    for (size_t k = 0; k < a.size(); ++k)
      EXPECT_EQ(Bits(got[k]), Bits(ExpectImage(max, a[k], b[k]))) << a[k] << " " << b[k];
    for (float number : edges) {
      const std::vector<float> gotn = Number(kernel, a, number);
      for (size_t k = 0; k < a.size(); ++k)
        EXPECT_EQ(Bits(gotn[k]), Bits(ExpectNumber(max, a[k], number))) << a[k] << " " << number;
    }
  }
}

// Every second operand type (image and number) and every first operand type, which goes through the
// conversion into real32 (coefficient of an imaginary value, real part of a complex one).
TEST(MinMax, EveryOperandType) {
  ForEachType([](auto tag1, ElementType t1) {
    using A = decltype(tag1);
    const std::vector<A> a = Block<A>();
    std::vector<float> d;
    for (const A &x : a) {
      if constexpr (kIsCmplx<A>) d.push_back(static_cast<float>(x.re));
      else d.push_back(ElementToReal32(x));
    }
    ForEachType([&](auto tag2, ElementType t2) {
      using B = decltype(tag2);
      if constexpr (!kIsCmplx<B>) {
        const std::vector<B> b = Block<B>();
        const size_t n = std::min(a.size(), b.size());
        for (bool max : {false, true}) {
          const Kernel kernel = max ? ComputeMax : ComputeMin;
          std::vector<float> dst(n);
          ASSERT_EQ(kernel(1, a.data(), t1, b.data(), t2, n, dst.data(), TypeReal32), 0u);
          for (size_t k = 0; k < n; ++k)
            EXPECT_EQ(Bits(dst[k]), Bits(ExpectImage(max, d[k], ElementToReal32(b[k]))))
                << TypeIdent(t1) << " " << TypeIdent(t2) << " " << k;
          const B number = b[4];
          ASSERT_EQ(kernel(0, a.data(), t1, &number, t2, n, dst.data(), TypeReal32), 0u);
          for (size_t k = 0; k < n; ++k)
            EXPECT_EQ(Bits(dst[k]), Bits(ExpectNumber(max, d[k], ElementToReal32(number))))
                << TypeIdent(t1) << " " << TypeIdent(t2) << " number, " << k;
        }
      }
    });
  });
}

TEST(MinMax, MixedTypesCompareAsReal32) {
  const std::vector<int16_t> a = {-300, 5, 200, 0};
  const std::vector<uint8_t> b = {255, 4, 200, 1};
  std::vector<float> dst(4);
  ASSERT_EQ(ComputeMin(1, a.data(), TypeInt16, b.data(), TypeUint8, 4, dst.data(), TypeReal32), 0u);
  EXPECT_TRUE(SameBits(dst, {-300, 4, 200, 0}));
  // The coefficients of an imaginary image are compared with the number.
  const std::vector<Imag32> im = {{7}, {-1}, {5}};
  const Imag32 five{5};
  ASSERT_EQ(ComputeMax(0, im.data(), TypeImag32, &five, TypeImag32, 3, dst.data(), TypeReal32), 0u);
  EXPECT_TRUE(SameBits({dst[0], dst[1], dst[2]}, {7, 5, 5}));
  // int32 2^24 + 1 against 2^24 + 2 as binary32: 2^24 and 2^24 + 2.
  const std::vector<int32_t> big = {16777217};
  const double other = 16777218.0;
  ASSERT_EQ(ComputeMax(0, big.data(), TypeInt32, &other, TypeReal64, 1, dst.data(), TypeReal32), 0u);
  EXPECT_EQ(dst[0], 16777218.0f);
}

TEST(MinMax, InPlaceWithNumber) {
  const std::vector<float> orig = Repeat({1.0f, kNanA, -0.0f, 3.0f, -5.0f}, 29);
  for (bool max : {false, true}) {
    std::vector<float> buf = orig;
    const float number = 0.0f;
    ASSERT_EQ((max ? ComputeMax : ComputeMin)(0, buf.data(), TypeReal32, &number, TypeReal32, buf.size(), buf.data(), TypeReal32), 0u);
    for (size_t k = 0; k < buf.size(); ++k) EXPECT_EQ(Bits(buf[k]), Bits(ExpectNumber(max, orig[k], number))) << k;
  }
  // The second image may be the destination buffer itself: every element is compared with itself.
  std::vector<float> buf = orig;
  ASSERT_EQ(ComputeMax(1, buf.data(), TypeReal32, buf.data(), TypeReal32, buf.size(), buf.data(), TypeReal32), 0u);
  EXPECT_TRUE(SameBits(buf, orig));
}

TEST(MinMax, Refusals) {
  const float fill = FromBits(0x7f8dead0);
  const std::vector<int16_t> a = {1, -2};
  const std::vector<Cmplx32> c = {{5, 6}, {7, 8}};
  for (Kernel kernel : {ComputeMin, ComputeMax}) {
    // A refused destination: nothing written.
    std::vector<float> dst(4, fill);
    EXPECT_TRUE(RefusedNaming(kernel(1, a.data(), TypeInt16, a.data(), TypeInt16, 2, dst.data(), TypeReal64), TypeReal64));
    EXPECT_TRUE(SameBits(dst, {fill, fill, fill, fill}));
    // A complex second operand: the destination already holds the converted first operand.
    EXPECT_TRUE(RefusedNaming(kernel(1, a.data(), TypeInt16, c.data(), TypeCmplx32, 2, dst.data(), TypeReal32), TypeCmplx32));
    EXPECT_TRUE(SameBits(dst, {1, -2, fill, fill}));
    EXPECT_TRUE(RefusedNaming(kernel(0, a.data(), TypeInt16, c.data(), TypeCmplx64, 2, dst.data(), TypeReal32), TypeCmplx64));
    EXPECT_TRUE(RefusedNaming(kernel(0, a.data(), TypeInt16, c.data(), 0x123, 2, dst.data(), TypeReal32), 0x123));
    // An unknown first operand type fails in the conversion.
    EXPECT_TRUE(RefusedNaming(kernel(1, a.data(), 0x301010, a.data(), TypeInt16, 2, dst.data(), TypeReal32), 0x301010));
  }
}

TEST(MinMax, EmptyBlock) {
  const float x = 1.0f;
  float dst = FromBits(0x7f8dead0);
  EXPECT_EQ(ComputeMax(1, &x, TypeReal64, &x, TypeReal32, 0, &dst, TypeReal32), 0u);
  EXPECT_EQ(ComputeMin(0, &x, TypeReal32, &x, TypeReal32, 0, &dst, TypeReal32), 0u);
  EXPECT_EQ(Bits(dst), 0x7f8dead0u);
  EXPECT_EQ(ExceptionCount(), 0u);
}

}  // namespace
