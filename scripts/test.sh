#!/usr/bin/env bash
# Builds kvimage and runs the whole test suite: a GCC release build with
# warnings as errors (its CTest run includes the Python module's pytest suite,
# on Debian's interpreter), then Clang builds under AddressSanitizer +
# UndefinedBehaviorSanitizer (which also builds the fuzzer, runs its seed
# corpus as a test and then fuzzes for $KVIMAGE_FUZZ_SECONDS, 60 by default)
# and under ThreadSanitizer with 1, 2, 7 and 64 threads per pass. Build trees
# go to build/ (or $KVIMAGE_BUILD_ROOT).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=${KVIMAGE_BUILD_ROOT:-$root/build}
jobs=$(nproc)

# The tool needs the PNG and JPEG development packages, the plugins the
# frei0r header and their tests the video tools.
source "$root/scripts/install-deps.sh"

# Death tests abort on purpose; keep the sanitizers from adding reports of
# their own on those exits, and fail fast on anything else.
export ASAN_OPTIONS=${ASAN_OPTIONS:-abort_on_error=0:detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}

build() {
  local name=$1
  shift
  echo "== $name"
  cmake -S "$root" -B "$out/$name" -G Ninja -DKVIMAGE_WARNINGS_AS_ERRORS=ON "$@" >/dev/null
  cmake --build "$out/$name" -j"$jobs"
}

# Runs a built suite through CTest; KVIMAGE_TEST_THREADS, when set, is the
# thread count of every test that does not fix its own (tests/test_main.cc).
run_tests() {
  (cd "$out/$1" && ctest --output-on-failure -j"$jobs" --timeout 600)
}

# The sanitized builds leave the Python module out (a sanitized module cannot
# load into a plain interpreter).
build gcc-release -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_COMPILER=g++ -DPython_EXECUTABLE=/usr/bin/python3
run_tests gcc-release

# The sanitizer builds optimise lightly (-O1, line tables only): they are
# about catching faults, and a full -O2 -g build of the suite doubles CI time.
sanitized=(-DCMAKE_BUILD_TYPE=None -DCMAKE_CXX_FLAGS="-O1 -gline-tables-only" -DCMAKE_CXX_COMPILER=clang++
           -DKVIMAGE_BUILD_BENCHMARKS=OFF -DKVIMAGE_BUILD_EXAMPLES=OFF)

build clang-asan-ubsan "${sanitized[@]}" -DKVIMAGE_SANITIZE=address,undefined -DKVIMAGE_BUILD_FUZZERS=ON
run_tests clang-asan-ubsan
# A bounded fuzzing run of the public API on the same build; a finding
# (crash, leak, undefined behaviour, timeout, two renders that differ) fails
# CI and leaves its input under build/clang-asan-ubsan/fuzz-artifacts/.
"$root/scripts/fuzz.sh" "${KVIMAGE_FUZZ_SECONDS:-60}" "$out/clang-asan-ubsan"

# The thread sanitizer runs the suite with 1, 2, 7 and 64 threads per pass:
# one thread, the machine's two cores, an odd count that leaves uneven
# shares, and many more threads than cores (and than rows of small images).
build clang-tsan "${sanitized[@]}" -DKVIMAGE_SANITIZE=thread
for threads in 1 2 7 64; do
  echo "== clang-tsan, $threads threads"
  KVIMAGE_TEST_THREADS=$threads run_tests clang-tsan
done
echo "== all suites passed"
# How the tests weigh against the code they test.
python3 "$root/scripts/line-balance.py" "$root"
