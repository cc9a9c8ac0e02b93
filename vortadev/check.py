"""Holds a boot against what its scenario promises: every partition byte, the files of the new dump folder with their
content, the history, the whole log."""

from __future__ import annotations

from dataclasses import dataclass, replace
import gzip
from itertools import groupby, zip_longest
import os
from pathlib import Path
import re
from typing import Dict, Iterator, List, Set
import zlib

from . import device, phone, records, sandbox
from .device import Image, on_device
from .errors import DeviceError, printable
from .scenario import Scenario

ANY_TIME = "TIME"  # stands for the time of the run in golden logs
RECORD_TIME = re.compile(rf"\[GetRecordTime\] get time \[({phone.RECORD_TIME.pattern})\]")
REMOVED = "[FullDumpSizeCheck] remove FileName"
OUTPUT = b"StartVorta\n"


@dataclass
class State:
    """What a run may change."""

    partitions: Dict[str, Image]
    dumps: Set[str]  # names of the folders in dumplog
    fulldumps: Set[str]  # names of all entries of fulldumplog
    history: bytes


def read_state(folder: Path) -> State:
    dumps, fulldumps = (entries(on_device(folder, path)) for path in (phone.DUMPLOG, phone.FULLDUMPLOG))
    return State(
        device.read_partitions(folder),
        {entry.name for entry in dumps if entry.is_dir()},
        {entry.name for entry in fulldumps},
        content(on_device(folder, phone.HISTORY)),
    )


def entries(folder: Path) -> List[Path]:
    return list(folder.iterdir()) if folder.is_dir() else []


def check(scenario: Scenario, folder: Path, options: sandbox.Options) -> List[str]:
    """Makes the scenario's device in the folder, runs the daemon on it as the scenario says, with the options for all
    else. Gives the broken promises, a line each."""
    return boot(scenario, folder, options).broken()


def update(scenario: Scenario, folder: Path, options: sandbox.Options) -> List[str]:
    """The same, but the log of this boot is promised from now on."""
    run = boot(scenario, folder, options)
    try:
        scenario.golden.write_text(run.masked_log(), "utf-8", "surrogateescape")
    except OSError as error:
        raise DeviceError(f"cannot write {scenario.golden}: {error.strerror}") from None
    return run.broken()


def boot(scenario: Scenario, folder: Path, options: sandbox.Options) -> Boot:
    device.create(folder, scenario)
    before = read_state(folder)
    options = replace(options, data_size=scenario.data_size)
    run = sandbox.run(folder, scenario.arguments, options, capture=True)
    return Boot(scenario, folder, before, run, echoes=not options.wrapper)


