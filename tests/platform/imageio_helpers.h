// Helpers shared by the image-file library tests.
#pragma once
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "platform/core/errors.h"
#include "platform/core/types.h"
#include "platform/imageio/imageio.h"
#include "support.h"

using Dims = std::vector<uint64_t>;

struct ImageioTest : testing::Test {
  void SetUp() override { ExceptionClear(); }
  void TearDown() override { ExceptionClear(); }
  TempDir dir;
};

inline ImageioParam Caps(const char *caps, uint32_t flags = 0, const char *format = nullptr) {
  return {0, format, flags, caps ? ImageioCapCheck(caps) : 0u};
}

inline ImageioHandle *OpenRead(const std::string &path, ImageDesc *desc, const char *format = nullptr,
                               const char *caps = nullptr) {
  ImageioParam p = Caps(caps, 0, format);
  return ImageioOpenReadOnly(path.c_str(), desc, &p);
}

inline std::vector<unsigned char> ReadBlock(ImageioHandle *h, uint32_t type, uint64_t first, uint64_t count) {
  std::vector<unsigned char> v(count * TypeSize(type));
  void *b = ImageioBeginRead(h, first, count);
  EXPECT_NE(b, nullptr) << LastError();
  if (b && count) std::memcpy(v.data(), b, v.size());
  EXPECT_EQ(b ? ImageioEndRead(h, first, count, b) : 0u, 0u);
  return v;
}

// Raw file bytes: values in host (little-endian) order.
template <class T> std::string Bytes(const std::vector<T> &v) { return {reinterpret_cast<const char *>(v.data()), v.size() * sizeof(T)}; }
inline void Put32(std::string &s, size_t off, uint32_t v) { std::memcpy(&s[off], &v, 4); }
inline void Put64(std::string &s, size_t off, uint64_t v) { std::memcpy(&s[off], &v, 8); }
template <class T = uint32_t> T Get(const std::string &s, size_t off) {
  T v;
  std::memcpy(&v, s.data() + off, sizeof v);
  return v;
}

// Expect the last error to have this code and a text that holds the part; clears the errors.
inline void ExpectError(uint32_t code, const std::string &part = "") {
  EXPECT_EQ(ExceptionGet(1), code) << LastError();
  EXPECT_NE(LastError().find(part), std::string::npos) << LastError();
  ExceptionClear();
}

// Expect opening to fail with this code and a text that holds the given part and the path.
inline void ExpectOpenFails(const std::string &path, uint32_t code, const std::string &part, const char *format = nullptr) {
  ExceptionClear();
  ImageDesc d{};
  ImageioHandle *h = OpenRead(path, &d, format);
  EXPECT_EQ(h ? ImageioClose(h) : 1u, 1u) << path << " opened";
  EXPECT_NE(LastError().find(path), std::string::npos) << LastError();
  ExpectError(code, part);
}

// A little- or big-endian MRC2014 header for nx x ny x nz elements of a mode, then the data.
inline std::string MrcHeader(int32_t nx, int32_t ny, int32_t nz, int32_t mode, bool big = false, std::string data = "") {
  std::string s(1024, '\0');
  for (auto [off, v] : {std::pair{0, nx}, {4, ny}, {8, nz}, {12, mode}, {28, nx}, {32, ny}, {36, nz}, {64, 1}, {68, 2},
                        {72, 3}, {88, 1}, {108, 20141}})
    Put32(s, off, big ? __builtin_bswap32(static_cast<uint32_t>(v)) : static_cast<uint32_t>(v));
  return s.replace(208, 6, big ? "MAP \x11\x11" : "MAP DD") + data;
}

