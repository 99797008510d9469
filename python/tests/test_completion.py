"""The bash completion of kolta, in a real bash: the file is sourced as
bash-completion would, `complete -p kolta` names its function, and the test
drives that function through COMP_WORDS and COMP_CWORD as bash does on Tab.
What it should offer is read from `kolta --help`, so a verb or option added
to kolta is expected here at once."""

from __future__ import annotations

import os
import re
import shlex
import socket
import subprocess
import time
from pathlib import Path

import pytest

from conftest import REPO_DIR, Sandboxes, kolta_cli
from help_text import kolta_help

COMPLETION = REPO_DIR / "packaging" / "bash-completion" / "kolta"

DRIVER = r"""
source "$1"
spec=$(complete -p kolta) || exit 90
[[ $spec =~ -F\ ([^ ]+) ]] || exit 91
function=${BASH_REMATCH[1]}
shift
COMP_WORDS=("$@")
COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
COMP_LINE="${COMP_WORDS[*]}"
COMP_POINT=${#COMP_LINE}
COMPREPLY=()
"$function" kolta "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD-1]}"
printf '%s\n' "${COMPREPLY[@]}"
"""


def complete(*words: str, env: dict[str, str] | None = None, cwd: Path | None = None) -> list[str]:
    """What Tab offers after `kolta WORDS...` (the last word is the one being
    completed, "" for a new one)."""
    environment = {k: v for k, v in os.environ.items() if not k.startswith("KOLTA_")}
    environment["PATH"] = f"{kolta_cli().parent}:{environment.get('PATH', '/usr/bin:/bin')}"
    environment.update(env or {})
    done = subprocess.run(
        ["bash", "--norc", "--noprofile", "-c", DRIVER, "driver", str(COMPLETION), "kolta", *words],
        capture_output=True, text=True, env=environment, cwd=cwd, timeout=30,
    )
    assert done.returncode == 0, f"completing {shlex.join(words)}: status {done.returncode}\n{done.stderr}"
    return [line for line in done.stdout.split("\n") if line]


def test_complete_p_names_the_function() -> None:
    done = subprocess.run(
        ["bash", "--norc", "--noprofile", "-c", f"source {shlex.quote(str(COMPLETION))}; complete -p kolta"],
        capture_output=True, text=True, timeout=30,
    )
    assert re.fullmatch(r"complete -F \S+ kolta\n", done.stdout), done.stdout + done.stderr


def test_verbs_and_global_options_are_those_of_the_help() -> None:
    helptext = kolta_help(kolta_cli())
    assert complete("") == [*helptext.verbs, "help"]
    assert sorted(complete("-")) == sorted(helptext.options)
    assert complete("st") == [v for v in helptext.verbs if v.startswith("st")]
    assert complete("help", "ex") == [v for v in helptext.verbs if v.startswith("ex")]
    # After global options and their values, the verb is still completed.
    assert complete("-H", "dev1", "-p", "10001", "-t", "5", "ver") == ["version"]


def test_each_verb_offers_its_own_options() -> None:
    helptext = kolta_help(kolta_cli())
    for verb in helptext.verbs:
        offered = sorted(complete(verb, "x", "--"))
        assert offered == sorted([*helptext.verb_options[verb], "--help"]), verb
    assert complete("wait", "12", "--timeout", "5", "--t") == ["--timeout"]


def test_choices_and_local_paths(tmp_path: Path) -> None:
    assert complete("reboot", "") == ["warm", "cold"]
    assert complete("output", "42", "std") == ["stdout", "stderr"]
    (tmp_path / "firmware.bin").write_bytes(b"x")
    (tmp_path / "fw-dir").mkdir()
    assert sorted(complete("put", "f", cwd=tmp_path)) == ["firmware.bin", "fw-dir"]
    assert complete("raw", "putFile", "--body", "fir", cwd=tmp_path) == ["firmware.bin"]
    assert complete("get", "/etc/hostname", "fir", cwd=tmp_path) == ["firmware.bin"]
    # A PID or a command line is nothing to complete from the local disk.
    assert complete("stop", "", cwd=tmp_path) == []
    assert complete("sh", "", cwd=tmp_path) == []


def test_remote_paths_come_from_the_device(sandboxes: Sandboxes) -> None:
    port = str(sandboxes.ports[0])
    env = {"KOLTA_HOST": "127.0.0.1", "KOLTA_PORT": port}
    device = sandboxes.devices()[0]
    device.put(b"one", "/tmp/completion-one.txt")
    device.put(b"two", "/tmp/completion-two.txt")
    try:
        expected = ["/tmp/completion-one.txt", "/tmp/completion-two.txt"]
        assert sorted(complete("rm", "/tmp/completion-", env=env)) == expected
        assert sorted(complete("-H", f"127.0.0.1:{port}", "get", "/tmp/completion-")) == expected
        assert sorted(complete("-H", "127.0.0.1", "-p", port, "get", "/tmp/completion-")) == expected
        assert sorted(complete("put", "x", "/tmp/completion-", env=env)) == expected
        # A directory is offered with its slash, to be completed further.
        assert complete("get", "/et", env=env) == ["/etc/"]
        assert "/etc/kolta/kolta.conf" in complete("get", "/etc/kolta/", env=env)
    finally:
        device.remove("/tmp/completion-one.txt")
        device.remove("/tmp/completion-two.txt")


def test_no_device_or_a_silent_one_gives_nothing_within_seconds() -> None:
    assert complete("rm", "/tmp/") == []
    # A port that accepts but never answers: given up after about a second.
    with socket.socket() as silent:
        silent.bind(("127.0.0.1", 0))
        silent.listen()
        port = silent.getsockname()[1]
        began = time.monotonic()
        assert complete("-H", f"127.0.0.1:{port}", "rm", "/tmp/") == []
        assert time.monotonic() - began < 4


def test_a_kolta_without_help_breaks_nothing(tmp_path: Path) -> None:
    missing = tmp_path / "kolta"
    missing.write_text("#!/bin/sh\nexit 127\n")
    missing.chmod(0o755)
    done = subprocess.run(
        ["bash", "--norc", "--noprofile", "-c", DRIVER, "driver", str(COMPLETION), "kolta", "ex"],
        capture_output=True, text=True, timeout=30,
        env={"PATH": f"{tmp_path}:/usr/bin:/bin"},
    )
    assert (done.returncode, done.stdout.strip()) == (0, ""), done.stderr
