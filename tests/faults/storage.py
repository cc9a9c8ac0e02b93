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
    play: Dict[str, Callable[..., None]] = {
        r'openat\(AT_FDCWD<[^>]*>, "(/data/[^"]*)", (\S+?)[,)].* = (\d+)<': pending.open,
        r'mkdir\("(/data/[^"]*)".* = 0': lambda name: pending.make(f"{name}/"),
        r'(?:unlink|rmdir)\("(/data/[^"]*)"\) = 0': pending.remove,
        r"write\((\d+)<(/data/[^>]*)>.* = (\d+)$": pending.write,
        r"fsync\(\d+<(/data/[^>]*)>\) = 0": pending.flush,
    }
    stamps = [found[1] for found in (RECORD_TIME.search(call.text) for call in calls) if found] or ["TIME"]
    for call in calls:
        for pattern, happens in play.items():
            if found := re.match(pattern, call.text.replace(stamps[0], "TIME")):
                happens(*found.groups())
    return pending


def torn(data: bytes, flushed: int) -> bytes:
    return data[: flushed + (len(data) - flushed) // 2 // BLOCK * BLOCK]


def holed(data: bytes, flushed: int) -> bytes:
    return data[:flushed] + bytes(len(data[flushed : flushed + BLOCK])) + data[flushed + BLOCK :]


# The ways that storage may look: what is found of a file, given how much of it is flushed; which of the new names are
# lacking, given the name and whether it is the newest; and whether removed ones are back.
WAYS: Dict[str, Tuple[Callable[[bytes, int], bytes], Callable[[str, bool], bool], bool]] = {
    "all there": (lambda data, flushed: data, lambda name, newest: False, False),
    "unflushed bytes absent": (lambda data, flushed: data[:flushed], lambda name, newest: False, False),
    "torn in the middle": (torn, lambda name, newest: False, False),
    "first 4 KiB absent": (holed, lambda name, newest: False, False),
    "new folders absent": (lambda data, flushed: data, lambda name, newest: name.endswith("/"), False),
    "new names absent": (lambda data, flushed: data[:flushed], lambda name, newest: True, False),
    "the newest name absent": (lambda data, flushed: data, lambda name, newest: newest, False),
    "removed names back": (lambda data, flushed: data, lambda name, newest: False, True),
}


def after_cut(before: State, now: State, pending: Pending) -> List[Tuple[str, State]]:
    """The ways that storage may look after the cut, each once. Files that the daemon neither made nor flushed are the
    shell's: nothing of them is on storage for certain."""
    plain = {name: name if name in before.files else STAMP.sub("TIME", name) for name in now.files}
    shells = {name for name, known in plain.items() if known not in pending.known}
    unflushed = {name for name, known in plain.items() if known in pending.flushed} | shells
    unnamed = {name for name, known in plain.items() if known in pending.names} | shells
    back = {name: data for name, data in before.files.items() if name.rstrip("/") in pending.removed}
    found: Dict[int, Tuple[str, State]] = {}
    for way, (content, lacks, returns) in WAYS.items():
        lost = {name for name in unnamed if lacks(name, plain[name] in pending.names[-1:])}
        below = tuple(name for name in lost if name.endswith("/"))
        kept = {name: data for name, data in now.files.items() if name not in lost and not name.startswith(below)}
        for name in kept.keys() & unflushed:
            kept[name] = content(kept[name], pending.flushed.get(plain[name], 0))
        state = State(now.partitions, {**kept, **back} if returns else kept)
        found.setdefault(digest(state), (way, state))
    return list(found.values())
