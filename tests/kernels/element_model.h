// A plain model of element values for the conversion and arithmetic kernel tests: elements are read
// from raw bytes by type code into exact wide values and converted one at a time, independently of
// the kernels' templates. The process runs flush-to-zero / denormals-are-zero, so the model flushes
// subnormal inputs of arithmetic conversions and subnormal results.
#pragma once
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "compute/types.h"

struct TypeModel {
  ElementType code;
  char kind;  // 'u' unsigned, 's' signed, 'r' real, 'i' imaginary, 'c' complex
  int part;   // bytes of one component
};

inline const TypeModel kTypeModels[14] = {
    {TypeUint8, 'u', 1},  {TypeUint16, 'u', 2}, {TypeUint32, 'u', 4}, {TypeUint64, 'u', 8},
    {TypeInt8, 's', 1},   {TypeInt16, 's', 2},  {TypeInt32, 's', 4},  {TypeInt64, 's', 8},
    {TypeReal32, 'r', 4}, {TypeReal64, 'r', 8}, {TypeImag32, 'i', 4}, {TypeImag64, 'i', 8},
    {TypeCmplx32, 'c', 4}, {TypeCmplx64, 'c', 8},
};

inline const TypeModel &ModelOf(ElementType t) {
  for (const TypeModel &m : kTypeModels)
    if (m.code == t) return m;
  return kTypeModels[0];
}

inline bool IsFloatKind(char k) { return k == 'r' || k == 'i' || k == 'c'; }

inline long double FlushIn(long double x, int part) {
  long double tiny = part == 4 ? 1.17549435e-38L : 2.2250738585072014e-308L;
  return (std::fabs(x) < tiny) ? std::copysign(0.0L, x) : x;
}

// One component of element i: an exact integer, or a floating value (flushed when daz is set).
inline __int128 ReadInt(const void *buf, const TypeModel &m, uint64_t i) {
  const unsigned char *p = static_cast<const unsigned char *>(buf) + i * m.part;
  uint64_t u = 0;
  std::memcpy(&u, p, m.part);
  if (m.kind == 'u') return u;
  int shift = 64 - 8 * m.part;
  return static_cast<int64_t>(u << shift) >> shift;
}
inline long double ReadFloat(const void *buf, int part, uint64_t index, bool daz) {
  const unsigned char *p = static_cast<const unsigned char *>(buf) + index * part;
  long double x;
  if (part == 4) {
    float f;
    std::memcpy(&f, p, 4);
    x = f;
  } else {
    double d;
    std::memcpy(&d, p, 8);
    x = d;
  }
  return daz ? FlushIn(x, part) : x;
}

// Element i as (value, imaginary value): integers and reals are (x, 0), imaginary (0, b), complex
// (re, im). For integers, exact holds the value.
struct ModelValue {
  bool integer = false;
  __int128 exact = 0;
  long double re = 0, im = 0;
};

inline ModelValue ReadModel(const void *buf, ElementType t, uint64_t i) {
  const TypeModel &m = ModelOf(t);
  ModelValue v;
  switch (m.kind) {
    case 'u':
    case 's':
      v.integer = true;
      v.exact = ReadInt(buf, m, i);
      v.re = static_cast<long double>(v.exact);
      break;
    case 'r': v.re = ReadFloat(buf, m.part, i, true); break;
    case 'i': v.im = ReadFloat(buf, m.part, i, true); break;
    default:
      v.re = ReadFloat(buf, m.part, 2 * i, true);
      v.im = ReadFloat(buf, m.part, 2 * i + 1, true);
  }
  return v;
}

