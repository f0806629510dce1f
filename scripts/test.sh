#!/usr/bin/env bash
# Builds kvimage and runs the whole test suite three times: a GCC release
# build with warnings as errors, then Clang builds under AddressSanitizer +
# UndefinedBehaviorSanitizer and under ThreadSanitizer. Build trees go to
# build/ (or $KVIMAGE_BUILD_ROOT).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=${KVIMAGE_BUILD_ROOT:-$root/build}
jobs=$(nproc)

# The tool needs the PNG and JPEG development packages.
source "$root/scripts/install-deps.sh"

# Death tests abort on purpose; keep the sanitizers from adding reports of
# their own on those exits, and fail fast on anything else.
export ASAN_OPTIONS=${ASAN_OPTIONS:-abort_on_error=0:detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}

run_suite() {
  local name=$1
  shift
  echo "== $name"
  cmake -S "$root" -B "$out/$name" -G Ninja -DKVIMAGE_WARNINGS_AS_ERRORS=ON "$@" >/dev/null
  cmake --build "$out/$name" -j"$jobs"
  (cd "$out/$name" && ctest --output-on-failure -j"$jobs" --timeout 600)
}

run_suite gcc-release -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_COMPILER=g++
# The sanitizer builds optimise lightly (-O1, line tables only): they are
# about catching faults, and a full -O2 -g build of the suite doubles CI time.
run_suite clang-asan-ubsan -DCMAKE_BUILD_TYPE=None -DCMAKE_CXX_FLAGS="-O1 -gline-tables-only" -DCMAKE_CXX_COMPILER=clang++ \
  -DKVIMAGE_SANITIZE=address,undefined -DKVIMAGE_BUILD_BENCHMARKS=OFF -DKVIMAGE_BUILD_EXAMPLES=OFF
run_suite clang-tsan -DCMAKE_BUILD_TYPE=None -DCMAKE_CXX_FLAGS="-O1 -gline-tables-only" -DCMAKE_CXX_COMPILER=clang++ \
  -DKVIMAGE_SANITIZE=thread -DKVIMAGE_BUILD_BENCHMARKS=OFF -DKVIMAGE_BUILD_EXAMPLES=OFF
echo "== all suites passed"