@dataclass
class Boot:
    """A run that has ended on a device. `broken` gives the promises that it broke."""

    scenario: Scenario
    folder: Path
    before: State
    run: sandbox.Run
    echoes: bool = True  # standard error holds what the daemon wrote there, and nothing else

    def __post_init__(self) -> None:
        self.expect = self.scenario.expect
        self.after = read_state(self.folder)
        found = RECORD_TIME.search(self.run.log)
        self.time = found[1] if found else ANY_TIME

    def masked_log(self) -> str:
        """The log with nothing in it that varies: the time of the run, the order in which a folder was emptied."""
        lines = self.run.log.replace(self.time, ANY_TIME).splitlines(keepends=True)
        runs = groupby(lines, lambda line: REMOVED in line)
        return "".join(line for removed, run in runs for line in (sorted(run) if removed else run))

    def broken(self) -> List[str]:
        return ["broken promise: " + promise for promise in self.broken_promises()]

    def broken_promises(self) -> Iterator[str]:
        before, after = self.before.partitions, self.after.partitions
        yield from unless(not self.run.timed_out, "the daemon ended within its time limit")
        wanted, found = self.expect.status, self.run.status
        yield from unless(found == wanted, f"exit status {wanted}, found {found}")
        yield from unless(after.keys() == before.keys(), "the daemon makes and removes no partition")
        for name, expected in self.expected_images().items():
            yield from differing_byte(name, expected, after.get(name, expected))
        yield from self.broken_dump_folder()
        yield from self.broken_fulldump()
        yield from self.broken_history()
        yield from self.broken_log()
        yield from self.broken_output()
        yield from self.broken_files()

    def region_before(self, region: records.Region) -> bytes:
        return self.before.partitions.get(region.partition, Image(0)).read(region.offset, region.size)

    def expected_images(self) -> Dict[str, Image]:
        """The partitions before the run with the bytes that the scenario lets it change."""
        images = {name: Image(image.size, dict(image.blocks)) for name, image in self.before.partitions.items()}
        device.put(images, records.RAWDUMP, records.REASON_REGION.offset, self.expect.reason_header)
        device.put(images, records.BOOTFAIL, records.META_REGION.offset, self.expect.meta)
        dumps = {"minidump": (records.RAWDUMP, self.scenario.minidump)}
        if self.scenario.fulldump:
            dumps["fulldump"] = (records.USERDATA, self.scenario.fulldump)
        for kind in dumps.keys() & set(self.expect.cleared):
            partition, dump = dumps[kind]
            device.put(images, partition, dump.offset, bytes(len(dump.header)))
        return images

    def broken_dump_folder(self) -> Iterator[str]:
        added = self.after.dumps - self.before.dumps
        wanted = " ".join(self.expect.collected) or "nothing"
        if len(added) != (1 if self.expect.collected else 0):
            yield f"new dump folder with {wanted}; found {len(added)} new folders"
        elif added:
            folder = on_device(self.folder, phone.DUMPLOG) / added.pop()
            names = sorted(entry.name for entry in folder.iterdir())
            yield from unless(folder.name == self.time, "the dump folder is named by the run's time")
            found = " ".join(names) or "nothing"
            yield from unless(names == self.expect.collected, f"dump folder with {wanted}; found {found}")
            for name in names:
                yield from self.broken_file(folder / name)

    def broken_file(self, file: Path) -> Iterator[str]:
        if file.name in records.LOG_REGIONS:
            text = phone.strings(self.region_before(records.LOG_REGIONS[file.name]))
            yield from unless(content(file) == text, f"{file.name} holds the text of its region")
        elif file.name == phone.RAWDUMP_NAME:
            try:
                whole = gzip.decompress(content(file)) == self.region_before(records.MINIDUMP_REGION)
                yield from unless(whole, f"{file.name} unpacks to the minidump region")
            except (EOFError, OSError, zlib.error) as error:
                yield f"{file.name} is a whole gzip file; found: {error}"

    def broken_fulldump(self) -> Iterator[str]:
        added = [name for name in self.after.fulldumps - self.before.fulldumps if phone.FULLDUMP_NAME in name]
        wanted, dump = self.expect.fulldump, self.scenario.fulldump
        yield from unless(wanted == bool(added), f"{'a' if wanted else 'no'} full dump is collected")
        if added and dump:
            yield from unless(phone.DONE_NAME in self.after.fulldumps, "the full dump is closed by its marker")
            rest = -dump.size % records.COPY_CHUNK if dump.size >= records.COPY_CHUNK else 0
            copied = self.region_before(records.Region(records.USERDATA, dump.offset, dump.size + rest))
            found = content(on_device(self.folder, phone.FULLDUMPLOG) / added[0])
            yield from unless(found == copied, "the full dump holds the bytes of userdata")

    def broken_history(self) -> Iterator[str]:
        wanted = self.expect.history
        expected = "" if wanted and wanted.renewed else as_text(self.before.history)
        if wanted:
            expected += phone.history_line(wanted.reason, self.time, wanted.category)
        yield from differing_line("the history", expected, as_text(self.after.history))

    def broken_log(self) -> Iterator[str]:
        golden, log = self.scenario.golden, self.run.log
        if golden.exists():
            yield from differing_line("the log", as_text(content(golden)), self.masked_log())
        elif self.scenario.is_shipped:
            yield f"the log of {golden}; vortadev check --update {self.scenario.name} writes it"
        for text in self.expect.log:
            yield from unless(text in log, f"a log line with: {printable(text)}")
        for text in self.expect.not_log:
            yield from unless(text not in log, f"no log line with: {printable(text)}")

    def broken_output(self) -> Iterator[str]:
        """The daemon echoes each message to standard error, where a line feed at its end makes an empty line."""
        echo = "".join(f"[vorta] {line.partition(': ')[2]}\n" for line in self.run.log.split("\n")[:-1])
        err, out = as_text(self.run.err), self.run.out
        if self.echoes:
            yield from differing_line("standard error", echo.replace("\\n", "\n"), err.replace("\n\n", "\n"))
        yield from unless(out == OUTPUT, f"standard output {OUTPUT!r}, found {out!r}")

    def broken_files(self) -> Iterator[str]:
        for paths, wanted, what in ((self.expect.present, True, "there"), (self.expect.gone, False, "gone")):
            for path in paths:
                yield from unless(os.path.lexists(self.folder / "data" / path) == wanted, f"/data/{path} is {what}")
        expected = "".join(event + "\n" for event in self.expect.factory_events)
        found = content(on_device(self.folder, device.FACTORY_EVENTS))
        yield from differing_line("the factory events", expected, as_text(found))


def unless(holds: bool, promise: str) -> List[str]:
    return [] if holds else [promise]


def content(file: Path) -> bytes:
    return file.read_bytes() if file.is_file() else b""


def as_text(data: bytes) -> str:
    return data.decode("utf-8", "surrogateescape")


def differing_byte(name: str, expected: Image, found: Image) -> Iterator[str]:
    """Where the partition's first other byte is."""
    if found.size != expected.size:
        yield f"{name} keeps its size"
    for offset in sorted(found.blocks.keys() | expected.blocks.keys()):
        block, promised = (image.read(offset, device.BLOCK) for image in (found, expected))
        if block != promised:
            index = next((i for i, pair in enumerate(zip(block, promised)) if pair[0] != pair[1]), 0)
            yield f"{name} as promised; the first other byte is at offset {offset + index}"
            return


def differing_line(what: str, expected: str, found: str) -> Iterator[str]:
    """The first line in which the texts differ."""
    pairs = zip_longest(expected.split("\n"), found.split("\n"), fillvalue="nothing")
    for number, (promised, line) in enumerate(pairs, 1):
        if promised != line:
            yield f"line {number} of {what}: {printable(promised) or 'its end'}; found {printable(line) or 'its end'}"
            return
