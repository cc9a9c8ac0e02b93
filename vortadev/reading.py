"""Reads what a device, a partition image or a folder pulled from a phone holds into a report: the object that
`show --json` prints. What is read may come from anybody: `outside` opens it, and what cannot be read or understood is
told as a `problem`."""

from __future__ import annotations

from contextlib import suppress
import json
import os
from pathlib import Path
import stat
from typing import Any, Dict, List, Tuple

from . import device as devices
from . import phone, records
from .errors import DeviceError, printable, size_text
from .outside import File, failure, inside, is_folder, list_folder
from .records import Kind, Record

Report = Dict[str, Any]

HISTORY_READ_LIMIT = 2 * phone.HISTORY_LIMIT  # a longer one is not the daemon's
FILES_LISTED = 100  # of one collected boot
ENDS = {  # what an image of a partition reaches to at least
    records.RAWDUMP: records.MINIDUMP_REGION.offset + records.MINIDUMP_REGION.size,
    records.BOOTFAIL: records.META_REGION.offset + records.META_REGION.size,
}

DUMPLOG, FULLDUMPLOG = Path(phone.DUMPLOG).name, Path(phone.FULLDUMPLOG).name
DEVICE = "simulated device"
LOG_FOLDER = "log folder of a phone"
DUMP_FOLDER = "dump folder of a phone"
FULLDUMP_FOLDER = "full dump folder of a phone"
BOOT_FOLDER = "collected boot of a phone"
IMAGE_FOLDER = "folder of images"


def read(path: Path, kind: str = "") -> Report:
    """`kind` says of a file which partition's image it is, where it does not say so itself."""
    report: Report = {"path": printable(str(path)), "kind": "", "description": "", "problems": []}
    try:
        mode = path.stat().st_mode
    except OSError as error:
        raise failure(path, error) from error
    if path.is_symlink():  # this one was named by a person
        path = path.resolve()
    if stat.S_ISDIR(mode) and kind:
        raise DeviceError(f"{path}: expected a file that is read as {kind}, found a folder")
    if stat.S_ISDIR(mode):
        read_folder(path, report)
    elif stat.S_ISREG(mode) or stat.S_ISBLK(mode):
        file = File(path, device=True)
        read_file(file, kind or recognised(file), report)
    else:
        raise DeviceError(f"{path} is no file or folder that can be shown")
    return report


def text_of(data: bytes) -> str:
    return printable(data.decode("ascii", "surrogateescape"))


# Files


