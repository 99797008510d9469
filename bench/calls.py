"""The Python client's calls, timed one by one against the daemon at
127.0.0.1:PORT; prints "name=value" lines (medians in milliseconds, rates
in calls per second) for tools/run-bench.sh. Every call's output and exit
status are checked before it is counted; a wrong one ends the run.

    python3 bench/calls.py PORT N
"""

from __future__ import annotations

import statistics
import sys
import time
from collections.abc import Callable
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "python"))

from kolta import Device, Result  # noqa: E402

THREADS = 8


def median_ms(call: Callable[[], Result], expected: Result, n: int) -> float:
    times = []
    for i in range(n + 1):
        started = time.perf_counter()
        got = call()
        took = time.perf_counter() - started
        if got != expected:
            sys.exit(f"calls.py: {got} instead of {expected}")
        if i > 0:  # the first warms up
            times.append(took * 1000)
    return statistics.median(times)


def rate(device: Device, threads: int, calls: int) -> float:
    expected = Result(b"hi\n", b"", 0)

    def one(_: int) -> None:
        got = device.run("echo hi")
        if got != expected:
            sys.exit(f"calls.py: {got} instead of {expected}")

    with ThreadPoolExecutor(max_workers=threads) as pool:
        list(pool.map(one, range(threads * 2)))  # every thread has its connection
        started = time.perf_counter()
        list(pool.map(one, range(calls)))
        return calls / (time.perf_counter() - started)


def main() -> None:
    port, n = int(sys.argv[1]), int(sys.argv[2])
    with Device("127.0.0.1", port) as device:
        figures = {
            "py_true_ms": median_ms(lambda: device.run("true"), Result(b"", b"", 0), n),
            "py_echo_ms": median_ms(lambda: device.run("echo hi"), Result(b"hi\n", b"", 0), n),
            "py_three_ms": median_ms(
                lambda: device.run("echo hi; echo e >&2; exit 3"), Result(b"hi\n", b"e\n", 3), n
            ),
            "py_execute_ms": median_ms(
                lambda: device.execute("/bin/echo", ["hi"]), Result(b"hi\n", b"", 0), n
            ),
        }
        figures["py_1_thread_per_s"] = rate(device, 1, 4 * n)
        figures["py_8_threads_per_s"] = rate(device, THREADS, 16 * n)
    for name, value in figures.items():
        print(f"{name}={value:.3f}")


if __name__ == "__main__":
    main()
