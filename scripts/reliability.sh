#!/usr/bin/env bash
# The whole test suite under AddressSanitizer and UndefinedBehaviorSanitizer, then every fuzz target
# for a bounded time (ZV_FUZZ_SECONDS, default 60) from its committed corpus. Fails on any test
# failure, crash, leak or sanitizer report.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
missing=()
for p in clang libclang-rt-14-dev; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq && apt-get install -y -qq "${missing[@]}" >/dev/null
fi
jobs=$(nproc)
seconds=${ZV_FUZZ_SECONDS:-60}

echo "== sanitizer build and test suite"
rm -rf build-asan
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZV_SANITIZE=ON >/dev/null
cmake --build build-asan -j"$jobs" >/dev/null
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
(cd build-asan && ctest --output-on-failure -j"$jobs" --timeout 900)

echo "== fuzz targets, ${seconds} s each"
rm -rf build-fuzz
CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZV_FUZZ=ON -DZV_TESTS=OFF >/dev/null
cmake --build build-fuzz -j"$jobs" >/dev/null
for t in zv mrc npy auto option_args option_decl; do
  work=$(mktemp -d)
  log="$work/log"
  if ! ./build-fuzz/fuzz_$t -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix="$work/" "$work" "tests/fuzz/corpus/$t" >"$log" 2>&1; then
    tail -40 "$log"
    echo "fuzz_$t: FAILED; the crashing input is in $work (add it to tests/fuzz/corpus/$t once fixed)"
    exit 1
  fi
  runs=$(grep -o 'stat::number_of_executed_units: [0-9]*' "$log" | grep -o '[0-9]*$' || echo '?')
  echo "fuzz_$t: $runs executions in ${seconds} s, no crash"
  rm -rf "$work"
done
