// The program's entry point: start-up, command forms, operand checks, block plan and block loop.
#pragma once
#include <cstdint>

inline constexpr uint64_t ComputeBlockSize = 16777216;

int ComputeMain(int argc, char **argv);
uint32_t ComputeOptionsInit();
