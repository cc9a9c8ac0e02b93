"""The power cuts: each boot is killed before and after each of its system calls, storage may then lack what was not
flushed, the device boots again, and that boot is cut as well."""

from __future__ import annotations

from collections import Counter
import os
import re
import sys
from typing import Dict, List, NamedTuple, Sequence, Tuple

from vortadev.phone import TMP_SUFFIX
from vortadev.records import LOG_REGIONS

from calls import Call, of_daemon, parse, thinned
from campaign import Campaign, Outcome
from invariants import CUT, NEXT, Boot, Broken, Case, judge
from state import Device, State
from storage import after_cut, storage_after

CHANGES = re.compile(r"^(write\((?![12]<)|openat\(.*O_CREAT|mkdir|unlink|rmdir|fsync|clone|wait4|exit_group)")


class Cut(NamedTuple):
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


class PowerCuts(Campaign):
    def plan(self, boot: Boot) -> Tuple[Sequence[Cut], Dict[str, int]]:
        """What is after one call is before the next."""
        calls = of_daemon(boot.calls)
        chosen = thinned(calls, self.loop)
        places = sorted({index for call in chosen for index in (call.index, call.index + 1)})
        if self.options.short:
            places = [place for n, place in enumerate(places) if n % self.SHORT_STRIDE == 0 or stores(boot, place)]
        names = [f"{boot.name}:{call.name}:{call.nth}" for call in boot.calls] + [f"{boot.name}:end"]
        cuts = [Cut(boot.name, place, names[place]) for place in places]
        return cuts, {"calls": len(calls), "merged": len(calls) - len(chosen)}

    def try_case(self, case: Cut) -> Outcome:
        boot = self.boots[case.boot]
        device = boot.template.copy_to(self.scratch / str(os.getpid()) / "first")
        last, tried = boot.calls[min(case.index, len(boot.calls) - 1)].text, Counter(cuts=1)
        broken = [("reached", "the call was not made")]
        if cut(device, boot.calls, case.index):
            broken = self.states_after(boot, device, boot.first, boot.calls[: case.index], tried, not self.options.short)
        return Outcome(case.name, case.boot, last, broken, tried)

    def states_after(
        self, boot: Boot, device: Device, before: State, made: Sequence[Call], tried: Counter[str], deeper: bool
    ) -> List[Broken]:
        """Judges each way that storage may look now, and what becomes of it. One of equal states is booted."""
        storage = storage_after(made, before)
        copied = frozenset(log for log, region in LOG_REGIONS.items() if storage.has_written(f"/{log}{TMP_SUFFIX}", region.size))
        broken: List[Broken] = []
        for way, state in after_cut(before, device.read(before), storage):
            key = (boot.name, state.digest, deeper)
            if key not in self.seen:
                self.seen[key] = self.boot_after(boot, device, state, tried, deeper)
            tried["states"] += 1
            found = judge(Case(boot, CUT, before, state, copied=copied)) + self.seen[key]
            broken += [(name, f"{way}: {wrong}") for name, wrong in found]
        return list(dict(reversed(broken)).items())  # the first of each invariant

    def boot_after(self, boot: Boot, device: Device, state: State, tried: Counter[str], deeper: bool) -> List[Broken]:
        """Boots the device in this state, and cuts that boot, at another place from state to state."""
        device.write_files(state.files)
        whole = device.copy_to(device.folder.with_name("whole"))
        run = whole.boot(strace=("-e", "trace=all"))
        tried["boots"] += 1
        broken = judge(Case(boot, NEXT, state, whole.read(state), run))
        calls = parse(run.trace)
        changing = [call for call in thinned(of_daemon(calls), self.SHORT_LOOP) if CHANGES.match(call.text)]
        if deeper and changing:
            call = changing[state.digest % len(changing)]
            again = device.copy_to(device.folder.with_name("second"))
            if not cut(again, calls, call.index):
                return [*broken, ("reached", f"second cut: {call.text} was not made")]
            tried["two deep"] += 1
            second = self.states_after(boot, again, state, calls[: call.index], tried, False)
            broken += [(name, f"then cut before {call.text[:90]}: {wrong}") for name, wrong in second]
        return broken


if __name__ == "__main__":
    # No cut breaks anything: the hazards that are kept are of faults.
    sys.exit(PowerCuts("powercuts", __doc__).run())
