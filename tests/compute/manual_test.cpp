// The manual page, the installed program, and the progress line of long runs.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <regex>

#include "compute/compute.h"
#include "support.h"

namespace {

// Runs a shell command and returns its standard output and error together.
std::string Shell(const std::string &cmd, int *status) {
  std::string out;
  FILE *f = popen((cmd + " 2>&1").c_str(), "r");
  if (!f) return out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
  *status = pclose(f);
  return out;
}

// The page's text with roff escapes for dashes and fonts removed.
std::string PageText() {
  std::string s = ReadFileBytes(ZV_SOURCE_DIR "/docs/zvcompute.1");
  s = std::regex_replace(s, std::regex(R"(\\f[BIRP])"), "");
  s = std::regex_replace(s, std::regex(R"(\\-)"), "-");
  return s;
}

TEST(Manual, NamesEveryOperationWordAndTypeName) {
  std::string page = PageText();
  ASSERT_FALSE(page.empty());
  for (const OperationEntry *e = OperationTable; e->name; ++e) {
    std::regex word("(^|[\\s,(])" + std::regex_replace(std::string(e->name), std::regex(R"([+*/])"), "\\$&") +
                    "($|[\\s,)])");
    EXPECT_TRUE(std::regex_search(page, word)) << e->name;
  }
  for (int i = 0; TypeIdentTab[i]; ++i) EXPECT_NE(page.find(TypeIdentTab[i]), std::string::npos) << TypeIdentTab[i];
  for (const char *section : {"NAME", "SYNOPSIS", "DESCRIPTION", "OPERATIONS", "TYPES", "NUMBERS", "OPTIONS",
                              "ENVIRONMENT", "FORMATS", "EXIT STATUS", "EXAMPLES", "NOTES"})
    EXPECT_NE(page.find(section), std::string::npos) << section;
}

TEST(Manual, InstallGivesAWorkingBinaryAndARenderablePage) {
  TempDir prefix;
  int st = -1;
  std::string out = Shell("cmake --install '" ZV_BINARY_DIR "' --prefix '" + prefix.path + "'", &st);
  ASSERT_EQ(st, 0) << out;
  out = Shell("'" + prefix.path + "/bin/zvcompute' a", &st);
  EXPECT_EQ(WEXITSTATUS(st), 1);
  EXPECT_NE(out.find("usage: zvcompute: <file> <op>"), std::string::npos) << out;
  std::string page = prefix.path + "/share/man/man1/zvcompute.1";
  ASSERT_TRUE(FileExists(page));
  if (system("command -v man >/dev/null 2>&1") != 0) GTEST_SKIP() << "man is not installed";
  std::string warnings = Shell("MANWIDTH=80 man --warnings -l '" + page + "' >/dev/null", &st);
  EXPECT_EQ(st, 0);
  EXPECT_EQ(warnings, "");
}

TEST(Progress, ShownOnlyAtATerminalAndCleared) {
  if (system("command -v script >/dev/null 2>&1") != 0) GTEST_SKIP() << "script is not installed";
  TempDir dir;
  const uint64_t n = 5ull << 24;  // five blocks of Gaussian noise take well over a second
  std::vector<float> zeros(n, 0.0f);
  WriteImage(dir / "a.img", TypeReal32, {n}, zeros);
  std::string cmd = std::string("'") + ZVCOMPUTE_BIN + "' '" + (dir / "o.img") + "' = '" + (dir / "a.img") + "' +nran 1";
  int st = -1;
  std::string tty = Shell("script -qec \"" + cmd + "\" /dev/null", &st);
  EXPECT_EQ(st, 0) << tty;
  EXPECT_NE(tty.find("zvcompute: block "), std::string::npos) << tty;
  EXPECT_NE(tty.find("\r\033[K"), std::string::npos);
  RunResult r = RunTool({dir / "p.img", "=", dir / "a.img", "+nran", "1"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
}

}  // namespace
