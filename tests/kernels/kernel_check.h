// Shared by the kernel tests: a reference conversion written from the element rules (integers held
// exactly, floating values in long double, saturation decided on the value), blocks of edge values
// of every element type, one-element cases given as mathematical values, and the refusal check.
// The process runs flush-to-zero / denormals-are-zero, so the reference flushes subnormal inputs of
// value conversions and subnormal results itself.
#pragma once
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

#include "compute/compute.h"
#include "kernels/element.h"
#include "platform/core/errors.h"

template <class T> struct PartOf { using type = T; };
template <> struct PartOf<Imag32> { using type = float; };
template <> struct PartOf<Imag64> { using type = double; };
template <> struct PartOf<Cmplx32> { using type = float; };
template <> struct PartOf<Cmplx64> { using type = double; };

// One number into type D. A same-type copy keeps every bit.
template <class D, class S> D Num(S x) {
  using L = std::numeric_limits<D>;
  long double v = x;
  if constexpr (std::is_floating_point_v<S>)
    if (std::fabs(v) < std::numeric_limits<S>::min()) v = std::copysign(0.0L, v);
  if constexpr (std::is_same_v<D, S>) {
    return x;
  } else if constexpr (std::is_floating_point_v<D>) {
    const D r = static_cast<D>(v);
    return std::fabs(static_cast<long double>(r)) < L::min() ? std::copysign(D(0), r) : r;
  } else if constexpr (std::is_integral_v<S>) {
    if (std::is_signed_v<S> && !L::is_signed && sizeof(D) > sizeof(S)) return static_cast<D>(x);  // wraps
    return static_cast<D>(std::clamp<__int128>(x, L::min(), L::max()));
  } else {
    if (std::isnan(v) || v < L::min()) return L::min();
    if (v >= static_cast<long double>(L::max()) + 1) return L::max();
    return static_cast<D>(static_cast<__int128>(std::trunc(v)));
  }
}

struct Value {
  long double re = 0, im = 0;
};
template <> struct PartOf<Value> { using type = long double; };

template <class S> inline constexpr bool kPair = requires(S s) { s.re; s.im; };

// The number an element gives a real or integer type (kImag false) or an imaginary type (kImag true):
// an imaginary element's coefficient, a complex element's real or imaginary part.
template <bool kImag, class S> auto Coefficient(S x) {
  if constexpr (kPair<S>) return kImag ? x.im : x.re;
  else if constexpr (kIsImag<S>) return x.v;
  else return x;
}

// One element (or a Value) into type D; the missing part of a complex value is +0.
template <class D, class S> D Ref(S x) {
  using P = typename PartOf<D>::type;
  if constexpr (kPair<D> && kPair<S>) return D{Num<P>(x.re), Num<P>(x.im)};
  else if constexpr (kPair<D> && kIsImag<S>) return D{P(0), Num<P>(x.v)};
  else if constexpr (kPair<D>) return D{Num<P>(x), P(0)};
  else if constexpr (kIsImag<D>) return D{Num<P>(Coefficient<true>(x))};
  else return Num<D>(Coefficient<false>(x));
}

template <class F> void Each(ElementType t, F &&f) {
  DispatchType(t, [&](auto tag) -> uint32_t { f(tag); return 0; });
}

inline const ElementType kAllTypes[14] = {TypeUint8, TypeUint16, TypeUint32, TypeUint64, TypeInt8,
                                          TypeInt16, TypeInt32,  TypeInt64,  TypeReal32, TypeReal64,
                                          TypeImag32, TypeImag64, TypeCmplx32, TypeCmplx64};

// A block of elements of one type, kept as bytes.
struct Buf {
  ElementType type = 0;
  std::vector<unsigned char> bytes;
  Buf() = default;
  Buf(ElementType t, uint64_t n, unsigned char fill = 0xcd) : type(t), bytes(n * TypeSize(t), fill) {}
  uint64_t size() const { return bytes.size() / TypeSize(type); }
  void *data() { return bytes.data(); }
  const void *data() const { return bytes.data(); }
  template <class T> T get(uint64_t i) const { T x; std::memcpy(&x, &bytes[i * sizeof(T)], sizeof(T)); return x; }
  template <class T> void set(uint64_t i, T x) { std::memcpy(&bytes[i * sizeof(T)], &x, sizeof(T)); }
};

