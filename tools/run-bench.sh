#!/usr/bin/env bash
# Builds a release koltad and measures file transfer and round-trip speed
# against a raw TCP pipe (socat). Needs root (the daemon runs in the test
# sandbox).
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/deps.sh
ensure_packages cmake g++ make libgtest-dev libgmock-dev socat

cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build-bench -j"$(nproc)" --target koltad transfer_bench
./build-bench/bench/transfer_bench
