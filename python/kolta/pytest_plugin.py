"""pytest plugin: the fixture kolta_device, a Device for the host given with
--kolta-host/--kolta-port (or KOLTA_HOST/KOLTA_PORT), or one device of a pool
given with --kolta-pool (or KOLTA_POOL). Tests that use it are skipped when
neither is given.

Each pytest process holds a lease on its device for its whole run: without
pytest-xdist that is one device, with `-n N` one per worker, each a
different one. Two runs on one pool (or one host) therefore never use a
device at the same moment: a run that finds every device held waits
--kolta-pool-wait seconds, then its tests error, listing the holders.
--kolta-no-lease uses the host without a lease.

The header names the device. xdist's workers print no header of their own:
each writes its device's line to a folder the controller names in its
workerinput, and the controller prints it, "kolta: [gw0] device ...", as the
worker reports ready."""

from __future__ import annotations

import os
import shutil
import tempfile
from pathlib import Path

import pytest

from kolta.device import DEFAULT_PORT, Device
from kolta.device_pool import DevicePool
from kolta.errors import KoltaError
from kolta.lease import TOKEN_ENV, Lease, take

DEFAULT_POOL_WAIT = 600.0
DEFAULT_TTL = 60.0


def pytest_addoption(parser: pytest.Parser) -> None:
    group = parser.getgroup("kolta", "KOLTA devices")
    group.addoption("--kolta-host", default=None, help="device running koltad (or set KOLTA_HOST)")
    group.addoption("--kolta-port", default=None, help=f"its port (or KOLTA_PORT; default {DEFAULT_PORT})")
    group.addoption("--kolta-pool", default=None, metavar="HOST[,HOST...]|@FILE",
                    help="devices shared with other runs: each pytest process (each xdist worker) "
                         "leases a free one (or set KOLTA_POOL)")
    group.addoption("--kolta-pool-wait", default=None, metavar="SECONDS",
                    help=f"how long to wait for a free device (default {DEFAULT_POOL_WAIT:.0f})")
    group.addoption("--kolta-no-lease", action="store_true", default=False,
                    help="use --kolta-host without leasing it")


def _port(config: pytest.Config) -> int:
    text = config.getoption("kolta_port") or os.environ.get("KOLTA_PORT") or str(DEFAULT_PORT)
    try:
        return int(text)
    except ValueError:
        raise pytest.UsageError(f"kolta port {text!r} is not a number") from None


def _pool_entries(text: str) -> list[str]:
    """"a,b,c" or "@FILE" with one host entry per line (# starts a comment)."""
    if text.startswith("@"):
        try:
            lines = Path(text[1:]).read_text().splitlines()
        except OSError as e:
            raise pytest.UsageError(f"--kolta-pool {text}: {e.strerror}") from None
        entries = [line.split("#", 1)[0].strip() for line in lines]
    else:
        entries = [entry.strip() for entry in text.split(",")]
    entries = [entry for entry in entries if entry]
    if not entries:
        raise pytest.UsageError(f"--kolta-pool {text!r} names no device")
    return entries


def _is_xdist_controller(config: pytest.Config) -> bool:
    """The process that hands tests to xdist workers runs none itself."""
    return not hasattr(config, "workerinput") and bool(config.getoption("numprocesses", None))


class _Holder:
    """The device of this pytest process, and its lease."""

    def __init__(self, config: pytest.Config) -> None:
        self.config = config
        self.device: Device | None = None
        self.lease: Lease | None = None
        self.error: str | None = None
        self.pool: DevicePool | None = None
        pool = config.getoption("kolta_pool") or os.environ.get("KOLTA_POOL")
        host = config.getoption("kolta_host") or os.environ.get("KOLTA_HOST")
        wait = config.getoption("kolta_pool_wait") or str(DEFAULT_POOL_WAIT)
        try:
            self.wait = float(wait)
        except ValueError:
            raise pytest.UsageError(f"--kolta-pool-wait {wait!r} is not a number of seconds") from None
        if pool:
            self.pool = DevicePool(_pool_entries(pool), _port(config))
        elif host:
            self.device = Device(host, _port(config))
        self.leasing = not config.getoption("kolta_no_lease")

    def start(self) -> None:
        """Takes the lease (the pool's first free device); a failure is kept
        for the tests that need the device."""
        try:
            if self.pool is not None:
                _, self.lease = self.pool.take(wait=self.wait, ttl=DEFAULT_TTL)
                self.device = self.lease.device  # type: ignore[assignment]
            elif self.device is not None and self.leasing:
                self.lease = take(self.device, ttl=DEFAULT_TTL, wait=self.wait)
        except KoltaError as e:
            self.error = str(e)

    def stop(self) -> None:
        if self.lease is not None:
            lease, self.lease = self.lease, None
            try:
                lease.release()
            except KoltaError:
                pass  # it ends after its ttl
        if self.device is not None:
            self.device.close()  # its kept connections

    def header(self) -> str | None:
        if self.error:
            return f"kolta: no device: {self.error}"
        if self.lease is not None:
            return f"kolta: device {self.lease.host} leased as {self.lease.owner!r}"
        if self.device is not None:
            return f"kolta: device {self.device.host}:{self.device.port} (not leased)"
        return None


