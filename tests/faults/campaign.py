"""What both campaigns share: the command line, the prepared boots, running the cases side by side, and the report."""

from __future__ import annotations

from collections import Counter
import json
import multiprocessing
import os
from pathlib import Path
import re
import tempfile
from typing import Any, Dict, Hashable, List, NamedTuple, NoReturn, Sequence, Tuple

from vortadev import check
from vortadev.bubblewrap import BUILT_DAEMON
from vortadev.scenario import Scenario

from boots import SCENARIOS, read
from calls import parse
from invariants import FAULT, NEXT, Boot, Broken, Case, Hazard, errors, judge
from program import ROOT, CommandLine, need, place_for, progress
from state import Device


class Outcome(NamedTuple):
    """What came of one case. `tried` counts what it stands for, such as cuts one and two deep."""

    case: str
    boot: str
    call: str
    broken: Sequence[Broken]
    tried: Counter[str]


class Campaign:
    """Plans the cases of each boot, tries them and reports. `plan` and `try_case` are the campaign's own; cases have a
    `name` and a `boot`."""

    LOOP, SHORT_LOOP, SHORT_STRIDE = 100, 5, 13

    def __init__(self, program: str, about: str | None, hazards: Sequence[Hazard] = ()) -> None:
        parser = CommandLine(f"scripts/{program}", about)
        daemon = Path(os.environ.get("VORTA_DAEMON", BUILT_DAEMON))
        add = parser.add_argument
        add("--short", action="store_true", help="a sample, for every day")
        add("--json", type=Path, metavar="FILE", default=ROOT / f"build/{program}.json", help="the result for programs")
        add("--jobs", type=int, default=2, metavar="N", help="runs side by side (2)")
        add("--only", default="", metavar="REGEX", help="only cases whose name matches")
        add("--daemon", type=Path, metavar="PROGRAM", default=daemon, help="e.g. build/asan/vorta (build/host/vorta)")
        self.program, self.options, self.hazards = program, parser.parse_args(), hazards
        need("demo", "test")
        place_for(self.options.json)
        if not self.options.daemon.is_file():
            self.fail(f"{self.options.daemon} is missing; build it first")
        self.sanitized = b"__asan_init" in self.options.daemon.read_bytes()
        self.loop = self.SHORT_LOOP if self.options.short else self.LOOP
        self.counts: Dict[str, Counter[str]] = {}
        self.seen: Dict[Hashable, List[Broken]] = {}  # what became of states that were booted

    def fail(self, text: str) -> NoReturn:
        raise SystemExit(f"scripts/{self.program}: {text}")

    def plan(self, boot: Boot) -> Tuple[Sequence[Any], Dict[str, int]]:
        """The cases of a boot, and what is counted besides them."""
        raise NotImplementedError

    def try_case(self, case: Any) -> Outcome:
        raise NotImplementedError

    def run(self) -> int:
        """In memory where there is such a file system: the daemon writes through to storage. Gives the exit status."""
        global _campaign
        memory = Path("/dev/shm")
        with tempfile.TemporaryDirectory(prefix="vf-", dir=memory if memory.is_dir() else None) as folder:
            self.scratch, _campaign = Path(folder), self
            self.boots = {name: self.prepare(name, read(name)) for name in SCENARIOS}
            cases: List[Any] = []
            for name, boot in self.boots.items():
                planned, counts = self.plan(boot)
                cases += [case for case in planned if re.search(self.options.only, case.name)]
                self.counts[name] = Counter(counts)
            if not cases:
                self.fail("--only: no case has such a name; expected a part of one like panic:fsync:1:EIO:once")
            return self.report(self.try_all(cases))

    def prepare(self, name: str, scenario: Scenario) -> Boot:
        """Makes the device and runs the boot and the one after it without faults. The promises of the scenario and all
        invariants must hold then, or the checks could not fail."""
        template = Device(self.scratch / "templates" / name, self.options.daemon.resolve(), scenario.arguments)
        template.create(scenario)
        device = template.copy_to(self.scratch / "clean")
        first, before = device.read(), check.read_state(device.folder)
        run = device.boot(strace=("-e", "trace=all"))
        boot = Boot(name, scenario, template, first, device.read(first), parse(run.trace), errors(run.log))
        promised = check.Boot(scenario, device.folder, before, run, echoes=False)
        broken = [*judge(Case(boot, FAULT, first, boot.clean, run)), *(("promise", line) for line in promised.broken())]
        device.write_files(boot.clean.files)
        after = device.boot()
        broken += judge(Case(boot, NEXT, boot.clean, device.read(boot.clean), after))
        opened = [call for call in run.trace if call.startswith("openat(") and "by-name/" in call]
        broken += [("written through", call) for call in opened if "O_SYNC" not in call]
        if broken:
            wrong = "; ".join(f"{name}: {what}" for name, what in broken)
            self.fail(f"{boot.name} breaks without any fault: {wrong}\n{run.err.decode(errors='replace')}")
        return boot

    def try_all(self, cases: Sequence[Any]) -> List[Outcome]:
        """Runs the cases side by side; on a terminal, one line tells how far they are."""
        outcomes: List[Outcome] = []
        with multiprocessing.get_context("fork").Pool(self.options.jobs) as pool:
            for outcome in pool.imap_unordered(try_case, cases, chunksize=8):
                outcomes.append(outcome)
                progress(f"{len(outcomes)} of {len(cases)}" if len(outcomes) < len(cases) else "")
        return sorted(outcomes)

    def report(self, outcomes: Sequence[Outcome]) -> int:
        """Prints the result, writes it as JSON, and gives the exit status."""
        broken, known = [], {hazard.fault: 0 for hazard in self.hazards}
        for outcome in outcomes:
            fault = f"{outcome.case} {outcome.call}"
            explained = [hazard.fault for hazard in self.hazards if hazard.explains(fault, outcome.broken)]
            counts = self.counts[outcome.boot]
            counts.update(outcome.tried)
            counts.update(known=bool(outcome.broken and explained), broken=bool(outcome.broken and not explained))
            if outcome.broken and explained:
                known[explained[0]] += 1
            elif outcome.broken:
                broken.append(outcome)
        sample = self.options.short or self.options.only or self.sanitized  # it need not show them all
        stale = [] if sample else [name for name, count in known.items() if count == 0]
        print(table(self.counts))
        for outcome in broken[:10]:
            wrong = "".join(f"\n  {name}: {what}" for name, what in outcome.broken)
            print(f"\nBROKEN {outcome.case}\n  {outcome.call}{wrong}")
            print(f"  To repeat: scripts/{self.program} --daemon {self.options.daemon} --only '^{re.escape(outcome.case)}$'")
        print("".join(f"\nknown: {count} by {name}" for name, count in known.items() if count))
        print("".join(f"STALE: no fault shows this any more; strike it out: {name}\n" for name in stale), end="")
        print(f"{len(broken)} broken, {sum(known.values())} known, {len(stale)} stale")
        told = {"boots": self.counts, "broken": [outcome._asdict() for outcome in broken], "known": known, "stale": stale}
        self.options.json.write_text(json.dumps(told, indent=2) + "\n")
        return 1 if broken or stale else 0


_campaign: Campaign


def try_case(case: Any) -> Outcome:
    """In a process of its own, which has the campaign from the one that it was forked from."""
    return _campaign.try_case(case)


def table(counts: Dict[str, Counter[str]]) -> str:
    rows = {**counts, "all": sum(counts.values(), Counter[str]())}
    columns = list(dict.fromkeys(key for count in counts.values() for key in count))
    lines = [("boot", columns), *((name, [count[key] for key in columns]) for name, count in rows.items())]
    return "\n".join(f"{name:<10}" + "".join(f"{cell:>10}" for cell in cells) for name, cells in lines)
