// MRC2014 files: modes and element types, axes, geometry, statistics, labels, byte order,
// converted modes and hostile headers.
#include <cmath>

#include "imageio_helpers.h"

namespace {

using Dims = std::vector<uint64_t>;

// A little- or big-endian MRC2014 header for nx x ny x nz elements of a mode.
std::string Header(int32_t nx, int32_t ny, int32_t nz, int32_t mode, bool big = false) {
  std::string s(1024, '\0');
  auto put = [&](size_t off, uint32_t v) {
    if (big) v = __builtin_bswap32(v);
    Put32(s, off, v);
  };
  put(0, static_cast<uint32_t>(nx));
  put(4, static_cast<uint32_t>(ny));
  put(8, static_cast<uint32_t>(nz));
  put(12, static_cast<uint32_t>(mode));
  put(28, static_cast<uint32_t>(nx));
  put(32, static_cast<uint32_t>(ny));
  put(36, static_cast<uint32_t>(nz));
  for (int i = 0; i < 3; ++i) put(64 + 4 * i, static_cast<uint32_t>(i + 1));
  put(88, 1);
  put(108, 20141);
  s.replace(208, 4, "MAP ");
  s[212] = big ? 0x11 : 0x44;
  s[213] = big ? 0x11 : 0x44;
  return s;
}

struct Stats {
  float dmin, dmax, dmean, rms;
};
Stats HeaderStats(const std::string &s) { return {GetF(s, 76), GetF(s, 80), GetF(s, 84), GetF(s, 216)}; }

// Population statistics of values, the way a careful reader computes them.
Stats Expected(const std::vector<double> &v) {
  double mn = v[0], mx = v[0], sum = 0;
  for (double x : v) {
    mn = std::min(mn, x);
    mx = std::max(mx, x);
    sum += x;
  }
  double mean = sum / static_cast<double>(v.size()), ss = 0;
  for (double x : v) ss += (x - mean) * (x - mean);
  return {static_cast<float>(mn), static_cast<float>(mx), static_cast<float>(mean),
          static_cast<float>(std::sqrt(ss / static_cast<double>(v.size())))};
}

void ExpectStats(const std::string &file, const std::vector<double> &v) {
  Stats h = HeaderStats(file), e = Expected(v);
  EXPECT_EQ(h.dmin, e.dmin);
  EXPECT_EQ(h.dmax, e.dmax);
  EXPECT_NEAR(h.dmean, e.dmean, 1e-5 * (1 + std::fabs(e.dmean)));
  EXPECT_NEAR(h.rms, e.rms, 1e-5 * (1 + e.rms));
}

void ExpectNoStats(const std::string &s) {
  Stats h = HeaderStats(s);
  EXPECT_LT(h.dmax, h.dmin);
  EXPECT_LT(h.dmean, std::min(h.dmin, h.dmax));
  EXPECT_LT(h.rms, 0.0f);
}

TEST_F(ImageioTest, MrcModesOfEveryWritableType) {
  struct Case {
    uint32_t type;
    int32_t mode;
  } cases[] = {{TypeInt8, 0}, {TypeUint8, 0}, {TypeInt16, 1}, {TypeReal32, 2}, {TypeCmplx32, 4}, {TypeUint16, 6}};
  for (const Case &c : cases) {
    for (const Dims &dims : std::vector<Dims>{{5, 3}, {4, 3, 2}, {3, 2, 2, 2}}) {
      auto data = Pattern(c.type, Count(dims), c.type);
      if (c.type == TypeReal32 || c.type == TypeCmplx32) {
        // Finite values only, so that the statistics are defined.
        auto *f = reinterpret_cast<float *>(data.data());
        for (size_t i = 0; i < data.size() / 4; ++i) f[i] = static_cast<float>(i % 13) - 6.5f;
      }
      std::string path = dir / "m.mrc";
      ASSERT_TRUE(WriteWith(path, c.type, dims, data.data(), ImageioParamDefault)) << LastError();
      std::string s = ReadFileBytes(path);
      ASSERT_EQ(s.size(), 1024 + data.size());
      EXPECT_EQ(GetI32(s, 12), c.mode);
      EXPECT_EQ(s.substr(208, 4), "MAP ");
      EXPECT_EQ(s.substr(212, 4), std::string("\x44\x44\0\0", 4));
      EXPECT_EQ(GetI32(s, 108), 20141);
      EXPECT_EQ(GetI32(s, 92), 0);
      if (c.mode == 0) {
        EXPECT_EQ(GetI32(s, 152), 1146047817);
        EXPECT_EQ(GetI32(s, 156) & 1, c.type == TypeInt8 ? 1 : 0);
      }
      TestImage r = ReadImage(path);
      EXPECT_EQ(r.type, c.type);
      EXPECT_EQ(r.dims, dims);
      EXPECT_EQ(r.data, data);
      if (c.type == TypeCmplx32 || c.type == TypeUint8) {
        // Complex data has no statistics; these unsigned bytes exceed 127 (see below).
        ExpectNoStats(s);
      } else {
        std::vector<double> v;
        for (uint64_t i = 0; i < Count(dims); ++i) {
          const unsigned char *p = data.data() + i * (c.type & 0xff);
          switch (c.type) {
            case TypeInt8: v.push_back(static_cast<int8_t>(*p)); break;
            case TypeUint8: v.push_back(*p); break;
            case TypeInt16: { int16_t x; std::memcpy(&x, p, 2); v.push_back(x); break; }
            case TypeUint16: { uint16_t x; std::memcpy(&x, p, 2); v.push_back(x); break; }
            default: { float x; std::memcpy(&x, p, 4); v.push_back(x); break; }
          }
        }
        ExpectStats(s, v);
      }
    }
  }
}

TEST_F(ImageioTest, MrcUnsignedByteStatisticsOnlyWhenUnambiguous) {
  std::vector<uint8_t> low = {0, 5, 127, 64}, high = {0, 5, 128, 64};
  WriteImage(dir / "low.mrc", TypeUint8, {4}, low);
  ExpectStats(ReadFileBytes(dir / "low.mrc"), {0, 5, 127, 64});
  WriteImage(dir / "high.mrc", TypeUint8, {4}, high);
  ExpectNoStats(ReadFileBytes(dir / "high.mrc"));
  std::vector<int8_t> s = {-128, 127, 0, 1};
  WriteImage(dir / "s.mrc", TypeInt8, {4}, s);
  ExpectStats(ReadFileBytes(dir / "s.mrc"), {-128, 127, 0, 1});
}

TEST_F(ImageioTest, MrcRefusesTypesItCannotHoldBeforeCreating) {
  Dims dims = {2, 2};
  for (uint32_t t : {TypeUint32, TypeUint64, TypeInt32, TypeInt64, TypeReal64, TypeImag32, TypeImag64, TypeCmplx64}) {
    ImageDesc d{2, dims.data(), 0, t, 0};
    EXPECT_EQ(ImageioCreate((dir / "x.mrc").c_str(), &d, &ImageioParamDefault), nullptr);
    EXPECT_EQ(ExceptionGet(1), E_IMAGEIO_TYPE);
    EXPECT_NE(LastError().find(TypeIdent(t)), std::string::npos) << LastError();
    EXPECT_NE(LastError().find(".npy"), std::string::npos) << LastError();
    EXPECT_NE(LastError().find("native format"), std::string::npos) << LastError();
    ExceptionClear();
  }
  Dims wide = {1ull << 31, 1};
  ImageDesc d{2, wide.data(), 0, TypeUint8, 0};
  EXPECT_EQ(ImageioCreate((dir / "x.mrc").c_str(), &d, &ImageioParamDefault), nullptr);
  EXPECT_EQ(ExceptionGet(1), E_IMAGEIO_SIZE);
  Dims stack = {2, 2, 1u << 16, 1u << 15};  // nz = axis 2 x axis 3 overflows the field
  ImageDesc d4{4, stack.data(), 0, TypeUint8, 0};
  EXPECT_EQ(ImageioCreate((dir / "x.mrc").c_str(), &d4, &ImageioParamDefault), nullptr);
  EXPECT_EQ(ExceptionGet(1), E_IMAGEIO_SIZE);
  EXPECT_TRUE(ListDir(dir.path).empty());
}

TEST_F(ImageioTest, MrcAxesSpaceGroupAndGeometry) {
  struct Case {
    Dims dims;
    int32_t sg_in;  // -1: no geometry
    int32_t nz, mz, ispg;
    Dims back;
  } cases[] = {
      {{5}, -1, 1, 1, 0, {5, 1}},
      {{5, 4}, -1, 1, 1, 0, {5, 4}},
      {{5, 4, 3}, -1, 3, 3, 1, {5, 4, 3}},
      {{5, 4, 3}, 0, 3, 1, 0, {5, 4, 3}},    // an image stack stays a stack
      {{5, 4, 3}, 19, 3, 3, 19, {5, 4, 3}},  // a volume keeps its space group
      {{5, 4, 3, 2}, -1, 6, 3, 401, {5, 4, 3, 2}},
      {{5, 4, 3, 2}, 419, 6, 3, 419, {5, 4, 3, 2}},
      {{5, 4, 1, 3}, 1, 3, 1, 401, {5, 4, 1, 3}},
  };
  for (const Case &c : cases) {
    ImageioGeometry g{{1.25, 2.5, 4.0}, {-3.5, 0.25, 100}, {3, 1, 2}, c.sg_in};
    auto data = Pattern(TypeInt16, Count(c.dims));
    std::string path = dir / "g.mrc";
    ASSERT_TRUE(WriteWith(path, TypeInt16, c.dims, data.data(), ImageioParamDefault, c.sg_in >= 0 ? &g : nullptr));
    std::string s = ReadFileBytes(path);
    EXPECT_EQ(GetI32(s, 0), 5);
    EXPECT_EQ(GetI32(s, 8), c.nz);
    EXPECT_EQ(GetI32(s, 36), c.mz);
    EXPECT_EQ(GetI32(s, 88), c.ispg);
    ImageDesc d{};
    ImageioHandle *h = OpenRead(path, &d);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(Dims(d.len, d.len + d.dim), c.back);
    auto *r = reinterpret_cast<const ImageioGeometry *>(d.geom);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->spacegroup, c.ispg);
    if (c.sg_in >= 0) {
      EXPECT_EQ(GetF(s, 40), 1.25f * 5);
      EXPECT_EQ(GetF(s, 48), 4.0f * static_cast<float>(c.mz));
      for (int i = 0; i < 3; ++i) {
        EXPECT_DOUBLE_EQ(r->voxel[i], g.voxel[i]);
        EXPECT_DOUBLE_EQ(r->origin[i], g.origin[i]);
        EXPECT_EQ(r->axisorder[i], g.axisorder[i]);
      }
    } else {
      EXPECT_EQ(r->voxel[0], 0.0);
      EXPECT_EQ(r->axisorder[2], 3);
    }
    ImageioClose(h);
  }
}

