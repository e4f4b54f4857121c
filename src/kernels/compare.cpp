// Element-wise comparisons into uint8 masks. Both operands, whatever their types, are compared as
// binary32 values (an imaginary element by its coefficient). An unordered comparison (a NaN operand)
// counts as equal: "lt", "le" and "eq" give 1, "ge", "gt" and "ne" give 0.
#include "kernels/element.h"

namespace {

// The relations, written so that the NaN rule falls out of IEEE comparisons without a separate test.
struct Lt { static bool Holds(float a, float b) { return !(a >= b); } };
struct Le { static bool Holds(float a, float b) { return !(a > b); } };
struct Eq { static bool Holds(float a, float b) { return !(a < b) & !(a > b); } };
struct Ge { static bool Holds(float a, float b) { return a >= b; } };
struct Gt { static bool Holds(float a, float b) { return a > b; } };
struct Ne { static bool Holds(float a, float b) { return (a < b) | (a > b); } };

// Elements per chunk. Each chunk is converted into local arrays and then compared, so the loops have
// a constant trip count and no aliasing between source and mask (the mask may even be the first
// operand's own buffer: a chunk is read completely before it is written).
constexpr uint64_t kChunk = 32;

// A mask can share its buffer only with a one-byte operand (in place, where the image is the mask's
// type); wider operands are separate buffers, and their loops run straight through.
template <class Rel, class A, class B>
void CompareArrays(const A *a, const B *b, uint64_t count, uint8_t *dst) {
  if constexpr (sizeof(A) > 1 && sizeof(B) > 1) {
    const A *__restrict x = a;
    const B *__restrict y = b;
    uint8_t *__restrict m = dst;
    for (uint64_t i = 0; i < count; ++i) m[i] = Rel::Holds(ElementToReal32(x[i]), ElementToReal32(y[i]));
    return;
  }
  uint64_t i = 0;
  for (; i + kChunk <= count; i += kChunk) {
    float x[kChunk], y[kChunk];
    uint8_t m[kChunk];
    for (uint64_t j = 0; j < kChunk; ++j) x[j] = ElementToReal32(a[i + j]);
    for (uint64_t j = 0; j < kChunk; ++j) y[j] = ElementToReal32(b[i + j]);
    for (uint64_t j = 0; j < kChunk; ++j) m[j] = Rel::Holds(x[j], y[j]);
    for (uint64_t j = 0; j < kChunk; ++j) dst[i + j] = m[j];
  }
  for (; i < count; ++i) dst[i] = Rel::Holds(ElementToReal32(a[i]), ElementToReal32(b[i]));
}

template <class Rel, class A>
void CompareScalar(const A *a, float y, uint64_t count, uint8_t *dst) {
  if constexpr (sizeof(A) > 1) {
    const A *__restrict x = a;
    uint8_t *__restrict m = dst;
    for (uint64_t i = 0; i < count; ++i) m[i] = Rel::Holds(ElementToReal32(x[i]), y);
    return;
  }
  uint64_t i = 0;
  for (; i + kChunk <= count; i += kChunk) {
    float x[kChunk];
    uint8_t m[kChunk];
    for (uint64_t j = 0; j < kChunk; ++j) x[j] = ElementToReal32(a[i + j]);
    for (uint64_t j = 0; j < kChunk; ++j) m[j] = Rel::Holds(x[j], y);
    for (uint64_t j = 0; j < kChunk; ++j) dst[i + j] = m[j];
  }
  for (; i < count; ++i) dst[i] = Rel::Holds(ElementToReal32(a[i]), y);
}

template <class Rel> uint32_t CompareKernel(ZV_KERNEL_ARGS) {
  if (dst_type != TypeUint8) return ComputeTypeError(dst_type);
  uint8_t *d = static_cast<uint8_t *>(dst);
  return DispatchType(src1_type, [&](auto tag1) -> uint32_t {
    using A = decltype(tag1);
    if constexpr (kIsCmplx<A>) {
      return ComputeTypeError(src1_type);
    } else {
      return DispatchType(src2_type, [&](auto tag2) -> uint32_t {
        using B = decltype(tag2);
        if constexpr (kIsCmplx<B>) {
          return ComputeTypeError(src2_type);
        } else {
          const A *a = static_cast<const A *>(src1);
          const B *b = static_cast<const B *>(src2);
          if (count == 0) return 0;
          if (operand2_is_array) CompareArrays<Rel>(a, b, count, d);
          else CompareScalar<Rel>(a, ElementToReal32(b[0]), count, d);
          return 0;
        }
      });
    }
  });
}

}  // namespace

uint32_t ComputeLt(ZV_KERNEL_ARGS) {
  return CompareKernel<Lt>(operand2_is_array, src1, src1_type, src2, src2_type, count, dst, dst_type);
}
uint32_t ComputeLe(ZV_KERNEL_ARGS) {
  return CompareKernel<Le>(operand2_is_array, src1, src1_type, src2, src2_type, count, dst, dst_type);
}
uint32_t ComputeEq(ZV_KERNEL_ARGS) {
  return CompareKernel<Eq>(operand2_is_array, src1, src1_type, src2, src2_type, count, dst, dst_type);
}
uint32_t ComputeGe(ZV_KERNEL_ARGS) {
  return CompareKernel<Ge>(operand2_is_array, src1, src1_type, src2, src2_type, count, dst, dst_type);
}
uint32_t ComputeGt(ZV_KERNEL_ARGS) {
  return CompareKernel<Gt>(operand2_is_array, src1, src1_type, src2, src2_type, count, dst, dst_type);
}
uint32_t ComputeNe(ZV_KERNEL_ARGS) {
  return CompareKernel<Ne>(operand2_is_array, src1, src1_type, src2, src2_type, count, dst, dst_type);
}
