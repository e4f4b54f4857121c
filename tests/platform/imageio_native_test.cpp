// The image-file library core with the native format: round trips, the deletion mark and its
// temporary file, block access rules, capabilities, format choice and hostile files.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>

#include "imageio_helpers.h"

namespace {

using Dims = std::vector<uint64_t>;

const std::vector<Dims> kShapes = {{7}, {5, 3}, {4, 3, 2}, {3, 2, 2, 3}, {0}, {4, 0, 2}, {2, 1, 1, 0}};

TEST_F(ImageioTest, NativeRoundTripEveryTypeAndShapeBothStrategies) {
  for (uint32_t caps : {0u, ImageioCapCheck("read"), ImageioCapCheck("mmap,sync")}) {
    ImageioParam param = ImageioParamDefault;
    param.caps = caps;
    for (uint32_t type : kAllTypes) {
      for (const Dims &dims : kShapes) {
        std::string path = dir / "img.dat";
        auto data = Pattern(type, Count(dims), type + static_cast<unsigned>(dims.size()));
        ASSERT_TRUE(WriteWith(path, type, dims, data.data(), param, nullptr, 0x2a)) << LastError();
        ImageDesc d{};
        ImageioHandle *h = OpenRead(path, &d, nullptr, caps);
        ASSERT_NE(h, nullptr) << LastError();
        EXPECT_EQ(d.type, type);
        EXPECT_EQ(d.attr, 0x2au);
        EXPECT_EQ(d.geom, 0u);
        ASSERT_EQ(d.dim, dims.size());
        EXPECT_EQ(Dims(d.len, d.len + d.dim), dims);
        EXPECT_EQ(ReadBlock(h, type, 0, Count(dims)), data);
        ImageioMeta meta{};
        ASSERT_EQ(ImageioGetMeta(h, &meta), 0u);
        EXPECT_STREQ(meta.format, "zv");
        EXPECT_EQ(meta.state2, 1u);
        EXPECT_EQ(ImageioClose(h), 0u);
      }
    }
  }
  EXPECT_EQ(ListDir(dir.path), std::vector<std::string>{"img.dat"});
}

TEST_F(ImageioTest, NativeFileLayout) {
  std::vector<int16_t> v = {1, -2, 3, -4, 5, -6};
  ImageioGeometry g{{1.5, 2.5, 3.5}, {-1, 0, 7}, {2, 1, 3}, 401};
  ASSERT_TRUE(WriteWith(dir / "a.zv", TypeInt16, {3, 2}, v.data(), ImageioParamDefault, &g, 10));
  std::string s = ReadFileBytes(dir / "a.zv");
  ASSERT_EQ(s.size(), 4096u + 12u);
  EXPECT_EQ(s.substr(0, 8), std::string("\x89ZVIMG\r\n"));
  EXPECT_EQ(Get32(s, 8), 1u);
  EXPECT_EQ(Get32(s, 12), TypeInt16);
  EXPECT_EQ(Get32(s, 16), 10u);
  EXPECT_EQ(Get32(s, 20), 2u);
  EXPECT_EQ(Get32(s, 24), 3u);
  EXPECT_EQ(Get32(s, 32), 2u);
  EXPECT_EQ(Get32(s, 56), 4096u);
  EXPECT_EQ(Get32(s, 64), 12u);
  EXPECT_EQ(std::memcmp(s.data() + 4096, v.data(), 12), 0);
  // Geometry comes back through the geometry word.
  ImageDesc d{};
  ImageioHandle *h = OpenRead(dir / "a.zv", &d);
  ASSERT_NE(h, nullptr);
  ASSERT_NE(d.geom, 0u);
  auto *r = reinterpret_cast<const ImageioGeometry *>(d.geom);
  EXPECT_EQ(r->voxel[2], 3.5);
  EXPECT_EQ(r->origin[0], -1.0);
  EXPECT_EQ(r->axisorder[0], 2);
  EXPECT_EQ(r->spacegroup, 401);
  // Mapped data is aligned for any element type.
  void *b = ImageioBeginRead(h, 0, 6);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(b) % 64, 0u);
  ImageioEndRead(h, 0, 6, b);
  ImageioClose(h);
}

