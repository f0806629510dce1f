#!/usr/bin/env bash
# Builds kvimage and runs the example program on a generated frame.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=${KVIMAGE_BUILD_ROOT:-$root/build}/release
cmake -S "$root" -B "$out" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKVIMAGE_BUILD_TESTS=OFF >/dev/null
cmake --build "$out" -j"$(nproc)" --target kvimage_example
"$out/examples/kvimage_example"
