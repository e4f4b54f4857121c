// Gzip-compressed files: the inflate stream behind a compressed file's reads, and the compression of a
// new file at its commit. Memory stays flat: one stream state and buffers of fixed size per image.
#include "platform/imageio/gzip.h"

#include <strings.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "platform/core/errors.h"
#include "platform/imageio/format.h"
#include "platform/imageio/handle.h"
#include "platform/imageio/new_file.h"

struct ImageioGzip {
  z_stream z;
  uint64_t pos;       // uncompressed bytes produced so far
  uint64_t in_off;    // compressed bytes taken from the file so far
  uint64_t data_end;  // end of the image data; 0 until the format has read its header
  bool ended;         // the last member has ended (its checksums verified)
  unsigned char in[1 << 16];
  unsigned char skip[1 << 16];  // where skipped bytes go
};

namespace {

constexpr uint64_t kChunk = 1u << 20;

uint32_t Corrupt(ImageioHandle *h, const ImageioGzip *g) {
  return ImageioFail(h, E_IMAGEIO_READ, " (corrupt gzip data: ", g->z.msg ? g->z.msg : "inflate failed", ")");
}

// Inflates up to n bytes into out; fewer only where the stream ends. Members that follow one another
// (concatenated gzip files) are one stream, as gzip reads them.
uint32_t Produce(ImageioHandle *h, ImageioGzip *g, unsigned char *out, uint64_t n, uint64_t *made) {
  z_stream &z = g->z;
  *made = 0;
  while (*made < n && !g->ended) {
    if (z.avail_in == 0) {
      ssize_t r = pread(h->fd, g->in, sizeof g->in, static_cast<off_t>(g->in_off));
      if (r < 0 && errno == EINTR) continue;
      if (r < 0) return ImageioFailErrno(h, E_IMAGEIO_READ, errno);
      if (r == 0) return ImageioFail(h, E_IMAGEIO_READ, " (the gzip stream is cut short: truncated file)");
      z.next_in = g->in;
      z.avail_in = static_cast<uInt>(r);
      g->in_off += static_cast<uint64_t>(r);
    }
    uInt room = static_cast<uInt>(std::min<uint64_t>(n - *made, 1u << 30));
    z.next_out = out + *made;
    z.avail_out = room;
    int ret = inflate(&z, Z_NO_FLUSH);
    *made += room - z.avail_out;
    if (ret == Z_STREAM_END) {
      // Another member, or the end of the file.
      if (z.avail_in == 0) {
        unsigned char probe;
        ssize_t r;
        while ((r = pread(h->fd, &probe, 1, static_cast<off_t>(g->in_off))) < 0 && errno == EINTR) {
        }
        if (r < 0) return ImageioFailErrno(h, E_IMAGEIO_READ, errno);
        g->ended = r == 0;
      }
      if (!g->ended && inflateReset(&z) != Z_OK) return Corrupt(h, g);
    } else if (ret != Z_OK && !(ret == Z_BUF_ERROR && z.avail_in == 0)) {
      return Corrupt(h, g);
    }
  }
  g->pos += *made;
  return 0;
}

uint32_t Restart(ImageioHandle *h, ImageioGzip *g) {
  g->pos = g->in_off = 0;
  g->ended = false;
  g->z.avail_in = 0;
  if (inflateReset(&g->z) != Z_OK) return Corrupt(h, g);
  return 0;
}

// Runs the stream to its end once the data's end has been read.
uint32_t Finish(ImageioHandle *h, ImageioGzip *g) {
  uint64_t made;
  do {
    if (uint32_t st = Produce(h, g, g->skip, sizeof g->skip, &made)) return st;
  } while (!g->ended);
  if (g->pos > g->data_end && h->format->exact_size)
    return ImageioFail(h, E_IMAGEIO_HEADER,
                       (" (file size does not match the header: " + std::to_string(g->data_end) +
                        " bytes expected, " + std::to_string(g->pos) + " in the gzip stream)").c_str());
  return 0;
}

}  // namespace

bool ImageioGzipName(const std::string &path) {
  return path.size() > 3 && strcasecmp(path.c_str() + path.size() - 3, ".gz") == 0;
}

