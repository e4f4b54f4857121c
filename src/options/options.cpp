// Option declarations and their parsing from the argument vector and the environment.
#include "options/options.h"

#include <cctype>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>

char OptionsPrfx = '-';
char OptionsSepIdent = 0;
char OptionsSepValue = 0;
const char OptionsSepIdentTab[] = "=:";
const char OptionsSepValueTab[] = ",,:;";
const char OptionsExtra[] = "_-0123456789";
const char OptionsEnvPrfx[] = "zv";

const ErrorEntry OptionsErrorTable[] = {
    {"E_OPTIONS", "internal error (options)"},
    {"E_OPTIONS_PARSE", "option parse error"},
    {"E_OPTIONS_NONE", "unknown command line option"},
    {"E_OPTIONS_ERR", "invalid command line option"},
    {"E_OPTIONS_VAL", "illegal option value"},
    {"E_OPTIONS_NUM", "invalid number of option values"},
    {"E_OPTIONS_DUP", "duplicate command line option"},
    {"E_OPTIONS_REQ", "required command line option"},
    {"E_OPTIONS_CONFL", "conflicting command line options"},
    {"E_OPTIONS_ARG", "invalid command line argument"},
    {"E_OPTIONS_ARGNUM", "insufficient number of command line arguments"},
    {nullptr, nullptr},
};

