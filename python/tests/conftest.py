"""Fixtures: sandboxed daemons run by the kolta_sandbox helper (built with the
C++ tests), and Devices that reach them."""

from __future__ import annotations

import os
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path

import pytest

PYTHON_DIR = Path(__file__).resolve().parents[1]
REPO_DIR = PYTHON_DIR.parent
sys.path.insert(0, str(PYTHON_DIR))  # the checkout's package, not an installed one

from kolta import Device  # noqa: E402

SANDBOX_EXIT_UNAVAILABLE = 77
DAEMON_COUNT = 3


def sandbox_helper() -> Path:
    """The helper binary: $KOLTA_SANDBOX, else the one in build-test/."""
    given = os.environ.get("KOLTA_SANDBOX")
    if given:
        if not os.access(given, os.X_OK):
            pytest.fail(f"KOLTA_SANDBOX={given} is not an executable")
        return Path(given)
    built = REPO_DIR / "build-test" / "tests" / "kolta_sandbox"
    if not os.access(built, os.X_OK):
        pytest.skip("kolta_sandbox is not built: run cmake --build build-test, or set KOLTA_SANDBOX")
    return built


def kolta_cli() -> Path:
    """The built kolta: $KOLTA_CLI, else the one beside the sandbox helper's
    build (build-test/cli/kolta)."""
    given = os.environ.get("KOLTA_CLI")
    if given:
        if not os.access(given, os.X_OK):
            pytest.fail(f"KOLTA_CLI={given} is not an executable")
        return Path(given)
    built = sandbox_helper().parents[1] / "cli" / "kolta"
    if not os.access(built, os.X_OK):
        pytest.skip(f"{built} is not built: run cmake --build build-test, or set KOLTA_CLI")
    return built


class Sandboxes:
    """Daemons in their sandboxes, up until stop()."""

    def __init__(self, count: int, port: int | None = None) -> None:
        fixed = ["--port", str(port)] if port is not None else []
        self._helper = subprocess.Popen(
            [str(sandbox_helper()), "--count", str(count), *fixed],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
        )
        assert self._helper.stdout is not None
        lines = [self._helper.stdout.readline() for _ in range(count)]
        if not all(line.strip().isdigit() for line in lines):
            self._helper.wait(timeout=60)
            why = self._helper.stderr.read().strip() if self._helper.stderr else ""
            if self._helper.returncode == SANDBOX_EXIT_UNAVAILABLE:
                pytest.skip(why)
            pytest.fail(f"kolta_sandbox failed ({self._helper.returncode}): {why}")
        self.ports = [int(line) for line in lines]

    def devices(self, timeout: float = 30.0) -> list[Device]:
        return [Device("127.0.0.1", port, timeout) for port in self.ports]

    def stop(self) -> None:
        """Closing the helper's input stops the daemons."""
        assert self._helper.stdin is not None
        self._helper.stdin.close()
        self._helper.wait(timeout=60)
        assert self._helper.returncode == 0


@pytest.fixture(scope="session")
def sandboxes() -> Iterator[Sandboxes]:
    daemons = Sandboxes(DAEMON_COUNT)
    yield daemons
    daemons.stop()


@pytest.fixture
def device(sandboxes: Sandboxes) -> Device:
    return sandboxes.devices()[0]


@pytest.fixture
def own_daemon() -> Iterator[Device]:
    """A daemon of its own, for tests that end it."""
    daemon = Sandboxes(1)
    yield daemon.devices()[0]
    daemon.stop()
