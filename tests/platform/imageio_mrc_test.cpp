// MRC2014 files: modes and element types, axes, geometry, statistics, labels, byte order,
// converted modes and hostile headers.
#include <algorithm>
#include <cmath>

#include "imageio_helpers.h"

namespace {

// A little- or big-endian MRC2014 header for nx x ny x nz elements of a mode, then the data.
std::string Header(int32_t nx, int32_t ny, int32_t nz, int32_t mode, bool big = false, std::string data = "") {
  std::string s(1024, '\0');
  for (auto [off, v] : {std::pair{0, nx}, {4, ny}, {8, nz}, {12, mode}, {28, nx}, {32, ny}, {36, nz}, {64, 1}, {68, 2},
                        {72, 3}, {88, 1}, {108, 20141}})
    Put32(s, off, big ? __builtin_bswap32(static_cast<uint32_t>(v)) : static_cast<uint32_t>(v));
  return s.replace(208, 6, big ? "MAP \x11\x11" : "MAP DD") + data;
}

template <class T> std::string Swapped(const std::vector<T> &v) {  // big-endian bytes
  std::string s = Bytes(v);
  for (size_t i = 0; i < s.size(); i += sizeof(T)) std::reverse(s.begin() + i, s.begin() + i + sizeof(T));
  return s;
}

// Header statistics against population statistics of the values; none: marked undetermined.
void ExpectStats(const std::string &s, const std::vector<double> &v) {
  float dmin = Get<float>(s, 76), dmax = Get<float>(s, 80), dmean = Get<float>(s, 84), rms = Get<float>(s, 216);
  if (v.empty()) {
    EXPECT_TRUE(dmax < dmin && dmean < std::min(dmin, dmax) && rms < 0) << dmin << " " << dmax << " " << dmean;
    return;
  }
  double mean = std::accumulate(v.begin(), v.end(), 0.0) / static_cast<double>(v.size()), ss = 0;
  for (double x : v) ss += (x - mean) * (x - mean);
  EXPECT_EQ(dmin, static_cast<float>(*std::min_element(v.begin(), v.end())));
  EXPECT_EQ(dmax, static_cast<float>(*std::max_element(v.begin(), v.end())));
  EXPECT_NEAR(dmean, mean, 1e-5 * (1 + std::fabs(mean)));
  EXPECT_NEAR(rms, std::sqrt(ss / static_cast<double>(v.size())), 1e-5 * (1 + std::fabs(mean)));
}

TEST_F(ImageioTest, MrcModesOfEveryTypeAndShape) {
  const std::pair<uint32_t, uint32_t> modes[] = {{TypeInt8, 0}, {TypeUint8, 0}, {TypeInt16, 1}, {TypeReal32, 2}, {TypeCmplx32, 4}, {TypeUint16, 6}};
  for (uint32_t type : kAllTypes) {
    auto mode = std::find_if(std::begin(modes), std::end(modes), [&](auto m) { return m.first == type; });
    for (Dims dims : {Dims{5, 3}, Dims{4, 3, 2}, Dims{3, 2, 2, 2}, Dims{0, 4}}) {
      std::string path = dir / "m.mrc";
      if (mode == std::end(modes)) {  // refused before anything is created, pointing elsewhere
        ImageDesc d{dims.size(), dims.data(), 0, type, 0};
        EXPECT_EQ(ImageioCreate(path.c_str(), &d, &ImageioParamDefault), nullptr);
        EXPECT_NE(LastError().find(".npy"), std::string::npos) << LastError();
        EXPECT_NE(LastError().find("native format"), std::string::npos) << LastError();
        ExpectError(E_IMAGEIO_TYPE, TypeIdent(type));
        EXPECT_FALSE(FileExists(path));
        continue;
      }
      // Small values with exact statistics (unsigned bytes above 127 have none, see below).
      std::vector<unsigned char> data(Count(dims) * (type & 0xff));
      std::vector<double> values;
      for (uint64_t i = 0; i < data.size() / (type & 0xff); ++i) {
        int x = static_cast<int>((i * 37) % 101) - (type == TypeUint8 || type == TypeUint16 ? 0 : 50);
        float f = static_cast<float>(x) / 2;
        std::memcpy(&data[i * (type & 0xff)], type == TypeReal32 || type == TypeCmplx32 ? static_cast<void *>(&f) : &x, std::min(type & 0xff, 4u));
        if (type != TypeCmplx32) values.push_back(type == TypeReal32 ? f : x);
      }
      ASSERT_TRUE(WriteWith(path, type, dims, data.data(), ImageioParamDefault)) << LastError();
      std::string s = ReadFileBytes(path);
      ASSERT_EQ(s.size(), 1024 + data.size());
      EXPECT_EQ(Get(s, 12), mode->second);
      EXPECT_EQ(s.substr(208, 8), std::string("MAP \x44\x44\0\0", 8));
      EXPECT_EQ(std::pair(Get(s, 108), Get(s, 92)), std::pair(20141u, 0u));  // nversion, no extended header
      EXPECT_TRUE(mode->second || (Get(s, 152) == 1146047817u && (Get(s, 156) & 1) == (type == TypeInt8)));  // IMOD stamp, signed flag
      ExpectStats(s, values);
      TestImage r = ReadImage(path);
      EXPECT_EQ(r.type, type);
      EXPECT_EQ(r.dims, dims);
      EXPECT_EQ(r.data, data);
      std::remove(path.c_str());
    }
  }
  // Unsigned bytes get statistics only when every value reads the same as a signed byte.
  WriteImage(dir / "low.mrc", TypeUint8, {3}, std::vector<uint8_t>{0, 127, 64});
  ExpectStats(ReadFileBytes(dir / "low.mrc"), {0, 127, 64});
  WriteImage(dir / "high.mrc", TypeUint8, {3}, std::vector<uint8_t>{0, 128, 64});
  ExpectStats(ReadFileBytes(dir / "high.mrc"), {});
  // Signed bytes at both ends of their range, with repeats (bytes are counted by value).
  WriteImage(dir / "ends.mrc", TypeInt8, {7}, std::vector<int8_t>{-128, 127, -1, -128, 0, 127, 3});
  ExpectStats(ReadFileBytes(dir / "ends.mrc"), {-128, 127, -1, -128, 0, 127, 3});
  // Lengths the header fields cannot hold: nx, or nz = axis 2 x axis 3.
  for (Dims dims : {Dims{1ull << 31, 1}, Dims{2, 2, 1u << 16, 1u << 15}}) {
    ImageDesc d{dims.size(), dims.data(), 0, TypeUint8, 0};
    EXPECT_EQ(ImageioCreate((dir / "x.mrc").c_str(), &d, &ImageioParamDefault), nullptr);
    ExpectError(E_IMAGEIO_SIZE);
  }
}

TEST_F(ImageioTest, MrcAxesSpaceGroupAndGeometry) {
  struct Case { Dims dims; int32_t sg_in; uint32_t nz, mz, ispg; };  // sg_in -1: no geometry
  const Case cases[] = {{{5}, -1, 1, 1, 0},           {{5, 4}, -1, 1, 1, 0},          {{5, 4, 3}, -1, 3, 3, 1},
                        {{5, 4, 3}, 0, 3, 1, 0},      // an image stack stays a stack
                        {{5, 4, 3}, 19, 3, 3, 19},    // a volume keeps its space group
                        {{5, 4, 3, 2}, -1, 6, 3, 401}, {{5, 4, 3, 2}, 419, 6, 3, 419}, {{5, 4, 1, 3}, 1, 3, 1, 401}};
  for (const Case &c : cases) {
    ImageioGeometry g{{1.25, 2.5, 4.0}, {-3.5, 0.25, 100}, {3, 1, 2}, c.sg_in, {-7, 0, 12}};
    auto data = Pattern(TypeInt16, Count(c.dims));
    ASSERT_TRUE(WriteWith(dir / "g.mrc", TypeInt16, c.dims, data.data(), ImageioParamDefault, c.sg_in >= 0 ? &g : nullptr));
    std::string s = ReadFileBytes(dir / "g.mrc");
    EXPECT_EQ(std::tuple(Get(s, 8), Get(s, 36), Get(s, 88)), std::tuple(c.nz, c.mz, c.ispg)) << c.dims.size();  // nz mz ispg
    ImageDesc d{};
    ImageioHandle *h = OpenRead(dir / "g.mrc", &d);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(Dims(d.len, d.len + d.dim), c.dims.size() == 1 ? Dims({5, 1}) : c.dims);
    auto *r = reinterpret_cast<const ImageioGeometry *>(d.geom);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->spacegroup, static_cast<int32_t>(c.ispg));
    const ImageioGeometry none{{0, 0, 0}, {0, 0, 0}, {1, 2, 3}, 0, {0, 0, 0}}, &want = c.sg_in >= 0 ? g : none;
    for (int i = 0; i < 3; ++i)
      EXPECT_TRUE(r->voxel[i] == want.voxel[i] && r->origin[i] == want.origin[i] && r->axisorder[i] == want.axisorder[i] &&
                  r->start[i] == want.start[i] && Get<int32_t>(s, 16 + 4 * i) == want.start[i]) << i;
    EXPECT_TRUE(c.sg_in < 0 || (Get<float>(s, 40) == 1.25f * 5 && Get<float>(s, 48) == 4.0f * static_cast<float>(c.mz)));  // cell
    ImageioClose(h);
  }
}

