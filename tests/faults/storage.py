"""A conservative model of storage: what of a boot's files may be missing after a power cut. Partitions are written
through (O_SYNC), a record by one call, so that they are whole, before or after it. Of files, bytes written without
O_SYNC and not yet flushed may be there, absent, or torn at 4 KiB; a new name may be missing until its own file or
folder, or the folder that it stands in, was flushed; and a removed one may be back until that folder was."""

from __future__ import annotations

from dataclasses import dataclass, field
from posixpath import dirname
import re
from typing import Callable, Dict, List, Sequence, Set, Tuple

from vortadev.device import BLOCK

from calls import Call
from state import RUN_TIME, State


@dataclass
class Storage:
    """What storage has for certain: whole files, and names. What the shell makes is in neither before its flush. `made`
    are the names that were there or that the daemon made, the newest last; `through` the descriptors that are written
    through."""

    made: List[str]
    whole: Set[str]
    named: Set[str]
    removed: Set[str] = field(default_factory=set)
    through: Set[str] = field(default_factory=set)

    def make(self, name: str) -> None:
        if name not in self.made:
            self.made.append(name)
            self.whole.add(name)

    def remove(self, name: str) -> None:
        self.made = [other for other in self.made if other.rstrip("/") != name]
        self.named -= {name, f"{name}/"}
        self.removed.add(name)

    def open(self, name: str, flags: str, descriptor: str) -> None:
        self.through = self.through | {descriptor} if "O_SYNC" in flags else self.through - {descriptor}
        if "O_CREAT" in flags:
            self.make(name)

    def write(self, descriptor: str, name: str) -> None:
        if descriptor in self.through:
            self.named.add(name)
        else:
            self.whole.discard(name)

    def flush(self, name: str) -> None:
        self.whole.add(name)
        self.named |= {name, *(other for other in self.made if name in (other.rstrip("/"), dirname(other.rstrip("/"))))}
        self.removed = {other for other in self.removed if not other.startswith(f"{name}/")}


def storage_after(calls: Sequence[Call], before: State) -> Storage:
    """Plays the calls on storage that holds the state before."""
    storage = Storage(list(before.files), set(before.files), set(before.files))
    play: Dict[str, Callable[..., None]] = {
        r'openat\(AT_FDCWD<[^>]*>, "(/data/[^"]*)", (\S+?)[,)].* = (\d+)<': storage.open,
        r'mkdir\("(/data/[^"]*)".* = 0': lambda name: storage.make(f"{name}/"),
        r'(?:unlink|rmdir)\("(/data/[^"]*?)/?"\) = 0': storage.remove,
        r"write\((\d+)<(/data/[^>]*)>": storage.write,
        r"fsync\(\d+<(/data/[^>]*)>\) = 0": storage.flush,
    }
    for call in calls:
        text = RUN_TIME.sub(before.next_time, call.text).replace("//", "/")
        for pattern, happens in play.items():
            if found := re.match(pattern, text):
                happens(*found.groups())
    return storage


# The ways that storage may look: how much is found of a file that is not whole (by its bytes), and which of the new
# names are lacking (a pattern). In the last one removed names are back, and in the one before the newest is lacking.
BACK, NEWEST = "removed names back", "the newest name absent"
WAYS: Dict[str, Tuple[Callable[[bytes], bytes], str]] = {
    "all there": (bytes, "$^"),
    "unflushed bytes absent": (lambda data: b"", "$^"),
    "torn in the middle": (lambda data: data[: len(data) // 2 // BLOCK * BLOCK], "$^"),
    "first 4 KiB absent": (lambda data: bytes(len(data[:BLOCK])) + data[BLOCK:], "$^"),
    "new folders absent": (bytes, "/$"),
    "new names absent": (lambda data: b"", ""),
    NEWEST: (bytes, ""),
    BACK: (bytes, "$^"),
}


def after_cut(before: State, now: State, storage: Storage) -> List[Tuple[str, State]]:
    """The ways that storage may look after the cut, each once."""
    unsure = [name for name in storage.made if name not in storage.named]
    back = {name: data for name, data in before.files.items() if name.rstrip("/") in storage.removed}
    found: Dict[int, Tuple[str, State]] = {}
    for way, (content, lacking) in WAYS.items():
        candidates = unsure[-1:] if way == NEWEST else now.files.keys() - storage.named
        lost = [name for name in candidates if re.search(lacking, name)]
        below = tuple(name for name in lost if name.endswith("/"))
        files = {
            name: data if name in storage.whole else content(data)
            for name, data in now.files.items()
            if name not in lost and not name.startswith(below)
        }
        state = State(now.partitions, {**files, **back} if way == BACK else files)
        found.setdefault(state.digest, (way, state))
    return list(found.values())
