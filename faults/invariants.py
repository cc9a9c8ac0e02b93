"""What must hold after a boot, whatever failed in it and wherever it was cut: a table of checks on the
bytes that a device holds, and the closed list of hazards that are kept."""
from __future__ import annotations

from dataclasses import dataclass
from functools import lru_cache
import hashlib
import json
from pathlib import Path
import re
from typing import Callable
import zlib

from boots import FIELDS, LOG_REGIONS, LOGS, STEPS, Boot
from device import BLOCK, ZEROS, FULLDUMP_OFFSET, FULLDUMP_STORED, MINIDUMP, MINIDUMP_SIZE, Run, State

HISTORY_LINE = re.compile(rb"system exception core \[NA\], reason \[[^\n]*\], time \[\d{14}(-\d{8})?\], "
                          rb"sysreboot \[true\], bootup_keypoint \[NA\], category \[[^\n]*\]\n")
HISTORY_LIMIT = 1 << 20
SANITIZER = re.compile(r"ERROR: \w+Sanitizer|runtime error:")
FAULT, CUT, NEXT = "a boot with a fault", "a cut boot", "the boot after it"

# What the log says when a call fails; a call that is missing here fails silently by design.
LOGGED = [(re.compile(call), re.compile(text)) for call, text in (
    (r"^openat\(.*by-name/", r"\[IsPartValid\] open .* errno"),
    (r"^openat\(.*history\.log.*O_APPEND", r"\[HistoryFileOpen\] open file"),
    (r"^openat\(.*O_RDWR\|O_CREAT", r"\[DumpFileCreate\] open file"),
    (r"^openat\(.*/fulldumplog\", .*O_NONBLOCK.*O_DIRECTORY", r"\[FullDumpSizeCheck\] opendir failed"),
    (r"^openat\(.*O_RDONLY\|O_CLOEXEC\|O_DIRECTORY", "fsync errno"),
    (r"^(openat|read)\(.*boardid", "Read BoardID file failed"),
    (r"^openat\(.*lib_factory.*= \d", "dlopen fail"),
    (r"^lseek\(.*by-name/", r"\[PartCommonRW\] lseek fail|\[PartOrEmmcSeek\] lseek part"),
    (r"^lseek\(\d+<[^>]*history\.log", r"\[HistoryFileRecord\] lseek"),
    (r"^lseek\(.*/dumplog/.*SEEK_SET|^lseek\(.*fulldump\.bin", r"\[PartOrEmmcSeek\] lseek emmc"),
    (r"^read\(.*by-name/", r"\[PartCommonRW\] read fail|\[ReadRetry\] dump read error"),
    (r"^write\(\d+<[^>]*by-name/", r"\[PartCommonRW\] write fail"),
    (r"^write\(\d+<[^>]*history\.log", r"\[HistoryFileRecord\] write"),
    (r"^write\(\d+<[^>]*(_tmp|tmp\.bin|fulldump\.bin)>", r"\[WriteRetry\] dump write error"),
    (r"^fsync\(.*xbl_abl>", r"\[XblAblLogUpdate\] fsync errno"),
    (r"^fsync\(.*/last_kmsg>", r"\[LastkmsgUpdate\] fsync errno"),
    (r"^fsync\(.*/tz_log>", r"\[TzLogUpdate\] fsync errno"),
    (r"^fsync\(", "fsync errno"), (r"^mkdir\(", r"\[DumpDirOpen\] mkdir"),
    (r"^chmod\(", "chmod dir"), (r"^chown\(", "chown dir"),
    (r"^fchmod\(", "fchmod file"), (r"^fchown\(", "fchown file"),
    (r"^newfstatat\(\d+<.*history\.log", r"\[HistoryFileCheck\] stat"),
    (r"^newfstatat\(AT_FDCWD.*(_tmp|tmp\.bin)\"", r"\[DirOrFileRemove\] stat"),
    (r"^unlink\(.*shipmode", "unlink shipmode_shutdown failed"),
    (r"^malloc:", "malloc fail"), (r"^asprintf:", "asprintf fail"))]


@dataclass(frozen=True)
class Case:
    """A boot to be judged. `first` is the device before anything was tried on it, `clean` the same
    after a boot without faults; `affected` are the steps that a fault may have kept from being done,
    `failed` the call that failed, `copied` the logs that a cut boot had copied whole."""
    boot: Boot
    stage: str
    first: State
    clean: State
    before: State
    after: State
    run: Run | None = None
    affected: frozenset[str] = frozenset()
    failed: str = ""
    copied: frozenset[str] = frozenset()


@lru_cache(maxsize=4096)
def unpacked(packed: bytes) -> bytes:
    """The digest of what gunzip makes of a file; empty unless that is one whole gzip stream."""
    stream = zlib.decompressobj(16 + zlib.MAX_WBITS)
    try:
        content = stream.decompress(packed)
    except zlib.error:
        return b""
    return hashlib.sha1(content).digest() if stream.eof and not stream.unused_data else b""


