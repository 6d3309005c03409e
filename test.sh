#!/bin/sh
# Installs what is missing, builds, and runs every test: the optimised build,
# then the ASan+UBSan build with short fuzz runs, then the Debian packages
# built and installed into a fresh Debian root (packaging/tests/install_test.py).
set -eu
cd "$(dirname "$0")"
scripts/install-deps.sh test
for preset in default asan; do
  echo "==> $preset build"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" --target all tests
  echo "==> $preset tests"
  ctest --preset "$preset"
done
echo "==> Debian packages"
packaging/tests/install_test.py
