"""Runs the unmodified daemon on a simulated device: a bubblewrap sandbox whose root is the device folder. Works as root
and, where the host allows user namespaces, as an ordinary user, whose files stay their own. Needs Linux."""

from __future__ import annotations

from contextlib import ExitStack, suppress
from dataclasses import dataclass
import fcntl
import os
from pathlib import Path
import re
import shutil
import signal
import subprocess
from typing import Dict, Iterator, List, Optional, Sequence

from . import bubblewrap, device as devices, loop, phone, records
from .bubblewrap import Options
from .errors import DeviceError, printable, size_text
from .logsocket import kept_log
from .signals import HeldSignals

__all__ = ["Options", "Run", "run"]

KILLED = 128 + signal.SIGKILL
INIT_UMASK = 0o077

HOST_SETTINGS = {  # what forbids sandboxes to ordinary users
    "kernel.apparmor_restrict_unprivileged_userns": "1",
    "kernel.unprivileged_userns_clone": "0",
    "user.max_user_namespaces": "0",
}


@dataclass
class Run:
    """How a run ended."""

    status: int  # exit status, or 128 + number of the signal that killed the daemon
    timed_out: bool  # killed at the time limit
    out: bytes  # standard output and error, if captured
    err: bytes
    log: str  # what this run added to the device's log


def run(
    device: Path, arguments: Sequence[str], options: Options, program: str = phone.DAEMON, capture: bool = False
) -> Run:
    """Runs the daemon to its end; every message of its log is in the device's log file on return. Of the caller's
    environment it sees time zone and the options of sanitizers and gcov. SIGINT, SIGTERM and SIGHUP end the run and are
    raised again once everything is put back. Raises DeviceError when nothing could be run."""
    folder = device.absolute()
    require_runnable(folder, options)
    # Signals outermost, so that one is raised when all else is put back.
    with HeldSignals() as signals, ExitStack() as stack:
        descriptor = lock(folder)
        stack.callback(os.close, descriptor)
        loops = attach_loops(folder, stack) if options.loop else {}
        if options.data_size is not None:
            make_new_data(folder, stack)
        command = bubblewrap.command_line(folder, options, loops, program, arguments)
        with kept_log(folder, descriptor) as lines:
            ended = serve(command, options, signals, capture)
        ended.log = b"".join(lines).decode("utf-8", "surrogateescape")
        if options.data_size is not None and not ended.timed_out:
            keep_new_data(folder)
    return ended


def require_runnable(folder: Path, options: Options) -> None:
    if not devices.is_device(folder):
        raise DeviceError(f"{folder} is no simulated device; vortadev create makes one")
    if (options.loop or options.drop_caps) and os.geteuid() != 0:
        raise DeviceError("loop devices and dropped capabilities need root")
    if not shutil.which("bwrap"):
        raise DeviceError("bwrap is missing on this machine; install the package bubblewrap")


def lock(folder: Path) -> int:
    """A descriptor of the folder that keeps other runs out as long as it is open."""
    descriptor = os.open(folder, os.O_RDONLY | os.O_DIRECTORY)
    try:
        fcntl.flock(descriptor, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        os.close(descriptor)
        raise DeviceError(f"{folder} is in use by another run") from None
    return descriptor


def attach_loops(folder: Path, stack: ExitStack) -> Dict[str, str]:
    """Loop devices over the partitions that the device has, by their names; they go with the stack."""
    loops = {}
    for name in records.PARTITIONS:
        file = devices.partition_path(folder, name)
        if file.exists():
            loops[name], descriptor = loop.attach(file)
            stack.callback(os.close, descriptor)
    return loops


def make_new_data(folder: Path, stack: ExitStack) -> None:
    """The folder that the sandbox fills with what a small /data holds at the end; it goes with the stack."""
    new_data = folder / bubblewrap.NEW_DATA
    shutil.rmtree(new_data, ignore_errors=True)  # of a run that was killed
    new_data.mkdir()
    stack.callback(shutil.rmtree, new_data, ignore_errors=True)


def keep_new_data(folder: Path) -> None:
    """Only here, with signals held, does the device change: a run that was ended early leaves it as it was."""
    data, new_data, old_data = folder / "data", folder / bubblewrap.NEW_DATA, folder / "data.old"
    data.rename(old_data)
    new_data.rename(data)
    shutil.rmtree(old_data)


def serve(command: List[str], options: Options, signals: HeldSignals, capture: bool) -> Run:
    """Starts bubblewrap and looks after it to its end."""
    pipe, null = (subprocess.PIPE, subprocess.DEVNULL) if capture else (None, None)
    umask = options.umask if options.umask is not None else INIT_UMASK if options.as_init else 0
    with open(os.memfd_create("status"), "rb", buffering=0) as file:
        status, timed_out = file.fileno(), False
        command[1:1] = ["--json-status-fd", str(status)]
        with subprocess.Popen(command, stdin=null, stdout=pipe, stderr=pipe, umask=umask, pass_fds=[status]) as child:
            signals.stop = lambda: stop(child, status)
            try:
                if signals.came:
                    stop(child, status)
                out, err = child.communicate(timeout=options.timeout)
            except subprocess.TimeoutExpired:
                timed_out = True
                stop(child, status)
                out, err = child.communicate()
            finally:
                stop(child, status)
        if signals.came:
            raise DeviceError("the run was interrupted")
        return result(number_told(status, "exit-code"), timed_out, out or b"", err or b"", options)


def stop(child: subprocess.Popen[bytes], status: int) -> None:
    """With the first process of the sandbox all others in it go; bubblewrap reports that end."""
    if child.poll() is None:
        with suppress(ProcessLookupError):
            os.kill(number_told(status, "child-pid") or child.pid, signal.SIGKILL)


def number_told(status: int, member: str) -> Optional[int]:
    """A number out of what bubblewrap tells about the sandbox: JSON objects."""
    found = re.search(rf'"{member}": *(\d+)'.encode("ascii"), os.pread(status, 4096, 0))
    return int(found[1]) if found else None


def result(status: Optional[int], timed_out: bool, out: bytes, err: bytes, options: Options) -> Run:
    if timed_out:
        return Run(KILLED, True, out, err, "")
    if status is None:
        reasons = [*refusals(), printable(err.decode("utf-8", "replace").strip())]
        raise DeviceError(": ".join(["bubblewrap could not set up the sandbox", *filter(None, reasons)]))
    if options.data_size is not None and status in bubblewrap.DATA_FAILURES:
        raise DeviceError(bubblewrap.DATA_FAILURES[status].format(size=size_text(options.data_size)))
    return Run(status, False, out, err, "")


def refusals() -> Iterator[str]:
    """The settings of this machine that forbid sandboxes."""
    for name, forbids in HOST_SETTINGS.items():
        setting = Path("/proc/sys", *name.split("."))
        if os.geteuid() != 0 and setting.exists() and setting.read_text("ascii").strip() == forbids:
            yield f"this machine forbids sandboxes: {name} is {forbids}"
