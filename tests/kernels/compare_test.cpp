// Comparison kernels: every ordered pair of the twelve non-complex types, with an image and with a
// number as second operand, against an element-by-element model; the binary32 edge cases; refusals.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "compute/compute.h"
#include "platform/core/errors.h"

namespace {

enum Rel { kLt, kLe, kEq, kGe, kGt, kNe };
const Kernel kKernels[] = {ComputeLt, ComputeLe, ComputeEq, ComputeGe, ComputeGt, ComputeNe};
const char *const kRelNames[] = {"lt", "le", "eq", "ge", "gt", "ne"};

// The model: an unordered pair counts as equal.
uint8_t ModelRelation(Rel r, float x, float y) {
  if (std::isnan(x) || std::isnan(y)) return r == kLt || r == kLe || r == kEq;
  switch (r) {
    case kLt: return x < y;
    case kLe: return x <= y;
    case kEq: return x == y;
    case kGe: return x >= y;
    case kGt: return x > y;
    default: return x != y;
  }
}

// A column of test values of one element type, kept as raw bytes together with each value's
// binary32 image as the comparison is to see it.
struct Column {
  ElementType type;
  size_t size;
  std::vector<unsigned char> bytes;
  std::vector<float> as_float;

  template <class T> void Add(T v, float f) {
    const size_t at = bytes.size();
    bytes.resize(at + sizeof(T));
    std::memcpy(bytes.data() + at, &v, sizeof(T));
    as_float.push_back(f);
  }
  size_t count() const { return as_float.size(); }
  const unsigned char *at(size_t i) const { return bytes.data() + i * size; }
};

template <class T> void AddInts(Column &c, std::initializer_list<T> values) {
  for (T v : values) c.Add(v, static_cast<float>(v));
}

const float kInf = std::numeric_limits<float>::infinity();
const float kNan = std::numeric_limits<float>::quiet_NaN();

std::vector<Column> Columns() {
  std::vector<Column> cols;
  auto col = [&](ElementType t) -> Column & {
    cols.push_back(Column{t, TypeSize(t), {}, {}});
    return cols.back();
  };
  // Small integers are exact in binary32; larger ones are listed with their nearest binary32.
  AddInts<uint8_t>(col(TypeUint8), {0, 1, 2, 127, 128, 255});
  AddInts<uint16_t>(col(TypeUint16), {0, 1, 2, 255, 32768, 65535});
  {
    Column &c = col(TypeUint32);
    AddInts<uint32_t>(c, {0, 1, 2, 16777216});
    c.Add(uint32_t{16777217}, 16777216.0f);
    c.Add(uint32_t{2147483648u}, 2147483648.0f);
    c.Add(uint32_t{4294967295u}, 4294967296.0f);
  }
  {
    Column &c = col(TypeUint64);
    AddInts<uint64_t>(c, {0, 1, 2});
    c.Add(uint64_t{16777217}, 16777216.0f);
    c.Add(uint64_t{1} << 63, 9223372036854775808.0f);
    c.Add(~uint64_t{0}, 18446744073709551616.0f);
  }
  AddInts<int8_t>(col(TypeInt8), {-128, -1, 0, 1, 2, 127});
  AddInts<int16_t>(col(TypeInt16), {-32768, -1, 0, 1, 2, 255, 32767});
  {
    Column &c = col(TypeInt32);
    AddInts<int32_t>(c, {-1, 0, 1, 2, 16777216});
    c.Add(int32_t{INT32_MIN}, -2147483648.0f);
    c.Add(int32_t{-16777217}, -16777216.0f);
    c.Add(int32_t{16777217}, 16777216.0f);
    c.Add(int32_t{16777218}, 16777218.0f);
    c.Add(int32_t{16777219}, 16777220.0f);  // tie, to even
    c.Add(int32_t{INT32_MAX}, 2147483648.0f);
  }
  {
    Column &c = col(TypeInt64);
    AddInts<int64_t>(c, {-1, 0, 1, 2});
    c.Add(int64_t{INT64_MIN}, -9223372036854775808.0f);
    c.Add(int64_t{16777217}, 16777216.0f);
    c.Add(int64_t{INT64_MAX}, 9223372036854775808.0f);
  }
  // Floating columns: the binary32 images are written out by hand, so the model does not depend on
  // the conversion under test.
  const double d_big = 1e300, d_near_one = 1.0000000001, d_fine = 16777217.0;
  for (ElementType t : {TypeReal32, TypeImag32}) {
    Column &c = col(t);
    for (float f : {-kInf, -1.5f, -0.0f, 0.0f, 1.0f, 2.0f, 16777216.0f, 3e38f, kInf, kNan}) c.Add(f, f);
  }
  for (ElementType t : {TypeReal64, TypeImag64}) {
    Column &c = col(t);
    c.Add(-d_big, -kInf);
    c.Add(-1.0, -1.0f);
    c.Add(-0.0, -0.0f);
    c.Add(1.0, 1.0f);
    c.Add(d_near_one, 1.0f);
    c.Add(2.0, 2.0f);
    c.Add(d_fine, 16777216.0f);
    c.Add(d_big, kInf);
    c.Add(std::numeric_limits<double>::quiet_NaN(), kNan);
  }
  return cols;
}

// Every value of a against every value of b, twice over and a few more, so that the pairs fill
// several chunks and leave a remainder.
struct PairBlock {
  std::vector<unsigned char> a, b;
  std::vector<float> fa, fb;
  size_t n = 0;
};

PairBlock MakePairs(const Column &ca, const Column &cb) {
  PairBlock p;
  const size_t combos = ca.count() * cb.count();
  p.n = 2 * combos + 7;
  for (size_t i = 0; i < p.n; ++i) {
    const size_t k = i % combos, ia = k / cb.count(), ib = k % cb.count();
    p.a.insert(p.a.end(), ca.at(ia), ca.at(ia) + ca.size);
    p.b.insert(p.b.end(), cb.at(ib), cb.at(ib) + cb.size);
    p.fa.push_back(ca.as_float[ia]);
    p.fb.push_back(cb.as_float[ib]);
  }
  return p;
}

TEST(CompareKernels, AllTypePairsWithImageOperand) {
  const std::vector<Column> cols = Columns();
  ASSERT_EQ(cols.size(), 12u);
  for (const Column &ca : cols)
    for (const Column &cb : cols) {
      const PairBlock p = MakePairs(ca, cb);
      for (int r = 0; r < 6; ++r) {
        std::vector<uint8_t> dst(p.n, 0xee);
        ASSERT_EQ(kKernels[r](1, p.a.data(), ca.type, p.b.data(), cb.type, p.n, dst.data(), TypeUint8), 0u);
        for (size_t i = 0; i < p.n; ++i)
          ASSERT_EQ(dst[i], ModelRelation(Rel(r), p.fa[i], p.fb[i]))
              << TypeIdent(ca.type) << " " << kRelNames[r] << " " << TypeIdent(cb.type) << " element " << i
              << ": " << p.fa[i] << " vs " << p.fb[i];
      }
    }
}

TEST(CompareKernels, AllTypePairsWithNumberOperand) {
  const std::vector<Column> cols = Columns();
  for (const Column &ca : cols) {
    // The first operand repeated to more than two chunks.
    std::vector<unsigned char> a;
    std::vector<float> fa;
    for (size_t i = 0; i < 3 * ca.count() + 40; ++i) {
      const size_t k = i % ca.count();
      a.insert(a.end(), ca.at(k), ca.at(k) + ca.size);
      fa.push_back(ca.as_float[k]);
    }
    for (const Column &cb : cols)
      for (size_t j = 0; j < cb.count(); ++j)
        for (int r = 0; r < 6; ++r) {
          std::vector<uint8_t> dst(fa.size(), 0xee);
          ASSERT_EQ(kKernels[r](0, a.data(), ca.type, cb.at(j), cb.type, fa.size(), dst.data(), TypeUint8), 0u);
          for (size_t i = 0; i < fa.size(); ++i)
            ASSERT_EQ(dst[i], ModelRelation(Rel(r), fa[i], cb.as_float[j]))
                << TypeIdent(ca.type) << " " << kRelNames[r] << " number " << TypeIdent(cb.type) << " "
                << cb.as_float[j] << ", element " << i << ": " << fa[i];
        }
  }
}

// One comparison of two single values given in their own types.
template <class A, class B> uint8_t CompareOne(Kernel k, A a, ElementType ta, B b, ElementType tb) {
  uint8_t out = 0xee;
  EXPECT_EQ(k(1, &a, ta, &b, tb, 1, &out, TypeUint8), 0u);
  return out;
}

TEST(CompareKernels, BinaryThirtyTwoEdgeCases) {
  EXPECT_EQ(CompareOne(ComputeEq, int32_t{16777216}, TypeInt32, int32_t{16777217}, TypeInt32), 1);
  EXPECT_EQ(CompareOne(ComputeNe, int32_t{16777216}, TypeInt32, int32_t{16777217}, TypeInt32), 0);
  EXPECT_EQ(CompareOne(ComputeEq, int64_t{(int64_t{1} << 40) + 1}, TypeInt64, uint64_t{uint64_t{1} << 40},
                       TypeUint64), 1);
  EXPECT_EQ(CompareOne(ComputeGt, ~uint64_t{0}, TypeUint64, int64_t{-1}, TypeInt64), 1);
  EXPECT_EQ(CompareOne(ComputeLt, ~uint64_t{0}, TypeUint64, int64_t{-1}, TypeInt64), 0);
  EXPECT_EQ(CompareOne(ComputeEq, 1e300, TypeReal64, 1e301, TypeReal64), 1);
  EXPECT_EQ(CompareOne(ComputeLt, 1e300, TypeReal64, 1e301, TypeReal64), 0);
  EXPECT_EQ(CompareOne(ComputeEq, 0.1, TypeReal64, 0.1f, TypeReal32), 1);
  EXPECT_EQ(CompareOne(ComputeLt, int8_t{-1}, TypeInt8, uint8_t{0}, TypeUint8), 1);
  EXPECT_EQ(CompareOne(ComputeGt, uint32_t{4294967295u}, TypeUint32, int8_t{-1}, TypeInt8), 1);
  EXPECT_EQ(CompareOne(ComputeEq, 2.0f, TypeImag32, 2.0f, TypeReal32), 1);
  EXPECT_EQ(CompareOne(ComputeLt, 2.0, TypeImag64, int16_t{3}, TypeInt16), 1);
  EXPECT_EQ(CompareOne(ComputeEq, -0.0f, TypeReal32, uint8_t{0}, TypeUint8), 1);
}

TEST(CompareKernels, NanCountsAsEqualInEveryForm) {
  const float nan = kNan;
  const uint8_t want[6] = {1, 1, 1, 0, 0, 0};
  std::vector<float> a(70, 1.0f);
  a[0] = nan;
  a[33] = nan;
  a[69] = nan;
  std::vector<float> b(70, nan);
  for (int r = 0; r < 6; ++r) {
    std::vector<uint8_t> d1(70), d2(70), d3(70);
    ASSERT_EQ(kKernels[r](1, a.data(), TypeReal32, b.data(), TypeReal32, 70, d1.data(), TypeUint8), 0u);
    ASSERT_EQ(kKernels[r](0, a.data(), TypeReal32, &nan, TypeImag32, 70, d2.data(), TypeUint8), 0u);
    const double dnan = std::numeric_limits<double>::quiet_NaN();
    ASSERT_EQ(kKernels[r](0, &dnan, TypeReal64, &nan, TypeReal32, 1, d3.data(), TypeUint8), 0u);
    for (size_t i = 0; i < 70; ++i) {
      EXPECT_EQ(d1[i], want[r]) << kRelNames[r] << " " << i;
      EXPECT_EQ(d2[i], want[r]) << kRelNames[r] << " " << i;
    }
    EXPECT_EQ(d3[0], want[r]) << kRelNames[r];
  }
}

TEST(CompareKernels, MaskOverTheFirstOperand) {
  // Written over its own first operand, each element is read before its byte is overwritten.
  std::vector<int32_t> a;
  for (int i = 0; i < 75; ++i) a.push_back(i % 5 - 2);
  std::vector<int32_t> buf = a;
  const int32_t zero = 0;
  ASSERT_EQ(ComputeGt(0, buf.data(), TypeInt32, &zero, TypeInt32, a.size(), buf.data(), TypeUint8), 0u);
  const uint8_t *mask = reinterpret_cast<const uint8_t *>(buf.data());
  for (size_t i = 0; i < a.size(); ++i) EXPECT_EQ(mask[i], a[i] > 0) << i;

  std::vector<uint8_t> bytes = {5, 0, 9, 200, 1};
  std::vector<uint8_t> other = {5, 1, 8, 201, 1};
  ASSERT_EQ(ComputeLe(1, bytes.data(), TypeUint8, other.data(), TypeUint8, 5, bytes.data(), TypeUint8), 0u);
  EXPECT_EQ(bytes, (std::vector<uint8_t>{1, 1, 0, 1, 1}));
}

TEST(CompareKernels, EmptyBlockWritesNothing) {
  uint8_t d = 0xee;
  const float x = 1.0f;
  EXPECT_EQ(ComputeEq(1, &x, TypeReal32, &x, TypeReal32, 0, &d, TypeUint8), 0u);
  EXPECT_EQ(d, 0xee);
}

std::string TypeErrorText(ElementType t) {
  return std::string("invalid data type for operation (") + TypeIdent(t) + ")";
}

TEST(CompareKernels, RefusalsInOrder) {
  ExceptionClear();
  const float buf[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  struct Case {
    ElementType t1, t2, dst, named;
  } cases[] = {
      {TypeReal32, TypeReal32, TypeReal32, TypeReal32},     // destination first
      {TypeCmplx32, TypeCmplx64, TypeInt8, TypeInt8},       // ... before the operands
      {TypeCmplx32, TypeReal32, TypeUint8, TypeCmplx32},    // then the first operand
      {TypeCmplx64, TypeCmplx32, TypeUint8, TypeCmplx64},   // ... before the second
      {TypeReal32, TypeCmplx32, TypeUint8, TypeCmplx32},
      {TypeInt16, TypeCmplx64, TypeUint8, TypeCmplx64},
      {0x5555u, TypeReal32, TypeUint8, 0x5555u},            // unknown codes
      {TypeReal32, 0x6666u, TypeUint8, 0x6666u},
  };
  for (int r = 0; r < 6; ++r)
    for (const Case &c : cases)
      for (uint32_t is_array : {0u, 1u}) {
        uint8_t dst[4] = {7, 7, 7, 7};
        EXPECT_EQ(kKernels[r](is_array, buf, c.t1, buf, c.t2, 2, dst, c.dst), E_MSG);
        ASSERT_EQ(ExceptionCount(), 1u);
        EXPECT_EQ(std::string(ExceptionText(0)), TypeErrorText(c.named)) << kRelNames[r];
        ExceptionClear();
        for (uint8_t x : dst) EXPECT_EQ(x, 7);
      }
}

}  // namespace