TEST_F(ImageioTest, MrcStatisticsOutOfOrderAndInPlace) {
  std::vector<float> v(1000);
  for (size_t i = 0; i < v.size(); ++i) v[i] = 1000.0f + static_cast<float>((i * 37) % 101) * 0.5f;
  Dims dims = {10, 100};
  ImageDesc desc{2, dims.data(), 0, TypeReal32, 0};
  const std::string path = dir / "s.mrc";
  for (const char *caps : {"mmap", "read"}) {
    std::vector<double> dv(v.begin(), v.end());
    ImageioParam p = Caps(caps);
    ImageioHandle *h = ImageioCreate(path.c_str(), &desc, &p);
    for (uint64_t first : {750, 250, 500, 0}) {
      void *b = ImageioBeginWrite(h, first, 250);
      std::memcpy(b, v.data() + first, 250 * 4);
      ASSERT_EQ(ImageioEndWrite(h, first, 250, b), 0u);
    }
    ASSERT_EQ(ImageioClose(h), 0u);
    ExpectStats(ReadFileBytes(path), dv);
    // In place the statistics follow the new values, also of a partial rewrite.
    ASSERT_EQ(Rewrite<float>(path, 0, 1000, [](float x) { return -2 * x; }, caps), 0u);
    for (double &x : dv) x *= -2;
    ExpectStats(ReadFileBytes(path), dv);
    ASSERT_EQ(Rewrite<float>(path, 500, 1, [](float) { return 1e6f; }, caps), 0u);
    dv[500] = 1e6;
    ExpectStats(ReadFileBytes(path), dv);
  }
  ImageioClose(ImageioCreate(path.c_str(), &desc, &ImageioParamDefault));  // never written: zeros
  ExpectStats(ReadFileBytes(path), std::vector<double>(1000, 0.0));
}

