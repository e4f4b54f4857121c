// The registry of file formats: the one list from which format names, the "known formats" text,
// the format of a new file by its name and detection by content all follow.
#include <cctype>
#include <cstring>
#include <string>

#include "platform/imageio/format.h"
#include "platform/imageio/gzip.h"

// The formats, one line each. The first is the format of new files whose name no format claims.
// A new format is its own file under formats/ that defines its ImageioFormat record, and a line here.
#define ZV_IMAGE_FORMATS(LINE) \
  LINE(ImageioZvFormat)        \
  LINE(ImageioMrcFormat)       \
  LINE(ImageioNpyFormat)       \
  LINE(ImageioTiffFormat)

#define ZV_DECLARE(record) extern const ImageioFormat record;
ZV_IMAGE_FORMATS(ZV_DECLARE)
#undef ZV_DECLARE

namespace {

#define ZV_ROW(record) &record,
const ImageioFormat *const kFormats[] = {ZV_IMAGE_FORMATS(ZV_ROW)};
#undef ZV_ROW

// Endings of formats that are not written here: a new file so named is refused rather than written
// in the native format under a name that promises another one.
const char *const kForeignExtensions[] = {
    ".png", ".jpg", ".jpeg", ".jp2", ".j2k", ".gif", ".bmp", ".webp", ".h5", ".hdf", ".hdf5", ".he5",
    ".zarr", ".n5", ".dm3", ".dm4", ".eer", ".ser", ".emd", ".nii", ".czi", ".lif", ".nd2", ".svs",
    ".spi", ".hed", ".xml", ".json", ".txt", ".csv",
};

bool EndsWith(const std::string &s, const char *suffix) {
  size_t n = std::strlen(suffix);
  if (s.size() < n) return false;
  for (size_t i = 0; i < n; ++i)
    if (std::tolower(static_cast<unsigned char>(s[s.size() - n + i])) != suffix[i]) return false;
  return true;
}

}  // namespace

const ImageioFormat *ImageioFormatByName(const char *name) {
  if (!name) return nullptr;
  for (const ImageioFormat *f : kFormats)
    if (std::strcmp(f->name, name) == 0) return f;
  return nullptr;
}

const ImageioFormat *ImageioFormatForNewFile(const std::string &path) {
  // A compressed file holds the format that the name before ".gz" chooses.
  const std::string name = ImageioGzipName(path) ? path.substr(0, path.size() - 3) : path;
  for (const ImageioFormat *f : kFormats)
    for (const char *const *e = f->extensions; *e; ++e)
      if (EndsWith(name, *e)) return f;
  for (const char *e : kForeignExtensions)
    if (EndsWith(name, e)) return nullptr;
  return kFormats[0];
}

const ImageioFormat *ImageioFormatDetect(const unsigned char *head, uint64_t n, uint64_t size) {
  for (bool magic : {true, false})
    for (const ImageioFormat *f : kFormats)
      if (f->magic == magic && f->probe(head, n, size)) return f;
  return nullptr;
}

const char *ImageioFormatName(uint32_t index) {
  return index < sizeof kFormats / sizeof kFormats[0] ? kFormats[index]->name : nullptr;
}
