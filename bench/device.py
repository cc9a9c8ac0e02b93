"""Simulated devices for the benchmark: made once, put back between runs, booted by the daemon or by a rival in the same
sandbox, and read back to see that both saved the same."""

from __future__ import annotations

from dataclasses import dataclass
import gzip
import hashlib
import json
import os
from pathlib import Path
import shutil
import subprocess
from typing import Any, Dict, Iterator, Sequence

from vortadev import device, phone, records, sandbox, scenario
from vortadev.bubblewrap import BUILT_DAEMON
from vortadev.device import on_device, partition_path
from vortadev.records import DUMP_HEADER, LOG_REGIONS, MINIDUMP_REGION, REASON_NODE_REGION, Region

MIB = 1 << 20
FULLDUMP = 16 * MIB  # its offset
GENERATED = 256 * MIB  # of a full dump; a larger one repeats it
EARLIER = "2024"  # names that are there before the run begin with this year, those of a run do not
TOOLS = ("dd", "gzip", "pigz")
LINKS = ("rm", "mkdir", "fsync")  # to toybox
RUN_TIME = "20300101000000-00000000"
MINIDUMP_HEADER = Region(records.RAWDUMP, MINIDUMP_REGION.offset, DUMP_HEADER.size)
FULLDUMP_HEADER = Region(records.USERDATA, FULLDUMP, DUMP_HEADER.size)
RECORDS = (records.REASON_REGION, records.META_REGION, MINIDUMP_HEADER, FULLDUMP_HEADER)


def place(region: Region) -> str:
    return f"{region.offset} {region.size}"


ENVIRONMENT = {  # of the rival
    "RAWDUMP": f"{phone.BLOCK_FOLDER}/{records.RAWDUMP}",
    "CMDLINE": phone.CMDLINE,
    "DUMPLOG": phone.DUMPLOG,
    "HISTORY": phone.HISTORY,
    "CHUNK": str(records.COPY_CHUNK),
    "LOGS": "\n".join(f"{name} {place(region)}" for name, region in LOG_REGIONS.items()),
    "NODE": place(REASON_NODE_REGION),
    "MINIDUMP": place(MINIDUMP_REGION),
    "MINIDUMP_HEADER": place(MINIDUMP_HEADER),
    "TIME": RUN_TIME,
    "LINE": phone.history_line("PS_HOLD", RUN_TIME, "NORMALBOOT").rstrip("\n"),
}


@dataclass(frozen=True)
class Contender:
    """A program of the host with its arguments, timed beside others."""

    name: str
    program: Path
    arguments: Sequence[str] = ()
    lines: int = 1  # that it adds to the history


def full_dump(size: int) -> Dict[str, Any]:
    """A scenario with a full dump of that size."""
    content = {"phone": True, "size": min(size, GENERATED)}
    return {
        "base": "full-dump",
        "partitions": {"userdata": FULLDUMP + size + MIB},
        "fulldump": {"offset": FULLDUMP, "size": size, "content": content},
        "meta": {"dumpOffset": FULLDUMP, "dumpSize": size},
        "data": None,
    }


