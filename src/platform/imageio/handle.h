// Inside the image-file library: the record of one open or created image, shared by the library's
// parts and the formats, and the handle's file access. Not for callers of the library.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "platform/imageio/header_stats.h"
#include "platform/imageio/imageio.h"

// Capability bits (values of ImageioCapCheck).
inline constexpr uint32_t ImageioCapMmap = 1;  // memory-mapped data access
inline constexpr uint32_t ImageioCapRead = 2;  // plain reads and writes through one reusable buffer
inline constexpr uint32_t ImageioCapSync = 4;  // flush to stable storage before the rename / at close
// Compression of new files, for formats that compress (at most one).
inline constexpr uint32_t ImageioCapDeflate = 8;
inline constexpr uint32_t ImageioCapLzw = 16;
inline constexpr uint32_t ImageioCapZstd = 32;
inline constexpr uint32_t ImageioCapCompress = ImageioCapDeflate | ImageioCapLzw | ImageioCapZstd;
inline constexpr uint32_t ImageioCapHalf = 64;  // real32 stored as binary16 (formats that have it)

// How stored elements become the elements callers see.
enum ImageioConv : uint32_t {
  ImageioConvNone = 0,    // stored exactly as the element type, little-endian
  ImageioConvSwap = 1,    // byte-swapped components (big-endian file)
  ImageioConvHalf = 2,    // binary16 stored, real32 seen
  ImageioConvCint16 = 3,  // pairs of int16 stored, cmplx32 seen
};

struct ImageioFormat;
struct ImageioGzip;

struct ImageioHandle {
  const ImageioFormat *format;
  void *format_state;  // the format's own state (ImageioFormat::state_bytes, zeroed), or null
  std::string path;    // the name the caller gave
  // A created image: the directory it goes into (open from creation to the end), its name there
  // (after following the destination's symbolic links), and its temporary file's name there.
  int dir_fd;
  std::string base;
  std::string temp;
  int cleanup;  // its entry in the signal cleanup table, or -1
  int fd;
  uint32_t lock;  // advisory lock held on an opened file: 0 none, LOCK_SH or LOCK_EX
  uint32_t mode;    // ImageioModeRead, ImageioModeReadWrite or ImageioModeCreate
  uint32_t marked;  // deletion mark
  uint32_t caps;
  uint64_t size;  // file size (opened files); UINT64_MAX for a compressed file (known at its end)
  ImageioGzip *gz;  // the inflate stream that reads a compressed file, or null
  bool gzip_out;    // a new file compressed when it is put in place

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
  // While a new image is being created: the open image whose geometry it takes (its description's
  // geometry word points into that image's handle), or null. A format may carry metadata of its own
  // from a source of the same format; history goes on with any source.
  ImageioHandle *source;

  // Storage.
  uint64_t data_offset;
  uint32_t file_esize;  // bytes of one stored element
  uint32_t conv;        // ImageioConv
  uint32_t swap_unit;   // component size for ImageioConvSwap (and swapped halves / int16 pairs)
  bool big_endian;      // stored data big-endian (and an MRC header, which shares its order)
  bool fortran;         // stored with the axes reversed (column-major array)
  // The stored array's axis lengths in image order when they are not the image's: more than four
  // axes, the slowest of which the image folds into its axis 3. Empty otherwise.
  std::vector<uint64_t> stored_len;

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
};

// A new handle for path (no file yet) and its end: mapping, file, buffer and format state released.
ImageioHandle *ImageioNewHandle(const char *path, uint32_t mode, const ImageioParam *param);
void ImageioFreeHandle(ImageioHandle *h);
// The handle's format, with its zeroed private state.
uint32_t ImageioSetFormat(ImageioHandle *h, const ImageioFormat *format);
// Handles alive now (opened or created and not yet closed).
std::vector<ImageioHandle *> &ImageioLiveHandles();

// Positioned reads and writes of the handle's file; a read short of the data is an error naming it.
uint32_t ImageioReadAt(ImageioHandle *h, uint64_t offset, void *dst, uint64_t n);
uint32_t ImageioWriteAt(ImageioHandle *h, uint64_t offset, const void *src, uint64_t n);
// The file must still hold all of its data: another program may have truncated it.
uint32_t ImageioCheckSize(ImageioHandle *h);

// Push code with the texts joined (null-terminated list), then attach the handle's path.
uint32_t ImageioFail(ImageioHandle *h, uint32_t code, const char *text1, const char *text2 = nullptr,
                     const char *text3 = nullptr);
// Push code with text, the handle's path and the operating system's reason err.
uint32_t ImageioFailErrno(ImageioHandle *h, uint32_t code, int err, const char *text = "");

// Writes go to the page cache in chunks of 1 MiB: one large write makes the kernel take large page
// folios for the new file, whose first touch costs several times more on these machines.
inline constexpr uint64_t kImageioWriteChunk = 1u << 20;