TEST_F(ImageioTest, MrcStatisticsNewOutOfOrderAndInPlace) {
  std::vector<float> v(1000);
  for (size_t i = 0; i < v.size(); ++i) v[i] = 1000.0f + static_cast<float>((i * 37) % 101) * 0.5f;
  std::vector<double> dv(v.begin(), v.end());
  Dims dims = {10, 100};
  ImageDesc desc{2, dims.data(), 0, TypeReal32, 0};
  for (const char *caps : {"mmap", "read"}) {
    ImageioParam p = ImageioParamDefault;
    p.caps = ImageioCapCheck(caps);
    // Written in blocks, in order and then out of order: the header is right either way.
    for (bool reverse : {false, true}) {
      ImageioHandle *h = ImageioCreate((dir / "s.mrc").c_str(), &desc, &p);
      ASSERT_NE(h, nullptr);
      for (int k = 0; k < 4; ++k) {
        uint64_t first = static_cast<uint64_t>(reverse ? 3 - k : k) * 250;
        void *b = ImageioBeginWrite(h, first, 250);
        std::memcpy(b, v.data() + first, 250 * 4);
        ASSERT_EQ(ImageioEndWrite(h, first, 250, b), 0u);
      }
      ASSERT_EQ(ImageioClose(h), 0u);
      ExpectStats(ReadFileBytes(dir / "s.mrc"), dv);
    }
    // In place: the statistics follow the new values.
    ImageDesc d{};
    ImageioHandle *h = ImageioOpenReadWrite((dir / "s.mrc").c_str(), &d, &p);
    ASSERT_NE(h, nullptr);
    for (uint64_t first = 0; first < 1000; first += 400) {
      uint64_t n = std::min<uint64_t>(400, 1000 - first);
      auto *b = static_cast<float *>(ImageioBeginRead(h, first, n));
      for (uint64_t i = 0; i < n; ++i) b[i] = -b[i] * 2;
      ASSERT_EQ(ImageioEndWrite(h, first, n, b), 0u);
    }
    ASSERT_EQ(ImageioClose(h), 0u);
    std::vector<double> neg;
    for (double x : dv) neg.push_back(-x * 2);
    ExpectStats(ReadFileBytes(dir / "s.mrc"), neg);
    // Only part of the image rewritten: the rest still counts.
    h = ImageioOpenReadWrite((dir / "s.mrc").c_str(), &d, &p);
    auto *b = static_cast<float *>(ImageioBeginRead(h, 500, 1));
    b[0] = 1e6f;
    ImageioEndWrite(h, 500, 1, b);
    ImageioClose(h);
    neg[500] = 1e6;
    ExpectStats(ReadFileBytes(dir / "s.mrc"), neg);
  }
  // A new image that was never written holds zeros.
  ImageioHandle *h = ImageioCreate((dir / "z.mrc").c_str(), &desc, &ImageioParamDefault);
  ImageioClose(h);
  ExpectStats(ReadFileBytes(dir / "z.mrc"), std::vector<double>(1000, 0.0));
  // Empty images and complex data: marked not computed.
  Dims empty = {0, 4};
  ImageDesc ed{2, empty.data(), 0, TypeReal32, 0};
  ImageioClose(ImageioCreate((dir / "e.mrc").c_str(), &ed, &ImageioParamDefault));
  ExpectNoStats(ReadFileBytes(dir / "e.mrc"));
  EXPECT_EQ(ReadImage(dir / "e.mrc").dims, empty);
}

