// Elementary real functions: each element narrowed to binary32, then f evaluated in single precision.
#include <algorithm>

#include "kernels/element.h"

namespace {

constexpr uint64_t kPiece = 1024;  // elements narrowed at a time: stays in the first-level cache

// Square root by the processor's instruction: no library call, so the loop runs several elements at a
// time; the result is the correctly rounded IEEE root (sqrt of -0 is -0, of a negative value NaN).
// In place the loop runs on the one pointer, so that it vectorises without a run-time overlap test.
template <class T> void SqrtLoop(const T *__restrict s, float *__restrict d, uint64_t count) {
  for (uint64_t k = 0; k < count; ++k) d[k] = __builtin_sqrtf(ElementToReal32(s[k]));
}
void SqrtInPlace(float *d, uint64_t count) {
  for (uint64_t k = 0; k < count; ++k) d[k] = __builtin_sqrtf(d[k]);
}

// The library functions: a real32 block goes to the library as it is (in place too); any other
// source is narrowed piece by piece into the destination, which the library then rewrites.
template <class T> void LibraryLoop(LibUnary f, const T *s, float *d, uint64_t count) {
  if constexpr (std::is_same_v<T, float>) {
    LibMap(f, s, d, count);
  } else {
    for (uint64_t i = 0; i < count; i += kPiece) {
      const uint64_t m = std::min(kPiece, count - i);
      for (uint64_t k = 0; k < m; ++k) d[i + k] = ElementToReal32(s[i + k]);
      LibMap(f, d + i, d + i, m);
    }
  }
}

// The common shape of the nine kernels: real32 destination only, integer or real sources only. The
// driver runs in place only on a real32 image; each element is read before it is overwritten.
template <bool kSqrt, LibUnary F = LibUnary::Exp>
uint32_t ApplyFunction(const void *src1, ElementType src1_type, uint64_t count, void *dst, ElementType dst_type) {
  if (dst_type != TypeReal32) return ComputeTypeError(dst_type);
  if (!IsRealOrIntegerType(src1_type)) return ComputeTypeError(src1_type);
  float *d = static_cast<float *>(dst);
  return DispatchType(src1_type, [&](auto tag) -> uint32_t {
    using T = decltype(tag);
    if constexpr (kIsRealOrInt<T>) {
      if constexpr (kSqrt) {
        if (src1 == dst) SqrtInPlace(d, count);
        else SqrtLoop(static_cast<const T *>(src1), d, count);
      }
      else LibraryLoop(F, static_cast<const T *>(src1), d, count);
    }
    return 0;
  });
}

}  // namespace

#define ZV_FUNCTION_KERNEL(Name, ...)                                           \
  uint32_t Name(ZV_KERNEL_ARGS) {                                               \
    (void)operand2_is_array, (void)src2, (void)src2_type;                       \
    return ApplyFunction<__VA_ARGS__>(src1, src1_type, count, dst, dst_type);   \
  }

ZV_FUNCTION_KERNEL(ComputeSqrt, true)
ZV_FUNCTION_KERNEL(ComputeExp, false, LibUnary::Exp)
ZV_FUNCTION_KERNEL(ComputeLn, false, LibUnary::Log)
ZV_FUNCTION_KERNEL(ComputeCos, false, LibUnary::Cos)
ZV_FUNCTION_KERNEL(ComputeSin, false, LibUnary::Sin)
ZV_FUNCTION_KERNEL(ComputeTan, false, LibUnary::Tan)
ZV_FUNCTION_KERNEL(ComputeAsin, false, LibUnary::Asin)
ZV_FUNCTION_KERNEL(ComputeAcos, false, LibUnary::Acos)
ZV_FUNCTION_KERNEL(ComputeAtan, false, LibUnary::Atan)
