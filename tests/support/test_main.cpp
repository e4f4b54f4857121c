#include <gtest/gtest.h>

#include "platform/core/fpu.h"

// Every test runs with the tool's floating-point mode: subnormals flushed to zero.
int main(int argc, char **argv) {
  CoreSetFlushToZero();
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
