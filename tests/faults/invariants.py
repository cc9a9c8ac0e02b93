"""What must hold after a boot, whatever failed in it and wherever it was cut: a table of checks on the bytes that a
device holds, and the closed list of hazards that are kept."""

from __future__ import annotations

from dataclasses import dataclass
from functools import cached_property
import json
from pathlib import Path
import re
from typing import Any, Callable, Collection, Dict, FrozenSet, List, NamedTuple, Optional, Sequence, Set, Tuple

from vortadev import phone, records, sandbox
from vortadev.check import differing_byte
from vortadev.device import Image
from vortadev.records import DUMP_HEADER, LOG_REGIONS, REASON_HEADER

from boots import DERIVED, LOGS, STEPS
from calls import Call
from state import FIELDS, RUN, Device, State

FAULT, CUT, NEXT = "a boot with a fault", "a cut boot", "the boot after it"
SANITIZER = re.compile(rb"ERROR: \w+Sanitizer|runtime error:")
# Calls whose failure the daemon does not tell: those that only take or give back memory, processes, descriptors and
# names, looks into folders, and what goes through the shell and the packing.
SILENT = re.compile(
    r"(brk|mmap|mprotect|clone3?|v?fork|close|getdents64|pipe2?|wait4|rmdir)\(|unlink\((?!.*shipmode)"
    r"|openat\(.*/dumplog[/\"].*O_RDONLY\|O_(NONBLOCK|CLOEXEC\))"
    r"|newfstatat\((?!\d+<.*history\.log|.*(_tmp|/tmp\.bin)\")|read\(\d+<(pipe:|.*/tmp\.bin>)"
    r"|write\(([12]<|.*/rawdump\.bin>)"
)


def errors(log: str) -> Set[str]:
    """The lines at error level, without what varies."""
    return {re.sub(r"\d+", "", line) for line in log.splitlines() if line.startswith("E ")}


@dataclass(frozen=True)
class Boot:
    """A boot without faults: the device before and after it, its calls, and the log's lines at error level."""

    name: str
    template: Device
    first: State
    clean: State
    calls: Sequence[Call]
    told: Set[str]

    @cached_property
    def steps(self) -> List[str]:
        """The steps that leave something."""
        begun = {call.step for call in self.calls}
        left = [step for step in STEPS if step.evidence(self.first) != step.evidence(self.clean)]
        return [step.name for step in left if step.name in begun or not step.begins]

    @cached_property
    def fields(self) -> List[str]:
        """The fields that the boot may write."""
        return [name for name in FIELDS if self.first.field(name) != self.clean.field(name)]

    def right(self, ending: str) -> Collection[bytes]:
        """What the boot leaves under a name that ends so; that its bytes are right is a promise of the scenario."""
        return self.clean.found(ending).values()


class Case(NamedTuple):
    """A boot to be judged. `affected` are the steps that a fault may have kept from being done, `failed` the call that
    failed, with its `error`, `copied` the logs that a cut boot had copied whole."""

    boot: Boot
    stage: str
    before: State
    after: State
    run: Optional[sandbox.Run] = None
    affected: FrozenSet[str] = frozenset()
    failed: str = ""
    error: str = ""
    copied: FrozenSet[str] = frozenset()

    def folders(self) -> List[str]:
        """Those of this run: one at most."""
        return [name for name in self.after.found("/") if name not in self.before.files]


def evidence(boot: Boot, state: State) -> Dict[str, Tuple[bool, bool]]:
    """For each dump of this boot: whether it waits in its partition, and whether a file holds exactly its bytes, which
    is the file that the boot without faults makes."""
    known = {}
    for name, ending in (("minidump", f"/{phone.RAWDUMP_NAME}"), ("fulldump", f"-{phone.FULLDUMP_NAME}")):
        if name in boot.fields:
            waits = DUMP_HEADER.number(state.field(name), "flag") & 1 == 1
            known[name] = (waits, any(data in boot.right(ending) for data in state.found(ending).values()))
    return known


