"""The receiving end of the phone's log: a system log socket in the device folder, which the sandbox has as /dev/log."""

from __future__ import annotations

import os
from pathlib import Path
import socket
import syslog
from typing import List

from .device import LOGCAT_FILE

MAX_DATAGRAM = 8192
STAMP_SIZE = len("Mmm dd hh:mm:ss ")


class LogSocket:
    """Listens at `path`. What arrives is kept in `lines` and appended to the device's log file."""

    def __init__(self, device: Path) -> None:
        self.path = device / ".log"
        self.lines: List[bytes] = []
        self.path.unlink(missing_ok=True)  # of a run that was killed
        # pylint: disable-next=consider-using-with  # open until `close`
        self._logcat = open(device / LOGCAT_FILE, "ab", buffering=0)
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
        # A socket's address holds 107 characters; the folder's own descriptor makes any path short.
        folder = os.open(device, os.O_RDONLY | os.O_DIRECTORY)
        try:
            self._socket.bind(f"/proc/self/fd/{folder}/{self.path.name}")
        except OSError:
            self.close()
            raise
        finally:
            os.close(folder)

    def close(self) -> None:
        self.path.unlink(missing_ok=True)
        self._socket.close()
        self._logcat.close()

    def fileno(self) -> int:
        return self._socket.fileno()

    def receive(self) -> bool:
        """Takes one message; False if none is there. A sender waits while the queue is full, so none is lost."""
        try:
            datagram = self._socket.recv(MAX_DATAGRAM)
        except BlockingIOError:
            return False
        line = log_line(datagram) + b"\n"
        self.lines.append(line)
        self._logcat.write(line)
        return True


def log_line(datagram: bytes) -> bytes:
    """`<14>Mmm dd hh:mm:ss vorta: text` as `I vorta: text`: the letter of the severity, I, W or E, then tag and text on
    one line. A closing line feed goes, others become \\n."""
    priority, closed, rest = datagram.partition(b">")
    if not priority.startswith(b"<") or not priority[1:].isdigit() or not closed or len(rest) < STAMP_SIZE:
        return b"? " + repr(datagram)[2:-1].encode("ascii")
    severity = int(priority[1:]) & 7
    letter = b"E " if severity <= syslog.LOG_ERR else b"W " if severity == syslog.LOG_WARNING else b"I "
    return letter + rest[STAMP_SIZE:].rstrip(b"\n").replace(b"\n", b"\\n")
