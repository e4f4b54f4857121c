// A progress line on standard error for long runs at a terminal.
#pragma once
#include <cstdint>

struct Progress {
  bool enabled;        // standard error is a terminal
  bool plain;          // TERM is dumb or unset: whole lines, no carriage return or erase sequence
  bool shown;          // a self-updating line has been written and must be cleared
  double start;        // seconds
  double last;         // time of the last update
  uint64_t total;      // elements of the run
  uint64_t bytes_per_element;
};

uint32_t ProgressStart(Progress *p, uint64_t total, uint64_t bytes_per_element);
// After each block: nothing during the first second, then at most a few updates per second (one
// line every few seconds in plain mode), with the time left once 5 % of the run is done.
uint32_t ProgressUpdate(Progress *p, uint64_t done, uint64_t blocks_done, uint64_t blocks);
uint32_t ProgressFinish(Progress *p);
