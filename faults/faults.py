"""The fault campaign: each system call of each boot fails, in each way that it can, once alone and from
there on; then the device boots again without faults."""
from __future__ import annotations

from collections import Counter
from dataclasses import dataclass
from pathlib import Path
import os
import re
import subprocess
import sys
import time

from boots import affected_by, with_dependents
from calls import MEMORY, Call, errors_of, of_daemon, thinned
from campaign import (Outcome, Prepared, Result, arguments, chosen_by, judge_next, prepare_all, report,
                      run_all, scratch_folder)
from device import MINIDUMP_SIZE, Device, State
from invariants import FAULT, Broken, Case, judge

LOOP, SHORT_LOOP, SHORT_STRIDE = 100, 5, 13
PACK_CALLS = MINIDUMP_SIZE // 128  # the daemon packs 128 bytes a call
MEMORY_FAULTS = (  # what the preloaded library refuses, and the steps that cannot be done then
    ("-r", "malloc:none:1", ("header",)), ("-r", "malloc:none:2", ("header",)),
    ("-r", "asprintf:none:1", ()), ("-r", "asprintf:none:2", ("history",)), ("-r", "asprintf:none:1+", ("history",)),
    ("-h", "malloc:none:1", ("header",)))
TERMINAL = re.compile(r"^write\([12]<")


@dataclass(frozen=True)
class Fault:
    """The call fails with the error, or as a preloaded `order` says; `on`: so do all later calls of
    its name. `steps`: what cannot be done without it, where that is not told by the call."""
    boot: str
    call: Call
    error: str
    on: bool
    order: str = ""
    steps: tuple[str, ...] | None = None

    @property
    def name(self) -> str:
        place = self.order or f"{self.call.name}:{self.call.nth}"
        return f"{self.boot}:{place}:{self.error}:{'on' if self.on else 'once'}"

    def strace(self) -> tuple[str, ...]:
        # A refused brk gives the old break; an error number would look like an address.
        how = "retval=0" if self.call.name == "brk" else f"error={self.error}"
        when = f"{self.call.nth}{'+' if self.on else ''}"
        return ("-e", f"trace={self.call.name}", "-e", f"inject={self.call.name}:{how}:when={when}")


def error_faults(boot: str, calls: list[Call]) -> list[Fault]:
    """Interruptions come one at a time: they are repeated by contract, for ever if they never end. So do
    failing closes: strace leaves the file open, which a kernel never does and which blocks a pipe."""
    return [Fault(boot, call, error, on) for call in calls for error in errors_of(call)
            for on in (False, True) if not (on and (error == "EINTR" or call.name == "close"))]


