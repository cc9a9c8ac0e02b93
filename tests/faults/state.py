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
from typing import Dict, List, Sequence, Tuple

from vortadev import device as devices, phone, records, sandbox, scenario
from vortadev.device import Image, on_device
from vortadev.records import Region

# The time of a run, and the number that stands for it, so that boots differ in nothing but what they left. Of 2024 are
# the boots that a device starts with. A time cut off by a torn write stays.
RUN_TIME = re.compile(r"(?<!\d)(?!202[45])\d{14}(-\d{8}|(?!-\d))")
RUN = r"2025\d{10}-0{8}"
TIME_LIMIT = 20  # seconds for a boot that takes less than one


def header_field(first: str, last: str = "") -> Region:
    start, end = (records.REASON_HEADER.field(name) for name in (first, last or first))
    return Region(records.RAWDUMP, start.offset, end.offset + end.size - start.offset)


FULLDUMP = scenario.load("full-dump").fulldump
# What boots write in the partitions. A field is whole, old or new, at any time.
FIELDS = {
    "corvel": header_field("corvel"),
    "node": records.REASON_NODE_REGION,
    "usertype": header_field("userType"),
    "board": header_field("boardIdMagic", "boardId"),
    "minidump": replace(records.MINIDUMP_REGION, size=records.DUMP_HEADER.size),
    "fulldump": Region(records.USERDATA, FULLDUMP.offset if FULLDUMP else 0, records.DUMP_HEADER.size),
    "meta": records.META_REGION,
}


@dataclass(frozen=True)
class State:
    """What a device holds: the partitions, and what is below /data."""

    partitions: Dict[str, Image]
    files: Dict[str, bytes]

    def region(self, region: Region) -> bytes:
        return self.partitions[region.partition].read(region.offset, region.size)

    def field(self, name: str) -> bytes:
        return self.region(FIELDS[name])

    def found(self, ending: str) -> Dict[str, bytes]:
        """The files and folders that runs made, by their paths, whose paths end so behind the time of the run."""
        return {name: data for name, data in self.files.items() if re.search(f"{RUN}{ending}$", name)}

    @cached_property
    def history(self) -> bytes:
        return self.files.get(phone.HISTORY, b"")

    @cached_property
    def next_time(self) -> str:
        """What stands for the time of the next run."""
        last = max(re.findall(RUN, "\n".join([*self.files, self.history.decode("latin-1")])), default="2025" + "0" * 10)
        return f"{int(last[:14]) + 1}-00000000"

    @cached_property
    def facts(self) -> Dict[str, bytes]:
        """All that boots leave, by field or path."""
        return {**{name: self.field(name) for name in FIELDS}, **self.files}

    @cached_property
    def digest(self) -> int:
        """The same in every run of a campaign."""
        whole = hashlib.blake2b(digest_size=8)
        for name, content in sorted(self.facts.items()):
            whole.update(b"%s %d " % (os.fsencode(name), len(content)) + content)
        return int.from_bytes(whole.digest(), "little")


@dataclass(frozen=True)
class Device:
    """A device folder. Copies share nothing with their original."""

    folder: Path
    daemon: Path
    arguments: Sequence[str]

    def copy_to(self, folder: Path) -> Device:
        shutil.rmtree(folder, ignore_errors=True)
        folder.parent.mkdir(parents=True, exist_ok=True)
        subprocess.run(["cp", "-a", "--sparse=always", "--reflink=auto", self.folder, folder], check=True)
        return replace(self, folder=folder)

    def boot(self, *expressions: str, **environment: str) -> Tuple[sandbox.Run, List[str]]:
        """Runs the daemon once, below strace if there are expressions for it. Gives what strace wrote, too."""
        out = self.folder / "out"
        options = sandbox.Options(daemon=self.daemon, timeout=TIME_LIMIT, binds=[(str(out), "/out")])
        # The leak check cannot run below strace.
        options.environment.update(ASAN_OPTIONS="detect_leaks=0", **environment)
        if any(expressions):
            told = [option for expression in expressions for option in ("-e", expression)]
            options.wrapper = ["strace", "-y", "-s", "96", "-o", "/out/trace", *told]
        run = sandbox.run(self.folder, self.arguments, options, capture=True)
        return run, (out / "trace").read_text(errors="replace").splitlines() if any(expressions) else []

    def read(self, before: State | None = None) -> State:
        """`before` is what the device held before its last run."""

        def plain(text: str) -> str:
            return RUN_TIME.sub(before.next_time, text) if before else text

        files: Dict[str, bytes] = {}
        for root, folders, names in os.walk(self.folder / "data"):
            prefix = plain(f"{root[len(str(self.folder)):]}/")
            files.update((f"{prefix}{plain(name)}/", b"") for name in folders)
            files.update((prefix + plain(name), Path(root, name).read_bytes()) for name in names)
        if phone.HISTORY in files:
            files[phone.HISTORY] = plain(files[phone.HISTORY].decode("latin-1")).encode("latin-1")
        return State(devices.read_partitions(self.folder), files)

    def write_files(self, files: Dict[str, bytes]) -> None:
        """Makes the content of /data exactly this."""
        shutil.rmtree(self.folder / "data")
        (self.folder / "data").mkdir()
        for name, content in sorted(files.items()):  # a folder before what is in it
            if name.endswith("/"):
                on_device(self.folder, name).mkdir()
            else:
                on_device(self.folder, name).write_bytes(content)
