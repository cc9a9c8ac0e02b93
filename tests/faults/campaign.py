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
from typing import Dict, FrozenSet, Hashable, List, NamedTuple, Sequence, Tuple

from vortadev import check, device as devices, sandbox
from vortadev.bubblewrap import BUILT_DAEMON
from vortadev.phone import TMP_SUFFIX
from vortadev.terminal import progress

from boots import LOGS, SCENARIOS, read
from calls import MEMORY, POWER, Call, Strike, affected_by, of_daemon, parse, strikes, thinned
from invariants import CUT, FAULT, NEXT, Boot, Broken, Case, errors, judge, load_hazards
from program import ROOT, CommandLine, need, place_for
from state import Device, State
from storage import after_cut, storage_after

LOOP, SHORT_LOOP, SHORT_STRIDE = 100, 5, 13
TERMINAL = re.compile(r"write\([12]<")
STORES = re.compile(r"write\(.*by-name/")
CHANGES = re.compile(r"(write\((?![12]<)|openat\(.*O_CREAT|mkdir|unlink|rmdir|fsync|clone|wait4|exit_group)")
Steps = FrozenSet[str]
# What needs the preloaded library, or the memory that a sanitizer build has for itself.
OWN = re.compile(":(half|brk|mmap|mprotect|malloc|asprintf):")


class Outcome(NamedTuple):
    """What came of a strike: what broke, the hazard that explains it, and what was tried, such as cuts two deep."""

    case: str
    boot: str
    broken: Sequence[Broken]
    known: str
    tried: Counter[str]


