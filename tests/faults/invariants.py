"""What must hold after a boot, whatever failed in it and wherever it was cut: a table of checks on the bytes that a
device holds, and the closed list of hazards that are kept."""

from __future__ import annotations

from dataclasses import dataclass
from functools import cached_property, lru_cache
import hashlib
import json
from pathlib import Path
import re
from typing import Callable, Dict, FrozenSet, List, Optional, Sequence, Tuple
import zlib

from vortadev import phone, records
from vortadev.check import differing_byte
from vortadev.device import Image
from vortadev.records import DUMP_HEADER, LOG_REGIONS, REASON_HEADER
from vortadev.scenario import Scenario

from boots import FIELDS, LOGS, STEPS
from calls import Call
from state import Device, Run, State

FULLDUMP = "-" + phone.FULLDUMP_NAME
SANITIZER = re.compile(rb"ERROR: \w+Sanitizer|runtime error:")
# What the daemon writes over a reason, and the texts of the reason.
DERIVED = {
    "innerResetReason": records.RESET_NORMAL,
    "bootLevel": 1,
    "mreasonStrFlag": records.TEXT_VALID,
    "sreasonStrFlag": records.TEXT_VALID,
}
TEXTS = ("mreasonStr", "sreasonStr")
FAULT, CUT, NEXT = "a boot with a fault", "a cut boot", "the boot after it"
COPIES = f"{phone.TMP_SUFFIX}|{phone.TMP_DUMP_NAME}"

# What the log says when a call fails; a call that is missing here fails silently by design.
LOGGED = {
    r"^openat\(.*by-name/": r"\[IsPartValid\] open .* errno",
    r"^openat\(.*history\.log.*O_APPEND": r"\[HistoryFileOpen\] open file",
    r"^openat\(.*O_RDWR\|O_CREAT": r"\[DumpFileCreate\] open file",
    r"^openat\(.*/fulldumplog\", .*O_NONBLOCK.*O_DIRECTORY": r"\[FullDumpSizeCheck\] opendir failed",
    r"^openat\(.*O_RDONLY\|O_CLOEXEC\|O_DIRECTORY": "fsync errno",
    r"^(openat|read)\(.*boardid": "Read BoardID file failed",
    r"^openat\(.*lib_factory.*= \d": "dlopen fail",
    r"^lseek\(.*by-name/": r"\[PartCommonRW\] lseek fail|\[PartOrEmmcSeek\] lseek part",
    r"^lseek\(\d+<[^>]*history\.log": r"\[HistoryFileRecord\] lseek",
    r"^lseek\(.*/dumplog/.*SEEK_SET|^lseek\(.*fulldump\.bin": r"\[PartOrEmmcSeek\] lseek emmc",
    r"^read\(.*by-name/": r"\[PartCommonRW\] read fail|\[ReadRetry\] dump read error",
    r"^write\(\d+<[^>]*by-name/": r"\[PartCommonRW\] write fail",
    r"^write\(\d+<[^>]*history\.log": r"\[HistoryFileRecord\] write",
    rf"^write\(\d+<[^>]*({COPIES}|{phone.FULLDUMP_NAME})>": r"\[WriteRetry\] dump write error",
    r"^fsync\(.*xbl_abl>": r"\[XblAblLogUpdate\] fsync errno",
    r"^fsync\(.*/last_kmsg>": r"\[LastkmsgUpdate\] fsync errno",
    r"^fsync\(.*/tz_log>": r"\[TzLogUpdate\] fsync errno",
    r"^fsync\(": "fsync errno",
    r"^mkdir\(": r"\[DumpDirOpen\] mkdir",
    r"^chmod\(": "chmod dir",
    r"^chown\(": "chown dir",
    r"^fchmod\(": "fchmod file",
    r"^fchown\(": "fchown file",
    r"^newfstatat\(\d+<.*history\.log": r"\[HistoryFileCheck\] stat",
    rf"^newfstatat\(AT_FDCWD.*({COPIES})\"": r"\[DirOrFileRemove\] stat",
    rf"^unlink\(.*{phone.SHIPMODE}": "unlink shipmode_shutdown failed",
    r"^malloc:": "malloc fail",
    r"^asprintf:": "asprintf fail",
}


