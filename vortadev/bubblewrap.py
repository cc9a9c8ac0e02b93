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
from .logsocket import SOCKET_FILE

BUILT_DAEMON = Path(__file__).resolve().parent.parent / "build/host/vorta"
PASSED_ON = ("ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "GCOV_PREFIX", "GCOV_PREFIX_STRIP", "TZ")

# What the sandbox holds. The leak checker of a sanitizer build looks at its own threads: links in the device's /proc
# lead to the real one.
ROOT = f"""
--ro-bind /usr/lib /usr/lib --symlink usr/lib /lib
--ro-bind-try /usr/lib64 /usr/lib64 --symlink usr/lib64 /lib64
--ro-bind-try /usr/share/zoneinfo /usr/share/zoneinfo
--ro-bind /usr/bin /.host
--ro-bind {{folder}}/system /system --symlink system/bin /bin
--ro-bind {{folder}}/vendor /vendor --ro-bind {{daemon}} {phone.DAEMON}
--dev /dev --bind {{folder}}/dev/block /dev/block --bind {{folder}}/{SOCKET_FILE} /dev/log
--proc /.proc --ro-bind {{folder}}/proc /proc --chdir /
"""
NEW_DATA = "data.new"
DATA = "--bind {folder}/data /data"
READ_ONLY_DATA = "--ro-bind {folder}/data /data"
SMALL_DATA = f"--ro-bind {{folder}}/data /.data --bind {{folder}}/{NEW_DATA} /.data.new --size {{size}} --tmpfs /data"

# A small /data starts with the device's content, and ends in a folder that then takes its place. The host's own cp does
# that: the device's does not tell when a disk is full.
WITH_SMALL_DATA = """
/.host/cp -a /.data/. /data/ 2>/dev/null || exit 121
"$@"
status=$?
/.host/cp -a /data/. /.data.new/ || exit 122
exit $status
"""
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


def command_line(
    folder: Path, options: Options, loops: Dict[str, str], program: str, arguments: Sequence[str]
) -> List[str]:
    """Runs the program on the device. `loops` are the devices that take the place of partition files."""
    # Group 1000 inside, so that an ordinary user can give a file to it, without effect on disk.
    user = [] if os.geteuid() == 0 else ["--unshare-user", "--uid", str(phone.OWNER), "--gid", str(phone.GROUP)]
    data = SMALL_DATA if options.data_size is not None else READ_ONLY_DATA if options.read_only_data else DATA
    values = {"folder": folder, "daemon": daemon_of(options), "size": options.data_size}
    tools, started = command(program, arguments, options)
    counters = os.environ.get("GCOV_PREFIX")  # of a daemon that counts which of its lines ran
    more = [
        *(("--setenv", name, value) for name, value in sorted(environment_of(options).items())),
        [word.format(**values) for word in f"{ROOT} {data}".split()],
        *(("--dev-bind", path, f"{phone.BLOCK_FOLDER}/{name}") for name, path in loops.items()),
        *(("--bind", os.path.abspath(host), inside) for host, inside in options.binds),
        *([("--bind", counters, counters)] if counters else []),
        *(("--cap-drop", capability) for capability in options.drop_caps),
        *(("--ro-bind", host, inside) for inside, host in tools.items()),
    ]
    line = ["bwrap", *user, "--unshare-pid", "--die-with-parent", "--clearenv"]
    return [*line, *(word for words in more for word in words), "--", *started]


def environment_of(options: Options) -> Dict[str, str]:
    # With POSIXLY_CORRECT getopt stops at the first operand, as the phone's does.
    environment = {"PATH": "/system/bin:/vendor/bin", "LD_LIBRARY_PATH": "/vendor/lib64", "POSIXLY_CORRECT": "1"}
    environment.update({name: os.environ[name] for name in PASSED_ON if name in os.environ})
    environment.update(options.environment)
    if options.date:
        preloaded = [time_library(options), environment.get("LD_PRELOAD", "")]
        environment["LD_PRELOAD"] = " ".join(filter(None, preloaded))
        environment["FAKETIME"] = f"@{options.date:%Y-%m-%d %H:%M:%S}"
        environment.update(FAKETIME_DONT_FAKE_MONOTONIC="1", NO_FAKE_STAT="1")
    return environment


def time_library(options: Options) -> str:
    if options.emulator:
        raise DeviceError("--date: expected a daemon of this machine, found --emulator")
    for library in Path("/usr/lib").glob(f"{os.uname().machine}-*/faketime/libfaketime.so.1"):
        return str(library)
    raise DeviceError("--date needs the library libfaketime.so.1; install the package libfaketime")


def command(program: str, arguments: Sequence[str], options: Options) -> Tuple[Dict[str, str], List[str]]:
    """Places in the sandbox with the programs of the host that belong there, and what is started."""
    tools: Dict[str, str] = {}
    started = [program, *arguments]
    if options.emulator:
        tools["/qemu"] = executable(str(options.emulator))
        started = ["/qemu"] * (program == phone.DAEMON) + started
    if options.wrapper:
        tools["/.wrapper"] = executable(options.wrapper[0])
        started = ["/.wrapper", *options.wrapper[1:], *started]
    if options.as_init and os.geteuid() == 0:
        started = [*AS_INIT, *started]
    if options.data_size is not None:
        started = [phone.SHELL, "-c", WITH_SMALL_DATA, "sh", *started]
    return tools, started


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