class Campaign:
    def __init__(self, program: str) -> None:
        parser = CommandLine(f"scripts/{program}", __doc__)
        daemon = Path(os.environ.get("VORTA_DAEMON", BUILT_DAEMON))
        add, jobs = parser.add_argument, 2 * (os.cpu_count() or 1)
        add("--short", action="store_true", help="a sample, for every day")
        add("--only", default="", metavar="REGEX", help="all cases whose name matches, and no others")
        add("--jobs", type=int, default=jobs, metavar="N", help=f"runs side by side ({jobs})")
        add("--daemon", type=Path, metavar="PROGRAM", default=daemon, help="e.g. build/asan/vorta (build/host/vorta)")
        add("--json", type=Path, metavar="FILE", default=ROOT / f"build/{program}.json", help="the result for programs")
        self.program, self.options = program, parser.parse_args(sys.argv[2:])
        if not self.options.daemon.is_file():
            parser.error(f"{self.options.daemon} is missing; build it first")
        need("demo", "test")
        place_for(self.options.json)
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
            self.boots = {name: self.prepare(name) for name in SCENARIOS}
            cases = [case for boot in self.boots.values() for case in self.plan(boot)]
            if not cases:
                raise SystemExit("--only: no case has such a name; expected a part of one like panic:fsync:1:EIO:once")
            outcomes: List[Outcome] = []
            with multiprocessing.get_context("fork").Pool(self.options.jobs) as pool:
                outcomes += progress(pool.imap_unordered(try_case, cases, chunksize=8), len(cases), "cases")
        return self.report(sorted(outcomes))

    def prepare(self, name: str) -> Boot:
        """Makes the device and runs the boot and the one after it without faults. The promises of the scenario and all
        invariants must hold then, or the checks could not fail."""
        scenario = read(name)
        template = Device(self.scratch / "templates" / name, self.options.daemon.resolve(), scenario.arguments)
        devices.create(template.folder, scenario)
        (template.folder / "out").mkdir()
        library, source = str(template.folder / "out/faults.so"), str(Path(__file__).with_name("preload.c"))
        subprocess.run(["cc", "-shared", "-fPIC", "-O1", "-o", library, source, "-ldl"], check=True)
        device = template.copy_to(self.scratch / "clean")
        first, before = device.read(), check.read_state(device.folder)
        run, trace = device.boot("trace=all")
        boot = Boot(name, template, first, device.read(first), parse(trace), errors(run.log))
        broken = [("promise", line) for line in check.Boot(scenario, device.folder, before, run, echoes=False).broken()]
        broken += judge(Case(boot, FAULT, first, boot.clean, run))
        broken += self.boot_after(boot, device, boot.clean, frozenset(), Counter(), False)
        opened = [call for call in trace if call.startswith("openat(") and "by-name/" in call]
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
        else:
            memory = MEMORY if "told" in boot.steps else MEMORY[:1]  # the corvel service makes no text
            every = strikes(boot.name, [*kept, *memory])
            every = [strike for strike in every if not (self.sanitized and OWN.search(strike.name))]
        chosen = [strike for strike in every if re.search(self.options.only, strike.name)]
        if self.options.short and not self.options.only:
            stores = {n for n, (_, call, error, _) in enumerate(every) if error == POWER and STORES.match(call.text)}
            chosen = [strike for n, strike in enumerate(every) if n % SHORT_STRIDE == 0 or {n - 1, n} & stores]
        counts = {"calls": len(calls), "merged": len(calls) - len(kept), "left out": len(every) - len(chosen)}
        self.counts[boot.name] = Counter(counts)
        return chosen

    def try_case(self, case: Strike) -> Outcome:
        boot, tried = self.boots[case.boot], Counter({"cuts" if self.cuts else "faults": 1})
        device = boot.template.copy_to(self.scratch / str(os.getpid()) / "first")
        run, broken = strike(case, boot.calls, device)
        struck = struck_by(case, boot)
        if self.cuts:
            made = boot.calls[: case.call.at]
            broken += self.states_after(boot, device, boot.first, made, tried, not self.options.short)
        else:
            affected = affected_by(struck)
            after = device.read(boot.first)
            broken += judge(Case(boot, FAULT, boot.first, after, run, affected, case.call.text, case.error))
            broken += self.boot_after(boot, device, after, affected, tried, False)
        name = f"{case.name} in [{' '.join(dict.fromkeys(call.step for call in struck))}]: {case.call.text}"
        names = {name for name, _ in broken}
        known = [hazard for hazard in self.hazards if names <= {*hazard["breaks"]} and re.search(hazard["fault"], name)]
        tried.update({"known": bool(broken and known), "broken": bool(broken and not known)})
        return Outcome(name, case.boot, broken, known[0]["fault"] if broken and known else "", tried)

    def states_after(
        self, boot: Boot, device: Device, before: State, made: Sequence[Call], tried: Counter[str], deeper: bool
    ) -> List[Broken]:
        """Judges each way that storage may look after a cut, and what becomes of it."""
        closed = [call.text for call in made if call.name == "close"]
        copied = frozenset(log for log in LOGS if any(f"/{log}{TMP_SUFFIX}>" in text for text in closed))
        broken: List[Broken] = []
        for way, state in after_cut(before, device.read(before), storage_after(made, before)):
            found = judge(Case(boot, CUT, before, state, copied=copied))
            found += self.boot_after(boot, device, state, frozenset(), tried, deeper)
            tried["states"] += 1
            broken += [(name, f"{way}: {wrong}") for name, wrong in found]
        return list(dict(reversed(broken)).items())  # the first of each invariant

    def boot_after(
        self, boot: Boot, device: Device, state: State, affected: Steps, tried: Counter[str], deeper: bool
    ) -> List[Broken]:
        """Boots the device in this state without faults; of equal states one is booted. Deeper, that boot is cut, at a
        place that is another one from state to state, and the same in each run of the campaign."""
        key = (boot.name, state.digest, "node" in affected, deeper)
        if key in self.seen:
            return self.seen[key]
        device.write_files(state.files)
        whole = device.copy_to(device.folder.with_name("whole"))
        run, trace = whole.boot("trace=all" if deeper else "")
        broken = self.seen[key] = judge(Case(boot, NEXT, state, whole.read(state), run, affected))
        tried["boots"] += 1
        if deeper:
            calls = parse(trace)
            changing = [call for call in thinned(of_daemon(calls), SHORT_LOOP) if CHANGES.match(call.text)]
            second, again = changing[state.digest % len(changing)], device.copy_to(device.folder.with_name("second"))
            broken += strike(Strike(boot.name, second, POWER, False), calls, again)[1]
            found = self.states_after(boot, again, state, calls[: second.at], tried, False)
            broken += [(name, f"then cut before {second.text[:90]}: {wrong}") for name, wrong in found]
            tried["two deep"] += 1
        return broken

    def report(self, outcomes: Sequence[Outcome]) -> int:
        """Prints the result, writes it as JSON, and gives the exit status."""
        broken = [outcome for outcome in outcomes if outcome.broken and not outcome.known]
        known = Counter(outcome.known for outcome in outcomes if outcome.known)
        sample = self.options.short or self.options.only or self.sanitized  # it need not show them all
        stale = [hazard["fault"] for hazard in self.hazards if hazard["fault"] not in known and not sample]
        for outcome in outcomes:
            self.counts[outcome.boot].update(outcome.tried)
        for name, counts in [*self.counts.items(), ("all", sum(self.counts.values(), Counter[str]()))]:
            print(f"{name:<10}" + "  ".join(f"{count:>4} {what}" for what, count in counts.items()))
        for case, _, wrong, *_ in broken[:10]:
            print("", f"BROKEN {case}", *(f"  {name}: {what}" for name, what in wrong), sep="\n")
        for fault, count in known.items():
            print(f"{count} known by {fault}")
        for fault in stale:
            print(f"STALE, no fault shows it any more; strike it out: {fault}")
        if broken:
            repeat = f"scripts/{self.program} --daemon {self.options.daemon} --only"
            print(f"To repeat the first: {repeat} '^{broken[0].case.split()[0]}$'")
        print(f"{len(broken)} broken, {sum(known.values())} known, {len(stale)} stale")
        result = {"boots": self.counts, "broken": [case._asdict() for case in broken], "known": known, "stale": stale}
        self.options.json.write_text(json.dumps(result, indent=2) + "\n")
        return 1 if broken or stale else 0


