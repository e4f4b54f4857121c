#include "compute/driver.h"

int main(int argc, char **argv) { return ComputeMain(argc, argv); }