namespace {

const int64_t kIntRange[2] = {INT64_MIN, INT64_MAX};
const uint64_t kSizeRange[2] = {0, UINT64_MAX};
const double kCoordRange[2] = {-DBL_MAX, DBL_MAX};
const float kRealRange[2] = {-FLT_MAX, FLT_MAX};

constexpr const char *kName = "options";
constexpr const char *kVersion = "2.4.1373";
constexpr const char *kStamp = "201406222041";
constexpr const char *kNotice = "command line option declarations and parsing";

// Matched arguments are replaced by this until the vector is compacted.
char kEmpty[1] = {0};

OptionRegistration registry[OptionsRegistryMax];
uint32_t registry_count = 0;

bool IsSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

const char *SkipSpace(const char *p) {
  while (IsSpace(*p)) ++p;
  return p;
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// An option argument: the prefix character and a second character that does not start a number.
bool IsOption(const char *a) {
  return a[0] == OptionsPrfx && a[1] && !IsDigit(a[1]) && std::strcmp(a, "--") != 0;
}

// A run of values stops here (a lone prefix character is a value).
bool StopsRun(const char *a) {
  return !a[0] || std::strcmp(a, "--") == 0 || (a[0] == OptionsPrfx && a[1] && !IsDigit(a[1]));
}

}  // namespace

const OptionType OptionTypeTable[OptionTypeCount] = {
    {"Switch", nullptr, nullptr, 0, 0},
    {"String", nullptr, nullptr, 0, sizeof(const char *)},
    {"Keyword", nullptr, nullptr, 0, 0},
    {"Bool", StringParseBool, nullptr, 0, 1},
    {"Index", StringParseInt64, kIntRange, sizeof kIntRange, sizeof(int64_t)},
    {"Size", StringParseUint64, kSizeRange, sizeof kSizeRange, sizeof(uint64_t)},
    {"Offset", StringParseInt64, kIntRange, sizeof kIntRange, sizeof(int64_t)},
    {"Coord", StringParseReal64, kCoordRange, sizeof kCoordRange, sizeof(double)},
    {"Real", StringParseReal32, kRealRange, sizeof kRealRange, sizeof(float)},
    {"Complex", StringParseCmplx32, nullptr, 0, 2 * sizeof(float)},
};

const char *const OptionTypeNames[OptionTypeCount + 1] = {
    "Switch", "String", "Keyword", "Bool", "Index", "Size", "Offset", "Coord", "Real", "Complex", nullptr,
};

// ---------------------------------------------------------------------------------------------
// Declarations

namespace {

// Reads a declaration without reporting; false on the first element that does not fit.
bool ReadSpec(const char *declaration, OptionSpec *spec, const OptionPrefix *prefix) {
  std::memset(spec, 0, sizeof *spec);
  spec->min_count = 1;
  spec->max_count = UINT64_MAX;
  spec->prefix = prefix && prefix->prefix ? prefix->prefix : "";
  if (!declaration) return false;

  const char *p = SkipSpace(declaration), *e;
  if (*p == '[') {
    spec->flags |= OptionFlagOptional;
    p = SkipSpace(p + 1);
  }

  uint64_t length;
  if (StringParseIdent(p, &e, &length, OptionsExtra)) return false;
  if (!(length == 3 && std::memcmp(p, "ARG", 3) == 0)) {
    spec->name = p;
    spec->name_length = length;
  }
  p = SkipSpace(e);

  if (spec->name_length) {
    if (*p == '<') {
      spec->flags |= OptionFlagEnv;
      spec->env_name = spec->name;
      spec->env_length = spec->name_length;
      spec->env_program = Main;
      p = SkipSpace(p + 1);
      if (*p != '>') {
        if (*p == '_') {
          spec->flags &= ~OptionFlagEnv;  // only <program>_<name>
          p = SkipSpace(p + 1);
        } else {
          spec->env_program = nullptr;  // only zv_<name>
        }
        if (*p == '*') {
          ++p;
        } else if (StringParseIdent(p, &e, &length, OptionsExtra) == 0) {
          spec->env_name = p;
          spec->env_length = length;
          p = e;
        } else {
          return false;
        }
        p = SkipSpace(p);
        if (*p != '>') return false;
      }
      p = SkipSpace(p + 1);
    }
    if (*p && std::strchr(OptionsSepIdentTab, *p)) {
      spec->sep_ident = *p;
      p = SkipSpace(p + 1);
    }
    if (OptionsSepIdent) spec->sep_ident = OptionsSepIdent;
    if (spec->sep_ident) {
      const char *at = std::strchr(OptionsSepIdentTab, spec->sep_ident);
      spec->sep_value = OptionsSepValueTab[at ? at - OptionsSepIdentTab : 0];
    }
  }
  if (OptionsSepValue) spec->sep_value = OptionsSepValue;

  uint64_t counts[2] = {spec->min_count, spec->max_count};
  bool explicit_count = false;
  uint32_t st = StringParseRange(p, &e, counts, StringParseUint64, sizeof(uint64_t));
  if (st == 0) {
    explicit_count = true;
    spec->min_count = counts[0];
    spec->max_count = counts[1];
    if (prefix && prefix->count && prefix->count >= counts[0] && prefix->count <= counts[1])
      spec->min_count = spec->max_count = prefix->count;
    p = SkipSpace(e);
  } else if (st != E_PARSE_NOVALUE) {
    return false;
  }

  if (*p == '*') {
    spec->flags |= OptionFlagSquare;
    p = SkipSpace(p + 1);
  }
  if (*p == '=') {
    p = SkipSpace(p + 1);
    if (StringParseUint64(p, &e, &spec->fixed_count, 0)) return false;
    p = SkipSpace(e);
  }

  uint64_t type = OptionTypeSwitch;
  if (StringParseKeywordCase(p, &e, &type, OptionTypeNames, 0) == 0) p = SkipSpace(e);
  spec->type = type;
  if (type == OptionTypeSwitch) {
    if (explicit_count) return false;
    spec->min_count = spec->max_count = 1;
  } else {
    if (*p == '+') {
      spec->flags |= OptionFlagPositive;
      p = SkipSpace(p + 1);
    }
    if (*p == '<') {
      if (p[1] == '=') {
        spec->flags |= OptionFlagNonDecreasing;
        p += 2;
      } else {
        spec->flags |= OptionFlagIncreasing;
        p += 1;
      }
      p = SkipSpace(p);
    }
    const OptionType &t = OptionTypeTable[type];
    spec->parse = t.parse;
    if (t.range) {
      std::memcpy(spec->range, t.range, t.range_size);
      st = StringParseRange(p, &e, spec->range, t.parse, t.range_size / 2);
      if (st == 0) {
        spec->flags |= OptionFlagRange;
        p = SkipSpace(e);
      } else if (st != E_PARSE_NOVALUE) {
        return false;
      }
    }
    if (!explicit_count) spec->min_count = spec->max_count = 1;
  }

  if ((spec->flags & OptionFlagOptional) && *p == ']') p = SkipSpace(p + 1);
  return *p == 0;
}

}  // namespace

uint32_t OptionsParseSpec(const char *declaration, OptionSpec *spec, const OptionPrefix *prefix) {
  if (!spec || !declaration) return ExceptionPush(E_ARGUMENT);
  if (!ReadSpec(declaration, spec, prefix)) return OptionsReportSpec(E_OPTIONS_PARSE, declaration);
  return 0;
}

bool OptionsReadSpecQuiet(const char *declaration, OptionSpec *spec, const OptionPrefix *prefix) {
  return declaration && ReadSpec(declaration, spec, prefix);
}

// ---------------------------------------------------------------------------------------------
// Values

namespace {

// Count check of n values; *n may be cut to the shared count when it is not exact.
uint32_t CheckCount(uint64_t *n, const OptionSpec &spec, uint64_t *shared, bool exact) {
  uint64_t v = *n;
  if (v == 0 || v < spec.min_count || (spec.max_count && v > spec.max_count)) return E_OPTIONS_NUM;
  bool square = (spec.flags & OptionFlagSquare) != 0;
  uint64_t s = v;
  if (square) {
    s = static_cast<uint64_t>(std::sqrt(static_cast<double>(v)) + 0.5);
    if (s * s > v) return E_OPTIONS_NUM;
    if (s * s < v && exact) return E_OPTIONS_NUM;
  }
  if (!shared || spec.type == OptionTypeKeyword) return 0;
  uint64_t wanted = spec.fixed_count ? spec.fixed_count : s;
  uint32_t mismatch = spec.fixed_count ? E_OPTIONS_ERR : E_OPTIONS_NUM;
  if (*shared == 0) *shared = wanted;
  if (exact) {
    if (wanted != *shared) return mismatch;
  } else {
    if (wanted < *shared) return mismatch;
    *n = square ? *shared * *shared : *shared;
  }
  return 0;
}

template <class T> bool InRange(T v, const unsigned char *range) {
  T lo, hi;
  std::memcpy(&lo, range, sizeof lo);
  std::memcpy(&hi, range + sizeof lo, sizeof hi);
  return v >= lo && v <= hi;  // false for NaN
}

template <class T> uint32_t CheckValues(const OptionSpec &spec, const void *values, uint64_t n) {
  const unsigned char *bytes = static_cast<const unsigned char *>(values);
  uint32_t order = spec.flags & OptionFlagNonDecreasing;
  T prev{};
  for (uint64_t k = 0; k < n; ++k) {
    T v;
    std::memcpy(&v, bytes + k * sizeof v, sizeof v);
    if (!InRange(v, spec.range)) return E_OPTIONS_VAL;
    if ((spec.flags & OptionFlagPositive) && !(v > T(0))) return E_OPTIONS_VAL;
    if (k > 0) {
      if (order == OptionFlagNonDecreasing && !(v >= prev)) return E_OPTIONS_VAL;
      if (order == OptionFlagIncreasing && !(v > prev)) return E_OPTIONS_VAL;
    }
    prev = v;
  }
  return 0;
}

uint32_t Validate(const OptionSpec &spec, const void *values, uint64_t n) {
  switch (spec.type) {
    case OptionTypeIndex:
    case OptionTypeOffset: return CheckValues<int64_t>(spec, values, n);
    case OptionTypeSize: return CheckValues<uint64_t>(spec, values, n);
    case OptionTypeCoord: return CheckValues<double>(spec, values, n);
    case OptionTypeReal: return CheckValues<float>(spec, values, n);
    case OptionTypeComplex:
      // Complex numbers have no order.
      if (n && (spec.flags & (OptionFlagPositive | OptionFlagNonDecreasing))) return E_OPTIONS_VAL;
      return 0;
    default: return 0;
  }
}

uint64_t *SharedCount(const OptionEntry &row, const OptionSpec &spec) {
  if (spec.type == OptionTypeKeyword || spec.type == OptionTypeSwitch) return nullptr;
  return static_cast<uint64_t *>(row.aux);
}

// A keyword value: the whole text must name one entry of the row's keyword table.
uint32_t StoreKeyword(const OptionEntry &row, const OptionSpec &spec, const char *text, uint64_t n) {
  if (!row.value || !row.aux || spec.max_count > 1) return E_OPTIONS_PARSE;
  if (n != 1) return E_OPTIONS_NUM;
  uint64_t index;
  const char *e;
  if (StringParseKeywordCase(text, &e, &index, static_cast<const char *const *>(row.value),
                             StringParseKeywordAnycase) ||
      *e)
    return E_OPTIONS_ERR;
  *static_cast<uint64_t *>(row.aux) = index;
  *spec.count = 1;
  return 0;
}

// Values from one string (the rest of an argument, or an environment value).
uint32_t ValuesFromString(const OptionEntry &row, const OptionSpec &spec, const char *text) {
  char sep = spec.sep_value ? spec.sep_value : OptionsSepValueTab[0];
  uint64_t n = 1;
  for (const char *p = text; *p; ++p)
    if (*p == sep) ++n;
  if (uint32_t st = CheckCount(&n, spec, SharedCount(row, spec), true)) return st;
  switch (spec.type) {
    case OptionTypeKeyword: return StoreKeyword(row, spec, text, n);
    case OptionTypeString:
      if (n != 1) return E_OPTIONS_NUM;
      if (!row.value) return E_OPTIONS_PARSE;
      static_cast<const char **>(row.value)[0] = text;
      *spec.count = 1;
      return 0;
    default: break;
  }
  if (!row.value || !spec.parse) return E_OPTIONS_PARSE;
  unsigned char *dst = static_cast<unsigned char *>(row.value);
  uint64_t size = OptionTypeTable[spec.type].value_size;
  uint64_t k = 0;
  *spec.count = 0;
  const char *p = text, *e;
  while (k < n && spec.parse(p, &e, dst + k * size, 0) == 0) {
    *spec.count = ++k;
    if (*e != sep) break;
    p = e + 1;  // the next value starts behind the separator
  }
  if (k < n) return E_OPTIONS_PARSE;
  return Validate(spec, dst, k);
}

// Values from the arguments following the option at start; *used receives the arguments taken.
uint32_t ValuesFromRun(const OptionEntry &row, const OptionSpec &spec, char **argv, uint64_t argc, uint64_t start,
                       uint64_t *used) {
  *used = 0;
  uint64_t len = 0;
  while (start + len < argc && !StopsRun(argv[start + len])) ++len;
  bool at_end = start + len >= argc;
  if (at_end && spec.max_count && len > spec.max_count) len = spec.max_count;
  uint64_t n = len;

  if (spec.type == OptionTypeString) {
    if (uint32_t st = CheckCount(&n, spec, SharedCount(row, spec), true)) return st;
    if (!row.value) return E_OPTIONS_PARSE;
    const char **dst = static_cast<const char **>(row.value);
    for (uint64_t k = 0; k < n; ++k) dst[k] = argv[start + k];
    *spec.count = n;
    *used = n;
    return 0;
  }
  if (uint32_t st = CheckCount(&n, spec, nullptr, !at_end)) return st;
  if (spec.type == OptionTypeKeyword) {
    uint32_t st = StoreKeyword(row, spec, argv[start], n);
    if (st == 0) *used = 1;
    return st;
  }
  if (!row.value || !spec.parse) return E_OPTIONS_PARSE;
  unsigned char *dst = static_cast<unsigned char *>(row.value);
  uint64_t size = OptionTypeTable[spec.type].value_size;
  uint64_t k = 0;
  *spec.count = 0;
  for (; k < n; ++k) {
    const char *a = argv[start + k], *e = a;
    if (!*a) break;
    uint32_t st = spec.parse(a, &e, dst + k * size, 0);
    if (st == E_PARSE_NOVALUE) break;
    if (st) {
      if (*e) break;  // not a value of this type after all: the run ends here
      return st;
    }
    if (*e) return E_OPTIONS_VAL;
    *spec.count = k + 1;
    *used = k + 1;
  }
  uint64_t stored = k;
  if (uint32_t st = CheckCount(&stored, spec, SharedCount(row, spec), true)) return st;
  return Validate(spec, dst, k);
}

// ---------------------------------------------------------------------------------------------
// Constraint marks

uint32_t ListWords(const uint32_t *list) { return 1 + (list[0] & 0xff); }

uint32_t *Partner(uint32_t *word) {
  int8_t distance = static_cast<int8_t>((*word >> 8) & 0xff);
  return distance ? word + distance : nullptr;
}

void ClearMarks(uint32_t *list, uint32_t marks) {
  if (!list) return;
  for (uint32_t k = 0, n = ListWords(list); k < n; ++k) list[k] &= ~marks;
}

bool HasMark(const uint32_t *list, uint32_t mark) {
  if (!list) return false;
  for (uint32_t k = 0, n = ListWords(list); k < n; ++k)
    if (list[k] & mark) return true;
  return false;
}

// An option was given: exclusive partners already given are a conflict.
uint32_t SetMarks(uint32_t *list) {
  if (!list) return 0;
  uint32_t st = 0;
  uint32_t n = ListWords(list);
  for (uint32_t k = 0; k < n; ++k) {
    if (!(list[k] & OptionsConstraintExcl)) continue;
    uint32_t *partner = Partner(&list[k]);
    if (partner && (*partner & OptionsConstraintGiven)) {
      *partner |= OptionsConstraintConflict;
      st = E_OPTIONS_CONFL;
    }
  }
  for (uint32_t k = 0; k < n; ++k) list[k] |= OptionsConstraintGiven;
  return st;
}

// ---------------------------------------------------------------------------------------------
// Parsing one table

struct ParseState {
  const OptionEntry *table;
  const OptionPrefix *prefix;
  uint64_t rows;
  uint64_t *slots;  // counts, then one given flag per row
  char **argv;
  uint64_t argc;
};

uint64_t &Given(ParseState &s, uint64_t row) { return s.slots[s.rows + row]; }

// Offers argument j to the row; *matched tells whether it was this option.
uint32_t MatchArgument(ParseState &s, uint64_t i, const OptionSpec &spec, uint64_t j, bool *matched) {
  const OptionEntry &row = s.table[i];
  const char *a = s.argv[j];
  const char *p = a + 1;
  size_t prefix_length = std::strlen(spec.prefix);
  if (std::strncmp(p, spec.prefix, prefix_length) != 0) return 0;
  p += prefix_length;
  if (std::strncmp(p, spec.name, spec.name_length) != 0) return 0;
  p += spec.name_length;
  const char *q = SkipSpace(p);
  bool typed = spec.type != OptionTypeSwitch;
  bool fits = (typed && spec.sep_ident) ? *q == spec.sep_ident : *q == 0;
  if (!fits) {
    // -fmtin is not -fmt; but "-fmt x" in one argument is a malformed -fmt.
    if (q == p) return 0;
    return ExceptionPushMsg(E_OPTIONS_ERR, " ", a, nullptr);
  }
  *matched = true;
  uint64_t used = 0;
  uint32_t st = 0;
  if (!typed) *spec.count = 1;
  else if (spec.sep_ident) st = ValuesFromString(row, spec, q + 1);
  else st = ValuesFromRun(row, spec, s.argv, s.argc, j + 1, &used);
  uint32_t conflict = SetMarks(row.constraints);
  for (uint64_t k = 0; k <= used; ++k) s.argv[j + k] = kEmpty;
  Given(s, i) = 1;
  if (st) {
    if (st == E_OPTIONS_PARSE) return ExceptionPush(st);
    return OptionsReportName(st, &spec);
  }
  return conflict;
}

// Environment variable <program>_<name> and/or zv_<name>.
uint32_t FromEnvironment(ParseState &s, uint64_t i, const OptionSpec &spec, bool *found) {
  *found = false;
  if (!spec.env_length) return 0;
  const OptionEntry &row = s.table[i];
  size_t room = spec.env_length + std::strlen(OptionsEnvPrfx) + 2 + (spec.env_program ? std::strlen(spec.env_program) : 0);
  char *name = static_cast<char *>(std::malloc(room));
  if (!name) return ExceptionPush(E_MEMORY);
  auto build = [&](const char *head) {
    size_t h = std::strlen(head);
    std::memcpy(name, head, h);
    name[h] = '_';
    std::memcpy(name + h + 1, spec.env_name, spec.env_length);
    name[h + 1 + spec.env_length] = 0;
    return std::getenv(name);
  };
  const char *value = nullptr;
  if (spec.env_program) value = build(spec.env_program);
  if (!value && (spec.flags & OptionFlagEnv)) value = build(OptionsEnvPrfx);
  if (!value) {
    std::free(name);
    return 0;
  }
  *found = true;
  value = SkipSpace(value);
  bool set = false;
  uint32_t st = 0;
  if (spec.type != OptionTypeSwitch) {
    st = ValuesFromString(row, spec, value);
    set = st == 0;
  } else if (*value) {
    unsigned char truth;
    const char *e;
    // Any valid truth value sets the switch.
    if (StringParseBool(value, &e, &truth, 0) || *SkipSpace(e)) {
      st = E_OPTIONS_VAL;
    } else {
      *spec.count = 1;
      set = true;
    }
  }
  if (set) {
    Given(s, i) = 1;
    st = SetMarks(row.constraints);
  }
  if (st) {
    if (st == E_OPTIONS_PARSE) {
      ExceptionPush(st);
    } else {
      char text[128];
      OptionsNameText(&spec, name, std::strlen(name), text);
      ExceptionPushMsg(st, text, nullptr);
    }
  }
  std::free(name);
  return st;
}

uint32_t ParseRow(ParseState &s, uint64_t i, const OptionSpec &spec) {
  uint64_t first = 1;
  while (first < s.argc && !s.argv[first][0]) ++first;
  bool matched = false;
  if (first < s.argc && IsOption(s.argv[first])) {
    for (uint64_t j = first; j < s.argc && !matched; ++j) {
      const char *a = s.argv[j];
      if (std::strcmp(a, "--") == 0) break;
      if (!a[0] || !IsOption(a)) continue;
      if (uint32_t st = MatchArgument(s, i, spec, j, &matched)) return st;
    }
  }
  if (matched) return 0;
  bool found;
  if (uint32_t st = FromEnvironment(s, i, spec, &found)) return st;
  if (!found && !(spec.flags & OptionFlagOptional)) return OptionsReportName(E_OPTIONS_REQ, &spec);
  return 0;
}

// Names the option just given and every earlier given row that it conflicts with.
void ReportConflict(ParseState &s, uint64_t i) {
  bool first = true;
  for (uint64_t r = 0; r < i; ++r) {
    uint32_t *list = s.table[r].constraints;
    if (!Given(s, r) || !HasMark(list, OptionsConstraintConflict)) continue;
    if (first) OptionsReportPair(E_OPTIONS_CONFL, nullptr, &s.table[i], s.prefix);
    first = false;
    OptionsReportPair(E_OPTIONS_CONFL, " and", &s.table[r], s.prefix);
    ClearMarks(list, OptionsConstraintConflict);
  }
  if (first) OptionsReportPair(E_OPTIONS_CONFL, nullptr, &s.table[i], s.prefix);
}

int64_t RowOf(const ParseState &s, const uint32_t *list) {
  for (uint64_t r = 0; r < s.rows; ++r)
    if (s.table[r].constraints == list) return static_cast<int64_t>(r);
  return -1;
}

// "or" groups need one given member; in an "and" group with a given member every member is needed.
uint32_t CheckGroups(ParseState &s) {
  uint32_t result = 0;
  for (uint64_t r = 0; r < s.rows; ++r) {
    uint32_t *list = s.table[r].constraints;
    if (!list || (list[0] & OptionsConstraintSettled)) continue;
    list[0] |= OptionsConstraintSettled;
    uint32_t n = ListWords(list);
    bool self = (list[0] & OptionsConstraintGiven) != 0;
    for (uint32_t kind : {OptionsConstraintOr, OptionsConstraintAnd}) {
      bool any = self, all = self, members = false;
      for (uint32_t k = 0; k < n; ++k) {
        uint32_t *partner = (list[k] & kind) ? Partner(&list[k]) : nullptr;
        if (!partner) continue;
        members = true;
        bool given = (*partner & OptionsConstraintGiven) != 0;
        any = any || given;
        all = all && given;
        *partner |= OptionsConstraintSettled;
      }
      if (!members) continue;
      bool missing = kind == OptionsConstraintOr ? !any : (any && !all);
      if (!missing) continue;
      if (!result) result = E_OPTIONS_REQ;
      OptionsReportPair(E_OPTIONS_REQ, nullptr, &s.table[r], s.prefix);
      const char *joiner = kind == OptionsConstraintOr ? " or" : " and";
      for (uint32_t k = 0; k < n; ++k) {
        uint32_t *partner = (list[k] & kind) ? Partner(&list[k]) : nullptr;
        if (!partner || (*partner & OptionsConstraintGiven)) continue;
        int64_t row = RowOf(s, partner);
        if (row >= 0) OptionsReportPair(E_OPTIONS_REQ, joiner, &s.table[row], s.prefix);
      }
    }
  }
  return result;
}

// Drop the empty strings left by matched options.
void Compact(ParseState &s) {
  if (!s.argv || !CoreArgc || s.argc == 0) return;
  uint64_t k = 1;
  for (uint64_t j = 1; j < s.argc; ++j)
    if (s.argv[j] && s.argv[j][0]) s.argv[k++] = s.argv[j];
  s.argv[k] = nullptr;
  *CoreArgc = static_cast<int>(k);
}

}  // namespace

uint32_t OptionsParse(const OptionEntry *table, const OptionPrefix *prefix) {
  if (!table) return ExceptionPush(E_ARGUMENT);
  ParseState s{table, prefix, 0, nullptr, CoreArgv, 0};
  if (CoreArgv && CoreArgc && *CoreArgc > 0) s.argc = static_cast<uint64_t>(*CoreArgc);
  while (table[s.rows].declaration) ++s.rows;
  for (uint64_t r = 0; r < s.rows; ++r)
    ClearMarks(table[r].constraints,
               OptionsConstraintSettled | OptionsConstraintConflict | OptionsConstraintGiven);
  s.slots = static_cast<uint64_t *>(std::calloc(2 * s.rows + 1, sizeof(uint64_t)));
  if (!s.slots) return ExceptionPush(E_MEMORY);

  uint32_t first = 0;
  bool conflict = false, complete = true;
  for (uint64_t i = 0; i < s.rows; ++i) {
    OptionSpec spec;
    uint32_t st = OptionsParseSpec(table[i].declaration, &spec, prefix);
    if (st) {
      if (!first) first = st;
      complete = false;
      break;
    }
    if (!spec.name_length) {
      // A positional declaration has no place in an option table.
      st = OptionsReportSpec(E_OPTIONS_PARSE, table[i].declaration);
      std::free(s.slots);
      return first ? first : st;
    }
    spec.count = table[i].count ? table[i].count : &s.slots[i];
    st = ParseRow(s, i, spec);
    s.slots[i] = *spec.count;
    if (!st) continue;
    if (!first) first = st;
    if (st == E_OPTIONS_REQ) continue;
    if (st == E_OPTIONS_CONFL) {
      ReportConflict(s, i);
      conflict = true;
      continue;
    }
    complete = false;
    break;
  }
  if (complete && !conflict) {
    uint32_t st = CheckGroups(s);
    if (!first) first = st;
  }
  std::free(s.slots);
  Compact(s);
  return first;
}

// ---------------------------------------------------------------------------------------------
// Registry

OptionRegistration *OptionsRegister(const OptionEntry *table, OptionsInitFn init, OptionsFinishFn finish,
                                    void *block, uint64_t size, const OptionPrefix *prefix) {
  if (!table || !finish || !block) {
    CoreRegisterSetStatus(E_ARGUMENT);
    return nullptr;
  }
  if (registry_count >= OptionsRegistryMax) {
    CoreRegisterSetStatus(E_REGISTRY);
    return nullptr;
  }
  OptionRegistration *r = &registry[registry_count++];
  *r = OptionRegistration{prefix, table, init, finish, block, size, nullptr, nullptr, nullptr};
  r->self = r;
  return r;
}

uint32_t OptionsChain(OptionRegistration *registration, OptionRegistration *chained, void **result) {
  if (!registration) return ExceptionPush(E_ARGUMENT);
  registration->chained = chained;
  registration->result = result;
  if (result) *result = nullptr;
  return 0;
}

uint32_t OptionsRegisterCore(const char *name, const char *version, const char *notice,
                             OptionRegistration *registration) {
  if (!registration) return ExceptionPush(E_ARGUMENT);
  return CoreRegister(name, version, notice, OptionsCallback, registration);
}

namespace {

uint32_t RunRegistration(OptionRegistration *r, void **result) {
  void *chained_result = nullptr;
  if (r->chained)
    if (uint32_t st = RunRegistration(r->chained, &chained_result)) return st;
  if (r->init) {
    if (uint32_t st = r->init(r->block, r->size, result)) return st;
  } else {
    std::memset(r->block, 0, r->size);
  }
  if (uint32_t st = OptionsParse(r->table, r->prefix)) return st;
  void *done = r->finish(chained_result, r->block, r->size, result ? *result : nullptr);
  if (!done) return ExceptionPush(E_OPTIONS_PARSE);
  if (result) *result = done;
  return 0;
}

}  // namespace

uint32_t OptionsCallback(void *context) {
  auto *r = static_cast<OptionRegistration *>(context);
  if (!r) return ExceptionPush(E_ARGUMENT);
  return RunRegistration(r, r->result);
}

OptionRegistration *OptionsRegistry(uint32_t *count) {
  if (count) *count = registry_count;
  return registry;
}

// ---------------------------------------------------------------------------------------------
// Module

uint32_t OptionsModuleInit() { return ExceptionRegister(OptionsErrorTable, E_OPTIONS, E_OPTIONS_END); }

const ModuleDescriptor OptionsModule = {kName, kVersion, kNotice, kStamp, OptionsModuleInit, {}};
