"""The fault campaign: each system call of each boot fails, in each way that it can, once alone and from there on; then
the device boots again without faults."""

from __future__ import annotations

from collections import Counter
import os
from pathlib import Path
import re
import subprocess
import sys
from typing import Dict, FrozenSet, List, NamedTuple, Sequence, Tuple

from boots import affected_by
from calls import MEMORY, Call, errors_of, of_daemon, thinned
from campaign import Campaign, Outcome
from invariants import FAULT, NEXT, Boot, Broken, Case, judge, load_hazards
from state import Device, Run, State

TERMINAL = re.compile(r"^write\([12]<")


class Fault(NamedTuple):
    """The call fails with the error; `on`: so do all later calls of its name."""

    boot: str
    call: Call
    error: str
    on: bool

    @property
    def name(self) -> str:
        return f"{self.boot}:{self.call.name}:{self.call.nth}:{self.error}:{'on' if self.on else 'once'}"

    @property
    def preloaded(self) -> bool:
        return self.error == "half" or self.call in MEMORY

    def possible(self) -> bool:
        """Interruptions and writes that take nothing come one at a time: they are repeated by contract, for ever if
        they never end. So do failing closes: strace leaves the file open, which a kernel never does and which blocks a
        pipe."""
        return not (self.on and (self.error in ("EINTR", "none") or self.call.name == "close"))


class Faults(Campaign):
    def __init__(self) -> None:
        super().__init__("faults", __doc__, load_hazards())
        if self.sanitized:
            print("a sanitizer build: what needs a preloaded library, and memory, is left out")

    def plan(self, boot: Boot) -> Tuple[Sequence[Fault], Dict[str, int]]:
        calls = of_daemon(boot.calls)
        kept = thinned(calls, self.loop)
        struck = [*kept, *(MEMORY if "history" in boot.steps else MEMORY[:1])]  # the corvel service makes no text
        every = [Fault(boot.name, call, error, on) for call in struck for error in errors_of(call) for on in (False, True)]
        faults = [fault for fault in every if fault.possible()]
        if self.sanitized:  # its own memory is no part of the daemon
            faults = [fault for fault in faults if fault.error != "ENOMEM" and not fault.preloaded]
        else:
            source = Path(__file__).with_name("preload.c")
            subprocess.run(["cc", "-shared", "-fPIC", "-O1", "-o", self.library(), source, "-ldl"], check=True)
        chosen = faults[:: self.SHORT_STRIDE if self.options.short and not self.options.only else 1]
        counts = {"calls": len(calls), "merged": len(calls) - len(kept), "left out": len(faults) - len(chosen)}
        return chosen, counts

    def library(self) -> Path:
        return self.scratch / "faults.so"

    def boot_with(self, fault: Fault, device: Device) -> Tuple[Run, bool]:
        """The run, and whether the call was made."""
        name, nth, on = fault.call.name, fault.call.nth, "+" if fault.on else ""
        if fault.preloaded:
            if fault.error == "half":  # the library does not see what the C library writes to the terminal
                calls = of_daemon(self.boots[fault.boot].calls)
                nth = [call for call in calls if call.name == name and not TERMINAL.match(call.text)].index(fault.call) + 1
            run = device.boot(preload=str(self.library()), order=f"{name}:{nth}{on}")
            return run, b"STRUCK" in run.err
        # A refused brk gives the old break; an error number would look like an address.
        how = "retval=0" if fault.error == "none" or name == "brk" else f"error={fault.error}"
        run = device.boot(strace=("-e", f"trace={name}", "-e", f"inject={name}:{how}:when={nth}{on}"))
        return run, any("(INJECTED)" in line for line in run.trace)

    def struck_by(self, fault: Fault) -> List[Call]:
        """Nothing depends on what is written to standard output and error."""
        calls = [*self.boots[fault.boot].calls[fault.call.index + 1 :], *MEMORY]
        later = [call for call in calls if fault.on and call.name == fault.call.name]
        return [call for call in [fault.call, *later] if not TERMINAL.match(call.text)]

    def try_case(self, case: Fault) -> Outcome:
        boot = self.boots[case.boot]
        device = boot.template.copy_to(self.scratch / str(os.getpid()))
        run, reached = self.boot_with(case, device)
        after, struck = device.read(boot.first), self.struck_by(case)
        affected = frozenset(affected_by([(call.text, call.step) for call in struck]))
        broken = judge(Case(boot, FAULT, boot.first, after, run, affected, case.call.text, case.error))
        broken += [] if reached else [("reached", "the call to fail was not made")]
        broken += self.boot_after(boot, device, after, affected)
        told = " ".join(dict.fromkeys(call.step for call in struck))
        return Outcome(case.name, case.boot, f"in [{told}]: {case.call.text}", broken, Counter(faults=1))

    def boot_after(self, boot: Boot, device: Device, before: State, affected: FrozenSet[str]) -> List[Broken]:
        """Boots the device without faults and judges that. One of all equal devices is run."""
        key = (boot.name, before.digest, "node" in affected)
        if key not in self.seen:
            device.write_files(before.files)
            run = device.boot()
            self.seen[key] = judge(Case(boot, NEXT, before, device.read(before), run, affected))
        return self.seen[key]


if __name__ == "__main__":
    sys.exit(Faults().run())
