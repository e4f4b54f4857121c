// TIFF files through libtiff: classic and BigTIFF, either byte order, strips or tiles, and whatever
// compression the installed libtiff decodes. P pages of W x H one-sample pixels are the image of axis
// lengths (W, H, P); one page gives two axes. Uncompressed strips are read, and uncompressed strips
// and tiles rewritten in place, with plain positioned reads and writes of their bytes; everything
// else is decoded by libtiff one strip, or one row of tiles, at a time into a buffer that is reused.
// New files are written page by page in order, little-endian, in strips of about 1 MiB, and are
// BigTIFF only when classic TIFF's 4 GiB of offsets could be exceeded.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/core/errors.h"
#include "platform/core/types.h"
#include "platform/imageio/format.h"
#include "platform/imageio/tiff_library.h"

namespace {

const char *const kExtensions[] = {".tif", ".tiff", nullptr};

constexpr uint64_t kMaxBand = 1u << 28;      // bytes of a decoded strip, tile or row of tiles
constexpr uint64_t kMaxRatio = 1u << 15;     // decoded bytes per stored byte of compressed data
constexpr uint64_t kStripBytes = 1u << 20;   // strips of new files
constexpr uint64_t kMaxPages = 1u << 20;     // libtiff follows at most this many directories
constexpr size_t kHistoryLines = 10, kLineBytes = 80;

// Stored samples and the element types callers see.
struct Kind {
  uint16_t format, bits;
  uint32_t type, conv;
};
const Kind kKinds[] = {
    {SAMPLEFORMAT_UINT, 8, TypeUint8, ImageioConvNone},         {SAMPLEFORMAT_UINT, 16, TypeUint16, ImageioConvNone},
    {SAMPLEFORMAT_UINT, 32, TypeUint32, ImageioConvNone},       {SAMPLEFORMAT_UINT, 64, TypeUint64, ImageioConvNone},
    {SAMPLEFORMAT_INT, 8, TypeInt8, ImageioConvNone},           {SAMPLEFORMAT_INT, 16, TypeInt16, ImageioConvNone},
    {SAMPLEFORMAT_INT, 32, TypeInt32, ImageioConvNone},         {SAMPLEFORMAT_INT, 64, TypeInt64, ImageioConvNone},
    {SAMPLEFORMAT_IEEEFP, 32, TypeReal32, ImageioConvNone},     {SAMPLEFORMAT_IEEEFP, 64, TypeReal64, ImageioConvNone},
    {SAMPLEFORMAT_COMPLEXIEEEFP, 64, TypeCmplx32, ImageioConvNone},
    {SAMPLEFORMAT_COMPLEXIEEEFP, 128, TypeCmplx64, ImageioConvNone},
    // Read only: widened when a block is read.
    {SAMPLEFORMAT_IEEEFP, 16, TypeReal32, ImageioConvHalf},     {SAMPLEFORMAT_COMPLEXINT, 32, TypeCmplx32, ImageioConvCint16},
};

struct TiffState {
  ImageioHandle *h;
  TIFF *tif;
  uint64_t pos, end;  // libtiff's position in the file; the end of what has been written
  bool quiet;         // the handle is ending: no more file access, no more errors
  bool io_failed;     // a write failed and its error is pushed
  char message[240];  // libtiff's first error message since the last failure was reported

  // Every page has the first page's size and kind.
  uint64_t width, height, pages;
  const Kind *kind;
  uint64_t *ifd;  // directory offset of each page
  uint64_t ifd_cap;
  bool compressed;  // some page is compressed

  // The page whose directory libtiff holds, and its layout.
  bool have_page;
  uint64_t page;
  bool tiled, plain;         // tiles; uncompressed
  uint64_t unit_w, unit_h;   // tile size, or width x rows per strip
  uint32_t swab;             // component bytes to swap in plain access of a byte-swapped file, else 0

  // The band: decoded rows band_row .. band_row + band_rows - 1 of band_page, as whole rows.
  unsigned char *band, *tile;
  uint64_t band_cap, tile_cap, band_page, band_row, band_rows;

