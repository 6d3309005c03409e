#!/bin/sh
# Installs what is missing, builds, and runs every test: the optimised build,
# then the ASan+UBSan build with short fuzz runs, the benchmarks (built, not
# run), the concurrency tests under
# ThreadSanitizer, then the Debian packages built and installed into a fresh
# Debian root (packaging/tests/install_test.py); then, for ARM, the arm64
# build's end-to-end keystore and scenario tests under qemu-user and the
# device build (arm64) against stand-in platform libraries and Debian's
# packaged libteec. The full ARM suites: scripts/arm.sh arm64|armhf.
set -eu
cd "$(dirname "$0")"
# Every clone of the tree shares ccache's entries: paths are hashed relative
# to the tree, and the build folder's own path does not enter the hash.
export CCACHE_BASEDIR="${CCACHE_BASEDIR:-$(pwd)}" CCACHE_NOHASHDIR="${CCACHE_NOHASHDIR:-1}"
scripts/install-deps.sh test arm64 device
for preset in default asan; do
  echo "==> $preset build"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" --target all tests
  echo "==> $preset tests"
  ctest --preset "$preset"
done
# The benchmarks are not run here (their figures want a quiet machine), but
# they are built, so that none of them rots or drops out unnoticed.
echo "==> benchmarks build"
cmake --build --preset default --target benchmarks
# The concurrency tests of libteec, the daemon and the TA host, built with
# ThreadSanitizer (only what they need). A report fails the test that
# caused it (halt_on_error) and is kept in build/tsan/reports.
echo "==> tsan concurrency tests"
cmake --preset tsan >/dev/null
cmake --build --preset tsan
rm -rf build/tsan/reports
ctest --preset tsan
if [ -n "$(ls -A build/tsan/reports 2>/dev/null)" ]; then
  cat build/tsan/reports/*
  echo "ThreadSanitizer reported the races above" >&2
  exit 1
fi
echo "==> Debian packages"
packaging/tests/install_test.py
echo "==> arm64 build and end-to-end tests under emulation"
scripts/arm.sh arm64 --e2e
echo "==> device build (arm64)"
scripts/arm.sh device
