// The C library's mathematical functions as the kernels call them.
//
// The process runs with flush-to-zero and denormals-are-zero, but those modes act only on the
// processor's own arithmetic and do not reach inside the library: sinf returns a tiny argument
// untouched, logf takes subnormal arguments down an integer path of its own, and some results are
// assembled from bits. So the kernels reach the library only through this header, whose functions
// hand the library arguments already flushed and flush what comes back, as the processor would. In
// the kernels' own sources the library's names are poisoned below, so no kernel can call around it.
#pragma once
#include <cmath>
#include <cstdint>
#include <cstring>

// Block functions of one binary32 argument: dst[k] = f(src[k]) for k < n; src may be dst.
enum class LibUnary : uint32_t { Exp, Log, Sin, Cos, Tan, Asin, Acos, Atan, Count };
void LibMap(LibUnary f, const float *src, float *dst, uint64_t n);

// Block functions of the n complex values (a, b) at pairs (2n binary32 values): atan2f(b, a) or
// hypotf(a, b) into dst[k].
enum class LibPair : uint32_t { Phase, Magnitude, Count };
void LibMapPairs(LibPair f, const float *pairs, float *dst, uint64_t n);

// Element by element, for the few calls that do not come in blocks.
// A subnormal becomes the zero of its sign, decided on the bits (so independent of the processor's
// modes); every other value, NaN payloads included, passes unchanged. The common case costs one
// predicted compare; zeros and subnormals take the bit test out of line.
[[gnu::cold, gnu::noinline]] inline double FlushSubnormalBits(double x) {
  uint64_t b;
  std::memcpy(&b, &x, 8);
  if ((b & 0x7ff0000000000000u) == 0) b &= 0x8000000000000000u;
  std::memcpy(&x, &b, 8);
  return x;
}
inline double FlushSubnormal(double x) {
  if (__builtin_expect(!(std::fabs(x) < 0x1p-1022), 1)) return x;
  return FlushSubnormalBits(x);
}
[[gnu::cold, gnu::noinline]] inline float FlushSubnormalBits(float x) {
  uint32_t b;
  std::memcpy(&b, &x, 4);
  if ((b & 0x7f800000u) == 0) b &= 0x80000000u;
  std::memcpy(&x, &b, 4);
  return x;
}
inline float FlushSubnormal(float x) {
  if (__builtin_expect(!(std::fabs(x) < 0x1p-126f), 1)) return x;
  return FlushSubnormalBits(x);
}

template <auto F, class... A> inline auto CallFlushed(A... a) { return FlushSubnormal(F(FlushSubnormal(a)...)); }

// The binary64 natural logarithm of the Gaussian noise.
inline double LibLog64(double x) { return CallFlushed<static_cast<double (*)(double)>(::log)>(x); }

#if defined(ZV_KERNEL_SOURCE) && !defined(ZV_LIBM_IMPLEMENTATION)
#pragma GCC poison sin cos tan asin acos atan atan2 exp exp2 expm1 log log2 log10 log1p hypot pow cbrt
#pragma GCC poison sinf cosf tanf asinf acosf atanf atan2f expf exp2f expm1f logf log2f log10f log1pf
#pragma GCC poison hypotf powf cbrtf sinh cosh tanh sinhf coshf tanhf
#endif
