"""Runs the unmodified daemon on a simulated device: a bubblewrap sandbox whose root is the device folder. Works as root
and, where the host allows user namespaces, as an ordinary user, whose files stay their own. Needs Linux."""
from __future__ import annotations

import fcntl
import functools
import os
import re
import shutil
import signal
import subprocess
from contextlib import ExitStack, suppress
from dataclasses import dataclass, field
from datetime import datetime
from pathlib import Path
from typing import Dict, List, Optional, Sequence, Tuple

from vortadev import device as devices
from vortadev import loop, phone, records
from vortadev.errors import DeviceError, printable, size_text
from vortadev.logsocket import LogSocket
from vortadev.process import Ending, HeldSignals, Source, read_into, supervise

BUILT_DAEMON = Path(__file__).resolve().parent.parent / "build/host/vorta"
PASSED_ON = ("ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "GCOV_PREFIX", "GCOV_PREFIX_STRIP", "TZ")
KILLED = 128 + signal.SIGKILL

# A small /data starts with the device's content and takes its place at the end, by the host's own tools: the device's
# cp does not tell when a disk is full. A run that is ended early leaves the device's content as it was.
WITH_SMALL_DATA = """
rm() { /.host/rm "$@"; }
rm -rf /.device/data.new && /.host/cp -a /.device/data/. /data/ 2>/dev/null || exit 121
"$@"
status=$?
/.host/cp -a /data /.device/data.new && rm -rf /.device/data && /.host/mv /.device/data.new /.device/data || exit 122
exit $status
"""
FAILURES_WITH_SMALL_DATA = {
    121: "the device's /data does not fit into {size}",
    122: "the small /data could not be copied back into the device folder",
}
# What init takes from the services that it starts. An ordinary user's sandbox has it so already.
AS_INIT = ("/.host/setpriv", "--regid", str(phone.GROUP), "--clear-groups", "--inh-caps=-all", "--bounding-set=-all")
INIT_UMASK = 0o077

HOST_SETTINGS = {  # what forbids sandboxes to ordinary users
    "kernel.apparmor_restrict_unprivileged_userns": "1",
    "kernel.unprivileged_userns_clone": "0",
    "user.max_user_namespaces": "0",
}


@dataclass
class Options:
    """How the daemon is run. Paths are the host's."""

    daemon: Optional[Path] = None  # none: the one that the build made
    loop: bool = False  # loop devices under the partition names; root only
    data_size: Optional[int] = None  # /data is a file system of that many bytes
    read_only_data: bool = False
    umask: Optional[int] = None  # none: 0, or what init has
    emulator: Optional[Path] = None  # runs a foreign daemon, as /qemu
    wrapper: List[str] = field(default_factory=list)  # program and arguments in front, e.g. strace -f
    binds: List[Tuple[str, str]] = field(default_factory=list)  # host, sandbox; writable
    environment: Dict[str, str] = field(default_factory=dict)
    drop_caps: List[str] = field(default_factory=list)  # "CAP_DAC_OVERRIDE"; root only
    timeout: Optional[float] = None  # seconds
    as_init: bool = False  # with the identity, capabilities and umask that init gives to its services
    date: Optional[datetime] = None  # where the clock begins, local time of the phone


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
    environment it sees only PASSED_ON. SIGINT, SIGTERM and SIGHUP end the run and are raised again once everything is
    put back. Raises DeviceError when nothing could be run."""
    folder = device.absolute()
    _require_runnable(folder, options)
    command = _command(arguments, options, program)
    # Signals outermost, so that one is raised when all else is put back.
    with HeldSignals() as held, ExitStack() as stack:
        stack.callback(os.close, _locked(folder))
        log = LogSocket(folder)
        stack.callback(log.close)
        loops = _loops(folder, stack) if options.loop else None
        if options.data_size is not None:
            stack.callback(shutil.rmtree, folder / "data.new", ignore_errors=True)
        mounts = [*_system_mounts(folder, options), *_partition_mounts(folder, loops)]
        mounts += ["--bind", str(log.path), "/dev/log", *_data_mounts(folder, options), *_late_mounts(folder, options)]
        sandbox = [*_bubblewrap(), *_environment(options), *mounts, "--", *command]
        ended = _serve(sandbox, options, log, held, capture)
    return ended


def _require_runnable(folder: Path, options: Options) -> None:
    if not devices.is_device(folder):
        raise DeviceError(f"{folder} is no simulated device; vortadev create makes one")
    if (options.loop or options.drop_caps) and os.geteuid() != 0:
        raise DeviceError("loop devices and dropped capabilities need root")
    refusal = _refusal()
    if refusal:
        raise DeviceError(refusal)


@functools.lru_cache(maxsize=None)
def _refusal() -> str:
    """Why sandboxes cannot be made here; empty if they can."""
    trial = [*_bubblewrap(), "--ro-bind", "/", "/", "--dev", "/dev", "--proc", "/proc", "/bin/true"]
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


def _locked(folder: Path) -> int:
    """A descriptor of the folder that no other run holds."""
    descriptor = os.open(folder, os.O_RDONLY | os.O_DIRECTORY)
    try:
        fcntl.flock(descriptor, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        os.close(descriptor)
        raise DeviceError(f"{folder} is in use by another run") from None
    return descriptor


def _loops(folder: Path, stack: ExitStack) -> Dict[str, str]:
    """Loop devices over the partitions that the device has, by their names."""
    loops = {}
    for name in records.PARTITIONS:
        file = devices.on_device(folder, f"{phone.BLOCK_FOLDER}/{name}")
        if file.exists():
            loops[name], descriptor = loop.attach(file)
            stack.callback(os.close, descriptor)
    return loops


def _bubblewrap() -> List[str]:
    # Group 1000 inside, so that an ordinary user can give a file to it, without effect on disk.
    user = [] if os.geteuid() == 0 else ["--unshare-user", "--uid", str(phone.OWNER), "--gid", str(phone.GROUP)]
    return ["bwrap", *user, "--unshare-pid", "--die-with-parent"]


def _environment(options: Options) -> List[str]:
    # With POSIXLY_CORRECT getopt stops at the first operand, as the phone's does.
    environment = {"PATH": "/system/bin:/vendor/bin", "LD_LIBRARY_PATH": "/vendor/lib64", "POSIXLY_CORRECT": "1"}
    environment.update({name: os.environ[name] for name in PASSED_ON if name in os.environ})
    environment.update(options.environment)
    if options.date:
        preloaded = [_faketime(options), environment.get("LD_PRELOAD", "")]
        environment["LD_PRELOAD"] = " ".join(filter(None, preloaded))
        environment["FAKETIME"] = f"@{options.date:%Y-%m-%d %H:%M:%S}"
        environment.update(FAKETIME_DONT_FAKE_MONOTONIC="1", NO_FAKE_STAT="1")
    arguments = ["--clearenv"]
    for name, value in sorted(environment.items()):
        arguments += ["--setenv", name, value]
    return arguments


def _faketime(options: Options) -> str:
    if options.emulator:
        raise DeviceError("--date: expected a daemon of this machine, found --emulator")
    for library in Path("/usr/lib").glob(f"{os.uname().machine}-*/faketime/libfaketime.so.1"):
        return str(library)
    raise DeviceError("--date needs the library libfaketime.so.1; install the package libfaketime")


def _system_mounts(folder: Path, options: Options) -> List[str]:
    daemon = _program(options.daemon) if options.daemon else _built_daemon()
    mounts = ["--ro-bind", "/usr/lib", "/usr/lib", "--symlink", "usr/lib", "/lib"]
    mounts += ["--ro-bind-try", "/usr/lib64", "/usr/lib64", "--symlink", "usr/lib64", "/lib64"]
    mounts += ["--ro-bind-try", "/usr/share/zoneinfo", "/usr/share/zoneinfo"]
    mounts += ["--ro-bind", f"{folder}/system", "/system", "--symlink", "system/bin", "/bin"]
    return mounts + ["--ro-bind", f"{folder}/vendor", "/vendor", "--ro-bind", daemon, phone.DAEMON, "--dev", "/dev"]


def _partition_mounts(folder: Path, loops: Optional[Dict[str, str]]) -> List[str]:
    if loops is None:
        return ["--bind", f"{folder}/dev/block", "/dev/block"]
    mounts = ["--dir", phone.BLOCK_FOLDER]
    for name, path in loops.items():
        mounts += ["--dev-bind", path, f"{phone.BLOCK_FOLDER}/{name}"]
    return mounts


def _data_mounts(folder: Path, options: Options) -> List[str]:
    if options.data_size is not None:
        return ["--bind", str(folder), "/.device", "--size", str(options.data_size), "--tmpfs", "/data"]
    return ["--ro-bind" if options.read_only_data else "--bind", f"{folder}/data", "/data"]


def _late_mounts(folder: Path, options: Options) -> List[str]:
    # The leak checker of a sanitizer build looks at its own threads: links in the device's /proc lead to the real one.
    mounts = ["--proc", "/.proc", "--ro-bind", f"{folder}/proc", "/proc", "--chdir", "/"]
    for host, inside in options.binds:
        mounts += ["--bind", os.path.abspath(host), inside]
    for capability in options.drop_caps:
        mounts += ["--cap-drop", capability]
    if options.data_size is not None or options.as_init:
        mounts += ["--ro-bind", "/usr/bin", "/.host"]
    if options.wrapper:
        mounts += ["--ro-bind", _program(Path(options.wrapper[0])), "/.wrapper"]
    if options.emulator:
        mounts += ["--ro-bind", _program(options.emulator), "/qemu"]
    return mounts


def _command(arguments: Sequence[str], options: Options, program: str) -> List[str]:
    """What is run inside the sandbox."""
    command = [program, *arguments]
    if options.emulator and program == phone.DAEMON:
        command = ["/qemu", *command]
    if options.wrapper:
        command = ["/.wrapper", *options.wrapper[1:], *command]
    if options.as_init and os.geteuid() == 0:
        command = [*AS_INIT, *command]
    if options.data_size is not None:
        command = [phone.SHELL, "-c", WITH_SMALL_DATA, "sh", *command]
    return command


def _built_daemon() -> str:
    if not BUILT_DAEMON.is_file():
        raise DeviceError(f"no daemon {BUILT_DAEMON}; cmake --preset host && cmake --build --preset host makes it")
    return str(BUILT_DAEMON)


def _program(name: Path) -> str:
    found = shutil.which(str(name))
    if found is None:
        raise DeviceError(f"no program {name}; expected the path of an executable file")
    return os.path.abspath(found)


def _serve(arguments: List[str], options: Options, log: LogSocket, held: HeldSignals, capture: bool) -> Run:
    """Starts bubblewrap and serves its descriptors to the end."""
    out, err, status = bytearray(), bytearray(), bytearray()
    reader, writer = os.pipe()
    arguments[1:1] = ["--json-status-fd", str(writer)]
    pipe, null = (subprocess.PIPE, subprocess.DEVNULL) if capture else (None, None)
    umask = options.umask if options.umask is not None else INIT_UMASK if options.as_init else 0
    with open(reader, "rb", buffering=0), subprocess.Popen(
        arguments, stdin=null, stdout=pipe, stderr=pipe, bufsize=0, umask=umask, pass_fds=[writer]
    ) as child:
        os.close(writer)
        sources: Dict[int, Source] = {reader: read_into(status, reader), log.fileno(): log.receive}
        for stream, text in ((child.stdout, out), (child.stderr, err)):
            if stream:
                sources[stream.fileno()] = read_into(text, stream.fileno())
        ending = None
        try:
            ending = supervise(child.pid, sources, held, options.timeout)
        finally:
            if ending is not Ending.ENDED:
                # With the first process of the sandbox all others in it go; bubblewrap reports that end.
                with suppress(ProcessLookupError):
                    os.kill(_told(status, "child-pid") or child.pid, signal.SIGKILL)
        child.wait()
        for source in sources.values():
            while source():
                pass
    return _result(ending, _told(status, "exit-code"), bytes(out), bytes(err), options, log)


def _told(status: bytes, member: str) -> Optional[int]:
    """A number out of what bubblewrap tells about the sandbox: JSON objects."""
    found = re.search(rf'"{member}": *(\d+)'.encode("ascii"), status)
    return int(found[1]) if found else None


def _result(ending: Ending, status: Optional[int], out: bytes, err: bytes, options: Options, log: LogSocket) -> Run:
    if ending is Ending.SIGNALLED:
        raise DeviceError("the run was interrupted")
    if ending is Ending.ENDED and status is None:
        reason = printable(err.decode("utf-8", "replace").strip())
        raise DeviceError("bubblewrap could not set up the sandbox" + (f": {reason}" if reason else ""))
    failure = FAILURES_WITH_SMALL_DATA.get(status or 0)
    if options.data_size is not None and failure:
        raise DeviceError(failure.format(size=size_text(options.data_size)))
    timed_out = ending is Ending.TIMED_OUT
    text = b"".join(log.lines).decode("utf-8", "surrogateescape")
    return Run(KILLED if timed_out or status is None else status, timed_out, out, err, text)
