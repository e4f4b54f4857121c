// New files without partial output: a new image is written into a hidden temporary file beside its
// destination, ".<name>.zvtmp-XXXXXX" (the name shortened when the whole would pass the system's
// name limit), and becomes visible only at ImageioCommitNewFile, which renames it over the
// destination in one step. Until then an existing file of that name is untouched; a failed run (the
// image closed with the deletion mark) or a terminating signal discards the temporary file.
#pragma once
#include <cstdint>

struct ImageioHandle;

// Opens the destination's directory and keeps it open; follows a destination that is a symbolic
// link when the link belongs to the user or to root (the link stays, its target is replaced) and
// refuses any other link, a dangling one, a loop, a directory or a file that is not regular; makes
// the temporary file with the permission bits the destination will have (those of the file it
// replaces, else the usual ones under the umask) and registers it for cleanup after a signal.
uint32_t ImageioNewFileOpen(ImageioHandle *h);
// Sizes the temporary file to bytes; space for mapped data is reserved now, so that a full disk is an
// error here instead of a fault while a block is written.
uint32_t ImageioNewFileReserve(ImageioHandle *h, uint64_t bytes);
// The commit point. st is the status of completing the file's header: on success the data is flushed
// (with the sync capability), the file closed and renamed over the destination (and the directory
// flushed); on any failure the temporary file is removed instead. Returns the first failure.
uint32_t ImageioCommitNewFile(ImageioHandle *h, uint32_t st);
// Removes the temporary file of a new image that is not to be kept; an error (pushed) when it
// cannot be removed and stays behind.
uint32_t ImageioDiscardNewFile(ImageioHandle *h);