// Rounds to the floating width (nearest, ties to even, from the exact value) and flushes
// subnormal results. The test is made on the bits: a floating comparison would itself read the
// subnormal as zero.
inline void StoreFloat(unsigned char *p, int part, long double x) {
  if (part == 4) {
    float f = static_cast<float>(x);
    uint32_t u;
    std::memcpy(&u, &f, 4);
    if ((u & 0x7f800000u) == 0) u &= 0x80000000u;
    std::memcpy(p, &u, 4);
  } else {
    double d = static_cast<double>(x);
    uint64_t u;
    std::memcpy(&u, &d, 8);
    if ((u & 0x7ff0000000000000ull) == 0) u &= 0x8000000000000000ull;
    std::memcpy(p, &u, 8);
  }
}

inline __int128 IntMin(const TypeModel &m) { return m.kind == 'u' ? 0 : -(static_cast<__int128>(1) << (8 * m.part - 1)); }
inline __int128 IntMax(const TypeModel &m) {
  return (static_cast<__int128>(1) << (8 * m.part - (m.kind == 'u' ? 0 : 1))) - 1;
}

// The converted element written to p (size of one destination element). src_kind selects which of
// the value's parts a scalar destination takes.
inline void ModelConvert(const ModelValue &v, char src_kind, const TypeModel &src, ElementType dst_type,
                         unsigned char *p) {
  const TypeModel &d = ModelOf(dst_type);
  // The number a real or integer destination receives: imaginary sources give their coefficient.
  const long double scalar = src_kind == 'i' ? v.im : v.re;
  if (d.kind == 'u' || d.kind == 's') {
    __int128 r;
    if (v.integer) {
      if (src.kind == 's' && d.kind == 'u' && d.part > src.part) {
        r = v.exact & IntMax(d);  // sign-extended and taken modulo 2^width
      } else {
        r = v.exact < IntMin(d) ? IntMin(d) : v.exact > IntMax(d) ? IntMax(d) : v.exact;
      }
    } else if (std::isnan(scalar) || scalar < static_cast<long double>(IntMin(d))) {
      r = IntMin(d);
    } else if (scalar >= static_cast<long double>(IntMax(d)) + 1) {
      r = IntMax(d);
    } else {
      r = static_cast<__int128>(std::trunc(scalar));
    }
    std::memcpy(p, &r, d.part);
  } else if (d.kind == 'r') {
    StoreFloat(p, d.part, scalar);
  } else if (d.kind == 'i') {
    StoreFloat(p, d.part, src_kind == 'c' ? v.im : scalar);
  } else {
    StoreFloat(p, d.part, v.re);
    StoreFloat(p + d.part, d.part, v.im);
  }
}

// Same-width copies between real, imaginary and complex parts keep their bits (no flushing).
inline bool IsBitCopy(ElementType s, ElementType d) {
  const TypeModel &a = ModelOf(s), &b = ModelOf(d);
  return s == d || (IsFloatKind(a.kind) && IsFloatKind(b.kind) && a.part == b.part &&
                    !(a.kind == 'c' && b.kind == 'c'));
}

// Element-by-element model conversion of a whole block.
inline std::vector<unsigned char> ModelConvertBlock(const void *src, ElementType st, uint64_t n, ElementType dt) {
  const TypeModel &s = ModelOf(st), &d = ModelOf(dt);
  const int dsize = TypeSize(dt);
  std::vector<unsigned char> out(n * dsize);
  for (uint64_t i = 0; i < n; ++i) {
    unsigned char *p = out.data() + i * dsize;
    if (IsBitCopy(st, dt) && st != dt) {
      const unsigned char *q = static_cast<const unsigned char *>(src);
      // Which part moves: the real value / coefficient, or a complex element's part.
      int from = s.kind == 'c' ? (d.kind == 'i' ? 1 : 0) : 0;
      int to = d.kind == 'c' ? (s.kind == 'i' ? 1 : 0) : 0;
      if (d.kind == 'c') std::memset(p, 0, dsize);
      std::memcpy(p + to * d.part, q + (i * (s.kind == 'c' ? 2 : 1) + from) * s.part, s.part);
    } else if (st == dt) {
      std::memcpy(p, static_cast<const unsigned char *>(src) + i * dsize, dsize);
    } else {
      ModelConvert(ReadModel(src, st, i), s.kind, s, dt, p);
    }
  }
  return out;
}

