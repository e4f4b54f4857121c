// Terminating signals and the files being made. A new image is written into a temporary file that
// only a complete run renames into place; a signal that ends the process (SIGTERM from a batch
// system's time limit, Ctrl-C, a closed terminal, ...) must not leave it behind. The temporary files
// are kept in a fixed table (directory descriptor and name) that the signal handler works through
// with unlinkat alone, without allocating; the handler then ends the process by the same signal
// with its default action, so the parent sees the usual status.
//
// A file rewritten in place needs nothing here: formats with header statistics mark them
// undetermined on disk before its first block is handed out, so any end, a signal or SIGKILL,
// leaves it marked.
#pragma once
#include <signal.h>

// Installs the handler for SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE, SIGALRM, SIGUSR1, SIGUSR2,
// SIGXCPU and SIGXFSZ (once, over the default action only: a signal ignored from the start stays
// ignored, another handler stays). SIGPIPE
// and SIGXFSZ that the kernel raises for one of the process's own writes (a closed pipe, the
// file-size limit) are left to that write, which then fails with EPIPE or EFBIG and is reported as
// an error; sent by another process they end the run like the others.
void ImageioSignalsInstall();
// Holds the handled signals back across a step that must not be cut in two (creating a temporary
// file and registering it, renaming it and dropping it), and lets them through again.
void ImageioSignalsHold(sigset_t *saved);
void ImageioSignalsRelease(const sigset_t *saved);
// Registers the temporary file name (relative to the open directory dir_fd); returns its entry, or
// -1 when the table is full. The name must stay at most NAME_MAX bytes.
int ImageioCleanupAdd(int dir_fd, const char *name);
void ImageioCleanupDrop(int entry);
// Removes every registered file. Async-signal-safe.
void ImageioCleanupRun();
