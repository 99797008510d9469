"""Leases and DevicePool against sandboxed daemons: one winner of every race,
a dead holder's lease freed after its ttl, renewal, breaking, nesting."""

from __future__ import annotations

import os
import signal
import subprocess
import sys
import threading
import time

import pytest
from conftest import PYTHON_DIR, Sandboxes

from kolta import Device, DeviceBusy, DevicePool, LeaseLost
from kolta.lease import TOKEN_ENV, break_lease, show


@pytest.fixture
def free_device(sandboxes: Sandboxes) -> Device:
    """The first sandboxed device, its lease removed before and after."""
    device = sandboxes.devices()[0]
    break_lease(device)
    yield device
    break_lease(device)


def test_twenty_clients_race_fifty_rounds_one_winner_each(free_device: Device) -> None:
    clients = [Device(free_device.host, free_device.port) for _ in range(20)]
    start = threading.Barrier(len(clients))
    for round_no in range(50):
        won: list[object] = []
        failures: list[BaseException] = []

        def race(i: int) -> None:
            start.wait()
            try:
                won.append(clients[i].lease(owner=f"client {i}", ttl=30))
            except DeviceBusy as e:
                assert e.holder is not None and e.holder.startswith("client ")
            except BaseException as e:  # noqa: BLE001 - reported below
                failures.append(e)

        threads = [threading.Thread(target=race, args=(i,)) for i in range(len(clients))]
        for t in threads:
            t.start()
        for t in threads:
            t.join()
        assert not failures, failures
        assert len(won) == 1, f"round {round_no}: {len(won)} winners"
        won[0].release()  # type: ignore[attr-defined]
    for c in clients:
        c.close()


HOLDER = """
import sys, time
sys.path.insert(0, sys.argv[1])
from kolta import Device
lease = Device("127.0.0.1", int(sys.argv[2])).lease(owner="doomed holder", ttl=float(sys.argv[3]))
print("held", flush=True)
time.sleep(600)
"""


def test_killed_holder_keeps_device_while_renewing_and_frees_it_after_ttl(free_device: Device) -> None:
    ttl = 3.0
    holder = subprocess.Popen(
        [sys.executable, "-c", HOLDER, str(PYTHON_DIR), str(free_device.port), str(ttl)],
        stdout=subprocess.PIPE, text=True)
    try:
        assert holder.stdout is not None and holder.stdout.readline() == "held\n"
        time.sleep(2 * ttl)  # renewed in the background beyond its ttl
        with pytest.raises(DeviceBusy) as busy:
            free_device.lease(owner="waiter")
        assert busy.value.holder == "doomed holder"
        assert 0 < busy.value.expires <= ttl
        os.kill(holder.pid, signal.SIGKILL)
        killed = time.monotonic()
    finally:
        holder.kill()
        holder.wait()
    with free_device.lease(owner="waiter", wait=4 * ttl) as lease:
        waited = time.monotonic() - killed
        assert lease.owner == "waiter"
        assert show(free_device).owner == "waiter"
    assert 0.5 < waited < 2 * ttl + 2
    assert show(free_device).result == "free"


def test_break_renew_and_nesting(free_device: Device, monkeypatch: pytest.MonkeyPatch) -> None:
    lease = free_device.lease(owner="first", ttl=30)
    try:
        # an enclosing holder's token in the environment: that lease is ours
        monkeypatch.setenv(TOKEN_ENV, lease.token)
        with free_device.lease(owner="nested") as inner:
            assert inner.nested and inner.owner == "first"
        assert show(free_device).owner == "first"  # the nested exit kept it
        monkeypatch.delenv(TOKEN_ENV)
        # the lease vanished (storage that a reboot empties): the renewal takes it again
        free_device.run("rm -f /etc/kolta/lease/lease", check=True)
        lease.renew()
        assert show(free_device).owner == "first"
        broken = break_lease(free_device)
        assert (broken.result, broken.owner) == ("broke", "first")
        with free_device.lease(owner="second"):
            with pytest.raises(LeaseLost, match="second"):
                lease.renew()
    finally:
        lease.release()  # of a lease lost to another: leaves that one alone
    assert show(free_device).result == "free"