TEST_F(ImageioTest, HistoryFollowsGeometryAndIsTrimmed) {
  std::vector<float> v = {1, 2};
  ImageioGeometry g{{1, 1, 1}, {0, 0, 0}, {1, 2, 3}, 0};
  ImageioSetHistory("first\tcommand");
  ASSERT_TRUE(WriteWith(dir / "a.zv", TypeReal32, {2}, v.data(), ImageioParamDefault, &g));
  for (int i = 0; i < 12; ++i) {
    ImageDesc d{};
    ImageioHandle *src = OpenRead(dir / "a.zv", &d);
    ASSERT_NE(src, nullptr);
    ImageioSetHistory(("step " + std::to_string(i)).c_str());
    ASSERT_TRUE(WriteWith(dir / "b.zv", TypeReal32, {2}, v.data(), ImageioParamDefault,
                          reinterpret_cast<const ImageioGeometry *>(d.geom)));
    ImageioClose(src);
    ASSERT_EQ(rename((dir / "b.zv").c_str(), (dir / "a.zv").c_str()), 0);
  }
  ImageioSetHistory("");
  std::string s = ReadFileBytes(dir / "a.zv");
  EXPECT_EQ(Get32(s, 140), 10u);
  EXPECT_EQ(s.substr(256, 6), "step 2");  // the oldest three lines were dropped
  EXPECT_EQ(s.substr(256 + 9 * 80, 7), "step 11");
  EXPECT_EQ(s.find("first"), std::string::npos);
}

