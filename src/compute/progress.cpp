#include "compute/progress.h"

#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

double Now() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

// A terminal that cannot move the cursor (an editor's shell buffer, a serial console) says so with
// TERM=dumb or no TERM at all.
bool PlainTerminal() {
  const char *term = std::getenv("TERM");
  return !term || !*term || std::strcmp(term, "dumb") == 0;
}

// ", about 2 min 5 s left" from the rate so far; nothing before 5 % of the run, when the rate still
// mostly measures start-up, and at the end.
void TimeLeft(double elapsed, uint64_t done, uint64_t total, char *text, size_t size) {
  if (done >= total || done * 20 < total) return;
  auto s = static_cast<unsigned long long>(elapsed * double(total - done) / double(done) + 0.5);
  if (s < 60)
    std::snprintf(text, size, ", about %llu s left", s);
  else if (s < 3600)
    std::snprintf(text, size, ", about %llu min %llu s left", s / 60, s % 60);
  else
    std::snprintf(text, size, ", about %llu h %llu min left", s / 3600, s / 60 % 60);
}

}  // namespace

uint32_t ProgressStart(Progress *p, uint64_t total, uint64_t bytes_per_element) {
  *p = {isatty(2) == 1, PlainTerminal(), false, 0, 0, total, bytes_per_element};
  if (p->enabled) p->start = p->last = Now();
  return 0;
}

uint32_t ProgressUpdate(Progress *p, uint64_t done, uint64_t blocks_done, uint64_t blocks) {
  if (!p->enabled) return 0;
  double now = Now(), elapsed = now - p->start;
  double interval = p->plain ? 5.0 : 0.25;
  if (elapsed < 1.0 || (p->last > p->start && now - p->last < interval)) return 0;
  p->last = now;
  double percent = p->total ? 100.0 * double(done) / double(p->total) : 100.0;
  double mib = double(done) * double(p->bytes_per_element) / (1024.0 * 1024.0) / elapsed;
  char left[48] = "";
  TimeLeft(elapsed, done, p->total, left, sizeof left);
  std::fprintf(stderr, "%szvcompute: block %llu of %llu, %.0f%%, %.0f MiB/s%s%s", p->plain ? "" : "\r",
               (unsigned long long)blocks_done, (unsigned long long)blocks, percent, mib, left,
               p->plain ? "\n" : "\033[K");
  std::fflush(stderr);
  p->shown = !p->plain;
  return 0;
}

uint32_t ProgressFinish(Progress *p) {
  if (p->shown) {
    std::fprintf(stderr, "\r\033[K");
    std::fflush(stderr);
  }
  p->shown = false;
  return 0;
}
