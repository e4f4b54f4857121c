// Minimum and maximum into real32. The first operand is converted into the destination, then each
// element is compared with the second operand. The operand order of the comparison is deliberate: it
// decides what is stored for equal values (+0 against -0) and for NaN. With an image as second operand
// the first operand's value is kept unless the second is strictly better; with a number the first
// operand's value is kept only when it is strictly better than the number.
#include "kernels/element.h"

namespace {

template <bool kMax> inline float KeepUnlessBetter(float d, float b) {
  if constexpr (kMax) return b > d ? b : d;
  else return b < d ? b : d;
}

template <bool kMax> inline float KeepIfBetter(float d, float b) {
  if constexpr (kMax) return d > b ? d : b;
  else return d < b ? d : b;
}

// Second operand an image: d[k] against its own element s[k].
template <bool kMax, class T>
void ImageLoop(const T *__restrict s, float *__restrict d, uint64_t count) {
  for (uint64_t k = 0; k < count; ++k) d[k] = KeepUnlessBetter<kMax>(d[k], ElementToReal32(s[k]));
}

// The same when the second operand's buffer is the destination itself: element by element.
template <bool kMax, class T> void ImageLoopAliased(const T *s, float *d, uint64_t count) {
  for (uint64_t k = 0; k < count; ++k) d[k] = KeepUnlessBetter<kMax>(d[k], ElementToReal32(s[k]));
}

// Second operand a number: every d[k] against the one value b.
template <bool kMax> void NumberLoop(float b, float *d, uint64_t count) {
  for (uint64_t k = 0; k < count; ++k) d[k] = KeepIfBetter<kMax>(d[k], b);
}

template <bool kMax>
uint32_t MinMax(uint32_t operand2_is_array, const void *src1, ElementType src1_type, const void *src2,
                ElementType src2_type, uint64_t count, void *dst, ElementType dst_type) {
  if (dst_type != TypeReal32) return ComputeTypeError(dst_type);
  if (src1 != dst) {
    const uint32_t status = ComputeConvert(0, src1, src1_type, nullptr, 0, count, dst, TypeReal32);
    if (status != 0) return status;
  }
  // Integer, real and imaginary second operands (an imaginary value counts by its coefficient).
  if (!IsRealOrIntegerType(src2_type) && !IsImagType(src2_type)) return ComputeTypeError(src2_type);
  float *d = static_cast<float *>(dst);
  return DispatchType(src2_type, [&](auto tag) -> uint32_t {
    using T = decltype(tag);
    if constexpr (!kIsCmplx<T>) {
      const T *s = static_cast<const T *>(src2);
      if (!operand2_is_array) {
        if (count > 0) NumberLoop<kMax>(ElementToReal32(s[0]), d, count);
      } else if (static_cast<const void *>(s) == dst) {
        ImageLoopAliased<kMax>(s, d, count);
      } else {
        ImageLoop<kMax>(s, d, count);
      }
    }
    return 0;
  });
}

}  // namespace

uint32_t ComputeMin(ZV_KERNEL_ARGS) {
  return MinMax<false>(operand2_is_array, src1, src1_type, src2, src2_type, count, dst, dst_type);
}

uint32_t ComputeMax(ZV_KERNEL_ARGS) {
  return MinMax<true>(operand2_is_array, src1, src1_type, src2, src2_type, count, dst, dst_type);
}
