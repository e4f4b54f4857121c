// Stored elements and the elements callers see. Writable files store elements as callers see them,
// byte-swapped at most, or real32 as binary16; int16 pairs are read only. The binary16 conversions
// work on the bits: the process flushes subnormal binary32 values, and nothing here may depend on it.
#include "platform/imageio/stored_elements.h"

#include <cstring>

#include "platform/imageio/format.h"

namespace {

void SwapUnits(unsigned char *p, uint64_t bytes, uint32_t unit) {
  switch (unit) {
    case 2:
      for (uint64_t i = 0; i + 2 <= bytes; i += 2) {
        uint16_t v;
        std::memcpy(&v, p + i, 2);
        v = __builtin_bswap16(v);
        std::memcpy(p + i, &v, 2);
      }
      break;
    case 4:
      for (uint64_t i = 0; i + 4 <= bytes; i += 4) {
        uint32_t v;
        std::memcpy(&v, p + i, 4);
        v = __builtin_bswap32(v);
        std::memcpy(p + i, &v, 4);
      }
      break;
    case 8:
      for (uint64_t i = 0; i + 8 <= bytes; i += 8) {
        uint64_t v;
        std::memcpy(&v, p + i, 8);
        v = __builtin_bswap64(v);
        std::memcpy(p + i, &v, 8);
      }
      break;
    default:
      break;
  }
}

// binary16 to binary32 (exact; subnormal halves become normal binary32 values).
float HalfToFloat(uint16_t h) {
  uint32_t sign = static_cast<uint32_t>(h & 0x8000u) << 16;
  uint32_t exp = (h >> 10) & 0x1fu, man = h & 0x3ffu, bits;
  if (exp == 0) {
    if (man == 0) {
      bits = sign;
    } else {
      // Subnormal half: normalise; every one is a normal binary32 value.
      uint32_t e = 0;
      while (!(man & 0x400u)) {
        man <<= 1;
        ++e;
      }
      bits = sign | ((113u - e) << 23) | ((man & 0x3ffu) << 13);
    }
  } else if (exp == 31) {
    bits = sign | 0x7f800000u | (man << 13);
  } else {
    bits = sign | ((exp + 112u) << 23) | (man << 13);
  }
  float f;
  std::memcpy(&f, &bits, 4);
  return f;
}

// binary32 to binary16, rounded to nearest even: too large for binary16 gives infinity, too small a
// signed zero, between them a subnormal half; a NaN stays a NaN with the top bits of its payload
// (made non-zero), as NumPy converts.
uint16_t FloatToHalf(uint32_t f) {
  uint16_t sign = static_cast<uint16_t>((f >> 16) & 0x8000u);
  uint32_t exp = f & 0x7f800000u, man = f & 0x7fffffu;
  if (exp == 0x7f800000u) {
    if (man == 0) return sign | 0x7c00u;
    uint16_t nan = static_cast<uint16_t>(0x7c00u | (man >> 13));
    return sign | (nan == 0x7c00u ? 0x7c01u : nan);
  }
  if (exp >= 0x47800000u) return sign | 0x7c00u;  // 65536 and above
  if (exp <= 0x38000000u) {
    // Below 2^-14: a subnormal half (or zero), 2^-24 units; rounding may carry into the smallest normal.
    if (exp < 0x33000000u) return sign;
    uint32_t e = exp >> 23, sig = man | 0x800000u, shift = 126 - e;  // shift 14 .. 24
    uint32_t half = sig >> shift, rest = sig & ((1u << shift) - 1), tie = 1u << (shift - 1);
    if (rest > tie || (rest == tie && (half & 1))) ++half;
    return sign | static_cast<uint16_t>(half);
  }
  uint32_t bits = ((exp - 0x38000000u) >> 13) | (man >> 13), rest = man & 0x1fffu;
  if (rest > 0x1000u || (rest == 0x1000u && (bits & 1))) ++bits;  // a carry may reach infinity: right
  return sign | static_cast<uint16_t>(bits);
}

uint16_t Load16(const unsigned char *p, bool swap) {
  uint16_t v;
  std::memcpy(&v, p, 2);
  return swap ? __builtin_bswap16(v) : v;
}

// Stored elements at src (count of them) into caller elements at dst. dst may start at the same
// address as src or below it, as long as every stored element lies at or above its converted
// element: each element is loaded before its converted form is stored.
void ConvertIn(const ImageioHandle *h, const unsigned char *src, unsigned char *dst, uint64_t count) {
  bool swap = h->big_endian;
  switch (h->conv) {
    case ImageioConvSwap:
      if (src != dst) std::memmove(dst, src, count * h->esize);
      SwapUnits(dst, count * h->esize, h->swap_unit);
      break;
    case ImageioConvHalf:
      for (uint64_t i = 0; i < count; ++i) {
        float f = HalfToFloat(Load16(src + 2 * i, swap));
        std::memcpy(dst + 4 * i, &f, 4);
      }
      break;
    case ImageioConvCint16:
      for (uint64_t i = 0; i < count; ++i) {
        int16_t re = static_cast<int16_t>(Load16(src + 4 * i, swap));
        int16_t im = static_cast<int16_t>(Load16(src + 4 * i + 2, swap));
        float v[2] = {static_cast<float>(re), static_cast<float>(im)};
        std::memcpy(dst + 8 * i, v, 8);
      }
      break;
    default:
      if (src != dst) std::memmove(dst, src, count * h->esize);
      break;
  }
}

// Strides of the stored (axis-reversed) layout for each image axis, in stored elements.
// The axes of an opened image have fewer than 2^64 elements: at most 63 of them are longer than 1.
constexpr size_t kMaxAxes = 64;

// Walk image elements first .. first+count-1 of an axis-reversed file, calling f(element, stored index).
template <class F>
void FortranWalk(const ImageioHandle *h, uint64_t first, uint64_t count, F f) {
  const bool stored = !h->stored_len.empty();
  const uint64_t *len = stored ? h->stored_len.data() : h->len, n = stored ? h->stored_len.size() : h->dim;
  uint64_t stride[kMaxAxes], idx[kMaxAxes], s = 1;
  for (uint64_t k = n; k-- > 0;) {
    stride[k] = s;
    s *= len[k];
  }
  uint64_t rest = first, off = 0;
  for (uint64_t k = 0; k < n; ++k) {
    idx[k] = rest % len[k];
    rest /= len[k];
    off += idx[k] * stride[k];
  }
  for (uint64_t e = 0; e < count; ++e) {
    f(e, off);
    for (uint64_t k = 0; k < n; ++k) {
      off += stride[k];
      if (++idx[k] < len[k]) break;
      off -= stride[k] * len[k];
      idx[k] = 0;
    }
  }
}

}  // namespace

