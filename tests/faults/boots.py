"""The boots that the campaigns try: shipped scenarios with small changes, and the steps that the daemon takes in them.
Everything else in the campaigns is derived from these tables."""

from __future__ import annotations

from dataclasses import dataclass, replace
import hashlib
import os
from pathlib import Path
from random import Random
import re
from typing import Any, Callable, Dict, List, Optional, Sequence, Set, Tuple

from vortadev import phone, records, scenario
from vortadev.content import Fill
from vortadev.device import FACTORY_EVENTS
from vortadev.records import Region
from vortadev.scenario import Dump, Scenario

from state import STAMP, State

FULLDUMP_SIZE = 1200000  # three chunks of a copy
OLD_DUMP = f"{phone.FULLDUMPLOG}/old-{phone.FULLDUMP_NAME}"[len("/data/") :]
OLD_MARKER = f"{phone.FULLDUMPLOG}/{phone.DONE_NAME}"[len("/data/") :]


def outdated(user_type: str = "3", reason: str = "", **changes: Any) -> Dict[str, Any]:
    """A patch of a scenario in which what a boot keeps current is outdated, so that it is written; with it, after a
    normal boot, the derived reason."""
    header: Dict[str, Any] = {"userType": user_type, "boardId": 15}
    if reason:
        header.update(innerResetReason="NMAL", bootLevel=1, mreasonStrFlag="VALD", sreasonStrFlag="VALD")
        header.update(mreasonStr="NORMALBOOT", sreasonStr=reason)
    value: Dict[str, Any] = {
        "reasonHeader": {"userType": "5", "boardId": 14},
        "expect": {"reasonHeader": header},
        **changes,
    }
    if "meta" not in changes:
        value["meta"] = {"userType": "5"}
        value["expect"]["meta"] = {"userType": user_type}
    return value


def marked(size: int) -> Fill:
    """Zeros with marks of noise, which does not pack, so that the packed dump takes many writes."""
    noise = Random(size)
    marks = (b"at %d\n" % at + noise.randbytes(4096) for at in range(0, size, 1 << 16))
    return Fill(size=size, data=b"".join(mark.ljust(1 << 16, b"\0") for mark in marks)[:size])


def read(name: str, value: Dict[str, Any]) -> Scenario:
    """The scenario, with less text in its logs, which the phone's tools are slow with, and less to pack in its dumps."""
    wanted = scenario.parse(value, Path(f"{name}.json"))
    text = {log: "".join(f"{log} line {n}\n" for n in range(3)).encode() for log in records.LOG_REGIONS}
    return replace(
        wanted,
        logs={log: Fill(size=len(lines), data=lines) for log, lines in text.items()},
        minidump=replace(wanted.minidump, fill=marked(wanted.minidump.size if any(wanted.minidump.header) else 0)),
        fulldump=wanted.fulldump and replace(wanted.fulldump, fill=marked(wanted.fulldump.size)),
    )


SCENARIOS = {
    "panic": outdated(base="kernel-panic", properties={"persist.log.remotedebug": "true"}),
    "normal": outdated(base="ship-mode", reason="SHIPMODE"),
    "fulldump": outdated(
        base="full-dump",
        reason="PS_HOLD",
        fulldump={"size": FULLDUMP_SIZE, "content": None},
        meta={"dumpSize": FULLDUMP_SIZE},
        data={OLD_MARKER: None},
    ),
    # Without a meta record, which is then rebuilt from the reason header in memory.
    "limits": outdated("1", base="full-history", meta=None, data={OLD_DUMP: {"text": "old"}}),
    "factory": outdated(base="factory-build"),
    "corvel": {"base": "corvel-first-boot"},
}
BOOTS = {name: read(name, value) for name, value in SCENARIOS.items()}


def header_field(first: str, last: str = "") -> Region:
    start, end = (records.REASON_HEADER.field(name) for name in (first, last or first))
    return Region(records.RAWDUMP, start.offset, end.offset + end.size - start.offset)


def dump_header(partition: str, dump: Optional[Dump]) -> Region:
    return Region(partition, dump.offset if dump else 0, records.DUMP_HEADER.size)


# What boots write in the partitions. A field is whole, old or new, at any time.
FIELDS = {
    "corvel": header_field("corvel"),
    "node": records.REASON_NODE_REGION,
    "usertype": header_field("userType"),
    "board": header_field("boardIdMagic", "boardId"),
    "minidump": dump_header(records.RAWDUMP, BOOTS["panic"].minidump),
    "fulldump": dump_header(records.USERDATA, BOOTS["fulldump"].fulldump),
    "meta": records.META_REGION,
}


def digest(state: State) -> int:
    """Equal for states that differ in nothing but the times of their runs, in every run of the campaign."""
    stamps: Dict[str, str] = {}

    def plain(data: bytes) -> bytes:
        return STAMP.sub(lambda time: stamps.setdefault(time[0], str(len(stamps))), data.decode("latin-1")).encode()

    parts = [state.field(region) for region in FIELDS.values()]
    for name, content in sorted(state.files.items()):
        parts += [plain(os.fsencode(name)), plain(content) if name == phone.HISTORY else content]
    whole = hashlib.blake2b(digest_size=8)
    for part in parts:
        whole.update(len(part).to_bytes(8, "little") + part)
    return int.from_bytes(whole.digest(), "little")


