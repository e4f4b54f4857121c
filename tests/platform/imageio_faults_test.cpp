// Files that change under the library: truncated while open (an error before the block, or a clean
// exit from the fault guard while a mapped block is in use), data at offsets that do not suit the
// element type, and the header of a file rewritten in place while the rewrite is under way.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "imageio_helpers.h"

namespace {

std::vector<float> Ramp(size_t n, float start = 0.5f) {
  std::vector<float> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = start + static_cast<float>(i);
  return v;
}

// Runs f in a child process with standard error sent to a file; returns the wait status.
template <class F>
int InChild(const std::string &err_path, F f) {
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    dup2(open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
    f();
    _exit(99);
  }
  int st = 0;
  waitpid(pid, &st, 0);
  return st;
}

TEST_F(ImageioTest, ShrunkFileIsRefusedBeforeItsBlockIsHandedOut) {
  const std::string path = dir / "s.mrc";
  for (const char *caps : {"mmap", "read"}) {
    for (bool rw : {false, true}) {
      WriteImage(path, TypeReal32, {1000}, Ramp(1000));
      ImageioParam p = Caps(caps);
      ImageDesc d{};
      ImageioHandle *h = rw ? ImageioOpenReadWrite(path.c_str(), &d, &p) : ImageioOpenReadOnly(path.c_str(), &d, &p);
      ASSERT_NE(h, nullptr) << LastError();
      EXPECT_EQ(ReadBlock(h, TypeReal32, 0, 10).size(), 40u);
      ASSERT_EQ(truncate(path.c_str(), 1024 + 400), 0);
      // The first 100 elements are still there; a block reaching past them is not handed out.
      EXPECT_EQ(ImageioBeginRead(h, 0, 200), nullptr) << caps;
      EXPECT_NE(LastError().find(path), std::string::npos) << LastError();
      ExpectError(E_IMAGEIO_READ, "shrank while in use: 5024 bytes needed, 1424 found");
      // Closing a rewritten file recomputes its statistics: the missing data is reported instead
      // of faulting, and the statistics stay marked undetermined.
      EXPECT_EQ(ImageioClose(h), rw ? E_IMAGEIO_READ : 0u) << caps;
      if (rw) {
        EXPECT_EQ(Get<float>(ReadFileBytes(path), 80), -1.0f);
      }
      ExceptionClear();
    }
  }
}

TEST_F(ImageioTest, FaultOnATruncatedMappingEndsTheProcessCleanly) {
  const std::string in = dir / "in.zv", err = dir / "err.txt";
  Dims dims = {1 << 16};
  WriteImage(in, TypeReal32, dims, Ramp(dims[0]));
  int st = InChild(err, [&] {
    ImageDesc d{}, nd{1, dims.data(), 0, TypeReal32, 0};
    ImageioHandle *h = OpenRead(in, &d, nullptr, "mmap");
    // An image under construction: the guard must remove its temporary file.
    ImageioHandle *out = ImageioCreate((dir / "new.zv").c_str(), &nd, &ImageioParamDefault);
    auto *p = h && out ? static_cast<volatile float *>(ImageioBeginRead(h, 0, dims[0])) : nullptr;
    if (!p || truncate(in.c_str(), 0) != 0) _exit(98);
    (void)p[dims[0] - 1];  // past the end of the file now
  });
  ASSERT_TRUE(WIFEXITED(st)) << "killed by signal " << (WIFSIGNALED(st) ? WTERMSIG(st) : 0);
  EXPECT_EQ(WEXITSTATUS(st), 1);
  std::string text = ReadFileBytes(err);
  EXPECT_NE(text.find(": read error (the file shrank while it was mapped): " + in + "\n"), std::string::npos) << text;
  EXPECT_EQ(ListDir(dir.path), (std::vector<std::string>{"err.txt", "in.zv"}));
  // A bus signal outside the mappings keeps its earlier action.
  st = InChild(err, [&] {
    signal(SIGBUS, SIG_DFL);
    ImageDesc d{};
    WriteImage(in, TypeReal32, {16}, Ramp(16));
    if (!OpenRead(in, &d)) _exit(98);  // installs the guard
    raise(SIGBUS);
  });
  ASSERT_TRUE(WIFSIGNALED(st));
  EXPECT_EQ(WTERMSIG(st), SIGBUS);
}

// Data at an offset that is not a multiple of the element size comes through an aligned buffer,
// in place too.
TEST_F(ImageioTest, BlocksAreAlignedForTheirElementType) {
  const std::vector<float> v = Ramp(12, -3.25f);
  WriteImage(dir / "base.mrc", TypeReal32, {4, 3}, v);
  std::string m = ReadFileBytes(dir / "base.mrc");
  Put32(m, 92, 101);  // extended header of 101 bytes
  WriteFileBytes(dir / "ext.mrc", m.insert(1024, std::string(101, 'e')));
  std::string dict = "{'descr': '<f4', 'fortran_order': False, 'shape': (3, 4) }\n";  // odd length, unpadded
  ASSERT_NE((10 + dict.size()) % 4, 0u);
  WriteFileBytes(dir / "odd.npy", std::string("\x93NUMPY\x01\x00", 8) + static_cast<char>(dict.size()) + '\0' + dict + Bytes(v));
  for (const char *name : {"ext.mrc", "odd.npy"}) {
    ImageDesc d{};
    ImageioHandle *h = OpenRead(dir / name, &d);
    ASSERT_NE(h, nullptr) << LastError();
    auto *b = static_cast<float *>(ImageioBeginRead(h, 1, 11));
    ASSERT_NE(b, nullptr) << LastError();
    EXPECT_EQ(reinterpret_cast<uintptr_t>(b) % alignof(float), 0u) << name;
    EXPECT_EQ(std::vector<float>(b, b + 11), std::vector<float>(v.begin() + 1, v.end()));
    ImageioEndRead(h, 1, 11, b);
    ImageioClose(h);
    ASSERT_EQ(Rewrite<float>(dir / name, 0, 12, [](float &x) {  // x is the buffer element
      EXPECT_EQ(reinterpret_cast<uintptr_t>(&x) % alignof(float), 0u);
      return 2 * x;
    }), 0u) << LastError();
    std::vector<float> twice = v;
    for (float &x : twice) x *= 2;
    EXPECT_EQ(ReadImage(dir / name).as<float>(), twice) << name;
  }
  EXPECT_EQ(ReadFileBytes(dir / "ext.mrc").substr(1024, 101), std::string(101, 'e'));
}

// While a file is rewritten in place its header statistics are marked undetermined on disk; the
// close puts statistics of what is stored, and records the command only after a complete rewrite.
TEST_F(ImageioTest, InPlaceHeaderWhileRewriting) {
  const std::string path = dir / "p.mrc";
  WriteImage(path, TypeReal32, {10, 10}, Ramp(100, 1.0f));
  const std::string original = ReadFileBytes(path);
  ASSERT_EQ(Get<float>(original, 80), 100.0f);
  ImageioSetHistory("zvcompute p.mrc * 2");
  for (const char *caps : {"mmap", "read,sync"}) {
    WriteFileBytes(path, original);
    ImageioParam p = Caps(caps);
    ImageDesc d{};
    ImageioHandle *h = ImageioOpenReadWrite(path.c_str(), &d, &p);
    ASSERT_NE(h, nullptr) << LastError();
    auto *b = static_cast<float *>(ImageioBeginRead(h, 0, 50));
    std::string during = ReadFileBytes(path);
    for (auto [off, want] : {std::pair{76, 0.0f}, {80, -1.0f}, {84, -2.0f}, {216, -1.0f}})  // dmin dmax dmean rms
      EXPECT_EQ(Get<float>(during, off), want) << off;
    for (int i = 0; i < 50; ++i) b[i] *= 2;
    ASSERT_EQ(ImageioEndWrite(h, 0, 50, b), 0u);
    // The run stops after the first half: statistics of the mixed data, no label for the command.
    ASSERT_EQ(ImageioClose(h), 0u) << LastError();
    std::string after = ReadFileBytes(path);
    EXPECT_TRUE(Get<float>(after, 76) == 2.0f && Get<float>(after, 80) == 100.0f) << caps;  // dmin dmax
    EXPECT_EQ(after.substr(220, 804), original.substr(220, 804));
    ASSERT_EQ(Rewrite<float>(path, 0, 100, [](float x) { return x; }, caps), 0u);  // a complete rewrite
    EXPECT_EQ(Get(ReadFileBytes(path), 220), Get(original, 220) + 1);
  }
  // The native format keeps no statistics; its history follows the same rule.
  ImageioSetHistory("");
  WriteImage(dir / "p.zv", TypeReal32, {100}, Ramp(100));
  ImageioSetHistory("zvcompute p.zv * 2");
  for (auto [blocks, lines] : {std::pair{std::vector<std::pair<uint64_t, uint64_t>>{{0, 99}}, 0u},
                               {{{60, 40}, {0, 60}}, 0u},  // every element, but out of order
                               {{{0, 60}, {60, 40}}, 1u}}) {
    ImageDesc d{};
    ImageioHandle *h = ImageioOpenReadWrite((dir / "p.zv").c_str(), &d, &ImageioParamDefault);
    for (auto [first, n] : blocks) ASSERT_EQ(ImageioEndWrite(h, first, n, ImageioBeginRead(h, first, n)), 0u);
    ASSERT_EQ(ImageioClose(h), 0u);
    EXPECT_EQ(Get(ReadFileBytes(dir / "p.zv"), 140), lines);
  }
  ImageioSetHistory("");
}

}  // namespace
