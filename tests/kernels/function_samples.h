// Sample blocks for the function-kernel tests: edge values of every element type, bit-level float
// comparison and the refusal message check.
#pragma once
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <string>
#include <vector>

#include "kernels/element.h"
#include "platform/core/errors.h"

namespace samples {

inline uint32_t Bits(float x) {
  uint32_t b;
  std::memcpy(&b, &x, 4);
  return b;
}
inline float FromBits(uint32_t b) {
  float x;
  std::memcpy(&x, &b, 4);
  return x;
}

// Equal bit patterns, or both NaN (payloads of computed NaNs are not part of the rules).
inline bool Same(float a, float b) { return Bits(a) == Bits(b) || (std::isnan(a) && std::isnan(b)); }

inline ::testing::AssertionResult SameFloat(float got, float want) {
  if (Same(got, want)) return ::testing::AssertionSuccess();
  char buf[128];
  std::snprintf(buf, sizeof buf, "got %.9g (0x%08x), want %.9g (0x%08x)", got, Bits(got), want, Bits(want));
  return ::testing::AssertionFailure() << buf;
}

// Real values with the interesting edges: both zeros, NaN, infinities, domain limits of the inverse
// functions, overflow of exp, values beyond binary32 for the 64-bit type, then ordinary values.
template <class F> std::vector<F> RealValues() {
  const F inf = std::numeric_limits<F>::infinity();
  std::vector<F> v = {F(0),    -F(0),   F(1),     F(-1),    F(0.5),   F(-0.5),   F(2),      F(-2),
                      F(89),   F(-89),  F(88.5),  F(1e-3),  F(1e30),  F(-1e30),  F(1.0001), F(-1.0001),
                      inf,     -inf,    std::numeric_limits<F>::quiet_NaN(),    F(3.14159265358979),
                      F(100),  F(-7.25), F(16),   F(1e5)};
  if constexpr (sizeof(F) == 8) {
    for (F x : {1e300, -1e300, 1e-300, 3.4028235677973366e38, 0.1, 16777217.0}) v.push_back(x);
  }
  // Ordinary values so that the blocks are longer than a few vector groups and have a tail.
  for (int i = 0; i < 19; ++i) v.push_back(static_cast<F>((i * 37 % 23) - 11) / F(3));
  return v;
}

// Integer values: zero, one, the limits, values just past 2^24 (not exact in binary32), others.
template <class I> std::vector<I> IntValues() {
  using L = std::numeric_limits<I>;
  std::vector<I> v = {I(0), I(1), I(2), I(9), L::max(), L::min(), I(L::max() - 1), I(100), I(16)};
  auto add = [&v](std::initializer_list<I> more) {
    for (I x : more) v.push_back(x);
  };
  if constexpr (std::is_signed_v<I>) add({I(-1), I(-5), I(-9), I(L::min() + 1)});
  if constexpr (sizeof(I) >= 4) add({I(16777217), I(16777219), I(2147483647)});
  // 2^60 + 2^36 + 1 rounds up when converted once, but to 2^60 when rounded through binary64 first.
  if constexpr (sizeof(I) == 8) add({I(1) << 62, I(9007199254740993ull), I(0x1000001000000001ull)});
  if constexpr (std::is_same_v<I, uint64_t>) add({I(0x8000008000000001ull)});
  for (int i = 0; i < 23; ++i) v.push_back(static_cast<I>(i * 11 % 120));
  return v;
}

// A block of elements of type T built from the edge values.
template <class T> std::vector<T> Block() {
  if constexpr (std::is_same_v<T, float> || std::is_same_v<T, double>) {
    return RealValues<T>();
  } else if constexpr (std::is_integral_v<T>) {
    return IntValues<T>();
  } else if constexpr (kIsImag<T>) {
    using F = decltype(T{}.v);
    std::vector<T> out;
    for (F x : RealValues<F>()) out.push_back(T{x});
    return out;
  } else {
    // Complex: every pair of a set of parts, so signs, zeros, NaN and infinities meet each other.
    using F = decltype(T{}.re);
    std::vector<F> parts = RealValues<F>();
    parts.resize(24);
    std::vector<T> out;
    for (F a : parts)
      for (F b : parts) out.push_back(T{a, b});
    return out;
  }
}

// Calls f(tag, code) for each of the fourteen element types.
template <class Fn> void ForEachType(Fn &&f) {
  static const ElementType kTypes[] = {TypeUint8, TypeUint16, TypeUint32, TypeUint64, TypeInt8,
                                       TypeInt16, TypeInt32,  TypeInt64,  TypeReal32, TypeReal64,
                                       TypeImag32, TypeImag64, TypeCmplx32, TypeCmplx64};
  for (ElementType t : kTypes) {
    DispatchType(t, [&](auto tag) -> uint32_t {
      f(tag, t);
      return 0;
    });
  }
}

// A kernel call was refused with the type error naming type: status 279, one error on the stack with
// the exact text. Clears the stack.
inline ::testing::AssertionResult RefusedNaming(uint32_t status, ElementType type) {
  const std::string want = std::string("invalid data type for operation (") + TypeIdent(type) + ")";
  const uint32_t n = ExceptionCount();
  const std::string got = n ? ExceptionText(n - 1) : "";
  ExceptionClear();
  if (status != E_MSG) return ::testing::AssertionFailure() << "status " << status;
  if (n != 1) return ::testing::AssertionFailure() << n << " errors pushed";
  if (got != want) return ::testing::AssertionFailure() << "message \"" << got << "\"";
  return ::testing::AssertionSuccess();
}

}  // namespace samples
