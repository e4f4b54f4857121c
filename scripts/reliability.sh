#!/usr/bin/env bash
# The whole test suite under AddressSanitizer and UndefinedBehaviorSanitizer, then every fuzz target
# for a bounded time (ZV_FUZZ_SECONDS, default 60) from its committed corpus, as many at once as there
# are cores. Fails on any test failure, crash, leak, hang or sanitizer report.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh clang libclang-rt-14-dev
jobs=$(nproc)
seconds=${ZV_FUZZ_SECONDS:-60}
# One reader target per format (named after its file under src/platform/imageio/formats), then the rest.
mapfile -t formats < <(basename -s .cpp src/platform/imageio/formats/*.cpp)
targets=("${formats[@]}" auto option_args option_decl)

# A sanitizer report must not pass for the tool's own exit status 1.
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:exitcode=86
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1:exitcode=87

echo "== sanitizer build and test suite"
rm -rf build-asan
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZV_SANITIZE=ON >/dev/null
cmake --build build-asan -j"$jobs" >/dev/null
(cd build-asan && ctest --output-on-failure -j"$jobs" --timeout 900)

echo "== fuzz targets, ${seconds} s each"
rm -rf build-fuzz
CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZV_FUZZ=ON -DZV_TESTS=OFF >/dev/null
cmake --build build-fuzz -j"$jobs" --target "${targets[@]/#/fuzz_}" >/dev/null
work=$(mktemp -d)
run_target() {
  local t=$1
  mkdir -p "$work/$t/new" "$work/$t/crash"
  # New inputs go to a scratch directory: the committed corpus stays as it is.
  TMPDIR="$work/$t" ./build-fuzz/fuzz_$t -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$work/$t/crash/" "$work/$t/new" "tests/fuzz/corpus/$t" \
    >"$work/$t/log" 2>&1
}
for t in "${targets[@]}"; do
  while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do wait -n || true; done
  (
    rc=0
    run_target "$t" || rc=$?
    echo "$rc" >"$work/$t.rc"
  ) &
done
wait
failed=0
for t in "${targets[@]}"; do
  if [ "$(cat "$work/$t.rc")" = 0 ]; then
    runs=$(grep -o 'stat::number_of_executed_units: [0-9]*' "$work/$t/log" | grep -o '[0-9]*$' || echo '?')
    echo "fuzz_$t: $runs executions in ${seconds} s, no crash"
  else
    failed=1
    tail -40 "$work/$t/log"
    keep="build-fuzz/crash-$t"
    mkdir -p "$keep"
    cp "$work/$t/crash/"* "$keep/" 2>/dev/null || true
    echo "fuzz_$t: FAILED; the crashing input is in $keep (add it to tests/fuzz/corpus/$t once fixed)"
  fi
done
rm -rf "$work"
[ "$failed" -eq 0 ] && echo "reliability: sanitizer tests and fuzzing clean"
exit "$failed"
