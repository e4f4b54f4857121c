// Element representations and type dispatch shared by the kernel families.
#pragma once
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "compute/compute.h"
#include "kernels/libm.h"

// Storage of the imaginary and complex element types; real and integer types are the plain C++ types.
struct Imag32 { float v; };
struct Imag64 { double v; };
struct Cmplx32 { float re, im; };
struct Cmplx64 { double re, im; };

template <class T> inline constexpr bool kIsImag = std::is_same_v<T, Imag32> || std::is_same_v<T, Imag64>;
template <class T> inline constexpr bool kIsCmplx = std::is_same_v<T, Cmplx32> || std::is_same_v<T, Cmplx64>;
template <class T> inline constexpr bool kIsRealOrInt = std::is_arithmetic_v<T>;

// The element of a real, integer or imaginary type as a binary32 value, rounded to nearest (integers
// beyond 2^24 and real64 values rounded once; uint64 keeps its magnitude; an imaginary value gives
// its coefficient).
template <class T> inline float ElementToReal32(T x) {
  if constexpr (kIsImag<T>) return static_cast<float>(x.v);
  else return static_cast<float>(x);
}

// Calls f with a value-initialised tag of the C++ type of code t and returns its result, or returns
// ComputeTypeError(t) for a code outside the fourteen.
template <class F> inline uint32_t DispatchType(ElementType t, F &&f) {
  switch (t) {
    case TypeUint8: return f(uint8_t{});
    case TypeUint16: return f(uint16_t{});
    case TypeUint32: return f(uint32_t{});
    case TypeUint64: return f(uint64_t{});
    case TypeInt8: return f(int8_t{});
    case TypeInt16: return f(int16_t{});
    case TypeInt32: return f(int32_t{});
    case TypeInt64: return f(int64_t{});
    case TypeReal32: return f(float{});
    case TypeReal64: return f(double{});
    case TypeImag32: return f(Imag32{});
    case TypeImag64: return f(Imag64{});
    case TypeCmplx32: return f(Cmplx32{});
    case TypeCmplx64: return f(Cmplx64{});
    default: return ComputeTypeError(t);
  }
}

// Binary32 view of a value with its sign bit manipulated exactly (negation and abs by bit operations).
inline float FlipSign(float x) {
  uint32_t b;
  std::memcpy(&b, &x, 4);
  b ^= 0x80000000u;
  std::memcpy(&x, &b, 4);
  return x;
}
inline float ClearSign(float x) {
  uint32_t b;
  std::memcpy(&b, &x, 4);
  b &= 0x7fffffffu;
  std::memcpy(&x, &b, 4);
  return x;
}
