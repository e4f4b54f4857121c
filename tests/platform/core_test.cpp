// Error stack, number parsing, array sizes and the type table.
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <string>

#include <unistd.h>

#include "platform/core/array.h"
#include "platform/core/errors.h"
#include "platform/core/escape.h"
#include "platform/core/parse.h"
#include "platform/core/types.h"

namespace {

const ErrorEntry kTable[] = {{"E_A", "first thing failed"}, {"E_B", "second thing failed"}, {nullptr, nullptr}};

TEST(ErrorStack, MessagesJoinRegisteredTextPushedTextPathAndReason) {
  ExceptionClear();
  ASSERT_EQ(ExceptionRegister(kTable, 0x7000, 0x7002), 0u);
  EXPECT_EQ(ExceptionGet(1), 0u);
  EXPECT_EQ(ExceptionPushMsg(E_MSG, "invalid data type for operation (", "int8", ")", nullptr), E_MSG);
  EXPECT_EQ(ExceptionPush(0x7001), 0x7001u);
  ExceptionSetPath("dir/a.img");
  ExceptionSetErrno(ENOENT);
  EXPECT_EQ(ExceptionAppend(" -seed"), 0x7001u);
  EXPECT_EQ(ExceptionGet(1), 0x7001u);
  ASSERT_EQ(ExceptionCount(), 2u);
  EXPECT_STREQ(ExceptionText(0), "invalid data type for operation (int8)");
  EXPECT_EQ(std::string(ExceptionText(1)), std::string("second thing failed -seed: dir/a.img: ") + std::strerror(ENOENT));
  ExceptionClear();
}

TEST(ErrorStack, PassingOnThePendingCodeKeepsOneEntry) {
  ExceptionClear();
  EXPECT_EQ(ExceptionPush(0), 0u);
  EXPECT_EQ(ExceptionCount(), 0u);
  ExceptionPushMsg(E_MSG, "kernel refused", nullptr);
  EXPECT_EQ(ExceptionPush(E_MSG), E_MSG);
  EXPECT_EQ(ExceptionCount(), 1u);
  ExceptionPush(E_MEMORY);
  EXPECT_EQ(ExceptionCount(), 2u);
  EXPECT_STREQ(ExceptionText(1), "out of memory");
  EXPECT_STREQ(ExceptionText(2), "");
  ExceptionClear();
}

// Texts from files and arguments as messages show them; printable UTF-8 stays.
TEST(ErrorStack, ReportedTextsAreEscaped) {
  const std::string kept = "a b~ \xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80 \xc2\xa0\xe2\x80\xaf\xe2\x81\xaa";
  const std::pair<std::string, std::string> rows[] = {
      {kept, kept}, {"\n\t\r\\", "\\n\\t\\r\\\\"}, {"\x1b[2J\x7f\x01", "\\x1b[2J\\x7f\\x01"},
      // C1 controls, direction marks and line separators.
      {"\xc2\x80\xc2\x9f\xe2\x80\xaa\xe2\x80\xae\xe2\x81\xa6\xe2\x81\xa9\xe2\x80\xa8",
       "\\u0080\\u009f\\u202a\\u202e\\u2066\\u2069\\u2028"},
      // Not UTF-8: a stray byte, a cut sequence, overlong forms, a surrogate, past U+10FFFF.
      {"\xff\xc3", "\\xff\\xc3"}, {"\xc0\xaf\xe0\x9f\xbf", "\\xc0\\xaf\\xe0\\x9f\\xbf"},
      {"\xed\xa0\x80\xf4\x90\x80\x80", "\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80"}};
  for (const auto &[in, out] : rows) EXPECT_EQ(CoreEscape(in), out);
  // The writer of the signal handlers gives the same text, also well past its buffer.
  std::string text;
  for (int i = 0; i < 100; ++i) text += "\x1b\xc3\xa9";
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  CoreWriteEscaped(p[1], text.c_str());
  close(p[1]);
  std::string got(4096, '\0');
  got.resize(static_cast<size_t>(std::max<ssize_t>(0, read(p[0], got.data(), got.size()))));
  close(p[0]);
  EXPECT_EQ(got, CoreEscape(text));
}

template <class T> uint32_t Parse(uint32_t (*fn)(const char *, const char **, void *, uint32_t), const char *text, T *v,
                                  size_t *used) {
  const char *end = nullptr;
  uint32_t st = fn(text, &end, v, 0);
  *used = static_cast<size_t>(end - text);
  return st;
}

TEST(NumberParsing, IntegersAreDecimalAndRangeChecked) {
  size_t used;
  uint8_t u8;
  EXPECT_EQ(Parse(StringParseUint8, "255", &u8, &used), 0u);
  EXPECT_EQ(u8, 255);
  EXPECT_EQ(Parse(StringParseUint8, "256", &u8, &used), E_PARSE_RANGE);
  EXPECT_EQ(Parse(StringParseUint8, "-1", &u8, &used), E_PARSE_RANGE);
  EXPECT_EQ(Parse(StringParseUint8, "-0", &u8, &used), 0u);
  int8_t i8;
  EXPECT_EQ(Parse(StringParseInt8, "-128", &i8, &used), 0u);
  EXPECT_EQ(i8, -128);
  EXPECT_EQ(Parse(StringParseInt8, "128", &i8, &used), E_PARSE_RANGE);
  int16_t i16;
  EXPECT_EQ(Parse(StringParseInt16, "2.5", &i16, &used), 0u);
  EXPECT_EQ(used, 1u);  // the caller sees the text was not consumed
  EXPECT_EQ(Parse(StringParseInt16, "x", &i16, &used), E_PARSE_NOVALUE);
  EXPECT_EQ(used, 0u);
  uint64_t u64;
  EXPECT_EQ(Parse(StringParseUint64, "18446744073709551615", &u64, &used), 0u);
  EXPECT_EQ(u64, UINT64_MAX);
  EXPECT_EQ(Parse(StringParseUint64, "18446744073709551616", &u64, &used), E_PARSE_RANGE);
  int64_t i64;
  EXPECT_EQ(Parse(StringParseInt64, "-9223372036854775808", &i64, &used), 0u);
  EXPECT_EQ(i64, INT64_MIN);
  EXPECT_EQ(Parse(StringParseInt64, "9223372036854775808", &i64, &used), E_PARSE_RANGE);
}

TEST(NumberParsing, RealsRoundOnceToBinary32) {
  size_t used;
  float f;
  EXPECT_EQ(Parse(StringParseReal32, "-1e-3", &f, &used), 0u);
  EXPECT_EQ(f, -1e-3f);
  // 16777217 is a tie between 16777216 and 16777218: to even, directly.
  EXPECT_EQ(Parse(StringParseReal32, "16777217", &f, &used), 0u);
  EXPECT_EQ(f, 16777216.0f);
  // Just above the tie 1 + 2^-24: through binary64 it would round to the tie and then to 1.
  EXPECT_EQ(Parse(StringParseReal32, "1.000000059604644775390625000001", &f, &used), 0u);
  EXPECT_EQ(f, 1.0000001f);
  EXPECT_EQ(Parse(StringParseReal32, "inf", &f, &used), 0u);
  EXPECT_TRUE(std::isinf(f));
  EXPECT_EQ(Parse(StringParseReal32, "nan", &f, &used), 0u);
  EXPECT_TRUE(std::isnan(f));
  EXPECT_EQ(Parse(StringParseReal32, " 1", &f, &used), E_PARSE_NOVALUE);
  EXPECT_EQ(Parse(StringParseReal32, "a.img", &f, &used), E_PARSE_NOVALUE);
}

TEST(NumberParsing, ImaginaryAndComplexForms) {
  size_t used;
  float im;
  EXPECT_EQ(Parse(StringParseImag32, "3", &im, &used), 0u);
  EXPECT_EQ(im, 3.0f);
  EXPECT_EQ(Parse(StringParseImag32, "-2.5i", &im, &used), 0u);
  EXPECT_EQ(im, -2.5f);
  EXPECT_EQ(used, 5u);
  struct Case { const char *text; float re, im; size_t used; } cases[] = {
      {"3", 3, 0, 1}, {"3i", 0, 3, 2}, {"1+2i", 1, 2, 4}, {"1-2i", 1, -2, 4}, {"(1,2)", 1, 2, 5},
      {"-2.5+4i", -2.5f, 4, 7}, {"1e+2-1e-1i", 100, -0.1f, 10}, {"1+2", 1, 0, 1},
  };
  for (const Case &c : cases) {
    float v[2] = {-7, -7};
    EXPECT_EQ(Parse(StringParseCmplx32, c.text, v, &used), 0u) << c.text;
    EXPECT_EQ(v[0], c.re) << c.text;
    EXPECT_EQ(v[1], c.im) << c.text;
    EXPECT_EQ(used, c.used) << c.text;
  }
  float v[2];
  EXPECT_EQ(Parse(StringParseCmplx32, "(1,2", v, &used), E_PARSE_NOVALUE);
}

TEST(ArraySize, CountsElementsAndDetectsOverflow) {
  uint64_t n = 99;
  const uint64_t len[] = {64, 64, 1, 10};
  EXPECT_EQ(ArrayOffset(4, len, 4, &n), 0u);
  EXPECT_EQ(n, 40960u);
  const uint64_t zero[] = {5, 0, 7};
  EXPECT_EQ(ArrayOffset(3, zero, 16, &n), 0u);
  EXPECT_EQ(n, 0u);
  const uint64_t big[] = {1ull << 32, 1ull << 32};
  EXPECT_EQ(ArrayOffset(2, big, 1, &n), E_ARRAY_SIZE);
  // 2^62 elements: 2^63 bytes of int16 fit in 64 bits, 2^64 bytes of real32 do not.
  const uint64_t bytes[] = {1ull << 62};
  EXPECT_EQ(ArrayOffset(1, bytes, 4, &n), E_ARRAY_SIZE);
  EXPECT_EQ(ArrayOffset(1, bytes, 2, &n), 0u);
}

TEST(TypeTable, TwentyNamesWithTheFourteenLabels) {
  int names = 0;
  while (TypeIdentTab[names]) ++names;
  EXPECT_EQ(names, 20);
  const uint32_t codes[] = {TypeUint8, TypeUint16, TypeUint32, TypeUint64, TypeInt8, TypeInt16, TypeInt32,
                            TypeInt64, TypeReal32, TypeReal64, TypeImag32, TypeImag64, TypeCmplx32, TypeCmplx64};
  for (uint32_t c : codes) {
    const char *name = TypeIdent(c);
    int found = -1;
    for (int i = 0; i < names; ++i)
      if (std::strcmp(TypeIdentTab[i], name) == 0) found = i;
    ASSERT_GE(found, 0) << name;
    EXPECT_EQ(TypeCodeTab[found], c) << name;
  }
  EXPECT_STREQ(TypeIdent(TypeCmplx64), "cmplx64");
  EXPECT_STREQ(TypeIdent(0x123), "0x123");
}

}  // namespace