MINIDUMPS: dict[str, bytes] = {}


def minidump_of(case: Case) -> bytes:
    """The digest of the dump that the boot began with; the region is large, so it is taken once."""
    if case.boot.name not in MINIDUMPS:
        region = case.first.field("rawdump", MINIDUMP, MINIDUMP_SIZE)
        MINIDUMPS[case.boot.name] = hashlib.sha1(region).digest()
    return MINIDUMPS[case.boot.name]


def evidence(case: Case, state: State) -> dict[str, tuple[bool, bool]]:
    """For each dump of this boot: whether it waits in its partition, and whether a file holds it."""
    found = {}
    for name in {"minidump", "fulldump"} & set(case.boot.fields):
        if name == "minidump":
            held = minidump_of(case) in map(unpacked, state.collected("rawdump.bin"))
        else:
            held = case.first.field("userdata", FULLDUMP_OFFSET, FULLDUMP_STORED) in state.fulldumps()
        found[name] = (bool(state.field(*FIELDS[name])[12] & 1), held)
    return found


def ended(case: Case) -> str:
    if case.run is None or (case.run.status == 0 and not SANITIZER.search(case.run.errors)):
        return ""
    report = SANITIZER.search(case.run.errors)
    return f"exit status {case.run.status}{': ' + report.group() if report else ''}"


def foreign_bytes(case: Case) -> str:
    for name, before in case.before.partitions.items():
        after = case.after.partitions[name]
        if after.size != before.size:
            return f"{name} has {after.size} bytes"
        for at in sorted(before.blocks.keys() | after.blocks.keys()):
            expected, found = (image.blocks.get(at, ZEROS) for image in (before, after))
            for partition, offset, size in (FIELDS[field] for field in case.boot.fields):
                start = offset - at * BLOCK
                if partition == name and 0 <= start < BLOCK:
                    expected = expected[:start] + found[start:start + size] + expected[start + size:]
            if expected != found:
                return f"{name} changed in the 4 KiB at {at * BLOCK:#x}"
    return ""


def derived(node: bytes, first: bytes) -> bool:
    """A node that holds a reason of the daemon's own: marks, level 1, terminated texts."""
    kept = all(node[a:b] == first[a:b] or not any(node[a:b]) for a, b in ((0, 4), (8, 12), (24, 32), (192, 320)))
    return (kept and node[4:8] == b"LAMN" and node[12:24] == b"\1\0\0\0DLAVDLAV"
            and 0 in node[32:64] and 0 in node[64:192])


def torn_record(case: Case) -> str:
    for name in case.boot.fields:
        now, first, clean = (state.field(*FIELDS[name]) for state in (case.after, case.first, case.clean))
        cleared = name in ("node", "minidump", "fulldump") and name in case.boot.steps and not any(now)
        if now not in (first, clean) and not cleared and not (name == "node" and derived(now, first)):
            return f"{name} is neither old nor new: {now[:48].hex(' ')}"
    return ""


def lost_dump(case: Case) -> str:
    lost = [name for name, (waits, held) in evidence(case, case.after).items() if not waits and not held]
    return f"{lost[0]}: header cleared, but no file holds its bytes" if lost else ""


def saved_in(case: Case, folder: str, log: str) -> bool:
    """Whether the folder has the raw copy of the log or, unless its flush failed, the whole text."""
    unflushed = case.failed.startswith("fsync(") and f"/{log}>" in case.failed
    return (case.after.files.get(f"{folder}{log}_tmp") == case.first.field(*LOG_REGIONS[log])
            or not unflushed and case.after.files.get(folder + log) in case.clean.collected(log))


def lost_copy(case: Case) -> str:
    """Only folders that storage kept are looked at. The model lets a new one vanish until its root is flushed;
    a real file system brings its name along with the first file in it that is written through."""
    lost = [log for folder in case.after.new_folders() if folder not in case.before.files
            for log in sorted(case.copied) if not saved_in(case, folder, log)]
    return f"neither raw copy nor text: {', '.join(lost)}" if lost else ""


def lost_log(case: Case) -> str:
    """Each log of the crash is collected, or the node waits for the next boot; the full dump of before
    is there until the new one is."""
    waits = case.after.field(*FIELDS["node"]) == case.first.field(*FIELDS["node"])
    lost = [name for name in LOGS if name in case.boot.steps and not waits
            and not any(saved_in(case, folder, name) for folder in case.after.new_folders())]
    if "fulldump" in case.boot.steps and not evidence(case, case.after)["fulldump"][1]:
        lost += [name for name in case.first.files if name.endswith("-fulldump.bin") and name not in case.after.files]
    return f"lost: {', '.join(lost)}" if lost else ""


