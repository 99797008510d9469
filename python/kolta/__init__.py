"""Client for the KOLTA remote process manager daemon (koltad).

    from kolta import Device
    device = Device("192.0.2.10")
    result = device.run("uname -a")
"""

from kolta.device import Device
from kolta.errors import (
    CommandFailed,
    CommandTimeout,
    ConnectionFailed,
    KoltaError,
    Refused,
    TransferFailed,
)
from kolta.device_pool import DevicePool
from kolta.group import DeviceGroup
from kolta.lease import DeviceBusy, Lease, LeaseLost
from kolta.process import Process
from kolta.results import ProcessState, Result

__all__ = [
    "CommandFailed",
    "CommandTimeout",
    "ConnectionFailed",
    "Device",
    "DeviceBusy",
    "DeviceGroup",
    "DevicePool",
    "KoltaError",
    "Lease",
    "LeaseLost",
    "Process",
    "ProcessState",
    "Refused",
    "Result",
    "TransferFailed",
]
__version__ = "0.1.0"
