// New files without partial output: a new image is written into a hidden temporary file beside its
// destination, ".<name>.zvtmp-XXXXXX", and becomes visible only at ImageioCommitNewFile, which renames
// it over the destination in one step. Until then an existing file of that name is untouched; a failed
// run (the image closed with the deletion mark) discards the temporary file.
#pragma once
#include <cstdint>

struct ImageioHandle;

// Resolves the destination (a symbolic link's target is replaced, the link stays), refuses one that
// is a directory or not a regular file, and makes the temporary file with the permissions the
// destination will have (those of the file it replaces, else the usual ones under the umask).
uint32_t ImageioNewFileOpen(ImageioHandle *h);
// Sizes the temporary file to bytes; space for mapped data is reserved now, so that a full disk is an
// error here instead of a fault while a block is written.
uint32_t ImageioNewFileReserve(ImageioHandle *h, uint64_t bytes);
// The commit point. st is the status of completing the file's header: on success the data is flushed
// (with the sync capability), the file closed and renamed over the destination (and the directory
// flushed); on any failure the temporary file is removed instead. Returns the first failure.
uint32_t ImageioCommitNewFile(ImageioHandle *h, uint32_t st);
// Removes the temporary file of a new image that is not to be kept.
void ImageioDiscardNewFile(ImageioHandle *h);
