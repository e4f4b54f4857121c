// Option tests: an argument vector installed as the process arguments, the error stack as texts, and
// the per-test start (program name set, error table registered, no pending errors).
#pragma once
#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

#include "options/options.h"

using Strings = std::vector<std::string>;

// Installs "zvcompute" followed by the given arguments as CoreArgv / CoreArgc.
struct Args {
  std::deque<std::string> store;
  std::vector<char *> ptrs;
  int argc = 0;
  explicit Args(const std::vector<const char *> &args) {
    store.emplace_back("zvcompute");
    for (const char *a : args) store.emplace_back(a);
    for (std::string &s : store) ptrs.push_back(s.data());
    ptrs.push_back(nullptr);
    argc = static_cast<int>(store.size());
    CoreArgv = ptrs.data();
    CoreArgc = &argc;
  }
  ~Args() { CoreArgv = nullptr, CoreArgc = nullptr; }
  // The arguments after the program name as they are now; the vector must end with null.
  Strings Left() const {
    EXPECT_EQ(CoreArgv[argc], nullptr);
    return Strings(CoreArgv + 1, CoreArgv + argc);
  }
};

inline Strings Errors() {
  Strings v;
  for (uint32_t i = 0; i < ExceptionCount(); ++i) v.emplace_back(ExceptionText(i));
  return v;
}

inline void OptionsTestSetUp() {
  static const bool registered = OptionsModuleInit() == 0;
  EXPECT_TRUE(registered);
  Main = "zvcompute";
  ExceptionClear();
}

inline OptionEntry EndRow() { return {nullptr, nullptr, nullptr, nullptr, nullptr}; }
