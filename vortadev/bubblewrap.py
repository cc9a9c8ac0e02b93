"""The command line of the sandbox: what bubblewrap is told so that the device folder is the daemon's root."""

from __future__ import annotations

from dataclasses import dataclass, field
from datetime import datetime
import os
from pathlib import Path
import shutil
from typing import Dict, List, Optional, Sequence, Tuple

from . import phone
from .errors import DeviceError

BUILT_DAEMON = Path(__file__).resolve().parent.parent / "build/host/vorta"
PASSED_ON = ("ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "GCOV_PREFIX", "GCOV_PREFIX_STRIP", "TZ")

# A small /data starts with the device's content, and ends in a folder that then takes its place. The host's own cp does
# that: the device's does not tell when a disk is full.
WITH_SMALL_DATA = """
/.host/cp -a /.data/. /data/ 2>/dev/null || exit 121
"$@"
status=$?
/.host/cp -a /data/. /.data.new/ || exit 122
exit $status
"""
NEW_DATA = "data.new"
DATA_FAILURES = {
    121: "the device's /data does not fit into {size}",
    122: "the small /data could not be copied into the device folder",
}
# What init takes from the services that it starts. An ordinary user's sandbox has it so already.
AS_INIT = ("/.host/setpriv", "--regid", str(phone.GROUP), "--clear-groups", "--inh-caps=-all", "--bounding-set=-all")


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


def namespaces() -> List[str]:
    """The beginning of each command line: what it takes for this user."""
    # Group 1000 inside, so that an ordinary user can give a file to it, without effect on disk.
    user = [] if os.geteuid() == 0 else ["--unshare-user", "--uid", str(phone.OWNER), "--gid", str(phone.GROUP)]
    return ["bwrap", *user, "--unshare-pid", "--die-with-parent"]


def command_line(folder: Path, options: Options, log: Path, loops: Optional[Dict[str, str]]) -> List[str]:
    """The sandbox for the device, without the program that is started in it. `log` is the socket that is /dev/log
    inside, `loops` are the devices under the partition names, if that is wanted."""
    arguments = [*namespaces(), *environment_of(options), *system_mounts(folder, options)]
    arguments += [*partition_mounts(folder, loops), "--bind", str(log), "/dev/log", *data_mounts(folder, options)]
    # The leak checker of a sanitizer build looks at its own threads: links in the device's /proc lead to the real one.
    arguments += ["--proc", "/.proc", "--ro-bind", f"{folder}/proc", "/proc", "--chdir", "/"]
    counters = os.environ.get("GCOV_PREFIX")  # of a daemon that counts which of its lines ran
    for host, inside in [*options.binds, *([(counters, counters)] if counters else [])]:
        arguments += ["--bind", os.path.abspath(host), inside]
    for capability in options.drop_caps:
        arguments += ["--cap-drop", capability]
    return [*arguments, *tool_mounts(options), "--"]


def environment_of(options: Options) -> List[str]:
    # With POSIXLY_CORRECT getopt stops at the first operand, as the phone's does.
    environment = {"PATH": "/system/bin:/vendor/bin", "LD_LIBRARY_PATH": "/vendor/lib64", "POSIXLY_CORRECT": "1"}
    environment.update({name: os.environ[name] for name in PASSED_ON if name in os.environ})
    environment.update(options.environment)
    if options.date:
        preloaded = [time_library(options), environment.get("LD_PRELOAD", "")]
        environment["LD_PRELOAD"] = " ".join(filter(None, preloaded))
        environment["FAKETIME"] = f"@{options.date:%Y-%m-%d %H:%M:%S}"
        environment.update(FAKETIME_DONT_FAKE_MONOTONIC="1", NO_FAKE_STAT="1")
    arguments = ["--clearenv"]
    for name, value in sorted(environment.items()):
        arguments += ["--setenv", name, value]
    return arguments


def time_library(options: Options) -> str:
    if options.emulator:
        raise DeviceError("--date: expected a daemon of this machine, found --emulator")
    for library in Path("/usr/lib").glob(f"{os.uname().machine}-*/faketime/libfaketime.so.1"):
        return str(library)
    raise DeviceError("--date needs the library libfaketime.so.1; install the package libfaketime")


def system_mounts(folder: Path, options: Options) -> List[str]:
    mounts = ["--ro-bind", "/usr/lib", "/usr/lib", "--symlink", "usr/lib", "/lib"]
    mounts += ["--ro-bind-try", "/usr/lib64", "/usr/lib64", "--symlink", "usr/lib64", "/lib64"]
    mounts += ["--ro-bind-try", "/usr/share/zoneinfo", "/usr/share/zoneinfo"]
    mounts += ["--ro-bind", f"{folder}/system", "/system", "--symlink", "system/bin", "/bin"]
    mounts += ["--ro-bind", f"{folder}/vendor", "/vendor", "--ro-bind", daemon_of(options), phone.DAEMON]
    return [*mounts, "--dev", "/dev"]


def partition_mounts(folder: Path, loops: Optional[Dict[str, str]]) -> List[str]:
    if loops is None:
        return ["--bind", f"{folder}/dev/block", "/dev/block"]
    mounts = ["--dir", phone.BLOCK_FOLDER]
    for name, path in loops.items():
        mounts += ["--dev-bind", path, f"{phone.BLOCK_FOLDER}/{name}"]
    return mounts


def data_mounts(folder: Path, options: Options) -> List[str]:
    data = f"{folder}/data"
    if options.data_size is not None:
        small = ["--size", str(options.data_size), "--tmpfs", "/data"]
        return ["--ro-bind", data, "/.data", "--bind", f"{folder}/{NEW_DATA}", "/.data.new", *small]
    return ["--ro-bind" if options.read_only_data else "--bind", data, "/data"]


def tool_mounts(options: Options) -> List[str]:
    """The programs of the host that `command` names."""
    mounts = []
    if options.data_size is not None or options.as_init:
        mounts += ["--ro-bind", "/usr/bin", "/.host"]
    if options.wrapper:
        mounts += ["--ro-bind", executable(options.wrapper[0]), "/.wrapper"]
    if options.emulator:
        mounts += ["--ro-bind", executable(str(options.emulator)), "/qemu"]
    return mounts


def command(program: str, arguments: Sequence[str], options: Options) -> List[str]:
    """What is started in the sandbox."""
    started = [program, *arguments]
    if options.emulator and program == phone.DAEMON:
        started = ["/qemu", *started]
    if options.wrapper:
        started = ["/.wrapper", *options.wrapper[1:], *started]
    if options.as_init and os.geteuid() == 0:
        started = [*AS_INIT, *started]
    if options.data_size is not None:
        started = [phone.SHELL, "-c", WITH_SMALL_DATA, "sh", *started]
    return started


def daemon_of(options: Options) -> str:
    if options.daemon:
        return executable(str(options.daemon))
    if not BUILT_DAEMON.is_file():
        raise DeviceError(f"no daemon {BUILT_DAEMON}; cmake --preset host && cmake --build --preset host makes it")
    return str(BUILT_DAEMON)


def executable(name: str) -> str:
    found = shutil.which(name)
    if found is None:
        raise DeviceError(f"no program {name}; expected the path of an executable file")
    return os.path.abspath(found)