@dataclass(frozen=True)
class Boot:
    """A boot without faults: the device before and after it, and its calls."""

    name: str
    scenario: Scenario
    template: Device
    first: State
    clean: State
    calls: Sequence[Call]

    @cached_property
    def steps(self) -> List[str]:
        """The steps that leave something."""
        begun = {call.step for call in self.calls}
        left = [step for step in STEPS if step.evidence(self.first) != step.evidence(self.clean)]
        return [step.name for step in left if step.name in begun or not step.begins]

    @cached_property
    def fields(self) -> List[str]:
        """The fields that the boot may write."""
        return [name for name, region in FIELDS.items() if self.first.field(region) != self.clean.field(region)]

    @cached_property
    def minidump(self) -> bytes:
        """The digest of the dump: the region is large."""
        return hashlib.sha1(self.first.field(records.MINIDUMP_REGION)).digest()

    @cached_property
    def fulldump(self) -> bytes:
        """As it is stored: whole chunks."""
        size = self.scenario.fulldump.size if self.scenario.fulldump else 0
        place = records.Region(records.USERDATA, FIELDS["fulldump"].offset, size + -size % records.COPY_CHUNK)
        return self.first.field(place)


@dataclass(frozen=True)
class Case:
    """A boot to be judged. `affected` are the steps that a fault may have kept from being done, `failed` the call that
    failed, `copied` the logs that a cut boot had copied whole."""

    boot: Boot
    stage: str
    before: State
    after: State
    run: Optional[Run] = None
    affected: FrozenSet[str] = frozenset()
    failed: str = ""
    copied: FrozenSet[str] = frozenset()


@lru_cache(maxsize=4096)
def unpacked(packed: bytes) -> bytes:
    """The digest of what gunzip makes of a file; empty unless that is one whole gzip stream."""
    stream = zlib.decompressobj(16 + zlib.MAX_WBITS)
    try:
        content = stream.decompress(packed)
    except zlib.error:
        return b""
    return hashlib.sha1(content).digest() if stream.eof and not stream.unused_data else b""


def evidence(boot: Boot, state: State) -> Dict[str, Tuple[bool, bool]]:
    """For each dump of this boot: whether it waits in its partition, and whether a file holds it."""
    held = {
        "minidump": boot.minidump in map(unpacked, state.collected(phone.RAWDUMP_NAME)),
        "fulldump": boot.fulldump in state.fulldumps(),
    }
    waits = {name: bool(DUMP_HEADER.number(state.field(FIELDS[name]), "flag") & 1) for name in held}
    return {name: (waits[name], held[name]) for name in held if name in boot.fields}


def ended(case: Case) -> str:
    """The daemon ends by itself with status 0, in time, without a sanitizer report."""
    report = SANITIZER.search(case.run.err) if case.run else None
    if not case.run or (case.run.status == 0 and not report):
        return ""
    return f"exit status {case.run.status}{f': {report[0].decode()}' if report else ''}"


def foreign_bytes(case: Case) -> str:
    """No partition byte changes outside the fields of this boot."""
    for name, before in case.before.partitions.items():
        expected, found = Image(before.size, dict(before.blocks)), case.after.partitions[name]
        for region in (FIELDS[field] for field in case.boot.fields):
            if region.partition == name:
                expected.put(region.offset, case.after.field(region))
        for difference in differing_byte(name, expected, found):
            return difference
    return ""


