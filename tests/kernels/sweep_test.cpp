// Every kernel over every pair of operand types, with an image and with single numbers as second
// operand and in place, against references computed independently in long double and
// std::complex<long double>: conversions exactly, arithmetic within a few binary32 roundings (exact
// rounding is the business of the edge-value tables). A guard element after each block must stay.
#include <cstdlib>
#include <random>

#include "kernel_check.h"

namespace {

// An operand as the kernels see it: its binary32 value as a complex number (an imaginary
// coefficient c is c·i) and the number a conversion to real32 gives (the real part or coefficient).
struct Op {
  C v;
  long double x;
};
Op OperandAt(const Buf &b, uint64_t i) {
  const Cmplx32 p = b.As<Cmplx32>(i);
  return {C(p.re, p.im), b.As<float>(i)};
}
// Values whose binary32 arithmetic neither overflows nor underflows; zeros, infinities and NaNs are
// the edge-value tables' business.
bool Moderate(const Op &a) {
  for (long double p : {a.v.real(), a.v.imag()})
    if (!std::isfinite(p) || std::fabs(p) > 0x1p60L || (p != 0 && std::fabs(p) < 0x1p-60L)) return false;
  return a.v != C(0);
}

ElementType Real(ElementType, ElementType) { return TypeReal32; }
ElementType Cmplx(ElementType, ElementType) { return TypeCmplx32; }
ElementType Mask(ElementType, ElementType) { return TypeUint8; }
// A unary numeric operation's destination: imag32 for imaginary, the type itself for complex images.
ElementType Own(ElementType t, ElementType) { return IsImagType(t) ? TypeImag32 : IsCmplxType(t) ? t : TypeReal32; }
bool Any(ElementType, ElementType) { return true; }
bool Single(ElementType t1, ElementType) { return t1 != TypeCmplx64; }
bool NoCmplx2(ElementType, ElementType t2) { return !IsCmplxType(t2); }
bool NoCmplx(ElementType t1, ElementType t2) { return !IsCmplxType(t1) && !IsCmplxType(t2); }
bool RealOrInt(ElementType t1, ElementType t2) { return IsRealOrIntegerType(t1) && (!t2 || IsRealOrIntegerType(t2)); }
bool RealResult(ElementType t1, ElementType t2) { return MultiplicativeResultType(t1, t2) == TypeReal32 && !IsCmplxType(t2); }
bool AdditiveReal(ElementType t1, ElementType t2) { return AdditiveResultType(t1, t2) == TypeReal32 && !IsCmplxType(t2); }

// The Gaussian sample of the noise kernels from rand(): the polar method on the first quadrant, then
// a draw for the sign.
long double Normal() {
  for (;;) {
    const long double u = std::rand() / 2147483647.0L, v = std::rand() / 2147483647.0L, s = u * u + v * v;
    if (s >= 1) continue;
    const long double g = std::sqrt(-2 * std::log(s) / s) * u;
    return std::rand() >= (1 << 30) ? g : -g;
  }
}
long double Uniform() { return std::rand() * 0x1p-31L; }

using Ref2 = C (*)(const Op &a, const Op &b, ElementType dt);
using Scale = long double (*)(long double a, long double b, long double want);  // null: exact
template <long double (*F)(long double)> C Fn(const Op &a, const Op &, ElementType) { return F(a.x); }
long double Sum(long double a, long double b, long double) { return a + b; }
long double Product(long double a, long double b, long double) { return a * b; }
long double Quotient(long double a, long double b, long double) { return a / b; }
long double Result(long double, long double, long double w) { return w; }

struct Family {
  const char *name;
  Kernel k;
  bool binary;
  ElementType (*dst)(ElementType t1, ElementType t2);  // the destination the driver gives
  bool (*valid)(ElementType t1, ElementType t2);       // false: the kernel refuses
  Ref2 f;
  Scale scale;
  bool noise = false;  // the kernels' generator and rand() seeded alike, draws compared
};

const Family kFamilies[] = {
    {"+", ComputeAdd, true, AdditiveResultType, Any, [](const Op &a, const Op &b, ElementType) { return a.v + b.v; }, Sum},
    {"-", ComputeSub, true, AdditiveResultType, Any, [](const Op &a, const Op &b, ElementType) { return a.v - b.v; }, Sum},
    {"*", ComputeMul, true, MultiplicativeResultType, Any, [](const Op &a, const Op &b, ElementType) { return a.v * b.v; }, Product},
    {"/", ComputeDiv, true, MultiplicativeResultType, Any, [](const Op &a, const Op &b, ElementType) { return a.v / b.v; }, Quotient},
    {"**", ComputeMulConj, true, MultiplicativeResultType, Any,  // the plain product into a non-complex destination
     [](const Op &a, const Op &b, ElementType dt) { return a.v * (dt == TypeCmplx32 ? std::conj(b.v) : b.v); }, Product},
    {"%", ComputeMod, true, MultiplicativeResultType, RealResult, [](const Op &a, const Op &b, ElementType) { return C(std::fmod(a.x, b.x)); }, nullptr},
    {"min", ComputeMin, true, Real, NoCmplx2, [](const Op &a, const Op &b, ElementType) { return C(std::min(a.x, b.x)); }, nullptr},
    {"max", ComputeMax, true, Real, NoCmplx2, [](const Op &a, const Op &b, ElementType) { return C(std::max(a.x, b.x)); }, nullptr},
    {"lt", ComputeLt, true, Mask, NoCmplx, [](const Op &a, const Op &b, ElementType) { return C(a.x < b.x); }, nullptr},
    {"le", ComputeLe, true, Mask, NoCmplx, [](const Op &a, const Op &b, ElementType) { return C(a.x <= b.x); }, nullptr},
    {"eq", ComputeEq, true, Mask, NoCmplx, [](const Op &a, const Op &b, ElementType) { return C(a.x == b.x); }, nullptr},
    {"ge", ComputeGe, true, Mask, NoCmplx, [](const Op &a, const Op &b, ElementType) { return C(a.x >= b.x); }, nullptr},
    {"gt", ComputeGt, true, Mask, NoCmplx, [](const Op &a, const Op &b, ElementType) { return C(a.x > b.x); }, nullptr},
    {"ne", ComputeNe, true, Mask, NoCmplx, [](const Op &a, const Op &b, ElementType) { return C(a.x != b.x); }, nullptr},
    {"+i", ComputeAddImag, true, Cmplx, RealOrInt, [](const Op &a, const Op &b, ElementType) { return C(a.x, b.x); }, nullptr},
    {"+uran", ComputeAddUniform, true, AdditiveResultType, AdditiveReal,
     [](const Op &a, const Op &b, ElementType) { return C(a.x + b.x * Uniform()); }, Sum, true},
    {"*uran", ComputeMulUniform, true, MultiplicativeResultType, RealResult,
     [](const Op &a, const Op &b, ElementType) { return C(a.x * b.x * Uniform()); }, Product, true},
    {"+nran", ComputeAddNormal, true, AdditiveResultType, AdditiveReal,
     [](const Op &a, const Op &b, ElementType) { return C(a.x + Normal() * b.x); }, [](long double a, long double, long double w) { return a + w; }, true},
    {"*nran", ComputeMulNormal, true, MultiplicativeResultType, RealResult,
     [](const Op &a, const Op &b, ElementType) { return C(a.x * Normal() * b.x); }, Result, true},
    {"neg", ComputeNeg, false, Own, Single, [](const Op &a, const Op &, ElementType) { return -a.v; }, nullptr},
    {"conj", ComputeConj, false, Own, Single, [](const Op &a, const Op &, ElementType) { return std::conj(a.v); }, nullptr},
    {"recip", ComputeRecip, false, Own, Single, [](const Op &a, const Op &, ElementType) { return 1.0L / a.v; }, Result},
    {"sqrt", ComputeSqrt, false, Real, RealOrInt, Fn<sqrtl>, Result},
    {"exp", ComputeExp, false, Real, RealOrInt, Fn<expl>, Result},
    {"ln", ComputeLn, false, Real, RealOrInt, Fn<logl>, Result},
    {"cos", ComputeCos, false, Real, RealOrInt, Fn<cosl>, Result},
    {"sin", ComputeSin, false, Real, RealOrInt, Fn<sinl>, Result},
    {"tan", ComputeTan, false, Real, RealOrInt, Fn<tanl>, Result},
    {"asin", ComputeAsin, false, Real, RealOrInt, Fn<asinl>, Result},
    {"acos", ComputeAcos, false, Real, RealOrInt, Fn<acosl>, Result},
    {"atan", ComputeAtan, false, Real, RealOrInt, Fn<atanl>, Result},
    {"abs", ComputeAbs, false, Real, Any, [](const Op &a, const Op &, ElementType) { return C(std::abs(a.v)); }, Result},
    {"abs2", ComputeAbs2, false, Real, Any, [](const Op &a, const Op &, ElementType) { return C(std::norm(a.v)); }, Result},
    {"phase", ComputePhase, false, Real, Any, [](const Op &a, const Op &, ElementType) { return C(std::arg(a.v)); }, Result},
    {"re", ComputeRe, false, Real, Any, [](const Op &a, const Op &, ElementType) { return C(a.v.real()); }, nullptr},
    {"im", ComputeIm, false, Real, Any, [](const Op &a, const Op &, ElementType) { return C(a.v.imag()); }, nullptr},
    {"phfac", ComputePhfac, false, Cmplx, Any, [](const Op &a, const Op &, ElementType) { return a.v / std::abs(a.v); }, Result},
    {"mufac", ComputeMufac, false, Cmplx, Any, [](const Op &a, const Op &, ElementType) { return a.v / std::sqrt(std::abs(a.v)); }, Result},
};

// The stored part of a result within a few roundings of the reference (exactly for exact operations,
// and always when the reference rounds to an infinity or is NaN).
bool Close(long double got, long double want, long double scale, bool exact) {
  const long double w = Num<float>(want);
  if (!std::isfinite(w)) return Same(got, w);
  return std::fabs(got - w) <= (exact ? 0 : 4e-6L * scale);
}

void Sweep(const Family &f, ElementType t1, ElementType t2, ElementType dt, bool forced) {
  const uint64_t n = 61;
  const Buf a = Sample(t1, n), b = Sample(t2 ? t2 : TypeInt8, n + 7);
  for (uint64_t pick : {n, uint64_t{3}, uint64_t{11}, uint64_t{60}}) {  // an image, then single numbers
    if (!f.binary && pick != n) break;
    for (bool in_place : {false, true}) {
      if (in_place && t1 != dt) continue;
      const std::string what = std::string(f.name) + " " + TypeIdent(t1) + (t2 ? std::string(", ") + TypeIdent(t2) : "") +
                               (pick < n ? " number " + std::to_string(pick) : "") + (in_place ? " in place" : "");
      Buf d = in_place ? a : Buf(dt, n);
      const unsigned seed = 1000 + t1 % 97 + t2 % 89 + static_cast<unsigned>(pick);
      if (f.noise) ComputeRandomSeed(seed);
      const uint32_t status = f.k(pick == n, in_place ? d.data() : a.data(), t1, f.binary ? b.at(pick % n) : nullptr,
                                  f.binary ? t2 : 0, n, d.data(), dt);
      EXPECT_TRUE(d.Guarded()) << what;
      if (!forced && !f.valid(t1, t2)) {
        EXPECT_EQ(status, E_MSG) << what;
        ExceptionClear();
        continue;
      }
      ASSERT_EQ(status, 0u) << what << ": " << LastError();
      if (f.noise) std::srand(seed);
      for (uint64_t i = 0; i < n; ++i) {
        const Op x = OperandAt(a, i), y = f.binary ? OperandAt(b, pick == n ? i : pick) : Op{C(1), 1};
        const C want = f.f(x, y, dt), got = Value(d, i);
        if (!Moderate(x) || !Moderate(y)) continue;
        const long double scale = f.scale ? f.scale(std::abs(x.v), std::abs(y.v), std::abs(want)) : 0;
        const bool ok = dt == TypeImag32 ? Close(got.imag(), want.imag(), scale, !f.scale)
                                         : Close(got.real(), want.real(), scale, !f.scale) &&
                                               (dt != TypeCmplx32 || Close(got.imag(), want.imag(), scale, !f.scale));
        ASSERT_TRUE(ok) << what << " element " << i << ": got (" << double(got.real()) << ", " << double(got.imag())
                        << "), want (" << double(want.real()) << ", " << double(want.imag()) << ")";
      }
      EXPECT_TRUE(!f.noise || ComputeRandomDraw() == std::rand()) << what << ": draws used";
      // An empty block reads and writes nothing.
      EXPECT_EQ(f.k(1, nullptr, t1, nullptr, f.binary ? t2 : 0, 0, nullptr, dt), 0u) << what;
    }
  }
}

TEST(Kernels, EveryTypePairAgainstAnIndependentReference) {
  for (const Family &f : kFamilies)
    for (ElementType t1 : kAllTypes)
      for (ElementType t2 : kAllTypes) {
        const ElementType dt = f.dst(t1, f.binary ? t2 : 0);
        Sweep(f, t1, f.binary ? t2 : 0, dt, false);
        // Arithmetic into a complex destination is defined for any operands, not only where the
        // result-type rules lead.
        for (Kernel k : {ComputeAdd, ComputeSub, ComputeMul, ComputeDiv, ComputeMulConj, ComputeNeg, ComputeConj, ComputeRecip})
          if (f.k == k && dt != TypeCmplx32) Sweep(f, t1, f.binary ? t2 : 0, TypeCmplx32, true);
        if (!f.binary) break;
      }
}

// Same-width floating pairs are bit copies (NaN payloads, -0, subnormals and infinities kept); other
// pairs are compared as values, any NaN matching any NaN.
TEST(Kernels, ConversionOfEveryPairMatchesTheReference) {
  for (ElementType s : kAllTypes) {
    const Buf src = Sample(s, 157);
    for (ElementType d : kAllTypes) {
      Buf dst(d, src.n), want(d, src.n);
      ASSERT_EQ(ComputeConvert(0, src.data(), s, nullptr, 0, src.n, dst.data(), d), 0u);
      Each(s, [&](auto st) { Each(d, [&](auto dt) {
        for (uint64_t i = 0; i < src.n; ++i) want.set(i, Ref<decltype(dt)>(src.get<decltype(st)>(i)));
      }); });
      const bool copy = !IsIntegerType(s) && !IsIntegerType(d) && TypeSize(s) * (IsCmplxType(d) ? 2 : 1) == TypeSize(d) * (IsCmplxType(s) ? 2 : 1);
      for (uint64_t i = 0; i < src.n; ++i) {
        const C g = Value(dst, i), w = Value(want, i);
        ASSERT_TRUE(copy ? std::memcmp(dst.at(i), want.at(i), TypeSize(d)) == 0 : Same(g.real(), w.real()) && Same(g.imag(), w.imag()))
            << TypeIdent(s) << " -> " << TypeIdent(d) << " element " << i;
      }
      EXPECT_TRUE(dst.Guarded());
    }
  }
}

// Mean removal and RMS normalisation of a block of every type (values where binary32 arithmetic is
// exact enough), into a new buffer and in place; a complex block has a mean per part and one RMS.
TEST(Kernels, BlockStatisticsOfEveryType) {
  for (ElementType t : kAllTypes)
    for (Kernel k : {ComputeZeromean, ComputeRmsNorm}) {
      Buf a = Sample(t, 61);
      for (uint64_t i = 0; i < a.n; ++i)
        if (!Moderate(OperandAt(a, i)) || std::abs(OperandAt(a, i).v) > 1e6L) std::memcpy(&a.bytes[i * TypeSize(t)], a.at(i % 5 + 5), TypeSize(t));
      const ElementType dt = Own(t, 0);
      C mean = 0;
      long double sum2 = 0;
      for (uint64_t i = 0; i < a.n; ++i) mean += OperandAt(a, i).v / C(a.n), sum2 += std::norm(OperandAt(a, i).v);
      const long double rms = std::sqrt(sum2 / a.n), scale = std::sqrt(sum2);
      for (bool in_place : {false, true}) {
        if (in_place && t != dt) continue;
        Buf d = in_place ? a : Buf(dt, a.n);
        const uint32_t status = k(0, in_place ? d.data() : a.data(), t, nullptr, 0, a.n, d.data(), dt);
        if (dt == TypeCmplx64) {
          EXPECT_TRUE(Refused(status, dt));
          continue;
        }
        ASSERT_EQ(status, 0u);
        for (uint64_t i = 0; i < a.n; ++i) {
          const C want = k == ComputeZeromean ? OperandAt(a, i).v - mean : OperandAt(a, i).v / rms, got = Value(d, i);
          const long double s = k == ComputeZeromean ? scale : 1;
          ASSERT_TRUE(std::abs((dt == TypeImag32 ? C(0, want.imag()) : dt == TypeCmplx32 ? want : C(want.real())) - got) <= 4e-6L * s)
              << TypeIdent(t) << (k == ComputeZeromean ? " -mean " : " /rms ") << i;
        }
        EXPECT_TRUE(d.Guarded());
      }
    }
}

// Bitwise logic acts on the stored bits: every integer width, lengths around the vector steps, a
// source one element off alignment, an image or a number (repeating one element's bytes), in place.
TEST(Kernels, LogicOnEveryWidthLengthAndForm) {
  const Kernel kernels[] = {ComputeNot, ComputeAnd, ComputeOr, ComputeXor};
  for (ElementType t : kAllTypes)
    for (size_t n : {0, 1, 3, 7, 15, 16, 17, 33, 131})
      for (int op = 0; op < 4 && IsIntegerType(t); ++op)
        for (uint32_t image : {0u, 1u})
          for (bool in_place : {false, true}) {
            const size_t s = TypeSize(t), bytes = n * s;
            std::vector<unsigned char> a(bytes + s), b(bytes + s);
            for (size_t i = 0; i < a.size(); ++i) a[i] = i < 8 ? 0 : i < 16 ? 0xff : (i * 167 + n) >> 2, b[i] = (i * 131 + op) >> 3;
            const unsigned char *second = image ? b.data() : b.data() + bytes;  // a number: the last element
            std::vector<unsigned char> dst = in_place ? a : std::vector<unsigned char>(bytes + s, 0x42);
            unsigned char *out = in_place ? dst.data() + s : dst.data();
            ASSERT_EQ(kernels[op](image, in_place ? out : a.data() + s, t, op ? second : nullptr, op ? t : 0, n, out, t), 0u);
            for (size_t i = 0; i < bytes; ++i) {
              const unsigned char x = a[s + i], y = second[image ? i : i % s];
              ASSERT_EQ(out[i], static_cast<unsigned char>(op == 0 ? ~x : op == 1 ? x & y : op == 2 ? x | y : x ^ y))
                  << TypeIdent(t) << " op " << op << " n " << n << " byte " << i;
            }
            EXPECT_TRUE(in_place || dst[bytes] == 0x42);
          }
}

// The remainder equals the C library's fmodf bit for bit over random bit patterns of every exponent
// and the special values, as an image and as a single divisor; subnormals read and stored as zeros.
TEST(Kernels, RemainderMatchesLibraryFmod) {
  auto flushed = [](float x) { return std::bit_cast<uint32_t>(x) & 0x7f800000u ? x : std::copysign(0.0f, x); };
  std::mt19937 gen(20240611);
  std::vector<float> xs = {0.0f, -0.0f, INFINITY, -INFINITY, NAN, 1.0f, -1.0f, 3.0f, 1.2e-38f, 5e-39f,
                           3.4e38f, -3.4e38f, 1.5e-38f, 0.1f, 16777216.0f, 16777217.0f, std::bit_cast<float>(0x7fc01234)};
  while (xs.size() < 400) {
    uint32_t u = gen();
    if (xs.size() % 3 == 0) u = (u & 0x807fffffu) | ((120 + gen() % 16) << 23);  // close exponents
    xs.push_back(std::bit_cast<float>(u));
  }
  const uint64_t n = xs.size();
  std::vector<float> single(n), array(n);
  for (uint64_t j = 0; j < n; j += 7) {
    const std::vector<float> divisors(n, xs[j]);
    ASSERT_EQ(ComputeMod(0, xs.data(), TypeReal32, &xs[j], TypeReal32, n, single.data(), TypeReal32), 0u);
    ASSERT_EQ(ComputeMod(1, xs.data(), TypeReal32, divisors.data(), TypeReal32, n, array.data(), TypeReal32), 0u);
    for (uint64_t i = 0; i < n; ++i) {
      const float want = flushed(std::fmod(flushed(xs[i]), flushed(xs[j])));
      ASSERT_TRUE(std::bit_cast<uint32_t>(single[i]) == std::bit_cast<uint32_t>(want) &&
                  std::bit_cast<uint32_t>(array[i]) == std::bit_cast<uint32_t>(want)) << xs[i] << " % " << xs[j];
    }
  }
}

// The Gaussian samples themselves: mean 0, standard deviation the amplitude; another seed gives
// another sequence.
TEST(Kernels, RandomNormalSpreadAndSeeds) {
  ComputeRandomSeed(987654321);
  long double first = RandomNormal(2.0), sum = first, sum2 = first * first;
  for (int i = 1; i < 20000; ++i) {
    const double g = RandomNormal(2.0);
    sum += g, sum2 += g * g;
  }
  EXPECT_TRUE(std::fabs(sum / 20000) < 0.1 && std::fabs(std::sqrt(sum2 / 20000) - 2) < 0.1) << sum << " " << sum2;
  ComputeRandomSeed(123);
  EXPECT_NE(RandomNormal(2.0), first);
}

}  // namespace
