// The manual page, the installed program, and the progress line of long runs.
#include <gtest/gtest.h>

#include <regex>

#include "compute/compute.h"
#include "support.h"

namespace {

RunResult Shell(const std::string &cmd) {
  Child c = Start({"/bin/sh", "-c", cmd + " 2>&1"});
  return Finish(c);
}

TEST(Manual, NamesEveryOperationWordAndTypeName) {
  std::string page = ReadFileBytes(ZV_SOURCE_DIR "/docs/zvcompute.1");
  page = std::regex_replace(std::regex_replace(page, std::regex(R"(\\f[BIRP])"), ""), std::regex(R"(\\-)"), "-");
  ASSERT_FALSE(page.empty());
  for (const OperationEntry *e = OperationTable; e->name; ++e) {
    const std::string name = std::regex_replace(std::string(e->name), std::regex(R"([+*/])"), "\\$&");
    EXPECT_TRUE(std::regex_search(page, std::regex("(^|[\\s,(])" + name + "($|[\\s,)])"))) << e->name;
  }
  for (int i = 0; TypeIdentTab[i]; ++i) EXPECT_NE(page.find(TypeIdentTab[i]), std::string::npos) << TypeIdentTab[i];
  for (const char *section : {"NAME", "SYNOPSIS", "DESCRIPTION", "OPERATIONS", "TYPES", "NUMBERS", "OPTIONS",
                              "ENVIRONMENT", "FORMATS", "EXIT STATUS", "EXAMPLES", "NOTES"})
    EXPECT_NE(page.find(section), std::string::npos) << section;
}

TEST(Manual, InstallGivesAWorkingBinaryAndARenderablePage) {
  TempDir prefix;
  RunResult r = Shell("cmake --install '" ZV_BINARY_DIR "' --prefix '" + prefix.path + "'");
  ASSERT_EQ(r.status, 0) << r.out;
  r = Shell("'" + prefix.path + "/bin/zvcompute' a");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("usage: zvcompute: <file> <op>"), std::string::npos) << r.out;
  const std::string page = prefix / "share/man/man1/zvcompute.1.gz";
  ASSERT_TRUE(FileExists(page));
  if (Shell("command -v man").status != 0) GTEST_SKIP() << "man is not installed";
  r = Shell("MANWIDTH=80 man --warnings -l '" + page + "' >/dev/null");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
}

TEST(Progress, ShownOnlyAtATerminalAndCleared) {
  if (Shell("command -v script").status != 0) GTEST_SKIP() << "script is not installed";
  TempDir dir;
  const uint64_t n = 5ull << 24;  // five blocks of Gaussian noise take well over a second
  ASSERT_TRUE(WriteImage(dir / "a.img", TypeReal32, {n}, std::vector<float>(n, 0.0f)));
  const std::string cmd = std::string("'") + ZVCOMPUTE_BIN + "' '" + (dir / "o.img") + "' = '" + (dir / "a.img") + "' +nran 1";
  // A cursor-moving terminal gets one self-updating line; a dumb one plain lines. Any line before
  // the end estimates the time left.
  for (std::string env : {"TERM=xterm", "TERM=dumb", "-u TERM"}) {
    const RunResult r = Shell("env " + env + " script -qec \"" + cmd + "\" /dev/null");
    const bool xterm = env == "TERM=xterm";
    EXPECT_TRUE(r.status == 0 && r.out.find("zvcompute: block ") != std::string::npos) << env << r.out;
    EXPECT_TRUE((r.out.find("\r\033[K") != std::string::npos) == xterm && (r.out.find('\033') == std::string::npos) != xterm) << env;
    std::smatch m;
    for (std::string rest = r.out; std::regex_search(rest, m, std::regex(R"(\d+%[^\r\n\x1b]*)")); rest = m.suffix())
      EXPECT_EQ(m.str().find(" left") != std::string::npos, m.str().find("100%") != 0) << m.str();
  }
  RunResult r = RunTool({dir / "p.img", "=", dir / "a.img", "+nran", "1"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
}

}  // namespace