TEST_F(ImageioTest, MrcLabelsKeepTheLastTen) {
  std::string s = Header(2, 1, 1, 2, false, std::string(8, '\0'));
  Put32(s, 220, 9);
  for (int i = 0; i < 9; ++i) s.replace(224 + 80 * i, 7, "label " + std::to_string(i));
  WriteFileBytes(dir / "in.mrc", s);
  ImageDesc d{};
  ImageioHandle *src = OpenRead(dir / "in.mrc", &d);
  ASSERT_NE(src, nullptr) << LastError();
  ImageioSetHistory("zvcompute out.mrc = in.mrc + 1");
  std::vector<float> v = {1, 2};
  ASSERT_TRUE(WriteWith(dir / "out.mrc", TypeReal32, {2, 1}, v.data(), ImageioParamDefault, reinterpret_cast<const ImageioGeometry *>(d.geom)));
  ImageioClose(src);
  std::string o = ReadFileBytes(dir / "out.mrc");
  EXPECT_EQ(Get(o, 220), 10u);
  EXPECT_EQ(o.substr(224, 7), "label 0");
  EXPECT_EQ(o.substr(224 + 9 * 80, 80), std::string("zvcompute out.mrc = in.mrc + 1") + std::string(50, ' '));
  // In place adds one more line and drops the oldest.
  ImageioSetHistory("zvcompute out.mrc + 2");
  ASSERT_EQ(Rewrite<float>(dir / "out.mrc", 0, 2, [](float x) { return x; }), 0u);
  ImageioSetHistory("");
  o = ReadFileBytes(dir / "out.mrc");
  EXPECT_EQ(Get(o, 220), 10u);
  EXPECT_EQ(o.substr(224, 7), "label 1");
  EXPECT_EQ(o.substr(224 + 9 * 80, 21), "zvcompute out.mrc + 2");
}

