// Element type codes and the type-name table of the core library.
#pragma once
#include <cstdint>

// A type code: byte 0 element size, byte 1 component count times 16, byte 2 class
// (0x20 unsigned, 0x30 signed, 0x50 real, 0x90 imaginary, 0xd0 complex).
inline constexpr uint32_t TypeUint8 = 0x201001;
inline constexpr uint32_t TypeUint16 = 0x201002;
inline constexpr uint32_t TypeUint32 = 0x201004;
inline constexpr uint32_t TypeUint64 = 0x201008;
inline constexpr uint32_t TypeInt8 = 0x301001;
inline constexpr uint32_t TypeInt16 = 0x301002;
inline constexpr uint32_t TypeInt32 = 0x301004;
inline constexpr uint32_t TypeInt64 = 0x301008;
inline constexpr uint32_t TypeReal32 = 0x501004;
inline constexpr uint32_t TypeReal64 = 0x501008;
inline constexpr uint32_t TypeImag32 = 0x901004;
inline constexpr uint32_t TypeImag64 = 0x901008;
inline constexpr uint32_t TypeCmplx32 = 0xd02008;
inline constexpr uint32_t TypeCmplx64 = 0xd02010;

inline constexpr uint32_t TypeSize(uint32_t type) { return type & 0xff; }

// One of the fourteen element types.
inline constexpr bool TypeKnown(uint32_t type) {
  switch (type) {
    case TypeUint8: case TypeUint16: case TypeUint32: case TypeUint64:
    case TypeInt8: case TypeInt16: case TypeInt32: case TypeInt64:
    case TypeReal32: case TypeReal64: case TypeImag32: case TypeImag64:
    case TypeCmplx32: case TypeCmplx64:
      return true;
    default:
      return false;
  }
}

// 20 names and a null end; TypeCodeTab holds the code of each name at the same index.
extern const char *const TypeIdentTab[21];
extern const uint32_t TypeCodeTab[20];

// Printable name of a type code; codes outside the table get a hexadecimal text.
const char *TypeIdent(uint32_t type);
