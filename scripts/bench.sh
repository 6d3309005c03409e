#!/bin/sh
# Builds and runs the benchmarks: configures the default preset, builds the
# `benchmarks` target and runs every bench_* program, each printing its
# results and the ratios to its reference implementations.
#   scripts/bench.sh [name-filter] [benchmark options...]
# name-filter picks the programs whose name contains it ("" or "all" for
# every one); further options go to each program, e.g.
#   scripts/bench.sh crypto --benchmark_filter=Keccak
# By default each benchmark is repeated 5 times and the medians are shown,
# which keeps the figures steady on a busy machine.
set -eu
cd "$(dirname "$0")/.."
filter="${1:-}"
[ $# -gt 0 ] && shift
[ "$filter" = all ] && filter=""

scripts/install-deps.sh build
cmake --preset default >/dev/null
cmake --build --preset default --target benchmarks

if [ $# -eq 0 ]; then
  set -- --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
fi
found=0
for program in $(find build/default/bench -maxdepth 1 -type f -name 'bench_*' -perm -u+x | sort); do
  case "$(basename "$program")" in
    *"$filter"*) ;;
    *) continue ;;
  esac
  found=1
  echo "==> $(basename "$program")"
  "$program" "$@"
done
if [ "$found" -eq 0 ]; then
  echo "No benchmark program matches '$filter'" >&2
  exit 1
fi
