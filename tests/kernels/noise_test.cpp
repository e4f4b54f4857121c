// Noise kernels, reproduced bit for bit by a separate model of the generator's use: each test seeds
// the C library generator, runs a kernel, then reseeds and replays the same draws by hand.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "compute/compute.h"
#include "platform/core/errors.h"

namespace {

const unsigned kSeeds[] = {123, 987654321};

// Bits of a binary32, so that NaN and signed zeros compare exactly.
uint32_t Bits(float x) {
  uint32_t b;
  std::memcpy(&b, &x, 4);
  return b;
}

void ExpectSameBits(const std::vector<float> &got, const std::vector<float> &want, const char *what) {
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < got.size(); ++i)
    ASSERT_EQ(Bits(got[i]), Bits(want[i])) << what << " element " << i << ": " << got[i] << " vs " << want[i];
}

// Model of the Gaussian draw: pairs in the unit quarter disc, then a separate sign draw.
double ModelNormal(double amplitude) {
  const double scale = 1.0 / 2147483647.0;
  for (;;) {
    const int ru = std::rand();
    const int rv = std::rand();
    const double u = ru * scale, v = rv * scale;
    const double s = u * u + v * v;
    if (!(s < 1.0)) continue;
    const double mag = std::sqrt(-2.0 * std::log(s) / s) * u;
    const bool positive = std::rand() >= (1 << 30);
    return (positive ? mag : -mag) * amplitude;
  }
}

float UniformDraw() { return static_cast<float>(std::rand()); }
const float kTwoPowMinus31 = std::ldexp(1.0f, -31);

// First operand values: ordinary, large, tiny, signed zeros and non-finite.
std::vector<float> FirstOperand() {
  std::vector<float> v = {0.0f, -0.0f, 1.0f, -2.5f, 1000.0f, 3.0e38f, -1.0e-30f, 0.125f,
                          std::numeric_limits<float>::infinity(), -7.0f, 42.0f, 0.3f};
  for (int i = 0; i < 27; ++i) v.push_back(static_cast<float>(i * i) * 0.01f - 2.0f);
  return v;
}

std::vector<float> Amplitudes(size_t n) {
  std::vector<float> a;
  for (size_t i = 0; i < n; ++i) a.push_back(static_cast<float>(static_cast<int>(i % 9) - 3) * 0.75f);
  // Tiny amplitudes: scaled by 2^-31 first, they flush to zero before the draw is applied.
  a[0] = 1e-30f;
  a[3] = -2e-36f;
  // A large amplitude against the tiny first operand -1e-30: d * 2^-31 flushes to zero, b * d does not.
  a[6] = 1e20f;
  return a;
}

enum class Op { AddUniform, MulUniform, AddNormal, MulNormal };

Kernel KernelOf(Op op) {
  switch (op) {
    case Op::AddUniform: return ComputeAddUniform;
    case Op::MulUniform: return ComputeMulUniform;
    case Op::AddNormal: return ComputeAddNormal;
    default: return ComputeMulNormal;
  }
}

// Expected block for amplitudes amp (one value when scalar is true), drawing from rand().
std::vector<float> Model(Op op, const std::vector<float> &d, const std::vector<float> &amp, bool scalar) {
  std::vector<float> out(d.size());
  const float c = amp[0] * kTwoPowMinus31;
  for (size_t k = 0; k < d.size(); ++k) {
    const float a = scalar ? amp[0] : amp[k];
    switch (op) {
      case Op::AddUniform:
        out[k] = scalar ? UniformDraw() * c + d[k] : (a * kTwoPowMinus31) * UniformDraw() + d[k];
        break;
      case Op::MulUniform:
        out[k] = scalar ? (d[k] * c) * UniformDraw() : ((d[k] * kTwoPowMinus31) * a) * UniformDraw();
        break;
      case Op::AddNormal: {
        const double g = ModelNormal(a);
        out[k] = static_cast<float>(static_cast<double>(d[k]) + g);
        break;
      }
      case Op::MulNormal: {
        const double g = ModelNormal(a);
        out[k] = static_cast<float>(g * static_cast<double>(d[k]));
        break;
      }
    }
  }
  return out;
}

const Op kOps[] = {Op::AddUniform, Op::MulUniform, Op::AddNormal, Op::MulNormal};

