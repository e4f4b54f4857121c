// Little-endian and big-endian loads and stores of header fields.
#pragma once
#include <cstdint>
#include <cstring>

inline uint32_t ImageioGet32(const unsigned char *p, bool big) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return big ? __builtin_bswap32(v) : v;
}
inline uint64_t ImageioGet64(const unsigned char *p, bool big) {
  uint64_t v;
  std::memcpy(&v, p, 8);
  return big ? __builtin_bswap64(v) : v;
}
inline void ImageioPut32(unsigned char *p, uint32_t v, bool big) {
  if (big) v = __builtin_bswap32(v);
  std::memcpy(p, &v, 4);
}
inline void ImageioPut64(unsigned char *p, uint64_t v, bool big) {
  if (big) v = __builtin_bswap64(v);
  std::memcpy(p, &v, 8);
}
inline float ImageioGetF32(const unsigned char *p, bool big) {
  uint32_t v = ImageioGet32(p, big);
  float f;
  std::memcpy(&f, &v, 4);
  return f;
}
inline void ImageioPutF32(unsigned char *p, float f, bool big) {
  uint32_t v;
  std::memcpy(&v, &f, 4);
  ImageioPut32(p, v, big);
}
inline double ImageioGetF64(const unsigned char *p, bool big) {
  uint64_t v = ImageioGet64(p, big);
  double f;
  std::memcpy(&f, &v, 8);
  return f;
}
inline void ImageioPutF64(unsigned char *p, double f, bool big) {
  uint64_t v;
  std::memcpy(&v, &f, 8);
  ImageioPut64(p, v, big);
}