  // A new file: the next element to write and the compression.
  uint64_t next;
  uint16_t compression;
};

const TiffLibrary *lib;  // libtiff's functions, once a TIFF file has been opened or checked for creation

// Loads libtiff when a TIFF file is first met.
uint32_t LoadLibrary(ImageioHandle *h) {
  const char *why = nullptr;
  if (TiffLibraryLoad(&lib, &why)) return ImageioFail(h, E_IMAGEIO_FORMAT, " (TIFF files need " ZV_TIFF_SONAME ", which cannot be loaded: ", why, ")");
  return 0;
}

TiffState *State(ImageioHandle *h) { return static_cast<TiffState *>(h->format_state); }
std::string Num(uint64_t v) { return std::to_string(v); }

// libtiff reports through these: errors are kept for the failure they explain, warnings dropped.
int OnError(TIFF *, void *user, const char *, const char *fmt, va_list ap) {
  auto *s = static_cast<TiffState *>(user);
  if (s && !s->quiet && !s->message[0]) std::vsnprintf(s->message, sizeof s->message, fmt, ap);
  return 1;
}
int OnWarning(TIFF *, void *, const char *, const char *, va_list) { return 1; }

// An error naming the file: the text and, when libtiff failed, its reason.
uint32_t Fail(ImageioHandle *h, uint32_t code, const std::string &text) {
  TiffState *s = State(h);
  if (s->io_failed) return ExceptionGet(1);  // the file access already said why
  std::string reason = s->message[0] ? std::string(": ") + s->message : "";
  s->message[0] = 0;
  return ImageioFail(h, code, (" (TIFF " + text + reason + ")").c_str());
}

// File access for libtiff: positioned reads and writes of the handle's file, never a mapping.
tmsize_t ReadProc(thandle_t c, void *buf, tmsize_t n) {
  auto *s = static_cast<TiffState *>(c);
  if (s->quiet || n < 0) return -1;
  auto *p = static_cast<unsigned char *>(buf);
  tmsize_t done = 0;
  while (done < n) {
    ssize_t r = pread(s->h->fd, p + done, static_cast<size_t>(n - done), static_cast<off_t>(s->pos + done));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) break;
    done += r;
  }
  s->pos += static_cast<uint64_t>(done);
  return done;
}
tmsize_t WriteProc(thandle_t c, void *buf, tmsize_t n) {
  auto *s = static_cast<TiffState *>(c);
  if (s->quiet || s->io_failed || n < 0) return -1;
  if (ImageioWriteAt(s->h, s->pos, buf, static_cast<uint64_t>(n))) {
    s->io_failed = true;
    return -1;
  }
  s->pos += static_cast<uint64_t>(n);
  s->end = std::max(s->end, s->pos);
  return n;
}
toff_t SizeProc(thandle_t c) {
  auto *s = static_cast<TiffState *>(c);
  return s->h->mode == ImageioModeCreate ? s->end : s->h->size;
}
toff_t SeekProc(thandle_t c, toff_t off, int whence) {
  auto *s = static_cast<TiffState *>(c);
  s->pos = whence == SEEK_SET ? off : whence == SEEK_CUR ? s->pos + off : SizeProc(c) + off;
  return s->pos;
}
int CloseProc(thandle_t) { return 0; }  // the library closes the file
int MapProc(thandle_t, void **, toff_t *) { return 0; }
void UnmapProc(thandle_t, void *, toff_t) {}

bool OpenTiff(ImageioHandle *h, const char *mode) {
  TiffState *s = State(h);
  s->h = h;
  lib->TIFFSetErrorHandler(nullptr);  // nothing of libtiff's is ever printed
  lib->TIFFSetWarningHandler(nullptr);
  TIFFOpenOptions *o = lib->TIFFOpenOptionsAlloc();
  if (!o) return false;
  lib->TIFFOpenOptionsSetMaxSingleMemAlloc(o, static_cast<tmsize_t>(kMaxBand));
  lib->TIFFOpenOptionsSetErrorHandlerExtR(o, OnError, s);
  lib->TIFFOpenOptionsSetWarningHandlerExtR(o, OnWarning, s);
  s->tif = lib->TIFFClientOpenExt(h->path.c_str(), mode, s, ReadProc, WriteProc, SeekProc, CloseProc, SizeProc, MapProc,
                             UnmapProc, o);
  lib->TIFFOpenOptionsFree(o);
  return s->tif != nullptr;
}

bool Probe(const unsigned char *head, uint64_t n, uint64_t) {
  if (n < 4) return false;
  bool ii = head[0] == 'I' && head[1] == 'I' && head[3] == 0 && (head[2] == 42 || head[2] == 43);
  bool mm = head[0] == 'M' && head[1] == 'M' && head[2] == 0 && (head[3] == 42 || head[3] == 43);
  return ii || mm;
}

std::string KindText(uint16_t format, uint16_t bits) {
  static const char *const kFormats[] = {"?", "unsigned integer", "signed integer", "IEEE float", "undefined",
                                         "complex integer", "complex IEEE float"};
  return Num(bits) + "-bit " + (format < 7 ? kFormats[format] : "format " + Num(format)) + " samples";
}

// The layout of the page libtiff holds: its size and kind, and its strips or tiles.
uint32_t Layout(ImageioHandle *h) {
  TiffState *s = State(h);
  TIFF *t = s->tif;
  uint32_t uw = 0, uh = 0;
  uint16_t compression = COMPRESSION_NONE;
  lib->TIFFGetFieldDefaulted(t, TIFFTAG_COMPRESSION, &compression);
  s->tiled = lib->TIFFIsTiled(t);
  if (s->tiled) {
    lib->TIFFGetField(t, TIFFTAG_TILEWIDTH, &uw);
    lib->TIFFGetField(t, TIFFTAG_TILELENGTH, &uh);
  } else {
    lib->TIFFGetFieldDefaulted(t, TIFFTAG_ROWSPERSTRIP, &uh);
    uw = static_cast<uint32_t>(s->width);
  }
  s->plain = compression == COMPRESSION_NONE;
  s->unit_w = uw;
  s->unit_h = s->tiled ? uh : std::min<uint64_t>(uh, s->height);
  uint32_t component = s->kind->bits / 8 / (s->kind->format >= SAMPLEFORMAT_COMPLEXINT ? 2 : 1);
  s->swab = lib->TIFFIsByteSwapped(t) && component > 1 ? component : 0;
  return s->unit_w == 0 || s->unit_h == 0 ? Fail(h, E_IMAGEIO_HEADER, "page " + Num(s->page + 1) + ": zero tile or strip size") : 0;
}

