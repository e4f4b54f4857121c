// Element types and the kernel signature shared by the driver and every kernel.
#pragma once
#include <cstdint>

#include "platform/core/types.h"

using ElementType = uint32_t;

inline constexpr bool IsIntegerType(ElementType t) { return (t == TypeUint8 || t == TypeUint16 || t == TypeUint32 || t == TypeUint64 || t == TypeInt8 || t == TypeInt16 || t == TypeInt32 || t == TypeInt64); }
inline constexpr bool IsImagType(ElementType t) { return t == TypeImag32 || t == TypeImag64; }
inline constexpr bool IsCmplxType(ElementType t) { return t == TypeCmplx32 || t == TypeCmplx64; }
inline constexpr bool IsRealOrIntegerType(ElementType t) { return IsIntegerType(t) || t == TypeReal32 || t == TypeReal64; }
inline constexpr bool IsKnownType(ElementType t) { return TypeKnown(t); }

// Every operation kernel: one block of count elements. src2 is count elements when operand2_is_array
// is 1, one element otherwise (null for unary kernels). In place, dst equals src1 and dst_type equals
// src1_type. Returns 0 or the status of the error it pushed.
using Kernel = uint32_t (*)(uint32_t operand2_is_array, const void *src1, ElementType src1_type,
                            const void *src2, ElementType src2_type, uint64_t count, void *dst,
                            ElementType dst_type);

#define ZV_KERNEL_ARGS                                                                          \
  uint32_t operand2_is_array, const void *src1, ElementType src1_type, const void *src2,      \
      ElementType src2_type, uint64_t count, void *dst, ElementType dst_type
