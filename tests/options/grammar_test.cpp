// Declarations read into OptionSpec, the usage line written back from them, the registry of option
// tables and the module's error texts.
#include <cfloat>
#include <cstring>
#include <sstream>

#include "option_args.h"

namespace {

class Grammar : public testing::Test {
 protected:
  void SetUp() override { OptionsTestSetUp(); }
  void TearDown() override { OptionsSepIdent = 0, OptionsSepValue = 0; }
};

// A declaration as read into OptionSpec: "name Type min:max flags=hex", then the parts that are set:
// prefix, separators, environment name and program, fixed count, explicit range.
std::string Describe(const char *decl, const OptionPrefix *prefix = nullptr) {
  OptionSpec s;
  if (OptionsParseSpec(decl, &s, prefix) != 0) return "error: " + Errors().back();
  std::ostringstream o;
  o << std::string(s.name ? s.name : "", s.name_length) << ' ' << OptionTypeNames[s.type] << ' ' << s.min_count << ':'
    << s.max_count << " flags=" << std::hex << s.flags << std::dec;
  if (*s.prefix) o << " prefix=" << s.prefix;
  if (s.sep_ident || s.sep_value) o << " sep=" << (s.sep_ident ? s.sep_ident : '0') << s.sep_value;
  const char *program = s.env_program ? s.env_program : "";
  if (s.env_length) o << " env=" << std::string(s.env_name, s.env_length) << '@' << program;
  if (s.fixed_count) o << " fixed=" << s.fixed_count;
  int64_t r[2];
  double d[2];
  float f[2];
  std::memcpy(r, s.range, 16), std::memcpy(d, s.range, 16), std::memcpy(f, s.range, 8);
  if (s.flags & OptionFlagRange) {
    if (s.type == OptionTypeReal) o << " range=" << f[0] << ':' << f[1];
    else if (s.type == OptionTypeCoord) o << " range=" << d[0] << ':' << d[1];
    else o << " range=" << r[0] << ':' << r[1];
  }
  return o.str();
}

const std::string kMax = std::to_string(UINT64_MAX);

TEST_F(Grammar, Declarations) {
  const OptionPrefix in{"in", 4}, none{nullptr, 9};
  const std::pair<std::string, std::string> cases[] = {
      {"[ h ]", "h Switch 1:1 flags=2"},
      {"h", "h Switch 1:1 flags=0"},
      {"[ seed <> Size ]", "seed Size 1:1 flags=6 env=seed@zvcompute"},
      {"[ fmt   <> String ]", "fmt String 1:1 flags=6 env=fmt@zvcompute"},
      {"\t[\nmy_opt-2\v3\fReal\r]\n", "my_opt-2 Real 3:3 flags=2"},  // white space of every kind
      {"ARG 2 Size", " Size 2:2 flags=0"},
      {"ARGS", "ARGS Switch 1:1 flags=0"},
      {"[ x <_*> Size ]", "x Size 1:1 flags=2 env=x@zvcompute"},
      {"[ x <*> Size ]", "x Size 1:1 flags=6 env=x@"},
      {"[ x < _ other > Size ]", "x Size 1:1 flags=2 env=other@zvcompute"},
      {"[ x <alt> Size ]", "x Size 1:1 flags=6 env=alt@"},
      {"[ name= String ]", "name String 1:1 flags=2 sep==,"},
      {"[ p : 2 Real ]", "p Real 2:2 flags=2 sep=:,"},
      {"[ x 2:5 Real ]", "x Real 2:5 flags=2"},
      {"[ x 2: Real ]", "x Real 2:" + kMax + " flags=2"},
      {"[ x = :4 Real ]", "x Real 1:4 flags=2 sep==,"},
      {"[ m 1:16 * Size ]", "m Size 1:16 flags=a"},
      {"[ m 1:9 =3 Size ]", "m Size 1:9 flags=2 fixed=3"},
      {"[ m * Size ]", "m Size 1:1 flags=a"},  // without a count a typed option takes one value
      {"[ x Real 0:1 ]", "x Real 1:1 flags=22 range=0:1"},
      {"[ x Coord -2.5: ]", "x Coord 1:1 flags=22 range=-2.5:1.79769e+308"},
      {"[ x 3 Index + <= -5:5 ]", "x Index 3:3 flags=632 range=-5:5"},
      {"[ x 3 Offset < ]", "x Offset 3:3 flags=202"},
      {"[ x Size 7 ]", "x Size 1:1 flags=22 range=7:7"},
      {"[ k Keyword ]", "k Keyword 1:1 flags=2"},
      {"[ b Bool ]", "b Bool 1:1 flags=2"},
      {"[ c Complex ]", "c Complex 1:1 flags=2"},
      {"[ h", "h Switch 1:1 flags=2"},
      {"[ h ]   \n", "h Switch 1:1 flags=2"},
  };
  for (const auto &[decl, want] : cases) EXPECT_EQ(Describe(decl.c_str()), want) << decl;
  // A prefix count inside the declared range replaces it; outside it does not.
  EXPECT_EQ(Describe("[ x 2:8 Real ]", &in), "x Real 4:4 flags=2 prefix=in");
  EXPECT_EQ(Describe("[ x 2:8 Real ]", &none), "x Real 2:8 flags=2");
  EXPECT_EQ(Describe("[ x Real ]", &in), "x Real 1:1 flags=2 prefix=in");
  // Forced separators; a forced identifier separator outside the table takes the first value separator.
  OptionsSepIdent = ':';
  EXPECT_EQ(Describe("[ p= Real ]"), "p Real 1:1 flags=2 sep=:,");
  OptionsSepIdent = '#';
  EXPECT_EQ(Describe("[ p Real ]"), "p Real 1:1 flags=2 sep=#,");
  OptionsSepValue = ';';
  EXPECT_EQ(Describe("[ p Real ]"), "p Real 1:1 flags=2 sep=#;");
  OptionsSepIdent = 0;
  EXPECT_EQ(Describe("[ p Real ]"), "p Real 1:1 flags=2 sep=0;");
  OptionsSepValue = 0;
  Main = nullptr;
  EXPECT_EQ(Describe("[ x <> Size ]"), "x Size 1:1 flags=6 env=x@");
}

// Without an explicit range a value may take any value of its stored type (for the floating types,
// any finite one).
TEST_F(Grammar, DefaultRanges) {
  OptionSpec s;
  int64_t i[2];
  float f[2];
  ASSERT_EQ(OptionsParseSpec("[ x Index ]", &s, nullptr), 0u);
  std::memcpy(i, s.range, 16);
  EXPECT_TRUE(i[0] == INT64_MIN && i[1] == INT64_MAX);
  ASSERT_EQ(OptionsParseSpec("[ x Real ]", &s, nullptr), 0u);
  std::memcpy(f, s.range, 8);
  EXPECT_TRUE(f[0] == -FLT_MAX && f[1] == FLT_MAX);
}

// Every failure reports the declaration from its first non-blank character.
TEST_F(Grammar, Refused) {
  for (const char *decl : {"[ x <_> Size ]", "[ x <+> Size ]", "[ x <* Size ]", "[ x <a b> Size ]", "[ ARG <> Size ]",
                           "[ h 2 ]", "[ h 1 Switch ]", "[ x 2:-1 Size ]", "[ x = Size ]junk", "[ x 1:3 =z Size ]",
                           "[ x Complex 0:1 ]", "[ x Bool 0:1 ]", "[ x Size 99999999999999999999 ]", "[ x size ]",
                           "[ x Sizes ]", "[ x Siz ]", "[ h ] x", "[ h ]]", "  h ]", "[ 5 Real ]", "[ ]", ""}) {
    ExceptionClear();
    const std::string trimmed = decl + std::strspn(decl, " \t\n\v\f\r");
    EXPECT_EQ(Describe(decl), "error: option parse error " + trimmed) << decl;
  }
}

std::string Item(const char *decl, const OptionPrefix *prefix = nullptr) {
  const OptionEntry row{nullptr, nullptr, nullptr, nullptr, decl};
  std::string text;
  EXPECT_EQ(OptionsUsageText(&row, prefix, &text), 0u);
  return text;
}

TEST_F(Grammar, UsageItems) {
  const OptionPrefix in{"in", 0};
  const std::pair<const char *, const char *> cases[] = {
      {"h", " -h"},
      {"[ h ]", " [-h]"},
      {"[ name= String ]", " [-name=<s>]"},
      {"x 5 Real", " -x <5*r>"},
      {"x 3 Real", " -x <r> <r> <r>"},
      {"x= 3 Real", " -x=<r>,<r>,<r>"},
      {"x: 2 Real", " -x:<r>,<r>"},
      {"ARG 2 Size", " <I> <I>"},
      {"[ ARG Complex ]", " [<C>]"},
      {"[ x 1:3 Coord ]", " [-x <r> [r] [r]]"},
      {"[ x 1:9 Index ]", " [-x <n> [8*n]]"},
      {"[ x 2: Offset ]", " [-x <n> <n>]"},
      {"x 0:2 Bool", " -x [b] [b]"},
      {"x 0 Bool", " -x ..."},
      {"[ k Keyword ]", " [-k <k>]"},
      {"[ x Size ] junk", ""},
  };
  for (const auto &[decl, want] : cases) EXPECT_EQ(Item(decl), want) << decl;
  EXPECT_EQ(Item("[ fmt String ]", &in), " [-infmt <s>]");
}

const OptionEntry kProgram[] = {{nullptr, nullptr, nullptr, nullptr, "[ h ]"},
                                 {nullptr, nullptr, nullptr, nullptr, "[ seed <> Size ]"}, EndRow()};

// Pending errors first, then the usage line; exit status 1.
TEST_F(Grammar, UsageLineAndExit) {
  ExceptionPushMsg(E_OPTIONS_NUM, " -seed", nullptr);
  EXPECT_EXIT(OptionsUsage(kProgram), testing::ExitedWithCode(1),
              "^zvcompute: invalid number of option values -seed\nusage: zvcompute \\[-h\\] \\[-seed <i>\\]\n$");
  ExceptionClear();
  const OptionEntry empty[] = {EndRow()};
  EXPECT_EXIT(OptionsUsage(empty), testing::ExitedWithCode(1), "^usage: zvcompute\n$");
  EXPECT_EQ(OptionsUsage(nullptr), E_ARGUMENT);
}

// The registry is process-wide, so these run in child processes.
uint32_t InitBlock(void *block, uint64_t size, void **) {
  std::memset(block, 0, size);
  static_cast<uint64_t *>(block)[1] = 5;  // default of the value
  return 0;
}
void *Finish(void *chained, void *block, uint64_t, void *) {
  static uint64_t results[2];
  uint64_t &r = results[chained ? 1 : 0];
  r = static_cast<uint64_t *>(block)[1] + (chained ? *static_cast<uint64_t *>(chained) : 0);
  return &r;
}

// Registered tables are listed before the row whose constraints equal the end row's, each once.
void ListRegisteredTables() {
  static uint64_t block1[2], block2[2];
  static const OptionEntry q[] = {{&block1[0], nullptr, nullptr, nullptr, "[ q ]"}, EndRow()};
  static const OptionEntry r[] = {{nullptr, &block2[1], nullptr, nullptr, "r Size"}, EndRow()};
  static const OptionPrefix pre{"x", 0};
  OptionRegistration *rq = OptionsRegister(q, nullptr, Finish, block1, 16, nullptr);
  OptionsChain(rq, OptionsRegister(r, InitBlock, Finish, block2, 16, &pre), nullptr);
  std::string first, second;
  OptionsUsageLine(kProgram, &first);
  OptionsUsageLine(kProgram, &second);
  std::fprintf(stderr, "%s|%s|", first.c_str(), second.c_str());
  std::exit(0);
}

// The callback runs the chained registration first, the initialiser, the parse and the finisher.
void RunCallback() {
  static uint64_t block1[2], block2[2];
  static const OptionEntry q[] = {{nullptr, &block1[1], nullptr, nullptr, "[ q Size ]"}, EndRow()};
  static const OptionEntry r[] = {{nullptr, &block2[1], nullptr, nullptr, "[ r Size ]"}, EndRow()};
  OptionRegistration *rq = OptionsRegister(q, InitBlock, Finish, block1, 16, nullptr);
  void *result = &block1;
  OptionsChain(rq, OptionsRegister(r, InitBlock, Finish, block2, 16, nullptr), &result);
  bool ok = result == nullptr;
  Args a({"-r", "7", "-q", "1"});
  ok = ok && OptionsCallback(rq) == 0 && *static_cast<uint64_t *>(result) == 8 && a.Left().empty();  // 1 + 7
  Args b({});
  ok = ok && OptionsCallback(rq) == 0 && *static_cast<uint64_t *>(result) == 10;  // defaults 5 + 5
  std::exit(ok ? 0 : 2);
}

void FillRegistry() {
  static uint64_t block[2];
  static const OptionEntry q[] = {{nullptr, nullptr, nullptr, nullptr, "[ q ]"}, EndRow()};
  bool ok = !OptionsRegister(nullptr, nullptr, Finish, block, 16, nullptr);
  ok = ok && !OptionsRegister(q, nullptr, nullptr, block, 16, nullptr);
  ok = ok && !OptionsRegister(q, nullptr, Finish, nullptr, 16, nullptr);
  for (uint32_t i = 0; i < OptionsRegistryMax; ++i) ok = ok && OptionsRegister(q, nullptr, Finish, block, 16, nullptr);
  std::exit(ok && !OptionsRegister(q, nullptr, Finish, block, 16, nullptr) ? 0 : 2);
}

TEST_F(Grammar, Registry) {
  EXPECT_EXIT(ListRegisteredTables(), testing::ExitedWithCode(0),
              "^ \\[-q\\] -xr <i> \\[-h\\] \\[-seed <i>\\]\\| \\[-h\\] \\[-seed <i>\\]\\|$");
  EXPECT_EXIT(RunCallback(), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(FillRegistry(), testing::ExitedWithCode(0), "");
}

// The module's initialiser registers the texts of its error block.
TEST_F(Grammar, ErrorTexts) {
  EXPECT_EQ(OptionsModule.function, &OptionsModuleInit);
  const char *const texts[] = {"internal error (options)", "option parse error", "unknown command line option",
                               "invalid command line option", "illegal option value", "invalid number of option values",
                               "duplicate command line option", "required command line option",
                               "conflicting command line options", "invalid command line argument",
                               "insufficient number of command line arguments"};
  for (uint32_t code = E_OPTIONS; code < E_OPTIONS_END; ++code) ExceptionPush(code);
  EXPECT_EQ(Errors(), Strings(std::begin(texts), std::end(texts)));
  ExceptionClear();
}

}  // namespace