// libtiff's directory of page p (a jump straight to its offset).
uint32_t LoadPage(ImageioHandle *h, uint64_t p) {
  TiffState *s = State(h);
  if (s->have_page && s->page == p) return 0;
  s->have_page = false;
  if (!lib->TIFFSetSubDirectory(s->tif, s->ifd[p])) return Fail(h, E_IMAGEIO_READ, "page " + Num(p + 1));
  s->page = p;
  s->have_page = true;
  return Layout(h);
}

// The history: the first page's description, unless it is another program's metadata record (JSON,
// XML, ImageJ's keys) or not plain lines of text.
void ReadHistory(ImageioHandle *h, const char *d) {
  std::string text = d ? d : "";
  if (text.empty() || text[0] == '{' || text[0] == '<' || text.rfind("ImageJ=", 0) == 0) return;
  for (char c : text)
    if ((c < 32 || c > 126) && c != '\n') return;
  for (size_t at = 0; at < text.size();) {
    size_t nl = std::min(text.find('\n', at), text.size());
    std::string line = text.substr(at, std::min<size_t>(nl - at, kLineBytes));
    while (!line.empty() && line.back() == ' ') line.pop_back();
    if (!line.empty()) h->history.push_back(line);
    at = nl + 1;
  }
  if (h->history.size() > kHistoryLines) h->history.erase(h->history.begin(), h->history.end() - kHistoryLines);
}

// The voxel size from the resolution tags (pixels per inch or centimetre), in Angstrom.
void ReadGeometry(ImageioHandle *h) {
  TIFF *t = State(h)->tif;
  float res[2] = {0, 0};
  uint16_t unit = RESUNIT_INCH;
  lib->TIFFGetField(t, TIFFTAG_XRESOLUTION, &res[0]);
  lib->TIFFGetField(t, TIFFTAG_YRESOLUTION, &res[1]);
  lib->TIFFGetFieldDefaulted(t, TIFFTAG_RESOLUTIONUNIT, &unit);
  double per = unit == RESUNIT_INCH ? 2.54e8 : unit == RESUNIT_CENTIMETER ? 1e8 : 0;
  h->geom = {{0, 0, 0}, {0, 0, 0}, {1, 2, 3}, 1, {0, 0, 0}};  // pages are the sections of a volume
  for (int i = 0; i < 2; ++i)
    if (per > 0 && std::isfinite(res[i]) && res[i] > 0) {
      h->geom.voxel[i] = per / res[i];
      h->has_geom = true;
    }
}

// Running totals over the strips and tiles of every page.
struct Totals {
  unsigned __int128 stored, packed, unpacked;  // bytes in the file; compressed bytes, decoded
};