@dataclass(frozen=True)
class Step:
    """A step of the flow. It begins at the first call that matches `begins` while the step before is one of `after`
    (none: any). `needs` names the steps without which it cannot be done. `evidence` gives what it leaves; it is done
    when that equals what a boot without faults leaves."""

    name: str
    begins: str = ""
    after: Sequence[str] = ()
    needs: Sequence[str] = ()
    evidence: Callable[[State], Any] = lambda state: None


def files_of(name: str) -> Callable[[State], Any]:
    return lambda state: state.collected(name)


def field_of(name: str) -> Callable[[State], Any]:
    return lambda state: state.field(FIELDS[name])


def history_lines(state: State) -> int:
    return -1 if len(state.history()) > phone.HISTORY_LIMIT else state.history().count(b"\n")


def told(state: State) -> List[Tuple[str, str]]:
    entries, _ = phone.parse_history(state.history().decode("latin-1"))
    return [(entry.category, entry.reason) for entry in entries]


def minidump(state: State) -> Any:
    return state.field(FIELDS["minidump"]), state.collected(phone.RAWDUMP_NAME)


def fulldump(state: State) -> Any:
    return state.field(FIELDS["fulldump"]), state.fulldumps()


def is_there(path: str) -> Callable[[State], Any]:
    return lambda state: path in state.files


# The steps that collect a log, by the log's name; and what one of them needs besides the folder.
LOGS = {name: f"log {name}" for name in records.LOG_REGIONS}
BEFORE_LOG = {"last_xbl_abl": (LOGS["xbl_abl"],)}
AFTER_LOG = ("folder", "node", *LOGS.values())
PROPERTIES = rf"^openat\(.*{phone.BUILD_PROP}"
AT_MINIDUMP = rf"^lseek\(.*by-name/rawdump>, {FIELDS['minidump'].offset}"
FULL_DONE, DONE = f"{phone.FULLDUMPLOG}/{phone.DONE_NAME}", phone.DONE_NAME


def log_step(log: str) -> Step:
    needs = ("folder", *BEFORE_LOG.get(log, ()))
    return Step(LOGS[log], rf"^openat\(.*/{log}{phone.TMP_SUFFIX}", (), needs, files_of(log))


STEPS = [
    Step("start"),
    Step("flags", PROPERTIES, ("start",)),
    Step("header", r'^openat\(.*by-name/rawdump"'),
    Step("corvel", "", (), ("flags", "header"), field_of("corvel")),
    Step("reason", r"^pipe2\(", ("header",), ("header",), is_there(phone.SHIPMODE)),
    Step("prune", r'^openat\(.*/dumplog", .*O_DIRECTORY', ("header", "reason"), ("header",), State.earlier),
    Step("folder", r"^mkdir\(", (), ("header",), lambda state: len(state.new_folders())),
    *map(log_step, LOGS),
    Step("node", r"^lseek\(.*by-name/rawdump>, 0, SEEK_SET", AFTER_LOG, ("folder",), field_of("node")),
    Step("minidump", AT_MINIDUMP, AFTER_LOG, ("flags", "folder"), minidump),
    Step("marker", rf'^openat\(.*-\d+/{DONE}"', (), ("folder",), files_of(DONE)),
    Step("factory", PROPERTIES, ("marker",), ("header",), lambda state: state.files.get(FACTORY_EVENTS)),
    Step("history", r"^openat\(.*history\.log.*O_APPEND", (), ("header",), history_lines),
    # What the line of the history says: it depends on more than that there is one.
    Step("told", "", (), ("history", "reason", "node"), told),
    Step("usertype", PROPERTIES, ("history",), ("header",), field_of("usertype")),
    Step("meta", r'^openat\(.*bootfail_info"', (), ("header",), field_of("meta")),
    Step("fulldump", r'^openat\(.*by-name/userdata"', (), ("flags", "header", "meta"), fulldump),
    Step("fullmarker", rf"^openat\(.*{FULL_DONE}", (), ("fulldump",), is_there(FULL_DONE)),
    Step("purge", r'^openat\(.*/fulldumplog", .*O_DIRECTORY', ("meta",), ("header",), State.fulldumps),
    Step("board", r"^openat\(.*boardid", (), ("header",), field_of("board")),
    Step("remote", AT_MINIDUMP, ("board",), ("header",)),
]

# Calls whose failure leaves their own step undone at most: those that need it are expected all the same, but for the
# words of a history line that is not there.
ALONE = re.compile(
    r"^(f?chmod|f?chown|unlink|rmdir|newfstatat|fstat|stat|close|pipe2?|clone3?|v?fork|wait4)\(|^write\(.*bootfail_info"
)


def affected_by(calls: Sequence[Tuple[str, str]]) -> Set[str]:
    """The steps that cannot be expected when these calls (text, step) fail."""
    stopped = {step for text, step in calls if not ALONE.match(text) or step == "history"}
    return with_dependents(stopped) | {step for _, step in calls}


def with_dependents(failed: Set[str]) -> Set[str]:
    """The steps that cannot be expected to be done when those given failed."""
    needing = {step.name for step in STEPS if failed.intersection(step.needs)} - failed
    return with_dependents(failed | needing) if needing else failed


def steps_of(calls: Sequence[str]) -> List[str]:
    """The step that each of a boot's calls belongs to."""
    current, steps = "start", []
    waiting = [step for step in STEPS if step.begins]
    for call in calls:
        possible = (step for step in waiting if not step.after or current in step.after)
        if begun := next((step for step in possible if re.search(step.begins, call)), None):
            current = begun.name
            waiting.remove(begun)
        steps.append(current)
    return steps
