// The image-file library core with the native format: round trips, the deletion mark and its
// temporary file, block access rules, capabilities, format choice and hostile files.
#include <sys/stat.h>
#include <unistd.h>

#include "imageio_helpers.h"

namespace {

TEST_F(ImageioTest, NativeRoundTripEveryTypeAndShapeBothStrategies) {
  for (const char *caps : {"mmap", "read", "mmap,sync"}) {
    for (uint32_t type : kAllTypes) {
      for (const Dims &dims : kShapes) {
        std::string path = dir / "img.dat";
        auto data = Pattern(type, Count(dims), type + static_cast<unsigned>(dims.size()));
        ASSERT_TRUE(WriteWith(path, type, dims, data.data(), Caps(caps), nullptr, 0x2a)) << LastError();
        ImageDesc d{};
        ImageioHandle *h = OpenRead(path, &d, nullptr, caps);
        ASSERT_NE(h, nullptr) << LastError();
        EXPECT_TRUE(d.type == type && d.attr == 0x2a && d.geom == 0) << type;
        EXPECT_EQ(Dims(d.len, d.len + d.dim), dims);
        EXPECT_EQ(ReadBlock(h, type, 0, Count(dims)), data);
        ImageioMeta meta{};
        EXPECT_EQ(ImageioGetMeta(h, &meta) | ImageioClose(h), 0u);
        EXPECT_EQ(meta.format + std::to_string(meta.state2), "zv1");
      }
    }
  }
  EXPECT_EQ(ListDir(dir.path), std::vector<std::string>{"img.dat"});
}

TEST_F(ImageioTest, NativeFileLayoutGeometryAndHistory) {
  std::vector<int16_t> v = {1, -2, 3, -4, 5, -6};
  ImageioGeometry g{{1.5, 2.5, 3.5}, {-1, 0, 7}, {2, 1, 3}, 401, {-5, 0, 1 << 30}};
  ImageioSetHistory("first\tcommand");
  ASSERT_TRUE(WriteWith(dir / "a.zv", TypeInt16, {3, 2}, v.data(), ImageioParamDefault, &g, 10));
  std::string s = ReadFileBytes(dir / "a.zv");
  EXPECT_EQ(s.substr(0, 8), std::string("\x89ZVIMG\r\n"));
  // version, type, attr, axes, lengths, data offset, data size; then the data
  for (auto [off, want] : {std::pair{8, 1u}, {12, TypeInt16}, {16, 10u}, {20, 2u}, {24, 3u}, {32, 2u}, {56, 4096u}, {64, 12u}})
    EXPECT_EQ(Get(s, off), want) << off;
  EXPECT_EQ(s.substr(4096), Bytes(v));
  // Each copy of the previous file adds a history line; only the last ten stay.
  for (int i = 0; i < 12; ++i) {
    ImageDesc d{};
    ImageioHandle *src = OpenRead(dir / "a.zv", &d);
    ASSERT_NE(src, nullptr);
    auto *r = reinterpret_cast<const ImageioGeometry *>(d.geom);
    ASSERT_TRUE(r && r->voxel[2] == 3.5 && r->origin[0] == -1.0 && r->axisorder[0] == 2 && r->spacegroup == 401 && r->start[0] == -5 && r->start[2] == 1 << 30);
    void *b = ImageioBeginRead(src, 0, 6);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(b) % 64, 0u);  // mapped data suits any element type
    ImageioEndRead(src, 0, 6, b);
    ImageioSetHistory(("step " + std::to_string(i)).c_str());
    ASSERT_TRUE(WriteWith(dir / "b.zv", TypeInt16, {3, 2}, v.data(), ImageioParamDefault, r));
    ImageioClose(src);
    ASSERT_EQ(rename((dir / "b.zv").c_str(), (dir / "a.zv").c_str()), 0);
  }
  ImageioSetHistory("");
  s = ReadFileBytes(dir / "a.zv");
  EXPECT_EQ(Get(s, 140), 10u);
  EXPECT_EQ(s.substr(256, 6), "step 2");
  EXPECT_EQ(s.substr(256 + 9 * 80, 7), "step 11");
  EXPECT_EQ(s.find("first"), std::string::npos);
}

