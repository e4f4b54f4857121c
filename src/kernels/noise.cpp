// Uniform and Gaussian noise, added to or multiplied into a real32 block. All randomness comes from
// the C library's generator, the sequence rand() gives, whose range is 0 .. 2^31-1; draws are taken
// strictly in element order, so a run reproduces its noise whether it writes a new file or works in
// place.
#include <cmath>
#include <cstdlib>

#include "kernels/element.h"

namespace {

// rand() itself takes a lock on every call, about four times the cost of the draw; random_r on a
// state of our own gives the same sequence for the same seed (glibc's default: the additive
// feedback generator with 128 bytes of state).
struct random_data gRandom;
char gRandomState[128];
bool gSeeded = false;

inline int32_t Draw() {
  if (__builtin_expect(!gSeeded, 0)) ComputeRandomSeed(1);
  int32_t r;
  random_r(&gRandom, &r);
  return r;
}

// Scales a draw into [0, 1]; as a binary32 draw rounds up to 2^31 from 2147483584 on, 1 is reached.
constexpr float kUniformScale = 0x1p-31f;

// The binary64 nearest to 1 / (2^31 - 1), and the midpoint of the draw range for the sign.
constexpr double kDrawScale = 4.656612875245797e-10;
constexpr double kSignThreshold = 1073741823.5;

enum class Noise { AddUniform, MulUniform, AddNormal, MulNormal };

// One element of noise with amplitude a (scalar second operand; c = a * 2^-31 for uniform noise).
template <Noise N> struct ScalarAmplitude {
  float c;        // uniform: the amplitude times 2^-31
  double a;       // Gaussian: the amplitude widened to binary64
  explicit ScalarAmplitude(float amp) : c(amp * kUniformScale), a(static_cast<double>(amp)) {}
  float Apply(float d) const {
    if constexpr (N == Noise::AddUniform) return static_cast<float>(Draw()) * c + d;
    else if constexpr (N == Noise::MulUniform) return (d * c) * static_cast<float>(Draw());
    else if constexpr (N == Noise::AddNormal) return static_cast<float>(static_cast<double>(d) + RandomNormal(a));
    else return static_cast<float>(RandomNormal(a) * static_cast<double>(d));
  }
};

// One element of noise with its own amplitude b.
template <Noise N> float ApplyElementAmplitude(float d, float b) {
  if constexpr (N == Noise::AddUniform) return (b * kUniformScale) * static_cast<float>(Draw()) + d;
  else if constexpr (N == Noise::MulUniform) return ((d * kUniformScale) * b) * static_cast<float>(Draw());
  else if constexpr (N == Noise::AddNormal)
    return static_cast<float>(static_cast<double>(d) + RandomNormal(static_cast<double>(b)));
  else return static_cast<float>(RandomNormal(static_cast<double>(b)) * static_cast<double>(d));
}

template <Noise N, class A> void NoiseLoop(uint32_t operand2_is_array, const A *amp, uint64_t count, float *d) {
  if (operand2_is_array) {
    for (uint64_t k = 0; k < count; ++k) d[k] = ApplyElementAmplitude<N>(d[k], ElementToReal32(amp[k]));
  } else {
    const ScalarAmplitude<N> noise(ElementToReal32(amp[0]));
    for (uint64_t k = 0; k < count; ++k) d[k] = noise.Apply(d[k]);
  }
}

template <Noise N> uint32_t NoiseKernel(ZV_KERNEL_ARGS) {
  if (dst_type != TypeReal32) return ComputeTypeError(dst_type);
  if (src1 != dst) {
    if (uint32_t status = ComputeConvert(0, src1, src1_type, nullptr, 0, count, dst, TypeReal32)) return status;
  }
  float *d = static_cast<float *>(dst);
  return DispatchType(src2_type, [&](auto tag) -> uint32_t {
    using A = decltype(tag);
    if constexpr (kIsCmplx<A>) {
      return ComputeTypeError(src2_type);
    } else {
      NoiseLoop<N>(operand2_is_array, static_cast<const A *>(src2), count, d);
      return 0;
    }
  });
}

}  // namespace

void ComputeRandomSeed(uint32_t seed) {
  gRandom = {};
  initstate_r(seed, gRandomState, sizeof gRandomState, &gRandom);
  gSeeded = true;
}

int32_t ComputeRandomDraw() { return Draw(); }

// Polar method on the first quadrant; a separate draw gives the sign.
double RandomNormal(double a) {
  double u, v, s;
  do {
    u = static_cast<double>(Draw()) * kDrawScale;
    v = static_cast<double>(Draw()) * kDrawScale;
    s = v * v + u * u;
  } while (s >= 1.0);
  double g = std::sqrt((LibLog64(s) * -2.0) / s) * u;
  if (static_cast<double>(Draw()) >= kSignThreshold) return g * a;
  return (-g) * a;
}

uint32_t ComputeAddUniform(ZV_KERNEL_ARGS) {
  return NoiseKernel<Noise::AddUniform>(operand2_is_array, src1, src1_type, src2, src2_type, count, dst, dst_type);
}

uint32_t ComputeMulUniform(ZV_KERNEL_ARGS) {
  return NoiseKernel<Noise::MulUniform>(operand2_is_array, src1, src1_type, src2, src2_type, count, dst, dst_type);
}

uint32_t ComputeAddNormal(ZV_KERNEL_ARGS) {
  return NoiseKernel<Noise::AddNormal>(operand2_is_array, src1, src1_type, src2, src2_type, count, dst, dst_type);
}

uint32_t ComputeMulNormal(ZV_KERNEL_ARGS) {
  return NoiseKernel<Noise::MulNormal>(operand2_is_array, src1, src1_type, src2, src2_type, count, dst, dst_type);
}
