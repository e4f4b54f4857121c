// What a file format provides to the image-file library, and the registry of formats
// (format_registry.cpp). A format is one file under formats/, named after the format, that defines
// its ImageioFormat record; it is known to the library by its line in the registry.
#pragma once
#include <cstdint>
#include <string>

#include "platform/imageio/byte_order.h"
#include "platform/imageio/handle.h"
#include "platform/imageio/header_stats.h"

struct ImageioFormat {
  // The name given to -fmt / -fmtin and reported by ImageioGetMeta.
  const char *name;
  // Lower-case endings of the file names that choose this format for a new file, ended by a null.
  const char *const *extensions;

  // Detection: recognise a file by its first bytes (head holds min(size, 4096) bytes). Formats with
  // a magic number at the start of the file are tried first, then those recognised by a plausible
  // header, each group in registry order.
  bool (*probe)(const unsigned char *head, uint64_t n, uint64_t size);
  bool magic;

  // Bytes of the format's private state per handle (h->format_state, zeroed), 0 for none.
  uint32_t state_bytes;

  // Read the header of an opened file: set dim, len, type, attr, geometry, history and the storage
  // fields (data_offset, file_esize, conv with swap_unit the component size of a byte-swapped form,
  // big_endian, fortran). The library checks the file size afterwards.
  uint32_t (*open)(ImageioHandle *h);
  // Refuse a description the format cannot hold, before anything is created.
  uint32_t (*check)(ImageioHandle *h);
  // Lay out a new file: set data_offset and prepare the header (written by write_header). Metadata
  // the format keeps of its own may come from h->source when that is a file of the same format.
  uint32_t (*create)(ImageioHandle *h);
  // Write the header of a new file (at creation, while h->source is still set), of a file about to
  // be rewritten in place, or of either at its close (final = true).
  uint32_t (*write_header)(ImageioHandle *h, bool final);

  bool keeps_stats;    // header statistics accumulated as blocks are written
  bool keeps_history;  // history lines recorded in new and rewritten files
  bool exact_size;     // the file ends where the data ends (else trailing bytes are allowed)

  // Optional, for formats whose elements are not one plain run at data_offset (compressed or
  // scattered strips and tiles); null for the others. With read_elements the library does not map
  // the file, check its size against the data or size a new file: the format places its data.
  // Stored elements first .. first+count-1 into dst (file_esize bytes each, in this machine's byte
  // order); the library converts them (conv) as it does for other formats.
  uint32_t (*read_elements)(ImageioHandle *h, uint64_t first, uint64_t count, unsigned char *dst) = nullptr;
  // Elements as callers see them, into a new file or a file rewritten in place; src may be changed.
  uint32_t (*write_elements)(ImageioHandle *h, uint64_t first, uint64_t count, unsigned char *src) = nullptr;
  // Frees what the format's state holds, when the handle ends (null when it holds nothing to free).
  void (*release)(ImageioHandle *h) = nullptr;
  bool compresses = false;  // new files honour the compression capabilities (deflate, lzw, zstd)
};

// The history text of this process (ImageioSetHistory), for formats that record the history of a new
// file when it is created rather than when it is closed.
const std::string &ImageioHistoryText();

// The registry (and ImageioFormatName of imageio.h). By name: null when no format has it. For a new
// file: the format whose extension ends the name (any case; the name before a final ".gz" for a
// compressed file); null when the name ends in the extension
// of a format that is not written here (.png, .h5, ...); else the first format of the registry.
// Detection: null when none recognises the bytes.
const ImageioFormat *ImageioFormatByName(const char *name);
const ImageioFormat *ImageioFormatForNewFile(const std::string &path);
const ImageioFormat *ImageioFormatDetect(const unsigned char *head, uint64_t n, uint64_t size);
