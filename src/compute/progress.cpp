#include "compute/progress.h"

#include <time.h>
#include <unistd.h>

#include <cstdio>

namespace {

double Now() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

}  // namespace

uint32_t ProgressStart(Progress *p, uint64_t total, uint64_t bytes_per_element) {
  *p = {isatty(2) == 1, false, 0, 0, total, bytes_per_element};
  if (p->enabled) p->start = p->last = Now();
  return 0;
}

uint32_t ProgressUpdate(Progress *p, uint64_t done, uint64_t blocks_done, uint64_t blocks) {
  if (!p->enabled) return 0;
  double now = Now();
  if (now - p->start < 1.0 || (p->shown && now - p->last < 0.25)) return 0;
  p->last = now;
  p->shown = true;
  double percent = p->total ? 100.0 * double(done) / double(p->total) : 100.0;
  double mib = double(done) * double(p->bytes_per_element) / (1024.0 * 1024.0) / (now - p->start);
  std::fprintf(stderr, "\rzvcompute: block %llu of %llu, %.0f%%, %.0f MiB/s\033[K", (unsigned long long)blocks_done,
               (unsigned long long)blocks, percent, mib);
  std::fflush(stderr);
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
