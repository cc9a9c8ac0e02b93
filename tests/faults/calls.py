"""The system calls of a boot: listed by a traced run, thinned where a loop repeats one, and the table of the errors that
each can give on a phone."""

from __future__ import annotations

from collections import Counter
from dataclasses import dataclass
import re
from typing import Dict, List, Sequence, Tuple

from vortadev import phone
from vortadev.device import FACTORY_EVENTS

from boots import steps_of

CALL = re.compile(r"(\w+)\(")
# main begins with its look at standard output, before "StartVorta"; what stands above is the loader's.
FIRST_OF_MAIN = re.compile(r"^(newfstatat|fstat)\(1<")
# What a phone does by other means: the log's socket, a property file, time zones, the factory library; and the counters
# of a coverage build.
HOST_ONLY = re.compile(
    rf"^(sendto|socket|connect)\(|{phone.BUILD_PROP}|<(UNIX|socket):|/etc/localtime|{FACTORY_EVENTS}|\.gcda"
)
# Errors of a call, first match wins. None: the call cannot fail in a way that the daemon sees.
ERRORS = {
    r"read\(.*by-name/": "EIO EINTR ETIMEDOUT",
    r"read\(": "EIO EINTR",
    r"write\(.*by-name/": "EIO EINTR ENOSPC ETIMEDOUT",
    r"write\([12]<": "EIO",
    r"write\(": "EIO ENOSPC EINTR",
    r"fsync\(": "EIO ENOSPC ETIMEDOUT",
    r"openat\(.*O_(CREAT|RDWR)": "EIO ENOSPC EACCES ENOMEM EMFILE EROFS",
    r"openat\(": "EIO EACCES ENOMEM EMFILE",
    r"mkdir\(": "EIO ENOSPC EACCES ENOMEM EROFS",
    r"(unlink|rmdir|f?chmod|f?chown)\(": "EIO EACCES EROFS",
    r"(newfstatat|fstat|stat|access|statfs)\(": "EIO EACCES ENOMEM",
    r"getdents64\(": "EIO ENOMEM",
    r"close\(\d+<pipe:": "",
    r"(lseek|close)\(": "EIO",
    r"pipe2?\(": "EMFILE ENOMEM",
    r"(clone3?|v?fork)\(": "EAGAIN ENOMEM",
    r"wait4\(": "EINTR",
    r"(brk|mmap|mprotect)\(": "ENOMEM",
    r"(exit_group|rt_sig\w+|munmap|prlimit64|fcntl|getrandom|getpid|futex|sched_\w+|madvise)\(": "",
}
MEMORY = ("brk", "mmap", "mprotect")


@dataclass(frozen=True)
class Call:
    """A call of a traced boot. `nth` counts the calls of its name from the start of the process, as strace's when= does;
    `index` is its place among all of them."""

    index: int
    name: str
    nth: int
    text: str
    step: str


def parse(trace: Sequence[str]) -> List[Call]:
    """All calls of the process, the loader's included."""
    found = [call for call in map(CALL.match, trace) if call]
    counted: Counter[str] = Counter()
    calls = []
    for index, (call, step) in enumerate(zip(found, steps_of([call.string for call in found]))):
        counted[call[1]] += 1
        calls.append(Call(index, call[1], counted[call[1]], call.string, step))
    return calls


def of_daemon(calls: Sequence[Call]) -> List[Call]:
    start = next(call.index for call in calls if FIRST_OF_MAIN.match(call.text))
    return [call for call in calls[start:] if not HOST_ONLY.search(call.text)]


def errors_of(call: Call) -> List[str]:
    for pattern, errors in ERRORS.items():
        if re.match(pattern, call.text):
            return errors.split()
    raise SystemExit(f"tests/faults/calls.py: the table of errors lacks {call.text}")


def shape(call: Call) -> Tuple[str, str, str]:
    """Equal for the calls of one loop: same step, same name, same file and size, other offsets."""
    file = re.search(r"<([^>]*)>|\"([^\"]*)\"", call.text)
    size = call.text.split(",")[-1].split(")")[0] if call.name in ("read", "write") else ""
    return call.step, call.name, (file[0] if file else "") + size


def thinned(calls: Sequence[Call], above: int) -> List[Call]:
    """Of more than `above` equal calls the first, the second, the middle and the last two."""
    groups: Dict[Tuple[str, str, str], List[Call]] = {}
    for call in calls:
        groups.setdefault(shape(call), []).append(call)
    kept = []
    for group in groups.values():
        some = [*group[:2], group[len(group) // 2], *group[-2:]]
        kept += some if len(group) > max(above, 5) else group
    return sorted(kept, key=lambda call: call.index)
