// Advisory locks on opened image files (see file_lock.h).
#include "platform/imageio/file_lock.h"

#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>

#include "platform/imageio/handle.h"

uint32_t ImageioLockFile(ImageioHandle *h) {
  const bool rw = h->mode == ImageioModeReadWrite;
  const uint32_t want = rw ? LOCK_EX : LOCK_SH;
  struct stat st, other;
  if (fstat(h->fd, &st) != 0) return 0;
  // The same file already open here (an in-place file that is also the second operand): the lock
  // is this process's own, and a second one on another descriptor would conflict with it.
  for (const ImageioHandle *o : ImageioLiveHandles())
    if (o->lock >= want && fstat(o->fd, &other) == 0 && other.st_dev == st.st_dev && other.st_ino == st.st_ino)
      return 0;
  int r;
  while ((r = flock(h->fd, static_cast<int>(want) | LOCK_NB)) != 0 && errno == EINTR) {
  }
  if (r == 0) {
    h->lock = want;
    return 0;
  }
  if (errno != EWOULDBLOCK) return 0;
  return ImageioFail(h, E_IMAGEIO_OPEN,
                     rw ? " (in use: another process is reading or rewriting it)"
                        : " (in use: another process is rewriting it in place)");
}
