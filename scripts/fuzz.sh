#!/usr/bin/env bash
# Builds the libFuzzer target for VX_VolData::Load (tests/fuzz) with clang,
# AddressSanitizer and UBSan, writes a seed corpus of small valid volume files
# and fuzzes for the given number of seconds. Any crash, sanitizer report,
# leak or allocation above the limit fails the run.
#
#   scripts/fuzz.sh [seconds]      (default 20)
#
# Without clang++ it says so and exits 0. Environment: VX_FUZZ_BUILD_DIR
# (build tree, default build-fuzz).
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
root="$(cd "$here/.." && pwd)"
build="${VX_FUZZ_BUILD_DIR:-$root/build-fuzz}"
seconds="${1:-20}"

if ! command -v clang++ >/dev/null 2>&1; then
  echo "fuzz: clang++ not found; skipping the Load fuzzer"
  exit 0
fi

cmake -S "$root/tests/fuzz" -B "$build" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=Release
cmake --build "$build" -j2 --target vx_load_fuzzer

seeds="$build/seeds"
corpus="$build/corpus"
rm -rf "$seeds"
mkdir -p "$seeds" "$corpus"
VX_FUZZ_SEEDS="$seeds" "$build/vx_load_fuzzer"

# Load may allocate a small multiple of a file's size (plus 1 MiB when a file
# is cut short), so 8 KiB inputs stay far below the 64 MiB limit.
"$build/vx_load_fuzzer" -max_total_time="$seconds" -max_len=8192 -malloc_limit_mb=64 \
  -print_final_stats=1 "$corpus" "$seeds"
