"""Reads what a device, a partition image or a folder pulled from a phone holds into a report: the object that
`show --json` prints. What is read may come from anybody: no link is followed in it, nothing but files and folders is
opened, and what cannot be read or understood is told as a `problem`."""

from __future__ import annotations

import json
import os
from pathlib import Path
import stat
from typing import Any, Dict, List, Tuple

from . import device as devices
from . import phone, records
from .errors import DeviceError, printable, size_text
from .records import Kind, Record

Report = Dict[str, Any]

HISTORY_READ_LIMIT = 64 << 20  # far above the daemon's own limit
RAWDUMP_END = records.MINIDUMP_REGION.offset + records.MINIDUMP_REGION.size
BOOTFAIL_END = records.META_REGION.offset + records.META_REGION.size

DUMPLOG, FULLDUMPLOG = Path(phone.DUMPLOG).name, Path(phone.FULLDUMPLOG).name
DEVICE = "simulated device"
LOG_FOLDER = "log folder of a phone"
DUMP_FOLDER = "dump folder of a phone"
FULLDUMP_FOLDER = "full dump folder of a phone"
BOOT_FOLDER = "collected boot of a phone"


def read(path: Path, kind: str = "") -> Report:
    """`kind` says of a file which partition's image it is, where it does not say so itself."""
    report: Report = {"path": printable(str(path)), "kind": "", "description": "", "problems": []}
    try:
        mode = path.stat().st_mode
    except OSError as error:
        raise DeviceError(f"cannot read {path}: {error.strerror}") from error
    if stat.S_ISDIR(mode) and kind:
        raise DeviceError(f"{path}: expected a file that is read as {kind}, found a folder")
    if stat.S_ISDIR(mode):
        read_folder(path, report)
    elif stat.S_ISREG(mode) or stat.S_ISBLK(mode):
        read_file(path.resolve(), kind or recognised(path.resolve()), report)
    else:
        raise DeviceError(f"{path} is no file or folder that can be shown")
    return report


def bytes_of(path: Path, offset: int, size: int) -> bytes:
    """The bytes of a range, as far as the file reaches."""
    try:
        mode = path.lstat().st_mode
        if not stat.S_ISREG(mode) and not stat.S_ISBLK(mode):
            raise DeviceError(f"{path} is no regular file")
        with path.open("rb") as file:
            file.seek(min(offset, file.seek(0, os.SEEK_END)))
            return file.read(size)
    except OSError as error:
        raise DeviceError(f"cannot read {path}: {error.strerror}") from error


def text_of(data: bytes) -> str:
    return printable(data.decode("ascii", "surrogateescape"))


# Files


def recognised(path: Path) -> str:
    """The kind of a file, by what it says itself; its name decides only where its size fits and its records are
    clear."""
    start = bytes_of(path, 0, records.REASON_HEADER.size)
    if start.startswith(b"\x1f\x8b"):
        raise DeviceError(f"{path} is a packed dump, no partition image; gzip -dc unpacks it")
    if path.name == phone.HISTORY_NAME or start.startswith(phone.HISTORY_TEXTS[0].encode("ascii")):
        return phone.HISTORY_NAME
    if speaks(start):
        return records.RAWDUMP
    meta = bytes_of(path, records.META_REGION.offset, records.META_REGION.size)
    if records.FULLDUMP_META.number(meta, "magic") == records.META_MAGIC:
        return records.BOOTFAIL
    for kind, end in ((records.RAWDUMP, RAWDUMP_END), (records.BOOTFAIL, BOOTFAIL_END)):
        if kind in path.name and bytes_of(path, end - 1, 1):
            return kind
    raise DeviceError(
        f"{path}: expected an image of {records.RAWDUMP} or {records.BOOTFAIL}, found the record of neither; "
        f"--as {records.RAWDUMP} or --as {records.BOOTFAIL} reads it nevertheless"
    )


