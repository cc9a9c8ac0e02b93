"""The receiving end of the phone's log: a system log socket in the device folder, which the sandbox has as /dev/log."""

from __future__ import annotations

from contextlib import contextmanager
import os
from pathlib import Path
import re
import socket
import syslog
from threading import Thread
from typing import BinaryIO, Iterator, List

from .device import LOGCAT_FILE

SOCKET_FILE = ".log"
MAX_DATAGRAM = 8192
MESSAGE = re.compile(rb"<(\d{1,3})>.{16}(.*)", re.DOTALL)  # priority, time stamp, tag and text


@contextmanager
def kept_log(device: Path, folder: int) -> Iterator[List[bytes]]:
    """Appends what arrives to the device's log file and to the list of lines, which is complete at the end. `folder` is
    a descriptor of the device: a socket's address holds 107 characters, and so any path is short."""
    lines: List[bytes] = []
    errors: List[OSError] = []
    end, address = os.urandom(16), f"/proc/self/fd/{folder}/{SOCKET_FILE}"
    log, own = (socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) for _ in range(2))
    path = device / SOCKET_FILE
    path.unlink(missing_ok=True)  # of a run that was killed
    with log, own, open(device / LOGCAT_FILE, "ab", buffering=0) as file:
        log.bind(address)
        own.connect(address)  # reaches it even when the folder is gone
        thread = Thread(target=receive, args=(log, end, lines, file, errors))
        thread.start()
        try:
            yield lines
        finally:
            own.send(end)  # behind all messages
            thread.join()
            path.unlink(missing_ok=True)
    if errors:
        raise errors[0]


def receive(log: socket.socket, end: bytes, lines: List[bytes], file: BinaryIO, errors: List[OSError]) -> None:
    """Until the end comes, whether or not the lines can be written. A sender waits while the queue is full, so none is
    lost."""
    while True:
        datagram = log.recv(MAX_DATAGRAM)
        if datagram == end:
            return
        lines.append(log_line(datagram) + b"\n")
        try:
            file.write(lines[-1])
        except OSError as error:
            errors.append(error)


def log_line(datagram: bytes) -> bytes:
    """`<14>Mmm dd hh:mm:ss vorta: text` as `I vorta: text`: the letter of the severity, I, W or E, then tag and text on
    one line. A closing line feed goes, others become \\n."""
    found = MESSAGE.fullmatch(datagram)
    if not found:
        return b"? " + repr(datagram)[2:-1].encode("ascii")
    severity = int(found[1]) & 7
    letter = b"E " if severity <= syslog.LOG_ERR else b"W " if severity == syslog.LOG_WARNING else b"I "
    return letter + found[2].rstrip(b"\n").replace(b"\n", b"\\n")
