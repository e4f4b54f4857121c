// Addition, subtraction and negation in single precision.
#include <cstdint>

#include "kernels/element.h"

#include "kernels/arith.h"

namespace {

// A real or integer operand goes to the real part of a complex destination, an imaginary one to the
// imaginary part; a real32 or imag32 destination adds the value as a plain number.
struct AddOp : SameForSingle<AddOp> {
  template <Form D, Form B, class A, class V> static A Array(A a, V b) {
    if constexpr (D != Form::Cmplx) return a + b;
    else if constexpr (B == Form::Real) return Cmplx32{a.re + b, a.im};
    else if constexpr (B == Form::Imag) return Cmplx32{a.re, a.im + b};
    else return Cmplx32{a.re + b.re, a.im + b.im};
  }
};

struct SubOp : SameForSingle<SubOp> {
  template <Form D, Form B, class A, class V> static A Array(A a, V b) {
    if constexpr (D != Form::Cmplx) return a - b;
    else if constexpr (B == Form::Real) return Cmplx32{a.re - b, a.im};
    else if constexpr (B == Form::Imag) return Cmplx32{a.re, a.im - b};
    else return Cmplx32{a.re - b.re, a.im - b.im};
  }
};

// Negation inverts sign bits (0 becomes -0, NaN stays NaN). A real value has no imaginary part, so
// an imag32 destination receives +0; the missing part of a complex result is +0.
struct NegOp {
  template <Form D, Form S, class V> static auto Apply(V x) {
    if constexpr (D == Form::Cmplx) {
      if constexpr (S == Form::Real) return Cmplx32{FlipSign(x), 0.0f};
      else if constexpr (S == Form::Imag) return Cmplx32{0.0f, FlipSign(x)};
      else return Cmplx32{FlipSign(x.re), FlipSign(x.im)};
    } else if constexpr (D == Form::Imag && S == Form::Real) {
      return 0.0f;
    } else {
      return FlipSign(x);
    }
  }
};

}  // namespace

uint32_t ComputeAdd(ZV_KERNEL_ARGS) {
  return BinaryArith<AddOp>(operand2_is_array, src1, src1_type, src2, src2_type, count, dst, dst_type);
}

uint32_t ComputeSub(ZV_KERNEL_ARGS) {
  return BinaryArith<SubOp>(operand2_is_array, src1, src1_type, src2, src2_type, count, dst, dst_type);
}

uint32_t ComputeNeg(uint32_t, const void *src1, ElementType src1_type, const void *, ElementType,
                    uint64_t count, void *dst, ElementType dst_type) {
  return UnaryArith<NegOp>(src1, src1_type, count, dst, dst_type);
}
