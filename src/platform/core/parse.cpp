// Number parsers. Integers are decimal with an optional sign and are range-checked for their type;
// reals follow the C syntax (2.5, -1e-3, inf, nan) and round once, directly to the target width.
#include "platform/core/parse.h"

#include <bit>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace {

// Reads sign and digits; magnitude saturates at 2^64-1 with overflow set.
bool ReadInteger(const char *text, const char **end, bool *negative, uint64_t *magnitude, bool *overflow) {
  const char *p = text;
  *negative = false;
  if (*p == '+' || *p == '-') *negative = (*p++ == '-');
  if (!std::isdigit(static_cast<unsigned char>(*p))) return false;
  uint64_t m = 0;
  *overflow = false;
  for (; std::isdigit(static_cast<unsigned char>(*p)); ++p) {
    unsigned d = static_cast<unsigned>(*p - '0');
    if (m > (UINT64_MAX - d) / 10) *overflow = true;
    else m = m * 10 + d;
  }
  *magnitude = m;
  *end = p;
  return true;
}

template <class T> uint32_t ParseInteger(const char *text, const char **end, void *value) {
  *end = text;
  if (!text) return E_PARSE_NOVALUE;
  bool negative, overflow;
  uint64_t m;
  const char *e;
  if (!ReadInteger(text, &e, &negative, &m, &overflow)) return E_PARSE_NOVALUE;
  *end = e;
  if (overflow) return E_PARSE_RANGE;
  T v;
  if constexpr (std::numeric_limits<T>::is_signed) {
    uint64_t limit = negative ? uint64_t(std::numeric_limits<T>::max()) + 1 : uint64_t(std::numeric_limits<T>::max());
    if (m > limit) return E_PARSE_RANGE;
    v = negative ? static_cast<T>(0 - m) : static_cast<T>(m);
  } else {
    if (negative && m != 0) return E_PARSE_RANGE;
    if (m > std::numeric_limits<T>::max()) return E_PARSE_RANGE;
    v = static_cast<T>(m);
  }
  std::memcpy(value, &v, sizeof v);
  return 0;
}

// A parsed value below the smallest normal magnitude is kept as the zero of its sign, as the
// processor's flush-to-zero mode stores a result that small (the parser rounds on its own, so that
// mode does not reach it). Decided on the bits: the processor reads a subnormal as zero in compares.
template <class F, class U> F FlushTiny(F x, U exponent_mask) {
  const U b = std::bit_cast<U>(x);
  return (b & exponent_mask) == 0 ? std::bit_cast<F>(b & ~(~U(0) >> 1)) : x;
}

// Real numbers: leading white space is not part of a number.
bool ReadReal32(const char *text, const char **end, float *v) {
  if (!text || !*text || std::isspace(static_cast<unsigned char>(*text))) return false;
  char *e;
  *v = FlushTiny(std::strtof(text, &e), uint32_t{0x7f800000});
  if (e == text) return false;
  *end = e;
  return true;
}

}  // namespace

uint32_t StringParseUint8(const char *t, const char **e, void *v, uint32_t) { return ParseInteger<uint8_t>(t, e, v); }
uint32_t StringParseUint16(const char *t, const char **e, void *v, uint32_t) { return ParseInteger<uint16_t>(t, e, v); }
uint32_t StringParseUint32(const char *t, const char **e, void *v, uint32_t) { return ParseInteger<uint32_t>(t, e, v); }
uint32_t StringParseUint64(const char *t, const char **e, void *v, uint32_t) { return ParseInteger<uint64_t>(t, e, v); }
uint32_t StringParseInt8(const char *t, const char **e, void *v, uint32_t) { return ParseInteger<int8_t>(t, e, v); }
uint32_t StringParseInt16(const char *t, const char **e, void *v, uint32_t) { return ParseInteger<int16_t>(t, e, v); }
uint32_t StringParseInt32(const char *t, const char **e, void *v, uint32_t) { return ParseInteger<int32_t>(t, e, v); }
uint32_t StringParseInt64(const char *t, const char **e, void *v, uint32_t) { return ParseInteger<int64_t>(t, e, v); }

uint32_t StringParseReal32(const char *text, const char **end, void *value, uint32_t) {
  *end = text;
  float v;
  if (!ReadReal32(text, end, &v)) return E_PARSE_NOVALUE;
  std::memcpy(value, &v, sizeof v);
  return 0;
}

uint32_t StringParseReal64(const char *text, const char **end, void *value, uint32_t) {
  *end = text;
  if (!text || !*text || std::isspace(static_cast<unsigned char>(*text))) return E_PARSE_NOVALUE;
  char *e;
  const double v = FlushTiny(std::strtod(text, &e), uint64_t{0x7ff0000000000000});
  if (e == text) return E_PARSE_NOVALUE;
  *end = e;
  std::memcpy(value, &v, sizeof v);
  return 0;
}

uint32_t StringParseImag32(const char *text, const char **end, void *value, uint32_t) {
  *end = text;
  float v;
  const char *e;
  if (!ReadReal32(text, &e, &v)) return E_PARSE_NOVALUE;
  if (*e == 'i') ++e;
  *end = e;
  std::memcpy(value, &v, sizeof v);
  return 0;
}

uint32_t StringParseCmplx32(const char *text, const char **end, void *value, uint32_t) {
  *end = text;
  float c[2] = {0.0f, 0.0f};
  const char *e;
  if (text && *text == '(') {
    // (re,im)
    if (!ReadReal32(text + 1, &e, &c[0]) || *e != ',') return E_PARSE_NOVALUE;
    if (!ReadReal32(e + 1, &e, &c[1]) || *e != ')') return E_PARSE_NOVALUE;
    ++e;
  } else {
    float x;
    if (!ReadReal32(text, &e, &x)) return E_PARSE_NOVALUE;
    if (*e == 'i') {
      c[1] = x;
      ++e;
    } else {
      c[0] = x;
      // re+imi or re-imi; anything else leaves the end behind the real part.
      const char *f;
      float y;
      if ((*e == '+' || *e == '-') && ReadReal32(e, &f, &y) && *f == 'i') {
        c[1] = y;
        e = f + 1;
      }
    }
  }
  *end = e;
  std::memcpy(value, c, sizeof c);
  return 0;
}
