"""Errors, information, settings and the power commands against the
sandboxed daemon (whose power programs are stubs)."""

from __future__ import annotations

import pytest

from kolta import ConnectionFailed, Device, Refused
from kolta.online import BOOT_ID_FILE
from kolta.wire import encode_request

from conftest import Sandboxes


def test_refused_connection_names_host_and_port(sandboxes: Sandboxes) -> None:
    closed = Device("127.0.0.1", 1, timeout=5)
    with pytest.raises(ConnectionFailed) as failed:
        closed.version()
    assert (failed.value.host, failed.value.port) == ("127.0.0.1", 1)
    assert "127.0.0.1:1" in str(failed.value)
    assert closed.test() is False


def test_fail_reasons_come_through_exactly(device: Device) -> None:
    with pytest.raises(Refused) as bad_mode:
        device.reboot("Warm")
    assert bad_mode.value.reason == "unknown 'mode' = 'Warm'"
    with pytest.raises(Refused) as bad_setting:
        device.setup(exec_type="fast")
    assert bad_setting.value.reason == "unknown 'exec_type' = 'fast'"
    with pytest.raises(Refused) as bad_remove:
        device.remove("/no/such/file")
    assert bad_remove.value.reason == "File not found."


def test_information_and_settings(device: Device) -> None:
    assert device.test() is True
    version = device.version()
    assert (version["DEVICE"], version["VERSION_SW"], len(version)) == ("KOLTA", "05.00", 7)
    defaults = {
        "LoadMethode": "none",
        "lod_server_ip": "127.0.0.0",
        "lod_server_port": "10000",
        "exec_type": "rmd",
    }
    assert device.setup() == defaults
    assert device.setup(exec_type="rod", lod_server_port=4000)["lod_server_port"] == "4000"
    assert device.setup() == defaults  # a setting lasts for its connection only
    device.reset()
    with pytest.raises(TypeError):
        device.setup(exec_mode="rod")


def test_requests_the_daemon_cannot_take_are_refused_before_sending() -> None:
    with pytest.raises(ValueError):
        encode_request("getFile", {"file": "x" * 128})
    with pytest.raises(ValueError):
        encode_request("getFile", {"file": "/tmp/caf\u00e9"})
    with pytest.raises(ValueError):
        encode_request("getFile", {f"a{i}": "1" for i in range(20)})


def test_reboot_shutdown_and_online_wait(device: Device) -> None:
    device.wait_until_online(timeout=10)
    device.shutdown()  # the sandbox's shutdown program is a stub
    device.reboot("warm")  # and so is init: the device never goes down
    with pytest.raises(TimeoutError, match=r"did not reboot: .* same boot id for 1 s \(it never went down\)"):
        device.reboot("warm", wait=True, timeout=1)
    assert device.test()


def test_reboot_waits_until_booted_anew(rebooting_device: Device) -> None:
    assert rebooting_device.get(BOOT_ID_FILE) == b"sandbox-boot-1\n"
    rebooting_device.reboot("cold", wait=True, timeout=30)
    assert rebooting_device.get(BOOT_ID_FILE) == b"sandbox-boot-2\n"
    # The daemon takes two seconds to end, and longer to come back.
    with pytest.raises(TimeoutError, match=r"went down .* did not answer again within 1.5 s"):
        rebooting_device.reboot("warm", wait=True, timeout=1.5)
    rebooting_device.wait_until_online(timeout=30)
    assert rebooting_device.get(BOOT_ID_FILE) == b"sandbox-boot-3\n"


def test_exit_ends_the_daemon(own_daemon: Device) -> None:
    assert own_daemon.test()
    own_daemon.exit()
    with pytest.raises(TimeoutError, match=r"did not answer within 1 s \(last try: "):
        own_daemon.wait_until_online(timeout=1)