uint32_t ImageioFill(ImageioHandle *h, uint64_t first, uint64_t count, unsigned char *dst) {
  // Stored elements are gathered or read into the tail of dst, then widened towards its start.
  uint64_t raw = count * h->file_esize, bytes = count * h->esize;
  unsigned char *tail = dst + (bytes - raw);
  if (h->format->read_elements) {
    if (uint32_t st = h->format->read_elements(h, first, count, tail)) return st;
    ConvertIn(h, tail, dst, count);
  } else if (h->fortran) {
    const unsigned char *base = h->map + h->data_offset;
    uint32_t fs = h->file_esize;
    FortranWalk(h, first, count, [&](uint64_t e, uint64_t off) { std::memcpy(tail + e * fs, base + off * fs, fs); });
    ConvertIn(h, tail, dst, count);
  } else if (h->map) {
    ConvertIn(h, h->map + h->data_offset + first * h->file_esize, dst, count);
  } else {
    if (uint32_t st = ImageioReadAt(h, h->data_offset + first * h->file_esize, tail, raw)) return st;
    ConvertIn(h, tail, dst, count);
  }
  return 0;
}

void ImageioRoundToHalf(unsigned char *p, uint64_t count) {
  for (uint64_t i = 0; i < count; ++i) {
    uint32_t f;
    std::memcpy(&f, p + 4 * i, 4);
    float v = HalfToFloat(FloatToHalf(f));
    std::memcpy(p + 4 * i, &v, 4);
  }
}

uint32_t ImageioStore(ImageioHandle *h, uint64_t first, uint64_t count, unsigned char *src) {
  if (h->conv == ImageioConvSwap) SwapUnits(src, count * h->esize, h->swap_unit);
  if (h->format->write_elements) return h->format->write_elements(h, first, count, src);
  if (h->conv == ImageioConvHalf) {
    // Packed towards the start: each element is loaded before its half overwrites anything.
    for (uint64_t i = 0; i < count; ++i) {
      uint32_t f;
      std::memcpy(&f, src + 4 * i, 4);
      uint16_t v = FloatToHalf(f);
      if (h->big_endian) v = __builtin_bswap16(v);
      std::memcpy(src + 2 * i, &v, 2);
    }
  }
  const uint32_t fs = h->file_esize;
  if (h->fortran) {
    unsigned char *base = h->map + h->data_offset;
    FortranWalk(h, first, count, [&](uint64_t e, uint64_t off) { std::memcpy(base + off * fs, src + e * fs, fs); });
    return 0;
  }
  if (h->map) {
    std::memcpy(h->map + h->data_offset + first * fs, src, count * fs);
    return 0;
  }
  return ImageioWriteAt(h, h->data_offset + first * fs, src, count * fs);
}
