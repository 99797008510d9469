"""The package installed into a fresh virtual environment, and its pytest
plugin in a sample test run there."""

from __future__ import annotations

import os
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

from conftest import PYTHON_DIR, Sandboxes

SAMPLE_TEST = '''
from kolta import Device


def test_sample(kolta_device: Device) -> None:
    assert kolta_device.run("echo sample").stdout == b"sample\\n"
'''


def _clean_environment() -> dict[str, str]:
    """No checkout on the path, no device, no package index."""
    env = {k: v for k, v in os.environ.items() if not k.startswith(("PYTHON", "KOLTA_", "PIP_"))}
    env["PIP_DISABLE_PIP_VERSION_CHECK"] = "1"
    return env


@pytest.fixture(scope="module")
def venv_python(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """A venv that sees the system's site packages (pytest, pip, setuptools,
    wheel) with kolta installed from a copy of the source, offline. The
    system's pip installs into the venv, which saves making a pip of its own."""
    root = tmp_path_factory.mktemp("venv")
    made = subprocess.run(
        [sys.executable, "-m", "venv", "--without-pip", "--system-site-packages", str(root / "venv")],
        capture_output=True,
        text=True,
    )
    if made.returncode != 0:
        pytest.skip(f"cannot make a virtual environment here: {made.stderr.strip()}")
    python = root / "venv" / "bin" / "python"
    source = shutil.copytree(PYTHON_DIR, root / "src", ignore=shutil.ignore_patterns("tests", "__pycache__"))
    install = [str(python), "-m", "pip", "install", "--no-index", "--no-build-isolation", str(source)]
    installed = subprocess.run(install, capture_output=True, text=True, env=_clean_environment())
    assert installed.returncode == 0, installed.stdout + installed.stderr
    return python


def test_installed_package_is_typed_and_importable(venv_python: Path) -> None:
    probe = "import kolta, pathlib; print(pathlib.Path(kolta.__file__).with_name('py.typed').exists())"
    found = subprocess.run(
        [str(venv_python), "-c", probe], capture_output=True, text=True, cwd="/", env=_clean_environment()
    )
    assert found.stdout.strip() == "True", found.stderr


def test_plugin_fixture_in_a_sample_test(venv_python: Path, sandboxes: Sandboxes, tmp_path: Path) -> None:
    (tmp_path / "test_sample.py").write_text(SAMPLE_TEST)
    port = str(sandboxes.ports[0])

    def sample_run(*options: str, **env: str) -> subprocess.CompletedProcess[str]:
        command = [str(venv_python), "-m", "pytest", "-p", "no:cacheprovider", "-rs", *options]
        return subprocess.run(
            command, capture_output=True, text=True, cwd=tmp_path, env={**_clean_environment(), **env}
        )

    by_option = sample_run("--kolta-host", "127.0.0.1", "--kolta-port", port)
    assert by_option.returncode == 0 and "1 passed" in by_option.stdout, by_option.stdout
    by_environment = sample_run(KOLTA_HOST="127.0.0.1", KOLTA_PORT=port)
    assert by_environment.returncode == 0 and "1 passed" in by_environment.stdout, by_environment.stdout
    without_host = sample_run()
    assert without_host.returncode == 0 and "1 skipped" in without_host.stdout
    assert "no KOLTA device given: use --kolta-host HOST or set KOLTA_HOST" in without_host.stdout
