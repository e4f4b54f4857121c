// Gzip-compressed files, below the formats: a file that starts with the gzip magic is read through a
// forward inflate stream that serves the handle's positioned reads, and a new file whose name ends in
// ".gz" is written uncompressed, then compressed when it is put in place.
#pragma once
#include <cstdint>
#include <string>

struct ImageioHandle;

// A file name that asks for a compressed file: it ends in ".gz" (any case).
bool ImageioGzipName(const std::string &path);

// When the opened file is gzip-compressed, reads go through the stream from now on (h->gz) and the
// size becomes unknown (UINT64_MAX): the stream's own end is checked when the data's end is read. A
// compressed file cannot be rewritten in place: refused here, before anything changes.
uint32_t ImageioGzipOpen(ImageioHandle *h);
void ImageioGzipFree(ImageioHandle *h);
// Bytes offset .. offset+n-1 of the uncompressed stream into dst; *got < n only where the stream
// ends. Reading forward inflates on; reading backward starts the stream again from its beginning.
uint32_t ImageioGzipRead(ImageioHandle *h, uint64_t offset, void *dst, uint64_t n, uint64_t *got);
// The end of the image data. A read that reaches it also runs the stream to its end, so that the
// checksums are verified and, for formats whose files end with their data, nothing follows it.
void ImageioGzipDataEnd(ImageioHandle *h, uint64_t end);

// At the close of a new compressed image, after its header is complete: the uncompressed temporary
// file is compressed into a second one beside it, which the commit puts in place; the first is
// removed.
uint32_t ImageioGzipCompressNewFile(ImageioHandle *h);
