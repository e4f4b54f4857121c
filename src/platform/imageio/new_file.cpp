// New files without partial output: the destination's directory and name (symbolic links followed
// under the ownership rule), the temporary file, its permissions and space, and the commit. Every
// step after the directory is opened works relative to that directory descriptor, so a directory
// renamed during the run still receives the file (or loses its temporary file), and only the
// directory's own path has to fit PATH_MAX.
#include "platform/imageio/new_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <ctime>
#include <string>

#include "platform/imageio/cleanup.h"
#include "platform/imageio/handle.h"

namespace {

// Links followed at most, as many as the kernel follows in one path.
constexpr int kMaxLinks = 40;
// ".", then ".zvtmp-" and six random characters around the (possibly shortened) name.
constexpr size_t kTempExtra = 14;

void SplitPath(const std::string &path, std::string *dir, std::string *base) {
  size_t slash = path.find_last_of('/');
  *dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  *base = slash == std::string::npos ? path : path.substr(slash + 1);
}

// Replaces the handle's directory with dir (relative to the current one, or absolute).
bool EnterDirectory(ImageioHandle *h, const std::string &dir) {
  int fd = openat(h->dir_fd < 0 ? AT_FDCWD : h->dir_fd, dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return false;
  if (h->dir_fd >= 0) close(h->dir_fd);
  h->dir_fd = fd;
  return true;
}

// The directory and name the new file goes to, and what is there now (*exists). A symbolic link is
// followed only when it belongs to the user running the program or to root: in a directory others
// can write to (a shared sticky /tmp, a project directory) anyone could otherwise plant
// "out.mrc -> ~/important" and have its target replaced. Who owns the directory does not matter: a
// link cannot be changed, only replaced, and a replacement belongs to whoever made it. A link that
// leads nowhere (dangling, into a missing directory, a loop) is an error, not a new regular file.
uint32_t Resolve(ImageioHandle *h, struct stat *st, bool *exists) {
  std::string dir;
  SplitPath(h->path, &dir, &h->base);
  if (!EnterDirectory(h, dir)) return ImageioFailErrno(h, E_IMAGEIO_CREATE, errno);
  for (int links = 0;; ++links) {
    const std::string &base = h->base;
    if (base.empty() || base == "." || base == "..") return ImageioFailErrno(h, E_IMAGEIO_CREATE, EISDIR);
    if (fstatat(h->dir_fd, base.c_str(), st, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno != ENOENT) return ImageioFailErrno(h, E_IMAGEIO_CREATE, errno);
      if (links > 0) return ImageioFail(h, E_IMAGEIO_CREATE, " (dangling symbolic link: its target does not exist)");
      *exists = false;
      return 0;
    }
    if (!S_ISLNK(st->st_mode)) break;
    if (links == kMaxLinks) return ImageioFailErrno(h, E_IMAGEIO_CREATE, ELOOP);
    if (st->st_uid != geteuid() && st->st_uid != 0)
      return ImageioFail(h, E_IMAGEIO_CREATE,
                         " (a symbolic link that belongs to another user is not followed; "
                         "name the file it points to instead)");
    char target[PATH_MAX];
    ssize_t n = readlinkat(h->dir_fd, base.c_str(), target, sizeof target);
    if (n < 0 || n == static_cast<ssize_t>(sizeof target))
      return ImageioFailErrno(h, E_IMAGEIO_CREATE, n < 0 ? errno : ENAMETOOLONG);
    SplitPath(std::string(target, static_cast<size_t>(n)), &dir, &h->base);
    if (!EnterDirectory(h, dir))
      return ImageioFailErrno(h, E_IMAGEIO_CREATE, errno, " (the symbolic link's directory cannot be opened)");
  }
  *exists = true;
  if (S_ISDIR(st->st_mode)) return ImageioFailErrno(h, E_IMAGEIO_CREATE, EISDIR);
  if (!S_ISREG(st->st_mode))
    return ImageioFail(h, E_IMAGEIO_CREATE, " (an existing file of that name is not a regular file)");
  return 0;
}

// Six characters from [A-Za-z0-9]; the C library's random generator is the operations' and is left
// alone.
void RandomSuffix(char out[6]) {
  static const char kChars[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  static uint64_t counter;
  uint64_t x = 0;
  if (getrandom(&x, sizeof x, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof x))
    x = (static_cast<uint64_t>(std::time(nullptr)) << 20) ^ static_cast<uint64_t>(getpid()) ^ (++counter << 40);
  for (int i = 0; i < 6; ++i, x /= 62) out[i] = kChars[x % 62];
}

// The temporary name: the destination's name shortened (never inside a UTF-8 character) so that the
// whole stays within the directory's name limit.
std::string TempStem(const ImageioHandle *h) {
  long name_max = fpathconf(h->dir_fd, _PC_NAME_MAX);
  if (name_max <= 0 || name_max > NAME_MAX) name_max = NAME_MAX;
  size_t keep = static_cast<size_t>(name_max) - kTempExtra;
  if (h->base.size() <= keep) return h->base;
  while (keep > 0 && (static_cast<unsigned char>(h->base[keep]) & 0xc0) == 0x80) --keep;
  return h->base.substr(0, keep);
}

}  // namespace

uint32_t ImageioNewFileOpen(ImageioHandle *h) {
  struct stat st;
  bool exists = false;
  if (uint32_t s = Resolve(h, &st, &exists)) return s;
  mode_t final_mode;
  if (exists) {
    final_mode = st.st_mode & 0777;  // set-user-id, set-group-id and sticky bits are not carried over
  } else {
    mode_t mask = umask(0);
    umask(mask);
    final_mode = 0666 & ~mask;
  }
  const std::string stem = "." + TempStem(h) + ".zvtmp-";
  // Created and registered for cleanup as one step: a signal in between would leave the file.
  sigset_t saved;
  ImageioSignalsHold(&saved);
  int err = 0;
  for (int tries = 0; tries < 100; ++tries) {
    char suffix[6];
    RandomSuffix(suffix);
    std::string name = stem + std::string(suffix, 6);
    h->fd = openat(h->dir_fd, name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (h->fd >= 0) {
      h->temp = name;
      h->cleanup = ImageioCleanupAdd(h->dir_fd, name.c_str());
      break;
    }
    if ((err = errno) != EEXIST) break;
  }
  ImageioSignalsRelease(&saved);
  if (h->fd < 0) return ImageioFailErrno(h, E_IMAGEIO_CREATE, err);
  if (h->cleanup < 0) return ImageioFail(h, E_IMAGEIO_CREATE, " (too many new files at once)");
  fchmod(h->fd, final_mode);
  return 0;
}

uint32_t ImageioNewFileReserve(ImageioHandle *h, uint64_t bytes) {
  if ((h->caps & ImageioCapMmap) && bytes > 0) {
    int r = posix_fallocate(h->fd, 0, static_cast<off_t>(bytes));
    if (r != 0 && r != EOPNOTSUPP && r != ENOSYS && r != EINVAL) return ImageioFailErrno(h, E_IMAGEIO_CREATE, r);
  }
  if (ftruncate(h->fd, static_cast<off_t>(bytes)) != 0) return ImageioFailErrno(h, E_IMAGEIO_CREATE, errno);
  h->size = bytes;
  return 0;
}

uint32_t ImageioCommitNewFile(ImageioHandle *h, uint32_t st) {
  const bool sync = h->caps & ImageioCapSync;
  if (!st && sync && h->map && msync(h->map, h->map_len, MS_SYNC) != 0)
    st = ImageioFailErrno(h, E_IMAGEIO_WRITE, errno);
  if (h->map) munmap(h->map, h->map_len);
  h->map = nullptr;
  if (!st && sync && fsync(h->fd) != 0) st = ImageioFailErrno(h, E_IMAGEIO_WRITE, errno);
  int fd = h->fd;
  h->fd = -1;
  if (close(fd) != 0 && !st) st = ImageioFailErrno(h, E_IMAGEIO_WRITE, errno);
  if (!st) {
    sigset_t saved;
    ImageioSignalsHold(&saved);
    if (renameat(h->dir_fd, h->temp.c_str(), h->dir_fd, h->base.c_str()) == 0) {
      ImageioCleanupDrop(h->cleanup);
      h->cleanup = -1;
      h->temp.clear();
    } else {
      st = ImageioFailErrno(h, E_IMAGEIO_CREATE, errno);
    }
    ImageioSignalsRelease(&saved);
  }
  if (st) ImageioDiscardNewFile(h);
  else if (sync) fsync(h->dir_fd);
  return st;
}

uint32_t ImageioDiscardNewFile(ImageioHandle *h) {
  if (h->temp.empty()) return 0;
  sigset_t saved;
  ImageioSignalsHold(&saved);
  int r = unlinkat(h->dir_fd, h->temp.c_str(), 0), err = errno;
  ImageioCleanupDrop(h->cleanup);
  h->cleanup = -1;
  ImageioSignalsRelease(&saved);
  std::string name = h->temp;
  h->temp.clear();
  // Gone with its directory is gone; a directory that became read-only keeps it, and says so.
  if (r == 0 || err == ENOENT) return 0;
  return ImageioFailErrno(h, E_IMAGEIO_WRITE, err, (" (the temporary file " + name + " could not be removed)").c_str());
}
