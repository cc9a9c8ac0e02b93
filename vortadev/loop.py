"""A loop device over a file, so that the end of a partition behaves as on a phone. Root only."""

from __future__ import annotations

import errno
import fcntl
import os
from pathlib import Path
import struct
from typing import Tuple

from .errors import DeviceError

LOOP_CTL_GET_FREE, LOOP_CONFIGURE = 0x4C82, 0x4C0A
LO_FLAGS_AUTOCLEAR = 4
LOOP_CONFIG = struct.Struct("=I 56x I 240x")  # struct loop_config: the file's descriptor, info.lo_flags
ATTEMPTS = 20


def attach(file: Path) -> Tuple[str, int]:
    """The path of the device and a descriptor. The kernel detaches it when the last descriptor is closed, so that not
    even a killed process leaves one behind."""
    backing = os.open(file, os.O_RDWR)
    try:
        # Between asking for a free device and taking it another process may take the same one.
        for _ in range(ATTEMPTS):
            path = f"/dev/loop{free_number()}"
            device = os.open(path, os.O_RDWR)
            try:
                fcntl.ioctl(device, LOOP_CONFIGURE, LOOP_CONFIG.pack(backing, LO_FLAGS_AUTOCLEAR))
                return path, device
            except OSError as error:
                os.close(device)
                if error.errno != errno.EBUSY:
                    raise
        raise DeviceError(f"no loop device can be had for {file}: others take each free one")
    finally:
        os.close(backing)


def free_number() -> int:
    control = os.open("/dev/loop-control", os.O_RDWR)
    try:
        return fcntl.ioctl(control, LOOP_CTL_GET_FREE)
    finally:
        os.close(control)
