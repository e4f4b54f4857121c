// Comparison kernels: every ordered pair of the twelve non-complex types, every value against every
// value, with an image and with a number, compared as binary32; the listed edges; refusals in order.
#include "kernel_check.h"

namespace {

const Kernel kKernels[] = {ComputeLt, ComputeLe, ComputeEq, ComputeGe, ComputeGt, ComputeNe};

// An unordered pair counts as equal.
bool Relation(int r, float x, float y) {
  if (std::isnan(x) || std::isnan(y)) return r <= 2;
  const bool rel[] = {x < y, x <= y, x == y, x >= y, x > y, x != y};
  return rel[r];
}

TEST(Compare, EveryTypePairMatchesBinary32Relation) {
  const uint64_t k = 56;
  for (ElementType t1 : kAllTypes)
    for (ElementType t2 : kAllTypes) {
      if (IsCmplxType(t1) || IsCmplxType(t2)) continue;
      const Buf va = Sample(t1, k), vb = Sample(t2, k);
      Buf a(t1, k * k), b(t2, k * k);
      for (uint64_t i = 0; i < k * k; ++i) {
        std::memcpy(&a.bytes[i * TypeSize(t1)], &va.bytes[i / k * TypeSize(t1)], TypeSize(t1));
        std::memcpy(&b.bytes[i * TypeSize(t2)], &vb.bytes[i % k * TypeSize(t2)], TypeSize(t2));
      }
      for (int r = 0; r < 6; ++r) {
        std::vector<uint8_t> dst(k * k, 0xee);
        ASSERT_EQ(kKernels[r](1, a.data(), t1, b.data(), t2, k * k, dst.data(), TypeUint8), 0u);
        for (uint64_t i = 0; i < k * k; ++i)
          ASSERT_EQ(dst[i], Relation(r, Real32(a, i), Real32(b, i))) << TypeIdent(t1) << r << TypeIdent(t2) << " " << i;
        for (uint64_t j = 0; j < k; j += 3) {
          ASSERT_EQ(kKernels[r](0, va.data(), t1, &vb.bytes[j * TypeSize(t2)], t2, k, dst.data(), TypeUint8), 0u);
          for (uint64_t i = 0; i < k; ++i)
            ASSERT_EQ(dst[i], Relation(r, Real32(va, i), Real32(vb, j))) << TypeIdent(t1) << r << " number " << j;
        }
      }
    }
}

TEST(Compare, EdgeValues) {
  const ElementType U8 = TypeUint8;
  const long double two40 = 1099511627776.0L;
  CheckCases({
      {ComputeEq, 1, TypeInt32, {16777216}, TypeInt32, {16777217}, U8, {1}},
      {ComputeNe, 1, TypeInt32, {16777216}, TypeInt32, {16777217}, U8, {0}},
      {ComputeEq, 1, TypeInt64, {two40 + 1}, TypeUint64, {two40}, U8, {1}},
      {ComputeGt, 1, TypeUint64, {18446744073709551615.0L}, TypeInt64, {-1}, U8, {1}},
      {ComputeLt, 1, TypeUint64, {18446744073709551615.0L}, TypeInt64, {-1}, U8, {0}},
      {ComputeEq, 1, TypeReal64, {1e300}, TypeReal64, {1e301}, U8, {1}},
      {ComputeLt, 0, TypeReal64, {1e300}, TypeReal64, {1e301}, U8, {0}},
      {ComputeEq, 1, TypeReal64, {0.1}, TypeReal32, {0.1f}, U8, {1}},
      {ComputeLt, 1, TypeInt8, {-1}, TypeUint8, {0}, U8, {1}},
      {ComputeEq, 0, TypeImag32, {0, 2}, TypeReal32, {2}, U8, {1}},
      {ComputeEq, 0, TypeReal32, {NAN}, TypeImag32, {0, 1}, U8, {1}},
      {ComputeNe, 1, TypeReal64, {NAN}, TypeReal32, {NAN}, U8, {0}},
  });
}

TEST(Compare, EmptyBlockAndRefusals) {
  uint8_t untouched = 0xee;
  const int32_t zero = 0;
  EXPECT_EQ(ComputeEq(1, &zero, TypeInt32, &zero, TypeInt32, 0, &untouched, TypeUint8), 0u);
  EXPECT_EQ(untouched, 0xee);
  const ElementType R = TypeReal32;
  for (Kernel k : kKernels)
    CheckRefusals({{k, R, R, R, R},  // destination first
                   {k, TypeCmplx32, TypeCmplx64, TypeInt8, TypeInt8},
                   {k, TypeCmplx32, R, TypeUint8, TypeCmplx32},  // then the first operand
                   {k, TypeCmplx64, TypeCmplx32, TypeUint8, TypeCmplx64},
                   {k, TypeInt16, TypeCmplx64, TypeUint8, TypeCmplx64},
                   {k, 0x5555, R, TypeUint8, 0x5555},
                   {k, R, 0x6666, TypeUint8, 0x6666}});
}

}  // namespace
