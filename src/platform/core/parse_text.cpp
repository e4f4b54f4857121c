// Word parsers: truth values, identifiers, plain text, keywords and ranges.
#include <cctype>
#include <cstring>

#include "platform/core/parse.h"

namespace {

bool IsWordChar(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; }

bool SameChar(char a, char b, bool anycase) {
  if (!anycase) return a == b;
  return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
}

// Length of the entry when the text starts with it (by the case rule) and no word character follows.
size_t MatchWhole(const char *text, const char *entry, bool anycase) {
  size_t n = 0;
  for (; entry[n]; ++n)
    if (!text[n] || !SameChar(text[n], entry[n], anycase)) return 0;
  if (n == 0 || IsWordChar(text[n])) return 0;
  return n;
}

struct BoolWord {
  const char *word;
  unsigned char value;
};

const BoolWord kBoolWords[] = {
    {"1", 1}, {"0", 0}, {"true", 1}, {"false", 0}, {"yes", 1}, {"no", 0},
    {"on", 1}, {"off", 0}, {"t", 1},   {"f", 0},     {"y", 1},   {"n", 0},
};

}  // namespace

uint32_t StringParseBool(const char *text, const char **end, void *value, uint32_t) {
  *end = text;
  if (!text) return E_PARSE_NOVALUE;
  size_t n = 0;
  while (std::isalnum(static_cast<unsigned char>(text[n]))) ++n;
  if (n == 0) return E_PARSE_NOVALUE;
  for (const BoolWord &w : kBoolWords) {
    if (std::strlen(w.word) != n) continue;
    size_t i = 0;
    while (i < n && SameChar(text[i], w.word[i], true)) ++i;
    if (i < n) continue;
    *static_cast<unsigned char *>(value) = w.value;
    *end = text + n;
    return 0;
  }
  return E_PARSE_NOVALUE;
}

uint32_t StringParseIdent(const char *text, const char **end, uint64_t *length, const char *extra) {
  *end = text;
  if (!text) return E_PARSE_NOVALUE;
  auto allowed = [extra](char c) {
    return std::isalpha(static_cast<unsigned char>(c)) || (c && extra && std::strchr(extra, c));
  };
  // A leading digit would make the name look like a number.
  if (!allowed(text[0]) || std::isdigit(static_cast<unsigned char>(text[0]))) return E_PARSE_NOVALUE;
  const char *p = text + 1;
  while (allowed(*p)) ++p;
  *end = p;
  if (length) *length = static_cast<uint64_t>(p - text);
  return 0;
}

uint32_t StringParseString(const char *text, const char **end, const char **value, uint32_t flags) {
  *end = text;
  if (!text) return E_PARSE_NOVALUE;
  char stop = static_cast<char>(flags & 0xff);
  const char *p = text;
  while (*p && *p != stop) ++p;
  if (p == text) return E_PARSE_NOVALUE;
  *end = p;
  if (value) *value = text;
  return 0;
}

uint32_t StringParseKeywordCase(const char *text, const char **end, uint64_t *index, const char *const *table,
                                uint32_t flags) {
  *end = text;
  if (!text || !table) return E_PARSE_NOVALUE;
  bool anycase = (flags & StringParseKeywordAnycase) != 0;
  size_t best = 0;
  uint64_t best_index = 0;
  for (uint64_t i = 0; table[i]; ++i) {
    size_t n = MatchWhole(text, table[i], anycase);
    if (n > best) {
      best = n;
      best_index = i;
    }
  }
  if (best == 0 && anycase) {
    // Abbreviation: the word must start exactly one entry.
    size_t n = 0;
    while (IsWordChar(text[n])) ++n;
    if (n == 0) return E_PARSE_NOVALUE;
    uint64_t found = 0;
    for (uint64_t i = 0; table[i]; ++i) {
      if (std::strlen(table[i]) < n) continue;
      size_t k = 0;
      while (k < n && SameChar(text[k], table[i][k], true)) ++k;
      if (k < n) continue;
      if (found++) return E_PARSE_NOVALUE;
      best_index = i;
    }
    if (!found) return E_PARSE_NOVALUE;
    best = n;
  }
  if (best == 0) return E_PARSE_NOVALUE;
  if (index) *index = best_index;
  *end = text + best;
  return 0;
}

uint32_t StringParseRange(const char *text, const char **end, void *value, StringParseFn parse, uint64_t size) {
  *end = text;
  if (!text || !parse || !value || size > 16) return E_PARSE_NOVALUE;
  // Parse into scratch space first, so that a failed range leaves the bounds untouched.
  alignas(8) unsigned char lower[16], upper[16];
  const char *p = text, *e;
  bool have_lower = false, have_upper = false;
  uint32_t st = parse(p, &e, lower, 0);
  if (st == 0) {
    have_lower = true;
    p = e;
  } else if (st != E_PARSE_NOVALUE) {
    *end = e;
    return st;
  }
  if (*p == ':') {
    st = parse(p + 1, &e, upper, 0);
    if (st == 0) {
      have_upper = true;
      p = e;
    } else if (st != E_PARSE_NOVALUE) {
      *end = e;
      return st;
    } else if (have_lower) {
      p = p + 1;  // "a:" leaves the upper bound as it was
    }
  } else if (have_lower) {
    std::memcpy(upper, lower, size);
    have_upper = true;
  }
  if (!have_lower && !have_upper) return E_PARSE_NOVALUE;
  unsigned char *v = static_cast<unsigned char *>(value);
  if (have_lower) std::memcpy(v, lower, size);
  if (have_upper) std::memcpy(v + size, upper, size);
  *end = p;
  return 0;
}
