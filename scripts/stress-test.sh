#!/bin/sh
# Runs the whole test command (./test.sh) several times in a row on a machine
# kept busy by one CPU hog per core, to show that no test depends on timing
# or on a quiet machine.
#
# Usage: scripts/stress-test.sh [ROUNDS] [-- COMMAND...]
#   ROUNDS   how many runs (default 3)
#   COMMAND  what to run each round instead of ./test.sh (e.g. -- ctest --preset default)
# Prints one line per round (passed/FAILED, wall time) and a summary; each
# round's output goes to build/stress/round-<n>.log. Exit status: 0 when every
# round passed, 1 otherwise, 2 bad arguments. The hogs are ended on every exit.
set -u
cd "$(dirname "$0")/.."

rounds=3
if [ $# -gt 0 ] && [ "$1" != "--" ]; then
  rounds=$1
  shift
fi
case $rounds in
  '' | *[!0-9]* | 0) echo "stress-test: ROUNDS must be a positive number, not '$rounds'" >&2; exit 2 ;;
esac
if [ $# -gt 0 ]; then
  [ "$1" = "--" ] || { echo "stress-test: unexpected argument '$1'" >&2; exit 2; }
  shift
fi
[ $# -gt 0 ] || set -- ./test.sh

hogs=""
stop_hogs() {
  for pid in $hogs; do kill "$pid" 2>/dev/null; done
  for pid in $hogs; do wait "$pid" 2>/dev/null; done
  hogs=""
}
trap stop_hogs EXIT
trap 'exit 130' INT TERM HUP

cores=$(nproc)
i=0
while [ "$i" -lt "$cores" ]; do
  yes >/dev/null &
  hogs="$hogs $!"
  i=$((i + 1))
done
echo "stress-test: $cores CPU hogs running (pids$hogs); $rounds round(s) of: $*"

mkdir -p build/stress
failed=0
round=1
while [ "$round" -le "$rounds" ]; do
  log=build/stress/round-$round.log
  start=$(date +%s)
  if "$@" >"$log" 2>&1 </dev/null; then result=passed; else result=FAILED; failed=$((failed + 1)); fi
  took=$(($(date +%s) - start))
  printf 'stress-test: round %d %s in %dm%02ds (log: %s)\n' "$round" "$result" $((took / 60)) $((took % 60)) "$log"
  if [ "$result" = FAILED ]; then
    grep -E '\*\*\*Failed|\*\*\*Timeout|\(Failed\)|\(Timeout\)|Error [0-9]|FAILED:' "$log" | head -20 | sed 's/^/    /'
  fi
  round=$((round + 1))
done

if [ "$failed" -eq 0 ]; then
  echo "stress-test: all $rounds round(s) passed"
  exit 0
fi
echo "stress-test: $failed of $rounds round(s) FAILED"
exit 1
