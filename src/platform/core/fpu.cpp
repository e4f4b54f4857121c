#include "platform/core/fpu.h"

#include <xmmintrin.h>

void CoreSetFlushToZero() { _mm_setcsr(_mm_getcsr() | 0x8040); }
