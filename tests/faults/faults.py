"""The fault campaign: each system call of each boot fails, in each way that it can, once alone and from there on; then
the device boots again without faults."""

from __future__ import annotations

from collections import Counter
from dataclasses import dataclass
import os
from pathlib import Path
import re
import subprocess
import sys
from typing import Dict, List, Optional, Sequence, Set, Tuple

from vortadev import phone, records
from vortadev.records import DUMP_HEADER, REASON_HEADER

from boots import affected_by, with_dependents
from calls import MEMORY, Call, errors_of, of_daemon, thinned
from campaign import Campaign, Outcome
from invariants import FAULT, Boot, Case, judge, load_hazards

LOOP, SHORT_LOOP, SHORT_STRIDE = 100, 5, 13
PACK_CALLS = records.MINIDUMP_REGION.size // 128  # the daemon packs 128 bytes a call
# What the preloaded library refuses, and the steps that cannot be done then; the last three are no corvel's.
MEMORY_FAULTS: Dict[str, Set[str]] = {
    "malloc:none:1": {"header"},
    "malloc:none:2": {"header"},
    "asprintf:none:1": set(),
    "asprintf:none:2": {"history"},
    "asprintf:none:1+": {"history"},
}
TERMINAL = re.compile(r"^write\([12]<")
# The transfers of records are not repeated; their interruption is logged like any other failure.
RECORD = f"{REASON_HEADER.size}|{DUMP_HEADER.size}"
TELLS_INTERRUPTION = re.compile(rf"^(read|write)\(\d+<[^>]*by-name/.*, ({RECORD})\)|^write\(\d+<[^>]*history\.log")


@dataclass(frozen=True)
class Fault:
    """The call fails with the error, or as a preloaded `order` says; `on`: so do all later calls of its name. `steps`:
    what cannot be done without it, where that is not told by the call."""

    boot: str
    call: Call
    error: str
    on: bool
    order: str = ""
    steps: Optional[Set[str]] = None

    @property
    def name(self) -> str:
        place = self.order or f"{self.call.name}:{self.call.nth}"
        return f"{self.boot}:{place}:{self.error}:{'on' if self.on else 'once'}"

    def strace(self) -> Tuple[str, ...]:
        # A refused brk gives the old break; an error number would look like an address.
        how = "retval=0" if self.call.name == "brk" else f"error={self.error}"
        when = f"{self.call.nth}{'+' if self.on else ''}"
        return ("-e", f"trace={self.call.name}", "-e", f"inject={self.call.name}:{how}:when={when}")


def error_faults(boot: Boot, calls: Sequence[Call]) -> List[Fault]:
    """Interruptions come one at a time: they are repeated by contract, for ever if they never end. So do failing closes:
    strace leaves the file open, which a kernel never does and which blocks a pipe."""
    faults = [Fault(boot.name, call, error, on) for call in calls for error in errors_of(call) for on in (False, True)]
    return [fault for fault in faults if not (fault.on and (fault.error == "EINTR" or fault.call.name == "close"))]


def preloaded_faults(boot: Boot, everything: Sequence[Call], kept: Sequence[Call]) -> List[Fault]:
    """Writes that take half of the bytes or none, pack calls that take none, and no memory."""

    def fault(call: Call, error: str, order: str, on: bool, steps: Optional[Set[str]] = None) -> Fault:
        return Fault(boot.name, call, error, on, order + "+" * on, steps)

    writes = [call for call in everything if call.name == "write" and not TERMINAL.match(call.text)]
    ways = (("half", False), ("half", True), ("none", False))
    chosen = [(nth, call) for nth, call in enumerate(writes, 1) if call in kept]
    faults = [fault(call, kind, f"write:{kind}:{nth}", on) for nth, call in chosen for kind, on in ways]
    for packing in [call for call in writes if f"{phone.RAWDUMP_NAME}>" in call.text][:1]:
        places = (1, 2, PACK_CALLS // 2, PACK_CALLS - 1, PACK_CALLS)
        faults += [fault(packing, "none", f"gzwrite:none:{nth}", on) for nth in places for on in (False, True)]
    return faults


def memory_faults(boot: Boot) -> List[Fault]:
    first = of_daemon(boot.calls)[0]
    orders = list(MEMORY_FAULTS.items())[: None if "history" in boot.steps else 1]
    return [Fault(boot.name, first, "ENOMEM", order.endswith("+"), order, steps) for order, steps in orders]


class Faults(Campaign):
    def __init__(self) -> None:
        super().__init__("faults", __doc__ or "", load_hazards())
        if self.sanitized:
            print("a sanitizer build: what needs a preloaded library, and memory, is left out")

    def plan(self, boot: Boot) -> Tuple[Sequence[Fault], Dict[str, int]]:
        calls = of_daemon(boot.calls)
        if self.sanitized:  # its own memory is no part of the daemon
            calls = [call for call in calls if call.name not in MEMORY]
        kept = thinned(calls, SHORT_LOOP if self.options.short else LOOP)
        faults = error_faults(boot, kept)
        if not self.sanitized:
            faults += preloaded_faults(boot, calls, kept) + memory_faults(boot)
            source = Path(__file__).with_name("preload.c")
            subprocess.run(["cc", "-shared", "-fPIC", "-O1", "-o", self.library(), source, "-ldl"], check=True)
        chosen = faults[:: SHORT_STRIDE if self.options.short and not self.options.only else 1]
        counts = {"calls": len(calls), "merged": len(calls) - len(kept), "left out": len(faults) - len(chosen)}
        return chosen, counts

    def library(self) -> Path:
        return self.scratch / "faults.so"

    def struck_by(self, fault: Fault) -> List[Call]:
        """Nothing depends on what is written to standard output and error."""
        calls = self.boots[fault.boot].calls[fault.call.index + 1 :]
        later = [call for call in calls if fault.on and call.name == fault.call.name]
        return [call for call in [fault.call, *later] if not TERMINAL.match(call.text)]

    def try_case(self, case: Fault) -> Outcome:
        boot = self.boots[case.boot]
        device = boot.template.copy_to(self.scratch / str(os.getpid()))
        run = device.boot(preload=(self.library(), case.order)) if case.order else device.boot(strace=case.strace())
        after = device.read()
        struck = [] if case.steps is not None else self.struck_by(case)
        steps = affected_by([(call.text, call.step) for call in struck]) | with_dependents(case.steps or set())
        affected = frozenset(steps)
        silent = case.error == "EINTR" and not TELLS_INTERRUPTION.search(case.call.text)
        failed = "" if silent else case.order or case.call.text
        broken = judge(Case(boot, FAULT, boot.first, after, run, affected, failed))
        if not (b"STRUCK" in run.err if case.order else any("(INJECTED)" in line for line in run.trace)):
            broken.append(("reached", "the call to fail was not made"))
        broken += self.judge_next(boot, device, after, affected)
        told = " ".join(dict.fromkeys(call.step for call in struck))
        return Outcome(case.name, case.boot, f"in [{told}]: {case.call.text}", broken, Counter(faults=1))


if __name__ == "__main__":
    sys.exit(Faults().run())
