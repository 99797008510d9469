"""The code blocks of a Markdown page, and what the example test makes of them.

In docs/cli.md and docs/python.md every code block is fenced and says what
it is in its info string:

    ```sh                  a shell example: run with bash against the device
    ```python              a Python example: run with python3 against the device
    ```python file=NAME    a file the following examples use: written, not run
    ```text                a synopsis, an output, an error message: never run
    ```sh not-run: WHY     an example that is shown but not run (it reboots the
                           device, needs a network of devices, installs software)

A block without a language, with another one, with a word this module does
not know, an empty reason, or a code block by indentation is an error: the
test fails naming the page and line, so no example escapes it.
"""

from __future__ import annotations

import re
from dataclasses import dataclass
from pathlib import Path

LANGUAGES = ("sh", "python", "text")
NOT_RUN = "not-run:"


@dataclass
class Block:
    page: str
    line: int  # of the opening fence, counted from 1
    language: str
    code: str
    not_run: str = ""  # the reason, when the block is not run
    file: str = ""  # the name under which the block is written

    @property
    def where(self) -> str:
        return f"{self.page}:{self.line}"

    @property
    def runs(self) -> bool:
        return self.language in ("sh", "python") and not self.not_run and not self.file


class PageError(Exception):
    """A code block that breaks the convention above."""


FENCE = re.compile(r"^(```+|~~~+)(.*)$")


def _info(page: str, line: int, info: str) -> dict[str, str]:
    words = info.strip()
    language, _, rest = words.partition(" ")
    if language not in LANGUAGES:
        raise PageError(
            f"{page}:{line}: code block with language {language!r}: use one of {', '.join(LANGUAGES)} "
            f"(see python/tests/doc_examples.py)"
        )
    fields = {"language": language}
    rest = rest.strip()
    if rest.startswith(NOT_RUN):
        reason = rest[len(NOT_RUN):].strip()
        if not reason:
            raise PageError(f"{page}:{line}: 'not-run:' needs a reason after it")
        fields["not_run"] = reason
    elif rest.startswith("file=") and language == "python" and " " not in rest:
        fields["file"] = rest[len("file="):]
        if not re.fullmatch(r"[\w.-]+", fields["file"]):
            raise PageError(f"{page}:{line}: file name {fields['file']!r} is not a plain name")
    elif rest:
        raise PageError(
            f"{page}:{line}: unknown words {rest!r} after the language: "
            f"only 'not-run: WHY', or 'file=NAME' for python, may follow"
        )
    return fields


def blocks(path: Path, page: str) -> list[Block]:
    """Every code block of the page, in order; PageError on any that breaks
    the convention."""
    found: list[Block] = []
    lines = path.read_text(encoding="utf-8").split("\n")
    fence = ""
    start = 0
    fields: dict[str, str] = {}
    body: list[str] = []
    previous_blank = True
    in_list = False
    for number, text in enumerate(lines, 1):
        if fence:
            if text.strip() == fence:
                found.append(Block(page, start, code="\n".join(body) + "\n", **fields))
                fence = ""
            else:
                body.append(text)
            continue
        opening = FENCE.match(text)
        if opening:
            fence, start, body = opening.group(1), number, []
            fields = _info(page, number, opening.group(2))
            previous_blank = False
            continue
        if text.startswith("    ") and previous_blank and not in_list and text.strip():
            raise PageError(
                f"{page}:{number}: code block by indentation: fence it with ```sh, ```python "
                f"or ```text so the example test sees it"
            )
        if re.match(r"^\s*([-*+]|\d+\.) ", text):
            in_list = True
        elif not text.strip():
            pass
        elif not text.startswith(" "):
            in_list = False
        previous_blank = not text.strip()
    if fence:
        raise PageError(f"{page}:{start}: code block never closed")
    return found
