// Inside the image-file library: the handle record shared by the core and the formats, the table of
// per-format functions, and the helpers the formats use. Not for callers of the library.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "platform/imageio/imageio.h"

// Capability bits (values of ImageioCapCheck).
inline constexpr uint32_t ImageioCapMmap = 1;  // memory-mapped data access (the default)
inline constexpr uint32_t ImageioCapRead = 2;  // plain reads and writes through one reusable buffer
inline constexpr uint32_t ImageioCapSync = 4;  // flush to stable storage before the rename / at close

// How stored elements become the elements callers see.
enum ImageioConv : uint32_t {
  ImageioConvNone = 0,    // stored exactly as the element type, little-endian
  ImageioConvSwap = 1,    // byte-swapped components (big-endian file)
  ImageioConvHalf = 2,    // binary16 stored, real32 seen
  ImageioConvCint16 = 3,  // pairs of int16 stored, cmplx32 seen
};

// Running statistics of the data written (formats that keep them in their header).
struct ImageioStats {
  uint64_t n;
  double min, max;
  double shift;  // first value seen: sums are taken about it to keep the variance accurate
  double s1, s2;
  bool nan;
};

struct ImageioHandle;

struct ImageioFormatOps {
  const char *name;
  // Recognise a file by its first bytes (head holds min(size, 4096) bytes).
  bool (*probe)(const unsigned char *head, uint64_t n, uint64_t size);
  // Read the header of an opened file: set dim, len, type, attr, geometry, history and the storage
  // fields (data_offset, file_esize, conv, fortran). The core checks the file size afterwards.
  uint32_t (*open)(ImageioHandle *h);
  // Refuse a description the format cannot hold, before anything is created.
  uint32_t (*check)(ImageioHandle *h);
  // Lay out a new file: set data_offset and prepare the header (written by write_header).
  uint32_t (*create)(ImageioHandle *h);
  // Write the header of a new file (at creation) or rewrite it at close (final = true).
  uint32_t (*write_header)(ImageioHandle *h, bool final);
  bool keeps_stats;    // header statistics accumulated as blocks are written
  bool keeps_history;  // history lines recorded in new and rewritten files
  bool exact_size;     // the file ends where the data ends (else trailing bytes are allowed)
};

extern const ImageioFormatOps ImageioNativeOps;
extern const ImageioFormatOps ImageioMrcOps;
extern const ImageioFormatOps ImageioNpyOps;

struct ImageioHandle {
  const ImageioFormatOps *ops;
  std::string path;    // the name the caller gave
  std::string target;  // where a created file goes (symbolic links resolved)
  std::string temp;    // the temporary file of a created image
  int fd;
  uint32_t mode;    // 1 read, 2 read-write, 3 created
  uint32_t marked;  // deletion mark
  uint32_t caps;
  uint64_t size;  // file size (opened files)

  // The image as callers see it.
  uint64_t dim;
  uint64_t len[4];
  uint32_t type;
  uint32_t attr;
  uint32_t esize;
  uint64_t count;
  bool has_geom;
  ImageioGeometry geom;
  std::vector<std::string> history;  // oldest first

  // Storage.
  uint64_t data_offset;
  uint32_t file_esize;  // bytes of one stored element
  uint32_t conv;        // ImageioConv
  uint32_t swap_unit;   // component size for ImageioConvSwap (and swapped halves / int16 pairs)
  bool fortran;         // stored with the axes reversed (column-major array)

  // Data access.
  unsigned char *map;  // whole file mapped, or null
  uint64_t map_len;
  unsigned char *buf;  // the one reusable conversion / transfer buffer
  uint64_t buf_cap;

  // The block in use.
  bool held;
  uint64_t held_first, held_count;
  void *held_ptr;

  // Writes seen (statistics and whether they covered the image once, in order).
  bool written;
  bool in_order;
  uint64_t next_write;
  ImageioStats stats;

  // Format-private header bytes kept for rewriting (MRC) and byte order of the file.
  unsigned char header[1024];
  bool big_endian;  // stored data (and MRC header) big-endian
  int32_t mrc_mode;
};

// Helpers for the formats.
uint32_t ImageioReadAt(ImageioHandle *h, uint64_t offset, void *dst, uint64_t n);
uint32_t ImageioWriteAt(ImageioHandle *h, uint64_t offset, const void *src, uint64_t n);
// Push code with the texts joined (null-terminated list), then attach the handle's path.
uint32_t ImageioFail(ImageioHandle *h, uint32_t code, const char *text1, const char *text2 = nullptr,
                     const char *text3 = nullptr);
// Statistics of the whole image as stored now (one pass; used when writes did not cover it once).
uint32_t ImageioComputeStats(ImageioHandle *h, ImageioStats *stats);
// Statistics for the final header: those accumulated while writing when the writes covered the image
// once and in order, else a pass over the stored data.
uint32_t ImageioFinalStats(ImageioHandle *h, ImageioStats *stats);
// Final header statistics: min, max, mean, population standard deviation; false when not computable.
bool ImageioStatsResult(const ImageioStats &s, float *dmin, float *dmax, float *dmean, float *rms);
// The history text set for this process (empty when none).
const std::string &ImageioHistoryText();
// Add the process's history text to a handle's lines, keeping at most max lines.
void ImageioAppendHistory(ImageioHandle *h, size_t max);

const char *ImageioTypeName(uint32_t type);

// Little-endian and big-endian loads and stores.
uint32_t ImageioGet32(const unsigned char *p, bool big);
uint64_t ImageioGet64(const unsigned char *p, bool big);
void ImageioPut32(unsigned char *p, uint32_t v, bool big);
void ImageioPut64(unsigned char *p, uint64_t v, bool big);
float ImageioGetF32(const unsigned char *p, bool big);
void ImageioPutF32(unsigned char *p, float v, bool big);
double ImageioGetF64(const unsigned char *p, bool big);
void ImageioPutF64(unsigned char *p, double v, bool big);

// binary16 to binary32 (exact; subnormal halves become normal binary32 values).
float ImageioHalfToFloat(uint16_t h);
