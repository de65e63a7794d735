#!/usr/bin/env bash
# Builds luAnaf the ways other projects take it, with g++ and the sanitizer
# flags a client may put in CMAKE_CXX_FLAGS:
#   1. as a package: configured with -DBUILD_TESTING=OFF, built, installed
#      under /tmp, then used by a client through find_package(luAnaf CONFIG);
#   2. embedded: a client project that add_subdirectory()s the source tree.
# Each must configure, build and run its client without a warning turned
# into an error. Usage: bash scripts/consumer_build.sh [WORK_DIR]
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
work="${1:-$(mktemp -d /tmp/luanaf-consumer.XXXXXX)}"
flags="-fsanitize=address,undefined -fno-omit-frame-pointer"
jobs="$(nproc)"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=halt_on_error=1
trap 'rm -rf "$work"' EXIT

echo "-- as a package (BUILD_TESTING=OFF, installed under $work/prefix)"
cmake -S "$here" -B "$work/package" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_CXX_COMPILER=g++ -DCMAKE_CXX_FLAGS="$flags" -DBUILD_TESTING=OFF \
  -DCMAKE_INSTALL_PREFIX="$work/prefix" >/dev/null
cmake --build "$work/package" -j "$jobs"
cmake --install "$work/package" >/dev/null
cmake -S "$here/tests/install/consumer" -B "$work/client" -G Ninja -DCMAKE_CXX_COMPILER=g++ \
  -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/client"
"$work/client/consumer" "$work/package.afxs"
LD_LIBRARY_PATH= "$work/prefix/bin/luafxs" validate "$work/package.afxs"

echo "-- embedded with add_subdirectory"
cmake -S "$here/tests/install/embed" -B "$work/embed" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_CXX_COMPILER=g++ -DCMAKE_CXX_FLAGS="$flags" -DBUILD_TESTING=OFF \
  -DLUANAF_SOURCE_DIR="$here" >/dev/null
cmake --build "$work/embed" -j "$jobs"
"$work/embed/consumer" "$work/embedded.afxs"
echo "consumer builds: package and add_subdirectory both build and run"
