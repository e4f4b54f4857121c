// Elementary real functions: every accepted source type against the C library evaluated element by
// element, edge values, in-place use and the refusals.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "function_samples.h"

using namespace samples;

namespace {

using LibFn = float (*)(float);

struct FunctionCase {
  const char *name;
  Kernel kernel;
  LibFn lib;
};

// The reference calls go through a pointer, so each one is a real call of the C library function.
float LibSqrt(float x) {
  static float (*volatile f)(float) = sqrtf;
  return f(x);
}

const FunctionCase kFunctions[] = {
    {"sqrt", ComputeSqrt, LibSqrt}, {"exp", ComputeExp, expf},    {"ln", ComputeLn, logf},
    {"cos", ComputeCos, cosf},      {"sin", ComputeSin, sinf},    {"tan", ComputeTan, tanf},
    {"asin", ComputeAsin, asinf},   {"acos", ComputeAcos, acosf}, {"atan", ComputeAtan, atanf},
};

template <class T> std::vector<float> Apply(Kernel kernel, const std::vector<T> &src, ElementType type) {
  std::vector<float> dst(src.size(), FromBits(0x7f8dead0));
  EXPECT_EQ(kernel(0, src.data(), type, nullptr, 0, src.size(), dst.data(), TypeReal32), 0u);
  return dst;
}

float Unary(Kernel kernel, float x) { return Apply(kernel, std::vector<float>{x}, TypeReal32)[0]; }

TEST(Functions, EveryIntegerAndRealTypeMatchesLibrary) {
  for (const FunctionCase &fc : kFunctions) {
    ForEachType([&](auto tag, ElementType type) {
      using T = decltype(tag);
      if constexpr (kIsRealOrInt<T>) {
        const std::vector<T> src = Block<T>();
        const std::vector<float> dst = Apply(fc.kernel, src, type);
        for (size_t k = 0; k < src.size(); ++k)
          EXPECT_TRUE(SameFloat(dst[k], fc.lib(static_cast<float>(src[k]))))
              << fc.name << " of " << TypeIdent(type) << " element " << k;
      }
    });
  }
}

TEST(Functions, InPlaceReplacesEachElement) {
  for (const FunctionCase &fc : kFunctions) {
    const std::vector<float> orig = Block<float>();
    std::vector<float> buf = orig;
    ASSERT_EQ(fc.kernel(0, buf.data(), TypeReal32, nullptr, 0, buf.size(), buf.data(), TypeReal32), 0u);
    for (size_t k = 0; k < buf.size(); ++k)
      EXPECT_TRUE(SameFloat(buf[k], fc.lib(orig[k]))) << fc.name << " element " << k;
  }
}

TEST(Functions, EdgeValues) {
  EXPECT_EQ(Bits(Unary(ComputeSqrt, -0.0f)), 0x80000000u);
  EXPECT_TRUE(std::isnan(Unary(ComputeSqrt, -4.0f)));
  EXPECT_EQ(Unary(ComputeSqrt, 16.0f), 4.0f);
  EXPECT_EQ(Unary(ComputeLn, 0.0f), -INFINITY);
  EXPECT_EQ(Unary(ComputeLn, -0.0f), -INFINITY);
  EXPECT_TRUE(std::isnan(Unary(ComputeLn, -1.0f)));
  EXPECT_EQ(Unary(ComputeExp, 89.0f), INFINITY);
  EXPECT_EQ(Unary(ComputeExp, -INFINITY), 0.0f);
  EXPECT_TRUE(std::isnan(Unary(ComputeAsin, 1.5f)));
  EXPECT_TRUE(std::isnan(Unary(ComputeAcos, -1.0001f)));
  EXPECT_EQ(Unary(ComputeAcos, 1.0f), 0.0f);
  EXPECT_TRUE(std::isnan(Unary(ComputeCos, INFINITY)));
}

TEST(Functions, SourcesNarrowedToBinary32First) {
  // real64 1e300 enters as +inf: atan gives pi/2 rounded to binary32.
  EXPECT_EQ(Bits(Apply(ComputeAtan, std::vector<double>{1e300}, TypeReal64)[0]), 0x3FC90FDBu);
  EXPECT_EQ(Bits(Apply(ComputeAtan, std::vector<double>{-1e300}, TypeReal64)[0]), 0xBFC90FDBu);
  // exp(1e-300) is computed from 0, not from a tiny double.
  EXPECT_EQ(Apply(ComputeExp, std::vector<double>{1e-300}, TypeReal64)[0], 1.0f);
  // int32 2^24 + 1 enters as 2^24; sin tells neighbouring inputs apart.
  LibFn volatile sin_lib = sinf;
  const float s = Apply(ComputeSin, std::vector<int32_t>{16777217}, TypeInt32)[0];
  EXPECT_EQ(Bits(s), Bits(sin_lib(16777216.0f)));
  EXPECT_NE(Bits(s), Bits(sin_lib(16777218.0f)));
  // uint64 2^64 - 1 enters as 2^64 (positive), whose root is 2^32.
  EXPECT_EQ(Apply(ComputeSqrt, std::vector<uint64_t>{UINT64_MAX}, TypeUint64)[0], 4294967296.0f);
  EXPECT_TRUE(std::isnan(Apply(ComputeSqrt, std::vector<int64_t>{-1}, TypeInt64)[0]));
  // int8 and uint16 limits are exact.
  EXPECT_EQ(Apply(ComputeSqrt, std::vector<uint16_t>{65535}, TypeUint16)[0], sqrtf(65535.0f));
  EXPECT_TRUE(std::isnan(Apply(ComputeLn, std::vector<int8_t>{-128}, TypeInt8)[0]));
}

TEST(Functions, RefusedTypesWriteNothing) {
  const float sentinel = FromBits(0x7f8dead0);
  std::vector<unsigned char> src(64, 0);
  for (const FunctionCase &fc : kFunctions) {
    for (ElementType bad : {TypeImag32, TypeImag64, TypeCmplx32, TypeCmplx64, 0x501010u}) {
      std::vector<float> dst(4, sentinel);
      EXPECT_TRUE(RefusedNaming(fc.kernel(0, src.data(), bad, nullptr, 0, 4, dst.data(), TypeReal32), bad))
          << fc.name << " source " << std::hex << bad;
      for (float v : dst) EXPECT_EQ(Bits(v), Bits(sentinel));
    }
    // The destination is checked first: a refused destination is named even for a refused source.
    for (ElementType bad : {TypeReal64, TypeImag32, TypeCmplx32, TypeInt32, 0u}) {
      std::vector<float> dst(4, sentinel);
      EXPECT_TRUE(RefusedNaming(fc.kernel(0, src.data(), TypeCmplx32, nullptr, 0, 2, dst.data(), bad), bad))
          << fc.name << " destination " << std::hex << bad;
      for (float v : dst) EXPECT_EQ(Bits(v), Bits(sentinel));
    }
  }
}

TEST(Functions, EmptyBlock) {
  for (const FunctionCase &fc : kFunctions) {
    EXPECT_EQ(fc.kernel(0, nullptr, TypeReal64, nullptr, 0, 0, nullptr, TypeReal32), 0u) << fc.name;
    EXPECT_EQ(ExceptionCount(), 0u);
  }
}

}  // namespace
