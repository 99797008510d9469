"""Argument words for the daemon's splitter.

The daemon splits the "args" text of "process_start" at every blank outside
double quotes; a double quote toggles quoting and stays part of its word, and
quoting starts afresh with every word. So a word travels unchanged when each
of its blanks lies inside its own double quotes and, unless it is the last
word, its quotes are balanced. Nothing can remove quotes, so no other word
with a blank can be passed; the joining below raises ValueError for those.
"""

from __future__ import annotations

from collections.abc import Sequence

# An argument vector holds the program path, 62 words and a closing null.
MAX_WORDS = 62


def _check_word(word: str, last: bool) -> None:
    quoted = False
    for ch in word:
        if ch == '"':
            quoted = not quoted
        elif ch == " " and not quoted:
            raise ValueError(
                f"argument {word!r}: the daemon splits at this blank and keeps quotes, "
                "so the word cannot be passed unchanged"
            )
    if quoted and not last:
        raise ValueError(f"argument {word!r}: an unbalanced double quote would swallow the next blank")


def join_words(words: Sequence[str]) -> str:
    """The "args" text that the daemon splits into exactly `words`.

    Raises ValueError for an empty list (the daemon cannot start a program
    without an argument word: the caller handles that case), for more than
    62 words, and for words that the splitter would change."""
    if isinstance(words, str):
        raise TypeError("args must be a sequence of words, not one string")
    if not words:
        raise ValueError("no argument words")
    if len(words) > MAX_WORDS:
        raise ValueError(f"{len(words)} arguments; the daemon passes at most {MAX_WORDS}")
    if len(words) == 1 and words[0] == "":
        raise ValueError("a single empty argument cannot be passed")
    for i, word in enumerate(words):
        _check_word(word, last=i == len(words) - 1)
    return " ".join(words)
