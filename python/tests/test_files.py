"""put, get and remove against the sandboxed daemon."""

from __future__ import annotations

import hashlib
import os
from pathlib import Path

import pytest

from kolta import Device, Refused, TransferFailed

BIG = 64 * 1024 * 1024


def _md5(path: Path) -> str:
    digest = hashlib.md5()
    with path.open("rb") as f:
        while block := f.read(1 << 20):
            digest.update(block)
    return digest.hexdigest()


def _umask() -> int:
    mask = os.umask(0)
    os.umask(mask)
    return mask


def test_64_mib_file_round_trip(device: Device, tmp_path: Path) -> None:
    source = tmp_path / "big.bin"
    with source.open("wb") as f:
        for _ in range(BIG // (1 << 20)):
            f.write(os.urandom(1 << 20))
    device.put(source, "/tmp/big.bin")  # checked on the device by reading it back
    copy = tmp_path / "copy.bin"
    assert device.get("/tmp/big.bin", copy) is None
    device.remove("/tmp/big.bin")
    assert copy.stat().st_size == BIG and _md5(copy) == _md5(source)
    assert copy.stat().st_mode & 0o777 == 0o666 & ~_umask()
    assert sorted(p.name for p in tmp_path.iterdir()) == ["big.bin", "copy.bin"]  # no temporary left


def test_bytes_round_trip_and_remove(device: Device) -> None:
    data = bytes(range(256)) * 40 + b"\r\n\r\nReply: Fail\r\n"
    device.put(data, "/tmp/small.bin")
    assert device.get("/tmp/small.bin") == data
    device.put(b"", "/tmp/empty.bin")
    assert device.get("/tmp/empty.bin") == b""
    device.remove("/tmp/small.bin")
    device.remove("/tmp/empty.bin")
    with pytest.raises(Refused) as refused:
        device.get("/tmp/small.bin")
    assert refused.value.reason == "File not found."


def test_put_raises_when_the_device_copy_differs(device: Device) -> None:
    with pytest.raises(TransferFailed):
        device.put(b"lost on the way", "/dev/null")  # stored nowhere, and cannot be read back


def test_failed_download_leaves_no_local_file(device: Device, tmp_path: Path) -> None:
    target = tmp_path / "never.bin"
    with pytest.raises(Refused):
        device.get("/no/such/file", target)
    assert list(tmp_path.iterdir()) == []
