// Test support: temporary directories, running the built tool, and image files written and read
// through the image-file library.
#pragma once
#include <cstdint>
#include <sys/types.h>

#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

struct TempDir {
  TempDir();
  ~TempDir();
  std::string operator/(const std::string &name) const { return path + "/" + name; }
  std::string path;
};

struct RunResult {
  int status = -1;  // exit status, or 128 + signal
  std::string out;
  std::string err;
};

// Runs the zvcompute binary with the arguments (and extra NAME=VALUE environment entries); with
// cwd non-empty the tool runs in that directory.
RunResult RunTool(const std::vector<std::string> &args, const std::vector<std::string> &env = {},
                  const std::string &cwd = "");

// Starts the zvcompute binary and returns its process id: standard output and error go to
// /dev/null, every signal has its default action and is unblocked, no core file is written; then
// in_child runs in the new process (to change its descriptors) before the tool starts.
pid_t StartTool(const std::vector<std::string> &args, const std::function<void()> &in_child = {});
// Waits for a started tool: its exit status, or 128 + signal.
int WaitTool(pid_t pid);

struct TestImage {
  uint32_t type = 0;
  std::vector<uint64_t> dims;
  uint32_t attr = 0;
  std::vector<unsigned char> data;

  template <class T> std::vector<T> as() const {
    std::vector<T> v(data.size() / sizeof(T));
    if (!v.empty()) std::memcpy(v.data(), data.data(), v.size() * sizeof(T));
    return v;
  }
};

// Writes an image file through the library (format from the name unless format is given); fails the
// current test on error.
void WriteImage(const std::string &path, uint32_t type, const std::vector<uint64_t> &dims,
                const void *data, uint32_t attr = 0, const char *format = nullptr);
template <class T>
void WriteImage(const std::string &path, uint32_t type, const std::vector<uint64_t> &dims,
                const std::vector<T> &values, uint32_t attr = 0, const char *format = nullptr) {
  WriteImage(path, type, dims, values.data(), attr, format);
}
// Reads a whole image file; fails the current test on error (the result is then empty).
TestImage ReadImage(const std::string &path);

bool FileExists(const std::string &path);
std::string ReadFileBytes(const std::string &path);
void WriteFileBytes(const std::string &path, const std::string &bytes);
// Names of the entries of a directory (without . and ..), sorted.
std::vector<std::string> ListDir(const std::string &path);
