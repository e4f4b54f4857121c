// Stored elements and the elements callers see: byte order, binary16 and int16-pair widening, and the
// gather and scatter of column-major (axis-reversed) files.
#pragma once
#include <cstdint>

struct ImageioHandle;

// Caller elements first .. first+count-1 into dst (room for count caller elements), from the mapping
// or the file.
uint32_t ImageioFill(ImageioHandle *h, uint64_t first, uint64_t count, unsigned char *dst);
// real32 values rounded in place to the binary16 values a half-precision file stores for them.
void ImageioRoundToHalf(unsigned char *p, uint64_t count);
// Caller elements from src (whose contents may be changed) stored into the mapping or the file.
uint32_t ImageioStore(ImageioHandle *h, uint64_t first, uint64_t count, unsigned char *src);