def derived(node: bytes, first: bytes) -> bool:
    """A node that holds a reason of the daemon's own: marks, level 1, terminated texts, and the rest kept or cleared."""
    start = bytes(records.REASON_NODE_REGION.offset)
    header, other = start + node, start + first
    rests = [bytearray(header), bytearray(other)]
    for rest in rests:
        for name in (*DERIVED, *TEXTS):
            REASON_HEADER.put(rest, name, b"")
    return (
        rests[0] in (rests[1], bytes(len(header)))
        and all(REASON_HEADER.number(header, name) == value for name, value in DERIVED.items())
        and all(len(REASON_HEADER.text(header, name)) < REASON_HEADER.field(name).size for name in TEXTS)
    )


def torn_record(case: Case) -> str:
    """Each field of a record is whole, old or new."""
    for name in case.boot.fields:
        now, first, clean = (state.field(FIELDS[name]) for state in (case.after, case.boot.first, case.boot.clean))
        cleared = name in ("node", "minidump", "fulldump") and name in case.boot.steps and not any(now)
        if now not in (first, clean) and not cleared and not (name == "node" and derived(now, first)):
            return f"{name} is neither old nor new: {now[:48].hex(' ')}"
    return ""


def lost_dump(case: Case) -> str:
    """Each dump waits in its partition or a file holds exactly its bytes."""
    lost = [name for name, known in evidence(case.boot, case.after).items() if not any(known)]
    return f"{lost[0]}: header cleared, but no file holds its bytes" if lost else ""


def saved_in(case: Case, folder: str, log: str) -> bool:
    """Whether the folder has the raw copy of the log or, unless its flush failed, the whole text."""
    unflushed = case.failed.startswith("fsync(") and f"/{log}>" in case.failed
    raw = case.after.files.get(folder + log + phone.TMP_SUFFIX)
    text = case.after.files.get(folder + log)
    return raw == case.boot.first.field(LOG_REGIONS[log]) or not unflushed and text in case.boot.clean.collected(log)


def lost_copy(case: Case) -> str:
    """Each log that was copied whole has its raw copy or its text in the folder, if storage kept the folder. The model lets
    a new one vanish until its root is flushed; a real file system brings its name along with the first file in it that is
    written through."""
    folders = [folder for folder in case.after.new_folders() if folder not in case.before.files]
    lost = [log for folder in folders for log in sorted(case.copied) if not saved_in(case, folder, log)]
    return f"neither raw copy nor text: {', '.join(lost)}" if lost else ""


def lost_log(case: Case) -> str:
    """Each log of the crash is collected, or the node waits for the next boot; the full dump of before is there until
    the new one is."""
    boot, folders = case.boot, case.after.new_folders()
    waits = case.after.field(FIELDS["node"]) == boot.first.field(FIELDS["node"])
    logs = [log for log, step in LOGS.items() if step in boot.steps and not waits]
    lost = [log for log in logs if not any(saved_in(case, folder, log) for folder in folders)]
    if "fulldump" in boot.steps and not evidence(boot, case.after)["fulldump"][1]:
        lost += [name for name in boot.first.files if name.endswith(FULLDUMP) and name not in case.after.files]
    return f"lost: {', '.join(lost)}" if lost else ""


def stopped_steps(case: Case) -> str:
    """A fault does not stop a later step that does not need the failed one."""
    wanted = [step for step in STEPS if step.name in case.boot.steps and step.name not in case.affected]
    missing = [step.name for step in wanted if step.evidence(case.after) != step.evidence(case.boot.clean)]
    return f"not done: {', '.join(missing)}" if missing else ""


def history(case: Case) -> str:
    """The history gains at most one whole line a run, exactly one in a run without faults."""
    before, after = case.before.history(), case.after.history()
    kept = after.startswith(before)
    if not kept and len(before) <= phone.HISTORY_LIMIT:
        return "earlier lines changed"
    added = after[len(before) :] if kept else after
    entries, damaged = phone.parse_history(added.decode("latin-1"))
    whole = len(entries) == 1 and not damaged and re.fullmatch(r"\d{14}(-\d{8})?", entries[0].time)
    if added and not (whole and added.count(b"\n") == 1 and not (kept and before[-1:] not in (b"", b"\n"))):
        return f"gained {added[-60:]!r}"
    return "no line" if case.stage == NEXT and "history" in case.boot.steps and not added else ""


