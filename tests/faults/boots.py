"""The boots that the campaigns try: shipped scenarios with small changes, and the steps that the daemon takes in them.
Everything else in the campaigns is derived from these tables."""

from __future__ import annotations

from dataclasses import replace
from pathlib import Path
from random import Random
import re
from typing import Any, Dict, List, NamedTuple, Sequence

from vortadev import phone, records, scenario
from vortadev.content import Fill
from vortadev.device import FACTORY_EVENTS
from vortadev.scenario import Scenario

from state import RUN, State

FULLDUMP_SIZE = 1200000  # three chunks of a copy
FULL_DONE = f"{phone.FULLDUMPLOG}/{phone.DONE_NAME}"
OLD_DUMP = f"{phone.FULLDUMPLOG}/old-{phone.FULLDUMP_NAME}"[len("/data/") :]
# What the daemon writes over a reason, besides the texts.
DERIVED: Any = {"innerResetReason": "NMAL", "bootLevel": 1, "mreasonStrFlag": "VALD", "sreasonStrFlag": "VALD"}


def outdated(user_type: str = "3", reason: str = "", **changes: Any) -> Dict[str, Any]:
    """A patch of a scenario in which what a boot keeps current is outdated, so that it is written; with it, after a
    normal boot, the derived reason."""
    header: Dict[str, Any] = {"userType": user_type, "boardId": 15}
    if reason:
        header.update(DERIVED, mreasonStr="NORMALBOOT", sreasonStr=reason)
    expect: Dict[str, Any] = {"reasonHeader": header}
    if "meta" not in changes:
        expect["meta"] = {"userType": user_type}
    return {"reasonHeader": {"userType": "5", "boardId": 14}, "meta": {"userType": "5"}, "expect": expect, **changes}


SCENARIOS = {
    "panic": outdated(base="kernel-panic", properties={"persist.log.remotedebug": "true"}),
    "normal": outdated(base="ship-mode", reason="SHIPMODE"),
    "fulldump": outdated(
        base="full-dump",
        reason="PS_HOLD",
        fulldump={"size": FULLDUMP_SIZE, "content": None},
        meta={"dumpSize": FULLDUMP_SIZE},
        data={FULL_DONE[len("/data/") :]: None},
    ),
    # Without a meta record, which is then rebuilt from the reason header in memory.
    "limits": outdated("1", base="full-history", meta=None, data={OLD_DUMP: {"text": "old"}}),
    "factory": outdated(base="factory-build"),
    "corvel": {"base": "corvel-first-boot"},
}


def marked(size: int) -> Fill:
    """Zeros with marks of noise, which does not pack, so that the packed dump takes many writes."""
    noise = Random(size)
    marks = (b"at %d\n" % at + noise.randbytes(4096) for at in range(0, size, 1 << 16))
    return Fill(size=size, data=b"".join(mark.ljust(1 << 16, b"\0") for mark in marks)[:size])


def read(name: str) -> Scenario:
    """With less text in the logs, which the phone's tools are slow with, and less to pack in the dumps."""
    wanted = scenario.parse(SCENARIOS[name], Path(f"{name}.json"))
    text = {log: "".join(f"{log} line {n}\n" for n in range(3)).encode() for log in records.LOG_REGIONS}
    return replace(
        wanted,
        logs={log: Fill(size=len(lines), data=lines) for log, lines in text.items()},
        minidump=replace(wanted.minidump, fill=marked(wanted.minidump.size if any(wanted.minidump.header) else 0)),
        fulldump=wanted.fulldump and replace(wanted.fulldump, fill=marked(wanted.fulldump.size)),
    )


class Step(NamedTuple):
    """A step of the flow. It begins at the first call that matches `begins` while the step before is one of `after`
    (empty: any). It is done when the facts that match `leaves` are those that a boot without faults leaves. Without it
    those of `carries` cannot be expected either. All but the names are patterns."""

    name: str
    begins: str = ""
    after: str = ""
    leaves: str = "$^"
    carries: str = ""

    def evidence(self, state: State) -> Dict[str, Any]:
        return {name: fact for name, fact in state.facts.items() if re.search(self.leaves, name)}


LOGS = {name: f"log {name}" for name in records.LOG_REGIONS}  # the steps that collect a log, by its name
PROPERTIES = rf"^openat\(.*{phone.BUILD_PROP}"
AT_MINIDUMP = rf"^lseek\(.*by-name/rawdump>, {records.MINIDUMP_REGION.offset}"
COLLECTED = "folder|node|log .*"

STEPS = [
    Step("start"),
    Step("flags", PROPERTIES, "start", carries="corvel|minidump|full.*"),
    Step("header", r'^openat\(.*by-name/rawdump"', carries=".*"),
    Step("corvel", leaves="^corvel$"),
    Step("reason", r"^pipe2\(", "header", leaves=f"^{phone.SHIPMODE}$", carries="told"),
    Step("prune", r'^openat\(.*/dumplog", .*O_DIRECTORY', "header|reason", leaves="/dumplog/2024"),
    Step("folder", r"^mkdir\(", leaves=f"{RUN}/$", carries=f"{COLLECTED}|minidump|marker|told"),
    *(
        # The previous boot loader log is not even tried without this boot's.
        Step(step, rf"^openat\(.*/{log}_tmp", "", f"{RUN}/{log}$", LOGS["last_xbl_abl"] if log == "xbl_abl" else "")
        for log, step in LOGS.items()
    ),
    Step("node", r"^lseek\(.*by-name/rawdump>, 0, SEEK_SET", COLLECTED, leaves="^node$", carries="told"),
    Step("minidump", AT_MINIDUMP, COLLECTED, leaves=f"^minidump$|{RUN}/rawdump.bin$"),
    Step("marker", r'^openat\(.*-\d+/DONE"', leaves=f"{RUN}/DONE$"),
    Step("factory", PROPERTIES, "marker", leaves=FACTORY_EVENTS),
    Step("history", r"^openat\(.*history\.log.*O_APPEND", carries="told"),
    # What the history says: it depends on more than that it has a line of this boot.
    Step("told", leaves=f"^{phone.HISTORY}$"),
    Step("usertype", PROPERTIES, "history", leaves="^usertype$"),
    Step("meta", r'^openat\(.*bootfail_info"', leaves="^meta$", carries="full.*"),
    Step("fulldump", r'^openat\(.*by-name/userdata"', leaves=f"^fulldump$|{RUN}-fulldump.bin$", carries="fullmarker"),
    Step("fullmarker", f"^openat.*{FULL_DONE}", leaves=FULL_DONE),
    Step("purge", r'^openat\(.*/fulldumplog", .*O_DIRECTORY', "meta", leaves="fulldump.bin$"),
    Step("board", r"^openat\(.*boardid", leaves="^board$"),
    Step("remote", AT_MINIDUMP, "board"),
]

# Calls whose failure leaves their own step undone at most: those that need it are expected all the same, but for the
# words of a history line that is not there.
ALONE = re.compile(
    r"^(f?chmod|f?chown|unlink|rmdir|newfstatat|fstat|stat|close|pipe2?|clone3?|v?fork|wait4)\(|^write\(.*bootfail_info"
)


def steps_of(calls: Sequence[str]) -> List[str]:
    """The step that each of a boot's calls belongs to."""
    current, steps = "start", []
    waiting = [step for step in STEPS if step.begins]
    for call in calls:
        possible = (step for step in waiting if not step.after or re.fullmatch(step.after, current))
        if begun := next((step for step in possible if re.search(step.begins, call)), None):
            current = begun.name
            waiting.remove(begun)
        steps.append(current)
    return steps
