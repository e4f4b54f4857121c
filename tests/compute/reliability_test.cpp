// Nothing left behind and nothing overwritten: terminating signals, standard descriptors, the
// destination's links, names and permissions, a directory renamed mid-run, escaped messages and
// locks between concurrent runs.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "platform/core/types.h"
#include "support.h"

namespace {

// An NPY file of n real32 zeros, sparse: nothing is written but the header.
void ZeroNpy(const std::string &path, uint64_t n) {
  std::string dict = "{'descr': '<f4', 'fortran_order': False, 'shape': (" + std::to_string(n) + ",), }";
  WriteFileBytes(path, std::string("\x93NUMPY\x01\x00\x76\x00", 10) + dict + std::string(117 - dict.size(), ' ') + "\n");
  ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(128 + 4 * n)), 0);
}

float FloatAt(const std::string &path, off_t off) {
  float f = 0;
  int fd = open(path.c_str(), O_RDONLY);
  if (pread(fd, &f, 4, off) != 4) f = 0;
  close(fd);
  return f;
}

bool Await(const std::function<bool()> &ready) {
  for (int i = 0; i < 20000; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(1)))
    if (ready()) return true;
  return false;
}

class Reliability : public testing::Test {
 protected:
  TempDir dir;
  std::string P(const std::string &n) { return dir / n; }
  // A temporary file of a new image exists in d.
  std::function<bool()> TempIn(const std::string &d) {
    return [d] {
      for (const std::string &n : ListDir(d)) if (n.find(".zvtmp-") != std::string::npos) return true;
      return false;
    };
  }
};

TEST_F(Reliability, NoTemporaryFileAfterAnyTerminatingSignal) {
  ZeroNpy(P("a.npy"), 1ull << 24);
  ASSERT_EQ(RunTool({P("v.mrc"), "=", P("a.npy"), "+", "1"}).status, 0);
  const std::vector<std::string> files = ListDir(dir.path);
  const float one = 1.0f;
  struct Form { std::vector<std::string> args; bool inplace; } forms[] = {
      {{P("o.mrc"), "=", P("a.npy"), "+nran", "1"}, false},
      {{"-cap", "mmap", P("o.mrc"), "=", P("a.npy"), "+nran", "1"}, false},
      {{"-capin", "mmap", P("o.npy"), "=", P("a.npy"), "+nran", "1"}, false},
      {{P("v.mrc"), "+nran", "1"}, true}};
  for (const Form &f : forms) {
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE, SIGALRM, SIGUSR1, SIGUSR2, SIGXCPU, SIGXFSZ}) {
      if (f.inplace) {  // statistics as after a complete run, until the run marks them
        int fd = open(P("v.mrc").c_str(), O_WRONLY);
        ASSERT_EQ(pwrite(fd, &one, 4, 80), 4);
        close(fd);
      }
      pid_t pid = StartTool(f.args);
      ASSERT_TRUE(Await(f.inplace ? [&] { return FloatAt(P("v.mrc"), 80) == -1.0f; } : TempIn(dir.path)));
      kill(pid, sig);
      EXPECT_EQ(WaitTool(pid), 128 + sig) << f.args[0] << " " << strsignal(sig);
      EXPECT_EQ(ListDir(dir.path), files) << f.args[0] << " " << strsignal(sig);
      // An MRC file rewritten in place keeps its statistics marked undetermined.
      if (f.inplace) { EXPECT_EQ(FloatAt(P("v.mrc"), 76) + FloatAt(P("v.mrc"), 84) + FloatAt(P("v.mrc"), 216), -3.0f); }
    }
  }
}

// A closed standard error must not become an image's descriptor (a message would go into the
// file); a closed pipe must not end the run by SIGPIPE.
TEST_F(Reliability, DiagnosticsNeverReachAnImageNorKillTheRun) {
  ZeroNpy(P("v.npy"), 1ull << 24);
  pid_t pid = StartTool({P("v.npy"), "+nran", "1"}, [] { close(2); });
  ASSERT_TRUE(Await([&] { return FloatAt(P("v.npy"), 128) != 0.0f; }));
  char fd2[64] = {};
  EXPECT_GT(readlink(("/proc/" + std::to_string(pid) + "/fd/2").c_str(), fd2, sizeof fd2 - 1), 0);
  EXPECT_STREQ(fd2, "/dev/null");
  kill(pid, SIGKILL);
  WaitTool(pid);
  int pipe_fds[2];
  ASSERT_EQ(pipe(pipe_fds), 0);
  close(pipe_fds[0]);
  EXPECT_EQ(WaitTool(StartTool({P("o.npy"), "=", P("missing.npy"), "+", "1"}, [&] { dup2(pipe_fds[1], 2); })), 1);
  close(pipe_fds[1]);
}

