// Elementary real functions: each element narrowed to binary32, then f evaluated in single precision.
#include <cmath>

#include "kernels/element.h"

namespace {

// Square root by the processor's instruction: no library call, so the loop runs several elements at a
// time; the result is the correctly rounded IEEE root (sqrt of -0 is -0, of a negative value NaN).
inline float SqrtOp(float x) { return __builtin_sqrtf(x); }
inline float ExpOp(float x) { return expf(x); }
inline float LnOp(float x) { return logf(x); }
inline float CosOp(float x) { return cosf(x); }
inline float SinOp(float x) { return sinf(x); }
inline float TanOp(float x) { return tanf(x); }
inline float AsinOp(float x) { return asinf(x); }
inline float AcosOp(float x) { return acosf(x); }
inline float AtanOp(float x) { return atanf(x); }

template <class T, float (*F)(float)>
void ApplyLoop(const T *__restrict s, float *__restrict d, uint64_t count) {
  for (uint64_t k = 0; k < count; ++k) d[k] = F(ElementToReal32(s[k]));
}

// In place on real32: each element is read before it is overwritten by f of itself.
template <float (*F)(float)>
void ApplyInPlace(float *d, uint64_t count) {
  for (uint64_t k = 0; k < count; ++k) d[k] = F(d[k]);
}

// The common shape of the nine kernels: real32 destination only, integer or real sources only.
template <float (*F)(float)>
uint32_t ApplyFunction(const void *src1, ElementType src1_type, uint64_t count, void *dst,
                       ElementType dst_type) {
  if (dst_type != TypeReal32) return ComputeTypeError(dst_type);
  if (!IsRealOrIntegerType(src1_type)) return ComputeTypeError(src1_type);
  float *d = static_cast<float *>(dst);
  if (src1 == dst && src1_type == TypeReal32) {
    // The driver runs in place only on a real32 image.
    ApplyInPlace<F>(d, count);
    return 0;
  }
  return DispatchType(src1_type, [&](auto tag) -> uint32_t {
    using T = decltype(tag);
    if constexpr (kIsRealOrInt<T>) ApplyLoop<T, F>(static_cast<const T *>(src1), d, count);
    return 0;
  });
}

}  // namespace

#define ZV_FUNCTION_KERNEL(Name, Op)                                   \
  uint32_t Name(ZV_KERNEL_ARGS) {                                      \
    (void)operand2_is_array, (void)src2, (void)src2_type;              \
    return ApplyFunction<Op>(src1, src1_type, count, dst, dst_type);   \
  }

ZV_FUNCTION_KERNEL(ComputeSqrt, SqrtOp)
ZV_FUNCTION_KERNEL(ComputeExp, ExpOp)
ZV_FUNCTION_KERNEL(ComputeLn, LnOp)
ZV_FUNCTION_KERNEL(ComputeCos, CosOp)
ZV_FUNCTION_KERNEL(ComputeSin, SinOp)
ZV_FUNCTION_KERNEL(ComputeTan, TanOp)
ZV_FUNCTION_KERNEL(ComputeAsin, AsinOp)
ZV_FUNCTION_KERNEL(ComputeAcos, AcosOp)
ZV_FUNCTION_KERNEL(ComputeAtan, AtanOp)
