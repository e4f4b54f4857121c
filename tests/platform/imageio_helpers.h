// Helpers shared by the image-file library tests.
#pragma once
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <numeric>
#include <string>
#include <vector>

#include "platform/core/core.h"
#include "platform/core/errors.h"
#include "platform/core/types.h"
#include "platform/imageio/imageio.h"
#include "support.h"

using Dims = std::vector<uint64_t>;

inline const uint32_t kAllTypes[14] = {TypeUint8, TypeUint16, TypeUint32, TypeUint64, TypeInt8,
                                        TypeInt16, TypeInt32, TypeInt64, TypeReal32, TypeReal64,
                                        TypeImag32, TypeImag64, TypeCmplx32, TypeCmplx64};
// Shapes of 1-4 axes, zero lengths included.
inline const std::vector<Dims> kShapes = {{7}, {5, 3}, {4, 3, 2}, {3, 2, 2, 3}, {0}, {4, 0, 2}, {2, 1, 1, 0}};

inline std::string LastError() { return ExceptionCount() ? ExceptionText(ExceptionCount() - 1) : ""; }

struct ImageioTest : testing::Test {
  void SetUp() override {
    static uint32_t registered = ImageioModule.function();
    (void)registered;
    ExceptionClear();
  }
  void TearDown() override { ExceptionClear(); }
  TempDir dir;
};

// Deterministic bytes for count elements of a type (every byte pattern appears, NaNs included).
inline std::vector<unsigned char> Pattern(uint32_t type, uint64_t count, unsigned seed = 1) {
  std::vector<unsigned char> v(count * (type & 0xff));
  uint32_t x = 2463534242u + seed;
  for (auto &b : v) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    b = static_cast<unsigned char>(x >> 11);
  }
  return v;
}

inline uint64_t Count(const Dims &dims) { return std::accumulate(dims.begin(), dims.end(), uint64_t{1}, std::multiplies<>()); }

inline ImageioParam Caps(const char *caps, uint32_t flags = 0, const char *format = nullptr) {
  return {0, format, flags, caps ? ImageioCapCheck(caps) : 0u};
}

// Create an image with explicit parameters and write it in one block; true on success.
inline bool WriteWith(const std::string &path, uint32_t type, Dims dims, const void *data,
                      const ImageioParam &param, const ImageioGeometry *geom = nullptr, uint32_t attr = 0) {
  ImageDesc desc{dims.size(), dims.data(), reinterpret_cast<uint64_t>(geom), type, attr};
  ImageioHandle *h = ImageioCreate(path.c_str(), &desc, &param);
  if (!h) return false;
  if (uint64_t n = Count(dims)) {
    void *b = ImageioBeginWrite(h, 0, n);
    if (!b) return false;
    std::memcpy(b, data, n * (type & 0xff));
    if (ImageioEndWrite(h, 0, n, b)) return false;
  }
  return ImageioClose(h) == 0;
}

inline ImageioHandle *OpenRead(const std::string &path, ImageDesc *desc, const char *format = nullptr,
                               const char *caps = nullptr) {
  ImageioParam p = Caps(caps, 0, format);
  return ImageioOpenReadOnly(path.c_str(), desc, &p);
}

inline std::vector<unsigned char> ReadBlock(ImageioHandle *h, uint32_t type, uint64_t first, uint64_t count) {
  std::vector<unsigned char> v(count * (type & 0xff));
  void *b = ImageioBeginRead(h, first, count);
  EXPECT_NE(b, nullptr) << LastError();
  if (b && count) std::memcpy(v.data(), b, v.size());
  EXPECT_EQ(b ? ImageioEndRead(h, first, count, b) : 0u, 0u);
  return v;
}

// Rewrites elements first..first+n-1 of a file in place with f(old value).
template <class T, class F>
uint32_t Rewrite(const std::string &path, uint64_t first, uint64_t n, F f, const char *caps = nullptr) {
  ImageioParam p = Caps(caps);
  ImageDesc d{};
  ImageioHandle *h = ImageioOpenReadWrite(path.c_str(), &d, &p);
  if (!h) return ExceptionGet(1);
  auto *b = static_cast<T *>(ImageioBeginRead(h, first, n));
  if (!b) return ExceptionGet(1);
  for (uint64_t i = 0; i < n; ++i) b[i] = f(b[i]);
  uint32_t st = ImageioEndWrite(h, first, n, b);
  return ImageioClose(h) | st;
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
inline void ExpectOpenFails(const std::string &path, uint32_t code, const std::string &part,
                            const char *format = nullptr) {
  ExceptionClear();
  ImageDesc d{};
  ImageioHandle *h = OpenRead(path, &d, format);
  EXPECT_EQ(h ? ImageioClose(h) : 1u, 1u) << path << " opened";
  EXPECT_NE(LastError().find(path), std::string::npos) << LastError();
  ExpectError(code, part);
}

// A damaged variant of a good file and what opening it must report.
struct Hostile { void (*patch)(std::string &); uint32_t code; const char *part; };
inline void ExpectHostile(const TempDir &dir, const std::string &good, const char *ext,
                          std::initializer_list<Hostile> cases) {
  int i = 0;
  for (const Hostile &c : cases) {
    std::string s = good, path = dir / ("h" + std::to_string(i++) + ext);
    c.patch(s);
    WriteFileBytes(path, s);
    ExpectOpenFails(path, c.code, c.part);
  }
}
