#!/usr/bin/env bash
# Builds every configuration once and runs every test:
#   1. the release build with all suites (ctest, in parallel),
#   2. the same suites under AddressSanitizer + UndefinedBehaviorSanitizer.
# Usage: bash scripts/test.sh        (from anywhere; installs what it needs)
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
source "$here/scripts/deps.sh"
luanaf_need_packages "${LUANAF_BASE_PACKAGES[@]}"

jobs="$(nproc)"
build="${LUANAF_BUILD_DIR:-$here/build}"
start=$(date +%s)

echo "== release build"
cmake -S "$here" -B "$build/release" -G Ninja -DCMAKE_BUILD_TYPE=Release -DLUANAF_BUILD_BENCH=ON >/dev/null
cmake --build "$build/release" -j "$jobs"
echo "== release tests"
ctest --test-dir "$build/release" -j "$jobs" --output-on-failure --timeout 600

echo "== sanitizer build (address, undefined)"
cmake -S "$here" -B "$build/asan" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_CXX_COMPILER=clang++ -DLUANAF_SANITIZE=address,undefined \
  -DLUANAF_BUILD_BENCH=OFF -DLUANAF_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$build/asan" -j "$jobs"
echo "== sanitizer tests"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir "$build/asan" -j "$jobs" --output-on-failure --timeout 900

echo "== all tests passed in $(( $(date +%s) - start )) s"
