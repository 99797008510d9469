"""Commands run on the device, each with files of its own.

The daemon's "system" and "execute" write to output files shared by every
client, so a command goes up as a script of its own (under /tmp) whose first
line sends its standard output and error to files of its own and takes its
standard input from an uploaded file (or /dev/null). "execute" runs the
script; its exit trap tells how the command ended in the script's exit
code, which comes back in the daemon's Fail reason "RC=<code>": which of the
two outputs are empty, and the exit status when it is below 30 (else it is
in a small file). So a command whose outputs are empty costs no Data reply
(each Data reply waits 20 ms in the daemon), and one with output costs one
per output that is not empty. The requests of each step go out in one
batch.

The daemon ORs 1 into the code when its shared error file is not empty, so
the code carries its information in the upper seven bits only. A marker
file written by the trap tells the trap's codes from a plain exit (a
command that replaced the shell with exec, or a signal that killed it).

A time limit is kept here: when it has passed, a second connection runs a
small script that stops the command's shell with every process below it
(stopped first, so that none can start another, then killed), and the
output written until then is fetched.
"""

from __future__ import annotations

import math
import signal
import time
import uuid
from collections.abc import Sequence
from dataclasses import dataclass

from kolta.errors import CommandTimeout, KoltaError, Refused
from kolta.pool import Pool
from kolta.results import Result
from kolta.transfer import md5_text
from kolta.wire import Channel, Outgoing, Reply, ReplyOverdue

SCRATCH_DIR = "/tmp"
SHELL = "/bin/sh"

# The trap's codes: 2 * (1 + 31 * outputs + status), outputs 0..3 (bit 0:
# standard output is not empty, bit 1: standard error), status 0..29, or 30
# when the status is in the status file.
_STATUS_IN_FILE = 30
_MAX_CODE = 1 + 31 * 3 + _STATUS_IN_FILE
# How much longer than the caller's limit the daemon lets the script run when
# nobody is left to stop it.
_BACKSTOP_S = 60


@dataclass(frozen=True)
class _Files:
    """The command's files on the device."""

    base: str

    @classmethod
    def new(cls) -> _Files:
        return cls(f"{SCRATCH_DIR}/kolta-run-{uuid.uuid4().hex}")

    @property
    def script(self) -> str:
        return self.base + ".sh"

    @property
    def stdin(self) -> str:
        return self.base + ".in"

    @property
    def stdout(self) -> str:
        return self.base + ".out"

    @property
    def stderr(self) -> str:
        return self.base + ".err"

    @property
    def status(self) -> str:
        return self.base + ".rc"

    @property
    def marker(self) -> str:
        return self.base + ".end"

    @property
    def stopper(self) -> str:
        return self.base + ".stop.sh"

    def leftovers(self, with_input: bool) -> list[str]:
        names = [self.script, self.stdout, self.stderr, self.status, self.marker]
        return names + [self.stdin] if with_input else names


def check_timeout(timeout: float | None) -> None:
    """ValueError unless `timeout` is None or a positive number of seconds."""
    if timeout is None:
        return
    if isinstance(timeout, bool) or not isinstance(timeout, int | float):
        raise ValueError(f"timeout must be a number of seconds, not {timeout!r}")
    if not math.isfinite(timeout) or timeout <= 0:
        raise ValueError(f"timeout must be more than 0 seconds, not {timeout!r}")


def as_input(data: bytes | str | None) -> bytes | None:
    """The bytes of a command's standard input; None for an empty one
    (which /dev/null gives: the daemon cannot take an empty body followed
    by further requests)."""
    if isinstance(data, str):
        data = data.encode()
    elif isinstance(data, bytearray | memoryview):
        data = bytes(data)
    elif data is not None and not isinstance(data, bytes):
        raise TypeError(f"input must be bytes or str, not {type(data).__name__}")
    return data or None


def shell_quote(word: str) -> str:
    if "\0" in word:
        raise ValueError(f"{word!r}: a NUL character cannot be passed")
    return "'" + word.replace("'", "'\\''") + "'"


def program_text(program: str, args: Sequence[str]) -> bytes:
    """A shell command line that runs `program` with exactly `args`, and
    records a signal that ended it as such."""
    if isinstance(args, str):
        raise TypeError("args must be a sequence of words, not one string")
    words = " ".join(shell_quote(w) for w in [program, *args])
    return f"{words}\nkolta_rc=$?; [ $kolta_rc -gt 128 ] && kolta_signal=$((kolta_rc - 128)); exit $kolta_rc\n".encode()