// Edge values, repeated cyclically to n elements: integer limits and their neighbours, values that
// round differently once or twice to binary32, floating values around every saturation limit, signed
// zeros, infinities, quiet and signalling NaNs with payloads, subnormals, values beyond binary32.
// Complex elements pair the values so that n = k*k pairs every value with every other one.
inline Buf Sample(ElementType t, uint64_t n) {
  Buf b(t, n);
  Each(t, [&](auto tag) {
    using T = decltype(tag);
    using P = typename PartOf<T>::type;
    std::vector<P> v;
    if constexpr (std::is_integral_v<P>) {
      for (long double c : {0.0L, 1.0L, -1.0L, 2.0L, 5.0L, -5.0L, 9.0L, 127.0L, 128.0L, -128.0L, -129.0L, 200.0L,
                            255.0L, 256.0L, 32767.0L, 32768.0L, -32768.0L, -32769.0L, 65535.0L, 65536.0L, 16777217.0L,
                            16777219.0L, 0x1p31L - 1, 0x1p31L, -0x1p31L, 0x1p32L - 1, 0x1p40L, -0x1p40L, 0x1p53L + 1,
                            0x1p53L + 0x1p29L + 1, 0x1p60L + 0x1p36L + 1, 0x1p63L - 1, 0x1p63L, -0x1p63L,
                            0x1p63L + 0x1p39L + 1, 0x1p64L - 1})
        if (c >= std::numeric_limits<P>::min() && c <= std::numeric_limits<P>::max()) v.push_back(static_cast<P>(c));
    } else {
      for (long double x : {0.0L, -0.0L, (long double)NAN, (long double)INFINITY, -(long double)INFINITY, 1.0L, -1.0L,
                            0.5L, -0.5L, -0.7L, 2.7L, -2.7L, 1.5L, 2.5L, -3.7L, 89.0L, 1e-40L, -1e-40L, 127.9L, -128.9L,
                            255.9L, 256.0L, 300.5L, 32767.9L, -32768.9L, 65535.5L, 16777217.0L, 2147483520.0L,
                            0x1p31L, -2147483904.0L, 4294967040.0L, 0x1p32L, 9223371487098961920.0L, 0x1p63L, -0x1p63L,
                            1e19L, 18446742974197923840.0L, 0x1p64L, 3.4e38L, -3.4e38L, 1.0001L})
        v.push_back(static_cast<P>(x));
      if constexpr (sizeof(P) == 4) {
        v.insert(v.end(), {std::bit_cast<float>(0x7fa00001u), std::bit_cast<float>(0xffc12345u)});
      } else {
        v.insert(v.end(), {1e40, -1e40, 1e-46, 1e-310, 1e300, -1e300, 0.1, 4294967295.9, 2147483647.9, -2147483648.9,
                           18446744073709549568.0, 9223372036854774784.0, -9223372036854777856.0,
                           std::bit_cast<double>(0x7ff4000000000001ull), std::bit_cast<double>(0xfff8000012345678ull)});
      }
    }
    const uint64_t k = v.size();
    for (uint64_t i = 0; i < n; ++i) {
      if constexpr (kIsCmplx<T>) b.set(i, T{v[i % k], v[(3 * i + i / k + 1) % k]});
      else if constexpr (kIsImag<T>) b.set(i, T{v[i % k]});
      else b.set(i, v[i % k]);
    }
  });
  return b;
}

// The reference conversion of a whole block.
inline Buf Converted(const Buf &src, ElementType dt) {
  Buf out(dt, src.size());
  Each(src.type, [&](auto s) {
    Each(dt, [&](auto d) {
      for (uint64_t i = 0; i < src.size(); ++i) out.set(i, Ref<decltype(d)>(src.get<decltype(s)>(i)));
    });
  });
  return out;
}

// Element i as the kernels' binary32 operand: As<Cmplx32> gives (x, 0) for integer and real values,
// (0, b) for an imaginary b, (re, im) for complex; As<float> the single value of a real or imaginary
// element (an imaginary element's coefficient).
template <class R> R As(const Buf &b, uint64_t i) {
  R r{};
  Each(b.type, [&](auto tag) { r = Ref<R>(b.get<decltype(tag)>(i)); });
  return r;
}
// Element i of a real32, imag32 or cmplx32 block as a pair.
inline Cmplx32 At(const Buf &b, uint64_t i) {
  return b.type == TypeCmplx32 ? b.get<Cmplx32>(i) : Cmplx32{b.get<float>(i), 0};
}
inline Cmplx32 Pair32(const Buf &b, uint64_t i) { return As<Cmplx32>(b, i); }
inline float Real32(const Buf &b, uint64_t i) { return As<float>(b, i); }

