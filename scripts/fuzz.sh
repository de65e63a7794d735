#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan + UBSan) and runs each one for a
# bounded time on its seed corpus with the format's dictionary. Any crash,
# leak, timeout or sanitizer report fails the run; the input is kept under
# build/fuzz/findings/.
# Usage: bash scripts/fuzz.sh [seconds per target]   (default 60)
# With LUANAF_FUZZ_BUILD set to a build folder configured with
# -DLUANAF_BUILD_FUZZ=ON (the test command's sanitizer build is), its targets
# are used instead of a build of their own.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
source "$here/scripts/deps.sh"
luanaf_need_packages "${LUANAF_BASE_PACKAGES[@]}"
seconds="${1:-60}"
if [ -n "${LUANAF_FUZZ_BUILD:-}" ]; then
  build="$LUANAF_FUZZ_BUILD"
else
  build="${LUANAF_BUILD_DIR:-$here/build}/fuzz"
  cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_CXX_COMPILER=clang++ -DLUANAF_BUILD_FUZZ=ON -DLUANAF_BUILD_TESTS=OFF \
    -DLUANAF_BUILD_TOOLS=OFF -DLUANAF_BUILD_EXAMPLES=OFF -DLUANAF_BUILD_BENCH=OFF >/dev/null
fi
cmake --build "$build" -j "$(nproc)"

mkdir -p "$build/findings"
status=0
for target in "$build"/fuzz/*_fuzz; do
  name="$(basename "$target")"
  corpus="$build/corpus/$name"
  mkdir -p "$corpus"
  cp -n "$here"/fuzz/corpus/*.afxs "$corpus"/ 2>/dev/null || true
  echo "== $name for ${seconds}s"
  if ! ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
      "$target" "$corpus" -dict="$here/fuzz/afxs.dict" -max_total_time="$seconds" \
      -timeout=10 -rss_limit_mb=2048 -max_len=8192 -print_final_stats=1 \
      -artifact_prefix="$build/findings/$name-" 2>"$build/$name.log"; then
    echo "FINDING in $name:"; tail -n 40 "$build/$name.log"; status=1
  else
    grep -E "stat::number_of_executed_units|cov:" "$build/$name.log" | tail -n 2 || true
  fi
done
exit $status
