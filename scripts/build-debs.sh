#!/bin/sh
# Builds the Debian packages of this tree (tessera, teesim, libteesim-teec1,
# libteesim-teec-dev) with dpkg-buildpackage, checks them with lintian, and
# leaves them in build/debs/ (or the folder given):
#   scripts/build-debs.sh [OUTDIR]
# Installs what building needs first (as root, or through sudo). The tree is
# copied to a staging folder under the user's cache, so the work tree stays
# clean and ccache finds the objects of the last package build at the same
# paths. Lintian errors and warnings fail the build (debian/*lintian-overrides
# says why each remaining one is accepted).
set -eu
cd "$(dirname "$0")/.."
top=$(pwd)
out=${1:-build/debs}
case "$out" in /*) ;; *) out="$top/$out" ;; esac

scripts/install-deps.sh deb

version=$(dpkg-parsechangelog -S Version)
cache=${XDG_CACHE_HOME:-$HOME/.cache}/tessera
stage="$cache/deb-build"
mkdir -p "$cache"

# One package build at a time per user: the staging folder is shared.
exec 9>"$cache/deb-build.lock"
flock 9

rm -rf "$stage"
src="$stage/tessera-$version"
mkdir -p "$src"
# The tracked files and the new ones not ignored (a tree without git: all
# but build/).
if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
  git ls-files -z --cached --others --exclude-standard |
    xargs -0 -r sh -c 'for f; do [ -e "$f" ] && printf "%s\0" "$f"; done' sh |
    tar --null -cf - -T - | tar -xf - -C "$src"
else
  tar --exclude=./build -cf - . | tar -xf - -C "$src"
fi

# ccache keeps its objects where the user's other builds keep theirs
# (debhelper gives the build a HOME of its own).
if command -v ccache >/dev/null 2>&1; then
  CCACHE_DIR=$(ccache --get-config cache_dir)
  export CCACHE_DIR
fi

echo "Building the Debian packages of tessera $version"
(cd "$src" && dpkg-buildpackage -b -us -uc -Jauto >"$stage/build.log" 2>&1) || {
  tail -n 40 "$stage/build.log" >&2
  echo "dpkg-buildpackage failed; the whole log is $stage/build.log" >&2
  exit 1
}

mkdir -p "$out"
rm -f "$out"/*.deb "$out"/*.changes "$out"/*.buildinfo
changes=$(ls "$stage"/tessera_"$version"_*.changes)
mv "$stage"/*.deb "$stage"/*.buildinfo "$changes" "$out"/

echo "Checking them with lintian"
lintian --fail-on error,warning --display-info --tag-display-limit 0 \
  "$out/$(basename "$changes")"

echo "Packages in $out:"
ls -1 "$out"/*.deb
