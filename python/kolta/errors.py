"""The exceptions of the kolta client. Every one derives from KoltaError."""

from __future__ import annotations

from typing import TYPE_CHECKING

if TYPE_CHECKING:
    from kolta.results import Result


class KoltaError(Exception):
    """Base of every error the client raises (apart from ValueError and
    TimeoutError for arguments and waits)."""


class ConnectionFailed(KoltaError):
    """The daemon could not be reached, did not answer in time, or broke the
    connection. Names the host and port."""

    def __init__(self, host: str, port: int, why: str) -> None:
        super().__init__(f"{host}:{port}: {why}")
        self.host = host
        self.port = port
        self.why = why


class Refused(KoltaError):
    """The daemon answered Fail. `reason` holds its text exactly as sent."""

    def __init__(self, command: str, reason: str) -> None:
        super().__init__(f"{command} refused: {reason}")
        self.command = command
        self.reason = reason


class CommandFailed(KoltaError):
    """A command run with check=True ended with a non-zero return code."""

    def __init__(self, command: str, result: Result) -> None:
        super().__init__(f"{command!r} ended with return code {result.returncode}")
        self.command = command
        self.result = result


class CommandTimeout(KoltaError, TimeoutError):
    """A command was still running after its time limit and was stopped on
    the device, with every process it started. `timeout` holds the limit;
    `result` the output written until then, with returncode None."""

    def __init__(self, command: str, timeout: float, result: Result) -> None:
        super().__init__(f"{command!r} was still running after {timeout} s and was stopped")
        self.command = command
        self.timeout = timeout
        self.result = result


class TransferFailed(KoltaError):
    """The device's copy of an uploaded file differs from what was sent."""

    def __init__(self, remote: str, why: str) -> None:
        super().__init__(f"{remote}: {why}")
        self.remote = remote
        self.why = why
