"""The calls of a boot: listed by a traced run, thinned where a loop repeats one, and the table of the errors that each
can give on a phone."""

from __future__ import annotations

import re
from typing import Dict, FrozenSet, List, NamedTuple, Sequence

from vortadev import phone
from vortadev.device import FACTORY_EVENTS

from boots import ALONE, STEPS, steps_of

# main begins with its look at standard output, before "StartVorta"; what stands above is the loader's.
FIRST_OF_MAIN = re.compile(r"^(newfstatat|fstat)\(1<")
# What a phone does by other means: the log's socket, a property file, time zones, the factory library; and the counters
# of a coverage build.
HOST_ONLY = re.compile(
    rf"^(sendto|socket|connect)\(|{phone.BUILD_PROP}|<(UNIX|socket):|/etc/localtime|{FACTORY_EVENTS}|\.gcda"
)
# Errors of a call, first match wins. Nothing: the call cannot fail in a way that the daemon sees. A write can also take
# half of its bytes, or none.
ERRORS = {
    r"read\(.*by-name/": "EIO EINTR ETIMEDOUT",
    r"read\(": "EIO EINTR",
    r"write\(.*by-name/": "EIO EINTR ENOSPC ETIMEDOUT half none",
    r"write\([12]<": "EIO",
    r"write\(": "EIO ENOSPC EINTR half none",
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
    r"(brk|mmap|mprotect|malloc|asprintf)\(": "ENOMEM",
    r"(exit_group|rt_sig\w+|munmap|prlimit64|fcntl|getrandom|getpid|futex|sched_\w+|madvise)\(": "",
}


class Call(NamedTuple):
    """A call of a traced boot. `at` is its place among all, `nth` among those of its name, as strace's when= counts."""

    at: int
    name: str
    nth: int
    text: str
    step: str


# No trace shows where the daemon itself asks for memory: for its two records, for a text, and for the history line.
MEMORY = [
    Call(0, "malloc", 1, "malloc()", "header"),
    Call(0, "malloc", 2, "malloc()", "header"),
    Call(0, "asprintf", 1, "asprintf()", "start"),
    Call(0, "asprintf", 2, "asprintf()", "history"),
]
POWER = "cut"


class Strike(NamedTuple):
    """What happens at a call: it fails with this error, or power does; `on`: so do all later calls of its name."""

    boot: str
    call: Call
    error: str
    on: bool

    @property
    def name(self) -> str:
        return f"{self.boot}:{self.call.name}:{self.call.nth}:{self.error}:{'on' if self.on else 'once'}"

    @property
    def injected(self) -> str:
        """What strace is told; nothing where it takes the preloaded library, as strace can neither shorten a write nor
        see a call of the C library."""
        if self.error == "half" or self.call in MEMORY:
            return ""
        # A refused brk gives the old break; an error number would look like an address.
        refused = "retval=0" if self.error == "none" or self.call.name == "brk" else f"error={self.error}"
        return "signal=KILL" if self.error == POWER else refused


def strikes(boot: str, calls: Sequence[Call]) -> List[Strike]:
    """All ways in which these calls can fail. Interruptions and writes that take nothing come one at a time: they are
    repeated by contract, for ever if they never end. So do failing closes: strace leaves the file open, which a kernel
    never does and which blocks a pipe."""
    once = [Strike(boot, call, error, False) for call in calls for error in errors_of(call)]
    lasting = [strike for strike in once if strike.error not in ("EINTR", "none") and strike.call.name != "close"]
    return sorted(once + [strike._replace(on=True) for strike in lasting])


def parse(trace: Sequence[str]) -> List[Call]:
    """All calls of the process, the loader's included."""
    texts = [line for line in trace if re.match(r"\w+\(", line)]
    names = [text.partition("(")[0] for text in texts]
    nths = [names[: at + 1].count(name) for at, name in enumerate(names)]
    return list(map(Call, range(len(texts)), names, nths, texts, steps_of(texts)))


def of_daemon(calls: Sequence[Call]) -> List[Call]:
    start = next(call.at for call in calls if FIRST_OF_MAIN.match(call.text))
    return [call for call in calls[start:] if not HOST_ONLY.search(call.text)]


def errors_of(call: Call) -> List[str]:
    for pattern, errors in ERRORS.items():
        if re.match(pattern, call.text):
            return errors.split()
    raise SystemExit(f"tests/faults/calls.py: the table of errors lacks {call.text}")


def shape(call: Call) -> str:
    """Equal for the calls of one loop: same step, same name, same file and size, other offsets."""
    file = re.search(r"<([^>]*)>|\"([^\"]*)\"", call.text)
    size = call.text.split(",")[-1].split(")")[0] if call.name in ("read", "write") else ""
    return f"{call.step} {call.name} {file and file[0]} {size}"


def thinned(calls: Sequence[Call], above: int) -> List[Call]:
    """Of more than `above` equal calls the first, the second, the middle and the last two."""
    groups: Dict[str, List[Call]] = {}
    for call in calls:
        groups.setdefault(shape(call), []).append(call)
    kept = []
    for group in groups.values():
        kept += [*group[:2], group[len(group) // 2], *group[-2:]] if len(group) > above else group
    return sorted(kept)


def affected_by(calls: Sequence[Call]) -> FrozenSet[str]:
    """The steps that cannot be expected when these calls fail."""
    stopped = {call.step for call in calls if not ALONE.match(call.text) or call.step == "history"}
    carried = "|".join(step.carries for step in STEPS if step.name in stopped)
    steps = {step.name for step in STEPS if re.fullmatch(carried, step.name)}
    return frozenset(steps.union(call.step for call in calls))