def _script(files: _Files, body: bytes, with_input: bool) -> bytes:
    source = files.stdin if with_input else "/dev/null"
    trap = (
        "kolta_rc=$?; kolta_v=1; "
        f"[ -s {files.stdout} ] && kolta_v=32; "
        f"[ -s {files.stderr} ] && kolta_v=$((kolta_v + 62)); "
        'if [ -n "$kolta_signal" ]; then '
        f'echo "-$kolta_signal" >{files.status}; kolta_rc={_STATUS_IN_FILE}; '
        f'elif [ "$kolta_rc" -ge {_STATUS_IN_FILE} ]; then '
        f'echo "$kolta_rc" >{files.status}; kolta_rc={_STATUS_IN_FILE}; fi; '
        f": >{files.marker}; exit $(((kolta_v + kolta_rc) * 2))"
    )
    head = (
        f"exec <{source} >{files.stdout} 2>{files.stderr}\n"
        f"export KOLTA_COMMAND={files.script}\n"  # marks what it starts, for a stop
        f"trap '{trap}' 0\n"
    ).encode()
    if not body.endswith(b"\n"):
        body += b"\n"
    return head + body


def _stopper(files: _Files) -> bytes:
    """Stops the command's shell (found by its script's name in its command
    line), whatever carries the script's mark in its environment (what
    replaced the shell with exec, what left it) and every process below
    them: each is stopped as it is found, the search repeats until it finds
    no new one, then all are killed."""
    return f"""exec >/dev/null 2>&1
all=" "
for f in $(grep -lsaF -- '{files.script}' /proc/[0-9]*/cmdline /proc/[0-9]*/environ); do
  p=${{f#/proc/}}; p=${{p%%/*}}
  case "$all" in *" $p "*) continue ;; esac
  [ "$p" = "$$" ] || {{ kill -STOP "$p" && all="$all$p "; }}
done
[ "$all" = " " ] && exit 4
found=1
while [ -n "$found" ]; do
  found=
  for d in /proc/[0-9]*; do
    p=${{d#/proc/}}
    case "$all" in *" $p "*) continue ;; esac
    read -r s <"$d/stat" || continue
    s=${{s##*) }}
    set -- $s
    case "$all" in *" $2 "*) kill -STOP "$p"; all="$all$p "; found=1 ;; esac
  done
done
kill -KILL $all
exit 2
""".encode()


def _put(remote: str, data: bytes) -> Outgoing:
    arguments = {"file": remote, "md5_sig": md5_text(data), "content-length": str(len(data))}
    return Outgoing("putFile", arguments, data)


def _remove(remote: str) -> Outgoing:
    return Outgoing("remFile", {"file": remote})


def _get(remote: str) -> Outgoing:
    return Outgoing("getFile", {"file": remote})


def _signal_named(text: str) -> int:
    for number in range(1, signal.NSIG):
        try:
            if signal.strsignal(number) == text:
                return number
        except ValueError:
            continue
    return 0


@dataclass
class _Ending:
    """How the script ended, as far as its reply and marker tell."""

    has_stdout: bool = True
    has_stderr: bool = True
    status: int | None = None  # None: in the status file, or unknown (stopped)
    status_file: bool = False


def _ending(reply: Reply, by_trap: bool) -> _Ending:
    if by_trap and reply.failed and reply.reason.startswith("RC="):
        try:
            value = int(reply.reason[3:]) >> 1
        except ValueError:
            value = 0
        if 1 <= value <= _MAX_CODE:
            outputs, status = divmod(value - 1, 31)
            in_file = status == _STATUS_IN_FILE
            return _Ending(bool(outputs & 1), bool(outputs & 2), None if in_file else status, in_file)
    # A plain exit: the trap did not run, so nothing tells which output is empty.
    if reply.kind == "Data":
        return _Ending(status=0)
    if reply.failed and reply.reason.startswith("RC="):
        try:
            return _Ending(status=int(reply.reason[3:]))
        except ValueError:
            pass
    if reply.failed and ": Execution failed (" in reply.reason:
        number = _signal_named(reply.reason.rsplit("(", 1)[1].rstrip(")"))
        if number:
            return _Ending(status=-number)
    raise Refused("execute", reply.reason)


