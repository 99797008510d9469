"""Time limits, standard input and kept connections against the sandboxed
daemon."""

from __future__ import annotations

import ast
import hashlib
import os
import signal
import socket
import time
from pathlib import Path

import pytest

from kolta import CommandTimeout, Device, DeviceGroup, KoltaError, Result

from conftest import PYTHON_DIR, Sandboxes


def gone(pid: int, within: float = 5.0) -> bool:
    """True once the process has ended (a zombie counts as ended)."""
    deadline = time.monotonic() + within
    while True:
        try:
            state = Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()[0]
        except (OSError, IndexError):
            return True
        if state in ("Z", "X"):
            return True
        if time.monotonic() > deadline:
            return False
        time.sleep(0.05)


def scratch_left(device: Device) -> list[str]:
    """The client's files in the device's /tmp, apart from this listing's own."""
    listing = device.run('for f in /tmp/kolta-run-*; do case $f in "${0%.sh}".*) ;; *) echo $f ;; esac; done')
    return [line for line in listing.stdout.decode().splitlines() if "*" not in line]


def test_run_time_limit_stops_the_command_and_what_it_started(device: Device) -> None:
    started = time.monotonic()
    with pytest.raises(CommandTimeout) as hit:
        device.run(
            "echo started; echo warn >&2; echo $$ >/tmp/t-top; sleep 300 & echo $! >/tmp/t-child; wait",
            timeout=1,
        )
    assert time.monotonic() - started < 10
    error = hit.value
    assert isinstance(error, TimeoutError) and isinstance(error, KoltaError)
    assert error.timeout == 1
    assert error.result == Result(stdout=b"started\n", stderr=b"warn\n", returncode=None)
    for name in ("/tmp/t-top", "/tmp/t-child"):
        pid = int(device.get(name))
        assert gone(pid), f"{name} {pid} still runs"
        device.remove(name)
    assert scratch_left(device) == []
    assert device.run("echo after").stdout == b"after\n"  # the kept connection still serves


def test_execute_time_limit_raises_with_the_partial_output(device: Device) -> None:
    with pytest.raises(CommandTimeout) as hit:
        device.execute("/bin/sh", ["-c", "echo started; exec sleep 300"], timeout=0.5)
    assert hit.value.result == Result(b"started\n", b"", None)
    assert hit.value.timeout == 0.5
    assert device.execute("/bin/sh", ["-c", "sleep 0.2; echo in time"], timeout=5).stdout == b"in time\n"
    assert scratch_left(device) == []


def test_limits_that_end_before_the_command_starts(device: Device) -> None:
    outcomes = set()
    for _ in range(10):
        try:
            result = device.run("echo x", timeout=0.0005)
            assert result == Result(b"x\n", b"", 0)
            outcomes.add("ran")
        except CommandTimeout as stopped:
            assert stopped.result.returncode is None
            outcomes.add("stopped")
    assert outcomes  # either, depending on the race; never a wrong result
    assert scratch_left(device) == []


def test_ctrl_c_stops_the_command_and_tidies_up(device: Device) -> None:
    def interrupt(signum: int, frame: object) -> None:
        raise KeyboardInterrupt

    before = signal.signal(signal.SIGALRM, interrupt)
    signal.setitimer(signal.ITIMER_REAL, 1.0)
    try:
        with pytest.raises(KeyboardInterrupt):
            device.run("echo $$ >/tmp/t-top; exec sleep 300")
    finally:
        signal.setitimer(signal.ITIMER_REAL, 0)
        signal.signal(signal.SIGALRM, before)
    pid = int(device.get("/tmp/t-top"))
    assert gone(pid)
    device.remove("/tmp/t-top")
    assert scratch_left(device) == []


@pytest.mark.parametrize("timeout", [0, -1, "1", float("nan"), float("inf"), True])
def test_bad_time_limits_are_refused_before_anything_is_sent(timeout: object) -> None:
    nowhere = Device("127.0.0.1", 1, timeout=1)  # would raise ConnectionFailed if reached
    with pytest.raises(ValueError):
        nowhere.run("true", timeout=timeout)  # type: ignore[arg-type]
    with pytest.raises(ValueError):
        nowhere.execute("/bin/true", timeout=timeout)  # type: ignore[arg-type]


def test_standard_input_binary_large_empty_and_absent(device: Device) -> None:
    every_byte = bytes(range(256)) * 4
    assert device.run("cat", input=every_byte).stdout == every_byte
    assert device.execute("/bin/cat", input=every_byte).stdout == every_byte
    assert device.run("tr a-z A-Z", input="text, not bytes\n").stdout == b"TEXT, NOT BYTES\n"

    big = os.urandom(8 << 20)
    summed = device.run("md5sum", input=big, timeout=60)
    assert summed.stdout.split()[0].decode() == hashlib.md5(big).hexdigest()

    assert device.run("wc -c", input=b"").stdout.strip() == b"0"
    assert device.run("cat; echo end", timeout=10).stdout == b"end\n"  # /dev/null, not the daemon's
    with pytest.raises(TypeError):
        device.run("cat", input=42)  # type: ignore[arg-type]
    assert scratch_left(device) == []


def test_every_host_gets_the_same_input(sandboxes: Sandboxes) -> None:
    group = DeviceGroup([f"127.0.0.1:{port}" for port in sandboxes.ports])
    results = group.run("cat; echo $((1 + 1))", input=b"same\n")
    assert all(isinstance(r, Result) and r.stdout == b"same\n2\n" for r in results.values()), results


def test_exit_statuses_by_every_road(device: Device) -> None:
    assert device.run("true") == Result(b"", b"", 0)
    assert device.run("exit 3").returncode == 3
    assert device.run("exit 200").returncode == 200  # beyond what the exit code carries
    assert device.run("echo out; echo err >&2; exit 29") == Result(b"out\n", b"err\n", 29)
    assert device.run("echo x; exec sh -c 'echo y >&2; exit 5'") == Result(b"x\n", b"y\n", 5)
    assert device.run("exec true").returncode == 0
    syntax = device.run("if then")
    assert syntax.returncode == 2 and syntax.stderr
    assert device.execute("/bin/sh", ["-c", "kill -KILL $$"]).returncode == -9
    assert device.execute("printf", ["[%s]", "two words", "'quoted'", ""]).stdout == b"[two words]['quoted'][]"


def test_kept_connections_survive_a_daemon_restart() -> None:
    with socket.create_server(("127.0.0.1", 0)) as probe:
        port = int(probe.getsockname()[1])
    first = Sandboxes(1, port=port)
    device = Device("127.0.0.1", port)
    try:
        assert device.run("echo one").stdout == b"one\n"
        assert device.version()["DEVICE"] == "KOLTA"
    finally:
        first.stop()
    second = Sandboxes(1, port=port)
    try:
        assert device.run("echo two").stdout == b"two\n"
        assert device.version()["DEVICE"] == "KOLTA"
    finally:
        device.close()
        second.stop()


def test_the_package_has_no_import_circle() -> None:
    package = PYTHON_DIR / "kolta"
    imports: dict[str, set[str]] = {}
    for path in package.glob("*.py"):
        names = set()
        for node in ast.walk(ast.parse(path.read_text())):
            if isinstance(node, ast.ImportFrom) and node.module and node.module.startswith("kolta."):
                names.add(node.module.removeprefix("kolta."))
        imports[path.stem] = names

    def visit(module: str, trail: tuple[str, ...]) -> None:
        assert module not in trail, " -> ".join((*trail, module))
        for imported in imports.get(module, ()):
            visit(imported, (*trail, module))

    for module in imports:
        visit(module, ())
