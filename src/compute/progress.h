// A self-updating progress line on standard error for long runs at a terminal.
#pragma once
#include <cstdint>

struct Progress {
  bool enabled;        // standard error is a terminal
  bool shown;          // a line has been written and must be cleared
  double start;        // seconds
  double last;         // time of the last update
  uint64_t total;      // elements of the run
  uint64_t bytes_per_element;
};

uint32_t ProgressStart(Progress *p, uint64_t total, uint64_t bytes_per_element);
// After each block: nothing during the first second, then at most a few updates per second.
uint32_t ProgressUpdate(Progress *p, uint64_t done, uint64_t blocks_done, uint64_t blocks);
uint32_t ProgressFinish(Progress *p);