def stopped_steps(case: Case) -> str:
    missing = [name for name in case.boot.steps if name not in case.affected
               and STEPS[name].evidence(case.after) != STEPS[name].evidence(case.clean)]
    return f"not done: {', '.join(missing)}" if missing else ""


def history(case: Case) -> str:
    before, after = case.before.history(), case.after.history()
    renewed = len(before) > HISTORY_LIMIT and not after.startswith(before)
    if not renewed and not after.startswith(before):
        return "earlier lines changed"
    added = after if renewed else after[len(before):]
    if added and (not HISTORY_LINE.fullmatch(added) or (not renewed and before[-1:] not in (b"", b"\n"))):
        return f"gained {added[-60:]!r}"
    wanted = case.stage == NEXT and case.boot.service == "-r"
    return "no line" if wanted and not added else ""


def unlogged(case: Case) -> str:
    for call, text in LOGGED:
        if call.match(case.failed):
            return "" if case.run and text.search(case.run.log) else f"no line with {text.pattern}"
    return ""


def not_collected(case: Case) -> str:
    """What was marked as waiting before a boot without faults must be collected by it."""
    old, new = evidence(case, case.before), evidence(case, case.after)
    left = [name for name in old if old[name][0] and new[name] != (False, True)]
    if int.from_bytes(case.before.field("rawdump", 20, 4), "little") >= 2 and case.boot.service == "-r":
        fresh = [folder for folder in case.after.new_folders() if folder not in case.before.files]
        left += [name for name in (*LOGS, "DONE")
                 if not any(case.after.files.get(folder + name) == case.clean.collected(name)[0]
                            for folder in fresh)]
    return f"still waiting: {', '.join(left)}" if left else ""


def reported_twice(case: Case) -> str:
    whole = case.clean.collected("last_kmsg")
    times = sum(text == whole[0] for text in case.after.collected("last_kmsg")) if whole else 0
    return f"{times} collections of one kernel log" if times > 1 and "node" not in case.affected else ""


# Name, meaning, the boots that it is checked after, and the check: what is wrong, empty if it holds.
INVARIANTS: tuple[tuple[str, str, tuple[str, ...], Callable[[Case], str]], ...] = (
    ("ends", "the daemon ends by itself with status 0, in time, without a sanitizer report", (FAULT, NEXT), ended),
    ("foreign bytes", "no partition byte changes outside the fields of this boot", (FAULT, CUT, NEXT), foreign_bytes),
    ("whole records", "each field of a record is whole, old or new", (FAULT, CUT, NEXT), torn_record),
    ("dump kept", "each dump waits in its partition or a file holds exactly its bytes", (FAULT, CUT, NEXT), lost_dump),
    ("copy kept", "each log that was copied whole has its raw copy or its text in the folder", (CUT,), lost_copy),
    ("log kept", "each log, and the full dump of before, is in a file, or the node waits", (FAULT,), lost_log),
    ("independent", "a fault does not stop a later step that does not need the failed one", (FAULT,), stopped_steps),
    ("history", "at most one whole line a run; exactly one in a run without faults", (FAULT, CUT, NEXT), history),
    ("logged", "the log names the failed step, where the daemon logs it", (FAULT,), unlogged),
    ("collected", "the boot after it collects all that is marked as waiting", (NEXT,), not_collected),
    ("once", "one reboot's kernel log is collected once", (NEXT,), reported_twice))

Broken = tuple[str, str]  # invariant, what is wrong


def judge(case: Case) -> list[Broken]:
    found = ((name, check(case)) for name, _, stages, check in INVARIANTS if case.stage in stages)
    return [(name, f"{case.stage}: {wrong}") for name, wrong in found if wrong]


@dataclass(frozen=True)
class Hazard:
    """A loss that is kept by design: in these boots, by faults that match (name and struck call), these
    invariants may break. `reference` is a text of its row in docs/hazards.md."""
    boots: re.Pattern[str]
    fault: re.Pattern[str]
    breaks: tuple[str, ...]
    reference: str

    @property
    def name(self) -> str:
        return f"{self.fault.pattern} ({self.reference})"

    def explains(self, boot: str, fault: str, broken: list[Broken]) -> bool:
        return (bool(self.boots.fullmatch(boot)) and bool(self.fault.search(fault))
                and all(name in self.breaks for name, _ in broken))


def load_hazards() -> list[Hazard]:
    folder = Path(__file__).resolve().parent
    rows = (folder.parent / "docs/hazards.md").read_text()
    hazards = [Hazard(re.compile(entry["boots"]), re.compile(entry["fault"]), tuple(entry["breaks"]), entry["reference"])
               for entry in json.loads((folder / "hazards.json").read_text())]
    for hazard in hazards:
        if hazard.reference not in rows:
            raise SystemExit(f"faults/hazards.json: docs/hazards.md lacks \"{hazard.reference}\"")
    return hazards
