"""One device running the daemon."""

from __future__ import annotations

import os
import time
from collections.abc import Sequence
from types import TracebackType
from typing import overload

from kolta.errors import CommandFailed, ConnectionFailed, KoltaError
from kolta.lease import Lease, take
from kolta.pool import Pool
from kolta.process import Process
from kolta.remote import as_input, check_timeout, program_text, run_on_device
from kolta.results import Result
from kolta.transfer import LocalSource, download, download_to, upload, verify
from kolta.wire import Channel
from kolta.words import join_words

DEFAULT_PORT = 10000

# Starts a program without argument words, which "process_start" cannot do.
ARGUMENTLESS_STARTER = "/usr/bin/env"

SETTINGS = ("LoadMethode", "lod_server_ip", "lod_server_port", "exec_type")
REBOOT_MODES = ("warm", "cold")


def _parse_lines(data: bytes) -> dict[str, str]:
    """The "NAME=value" lines of a reply."""
    pairs = (line.partition("=") for line in data.decode("latin-1").splitlines())
    return {name: value for name, sep, value in pairs if sep}


def _launch_words(program: str, args: Sequence[str]) -> tuple[str, str]:
    """The "cmd" and "args" values that start `program` with `args`."""
    if args:
        return program, join_words(args)
    if "=" in program or program.startswith("-"):
        raise ValueError(f"{program!r} cannot be started without arguments")
    return ARGUMENTLESS_STARTER, join_words([program])


