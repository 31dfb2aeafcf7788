#!/usr/bin/env bash
# Installs what is missing, builds VX in Release and runs `vx demo`.
#
#   scripts/demo.sh [vx demo options]     e.g. scripts/demo.sh --out /tmp/vx-demo
#
# Build tree: build/ (or $VX_BUILD_DIR). The pictures go to build/demo unless
# --out is given.
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
root="$(cd "$here/.." && pwd)"
build="${VX_BUILD_DIR:-$root/build}"

bash "$here/setup.sh"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release
cmake --build "$build" -j2

vx="$build/tools/vx"
if [ ! -f "$vx" ] || [ ! -x "$vx" ]; then
  echo "demo: $vx was not built" >&2
  exit 1
fi
if [ "$#" -eq 0 ]; then
  set -- --out "$build/demo"
fi
echo "== $vx demo $*"
"$vx" demo "$@"
