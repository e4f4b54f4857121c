// Files that change under the library: truncated while open (an error before the block, or a clean
// exit from the fault guard while a mapped block is in use), data at offsets that do not suit the
// element type, and the header of a file rewritten in place while the rewrite is under way.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "imageio_helpers.h"

namespace {

using Dims = std::vector<uint64_t>;

std::vector<float> Ramp(size_t n, float start = 0.5f) {
  std::vector<float> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = start + static_cast<float>(i);
  return v;
}

ImageioParam Caps(const char *caps) {
  ImageioParam p = ImageioParamDefault;
  p.caps = ImageioCapCheck(caps);
  return p;
}

// Runs f in a child process with standard error sent to a file; returns the wait status.
template <class F>
int InChild(const std::string &err_path, F f) {
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    int fd = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(fd, 2);
    f();
    _exit(99);
  }
  int st = 0;
  waitpid(pid, &st, 0);
  return st;
}

TEST_F(ImageioTest, ShrunkFileIsRefusedBeforeItsBlockIsHandedOut) {
  const std::vector<float> v = Ramp(1000);
  for (const char *caps : {"mmap", "read"}) {
    for (bool rw : {false, true}) {
      const std::string path = dir / "s.mrc";
      WriteImage(path, TypeReal32, {1000}, v);
      ImageioParam p = Caps(caps);
      ImageDesc d{};
      ImageioHandle *h = rw ? ImageioOpenReadWrite(path.c_str(), &d, &p) : ImageioOpenReadOnly(path.c_str(), &d, &p);
      ASSERT_NE(h, nullptr) << LastError();
      EXPECT_EQ(ReadBlock(h, TypeReal32, 0, 10).size(), 40u);
      ASSERT_EQ(truncate(path.c_str(), 1024 + 400), 0);
      ExceptionClear();
      // The first 100 elements are still there; a block reaching past them is not handed out.
      EXPECT_EQ(ImageioBeginRead(h, 0, 200), nullptr) << caps;
      EXPECT_EQ(ExceptionGet(1), E_IMAGEIO_READ);
      EXPECT_NE(LastError().find("shrank while in use: 5024 bytes needed, 1424 found"), std::string::npos)
          << LastError();
      EXPECT_NE(LastError().find(path), std::string::npos) << LastError();
      ExceptionClear();
      // Closing a file rewritten in place recomputes its statistics: the missing data is reported
      // instead of faulting, and the header keeps its statistics marked undetermined.
      uint32_t st = ImageioClose(h);
      if (rw) {
        EXPECT_EQ(st, E_IMAGEIO_READ) << caps;
        EXPECT_EQ(GetF(ReadFileBytes(path), 80), -1.0f);
      }
      ExceptionClear();
    }
  }
}

TEST_F(ImageioTest, FaultOnATruncatedMappingEndsTheProcessCleanly) {
  const std::string in = dir / "in.zv", err = dir / "err.txt";
  const Dims dims = {1 << 16};
  WriteImage(in, TypeReal32, dims, Ramp(dims[0]));
  int st = InChild(err, [&] {
    ImageDesc d{};
    ImageioHandle *h = OpenRead(in, &d);
    // An image under construction: the guard must remove its temporary file.
    ImageDesc nd{1, const_cast<uint64_t *>(dims.data()), 0, TypeReal32, 0};
    ImageioHandle *out = ImageioCreate((dir / "new.zv").c_str(), &nd, &ImageioParamDefault);
    if (!h || !out) _exit(98);
    auto *p = static_cast<volatile float *>(ImageioBeginRead(h, 0, dims[0]));
    if (!p) _exit(97);
    if (truncate(in.c_str(), 0) != 0) _exit(96);
    float x = p[dims[0] - 1];  // past the end of the file now
    (void)x;
  });
  ASSERT_TRUE(WIFEXITED(st)) << "killed by signal " << (WIFSIGNALED(st) ? WTERMSIG(st) : 0);
  EXPECT_EQ(WEXITSTATUS(st), 1);
  std::string text = ReadFileBytes(err);
  EXPECT_NE(text.find(": read error (the file shrank while it was mapped): " + in + "\n"), std::string::npos) << text;
  std::vector<std::string> left = ListDir(dir.path);
  EXPECT_EQ(left, (std::vector<std::string>{"err.txt", "in.zv"}));
}

