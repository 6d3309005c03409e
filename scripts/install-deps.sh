#!/bin/sh
# Installs the Debian packages that are missing for a purpose, and nothing else.
#   install-deps.sh build   what building and running the console needs
#   install-deps.sh test    the above, plus what the test suite needs
#   install-deps.sh deb     the above build set, plus what building the Debian
#                           packages needs (scripts/build-debs.sh)
# Idempotent: when every package is present it changes nothing.
set -eu

# python3 is in the build set because configuring lists the end-to-end tests.
build_pkgs="g++ cmake ninja-build pkg-config python3 libjsoncpp-dev libssl-dev libsecp256k1-dev
libgtest-dev libgmock-dev libbenchmark-dev libsystemd-dev"
test_pkgs="clang libclang-rt-14-dev llvm valgrind util-linux python3 python3-mnemonic
python3-ecdsa python3-pycryptodome python3-bip32utils"
# Building and checking the Debian packages; the test suite installs them
# into a fresh Debian root and checks the manual pages and the service unit.
deb_pkgs="debhelper dpkg-dev lintian"
packaging_test_pkgs="debootstrap mandoc systemd"

case "${1:-build}" in
  build) wanted=$build_pkgs ;;
  test) wanted="$build_pkgs $test_pkgs $deb_pkgs $packaging_test_pkgs" ;;
  deb) wanted="$build_pkgs $deb_pkgs" ;;
  *) echo "usage: $0 build|test|deb" >&2; exit 2 ;;
esac

missing=""
for pkg in $wanted; do
  status=$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true)
  case "$status" in
    *" installed") ;;
    *) missing="$missing $pkg" ;;
  esac
done
[ -z "$missing" ] && exit 0

if [ "$(id -u)" -eq 0 ]; then
  as_root=""
elif command -v sudo >/dev/null 2>&1; then
  as_root="sudo"
else
  echo "Missing Debian packages:$missing; install them as root with: apt-get install --no-install-recommends$missing" >&2
  exit 1
fi

echo "Installing Debian packages:$missing"
export DEBIAN_FRONTEND=noninteractive
# shellcheck disable=SC2086
if ! $as_root apt-get install -y --no-install-recommends $missing; then
  $as_root apt-get update
  # shellcheck disable=SC2086
  $as_root apt-get install -y --no-install-recommends $missing
fi
