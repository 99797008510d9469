"""run and execute against the sandboxed daemon."""

from __future__ import annotations

from concurrent.futures import ThreadPoolExecutor

import pytest

from kolta import CommandFailed, Device
from kolta.words import join_words


def test_run_returns_whole_stdout_stderr_and_exit_status(device: Device) -> None:
    long = device.run("seq 1 20000")  # about 106 KiB, far beyond one reply of "system"
    assert long.ok and long.returncode == 0
    assert long.stdout == "".join(f"{i}\n" for i in range(1, 20001)).encode()

    failing = device.run("echo partial; echo 'no such thing' >&2; exit 3")
    assert (failing.stdout, failing.stderr, failing.returncode, failing.ok) == (
        b"partial\n",
        b"no such thing\n",
        3,
        False,
    )


def test_run_reports_a_signal_as_negative_returncode(device: Device) -> None:
    assert device.run("kill -TERM $$").returncode == -15
    assert device.run("kill -KILL $$").returncode == -9


def test_run_with_check_raises_and_carries_the_result(device: Device) -> None:
    with pytest.raises(CommandFailed) as raised:
        device.run("echo oops >&2; exit 7", check=True)
    assert raised.value.result.returncode == 7
    assert raised.value.result.stderr == b"oops\n"
    assert device.run("true", check=True).ok


def test_run_takes_commands_longer_than_a_header_value(device: Device) -> None:
    words = [f"word{i}" for i in range(100)]
    result = device.run("printf '%s\\n' " + " ".join(words) + " | wc -l")
    assert result.stdout.strip() == b"100"


def test_overlapping_runs_each_get_their_own_output(device: Device) -> None:
    def marked(i: int) -> bytes:
        return device.run(f"for n in 1 2 3 4 5; do echo run{i}-$n; sleep 0.01; done; echo err{i} >&2").stdout

    with ThreadPoolExecutor(max_workers=8) as pool:
        outputs = list(pool.map(marked, range(8)))
    for i, out in enumerate(outputs):
        assert out == "".join(f"run{i}-{n}\n" for n in range(1, 6)).encode()


def test_execute_passes_words_as_the_daemon_splits_them(device: Device) -> None:
    result = device.execute("/usr/bin/printf", ["[%s]", "plain", '"with blank"', ""])
    assert result.stdout == b'[plain]["with blank"][]'
    assert device.execute("/bin/true").ok  # no argument words at all


def test_execute_refuses_a_nul_in_a_word(device: Device) -> None:
    with pytest.raises(ValueError):
        device.execute("/bin/echo", ["a\0b"])


def test_execute_reports_a_missing_program(device: Device) -> None:
    result = device.execute("/no/such/program", ["x"])
    assert result.returncode == 127  # as the shell reports it
    assert b"/no/such/program" in result.stderr


def test_words_joined_for_the_splitter() -> None:
    assert join_words(["a", "", "b"]) == "a  b"  # two blanks: an empty word between
    assert join_words(["a", ""]) == "a "  # a trailing blank: an empty last word
    assert join_words(['"x y"', '"tail']) == '"x y" "tail'  # the last word may leave a quote open
    with pytest.raises(ValueError):
        join_words([""])  # the daemon takes no empty argument text
    with pytest.raises(TypeError):
        join_words("one string")
