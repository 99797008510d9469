"""Every example of docs/cli.md and docs/python.md, run against sandboxed
daemons, so that none goes stale. How a page marks its blocks is told in
doc_examples.py; a page that breaks it fails here.

The shell examples run with bash (-e, pipefail) and find the device in
KOLTA_HOST and KOLTA_PORT, as a user's shell would after
`export KOLTA_HOST=...`; `kolta` is the built one, and the checkout's kolta
package and pytest plugin stand in for the installed ones. The Python
examples name the device 192.0.2.10 and a group dut1 and dut2: those names
are pointed at the sandboxed daemons. The blocks of one page run in order in
one directory, as a reader following the page would run them."""

from __future__ import annotations

import json
import os
import subprocess
import sys
from pathlib import Path

import pytest

from conftest import PYTHON_DIR, REPO_DIR, Sandboxes, kolta_cli
from doc_examples import Block, PageError, blocks

PAGES = ("docs/cli.md", "docs/python.md")
EXAMPLE_SECONDS = 120

# The Python examples' device names, in the order of the sandboxed daemons.
PYTHON_DEVICE_NAMES = ("192.0.2.10", "dut1", "dut2")

# Run before each Python example: connections to the examples' device names
# go to the sandboxed daemons instead.
PYTHON_PRELUDE = """
import json, os, socket
_ports = json.loads(os.environ["KOLTA_EXAMPLE_DEVICES"])
_create_connection = socket.create_connection
def _to_sandbox(address, *args, **kwargs):
    if address[0] in _ports:
        address = ("127.0.0.1", _ports[address[0]])
    return _create_connection(address, *args, **kwargs)
socket.create_connection = _to_sandbox
"""


def page_blocks(page: str) -> list[Block]:
    try:
        return blocks(REPO_DIR / page, page)
    except PageError as error:
        pytest.fail(str(error), pytrace=False)


@pytest.mark.parametrize("page", PAGES)
def test_every_block_follows_the_convention(page: str) -> None:
    found = page_blocks(page)
    assert any(block.runs for block in found), f"{page} has no example that runs"


def _environment(sandboxes: Sandboxes) -> dict[str, str]:
    env = {k: v for k, v in os.environ.items() if not k.startswith(("KOLTA_", "PYTEST_"))}
    # The built kolta, and python3 is the interpreter running this test.
    path = [str(kolta_cli().parent), str(Path(sys.executable).parent), env.get("PATH", "/usr/bin:/bin")]
    env["PATH"] = ":".join(path)
    env["KOLTA_HOST"] = "127.0.0.1"
    env["KOLTA_PORT"] = str(sandboxes.ports[0])
    env["PYTHONPATH"] = str(PYTHON_DIR)
    env["PYTHONDONTWRITEBYTECODE"] = "1"
    env["PYTEST_PLUGINS"] = "kolta.pytest_plugin"  # what installing the package registers
    env["PYTEST_ADDOPTS"] = "-p no:cacheprovider"
    names = dict(zip(PYTHON_DEVICE_NAMES, sandboxes.ports))
    env["KOLTA_EXAMPLE_DEVICES"] = json.dumps(names)
    return env


def _run(block: Block, workdir: Path, env: dict[str, str]) -> str:
    """Runs one block; returns what went wrong, or an empty text."""
    if block.file:
        (workdir / block.file).write_text(block.code, encoding="utf-8")
        return ""
    if block.language == "sh":
        command = ["bash", "-e", "-o", "pipefail", "-c", block.code, block.where]
    else:
        # Blank lines in front, so that a traceback names the page's own line.
        source = "\n" * block.line + block.code
        runner = (
            PYTHON_PRELUDE
            + "import sys\n"
            + "exec(compile(sys.argv[1], sys.argv[2], 'exec'), {'__name__': '__main__'})\n"
        )
        command = [sys.executable, "-c", runner, source, block.page]
    try:
        done = subprocess.run(
            command, cwd=workdir, env=env, capture_output=True, text=True, timeout=EXAMPLE_SECONDS
        )
    except subprocess.TimeoutExpired:
        return f"{block.where}: the example did not end within {EXAMPLE_SECONDS} s\n{block.code}"
    if done.returncode == 0:
        return ""
    return (
        f"{block.where}: the example ended with status {done.returncode}\n"
        f"--- example\n{block.code}--- stdout\n{done.stdout}--- stderr\n{done.stderr}"
    )


@pytest.mark.parametrize("page", PAGES)
def test_examples_run_against_the_daemon(
    page: str, sandboxes: Sandboxes, tmp_path: Path
) -> None:
    env = _environment(sandboxes)
    wanted = [block for block in page_blocks(page) if block.runs or block.file]
    failures = [why for block in wanted if (why := _run(block, tmp_path, env))]
    assert not failures, "\n\n".join(failures)
