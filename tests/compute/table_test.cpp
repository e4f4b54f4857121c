// Result-type rules and the invariants of the operation table.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "compute/compute.h"

namespace {

const ElementType kAll[] = {TypeUint8, TypeUint16, TypeUint32, TypeUint64, TypeInt8,   TypeInt16,   TypeInt32,
                            TypeInt64, TypeReal32, TypeReal64, TypeImag32, TypeImag64, TypeCmplx32, TypeCmplx64};

TEST(ResultTypeRules, SinglePrecisionResultsForEveryPair) {
  for (ElementType a : kAll) {
    for (ElementType b : kAll) {
      int ia = IsImagType(a), ib = IsImagType(b);
      bool cx = IsCmplxType(a) || IsCmplxType(b);
      ElementType add = cx ? TypeCmplx32 : ia && ib ? TypeImag32 : ia || ib ? TypeCmplx32 : TypeReal32;
      ElementType mul = cx ? TypeCmplx32 : ia && ib ? TypeReal32 : ia || ib ? TypeImag32 : TypeReal32;
      EXPECT_EQ(AdditiveResultType(a, b), add) << std::hex << a << " " << b;
      EXPECT_EQ(MultiplicativeResultType(a, b), mul) << std::hex << a << " " << b;
    }
  }
}

TEST(OperationTable, RowsInLookupOrderWithConsistentSlots) {
  const char *names[] = {"+",     "-",     "*",    "/",     "%",     "**",   "abs",  "abs2", "mufac", "phfac", "phase", "re",
                         "im",    "+i",    "min",  "max",   "sqrt",  "exp",  "ln",   "cos",  "sin",   "tan",   "asin",  "acos",
                         "atan",  "-mean", "/rms", "+uran", "*uran", "+nran", "*nran", "lt", "le",    "eq",    "ge",    "gt",
                         "ne",    "byte",  "int",  "real",  "complex", "not", "and",  "or",  "xor"};
  size_t n = 0;
  for (const OperationEntry *e = OperationTable; e->name; ++e, ++n) {
    ASSERT_LT(n, std::size(names));
    EXPECT_STREQ(e->name, names[n]);
    if (std::strcmp(e->name, "+") != 0 && e->unary_new && e->unary_inplace) {
      EXPECT_EQ(e->unary_new, e->unary_inplace) << e->name;
    }
    if (e->binary_new && e->binary_inplace) {
      EXPECT_EQ(e->binary_new, e->binary_inplace) << e->name;
    }
    bool rule = e->result_rule != nullptr;
    EXPECT_EQ(rule, e->operand_class == OperandNumeric && e->result_type == 0) << e->name;
  }
  EXPECT_EQ(n, std::size(names));
}

TEST(OperationTable, TypeNamesDoNotShadowOperationWords) {
  for (int i = 0; TypeIdentTab[i]; ++i)
    for (const OperationEntry *e = OperationTable; e->name; ++e) EXPECT_STRNE(TypeIdentTab[i], e->name);
}

}  // namespace
