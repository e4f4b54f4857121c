// Header statistics of an image (minimum, maximum, mean, standard deviation), for formats that keep
// them in their header: accumulated block by block as the image is written in order, or taken in one
// pass over the stored data when the writes did not cover it once.
#pragma once
#include <cstdint>

struct ImageioHandle;

// Running statistics of the data written.
struct ImageioStats {
  uint64_t n;
  double min, max;
  double shift;  // first value seen: sums are taken about it to keep the variance accurate
  double s1, s2;
  bool nan;
};

// Adds n caller elements of type at p (complex and imaginary data have no header statistics).
void ImageioAccumulateBlock(ImageioStats &s, uint32_t type, const void *p, uint64_t n);
// Statistics for the final header: those accumulated while writing when the writes covered the image
// once and in order, else a pass over the stored data.
uint32_t ImageioFinalStats(ImageioHandle *h, ImageioStats *stats);
// Final header statistics: min, max, mean, population standard deviation; false when not computable.
bool ImageioStatsResult(const ImageioStats &s, float *dmin, float *dmax, float *dmean, float *rms);
