// Fuzz target for the image-file readers: the input is written to a file and opened with the format
// named by ZV_FUZZ_FORMAT (or detected by content). A file that opens is read block by block, mapped
// and through the buffer, with its elements loaded as their own type (so that a misaligned block is a
// sanitizer report), copied into a new file of every format that can hold it, and rewritten in
// place, which recomputes header statistics and labels.
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

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

std::string TempPath(const std::string &suffix) {
  const char *tmp = getenv("TMPDIR");
  return std::string(tmp ? tmp : "/tmp") + "/zvfuzz-" + std::to_string(getpid()) + suffix;
}

// The first and last part of a block loaded as the part's type; the sum is only kept alive.
template <class T> double Touch(const void *p, uint64_t n) {
  const T *v = static_cast<const T *>(p);
  const T a = v[0], b = v[n - 1];
  return (a == a) + (b == b);
}
volatile double gSink;

// Every block of an opened image: loaded as its element type, copied into the new images given, and
// handed back for writing when rewrite is set.
void Walk(ImageioHandle *h, const ImageDesc &desc, bool rewrite, const std::vector<ImageioHandle *> &copies = {}) {
  uint64_t count = 0;
  if (desc.dim < 1 || desc.dim > 4 || ArrayOffset(desc.dim, desc.len, TypeSize(desc.type), &count) != 0) return;
  const uint64_t parts = (desc.type >> 12) & 0xf, part = TypeSize(desc.type) / (parts ? parts : 1);
  for (uint64_t first = 0, n; first < count; first += n) {
    n = std::min<uint64_t>(count - first, 1 << 16);
    void *buf = ImageioBeginRead(h, first, n);
    if (!buf) return;
    gSink = gSink + (part == 1 ? Touch<uint8_t>(buf, n * parts) : part == 2 ? Touch<uint16_t>(buf, n * parts)
                     : part == 4 ? Touch<float>(buf, n * parts) : Touch<double>(buf, n * parts));
    for (ImageioHandle *c : copies)
      if (void *out = ImageioBeginWrite(c, first, n)) std::memcpy(out, buf, n * TypeSize(desc.type)), ImageioEndWrite(c, first, n, out);
    if (rewrite ? ImageioEndWrite(h, first, n, buf) : ImageioEndRead(h, first, n, buf)) return;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool ready = (CoreSetFlushToZero(), ImageioModule.function(), ImageioSetHistory("zvcompute fuzz"), true);
  (void)ready;
  const std::string in = TempPath(".in"), rw = TempPath(".rw");
  for (const std::string &path : {in, rw}) std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char *>(data), size);
  for (const char *caps : {"mmap", "read", ""}) {  // "": in place on the copy
    ImageioParam param = {0, ZV_FUZZ_FORMAT, 0, ImageioCapCheck(caps)};
    ImageDesc desc{};
    ImageioHandle *h = *caps ? ImageioOpenReadOnly(in.c_str(), &desc, &param) : ImageioOpenReadWrite(rw.c_str(), &desc, &param);
    if (!h) break;  // the other strategies open the same header
    std::vector<ImageioHandle *> copies;  // header writing, labels, geometry and statistics
    for (uint32_t i = 0; const char *format = ImageioFormatName(i); ++i) {
      ImageioParam out = {0, format, 0, 0};
      ImageioHandle *c = caps[0] == 'm' ? ImageioCreate(TempPath(std::string(".out.") + format).c_str(), &desc, &out) : nullptr;
      if (c) copies.push_back(c);
    }
    Walk(h, desc, !*caps, copies);
    for (ImageioHandle *c : copies) ImageioClose(c);
    ImageioClose(h);
    ExceptionClear();
  }
  unlink(in.c_str()), unlink(rw.c_str());
  for (uint32_t i = 0; const char *format = ImageioFormatName(i); ++i) unlink(TempPath(std::string(".out.") + format).c_str());
  return 0;
}
