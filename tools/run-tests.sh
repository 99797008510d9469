#!/usr/bin/env bash
# Builds everything and runs every test: the static musl builds, the plain
# build (its integration tests against its own daemon and the static one), the
# static programs in an empty root and under qemu-user, the Python client's
# tests against the plain build, the same C++ tests under AddressSanitizer and UBSan, a
# short run of every fuzz target, and last the armhf build run under qemu-arm.
# The plain build's tests include the installation and Debian package check
# (tools/check-package.sh).
# KOLTA_FUZZ_SECONDS sets the fuzzing time per target (default 15).
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/deps.sh
ensure_packages cmake g++ make libgtest-dev libgmock-dev clang libclang-rt-dev util-linux \
  python3-pytest python3-pytest-xdist python3-venv python3-pip python3-setuptools python3-wheel \
  ansible-core dpkg-dev \
  lintian man-db

jobs=$(nproc)
run_suite() {
  local dir=$1
  shift
  cmake -S . -B "$dir" "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  (cd "$dir" && ctest --output-on-failure --timeout 300 -j"$jobs")
}

echo "== static builds: musl, x86_64, armhf and arm64"
./tools/build-static.sh

echo "== plain build"
# Its integration tests run twice: against its own daemon and against the
# static x86_64 one.
run_suite build-test -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKOLTA_OTHER_KOLTAD="$PWD/dist/x86_64/koltad"

echo "== static builds where no C library helps them"
KOLTA_SANDBOX="$PWD/build-test/tests/kolta_sandbox" ./tools/check-static.sh

echo "== Python client"
# Debian's interpreter and pytest; the daemons run in kolta_sandbox.
python_status=0
KOLTA_SANDBOX="$PWD/build-test/tests/kolta_sandbox" PYTHONDONTWRITEBYTECODE=1 \
  /usr/bin/python3 -m pytest -q -rs -p no:cacheprovider python/tests || python_status=$?
if [ "$python_status" -eq 5 ]; then
  echo "no Python tests were collected" >&2
fi
[ "$python_status" -eq 0 ] || exit "$python_status"
echo "== AddressSanitizer and UBSan build"
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  run_suite build-asan -DCMAKE_BUILD_TYPE=Debug -DKOLTA_SANITIZE=ON

echo "== fuzzing: every target briefly"
KOLTA_JOBS=$jobs ./tools/run-fuzz.sh "${KOLTA_FUZZ_SECONDS:-15}"

echo "== ARM: armhf cross build run under qemu-arm"
# Skipped, with the reason, when the cross tools or qemu cannot be installed.
KOLTA_SANDBOX="$PWD/build-test/tests/kolta_sandbox" ./tools/run-arm.sh