class Device:
    own = Contender("daemon", BUILT_DAEMON, phone.RAINBOW)

    def __init__(self, folder: Path, timer: Path, wanted: Dict[str, Any], files: int = 0, loop: bool = False) -> None:
        self.folder, self.loop, self.timer = folder, loop, timer
        self.known: Dict[str, str] = {}
        shutil.rmtree(folder, ignore_errors=True)
        boot = scenario.parse(wanted, Path(f"{folder.name}.json"))
        device.create(folder, boot)
        tools = folder / "system/bin"
        for tool in TOOLS:
            shutil.copy(shutil.which(tool) or tool, tools)
        for tool in LINKS:
            (tools / tool).symlink_to("toybox")
        (folder / "out").mkdir()
        self.roots = [on_device(folder, path) for path in (phone.DUMPLOG, phone.FULLDUMPLOG)]
        for number in range(files):
            name = self.roots[0] / f"{EARLIER}{number // 100:010}-00000000" / f"log{number % 100}"
            name.parent.mkdir(exist_ok=True)
            name.write_bytes(b"x" * 100)
        self.repeat_content(boot.fulldump.size if boot.fulldump else 0)
        abnormal = records.REASON_HEADER.number(boot.reason_header, "bootLevel") >= records.ABNORMAL_LEVEL
        self.saves = len(LOG_REGIONS) * abnormal + any(boot.minidump.header) + bool(boot.fulldump)
        self.records = {region: self.read(region) for region in RECORDS}

    def read(self, region: Region) -> bytes:
        with open(partition_path(self.folder, region.partition), "rb") as part:
            part.seek(region.offset)
            return part.read(region.size)

    def write(self, region: Region, data: bytes) -> None:
        with open(partition_path(self.folder, region.partition), "r+b") as part:
            part.seek(region.offset)
            part.write(data)

    def repeat_content(self, size: int) -> None:
        for offset in range(GENERATED, size, 16 * MIB):
            content = self.read(Region(records.USERDATA, FULLDUMP + offset % GENERATED, 16 * MIB))
            self.write(Region(records.USERDATA, FULLDUMP + offset, 0), content)

    def new(self) -> Iterator[Path]:
        """What the run left in the log folders; walks past what was there before."""
        return (entry for root in self.roots for entry in root.iterdir() if not entry.name.startswith(EARLIER))

    def reset(self) -> None:
        """Puts back what a boot changed, flushes it, and lets go of the cached partitions: after a real restart nothing
        of them is in memory."""
        for region, record in self.records.items():
            self.write(region, record)
        for entry in list(self.new()):
            shutil.rmtree(entry) if entry.is_dir() else entry.unlink()
        subprocess.run(["sync", "-f", self.folder], check=True)
        for partition in records.PARTITIONS:
            with open(partition_path(self.folder, partition), "rb") as part:
                os.posix_fadvise(part.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)

    def run(self, contender: Contender) -> Dict[str, float]:
        """One run from the same state; what the timer noted."""
        self.reset()
        options = sandbox.Options(daemon=contender.program, loop=self.loop, environment=dict(ENVIRONMENT))
        options.binds, options.wrapper = [(str(self.folder / "out"), "/out")], [str(self.timer), "/out/cost"]
        run = sandbox.run(self.folder, contender.arguments, options, capture=True)
        if run.status != 0:
            raise SystemExit(f"bench: {contender.name} ended with {run.status}: {run.err.decode(errors='replace')}")
        self.check(contender)
        cost: Dict[str, float] = json.loads((self.folder / "out/cost").read_text())
        return cost

    def check(self, contender: Contender) -> None:
        """A rival that saves less than the daemon, or nothing because the daemon saved nothing, would make the figures
        worthless."""
        where = f"bench: {self.folder.name}: {contender.name}"
        saved, lines = self.saved(), self.history_lines()
        if len(saved) != self.saves or lines != contender.lines:
            wanted = f"{self.saves} files of evidence and {contender.lines} lines of history"
            raise SystemExit(f"{where} added {len(saved)} and {lines}; expected {wanted}")
        self.known = self.known or saved
        if saved != self.known:
            raise SystemExit(f"{where} left other evidence than the daemon did in the first round")

    def saved(self) -> Dict[str, str]:
        """The digest of each piece of evidence that the run left, the minidump unpacked."""
        files = [path for entry in self.new() for path in (entry, *entry.rglob("*")) if path.is_file()]
        evidence = [path for path in files if path.name not in (phone.HISTORY_NAME, phone.DONE_NAME)]
        return {path.name.rpartition("-")[2]: digest_of(path) for path in evidence}

    def history_lines(self) -> int:
        history = on_device(self.folder, phone.HISTORY)
        return history.read_bytes().count(b"\n") if history.exists() else 0


def digest_of(path: Path) -> str:
    digest = hashlib.sha1(usedforsecurity=False)
    with gzip.open(path) if path.name == phone.RAWDUMP_NAME else path.open("rb") as content:
        while chunk := content.read(MIB):
            digest.update(chunk)
    return digest.hexdigest()