_KEY = pytest.StashKey[_Holder]()
# The controller's folder for its workers' device lines.
_WORKER_LINES = pytest.StashKey[str]()
_WORKER_LINES_INPUT = "kolta_device_lines"


def pytest_configure(config: pytest.Config) -> None:
    holder = _Holder(config)
    if _is_xdist_controller(config):
        if holder.pool is not None or holder.device is None or not holder.leasing:
            # each worker leases a device of the pool for itself
            if holder.pool is not None:
                config.stash[_WORKER_LINES] = tempfile.mkdtemp(prefix="kolta-xdist-")
            return
        # One host for every worker: the controller leases it and hands the
        # token to the workers, which take that lease as their own.
        holder.start()
        if holder.lease is not None:
            os.environ[TOKEN_ENV] = f"{holder.lease.token} {os.environ.get(TOKEN_ENV, '')}".strip()
    config.stash[_KEY] = holder


@pytest.hookimpl(tryfirst=True)
def pytest_sessionstart(session: pytest.Session) -> None:
    holder = session.config.stash.get(_KEY, None)
    if holder is not None and not _is_xdist_controller(session.config):
        holder.start()
        folder = getattr(session.config, "workerinput", {}).get(_WORKER_LINES_INPUT)
        line = holder.header()
        if folder and line:
            worker = session.config.workerinput["workerid"]  # type: ignore[attr-defined]
            Path(folder, worker).write_text(line.removeprefix("kolta: "))


@pytest.hookimpl(optionalhook=True)
def pytest_configure_node(node) -> None:  # type: ignore[no-untyped-def]
    folder = node.config.stash.get(_WORKER_LINES, None)
    if folder:
        node.workerinput[_WORKER_LINES_INPUT] = folder


@pytest.hookimpl(optionalhook=True, trylast=True)
def pytest_testnodeready(node) -> None:  # type: ignore[no-untyped-def]
    folder = node.config.stash.get(_WORKER_LINES, None)
    reporter = node.config.pluginmanager.get_plugin("terminalreporter")
    if not folder or reporter is None:
        return
    worker = node.gateway.id
    try:
        line = Path(folder, worker).read_text()
    except OSError:
        line = "no device line"
    line = f"kolta: [{worker}] {line}"
    if reporter.isatty:  # over xdist's status line, which it writes again
        reporter.rewrite(line, erase=True)
        reporter.write("\n")
    else:
        reporter.write_line(line)


def pytest_report_header(config: pytest.Config) -> str | None:
    holder = config.stash.get(_KEY, None)
    if holder is None and _is_xdist_controller(config):
        if config.getoption("kolta_pool") or os.environ.get("KOLTA_POOL"):
            return "kolta: each xdist worker leases a device of the pool (named as it starts)"
    return holder.header() if holder is not None else None


def pytest_unconfigure(config: pytest.Config) -> None:
    holder = config.stash.get(_KEY, None)
    if holder is not None:
        holder.stop()
    folder = config.stash.get(_WORKER_LINES, None)
    if folder:
        shutil.rmtree(folder, ignore_errors=True)


def _holder(request: pytest.FixtureRequest) -> _Holder:
    holder = request.config.stash.get(_KEY, None)
    if holder is None or holder.device is None and holder.pool is None:
        pytest.skip("no KOLTA device given: use --kolta-host HOST or set KOLTA_HOST (or a pool: --kolta-pool)")
    if holder.error:
        pytest.fail(f"no KOLTA device: {holder.error}", pytrace=False)
    return holder


@pytest.fixture(scope="session")
def kolta_lease(request: pytest.FixtureRequest) -> Lease | None:
    """The lease this process holds on its device (host, owner, taken), or
    None with --kolta-no-lease."""
    return _holder(request).lease


@pytest.fixture
def kolta_device(request: pytest.FixtureRequest) -> Device:
    """The device under test, the same for the whole session."""
    device = _holder(request).device
    assert device is not None
    return device
