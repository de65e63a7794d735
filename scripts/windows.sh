#!/usr/bin/env bash
# Cross-builds the library, the tool and the tests for Windows x86-64 with
# MinGW-w64 and runs the test suite under Wine.
# Usage: bash scripts/windows.sh          (installs what it needs)
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
source "$here/scripts/deps.sh"
luanaf_need_packages cmake ninja-build g++-mingw-w64-x86-64-posix wine64 wine googletest nlohmann-json3-dev
build="${LUANAF_BUILD_DIR:-$here/build}/windows"
toolchain="$here/cmake/toolchain-mingw64.cmake"
jobs="$(nproc)"

# GoogleTest from Debian's sources, built once with the same toolchain.
gtest_prefix="$build/gtest-install"
if [ ! -f "$gtest_prefix/lib/cmake/GTest/GTestConfig.cmake" ]; then
  cmake -S /usr/src/googletest -B "$build/gtest" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$gtest_prefix" -Dgtest_disable_pthreads=OFF >/dev/null
  cmake --build "$build/gtest" -j "$jobs"
  cmake --install "$build/gtest" >/dev/null
fi

# nlohmann-json is header-only: the tests use Debian's copy of it.
mkdir -p "$build/extra-include"
ln -sfn /usr/include/nlohmann "$build/extra-include/nlohmann"

cmake -S "$here" -B "$build/luanaf" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
  -DCMAKE_CXX_FLAGS="-D__USE_MINGW_ANSI_STDIO=1 -isystem $build/extra-include" \
  -DCMAKE_BUILD_TYPE=Release -DGTest_DIR="$gtest_prefix/lib/cmake/GTest" \
  -DLUANAF_BUILD_BENCH=OFF -DLUANAF_BUILD_TOOLS=OFF -DLUANAF_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$build/luanaf" -j "$jobs"

export WINEDEBUG=-all WINEPREFIX="$build/wineprefix"
[ -d "$WINEPREFIX" ] || wineboot --init >/dev/null 2>&1 || true
ctest --test-dir "$build/luanaf" -j "$jobs" --output-on-failure --timeout 600
