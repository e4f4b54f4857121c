// Parsing option tables against the argument vector and the environment; usage line and error texts.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "option_args.h"
#include "options/options.h"

namespace {

using Strings = std::vector<std::string>;

class Parse : public testing::Test {
 protected:
  void SetUp() override { OptionsTestSetUp(); }

  // The driver's table: "-h" and "-seed" with its initial value.
  uint64_t h_count = 0;
  uint64_t seed = 123;
  OptionEntry program[3] = {
      {&h_count, nullptr, nullptr, nullptr, "[ h ]"},
      {nullptr, &seed, nullptr, nullptr, "[ seed <> Size ]"},
      EndRow(),
  };

  // The image-file module's table.
  uint64_t counts[4] = {};
  const char *values[4] = {};
  OptionEntry image[5] = {
      {&counts[0], &values[0], nullptr, nullptr, "[ fmtin <> String ]"},
      {&counts[1], &values[1], nullptr, nullptr, "[ capin <> String ]"},
      {&counts[2], &values[2], nullptr, nullptr, "[ fmt   <> String ]"},
      {&counts[3], &values[3], nullptr, nullptr, "[ cap   <> String ]"},
      EndRow(),
  };
};

TEST_F(Parse, RunReachingTheEndIsCutToTheMaximum) {
  Args a{"-seed", "7", "a", "b"};
  EXPECT_EQ(OptionsParse(program, nullptr), 0u);
  EXPECT_EQ(seed, 7u);
  EXPECT_EQ(h_count, 0u);
  EXPECT_EQ(a.Left(), (Strings{"a", "b"}));
  EXPECT_EQ(CoreArgv[3], nullptr);
}

TEST_F(Parse, NothingIsTakenWhenTheFirstArgumentIsNoOption) {
  Args a{"a", "b", "-seed", "7"};
  EXPECT_EQ(OptionsParse(program, nullptr), 0u);
  EXPECT_EQ(seed, 123u);
  EXPECT_EQ(a.Left(), (Strings{"a", "b", "-seed", "7"}));
}

TEST_F(Parse, OptionsInAnyOrderBeforeThePositionals) {
  Args a{"-h", "-seed", "7", "a"};
  EXPECT_EQ(OptionsParse(program, nullptr), 0u);
  EXPECT_EQ(h_count, 1u);
  EXPECT_EQ(seed, 7u);
  EXPECT_EQ(a.Left(), (Strings{"a"}));
}

TEST_F(Parse, RunEndsWhereAnEarlierOptionStood) {
  // -h goes first (table order) and leaves an empty string, which ends the run 7 a.
  Args a{"-seed", "7", "a", "-h"};
  EXPECT_EQ(OptionsParse(program, nullptr), E_OPTIONS_NUM);
  EXPECT_EQ(Errors(), (Strings{"invalid number of option values -seed"}));
  EXPECT_EQ(h_count, 1u);
  EXPECT_EQ(seed, 123u);
  EXPECT_EQ(a.Left(), (Strings{"7", "a"}));
}

TEST_F(Parse, SearchStopsAtAPositionalInFront) {
  Args a{"-h", "a", "-seed", "5"};
  EXPECT_EQ(OptionsParse(program, nullptr), 0u);
  EXPECT_EQ(h_count, 1u);
  EXPECT_EQ(seed, 123u);
  EXPECT_EQ(a.Left(), (Strings{"a", "-seed", "5"}));
}

TEST_F(Parse, OptionWithoutValues) {
  {
    Args a{"-seed"};
    EXPECT_EQ(OptionsParse(program, nullptr), E_OPTIONS_NUM);
    EXPECT_EQ(Errors(), (Strings{"invalid number of option values -seed"}));
    EXPECT_EQ(a.Left(), Strings{});
  }
  ExceptionClear();
  {
    Args a{"-seed", "-h"};
    EXPECT_EQ(OptionsParse(program, nullptr), E_OPTIONS_NUM);
    EXPECT_EQ(Errors(), (Strings{"invalid number of option values -seed"}));
  }
}

TEST_F(Parse, NegativeNumbersAreValues) {
  {
    // The unsigned parser refuses -5 as out of range; the error names the option.
    Args a{"-seed", "-5", "x"};
    EXPECT_EQ(OptionsParse(program, nullptr), E_PARSE_RANGE);
    ASSERT_EQ(ExceptionCount(), 1u);
    EXPECT_NE(std::string(ExceptionText(0)).find(" -seed"), std::string::npos);
    EXPECT_EQ(seed, 123u);
  }
  ExceptionClear();
  {
    int64_t v[2] = {};
    OptionEntry t[] = {{nullptr, v, nullptr, nullptr, "[ v 2 Index ]"}, EndRow()};
    Args a{"-v", "-5", "-", "f"};
    // "-" is a value too, but not a number: the run -5 - parses one value, too few.
    EXPECT_EQ(OptionsParse(t, nullptr), E_OPTIONS_NUM);
    ExceptionClear();
    Args b{"-v", "-5", "-0", "f"};
    EXPECT_EQ(OptionsParse(t, nullptr), 0u);
    EXPECT_EQ(v[0], -5);
    EXPECT_EQ(v[1], 0);
    EXPECT_EQ(b.Left(), (Strings{"f"}));
  }
}

TEST_F(Parse, RepeatedOptionStaysForTheDriver) {
  Args a{"-h", "-h", "x"};
  EXPECT_EQ(OptionsParse(program, nullptr), 0u);
  EXPECT_EQ(h_count, 1u);
  EXPECT_EQ(a.Left(), (Strings{"-h", "x"}));
}

TEST_F(Parse, LongerOptionIsNotTakenForAShorterName) {
  Args a{"-fmtin", "mrc", "-fmt", "tif", "x"};
  EXPECT_EQ(OptionsParse(image, nullptr), 0u);
  EXPECT_EQ(counts[0], 1u);
  EXPECT_STREQ(values[0], "mrc");
  EXPECT_EQ(counts[2], 1u);
  EXPECT_STREQ(values[2], "tif");
  EXPECT_EQ(counts[1] + counts[3], 0u);
  EXPECT_EQ(a.Left(), (Strings{"x"}));

  ExceptionClear();
  uint64_t f = 0;
  OptionEntry t[] = {{&f, nullptr, nullptr, nullptr, "[ f ]"}, EndRow()};
  Args b{"-fmtin", "mrc"};
  EXPECT_EQ(OptionsParse(t, nullptr), 0u);
  EXPECT_EQ(f, 0u);
  EXPECT_EQ(b.Left(), (Strings{"-fmtin", "mrc"}));
}

TEST_F(Parse, DoubleDashEndsTheOptions) {
  {
    Args a{"--", "-h"};
    EXPECT_EQ(OptionsParse(program, nullptr), 0u);
    EXPECT_EQ(h_count, 0u);
    EXPECT_EQ(a.Left(), (Strings{"--", "-h"}));
  }
  {
    Args a{"-seed", "5", "--", "-h"};
    EXPECT_EQ(OptionsParse(program, nullptr), 0u);
    EXPECT_EQ(h_count, 0u);
    EXPECT_EQ(seed, 5u);
    EXPECT_EQ(a.Left(), (Strings{"--", "-h"}));
  }
}

TEST_F(Parse, ValueInTheSameArgument) {
  float p[3] = {};
  uint64_t n = 0;
  OptionEntry t[] = {{&n, p, nullptr, nullptr, "[ p= 3 Real ]"}, EndRow()};
  {
    Args a{"-p=1,2.5,-3", "x"};
    EXPECT_EQ(OptionsParse(t, nullptr), 0u);
    EXPECT_EQ(n, 3u);
    EXPECT_EQ(p[1], 2.5f);
    EXPECT_EQ(p[2], -3.0f);
    EXPECT_EQ(a.Left(), (Strings{"x"}));
  }
  {
    Args a{"-p=1,2"};
    EXPECT_EQ(OptionsParse(t, nullptr), E_OPTIONS_NUM);
    EXPECT_EQ(Errors().back(), "invalid number of option values -p");
    EXPECT_EQ(a.Left(), Strings{});
  }
  ExceptionClear();
  {
    // Fewer values than separators say: a parse error without a name.
    Args a{"-p=1,x,3"};
    EXPECT_EQ(OptionsParse(t, nullptr), E_OPTIONS_PARSE);
    EXPECT_EQ(Errors(), (Strings{"option parse error"}));
    EXPECT_EQ(n, 1u);
  }
  ExceptionClear();
  {
    // Without the separator this is not the option.
    Args a{"-p", "1"};
    EXPECT_EQ(OptionsParse(t, nullptr), 0u);
    EXPECT_EQ(a.Left(), (Strings{"-p", "1"}));
  }
}

TEST_F(Parse, WhiteSpaceAfterTheName) {
  {
    Args a{"-fmt tif", "x"};
    EXPECT_EQ(OptionsParse(image, nullptr), E_OPTIONS_ERR);
    EXPECT_EQ(Errors(), (Strings{"invalid command line option -fmt tif"}));
  }
  ExceptionClear();
  {
    Args a{"-fmt ", "tif", "x"};
    EXPECT_EQ(OptionsParse(image, nullptr), 0u);
    EXPECT_STREQ(values[2], "tif");
    EXPECT_EQ(a.Left(), (Strings{"x"}));
  }
}

TEST_F(Parse, TextLeftBehindAValue) {
  Args a{"-seed", "7x"};
  EXPECT_EQ(OptionsParse(program, nullptr), E_OPTIONS_VAL);
  EXPECT_EQ(Errors(), (Strings{"illegal option value -seed"}));
  EXPECT_EQ(a.Left(), (Strings{"7x"}));
}

TEST_F(Parse, StringRunsAndKeywords) {
  const char *files[3] = {};
  uint64_t nfiles = 0;
  const char *const modes[] = {"fast", "slow", nullptr};
  uint64_t mode = 99, nmode = 0;
  unsigned char flag = 0;
  OptionEntry t[] = {
      {&nfiles, files, nullptr, nullptr, "[ files 1:3 String ]"},
      {&nmode, const_cast<const char **>(modes), &mode, nullptr, "[ mode Keyword ]"},
      {nullptr, &flag, nullptr, nullptr, "[ b Bool ]"},
      EndRow(),
  };
  {
    Args a{"-mode", "SL", "-b", "yes", "-files", "a", "b", "c", "d"};
    EXPECT_EQ(OptionsParse(t, nullptr), 0u);
    EXPECT_EQ(nfiles, 3u);
    EXPECT_STREQ(files[2], "c");
    EXPECT_EQ(mode, 1u);
    EXPECT_EQ(nmode, 1u);
    EXPECT_EQ(flag, 1);
    EXPECT_EQ(a.Left(), (Strings{"d"}));
  }
  {
    // A run ended by another option is taken whole: four is too many.
    Args a{"-files", "a", "b", "c", "d", "-b", "0"};
    EXPECT_EQ(OptionsParse(t, nullptr), E_OPTIONS_NUM);
  }
  ExceptionClear();
  {
    Args a{"-mode", "medium"};
    EXPECT_EQ(OptionsParse(t, nullptr), E_OPTIONS_ERR);
    EXPECT_EQ(Errors(), (Strings{"invalid command line option -mode"}));
  }
  ExceptionClear();
  {
    OptionEntry bad[] = {{&nmode, const_cast<const char **>(modes), &mode, nullptr, "[ mode 2 Keyword ]"}, EndRow()};
    // The count passes; a keyword option never takes more than one value.
    Args a{"-mode", "fast", "slow"};
    EXPECT_EQ(OptionsParse(bad, nullptr), E_OPTIONS_PARSE);
    EXPECT_EQ(Errors(), (Strings{"option parse error"}));
  }
}

TEST_F(Parse, Validation) {
  struct Case {
    const char *decl;
    std::vector<const char *> args;
    uint32_t status;
  } cases[] = {
      {"[ v 3 Index < ]", {"-v", "1", "2", "3"}, 0},
      {"[ v 3 Index < ]", {"-v", "1", "2", "2"}, E_OPTIONS_VAL},
      {"[ v 3 Index <= ]", {"-v", "1", "2", "2"}, 0},
      {"[ v 3 Index <= ]", {"-v", "1", "3", "2"}, E_OPTIONS_VAL},
      {"[ v Index + ]", {"-v", "0"}, E_OPTIONS_VAL},
      {"[ v Offset -3:3 ]", {"-v", "-3"}, 0},
      {"[ v Offset -3:3 ]", {"-v", "4"}, E_OPTIONS_VAL},
      {"[ v Size + ]", {"-v", "0"}, E_OPTIONS_VAL},
      {"[ v Size 2:4 ]", {"-v", "5"}, E_OPTIONS_VAL},
      {"[ v Real 0:1 ]", {"-v", "1"}, 0},
      {"[ v Real 0:1 ]", {"-v", "1.5"}, E_OPTIONS_VAL},
      {"[ v Real ]", {"-v", "nan"}, E_OPTIONS_VAL},
      {"[ v Real ]", {"-v", "inf"}, E_OPTIONS_VAL},
      {"[ v Real + ]", {"-v", "-0"}, E_OPTIONS_VAL},
      {"[ v Coord + ]", {"-v", "1e-300"}, 0},
      {"[ v 2 Coord < ]", {"-v", "1", "1"}, E_OPTIONS_VAL},
      {"[ v Complex ]", {"-v", "1+2i"}, 0},
      {"[ v Complex + ]", {"-v", "1+2i"}, E_OPTIONS_VAL},
      {"[ v Bool ]", {"-v", "off"}, 0},
  };
  for (const Case &c : cases) {
    ExceptionClear();
    alignas(8) unsigned char values[64] = {};
    OptionEntry t[] = {{nullptr, values, nullptr, nullptr, c.decl}, EndRow()};
    Args a(c.args);
    EXPECT_EQ(OptionsParse(t, nullptr), c.status) << c.decl << " " << c.args[1];
    if (c.status == E_OPTIONS_VAL) {
      EXPECT_EQ(Errors(), (Strings{"illegal option value -v"})) << c.decl;
    }
  }
}

TEST_F(Parse, SquareCounts) {
  uint64_t m[16] = {};
  uint64_t n = 0;
  OptionEntry t[] = {{&n, m, nullptr, nullptr, "[ m 1:16 * Size ]"}, EndRow()};
  {
    Args a{"-m", "1", "2", "3", "4", "file"};
    EXPECT_EQ(OptionsParse(t, nullptr), 0u);
    EXPECT_EQ(n, 4u);
    EXPECT_EQ(a.Left(), (Strings{"file"}));
  }
  for (const std::vector<const char *> &args :
       {std::vector<const char *>{"-m", "1", "2", "3"}, {"-m", "1", "2", "3", "4", "5", "-x"}}) {
    ExceptionClear();
    Args a(args);
    EXPECT_EQ(OptionsParse(t, nullptr), E_OPTIONS_NUM) << args.size();
  }
}

TEST_F(Parse, SharedCount) {
  float x[8] = {}, y[8] = {};
  uint64_t shared = 0;
  OptionEntry t[] = {
      {nullptr, x, &shared, nullptr, "[ x 1:8 Real ]"},
      {nullptr, y, &shared, nullptr, "[ y 1:8 Real ]"},
      EndRow(),
  };
  {
    Args a{"-x", "1", "2", "-y", "3", "4", "file"};
    EXPECT_EQ(OptionsParse(t, nullptr), 0u);
    EXPECT_EQ(shared, 2u);
    EXPECT_EQ(y[1], 4.0f);
  }
  shared = 0;
  {
    // -y's run is ended by the place of -x, so its three values are exact and do not agree.
    Args a{"-y", "3", "4", "5", "-x", "1", "2", "-z"};
    EXPECT_EQ(OptionsParse(t, nullptr), E_OPTIONS_NUM);
    EXPECT_EQ(shared, 2u);  // set by -x, the first row of the table
  }
}

TEST_F(Parse, FixedCountMustMatchTheSharedCount) {
  float x[8] = {};
  uint64_t shared = 3;
  OptionEntry t[] = {{nullptr, x, &shared, nullptr, "[ x 1:8 =2 Real ]"}, EndRow()};
  Args a{"-x", "1", "2"};
  EXPECT_EQ(OptionsParse(t, nullptr), E_OPTIONS_ERR);
  EXPECT_EQ(Errors(), (Strings{"invalid command line option -x"}));
}

TEST_F(Parse, Environment) {
  uint64_t v[3] = {};
  OptionEntry own[] = {{nullptr, &v[0], nullptr, nullptr, "[ x <_*> Size ]"}, EndRow()};
  OptionEntry common[] = {{nullptr, &v[1], nullptr, nullptr, "[ x <*> Size ]"}, EndRow()};
  OptionEntry both[] = {{nullptr, &v[2], nullptr, nullptr, "[ x <> Size ]"}, EndRow()};
  Args a{"pos"};
  {
    EnvVar p("zvcompute_x", "5"), z("zv_x", "9");
    EXPECT_EQ(OptionsParse(own, nullptr), 0u);
    EXPECT_EQ(OptionsParse(common, nullptr), 0u);
    EXPECT_EQ(OptionsParse(both, nullptr), 0u);
    EXPECT_EQ(v[0], 5u);
    EXPECT_EQ(v[1], 9u);
    EXPECT_EQ(v[2], 5u);
  }
  v[0] = v[1] = v[2] = 0;
  {
    EnvVar z("zv_x", "9");
    EXPECT_EQ(OptionsParse(own, nullptr), 0u);
    EXPECT_EQ(OptionsParse(both, nullptr), 0u);
    EXPECT_EQ(v[0], 0u);
    EXPECT_EQ(v[2], 9u);
  }
  {
    EnvVar p("zvcompute_x", "5");
    EXPECT_EQ(OptionsParse(common, nullptr), 0u);
    EXPECT_EQ(v[1], 0u);
  }
  {
    // An empty program-prefixed variable is set: the common one is not read.
    EnvVar p("zvcompute_x", ""), z("zv_x", "9");
    EXPECT_EQ(OptionsParse(both, nullptr), E_OPTIONS_PARSE);
  }
  EXPECT_EQ(a.Left(), (Strings{"pos"}));
}

TEST_F(Parse, EnvironmentSeedAndPrecedence) {
  EnvVar z("zv_seed", "  42");
  {
    Args a{"x"};
    EXPECT_EQ(OptionsParse(program, nullptr), 0u);
    EXPECT_EQ(seed, 42u);
  }
  {
    Args a{"-seed", "8", "x"};
    EXPECT_EQ(OptionsParse(program, nullptr), 0u);
    EXPECT_EQ(seed, 8u);
  }
  {
    // The environment is read also when the first argument is no option.
    Args a{"x", "-seed", "8"};
    EnvVar p("zvcompute_seed", "11");
    EXPECT_EQ(OptionsParse(program, nullptr), 0u);
    EXPECT_EQ(seed, 11u);
  }
}

TEST_F(Parse, EnvironmentErrorsNameTheVariable) {
  uint64_t v = 0;
  OptionEntry t[] = {{nullptr, &v, nullptr, nullptr, "[ x <> Size 1:10 ]"}, EndRow()};
  Args a{};
  {
    EnvVar p("zvcompute_x", "11");
    EXPECT_EQ(OptionsParse(t, nullptr), E_OPTIONS_VAL);
    EXPECT_EQ(Errors(), (Strings{"illegal option value -zvcompute_x"}));
  }
  ExceptionClear();
  {
    EnvVar z("zv_x", "1,2");
    EXPECT_EQ(OptionsParse(t, nullptr), E_OPTIONS_NUM);
    EXPECT_EQ(Errors(), (Strings{"invalid number of option values -zv_x"}));
  }
}

TEST_F(Parse, EnvironmentSwitch) {
  uint64_t n = 0;
  OptionEntry t[] = {{&n, nullptr, nullptr, nullptr, "v <>"}, EndRow()};
  Args a{};
  {
    EnvVar z("zv_v", "no");  // any truth value sets the switch
    EXPECT_EQ(OptionsParse(t, nullptr), 0u);
    EXPECT_EQ(n, 1u);
  }
  n = 0;
  {
    // Empty: found, so the required switch is satisfied, but not set.
    EnvVar z("zv_v", "");
    EXPECT_EQ(OptionsParse(t, nullptr), 0u);
    EXPECT_EQ(n, 0u);
  }
  {
    EnvVar z("zv_v", "maybe");
    EXPECT_EQ(OptionsParse(t, nullptr), E_OPTIONS_VAL);
    EXPECT_EQ(Errors(), (Strings{"illegal option value -zv_v"}));
  }
  ExceptionClear();
  EXPECT_EQ(OptionsParse(t, nullptr), E_OPTIONS_REQ);
  EXPECT_EQ(Errors(), (Strings{"required command line option -v"}));
}

TEST_F(Parse, RequiredOptionsAllReported) {
  uint64_t a1 = 0, b1 = 0;
  OptionEntry t[] = {
      {&a1, nullptr, nullptr, nullptr, "alpha"},
      {nullptr, &b1, nullptr, nullptr, "beta Size"},
      {nullptr, nullptr, nullptr, nullptr, nullptr},
  };
  Args a{"-h", "x"};
  EXPECT_EQ(OptionsParse(t, nullptr), E_OPTIONS_REQ);
  EXPECT_EQ(Errors(), (Strings{"required command line option -alpha", "required command line option -beta"}));
  EXPECT_EQ(a.Left(), (Strings{"-h", "x"}));
}

TEST_F(Parse, BadDeclarations) {
  uint64_t v = 0;
  {
    // An unreadable row ends the parse; matched options are still removed.
    OptionEntry t[] = {
        {&h_count, nullptr, nullptr, nullptr, "[ h ]"},
        {nullptr, &v, nullptr, nullptr, "[ x Size ] extra"},
        {nullptr, &seed, nullptr, nullptr, "[ seed Size ]"},
        EndRow(),
    };
    Args a{"-h", "-seed", "3"};
    EXPECT_EQ(OptionsParse(t, nullptr), E_OPTIONS_PARSE);
    EXPECT_EQ(Errors(), (Strings{"option parse error [ x Size ] extra"}));
    EXPECT_EQ(seed, 123u);
    EXPECT_EQ(a.Left(), (Strings{"-seed", "3"}));
  }
  ExceptionClear();
  {
    // A nameless row returns at once, before the vector is compacted.
    OptionEntry t[] = {
        {&h_count, nullptr, nullptr, nullptr, "[ h ]"},
        {nullptr, &v, nullptr, nullptr, "ARG 2 Size"},
        EndRow(),
    };
    Args a{"-h", "x"};
    EXPECT_EQ(OptionsParse(t, nullptr), E_OPTIONS_PARSE);
    EXPECT_EQ(Errors(), (Strings{"option parse error ARG 2 Size"}));
    EXPECT_EQ(a.argc, 3);
    EXPECT_STREQ(CoreArgv[1], "");
  }
  ExceptionClear();
  EXPECT_EQ(OptionsParse(nullptr, nullptr), E_ARGUMENT);
}

TEST_F(Parse, EmptyArgumentsAreSkippedAndDropped) {
  Args a{"", "-h", "", "a"};
  EXPECT_EQ(OptionsParse(program, nullptr), 0u);
  EXPECT_EQ(h_count, 1u);
  EXPECT_EQ(a.Left(), (Strings{"a"}));
}

TEST_F(Parse, PrefixedTable) {
  const char *fmt = nullptr;
  OptionEntry t[] = {{nullptr, &fmt, nullptr, nullptr, "fmt String"}, EndRow()};
  OptionPrefix in{"in", 0};
  {
    Args a{"-fmt", "a", "-infmt", "b"};
    EXPECT_EQ(OptionsParse(t, &in), 0u);
    EXPECT_STREQ(fmt, "b");
    EXPECT_EQ(a.Left(), (Strings{"-fmt", "a"}));
  }
  {
    Args a{"x"};
    EXPECT_EQ(OptionsParse(t, &in), E_OPTIONS_REQ);
    EXPECT_EQ(Errors(), (Strings{"required command line option -infmt"}));
  }
}

TEST_F(Parse, LongNamesAreCutInErrors) {
  std::string name(130, 'n');
  std::string decl = name + " Size";
  uint64_t v = 0;
  OptionEntry t[] = {{nullptr, &v, nullptr, nullptr, decl.c_str()}, EndRow()};
  OptionPrefix pre{"pp", 0};
  Args a{};
  EXPECT_EQ(OptionsParse(t, &pre), E_OPTIONS_REQ);
  EXPECT_EQ(Errors(), (Strings{"required command line option -pp" + std::string(123, 'n')}));
}

// -- constraint lists ---------------------------------------------------------------------------

// Two rows whose lists live in one array: a = words[0..1], b = words[2..3]; word 1 points at b's
// first word (distance +1), word 3 at a's first word (distance -3).
struct Pair {
  uint32_t words[4];
  uint64_t a = 0, b = 0;
  OptionEntry table[3];
  explicit Pair(uint32_t kind) {
    words[0] = 1;
    words[1] = kind | (1u << 8);
    words[2] = 1;
    words[3] = kind | (0xfdu << 8);
    table[0] = {&a, nullptr, nullptr, &words[0], "[ a ]"};
    table[1] = {&b, nullptr, nullptr, &words[2], "[ b ]"};
    table[2] = EndRow();
  }
};

TEST_F(Parse, ExclusiveOptions) {
  Pair p(OptionsConstraintExcl);
  {
    Args a{"-b", "-a", "x"};
    EXPECT_EQ(OptionsParse(p.table, nullptr), E_OPTIONS_CONFL);
    EXPECT_EQ(Errors(), (Strings{"conflicting command line options -b and -a"}));
    EXPECT_EQ(a.Left(), (Strings{"x"}));
  }
  ExceptionClear();
  {
    // Marks of the previous call are cleared.
    Args a{"-a", "x"};
    EXPECT_EQ(OptionsParse(p.table, nullptr), 0u);
  }
}

TEST_F(Parse, RequirementGroups) {
  {
    Pair p(OptionsConstraintOr);
    Args a{"x"};
    EXPECT_EQ(OptionsParse(p.table, nullptr), E_OPTIONS_REQ);
    EXPECT_EQ(Errors(), (Strings{"required command line option -a or -b"}));
    ExceptionClear();
    Args b{"-b"};
    EXPECT_EQ(OptionsParse(p.table, nullptr), 0u);
  }
  {
    Pair p(OptionsConstraintAnd);
    Args a{"x"};
    EXPECT_EQ(OptionsParse(p.table, nullptr), 0u);
    Args b{"-a"};
    EXPECT_EQ(OptionsParse(p.table, nullptr), E_OPTIONS_REQ);
    EXPECT_EQ(Errors(), (Strings{"required command line option -a and -b"}));
    ExceptionClear();
    Args c{"-a", "-b"};
    EXPECT_EQ(OptionsParse(p.table, nullptr), 0u);
  }
}

// -- usage line -----------------------------------------------------------------------------------

std::string Item(const char *decl) {
  OptionEntry row{nullptr, nullptr, nullptr, nullptr, decl};
  std::string text;
  EXPECT_EQ(OptionsUsageText(&row, nullptr, &text), 0u);
  return text;
}

TEST_F(Parse, UsageItems) {
  EXPECT_EQ(Item("h"), " -h");
  EXPECT_EQ(Item("[ h ]"), " [-h]");
  EXPECT_EQ(Item("[ name= String ]"), " [-name=<s>]");
  EXPECT_EQ(Item("x 5 Real"), " -x <5*r>");
  EXPECT_EQ(Item("x 3 Real"), " -x <r> <r> <r>");
  EXPECT_EQ(Item("x= 3 Real"), " -x=<r>,<r>,<r>");
  EXPECT_EQ(Item("x: 2 Real"), " -x:<r>,<r>");
  EXPECT_EQ(Item("ARG 2 Size"), " <I> <I>");
  EXPECT_EQ(Item("[ ARG Complex ]"), " [<C>]");
  EXPECT_EQ(Item("[ x 1:3 Coord ]"), " [-x <r> [r] [r]]");
  EXPECT_EQ(Item("[ x 1:9 Index ]"), " [-x <n> [8*n]]");
  EXPECT_EQ(Item("[ x 2: Offset ]"), " [-x <n> <n>]");
  EXPECT_EQ(Item("x 0:2 Bool"), " -x [b] [b]");
  EXPECT_EQ(Item("x 0 Bool"), " -x ...");
  EXPECT_EQ(Item("[ k Keyword ]"), " [-k <k>]");
  EXPECT_EQ(Item("[ x Size ] junk"), "");
  OptionEntry row{nullptr, nullptr, nullptr, nullptr, "[ fmt String ]"};
  OptionPrefix in{"in", 0};
  std::string text;
  OptionsUsageText(&row, &in, &text);
  EXPECT_EQ(text, " [-infmt <s>]");
}

TEST_F(Parse, UsageLineOfTheProgramTable) {
  std::string line;
  OptionsUsageLine(program, &line);
  EXPECT_EQ(line, " [-h] [-seed <i>]");
  OptionsUsageLine(image, &line);
  EXPECT_EQ(line, " [-fmtin <s>] [-capin <s>] [-fmt <s>] [-cap <s>]");
}

TEST_F(Parse, UsagePrintsReportsAndExits) {
  ExceptionPushMsg(E_OPTIONS_NUM, " -seed", nullptr);
  EXPECT_EXIT(OptionsUsage(program), testing::ExitedWithCode(1),
              "^zvcompute: invalid number of option values -seed\nusage: zvcompute \\[-h\\] \\[-seed <i>\\]\n$");
  ExceptionClear();
  OptionEntry empty[] = {EndRow()};
  EXPECT_EXIT(OptionsUsage(empty), testing::ExitedWithCode(1), "^usage: zvcompute\n$");
  EXPECT_EQ(OptionsUsage(nullptr), E_ARGUMENT);
}

// Registry state is process-wide, so these run in a child process.
uint32_t InitBlock(void *block, uint64_t size, void **) {
  std::memset(block, 0, size);
  static_cast<uint64_t *>(block)[1] = 5;  // default of the value
  return 0;
}

void *Finish(void *chained, void *block, uint64_t, void *) {
  static uint64_t results[2];
  uint64_t *b = static_cast<uint64_t *>(block);
  results[chained ? 1 : 0] = b[1] + (chained ? *static_cast<uint64_t *>(chained) : 0);
  return &results[chained ? 1 : 0];
}

void ListRegisteredTables(const OptionEntry *program) {
  static uint64_t block1[2], block2[2];
  static OptionEntry q[] = {{&block1[0], nullptr, nullptr, nullptr, "[ q ]"}, EndRow()};
  static OptionEntry r[] = {{nullptr, &block2[1], nullptr, nullptr, "r Size"}, EndRow()};
  static const OptionPrefix pre{"x", 0};
  OptionRegistration *rq = OptionsRegister(q, nullptr, Finish, block1, sizeof block1, nullptr);
  OptionRegistration *rr = OptionsRegister(r, InitBlock, Finish, block2, sizeof block2, &pre);
  OptionsChain(rq, rr, nullptr);
  std::string line;
  OptionsUsageLine(program, &line);
  std::fprintf(stderr, "%s|", line.c_str());
  OptionsUsageLine(program, &line);
  std::fprintf(stderr, "%s|", line.c_str());
  std::exit(0);
}

TEST_F(Parse, RegisteredTablesListedOnce) {
  EXPECT_EXIT(ListRegisteredTables(program), testing::ExitedWithCode(0),
              "^ \\[-q\\] -xr <i> \\[-h\\] \\[-seed <i>\\]\\| \\[-h\\] \\[-seed <i>\\]\\|$");
}

void RunCallback() {
  static uint64_t block1[2], block2[2];
  static OptionEntry q[] = {{nullptr, &block1[1], nullptr, nullptr, "[ q Size ]"}, EndRow()};
  static OptionEntry r[] = {{nullptr, &block2[1], nullptr, nullptr, "[ r Size ]"}, EndRow()};
  OptionRegistration *rq = OptionsRegister(q, InitBlock, Finish, block1, sizeof block1, nullptr);
  OptionRegistration *rr = OptionsRegister(r, InitBlock, Finish, block2, sizeof block2, nullptr);
  void *result = &block1;
  OptionsChain(rq, rr, &result);
  bool ok = result == nullptr;
  Args a{"-r", "7", "-q", "1"};
  ok = ok && OptionsCallback(rq) == 0;
  // r is parsed first (7), then q (1) is finished with r's result: 1 + 7.
  ok = ok && result && *static_cast<uint64_t *>(result) == 8;
  ok = ok && a.Left().empty();
  // Without arguments the initialiser's default stays: 5 + 5.
  Args b{};
  ok = ok && OptionsCallback(rq) == 0 && *static_cast<uint64_t *>(result) == 10;
  std::exit(ok ? 0 : 2);
}

TEST_F(Parse, CallbackRunsChainInitialiserParseAndFinisher) {
  EXPECT_EXIT(RunCallback(), testing::ExitedWithCode(0), "");
}

void FillRegistry() {
  static uint64_t block[2];
  static OptionEntry q[] = {{nullptr, nullptr, nullptr, nullptr, "[ q ]"}, EndRow()};
  bool ok = OptionsRegister(nullptr, nullptr, Finish, block, 16, nullptr) == nullptr;
  ok = ok && OptionsRegister(q, nullptr, nullptr, block, 16, nullptr) == nullptr;
  ok = ok && OptionsRegister(q, nullptr, Finish, nullptr, 16, nullptr) == nullptr;
  uint32_t n;
  OptionsRegistry(&n);
  ok = ok && n == 0;
  for (uint32_t i = 0; i < OptionsRegistryMax; ++i)
    ok = ok && OptionsRegister(q, nullptr, Finish, block, 16, nullptr) != nullptr;
  ok = ok && OptionsRegister(q, nullptr, Finish, block, 16, nullptr) == nullptr;
  std::exit(ok ? 0 : 2);
}

TEST_F(Parse, RegistryRefusals) { EXPECT_EXIT(FillRegistry(), testing::ExitedWithCode(0), ""); }

TEST_F(Parse, ModuleRegistersTheErrorTexts) {
  EXPECT_STREQ(OptionsModule.name, "options");
  EXPECT_STREQ(OptionsModule.version, "2.4.1373");
  EXPECT_STREQ(OptionsModule.stamp, "201406222041");
  const char *expected[] = {"internal error (options)",
                            "option parse error",
                            "unknown command line option",
                            "invalid command line option",
                            "illegal option value",
                            "invalid number of option values",
                            "duplicate command line option",
                            "required command line option",
                            "conflicting command line options",
                            "invalid command line argument",
                            "insufficient number of command line arguments"};
  for (uint32_t code = E_OPTIONS; code < E_OPTIONS_END; ++code) {
    ExceptionClear();
    ExceptionPush(code);
    EXPECT_STREQ(ExceptionText(0), expected[code - E_OPTIONS]);
  }
}

}  // namespace
