// Bitwise logic kernels on the eight integer types: complement, the three binary operations with an
// image or a number, odd lengths and unaligned buffers, and the order of the type refusals.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "compute/compute.h"
#include "platform/core/errors.h"

namespace {

// Values with varied bit patterns in every byte of the element.
template <class T> std::vector<T> Pattern(size_t n, uint64_t salt) {
  std::vector<T> v(n);
  uint64_t x = 0x9e3779b97f4a7c15ull ^ salt;
  for (size_t i = 0; i < n; ++i) {
    x ^= x << 13;
    x ^= x >> 7;
    x ^= x << 17;
    v[i] = static_cast<T>(x);
  }
  if (n > 2) {
    v[0] = 0;
    v[1] = static_cast<T>(~T{0});
  }
  return v;
}

template <class T> struct TypeOf;
template <> struct TypeOf<uint8_t> { static constexpr ElementType value = TypeUint8; };
template <> struct TypeOf<uint16_t> { static constexpr ElementType value = TypeUint16; };
template <> struct TypeOf<uint32_t> { static constexpr ElementType value = TypeUint32; };
template <> struct TypeOf<uint64_t> { static constexpr ElementType value = TypeUint64; };
template <> struct TypeOf<int8_t> { static constexpr ElementType value = TypeInt8; };
template <> struct TypeOf<int16_t> { static constexpr ElementType value = TypeInt16; };
template <> struct TypeOf<int32_t> { static constexpr ElementType value = TypeInt32; };
template <> struct TypeOf<int64_t> { static constexpr ElementType value = TypeInt64; };

template <class T> class LogicTyped : public testing::Test {};
using IntegerTypes = testing::Types<uint8_t, uint16_t, uint32_t, uint64_t, int8_t, int16_t, int32_t, int64_t>;
TYPED_TEST_SUITE(LogicTyped, IntegerTypes);

// Lengths around the 16-byte steps, for every element width.
const size_t kLengths[] = {0, 1, 3, 7, 15, 16, 17, 33, 100, 131};

TYPED_TEST(LogicTyped, NotComplementsEveryElement) {
  using T = TypeParam;
  const ElementType t = TypeOf<T>::value;
  for (size_t n : kLengths) {
    const std::vector<T> src = Pattern<T>(n + 1, n);
    // Source and destination one element past an aligned start.
    std::vector<T> dst(n + 1, T{42});
    ASSERT_EQ(ComputeNot(0, src.data() + 1, t, nullptr, 0, n, dst.data() + 1, t), 0u);
    EXPECT_EQ(dst[0], T{42});
    for (size_t i = 0; i < n; ++i) EXPECT_EQ(dst[i + 1], static_cast<T>(~src[i + 1])) << i;
    // In place, twice, gives the original back.
    std::vector<T> buf = src;
    ASSERT_EQ(ComputeNot(0, buf.data(), t, nullptr, 0, n + 1, buf.data(), t), 0u);
    ASSERT_EQ(ComputeNot(0, buf.data(), t, nullptr, 0, n + 1, buf.data(), t), 0u);
    EXPECT_EQ(buf, src);
  }
}

template <class T, class F> void CheckBinary(Kernel k, F model) {
  const ElementType t = TypeOf<T>::value;
  for (size_t n : kLengths) {
    const std::vector<T> a = Pattern<T>(n + 1, 1000 + n), b = Pattern<T>(n + 1, 2000 + n);
    std::vector<T> dst(n + 2, T{42});
    ASSERT_EQ(k(1, a.data() + 1, t, b.data(), t, n, dst.data(), t), 0u);
    for (size_t i = 0; i < n; ++i) ASSERT_EQ(dst[i], model(a[i + 1], b[i])) << "image, n " << n << " i " << i;
    EXPECT_EQ(dst[n], T{42});
    for (T s : {b[n], T{0}, static_cast<T>(~T{0})}) {
      std::vector<T> in_place(a.begin() + 1, a.end());
      ASSERT_EQ(k(0, in_place.data(), t, &s, t, n, in_place.data(), t), 0u);
      for (size_t i = 0; i < n; ++i) ASSERT_EQ(in_place[i], model(a[i + 1], s)) << "number, n " << n << " i " << i;
    }
  }
}

TYPED_TEST(LogicTyped, AndOrXorMatchElementwise) {
  using T = TypeParam;
  CheckBinary<T>(ComputeAnd, [](T x, T y) { return static_cast<T>(x & y); });
  CheckBinary<T>(ComputeOr, [](T x, T y) { return static_cast<T>(x | y); });
  CheckBinary<T>(ComputeXor, [](T x, T y) { return static_cast<T>(x ^ y); });
}

TYPED_TEST(LogicTyped, XorWithItselfAndIdentities) {
  using T = TypeParam;
  const ElementType t = TypeOf<T>::value;
  std::vector<T> a = Pattern<T>(57, 7);
  const std::vector<T> orig = a;
  const T zero = 0;
  std::vector<T> out(a.size());
  ASSERT_EQ(ComputeOr(0, a.data(), t, &zero, t, a.size(), out.data(), t), 0u);
  EXPECT_EQ(out, orig);
  ASSERT_EQ(ComputeAnd(0, a.data(), t, &zero, t, a.size(), out.data(), t), 0u);
  EXPECT_EQ(out, std::vector<T>(a.size(), 0));
  // One buffer as both operands and the destination.
  ASSERT_EQ(ComputeXor(1, a.data(), t, a.data(), t, a.size(), a.data(), t), 0u);
  EXPECT_EQ(a, std::vector<T>(a.size(), 0));
}

TEST(Logic, NotOfNamedValues) {
  uint8_t u8 = 0;
  int8_t i8 = 0;
  int32_t i32 = 5;
  uint64_t u64 = 0;
  ASSERT_EQ(ComputeNot(0, &u8, TypeUint8, nullptr, 0, 1, &u8, TypeUint8), 0u);
  ASSERT_EQ(ComputeNot(0, &i8, TypeInt8, nullptr, 0, 1, &i8, TypeInt8), 0u);
  ASSERT_EQ(ComputeNot(0, &i32, TypeInt32, nullptr, 0, 1, &i32, TypeInt32), 0u);
  ASSERT_EQ(ComputeNot(0, &u64, TypeUint64, nullptr, 0, 1, &u64, TypeUint64), 0u);
  EXPECT_EQ(u8, 255);
  EXPECT_EQ(i8, -1);
  EXPECT_EQ(i32, -6);
  EXPECT_EQ(u64, 18446744073709551615ull);
}

std::string TypeErrorText(ElementType t) {
  return std::string("invalid data type for operation (") + TypeIdent(t) + ")";
}

void ExpectRefused(uint32_t status, ElementType named, const unsigned char *dst, size_t n) {
  EXPECT_EQ(status, E_MSG);
  ASSERT_EQ(ExceptionCount(), 1u);
  EXPECT_EQ(std::string(ExceptionText(0)), TypeErrorText(named));
  ExceptionClear();
  for (size_t i = 0; i < n; ++i) EXPECT_EQ(dst[i], 0x5a) << i;
}

TEST(Logic, RefusalsNameTheRightType) {
  ExceptionClear();
  const unsigned char src[32] = {1, 2, 3};
  unsigned char dst[32];
  struct Case {
    ElementType t1, t2, dst, named;
  } cases[] = {
      {TypeInt16, TypeUint8, TypeInt16, TypeUint8},      // second operand's type first
      {TypeInt16, TypeInt32, TypeReal32, TypeInt32},
      {TypeInt16, TypeInt16, TypeUint16, TypeUint16},    // then the destination
      {TypeReal32, TypeReal32, TypeReal32, TypeReal32},  // then the type itself
      {TypeImag64, TypeImag64, TypeImag64, TypeImag64},
      {TypeCmplx32, TypeCmplx32, TypeCmplx32, TypeCmplx32},
      {TypeReal64, TypeInt8, TypeInt8, TypeInt8},
      {0x7777u, 0x7777u, 0x7777u, 0x7777u},
  };
  for (Kernel k : {ComputeAnd, ComputeOr, ComputeXor})
    for (const Case &c : cases)
      for (uint32_t is_array : {0u, 1u}) {
        std::memset(dst, 0x5a, sizeof dst);
        ExpectRefused(k(is_array, src, c.t1, src, c.t2, 2, dst, c.dst), c.named, dst, sizeof dst);
      }

  struct NotCase {
    ElementType t1, dst, named;
  } not_cases[] = {
      {TypeInt16, TypeInt32, TypeInt32},     // destination first
      {TypeReal32, TypeInt32, TypeInt32},
      {TypeReal32, TypeReal32, TypeReal32},  // then the type itself
      {TypeCmplx64, TypeCmplx64, TypeCmplx64},
      {TypeImag32, TypeImag32, TypeImag32},
  };
  for (const NotCase &c : not_cases) {
    std::memset(dst, 0x5a, sizeof dst);
    ExpectRefused(ComputeNot(0, src, c.t1, nullptr, 0, 2, dst, c.dst), c.named, dst, sizeof dst);
  }
}

}  // namespace
