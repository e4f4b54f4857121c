// The operation table: one row per operation word, in lookup order.
#include "compute/compute.h"

// Chosen when the operation word is a type name: converts the first operand into that type.
OperationEntry TypeNameEntry = {nullptr, ComputeConvert, nullptr, nullptr, nullptr, 0, OperandNumeric,
                                InvalidCallRule};

// name, unary_new, binary_new, unary_inplace, binary_inplace, result_type, operand_class, result_rule
const OperationEntry OperationTable[] = {
    // arithmetic
    {"+", ComputeConvert, ComputeAdd, ComputeNop, ComputeAdd, 0, OperandNumeric, AdditiveResultType},
    {"-", ComputeNeg, ComputeSub, ComputeNeg, ComputeSub, 0, OperandNumeric, AdditiveResultType},
    {"*", ComputeConj, ComputeMul, ComputeConj, ComputeMul, 0, OperandNumeric, MultiplicativeResultType},
    {"/", ComputeRecip, ComputeDiv, ComputeRecip, ComputeDiv, 0, OperandNumeric, MultiplicativeResultType},
    {"%", nullptr, ComputeMod, nullptr, ComputeMod, 0, OperandNumeric, MultiplicativeResultType},
    {"**", nullptr, ComputeMulConj, nullptr, ComputeMulConj, 0, OperandNumeric, MultiplicativeResultType},
    // complex parts, minimum and maximum, elementary functions
    {"abs", ComputeAbs, nullptr, ComputeAbs, nullptr, TypeReal32, OperandNumeric, nullptr},
    {"abs2", ComputeAbs2, nullptr, ComputeAbs2, nullptr, TypeReal32, OperandNumeric, nullptr},
    {"mufac", ComputeMufac, nullptr, ComputeMufac, nullptr, TypeCmplx32, OperandNumeric, nullptr},
    {"phfac", ComputePhfac, nullptr, ComputePhfac, nullptr, TypeCmplx32, OperandNumeric, nullptr},
    {"phase", ComputePhase, nullptr, ComputePhase, nullptr, TypeReal32, OperandNumeric, nullptr},
    {"re", ComputeRe, nullptr, nullptr, nullptr, TypeReal32, OperandNumeric, nullptr},
    {"im", ComputeIm, nullptr, nullptr, nullptr, TypeReal32, OperandNumeric, nullptr},
    {"+i", nullptr, ComputeAddImag, nullptr, nullptr, TypeCmplx32, OperandNumeric, nullptr},
    {"min", nullptr, ComputeMin, nullptr, ComputeMin, TypeReal32, OperandNumeric, nullptr},
    {"max", nullptr, ComputeMax, nullptr, ComputeMax, TypeReal32, OperandNumeric, nullptr},
    {"sqrt", ComputeSqrt, nullptr, ComputeSqrt, nullptr, TypeReal32, OperandNumeric, nullptr},
    {"exp", ComputeExp, nullptr, ComputeExp, nullptr, TypeReal32, OperandNumeric, nullptr},
    {"ln", ComputeLn, nullptr, ComputeLn, nullptr, TypeReal32, OperandNumeric, nullptr},
    {"cos", ComputeCos, nullptr, ComputeCos, nullptr, TypeReal32, OperandNumeric, nullptr},
    {"sin", ComputeSin, nullptr, ComputeSin, nullptr, TypeReal32, OperandNumeric, nullptr},
    {"tan", ComputeTan, nullptr, ComputeTan, nullptr, TypeReal32, OperandNumeric, nullptr},
    {"asin", ComputeAsin, nullptr, ComputeAsin, nullptr, TypeReal32, OperandNumeric, nullptr},
    {"acos", ComputeAcos, nullptr, ComputeAcos, nullptr, TypeReal32, OperandNumeric, nullptr},
    {"atan", ComputeAtan, nullptr, ComputeAtan, nullptr, TypeReal32, OperandNumeric, nullptr},
    // mean removal, RMS normalisation, noise, comparisons
    {"-mean", ComputeZeromean, nullptr, ComputeZeromean, nullptr, 0, OperandNumeric, InvalidCallRule},
    {"/rms", ComputeRmsNorm, nullptr, ComputeRmsNorm, nullptr, 0, OperandNumeric, InvalidCallRule},
    {"+uran", nullptr, ComputeAddUniform, nullptr, ComputeAddUniform, 0, OperandNumeric, AdditiveResultType},
    {"*uran", nullptr, ComputeMulUniform, nullptr, ComputeMulUniform, 0, OperandNumeric, MultiplicativeResultType},
    {"+nran", nullptr, ComputeAddNormal, nullptr, ComputeAddNormal, 0, OperandNumeric, AdditiveResultType},
    {"*nran", nullptr, ComputeMulNormal, nullptr, ComputeMulNormal, 0, OperandNumeric, MultiplicativeResultType},
    {"lt", nullptr, ComputeLt, nullptr, ComputeLt, TypeUint8, OperandNumeric, nullptr},
    {"le", nullptr, ComputeLe, nullptr, ComputeLe, TypeUint8, OperandNumeric, nullptr},
    {"eq", nullptr, ComputeEq, nullptr, ComputeEq, TypeUint8, OperandNumeric, nullptr},
    {"ge", nullptr, ComputeGe, nullptr, ComputeGe, TypeUint8, OperandNumeric, nullptr},
    {"gt", nullptr, ComputeGt, nullptr, ComputeGt, TypeUint8, OperandNumeric, nullptr},
    {"ne", nullptr, ComputeNe, nullptr, ComputeNe, TypeUint8, OperandNumeric, nullptr},
    // conversions
    {"byte", ComputeConvert, nullptr, nullptr, nullptr, TypeUint8, OperandNumeric, nullptr},
    {"int", ComputeConvert, nullptr, nullptr, nullptr, TypeInt16, OperandNumeric, nullptr},
    {"real", ComputeConvert, nullptr, nullptr, nullptr, TypeReal32, OperandNumeric, nullptr},
    {"complex", ComputeConvert, nullptr, nullptr, nullptr, TypeCmplx32, OperandNumeric, nullptr},
    // bitwise logic
    {"not", ComputeNot, nullptr, ComputeNot, nullptr, 0, OperandInteger, nullptr},
    {"and", nullptr, ComputeAnd, nullptr, ComputeAnd, 0, OperandInteger, nullptr},
    {"or", nullptr, ComputeOr, nullptr, ComputeOr, 0, OperandInteger, nullptr},
    {"xor", nullptr, ComputeXor, nullptr, ComputeXor, 0, OperandInteger, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr, 0, 0, nullptr},
};
