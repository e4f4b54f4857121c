// Mapped data: mapping an image's file with the guard for faults on it, and the pages of a block
// handed out from a mapping.
#pragma once
#include <cstdint>

struct ImageioHandle;

// Maps the first bytes of the handle's file (shared) and installs the fault guard; false when the
// mapping fails (errno says why), and the handle then goes without one.
bool ImageioMapFile(ImageioHandle *h, uint64_t bytes, bool writable);
// Makes the pages of elements first .. first+count-1 present in one call (for writing: writable).
void ImageioPopulateBlock(const ImageioHandle *h, uint64_t first, uint64_t count, bool write);
// Drops those pages from the process; the data stays in the page cache and reaches the file.
void ImageioReleaseBlock(const ImageioHandle *h, uint64_t first, uint64_t count);