TEST_F(ImageioTest, BusSignalOutsideTheMappingsKeepsItsEarlierAction) {
  const std::string in = dir / "in.zv";
  WriteImage(in, TypeReal32, {16}, Ramp(16));
  int st = InChild(dir / "err.txt", [&] {
    signal(SIGBUS, SIG_DFL);
    ImageDesc d{};
    if (!OpenRead(in, &d)) _exit(98);  // installs the guard
    raise(SIGBUS);
  });
  ASSERT_TRUE(WIFSIGNALED(st));
  EXPECT_EQ(WTERMSIG(st), SIGBUS);
}

// Files whose data starts at an offset that is not a multiple of the element size: blocks come
// through the buffer, aligned, in place too.
TEST_F(ImageioTest, BlocksAreAlignedForTheirElementType) {
  const std::vector<float> v = Ramp(12, -3.25f);
  WriteImage(dir / "base.mrc", TypeReal32, {4, 3}, v);
  std::string m = ReadFileBytes(dir / "base.mrc");
  Put32(m, 92, 101);  // extended header of 101 bytes
  m.insert(1024, std::string(101, 'e'));
  WriteFileBytes(dir / "ext.mrc", m);
  std::string dict = "{'descr': '<f4', 'fortran_order': False, 'shape': (3, 4) }\n";  // odd length, unpadded
  std::string npy = std::string("\x93NUMPY\x01\x00", 8);
  npy += static_cast<char>(dict.size());
  npy += '\0';
  npy += dict;
  npy.append(reinterpret_cast<const char *>(v.data()), v.size() * 4);
  ASSERT_NE((10 + dict.size()) % 4, 0u);
  WriteFileBytes(dir / "odd.npy", npy);
  for (const char *name : {"ext.mrc", "odd.npy"}) {
    ImageDesc d{};
    ImageioHandle *h = OpenRead(dir / name, &d);
    ASSERT_NE(h, nullptr) << LastError();
    void *b = ImageioBeginRead(h, 1, 11);
    ASSERT_NE(b, nullptr) << LastError();
    EXPECT_EQ(reinterpret_cast<uintptr_t>(b) % alignof(float), 0u) << name;
    EXPECT_EQ(std::vector<float>(static_cast<float *>(b), static_cast<float *>(b) + 11),
              std::vector<float>(v.begin() + 1, v.end()));
    ImageioEndRead(h, 1, 11, b);
    ImageioClose(h);
    // In place: the buffer is stored back at the odd offset.
    h = ImageioOpenReadWrite((dir / name).c_str(), &d, &ImageioParamDefault);
    ASSERT_NE(h, nullptr) << LastError();
    auto *w = static_cast<float *>(ImageioBeginRead(h, 0, 12));
    ASSERT_NE(w, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(w) % alignof(float), 0u) << name;
    for (int i = 0; i < 12; ++i) w[i] *= 2;
    ASSERT_EQ(ImageioEndWrite(h, 0, 12, w), 0u);
    ASSERT_EQ(ImageioClose(h), 0u) << LastError();
    std::vector<float> twice;
    for (float x : v) twice.push_back(2 * x);
    EXPECT_EQ(ReadImage(dir / name).as<float>(), twice) << name;
  }
  EXPECT_EQ(ReadFileBytes(dir / "ext.mrc").substr(1024, 101), std::string(101, 'e'));
}

