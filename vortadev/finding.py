"""Finds what was pulled from phones, below the paths that a person names."""

from __future__ import annotations

from collections import Counter
from dataclasses import dataclass, replace
from pathlib import Path
from typing import Iterable, List, Tuple

from . import outside, reading
from . import phone as phones
from .errors import DeviceError, printable

DEPTH = 8  # folders that a pull, or who sorted it, may put around what the phone has
# Folders that the phone itself puts around it: no phone is called as one of them.
COMMON_NAMES = {*phones.RELIABILITY.split("/"), reading.DUMPLOG, reading.FULLDUMPLOG}


@dataclass(frozen=True)
class Source:
    """A pulled folder, a simulated device, or an image of a partition."""

    name: str
    path: Path
    images: Tuple[Path, ...] = ()  # of partitions, which lie beside what was pulled from that phone


def sources(paths: Iterable[Path], problems: List[str]) -> List[Source]:
    """The phones below the paths, each once and no two with the same name; where nothing was found is a problem."""
    found: List[Source] = []
    unread: List[Source] = []
    for path in paths:
        try:
            found += below(path, DEPTH, problems) if path.is_dir() else [file_source(path)]
        except DeviceError as error:
            problems.append(str(error).partition("; --as")[0])  # which is an option of show
            unread.append(Source(printable(str(path)), path))
    found += unread if found else []  # beside others its row says what is wrong
    once = list({source.path.resolve(): source for source in reversed(found)}.values())[::-1]  # as found first
    names = Counter(source.name for source in once)
    return [replace(one, name=path_name(one.path)) if names[one.name] > 1 else one for one in once]


def file_source(path: Path) -> Source:
    is_history = reading.recognised(outside.File(path.resolve(), device=True)) == phones.HISTORY_NAME
    return Source(own_name(path.parent) if is_history else printable(path.stem), path)


def own_name(folder: Path) -> str:
    """The name of the nearest folder that can be called as its phone."""
    names = [part for part in folder.resolve().parts if part not in COMMON_NAMES]
    return printable(names[-1] if names else str(folder))


def path_name(path: Path) -> str:
    """The path, without what is the same on each phone."""
    while path.name in COMMON_NAMES and path.parent != path:
        path = path.parent
    return printable(str(path))


def below(folder: Path, depth: int, problems: List[str]) -> List[Source]:
    if reading.is_device(folder) or reading.pulled_kind(folder):
        return [Source(own_name(folder), folder)]
    found: List[Source] = []
    entries, more = outside.list_folder(folder) if depth else outside.Listing({}, 0)
    if more:
        problems.append(f"{folder} holds {more} more names, which were not looked at")
    for name, is_folder in entries.items():
        path, before = folder / name, len(problems)
        try:
            inside = below(path, depth - 1, problems) if is_folder else []
        except DeviceError:
            inside = [Source(printable(name), path)]  # its row says what is wrong
        if len(inside) == 1 and name not in COMMON_NAMES:  # the folder around a phone is called as it
            inside = [replace(inside[0], name=printable(name))]
        if is_folder and not inside and depth == DEPTH and len(problems) == before:
            problems.append(f"{path}: no phone's folder or image was found in it")
        found += inside
    images = reading.images_among(folder, entries)
    if len(found) == 1 and found[0].name == own_name(folder):  # this folder is the phone's
        return [replace(found[0], images=(*found[0].images, *images))]
    return found + [Source(printable(image.stem), image) for image in images]