TEST_F(ImageioTest, MrcLabelsKeepTheLastTen) {
  std::string s = Header(2, 1, 1, 2);
  Put32(s, 220, 9);
  for (int i = 0; i < 9; ++i) {
    std::string l = "label " + std::to_string(i);
    l.resize(80, ' ');
    s.replace(224 + 80 * i, 80, l);
  }
  s += std::string(8, '\0');
  WriteFileBytes(dir / "in.mrc", s);
  ImageDesc d{};
  ImageioHandle *src = OpenRead(dir / "in.mrc", &d);
  ASSERT_NE(src, nullptr) << LastError();
  ImageioSetHistory("zvcompute out.mrc = in.mrc + 1");
  std::vector<float> v = {1, 2};
  ASSERT_TRUE(WriteWith(dir / "out.mrc", TypeReal32, {2, 1}, v.data(), ImageioParamDefault,
                        reinterpret_cast<const ImageioGeometry *>(d.geom)));
  ImageioClose(src);
  std::string o = ReadFileBytes(dir / "out.mrc");
  EXPECT_EQ(GetI32(o, 220), 10);
  EXPECT_EQ(o.substr(224, 7), "label 0");
  EXPECT_EQ(o.substr(224 + 9 * 80, 80), std::string("zvcompute out.mrc = in.mrc + 1") + std::string(50, ' '));
  // In place adds one more line and drops the oldest.
  ImageioSetHistory("zvcompute out.mrc + 2");
  ImageioHandle *h = ImageioOpenReadWrite((dir / "out.mrc").c_str(), &d, &ImageioParamDefault);
  void *b = ImageioBeginRead(h, 0, 2);
  ImageioEndWrite(h, 0, 2, b);
  ImageioClose(h);
  ImageioSetHistory("");
  o = ReadFileBytes(dir / "out.mrc");
  EXPECT_EQ(GetI32(o, 220), 10);
  EXPECT_EQ(o.substr(224, 7), "label 1");
  EXPECT_EQ(o.substr(224 + 9 * 80, 21), "zvcompute out.mrc + 2");
}

