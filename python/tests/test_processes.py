"""Background processes against the sandboxed daemon."""

from __future__ import annotations

import pytest

from kolta import Device, KoltaError, Refused


def test_process_cycle_start_wait_output_remove(device: Device) -> None:
    process = device.start("/bin/sh", ["-c", "sleep\t0.3;echo\tout;echo\terr>&2;exit\t4"])
    assert process.state().running
    with pytest.raises(Refused) as early:
        process.output()
    assert early.value.reason == "ERROR: process must be stopped before reading its results !"

    ended = process.wait(timeout=30)
    assert (ended.state, ended.exit_code, ended.returncode) == ("FAILED", 4, 4)
    assert (ended.cmd, ended.args) == ("/bin/sh", "-c sleep\t0.3;echo\tout;echo\terr>&2;exit\t4")
    assert process.output("stderr") == b"err\n"
    assert process.output("stdout") == b"out\n"
    process.remove()
    with pytest.raises(Refused) as gone:
        process.state()
    assert gone.value.reason == (
        "ERROR: cannot read process state ! ( your requested process id doesn't exist ! )"
    )


def test_stopped_process_died_by_its_signal(device: Device) -> None:
    process = device.start("/bin/sleep", ["30"])
    with pytest.raises(TimeoutError):
        process.wait(timeout=0.2)
    with pytest.raises(KoltaError):
        process.remove()  # still running
    stopped = process.stop()
    assert (stopped.state, stopped.exit_code, stopped.returncode) == ("DIED", 15, -15)
    assert stopped.msg == "Terminated"
    assert process.stop() == stopped  # already ended: left as it is
    assert process.output("stdout", remove=True) == b""
