"""Simulated devices for the benchmark: made once, put back between runs, booted by the daemon or by a
rival in the same sandbox, and read back to see that both saved the same."""
from __future__ import annotations

from dataclasses import dataclass
import hashlib
import json
import os
from pathlib import Path
import shutil
import subprocess
from typing import Iterator
import zlib

MIB = 1 << 20
MINIDUMP, MINIDUMP_SIZE = 4 * MIB, 28 * MIB
FULLDUMP = 16 * MIB
RECORD = 4096  # what is put back of each place where a boot writes a record
PARTITIONS = "dev/block/by-name"
DUMPLOG = "data/vendor/log/reliability/dumplog"
FULLDUMPLOG = "data/vendor/log/reliability/fulldumplog"
HISTORY, DONE = "history.log", "DONE"
EARLIER = "2024"  # names that are there before the run begin with this year, those of a run do not
RIVAL_TOOLS = ("dd", "gzip", "pigz")


def scenario(level: int = 0, minidump: object = None, fulldump: int = 0, logs: bool = True) -> dict:
    """A boot of an internal build: normal (level 0) or abnormal (2), with what fills the minidump region,
    the size of a reserved full dump, and logs or nothing but zeros in their regions."""
    properties = {"ro.logsystem.usertype": "3", "msc.sys.country": "cn", "ro.runmode": "normal"}
    boot = {"properties": properties,
            "reasonHeader": {"userType": "3", "boardIdMagic": "0xB0A1D1D", "boardId": 15, "bootLevel": level,
                             "resetType": "WARM" if level else 0},
            "meta": {"magic": "ZZZZ", "magicTail": "Z", "userType": "3"}}
    if not logs:
        boot["logs"] = {name: "zeros" for name in ("xbl_abl", "last_xbl_abl", "last_kmsg", "tz_log")}
    if minidump:
        boot["minidump"] = {"header": {"text0": "MINIDUMP", "flag": 1}, "content": minidump}
    if fulldump:
        boot["partitions"] = {"userdata": FULLDUMP + fulldump + MIB}
        boot["meta"] |= {"reservedFlag": ";])W", "dumpOffset": FULLDUMP, "dumpSize": fulldump}
        boot["fulldump"] = {"offset": FULLDUMP, "size": fulldump, "header": {"text0": "FULLDUMP", "flag": 1},
                            "content": {"phone": True, "size": min(fulldump, 256 * MIB)}}
    return boot


@dataclass(frozen=True)
class Contender:
    """What is started as the daemon: a program of the host with its arguments."""
    name: str
    program: str | Path
    arguments: tuple[str, ...]
    lines: int = 1  # that it adds to the history


