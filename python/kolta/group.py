"""The same call on many devices at once."""

from __future__ import annotations

from collections.abc import Callable, Iterable
from concurrent.futures import ThreadPoolExecutor
from typing import TypeVar

from kolta.device import DEFAULT_PORT, Device
from kolta.results import Result
from kolta.transfer import LocalSource

_T = TypeVar("_T")


def parse_host(entry: str, default_port: int) -> tuple[str, int]:
    """"host", "host:port", "[v6-address]" or "[v6-address]:port"; a bare
    address with several colons is taken as an IPv6 address."""
    if entry.startswith("["):
        address, sep, rest = entry[1:].partition("]")
        if not sep or (rest and not rest.startswith(":")):
            raise ValueError(f"bad host entry {entry!r}")
        return address, int(rest[1:]) if rest else default_port
    if entry.count(":") == 1:
        host, _, port = entry.partition(":")
        return host, int(port)
    return entry, default_port


def devices_by_entry(hosts: Iterable[str], port: int, timeout: float, what: str) -> dict[str, Device]:
    """A Device for each host entry ("host", "host:port", "[v6]:port"; blank
    entries are left out), keyed by the entry; ValueError when none is left."""
    devices: dict[str, Device] = {}
    for entry in hosts:
        entry = entry.strip()
        if entry:
            host, host_port = parse_host(entry, port)
            devices[entry] = Device(host, host_port, timeout)
    if not devices:
        raise ValueError(f"{what} needs at least one host")
    return devices


class DeviceGroup:
    """Many devices, each named by its entry in `hosts`. The calls run on
    every device in parallel and return a dict from entry to the call's
    result, or to the exception that the call raised on that device."""

    def __init__(self, hosts: Iterable[str], port: int = DEFAULT_PORT, timeout: float = 30.0) -> None:
        self.devices = devices_by_entry(hosts, port, timeout, "DeviceGroup")

    def __len__(self) -> int:
        return len(self.devices)

    def run(
        self,
        cmd: str | bytes,
        check: bool = False,
        timeout: float | None = None,
        input: bytes | str | None = None,
    ) -> dict[str, Result | BaseException]:
        """Every device gets the same input."""
        return self._on_all(lambda d: d.run(cmd, check=check, timeout=timeout, input=input))

    def put(self, local: LocalSource, remote: str) -> dict[str, None | BaseException]:
        return self._on_all(lambda d: d.put(local, remote))

    def test(self) -> dict[str, bool | BaseException]:
        return self._on_all(lambda d: d.test())

    def _on_all(self, call: Callable[[Device], _T]) -> dict[str, _T | BaseException]:
        def guarded(device: Device) -> _T | BaseException:
            try:
                return call(device)
            except Exception as e:  # handed to the caller, per device
                return e

        with ThreadPoolExecutor(max_workers=len(self.devices)) as pool:
            outcomes = pool.map(guarded, self.devices.values())
            return dict(zip(self.devices, outcomes))
