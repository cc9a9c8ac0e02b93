"""What a boot costs, beside what a shell would cost: times the daemon and its rivals in turns, in the same sandbox, and
prints a table. Asserts nothing about times; stops when a rival saved other bytes."""

from __future__ import annotations

import argparse
from collections import defaultdict
from dataclasses import dataclass
import json
import os
from pathlib import Path
import shutil
import statistics
import sys
import tempfile
from typing import Any, Dict, List, Sequence, Tuple

from vortadev import phone
from vortadev.bubblewrap import BUILT_DAEMON
from vortadev.records import COPY_CHUNK, LOG_REGIONS

from device import FULLDUMP, MIB, Contender, Device, full_dump
from program import ROOT, CommandLine, need, place_for, run

PLACES = {"disk": ROOT / "build/bench", "memory": Path("/dev/shm")}
FEW = 3  # up to so many rounds all count; with more, one is run before them
GROWTH = (10, 1000, 10000, 100000)
STRIPS = {"host": "strip", "arm64": "aarch64-linux-gnu-strip"}  # by preset
LARGEST_DAEMON, LARGEST_PEAK, FLAT = 100 << 10, 6 << 10, 256  # bytes, KiB, KiB


@dataclass(frozen=True)
class Case:
    """A boot on a device, and who is timed on it. The goal, if there are rivals: that the median of the daemon's time in
    a rival's of the same round is at most `most`."""

    name: str
    title: str
    scenario: Dict[str, Any]
    rounds: Tuple[int, int]  # and those of a quick run
    rivals: Sequence[Contender] = ()
    goal: str = ""
    most: float = 0
    place: str = "disk"
    loop: bool = False
    files: int = 0  # below dumplog before the boot


def rival(name: str, *packer: str) -> Contender:
    return Contender(name, ROOT / "bench/rival.sh", packer)


def dd(size: int) -> Contender:
    source, target = f"{phone.BLOCK_FOLDER}/userdata", f"{phone.FULLDUMPLOG}/{phone.FULLDUMP_NAME}"
    places = [f"if={source}", f"of={target}", f"bs={COPY_CHUNK}", f"skip={FULLDUMP}", f"count={size}"]
    return Contender("dd", Path("/usr/bin/dd"), [*places, "iflag=skip_bytes,count_bytes", "oflag=sync"], lines=0)


SHELL = (rival("shell"),)
GZIP, ZLIB = ("gzip", "-6", "-n", "-c"), ("pigz", "-6", "-n", "-c", "-p", "1")  # pigz has the daemon's zlib
PIPELINES = (rival("pipeline, gzip", *GZIP), rival("pipeline, zlib", *ZLIB))
NORMAL, PANIC = {"base": "normal-restart"}, {"base": "kernel-panic"}
EMPTY: Dict[str, Any] = {**PANIC, "logs": dict.fromkeys(LOG_REGIONS, "zeros"), "minidump": None}


def groups() -> List[List[Case]]:
    """Cases of one group are run in turns. The longest come last."""
    found = []
    for place in PLACES:
        least = ("at most 1.2 of its unavoidable work", 1.2, place)
        found.append([Case(f"normal-{place}", f"normal boot, {place}", NORMAL, (20, 4), SHELL, *least)])
    for place in PLACES:
        goal = ("at most 0.95 of the pipeline", 0.95, place)
        found.append([Case(f"abnormal-{place}", f"abnormal boot, {place}", PANIC, (10, 2), PIPELINES, *goal)])
    title = "abnormal boot, no dump, empty logs, {:,} files below dumplog"
    found.append([Case(f"growth-{files}", title.format(files), EMPTY, (10, 2), files=files) for files in GROWTH])
    for mib, behind in ((256, "files"), (256, "loop"), (256, "memory"), (2048, "files"), (2048, "loop")):
        title, rivals = f"full dump of {mib} MiB, {behind}", [dd(mib * MIB)]
        how = ("at least 0.98 of dd's throughput", 1 / 0.98, "memory" if behind == "memory" else "disk")
        rounds = (20 if mib == 256 else 10, 1)
        found.append(
            [Case(f"full-{mib}-{behind}", title, full_dump(mib * MIB), rounds, rivals, *how, behind == "loop")]
        )
    return found


