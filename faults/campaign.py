"""What both campaigns share: the command line, the prepared boots, running the cases side by side,
progress, and the report for people and for programs."""
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
import sys
import tempfile
import time
from typing import Any, Callable

from boots import BOOTS, COMMON, STEPS, Boot
from calls import Call, parse
from device import Device, State
from invariants import FAULT, INVARIANTS, LOGGED, NEXT, Broken, Case, Hazard, judge, load_hazards

ROOT = Path(__file__).resolve().parent.parent
sys.path.append(str(ROOT / "scripts"))
from program import CommandLine, need, place_for, progress


@dataclass(frozen=True)
class Prepared:
    """A boot with its template device, what that holds before and after a run without faults, and the
    calls of that run."""
    boot: Boot
    template: Device
    first: State
    clean: State
    calls: list[Call]


@dataclass(frozen=True)
class Outcome:
    """What came of one case. `tried` counts what it stands for, such as cuts one and two deep."""
    case: str
    boot: str
    call: str
    broken: list[Broken]
    tried: Counter[str]


def arguments(program: str, about: str) -> argparse.Namespace:
    parser = CommandLine(f"scripts/{program}", about)
    parser.add_argument("--short", action="store_true", help="a sample, for every day")
    parser.add_argument("--json", type=Path, metavar="FILE", default=ROOT / f"build/{program}.json",
                        help=f"where the result for programs goes (build/{program}.json)")
    parser.add_argument("--jobs", type=int, default=2, metavar="N", help="runs side by side (2)")
    parser.add_argument("--only", default="", metavar="REGEX", help="only cases whose name matches")
    parser.add_argument("--build", type=Path, default=ROOT / "build/host", metavar="FOLDER",
                        help="where vortadev and the daemon are (build/host)")
    parser.add_argument("--daemon", type=Path, metavar="PROGRAM", help="another daemon, e.g. build/asan/vorta")
    options = parser.parse_args()
    need("demo", "test")
    place_for(options.json)
    options.hazards = load_hazards()
    options.build = options.build.resolve()
    options.daemon = (options.daemon or Path(os.environ.get("VORTA_DAEMON", options.build / "vorta"))).resolve()
    for needed in (options.build / "vortadev", options.daemon):
        if not needed.is_file():
            raise SystemExit(f"scripts/{program}: {needed} is missing; build it first")
    return options


def prepare(boot: Boot, scratch: Path, options: argparse.Namespace) -> Prepared:
    """Makes the device and runs the boot and the one after it without faults: all must hold then, and
    every step must leave its evidence, or the checks could not fail."""
    template = Device(scratch / "templates" / boot.name, options.build, options.daemon, boot.service)
    template.create(COMMON | boot.scenario)
    device = template.copy_to(scratch / "clean")
    first = device.read()
    run = device.boot(strace=("-e", "trace=all"))
    clean = device.read()
    broken = judge(Case(boot, FAULT, first, clean, first, clean, run))
    broken += judge_next(Prepared(boot, template, first, clean, []), device, clean)
    broken += [("evidence", f"the step {name} leaves none") for name in boot.steps
               if STEPS[name].evidence(first) == STEPS[name].evidence(clean)]
    broken += [("logged", f"{text.pattern} stands in the log") for _, text in LOGGED if text.search(run.log)]
    broken += [("written through", call) for call in run.trace
               if call.startswith("openat(") and "by-name/" in call and "O_SYNC" not in call]
    if broken:
        wrong = "; ".join(f"{name}: {what}" for name, what in broken)
        raise SystemExit(f"faults: {boot.name} breaks without any fault: {wrong}\n{run.errors}")
    return Prepared(boot, template, first, clean, parse(run.trace))


def judge_next(prepared: Prepared, device: Device, before: State,
               affected: frozenset[str] = frozenset()) -> list[Broken]:
    """Boots the device without faults and judges that."""
    run = device.boot()
    return judge(Case(prepared.boot, NEXT, prepared.first, prepared.clean, before, device.read(), run, affected))


def chosen_by(only: str, cases: list[Any]) -> list[Any]:
    chosen = [case for case in cases if re.search(only, case.name)]
    if not chosen:
        raise SystemExit(f"--only {only}: no case has such a name; expected a part of one like {cases[0].name}")
    return chosen