TEST_F(ImageioTest, MrcBigEndianReadAndRewrite) {
  std::string s = Header(3, 1, 1, 1, true);
  int16_t vals[3] = {-2, 300, 7};
  for (int16_t x : vals) {
    uint16_t u = __builtin_bswap16(static_cast<uint16_t>(x));
    s.append(reinterpret_cast<const char *>(&u), 2);
  }
  WriteFileBytes(dir / "be.mrc", s);
  TestImage r = ReadImage(dir / "be.mrc");
  EXPECT_EQ(r.type, TypeInt16);
  EXPECT_EQ(r.as<int16_t>(), (std::vector<int16_t>{-2, 300, 7}));
  // In place: the file stays big-endian, values and statistics included.
  int16_t expect = 300;
  for (const char *caps : {"mmap", "read"}) {
    ImageioParam p = ImageioParamDefault;
    p.caps = ImageioCapCheck(caps);
    ImageDesc d{};
    ImageioHandle *h = ImageioOpenReadWrite((dir / "be.mrc").c_str(), &d, &p);
    ASSERT_NE(h, nullptr);
    auto *b = static_cast<int16_t *>(ImageioBeginRead(h, 0, 3));
    EXPECT_EQ(b[1], expect++);
    b[1] = static_cast<int16_t>(b[1] + 1);
    ImageioEndWrite(h, 0, 3, b);
    ImageioClose(h);
  }
  std::string o = ReadFileBytes(dir / "be.mrc");
  EXPECT_EQ(static_cast<int16_t>(__builtin_bswap16(*reinterpret_cast<const uint16_t *>(o.data() + 1026))), 302);
  uint32_t dmax = __builtin_bswap32(Get32(o, 80));
  float f;
  std::memcpy(&f, &dmax, 4);
  EXPECT_EQ(f, 302.0f);
  EXPECT_EQ(ReadImage(dir / "be.mrc").as<int16_t>(), (std::vector<int16_t>{-2, 302, 7}));
  // Big-endian complex float32.
  std::string c = Header(2, 1, 1, 4, true);
  float cv[4] = {1.5f, -2.0f, 3.25f, 1e-3f};
  for (float x : cv) {
    uint32_t u;
    std::memcpy(&u, &x, 4);
    u = __builtin_bswap32(u);
    c.append(reinterpret_cast<const char *>(&u), 4);
  }
  WriteFileBytes(dir / "bc.mrc", c);
  EXPECT_EQ(ReadImage(dir / "bc.mrc").as<float>(), std::vector<float>(cv, cv + 4));
}

