"""What `kolta --help` and `kolta VERB --help` say: the verbs, the options,
the environment, the exit statuses and each verb's options. The manual page,
docs/cli.md and the bash completion are checked against it."""

from __future__ import annotations

import re
import subprocess
from dataclasses import dataclass, field
from pathlib import Path


@dataclass
class HelpText:
    verbs: list[str] = field(default_factory=list)  # in the order of the help
    # verb -> "exec PROGRAM [ARGS...] [--timeout S]", from its usage line
    synopses: dict[str, str] = field(default_factory=dict)
    options: list[str] = field(default_factory=list)  # -H, -p, ..., --help, --version
    environment: list[str] = field(default_factory=list)  # KOLTA_HOST, ...
    exit_statuses: list[str] = field(default_factory=list)  # "0", "1", ...
    verb_options: dict[str, list[str]] = field(default_factory=dict)  # verb -> [--timeout]


def _run(kolta: Path, *args: str) -> str:
    done = subprocess.run([str(kolta), *args], capture_output=True, text=True, timeout=30)
    assert done.returncode == 0, f"kolta {' '.join(args)} ended with {done.returncode}: {done.stderr}"
    return done.stdout


def kolta_help(kolta: Path) -> HelpText:
    text = _run(kolta, "--help")
    found = HelpText()
    section = ""
    for line in text.split("\n"):
        if line and not line[0].isspace():
            section = line.rstrip(":").lower()
            continue
        if section == "options":
            option = re.match(r"^ +(-\w|--[\w-]+)(?:, (--[\w-]+))?", line)
            if option:
                found.options += [name for name in option.groups() if name]
        elif section == "commands":
            command = re.match(r"^  ([a-z][\w-]*)\b", line)
            if command:
                found.verbs.append(command.group(1))
        elif section == "exit status":
            status = re.match(r"^  (\d+)  ", line)
            if status:
                found.exit_statuses.append(status.group(1))
    found.environment = sorted(set(re.findall(r"\$(KOLTA_\w+)", text)))
    assert found.verbs and found.options and found.exit_statuses, f"kolta --help not understood:\n{text}"
    for verb in found.verbs:
        usage = _run(kolta, verb, "--help").split("\n", 1)[0]
        synopsis = re.match(r"^usage: kolta \[options\] (" + re.escape(verb) + r"\b.*)$", usage)
        assert synopsis, f"kolta {verb} --help has no usage line: {usage!r}"
        found.synopses[verb] = synopsis.group(1).strip()
        found.verb_options[verb] = re.findall(r"\[(--[\w-]+)", usage)
    return found
