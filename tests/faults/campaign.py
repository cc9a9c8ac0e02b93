"""What both campaigns share: the command line, the prepared boots, running the cases side by side, progress, and the
report for people and for programs."""

from __future__ import annotations

import argparse
from collections import Counter
from dataclasses import dataclass
import json
import multiprocessing
import os
from pathlib import Path
import re
import shlex
import tempfile
import time
from typing import Any, Dict, FrozenSet, Hashable, List, NoReturn, Sequence, Tuple

from vortadev import check
from vortadev.bubblewrap import BUILT_DAEMON
from vortadev.scenario import Scenario

from boots import BOOTS, digest
from calls import parse
from invariants import FAULT, INVARIANTS, LOGGED, NEXT, Boot, Broken, Case, Hazard, judge
from program import ROOT, CommandLine, need, place_for, progress
from state import Device, State


Steps = FrozenSet[str]


@dataclass(frozen=True)
class Outcome:
    """What came of one case. `tried` counts what it stands for, such as cuts one and two deep."""

    case: str
    boot: str
    call: str
    broken: Sequence[Broken]
    tried: Counter[str]


class Campaign:
    """Plans the cases of each boot, tries them and reports. `plan` and `try_case` are the campaign's own; cases have a
    `name` and a `boot`."""

    def __init__(self, program: str, about: str, hazards: Sequence[Hazard] = ()) -> None:
        parser = CommandLine(f"scripts/{program}", about)
        result = ROOT / f"build/{program}.json"
        add = parser.add_argument
        add("--short", action="store_true", help="a sample, for every day")
        add("--json", type=Path, metavar="FILE", default=result, help=f"the result for programs (build/{result.name})")
        add("--jobs", type=int, default=2, metavar="N", help="runs side by side (2)")
        add("--only", default="", metavar="REGEX", help="only cases whose name matches")
        daemon = Path(os.environ.get("VORTA_DAEMON", BUILT_DAEMON))
        add("--daemon", type=Path, metavar="PROGRAM", default=daemon, help="e.g. build/asan/vorta (build/host/vorta)")
        options = parser.parse_args()
        need("demo", "test")
        place_for(options.json)
        self.program, self.options, self.hazards, self.started = program, options, hazards, time.monotonic()
        self.daemon = options.daemon.resolve()
        if not self.daemon.is_file():
            self.fail(f"{self.daemon} is missing; build it first")
        self.sanitized = b"__asan_init" in self.daemon.read_bytes()
        self.counts: Dict[str, Counter[str]] = {}
        self.known_states: Dict[Hashable, List[Broken]] = {}

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
            self.boots = {name: self.prepare(name, scenario) for name, scenario in BOOTS.items()}
            cases: List[Any] = []
            for name, boot in self.boots.items():
                planned, counts = self.plan(boot)
                cases += planned
                self.counts[name] = Counter(counts)
            chosen = [case for case in cases if re.search(self.options.only, case.name)]
            if not chosen:
                self.fail(f"--only: no case has such a name; expected a part of one like {cases[0].name}")
            return self.report(self.try_all(chosen))

    def prepare(self, name: str, scenario: Scenario) -> Boot:
        """Makes the device and runs the boot and the one after it without faults. The promises of the scenario and all
        invariants must hold then, or the checks could not fail."""
        template = Device(self.scratch / "templates" / name, self.daemon, scenario.arguments)
        template.create(scenario)
        device = template.copy_to(self.scratch / "clean")
        first, before = device.read(), check.read_state(device.folder)
        run = device.boot(strace=("-e", "trace=all"))
        boot = Boot(name, scenario, template, first, device.read(), parse(run.trace))
        broken = judge(Case(boot, FAULT, first, boot.clean, run))
        promised = check.Boot(scenario, device.folder, before, run, echoes=False)
        broken += [("promise", line) for line in promised.broken()]
        broken += self.judge_next(boot, device, boot.clean)
        broken += [("logged", f"{text} stands in the log") for text in LOGGED.values() if re.search(text, run.log)]
        opened = [call for call in run.trace if call.startswith("openat(") and "by-name/" in call]
        broken += [("written through", call) for call in opened if "O_SYNC" not in call]
        if broken:
            wrong = "; ".join(f"{name}: {what}" for name, what in broken)
            self.fail(f"{boot.name} breaks without any fault: {wrong}\n{run.err.decode(errors='replace')}")
        return boot

    def judge_next(self, boot: Boot, device: Device, before: State, affected: Steps = frozenset()) -> List[Broken]:
        """Boots the device without faults and judges that. Devices that differ in nothing but times boot alike: one of
        them is run."""
        key = (boot.name, digest(before), "node" in affected)
        if key not in self.known_states:
            run = device.boot()
            self.known_states[key] = judge(Case(boot, NEXT, before, device.read(), run, affected))
        return self.known_states[key]

    def try_all(self, cases: Sequence[Any]) -> List[Outcome]:
        """Runs the cases side by side; on a terminal, one line tells how far they are and the time left."""
        outcomes: List[Outcome] = []
        start, broken = time.monotonic(), 0
        with multiprocessing.get_context("fork").Pool(self.options.jobs) as pool:
            for done, outcome in enumerate(pool.imap_unordered(try_case, cases, chunksize=8), 1):
                outcomes.append(outcome)
                broken += bool(outcome.broken)
                left = round((time.monotonic() - start) / done * (len(cases) - done))
                progress(f"{done} of {len(cases)}, {broken} not held, {left // 60}:{left % 60:02} left" if left else "")
        return sorted(outcomes, key=lambda outcome: outcome.case)

    def report(self, outcomes: Sequence[Outcome]) -> int:
        """Prints the result, writes it as JSON, and gives the exit status."""
        broken, known = [], {hazard.name: 0 for hazard in self.hazards}
        for outcome in outcomes:
            counts, fault = self.counts[outcome.boot], f"{outcome.case} {outcome.call}"
            counts.update(outcome.tried)
            explained = [h.name for h in self.hazards if h.explains(outcome.boot, fault, outcome.broken)]
            if outcome.broken and explained:
                known[explained[0]] += 1
                counts["known"] += 1
            elif outcome.broken:
                broken.append(outcome)
                counts["broken"] += 1
        sample = self.options.short or self.options.only or self.sanitized  # it need not show them all
        stale = [name for name, count in known.items() if count == 0 and not sample]
        seconds = round(time.monotonic() - self.started)
        print(table(self.counts))
        for outcome in broken[:10]:
            print(f"\nBROKEN {outcome.case}\n  {outcome.call}")
            print("\n".join(f"  {name}: {wrong}" for name, wrong in outcome.broken))
        print("".join(f"\nknown: {count} by {name}" for name, count in known.items() if count))
        print("".join(f"STALE: no fault shows this any more; strike it out: {name}\n" for name in stale), end="")
        if broken:
            print(f"To repeat the first: {self.repeat(broken[0])}")
        print(f"{len(broken)} broken, {sum(known.values())} known, {len(stale)} stale, {seconds} s")
        told = [{"case": o.case, "call": o.call, "invariants": dict(o.broken)} for o in broken]
        meanings = {name: check.__doc__ for name, (_, check) in INVARIANTS.items()}
        result: Dict[str, Any] = {"program": self.program, "short": self.options.short, "seconds": seconds}
        result.update(boots=self.counts, broken=told, known=known, stale=stale, invariants=meanings)
        self.options.json.write_text(json.dumps(result, indent=2) + "\n")
        return 1 if broken or stale else 0

    def repeat(self, outcome: Outcome) -> str:
        command = [f"scripts/{self.program}", "--jobs", "1", "--only", f"^{re.escape(outcome.case)}$"]
        return shlex.join(command + ([] if self.daemon == BUILT_DAEMON else ["--daemon", str(self.daemon)]))


_campaign: Campaign


def try_case(case: Any) -> Outcome:
    """In a process of its own, which has the campaign from the one that it was forked from."""
    return _campaign.try_case(case)


def table(counts: Dict[str, Counter[str]]) -> str:
    columns = list(dict.fromkeys([key for count in counts.values() for key in count] + ["known", "broken"]))
    rows: Dict[str, Sequence[Any]] = {
        "boot": columns,
        **{name: [count[key] for key in columns] for name, count in counts.items()},
    }
    rows["all"] = [sum(count[key] for count in counts.values()) for key in columns]
    return "\n".join(f"{name:<10}" + "".join(f"{cell:>10}" for cell in row) for name, row in rows.items())