TEST_F(ImageioTest, MrcConvertedModesAndSignedness) {
  // Mode 12: binary16, including a subnormal, infinity and negative zero.
  std::string s = Header(6, 1, 1, 12);
  uint16_t half[6] = {0x3c00, 0xc000, 0x0001, 0x7c00, 0x8000, 0x3555};
  s.append(reinterpret_cast<const char *>(half), sizeof half);
  WriteFileBytes(dir / "h.mrc", s);
  for (const char *caps : {"mmap", "read"}) {
    ImageDesc d{};
    ImageioHandle *h = OpenRead(dir / "h.mrc", &d, nullptr, ImageioCapCheck(caps));
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(d.type, TypeReal32);
    auto v = ReadBlock(h, TypeReal32, 1, 5);
    const float *f = reinterpret_cast<const float *>(v.data());
    EXPECT_EQ(f[0], -2.0f);
    EXPECT_EQ(f[1], std::ldexp(1.0f, -24));
    EXPECT_EQ(f[2], INFINITY);
    EXPECT_TRUE(std::signbit(f[3]) && f[3] == 0.0f);
    EXPECT_EQ(f[4], 0.333251953125f);
    ImageioClose(h);
  }
  ImageDesc d{};
  EXPECT_EQ(ImageioOpenReadWrite((dir / "h.mrc").c_str(), &d, &ImageioParamDefault), nullptr);
  EXPECT_EQ(ExceptionGet(1), E_IMAGEIO_TYPE);
  ExceptionClear();
  // Mode 3: pairs of int16, big-endian too.
  for (bool big : {false, true}) {
    std::string c = Header(2, 1, 1, 3, big);
    int16_t pairs[4] = {-32768, 5, 32767, -1};
    for (int16_t x : pairs) {
      uint16_t u = static_cast<uint16_t>(x);
      if (big) u = __builtin_bswap16(u);
      c.append(reinterpret_cast<const char *>(&u), 2);
    }
    WriteFileBytes(dir / "c.mrc", c);
    TestImage r = ReadImage(dir / "c.mrc");
    EXPECT_EQ(r.type, TypeCmplx32);
    EXPECT_EQ(r.as<float>(), (std::vector<float>{-32768, 5, 32767, -1}));
  }
  // Mode 0 without IMOD's stamp is signed; with the stamp the flag decides.
  std::string b = Header(2, 1, 1, 0) + std::string("\xff\x01", 2);
  WriteFileBytes(dir / "b.mrc", b);
  EXPECT_EQ(ReadImage(dir / "b.mrc").type, TypeInt8);
  Put32(b, 152, 1146047817);
  WriteFileBytes(dir / "b.mrc", b);
  EXPECT_EQ(ReadImage(dir / "b.mrc").type, TypeUint8);
  Put32(b, 156, 1);
  WriteFileBytes(dir / "b.mrc", b);
  EXPECT_EQ(ReadImage(dir / "b.mrc").as<int8_t>(), (std::vector<int8_t>{-1, 1}));
}