TEST(NoiseKernels, ScalarAmplitudeMatchesModel) {
  const std::vector<float> d = FirstOperand();
  for (unsigned seed : kSeeds)
    for (Op op : kOps)
      for (float a : {2.5f, -1.0f, 1e6f, 1e-30f}) {
        std::vector<float> dst(d.size());
        std::srand(seed);
        ASSERT_EQ(KernelOf(op)(0, d.data(), TypeReal32, &a, TypeReal32, d.size(), dst.data(), TypeReal32), 0u);
        const int next = std::rand();
        std::srand(seed);
        const std::vector<float> want = Model(op, d, {a}, true);
        ExpectSameBits(dst, want, "scalar");
        EXPECT_EQ(std::rand(), next) << "draws consumed";
      }
}

TEST(NoiseKernels, ImageAmplitudeMatchesModelInPlace) {
  const std::vector<float> d = FirstOperand();
  const std::vector<float> amp = Amplitudes(d.size());
  for (unsigned seed : kSeeds)
    for (Op op : kOps) {
      std::vector<float> dst = d;
      std::srand(seed);
      ASSERT_EQ(KernelOf(op)(1, dst.data(), TypeReal32, amp.data(), TypeReal32, d.size(), dst.data(), TypeReal32), 0u);
      const int next = std::rand();
      std::srand(seed);
      ExpectSameBits(dst, Model(op, d, amp, false), "image");
      EXPECT_EQ(std::rand(), next);
    }
}

TEST(NoiseKernels, DifferentSeedsGiveDifferentNoise) {
  const std::vector<float> d(50, 1.0f);
  const float a = 1.0f;
  std::vector<float> first(d.size()), second(d.size());
  std::srand(kSeeds[0]);
  ComputeAddNormal(0, d.data(), TypeReal32, &a, TypeReal32, d.size(), first.data(), TypeReal32);
  std::srand(kSeeds[1]);
  ComputeAddNormal(0, d.data(), TypeReal32, &a, TypeReal32, d.size(), second.data(), TypeReal32);
  EXPECT_NE(first, second);
}

TEST(NoiseKernels, AmplitudeTypesAreNarrowedToBinary32) {
  // An integer first operand is converted; a real64 or imag64 amplitude is rounded to binary32 and
  // only then widened again for the Gaussian draw.
  const std::vector<uint8_t> src = {0, 1, 200, 255, 17};
  std::vector<float> d(src.begin(), src.end());
  const double a64 = 0.1;
  const std::vector<float> a32 = {static_cast<float>(a64)};
  for (ElementType at : {TypeReal64, TypeImag64})
    for (Op op : kOps) {
      std::vector<float> dst(src.size());
      std::srand(kSeeds[0]);
      ASSERT_EQ(KernelOf(op)(0, src.data(), TypeUint8, &a64, at, src.size(), dst.data(), TypeReal32), 0u);
      std::srand(kSeeds[0]);
      ExpectSameBits(dst, Model(op, d, a32, true), "real64 amplitude");
    }
  // Integer amplitude images, one per element, including values beyond 2^24.
  const std::vector<int32_t> ia = {3, -2, 16777217, 0, -100};
  const std::vector<float> fa = {3.0f, -2.0f, 16777216.0f, 0.0f, -100.0f};
  for (Op op : kOps) {
    std::vector<float> dst(src.size());
    std::srand(kSeeds[1]);
    ASSERT_EQ(KernelOf(op)(1, src.data(), TypeUint8, ia.data(), TypeInt32, src.size(), dst.data(), TypeReal32), 0u);
    std::srand(kSeeds[1]);
    ExpectSameBits(dst, Model(op, d, fa, false), "int32 amplitudes");
  }
}

