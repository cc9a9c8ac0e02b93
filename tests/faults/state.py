"""Simulated devices for the campaigns: made once for each boot, copied for each run, run under strace, and read back as
plain bytes. Paths are the phone's; those of folders end in a slash."""

from __future__ import annotations

from dataclasses import dataclass, replace
from functools import cached_property
import hashlib
import os
from pathlib import Path
import re
import shutil
import subprocess
from typing import Dict, Iterable, List, Optional, Sequence

from vortadev import device as devices, phone, records, sandbox, scenario
from vortadev.device import Image, on_device
from vortadev.records import Region
from vortadev.scenario import Scenario

RUN_TIME = re.compile(r"(?<!\d)(?!2024)\d{14}(-\d{8}|(?!-\d))")  # of 2024 are the boots that a device starts with
TIME_LIMIT = 20  # seconds for a boot that takes less than one


def header_field(first: str, last: str = "") -> Region:
    start, end = (records.REASON_HEADER.field(name) for name in (first, last or first))
    return Region(records.RAWDUMP, start.offset, end.offset + end.size - start.offset)


# What boots write in the partitions. A field is whole, old or new, at any time.
FULLDUMP = scenario.load("full-dump").fulldump or scenario.Dump(0, 0, b"", scenario.Fill())
FIELDS = {
    "corvel": header_field("corvel"),
    "node": records.REASON_NODE_REGION,
    "usertype": header_field("userType"),
    "board": header_field("boardIdMagic", "boardId"),
    "minidump": replace(records.MINIDUMP_REGION, size=records.DUMP_HEADER.size),
    "fulldump": Region(records.USERDATA, FULLDUMP.offset, records.DUMP_HEADER.size),
    "meta": records.META_REGION,
}


def plain_times(found: Iterable[str], before: Iterable[str]) -> Dict[str, str]:
    """Times of runs, and the numbers that stand for them, so that runs differ in nothing but what they left. Those of
    `before` have theirs."""
    known = sorted(before)
    first = int(known[-1][4:14]) + 1 if known else 1
    new = enumerate(sorted(set(found) - set(known)), first)
    return {**{time: time for time in known}, **{time: f"2025{number:010}-00000000" for number, time in new}}


@dataclass(frozen=True)
class State:
    """What a device holds: the partitions, and what is below /data."""

    partitions: Dict[str, Image]
    files: Dict[str, bytes]

    def field(self, name: str) -> bytes:
        return self.region(FIELDS[name])

    def region(self, region: Region) -> bytes:
        return self.partitions[region.partition].read(region.offset, region.size)

    @cached_property
    def history(self) -> bytes:
        return self.files.get(phone.HISTORY, b"")

    @cached_property
    def times(self) -> List[str]:
        text = "\n".join([*self.files, self.history.decode("latin-1")])
        return [found[0] for found in RUN_TIME.finditer(text)]

    @cached_property
    def facts(self) -> Dict[str, bytes]:
        """All that boots leave, by field or path."""
        return {**{name: self.field(name) for name in FIELDS}, **self.files}

    def found(self, pattern: str) -> Dict[str, bytes]:
        """The files and folders that runs made, by their paths, of which the pattern tells the end."""
        return {name: data for name, data in self.files.items() if re.search(f"{RUN_TIME.pattern}{pattern}$", name)}

    @cached_property
    def digest(self) -> int:
        """The same in every run of a campaign."""
        whole = hashlib.blake2b(digest_size=8)
        for name, content in sorted(self.facts.items()):
            whole.update(b"%s %d " % (os.fsencode(name), len(content)) + content)
        return int.from_bytes(whole.digest(), "little")


@dataclass
class Run(sandbox.Run):
    trace: List[str]  # what strace wrote


@dataclass(frozen=True)
class Device:
    """A device folder. Copies share nothing with their original."""

    folder: Path
    daemon: Path
    arguments: Sequence[str]

    def create(self, wanted: Scenario) -> None:
        devices.create(self.folder, wanted)
        (self.folder / "out").mkdir()

    def copy_to(self, folder: Path) -> Device:
        shutil.rmtree(folder, ignore_errors=True)
        folder.parent.mkdir(parents=True, exist_ok=True)
        subprocess.run(["cp", "-a", "--sparse=always", "--reflink=auto", self.folder, folder], check=True)
        return replace(self, folder=folder)

    def boot(self, strace: Sequence[str] = (), preload: str = "", order: str = "") -> Run:
        """Runs the daemon once, under strace with these options, or with a library preloaded and its order in the
        environment."""
        trace = self.folder / "out/trace"
        options = sandbox.Options(daemon=self.daemon, timeout=TIME_LIMIT, binds=[(str(trace.parent), "/out")])
        options.environment["ASAN_OPTIONS"] = "detect_leaks=0"  # the leak check cannot run below strace
        if strace:
            options.wrapper = ["strace", "-y", "-s", "96", "-o", "/out/trace", *strace]
        if preload:
            options.binds.append((preload, "/faults.so"))
            options.environment.update(LD_PRELOAD="/faults.so", FAULT=order)
        run = sandbox.run(self.folder, self.arguments, options, capture=True)
        return Run(**vars(run), trace=trace.read_text(errors="replace").splitlines() if strace else [])

    def read(self, before: Optional[State] = None) -> State:
        """`before` is what the device held before its last run."""
        files: Dict[str, bytes] = {}
        for root, folders, names in os.walk(self.folder / "data"):
            prefix = f"{root[len(str(self.folder)):]}/"
            files.update((f"{prefix}{name}/", b"") for name in folders)
            files.update((prefix + name, Path(root, name).read_bytes()) for name in names)
        raw = State(devices.read_partitions(self.folder), files)
        plain = plain_times(raw.times, before.times if before else ())
        named = {RUN_TIME.sub(lambda time: plain[time[0]], name): content for name, content in files.items()}
        text = RUN_TIME.sub(lambda time: plain[time[0]], raw.history.decode("latin-1"))
        return replace(raw, files=named | ({phone.HISTORY: text.encode("latin-1")} if raw.history else {}))

    def write_files(self, files: Dict[str, bytes]) -> None:
        """Makes the content of /data exactly this."""
        shutil.rmtree(self.folder / "data")
        (self.folder / "data").mkdir()
        for name, content in sorted(files.items()):  # a folder before what is in it
            path = on_device(self.folder, name)
            if name.endswith("/"):
                path.mkdir()
            else:
                path.write_bytes(content)
