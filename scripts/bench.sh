#!/usr/bin/env bash
# Builds the benchmarks in a Release tree (build-bench/) and runs them all,
# printing their figures. Give benchmark names to run only those:
#   bash scripts/bench.sh                 # every bench/bench_* program
#   bash scripts/bench.sh bench_vbus      # one of them
# Figures depend on the machine and on what else runs: the load average is
# printed first; CPU-time-per-frame figures are less affected than rates.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCANOPEN_BUILD_TESTS=OFF -DCANOPEN_BUILD_TOOLS=ON -DCANOPEN_BUILD_BENCH=ON >/dev/null
ninja -C build-bench ${NINJA_FLAGS:-} >/dev/null
export QT_LOGGING_RULES="*.debug=false"

echo "Benchmarks (Release build), $(date -u '+%Y-%m-%d %H:%M UTC')"
echo "Machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//')"
echo "Load average before the run: $(cut -d' ' -f1-3 /proc/loadavg)"
if [ $# -gt 0 ]; then
  programs=("$@")
else
  programs=()
  for p in build-bench/bench/bench_*; do
    [ -x "$p" ] && [ -f "$p" ] && programs+=("$(basename "$p")")
  done
fi
for name in "${programs[@]}"; do
  echo
  echo "### $name"
  "build-bench/bench/$name"
done
echo
echo "Load average after the run: $(cut -d' ' -f1-3 /proc/loadavg)"
