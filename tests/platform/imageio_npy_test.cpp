// NumPy .npy files: header layout, axis order, versions, byte order, column-major arrays and
// malformed headers.
#include "imageio_helpers.h"

namespace {

// An .npy file of the given version and dict text, padded the way writers do, then the data bytes.
std::string Npy(const std::string &dict, const std::string &data, int major = 1) {
  size_t pre = major == 1 ? 10 : 12, total = (pre + dict.size() + 1 + 63) / 64 * 64;
  std::string s = "\x93NUMPY" + std::string{static_cast<char>(major), 0};
  for (size_t i = 0; i < pre - 8; ++i) s += static_cast<char>(((total - pre) >> (8 * i)) & 0xff);
  return s + dict + std::string(total - s.size() - dict.size() - 1, ' ') + "\n" + data;
}
std::string Dict(const char *descr, const char *shape, const char *fortran = "False") {
  return std::string("{'descr': '") + descr + "', 'fortran_order': " + fortran + ", 'shape': " + shape + ", }";
}

TEST_F(ImageioTest, NpyRoundTripEveryTypeAndShape) {
  for (uint32_t type : kAllTypes) {
    for (const Dims &dims : kShapes) {
      auto data = Pattern(type, Count(dims), type);
      std::string path = dir / "a.npy";
      if (type == TypeImag32 || type == TypeImag64) {  // no numpy type: refused, pointing elsewhere
        ImageDesc d{dims.size(), const_cast<uint64_t *>(dims.data()), 0, type, 0};
        EXPECT_EQ(ImageioCreate(path.c_str(), &d, &ImageioParamDefault), nullptr);
        EXPECT_NE(LastError().find("native format"), std::string::npos) << LastError();
        ExpectError(E_IMAGEIO_TYPE, TypeIdent(type));
        EXPECT_FALSE(FileExists(path));
        continue;
      }
      ASSERT_TRUE(WriteWith(path, type, dims, data.data(), ImageioParamDefault)) << LastError();
      std::string s = ReadFileBytes(path);
      ASSERT_EQ(s.substr(0, 8), std::string("\x93NUMPY\x01\x00", 8));
      size_t hlen = static_cast<unsigned char>(s[8]) | (static_cast<unsigned char>(s[9]) << 8);
      EXPECT_EQ((10 + hlen) % 64, 0u);
      EXPECT_EQ(s[9 + hlen], '\n');
      EXPECT_EQ(s.size(), 10 + hlen + data.size());
      TestImage r = ReadImage(path);
      EXPECT_TRUE(r.type == type && r.dims == dims && r.data == data) << type << " " << dims.size();
      std::remove(path.c_str());
    }
  }
  // The shape lists the slowest axis first.
  WriteImage(dir / "s.npy", TypeReal32, {4, 3, 2}, std::vector<float>(24));
  EXPECT_EQ(ReadFileBytes(dir / "s.npy").find(Dict("<f4", "(2, 3, 4)")), 10u);
}

TEST_F(ImageioTest, NpyVersionsByteOrderAndKinds) {
  std::vector<int32_t> v = {1, -2, 3, -4, 5, -6};
  for (int major : {1, 2, 3}) {
    WriteFileBytes(dir / "v.npy", Npy(Dict("<i4", "(2, 3)"), Bytes(v), major));
    TestImage r = ReadImage(dir / "v.npy");
    EXPECT_EQ(r.dims, (Dims{3, 2})) << major;
    EXPECT_EQ(r.as<int32_t>(), v);
  }
  // Big-endian, odd spacing, double quotes, old-style L suffixes, no final newline, trailing bytes.
  std::string be;
  for (int32_t x : v) for (int k = 3; k >= 0; --k) be += static_cast<char>(static_cast<uint32_t>(x) >> (8 * k));
  std::string hdr = "{\"shape\":(2L,3L),\"descr\":\">i4\",   \"fortran_order\" : False}";
  WriteFileBytes(dir / "be.npy", std::string("\x93NUMPY\x01\x00", 8) + static_cast<char>(hdr.size()) + '\0' + hdr + be + "extra");
  for (const char *caps : {"mmap", "read"}) {
    ImageDesc d{};
    ImageioHandle *h = OpenRead(dir / "be.npy", &d, nullptr, caps);
    ASSERT_NE(h, nullptr) << LastError();
    std::string le = Bytes(v);
    EXPECT_EQ(ReadBlock(h, TypeInt32, 1, 4), std::vector<unsigned char>(le.begin() + 4, le.begin() + 20));
    ImageioClose(h);
  }
  // In place it stays big-endian.
  ASSERT_EQ(Rewrite<int32_t>(dir / "be.npy", 5, 1, [](int32_t) { return 0x01020304; }), 0u);
  std::string after = ReadFileBytes(dir / "be.npy");
  EXPECT_EQ(after.substr(after.size() - 9, 4), std::string("\x01\x02\x03\x04", 4));
  // bool, float16 (rewritten in place only with -cap half), 0-d, more than four axes: those of length 1
  // dropped, then the slowest folded (tests/platform/imageio_interop_test.cpp has NumPy's own files).
  WriteFileBytes(dir / "b1.npy", Npy(Dict("|b1", "(3,)"), std::string("\x01\x00\x01", 3)));
  EXPECT_EQ(ReadImage(dir / "b1.npy").as<uint8_t>(), (std::vector<uint8_t>{1, 0, 1}));
  WriteFileBytes(dir / "f2.npy", Npy(Dict("<f2", "(3,)"), Bytes(std::vector<uint16_t>{0x3c00, 0xbc00, 0x7bff})));
  TestImage r = ReadImage(dir / "f2.npy");
  EXPECT_EQ(r.type, TypeReal32);
  EXPECT_EQ(r.as<float>(), (std::vector<float>{1.0f, -1.0f, 65504.0f}));
  EXPECT_EQ(Rewrite<float>(dir / "f2.npy", 0, 1, [](float x) { return x; }), E_IMAGEIO_TYPE);
  WriteFileBytes(dir / "s0.npy", Npy(Dict("<f8", "()"), Bytes(std::vector<double>{2.5})));
  EXPECT_EQ(ReadImage(dir / "s0.npy").dims, Dims{1});
  WriteFileBytes(dir / "s6.npy", Npy(Dict("|u1", "(1, 1, 2, 1, 3, 2)"), std::string(12, '\x07')));
  EXPECT_EQ(ReadImage(dir / "s6.npy").dims, (Dims{2, 3, 1, 2}));
  WriteFileBytes(dir / "s5.npy", Npy(Dict("|u1", "(2, 1, 1, 1, 2)"), std::string(4, '\x07')));
  EXPECT_EQ(ReadImage(dir / "s5.npy").dims, (Dims{2, 1, 1, 2}));
  WriteFileBytes(dir / "s7.npy", Npy(Dict("|u1", "(4294967296, 4294967296, 2, 2, 2)"), ""));
  ExpectOpenFails(dir / "s7.npy", E_IMAGEIO_SIZE, "overflows");
}

TEST_F(ImageioTest, NpyColumnMajorReadAndRewrite) {
  // The logical array a[i][j][k] = 100 i + 10 j + k of shape (2, 3, 4), stored column-major.
  std::vector<int16_t> fortran, c_order;
  for (int k = 0; k < 4; ++k)
    for (int j = 0; j < 3; ++j)
      for (int i = 0; i < 2; ++i) fortran.push_back(static_cast<int16_t>(100 * i + 10 * j + k));
  for (int i = 0; i < 24; ++i) c_order.push_back(static_cast<int16_t>(100 * (i / 12) + 10 * (i / 4 % 3) + i % 4));
  WriteFileBytes(dir / "f.npy", Npy(Dict("<i2", "(2, 3, 4)", "True"), Bytes(fortran)));
  for (const char *caps : {"mmap", "read"}) {
    ImageDesc d{};
    ImageioHandle *h = OpenRead(dir / "f.npy", &d, nullptr, caps);
    ASSERT_NE(h, nullptr) << LastError();
    EXPECT_EQ(Dims(d.len, d.len + d.dim), (Dims{4, 3, 2}));
    for (long first : {0, 5, 13})  // blocks that start and end inside rows
      EXPECT_EQ(ReadBlock(h, TypeInt16, first, 9), (std::vector<unsigned char>(
          reinterpret_cast<unsigned char *>(&c_order[first]), reinterpret_cast<unsigned char *>(&c_order[first + 9]))));
    ImageioClose(h);
  }
  // In place the elements go back to their column-major places.
  ASSERT_EQ(Rewrite<int16_t>(dir / "f.npy", 4, 8, [](int16_t x) { return static_cast<int16_t>(-x); }), 0u);
  for (size_t i = 4; i < 12; ++i) c_order[i] = static_cast<int16_t>(-c_order[i]);
  EXPECT_EQ(ReadImage(dir / "f.npy").as<int16_t>(), c_order);
  WriteFileBytes(dir / "v.npy", Npy(Dict("<i2", "(1, 3)", "True"), Bytes(std::vector<int16_t>{1, 2, 3})));
  EXPECT_EQ(ReadImage(dir / "v.npy").as<int16_t>(), (std::vector<int16_t>{1, 2, 3}));
}

const std::string kData(24, '\0');  // 2 x 3 float32

TEST_F(ImageioTest, NpyMalformedHeaders) {
  const std::string good = Npy(Dict("<f4", "(2, 3)"), kData);
  ExpectHostile(dir, good, ".npy", {
      {[](std::string &s) { s = Npy("{'descr': '<f4', 'shape': (2, 3), }", kData); }, E_IMAGEIO_HEADER, "missing key"},
      {[](std::string &s) { s = Npy(Dict("<f4", "(2, 3)") + "'x': 1}", kData); }, E_IMAGEIO_HEADER, "after the dict"},
      {[](std::string &s) { s = Npy("{'descr': '<f4', 'fortran_order': False, 'shape': (2, 3), 'x': 1}", kData); }, E_IMAGEIO_HEADER, "'x'"},
      {[](std::string &s) { s = Npy("{'descr': '<f4', 'descr': '<f4', 'fortran_order': False, 'shape': (2, 3)}", kData); }, E_IMAGEIO_HEADER, "repeated"},
      {[](std::string &s) { s = Npy(Dict("<f4", "(2, -3)"), kData); }, E_IMAGEIO_HEADER, "negative"},
      {[](std::string &s) { s = Npy(Dict("<f4", "(2.5, 3)"), kData); }, E_IMAGEIO_HEADER, "shape"},
      {[](std::string &s) { s = Npy(Dict("<f4", "[2, 3]"), kData); }, E_IMAGEIO_HEADER, "tuple"},
      {[](std::string &s) { s = Npy(Dict("<f4", "(99999999999999999999, 3)"), kData); }, E_IMAGEIO_SIZE, "overflow"},
      {[](std::string &s) { s = Npy(Dict("<f4", "(4294967296, 4294967296)"), kData); }, E_IMAGEIO_SIZE, "overflow"},
      {[](std::string &s) { s = Npy(Dict("<f4", "(2, 3)", "0"), kData); }, E_IMAGEIO_HEADER, "True or False"},
      {[](std::string &s) { s = Npy(Dict("<U4", "(2, 3)"), kData); }, E_IMAGEIO_TYPE, "'<U4'"},
      {[](std::string &s) { s = Npy("{'descr': [('a', '<f4')], 'fortran_order': False, 'shape': (2, 3), }", kData); }, E_IMAGEIO_HEADER, "descr"},
      {[](std::string &s) { s = Npy(Dict("f4", "(2, 3)"), kData); }, E_IMAGEIO_TYPE, "not supported"},
      {[](std::string &s) { s = Npy("{'descr': '<f4' 'fortran_order': False, 'shape': (2, 3), }", kData); }, E_IMAGEIO_HEADER, "NPY header"},
      {[](std::string &s) { s = Npy("['descr', '<f4']", kData); }, E_IMAGEIO_HEADER, "not a dict"},
      {[](std::string &s) { s = Npy(Dict("<f8", "(2, 3)"), kData); }, E_IMAGEIO_READ, "shorter than its header"},
      {[](std::string &s) { s[6] = 4; }, E_IMAGEIO_HEADER, "version 4"},
      {[](std::string &s) { s[8] = '\xff', s[9] = '\x7f'; }, E_IMAGEIO_HEADER, "past the end"},
      {[](std::string &s) { s.resize(9); }, E_IMAGEIO_HEADER, "too short"}});
  ExpectOpenFails(dir / "h18.npy", E_IMAGEIO_HEADER, "too short", "npy");
}

}  // namespace
