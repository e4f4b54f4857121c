// The error stack. Each error keeps its code, its text, and optionally the file path and the
// operating system's reason; the stack is printed one line per error when the process ends.
#include "platform/core/errors.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "platform/core/core.h"
#include "platform/core/escape.h"

namespace {

struct ErrorBlock {
  const ErrorEntry *table;
  uint32_t first;
  uint32_t end;
};

struct PendingError {
  uint32_t code;
  std::string text;
  std::string path;
  int err;
  std::string report;  // the line as printed, rebuilt by ExceptionText
};

// Never destroyed: the stack is reported by an exit handler, after static objects are gone.
std::vector<ErrorBlock> &Blocks() {
  static auto *blocks = new std::vector<ErrorBlock>;
  return *blocks;
}

std::vector<PendingError> &Stack() {
  static auto *stack = new std::vector<PendingError>;
  return *stack;
}

// The core library's own codes need no registration.
const char *MessageOf(uint32_t code) {
  if (code == E_MSG) return "";
  if (code == E_ARGUMENT) return "missing argument";
  if (code == E_MEMORY) return "out of memory";
  if (code == E_REGISTRY) return "registry full";
  for (const ErrorBlock &b : Blocks()) {
    if (code < b.first || code >= b.end) continue;
    const ErrorEntry *e = b.table;
    for (uint32_t c = b.first; e->name || e->message; ++c, ++e)
      if (c == code) return e->message ? e->message : "";
  }
  return nullptr;
}

std::string Line(const PendingError &e) {
  std::string s;
  if (const char *m = MessageOf(e.code)) {
    s = m;
  } else {
    char buf[32];
    std::snprintf(buf, sizeof buf, "error %u", e.code);
    s = buf;
  }
  s += e.text;
  if (!e.path.empty()) s += ": " + e.path;
  if (e.err) s += std::string(": ") + std::strerror(e.err);
  return s;
}

}  // namespace

uint32_t ExceptionRegister(const ErrorEntry *table, uint32_t first, uint32_t end) {
  if (!table) return ExceptionPush(E_ARGUMENT);
  Blocks().push_back({table, first, end});
  return 0;
}

uint32_t ExceptionPush(uint32_t code) {
  if (code == 0) return 0;
  // Passing on the pending error (a status handed up from the function that pushed it) keeps one entry.
  if (!Stack().empty() && Stack().back().code == code) return code;
  Stack().push_back({code, {}, {}, 0, {}});
  return code;
}

uint32_t ExceptionPushMsg(uint32_t code, ...) {
  if (code == 0) return 0;
  PendingError e{code, {}, {}, 0, {}};
  va_list ap;
  va_start(ap, code);
  while (const char *t = va_arg(ap, const char *)) e.text += t;
  va_end(ap);
  Stack().push_back(std::move(e));
  return code;
}

uint32_t ExceptionAppend(const char *text) {
  if (Stack().empty()) return 0;
  if (text) Stack().back().text += text;
  return Stack().back().code;
}

void ExceptionSetPath(const char *path) {
  if (!Stack().empty() && path) Stack().back().path = path;
}

void ExceptionSetErrno(int err) {
  if (!Stack().empty()) Stack().back().err = err;
}

uint32_t ExceptionGet(uint32_t) { return Stack().empty() ? 0 : Stack().back().code; }

void ExceptionReport(uint32_t) {
  const char *program = Main ? Main : "zvcompute";
  // Messages carry file names, arguments and header texts: escaped, each stays one harmless line.
  for (const PendingError &e : Stack()) std::fprintf(stderr, "%s: %s\n", program, CoreEscape(Line(e)).c_str());
  std::fflush(stderr);
  Stack().clear();
}

const char *ExceptionText(uint32_t index) {
  if (index >= Stack().size()) return "";
  PendingError &e = Stack()[index];
  e.report = Line(e);
  return e.report.c_str();
}

uint32_t ExceptionCount() { return static_cast<uint32_t>(Stack().size()); }

void ExceptionClear() { Stack().clear(); }
