#!/usr/bin/env bash
# Builds everything and runs every test: the plain build, the same tests under
# AddressSanitizer and UBSan, and a short run of every fuzz target.
# KOLTA_FUZZ_SECONDS sets the fuzzing time per target (default 15).
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/deps.sh
ensure_packages cmake g++ make libgtest-dev libgmock-dev clang libclang-rt-dev util-linux

jobs=$(nproc)
run_suite() {
  local dir=$1
  shift
  cmake -S . -B "$dir" "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  (cd "$dir" && ctest --output-on-failure --timeout 300 -j"$jobs")
}

echo "== plain build"
run_suite build-test -DCMAKE_BUILD_TYPE=RelWithDebInfo
echo "== AddressSanitizer and UBSan build"
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  run_suite build-asan -DCMAKE_BUILD_TYPE=Debug -DKOLTA_SANITIZE=ON

echo "== fuzzing: every target briefly"
KOLTA_JOBS=$jobs ./tools/run-fuzz.sh "${KOLTA_FUZZ_SECONDS:-15}"