class Device:
    def __init__(self, folder: Path, build: Path, boot: dict, loop: bool = False, files: int = 0,
                 strings: str = "") -> None:
        self.folder, self.vortadev, self.loop = folder, build / "vortadev", loop
        self.timer = build / "bench/timer"
        shutil.rmtree(folder, ignore_errors=True)
        folder.parent.mkdir(parents=True, exist_ok=True)
        source = folder.parent / f"{folder.name}.json"
        source.write_text(json.dumps(boot))
        subprocess.run([self.vortadev, "create", folder, source], check=True, stdout=subprocess.DEVNULL)
        for tool in RIVAL_TOOLS:
            shutil.copy(shutil.which(tool) or tool, folder / "system/bin")
        for tool in ("rm", "mkdir", "fsync"):
            (folder / "system/bin" / tool).symlink_to("toybox")
        if strings:
            (folder / "system/bin/strings").unlink()
            shutil.copy(strings, folder / "system/bin/strings")
        (folder / "out").mkdir()
        size = boot.get("fulldump", {}).get("size", 0)
        self._fill_userdata(size)
        for number in range(files):
            name = folder / DUMPLOG / f"{EARLIER}{number // 100:010}-00000000" / f"log{number % 100}"
            name.parent.mkdir(exist_ok=True)
            name.write_bytes(b"x" * 100)
        self.records = {("rawdump", 0): b"", ("rawdump", MINIDUMP): b"", ("bootfail_info", 0): b""}
        if size:
            self.records["userdata", FULLDUMP] = b""
        for partition, offset in self.records:
            with open(folder / PARTITIONS / partition, "rb") as part:
                part.seek(offset)
                self.records[partition, offset] = part.read(RECORD)

    def _fill_userdata(self, size: int) -> None:
        """Repeats the first 256 MiB of a larger dump to its end."""
        with open(self.folder / PARTITIONS / "userdata", "r+b") as part:
            for offset in range(256 * MIB, size, 16 * MIB):
                part.seek(FULLDUMP + offset % (256 * MIB))
                chunk = part.read(16 * MIB)
                part.seek(FULLDUMP + offset)
                part.write(chunk)

    def reset(self) -> None:
        """Puts back what a boot changed, flushes it, and lets go of the cached partitions: after a real
        restart nothing of them is in memory."""
        for (partition, offset), record in self.records.items():
            with open(self.folder / PARTITIONS / partition, "r+b") as part:
                part.seek(offset)
                part.write(record)
        for root in (DUMPLOG, FULLDUMPLOG):
            for entry in (self.folder / root).iterdir():
                if entry.is_dir() and not entry.name.startswith(EARLIER):
                    shutil.rmtree(entry)
                elif entry.is_file():
                    entry.unlink()
        subprocess.run(["sync", "-f", self.folder], check=True)
        for partition in (self.folder / PARTITIONS).iterdir():
            with open(partition, "rb") as part:
                os.posix_fadvise(part.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)

    def boot(self, contender: Contender, wrap: str = "") -> dict:
        """One run from the same state; what the timer noted."""
        self.reset()
        command = [self.vortadev, "run", self.folder, "--daemon", contender.program,
                   "--bind", f"{self.folder / 'out'}:/out", "--wrap", wrap or f"{self.timer} /out/cost"]
        command += ["--loop"] if self.loop else []
        result = subprocess.run([*command, "--", *contender.arguments], capture_output=True, check=False)
        if result.returncode != 0:
            raise SystemExit(f"bench: {contender.name} ended with {result.returncode}: "
                             + result.stderr.decode(errors="replace").strip())
        return {} if wrap else json.loads((self.folder / "out/cost").read_text())

    def _left(self) -> Iterator[Path]:
        """The files that the run left; walks past what was there before."""
        for root in (DUMPLOG, FULLDUMPLOG):
            for entry in (self.folder / root).iterdir():
                if not entry.name.startswith(EARLIER):
                    yield from (path for path in (entry, *entry.rglob("*")) if path.is_file())

    def saved(self, digests: bool) -> dict[str, tuple[int, str]]:
        """Size and digest of each piece of evidence that the run left, the minidump unpacked. Without
        digests no file is read through, and the size of the minidump is what its last bytes say."""
        return {path.name.rpartition("-")[2]: self._digest(path) if digests else (self._size(path), "")
                for path in self._left() if path.name not in (HISTORY, DONE)}

    def history_lines(self) -> int:
        history = self.folder / DUMPLOG / HISTORY
        return history.read_bytes().count(b"\n") if history.exists() else 0

    @staticmethod
    def _size(path: Path) -> int:
        size = path.stat().st_size
        if path.name != "rawdump.bin":
            return size
        with open(path, "rb") as packed:  # gzip's trailer (RFC 1952) ends with the size before, 32 bits
            packed.seek(max(size - 4, 0))
            return int.from_bytes(packed.read(), "little")

    @staticmethod
    def _digest(path: Path) -> tuple[int, str]:
        digest, size = hashlib.sha1(usedforsecurity=False), 0
        unpack = zlib.decompressobj(wbits=31).decompress if path.name == "rawdump.bin" else bytes
        with open(path, "rb") as content:
            while chunk := content.read(MIB):
                try:
                    plain = unpack(chunk)
                except zlib.error:
                    return size, "not gzip"
                digest.update(plain)
                size += len(plain)
        return size, digest.hexdigest()

    def evidence(self) -> int:
        """Bytes of the files that the run left."""
        return sum(path.stat().st_size for path in self._left())
