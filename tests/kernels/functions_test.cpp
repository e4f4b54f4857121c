// Elementary real functions and complex parts: every source type against the C library and the sign,
// zero and NaN rules element by element, in place, the listed edge values and the refusals.
#include <sstream>

#include "kernel_check.h"
#include "libm_sweep.h"

namespace {

// References go through pointers, so that each one is a real call of the C library function.
float (*volatile const lib_sqrt)(float) = sqrtf;
float (*volatile const lib_hypot)(float, float) = hypotf;
float (*volatile const lib_atan2)(float, float) = atan2f;
float (*volatile const lib_sin)(float) = sinf;

float Sqrt(float x) { return lib_sqrt(x); }
const std::pair<Kernel, float (*)(float)> kFunctions[] = {
    {ComputeSqrt, Sqrt}, {ComputeExp, expf}, {ComputeLn, logf},     {ComputeCos, cosf},   {ComputeSin, sinf},
    {ComputeTan, tanf},  {ComputeAsin, asinf}, {ComputeAcos, acosf}, {ComputeAtan, atanf}};

const float kPi = 3.14159274f, kHalfPi = 1.57079637f;

// The library as the kernels must call it: a subnormal argument enters as the zero of its sign and a
// subnormal result comes back as one.
template <class... A> float Lib(float (*f)(A...), A... a) { return Flushed(f(Flushed(a)...)); }

// Kernels 0-8 are the elementary functions, 9-13 give real32 (re, im, phase, abs, abs2) and 14-15
// cmplx32 (phfac, mufac).
const Kernel kParts[] = {ComputeRe, ComputeIm, ComputePhase, ComputeAbs, ComputeAbs2, ComputePhfac, ComputeMufac};

float Sgn(float v) { return v < 0 || std::isnan(v) ? -1.0f : v == 0 ? 0.0f : 1.0f; }
float SignedRoot(float v) { return v >= 0 ? lib_sqrt(v) : std::isnan(v) ? v : -lib_sqrt(-v); }

// The complex-part rules by kind of source: 'r' integer or real x, 'i' imaginary y, 'c' complex (a, b).
Cmplx32 PartsRule(int k, char kind, Cmplx32 p) {
  const float a = p.re, b = p.im, x = kind == 'i' ? b : a;
  if (kind == 'c') {
    const float m = Lib(lib_hypot, a, b), s = lib_sqrt(m);
    const Cmplx32 by[] = {{a, 0}, {b, 0}, {Lib(lib_atan2, b, a), 0}, {m, 0}, {a * a + b * b, 0},
                          m != 0 && !std::isnan(m) ? Cmplx32{a / m, b / m} : Cmplx32{0, 0},
                          s != 0 && !std::isnan(s) ? Cmplx32{a / s, b / s} : Cmplx32{0, 0}};
    return by[k];
  }
  const bool imag = kind == 'i';
  const float phase = 0 <= x ? (imag ? kHalfPi : 0.0f) : (imag ? -kHalfPi : kPi);
  const float part[] = {imag ? 0.0f : x, imag ? x : 0.0f, phase, FromBits(Bits(x) & 0x7fffffffu), x * x};
  if (k < 5) return {part[k], 0};
  const float v = k == 5 ? Sgn(x) : SignedRoot(x);
  return imag ? Cmplx32{0, v} : Cmplx32{v, 0};
}

// Kernel k (0-8 the elementary functions, 9-13 re, im, phase, abs, abs2, 14-15 phfac, mufac) on the
// block orig, in place when its type is the destination's; the elementary functions refuse
// imaginary and complex sources without writing.
void CheckKernel(int k, const Buf &orig) {
  const ElementType t = orig.type, dt = k < 14 ? TypeReal32 : TypeCmplx32;
  const Kernel kernel = k < 9 ? kFunctions[k].first : kParts[k - 9];
  const uint64_t n = orig.size();
  Buf src = orig, dst(dt, n);
  const bool in_place = t == dt;
  const uint32_t status = kernel(0, src.data(), t, nullptr, 0, n, in_place ? src.data() : dst.data(), dt);
  if (k < 9 && !IsRealOrIntegerType(t)) {
    EXPECT_TRUE(Refused(status, t));
    EXPECT_EQ(dst.bytes, Buf(dt, n).bytes);
    return;
  }
  ASSERT_EQ(status, 0u);
  const char kind = IsCmplxType(t) ? 'c' : IsImagType(t) ? 'i' : 'r';
  for (uint64_t i = 0; i < n; ++i) {
    const Cmplx32 want =
        k < 9 ? Cmplx32{Lib(kFunctions[k].second, Real32(orig, i)), 0} : PartsRule(k - 9, kind, Pair32(orig, i));
    const Cmplx32 got = At(in_place ? src : dst, i);
    ASSERT_TRUE(Same(got.re, want.re) && Same(got.im, want.im))
        << k << " " << TypeIdent(t) << " " << i << ": " << std::hex << Bits(got.re) << " " << Bits(want.re);
  }
}

TEST(Functions, EverySourceTypeFollowsTheRules) {
  for (int k = 0; k < 16; ++k)
    for (ElementType t : kAllTypes) CheckKernel(k, Sample(t, IsCmplxType(t) ? 56 * 56 : 67));  // complex: all pairs
}

// Subnormal and boundary operands (smallest and largest subnormal, smallest normal, both signs; for
// binary64 also the binary32 subnormal range) as real values and as every pair of complex parts.
TEST(Functions, SubnormalOperandsAndResultsAreFlushed) {
  const uint64_t p32[] = {0, 1, 0x400000, 0x7fffff, 0x800000, 0x3f800000};
  const uint64_t p64[] = {0, 1, 0xfffffffffffff, 0x10000000000000, 0x36a0000000000000, 0x380fffffc0000000,
                          0x3810000000000000, 0x3ff0000000000000};
  for (ElementType t : {TypeReal32, TypeReal64, TypeCmplx32, TypeCmplx64}) {
    const bool wide = TypeSize(t) / (IsCmplxType(t) ? 2 : 1) == 8;
    std::vector<uint64_t> v;
    for (uint64_t p : wide ? std::vector<uint64_t>(p64, p64 + 8) : std::vector<uint64_t>(p32, p32 + 6))
      v.insert(v.end(), {p, p | (wide ? 1ull << 63 : 1ull << 31)});
    const uint64_t m = v.size(), n = IsCmplxType(t) ? m * m : m, w = wide ? 8 : 4;
    Buf b(t, n);
    for (uint64_t j = 0; j < n; ++j) {  // complex: value j / m with value j % m
      std::memcpy(&b.bytes[j * TypeSize(t)], &v[IsCmplxType(t) ? j / m : j], w);
      if (IsCmplxType(t)) std::memcpy(&b.bytes[j * TypeSize(t) + w], &v[j % m], w);
    }
    // The whole block, and each value as a block of its own (the only subnormal of its block).
    for (int k = 0; k < 16; ++k) CheckKernel(k, b);
    for (uint64_t j = 0; j < n; ++j) {
      Buf one(t, 1);
      std::memcpy(one.data(), &b.bytes[j * TypeSize(t)], TypeSize(t));
      for (int k = 0; k < 16; ++k) CheckKernel(k, one);
    }
  }
}

// The block calls and, where they apply, the vector replicas themselves (which the gate must then
// admit) against the library element by element: every 4099th argument, the arguments where the
// library's builds differ and the edges of the replicas' main paths (2^-12, 0.75, 88, 120, 2^25, the
// normal range, infinity) with their neighbours, both signs; for the functions of complex parts a
// structured sample of pairs. CI's libm_proof compares every argument.
TEST(Functions, LibraryBlockCallsEqualTheLibrary) {
  std::vector<uint32_t> centres = {0x39800000, 0x3f400000, 0x42b00000, 0x42f00000, 0x4c000000, 0x00800000, 0x7f800000};
  for (const LibProbes &p : kLibProbes) centres.insert(centres.end(), p.args, p.args + p.n);
  const bool replicas = LibReplicatedVariant();
  const auto fail = [](auto... bits) {
    std::ostringstream text;
    ((text << std::hex << " 0x" << bits), ...);
    ADD_FAILURE() << "arguments, result, library:" << text.str();
  };
  for (const auto &c : kLibFunctions) {
    const LibMapFn replica = kAvx2Maps[static_cast<uint32_t>(c.f)];
    const auto sweep = [&](auto map) {
      SweepFunction(c, map, 0, 0xffffffff, 4099, fail);
      for (uint32_t centre : centres)
        for (uint32_t x : {centre, centre | 0x80000000u}) SweepFunction(c, map, x - 40, x + 40, 1, fail);
    };
    sweep([&](const float *s, float *d, uint64_t n) { LibMap(c.f, s, d, n); });
    if (replicas && replica != nullptr) {
      sweep(replica);
      EXPECT_TRUE(LibCheckGate().unary >> static_cast<uint32_t>(c.f) & 1) << c.name;
    }
  }
  for (const auto &c : kLibPairFunctions) {
    SweepPairs(c, [&](const float *p, float *d, uint64_t n) { LibMapPairs(c.f, p, d, n); }, 0, 0xffffffff, 16411, fail);
    if (replicas) {
      SweepPairs(c, kAvx2PairMaps[static_cast<uint32_t>(c.f)], 0, 0xffffffff, 16411, fail);
      EXPECT_TRUE(LibCheckGate().pair >> static_cast<uint32_t>(c.f) & 1) << c.name;
    }
  }
}

TEST(Functions, AddImagEveryTypePair) {
  for (ElementType t1 : kAllTypes)
    for (ElementType t2 : kAllTypes) {
      if (!IsRealOrIntegerType(t1) || !IsRealOrIntegerType(t2)) continue;
      const Buf a = Sample(t1, 67), b = Sample(t2, 68);
      for (uint32_t arr : {0u, 1u}) {
        Buf dst(TypeCmplx32, 67);
        const void *im = &b.bytes[arr ? 0 : 8 * TypeSize(t2)];  // a number: element 8
        ASSERT_EQ(ComputeAddImag(arr, a.data(), t1, im, t2, 67, dst.data(), TypeCmplx32), 0u);
        for (uint64_t i = 0; i < 67; ++i) {
          const Cmplx32 got = dst.get<Cmplx32>(i);
          ASSERT_TRUE(Same(got.re, Real32(a, i)) && Same(got.im, Real32(b, arr ? i : 8))) << TypeIdent(t1) << " " << i;
        }
      }
    }
}

TEST(Functions, EdgeValues) {
  const ElementType R = TypeReal32, C = TypeCmplx32, I = TypeImag32;
  CheckCases({
      {ComputeSqrt, 0, R, {-4}, 0, {}, R, {NAN}},
      {ComputeSqrt, 0, R, {-0.0}, 0, {}, R, {-0.0}},
      {ComputeLn, 0, R, {0}, 0, {}, R, {-INFINITY}},
      {ComputeLn, 0, TypeInt8, {-1}, 0, {}, R, {NAN}},
      {ComputeAsin, 0, R, {1.5}, 0, {}, R, {NAN}},
      {ComputeAcos, 0, R, {-1.0001}, 0, {}, R, {NAN}},
      {ComputeExp, 0, R, {89}, 0, {}, R, {INFINITY}},
      // Narrowed to binary32 first: 2^24 + 1 enters as 2^24, 2^64 - 1 as 2^64, 1e300 as infinity.
      {ComputeSin, 0, TypeInt32, {16777217}, 0, {}, R, {lib_sin(16777216.0f)}},
      {ComputeSqrt, 0, TypeUint64, {18446744073709551615.0L}, 0, {}, R, {4294967296.0}},
      {ComputeAtan, 0, TypeReal64, {1e300}, 0, {}, R, {kHalfPi}},
      {ComputePhase, 0, TypeInt16, {-5}, 0, {}, R, {kPi}},
      {ComputePhase, 0, R, {-0.0}, 0, {}, R, {0}},
      {ComputePhase, 0, R, {NAN}, 0, {}, R, {kPi}},
      {ComputePhase, 0, TypeUint8, {200}, 0, {}, R, {0}},
      {ComputePhase, 0, I, {0, 0}, 0, {}, R, {kHalfPi}},
      {ComputePhase, 0, I, {0, -2}, 0, {}, R, {-kHalfPi}},
      {ComputePhase, 0, C, {-1, 0}, 0, {}, R, {kPi}},
      {ComputePhase, 0, C, {-1, -0.0}, 0, {}, R, {-kPi}},
      {ComputePhase, 0, C, {0, 0}, 0, {}, R, {0}},
      {ComputeAbs, 0, TypeInt8, {-128}, 0, {}, R, {128}},
      {ComputeAbs, 0, R, {-0.0}, 0, {}, R, {0}},
      {ComputeAbs, 0, C, {3, 4}, 0, {}, R, {5}},
      {ComputeAbs, 0, TypeCmplx64, {1e300, 1}, 0, {}, R, {INFINITY}},
      {ComputeAbs2, 0, C, {3, 4}, 0, {}, R, {25}},
      {ComputeAbs2, 0, R, {2e19}, 0, {}, R, {INFINITY}},
      {ComputeAbs2, 0, TypeCmplx64, {1e20, 0}, 0, {}, R, {INFINITY}},
      {ComputeRe, 0, I, {0, 7}, 0, {}, R, {0}},
      {ComputeIm, 0, I, {0, 7}, 0, {}, R, {7}},
      {ComputeIm, 0, TypeInt8, {-1}, 0, {}, R, {0}},
      {ComputePhfac, 0, C, {3, 4}, 0, {}, C, {0.6f, 0.8f}},
      {ComputePhfac, 0, C, {0, 0}, 0, {}, C, {0, 0}},
      {ComputePhfac, 0, C, {NAN, 1}, 0, {}, C, {0, 0}},
      {ComputePhfac, 0, R, {-7}, 0, {}, C, {-1, 0}},
      {ComputePhfac, 0, TypeUint16, {9}, 0, {}, C, {1, 0}},
      {ComputeMufac, 0, C, {3, 4}, 0, {}, C, {3 / sqrtf(5), 4 / sqrtf(5)}},
      {ComputeMufac, 0, R, {-9}, 0, {}, C, {-3, 0}},
      {ComputeMufac, 0, I, {0, 16}, 0, {}, C, {0, 4}},
      {ComputeMufac, 0, C, {0, 0}, 0, {}, C, {0, 0}},
      {ComputeAddImag, 1, TypeInt16, {3}, R, {4}, C, {3, 4}},
  });
}

TEST(Functions, RefusalsAndEmptyBlocks) {
  std::vector<Refusal> cases;
  for (const auto &f : kFunctions) {
    cases.push_back({f.first, 0x501010, 0, TypeReal32, 0x501010});
    // The destination is checked first.
    for (ElementType bad : {TypeReal64, TypeImag32, TypeInt32}) cases.push_back({f.first, TypeCmplx32, 0, bad, bad});
  }
  for (int k = 0; k < 7; ++k) {
    cases.push_back({kParts[k], TypeReal32, 0, k < 5 ? TypeCmplx32 : TypeReal32, k < 5 ? TypeCmplx32 : TypeReal32});
    cases.push_back({kParts[k], TypeReal32, 0, TypeReal64, TypeReal64});
    cases.push_back({kParts[k], 0x501010, 0, k < 5 ? TypeReal32 : TypeCmplx32, 0x501010});
  }
  // "+i": an imaginary or complex operand on either side (the other one's part may be written).
  for (ElementType bad : {TypeImag32, TypeCmplx64}) {
    cases.push_back({ComputeAddImag, bad, TypeReal32, TypeCmplx32, bad, false});
    cases.push_back({ComputeAddImag, TypeInt8, bad, TypeCmplx32, bad, false});
  }
  cases.push_back({ComputeAddImag, TypeReal32, TypeReal32, TypeReal32, TypeReal32});
  CheckRefusals(cases);
  // Both refused: both errors are pushed and the second one's status is returned.
  const float x[4] = {};
  Cmplx32 out[2];
  EXPECT_EQ(ComputeAddImag(0, x, TypeCmplx64, x, TypeImag32, 2, out, TypeCmplx32), E_MSG);
  ASSERT_EQ(ExceptionCount(), 2u);
  EXPECT_EQ(std::string(ExceptionText(1)), "invalid data type for operation (imag32)");
  ExceptionClear();
  // Empty blocks: nothing read or written.
  for (const auto &f : kFunctions) EXPECT_EQ(f.first(0, nullptr, TypeReal64, nullptr, 0, 0, nullptr, TypeReal32), 0u);
  for (int k = 0; k < 7; ++k)
    EXPECT_EQ(kParts[k](0, nullptr, TypeCmplx64, nullptr, 0, 0, nullptr, k < 5 ? TypeReal32 : TypeCmplx32), 0u);
  EXPECT_EQ(ComputeAddImag(0, nullptr, TypeInt8, nullptr, TypeReal32, 0, nullptr, TypeCmplx32), 0u);
}

}  // namespace
