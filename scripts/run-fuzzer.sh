#!/bin/sh
# Short libFuzzer run used by ctest: run-fuzzer.sh <fuzzer> <seconds> <work-corpus> [seed-corpus]
# The work corpus lives in the build tree so the checked-in seeds are never modified.
set -eu
fuzzer=$1 seconds=$2 work=$3
mkdir -p "$work"
shift 3
exec "$fuzzer" -max_total_time="$seconds" -print_final_stats=1 "$work" "$@"
