// Parsing option tables against the argument vector and the environment: one table of scenarios, each
// giving the declarations, the arguments and environment, and the status, error texts, remaining
// arguments and stored values expected afterwards.
#include <cstdlib>
#include <cstring>

#include "option_args.h"

namespace {

// The stored values of a row as text: "-" when not given, the count of a switch, the index of a
// keyword, otherwise the values joined by ",".
std::string Render(const char *decl, const OptionPrefix *prefix, uint64_t count, const void *block, uint64_t index) {
  OptionSpec spec;
  if (!OptionsReadSpecQuiet(decl, &spec, prefix) || count == 0) return "-";
  if (spec.type == OptionTypeSwitch || spec.type == OptionTypeKeyword)
    return std::to_string(spec.type == OptionTypeSwitch ? count : index);
  std::string out;
  for (uint64_t i = 0; i < count; ++i) {
    const unsigned char *p = static_cast<const unsigned char *>(block) + i * OptionTypeTable[spec.type].value_size;
    union { const char *s; unsigned char b; int64_t i; uint64_t u; double d; float f[2]; } v;
    std::memcpy(&v, p, OptionTypeTable[spec.type].value_size);
    char text[64];
    switch (spec.type) {
      case OptionTypeString: std::snprintf(text, sizeof text, "%s", v.s); break;
      case OptionTypeBool: std::snprintf(text, sizeof text, "%d", v.b); break;
      case OptionTypeSize: std::snprintf(text, sizeof text, "%llu", (unsigned long long)v.u); break;
      case OptionTypeCoord: std::snprintf(text, sizeof text, "%g", v.d); break;
      case OptionTypeReal: std::snprintf(text, sizeof text, "%g", v.f[0]); break;
      case OptionTypeComplex: std::snprintf(text, sizeof text, "%g%+gi", v.f[0], v.f[1]); break;
      default: std::snprintf(text, sizeof text, "%lld", (long long)v.i);
    }
    out += (i ? "," : "") + std::string(text);
  }
  return out;
}

struct Scenario {
  std::vector<std::string> decls;
  std::vector<const char *> args;
  uint32_t status;
  Strings errors, left, values;
  std::vector<std::pair<const char *, const char *>> env = {};
  const char *prefix = nullptr;
  bool shared = false;       // the typed rows share one value count
  uint32_t constraint = 0;   // rows 0 and 1 related by this constraint kind
};

// Each row gets a count slot and a value block (keywords: "fast", "slow" and an index slot). With a
// constraint, the lists of rows 0 and 1 live in one array and point at each other's first word.
void Check(const Scenario &s) {
  std::string what = s.decls[0];
  for (const char *a : s.args) what += std::string(" ") + a;
  SCOPED_TRACE(what);
  OptionsTestSetUp();
  const size_t n = s.decls.size();
  static const char *const kKeywords[] = {"fast", "slow", nullptr};
  std::vector<uint64_t> counts(n), index(n), blocks(16 * n);
  uint64_t shared = 0;
  uint32_t words[4] = {1, s.constraint | (1u << 8), 1, s.constraint | (0xfdu << 8)};
  OptionPrefix prefix{s.prefix, 0};
  const OptionPrefix *pre = s.prefix ? &prefix : nullptr;
  std::vector<OptionEntry> table;
  for (size_t i = 0; i < n; ++i) {
    OptionSpec spec{};
    const bool keyword = OptionsReadSpecQuiet(s.decls[i].c_str(), &spec, pre) && spec.type == OptionTypeKeyword;
    void *value = keyword ? (void *)kKeywords : &blocks[16 * i];
    void *aux = keyword ? &index[i] : s.shared ? &shared : nullptr;
    table.push_back({&counts[i], value, aux, s.constraint && i < 2 ? &words[2 * i] : nullptr, s.decls[i].c_str()});
  }
  table.push_back(EndRow());
  for (auto [name, value] : s.env) setenv(name, value, 1);
  {
    Args a(s.args);
    EXPECT_EQ(OptionsParse(table.data(), pre), s.status);
    EXPECT_EQ(Errors(), s.errors);
    EXPECT_EQ(a.Left(), s.left);
    // String values point into the argument vector: render them while it is alive.
    Strings values;
    for (size_t i = 0; i < n; ++i)
      values.push_back(Render(s.decls[i].c_str(), pre, counts[i], &blocks[16 * i], index[i]));
    EXPECT_EQ(values, s.values);
  }
  for (auto [name, value] : s.env) unsetenv(name);
  ExceptionClear();
}

const std::vector<std::string> P = {"[ h ]", "[ seed <> Size ]"};
const std::vector<std::string> I = {"[ fmtin <> String ]", "[ capin <> String ]", "[ fmt   <> String ]",
                                    "[ cap   <> String ]"};
const uint32_t NUM = E_OPTIONS_NUM, VAL = E_OPTIONS_VAL, ERR = E_OPTIONS_ERR, PARSE = E_OPTIONS_PARSE;
const uint32_t REQ = E_OPTIONS_REQ, EXCL = OptionsConstraintExcl, OR = OptionsConstraintOr, AND = OptionsConstraintAnd;
const char *const kNumSeed = "invalid number of option values -seed";

// The core library's text for a number out of its type's range.
std::string ParseRangeText() {
  ExceptionPush(E_PARSE_RANGE);
  const std::string text = ExceptionText(0);
  ExceptionClear();
  return text;
}

// Where the search for options starts and stops, runs of values, "--", repeated and longer options.
TEST(Parse, ArgumentVector) {
  for (const Scenario &s : std::vector<Scenario>{
           {P, {"-seed", "7", "a", "b"}, 0, {}, {"a", "b"}, {"-", "7"}},  // the run is cut to one value
           {P, {"a", "b", "-seed", "7"}, 0, {}, {"a", "b", "-seed", "7"}, {"-", "-"}},
           {P, {"-h", "-seed", "7", "a"}, 0, {}, {"a"}, {"1", "7"}},
           {P, {"-seed", "7", "a", "-h"}, NUM, {kNumSeed}, {"7", "a"}, {"1", "-"}},  // -h's place ends the run
           {P, {"-h", "a", "-seed", "5"}, 0, {}, {"a", "-seed", "5"}, {"1", "-"}},
           {P, {"-seed"}, NUM, {kNumSeed}, {}, {"-", "-"}},
           {P, {"-seed", "-h"}, NUM, {kNumSeed}, {}, {"1", "-"}},
           {P, {"-seed", "-5", "x"}, E_PARSE_RANGE, {ParseRangeText() + " -seed"}, {"-5", "x"}, {"-", "-"}},
           {P, {"-h", "-h", "x"}, 0, {}, {"-h", "x"}, {"1", "-"}},
           {P, {"--", "-h"}, 0, {}, {"--", "-h"}, {"-", "-"}},
           {P, {"-seed", "5", "--", "-h"}, 0, {}, {"--", "-h"}, {"-", "5"}},
           {P, {"", "-h", "", "a"}, 0, {}, {"a"}, {"1", "-"}},
           {P, {"-seed", "7x"}, VAL, {"illegal option value -seed"}, {"7x"}, {"-", "-"}},
           {I, {"-fmtin", "mrc", "-fmt", "tif", "x"}, 0, {}, {"x"}, {"mrc", "-", "tif", "-"}},
           {{"[ f ]"}, {"-fmtin", "mrc"}, 0, {}, {"-fmtin", "mrc"}, {"-"}},
           {I, {"-fmt tif", "x"}, ERR, {"invalid command line option -fmt tif"}, {"-fmt tif", "x"}, Strings(4, "-")},
           {I, {"-fmt ", "tif", "x"}, 0, {}, {"x"}, {"-", "-", "tif", "-"}},
           // "-" is a value but no number; "-0" is a number.
           {{"[ v 2 Index ]"}, {"-v", "-5", "-", "f"}, NUM, {"invalid number of option values -v"}, {"-", "f"}, {"-5"}},
           {{"[ v 2 Index ]"}, {"-v", "-5", "-0", "f"}, 0, {}, {"f"}, {"-5,0"}},
           {{"[ p= 3 Real ]"}, {"-p=1,2.5,-3", "x"}, 0, {}, {"x"}, {"1,2.5,-3"}},
           {{"[ p= 3 Real ]"}, {"-p=1,2"}, NUM, {"invalid number of option values -p"}, {}, {"-"}},
           {{"[ p= 3 Real ]"}, {"-p=1,x,3"}, PARSE, {"option parse error"}, {}, {"1"}},  // fewer parsed than counted
           {{"[ p= 3 Real ]"}, {"-p", "1"}, 0, {}, {"-p", "1"}, {"-"}},
       })
    Check(s);
}

TEST(Parse, ValueTypesCountsAndValidation) {
  const std::vector<std::string> SKB = {"[ files 1:3 String ]", "[ mode Keyword ]", "[ b Bool ]"};
  const char *const bad_v = "illegal option value -v";
  const std::vector<std::string> M = {"[ m 1:16 * Size ]"}, XY = {"[ x 1:8 Real ]", "[ y 1:8 Real ]"};
  for (const Scenario &s : std::vector<Scenario>{
           {SKB, {"-mode", "SL", "-b", "yes", "-files", "a", "b", "c", "d"}, 0, {}, {"d"}, {"a,b,c", "1", "1"}},
           {SKB, {"-files", "a", "b", "c", "d", "-b", "0"}, NUM, {"invalid number of option values -files"},
            {"a", "b", "c", "d", "-b", "0"}, {"-", "-", "-"}},  // the error ends the parse
           {SKB, {"-mode", "medium"}, ERR, {"invalid command line option -mode"}, {"medium"}, {"-", "-", "-"}},
           {{"[ mode 2 Keyword ]"}, {"-mode", "fast", "slow"}, PARSE, {"option parse error"}, {"fast", "slow"}, {"-"}},
           {{"[ v 3 Index < ]"}, {"-v", "1", "2", "3"}, 0, {}, {}, {"1,2,3"}},
           {{"[ v 3 Index < ]"}, {"-v", "1", "2", "2"}, VAL, {bad_v}, {}, {"1,2,2"}},
           {{"[ v 3 Index <= ]"}, {"-v", "1", "3", "2"}, VAL, {bad_v}, {}, {"1,3,2"}},
           {{"[ v Index + ]"}, {"-v", "0"}, VAL, {bad_v}, {}, {"0"}},
           {{"[ v Offset -3:3 ]"}, {"-v", "-3"}, 0, {}, {}, {"-3"}},
           {{"[ v Offset -3:3 ]"}, {"-v", "4"}, VAL, {bad_v}, {}, {"4"}},
           {{"[ v Size 2:4 ]"}, {"-v", "5"}, VAL, {bad_v}, {}, {"5"}},
           {{"[ v Real 0:1 ]"}, {"-v", "1"}, 0, {}, {}, {"1"}},
           {{"[ v Real ]"}, {"-v", "nan"}, VAL, {bad_v}, {}, {"nan"}},
           {{"[ v Real ]"}, {"-v", "inf"}, VAL, {bad_v}, {}, {"inf"}},
           {{"[ v Real + ]"}, {"-v", "-0"}, VAL, {bad_v}, {}, {"-0"}},
           {{"[ v 2 Coord < ]"}, {"-v", "1", "1"}, VAL, {bad_v}, {}, {"1,1"}},
           {{"[ v Complex ]"}, {"-v", "1+2i"}, 0, {}, {}, {"1+2i"}},
           {{"[ v Complex + ]"}, {"-v", "1+2i"}, VAL, {bad_v}, {}, {"1+2i"}},
           {M, {"-m", "1", "2", "3", "4", "f"}, 0, {}, {"f"}, {"1,2,3,4"}},
           {M, {"-m", "1", "2", "3"}, NUM, {"invalid number of option values -m"}, {"1", "2", "3"}, {"-"}},
           {M, {"-m", "1", "2", "3", "4", "5", "-x"}, NUM, {"invalid number of option values -m"},
            {"1", "2", "3", "4", "5", "-x"}, {"-"}},
           // A shared count: set by the first option parsed, the others must agree.
           {XY, {"-x", "1", "2", "-y", "3", "4", "f"}, 0, {}, {"f"}, {"1,2", "3,4"}, {}, nullptr, true},
           {XY, {"-y", "3", "4", "5", "-x", "1", "2", "-z"}, NUM,
            {"invalid number of option values -y"}, {"-z"}, {"1,2", "3,4,5"}, {}, nullptr, true},
           {{"[ y 1:8 Real ]", "[ x 1:8 =2 Real ]"}, {"-y", "1", "2", "3", "-x", "1", "2"}, ERR,
            {"invalid command line option -x"}, {}, {"1,2,3", "1,2"}, {}, nullptr, true},
       })
    Check(s);
}

// Variables stand in for options not given: <_*> reads only zvcompute_x, <*> only zv_x, <> both in
// that order; errors name the variable.
TEST(Parse, Environment) {
  const std::pair<const char *, const char *> own{"zvcompute_x", "5"}, common{"zv_x", "9"};
  for (const Scenario &s : std::vector<Scenario>{
           {{"[ x <_*> Size ]", "[ y <*> Size ]"}, {"p"}, 0, {}, {"p"}, {"5", "-"}, {own, {"zvcompute_y", "5"}}},
           {{"[ x <_*> Size ]", "[ y <*> Size ]"}, {"p"}, 0, {}, {"p"}, {"-", "9"}, {common, {"zv_y", "9"}}},
           {{"[ x <> Size ]"}, {"p"}, 0, {}, {"p"}, {"5"}, {own, common}},
           {{"[ x <> Size ]"}, {}, 0, {}, {}, {"9"}, {common}},
           {{"[ x <> Size ]"}, {}, PARSE, {"option parse error"}, {}, {"-"}, {{"zvcompute_x", ""}, common}},
           {{"[ x <> Size 1:10 ]"}, {}, VAL, {"illegal option value -zvcompute_x"}, {}, {"11"}, {{own.first, "11"}}},
           {{"[ x <> Size 1:10 ]"}, {}, NUM, {"invalid number of option values -zv_x"}, {}, {"-"}, {{"zv_x", "1,2"}}},
           {P, {"x"}, 0, {}, {"x"}, {"-", "42"}, {{"zv_seed", "  42"}}},
           {P, {"-seed", "8", "x"}, 0, {}, {"x"}, {"-", "8"}, {{"zv_seed", "42"}}},
           {P, {"x", "-seed", "8"}, 0, {}, {"x", "-seed", "8"}, {"-", "11"},
            {{"zv_seed", "4"}, {"zvcompute_seed", "11"}}},
           // A required switch: any truth value sets it, an empty one satisfies it without setting it.
           {{"v <>"}, {}, 0, {}, {}, {"1"}, {{"zv_v", "no"}}},
           {{"v <>"}, {}, 0, {}, {}, {"-"}, {{"zv_v", ""}}},
           {{"v <>"}, {}, VAL, {"illegal option value -zv_v"}, {}, {"-"}, {{"zv_v", "maybe"}}},
           {{"v <>"}, {}, REQ, {"required command line option -v"}, {}, {"-"}},
       })
    Check(s);
}

// Required options, unreadable and nameless declarations, prefixes, long names and constraint lists.
TEST(Parse, ErrorsAndConstraints) {
  const std::string long_name(130, 'n'), req = "required command line option -";
  const std::vector<std::string> AB = {"[ a ]", "[ b ]"};
  for (const Scenario &s : std::vector<Scenario>{
           {{"alpha", "beta Size"}, {"-h", "x"}, REQ, {req + "alpha", req + "beta"}, {"-h", "x"}, {"-", "-"}},
           // An unreadable row ends the parse; options matched so far are still removed.
           {{"[ h ]", "[ x Size ] extra", "[ seed Size ]"}, {"-h", "-seed", "3"}, PARSE,
            {"option parse error [ x Size ] extra"}, {"-seed", "3"}, {"1", "-", "-"}},
           // A nameless row returns at once, before the vector is compacted.
           {{"[ h ]", "ARG 2 Size"}, {"-h", "x"}, PARSE, {"option parse error ARG 2 Size"}, {"", "x"}, {"1", "-"}},
           {{"fmt String"}, {"-fmt", "a", "-infmt", "b"}, 0, {}, {"-fmt", "a"}, {"b"}, {}, "in"},
           {{"fmt String"}, {"x"}, REQ, {req + "infmt"}, {"x"}, {"-"}, {}, "in"},
           {{long_name + " Size"}, {}, REQ, {req + "pp" + std::string(123, 'n')}, {}, {"-"}, {}, "pp"},  // cut at 125
           {AB, {"-b", "-a", "x"}, E_OPTIONS_CONFL, {"conflicting command line options -b and -a"}, {"x"},
            {"1", "1"}, {}, nullptr, false, EXCL},
           {AB, {"-a", "x"}, 0, {}, {"x"}, {"1", "-"}, {}, nullptr, false, EXCL},
           {AB, {"x"}, REQ, {req + "a or -b"}, {"x"}, {"-", "-"}, {}, nullptr, false, OR},
           {AB, {"-b"}, 0, {}, {}, {"-", "1"}, {}, nullptr, false, OR},
           {AB, {"x"}, 0, {}, {"x"}, {"-", "-"}, {}, nullptr, false, AND},
           {AB, {"-a"}, REQ, {req + "a and -b"}, {}, {"1", "-"}, {}, nullptr, false, AND},
           {AB, {"-a", "-b"}, 0, {}, {}, {"1", "1"}, {}, nullptr, false, AND},
       })
    Check(s);
  EXPECT_EQ(OptionsParse(nullptr, nullptr), E_ARGUMENT);
  ExceptionClear();
}

// The driver's own table: a null count pointer for the seed, whose initial value stays when not given.
TEST(Parse, ProgramTable) {
  OptionsTestSetUp();
  uint64_t h = 0, seed = 123;
  const OptionEntry table[] = {{&h, nullptr, nullptr, nullptr, "[ h ]"},
                               {nullptr, &seed, nullptr, nullptr, "[ seed <> Size ]"}, EndRow()};
  Args a({"-h", "x"});
  EXPECT_EQ(OptionsParse(table, nullptr), 0u);
  EXPECT_EQ(h, 1u);
  EXPECT_EQ(seed, 123u);
  Args b({"-seed", "99"});
  EXPECT_EQ(OptionsParse(table, nullptr), 0u);
  EXPECT_EQ(seed, 99u);
}

}  // namespace
