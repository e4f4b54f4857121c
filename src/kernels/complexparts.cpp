// Complex parts and magnitudes: real and imaginary parts, phase, magnitude, squared magnitude, the
// phase and magnitude-root factors, and complex values built from two real operands. Everything is
// computed in single precision; 64-bit parts are narrowed to binary32 first.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>

#include "kernels/element.h"

namespace {

constexpr float kPi = std::numbers::pi_v<float>;  // 0x40490FDB
constexpr float kHalfPi = kPi / 2;                 // 0x3FC90FDB, exact halving

template <class T> inline constexpr bool kIsUnsigned = std::is_integral_v<T> && std::is_unsigned_v<T>;

// Parts of a complex element, narrowed to binary32 part by part before any arithmetic.
template <class T> inline float Re32(T x) { return static_cast<float>(x.re); }
template <class T> inline float Im32(T x) { return static_cast<float>(x.im); }

// -1 for negative values and NaN, 0 for either zero, +1 for positive values.
inline float Sgn(float v) {
  if (v > 0.0f) return 1.0f;
  if (v == 0.0f) return 0.0f;
  return -1.0f;
}

// Square root that keeps the sign: negative values give minus the root of their magnitude; -0 gives
// -0 and NaN stays NaN.
inline float SignedSqrt(float v) {
  if (v >= 0.0f) return __builtin_sqrtf(v);
  return -__builtin_sqrtf(-v);
}

// Both parts divided by a complex element's magnitude measure m; a zero or NaN measure gives (0, 0).
inline Cmplx32 ScaleByMeasure(float a, float b, float m) {
  if (m != 0.0f && !std::isnan(m)) return Cmplx32{a / m, b / m};
  return Cmplx32{0.0f, 0.0f};
}

// Applies op to each element of src1 (any of the fourteen types) and stores the results in dst. Each
// element is read whole before its result is stored, so dst may be src1 when the types agree.
// Without kComplex, complex sources are left to the caller.
template <class Out, bool kComplex = true, class Op>
uint32_t EachElement(const void *src1, ElementType src1_type, uint64_t count, void *dst, Op op) {
  Out *d = static_cast<Out *>(dst);
  return DispatchType(src1_type, [&](auto tag) -> uint32_t {
    using T = decltype(tag);
    const T *s = static_cast<const T *>(src1);
    if constexpr (kComplex || !kIsCmplx<T>)
      for (uint64_t k = 0; k < count; ++k) d[k] = op(s[k]);
    return 0;
  });
}

// The unary kernels' frame: a fixed destination type, any of the fourteen source types.
template <class Out, class Op>
uint32_t UnaryParts(const void *src1, ElementType src1_type, uint64_t count, void *dst,
                    ElementType dst_type, ElementType result_type, Op op) {
  if (dst_type != result_type) return ComputeTypeError(dst_type);
  return EachElement<Out>(src1, src1_type, count, dst, op);
}

constexpr uint64_t kPiece = 512;  // complex elements per piece: stays in the first-level cache

// The same frame for the kernels whose complex results come from the library's function f of the
// parts: f runs over pieces of binary32 pairs (a cmplx64 piece narrowed first) and its results are
// stored (real32) or handed with the parts to finish(a, b, f(a, b)) (cmplx32, possibly in place:
// a piece's parts are read before its results are stored). op gives the other sources' results.
template <class Out, class Op, class Finish>
uint32_t PartsByLibrary(const void *src1, ElementType src1_type, uint64_t count, void *dst, ElementType dst_type,
                             ElementType result_type, LibPair f, Op op, Finish finish) {
  if (dst_type != result_type) return ComputeTypeError(dst_type);
  if (!IsCmplxType(src1_type)) return EachElement<Out, false>(src1, src1_type, count, dst, op);
  Out *d = static_cast<Out *>(dst);
  float narrowed[2 * kPiece], r[kPiece];
  for (uint64_t i = 0; i < count; i += kPiece) {
    const uint64_t m = std::min(kPiece, count - i);
    const float *p = narrowed;
    if (src1_type == TypeCmplx32) {
      p = static_cast<const float *>(src1) + 2 * i;
    } else {
      const Cmplx64 *s = static_cast<const Cmplx64 *>(src1) + i;
      for (uint64_t k = 0; k < m; ++k) narrowed[2 * k] = Re32(s[k]), narrowed[2 * k + 1] = Im32(s[k]);
    }
    if constexpr (std::is_same_v<Out, float>) {
      LibMapPairs(f, p, d + i, m);
    } else {
      LibMapPairs(f, p, r, m);
      for (uint64_t k = 0; k < m; ++k) d[i + k] = finish(p[2 * k], p[2 * k + 1], r[k]);
    }
  }
  return 0;
}

// One pass of "+i": the real or the imaginary part (field) of every destination element from an
// integer or real operand; when stride is 0 the single element src[0] goes into every element.
uint32_t FillPart(const void *src, ElementType type, uint64_t stride, uint64_t count, Cmplx32 *d,
                  float Cmplx32::*field) {
  if (!IsRealOrIntegerType(type)) return ComputeTypeError(type);
  if (count == 0) return 0;
  return DispatchType(type, [&](auto tag) -> uint32_t {
    using T = decltype(tag);
    if constexpr (kIsRealOrInt<T>) {
      const T *s = static_cast<const T *>(src);
      if (stride == 0) {
        const float v = ElementToReal32(s[0]);
        for (uint64_t k = 0; k < count; ++k) d[k].*field = v;
      } else {
        for (uint64_t k = 0; k < count; ++k) d[k].*field = ElementToReal32(s[k]);
      }
    }
    return 0;
  });
}

}  // namespace

