#!/usr/bin/env bash
# Installs the Debian packages that building and testing VX needs, when any
# is missing. As root it runs apt-get; otherwise it prints the command to run
# and fails. Extra package names may be given as arguments.
set -euo pipefail

packages=(
  build-essential   # g++ 12 with libgomp (OpenMP), make
  cmake
  pkg-config
  libboost-dev      # Boost headers (smart pointers)
  libgtest-dev
  libgmock-dev
  libbenchmark-dev  # only for -DVX_BUILD_BENCH=ON
  libpng-dev        # the vx tool writes PNG
  "$@"
)

missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" 2>/dev/null | grep -q '^Status: install ok installed' || missing+=("$p")
done
[ "${#missing[@]}" -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "setup: missing Debian packages: ${missing[*]}" >&2
  echo "setup: install them as root, then run this again:" >&2
  echo "apt-get update && apt-get install -y ${missing[*]}" >&2
  exit 1
fi

echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -q
apt-get install -y -q --no-install-recommends "${missing[@]}"
