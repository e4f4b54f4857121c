// Mapped data. Pages of a mapped file that another program truncates (or whose storage cannot be
// allocated) fault with SIGBUS when touched, wherever the touching code is. The guard turns such a
// fault inside one of this library's mappings into an error line naming the file, removes the
// temporary files of images being created (the cleanup table), and ends the process with status 1.
// Other SIGBUS faults go to the previous handler.
//
// A block handed out from the mapping has its pages made present in one call (far cheaper than one
// fault per page, and the destination of a new file is written without faults), and they are dropped
// from the process when the block ends: the data stays in the page cache, but resident memory stays
// at about one block per image however large the image is.
#include "platform/imageio/mapping.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "platform/core/core.h"
#include "platform/core/escape.h"
#include "platform/imageio/cleanup.h"
#include "platform/imageio/handle.h"

namespace {

struct sigaction gPrevBus;

void PutText(const char *s) { CoreWriteAll(2, s, std::strlen(s)); }

void OnBus(int sig, siginfo_t *info, void *) {
  auto *addr = static_cast<unsigned char *>(info->si_addr);
  const ImageioHandle *hit = nullptr;
  if (info->si_code > 0)
    for (const ImageioHandle *h : ImageioLiveHandles())
      if (h->map && addr >= h->map && addr < h->map + h->map_len) hit = h;
  if (!hit) {
    sigaction(SIGBUS, &gPrevBus, nullptr);
    // A fault is raised again when the access is retried; a sent signal is not.
    if (info->si_code <= 0) raise(sig);
    return;
  }
  // fstat is safe here: it tells a truncated file from one whose storage failed.
  struct stat st;
  const bool created = hit->mode == ImageioModeCreate;
  bool shrank = fstat(hit->fd, &st) == 0 && static_cast<uint64_t>(st.st_size) < hit->map_len;
  // Files first: the message may meet a closed pipe.
  ImageioCleanupRun();
  PutText(Main ? Main : "zvcompute");
  PutText(created ? ": write error" : ": read error");
  PutText(shrank ? " (the file shrank while it was mapped): "
                 : created ? " (no storage for the mapped data): " : " (the mapped data could not be read): ");
  CoreWriteEscaped(2, hit->path.c_str());
  PutText("\n");
  _exit(1);
}

// Installed with every new mapping unless it is in place already (someone may have replaced it).
void InstallBusGuard() {
  struct sigaction sa;
  if (sigaction(SIGBUS, nullptr, &sa) == 0 && (sa.sa_flags & SA_SIGINFO) && sa.sa_sigaction == OnBus) return;
  std::memset(&sa, 0, sizeof sa);
  sa.sa_sigaction = OnBus;
  sa.sa_flags = SA_SIGINFO;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGBUS, &sa, &gPrevBus);
}

void MappedRange(const ImageioHandle *h, uint64_t first, uint64_t count, unsigned char **start, size_t *len) {
  const uintptr_t page = 4096;
  uintptr_t a = reinterpret_cast<uintptr_t>(h->map + h->data_offset + first * h->esize);
  uintptr_t b = a + count * h->esize;
  a &= ~(page - 1);
  b = (b + page - 1) & ~(page - 1);
  *start = reinterpret_cast<unsigned char *>(a);
  *len = b - a;
}

}  // namespace

bool ImageioMapFile(ImageioHandle *h, uint64_t bytes, bool writable) {
  void *m = mmap(nullptr, bytes, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, h->fd, 0);
  if (m == MAP_FAILED) return false;
  h->map = static_cast<unsigned char *>(m);
  h->map_len = bytes;
  InstallBusGuard();
  return true;
}

void ImageioPopulateBlock(const ImageioHandle *h, uint64_t first, uint64_t count, bool write) {
  unsigned char *a;
  size_t n;
  MappedRange(h, first, count, &a, &n);
#ifdef MADV_POPULATE_WRITE
  // Failure only means the pages come in by faults instead.
  madvise(a, n, write ? MADV_POPULATE_WRITE : MADV_POPULATE_READ);
#else
  (void)a, (void)n, (void)write;
#endif
}

void ImageioReleaseBlock(const ImageioHandle *h, uint64_t first, uint64_t count) {
  unsigned char *a;
  size_t n;
  MappedRange(h, first, count, &a, &n);
  // Shared file pages: written data stays in the page cache and reaches the file.
  madvise(a, n, MADV_DONTNEED);
}
