// The program's entry point: start-up, command forms, operand checks, block plan and block loop.
#pragma once
#include <cstdint>

inline constexpr uint64_t ComputeBlockSize = 16777216;
// Elements per kernel call within a block: the operands and the destination of a piece stay in the
// processor's cache between the passes of a kernel.
inline constexpr uint64_t ComputePieceSize = 16384;

int ComputeMain(int argc, char **argv);
uint32_t ComputeOptionsInit();
