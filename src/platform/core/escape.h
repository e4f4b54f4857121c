// Text from files and command-line arguments made safe to show on a terminal: control characters,
// bytes that are not UTF-8, Unicode characters that reorder or break lines, and the backslash
// itself are written as escapes (\n, \t, \r, \\, \xHH, \uHHHH); printable UTF-8 text stays as it is.
// A file's header can then neither move the cursor, colour the terminal nor forge a second line.
#pragma once
#include <cstddef>
#include <string>

// One character of s[0 .. n) (n > 0), escaped when needed, into out (at most 8 bytes, not
// terminated): returns the bytes of s it took (1 to 4) and sets *out_len. Async-signal-safe.
size_t CoreEscapeChar(const unsigned char *s, size_t n, char out[8], size_t *out_len);
std::string CoreEscape(const std::string &text);
// Writes text escaped to descriptor fd, without allocating: safe in a signal handler.
void CoreWriteEscaped(int fd, const char *text);
// Writes all of p[0 .. n) to fd (retrying after interruptions); gives up on any other error.
void CoreWriteAll(int fd, const char *p, size_t n);
