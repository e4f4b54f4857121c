// Processor floating-point mode.
#pragma once

// Flush subnormal results to zero and read subnormal operands as zero (MXCSR FTZ and DAZ).
void CoreSetFlushToZero();
