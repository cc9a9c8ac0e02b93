"""Reads what was pulled from one phone into plain data."""

from __future__ import annotations

from contextlib import suppress
from dataclasses import replace
from datetime import datetime
from pathlib import Path
import re
import stat
from typing import Dict, Iterable, Iterator, List, Optional, Tuple
import zlib

from . import attention, kernellog, outside, reading, records
from . import device as devices
from . import phone as phones
from .errors import DeviceError, printable, size_text
from .evidence import Boot, Collection, KernelLog, Phone, State, Storage, restart_of
from .finding import Source
from .reading import Report

KERNEL_LOG_LIMIT = records.LOG_REGIONS[attention.KERNEL_LOG].size  # bytes
FULLDUMP_FILE = re.compile(rf"({phones.RECORD_TIME.pattern})-{re.escape(phones.FULLDUMP_NAME)}", re.ASCII)
USER_TYPE = re.compile(rb"^ro\.logsystem\.usertype=\s*(\d{0,9})", re.MULTILINE)
INTERNAL_USERS = range(2, 6)
PROPERTIES_LIMIT = 1 << 20
DUMP_SIZE = records.MINIDUMP_REGION.size
PIECE, UNPACKED_PIECE = 1 << 16, 1 << 18  # bytes of a packed dump that are read, and unpacked, at once

ABOUT, RECORDS = ("path", "kind", "description", "problems"), ("reasonHeader", "minidump", "meta", "fulldump")
Entry = Dict[str, str]  # time, category and reason of a history line


def read(source: Source, since: Optional[datetime] = None) -> Phone:
    """Never fails: what cannot be read is told as a problem of the phone."""
    try:
        whole = read_whole(source)
    except (DeviceError, OSError) as error:
        problem = str(error) if isinstance(error, DeviceError) else f"cannot be read: {error.strerror}"
        whole = Phone(source.name, printable(str(source.path)), problems=(printable(problem),))
    boots = tuple(boot for boot in whole.boots if not (since and boot.when and boot.when < since))
    times = {"", *(boot.time for boot in boots)}
    attentions = tuple(found for found in attention.of_phone(whole) if found.time in times)
    return replace(whole, boots=boots, attentions=attentions)


def read_whole(source: Source) -> Phone:
    report = reading.read(source.path)
    phone = read_folder(Phone(source.name, printable(str(source.path))), source.path, report)
    problems, waiting, images = list(phone.problems), 0, []
    for image in (report, *report.get("images", ()), *map(reading.read, source.images)):
        parts = [image[name] for name in RECORDS if name in image]
        texts = [part["problem"] for part in parts if "problem" in part]
        if parts and image["kind"] != reading.DEVICE and image["description"]:
            texts.append(image["description"])  # it ends early
        name = "" if image is report else f"{Path(image['path']).name}: "
        problems += [name + text for text in dict.fromkeys(texts)]
        waiting += sum(bool(part.get("waiting")) for part in parts)
        if parts:
            images.append({name: image[name] for name in (*ABOUT, *RECORDS) if name in image})
    return replace(phone, images=tuple(images), waiting=waiting, problems=tuple(problems))


def read_folder(phone: Phone, path: Path, report: Report) -> Phone:
    """The phone with its boots."""
    dumplog, fulldumplog = folders_of(path, report["kind"])
    history = report.get("history", {"entries": [], "damagedBytes": 0})
    dumps = {dump["name"]: dump for dump in report.get("dumps", ()) if phones.RECORD_TIME.fullmatch(dump["name"])}
    lined, problems = {entry["time"] for entry in history["entries"]}, report["problems"] + problems_of(report)
    found = {time: collection_of(dumplog / time, dump, time in lined, problems) for time, dump in dumps.items()}
    fulldumps = fulldumps_of(fulldumplog, report.get("fulldumps", {"files": {}}))
    boots = tuple(
        boot_of(time, entry, found.pop(time, None), fulldumps.get(time))  # a second line of that time has no folder
        for time, entry in in_order(history["entries"], {*found, *fulldumps})
    )
    phone = replace(phone, boots=boots, damaged=history["damagedBytes"], problems=tuple(problems))
    if report["kind"] not in (reading.LOG_FOLDER, reading.DUMP_FOLDER, reading.DEVICE) or report["problems"]:
        return phone
    storage = storage_of(path, dumplog, report, boots)
    return replace(phone, storage=storage, dumplog=printable(str(dumplog)))


def folders_of(path: Path, kind: str) -> Tuple[Path, Path]:
    """The dump folder and the full dump folder."""
    if kind == reading.DEVICE:
        path = devices.on_device(path, phones.RELIABILITY)
    dumplog = {reading.DUMP_FOLDER: path, reading.BOOT_FOLDER: path.parent}.get(kind, path / reading.DUMPLOG)
    return dumplog, path if kind == reading.FULLDUMP_FOLDER else path / reading.FULLDUMPLOG


def problems_of(report: Report) -> List[str]:
    parts = {dump["name"]: dump for dump in report.get("dumps", ())}
    parts.update({reading.FULLDUMPLOG: report.get("fulldumps", {}), phones.HISTORY_NAME: report.get("history", {})})
    return [f"{name}: {part['problem']}" for name, part in parts.items() if "problem" in part]


def in_order(lines: List[Entry], times: Iterable[str]) -> Iterator[Tuple[str, Entry]]:
    """The lines, and each of the times that none of them has in front of the first line with a later one."""
    waiting = sorted(set(times) - {line["time"] for line in lines}, reverse=True)
    for line in lines:
        while waiting and waiting[-1] < line["time"]:
            yield waiting.pop(), {}
        yield line["time"], line
    for time in reversed(waiting):
        yield time, {}