def run_all(cases: list[Any], work: Callable[[Any], Outcome], jobs: int) -> list[Outcome]:
    """Runs the cases side by side; on a terminal, one line tells how far they are and the time left."""
    outcomes: list[Outcome] = []
    start, broken = time.monotonic(), 0
    with multiprocessing.get_context("fork").Pool(jobs) as pool:
        for done, outcome in enumerate(pool.imap_unordered(work, cases, chunksize=8), 1):
            outcomes.append(outcome)
            broken += bool(outcome.broken)
            left = round((time.monotonic() - start) / done * (len(cases) - done))
            progress(f"{done} of {len(cases)}, {broken} not held, {left // 60}:{left % 60:02} left" if left else "")
    return sorted(outcomes, key=lambda outcome: outcome.case)


@dataclass
class Result:
    """All outcomes, sorted: what broke, and how often each kept hazard explained a break."""
    counts: dict[str, Counter[str]]
    broken: list[Outcome]
    known: dict[str, int]
    stale: list[str]

    @staticmethod
    def of(outcomes: list[Outcome], hazards: list[Hazard], counts: dict[str, Counter[str]]) -> Result:
        result = Result(counts, [], dict.fromkeys((hazard.name for hazard in hazards), 0), [])
        for outcome in outcomes:
            result.counts[outcome.boot].update(outcome.tried)
            fault = f"{outcome.case} {outcome.call}"
            hazard = next((h for h in hazards if h.explains(outcome.boot, fault, outcome.broken)), None)
            if outcome.broken and hazard:
                result.known[hazard.name] += 1
                result.counts[outcome.boot]["known"] += 1
            elif outcome.broken:
                result.broken.append(outcome)
                result.counts[outcome.boot]["broken"] += 1
        result.stale = [name for name, count in result.known.items() if count == 0]
        return result

    def table(self) -> str:
        columns = list(dict.fromkeys([key for count in self.counts.values() for key in count] + ["known", "broken"]))
        rows = [[name, *(count[key] for key in columns)] for name, count in self.counts.items()]
        rows.append(["all", *(sum(row[i + 1] for row in rows) for i in range(len(columns)))])
        return "\n".join(f"{row[0]:<10}" + "".join(f"{cell:>10}" for cell in row[1:])
                         for row in [["boot", *columns], *rows])


def report(program: str, options: argparse.Namespace, result: Result, started: float) -> int:
    """Prints the result, writes it as JSON, and gives the exit status."""
    seconds = round(time.monotonic() - started)
    print(result.table())
    for outcome in result.broken[:10]:
        print(f"\nBROKEN {outcome.case}\n  {outcome.call}")
        print("\n".join(f"  {name}: {wrong}" for name, wrong in outcome.broken))
    print("".join(f"\nknown: {count} by {name}" for name, count in result.known.items() if count))
    print("".join(f"STALE: no fault shows this any more; strike it out: {name}\n" for name in result.stale), end="")
    if result.broken:
        print(f"To repeat the first: {repeat(program, options, result.broken[0])}")
    print(f"{len(result.broken)} broken, {sum(result.known.values())} known, {len(result.stale)} stale, {seconds} s")
    options.json.parent.mkdir(exist_ok=True)
    options.json.write_text(json.dumps({
        "program": program, "short": options.short, "seconds": seconds, "boots": result.counts,
        "broken": [{"case": o.case, "call": o.call, "invariants": dict(o.broken)} for o in result.broken],
        "known": result.known, "stale": result.stale,
        "invariants": {name: meaning for name, meaning, _, _ in INVARIANTS}}, indent=2) + "\n")
    return 1 if result.broken or result.stale else 0


def repeat(program: str, options: argparse.Namespace, outcome: Outcome) -> str:
    command = [f"scripts/{program}", "--jobs", "1", "--only", f"^{re.escape(outcome.case)}$"]
    if options.build != ROOT / "build/host":
        command += ["--build", str(options.build)]
    if options.daemon != options.build / "vorta":
        command += ["--daemon", str(options.daemon)]
    return shlex.join(command)


def scratch_folder() -> tempfile.TemporaryDirectory[str]:
    """In memory where there is such a file system: the daemon writes through to storage."""
    memory = Path("/dev/shm")
    return tempfile.TemporaryDirectory(prefix="vf-", dir=memory if memory.is_dir() else None)


def prepare_all(scratch: Path, options: argparse.Namespace) -> dict[str, Prepared]:
    return {name: prepare(boot, scratch, options) for name, boot in BOOTS.items()}
