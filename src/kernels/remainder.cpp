// Floating-point remainder (truncated quotient, exact) and the product with the conjugate.
#include <cstdint>
#include <cstring>

#include "kernels/element.h"

#include "kernels/arith.h"

namespace {

inline uint32_t Bits(float x) {
  uint32_t u;
  std::memcpy(&u, &x, 4);
  return u;
}
inline float FromBits(uint32_t u) {
  float x;
  std::memcpy(&x, &u, 4);
  return x;
}

constexpr uint32_t kMinNormal = 0x00800000u;
constexpr uint32_t kInfBits = 0x7f800000u;

// The divisor taken apart once: magnitude bits (a subnormal reads as zero, as the processor's
// denormals-are-zero mode reads it), biased exponent and 24-bit significand.
struct ModDivisor {
  float b;
  uint32_t abs;
  uint32_t biased_exp;
  uint64_t sig;
};

inline ModDivisor SplitDivisor(float b) {
  uint32_t ay = Bits(b) & 0x7fffffffu;
  if (ay < kMinNormal) ay = 0;
  return ModDivisor{b, ay, ay >> 23, (ay & 0x7fffffu) | kMinNormal};
}

// a - n·b with n = a/b truncated, computed exactly on the significands: the remainder of
// sig(a)·2^(ea-eb) modulo sig(b), reduced 40 bits at a time so that every step fits 64 bits. The
// result has the sign of a and is exact; one below the normal range is stored as a zero of that sign.
inline float ExactRemainder(float a, const ModDivisor &y) {
  const uint32_t ux = Bits(a);
  const uint32_t sign = ux & 0x80000000u;
  uint32_t ax = ux & 0x7fffffffu;
  if (ax < kMinNormal) ax = 0;
  if (y.abs == 0 || ax >= kInfBits || y.abs > kInfBits) {
    // Zero divisor, infinite dividend or a NaN: the invalid result, NaN operands propagated.
    const float p = a * y.b;
    return p / p;
  }
  if (ax < y.abs) return ax == 0 ? FromBits(sign) : a;
  if (ax == y.abs) return FromBits(sign);
  uint64_t r = (ax & 0x7fffffu) | kMinNormal;
  uint32_t e = (ax >> 23) - y.biased_exp;
  while (e > 40) {
    r = (r << 40) % y.sig;
    e -= 40;
  }
  r = (r << e) % y.sig;
  if (r == 0) return FromBits(sign);
  // r < 2^24: move its leading bit to bit 23 and lower the divisor's exponent to match.
  const uint32_t shift = static_cast<uint32_t>(__builtin_clzll(r)) - 40;
  if (y.biased_exp <= shift) return FromBits(sign);
  return FromBits(sign | ((y.biased_exp - shift) << 23) | (static_cast<uint32_t>(r << shift) & 0x7fffffu));
}

// Only a real32 destination reaches the remainder; an imaginary second operand is its coefficient.
struct ModOp {
  template <Form D, Form B> static float Array(float a, float b) { return ExactRemainder(a, SplitDivisor(b)); }
  template <Form D, Form B> static ModDivisor Prepare(float b) { return SplitDivisor(b); }
  template <Form D, Form B> static float Single(float a, const ModDivisor &y) { return ExactRemainder(a, y); }
};

// Product with the complex conjugate of b; for real32 and imag32 destinations the plain product
// (two imaginary coefficients give -(a·b)).
struct MulConjOp : SameForSingle<MulConjOp> {
  template <Form D, Form B, class A, class V> static A Array(A a, V b) {
    if constexpr (D == Form::Real) {
      if constexpr (B == Form::Imag) return FlipSign(a * b);
      else return a * b;
    } else if constexpr (D == Form::Imag) {
      return a * b;
    } else if constexpr (B == Form::Real) {
      return Cmplx32{a.re * b, a.im * b};
    } else if constexpr (B == Form::Imag) {
      return Cmplx32{a.im * b, FlipSign(a.re * b)};
    } else {
      return Cmplx32{b.im * a.im + b.re * a.re, a.im * b.re - a.re * b.im};
    }
  }
};

}  // namespace

uint32_t ComputeMod(ZV_KERNEL_ARGS) {
  return BinaryArith<ModOp, true>(operand2_is_array, src1, src1_type, src2, src2_type, count, dst, dst_type);
}

uint32_t ComputeMulConj(ZV_KERNEL_ARGS) {
  return BinaryArith<MulConjOp>(operand2_is_array, src1, src1_type, src2, src2_type, count, dst, dst_type);
}
