"""File transfer: the "putFile" body with its MD5 signature, and "getFile"
into memory or into a local file that appears only when complete."""

from __future__ import annotations

import hashlib
import os
import tempfile
from collections.abc import Iterator
from pathlib import Path

from kolta.errors import Refused, TransferFailed
from kolta.wire import Channel

LocalSource = str | os.PathLike[str] | bytes
_BLOCK = 1 << 20


def _process_umask() -> int:
    """The umask, read without changing it (os.umask would, for every
    thread at once)."""
    try:
        for line in Path("/proc/self/status").read_text().splitlines():
            if line.startswith("Umask:"):
                return int(line.split()[1], 8)
    except (OSError, ValueError, IndexError):
        pass
    return 0o022


def _file_blocks(path: Path, size: int) -> Iterator[bytes]:
    """Exactly `size` bytes of the file, in blocks."""
    left = size
    with path.open("rb") as f:
        while left > 0:
            block = f.read(min(_BLOCK, left))
            if not block:
                raise TransferFailed(str(path), "the local file shrank during the upload")
            left -= len(block)
            yield block


def md5_text(data: bytes) -> str:
    """The signature of `data` as "putFile" takes it: upper-case hex."""
    return hashlib.md5(data).hexdigest().upper()


def _measure(source: LocalSource) -> tuple[int, str]:
    """Size and MD5 signature (upper-case hex) of what is to be sent."""
    digest = hashlib.md5()
    if isinstance(source, bytes):
        digest.update(source)
        return len(source), digest.hexdigest().upper()
    size = 0
    with open(source, "rb") as f:
        while block := f.read(_BLOCK):
            digest.update(block)
            size += len(block)
    return size, digest.hexdigest().upper()


def upload(channel: Channel, source: LocalSource, remote: str) -> tuple[int, str]:
    """Sends `source` to the file `remote`; its size and signature."""
    size, signature = _measure(source)

    def body() -> Iterator[bytes]:
        if isinstance(source, bytes):
            return (source[i : i + _BLOCK] for i in range(0, size, _BLOCK))
        return _file_blocks(Path(source), size)

    arguments = {"file": remote, "md5_sig": signature, "content-length": str(size)}
    try:
        # The daemon waits for one read even when the body is empty: the end
        # of the connection's input is that read.
        channel.request("putFile", arguments, body=body, last=size == 0)
    except TransferFailed:
        channel.close()  # the daemon still waits for the rest of the body
        raise
    return size, signature


def verify(channel: Channel, remote: str, size: int, signature: str) -> None:
    """Reads the device's copy back; TransferFailed when it differs."""
    digest = hashlib.md5()
    count = 0

    def take(block: bytes) -> None:
        nonlocal count
        digest.update(block)
        count += len(block)

    try:
        channel.request("getFile", {"file": remote}, sink=take)
    except Refused as refused:
        # The daemon reads back regular files only (not a device or a FIFO).
        raise TransferFailed(remote, f"the device's copy cannot be read back: {refused.reason}") from refused
    if count != size or digest.hexdigest().upper() != signature:
        raise TransferFailed(
            remote,
            f"the device holds {count} bytes with signature {digest.hexdigest().upper()}, "
            f"sent {size} bytes with signature {signature}",
        )


def download(channel: Channel, remote: str) -> bytes:
    return channel.request("getFile", {"file": remote}).data


def download_to(channel: Channel, remote: str, local: str | os.PathLike[str]) -> None:
    """Writes the file under a temporary name beside `local` and renames it
    to `local` once it is complete."""
    target = Path(local)
    fd, temporary = tempfile.mkstemp(dir=target.parent, prefix=f".{target.name}.", suffix=".part")
    try:
        os.fchmod(fd, 0o666 & ~_process_umask())  # as an ordinary new file, not 0600
        with os.fdopen(fd, "wb") as f:

            def write(block: bytes) -> None:
                f.write(block)

            channel.request("getFile", {"file": remote}, sink=write)
        os.replace(temporary, target)
    except BaseException:
        os.unlink(temporary)
        raise
