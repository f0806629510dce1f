#!/usr/bin/env bash
# Builds kvimage_peers (Release; benchmarks and peers on, tests, tools and
# examples off) in build/peers, runs it (kvimage, OpenCV and libvips on the
# same 1920x1080 BGRA frames at 2 threads), runs ffmpeg's filters on those
# frames (bench/peers/ffmpeg.py), and prints the comparison as Markdown.
# The peers' packages come from scripts/install-deps.sh --peers.
#
#   bench/peers/run.sh [options]
#     --quick             one repetition of 0.05 s, 10 ffmpeg frames (a check that it works; noise)
#     --filter REGEX      only the jobs whose names match (memcpy always runs), e.g. 'blur|erode'
#     --min-time SECONDS  minimum time of each repetition (default 0.5)
#     --repetitions N     repetitions per benchmark and ffmpeg runs per command (default 3)
#     --frames N          frames per ffmpeg run (default 100)
#     --median            report the median of the repetitions instead of the fastest
#     --no-ffmpeg         leave out the ffmpeg rows
#     --update            also write the report into BENCHMARKS.md between its markers
#     --no-build          run what is already built
#     --build-dir DIR     build directory (default build/peers)
#
# Progress goes to standard error, the Markdown to standard output; the JSON
# results stay in the build directory (peers.json, ffmpeg.json).
set -euo pipefail

root=$(cd "$(dirname "$0")/../.." && pwd)
build=$root/build/peers
filter=""
min_time=0.5
repetitions=3
frames=100
statistic=min
with_ffmpeg=1
update=0
build_first=1
options=()

usage() {
  sed -n '2,21p' "$0" | sed 's/^# \{0,1\}//'
  exit "${1:-0}"
}

while [ $# -gt 0 ]; do
  case $1 in
    --quick) min_time=0.05; repetitions=1; frames=10; options+=("$1") ;;
    --filter) filter=${2:?--filter needs a regular expression}; options+=("$1" "'$2'"); shift ;;
    --min-time) min_time=${2:?--min-time needs seconds}; options+=("$1" "$2"); shift ;;
    --repetitions) repetitions=${2:?--repetitions needs a count}; options+=("$1" "$2"); shift ;;
    --frames) frames=${2:?--frames needs a count}; options+=("$1" "$2"); shift ;;
    --median) statistic=median; options+=("$1") ;;
    --no-ffmpeg) with_ffmpeg=0; options+=("$1") ;;
    --update) update=1 ;;
    --no-build) build_first=0 ;;
    --build-dir) build=${2:?--build-dir needs a directory}; shift ;;
    -h | --help) usage 0 ;;
    *) echo "run.sh: unknown option $1" >&2; usage 2 >&2 ;;
  esac
  shift
done

python=/usr/bin/python3
binary=$build/bench/peers/kvimage_peers
if [ "$build_first" = 1 ]; then
  generator=()
  if command -v ninja >/dev/null 2>&1; then generator=(-G Ninja); fi
  if [ ! -f "$build/CMakeCache.txt" ]; then
    cmake -S "$root" -B "$build" "${generator[@]}" -DCMAKE_BUILD_TYPE=Release \
      -DKVIMAGE_BUILD_BENCHMARKS=ON -DKVIMAGE_BUILD_PEERS=ON -DKVIMAGE_BUILD_TESTS=OFF \
      -DKVIMAGE_BUILD_TOOLS=OFF -DKVIMAGE_BUILD_EXAMPLES=OFF -DKVIMAGE_BUILD_PLUGINS=OFF \
      -DKVIMAGE_BUILD_PYTHON=OFF >&2
  fi
  cmake --build "$build" --target kvimage_peers -j"$(nproc)" >&2
fi
if [ ! -x "$binary" ]; then
  echo "run.sh: $binary was not built (scripts/install-deps.sh --peers installs what it needs)" >&2
  exit 1
fi

compiler=$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' "$build/CMakeCache.txt" 2>/dev/null || true)
build_type=$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$build/CMakeCache.txt" 2>/dev/null || true)
compiler_version=$("${compiler:-c++}" --version 2>/dev/null | head -n 1 || true)
build_info="${compiler_version:-unknown compiler}, ${build_type:-default} build"

json=$build/peers.json
arguments=(--benchmark_out="$json" --benchmark_out_format=json --benchmark_min_time="$min_time"
           --benchmark_repetitions="$repetitions" --benchmark_report_aggregates_only=true
           --benchmark_filter="BM_MemcpyFrame|${filter:-/}")
if [ "$repetitions" -gt 1 ]; then arguments+=(--benchmark_enable_random_interleaving=true); fi
echo "run.sh: $binary ${arguments[*]}" >&2
KVBENCH_SIZES=1920x1080 "$binary" "${arguments[@]}" >&2

report=(--min-time "$min_time" --repetitions "$repetitions" --statistic "$statistic" --build-info "$build_info"
        "--command-line=${options[*]:-}")
if [ "$with_ffmpeg" = 1 ]; then
  frames_dir=$build/frames
  mkdir -p "$frames_dir"
  "$binary" --write-frames="$frames_dir"
  ffmpeg_json=$build/ffmpeg.json
  "$python" "$root/bench/peers/ffmpeg.py" "$frames_dir" --frames "$frames" --repetitions "$repetitions" \
    --threads 2 --filter "$filter" --output "$ffmpeg_json" >&2
  report+=(--ffmpeg "$ffmpeg_json")
fi
if [ "$update" = 1 ]; then report+=(--update "$root/BENCHMARKS.md"); fi
"$python" "$root/bench/peers/report.py" "$json" "${report[@]}"