def ended(case: Case) -> str:
    """The daemon ends by itself with status 0, in time, without a sanitizer report."""
    report = SANITIZER.search(case.run.err) if case.run else None
    if not case.run or (case.run.status == 0 and not report):
        return ""
    return f"exit status {case.run.status}{f': {report[0].decode()}' if report else ''}"


def foreign_bytes(case: Case) -> str:
    """No partition byte changes outside the fields of this boot."""
    for name, before in case.before.partitions.items():
        expected = Image(before.size, dict(before.blocks))
        for field in case.boot.fields:
            if FIELDS[field].partition == name:
                expected.put(FIELDS[field].offset, case.after.field(field))
        for difference in differing_byte(name, expected, case.after.partitions[name]):
            return difference
    return ""


def derived(node: bytes, base: bytes) -> bytes:
    """The node with a reason of the daemon's own: marks, level 1, the texts that it has, if each ends in its field, and
    the rest of the base."""
    start = bytes(records.REASON_NODE_REGION.offset)
    header = bytearray(start + base)
    for name, value in DERIVED.items():
        REASON_HEADER.put(header, name, records.magic(value) if isinstance(value, str) else value)
    for field in map(REASON_HEADER.field, ("mreasonStr", "sreasonStr")):
        header[field.offset : field.offset + field.size] = (start + node)[field.offset :][: field.size - 1] + b"\0"
    return bytes(header[len(start) :])


def torn_record(case: Case) -> str:
    """Each field of a record is whole, old or new."""
    for name in case.boot.fields:
        now, *whole = (state.field(name) for state in (case.after, case.boot.first, case.boot.clean))
        if name in case.boot.steps and name in ("node", "minidump", "fulldump"):
            whole.append(bytes(len(now)))
        if name == "node":
            whole += [derived(now, base) for base in (whole[0], bytes(len(now)))]
        if now not in whole:
            return f"{name} is neither old nor new: {now[:48].hex(' ')}"
    return ""


def lost_dump(case: Case) -> str:
    """Each dump waits in its partition, or a file holds exactly its bytes."""
    lost = [name for name, known in evidence(case.boot, case.after).items() if not any(known)]
    return f"{lost[0]}: header cleared, but no file holds its bytes" if lost else ""


def lost_log(case: Case) -> str:
    """Each log is in the run's folder, as raw copy or whole text. After a cut: each that was copied whole, if storage
    kept the folder (a real file system brings its name along with the first file in it that is written through). After
    a fault: all, or the reason node waits; and the full dump of before, until the new one is there."""
    boot, files = case.boot, case.after.files
    if case.stage == CUT:
        logs = list(case.copied) if case.folders() else []
    else:
        waits = case.after.field("node") == boot.first.field("node")
        logs = [log for log, step in LOGS.items() if step in boot.steps and not waits]
    lost = [log for log in logs if not any(saved_in(case, folder, log) for folder in case.folders())]
    if case.stage == FAULT and "fulldump" in boot.steps and not evidence(boot, case.after)["fulldump"][1]:
        lost += [name for name in boot.first.files if name.endswith(phone.FULLDUMP_NAME) and name not in files]
    return f"neither raw copy nor text: {', '.join(sorted(lost))}" if lost else ""


def saved_in(case: Case, folder: str, log: str) -> bool:
    """Whether the folder has the raw copy of the log or, unless its flush failed, the whole text."""
    unflushed = case.failed.startswith("fsync(") and f"/{log}>" in case.failed
    raw, text = (case.after.files.get(folder + log + ending) for ending in (phone.TMP_SUFFIX, ""))
    return raw == case.boot.first.region(LOG_REGIONS[log]) or not unflushed and text in case.boot.right(f"/{log}")


def stopped_steps(case: Case) -> str:
    """A fault does not stop a later step that does not need the failed one."""
    wanted = [step for step in STEPS if step.name in case.boot.steps and step.name not in case.affected]
    missing = [step.name for step in wanted if step.evidence(case.after) != step.evidence(case.boot.clean)]
    return f"not done: {', '.join(missing)}" if missing else ""


