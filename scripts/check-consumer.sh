#!/usr/bin/env bash
# Checks that another project can use VX in the three supported ways:
#   (a) cmake --install into a temporary prefix, then find_package(VX) + VX::vx
#   (b) add_subdirectory(<checkout>) (tests, tools and benchmarks must stay off)
#   (c) pkg-config --cflags --libs vx against the same prefix
# Each builds tests/consumer/main.cpp and runs it.
#
#   scripts/check-consumer.sh [BUILD_DIR]     default: build/ (already built)
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
root="$(cd "$here/.." && pwd)"
build="${1:-$root/build}"
consumer="$root/tests/consumer"
tmp="$(mktemp -d)"
trap 'rm -rf "$tmp"' EXIT

echo "== consumer (a): cmake --install + find_package(VX)"
cmake --install "$build" --prefix "$tmp/prefix" >/dev/null
cmake -S "$consumer" -B "$tmp/find" -DCMAKE_BUILD_TYPE=Release \
      -DCMAKE_PREFIX_PATH="$tmp/prefix" >/dev/null
cmake --build "$tmp/find" -j2
"$tmp/find/vx_consumer"

echo "== consumer (b): add_subdirectory(<checkout>)"
cmake -S "$consumer" -B "$tmp/subdir" -DCMAKE_BUILD_TYPE=Release \
      -DVX_SOURCE_DIR="$root" >/dev/null
cmake --build "$tmp/subdir" -j2
"$tmp/subdir/vx_consumer"

echo "== consumer (c): pkg-config --cflags --libs vx"
pc="$(find "$tmp/prefix" -name vx.pc | head -n1)"
[ -n "$pc" ] || { echo "check-consumer: no vx.pc installed" >&2; exit 1; }
PKG_CONFIG_PATH="$(dirname "$pc")"
export PKG_CONFIG_PATH
flags="$(pkg-config --cflags --libs vx)"
libdir="$(pkg-config --variable=libdir vx)"
echo "pkg-config: $flags"
# shellcheck disable=SC2086  # flags are meant to split
g++ -std=c++17 -Wall -Wextra -Werror "$consumer/main.cpp" $flags \
    -Wl,-rpath,"$libdir" -o "$tmp/vx_consumer_pc"
"$tmp/vx_consumer_pc"

echo "check-consumer: all three ways work"
