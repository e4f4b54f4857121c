#include "support.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/core/array.h"

static std::string Tmp() { return std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "/tmp"; }
static double Now() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }

TempDir::TempDir() : path(Tmp() + "/zvtest.XXXXXX") {
  if (!mkdtemp(path.data())) std::abort();
}

Child Start(const std::vector<std::string> &args, const RunOptions &o) {
  static int serial = 0;
  const std::string base = Tmp() + "/zvrun-" + std::to_string(getpid()) + "-" + std::to_string(++serial);
  Child c{-1, base, Now()};
  std::fflush(nullptr);
  c.pid = fork();
  if (c.pid == 0) {
    dup2(open((base + ".out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
    dup2(open((base + ".err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
    if (!o.cwd.empty() && chdir(o.cwd.c_str()) != 0) _exit(127);
    for (const std::string &e : o.env) putenv(const_cast<char *>(e.c_str()));
    rlimit r{o.fsize, o.fsize}, core{0, 0};
    setrlimit(RLIMIT_FSIZE, &r);
    setrlimit(RLIMIT_CORE, &core);
    for (int sig = 1; sig < NSIG; ++sig) signal(sig, SIG_DFL);
    sigset_t none;
    sigemptyset(&none), sigprocmask(SIG_SETMASK, &none, nullptr);
    if (o.prepare) o.prepare();
    if (o.body) {
      o.body();
      _exit(99);
    }
    std::vector<char *> argv;
    for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  return c;
}

RunResult Finish(Child &c) {
  int st = 0;
  rusage ru{};
  wait4(c.pid, &st, 0, &ru);
  RunResult r{WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st), ReadFileBytes(c.base + ".out"), ReadFileBytes(c.base + ".err"),
              Now() - c.started, ru.ru_maxrss};
  std::filesystem::remove(c.base + ".out"), std::filesystem::remove(c.base + ".err");
  return r;
}

bool WriteImage(const std::string &path, uint32_t type, const std::vector<uint64_t> &dims, const void *data,
                const ImageioParam &param, const ImageioGeometry *geom, uint32_t attr) {
  std::vector<uint64_t> len = dims;
  ImageDesc desc{len.size(), len.data(), reinterpret_cast<uint64_t>(geom), type, attr};
  ImageioHandle *h = ImageioCreate(path.c_str(), &desc, &param);
  uint64_t n = 0;
  if (!h || ArrayOffset(len.size(), len.data(), 1, &n)) return false;
  if (n) {
    void *b = ImageioBeginWrite(h, 0, n);
    if (!b) return false;
    std::memcpy(b, data, n * TypeSize(type));
    if (ImageioEndWrite(h, 0, n, b)) return false;
  }
  return ImageioClose(h) == 0;
}

TestImage ReadImage(const std::string &path) {
  ImageDesc d{};
  ImageioHandle *h = ImageioOpenReadOnly(path.c_str(), &d, &ImageioParamDefault);
  EXPECT_NE(h, nullptr) << path << ": " << LastError();
  if (!h) return ExceptionClear(), TestImage{};
  uint64_t n = 0;
  EXPECT_EQ(ArrayOffset(d.dim, d.len, 1, &n), 0u);
  TestImage img{d.type, d.attr, std::vector<uint64_t>(d.len, d.len + d.dim), std::vector<unsigned char>(n * TypeSize(d.type))};
  if (void *b = n ? ImageioBeginRead(h, 0, n) : nullptr) {
    std::memcpy(img.data.data(), b, img.data.size());
    ImageioEndRead(h, 0, n, b);
  }
  ImageioClose(h);
  return img;
}

std::vector<unsigned char> Pattern(uint32_t type, uint64_t count, unsigned seed) {
  std::vector<unsigned char> v(count * TypeSize(type));
  uint32_t x = 2463534242u + seed;
  for (auto &b : v) {
    x ^= x << 13, x ^= x >> 17, x ^= x << 5;
    b = static_cast<unsigned char>(x >> 11);
  }
  return v;
}

bool FileExists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }
std::string ReadFileBytes(const std::string &path) {
  std::ifstream f(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(f), {});
}

void WriteFileBytes(const std::string &path, const std::string &bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::vector<std::string> ListDir(const std::string &path) {
  std::vector<std::string> names;
  std::error_code missing;
  for (const auto &e : std::filesystem::directory_iterator(path, missing)) names.push_back(e.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}
