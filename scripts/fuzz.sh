#!/usr/bin/env bash
# Builds the libFuzzer target over the public API with Clang, AddressSanitizer
# and UndefinedBehaviorSanitizer, and runs it for a bounded time from the seed
# corpus in tests/fuzz/corpus.
#
#   scripts/fuzz.sh [seconds] [build directory]
#
# Seconds default to 60. New inputs go to a scratch corpus next to the build
# (the repository's corpus is read only); a finding leaves its input as
# <build>/fuzz-artifacts/crash-*, oom-*, timeout-* or leak-* and makes the
# script fail. Re-run one with: <build>/tests/fuzz/kvimage_fuzz_pipelines FILE
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-60}
out=${2:-${KVIMAGE_BUILD_ROOT:-$root/build}/clang-fuzz}

if [ -f "$out/CMakeCache.txt" ]; then
  # An existing sanitizer build (scripts/test.sh passes its own): keep its
  # settings, only make sure the fuzzer is part of it.
  cmake -S "$root" -B "$out" -DKVIMAGE_BUILD_FUZZERS=ON >/dev/null
else
  cmake -S "$root" -B "$out" -G Ninja -DKVIMAGE_WARNINGS_AS_ERRORS=ON -DCMAKE_BUILD_TYPE=None \
    -DCMAKE_CXX_FLAGS="-O1 -gline-tables-only" -DCMAKE_CXX_COMPILER=clang++ \
    -DKVIMAGE_SANITIZE=address,undefined -DKVIMAGE_BUILD_FUZZERS=ON \
    -DKVIMAGE_BUILD_BENCHMARKS=OFF -DKVIMAGE_BUILD_EXAMPLES=OFF -DKVIMAGE_BUILD_TOOLS=OFF >/dev/null
fi
cmake --build "$out" -j"$(nproc)" --target kvimage_fuzz_pipelines
mkdir -p "$out/fuzz-corpus" "$out/fuzz-artifacts"
echo "== fuzzing the pipelines for $seconds s"
# Each execution gets 30 s and 2.5 GB at most.
ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1} UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1} \
  "$out/tests/fuzz/kvimage_fuzz_pipelines" -max_total_time="$seconds" -timeout=30 -rss_limit_mb=2560 \
  -max_len=512 -print_final_stats=1 -artifact_prefix="$out/fuzz-artifacts/" \
  -dict="$root/tests/fuzz/pipelines.dict" "$out/fuzz-corpus" "$root/tests/fuzz/corpus"
