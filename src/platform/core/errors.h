// The error stack: errors are pushed as they occur and reported when the process ends.
#pragma once
#include <cstdint>

// Core library codes.
inline constexpr uint32_t E_ARGUMENT = 264;  // missing (null) argument
inline constexpr uint32_t E_MEMORY = 265;    // allocation failed
inline constexpr uint32_t E_REGISTRY = 278;  // registry full
inline constexpr uint32_t E_MSG = 279;       // error whose whole text is given with the push

// One entry of an error table: name and message; a pair of nulls ends the table.
struct ErrorEntry {
  const char *name;
  const char *message;
};

// Make the table's names and messages those of the codes first .. end-1.
uint32_t ExceptionRegister(const ErrorEntry *table, uint32_t first, uint32_t end);

// Push a bare code; returns the code (0 pushes nothing and returns 0).
uint32_t ExceptionPush(uint32_t code);

// Push a code with texts joined in order; the list of texts ends with a null pointer.
uint32_t ExceptionPushMsg(uint32_t code, ...);

// Add text to the error on top of the stack; returns its code, or 0 when the stack is empty.
uint32_t ExceptionAppend(const char *text);

// Attach a file path / the operating system's error number to the error on top of the stack.
void ExceptionSetPath(const char *path);
void ExceptionSetErrno(int err);

// The pending error code (the top of the stack), 0 when none. The argument is 1 in every use.
uint32_t ExceptionGet(uint32_t which);

// Write the pushed errors to standard error, one line each, and clear the stack.
void ExceptionReport(uint32_t flags);

// The text one error would be reported with (without program name), for tests; empty when none.
// index 0 is the oldest pushed error.
const char *ExceptionText(uint32_t index);
uint32_t ExceptionCount();
void ExceptionClear();
