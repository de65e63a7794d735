#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan + UBSan) and runs each one for a
# bounded time, starting from the kept corpus (fuzz/corpus/*.afxs, the seeds,
# and fuzz/corpus/<target>/, the minimised corpus of the long campaigns) with
# the format's dictionary. Starting from the kept corpus replays every input
# in it first. Any crash, leak, timeout or sanitizer report fails the run; the
# input is kept under <build>/findings/.
# Usage: bash scripts/fuzz.sh [seconds per target]   (default 60)
#        bash scripts/fuzz.sh --keep    minimises the run's corpora into
#                                       fuzz/corpus/<target>/ (commit them)
# LUANAF_FUZZ_JOBS=N runs N targets at once (default 1): a long campaign is
#   LUANAF_FUZZ_JOBS=$(nproc) bash scripts/fuzz.sh 7200 && bash scripts/fuzz.sh --keep
# With LUANAF_FUZZ_BUILD set to a build folder configured with
# -DLUANAF_BUILD_FUZZ=ON (the test command's sanitizer build is), its targets
# are used instead of a build of their own.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
source "$here/scripts/deps.sh"
luanaf_need_packages "${LUANAF_BASE_PACKAGES[@]}"
mode="run"
if [ "${1:-}" = "--keep" ]; then mode="keep"; shift; fi
seconds="${1:-60}"
jobs="${LUANAF_FUZZ_JOBS:-1}"
if [ -n "${LUANAF_FUZZ_BUILD:-}" ]; then
  build="$LUANAF_FUZZ_BUILD"
else
  build="${LUANAF_BUILD_DIR:-$here/build}/fuzz"
  cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_CXX_COMPILER=clang++ -DLUANAF_BUILD_FUZZ=ON -DLUANAF_BUILD_TESTS=OFF \
    -DLUANAF_BUILD_TOOLS=OFF -DLUANAF_BUILD_EXAMPLES=OFF -DLUANAF_BUILD_BENCH=OFF >/dev/null
fi
cmake --build "$build" -j "$(nproc)"
export ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1

# Keeps, per target, the smallest set of inputs of the run's corpus (and the
# kept one) that reaches the same coverage.
keep_corpus() {
  local target="$1" name kept
  name="$(basename "$target")"
  kept="$here/fuzz/corpus/$name"
  mkdir -p "$kept" "$kept.new"
  "$target" -merge=1 -max_len=8192 -timeout=10 -rss_limit_mb=2048 "$kept.new" \
    "$kept" "$build/corpus/$name" 2>"$build/$name.merge.log" || {
    echo "merge of $name failed:"; tail -n 20 "$build/$name.merge.log"; rm -rf "$kept.new"; return 1; }
  rm -rf "$kept" && mv "$kept.new" "$kept"
  echo "$name: $(ls "$kept" | wc -l) inputs, $(du -sh "$kept" | cut -f1) kept"
}

# Runs one target; prints its figures, or its finding and fails.
fuzz_one() {
  local target="$1" name corpus
  name="$(basename "$target")"
  corpus="$build/corpus/$name"
  mkdir -p "$corpus"
  cp -n "$here"/fuzz/corpus/*.afxs "$corpus"/ 2>/dev/null || true
  if [ -d "$here/fuzz/corpus/$name" ]; then cp -n "$here/fuzz/corpus/$name"/* "$corpus"/ 2>/dev/null || true; fi
  if ! "$target" "$corpus" -dict="$here/fuzz/afxs.dict" -max_total_time="$seconds" \
      -timeout=10 -rss_limit_mb=2048 -max_len=8192 -print_final_stats=1 \
      -artifact_prefix="$build/findings/$name-" 2>"$build/$name.log"; then
    echo "FINDING in $name:"; tail -n 40 "$build/$name.log"; return 1
  fi
  echo "== $name, ${seconds}s: $(grep -E "stat::number_of_executed_units" "$build/$name.log" | tail -n 1), $(grep -oE "cov: [0-9]+" "$build/$name.log" | tail -n 1)"
}

mkdir -p "$build/findings"
status=0
targets=("$build"/fuzz/*_fuzz)
if [ "$mode" = "keep" ]; then
  for target in "${targets[@]}"; do keep_corpus "$target" || status=1; done
  exit $status
fi
echo "== ${#targets[@]} targets, ${seconds}s each, $jobs at a time"
rm -f "$build"/findings/failed.*
for target in "${targets[@]}"; do
  while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do sleep 1; done
  { fuzz_one "$target" || touch "$build/findings/failed.$(basename "$target")"; } &
done
wait
if ls "$build"/findings/failed.* >/dev/null 2>&1; then status=1; fi
exit $status