// The page libtiff holds (page p): one sample per pixel of a kind read here, the first page's size and
// kind, and strips or tiles that lie in the file.
uint32_t CheckPage(ImageioHandle *h, uint64_t p, Totals *sum) {
  TiffState *s = State(h);
  TIFF *t = s->tif;
  const std::string page = "page " + Num(p + 1);
  uint32_t w = 0, ht = 0, depth = 1;
  uint16_t spp = 1, bits = 1, format = SAMPLEFORMAT_UINT, photometric = PHOTOMETRIC_MINISBLACK, fill = FILLORDER_MSB2LSB;
  uint16_t compression = COMPRESSION_NONE;
  lib->TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &w);
  lib->TIFFGetField(t, TIFFTAG_IMAGELENGTH, &ht);
  lib->TIFFGetFieldDefaulted(t, TIFFTAG_IMAGEDEPTH, &depth);
  lib->TIFFGetFieldDefaulted(t, TIFFTAG_SAMPLESPERPIXEL, &spp);
  lib->TIFFGetFieldDefaulted(t, TIFFTAG_BITSPERSAMPLE, &bits);
  lib->TIFFGetFieldDefaulted(t, TIFFTAG_SAMPLEFORMAT, &format);
  lib->TIFFGetFieldDefaulted(t, TIFFTAG_FILLORDER, &fill);
  lib->TIFFGetFieldDefaulted(t, TIFFTAG_COMPRESSION, &compression);
  lib->TIFFGetField(t, TIFFTAG_PHOTOMETRIC, &photometric);
  if (w == 0 || ht == 0 || depth != 1)
    return Fail(h, E_IMAGEIO_HEADER, page + " is " + Num(w) + " x " + Num(ht) + (depth != 1 ? " x " + Num(depth) : "") + " pixels; only non-empty 2-D pages are read");
  if (spp != 1)
    return Fail(h, E_IMAGEIO_TYPE, page + " has " + Num(spp) + " samples per pixel (colour or multi-channel); only one sample per pixel is read");
  if (photometric == PHOTOMETRIC_PALETTE) return Fail(h, E_IMAGEIO_TYPE, page + " is a palette (colour-mapped) image");
  if (bits == 1) return Fail(h, E_IMAGEIO_TYPE, page + " is a bilevel (1-bit) image");
  const Kind *kind = nullptr;
  for (const Kind &k : kKinds)
    if (k.format == format && k.bits == bits) kind = &k;
  if (!kind) return Fail(h, E_IMAGEIO_TYPE, page + " holds " + KindText(format, bits) + ", which are not read");
  if (fill != FILLORDER_MSB2LSB) return Fail(h, E_IMAGEIO_TYPE, page + " stores its bits in reversed order (FillOrder 2)");
  if (!lib->TIFFIsCODECConfigured(compression)) {
    const TIFFCodec *codec = lib->TIFFFindCODEC(compression);
    return Fail(h, E_IMAGEIO_TYPE, page + " is compressed with " + (codec ? codec->name : "scheme " + Num(compression)) + ", which this libtiff cannot decode");
  }
  if (p == 0) {
    s->width = w;
    s->height = ht;
    s->kind = kind;
  } else if (w != s->width || ht != s->height || kind != s->kind) {
    return Fail(h, E_IMAGEIO_TYPE, page + " is " + Num(w) + " x " + Num(ht) + " of " + KindText(format, bits) + ", page 1 " +
                                       Num(s->width) + " x " + Num(s->height) + " of " + KindText(s->kind->format, s->kind->bits) +
                                       "; all pages must be alike");
  }
  s->page = p;
  if (uint32_t st = Layout(h)) return st;
  // A tile, and a band of decoded rows (a strip, or a row of tiles as high as the page allows);
  // uncompressed strips are read straight from the file, in no band.
  const uint64_t es = bits / 8, across = (s->width + s->unit_w - 1) / s->unit_w;
  const unsigned __int128 tile = static_cast<unsigned __int128>(s->unit_w) * s->unit_h * es;
  const unsigned __int128 band = static_cast<unsigned __int128>(across) * s->unit_w * std::min(s->unit_h, s->height) * es;
  const uint64_t unit = static_cast<uint64_t>(tile);
  if ((tile > kMaxBand || band > kMaxBand) && (s->tiled || !s->plain))
    return Fail(h, E_IMAGEIO_TYPE, page + ": a " + (s->tiled ? "row of tiles" : "strip") + " of more than " + Num(kMaxBand >> 20) + " MiB decoded is not read");
  const uint32_t n = s->tiled ? lib->TIFFNumberOfTiles(t) : lib->TIFFNumberOfStrips(t);
  const char *what = s->tiled ? "tile " : "strip ";
  if (n == 0) return Fail(h, E_IMAGEIO_HEADER, page + " has no strips or tiles");
  s->compressed |= !s->plain;
  for (uint32_t i = 0; i < n; ++i) {
    int err = 0;
    uint64_t off = lib->TIFFGetStrileOffsetWithErr(t, i, &err), bytes = lib->TIFFGetStrileByteCountWithErr(t, i, &err);
    if (err) return Fail(h, E_IMAGEIO_HEADER, page + ", " + what + Num(i + 1));
    if (off > h->size || bytes > h->size - off)
      return Fail(h, E_IMAGEIO_HEADER, page + ", " + what + Num(i + 1) + " of " + Num(bytes) + " bytes at offset " + Num(off) + " lies past the end of the file");
    // Decoded bytes of this strip or tile (the last strip of a page may be short).
    uint64_t need = s->tiled ? unit : std::min<uint64_t>(s->unit_h, s->height - std::min<uint64_t>(s->height, i * s->unit_h)) * s->width * es;
    if (s->plain && bytes < need)
      return Fail(h, E_IMAGEIO_HEADER, page + ", " + what + Num(i + 1) + " holds " + Num(bytes) + " bytes, " + Num(need) + " needed");
    sum->stored += bytes;
    if (!s->plain) sum->packed += bytes, sum->unpacked += need;
  }
  // Strips that share their bytes, and compression beyond what any codec achieves, are how a small
  // file claims an enormous image: refused before anything is decoded.
  if (sum->stored > h->size) return Fail(h, E_IMAGEIO_HEADER, page + ": strips or tiles overlap (together they hold more bytes than the file)");
  if (sum->unpacked > sum->packed * kMaxRatio)
    return Fail(h, E_IMAGEIO_HEADER, page + ": data compressed more than " + Num(kMaxRatio) + " to 1");
  return 0;
}

