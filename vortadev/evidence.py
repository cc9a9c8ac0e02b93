"""What phones saved, as plain data, and the decisions about it that need no file: what a restart was, how whole a
collection is, which phone comes first. Texts come from the phones: they are printable, but whoever writes HTML has to
escape them."""

from __future__ import annotations

from dataclasses import dataclass, field
from datetime import datetime
from enum import Enum
from typing import Any, Dict, Optional, Tuple

from .phone import HISTORY_NAME


class Restart(Enum):
    """Why a phone went down, as far as the boot after it could tell."""

    NORMAL = "normal"
    FORCED = "forced"  # a long key press: a person ended a hang, or just held the key
    HARDWARE = "hardware fault"
    CRASH = "crash"
    UNKNOWN = "unknown"

    @property
    def unexpected(self) -> bool:
        return self not in (Restart.NORMAL, Restart.FORCED)


FIRST_YEAR = 2020  # a phone that says less has not got its time yet
DERIVED = ("NORMALBOOT", "HARDWARE_FAULT", "UNKNOWN")  # vorta's own categories; boots of that kind have no folder
LONG_KEY = "reboot_longkey"


def restart_of(category: Optional[str], reason: Optional[str], has_logs: bool) -> Restart:
    if reason == LONG_KEY:
        return Restart.FORCED
    if has_logs or (category and reason and category not in DERIVED):
        return Restart.CRASH
    return {"NORMALBOOT": Restart.NORMAL, "HARDWARE_FAULT": Restart.HARDWARE}.get(category or "", Restart.UNKNOWN)


class State(Enum):
    """How much of a collection, or of a dump, is there."""

    WHOLE = "whole"
    CUT = "cut"  # a dump ends early
    OPEN = "open"  # the run never came to its end
    WAITING = "waiting"  # of a dump: still in the partition
    ABSENT = "absent"  # of a dump: none was saved


@dataclass(frozen=True)
class KernelLog:
    """What the log of the kernel that went down tells; None where it does not."""

    version: Optional[str] = None
    crash_line: Optional[str] = None  # the last panic, oops or watchdog line, without its stamp
    function: Optional[str] = None  # the first one of its call trace
    signature: Optional[str] = None  # both, without addresses, numbers and process names
    seconds: Optional[float] = None  # the last stamp: how long the kernel ran, sleep left out
    excerpt: Tuple[str, ...] = ()  # the first lines of the crash's report
    tail: Tuple[str, ...] = ()  # its last 20 lines


@dataclass(frozen=True)
class Collection:
    """A folder in dumplog, or a full dump."""

    path: str
    state: State
    done: bool  # closed by its marker
    files: Dict[str, int]  # sizes in bytes, by name
    minidump: State
    is_fulldump: bool = False
    problem: str = ""  # what is wrong with the dump
    kernel: Optional[KernelLog] = None

    @property
    def size(self) -> int:
        return sum(self.files.values())


@dataclass(frozen=True)
class Boot:
    """A run of vorta: the boot after the one that went down."""

    time: str  # as the phone wrote it, 14 digits, "-", 8 digits: local time
    restart: Restart
    when: Optional[datetime] = None  # the same without a zone; None: no such time
    category: Optional[str] = None  # None: no line in the history
    reason: Optional[str] = None
    collection: Optional[Collection] = None
    fulldump: Optional[Collection] = None

    @property
    def kernel(self) -> Optional[KernelLog]:
        return self.collection.kernel if self.collection else None

    @property
    def collections(self) -> Tuple[Collection, ...]:
        return tuple(found for found in (self.collection, self.fulldump) if found)

    @property
    def is_set(self) -> bool:
        """Whether the clock of the phone had been set."""
        return self.when is not None and self.when.year >= FIRST_YEAR

    @property
    def cause(self) -> str:
        """One word or a few, for counting: how the kernel died, or what kind of restart it was."""
        line = (self.kernel and self.kernel.crash_line or "").lower()
        words = [word for word in ("panic", "oops", "watchdog") if word in line]
        if self.restart is Restart.CRASH:
            return words[0] if words else self.category or "crash"
        return {Restart.HARDWARE: "power"}.get(self.restart, self.restart.value)


@dataclass(frozen=True)
class Attention:
    """Something that a person should look at."""

    rule: str  # one word for programs, like "cut"
    text: str  # a sentence without a full stop
    path: str  # where the evidence is
    time: str = ""  # of the boot that it is about


@dataclass(frozen=True)
class Storage:
    """What dumplog holds, its history included, as the daemon measures it."""

    size: int  # bytes
    limit: int  # bytes; a larger folder loses what sorts first at the next crash
    build: Optional[str]  # "commercial" or "internal"; None: not known, and the limit is the likely one
    first: Optional[str]  # what goes first


@dataclass(frozen=True)
class Phone:
    """One phone, or one image of a partition."""

    name: str
    path: str
    boots: Tuple[Boot, ...] = ()  # in the order of the history; those without a line where their time belongs
    attentions: Tuple[Attention, ...] = ()
    storage: Optional[Storage] = None
    images: Tuple[Dict[str, Any], ...] = ()  # reports of images of partitions, as `show --json` gives them
    waiting: int = 0  # dumps that wait in these images
    damaged: int = 0  # bytes of the history that belong to no line
    dumplog: Optional[str] = None  # None: only a part was there, of which nothing can be missed
    problems: Tuple[str, ...] = ()  # what could not be read, a sentence each

    @property
    def unexpected(self) -> int:
        return sum(boot.restart.unexpected for boot in self.boots)

    @property
    def history(self) -> str:
        return f"{self.dumplog}/{HISTORY_NAME}" if self.dumplog else self.path

    @property
    def collections(self) -> Tuple[Collection, ...]:
        return tuple(found for boot in self.boots for found in boot.collections)

    @property
    def days(self) -> Optional[int]:
        """From the first boot to the last one, both days counted; None without a plausible time."""
        days = [boot.when.date() for boot in self.boots if boot.when and boot.is_set]
        return (max(days) - min(days)).days + 1 if days else None


@dataclass
class Totals:
    """Counts over phones."""

    phones: int = 0
    boots: int = 0
    unexpected: int = 0
    attention: int = 0  # phones that need it
    waiting: int = 0
    states: Dict[State, int] = field(default_factory=lambda: dict.fromkeys(State, 0))  # of collections

    def add(self, phone: Phone) -> None:
        self.phones += 1
        self.boots += len(phone.boots)
        self.unexpected += phone.unexpected
        self.attention += bool(phone.attentions)
        self.waiting += phone.waiting
        for collection in phone.collections:
            self.states[collection.state] += 1
