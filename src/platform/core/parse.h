// Text parsing of numbers and words. Every parser reads one value at the start of text, stores it
// through value and sets *end behind the characters consumed; it returns 0 on success, or
// E_PARSE_NOVALUE (with *end = text) when no value starts there.
#pragma once
#include <cstdint>

inline constexpr uint32_t E_PARSE_NOVALUE = 1026;  // no value at this place
inline constexpr uint32_t E_PARSE_RANGE = 1027;    // value out of the type's range

using StringParseFn = uint32_t (*)(const char *text, const char **end, void *value, uint32_t flags);

// Integers: optional sign, decimal digits; range-checked for the type.
uint32_t StringParseUint8(const char *text, const char **end, void *value, uint32_t flags);
uint32_t StringParseUint16(const char *text, const char **end, void *value, uint32_t flags);
uint32_t StringParseUint32(const char *text, const char **end, void *value, uint32_t flags);
uint32_t StringParseUint64(const char *text, const char **end, void *value, uint32_t flags);
uint32_t StringParseInt8(const char *text, const char **end, void *value, uint32_t flags);
uint32_t StringParseInt16(const char *text, const char **end, void *value, uint32_t flags);
uint32_t StringParseInt32(const char *text, const char **end, void *value, uint32_t flags);
uint32_t StringParseInt64(const char *text, const char **end, void *value, uint32_t flags);
// Reals as in C: 2.5, -1e-3, inf, nan.
uint32_t StringParseReal32(const char *text, const char **end, void *value, uint32_t flags);
uint32_t StringParseReal64(const char *text, const char **end, void *value, uint32_t flags);
// Imaginary: "3" and "3i" both mean 3i; stores the binary32 coefficient.
uint32_t StringParseImag32(const char *text, const char **end, void *value, uint32_t flags);
// Complex: "3" is (3,0), "3i" is (0,3), "1+2i", "1-2i" and "(1,2)" are (1,2); stores two binary32.
uint32_t StringParseCmplx32(const char *text, const char **end, void *value, uint32_t flags);

// Words. These do not skip white space either.
// Truth value: one of 1 0 true false yes no on off t f y n (any case) as a whole word of letters and
// digits; stores one byte, 1 or 0.
uint32_t StringParseBool(const char *text, const char **end, void *value, uint32_t flags);
// Identifier: a letter or a non-digit character of extra, then letters and characters of extra; the
// identifier is text .. *end, its length is stored in *length.
uint32_t StringParseIdent(const char *text, const char **end, uint64_t *length, const char *extra);
// Plain text up to the first character equal to the low byte of flags (the end of the text when it is
// 0); stores the start of the text in *value. No value when the text stops at once.
uint32_t StringParseString(const char *text, const char **end, const char **value, uint32_t flags);
// Keyword of a null-terminated table: an entry matches when the text starts with it and no letter,
// digit or '_' follows; the longest match wins. With StringParseKeywordAnycase the comparison ignores
// case and a word of letters, digits and '_' that starts exactly one entry is also accepted.
// Stores the entry's index.
inline constexpr uint32_t StringParseKeywordAnycase = 0x1;
uint32_t StringParseKeywordCase(const char *text, const char **end, uint64_t *index, const char *const *table,
                                uint32_t flags);
// Range of two values of size bytes each, parsed with parse into value (lower bound) and value + size
// (upper bound): "a" sets both, "a:b" each, "a:" only the lower and ":b" only the upper bound.
uint32_t StringParseRange(const char *text, const char **end, void *value, StringParseFn parse, uint64_t size);