TEST(NoiseKernels, ZeroAmplitude) {
  const std::vector<float> d = {1.5f, -0.0f, 0.0f, -3.0f, std::numeric_limits<float>::infinity()};
  const float zero = 0.0f;
  std::vector<float> dst(d.size());

  std::srand(kSeeds[0]);
  ASSERT_EQ(ComputeAddUniform(0, d.data(), TypeReal32, &zero, TypeReal32, d.size(), dst.data(), TypeReal32), 0u);
  const int after_uniform = std::rand();
  EXPECT_EQ(dst, d);
  EXPECT_FALSE(std::signbit(dst[1]));  // -0 + +0 is +0
  std::srand(kSeeds[0]);
  for (size_t i = 0; i < d.size(); ++i) std::rand();
  EXPECT_EQ(std::rand(), after_uniform) << "one draw per element";

  ASSERT_EQ(ComputeMulUniform(0, d.data(), TypeReal32, &zero, TypeReal32, d.size(), dst.data(), TypeReal32), 0u);
  for (size_t i = 0; i + 1 < d.size(); ++i) EXPECT_EQ(dst[i], 0.0f);
  EXPECT_TRUE(std::isnan(dst.back()));

  std::srand(kSeeds[1]);
  ASSERT_EQ(ComputeAddNormal(0, d.data(), TypeReal32, &zero, TypeReal32, d.size(), dst.data(), TypeReal32), 0u);
  const int after_normal = std::rand();
  EXPECT_EQ(dst, d);
  std::srand(kSeeds[1]);
  for (size_t i = 0; i < d.size(); ++i) ModelNormal(0.0);
  EXPECT_EQ(std::rand(), after_normal) << "at least three draws per element";

  ASSERT_EQ(ComputeMulNormal(0, d.data(), TypeReal32, &zero, TypeReal32, d.size(), dst.data(), TypeReal32), 0u);
  for (size_t i = 0; i + 1 < d.size(); ++i) EXPECT_EQ(dst[i], 0.0f);
}

TEST(NoiseKernels, UniformNoiseStaysWithinAmplitude) {
  const std::vector<float> d(2000, 0.0f);
  std::vector<float> dst(d.size());
  const float neg = -1.0f;
  std::srand(kSeeds[0]);
  ASSERT_EQ(ComputeAddUniform(0, d.data(), TypeReal32, &neg, TypeReal32, d.size(), dst.data(), TypeReal32), 0u);
  for (float x : dst) {
    EXPECT_LE(x, 0.0f);
    EXPECT_GE(x, -1.0f);
  }
}

TEST(RandomNormal, MatchesModelAndHasUnitSpread) {
  std::srand(kSeeds[1]);
  std::vector<double> got;
  for (int i = 0; i < 20000; ++i) got.push_back(RandomNormal(2.0));
  std::srand(kSeeds[1]);
  double sum = 0, sum2 = 0;
  for (double g : got) {
    ASSERT_EQ(g, ModelNormal(2.0));
    sum += g;
    sum2 += g * g;
  }
  const double mean = sum / got.size(), sd = std::sqrt(sum2 / got.size() - mean * mean);
  EXPECT_NEAR(mean, 0.0, 0.1);
  EXPECT_NEAR(sd, 2.0, 0.1);
}

std::string TypeErrorText(ElementType t) {
  return std::string("invalid data type for operation (") + TypeIdent(t) + ")";
}

TEST(NoiseKernels, Refusals) {
  ExceptionClear();
  const std::vector<float> src = {1, 2, 3};
  const float cplx_amp[2] = {1, 1};
  for (Op op : kOps) {
    // Destination other than real32: nothing is drawn or written.
    for (ElementType t : {TypeImag32, TypeCmplx32, TypeReal64}) {
      std::vector<float> dst(6, 9.0f);
      std::srand(kSeeds[0]);
      EXPECT_EQ(KernelOf(op)(0, src.data(), TypeReal32, cplx_amp, TypeReal32, 3, dst.data(), t), E_MSG);
      ASSERT_EQ(ExceptionCount(), 1u);
      EXPECT_EQ(std::string(ExceptionText(0)), TypeErrorText(t));
      ExceptionClear();
      EXPECT_EQ(dst, std::vector<float>(6, 9.0f));
    }
    // Complex or unknown amplitude: refused after the first operand has been converted.
    for (ElementType t : {TypeCmplx32, TypeCmplx64, 0x4242u}) {
      std::vector<float> dst(3, 9.0f);
      std::srand(kSeeds[0]);
      const int first = std::rand();
      std::srand(kSeeds[0]);
      EXPECT_EQ(KernelOf(op)(1, src.data(), TypeReal32, cplx_amp, t, 3, dst.data(), TypeReal32), E_MSG);
      ASSERT_EQ(ExceptionCount(), 1u);
      EXPECT_EQ(std::string(ExceptionText(0)), TypeErrorText(t));
      ExceptionClear();
      EXPECT_EQ(dst, src);
      EXPECT_EQ(std::rand(), first) << "no draws";
    }
  }
}

}  // namespace
