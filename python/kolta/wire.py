"""One TCP connection to the daemon and its request/reply exchange.

A request is a header of "name: value" lines ended by an empty line, the
first line naming the command, optionally followed by a data body. A reply
is one of

    Reply: Success\\r\\n\\r\\n
    Reply: Fail\\r\\nReason: <text>\\r\\n\\r\\n
    Reply: Data\\r\\nContent-length: <n>\\r\\nContent-Type: <type>\\r\\n\\r\\n<n bytes>
"""

from __future__ import annotations

import select
import socket
import time
from collections.abc import Callable, Iterable, Mapping
from dataclasses import dataclass
from types import TracebackType
from typing import NoReturn

from kolta.errors import ConnectionFailed, KoltaError, Refused

# What the daemon's header reader holds: longer headers are refused or, for
# the command name, end the connection without a reply.
MAX_HEADER_LINES = 20
MAX_NAME_LENGTH = 31
MAX_VALUE_LENGTH = 127

_RECEIVE_BLOCK = 65536
_FAIL_END = b"\r\n\r\n"


@dataclass(frozen=True)
class Reply:
    """A Success or Data reply; a Fail reply only from Channel.receive (the
    other calls raise Refused for it)."""

    kind: str  # "Success", "Data" or "Fail"
    content_type: str = ""
    data: bytes = b""  # empty when the body went to a sink
    reason: str = ""  # of a Fail reply, exactly as sent

    @property
    def failed(self) -> bool:
        return self.kind == "Fail"


class ReplyOverdue(KoltaError):
    """No reply came before the caller's deadline. The connection is left as
    it was: the reply may still be read later."""


@dataclass(frozen=True)
class Outgoing:
    """One request of a batch sent in one go (see Channel.send)."""

    command: str
    arguments: Mapping[str, str]
    body: bytes = b""  # its length must be in "content-length"


def check_value(name: str, value: str) -> str:
    """Raises ValueError when `value` cannot travel as a header value."""
    if not value:
        raise ValueError(f"{name}: an empty value cannot be sent")
    if len(value) > MAX_VALUE_LENGTH:
        raise ValueError(f"{name}: {len(value)} characters, the daemon takes at most {MAX_VALUE_LENGTH}")
    for ch in value:
        if ch in "\r\n\0" or ord(ch) >= 0x80:
            raise ValueError(f"{name}: {ch!r} cannot be sent (only ASCII without CR, LF and NUL)")
    return value


def encode_request(command: str, arguments: Mapping[str, str]) -> bytes:
    """The request header of `command` with its arguments."""
    if len(arguments) + 1 > MAX_HEADER_LINES:
        raise ValueError(f"{command}: more than {MAX_HEADER_LINES - 1} arguments")
    lines = [f"Request: {check_value('command', command)}"]
    for name, value in arguments.items():
        if not name or len(name) > MAX_NAME_LENGTH or not name.isascii() or " " in name or ":" in name:
            raise ValueError(f"{command}: bad argument name {name!r}")
        lines.append(f"{name}: {check_value(name, value)}")
    return ("\r\n".join(lines) + "\r\n\r\n").encode("ascii")


class _NotServed(Exception):
    """A fresh connection was reset before any byte of the reply came."""


