// NumPy .npy files: magic, version, header length, a dict literal with 'descr', 'fortran_order' and
// 'shape', then the raw data. An image with axis lengths (L0, L1, L2, L3) is the C-order array of
// shape (L3, L2, L1, L0).
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "platform/core/types.h"
#include "platform/imageio/format.h"

namespace {

const unsigned char kMagic[6] = {0x93, 'N', 'U', 'M', 'P', 'Y'};
constexpr uint64_t kMaxHeader = 1u << 20;
const char *const kExtensions[] = {".npy", nullptr};

bool Probe(const unsigned char *head, uint64_t n, uint64_t) {
  return n >= sizeof kMagic && std::memcmp(head, kMagic, sizeof kMagic) == 0;
}

// A small reader for the header's dict literal.
struct Parser {
  const std::string &s;
  size_t i;
  void Skip() {
    while (i < s.size() && (s[i] == ' ' || s[i] == '\t' || s[i] == '\n' || s[i] == '\r')) ++i;
  }
  bool Eat(char c) {
    Skip();
    if (i < s.size() && s[i] == c) {
      ++i;
      return true;
    }
    return false;
  }
  bool String(std::string *out) {
    Skip();
    if (i >= s.size() || (s[i] != '\'' && s[i] != '"')) return false;
    char q = s[i++];
    size_t end = s.find(q, i);
    if (end == std::string::npos) return false;
    *out = s.substr(i, end - i);
    i = end + 1;
    return true;
  }
  bool Word(const char *w) {
    Skip();
    size_t n = std::strlen(w);
    if (s.compare(i, n, w) != 0) return false;
    i += n;
    return true;
  }
  // A non-negative integer written as a Python literal: no leading zeros ("02" is not one; "00" is);
  // a trailing L of old writers is allowed when old_long is.
  bool Integer(uint64_t *v, bool *negative, bool old_long) {
    Skip();
    *negative = false;
    if (i < s.size() && s[i] == '-') {
      *negative = true;
      ++i;
    }
    if (i >= s.size() || s[i] < '0' || s[i] > '9') return false;
    const size_t first = i;
    uint64_t x = 0;
    bool overflow = false;
    while (i < s.size() && s[i] >= '0' && s[i] <= '9') {
      overflow |= __builtin_mul_overflow(x, 10, &x) || __builtin_add_overflow(x, static_cast<uint64_t>(s[i] - '0'), &x);
      ++i;
    }
    if (s[first] == '0' && x != 0) return false;
    if (old_long && i < s.size() && s[i] == 'L') ++i;
    *v = overflow ? UINT64_MAX : x;
    return true;
  }
};

struct Descr {
  const char *code;
  uint32_t type;
  uint32_t conv;
  uint32_t bytes;
};

// Stored element kinds and the element type callers see.
const Descr kDescrs[] = {
    {"b1", TypeUint8, ImageioConvNone, 1},   {"u1", TypeUint8, ImageioConvNone, 1},
    {"i1", TypeInt8, ImageioConvNone, 1},    {"u2", TypeUint16, ImageioConvSwap, 2},
    {"i2", TypeInt16, ImageioConvSwap, 2},   {"u4", TypeUint32, ImageioConvSwap, 4},
    {"i4", TypeInt32, ImageioConvSwap, 4},   {"u8", TypeUint64, ImageioConvSwap, 8},
    {"i8", TypeInt64, ImageioConvSwap, 8},   {"f2", TypeReal32, ImageioConvHalf, 2},
    {"f4", TypeReal32, ImageioConvSwap, 4},  {"f8", TypeReal64, ImageioConvSwap, 8},
    {"c8", TypeCmplx32, ImageioConvSwap, 4}, {"c16", TypeCmplx64, ImageioConvSwap, 8},
};

uint32_t Bad(ImageioHandle *h, const char *what) { return ImageioFail(h, E_IMAGEIO_HEADER, " (NPY header: ", what, ")"); }

uint32_t Open(ImageioHandle *h) {
  unsigned char pre[12];
  if (h->size < 10) return Bad(h, "file too short");
  if (uint32_t st = ImageioReadAt(h, 0, pre, h->size < 12 ? 10 : 12)) return st;
  if (std::memcmp(pre, kMagic, sizeof kMagic) != 0) return Bad(h, "bad magic, not an NPY file");
  uint32_t major = pre[6], minor = pre[7];
  if (major < 1 || major > 3 || minor != 0)
    return ImageioFail(h, E_IMAGEIO_HEADER,
                       (" (unsupported NPY version " + std::to_string(major) + "." + std::to_string(minor) +
                        "; versions 1.0, 2.0 and 3.0 are read)").c_str());
  uint64_t start = major == 1 ? 10 : 12;
  if (h->size < start) return Bad(h, "file too short");
  uint64_t hlen = major == 1 ? static_cast<uint64_t>(pre[8] | (pre[9] << 8)) : ImageioGet32(pre + 8, false);
  if (hlen > kMaxHeader) return Bad(h, "header too long");
  if (start + hlen > h->size) return Bad(h, "header extends past the end of the file");
  std::string text(hlen, '\0');
  if (uint32_t st = ImageioReadAt(h, start, text.data(), hlen)) return st;
  // NumPy evaluates the header as Python source, which cannot hold a NUL byte anywhere.
  if (text.find('\0') != std::string::npos) return Bad(h, "NUL byte in the header");

  Parser p{text, 0};
  std::string descr;
  bool have_descr = false, have_fortran = false, have_shape = false, fortran = false;
  std::vector<uint64_t> shape;
  if (!p.Eat('{')) return Bad(h, "not a dict");
  while (!p.Eat('}')) {
    std::string key;
    if (!p.String(&key) || !p.Eat(':')) return Bad(h, "malformed dict");
    if (key == "descr" && !have_descr) {
      if (!p.String(&descr)) return Bad(h, "'descr' is not a simple type string");
      have_descr = true;
    } else if (key == "fortran_order" && !have_fortran) {
      if (p.Word("True")) fortran = true;
      else if (p.Word("False")) fortran = false;
      else return Bad(h, "'fortran_order' is not True or False");
      have_fortran = true;
    } else if (key == "shape" && !have_shape) {
      if (!p.Eat('(')) return Bad(h, "'shape' is not a tuple");
      while (!p.Eat(')')) {
        uint64_t v;
        bool negative;
        if (!p.Integer(&v, &negative, major < 3)) return Bad(h, "'shape' is not a tuple of integers");
        if (negative) return Bad(h, "negative axis length in 'shape'");
        shape.push_back(v);
        if (!p.Eat(',')) {
          if (!p.Eat(')')) return Bad(h, "malformed 'shape'");
          break;
        }
      }
      have_shape = true;
    } else {
      return Bad(h, ("unexpected or repeated key '" + key + "'").c_str());
    }
    if (!p.Eat(',')) {
      if (!p.Eat('}')) return Bad(h, "malformed dict");
      break;
    }
  }
  p.Skip();
  if (p.i != text.size()) return Bad(h, "text after the dict");
  if (!have_descr || !have_fortran || !have_shape) return Bad(h, "missing key");

  if (descr.size() < 3 || !std::strchr("<>|=", descr[0]))
    return ImageioFail(h, E_IMAGEIO_TYPE, " (NPY element type '", descr.c_str(), "' is not supported)");
  const Descr *d = nullptr;
  for (const Descr &e : kDescrs)
    if (descr.compare(1, std::string::npos, e.code) == 0) d = &e;
  if (!d) return ImageioFail(h, E_IMAGEIO_TYPE, " (NPY element type '", descr.c_str(), "' is not supported)");
  h->type = d->type;
  h->big_endian = descr[0] == '>' && d->bytes > 1;
  h->conv = d->conv;
  if (d->conv == ImageioConvSwap) {
    h->swap_unit = d->bytes;
    if (!h->big_endian) h->conv = ImageioConvNone;
  }
  h->file_esize = d->conv == ImageioConvHalf ? 2 : TypeSize(d->type);
  if (h->mode == 2 && d->conv == ImageioConvHalf && !(h->caps & ImageioCapHalf))
    return ImageioFail(h, E_IMAGEIO_TYPE, " (NPY float16 data: rewrite it in place with -cap half, which rounds the "
                                          "results to binary16, or write a new file)");

  // More than four axes: axes of length 1 go first, the slowest first (the bytes stay where they are);
  // then the slowest axes fold into one, as NumPy's reshape(-1, L2, L1, L0) does. A column-major
  // array's elements are then gathered through all of its axes (fewer than 64, as its element count
  // must fit in 64 bits; an empty array has nothing to gather). Each step is one pass: a header may
  // hold a very long shape.
  if (shape.size() > 4) {
    size_t drop = std::min<size_t>(std::count(shape.begin(), shape.end(), 1), shape.size() - 4);
    std::vector<uint64_t> kept;
    for (uint64_t v : shape)
      if (v == 1 && drop > 0) --drop;
      else kept.push_back(v);
    shape.swap(kept);
  }
  if (shape.size() > 4) {
    const size_t k = shape.size() - 3;
    uint64_t folded = 1;
    for (size_t i = 0; i < k; ++i)
      if (__builtin_mul_overflow(folded, shape[i], &folded)) return ImageioFail(h, E_IMAGEIO_SIZE, " (the NPY shape overflows)");
    if (fortran && std::find(shape.begin(), shape.end(), uint64_t{0}) == shape.end())
      h->stored_len.assign(shape.rbegin(), shape.rend());
    shape.erase(shape.begin(), shape.begin() + static_cast<std::ptrdiff_t>(k - 1));
    shape[0] = folded;
  }
  const size_t n = shape.size();
  if (n == 0) {
    h->dim = 1;
    h->len[0] = 1;
  } else {
    h->dim = n;
    for (size_t k = 0; k < n; ++k) h->len[k] = shape[shape.size() - 1 - k];
  }
  // Column-major data is the same bytes as row-major when at most one axis is longer than 1.
  size_t long_axes = 0;
  for (uint64_t k = 0; k < h->dim; ++k) long_axes += h->len[k] > 1;
  h->fortran = fortran && long_axes > 1;
  h->data_offset = start + hlen;
  return 0;
}

uint32_t Check(ImageioHandle *h) {
  if (h->type == TypeImag32 || h->type == TypeImag64)
    return ImageioFail(h, E_IMAGEIO_TYPE, " (NPY files cannot hold ", TypeIdent(h->type),
                       " data; use the native format: -fmt zv, or a file name without .npy)");
  if (h->caps & ImageioCapHalf) {  // real32 as <f2
    h->conv = ImageioConvHalf;
    h->file_esize = 2;
  }
  return 0;
}

const char *DescrOf(const ImageioHandle *h) {
  if (h->conv == ImageioConvHalf) return "<f2";
  switch (h->type) {
    case TypeUint8: return "|u1";
    case TypeUint16: return "<u2";
    case TypeUint32: return "<u4";
    case TypeUint64: return "<u8";
    case TypeInt8: return "|i1";
    case TypeInt16: return "<i2";
    case TypeInt32: return "<i4";
    case TypeInt64: return "<i8";
    case TypeReal32: return "<f4";
    case TypeReal64: return "<f8";
    case TypeCmplx32: return "<c8";
    default: return "<c16";
  }
}

// Magic, version, length and the dict padded with spaces and a newline to a multiple of 64 bytes.
std::string Header(const ImageioHandle *h) {
  std::string shape = "(";
  for (int64_t k = static_cast<int64_t>(h->dim) - 1; k >= 0; --k) {
    shape += std::to_string(h->len[k]);
    if (k > 0) shape += ", ";
  }
  shape += h->dim == 1 ? ",)" : ")";
  std::string dict = std::string("{'descr': '") + DescrOf(h) + "', 'fortran_order': False, 'shape': " + shape + ", }";
  uint64_t pre = 10;
  uint64_t total = (pre + dict.size() + 1 + 63) / 64 * 64;
  if (total - pre > 65535) {
    pre = 12;
    total = (pre + dict.size() + 1 + 63) / 64 * 64;
  }
  std::string out(reinterpret_cast<const char *>(kMagic), sizeof kMagic);
  uint64_t hlen = total - pre;
  out += static_cast<char>(pre == 10 ? 1 : 2);
  out += '\0';
  out += static_cast<char>(hlen & 0xff);
  out += static_cast<char>((hlen >> 8) & 0xff);
  if (pre == 12) {
    out += static_cast<char>((hlen >> 16) & 0xff);
    out += static_cast<char>((hlen >> 24) & 0xff);
  }
  out += dict;
  out.append(total - out.size() - 1, ' ');
  out += '\n';
  return out;
}

uint32_t Create(ImageioHandle *h) {
  h->data_offset = Header(h).size();
  return 0;
}

uint32_t WriteHeader(ImageioHandle *h, bool final) {
  if (final) return 0;  // nothing in the header changes with the data
  std::string hd = Header(h);
  return ImageioWriteAt(h, 0, hd.data(), hd.size());
}

}  // namespace

extern const ImageioFormat ImageioNpyFormat = {
    .name = "npy",
    .extensions = kExtensions,
    .probe = Probe,
    .magic = true,
    .state_bytes = 0,
    .open = Open,
    .check = Check,
    .create = Create,
    .write_header = WriteHeader,
    .keeps_stats = false,
    .keeps_history = false,
    .exact_size = false,
};
