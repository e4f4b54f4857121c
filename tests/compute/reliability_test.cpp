// Nothing left behind and nothing overwritten: terminating signals, standard descriptors, the
// destination's links, names and permissions, escaped messages and locks between concurrent runs.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "platform/core/escape.h"
#include "platform/core/types.h"
#include "support.h"

namespace {

RunOptions Prepared(std::function<void()> prepare) {
  RunOptions o;
  o.prepare = std::move(prepare);
  return o;
}

float FloatAt(const std::string &path, off_t off) {
  float f = 0;
  int fd = open(path.c_str(), O_RDONLY);
  bool ok = pread(fd, &f, 4, off) == 4;
  close(fd);
  return ok ? f : 0;
}

bool Await(const std::function<bool()> &ready) {
  for (int i = 0; i < 20000; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(1)))
    if (ready()) return true;
  return false;
}

// A temporary file of a new image exists in d.
bool TempIn(const std::string &d) {
  for (const std::string &n : ListDir(d))
    if (n.find(".zvtmp-") != std::string::npos) return true;
  return false;
}

class Reliability : public testing::Test {
 protected:
  TempDir dir;
  std::string P(const std::string &n) { return dir / n; }
};

// Every terminating signal, in new-file runs (also into a directory renamed meanwhile) and in-place
// runs, all started with standard error closed: descriptor 2 must be /dev/null, not an image file.
TEST_F(Reliability, NoTemporaryFileAfterAnyTerminatingSignal) {
  ASSERT_TRUE(WriteImage(P("a.npy"), TypeReal32, {1u << 24}, std::vector<float>(1u << 24)));
  ASSERT_EQ(RunTool({P("v.mrc"), "=", P("a.npy"), "+", "1"}).status, 0);
  ASSERT_EQ(mkdir(P("d").c_str(), 0755), 0);
  const std::vector<std::string> files = ListDir(dir.path);
  enum Kind { kNew, kMoved, kInPlace };
  const std::pair<std::vector<std::string>, Kind> forms[] = {
      {{P("o.mrc"), "=", P("a.npy"), "+nran", "1"}, kNew}, {{"-cap", "mmap", P("o.mrc"), "=", P("a.npy"), "+nran", "1"}, kNew},
      {{"-capin", "mmap", P("o.npy"), "=", P("a.npy"), "+nran", "1"}, kNew},
      {{P("d/o.npy"), "=", P("a.npy"), "+nran", "1"}, kMoved}, {{P("v.mrc"), "+nran", "1"}, kInPlace}};
  for (const auto &[args, kind] : forms) {
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE, SIGALRM, SIGUSR1, SIGUSR2, SIGXCPU, SIGXFSZ}) {
      const float was = FloatAt(P("v.mrc"), 1024);
      Child child = Start(Tool(args), Prepared([] { close(2); }));
      const pid_t pid = child.pid;
      ASSERT_TRUE(Await([&] { return kind == kInPlace ? FloatAt(P("v.mrc"), 1024) != was : TempIn(kind == kMoved ? P("d") : dir.path); }));
      char fd2[64] = {};
      EXPECT_GT(readlink(("/proc/" + std::to_string(pid) + "/fd/2").c_str(), fd2, sizeof fd2 - 1), 0);
      EXPECT_STREQ(fd2, "/dev/null");
      if (kind == kMoved) { ASSERT_EQ(rename(P("d").c_str(), P("e").c_str()), 0); }
      kill(pid, sig);
      EXPECT_EQ(Finish(child).status, 128 + sig) << args[0] << " " << strsignal(sig);
      if (kind == kMoved) { ASSERT_EQ(rename(P("e").c_str(), P("d").c_str()), 0); }
      EXPECT_EQ(ListDir(dir.path), files) << args[0] << " " << strsignal(sig);
      EXPECT_EQ(ListDir(P("d")), std::vector<std::string>{}) << strsignal(sig);
      // An MRC file rewritten in place keeps its statistics marked undetermined.
      if (kind == kInPlace) { EXPECT_EQ(FloatAt(P("v.mrc"), 76) + FloatAt(P("v.mrc"), 84) + FloatAt(P("v.mrc"), 216), -3.0f); }
    }
  }
}

