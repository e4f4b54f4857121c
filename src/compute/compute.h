// The driver's chief header: element types, the operation table and every kernel.
#pragma once
#include "compute/types.h"

// Settles the destination type of a binary form from the two operands' types.
using ResultTypeRule = ElementType (*)(ElementType t1, ElementType t2);

struct OperationEntry {
  const char *name;
  Kernel unary_new;
  Kernel binary_new;
  Kernel unary_inplace;
  Kernel binary_inplace;
  ElementType result_type;
  uint32_t operand_class;  // OperandNumeric or OperandInteger
  ResultTypeRule result_rule;
};

inline constexpr uint32_t OperandNumeric = TypeCmplx32;
inline constexpr uint32_t OperandInteger = 0;

extern const OperationEntry OperationTable[];
extern OperationEntry TypeNameEntry;

ElementType AdditiveResultType(ElementType t1, ElementType t2);
ElementType MultiplicativeResultType(ElementType t1, ElementType t2);
[[noreturn]] ElementType InvalidCallRule(ElementType t1, ElementType t2);

// Shared refusal of a type: error 279 "invalid data type for operation (<name>)".
uint32_t ComputeTypeError(ElementType type);

// Conversion and copies.
uint32_t ComputeNop(ZV_KERNEL_ARGS);
uint32_t ComputeConvert(ZV_KERNEL_ARGS);

// Arithmetic.
uint32_t ComputeAdd(ZV_KERNEL_ARGS);
uint32_t ComputeSub(ZV_KERNEL_ARGS);
uint32_t ComputeNeg(ZV_KERNEL_ARGS);
uint32_t ComputeMul(ZV_KERNEL_ARGS);
uint32_t ComputeDiv(ZV_KERNEL_ARGS);
uint32_t ComputeConj(ZV_KERNEL_ARGS);
uint32_t ComputeRecip(ZV_KERNEL_ARGS);
uint32_t ComputeMod(ZV_KERNEL_ARGS);
uint32_t ComputeMulConj(ZV_KERNEL_ARGS);

// Elementary real functions; ElementToReal32 narrows one integer or real element.
uint32_t ComputeSqrt(ZV_KERNEL_ARGS);
uint32_t ComputeExp(ZV_KERNEL_ARGS);
uint32_t ComputeLn(ZV_KERNEL_ARGS);
uint32_t ComputeCos(ZV_KERNEL_ARGS);
uint32_t ComputeSin(ZV_KERNEL_ARGS);
uint32_t ComputeTan(ZV_KERNEL_ARGS);
uint32_t ComputeAsin(ZV_KERNEL_ARGS);
uint32_t ComputeAcos(ZV_KERNEL_ARGS);
uint32_t ComputeAtan(ZV_KERNEL_ARGS);

// Complex parts and magnitudes.
uint32_t ComputeAbs(ZV_KERNEL_ARGS);
uint32_t ComputeAbs2(ZV_KERNEL_ARGS);
uint32_t ComputeMufac(ZV_KERNEL_ARGS);
uint32_t ComputePhfac(ZV_KERNEL_ARGS);
uint32_t ComputePhase(ZV_KERNEL_ARGS);
uint32_t ComputeRe(ZV_KERNEL_ARGS);
uint32_t ComputeIm(ZV_KERNEL_ARGS);
uint32_t ComputeAddImag(ZV_KERNEL_ARGS);

// Minimum and maximum.
uint32_t ComputeMin(ZV_KERNEL_ARGS);
uint32_t ComputeMax(ZV_KERNEL_ARGS);

// Block statistics.
uint32_t ComputeZeromean(ZV_KERNEL_ARGS);
uint32_t ComputeRmsNorm(ZV_KERNEL_ARGS);

// Noise.
uint32_t ComputeAddUniform(ZV_KERNEL_ARGS);
uint32_t ComputeMulUniform(ZV_KERNEL_ARGS);
uint32_t ComputeAddNormal(ZV_KERNEL_ARGS);
uint32_t ComputeMulNormal(ZV_KERNEL_ARGS);
double RandomNormal(double a);
// The noise kernels' generator: the C library's rand() sequence (the same generator and seeding as
// srand/rand) on a state of its own. Unseeded it starts as rand() does, from seed 1.
void ComputeRandomSeed(uint32_t seed);
int32_t ComputeRandomDraw();

// Comparisons (uint8 masks).
uint32_t ComputeLt(ZV_KERNEL_ARGS);
uint32_t ComputeLe(ZV_KERNEL_ARGS);
uint32_t ComputeEq(ZV_KERNEL_ARGS);
uint32_t ComputeGe(ZV_KERNEL_ARGS);
uint32_t ComputeGt(ZV_KERNEL_ARGS);
uint32_t ComputeNe(ZV_KERNEL_ARGS);

// Bitwise logic.
uint32_t ComputeNot(ZV_KERNEL_ARGS);
uint32_t ComputeAnd(ZV_KERNEL_ARGS);
uint32_t ComputeOr(ZV_KERNEL_ARGS);
uint32_t ComputeXor(ZV_KERNEL_ARGS);
