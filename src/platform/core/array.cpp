#include "platform/core/array.h"

uint32_t ArrayOffset(uint64_t dims, const uint64_t *len, uint64_t elsize, uint64_t *result) {
  uint64_t count = 1;
  for (uint64_t i = 0; i < dims; ++i)
    if (__builtin_mul_overflow(count, len[i], &count)) return E_ARRAY_SIZE;
  uint64_t bytes;
  if (__builtin_mul_overflow(count, elsize, &bytes)) return E_ARRAY_SIZE;
  *result = count;
  return 0;
}
