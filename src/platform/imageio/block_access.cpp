// Block access: the begin and end calls through which callers read and write an image block by
// block, each block either the mapping's own pages or the handle's one reusable buffer.
#include "platform/imageio/block_access.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>

#include "platform/core/errors.h"
#include "platform/imageio/format.h"
#include "platform/imageio/mapping.h"
#include "platform/imageio/stored_elements.h"

namespace {

// The buffer of an empty block: callers always get a valid address.
alignas(64) unsigned char gEmptyBlock[64];

std::string Num(uint64_t v) { return std::to_string(v); }

uint32_t EnsureBuffer(ImageioHandle *h, uint64_t bytes) {
  if (bytes <= h->buf_cap) return 0;
  // Grow only: the buffer is reused for every later block of this handle. A block-sized buffer is
  // asked for in huge pages: their first touch costs about a seventh of that of small pages here,
  // which is most of the cost of a run on a one-block image.
  const uint64_t huge = 2u << 20;
  const bool large = bytes >= huge;
  if (large) bytes = (bytes + huge - 1) / huge * huge;
  void *p = nullptr;
  if (posix_memalign(&p, large ? huge : 64, bytes) != 0) {
    uint32_t st = ExceptionPushMsg(E_MEMORY, " (block buffer of ", Num(bytes).c_str(), " bytes)", nullptr);
    ExceptionSetPath(h->path.c_str());
    return st;
  }
  if (large) madvise(p, bytes, MADV_HUGEPAGE);  // only a hint: small pages work as well
  std::free(h->buf);
  h->buf = static_cast<unsigned char *>(p);
  h->buf_cap = bytes;
  return 0;
}

// A file rewritten in place: from the first block on its data may change (a mapped block is written
// as the caller fills it), so header statistics are marked undetermined until the close puts the
// final ones, and a run that dies half-way leaves no stale statistics behind.
uint32_t StartRewrite(ImageioHandle *h) {
  h->written = true;
  if (!h->format->keeps_stats) return 0;
  if (uint32_t st = h->format->write_header(h, false)) return st;
  if ((h->caps & ImageioCapSync) && fdatasync(h->fd) != 0) return ImageioFailErrno(h, E_IMAGEIO_WRITE, errno);
  return 0;
}

void *Begin(ImageioHandle *h, uint64_t first, uint64_t count, bool write) {
  if (!h) {
    ExceptionPushMsg(E_ARGUMENT, " (image handle)", nullptr);
    return nullptr;
  }
  if (write && h->mode == ImageioModeRead) {
    ImageioFail(h, E_IMAGEIO_WRITE, " (the image is open for reading only)");
    return nullptr;
  }
  if (h->held) {
    ImageioFail(h, E_IMAGEIO, " (a block of this image is still in use)");
    return nullptr;
  }
  if (first > h->count || count > h->count - first) {
    ImageioFail(h, E_IMAGEIO_RANGE,
                (" (elements " + Num(first) + " + " + Num(count) + " of " + Num(h->count) + ")").c_str());
    return nullptr;
  }
  const bool rewrite = h->mode == ImageioModeReadWrite;
  if (rewrite && !h->written && StartRewrite(h)) return nullptr;
  // Plain reads find a shortened file by themselves; a mapping would fault instead.
  if (count > 0 && h->map && ImageioCheckSize(h)) return nullptr;
  void *p;
  if (count == 0) {
    p = gEmptyBlock;
  } else if (ImageioDirect(h)) {
    p = h->map + h->data_offset + first * h->esize;
    ImageioPopulateBlock(h, first, count, write || rewrite);
  } else {
    if (EnsureBuffer(h, count * h->esize)) return nullptr;
    // A write block of a read-write image starts from the stored data, as a mapped one would.
    if (!write || rewrite) {
      if (ImageioFill(h, first, count, h->buf)) return nullptr;
    }
    p = h->buf;
  }
  h->held = true;
  h->held_first = first;
  h->held_count = count;
  h->held_ptr = p;
  return p;
}

uint32_t CheckHeld(ImageioHandle *h, uint64_t first, uint64_t count, void *buffer) {
  if (!h) return ExceptionPushMsg(E_ARGUMENT, " (image handle)", nullptr);
  if (!h->held || h->held_first != first || h->held_count != count || h->held_ptr != buffer)
    return ImageioFail(h, E_IMAGEIO, " (the block handed back is not the block in use)");
  return 0;
}

}  // namespace

