// Test support: temporary directories, running programs, image files written and read through the
// image-file library, and the list of element types.
#pragma once
#include <sys/resource.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "platform/core/errors.h"
#include "platform/core/types.h"
#include "platform/imageio/imageio.h"

inline const uint32_t kAllTypes[14] = {TypeUint8,  TypeUint16, TypeUint32, TypeUint64, TypeInt8,
                                       TypeInt16,  TypeInt32,  TypeInt64,  TypeReal32, TypeReal64,
                                       TypeImag32, TypeImag64, TypeCmplx32, TypeCmplx64};
inline const char *const kTypeLabels[14] = {"uint8", "uint16", "uint32", "uint64", "int8",    "int16",   "int32",
                                            "int64", "real32", "real64", "imag32", "imag64", "cmplx32", "cmplx64"};

struct TempDir {
  TempDir();
  ~TempDir() { std::filesystem::remove_all(path); }
  std::string operator/(const std::string &name) const { return path + "/" + name; }
  std::string path;
};

// One child process: a program and its arguments (or body() when body is set), its standard output
// and error captured in files, every signal at its default action and unblocked, no core file.
struct RunOptions {
  RunOptions(std::string dir = "", std::vector<std::string> environment = {}, rlim_t limit = RLIM_INFINITY)
      : cwd(std::move(dir)), env(std::move(environment)), fsize(limit) {}
  std::string cwd;
  std::vector<std::string> env;  // NAME=VALUE entries added to the environment
  rlim_t fsize;                  // file-size limit
  std::function<void()> body;    // run in the child instead of a program; then _exit(99)
  std::function<void()> prepare; // run in the child before the program starts (to change descriptors)
};
struct RunResult {
  int status = -1;  // exit status, or 128 + signal
  std::string out, err;
  double seconds = 0;
  long max_rss_kb = 0;
};
struct Child {
  int pid = -1;
  std::string base;  // of the files that take standard output and error
  double started = 0;
};
Child Start(const std::vector<std::string> &argv, const RunOptions &options = {});
RunResult Finish(Child &child);
inline std::vector<std::string> Tool(std::vector<std::string> args) {
  args.insert(args.begin(), ZVCOMPUTE_BIN);
  return args;
}
inline RunResult RunTool(const std::vector<std::string> &args, const RunOptions &options = {}) {
  Child c = Start(Tool(args), options);
  return Finish(c);
}

// Creates an image (format from the name unless param names one) and writes it in one block; false
// with the error left on the stack on failure.
bool WriteImage(const std::string &path, uint32_t type, const std::vector<uint64_t> &dims, const void *data,
                const ImageioParam &param = ImageioParamDefault, const ImageioGeometry *geom = nullptr,
                uint32_t attr = 0);
template <class T>
bool WriteImage(const std::string &path, uint32_t type, const std::vector<uint64_t> &dims, const std::vector<T> &v,
                const ImageioParam &param = ImageioParamDefault, const ImageioGeometry *geom = nullptr,
                uint32_t attr = 0) {
  return WriteImage(path, type, dims, v.data(), param, geom, attr);
}

struct TestImage {
  uint32_t type = 0, attr = 0;
  std::vector<uint64_t> dims;
  std::vector<unsigned char> data;
  template <class T> std::vector<T> as() const {
    std::vector<T> v(data.size() / sizeof(T));
    if (!v.empty()) std::memcpy(v.data(), data.data(), v.size() * sizeof(T));
    return v;
  }
};
// Reads a whole image file; fails the current test on error (the result is then empty).
TestImage ReadImage(const std::string &path);

// Deterministic bytes for count elements of a type (every byte pattern appears, NaNs included).
std::vector<unsigned char> Pattern(uint32_t type, uint64_t count, unsigned seed = 1);
inline std::string LastError() { return ExceptionCount() ? ExceptionText(ExceptionCount() - 1) : ""; }
bool FileExists(const std::string &path);
std::string ReadFileBytes(const std::string &path);
void WriteFileBytes(const std::string &path, const std::string &bytes);
// Names of the entries of a directory (without . and ..), sorted.
std::vector<std::string> ListDir(const std::string &path);
