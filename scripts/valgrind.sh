#!/usr/bin/env bash
# Runs every test program of a build under valgrind memcheck: any invalid
# read or write, use of uninitialised memory or leak fails the run.
# Usage: bash scripts/valgrind.sh [build dir]   (default: build/release)
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
source "$here/scripts/deps.sh"
luanaf_need_packages valgrind
build="${1:-${LUANAF_BUILD_DIR:-$here/build}/release}"
logs="$build/valgrind"
mkdir -p "$logs"
# Operators new and delete defined by a test program (the allocation-bound
# suite counts through its own) are left to that program, not intercepted.
# The test-side bulk loops (a thousand random files, every truncation offset)
# run at a reduced count under valgrind; the sanitizer build runs them in full.
export LUANAF_TEST_QUICK=1
export SUPPRESSIONS="$here/scripts/valgrind.supp"
run_one() {
  local exe="$1" logs="$2" name
  name="$(basename "$exe")"
  if valgrind --tool=memcheck --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite,indirect \
      --track-origins=no --soname-synonyms=somalloc=nouserintercepts --suppressions="$SUPPRESSIONS" --quiet "$exe" --gtest_brief=1 >"$logs/$name.log" 2>&1; then
    echo "valgrind clean: $name"
  else
    echo "VALGRIND FAILED: $name"; tail -n 40 "$logs/$name.log"; return 1
  fi
}
export -f run_one
find "$build/tests" -maxdepth 1 -type f -executable -name '*_test' -print0 |
  xargs -0 -n1 -P "$(nproc)" bash -c 'run_one "$0" "'"$logs"'"'
