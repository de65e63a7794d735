#!/usr/bin/env bash
# Cross-builds the library, the tool and the tests for Windows x86-64 with
# MinGW-w64 and runs the test suite under Wine.
# Usage: bash scripts/windows.sh          (installs what it needs)
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
source "$here/scripts/deps.sh"
luanaf_need_packages cmake ninja-build g++-mingw-w64-x86-64-posix wine64 wine googletest nlohmann-json3-dev libfmt-dev libcli11-dev
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
for dir in nlohmann fmt CLI; do ln -sfn "/usr/include/$dir" "$build/extra-include/$dir"; done

cmake -S "$here" -B "$build/luanaf" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
  -DCMAKE_CXX_FLAGS="-D__USE_MINGW_ANSI_STDIO=1 -isystem $build/extra-include" \
  -DCMAKE_CXX_FLAGS_RELEASE="-O1 -DNDEBUG" \
  -DCMAKE_BUILD_TYPE=Release -DGTest_DIR="$gtest_prefix/lib/cmake/GTest" \
  -DLUANAF_BUILD_BENCH=OFF -DLUANAF_BUILD_TOOLS=ON -DLUANAF_BUILD_EXAMPLES=ON >/dev/null
cmake --build "$build/luanaf" -j "$jobs"

export WINEDEBUG=-all WINEPREFIX="$build/wineprefix"
[ -d "$WINEPREFIX" ] || wineboot --init >/dev/null 2>&1 || true
# One Wine server for the whole run: left to itself it exits a few seconds
# after its last program, and a program that starts just then loses its
# connection ("recvmsg: Connection reset by peer").
# (A server left by wineboot ignores -p: it goes first.)
wineserver -k >/dev/null 2>&1 || true
wineserver -w
wineserver -p
trap 'wineserver -k >/dev/null 2>&1 || true' EXIT
# Wine maps drive Z: to the root; a Windows path without asking its server.
windows_path() { printf 'Z:%s' "${1//\//\\}"; }

# Each test program runs once under Wine (one Wine start per program, not per
# test case), two at a time.
bin="$build/luanaf/bin"
logs="$build/logs"
mkdir -p "$logs"
run_one() {
  local exe="$1" logs="$2" name
  name="$(basename "$exe" .exe)"
  if (cd "$(dirname "$exe")" && timeout 900 wine "$exe" --gtest_brief=1 >"$logs/$name.log" 2>&1); then
    echo "windows ok: $name ($(grep -Eo '[0-9]+ tests? from [0-9]+ test suites? ran' "$logs/$name.log" | head -n1))"
  else
    echo "WINDOWS FAILED: $name"; tail -n 60 "$logs/$name.log"; return 1
  fi
}
export -f run_one
find "$bin" -maxdepth 1 -name '*_test.exe' -print0 | sort -z |
  xargs -0 -n1 -P "$jobs" bash -c 'run_one "$0" "'"$logs"'"'
echo "windows: every test program passed"

# The tool and the examples, end to end: demo, then validate what it wrote.
demo="$build/demo"
rm -rf "$demo" && mkdir -p "$demo"
(cd "$bin" && wine ./luafxs.exe demo "$(windows_path "$demo")" && wine ./luafxs.exe validate "$(windows_path "$demo/unified.afxs")")
(cd "$demo" && wine "$bin/example_write_read.exe" example.afxs >/dev/null)
echo "windows: luafxs demo and validate passed"
