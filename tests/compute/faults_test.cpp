// Faults while writing and reading: every failure ends with exit status 1 and an error naming the
// file, nothing appears under the destination's name, an existing file of that name is untouched, and
// no temporary file is left behind (except after a kill).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <thread>

#include "support.h"

namespace {

const uint64_t kBlock = 1ull << 24;

// An NPY file of rows x n real32 zeros (an image of n x rows), sparse: no data is written.
void ZeroNpy(const std::string &path, uint64_t n, uint64_t rows = 1) {
  std::string dict = "{'descr': '<f4', 'fortran_order': False, 'shape': (" + std::to_string(rows) + ", " +
                     std::to_string(n) + "), }";
  dict.resize(117, ' ');
  WriteFileBytes(path, std::string("\x93NUMPY\x01\x00\x76\x00", 10) + dict + '\n');
  ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(128 + 4 * n * rows)), 0);
}

std::string ReadAt(const std::string &path, uint64_t off, uint64_t n) {
  std::string s(n, '\0');
  const int fd = open(path.c_str(), O_RDONLY);
  s.resize(std::max<ssize_t>(0, pread(fd, s.data(), n, static_cast<off_t>(off))));
  close(fd);
  return s;
}
float FloatAt(const std::string &path, uint64_t off) {
  float f = 0;
  const std::string b = ReadAt(path, off, 4);
  return b.size() == 4 ? (std::memcpy(&f, b.data(), 4), f) : f;
}

void Sleep(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

struct Faults : testing::Test {
  TempDir dir;
  std::string P(const std::string &n) { return dir / n; }
  void Input(const std::string &name, uint64_t n) { ASSERT_TRUE(WriteImage(P(name), TypeReal32, {n}, std::vector<float>(n, 1.0f))); }
};

TEST_F(Faults, FileSizeLimitFailsCleanly) {
  Input("a.img", 1 << 20);
  Input("keep.img", 16);
  const std::string before = ReadFileBytes(P("keep.img"));
  for (const char *out : {"new.img", "keep.img"}) {
    RunResult r = RunTool({P(out), "=", P("a.img"), "+", "1"}, {"", {}, 65536});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(P(out)), std::string::npos) << r.err;
  }
  EXPECT_EQ(ReadFileBytes(P("keep.img")), before);
  EXPECT_EQ(ListDir(dir.path), (std::vector<std::string>{"a.img", "keep.img"}));
}

// Three blocks of Gaussian noise take a few seconds: time to interfere.
TEST_F(Faults, DestinationDirectoryRemovedOrRunKilled) {
  Input("a.img", 3 * kBlock);
  mkdir(P("out").c_str(), 0755);
  Child c = Start(Tool({P("out/o.img"), "=", P("a.img"), "+nran", "1"}));
  Sleep(400);
  EXPECT_EQ(std::system(("rm -rf '" + P("out") + "'").c_str()), 0);
  EXPECT_EQ(Finish(c).status, 1);
  EXPECT_FALSE(FileExists(P("out")));
  Input("o.img", 4);
  const std::string before = ReadFileBytes(P("o.img"));
  c = Start(Tool({P("o.img"), "=", P("a.img"), "+nran", "1"}));
  Sleep(400);
  kill(c.pid, SIGKILL);
  EXPECT_EQ(Finish(c).status, 128 + SIGKILL);
  EXPECT_EQ(ReadFileBytes(P("o.img")), before);
  for (const std::string &name : ListDir(dir.path))
    EXPECT_TRUE(name == "a.img" || name == "o.img" || name.rfind(".o.img.zvtmp-", 0) == 0) << name;
}

// A replaced file keeps its permissions; a new one gets what the umask allows.
TEST_F(Faults, LinksToTheDestinationGiveTheRightResult) {
  ASSERT_TRUE(WriteImage(P("a.img"), TypeReal32, {3}, std::vector<float>{1, 2, 3}));
  ASSERT_EQ(link(P("a.img").c_str(), P("hard.img").c_str()), 0);
  ASSERT_EQ(symlink("a.img", P("soft.img").c_str()), 0);
  ASSERT_EQ(chmod(P("a.img").c_str(), 0640), 0);
  const mode_t umask_was = umask(022);
  ASSERT_EQ(RunTool({P("a.img"), "=", P("hard.img"), "*", "2"}).status, 0);
  ASSERT_EQ(RunTool({P("new.img"), "=", P("hard.img"), "*", "2"}).status, 0);
  umask(umask_was);
  struct stat st, nst;
  EXPECT_TRUE(stat(P("a.img").c_str(), &st) == 0 && (st.st_mode & 0777) == 0640 && stat(P("new.img").c_str(), &nst) == 0 &&
              (nst.st_mode & 0777) == 0644) << std::oct << st.st_mode << " " << nst.st_mode;
  EXPECT_EQ(ReadImage(P("a.img")).as<float>(), (std::vector<float>{2, 4, 6}));
  // Writing through the symbolic link replaces its target and keeps the link.
  ASSERT_EQ(RunTool({P("soft.img"), "=", P("a.img"), "+", P("soft.img")}).status, 0);
  EXPECT_EQ(ReadImage(P("a.img")).as<float>(), (std::vector<float>{4, 8, 12}));
  EXPECT_TRUE(lstat(P("soft.img").c_str(), &st) == 0 && S_ISLNK(st.st_mode));
  ASSERT_EQ(RunTool({P("soft.img"), "+", P("a.img")}).status, 0);  // in place, same file twice
  EXPECT_EQ(ReadImage(P("a.img")).as<float>(), (std::vector<float>{8, 16, 24}));
}

