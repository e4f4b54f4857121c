// The program's entry point: start-up, command forms, operand checks, block plan and block loop.
#pragma once
#include <cstdint>

inline constexpr uint64_t ComputeBlockSize = 16777216;
// Bytes of the widest operand or destination in one piece of a block: the pieces of all three stay in
// the processor's cache from the read through the kernel's passes to the write.
inline constexpr uint64_t ComputePieceBytes = 524288;

int ComputeMain(int argc, char **argv);
uint32_t ComputeOptionsInit();
