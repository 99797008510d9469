"""A pool of devices shared by test runs: each run leases a free one."""

from __future__ import annotations

from collections.abc import Iterable, Iterator
from contextlib import contextmanager

from kolta.device import DEFAULT_PORT, Device
from kolta.errors import KoltaError
from kolta.group import devices_by_entry
from kolta.lease import Backoff, DeviceBusy, Lease, default_owner, holder_text, show, try_take


class DevicePool:
    """Devices named by host entries ("host", "host:port", "[v6]:port").
    acquire() leases one of them; another process or machine using the same
    entries waits for it, since the lease lives on the device."""

    def __init__(self, hosts: Iterable[str], port: int = DEFAULT_PORT, timeout: float = 30.0) -> None:
        self.devices = devices_by_entry(hosts, port, timeout, "DevicePool")

    def __len__(self) -> int:
        return len(self.devices)

    def take(self, owner: str | None = None, ttl: float = 60.0, wait: float = 600.0) -> tuple[str, Lease]:
        """Leases a free device (its entry and lease), waiting up to `wait`
        seconds when every device is held. A device that cannot be reached is
        skipped and named with its error in DeviceBusy."""
        if ttl <= 0:
            raise ValueError("ttl must be positive")
        owner = owner or default_owner()
        backoff = Backoff(wait)
        while True:
            holders: list[tuple[str, str]] = []
            for entry, device in self.devices.items():
                try:
                    lease, state = try_take(device, owner, ttl)
                except KoltaError as e:
                    holders.append((entry, f"not reachable: {e}"))
                    continue
                if lease is not None:
                    lease.start_renewing()
                    return entry, lease
                holders.append((entry, holder_text(state)))
            if not backoff.sleep():
                listed = "; ".join(f"{entry}: {text}" for entry, text in holders)
                raise DeviceBusy(f"no device of the pool was free within {wait} s ({listed})",
                                 None, None, holders)

    @contextmanager
    def acquire(self, owner: str | None = None, ttl: float = 60.0,
                wait: float = 600.0) -> Iterator[Device]:
        """A Device whose lease is held until the with block ends."""
        _, lease = self.take(owner, ttl, wait)
        try:
            yield lease.device  # type: ignore[misc]
        finally:
            lease.release()

    def holders(self) -> dict[str, str | None]:
        """Each entry's holder (its owner text), or None when it is free. A
        device that cannot be reached maps to the error's text."""
        found: dict[str, str | None] = {}
        for entry, device in self.devices.items():
            try:
                state = show(device)
            except KoltaError as e:
                found[entry] = f"not reachable: {e}"
                continue
            found[entry] = None if state.result == "free" else (state.owner or "an unknown holder")
        return found
