#!/usr/bin/env bash
# Builds everything (library, kvimage tool, tests, benchmarks, example) and
# runs `kvimage demo`, which keys a synthetic green-screen frame, composites it
# and writes its pictures to build/demo (or $KVIMAGE_DEMO_OUT). The build tree
# is the one scripts/test.sh uses first, so running both builds once.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=${KVIMAGE_BUILD_ROOT:-$root/build}

# The tool reads and writes PNG and JPEG files: install the development
# packages when the machine lacks them.
missing=()
dpkg -s libpng-dev >/dev/null 2>&1 || missing+=(libpng-dev)
dpkg -s libjpeg62-turbo-dev >/dev/null 2>&1 || dpkg -s libjpeg-dev >/dev/null 2>&1 || missing+=(libjpeg62-turbo-dev)
if ((${#missing[@]})); then
  sudo=$([ "$(id -u)" -eq 0 ] || echo sudo)
  $sudo apt-get update -qq && $sudo apt-get install -y -qq "${missing[@]}"
fi

cmake -S "$root" -B "$out/gcc-release" -G Ninja -DKVIMAGE_WARNINGS_AS_ERRORS=ON -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_CXX_COMPILER=g++ >/dev/null
cmake --build "$out/gcc-release" -j"$(nproc)"
"$out/gcc-release/tools/kvimage/kvimage" demo --out "${KVIMAGE_DEMO_OUT:-$out/demo}"