def unlogged(case: Case) -> str:
    """The log names the failed step, where the daemon logs it."""
    text = next((text for call, text in LOGGED.items() if re.match(call, case.failed)), "")
    return "" if not text or (case.run and re.search(text, case.run.log)) else f"no line with {text}"


def not_collected(case: Case) -> str:
    """A boot without faults collects all that was marked as waiting before it."""
    old, new = evidence(case.boot, case.before), evidence(case.boot, case.after)
    left = [name for name in old if old[name][0] and new[name] != (False, True)]
    if REASON_HEADER.number(case.before.field(records.REASON_REGION), "bootLevel") >= records.ABNORMAL_LEVEL:
        fresh = [folder for folder in case.after.new_folders() if folder not in case.before.files]
        for name in (*LOGS, phone.DONE_NAME):
            whole = case.boot.clean.collected(name)
            left += [] if any(case.after.files.get(folder + name) in whole for folder in fresh) else [name]
    return f"still waiting: {', '.join(left)}" if left else ""


def reported_twice(case: Case) -> str:
    """One reboot's kernel log is collected once."""
    whole = case.boot.clean.collected("last_kmsg")
    times = sum(text in whole for text in case.after.collected("last_kmsg"))
    return f"{times} collections of one kernel log" if times > 1 and "node" not in case.affected else ""


# The boots that each is checked after, and the check: what is wrong, empty if what it says of itself holds.
INVARIANTS: Dict[str, Tuple[Sequence[str], Callable[[Case], str]]] = {
    "ends": ((FAULT, NEXT), ended),
    "foreign bytes": ((FAULT, CUT, NEXT), foreign_bytes),
    "whole records": ((FAULT, CUT, NEXT), torn_record),
    "dump kept": ((FAULT, CUT, NEXT), lost_dump),
    "copy kept": ((CUT,), lost_copy),
    "log kept": ((FAULT,), lost_log),
    "independent": ((FAULT,), stopped_steps),
    "history": ((FAULT, CUT, NEXT), history),
    "logged": ((FAULT,), unlogged),
    "collected": ((NEXT,), not_collected),
    "once": ((NEXT,), reported_twice),
}
Broken = Tuple[str, str]  # invariant, what is wrong


def judge(case: Case) -> List[Broken]:
    found = ((name, check(case)) for name, (stages, check) in INVARIANTS.items() if case.stage in stages)
    return [(name, f"{case.stage}: {wrong}") for name, wrong in found if wrong]


@dataclass(frozen=True)
class Hazard:
    """A loss that is kept by design: in these boots, by faults that match (name and struck call), these invariants may
    break. `reference` is a text of its row in docs/hazards.md."""

    boots: str
    fault: str
    breaks: Sequence[str]
    reference: str

    @property
    def name(self) -> str:
        return f"{self.fault} ({self.reference})"

    def explains(self, boot: str, fault: str, broken: Sequence[Broken]) -> bool:
        known = all(name in self.breaks for name, _ in broken)
        return known and bool(re.fullmatch(self.boots, boot) and re.search(self.fault, fault))


def load_hazards() -> List[Hazard]:
    folder = Path(__file__).resolve().parent
    rows = (folder.parents[1] / "docs/hazards.md").read_text()
    hazards = [Hazard(**entry) for entry in json.loads((folder / "hazards.json").read_text())]
    for hazard in hazards:
        if hazard.reference not in rows:
            raise SystemExit(f'tests/faults/hazards.json: docs/hazards.md lacks "{hazard.reference}"')
    return hazards
