// Faults while writing and hostile inputs: every failure ends with exit status 1 and a clear error,
// nothing appears under the destination's name, an existing file of that name is untouched, and no
// temporary file is left behind (except after a kill).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "platform/core/types.h"
#include "support.h"

namespace {

// Starts the tool with optional file-size limit; returns its pid.
pid_t Spawn(const std::vector<std::string> &args, rlim_t fsize = RLIM_INFINITY) {
  pid_t pid = fork();
  if (pid == 0) {
    int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    dup2(null, 2);
    if (fsize != RLIM_INFINITY) {
      rlimit r{fsize, fsize};
      setrlimit(RLIMIT_FSIZE, &r);
    }
    std::vector<char *> argv{const_cast<char *>(ZVCOMPUTE_BIN)};
    for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    execv(ZVCOMPUTE_BIN, argv.data());
    _exit(127);
  }
  return pid;
}

int Wait(pid_t pid) {
  int st = 0;
  waitpid(pid, &st, 0);
  return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

class Faults : public testing::Test {
 protected:
  TempDir dir;
  std::string P(const std::string &n) { return dir / n; }
  void Input(const std::string &name, uint64_t n) { WriteImage(P(name), TypeReal32, {n}, std::vector<float>(n, 1.0f)); }
};

TEST_F(Faults, FileSizeLimitFailsCleanly) {
  Input("a.img", 1 << 20);
  Input("keep.img", 16);
  std::string before = ReadFileBytes(P("keep.img"));
  EXPECT_EQ(Wait(Spawn({P("new.img"), "=", P("a.img"), "+", "1"}, 65536)), 1);
  EXPECT_EQ(Wait(Spawn({P("keep.img"), "=", P("a.img"), "+", "1"}, 65536)), 1);
  EXPECT_EQ(ReadFileBytes(P("keep.img")), before);
  EXPECT_EQ(ListDir(dir.path), (std::vector<std::string>{"a.img", "keep.img"}));
}

TEST_F(Faults, FullFilesystemFailsCleanly) {
  std::string small = P("small");
  mkdir(small.c_str(), 0755);
  if (mount("zvtest", small.c_str(), "tmpfs", 0, "size=256k") != 0) GTEST_SKIP() << "cannot mount a small filesystem here";
  Input("a.img", 1 << 20);
  RunResult r = RunTool({small + "/o.img", "=", P("a.img"), "+", "1"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("o.img"), std::string::npos) << r.err;
  EXPECT_EQ(ListDir(small), std::vector<std::string>{});
  umount(small.c_str());
}

TEST_F(Faults, DestinationDirectoryRemovedDuringTheRun) {
  const uint64_t n = 3ull << 24;  // three blocks of Gaussian noise: a few seconds
  Input("a.img", n);
  std::string sub = P("out");
  mkdir(sub.c_str(), 0755);
  pid_t pid = Spawn({sub + "/o.img", "=", P("a.img"), "+nran", "1"});
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  EXPECT_EQ(std::system(("rm -rf '" + sub + "'").c_str()), 0);
  EXPECT_EQ(Wait(pid), 1);
  EXPECT_FALSE(FileExists(sub));
}

TEST_F(Faults, KillLeavesOnlyATemporaryFile) {
  const uint64_t n = 3ull << 24;
  Input("a.img", n);
  Input("o.img", 4);
  std::string before = ReadFileBytes(P("o.img"));
  pid_t pid = Spawn({P("o.img"), "=", P("a.img"), "+nran", "1"});
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  kill(pid, SIGKILL);
  EXPECT_EQ(Wait(pid), 128 + SIGKILL);
  EXPECT_EQ(ReadFileBytes(P("o.img")), before);
  for (const std::string &name : ListDir(dir.path)) {
    if (name == "a.img" || name == "o.img") continue;
    EXPECT_EQ(name.rfind(".o.img.zvtmp-", 0), 0u) << name;  // the recognisable temporary name
  }
}

TEST_F(Faults, HostileInputsGiveAnErrorNamingTheFile) {
  std::string fifo = P("fifo.img");
  mkfifo(fifo.c_str(), 0644);
  WriteFileBytes(P("empty.img"), "");
  WriteFileBytes(P("junk.img"), std::string(5000, 'x'));
  for (std::string in : {dir.path, fifo, std::string("/dev/zero"), P("empty.img"), P("junk.img"), P("missing.img")}) {
    auto start = std::chrono::steady_clock::now();
    RunResult r = RunTool({P("o.img"), "=", in, "+", "1"});
    EXPECT_EQ(r.status, 1) << in;
    EXPECT_NE(r.err.find(in), std::string::npos) << r.err;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5)) << in;
  }
  EXPECT_FALSE(FileExists(P("o.img")));
}

TEST_F(Faults, LinksToTheDestinationGiveTheRightResult) {
  WriteImage(P("a.img"), TypeReal32, {3}, std::vector<float>{1, 2, 3});
  ASSERT_EQ(link(P("a.img").c_str(), P("hard.img").c_str()), 0);
  ASSERT_EQ(symlink("a.img", P("soft.img").c_str()), 0);
  ASSERT_EQ(RunTool({P("a.img"), "=", P("hard.img"), "*", "2"}).status, 0);
  EXPECT_EQ(ReadImage(P("a.img")).as<float>(), (std::vector<float>{2, 4, 6}));
  // Writing through the symbolic link replaces its target and keeps the link.
  ASSERT_EQ(RunTool({P("soft.img"), "=", P("a.img"), "+", P("soft.img")}).status, 0);
  EXPECT_EQ(ReadImage(P("a.img")).as<float>(), (std::vector<float>{4, 8, 12}));
  struct stat st;
  ASSERT_EQ(lstat(P("soft.img").c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  ASSERT_EQ(RunTool({P("soft.img"), "+", P("a.img")}).status, 0);  // in place, same file twice
  EXPECT_EQ(ReadImage(P("a.img")).as<float>(), (std::vector<float>{8, 16, 24}));
}

}  // namespace