class Channel:
    """A connection to one daemon, for the requests of one client call.

    Connects on the first request; use it as a context manager so that it is
    closed at the end of the call.

    The daemon listens with a backlog of one and, after each accepted
    connection, pauses a second for every worker it collects; meanwhile the
    kernel may reset further connections that the daemon never accepted. A
    request whose fresh connection is reset before any reply byte arrived
    therefore never reached the daemon, and is sent again on a new
    connection, a few times."""

    RESET_RETRIES = 5
    RESET_PAUSE = 0.2

    def __init__(self, host: str, port: int, timeout: float) -> None:
        self.host = host
        self.port = port
        self.timeout = timeout
        self._sock: socket.socket | None = None
        self._fresh = False  # no request has been answered on this connection
        self._pending = b""  # received bytes not yet used
        self._in_reply = False  # a reply is being read
        self._sent = False  # the last request went out whole
        self._reply_started = False  # a byte of the current reply came

    def __enter__(self) -> Channel:
        return self

    def __exit__(
        self,
        exc_type: type[BaseException] | None,
        exc: BaseException | None,
        tb: TracebackType | None,
    ) -> None:
        self.close()

    def close(self) -> None:
        if self._sock is not None:
            self._sock.close()
            self._sock = None
        self._pending = b""
        self._in_reply = False

    def request(
        self,
        command: str,
        arguments: Mapping[str, str] | None = None,
        *,
        body: Callable[[], Iterable[bytes]] | None = None,
        sink: Callable[[bytes], None] | None = None,
        last: bool = False,
    ) -> Reply:
        """Sends one request and reads the reply. With `last` the sending
        side of the connection is shut after the request, and the
        connection closed after the reply. `body` gives the data body
        (whose length must be in the "content-length" argument), anew for
        every attempt. A Data body goes to `sink` block by block when one is
        given, else into Reply.data. Raises Refused for a Fail reply,
        ConnectionFailed when the connection fails."""
        header = encode_request(command, arguments or {})
        for attempt in range(self.RESET_RETRIES + 1):
            try:
                reply = self._exchange(command, header, body, sink, last)
                if last:
                    self.close()
                return reply
            except _NotServed as e:
                self.close()
                if attempt == self.RESET_RETRIES:
                    raise self._failure(f"{command}: {e}") from None
                time.sleep(self.RESET_PAUSE * (attempt + 1))
        raise AssertionError("unreachable")

    def request_then_close(self, command: str, arguments: Mapping[str, str] | None = None) -> Reply | None:
        """For the commands that end the daemon or the device: the reply, or
        None when the connection ended before a reply came."""
        try:
            return self.request(command, arguments)
        except ConnectionFailed:
            if self._sent:
                return None
            raise
        finally:
            self.close()

    def send(self, requests: Iterable[Outgoing]) -> None:
        """Sends several requests in one go, without waiting for a reply in
        between; read their replies in order with receive(). The daemon
        serves them one after another on this connection. A request with a
        data body must come last: the daemon's body receiver may take the
        bytes that follow a body, when they have already arrived, as body."""
        requests = list(requests)
        if any(r.body for r in requests[:-1]):
            raise ValueError("a request with a data body must be the last of a batch")
        data = b"".join(encode_request(r.command, r.arguments) + r.body for r in requests)
        if self._in_reply:
            self.close()  # an earlier reply was left half read
        sock = self._connect()
        self._reply_started = False
        try:
            sock.sendall(data)
        except OSError as e:
            self._give_up("sending requests", e)
        self._sent = True
        self._in_reply = True

    def receive(
        self,
        command: str,
        sink: Callable[[bytes], None] | None = None,
        deadline: float | None = None,
        patient: bool = False,
    ) -> Reply:
        """Reads the reply to a request sent with send(): a Fail reply is
        returned (kind "Fail"), not raised. With `deadline` (a
        time.monotonic() value) ReplyOverdue is raised when no byte of the
        reply has come by then; the connection stays as it was. `patient`
        waits for the reply's first byte without any limit (a command that
        runs as long as it runs); the rest comes within the timeout."""
        if (deadline is not None or patient) and not self._pending:
            self._await_reply(command, deadline)
        self._in_reply = True
        try:
            reply = self._read_reply(command, sink)
        except Refused as refused:
            return Reply("Fail", reason=refused.reason)
        self._in_reply = False
        self._fresh = False
        return reply

    def reusable(self) -> bool:
        """Open, with every reply read whole."""
        return self._sock is not None and not self._pending and not self._in_reply

    def alive(self) -> bool:
        """True when this kept connection can take a request: open, with
        nothing unread, and not closed or reset by the daemon meanwhile."""
        if self._sock is None or self._pending or self._in_reply:
            return False
        try:
            readable, _, _ = select.select([self._sock], [], [], 0)
            if not readable:
                return True
            self._sock.recv(1, socket.MSG_PEEK | socket.MSG_DONTWAIT)
        except OSError:
            pass
        return False  # closed, reset, or bytes nobody asked for

    def _await_reply(self, command: str, deadline: float | None) -> None:
        if self._sock is None:
            raise self._failure(f"{command}: the connection is closed")
        while True:
            left = None if deadline is None else deadline - time.monotonic()
            if left is not None and left <= 0:
                raise ReplyOverdue(f"{command}: no reply yet")
            try:
                readable, _, _ = select.select([self._sock], [], [], left)
            except InterruptedError:
                continue
            if readable:
                return

    # -- connection -----------------------------------------------------

    def _exchange(
        self,
        command: str,
        header: bytes,
        body: Callable[[], Iterable[bytes]] | None,
        sink: Callable[[bytes], None] | None,
        last: bool,
    ) -> Reply:
        if self._in_reply:
            self.close()  # an earlier reply was left half read
        sock = self._connect()
        self._sent = self._reply_started = False
        try:
            sock.sendall(header)
            for block in body() if body else ():
                sock.sendall(block)
            if last:
                sock.shutdown(socket.SHUT_WR)
        except OSError as e:
            self._give_up(f"sending {command}", e)
        self._sent = True
        self._in_reply = True
        reply = self._read_reply(command, sink)
        self._in_reply = False
        self._fresh = False
        return reply

    def _connect(self) -> socket.socket:
        if self._sock is None:
            try:
                self._sock = socket.create_connection((self.host, self.port), timeout=self.timeout)
            except OSError as e:
                raise self._failure(f"cannot connect: {_describe(e)}") from e
            self._sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            self._fresh = True
        return self._sock

    def _failure(self, why: str) -> ConnectionFailed:
        return ConnectionFailed(self.host, self.port, why)

    def _give_up(self, doing: str, error: OSError | None) -> NoReturn:
        """Ends the connection after a failure; a reset of a fresh
        connection before any reply byte becomes _NotServed."""
        unanswered = self._fresh and not self._pending and not self._reply_started
        self.close()
        why = f"{doing}: {_describe(error)}" if error else doing
        if unanswered and isinstance(error, ConnectionResetError | BrokenPipeError):
            raise _NotServed(why)
        raise self._failure(why) from error

    def _receive(self, command: str) -> bytes:
        assert self._sock is not None
        try:
            data = self._sock.recv(_RECEIVE_BLOCK)
        except OSError as e:
            self._give_up(f"waiting for the reply to {command}", e)
        if not data:
            self._give_up(f"the daemon closed the connection during the reply to {command}", None)
        self._reply_started = True
        return data

    def _read_until(self, command: str, end: bytes) -> bytes:
        """The bytes up to `end` (excluded); what follows stays pending."""
        while (at := self._pending.find(end)) < 0:
            self._pending += self._receive(command)
        text, self._pending = self._pending[:at], self._pending[at + len(end) :]
        return text

    # -- replies --------------------------------------------------------

    def _read_reply(self, command: str, sink: Callable[[bytes], None] | None) -> Reply:
        first = self._read_until(command, b"\n").rstrip(b"\r")
        if first == b"Reply: Success":
            self._read_until(command, b"\n")
            return Reply("Success")
        if first == b"Reply: Fail":
            # The reason is everything up to the final blank line, so that a
            # reason which itself holds a line end comes through unchanged.
            text = self._read_until(command, _FAIL_END)
            self._in_reply = self._fresh = False  # read whole: the connection stays usable
            prefix = b"Reason: "
            if not text.startswith(prefix):
                raise KoltaError(f"{command}: malformed Fail reply {text[:80]!r}")
            raise Refused(command, text[len(prefix) :].decode("latin-1"))
        if first != b"Reply: Data":
            self.close()
            raise KoltaError(f"{command}: unexpected reply line {first[:80]!r}")

        fields: dict[str, str] = {}
        while line := self._read_until(command, b"\n").rstrip(b"\r"):
            name, _, value = line.decode("latin-1").partition(": ")
            fields[name.lower()] = value
        try:
            length = int(fields["content-length"])
        except (KeyError, ValueError):
            self.close()
            raise KoltaError(f"{command}: Data reply without a valid Content-length") from None
        content_type = fields.get("content-type", "")
        if sink is None:
            chunks: list[bytes] = []
            self._read_body(command, length, chunks.append)
            return Reply("Data", content_type, b"".join(chunks))
        self._read_body(command, length, sink)
        return Reply("Data", content_type)

    def _read_body(self, command: str, length: int, sink: Callable[[bytes], None]) -> None:
        left = length
        while left > 0:
            if not self._pending:
                self._pending = self._receive(command)
            block, self._pending = self._pending[:left], self._pending[left:]
            left -= len(block)
            sink(block)


def _describe(error: OSError) -> str:
    if isinstance(error, TimeoutError | socket.timeout):
        return "timed out"
    return error.strerror or str(error)
