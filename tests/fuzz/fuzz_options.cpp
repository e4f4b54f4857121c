// Fuzz targets for the options module. ZV_FUZZ_DECLARATION: the input is one declaration, read,
// listed in a usage line, and parsed against a fixed argument vector. Otherwise the input is an
// argument vector (arguments separated by zero bytes) parsed against the program's tables.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "options/options.h"
#include "platform/core/core.h"
#include "platform/core/errors.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool ready = (Main = "zvcompute", OptionsModule.function(), true);
  (void)ready;
  std::string input(reinterpret_cast<const char *>(data), size);
  alignas(16) unsigned char values[4096] = {};  // large enough for the values a short vector holds
  [[maybe_unused]] uint64_t count = 0, index = 0, h = 0, seed = 123, n[3] = {};
  [[maybe_unused]] const char *keywords[] = {"one", "two", "three", nullptr}, *fmt = nullptr, *cap = nullptr;
#ifdef ZV_FUZZ_DECLARATION
  const std::string decl = input.substr(0, input.find('\0'));
  const bool keyword = decl.find("Keyword") != std::string::npos;
  const OptionEntry table[] = {{&count, keyword ? static_cast<void *>(keywords) : values, keyword ? &index : nullptr, nullptr, decl.c_str()},
                               {nullptr, nullptr, nullptr, nullptr, nullptr}};
  std::string text;
  OptionsUsageText(&table[0], nullptr, &text);
  input = std::string("-x\0" "1,2,3\0-seed\0" "7\0two\0--\0-h", 26);
#else
  const OptionEntry table[] = {{&h, nullptr, nullptr, nullptr, "[ h ]"},
                               {nullptr, &seed, nullptr, nullptr, "[ seed <> Size ]"},
                               {&n[0], &fmt, nullptr, nullptr, "[ fmt   <> String ]"},
                               {&n[1], &cap, nullptr, nullptr, "[ cap=  <> String ]"},
                               {&n[2], values, nullptr, nullptr, "[ r= 1:8 Real + < 0:100 ]"},
                               {nullptr, nullptr, nullptr, nullptr, nullptr}};
#endif
  std::vector<std::string> args{"zvcompute"};
  for (size_t start = 0; start <= input.size() && args.size() < 64;) {
    const size_t end = std::min(input.find('\0', start), input.size());
    args.push_back(input.substr(start, end - start));
    start = end + 1;
  }
  std::vector<char *> argv;
  for (std::string &a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  int argc = static_cast<int>(args.size());
  CoreArgv = argv.data(), CoreArgc = &argc;
  OptionsParse(table, nullptr);
  ExceptionClear();
  return 0;
}
