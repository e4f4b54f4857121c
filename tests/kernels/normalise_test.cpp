// Mean removal and RMS normalisation of one block: conversion of the first operand, division by the
// RMS for real and imaginary blocks against multiplication by its reciprocal for complex ones, blocks
// left as they are, and the refusals.
#include "kernel_check.h"
#include "platform/core/statistics.h"

namespace {

using Floats = std::vector<float>;

// To a new buffer; a source already of the destination type is read directly, which must give what
// the same block normalised in place gives.
Floats Normalised(Kernel k, const Buf &src, ElementType dt) {
  Buf dst(dt, src.size());
  EXPECT_EQ(k(0, src.data(), src.type, nullptr, 0, src.size(), dst.data(), dt), 0u);
  if (src.type == dt) {
    Buf in_place = src;
    EXPECT_EQ(k(0, in_place.data(), dt, nullptr, 0, src.size(), in_place.data(), dt), 0u);
    EXPECT_EQ(in_place.bytes, dst.bytes);
  }
  Floats out(dst.bytes.size() / 4);
  std::memcpy(out.data(), dst.data(), dst.bytes.size());
  return out;
}

template <class T = float> Buf Of(ElementType t, const std::vector<T> &v) {
  Buf b(t, v.size() * sizeof(T) / TypeSize(t));
  std::memcpy(b.data(), v.data(), b.bytes.size());
  return b;
}

TEST(Normalise, MeanRemoval) {
  EXPECT_EQ(Normalised(ComputeZeromean, Of(TypeReal32, {1, 2, 3, 6}), TypeReal32), (Floats{-2, -1, 0, 3}));
  EXPECT_EQ(Normalised(ComputeZeromean, Of<int16_t>(TypeInt16, {1, 2, 3, 6}), TypeReal32), (Floats{-2, -1, 0, 3}));
  EXPECT_EQ(Normalised(ComputeZeromean, Of<double>(TypeImag64, {1, 2, 3, 6}), TypeImag32), (Floats{-2, -1, 0, 3}));
  Floats c = {1, -1, 3, -3, 5, -8};
  ASSERT_EQ(ComputeZeromean(0, c.data(), TypeCmplx32, nullptr, 0, 3, c.data(), TypeCmplx32), 0u);
  EXPECT_EQ(c, (Floats{-2, 3, 0, 1, 2, -4}));
  // The last block of a long image may hold one element: it becomes 0.
  EXPECT_EQ(Normalised(ComputeZeromean, Of(TypeReal32, {123.5f}), TypeReal32), (Floats{0}));
}

// A ramp for which dividing by the RMS and multiplying by its reciprocal differ in some elements,
// the RMS taken from the imported sum of squares.
TEST(Normalise, RealDividesComplexMultipliesByReciprocal) {
  Floats ramp;
  for (int i = 1; i <= 41; ++i) ramp.push_back(static_cast<float>(i) * 0.3f - 1.0f);
  float s;
  Sumabs2Real(ramp.size(), ramp.data(), &s);
  const float rms = std::sqrt(s / 41.0f), f = 1.0f / rms;
  int differ = 0;
  for (float x : ramp) differ += x / rms != x * f;
  ASSERT_GT(differ, 0);
  for (ElementType t : {TypeReal32, TypeImag32}) {
    const Floats got = Normalised(ComputeRmsNorm, Of(TypeReal32, ramp), t);
    for (size_t i = 0; i < ramp.size(); ++i) EXPECT_EQ(got[i], ramp[i] / rms) << i;
  }
  Floats cplx(82, 0.0f);
  for (int i = 0; i < 41; ++i) cplx[2 * i] = ramp[i];
  const Floats got = Normalised(ComputeRmsNorm, Of(TypeCmplx32, cplx), TypeCmplx32);
  for (size_t i = 0; i < 82; ++i) EXPECT_EQ(got[i], cplx[i] * f) << i;
  // Squared magnitudes: 25, 25, 5.
  const float g = 1.0f / std::sqrt(55.0f / 3.0f);
  EXPECT_EQ(Normalised(ComputeRmsNorm, Of(TypeCmplx32, {3, 4, 0, -5, 1, 2}), TypeCmplx32),
            (Floats{3 * g, 4 * g, 0 * g, -5 * g, 1 * g, 2 * g}));
  const float r = std::sqrt(25.0f / 2.0f);
  EXPECT_EQ(Normalised(ComputeRmsNorm, Of<int16_t>(TypeInt16, {3, -4}), TypeReal32), (Floats{3 / r, -4 / r}));
}

// All-zero, NaN and empty blocks stay as converted; a lone element becomes its sign.
TEST(Normalise, BlocksLeftAsTheyAre) {
  const Floats zeros = Normalised(ComputeRmsNorm, Of(TypeReal32, {0.0f, -0.0f}), TypeReal32);
  EXPECT_TRUE(std::signbit(zeros[1]));
  EXPECT_EQ(Normalised(ComputeRmsNorm, Of(TypeCmplx32, {0, 0, 0, 0}), TypeCmplx32), Floats(4, 0.0f));
  const Floats nan = Normalised(ComputeRmsNorm, Of(TypeReal32, {1.0f, NAN, 2.0f}), TypeReal32);
  EXPECT_EQ(nan[2], 2.0f);
  float x = 4.0f;
  EXPECT_EQ(ComputeRmsNorm(0, &x, TypeReal32, nullptr, 0, 0, &x, TypeReal32), 0u);
  EXPECT_EQ(x, 4.0f);
  EXPECT_EQ(Normalised(ComputeRmsNorm, Of(TypeReal32, {-5.5f}), TypeReal32), (Floats{-1}));
  EXPECT_EQ(Normalised(ComputeRmsNorm, Of(TypeReal32, {1e-3f}), TypeReal32), (Floats{1}));
}

TEST(Normalise, Refusals) {
  for (Kernel k : {ComputeZeromean, ComputeRmsNorm}) {
    std::vector<Refusal> cases = {{k, 0x777, 0, TypeReal32, 0x777}};
    for (ElementType t : {TypeCmplx64, TypeReal64, TypeImag64, TypeInt32, TypeUint8, 0x123456u})
      cases.push_back({k, TypeCmplx64, 0, t, t});
    CheckRefusals(cases);
  }
}

}  // namespace
