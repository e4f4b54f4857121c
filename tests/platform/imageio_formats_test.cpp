// The formats behind the library's one interface: every element type and shape written and read
// back in each format that holds it (and refused, before anything is created, where it cannot); then
// what numpy and mrcfile do not write (MRC stamps, converted modes and old-style files, NPY headers of
// other writers) and the native format's header and history.
#include <algorithm>
#include <cmath>
#include <numeric>

#include "imageio_helpers.h"

namespace {

uint64_t Count(const Dims &dims) { return std::accumulate(dims.begin(), dims.end(), uint64_t{1}, std::multiplies<>()); }
const Dims kShapes[] = {{7}, {5, 3}, {4, 3, 2}, {3, 2, 2, 3}, {0}, {4, 0, 2}, {0, 2, 1, 3}};

bool Holds(char format, uint32_t t) {
  if (format == 'n') return t != TypeImag32 && t != TypeImag64;
  return format == 'z' || t == TypeInt8 || t == TypeUint8 || t == TypeInt16 || t == TypeUint16 || t == TypeReal32 ||
         t == TypeCmplx32;
}

TEST_F(ImageioTest, EveryTypeAndShapeInEveryFormat) {
  for (const char *format : {"zv", "mrc", "npy"})
    for (const char *caps : {"mmap", "read", "mmap,sync"})
      for (uint32_t type : kAllTypes)
        for (const Dims &dims : kShapes) {
          if (caps[4] && format[0] != 'z') continue;  // syncing is the same for every format
          const std::string path = dir / (std::string("a.") + format), what = format + std::string(" ") + TypeIdent(type);
          const auto data = Pattern(type, Count(dims), type + static_cast<unsigned>(dims.size()));
          const bool written = WriteImage(path, type, dims, data.data(), Caps(caps), nullptr, 0xa);
          if (!Holds(format[0], type)) {
            EXPECT_FALSE(written) << what;
            EXPECT_NE(LastError().find(format[0] == 'm' ? "write a .npy file or the native format instead" : "native format"), std::string::npos) << LastError();
            ExpectError(E_IMAGEIO_TYPE, TypeIdent(type));
            EXPECT_FALSE(FileExists(path));
            continue;
          }
          ASSERT_TRUE(written) << what << ": " << LastError();
          ImageDesc d{};
          ImageioHandle *h = OpenRead(path, &d, nullptr, caps);
          ASSERT_NE(h, nullptr) << LastError();
          const Dims want = format[0] == 'm' && dims.size() == 1 ? Dims{dims[0], 1} : dims;
          EXPECT_TRUE(d.type == type && Dims(d.len, d.len + d.dim) == want) << what << " " << dims.size();
          EXPECT_EQ(d.attr, format[0] == 'z' ? 0xau : 0u) << what;
          EXPECT_EQ(ReadBlock(h, type, 0, Count(dims)), data) << what;
          ImageioMeta meta{};
          EXPECT_EQ(ImageioGetMeta(h, &meta) | ImageioClose(h), 0u);
          EXPECT_EQ(meta.format + std::to_string(meta.state2), format + std::string("1"));
          // Header sizes: native 4096, MRC 1024, NPY padded to a multiple of 64 ending in a newline.
          const std::string s = ReadFileBytes(path);
          const size_t header = format[0] == 'z' ? 4096 : format[0] == 'm' ? 1024 : 10 + Get<uint16_t>(s, 8);
          EXPECT_TRUE(s.size() == header + data.size() && header % 64 == 0 && (format[0] != 'n' || s[header - 1] == '\n')) << what;
          EXPECT_EQ(ListDir(dir.path), std::vector<std::string>{std::string("a.") + format});
          std::remove(path.c_str());
        }
  // Lengths the MRC header cannot hold: nx, or nz = axis 2 x axis 3.
  for (Dims big : {Dims{1ull << 31, 1}, Dims{2, 2, 1u << 16, 1u << 15}}) {
    EXPECT_FALSE(WriteImage(dir / "x.mrc", TypeUint8, big, nullptr));
    ExpectError(E_IMAGEIO_SIZE);
  }
}

template <class T> std::string Swapped(const std::vector<T> &v) {  // big-endian bytes
  std::string s = Bytes(v);
  for (size_t i = 0; i < s.size(); i += sizeof(T)) std::reverse(s.begin() + i, s.begin() + i + sizeof(T));
  return s;
}

// What mrcfile does not write: a non-standard stamp (the byte order that makes sense wins), mode 3
// pairs of int16 in both byte orders, mode 0 with and without IMOD's stamp, no "MAP " stamp
// (recognised by a header that matches the file size exactly), and a volume-stack space group whose
// mz does not divide nz (read as a volume).
TEST_F(ImageioTest, MrcFilesOfOtherWriters) {
  std::string odd = MrcHeader(1, 1, 1, 2, true, Swapped(std::vector<float>{1}));
  odd[212] = odd[213] = 0x22;
  WriteFileBytes(dir / "odd.mrc", odd);
  EXPECT_EQ(ReadImage(dir / "odd.mrc").as<float>(), std::vector<float>{1.0f});
  const std::vector<int16_t> pairs = {-32768, 5, 32767, -1};
  for (bool big : {false, true}) {
    WriteFileBytes(dir / "c.mrc", MrcHeader(2, 1, 1, 3, big, big ? Swapped(pairs) : Bytes(pairs)));
    EXPECT_EQ(ReadImage(dir / "c.mrc").as<float>(), (std::vector<float>{-32768, 5, 32767, -1}));
  }
  std::string b = MrcHeader(2, 1, 1, 0, false, "\xff\x01");
  for (auto [off, value, type] : {std::tuple{0, 0u, TypeInt8}, {152, 1146047817u, TypeUint8}, {156, 1u, TypeInt8}}) {
    if (off) Put32(b, off, value);
    WriteFileBytes(dir / "b.mrc", b);
    EXPECT_EQ(ReadImage(dir / "b.mrc").type, type) << off;
  }
  const std::string old = MrcHeader(3, 2, 1, 1, false, std::string(12, '\x01')).replace(208, 8, std::string(8, '\0'));
  WriteFileBytes(dir / "old.dat", old);
  const TestImage r = ReadImage(dir / "old.dat");
  EXPECT_TRUE(r.type == TypeInt16 && r.dims == Dims({3, 2, 1}));
  WriteFileBytes(dir / "old2.dat", old + "x");
  ExpectOpenFails(dir / "old2.dat", E_IMAGEIO_FORMAT, "matches none");
  std::string vs = MrcHeader(2, 1, 3, 1, false, std::string(12, '\0'));
  Put32(vs, 88, 401);
  Put32(vs, 36, 2);
  WriteFileBytes(dir / "vs.mrc", vs);
  EXPECT_EQ(ReadImage(dir / "vs.mrc").dims, (Dims{2, 1, 3}));
}

// Headers as other writers lay them out: double quotes, L suffixes, odd spacing, no padding and no
// final newline, and bytes after the data.
TEST_F(ImageioTest, NpyHeadersOfOtherWriters) {
  const std::vector<int32_t> v = {1, -2, 3, -4, 5, -6};
  std::string be;
  for (int32_t x : v) be += Bytes(std::vector<uint32_t>{__builtin_bswap32(static_cast<uint32_t>(x))});
  const std::string hdr = "{\"shape\":(2L,3L),\"descr\":\">i4\",   \"fortran_order\" : False}";
  WriteFileBytes(dir / "be.npy", std::string("\x93NUMPY\x01\x00", 8) + static_cast<char>(hdr.size()) + '\0' + hdr + be + "extra");
  for (const char *caps : {"mmap", "read"}) {
    ImageDesc d{};
    ImageioHandle *h = OpenRead(dir / "be.npy", &d, nullptr, caps);
    ASSERT_NE(h, nullptr) << LastError();
    const std::string le = Bytes(v);
    EXPECT_EQ(ReadBlock(h, TypeInt32, 1, 4), std::vector<unsigned char>(le.begin() + 4, le.begin() + 20));
    ImageioClose(h);
  }
}

TEST_F(ImageioTest, NativeFileLayoutGeometryAndHistory) {
  const std::vector<int16_t> v = {1, -2, 3, -4, 5, -6};
  ImageioGeometry g{{1.5, 2.5, 3.5}, {-1, 0, 7}, {2, 1, 3}, 401, {-5, 0, 1 << 30}};
  ImageioSetHistory("first\tcommand");
  ASSERT_TRUE(WriteImage(dir / "a.zv", TypeInt16, {3, 2}, v, ImageioParamDefault, &g, 10));
  std::string s = ReadFileBytes(dir / "a.zv");
  EXPECT_EQ(s.substr(0, 8), std::string("\x89ZVIMG\r\n"));
  // version, type, attr, axes, lengths, data offset, data size, space group, axis order; then the data
  for (auto [off, want] : {std::pair{8, 1u}, {12, TypeInt16}, {16, 10u}, {20, 2u}, {24, 3u}, {32, 2u}, {56, 4096u}, {64, 12u},
                           {76, 401u}, {128, 2u}})
    EXPECT_EQ(Get(s, off), want) << off;
  EXPECT_TRUE(Get<double>(s, 80) == 1.5 && Get<double>(s, 120) == 7);  // voxel size, origin
  EXPECT_EQ(s.substr(4096), Bytes(v));
  // Each copy of the previous file adds a history line; only the last ten stay.
  for (int i = 0; i < 12; ++i) {
    ImageDesc d{};
    ImageioHandle *src = OpenRead(dir / "a.zv", &d);
    ASSERT_NE(src, nullptr);
    auto *r = reinterpret_cast<const ImageioGeometry *>(d.geom);
    ASSERT_TRUE(r && r->voxel[2] == 3.5 && r->origin[0] == -1.0 && r->axisorder[0] == 2 && r->spacegroup == 401 && r->start[0] == -5 &&
                r->start[2] == 1 << 30);
    void *b = ImageioBeginRead(src, 0, 6);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(b) % 64, 0u);  // mapped data suits any element type
    ImageioEndRead(src, 0, 6, b);
    ImageioSetHistory(("step " + std::to_string(i)).c_str());
    ASSERT_TRUE(WriteImage(dir / "b.zv", TypeInt16, {3, 2}, v, ImageioParamDefault, r));
    ImageioClose(src);
    ASSERT_EQ(rename((dir / "b.zv").c_str(), (dir / "a.zv").c_str()), 0);
  }
  ImageioSetHistory("");
  s = ReadFileBytes(dir / "a.zv");
  EXPECT_TRUE(Get(s, 140) == 10u && s.substr(256, 6) == "step 2" && s.substr(256 + 9 * 80, 7) == "step 11");
  EXPECT_EQ(s.find("first"), std::string::npos);
}

}  // namespace
