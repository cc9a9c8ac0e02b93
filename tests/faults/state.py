"""Simulated devices for the campaigns: made once for each boot, copied for each run, run under strace, and read back as
plain bytes. Paths are the phone's; those of folders end in a slash."""

from __future__ import annotations

from dataclasses import dataclass, replace
import os
from pathlib import Path
import re
import shutil
import subprocess
from typing import Dict, List, Optional, Sequence, Tuple

from vortadev import device as devices, phone, sandbox
from vortadev.device import Image, on_device
from vortadev.records import Region
from vortadev.scenario import Scenario

BEFORE = "2024"  # the year of the boots that a device starts with; a run's own begin with today's
STAMP = re.compile(rf"(?!{BEFORE}){phone.RECORD_TIME.pattern}")
NEW_FOLDER = re.compile(rf"{phone.DUMPLOG}/(?!{BEFORE})[^/]*/")
TIME_LIMIT = 20  # seconds for a boot that takes less than one


@dataclass(frozen=True)
class State:
    """What a device holds: the partitions, and what is below /data."""

    partitions: Dict[str, Image]
    files: Dict[str, bytes]

    def field(self, region: Region) -> bytes:
        return self.partitions[region.partition].read(region.offset, region.size)

    def new_folders(self) -> List[str]:
        return [name for name in self.files if NEW_FOLDER.fullmatch(name)]

    def earlier(self) -> List[str]:
        """What is left of the boots that were collected before."""
        return sorted(name for name in self.files if name.startswith(f"{phone.DUMPLOG}/{BEFORE}"))

    def collected(self, name: str) -> List[bytes]:
        """The files of this name in the folders that were made since the start."""
        return sorted(self.files[folder + name] for folder in self.new_folders() if folder + name in self.files)

    def fulldumps(self) -> List[bytes]:
        return [content for name, content in self.files.items() if name.endswith("-" + phone.FULLDUMP_NAME)]

    def history(self) -> bytes:
        return self.files.get(phone.HISTORY, b"")


@dataclass
class Run(sandbox.Run):
    trace: List[str]  # what strace wrote


@dataclass(frozen=True)
class Device:
    """A device folder. Copies share nothing with their original."""

    folder: Path
    daemon: Path
    arguments: Sequence[str]

    def create(self, scenario: Scenario) -> None:
        devices.create(self.folder, scenario)
        (self.folder / "out").mkdir()

    def copy_to(self, folder: Path) -> Device:
        shutil.rmtree(folder, ignore_errors=True)
        folder.parent.mkdir(parents=True, exist_ok=True)
        subprocess.run(["cp", "-a", "--sparse=always", "--reflink=auto", self.folder, folder], check=True)
        return replace(self, folder=folder)

    def boot(self, strace: Sequence[str] = (), preload: Optional[Tuple[Path, str]] = None) -> Run:
        """Runs the daemon once, under strace with these options, or with a library preloaded and its order in the
        environment."""
        trace = self.folder / "out/trace"
        options = sandbox.Options(daemon=self.daemon, timeout=TIME_LIMIT, binds=[(str(trace.parent), "/out")])
        options.environment["ASAN_OPTIONS"] = "detect_leaks=0"  # the leak check cannot run below strace
        if strace:
            options.wrapper = ["strace", "-y", "-s", "96", "-o", "/out/trace", *strace]
        if preload:
            options.binds.append((str(preload[0]), "/faults.so"))
            options.environment.update(LD_PRELOAD="/faults.so", FAULT=preload[1])
        run = sandbox.run(self.folder, self.arguments, options, capture=True)
        return Run(**vars(run), trace=trace.read_text(errors="replace").splitlines() if strace else [])

    def read(self) -> State:
        files: Dict[str, bytes] = {}
        for root, folders, names in os.walk(self.folder / "data"):
            prefix = f"{root[len(str(self.folder)):]}/"
            files.update((f"{prefix}{name}/", b"") for name in folders)
            files.update((prefix + name, Path(root, name).read_bytes()) for name in names)
        return State(devices.read_partitions(self.folder), files)

    def write_files(self, files: Dict[str, bytes]) -> None:
        """Makes the content of /data exactly this."""
        now = self.read().files
        for name in sorted(now.keys() - files.keys(), reverse=True):  # what is in a folder before the folder
            path = on_device(self.folder, name)
            path.rmdir() if name.endswith("/") else path.unlink()
        for name in sorted(files):
            path = on_device(self.folder, name)
            if name.endswith("/"):
                path.mkdir(exist_ok=True)
            elif now.get(name) != files[name]:
                path.write_bytes(files[name])
