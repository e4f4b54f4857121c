#include "platform/core/types.h"

#include <cstdio>

// The fourteen labels, then aliases familiar from C and array libraries.
const char *const TypeIdentTab[21] = {
    "uint8",   "uint16", "uint32", "uint64", "int8",   "int16",  "int32",
    "int64",   "real32", "real64", "imag32", "imag64", "cmplx32", "cmplx64",
    "float",   "double", "short",  "ushort", "cfloat", "cdouble", nullptr,
};

const uint32_t TypeCodeTab[20] = {
    TypeUint8,  TypeUint16, TypeUint32, TypeUint64, TypeInt8,    TypeInt16,   TypeInt32,
    TypeInt64,  TypeReal32, TypeReal64, TypeImag32, TypeImag64,  TypeCmplx32, TypeCmplx64,
    TypeReal32, TypeReal64, TypeInt16,  TypeUint16, TypeCmplx32, TypeCmplx64,
};

const char *TypeIdent(uint32_t type) {
  for (int i = 0; i < 14; ++i)
    if (TypeCodeTab[i] == type) return TypeIdentTab[i];
  // Unknown codes are named by their value; the buffer holds the latest one.
  static char buf[24];
  std::snprintf(buf, sizeof buf, "0x%x", type);
  return buf;
}