TEST_F(Faults, InputThatShrinksWhileReadGivesAnErrorNamingIt) {
  ZeroNpy(P("a.npy"), 3 * kBlock);
  // Mapped (the fault guard or the check before each block) and read into a buffer.
  for (const char *caps : {"mmap", "read"}) {
    ZeroNpy(P("b.npy"), 3 * kBlock);
    Child c = Start(Tool({"-capin", caps, P("o.npy"), "=", P("a.npy"), "+nran", P("b.npy")}));
    Sleep(400);
    ASSERT_EQ(truncate(P("b.npy").c_str(), 1000), 0);
    RunResult r = Finish(c);
    EXPECT_EQ(r.status, 1) << caps;
    EXPECT_NE(r.err.find("read error"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find(P("b.npy")), std::string::npos) << r.err;
    EXPECT_EQ(ListDir(dir.path), (std::vector<std::string>{"a.npy", "b.npy"})) << caps;
  }
}

// In place, a piece of block 1 fails: the elements before it hold the new values, it and the rest
// are as they were, and the MRC header statistics describe what is stored (or are marked
// undetermined after a kill). The command's label is not added.
TEST_F(Faults, InPlaceFailureAtABlock) {
  const uint64_t blocks = 4, n = blocks * kBlock;
  ZeroNpy(P("zero.npy"), kBlock, blocks);  // MRC files have two axes at least
  ASSERT_EQ(RunTool({P("amp.img"), "=", P("zero.npy"), "+", "1"}).status, 0);
  ASSERT_EQ(RunTool({P("orig.mrc"), "=", P("zero.npy"), "+", "1"}).status, 0);
  ASSERT_EQ(unlink(P("zero.npy").c_str()), 0);
  auto copy = [&](const char *from, const char *to) {
    Child c = Start({"/bin/cp", P(from), P(to)});
    ASSERT_EQ(Finish(c).status, 0);
  };
  copy("orig.mrc", "ref.mrc");
  ASSERT_EQ(RunTool({"-seed", "7", P("ref.mrc"), "+nran", P("amp.img")}).status, 0);
  const std::string header = ReadAt(P("orig.mrc"), 0, 1024);
  auto block_of = [&](const char *name, uint64_t k) { return ReadAt(P(name), 1024 + 4 * k * kBlock, 4 * kBlock); };
  const std::string one = block_of("orig.mrc", 0);
  // Runs in place and stops it once the second block has begun.
  auto interrupted = [&](const std::function<void(Child &)> &stop) {
    copy("orig.mrc", "v.mrc");
    copy("amp.img", "b.img");
    Child c = Start(Tool({"-seed", "7", "-capin", "read", P("v.mrc"), "+nran", P("b.img")}));
    for (int i = 0; i < 30000 && FloatAt(P("v.mrc"), 1024 + 4 * kBlock) == 1.0f; ++i) Sleep(2);
    stop(c);
  };
  auto stats = [&](std::vector<float> want) {
    for (size_t i = 0; i < 4; ++i) want[i] -= FloatAt(P("v.mrc"), i < 3 ? 76 + 4 * i : 216);
    return want;
  };

  // The operand shrinks while block 1 is computed: block 2 cannot be read.
  interrupted([&](Child &c) {
    ASSERT_EQ(truncate(P("b.img").c_str(), 4096), 0);
    EXPECT_EQ(Finish(c).status, 1);
  });
  uint64_t k = 0;
  while (k < blocks && block_of("v.mrc", k) == block_of("ref.mrc", k)) ++k;
  ASSERT_TRUE(k >= 1 && k < blocks) << k;
  const std::string got = block_of("v.mrc", k), want = block_of("ref.mrc", k);
  size_t f = 0;
  while (f < got.size() && got[f] == want[f]) ++f;
  f -= f % 4;
  EXPECT_TRUE(k > 1 || f > 0);
  EXPECT_EQ(got.substr(f), one.substr(f));
  for (uint64_t j = k + 1; j < blocks; ++j) EXPECT_EQ(block_of("v.mrc", j), one) << "block " << j;
  // Header statistics of the stored values, computed here in long double.
  long double mn = INFINITY, mx = -INFINITY, s1 = 0, s2 = 0;
  for (uint64_t j = 0; j < blocks; ++j) {
    const std::string b = block_of("v.mrc", j);
    for (uint64_t i = 0; i < kBlock; ++i) {
      float x;
      std::memcpy(&x, &b[4 * i], 4);
      mn = std::min<long double>(mn, x), mx = std::max<long double>(mx, x), s1 += x, s2 += (long double)x * x;
    }
  }
  const long double mean = s1 / n, rms = std::sqrt(s2 / n - mean * mean);
  const std::vector<float> d = stats({float(mn), float(mx), float(mean), float(rms)});
  EXPECT_TRUE(d[0] == 0 && d[1] == 0 && std::fabs(d[2]) < 1e-5 && std::fabs(d[3]) < 1e-4 * rms) << d[2] << " " << d[3];
  EXPECT_EQ(ReadAt(P("v.mrc"), 220, 804), header.substr(220, 804));  // labels

  // Killed while block 1 is computed: blocks after it untouched, statistics marked undetermined.
  interrupted([&](Child &c) {
    kill(c.pid, SIGKILL);
    EXPECT_EQ(Finish(c).status, 128 + SIGKILL);
  });
  EXPECT_EQ(block_of("v.mrc", 0), block_of("ref.mrc", 0));
  for (uint64_t j = 2; j < blocks; ++j) EXPECT_EQ(block_of("v.mrc", j), one) << "block " << j;
  EXPECT_EQ(stats({0, -1, -2, -1}), std::vector<float>(4, 0.0f));
  EXPECT_EQ(ReadAt(P("v.mrc"), 220, 804), header.substr(220, 804));
}

}  // namespace