def speaks(header: bytes) -> bool:
    """Whether some word of a reason header is one that only a reason header has there."""
    words = {
        "innerResetReason": (records.RESET_NORMAL, records.RESET_ABNORMAL),
        "resetType": (records.RESET_WARM,),
        "mreasonStrFlag": (records.TEXT_VALID,),
        "sreasonStrFlag": (records.TEXT_VALID,),
        "fulldumpReservedFlag": (records.FULLDUMP_RESERVED,),
        "boardIdMagic": (records.BOARD_ID_MAGIC,),
    }
    return any(records.REASON_HEADER.number(header, name) in known for name, known in words.items())


def read_file(path: Path, kind: str, report: Report) -> None:
    if kind == phone.HISTORY_NAME:
        report["kind"] = "history of a phone"
        report["history"] = read_history(path)
        return
    report["kind"] = f"{kind} image"
    end = RAWDUMP_END if kind == records.RAWDUMP else BOOTFAIL_END
    with path.open("rb") as file:
        size = file.seek(0, os.SEEK_END)
    if size < end:
        report["description"] = f"Cut off: the first {size_text(size)} of at least {size_text(end)} are there"
    if kind == records.RAWDUMP:
        read_rawdump(path, report)
    else:
        read_bootfail(path, report)


# Records


def read_record(image: Path, offset: int, record: Record) -> Tuple[Report, bytes]:
    """The record's fields by their names, none if nothing of it can be read, and its bytes."""
    report: Report = {}
    try:
        data = bytes_of(image, offset, record.size)
    except DeviceError as error:
        return {"problem": printable(str(error))}, b""
    for field in record.fields if data else ():
        if field.kind is Kind.TEXT:
            report[field.name] = text_of(record.text(data, field.name))
        else:
            number = record.number(data, field.name)
            report[field.name] = records.magic_text(number) if field.kind is Kind.MAGIC else number
    if len(data) < record.size:
        report["problem"] = f"cut off: {len(data)} of {record.size} bytes are there"
    return report, data


def read_dump_header(image: Path, offset: int) -> Report:
    report, data = read_record(image, offset, records.DUMP_HEADER)
    return {**report, "waiting": bool(records.DUMP_HEADER.number(data, "flag") & 1), "offset": offset}


def read_rawdump(image: Path, report: Report) -> None:
    report["reasonHeader"], _ = read_record(image, records.REASON_REGION.offset, records.REASON_HEADER)
    report["minidump"] = read_dump_header(image, records.MINIDUMP_REGION.offset)


def read_bootfail(image: Path, report: Report) -> None:
    meta, data = read_record(image, records.META_REGION.offset, records.FULLDUMP_META)
    if data:
        meta["crcExpected"] = records.meta_crc(data)
        meta["crcHolds"] = meta["crc"] == meta["crcExpected"]
    report["meta"] = meta


def read_userdata(image: Path, report: Report) -> None:
    """The header of the full dump that the meta record, or else the descriptor in rawdump, says is waiting."""
    meta, header = report["meta"], report["reasonHeader"]
    reserved = records.magic_text(records.FULLDUMP_RESERVED)
    if meta.get("reservedFlag") == reserved and meta["crcHolds"]:
        report["fulldump"] = read_dump_header(image, meta["dumpOffset"])
    elif header.get("fulldumpReservedFlag") == reserved:
        report["fulldump"] = read_dump_header(image, header["fulldumpOffset"])


# Folders


def list_folder(folder: Path) -> Dict[str, bool]:
    """The names in a folder in their order, and whether each is a folder itself."""
    try:
        with os.scandir(folder) as entries:
            return dict(sorted((entry.name, entry.is_dir(follow_symlinks=False)) for entry in entries))
    except OSError as error:
        raise DeviceError(f"cannot read {folder}: {error.strerror}") from error


def read_folder(path: Path, report: Report) -> None:
    entries = list_folder(path)
    if devices.is_device(path):
        read_device(path, report)
        return
    # What pulls a folder of a phone may put one around it.
    inside = [path / name for name, is_folder in entries.items() if is_folder and os.access(path / name, os.R_OK)]
    folders = [path] if pulled_kind(path) else [folder for folder in inside if pulled_kind(folder)]
    if len(folders) != 1:
        more = f"; it holds {len(folders)}, which can be named" if folders else ""
        raise DeviceError(f"{path} is neither a simulated device nor a log folder of a phone{more}")
    folder, kind = folders[0], pulled_kind(folders[0])
    report["path"], report["kind"] = printable(str(folder)), kind
    if kind == LOG_FOLDER:
        read_reliability(folder, report)
    elif kind == FULLDUMP_FOLDER:
        report["fulldumps"] = read_collected(folder)
    elif kind == DUMP_FOLDER:
        read_dumplog(folder, report)
    else:
        report["dumps"] = [read_collected(folder)]


