"""A loop device over a file, so that the end of a partition behaves as on a phone. Root only."""

from __future__ import annotations

import os
from pathlib import Path
import subprocess
from typing import Tuple

from .errors import DeviceError, printable

LOSETUP = "/sbin/losetup"  # a folder that is not in every PATH


def attach(file: Path) -> Tuple[str, int]:
    """The path of the device and a descriptor. The kernel detaches it when the last descriptor is closed, so that not
    even a killed process leaves one behind."""
    path = losetup("--find", "--show", str(file))
    try:
        return path, os.open(path, os.O_RDWR)
    finally:
        losetup("--detach", path)  # of a device in use the kernel only takes note


def losetup(*arguments: str) -> str:
    # In a session of its own, as a Ctrl-C in the middle would leave a device behind.
    ended = subprocess.run([LOSETUP, *arguments], capture_output=True, text=True, check=False, start_new_session=True)
    if ended.returncode != 0:
        raise DeviceError(f"no loop device can be had: {printable(ended.stderr.strip())}")
    return ended.stdout.strip()
