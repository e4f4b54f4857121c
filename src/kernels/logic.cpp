// Bitwise logic on integer elements. The operations act on the stored bits alone, so a block of any
// integer type is processed as a run of bytes, sixteen at a time as two 64-bit words, with a scalar
// operand repeated across the word. The element sizes (1, 2, 4, 8) divide 8, so every word starts on
// an element boundary and the repeated pattern lines up with the elements.
#include "kernels/element.h"

namespace {

struct And { static uint64_t Apply(uint64_t a, uint64_t b) { return a & b; } };
struct Or { static uint64_t Apply(uint64_t a, uint64_t b) { return a | b; } };
struct Xor { static uint64_t Apply(uint64_t a, uint64_t b) { return a ^ b; } };

inline uint64_t LoadWord(const uint8_t *p) {
  uint64_t w;
  std::memcpy(&w, p, 8);
  return w;
}
inline void StoreWord(uint8_t *p, uint64_t w) { std::memcpy(p, &w, 8); }

// Each pair of words is loaded completely before it is stored, so dst may be either source buffer
// itself (in place, or an image combined with itself).
template <class Op> void CombineArrays(const uint8_t *a, const uint8_t *b, uint64_t nbytes, uint8_t *d) {
  uint64_t i = 0;
  for (; i + 16 <= nbytes; i += 16) {
    uint64_t a0 = LoadWord(a + i), a1 = LoadWord(a + i + 8);
    uint64_t b0 = LoadWord(b + i), b1 = LoadWord(b + i + 8);
    StoreWord(d + i, Op::Apply(a0, b0));
    StoreWord(d + i + 8, Op::Apply(a1, b1));
  }
  for (; i < nbytes; ++i) d[i] = static_cast<uint8_t>(Op::Apply(a[i], b[i]));
}

// pattern holds the scalar operand repeated across the word; byte k of the tail takes pattern byte
// k mod 8, which is byte k mod size of the element.
template <class Op> void CombineScalar(const uint8_t *a, uint64_t pattern, uint64_t nbytes, uint8_t *d) {
  uint64_t i = 0;
  for (; i + 16 <= nbytes; i += 16) {
    uint64_t a0 = LoadWord(a + i), a1 = LoadWord(a + i + 8);
    StoreWord(d + i, Op::Apply(a0, pattern));
    StoreWord(d + i + 8, Op::Apply(a1, pattern));
  }
  for (; i < nbytes; ++i) d[i] = static_cast<uint8_t>(Op::Apply(a[i], pattern >> (8 * (i % 8))));
}

// The element at src repeated to fill 64 bits (little-endian byte order, as stored).
uint64_t RepeatElement(const void *src, uint32_t size) {
  uint8_t bytes[8];
  for (uint32_t k = 0; k < 8; ++k) bytes[k] = static_cast<const uint8_t *>(src)[k % size];
  return LoadWord(bytes);
}

template <class Op> uint32_t LogicKernel(ZV_KERNEL_ARGS) {
  if (src2_type != src1_type) return ComputeTypeError(src2_type);
  if (dst_type != src1_type) return ComputeTypeError(dst_type);
  if (!IsIntegerType(src1_type)) return ComputeTypeError(src1_type);
  uint32_t size = TypeSize(src1_type);
  const uint8_t *a = static_cast<const uint8_t *>(src1);
  uint8_t *d = static_cast<uint8_t *>(dst);
  if (count == 0) return 0;
  if (operand2_is_array) CombineArrays<Op>(a, static_cast<const uint8_t *>(src2), count * size, d);
  else CombineScalar<Op>(a, RepeatElement(src2, size), count * size, d);
  return 0;
}

}  // namespace

uint32_t ComputeNot(ZV_KERNEL_ARGS) {
  (void)operand2_is_array;
  (void)src2;
  (void)src2_type;
  if (dst_type != src1_type) return ComputeTypeError(dst_type);
  if (!IsIntegerType(src1_type)) return ComputeTypeError(src1_type);
  // The complement is the exclusive or with all ones, whatever the element width.
  CombineScalar<Xor>(static_cast<const uint8_t *>(src1), ~uint64_t{0}, count * TypeSize(src1_type),
                     static_cast<uint8_t *>(dst));
  return 0;
}

uint32_t ComputeAnd(ZV_KERNEL_ARGS) {
  return LogicKernel<And>(operand2_is_array, src1, src1_type, src2, src2_type, count, dst, dst_type);
}
uint32_t ComputeOr(ZV_KERNEL_ARGS) {
  return LogicKernel<Or>(operand2_is_array, src1, src1_type, src2, src2_type, count, dst, dst_type);
}
uint32_t ComputeXor(ZV_KERNEL_ARGS) {
  return LogicKernel<Xor>(operand2_is_array, src1, src1_type, src2, src2_type, count, dst, dst_type);
}
