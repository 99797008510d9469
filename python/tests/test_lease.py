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
