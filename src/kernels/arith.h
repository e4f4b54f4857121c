// Loop scaffolding of the single-precision arithmetic kernels: the destination check, the first
// operand converted into the destination, and one element loop per (destination, second-operand
// type, array or single value), with every type test made before the loop.
#pragma once
#include <cstdint>
#include <type_traits>

#include "kernels/element.h"

// Class of a binary32 computation value: a real number, an imaginary coefficient or a complex pair.
enum class Form { Real, Imag, Cmplx };

template <class T> inline constexpr Form kFormOf = kIsCmplx<T> ? Form::Cmplx : kIsImag<T> ? Form::Imag : Form::Real;

// The element as binary32: integers and real64 rounded to nearest, an imaginary element's
// coefficient, a complex element part by part.
template <class T> inline auto ToBinary32(T x) {
  if constexpr (std::is_same_v<T, Cmplx32>) return x;
  else if constexpr (std::is_same_v<T, Cmplx64>) return Cmplx32{static_cast<float>(x.re), static_cast<float>(x.im)};
  else return ElementToReal32(x);
}

inline bool IsSingleResultType(ElementType t) {
  return t == TypeReal32 || t == TypeImag32 || t == TypeCmplx32;
}

// Operations whose single-value form is the array form: nothing to prepare once per block.
template <class Op> struct SameForSingle {
  template <Form D, Form B, class V> static V Prepare(V b) { return b; }
  template <Form D, Form B, class A, class V> static A Single(A a, V b) { return Op::template Array<D, B>(a, b); }
};

// a is the first operand in the destination type: d itself, or a separate array of that type.
template <class Op, Form D, class B, class A>
inline void BinaryLoops(uint32_t operand2_is_array, const A *a, A *d, const B *b, uint64_t count) {
  constexpr Form F = kFormOf<B>;
  if (operand2_is_array) {
    for (uint64_t i = 0; i < count; ++i) d[i] = Op::template Array<D, F>(a[i], ToBinary32(b[i]));
  } else {
    const auto p = Op::template Prepare<D, F>(ToBinary32(b[0]));
    for (uint64_t i = 0; i < count; ++i) d[i] = Op::template Single<D, F>(a[i], p);
  }
}

// The binary kernel: the first operand, read directly when it already has the destination type and
// otherwise converted into dst first, is combined with the second operand into dst. Op provides
// Array<D, B>(a, b) and, for a single second operand, Prepare<D, B>(b) once per block and
// Single<D, B>(a, prepared). With kRealOnly the only destination is real32.
template <class Op, bool kRealOnly = false>
uint32_t BinaryArith(uint32_t operand2_is_array, const void *src1, ElementType src1_type, const void *src2,
                     ElementType src2_type, uint64_t count, void *dst, ElementType dst_type) {
  if (kRealOnly ? dst_type != TypeReal32 : !IsSingleResultType(dst_type)) return ComputeTypeError(dst_type);
  const void *first = src1;
  if (src1 != dst && src1_type != dst_type) {
    if (uint32_t st = ComputeConvert(0, src1, src1_type, nullptr, 0, count, dst, dst_type)) return st;
    first = dst;
  }
  return DispatchType(src2_type, [&](auto tag) -> uint32_t {
    using B = decltype(tag);
    const B *b = static_cast<const B *>(src2);
    if constexpr (!kRealOnly) {
      if (dst_type == TypeCmplx32) {
        if (count) BinaryLoops<Op, Form::Cmplx>(operand2_is_array, static_cast<const Cmplx32 *>(first),
                                                static_cast<Cmplx32 *>(dst), b, count);
        return 0;
      }
    }
    // A complex second operand needs a complex destination.
    if constexpr (kIsCmplx<B>) {
      return ComputeTypeError(src2_type);
    } else {
      float *d = static_cast<float *>(dst);
      const float *a = static_cast<const float *>(first);
      if (!count) return 0;
      if constexpr (!kRealOnly) {
        if (dst_type == TypeImag32) {
          BinaryLoops<Op, Form::Imag>(operand2_is_array, a, d, b, count);
          return 0;
        }
      }
      BinaryLoops<Op, Form::Real>(operand2_is_array, a, d, b, count);
      return 0;
    }
  });
}

// The unary kernel: dst[i] = Op::Apply<D, S>(src[i] as binary32), selected by destination and source
// type; a complex source needs a complex destination.
template <class Op>
uint32_t UnaryArith(const void *src, ElementType src_type, uint64_t count, void *dst, ElementType dst_type) {
  if (!IsSingleResultType(dst_type)) return ComputeTypeError(dst_type);
  return DispatchType(src_type, [&](auto tag) -> uint32_t {
    using S = decltype(tag);
    constexpr Form F = kFormOf<S>;
    const S *s = static_cast<const S *>(src);
    if (dst_type == TypeCmplx32) {
      Cmplx32 *d = static_cast<Cmplx32 *>(dst);
      for (uint64_t i = 0; i < count; ++i) d[i] = Op::template Apply<Form::Cmplx, F>(ToBinary32(s[i]));
      return 0;
    }
    if constexpr (kIsCmplx<S>) {
      return ComputeTypeError(src_type);
    } else {
      float *d = static_cast<float *>(dst);
      if (dst_type == TypeImag32) {
        for (uint64_t i = 0; i < count; ++i) d[i] = Op::template Apply<Form::Imag, F>(ToBinary32(s[i]));
      } else {
        for (uint64_t i = 0; i < count; ++i) d[i] = Op::template Apply<Form::Real, F>(ToBinary32(s[i]));
      }
      return 0;
    }
  });
}
