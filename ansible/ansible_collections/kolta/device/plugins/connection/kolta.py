# Connection plugin kolta.device.kolta: Ansible tasks on devices that run
# koltad instead of an ssh server, through the kolta Python client.

from __future__ import annotations

DOCUMENTATION = r"""
name: kolta
short_description: Run tasks on devices through koltad
description:
  - Runs commands and moves files over koltad's TCP protocol, with the kolta
    Python client; the device needs no ssh server.
  - The daemon has no authentication and no encryption; use it only on
    isolated test networks.
author: KOLTA developers (kolta-dev@kolta.example)
extends_documentation_fragment:
  - connection_pipelining
options:
  remote_addr:
    description: The device's name or address.
    default: inventory_hostname
    type: str
    vars:
      - name: inventory_hostname
      - name: ansible_host
  port:
    description: The daemon's port.
    default: 10000
    type: int
    vars:
      - name: ansible_port
  kolta_timeout:
    description: Seconds for connecting and for each reply of the daemon.
    default: 30
    type: float
    vars:
      - name: ansible_kolta_timeout
  kolta_lease:
    description:
      - Hold a lease on each device for the length of the play, so that test
        runs and other plays that lease it wait their turn. Every task renews
        it; it ends 60 seconds after the last one.
    default: false
    type: bool
    vars:
      - name: ansible_kolta_lease
  kolta_lease_wait:
    description: Seconds to wait for a device that another holder has leased.
    default: 600
    type: float
    vars:
      - name: ansible_kolta_lease_wait
"""

import os
import sys
import tempfile
from contextlib import contextmanager

from ansible.errors import AnsibleConnectionFailure, AnsibleError, AnsibleFileNotFound
from ansible.module_utils.common.text.converters import to_bytes, to_text
from ansible.plugins.connection import ConnectionBase
from ansible.utils.display import Display

try:
    import kolta
except ImportError:  # used from a checkout: the client beside the collection
    _CHECKOUT = os.path.join(os.path.dirname(__file__), *[".."] * 6, "python")
    if os.path.isfile(os.path.join(_CHECKOUT, "kolta", "__init__.py")):
        sys.path.insert(0, os.path.abspath(_CHECKOUT))
    import kolta

from kolta.lease import default_owner, resume, take

display = Display()

LEASE_TTL = 60.0


class Connection(ConnectionBase):
    """A device running koltad."""

    transport = "kolta.device.kolta"
    has_pipelining = True
    # koltad runs as root; become works through sudo where the device has it
    become_methods = frozenset(("sudo", "su", "doas"))

    def __init__(self, *args, **kwargs):
        super().__init__(*args, **kwargs)
        self._device = None
        self._lease = None

    def _where(self):
        return f"{self._device.host}:{self._device.port}" if self._device else "?"

    def _connect(self):
        if self._connected:
            return self
        host = self.get_option("remote_addr")
        port = int(self.get_option("port") or 10000)
        timeout = float(self.get_option("kolta_timeout"))
        self._device = kolta.Device(host, port, timeout)
        display.vvv(f"KOLTA CONNECTION TO {host}:{port}", host=host)
        try:
            self._device.version()  # is it there at all
            if self.get_option("kolta_lease"):
                self._take_lease()
        except kolta.KoltaError as e:
            raise AnsibleConnectionFailure(f"kolta: {e}") from e
        self._connected = True
        return self

    def _lease_file(self):
        """Where the tasks of one ansible run keep the token of a device's
        lease: each task runs in a worker process of the same parent."""
        name = f"kolta-ansible-{os.getppid()}-{self._device.host}-{self._device.port}"
        return os.path.join(tempfile.gettempdir(), name.replace("/", "_"))

    def _take_lease(self):
        owner = f"ansible {default_owner().replace(f'pid {os.getpid()}', f'pid {os.getppid()}')}"
        path = self._lease_file()
        try:
            with open(path) as f:
                token = f.read().strip()
        except OSError:
            token = ""
        if token:
            self._lease = resume(self._device, token, owner, LEASE_TTL)
        if self._lease is None:
            wait = float(self.get_option("kolta_lease_wait"))
            self._lease = take(self._device, owner, LEASE_TTL, wait)
            with open(path, "w") as f:
                f.write(self._lease.token)
        display.vvv(f"KOLTA LEASE {self._lease.token} as {owner!r}", host=self._device.host)

    @contextmanager
    def _failures(self, what):
        """A lost or refused connection is UNREACHABLE; another error of the
        client fails the task, saying `what` was being done."""
        try:
            yield
        except kolta.ConnectionFailed as e:
            raise AnsibleConnectionFailure(f"kolta: {e}") from e
        except kolta.KoltaError as e:
            raise AnsibleError(f"kolta: {self._where()}: {what}{e}") from e

    def exec_command(self, cmd, in_data=None, sudoable=True):
        super().exec_command(cmd, in_data=in_data, sudoable=sudoable)
        display.vvv(f"KOLTA EXEC {cmd}", host=self._device.host)
        with self._failures(""):
            result = self._device.run(to_bytes(cmd, errors="surrogate_or_strict"), input=in_data)
        rc = result.returncode
        if rc is not None and rc < 0:
            rc = 128 - rc  # ended by a signal, as a shell reports it
        return rc, result.stdout, result.stderr

    def put_file(self, in_path, out_path):
        super().put_file(in_path, out_path)
        display.vvv(f"KOLTA PUT {in_path} TO {out_path}", host=self._device.host)
        if not os.path.exists(to_bytes(in_path, errors="surrogate_or_strict")):
            raise AnsibleFileNotFound(f"file or module does not exist: {to_text(in_path)}")
        with self._failures(f"cannot put {out_path}: "):
            self._device.put(in_path, out_path)

    def fetch_file(self, in_path, out_path):
        super().fetch_file(in_path, out_path)
        display.vvv(f"KOLTA FETCH {in_path} TO {out_path}", host=self._device.host)
        with self._failures(f"cannot fetch {in_path}: "):
            self._device.get(in_path, out_path)

    def reset(self):
        self.close()

    def close(self):
        if self._lease is not None:
            self._lease.detach()  # the next task renews it
            self._lease = None
        if self._device is not None:
            self._device.close()
        self._connected = False
