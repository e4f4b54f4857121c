// The kernels against references written from the element rules. Every kernel runs over every pair
// of operand types, with an image and with single numbers as second operand and in place, against
// references computed independently in long double and std::complex<long double>: conversions
// exactly, arithmetic within a few binary32 roundings. Edge values are checked bit for bit, each case
// one value (or pair) repeated over a block so that the vector loops see it too: rounding order,
// signed zeros, NaN, infinities and saturation as the element rules state them. Then the refusals. A
// guard element after each block must stay. The process runs flush-to-zero / denormals-are-zero, so
// the references flush subnormal inputs and results.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <complex>
#include <cstring>
#include <cstdlib>
#include <limits>
#include <vector>

#include "compute/compute.h"
#include "kernels/element.h"
#include "support.h"

namespace {

using C = std::complex<long double>;

template <class T> struct PartOf { using type = T; };
template <> struct PartOf<Imag32> { using type = float; };
template <> struct PartOf<Imag64> { using type = double; };
template <> struct PartOf<Cmplx32> { using type = float; };
template <> struct PartOf<Cmplx64> { using type = double; };
template <> struct PartOf<C> { using type = long double; };
template <class S> constexpr bool kPair = kIsCmplx<S> || std::is_same_v<S, C>;
template <class S> auto Re(S x) { if constexpr (std::is_same_v<S, C>) return x.real(); else return x.re; }
template <class S> auto Im(S x) { if constexpr (std::is_same_v<S, C>) return x.imag(); else return x.im; }

// One number into type D: saturating, truncating, NaN to the lower limit; signed into wider unsigned
// wraps; subnormals flushed (but kept while edge-case inputs are written). A same-type copy keeps
// every bit.
bool gKeepSubnormals = false;
template <class D, class S> D Num(S x) {
  using L = std::numeric_limits<D>;
  long double v = x;
  if constexpr (std::is_floating_point_v<S>)
    if (std::fabs(v) < std::numeric_limits<S>::min()) v = std::copysign(0.0L, v);
  if constexpr (std::is_same_v<D, S>) {
    return x;
  } else if constexpr (std::is_floating_point_v<D>) {
    const D r = static_cast<D>(v);
    return std::fabs(static_cast<long double>(r)) < L::min() && !gKeepSubnormals ? std::copysign(D(0), r) : r;
  } else if constexpr (std::is_integral_v<S>) {
    if (std::is_signed_v<S> && !L::is_signed && sizeof(D) > sizeof(S)) return static_cast<D>(x);
    return static_cast<D>(std::clamp<__int128>(x, L::min(), L::max()));
  } else {
    if (std::isnan(v) || v < L::min()) return L::min();
    if (v >= static_cast<long double>(L::max()) + 1) return L::max();
    return static_cast<D>(static_cast<__int128>(std::trunc(v)));
  }
}

// One element (or a complex long double value) into type D: an imaginary element converts as its
// coefficient, a complex one as its real part; the missing part of a complex result is +0.
template <class D, class S> D Ref(S x) {
  using P = typename PartOf<D>::type;
  if constexpr (kPair<D> && kPair<S>) return D{Num<P>(Re(x)), Num<P>(Im(x))};
  else if constexpr (kPair<D> && kIsImag<S>) return D{P(0), Num<P>(x.v)};
  else if constexpr (kPair<D>) return D{Num<P>(x), P(0)};
  else if constexpr (kIsImag<D> && kPair<S>) return D{Num<P>(Im(x))};
  else if constexpr (kIsImag<D> && kIsImag<S>) return D{Num<P>(x.v)};
  else if constexpr (kIsImag<D>) return D{Num<P>(x)};
  else if constexpr (kPair<S>) return Num<D>(Re(x));
  else if constexpr (kIsImag<S>) return Num<D>(x.v);
  else return Num<D>(x);
}

template <class F> void Each(ElementType t, F &&f) {
  DispatchType(t, [&](auto tag) -> uint32_t { f(tag); return 0; });
}

// A block of n elements of one type and a guard element after them, kept as bytes.
struct Buf {
  ElementType type = 0;
  uint64_t n = 0;
  std::vector<unsigned char> bytes;
  Buf() = default;
  Buf(ElementType t, uint64_t count, unsigned char fill = 0xcd) : type(t), n(count), bytes((count + 1) * TypeSize(t), fill) {}
  void *data() { return bytes.data(); }
  const void *data() const { return bytes.data(); }
  const void *at(uint64_t i) const { return &bytes[i * TypeSize(type)]; }
  bool Guarded() const { return std::all_of(bytes.end() - TypeSize(type), bytes.end(), [](unsigned char c) { return c == 0xcd; }); }
  template <class T> T get(uint64_t i) const { T x; std::memcpy(&x, at(i), sizeof(T)); return x; }
  template <class T> void set(uint64_t i, T x) { std::memcpy(&bytes[i * sizeof(T)], &x, sizeof(T)); }
  // Element i as type R (Ref<R>): C for its exact value, Cmplx32 for the binary32 parts kernels use.
  template <class R> R As(uint64_t i) const {
    R r{};
    Each(type, [&](auto tag) { r = Ref<R>(get<decltype(tag)>(i)); });
    return r;
  }
};
C Value(const Buf &b, uint64_t i) { return b.As<C>(i); }

// Edge values, repeated cyclically to n elements: integer limits and their neighbours, values that
// round differently once or twice to binary32, floating values around every saturation limit, signed
// zeros, infinities, quiet and signalling NaNs with payloads, subnormals, values beyond binary32.
// Complex elements pair the values so that n = k*k pairs every value with every other one.
Buf Sample(ElementType t, uint64_t n) {
  Buf b(t, n);
  Each(t, [&](auto tag) {
    using T = decltype(tag);
    using P = typename PartOf<T>::type;
    std::vector<P> v;
    if constexpr (std::is_integral_v<P>) {
      for (long double c : {0.0L, 1.0L, -1.0L, 2.0L, 5.0L, -5.0L, 9.0L, 127.0L, 128.0L, -128.0L, -129.0L, 200.0L,
                            255.0L, 256.0L, 32767.0L, 32768.0L, -32768.0L, -32769.0L, 65535.0L, 65536.0L, 16777217.0L,
                            16777219.0L, 0x1p31L - 1, 0x1p31L, -0x1p31L, 0x1p32L - 1, 0x1p40L, -0x1p40L, 0x1p53L + 1,
                            0x1p53L + 0x1p29L + 1, 0x1p60L + 0x1p36L + 1, 0x1p63L - 1, 0x1p63L, -0x1p63L,
                            0x1p63L + 0x1p39L + 1, 0x1p64L - 1})
        if (c >= std::numeric_limits<P>::min() && c <= std::numeric_limits<P>::max()) v.push_back(static_cast<P>(c));
    } else {
      for (long double x : {0.0L, -0.0L, (long double)NAN, (long double)INFINITY, -(long double)INFINITY, 1.0L, -1.0L,
                            0.5L, -0.5L, -0.7L, 2.7L, -2.7L, 1.5L, 2.5L, -3.7L, 89.0L, 1e-40L, -1e-40L, 127.9L, -128.9L,
                            255.9L, 256.0L, 300.5L, 32767.9L, -32768.9L, 65535.5L, 16777217.0L, 2147483520.0L,
                            0x1p31L, -2147483904.0L, 4294967040.0L, 0x1p32L, 9223371487098961920.0L, 0x1p63L, -0x1p63L,
                            1e19L, 18446742974197923840.0L, 0x1p64L, 3.4e38L, -3.4e38L, 1.0001L, 0.3L, -1e-5L})
        v.push_back(static_cast<P>(x));
      if constexpr (sizeof(P) == 4) {
        v.insert(v.end(), {std::bit_cast<float>(0x7fa00001u), std::bit_cast<float>(0xffc12345u)});
      } else {
        v.insert(v.end(), {1e40, -1e40, 1e-46, 1e-310, 1e300, -1e300, 0.1, 4294967295.9, 2147483647.9, -2147483648.9,
                           18446744073709549568.0, 9223372036854774784.0, -9223372036854777856.0,
                           std::bit_cast<double>(0x7ff4000000000001ull), std::bit_cast<double>(0xfff8000012345678ull)});
      }
    }
    const uint64_t k = v.size();
    for (uint64_t i = 0; i < n; ++i) {
      if constexpr (kIsCmplx<T>) b.set(i, T{v[i % k], v[(3 * i + i / k + 1) % k]});
      else if constexpr (kIsImag<T>) b.set(i, T{v[i % k]});
      else b.set(i, v[i % k]);
    }
  });
  return b;
}

// Equal values with equal signs (so +0 and -0 differ), or both NaN (payloads of computed NaNs are not
// part of the rules).
bool Same(long double got, long double want) {
  if (std::isnan(got) || std::isnan(want)) return std::isnan(got) && std::isnan(want);
  return got == want && std::signbit(got) == std::signbit(want);
}

// The call was refused with status 279 and exactly one error "invalid data type for operation (name)".
// Clears the error stack.
::testing::AssertionResult Refused(uint32_t status, ElementType type) {
  const uint32_t *known = std::find(kAllTypes, kAllTypes + 14, type);
  const std::string want = std::string("invalid data type for operation (") + (known < kAllTypes + 14 ? kTypeLabels[known - kAllTypes] : TypeIdent(type)) + ")";
  const uint32_t n = ExceptionCount();
  const std::string got = n ? ExceptionText(n - 1) : "";
  ExceptionClear();
  if (status != E_MSG || n != 1 || got != want)
    return ::testing::AssertionFailure() << "status " << status << ", " << n << " errors, last \"" << got << "\"";
  return ::testing::AssertionSuccess();
}

// An operand as the kernels see it: its binary32 value as a complex number (an imaginary
// coefficient c is c·i), the number a conversion to real32 gives (the real part or coefficient), and
// the stored value itself.
struct Op {
  C v;
  long double x;
  __int128 bits;  // an integer element
};
Op OperandAt(const Buf &b, uint64_t i) {
  const Cmplx32 p = b.As<Cmplx32>(i);
  return {C(p.re, p.im), b.As<float>(i), IsIntegerType(b.type) ? static_cast<__int128>(Value(b, i).real()) : 0};
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
ElementType First(ElementType t, ElementType) { return t; }
// A unary numeric operation's destination: imag32 for imaginary, the type itself for complex images.
ElementType Own(ElementType t, ElementType) { return IsImagType(t) ? TypeImag32 : IsCmplxType(t) ? t : TypeReal32; }
bool Any(ElementType, ElementType) { return true; }
bool Single(ElementType t1, ElementType) { return t1 != TypeCmplx64; }
bool NoCmplx2(ElementType, ElementType t2) { return !IsCmplxType(t2); }
bool NoCmplx(ElementType t1, ElementType t2) { return !IsCmplxType(t1) && !IsCmplxType(t2); }
bool RealOrInt(ElementType t1, ElementType t2) { return IsRealOrIntegerType(t1) && (!t2 || IsRealOrIntegerType(t2)); }
bool RealResult(ElementType t1, ElementType t2) { return MultiplicativeResultType(t1, t2) == TypeReal32 && !IsCmplxType(t2); }
bool AdditiveReal(ElementType t1, ElementType t2) { return AdditiveResultType(t1, t2) == TypeReal32 && !IsCmplxType(t2); }
bool Integers(ElementType t1, ElementType t2) { return IsIntegerType(t1) && (!t2 || t2 == t1); }

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

// Statistics of the whole block for mean removal and RMS normalisation: the mean (per part of complex
// values) and the RMS from the sum of squared magnitudes rounded to binary32.
C gMean;
long double gRms;
void BlockStatistics(const Buf &a) {
  long double sum2 = 0;
  gMean = 0;
  for (uint64_t i = 0; i < a.n; ++i) gMean += OperandAt(a, i).v / C(a.n), sum2 += std::norm(OperandAt(a, i).v);
  gRms = std::sqrt(Num<float>(sum2) / a.n);
}

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
  bool bits = false;   // on the stored integers, every element
  bool block = false;  // with the block's statistics
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
    // Bitwise logic on two's complement integers of the stored width.
    {"not", ComputeNot, false, First, Integers, [](const Op &a, const Op &, ElementType t) {
       return C(t >> 16 == 0x30 ? -a.bits - 1 : ((__int128{1} << 8 * TypeSize(t)) - 1) - a.bits); }, nullptr, false, true},
    {"and", ComputeAnd, true, First, Integers, [](const Op &a, const Op &b, ElementType) { return C(a.bits & b.bits); }, nullptr, false, true},
    {"or", ComputeOr, true, First, Integers, [](const Op &a, const Op &b, ElementType) { return C(a.bits | b.bits); }, nullptr, false, true},
    {"xor", ComputeXor, true, First, Integers, [](const Op &a, const Op &b, ElementType) { return C(a.bits ^ b.bits); }, nullptr, false, true},
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
    // Blocks whose RMS is zero or NaN stay as they are.
    {"-mean", ComputeZeromean, false, Own, Single, [](const Op &a, const Op &, ElementType) { return a.v - gMean; },
     [](long double a, long double, long double w) { return a + w + std::abs(gMean); }, false, false, true},
    {"/rms", ComputeRmsNorm, false, Own, Single, [](const Op &a, const Op &, ElementType) { return gRms > 0 ? a.v / gRms : a.v; },
     Result, false, false, true},
};

// The stored part of a result within a few roundings of the reference (exactly for exact operations
// and integer results, and always when the reference rounds to an infinity or is NaN).
bool Close(long double got, long double want, long double scale, bool exact, ElementType dt) {
  const long double w = IsIntegerType(dt) ? want : Num<float>(want);
  if (!std::isfinite(w)) return Same(got, w);
  return std::fabs(got - w) <= (exact ? 0 : 4e-6L * scale);
}

void Sweep(const Family &f, ElementType t1, ElementType t2, ElementType dt, bool forced) {
  const uint64_t n = f.noise ? 3001 : 61;  // noise: long enough to run through many batches of draws
  Buf a = Sample(t1, n);
  const Buf b = Sample(t2 ? t2 : TypeInt8, n + 7);
  for (uint64_t i = 0; f.block && i < n; ++i)  // statistics of values where binary32 arithmetic is exact enough
    if (!Moderate(OperandAt(a, i)) || std::abs(OperandAt(a, i).v) > 1e6L) std::memcpy(&a.bytes[i * TypeSize(t1)], a.at(i % 5 + 5), TypeSize(t1));
  for (uint64_t pick : {n, uint64_t{3}, uint64_t{11}, uint64_t{60}}) {  // an image, then single numbers
    if (!f.binary && pick != n) break;
    for (bool in_place : {false, true}) {
      if (in_place && t1 != dt) continue;
      const std::string what = std::string(f.name) + " " + TypeIdent(t1) + (t2 ? std::string(", ") + TypeIdent(t2) : "") +
                               (pick < n ? " number " + std::to_string(pick) : "") + (in_place ? " in place" : "");
      Buf d = in_place ? a : Buf(dt, n);
      const unsigned seed = 1000 + t1 % 97 + t2 % 89 + static_cast<unsigned>(pick);
      if (f.noise) ComputeRandomSeed(seed);
      if (f.block) BlockStatistics(a);
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
        const Op x = OperandAt(a, i), y = f.binary ? OperandAt(b, pick == n ? i : pick) : Op{C(1), 1, 1};
        const C want = f.f(x, y, dt), got = Value(d, i);
        if (!f.bits && (!Moderate(x) || !Moderate(y))) {  // still written: no fill bytes left
          EXPECT_TRUE(in_place || std::memcmp(d.at(i), Buf(dt, 1).data(), TypeSize(dt))) << what << " element " << i;
          continue;
        }
        const long double scale = f.scale ? f.scale(std::abs(x.v), std::abs(y.v), std::abs(want)) : 0;
        const bool ok = dt == TypeImag32 ? Close(got.imag(), want.imag(), scale, !f.scale, dt)
                                         : Close(got.real(), want.real(), scale, !f.scale, dt) &&
                                               (dt != TypeCmplx32 || Close(got.imag(), want.imag(), scale, !f.scale, dt));
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

const ElementType R = TypeReal32, I = TypeImag32, X = TypeCmplx32, U8 = TypeUint8;
const long double kPi = 3.14159274f, kHalfPi = 1.57079637f, kTwo63 = 0x1p63L, kTwo64 = 0x1p64L;

// One value per operand: a type keeps what its conversion keeps (the real part, or the imaginary
// part for imaginary types). arr 1: the second operand is an image, 0: a number.
struct Case { Kernel k; uint32_t arr; ElementType t1; C a; ElementType t2; C b; ElementType dt; C want; };

const Case kCases[] = {
    // Operands are narrowed to binary32 first, then the exact result rounds once.
    {ComputeAdd, 1, R, {1}, TypeInt32, {16777217}, R, {16777216}},
    {ComputeNeg, 0, U8, {0}, 0, {}, R, {-0.0}},
    {ComputeNeg, 0, TypeInt32, {-2147483648.0}, 0, {}, R, {2147483648.0}},
    {ComputeNeg, 0, X, {0, 0}, 0, {}, X, {-0.0, -0.0}},
    // A number divisor is applied as its reciprocal: 5 * (1/3) is one bit above 5/3.
    {ComputeDiv, 1, R, {5}, TypeInt16, {3}, R, {1.6666666269302368}},
    {ComputeDiv, 0, R, {5}, R, {3}, R, {1.6666667461395264}},
    {ComputeDiv, 1, X, {1, 2}, I, {0, -2.5}, X, {-0.8f, 0.4f}},
    {ComputeDiv, 0, X, {1, 2}, I, {0, -2.5}, X, {-0.79999995f, 0.39999998f}},
    {ComputeDiv, 1, R, {1}, R, {0}, R, {INFINITY}},
    {ComputeDiv, 0, R, {1}, R, {-0.0}, R, {-INFINITY}},
    {ComputeDiv, 1, X, {5, 7}, R, {0}, X, {NAN, NAN}},
    {ComputeDiv, 1, X, {5, 7}, R, {1e20}, X, {0, 0}},  // the divisor's square overflows: no scaling
    {ComputeRecip, 0, R, {-0.0}, 0, {}, R, {-INFINITY}},
    {ComputeRecip, 0, X, {0, 0}, 0, {}, X, {NAN, NAN}},
    {ComputeConj, 0, X, {0, 0}, 0, {}, X, {0, -0.0}},
    {ComputeConj, 0, R, {3}, 0, {}, I, {0, 0}},
    {ComputeMulConj, 1, I, {0, 2}, I, {0, 3}, R, {-6}},  // a non-complex destination takes the plain product
    {ComputeMod, 0, R, {1e10}, R, {3}, R, {1}},  // exact remainder of the binary32 value 1e10
    {ComputeMod, 1, R, {5}, R, {0}, R, {NAN}},
    {ComputeMod, 1, R, {5}, R, {INFINITY}, R, {5}},
    {ComputeMod, 1, R, {-0.0}, R, {3}, R, {-0.0}},
    // Conversion: saturating, truncating, NaN to the lower limit; signed into wider unsigned wraps.
    {ComputeConvert, 0, R, {300.5}, 0, {}, U8, {255}},
    {ComputeConvert, 0, R, {NAN}, 0, {}, TypeInt8, {-128}},
    {ComputeConvert, 0, TypeReal64, {kTwo63}, 0, {}, TypeInt64, {kTwo63 - 1}},
    {ComputeConvert, 0, TypeReal64, {kTwo64}, 0, {}, TypeUint64, {kTwo64 - 1}},
    {ComputeConvert, 0, TypeInt8, {-1}, 0, {}, TypeUint16, {65535}},
    {ComputeConvert, 0, TypeUint64, {kTwo64 - 1}, 0, {}, R, {kTwo64}},
    {ComputeConvert, 0, TypeInt64, {9007199791611905.0L}, 0, {}, R, {9007200328482816.0L}},  // rounded once
    // Elementary functions and complex parts.
    {ComputeSqrt, 0, R, {-4}, 0, {}, R, {NAN}},
    {ComputeSqrt, 0, R, {-0.0}, 0, {}, R, {-0.0}},
    {ComputeLn, 0, R, {0}, 0, {}, R, {-INFINITY}},
    {ComputeExp, 0, R, {89}, 0, {}, R, {INFINITY}},
    {ComputeSqrt, 0, TypeUint64, {kTwo64 - 1}, 0, {}, R, {4294967296.0}},
    {ComputeAtan, 0, TypeReal64, {1e300}, 0, {}, R, {kHalfPi}},
    {ComputePhase, 0, R, {-0.0}, 0, {}, R, {0}},
    {ComputePhase, 0, R, {NAN}, 0, {}, R, {kPi}},
    {ComputePhase, 0, I, {0, 0}, 0, {}, R, {kHalfPi}},
    {ComputePhase, 0, X, {-1, -0.0}, 0, {}, R, {-kPi}},
    {ComputePhase, 0, X, {0, 0}, 0, {}, R, {0}},
    {ComputeAbs, 0, R, {-0.0}, 0, {}, R, {0}},
    {ComputeAbs, 0, TypeCmplx64, {1e300, 1}, 0, {}, R, {INFINITY}},
    {ComputeAbs2, 0, R, {2e19}, 0, {}, R, {INFINITY}},
    {ComputePhfac, 0, X, {0, 0}, 0, {}, X, {0, 0}},
    {ComputePhfac, 0, X, {NAN, 1}, 0, {}, X, {0, 0}},
    {ComputePhfac, 0, R, {-0.0}, 0, {}, X, {0, 0}},
    {ComputePhfac, 0, R, {NAN}, 0, {}, X, {-1, 0}},
    {ComputeMufac, 0, X, {0, 0}, 0, {}, X, {0, 0}},
    {ComputeMufac, 0, R, {-0.0}, 0, {}, X, {-0.0, 0}},
    // The C library sees subnormal arguments as the zeros of their sign, and subnormal results come
    // back as such zeros.
    {ComputeLn, 0, R, {-0x1p-149}, 0, {}, R, {-INFINITY}},
    {ComputeSqrt, 0, R, {-0x1p-149}, 0, {}, R, {-0.0}},
    {ComputeAtan, 0, R, {-0x1p-130}, 0, {}, R, {-0.0}},
    {ComputeSin, 0, TypeReal64, {1e-40}, 0, {}, R, {0}},
    {ComputeExp, 0, R, {-100}, 0, {}, R, {0}},
    {ComputePhase, 0, X, {-0x1p-127, -0x1p-149}, 0, {}, R, {-kPi}},
    {ComputeAbs, 0, X, {0x1p-127, -0x1p-140}, 0, {}, R, {0}},
    {ComputePhfac, 0, X, {0x1p-127, 2}, 0, {}, X, {0, 1}},
    {ComputeMufac, 0, TypeCmplx64, {1e-45, -4}, 0, {}, X, {0, -2}},
    // Comparisons in binary32; an unordered pair counts as equal.
    {ComputeEq, 1, TypeInt32, {16777216}, TypeInt32, {16777217}, U8, {1}},
    {ComputeEq, 0, R, {NAN}, I, {0, 1}, U8, {1}},
    {ComputeLe, 1, R, {NAN}, R, {1}, U8, {1}},
    {ComputeGe, 0, R, {1}, R, {NAN}, U8, {0}},
    {ComputeNe, 1, TypeReal64, {NAN}, R, {NAN}, U8, {0}},
    // Minimum and maximum: with an image the first value stays on NaN or equality, with a number the
    // number is stored.
    {ComputeMax, 0, R, {NAN}, R, {2}, R, {2}},
    {ComputeMax, 0, R, {1}, R, {NAN}, R, {NAN}},
    {ComputeMin, 1, R, {NAN}, R, {2}, R, {NAN}},
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
  for (const Case &c : kCases)
    for (uint64_t n : {uint64_t{1}, uint64_t{37}}) {  // a value as a block of its own, and repeated
    if (n > 1 && (c.k == ComputeZeromean || c.k == ComputeRmsNorm)) continue;
    const std::string what = std::to_string(&c - kCases) + " in a block of " + std::to_string(n);
    Buf a(c.t1, n), b(c.t2 ? c.t2 : U8, c.arr ? n : 1), d(c.dt, n);
    gKeepSubnormals = true;
    for (Buf *buf : {&a, &b})
      Each(buf->type, [&](auto tag) {
        for (uint64_t i = 0; i < buf->n; ++i) buf->set(i, Ref<decltype(tag)>(buf == &a ? c.a : c.b));
      });
    gKeepSubnormals = false;
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
      {arith, R, R, TypeReal64, TypeReal64},        {arith, bad, R, R, bad},
      {arith, R, bad, X, bad, false},               {arith, R, TypeCmplx64, I, TypeCmplx64, false},  // after the conversion
      {{ComputeMod}, I, I, I, I},                   {{ComputeMod}, R, X, X, X},
      {unary, R, 0, TypeInt16, TypeInt16},          {unary, TypeCmplx64, 0, I, TypeCmplx64},
      {funcs, X, 0, TypeReal64, TypeReal64},        {funcs, I, 0, R, I},     {funcs, bad, 0, R, bad},  // the destination first
      {reals, R, 0, X, X},                          {reals, bad, 0, R, bad}, {cmplxs, R, 0, R, R},    {cmplxs, bad, 0, X, bad},
      {{ComputeAddImag}, I, R, X, I, false},        {{ComputeAddImag}, TypeInt8, TypeCmplx64, X, TypeCmplx64, false},
      {{ComputeAddImag}, R, R, R, R},               {noise, R, R, I, I},     {noise, R, X, R, X, false},
      {noise, R, bad, R, bad, false},               {noise, bad, R, R, bad},
      {stats, bad, 0, R, bad},                      {stats, TypeCmplx64, 0, TypeCmplx64, TypeCmplx64}, {stats, R, 0, TypeInt32, TypeInt32},
      {{ComputeNot}, TypeInt16, 0, TypeInt32, TypeInt32},  {{ComputeNot}, R, 0, R, R},  // the destination first
      {logic, TypeInt16, U8, TypeInt16, U8},        // the second operand's type first
      {logic, TypeInt16, TypeInt16, TypeUint16, TypeUint16},  {logic, I, I, I, I},  {logic, 0x7777, 0x7777, 0x7777, 0x7777},  // then the destination
      {compare, R, R, R, R},                        {compare, X, TypeCmplx64, TypeInt8, TypeInt8},  // the destination first
      {compare, X, R, U8, X},                       {compare, TypeInt16, TypeCmplx64, U8, TypeCmplx64},  // then the first operand
      {compare, 0x5555, R, U8, 0x5555},             {compare, R, 0x6666, U8, 0x6666},
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
}

}  // namespace