uint32_t Open(ImageioHandle *h) {
  // libtiff reads the file itself, so a gzip stream cannot be put beneath it.
  if (h->gz)
    return ImageioFail(h, E_IMAGEIO_TYPE, " (a gzip-compressed TIFF file is not read: decompress it first; TIFF's own deflate compression is)");
  if (uint32_t st = LoadLibrary(h)) return st;
  TiffState *s = State(h);
  // Strips as stored (no chopping of large ones), no mapping.
  if (!OpenTiff(h, "rcm")) return Fail(h, E_IMAGEIO_HEADER, State(h)->message[0] ? "header" : "file without an image directory");
  Totals sum{};
  for (uint64_t p = 0;; ++p) {
    if (p == kMaxPages) return Fail(h, E_IMAGEIO_HEADER, "file with more than " + Num(kMaxPages) + " pages");
    if (uint32_t st = CheckPage(h, p, &sum)) return st;
    if (p == s->ifd_cap) {
      s->ifd_cap = std::max<uint64_t>(16, 2 * s->ifd_cap);
      auto *grown = static_cast<uint64_t *>(std::realloc(s->ifd, s->ifd_cap * sizeof(uint64_t)));
      if (!grown) return ImageioFail(h, E_MEMORY, " (TIFF page list)");
      s->ifd = grown;
    }
    s->ifd[p] = lib->TIFFCurrentDirOffset(s->tif);
    s->pages = p + 1;
    if (p == 0) {
      char *description = nullptr;
      if (lib->TIFFGetField(s->tif, TIFFTAG_IMAGEDESCRIPTION, &description)) ReadHistory(h, description);
      ReadGeometry(h);
    }
    if (lib->TIFFLastDirectory(s->tif)) break;
    // libtiff stops silently where the chain of directories loops back.
    if (!lib->TIFFReadDirectory(s->tif))
      return Fail(h, E_IMAGEIO_HEADER, "page " + Num(p + 2) + (s->message[0] ? "" : ": the chain of page directories loops back"));
  }
  s->have_page = false;
  h->dim = s->pages > 1 ? 3 : 2;
  h->len[0] = s->width;
  h->len[1] = s->height;
  h->len[2] = s->pages;
  h->type = s->kind->type;
  h->conv = s->kind->conv;
  h->file_esize = s->kind->bits / 8;
  h->data_offset = 0;
  h->big_endian = false;  // blocks come in this machine's order
  if (h->mode == ImageioModeReadWrite) {
    if (s->compressed) return Fail(h, E_IMAGEIO_WRITE, "compressed data cannot be rewritten in place; write a new file instead");
    if (h->conv != ImageioConvNone)
      return Fail(h, E_IMAGEIO_TYPE, KindText(s->kind->format, s->kind->bits) + " are read only here; write the result to a new file");
  }
  return 0;
}

uint32_t Grow(ImageioHandle *h, unsigned char **buf, uint64_t *cap, uint64_t bytes) {
  if (bytes <= *cap) return 0;
  auto *p = static_cast<unsigned char *>(std::malloc(bytes));
  if (!p) return ImageioFail(h, E_MEMORY, (" (TIFF buffer of " + Num(bytes) + " bytes)").c_str());
  std::free(*buf);
  *buf = p;
  *cap = bytes;
  return 0;
}

// Decodes the strip, or the row of tiles, that holds row r of the page libtiff holds into the band.
uint32_t FillBand(ImageioHandle *h, uint64_t r) {
  TiffState *s = State(h);
  const uint64_t es = h->file_esize, k = r / s->unit_h, row0 = k * s->unit_h;
  const uint64_t rows = std::min(s->unit_h, s->height - row0), bytes = rows * s->width * es;
  s->band_rows = 0;
  if (uint32_t st = Grow(h, &s->band, &s->band_cap, bytes)) return st;
  const std::string where = "page " + Num(s->page + 1) + ", ";
  if (!s->tiled) {
    if (lib->TIFFReadEncodedStrip(s->tif, static_cast<uint32_t>(k), s->band, static_cast<tmsize_t>(bytes)) != static_cast<tmsize_t>(bytes))
      return Fail(h, E_IMAGEIO_READ, where + "strip " + Num(k + 1));
  } else {
    const uint64_t tile = s->unit_w * s->unit_h * es, across = (s->width + s->unit_w - 1) / s->unit_w;
    if (uint32_t st = Grow(h, &s->tile, &s->tile_cap, tile)) return st;
    for (uint64_t c = 0; c < across; ++c) {
      uint32_t index = lib->TIFFComputeTile(s->tif, static_cast<uint32_t>(c * s->unit_w), static_cast<uint32_t>(row0), 0, 0);
      if (lib->TIFFReadEncodedTile(s->tif, index, s->tile, static_cast<tmsize_t>(tile)) != static_cast<tmsize_t>(tile))
        return Fail(h, E_IMAGEIO_READ, where + "tile " + Num(index + 1));
      const uint64_t cols = std::min(s->unit_w, s->width - c * s->unit_w);
      for (uint64_t i = 0; i < rows; ++i)
        std::memcpy(s->band + (i * s->width + c * s->unit_w) * es, s->tile + i * s->unit_w * es, cols * es);
    }
  }
  s->band_page = s->page;
  s->band_row = row0;
  s->band_rows = rows;
  return 0;
}

