#!/usr/bin/env bash
# Builds and runs every test: the sanitizer build (AddressSanitizer and
# UBSan) with all unit tests, the install checks and the layering check,
# clang-tidy over the library sources, the ThreadSanitizer build of the
# concurrency tests, and a short smoke run of each fuzz target under clang.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs="${QUENLIB_JOBS:-2}"

echo "== AddressSanitizer + UBSan build and tests"
cmake --preset dev >/dev/null
cmake --build --preset dev -j"$jobs"
ctest --preset dev

echo "== clang-tidy over the library sources"
run-clang-tidy -p build/dev -j "$jobs" -quiet "$PWD/src/" >build/dev/clang-tidy.log 2>&1 || {
  grep -E 'warning:|error:' build/dev/clang-tidy.log | sort -u
  echo "clang-tidy found problems (full log: build/dev/clang-tidy.log)"
  exit 1
}
echo "clang-tidy: clean"

echo "== ThreadSanitizer: concurrency tests"
cmake --preset tsan >/dev/null
tsan_targets=$(find tests -name 'test_*concurrent*.cpp' -printf '%f\n' | sed 's/\.cpp$//' | sort)
if [ -n "$tsan_targets" ]; then
  # shellcheck disable=SC2086
  for t in $tsan_targets; do cmake --build --preset tsan -j"$jobs" --target "$t"; done
  TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" ctest --preset tsan -R 'Concurrent'
fi

if [ -n "$(ls fuzz/fuzz_*.cpp 2>/dev/null)" ] && command -v clang++ >/dev/null; then
  echo "== libFuzzer smoke runs"
  cmake --preset fuzz >/dev/null
  cmake --build --preset fuzz -j"$jobs"
  ctest --preset fuzz
fi