TEST_F(Reliability, DestinationLinksFollowTheOwnershipRule) {
  WriteImage(P("a.img"), TypeReal32, {2}, std::vector<float>{1, 2});
  struct Kind { const char *name; std::vector<std::pair<const char *, const char *>> links; uid_t owner; int status; } kinds[] = {
      {"own chain", {{"o.img", "p.img"}, {"p.img", "t.img"}}, geteuid(), 0},
      {"another user's", {{"o.img", "t.img"}}, 65534, 1},
      {"dangling", {{"o.img", "none.img"}}, geteuid(), 1},
      {"loop", {{"o.img", "p.img"}, {"p.img", "o.img"}}, geteuid(), 1},
      {"into a missing directory", {{"o.img", "nodir/t.img"}}, geteuid(), 1}};
  for (const Kind &k : kinds) {
    for (const char *n : {"o.img", "p.img", "t.img"}) unlink(P(n).c_str());
    WriteFileBytes(P("t.img"), "old");
    for (const auto &[link, target] : k.links) ASSERT_EQ(symlink(target, P(link).c_str()), 0);
    if (lchown(P("o.img").c_str(), k.owner, static_cast<gid_t>(-1)) != 0) continue;  // not root
    const std::vector<std::string> files = ListDir(dir.path);
    EXPECT_EQ(RunTool({P("o.img"), "=", P("a.img"), "+", "1"}).status, k.status) << k.name;
    EXPECT_EQ(ListDir(dir.path), files) << k.name;  // no file or temporary file added
    struct stat st{};
    EXPECT_TRUE(lstat(P("o.img").c_str(), &st) == 0 && S_ISLNK(st.st_mode)) << k.name;
    EXPECT_EQ(ReadFileBytes(P("t.img")) == "old", k.status != 0) << k.name;
  }
}

// A 255-byte name, a path of 4090 bytes (PATH_MAX is 4096 with the terminating zero), and a
// replaced file's set-id bits.
TEST_F(Reliability, DestinationNamesAndModes) {
  WriteImage(P("a.img"), TypeReal32, {2}, std::vector<float>{1, 2});
  std::string deep = dir.path;
  while (deep.size() < 4090 - 256) deep += "/" + std::string(250, 'd');
  ASSERT_EQ(std::system(("mkdir -p " + deep).c_str()), 0);
  struct Row { std::string path; mode_t mode; } rows[] = {
      {P(std::string(255, 'n')), 0}, {deep + "/" + std::string(4089 - deep.size(), 'f'), 0}, {P("m.img"), 06755}};
  for (const Row &r : rows) {
    if (r.mode) {
      WriteFileBytes(r.path, "old");
      chmod(r.path.c_str(), r.mode);
    }
    EXPECT_EQ(RunTool({r.path, "=", P("a.img"), "+", "1"}).status, 0) << r.path.size();
    EXPECT_FALSE(TempIn(r.path.substr(0, r.path.rfind('/')))());
    struct stat st{};
    EXPECT_EQ(stat(r.path.c_str(), &st), 0);
    if (r.mode) { EXPECT_EQ(st.st_mode & 07777, 0755u); }
  }
}

TEST_F(Reliability, DirectoryRenamedDuringTheRunStillGetsTheFile) {
  ZeroNpy(P("a.npy"), 1ull << 24);
  ASSERT_EQ(mkdir(P("d").c_str(), 0755), 0);
  pid_t pid = StartTool({P("d/o.npy"), "=", P("a.npy"), "+nran", "1"});
  ASSERT_TRUE(Await(TempIn(P("d"))));
  ASSERT_EQ(rename(P("d").c_str(), P("e").c_str()), 0);
  EXPECT_EQ(WaitTool(pid), 0);
  EXPECT_EQ(ListDir(P("e")), std::vector<std::string>{"o.npy"});
}

// Messages show file names and header texts escaped, on one line; a refusal by the kernel comes
// before the destination is created (its directory is missing here).
TEST_F(Reliability, ErrorsAreOneEscapedLineAndCheapRefusalsComeFirst) {
  std::string dict = "{'descr': '<f4\n\x1b[2J', 'fortran_order': False, 'shape': (1,), }";
  WriteFileBytes(P("e.npy"), std::string("\x93NUMPY\x01\x00", 8) + char(dict.size()) + '\0' + dict + "abcd");
  WriteImage(P("c.img"), TypeCmplx64, {2}, std::vector<double>{1, 2, 3, 4});
  const std::pair<std::vector<std::string>, std::string> rows[] = {
      {{P("o.img"), "=", P("x\n\x1b[31m\\.img"), "+", "1"}, "x\\n\\x1b[31m\\\\.img: No such file"},
      {{P("o.img"), "=", P("e.npy"), "+", "1"}, "'<f4\\n\\x1b[2J'"},
      {{P("nodir/o.img"), "=", "-mean", P("c.img")}, "invalid data type for operation (cmplx64)\n"}};
  for (const auto &[args, text] : rows) {
    RunResult r = RunTool(args);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(text), std::string::npos) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  }
}

// While one run holds a file, a second run that would rewrite what the first reads or rewrites, or
// read what it rewrites, fails at once; two readers share.
TEST_F(Reliability, ConcurrentRunsOnOneFile) {
  ZeroNpy(P("a.npy"), 1ull << 24);
  const std::vector<std::string> inplace = {P("a.npy"), "+nran", "1"}, reader = {P("o.npy"), "=", P("a.npy"), "+nran", "1"};
  struct Row { std::vector<std::string> first, second; int status; } rows[] = {
      {inplace, {P("a.npy"), "-", "1"}, 1}, {inplace, {P("p.npy"), "=", "abs", P("a.npy")}, 1},
      {reader, {P("a.npy"), "-", "1"}, 1}, {reader, {P("p.npy"), "=", "abs", P("a.npy")}, 0}};
  for (const Row &r : rows) {
    pid_t pid = StartTool(r.first);
    ASSERT_TRUE(Await(r.first == inplace ? [&] { return FloatAt(P("a.npy"), 128) != 0.0f; } : TempIn(dir.path)));
    RunResult second = RunTool(r.second);
    EXPECT_EQ(second.status, r.status) << second.err;
    if (r.status) { EXPECT_NE(second.err.find("in use: another process"), std::string::npos) << second.err; }
    kill(pid, SIGTERM);
    WaitTool(pid);
    ZeroNpy(P("a.npy"), 1ull << 24);
  }
}

}  // namespace
