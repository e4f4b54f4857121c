// Files that change under the library: truncated while a mapped block is in use (a clean exit from
// the fault guard); data at offsets that do not suit the element type.
#include <signal.h>
#include <unistd.h>

#include "imageio_helpers.h"

namespace {

std::vector<float> Ramp(size_t n, float start = 0.5f) {
  std::vector<float> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = start + static_cast<float>(i);
  return v;
}

// Runs f in a child process; its exit status (128 + signal when killed) and standard error.
RunResult InChild(const std::function<void()> &f) {
  RunOptions o;
  o.body = f;
  Child c = Start({}, o);
  return Finish(c);
}

TEST_F(ImageioTest, FaultOnATruncatedMappingEndsTheProcessCleanly) {
  const std::string in = dir / "in.zv";
  Dims dims = {1 << 16};
  ASSERT_TRUE(WriteImage(in, TypeReal32, dims, Ramp(dims[0])));
  RunResult r = InChild([&] {
    ImageDesc d{}, nd{1, dims.data(), 0, TypeReal32, 0};
    ImageioHandle *h = OpenRead(in, &d, nullptr, "mmap");
    // An image under construction: the guard must remove its temporary file.
    ImageioHandle *out = ImageioCreate((dir / "new.zv").c_str(), &nd, &ImageioParamDefault);
    auto *p = h && out ? static_cast<volatile float *>(ImageioBeginRead(h, 0, dims[0])) : nullptr;
    if (!p || truncate(in.c_str(), 0) != 0) _exit(98);
    (void)p[dims[0] - 1];  // past the end of the file now
  });
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find(": read error (the file shrank while it was mapped): " + in + "\n"), std::string::npos) << r.err;
  EXPECT_EQ(ListDir(dir.path), (std::vector<std::string>{"in.zv"}));
  // A bus signal outside the mappings keeps its earlier action.
  r = InChild([&] {
    signal(SIGBUS, SIG_DFL);
    ImageDesc d{};
    if (!WriteImage(in, TypeReal32, {16}, Ramp(16)) || !OpenRead(in, &d, nullptr, "mmap")) _exit(98);  // installs the guard
    raise(SIGBUS);
  });
  EXPECT_EQ(r.status, 128 + SIGBUS);
}

// A mapped file that shrank is refused before a block is handed out, one of a single element too.
TEST_F(ImageioTest, ShrunkMappedFileIsRefusedBeforeItsBlock) {
  ASSERT_TRUE(WriteImage(dir / "s.zv", TypeReal32, {1000}, Ramp(1000)));
  ImageDesc d{};
  ImageioHandle *h = OpenRead(dir / "s.zv", &d, nullptr, "mmap");
  ASSERT_TRUE(h && truncate((dir / "s.zv").c_str(), 4096 + 400) == 0);
  EXPECT_EQ(ImageioBeginRead(h, 999, 1), nullptr);
  ExpectError(E_IMAGEIO_READ, "shrank while in use");
  ImageioClose(h);
}

// Data at an offset that is not a multiple of the element size comes through an aligned buffer,
// in place too.
TEST_F(ImageioTest, BlocksAreAlignedForTheirElementType) {
  const std::vector<float> v = Ramp(12, -3.25f);
  ASSERT_TRUE(WriteImage(dir / "base.mrc", TypeReal32, {4, 3}, v));
  std::string m = ReadFileBytes(dir / "base.mrc");
  Put32(m, 92, 101);  // extended header of 101 bytes
  WriteFileBytes(dir / "ext.mrc", m.insert(1024, std::string(101, 'e')));
  std::string dict = "{'descr': '<f4', 'fortran_order': False, 'shape': (3, 4) }\n";  // odd length, unpadded
  ASSERT_NE((10 + dict.size()) % 4, 0u);
  WriteFileBytes(dir / "odd.npy", std::string("\x93NUMPY\x01\x00", 8) + static_cast<char>(dict.size()) + '\0' + dict + Bytes(v));
  for (const char *name : {"ext.mrc", "odd.npy"})
    for (bool rw : {false, true}) {  // read, then rewritten in place: elements 1-11 doubled
      ImageDesc d{};
      const std::string path = dir / name;
      ImageioHandle *h = rw ? ImageioOpenReadWrite(path.c_str(), &d, &ImageioParamDefault) : OpenRead(path, &d);
      auto *b = h ? static_cast<float *>(ImageioBeginRead(h, 1, 11)) : nullptr;
      ASSERT_NE(b, nullptr) << LastError();
      EXPECT_EQ(reinterpret_cast<uintptr_t>(b) % alignof(float), 0u) << name;
      EXPECT_EQ(std::vector<float>(b, b + 11), std::vector<float>(v.begin() + 1, v.end()));
      for (int i = 0; rw && i < 11; ++i) b[i] *= 2;
      EXPECT_EQ((rw ? ImageioEndWrite : ImageioEndRead)(h, 1, 11, b) | ImageioClose(h), 0u) << LastError();
    }
  std::vector<float> twice = v;
  for (size_t i = 1; i < 12; ++i) twice[i] *= 2;
  EXPECT_TRUE(ReadImage(dir / "ext.mrc").as<float>() == twice && ReadImage(dir / "odd.npy").as<float>() == twice);
  EXPECT_EQ(ReadFileBytes(dir / "ext.mrc").substr(1024, 101), std::string(101, 'e'));
}

}  // namespace
