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

namespace {

void Parse(const OptionEntry *table, std::vector<std::string> args) {
  std::vector<char *> argv;
  for (std::string &a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  int argc = static_cast<int>(args.size());
  CoreArgv = argv.data();
  CoreArgc = &argc;
  OptionsParse(table, nullptr);
  ExceptionClear();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static bool ready = (Main = "zvcompute", OptionsModule.function(), true);
  (void)ready;
  std::string input(reinterpret_cast<const char *>(data), size);
#ifdef ZV_FUZZ_DECLARATION
  std::string decl = input.substr(0, input.find('\0'));
  OptionSpec spec{};
  OptionsParseSpec(decl.c_str(), &spec, nullptr);
  uint64_t count = 0;
  alignas(16) unsigned char values[4096] = {};
  const char *keywords[] = {"one", "two", "three", nullptr};
  uint64_t index = 0;
  // The value targets are large enough for the few values a short argument vector can hold.
  OptionEntry table[] = {{&count, decl.find("Keyword") != std::string::npos ? static_cast<void *>(keywords) : values,
                          decl.find("Keyword") != std::string::npos ? &index : nullptr, nullptr, decl.c_str()},
                         {nullptr, nullptr, nullptr, nullptr, nullptr}};
  std::string text;
  OptionsUsageText(&table[0], nullptr, &text);
  Parse(table, {"zvcompute", "-x", "1,2,3", "-seed", "7", "two", "--", "-h"});
#else
  std::vector<std::string> args{"zvcompute"};
  size_t start = 0;
  while (start <= input.size() && args.size() < 64) {
    size_t end = input.find('\0', start);
    if (end == std::string::npos) end = input.size();
    args.push_back(input.substr(start, end - start));
    start = end + 1;
  }
  uint64_t h = 0, seed = 123, n[4] = {};
  const char *fmt = nullptr, *cap = nullptr;
  float reals[8] = {};
  OptionEntry program[] = {{&h, nullptr, nullptr, nullptr, "[ h ]"},
                           {nullptr, &seed, nullptr, nullptr, "[ seed <> Size ]"},
                           {&n[0], &fmt, nullptr, nullptr, "[ fmt   <> String ]"},
                           {&n[1], &cap, nullptr, nullptr, "[ cap=  <> String ]"},
                           {&n[2], reals, nullptr, nullptr, "[ r= 1:8 Real + < 0:100 ]"},
                           {nullptr, nullptr, nullptr, nullptr, nullptr}};
  Parse(program, args);
#endif
  return 0;
}
