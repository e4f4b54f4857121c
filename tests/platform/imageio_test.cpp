// The image-file library's own rules, whatever the format: the deletion mark and its temporary file,
// block access, and the names of capabilities and formats.
#include <sys/stat.h>
#include <unistd.h>

#include "imageio_helpers.h"

namespace {

// Closed while marked, a new image leaves nothing, not even its temporary file, and an existing
// file of its name stays as it was; once the mark is withdrawn the new file replaces it at the close,
// keeping its permissions (a new name gets what the umask allows).
TEST_F(ImageioTest, DeletionMarkAndTemporaryFile) {
  const std::string out = dir / "out.zv";
  Dims dims = {3};
  ImageDesc desc{1, dims.data(), 0, TypeUint8, 0};
  auto create = [&](uint32_t flags) {  // out.zv holding 1 2 3, still open
    ImageioParam p = Caps(nullptr, flags);
    ImageioHandle *h = ImageioCreate(out.c_str(), &desc, &p);
    void *b = h ? ImageioBeginWrite(h, 0, 3) : nullptr;
    EXPECT_TRUE(b && (std::memcpy(b, "\x01\x02\x03", 3), ImageioEndWrite(h, 0, 3, b) == 0)) << LastError();
    return h;
  };
  ImageioHandle *h = create(ImageioFlagDel);
  ImageioMeta meta{};
  EXPECT_TRUE(ImageioGetMeta(h, &meta) == 0 && meta.state == ImageioStateDel && meta.state2 == 3);
  const auto names = ListDir(dir.path);
  EXPECT_TRUE(names.size() == 1 && names[0].rfind(".out.zv.zvtmp-", 0) == 0) << names[0];
  EXPECT_EQ(ImageioClose(h), 0u);
  EXPECT_TRUE(ListDir(dir.path).empty());
  h = create(0);  // ImageioDel marks an image created unmarked
  ImageioDel(h);
  ImageioClose(h);
  EXPECT_TRUE(ListDir(dir.path).empty());
  const mode_t old = umask(022);
  ImageioClose(create(0));
  umask(old);
  struct stat st;
  EXPECT_TRUE(stat(out.c_str(), &st) == 0 && (st.st_mode & 0777) == 0644) << std::oct << st.st_mode;
  WriteFileBytes(out, "old contents");
  chmod(out.c_str(), 0640);
  ImageioClose(create(ImageioFlagDel));
  EXPECT_EQ(ReadFileBytes(out), "old contents");
  h = create(ImageioFlagDel);
  ImageioUndel(h);
  EXPECT_TRUE(ImageioGetMeta(h, &meta) == 0 && meta.state == 0 && ReadFileBytes(out) == "old contents");
  EXPECT_EQ(ImageioClose(h), 0u);
  EXPECT_EQ(ListDir(dir.path), std::vector<std::string>{"out.zv"});
  EXPECT_EQ(ReadImage(out).as<uint8_t>(), (std::vector<uint8_t>{1, 2, 3}));
  EXPECT_TRUE(stat(out.c_str(), &st) == 0 && (st.st_mode & 0777) == 0640);
}

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
  for (const char *bad : {"", "fast", "mmap,read", "mmap,", ",sync", "MMAP", "mmap sync", static_cast<const char *>(nullptr)})
    EXPECT_EQ(ImageioCapCheck(bad), 0u) << (bad ? bad : "null");
  for (const char *ok : {"zv", "mrc", "npy"}) EXPECT_EQ(ImageioFormatCheck(ok), 0u) << ok;
  for (const char *bad : {"MRC", "tiff", "", "zv ", static_cast<const char *>(nullptr)})
    EXPECT_EQ(ImageioFormatCheck(bad), E_IMAGEIO_FORMAT) << (bad ? bad : "null");
  // Writing picks the format from the name unless forced ("l" and "m"); reading goes by the content.
  const std::pair<const char *, const char *> cases[] = {
      {"a.MRC", "mrc"}, {"b.mrcs", "mrc"}, {"c.map", "mrc"}, {"d.rec", "mrc"}, {"e.st", "mrc"}, {"f.ali", "mrc"},
      {"g.ccp4", "mrc"}, {"h.npy", "npy"}, {"i.Npy", "npy"}, {"j.img", "zv"}, {"k", "zv"}, {"l.npy", "zv"}, {"m.zv", "mrc"}};
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
  ExpectOpenFails(dir / "a.MRC", E_IMAGEIO_FORMAT, "('tiff')", "tiff");
}

}  // namespace
