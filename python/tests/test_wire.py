"""The reply reader against a scripted peer on the loopback: replies split
at awkward places, a Fail reason holding a line end, and a connection that
is reset before it was served."""

from __future__ import annotations

import socket
import struct
import threading
from collections.abc import Callable, Iterator

import pytest

from kolta import ConnectionFailed, Refused
from kolta.wire import Channel

Script = Callable[[socket.socket, int], None]  # the connection, its number


@pytest.fixture
def scripted_peer() -> Iterator[Callable[[Script], int]]:
    """Serves each accepted connection with the script; gives the port."""
    listener = socket.create_server(("127.0.0.1", 0))
    threads: list[threading.Thread] = []

    def serve(script: Script) -> int:
        def accept_loop() -> None:
            number = 0
            while True:
                try:
                    conn, _ = listener.accept()
                except OSError:
                    return
                with conn:
                    script(conn, number)
                number += 1

        thread = threading.Thread(target=accept_loop, daemon=True)
        thread.start()
        threads.append(thread)
        return int(listener.getsockname()[1])

    yield serve
    listener.shutdown(socket.SHUT_RDWR)  # wakes the blocked accept
    listener.close()
    for thread in threads:
        thread.join(timeout=5)


def _read_request(conn: socket.socket) -> bytes:
    data = b""
    while not data.endswith(b"\r\n\r\n"):
        data += conn.recv(1)
    return data


def test_replies_split_into_single_bytes(scripted_peer: Callable[[Script], int]) -> None:
    reply = b"Reply: Data\r\nContent-length: 5\r\nContent-Type: text/plain\r\n\r\nhello"

    def trickle(conn: socket.socket, _: int) -> None:
        assert _read_request(conn) == b"Request: version\r\n\r\n"
        for byte in reply:
            conn.sendall(bytes([byte]))
        assert _read_request(conn) == b"Request: remFile\r\nfile: /tmp/x\r\n\r\n"
        conn.sendall(b"Reply: Success\r\n\r\n")

    with Channel("127.0.0.1", scripted_peer(trickle), timeout=5) as channel:
        answer = channel.request("version")
        assert (answer.kind, answer.content_type, answer.data) == ("Data", "text/plain", b"hello")
        assert channel.request("remFile", {"file": "/tmp/x"}).kind == "Success"


def test_fail_reason_is_passed_exactly(scripted_peer: Callable[[Script], int]) -> None:
    def refuse(conn: socket.socket, _: int) -> None:
        _read_request(conn)
        conn.sendall(b"Reply: Fail\r\nReason: PM_LAUNCH: Error in msgsnd.\n\r\n\r\n")

    with pytest.raises(Refused) as refused, Channel("127.0.0.1", scripted_peer(refuse), 5) as channel:
        channel.request("process_start", {"cmd": "/bin/true", "args": "x"})
    assert refused.value.reason == "PM_LAUNCH: Error in msgsnd.\n"


def test_unserved_connection_is_tried_again(scripted_peer: Callable[[Script], int]) -> None:
    def reset_first(conn: socket.socket, number: int) -> None:
        _read_request(conn)
        if number == 0:  # a reset, as the kernel gives a connection never accepted
            conn.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            return
        conn.sendall(b"Reply: Success\r\n\r\n")

    with Channel("127.0.0.1", scripted_peer(reset_first), timeout=5) as channel:
        assert channel.request("test").kind == "Success"


def test_connection_closed_mid_reply(scripted_peer: Callable[[Script], int]) -> None:
    def cut(conn: socket.socket, _: int) -> None:
        _read_request(conn)
        conn.sendall(b"Reply: Data\r\nContent-length: 100\r\nContent-Type: file/binary\r\n\r\nshort")

    with pytest.raises(ConnectionFailed) as failed, Channel("127.0.0.1", scripted_peer(cut), 5) as channel:
        channel.request("getFile", {"file": "/tmp/x"})
    assert "closed the connection" in failed.value.why
