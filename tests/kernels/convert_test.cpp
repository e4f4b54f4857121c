// Element type conversion: all 196 type pairs against the reference, the saturation and rounding
// edges, and the refusal of unknown type codes.
#include "kernel_check.h"

namespace {

const long double kTwo63 = 9223372036854775808.0L, kTwo64 = 18446744073709551616.0L;

// Same-width floating pairs are bit copies (NaN payloads, -0, subnormals and infinities kept); other
// pairs are compared as values, any NaN matching any NaN.
TEST(Convert, EveryPairMatchesReference) {
  for (ElementType s : kAllTypes) {
    const Buf src = Sample(s, 157);
    for (ElementType d : kAllTypes) {
      Buf dst(d, src.size());
      ASSERT_EQ(ComputeConvert(0, src.data(), s, nullptr, 0, src.size(), dst.data(), d), 0u);
      const Buf want = Converted(src, d);
      const bool copy = !IsIntegerType(s) && !IsIntegerType(d) && TypeSize(s) * (IsCmplxType(d) ? 2 : 1) ==
                                                                      TypeSize(d) * (IsCmplxType(s) ? 2 : 1);
      for (uint64_t i = 0; i < src.size(); ++i) {
        const Value g = ValueAt(dst, i), w = ValueAt(want, i);
        const bool ok = copy ? std::memcmp(&dst.bytes[i * TypeSize(d)], &want.bytes[i * TypeSize(d)], TypeSize(d)) == 0
                             : Same(g.re, w.re) && Same(g.im, w.im);
        ASSERT_TRUE(ok) << TypeIdent(s) << " -> " << TypeIdent(d) << " element " << i;
      }
    }
  }
}

TEST(Convert, EdgeValues) {
  const Kernel C = ComputeConvert;
  CheckCases({
      // Saturating, truncating float to integer; NaN goes to the lower limit.
      {C, 0, TypeReal32, {300.5}, 0, {}, TypeUint8, {255}},
      {C, 0, TypeReal32, {-0.7}, 0, {}, TypeUint8, {0}},
      {C, 0, TypeReal32, {NAN}, 0, {}, TypeUint8, {0}},
      {C, 0, TypeReal32, {NAN}, 0, {}, TypeInt8, {-128}},
      {C, 0, TypeReal32, {-128.9}, 0, {}, TypeInt8, {-128}},
      {C, 0, TypeReal32, {127.9}, 0, {}, TypeInt8, {127}},
      {C, 0, TypeReal32, {-2.7}, 0, {}, TypeInt16, {-2}},
      {C, 0, TypeReal32, {2147483648.0}, 0, {}, TypeInt32, {2147483647}},
      {C, 0, TypeReal32, {4294967296.0}, 0, {}, TypeUint32, {4294967295.0}},
      {C, 0, TypeReal64, {kTwo63}, 0, {}, TypeInt64, {kTwo63 - 1}},
      {C, 0, TypeReal64, {kTwo64}, 0, {}, TypeUint64, {kTwo64 - 1}},
      {C, 0, TypeReal64, {1e19}, 0, {}, TypeUint64, {10000000000000000000.0L}},
      {C, 0, TypeCmplx32, {-3.7, 10}, 0, {}, TypeInt16, {-3}},
      // Integer widths: wrap into wider unsigned, clamp otherwise.
      {C, 0, TypeInt8, {-1}, 0, {}, TypeUint16, {65535}},
      {C, 0, TypeInt8, {-1}, 0, {}, TypeUint32, {4294967295.0}},
      {C, 0, TypeInt8, {-1}, 0, {}, TypeUint64, {kTwo64 - 1}},
      {C, 0, TypeInt8, {-1}, 0, {}, TypeUint8, {0}},
      {C, 0, TypeInt16, {-5}, 0, {}, TypeUint16, {0}},
      {C, 0, TypeInt32, {-5}, 0, {}, TypeUint32, {0}},
      {C, 0, TypeInt32, {5}, 0, {}, TypeUint32, {5}},
      {C, 0, TypeInt64, {7}, 0, {}, TypeUint64, {7}},
      {C, 0, TypeUint8, {200}, 0, {}, TypeInt8, {127}},
      {C, 0, TypeUint64, {kTwo63}, 0, {}, TypeInt64, {kTwo63 - 1}},
      {C, 0, TypeInt64, {-1099511627776.0}, 0, {}, TypeInt32, {-2147483648.0}},
      // Integer to floating rounds once, to nearest even.
      {C, 0, TypeUint64, {kTwo64 - 1}, 0, {}, TypeReal32, {kTwo64}},
      {C, 0, TypeUint64, {kTwo64 - 1}, 0, {}, TypeReal64, {kTwo64}},
      {C, 0, TypeInt32, {16777217}, 0, {}, TypeReal32, {16777216}},
      {C, 0, TypeInt64, {9007199791611905.0L}, 0, {}, TypeReal32, {9007200328482816.0L}},
      {C, 0, TypeReal64, {1e40}, 0, {}, TypeReal32, {INFINITY}},
      {C, 0, TypeReal64, {1e-46}, 0, {}, TypeReal32, {0}},
      // Parts: imaginary values are their coefficient; the missing complex part is +0.
      {C, 0, TypeImag32, {0, 2.5}, 0, {}, TypeReal32, {2.5}},
      {C, 0, TypeImag32, {0, 2.5}, 0, {}, TypeCmplx32, {0, 2.5}},
      {C, 0, TypeReal32, {2.5}, 0, {}, TypeImag32, {0, 2.5}},
      {C, 0, TypeCmplx32, {1.5, 2.5}, 0, {}, TypeImag32, {0, 2.5}},
      {C, 0, TypeCmplx32, {1.5, 2.5}, 0, {}, TypeReal32, {1.5}},
      {C, 0, TypeInt16, {-3}, 0, {}, TypeCmplx64, {-3, 0}},
  });
}

TEST(Convert, UnknownTypesAndNop) {
  float src[2] = {1, 2}, dst[2] = {7, 7};
  EXPECT_TRUE(Refused(ComputeConvert(0, src, 0x501010, nullptr, 0, 2, dst, TypeReal32), 0x501010));
  EXPECT_TRUE(Refused(ComputeConvert(0, src, TypeReal32, nullptr, 0, 2, dst, 0x123), 0x123));
  EXPECT_EQ(dst[0], 7.0f);
  // In place with equal types, and the no-op kernel, change nothing.
  EXPECT_EQ(ComputeConvert(0, dst, TypeReal32, nullptr, 0, 2, dst, TypeReal32), 0u);
  EXPECT_EQ(ComputeNop(1, src, TypeReal32, src, TypeReal32, 2, dst, TypeReal64), 0u);
  EXPECT_EQ(dst[1], 7.0f);
}

}  // namespace
