// The native format "zv": a 4096-byte little-endian header, then the elements, axis 0 fastest.
// The layout is described in docs/native-format.md.
#include <algorithm>
#include <cstring>
#include <string>

#include "platform/core/array.h"
#include "platform/core/types.h"
#include "platform/imageio/format.h"

namespace {

const unsigned char kMagic[8] = {0x89, 'Z', 'V', 'I', 'M', 'G', '\r', '\n'};
constexpr uint32_t kVersion = 1;
constexpr uint64_t kHeaderBytes = 4096;  // also the data offset of new files: mapped data is page-aligned
constexpr uint64_t kUsedBytes = 1056;    // the part of the header with fields; the rest is zero
constexpr size_t kLines = 10, kLineBytes = 80;

enum : size_t {
  kOffVersion = 8,
  kOffType = 12,
  kOffAttr = 16,
  kOffDim = 20,
  kOffLen = 24,
  kOffData = 56,
  kOffBytes = 64,
  kOffGeomFlag = 72,
  kOffSpaceGroup = 76,
  kOffVoxel = 80,
  kOffOrigin = 104,
  kOffAxisOrder = 128,
  kOffLines = 140,
  kOffStart = 144,  // in the reserved zeros of version 1: files written before it read as start 0
  kOffHistory = 256,
};

// New files of any name no other format claims are native files.
const char *const kExtensions[] = {nullptr};

bool Probe(const unsigned char *head, uint64_t n, uint64_t) {
  return n >= sizeof kMagic && std::memcmp(head, kMagic, sizeof kMagic) == 0;
}

uint32_t Open(ImageioHandle *h) {
  unsigned char hd[kUsedBytes];
  if (h->size < kUsedBytes)
    return ImageioFail(h, E_IMAGEIO_HEADER, " (file too short for a zv header: ", std::to_string(h->size).c_str(),
                       " bytes)");
  if (uint32_t st = ImageioReadAt(h, 0, hd, sizeof hd)) return st;
  if (std::memcmp(hd, kMagic, sizeof kMagic) != 0) return ImageioFail(h, E_IMAGEIO_HEADER, " (not a zv file)");
  uint32_t version = ImageioGet32(hd + kOffVersion, false);
  if (version != kVersion)
    return ImageioFail(h, E_IMAGEIO_HEADER, " (unsupported zv version ", std::to_string(version).c_str(), ")");
  h->type = ImageioGet32(hd + kOffType, false);
  if (!TypeKnown(h->type))
    return ImageioFail(h, E_IMAGEIO_HEADER, " (unknown element type code ", std::to_string(h->type).c_str(), ")");
  h->attr = ImageioGet32(hd + kOffAttr, false);
  h->dim = ImageioGet32(hd + kOffDim, false);
  if (h->dim < 1 || h->dim > 4)
    return ImageioFail(h, E_IMAGEIO_DIM, " (", std::to_string(h->dim).c_str(), " axes in the header)");
  for (uint64_t k = 0; k < h->dim; ++k) h->len[k] = ImageioGet64(hd + kOffLen + 8 * k, false);
  uint64_t count, bytes;
  if (ArrayOffset(h->dim, h->len, TypeSize(h->type), &count))
    return ImageioFail(h, E_IMAGEIO_SIZE, " (the header's axis lengths overflow)");
  bytes = count * TypeSize(h->type);
  if (ImageioGet64(hd + kOffBytes, false) != bytes)
    return ImageioFail(h, E_IMAGEIO_HEADER, " (data size does not match the axis lengths)");
  h->data_offset = ImageioGet64(hd + kOffData, false);
  if (h->data_offset < kUsedBytes || h->data_offset % 64 != 0)
    return ImageioFail(h, E_IMAGEIO_HEADER, " (bad data offset ", std::to_string(h->data_offset).c_str(), ")");
  h->file_esize = TypeSize(h->type);
  h->conv = ImageioConvNone;
  h->has_geom = ImageioGet32(hd + kOffGeomFlag, false) & 1;
  if (h->has_geom) {
    h->geom.spacegroup = static_cast<int32_t>(ImageioGet32(hd + kOffSpaceGroup, false));
    for (int i = 0; i < 3; ++i) {
      h->geom.voxel[i] = ImageioGetF64(hd + kOffVoxel + 8 * i, false);
      h->geom.origin[i] = ImageioGetF64(hd + kOffOrigin + 8 * i, false);
      h->geom.axisorder[i] = static_cast<int32_t>(ImageioGet32(hd + kOffAxisOrder + 4 * i, false));
      h->geom.start[i] = static_cast<int32_t>(ImageioGet32(hd + kOffStart + 4 * i, false));
    }
  }
  uint32_t lines = ImageioGet32(hd + kOffLines, false);
  if (lines > kLines) lines = kLines;
  for (uint32_t i = 0; i < lines; ++i) {
    const char *p = reinterpret_cast<const char *>(hd + kOffHistory + kLineBytes * i);
    std::string s(p, strnlen(p, kLineBytes));
    while (!s.empty() && s.back() == ' ') s.pop_back();
    if (!s.empty()) h->history.push_back(s);
  }
  return 0;
}

uint32_t Check(ImageioHandle *) { return 0; }

uint32_t Create(ImageioHandle *h) {
  h->data_offset = kHeaderBytes;
  h->conv = ImageioConvNone;
  return 0;
}

uint32_t WriteHeader(ImageioHandle *h, bool) {
  unsigned char hd[kUsedBytes];
  std::memset(hd, 0, sizeof hd);
  std::memcpy(hd, kMagic, sizeof kMagic);
  ImageioPut32(hd + kOffVersion, kVersion, false);
  ImageioPut32(hd + kOffType, h->type, false);
  ImageioPut32(hd + kOffAttr, h->attr, false);
  ImageioPut32(hd + kOffDim, static_cast<uint32_t>(h->dim), false);
  for (uint64_t k = 0; k < h->dim; ++k) ImageioPut64(hd + kOffLen + 8 * k, h->len[k], false);
  ImageioPut64(hd + kOffData, h->data_offset, false);
  ImageioPut64(hd + kOffBytes, h->count * h->esize, false);
  if (h->has_geom) {
    ImageioPut32(hd + kOffGeomFlag, 1, false);
    ImageioPut32(hd + kOffSpaceGroup, static_cast<uint32_t>(h->geom.spacegroup), false);
    for (int i = 0; i < 3; ++i) {
      ImageioPutF64(hd + kOffVoxel + 8 * i, h->geom.voxel[i], false);
      ImageioPutF64(hd + kOffOrigin + 8 * i, h->geom.origin[i], false);
      ImageioPut32(hd + kOffAxisOrder + 4 * i, static_cast<uint32_t>(h->geom.axisorder[i]), false);
      ImageioPut32(hd + kOffStart + 4 * i, static_cast<uint32_t>(h->geom.start[i]), false);
    }
  }
  size_t lines = std::min(h->history.size(), kLines);
  size_t skip = h->history.size() - lines;
  ImageioPut32(hd + kOffLines, static_cast<uint32_t>(lines), false);
  for (size_t i = 0; i < lines; ++i) {
    unsigned char *p = hd + kOffHistory + kLineBytes * i;
    std::memset(p, ' ', kLineBytes);
    const std::string &s = h->history[skip + i];
    std::memcpy(p, s.data(), std::min(s.size(), kLineBytes));
  }
  return ImageioWriteAt(h, 0, hd, sizeof hd);
}

}  // namespace

extern const ImageioFormat ImageioZvFormat = {
    .name = "zv",
    .extensions = kExtensions,
    .probe = Probe,
    .magic = true,
    .state_bytes = 0,
    .open = Open,
    .check = Check,
    .create = Create,
    .write_header = WriteHeader,
    .keeps_stats = false,
    .keeps_history = true,
    .exact_size = true,
};