TEST_F(ImageioTest, DeletionMarkAndTemporaryFile) {
  std::vector<uint8_t> v = {1, 2, 3};
  ImageioParam marked = ImageioParamDefault;
  marked.flags = ImageioFlagDel;
  Dims dims = {3};
  ImageDesc desc{1, dims.data(), 0, TypeUint8, 0};

  // Closed while marked: nothing is left, not even the temporary file.
  ImageioHandle *h = ImageioCreate((dir / "out.zv").c_str(), &desc, &marked);
  ASSERT_NE(h, nullptr);
  ImageioMeta meta{};
  ImageioGetMeta(h, &meta);
  EXPECT_EQ(meta.state, ImageioStateDel);
  EXPECT_EQ(meta.state2, 3u);
  auto names = ListDir(dir.path);
  ASSERT_EQ(names.size(), 1u);
  EXPECT_EQ(names[0].rfind(".out.zv.zvtmp-", 0), 0u) << names[0];
  EXPECT_EQ(ImageioClose(h), 0u);
  EXPECT_TRUE(ListDir(dir.path).empty());

  // An existing file stays untouched until the rename, and for good when the mark stays.
  WriteFileBytes(dir / "out.zv", "old contents");
  chmod((dir / "out.zv").c_str(), 0640);
  h = ImageioCreate((dir / "out.zv").c_str(), &desc, &marked);
  ASSERT_NE(h, nullptr);
  void *b = ImageioBeginWrite(h, 0, 3);
  std::memcpy(b, v.data(), 3);
  ImageioEndWrite(h, 0, 3, b);
  EXPECT_EQ(ReadFileBytes(dir / "out.zv"), "old contents");
  ImageioClose(h);
  EXPECT_EQ(ReadFileBytes(dir / "out.zv"), "old contents");
  EXPECT_EQ(ListDir(dir.path), std::vector<std::string>{"out.zv"});

  // Mark withdrawn: the new file replaces the old one, keeping its permissions.
  h = ImageioCreate((dir / "out.zv").c_str(), &desc, &marked);
  ASSERT_NE(h, nullptr);
  b = ImageioBeginWrite(h, 0, 3);
  std::memcpy(b, v.data(), 3);
  ImageioEndWrite(h, 0, 3, b);
  ImageioUndel(h);
  ImageioGetMeta(h, &meta);
  EXPECT_EQ(meta.state, 0u);
  EXPECT_EQ(ReadFileBytes(dir / "out.zv"), "old contents");
  EXPECT_EQ(ImageioClose(h), 0u);
  EXPECT_EQ(ListDir(dir.path), std::vector<std::string>{"out.zv"});
  EXPECT_EQ(ReadImage(dir / "out.zv").as<uint8_t>(), v);
  struct stat st;
  ASSERT_EQ(stat((dir / "out.zv").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);

  // ImageioDel marks again a created image that was not marked.
  h = ImageioCreate((dir / "other.zv").c_str(), &desc, &ImageioParamDefault);
  ASSERT_NE(h, nullptr);
  ImageioDel(h);
  ImageioClose(h);
  EXPECT_FALSE(FileExists(dir / "other.zv"));
}

TEST_F(ImageioTest, DestinationThatIsAlsoTheOperand) {
  std::vector<int32_t> v = {10, 20, 30, 40};
  WriteImage(dir / "x.zv", TypeInt32, {4}, v);
  for (uint32_t caps : {0u, ImageioCapCheck("read")}) {
    ImageDesc in{};
    ImageioHandle *src = OpenRead(dir / "x.zv", &in, nullptr, caps);
    ASSERT_NE(src, nullptr);
    ImageioParam p = ImageioParamDefault;
    p.flags = ImageioFlagDel;
    p.caps = caps;
    ImageioHandle *dst = ImageioCreate((dir / "x.zv").c_str(), &in, &p);
    ASSERT_NE(dst, nullptr) << LastError();
    for (uint64_t first = 0; first < 4; first += 2) {
      auto *o = static_cast<int32_t *>(ImageioBeginWrite(dst, first, 2));
      auto *i = static_cast<const int32_t *>(ImageioBeginRead(src, first, 2));
      ASSERT_TRUE(o && i);
      for (int k = 0; k < 2; ++k) o[k] = i[k] + 1;
      ImageioEndRead(src, first, 2, const_cast<int32_t *>(i));
      ASSERT_EQ(ImageioEndWrite(dst, first, 2, o), 0u);
    }
    ImageioUndel(dst);
    EXPECT_EQ(ImageioClose(dst), 0u);
    EXPECT_EQ(ImageioClose(src), 0u);
    for (int32_t &x : v) x += 1;
    EXPECT_EQ(ReadImage(dir / "x.zv").as<int32_t>(), v);
  }
  EXPECT_EQ(ListDir(dir.path), std::vector<std::string>{"x.zv"});
}

TEST_F(ImageioTest, CreateRefusals) {
  std::vector<float> v = {1};
  Dims dims = {1};
  ImageDesc desc{1, dims.data(), 0, TypeReal32, 0};
  // A directory, a missing directory, a FIFO: refused, nothing created.
  ASSERT_EQ(mkdir((dir / "sub").c_str(), 0755), 0);
  EXPECT_EQ(ImageioCreate((dir / "sub").c_str(), &desc, &ImageioParamDefault), nullptr);
  EXPECT_EQ(ExceptionGet(1), E_IMAGEIO_CREATE);
  EXPECT_NE(LastError().find("Is a directory"), std::string::npos) << LastError();
  EXPECT_EQ(ImageioCreate((dir / "none/x.zv").c_str(), &desc, &ImageioParamDefault), nullptr);
  EXPECT_EQ(ExceptionGet(1), E_IMAGEIO_CREATE);
  EXPECT_NE(LastError().find("No such file or directory"), std::string::npos) << LastError();
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
  EXPECT_EQ(ImageioCreate((dir / "fifo").c_str(), &desc, &ImageioParamDefault), nullptr);
  EXPECT_EQ(ExceptionGet(1), E_IMAGEIO_CREATE);
  struct stat st;
  ASSERT_EQ(lstat((dir / "fifo").c_str(), &st), 0);
  EXPECT_TRUE(S_ISFIFO(st.st_mode));
  // Bad descriptions.
  desc.dim = 5;
  EXPECT_EQ(ImageioCreate((dir / "a.zv").c_str(), &desc, &ImageioParamDefault), nullptr);
  EXPECT_EQ(ExceptionGet(1), E_IMAGEIO_DIM);
  desc.dim = 0;
  EXPECT_EQ(ImageioCreate((dir / "a.zv").c_str(), &desc, &ImageioParamDefault), nullptr);
  EXPECT_EQ(ExceptionGet(1), E_IMAGEIO_DIM);
  Dims huge = {1ull << 32, 1ull << 32};
  ImageDesc big{2, huge.data(), 0, TypeReal32, 0};
  EXPECT_EQ(ImageioCreate((dir / "a.zv").c_str(), &big, &ImageioParamDefault), nullptr);
  EXPECT_EQ(ExceptionGet(1), E_IMAGEIO_SIZE);
  ImageDesc badtype{1, dims.data(), 0, 0x501002, 0};
  EXPECT_EQ(ImageioCreate((dir / "a.zv").c_str(), &badtype, &ImageioParamDefault), nullptr);
  EXPECT_EQ(ExceptionGet(1), E_IMAGEIO_TYPE);
  EXPECT_EQ(ListDir(dir.path), (std::vector<std::string>{"fifo", "sub"}));
}

TEST_F(ImageioTest, SymbolicLinkDestinationReplacesTarget) {
  std::vector<uint16_t> v = {7, 8};
  ASSERT_EQ(mkdir((dir / "real").c_str(), 0755), 0);
  WriteFileBytes(dir / "real/t.zv", "x");
  ASSERT_EQ(symlink("real/t.zv", (dir / "link.zv").c_str()), 0);
  WriteImage(dir / "link.zv", TypeUint16, {2}, v);
  struct stat st;
  ASSERT_EQ(lstat((dir / "link.zv").c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  EXPECT_EQ(ReadImage(dir / "real/t.zv").as<uint16_t>(), v);
  EXPECT_EQ(ListDir(dir / "real"), std::vector<std::string>{"t.zv"});
}

TEST_F(ImageioTest, BlockAccessRules) {
  auto data = Pattern(TypeCmplx64, 10);
  WriteImage(dir / "a.zv", TypeCmplx64, {10}, data.data());
  ImageDesc d{};
  ImageioHandle *h = OpenRead(dir / "a.zv", &d);
  ASSERT_NE(h, nullptr);
  // Outside the image, including counts that overflow.
  EXPECT_EQ(ImageioBeginRead(h, 9, 2), nullptr);
  EXPECT_EQ(ExceptionGet(1), E_IMAGEIO_RANGE);
  EXPECT_NE(LastError().find("a.zv"), std::string::npos);
  EXPECT_EQ(ImageioBeginRead(h, 11, 0), nullptr);
  EXPECT_EQ(ImageioBeginRead(h, 1, UINT64_MAX), nullptr);
  EXPECT_EQ(ExceptionGet(1), E_IMAGEIO_RANGE);
  // An empty block at the end is fine and has an address.
  void *e = ImageioBeginRead(h, 10, 0);
  EXPECT_NE(e, nullptr);
  EXPECT_EQ(ImageioEndRead(h, 10, 0, e), 0u);
  // One block at a time; the end call must name the block in use.
  void *b = ImageioBeginRead(h, 2, 3);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(std::memcmp(b, data.data() + 2 * 16, 3 * 16), 0);
  EXPECT_EQ(ImageioBeginRead(h, 0, 1), nullptr);
  EXPECT_EQ(ExceptionGet(1), E_IMAGEIO);
  EXPECT_NE(ImageioEndRead(h, 2, 4, b), 0u);
  EXPECT_EQ(ImageioEndRead(h, 2, 3, b), 0u);
  EXPECT_NE(ImageioEndRead(h, 2, 3, b), 0u);
  // Reading only.
  EXPECT_EQ(ImageioBeginWrite(h, 0, 1), nullptr);
  EXPECT_EQ(ExceptionGet(1), E_IMAGEIO_WRITE);
  b = ImageioBeginRead(h, 0, 1);
  EXPECT_EQ(ImageioEndWrite(h, 0, 1, b), E_IMAGEIO_WRITE);
  EXPECT_EQ(ImageioClose(h), 0u);
  EXPECT_EQ(ReadFileBytes(dir / "a.zv").substr(4096), std::string(data.begin(), data.end()));

  // Plain reads reuse one buffer for every block.
  h = OpenRead(dir / "a.zv", &d, nullptr, ImageioCapCheck("read"));
  ASSERT_NE(h, nullptr);
  void *b1 = ImageioBeginRead(h, 0, 4);
  ImageioEndRead(h, 0, 4, b1);
  void *b2 = ImageioBeginRead(h, 4, 4);
  EXPECT_EQ(b1, b2);
  EXPECT_EQ(std::memcmp(b2, data.data() + 4 * 16, 4 * 16), 0);
  ImageioEndRead(h, 4, 4, b2);
  ImageioClose(h);
}

TEST_F(ImageioTest, ReadWriteInPlaceBothStrategies) {
  for (const char *caps : {"mmap", "read,sync"}) {
    std::vector<float> v = {1, 2, 3, 4, 5, 6};
    WriteImage(dir / "f.zv", TypeReal32, {3, 2}, v);
    ImageioParam p = ImageioParamDefault;
    p.caps = ImageioCapCheck(caps);
    ImageDesc d{};
    ImageioHandle *h = ImageioOpenReadWrite((dir / "f.zv").c_str(), &d, &p);
    ASSERT_NE(h, nullptr) << LastError();
    ImageioMeta meta{};
    ImageioGetMeta(h, &meta);
    EXPECT_EQ(meta.state2, 2u);
    auto *b = static_cast<float *>(ImageioBeginRead(h, 1, 4));
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b[0], 2.0f);
    for (int i = 0; i < 4; ++i) b[i] *= 10;
    ASSERT_EQ(ImageioEndWrite(h, 1, 4, b), 0u);
    // A write block of a read-write image starts from the stored values.
    auto *w = static_cast<float *>(ImageioBeginWrite(h, 5, 1));
    EXPECT_EQ(w[0], 6.0f);
    w[0] = -1;
    ImageioEndWrite(h, 5, 1, w);
    EXPECT_EQ(ImageioClose(h), 0u);
    EXPECT_EQ(ReadImage(dir / "f.zv").as<float>(), (std::vector<float>{1, 20, 30, 40, 50, -1})) << caps;
  }
}

TEST_F(ImageioTest, CapabilityTexts) {
  EXPECT_NE(ImageioCapCheck("mmap"), 0u);
  EXPECT_NE(ImageioCapCheck("mmap"), ImageioCapCheck("read"));
  EXPECT_NE(ImageioCapCheck("read"), 0u);
  EXPECT_NE(ImageioCapCheck("sync"), 0u);
  EXPECT_NE(ImageioCapCheck("mmap,sync"), ImageioCapCheck("mmap"));
  EXPECT_EQ(ImageioCapCheck("read,sync"), ImageioCapCheck("sync,read"));
  for (const char *bad : {"", "fast", "mmap,read", "mmap,", ",sync", "MMAP", "mmap sync"})
    EXPECT_EQ(ImageioCapCheck(bad), 0u) << bad;
  EXPECT_EQ(ImageioCapCheck(nullptr), 0u);
}

TEST_F(ImageioTest, FormatNamesAndChoice) {
  for (const char *ok : {"zv", "mrc", "npy"}) EXPECT_EQ(ImageioFormatCheck(ok), 0u) << ok;
  for (const char *bad : {"MRC", "tiff", "", "zv "}) EXPECT_EQ(ImageioFormatCheck(bad), E_IMAGEIO_FORMAT) << bad;
  EXPECT_EQ(ImageioFormatCheck(nullptr), E_IMAGEIO_FORMAT);
  ExceptionPush(E_IMAGEIO_FORMAT);
  EXPECT_NE(LastError().find("zv, mrc, npy"), std::string::npos) << LastError();
  ExceptionClear();

  std::vector<int16_t> v = {1, 2};
  struct Case {
    const char *name;
    const char *format;
    const char *expect;
  } cases[] = {{"a.MRC", nullptr, "mrc"}, {"b.mrcs", nullptr, "mrc"}, {"c.map", nullptr, "mrc"},
               {"d.rec", nullptr, "mrc"}, {"e.st", nullptr, "mrc"},    {"f.ali", nullptr, "mrc"},
               {"g.ccp4", nullptr, "mrc"}, {"h.npy", nullptr, "npy"},  {"i.Npy", nullptr, "npy"},
               {"j.img", nullptr, "zv"},  {"k", nullptr, "zv"},        {"l.npy", "zv", "zv"},
               {"m.zv", "mrc", "mrc"}};
  for (const Case &c : cases) {
    WriteImage(dir / c.name, TypeInt16, {2}, v, 0, c.format);
    // Reading recognises the content whatever the name.
    ImageDesc d{};
    ImageioHandle *h = OpenRead(dir / c.name, &d);
    ASSERT_NE(h, nullptr) << c.name << LastError();
    ImageioMeta meta{};
    ImageioGetMeta(h, &meta);
    EXPECT_STREQ(meta.format, c.expect) << c.name;
    ImageioClose(h);
  }
  // A forced format that does not match the content.
  ExpectOpenFails(dir / "j.img", E_IMAGEIO_HEADER, "MRC", "mrc");
  ExpectOpenFails(dir / "a.MRC", E_IMAGEIO_HEADER, "not an NPY file", "npy");
  ExpectOpenFails(dir / "a.MRC", E_IMAGEIO_FORMAT, "('tiff')", "tiff");
  ImageioParam p = ImageioParamDefault;
  p.format = "tiff";
  Dims dims = {1};
  ImageDesc desc{1, dims.data(), 0, TypeInt16, 0};
  EXPECT_EQ(ImageioCreate((dir / "z").c_str(), &desc, &p), nullptr);
  EXPECT_EQ(ExceptionGet(1), E_IMAGEIO_FORMAT);
}

TEST_F(ImageioTest, HostileNativeFiles) {
  std::vector<uint32_t> v = {1, 2, 3, 4, 5, 6};
  WriteImage(dir / "good.zv", TypeUint32, {2, 3}, v);
  const std::string good = ReadFileBytes(dir / "good.zv");
  auto variant = [&](const char *name, auto change) {
    std::string s = good;
    change(s);
    WriteFileBytes(dir / name, s);
    return dir / name;
  };
  ExpectOpenFails(variant("magic", [](std::string &s) { s[1] = 'X'; }), E_IMAGEIO_FORMAT, "matches none");
  ExpectOpenFails(variant("version", [](std::string &s) { Put32(s, 8, 2); }), E_IMAGEIO_HEADER, "version 2");
  ExpectOpenFails(variant("type", [](std::string &s) { Put32(s, 12, 0x501003); }), E_IMAGEIO_HEADER,
                  "element type");
  ExpectOpenFails(variant("dim0", [](std::string &s) { Put32(s, 20, 0); }), E_IMAGEIO_DIM, "0 axes");
  ExpectOpenFails(variant("dim5", [](std::string &s) { Put32(s, 20, 5); }), E_IMAGEIO_DIM, "5 axes");
  ExpectOpenFails(variant("overflow", [](std::string &s) {
                    Put64(s, 24, 1ull << 33);
                    Put64(s, 32, 1ull << 31);
                  }),
                  E_IMAGEIO_SIZE, "overflow");
  ExpectOpenFails(variant("bytes", [](std::string &s) { Put64(s, 64, 20); }), E_IMAGEIO_HEADER, "data size");
  ExpectOpenFails(variant("bigger", [](std::string &s) {
                    Put64(s, 24, 1000);
                    Put64(s, 64, 12000);
                  }),
                  E_IMAGEIO_READ, "shorter than its header says");
  ExpectOpenFails(variant("offset", [](std::string &s) { Put64(s, 56, 100); }), E_IMAGEIO_HEADER, "data offset");
  ExpectOpenFails(variant("offsetfar", [](std::string &s) { Put64(s, 56, 1ull << 62); }), E_IMAGEIO_READ,
                  "shorter");
  ExpectOpenFails(variant("truncated", [](std::string &s) { s.pop_back(); }), E_IMAGEIO_READ, "shorter");
  ExpectOpenFails(variant("longer", [](std::string &s) { s += "zz"; }), E_IMAGEIO_HEADER, "does not match");
  ExpectOpenFails(variant("header", [](std::string &s) { s.resize(900); }), E_IMAGEIO_HEADER, "too short");
  // Not image files at all.
  ExpectOpenFails(dir / "missing.zv", E_IMAGEIO_OPEN, "No such file or directory");
  ExpectOpenFails(dir.path, E_IMAGEIO_OPEN, "Is a directory");
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
  ExpectOpenFails(dir / "fifo", E_IMAGEIO_OPEN, "not a regular file");
  ExpectOpenFails("/dev/zero", E_IMAGEIO_OPEN, "not a regular file");
  WriteFileBytes(dir / "empty", "");
  ExpectOpenFails(dir / "empty", E_IMAGEIO_HEADER, "empty file");
  WriteFileBytes(dir / "text", "just some text\n");
  ExpectOpenFails(dir / "text", E_IMAGEIO_FORMAT, "zv, mrc, npy");
}

}  // namespace