def turned(items: List[Any], number: int) -> List[Any]:
    """Another one begins each round, so that none always follows the same."""
    return items[number % len(items) :] + items[: number % len(items)]


def measure(group: Sequence[Case], chosen: argparse.Namespace, timer: Path, memory: Path) -> Dict[str, Any]:
    daemon = Contender("daemon", BUILT_DAEMON, phone.RAINBOW)
    trials = []
    for case in group:
        folder = memory if case.place == "memory" else PLACES["disk"]
        trials.append((case, Device(folder / case.name, timer, case.scenario, case.files, case.loop)))
    runs: Dict[str, Any] = {case.name: defaultdict(list) for case in group}
    rounds = group[0].rounds[chosen.quick]
    warming = int(rounds > FEW)  # the programs themselves come from the disk then
    for number in range(rounds + warming):
        for case, device in turned(trials, number):
            for contender in turned([daemon, *case.rivals], number):
                cost = device.boot(contender)
                runs[case.name][contender.name] += [cost] if number >= warming else []
    for _, device in trials:
        shutil.rmtree(device.folder)
    return {case.name: {"title": case.title, "contenders": summary(runs[case.name])} for case in group}


def summary(runs: Dict[str, List[Dict[str, float]]]) -> Dict[str, Any]:
    """Of each contender its runs, and median and quartiles of them and of the ratios of each round."""
    found = {}
    for name, costs in sorted(runs.items()):
        ratios = [mine["wall"] / cost["wall"] for mine, cost in zip(runs["daemon"], costs)]
        figures = {key: spread([cost[key] for cost in costs]) for key in ("wall", "processor")}
        peak = max(cost["peakKiB"] for cost in costs)
        found[name] = {**figures, "ratio": spread(ratios), "peakKiB": peak, "runs": costs}
    return found


def spread(values: List[float]) -> Tuple[float, float, float]:
    """Median and quartiles."""
    low, middle, high = statistics.quantiles(values, n=4, method="inclusive") if len(values) > 1 else values * 3
    return middle, low, high


def duration(*values: float) -> str:
    """The first, and the others in brackets, all in the unit that suits the first."""
    scale, unit = (1e3, "ms") if values[0] < 1 else (1, "s")
    first, *others = (f"{value * scale:#.3g}".rstrip(".") for value in values)
    return f"{first} [{', '.join(others)}] {unit}" if others else f"{first} {unit}"


def print_times(results: Dict[str, Any]) -> None:
    print("| boot | who | rounds | time: median [quartiles] | processor | peak KiB | daemon / rival |")
    print("|---|---|---|---|---|---|---|")
    for result in results.values():
        for name, found in result["contenders"].items():
            ratio = "{:.3f} [{:.3f}, {:.3f}]".format(*found["ratio"]) if name != "daemon" else ""
            cells = [result["title"], name, str(len(found["runs"])), duration(*found["wall"])]
            cells += [duration(found["processor"][0]), str(found["peakKiB"]), ratio]
            print(f"| {' | '.join(cells)} |")


