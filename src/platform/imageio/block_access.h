// Block access inside the library: whether blocks are handed out straight from the mapping, and a
// block's address for the library's own passes over the data.
#pragma once
#include <cstdint>

struct ImageioHandle;

// Blocks are the mapping's own pages: mapped, stored as callers see them, and aligned for the type.
bool ImageioDirect(const ImageioHandle *h);
// Elements first .. first+count-1 for reading: in the mapping, or converted into the handle's buffer
// (valid until the next block or pass). Null with *st set on failure.
void *ImageioPeek(ImageioHandle *h, uint64_t first, uint64_t count, uint32_t *st);
