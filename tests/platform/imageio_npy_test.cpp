// NumPy .npy files: header layout, axis order, versions, byte order, column-major arrays and
// malformed headers.
#include "imageio_helpers.h"

namespace {

using Dims = std::vector<uint64_t>;

// An .npy file of the given version and dict text, padded the way writers do, then the data bytes.
std::string Npy(const std::string &dict, const std::string &data, int major = 1) {
  size_t pre = major == 1 ? 10 : 12;
  size_t total = (pre + dict.size() + 1 + 63) / 64 * 64;
  size_t hlen = total - pre;
  std::string s = "\x93NUMPY";
  s += static_cast<char>(major);
  s += '\0';
  for (size_t i = 0; i < pre - 8; ++i) s += static_cast<char>((hlen >> (8 * i)) & 0xff);
  s += dict;
  s.append(total - s.size() - 1, ' ');
  s += '\n';
  return s + data;
}

template <class T>
std::string Bytes(const std::vector<T> &v) {
  return std::string(reinterpret_cast<const char *>(v.data()), v.size() * sizeof(T));
}

TEST_F(ImageioTest, NpyRoundTripAndHeaderLayout) {
  for (uint32_t type : kAllTypes) {
    if (type == TypeImag32 || type == TypeImag64) continue;
    for (const Dims &dims : std::vector<Dims>{{6}, {4, 3}, {4, 3, 2}, {2, 3, 1, 2}, {0, 3}}) {
      auto data = Pattern(type, Count(dims), type);
      std::string path = dir / "a.npy";
      ASSERT_TRUE(WriteWith(path, type, dims, data.data(), ImageioParamDefault)) << LastError();
      std::string s = ReadFileBytes(path);
      ASSERT_EQ(s.substr(0, 8), std::string("\x93NUMPY\x01\x00", 8));
      size_t hlen = static_cast<unsigned char>(s[8]) | (static_cast<unsigned char>(s[9]) << 8);
      EXPECT_EQ((10 + hlen) % 64, 0u);
      EXPECT_EQ(s[9 + hlen], '\n');
      EXPECT_EQ(s.size(), 10 + hlen + data.size());
      TestImage r = ReadImage(path);
      EXPECT_EQ(r.type, type);
      EXPECT_EQ(r.dims, dims);
      EXPECT_EQ(r.data, data);
    }
  }
  std::vector<float> v(24);
  WriteImage(dir / "s.npy", TypeReal32, {4, 3, 2}, v);
  EXPECT_NE(ReadFileBytes(dir / "s.npy").find("{'descr': '<f4', 'fortran_order': False, 'shape': (2, 3, 4), }"),
            std::string::npos);
  WriteImage(dir / "one.npy", TypeCmplx64, {5}, std::vector<double>(10));
  EXPECT_NE(ReadFileBytes(dir / "one.npy").find("'descr': '<c16', 'fortran_order': False, 'shape': (5,), }"),
            std::string::npos);
  WriteImage(dir / "b.npy", TypeUint8, {1}, std::vector<uint8_t>{1});
  EXPECT_NE(ReadFileBytes(dir / "b.npy").find("'|u1'"), std::string::npos);
}

TEST_F(ImageioTest, NpyRefusesImaginary) {
  Dims dims = {2};
  for (uint32_t t : {TypeImag32, TypeImag64}) {
    ImageDesc d{1, dims.data(), 0, t, 0};
    EXPECT_EQ(ImageioCreate((dir / "i.npy").c_str(), &d, &ImageioParamDefault), nullptr);
    EXPECT_EQ(ExceptionGet(1), E_IMAGEIO_TYPE);
    EXPECT_NE(LastError().find("native format"), std::string::npos) << LastError();
    EXPECT_NE(LastError().find(TypeIdent(t)), std::string::npos) << LastError();
    ExceptionClear();
  }
  EXPECT_TRUE(ListDir(dir.path).empty());
}

TEST_F(ImageioTest, NpyVersionsByteOrderAndKinds) {
  std::vector<int32_t> v = {1, -2, 3, -4, 5, -6};
  std::string le = Bytes(v), be;
  for (int32_t x : v) {
    uint32_t u = __builtin_bswap32(static_cast<uint32_t>(x));
    be.append(reinterpret_cast<const char *>(&u), 4);
  }
  const std::string dict = "{'descr': '<i4', 'fortran_order': False, 'shape': (2, 3), }";
  for (int major : {1, 2, 3}) {
    WriteFileBytes(dir / "v.npy", Npy(dict, le, major));
    TestImage r = ReadImage(dir / "v.npy");
    EXPECT_EQ(r.dims, (Dims{3, 2})) << major;
    EXPECT_EQ(r.as<int32_t>(), v);
  }
  // Big-endian, odd spacing, double quotes, old-style L suffixes, no final newline, trailing bytes.
  std::string raw("\x93NUMPY\x01\x00", 8);
  std::string hdr = "{\"shape\":(2L,3L),\"descr\":\">i4\",   \"fortran_order\" : False}";
  raw += static_cast<char>(hdr.size());
  raw += '\0';
  WriteFileBytes(dir / "be.npy", raw + hdr + be + "extra");
  for (uint32_t caps : {0u, ImageioCapCheck("read")}) {
    ImageDesc d{};
    ImageioHandle *h = OpenRead(dir / "be.npy", &d, nullptr, caps);
    ASSERT_NE(h, nullptr) << LastError();
    EXPECT_EQ(ReadBlock(h, TypeInt32, 1, 4), std::vector<unsigned char>(le.begin() + 4, le.begin() + 20));
    ImageioClose(h);
  }
  // Big-endian in place stays big-endian.
  ImageDesc d{};
  ImageioHandle *h = ImageioOpenReadWrite((dir / "be.npy").c_str(), &d, &ImageioParamDefault);
  ASSERT_NE(h, nullptr);
  auto *b = static_cast<int32_t *>(ImageioBeginRead(h, 0, 6));
  b[5] = 0x01020304;
  ImageioEndWrite(h, 0, 6, b);
  ImageioClose(h);
  std::string after = ReadFileBytes(dir / "be.npy");
  EXPECT_EQ(after.substr(after.size() - 9, 4), std::string("\x01\x02\x03\x04", 4));
  // bool, float16, 0-d, extra leading axes of length 1.
  WriteFileBytes(dir / "b1.npy", Npy("{'descr': '|b1', 'fortran_order': False, 'shape': (3,), }", std::string("\x01\x00\x01", 3)));
  EXPECT_EQ(ReadImage(dir / "b1.npy").as<uint8_t>(), (std::vector<uint8_t>{1, 0, 1}));
  std::vector<uint16_t> half = {0x3c00, 0xbc00, 0x7bff};
  WriteFileBytes(dir / "f2.npy", Npy("{'descr': '<f2', 'fortran_order': False, 'shape': (3,), }", Bytes(half)));
  TestImage r = ReadImage(dir / "f2.npy");
  EXPECT_EQ(r.type, TypeReal32);
  EXPECT_EQ(r.as<float>(), (std::vector<float>{1.0f, -1.0f, 65504.0f}));
  EXPECT_EQ(ImageioOpenReadWrite((dir / "f2.npy").c_str(), &d, &ImageioParamDefault), nullptr);
  EXPECT_EQ(ExceptionGet(1), E_IMAGEIO_TYPE);
  ExceptionClear();
  WriteFileBytes(dir / "s0.npy", Npy("{'descr': '<f8', 'fortran_order': False, 'shape': (), }", Bytes(std::vector<double>{2.5})));
  r = ReadImage(dir / "s0.npy");
  EXPECT_EQ(r.dims, Dims{1});
  EXPECT_EQ(r.as<double>(), std::vector<double>{2.5});
  WriteFileBytes(dir / "s6.npy", Npy("{'descr': '|u1', 'fortran_order': False, 'shape': (1, 1, 2, 1, 3, 2), }",
                                     std::string(12, '\x07')));
  EXPECT_EQ(ReadImage(dir / "s6.npy").dims, (Dims{2, 3, 1, 2}));
  WriteFileBytes(dir / "s5.npy", Npy("{'descr': '|u1', 'fortran_order': False, 'shape': (2, 1, 1, 1, 2), }",
                                     std::string(4, '\x07')));
  ExpectOpenFails(dir / "s5.npy", E_IMAGEIO_DIM, "5 axes");
}

TEST_F(ImageioTest, NpyColumnMajorReadAndRewrite) {
  // The logical array a[i][j][k] = 100 i + 10 j + k of shape (2, 3, 4), stored column-major.
  std::vector<int16_t> fortran, c_order;
  for (int k = 0; k < 4; ++k)
    for (int j = 0; j < 3; ++j)
      for (int i = 0; i < 2; ++i) fortran.push_back(static_cast<int16_t>(100 * i + 10 * j + k));
  for (int i = 0; i < 2; ++i)
    for (int j = 0; j < 3; ++j)
      for (int k = 0; k < 4; ++k) c_order.push_back(static_cast<int16_t>(100 * i + 10 * j + k));
  WriteFileBytes(dir / "f.npy", Npy("{'descr': '<i2', 'fortran_order': True, 'shape': (2, 3, 4), }", Bytes(fortran)));
  for (uint32_t caps : {0u, ImageioCapCheck("read")}) {
    ImageDesc d{};
    ImageioHandle *h = OpenRead(dir / "f.npy", &d, nullptr, caps);
    ASSERT_NE(h, nullptr) << LastError();
    EXPECT_EQ(Dims(d.len, d.len + d.dim), (Dims{4, 3, 2}));
    // Blocks that start and end inside rows.
    for (uint64_t first : {0u, 5u, 13u}) {
      auto got = ReadBlock(h, TypeInt16, first, 9);
      std::vector<int16_t> g(9);
      std::memcpy(g.data(), got.data(), 18);
      EXPECT_EQ(g, std::vector<int16_t>(c_order.begin() + static_cast<long>(first),
                                        c_order.begin() + static_cast<long>(first) + 9));
    }
    ImageioClose(h);
  }
  // In place: elements go back to their column-major places.
  ImageDesc d{};
  ImageioHandle *h = ImageioOpenReadWrite((dir / "f.npy").c_str(), &d, &ImageioParamDefault);
  ASSERT_NE(h, nullptr);
  auto *b = static_cast<int16_t *>(ImageioBeginRead(h, 4, 8));
  for (int i = 0; i < 8; ++i) b[i] = static_cast<int16_t>(-b[i]);
  ASSERT_EQ(ImageioEndWrite(h, 4, 8, b), 0u);
  ImageioClose(h);
  for (size_t i = 4; i < 12; ++i) c_order[i] = static_cast<int16_t>(-c_order[i]);
  EXPECT_EQ(ReadImage(dir / "f.npy").as<int16_t>(), c_order);
  // A column-major vector is the same as a row-major one.
  WriteFileBytes(dir / "v.npy", Npy("{'descr': '<i2', 'fortran_order': True, 'shape': (1, 3), }",
                                    Bytes(std::vector<int16_t>{1, 2, 3})));
  EXPECT_EQ(ReadImage(dir / "v.npy").as<int16_t>(), (std::vector<int16_t>{1, 2, 3}));
}

TEST_F(ImageioTest, NpyMalformedHeaders) {
  const std::string data(24, '\0');
  auto file = [&](const char *name, const std::string &dict, int major = 1) {
    WriteFileBytes(dir / name, Npy(dict, data, major));
    return dir / name;
  };
  const char *msg = "NPY header";
  ExpectOpenFails(file("k1.npy", "{'descr': '<f4', 'shape': (2, 3), }"), E_IMAGEIO_HEADER, "missing key");
  ExpectOpenFails(file("k2.npy", "{'descr': '<f4', 'fortran_order': False, 'shape': (2, 3), 'x': 1}"),
                  E_IMAGEIO_HEADER, "'x'");
  ExpectOpenFails(file("k3.npy", "{'descr': '<f4', 'descr': '<f4', 'fortran_order': False, 'shape': (2, 3)}"),
                  E_IMAGEIO_HEADER, "repeated");
  ExpectOpenFails(file("s1.npy", "{'descr': '<f4', 'fortran_order': False, 'shape': (2, -3), }"), E_IMAGEIO_HEADER,
                  "negative");
  ExpectOpenFails(file("s2.npy", "{'descr': '<f4', 'fortran_order': False, 'shape': (2.5, 3), }"), E_IMAGEIO_HEADER,
                  "shape");
  ExpectOpenFails(file("s3.npy", "{'descr': '<f4', 'fortran_order': False, 'shape': [2, 3], }"), E_IMAGEIO_HEADER,
                  "tuple");
  ExpectOpenFails(file("s4.npy", "{'descr': '<f4', 'fortran_order': False, 'shape': (99999999999999999999, 3), }"),
                  E_IMAGEIO_SIZE, "overflow");
  ExpectOpenFails(file("s5.npy", "{'descr': '<f4', 'fortran_order': False, 'shape': (4294967296, 4294967296), }"),
                  E_IMAGEIO_SIZE, "overflow");
  ExpectOpenFails(file("f1.npy", "{'descr': '<f4', 'fortran_order': 0, 'shape': (2, 3), }"), E_IMAGEIO_HEADER,
                  "True or False");
  ExpectOpenFails(file("d1.npy", "{'descr': '<U4', 'fortran_order': False, 'shape': (2, 3), }"), E_IMAGEIO_TYPE,
                  "'<U4'");
  ExpectOpenFails(file("d2.npy", "{'descr': [('a', '<f4')], 'fortran_order': False, 'shape': (2, 3), }"),
                  E_IMAGEIO_HEADER, "descr");
  ExpectOpenFails(file("d3.npy", "{'descr': 'f4', 'fortran_order': False, 'shape': (2, 3), }"), E_IMAGEIO_TYPE,
                  "not supported");
  ExpectOpenFails(file("t1.npy", "{'descr': '<f4', 'fortran_order': False, 'shape': (2, 3), } x"), E_IMAGEIO_HEADER,
                  "after the dict");
  ExpectOpenFails(file("t2.npy", "{'descr': '<f4' 'fortran_order': False, 'shape': (2, 3), }"), E_IMAGEIO_HEADER,
                  msg);
  ExpectOpenFails(file("t3.npy", "['descr', '<f4']"), E_IMAGEIO_HEADER, "not a dict");
  ExpectOpenFails(file("big.npy", "{'descr': '<f8', 'fortran_order': False, 'shape': (2, 3), }"), E_IMAGEIO_READ,
                  "shorter than its header says");
  ExpectOpenFails(file("ver.npy", "{'descr': '<f4', 'fortran_order': False, 'shape': (2, 3), }", 4),
                  E_IMAGEIO_HEADER, "version 4");
  std::string s = Npy("{'descr': '<f4', 'fortran_order': False, 'shape': (2, 3), }", data);
  s[8] = '\xff';
  s[9] = '\x7f';
  WriteFileBytes(dir / "len.npy", s);
  ExpectOpenFails(dir / "len.npy", E_IMAGEIO_HEADER, "past the end");
  WriteFileBytes(dir / "cut.npy", s.substr(0, 9));
  ExpectOpenFails(dir / "cut.npy", E_IMAGEIO_HEADER, "too short");
  ExpectOpenFails(dir / "cut.npy", E_IMAGEIO_HEADER, "too short", "npy");
}

}  // namespace
