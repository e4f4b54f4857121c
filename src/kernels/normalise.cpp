// Mean removal and RMS normalisation of one block, with the block's own statistics.
#include <cmath>
#include <cstring>

#include "kernels/element.h"
#include "platform/core/statistics.h"

namespace {

constexpr uint64_t kChunk = 16;

// Accepts a real32, imag32 or cmplx32 destination and returns where the block's values are read: the
// first operand itself when it already has the destination type (an imaginary block is handled
// through its real32 coefficients), otherwise the destination after the conversion into it.
uint32_t PrepareBlock(const void *src1, ElementType src1_type, uint64_t count, void *dst, ElementType dst_type,
                      const float **values) {
  if (dst_type != TypeReal32 && dst_type != TypeImag32 && dst_type != TypeCmplx32)
    return ComputeTypeError(dst_type);
  *values = static_cast<const float *>(src1 != dst && src1_type == dst_type ? src1 : dst);
  if (src1 != dst && src1_type != dst_type)
    return ComputeConvert(0, src1, src1_type, nullptr, 0, count, dst, dst_type);
  return 0;
}

}  // namespace

uint32_t ComputeZeromean(ZV_KERNEL_ARGS) {
  (void)operand2_is_array;
  (void)src2;
  (void)src2_type;
  const float *v = nullptr;
  if (uint32_t status = PrepareBlock(src1, src1_type, count, dst, dst_type, &v)) return status;
  float *d = static_cast<float *>(dst);
  if (dst_type == TypeCmplx32) ZeromeanCmplx(count, v, d);
  else ZeromeanReal(count, v, d);
  return 0;
}

uint32_t ComputeRmsNorm(ZV_KERNEL_ARGS) {
  (void)operand2_is_array;
  (void)src2;
  (void)src2_type;
  const float *v = nullptr;
  if (uint32_t status = PrepareBlock(src1, src1_type, count, dst, dst_type, &v)) return status;
  float *d = static_cast<float *>(dst);
  const uint64_t parts = dst_type == TypeCmplx32 ? 2 * count : count;
  float s = 0.0f;
  if (dst_type == TypeCmplx32) Sumabs2Cmplx(count, v, &s);
  else Sumabs2Real(count, v, &s);

  float n = static_cast<float>(count);
  float rms = std::sqrt(s / n);
  // Zero, NaN (an empty block gives 0/0) and all-zero blocks are left as they are.
  if (!(rms > 0.0f)) {
    if (v != d) std::memcpy(d, v, parts * sizeof(float));
    return 0;
  }

  // Last element to first, in chunks of constant length so that the scaling vectorises.
  if (dst_type == TypeCmplx32) {
    // The complex case scales both parts by the reciprocal, computed once.
    const float f = 1.0f / rms;
    uint64_t k = parts;
    for (; k >= kChunk; k -= kChunk) {
      const float *p = v + (k - kChunk);
      float *q = d + (k - kChunk);
      for (uint64_t j = 0; j < kChunk; ++j) q[j] = p[j] * f;
    }
    while (k-- > 0) d[k] = v[k] * f;
  } else {
    uint64_t k = parts;
    for (; k >= kChunk; k -= kChunk) {
      const float *p = v + (k - kChunk);
      float *q = d + (k - kChunk);
      for (uint64_t j = 0; j < kChunk; ++j) q[j] = p[j] / rms;
    }
    while (k-- > 0) d[k] = v[k] / rms;
  }
  return 0;
}