TEST_F(ImageioTest, DeletionMarkAndTemporaryFile) {
  Dims dims = {3};
  ImageDesc desc{1, dims.data(), 0, TypeUint8, 0};
  const std::string out = dir / "out.zv";
  ImageioMeta meta{};
  auto create = [&](uint32_t flags) {
    ImageioParam p = Caps(nullptr, flags);
    ImageioHandle *h = ImageioCreate(out.c_str(), &desc, &p);
    void *b = h ? ImageioBeginWrite(h, 0, 3) : nullptr;
    EXPECT_NE(b, nullptr) << LastError();
    std::memcpy(b, "\x01\x02\x03", 3);
    EXPECT_EQ(ImageioEndWrite(h, 0, 3, b) | ImageioGetMeta(h, &meta), 0u);
    return h;
  };
  // Closed while marked: nothing is left, not even the temporary file.
  ImageioHandle *h = create(ImageioFlagDel);
  EXPECT_TRUE(meta.state == ImageioStateDel && meta.state2 == 3);
  auto names = ListDir(dir.path);
  EXPECT_TRUE(names.size() == 1 && names[0].rfind(".out.zv.zvtmp-", 0) == 0) << names[0];
  EXPECT_EQ(ImageioClose(h), 0u);
  EXPECT_TRUE(ListDir(dir.path).empty());
  // An existing file stays untouched while marked, for good when the mark stays; once withdrawn
  // the new file replaces it at the close, keeping its permissions.
  WriteFileBytes(out, "old contents");
  chmod(out.c_str(), 0640);
  ImageioClose(create(ImageioFlagDel));
  EXPECT_EQ(ReadFileBytes(out), "old contents");
  h = create(ImageioFlagDel);
  ImageioUndel(h);
  EXPECT_TRUE(ImageioGetMeta(h, &meta) == 0 && meta.state == 0);
  EXPECT_EQ(ReadFileBytes(out), "old contents");
  EXPECT_EQ(ImageioClose(h), 0u);
  EXPECT_EQ(ListDir(dir.path), std::vector<std::string>{"out.zv"});
  EXPECT_EQ(ReadImage(out).as<uint8_t>(), (std::vector<uint8_t>{1, 2, 3}));
  struct stat st;
  EXPECT_TRUE(stat(out.c_str(), &st) == 0 && (st.st_mode & 0777) == 0640);
  // ImageioDel marks an image created unmarked; a symbolic link destination replaces its target.
  ASSERT_EQ(unlink(out.c_str()), 0);
  h = create(0);
  ImageioDel(h);
  ImageioClose(h);
  EXPECT_TRUE(ListDir(dir.path).empty());
  ASSERT_EQ(mkdir((dir / "real").c_str(), 0755), 0);
  WriteFileBytes(dir / "real/t.zv", "x");
  ASSERT_EQ(symlink("real/t.zv", out.c_str()), 0);
  ImageioClose(create(0));
  EXPECT_TRUE(lstat(out.c_str(), &st) == 0 && S_ISLNK(st.st_mode));
  EXPECT_EQ(ReadImage(dir / "real/t.zv").as<uint8_t>(), (std::vector<uint8_t>{1, 2, 3}));
  EXPECT_EQ(ListDir(dir / "real"), std::vector<std::string>{"t.zv"});
}

