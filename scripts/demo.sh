#!/usr/bin/env bash
# Builds everything (library, kvimage tool, Python module, tests, benchmarks,
# examples) and runs `kvimage demo`, which keys a synthetic green-screen frame,
# composites it and writes its pictures to build/demo (or $KVIMAGE_DEMO_OUT). The build tree
# is the one scripts/test.sh uses first, so running both builds once.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=${KVIMAGE_BUILD_ROOT:-$root/build}

# The tool needs the PNG and JPEG development packages, the plugins the
# frei0r header and their tests the video tools.
source "$root/scripts/install-deps.sh"

cmake -S "$root" -B "$out/gcc-release" -G Ninja -DKVIMAGE_WARNINGS_AS_ERRORS=ON -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_CXX_COMPILER=g++ -DPython_EXECUTABLE=/usr/bin/python3 >/dev/null
cmake --build "$out/gcc-release" -j"$(nproc)"
"$out/gcc-release/tools/kvimage/kvimage" demo --out "${KVIMAGE_DEMO_OUT:-$out/demo}"
