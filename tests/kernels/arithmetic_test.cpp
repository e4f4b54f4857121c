// Arithmetic kernels: every destination, first- and second-operand type against the element rules,
// the listed edge values, exact remainders against the C library, and the refusals.
#include <random>

#include "kernel_check.h"

namespace {

enum Op { kAdd, kSub, kMul, kDiv, kMod, kMulConj };
const Kernel kBinary[] = {ComputeAdd, ComputeSub, ComputeMul, ComputeDiv, ComputeMod, ComputeMulConj};

char FormOf(ElementType t) { return IsCmplxType(t) ? 'c' : IsImagType(t) ? 'i' : 'r'; }

// The element rules, in binary32 and in the order written (the C library's fmodf works on bits, so
// its operands and result are flushed here). a is the destination element holding the
// first operand; x is the second operand's value (an imaginary one's coefficient), bi a complex one's
// imaginary part; single selects division by the reciprocal of one divisor.
Cmplx32 Expected(Op op, char dst, Cmplx32 a, char k, Cmplx32 b, bool single) {
  const float x = k == 'i' ? b.im : b.re, bi = b.im;
  if (dst != 'c') {
    const float v = a.re;
    switch (op) {
      case kAdd: return {v + x, 0};
      case kSub: return {v - x, 0};
      case kMod: return {Flushed(std::fmod(Flushed(v), Flushed(x))), 0};
      case kDiv: {
        const float q = single ? v * (1.0f / x) : v / x;
        return {dst == 'i' && k == 'i' ? -q : q, 0};
      }
      default: return {dst == 'r' && k == 'i' ? -(v * x) : v * x, 0};
    }
  }
  const auto by = [single](float num, float d) { return single ? num * (1.0f / d) : num / d; };
  switch (op) {
    case kAdd:
    case kSub: {  // subtracting b is adding -b, exactly
      const float y = op == kAdd ? x : -x, yi = op == kAdd ? bi : -bi;
      return k == 'r' ? Cmplx32{a.re + y, a.im} : k == 'i' ? Cmplx32{a.re, a.im + y} : Cmplx32{a.re + y, a.im + yi};
    }
    case kMul:
      if (k == 'c') return {x * a.re - bi * a.im, a.re * bi + a.im * x};
      return k == 'r' ? Cmplx32{a.re * x, a.im * x} : Cmplx32{-(a.im * x), a.re * x};
    case kMulConj:
      if (k == 'c') return {bi * a.im + x * a.re, a.im * x - a.re * bi};
      return k == 'r' ? Cmplx32{a.re * x, a.im * x} : Cmplx32{a.im * x, -(a.re * x)};
    default: {
      if (k == 'c') {
        const float d = x * x + bi * bi;
        return {by(a.re * x + a.im * bi, d), by(a.im * x - a.re * bi, d)};
      }
      const float d = x * x;
      return k == 'r' ? Cmplx32{by(a.re * x, d), by(a.im * x, d)} : Cmplx32{by(a.im * x, d), by(-(a.re * x), d)};
    }
  }
}

bool SamePair(Cmplx32 g, Cmplx32 w) { return Same(g.re, w.re) && Same(g.im, w.im); }

// In place when the first operand already has the destination's type; the second operand as an
// image and as six different single values; a complex second operand with a real or imaginary
// destination is refused after the first operand has been converted.
TEST(Arithmetic, BinaryKernelsMatchElementRules) {
  const uint64_t n = 61;
  for (int op = kAdd; op <= kMulConj; ++op)
    for (ElementType dt : {TypeReal32, TypeImag32, TypeCmplx32}) {
      if (op == kMod && dt != TypeReal32) continue;
      for (ElementType st : {dt, TypeUint16, TypeInt64, TypeReal64, TypeImag32, TypeCmplx64}) {
        const Buf src1 = Sample(st, n), first = Converted(src1, dt);
        for (ElementType t2 : kAllTypes) {
          const Buf all2 = Sample(t2, 2 * n);
          for (int pick = -1; pick < 6; ++pick) {
            const bool single = pick >= 0;
            Buf src2(t2, single ? 1 : n);
            std::memcpy(src2.data(), &all2.bytes[(single ? 7 * pick : n) * TypeSize(t2)], src2.bytes.size());
            Buf dst = st == dt ? src1 : Buf(dt, n);
            const uint32_t status =
                kBinary[op](!single, st == dt ? dst.data() : src1.data(), st, src2.data(), t2, n, dst.data(), dt);
            const std::string what = std::to_string(op) + " " + TypeIdent(dt) + " = " + TypeIdent(st) + " op " +
                                     TypeIdent(t2) + (single ? " single " + std::to_string(pick) : "");
            for (uint64_t i = 0; i < n; ++i) {
              const Cmplx32 a = At(first, i), b = Pair32(src2, single ? 0 : i);
              const Cmplx32 want =
                  IsCmplxType(t2) && dt != TypeCmplx32 ? a : Expected(Op(op), FormOf(dt), a, FormOf(t2), b, single);
              ASSERT_TRUE(SamePair(At(dst, i), want)) << what << " element " << i;
            }
            if (IsCmplxType(t2) && dt != TypeCmplx32) EXPECT_TRUE(Refused(status, t2)) << what;
            else EXPECT_EQ(status, 0u) << what;
          }
        }
      }
    }
}

// Negation, conjugate and reciprocal of every source type into each destination.
TEST(Arithmetic, UnaryKernelsMatchElementRules) {
  const Kernel kernels[] = {ComputeNeg, ComputeConj, ComputeRecip};
  for (int k = 0; k < 3; ++k)
    for (ElementType dt : {TypeReal32, TypeImag32, TypeCmplx32})
      for (ElementType st : kAllTypes) {
        const Buf src = Sample(st, 61);
        Buf dst(dt, src.size());
        const uint32_t status = kernels[k](0, src.data(), st, nullptr, 0, src.size(), dst.data(), dt);
        if (IsCmplxType(st) && dt != TypeCmplx32) {
          EXPECT_TRUE(Refused(status, st));
          EXPECT_EQ(dst.bytes, Buf(dt, src.size()).bytes);
          continue;
        }
        ASSERT_EQ(status, 0u);
        const char d = FormOf(dt), s = FormOf(st);
        for (uint64_t i = 0; i < src.size(); ++i) {
          const Cmplx32 p = Pair32(src, i);
          const float x = s == 'i' ? p.im : p.re, y = p.im, dd = y * y + x * x;
          Cmplx32 c;  // the complex result; real and imaginary destinations take one part of it
          if (k == 0) c = s == 'r' ? Cmplx32{-x, 0} : s == 'i' ? Cmplx32{0, -x} : Cmplx32{-x, -y};
          else if (k == 1) c = s == 'r' ? Cmplx32{x, 0} : s == 'i' ? Cmplx32{0, -x} : Cmplx32{x, -y};
          else c = s == 'r' ? Cmplx32{1 / x, 0} : s == 'i' ? Cmplx32{0, -1 / x} : Cmplx32{x / dd, -y / dd};
          const float part = s == 'i' ? c.im : d == 'i' ? 0.0f : c.re;
          const Cmplx32 want = d == 'c' ? c : Cmplx32{part, 0};
          ASSERT_TRUE(SamePair(At(dst, i), want)) << k << " " << TypeIdent(dt) << " <- " << TypeIdent(st) << " " << i;
        }
      }
}

TEST(Arithmetic, EdgeValues) {
  const ElementType R = TypeReal32, I = TypeImag32, C = TypeCmplx32;
  const Value z{1, 2}, w{-2.5, 4};
  CheckCases({
      {ComputeAdd, 1, R, {1.5}, TypeInt16, {3}, R, {4.5}},
      {ComputeAdd, 0, R, {-2}, R, {2.5}, R, {0.5}},
      {ComputeAdd, 0, C, z, C, w, C, {-1.5, 6}},
      {ComputeSub, 0, C, z, C, w, C, {3.5, -2}},
      {ComputeAdd, 1, C, z, I, {0, -2.5}, C, {1, -0.5}},
      {ComputeAdd, 1, C, z, R, {-2.5}, C, {-1.5, 2}},
      {ComputeSub, 1, I, {0, 3}, R, {5}, C, {-5, 3}},
      // The operand rounds to 16777216 first, then the exact sum rounds to even.
      {ComputeAdd, 1, R, {1}, TypeInt32, {16777217}, R, {16777216}},
      {ComputeAdd, 1, C, z, TypeImag64, {0, 16777217}, C, {1, 16777218}},
      {ComputeNeg, 0, TypeUint8, {0}, 0, {}, R, {-0.0}},
      {ComputeNeg, 0, TypeInt32, {-2147483648.0}, 0, {}, R, {2147483648.0}},
      {ComputeNeg, 0, I, {0, -2.5}, 0, {}, I, {0, 2.5}},
      {ComputeNeg, 0, C, {0, 0}, 0, {}, C, {-0.0, -0.0}},
      {ComputeNeg, 0, R, {NAN}, 0, {}, R, {NAN}},
      {ComputeMul, 1, C, z, C, w, C, {-10.5, -1}},
      {ComputeMul, 0, C, z, C, w, C, {-10.5, -1}},
      {ComputeMul, 1, C, z, I, {0, -2.5}, C, {5, -2.5}},
      {ComputeMul, 1, I, {0, 2}, I, {0, 3}, R, {-6}},
      {ComputeMul, 1, R, {2}, I, {0, 3}, I, {0, 6}},
      {ComputeDiv, 1, I, {0, 6}, I, {0, 3}, R, {2}},
      {ComputeDiv, 1, R, {6}, I, {0, 3}, I, {0, -2}},
      {ComputeDiv, 1, C, z, C, w, C, {0.24719101, -0.40449437}, 1e-6},
      {ComputeDiv, 0, C, z, C, w, C, {0.24719101, -0.40449437}, 1e-6},
      {ComputeDiv, 1, C, z, I, {0, -2.5}, C, {-0.8f, 0.4f}},
      {ComputeDiv, 0, C, z, I, {0, -2.5}, C, {-0.79999995f, 0.39999998f}},
      // One divisor is applied as its reciprocal: 5 * (1/3) is one bit above 5/3.
      {ComputeDiv, 1, R, {5}, TypeInt16, {3}, R, {1.6666666269302368}},
      {ComputeDiv, 0, R, {5}, R, {3}, R, {1.6666667461395264}},
      {ComputeDiv, 1, R, {1}, R, {0}, R, {INFINITY}},
      {ComputeDiv, 0, R, {1}, R, {-0.0}, R, {-INFINITY}},
      {ComputeDiv, 1, C, {5, 7}, R, {0}, C, {NAN, NAN}},
      {ComputeDiv, 0, C, {5, 7}, C, {0, 0}, C, {NAN, NAN}},
      {ComputeDiv, 1, C, {5, 7}, R, {1e20}, C, {0, 0}},  // the divisor's square overflows: no scaling
      {ComputeRecip, 0, R, {-0.0}, 0, {}, R, {-INFINITY}},
      {ComputeRecip, 0, I, {0, -2.5}, 0, {}, I, {0, 0.4f}},
      {ComputeRecip, 0, C, w, 0, {}, C, {-0.11235955, -0.17977528}, 1e-6},
      {ComputeRecip, 0, C, {0, 0}, 0, {}, C, {NAN, NAN}},
      {ComputeConj, 0, C, w, 0, {}, C, {-2.5, -4}},
      {ComputeConj, 0, C, {0, 0}, 0, {}, C, {0, -0.0}},
      {ComputeConj, 0, TypeInt16, {-3}, 0, {}, R, {-3}},
      {ComputeMod, 1, R, {7}, TypeInt16, {3}, R, {1}},
      {ComputeMod, 1, R, {-7}, TypeInt16, {3}, R, {-1}},
      {ComputeMod, 1, R, {5.5}, TypeInt16, {2}, R, {1.5}},
      {ComputeMod, 0, R, {7}, R, {-3}, R, {1}},
      {ComputeMod, 0, R, {5.5}, R, {-3}, R, {2.5}},
      {ComputeMod, 0, R, {1e10}, R, {3}, R, {1}},  // exact remainder of the binary32 value 1e10
      {ComputeMod, 1, R, {5}, R, {0}, R, {NAN}},
      {ComputeMod, 1, R, {5}, R, {INFINITY}, R, {5}},
      {ComputeMod, 1, R, {-0.0}, R, {3}, R, {-0.0}},
      {ComputeMod, 1, I, {0, 7}, I, {0, 3}, R, {1}},
      {ComputeMulConj, 1, C, z, C, w, C, {5.5, -9}},
      {ComputeMulConj, 0, C, z, C, w, C, {5.5, -9}},
      {ComputeMulConj, 1, C, z, I, {0, -2.5}, C, {-5, 2.5}},
      {ComputeMulConj, 1, C, z, R, {-2.5}, C, {-2.5, -5}},
      {ComputeMulConj, 1, R, {2}, R, {3}, R, {6}},
      {ComputeMulConj, 1, I, {0, 2}, I, {0, 3}, R, {-6}},
      {ComputeMulConj, 1, R, {2}, I, {0, 3}, I, {0, 6}},
  });
}

TEST(Arithmetic, Refusals) {
  const ElementType R = TypeReal32;
  CheckRefusals({
      {ComputeAdd, R, R, TypeReal64, TypeReal64},
      {ComputeSub, R, R, TypeInt16, TypeInt16},
      {ComputeMul, R, R, TypeCmplx64, TypeCmplx64},
      {ComputeDiv, R, R, TypeUint8, TypeUint8},
      {ComputeMod, TypeImag32, R, TypeImag32, TypeImag32},
      {ComputeMod, R, TypeCmplx32, TypeCmplx32, TypeCmplx32},
      {ComputeMulConj, R, R, TypeImag64, TypeImag64},
      {ComputeNeg, R, 0, TypeReal64, TypeReal64},
      {ComputeConj, TypeCmplx64, 0, TypeCmplx64, TypeCmplx64},
      {ComputeRecip, R, 0, TypeInt32, TypeInt32},
      {ComputeMul, 0x888, R, R, 0x888},
      {ComputeSub, R, 0x777, TypeCmplx32, 0x777, false},  // after the first operand's conversion
  });
}

// The remainder equals the C library's fmodf bit for bit over random bit patterns of every exponent
// and the special values, as an image and as a single divisor; subnormals read and stored as zeros.
TEST(Arithmetic, RemainderMatchesLibraryFmod) {
  std::mt19937 gen(20240611);
  std::vector<float> xs = {0.0f, -0.0f, INFINITY, -INFINITY, NAN, 1.0f, -1.0f, 3.0f, 1.2e-38f, 5e-39f,
                           3.4e38f, -3.4e38f, 1.5e-38f, 0.1f, 16777216.0f, 16777217.0f, FromBits(0x7fc01234)};
  while (xs.size() < 400) {
    uint32_t u = gen();
    if (xs.size() % 3 == 0) u = (u & 0x807fffffu) | ((120 + gen() % 16) << 23);  // close exponents
    xs.push_back(FromBits(u));
  }
  const uint64_t n = xs.size();
  std::vector<float> single(n), array(n);
  for (uint64_t j = 0; j < n; j += 7) {
    const std::vector<float> divisors(n, xs[j]);
    ASSERT_EQ(ComputeMod(0, xs.data(), TypeReal32, &xs[j], TypeReal32, n, single.data(), TypeReal32), 0u);
    ASSERT_EQ(ComputeMod(1, xs.data(), TypeReal32, divisors.data(), TypeReal32, n, array.data(), TypeReal32), 0u);
    for (uint64_t i = 0; i < n; ++i) {
      const uint32_t want = Bits(Flushed(std::fmod(Flushed(xs[i]), Flushed(xs[j]))));
      ASSERT_EQ(Bits(single[i]), want) << xs[i] << " % " << xs[j];
      ASSERT_EQ(Bits(array[i]), want) << xs[i] << " % " << xs[j];
    }
  }
}

}  // namespace