def goals(cases: Sequence[Case], results: Dict[str, Any]) -> List[Tuple[str, str, bool]]:
    """In words, what was found, and whether it is good enough."""
    found = []
    mine = {name: result["contenders"]["daemon"] for name, result in results.items()}
    for case in (case for case in cases if case.name in results):
        for other in case.rivals:
            ratio = results[case.name]["contenders"][other.name]["ratio"][0]
            words = f"{case.title}: {case.goal} (ratio of the times to {other.name}: {case.most:.2f})"
            found.append((words, f"{ratio:.3f}", ratio <= case.most))
    peaks = [figures["peakKiB"] for figures in mine.values()]
    full = {name: figures["peakKiB"] for name, figures in mine.items() if name.startswith("full-")}
    told = f"{min(peaks)} to {max(peaks)}"
    found.append((f"peak memory below {LARGEST_PEAK} KiB, whatever there is to save", told, max(peaks) < LARGEST_PEAK))
    if any("2048" in name for name in full) and any("256" in name for name in full):
        low, high = min(full.values()), max(full.values())
        words = f"peak memory flat: full dumps of 256 MiB and 2 GiB within {FLAT} KiB of each other"
        found.append((words, f"{low} to {high}", high - low <= FLAT))
    # In processor time: the rest of the boot, which waits for storage, varies by more than a thousand files cost.
    costs = [mine[f"growth-{files}"]["processor"][0] for files in GROWTH if f"growth-{files}" in mine]
    if len(costs) == len(GROWTH):
        steps = [(b - a) / (more - few) for a, b, few, more in zip(costs, costs[1:], GROWTH, GROWTH[1:])]
        told = ", ".join(f"{step * 1e6:.2f} us a file up to {files:,}" for step, files in zip(steps, GROWTH[1:]))
        found.append(("growth linear in the number of files", told, steps[-1] < 1.5 * steps[-2]))
    return found


def sizes() -> List[Tuple[str, str, bool]]:
    """Of the stripped daemon, for each machine that it is built for."""
    found = []
    for preset, strip in STRIPS.items():
        program, stripped = ROOT / "build" / preset / "vorta", PLACES["disk"] / "stripped"
        if program.exists() and shutil.which(strip):
            run(strip, "-s", "-o", stripped, program)
            size = stripped.stat().st_size
            found.append((f"stripped daemon, {preset}, below {LARGEST_DAEMON} bytes", str(size), size < LARGEST_DAEMON))
    return found


def options() -> argparse.Namespace:
    parser = CommandLine("scripts/bench", __doc__)
    names = ", ".join(case.name for group in groups() for case in group)
    add, result = parser.add_argument, ROOT / "build/bench.json"
    add("--quick", action="store_true", help="few rounds, no dump of 2 GiB")
    add("--json", metavar="FILE", type=Path, default=result, help="the figures, each run included (build/bench.json)")
    add("--only", metavar="CASES", default="", help=f"cases whose names begin so, several with commas: {names}")
    return parser.parse_args()


def able(case: Case, chosen: argparse.Namespace) -> bool:
    """Loop devices need root."""
    short = not chosen.quick or "2048" not in case.name
    return short and case.name.startswith(tuple(chosen.only.split(","))) and (os.geteuid() == 0 or not case.loop)


def main() -> None:
    chosen = options()
    need("demo", "test", "bench")
    place_for(chosen.json)
    cases = [case for group in groups() for case in group if able(case, chosen)]
    if not cases:
        raise SystemExit(f"bench: --only: no case that can be run begins with {chosen.only}; --help lists them")
    run("cmake", "--preset", "host")
    run("cmake", "--build", "--preset", "host", "--target", "vorta")
    PLACES["disk"].mkdir(exist_ok=True)
    timer, results = PLACES["disk"] / "timer", {}
    run("cc", "-O2", "-static", "-o", timer, ROOT / "bench/timer.c")
    with tempfile.TemporaryDirectory(dir=PLACES["memory"]) as memory:
        for group in groups():
            if some := [case for case in group if case in cases]:
                print(", ".join(case.name for case in some), file=sys.stderr)
                results.update(measure(some, chosen, timer, Path(memory)))
    print_times(results)
    print("\n| goal | found | |\n|---|---|---|")
    for words, found, met in goals(cases, results) + sizes():
        print(f"| {words} | {found} | {'met' if met else 'not met'} |")
    chosen.json.write_text(json.dumps(results, indent=1) + "\n")
    print(f"\nEach run: {chosen.json}")


if __name__ == "__main__":
    main()
