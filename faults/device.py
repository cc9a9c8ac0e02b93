"""Simulated devices for the campaigns: made once for each boot, copied for each run, run under strace,
and read back as plain bytes. Nothing of the daemon and of the device tool's checks is used here."""
from __future__ import annotations

from dataclasses import dataclass, field, replace
import hashlib
import json
import os
from pathlib import Path
from random import Random
import re
import shutil
import subprocess
import tempfile

MINIDUMP, MINIDUMP_SIZE = 4 << 20, 28 << 20
FULLDUMP_OFFSET, FULLDUMP_SIZE, FULLDUMP_STORED = 1 << 20, 1200000, 3 << 19  # stored: whole 512 KiB
BLOCK = 4096
ZEROS = bytes(BLOCK)
PARTITIONS = ("rawdump", "userdata", "bootfail_info")
LOG_FOLDER = "vendor/log/reliability/"
BEFORE = "2024"  # the names that a device starts with; a run's own begin with today's year
STAMP = re.compile(r"20(?!24)\d{12}-\d{8}")
TIME_LIMIT = 20  # seconds for a boot that takes less than one
KILLED_FROM_OUTSIDE = -9


@dataclass(frozen=True)
class Image:
    """A partition: its size, and those of its blocks of 4 KiB that are not all zeros."""
    size: int
    blocks: dict[int, bytes]

    def bytes(self, offset: int, size: int) -> bytes:
        first = offset // BLOCK
        whole = b"".join(self.blocks.get(at, ZEROS) for at in range(first, (offset + size + BLOCK - 1) // BLOCK))
        return whole[offset - first * BLOCK:][:size]


def read_image(path: Path) -> Image:
    blocks: dict[int, bytes] = {}
    with path.open("rb", buffering=0) as file:
        size, end = os.fstat(file.fileno()).st_size, 0
        while end < size:
            try:
                start = os.lseek(file.fileno(), end, os.SEEK_DATA)
            except OSError:  # nothing but a hole is left
                break
            end = os.lseek(file.fileno(), start, os.SEEK_HOLE)
            for at in range(start // BLOCK, (end + BLOCK - 1) // BLOCK):
                block = os.pread(file.fileno(), BLOCK, at * BLOCK)
                if block != ZEROS:
                    blocks[at] = block
    return Image(size, blocks)


@dataclass(frozen=True)
class State:
    """What a device holds: the partitions, and the files below /data by their relative paths, with
    the folders as names that end in a slash."""
    partitions: dict[str, Image]
    files: dict[str, bytes]

    def field(self, partition: str, offset: int, size: int) -> bytes:
        return self.partitions[partition].bytes(offset, size)

    def new_folders(self) -> list[str]:
        root = LOG_FOLDER + "dumplog/"
        return [name for name in self.files if name.startswith(root) and name.endswith("/")
                and name.count("/") == root.count("/") + 1 and not name[len(root):].startswith(BEFORE)]

    def collected(self, name: str) -> list[bytes]:
        """The contents of the files of this name in the folders that were made since the start."""
        return [self.files[folder + name] for folder in self.new_folders()
                if folder + name in self.files]

    def fulldumps(self) -> list[bytes]:
        return [content for name, content in self.files.items() if name.endswith("-fulldump.bin")]

    def history(self) -> bytes:
        return self.files.get(LOG_FOLDER + "dumplog/history.log", b"")

    def digest(self) -> int:
        """Equal for states that differ in nothing but the times of their runs, in every run of the campaign."""
        stamps: dict[str, str] = {}

        def plain(text: str) -> str:
            return STAMP.sub(lambda found: stamps.setdefault(found.group(), f"time {len(stamps)}"), text)

        files = [(plain(name), plain(content.decode("latin-1")) if name.endswith("history.log") else content)
                 for name, content in sorted(self.files.items())]
        records = [self.field(*place) for place in (
            ("rawdump", 0, 512), ("rawdump", MINIDUMP, 56), ("userdata", FULLDUMP_OFFSET, 56),
            ("bootfail_info", 1024, 56))]
        digest = hashlib.blake2b(digest_size=8)
        for part in [part for file in files for part in file] + records:
            content = part.encode("utf-8", "surrogateescape") if isinstance(part, str) else part
            digest.update(len(content).to_bytes(8, "little") + content)
        return int.from_bytes(digest.digest(), "little")


@dataclass(frozen=True)
class Run:
    """How a run ended: exit status of the device tool, the daemon's standard error, its log, and what
    strace wrote."""
    status: int
    errors: str
    log: str
    trace: list[str] = field(repr=False)


@dataclass
class Device:
    """A device folder. Copies share nothing with their original."""
    folder: Path
    build: Path
    daemon: Path
    service: str

    def create(self, scenario: dict) -> None:
        self.folder.parent.mkdir(parents=True, exist_ok=True)
        source = self.folder.parent / f"{self.folder.name}.json"
        source.write_text(json.dumps(scenario))
        for name, size in (("minidump.bin", MINIDUMP_SIZE), ("fulldump.bin", FULLDUMP_SIZE)):
            noise = Random(size)  # it does not pack: the packed dump takes many writes
            marks = [(f"{name} at {at}\n".encode() + noise.randbytes(BLOCK)).ljust(1 << 16, b"\0")
                     for at in range(0, size, 1 << 16)]
            (self.folder.parent / name).write_bytes(b"".join(marks)[:size])
        subprocess.run([self.build / "vortadev", "create", "--force", self.folder, source], check=True)

    def copy_to(self, folder: Path) -> Device:
        shutil.rmtree(folder, ignore_errors=True)
        folder.parent.mkdir(parents=True, exist_ok=True)
        subprocess.run(["cp", "-a", "--sparse=always", "--reflink=auto", self.folder, folder], check=True)
        return replace(self, folder=folder)

    def boot(self, strace: tuple[str, ...] = (), preload: tuple[Path, str] | None = None) -> Run:
        """Runs the daemon once, under strace with these options, or with a library preloaded and its
        order in the environment."""
        out = self.folder / "out"
        out.mkdir(exist_ok=True)
        (self.folder / "logcat.txt").write_text("")
        command: list[str | Path] = [self.build / "vortadev", "run", self.folder, "--daemon", self.daemon,
                                     "--bind", f"{out}:/out"]
        command += ["--env", "ASAN_OPTIONS=detect_leaks=0"]  # the leak check cannot run below strace
        if counters := os.environ.get("VORTA_GCOV"):  # a folder a run: a fault may spoil its counters
            folder = tempfile.mkdtemp(dir=counters)
            command += ["--bind", f"{folder}:/gcov", "--env", "GCOV_PREFIX=/gcov"]
        if strace:
            command += ["--wrap", " ".join((shutil.which("strace") or "strace", "-y", "-s", "96",
                                            "-o", "/out/trace", *strace))]
        if preload:
            command += ["--bind", f"{preload[0]}:/faults.so", "--env", "LD_PRELOAD=/faults.so",
                        "--env", f"FAULT={preload[1]}"]
        command += ["--timeout", str(TIME_LIMIT), "--", self.service, "boot"]
        result = subprocess.run(command, capture_output=True, check=False)
        if result.returncode == KILLED_FROM_OUTSIDE:
            raise RuntimeError("the device tool was killed from outside")
        trace = out / "trace"
        lines = trace.read_text(errors="replace").splitlines() if trace.exists() else []
        shutil.rmtree(out)
        return Run(result.returncode, result.stderr.decode(errors="replace"),
                   (self.folder / "logcat.txt").read_text(errors="replace"), lines)

    def read(self) -> State:
        partitions = {name: read_image(self.folder / "dev/block/by-name" / name) for name in PARTITIONS}
        files: dict[str, bytes] = {}
        data = self.folder / "data"
        for root, folders, names in os.walk(data):
            base = os.path.relpath(root, data)
            prefix = "" if base == "." else base + "/"
            files |= {prefix + name + "/": b"" for name in folders}
            files |= {prefix + name: (Path(root) / name).read_bytes() for name in names}
        return State(partitions, files)

    def write_files(self, files: dict[str, bytes]) -> None:
        """Makes the content of /data exactly this."""
        now = self.read().files
        for name in sorted(now, reverse=True):  # what is in a folder before the folder
            if name not in files:
                path = self.folder / "data" / name
                path.rmdir() if name.endswith("/") else path.unlink()
        for name, content in sorted(files.items()):
            path = self.folder / "data" / name
            if name.endswith("/"):
                path.mkdir(exist_ok=True)
            elif now.get(name) != content:
                path.write_bytes(content)
