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
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
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

// A run with its standard error in a file, its time and its peak memory.
struct Measured {
  int status;
  std::string err;
  double seconds;
  long max_rss_kb;
};

Measured RunMeasured(const std::vector<std::string> &args, const std::string &err_path) {
  auto start = std::chrono::steady_clock::now();
  pid_t pid = fork();
  if (pid == 0) {
    int null = open("/dev/null", O_WRONLY);
    int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(null, 1);
    dup2(err, 2);
    std::vector<char *> argv{const_cast<char *>(ZVCOMPUTE_BIN)};
    for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    execv(ZVCOMPUTE_BIN, argv.data());
    _exit(127);
  }
  int st = 0;
  rusage ru{};
  wait4(pid, &st, 0, &ru);
  std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  return {WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st), ReadFileBytes(err_path), took.count(), ru.ru_maxrss};
}

// An NPY file of rows x n real32 zeros (an image of n x rows), sparse: no data is written.
void ZeroNpy(const std::string &path, uint64_t n, uint64_t rows = 1) {
  std::string dict = "{'descr': '<f4', 'fortran_order': False, 'shape': (" + std::to_string(rows) + ", " +
                     std::to_string(n) + "), }";
  dict.resize(117, ' ');
  dict += '\n';
  std::string head = std::string("\x93NUMPY\x01\x00", 8) + '\x76' + '\0' + dict;
  WriteFileBytes(path, head);
  ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(head.size() + 4 * n * rows)), 0);
}

// Bytes n at offset off of a file.
std::string ReadAt(const std::string &path, uint64_t off, uint64_t n) {
  std::string s(n, '\0');
  int fd = open(path.c_str(), O_RDONLY);
  ssize_t r = pread(fd, s.data(), n, static_cast<off_t>(off));
  close(fd);
  s.resize(r > 0 ? static_cast<size_t>(r) : 0);
  return s;
}

float FloatAt(const std::string &path, uint64_t off) {
  float f = 0;
  std::string b = ReadAt(path, off, 4);
  if (b.size() == 4) std::memcpy(&f, b.data(), 4);
  return f;
}

