// Helpers shared by the image-file library tests.
#pragma once
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "platform/core/array.h"
#include "platform/core/core.h"
#include "platform/core/errors.h"
#include "platform/core/types.h"
#include "platform/imageio/imageio.h"
#include "support.h"

inline const uint32_t kAllTypes[14] = {TypeUint8, TypeUint16, TypeUint32, TypeUint64, TypeInt8,
                                        TypeInt16, TypeInt32, TypeInt64, TypeReal32, TypeReal64,
                                        TypeImag32, TypeImag64, TypeCmplx32, TypeCmplx64};

// The error tests look at: its code and its full text (message, path, reason).
inline std::string LastError() { return ExceptionCount() ? ExceptionText(ExceptionCount() - 1) : ""; }

struct ImageioTest : testing::Test {
  void SetUp() override {
    static bool registered = false;
    if (!registered) {
      ImageioModule.function();
      registered = true;
    }
    ExceptionClear();
  }
  void TearDown() override { ExceptionClear(); }
  TempDir dir;
};

// Deterministic bytes for count elements of a type (every byte pattern appears, including NaNs).
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

inline uint64_t Count(const std::vector<uint64_t> &dims) {
  uint64_t n = 1;
  for (uint64_t d : dims) n *= d;
  return n;
}

// Create an image with explicit parameters and write it in one block; true on success.
inline bool WriteWith(const std::string &path, uint32_t type, std::vector<uint64_t> dims, const void *data,
                      const ImageioParam &param, const ImageioGeometry *geom = nullptr, uint32_t attr = 0) {
  ImageDesc desc{dims.size(), dims.data(), reinterpret_cast<uint64_t>(geom), type, attr};
  ImageioHandle *h = ImageioCreate(path.c_str(), &desc, &param);
  if (!h) return false;
  uint64_t n = Count(dims);
  if (n) {
    void *b = ImageioBeginWrite(h, 0, n);
    if (!b) return false;
    std::memcpy(b, data, n * (type & 0xff));
    if (ImageioEndWrite(h, 0, n, b)) return false;
  }
  return ImageioClose(h) == 0;
}

// Open for reading; null with the error left on the stack.
inline ImageioHandle *OpenRead(const std::string &path, ImageDesc *desc, const char *format = nullptr,
                               uint32_t caps = 0) {
  ImageioParam p = ImageioParamDefault;
  p.format = format;
  p.caps = caps;
  return ImageioOpenReadOnly(path.c_str(), desc, &p);
}

// Read elements first..first+count-1 of an open image into a vector.
inline std::vector<unsigned char> ReadBlock(ImageioHandle *h, uint32_t type, uint64_t first, uint64_t count) {
  std::vector<unsigned char> v(count * (type & 0xff));
  void *b = ImageioBeginRead(h, first, count);
  EXPECT_NE(b, nullptr) << LastError();
  if (!b) return {};
  if (count) std::memcpy(v.data(), b, v.size());
  EXPECT_EQ(ImageioEndRead(h, first, count, b), 0u);
  return v;
}

// Little-endian field access on raw file bytes.
inline void Put32(std::string &s, size_t off, uint32_t v) { std::memcpy(&s[off], &v, 4); }
inline void Put64(std::string &s, size_t off, uint64_t v) { std::memcpy(&s[off], &v, 8); }
inline void PutF(std::string &s, size_t off, float v) { std::memcpy(&s[off], &v, 4); }
inline uint32_t Get32(const std::string &s, size_t off) {
  uint32_t v;
  std::memcpy(&v, s.data() + off, 4);
  return v;
}
inline int32_t GetI32(const std::string &s, size_t off) { return static_cast<int32_t>(Get32(s, off)); }
inline float GetF(const std::string &s, size_t off) {
  float v;
  std::memcpy(&v, s.data() + off, 4);
  return v;
}

// Expect opening to fail with this code and a text that contains the given part and the path.
inline void ExpectOpenFails(const std::string &path, uint32_t code, const std::string &part,
                            const char *format = nullptr) {
  ExceptionClear();
  ImageDesc d{};
  ImageioHandle *h = OpenRead(path, &d, format);
  EXPECT_EQ(h, nullptr) << path;
  if (h) {
    ImageioClose(h);
    return;
  }
  EXPECT_EQ(ExceptionGet(1), code) << LastError();
  EXPECT_NE(LastError().find(part), std::string::npos) << LastError();
  EXPECT_NE(LastError().find(path), std::string::npos) << LastError();
  ExceptionClear();
}
