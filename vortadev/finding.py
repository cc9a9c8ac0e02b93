"""Finds what was pulled from phones, below the paths that a person names."""

from __future__ import annotations

from collections import Counter
from dataclasses import dataclass, replace
from pathlib import Path
from typing import Iterable, List, Tuple

from . import outside, reading, records
from . import phone as phones
from .errors import DeviceError, printable

DEPTH = 8  # folders that a pull, or who sorted it, may put around what the phone has
# Folders that the phone itself puts around it: no phone is called as one of them.
COMMON_NAMES = {*phones.RELIABILITY.split("/"), reading.DUMPLOG, reading.FULLDUMPLOG}

Found = Tuple[List["Source"], List[str]]  # and where nothing was found, a sentence each


@dataclass(frozen=True)
class Source:
    """Where one phone is to be read: its folder, images of its partitions, or both."""

    name: str
    path: Path
    images: Tuple[Path, ...] = ()


def sources(paths: Iterable[Path]) -> Found:
    """The phones below the paths, in their order, each once and no two with the same name."""
    found: List[Source] = []
    problems: List[str] = []
    for path in paths:
        try:
            sources_here, problems_here = below(path) if path.is_dir() else ([image_source(path)], [])
        except DeviceError as error:
            sources_here, problems_here = [], [str(error)]
        found += sources_here
        problems += problems_here
    once = list({source.path.resolve(): source for source in found}.values())
    names = Counter(source.name for source in once)
    return [replace(one, name=printable(str(one.path))) if names[one.name] > 1 else one for one in once], problems


def image_source(path: Path) -> Source:
    kind = reading.recognised(outside.File(path.resolve(), device=True))
    if kind == phones.HISTORY_NAME:
        return Source(own_name(path.parent), path)
    return Source(printable(path.stem), path, (path,))


def own_name(folder: Path) -> str:
    """The name of the nearest folder that can be called as its phone."""
    names = [part for part in folder.resolve().parts if part not in COMMON_NAMES]
    return printable(names[-1] if names else str(folder))


def below(folder: Path, depth: int = DEPTH) -> Found:
    if reading.is_device(folder) or reading.pulled_kind(folder):
        return [Source(own_name(folder), folder)], []
    if not depth:
        return [], []
    found: List[Source] = []
    problems: List[str] = []
    entries = outside.list_folder(folder).entries
    for name in (name for name, is_folder in entries.items() if is_folder):
        try:
            inside, problems_inside = below(folder / name, depth - 1)
        except DeviceError as error:
            inside, problems_inside = [], [str(error)]
        if len(inside) == 1 and name not in COMMON_NAMES:  # the folder around a phone is called as it
            inside = [replace(inside[0], name=printable(name))]
        found += inside
        problems += problems_inside
        if not inside and not problems_inside and depth == DEPTH:
            problems.append(f"{folder / name}: found no folder of a phone")
    images = [folder / name for name, is_folder in entries.items() if not is_folder and is_image(folder / name)]
    if len(found) == 1 and found[0].path.name in COMMON_NAMES and own_name(found[0].path) == own_name(folder):
        return [replace(found[0], images=tuple(images))], problems  # they lie beside what was pulled with them
    return found + [Source(printable(image.stem), image, (image,)) for image in images], problems


def is_image(path: Path) -> bool:
    try:
        return reading.recognised(outside.File(path)) in records.PARTITIONS
    except DeviceError:
        return False