// Values written as mathematical numbers re + im·i: a type keeps what its conversion keeps (the real
// part, or the imaginary part for imaginary types). Integers are exact in long double.
inline Buf Literal(ElementType t, Value v) {
  Buf b(t, 1);
  Each(t, [&](auto tag) { b.set(0, Ref<decltype(tag)>(v)); });
  return b;
}
inline Value ValueAt(const Buf &b, uint64_t i) { return As<Value>(b, i); }

inline uint32_t Bits(float x) { return std::bit_cast<uint32_t>(x); }
inline float FromBits(uint32_t u) { return std::bit_cast<float>(u); }
// A subnormal binary32 value as the zero of its sign, decided on the bits.
inline float Flushed(float x) { return (Bits(x) & 0x7f800000u) == 0 ? std::copysign(0.0f, x) : x; }
// Equal values with equal signs (so +0 and -0 differ), or both NaN (payloads of computed NaNs are not
// part of the rules); with a tolerance, equal within it relative to want.
inline bool Same(long double got, long double want, long double tol = 0) {
  if (std::isnan(got) || std::isnan(want)) return std::isnan(got) && std::isnan(want);
  if (tol > 0) return std::fabs(got - want) <= tol * std::fabs(want);
  return got == want && std::signbit(got) == std::signbit(want);
}

// One element through a kernel: operands given as values of their types (t2 = 0 for unary kernels).
struct Case {
  Kernel k;
  uint32_t arr;
  ElementType t1;
  Value a;
  ElementType t2;
  Value b;
  ElementType dt;
  Value want;
  long double tol = 0;
};
inline void CheckCases(const std::vector<Case> &cases) {
  for (size_t n = 0; n < cases.size(); ++n) {
    const Case &c = cases[n];
    const Buf a = Literal(c.t1, c.a), b = c.t2 ? Literal(c.t2, c.b) : Buf();
    Buf d(c.dt, 1);
    ASSERT_EQ(c.k(c.arr, a.data(), c.t1, c.t2 ? b.data() : nullptr, c.t2, 1, d.data(), c.dt), 0u) << "case " << n;
    const Value got = ValueAt(d, 0);
    EXPECT_TRUE(Same(got.re, c.want.re, c.tol) && Same(got.im, c.want.im, c.tol))
        << "case " << n << ": got (" << (double)got.re << ", " << (double)got.im << ")";
  }
}

// The call was refused with status 279 and exactly one error "invalid data type for operation (name)".
// Clears the error stack.
inline ::testing::AssertionResult Refused(uint32_t status, ElementType type) {
  const std::string want = std::string("invalid data type for operation (") + TypeIdent(type) + ")";
  const uint32_t n = ExceptionCount();
  const std::string got = n ? ExceptionText(n - 1) : "";
  ExceptionClear();
  if (status != E_MSG || n != 1 || got != want)
    return ::testing::AssertionFailure() << "status " << status << ", " << n << " errors, last \"" << got << "\"";
  return ::testing::AssertionSuccess();
}

// Refusals: (t1, t2, dt) named type; with untouched set the destination must not be written.
struct Refusal {
  Kernel k;
  ElementType t1, t2, dt, named;
  bool untouched = true;
};
inline void CheckRefusals(const std::vector<Refusal> &cases) {
  const std::vector<unsigned char> zeros(64, 0);
  for (size_t n = 0; n < cases.size(); ++n) {
    const Refusal &c = cases[n];
    for (uint32_t arr : {0u, 1u}) {
      std::vector<unsigned char> dst(64, 0x5a);
      const uint32_t status = c.k(arr, zeros.data(), c.t1, zeros.data(), c.t2, 2, dst.data(), c.dt);
      EXPECT_TRUE(Refused(status, c.named)) << "case " << n;
      if (c.untouched) {
        EXPECT_EQ(dst, std::vector<unsigned char>(64, 0x5a)) << "case " << n;
      }
    }
  }
}
