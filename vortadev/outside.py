"""Files and folders that came from outside. Nothing but files and folders is opened, no link is followed, nothing
waits, and what is read is bounded; whatever goes wrong is a DeviceError that names the path."""

from __future__ import annotations

from dataclasses import dataclass
import os
from pathlib import Path
import re
import stat
from typing import BinaryIO, Dict, NamedTuple

from .errors import DeviceError
from .phone import RECORD_TIME
from .records import LOG_REGIONS

# What this system does not have, it does not need.
OPEN_FLAGS = os.O_RDONLY
for flag in ("O_NONBLOCK", "O_NOFOLLOW", "O_CLOEXEC", "O_NOCTTY", "O_BINARY"):
    OPEN_FLAGS |= getattr(os, flag, 0)
# What vorta and init name so, among names of other software.
OWN_NAME = re.compile(
    rf"{RECORD_TIME.pattern}(-fulldump\.bin)?|({'|'.join(LOG_REGIONS)})(_tmp)?"
    r"|rawdump\.bin|tmp\.bin|DONE|history\.log|dumplog|fulldumplog",
    re.ASCII,
)
LISTED = 4096  # names of one folder; a phone makes a handful, other software may have put any number there


def failure(path: Path, error: OSError) -> DeviceError:
    return DeviceError(f"cannot read {path}: {error.strerror}")


@dataclass(frozen=True)
class File:
    """Opened anew for each look at it, so that one that goes meanwhile is told like one that was never there."""

    path: Path
    device: bool = False  # whether a block device will do, as a person has named it

    def open(self) -> BinaryIO:
        try:
            self.require_file(self.path.lstat().st_mode)
            descriptor = os.open(self.path, OPEN_FLAGS)
        except OSError as error:
            raise failure(self.path, error) from error
        try:  # it may be another one by now
            self.require_file(os.fstat(descriptor).st_mode)
        except DeviceError:
            os.close(descriptor)
            raise
        return os.fdopen(descriptor, "rb")

    def require_file(self, mode: int) -> None:
        if not stat.S_ISREG(mode) and not (self.device and stat.S_ISBLK(mode)):
            raise DeviceError(f"{self.path} is {'a link' if stat.S_ISLNK(mode) else 'no regular file'}")

    def listed_size(self) -> int:
        """Of one that may not be opened."""
        try:
            found = self.path.lstat()
        except OSError as error:
            raise failure(self.path, error) from error
        self.require_file(found.st_mode)
        return found.st_size

    def size(self) -> int:
        with self.open() as file:
            return file.seek(0, os.SEEK_END)

    def at(self, offset: int, size: int) -> bytes:
        """The bytes of a range, as far as the file reaches."""
        try:
            with self.open() as file:
                file.seek(min(offset, file.seek(0, os.SEEK_END)))
                return file.read(size)
        except OSError as error:
            raise failure(self.path, error) from error


def inside(folder: Path, relative: str) -> Path:
    """A path below a folder, if no link leads there."""
    *parents, name = relative.strip("/").split("/")
    for parent in parents:
        folder = folder / parent
        if not is_folder(folder):
            raise DeviceError(f"cannot read {folder}: no such folder")
    return folder / name


def is_folder(path: Path) -> bool:
    """Whether it is a folder itself, no link to one."""
    try:
        return stat.S_ISDIR(path.lstat().st_mode)
    except OSError:
        return False


class Listing(NamedTuple):
    entries: Dict[str, bool]  # the phone's own names, then folders, then files, in their order; whether it is a folder
    more: int  # how many names were left out


def list_folder(folder: Path) -> Listing:
    if folder.is_symlink():
        raise DeviceError(f"{folder} is a link")
    try:
        with os.scandir(folder) as found:
            names = sorted(
                (not OWN_NAME.fullmatch(entry.name), not entry.is_dir(follow_symlinks=False), entry.name)
                for entry in found
            )
    except OSError as error:
        raise failure(folder, error) from error
    return Listing({name: not other for _, other, name in names[:LISTED]}, len(names[LISTED:]))
