// Mean removal and RMS normalisation of one block, with the block's own statistics.
#include <cmath>

#include "kernels/element.h"
#include "platform/core/statistics.h"

namespace {

constexpr uint64_t kChunk = 16;

// Accepts a real32, imag32 or cmplx32 destination and brings the first operand into it (an imaginary
// block is handled through its real32 coefficients).
uint32_t PrepareBlock(const void *src1, ElementType src1_type, uint64_t count, void *dst,
                      ElementType dst_type) {
  if (dst_type != TypeReal32 && dst_type != TypeImag32 && dst_type != TypeCmplx32)
    return ComputeTypeError(dst_type);
  if (src1 != dst) return ComputeConvert(0, src1, src1_type, nullptr, 0, count, dst, dst_type);
  return 0;
}

}  // namespace

uint32_t ComputeZeromean(ZV_KERNEL_ARGS) {
  (void)operand2_is_array;
  (void)src2;
  (void)src2_type;
  if (uint32_t status = PrepareBlock(src1, src1_type, count, dst, dst_type)) return status;
  float *d = static_cast<float *>(dst);
  if (dst_type == TypeCmplx32) ZeromeanCmplx(count, d, d);
  else ZeromeanReal(count, d, d);
  return 0;
}

uint32_t ComputeRmsNorm(ZV_KERNEL_ARGS) {
  (void)operand2_is_array;
  (void)src2;
  (void)src2_type;
  if (uint32_t status = PrepareBlock(src1, src1_type, count, dst, dst_type)) return status;
  float *d = static_cast<float *>(dst);
  float s = 0.0f;
  if (dst_type == TypeCmplx32) Sumabs2Cmplx(count, d, &s);
  else Sumabs2Real(count, d, &s);

  float n = static_cast<float>(count);
  float rms = std::sqrt(s / n);
  // Zero, NaN (an empty block gives 0/0) and all-zero blocks are left as they are.
  if (!(rms > 0.0f)) return 0;

  // Last element to first, in chunks of constant length so that the scaling vectorises.
  if (dst_type == TypeCmplx32) {
    // The complex case scales both parts by the reciprocal, computed once.
    const float f = 1.0f / rms;
    uint64_t k = 2 * count;
    for (; k >= kChunk; k -= kChunk) {
      float *p = d + (k - kChunk);
      for (uint64_t j = 0; j < kChunk; ++j) p[j] = p[j] * f;
    }
    while (k-- > 0) d[k] = d[k] * f;
  } else {
    uint64_t k = count;
    for (; k >= kChunk; k -= kChunk) {
      float *p = d + (k - kChunk);
      for (uint64_t j = 0; j < kChunk; ++j) p[j] = p[j] / rms;
    }
    while (k-- > 0) d[k] = d[k] / rms;
  }
  return 0;
}