def recognised(file: File) -> str:
    """The kind of a file, by what it says itself; its name decides only where its size fits and its records are
    clear."""
    start = file.at(0, records.REASON_HEADER.size)
    if start.startswith(b"\x1f\x8b"):
        raise DeviceError(f"{file.path} is a packed dump, no partition image; gzip -dc unpacks it")
    if file.path.name == phone.HISTORY_NAME or start.startswith(phone.HISTORY_TEXTS[0].encode("ascii")):
        return phone.HISTORY_NAME
    if speaks(start):
        return records.RAWDUMP
    meta = file.at(records.META_REGION.offset, records.META_REGION.size)
    if records.FULLDUMP_META.number(meta, "magic") == records.META_MAGIC:
        return records.BOOTFAIL
    for kind, end in ENDS.items():
        if kind in file.path.name and file.size() >= end:
            return kind
    raise DeviceError(
        f"{file.path}: expected an image of {records.RAWDUMP} or {records.BOOTFAIL}, found the record of neither; "
        "--as tells which of them it is"
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


def read_file(file: File, kind: str, report: Report) -> None:
    if kind == phone.HISTORY_NAME:
        report["kind"] = "history of a phone"
        report["history"] = read_history(file)
        return
    report["kind"] = f"{kind} image"
    size, end = file.size(), ENDS[kind]
    if size < end:
        report["description"] = f"Cut off: the first {size_text(size)} of at least {size_text(end)} are there"
    if kind == records.RAWDUMP:
        read_rawdump(file, report)
    else:
        read_bootfail(file, report)


# Records


def read_record(image: File, offset: int, record: Record) -> Tuple[Report, bytes]:
    """The record's fields by their names, none if nothing of it can be read, and its bytes."""
    report: Report = {}
    try:
        data = image.at(offset, record.size)
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


def read_dump_header(image: File, offset: int) -> Report:
    report, data = read_record(image, offset, records.DUMP_HEADER)
    return {**report, "waiting": bool(records.DUMP_HEADER.number(data, "flag") & 1), "offset": offset}


def read_rawdump(image: File, report: Report) -> None:
    report["reasonHeader"], _ = read_record(image, records.REASON_REGION.offset, records.REASON_HEADER)
    report["minidump"] = read_dump_header(image, records.MINIDUMP_REGION.offset)


def read_bootfail(image: File, report: Report) -> None:
    meta, data = read_record(image, records.META_REGION.offset, records.FULLDUMP_META)
    if data:
        meta["crcExpected"] = records.meta_crc(data)
        meta["crcHolds"] = meta["crc"] == meta["crcExpected"]
    report["meta"] = meta


def read_userdata(image: File, report: Report) -> None:
    """The header of the full dump that the meta record, or else the descriptor in rawdump, says is waiting."""
    meta, header = report["meta"], report["reasonHeader"]
    reserved = records.magic_text(records.FULLDUMP_RESERVED)
    if meta.get("reservedFlag") == reserved and meta["crcHolds"]:
        report["fulldump"] = read_dump_header(image, meta["dumpOffset"])
    elif header.get("fulldumpReservedFlag") == reserved:
        report["fulldump"] = read_dump_header(image, header["fulldumpOffset"])


# Folders


def read_folder(path: Path, report: Report) -> None:
    if is_device(path):
        read_device(path, report)
        return
    # What pulls a folder of a phone may put one around it, and images may lie beside it.
    kind = pulled_kind(path)
    below = [] if kind else [path / name for name, is_dir in list_folder(path).entries.items() if is_dir]
    pulled = [path] if kind else [folder for folder in below if pulled_kind(folder)]
    images = images_among(path, listed(path)) or [
        image for folder in below for image in images_among(folder, listed(folder))
    ]
    if len(pulled) > 1 or not pulled and not images:
        more = f"; it holds {len(pulled)}: show takes one of them, report all" if pulled else ""
        raise DeviceError(f"{path} is neither a simulated device nor a log folder of a phone{more}")
    report["kind"] = IMAGE_FOLDER
    if pulled:
        report["path"] = printable(str(pulled[0]))
        read_pulled(pulled[0], report)
    if images:
        report["images"] = [read(image) for image in images]


def is_device(folder: Path) -> bool:
    try:
        return is_folder(inside(folder, phone.BLOCK_FOLDER)) and (folder / devices.SCENARIO_FILE).exists()
    except (DeviceError, OSError):
        return False


def images_among(folder: Path, entries: Dict[str, bool]) -> List[Path]:
    found = []
    for name, is_dir in entries.items():
        with suppress(DeviceError):
            if not is_dir and recognised(File(folder / name)) in ENDS:
                found.append(folder / name)
    return found


def listed(folder: Path) -> Dict[str, bool]:
    """What a folder holds; nothing if it cannot be read."""
    try:
        return list_folder(folder).entries
    except DeviceError:
        return {}


def pulled_kind(folder: Path) -> str:
    """What kind of folder of a phone this is; empty if it is none."""
    if is_folder(folder / DUMPLOG) or is_folder(folder / FULLDUMPLOG):
        return LOG_FOLDER
    name = folder.absolute().name
    if name == FULLDUMPLOG:
        return FULLDUMP_FOLDER
    boots = any(is_dir and phone.RECORD_TIME.fullmatch(entry) for entry, is_dir in listed(folder).items())
    if boots or name == DUMPLOG or os.path.lexists(folder / phone.HISTORY_NAME):
        return DUMP_FOLDER
    return BOOT_FOLDER if phone.RECORD_TIME.fullmatch(name) else ""


def read_pulled(folder: Path, report: Report) -> None:
    kind = report["kind"] = pulled_kind(folder)
    if kind == LOG_FOLDER:
        read_reliability(folder, report)
    elif kind == FULLDUMP_FOLDER:
        report["fulldumps"] = read_collected(folder)
    elif kind == DUMP_FOLDER:
        read_dumplog(folder, report)
    else:
        report["dumps"] = [read_collected(folder)]


def read_device(device: Path, report: Report) -> None:
    report["kind"] = DEVICE
    try:
        scenario = json.loads(File(device / devices.SCENARIO_FILE).at(0, HISTORY_READ_LIMIT))
        report["description"] = printable(str(scenario.get("description", "")))
    except (DeviceError, ValueError, AttributeError, RecursionError):
        pass  # what the device holds can be told without
    read_rawdump(File(devices.partition_path(device, records.RAWDUMP)), report)
    read_bootfail(File(devices.partition_path(device, records.BOOTFAIL)), report)
    read_userdata(File(devices.partition_path(device, records.USERDATA)), report)
    try:
        read_reliability(inside(device, phone.RELIABILITY), report)
    except DeviceError as error:
        report["problems"].append(printable(str(error)))


def read_reliability(folder: Path, report: Report) -> None:
    read_dumplog(folder / DUMPLOG, report)
    if is_folder(folder / FULLDUMPLOG):
        report["fulldumps"] = read_collected(folder / FULLDUMPLOG)


def read_dumplog(folder: Path, report: Report) -> None:
    try:
        entries, more = list_folder(folder)
        report["dumps"] = [read_collected(folder / name) for name, is_dir in entries.items() if is_dir]
        if more:
            report["problems"].append(printable(f"{folder} holds {more} more names, which were not looked at"))
        if os.path.lexists(folder / phone.HISTORY_NAME):
            report["history"] = read_history(File(folder / phone.HISTORY_NAME))
    except DeviceError as error:
        report["problems"].append(printable(str(error)))


def read_collected(folder: Path) -> Report:
    """A folder of one collected boot, or the full dump folder. A folder in it, which vorta never makes, is named."""
    report: Report = {"name": printable(folder.absolute().name), "size": 0, "done": False, "files": {}}
    try:
        entries, more = list_folder(folder)
    except DeviceError as error:
        return {**report, "problem": printable(str(error))}
    names, problems = list(entries), []
    for name in sorted(names[:FILES_LISTED]):
        try:
            size = 0 if entries[name] else File(folder / name).listed_size()
            report["files"][printable(name) + "/" * entries[name]] = size
        except DeviceError as error:
            problems.append(printable(str(error)).replace(printable(f"{folder}/"), ""))
    more += len(names[FILES_LISTED:])
    problems += [f"{more} more names were not looked at"] if more else []
    report["size"] = sum(report["files"].values())
    report["done"] = phone.DONE_NAME in entries
    return {**report, "problem": "; ".join(problems)} if problems else report


def read_history(file: File) -> Report:
    data = file.at(0, HISTORY_READ_LIMIT)
    entries, damaged = phone.parse_history(data.decode("latin-1"))  # a character a byte
    texts = [{name: text_of(value.encode("latin-1")) for name, value in vars(entry).items()} for entry in entries]
    report: Report = {"size": file.size(), "damagedBytes": damaged, "entries": texts}
    if report["size"] > len(data):
        report["problem"] = f"only the first {size_text(len(data))} were looked at"
    return report
