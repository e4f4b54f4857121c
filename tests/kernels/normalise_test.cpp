// Mean removal and RMS normalisation kernels: conversion of the first operand, the real and complex
// scaling rules, untouched zero and empty blocks, and refused destination types.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "compute/compute.h"
#include "platform/core/errors.h"

namespace {

std::string TypeErrorText(ElementType t) {
  return std::string("invalid data type for operation (") + TypeIdent(t) + ")";
}

// Expects exactly one pending error with the type refusal of t, and clears it.
void ExpectTypeError(uint32_t status, ElementType t) {
  EXPECT_EQ(status, E_MSG);
  ASSERT_EQ(ExceptionCount(), 1u);
  EXPECT_EQ(std::string(ExceptionText(0)), TypeErrorText(t));
  ExceptionClear();
}

TEST(ComputeZeromean, RealBlockNewAndInPlace) {
  std::vector<float> src = {1, 2, 3, 6}, dst(4, 99.0f);
  EXPECT_EQ(ComputeZeromean(0, src.data(), TypeReal32, nullptr, 0, 4, dst.data(), TypeReal32), 0u);
  EXPECT_EQ(dst, (std::vector<float>{-2, -1, 0, 3}));
  EXPECT_EQ(src, (std::vector<float>{1, 2, 3, 6}));
  EXPECT_EQ(ComputeZeromean(0, src.data(), TypeReal32, nullptr, 0, 4, src.data(), TypeReal32), 0u);
  EXPECT_EQ(src, (std::vector<float>{-2, -1, 0, 3}));
}

TEST(ComputeZeromean, IntegerAndImaginarySources) {
  std::vector<int16_t> ints = {1, 2, 3, 6};
  std::vector<float> dst(4);
  EXPECT_EQ(ComputeZeromean(0, ints.data(), TypeInt16, nullptr, 0, 4, dst.data(), TypeReal32), 0u);
  EXPECT_EQ(dst, (std::vector<float>{-2, -1, 0, 3}));
  // An imaginary image works on its coefficients; imag64 is narrowed into imag32 first.
  std::vector<double> imag = {10, 20, 30, 60};
  EXPECT_EQ(ComputeZeromean(0, imag.data(), TypeImag64, nullptr, 0, 4, dst.data(), TypeImag32), 0u);
  EXPECT_EQ(dst, (std::vector<float>{-20, -10, 0, 30}));
}

TEST(ComputeZeromean, ComplexBlockAndLoneLastElement) {
  std::vector<float> c = {1, -1, 3, -3, 5, -8};
  EXPECT_EQ(ComputeZeromean(0, c.data(), TypeCmplx32, nullptr, 0, 3, c.data(), TypeCmplx32), 0u);
  EXPECT_EQ(c, (std::vector<float>{-2, 3, 0, 1, 2, -4}));
  // The remainder block of a long image may hold one element: it becomes 0.
  float last = 123.5f;
  EXPECT_EQ(ComputeZeromean(0, &last, TypeReal32, nullptr, 0, 1, &last, TypeReal32), 0u);
  EXPECT_EQ(last, 0.0f);
}

TEST(ComputeRmsNorm, RealDividesByRms) {
  std::vector<float> v = {3, -4};
  EXPECT_EQ(ComputeRmsNorm(0, v.data(), TypeReal32, nullptr, 0, 2, v.data(), TypeReal32), 0u);
  const float rms = std::sqrt(25.0f / 2.0f);
  EXPECT_EQ(v[0], 3.0f / rms);
  EXPECT_EQ(v[1], -4.0f / rms);
}

// Values for which dividing by the RMS and multiplying by its reciprocal differ in at least one
// element, so that the two rules can be told apart.
std::vector<float> Ramp(int n) {
  std::vector<float> v;
  for (int i = 1; i <= n; ++i) v.push_back(static_cast<float>(i) * 0.3f - 1.0f);
  return v;
}

TEST(ComputeRmsNorm, RealAndComplexRulesDiffer) {
  const int n = 41;  // more than two scaling chunks, with a remainder
  std::vector<float> re = Ramp(n);
  double sum = 0;
  for (float x : re) sum += static_cast<double>(x) * x;
  const float rms = std::sqrt(static_cast<float>(sum) / static_cast<float>(n));
  const float f = 1.0f / rms;
  int differ = 0;
  for (float x : re) differ += (x / rms != x * f);
  ASSERT_GT(differ, 0);

  std::vector<float> real = re;
  EXPECT_EQ(ComputeRmsNorm(0, real.data(), TypeReal32, nullptr, 0, n, real.data(), TypeReal32), 0u);
  for (int i = 0; i < n; ++i) EXPECT_EQ(real[i], re[i] / rms) << i;

  // The same values as the real parts of complex elements with zero imaginary parts: same RMS.
  std::vector<float> cplx(2 * n, 0.0f);
  for (int i = 0; i < n; ++i) cplx[2 * i] = re[i];
  std::vector<float> out(2 * n, 7.0f);
  EXPECT_EQ(ComputeRmsNorm(0, cplx.data(), TypeCmplx32, nullptr, 0, n, out.data(), TypeCmplx32), 0u);
  for (int i = 0; i < n; ++i) {
    EXPECT_EQ(out[2 * i], re[i] * f) << i;
    EXPECT_EQ(out[2 * i + 1], 0.0f) << i;
  }
}

TEST(ComputeRmsNorm, ComplexRmsUsesSquaredMagnitudes) {
  std::vector<float> c = {3, 4, 0, -5, 1, 2};  // |z|^2 = 25, 25, 5
  std::vector<float> expect = c;
  const float f = 1.0f / std::sqrt(55.0f / 3.0f);
  for (float &x : expect) x = x * f;
  EXPECT_EQ(ComputeRmsNorm(0, c.data(), TypeCmplx32, nullptr, 0, 3, c.data(), TypeCmplx32), 0u);
  EXPECT_EQ(c, expect);
}

TEST(ComputeRmsNorm, ZeroEmptyAndSingleBlocks) {
  std::vector<float> zeros = {0.0f, -0.0f, 0.0f};
  EXPECT_EQ(ComputeRmsNorm(0, zeros.data(), TypeReal32, nullptr, 0, 3, zeros.data(), TypeReal32), 0u);
  EXPECT_FALSE(std::signbit(zeros[0]));
  EXPECT_TRUE(std::signbit(zeros[1]));  // left as it was, not divided
  float dummy = 4.0f;
  EXPECT_EQ(ComputeRmsNorm(0, &dummy, TypeReal32, nullptr, 0, 0, &dummy, TypeReal32), 0u);
  EXPECT_EQ(dummy, 4.0f);
  std::vector<float> cz(4, 0.0f);
  EXPECT_EQ(ComputeRmsNorm(0, cz.data(), TypeCmplx32, nullptr, 0, 2, cz.data(), TypeCmplx32), 0u);
  EXPECT_EQ(cz, std::vector<float>(4, 0.0f));
  // A lone element becomes its sign.
  float neg = -5.5f, pos = 1e-3f;
  EXPECT_EQ(ComputeRmsNorm(0, &neg, TypeReal32, nullptr, 0, 1, &neg, TypeReal32), 0u);
  EXPECT_EQ(ComputeRmsNorm(0, &pos, TypeReal32, nullptr, 0, 1, &pos, TypeReal32), 0u);
  EXPECT_EQ(neg, -1.0f);
  EXPECT_EQ(pos, 1.0f);
}

TEST(ComputeRmsNorm, NanBlockIsLeftAsConverted) {
  std::vector<float> v = {1.0f, std::numeric_limits<float>::quiet_NaN(), 2.0f};
  EXPECT_EQ(ComputeRmsNorm(0, v.data(), TypeReal32, nullptr, 0, 3, v.data(), TypeReal32), 0u);
  EXPECT_EQ(v[0], 1.0f);
  EXPECT_EQ(v[2], 2.0f);
}

TEST(ComputeRmsNorm, ConvertsIntegerSource) {
  std::vector<uint8_t> src = {3, 4};
  std::vector<float> dst(2);
  EXPECT_EQ(ComputeRmsNorm(0, src.data(), TypeUint8, nullptr, 0, 2, dst.data(), TypeReal32), 0u);
  const float rms = std::sqrt(25.0f / 2.0f);
  EXPECT_EQ(dst, (std::vector<float>{3.0f / rms, 4.0f / rms}));
}

TEST(NormaliseKernels, RefuseOtherDestinationTypes) {
  ExceptionClear();
  std::vector<double> src = {1, 2, 3, 4};
  std::vector<double> dst = {7, 7, 7, 7};
  for (Kernel k : {ComputeZeromean, ComputeRmsNorm}) {
    for (ElementType t : {TypeCmplx64, TypeReal64, TypeImag64, TypeInt32, TypeUint8, 0x123456u}) {
      ExpectTypeError(k(0, src.data(), TypeCmplx64, nullptr, 0, 2, dst.data(), t), t);
      EXPECT_EQ(dst, (std::vector<double>{7, 7, 7, 7}));
    }
  }
}

TEST(NormaliseKernels, FailedConversionIsPassedOn) {
  ExceptionClear();
  std::vector<float> src = {1, 2}, dst = {7, 7};
  ExpectTypeError(ComputeZeromean(0, src.data(), 0x777u, nullptr, 0, 2, dst.data(), TypeReal32), 0x777u);
  ExpectTypeError(ComputeRmsNorm(0, src.data(), 0x777u, nullptr, 0, 2, dst.data(), TypeReal32), 0x777u);
  EXPECT_EQ(dst, (std::vector<float>{7, 7}));
}

}  // namespace
