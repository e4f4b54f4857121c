// Array geometry.
#pragma once
#include <cstdint>

inline constexpr uint32_t E_ARRAY_SIZE = 0x210006;  // element count or byte size cannot be computed

// Number of elements of an array of dims axes; fails with E_ARRAY_SIZE (not pushed) when the element
// count or the byte size (count times elsize) overflows 64 bits.
uint32_t ArrayOffset(uint64_t dims, const uint64_t *len, uint64_t elsize, uint64_t *result);
