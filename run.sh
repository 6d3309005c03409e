#!/bin/sh
# Installs what is missing, builds, puts the default menu in place when none
# is there, and starts the console against the simulated TEE (the teesim
# daemon is started on demand by the console's first keystore call).
set -eu
cd "$(dirname "$0")"
scripts/install-deps.sh build
cmake --preset default >/dev/null
cmake --build --preset default

menu=/opt/data/tessera/menu.json
if [ ! -e "$menu" ]; then
  as_root=""
  [ "$(id -u)" -eq 0 ] || as_root="sudo"
  $as_root install -D -m 0644 CA/data/menu.json "$menu"
  echo "Installed the default menu at $menu"
fi
exec build/default/CA/src/console/tessera
