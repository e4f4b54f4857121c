// TIFF files: every element type and axis count with each compression, the layouts other writers use
// (made from ours by libtiff's tiffcp) read in odd pieces and rewritten in place, and damaged files.
#include <cmath>
#include <cstdlib>

#include "imageio_helpers.h"

namespace {

// Classic little-endian files: the directory after the one at ifd (the first for 0), and where the
// value of a tag of a directory lies (0 when absent).
size_t NextIfd(const std::string &s, size_t ifd = 0) {
  return ifd ? Get(s, ifd + 2 + 12 * Get<uint16_t>(s, ifd)) : Get(s, 4);
}
size_t TagAt(const std::string &s, uint16_t tag, size_t ifd) {
  for (size_t i = 0, n = Get<uint16_t>(s, ifd); i < n; ++i)
    if (Get<uint16_t>(s, ifd + 2 + 12 * i) == tag) return ifd + 10 + 12 * i;
  return 0;
}
void Set(std::string &s, uint16_t tag, uint32_t v, size_t ifd = 0) {
  size_t at = TagAt(s, tag, ifd ? ifd : NextIfd(s));
  ASSERT_NE(at, 0u) << tag;
  if (Get<uint16_t>(s, at - 6) == 3 && v > 65535) s[at - 6] = 4;  // SHORT becomes LONG
  Put32(s, at, v);
}

TEST_F(ImageioTest, TiffRoundTripEveryTypeShapeAndCompression) {
  const ImageioGeometry g{{1.5, 2.25, 3.0}, {0, 0, 0}, {1, 2, 3}, 0};
  ImageioSetHistory("zvcompute tiff test");
  for (const char *caps : {"read", "deflate", "lzw", "zstd"}) {
    for (uint32_t type : kAllTypes) {
      if (type == TypeImag32 || type == TypeImag64) continue;
      for (const Dims &dims : kShapes) {
        if (Count(dims) == 0) continue;
        auto data = Pattern(type, Count(dims), type);
        ASSERT_TRUE(WriteWith(dir / "a.tif", type, dims, data.data(), Caps(caps), &g)) << LastError();
        // W x H pages, one per section along axes 2 and 3.
        Dims want = {dims[0], dims.size() > 1 ? dims[1] : 1};
        if (dims.size() > 2 && Count(dims) / want[0] / want[1] > 1) want.push_back(Count(dims) / want[0] / want[1]);
        ImageDesc d{};
        ImageioHandle *h = OpenRead(dir / "a.tif", &d);
        ASSERT_NE(h, nullptr) << LastError();
        EXPECT_TRUE(d.type == type && Dims(d.len, d.len + d.dim) == want) << caps << " " << TypeIdent(type) << " " << dims.size();
        EXPECT_EQ(ReadBlock(h, type, 0, Count(dims)), data) << caps << " " << TypeIdent(type);
        auto *r = reinterpret_cast<const ImageioGeometry *>(d.geom);
        EXPECT_TRUE(r && std::fabs(r->voxel[0] - 1.5) < 1e-6 && std::fabs(r->voxel[1] - 2.25) < 1e-6 && r->voxel[2] == 0 &&
                    r->origin[0] == 0 && r->spacegroup == 1);
        ImageioClose(h);
      }
    }
    EXPECT_NE(ReadFileBytes(dir / "a.tif").find("zvcompute tiff test"), std::string::npos);
  }
  ImageioSetHistory("");
}

// Layouts made by tiffcp from one of our files: tiles with partial tiles at the edges, big-endian,
// BigTIFF, short strips, PackBits. Read in pieces that cut strips, tiles and pages; rewritten in
// place when uncompressed, refused untouched when not.
TEST_F(ImageioTest, TiffLayoutsOfOtherWritersInPiecesAndInPlace) {
  if (std::system("tiffcp > /dev/null 2>&1; command -v tiffcp > /dev/null") != 0) GTEST_SKIP() << "tiffcp not installed";
  const Dims dims = {37, 29, 3};
  for (uint32_t type : {TypeInt16, TypeReal32, TypeCmplx64}) {
    auto data = Pattern(type, Count(dims), 7);
    if (type != TypeInt16) for (size_t i = 0; i < data.size(); i += 4) data[i + 3] &= 0x3f;  // finite floats
    WriteImage(dir / "src.tif", type, dims, data.data());
    for (const char *opts : {"-t -w 16 -l 16", "-B -t -w 32 -l 16", "-8 -r 5", "-B -r 7", "-c packbits -t -w 16 -l 32", "-B -8 -c zip -r 3"}) {
      std::string path = dir / "v.tif";
      ASSERT_EQ(std::system(("tiffcp " + std::string(opts) + " '" + dir / "src.tif' '" + path + "'").c_str()), 0) << opts;
      ImageDesc d{};
      ImageioHandle *h = OpenRead(path, &d);
      ASSERT_NE(h, nullptr) << opts << LastError();
      std::vector<unsigned char> got;
      for (uint64_t first = 0, n = 13; first < Count(dims); first += n) {
        auto part = ReadBlock(h, type, first, std::min(n, Count(dims) - first));
        got.insert(got.end(), part.begin(), part.end());
      }
      EXPECT_EQ(got, data) << opts << " " << TypeIdent(type);
      ImageioClose(h);
      if (type != TypeInt16) continue;
      const std::string before = ReadFileBytes(path);
      uint32_t st = Rewrite<int16_t>(path, 5, 2000, [](int16_t x) { return static_cast<int16_t>(~x); });
      if (std::strstr(opts, "-c")) {
        EXPECT_EQ(st, E_IMAGEIO_WRITE) << opts;
        ExpectError(E_IMAGEIO_WRITE, "compressed data cannot be rewritten in place");
        EXPECT_EQ(ReadFileBytes(path), before);
      } else {
        ASSERT_EQ(st, 0u) << opts << LastError();
        for (size_t i = 10; i < 4010; ++i) data[i] = static_cast<unsigned char>(~data[i]);
        EXPECT_EQ(ReadImage(path).data, data) << opts;
        for (size_t i = 10; i < 4010; ++i) data[i] = static_cast<unsigned char>(~data[i]);
      }
    }
  }
}

TEST_F(ImageioTest, HostileTiffFiles) {
  WriteImage(dir / "good.tif", TypeUint16, {6, 4, 2}, Pattern(TypeUint16, 48).data());
  ExpectHostile(dir, ReadFileBytes(dir / "good.tif"), ".tif", {
      {[](std::string &s) { Set(s, 273, 1u << 30); }, E_IMAGEIO_HEADER, "page 1, strip 1 of 48 bytes at offset 1073741824 lies past the end"},
      {[](std::string &s) { Set(s, 256, 0xffffffffu); }, E_IMAGEIO_HEADER, "past the end"},
      {[](std::string &s) { Set(s, 257, 0xffffffffu); Set(s, 278, 1); }, E_IMAGEIO_HEADER, ""},
      {[](std::string &s) { size_t i1 = NextIfd(s, NextIfd(s)); Put32(s, i1 + 2 + 12 * Get<uint16_t>(s, i1), NextIfd(s)); }, E_IMAGEIO_HEADER, "page 3: the chain of page directories loops back"},
      {[](std::string &s) { Set(s, 256, 7, NextIfd(s, NextIfd(s))); }, E_IMAGEIO_TYPE, "page 2 is 7 x 4"},
      {[](std::string &s) { Set(s, 277, 3); }, E_IMAGEIO_TYPE, "3 samples per pixel"},
      {[](std::string &s) { Set(s, 258, 12); }, E_IMAGEIO_TYPE, "12-bit unsigned integer samples"},
      {[](std::string &s) { Set(s, 339, 4); }, E_IMAGEIO_TYPE, "undefined samples"},
      {[](std::string &s) { Set(s, 259, 34712); }, E_IMAGEIO_TYPE, "cannot decode"},
      {[](std::string &s) { Put32(s, 4, 1u << 31); }, E_IMAGEIO_HEADER, "TIFF header"},
      {[](std::string &s) { s.resize(12); }, E_IMAGEIO_HEADER, "TIFF header"},
      {[](std::string &s) { s = "II*"; }, E_IMAGEIO_FORMAT, "zv, mrc, npy, tiff"}});
  // libtiff mends the byte counts of uncompressed single strips by itself, not of compressed ones.
  WriteWith(dir / "zip.tif", TypeUint16, {6, 4}, Pattern(TypeUint16, 24).data(), Caps("deflate"));
  ExpectHostile(dir, ReadFileBytes(dir / "zip.tif"), ".tif", {
      {[](std::string &s) { Set(s, 279, 1u << 30); }, E_IMAGEIO_HEADER, "past the end"},
      {[](std::string &s) { Set(s, 256, 1u << 24); }, E_IMAGEIO_HEADER, "compressed more than 32768 to 1"},
      {[](std::string &s) { Set(s, 256, 1u << 26); }, E_IMAGEIO_TYPE, "strip of more than 256 MiB"}});
}

}  // namespace
