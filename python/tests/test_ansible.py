"""The Ansible collection kolta.device: its connection plugin drives three
sandboxed daemons with ansible-playbook -f 3, pipelining on and off, and
every change is then checked on the devices themselves."""

from __future__ import annotations

import os
import shutil
import subprocess
from pathlib import Path

import pytest
from conftest import PYTHON_DIR, REPO_DIR, Sandboxes

from kolta.lease import break_lease, show

ANSIBLE_DIR = REPO_DIR / "ansible"
PLAYBOOK = ANSIBLE_DIR / "tests" / "playbook.yml"


def _inventory(path: Path, ports: list[int], extra: str = "") -> Path:
    lines = ["[devices]"]
    lines += [f"dev{i} ansible_host=127.0.0.1 ansible_port={port} {extra}" for i, port in enumerate(ports)]
    lines += ["[devices:vars]", "ansible_connection=kolta.device.kolta",
              "ansible_python_interpreter=/usr/bin/python3"]
    path.write_text("\n".join(lines) + "\n")
    return path


def _playbook(inventory: Path, tmp_path: Path, pipelining: bool,
              playbook: Path = PLAYBOOK) -> subprocess.CompletedProcess[str]:
    if not shutil.which("ansible-playbook"):
        pytest.skip("ansible-playbook is not installed (apt install ansible-core)")
    env = {k: v for k, v in os.environ.items() if not k.startswith(("KOLTA_", "ANSIBLE_"))}
    env.update(
        ANSIBLE_COLLECTIONS_PATH=str(ANSIBLE_DIR),
        ANSIBLE_PIPELINING=str(pipelining),
        ANSIBLE_REMOTE_TMP="/tmp/.ansible-remote",  # each sandboxed device has its own /tmp
        ANSIBLE_LOCAL_TEMP=str(tmp_path / "local"),
        ANSIBLE_HOST_KEY_CHECKING="False",
        ANSIBLE_NOCOLOR="1",
        ANSIBLE_RETRY_FILES_ENABLED="False",
        PYTHONPATH=str(PYTHON_DIR),
        PYTHONDONTWRITEBYTECODE="1",
    )
    return subprocess.run(
        ["ansible-playbook", "-f", "3", "-i", str(inventory), str(playbook),
         "-e", f"fetched={tmp_path / 'fetched'}"],
        cwd=PLAYBOOK.parent, env=env, capture_output=True, text=True, timeout=600)


@pytest.mark.parametrize("pipelining", [True, False], ids=["pipelining", "no-pipelining"])
def test_playbook_changes_every_device(sandboxes: Sandboxes, tmp_path: Path, pipelining: bool) -> None:
    devices = sandboxes.devices()
    for device in devices:
        device.run("rm -rf /tmp/ansible-test", check=True)
        break_lease(device)
    inventory = _inventory(tmp_path / "hosts", sandboxes.ports, "ansible_kolta_lease=true" if pipelining else "")
    done = _playbook(inventory, tmp_path, pipelining)
    assert done.returncode == 0, done.stdout + done.stderr
    assert "failed=0" in done.stdout and "unreachable=0" in done.stdout
    assert done.stdout.count("ignoring") == 3  # the failing task, once per device
    payload = (PLAYBOOK.parent / "files" / "payload.txt").read_bytes()
    for i, device in enumerate(devices):
        name = f"dev{i}"
        d = "/tmp/ansible-test"
        assert device.get(f"{d}/raw.txt") == b"raw\n"
        assert device.run(f"test -f {d}/command.txt").ok
        assert device.get(f"{d}/shell.txt") == name.upper().encode() + b"\n"
        assert device.get(f"{d}/payload.txt") == payload
        assert device.run(f"stat -c %a {d}/payload.txt").stdout == b"640\n"
        assert device.get(f"{d}/content.txt") == f"content of {name}\n".encode()
        assert device.get(f"{d}/greeting.txt") == f"hello from {name} at port {device.port}\n".encode()
        assert device.run(f"stat -c %a {d}/sub").stdout == b"750\n"
        assert device.run(f"readlink {d}/sub/link").stdout == f"{d}/payload.txt\n".encode()
        assert device.get(f"{d}/script.txt") == b"script ran with 1 argument\n"
        fetched = tmp_path / "fetched" / name / "tmp" / "ansible-test" / "shell.txt"
        assert fetched.read_bytes() == name.upper().encode() + b"\n"
        if pipelining:  # ansible_kolta_lease: the play's lease, left to run out
            assert show(device).owner.startswith("ansible ")
            break_lease(device)


def test_failure_and_unreachable_device(sandboxes: Sandboxes, tmp_path: Path) -> None:
    inventory = tmp_path / "hosts"
    inventory.write_text(
        "[devices]\n"
        f"good ansible_host=127.0.0.1 ansible_port={sandboxes.ports[0]}\n"
        "gone ansible_host=127.0.0.1 ansible_port=1 ansible_kolta_timeout=2\n"
        "[devices:vars]\nansible_connection=kolta.device.kolta\n"
        "ansible_python_interpreter=/usr/bin/python3\n")
    (tmp_path / "fail.yml").write_text(
        "- hosts: devices\n  gather_facts: false\n  tasks:\n"
        "    - ansible.builtin.shell: echo went wrong >&2; exit 7\n")
    done = _playbook(inventory, tmp_path, False, tmp_path / "fail.yml")
    out = done.stdout
    assert done.returncode != 0
    assert "UNREACHABLE" in out and "kolta: 127.0.0.1:1:" in out, out
    assert '"rc": 7' in out and "went wrong" in out, out
