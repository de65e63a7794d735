#!/usr/bin/env bash
# Builds the Release benchmarks, runs them all with JSON output and writes a
# Markdown table of every figure beside its floor (bench/report.py).
#
#   bash scripts/bench.sh --quick     (or LUANAF_BENCH_QUICK=1): about 2 minutes
#   bash scripts/bench.sh             the full run (1 GB files, 500-plane unify): by hand
#
# LUANAF_BENCH_BUILD  the build directory (default: ${LUANAF_BUILD_DIR:-build}/release)
# LUANAF_BENCH_OUT    where the JSON files and bench.md go (default: <build>/bench-results)
# LUANAF_BENCH_REPS   repetitions of every benchmark (default 1); the table shows their median
# Each benchmark program runs in a process of its own, some benchmarks too
# (the allocator's state left by one run changes the page faults of the next).
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
quick="${LUANAF_BENCH_QUICK:-0}"
for arg in "$@"; do
  case "$arg" in
    --quick) quick=1 ;;
    *) echo "usage: $0 [--quick]" >&2; exit 2 ;;
  esac
done
build="${LUANAF_BENCH_BUILD:-${LUANAF_BUILD_DIR:-$here/build}/release}"
out="${LUANAF_BENCH_OUT:-$build/bench-results}"
start=$(date +%s)

echo "== release build of the benchmarks ($build)"
cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DLUANAF_BUILD_BENCH=ON >/dev/null
programs=(write_bench read_bench blend_bench unify_bench first_load)
if grep -q 'EXECUTABLE target hdf5_bench' "$build/build.ninja" 2>/dev/null; then
  programs+=(hdf5_bench)
fi
cmake --build "$build" -j 2 --target "${programs[@]}"

rm -rf "$out"
mkdir -p "$out"
bin="$build/bench"
export LUANAF_BENCH_QUICK="$quick"

# run <json name> <program> [arguments...]
run() {
  local name="$1" program="$2"
  shift 2
  echo "== $name"
  "$bin/$program" --benchmark_out="$out/$name.json" --benchmark_out_format=json \
    --benchmark_repetitions="${LUANAF_BENCH_REPS:-1}" "$@" \
    >"$out/$name.txt" 2>&1 || { echo "$name failed:"; tail -20 "$out/$name.txt"; exit 1; }
}

if [ "$quick" = 1 ]; then
  write_size='planes:100/'
  unify_sizes=(1 10 100 1000)
  unify_main=()
  hdf5_planes=100
  first_load_planes=100
else
  export LUANAF_BENCH_FULL=1
  write_size='planes:1000/'
  unify_sizes=(1 10 100 1000)
  unify_main=(--full)
  hdf5_planes=1000
  first_load_planes=200,100
fi

run write_writer write_bench --benchmark_filter="BM_WriterFile/$write_size"
run write_movein write_bench --benchmark_filter="BM_WriterFileMoveIn/$write_size"
run write_raw write_bench --benchmark_filter="BM_RawFwrite/$write_size"
run write_raw_1mib write_bench --benchmark_filter="BM_RawFwrite1MiB/$write_size"
run write_reserved write_bench --benchmark_filter="BM_WriterFileReserved/$write_size"
run write_raw_1mib_reserved write_bench --benchmark_filter="BM_RawFwrite1MiBReserved/$write_size"
run write_raw_bytes write_bench --benchmark_filter="BM_RawFwriteFileBytes/$write_size"
run write_raw_bytes_1mib write_bench --benchmark_filter="BM_RawFwriteFileBytes1MiB/$write_size"
run write_copies write_bench --benchmark_filter="BM_BufferOnly/$write_size"
run read read_bench
# Loads in fresh processes, one process per load, alternating (medians of
# at least 5).
echo "== first_load"
reps="${LUANAF_BENCH_REPS:-5}"
/usr/bin/python3 "$here/bench/first_load.py" "$bin/first_load" --planes "$first_load_planes" \
  --reps "$(( reps < 5 ? 5 : reps ))" --json "$out/first_load.json" >"$out/first_load.txt" 2>&1 ||
  { echo "first_load failed:"; tail -20 "$out/first_load.txt"; exit 1; }
run blend blend_bench --benchmark_filter='BM_Blend'
run unify unify_bench "${unify_main[@]}"
for planes in "${unify_sizes[@]}"; do
  run "unify_scale_$planes" unify_bench "--planes=$planes" \
    --benchmark_filter='RawFloor|UnifyBlending'
done
if [[ " ${programs[*]} " == *" hdf5_bench "* ]]; then
  LUANAF_HDF5_BENCH_PLANES="$hdf5_planes" run hdf5 hdf5_bench
else
  echo "== hdf5: not built (HDF5 not found: apt-get install -y libhdf5-dev)"
fi

/usr/bin/python3 "$here/bench/report.py" "$out" >"$out/bench.md"
cat "$out/bench.md"
echo "== results in $out (bench.md and one JSON file per run), $(( $(date +%s) - start )) s"