// Waits until the float at off differs from was (the run has reached that element); false after
// the limit.
bool WaitForChange(const std::string &path, uint64_t off, float was, std::chrono::seconds limit) {
  auto end = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < end) {
    if (FloatAt(path, off) != was) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return false;
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

TEST_F(Faults, HostileHeadersFailFastInLittleMemory) {
  // Valid files of each format to start from.
  WriteImage(P("good.img"), TypeUint32, {2, 3}, std::vector<uint32_t>{1, 2, 3, 4, 5, 6});
  WriteImage(P("good.mrc"), TypeReal32, {4, 2}, std::vector<float>(8, 1.0f));
  WriteImage(P("good.tif"), TypeUint16, {6, 4, 2}, std::vector<uint16_t>(48, 7));
  WriteImage(P("zeros.img"), TypeUint8, {64, 64}, std::vector<uint8_t>(4096));
  ASSERT_EQ(RunTool({"-cap", "deflate", P("zip.tif"), "=", "uint8", P("zeros.img")}).status, 0);
  const std::string zv = ReadFileBytes(P("good.img")), mrc = ReadFileBytes(P("good.mrc"));
  const std::string tif = ReadFileBytes(P("good.tif")), ziptif = ReadFileBytes(P("zip.tif"));
  // A tag of the first TIFF directory set to a LONG value; the next-directory link of the second.
  auto get = [](const std::string &s, size_t off, size_t n) { uint32_t v = 0; std::memcpy(&v, &s[off], n); return v; };
  auto tag = [&](std::string s, uint32_t t, uint32_t v) {
    uint32_t ifd = get(s, 4, 4);
    for (uint32_t i = 0; i < get(s, ifd, 2); ++i)
      if (get(s, ifd + 2 + 12 * i, 2) == t) s[ifd + 4 + 12 * i] = 4, std::memcpy(&s[ifd + 10 + 12 * i], &v, 4);
    return s;
  };
  auto loop = [&](std::string s) {
    uint32_t first = get(s, 4, 4), second = get(s, first + 2 + 12 * get(s, first, 2), 4);
    std::memcpy(&s[second + 2 + 12 * get(s, second, 2)], &first, 4);
    return s;
  };
  auto put32 = [](std::string s, size_t off, uint32_t v) { std::memcpy(&s[off], &v, 4); return s; };
  auto put64 = [](std::string s, size_t off, uint64_t v) { std::memcpy(&s[off], &v, 8); return s; };
  auto npy = [](const std::string &dict, const std::string &data, int major = 1, uint64_t hlen = 0) {
    std::string h = std::string("\x93NUMPY", 6) + static_cast<char>(major) + '\0';
    uint64_t n = hlen ? hlen : dict.size();
    for (int i = 0; i < (major == 1 ? 2 : 4); ++i) h += static_cast<char>((n >> (8 * i)) & 0xff);
    return h + dict + data;
  };
  std::string many = "(";
  for (int i = 0; i < 100000; ++i) many += "2, ";
  many += ")";
  const std::vector<std::pair<std::string, std::string>> files = {
      {"zv_count_overflow.img", put64(put64(zv, 24, 1ull << 33), 32, 1ull << 31)},
      {"zv_bytes_overflow.img", put64(put64(put32(zv, 20, 4), 40, 1ull << 32), 48, 1ull << 32)},
      {"zv_beyond_end.img", put64(put64(put64(put64(put32(zv, 20, 3), 24, 1000), 32, 1000), 40, 1000), 64, 4000000000ull)},
      {"zv_offset_huge.img", put64(zv, 56, 1ull << 62)},
      {"zv_offset_wraps.img", put64(zv, 56, ~0ull - 63)},
      {"zv_no_data.img", zv.substr(0, 4096)},
      {"mrc_count_overflow.mrc", put32(put32(put32(mrc, 0, 0x7fffffff), 4, 0x7fffffff), 8, 0x7fffffff)},
      {"mrc_beyond_end.mrc", put32(put32(mrc, 0, 0x7fffffff), 4, 1000)},
      {"mrc_negative.mrc", put32(mrc, 4, 0xfffffffe)},
      {"mrc_ext_past_end.mrc", put32(mrc, 92, 5000)},
      {"mrc_ext_huge.mrc", put32(mrc, 92, 0x7fffffff)},
      {"mrc_ext_negative.mrc", put32(mrc, 92, 0x80000000)},
      {"mrc_no_data.mrc", mrc.substr(0, 1024)},
      {"npy_huge_axis.npy", npy("{'descr': '<f4', 'fortran_order': False, 'shape': (99999999999999999999, 3), }", "")},
      {"npy_count_overflow.npy", npy("{'descr': '<c16', 'fortran_order': False, 'shape': (4294967296, 4294967296), }", "")},
      {"npy_beyond_end.npy", npy("{'descr': '<f8', 'fortran_order': False, 'shape': (1000000, 1000000), }", "abcd")},
      {"npy_negative.npy", npy("{'descr': '<f4', 'fortran_order': False, 'shape': (-1, 3), }", "")},
      {"npy_header_length_huge.npy", npy("{", "", 2, 0xffffffffu)},
      {"npy_100000_axes.npy", npy("{'descr': '<f4', 'fortran_order': False, 'shape': " + many + ", }", "")},
      {"npy_no_data.npy", npy("{'descr': '<f4', 'fortran_order': False, 'shape': (3, 4), }", "")},
      {"tiff_strip_past_end.tif", tag(tif, 273, 0xfffffff0u)},
      {"tiff_directory_loop.tif", loop(tif)},
      {"tiff_huge_pages.tif", tag(tag(ziptif, 256, 0xffffffffu), 257, 0xffffffffu)},
      {"tiff_ratio.tif", tag(tag(ziptif, 256, 1u << 20), 278, 64)},
  };
  for (const auto &[name, bytes] : files) {
    const std::string in = P(name);
    WriteFileBytes(in, bytes);
    // As an operand of a new file, and as the file of an in-place run, which must stay as it was.
    for (bool inplace : {false, true}) {
      std::vector<std::string> args = inplace ? std::vector<std::string>{in, "*", "2"}
                                              : std::vector<std::string>{P("o.img"), "=", in, "+", "1"};
      Measured m = RunMeasured(args, P("err.txt"));
      EXPECT_EQ(m.status, 1) << name;
      EXPECT_NE(m.err.find(in), std::string::npos) << name << ": " << m.err;
      EXPECT_EQ(std::count(m.err.begin(), m.err.end(), '\n'), 1) << m.err;
      EXPECT_LT(m.seconds, 5.0) << name;
      EXPECT_LT(m.max_rss_kb, 200 * 1024) << name;
      EXPECT_EQ(ReadFileBytes(in), bytes) << name;
      EXPECT_FALSE(FileExists(P("o.img"))) << name;
    }
  }
}

TEST_F(Faults, InputThatShrinksWhileReadGivesAnErrorNamingIt) {
  const uint64_t n = 3ull << 24;
  ZeroNpy(P("a.npy"), n);
  // Mapped (the fault guard or the check before each block) and read into a buffer.
  for (const char *caps : {"mmap", "read"}) {
    ZeroNpy(P("b.npy"), n);
    pid_t pid = fork();
    if (pid == 0) {
      int err = open(P("err.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      dup2(err, 2);
      execl(ZVCOMPUTE_BIN, ZVCOMPUTE_BIN, "-capin", caps, P("o.npy").c_str(), "=", P("a.npy").c_str(), "+nran",
            P("b.npy").c_str(), static_cast<char *>(nullptr));
      _exit(127);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    ASSERT_EQ(truncate(P("b.npy").c_str(), 1000), 0);
    EXPECT_EQ(Wait(pid), 1) << caps;
    std::string err = ReadFileBytes(P("err.txt"));
    EXPECT_NE(err.find("read error"), std::string::npos) << err;
    EXPECT_NE(err.find(P("b.npy")), std::string::npos) << err;
    EXPECT_EQ(ListDir(dir.path), (std::vector<std::string>{"a.npy", "b.npy", "err.txt"})) << caps;
  }
}

// In place, a piece of block 1 fails: the elements before it hold the new values, it and the rest
// are as they were, and the MRC header statistics describe what is stored (or are marked undetermined after a
// kill). The command's label is not added.
TEST_F(Faults, InPlaceFailureAtABlock) {
  const uint64_t block = 1ull << 24, blocks = 4, n = blocks * block;
  ZeroNpy(P("zero.npy"), block, blocks);  // MRC files have two axes at least
  ASSERT_EQ(RunTool({P("amp.img"), "=", P("zero.npy"), "+", "1"}).status, 0);
  ASSERT_EQ(RunTool({P("orig.mrc"), "=", P("zero.npy"), "+", "1"}).status, 0);
  ASSERT_EQ(unlink(P("zero.npy").c_str()), 0);
  ASSERT_EQ(std::system(("cp '" + P("orig.mrc") + "' '" + P("ref.mrc") + "'").c_str()), 0);
  ASSERT_EQ(RunTool({"-seed", "7", P("ref.mrc"), "+nran", P("amp.img")}).status, 0);
  const std::string header = ReadAt(P("orig.mrc"), 0, 1024);
  auto block_of = [&](const std::string &path, uint64_t k) { return ReadAt(path, 1024 + 4 * k * block, 4 * block); };
  const std::string one = block_of(P("orig.mrc"), 0);
  auto header_float = [&](const std::string &path, size_t off) { return FloatAt(path, off); };

  // Runs in place and stops it once the second block has begun; returns the exit status.
  auto interrupted = [&](const std::function<void(pid_t)> &stop) {
    ASSERT_EQ(std::system(("cp '" + P("orig.mrc") + "' '" + P("v.mrc") + "'").c_str()), 0);
    ASSERT_EQ(std::system(("cp '" + P("amp.img") + "' '" + P("b.img") + "'").c_str()), 0);
    pid_t pid = Spawn({"-seed", "7", "-capin", "read", P("v.mrc"), "+nran", P("b.img")});
    ASSERT_TRUE(WaitForChange(P("v.mrc"), 1024 + 4 * block, 1.0f, std::chrono::seconds(60)));
    stop(pid);
  };

  // The operand shrinks while block 1 is computed: block 2 cannot be read.
  interrupted([&](pid_t pid) {
    ASSERT_EQ(truncate(P("b.img").c_str(), 4096), 0);
    EXPECT_EQ(Wait(pid), 1);
  });
  // Everything before the failing piece is rewritten, nothing after it (block 1 had begun).
  uint64_t k = 0;
  while (k < blocks && block_of(P("v.mrc"), k) == block_of(P("ref.mrc"), k)) ++k;
  ASSERT_GE(k, 1u);
  ASSERT_LT(k, blocks);
  const std::string got = block_of(P("v.mrc"), k), want = block_of(P("ref.mrc"), k);
  size_t f = 0;
  while (f < got.size() && got[f] == want[f]) ++f;
  f -= f % 4;
  if (k == 1) {
    EXPECT_GT(f, 0u);
  }
  EXPECT_EQ(got.substr(f), one.substr(f));
  for (uint64_t j = k + 1; j < blocks; ++j) EXPECT_EQ(block_of(P("v.mrc"), j), one) << "block " << j;
  // Header statistics of the stored values, computed here the same way (about the first value).
  double mn = INFINITY, mx = -INFINITY, s1 = 0, s2 = 0;
  for (uint64_t j = 0; j < blocks; ++j) {
    std::string b = block_of(P("v.mrc"), j);
    const float *f = reinterpret_cast<const float *>(b.data());
    for (uint64_t i = 0; i < block; ++i) {
      double x = f[i];
      mn = std::min(mn, x);
      mx = std::max(mx, x);
      s1 += x - 1.0;
      s2 += (x - 1.0) * (x - 1.0);
    }
  }
  double mean = s1 / static_cast<double>(n), rms = std::sqrt(s2 / static_cast<double>(n) - mean * mean);
  EXPECT_EQ(header_float(P("v.mrc"), 76), static_cast<float>(mn));
  EXPECT_EQ(header_float(P("v.mrc"), 80), static_cast<float>(mx));
  EXPECT_NEAR(header_float(P("v.mrc"), 84), 1.0 + mean, 1e-5);
  EXPECT_NEAR(header_float(P("v.mrc"), 216), rms, 1e-4 * rms);
  EXPECT_EQ(ReadAt(P("v.mrc"), 220, 804), header.substr(220, 804));  // labels

  // Killed while block 1 is computed: blocks after it untouched, statistics marked undetermined.
  interrupted([&](pid_t pid) {
    kill(pid, SIGKILL);
    EXPECT_EQ(Wait(pid), 128 + SIGKILL);
  });
  EXPECT_EQ(block_of(P("v.mrc"), 0), block_of(P("ref.mrc"), 0));
  for (uint64_t j = 2; j < blocks; ++j) EXPECT_EQ(block_of(P("v.mrc"), j), one) << "block " << j;
  EXPECT_EQ(header_float(P("v.mrc"), 76), 0.0f);
  EXPECT_EQ(header_float(P("v.mrc"), 80), -1.0f);
  EXPECT_EQ(header_float(P("v.mrc"), 84), -2.0f);
  EXPECT_EQ(header_float(P("v.mrc"), 216), -1.0f);
  EXPECT_EQ(ReadAt(P("v.mrc"), 220, 804), header.substr(220, 804));
}

}  // namespace
