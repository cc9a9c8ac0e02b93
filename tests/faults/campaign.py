"""Makes every call of six boots fail, or cuts the boots at every call, and judges what is left; then the device boots
again without faults, and a boot after a cut is cut as well."""

from __future__ import annotations

from collections import Counter
import json
import multiprocessing
import os
from pathlib import Path
import re
import subprocess
import sys
import tempfile
from typing import Any, Dict, FrozenSet, Hashable, List, NamedTuple, Optional, Sequence, Tuple

from vortadev import check
from vortadev.bubblewrap import BUILT_DAEMON
from vortadev.phone import TMP_SUFFIX

from boots import LOGS, SCENARIOS, affected_by, read
from calls import MEMORY, POWER, Call, Strike, of_daemon, parse, strikes, thinned
from invariants import CUT, FAULT, NEXT, Boot, Broken, Case, errors, judge, load_hazards
from program import ROOT, CommandLine, need, progress
from state import Device, Run, State
from storage import after_cut, storage_after

LOOP, SHORT_LOOP, SHORT_STRIDE = 100, 5, 13
TERMINAL = re.compile(r"write\([12]<")
STORES = re.compile(r"write\(.*by-name/")
CHANGES = re.compile(r"(write\((?![12]<)|openat\(.*O_CREAT|mkdir|unlink|rmdir|fsync|clone|wait4|exit_group)")


class Outcome(NamedTuple):
    """What came of a strike. `tried` counts what it stands for, such as cuts one and two deep."""

    name: str
    boot: str
    call: str
    broken: Sequence[Broken]
    tried: Counter[str]