def test_pool_gives_each_holder_its_own_device_and_names_every_holder(sandboxes: Sandboxes) -> None:
    entries = [f"127.0.0.1:{port}" for port in sandboxes.ports]
    for device in sandboxes.devices():
        break_lease(device)
    pool = DevicePool([*entries, "127.0.0.1:1"], timeout=2)
    assert pool.holders()[entries[0]] is None
    assert pool.holders()["127.0.0.1:1"].startswith("not reachable")
    with pool.acquire(owner="a") as a, pool.acquire(owner="b") as b, pool.acquire(owner="c") as c:
        assert len({a.port, b.port, c.port}) == 3
        assert sorted(v for k, v in pool.holders().items() if k in entries) == ["a", "b", "c"]
        began = time.monotonic()
        with pytest.raises(DeviceBusy) as busy:
            with pool.acquire(owner="d", wait=1):
                pass
        assert time.monotonic() - began >= 1
        text = str(busy.value)
        assert all(f"{e}: {o}" in text for e, o in zip(entries, "abc"))
        assert "127.0.0.1:1: not reachable" in text
        # a holder that ends lets a waiter in
        late: list[int] = []

        def wait_for_one() -> None:
            with pool.acquire(owner="d", wait=20) as d:
                late.append(d.port)

        waiter = threading.Thread(target=wait_for_one)
        waiter.start()
        time.sleep(0.5)
    waiter.join()
    assert late and late[0] in sandboxes.ports
    assert all(v is None for k, v in pool.holders().items() if k in entries)


def test_kolta_lease_from_two_shells_takes_turns_and_shares_the_format(
        free_device: Device, tmp_path) -> None:
    from conftest import kolta_cli

    where = f"{free_device.host}:{free_device.port}"
    log = tmp_path / "log"
    # each shell's command records its start and end; the device is one
    record = f'echo "$$ start $(date +%s.%N) $KOLTA_HOST:$KOLTA_PORT" >>{log}; sleep 1; ' \
             f'echo "$$ end $(date +%s.%N)" >>{log}; exit 5'
    shells = [subprocess.Popen([str(kolta_cli()), "-H", where, "lease", "--wait", "30", "--",
                                "sh", "-c", record]) for _ in range(2)]
    assert [s.wait(timeout=60) for s in shells] == [5, 5]
    lines = [line.split() for line in log.read_text().splitlines()]
    assert [w[1] for w in lines] == ["start", "end", "start", "end"]
    assert lines[0][0] == lines[1][0] and float(lines[2][2]) >= float(lines[1][2])
    assert lines[0][3] == where

    # a lease held by Python is seen by kolta, which waits and then gives up with 3
    with free_device.lease(owner="python holder", ttl=20):
        shown = subprocess.run([str(kolta_cli()), "-H", f"{where},127.0.0.1:1", "-t", "2", "leases"],
                               capture_output=True, text=True)
        assert shown.returncode == 3
        assert f"{where}: python holder, held " in shown.stdout
        assert "127.0.0.1:1: not reachable" in shown.stdout
        busy = subprocess.run([str(kolta_cli()), "-H", where, "lease", "--wait", "0.5", "--", "true"],
                              capture_output=True, text=True)
        assert busy.returncode == 3
        assert f"{where}: python holder" in busy.stderr
    # and kolta's lease by Python, inside the command as its own (KOLTA_LEASE)
    inside = ("import sys; from kolta import Device; "
              f"print(Device('127.0.0.1', {free_device.port}).lease(owner='x').nested)")
    nested = subprocess.run([str(kolta_cli()), "-H", where, "lease", "--", sys.executable, "-c", inside],
                            capture_output=True, text=True, env={**os.environ, "PYTHONPATH": str(PYTHON_DIR)})
    assert (nested.returncode, nested.stdout) == (0, "True\n"), nested.stderr
    with free_device.lease(owner="to be broken", ttl=20) as lease:
        broken = subprocess.run([str(kolta_cli()), "-H", where, "lease", "--break"],
                                capture_output=True, text=True)
        assert broken.stdout == f"{where}: broke the lease of to be broken\n"
        assert show(free_device).result == "free"
        lease.renew()  # a holder still alive takes it back while nobody else has it
        assert show(free_device).owner == "to be broken"


def test_kolta_sends_the_same_script() -> None:
    from conftest import REPO_DIR

    from kolta.lease import LEASE_SCRIPT

    source = (REPO_DIR / "client" / "lease.cpp").read_text()
    start = source.index('R"SH(') + len('R"SH(')
    assert source[start:source.index(')SH"', start)] == LEASE_SCRIPT


def test_kolta_lease_passes_sigterm_on_and_releases(free_device: Device) -> None:
    from conftest import kolta_cli

    where = f"{free_device.host}:{free_device.port}"
    holder = subprocess.Popen([str(kolta_cli()), "-H", where, "lease", "--", "sh", "-c",
                               "echo started; exec sleep 60"], stdout=subprocess.PIPE, text=True)
    assert holder.stdout is not None and holder.stdout.readline() == "started\n"
    assert show(free_device).result == "held"
    holder.send_signal(signal.SIGTERM)
    assert holder.wait(timeout=30) == 128 + signal.SIGTERM
    assert show(free_device).result == "free"
