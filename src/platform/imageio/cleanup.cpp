// Terminating signals and the temporary files of images being created (see cleanup.h).
#include "platform/imageio/cleanup.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

namespace {

const int kSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE, SIGALRM, SIGUSR1, SIGUSR2, SIGXCPU, SIGXFSZ};

struct CleanupEntry {
  volatile sig_atomic_t used;  // set last when an entry is filled, cleared first when it is dropped
  int dir_fd;
  char name[NAME_MAX + 1];
};

// Far more than one process creates at once; a full table refuses a new file rather than leave it
// unprotected.
CleanupEntry gEntries[16];
bool gInstalled;

void OnTerminate(int sig, siginfo_t *info, void *) {
  // The kernel's signal for this process's own write: the write fails by itself and is reported.
  if ((sig == SIGPIPE || sig == SIGXFSZ) && info->si_code == SI_USER && info->si_pid == getpid()) return;
  ImageioCleanupRun();
  // Delivered again with the default action as soon as the handler returns.
  signal(sig, SIG_DFL);
  raise(sig);
}

void HandledSet(sigset_t *set) {
  sigemptyset(set);
  for (int sig : kSignals) sigaddset(set, sig);
}

}  // namespace

void ImageioSignalsInstall() {
  if (gInstalled) return;
  gInstalled = true;
  struct sigaction sa;
  std::memset(&sa, 0, sizeof sa);
  sa.sa_sigaction = OnTerminate;
  sa.sa_flags = SA_SIGINFO | SA_RESTART;
  HandledSet(&sa.sa_mask);  // one cleanup at a time
  // Only over the default action: a signal ignored from the start stays ignored, and a handler of
  // the program that uses the library (a test or fuzzing harness) stays in charge.
  for (int sig : kSignals) {
    struct sigaction old;
    if (sigaction(sig, nullptr, &old) == 0 && !(old.sa_flags & SA_SIGINFO) && old.sa_handler == SIG_DFL)
      sigaction(sig, &sa, nullptr);
  }
}

void ImageioSignalsHold(sigset_t *saved) {
  sigset_t set;
  HandledSet(&set);
  sigprocmask(SIG_BLOCK, &set, saved);
}

void ImageioSignalsRelease(const sigset_t *saved) { sigprocmask(SIG_SETMASK, saved, nullptr); }

int ImageioCleanupAdd(int dir_fd, const char *name) {
  ImageioSignalsInstall();
  size_t n = std::strlen(name);
  if (n > NAME_MAX) return -1;
  for (int i = 0; i < static_cast<int>(sizeof gEntries / sizeof gEntries[0]); ++i) {
    CleanupEntry &e = gEntries[i];
    if (e.used) continue;
    e.dir_fd = dir_fd;
    std::memcpy(e.name, name, n + 1);
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    e.used = 1;
    return i;
  }
  return -1;
}

void ImageioCleanupDrop(int entry) {
  if (entry >= 0) gEntries[entry].used = 0;
}

void ImageioCleanupRun() {
  int saved = errno;
  for (CleanupEntry &e : gEntries)
    if (e.used) unlinkat(e.dir_fd, e.name, 0);
  errno = saved;
}
