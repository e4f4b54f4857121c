// Noise kernels reproduced bit for bit: each check seeds the kernels' generator, runs a kernel, then
// seeds the C library's rand() alike and replays the same draws through a separate model, and checks
// how many draws were used: the kernels' sequence must be rand()'s.
#include <cstdlib>

#include "kernel_check.h"

namespace {

const unsigned kSeeds[] = {123, 987654321};
const float kScale = std::ldexp(1.0f, -31);

// Gaussian draw: pairs in the unit quarter disc, then a separate sign draw.
double ModelNormal(double amplitude) {
  for (;;) {
    const double u = std::rand() * (1.0 / 2147483647.0), v = std::rand() * (1.0 / 2147483647.0);
    const double s = u * u + v * v;
    if (!(s < 1.0)) continue;
    const double mag = std::sqrt(-2.0 * std::log(s) / s) * u;
    return (std::rand() >= (1 << 30) ? mag : -mag) * amplitude;
  }
}

enum Op { kAddUniform, kMulUniform, kAddNormal, kMulNormal };
const Kernel kKernels[] = {ComputeAddUniform, ComputeMulUniform, ComputeAddNormal, ComputeMulNormal};

// Runs the kernel (in place when src is real32) and replays it; the amplitude is element `at` of amp
// for a number, or elements at.. of amp for an image.
void Replay(Op op, unsigned seed, const Buf &src, const Buf &amp, uint32_t image, uint64_t at = 0) {
  const uint64_t n = src.size();
  const Buf d = Converted(src, TypeReal32);
  Buf dst = src.type == TypeReal32 ? src : Buf(TypeReal32, n);
  ComputeRandomSeed(seed);
  const uint32_t status = kKernels[op](image, src.type == TypeReal32 ? dst.data() : src.data(), src.type,
                                       &amp.bytes[at * TypeSize(amp.type)], amp.type, n, dst.data(), TypeReal32);
  const int next = ComputeRandomDraw();
  std::srand(seed);
  const float c = Real32(amp, at) * kScale;
  for (uint64_t k = 0; k < n && !IsCmplxType(amp.type); ++k) {
    const float x = d.get<float>(k), b = Real32(amp, image ? at + k : at);
    float want;
    if (op == kAddNormal) {
      want = static_cast<float>(static_cast<double>(x) + ModelNormal(b));
    } else if (op == kMulNormal) {
      want = static_cast<float>(ModelNormal(b) * static_cast<double>(x));
    } else {
      const float r = static_cast<float>(std::rand());
      if (op == kAddUniform) want = image ? (b * kScale) * r + x : r * c + x;
      else want = image ? ((x * kScale) * b) * r : (x * c) * r;
    }
    ASSERT_TRUE(Same(dst.get<float>(k), want)) << op << " " << TypeIdent(src.type) << " amplitude "
                                               << TypeIdent(amp.type) << " element " << k;
  }
  if (IsCmplxType(amp.type)) {
    EXPECT_TRUE(Refused(status, amp.type));
    EXPECT_EQ(dst.bytes, d.bytes);
  } else {
    EXPECT_EQ(status, 0u);
  }
  EXPECT_EQ(std::rand(), next) << "draws used by " << op;
}

// First operands near the flushing limit against large and tiny amplitudes, where any other order of
// the operations rounds differently.
TEST(Noise, ReplayWithNumberAndImageAmplitudes) {
  const std::vector<float> first = {0.0f, -0.0f, 1.0f, -2.5f, 1000.0f, 3e38f, -1e-30f, 0.125f, INFINITY, -7.0f, 0.3f};
  const std::vector<float> amps = {1e-30f, 2.5f, -1.0f, -2e-36f, 1e6f, 0.75f, 1e20f, 0.0f, -3.0f, 4.5f, 1.5f};
  Buf src(TypeReal32, first.size()), amp(TypeReal32, amps.size());
  std::memcpy(src.data(), first.data(), 4 * first.size());
  std::memcpy(amp.data(), amps.data(), 4 * amps.size());
  // Long blocks: the draws run through many batches of the generator.
  const Buf long_src = Sample(TypeReal32, 3000), long_amp = Sample(TypeInt16, 3000);
  for (unsigned seed : kSeeds)
    for (int op = kAddUniform; op <= kMulNormal; ++op) {
      Replay(Op(op), seed, src, amp, 1);
      for (uint64_t at : {0, 1, 2, 4, 7}) Replay(Op(op), seed, src, amp, 0, at);
      for (uint32_t image : {0u, 1u}) Replay(Op(op), seed, long_src, long_amp, image, image ? 0 : 5);
    }
}

// Every first-operand type is converted to real32; every amplitude type is narrowed to binary32 (and
// then widened for the Gaussian draw); complex amplitudes are refused without drawing.
TEST(Noise, EveryOperandType) {
  for (ElementType t1 : kAllTypes)
    for (ElementType t2 : kAllTypes) {
      const Buf src = Sample(t1, 23), amp = Sample(t2, 30);
      for (int op = kAddUniform; op <= kMulNormal; ++op) {
        Replay(Op(op), kSeeds[1], src, amp, 1, 5);
        Replay(Op(op), kSeeds[0], src, amp, 0, 19);
      }
    }
}

// The Gaussian samples themselves (their draws are replayed above): mean 0 and standard deviation the
// amplitude, and another seed gives another sequence.
TEST(Noise, RandomNormalSpreadAndSeeds) {
  ComputeRandomSeed(kSeeds[1]);
  const double first = RandomNormal(2.0);
  double sum = first, sum2 = first * first;
  for (int i = 1; i < 20000; ++i) {
    const double g = RandomNormal(2.0);
    sum += g, sum2 += g * g;
  }
  EXPECT_NEAR(sum / 20000, 0.0, 0.1);
  EXPECT_NEAR(std::sqrt(sum2 / 20000), 2.0, 0.1);
  ComputeRandomSeed(kSeeds[0]);
  EXPECT_NE(RandomNormal(2.0), first);
}

TEST(Noise, Refusals) {
  for (Kernel k : kKernels)
    CheckRefusals({{k, TypeReal32, TypeReal32, TypeImag32, TypeImag32},
                   {k, TypeReal32, TypeReal32, TypeCmplx32, TypeCmplx32},
                   {k, TypeReal32, TypeReal32, TypeReal64, TypeReal64},
                   {k, TypeReal32, 0x4242, TypeReal32, 0x4242, false},
                   {k, 0x4242, TypeReal32, TypeReal32, 0x4242}});
}

}  // namespace
