#!/bin/sh
# Builds for ARM and runs the tests under qemu-user emulation (no ARM machine
# and no binfmt registration needed). Installs what is missing first.
#   scripts/arm.sh arm64|armhf         the host world for that width: every
#                                      target, the whole test suite
#   scripts/arm.sh arm64|armhf --e2e   only what the end-to-end keystore and
#                                      scenario tests need, and those tests
#                                      (ctest -L integration, but for the
#                                      checker's, which the full suite runs)
#   scripts/arm.sh device              the device world for arm64: the platform
#                                      stand-ins installed as a stand-in sysroot
#                                      (build/device-platform) and Debian's
#                                      packaged libteec; builds everything and
#                                      runs what needs no device (the console's
#                                      unit tests on doubles, the link check)
set -eu
cd "$(dirname "$0")/.."
usage() { echo "usage: $0 arm64|armhf [--e2e] | device" >&2; exit 2; }
[ $# -ge 1 ] || usage
width=$1
only_e2e=""
case "${2:-}" in
  "") ;;
  --e2e) only_e2e=yes ;;
  *) usage ;;
esac

case "$width" in
  arm64|armhf)
    # (test: the host's Python packages that the end-to-end tests check with)
    scripts/install-deps.sh test "$width"
    cmake --preset "$width" >/dev/null
    if [ -n "$only_e2e" ]; then
      cmake --build --preset "$width" --target tessera teesim teesim_tahost teesim_private_daemon \
        keystore_ta \
        keystore_console_test keystore_e2e_test keystore_restart_test
      ctest --preset "$width" -L integration -LE check
    else
      cmake --build --preset "$width" --target all tests
      ctest --preset "$width"
    fi
    ;;
  device)
    [ -z "$only_e2e" ] || usage
    scripts/install-deps.sh test device
    root=$(pwd)
    # The stand-in sysroot: the platform stand-ins under the device
    # libraries' names, built with the device build's toolchain.
    cmake -S platform/device-stubs -B build/device-stubs -G Ninja \
      --toolchain "$root/cmake/toolchains/aarch64-linux-gnu.cmake" \
      -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX="$root/build/device-platform" >/dev/null
    cmake --build build/device-stubs
    cmake --install build/device-stubs >/dev/null
    cmake --preset device >/dev/null
    cmake --build --preset device --target all tests
    ctest --preset device
    ;;
  *) usage ;;
esac