// The destination is the operand: written under the deletion mark, then read back in place.
TEST_F(ImageioTest, DestinationThatIsAlsoTheOperandAndInPlace) {
  std::vector<int32_t> v = {10, 20, 30, 40};
  WriteImage(dir / "x.zv", TypeInt32, {4}, v);
  for (const char *caps : {"mmap", "read,sync"}) {
    ImageDesc in{};
    ImageioHandle *src = OpenRead(dir / "x.zv", &in, nullptr, caps);
    ImageioParam p = Caps(caps, ImageioFlagDel);
    ImageioHandle *dst = ImageioCreate((dir / "x.zv").c_str(), &in, &p);
    ASSERT_TRUE(src && dst) << LastError();
    for (uint64_t first = 0; first < 4; first += 2) {
      auto *o = static_cast<int32_t *>(ImageioBeginWrite(dst, first, 2));
      auto *i = static_cast<int32_t *>(ImageioBeginRead(src, first, 2));
      ASSERT_TRUE(o && i);
      for (int k = 0; k < 2; ++k) o[k] = i[k] + 1;
      ImageioEndRead(src, first, 2, i);
      ASSERT_EQ(ImageioEndWrite(dst, first, 2, o), 0u);
    }
    ImageioUndel(dst);
    EXPECT_EQ(ImageioClose(dst) | ImageioClose(src), 0u);
    EXPECT_EQ(ListDir(dir.path), std::vector<std::string>{"x.zv"});
    // In place a write block starts from the stored values.
    ImageioMeta meta{};
    ImageioHandle *h = ImageioOpenReadWrite((dir / "x.zv").c_str(), &in, &p);
    auto *w = static_cast<int32_t *>(ImageioBeginWrite(h, 1, 2));
    EXPECT_TRUE(ImageioGetMeta(h, &meta) == 0 && meta.state2 == 2);
    EXPECT_EQ(w[1], v[2] + 1);
    w[0] *= -1;
    EXPECT_EQ(ImageioEndWrite(h, 1, 2, w) | ImageioClose(h), 0u);
    v = {v[0] + 1, -v[1] - 1, v[2] + 1, v[3] + 1};
    EXPECT_EQ(ReadImage(dir / "x.zv").as<int32_t>(), v);
  }
}

TEST_F(ImageioTest, CreateRefusals) {
  ASSERT_EQ(mkdir((dir / "sub").c_str(), 0755), 0);
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
  struct Case { const char *name; Dims dims; uint32_t type, code; const char *part; } cases[] = {{"sub", {1}, TypeReal32, E_IMAGEIO_CREATE, "Is a directory"},
               {"none/x.zv", {1}, TypeReal32, E_IMAGEIO_CREATE, "No such file or directory"},
               {"fifo", {1}, TypeReal32, E_IMAGEIO_CREATE, ""},
               {"a.zv", {1, 1, 1, 1, 1}, TypeReal32, E_IMAGEIO_DIM, ""},
               {"a.zv", {}, TypeReal32, E_IMAGEIO_DIM, ""},
               {"a.zv", {1ull << 32, 1ull << 32}, TypeReal32, E_IMAGEIO_SIZE, ""},
               {"a.zv", {1}, 0x501002, E_IMAGEIO_TYPE, ""},
               {"a.tiff", {1}, TypeReal32, E_IMAGEIO_FORMAT, ""}};
  for (Case &c : cases) {
    ImageDesc desc{c.dims.size(), c.dims.data(), 0, c.type, 0};
    ImageioParam p = ImageioParamDefault;
    p.format = c.code == E_IMAGEIO_FORMAT ? "tiff" : nullptr;
    EXPECT_EQ(ImageioCreate((dir / c.name).c_str(), &desc, &p), nullptr) << c.name;
    ExpectError(c.code, c.part);
  }
  struct stat st;
  EXPECT_TRUE(lstat((dir / "fifo").c_str(), &st) == 0 && S_ISFIFO(st.st_mode));
  EXPECT_EQ(ListDir(dir.path), (std::vector<std::string>{"fifo", "sub"}));
}

