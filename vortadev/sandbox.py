"""Runs the unmodified daemon on a simulated device: a bubblewrap sandbox whose root is the device folder. Works as root
and, where the host allows user namespaces, as an ordinary user, whose files stay their own. Needs Linux."""

from __future__ import annotations

from contextlib import ExitStack, suppress
from dataclasses import dataclass
import fcntl
import functools
import os
from pathlib import Path
import re
import shutil
import signal
import subprocess
from typing import Dict, List, Optional, Sequence, Union

from . import bubblewrap, device as devices, loop, phone, records
from .bubblewrap import Options
from .errors import DeviceError, printable, size_text
from .logsocket import LogSocket
from .process import Ending, Source, held_signals, read_into, supervise

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
    with held_signals() as signals, ExitStack() as stack:
        stack.callback(os.close, lock(folder))
        log = LogSocket(folder)
        stack.callback(log.close)
        loops = attach_loops(folder, stack) if options.loop else None
        if options.data_size is not None:
            make_new_data(folder, stack)
        sandbox = bubblewrap.command_line(folder, options, log.path, loops)
        ended = serve([*sandbox, *bubblewrap.command(program, arguments, options)], options, log, signals, capture)
        if options.data_size is not None and not ended.timed_out:
            keep_new_data(folder)
    return ended


def require_runnable(folder: Path, options: Options) -> None:
    if not devices.is_device(folder):
        raise DeviceError(f"{folder} is no simulated device; vortadev create makes one")
    if (options.loop or options.drop_caps) and os.geteuid() != 0:
        raise DeviceError("loop devices and dropped capabilities need root")
    refusal = why_no_sandbox()
    if refusal:
        raise DeviceError(refusal)


@functools.lru_cache(maxsize=None)
def why_no_sandbox() -> str:
    """What forbids sandboxes here; empty if they can be made."""
    trial = [*bubblewrap.namespaces(), "--ro-bind", "/", "/", "--dev", "/dev", "--proc", "/proc", "/bin/true"]
    try:
        ended = subprocess.run(trial, stdin=subprocess.DEVNULL, capture_output=True, check=False)
    except FileNotFoundError:
        return "bwrap is missing on this machine; install the package bubblewrap"
    if ended.returncode == 0:
        return ""
    reason = printable(ended.stderr.decode("utf-8", "replace").strip())
    for name, forbids in HOST_SETTINGS.items():
        setting = Path("/proc/sys", *name.split("."))
        if os.geteuid() != 0 and setting.exists() and setting.read_text("ascii").strip() == forbids:
            reason = f"{name} is {forbids}; {reason}"
    return f"this machine forbids sandboxes: {reason}"


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


def serve(arguments: List[str], options: Options, log: LogSocket, signals: int, capture: bool) -> Run:
    """Starts bubblewrap and serves its descriptors to the end."""
    reader, writer = os.pipe()
    arguments[1:1] = ["--json-status-fd", str(writer)]
    pipe, null = (subprocess.PIPE, subprocess.DEVNULL) if capture else (None, None)
    umask = options.umask if options.umask is not None else INIT_UMASK if options.as_init else 0
    with open(reader, "rb", buffering=0) as status:
        with subprocess.Popen(
            arguments, stdin=null, stdout=pipe, stderr=pipe, bufsize=0, umask=umask, pass_fds=[writer]
        ) as child:
            os.close(writer)
            streams = [stream.fileno() if stream else -1 for stream in (status, child.stdout, child.stderr)]
            texts = [bytearray() for _ in streams]
            sources = {stream: read_into(text, stream) for stream, text in zip(streams, texts) if stream >= 0}
            ending = attend(child, texts[0], {**sources, log.fileno(): log.receive}, signals, options.timeout)
    return result(ending, [bytes(text) for text in texts], options, log)


def attend(
    child: subprocess.Popen[bytes], told: bytearray, sources: Dict[int, Source], signals: int, timeout: Optional[float]
) -> Ending:
    """Serves the child until it ends by itself, or ends it."""
    ending = None
    try:
        ending = supervise(child.pid, sources, signals, timeout)
    finally:
        if ending is not Ending.ENDED:
            # With the first process of the sandbox all others in it go; bubblewrap reports that end.
            with suppress(ProcessLookupError):
                os.kill(number_told(told, "child-pid") or child.pid, signal.SIGKILL)
    child.wait()
    for source in sources.values():
        while source():
            pass
    return ending


def number_told(told: Union[bytes, bytearray], member: str) -> Optional[int]:
    """A number out of what bubblewrap tells about the sandbox: JSON objects."""
    found = re.search(rf'"{member}": *(\d+)'.encode("ascii"), told)
    return int(found[1]) if found else None


def result(ending: Ending, texts: List[bytes], options: Options, log: LogSocket) -> Run:
    told, out, err = texts
    status = number_told(told, "exit-code")
    if ending is Ending.SIGNALLED:
        raise DeviceError("the run was interrupted")
    if ending is Ending.ENDED and status is None:
        reason = printable(err.decode("utf-8", "replace").strip())
        raise DeviceError("bubblewrap could not set up the sandbox" + (f": {reason}" if reason else ""))
    failure = bubblewrap.DATA_FAILURES.get(status or 0)
    if options.data_size is not None and failure:
        raise DeviceError(failure.format(size=size_text(options.data_size)))
    timed_out = ending is Ending.TIMED_OUT
    lines = b"".join(log.lines).decode("utf-8", "surrogateescape")
    return Run(KILLED if timed_out or status is None else status, timed_out, out, err, lines)
