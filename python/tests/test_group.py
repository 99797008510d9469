"""DeviceGroup against three sandboxed daemons at once."""

from __future__ import annotations

from kolta import ConnectionFailed, DeviceGroup
from kolta.group import parse_host

from conftest import Sandboxes


def test_three_devices_at_once(sandboxes: Sandboxes) -> None:
    hosts = [f"127.0.0.1:{port}" for port in sandboxes.ports]
    group = DeviceGroup(hosts)

    assert group.test() == {host: True for host in hosts}
    assert group.put(b"firmware", "/tmp/firmware.bin") == {host: None for host in hosts}
    results = group.run("cat /tmp/firmware.bin && rm /tmp/firmware.bin && echo $PPID")
    assert set(results) == set(hosts)
    outputs = [r.stdout for r in results.values() if not isinstance(r, BaseException)]
    assert len(outputs) == 3 and all(o.startswith(b"firmware") for o in outputs)


def test_group_reports_each_hosts_failure(sandboxes: Sandboxes) -> None:
    good = f"127.0.0.1:{sandboxes.ports[0]}"
    group = DeviceGroup([good, "127.0.0.1:1"])
    results = group.run("echo hi")
    answer = results[good]
    assert not isinstance(answer, BaseException) and answer.stdout == b"hi\n"
    assert isinstance(results["127.0.0.1:1"], ConnectionFailed)
    assert group.test() == {good: True, "127.0.0.1:1": False}


def test_host_entries() -> None:
    assert parse_host("dut", 10000) == ("dut", 10000)
    assert parse_host("dut:2000", 10000) == ("dut", 2000)
    assert parse_host("fe80::1", 10000) == ("fe80::1", 10000)
    assert parse_host("[::1]:2000", 10000) == ("::1", 2000)