TEST_F(ImageioTest, MrcExtendedHeaderSkippedAndNotCopied) {
  std::string s = Header(2, 2, 1, 2);
  Put32(s, 88, 0);
  Put32(s, 92, 200);
  s.replace(104, 4, "SERI");
  s += std::string(200, 'x');
  float v[4] = {1, 2, 3, 4};
  s.append(reinterpret_cast<const char *>(v), sizeof v);
  WriteFileBytes(dir / "x.mrc", s);
  ImageDesc d{};
  ImageioHandle *src = OpenRead(dir / "x.mrc", &d);
  ASSERT_NE(src, nullptr) << LastError();
  EXPECT_EQ(ReadBlock(src, TypeReal32, 0, 4), std::vector<unsigned char>(reinterpret_cast<unsigned char *>(v),
                                                                          reinterpret_cast<unsigned char *>(v) + 16));
  ASSERT_TRUE(WriteWith(dir / "y.mrc", TypeReal32, {2, 2}, v, ImageioParamDefault,
                        reinterpret_cast<const ImageioGeometry *>(d.geom)));
  ImageioClose(src);
  std::string o = ReadFileBytes(dir / "y.mrc");
  EXPECT_EQ(o.size(), 1024u + 16u);
  EXPECT_EQ(GetI32(o, 92), 0);
}

