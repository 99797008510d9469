"""What the calls return: the outcome of a command and the state of a
background process."""

from __future__ import annotations

from dataclasses import dataclass

RUNNING = "RUNNING"
PASSED = "PASSED"
FAILED = "FAILED"
DIED = "DIED"


@dataclass(frozen=True)
class Result:
    """A finished command: its whole output and how it ended.

    returncode is the exit code, or the negative signal number when a signal
    ended the command; None for a command stopped at its time limit."""

    stdout: bytes
    stderr: bytes
    returncode: int | None

    @property
    def ok(self) -> bool:
        return self.returncode == 0


@dataclass(frozen=True)
class ProcessState:
    """A background process as the daemon reports it.

    state is "RUNNING", "PASSED", "FAILED" or "DIED"; exit_code the exit
    status, or the signal number for DIED, whose description is in msg."""

    state: str
    exit_code: int
    msg: str
    cmd: str = ""
    args: str = ""

    @property
    def running(self) -> bool:
        return self.state == RUNNING

    @property
    def returncode(self) -> int | None:
        """None while running; else as Result.returncode."""
        if self.state == RUNNING:
            return None
        if self.state == DIED:
            return -self.exit_code
        return self.exit_code

    @classmethod
    def parse(cls, text: bytes, cmd: str = "", args: str = "") -> ProcessState:
        """Reads the "NAME=value" lines of a process_getState or
        process_stop reply; cmd and args fill in what the reply lacks."""
        fields: dict[str, str] = {}
        for line in text.decode("latin-1").split("\n"):
            name, sep, value = line.partition("=")
            if sep:
                fields.setdefault(name, value)
        return cls(
            state=fields.get("STATE", ""),
            exit_code=int(fields.get("EXITCODE", "0") or 0),
            msg=fields.get("MSG", ""),
            cmd=fields.get("CMD", cmd),
            args=fields.get("ARGS", args),
        )