// Where the uncompressed bytes of elements e .. e+n-1 of the page libtiff holds lie in the file: f(file
// offset, index of the first of them from e, element count) for each run in one strip or tile row.
template <class F>
uint32_t ForRuns(ImageioHandle *h, uint64_t e, uint64_t n, F f) {
  TiffState *s = State(h);
  const uint64_t es = h->file_esize, w = s->width;
  for (uint64_t done = 0; done < n;) {
    uint64_t at = e + done, r = at / w, col = at % w, m, off;
    if (!s->tiled) {
      uint64_t k = r / s->unit_h, start = k * s->unit_h * w;
      m = std::min(n - done, std::min((k + 1) * s->unit_h, s->height) * w - at);
      off = lib->TIFFGetStrileOffset(s->tif, static_cast<uint32_t>(k)) + (at - start) * es;
    } else {
      uint32_t index = lib->TIFFComputeTile(s->tif, static_cast<uint32_t>(col), static_cast<uint32_t>(r), 0, 0);
      uint64_t in_col = col % s->unit_w;
      m = std::min({n - done, s->unit_w - in_col, w - col});
      off = lib->TIFFGetStrileOffset(s->tif, index) + ((r % s->unit_h) * s->unit_w + in_col) * es;
    }
    if (uint32_t st = f(off, done, m)) return st;
    done += m;
  }
  return 0;
}

void Swab(unsigned char *p, uint64_t bytes, uint32_t unit) {
  const tmsize_t n = static_cast<tmsize_t>(bytes / unit);
  if (unit == 2) lib->TIFFSwabArrayOfShort(reinterpret_cast<uint16_t *>(p), n);
  else if (unit == 4) lib->TIFFSwabArrayOfLong(reinterpret_cast<uint32_t *>(p), n);
  else if (unit == 8) lib->TIFFSwabArrayOfLong8(reinterpret_cast<uint64_t *>(p), n);
}

// Calls f(page, first element in the page, count, offset from the start of the run) for the part of
// elements first .. first+count-1 on each page, with the page's directory loaded.
template <class F>
uint32_t ForPages(ImageioHandle *h, uint64_t first, uint64_t count, F f) {
  TiffState *s = State(h);
  const uint64_t plane = s->width * s->height;
  for (uint64_t done = 0; done < count;) {
    uint64_t p = (first + done) / plane, e = (first + done) % plane, n = std::min(count - done, plane - e);
    if (uint32_t st = LoadPage(h, p)) return st;
    if (uint32_t st = f(p, e, n, done)) return st;
    done += n;
  }
  return 0;
}

uint32_t ReadElements(ImageioHandle *h, uint64_t first, uint64_t count, unsigned char *dst) {
  TiffState *s = State(h);
  if (h->mode == ImageioModeCreate) return ImageioFail(h, E_IMAGEIO_READ, " (a TIFF file being written is not read back)");
  const uint64_t es = h->file_esize, w = s->width;
  return ForPages(h, first, count, [&](uint64_t p, uint64_t e, uint64_t n, uint64_t at) -> uint32_t {
    unsigned char *out = dst + at * es;
    if (s->plain && !s->tiled) {
      // Straight from the file, adjacent runs in one read.
      uint64_t run_off = 0, run_idx = 0, run_n = 0;
      auto flush = [&]() { return run_n ? ImageioReadAt(h, run_off, out + run_idx * es, run_n * es) : 0u; };
      uint32_t st = ForRuns(h, e, n, [&](uint64_t off, uint64_t idx, uint64_t m) -> uint32_t {
        if (run_n && off == run_off + run_n * es && idx == run_idx + run_n) {
          run_n += m;
          return 0;
        }
        if (uint32_t fst = flush()) return fst;
        run_off = off, run_idx = idx, run_n = m;
        return 0;
      });
      if (st || (st = flush())) return st;
      if (s->swab) Swab(out, n * es, s->swab);
      return 0;
    }
    for (uint64_t done = 0; done < n;) {
      uint64_t at_e = e + done, r = at_e / w;
      if (s->band_page != p || r < s->band_row || r >= s->band_row + s->band_rows)
        if (uint32_t st = FillBand(h, r)) return st;
      uint64_t m = std::min(n - done, (s->band_row + s->band_rows) * w - at_e);
      std::memcpy(out + done * es, s->band + (at_e - s->band_row * w) * es, m * es);
      done += m;
    }
    return 0;
  });
}

