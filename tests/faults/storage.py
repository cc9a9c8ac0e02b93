"""A conservative model of storage: what of a boot's files may be missing after a power cut. Partitions are written through
(O_SYNC), a record by one call, so that they are whole, before or after it. Of files, bytes written without O_SYNC and not
yet flushed may be there, absent, or torn at 4 KiB; a new name may be missing until its own file or folder, or the folder
that it stands in, was flushed; and a removed one may be back until that folder was."""

from __future__ import annotations

from dataclasses import dataclass, field
from posixpath import dirname
import re
from typing import Callable, Dict, List, Sequence, Set, Tuple

from vortadev.check import RECORD_TIME
from vortadev.device import BLOCK

from boots import digest
from calls import Call
from state import STAMP, State

OPENED = re.compile(r'^openat\(AT_FDCWD<[^>]*>, "(/data/[^"]*)", (\S+?)[,)].* = (\d+)<')
MADE = re.compile(r'^mkdir\("(/data/[^"]*)".* = 0')
REMOVED = re.compile(r'^(?:unlink|rmdir)\("(/data/[^"]*)"\) = 0')
WRITTEN = re.compile(r"^write\((\d+)<(/data/[^>]*)>.* = (\d+)$")
FLUSHED = re.compile(r"^fsync\(\d+<(/data/[^>]*)>\) = 0")


@dataclass
class Pending:
    """What storage may lack: of each file the bytes behind those that are flushed, names in the order in which they were
    made, and removals. `known` are the names that the daemon made or flushed, `written` the bytes that it wrote to each
    file, `through` the descriptors that are written through."""

    known: Set[str]
    flushed: Dict[str, int] = field(default_factory=dict)
    names: List[str] = field(default_factory=list)
    removed: Set[str] = field(default_factory=set)
    written: Dict[str, int] = field(default_factory=dict)
    through: Set[str] = field(default_factory=set)

    def make(self, name: str) -> None:
        if name not in self.known:
            self.known.add(name)
            self.names.append(name)

    def remove(self, name: str) -> None:
        self.flushed.pop(name, None)
        self.known -= {name, f"{name}/"}
        self.names = [other for other in self.names if other != name]
        self.removed.add(name)

    def open(self, name: str, flags: str, descriptor: str) -> None:
        self.through = self.through | {descriptor} if "O_SYNC" in flags else self.through - {descriptor}
        if "O_CREAT" in flags:
            self.make(name)

    def write(self, descriptor: str, name: str, size: str) -> None:
        before = self.written.get(name, 0)
        self.written[name] = before + int(size)
        if descriptor in self.through:
            self.names = [other for other in self.names if other != name]
        else:
            self.flushed.setdefault(name, before)

    def flush(self, name: str) -> None:
        self.known.add(name)  # what the shell made is on storage as well
        self.flushed.pop(name, None)
        self.names = [other for other in self.names if other.rstrip("/") != name and dirname(other.rstrip("/")) != name]
        gone = {other for other in self.removed if dirname(other) == name}
        below = tuple(f"{other}/" for other in gone)
        self.removed = {other for other in self.removed - gone if not other.startswith(below)}


def pending_after(calls: Sequence[Call], existing: Set[str]) -> Pending:
    """Plays the calls on storage that holds the `existing` names. The time of the run reads TIME."""
    pending = Pending(set(existing))
    play: Tuple[Tuple[re.Pattern[str], Callable[..., None]], ...] = (
        (OPENED, pending.open),
        (MADE, lambda name: pending.make(f"{name}/")),
        (REMOVED, pending.remove),
        (WRITTEN, pending.write),
        (FLUSHED, pending.flush),
    )
    stamps = [found[1] for found in (RECORD_TIME.search(call.text) for call in calls) if found] or ["TIME"]
    for call in calls:
        for pattern, happens in play:
            if found := pattern.match(call.text.replace(stamps[0], "TIME")):
                happens(*found.groups())
    return pending


def whole(data: bytes, _flushed: int) -> bytes:
    return data


def only_flushed(data: bytes, flushed: int) -> bytes:
    return data[:flushed]


def torn(data: bytes, flushed: int) -> bytes:
    return data[: flushed + (len(data) - flushed) // 2 // BLOCK * BLOCK]


def without_first_block(data: bytes, flushed: int) -> bytes:
    return data[:flushed] + bytes(len(data[flushed : flushed + BLOCK])) + data[flushed + BLOCK :]


# Name of a way that storage may look; what is found of a file, given how much of it is flushed; which of the new names
# are lacking, given the name and whether it is the newest; and whether removed ones are back.
WAYS: Tuple[Tuple[str, Callable[[bytes, int], bytes], Callable[[str, bool], bool], bool], ...] = (
    ("all there", whole, lambda name, newest: False, False),
    ("unflushed bytes absent", only_flushed, lambda name, newest: False, False),
    ("torn in the middle", torn, lambda name, newest: False, False),
    ("first 4 KiB absent", without_first_block, lambda name, newest: False, False),
    ("new folders absent", whole, lambda name, newest: name.endswith("/"), False),
    ("new names absent", only_flushed, lambda name, newest: True, False),
    ("the newest name absent", whole, lambda name, newest: newest, False),
    ("removed names back", whole, lambda name, newest: False, True),
)


def after_cut(before: State, now: State, pending: Pending) -> List[Tuple[str, State]]:
    """The ways that storage may look after the cut, each once. Files that the daemon neither made nor flushed are the
    shell's: nothing of them is on storage for certain."""
    plain = {name: name if name in before.files else STAMP.sub("TIME", name) for name in now.files}
    shells = {name for name, known in plain.items() if known not in pending.known}
    flushed = {
        name: pending.flushed.get(known, 0)
        for name, known in plain.items()
        if name in shells or known in pending.flushed
    }
    unnamed = [name for name, known in plain.items() if name in shells or known in pending.names]
    back = {name: data for name, data in before.files.items() if name.rstrip("/") in pending.removed}
    found: Dict[int, Tuple[str, State]] = {}
    for way, content, lacks, returns in WAYS:
        lost = {name for name in unnamed if lacks(name, plain[name] in pending.names[-1:])}
        below = tuple(name for name in lost if name.endswith("/"))
        kept = {name: data for name, data in now.files.items() if name not in lost and not name.startswith(below)}
        files = {name: content(data, flushed[name]) if name in flushed else data for name, data in kept.items()}
        state = State(now.partitions, {**files, **back} if returns else files)
        found.setdefault(digest(state), (way, state))
    return list(found.values())
