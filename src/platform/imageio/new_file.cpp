// New files without partial output: the temporary file, its permissions and space, and the commit.
#include "platform/imageio/new_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/imageio/handle.h"

namespace {

void SyncDir(const std::string &target) {
  std::string dir = target.substr(0, target.find_last_of('/') + 1);
  if (dir.empty()) dir = ".";
  int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  fsync(fd);
  close(fd);
}

}  // namespace

uint32_t ImageioNewFileOpen(ImageioHandle *h) {
  h->target = h->path;
  struct stat st;
  mode_t final_mode;
  if (lstat(h->path.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
    if (char *real = realpath(h->path.c_str(), nullptr)) {
      h->target = real;
      std::free(real);
    }
  }
  if (stat(h->target.c_str(), &st) == 0) {
    if (S_ISDIR(st.st_mode)) return ImageioFailErrno(h, E_IMAGEIO_CREATE, EISDIR);
    if (!S_ISREG(st.st_mode))
      return ImageioFail(h, E_IMAGEIO_CREATE, " (an existing file of that name is not a regular file)");
    final_mode = st.st_mode & 07777;
  } else {
    mode_t mask = umask(0);
    umask(mask);
    final_mode = 0666 & ~mask;
  }
  size_t slash = h->target.find_last_of('/');
  std::string dir = slash == std::string::npos ? "." : h->target.substr(0, slash + 1);
  std::string base = slash == std::string::npos ? h->target : h->target.substr(slash + 1);
  if (base.empty() || base == "." || base == "..") return ImageioFailErrno(h, E_IMAGEIO_CREATE, EISDIR);
  if (dir.back() != '/') dir += '/';
  std::string tmpl = dir + "." + base + ".zvtmp-XXXXXX";
  std::vector<char> name(tmpl.begin(), tmpl.end());
  name.push_back(0);
  h->fd = mkostemp(name.data(), O_CLOEXEC);
  if (h->fd < 0) return ImageioFailErrno(h, E_IMAGEIO_CREATE, errno);
  h->temp = name.data();
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
  if (!st && rename(h->temp.c_str(), h->target.c_str()) != 0) st = ImageioFailErrno(h, E_IMAGEIO_CREATE, errno);
  if (st) unlink(h->temp.c_str());
  else if (sync) SyncDir(h->target);
  return st;
}

void ImageioDiscardNewFile(ImageioHandle *h) {
  if (!h->temp.empty()) unlink(h->temp.c_str());
}
