#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan and UBSan) and runs each of them,
# one after the other, for a set time: ./tools/run-fuzz.sh [seconds per target]
# [target ...]. Default: 60 seconds, every target. New inputs go to a scratch
# corpus that is removed afterwards; the seeds in fuzz/corpus/ stay as they
# are. A crash stops the run and leaves its input in fuzz-crashes/.
# task_message_fuzz needs root (a private IPC namespace).
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/deps.sh
ensure_packages cmake make clang libclang-rt-dev

seconds=${1:-60}
shift || true
all=(worker_request header_body task_message config md5sig split_args reply_reader cli_words)
[ "$#" -gt 0 ] && targets=("$@") || targets=("${all[@]}")

CXX=clang++ cmake -S . -B build-fuzz -DKOLTA_FUZZ=ON -DKOLTA_TESTS=OFF \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build-fuzz -j"${KOLTA_JOBS:-2}" --target "${targets[@]/%/_fuzz}"

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
for t in "${targets[@]}"; do
  echo "== ${t}_fuzz: ${seconds} s"
  mkdir -p fuzz-crashes  # libFuzzer wants it to exist; another run may have removed it
  mkdir -p "$scratch/$t"
  # -close_fd_mask=3: the daemon's log lines would drown the fuzzer's own.
  status=0
  ./build-fuzz/fuzz/"${t}_fuzz" -max_total_time="$seconds" -close_fd_mask=3 -max_len=4096 \
    -timeout=10 -print_final_stats=1 -artifact_prefix="fuzz-crashes/${t}-" \
    "$scratch/$t" "fuzz/corpus/$t" >"$scratch/$t.log" 2>&1 || status=$?
  grep -E '^#[0-9]+' "$scratch/$t.log" | tail -n 1 || true
  grep -E '^stat::(number_of_executed_units|average_exec_per_sec)|ERROR|SUMMARY' "$scratch/$t.log" || true
  if [ "$status" -ne 0 ]; then
    tail -n 40 "$scratch/$t.log"
    echo "${t}_fuzz failed: its input is in fuzz-crashes/"
    exit 1
  fi
done
rmdir fuzz-crashes 2>/dev/null || true
echo "fuzzing: no failure"
