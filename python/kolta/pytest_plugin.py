"""pytest plugin: the fixture kolta_device, a Device for the host given with
--kolta-host/--kolta-port or KOLTA_HOST/KOLTA_PORT. Tests that use it are
skipped when no host is given."""

from __future__ import annotations

import os
from collections.abc import Iterator

import pytest

from kolta.device import DEFAULT_PORT, Device


def pytest_addoption(parser: pytest.Parser) -> None:
    group = parser.getgroup("kolta", "KOLTA devices")
    group.addoption("--kolta-host", default=None, help="device running koltad (or set KOLTA_HOST)")
    group.addoption("--kolta-port", default=None, help=f"its port (or KOLTA_PORT; default {DEFAULT_PORT})")


def _port(config: pytest.Config) -> int:
    text = config.getoption("kolta_port") or os.environ.get("KOLTA_PORT") or str(DEFAULT_PORT)
    try:
        return int(text)
    except ValueError:
        raise pytest.UsageError(f"kolta port {text!r} is not a number") from None


@pytest.fixture
def kolta_device(request: pytest.FixtureRequest) -> Iterator[Device]:
    """The device under test; its kept connections close after the test."""
    host = request.config.getoption("kolta_host") or os.environ.get("KOLTA_HOST")
    if not host:
        pytest.skip("no KOLTA device given: use --kolta-host HOST or set KOLTA_HOST")
    with Device(host, _port(request.config)) as device:
        yield device
