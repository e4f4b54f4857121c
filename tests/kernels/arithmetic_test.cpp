#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "compute/compute.h"
#include "element_model.h"
#include "kernels/element.h"
#include "platform/core/errors.h"

namespace {

enum Op { kAdd, kSub, kMul, kDiv, kMod, kMulConj };
const Kernel kBinary[] = {ComputeAdd, ComputeSub, ComputeMul, ComputeDiv, ComputeMod, ComputeMulConj};
const char *const kBinaryName[] = {"add", "sub", "mul", "div", "mod", "mulconj"};

float Neg(float x) { return -x; }

uint32_t Bits(float x) {
  uint32_t u;
  std::memcpy(&u, &x, 4);
  return u;
}

// Flush-to-zero view of a binary32 value, decided on its bits.
float Flushed(float x) { return (Bits(x) & 0x7f800000u) == 0 ? std::copysign(0.0f, x) : x; }

// Element i of any type as the binary32 value(s) the kernels compute with: binary32 parts taken
// as they are, wider values and integers rounded to nearest (and flushed).
struct Operand {
  char kind;  // 'r' real or integer, 'i' imaginary coefficient, 'c' complex
  float re = 0, im = 0;
};
Operand OperandAt(const void *buf, ElementType t, uint64_t i) {
  const TypeModel &m = ModelOf(t);
  unsigned char tmp[8];
  auto narrow = [&](long double x) {
    StoreFloat(tmp, 4, x);
    float f;
    std::memcpy(&f, tmp, 4);
    return f;
  };
  auto part = [&](uint64_t k) {
    if (m.part == 4) {
      float f;
      std::memcpy(&f, static_cast<const unsigned char *>(buf) + 4 * k, 4);
      return f;
    }
    return narrow(ReadFloat(buf, 8, k, true));
  };
  if (m.kind == 'u' || m.kind == 's') return {'r', narrow(static_cast<long double>(ReadInt(buf, m, i))), 0};
  if (m.kind == 'c') return {'c', part(2 * i), part(2 * i + 1)};
  return {m.kind, part(i), 0};
}

// The element rules written out one case at a time. a is the destination element holding the
// first operand; single selects the reciprocal form of division by one value.
Cmplx32 Expected(Op op, char dst, Cmplx32 a, Operand b, bool single) {
  const char k = b.kind;
  const float x = b.re, bi = b.im;
  if (dst != 'c') {
    float v = a.re;
    switch (op) {
      case kAdd: return {v + x, 0};
      case kSub: return {v - x, 0};
      case kMul:
      case kMulConj: return {(dst == 'r' && k == 'i') ? Neg(v * x) : v * x, 0};
      case kDiv: {
        float q = single ? v * (1.0f / x) : v / x;
        return {(dst == 'i' && k == 'i') ? Neg(q) : q, 0};
      }
      case kMod: return {Flushed(std::fmod(Flushed(v), Flushed(x))), 0};
    }
  }
  switch (op) {
    case kAdd:
      if (k == 'r') return {a.re + x, a.im};
      if (k == 'i') return {a.re, a.im + x};
      return {a.re + x, a.im + bi};
    case kSub:
      if (k == 'r') return {a.re - x, a.im};
      if (k == 'i') return {a.re, a.im - x};
      return {a.re - x, a.im - bi};
    case kMul:
      if (k == 'r') return {a.re * x, a.im * x};
      if (k == 'i') return {Neg(a.im * x), a.re * x};
      return {x * a.re - bi * a.im, a.re * bi + a.im * x};
    case kMulConj:
      if (k == 'r') return {a.re * x, a.im * x};
      if (k == 'i') return {a.im * x, Neg(a.re * x)};
      return {bi * a.im + x * a.re, a.im * x - a.re * bi};
    case kDiv:
      if (k == 'c') {
        float d = x * x + bi * bi;
        float nre = a.re * x + a.im * bi, nim = a.im * x - a.re * bi;
        if (single) return {nre * (1.0f / d), nim * (1.0f / d)};
        return {nre / d, nim / d};
      } else {
        float d = x * x;
        float p = (k == 'r') ? a.re * x : a.im * x, q = (k == 'r') ? a.im * x : Neg(a.re * x);
        if (single) return {p * (1.0f / d), q * (1.0f / d)};
        return {p / d, q / d};
      }
    default: return {NAN, NAN};
  }
}

bool SameBits(float a, float b) { return SameFloat(a, b); }

char FormOfType(ElementType t) { return t == TypeCmplx32 ? 'c' : t == TypeImag32 ? 'i' : 'r'; }

Cmplx32 DstElement(const std::vector<unsigned char> &buf, ElementType t, uint64_t i) {
  if (t == TypeCmplx32) {
    Cmplx32 c;
    std::memcpy(&c, buf.data() + 8 * i, 8);
    return c;
  }
  float f;
  std::memcpy(&f, buf.data() + 4 * i, 4);
  return {f, 0};
}

bool ContainsTypeError(ElementType t) {
  std::string want = std::string("invalid data type for operation (") + TypeIdent(t) + ")";
  return ExceptionCount() == 1 && std::string(ExceptionText(0)).find(want) != std::string::npos;
}

// Every destination, first-operand type (in place included), second-operand type and form of the
// second operand, against the element rules; refused combinations leave the converted first
// operand in place and name the second operand's type.
TEST(Arithmetic, BinaryKernelsMatchElementRules) {
  const uint64_t n = 41;
  for (Op op : {kAdd, kSub, kMul, kDiv, kMod, kMulConj}) {
    std::vector<ElementType> dsts = {TypeReal32};
    if (op != kMod) dsts = {TypeReal32, TypeImag32, TypeCmplx32};
    for (ElementType dt : dsts) {
      for (ElementType st : {dt, TypeUint16, TypeInt32, TypeReal64, TypeImag32, TypeCmplx64}) {
        std::vector<unsigned char> src1 = EdgeSamples(st, n);
        const std::vector<unsigned char> first = ModelConvertBlock(src1.data(), st, n, dt);
        for (const TypeModel &m2 : kTypeModels) {
          std::vector<unsigned char> all2 = EdgeSamples(m2.code, 2 * n);
          const unsigned char *arr2 = all2.data() + n * TypeSize(m2.code);  // paired differently
          const bool refused = dt != TypeCmplx32 && m2.kind == 'c';
          for (int single = 0; single <= 1; ++single) {
            for (uint64_t pick = 0; pick < (single ? 6u : 1u); ++pick) {
              const unsigned char *src2 = single ? all2.data() + pick * 7 * TypeSize(m2.code) : arr2;
              std::vector<unsigned char> dst = (st == dt) ? src1 : std::vector<unsigned char>(n * TypeSize(dt), 0xcd);
              const void *s1 = (st == dt) ? static_cast<const void *>(dst.data()) : src1.data();
              ExceptionClear();
              uint32_t status = kBinary[op](!single, s1, st, src2, m2.code, n, dst.data(), dt);
              const std::string what = std::string(kBinaryName[op]) + " " + TypeIdent(dt) + " = " +
                                       TypeIdent(st) + " op " + TypeIdent(m2.code) + (single ? " (single)" : "");
              if (refused) {
                EXPECT_EQ(status, E_MSG) << what;
                EXPECT_TRUE(ContainsTypeError(m2.code)) << what;
                EXPECT_EQ(dst, first) << what;
                continue;
              }
              ASSERT_EQ(status, 0u) << what;
              int failures = 0;
              for (uint64_t i = 0; i < n && failures < 3; ++i) {
                Operand b = OperandAt(src2, m2.code, single ? 0 : i);
                Cmplx32 want = Expected(op, FormOfType(dt), DstElement(first, dt, i), b, single);
                Cmplx32 got = DstElement(dst, dt, i);
                if (!SameBits(got.re, want.re) || !SameBits(got.im, want.im)) {
                  ++failures;
                  ADD_FAILURE() << what << " element " << i << ": got (" << got.re << ", " << got.im
                                << ") want (" << want.re << ", " << want.im << ")";
                }
              }
            }
          }
        }
      }
    }
  }
  ExceptionClear();
}

TEST(Arithmetic, RefusedDestinationsWriteNothing) {
  float src[2] = {1, 2}, two[2] = {3, 4};
  float dst[4] = {9, 9, 9, 9};
  struct Case { Kernel k; ElementType dt; };
  for (Case c : {Case{ComputeAdd, TypeReal64}, Case{ComputeSub, TypeInt16}, Case{ComputeMul, TypeCmplx64},
                 Case{ComputeDiv, TypeUint8}, Case{ComputeMod, TypeImag32}, Case{ComputeMod, TypeCmplx32},
                 Case{ComputeMulConj, TypeImag64}, Case{ComputeNeg, TypeReal64}, Case{ComputeConj, TypeCmplx64},
                 Case{ComputeRecip, TypeInt32}}) {
    ExceptionClear();
    EXPECT_EQ(c.k(1, src, TypeReal32, two, TypeReal32, 2, dst, c.dt), E_MSG) << TypeIdent(c.dt);
    EXPECT_TRUE(ContainsTypeError(c.dt)) << TypeIdent(c.dt);
    EXPECT_EQ(dst[0], 9.0f);
  }
  // An unknown second-operand type is refused after the first operand has been converted; an
  // unknown first-operand type is the conversion's refusal.
  ExceptionClear();
  EXPECT_EQ(ComputeAdd(1, src, TypeReal32, two, 0x777, 2, dst, TypeReal32), E_MSG);
  EXPECT_TRUE(ContainsTypeError(0x777));
  EXPECT_EQ(dst[1], 2.0f);
  ExceptionClear();
  EXPECT_EQ(ComputeMul(1, src, 0x888, two, TypeReal32, 2, dst, TypeReal32), E_MSG);
  EXPECT_TRUE(ContainsTypeError(0x888));
  ExceptionClear();
}

// Negation, conjugate and reciprocal over every source type into each destination.
TEST(Arithmetic, UnaryKernelsMatchElementRules) {
  const uint64_t n = 41;
  const Kernel kernels[] = {ComputeNeg, ComputeConj, ComputeRecip};
  for (int k = 0; k < 3; ++k) {
    for (ElementType dt : {TypeReal32, TypeImag32, TypeCmplx32}) {
      const char d = FormOfType(dt);
      for (const TypeModel &m : kTypeModels) {
        std::vector<unsigned char> src = EdgeSamples(m.code, n);
        std::vector<unsigned char> dst(n * TypeSize(dt), 0xcd);
        const std::vector<unsigned char> untouched = dst;
        ExceptionClear();
        uint32_t status = kernels[k](0, src.data(), m.code, nullptr, 0, n, dst.data(), dt);
        if (d != 'c' && m.kind == 'c') {
          EXPECT_EQ(status, E_MSG);
          EXPECT_TRUE(ContainsTypeError(m.code));
          EXPECT_EQ(dst, untouched);
          continue;
        }
        ASSERT_EQ(status, 0u);
        for (uint64_t i = 0; i < n; ++i) {
          Operand x = OperandAt(src.data(), m.code, i);
          const char s = x.kind;
          Cmplx32 want;
          if (k == 0) {  // negation
            if (d == 'c') want = s == 'r' ? Cmplx32{Neg(x.re), 0} : s == 'i' ? Cmplx32{0, Neg(x.re)} : Cmplx32{Neg(x.re), Neg(x.im)};
            else want = {(d == 'i' && s == 'r') ? 0.0f : Neg(x.re), 0};
          } else if (k == 1) {  // conjugate
            if (d == 'c') want = s == 'r' ? Cmplx32{x.re, 0} : s == 'i' ? Cmplx32{0, Neg(x.re)} : Cmplx32{x.re, Neg(x.im)};
            else want = {s == 'i' ? Neg(x.re) : d == 'i' ? 0.0f : x.re, 0};
          } else {  // reciprocal
            float dd = x.im * x.im + x.re * x.re;
            if (d == 'c') want = s == 'r' ? Cmplx32{1 / x.re, 0} : s == 'i' ? Cmplx32{0, -1 / x.re} : Cmplx32{x.re / dd, Neg(x.im) / dd};
            else want = {s == 'i' ? -1 / x.re : d == 'i' ? 0.0f : 1 / x.re, 0};
          }
          Cmplx32 got = DstElement(dst, dt, i);
          ASSERT_TRUE(SameBits(got.re, want.re) && SameBits(got.im, want.im))
              << "unary " << k << " " << TypeIdent(dt) << " <- " << TypeIdent(m.code) << " element " << i;
        }
      }
    }
  }
  ExceptionClear();
}

template <class D, class A, class B> D One(Kernel k, uint32_t arr, A a, ElementType at, B b, ElementType bt, ElementType dt) {
  D d{};
  EXPECT_EQ(k(arr, &a, at, &b, bt, 1, &d, dt), 0u);
  return d;
}

TEST(Arithmetic, AdditionCases) {
  const float a[2] = {1.5f, -2.0f};
  const int16_t b[2] = {3, 4};
  float out[2];
  ASSERT_EQ(ComputeAdd(1, a, TypeReal32, b, TypeInt16, 2, out, TypeReal32), 0u);
  EXPECT_EQ(out[0], 4.5f);
  EXPECT_EQ(out[1], 2.0f);
  const float num = 2.5f;
  ASSERT_EQ(ComputeAdd(0, a, TypeReal32, &num, TypeReal32, 2, out, TypeReal32), 0u);
  EXPECT_EQ(out[0], 4.0f);
  EXPECT_EQ(out[1], 0.5f);
  const Cmplx32 z{1, 2}, w{-2.5f, 4};
  Cmplx32 r = One<Cmplx32>(ComputeAdd, 0, z, TypeCmplx32, w, TypeCmplx32, TypeCmplx32);
  EXPECT_EQ(r.re, -1.5f);
  EXPECT_EQ(r.im, 6.0f);
  r = One<Cmplx32>(ComputeSub, 0, z, TypeCmplx32, w, TypeCmplx32, TypeCmplx32);
  EXPECT_EQ(r.re, 3.5f);
  EXPECT_EQ(r.im, -2.0f);
  r = One<Cmplx32>(ComputeAdd, 1, z, TypeCmplx32, Imag32{-2.5f}, TypeImag32, TypeCmplx32);
  EXPECT_EQ(r.re, 1.0f);
  EXPECT_EQ(r.im, -0.5f);
  r = One<Cmplx32>(ComputeAdd, 1, z, TypeCmplx32, -2.5f, TypeReal32, TypeCmplx32);
  EXPECT_EQ(r.re, -1.5f);
  EXPECT_EQ(r.im, 2.0f);
  // The operand rounds to 16777216 first, then the exact sum 16777217 rounds to even.
  EXPECT_EQ(One<float>(ComputeAdd, 1, 1.0f, TypeReal32, int32_t{16777217}, TypeInt32, TypeReal32), 16777216.0f);
  r = One<Cmplx32>(ComputeAdd, 1, z, TypeCmplx32, Imag64{16777217}, TypeImag64, TypeCmplx32);
  EXPECT_EQ(r.re, 1.0f);
  EXPECT_EQ(r.im, 16777218.0f);
  // Mixed operands meet through the first operand's conversion.
  r = One<Cmplx32>(ComputeSub, 1, Imag32{3}, TypeImag32, 5.0f, TypeReal32, TypeCmplx32);
  EXPECT_EQ(r.re, -5.0f);
  EXPECT_EQ(r.im, 3.0f);
  // In place.
  float buf[3] = {1, 2, 3};
  const float three = 3;
  ASSERT_EQ(ComputeAdd(0, buf, TypeReal32, &three, TypeReal32, 3, buf, TypeReal32), 0u);
  EXPECT_EQ(buf[2], 6.0f);
}

TEST(Arithmetic, NegationCases) {
  EXPECT_EQ(Bits(One<float>(ComputeNeg, 0, uint8_t{0}, TypeUint8, 0, 0, TypeReal32)), 0x80000000u);
  EXPECT_EQ(One<float>(ComputeNeg, 0, int32_t{INT32_MIN}, TypeInt32, 0, 0, TypeReal32), 2147483648.0f);
  EXPECT_EQ(One<float>(ComputeNeg, 0, Imag32{-2.5f}, TypeImag32, 0, 0, TypeImag32), 2.5f);
  Cmplx32 z = One<Cmplx32>(ComputeNeg, 0, Cmplx32{0, 0}, TypeCmplx32, 0, 0, TypeCmplx32);
  EXPECT_EQ(Bits(z.re), 0x80000000u);
  EXPECT_EQ(Bits(z.im), 0x80000000u);
  EXPECT_TRUE(std::isnan(One<float>(ComputeNeg, 0, NAN, TypeReal32, 0, 0, TypeReal32)));
}

TEST(Arithmetic, ProductCases) {
  const Cmplx32 z{1, 2}, w{-2.5f, 4};
  for (uint32_t arr : {0u, 1u}) {
    Cmplx32 r = One<Cmplx32>(ComputeMul, arr, z, TypeCmplx32, w, TypeCmplx32, TypeCmplx32);
    EXPECT_EQ(r.re, -10.5f);
    EXPECT_EQ(r.im, -1.0f);
    r = One<Cmplx32>(ComputeMulConj, arr, z, TypeCmplx32, w, TypeCmplx32, TypeCmplx32);
    EXPECT_EQ(r.re, 5.5f);
    EXPECT_EQ(r.im, -9.0f);
  }
  Cmplx32 r = One<Cmplx32>(ComputeMul, 1, z, TypeCmplx32, Imag32{-2.5f}, TypeImag32, TypeCmplx32);
  EXPECT_EQ(r.re, 5.0f);
  EXPECT_EQ(r.im, -2.5f);
  r = One<Cmplx32>(ComputeMulConj, 1, z, TypeCmplx32, Imag32{-2.5f}, TypeImag32, TypeCmplx32);
  EXPECT_EQ(r.re, -5.0f);
  EXPECT_EQ(r.im, 2.5f);
  r = One<Cmplx32>(ComputeMulConj, 1, z, TypeCmplx32, -2.5f, TypeReal32, TypeCmplx32);
  EXPECT_EQ(r.re, -2.5f);
  EXPECT_EQ(r.im, -5.0f);
  for (Kernel k : {ComputeMul, ComputeMulConj}) {
    EXPECT_EQ(One<float>(k, 1, Imag32{2}, TypeImag32, Imag32{3}, TypeImag32, TypeReal32), -6.0f);
    EXPECT_EQ(One<float>(k, 1, 2.0f, TypeReal32, Imag32{3}, TypeImag32, TypeImag32), 6.0f);
    EXPECT_EQ(One<float>(k, 1, 2.0f, TypeReal32, 3.0f, TypeReal32, TypeReal32), 6.0f);
  }
  Cmplx32 c = One<Cmplx32>(ComputeConj, 0, w, TypeCmplx32, 0, 0, TypeCmplx32);
  EXPECT_EQ(c.re, -2.5f);
  EXPECT_EQ(c.im, -4.0f);
  c = One<Cmplx32>(ComputeConj, 0, Cmplx32{0, 0}, TypeCmplx32, 0, 0, TypeCmplx32);
  EXPECT_EQ(Bits(c.re), 0u);
  EXPECT_EQ(Bits(c.im), 0x80000000u);
  EXPECT_EQ(One<float>(ComputeConj, 0, int16_t{-3}, TypeInt16, 0, 0, TypeReal32), -3.0f);
}

TEST(Arithmetic, QuotientCases) {
  EXPECT_EQ(One<float>(ComputeDiv, 1, Imag32{6}, TypeImag32, Imag32{3}, TypeImag32, TypeReal32), 2.0f);
  EXPECT_EQ(One<float>(ComputeDiv, 1, 6.0f, TypeReal32, Imag32{3}, TypeImag32, TypeImag32), -2.0f);
  const Cmplx32 z{1, 2}, w{-2.5f, 4};
  for (uint32_t arr : {0u, 1u}) {
    Cmplx32 q = One<Cmplx32>(ComputeDiv, arr, z, TypeCmplx32, w, TypeCmplx32, TypeCmplx32);
    EXPECT_FLOAT_EQ(q.re, 0.24719101f);
    EXPECT_FLOAT_EQ(q.im, -0.40449437f);
  }
  Cmplx32 q = One<Cmplx32>(ComputeDiv, 1, z, TypeCmplx32, Imag32{-2.5f}, TypeImag32, TypeCmplx32);
  EXPECT_EQ(q.re, -0.8f);
  EXPECT_EQ(q.im, 0.4f);
  q = One<Cmplx32>(ComputeDiv, 0, z, TypeCmplx32, Imag32{-2.5f}, TypeImag32, TypeCmplx32);
  EXPECT_EQ(q.re, -0.79999995f);
  EXPECT_EQ(q.im, 0.39999998f);
  // A single divisor multiplies by its reciprocal: 5 · (1/3) is one bit above 5/3.
  EXPECT_EQ(One<float>(ComputeDiv, 1, 5.0f, TypeReal32, int16_t{3}, TypeInt16, TypeReal32), 1.6666666269302368f);
  EXPECT_EQ(One<float>(ComputeDiv, 0, 5.0f, TypeReal32, 3.0f, TypeReal32, TypeReal32), 1.6666667461395264f);
  EXPECT_EQ(One<float>(ComputeDiv, 1, 1.0f, TypeReal32, 0.0f, TypeReal32, TypeReal32), INFINITY);
  EXPECT_EQ(One<float>(ComputeDiv, 0, 1.0f, TypeReal32, -0.0f, TypeReal32, TypeReal32), -INFINITY);
  for (uint32_t arr : {0u, 1u}) {
    q = One<Cmplx32>(ComputeDiv, arr, Cmplx32{5, 7}, TypeCmplx32, 0.0f, TypeReal32, TypeCmplx32);
    EXPECT_TRUE(std::isnan(q.re) && std::isnan(q.im));
    q = One<Cmplx32>(ComputeDiv, arr, Cmplx32{5, 7}, TypeCmplx32, Cmplx32{0, 0}, TypeCmplx32, TypeCmplx32);
    EXPECT_TRUE(std::isnan(q.re) && std::isnan(q.im));
  }
  // The divisor's square overflows binary32: no scaling.
  q = One<Cmplx32>(ComputeDiv, 1, Cmplx32{5, 7}, TypeCmplx32, 1e20f, TypeReal32, TypeCmplx32);
  EXPECT_EQ(q.re, 0.0f);
  EXPECT_EQ(q.im, 0.0f);
  EXPECT_EQ(One<float>(ComputeRecip, 0, -0.0f, TypeReal32, 0, 0, TypeReal32), -INFINITY);
  EXPECT_EQ(One<float>(ComputeRecip, 0, Imag32{-2.5f}, TypeImag32, 0, 0, TypeImag32), 0.4f);
  Cmplx32 r = One<Cmplx32>(ComputeRecip, 0, w, TypeCmplx32, 0, 0, TypeCmplx32);
  EXPECT_FLOAT_EQ(r.re, -0.11235955f);
  EXPECT_FLOAT_EQ(r.im, -0.17977528f);
  r = One<Cmplx32>(ComputeRecip, 0, Cmplx32{0, 0}, TypeCmplx32, 0, 0, TypeCmplx32);
  EXPECT_TRUE(std::isnan(r.re) && std::isnan(r.im));
}

TEST(Arithmetic, RemainderCases) {
  const float a[3] = {7, -7, 5.5f};
  const int16_t b[3] = {3, 3, 2};
  float out[3];
  ASSERT_EQ(ComputeMod(1, a, TypeReal32, b, TypeInt16, 3, out, TypeReal32), 0u);
  EXPECT_EQ(out[0], 1.0f);
  EXPECT_EQ(out[1], -1.0f);
  EXPECT_EQ(out[2], 1.5f);
  const float m3 = -3;
  ASSERT_EQ(ComputeMod(0, a, TypeReal32, &m3, TypeReal32, 3, out, TypeReal32), 0u);
  EXPECT_EQ(out[0], 1.0f);
  EXPECT_EQ(out[1], -1.0f);
  EXPECT_EQ(out[2], 2.5f);
  // The exact remainder of the binary32 value 10000000000, not of a rounded quotient.
  EXPECT_EQ(One<float>(ComputeMod, 0, 1e10f, TypeReal32, 3.0f, TypeReal32, TypeReal32), 1.0f);
  EXPECT_TRUE(std::isnan(One<float>(ComputeMod, 1, 5.0f, TypeReal32, 0.0f, TypeReal32, TypeReal32)));
  EXPECT_EQ(One<float>(ComputeMod, 1, 5.0f, TypeReal32, INFINITY, TypeReal32, TypeReal32), 5.0f);
  EXPECT_EQ(Bits(One<float>(ComputeMod, 1, -0.0f, TypeReal32, 3.0f, TypeReal32, TypeReal32)), 0x80000000u);
  EXPECT_EQ(One<float>(ComputeMod, 1, Imag32{7}, TypeImag32, Imag32{3}, TypeImag32, TypeReal32), 1.0f);
  // Exponents far apart: the reduction runs to completion.
  EXPECT_EQ(One<float>(ComputeMod, 1, 3.4e38f, TypeReal32, 1.5e-38f, TypeReal32, TypeReal32),
            std::fmod(3.4e38f, 1.5e-38f));
}

// The remainder equals the C library's fmodf bit for bit (NaN payloads included) over random bit
// patterns of every exponent and the special values, with subnormal operands read as zeros and a
// subnormal remainder stored as zero, as the processor mode does.
TEST(Arithmetic, RemainderMatchesLibraryFmod) {
  std::mt19937 gen(20240611);
  std::vector<float> xs = {0.0f, -0.0f, INFINITY, -INFINITY, NAN, -NAN, 1.0f, -1.0f, 3.0f, 1e-38f,
                           1.2e-38f, 5e-39f, 3.4e38f, -3.4e38f, 0.1f, 16777216.0f, 16777217.0f};
  uint32_t payload = 0x7fc01234u;
  float pn;
  std::memcpy(&pn, &payload, 4);
  xs.push_back(pn);
  std::uniform_int_distribution<uint32_t> any;
  while (xs.size() < 400) {
    uint32_t u = any(gen);
    if (xs.size() % 3 == 0) u = (u & 0x807fffffu) | ((120 + any(gen) % 16) << 23);  // close exponents
    float f;
    std::memcpy(&f, &u, 4);
    xs.push_back(f);
  }
  const uint64_t n = xs.size();
  std::vector<float> out(n);
  for (uint64_t j = 0; j < n; j += 7) {
    const float b = xs[j];
    ASSERT_EQ(ComputeMod(0, xs.data(), TypeReal32, &b, TypeReal32, n, out.data(), TypeReal32), 0u);
    std::vector<float> divisors(n, b), out_arr(n);
    ASSERT_EQ(ComputeMod(1, xs.data(), TypeReal32, divisors.data(), TypeReal32, n, out_arr.data(), TypeReal32), 0u);
    for (uint64_t i = 0; i < n; ++i) {
      float want = Flushed(std::fmod(Flushed(xs[i]), Flushed(b)));
      ASSERT_EQ(Bits(out[i]), Bits(want)) << xs[i] << " % " << b;
      ASSERT_EQ(Bits(out_arr[i]), Bits(want)) << xs[i] << " % " << b;
    }
  }
}

}  // namespace
