"""A background process on the device, started by "process_start"."""

from __future__ import annotations

import time
from typing import Literal

from kolta.errors import KoltaError, Refused
from kolta.pool import Pool
from kolta.results import ProcessState
from kolta.wire import Channel

# Polling for the end of a process: the first pause, its growth, its limit.
_FIRST_PAUSE = 0.01
_PAUSE_GROWTH = 2.0
_LONGEST_PAUSE = 0.25


def query_state(channel: Channel, pid: int, remove: bool = False) -> ProcessState:
    arguments = {"pid": str(pid)}
    if remove:
        arguments["rp"] = "1"
    return ProcessState.parse(channel.request("process_getState", arguments).data)


def wait_for_end(channel: Channel, pid: int, timeout: float | None) -> ProcessState:
    """Polls the state with a growing pause until the process has ended;
    TimeoutError after `timeout` seconds (None: no limit)."""
    deadline = None if timeout is None else time.monotonic() + timeout
    pause = _FIRST_PAUSE
    while True:
        state = query_state(channel, pid)
        if not state.running:
            return state
        if deadline is not None:
            left = deadline - time.monotonic()
            if left <= 0:
                raise TimeoutError(f"process {pid} still running after {timeout} s")
            pause = min(pause, left)
        time.sleep(pause)
        pause = min(pause * _PAUSE_GROWTH, _LONGEST_PAUSE)


def stop_process(channel: Channel, pid: int) -> ProcessState:
    """Stops a running process (SIGTERM, and SIGKILL about six seconds later
    if it is still there) and returns its final state. A process that has
    already ended is left as it is."""
    try:
        channel.request("process_stop", {"pid": str(pid)})
    except Refused:
        state = query_state(channel, pid)
        if state.running:
            raise
        return state
    return query_state(channel, pid)


def fetch_output(channel: Channel, pid: int, stream: str, remove: bool) -> bytes:
    """The whole captured output of an ended process. With remove the daemon
    then forgets the process and deletes both of its output files."""
    source = {"stdout": "STDOUT", "stderr": "STDERR"}.get(stream)
    if source is None:
        raise ValueError(f"stream must be 'stdout' or 'stderr', not {stream!r}")
    arguments = {"pid": str(pid), "rp": "1" if remove else "0", "src": source}
    return channel.request("process_getDetails", arguments).data


class Process:
    """A process started in the background, on the device whose connections
    `pool` holds."""

    def __init__(self, pool: Pool, pid: int, cmd: str = "", args: str = "") -> None:
        self.pool = pool
        self.pid = pid
        self.cmd = cmd
        self.args = args

    def __repr__(self) -> str:
        return f"Process(pid={self.pid}, cmd={self.cmd!r}, args={self.args!r})"

    def state(self) -> ProcessState:
        with self.pool.lease() as channel:
            return query_state(channel, self.pid)

    def wait(self, timeout: float | None = None) -> ProcessState:
        """Waits until the process has ended; TimeoutError after `timeout`
        seconds."""
        with self.pool.lease() as channel:
            return wait_for_end(channel, self.pid, timeout)

    def stop(self) -> ProcessState:
        with self.pool.lease() as channel:
            return stop_process(channel, self.pid)

    def output(self, stream: Literal["stdout", "stderr"] = "stdout", remove: bool = False) -> bytes:
        """The captured standard output or error, once the process has ended.
        remove=True forgets the process afterwards (the other stream is then
        gone too)."""
        with self.pool.lease() as channel:
            return fetch_output(channel, self.pid, stream, remove)

    def remove(self) -> None:
        """Forgets an ended process and deletes its output files."""
        with self.pool.lease() as channel:
            state = query_state(channel, self.pid, remove=True)
        if state.running:
            raise KoltaError(f"process {self.pid} is still running: stop it before removing it")