def short_faults(boot: str, everything: list[Call], selected: set[int]) -> list[Fault]:
    """Writes that take half of the bytes or none, and pack calls that take none."""
    writes = [call for call in everything if call.name == "write" and not TERMINAL.match(call.text)]
    faults = [Fault(boot, call, kind, on, f"write:{kind}:{nth}{'+' if on else ''}")
              for nth, call in enumerate(writes, 1) if call.index in selected
              for kind, on in (("half", False), ("half", True), ("none", False))]
    packing = [call for call in writes if "rawdump.bin>" in call.text]
    faults += [Fault(boot, packing[0], "none", on, f"gzwrite:none:{nth}{'+' if on else ''}")
               for nth in (1, 2, PACK_CALLS // 2, PACK_CALLS - 1, PACK_CALLS) if packing for on in (False, True)]
    return faults


def memory_faults(prepared: Prepared) -> list[Fault]:
    first = of_daemon(prepared.calls)[0]
    return [Fault(prepared.boot.name, first, "ENOMEM", order.endswith("+"), order, steps)
            for service, order, steps in MEMORY_FAULTS if service == prepared.boot.service]


def plan(prepared: Prepared, short: bool, stride: int, sanitized: bool) -> tuple[list[Fault], Counter[str]]:
    calls = of_daemon(prepared.calls)
    if sanitized:  # its own memory is no part of the daemon
        calls = [call for call in calls if call.name not in MEMORY]
    kept, merged = thinned(calls, SHORT_LOOP if short else LOOP)
    faults = error_faults(prepared.boot.name, kept)
    if not sanitized:
        faults += short_faults(prepared.boot.name, calls, {call.index for call in kept})
        faults += memory_faults(prepared)
    chosen = faults[::stride]
    return chosen, Counter({"calls": len(calls), "merged": merged, "left out": len(faults) - len(chosen)})


def struck_by(fault: Fault, prepared: Prepared) -> list[Call]:
    """Nothing depends on what is written to standard output and error."""
    later = [call for call in prepared.calls if fault.on and call.name == fault.call.name
             and call.index > fault.call.index]
    return [call for call in [fault.call, *later] if not TERMINAL.match(call.text)]


def try_fault(fault: Fault) -> Outcome:
    prepared = PREPARED[fault.boot]
    device = prepared.template.copy_to(SCRATCH / str(os.getpid()))
    run = device.boot(preload=(LIBRARY, fault.order)) if fault.order else device.boot(strace=fault.strace())
    after = device.read()
    struck = [] if fault.steps is not None else struck_by(fault, prepared)
    affected = frozenset(affected_by([(call.text, call.step) for call in struck])
                         | with_dependents(set(fault.steps or ())))
    silent = fault.error == "EINTR" and not tells_interruption(fault)
    failed = "" if silent else fault.order or fault.call.text
    broken = judge(Case(prepared.boot, FAULT, prepared.first, prepared.clean, prepared.first, after, run,
                        affected, failed))
    if not ("STRUCK" in run.errors if fault.order else any("(INJECTED)" in line for line in run.trace)):
        broken.append(("reached", "the call to fail was not made"))
    broken += next_boot(prepared, device, after, affected)
    steps = " ".join(dict.fromkeys(call.step for call in struck))
    return Outcome(fault.name, fault.boot, f"in [{steps}]: {fault.call.text}", broken, Counter({"faults": 1}))


def tells_interruption(fault: Fault) -> bool:
    """The transfers of records are not repeated; their failure is logged like any other."""
    return bool(re.search(r"^(read|write)\(\d+<[^>]*by-name/.*, (472|56)\)|^write\(\d+<[^>]*history\.log",
                          fault.call.text))


KNOWN_STATES: dict[tuple[str, int, bool], list[Broken]] = {}


def next_boot(prepared: Prepared, device: Device, after: State, affected: frozenset[str]) -> list[Broken]:
    """The boot after it. Devices that differ in nothing but times boot alike: one of them is run."""
    key = (prepared.boot.name, after.digest(), "node" in affected)
    if key not in KNOWN_STATES:
        KNOWN_STATES[key] = judge_next(prepared, device, after, affected)
    return KNOWN_STATES[key]


def main() -> int:
    global PREPARED, SCRATCH, LIBRARY
    started = time.monotonic()
    options = arguments("faults", __doc__)
    with scratch_folder() as folder:
        SCRATCH, LIBRARY = Path(folder), Path(folder) / "faults.so"
        source = Path(__file__).with_name("preload.c")
        subprocess.run(["cc", "-shared", "-fPIC", "-O1", "-o", LIBRARY, source, "-ldl"], check=True)
        PREPARED = prepare_all(SCRATCH, options)
        sanitized = b"__asan_init" in options.daemon.read_bytes()
        if sanitized:
            print("a sanitizer build: what needs a preloaded library, and memory, is left out")
        stride = SHORT_STRIDE if options.short and not options.only else 1
        plans = {name: plan(prepared, options.short, stride, sanitized) for name, prepared in PREPARED.items()}
        faults = chosen_by(options.only, [fault for listed, _ in plans.values() for fault in listed])
        outcomes = run_all(faults, try_fault, options.jobs)
    result = Result.of(outcomes, options.hazards, {name: counted for name, (_, counted) in plans.items()})
    if options.short or options.only or sanitized:
        result.stale = []  # a sample need not show them all
    return report("faults", options, result, started)


if __name__ == "__main__":
    sys.exit(main())
