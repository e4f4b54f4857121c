// Escaping of untrusted text for the terminal (see escape.h).
#include "platform/core/escape.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

const char kHex[] = "0123456789abcdef";

// Printable in a UTF-8 terminal: not a C1 control, not a character that changes the direction of
// the text or breaks the line (so a message cannot be made to read differently from what it says).
bool Shown(unsigned cp) {
  if (cp >= 0x80 && cp <= 0x9f) return false;
  if (cp == 0x200e || cp == 0x200f || cp == 0x2028 || cp == 0x2029) return false;
  if ((cp >= 0x202a && cp <= 0x202e) || (cp >= 0x2066 && cp <= 0x2069)) return false;
  return true;
}

// Length of the well-formed UTF-8 sequence at s (2 to 4) and its code point; 0 when it is not one
// (overlong forms, surrogates and values past U+10FFFF are not).
size_t Utf8(const unsigned char *s, size_t n, unsigned *cp) {
  unsigned c = s[0];
  size_t len = c >= 0xc2 && c <= 0xdf ? 2 : c >= 0xe0 && c <= 0xef ? 3 : c >= 0xf0 && c <= 0xf4 ? 4 : 0;
  if (len == 0 || len > n) return 0;
  unsigned lo = 0x80, hi = 0xbf;  // the allowed range of the second byte
  if (c == 0xe0) lo = 0xa0;
  if (c == 0xed) hi = 0x9f;
  if (c == 0xf0) lo = 0x90;
  if (c == 0xf4) hi = 0x8f;
  if (s[1] < lo || s[1] > hi) return 0;
  *cp = c & (0xff >> (len + 1));
  for (size_t i = 1; i < len; ++i) {
    if ((s[i] & 0xc0) != 0x80) return 0;
    *cp = (*cp << 6) | (s[i] & 0x3f);
  }
  return len;
}

}  // namespace

size_t CoreEscapeChar(const unsigned char *s, size_t n, char out[8], size_t *out_len) {
  unsigned c = s[0], cp = 0;
  if (c >= 0x20 && c < 0x7f && c != '\\') {
    out[0] = static_cast<char>(c);
    *out_len = 1;
    return 1;
  }
  const char named = c == '\n' ? 'n' : c == '\t' ? 't' : c == '\r' ? 'r' : c == '\\' ? '\\' : 0;
  if (named) {
    out[0] = '\\', out[1] = named;
    *out_len = 2;
    return 1;
  }
  if (size_t len = c >= 0x80 ? Utf8(s, n, &cp) : 0) {
    if (Shown(cp)) {
      std::memcpy(out, s, len);
      *out_len = len;
    } else {
      out[0] = '\\', out[1] = 'u';
      for (int i = 0; i < 4; ++i) out[2 + i] = kHex[(cp >> (12 - 4 * i)) & 0xf];
      *out_len = 6;
    }
    return len;
  }
  out[0] = '\\', out[1] = 'x', out[2] = kHex[c >> 4], out[3] = kHex[c & 0xf];
  *out_len = 4;
  return 1;
}

std::string CoreEscape(const std::string &text) {
  std::string out;
  const auto *s = reinterpret_cast<const unsigned char *>(text.data());
  char buf[8];
  size_t len;
  for (size_t i = 0; i < text.size();) {
    i += CoreEscapeChar(s + i, text.size() - i, buf, &len);
    out.append(buf, len);
  }
  return out;
}

void CoreWriteAll(int fd, const char *p, size_t n) {
  while (n > 0) {
    ssize_t r = write(fd, p, n);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return;
    p += r;
    n -= static_cast<size_t>(r);
  }
}

void CoreWriteEscaped(int fd, const char *text) {
  const auto *s = reinterpret_cast<const unsigned char *>(text);
  size_t n = std::strlen(text), used = 0, len;
  char buf[256];
  for (size_t i = 0; i < n;) {
    i += CoreEscapeChar(s + i, n - i, buf + used, &len);
    used += len;
    if (used > sizeof buf - 8 || i == n) {
      CoreWriteAll(fd, buf, used);
      used = 0;
    }
  }
}
