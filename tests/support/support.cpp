#include "support.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "platform/core/array.h"
#include "platform/core/errors.h"
#include "platform/imageio/imageio.h"

TempDir::TempDir() {
  std::string tmpl = (std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "/tmp") + std::string("/zvtest.XXXXXX");
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back(0);
  if (!mkdtemp(buf.data())) std::abort();
  path = buf.data();
}

TempDir::~TempDir() {
  std::string cmd = "rm -rf '" + path + "'";
  if (std::system(cmd.c_str()) != 0) {
  }
}

static std::string Drain(int fd) {
  std::string s;
  char buf[4096];
  for (;;) {
    ssize_t n = read(fd, buf, sizeof buf);
    if (n <= 0) break;
    s.append(buf, static_cast<size_t>(n));
  }
  return s;
}

RunResult RunTool(const std::vector<std::string> &args, const std::vector<std::string> &env,
                  const std::string &cwd) {
  RunResult r;
  int outp[2], errp[2];
  if (pipe(outp) != 0 || pipe(errp) != 0) return r;
  pid_t pid = fork();
  if (pid == 0) {
    dup2(outp[1], 1);
    dup2(errp[1], 2);
    close(outp[0]);
    close(errp[0]);
    if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(127);
    for (const std::string &e : env) putenv(const_cast<char *>(e.c_str()));
    std::vector<char *> argv;
    argv.push_back(const_cast<char *>(ZVCOMPUTE_BIN));
    for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    execv(ZVCOMPUTE_BIN, argv.data());
    _exit(127);
  }
  close(outp[1]);
  close(errp[1]);
  // Stderr is small in every test; read stdout then stderr.
  r.out = Drain(outp[0]);
  r.err = Drain(errp[0]);
  close(outp[0]);
  close(errp[0]);
  int st = 0;
  waitpid(pid, &st, 0);
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
  return r;
}

pid_t StartTool(const std::vector<std::string> &args, const std::function<void()> &in_child) {
  pid_t pid = fork();
  if (pid != 0) return pid;
  int null = open("/dev/null", O_WRONLY);
  dup2(null, 1), dup2(null, 2), close(null);
  for (int sig = 1; sig < NSIG; ++sig) signal(sig, SIG_DFL);
  sigset_t none;
  sigemptyset(&none), sigprocmask(SIG_SETMASK, &none, nullptr);
  rlimit core{0, 0};
  setrlimit(RLIMIT_CORE, &core);
  if (in_child) in_child();
  std::vector<char *> argv{const_cast<char *>(ZVCOMPUTE_BIN)};
  for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
  argv.push_back(nullptr);
  execv(ZVCOMPUTE_BIN, argv.data());
  _exit(127);
}

int WaitTool(pid_t pid) {
  int st = 0;
  waitpid(pid, &st, 0);
  return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

void WriteImage(const std::string &path, uint32_t type, const std::vector<uint64_t> &dims,
                const void *data, uint32_t attr, const char *format) {
  std::vector<uint64_t> len = dims;
  ImageDesc desc{len.size(), len.data(), 0, type, attr};
  ImageioParam param = ImageioParamDefault;
  param.format = format;
  ImageioHandle *h = ImageioCreate(path.c_str(), &desc, &param);
  ASSERT_NE(h, nullptr) << ExceptionText(ExceptionCount() ? ExceptionCount() - 1 : 0);
  uint64_t count = 0;
  ASSERT_EQ(ArrayOffset(len.size(), len.data(), type & 0xff, &count), 0u);
  if (count > 0) {
    void *buf = ImageioBeginWrite(h, 0, count);
    ASSERT_NE(buf, nullptr);
    std::memcpy(buf, data, count * (type & 0xff));
    ASSERT_EQ(ImageioEndWrite(h, 0, count, buf), 0u);
  }
  ASSERT_EQ(ImageioClose(h), 0u) << ExceptionText(ExceptionCount() ? ExceptionCount() - 1 : 0);
}

TestImage ReadImage(const std::string &path) {
  TestImage img;
  ImageDesc desc{};
  ImageioHandle *h = ImageioOpenReadOnly(path.c_str(), &desc, &ImageioParamDefault);
  EXPECT_NE(h, nullptr) << path << ": " << ExceptionText(ExceptionCount() ? ExceptionCount() - 1 : 0);
  if (!h) {
    ExceptionClear();
    return img;
  }
  img.type = desc.type;
  img.attr = desc.attr;
  img.dims.assign(desc.len, desc.len + desc.dim);
  uint64_t count = 0;
  EXPECT_EQ(ArrayOffset(desc.dim, desc.len, desc.type & 0xff, &count), 0u);
  img.data.resize(count * (desc.type & 0xff));
  if (count > 0) {
    void *buf = ImageioBeginRead(h, 0, count);
    EXPECT_NE(buf, nullptr);
    if (buf) {
      std::memcpy(img.data.data(), buf, img.data.size());
      ImageioEndRead(h, 0, count, buf);
    }
  }
  ImageioClose(h);
  return img;
}

bool FileExists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

std::string ReadFileBytes(const std::string &path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

void WriteFileBytes(const std::string &path, const std::string &bytes) {
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::vector<std::string> ListDir(const std::string &path) {
  std::vector<std::string> names;
  if (DIR *d = opendir(path.c_str())) {
    while (dirent *e = readdir(d)) {
      std::string n = e->d_name;
      if (n != "." && n != "..") names.push_back(n);
    }
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}
