#include <gtest/gtest.h>

#include "options/options.h"
#include "platform/core/core.h"
#include "platform/core/fpu.h"

// Every test runs with the tool's floating-point mode (subnormals flushed to zero) and the error
// texts of the image-file library and the options module registered.
int main(int argc, char **argv) {
  CoreSetFlushToZero();
  if (ImageioModule.function() || OptionsModuleInit()) return 2;
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
