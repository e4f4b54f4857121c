// Helpers for option tests: an argument vector installed as the process arguments, environment
// variables set for one test, and the error stack as texts.
#pragma once
#include <cstdlib>
#include <deque>
#include <initializer_list>
#include <string>
#include <vector>

#include "options/options.h"
#include "platform/core/core.h"
#include "platform/core/errors.h"

// Installs "zvcompute" followed by the given arguments as CoreArgv / CoreArgc.
struct Args {
  std::deque<std::string> store;
  std::vector<char *> ptrs;
  int argc = 0;

  Args(std::initializer_list<const char *> args) : Args(std::vector<const char *>(args)) {}
  explicit Args(const std::vector<const char *> &args) {
    store.emplace_back("zvcompute");
    for (const char *a : args) store.emplace_back(a);
    for (std::string &s : store) ptrs.push_back(s.data());
    ptrs.push_back(nullptr);
    argc = static_cast<int>(store.size());
    CoreArgv = ptrs.data();
    CoreArgc = &argc;
  }
  ~Args() {
    CoreArgv = nullptr;
    CoreArgc = nullptr;
  }
  // The arguments after the program name as they are now.
  std::vector<std::string> Left() const {
    std::vector<std::string> v;
    for (int i = 1; i < argc; ++i) v.emplace_back(CoreArgv[i] ? CoreArgv[i] : "(null)");
    return v;
  }
};

// Sets (or, with a null value, unsets) a variable for the lifetime of the guard.
struct EnvVar {
  std::string name;
  EnvVar(const char *n, const char *value) : name(n) {
    if (value) setenv(n, value, 1);
    else unsetenv(n);
  }
  ~EnvVar() { unsetenv(name.c_str()); }
};

inline std::vector<std::string> Errors() {
  std::vector<std::string> v;
  for (uint32_t i = 0; i < ExceptionCount(); ++i) v.emplace_back(ExceptionText(i));
  return v;
}

// Every test starts with the program name set, the error table registered and no pending errors.
inline void OptionsTestSetUp() {
  static bool registered = false;
  if (!registered) {
    OptionsModuleInit();
    registered = true;
  }
  Main = "zvcompute";
  ExceptionClear();
}

inline OptionEntry EndRow() { return {nullptr, nullptr, nullptr, nullptr, nullptr}; }
