// Result-type rules of the binary numeric operations. Results are always single precision.
#include <cstdlib>

#include "compute/compute.h"
#include "platform/core/errors.h"

ElementType AdditiveResultType(ElementType t1, ElementType t2) {
  if (IsCmplxType(t1) || IsCmplxType(t2)) return TypeCmplx32;
  bool i1 = IsImagType(t1), i2 = IsImagType(t2);
  if (i1 && i2) return TypeImag32;
  if (i1 || i2) return TypeCmplx32;  // a real plus an imaginary number is complex
  return TypeReal32;
}

ElementType MultiplicativeResultType(ElementType t1, ElementType t2) {
  if (IsCmplxType(t1) || IsCmplxType(t2)) return TypeCmplx32;
  bool i1 = IsImagType(t1), i2 = IsImagType(t2);
  if (i1 && i2) return TypeReal32;  // i * i is real
  if (i1 || i2) return TypeImag32;
  return TypeReal32;
}

ElementType InvalidCallRule(ElementType, ElementType) {
  ExceptionPushMsg(E_MSG, "invalid call", nullptr);
  std::exit(1);
}