_campaign: Campaign


def try_case(case: Strike) -> Outcome:
    """In a process of its own, which has the campaign from the one that it was forked from: in threads all would wait
    for the one that compares."""
    return _campaign.try_case(case)


def strike(case: Strike, calls: Sequence[Call], device: Device) -> Tuple[sandbox.Run, List[Broken]]:
    """Boots the device so. It is wrong if the call is not made."""
    name, nth, on = case.call.name, case.call.nth, "+" if case.on else ""
    if case.injected:
        run, trace = device.boot(f"trace={name}", f"inject={name}:{case.injected}:when={nth}{on}")
        made = any("(INJECTED)" in line or "killed by SIGKILL" in line for line in trace)
        return run, [] if made else [("reached", f"{case.name} was not made")]
    if case.error == "half":  # the library does not see what the C library writes to the terminal
        writes = [call for call in of_daemon(calls) if call.name == name and not TERMINAL.match(call.text)]
        nth = writes.index(case.call) + 1
    return device.boot(LD_PRELOAD="/out/faults.so", FAULT=f"{name}:{nth}{on}")[0], []


def struck_by(case: Strike, boot: Boot) -> List[Call]:
    """Nothing depends on what is written to standard output and error."""
    later = [call for call in [*boot.calls[case.call.at + 1 :], *MEMORY] if case.on and call.name == case.call.name]
    return [call for call in [case.call, *later] if not TERMINAL.match(call.text)]


if __name__ == "__main__":
    sys.exit(Campaign(sys.argv[1]).run())
