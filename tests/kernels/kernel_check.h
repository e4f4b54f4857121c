// Shared by the kernel tests: blocks of elements with a guard element after them, edge values of every
// element type, and a reference conversion written from the element rules (integers held exactly,
// floating values in long double, saturation decided on the value). The process runs flush-to-zero /
// denormals-are-zero, so the reference flushes subnormal inputs and results itself.
#pragma once
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <complex>
#include <cstring>
#include <limits>
#include <vector>

#include "compute/compute.h"
#include "kernels/element.h"
#include "support.h"

using C = std::complex<long double>;

template <class T> struct PartOf { using type = T; };
template <> struct PartOf<Imag32> { using type = float; };
template <> struct PartOf<Imag64> { using type = double; };
template <> struct PartOf<Cmplx32> { using type = float; };
template <> struct PartOf<Cmplx64> { using type = double; };
template <> struct PartOf<C> { using type = long double; };
template <class S> inline constexpr bool kPair = kIsCmplx<S> || std::is_same_v<S, C>;
template <class S> auto Re(S x) { if constexpr (std::is_same_v<S, C>) return x.real(); else return x.re; }
template <class S> auto Im(S x) { if constexpr (std::is_same_v<S, C>) return x.imag(); else return x.im; }

// One number into type D: saturating, truncating, NaN to the lower limit; signed into wider unsigned
// wraps; subnormals flushed. A same-type copy keeps every bit.
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
    if (std::is_signed_v<S> && !L::is_signed && sizeof(D) > sizeof(S)) return static_cast<D>(x);
    return static_cast<D>(std::clamp<__int128>(x, L::min(), L::max()));
  } else {
    if (std::isnan(v) || v < L::min()) return L::min();
    if (v >= static_cast<long double>(L::max()) + 1) return L::max();
    return static_cast<D>(static_cast<__int128>(std::trunc(v)));
  }
}

// One element (or a complex long double value) into type D: an imaginary element converts as its
// coefficient, a complex one as its real part; the missing part of a complex result is +0.
template <class D, class S> D Ref(S x) {
  using P = typename PartOf<D>::type;
  if constexpr (kPair<D> && kPair<S>) return D{Num<P>(Re(x)), Num<P>(Im(x))};
  else if constexpr (kPair<D> && kIsImag<S>) return D{P(0), Num<P>(x.v)};
  else if constexpr (kPair<D>) return D{Num<P>(x), P(0)};
  else if constexpr (kIsImag<D> && kPair<S>) return D{Num<P>(Im(x))};
  else if constexpr (kIsImag<D> && kIsImag<S>) return D{Num<P>(x.v)};
  else if constexpr (kIsImag<D>) return D{Num<P>(x)};
  else if constexpr (kPair<S>) return Num<D>(Re(x));
  else if constexpr (kIsImag<S>) return Num<D>(x.v);
  else return Num<D>(x);
}

template <class F> void Each(ElementType t, F &&f) {
  DispatchType(t, [&](auto tag) -> uint32_t { f(tag); return 0; });
}

// A block of n elements of one type and a guard element after them, kept as bytes.
struct Buf {
  ElementType type = 0;
  uint64_t n = 0;
  std::vector<unsigned char> bytes;
  Buf() = default;
  Buf(ElementType t, uint64_t count, unsigned char fill = 0xcd) : type(t), n(count), bytes((count + 1) * TypeSize(t), fill) {}
  void *data() { return bytes.data(); }
  const void *data() const { return bytes.data(); }
  const void *at(uint64_t i) const { return &bytes[i * TypeSize(type)]; }
  bool Guarded() const { return std::all_of(bytes.end() - TypeSize(type), bytes.end(), [](unsigned char c) { return c == 0xcd; }); }
  template <class T> T get(uint64_t i) const { T x; std::memcpy(&x, at(i), sizeof(T)); return x; }
  template <class T> void set(uint64_t i, T x) { std::memcpy(&bytes[i * sizeof(T)], &x, sizeof(T)); }
  // Element i as type R (Ref<R>): C for its exact value, Cmplx32 for the binary32 parts kernels use.
  template <class R> R As(uint64_t i) const {
    R r{};
    Each(type, [&](auto tag) { r = Ref<R>(get<decltype(tag)>(i)); });
    return r;
  }
};
inline C Value(const Buf &b, uint64_t i) { return b.As<C>(i); }

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
                            1e19L, 18446742974197923840.0L, 0x1p64L, 3.4e38L, -3.4e38L, 1.0001L, 0.3L, -1e-5L})
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

// Equal values with equal signs (so +0 and -0 differ), or both NaN (payloads of computed NaNs are not
// part of the rules).
inline bool Same(long double got, long double want) {
  if (std::isnan(got) || std::isnan(want)) return std::isnan(got) && std::isnan(want);
  return got == want && std::signbit(got) == std::signbit(want);
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
