"""Waiting for a device from outside: until its daemon answers, and through a
reboot until it answers again having booted anew. A device tells one boot
from the next by the kernel's boot id, a random text Linux draws at every
boot.

Every try opens a connection of its own, bounded by the try's time limit;
the tries are spaced by pauses that grow to a second, and the whole wait
ends at its deadline with a TimeoutError that says what was seen."""

from __future__ import annotations

import time
from collections.abc import Callable
from dataclasses import dataclass

from kolta.errors import KoltaError
from kolta.wire import Channel

BOOT_ID_FILE = "/proc/sys/kernel/random/boot_id"
# One try: at most this long, so that a device coming back is seen soon
# after a try that went unanswered.
LONGEST_TRY = 5.0
FIRST_PAUSE = 0.1
LONGEST_PAUSE = 1.0


def _seconds(s: float) -> str:
    return f"{s:.0f} s" if s >= 10 or s == int(s) else f"{s:.1f} s"


def read_boot_id(channel: Channel) -> str:
    """The device's boot id, read on `channel`."""
    data = channel.request("getFile", {"file": BOOT_ID_FILE}).data
    boot_id = data.decode("latin-1").rstrip("\r\n ")
    if not boot_id:
        raise KoltaError(f"{BOOT_ID_FILE} is empty on the device")
    return boot_id


@dataclass
class _Seen:
    """What the tries of one wait saw."""

    first_down: float | None = None  # seconds into the wait
    back: float | None = None
    last_failure: str = ""


def _wait(
    host: str,
    port: int,
    timeout: float,
    try_timeout: float,
    attempt: Callable[[Channel, float, _Seen], bool],
) -> _Seen:
    """Calls `attempt` until it returns True or the deadline passes. A try
    that cannot reach the daemon is recorded as the device being down."""
    start = time.monotonic()
    deadline = start + timeout
    pause = FIRST_PAUSE
    seen = _Seen()
    while True:
        left = deadline - time.monotonic()
        limit = max(0.1, min(try_timeout, LONGEST_TRY, left))
        now = time.monotonic() - start
        try:
            with Channel(host, port, limit) as channel:
                if attempt(channel, now, seen):
                    return seen
        except (KoltaError, OSError) as error:
            if seen.first_down is None:
                seen.first_down = now
            seen.back = None
            seen.last_failure = getattr(error, "why", None) or str(error)
        left = deadline - time.monotonic()
        if left <= 0:
            raise _Timeout(seen)
        time.sleep(min(pause, left))
        pause = min(pause * 2, LONGEST_PAUSE)


class _Timeout(Exception):
    def __init__(self, seen: _Seen) -> None:
        super().__init__()
        self.seen = seen


def wait_online(host: str, port: int, timeout: float, try_timeout: float) -> None:
    """Waits until the daemon answers "test"; TimeoutError after `timeout` s."""

    def answers(channel: Channel, _now: float, _seen: _Seen) -> bool:
        channel.request("test")
        return True

    try:
        _wait(host, port, timeout, try_timeout, answers)
    except _Timeout as t:
        raise TimeoutError(
            f"{host}:{port} did not answer within {_seconds(timeout)} (last try: {t.seen.last_failure})"
        ) from None


def wait_reboot(host: str, port: int, boot_before: str, timeout: float, try_timeout: float) -> None:
    """After a reboot request: waits until the device answers with a boot id
    other than `boot_before`. TimeoutError after `timeout` s, saying whether
    it never went down, did not come back, or came back with the old boot id."""

    def booted_anew(channel: Channel, now: float, seen: _Seen) -> bool:
        if read_boot_id(channel) != boot_before:
            return True
        if seen.first_down is not None and seen.back is None:
            seen.back = now
        return False

    try:
        _wait(host, port, timeout, try_timeout, booted_anew)
    except _Timeout as t:
        seen = t.seen
        where = f"{host}:{port}"
        if seen.first_down is None:
            why = (
                f"did not reboot: it kept answering with the same boot id for {_seconds(timeout)}"
                " (it never went down)"
            )
        elif seen.back is None:
            why = (
                f"went down {_seconds(seen.first_down)} after the reboot request and did not answer"
                f" again within {_seconds(timeout)} (last try: {seen.last_failure})"
            )
        else:
            why = (
                f"did not reboot: it stopped answering after {_seconds(seen.first_down)} but answered"
                f" again after {_seconds(seen.back)} with the same boot id (the daemon restarted,"
                " the device did not)"
            )
        raise TimeoutError(f"{where} {why}") from None