uint32_t ComputeRe(ZV_KERNEL_ARGS) {
  (void)operand2_is_array, (void)src2, (void)src2_type;
  if (dst_type != TypeReal32) return ComputeTypeError(dst_type);
  // An imaginary value has no real part: the whole block is zero bytes (+0.0).
  if (IsImagType(src1_type)) {
    if (count > 0) std::memset(dst, 0, count * sizeof(float));
    return 0;
  }
  return EachElement<float>(src1, src1_type, count, dst, [](auto x) -> float {
    using T = decltype(x);
    if constexpr (kIsCmplx<T>) return Re32(x);
    else if constexpr (kIsImag<T>) return 0.0f;
    else return ElementToReal32(x);
  });
}

uint32_t ComputeIm(ZV_KERNEL_ARGS) {
  (void)operand2_is_array, (void)src2, (void)src2_type;
  if (dst_type != TypeReal32) return ComputeTypeError(dst_type);
  // Integer and real values have no imaginary part: the whole block is zero bytes (+0.0).
  if (IsRealOrIntegerType(src1_type)) {
    if (count > 0) std::memset(dst, 0, count * sizeof(float));
    return 0;
  }
  return EachElement<float>(src1, src1_type, count, dst, [](auto x) -> float {
    using T = decltype(x);
    if constexpr (kIsCmplx<T>) return Im32(x);
    else if constexpr (kIsImag<T>) return ElementToReal32(x);
    else return 0.0f;
  });
}

uint32_t ComputePhase(ZV_KERNEL_ARGS) {
  (void)operand2_is_array, (void)src2, (void)src2_type;
  const auto other = [](auto x) -> float {
    using T = decltype(x);
    if constexpr (kIsImag<T>) {
      // The test 0 <= y holds for both zeros, so an imaginary zero points up.
      return 0.0f <= ElementToReal32(x) ? kHalfPi : -kHalfPi;
    } else if constexpr (kIsUnsigned<T>) {
      return 0.0f;
    } else {
      // -0 counts as non-negative; NaN fails the test and gives pi.
      return 0.0f <= ElementToReal32(x) ? 0.0f : kPi;
    }
  };
  // Complex: atan2f(b, a).
  return PartsByLibrary<float>(src1, src1_type, count, dst, dst_type, TypeReal32, LibPair::Phase, other, nullptr);
}

