#!/usr/bin/env bash
# Cross-builds koltad and kolta for 32-bit ARM (armhf, Device build type) and
# runs both under qemu-arm: the daemon inside kolta_sandbox, then checks it
# over the wire (test, version, a background process through the process
# manager's message queue) and with the armhf kolta (test, version, sh, a
# put/get round trip).
#
# Installs the cross compiler and qemu-user when missing; when they cannot be
# installed, or sandboxes cannot be made here (no root or namespaces), it says
# "ARM test skipped: <why>" and exits 0.
# KOLTA_SANDBOX names a built kolta_sandbox (default: build-test's, built
# when missing).
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/deps.sh
. tools/sandbox.sh

skip() {
  echo "ARM test skipped: $*"
  exit 0
}

triple=arm-linux-gnueabihf
sysroot=/usr/$triple
ensure_packages cmake g++ make libgtest-dev libgmock-dev python3 ||
  { echo "cannot install the host build tools" >&2; exit 1; }
ensure_packages g++-$triple qemu-user ||
  skip "cannot install g++-$triple and qemu-user"
command -v qemu-arm >/dev/null || skip "qemu-user installed no qemu-arm"
[ -e "$sysroot/lib/ld-linux-armhf.so.3" ] || skip "no armhf C library under $sysroot"
qemu=(qemu-arm -L "$sysroot")

echo "== armhf cross build (Device)"
cmake -S . -B build-armhf --no-warn-unused-cli -DCMAKE_TOOLCHAIN_FILE=packaging/toolchain-armhf.cmake \
  -DCMAKE_BUILD_TYPE=Device -DKOLTA_TESTS=OFF >/dev/null
cmake --build build-armhf -j2 --target koltad kolta
daemon=$PWD/build-armhf/server/koltad
cli=$PWD/build-armhf/cli/kolta

failed=0
fail() {
  echo "FAILED: $*" >&2
  failed=1
}

# The daemon links the C library only, on ARM too.
needed=$(readelf -d "$daemon" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
[ "$needed" = "libc.so.6" ] || fail "the armhf koltad needs: $(echo $needed)"

sandbox=${KOLTA_SANDBOX:-}
if [ -z "$sandbox" ]; then
  sandbox=$PWD/build-test/tests/kolta_sandbox
  cmake -S . -B build-test -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build build-test -j2 --target kolta_sandbox >/dev/null
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/kolta-arm.XXXXXX")
cleanup() {
  sandbox_stop || true
  rm -rf "$work"
}
trap cleanup EXIT

echo "== armhf koltad under qemu-arm, in the sandbox"
status=0
sandbox_start "$work" --daemon "$daemon" --emulator "${qemu[*]}" || status=$?
if [ "$status" -ne 0 ]; then
  [ "$status" -eq 77 ] && skip "$(cat "$work/sandbox.log")"
  cat "$work/sandbox.log" >&2
  echo "FAILED: the armhf daemon did not come up" >&2
  exit 1
fi
echo "   listening on port $port"

# Over the wire with a native client: the daemon alone, whatever the client.
python3 - "$port" <<'PY' || fail "the armhf daemon's replies"
import socket, sys, time

port = int(sys.argv[1])

def ask(sock, command, **args):
    header = f"Request: {command}\r\n" + "".join(f"{k}: {v}\r\n" for k, v in args.items()) + "\r\n"
    sock.sendall(header.encode())
    data = b""
    while b"\r\n\r\n" not in data:
        chunk = sock.recv(4096)
        if not chunk:
            raise SystemExit(f"{command}: connection closed after {data!r}")
        data += chunk
    head, _, body = data.partition(b"\r\n\r\n")
    lines = head.decode().split("\r\n")
    fields = dict(line.split(": ", 1) for line in lines[1:])
    length = int(fields.get("Content-length", "0"))
    while len(body) < length:
        chunk = sock.recv(65536)
        if not chunk:
            raise SystemExit(f"{command}: body cut short")
        body += chunk
    return lines[0], fields, body

def connect():
    s = socket.create_connection(("127.0.0.1", port), timeout=30)
    return s

with connect() as s:
    reply = ask(s, "test")
    assert reply[0] == "Reply: Success", reply
with connect() as s:
    status, _, body = ask(s, "version")
    assert status == "Reply: Data" and b"DEVICE=KOLTA\n" in body, (status, body)
    # A background process: started and watched through the message queue.
    status, _, body = ask(s, "process_start", cmd="/bin/echo", args="hi")
    assert status == "Reply: Data" and body.startswith(b"PID="), (status, body)
    pid = body.decode().strip().split("=", 1)[1]
    for _ in range(300):
        status, _, state = ask(s, "process_getState", pid=pid)
        if b"STATE=RUNNING" not in state:
            break
        time.sleep(0.1)
    assert b"STATE=PASSED" in state, state
    status, _, out = ask(s, "process_getDetails", pid=pid, rp="1", src="STDOUT")
    assert out == b"hi\n", out
print("   wire: test, version, process_start/getState/getDetails all right")
PY

# The armhf command-line client, under qemu-arm too.
# run_kolta ARGS...: runs it, leaving its output in $out and its status in $rc.
run_kolta() {
  rc=0
  out=$("${qemu[@]}" "$cli" -H 127.0.0.1 -p "$port" -t 60 "$@" 2>&1 </dev/null) || rc=$?
}
run_kolta test
[ "$rc" -eq 0 ] && [ -z "$out" ] || fail "kolta test: status $rc: $out"
run_kolta version
[ "$rc" -eq 0 ] && grep -qx 'DEVICE=KOLTA' <<<"$out" || fail "kolta version: status $rc: $out"
run_kolta sh 'echo hi'
[ "$rc" -eq 0 ] && [ "$out" = "hi" ] || fail "kolta sh 'echo hi': status $rc: $out"
head -c 300000 /dev/urandom >"$work/sent"
# The remote name is in the daemon's own /tmp.
run_kolta put "$work/sent" /tmp/kolta-arm-roundtrip
if [ "$rc" -ne 0 ]; then
  fail "kolta put: status $rc: $out"
else
  run_kolta get /tmp/kolta-arm-roundtrip "$work/received"
  if [ "$rc" -ne 0 ]; then
    fail "kolta get: status $rc: $out"
  elif ! cmp -s "$work/sent" "$work/received"; then
    fail "kolta put/get: the bytes came back changed"
  fi
fi
[ "$failed" -eq 0 ] && echo "   kolta: test, version, sh, put/get all right"

sandbox_stop || fail "kolta_sandbox ended with status $?"
# The daemon's log: no failed system call, no fatal error.
if grep -v '^--- daemon' "$work/sandbox.log" | grep -E 'FATAL|[Ee]rror' >"$work/errors"; then
  fail "the daemon logged errors: $(cat "$work/errors")"
fi
if [ "$failed" -ne 0 ]; then
  echo "--- kolta_sandbox and daemon log ---" >&2
  cat "$work/sandbox.log" >&2
  exit 1
fi
echo "== ARM test passed"
