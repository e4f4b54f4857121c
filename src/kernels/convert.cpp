// Element type conversion between any two of the fourteen element types, the kernels' shared type
// refusal and the no-op kernel.
#include <cstddef>
#include <cstdint>
#include <limits>
#include <type_traits>

#include "kernels/element.h"
#include "platform/core/errors.h"

uint32_t ComputeTypeError(ElementType type) {
  return ExceptionPushMsg(E_MSG, "invalid data type for operation (", TypeIdent(type), ")", nullptr);
}

uint32_t ComputeNop(uint32_t, const void *, ElementType, const void *, ElementType, uint64_t, void *,
                    ElementType) {
  return 0;
}

namespace {

// ---- scalar rules -------------------------------------------------------------------------------

// Saturating, truncating conversion of a floating value to an integer type. The range tests are
// made on the floating value so that no out-of-range conversion is ever executed; NaN fails the
// lower test and goes to the lower limit.
template <class D, class F> inline D FloatToInt(F x) {
  using L = std::numeric_limits<D>;
  // Both limits are zero or powers of two, exact in either floating width: the minimum, and the
  // maximum plus one (values at or above it saturate).
  constexpr F lo = static_cast<F>(L::min());
  constexpr F upper = F(2) * static_cast<F>(L::max() / 2 + 1);
  if (!(x >= lo)) return L::min();
  if (x >= upper) return L::max();
  if constexpr (std::is_same_v<D, uint64_t>) {
    // From 2^63 up the value does not fit a signed conversion: shift it down by 2^63 first.
    constexpr F two63 = static_cast<F>(9223372036854775808.0);
    if (x >= two63) return static_cast<uint64_t>(static_cast<int64_t>(x - two63)) + (uint64_t(1) << 63);
    return static_cast<uint64_t>(static_cast<int64_t>(x));
  } else if constexpr (std::is_unsigned_v<D> && sizeof(D) == 4) {
    return static_cast<D>(static_cast<int64_t>(x));
  } else {
    return static_cast<D>(x);
  }
}

// Integer to integer: unsigned sources saturate at the destination's maximum when it is narrower
// (or, for a signed destination, of the same width); signed sources keep their value in a wider
// signed destination, wrap modulo 2^width into a wider unsigned one, and clamp otherwise.
template <class D, class S> inline D IntToInt(S x) {
  using LD = std::numeric_limits<D>;
  if constexpr (std::is_unsigned_v<S>) {
    constexpr bool fits = std::is_unsigned_v<D> ? sizeof(D) >= sizeof(S) : sizeof(D) > sizeof(S);
    if constexpr (fits) {
      return static_cast<D>(x);
    } else {
      constexpr S top = static_cast<S>(LD::max());
      return x > top ? LD::max() : static_cast<D>(x);
    }
  } else if constexpr (std::is_unsigned_v<D>) {
    if constexpr (sizeof(D) > sizeof(S)) {
      return static_cast<D>(x);  // sign-extended, taken modulo 2^width
    } else {
      // Same width: every non-negative value fits; narrower: clamp at the destination's maximum.
      constexpr S top = sizeof(D) == sizeof(S) ? std::numeric_limits<S>::max() : static_cast<S>(LD::max());
      return x < 0 ? D(0) : (x > top ? LD::max() : static_cast<D>(x));
    }
  } else {
    if constexpr (sizeof(D) >= sizeof(S)) {
      return static_cast<D>(x);
    } else {
      constexpr S lo = static_cast<S>(LD::min()), hi = static_cast<S>(LD::max());
      return x < lo ? LD::min() : (x > hi ? LD::max() : static_cast<D>(x));
    }
  }
}

// One scalar component: integer or floating source into integer or floating destination.
template <class D, class S> inline D Scalar(S x) {
  if constexpr (std::is_floating_point_v<D>) {
    return static_cast<D>(x);  // nearest, ties to even; same width is a plain copy
  } else if constexpr (std::is_floating_point_v<S>) {
    return FloatToInt<D>(x);
  } else {
    return IntToInt<D>(x);
  }
}

// ---- component views of a source element ----------------------------------------------------------

template <class T> struct Part { using type = T; };
template <> struct Part<Imag32> { using type = float; };
template <> struct Part<Imag64> { using type = double; };
template <> struct Part<Cmplx32> { using type = float; };
template <> struct Part<Cmplx64> { using type = double; };

// The value an element stands for in a real or integer destination: the number itself, an
// imaginary element's coefficient, a complex element's real part.
template <class S> inline typename Part<S>::type AsReal(S x) {
  if constexpr (kIsImag<S>) return x.v;
  else if constexpr (kIsCmplx<S>) return x.re;
  else return x;
}
// The coefficient an element gives an imaginary destination: a complex element's imaginary part,
// otherwise the same value as above.
template <class S> inline typename Part<S>::type AsImag(S x) {
  if constexpr (kIsCmplx<S>) return x.im;
  else return AsReal(x);
}

template <class D, class S> inline D Element(S x) {
  if constexpr (kIsCmplx<D>) {
    using P = decltype(D{}.re);
    if constexpr (kIsCmplx<S>) return D{Scalar<P>(x.re), Scalar<P>(x.im)};
    else if constexpr (kIsImag<S>) return D{P(0), Scalar<P>(x.v)};
    else return D{Scalar<P>(x), P(0)};
  } else if constexpr (kIsImag<D>) {
    return D{Scalar<decltype(D{}.v)>(AsImag(x))};
  } else {
    return Scalar<D>(AsReal(x));
  }
}

// Words through which floating elements are copied bit for bit; they may alias the elements.
typedef uint32_t Word32 __attribute__((may_alias));
typedef uint64_t Word64 __attribute__((may_alias));

// Types whose conversion is a bit copy of one binary32 / binary64 value: real and imaginary of one
// width, and the real or imaginary part of a complex of the same width.
template <class T> struct BitsOf { using type = void; static constexpr size_t size = 0; };
template <> struct BitsOf<float> { using type = Word32; static constexpr size_t size = 4; };
template <> struct BitsOf<Imag32> { using type = Word32; static constexpr size_t size = 4; };
template <> struct BitsOf<double> { using type = Word64; static constexpr size_t size = 8; };
template <> struct BitsOf<Imag64> { using type = Word64; static constexpr size_t size = 8; };

template <class S, class D> void Loop(const void *src, uint64_t count, void *dst) {
  const S *s = static_cast<const S *>(src);
  D *d = static_cast<D *>(dst);
  using SB = typename BitsOf<S>::type;
  using DB = typename BitsOf<D>::type;
  if constexpr (BitsOf<S>::size != 0 && BitsOf<S>::size == BitsOf<D>::size) {
    // Same-width real/imaginary reinterpretation: bits unchanged (-0, NaN payloads, infinities).
    const SB *sb = static_cast<const SB *>(src);
    SB *db = static_cast<SB *>(dst);
    for (uint64_t i = 0; i < count; ++i) db[i] = sb[i];
  } else if constexpr (kIsCmplx<S> && BitsOf<D>::size * 2 == sizeof(S)) {
    // One part of a complex of the same width: a bit copy of that part.
    const DB *sb = static_cast<const DB *>(src);
    DB *db = static_cast<DB *>(dst);
    constexpr int part = kIsImag<D> ? 1 : 0;
    for (uint64_t i = 0; i < count; ++i) db[i] = sb[2 * i + part];
  } else if constexpr (kIsCmplx<D> && BitsOf<S>::size * 2 == sizeof(D)) {
    // A real or imaginary value into a complex of the same width, the other part +0.
    const SB *sb = static_cast<const SB *>(src);
    SB *db = static_cast<SB *>(dst);
    constexpr int part = kIsImag<S> ? 1 : 0;
    for (uint64_t i = 0; i < count; ++i) {
      db[2 * i + part] = sb[i];
      db[2 * i + 1 - part] = 0;
    }
  } else if constexpr (std::is_same_v<S, Cmplx32> && std::is_same_v<D, Cmplx32>) {
    const Word64 *sb = static_cast<const Word64 *>(src);
    Word64 *db = static_cast<Word64 *>(dst);
    for (uint64_t i = 0; i < count; ++i) db[i] = sb[i];
  } else if constexpr (std::is_same_v<S, Cmplx64> && std::is_same_v<D, Cmplx64>) {
    const Word64 *sb = static_cast<const Word64 *>(src);
    Word64 *db = static_cast<Word64 *>(dst);
    for (uint64_t i = 0; i < 2 * count; ++i) db[i] = sb[i];
  } else {
    for (uint64_t i = 0; i < count; ++i) d[i] = Element<D>(s[i]);
  }
}

}  // namespace

uint32_t ComputeConvert(uint32_t, const void *src1, ElementType src1_type, const void *, ElementType,
                        uint64_t count, void *dst, ElementType dst_type) {
  if (!IsKnownType(src1_type)) return ComputeTypeError(src1_type);
  if (!IsKnownType(dst_type)) return ComputeTypeError(dst_type);
  // In place the types are equal and the data would be copied onto itself.
  if (src1 == dst && src1_type == dst_type) return 0;
  return DispatchType(src1_type, [&](auto s) -> uint32_t {
    return DispatchType(dst_type, [&](auto d) -> uint32_t {
      Loop<decltype(s), decltype(d)>(src1, count, dst);
      return 0;
    });
  });
}