class Campaign:
    def __init__(self, program: str) -> None:
        parser = CommandLine(f"scripts/{program}", __doc__)
        daemon = Path(os.environ.get("VORTA_DAEMON", BUILT_DAEMON))
        add = parser.add_argument
        add("--short", action="store_true", help="a sample, for every day")
        add("--json", type=Path, metavar="FILE", default=ROOT / f"build/{program}.json", help="the result for programs")
        add("--jobs", type=int, default=2, metavar="N", help="runs side by side (2)")
        add("--only", default="", metavar="REGEX", help="all cases whose name matches, and no others")
        add("--daemon", type=Path, metavar="PROGRAM", default=daemon, help="e.g. build/asan/vorta (build/host/vorta)")
        self.program, self.options = program, parser.parse_args(sys.argv[2:])
        need("demo", "test")
        self.cuts = program == "powercuts"
        self.hazards = [] if self.cuts else load_hazards()  # no cut breaks anything
        self.sanitized = b"__asan_init" in self.options.daemon.read_bytes()
        self.counts: Dict[str, Counter[str]] = {}
        self.seen: Dict[Hashable, List[Broken]] = {}  # what became of states that were booted

    def run(self) -> int:
        """In memory where there is such a file system: the daemon writes through to storage. Gives the exit status."""
        global _campaign
        memory = Path("/dev/shm")
        with tempfile.TemporaryDirectory(prefix="vf-", dir=memory if memory.is_dir() else None) as folder:
            self.scratch, _campaign = Path(folder), self
            source, self.library = Path(__file__).with_name("preload.c"), self.scratch / "faults.so"
            subprocess.run(["cc", "-shared", "-fPIC", "-O1", "-o", self.library, source, "-ldl"], check=True)
            self.boots = {name: self.prepare(name) for name in SCENARIOS}
            cases = [case for boot in self.boots.values() for case in self.plan(boot)]
            if not cases:
                raise SystemExit("--only: no case has such a name; expected a part of one like panic:fsync:1:EIO:once")
            outcomes: List[Outcome] = []
            with multiprocessing.get_context("fork").Pool(self.options.jobs) as pool:
                for outcome in pool.imap_unordered(try_case, cases, chunksize=8):
                    outcomes.append(outcome)
                    progress(f"{len(outcomes)} of {len(cases)}" if len(outcomes) < len(cases) else "")
            return self.report(sorted(outcomes))

    def prepare(self, name: str) -> Boot:
        """Makes the device and runs the boot and the one after it without faults. The promises of the scenario and all
        invariants must hold then, or the checks could not fail."""
        scenario = read(name)
        template = Device(self.scratch / "templates" / name, self.options.daemon.resolve(), scenario.arguments)
        template.create(scenario)
        device = template.copy_to(self.scratch / "clean")
        first, before = device.read(), check.read_state(device.folder)
        run = device.boot(strace=("-e", "trace=all"))
        boot = Boot(name, template, first, device.read(first), parse(run.trace), errors(run.log))
        broken = [("promise", line) for line in check.Boot(scenario, device.folder, before, run, echoes=False).broken()]
        broken += judge(Case(boot, FAULT, first, boot.clean, run)) + self.boot_after(boot, device, boot.clean)
        opened = [call for call in run.trace if call.startswith("openat(") and "by-name/" in call]
        broken += [("written through", call) for call in opened if "O_SYNC" not in call]
        if broken:
            wrong = "; ".join(f"{name}: {what}" for name, what in broken)
            raise SystemExit(f"{name} breaks without any fault: {wrong}\n{run.err.decode(errors='replace')}")
        return boot

    def plan(self, boot: Boot) -> List[Strike]:
        """The cases of a boot: all, those asked for, or a sample, in which cuts stand around each write of a record."""
        calls = of_daemon(boot.calls)
        kept = thinned(calls, SHORT_LOOP if self.options.short else LOOP)
        if self.cuts:
            every = [Strike(boot.name, call, POWER, False) for call in kept]
            always = [
                STORES.match(before.text) or STORES.match(call.text) for before, call in zip([*kept[:1], *kept], kept)
            ]
        else:
            memory = MEMORY if "told" in boot.steps else MEMORY[:1]  # the corvel service makes no text
            every = [
                strike for strike in strikes(boot.name, [*kept, *memory]) if not self.sanitized or not strike.memory
            ]
            always = [None] * len(every)
        chosen = [strike for strike in every if re.search(self.options.only, strike.name)]
        if self.options.short and not self.options.only:
            chosen = [strike for n, strike in enumerate(every) if n % SHORT_STRIDE == 0 or always[n]]
        counts = {"calls": len(calls), "merged": len(calls) - len(kept), "left out": len(every) - len(chosen)}
        self.counts[boot.name] = Counter(counts)
        return chosen

    def try_case(self, case: Strike) -> Outcome:
        boot = self.boots[case.boot]
        device = boot.template.copy_to(self.scratch / str(os.getpid()) / "first")
        run, reached = self.strike(case, boot.calls, device)
        struck, tried = self.struck_by(case), Counter({"cuts" if self.cuts else "faults": 1})
        told = " ".join(dict.fromkeys(call.step for call in struck))
        if not reached:
            broken = [("reached", "the call was not made")]
        elif self.cuts:
            made = boot.calls[: case.call.index]
            broken = self.states_after(boot, device, boot.first, made, tried, not self.options.short)
        else:
            affected = frozenset(affected_by([(call.text, call.step) for call in struck]))
            after = device.read(boot.first)
            broken = judge(Case(boot, FAULT, boot.first, after, run, affected, case.call.text, case.error))
            broken += self.boot_after(boot, device, after, affected)
        return Outcome(case.name, case.boot, f"in [{told}]: {case.call.text}", broken, tried)

    def strike(self, case: Strike, calls: Sequence[Call], device: Device) -> Tuple[Run, bool]:
        """The run, and whether the call was made."""
        name, nth, on = case.call.name, case.call.nth, "+" if case.on else ""
        if case.preloaded:
            if case.error == "half":  # the library does not see what the C library writes to the terminal
                writes = [call for call in of_daemon(calls) if call.name == name and not TERMINAL.match(call.text)]
                nth = writes.index(case.call) + 1
            run = device.boot(preload=str(self.library), order=f"{name}:{nth}{on}")
            return run, b"STRUCK" in run.err
        run = device.boot(strace=("-e", f"trace={name}", "-e", f"inject={name}:{case.injected}:when={nth}{on}"))
        return run, any("(INJECTED)" in line or "killed by SIGKILL" in line for line in run.trace)

    def struck_by(self, case: Strike) -> List[Call]:
        """Nothing depends on what is written to standard output and error."""
        calls = [*self.boots[case.boot].calls[case.call.index + 1 :], *MEMORY]
        later = [call for call in calls if case.on and call.name == case.call.name]
        return [call for call in [case.call, *later] if not TERMINAL.match(call.text)]

    def states_after(
        self, boot: Boot, device: Device, before: State, made: Sequence[Call], tried: Counter[str], deeper: bool
    ) -> List[Broken]:
        """Judges each way that storage may look after a cut, and what becomes of it."""
        ways = after_cut(before, device.read(before), storage_after(made, before))
        closed = [call.text for call in made if call.name == "close"]
        copied = frozenset(log for log in LOGS if any(f"/{log}{TMP_SUFFIX}>" in text for text in closed))
        broken: List[Broken] = []
        for way, state in ways:
            tried["states"] += 1
            found = judge(Case(boot, CUT, before, state, copied=copied))
            found += self.boot_after(boot, device, state, frozenset(), tried, deeper)
            broken += [(name, f"{way}: {wrong}") for name, wrong in found]
        return list(dict(reversed(broken)).items())  # the first of each invariant

    def boot_after(
        self,
        boot: Boot,
        device: Device,
        state: State,
        affected: FrozenSet[str] = frozenset(),
        tried: Optional[Counter[str]] = None,
        deeper: bool = False,
    ) -> List[Broken]:
        """Boots the device in this state without faults, and cuts that boot if there is to be a deeper one. Of equal
        states one is booted."""
        key = (boot.name, state.digest, "node" in affected, deeper)
        if key not in self.seen:
            device.write_files(state.files)
            whole = device.copy_to(device.folder.with_name("whole"))
            run = whole.boot(strace=("-e", "trace=all") if deeper else ())
            broken = judge(Case(boot, NEXT, state, whole.read(state), run, affected))
            if tried is not None:
                tried["boots"] += 1
                broken += self.cut_again(boot, device, state, parse(run.trace), tried) if deeper else []
            self.seen[key] = broken
        return self.seen[key]

    def cut_again(
        self, boot: Boot, device: Device, state: State, calls: Sequence[Call], tried: Counter[str]
    ) -> List[Broken]:
        """At a place that is another one from state to state, and the same in each run of the campaign."""
        changing = [call for call in thinned(of_daemon(calls), SHORT_LOOP) if CHANGES.match(call.text)]
        call = changing[state.digest % len(changing)]
        again = device.copy_to(device.folder.with_name("second"))
        if not self.strike(Strike(boot.name, call, POWER, False), calls, again)[1]:
            return [("reached", f"second cut: {call.text} was not made")]
        tried["two deep"] += 1
        broken = self.states_after(boot, again, state, calls[: call.index], tried, False)
        return [(name, f"then cut before {call.text[:90]}: {wrong}") for name, wrong in broken]

    def report(self, outcomes: Sequence[Outcome]) -> int:
        """Prints the result, writes it as JSON, and gives the exit status."""
        broken, known = [], {hazard["fault"]: 0 for hazard in self.hazards}
        for name, boot, call, wrong, tried in outcomes:
            explained = [
                hazard["fault"]
                for hazard in self.hazards
                if {invariant for invariant, _ in wrong} <= set(hazard["breaks"])
                and re.search(hazard["fault"], f"{name} {call}")
            ]
            self.counts[boot].update(tried, known=bool(wrong and explained), broken=bool(wrong and not explained))
            if wrong and explained:
                known[explained[0]] += 1
            elif wrong:
                broken.append({"case": name, "call": call, "invariants": dict(wrong)})
        sample = self.options.short or self.options.only or self.sanitized  # it need not show them all
        stale = [] if sample else [fault for fault, count in known.items() if count == 0]
        result = {"boots": self.counts, "broken": broken, "known": known, "stale": stale}
        self.options.json.write_text(json.dumps(result, indent=2) + "\n")
        print(table(self.counts))
        for case in broken[:10]:
            print(f"BROKEN {case['case']}\n  {case['call']}", *case["invariants"].items(), sep="\n  ")
            print(f"  scripts/{self.program} --daemon {self.options.daemon} --only '^{case['case']}$' repeats it")
        print("".join(f"{count} known by {fault}\n" for fault, count in known.items() if count), end="")
        print("".join(f"STALE, no fault shows it any more; strike it out: {fault}\n" for fault in stale), end="")
        print(f"{len(broken)} broken, {sum(known.values())} known, {len(stale)} stale")
        return 1 if broken or stale else 0


_campaign: Campaign


def try_case(case: Strike) -> Outcome:
    """In a process of its own, which has the campaign from the one that it was forked from."""
    return _campaign.try_case(case)


def table(counts: Dict[str, Counter[str]]) -> str:
    columns = list(dict.fromkeys(key for count in counts.values() for key in count))
    rows: List[Tuple[str, Sequence[Any]]] = [("boot", columns)]
    rows += [(name, [count[key] for key in columns]) for name, count in counts.items()]
    rows.append(("all", [sum(count[key] for count in counts.values()) for key in columns]))
    return "\n".join(f"{name:<10}" + "".join(f"{cell:>10}" for cell in cells) for name, cells in rows)


if __name__ == "__main__":
    sys.exit(Campaign(sys.argv[1]).run())
