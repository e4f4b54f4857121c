#!/usr/bin/env bash
# Builds from scratch and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
rm -rf build
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release
cmake --build build -j"$(nproc)"
cd build && ctest --output-on-failure -j"$(nproc)" --timeout 300
