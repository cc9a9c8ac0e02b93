"""The power cuts: each boot is killed before and after each of its system calls, storage may then lack
what was not flushed, the device boots again, and that boot is cut as well."""
from __future__ import annotations

from collections import Counter
from dataclasses import dataclass
import os
from pathlib import Path
import re
import sys
import time

from boots import LOG_REGIONS
from calls import Call, of_daemon, parse, thinned
from campaign import Outcome, Prepared, Result, arguments, chosen_by, prepare_all, report, run_all, scratch_folder
from device import Device, State
from invariants import CUT, NEXT, Broken, Case, judge
from storage import after_cut, pending_after

LOOP, SHORT_LOOP, SHORT_STRIDE = 100, 5, 13
DEEP, SHORT_DEEP = 1, 0  # second cuts for each state that a first one leaves
CHANGES = re.compile(r"^(write\((?![12]<)|openat\(.*O_CREAT|mkdir|unlink|rmdir|fsync|clone|wait4|exit_group)")


@dataclass(frozen=True)
class Cut:
    """Power fails before the call at this index of the boot; behind the last one, after the boot."""
    boot: str
    index: int

    @property
    def name(self) -> str:
        calls = PREPARED[self.boot].calls
        call = calls[self.index] if self.index < len(calls) else None
        return f"{self.boot}:{call.name}:{call.nth}" if call else f"{self.boot}:end"


def plan(prepared: Prepared, short: bool) -> tuple[list[Cut], Counter[str]]:
    """What is after one call is before the next."""
    calls = of_daemon(prepared.calls)
    chosen, merged = thinned(calls, SHORT_LOOP if short else LOOP)
    places = sorted({index for call in chosen for index in (call.index, call.index + 1)})
    if short:
        places = [place for n, place in enumerate(places) if n % SHORT_STRIDE == 0 or stores(prepared, place)]
    return [Cut(prepared.boot.name, place) for place in places], Counter({"calls": len(calls), "merged": merged})


def stores(prepared: Prepared, place: int) -> bool:
    """Whether a record is about to be written or has just been: the moments that matter most."""
    around = prepared.calls[max(place - 1, 0):place + 1]
    return any(call.name == "write" and "by-name/" in call.text for call in around)


def cut(device: Device, calls: list[Call], index: int) -> bool:
    """Boots the device and cuts that boot; false if it ended before it came to the call."""
    if index == len(calls):
        device.boot()
        return True
    call = calls[index]
    run = device.boot(strace=("-e", f"trace={call.name}", "-e", f"inject={call.name}:signal=KILL:when={call.nth}"))
    return any("killed by SIGKILL" in line for line in run.trace)


def try_cut(case: Cut) -> Outcome:
    prepared = PREPARED[case.boot]
    device = prepared.template.copy_to(SCRATCH / str(os.getpid()) / "first")
    calls = prepared.calls
    last = calls[min(case.index, len(calls) - 1)].text
    if not cut(device, calls, case.index):
        return Outcome(case.name, case.boot, last, [("reached", "the call was not made")], Counter())
    tried = Counter({"cuts": 1})
    broken = states_after(prepared, device, prepared.first, calls[:case.index], tried, DEPTH)
    return Outcome(case.name, case.boot, last, broken, tried)


SEEN: dict[tuple[str, int, int], list[Broken]] = {}


def states_after(prepared: Prepared, device: Device, before: State, made: list[Call], tried: Counter[str],
                 deep: int) -> list[Broken]:
    """Judges each way that storage may look now, and what becomes of it. States that differ in nothing
    but times go on alike: one of them is booted."""
    now, pending = device.read(), pending_after(made, set(before.files))
    copied = frozenset(log for log, (*_, size) in LOG_REGIONS.items() for name, written in pending.written.items()
                       if name.endswith(f"/{log}_tmp") and written == size)
    broken: list[Broken] = []
    for way, state in after_cut(before, now, pending):
        found = judge(Case(prepared.boot, CUT, prepared.first, prepared.clean, before, state, copied=copied))
        key = (prepared.boot.name, state.digest(), deep)
        if key not in SEEN:
            SEEN[key] = boots_after(prepared, device, state, tried, deep)
        tried["states"] += 1
        broken += [(name, f"{way}: {wrong}") for name, wrong in found + SEEN[key]]
    return list(dict(reversed(broken)).items())  # the first of each invariant


def boots_after(prepared: Prepared, device: Device, state: State, tried: Counter[str], deep: int) -> list[Broken]:
    folder = device.folder.parent
    device.write_files(state.files)
    base = device.copy_to(folder / f"base{deep}")
    whole = base.copy_to(folder / f"whole{deep}")
    run = whole.boot(strace=("-e", "trace=all"))
    tried["boots"] += 1
    broken = judge(Case(prepared.boot, NEXT, prepared.first, prepared.clean, state, whole.read(), run))
    calls = parse(run.trace)
    changing = [call.index for call in thinned(of_daemon(calls), SHORT_LOOP)[0] if CHANGES.match(call.text)]
    apart = max(1, len(changing) // max(1, deep))
    places = changing[state.digest() % apart::apart]  # another place from state to state, the same in each run
    for place in places[:deep]:
        again = base.copy_to(folder / "second")
        if not cut(again, calls, place):
            broken.append(("reached", f"second cut: {calls[place].text} was not made"))
            continue
        tried["two deep"] += 1
        second = states_after(prepared, again, state, calls[:place], tried, 0)
        broken += [(name, f"then cut before {calls[place].text[:90]}: {wrong}") for name, wrong in second]
    return broken


def main() -> int:
    global PREPARED, SCRATCH, DEPTH
    started = time.monotonic()
    options = arguments("powercuts", __doc__)
    DEPTH = SHORT_DEEP if options.short else DEEP
    with scratch_folder() as folder:
        SCRATCH = Path(folder)
        PREPARED = prepare_all(SCRATCH, options)
        plans = {name: plan(prepared, options.short) for name, prepared in PREPARED.items()}
        cuts = chosen_by(options.only, [case for listed, _ in plans.values() for case in listed])
        outcomes = run_all(cuts, try_cut, options.jobs)
    # No cut breaks anything: the hazards that are kept are those of faults.
    result = Result.of(outcomes, [], {name: counted for name, (_, counted) in plans.items()})
    return report("powercuts", options, result, started)


if __name__ == "__main__":
    sys.exit(main())
