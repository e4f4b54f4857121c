// Declarations read into OptionSpec, and the word parsers they are built on.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <string>

#include "option_args.h"
#include "options/options.h"
#include "platform/core/parse.h"

namespace {

class Grammar : public testing::Test {
 protected:
  void SetUp() override { OptionsTestSetUp(); }
  void TearDown() override {
    OptionsSepIdent = 0;
    OptionsSepValue = 0;
  }
  OptionSpec Read(const char *decl, const OptionPrefix *prefix = nullptr) {
    ExceptionClear();
    OptionSpec spec;
    EXPECT_EQ(OptionsParseSpec(decl, &spec, prefix), 0u) << decl;
    EXPECT_EQ(ExceptionCount(), 0u) << decl;
    return spec;
  }
  void Fails(const char *decl) {
    ExceptionClear();
    OptionSpec spec;
    EXPECT_EQ(OptionsParseSpec(decl, &spec, nullptr), E_OPTIONS_PARSE) << decl;
    ASSERT_EQ(ExceptionCount(), 1u) << decl;
    const char *trimmed = decl + std::strspn(decl, " \t\n\v\f\r");
    EXPECT_EQ(std::string(ExceptionText(0)), "option parse error " + std::string(trimmed));
  }
};

std::string Name(const OptionSpec &s) { return std::string(s.name ? s.name : "", s.name_length); }
std::string EnvName(const OptionSpec &s) { return std::string(s.env_name ? s.env_name : "", s.env_length); }

template <class T> T Bound(const OptionSpec &s, int which) {
  T v;
  std::memcpy(&v, s.range + which * sizeof(T), sizeof v);
  return v;
}

TEST_F(Grammar, SwitchAndProgramOptions) {
  OptionSpec h = Read("[ h ]");
  EXPECT_EQ(Name(h), "h");
  EXPECT_EQ(h.type, OptionTypeSwitch);
  EXPECT_EQ(h.flags, OptionFlagOptional);
  EXPECT_EQ(h.min_count, 1u);
  EXPECT_EQ(h.max_count, 1u);
  EXPECT_EQ(h.env_length, 0u);
  EXPECT_STREQ(h.prefix, "");

  OptionSpec req = Read("h");
  EXPECT_EQ(req.flags & OptionFlagOptional, 0u);

  OptionSpec seed = Read("[ seed <> Size ]");
  EXPECT_EQ(Name(seed), "seed");
  EXPECT_EQ(seed.type, OptionTypeSize);
  EXPECT_EQ(seed.flags, OptionFlagOptional | OptionFlagEnv);
  EXPECT_EQ(EnvName(seed), "seed");
  EXPECT_STREQ(seed.env_program, "zvcompute");
  EXPECT_EQ(seed.min_count, 1u);
  EXPECT_EQ(seed.max_count, 1u);
  EXPECT_EQ(seed.parse, &StringParseUint64);
  EXPECT_EQ(Bound<uint64_t>(seed, 0), 0u);
  EXPECT_EQ(Bound<uint64_t>(seed, 1), UINT64_MAX);

  OptionSpec fmt = Read("[ fmt   <> String ]");
  EXPECT_EQ(Name(fmt), "fmt");
  EXPECT_EQ(fmt.type, OptionTypeString);
  EXPECT_EQ(fmt.parse, nullptr);
}

TEST_F(Grammar, NamesUseLettersAndExtraCharacters) {
  EXPECT_EQ(Name(Read("[ my_opt-2 ]")), "my_opt-2");
  // White space of every kind between elements.
  OptionSpec s = Read("\t[\nx\v3\fReal\r]\n");
  EXPECT_EQ(Name(s), "x");
  EXPECT_EQ(s.min_count, 3u);
  // ARG is nameless; a longer word is an ordinary name.
  OptionSpec arg = Read("ARG 2 Size");
  EXPECT_EQ(arg.name_length, 0u);
  EXPECT_EQ(arg.min_count, 2u);
  EXPECT_EQ(Name(Read("ARGS")), "ARGS");
}

TEST_F(Grammar, EnvironmentMarkers) {
  OptionSpec a = Read("[ x <_*> Size ]");
  EXPECT_EQ(a.flags & OptionFlagEnv, 0u);
  EXPECT_STREQ(a.env_program, "zvcompute");
  EXPECT_EQ(EnvName(a), "x");

  OptionSpec b = Read("[ x <*> Size ]");
  EXPECT_EQ(b.flags & OptionFlagEnv, OptionFlagEnv);
  EXPECT_EQ(b.env_program, nullptr);
  EXPECT_EQ(EnvName(b), "x");

  OptionSpec c = Read("[ x < _ other > Size ]");
  EXPECT_EQ(c.flags & OptionFlagEnv, 0u);
  EXPECT_STREQ(c.env_program, "zvcompute");
  EXPECT_EQ(EnvName(c), "other");

  OptionSpec d = Read("[ x <alt> Size ]");
  EXPECT_EQ(d.flags & OptionFlagEnv, OptionFlagEnv);
  EXPECT_EQ(d.env_program, nullptr);
  EXPECT_EQ(EnvName(d), "alt");

  Main = nullptr;
  EXPECT_EQ(Read("[ x <> Size ]").env_program, nullptr);

  Fails("[ x <_> Size ]");
  Fails("[ x <+> Size ]");
  Fails("[ x <* Size ]");
  Fails("[ x <a b> Size ]");
  Fails("[ ARG <> Size ]");  // only a name can have a marker
}

TEST_F(Grammar, Separators) {
  OptionSpec eq = Read("[ name= String ]");
  EXPECT_EQ(eq.sep_ident, '=');
  EXPECT_EQ(eq.sep_value, ',');
  OptionSpec colon = Read("[ p : 2 Real ]");
  EXPECT_EQ(colon.sep_ident, ':');
  EXPECT_EQ(colon.sep_value, ',');
  EXPECT_EQ(colon.min_count, 2u);
  OptionSpec none = Read("[ p 2 Real ]");
  EXPECT_EQ(none.sep_ident, 0);
  EXPECT_EQ(none.sep_value, 0);

  OptionsSepIdent = ':';
  EXPECT_EQ(Read("[ p Real ]").sep_ident, ':');
  EXPECT_EQ(Read("[ p= Real ]").sep_ident, ':');
  OptionsSepIdent = '#';  // not in the table: value separator of position 0
  EXPECT_EQ(Read("[ p Real ]").sep_value, ',');
  OptionsSepValue = ';';
  EXPECT_EQ(Read("[ p Real ]").sep_value, ';');
  OptionsSepIdent = 0;
  EXPECT_EQ(Read("[ p Real ]").sep_value, ';');
}

TEST_F(Grammar, CountsSquaresAndFixedCounts) {
  OptionSpec s = Read("[ x 2:5 Real ]");
  EXPECT_EQ(s.min_count, 2u);
  EXPECT_EQ(s.max_count, 5u);
  s = Read("[ x 2: Real ]");
  EXPECT_EQ(s.min_count, 2u);
  EXPECT_EQ(s.max_count, UINT64_MAX);
  s = Read("[ x = :4 Real ]");  // separator first, then a range with only an upper bound
  EXPECT_EQ(s.sep_ident, '=');
  EXPECT_EQ(s.min_count, 1u);
  EXPECT_EQ(s.max_count, 4u);
  s = Read("[ m 1:16 * Size ]");
  EXPECT_EQ(s.flags & OptionFlagSquare, OptionFlagSquare);
  s = Read("[ m 1:9 =3 Size ]");
  EXPECT_EQ(s.fixed_count, 3u);
  EXPECT_EQ(s.min_count, 1u);
  EXPECT_EQ(s.max_count, 9u);
  // A typed option without a count takes exactly one value, whatever the square flag says.
  s = Read("[ m * Size ]");
  EXPECT_EQ(s.min_count, 1u);
  EXPECT_EQ(s.max_count, 1u);
  Fails("[ h 2 ]");
  Fails("[ h 1 Switch ]");
  Fails("[ x 2:-1 Size ]");
  Fails("[ x = Size ]junk");
  Fails("[ x 1:3 =z Size ]");
}

TEST_F(Grammar, PrefixCountReplacesRangeThatHoldsIt) {
  OptionPrefix inside{"in", 4};
  OptionSpec s = Read("[ x 2:8 Real ]", &inside);
  EXPECT_STREQ(s.prefix, "in");
  EXPECT_EQ(s.min_count, 4u);
  EXPECT_EQ(s.max_count, 4u);
  OptionPrefix outside{nullptr, 9};
  s = Read("[ x 2:8 Real ]", &outside);
  EXPECT_STREQ(s.prefix, "");
  EXPECT_EQ(s.min_count, 2u);
  EXPECT_EQ(s.max_count, 8u);
  // Without a declared range the option still takes one value.
  s = Read("[ x Real ]", &inside);
  EXPECT_EQ(s.max_count, 1u);
}

TEST_F(Grammar, TypeModifiersAndRanges) {
  OptionSpec s = Read("[ x Real 0:1 ]");
  EXPECT_EQ(s.flags & OptionFlagRange, OptionFlagRange);
  EXPECT_EQ(Bound<float>(s, 0), 0.0f);
  EXPECT_EQ(Bound<float>(s, 1), 1.0f);
  s = Read("[ x Real ]");
  EXPECT_EQ(s.flags & OptionFlagRange, 0u);
  EXPECT_EQ(Bound<float>(s, 0), -FLT_MAX);
  EXPECT_EQ(Bound<float>(s, 1), FLT_MAX);
  s = Read("[ x Coord -2.5: ]");
  EXPECT_EQ(Bound<double>(s, 0), -2.5);
  EXPECT_EQ(Bound<double>(s, 1), DBL_MAX);
  s = Read("[ x 3 Index + <= -5:5 ]");
  EXPECT_EQ(s.flags & (OptionFlagPositive | OptionFlagNonDecreasing), OptionFlagPositive | OptionFlagNonDecreasing);
  EXPECT_EQ(Bound<int64_t>(s, 0), -5);
  EXPECT_EQ(Bound<int64_t>(s, 1), 5);
  s = Read("[ x 3 Offset < ]");
  EXPECT_EQ(s.flags & OptionFlagNonDecreasing, OptionFlagIncreasing);
  EXPECT_EQ(Bound<int64_t>(s, 0), INT64_MIN);
  s = Read("[ x Size 7 ]");  // a single number is both bounds
  EXPECT_EQ(Bound<uint64_t>(s, 0), 7u);
  EXPECT_EQ(Bound<uint64_t>(s, 1), 7u);
  // Types without a default range take no value range.
  Fails("[ x Complex 0:1 ]");
  Fails("[ x Bool 0:1 ]");
  Fails("[ x Size 99999999999999999999 ]");
}

TEST_F(Grammar, TypeKeywordsAreExactWords) {
  const char *names[] = {"Switch", "String", "Keyword", "Bool", "Index", "Size", "Offset", "Coord", "Real", "Complex"};
  for (uint64_t i = 1; i < 10; ++i) {
    std::string decl = std::string("[ x ") + names[i] + " ]";
    EXPECT_EQ(Read(decl.c_str()).type, i) << decl;
  }
  Fails("[ x size ]");
  Fails("[ x Sizes ]");
  Fails("[ x Siz ]");
}

TEST_F(Grammar, ClosingBracketAndTrailingText) {
  Fails("[ h ] x");
  Fails("[ h ]]");
  Fails("  h ]");  // a required declaration has no closing bracket; the report starts at the text
  Fails("[ 5 Real ]");
  Fails("[ ]");
  Fails("");
  Read("[ h ]   \n");
  Read("[ h");
}

// -- word parsers ------------------------------------------------------------------------------

TEST(WordParsers, Bool) {
  struct Case {
    const char *text;
    unsigned char value;
    size_t used;
  } cases[] = {{"1", 1, 1}, {"0", 0, 1},   {"TRUE", 1, 4}, {"false,", 0, 5}, {"Yes", 1, 3},
               {"no", 0, 2}, {"On", 1, 2}, {"off x", 0, 3}, {"t", 1, 1},      {"N", 0, 1}};
  for (const Case &c : cases) {
    unsigned char v = 7;
    const char *e;
    EXPECT_EQ(StringParseBool(c.text, &e, &v, 0), 0u) << c.text;
    EXPECT_EQ(v, c.value) << c.text;
    EXPECT_EQ(static_cast<size_t>(e - c.text), c.used) << c.text;
  }
  for (const char *bad : {"", "2", "10", "yess", " yes", "maybe"}) {
    unsigned char v = 7;
    const char *e = nullptr;
    EXPECT_EQ(StringParseBool(bad, &e, &v, 0), E_PARSE_NOVALUE) << bad;
    EXPECT_EQ(e, bad);
    EXPECT_EQ(v, 7);
  }
}

TEST(WordParsers, Ident) {
  const char *e;
  uint64_t n = 0;
  const char *t = "fmt_in-2 rest";
  EXPECT_EQ(StringParseIdent(t, &e, &n, "_-0123456789"), 0u);
  EXPECT_EQ(n, 8u);
  EXPECT_EQ(e, t + 8);
  EXPECT_EQ(StringParseIdent("ab-c", &e, &n, nullptr), 0u);
  EXPECT_EQ(n, 2u);
  const char *digit = "2x";
  EXPECT_EQ(StringParseIdent(digit, &e, &n, "0123456789"), E_PARSE_NOVALUE);
  EXPECT_EQ(e, digit);
  EXPECT_EQ(StringParseIdent(" x", &e, &n, ""), E_PARSE_NOVALUE);
  EXPECT_EQ(StringParseIdent("_x", &e, &n, "_"), 0u);
  EXPECT_EQ(n, 2u);
}

TEST(WordParsers, String) {
  const char *e, *v = nullptr;
  const char *t = "abc,def";
  EXPECT_EQ(StringParseString(t, &e, &v, ','), 0u);
  EXPECT_EQ(v, t);
  EXPECT_EQ(e, t + 3);
  EXPECT_EQ(StringParseString(t, &e, &v, 0), 0u);
  EXPECT_EQ(e, t + 7);
  EXPECT_EQ(StringParseString(",x", &e, &v, ','), E_PARSE_NOVALUE);
  EXPECT_EQ(StringParseString("", &e, &v, 0), E_PARSE_NOVALUE);
}

TEST(WordParsers, KeywordCase) {
  const char *const table[] = {"fast", "faster", "slow", "Slow2", nullptr};
  const char *e;
  uint64_t i = 99;
  const char *t = "faster]";
  EXPECT_EQ(StringParseKeywordCase(t, &e, &i, table, 0), 0u);  // longest whole match
  EXPECT_EQ(i, 1u);
  EXPECT_EQ(e, t + 6);
  EXPECT_EQ(StringParseKeywordCase("fast ", &e, &i, table, 0), 0u);
  EXPECT_EQ(i, 0u);
  EXPECT_EQ(StringParseKeywordCase("FAST", &e, &i, table, 0), E_PARSE_NOVALUE);
  EXPECT_EQ(StringParseKeywordCase("fas", &e, &i, table, 0), E_PARSE_NOVALUE);
  EXPECT_EQ(StringParseKeywordCase("slowly", &e, &i, table, 0), E_PARSE_NOVALUE);
  // Any case and unique abbreviations.
  EXPECT_EQ(StringParseKeywordCase("FAST", &e, &i, table, StringParseKeywordAnycase), 0u);
  EXPECT_EQ(i, 0u);
  EXPECT_EQ(StringParseKeywordCase("sLOW2", &e, &i, table, StringParseKeywordAnycase), 0u);
  EXPECT_EQ(i, 3u);
  EXPECT_EQ(StringParseKeywordCase("faste", &e, &i, table, StringParseKeywordAnycase), 0u);
  EXPECT_EQ(i, 1u);
  const char *amb = "fa";
  EXPECT_EQ(StringParseKeywordCase(amb, &e, &i, table, StringParseKeywordAnycase), E_PARSE_NOVALUE);
  EXPECT_EQ(e, amb);
  EXPECT_EQ(StringParseKeywordCase("x", &e, &i, table, StringParseKeywordAnycase), E_PARSE_NOVALUE);
}

TEST(WordParsers, Range) {
  const char *e;
  uint64_t r[2] = {1, UINT64_MAX};
  const char *t = "3 rest";
  EXPECT_EQ(StringParseRange(t, &e, r, StringParseUint64, 8), 0u);
  EXPECT_EQ(r[0], 3u);
  EXPECT_EQ(r[1], 3u);
  EXPECT_EQ(e, t + 1);
  r[0] = 1, r[1] = UINT64_MAX;
  EXPECT_EQ(StringParseRange("4:", &e, r, StringParseUint64, 8), 0u);
  EXPECT_EQ(r[0], 4u);
  EXPECT_EQ(r[1], UINT64_MAX);
  r[0] = 1;
  EXPECT_EQ(StringParseRange(":6", &e, r, StringParseUint64, 8), 0u);
  EXPECT_EQ(r[0], 1u);
  EXPECT_EQ(r[1], 6u);
  int64_t s[2] = {0, 0};
  EXPECT_EQ(StringParseRange("-5:-1", &e, s, StringParseInt64, 8), 0u);
  EXPECT_EQ(s[0], -5);
  EXPECT_EQ(s[1], -1);
  float f[2] = {0, 0};
  EXPECT_EQ(StringParseRange("0.5:1e3", &e, f, StringParseReal32, 4), 0u);
  EXPECT_EQ(f[0], 0.5f);
  EXPECT_EQ(f[1], 1000.0f);
  // Nothing there: bounds untouched, end at the start.
  r[0] = 1, r[1] = 2;
  const char *none = ": x";
  EXPECT_EQ(StringParseRange(none, &e, r, StringParseUint64, 8), E_PARSE_NOVALUE);
  EXPECT_EQ(e, none);
  EXPECT_EQ(r[0], 1u);
  EXPECT_EQ(r[1], 2u);
  // A bound out of the type's range is passed on and leaves both bounds as they were.
  EXPECT_EQ(StringParseRange("1:-1", &e, r, StringParseUint64, 8), E_PARSE_RANGE);
  EXPECT_EQ(r[0], 1u);
  EXPECT_EQ(r[1], 2u);
}

}  // namespace