// Destination links under the ownership rule, names at the system's limits (255 bytes; 4090 of a
// PATH_MAX of 4096 with the terminating zero), and a replaced file's set-id bits.
TEST_F(Reliability, Destinations) {
  WriteImage(P("a.img"), TypeReal32, {2}, std::vector<float>{1, 2});
  std::string deep = dir.path;
  while (deep.size() < 4090 - 256) deep += "/" + std::string(250, 'd');
  ASSERT_EQ(std::system(("mkdir -p " + deep).c_str()), 0);
  auto link = [&](const char *from, const char *to, uid_t uid = geteuid()) {
    return symlink(to, P(from).c_str()) == 0 && lchown(P(from).c_str(), uid, static_cast<gid_t>(-1)) == 0;
  };
  const std::tuple<std::function<bool()>, std::string, int> rows[] = {
      {[&] { return link("o.img", "p.img") && link("p.img", "t.img"); }, P("o.img"), 0},  // own links: followed
      {[&] { return link("o.img", "t.img", 65534); }, P("o.img"), 1},                     // another user's
      {[&] { return link("o.img", "none.img"); }, P("o.img"), 1},
      {[&] { return link("o.img", "p.img") && link("p.img", "o.img"); }, P("o.img"), 1},
      {[&] { return link("o.img", "nodir/t.img"); }, P("o.img"), 1},
      {[&] { return chmod(P("t.img").c_str(), 06755) == 0 && link("o.img", "t.img"); }, P("o.img"), 0},
      {[] { return true; }, P(std::string(255, 'n')), 0},
      {[] { return true; }, deep + "/" + std::string(4089 - deep.size(), 'f'), 0}};
  for (const auto &[setup, dst, expect_status] : rows) {
    for (const char *n : {"o.img", "p.img", "t.img"}) unlink(P(n).c_str());
    WriteFileBytes(P("t.img"), "old");
    if (!setup()) continue;  // another user's link needs root
    EXPECT_EQ(RunTool({dst, "=", P("a.img"), "+", "1"}).status, expect_status) << dst;
    struct stat st{};
    EXPECT_TRUE(dst != P("o.img") || (lstat(dst.c_str(), &st) == 0 && S_ISLNK(st.st_mode))) << "link kept";
    EXPECT_EQ(ReadFileBytes(P("t.img")) == "old", expect_status != 0 || dst != P("o.img")) << dst;
    EXPECT_TRUE(stat(P("t.img").c_str(), &st) == 0 && (st.st_mode & 07000) == 0) << "set-id bits dropped";
    EXPECT_TRUE(dst == P("o.img") || FileExists(dst)) << dst.size();
    EXPECT_FALSE(TempIn(dir.path) || TempIn(deep));
  }
}

// Messages show file names and header texts escaped, on one line; a refusal by the kernel comes
// before the destination is created (its directory is missing here); a closed pipe on standard
// error leaves the exit status 1.
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
  int pipe_fds[2];
  ASSERT_EQ(pipe(pipe_fds), 0);
  close(pipe_fds[0]);
  Child child = Start(Tool(rows[0].first), Prepared([&] { dup2(pipe_fds[1], 2); }));
  EXPECT_EQ(Finish(child).status, 1);
  close(pipe_fds[1]);
}

// While one run holds a file, a second run that would rewrite what the first reads or rewrites, or
// read what it rewrites, fails at once; two readers share.
TEST_F(Reliability, ConcurrentRunsOnOneFile) {
  const std::vector<std::string> inplace = {P("a.npy"), "+nran", "1"}, reader = {P("o.npy"), "=", P("a.npy"), "+nran", "1"};
  const std::vector<std::string> rewrite = {P("a.npy"), "-", "1"}, read = {P("p.npy"), "=", "abs", P("a.npy")};
  const std::tuple<std::vector<std::string>, std::vector<std::string>, int> rows[] = {
      {inplace, rewrite, 1}, {inplace, read, 1}, {reader, rewrite, 1}, {reader, read, 0}};
  for (const auto &[first, second, status] : rows) {
    ASSERT_TRUE(WriteImage(P("a.npy"), TypeReal32, {1u << 24}, std::vector<float>(1u << 24)));
    Child child = Start(Tool(first));
    const pid_t pid = child.pid;
    ASSERT_TRUE(Await([&] { return first == inplace ? FloatAt(P("a.npy"), 128) != 0.0f : TempIn(dir.path); }));
    RunResult r = RunTool(second);
    EXPECT_EQ(r.status, status) << r.err;
    EXPECT_EQ(r.err.find("in use: another process") != std::string::npos, status != 0) << r.err;
    kill(pid, SIGTERM);
    Finish(child);
  }
}

// Texts from files and arguments as messages show them; printable UTF-8 stays.
TEST(Escape, ReportedTextsAreEscaped) {
  const std::string kept = "a b~ \xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80 \xc2\xa0\xe2\x80\xaf\xe2\x81\xaa";
  const std::pair<std::string, std::string> rows[] = {
      {kept, kept}, {"\n\t\r\\", "\\n\\t\\r\\\\"}, {"\x1b[2J\x7f\x01", "\\x1b[2J\\x7f\\x01"},
      // C1 controls, direction marks and line separators.
      {"\xc2\x80\xc2\x9f\xe2\x80\xaa\xe2\x80\xae\xe2\x81\xa6\xe2\x81\xa9\xe2\x80\xa8",
       "\\u0080\\u009f\\u202a\\u202e\\u2066\\u2069\\u2028"},
      // Not UTF-8: a stray byte, a cut sequence, overlong forms, a surrogate, past U+10FFFF.
      {"\xff\xc3", "\\xff\\xc3"}, {"\xc0\xaf\xe0\x9f\xbf", "\\xc0\\xaf\\xe0\\x9f\\xbf"},
      {"\xed\xa0\x80\xf4\x90\x80\x80", "\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80"}};
  for (const auto &[in, out] : rows) EXPECT_EQ(CoreEscape(in), out);
  // The writer of the signal handlers gives the same text, also well past its buffer.
  std::string text;
  for (int i = 0; i < 100; ++i) text += "\x1b\xc3\xa9";
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  CoreWriteEscaped(p[1], text.c_str());
  close(p[1]);
  std::string got(4096, '\0');
  got.resize(static_cast<size_t>(std::max<ssize_t>(0, read(p[0], got.data(), got.size()))));
  close(p[0]);
  EXPECT_EQ(got, CoreEscape(text));
}

}  // namespace
