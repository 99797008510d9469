"""The manual pages kolta(1) and koltad(8), and docs/cli.md, against what
the programs say of themselves: every verb, option, environment variable and
exit status of `kolta --help` (and each verb's usage line of `kolta VERB
--help`) must be in kolta(1) and in docs/cli.md, and kolta(1) must list
nothing that kolta no longer has. koltad(8) follows the daemon's option
letters. The pages' .TP tags are read from their source; man must show them
without a warning."""

from __future__ import annotations

import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest

from conftest import REPO_DIR, kolta_cli
from help_text import HelpText, kolta_help

KOLTA_PAGE = REPO_DIR / "packaging" / "man" / "kolta.1"
KOLTAD_PAGE = REPO_DIR / "packaging" / "man" / "koltad.8"
CLI_DOC = REPO_DIR / "docs" / "cli.md"


def check_rendering(page: Path) -> None:
    """man shows the page without a warning."""
    if not shutil.which("man"):
        pytest.skip("man is not installed (apt install man-db)")
    env = dict(os.environ, MANWIDTH="100", LC_ALL="C.UTF-8")
    done = subprocess.run(
        ["man", "--warnings", "-E", "UTF-8", "-l", str(page)],
        capture_output=True, text=True, env=env, timeout=60,
    )
    assert done.returncode == 0, done.stderr
    assert not done.stderr.strip(), f"man warns about {page.name}:\n{done.stderr}"
    assert "NAME" in done.stdout


def roff_text(line: str) -> str:
    """One line of the page's source as text: font macros and escapes gone."""
    if line.startswith("."):
        macro, _, rest = line[1:].partition(" ")
        words = [w[1:-1] if w.startswith('"') else w for w in re.findall(r'"[^"]*"|\S+', rest)]
        line = (" " if macro in ("B", "I") else "").join(words)
    line = re.sub(r"\\f[BIRP]", "", line)
    return line.replace("\\-", "-").replace("\\&", "").replace("\\ ", " ")


def sections(page: Path) -> dict[str, list[str]]:
    """Section name -> the tags of its .TP paragraphs, as text."""
    found: dict[str, list[str]] = {}
    current: list[str] = []
    lines = page.read_text(encoding="utf-8").split("\n")
    for number, line in enumerate(lines):
        if line.startswith(".SH "):
            current = found.setdefault(line[4:].strip('" '), [])
        elif line.strip() == ".TP" and number + 1 < len(lines):
            current.append(roff_text(lines[number + 1]).strip())
    return found


def title(page: Path) -> str:
    """The .TH line's source (name, section, date, version, manual)."""
    return next(line for line in page.read_text(encoding="utf-8").split("\n") if line.startswith(".TH "))


@pytest.fixture(scope="module")
def helptext() -> HelpText:
    return kolta_help(kolta_cli())


@pytest.fixture(scope="module")
def page() -> dict[str, list[str]]:
    check_rendering(KOLTA_PAGE)
    return sections(KOLTA_PAGE)


def test_kolta_page_has_every_verb_with_its_usage(helptext: HelpText, page: dict[str, list[str]]) -> None:
    listed = page["COMMANDS"]
    names = [tag.split()[0] for tag in listed]
    missing = [helptext.synopses[v] for v in helptext.verbs if v not in names]
    assert not missing, f"kolta has verbs that kolta.1 lacks: add a .TP entry to COMMANDS for {missing}"
    gone = [name for name in names if name not in helptext.verbs]
    assert not gone, f"kolta.1 lists verbs kolta no longer has: {gone}"
    for tag in listed:
        verb = tag.split()[0]
        assert tag == helptext.synopses[verb], (
            f"kolta.1 shows {tag!r}, kolta {verb} --help says {helptext.synopses[verb]!r}"
        )


def test_kolta_page_has_every_option_variable_and_status(helptext: HelpText, page: dict[str, list[str]]) -> None:
    options = [name for tag in page["OPTIONS"] for name in re.findall(r"(?<!\w)--?[\w-]+", tag)]
    assert sorted(set(options)) == sorted(helptext.options), (
        f"OPTIONS of kolta.1 {sorted(set(options))} differ from kolta --help {sorted(helptext.options)}"
    )
    assert page["ENVIRONMENT"] == helptext.environment, "ENVIRONMENT of kolta.1 differs from kolta --help"
    assert page["EXIT STATUS"] == helptext.exit_statuses, "EXIT STATUS of kolta.1 differs from kolta --help"


def test_kolta_page_names_the_version() -> None:
    version = subprocess.run([str(kolta_cli()), "--version"], capture_output=True, text=True).stdout.split()[-1]
    assert f'"kolta {version}"' in title(KOLTA_PAGE), f"kolta.1's .TH line does not name kolta {version}"


def test_cli_doc_has_every_verb_option_variable_and_status(helptext: HelpText) -> None:
    doc = CLI_DOC.read_text(encoding="utf-8")
    rows = re.findall(r"^\| `([a-z][\w-]*)", doc, re.M)
    missing = [v for v in helptext.verbs if v not in rows]
    assert not missing, f"docs/cli.md's command table lacks {missing}"
    quoted = set(re.findall(r"`(--?[\w-]+)`", doc))
    missing = [o for o in helptext.options if o not in quoted]
    assert not missing, f"docs/cli.md does not mention the options {missing}"
    for verb, options in helptext.verb_options.items():
        row = next(line for line in doc.split("\n") if line.startswith(f"| `{verb}"))
        missing = [o for o in options if o not in row]
        assert not missing, f"docs/cli.md's row of {verb} lacks {missing}"
    missing = [v for v in helptext.environment if f"`{v}`" not in doc]
    assert not missing, f"docs/cli.md does not mention {missing}"
    statuses = re.findall(r"^\| (\d+) \|", doc, re.M)
    assert [s for s in helptext.exit_statuses if s not in statuses] == [], "docs/cli.md's exit statuses are incomplete"


def test_koltad_page_has_the_daemons_options() -> None:
    check_rendering(KOLTAD_PAGE)
    page = sections(KOLTAD_PAGE)
    source = (REPO_DIR / "server" / "main.cpp").read_text(encoding="utf-8")
    letters = re.search(r'getopt\(argc, argv, "([^"]*)"\)', source)
    assert letters, "server/main.cpp no longer reads its options with getopt: adapt this test"
    expected = sorted(f"-{letter}" for letter in letters.group(1) if letter != ":")
    options = sorted(name for tag in page["OPTIONS"] for name in re.findall(r"-\w", tag))
    assert options == expected, f"koltad.8 OPTIONS {options} differ from the daemon's {expected}"
    project = (REPO_DIR / "CMakeLists.txt").read_text(encoding="utf-8")
    version = re.search(r"project\(kolta VERSION ([\d.]+)", project).group(1)
    assert f'"koltad {version}"' in title(KOLTAD_PAGE), f"koltad.8's .TH line does not name koltad {version}"
