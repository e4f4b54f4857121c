// The image-file library's own rules, whatever the format: block access, and the names of
// capabilities and formats.
#include <sys/stat.h>
#include <unistd.h>

#include "imageio_helpers.h"

namespace {

TEST_F(ImageioTest, BlockAccessRules) {
  const auto data = Pattern(TypeCmplx64, 10);
  ASSERT_TRUE(WriteImage(dir / "a.zv", TypeCmplx64, {10}, data.data()));
  ImageDesc d{};
  ImageioHandle *h = OpenRead(dir / "a.zv", &d);
  ASSERT_NE(h, nullptr);
  // Outside the image, counts that overflow included; an empty block at the end has an address.
  for (auto [first, n] : {std::pair<uint64_t, uint64_t>{9, 2}, {11, 0}, {1, UINT64_MAX}}) {
    EXPECT_EQ(ImageioBeginRead(h, first, n), nullptr) << first;
    ExpectError(E_IMAGEIO_RANGE, "(elements " + std::to_string(first) + " + " + std::to_string(n) + " of 10): " + dir / "a.zv");
  }
  EXPECT_TRUE(ReadBlock(h, TypeCmplx64, 10, 0).empty());
  // One block at a time; the end call must name the block in use.
  void *b = ImageioBeginRead(h, 2, 3);
  EXPECT_TRUE(b && ImageioBeginRead(h, 0, 1) == nullptr && ImageioEndRead(h, 2, 4, b) && !ImageioEndRead(h, 2, 3, b) && ImageioEndRead(h, 2, 3, b));
  // Reading only; plain reads reuse one buffer for every block.
  EXPECT_EQ(ImageioEndWrite(h, 0, 1, ImageioBeginRead(h, 0, 1)), E_IMAGEIO_WRITE);
  EXPECT_EQ(ImageioClose(h), 0u);
  ExceptionClear();
  h = OpenRead(dir / "a.zv", &d, nullptr, "read");
  void *b1 = ImageioBeginRead(h, 0, 4);
  ImageioEndRead(h, 0, 4, b1);
  EXPECT_EQ(ReadBlock(h, TypeCmplx64, 4, 4), std::vector<unsigned char>(data.begin() + 64, data.begin() + 128));
  EXPECT_EQ(ImageioBeginRead(h, 4, 4), b1);
  ImageioEndRead(h, 4, 4, b1);
  ImageioClose(h);
}

TEST_F(ImageioTest, CapabilityAndFormatNames) {
  EXPECT_TRUE(ImageioCapCheck("mmap") != ImageioCapCheck("read") && ImageioCapCheck("mmap,sync") != ImageioCapCheck("mmap") &&
              ImageioCapCheck("read,sync") == ImageioCapCheck("sync,read") && ImageioCapCheck("sync"));
  for (const char *ok : {"deflate", "lzw,sync", "zstd"}) EXPECT_NE(ImageioCapCheck(ok), 0u) << ok;
  for (const char *bad : {"", "fast", "mmap,read", "mmap,", ",sync", "MMAP", "mmap sync", "lzw,zstd", static_cast<const char *>(nullptr)})
    EXPECT_EQ(ImageioCapCheck(bad), 0u) << (bad ? bad : "null");
  for (const char *ok : {"zv", "mrc", "npy", "tiff"}) EXPECT_EQ(ImageioFormatCheck(ok), 0u) << ok;
  for (const char *bad : {"MRC", "tif", "", "zv ", static_cast<const char *>(nullptr)})
    EXPECT_EQ(ImageioFormatCheck(bad), E_IMAGEIO_FORMAT) << (bad ? bad : "null");
  // Writing picks the format from the name unless forced ("l" and "m"); reading goes by the content.
  const std::pair<const char *, const char *> cases[] = {
      {"a.MRC", "mrc"}, {"b.mrcs", "mrc"}, {"c.map", "mrc"}, {"d.rec", "mrc"}, {"e.st", "mrc"}, {"f.ali", "mrc"},
      {"g.ccp4", "mrc"}, {"h.npy", "npy"}, {"i.Npy", "npy"}, {"j.img", "zv"}, {"k", "zv"}, {"l.npy", "zv"}, {"m.zv", "mrc"},
      {"n.tif", "tiff"}, {"o.TIFF", "tiff"}};
  for (auto [name, expect] : cases) {
    const char *forced = name[0] == 'l' ? "zv" : name[0] == 'm' ? "mrc" : nullptr;
    ASSERT_TRUE(WriteImage(dir / name, TypeInt16, {2, 1}, std::vector<int16_t>{1, 2}, Caps(nullptr, 0, forced)));
    ImageDesc d{};
    ImageioMeta meta{};
    ImageioHandle *h = OpenRead(dir / name, &d);
    ASSERT_EQ(h ? ImageioGetMeta(h, &meta) : 1u, 0u) << name << LastError();
    EXPECT_STREQ(meta.format, expect) << name;
    ImageioClose(h);
  }
  ExpectOpenFails(dir / "j.img", E_IMAGEIO_HEADER, "MRC", "mrc");
  ExpectOpenFails(dir / "a.MRC", E_IMAGEIO_HEADER, "not an NPY file", "npy");
  ExpectOpenFails(dir / "a.MRC", E_IMAGEIO_FORMAT, "('tif')", "tif");
  ExpectOpenFails(dir / "a.MRC", E_IMAGEIO_HEADER, "bad magic", "tiff");
}

}  // namespace
