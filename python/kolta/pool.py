"""Kept connections to one daemon, lent out one call at a time."""

from __future__ import annotations

import threading
from collections.abc import Iterator
from contextlib import contextmanager

from kolta.errors import Refused
from kolta.wire import Channel

# Idle connections kept at most; each holds one worker process on the device.
MAX_IDLE = 16


class Pool:
    """Connections to one daemon. A call takes an idle one or opens a new
    one and gives it back when it ended cleanly, so that later calls skip
    connecting. A kept connection that the daemon has closed meanwhile (a
    restart) is noticed before anything is sent on it, and replaced."""

    def __init__(self, host: str, port: int, timeout: float) -> None:
        self.host = host
        self.port = port
        self.timeout = timeout
        self._idle: list[Channel] = []
        self._lock = threading.Lock()

    def fresh(self) -> Channel:
        """A connection of its own, not kept (opened by its first request)."""
        return Channel(self.host, self.port, self.timeout)

    def take(self) -> Channel:
        while True:
            with self._lock:
                channel = self._idle.pop() if self._idle else None
            if channel is None:
                return self.fresh()
            if channel.alive():
                return channel
            channel.close()

    def give_back(self, channel: Channel) -> None:
        if not channel.reusable():
            channel.close()
            return
        with self._lock:
            if len(self._idle) < MAX_IDLE:
                self._idle.append(channel)
                return
        channel.close()

    @contextmanager
    def lease(self) -> Iterator[Channel]:
        """A connection for one call; kept afterwards unless the call failed
        or left it unusable."""
        channel = self.take()
        try:
            yield channel
        except Refused:
            self.give_back(channel)  # a Fail reply leaves the connection usable
            raise
        except BaseException:
            channel.close()
            raise
        self.give_back(channel)

    def close(self) -> None:
        with self._lock:
            idle, self._idle = self._idle, []
        for channel in idle:
            channel.close()