uint32_t ComputeAbs(ZV_KERNEL_ARGS) {
  (void)operand2_is_array, (void)src2, (void)src2_type;
  const auto other = [](auto x) -> float {
    using T = decltype(x);
    if constexpr (kIsUnsigned<T>) return ElementToReal32(x);
    else return ClearSign(ElementToReal32(x));  // -0 gives +0, a NaN loses its sign
  };
  // Complex: hypotf(a, b), which avoids intermediate overflow.
  return PartsByLibrary<float>(src1, src1_type, count, dst, dst_type, TypeReal32, LibPair::Magnitude, other, nullptr);
}

uint32_t ComputeAbs2(ZV_KERNEL_ARGS) {
  (void)operand2_is_array, (void)src2, (void)src2_type;
  return UnaryParts<float>(src1, src1_type, count, dst, dst_type, TypeReal32, [](auto x) -> float {
    using T = decltype(x);
    if constexpr (kIsCmplx<T>) {
      // Each product rounded to binary32, then the sum.
      const float a = Re32(x), b = Im32(x);
      const float aa = a * a, bb = b * b;
      return aa + bb;
    } else {
      const float v = ElementToReal32(x);
      return v * v;
    }
  });
}

uint32_t ComputePhfac(ZV_KERNEL_ARGS) {
  (void)operand2_is_array, (void)src2, (void)src2_type;
  const auto other = [](auto x) -> Cmplx32 {
    using T = decltype(x);
    if constexpr (kIsImag<T>) {
      return Cmplx32{0.0f, Sgn(ElementToReal32(x))};
    } else if constexpr (kIsUnsigned<T>) {
      return Cmplx32{x != 0 ? 1.0f : 0.0f, 0.0f};
    } else {
      return Cmplx32{Sgn(ElementToReal32(x)), 0.0f};
    }
  };
  // Complex: both parts divided by the magnitude hypotf(a, b).
  const auto unit = [](float a, float b, float m) { return ScaleByMeasure(a, b, m); };
  return PartsByLibrary<Cmplx32>(src1, src1_type, count, dst, dst_type, TypeCmplx32, LibPair::Magnitude, other, unit);
}

uint32_t ComputeMufac(ZV_KERNEL_ARGS) {
  (void)operand2_is_array, (void)src2, (void)src2_type;
  const auto other = [](auto x) -> Cmplx32 {
    using T = decltype(x);
    if constexpr (kIsImag<T>) {
      return Cmplx32{0.0f, SignedSqrt(ElementToReal32(x))};
    } else if constexpr (kIsUnsigned<T>) {
      return Cmplx32{__builtin_sqrtf(ElementToReal32(x)), 0.0f};
    } else {
      return Cmplx32{SignedSqrt(ElementToReal32(x)), 0.0f};
    }
  };
  // Complex: the magnitude becomes the root of the magnitude, the phase stays.
  const auto root = [](float a, float b, float m) { return ScaleByMeasure(a, b, __builtin_sqrtf(m)); };
  return PartsByLibrary<Cmplx32>(src1, src1_type, count, dst, dst_type, TypeCmplx32, LibPair::Magnitude, other, root);
}

uint32_t ComputeAddImag(ZV_KERNEL_ARGS) {
  if (dst_type != TypeCmplx32) return ComputeTypeError(dst_type);
  Cmplx32 *d = static_cast<Cmplx32 *>(dst);
  // Both passes run even when the first operand is refused; the last refusal is the status.
  const uint32_t re_status = FillPart(src1, src1_type, 1, count, d, &Cmplx32::re);
  const uint32_t im_status = FillPart(src2, src2_type, operand2_is_array ? 1 : 0, count, d, &Cmplx32::im);
  return im_status != 0 ? im_status : re_status;
}