uint32_t ImageioGzipOpen(ImageioHandle *h) {
  unsigned char magic[2];
  if (h->size < sizeof magic) return 0;
  if (uint32_t st = ImageioReadAt(h, 0, magic, sizeof magic)) return st;
  if (magic[0] != 0x1f || magic[1] != 0x8b) return 0;
  if (h->mode == ImageioModeReadWrite)
    return ImageioFail(h, E_IMAGEIO_OPEN, " (a gzip-compressed file cannot be rewritten in place; write a new "
                                          "file, whose name may end in .gz)");
  auto g = std::make_unique<ImageioGzip>();
  if (inflateInit2(&g->z, 16 + MAX_WBITS) != Z_OK) return ImageioFail(h, E_MEMORY, " (gzip stream)");
  h->gz = g.release();
  h->size = UINT64_MAX;
  return 0;
}

void ImageioGzipFree(ImageioHandle *h) {
  if (!h->gz) return;
  inflateEnd(&h->gz->z);
  delete h->gz;
  h->gz = nullptr;
}

uint32_t ImageioGzipRead(ImageioHandle *h, uint64_t offset, void *dst, uint64_t n, uint64_t *got) {
  ImageioGzip *g = h->gz;
  *got = 0;
  if (offset < g->pos)
    if (uint32_t st = Restart(h, g)) return st;
  while (g->pos < offset && !g->ended) {
    uint64_t made;
    if (uint32_t st = Produce(h, g, g->skip, std::min<uint64_t>(sizeof g->skip, offset - g->pos), &made)) return st;
  }
  if (g->pos < offset) return 0;
  if (uint32_t st = Produce(h, g, static_cast<unsigned char *>(dst), n, got)) return st;
  if (g->data_end && offset + *got == g->data_end) return Finish(h, g);
  return 0;
}

void ImageioGzipDataEnd(ImageioHandle *h, uint64_t end) {
  if (h->gz) h->gz->data_end = end;
}

uint32_t ImageioGzipCompressNewFile(ImageioHandle *h) {
  const uint64_t size = h->data_offset + h->count * h->file_esize;
  const int raw = h->fd;
  std::string raw_temp = h->temp;
  h->fd = -1;
  if (uint32_t st = ImageioNewFileOpen(h)) {
    h->fd = raw;  // the commit removes the uncompressed file
    return st;
  }
  // The uncompressed file's name goes at once; its data stays readable through raw until it is closed.
  std::swap(h->temp, raw_temp);
  ImageioDiscardNewFile(h);
  std::swap(h->temp, raw_temp);

  z_stream z{};
  // Level 6, gzip's default; no name and no time in the gzip header, so equal data gives equal files.
  if (deflateInit2(&z, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 16 + MAX_WBITS, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
    close(raw);
    return ImageioFail(h, E_MEMORY, " (gzip stream)");
  }
  std::vector<unsigned char> in(kChunk), out(kChunk);
  uint32_t st = 0;
  uint64_t read = 0, written = 0;
  for (int ret = Z_OK; !st && ret != Z_STREAM_END;) {
    if (z.avail_in == 0 && read < size) {
      ssize_t r = pread(raw, in.data(), std::min<uint64_t>(kChunk, size - read), static_cast<off_t>(read));
      if (r < 0 && errno == EINTR) continue;
      if (r <= 0) {
        st = r < 0 ? ImageioFailErrno(h, E_IMAGEIO_WRITE, errno) : ImageioFail(h, E_IMAGEIO_WRITE, " (the new file shrank)");
        break;
      }
      z.next_in = in.data();
      z.avail_in = static_cast<uInt>(r);
      read += static_cast<uint64_t>(r);
    }
    z.next_out = out.data();
    z.avail_out = static_cast<uInt>(kChunk);
    ret = deflate(&z, read == size && z.avail_in == 0 ? Z_FINISH : Z_NO_FLUSH);
    uint64_t m = kChunk - z.avail_out;
    if (ret == Z_STREAM_ERROR) st = ImageioFail(h, E_IMAGEIO_WRITE, " (gzip compression failed)");
    else if (m && !(st = ImageioWriteAt(h, written, out.data(), m))) written += m;
  }
  deflateEnd(&z);
  close(raw);
  return st;
}