def history(case: Case) -> str:
    """The history gains at most one whole line a run, exactly one unless a fault or a cut kept it from that."""
    before, after = case.before.history, case.after.history
    kept = after.startswith(before)
    if not kept and len(before) <= phone.HISTORY_LIMIT:
        return "earlier lines changed"
    added = after[len(before) :] if kept else after
    entries, damaged = phone.parse_history(added.decode("latin-1"))
    whole = len(entries) == 1 and not damaged and re.fullmatch(RUN, entries[0].time)
    if added and not (whole and added.count(b"\n") == 1 and not (kept and before[-1:] not in (b"", b"\n"))):
        return f"gained {added[-60:]!r}"
    wanted = case.stage == NEXT or case.stage == FAULT and "history" not in case.affected
    return "no line" if wanted and "told" in case.boot.steps and not added else ""


def unlogged(case: Case) -> str:
    """The log has a line at error level that a boot without faults has not, unless this call fails silently by design.
    An interruption may be made good instead."""
    told = not case.failed or (case.run and errors(case.run.log) - case.boot.told)
    if told or SILENT.match(case.failed) or case.error in ("half", "none"):
        return ""
    repeated = case.error == "EINTR" and case.after.digest == case.boot.clean.digest
    return "" if repeated else "no line at error level"


def not_collected(case: Case) -> str:
    """A boot without faults collects all that was marked as waiting before it, and a reboot's kernel log once."""
    boot, files = case.boot, case.after.files
    old, new = evidence(boot, case.before), evidence(boot, case.after)
    left = [name for name in old if old[name][0] and new[name] != (False, True)]
    if REASON_HEADER.number(case.before.region(records.REASON_REGION), "bootLevel") >= records.ABNORMAL_LEVEL:
        made = [(name, [files.get(folder + name) for folder in case.folders()]) for name in (*LOGS, phone.DONE_NAME)]
        left += [name for name, texts in made if not any(text in boot.right(f"/{name}") for text in texts)]
    times = sum(text in boot.right("/last_kmsg") for text in case.after.found("/last_kmsg").values())
    if times > 1 and "node" not in case.affected:
        return f"{times} collections of one kernel log"
    return f"still waiting: {', '.join(left)}" if left else ""


# The boots that each is checked after, and the check: what is wrong, empty if what it says of itself holds.
INVARIANTS: Dict[str, Tuple[Sequence[str], Callable[[Case], str]]] = {
    "ends": ((FAULT, NEXT), ended),
    "foreign bytes": ((FAULT, CUT, NEXT), foreign_bytes),
    "whole records": ((FAULT, CUT, NEXT), torn_record),
    "dump kept": ((FAULT, CUT, NEXT), lost_dump),
    "log kept": ((FAULT, CUT), lost_log),
    "independent": ((FAULT,), stopped_steps),
    "history": ((FAULT, CUT, NEXT), history),
    "logged": ((FAULT,), unlogged),
    "collected": ((NEXT,), not_collected),
}
Broken = Tuple[str, str]  # invariant, what is wrong


def judge(case: Case) -> List[Broken]:
    found = ((name, check(case)) for name, (stages, check) in INVARIANTS.items() if case.stage in stages)
    return [(name, f"{case.stage}: {wrong}") for name, wrong in found if wrong]


def load_hazards() -> List[Dict[str, Any]]:
    """The losses that are kept by design: by faults that match `fault` (name, steps and struck call), the invariants
    that it `breaks` may break. Its `reference` is a text of its row in docs/hazards.md."""
    folder = Path(__file__).resolve().parent
    rows = (folder.parents[1] / "docs/hazards.md").read_text()
    hazards: List[Dict[str, Any]] = json.loads((folder / "hazards.json").read_text())
    for hazard in hazards:
        if hazard["reference"] not in rows:
            raise SystemExit(f'tests/faults/hazards.json: docs/hazards.md lacks "{hazard["reference"]}"')
    return hazards
