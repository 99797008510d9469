#!/usr/bin/env bash
# Checks the static builds of tools/build-static.sh where no C library helps
# them: for each architecture built (dist/<arch>/), or those named,
#
#   tools/check-static.sh [x86_64] [armhf] [arm64]
#
# - the daemon's texts of every error number and signal equal the GNU C
#   library's (build-static-<arch>/lib/system_texts_dump against this
#   machine's C library);
# - x86_64: koltad runs in an otherwise empty root (the daemon, its
#   configuration, a static BusyBox as /bin/sh, /tmp and /dev/null);
#   ARM: koltad runs under qemu-arm or qemu-aarch64 with no sysroot (-L);
# - that architecture's static kolta (under qemu for ARM, no sysroot either)
#   talks to it: test, version, sh, a put/get round trip, a background
#   process.
#
# The daemons run in kolta_sandbox (KOLTA_SANDBOX, else build-test's, built
# when missing). When sandboxes cannot be made here it says
# "static test skipped: <why>" and exits 0.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/deps.sh
. tools/sandbox.sh

archs=("$@")
if [ ${#archs[@]} -eq 0 ]; then
  for arch in x86_64 armhf arm64; do
    [ -x "dist/$arch/koltad" ] && archs+=("$arch")
  done
fi
[ ${#archs[@]} -gt 0 ] || { echo "nothing built in dist/: run tools/build-static.sh first" >&2; exit 1; }

needs=(busybox-static python3)
for arch in "${archs[@]}"; do
  [ "$arch" = x86_64 ] || needs+=(qemu-user)
done
ensure_packages "${needs[@]}"

sandbox=${KOLTA_SANDBOX:-}
if [ -z "$sandbox" ]; then
  sandbox=$PWD/build-test/tests/kolta_sandbox
  cmake -S . -B build-test -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build build-test -j2 --target kolta_sandbox system_texts_dump >/dev/null
fi
texts_reference=$(dirname "$(dirname "$sandbox")")/lib/system_texts_dump
[ -x "$texts_reference" ] || cmake --build "$(dirname "$(dirname "$sandbox")")" --target system_texts_dump >/dev/null

work=$(mktemp -d "${TMPDIR:-/tmp}/kolta-static.XXXXXX")
trap 'sandbox_stop || true; rm -rf "$work"' EXIT

failed=0
fail() {
  echo "FAILED: $*" >&2
  failed=1
}

"$texts_reference" --c-library >"$work/texts.glibc"

for arch in "${archs[@]}"; do
  case "$arch" in
    x86_64) emulator=() ;;
    armhf) emulator=(qemu-arm) ;;
    arm64) emulator=(qemu-aarch64) ;;
    *) echo "unknown architecture: $arch" >&2; exit 2 ;;
  esac
  daemon=$PWD/dist/$arch/koltad
  cli=$PWD/dist/$arch/kolta
  for program in "$daemon" "$cli"; do
    file -b "$program" | grep -q 'statically linked' || fail "$program is not statically linked"
  done

  echo "== static $arch: the C library's texts"
  "${emulator[@]}" "build-static-$arch/lib/system_texts_dump" >"$work/texts.$arch"
  if ! diff -u "$work/texts.glibc" "$work/texts.$arch" >"$work/texts.diff"; then
    fail "$arch: texts differ from the GNU C library's:"
    head -n 40 "$work/texts.diff" >&2
  else
    echo "   $(grep -c '^error' "$work/texts.$arch") error texts and $(grep -c '^signal' "$work/texts.$arch") signal texts as the GNU C library gives them"
  fi

  if [ "$arch" = x86_64 ]; then
    echo "== static $arch: koltad in an empty root, kolta beside it"
    where=(--empty-root /bin/busybox)
  else
    echo "== static $arch: koltad and kolta under ${emulator[0]} without a sysroot"
    where=(--emulator "${emulator[0]}")
  fi
  status=0
  sandbox_start "$work" --daemon "$daemon" "${where[@]}" || status=$?
  if [ "$status" -eq 77 ]; then
    echo "static test skipped: $(cat "$work/sandbox.log")"
    exit 0
  elif [ "$status" -ne 0 ]; then
    cat "$work/sandbox.log" >&2
    fail "$arch: the static daemon did not come up"
    continue
  fi

  # run_kolta ARGS...: leaves kolta's output in $out and its status in $rc.
  run_kolta() {
    rc=0
    out=$("${emulator[@]}" "$cli" -H 127.0.0.1 -p "$port" -t 60 "$@" 2>&1) || rc=$?
  }
  run_kolta test
  [ "$rc" -eq 0 ] && [ -z "$out" ] || fail "$arch: kolta test: status $rc: $out"
  run_kolta version
  [ "$rc" -eq 0 ] && grep -qx 'DEVICE=KOLTA' <<<"$out" || fail "$arch: kolta version: status $rc: $out"
  run_kolta sh 'echo hi; echo oops >&2; exit 3'
  [ "$rc" -eq 3 ] && [ "$out" = $'hi\noops' ] || fail "$arch: kolta sh: status $rc: $out"
  head -c 300000 /dev/urandom >"$work/sent"
  run_kolta put "$work/sent" /tmp/kolta-static-roundtrip
  if [ "$rc" -ne 0 ]; then
    fail "$arch: kolta put: status $rc: $out"
  else
    rm -f "$work/received"
    run_kolta get /tmp/kolta-static-roundtrip "$work/received"
    if [ "$rc" -ne 0 ]; then
      fail "$arch: kolta get: status $rc: $out"
    elif ! cmp -s "$work/sent" "$work/received"; then
      fail "$arch: kolta put/get: the bytes came back changed"
    fi
  fi
  # A background process through the process manager's message queue.
  printf 'echo in the background\nexit 3\n' >"$work/background.sh"
  run_kolta put "$work/background.sh" /tmp/kolta-static-background.sh
  run_kolta start /bin/sh /tmp/kolta-static-background.sh
  pid=$out
  if [ "$rc" -ne 0 ] || ! [[ "$pid" =~ ^[0-9]+$ ]]; then
    fail "$arch: kolta start: status $rc: $out"
  else
    run_kolta wait "$pid" --timeout 30
    grep -qx 'STATE=FAILED' <<<"$out" && grep -qx 'EXITCODE=3' <<<"$out" ||
      fail "$arch: kolta wait: status $rc: $out"
    run_kolta output "$pid" stdout --remove
    [ "$rc" -eq 0 ] && [ "$out" = "in the background" ] || fail "$arch: kolta output: status $rc: $out"
  fi
  [ "$failed" -eq 0 ] && echo "   kolta: test, version, sh, put/get, a background process all right"

  sandbox_stop || fail "$arch: kolta_sandbox ended with status $?"
  # (The sh command above failing on purpose is logged as "Modul returned with error".)
  if grep -v -e '^--- daemon' -e 'Modul returned with error' "$work/sandbox.log" |
    grep -E 'FATAL|[Ee]rror' >"$work/errors"; then
    fail "$arch: the daemon logged errors: $(cat "$work/errors")"
  fi
  if [ "$failed" -ne 0 ]; then
    echo "--- kolta_sandbox and daemon log ($arch) ---" >&2
    cat "$work/sandbox.log" >&2
  fi
done
[ "$failed" -eq 0 ] || exit 1
echo "== static builds checked: ${archs[*]}"
