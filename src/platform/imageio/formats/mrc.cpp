// MRC2014 files: a 1024-byte header of 4-byte words, an optional extended header, then the data with
// x fastest. Written little-endian with statistics and labels; a new file carries the extended header
// of the MRC file its geometry comes from.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "platform/core/types.h"
#include "platform/imageio/format.h"

namespace {

enum : size_t {
  kNx = 0, kNy = 4, kNz = 8, kMode = 12, kStart = 16, kMx = 28, kMy = 32, kMz = 36, kCella = 40, kCellb = 52,
  kMapc = 64, kDmin = 76, kDmax = 80, kDmean = 84, kIspg = 88, kNsymbt = 92, kExttyp = 104, kNversion = 108,
  kNint = 128, kImodStamp = 152, kImodFlags = 156, kOrigin = 196, kMap = 208, kMachst = 212, kRms = 216, kNlabl = 220,
  kLabels = 224,
};
constexpr int32_t kImodStampValue = 1146047817;
constexpr int32_t kImodSigned = 1;  // imodFlags: mode 0 bytes are signed
constexpr size_t kLabelCount = 10, kLabelBytes = 80;

const char *const kExtensions[] = {".mrc", ".mrcs", ".map", ".rec", ".st", ".ali", ".ccp4", nullptr};

// A handle's copy of the header, kept for rewriting it at the close; for a new file, the bytes of the
// extended header copied from its source.
struct MrcState {
  unsigned char header[1024];
  uint32_t carried;
};

unsigned char *Header(ImageioHandle *h) { return static_cast<MrcState *>(h->format_state)->header; }

int32_t I32(const unsigned char *hd, size_t off, bool big) { return static_cast<int32_t>(ImageioGet32(hd + off, big)); }

// Bytes of one stored element of a mode; 0 for modes this library does not read.
uint32_t ModeBytes(int32_t mode) {
  switch (mode) {
    case 0: return 1;
    case 1: case 6: case 12: return 2;
    case 2: case 3: return 4;
    case 4: return 8;
    default: return 0;
  }
}

// Byte order of a header: the machine stamp when it is one of the known ones, else whichever order
// gives a known mode and sane axis lengths (little-endian when both or neither do).
bool BigEndian(const unsigned char *hd) {
  if (hd[kMachst] == 0x44 || hd[kMachst] == 0x41) return false;
  if (hd[kMachst] == 0x11) return true;
  auto sane = [&](bool big) {
    return ModeBytes(I32(hd, kMode, big)) != 0 && I32(hd, kNx, big) >= 0 && I32(hd, kNy, big) >= 0 &&
           I32(hd, kNz, big) >= 0;
  };
  return !sane(false) && sane(true);
}

// An old-style header without the "MAP " stamp: a known mode, sane lengths, and a file size that
// matches the header exactly.
bool Plausible(const unsigned char *hd, uint64_t size, bool big) {
  int32_t nx = I32(hd, kNx, big), ny = I32(hd, kNy, big), nz = I32(hd, kNz, big);
  int32_t nsymbt = I32(hd, kNsymbt, big);
  uint32_t eb = ModeBytes(I32(hd, kMode, big));
  if (eb == 0 || nx <= 0 || ny <= 0 || nz <= 0 || nsymbt < 0) return false;
  unsigned __int128 bytes = static_cast<unsigned __int128>(nx) * static_cast<unsigned __int128>(ny) *
                            static_cast<unsigned __int128>(nz) * eb;
  return 1024 + static_cast<unsigned __int128>(nsymbt) + bytes == size;
}

bool Probe(const unsigned char *head, uint64_t n, uint64_t size) {
  if (n < 1024) return false;
  if (std::memcmp(head + kMap, "MAP ", 4) == 0) return true;
  return Plausible(head, size, false) || Plausible(head, size, true);
}

uint32_t Open(ImageioHandle *h) {
  unsigned char *hd = Header(h);
  if (h->size < 1024)
    return ImageioFail(h, E_IMAGEIO_HEADER, " (file too short for an MRC header: ", std::to_string(h->size).c_str(),
                       " bytes)");
  if (uint32_t st = ImageioReadAt(h, 0, hd, 1024)) return st;
  bool big = BigEndian(hd);
  h->big_endian = big;
  int32_t n[3] = {I32(hd, kNx, big), I32(hd, kNy, big), I32(hd, kNz, big)};
  static const char *const kAxis[3] = {"nx", "ny", "nz"};
  for (int i = 0; i < 3; ++i)
    if (n[i] < 0)
      return ImageioFail(h, E_IMAGEIO_HEADER, (std::string(" (negative axis length ") + kAxis[i] + " = ").c_str(),
                         std::to_string(n[i]).c_str(), ")");
  int32_t mode = I32(hd, kMode, big);
  int32_t nsymbt = I32(hd, kNsymbt, big);
  if (nsymbt < 0)
    return ImageioFail(h, E_IMAGEIO_HEADER, " (negative extended header size ", std::to_string(nsymbt).c_str(), ")");
  if (1024 + static_cast<uint64_t>(nsymbt) > h->size)
    return ImageioFail(h, E_IMAGEIO_HEADER, " (extended header of ", std::to_string(nsymbt).c_str(),
                       " bytes extends past the end of the file)");
  h->data_offset = 1024 + static_cast<uint64_t>(nsymbt);
  h->conv = big ? ImageioConvSwap : ImageioConvNone;
  switch (mode) {
    case 0: {
      // Signed unless the file carries IMOD's stamp without the signed flag.
      bool imod = I32(hd, kImodStamp, big) == kImodStampValue;
      h->type = imod && !(I32(hd, kImodFlags, big) & kImodSigned) ? TypeUint8 : TypeInt8;
      h->conv = ImageioConvNone;
      break;
    }
    case 1: h->type = TypeInt16; h->swap_unit = 2; break;
    case 2: h->type = TypeReal32; h->swap_unit = 4; break;
    case 4: h->type = TypeCmplx32; h->swap_unit = 4; break;
    case 6: h->type = TypeUint16; h->swap_unit = 2; break;
    case 3: h->type = TypeCmplx32; h->conv = ImageioConvCint16; break;
    case 12: h->type = TypeReal32; h->conv = ImageioConvHalf; break;
    case 101:
      return ImageioFail(h, E_IMAGEIO_TYPE, " (MRC mode 101, 4-bit packed data, is not supported)");
    default:
      return ImageioFail(h, E_IMAGEIO_HEADER, " (unknown MRC mode ", std::to_string(mode).c_str(), ")");
  }
  h->file_esize = ModeBytes(mode);
  if (h->mode == 2 && mode == 3)
    return ImageioFail(h, E_IMAGEIO_TYPE, " (MRC mode 3 is read only here; write the result to a new file)");
  if (h->mode == 2 && mode == 12 && !(h->caps & ImageioCapHalf))
    return ImageioFail(h, E_IMAGEIO_TYPE, " (MRC mode 12 holds binary16 values: rewrite it in place with -cap half, "
                                          "which rounds the results to binary16, or write a new file)");

  int32_t m[3] = {I32(hd, kMx, big), I32(hd, kMy, big), I32(hd, kMz, big)};
  int32_t ispg = I32(hd, kIspg, big);
  if (ispg >= 401 && ispg <= 630 && m[2] > 0 && n[2] % m[2] == 0) {
    h->dim = 4;
    h->len[0] = static_cast<uint64_t>(n[0]);
    h->len[1] = static_cast<uint64_t>(n[1]);
    h->len[2] = static_cast<uint64_t>(m[2]);
    h->len[3] = static_cast<uint64_t>(n[2] / m[2]);
  } else {
    h->dim = ispg == 0 && n[2] == 1 ? 2 : 3;
    for (int i = 0; i < 3; ++i) h->len[i] = static_cast<uint64_t>(n[i]);
  }
  h->has_geom = true;
  for (int i = 0; i < 3; ++i) {
    float cell = ImageioGetF32(hd + kCella + 4 * i, big);
    h->geom.voxel[i] = m[i] > 0 ? static_cast<double>(cell) / m[i] : 0.0;
    h->geom.origin[i] = ImageioGetF32(hd + kOrigin + 4 * i, big);
    h->geom.axisorder[i] = I32(hd, kMapc + 4 * i, big);
    h->geom.start[i] = I32(hd, kStart + 4 * i, big);
  }
  h->geom.spacegroup = ispg;
  int32_t nlabl = std::clamp<int32_t>(I32(hd, kNlabl, big), 0, kLabelCount);
  for (int32_t i = 0; i < nlabl; ++i) {
    std::string s(reinterpret_cast<const char *>(hd + kLabels + kLabelBytes * i), kLabelBytes);
    for (char &c : s)
      if (static_cast<unsigned char>(c) < 32 || static_cast<unsigned char>(c) > 126) c = ' ';
    while (!s.empty() && s.back() == ' ') s.pop_back();
    if (!s.empty()) h->history.push_back(s);
  }
  return 0;
}

int32_t ModeOf(uint32_t type) {
  switch (type) {
    case TypeInt8: case TypeUint8: return 0;
    case TypeInt16: return 1;
    case TypeReal32: return 2;
    case TypeCmplx32: return 4;
    case TypeUint16: return 6;
    default: return -1;
  }
}

// The stored axis lengths of a new file: nx, ny, nz and the sections per volume (mz).
void Layout(const ImageioHandle *h, uint64_t n[3], uint64_t *mz, int32_t *ispg) {
  n[0] = h->len[0];
  n[1] = h->dim > 1 ? h->len[1] : 1;
  n[2] = h->dim > 2 ? h->len[2] : 1;
  int32_t sg = h->has_geom ? h->geom.spacegroup : -1;
  if (h->dim <= 2) {
    *ispg = 0;
    *mz = 1;
  } else if (h->dim == 3) {
    // A stack stays a stack (space group 0); anything else is a volume.
    *ispg = sg >= 0 && sg <= 230 ? sg : 1;
    *mz = *ispg == 0 ? 1 : n[2];
  } else {
    *ispg = sg >= 401 && sg <= 630 ? sg : 401;
    *mz = h->len[2];
    n[2] = h->len[2] * h->len[3];
    if (h->len[3] != 0 && n[2] / h->len[3] != h->len[2]) n[2] = UINT64_MAX;
  }
}

uint32_t Check(ImageioHandle *h) {
  if (ModeOf(h->type) < 0)
    return ImageioFail(h, E_IMAGEIO_TYPE, " (MRC files cannot hold ", TypeIdent(h->type),
                       " data; write a .npy file or the native format instead)");
  if (h->caps & ImageioCapHalf) {  // real32 as mode 12
    h->conv = ImageioConvHalf;
    h->file_esize = 2;
  }
  uint64_t n[3], mz;
  int32_t ispg;
  Layout(h, n, &mz, &ispg);
  for (uint64_t v : {n[0], n[1], n[2], mz})
    if (v > INT32_MAX) return ImageioFail(h, E_IMAGEIO_SIZE, " (axis length beyond the MRC limit of 2147483647)");
  return 0;
}

bool Permutation(const int32_t a[3]) {
  bool seen[4] = {false, false, false, false};
  for (int i = 0; i < 3; ++i) {
    if (a[i] < 1 || a[i] > 3 || seen[a[i]]) return false;
    seen[a[i]] = true;
  }
  return true;
}

void PutStats(unsigned char *hd, float dmin, float dmax, float dmean, float rms, bool big) {
  ImageioPutF32(hd + kDmin, dmin, big);
  ImageioPutF32(hd + kDmax, dmax, big);
  ImageioPutF32(hd + kDmean, dmean, big);
  ImageioPutF32(hd + kRms, rms, big);
}

// Statistics not computed, the way the format marks them: dmax < dmin, dmean < both, rms < 0.
void PutNoStats(unsigned char *hd, bool big) { PutStats(hd, 0.0f, -1.0f, -2.0f, -1.0f, big); }

// The extended header of the MRC file a new file takes its geometry from goes with it unchanged, with
// its type (exttyp) and IMOD's description of its records (nint, nreal), padded with zeros to a
// multiple of the element's component size so that the data stays aligned. A big-endian source's
// binary records would be misread in a little-endian file: it is not carried.
uint64_t CarryExtended(ImageioHandle *h, unsigned char *hd) {
  const ImageioHandle *src = h->source;
  if (!src || src->format != h->format || src->big_endian) return 0;
  const unsigned char *shd = static_cast<const MrcState *>(src->format_state)->header;
  int32_t nsymbt = I32(shd, kNsymbt, false);
  uint32_t unit = h->type == TypeCmplx32 ? 4 : h->file_esize;
  uint64_t padded = (static_cast<uint64_t>(nsymbt) + unit - 1) / unit * unit;
  if (nsymbt <= 0 || padded > INT32_MAX) return 0;
  static_cast<MrcState *>(h->format_state)->carried = static_cast<uint32_t>(nsymbt);
  std::memcpy(hd + kExttyp, shd + kExttyp, 4);
  std::memcpy(hd + kNint, shd + kNint, 4);
  ImageioPut32(hd + kNsymbt, static_cast<uint32_t>(padded), false);
  return padded;
}

// Copies the carried extended header from the source, a piece at a time.
uint32_t CopyExtended(ImageioHandle *h) {
  uint64_t n = static_cast<MrcState *>(h->format_state)->carried;
  std::vector<unsigned char> piece(std::min<uint64_t>(n, 1u << 20));
  for (uint64_t done = 0; done < n;) {
    uint64_t m = std::min<uint64_t>(piece.size(), n - done);
    if (uint32_t st = ImageioReadAt(h->source, 1024 + done, piece.data(), m)) return st;
    if (uint32_t st = ImageioWriteAt(h, 1024 + done, piece.data(), m)) return st;
    done += m;
  }
  return 0;
}

uint32_t Create(ImageioHandle *h) {
  unsigned char *hd = Header(h);
  std::memset(hd, 0, 1024);
  h->data_offset = 1024 + CarryExtended(h, hd);
  h->big_endian = false;
  uint64_t n[3], mz;
  int32_t ispg;
  Layout(h, n, &mz, &ispg);
  int32_t mode = h->conv == ImageioConvHalf ? 12 : ModeOf(h->type);
  for (int i = 0; i < 3; ++i) ImageioPut32(hd + kNx + 4 * i, static_cast<uint32_t>(n[i]), false);
  ImageioPut32(hd + kMode, static_cast<uint32_t>(mode), false);
  uint64_t m[3] = {n[0], n[1], mz};
  for (int i = 0; i < 3; ++i) ImageioPut32(hd + kMx + 4 * i, static_cast<uint32_t>(m[i]), false);
  int32_t order[3] = {1, 2, 3};
  if (h->has_geom && Permutation(h->geom.axisorder)) std::copy(h->geom.axisorder, h->geom.axisorder + 3, order);
  for (int i = 0; i < 3; ++i) {
    double voxel = h->has_geom ? h->geom.voxel[i] : 0.0;
    ImageioPutF32(hd + kCella + 4 * i, static_cast<float>(voxel * static_cast<double>(m[i])), false);
    ImageioPutF32(hd + kCellb + 4 * i, 90.0f, false);
    ImageioPut32(hd + kMapc + 4 * i, static_cast<uint32_t>(order[i]), false);
    ImageioPutF32(hd + kOrigin + 4 * i, h->has_geom ? static_cast<float>(h->geom.origin[i]) : 0.0f, false);
    ImageioPut32(hd + kStart + 4 * i, h->has_geom ? static_cast<uint32_t>(h->geom.start[i]) : 0, false);
  }
  PutNoStats(hd, false);
  ImageioPut32(hd + kIspg, static_cast<uint32_t>(ispg), false);
  ImageioPut32(hd + kNversion, 20141, false);
  if (mode == 0) {
    // Bytes carry IMOD's stamp, so that unsigned data is told apart from signed.
    ImageioPut32(hd + kImodStamp, static_cast<uint32_t>(kImodStampValue), false);
    ImageioPut32(hd + kImodFlags, h->type == TypeInt8 ? kImodSigned : 0, false);
  }
  std::memcpy(hd + kMap, "MAP ", 4);
  hd[kMachst] = 0x44;
  hd[kMachst + 1] = 0x44;
  return 0;
}

uint32_t WriteHeader(ImageioHandle *h, bool final) {
  unsigned char *hd = Header(h);
  bool big = h->big_endian;
  if (final) {
    ImageioStats s;
    float dmin, dmax, dmean, rms;
    if (h->type == TypeCmplx32) {
      PutNoStats(hd, big);
    } else {
      if (uint32_t st = ImageioFinalStats(h, &s)) return st;
      // Unsigned bytes above 127 read differently by readers that ignore IMOD's flag: no statistics
      // rather than statistics that are wrong for some readers.
      bool ambiguous = h->type == TypeUint8 && s.n > 0 && s.max > 127;
      if (!ambiguous && ImageioStatsResult(s, &dmin, &dmax, &dmean, &rms))
        PutStats(hd, dmin, dmax, dmean, rms, big);
      else
        PutNoStats(hd, big);
    }
    // The labels: the history lines, at most ten, oldest dropped.
    size_t lines = std::min(h->history.size(), kLabelCount);
    size_t skip = h->history.size() - lines;
    std::memset(hd + kLabels, ' ', kLabelCount * kLabelBytes);
    for (size_t i = 0; i < lines; ++i) {
      const std::string &s = h->history[skip + i];
      std::memcpy(hd + kLabels + kLabelBytes * i, s.data(), std::min(s.size(), kLabelBytes));
    }
    ImageioPut32(hd + kNlabl, static_cast<uint32_t>(lines), big);
  } else if (h->mode == 2) {
    // A file about to be rewritten in place: its statistics no longer hold until the close.
    PutNoStats(hd, big);
  } else if (uint32_t st = CopyExtended(h)) {
    return st;
  }
  return ImageioWriteAt(h, 0, hd, 1024);
}

}  // namespace

extern const ImageioFormat ImageioMrcFormat = {
    .name = "mrc",
    .extensions = kExtensions,
    .probe = Probe,
    .magic = false,  // the "MAP " stamp sits at byte 208, and old-style headers have none
    .state_bytes = sizeof(MrcState),
    .open = Open,
    .check = Check,
    .create = Create,
    .write_header = WriteHeader,
    .keeps_stats = true,
    .keeps_history = true,
    .exact_size = true,
};