// Floating bits compared exactly, except that any NaN matches any NaN.
template <class F> inline bool SameFloat(F a, F b) {
  if (std::isnan(a) && std::isnan(b)) return true;
  return std::memcmp(&a, &b, sizeof a) == 0;
}

// A block of n elements of type t cycling through edge values of its class: integer limits and
// their neighbours, floating values around every saturation limit, signed zeros, infinities, NaNs
// with payloads and subnormals. Complex elements pair two different such values.
inline std::vector<unsigned char> EdgeSamples(ElementType t, uint64_t n) {
  const TypeModel &m = ModelOf(t);
  std::vector<unsigned char> out(n * TypeSize(t));
  if (m.kind == 'u' || m.kind == 's') {
    const __int128 two63 = static_cast<__int128>(1) << 63;
    const __int128 cand[] = {0, 1, -1, 5, -5, 7, 127, 128, -128, -129, 200, 255, 256, 32767, 32768, -32768,
                             -32769, 65535, 65536, 16777217, 2147483647, 2147483648LL, -2147483647LL - 1,
                             4294967295LL, (static_cast<__int128>(1) << 53) + 1, static_cast<__int128>(1) << 40,
                             -(static_cast<__int128>(1) << 40), two63 - 1, two63, -two63, 2 * two63 - 1};
    std::vector<__int128> ok;
    for (__int128 c : cand)
      if (c >= IntMin(m) && c <= IntMax(m)) ok.push_back(c);
    for (uint64_t i = 0; i < n; ++i) std::memcpy(out.data() + i * m.part, &ok[i % ok.size()], m.part);
    return out;
  }
  std::vector<long double> vals = {
      NAN, -INFINITY, INFINITY, 0.0L, -0.0L, 0.5L, -0.5L, -0.7L, 2.7L, -2.7L, 1.5L, 2.5L, -3.7L, 10.0L,
      127.9L, -128.9L, 255.9L, 256.0L, 300.5L, 32767.9L, -32768.9L, 65535.5L, 16777217.0L, 2147483520.0L,
      2147483648.0L, -2147483648.0L, -2147483904.0L, 4294967040.0L, 4294967296.0L, 9223371487098961920.0L,
      9223372036854775808.0L, -9223372036854775808.0L, 1e19L, 18446742974197923840.0L,
      18446744073709551616.0L, 3.4e38L, -3.4e38L, 1e-40L, -1e-40L};
  if (m.part == 8) {
    const long double more[] = {1e40L, -1e40L, 1e-46L, 1e-310L, 4294967295.9L, 2147483647.9L,
                                -2147483648.9L, 18446744073709549568.0L, 9223372036854774784.0L,
                                -9223372036854777856.0L, 1e300L, 0.1L};
    vals.insert(vals.end(), std::begin(more), std::end(more));
  }
  const int parts = m.kind == 'c' ? 2 : 1;
  for (uint64_t i = 0; i < n * parts; ++i) {
    uint64_t k = parts == 2 && (i & 1) ? (i * 7 + 3) : i / parts;
    long double x = vals[k % vals.size()];
    unsigned char *p = out.data() + i * m.part;
    if (m.part == 4) {
      float f = static_cast<float>(x);
      std::memcpy(p, &f, 4);
    } else {
      double d = static_cast<double>(x);
      std::memcpy(p, &d, 8);
    }
    // Every 11th component becomes a NaN with a payload, alternately signalling and negative, so
    // that bit copies can be seen to keep it.
    if (i % 11 == 10) {
      if (m.part == 4) {
        uint32_t u = (i % 22 == 10) ? 0x7fa00001u : 0xffc12345u;
        std::memcpy(p, &u, 4);
      } else {
        uint64_t u = (i % 22 == 10) ? 0x7ff4000000000001ull : 0xfff8000012345678ull;
        std::memcpy(p, &u, 8);
      }
    }
  }
  return out;
}
