#!/usr/bin/env bash
# Builds every configuration once and runs every test:
#   1. release build: GoogleTest suites, the tool's tests, pytest, install check
#   2. the same suites under AddressSanitizer + UndefinedBehaviorSanitizer (clang)
#   3. the release test programs under valgrind memcheck (bulk loops reduced)
#   4. every fuzz target for a bounded slice (LUANAF_FUZZ_SECONDS each, default 30)
#   5. the Windows x86-64 cross build, its tests run under Wine
#   6. the builds of client projects: installed package and add_subdirectory,
#      g++ with sanitizer flags and BUILD_TESTING=OFF (scripts/consumer_build.sh)
# Stages can be left out by hand: LUANAF_SKIP="asan valgrind fuzz windows consumer".
# Usage: bash scripts/test.sh        (from anywhere; installs what it needs)
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
source "$here/scripts/deps.sh"
luanaf_need_packages "${LUANAF_BASE_PACKAGES[@]}"

jobs="$(nproc)"
build="${LUANAF_BUILD_DIR:-$here/build}"
export LUANAF_BUILD_DIR="$build"
skip=" ${LUANAF_SKIP:-} "
start=$(date +%s)
stage() { echo "== $1 ($(( $(date +%s) - start )) s so far)"; }
wanted() { [[ "$skip" != *" $1 "* ]]; }

stage "release build"
cmake -S "$here" -B "$build/release" -G Ninja -DCMAKE_BUILD_TYPE=Release -DLUANAF_BUILD_BENCH=ON >/dev/null
cmake --build "$build/release" -j "$jobs"
stage "release tests"
ctest --test-dir "$build/release" -j "$jobs" --output-on-failure --timeout 900

if wanted asan; then
  stage "sanitizer build (address, undefined)"
  cmake -S "$here" -B "$build/asan" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_CXX_COMPILER=clang++ -DLUANAF_SANITIZE=address,undefined -DLUANAF_BUILD_FUZZ=ON \
    -DLUANAF_BUILD_BENCH=OFF -DLUANAF_BUILD_EXAMPLES=OFF >/dev/null
  cmake --build "$build/asan" -j "$jobs"
  stage "sanitizer tests"
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir "$build/asan" -j "$jobs" --output-on-failure --timeout 900
fi

if wanted valgrind; then
  stage "valgrind memcheck"
  bash "$here/scripts/valgrind.sh" "$build/release"
fi

if wanted fuzz; then
  stage "fuzzing"
  # The sanitizer build holds the fuzz targets already (one clang build for both).
  if wanted asan; then export LUANAF_FUZZ_BUILD="$build/asan"; fi
  bash "$here/scripts/fuzz.sh" "${LUANAF_FUZZ_SECONDS:-30}"
fi

if wanted windows; then
  stage "windows cross build and tests under wine"
  bash "$here/scripts/windows.sh"
fi

if wanted consumer; then
  stage "client projects: installed package and add_subdirectory"
  bash "$here/scripts/consumer_build.sh"
fi

stage "all tests passed"