// While a file is rewritten in place its header statistics are marked undetermined on disk; the
// close puts statistics of what is stored, and records the command only after a complete rewrite.
TEST_F(ImageioTest, InPlaceHeaderWhileRewriting) {
  const std::vector<float> v = Ramp(100, 1.0f);
  const std::string path = dir / "p.mrc";
  WriteImage(path, TypeReal32, {10, 10}, v);
  const std::string original = ReadFileBytes(path);
  ASSERT_EQ(GetF(original, 80), 100.0f);  // dmax
  ImageioSetHistory("zvcompute p.mrc * 2");
  for (const char *caps : {"mmap", "read,sync"}) {
    WriteFileBytes(path, original);
    ImageioParam p = Caps(caps);
    ImageDesc d{};
    ImageioHandle *h = ImageioOpenReadWrite(path.c_str(), &d, &p);
    ASSERT_NE(h, nullptr) << LastError();
    auto *b = static_cast<float *>(ImageioBeginRead(h, 0, 50));
    ASSERT_NE(b, nullptr);
    std::string during = ReadFileBytes(path);
    EXPECT_EQ(GetF(during, 76), 0.0f);    // dmin
    EXPECT_EQ(GetF(during, 80), -1.0f);   // dmax
    EXPECT_EQ(GetF(during, 84), -2.0f);   // dmean
    EXPECT_EQ(GetF(during, 216), -1.0f);  // rms
    for (int i = 0; i < 50; ++i) b[i] *= 2;
    ASSERT_EQ(ImageioEndWrite(h, 0, 50, b), 0u);
    // The run stops after the first half: statistics of the mixed data, no label for the command.
    ASSERT_EQ(ImageioClose(h), 0u) << LastError();
    std::string after = ReadFileBytes(path);
    EXPECT_EQ(GetF(after, 76), 2.0f) << caps;
    EXPECT_EQ(GetF(after, 80), 100.0f);
    EXPECT_EQ(GetI32(after, 220), GetI32(original, 220));
    EXPECT_EQ(after.substr(224, 800), original.substr(224, 800));
    // A complete rewrite adds the label.
    h = ImageioOpenReadWrite(path.c_str(), &d, &p);
    b = static_cast<float *>(ImageioBeginRead(h, 0, 100));
    ASSERT_NE(b, nullptr);
    ASSERT_EQ(ImageioEndWrite(h, 0, 100, b), 0u);
    ASSERT_EQ(ImageioClose(h), 0u);
    after = ReadFileBytes(path);
    EXPECT_EQ(GetI32(after, 220), GetI32(original, 220) + 1);
  }
  // The native format keeps no statistics; its history follows the same rule.
  ImageioSetHistory("");
  WriteImage(dir / "p.zv", TypeReal32, {100}, v);
  ImageioSetHistory("zvcompute p.zv * 2");
  auto rewrite = [&](std::vector<std::pair<uint64_t, uint64_t>> blocks) {
    ImageDesc d{};
    ImageioHandle *h = ImageioOpenReadWrite((dir / "p.zv").c_str(), &d, &ImageioParamDefault);
    ASSERT_NE(h, nullptr) << LastError();
    for (auto [first, n] : blocks) {
      void *b = ImageioBeginRead(h, first, n);
      ASSERT_NE(b, nullptr);
      ASSERT_EQ(ImageioEndWrite(h, first, n, b), 0u);
    }
    ASSERT_EQ(ImageioClose(h), 0u);
  };
  rewrite({{0, 99}});
  EXPECT_EQ(Get32(ReadFileBytes(dir / "p.zv"), 140), 0u);
  rewrite({{60, 40}, {0, 60}});  // every element, but out of order
  EXPECT_EQ(Get32(ReadFileBytes(dir / "p.zv"), 140), 0u);
  rewrite({{0, 60}, {60, 40}});
  EXPECT_EQ(Get32(ReadFileBytes(dir / "p.zv"), 140), 1u);
  ImageioSetHistory("");
}

}  // namespace
