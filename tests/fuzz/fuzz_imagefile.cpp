// Fuzz target for the image-file readers: the input is written to a file and opened with the format
// named by ZV_FUZZ_FORMAT (or detected by content); every block of a file that opens is read.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "platform/core/array.h"
#include "platform/core/errors.h"
#include "platform/core/fpu.h"
#include "platform/imageio/imageio.h"

#ifndef ZV_FUZZ_FORMAT
#define ZV_FUZZ_FORMAT nullptr
#endif

namespace {

std::string InputPath() {
  static std::string path = [] {
    CoreSetFlushToZero();
    ImageioModule.function();
    const char *tmp = getenv("TMPDIR");
    return std::string(tmp ? tmp : "/tmp") + "/zvfuzz-" + std::to_string(getpid()) + ".in";
  }();
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string path = InputPath();
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (fd < 0) return 0;
  if (write(fd, data, size) != static_cast<ssize_t>(size)) {
    close(fd);
    return 0;
  }
  close(fd);
  ImageioParam param = ImageioParamDefault;
  param.format = ZV_FUZZ_FORMAT;
  ImageDesc desc{};
  if (ImageioHandle *h = ImageioOpenReadOnly(path.c_str(), &desc, &param)) {
    uint64_t count = 0;
    if (desc.dim >= 1 && desc.dim <= 4 && ArrayOffset(desc.dim, desc.len, desc.type & 0xff, &count) == 0) {
      const uint64_t block = 1 << 16;
      for (uint64_t first = 0; first < count; first += block) {
        uint64_t n = count - first < block ? count - first : block;
        const volatile unsigned char *buf = static_cast<unsigned char *>(ImageioBeginRead(h, first, n));
        if (!buf) break;
        (void)buf[0];
        (void)buf[n * (desc.type & 0xff) - 1];
        ImageioEndRead(h, first, n, const_cast<unsigned char *>(buf));
      }
    }
    ImageioClose(h);
  }
  ExceptionClear();
  return 0;
}
