// Complex parts and magnitudes: the sign, zero and NaN rules of each source kind, complex values
// against the C library, narrowing of 64-bit sources, in-place use, "+i" and the refusals.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "function_samples.h"

using namespace samples;

namespace {

constexpr uint32_t kPiBits = 0x40490FDB, kHalfPiBits = 0x3FC90FDB, kMinusHalfPiBits = 0xBFC90FDB;

// Library references through pointers, so that each one is a real call.
float LibHypot(float a, float b) {
  static float (*volatile f)(float, float) = hypotf;
  return f(a, b);
}
float LibAtan2(float y, float x) {
  static float (*volatile f)(float, float) = atan2f;
  return f(y, x);
}
float LibSqrt(float x) {
  static float (*volatile f)(float) = sqrtf;
  return f(x);
}

template <class Out, class T> std::vector<Out> Apply(Kernel kernel, const std::vector<T> &src, ElementType type) {
  const ElementType dst_type = std::is_same_v<Out, float> ? TypeReal32 : TypeCmplx32;
  std::vector<Out> dst(src.size());
  EXPECT_EQ(kernel(0, src.data(), type, nullptr, 0, src.size(), dst.data(), dst_type), 0u);
  return dst;
}

template <class T> float Real(Kernel kernel, T x, ElementType type) {
  return Apply<float>(kernel, std::vector<T>{x}, type)[0];
}
template <class T> Cmplx32 Cplx(Kernel kernel, T x, ElementType type) {
  return Apply<Cmplx32>(kernel, std::vector<T>{x}, type)[0];
}

::testing::AssertionResult SamePair(Cmplx32 got, float re, float im) {
  if (Same(got.re, re) && Same(got.im, im)) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "got (" << got.re << ", " << got.im << ") bits " << std::hex
                                       << Bits(got.re) << " " << Bits(got.im) << ", want (" << re << ", "
                                       << im << ")";
}

const Kernel kRealKernels[] = {ComputeRe, ComputeIm, ComputePhase, ComputeAbs, ComputeAbs2};
const Kernel kCmplxKernels[] = {ComputePhfac, ComputeMufac};

TEST(ComplexParts, PhaseSignRules) {
  EXPECT_EQ(Bits(Real(ComputePhase, int16_t{-5}, TypeInt16)), kPiBits);
  EXPECT_EQ(Bits(Real(ComputePhase, int16_t{0}, TypeInt16)), 0u);
  EXPECT_EQ(Bits(Real(ComputePhase, -0.0f, TypeReal32)), 0u);
  EXPECT_EQ(Bits(Real(ComputePhase, NAN, TypeReal32)), kPiBits);
  EXPECT_EQ(Bits(Real(ComputePhase, -INFINITY, TypeReal32)), kPiBits);
  EXPECT_EQ(Bits(Real(ComputePhase, uint8_t{200}, TypeUint8)), 0u);
  EXPECT_EQ(Bits(Real(ComputePhase, UINT64_MAX, TypeUint64)), 0u);
  EXPECT_EQ(Bits(Real(ComputePhase, Imag32{0.0f}, TypeImag32)), kHalfPiBits);
  EXPECT_EQ(Bits(Real(ComputePhase, Imag32{-0.0f}, TypeImag32)), kHalfPiBits);
  EXPECT_EQ(Bits(Real(ComputePhase, Imag32{-2.0f}, TypeImag32)), kMinusHalfPiBits);
  EXPECT_EQ(Bits(Real(ComputePhase, Imag64{NAN}, TypeImag64)), kMinusHalfPiBits);
  EXPECT_EQ(Bits(Real(ComputePhase, Cmplx32{-1.0f, 0.0f}, TypeCmplx32)), kPiBits);
  EXPECT_EQ(Bits(Real(ComputePhase, Cmplx32{-1.0f, -0.0f}, TypeCmplx32)), kPiBits | 0x80000000u);
  EXPECT_EQ(Bits(Real(ComputePhase, Cmplx32{0.0f, 0.0f}, TypeCmplx32)), 0u);
}

TEST(ComplexParts, MagnitudesAndSquares) {
  EXPECT_EQ(Real(ComputeAbs, int8_t{-128}, TypeInt8), 128.0f);
  EXPECT_EQ(Real(ComputeAbs, INT64_MIN, TypeInt64), 9223372036854775808.0f);
  EXPECT_EQ(Bits(Real(ComputeAbs, -0.0f, TypeReal32)), 0u);
  EXPECT_EQ(Bits(Real(ComputeAbs, FromBits(0xffc01234), TypeReal32)), 0x7fc01234u);  // NaN loses its sign
  EXPECT_EQ(Real(ComputeAbs, Imag32{-2.5f}, TypeImag32), 2.5f);
  EXPECT_EQ(Real(ComputeAbs, Cmplx32{3.0f, 4.0f}, TypeCmplx32), 5.0f);
  EXPECT_EQ(Real(ComputeAbs, Cmplx32{3e30f, 4e30f}, TypeCmplx32), 5e30f);  // no intermediate overflow
  EXPECT_EQ(Real(ComputeAbs2, Cmplx32{3.0f, 4.0f}, TypeCmplx32), 25.0f);
  EXPECT_EQ(Real(ComputeAbs2, 2e19f, TypeReal32), INFINITY);
  EXPECT_EQ(Real(ComputeAbs2, int16_t{-300}, TypeInt16), 90000.0f);
  EXPECT_EQ(Real(ComputeAbs2, Imag32{-3.0f}, TypeImag32), 9.0f);
  // 64-bit parts beyond binary32 become infinities before anything is computed.
  EXPECT_EQ(Real(ComputeAbs, Cmplx64{1e300, 1.0}, TypeCmplx64), INFINITY);
  EXPECT_EQ(Real(ComputeAbs2, Cmplx64{1e20, 0.0}, TypeCmplx64), INFINITY);
  EXPECT_EQ(Bits(Real(ComputePhase, Cmplx64{1e300, 1e300}, TypeCmplx64)), Bits(LibAtan2(INFINITY, INFINITY)));
  EXPECT_EQ(Bits(Real(ComputePhase, Cmplx64{-1.0, -1e-300}, TypeCmplx64)), kPiBits | 0x80000000u);
}

TEST(ComplexParts, RealAndImaginaryParts) {
  EXPECT_EQ(Bits(Real(ComputeRe, Imag32{7.0f}, TypeImag32)), 0u);
  EXPECT_EQ(Real(ComputeIm, Imag32{7.0f}, TypeImag32), 7.0f);
  EXPECT_EQ(Real(ComputeIm, Imag64{-1e300}, TypeImag64), -INFINITY);
  EXPECT_EQ(Bits(Real(ComputeIm, -3.0f, TypeReal32)), 0u);
  EXPECT_EQ(Bits(Real(ComputeIm, int8_t{-1}, TypeInt8)), 0u);
  EXPECT_EQ(Bits(Real(ComputeRe, -0.0f, TypeReal32)), 0x80000000u);
  EXPECT_EQ(Real(ComputeRe, int32_t{16777217}, TypeInt32), 16777216.0f);
  EXPECT_EQ(Real(ComputeRe, UINT64_MAX, TypeUint64), 18446744073709551616.0f);
  EXPECT_EQ(Real(ComputeRe, 0.1, TypeReal64), 0.1f);
  EXPECT_EQ(Real(ComputeRe, Cmplx32{1.5f, -2.5f}, TypeCmplx32), 1.5f);
  EXPECT_EQ(Real(ComputeIm, Cmplx32{1.5f, -2.5f}, TypeCmplx32), -2.5f);
  EXPECT_EQ(Real(ComputeIm, Cmplx64{0.0, 0.1}, TypeCmplx64), 0.1f);
}

TEST(ComplexParts, PhaseFactor) {
  EXPECT_TRUE(SamePair(Cplx(ComputePhfac, Cmplx32{3, 4}, TypeCmplx32), 3.0f / 5.0f, 4.0f / 5.0f));
  EXPECT_TRUE(SamePair(Cplx(ComputePhfac, Cmplx32{0, 0}, TypeCmplx32), 0, 0));
  EXPECT_TRUE(SamePair(Cplx(ComputePhfac, Cmplx32{-0.0f, -0.0f}, TypeCmplx32), 0, 0));
  EXPECT_TRUE(SamePair(Cplx(ComputePhfac, Cmplx32{NAN, 1}, TypeCmplx32), 0, 0));
  EXPECT_TRUE(SamePair(Cplx(ComputePhfac, Cmplx32{-2, NAN}, TypeCmplx32), 0, 0));
  EXPECT_TRUE(SamePair(Cplx(ComputePhfac, Cmplx64{0, -1e300}, TypeCmplx64), 0, NAN));  // -inf / inf
  EXPECT_TRUE(SamePair(Cplx(ComputePhfac, -7.0f, TypeReal32), -1, 0));
  EXPECT_TRUE(SamePair(Cplx(ComputePhfac, -0.0f, TypeReal32), 0, 0));
  EXPECT_TRUE(SamePair(Cplx(ComputePhfac, NAN, TypeReal32), -1, 0));
  EXPECT_TRUE(SamePair(Cplx(ComputePhfac, int8_t{-128}, TypeInt8), -1, 0));
  EXPECT_TRUE(SamePair(Cplx(ComputePhfac, uint16_t{9}, TypeUint16), 1, 0));
  EXPECT_TRUE(SamePair(Cplx(ComputePhfac, uint16_t{0}, TypeUint16), 0, 0));
  EXPECT_TRUE(SamePair(Cplx(ComputePhfac, Imag32{-3}, TypeImag32), 0, -1));
  EXPECT_TRUE(SamePair(Cplx(ComputePhfac, Imag64{-0.0}, TypeImag64), 0, 0));
}

TEST(ComplexParts, MagnitudeRootFactor) {
  const float r5 = LibSqrt(5.0f);
  EXPECT_TRUE(SamePair(Cplx(ComputeMufac, Cmplx32{3, 4}, TypeCmplx32), 3.0f / r5, 4.0f / r5));
  EXPECT_TRUE(SamePair(Cplx(ComputeMufac, Cmplx32{0, 0}, TypeCmplx32), 0, 0));
  EXPECT_TRUE(SamePair(Cplx(ComputeMufac, Cmplx32{1, NAN}, TypeCmplx32), 0, 0));
  EXPECT_TRUE(SamePair(Cplx(ComputeMufac, -9.0f, TypeReal32), -3, 0));
  EXPECT_TRUE(SamePair(Cplx(ComputeMufac, -0.0f, TypeReal32), -0.0f, 0));
  EXPECT_TRUE(SamePair(Cplx(ComputeMufac, NAN, TypeReal32), NAN, 0));
  EXPECT_TRUE(SamePair(Cplx(ComputeMufac, int16_t{-16}, TypeInt16), -4, 0));
  EXPECT_TRUE(SamePair(Cplx(ComputeMufac, uint8_t{9}, TypeUint8), 3, 0));
  EXPECT_TRUE(SamePair(Cplx(ComputeMufac, Imag32{16}, TypeImag32), 0, 4));
  EXPECT_TRUE(SamePair(Cplx(ComputeMufac, Imag64{-4}, TypeImag64), 0, -2));
}

// Complex sources of both widths against atan2f and hypotf, every pair of edge parts.
TEST(ComplexParts, ComplexSourcesMatchLibrary) {
  ForEachType([](auto tag, ElementType type) {
    using T = decltype(tag);
    if constexpr (kIsCmplx<T>) {
      const std::vector<T> src = Block<T>();
      const std::vector<float> re = Apply<float>(ComputeRe, src, type), im = Apply<float>(ComputeIm, src, type),
                               ph = Apply<float>(ComputePhase, src, type),
                               ab = Apply<float>(ComputeAbs, src, type), a2 = Apply<float>(ComputeAbs2, src, type);
      const std::vector<Cmplx32> pf = Apply<Cmplx32>(ComputePhfac, src, type),
                                 mf = Apply<Cmplx32>(ComputeMufac, src, type);
      for (size_t k = 0; k < src.size(); ++k) {
        const float a = static_cast<float>(src[k].re), b = static_cast<float>(src[k].im);
        const float m = LibHypot(a, b), s = LibSqrt(m);
        volatile float aa = a * a, bb = b * b;
        EXPECT_TRUE(SameFloat(re[k], a)) << k;
        EXPECT_TRUE(SameFloat(im[k], b)) << k;
        EXPECT_TRUE(SameFloat(ph[k], LibAtan2(b, a))) << a << " " << b;
        EXPECT_TRUE(SameFloat(ab[k], m)) << a << " " << b;
        EXPECT_TRUE(SameFloat(a2[k], aa + bb)) << a << " " << b;
        if (m != 0 && !std::isnan(m)) EXPECT_TRUE(SamePair(pf[k], a / m, b / m)) << a << " " << b;
        else EXPECT_TRUE(SamePair(pf[k], 0, 0)) << a << " " << b;
        if (s != 0 && !std::isnan(s)) EXPECT_TRUE(SamePair(mf[k], a / s, b / s)) << a << " " << b;
        else EXPECT_TRUE(SamePair(mf[k], 0, 0)) << a << " " << b;
      }
    }
  });
}

// Every source type gives what its values narrowed to binary32 give: integer and real types as real32,
// imag64 as imag32, cmplx64 as cmplx32.
TEST(ComplexParts, SourcesNarrowedBeforeComputing) {
  ForEachType([](auto tag, ElementType type) {
    using T = decltype(tag);
    const std::vector<T> src = Block<T>();
    auto check = [&](auto narrowed, ElementType narrow_type) {
      for (Kernel kernel : kRealKernels) {
        const std::vector<float> got = Apply<float>(kernel, src, type), want = Apply<float>(kernel, narrowed, narrow_type);
        for (size_t k = 0; k < src.size(); ++k) EXPECT_TRUE(SameFloat(got[k], want[k])) << TypeIdent(type) << " " << k;
      }
      for (Kernel kernel : kCmplxKernels) {
        const std::vector<Cmplx32> got = Apply<Cmplx32>(kernel, src, type),
                                   want = Apply<Cmplx32>(kernel, narrowed, narrow_type);
        for (size_t k = 0; k < src.size(); ++k)
          EXPECT_TRUE(SamePair(got[k], want[k].re, want[k].im)) << TypeIdent(type) << " " << k;
      }
    };
    if constexpr (kIsRealOrInt<T>) {
      // Unsigned values stay non-negative and have the unsigned rules; signed and real go through real32.
      if constexpr (std::is_signed_v<T>) {
        std::vector<float> narrowed;
        for (T x : src) narrowed.push_back(static_cast<float>(x));
        check(narrowed, TypeReal32);
      } else {
        std::vector<uint64_t> wide(src.begin(), src.end());
        check(wide, TypeUint64);
      }
    } else if constexpr (std::is_same_v<T, Imag64>) {
      std::vector<Imag32> narrowed;
      for (T x : src) narrowed.push_back(Imag32{static_cast<float>(x.v)});
      check(narrowed, TypeImag32);
    } else if constexpr (std::is_same_v<T, Cmplx64>) {
      std::vector<Cmplx32> narrowed;
      for (T x : src) narrowed.push_back(Cmplx32{static_cast<float>(x.re), static_cast<float>(x.im)});
      check(narrowed, TypeCmplx32);
    }
  });
}

TEST(ComplexParts, InPlaceMatchesNewBuffer) {
  const std::vector<float> reals = Block<float>();
  for (Kernel kernel : {ComputePhase, ComputeAbs, ComputeAbs2, ComputeRe, ComputeIm}) {
    const std::vector<float> want = Apply<float>(kernel, reals, TypeReal32);
    std::vector<float> buf = reals;
    ASSERT_EQ(kernel(0, buf.data(), TypeReal32, nullptr, 0, buf.size(), buf.data(), TypeReal32), 0u);
    for (size_t k = 0; k < buf.size(); ++k) EXPECT_TRUE(SameFloat(buf[k], want[k])) << k;
  }
  // Both parts are read before either is written.
  const std::vector<Cmplx32> cmplx = Block<Cmplx32>();
  for (Kernel kernel : kCmplxKernels) {
    const std::vector<Cmplx32> want = Apply<Cmplx32>(kernel, cmplx, TypeCmplx32);
    std::vector<Cmplx32> buf = cmplx;
    ASSERT_EQ(kernel(0, buf.data(), TypeCmplx32, nullptr, 0, buf.size(), buf.data(), TypeCmplx32), 0u);
    for (size_t k = 0; k < buf.size(); ++k) EXPECT_TRUE(SamePair(buf[k], want[k].re, want[k].im)) << k;
  }
}

TEST(ComplexParts, UnaryRefusals) {
  const Cmplx32 fill{FromBits(0x7f8dead0), FromBits(0x7f8dead1)};
  std::vector<unsigned char> src(64, 0);
  for (Kernel kernel : kRealKernels) {
    std::vector<Cmplx32> dst(2, fill);
    EXPECT_TRUE(RefusedNaming(kernel(0, src.data(), TypeReal32, nullptr, 0, 2, dst.data(), TypeCmplx32), TypeCmplx32));
    EXPECT_TRUE(RefusedNaming(kernel(0, src.data(), TypeReal32, nullptr, 0, 2, dst.data(), TypeReal64), TypeReal64));
    EXPECT_TRUE(RefusedNaming(kernel(0, src.data(), 0x501010, nullptr, 0, 2, dst.data(), TypeReal32), 0x501010));
    for (const Cmplx32 &c : dst) EXPECT_TRUE(SamePair(c, fill.re, fill.im));
  }
  for (Kernel kernel : kCmplxKernels) {
    std::vector<Cmplx32> dst(2, fill);
    EXPECT_TRUE(RefusedNaming(kernel(0, src.data(), TypeCmplx32, nullptr, 0, 2, dst.data(), TypeReal32), TypeReal32));
    EXPECT_TRUE(RefusedNaming(kernel(0, src.data(), TypeCmplx32, nullptr, 0, 2, dst.data(), TypeCmplx64), TypeCmplx64));
    EXPECT_TRUE(RefusedNaming(kernel(0, src.data(), 7, nullptr, 0, 2, dst.data(), TypeCmplx32), 7));
    for (const Cmplx32 &c : dst) EXPECT_TRUE(SamePair(c, fill.re, fill.im));
  }
}

TEST(ComplexParts, AddImagBuildsFromTwoOperands) {
  const std::vector<int16_t> re16 = {3, -7, 0};
  const std::vector<float> im32 = {4.0f, -0.0f, NAN};
  std::vector<Cmplx32> dst(3);
  ASSERT_EQ(ComputeAddImag(1, re16.data(), TypeInt16, im32.data(), TypeReal32, 3, dst.data(), TypeCmplx32), 0u);
  EXPECT_TRUE(SamePair(dst[0], 3, 4));
  EXPECT_TRUE(SamePair(dst[1], -7, -0.0f));
  EXPECT_TRUE(SamePair(dst[2], 0, NAN));

  // A single number: every imaginary part is that number, every real part its own element.
  const std::vector<double> re64 = {1.5, 1e300, -2.25, 0.1, 5, 6, 7, 8, 9};
  const float two = 2.0f;
  std::vector<Cmplx32> out(re64.size());
  ASSERT_EQ(ComputeAddImag(0, re64.data(), TypeReal64, &two, TypeReal32, re64.size(), out.data(), TypeCmplx32), 0u);
  for (size_t k = 0; k < re64.size(); ++k) EXPECT_TRUE(SamePair(out[k], static_cast<float>(re64[k]), 2.0f)) << k;
}

TEST(ComplexParts, AddImagEveryTypePair) {
  ForEachType([](auto tag1, ElementType t1) {
    ForEachType([&](auto tag2, ElementType t2) {
      using A = decltype(tag1);
      using B = decltype(tag2);
      if constexpr (kIsRealOrInt<A> && kIsRealOrInt<B>) {
        const std::vector<A> a = Block<A>();
        const std::vector<B> b = Block<B>();
        const size_t n = std::min(a.size(), b.size());
        std::vector<Cmplx32> dst(n);
        ASSERT_EQ(ComputeAddImag(1, a.data(), t1, b.data(), t2, n, dst.data(), TypeCmplx32), 0u);
        for (size_t k = 0; k < n; ++k)
          EXPECT_TRUE(SamePair(dst[k], static_cast<float>(a[k]), static_cast<float>(b[k])))
              << TypeIdent(t1) << " +i " << TypeIdent(t2) << " element " << k;
      }
    });
  });
}

TEST(ComplexParts, AddImagRefusals) {
  const float fill = FromBits(0x7f8dead0);
  const std::vector<float> reals = {1.0f, 2.0f};
  const std::vector<Imag32> imags = {{5.0f}, {6.0f}};
  const std::vector<Cmplx64> cmplx = {{1, 2}, {3, 4}};
  std::vector<Cmplx32> dst(2, Cmplx32{fill, fill});

  // A refused first operand leaves the real parts alone; the imaginary parts are still filled.
  EXPECT_TRUE(RefusedNaming(ComputeAddImag(1, imags.data(), TypeImag32, reals.data(), TypeReal32, 2, dst.data(), TypeCmplx32), TypeImag32));
  EXPECT_TRUE(SamePair(dst[0], fill, 1.0f));
  EXPECT_TRUE(SamePair(dst[1], fill, 2.0f));

  dst.assign(2, Cmplx32{fill, fill});
  EXPECT_TRUE(RefusedNaming(ComputeAddImag(1, reals.data(), TypeReal32, cmplx.data(), TypeCmplx64, 2, dst.data(), TypeCmplx32), TypeCmplx64));
  EXPECT_TRUE(SamePair(dst[0], 1.0f, fill));
  EXPECT_TRUE(SamePair(dst[1], 2.0f, fill));

  // Both refused: both are pushed and the status is the second one's.
  const uint32_t st = ComputeAddImag(0, cmplx.data(), TypeCmplx64, imags.data(), TypeImag32, 2, dst.data(), TypeCmplx32);
  EXPECT_EQ(st, E_MSG);
  ASSERT_EQ(ExceptionCount(), 2u);
  EXPECT_EQ(std::string(ExceptionText(0)), std::string("invalid data type for operation (") + TypeIdent(TypeCmplx64) + ")");
  EXPECT_EQ(std::string(ExceptionText(1)), std::string("invalid data type for operation (") + TypeIdent(TypeImag32) + ")");
  ExceptionClear();

  dst.assign(2, Cmplx32{fill, fill});
  EXPECT_TRUE(RefusedNaming(ComputeAddImag(1, reals.data(), TypeReal32, reals.data(), TypeReal32, 2, dst.data(), TypeReal32), TypeReal32));
  for (const Cmplx32 &c : dst) EXPECT_TRUE(SamePair(c, fill, fill));
}

TEST(ComplexParts, EmptyBlock) {
  for (Kernel kernel : kRealKernels) EXPECT_EQ(kernel(0, nullptr, TypeCmplx64, nullptr, 0, 0, nullptr, TypeReal32), 0u);
  for (Kernel kernel : kCmplxKernels) EXPECT_EQ(kernel(0, nullptr, TypeInt8, nullptr, 0, 0, nullptr, TypeCmplx32), 0u);
  EXPECT_EQ(ComputeAddImag(0, nullptr, TypeInt8, nullptr, TypeReal32, 0, nullptr, TypeCmplx32), 0u);
  EXPECT_EQ(ExceptionCount(), 0u);
}

}  // namespace
