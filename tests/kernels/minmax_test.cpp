// Minimum and maximum: which operand is stored for NaN and for equal values (+0 against -0) with an
// image or a number as second operand, every operand type, in place, and the refusals.
#include "kernel_check.h"

namespace {

// The stated rule: with an image the first value stays on NaN or equality, with a number the number
// is stored.
float Rule(bool max, bool image, float d, float b) {
  if (std::isnan(d) || std::isnan(b) || d == b) return image ? d : b;
  return (max ? d > b : d < b) ? d : b;
}

// The first operand of any type is converted into the real32 destination (coefficient of an
// imaginary value, real part of a complex one), or used in place; complex second operands are refused
// after that. An image second operand is paired one value further along. The selection may store a
// subnormal operand as the zero it is read as.
TEST(MinMax, EveryOperandTypeFollowsTheRule) {
  const uint64_t n = 67;
  for (ElementType t1 : kAllTypes) {
    const Buf a = Sample(t1, n), d = Converted(a, TypeReal32);
    for (ElementType t2 : kAllTypes) {
      const Buf b = Sample(t2, n + 5);
      for (bool max : {false, true})
        for (uint32_t image : {0u, 1u}) {
          Buf dst = t1 == TypeReal32 ? a : Buf(TypeReal32, n);
          const uint32_t status = (max ? ComputeMax : ComputeMin)(image, t1 == TypeReal32 ? dst.data() : a.data(), t1,
                                                                  &b.bytes[(image ? 1 : n + 4) * TypeSize(t2)], t2, n,
                                                                  dst.data(), TypeReal32);
          for (uint64_t i = 0; i < n; ++i) {
            const float x = d.get<float>(i), y = Real32(b, image ? i + 1 : n + 4);
            ASSERT_TRUE(Same(Flushed(dst.get<float>(i)), Flushed(IsCmplxType(t2) ? x : Rule(max, image, x, y))))
                << TypeIdent(t1) << " " << TypeIdent(t2) << " " << i;
          }
          if (IsCmplxType(t2)) EXPECT_TRUE(Refused(status, t2));
          else EXPECT_EQ(status, 0u);
        }
    }
  }
}

TEST(MinMax, EdgeValues) {
  const ElementType R = TypeReal32;
  CheckCases({
      // (1, NaN, 3) with the number 2, and with the image (2, 2, NaN).
      {ComputeMax, 0, R, {1}, R, {2}, R, {2}},
      {ComputeMax, 0, R, {NAN}, R, {2}, R, {2}},
      {ComputeMin, 0, R, {NAN}, R, {2}, R, {2}},
      {ComputeMin, 0, R, {3}, R, {2}, R, {2}},
      {ComputeMax, 0, R, {1}, R, {NAN}, R, {NAN}},  // a NaN number makes every result NaN
      {ComputeMin, 1, R, {NAN}, R, {2}, R, {NAN}},
      {ComputeMax, 1, R, {1}, R, {2}, R, {2}},
      {ComputeMax, 1, R, {NAN}, R, {2}, R, {NAN}},
      {ComputeMax, 1, R, {3}, R, {NAN}, R, {3}},
      {ComputeMin, 1, R, {3}, R, {NAN}, R, {3}},
      {ComputeMax, 1, R, {-0.0}, R, {0}, R, {-0.0}},
      {ComputeMax, 0, R, {-0.0}, R, {0}, R, {0}},
      {ComputeMin, 0, R, {0}, R, {-0.0}, R, {-0.0}},
      {ComputeMin, 1, TypeInt16, {-300}, TypeUint8, {255}, R, {-300}},
      {ComputeMax, 0, TypeImag32, {0, 7}, TypeImag32, {0, 5}, R, {7}},
      {ComputeMax, 0, TypeImag32, {0, -1}, TypeImag32, {0, 5}, R, {5}},
  });
}

TEST(MinMax, RefusalsAndEmptyBlock) {
  for (Kernel k : {ComputeMin, ComputeMax}) {
    CheckRefusals({{k, TypeInt16, TypeInt16, TypeReal64, TypeReal64},
                   {k, TypeInt16, 0x123, TypeReal32, 0x123, false},
                   {k, 0x301010, TypeInt16, TypeReal32, 0x301010}});
    EXPECT_EQ(k(1, nullptr, TypeReal64, nullptr, TypeReal32, 0, nullptr, TypeReal32), 0u);
  }
}

}  // namespace
