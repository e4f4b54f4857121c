// An image handle's life (new, format, free, the list of live handles) and its file: positioned reads
// and writes, the size check, and errors that name the file.
#include "platform/imageio/handle.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "platform/core/errors.h"
#include "platform/imageio/format.h"
#include "platform/imageio/gzip.h"

std::vector<ImageioHandle *> &ImageioLiveHandles() {
  // Images are closed at process end, after static objects may have been destroyed: never destroyed.
  static auto *live = new std::vector<ImageioHandle *>();
  return *live;
}

ImageioHandle *ImageioNewHandle(const char *path, uint32_t mode, const ImageioParam *param) {
  auto *h = new ImageioHandle();
  h->path = path;
  h->fd = -1;
  h->dir_fd = -1;
  h->cleanup = -1;
  h->mode = mode;
  h->caps = param->caps & (ImageioCapMmap | ImageioCapRead | ImageioCapSync | ImageioCapCompress | ImageioCapHalf);
  h->in_order = true;
  return h;
}

void ImageioFreeHandle(ImageioHandle *h) {
  if (h->format && h->format->release && h->format_state) h->format->release(h);
  if (h->map) munmap(h->map, h->map_len);
  if (h->fd >= 0) close(h->fd);
  if (h->dir_fd >= 0) close(h->dir_fd);
  ImageioGzipFree(h);
  std::free(h->buf);
  std::free(h->format_state);
  auto &live = ImageioLiveHandles();
  live.erase(std::remove(live.begin(), live.end(), h), live.end());
  delete h;
}

uint32_t ImageioSetFormat(ImageioHandle *h, const ImageioFormat *format) {
  h->format = format;
  if (format->state_bytes == 0) return 0;
  h->format_state = std::calloc(1, format->state_bytes);
  if (!h->format_state) return ImageioFail(h, E_MEMORY, " (format state)");
  return 0;
}

uint32_t ImageioFail(ImageioHandle *h, uint32_t code, const char *text1, const char *text2, const char *text3) {
  uint32_t st = ExceptionPushMsg(code, text1 ? text1 : "", text2 ? text2 : "", text3 ? text3 : "", nullptr);
  if (h) ExceptionSetPath(h->path.c_str());
  return st;
}

uint32_t ImageioFailErrno(ImageioHandle *h, uint32_t code, int err, const char *text) {
  uint32_t st = ExceptionPushMsg(code, text, nullptr);
  ExceptionSetPath(h->path.c_str());
  ExceptionSetErrno(err);
  return st;
}

// Before a block is handed out from a mapping: touching mapped pages past the file's end would fault,
// and plain reads would come up short.
uint32_t ImageioCheckSize(ImageioHandle *h) {
  uint32_t code = h->mode == ImageioModeCreate ? E_IMAGEIO_WRITE : E_IMAGEIO_READ;
  struct stat st;
  if (fstat(h->fd, &st) != 0) return ImageioFailErrno(h, code, errno);
  uint64_t size = static_cast<uint64_t>(st.st_size), end = h->data_offset + h->count * h->file_esize;
  if (size >= end) return 0;
  return ImageioFail(h, code,
                     (" (the file shrank while in use: " + std::to_string(end) + " bytes needed, " +
                      std::to_string(size) + " found)").c_str());
}

uint32_t ImageioReadAt(ImageioHandle *h, uint64_t offset, void *dst, uint64_t n) {
  if (h->gz) {
    uint64_t got;
    if (uint32_t st = ImageioGzipRead(h, offset, dst, n, &got)) return st;
    if (got == n) return 0;
    return ImageioFail(h, E_IMAGEIO_READ,
                       (" (the gzip stream ends early: " + std::to_string(offset + n) + " bytes needed, " +
                        std::to_string(offset + got) + " found)").c_str());
  }
  auto *p = static_cast<unsigned char *>(dst);
  while (n > 0) {
    size_t chunk = static_cast<size_t>(std::min<uint64_t>(n, 1u << 30));
    ssize_t r = pread(h->fd, p, chunk, static_cast<off_t>(offset));
    if (r < 0) {
      if (errno == EINTR) continue;
      return ImageioFailErrno(h, E_IMAGEIO_READ, errno);
    }
    if (r == 0) {
      // Short of data the header promised: most likely another program truncated the file.
      if (uint32_t st = ImageioCheckSize(h)) return st;
      return ImageioFail(h, E_IMAGEIO_READ, " (unexpected end of file)");
    }
    p += r;
    offset += static_cast<uint64_t>(r);
    n -= static_cast<uint64_t>(r);
  }
  return 0;
}

uint32_t ImageioWriteAt(ImageioHandle *h, uint64_t offset, const void *src, uint64_t n) {
  auto *p = static_cast<const unsigned char *>(src);
  while (n > 0) {
    size_t chunk = static_cast<size_t>(std::min<uint64_t>(n, kImageioWriteChunk));
    ssize_t r = pwrite(h->fd, p, chunk, static_cast<off_t>(offset));
    if (r < 0) {
      if (errno == EINTR) continue;
      return ImageioFailErrno(h, E_IMAGEIO_WRITE, errno);
    }
    p += r;
    offset += static_cast<uint64_t>(r);
    n -= static_cast<uint64_t>(r);
  }
  return 0;
}