def pulled_kind(folder: Path) -> str:
    """What kind of folder of a phone this is; empty if it is none."""
    entries, name = list_folder(folder), folder.resolve().name
    if entries.get(DUMPLOG) or entries.get(FULLDUMPLOG):
        return LOG_FOLDER
    if name == FULLDUMPLOG:
        return FULLDUMP_FOLDER
    boots = any(is_folder and phone.RECORD_TIME.fullmatch(entry) for entry, is_folder in entries.items())
    if boots or name == DUMPLOG or phone.HISTORY_NAME in entries:
        return DUMP_FOLDER
    return BOOT_FOLDER if phone.RECORD_TIME.fullmatch(name) else ""


def read_device(device: Path, report: Report) -> None:
    report["kind"] = DEVICE
    try:
        scenario = json.loads(bytes_of(device / devices.SCENARIO_FILE, 0, HISTORY_READ_LIMIT))
        report["description"] = printable(str(scenario.get("description", "")))
    except (DeviceError, ValueError, AttributeError, RecursionError):
        pass  # what the device holds can be told without
    partitions = devices.on_device(device, phone.BLOCK_FOLDER)
    read_rawdump(partitions / records.RAWDUMP, report)
    read_bootfail(partitions / records.BOOTFAIL, report)
    read_userdata(partitions / records.USERDATA, report)
    read_reliability(devices.on_device(device, phone.RELIABILITY), report)


def read_reliability(folder: Path, report: Report) -> None:
    read_dumplog(folder / DUMPLOG, report)
    fulldumps = folder / FULLDUMPLOG
    if fulldumps.is_dir() and not fulldumps.is_symlink():
        report["fulldumps"] = read_collected(fulldumps)


def read_dumplog(folder: Path, report: Report) -> None:
    try:
        if folder.is_symlink():
            raise DeviceError(f"{folder} is no folder")
        entries = list_folder(folder)
        report["dumps"] = [read_collected(folder / name) for name, is_folder in entries.items() if is_folder]
        if phone.HISTORY_NAME in entries:
            report["history"] = read_history(folder / phone.HISTORY_NAME)
    except DeviceError as error:
        report["problems"].append(printable(str(error)))


def read_collected(folder: Path) -> Report:
    """A folder of one collected boot, or the full dump folder: the files of all levels."""
    sizes: Dict[str, int] = {}
    errors: List[OSError] = []
    for parent, folders, names in os.walk(folder, onerror=errors.append):
        for path in (Path(parent, name) for name in folders + names):
            found = path.lstat()
            if not stat.S_ISDIR(found.st_mode):  # a link may lead to one
                sizes[path.relative_to(folder).as_posix()] = found.st_size if stat.S_ISREG(found.st_mode) else 0
    report: Report = {
        "name": printable(folder.resolve().name),
        "size": sum(sizes.values()),
        "done": phone.DONE_NAME in sizes,
        "files": {printable(name): sizes[name] for name in sorted(sizes)},
    }
    if errors:
        report["problem"] = f"cannot be read: {errors[0].strerror}"
    return report


def read_history(path: Path) -> Report:
    data = bytes_of(path, 0, HISTORY_READ_LIMIT)
    entries, damaged = phone.parse_history(data.decode("latin-1"))  # a character a byte
    texts = [{name: text_of(value.encode("latin-1")) for name, value in vars(entry).items()} for entry in entries]
    report: Report = {"size": path.lstat().st_size, "damagedBytes": damaged, "entries": texts}
    if report["size"] > len(data):
        report["problem"] = f"only the first {size_text(len(data))} were looked at"
    return report
