"""What is measured: each case is a boot on a device, and who is timed on it."""
from __future__ import annotations

from dataclasses import dataclass
import os
from pathlib import Path
from typing import Callable

from device import FULLDUMP, MIB, Contender, Device, scenario

RIVALS = Path(__file__).resolve().parent / "rivals"
GZIP = ("gzip", "-6", "-n", "-c")
PIGZ = ("pigz", "-6", "-n", "-c", "-p", "1")  # gzip on the zlib that the daemon uses
NORMAL_SHELL = Contender("shell", RIVALS / "normal.sh", ())
PIPELINE = Contender("pipeline, gzip", RIVALS / "abnormal.sh", GZIP)
ZLIB_PIPELINE = Contender("pipeline, zlib", RIVALS / "abnormal.sh", PIGZ)
GROWTH = (10, 1000, 10000, 100000)
LOGS = 4  # whose text an abnormal boot saves


@dataclass(frozen=True)
class Goal:
    """Holds when the median ratio of the daemon's time to a rival's, of the same round, is at most `most`;
    or with `least`, when that of the throughputs, which is the inverse, is at least so much."""
    rival: str
    words: str
    most: float = 0
    least: float = 0

    def judge(self, ratio: float) -> tuple[float, bool]:
        """What was found, from the ratio of the times, and whether that is good enough."""
        return (1 / ratio, 1 / ratio >= self.least) if self.least else (ratio, ratio <= self.most)


@dataclass(frozen=True)
class Case:
    name: str
    title: str
    place: str  # "disk" or "memory": where the device lies
    make: Callable[[Path, Path], Device]  # from its folder and the build folder
    saves: int  # files of evidence that the boot leaves
    rivals: tuple[Contender, ...] = ()
    goals: tuple[Goal, ...] = ()
    rounds: int = 10
    quick_rounds: int = 2
    counted: bool = False  # system calls and storage as well
    needs_root: bool = False
    long: bool = False  # left out of a quick run
    group: str = ""  # cases of one group, which have the same rounds, are run in turns

    @property
    def skipped(self) -> str:
        return "loop devices need root" if self.needs_root and os.geteuid() != 0 else ""


def dd(size: int) -> Contender:
    return Contender("dd", "/usr/bin/dd", (
        "if=/dev/block/by-name/userdata", "of=/data/vendor/log/reliability/fulldumplog/fulldump.bin", "bs=512K",
        "iflag=skip_bytes,count_bytes", f"skip={FULLDUMP}", f"count={size}", "oflag=sync", "status=none"), lines=0)


def boots() -> list[Case]:
    cases = []
    for place in ("disk", "memory"):
        cases.append(Case(f"normal-{place}", "normal boot", place, lambda at, build: Device(at, build, scenario()),
                          0, (NORMAL_SHELL,), (Goal("shell", "at most 1.2 of its unavoidable work", most=1.2),),
                          20, 4, place == "disk"))
    pipelines = tuple(Goal(rival.name, f"at most 0.95 of the {rival.name}", most=0.95)
                      for rival in (PIPELINE, ZLIB_PIPELINE))
    fills = {"phone": "phone", "random": {"random": 7}, "zeros": "zeros"}
    for fill, place in (("phone", "disk"), ("phone", "memory"), ("random", "disk"), ("zeros", "disk")):
        cases.append(Case(f"abnormal-{fill}-{place}", f"abnormal boot, minidump of {fill}" +
                          (" content" if fill == "phone" else ""), place,
                          lambda at, build, fill=fills[fill]: Device(at, build, scenario(2, fill)),
                          LOGS + 1, (PIPELINE, ZLIB_PIPELINE) if fill == "phone" else (PIPELINE,),
                          pipelines if fill == "phone" else (),
                          counted=place == "disk" and fill == "phone",
                          group="region" if place == "disk" else ""))
    cases.append(Case("abnormal-buffered", "abnormal boot, phone content, a strings that buffers", "disk",
                      lambda at, build: Device(at, build, scenario(2, "phone"), strings="/usr/bin/strings"),
                      LOGS + 1, (PIPELINE, ZLIB_PIPELINE)))
    cases.append(Case("abnormal-no-minidump", "abnormal boot, no minidump", "disk",
                      lambda at, build: Device(at, build, scenario(2)), LOGS, group="region"))
    return cases


def shell(size: int) -> Contender:
    return Contender("shell with dd", RIVALS / "full.sh", (str(FULLDUMP), str(size)))


def full_dumps() -> list[Case]:
    """The goal is set against dd alone, which does nothing but copy; the shell does all that such a boot
    cannot avoid."""
    cases = []
    goals = (Goal("dd", "at least 0.98 of dd's throughput", least=0.98),)
    for mib, words, place, behind in (
            (256, "256 MiB", "disk", "files"), (256, "256 MiB", "disk", "loop devices"),
            (256, "256 MiB", "memory", "files"), (2048, "2 GiB", "disk", "files"),
            (2048, "2 GiB", "disk", "loop devices")):
        name = behind.split()[0] if place == "disk" else place
        cases.append(Case(f"full-{mib}-{name}", f"full dump of {words}, {behind} as partitions", place,
                          lambda at, build, size=mib * MIB, loop=behind == "loop devices":
                          Device(at, build, scenario(fulldump=size), loop), 1,
                          (dd(mib * MIB), shell(mib * MIB)), goals, 20 if mib == 256 else 10, 1,
                          counted=mib == 256 and place == "disk",
                          needs_root=behind == "loop devices", long=mib > 256))
    return cases


def growth() -> list[Case]:
    return [Case(f"growth-{files}", f"abnormal boot, no dump, empty logs, {files:,} files below dumplog", "disk",
                 lambda at, build, files=files: Device(at, build, scenario(2, logs=False), files=files),
                 LOGS, group="growth")
            for files in GROWTH]


def all_cases() -> list[Case]:
    return boots() + growth() + full_dumps()  # the longest last
