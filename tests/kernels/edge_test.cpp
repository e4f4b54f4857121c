// Edge values bit for bit: each case is one value (or pair) repeated over a block, so that the vector
// loops see it too; rounding order, signed zeros, NaN, infinities and saturation as the element rules
// state them. Then the refusals, and block statistics of full-size blocks.
#include "kernel_check.h"

namespace {

const ElementType R = TypeReal32, I = TypeImag32, X = TypeCmplx32, U8 = TypeUint8;
const long double kPi = 3.14159274f, kHalfPi = 1.57079637f, kTwo63 = 0x1p63L, kTwo64 = 0x1p64L;

// One value per operand: a type keeps what its conversion keeps (the real part, or the imaginary
// part for imaginary types). arr 1: the second operand is an image, 0: a number.
struct Case { Kernel k; uint32_t arr; ElementType t1; C a; ElementType t2; C b; ElementType dt; C want; };

const Case kCases[] = {
    // Operands are narrowed to binary32 first, then the exact result rounds once.
    {ComputeAdd, 1, R, {1}, TypeInt32, {16777217}, R, {16777216}},
    {ComputeAdd, 1, X, {1, 2}, TypeImag64, {0, 16777217}, X, {1, 16777218}},
    {ComputeNeg, 0, U8, {0}, 0, {}, R, {-0.0}},
    {ComputeNeg, 0, TypeInt32, {-2147483648.0}, 0, {}, R, {2147483648.0}},
    {ComputeNeg, 0, X, {0, 0}, 0, {}, X, {-0.0, -0.0}},
    {ComputeNeg, 0, I, {0, 2}, 0, {}, X, {0, -2}},
    {ComputeNeg, 0, R, {NAN}, 0, {}, R, {NAN}},
    // A number divisor is applied as its reciprocal: 5 * (1/3) is one bit above 5/3.
    {ComputeDiv, 1, R, {5}, TypeInt16, {3}, R, {1.6666666269302368}},
    {ComputeDiv, 0, R, {5}, R, {3}, R, {1.6666667461395264}},
    {ComputeDiv, 1, X, {1, 2}, I, {0, -2.5}, X, {-0.8f, 0.4f}},
    {ComputeDiv, 0, X, {1, 2}, I, {0, -2.5}, X, {-0.79999995f, 0.39999998f}},
    {ComputeDiv, 1, R, {1}, R, {0}, R, {INFINITY}},
    {ComputeDiv, 0, R, {1}, R, {-0.0}, R, {-INFINITY}},
    {ComputeDiv, 1, X, {5, 7}, R, {0}, X, {NAN, NAN}},
    {ComputeDiv, 0, X, {5, 7}, X, {0, 0}, X, {NAN, NAN}},
    {ComputeDiv, 1, X, {5, 7}, R, {1e20}, X, {0, 0}},  // the divisor's square overflows: no scaling
    {ComputeRecip, 0, R, {-0.0}, 0, {}, R, {-INFINITY}},
    {ComputeRecip, 0, I, {0, -2.5}, 0, {}, I, {0, 0.4f}},
    {ComputeRecip, 0, X, {0, 0}, 0, {}, X, {NAN, NAN}},
    {ComputeConj, 0, X, {0, 0}, 0, {}, X, {0, -0.0}},
    {ComputeConj, 0, R, {3}, 0, {}, I, {0, 0}},
    {ComputeMulConj, 1, I, {0, 2}, I, {0, 3}, R, {-6}},  // a non-complex destination takes the plain product
    {ComputeMod, 1, R, {-7}, TypeInt16, {3}, R, {-1}},
    {ComputeMod, 0, R, {5.5}, R, {-3}, R, {2.5}},
    {ComputeMod, 0, R, {1e10}, R, {3}, R, {1}},  // exact remainder of the binary32 value 1e10
    {ComputeMod, 1, R, {5}, R, {0}, R, {NAN}},
    {ComputeMod, 1, R, {5}, R, {INFINITY}, R, {5}},
    {ComputeMod, 1, R, {-0.0}, R, {3}, R, {-0.0}},
    // Conversion: saturating, truncating, NaN to the lower limit; signed into wider unsigned wraps.
    {ComputeConvert, 0, R, {300.5}, 0, {}, U8, {255}},
    {ComputeConvert, 0, R, {-0.7}, 0, {}, U8, {0}},
    {ComputeConvert, 0, R, {NAN}, 0, {}, U8, {0}},
    {ComputeConvert, 0, R, {NAN}, 0, {}, TypeInt8, {-128}},
    {ComputeConvert, 0, R, {2147483648.0}, 0, {}, TypeInt32, {2147483647}},
    {ComputeConvert, 0, TypeReal64, {kTwo63}, 0, {}, TypeInt64, {kTwo63 - 1}},
    {ComputeConvert, 0, TypeReal64, {kTwo64}, 0, {}, TypeUint64, {kTwo64 - 1}},
    {ComputeConvert, 0, X, {-3.7, 10}, 0, {}, TypeInt16, {-3}},
    {ComputeConvert, 0, TypeInt8, {-1}, 0, {}, TypeUint16, {65535}},
    {ComputeConvert, 0, TypeInt8, {-1}, 0, {}, U8, {0}},
    {ComputeConvert, 0, TypeUint64, {kTwo63}, 0, {}, TypeInt64, {kTwo63 - 1}},
    {ComputeConvert, 0, TypeUint64, {kTwo64 - 1}, 0, {}, R, {kTwo64}},
    {ComputeConvert, 0, TypeInt64, {9007199791611905.0L}, 0, {}, R, {9007200328482816.0L}},  // rounded once
    {ComputeConvert, 0, TypeReal64, {1e-46}, 0, {}, R, {0}},
    {ComputeConvert, 0, I, {0, 2.5}, 0, {}, R, {2.5}},
    {ComputeConvert, 0, X, {1.5, 2.5}, 0, {}, I, {0, 2.5}},
    // Elementary functions and complex parts.
    {ComputeSqrt, 0, R, {-4}, 0, {}, R, {NAN}},
    {ComputeSqrt, 0, R, {-0.0}, 0, {}, R, {-0.0}},
    {ComputeLn, 0, R, {0}, 0, {}, R, {-INFINITY}},
    {ComputeLn, 0, TypeInt8, {-1}, 0, {}, R, {NAN}},
    {ComputeAcos, 0, R, {-1.0001}, 0, {}, R, {NAN}},
    {ComputeExp, 0, R, {89}, 0, {}, R, {INFINITY}},
    {ComputeSqrt, 0, TypeUint64, {kTwo64 - 1}, 0, {}, R, {4294967296.0}},
    {ComputeAtan, 0, TypeReal64, {1e300}, 0, {}, R, {kHalfPi}},
    {ComputePhase, 0, TypeInt16, {-5}, 0, {}, R, {kPi}},
    {ComputePhase, 0, R, {-0.0}, 0, {}, R, {0}},
    {ComputePhase, 0, R, {NAN}, 0, {}, R, {kPi}},
    {ComputePhase, 0, I, {0, 0}, 0, {}, R, {kHalfPi}},
    {ComputePhase, 0, X, {-1, -0.0}, 0, {}, R, {-kPi}},
    {ComputePhase, 0, X, {0, 0}, 0, {}, R, {0}},
    {ComputeAbs, 0, TypeInt8, {-128}, 0, {}, R, {128}},
    {ComputeAbs, 0, R, {-0.0}, 0, {}, R, {0}},
    {ComputeAbs, 0, TypeCmplx64, {1e300, 1}, 0, {}, R, {INFINITY}},
    {ComputeAbs2, 0, R, {2e19}, 0, {}, R, {INFINITY}},
    {ComputeAbs2, 0, TypeCmplx64, {1e20, 0}, 0, {}, R, {INFINITY}},
    {ComputeIm, 0, TypeInt8, {-1}, 0, {}, R, {0}},
    {ComputePhfac, 0, X, {0, 0}, 0, {}, X, {0, 0}},
    {ComputePhfac, 0, X, {NAN, 1}, 0, {}, X, {0, 0}},
    {ComputePhfac, 0, R, {-0.0}, 0, {}, X, {0, 0}},
    {ComputePhfac, 0, R, {NAN}, 0, {}, X, {-1, 0}},
    {ComputeMufac, 0, X, {0, 0}, 0, {}, X, {0, 0}},
    {ComputeMufac, 0, R, {-0.0}, 0, {}, X, {-0.0, 0}},
    {ComputeMufac, 0, I, {0, -4}, 0, {}, X, {0, -2}},
    // Comparisons in binary32; an unordered pair counts as equal.
    {ComputeEq, 1, TypeInt32, {16777216}, TypeInt32, {16777217}, U8, {1}},
    {ComputeNe, 1, TypeInt32, {16777216}, TypeInt32, {16777217}, U8, {0}},
    {ComputeGt, 1, TypeUint64, {kTwo64 - 1}, TypeInt64, {-1}, U8, {1}},
    {ComputeEq, 1, TypeReal64, {1e300}, TypeReal64, {1e301}, U8, {1}},
    {ComputeEq, 1, TypeReal64, {0.1}, R, {0.1f}, U8, {1}},
    {ComputeEq, 0, I, {0, 2}, R, {2}, U8, {1}},
    {ComputeEq, 0, R, {NAN}, I, {0, 1}, U8, {1}},
    {ComputeLe, 1, R, {NAN}, R, {1}, U8, {1}},
    {ComputeGe, 0, R, {1}, R, {NAN}, U8, {0}},
    {ComputeNe, 1, TypeReal64, {NAN}, R, {NAN}, U8, {0}},
    // Minimum and maximum: with an image the first value stays on NaN or equality, with a number the
    // number is stored.
    {ComputeMax, 0, R, {NAN}, R, {2}, R, {2}},
    {ComputeMin, 0, R, {NAN}, R, {2}, R, {2}},
    {ComputeMax, 0, R, {1}, R, {NAN}, R, {NAN}},
    {ComputeMin, 1, R, {NAN}, R, {2}, R, {NAN}},
    {ComputeMax, 1, R, {3}, R, {NAN}, R, {3}},
    {ComputeMin, 1, R, {3}, R, {NAN}, R, {3}},
    {ComputeMax, 1, R, {-0.0}, R, {0}, R, {-0.0}},
    {ComputeMin, 1, R, {0}, R, {-0.0}, R, {0}},
    {ComputeMax, 0, R, {-0.0}, R, {0}, R, {0}},
    {ComputeMin, 0, R, {0}, R, {-0.0}, R, {-0.0}},
    // Block statistics of one element, and blocks left as they are (zero, NaN).
    {ComputeZeromean, 0, R, {-7.25}, 0, {}, R, {0}},
    {ComputeRmsNorm, 0, R, {-5.5}, 0, {}, R, {-1}},
    {ComputeRmsNorm, 0, R, {1e-3}, 0, {}, R, {1}},
    {ComputeRmsNorm, 0, R, {-0.0}, 0, {}, R, {-0.0}},
    {ComputeRmsNorm, 0, R, {NAN}, 0, {}, R, {NAN}},
    {ComputeRmsNorm, 0, X, {0, -0.0}, 0, {}, X, {0, -0.0}},
    // Noise near the flushing limit, where the order of the operations decides: the scaled amplitude
    // (or the scaled first operand) flushes to zero before the draw comes in.
    {ComputeAddUniform, 1, R, {2e-38}, R, {2e-36}, R, {2e-38f}},
    {ComputeAddUniform, 0, R, {2e-38}, R, {2e-36}, R, {2e-38f}},
    {ComputeMulUniform, 1, R, {1e-30}, R, {1}, R, {0}},
    {ComputeMulUniform, 0, R, {1e-30}, R, {1}, R, {0}},
    {ComputeAddNormal, 1, R, {3}, R, {0}, R, {3}},
};

TEST(Kernels, EdgeValuesBitForBit) {
  for (const Case &c : kCases) {
    const std::string what = std::to_string(&c - kCases);
    const uint64_t n = c.k == ComputeZeromean || c.k == ComputeRmsNorm ? 1 : 37;
    Buf a(c.t1, n), b(c.t2 ? c.t2 : U8, c.arr ? n : 1), d(c.dt, n);
    for (Buf *buf : {&a, &b})
      Each(buf->type, [&](auto tag) {
        for (uint64_t i = 0; i < buf->n; ++i) buf->set(i, Ref<decltype(tag)>(buf == &a ? c.a : c.b));
      });
    ASSERT_EQ(c.k(c.arr, a.data(), c.t1, c.t2 ? b.data() : nullptr, c.t2, n, d.data(), c.dt), 0u) << "case " << what;
    for (uint64_t i = 0; i < n; ++i) {
      const C got = Value(d, i);
      ASSERT_TRUE(Same(got.real(), c.want.real()) && Same(got.imag(), c.want.imag()))
          << "case " << what << " element " << i << ": got (" << (double)got.real() << ", " << (double)got.imag() << ")";
    }
    EXPECT_TRUE(d.Guarded()) << "case " << what;
  }
}

// A refused call pushes one error naming the type and, where the refusal comes before the first
// operand's conversion, leaves the destination as it was.
struct Refusal {
  std::vector<Kernel> kernels;
  ElementType t1, t2, dt, named;
  bool untouched = true;
};

TEST(Kernels, RefusalsNameTheRightType) {
  const std::vector<Kernel> arith = {ComputeAdd, ComputeSub, ComputeMul, ComputeDiv, ComputeMulConj},
                            unary = {ComputeNeg, ComputeConj, ComputeRecip},
                            funcs = {ComputeSqrt, ComputeExp, ComputeLn, ComputeCos, ComputeSin, ComputeTan, ComputeAsin, ComputeAcos, ComputeAtan},
                            reals = {ComputeRe, ComputeIm, ComputePhase, ComputeAbs, ComputeAbs2}, cmplxs = {ComputePhfac, ComputeMufac},
                            noise = {ComputeAddUniform, ComputeMulUniform, ComputeAddNormal, ComputeMulNormal},
                            stats = {ComputeZeromean, ComputeRmsNorm}, logic = {ComputeAnd, ComputeOr, ComputeXor},
                            compare = {ComputeLt, ComputeLe, ComputeEq, ComputeGe, ComputeGt, ComputeNe}, minmax = {ComputeMin, ComputeMax};
  const ElementType bad = 0x501010;
  const Refusal cases[] = {
      {arith, R, R, TypeReal64, TypeReal64},        {arith, R, R, TypeInt16, TypeInt16},
      {arith, bad, R, R, bad},                      {arith, R, bad, X, bad, false},  // after the first operand's conversion
      {arith, R, X, R, X, false},                   {arith, R, TypeCmplx64, I, TypeCmplx64, false},
      {{ComputeMod}, I, I, I, I},                   {{ComputeMod}, R, X, X, X},
      {unary, R, 0, TypeReal64, TypeReal64},        {unary, X, 0, R, X},     {unary, TypeCmplx64, 0, I, TypeCmplx64},
      {funcs, bad, 0, R, bad},                      {funcs, X, 0, TypeReal64, TypeReal64},  // the destination first
      {funcs, X, 0, I, I},                          {funcs, I, 0, R, I},     {funcs, TypeCmplx64, 0, R, TypeCmplx64},
      {reals, R, 0, X, X},                          {reals, R, 0, TypeReal64, TypeReal64},  {reals, bad, 0, R, bad},
      {cmplxs, R, 0, R, R},                         {cmplxs, R, 0, TypeCmplx64, TypeCmplx64}, {cmplxs, bad, 0, X, bad},
      {{ComputeAddImag}, I, R, X, I, false},        {{ComputeAddImag}, TypeInt8, TypeCmplx64, X, TypeCmplx64, false},
      {{ComputeAddImag}, R, R, R, R},
      {noise, R, R, I, I},                          {noise, R, R, TypeReal64, TypeReal64},
      {noise, R, X, R, X, false},                   {noise, R, bad, R, bad, false},  {noise, bad, R, R, bad},
      {stats, bad, 0, R, bad},                      {stats, TypeCmplx64, 0, TypeCmplx64, TypeCmplx64},
      {stats, TypeCmplx64, 0, TypeReal64, TypeReal64}, {stats, TypeCmplx64, 0, TypeInt32, TypeInt32},
      {{ComputeNot}, TypeInt16, 0, TypeInt32, TypeInt32},  // the destination first
      {{ComputeNot}, R, 0, R, R},                   {{ComputeNot}, I, 0, I, I},  {{ComputeNot}, TypeCmplx64, 0, TypeCmplx64, TypeCmplx64},
      {logic, TypeInt16, U8, TypeInt16, U8},        // the second operand's type first
      {logic, TypeInt16, TypeInt32, R, TypeInt32},  {logic, TypeInt16, TypeInt16, TypeUint16, TypeUint16},  // then the destination
      {logic, R, R, R, R},                          {logic, TypeImag64, TypeImag64, TypeImag64, TypeImag64},
      {logic, X, X, X, X},                          {logic, 0x7777, 0x7777, 0x7777, 0x7777},
      {compare, R, R, R, R},                        {compare, X, TypeCmplx64, TypeInt8, TypeInt8},  // the destination first
      {compare, X, R, U8, X},                       {compare, TypeCmplx64, X, U8, TypeCmplx64},  // then the first operand
      {compare, TypeInt16, TypeCmplx64, U8, TypeCmplx64}, {compare, 0x5555, R, U8, 0x5555}, {compare, R, 0x6666, U8, 0x6666},
      {minmax, TypeInt16, TypeInt16, TypeReal64, TypeReal64}, {minmax, TypeInt16, 0x123, R, 0x123, false},
      {minmax, 0x301010, TypeInt16, R, 0x301010},   {minmax, R, X, R, X, false},
      {{ComputeConvert}, bad, 0, R, bad},           {{ComputeConvert}, R, 0, 0x123, 0x123},
  };
  const std::vector<unsigned char> zeros(64, 0);
  for (const Refusal &c : cases)
    for (Kernel k : c.kernels)
      for (uint32_t arr : {0u, 1u}) {
        std::vector<unsigned char> dst(64, 0x5a);
        const uint32_t status = k(arr, zeros.data(), c.t1, zeros.data(), c.t2, 2, dst.data(), c.dt);
        EXPECT_TRUE(Refused(status, c.named)) << "case " << &c - cases << " kernel " << &k - c.kernels.data();
        EXPECT_TRUE(!c.untouched || dst == std::vector<unsigned char>(64, 0x5a)) << "case " << &c - cases;
      }
  // "+i" with both operands refused pushes both errors and returns the second one's status.
  const float x[4] = {};
  Cmplx32 out[2];
  EXPECT_EQ(ComputeAddImag(0, x, TypeCmplx64, x, I, 2, out, X), E_MSG);
  ASSERT_EQ(ExceptionCount(), 2u);
  EXPECT_EQ(std::string(ExceptionText(0)) + ExceptionText(1), "invalid data type for operation (cmplx64)invalid data type for operation (imag32)");
  ExceptionClear();
}

// Full blocks of 2^24 values: statistics summed in binary32 would drift far off (0.1 is no short
// binary fraction), here a block of equal values has mean exactly that value and RMS its magnitude.
TEST(Kernels, FullBlocksOfEqualValues) {
  const uint64_t n = uint64_t{1} << 24;
  std::vector<float> v(2 * n);
  for (uint64_t i = 0; i < v.size(); ++i) v[i] = i % 2 ? -0.7f : 0.1f;
  for (auto [k, dt, want] : {std::tuple{Kernel{ComputeZeromean}, X, 0.0f}, {ComputeZeromean, R, 0.0f}, {ComputeRmsNorm, R, 1.0f}}) {
    std::vector<float> d = v;
    for (uint64_t i = 0; dt == R && i < n; ++i) d[i] = 0.1f;
    ASSERT_EQ(k(0, d.data(), dt, nullptr, 0, n, d.data(), dt), 0u);
    EXPECT_EQ(std::count(d.begin(), d.begin() + (dt == X ? 2 * n : n), want), static_cast<long>(dt == X ? 2 * n : n));
  }
}

}  // namespace
