// The image-file library's entry points: its module and error texts, parameters and capabilities,
// opening (with detection of the format), creating, metadata, the deletion mark and closing.
// Block access is in block_access.cpp; the file of a new image in new_file.cpp.
#include "platform/imageio/imageio.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string>

#include "platform/core/array.h"
#include "platform/core/core.h"
#include "platform/core/errors.h"
#include "platform/core/types.h"
#include "platform/imageio/block_access.h"
#include "platform/imageio/cleanup.h"
#include "platform/imageio/file_lock.h"
#include "platform/imageio/format.h"
#include "platform/imageio/gzip.h"
#include "platform/imageio/mapping.h"
#include "platform/imageio/new_file.h"

const ImageioParam ImageioParamDefault = {0, nullptr, 0, 0};

namespace {

// The format message names the registered formats (set at registration).
ErrorEntry kErrors[] = {
    {"E_IMAGEIO", "internal error (image file library)"},
    {"E_IMAGEIO_OPEN", "cannot open file"},
    {"E_IMAGEIO_FORMAT", "unknown file format"},
    {"E_IMAGEIO_CAP", "invalid capability (known: mmap, read, sync, half, deflate, lzw, zstd; combine with commas, e.g. mmap,sync)"},
    {"E_IMAGEIO_TYPE", "element type not supported by the file format"},
    {"E_IMAGEIO_DIM", "invalid number of dimensions (an image has 1 to 4 axes)"},
    {"E_IMAGEIO_SIZE", "array size too large"},
    {"E_IMAGEIO_HEADER", "invalid file header"},
    {"E_IMAGEIO_READ", "read error"},
    {"E_IMAGEIO_WRITE", "write error"},
    {"E_IMAGEIO_CREATE", "cannot create file"},
    {"E_IMAGEIO_RANGE", "block outside the image"},
    {"E_IMAGEIO_0C", "internal error (image file library)"},
    {"E_IMAGEIO_0D", "internal error (image file library)"},
    {"E_IMAGEIO_0E", "internal error (image file library)"},
    {"E_IMAGEIO_0F", "internal error (image file library)"},
    {nullptr, nullptr},
};

uint32_t ImageioRegister() {
  // Never destroyed: errors are reported at process end, after static objects are gone.
  static const std::string *format_text = [] {
    auto *text = new std::string("unknown file format (known formats: ");
    for (uint32_t i = 0; const char *name = ImageioFormatName(i); ++i) *text += (i ? ", " : "") + std::string(name);
    return &(*text += ")");
  }();
  kErrors[E_IMAGEIO_FORMAT - E_IMAGEIO].message = format_text->c_str();
  ImageioSignalsInstall();
  return ExceptionRegister(kErrors, E_IMAGEIO, E_IMAGEIO_END);
}

// The history text of this process (never destroyed, as above).
std::string &HistoryText() {
  static auto *text = new std::string();
  return *text;
}

std::string Num(uint64_t v) { return std::to_string(v); }

uint32_t CheckDesc(const ImageDesc *desc, const char *path) {
  auto fail = [&](uint32_t code, const std::string &text) {
    uint32_t st = ExceptionPushMsg(code, text.c_str(), nullptr);
    if (path) ExceptionSetPath(path);
    return st;
  };
  if (desc->dim < 1 || desc->dim > 4) return fail(E_IMAGEIO_DIM, " (" + Num(desc->dim) + " axes)");
  if (!desc->len) return fail(E_ARGUMENT, " (axis lengths)");
  uint32_t t = desc->type;
  if (!TypeKnown(t)) return fail(E_IMAGEIO_TYPE, std::string(" (unknown element type ") + TypeIdent(t) + ")");
  uint64_t count;
  if (ArrayOffset(desc->dim, desc->len, TypeSize(t), &count)) return fail(E_IMAGEIO_SIZE, "");
  return 0;
}

// The format named by the parameters, or null with the error pushed.
const ImageioFormat *NamedFormat(ImageioHandle *h, const char *name) {
  const ImageioFormat *f = ImageioFormatByName(name);
  if (!f) ImageioFail(h, E_IMAGEIO_FORMAT, (std::string(" ('") + name + "')").c_str());
  return f;
}

// The format of an opened file: the one named, else the one its first bytes show.
uint32_t Detect(ImageioHandle *h, const char *forced) {
  const ImageioFormat *f;
  if (forced) {
    if (!(f = NamedFormat(h, forced))) return E_IMAGEIO_FORMAT;
  } else {
    unsigned char head[4096];
    uint64_t n = std::min<uint64_t>(h->size, sizeof head);
    if (uint32_t st = h->gz ? ImageioGzipRead(h, 0, head, n, &n) : ImageioReadAt(h, 0, head, n)) return st;
    f = ImageioFormatDetect(head, n, h->size);
    if (!f) return ImageioFail(h, E_IMAGEIO_FORMAT, "; the file's content matches none of them");
  }
  return ImageioSetFormat(h, f);
}

// The file of an image being opened: a regular, non-empty file.
uint32_t OpenFile(ImageioHandle *h, bool rw) {
  // Non-blocking, so that a FIFO is refused below instead of waiting for a writer.
  h->fd = open(h->path.c_str(), (rw ? O_RDWR : O_RDONLY) | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (h->fd < 0) return ImageioFailErrno(h, E_IMAGEIO_OPEN, errno);
  struct stat st;
  if (fstat(h->fd, &st) != 0) return ImageioFailErrno(h, E_IMAGEIO_OPEN, errno);
  if (S_ISDIR(st.st_mode)) return ImageioFailErrno(h, E_IMAGEIO_OPEN, EISDIR);
  if (!S_ISREG(st.st_mode)) return ImageioFail(h, E_IMAGEIO_OPEN, " (not a regular file)");
  if (uint32_t s = ImageioLockFile(h)) return s;
  fcntl(h->fd, F_SETFL, fcntl(h->fd, F_GETFL) & ~O_NONBLOCK);
  // Blocks are taken in order: a larger read-ahead window for files that are not in the page cache.
  posix_fadvise(h->fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  h->size = static_cast<uint64_t>(st.st_size);
  if (h->size == 0) return ImageioFail(h, E_IMAGEIO_HEADER, " (empty file)");
  return 0;
}

// The geometry the header gave must fit the file; *end becomes the end of the data.
uint32_t CheckExtent(ImageioHandle *h, uint64_t *end) {
  h->esize = TypeSize(h->type);
  if (h->dim < 1 || h->dim > 4) return ImageioFail(h, E_IMAGEIO_DIM, (" (" + Num(h->dim) + " axes)").c_str());
  if (ArrayOffset(h->dim, h->len, h->esize, &h->count))
    return ImageioFail(h, E_IMAGEIO_SIZE, " (the header's axis lengths overflow)");
  uint64_t raw;
  if (__builtin_mul_overflow(h->count, static_cast<uint64_t>(h->file_esize), &raw) ||
      __builtin_add_overflow(h->data_offset, raw, end))
    return ImageioFail(h, E_IMAGEIO_SIZE, " (the header's axis lengths overflow)");
  if (h->format->read_elements) return 0;  // the format checks where its data lies
  if (*end > h->size)
    return ImageioFail(h, E_IMAGEIO_READ,
                       (" (file shorter than its header says: " + Num(*end) + " bytes needed, " + Num(h->size) +
                        " found)").c_str());
  if (h->format->exact_size && *end < h->size && !h->gz)
    return ImageioFail(h, E_IMAGEIO_HEADER,
                       (" (file size does not match the header: " + Num(*end) + " bytes expected, " +
                        Num(h->size) + " found)").c_str());
  return 0;
}

// Half-precision storage is chosen for new files; in place it only confirms that the file stores
// binary16 (and that its new values are rounded to it). The formats refuse such a file without it.
uint32_t CheckHalf(ImageioHandle *h) {
  if (!(h->caps & ImageioCapHalf)) return 0;
  if (h->mode == ImageioModeRead)
    return ImageioFail(h, E_IMAGEIO_CAP, " (half is a capability for writing, -cap, not for reading)");
  if (h->conv != ImageioConvHalf)
    return ImageioFail(h, E_IMAGEIO_TYPE, " (-cap half: the file does not store binary16 data, and a file "
                                          "rewritten in place keeps its storage)");
  return 0;
}

// A new file's storage in binary16 (-cap half): real32 images, in a format that has it (its check
// sets the conversion).
uint32_t CheckHalfCreate(ImageioHandle *h, bool after_check) {
  if (!(h->caps & ImageioCapHalf)) return 0;
  if (!after_check && h->type != TypeReal32)
    return ImageioFail(h, E_IMAGEIO_TYPE, " (binary16 storage, -cap half, holds real32 images, not ",
                       TypeIdent(h->type), ")");
  if (after_check && h->conv != ImageioConvHalf)
    return ImageioFail(h, E_IMAGEIO_TYPE, (std::string(" (") + h->format->name +
                                           " files cannot store binary16 data, -cap half; MRC and NPY files can)").c_str());
  return 0;
}

ImageioHandle *Open(const char *path, ImageDesc *desc, const ImageioParam *param, bool rw) {
  if (!path || !desc) {
    ExceptionPushMsg(E_ARGUMENT, path ? " (image description)" : " (file name)", nullptr);
    return nullptr;
  }
  if (!param) param = &ImageioParamDefault;
  ImageioHandle *h = ImageioNewHandle(path, rw ? ImageioModeReadWrite : ImageioModeRead, param);
  uint64_t end;
  if (OpenFile(h, rw) || ImageioGzipOpen(h) || Detect(h, param->format) || h->format->open(h) ||
      CheckExtent(h, &end) || CheckHalf(h)) {
    ImageioFreeHandle(h);
    return nullptr;
  }
  ImageioGzipDataEnd(h, end);
  if (h->gz && h->fortran) {
    ImageioFail(h, E_IMAGEIO_TYPE, " (column-major data cannot be read from a gzip stream, which gives its bytes "
                                   "in order; decompress the file first)");
    ImageioFreeHandle(h);
    return nullptr;
  }
  // Map the data; an axis-reversed file is always mapped (its blocks are gathered).
  if (end > h->data_offset && !h->format->read_elements && !h->gz && ((h->caps & ImageioCapMmap) || h->fortran) &&
      !ImageioMapFile(h, end, rw) &&
      h->fortran) {
    ImageioFailErrno(h, E_IMAGEIO_READ, errno, " (cannot map the file)");
    ImageioFreeHandle(h);
    return nullptr;
  }
  desc->dim = h->dim;
  desc->len = h->len;
  desc->geom = h->has_geom ? reinterpret_cast<uint64_t>(&h->geom) : 0;
  desc->type = h->type;
  desc->attr = h->attr;
  ImageioLiveHandles().push_back(h);
  return h;
}

// The header, history and statistics of a file at its close (created and kept, or rewritten in place).
uint32_t Finish(ImageioHandle *h) {
  // A file rewritten in place records the command only when every element was rewritten: a run that
  // failed part-way leaves a file that the command did not make.
  bool complete = h->mode == ImageioModeCreate || (h->in_order && h->next_write == h->count);
  if (h->format->keeps_history && complete && !HistoryText().empty()) {
    // At most ten lines, the oldest dropped.
    const size_t max = 10;
    h->history.push_back(HistoryText());
    if (h->history.size() > max) h->history.erase(h->history.begin(), h->history.end() - static_cast<long>(max));
  }
  return h->format->write_header(h, true);
}

}  // namespace

const ModuleDescriptor ImageioModule = {"imageio", "2.4", "image file library", "201406222041", ImageioRegister, {}};

uint32_t ImageioFormatCheck(const char *name) { return ImageioFormatByName(name) ? 0 : E_IMAGEIO_FORMAT; }

uint32_t ImageioCapCheck(const char *text) {
  if (!text || !*text) return 0;
  uint32_t caps = 0;
  const char *p = text;
  for (;;) {
    const char *end = std::strchr(p, ',');
    size_t n = end ? static_cast<size_t>(end - p) : std::strlen(p);
    std::string word(p, n);
    if (word == "mmap") caps |= ImageioCapMmap;
    else if (word == "read") caps |= ImageioCapRead;
    else if (word == "sync") caps |= ImageioCapSync;
    else if (word == "deflate") caps |= ImageioCapDeflate;
    else if (word == "lzw") caps |= ImageioCapLzw;
    else if (word == "zstd") caps |= ImageioCapZstd;
    else if (word == "half") caps |= ImageioCapHalf;
    else return 0;
    if (!end) break;
    p = end + 1;
  }
  // One I/O strategy at a time.
  if ((caps & ImageioCapMmap) && (caps & ImageioCapRead)) return 0;
  // One compression at a time.
  uint32_t compress = caps & ImageioCapCompress;
  if (compress & (compress - 1)) return 0;
  return caps;
}

ImageioHandle *ImageioOpenReadOnly(const char *path, ImageDesc *desc, const ImageioParam *param) {
  return Open(path, desc, param, false);
}

ImageioHandle *ImageioOpenReadWrite(const char *path, ImageDesc *desc, const ImageioParam *param) {
  return Open(path, desc, param, true);
}

ImageioHandle *ImageioCreate(const char *path, const ImageDesc *desc, const ImageioParam *param) {
  if (!path || !desc) {
    ExceptionPushMsg(E_ARGUMENT, path ? " (image description)" : " (file name)", nullptr);
    return nullptr;
  }
  if (!param) param = &ImageioParamDefault;
  if (CheckDesc(desc, path)) return nullptr;
  ImageioHandle *h = ImageioNewHandle(path, ImageioModeCreate, param);
  h->gzip_out = ImageioGzipName(h->path);
  auto fail = [&]() -> ImageioHandle * {
    ImageioDiscardNewFile(h);
    ImageioFreeHandle(h);
    return nullptr;
  };
  h->dim = desc->dim;
  for (uint64_t k = 0; k < 4; ++k) h->len[k] = k < desc->dim ? desc->len[k] : 0;
  h->type = desc->type;
  h->attr = desc->attr;
  h->esize = TypeSize(desc->type);
  h->file_esize = h->esize;
  ArrayOffset(h->dim, h->len, h->esize, &h->count);
  if (desc->geom) {
    h->has_geom = true;
    h->geom = *reinterpret_cast<const ImageioGeometry *>(desc->geom);
    // The image the geometry comes from: its history goes on with the new image, and its format may
    // hand on metadata of its own (read while the new file is laid out, so only until it is created).
    for (ImageioHandle *src : ImageioLiveHandles())
      if (reinterpret_cast<uint64_t>(&src->geom) == desc->geom) h->source = src;
    if (h->source) h->history = h->source->history;
  }
  const ImageioFormat *f = param->format ? NamedFormat(h, param->format) : ImageioFormatForNewFile(h->path);
  if (!f && !param->format) {
    // Never the native format under the name of another one.
    std::string ext = h->path.substr(h->path.find_last_of('.'));
    ImageioFail(h, E_IMAGEIO_FORMAT, ("; " + ext + " files are not written: name the file for one of these formats, or give -fmt").c_str());
  }
  if (CheckHalfCreate(h, false) || !f || ImageioSetFormat(h, f) || f->check(h) || CheckHalfCreate(h, true)) return fail();
  if ((h->caps & ImageioCapCompress) && !f->compresses) {
    ImageioFail(h, E_IMAGEIO_CAP, (" (" + std::string(f->name) + " files are not written compressed)").c_str());
    return fail();
  }
  if (ImageioNewFileOpen(h) || f->create(h)) return fail();
  uint64_t bytes = h->count * h->file_esize, end;
  if (__builtin_add_overflow(h->data_offset, bytes, &end) || end > static_cast<uint64_t>(LLONG_MAX)) {
    ImageioFail(h, E_IMAGEIO_SIZE, "");
    return fail();
  }
  // A format that places its own data grows its file as it writes.
  if ((!f->read_elements && ImageioNewFileReserve(h, end)) || f->write_header(h, false)) return fail();
  if ((h->caps & ImageioCapMmap) && bytes > 0 && !f->read_elements) ImageioMapFile(h, end, true);
  h->source = nullptr;
  h->marked = (param->flags & ImageioFlagDel) ? 1 : 0;
  ImageioLiveHandles().push_back(h);
  return h;
}

uint32_t ImageioGetMeta(ImageioHandle *handle, ImageioMeta *meta) {
  if (!handle || !meta) return ExceptionPushMsg(E_ARGUMENT, " (image handle or metadata record)", nullptr);
  meta->state = handle->marked ? ImageioStateDel : 0;
  meta->state2 = handle->mode;
  meta->format = handle->format->name;
  return 0;
}

uint32_t ImageioAddr(ImageioHandle *handle, uint64_t, uint64_t, void **addr) {
  if (!handle || !addr) return ExceptionPushMsg(E_ARGUMENT, " (image handle or address)", nullptr);
  *addr = ImageioDirect(handle) ? handle->map + handle->data_offset : nullptr;
  return 0;
}

uint32_t ImageioDel(ImageioHandle *handle) {
  if (!handle) return ExceptionPushMsg(E_ARGUMENT, " (image handle)", nullptr);
  handle->marked = 1;
  return 0;
}

uint32_t ImageioUndel(ImageioHandle *handle) {
  if (!handle) return ExceptionPushMsg(E_ARGUMENT, " (image handle)", nullptr);
  handle->marked = 0;
  return 0;
}

uint32_t ImageioClose(ImageioHandle *h) {
  if (!h) return 0;
  uint32_t st = 0;
  if (h->mode == ImageioModeCreate) {
    if (h->marked) st = ImageioDiscardNewFile(h);
    else {
      uint32_t done = Finish(h);
      if (!done && h->gzip_out) done = ImageioGzipCompressNewFile(h);
      st = ImageioCommitNewFile(h, done);
    }
  } else {
    const bool rewrite = h->mode == ImageioModeReadWrite;
    if (rewrite && h->written && !h->marked) st = Finish(h);
    if (rewrite && (h->caps & ImageioCapSync)) {
      if (h->map && msync(h->map, h->map_len, MS_SYNC) != 0 && !st) st = ImageioFailErrno(h, E_IMAGEIO_WRITE, errno);
      if (fsync(h->fd) != 0 && !st) st = ImageioFailErrno(h, E_IMAGEIO_WRITE, errno);
    }
    if (h->marked) unlink(h->path.c_str());
  }
  ImageioFreeHandle(h);
  return st;
}

const std::string &ImageioHistoryText() { return HistoryText(); }

void ImageioErrPath(ImageioHandle *handle, uint32_t) {
  if (handle && ExceptionGet(1)) ExceptionSetPath(handle->path.c_str());
}

void ImageioSetHistory(const char *text) {
  std::string &h = HistoryText();
  h = text ? text : "";
  // One printable line of at most 80 characters.
  for (char &c : h)
    if (static_cast<unsigned char>(c) < 32 || static_cast<unsigned char>(c) > 126) c = ' ';
  if (h.size() > 80) h.resize(80);
  while (!h.empty() && h.back() == ' ') h.pop_back();
}
