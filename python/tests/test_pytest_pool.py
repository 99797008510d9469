"""The pytest plugin's pool: two `pytest -n 2` runs at once over three
sandboxed daemons never use one device at the same moment."""

from __future__ import annotations

import json
import os
import subprocess
import sys
import time
from pathlib import Path

import pytest
from conftest import PYTHON_DIR, Sandboxes

from kolta.lease import break_lease, show

RECORDING_TESTS = """
import json, os, time
import pytest

@pytest.mark.parametrize("n", range(6))
def test_records_its_device(kolta_device, kolta_lease, n):
    start = time.time()
    kolta_device.run("sleep 0.2", check=True)
    with open(os.environ["RECORD"], "a") as f:
        f.write(json.dumps({"run": os.environ["RUN"], "pid": os.getpid(),
                            "device": kolta_device.port, "lease": kolta_lease.host,
                            "start": start, "end": time.time()}) + "\\n")
"""


def _pytest(tmp_path: Path, *args: str, **env: str) -> subprocess.Popen[str]:
    environment = {k: v for k, v in os.environ.items() if not k.startswith(("KOLTA_", "PYTEST_"))}
    environment.update(PYTHONPATH=str(PYTHON_DIR), PYTHONDONTWRITEBYTECODE="1", **env)
    return subprocess.Popen(
        [sys.executable, "-m", "pytest", "-p", "kolta.pytest_plugin", "-p", "no:cacheprovider",
         "--rootdir", str(tmp_path), *args],
        cwd=tmp_path, env=environment, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)


@pytest.fixture
def pool(sandboxes: Sandboxes) -> str:
    for device in sandboxes.devices():
        break_lease(device)
    yield ",".join(f"127.0.0.1:{port}" for port in sandboxes.ports)
    for device in sandboxes.devices():
        break_lease(device)


def test_two_xdist_runs_share_the_pool_without_overlap(pool: str, tmp_path: Path) -> None:
    pytest.importorskip("xdist", reason="pytest-xdist is not installed (apt install python3-pytest-xdist)")
    (tmp_path / "test_recording.py").write_text(RECORDING_TESTS)
    record = tmp_path / "record"
    runs = [_pytest(tmp_path, "-n", "2", "--kolta-pool", pool, "--kolta-pool-wait", "60",
                    RECORD=str(record), RUN=str(i)) for i in range(2)]
    outputs = [run.communicate(timeout=180)[0] for run in runs]
    assert [run.returncode for run in runs] == [0, 0], outputs
    entries = [json.loads(line) for line in record.read_text().splitlines()]
    assert len(entries) == 12
    by_device: dict[int, list[dict]] = {}
    for e in entries:
        assert e["lease"] == f"127.0.0.1:{e['device']}"
        by_device.setdefault(e["device"], []).append(e)
    for device, uses in by_device.items():
        uses.sort(key=lambda e: e["start"])
        for a, b in zip(uses, uses[1:]):
            # one process at a time on a device; a process keeps its device
            assert a["pid"] == b["pid"] or a["end"] <= b["start"], f"overlap on {device}: {a} {b}"
    devices_of_pid = {(e["pid"]): set() for e in entries}
    for e in entries:
        devices_of_pid[e["pid"]].add(e["device"])
    assert all(len(d) == 1 for d in devices_of_pid.values())
    for run_no in "01":
        workers = {e["pid"]: e["device"] for e in entries if e["run"] == run_no}
        assert len(set(workers.values())) == len(workers)  # each worker its own device
        # the controller names each worker's device as the worker starts
        out = outputs[int(run_no)]
        named = {int(line.split("device 127.0.0.1:")[1].split()[0])
                 for line in out.splitlines() if line.startswith(("kolta: [gw0] device", "kolta: [gw1] device"))}
        assert named == set(workers.values()), out
        assert "kolta: each xdist worker leases a device of the pool" in out


def test_header_names_the_device_and_a_full_pool_errors_listing_holders(
        pool: str, sandboxes: Sandboxes, tmp_path: Path) -> None:
    (tmp_path / "test_one.py").write_text("def test_one(kolta_device, kolta_lease):\n"
                                          "    assert kolta_lease.owner.endswith(str(__import__('os').getpid()))\n")
    (tmp_path / "pool.txt").write_text("# the lab\n" + pool.replace(",", "\n") + "\n")
    done = _pytest(tmp_path, "--kolta-pool", "@pool.txt")
    out = done.communicate(timeout=120)[0]
    assert done.returncode == 0, out
    assert f"kolta: device 127.0.0.1:{sandboxes.ports[0]} leased as " in out

    leases = [d.lease(owner=f"holder {i}", ttl=30) for i, d in enumerate(sandboxes.devices())]
    try:
        began = time.monotonic()
        done = _pytest(tmp_path, "--kolta-pool-wait", "1", KOLTA_POOL=pool)
        out = done.communicate(timeout=120)[0]
        assert done.returncode == 1, out
        assert time.monotonic() - began >= 1
        assert "no device of the pool was free within 1.0 s" in out
        assert all(f"holder {i}" in out for i in range(3))
        # the same device named with --kolta-host waits too, unless not leased
        host = ["--kolta-host", "127.0.0.1", "--kolta-port", str(sandboxes.ports[0])]
        done = _pytest(tmp_path, *host, "--kolta-pool-wait", "0.5")
        out = done.communicate(timeout=120)[0]
        assert done.returncode == 1 and "held by holder 0" in out, out
        (tmp_path / "test_one.py").write_text("def test_one(kolta_device, kolta_lease):\n"
                                              "    assert kolta_lease is None\n")
        done = _pytest(tmp_path, *host, "--kolta-no-lease")
        out = done.communicate(timeout=120)[0]
        assert done.returncode == 0 and "(not leased)" in out, out
    finally:
        for lease in leases:
            lease.release()


def test_xdist_workers_share_the_lease_of_one_host(pool: str, sandboxes: Sandboxes, tmp_path: Path) -> None:
    pytest.importorskip("xdist", reason="pytest-xdist is not installed (apt install python3-pytest-xdist)")
    (tmp_path / "test_two.py").write_text(
        "import os, pytest\n"
        "@pytest.mark.parametrize('n', range(4))\n"
        "def test_n(kolta_device, kolta_lease, n):\n"
        "    assert kolta_lease.token in os.environ['KOLTA_LEASE']\n")
    host = ["--kolta-host", "127.0.0.1", "--kolta-port", str(sandboxes.ports[0])]
    done = _pytest(tmp_path, "-n", "2", *host, "--kolta-pool-wait", "5")
    out = done.communicate(timeout=120)[0]
    assert done.returncode == 0 and "4 passed" in out, out
    assert f"kolta: device 127.0.0.1:{sandboxes.ports[0]} leased as " in out
    assert show(sandboxes.devices()[0]).result == "free"
