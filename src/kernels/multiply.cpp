// Multiplication, division, complex conjugate and reciprocal in single precision. Every product,
// sum and quotient is one binary32 operation in the order written (no fused multiply-add).
#include <cstdint>

#include "kernels/element.h"

#include "kernels/arith.h"

namespace {

// a is the destination element (the first operand already in the destination type), b the second
// operand. A real32 destination with an imaginary b is a product of two imaginary numbers
// (i·i = -1); an imag32 destination is an imaginary coefficient times a real number either way.
struct MulOp : SameForSingle<MulOp> {
  template <Form D, Form B, class A, class V> static A Array(A a, V b) {
    if constexpr (D == Form::Real) {
      if constexpr (B == Form::Imag) return FlipSign(a * b);
      else return a * b;
    } else if constexpr (D == Form::Imag) {
      return a * b;
    } else if constexpr (B == Form::Real) {
      return Cmplx32{a.re * b, a.im * b};
    } else if constexpr (B == Form::Imag) {
      return Cmplx32{FlipSign(a.im * b), a.re * b};
    } else {
      return Cmplx32{b.re * a.re - b.im * a.im, a.re * b.im + a.im * b.re};
    }
  }
};

// A single divisor and its reciprocal, formed once per block.
struct Divisor {
  float b;
  float r;
};
struct CmplxDivisor {
  Cmplx32 b;
  float r;
};

// Division by an array element divides; a single divisor is inverted once and every element is
// multiplied by the reciprocal (the results may then differ from true quotients in the last bit).
// Complex division is the plain formula over the squared magnitude, without scaling.
struct DivOp {
  template <Form D, Form B, class A, class V> static A Array(A a, V b) {
    if constexpr (D == Form::Real) {
      return a / b;
    } else if constexpr (D == Form::Imag) {
      // Over an imaginary number the coefficient changes sign: 1/i = -i.
      if constexpr (B == Form::Imag) return FlipSign(a / b);
      else return a / b;
    } else if constexpr (B == Form::Real) {
      const float d = b * b;
      return Cmplx32{(a.re * b) / d, (a.im * b) / d};
    } else if constexpr (B == Form::Imag) {
      const float d = b * b;
      return Cmplx32{(a.im * b) / d, FlipSign(a.re * b) / d};
    } else {
      const float d = b.re * b.re + b.im * b.im;
      return Cmplx32{(a.re * b.re + a.im * b.im) / d, (a.im * b.re - a.re * b.im) / d};
    }
  }

  template <Form D, Form B, class V> static auto Prepare(V b) {
    if constexpr (D != Form::Cmplx) return Divisor{b, 1.0f / b};
    else if constexpr (B != Form::Cmplx) return Divisor{b, 1.0f / (b * b)};
    else return CmplxDivisor{b, 1.0f / (b.re * b.re + b.im * b.im)};
  }

  template <Form D, Form B, class A, class P> static A Single(A a, P p) {
    const float r = p.r;
    if constexpr (D == Form::Real) {
      return a * r;
    } else if constexpr (D == Form::Imag) {
      if constexpr (B == Form::Imag) return FlipSign(a * r);
      else return a * r;
    } else if constexpr (B == Form::Real) {
      const float b = p.b;
      return Cmplx32{(a.re * b) * r, (a.im * b) * r};
    } else if constexpr (B == Form::Imag) {
      const float b = p.b;
      return Cmplx32{(a.im * b) * r, FlipSign(a.re * b) * r};
    } else {
      const Cmplx32 b = p.b;
      return Cmplx32{(a.re * b.re + a.im * b.im) * r, (a.im * b.re - a.re * b.im) * r};
    }
  }
};

// Conjugate: a real value is its own conjugate and has no imaginary part (so +0 in an imag32
// destination); an imaginary value changes sign.
struct ConjOp {
  template <Form D, Form S, class V> static auto Apply(V x) {
    if constexpr (D == Form::Cmplx) {
      if constexpr (S == Form::Real) return Cmplx32{x, 0.0f};
      else if constexpr (S == Form::Imag) return Cmplx32{0.0f, FlipSign(x)};
      else return Cmplx32{x.re, FlipSign(x.im)};
    } else if constexpr (S == Form::Imag) {
      return FlipSign(x);
    } else if constexpr (D == Form::Imag) {
      return 0.0f;
    } else {
      return x;
    }
  }
};

// Reciprocal: 1/(b·i) = (-1/b)·i; complex by the plain formula over the squared magnitude.
struct RecipOp {
  template <Form D, Form S, class V> static auto Apply(V x) {
    if constexpr (D == Form::Cmplx) {
      if constexpr (S == Form::Real) {
        return Cmplx32{1.0f / x, 0.0f};
      } else if constexpr (S == Form::Imag) {
        return Cmplx32{0.0f, -1.0f / x};
      } else {
        const float d = x.im * x.im + x.re * x.re;
        return Cmplx32{x.re / d, FlipSign(x.im) / d};
      }
    } else if constexpr (S == Form::Imag) {
      return -1.0f / x;
    } else if constexpr (D == Form::Imag) {
      return 0.0f;
    } else {
      return 1.0f / x;
    }
  }
};

}  // namespace

uint32_t ComputeMul(ZV_KERNEL_ARGS) {
  return BinaryArith<MulOp>(operand2_is_array, src1, src1_type, src2, src2_type, count, dst, dst_type);
}

uint32_t ComputeDiv(ZV_KERNEL_ARGS) {
  return BinaryArith<DivOp>(operand2_is_array, src1, src1_type, src2, src2_type, count, dst, dst_type);
}

uint32_t ComputeConj(uint32_t, const void *src1, ElementType src1_type, const void *, ElementType,
                     uint64_t count, void *dst, ElementType dst_type) {
  return UnaryArith<ConjOp>(src1, src1_type, count, dst, dst_type);
}

uint32_t ComputeRecip(uint32_t, const void *src1, ElementType src1_type, const void *, ElementType,
                      uint64_t count, void *dst, ElementType dst_type) {
  return UnaryArith<RecipOp>(src1, src1_type, count, dst, dst_type);
}
