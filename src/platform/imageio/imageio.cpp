// The image-file library core: parameters, format choice, opening and creating, the deletion mark
// with its temporary file, and block access (mapped, or through one reusable buffer).
#include "platform/imageio/imageio.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "platform/core/array.h"
#include "platform/core/core.h"
#include "platform/core/errors.h"
#include "platform/core/types.h"
#include "platform/imageio/imageio_internal.h"

const ImageioParam ImageioParamDefault = {0, nullptr, 0, 0};

namespace {

const ErrorEntry kErrors[] = {
    {"E_IMAGEIO", "internal error (image file library)"},
    {"E_IMAGEIO_OPEN", "cannot open file"},
    {"E_IMAGEIO_FORMAT", "unknown file format (known formats: zv, mrc, npy)"},
    {"E_IMAGEIO_CAP", "invalid capability (known: mmap, read, sync; combine with commas, e.g. mmap,sync)"},
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

uint32_t ImageioRegister() { return ExceptionRegister(kErrors, E_IMAGEIO, E_IMAGEIO_END); }

// Formats in the order content detection tries them.
const ImageioFormatOps *const kFormats[] = {&ImageioNativeOps, &ImageioNpyOps, &ImageioMrcOps};

// Handles alive now: a created image takes the history of the image whose geometry it copies.
// Images are closed at process end, after static objects may have been destroyed: these two are
// never destroyed.
std::vector<ImageioHandle *> &LiveHandles() {
  static auto *live = new std::vector<ImageioHandle *>();
  return *live;
}

std::string &HistoryText() {
  static auto *text = new std::string();
  return *text;
}

// The buffer of an empty block: callers always get a valid address.
alignas(64) unsigned char gEmptyBlock[64];

const ImageioFormatOps *FormatByName(const char *name) {
  if (!name) return nullptr;
  for (const ImageioFormatOps *f : kFormats)
    if (std::strcmp(f->name, name) == 0) return f;
  return nullptr;
}

bool EndsWith(const std::string &s, const char *suffix) {
  size_t n = std::strlen(suffix);
  if (s.size() < n) return false;
  for (size_t i = 0; i < n; ++i)
    if (std::tolower(static_cast<unsigned char>(s[s.size() - n + i])) != suffix[i]) return false;
  return true;
}

// A new file's format follows its name.
const ImageioFormatOps *FormatByFileName(const std::string &path) {
  if (EndsWith(path, ".npy")) return &ImageioNpyOps;
  static const char *const kMrc[] = {".mrc", ".mrcs", ".map", ".rec", ".st", ".ali", ".ccp4"};
  for (const char *s : kMrc)
    if (EndsWith(path, s)) return &ImageioMrcOps;
  return &ImageioNativeOps;
}

std::string Num(uint64_t v) { return std::to_string(v); }

ImageioHandle *NewHandle(const char *path, uint32_t mode, const ImageioParam *param) {
  auto *h = new ImageioHandle();
  h->path = path;
  h->fd = -1;
  h->mode = mode;
  h->caps = param->caps & (ImageioCapMmap | ImageioCapRead | ImageioCapSync);
  h->in_order = true;
  return h;
}

void FreeHandle(ImageioHandle *h) {
  if (h->map) munmap(h->map, h->map_len);
  if (h->fd >= 0) close(h->fd);
  std::free(h->buf);
  auto &live = LiveHandles();
  live.erase(std::remove(live.begin(), live.end(), h), live.end());
  delete h;
}

uint32_t FailErrno(ImageioHandle *h, uint32_t code, int err, const char *text = "") {
  uint32_t st = ExceptionPushMsg(code, text, nullptr);
  ExceptionSetPath(h->path.c_str());
  ExceptionSetErrno(err);
  return st;
}

// Writes go to the page cache in chunks of 1 MiB: one large write makes the kernel take large page
// folios for the new file, whose first touch costs several times more on these machines.
constexpr uint64_t kWriteChunk = 1u << 20;

bool UseMap(const ImageioHandle *h) { return h->caps & ImageioCapMmap; }

// Elements handed out in place must be aligned for their component type: data that starts at an
// odd offset (an MRC extended header of odd size, an NPY header of unusual length) goes through the
// buffer instead. The mapping itself is page-aligned.
bool Direct(const ImageioHandle *h) {
  if (!h->map || h->conv != ImageioConvNone || h->fortran) return false;
  uint32_t components = (h->type >> 12) & 0xf;
  uint32_t align = components > 1 ? h->esize / components : h->esize;
  return align == 0 || h->data_offset % align == 0;
}

// The file must still hold all of its data before a block of it is handed out: another program may
// have truncated it, and touching mapped pages past its end would fault (reads would come up short).
uint32_t CheckSize(ImageioHandle *h) {
  uint32_t code = h->mode == 3 ? E_IMAGEIO_WRITE : E_IMAGEIO_READ;
  struct stat st;
  if (fstat(h->fd, &st) != 0) return FailErrno(h, code, errno);
  uint64_t size = static_cast<uint64_t>(st.st_size), end = h->data_offset + h->count * h->file_esize;
  if (size >= end) return 0;
  return ImageioFail(h, code,
                     (" (the file shrank while in use: " + Num(end) + " bytes needed, " + Num(size) + " found)").c_str());
}

// ---- the guard for faults on mapped files ----
// Pages of a mapped file that another program truncates (or whose storage cannot be allocated) fault
// with SIGBUS when touched, wherever the touching code is. The guard turns such a fault inside one of
// this library's mappings into an error line naming the file, removes the temporary files of images
// being created, and ends the process with status 1. Other SIGBUS faults go to the previous handler.
struct sigaction gPrevBus;

void PutText(const char *s) {
  size_t n = std::strlen(s);
  while (n > 0) {
    ssize_t r = write(2, s, n);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return;
    s += r;
    n -= static_cast<size_t>(r);
  }
}

void OnBus(int sig, siginfo_t *info, void *) {
  auto *addr = static_cast<unsigned char *>(info->si_addr);
  const ImageioHandle *hit = nullptr;
  if (info->si_code > 0)
    for (const ImageioHandle *h : LiveHandles())
      if (h->map && addr >= h->map && addr < h->map + h->map_len) hit = h;
  if (!hit) {
    sigaction(SIGBUS, &gPrevBus, nullptr);
    // A fault is raised again when the access is retried; a sent signal is not.
    if (info->si_code <= 0) raise(sig);
    return;
  }
  // fstat is safe here: it tells a truncated file from one whose storage failed.
  struct stat st;
  bool shrank = fstat(hit->fd, &st) == 0 && static_cast<uint64_t>(st.st_size) < hit->map_len;
  PutText(Main ? Main : "zvcompute");
  PutText(hit->mode == 3 ? ": write error" : ": read error");
  PutText(shrank ? " (the file shrank while it was mapped): "
                 : hit->mode == 3 ? " (no storage for the mapped data): " : " (the mapped data could not be read): ");
  PutText(hit->path.c_str());
  PutText("\n");
  for (const ImageioHandle *h : LiveHandles())
    if (h->mode == 3 && !h->temp.empty()) unlink(h->temp.c_str());
  _exit(1);
}

// Installed with every new mapping unless it is in place already (someone may have replaced it).
void InstallBusGuard() {
  struct sigaction sa;
  if (sigaction(SIGBUS, nullptr, &sa) == 0 && (sa.sa_flags & SA_SIGINFO) && sa.sa_sigaction == OnBus) return;
  std::memset(&sa, 0, sizeof sa);
  sa.sa_sigaction = OnBus;
  sa.sa_flags = SA_SIGINFO;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGBUS, &sa, &gPrevBus);
}

// ---- the pages of a mapped block ----
// A block handed out from the mapping has its pages made present in one call (far cheaper than one
// fault per page, and the destination of a new file is written without faults), and they are dropped
// from the process when the block ends: the data stays in the page cache, but resident memory stays
// at about one block per image however large the image is.
void MappedRange(const ImageioHandle *h, uint64_t first, uint64_t count, unsigned char **start, size_t *len) {
  const uintptr_t page = 4096;
  uintptr_t a = reinterpret_cast<uintptr_t>(h->map + h->data_offset + first * h->esize);
  uintptr_t b = a + count * h->esize;
  a &= ~(page - 1);
  b = (b + page - 1) & ~(page - 1);
  *start = reinterpret_cast<unsigned char *>(a);
  *len = b - a;
}

void PopulateBlock(const ImageioHandle *h, uint64_t first, uint64_t count, bool write) {
  unsigned char *a;
  size_t n;
  MappedRange(h, first, count, &a, &n);
#ifdef MADV_POPULATE_WRITE
  // Failure only means the pages come in by faults instead.
  madvise(a, n, write ? MADV_POPULATE_WRITE : MADV_POPULATE_READ);
#else
  (void)a, (void)n, (void)write;
#endif
}

void ReleaseBlock(const ImageioHandle *h, uint64_t first, uint64_t count) {
  unsigned char *a;
  size_t n;
  MappedRange(h, first, count, &a, &n);
  // Shared file pages: written data stays in the page cache and reaches the file.
  madvise(a, n, MADV_DONTNEED);
}

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
        float f = ImageioHalfToFloat(Load16(src + 2 * i, swap));
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
void FortranStrides(const ImageioHandle *h, uint64_t stride[4]) {
  uint64_t s = 1;
  for (int64_t k = static_cast<int64_t>(h->dim) - 1; k >= 0; --k) {
    stride[k] = s;
    s *= h->len[k];
  }
}

// Walk image elements first .. first+count-1 of an axis-reversed file, calling f(element, stored index).
template <class F>
void FortranWalk(const ImageioHandle *h, uint64_t first, uint64_t count, F f) {
  uint64_t stride[4] = {0, 0, 0, 0}, idx[4] = {0, 0, 0, 0};
  FortranStrides(h, stride);
  uint64_t rest = first, off = 0;
  for (uint64_t k = 0; k < h->dim; ++k) {
    idx[k] = rest % h->len[k];
    rest /= h->len[k];
    off += idx[k] * stride[k];
  }
  for (uint64_t e = 0; e < count; ++e) {
    f(e, off);
    for (uint64_t k = 0; k < h->dim; ++k) {
      off += stride[k];
      if (++idx[k] < h->len[k]) break;
      off -= stride[k] * h->len[k];
      idx[k] = 0;
    }
  }
}

// Fill h->buf with caller elements first .. first+count-1.
uint32_t Fill(ImageioHandle *h, uint64_t first, uint64_t count, unsigned char *dst) {
  uint64_t raw = count * h->file_esize, bytes = count * h->esize;
  unsigned char *tail = dst + (bytes - raw);
  if (h->fortran) {
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

// Store caller elements from buf (which may be changed) into the file.
uint32_t Store(ImageioHandle *h, uint64_t first, uint64_t count, unsigned char *src) {
  if (h->conv == ImageioConvSwap) SwapUnits(src, count * h->esize, h->swap_unit);
  if (h->fortran) {
    unsigned char *base = h->map + h->data_offset;
    uint32_t fs = h->file_esize;
    FortranWalk(h, first, count, [&](uint64_t e, uint64_t off) { std::memcpy(base + off * fs, src + e * fs, fs); });
    return 0;
  }
  if (h->map) {
    std::memcpy(h->map + h->data_offset + first * h->esize, src, count * h->esize);
    return 0;
  }
  return ImageioWriteAt(h, h->data_offset + first * h->esize, src, count * h->esize);
}

// Statistics of a run of caller elements, summed about the first value ever seen. Eight independent
// lanes, folded in a fixed order at the end, let the loop run as vector code with several additions
// in flight. A NaN element makes the sum of squares NaN, which nothing else can (infinities only make
// it infinite): that is the NaN test.
template <class T>
inline __attribute__((always_inline)) void Accumulate(ImageioStats &s, const T *p, uint64_t n) {
  if (n == 0) return;
  if (s.n == 0) {
    double x0 = static_cast<double>(p[0]);
    s.shift = std::isfinite(x0) ? x0 : 0.0;
    s.min = s.max = x0;
  }
  constexpr int kLanes = 8;
  const double sh = s.shift;
  double mn[kLanes], mx[kLanes], a1[kLanes] = {}, a2[kLanes] = {};
  for (int j = 0; j < kLanes; ++j) mn[j] = s.min, mx[j] = s.max;
  auto take = [&](int j, T v) {
    double x = static_cast<double>(v), dx = x - sh;
    mn[j] = x < mn[j] ? x : mn[j];
    mx[j] = x > mx[j] ? x : mx[j];
    a1[j] += dx;
    a2[j] += dx * dx;
  };
  uint64_t i = 0;
  for (; i + kLanes <= n; i += kLanes)
    for (int j = 0; j < kLanes; ++j) take(j, p[i + j]);
  for (int j = 0; i < n; ++i, ++j) take(j, p[i]);
  for (int j = 0; j < kLanes; ++j) {
    s.min = mn[j] < s.min ? mn[j] : s.min;
    s.max = mx[j] > s.max ? mx[j] : s.max;
  }
  double sum2 = ((a2[0] + a2[1]) + (a2[2] + a2[3])) + ((a2[4] + a2[5]) + (a2[6] + a2[7]));
  s.s1 += ((a1[0] + a1[1]) + (a1[2] + a1[3])) + ((a1[4] + a1[5]) + (a1[6] + a1[7]));
  s.s2 += sum2;
  s.nan |= sum2 != sum2;
  s.n += n;
}

// One-byte elements: integer sums of the values and of their squares, exact in any order, from which
// the sums about the shift follow exactly (they stay far below 2^53), as summing element by element
// in binary64 would give them. Signed bytes are counted as unsigned ones with the sign bit flipped
// (value + 128), so that one loop of unsigned byte minima, maxima and sums serves both; each of the
// loops runs as vector code.
template <class T>
void AccumulateBytes(ImageioStats &s, const T *p, uint64_t n) {
  static_assert(sizeof(T) == 1);
  if (n == 0) return;
  if (s.n == 0) s.shift = s.min = s.max = static_cast<double>(p[0]);
  constexpr uint8_t flip = std::is_signed_v<T> ? 0x80 : 0;
  constexpr int64_t bias = std::is_signed_v<T> ? 128 : 0;
  const auto *b = reinterpret_cast<const uint8_t *>(p);
  uint8_t lo = 255, hi = 0;
  for (uint64_t k = 0; k < n; ++k) {
    uint8_t u = b[k] ^ flip;
    lo = u < lo ? u : lo;
    hi = u > hi ? u : hi;
  }
  // 32-bit partial sums: 2^15 squares of at most 2^16 each fit.
  uint64_t sum = 0, sum2 = 0;
  constexpr uint64_t kRun = 1u << 15;
  for (uint64_t i = 0; i < n; i += kRun) {
    const uint64_t end = std::min(n, i + kRun);
    uint32_t a = 0, q = 0;
    for (uint64_t k = i; k < end; ++k) {
      uint32_t u = static_cast<uint8_t>(b[k] ^ flip);
      a += u;
      q += u * u;
    }
    sum += a;
    sum2 += q;
  }
  // Back to the values: v = u - bias.
  const int64_t dn = static_cast<int64_t>(n);
  const int64_t vsum = static_cast<int64_t>(sum) - bias * dn;
  const int64_t vsum2 = static_cast<int64_t>(sum2) - 2 * bias * static_cast<int64_t>(sum) + bias * bias * dn;
  s.min = std::min(s.min, static_cast<double>(lo - bias));
  s.max = std::max(s.max, static_cast<double>(hi - bias));
  // sum (v - sh) and sum (v - sh)^2; sh is one of the byte values.
  const double sh = s.shift, ds = static_cast<double>(vsum), dnn = static_cast<double>(n);
  s.s1 += ds - dnn * sh;
  s.s2 += static_cast<double>(vsum2) - 2.0 * sh * ds + dnn * sh * sh;
  s.n += n;
}

// real32, the common case, also has a variant for processors with AVX2, chosen when the program
// starts: its vectors hold the same binary64 lanes, so both variants give identical sums.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
__attribute__((target_clones("avx2", "default")))
#endif
void AccumulateReal32(ImageioStats &s, const float *p, uint64_t n) {
  Accumulate(s, p, n);
}

void AccumulateBlock(ImageioStats &s, uint32_t type, const void *p, uint64_t n) {
  switch (type) {
    case TypeUint8: AccumulateBytes(s, static_cast<const uint8_t *>(p), n); break;
    case TypeUint16: Accumulate(s, static_cast<const uint16_t *>(p), n); break;
    case TypeUint32: Accumulate(s, static_cast<const uint32_t *>(p), n); break;
    case TypeUint64: Accumulate(s, static_cast<const uint64_t *>(p), n); break;
    case TypeInt8: AccumulateBytes(s, static_cast<const int8_t *>(p), n); break;
    case TypeInt16: Accumulate(s, static_cast<const int16_t *>(p), n); break;
    case TypeInt32: Accumulate(s, static_cast<const int32_t *>(p), n); break;
    case TypeInt64: Accumulate(s, static_cast<const int64_t *>(p), n); break;
    case TypeReal32: AccumulateReal32(s, static_cast<const float *>(p), n); break;
    case TypeReal64: Accumulate(s, static_cast<const double *>(p), n); break;
    default: break;  // complex and imaginary data have no header statistics
  }
}

// A block's address for internal passes: direct, or converted into the buffer.
void *Peek(ImageioHandle *h, uint64_t first, uint64_t count, uint32_t *st) {
  if (h->map && (*st = CheckSize(h))) return nullptr;
  if (Direct(h)) return h->map + h->data_offset + first * h->esize;
  if ((*st = EnsureBuffer(h, count * h->esize))) return nullptr;
  if ((*st = Fill(h, first, count, h->buf))) return nullptr;
  return h->buf;
}

void *Begin(ImageioHandle *h, uint64_t first, uint64_t count, bool write) {
  if (!h) {
    ExceptionPushMsg(E_ARGUMENT, " (image handle)", nullptr);
    return nullptr;
  }
  if (write && h->mode == 1) {
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
  if (h->mode == 2 && !h->written) {
    // From the first block on, the data of a file rewritten in place may change (a mapped block is
    // written as the caller fills it): header statistics are marked undetermined until the close
    // puts the final ones, so that a run that dies half-way leaves no stale statistics behind.
    h->written = true;
    if (h->ops->keeps_stats) {
      if (h->ops->write_header(h, false)) return nullptr;
      if ((h->caps & ImageioCapSync) && fdatasync(h->fd) != 0) {
        FailErrno(h, E_IMAGEIO_WRITE, errno);
        return nullptr;
      }
    }
  }
  // Plain reads find a shortened file by themselves; a mapping would fault instead.
  if (count > 0 && h->map && CheckSize(h)) return nullptr;
  void *p;
  if (count == 0) {
    p = gEmptyBlock;
  } else if (Direct(h)) {
    p = h->map + h->data_offset + first * h->esize;
    PopulateBlock(h, first, count, write || h->mode == 2);
  } else {
    if (EnsureBuffer(h, count * h->esize)) return nullptr;
    // A write block of a read-write image starts from the stored data, as a mapped one would.
    if (!write || h->mode == 2) {
      if (Fill(h, first, count, h->buf)) return nullptr;
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

uint32_t CheckDesc(const ImageDesc *desc, const char *path) {
  auto fail = [&](uint32_t code, const std::string &text) {
    uint32_t st = ExceptionPushMsg(code, text.c_str(), nullptr);
    if (path) ExceptionSetPath(path);
    return st;
  };
  if (desc->dim < 1 || desc->dim > 4) return fail(E_IMAGEIO_DIM, " (" + Num(desc->dim) + " axes)");
  if (!desc->len) return fail(E_ARGUMENT, " (axis lengths)");
  uint32_t t = desc->type;
  bool known = false;
  for (uint32_t k : {TypeUint8, TypeUint16, TypeUint32, TypeUint64, TypeInt8, TypeInt16, TypeInt32, TypeInt64,
                     TypeReal32, TypeReal64, TypeImag32, TypeImag64, TypeCmplx32, TypeCmplx64})
    known |= (k == t);
  if (!known) return fail(E_IMAGEIO_TYPE, std::string(" (unknown element type ") + ImageioTypeName(t) + ")");
  uint64_t count;
  if (ArrayOffset(desc->dim, desc->len, TypeSize(t), &count)) return fail(E_IMAGEIO_SIZE, "");
  return 0;
}

// Detect the format of an opened file from its first bytes.
uint32_t Detect(ImageioHandle *h, const char *forced) {
  if (forced) {
    h->ops = FormatByName(forced);
    if (!h->ops) return ImageioFail(h, E_IMAGEIO_FORMAT, (std::string(" ('") + forced + "')").c_str());
    return 0;
  }
  unsigned char head[4096];
  uint64_t n = std::min<uint64_t>(h->size, sizeof head);
  if (uint32_t st = ImageioReadAt(h, 0, head, n)) return st;
  for (const ImageioFormatOps *f : kFormats)
    if (f->probe(head, n, h->size)) {
      h->ops = f;
      return 0;
    }
  return ImageioFail(h, E_IMAGEIO_FORMAT, "; the file's content matches none of them");
}

ImageioHandle *Open(const char *path, ImageDesc *desc, const ImageioParam *param, bool rw) {
  if (!path || !desc) {
    ExceptionPushMsg(E_ARGUMENT, path ? " (image description)" : " (file name)", nullptr);
    return nullptr;
  }
  if (!param) param = &ImageioParamDefault;
  ImageioHandle *h = NewHandle(path, rw ? 2 : 1, param);
  auto fail = [&]() -> ImageioHandle * {
    FreeHandle(h);
    return nullptr;
  };
  // Non-blocking, so that a FIFO is refused below instead of waiting for a writer.
  h->fd = open(path, (rw ? O_RDWR : O_RDONLY) | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (h->fd < 0) {
    FailErrno(h, E_IMAGEIO_OPEN, errno);
    return fail();
  }
  struct stat st;
  if (fstat(h->fd, &st) != 0) {
    FailErrno(h, E_IMAGEIO_OPEN, errno);
    return fail();
  }
  if (S_ISDIR(st.st_mode)) {
    FailErrno(h, E_IMAGEIO_OPEN, EISDIR);
    return fail();
  }
  if (!S_ISREG(st.st_mode)) {
    ImageioFail(h, E_IMAGEIO_OPEN, " (not a regular file)");
    return fail();
  }
  fcntl(h->fd, F_SETFL, fcntl(h->fd, F_GETFL) & ~O_NONBLOCK);
  // Blocks are taken in order: a larger read-ahead window for files that are not in the page cache.
  posix_fadvise(h->fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  h->size = static_cast<uint64_t>(st.st_size);
  if (h->size == 0) {
    ImageioFail(h, E_IMAGEIO_HEADER, " (empty file)");
    return fail();
  }
  if (Detect(h, param->format) || h->ops->open(h)) return fail();

  h->esize = TypeSize(h->type);
  if (h->dim < 1 || h->dim > 4) {
    ImageioFail(h, E_IMAGEIO_DIM, (" (" + Num(h->dim) + " axes)").c_str());
    return fail();
  }
  if (ArrayOffset(h->dim, h->len, h->esize, &h->count)) {
    ImageioFail(h, E_IMAGEIO_SIZE, " (the header's axis lengths overflow)");
    return fail();
  }
  uint64_t raw, end;
  if (__builtin_mul_overflow(h->count, static_cast<uint64_t>(h->file_esize), &raw) ||
      __builtin_add_overflow(h->data_offset, raw, &end)) {
    ImageioFail(h, E_IMAGEIO_SIZE, " (the header's axis lengths overflow)");
    return fail();
  }
  if (end > h->size) {
    ImageioFail(h, E_IMAGEIO_READ,
                (" (file shorter than its header says: " + Num(end) + " bytes needed, " + Num(h->size) +
                 " found)").c_str());
    return fail();
  }
  if (h->ops->exact_size && end < h->size) {
    ImageioFail(h, E_IMAGEIO_HEADER,
                (" (file size does not match the header: " + Num(end) + " bytes expected, " + Num(h->size) +
                 " found)").c_str());
    return fail();
  }
  if (h->swap_unit <= 1 && h->conv == ImageioConvSwap) h->conv = ImageioConvNone;

  // Map the data; an axis-reversed file is always mapped (its blocks are gathered).
  if (raw > 0 && (UseMap(h) || h->fortran)) {
    void *m = mmap(nullptr, end, rw ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, h->fd, 0);
    if (m == MAP_FAILED) {
      if (h->fortran) {
        FailErrno(h, E_IMAGEIO_READ, errno, " (cannot map the file)");
        return fail();
      }
    } else {
      h->map = static_cast<unsigned char *>(m);
      h->map_len = end;
      InstallBusGuard();
    }
  }
  desc->dim = h->dim;
  desc->len = h->len;
  desc->geom = h->has_geom ? reinterpret_cast<uint64_t>(&h->geom) : 0;
  desc->type = h->type;
  desc->attr = h->attr;
  LiveHandles().push_back(h);
  return h;
}

uint32_t SyncDir(const std::string &target) {
  std::string dir = target.substr(0, target.find_last_of('/') + 1);
  if (dir.empty()) dir = ".";
  int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return 0;
  fsync(fd);
  close(fd);
  return 0;
}

// Header, history and statistics of a file at close (created and kept, or rewritten in place).
uint32_t Finish(ImageioHandle *h) {
  // A file rewritten in place records the command only when every element was rewritten: a run that
  // failed part-way leaves a file that the command did not make.
  bool complete = h->mode == 3 || (h->in_order && h->next_write == h->count);
  if (h->ops->keeps_history && complete) ImageioAppendHistory(h, 10);
  if (h->ops->write_header) return h->ops->write_header(h, true);
  return 0;
}

}  // namespace

const ModuleDescriptor ImageioModule = {"imageio", "2.4", "image file library", "201406222041", ImageioRegister, {}};

// ---- helpers for the formats ----

uint32_t ImageioFail(ImageioHandle *h, uint32_t code, const char *text1, const char *text2, const char *text3) {
  uint32_t st = ExceptionPushMsg(code, text1 ? text1 : "", text2 ? text2 : "", text3 ? text3 : "", nullptr);
  if (h) ExceptionSetPath(h->path.c_str());
  return st;
}

uint32_t ImageioReadAt(ImageioHandle *h, uint64_t offset, void *dst, uint64_t n) {
  auto *p = static_cast<unsigned char *>(dst);
  while (n > 0) {
    size_t chunk = static_cast<size_t>(std::min<uint64_t>(n, 1u << 30));
    ssize_t r = pread(h->fd, p, chunk, static_cast<off_t>(offset));
    if (r < 0) {
      if (errno == EINTR) continue;
      return FailErrno(h, E_IMAGEIO_READ, errno, "");
    }
    if (r == 0) {
      // Short of data the header promised: most likely another program truncated the file.
      if (uint32_t st = CheckSize(h)) return st;
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
    size_t chunk = static_cast<size_t>(std::min<uint64_t>(n, kWriteChunk));
    ssize_t r = pwrite(h->fd, p, chunk, static_cast<off_t>(offset));
    if (r < 0) {
      if (errno == EINTR) continue;
      return FailErrno(h, E_IMAGEIO_WRITE, errno, "");
    }
    p += r;
    offset += static_cast<uint64_t>(r);
    n -= static_cast<uint64_t>(r);
  }
  return 0;
}

uint32_t ImageioComputeStats(ImageioHandle *h, ImageioStats *stats) {
  *stats = ImageioStats{};
  const uint64_t chunk = 1u << 22;
  for (uint64_t first = 0; first < h->count; first += chunk) {
    uint64_t n = std::min(chunk, h->count - first);
    uint32_t st;
    void *p = Peek(h, first, n, &st);
    if (!p) return st;
    AccumulateBlock(*stats, h->type, p, n);
  }
  return 0;
}

bool ImageioStatsResult(const ImageioStats &s, float *dmin, float *dmax, float *dmean, float *rms) {
  if (s.n == 0) return false;
  if (s.nan) {
    *dmin = *dmax = *dmean = *rms = std::nanf("");
    return true;
  }
  double n = static_cast<double>(s.n);
  double m1 = s.s1 / n;
  double var = s.s2 / n - m1 * m1;
  *dmin = static_cast<float>(s.min);
  *dmax = static_cast<float>(s.max);
  *dmean = static_cast<float>(s.shift + m1);
  *rms = static_cast<float>(std::sqrt(var > 0 ? var : 0.0));
  return true;
}

const std::string &ImageioHistoryText() { return HistoryText(); }

void ImageioAppendHistory(ImageioHandle *h, size_t max) {
  const std::string &text = HistoryText();
  if (text.empty()) return;
  h->history.push_back(text);
  if (h->history.size() > max) h->history.erase(h->history.begin(), h->history.end() - static_cast<long>(max));
}

const char *ImageioTypeName(uint32_t type) { return TypeIdent(type); }

uint32_t ImageioGet32(const unsigned char *p, bool big) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return big ? __builtin_bswap32(v) : v;
}
uint64_t ImageioGet64(const unsigned char *p, bool big) {
  uint64_t v;
  std::memcpy(&v, p, 8);
  return big ? __builtin_bswap64(v) : v;
}
void ImageioPut32(unsigned char *p, uint32_t v, bool big) {
  if (big) v = __builtin_bswap32(v);
  std::memcpy(p, &v, 4);
}
void ImageioPut64(unsigned char *p, uint64_t v, bool big) {
  if (big) v = __builtin_bswap64(v);
  std::memcpy(p, &v, 8);
}
float ImageioGetF32(const unsigned char *p, bool big) {
  uint32_t v = ImageioGet32(p, big);
  float f;
  std::memcpy(&f, &v, 4);
  return f;
}
void ImageioPutF32(unsigned char *p, float f, bool big) {
  uint32_t v;
  std::memcpy(&v, &f, 4);
  ImageioPut32(p, v, big);
}
double ImageioGetF64(const unsigned char *p, bool big) {
  uint64_t v = ImageioGet64(p, big);
  double f;
  std::memcpy(&f, &v, 8);
  return f;
}
void ImageioPutF64(unsigned char *p, double f, bool big) {
  uint64_t v;
  std::memcpy(&v, &f, 8);
  ImageioPut64(p, v, big);
}

float ImageioHalfToFloat(uint16_t h) {
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

// ---- the interface ----

uint32_t ImageioFormatCheck(const char *name) { return FormatByName(name) ? 0 : E_IMAGEIO_FORMAT; }

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
    else return 0;
    if (!end) break;
    p = end + 1;
  }
  // One I/O strategy at a time.
  if ((caps & ImageioCapMmap) && (caps & ImageioCapRead)) return 0;
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
  ImageioHandle *h = NewHandle(path, 3, param);
  auto fail = [&]() -> ImageioHandle * {
    if (!h->temp.empty()) unlink(h->temp.c_str());
    FreeHandle(h);
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
    // The history of the image the geometry comes from goes on with the new image.
    for (ImageioHandle *src : LiveHandles())
      if (reinterpret_cast<uint64_t>(&src->geom) == desc->geom) h->history = src->history;
  }
  if (param->format) {
    h->ops = FormatByName(param->format);
    if (!h->ops) {
      ImageioFail(h, E_IMAGEIO_FORMAT, (std::string(" ('") + param->format + "')").c_str());
      return fail();
    }
  } else {
    h->ops = FormatByFileName(h->path);
  }
  if (h->ops->check(h)) return fail();

  // The destination: symbolic links are followed, so the link stays and its target is replaced.
  h->target = h->path;
  struct stat st;
  mode_t final_mode;
  if (lstat(h->path.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
    if (char *real = realpath(h->path.c_str(), nullptr)) {
      h->target = real;
      std::free(real);
    }
  }
  if (stat(h->target.c_str(), &st) == 0) {
    if (S_ISDIR(st.st_mode)) {
      FailErrno(h, E_IMAGEIO_CREATE, EISDIR);
      return fail();
    }
    if (!S_ISREG(st.st_mode)) {
      ImageioFail(h, E_IMAGEIO_CREATE, " (an existing file of that name is not a regular file)");
      return fail();
    }
    final_mode = st.st_mode & 07777;
  } else {
    mode_t mask = umask(0);
    umask(mask);
    final_mode = 0666 & ~mask;
  }
  size_t slash = h->target.find_last_of('/');
  std::string dir = slash == std::string::npos ? "." : h->target.substr(0, slash + 1);
  std::string base = slash == std::string::npos ? h->target : h->target.substr(slash + 1);
  if (base.empty() || base == "." || base == "..") {
    FailErrno(h, E_IMAGEIO_CREATE, EISDIR);
    return fail();
  }
  if (dir.back() != '/') dir += '/';
  std::string tmpl = dir + "." + base + ".zvtmp-XXXXXX";
  std::vector<char> name(tmpl.begin(), tmpl.end());
  name.push_back(0);
  h->fd = mkostemp(name.data(), O_CLOEXEC);
  if (h->fd < 0) {
    FailErrno(h, E_IMAGEIO_CREATE, errno);
    return fail();
  }
  h->temp = name.data();
  fchmod(h->fd, final_mode);

  if (h->ops->create(h)) return fail();
  uint64_t bytes = h->count * h->esize, end;
  if (__builtin_add_overflow(h->data_offset, bytes, &end) || end > static_cast<uint64_t>(LLONG_MAX)) {
    ImageioFail(h, E_IMAGEIO_SIZE, "");
    return fail();
  }
  // Reserve the space now when the data is mapped: a full disk is then an error here, not a fault
  // while a block is written.
  if (UseMap(h) && end > 0) {
    int r = posix_fallocate(h->fd, 0, static_cast<off_t>(end));
    if (r != 0 && r != EOPNOTSUPP && r != ENOSYS && r != EINVAL) {
      FailErrno(h, E_IMAGEIO_CREATE, r);
      return fail();
    }
  }
  if (ftruncate(h->fd, static_cast<off_t>(end)) != 0) {
    FailErrno(h, E_IMAGEIO_CREATE, errno);
    return fail();
  }
  h->size = end;
  if (h->ops->write_header(h, false)) return fail();
  if (UseMap(h) && bytes > 0) {
    void *m = mmap(nullptr, end, PROT_READ | PROT_WRITE, MAP_SHARED, h->fd, 0);
    if (m != MAP_FAILED) {
      h->map = static_cast<unsigned char *>(m);
      h->map_len = end;
      InstallBusGuard();
    }
  }
  h->marked = (param->flags & ImageioFlagDel) ? 1 : 0;
  LiveHandles().push_back(h);
  return h;
}

uint32_t ImageioGetMeta(ImageioHandle *handle, ImageioMeta *meta) {
  if (!handle || !meta) return ExceptionPushMsg(E_ARGUMENT, " (image handle or metadata record)", nullptr);
  meta->state = handle->marked ? ImageioStateDel : 0;
  meta->state2 = handle->mode;
  meta->path = handle->path.c_str();
  meta->format = handle->ops->name;
  return 0;
}

uint32_t ImageioAddr(ImageioHandle *handle, uint64_t, uint64_t, void **addr) {
  if (!handle || !addr) return ExceptionPushMsg(E_ARGUMENT, " (image handle or address)", nullptr);
  *addr = Direct(handle) ? handle->map + handle->data_offset : nullptr;
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
  bool sync = h->caps & ImageioCapSync;
  if (h->mode == 3 && !h->marked) {
    st = Finish(h);
    if (!st && sync && h->map && msync(h->map, h->map_len, MS_SYNC) != 0) st = FailErrno(h, E_IMAGEIO_WRITE, errno, "");
    if (h->map) munmap(h->map, h->map_len);
    h->map = nullptr;
    if (!st && sync && fsync(h->fd) != 0) st = FailErrno(h, E_IMAGEIO_WRITE, errno, "");
    int fd = h->fd;
    h->fd = -1;
    if (close(fd) != 0 && !st) st = FailErrno(h, E_IMAGEIO_WRITE, errno, "");
    if (!st && rename(h->temp.c_str(), h->target.c_str()) != 0) st = FailErrno(h, E_IMAGEIO_CREATE, errno);
    if (st) unlink(h->temp.c_str());
    else if (sync) SyncDir(h->target);
  } else if (h->mode == 3) {
    unlink(h->temp.c_str());
  } else {
    if (h->mode == 2 && h->written && !h->marked) st = Finish(h);
    if (h->mode == 2 && sync) {
      if (h->map && msync(h->map, h->map_len, MS_SYNC) != 0 && !st) st = FailErrno(h, E_IMAGEIO_WRITE, errno, "");
      if (fsync(h->fd) != 0 && !st) st = FailErrno(h, E_IMAGEIO_WRITE, errno, "");
    }
    if (h->marked) unlink(h->path.c_str());
  }
  FreeHandle(h);
  return st;
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
  if (count > 0 && handle->mode == 1 && Direct(handle)) ReleaseBlock(handle, first, count);
  return 0;
}

uint32_t ImageioEndWrite(ImageioHandle *h, uint64_t first, uint64_t count, void *buffer) {
  if (uint32_t st = CheckHeld(h, first, count, buffer)) return st;
  h->held = false;
  if (h->mode == 1) return ImageioFail(h, E_IMAGEIO_WRITE, " (the image is open for reading only)");
  h->written = true;
  const bool in_order = h->in_order && first == h->next_write;
  if (in_order) h->next_write += count;
  else h->in_order = false;
  const bool stats = in_order && h->ops->keeps_stats;
  auto *p = static_cast<unsigned char *>(buffer);
  if (Direct(h)) {
    // A mapped block was written in place.
    if (stats) AccumulateBlock(h->stats, h->type, p, count);
    if (count > 0) ReleaseBlock(h, first, count);
    return 0;
  }
  // Statistics and storing go chunk by chunk, so that a large block is read from memory once: the
  // chunk the statistics have just read is still in the cache when it is stored.
  const uint64_t chunk = std::max<uint64_t>(1, kWriteChunk / h->esize);
  for (uint64_t done = 0; done < count;) {
    uint64_t m = std::min(chunk, count - done);
    if (stats) AccumulateBlock(h->stats, h->type, p + done * h->esize, m);
    if (uint32_t st = Store(h, first + done, m, p + done * h->esize)) return st;
    done += m;
  }
  return 0;
}

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

// Whole-image statistics when the writes did not cover the image once and in order.
uint32_t ImageioFinalStats(ImageioHandle *h, ImageioStats *stats) {
  if (h->in_order && h->next_write == h->count) {
    *stats = h->stats;
    return 0;
  }
  return ImageioComputeStats(h, stats);
}