// In place: the bytes of uncompressed strips and tiles rewritten where they lie.
uint32_t Rewrite(ImageioHandle *h, uint64_t first, uint64_t count, unsigned char *src) {
  TiffState *s = State(h);
  const uint64_t es = h->file_esize, w = s->width;
  return ForPages(h, first, count, [&](uint64_t p, uint64_t e, uint64_t n, uint64_t at) -> uint32_t {
    unsigned char *in = src + at * es;
    // The band holds decoded rows that may be read again: it takes the new values too.
    if (s->band_page == p && s->band_rows) {
      uint64_t lo = std::max(e, s->band_row * w), hi = std::min(e + n, (s->band_row + s->band_rows) * w);
      if (lo < hi) std::memcpy(s->band + (lo - s->band_row * w) * es, in + (lo - e) * es, (hi - lo) * es);
    }
    if (s->swab) Swab(in, n * es, s->swab);
    return ForRuns(h, e, n, [&](uint64_t off, uint64_t idx, uint64_t m) { return ImageioWriteAt(h, off, in + idx * es, m * es); });
  });
}

// The tags of page p of a new file.
uint32_t StartPage(ImageioHandle *h, uint64_t p) {
  TiffState *s = State(h);
  TIFF *t = s->tif;
  bool ok = lib->TIFFSetField(t, TIFFTAG_IMAGEWIDTH, static_cast<uint32_t>(s->width)) &&
            lib->TIFFSetField(t, TIFFTAG_IMAGELENGTH, static_cast<uint32_t>(s->height)) &&
            lib->TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, s->kind->bits) && lib->TIFFSetField(t, TIFFTAG_SAMPLEFORMAT, s->kind->format) &&
            lib->TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 1) && lib->TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK) &&
            lib->TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG) && lib->TIFFSetField(t, TIFFTAG_COMPRESSION, s->compression) &&
            lib->TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, static_cast<uint32_t>(s->unit_h));
  if (ok && p == 0) {
    // The history as the first page's description: the lines of the image it comes from and this
    // command, at most ten, oldest dropped.
    std::vector<std::string> lines = h->history;
    if (!ImageioHistoryText().empty()) lines.push_back(ImageioHistoryText());
    std::string text;
    for (size_t i = lines.size() > kHistoryLines ? lines.size() - kHistoryLines : 0; i < lines.size(); ++i)
      text += (text.empty() ? "" : "\n") + lines[i];
    if (!text.empty()) ok = lib->TIFFSetField(t, TIFFTAG_IMAGEDESCRIPTION, text.c_str());
  }
  // The voxel size as resolution, in pixels per centimetre.
  bool res = false;
  for (int i = 0; ok && h->has_geom && i < 2; ++i)
    if (h->geom.voxel[i] > 0 && std::isfinite(h->geom.voxel[i])) {
      ok = lib->TIFFSetField(t, i ? TIFFTAG_YRESOLUTION : TIFFTAG_XRESOLUTION, 1e8 / h->geom.voxel[i]);
      res = true;
    }
  if (ok && res) ok = lib->TIFFSetField(t, TIFFTAG_RESOLUTIONUNIT, RESUNIT_CENTIMETER);
  return ok ? 0 : Fail(h, E_IMAGEIO_WRITE, "page " + Num(p + 1) + " tags");
}

// New files: elements in order, page by page; uncompressed strips go straight from the caller's block,
// compressed ones through the band, a whole strip at a time.
uint32_t Append(ImageioHandle *h, uint64_t first, uint64_t count, const unsigned char *src) {
  TiffState *s = State(h);
  if (first != s->next)
    return ImageioFail(h, E_IMAGEIO_WRITE, (" (TIFF files are written in order: elements from " + Num(first) + " given, from " + Num(s->next) + " expected)").c_str());
  const uint64_t es = h->file_esize, w = s->width, plane = w * s->height;
  for (uint64_t done = 0; done < count;) {
    uint64_t p = s->next / plane, e = s->next % plane, k = e / (s->unit_h * w), start = k * s->unit_h * w;
    uint64_t end = std::min((k + 1) * s->unit_h, s->height) * w, m = std::min(count - done, end - e);
    const unsigned char *in = src + done * es;
    if (s->compression == COMPRESSION_NONE) {
      if (lib->TIFFWriteRawStrip(s->tif, static_cast<uint32_t>(k), const_cast<unsigned char *>(in), static_cast<tmsize_t>(m * es)) < 0)
        return Fail(h, E_IMAGEIO_WRITE, "page " + Num(p + 1) + ", strip " + Num(k + 1));
    } else {
      std::memcpy(s->band + (e - start) * es, in, m * es);
      if (e + m == end && lib->TIFFWriteEncodedStrip(s->tif, static_cast<uint32_t>(k), s->band, static_cast<tmsize_t>((end - start) * es)) < 0)
        return Fail(h, E_IMAGEIO_WRITE, "page " + Num(p + 1) + ", strip " + Num(k + 1));
    }
    s->next += m;
    done += m;
    if (e + m == plane) {
      if (!lib->TIFFWriteDirectory(s->tif)) return Fail(h, E_IMAGEIO_WRITE, "page " + Num(p + 1) + " directory");
      if (p + 1 < s->pages)
        if (uint32_t st = StartPage(h, p + 1)) return st;
    }
  }
  return 0;
}

uint32_t WriteElements(ImageioHandle *h, uint64_t first, uint64_t count, unsigned char *src) {
  return h->mode == ImageioModeCreate ? Append(h, first, count, src) : Rewrite(h, first, count, src);
}