bool ImageioDirect(const ImageioHandle *h) {
  // Elements handed out in place must be aligned for their component type: data that starts at an
  // odd offset (an MRC extended header of odd size, an NPY header of unusual length) goes through
  // the buffer instead. The mapping itself is page-aligned.
  if (!h->map || h->conv != ImageioConvNone || h->fortran) return false;
  uint32_t components = (h->type >> 12) & 0xf;
  uint32_t align = components > 1 ? h->esize / components : h->esize;
  return align == 0 || h->data_offset % align == 0;
}

void *ImageioPeek(ImageioHandle *h, uint64_t first, uint64_t count, uint32_t *st) {
  if (h->map && (*st = ImageioCheckSize(h))) return nullptr;
  if (ImageioDirect(h)) return h->map + h->data_offset + first * h->esize;
  if ((*st = EnsureBuffer(h, count * h->esize))) return nullptr;
  if ((*st = ImageioFill(h, first, count, h->buf))) return nullptr;
  return h->buf;
}

void *ImageioBeginRead(ImageioHandle *handle, uint64_t first, uint64_t count) {
  return Begin(handle, first, count, false);
}

void *ImageioBeginWrite(ImageioHandle *handle, uint64_t first, uint64_t count) {
  return Begin(handle, first, count, true);
}

uint32_t ImageioEndRead(ImageioHandle *handle, uint64_t first, uint64_t count, void *buffer) {
  if (uint32_t st = CheckHeld(handle, first, count, buffer)) return st;
  handle->held = false;
  // A read-write image's block is released by its end-write.
  if (count > 0 && handle->mode == ImageioModeRead && ImageioDirect(handle)) ImageioReleaseBlock(handle, first, count);
  return 0;
}

uint32_t ImageioEndWrite(ImageioHandle *h, uint64_t first, uint64_t count, void *buffer) {
  if (uint32_t st = CheckHeld(h, first, count, buffer)) return st;
  h->held = false;
  if (h->mode == ImageioModeRead) return ImageioFail(h, E_IMAGEIO_WRITE, " (the image is open for reading only)");
  h->written = true;
  const bool in_order = h->in_order && first == h->next_write;
  if (in_order) h->next_write += count;
  else h->in_order = false;
  const bool stats = in_order && h->format->keeps_stats;
  auto *p = static_cast<unsigned char *>(buffer);
  if (ImageioDirect(h)) {
    // A mapped block was written in place.
    if (stats) ImageioAccumulateBlock(h->stats, h->type, p, count);
    if (count > 0) ImageioReleaseBlock(h, first, count);
    return 0;
  }
  // Statistics and storing go chunk by chunk, so that a large block is read from memory once: the
  // chunk the statistics have just read is still in the cache when it is stored.
  const uint64_t chunk = std::max<uint64_t>(1, kImageioWriteChunk / h->esize);
  for (uint64_t done = 0; done < count;) {
    uint64_t m = std::min(chunk, count - done);
    // Statistics of the values as stored.
    if (stats && h->conv == ImageioConvHalf) ImageioRoundToHalf(p + done * h->esize, m);
    if (stats) ImageioAccumulateBlock(h->stats, h->type, p + done * h->esize, m);
    if (uint32_t st = ImageioStore(h, first + done, m, p + done * h->esize)) return st;
    done += m;
  }
  return 0;
}