TEST_F(ImageioTest, MrcBigEndianAndConvertedModes) {
  const std::string be = dir / "be.mrc";
  WriteFileBytes(be, Header(3, 1, 1, 1, true, Swapped(std::vector<int16_t>{-2, 300, 7})));
  EXPECT_EQ(ReadImage(be).as<int16_t>(), (std::vector<int16_t>{-2, 300, 7}));
  // In place the file stays big-endian, values and statistics included.
  for (const char *caps : {"mmap", "read"})
    ASSERT_EQ(Rewrite<int16_t>(be, 1, 1, [](int16_t x) { return static_cast<int16_t>(x + 1); }, caps), 0u);
  std::string o = ReadFileBytes(be);
  EXPECT_EQ(o.substr(1024), Swapped(std::vector<int16_t>{-2, 302, 7}));
  EXPECT_EQ(o.substr(80, 4), Swapped(std::vector<float>{302}));
  // Complex float32; and a non-standard stamp, where the byte order that makes sense wins.
  const std::vector<float> cv = {1.5f, -2.0f, 3.25f, 1e-3f};
  WriteFileBytes(dir / "bc.mrc", Header(2, 1, 1, 4, true, Swapped(cv)));
  EXPECT_EQ(ReadImage(dir / "bc.mrc").as<float>(), cv);
  std::string odd = Header(1, 1, 1, 2, true, Swapped(std::vector<float>{1}));
  odd[212] = odd[213] = 0x22;
  WriteFileBytes(dir / "odd.mrc", odd);
  EXPECT_EQ(ReadImage(dir / "odd.mrc").as<float>(), std::vector<float>{1.0f});
  // Mode 12: binary16 with a subnormal, infinity and negative zero; read only.
  WriteFileBytes(dir / "h.mrc", Header(6, 1, 1, 12, false, Bytes(std::vector<uint16_t>{0x3c00, 0xc000, 0x0001, 0x7c00, 0x8000, 0x3555})));
  for (const char *caps : {"mmap", "read"}) {
    ImageDesc d{};
    ImageioHandle *h = OpenRead(dir / "h.mrc", &d, nullptr, caps);
    ASSERT_TRUE(h && d.type == TypeReal32);
    auto raw = ReadBlock(h, TypeReal32, 1, 5);
    std::vector<float> f(5);
    std::memcpy(f.data(), raw.data(), 20);
    EXPECT_EQ(f, (std::vector<float>{-2.0f, std::ldexp(1.0f, -24), INFINITY, 0.0f, 0.333251953125f}));
    EXPECT_TRUE(std::signbit(f[3]));
    ImageioClose(h);
  }
  EXPECT_EQ(Rewrite<float>(dir / "h.mrc", 0, 1, [](float x) { return x; }), E_IMAGEIO_TYPE);
  // Mode 3: pairs of int16, both byte orders.
  const std::vector<int16_t> pairs = {-32768, 5, 32767, -1};
  for (bool big : {false, true}) {
    WriteFileBytes(dir / "c.mrc", Header(2, 1, 1, 3, big, big ? Swapped(pairs) : Bytes(pairs)));
    EXPECT_EQ(ReadImage(dir / "c.mrc").as<float>(), (std::vector<float>{-32768, 5, 32767, -1}));
  }
  // Mode 0 without IMOD's stamp is signed; with the stamp its flag decides.
  std::string b = Header(2, 1, 1, 0, false, "\xff\x01");
  for (auto [off, value, type] : {std::tuple{0, 0u, TypeInt8}, {152, 1146047817u, TypeUint8}, {156, 1u, TypeInt8}}) {
    if (off) Put32(b, off, value);
    WriteFileBytes(dir / "b.mrc", b);
    EXPECT_EQ(ReadImage(dir / "b.mrc").type, type) << off;
  }
}

