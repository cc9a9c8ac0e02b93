"""What both campaigns share: the command line, the prepared boots, running the cases side by side,
progress, and the report for people and for programs."""
from __future__ import annotations

import argparse
from collections import Counter
from dataclasses import dataclass
import json
import multiprocessing
from pathlib import Path
import re
import shlex
import shutil
import sys
import tempfile
import time
from typing import Any, Callable, Iterable

from boots import BOOTS, COMMON, STEPS, Boot
from calls import Call, of_daemon, parse
from device import Device, State
from invariants import CUT, FAULT, INVARIANTS, NEXT, Broken, Case, judge, load_hazards

ROOT = Path(__file__).resolve().parent.parent


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
    parser = argparse.ArgumentParser(prog=f"scripts/{program}", description=about)
    parser.add_argument("--short", action="store_true", help="a sample, for every day")
    parser.add_argument("--json", type=Path, metavar="FILE", help="write the result for programs")
    parser.add_argument("--jobs", type=int, default=2, metavar="N", help="runs side by side (2)")
    parser.add_argument("--only", default="", metavar="REGEX", help="only cases whose name matches")
    parser.add_argument("--build", type=Path, default=ROOT / "build/host", metavar="FOLDER",
                        help="where vortadev and the daemon are (build/host)")
    parser.add_argument("--daemon", type=Path, metavar="PROGRAM", help="another daemon, e.g. build/asan/vorta")
    options = parser.parse_args()
    options.hazards = load_hazards()
    options.build = options.build.resolve()
    options.daemon = (options.daemon or options.build / "vorta").resolve()
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
    if broken:
        raise SystemExit(f"faults: the boot \"{boot.name}\" breaks without any fault: {broken}\n{run.errors}")
    return Prepared(boot, template, first, clean, parse(run.trace))


def judge_next(prepared: Prepared, device: Device, before: State,
               affected: frozenset[str] = frozenset()) -> list[Broken]:
    """Boots the device without faults and judges that."""
    run = device.boot()
    return judge(Case(prepared.boot, NEXT, prepared.first, prepared.clean, before, device.read(), run, affected))


class Progress:
    """One line on a terminal, with an estimate of the time left."""

    def __init__(self, total: int) -> None:
        self.total, self.done, self.start, self.shown = total, 0, time.monotonic(), sys.stderr.isatty()

    def step(self, broken: int) -> None:
        self.done += 1
        if self.shown:
            left = (time.monotonic() - self.start) / self.done * (self.total - self.done)
            sys.stderr.write(f"\r{self.done} of {self.total}, {broken} broken, "
                             f"{int(left) // 60}:{int(left) % 60:02} left \x1b[K")
            if self.done == self.total:
                sys.stderr.write("\r\x1b[K")


def run_all(cases: list[Any], work: Callable[[Any], Outcome], jobs: int) -> list[Outcome]:
    progress, outcomes = Progress(len(cases)), []
    with multiprocessing.get_context("fork").Pool(jobs) as pool:
        for outcome in pool.imap_unordered(work, cases, chunksize=8):
            outcomes.append(outcome)
            progress.step(sum(bool(done.broken) for done in outcomes))
    return sorted(outcomes, key=lambda outcome: outcome.case)


def table(rows: list[list[Any]]) -> str:
    widths = [max(len(str(row[column])) for row in rows) for column in range(len(rows[0]))]
    return "\n".join("  ".join(str(cell).ljust(width) if column == 0 else str(cell).rjust(width)
                               for column, (cell, width) in enumerate(zip(row, widths))) for row in rows)


def report(program: str, options: argparse.Namespace, outcomes: list[Outcome], plan: dict[str, Counter[str]],
           started: float, stale_matters: bool) -> int:
    """Sorts the outcomes into held, known and broken, prints and writes that; the exit status."""
    hazards = options.hazards
    matched: Counter[int] = Counter()
    broken: list[Outcome] = []
    counts = {name: Counter(plan[name]) for name in plan}
    for outcome in outcomes:
        counts[outcome.boot].update(outcome.tried)
        match = next((i for i, hazard in enumerate(hazards)
                      if hazard.explains(outcome.boot, f"{outcome.case} {outcome.call}", outcome.broken)), None)
        if outcome.broken and match is not None:
            matched[match] += 1
            counts[outcome.boot]["known"] += 1
        elif outcome.broken:
            broken.append(outcome)
            counts[outcome.boot]["broken"] += 1
    stale = [hazard for i, hazard in enumerate(hazards) if stale_matters and not matched[i]]
    columns = list(dict.fromkeys([key for count in counts.values() for key in count] + ["known", "broken"]))
    rows = [["boot", *columns]] + [[name, *(count[key] for key in columns)] for name, count in counts.items()]
    rows.append(["all", *(sum(row[i + 1] for row in rows[1:]) for i in range(len(columns)))])
    print(table(rows))
    for outcome in broken[:10]:
        print(f"\nBROKEN {outcome.case}\n  {outcome.call}")
        print("\n".join(f"  {name}: {wrong}" for name, wrong in outcome.broken))
    for i, count in sorted(matched.items()):
        print(f"known: {count} by {hazards[i].fault.pattern}: {hazards[i].reference}")
    for hazard in stale:
        print(f"STALE: no fault matches {hazard.fault.pattern} any more; strike it out")
    if broken:
        print(f"\nTo repeat the first: {repeat(program, options, broken[0])}")
    print(f"\n{len(broken)} broken, {sum(matched.values())} known, {len(stale)} stale, "
          f"{time.monotonic() - started:.0f} s")
    if options.json:
        options.json.write_text(json.dumps({
            "program": program, "short": options.short, "seconds": round(time.monotonic() - started),
            "boots": counts, "invariants": {item.name: item.meaning for item in INVARIANTS},
            "broken": [{"case": o.case, "call": o.call, "invariants": dict(o.broken)} for o in broken],
            "known": {f"{hazards[i].fault.pattern}: {hazards[i].reference}": n for i, n in matched.items()},
            "stale": [hazard.fault.pattern for hazard in stale]}, indent=2) + "\n")
    return 1 if broken or stale else 0


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
    names: Iterable[str] = BOOTS
    return {name: prepare(BOOTS[name], scratch, options) for name in names}
