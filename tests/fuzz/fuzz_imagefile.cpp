// Fuzz target for the image-file readers: the input is written to a file and opened with the format
// named by ZV_FUZZ_FORMAT (or detected by content). A file that opens is read block by block, mapped
// and through the buffer, with its elements loaded as their own type (so that a misaligned block is a
// sanitizer report), copied into a new file of every format that can hold it, and rewritten in
// place, which recomputes header statistics and labels.
#include <fcntl.h>
#include <unistd.h>

#include <complex>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/core/array.h"
#include "platform/core/core.h"
#include "platform/core/errors.h"
#include "platform/core/fpu.h"
#include "platform/core/types.h"
#include "platform/imageio/imageio.h"

#ifndef ZV_FUZZ_FORMAT
#define ZV_FUZZ_FORMAT nullptr
#endif

namespace {

std::string TempPath(const char *suffix) {
  const char *tmp = getenv("TMPDIR");
  return std::string(tmp ? tmp : "/tmp") + "/zvfuzz-" + std::to_string(getpid()) + suffix;
}

void Setup() {
  static bool ready = false;
  if (ready) return;
  ready = true;
  CoreSetFlushToZero();
  ImageioModule.function();
  ImageioSetHistory("zvcompute fuzz");
}

bool WriteFile(const std::string &path, const uint8_t *data, size_t size) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (fd < 0) return false;
  bool ok = write(fd, data, size) == static_cast<ssize_t>(size);
  close(fd);
  return ok;
}

// Loads the first and last element of a block as their type; the sum is only kept alive.
template <class T>
double Touch(const void *p, uint64_t n) {
  const T *v = static_cast<const T *>(p);
  if constexpr (sizeof(T) == 8 || sizeof(T) == 16) {
    T a = v[0], b = v[n - 1];
    return (a == a ? 1.0 : 0.0) + (b == b ? 1.0 : 0.0);
  } else {
    return static_cast<double>(v[0]) + static_cast<double>(v[n - 1]);
  }
}

double TouchBlock(uint32_t type, const void *p, uint64_t n) {
  switch (type) {
    case TypeUint8: return Touch<uint8_t>(p, n);
    case TypeUint16: return Touch<uint16_t>(p, n);
    case TypeUint32: return Touch<uint32_t>(p, n);
    case TypeUint64: return Touch<uint64_t>(p, n);
    case TypeInt8: return Touch<int8_t>(p, n);
    case TypeInt16: return Touch<int16_t>(p, n);
    case TypeInt32: return Touch<int32_t>(p, n);
    case TypeInt64: return Touch<int64_t>(p, n);
    case TypeReal32: case TypeImag32: return Touch<float>(p, n);
    case TypeReal64: case TypeImag64: return Touch<double>(p, n);
    case TypeCmplx32: return Touch<std::complex<float>>(p, n);
    case TypeCmplx64: return Touch<std::complex<double>>(p, n);
    default: return 0;
  }
}

volatile double gSink;

// Every block of an opened image; read-write images get each block back unchanged.
void Walk(ImageioHandle *h, const ImageDesc &desc, bool rewrite) {
  uint64_t count = 0;
  if (desc.dim < 1 || desc.dim > 4 || ArrayOffset(desc.dim, desc.len, TypeSize(desc.type), &count) != 0) return;
  const uint64_t block = 1 << 16;
  for (uint64_t first = 0; first < count; first += block) {
    uint64_t n = count - first < block ? count - first : block;
    void *buf = ImageioBeginRead(h, first, n);
    if (!buf) return;
    gSink = gSink + TouchBlock(desc.type, buf, n);
    if (rewrite ? ImageioEndWrite(h, first, n, buf) : ImageioEndRead(h, first, n, buf)) return;
  }
}

// Copies an opened image into a new file of each format that can hold it: header writing, labels,
// geometry and statistics of arbitrary values.
void CopyOut(ImageioHandle *src, const ImageDesc &desc, const std::string &base) {
  uint64_t count = 0;
  if (ArrayOffset(desc.dim, desc.len, TypeSize(desc.type), &count) != 0) return;
  for (uint32_t i = 0; const char *fmt = ImageioFormatName(i); ++i) {
    ImageioParam param = ImageioParamDefault;
    param.format = fmt;
    ImageioHandle *dst = ImageioCreate((base + "." + fmt).c_str(), &desc, &param);
    if (!dst) {
      ExceptionClear();
      continue;
    }
    const uint64_t block = 1 << 16;
    for (uint64_t first = 0; first < count; first += block) {
      uint64_t n = count - first < block ? count - first : block;
      void *in = ImageioBeginRead(src, first, n);
      void *out = in ? ImageioBeginWrite(dst, first, n) : nullptr;
      if (out) std::memcpy(out, in, n * TypeSize(desc.type));
      if (in) ImageioEndRead(src, first, n, in);
      if (!out || ImageioEndWrite(dst, first, n, out)) break;
    }
    ImageioClose(dst);
    ExceptionClear();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  Setup();
  const std::string path = TempPath(".in"), copy = TempPath(".rw");
  if (!WriteFile(path, data, size)) return 0;
  for (const char *caps : {"mmap", "read"}) {
    ImageioParam param = ImageioParamDefault;
    param.format = ZV_FUZZ_FORMAT;
    param.caps = ImageioCapCheck(caps);
    ImageDesc desc{};
    ImageioHandle *h = ImageioOpenReadOnly(path.c_str(), &desc, &param);
    ExceptionClear();
    if (!h) {  // the second strategy opens the same header: no need to try it
      unlink(path.c_str());
      return 0;
    }
    Walk(h, desc, false);
    if (std::strcmp(caps, "mmap") == 0) CopyOut(h, desc, TempPath(".out"));
    ImageioClose(h);
    ExceptionClear();
  }
  // In place on a copy: statistics and labels are recomputed at the close.
  if (WriteFile(copy, data, size)) {
    ImageioParam param = ImageioParamDefault;
    param.format = ZV_FUZZ_FORMAT;
    ImageDesc desc{};
    if (ImageioHandle *h = ImageioOpenReadWrite(copy.c_str(), &desc, &param)) {
      Walk(h, desc, true);
      ImageioClose(h);
    }
    ExceptionClear();
  }
  unlink(path.c_str());
  unlink(copy.c_str());
  for (uint32_t i = 0; const char *fmt = ImageioFormatName(i); ++i)
    unlink(TempPath((std::string(".out.") + fmt).c_str()).c_str());
  return 0;
}
