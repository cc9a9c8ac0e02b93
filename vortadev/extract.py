"""Writes what an image of a partition holds as files: of rawdump the logs, the minidump and what its records say, of
userdata the full dump."""

from __future__ import annotations

import argparse
from contextlib import contextmanager, suppress
import gzip
import json
import os
from pathlib import Path
from typing import BinaryIO, Iterable, Iterator, List, Sequence

from . import phone, reading, records, show
from .errors import DeviceError, printable, size_text
from .outside import File
from .reading import Report
from .records import Region
from .terminal import complain, say

FAILED = 1  # status: something is missing
REASON_NAME = "reason.json"
LARGEST_FULLDUMP = 17716740096  # bytes; the daemon takes it for the size where only the descriptor in rawdump is left
CHUNK = 1 << 20
ZEROS = bytes(CHUNK)


def add_options(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("image", metavar="IMAGE", type=Path, help="of rawdump; with --meta, of userdata")
    parser.add_argument("out", metavar="OUT", type=Path, help="folder for the files; it is made if it is missing")
    what = "the image of bootfail_info, or else of rawdump, that says where in userdata the full dump lies"
    parser.add_argument("--meta", metavar="IMAGE", type=Path, help=what)
    parser.add_argument("--minidump", action="store_true", help="the minidump also if none waits")
    parser.add_argument("--force", action="store_true", help="replace files of an earlier extract")
    what = "read IMAGE as that, whatever it says itself"
    parser.add_argument("--as", dest="kind", choices=(records.RAWDUMP,), default="", help=what)


def extract(arguments: argparse.Namespace) -> int:
    """the logs and dumps of an image, as files"""
    out: Path = arguments.out
    if arguments.meta:
        report = userdata(arguments.image, out, arguments.meta, arguments.force)
    else:
        report = rawdump(arguments.image, out, arguments.minidump, arguments.force, arguments.kind)
    say("".join(f"{size_text(size):>10}  {printable(str(out / name))}\n" for name, size in report["files"].items()))
    for text in report["damaged"]:
        complain(f"{arguments.image} is cut off: {text}")
    return FAILED if report["damaged"] else 0


def rawdump(image: Path, out: Path, minidump: bool, force: bool, kind: str = "") -> Report:
    """The minidump is packed if it waits, or if `minidump` asks for it. Gives what is in reason.json."""
    report = reading.read(image, kind)
    if report["kind"] != f"{records.RAWDUMP} image":
        raise DeviceError(f"{image}: expected an image of {records.RAWDUMP}, found: {report['kind']}")
    file = File(image.resolve(), device=True)
    size = report["size"] = file.size()
    regions = dict(records.LOG_REGIONS)
    if minidump or report["minidump"]["waiting"]:
        regions[phone.RAWDUMP_NAME] = records.MINIDUMP_REGION
    there = {name: region for name, region in regions.items() if region.offset < size}
    make_room(out, there, [image], force)
    for name, region in there.items():
        with new_file(out / name) as target:
            if name == phone.RAWDUMP_NAME:
                pack(file, region, target)
            else:
                target.write(phone.strings(file.at(region.offset, region.size)))
    report["waiting"] = waiting(report)
    report["damaged"] = [
        f"{name}: {max(size - region.offset, 0)} of {region.size} bytes are there"
        for name, region in regions.items()
        if size < region.offset + region.size
    ]
    return close(out, there, report)


def waiting(report: Report) -> List[str]:
    """What the next boot would collect."""
    header = report["reasonHeader"]
    warm = header.get("resetType") == records.magic_text(records.RESET_WARM)
    reserved = header.get("fulldumpReservedFlag") == records.magic_text(records.FULLDUMP_RESERVED)
    logs = ["logs"] if warm and header["bootLevel"] >= records.ABNORMAL_LEVEL else []
    return logs + ["minidump"] * report["minidump"]["waiting"] + ["fulldump"] * reserved


def userdata(image: Path, out: Path, meta: Path, force: bool) -> Report:
    """`meta` is the image that says where the full dump lies: bootfail_info, or rawdump with its descriptor."""
    file = File(image.resolve(), device=True)
    report: Report = {"meta": {}, "reasonHeader": {}, **reading.read(meta), "size": file.size()}
    reading.read_userdata(file, report)
    known = report["meta"].get("dumpSize", LARGEST_FULLDUMP)
    offset = report.get("fulldump", {}).get("offset", 0)
    if not offset or not 0 < known <= LARGEST_FULLDUMP:
        why = "it names no full dump" if report["meta"].get("crcHolds", True) else "its checksum is broken"
        raise DeviceError(f"{meta} does not tell where the full dump lies: {why}")
    there = report["size"] - offset
    if there <= 0:
        raise DeviceError(f"{image} ends before the full dump at {offset} begins")
    make_room(out, [phone.FULLDUMP_NAME], [image, meta], force)
    # As the daemon does: beyond a chunk, whole chunks.
    copied = known + -known % records.COPY_CHUNK if known >= records.COPY_CHUNK else known
    with new_file(out / phone.FULLDUMP_NAME) as target:
        copy_sparse(file, Region(records.USERDATA, offset, copied), target)
    report["waiting"] = ["fulldump"] if report["fulldump"]["waiting"] else []
    is_cut = there < known and report["meta"]
    report["damaged"] = [f"{phone.FULLDUMP_NAME}: {there} of {known} bytes are there"] if is_cut else []
    return close(out, [phone.FULLDUMP_NAME], report)


# Files


def make_room(out: Path, names: Iterable[str], images: Sequence[Path], force: bool) -> None:
    """Complains before anything is written."""
    for path in (out / name for name in (*names, REASON_NAME)):
        if path.exists() and any(os.path.samefile(path, image) for image in images):
            raise DeviceError(f"{path} is what is to be read; choose another folder")
        if os.path.lexists(path) and not force:
            raise DeviceError(f"{path} is there already; --force replaces it")
    try:
        out.mkdir(parents=True, exist_ok=True)
    except OSError as error:
        raise DeviceError(f"cannot make the folder {out}: {error.strerror}") from error


@contextmanager
def new_file(path: Path) -> Iterator[BinaryIO]:
    """Gets its name when it is whole, so that what was interrupted leaves no half file."""
    part = path.with_name(path.name + ".part")
    try:
        with part.open("wb") as file:
            yield file
        os.replace(part, path)
    except OSError as error:
        raise DeviceError(f"cannot write {path}: {error.strerror}") from error
    finally:
        with suppress(OSError):
            part.unlink()


def chunks(file: File, region: Region) -> Iterator[bytes]:
    """The bytes of a region in their order, as far as the file reaches."""
    for done in range(0, region.size, CHUNK):
        chunk = file.at(region.offset + done, min(CHUNK, region.size - done))
        if not chunk:
            return
        yield chunk


def pack(file: File, region: Region, target: BinaryIO) -> None:
    """Without name and time, so that the same dump gives the same file."""
    with gzip.GzipFile("", "wb", 6, target, 0) as stream:
        for chunk in chunks(file, region):
            stream.write(chunk)


def copy_sparse(file: File, region: Region, target: BinaryIO) -> None:
    for chunk in chunks(file, region):
        if chunk == ZEROS[: len(chunk)]:
            target.seek(len(chunk), os.SEEK_CUR)
        else:
            target.write(chunk)
    target.truncate()


def close(out: Path, names: Iterable[str], report: Report) -> Report:
    """Writes the records in numbers and words beside the files, last, as it tells of them."""
    sizes = {name: (out / name).stat().st_size for name in names}
    report = {**report, "words": show.words(report).splitlines(), "files": sizes}
    with new_file(out / REASON_NAME) as file:
        file.write((json.dumps(report, indent=2, ensure_ascii=False) + "\n").encode("utf-8"))
    return report
