// Block statistics on binary32 data, accumulated in binary64.
#pragma once
#include <cstdint>

// Subtract the arithmetic mean of the count values of src and store the results in dst (may be src).
uint32_t ZeromeanReal(uint64_t count, const float *src, float *dst);
// The same for count complex values (pairs): the mean of the real parts and of the imaginary parts.
uint32_t ZeromeanCmplx(uint64_t count, const float *src, float *dst);
// Sum of squares of count values, rounded to binary32.
uint32_t Sumabs2Real(uint64_t count, const float *data, float *result);
// Sum of squared magnitudes of count complex values, rounded to binary32.
uint32_t Sumabs2Cmplx(uint64_t count, const float *data, float *result);
