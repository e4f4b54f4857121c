// The options module by what a user types: tables of scenarios, each giving declarations, the
// arguments and environment, and the status, error texts, remaining arguments and stored values
// expected; then usage texts.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <deque>

#include "options/options.h"

namespace {

using Strings = std::vector<std::string>;

// Installs "zvcompute" followed by the given arguments as CoreArgv / CoreArgc.
struct Args {
  std::deque<std::string> store;
  std::vector<char *> ptrs;
  int argc;
  explicit Args(const std::vector<const char *> &args) : store(args.begin(), args.end()), argc(static_cast<int>(args.size()) + 1) {
    store.emplace_front("zvcompute");
    for (std::string &s : store) ptrs.push_back(s.data());
    ptrs.push_back(nullptr);
    CoreArgv = ptrs.data(), CoreArgc = &argc;
  }
  Strings Left() const { return CoreArgv[argc] ? Strings{"(not null-terminated)"} : Strings(CoreArgv + 1, CoreArgv + argc); }
};

const OptionEntry kEnd = {nullptr, nullptr, nullptr, nullptr, nullptr};

// The stored values of a row as text: "-" when not given, the count of a switch, the index of a
// keyword, otherwise the values joined by ",". What the declaration says is read as the user sees
// it: the first word after the name that is a type keyword.
std::string Render(const std::string &decl, uint64_t count, const void *block, uint64_t index) {
  if (count == 0) return "-";
  uint64_t type = OptionTypeSwitch;
  for (uint64_t t = 1; t < OptionTypeCount; ++t)
    for (size_t at = decl.find(OptionTypeNames[t]); at != std::string::npos; at = decl.find(OptionTypeNames[t], at + 1))
      if (at && std::isspace(static_cast<unsigned char>(decl[at - 1]))) type = t;
  if (type == OptionTypeSwitch || type == OptionTypeKeyword) return std::to_string(type == OptionTypeSwitch ? count : index);
  std::string out;
  for (uint64_t i = 0; i < count; ++i) {
    union { const char *s; unsigned char b; int64_t i; uint64_t u; double d; float f[2]; } v;
    std::memcpy(&v, static_cast<const char *>(block) + i * OptionTypeTable[type].value_size, OptionTypeTable[type].value_size);
    char t[64];
    const bool real = type == OptionTypeReal || type == OptionTypeComplex;
    type == OptionTypeString ? std::snprintf(t, 64, "%s", v.s) : type == OptionTypeBool ? std::snprintf(t, 64, "%d", v.b)
    : type == OptionTypeSize ? std::snprintf(t, 64, "%llu", (unsigned long long)v.u) : type == OptionTypeCoord ? std::snprintf(t, 64, "%.17g", v.d)
    : real ? std::snprintf(t, 64, type == OptionTypeReal ? "%.9g" : "%.9g%+.9gi", v.f[0], v.f[1]) : std::snprintf(t, 64, "%lld", (long long)v.i);
    out += (i ? "," : "") + std::string(t);
  }
  return out;
}

struct Scenario {
  Strings decls;
  std::vector<const char *> args;
  uint32_t status;
  Strings errors, left, values;
  std::vector<std::pair<const char *, const char *>> env = {};
  OptionPrefix prefix = {nullptr, 0};
  bool shared = false;      // the typed rows share one value count
  uint32_t constraint = 0;  // rows 0 and 1 related by this constraint kind
  char sep_ident = 0, sep_value = 0;  // forced separators
};

// Each row gets a count slot and a value block (keywords: "fast", "slow" and an index slot). With a
// constraint, the lists of rows 0 and 1 live in one array and point at each other's first word.
void Check(const Scenario &s) {
  std::string what = s.decls[0];
  for (const char *a : s.args) what += std::string(" ") + a;
  SCOPED_TRACE(what);
  Main = "zvcompute";
  ExceptionClear();
  const size_t n = s.decls.size();
  static const char *const kKeywords[] = {"fast", "slow", nullptr};
  std::vector<uint64_t> counts(n), index(n), blocks(16 * n);
  uint64_t shared = 0;
  uint32_t words[4] = {1, s.constraint | (1u << 8), 1, s.constraint | (0xfdu << 8)};
  const OptionPrefix *pre = s.prefix.prefix || s.prefix.count ? &s.prefix : nullptr;
  std::vector<OptionEntry> table;
  for (size_t i = 0; i < n; ++i) {
    const bool keyword = s.decls[i].find("Keyword") != std::string::npos;
    table.push_back({&counts[i], keyword ? (void *)kKeywords : &blocks[16 * i], keyword ? &index[i] : s.shared ? &shared : nullptr,
                     s.constraint && i < 2 ? &words[2 * i] : nullptr, s.decls[i].c_str()});
  }
  table.push_back(kEnd);
  for (auto [name, value] : s.env) setenv(name, value, 1);
  OptionsSepIdent = s.sep_ident, OptionsSepValue = s.sep_value;
  {
    Args a(s.args);
    EXPECT_EQ(OptionsParse(table.data(), pre), s.status);
    Strings errors;
    for (uint32_t i = 0; i < ExceptionCount(); ++i) errors.emplace_back(ExceptionText(i));
    EXPECT_EQ(errors, s.errors);
    EXPECT_EQ(a.Left(), s.left);
    Strings values;  // string values point into the argument vector: render them while it lives
    for (size_t i = 0; i < n; ++i) values.push_back(Render(s.decls[i], counts[i], &blocks[16 * i], index[i]));
    EXPECT_EQ(values, s.values);
  }
  OptionsSepIdent = OptionsSepValue = 0;
  for (auto [name, value] : s.env) unsetenv(name);
  ExceptionClear();
}

const Strings P = {"[ h ]", "[ seed <> Size ]"};
const Strings I = {"[ fmtin <> String ]", "[ capin <> String ]", "[ fmt   <> String ]", "[ cap   <> String ]"};
const uint32_t NUM = E_OPTIONS_NUM, VAL = E_OPTIONS_VAL, ERR = E_OPTIONS_ERR, PARSE = E_OPTIONS_PARSE, REQ = E_OPTIONS_REQ;
const char *const kNumSeed = "invalid number of option values -seed", *const kBadV = "illegal option value -v";

// Where the search for options starts and stops, runs of values, "--", repeated and longer options.
TEST(Options, ArgumentVector) {
  ExceptionPush(E_PARSE_RANGE);
  const std::string range = std::string(ExceptionText(0)) + " -seed";  // the core library's text
  for (const Scenario &s : std::vector<Scenario>{
           {P, {"-seed", "7", "a", "b"}, 0, {}, {"a", "b"}, {"-", "7"}},  // the run is cut to one value
           {P, {"a", "b", "-seed", "7"}, 0, {}, {"a", "b", "-seed", "7"}, {"-", "-"}},
           {P, {"-seed", "7", "a", "-h"}, NUM, {kNumSeed}, {"7", "a"}, {"1", "-"}},  // -h's place ends the run
           {P, {"-seed", "-h"}, NUM, {kNumSeed}, {}, {"1", "-"}},
           {P, {"-seed", "-5", "x"}, E_PARSE_RANGE, {range}, {"-5", "x"}, {"-", "-"}},
           {P, {"--", "-h"}, 0, {}, {"--", "-h"}, {"-", "-"}},
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
           {{"[ p : 2 Real ]"}, {"-p:1,2"}, 0, {}, {}, {"1,2"}},
           // Separators forced for every declaration; a forced identifier separator outside the table
           // takes the first value separator.
           {{"[ p= 2 Real ]"}, {"-p:1,2"}, 0, {}, {}, {"1,2"}, {}, {}, false, 0, ':'},
           {{"[ p 2 Real ]"}, {"-p#1,2"}, 0, {}, {}, {"1,2"}, {}, {}, false, 0, '#'},
           {{"[ p 2 Real ]"}, {"-p#1;2"}, 0, {}, {}, {"1,2"}, {}, {}, false, 0, '#', ';'},
       })
    Check(s);
}

TEST(Options, ValueTypesCountsAndRanges) {
  ExceptionPush(E_PARSE_RANGE);
  const std::string range = ExceptionText(0);  // the core library's text
  const Strings SKB = {"[ files 1:3 String ]", "[ mode Keyword ]", "[ b Bool ]"}, M = {"[ m 1:16 * Size ]"},
                XY = {"[ x 1:8 Real ]", "[ y 1:8 Real ]"};
  for (const Scenario &s : std::vector<Scenario>{
           {SKB, {"-mode", "SL", "-b", "yes", "-files", "a", "b", "c", "d"}, 0, {}, {"d"}, {"a,b,c", "1", "1"}},
           {SKB, {"-files", "a", "b", "c", "d", "-b", "0"}, NUM, {"invalid number of option values -files"},
            {"a", "b", "c", "d", "-b", "0"}, {"-", "-", "-"}},  // the error ends the parse
           {SKB, {"-mode", "medium"}, ERR, {"invalid command line option -mode"}, {"medium"}, {"-", "-", "-"}},
           {{"[ mode 2 Keyword ]"}, {"-mode", "fast", "slow"}, PARSE, {"option parse error"}, {"fast", "slow"}, {"-"}},
           {{"[ b 8 Bool ]"}, {"-b", "on", "off", "t", "f", "y", "n", "1", "false"}, 0, {}, {}, {"1,0,1,0,1,0,1,0"}},
           {{"\t[\nmy_opt-2\v3\fReal\r]\n"}, {"-my_opt-2", "1", "2", "3"}, 0, {}, {}, {"1,2,3"}},  // white space of every kind
           {{"[ x 2: Real ]"}, {"-x", "1", "2", "3", "4", "5"}, 0, {}, {}, {"1,2,3,4,5"}},
           {{"[ x = :4 Real ]"}, {"-x=1,2,3,4,5"}, NUM, {"invalid number of option values -x"}, {}, {"-"}},
           {{"[ v 3 Index < ]"}, {"-v", "1", "2", "2"}, VAL, {kBadV}, {}, {"1,2,2"}},
           {{"[ v 3 Index <= ]"}, {"-v", "1", "3", "2"}, VAL, {kBadV}, {}, {"1,3,2"}},
           {{"[ v Index ]"}, {"-v", "-9223372036854775808"}, 0, {}, {}, {"-9223372036854775808"}},
           {{"[ v Size 7 ]"}, {"-v", "8"}, VAL, {kBadV}, {}, {"8"}},
           {{"[ v Real ]"}, {"-v", "3.4e38"}, 0, {}, {}, {"3.39999995e+38"}},
           // Numbers round once: 16777217 is a tie that goes to even; just above the tie 1 + 2^-24 rounds
           // up (through binary64 it would round to the tie and then to 1).
           {{"[ v 3 Real ]"}, {"-v", "16777217", "1.000000059604644775390625000001", "-1e-3"}, 0, {}, {}, {"16777216,1.00000012,-0.00100000005"}},
           {{"[ v 2 Coord ]"}, {"-v", "0.1", "1e-310"}, 0, {}, {}, {"0.10000000000000001,0"}},  // below the normal range: zero
           {{"[ v Real ]"}, {"-v", "-1e-40"}, 0, {}, {}, {"-0"}},
           {{"[ v 4 Complex ]"}, {"-v", "(1,2)", "3i", "1e+2-1e-1i", "-2.5"}, 0, {}, {}, {"1+2i,0+3i,100-0.100000001i,-2.5+0i"}},
           {{"[ v Complex ]"}, {"-v", "1+2"}, VAL, {kBadV}, {"1+2"}, {"-"}},
           {{"[ v Complex ]"}, {"-v", "(1,2"}, NUM, {"invalid number of option values -v"}, {"(1,2"}, {"-"}},
           {{"[ v Complex ]"}, {"-v", "(1;2)"}, NUM, {"invalid number of option values -v"}, {"(1;2)"}, {"-"}},
           {{"[ v 2 Size ]"}, {"-v", "18446744073709551615", "-0"}, 0, {}, {}, {"18446744073709551615,0"}},
           {{"[ v Size ]"}, {"-v", "18446744073709551616"}, E_PARSE_RANGE, {range + " -v"}, {"18446744073709551616"}, {"-"}},
           {{"[ v Size ]"}, {"-v", "-1"}, E_PARSE_RANGE, {range + " -v"}, {"-1"}, {"-"}},
           {{"[ v Index ]"}, {"-v", "9223372036854775808"}, E_PARSE_RANGE, {range + " -v"}, {"9223372036854775808"}, {"-"}},
           {{"[ v Real ]"}, {"-v", "inf"}, VAL, {kBadV}, {}, {"inf"}},
           {{"[ v 2 Coord < ]"}, {"-v", "1", "1"}, VAL, {kBadV}, {}, {"1,1"}},
           {{"[ v Complex + ]"}, {"-v", "1+2i"}, VAL, {kBadV}, {}, {"1+2i"}},
           {M, {"-m", "1", "2", "3", "4", "f"}, 0, {}, {"f"}, {"1,2,3,4"}},  // a square count
           {M, {"-m", "1", "2", "3"}, NUM, {"invalid number of option values -m"}, {"1", "2", "3"}, {"-"}},
           {M, {"-m", "1", "2", "3", "4", "5", "-x"}, NUM, {"invalid number of option values -m"}, {"1", "2", "3", "4", "5", "-x"}, {"-"}},
           // A shared count: set by the first option parsed, the others must agree.
           {XY, {"-x", "1", "2", "-y", "3", "4", "f"}, 0, {}, {"f"}, {"1,2", "3,4"}, {}, {}, true},
           {XY, {"-y", "3", "4", "5", "-x", "1", "2", "-z"}, NUM, {"invalid number of option values -y"}, {"-z"}, {"1,2", "3,4,5"}, {}, {}, true},
           {{"[ y 1:8 Real ]", "[ x 1:8 =2 Real ]"}, {"-y", "1", "2", "3", "-x", "1", "2"}, ERR,
            {"invalid command line option -x"}, {}, {"1,2,3", "1,2"}, {}, {}, true},
           // A prefix between the dash and every name; its count replaces a declared range holding it.
           {{"[ x 2:8 Real ]"}, {"-inx", "1", "2", "3", "4", "5", "f"}, 0, {}, {"5", "f"}, {"1,2,3,4"}, {}, {"in", 4}},
           {{"[ x 2:8 Real ]"}, {"-x", "1", "2", "3"}, 0, {}, {}, {"1,2,3"}, {}, {nullptr, 9}},
       })
    Check(s);
}

// Variables stand in for options not given: <_*> reads only zvcompute_x, <*> only zv_x, <> both in
// that order, <name> and < _ name > other names; errors name the variable.
TEST(Options, Environment) {
  const std::pair<const char *, const char *> own{"zvcompute_x", "5"}, common{"zv_x", "9"};
  for (const Scenario &s : std::vector<Scenario>{
           {{"[ x <_*> Size ]", "[ y <*> Size ]"}, {"p"}, 0, {}, {"p"}, {"5", "-"}, {own, {"zvcompute_y", "5"}}},
           {{"[ x <alt> Size ]", "[ y < _ other > Size ]"}, {}, 0, {}, {}, {"3", "4"}, {{"zv_alt", "3"}, {"zvcompute_other", "4"}}},
           {{"[ x <> Size ]"}, {}, PARSE, {"option parse error"}, {}, {"-"}, {{"zvcompute_x", ""}, common}},
           {{"[ x <> Size 1:10 ]"}, {}, VAL, {"illegal option value -zvcompute_x"}, {}, {"11"}, {{own.first, "11"}}},
           {{"[ x <> Size 1:10 ]"}, {}, NUM, {"invalid number of option values -zv_x"}, {}, {"-"}, {{"zv_x", "1,2"}}},
           {P, {"x"}, 0, {}, {"x"}, {"-", "42"}, {{"zv_seed", "  42"}}},
           {P, {"x", "-seed", "8"}, 0, {}, {"x", "-seed", "8"}, {"-", "11"}, {{"zv_seed", "4"}, {"zvcompute_seed", "11"}}},
           // A required switch: any truth value sets it, an empty one satisfies it without setting it.
           {{"v <>"}, {}, 0, {}, {}, {"1"}, {{"zv_v", "no"}}},
           {{"v <>"}, {}, REQ, {"required command line option -v"}, {}, {"-"}},
       })
    Check(s);
}

// Required options, unreadable and nameless declarations, prefixes, long names and constraint lists.
TEST(Options, ErrorsAndConstraints) {
  const std::string long_name(130, 'n'), req = "required command line option -";
  const Strings AB = {"[ a ]", "[ b ]"};
  const uint32_t EXCL = OptionsConstraintExcl, OR = OptionsConstraintOr, AND = OptionsConstraintAnd;
  for (const Scenario &s : std::vector<Scenario>{
           {{"alpha", "beta Size"}, {"-h", "x"}, REQ, {req + "alpha", req + "beta"}, {"-h", "x"}, {"-", "-"}},
           // An unreadable row ends the parse; options matched so far are still removed.
           {{"[ h ]", "[ x Size ] extra", "[ seed Size ]"}, {"-h", "-seed", "3"}, PARSE,
            {"option parse error [ x Size ] extra"}, {"-seed", "3"}, {"1", "-", "-"}},
           // A nameless row returns at once, before the vector is compacted.
           {{"[ h ]", "ARG 2 Size"}, {"-h", "x"}, PARSE, {"option parse error ARG 2 Size"}, {"", "x"}, {"1", "-"}},
           {{"[ h", "[ k ]   \n"}, {"-h", "-k"}, 0, {}, {}, {"1", "1"}},
           {{"fmt String"}, {"-fmt", "a", "-infmt", "b"}, 0, {}, {"-fmt", "a"}, {"b"}, {}, {"in", 0}},
           {{"fmt String"}, {"x"}, REQ, {req + "infmt"}, {"x"}, {"-"}, {}, {"in", 0}},
           {{long_name + " Size"}, {}, REQ, {req + "pp" + std::string(123, 'n')}, {}, {"-"}, {}, {"pp", 0}},  // cut at 125
           {AB, {"-b", "-a", "x"}, E_OPTIONS_CONFL, {"conflicting command line options -b and -a"}, {"x"}, {"1", "1"}, {}, {}, false, EXCL},
           {AB, {"x"}, REQ, {req + "a or -b"}, {"x"}, {"-", "-"}, {}, {}, false, OR},
           {AB, {"x"}, 0, {}, {"x"}, {"-", "-"}, {}, {}, false, AND},
           {AB, {"-a"}, REQ, {req + "a and -b"}, {}, {"1", "-"}, {}, {}, false, AND},
           {AB, {"-a", "-b"}, 0, {}, {}, {"1", "1"}, {}, {}, false, AND},
       })
    Check(s);
  // Every failure to read a declaration reports it from its first non-blank character.
  for (const char *decl : {"[ x <_> Size ]", "[ x <+> Size ]", "[ x <* Size ]", "[ x <a b> Size ]", "[ ARG <> Size ]",
                           "[ h 2 ]", "[ h 1 Switch ]", "[ x 2:-1 Size ]", "[ x = Size ]junk", "[ x 1:3 =z Size ]",
                           "[ x Complex 0:1 ]", "[ x Bool 0:1 ]", "[ x Size 99999999999999999999 ]", "[ x size ]",
                           "[ x Sizes ]", "[ x Siz ]", "[ h ] x", "[ h ]]", "  h ]", "[ 5 Real ]", "[ ]", ""})
    Check({{decl}, {"-x", "1"}, PARSE, {"option parse error " + std::string(decl + std::strspn(decl, " \t\n\v\f\r"))}, {"-x", "1"}, {"-"}});
  EXPECT_EQ(OptionsParse(nullptr, nullptr), E_ARGUMENT);
  ExceptionClear();
}

TEST(Options, UsageTexts) {
  const std::pair<const char *, const char *> cases[] = {
      {"h", " -h"}, {"[ h ]", " [-h]"}, {"[ name= String ]", " [-name=<s>]"}, {"x 5 Real", " -x <5*r>"},
      {"x 3 Real", " -x <r> <r> <r>"}, {"x= 3 Real", " -x=<r>,<r>,<r>"}, {"x: 2 Real", " -x:<r>,<r>"},
      {"ARG 2 Size", " <I> <I>"}, {"[ ARG Complex ]", " [<C>]"}, {"[ x 1:3 Coord ]", " [-x <r> [r] [r]]"},
      {"[ x 1:9 Index ]", " [-x <n> [8*n]]"}, {"[ x 2: Offset ]", " [-x <n> <n>]"}, {"x 0:2 Bool", " -x [b] [b]"},
      {"x 0 Bool", " -x ..."}, {"[ k Keyword ]", " [-k <k>]"}, {"[ x Size ] junk", ""}};
  std::string text;
  for (const auto &[decl, want] : cases) {
    const OptionEntry row{nullptr, nullptr, nullptr, nullptr, decl};
    EXPECT_TRUE(OptionsUsageText(&row, nullptr, &text) == 0 && text == want) << decl << ": " << text;
  }
  const OptionEntry row{nullptr, nullptr, nullptr, nullptr, "[ fmt String ]"};
  const OptionPrefix in{"in", 0};
  EXPECT_TRUE(OptionsUsageText(&row, &in, &text) == 0 && text == " [-infmt <s>]") << text;
  // The usage line after the pending errors (the tool's own table: see the driver's tests); exit status 1.
  Main = "zvcompute";
  const OptionEntry empty[] = {kEnd};
  EXPECT_EXIT(OptionsUsage(empty), testing::ExitedWithCode(1), "^usage: zvcompute\n$");
  EXPECT_EQ(OptionsUsage(nullptr), E_ARGUMENT);
  ExceptionClear();
}

}  // namespace