uint16_t CompressionOf(uint32_t caps) {
  return caps & ImageioCapDeflate ? COMPRESSION_ADOBE_DEFLATE
         : caps & ImageioCapLzw   ? COMPRESSION_LZW
         : caps & ImageioCapZstd  ? COMPRESSION_ZSTD
                                  : COMPRESSION_NONE;
}

uint32_t Check(ImageioHandle *h) {
  if (h->gzip_out)
    return ImageioFail(h, E_IMAGEIO_CAP, " (TIFF files are not written through gzip: name the file .tif and give -cap deflate)");
  const uint64_t pages = (h->dim > 2 ? h->len[2] : 1) * (h->dim > 3 ? h->len[3] : 1);
  if (h->type == TypeImag32 || h->type == TypeImag64)
    return ImageioFail(h, E_IMAGEIO_TYPE, " (TIFF files cannot hold ", TypeIdent(h->type), " data; write the native format instead)");
  if (h->count == 0) return ImageioFail(h, E_IMAGEIO_SIZE, " (a TIFF file cannot hold an empty image)");
  if (uint32_t st = LoadLibrary(h)) return st;
  if (h->len[0] > UINT32_MAX || (h->dim > 1 && h->len[1] > UINT32_MAX))
    return ImageioFail(h, E_IMAGEIO_SIZE, " (a TIFF page is at most 4294967295 pixels wide and high)");
  if (pages > kMaxPages) return ImageioFail(h, E_IMAGEIO_SIZE, (" (" + Num(pages) + " TIFF pages; libtiff reads at most " + Num(kMaxPages) + ")").c_str());
  uint16_t compression = CompressionOf(h->caps);
  if (!lib->TIFFIsCODECConfigured(compression)) return ImageioFail(h, E_IMAGEIO_CAP, " (this libtiff cannot write that compression)");
  return 0;
}

uint32_t Create(ImageioHandle *h) {
  TiffState *s = State(h);
  s->width = h->len[0];
  s->height = h->dim > 1 ? h->len[1] : 1;
  s->pages = h->count / (s->width * s->height);
  for (const Kind &k : kKinds)
    if (k.type == h->type && !s->kind) s->kind = &k;
  s->compression = CompressionOf(h->caps);
  const uint64_t es = h->esize, row = s->width * es;
  s->unit_w = s->width;
  s->unit_h = std::clamp<uint64_t>(kStripBytes / row, 1, s->height);
  h->data_offset = 0;
  h->conv = ImageioConvNone;
  // Classic TIFF unless the file could pass 4 GiB: the data (compressed data at its worst: LZW's
  // 12-bit codes for 8-bit input, a little for deflate's and zstd's blocks) and directories with
  // their strip tables and the description.
  using U = unsigned __int128;
  const U raw = h->count * es, strips = U(s->pages) * ((s->height + s->unit_h - 1) / s->unit_h);
  const U data = s->compression == COMPRESSION_NONE ? raw : s->compression == COMPRESSION_LZW ? raw + raw / 2 : raw + raw / 128;
  const U bound = 16 + data + strips * 80 + U(s->pages) * 1024 + kHistoryLines * (kLineBytes + 1);
  const bool big = bound > UINT32_MAX;
  if (s->compression != COMPRESSION_NONE && Grow(h, &s->band, &s->band_cap, s->unit_h * row)) return E_MEMORY;
  if (!OpenTiff(h, big ? "wl8" : "wl")) return Fail(h, E_IMAGEIO_CREATE, "file");
  return StartPage(h, 0);
}

uint32_t WriteHeader(ImageioHandle *h, bool final) {
  TiffState *s = State(h);
  if (h->mode != ImageioModeCreate || !final) return 0;
  // Elements never written are zero, as in the other formats.
  static const unsigned char kZeros[1 << 16] = {};
  while (s->next < h->count)
    if (uint32_t st = Append(h, s->next, std::min<uint64_t>(h->count - s->next, sizeof kZeros / h->esize), kZeros)) return st;
  return lib->TIFFFlush(s->tif) ? 0 : Fail(h, E_IMAGEIO_WRITE, "file");
}

void Release(ImageioHandle *h) {
  TiffState *s = State(h);
  s->quiet = true;  // a file still being written is being discarded: nothing more goes into it
  if (s->tif) lib->TIFFCleanup(s->tif);
  std::free(s->ifd);
  std::free(s->band);
  std::free(s->tile);
}

}  // namespace

extern const ImageioFormat ImageioTiffFormat = {
    .name = "tiff",
    .extensions = kExtensions,
    .probe = Probe,
    .magic = true,
    .state_bytes = sizeof(TiffState),
    .open = Open,
    .check = Check,
    .create = Create,
    .write_header = WriteHeader,
    .keeps_stats = false,
    .keeps_history = true,
    .exact_size = false,
    .read_elements = ReadElements,
    .write_elements = WriteElements,
    .release = Release,
    .compresses = true,
};
