"""One device running the daemon."""

from __future__ import annotations

import os
import uuid
from collections.abc import Callable, Sequence
from typing import TypeVar, overload

from kolta.errors import CommandFailed, ConnectionFailed, KoltaError
from kolta.online import read_boot_id, wait_online, wait_reboot
from kolta.process import Process, fetch_output, query_state, stop_process, wait_for_end
from kolta.results import ProcessState, Result
from kolta.transfer import LocalSource, download, download_to, upload, verify
from kolta.wire import Channel
from kolta.words import join_words

DEFAULT_PORT = 10000

# Where the client keeps its short-lived scripts on the device.
SCRATCH_DIR = "/tmp"
SHELL = "/bin/sh"
# Starts a program without argument words, which "process_start" cannot do.
ARGUMENTLESS_STARTER = "/usr/bin/env"

SETTINGS = ("LoadMethode", "lod_server_ip", "lod_server_port", "exec_type")
REBOOT_MODES = ("warm", "cold")

_T = TypeVar("_T")


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
    """A device running the daemon. Every call opens its own connection, so
    one Device may be used from several threads at once."""

    def __init__(self, host: str, port: int = DEFAULT_PORT, timeout: float = 30.0) -> None:
        self.host = host
        self.port = port
        self.timeout = timeout

    def __repr__(self) -> str:
        return f"Device({self.host!r}, port={self.port})"

    def channel(self) -> Channel:
        """A new connection (opened by its first request) for one call."""
        return Channel(self.host, self.port, self.timeout)

    # -- information ------------------------------------------------------

    def test(self) -> bool:
        """True when the daemon answers, False when it cannot be reached."""
        try:
            return self.channel().request_then_close("test") is not None
        except ConnectionFailed:
            return False

    def version(self) -> dict[str, str]:
        with self.channel() as channel:
            return _parse_lines(channel.request("version").data)

    # -- commands ---------------------------------------------------------

    def run(self, cmd: str | bytes, check: bool = False) -> Result:
        """Runs a shell command line and returns its whole output and its
        return code. The command travels as a script of its own, so calls
        that overlap never share output files, and its length is not bound
        by a header value."""
        script_text = cmd.encode() if isinstance(cmd, str) else cmd
        if not script_text.endswith(b"\n"):
            script_text += b"\n"
        script = f"{SCRATCH_DIR}/kolta-run-{uuid.uuid4().hex}.sh"
        with self.channel() as channel:
            upload(channel, script_text, script)
            try:
                result = self._run_to_end(channel, SHELL, script, None)
            finally:
                self._quietly(lambda c: c.request("remFile", {"file": script}), channel)
        return self._checked(cmd if isinstance(cmd, str) else cmd.decode("latin-1"), result, check)

    def execute(
        self,
        program: str,
        args: Sequence[str] = (),
        timeout: float | None = 180,
        check: bool = False,
    ) -> Result:
        """Runs a program without a shell. After `timeout` seconds it is
        stopped (SIGTERM, SIGKILL some seconds later) and the Result tells
        the signal. Raises ValueError for words the daemon cannot pass."""
        cmd, text = _launch_words(program, args)
        with self.channel() as channel:
            result = self._run_to_end(channel, cmd, text, timeout)
        return self._checked(" ".join([program, *args]), result, check)

    def start(self, program: str, args: Sequence[str] = ()) -> Process:
        """Starts a program in the background."""
        cmd, text = _launch_words(program, args)
        with self.channel() as channel:
            pid = self._start(channel, cmd, text)
        return Process(self, pid, cmd, text)

    # -- files ------------------------------------------------------------

    def put(self, local: LocalSource, remote: str, verify_copy: bool = True) -> None:
        """Uploads a local file (a path) or `bytes` to `remote`, streaming,
        and reads the device's copy back to check it: TransferFailed when it
        differs."""
        with self.channel() as channel:
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
        with self.channel() as channel:
            if local is None:
                return download(channel, remote)
            download_to(channel, remote, local)
            return None

    def remove(self, remote: str) -> None:
        with self.channel() as channel:
            channel.request("remFile", {"file": remote})

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

    def reboot(self, mode: str, wait: bool = False, timeout: float = 300.0) -> None:
        """Reboots the device: mode "warm" (through init) or "cold". With
        `wait`, returns only once the device has booted anew (its boot id
        has changed) and answers again; TimeoutError after `timeout` seconds,
        saying what was seen (a device that never went down has not
        rebooted)."""
        if not wait:
            self.channel().request_then_close("reboot", {"mode": mode})
            return
        with self.channel() as channel:
            before = read_boot_id(channel)
        # The device may go down before the reply leaves it: the wait tells.
        self.channel().request_then_close("reboot", {"mode": mode})
        wait_reboot(self.host, self.port, before, timeout, self.timeout)

    def shutdown(self) -> None:
        self.channel().request_then_close("shutdown")

    def exit(self) -> None:
        """Ends the daemon."""
        self.channel().request_then_close("exitapp")

    def wait_until_online(self, timeout: float) -> None:
        """Waits until the daemon answers; TimeoutError after `timeout`
        seconds, saying what the last try saw."""
        wait_online(self.host, self.port, timeout, self.timeout)

    # -- helpers ----------------------------------------------------------

    def _start(self, channel: Channel, cmd: str, args: str) -> int:
        data = _parse_lines(channel.request("process_start", {"cmd": cmd, "args": args}).data)
        try:
            return int(data["PID"])
        except (KeyError, ValueError):
            raise KoltaError(f"process_start: no PID in the reply {data}") from None

    def _run_to_end(self, channel: Channel, cmd: str, args: str, timeout: float | None) -> Result:
        """Starts a process, waits for its end (stopping it after `timeout`),
        fetches both outputs and forgets it."""
        pid = self._start(channel, cmd, args)
        try:
            try:
                state = wait_for_end(channel, pid, timeout)
            except TimeoutError:
                state = stop_process(channel, pid)
            stderr = fetch_output(channel, pid, "stderr", remove=False)
            stdout = fetch_output(channel, pid, "stdout", remove=True)
        except BaseException:
            self._quietly(lambda c: self._forget(c, pid), channel)
            raise
        return Result(stdout=stdout, stderr=stderr, returncode=_returncode(state))

    @staticmethod
    def _forget(channel: Channel, pid: int) -> None:
        if query_state(channel, pid).running:
            stop_process(channel, pid)
        query_state(channel, pid, remove=True)

    @staticmethod
    def _quietly(action: Callable[[Channel], _T], channel: Channel) -> None:
        """Clean-up; its failures are not the caller's. The channel opens a
        new connection if the call's own has failed."""
        try:
            action(channel)
        except (KoltaError, OSError):
            pass

    @staticmethod
    def _checked(command: str, result: Result, check: bool) -> Result:
        if check and not result.ok:
            raise CommandFailed(command, result)
        return result


def _returncode(state: ProcessState) -> int:
    code = state.returncode
    assert code is not None
    return code