class Device:
    """A device running the daemon. A Device may be used from several
    threads at once: each call has a connection of its own while it runs,
    and connections are kept for later calls (close() ends them)."""

    def __init__(self, host: str, port: int = DEFAULT_PORT, timeout: float = 30.0) -> None:
        self.host = host
        self.port = port
        self.timeout = timeout
        self._pool = Pool(host, port, timeout)
        self._boot_before_reboot: str | None = None

    def __repr__(self) -> str:
        return f"Device({self.host!r}, port={self.port})"

    def __enter__(self) -> Device:
        return self

    def __exit__(
        self,
        exc_type: type[BaseException] | None,
        exc: BaseException | None,
        tb: TracebackType | None,
    ) -> None:
        self.close()

    def close(self) -> None:
        """Closes the kept connections (a later call opens new ones)."""
        self._pool.close()

    def channel(self) -> Channel:
        """A new connection of its own (opened by its first request)."""
        return self._pool.fresh()

    # -- information ------------------------------------------------------

    def test(self) -> bool:
        """True when the daemon answers, False when it cannot be reached."""
        try:
            return self.channel().request_then_close("test") is not None
        except ConnectionFailed:
            return False

    def version(self) -> dict[str, str]:
        with self._pool.lease() as channel:
            return _parse_lines(channel.request("version").data)

    # -- commands ---------------------------------------------------------

    def run(
        self,
        cmd: str | bytes,
        check: bool = False,
        timeout: float | None = None,
        input: bytes | str | None = None,
    ) -> Result:
        """Runs a shell command line and returns its whole output and its
        return code. `input` (bytes or str) is its standard input, else it
        reads an empty one. After `timeout` seconds it is stopped with every
        process it started, and CommandTimeout is raised. Calls that overlap
        never share files, and the command line may be of any length."""
        check_timeout(timeout)
        stdin = as_input(input)
        text = cmd.encode() if isinstance(cmd, str) else cmd
        label = cmd if isinstance(cmd, str) else cmd.decode("latin-1")
        result = run_on_device(self._pool, label, text, stdin, timeout)
        return self._checked(label, result, check)

    def execute(
        self,
        program: str,
        args: Sequence[str] = (),
        timeout: float | None = 180,
        check: bool = False,
        input: bytes | str | None = None,
    ) -> Result:
        """Runs a program with exactly these argument words (found in the
        device's PATH when it has no slash). After `timeout` seconds it is
        stopped with every process it started, and CommandTimeout is raised.
        A signal that ended it gives the negative signal number."""
        check_timeout(timeout)
        stdin = as_input(input)
        text = program_text(program, args)
        label = " ".join([program, *args])
        result = run_on_device(self._pool, label, text, stdin, timeout)
        return self._checked(label, result, check)

    def start(self, program: str, args: Sequence[str] = ()) -> Process:
        """Starts a program in the background."""
        cmd, text = _launch_words(program, args)
        with self._pool.lease() as channel:
            pid = self._start(channel, cmd, text)
        return Process(self._pool, pid, cmd, text)

    # -- files ------------------------------------------------------------

    def put(self, local: LocalSource, remote: str, verify_copy: bool = True) -> None:
        """Uploads a local file (a path) or `bytes` to `remote`, streaming,
        and reads the device's copy back to check it: TransferFailed when it
        differs."""
        with self._pool.lease() as channel:
            size, signature = upload(channel, local, remote)
            if verify_copy:
                verify(channel, remote, size, signature)

    @overload
    def get(self, remote: str, local: None = None) -> bytes: ...

    @overload
    def get(self, remote: str, local: str | os.PathLike[str]) -> None: ...

    def get(self, remote: str, local: str | os.PathLike[str] | None = None) -> bytes | None:
        """The device's file as bytes, or, with `local`, written to that
        path (complete or not at all)."""
        with self._pool.lease() as channel:
            if local is None:
                return download(channel, remote)
            download_to(channel, remote, local)
            return None

    def remove(self, remote: str) -> None:
        with self._pool.lease() as channel:
            channel.request("remFile", {"file": remote})

    # -- sharing ----------------------------------------------------------

    def lease(self, owner: str | None = None, ttl: float = 60.0, wait: float = 0.0) -> Lease:
        """Takes an exclusive lease on the device, to be used as a context
        manager: renewed in the background while held, released on exit. A
        holder that dies loses it `ttl` seconds after its last renewal.
        `owner` defaults to "user@hostname pid N". DeviceBusy when another
        holder still has it after `wait` seconds."""
        return take(self, owner, ttl, wait)

    # -- settings and power -----------------------------------------------

    def setup(self, **settings: object) -> dict[str, str]:
        """Sends "server_setup" and returns the settings it reports. The
        daemon keeps settings for one connection only, and every call has
        its own, so a change does not reach later calls."""
        unknown = set(settings) - set(SETTINGS)
        if unknown:
            raise TypeError(f"unknown settings {sorted(unknown)}; known: {', '.join(SETTINGS)}")
        with self.channel() as channel:
            reply = channel.request("server_setup", {k: str(v) for k, v in settings.items()})
        return _parse_lines(reply.data)

    def reset(self) -> None:
        self.channel().request_then_close("server_reset")

    def reboot(self, mode: str) -> None:
        """Reboots the device: mode "warm" (through init) or "cold"."""
        self._boot_before_reboot = self._boot_id()
        self.channel().request_then_close("reboot", {"mode": mode})

    def shutdown(self) -> None:
        self.channel().request_then_close("shutdown")

    def exit(self) -> None:
        """Ends the daemon."""
        self.channel().request_then_close("exitapp")

    def wait_until_online(self, timeout: float) -> None:
        """Waits until the daemon answers; after reboot() also until the
        device has booted anew. TimeoutError after `timeout` seconds."""
        deadline = time.monotonic() + timeout
        pause = 0.1
        while True:
            if self.test():
                before = self._boot_before_reboot
                if before is None:
                    return
                now = self._boot_id()
                if now is not None and now != before:
                    self._boot_before_reboot = None
                    return
            left = deadline - time.monotonic()
            if left <= 0:
                raise TimeoutError(f"{self.host}:{self.port} not back online within {timeout} s")
            time.sleep(min(pause, left))
            pause = min(pause * 2, 1.0)

    # -- helpers ----------------------------------------------------------

    def _start(self, channel: Channel, cmd: str, args: str) -> int:
        data = _parse_lines(channel.request("process_start", {"cmd": cmd, "args": args}).data)
        try:
            return int(data["PID"])
        except (KeyError, ValueError):
            raise KoltaError(f"process_start: no PID in the reply {data}") from None

    def _boot_id(self) -> str | None:
        try:
            return self.get("/proc/sys/kernel/random/boot_id").decode("latin-1").strip()
        except KoltaError:
            return None

    @staticmethod
    def _checked(command: str, result: Result, check: bool) -> Result:
        if check and not result.ok:
            raise CommandFailed(command, result)
        return result

