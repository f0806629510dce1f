#!/usr/bin/env bash
# Builds the benchmark suite (Release; tests, tools and examples off) in
# build/bench, runs it and prints the results as Markdown: every stage at
# every frame size on 1 and 2 cores with its time, megapixels per second,
# ratio to the memcpy of the same frame in the same run and 2/1-core
# speed-up, then the speed targets marked met or not.
#
#   bench/run.sh [options]
#     --quick             1920x1080 only, one repetition of 0.05 s (about 2 minutes)
#     --filter REGEX      only the benchmarks whose names match (the memcpy
#                         baselines always run), e.g. 'stack-blur|keyer/'
#     --min-time SECONDS  minimum time of each repetition (default 0.1)
#     --repetitions N     repetitions per benchmark; the fastest is reported (default 3)
#     --median            report the median of the repetitions instead of the fastest
#     --sizes LIST        frame sizes, e.g. 1920x1080,3840x2160 (the default)
#     --update            also write the tables into BENCHMARKS.md between its markers
#     --no-build          run the suite already built
#     --build-dir DIR     build directory (default build/bench)
#
# Progress goes to standard error, the Markdown to standard output; the JSON
# results stay in the build directory (results.json).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build/bench
filter=""
min_time=0.1
repetitions=3
sizes="1920x1080,3840x2160"
update=0
statistic=min
build_first=1
options=()

usage() {
  sed -n '2,21p' "$0" | sed 's/^# \{0,1\}//'
  exit "${1:-0}"
}

while [ $# -gt 0 ]; do
  case $1 in
    --quick) sizes=1920x1080; min_time=0.05; repetitions=1; options+=("$1") ;;
    --filter) filter=${2:?--filter needs a regular expression}; options+=("$1" "'$2'"); shift ;;
    --min-time) min_time=${2:?--min-time needs seconds}; options+=("$1" "$2"); shift ;;
    --repetitions) repetitions=${2:?--repetitions needs a count}; options+=("$1" "$2"); shift ;;
    --sizes) sizes=${2:?--sizes needs a list}; options+=("$1" "$2"); shift ;;
    --median) statistic=median; options+=("$1") ;;
    --update) update=1 ;;
    --no-build) build_first=0 ;;
    --build-dir) build=${2:?--build-dir needs a directory}; shift ;;
    -h | --help) usage 0 ;;
    *) echo "run.sh: unknown option $1" >&2; usage 2 >&2 ;;
  esac
  shift
done

python=$(command -v python3 || true)
if [ -z "$python" ]; then
  echo "run.sh: python3 is needed for the report (standard library only)" >&2
  exit 1
fi

binary=$build/bench/kvimage_bench
if [ "$build_first" = 1 ]; then
  generator=()
  if command -v ninja >/dev/null 2>&1; then generator=(-G Ninja); fi
  if [ ! -f "$build/CMakeCache.txt" ]; then
    cmake -S "$root" -B "$build" "${generator[@]}" -DCMAKE_BUILD_TYPE=Release \
      -DKVIMAGE_BUILD_BENCHMARKS=ON -DKVIMAGE_BUILD_TESTS=OFF -DKVIMAGE_BUILD_TOOLS=OFF \
      -DKVIMAGE_BUILD_EXAMPLES=OFF >&2
  fi
  cmake --build "$build" -j"$(nproc)" >&2
fi
if [ ! -x "$binary" ]; then
  echo "run.sh: $binary was not built (is Google Benchmark installed? CMake reports it when configuring)" >&2
  exit 1
fi

compiler=$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' "$build/CMakeCache.txt" 2>/dev/null || true)
build_type=$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$build/CMakeCache.txt" 2>/dev/null || true)
compiler_version=$("${compiler:-c++}" --version 2>/dev/null | head -n 1 || true)
build_info="${compiler_version:-unknown compiler}, ${build_type:-default} build"

json=$build/results.json
arguments=(--benchmark_out="$json" --benchmark_out_format=json --benchmark_min_time="$min_time"
           --benchmark_repetitions="$repetitions" --benchmark_report_aggregates_only=true)
# Repetitions run in random order across the whole suite, so that a burst of
# other work on the machine slows one repetition of a benchmark, not all.
if [ "$repetitions" -gt 1 ]; then arguments+=(--benchmark_enable_random_interleaving=true); fi
if [ -n "$filter" ]; then arguments+=(--benchmark_filter="BM_MemcpyFrame|$filter"); fi

echo "run.sh: $binary ${arguments[*]} (sizes $sizes)" >&2
KVBENCH_SIZES=$sizes "$binary" "${arguments[@]}" >&2

report=(--min-time "$min_time" --repetitions "$repetitions" --statistic "$statistic" --build-info "$build_info"
        "--command-line=${options[*]:-}")
if [ "$update" = 1 ]; then report+=(--update "$root/BENCHMARKS.md"); fi
"$python" "$root/bench/report.py" "$json" "${report[@]}"