TEST_F(ImageioTest, MrcOldStyleAndNonStandardStamps) {
  // No "MAP " stamp: recognised by a header that matches the file size exactly.
  std::string s = Header(3, 2, 1, 1);
  s.replace(208, 8, std::string(8, '\0'));
  s += std::string(12, '\x01');
  WriteFileBytes(dir / "old.dat", s);
  TestImage r = ReadImage(dir / "old.dat");
  EXPECT_EQ(r.type, TypeInt16);
  EXPECT_EQ(r.dims, (Dims{3, 2, 1}));
  s += "x";
  WriteFileBytes(dir / "old2.dat", s);
  ExpectOpenFails(dir / "old2.dat", E_IMAGEIO_FORMAT, "matches none");
  // A non-standard stamp on a big-endian file: the byte order that makes sense wins.
  std::string b = Header(1, 1, 1, 2, true);
  b[212] = 0x22;
  b[213] = 0x22;
  float one = 1.0f;
  uint32_t u;
  std::memcpy(&u, &one, 4);
  u = __builtin_bswap32(u);
  b.append(reinterpret_cast<const char *>(&u), 4);
  WriteFileBytes(dir / "odd.mrc", b);
  EXPECT_EQ(ReadImage(dir / "odd.mrc").as<float>(), std::vector<float>{1.0f});
}

TEST_F(ImageioTest, MrcHostileHeaders) {
  const std::string good = Header(4, 2, 1, 2) + std::string(32, '\0');
  auto variant = [&](const char *name, auto change) {
    std::string s = good;
    change(s);
    WriteFileBytes(dir / name, s);
    return dir / name;
  };
  ExpectOpenFails(variant("nx.mrc", [](std::string &s) { Put32(s, 0, static_cast<uint32_t>(-4)); }),
                  E_IMAGEIO_HEADER, "nx = -4");
  ExpectOpenFails(variant("nz.mrc", [](std::string &s) { Put32(s, 8, 0x80000000u); }), E_IMAGEIO_HEADER, "nz");
  ExpectOpenFails(variant("huge.mrc", [](std::string &s) {
                    Put32(s, 0, 0x7fffffff);
                    Put32(s, 4, 0x7fffffff);
                    Put32(s, 8, 0x7fffffff);
                  }),
                  E_IMAGEIO_SIZE, "overflow");
  ExpectOpenFails(variant("big.mrc", [](std::string &s) {
                    Put32(s, 0, 0x7fffffff);
                    Put32(s, 4, 1000);
                  }),
                  E_IMAGEIO_READ, "shorter than its header says");
  ExpectOpenFails(variant("ext.mrc", [](std::string &s) { Put32(s, 92, 5000); }), E_IMAGEIO_HEADER,
                  "extends past the end");
  ExpectOpenFails(variant("extneg.mrc", [](std::string &s) { Put32(s, 92, static_cast<uint32_t>(-8)); }),
                  E_IMAGEIO_HEADER, "negative extended header");
  ExpectOpenFails(variant("ext2.mrc", [](std::string &s) { Put32(s, 92, 16); }), E_IMAGEIO_READ, "shorter");
  ExpectOpenFails(variant("mode.mrc", [](std::string &s) { Put32(s, 12, 7); }), E_IMAGEIO_HEADER,
                  "unknown MRC mode 7");
  ExpectOpenFails(variant("mode101.mrc", [](std::string &s) { Put32(s, 12, 101); }), E_IMAGEIO_TYPE, "4-bit");
  ExpectOpenFails(variant("short.mrc", [](std::string &s) { s.resize(1030); }), E_IMAGEIO_READ, "shorter");
  ExpectOpenFails(variant("long.mrc", [](std::string &s) { s += "abc"; }), E_IMAGEIO_HEADER, "does not match");
  ExpectOpenFails(variant("tiny.mrc", [](std::string &s) { s.resize(500); }), E_IMAGEIO_FORMAT, "matches none");
  ExpectOpenFails(dir / "tiny.mrc", E_IMAGEIO_HEADER, "too short", "mrc");
  // A volume-stack space group whose mz does not divide nz reads as a volume.
  std::string s = Header(2, 1, 3, 1);
  Put32(s, 88, 401);
  Put32(s, 36, 2);
  s += std::string(12, '\0');
  WriteFileBytes(dir / "vs.mrc", s);
  EXPECT_EQ(ReadImage(dir / "vs.mrc").dims, (Dims{2, 1, 3}));
}

}  // namespace