class _Run:
    """One command on one device."""

    def __init__(self, pool: Pool, label: str, body: bytes, stdin: bytes | None, timeout: float | None):
        self.pool = pool
        self.label = label
        self.body = body
        self.stdin = stdin
        self.timeout = timeout
        self.files = _Files.new()
        self.sent = False  # a request has gone out

    def run(self) -> Result:
        deadline = None if self.timeout is None else time.monotonic() + self.timeout
        channel = self.pool.take()
        try:
            result = self._run_on(channel, deadline)
        except BaseException:
            channel.close()
            if self.sent:  # else nothing reached the device
                self._tidy()
            raise
        self.pool.give_back(channel)
        return result

    def _run_on(self, channel: Channel, deadline: float | None) -> Result:
        f = self.files
        uploads = [_put(f.script, _script(f, self.body, self.stdin is not None))]
        if self.stdin is not None:
            uploads.append(_put(f.stdin, self.stdin))
        for upload in uploads:  # a body ends its batch
            channel.send([upload])
            self.sent = True
            reply = channel.receive("putFile")
            if reply.failed:
                self._remove_all(channel)
                raise Refused("putFile", reply.reason)
        limit = "-1" if self.timeout is None else str(math.ceil(self.timeout) + _BACKSTOP_S)
        channel.send(
            [Outgoing("execute", {"cmd": SHELL, "args": f.script, "timeout": limit}), _remove(f.marker)]
        )
        overdue = False
        try:
            reply = channel.receive("execute", deadline=deadline, patient=deadline is None)
        except ReplyOverdue:
            overdue = True
            self._stop()
            reply = channel.receive("execute", patient=True)
        by_trap = not channel.receive("remFile").failed
        # Stopped, or kept from starting: the trap did not run. (Had it run,
        # the command ended by itself just as its time was up.)
        cut_short = overdue and not by_trap
        ending = _Ending() if cut_short else _ending(reply, by_trap)
        stdout, stderr, status = self._collect(channel, ending)
        if cut_short:
            assert self.timeout is not None
            raise CommandTimeout(self.label, self.timeout, Result(stdout, stderr, None))
        return Result(stdout=stdout, stderr=stderr, returncode=status)

    def _collect(self, channel: Channel, ending: _Ending) -> tuple[bytes, bytes, int | None]:
        """Fetches what is not empty and removes every file. Each fetch
        waits for its Data reply in the daemon, so a second or third one
        goes out at the same time on a connection of its own."""
        f = self.files
        wanted = ((f.stdout, ending.has_stdout), (f.stderr, ending.has_stderr), (f.status, ending.status_file))
        fetches = [name for name, fetch in wanted if fetch]
        others = [name for name in (f.script, f.stdout, f.stderr) if name not in fetches]
        if self.stdin is not None:
            others.append(f.stdin)
        channels = [channel] + [self.pool.take() for _ in fetches[1:]]
        got: dict[str, bytes] = {}
        try:
            for i, c in enumerate(channels):
                mine = [_get(fetches[i]), _remove(fetches[i])] if i < len(fetches) else []
                c.send(mine + [_remove(name) for name in (others if i == 0 else [])])
            for i, c in enumerate(channels):
                if i < len(fetches):
                    reply = c.receive("getFile")
                    if reply.failed and reply.reason != "File not found.":
                        raise Refused("getFile", reply.reason)
                    got[fetches[i]] = reply.data
                    c.receive("remFile")
                for _ in others if i == 0 else []:
                    c.receive("remFile")
        except BaseException:
            for c in channels[1:]:
                c.close()
            raise
        for c in channels[1:]:
            self.pool.give_back(c)
        status = ending.status
        if ending.status_file:
            try:
                status = int(got.get(f.status, b"").strip())
            except ValueError:
                raise KoltaError(f"{self.label!r}: unreadable exit status {got.get(f.status)!r}") from None
        return got.get(f.stdout, b""), got.get(f.stderr, b""), status

    def _stop(self) -> bool:
        """Stops the command and all it started, on a second connection.
        True when there was something to stop."""
        f = self.files
        with self.pool.lease() as channel:
            # Without its script, a shell not yet started finds nothing to run.
            channel.send([_remove(f.script), _put(f.stopper, _stopper(f))])
            channel.receive("remFile")
            channel.receive("putFile")
            channel.send([Outgoing("execute", {"cmd": SHELL, "args": f.stopper, "timeout": "60"}), _remove(f.stopper)])
            reply = channel.receive("execute", patient=True)
            channel.receive("remFile")
        return not reply.reason.startswith(("RC=4", "RC=5"))

    def _remove_all(self, channel: Channel) -> None:
        names = self.files.leftovers(self.stdin is not None)
        channel.send([_remove(name) for name in names])
        for _ in names:
            channel.receive("remFile")

    def _tidy(self) -> None:
        """After an interruption or a failure: the command is stopped and its
        files are removed, as far as the device can still be reached."""
        try:
            self._stop()
            with self.pool.lease() as channel:
                self._remove_all(channel)
        except (KoltaError, OSError):
            pass


def run_on_device(pool: Pool, label: str, body: bytes, stdin: bytes | None, timeout: float | None) -> Result:
    """Runs the shell text `body` and returns its whole output and exit
    status; CommandTimeout when it was still running after `timeout` s."""
    return _Run(pool, label, body, stdin, timeout).run()
