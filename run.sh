#!/bin/sh
# The console's main job: installs the Debian packages that are missing,
# builds the console and the simulated secure world it talks to (the teesim
# daemon and the keystore TA), puts the default menu in place when none is
# there, and starts the console. Nothing else needs starting: the console's
# first keystore call starts the teesim daemon, which stays in the background
# and keeps the keystore's storage (seed, PIN) between runs.
set -eu
cd "$(dirname "$0")"
scripts/install-deps.sh build
cmake --preset default >/dev/null
cmake --build --preset default

menu=/opt/data/tessera/menu.json
if [ ! -e "$menu" ]; then
  as_root=""
  if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null 2>&1; then
      echo "The console's menu $menu is missing; install it as root with: install -D -m 0644 $(pwd)/CA/data/menu.json $menu" >&2
      exit 1
    fi
    as_root="sudo"
  fi
  $as_root install -D -m 0644 CA/data/menu.json "$menu"
  echo "Installed the default menu at $menu"
fi
exec build/default/CA/src/console/tessera
