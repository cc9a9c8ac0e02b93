"""A conservative model of storage: what of a boot's files may be missing after a power cut. Partitions
are written through (O_SYNC), a record by one call, so that they are whole, before or after it. Of files,
bytes written without O_SYNC and not yet flushed may be there, absent, or torn at 4 KiB; a new name may be
missing until its own file or folder, or the folder that it stands in, was flushed; and a removed one may be
back until that folder was."""
from __future__ import annotations

from dataclasses import dataclass, field
from pathlib import PurePosixPath
import re
from typing import Callable

from calls import Call
from device import BLOCK, STAMP, State

RUN_TIME = re.compile(rf"\[GetRecordTime\] get time \[({STAMP.pattern})\]")
OPENED = re.compile(r'^openat\(AT_FDCWD<[^>]*>, "/data/([^"]*)", (\S+?)[,)].* = (\d+)<')
MADE = re.compile(r'^mkdir\("/data/([^"]*)".* = 0')
REMOVED = re.compile(r'^(?:unlink|rmdir)\("/data/([^"]*)"\) = 0')
WRITTEN = re.compile(r"^write\((\d+)</data/([^>]*)>.* = (\d+)$")
FLUSHED = re.compile(r"^fsync\(\d+</data/([^>]*)>\) = 0")


@dataclass
class Pending:
    """What storage may lack: of each file the bytes behind those that are flushed, names in the order in
    which they were made, and removals. `known` are the names that the daemon made or flushed, `written` the
    bytes that it wrote to each file."""
    flushed: dict[str, int] = field(default_factory=dict)
    names: list[str] = field(default_factory=list)
    removed: set[str] = field(default_factory=set)
    known: set[str] = field(default_factory=set)
    written: dict[str, int] = field(default_factory=dict)


def pending_after(calls: list[Call], existing: set[str]) -> Pending:
    """Plays the calls on storage that holds the `existing` names. The time of the run reads TIME."""
    pending, through = Pending(known=set(existing)), {}
    stamp = next((found.group(1) for call in calls if (found := RUN_TIME.search(call.text))), None)
    for call in calls:
        text = call.text.replace(stamp, "TIME") if stamp else call.text
        if found := OPENED.match(text):
            name, flags, descriptor = found.groups()
            through[descriptor] = "O_SYNC" in flags
            if "O_CREAT" in flags and name not in pending.known:
                pending.known.add(name)
                pending.names.append(name)
        elif found := MADE.match(text):
            pending.known.add(found.group(1) + "/")
            pending.names.append(found.group(1) + "/")
        elif found := REMOVED.match(text):
            pending.flushed.pop(found.group(1), None)
            pending.known -= {found.group(1), found.group(1) + "/"}
            pending.names = [other for other in pending.names if other != found.group(1)]
            pending.removed.add(found.group(1))
        elif found := WRITTEN.match(text):
            descriptor, name, size = found.groups()
            if through.get(descriptor):
                pending.names = [other for other in pending.names if other != name]
            else:
                pending.flushed.setdefault(name, pending.written.get(name, 0))
            pending.written[name] = pending.written.get(name, 0) + int(size)
        elif found := FLUSHED.match(text):
            name = found.group(1)
            pending.known.add(name)  # what the shell made is on storage as well
            pending.flushed.pop(name, None)
            pending.names = [other for other in pending.names if other.rstrip("/") != name
                             and str(PurePosixPath(other).parent) != name]
            gone = tuple(other for other in pending.removed if str(PurePosixPath(other).parent) == name)
            pending.removed = {other for other in pending.removed
                               if other not in gone and not other.startswith(tuple(f"{top}/" for top in gone))}
    return pending


def whole(data: bytes, flushed: int) -> bytes:
    return data


def only_flushed(data: bytes, flushed: int) -> bytes:
    return data[:flushed]


def torn(data: bytes, flushed: int) -> bytes:
    return data[:flushed + (len(data) - flushed) // 2 // BLOCK * BLOCK]


def without_first_block(data: bytes, flushed: int) -> bytes:
    return data[:flushed] + bytes(len(data[flushed:flushed + BLOCK])) + data[flushed + BLOCK:]


# Name of a way that storage may look; what is found of a file, given how much of it is flushed; which of the
# new names are lacking, given the name and whether it is the newest; and whether removed ones are back.
WAYS: tuple[tuple[str, Callable[[bytes, int], bytes], Callable[[str, bool], bool], bool], ...] = (
    ("all there", whole, lambda name, newest: False, False),
    ("unflushed bytes absent", only_flushed, lambda name, newest: False, False),
    ("torn in the middle", torn, lambda name, newest: False, False),
    ("first 4 KiB absent", without_first_block, lambda name, newest: False, False),
    ("new folders absent", whole, lambda name, newest: name.endswith("/"), False),
    ("new names absent", only_flushed, lambda name, newest: True, False),
    ("the newest name absent", whole, lambda name, newest: newest, False),
    ("removed names back", whole, lambda name, newest: False, True))


def after_cut(before: State, now: State, pending: Pending) -> list[tuple[str, State]]:
    """The ways that storage may look after the cut, each once. Files that the daemon neither made nor flushed
    are the shell's: nothing of them is on storage for certain."""
    flushed: dict[str, int] = {}
    unnamed: dict[str, bool] = {}  # whether it is the newest
    for name in now.files:
        plain = name if name in before.files else STAMP.sub("TIME", name)
        shells = plain not in pending.known
        if shells or plain in pending.flushed:
            flushed[name] = pending.flushed.get(plain, 0)
        if shells or plain in pending.names:
            unnamed[name] = plain in pending.names[-1:]
    back = {name: data for name, data in before.files.items() if name.rstrip("/") in pending.removed}
    found: dict[int, tuple[str, State]] = {}
    for way, content, lacks, returns in WAYS:
        lost = {name for name, newest in unnamed.items() if lacks(name, newest)}
        below = tuple(name for name in lost if name.endswith("/"))
        files = {name: content(data, flushed[name]) if name in flushed else data
                 for name, data in now.files.items() if name not in lost and not name.startswith(below)}
        state = State(now.partitions, files | back if returns else files)
        found.setdefault(state.digest(), (way, state))
    return list(found.values())
