#!/usr/bin/env bash
# Installs what is missing, then:
#   1. builds build/ in Release with warnings as errors and runs every test;
#   2. checks that other projects can use the library (scripts/check-consumer.sh);
#   3. builds build-sanitize/ with AddressSanitizer + UBSan and runs every test
#      again; any sanitizer report (leaks included) fails the run;
#   4. when clang++ is present, fuzzes VX_VolData::Load for 10 s (scripts/fuzz.sh).
# The vx tool's own checks (vx demo included) are part of ctest.
#
#   scripts/test.sh        (CI: .ci/run)
#
# Environment: VX_BUILD_DIR, VX_SANITIZE_BUILD_DIR (build trees),
# VX_WERROR=OFF (keep building on warnings; CI leaves it ON).
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
root="$(cd "$here/.." && pwd)"
release="${VX_BUILD_DIR:-$root/build}"
sanitize="${VX_SANITIZE_BUILD_DIR:-$root/build-sanitize}"
werror="${VX_WERROR:-ON}"
jobs=2
start=$SECONDS

stage() { echo; echo "==== $* ($((SECONDS - start)) s)"; }

run_tests() {
  ctest --test-dir "$1" -j"$jobs" --timeout 300 --output-on-failure --no-tests=error
}

stage "setup"
bash "$here/setup.sh"

stage "Release build ($release)"
cmake -S "$root" -B "$release" -DCMAKE_BUILD_TYPE=Release -DVX_WERROR="$werror"
cmake --build "$release" -j"$jobs"

stage "Release tests"
run_tests "$release"

stage "consumer checks"
bash "$here/check-consumer.sh" "$release"

stage "sanitizer build ($sanitize)"
# Set before building too: test discovery runs vx_tests at build time.
export ASAN_OPTIONS="halt_on_error=1:abort_on_error=1:detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
cmake -S "$root" -B "$sanitize" -DCMAKE_BUILD_TYPE=Debug -DVX_SANITIZE=ON -DVX_WERROR="$werror"
cmake --build "$sanitize" -j"$jobs"

stage "sanitizer tests"
run_tests "$sanitize"

stage "Load fuzzer"
bash "$here/fuzz.sh" 10

stage "all passed"