TEST_F(ImageioTest, BlockAccessRules) {
  auto data = Pattern(TypeCmplx64, 10);
  WriteImage(dir / "a.zv", TypeCmplx64, {10}, data.data());
  ImageDesc d{};
  ImageioHandle *h = OpenRead(dir / "a.zv", &d);
  ASSERT_NE(h, nullptr);
  // Outside the image, counts that overflow included; an empty block at the end has an address.
  for (auto [first, n] : {std::pair<uint64_t, uint64_t>{9, 2}, {11, 0}, {1, UINT64_MAX}}) {
    EXPECT_EQ(ImageioBeginRead(h, first, n), nullptr) << first;
    ExpectError(E_IMAGEIO_RANGE, "a.zv");
  }
  EXPECT_TRUE(ReadBlock(h, TypeCmplx64, 10, 0).empty());
  // One block at a time; the end call must name the block in use.
  void *b = ImageioBeginRead(h, 2, 3);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(std::memcmp(b, data.data() + 2 * 16, 3 * 16), 0);
  EXPECT_EQ(ImageioBeginRead(h, 0, 1), nullptr);
  ExpectError(E_IMAGEIO);
  EXPECT_NE(ImageioEndRead(h, 2, 4, b), 0u);
  EXPECT_EQ(ImageioEndRead(h, 2, 3, b), 0u);
  EXPECT_NE(ImageioEndRead(h, 2, 3, b), 0u);
  // Reading only.
  EXPECT_EQ(ImageioBeginWrite(h, 0, 1), nullptr);
  ExpectError(E_IMAGEIO_WRITE);
  EXPECT_EQ(ImageioEndWrite(h, 0, 1, ImageioBeginRead(h, 0, 1)), E_IMAGEIO_WRITE);
  EXPECT_EQ(ImageioClose(h), 0u);
  EXPECT_EQ(ReadFileBytes(dir / "a.zv").substr(4096), std::string(data.begin(), data.end()));
  // Plain reads reuse one buffer for every block.
  h = OpenRead(dir / "a.zv", &d, nullptr, "read");
  void *b1 = ImageioBeginRead(h, 0, 4);
  ImageioEndRead(h, 0, 4, b1);
  EXPECT_EQ(ReadBlock(h, TypeCmplx64, 4, 4), std::vector<unsigned char>(data.begin() + 64, data.begin() + 128));
  EXPECT_EQ(ImageioBeginRead(h, 4, 4), b1);
  ImageioEndRead(h, 4, 4, b1);
  ImageioClose(h);
}

TEST_F(ImageioTest, CapabilityAndFormatNames) {
  EXPECT_NE(ImageioCapCheck("mmap"), ImageioCapCheck("read"));
  EXPECT_NE(ImageioCapCheck("mmap,sync"), ImageioCapCheck("mmap"));
  EXPECT_EQ(ImageioCapCheck("read,sync"), ImageioCapCheck("sync,read"));
  for (const char *ok : {"mmap", "read", "sync", "half"}) EXPECT_NE(ImageioCapCheck(ok), 0u) << ok;
  for (const char *bad : {"", "fast", "mmap,read", "mmap,", ",sync", "MMAP", "mmap sync"}) EXPECT_EQ(ImageioCapCheck(bad), 0u) << bad;
  EXPECT_EQ(ImageioCapCheck(nullptr), 0u);
  for (const char *ok : {"zv", "mrc", "npy"}) EXPECT_EQ(ImageioFormatCheck(ok), 0u) << ok;
  for (const char *bad : {"MRC", "tiff", "", "zv ", static_cast<const char *>(nullptr)})
    EXPECT_EQ(ImageioFormatCheck(bad), E_IMAGEIO_FORMAT) << (bad ? bad : "null");
  // Writing picks the format from the name unless forced ("l" and "m"); reading goes by the content.
  std::pair<const char *, const char *> cases[] = {
      {"a.MRC", "mrc"}, {"b.mrcs", "mrc"}, {"c.map", "mrc"}, {"d.rec", "mrc"}, {"e.st", "mrc"}, {"f.ali", "mrc"},
      {"g.ccp4", "mrc"}, {"h.npy", "npy"}, {"i.Npy", "npy"}, {"j.img", "zv"}, {"k", "zv"}, {"l.npy", "zv"}, {"m.zv", "mrc"},
      {"n.Map.GZ", "mrc"}, {"o.npy.gz", "npy"}, {"p.gz", "zv"}};  // compressed, read through gzip
  for (auto [name, expect] : cases) {
    WriteImage(dir / name, TypeInt16, {2}, std::vector<int16_t>{1, 2}, 0, name[0] == 'l' ? "zv" : name[0] == 'm' ? "mrc" : nullptr);
    ImageDesc d{};
    ImageioMeta meta{};
    ImageioHandle *h = OpenRead(dir / name, &d);
    ASSERT_EQ(h ? ImageioGetMeta(h, &meta) : 1u, 0u) << name << LastError();
    EXPECT_STREQ(meta.format, expect) << name;
    EXPECT_EQ(ReadFileBytes(dir / name).substr(0, 2) == "\x1f\x8b", name[0] >= 'n') << name;
    ImageioClose(h);
  }
  ExpectOpenFails(dir / "j.img", E_IMAGEIO_HEADER, "MRC", "mrc");
  ExpectOpenFails(dir / "a.MRC", E_IMAGEIO_HEADER, "not an NPY file", "npy");
  ExpectOpenFails(dir / "a.MRC", E_IMAGEIO_FORMAT, "('tiff')", "tiff");
}

