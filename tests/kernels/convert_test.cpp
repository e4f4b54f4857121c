#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "compute/compute.h"
#include "element_model.h"
#include "kernels/element.h"
#include "platform/core/errors.h"

namespace {

uint32_t Convert(const void *src, ElementType st, uint64_t n, void *dst, ElementType dt) {
  return ComputeConvert(0, src, st, nullptr, 0, n, dst, dt);
}

template <class D, class S> D One(S x, ElementType st, ElementType dt) {
  D d{};
  EXPECT_EQ(Convert(&x, st, 1, &d, dt), 0u);
  return d;
}

template <class F> uint64_t BitsOf(F x) {
  uint64_t u = 0;
  std::memcpy(&u, &x, sizeof x);
  return u;
}

// All 196 ordered pairs, over blocks long enough for vector bodies and scalar tails, against the
// element-by-element model.
TEST(Convert, EveryPairMatchesElementModel) {
  for (const TypeModel &s : kTypeModels) {
    for (const TypeModel &d : kTypeModels) {
      const uint64_t n = 157;
      std::vector<unsigned char> src = EdgeSamples(s.code, n);
      std::vector<unsigned char> dst(n * TypeSize(d.code), 0xab);
      ASSERT_EQ(Convert(src.data(), s.code, n, dst.data(), d.code), 0u);
      std::vector<unsigned char> want = ModelConvertBlock(src.data(), s.code, n, d.code);
      const bool exact_bits = IsBitCopy(s.code, d.code) || !IsFloatKind(d.kind);
      int failures = 0;
      for (uint64_t c = 0; c < dst.size() / d.part && failures < 3; ++c) {
        const unsigned char *got = dst.data() + c * d.part, *exp = want.data() + c * d.part;
        bool same;
        if (exact_bits) {
          same = std::memcmp(got, exp, d.part) == 0;
        } else if (d.part == 4) {
          float a, b;
          std::memcpy(&a, got, 4), std::memcpy(&b, exp, 4);
          same = SameFloat(a, b);
        } else {
          double a, b;
          std::memcpy(&a, got, 8), std::memcpy(&b, exp, 8);
          same = SameFloat(a, b);
        }
        if (!same) {
          ++failures;
          ADD_FAILURE() << TypeIdent(s.code) << " -> " << TypeIdent(d.code) << " component " << c;
        }
      }
    }
  }
}

TEST(Convert, SaturatesFloatToInteger) {
  EXPECT_EQ(One<uint8_t>(300.5f, TypeReal32, TypeUint8), 255);
  EXPECT_EQ(One<uint8_t>(-0.7f, TypeReal32, TypeUint8), 0);
  EXPECT_EQ(One<uint8_t>(NAN, TypeReal32, TypeUint8), 0);
  EXPECT_EQ(One<int8_t>(NAN, TypeReal32, TypeInt8), -128);
  EXPECT_EQ(One<int8_t>(-128.9f, TypeReal32, TypeInt8), -128);
  EXPECT_EQ(One<int8_t>(127.9f, TypeReal32, TypeInt8), 127);
  EXPECT_EQ(One<int16_t>(-0.5f, TypeReal32, TypeInt16), 0);
  EXPECT_EQ(One<int16_t>(-2.7f, TypeReal32, TypeInt16), -2);
  EXPECT_EQ(One<int32_t>(2147483648.0f, TypeReal32, TypeInt32), 2147483647);
  EXPECT_EQ(One<int32_t>(-INFINITY, TypeReal32, TypeInt32), INT32_MIN);
  EXPECT_EQ(One<uint32_t>(4294967296.0f, TypeReal32, TypeUint32), 4294967295u);
  EXPECT_EQ(One<uint32_t>(4294967040.0f, TypeReal32, TypeUint32), 4294967040u);
  EXPECT_EQ(One<int64_t>(9223372036854775808.0, TypeReal64, TypeInt64), INT64_MAX);
  EXPECT_EQ(One<int64_t>(double(NAN), TypeReal64, TypeInt64), INT64_MIN);
  EXPECT_EQ(One<uint64_t>(18446744073709551616.0, TypeReal64, TypeUint64), UINT64_MAX);
  EXPECT_EQ(One<uint64_t>(INFINITY, TypeReal32, TypeUint64), UINT64_MAX);
  // From 2^63 up a uint64 receives the value exactly.
  EXPECT_EQ(One<uint64_t>(1e19, TypeReal64, TypeUint64), 10000000000000000000ull);
  EXPECT_EQ(One<uint64_t>(18446744073709549568.0, TypeReal64, TypeUint64), 18446744073709549568ull);
  EXPECT_EQ(One<uint64_t>(9223372036854775808.0f, TypeReal32, TypeUint64), 9223372036854775808ull);
  // A complex value saturates through its real part, an imaginary one through its coefficient.
  EXPECT_EQ(One<int16_t>(Cmplx32{-3.7f, 10.0f}, TypeCmplx32, TypeInt16), -3);
  EXPECT_EQ(One<uint8_t>(Imag64{1e9}, TypeImag64, TypeUint8), 255);
  const Cmplx32 block[3] = {{1.9f, 100.0f}, {-1.0f, 7.0f}, {300.0f, 0.0f}};
  uint8_t out[3];
  ASSERT_EQ(Convert(block, TypeCmplx32, 3, out, TypeUint8), 0u);
  EXPECT_EQ(out[0], 1);
  EXPECT_EQ(out[1], 0);
  EXPECT_EQ(out[2], 255);
}

TEST(Convert, IntegerWidthsWrapOrClamp) {
  EXPECT_EQ(One<uint16_t>(int8_t{-1}, TypeInt8, TypeUint16), 65535);
  EXPECT_EQ(One<uint32_t>(int8_t{-1}, TypeInt8, TypeUint32), 4294967295u);
  EXPECT_EQ(One<uint64_t>(int8_t{-1}, TypeInt8, TypeUint64), UINT64_MAX);
  EXPECT_EQ(One<uint8_t>(int8_t{-1}, TypeInt8, TypeUint8), 0);
  EXPECT_EQ(One<uint16_t>(int16_t{-5}, TypeInt16, TypeUint16), 0);
  EXPECT_EQ(One<uint32_t>(int32_t{-5}, TypeInt32, TypeUint32), 0u);
  EXPECT_EQ(One<uint32_t>(int32_t{5}, TypeInt32, TypeUint32), 5u);
  EXPECT_EQ(One<uint64_t>(int64_t{7}, TypeInt64, TypeUint64), 7u);
  EXPECT_EQ(One<uint8_t>(int32_t{300}, TypeInt32, TypeUint8), 255);
  EXPECT_EQ(One<int8_t>(uint8_t{200}, TypeUint8, TypeInt8), 127);
  EXPECT_EQ(One<int64_t>(uint64_t{1} << 63, TypeUint64, TypeInt64), INT64_MAX);
  EXPECT_EQ(One<int32_t>(-(int64_t{1} << 40), TypeInt64, TypeInt32), INT32_MIN);
  EXPECT_EQ(One<uint16_t>(uint64_t{70000}, TypeUint64, TypeUint16), 65535);
  EXPECT_EQ(One<int64_t>(uint32_t{4294967295u}, TypeUint32, TypeInt64), 4294967295);
}

TEST(Convert, IntegerToFloatRoundsToNearestEven) {
  EXPECT_EQ(One<float>(UINT64_MAX, TypeUint64, TypeReal32), 18446744073709551616.0f);
  EXPECT_EQ(One<double>(UINT64_MAX, TypeUint64, TypeReal64), 18446744073709551616.0);
  EXPECT_EQ(One<float>(int32_t{16777217}, TypeInt32, TypeReal32), 16777216.0f);
  EXPECT_EQ(One<float>(int32_t{16777219}, TypeInt32, TypeReal32), 16777220.0f);
  // Rounded once from the integer: 2^53 + 2^29 + 1 lies above the midpoint of two binary32 values,
  // but rounding through binary64 first would land on the midpoint and then on the even neighbour.
  const int64_t above = (int64_t{1} << 53) + (int64_t{1} << 29) + 1;
  EXPECT_EQ(One<float>(above, TypeInt64, TypeReal32), static_cast<float>((int64_t{1} << 53) + (int64_t{1} << 30)));
  EXPECT_EQ(One<Cmplx32>(int16_t{-3}, TypeInt16, TypeCmplx32).re, -3.0f);
  EXPECT_EQ(BitsOf(One<Cmplx32>(int16_t{-3}, TypeInt16, TypeCmplx32).im), 0u);
  EXPECT_EQ(One<Imag64>(uint8_t{9}, TypeUint8, TypeImag64).v, 9.0);
}

TEST(Convert, FloatWidthsAndParts) {
  EXPECT_EQ(One<float>(1e40, TypeReal64, TypeReal32), INFINITY);
  EXPECT_EQ(One<float>(-1e40, TypeReal64, TypeReal32), -INFINITY);
  EXPECT_EQ(BitsOf(One<float>(1e-46, TypeReal64, TypeReal32)), 0u);
  EXPECT_EQ(One<float>(Imag32{2.5f}, TypeImag32, TypeReal32), 2.5f);
  EXPECT_EQ(One<Imag32>(2.5f, TypeReal32, TypeImag32).v, 2.5f);
  Cmplx32 c = One<Cmplx32>(Imag32{2.5f}, TypeImag32, TypeCmplx32);
  EXPECT_EQ(BitsOf(c.re), 0u);
  EXPECT_EQ(c.im, 2.5f);
  EXPECT_EQ(One<Imag32>(Cmplx32{1.5f, 2.5f}, TypeCmplx32, TypeImag32).v, 2.5f);
  EXPECT_EQ(One<float>(Cmplx32{1.5f, 2.5f}, TypeCmplx32, TypeReal32), 1.5f);
  EXPECT_EQ(One<double>(Cmplx32{1.5f, 2.5f}, TypeCmplx32, TypeReal64), 1.5);
  Cmplx64 w = One<Cmplx64>(Cmplx32{1.5f, -0.0f}, TypeCmplx32, TypeCmplx64);
  EXPECT_EQ(w.re, 1.5);
  EXPECT_TRUE(std::signbit(w.im));
  Cmplx64 r = One<Cmplx64>(-2.0f, TypeReal32, TypeCmplx64);
  EXPECT_EQ(r.re, -2.0);
  EXPECT_EQ(BitsOf(r.im), 0u);
}

// Same-width reinterpretations keep every bit: NaN payloads (even signalling ones), -0, infinities
// and subnormals.
TEST(Convert, SameWidthCopiesKeepBits) {
  const uint32_t words[] = {0x7fa00001u, 0xffc12345u, 0x80000000u, 0xff800000u, 0x00000001u, 0x3fc00000u};
  const int n = 6;
  uint32_t out[2 * n];
  ASSERT_EQ(Convert(words, TypeReal32, n, out, TypeImag32), 0u);
  EXPECT_EQ(0, std::memcmp(out, words, sizeof words));
  ASSERT_EQ(Convert(words, TypeImag32, n, out, TypeReal32), 0u);
  EXPECT_EQ(0, std::memcmp(out, words, sizeof words));
  ASSERT_EQ(Convert(words, TypeImag32, n, out, TypeCmplx32), 0u);
  for (int i = 0; i < n; ++i) {
    EXPECT_EQ(out[2 * i], 0u);
    EXPECT_EQ(out[2 * i + 1], words[i]);
  }
  uint32_t part[n];
  ASSERT_EQ(Convert(out, TypeCmplx32, n, part, TypeImag32), 0u);
  EXPECT_EQ(0, std::memcmp(part, words, sizeof words));
  const uint64_t dwords[] = {0x7ff4000000000001ull, 0x8000000000000000ull, 0x0000000000000001ull};
  uint64_t dout[6];
  ASSERT_EQ(Convert(dwords, TypeReal64, 3, dout, TypeCmplx64), 0u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(dout[2 * i], dwords[i]);
    EXPECT_EQ(dout[2 * i + 1], 0u);
  }
  uint64_t back[3];
  ASSERT_EQ(Convert(dout, TypeCmplx64, 3, back, TypeReal64), 0u);
  EXPECT_EQ(0, std::memcmp(back, dwords, sizeof dwords));
  // In place with equal types nothing changes.
  uint32_t same[n];
  std::memcpy(same, words, sizeof words);
  ASSERT_EQ(Convert(same, TypeReal32, n, same, TypeReal32), 0u);
  EXPECT_EQ(0, std::memcmp(same, words, sizeof words));
}

TEST(Convert, UnknownTypesAreRefused) {
  const ElementType bad = 0x501010;
  float src[2] = {1, 2}, dst[2] = {7, 7};
  ExceptionClear();
  EXPECT_EQ(Convert(src, bad, 2, dst, TypeReal32), E_MSG);
  ASSERT_EQ(ExceptionCount(), 1u);
  EXPECT_NE(std::string(ExceptionText(0)).find(std::string("invalid data type for operation (") +
                                               TypeIdent(bad) + ")"),
            std::string::npos);
  ExceptionClear();
  EXPECT_EQ(Convert(src, TypeReal32, 2, dst, 0x123), E_MSG);
  EXPECT_NE(std::string(ExceptionText(0)).find(std::string("(") + TypeIdent(0x123) + ")"), std::string::npos);
  EXPECT_EQ(dst[0], 7.0f);
  ExceptionClear();
  EXPECT_EQ(ComputeTypeError(TypeCmplx64), E_MSG);
  EXPECT_NE(std::string(ExceptionText(0)).find("invalid data type for operation (cmplx64)"), std::string::npos);
  ExceptionClear();
  EXPECT_EQ(ComputeNop(1, src, TypeReal32, dst, TypeReal32, 2, dst, TypeReal64), 0u);
  EXPECT_EQ(dst[0], 7.0f);
}

}  // namespace