TEST_F(ImageioTest, MrcExtendedHeaderAndOldStyleFiles) {
  std::string s = Header(2, 2, 1, 2, false, std::string(202, 'x') + Bytes(std::vector<float>{1, 2, 3, 4}));
  Put32(s, 88, 0);
  Put32(s, 92, 202);
  s.replace(104, 4, "SERI");
  Put32(s, 128, 0x00040002);  // nint, nreal
  WriteFileBytes(dir / "x.mrc", s);
  ImageDesc d{};
  ImageioHandle *src = OpenRead(dir / "x.mrc", &d);
  ASSERT_NE(src, nullptr) << LastError();
  EXPECT_EQ(ReadBlock(src, TypeReal32, 0, 4), std::vector<unsigned char>(s.end() - 16, s.end()));
  // A copy carries it along with its type and record sizes, padded so that the data stays aligned;
  // a copy of another format does not.
  const auto *geom = reinterpret_cast<const ImageioGeometry *>(d.geom);
  ASSERT_TRUE(WriteWith(dir / "y.mrc", TypeReal32, {2, 2}, s.data() + 1226, ImageioParamDefault, geom));
  ASSERT_TRUE(WriteWith(dir / "y.npy", TypeReal32, {2, 2}, s.data() + 1226, ImageioParamDefault, geom));
  ASSERT_TRUE(WriteWith(dir / "y2.mrc", TypeUint8, {2, 2}, "abcd", ImageioParamDefault, geom));
  ImageioClose(src);
  std::string o = ReadFileBytes(dir / "y.mrc");
  EXPECT_EQ(o.substr(1024), s.substr(1024, 202) + std::string(2, '\0') + s.substr(1226)) << o.size();
  EXPECT_TRUE(Get(o, 92) == 204 && o.substr(104, 4) == "SERI" && Get(o, 128) == 0x00040002u);
  EXPECT_EQ(ReadFileBytes(dir / "y2.mrc").substr(1024), s.substr(1024, 202) + "abcd");
  EXPECT_EQ(ReadImage(dir / "y.mrc").as<float>(), (std::vector<float>{1, 2, 3, 4}));
  // No "MAP " stamp: recognised by a header that matches the file size exactly.
  std::string old = Header(3, 2, 1, 1, false, std::string(12, '\x01')).replace(208, 8, std::string(8, '\0'));
  WriteFileBytes(dir / "old.dat", old);
  TestImage r = ReadImage(dir / "old.dat");
  EXPECT_TRUE(r.type == TypeInt16 && r.dims == Dims({3, 2, 1}));
  WriteFileBytes(dir / "old2.dat", old + "x");
  ExpectOpenFails(dir / "old2.dat", E_IMAGEIO_FORMAT, "matches none");
  // A volume-stack space group whose mz does not divide nz reads as a volume.
  std::string vs = Header(2, 1, 3, 1, false, std::string(12, '\0'));
  Put32(vs, 88, 401);
  Put32(vs, 36, 2);
  WriteFileBytes(dir / "vs.mrc", vs);
  EXPECT_EQ(ReadImage(dir / "vs.mrc").dims, (Dims{2, 1, 3}));
}

TEST_F(ImageioTest, MrcHostileHeaders) {
  ExpectHostile(dir, Header(4, 2, 1, 2, false, std::string(32, '\0')), ".mrc", {
      {[](std::string &s) { Put32(s, 0, static_cast<uint32_t>(-4)); }, E_IMAGEIO_HEADER, "nx = -4"},
      {[](std::string &s) { Put32(s, 8, 0x80000000u); }, E_IMAGEIO_HEADER, "nz"},
      {[](std::string &s) { Put32(s, 0, 0x7fffffff), Put32(s, 4, 0x7fffffff), Put32(s, 8, 0x7fffffff); }, E_IMAGEIO_SIZE, "overflow"},
      {[](std::string &s) { Put32(s, 0, 0x7fffffff), Put32(s, 4, 1000); }, E_IMAGEIO_READ, "shorter than its header"},
      {[](std::string &s) { Put32(s, 92, 5000); }, E_IMAGEIO_HEADER, "extends past the end"},
      {[](std::string &s) { Put32(s, 92, static_cast<uint32_t>(-8)); }, E_IMAGEIO_HEADER, "negative extended"},
      {[](std::string &s) { Put32(s, 92, 16); }, E_IMAGEIO_READ, "shorter"},
      {[](std::string &s) { Put32(s, 12, 7); }, E_IMAGEIO_HEADER, "unknown MRC mode 7"},
      {[](std::string &s) { Put32(s, 12, 101); }, E_IMAGEIO_TYPE, "4-bit"},
      {[](std::string &s) { s.resize(1030); }, E_IMAGEIO_READ, "shorter"},
      {[](std::string &s) { s += "abc"; }, E_IMAGEIO_HEADER, "does not match"},
      {[](std::string &s) { s.resize(500); }, E_IMAGEIO_FORMAT, "matches none"}});
  ExpectOpenFails(dir / "h11.mrc", E_IMAGEIO_HEADER, "too short", "mrc");
}

}  // namespace