def boot_of(time: str, entry: Entry, collection: Optional[Collection], fulldump: Optional[Collection]) -> Boot:
    # A text ends in a line feed if it stood last on a command line.
    texts = {name: text.removesuffix("\\n") for name, text in entry.items()}
    category, reason = texts.get("category"), texts.get("reason")
    when = None
    with suppress(ValueError):
        when = datetime.strptime(time[:14], "%Y%m%d%H%M%S")
    restart = restart_of(category, reason, bool(collection and (collection.done or has_logs(collection.files))))
    return Boot(time, restart, when, category, reason, collection, fulldump)


def has_logs(files: Iterable[str]) -> bool:
    return any(name in files or name + phones.TMP_SUFFIX in files for name in records.LOG_REGIONS)


# Collections


def collection_of(folder: Path, dump: Report, has_line: bool, problems: List[str]) -> Collection:
    files, done = dump["files"], dump["done"]
    minidump, problem = State.CUT if phones.TMP_DUMP_NAME in files else State.ABSENT, ""
    if phones.RAWDUMP_NAME in files:
        problem = unpacking_problem(folder / phones.RAWDUMP_NAME)
        minidump = State.CUT if problem else State.WHOLE
    if minidump is State.CUT and files.get(phones.TMP_DUMP_NAME) == DUMP_SIZE:
        minidump, problem = State.WAITING, ""  # nothing is lost: the raw copy tells of it
    # A run that found no logs to save leaves the minidump that had waited, and no marker.
    closed = done or (has_line and minidump is not State.ABSENT and not has_logs(files))
    state = State.OPEN if not closed else State.CUT if minidump is State.CUT else State.WHOLE
    kernel = kernel_of(folder, files, problems)
    return Collection(printable(str(folder)), state, done, files, minidump, problem=problem, kernel=kernel)


def unpacking_problem(path: Path) -> str:
    """What is wrong with a packed minidump; empty if it is whole. At most twice its size is unpacked."""
    inflate, size = zlib.decompressobj(zlib.MAX_WBITS + 16), 0
    try:
        with outside.File(path).open() as file:
            while not inflate.eof and size <= 2 * DUMP_SIZE:
                piece = inflate.unconsumed_tail or file.read(PIECE)
                if not piece:
                    return f"{path.name} ends early, at {size_text(size)} of {size_text(DUMP_SIZE)}"
                size += len(inflate.decompress(piece, UNPACKED_PIECE))
    except zlib.error:
        return f"{path.name} is damaged behind {size_text(size)} of {size_text(DUMP_SIZE)}"
    except (DeviceError, OSError) as error:
        return f"{path.name} cannot be read: {printable(str(error))}"
    if size == DUMP_SIZE:
        return ""
    return (
        f"{path.name} unpacks to {'more than' if size > DUMP_SIZE else size_text(size) + ' of'} {size_text(DUMP_SIZE)}"
    )


def fulldumps_of(folder: Path, report: Report) -> Dict[str, Collection]:
    """By the time of the run that saved it; there is one at most, unless somebody else put more there."""
    found = {}
    for name, size in report["files"].items():
        match = FULLDUMP_FILE.fullmatch(name)
        if match:
            state = State.OPEN if not report["done"] else State.WHOLE if size else State.CUT
            problem = f"{name} is empty" if state is State.CUT else ""
            path = printable(str(folder / name))
            found[match[1]] = Collection(path, state, report["done"], {name: size}, State.ABSENT, True, problem)
    return found


def kernel_of(folder: Path, files: Dict[str, int], problems: List[str]) -> Optional[KernelLog]:
    """From the raw copy if one was left: then the text cannot be trusted."""
    raw = attention.KERNEL_LOG + phones.TMP_SUFFIX
    name = raw if raw in files else attention.KERNEL_LOG
    try:
        data = outside.File(folder / name).at(0, KERNEL_LOG_LIMIT) if files.get(name) else b""
    except DeviceError as error:
        problems.append(printable(str(error)))
        data = b""
    return kernellog.read(phones.strings(data) if name == raw else data) if data else None


def build_of(device: Path) -> Optional[str]:
    try:
        types = USER_TYPE.findall(outside.File(devices.on_device(device, phones.BUILD_PROP)).at(0, PROPERTIES_LIMIT))
    except DeviceError:
        return None
    return "internal" if types and int(types[-1] or 0) in INTERNAL_USERS else "commercial"


def storage_of(path: Path, dumplog: Path, report: Report, boots: Iterable[Boot]) -> Storage:
    """The likely limit where the build is not known: sold phones keep minidumps only for remote debugging."""
    build = "internal" if any(boot.fulldump for boot in boots) else None
    if report["kind"] == reading.DEVICE:
        build = build_of(path)
    minidump = any(boot.collection and boot.collection.minidump is not State.ABSENT for boot in boots)
    limit = phones.DUMPLOG_LIMITS[build or ("internal" if minidump else "commercial")]
    entries = outside.list_folder(dumplog).entries
    found = [(dumplog / name).lstat() for name in entries]
    size = sum(dump["size"] for dump in report.get("dumps", ()))
    size += sum(status.st_size for status in found if stat.S_ISREG(status.st_mode))
    first = min(entries, default="")  # a file there is never removed, and keeps the folders behind it
    return Storage(size, limit, build, printable(first) if entries.get(first) else None)
