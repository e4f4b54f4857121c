// TIFF files: every element type and axis count with each compression, the layouts other writers use
// (made from ours by libtiff's tiffcp) read in odd pieces and rewritten in place, and damaged files.
#include <cmath>
#include <cstdlib>
#include <numeric>

#include "imageio_helpers.h"

namespace {

uint64_t Count(const Dims &dims) { return std::accumulate(dims.begin(), dims.end(), uint64_t{1}, std::multiplies<>()); }
const Dims kShapes[] = {{7}, {5, 3}, {4, 3, 2}, {3, 2, 2, 3}};

// Inverts elements first..first+n-1 of an int16 file in place; the status of the rewrite.
uint32_t Invert(const std::string &path, uint64_t first, uint64_t n) {
  ImageDesc d{};
  ImageioParam p = ImageioParamDefault;
  ImageioHandle *h = ImageioOpenReadWrite(path.c_str(), &d, &p);
  auto *b = h ? static_cast<int16_t *>(ImageioBeginRead(h, first, n)) : nullptr;
  if (!b) return h ? ImageioClose(h), ExceptionGet(1) : ExceptionGet(1);
  for (uint64_t i = 0; i < n; ++i) b[i] = static_cast<int16_t>(~b[i]);
  const uint32_t st = ImageioEndWrite(h, first, n, b);
  return ImageioClose(h) ? ExceptionGet(1) : st;
}

TEST_F(ImageioTest, TiffRoundTripEveryTypeShapeAndCompression) {
  const ImageioGeometry g{{1.5, 2.25, 3.0}, {0, 0, 0}, {1, 2, 3}, 0, {0, 0, 0}};
  ImageioSetHistory("zvcompute tiff test");
  for (const char *caps : {"read", "deflate", "lzw", "zstd"}) {
    for (uint32_t type : kAllTypes) {
      if (type == TypeImag32 || type == TypeImag64) continue;
      for (const Dims &dims : kShapes) {
                auto data = Pattern(type, Count(dims), type);
        ASSERT_TRUE(WriteImage(dir / "a.tif", type, dims, data.data(), Caps(caps), &g)) << LastError();
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
      uint32_t st = Invert(path, 5, 2000);
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

// libtiff (and the libraries it needs) is loaded by runs that meet a TIFF file, and only by them.
TEST_F(ImageioTest, LibtiffLoadedOnlyWhenATiffFileIsMet) {
  ASSERT_TRUE(WriteImage(dir / "a.img", TypeReal32, {4}, std::vector<float>{1, 2, 3, 4}));
  ASSERT_TRUE(WriteImage(dir / "a.tif", TypeReal32, {4}, std::vector<float>{1, 2, 3, 4}));
  for (const auto &[out, in, tiff] : {std::tuple{"o.img", "a.img", false}, {"o.tif", "a.img", true}, {"o.img", "a.tif", true}}) {
    const RunResult r = RunTool({out, "=", in, "+", "1"}, {dir.path, {"LD_DEBUG=files"}});
    EXPECT_EQ(r.status, 0) << out << " " << in;
    EXPECT_EQ(r.err.find("libtiff") != std::string::npos, tiff) << out << " " << in;
  }
}

}  // namespace
