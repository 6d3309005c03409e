#!/bin/sh
# Installs the Debian packages that are missing for a purpose, and nothing else.
#   install-deps.sh build   what building and running the console needs
#   install-deps.sh test    the above, plus what the test suite needs
#   install-deps.sh deb     the above build set, plus what building the Debian
#                           packages needs (scripts/build-debs.sh)
#   install-deps.sh arm64   cross builds for 64-bit ARM and their tests under
#                           qemu-user: the cross compilers, qemu-user-static and
#                           the arm64 multiarch -dev packages (adds the arm64
#                           architecture to dpkg)
#   install-deps.sh armhf   the same for 32-bit ARM, whose libraries go into a
#                           sysroot folder (see below)
#   install-deps.sh device  the device build: arm64, plus Debian's GP TEE Client
#                           library for arm64 (optee-client-dev)
# Several purposes may be given at once. Idempotent: when everything is
# present it changes nothing.
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
# What a cross build of the host world links, for the target.
target_libs="libjsoncpp-dev libssl-dev libsecp256k1-dev libgtest-dev libgmock-dev libbenchmark-dev
libsystemd-dev"

# The armhf libraries are extracted into a sysroot instead of being installed
# as multiarch packages: a multiarch package must have the same version on
# every architecture, and where the security archive's armhf index cannot be
# fetched the build machine's newer OpenSSL has no armhf twin (adding armhf to
# dpkg would then also stall every security update of the machine).
# cmake/toolchains/arm-linux-gnueabihf.cmake looks for it here.
armhf_sysroot=/var/lib/tessera/sysroots/armhf

wanted=""
foreign_archs=""
sysroots=""
for purpose in "${@:-build}"; do
  case "$purpose" in
    build) wanted="$wanted $build_pkgs" ;;
    test) wanted="$wanted $build_pkgs $test_pkgs $deb_pkgs $packaging_test_pkgs" ;;
    deb) wanted="$wanted $build_pkgs $deb_pkgs" ;;
    arm64|device)
      foreign_archs="$foreign_archs arm64"
      wanted="$wanted crossbuild-essential-arm64 qemu-user-static"
      for lib in $target_libs; do wanted="$wanted $lib:arm64"; done
      if [ "$purpose" = device ]; then wanted="$wanted optee-client-dev:arm64"; fi
      ;;
    armhf)
      wanted="$wanted crossbuild-essential-armhf qemu-user-static mmdebstrap"
      sysroots="armhf"
      ;;
    *) echo "usage: $0 [build|test|deb|arm64|armhf|device]..." >&2; exit 2 ;;
  esac
done

as_root_or_fail() {
  if [ "$(id -u)" -eq 0 ]; then
    as_root=""
  elif command -v sudo >/dev/null 2>&1; then
    as_root="sudo"
  else
    echo "$1" >&2
    echo "Run this command as root (or install sudo) so it can be done${2:-}." >&2
    exit 1
  fi
}

# ---- Foreign architectures: dpkg must know them before apt can find their packages
added_arch=""
for arch in $foreign_archs; do
  if ! dpkg --print-foreign-architectures | grep -qx "$arch"; then
    as_root_or_fail "dpkg does not know the architecture $arch yet."
    echo "Adding the $arch architecture to dpkg"
    $as_root dpkg --add-architecture "$arch"
    added_arch=yes
  fi
done

# ---- Packages
# One query for every package: the installed ones, each named as dpkg names
# it (with :<arch> for multiarch libraries, the build machine's own included).
native=$(dpkg --print-architecture)
# shellcheck disable=SC2086
installed=" $(dpkg-query -W -f='${binary:Package} ${Status}\n' $wanted 2>/dev/null |
  awk '$NF == "installed" { printf "%s ", $1 }')"
missing=""
for pkg in $wanted; do
  case " $missing " in *" $pkg "*) continue ;; esac
  case "$installed" in
    *" $pkg "*|*" $pkg:$native "*) ;;
    *) missing="$missing $pkg" ;;
  esac
done

if [ -n "$missing" ]; then
  as_root_or_fail "Missing Debian packages:$missing" \
    ", or install them as root with: apt-get install --no-install-recommends$missing"
  echo "Installing Debian packages:$missing"
  export DEBIAN_FRONTEND=noninteractive
  # Wait for another apt or dpkg run to end rather than fail at once.
  apt_get="$as_root apt-get -o DPkg::Lock::Timeout=600"
  # An index that cannot be fetched (a mirror caught mid-sync, an
  # architecture one archive lacks) makes apt-get update fail as a whole
  # while every other index was read: go on, and let the install tell.
  update() {
    $apt_get update || echo "apt-get update reported errors (see above); going on" >&2
  }
  # A newly added architecture has no package index before an update.
  [ -n "$added_arch" ] && update
  # shellcheck disable=SC2086
  if ! $apt_get install -y --no-install-recommends $missing; then
    update
    # shellcheck disable=SC2086
    $apt_get install -y --no-install-recommends $missing
  fi
fi

# ---- Sysroots: the target's libraries extracted from Debian's packages
make_sysroot() { # <architecture> <folder>
  arch=$1 folder=$2
  codename=$(. /etc/os-release && echo "$VERSION_CODENAME")
  includes=$(echo $target_libs | tr ' ' ',')
  # What the folder was made from; a change (another release, another
  # package list) makes it again.
  recipe="$codename $arch $includes"
  if [ -f "$folder/.tessera-sysroot" ] && [ "$(cat "$folder/.tessera-sysroot")" = "$recipe" ]; then
    return 0
  fi
  as_root_or_fail "The $arch sysroot $folder is missing or out of date."
  echo "Extracting the $arch libraries into $folder"
  $as_root rm -rf "$folder.new"
  $as_root mkdir -p "$(dirname "$folder")"
  # Only the release's main suites: their indexes exist for every
  # architecture (the security archive's may not).
  $as_root mmdebstrap --quiet --mode=root --variant=extract --architectures="$arch" \
    --include="$includes" "$codename" "$folder.new" \
    "deb http://deb.debian.org/debian $codename main" \
    "deb http://deb.debian.org/debian $codename-updates main" </dev/null
  echo "$recipe" | $as_root tee "$folder.new/.tessera-sysroot" >/dev/null
  $as_root rm -rf "$folder"
  $as_root mv "$folder.new" "$folder"
}
for arch in $sysroots; do
  case "$arch" in
    armhf) make_sysroot armhf "$armhf_sysroot" ;;
  esac
done
