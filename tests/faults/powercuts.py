"""The power cuts: each boot is killed before and after each of its system calls, storage may then lack what was not
flushed, the device boots again, and that boot is cut as well."""

from __future__ import annotations

from collections import Counter
from dataclasses import dataclass
import os
import re
import sys
from typing import Dict, List, Sequence, Tuple

from vortadev import phone
from vortadev.records import LOG_REGIONS

from boots import digest
from calls import Call, of_daemon, parse, thinned
from campaign import Campaign, Outcome
from invariants import CUT, NEXT, Boot, Broken, Case, judge
from state import Device, State
from storage import Pending, after_cut, pending_after

LOOP, SHORT_LOOP, SHORT_STRIDE = 100, 5, 13
DEEP, SHORT_DEEP = 1, 0  # second cuts for each state that a first one leaves
CHANGES = re.compile(r"^(write\((?![12]<)|openat\(.*O_CREAT|mkdir|unlink|rmdir|fsync|clone|wait4|exit_group)")


@dataclass(frozen=True)
class Cut:
    """Power fails before the call at this index of the boot; behind the last one, after the boot."""

    boot: str
    index: int
    name: str


def stores(boot: Boot, place: int) -> bool:
    """Whether a record is about to be written or has just been: the moments that matter most."""
    around = boot.calls[max(place - 1, 0) : place + 1]
    return any(call.name == "write" and "by-name/" in call.text for call in around)


def cut(device: Device, calls: Sequence[Call], index: int) -> bool:
    """Boots the device and cuts that boot; false if it ended before it came to the call."""
    if index == len(calls):
        device.boot()
        return True
    call = calls[index]
    run = device.boot(strace=("-e", f"trace={call.name}", "-e", f"inject={call.name}:signal=KILL:when={call.nth}"))
    return any("killed by SIGKILL" in line for line in run.trace)


def copied(pending: Pending) -> List[str]:
    """The logs that were copied whole."""
    copies = [
        (log, name) for log in LOG_REGIONS for name in pending.written if name.endswith(f"/{log}{phone.TMP_SUFFIX}")
    ]
    return [log for log, name in copies if pending.written[name] == LOG_REGIONS[log].size]


class PowerCuts(Campaign):
    def __init__(self) -> None:
        super().__init__("powercuts", __doc__ or "")  # no cut breaks anything: the hazards that are kept are of faults
        self.deep = SHORT_DEEP if self.options.short else DEEP
        self.seen: Dict[Tuple[str, int, int], List[Broken]] = {}

    def plan(self, boot: Boot) -> Tuple[Sequence[Cut], Dict[str, int]]:
        """What is after one call is before the next."""
        calls = of_daemon(boot.calls)
        chosen = thinned(calls, SHORT_LOOP if self.options.short else LOOP)
        places = sorted({index for call in chosen for index in (call.index, call.index + 1)})
        if self.options.short:
            places = [place for n, place in enumerate(places) if n % SHORT_STRIDE == 0 or stores(boot, place)]
        names = [f"{boot.name}:{call.name}:{call.nth}" for call in boot.calls] + [f"{boot.name}:end"]
        cuts = [Cut(boot.name, place, names[place]) for place in places]
        return cuts, {"calls": len(calls), "merged": len(calls) - len(chosen)}

    def try_case(self, case: Cut) -> Outcome:
        boot = self.boots[case.boot]
        device = boot.template.copy_to(self.scratch / str(os.getpid()) / "first")
        last = boot.calls[min(case.index, len(boot.calls) - 1)].text
        if not cut(device, boot.calls, case.index):
            return Outcome(case.name, case.boot, last, [("reached", "the call was not made")], Counter())
        tried = Counter(cuts=1)
        broken = self.states_after(boot, device, boot.first, boot.calls[: case.index], tried, self.deep)
        return Outcome(case.name, case.boot, last, broken, tried)

    def states_after(
        self, boot: Boot, device: Device, before: State, made: Sequence[Call], tried: Counter[str], deep: int
    ) -> List[Broken]:
        """Judges each way that storage may look now, and what becomes of it. States that differ in nothing but times go
        on alike: one of them is booted."""
        now, pending = device.read(), pending_after(made, set(before.files))
        broken: List[Broken] = []
        for way, state in after_cut(before, now, pending):
            found = judge(Case(boot, CUT, before, state, copied=frozenset(copied(pending))))
            key = (boot.name, digest(state), deep)
            if key not in self.seen:
                self.seen[key] = self.boots_after(boot, device, state, tried, deep)
            tried["states"] += 1
            broken += [(name, f"{way}: {wrong}") for name, wrong in found + self.seen[key]]
        return list(dict(reversed(broken)).items())  # the first of each invariant

    def boots_after(self, boot: Boot, device: Device, state: State, tried: Counter[str], deep: int) -> List[Broken]:
        folder = device.folder.parent
        device.write_files(state.files)
        base = device.copy_to(folder / f"base{deep}")
        whole = base.copy_to(folder / f"whole{deep}")
        run = whole.boot(strace=("-e", "trace=all"))
        tried["boots"] += 1
        broken = judge(Case(boot, NEXT, state, whole.read(), run))
        calls = parse(run.trace)
        changing = [call.index for call in thinned(of_daemon(calls), SHORT_LOOP) if CHANGES.match(call.text)]
        apart = max(1, len(changing) // max(1, deep))
        places = changing[digest(state) % apart :: apart]  # another place from state to state, the same in each run
        for place in places[:deep]:
            again = base.copy_to(folder / "second")
            if not cut(again, calls, place):
                broken.append(("reached", f"second cut: {calls[place].text} was not made"))
                continue
            tried["two deep"] += 1
            second = self.states_after(boot, again, state, calls[:place], tried, 0)
            broken += [(name, f"then cut before {calls[place].text[:90]}: {wrong}") for name, wrong in second]
        return broken


if __name__ == "__main__":
    sys.exit(PowerCuts().run())
