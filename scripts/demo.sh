#!/usr/bin/env bash
# The main job: builds the luafxs tool and runs its demo, which synthesises two
# overlapping scans, unifies and blends them into one file, draws a plane
# before and after, and prints a summary.
# Usage: bash scripts/demo.sh [output folder]     (default: out/demo)
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
source "$here/scripts/deps.sh"
luanaf_need_packages "${LUANAF_BASE_PACKAGES[@]}"
build="${LUANAF_BUILD_DIR:-$here/build}/release"
out="${1:-$here/out/demo}"

cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j "$(nproc)" --target luafxs >/dev/null
mkdir -p "$out"
"$build/tools/luafxs" demo "$out"
echo
"$build/tools/luafxs" info "$(ls "$out"/*.afxs | tail -n 1)"
