// Number parsing of the core library: what the parser of each type makes of what users type.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>

#include "platform/core/parse.h"

namespace {

// What the parser of each type makes of a text: status, value (both parts for complex) and how much
// of the text it used; values are compared as long double.
TEST(NumberParsing, EveryParserOnWhatUsersType) {
  struct Case { StringParseFn fn; const char *text; uint32_t status; long double re, im; size_t used; };
  const long double u64 = 18446744073709551615.0L, i64 = -9223372036854775808.0L;
  const Case cases[] = {
      {StringParseUint8, "255", 0, 255, 0, 3},          {StringParseUint8, "256", E_PARSE_RANGE, 0, 0, 3},
      {StringParseUint8, "-1", E_PARSE_RANGE, 0, 0, 2}, {StringParseUint8, "-0", 0, 0, 0, 2},
      {StringParseInt8, "-128", 0, -128, 0, 4},         {StringParseInt8, "128", E_PARSE_RANGE, 0, 0, 3},
      {StringParseInt16, "2.5", 0, 2, 0, 1},            {StringParseInt16, "x", E_PARSE_NOVALUE, 0, 0, 0},
      {StringParseUint16, "65535", 0, 65535, 0, 5},     {StringParseInt32, "-2147483648", 0, -2147483648.0L, 0, 11},
      {StringParseUint32, "4294967296", E_PARSE_RANGE, 0, 0, 10},
      {StringParseUint64, "18446744073709551615", 0, u64, 0, 20},
      {StringParseUint64, "18446744073709551616", E_PARSE_RANGE, 0, 0, 20},
      {StringParseInt64, "-9223372036854775808", 0, i64, 0, 20},
      {StringParseInt64, "9223372036854775808", E_PARSE_RANGE, 0, 0, 19},
      {StringParseReal32, "-1e-3", 0, -1e-3f, 0, 5},
      // A tie between 16777216 and 16777218 rounds to even, directly; just above the tie 1 + 2^-24
      // rounds up (through binary64 it would round to the tie and then to 1).
      {StringParseReal32, "16777217", 0, 16777216, 0, 8},
      {StringParseReal32, "1.000000059604644775390625000001", 0, 1 + 0x1p-23L, 0, 32},
      {StringParseReal32, "inf", 0, INFINITY, 0, 3},    {StringParseReal32, " 1", E_PARSE_NOVALUE, 0, 0, 0},
      {StringParseReal32, "a.img", E_PARSE_NOVALUE, 0, 0, 0},
      {StringParseReal64, "0.1", 0, 0.1, 0, 3},         {StringParseImag32, "3", 0, 3, 0, 1},
      {StringParseImag32, "-2.5i", 0, -2.5, 0, 5},      {StringParseCmplx32, "3", 0, 3, 0, 1},
      {StringParseCmplx32, "3i", 0, 0, 3, 2},           {StringParseCmplx32, "1+2i", 0, 1, 2, 4},
      {StringParseCmplx32, "1-2i", 0, 1, -2, 4},        {StringParseCmplx32, "(1,2)", 0, 1, 2, 5},
      {StringParseCmplx32, "-2.5+4i", 0, -2.5, 4, 7},   {StringParseCmplx32, "1e+2-1e-1i", 0, 100, -0.1f, 10},
      {StringParseCmplx32, "1+2", 0, 1, 0, 1},          {StringParseCmplx32, "(1,2", E_PARSE_NOVALUE, 0, 0, 0},
  };
  for (const Case &c : cases) {
    alignas(8) unsigned char v[16] = {};
    const char *end = nullptr;
    EXPECT_EQ(c.fn(c.text, &end, v, 0), c.status) << c.text;
    EXPECT_EQ(static_cast<size_t>(end - c.text), c.used) << c.text;
    if (c.status) continue;
    long double re = 0, im = 0;
    float f[2];
    std::memcpy(f, v, 8);
    if (c.fn == StringParseReal32 || c.fn == StringParseImag32 || c.fn == StringParseCmplx32) re = f[0], im = f[1];
    else if (c.fn == StringParseReal64) re = *reinterpret_cast<double *>(v);
    else if (c.fn == StringParseInt8) re = static_cast<int8_t>(v[0]);
    else if (c.fn == StringParseInt16) re = *reinterpret_cast<int16_t *>(v);
    else if (c.fn == StringParseInt32) re = *reinterpret_cast<int32_t *>(v);
    else if (c.fn == StringParseInt64) re = *reinterpret_cast<int64_t *>(v);
    else re = static_cast<long double>(*reinterpret_cast<uint64_t *>(v));  // unsigned: the rest is zero
    EXPECT_TRUE(re == c.re && im == c.im) << c.text << " gave " << static_cast<double>(re) << ", " << static_cast<double>(im);
  }
  float nan = 0;
  const char *end = nullptr;
  EXPECT_TRUE(StringParseReal32("nan", &end, &nan, 0) == 0 && std::isnan(nan));
}

}  // namespace