TEST_F(ImageioTest, HostileNativeFiles) {
  WriteImage(dir / "good.zv", TypeUint32, {2, 3}, std::vector<uint32_t>{1, 2, 3, 4, 5, 6});
  ExpectHostile(dir, ReadFileBytes(dir / "good.zv"), ".zv", {
      {[](std::string &s) { s[1] = 'X'; }, E_IMAGEIO_FORMAT, "matches none"},
      {[](std::string &s) { Put32(s, 8, 2); }, E_IMAGEIO_HEADER, "version 2"},
      {[](std::string &s) { Put32(s, 12, 0x501003); }, E_IMAGEIO_HEADER, "element type"},
      {[](std::string &s) { Put32(s, 20, 0); }, E_IMAGEIO_DIM, "0 axes"},
      {[](std::string &s) { Put32(s, 20, 5); }, E_IMAGEIO_DIM, "5 axes"},
      {[](std::string &s) { Put64(s, 24, 1ull << 33), Put64(s, 32, 1ull << 31); }, E_IMAGEIO_SIZE, "overflow"},
      {[](std::string &s) { Put64(s, 64, 20); }, E_IMAGEIO_HEADER, "data size"},
      {[](std::string &s) { Put64(s, 24, 1000), Put64(s, 64, 12000); }, E_IMAGEIO_READ, "shorter than its header"},
      {[](std::string &s) { Put64(s, 56, 100); }, E_IMAGEIO_HEADER, "data offset"},
      {[](std::string &s) { Put64(s, 56, 1ull << 62); }, E_IMAGEIO_READ, "shorter"},
      {[](std::string &s) { s.pop_back(); }, E_IMAGEIO_READ, "shorter"},
      {[](std::string &s) { s += "zz"; }, E_IMAGEIO_HEADER, "does not match"},
      {[](std::string &s) { s.resize(900); }, E_IMAGEIO_HEADER, "too short"},
      {[](std::string &s) { s.clear(); }, E_IMAGEIO_HEADER, "empty file"},
      {[](std::string &s) { s = "just some text\n"; }, E_IMAGEIO_FORMAT, "zv, mrc, npy"}});
  // Not regular files at all.
  ExpectOpenFails(dir / "missing.zv", E_IMAGEIO_OPEN, "No such file or directory");
  ExpectOpenFails(dir.path, E_IMAGEIO_OPEN, "Is a directory");
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
  ExpectOpenFails(dir / "fifo", E_IMAGEIO_OPEN, "not a regular file");
  ExpectOpenFails("/dev/zero", E_IMAGEIO_OPEN, "not a regular file");
}

}  // namespace
