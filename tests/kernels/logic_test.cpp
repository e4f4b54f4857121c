// Bitwise logic on the eight integer types: every width, lengths around the 16-byte steps, unaligned
// buffers, an image or a number as second operand, in place, and the order of the refusals.
#include "kernel_check.h"

namespace {

const ElementType kIntegers[] = {TypeUint8, TypeUint16, TypeUint32, TypeUint64,
                                 TypeInt8,  TypeInt16,  TypeInt32,  TypeInt64};

// Bytes with varied patterns; an all-zero and an all-ones element first.
std::vector<unsigned char> Pattern(size_t bytes, uint64_t seed) {
  std::vector<unsigned char> v(bytes);
  for (size_t i = 0; i < bytes; ++i) v[i] = i < 8 ? 0 : i < 16 ? 0xff : static_cast<uint8_t>((i * 167 + seed) >> 2);
  return v;
}

// The operations act on the stored bits, so the reference works byte by byte; a number repeats the
// bytes of its one element.
TEST(Logic, EveryWidthLengthAndForm) {
  const Kernel kernels[] = {ComputeNot, ComputeAnd, ComputeOr, ComputeXor};
  for (ElementType t : kIntegers)
    for (size_t n : {0, 1, 3, 7, 15, 16, 17, 33, 131})
      for (int op = 0; op < 4; ++op)
        for (uint32_t image : {0u, 1u}) {
          const size_t s = TypeSize(t), bytes = n * s;
          const std::vector<unsigned char> a = Pattern(bytes + s, n), b = Pattern(bytes + s, 1000 + n + op);
          const unsigned char *second = image ? b.data() : b.data() + bytes;  // a number: the last element
          // Source one element past the start; destination aligned, then in place.
          for (bool in_place : {false, true}) {
            std::vector<unsigned char> dst = in_place ? a : std::vector<unsigned char>(bytes + s, 0x42);
            unsigned char *out = in_place ? dst.data() + s : dst.data();
            const unsigned char *first = in_place ? out : a.data() + s;
            ASSERT_EQ(kernels[op](image, first, t, op ? second : nullptr, op ? t : 0, n, out, t), 0u);
            for (size_t i = 0; i < bytes; ++i) {
              const unsigned char x = a[s + i], y = second[image ? i : i % s];
              const unsigned char want = op == 0 ? ~x : op == 1 ? x & y : op == 2 ? x | y : x ^ y;
              ASSERT_EQ(out[i], want) << TypeIdent(t) << " op " << op << " n " << n << " byte " << i;
            }
            if (!in_place) {
              EXPECT_EQ(dst[bytes], 0x42);
            }
          }
        }
}

TEST(Logic, EdgeValues) {
  CheckCases({
      {ComputeNot, 0, TypeUint8, {0}, 0, {}, TypeUint8, {255}},
      {ComputeNot, 0, TypeInt8, {0}, 0, {}, TypeInt8, {-1}},
      {ComputeNot, 0, TypeInt32, {5}, 0, {}, TypeInt32, {-6}},
      {ComputeNot, 0, TypeUint64, {0}, 0, {}, TypeUint64, {18446744073709551615.0L}},
      {ComputeAnd, 0, TypeInt16, {-1234}, TypeInt16, {0}, TypeInt16, {0}},
      {ComputeOr, 0, TypeInt16, {-1234}, TypeInt16, {0}, TypeInt16, {-1234}},
  });
  // One buffer as both operands and the destination: xor with itself clears it.
  std::vector<int64_t> v = {-1, 5, INT64_MIN, 7, 9};
  ASSERT_EQ(ComputeXor(1, v.data(), TypeInt64, v.data(), TypeInt64, v.size(), v.data(), TypeInt64), 0u);
  EXPECT_EQ(v, std::vector<int64_t>(5, 0));
}

TEST(Logic, RefusalsNameTheRightType) {
  std::vector<Refusal> cases = {
      {ComputeNot, TypeInt16, 0, TypeInt32, TypeInt32},  // destination first
      {ComputeNot, TypeReal32, 0, TypeReal32, TypeReal32},
      {ComputeNot, TypeCmplx64, 0, TypeCmplx64, TypeCmplx64},
      {ComputeNot, TypeImag32, 0, TypeImag32, TypeImag32},
  };
  for (Kernel k : {ComputeAnd, ComputeOr, ComputeXor})
    for (Refusal c : std::vector<Refusal>{
             {k, TypeInt16, TypeUint8, TypeInt16, TypeUint8},  // second operand's type first
             {k, TypeInt16, TypeInt32, TypeReal32, TypeInt32},
             {k, TypeInt16, TypeInt16, TypeUint16, TypeUint16},  // then the destination
             {k, TypeReal32, TypeReal32, TypeReal32, TypeReal32},  // then the type itself
             {k, TypeImag64, TypeImag64, TypeImag64, TypeImag64},
             {k, TypeCmplx32, TypeCmplx32, TypeCmplx32, TypeCmplx32},
             {k, 0x7777, 0x7777, 0x7777, 0x7777}})
      cases.push_back(c);
  CheckRefusals(cases);
}

}  // namespace
