#!/usr/bin/env bash
# Runs the kill -9 trials (tests/reliability/test_real_kill.py) with more
# trials than the test suite's slice: a write through the Python package, a
# results flush and a field removal through the library, a unification through
# the tool, each killed at random moments and every outcome classified.
# Usage: bash scripts/kill_sweep.sh [trials per operation]   (default 1000)
# LUANAF_KILL_SEED picks another seed (default 20261124); the release build is
# made (or brought up to date) in build/release first.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
source "$here/scripts/deps.sh"
luanaf_need_packages "${LUANAF_BASE_PACKAGES[@]}"
build="${LUANAF_BUILD_DIR:-$here/build}/release"
cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j "$(nproc)" --target luafxs reliability_real_worker _luanaf
export LUANAF_KILL_TRIALS="${1:-1000}"
export PYTHONPATH="$build/python" PYTHONDONTWRITEBYTECODE=1
export LUANAF_REAL_WORKER="$build/tests/reliability/reliability_real_worker"
export LUANAF_LUAFXS="$build/tools/luafxs"
exec /usr/bin/python3 -m pytest -q -s -p no:cacheprovider --rootdir "$here/tests/reliability" \
  "$here/tests/reliability/test_real_kill.py"
