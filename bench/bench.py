"""What a boot costs beside what a shell would cost, and a report beside gzip: times each and its rivals in turns, and
prints tables. Asserts nothing about times; stops when one of them did less than the other."""

from __future__ import annotations

import argparse
from dataclasses import dataclass
from functools import partial
import os
from pathlib import Path
import shutil
import statistics
import sys
import tempfile
from typing import Any, Callable, Dict, List, Sequence, Tuple

from vortadev import phone
from vortadev.records import COPY_CHUNK, LOG_REGIONS

from device import FULLDUMP, MIB, Contender, Device, full_dump
from phones import GZIP, Fleet
from program import ROOT, CommandLine, need, run

PLACES = {"disk": ROOT / "build/bench", "memory": Path("/dev/shm")}
FEW = 3  # up to so many rounds all count; with more, one is run before them
GROWTH, FLEETS = (1000, 10000, 100000), {"report-few": 30, "report-many": 300}  # phones by case
STRIPS = {"host": "strip", "arm64": "aarch64-linux-gnu-strip"}  # by preset
LARGEST_DAEMON, LARGEST_PEAK, FLAT = 100 << 10, 6 << 10, 256  # bytes, KiB, KiB
LONGEST_REPORT, FLAT_REPORT = 5, 4 << 10  # seconds, KiB

Runs = Dict[str, List[Dict[str, float]]]  # the costs of each contender
Goal = Tuple[str, str, bool]  # in words, what was found, and whether it is good enough


@dataclass(frozen=True)
class Case:
    """What is timed, and beside whom. The goal: that the median of its time in a rival's of the same round is at most
    `most`."""

    name: str
    title: str
    trial: Callable[[Path, Path], Any]  # made in a folder, with the timer
    rounds: int
    rivals: Sequence[Contender] = ()
    most: float = 0
    place: str = "disk"


def rival(name: str, *packer: str) -> Contender:
    return Contender(name, ROOT / "bench/rival.sh", packer)


def dd(size: int) -> Contender:
    source, target = f"{phone.BLOCK_FOLDER}/userdata", f"{phone.FULLDUMPLOG}/{phone.FULLDUMP_NAME}"
    places = [f"if={source}", f"of={target}", f"bs={COPY_CHUNK}", f"skip={FULLDUMP}", f"count={size}"]
    return Contender("dd", Path("/usr/bin/dd"), [*places, "iflag=skip_bytes,count_bytes", "oflag=sync"], lines=0)


SHELL = (rival("shell"),)
GZIP_PACKER, ZLIB = ("gzip", "-6", "-n", "-c"), ("pigz", "-6", "-n", "-c", "-p", "1")  # pigz has the daemon's zlib
PIPELINES = (rival("pipeline, gzip", *GZIP_PACKER), rival("pipeline, zlib", *ZLIB))
PANIC = {"base": "kernel-panic"}
NORMAL, ABNORMAL = partial(Device, wanted={"base": "normal-restart"}), partial(Device, wanted=PANIC)
EMPTY = {**PANIC, "logs": dict.fromkeys(LOG_REGIONS, "zeros"), "minidump": None}


def cases() -> List[Case]:
    """The longest come last."""
    found = [Case(f"normal-{place}", f"normal boot, {place}", NORMAL, 20, SHELL, 1.2, place) for place in PLACES]
    for place in PLACES:
        found.append(Case(f"abnormal-{place}", f"abnormal boot, {place}", ABNORMAL, 10, PIPELINES, 0.95, place))
    for files in GROWTH:
        title = f"abnormal boot, no dump, empty logs, {files:,} files below dumplog"
        found.append(Case(f"growth-{files}", title, partial(Device, wanted=EMPTY, files=files), 10))
    for (name, phones), rounds, rivals in zip(FLEETS.items(), (3, 1), ([GZIP], [])):
        title = f"report on {phones} phones"
        found.append(Case(name, title, partial(Fleet, phones=phones), rounds, rivals, 1.3))
    for mib, behind in ((256, "files"), (256, "loop"), (256, "memory"), (2048, "files"), (2048, "loop")):
        trial = partial(Device, wanted=full_dump(mib * MIB), loop=behind == "loop")
        compared = ([dd(mib * MIB)], 1.02, "memory" if behind == "memory" else "disk")
        title, rounds = f"full dump of {mib} MiB, {behind}", 20 if mib == 256 else 10
        found.append(Case(f"full-{mib}-{behind}", title, trial, rounds, *compared))
    return found


def measure(case: Case, rounds: int, timer: Path, memory: Path) -> Runs:
    folder = memory if case.place == "memory" else PLACES["disk"]
    trial = case.trial(folder / case.name, timer)
    contenders = [trial.own, *case.rivals]
    runs: Runs = {contender.name: [] for contender in contenders}
    for number in range(-(rounds > FEW), rounds):  # the programs themselves come from the disk at first
        first = number % len(contenders)  # another one, so that none always follows the same
        for contender in contenders[first:] + contenders[:first]:
            cost = trial.run(contender)
            runs[contender.name] += [cost] if number >= 0 else []
    shutil.rmtree(trial.folder)
    return runs


def ratios(runs: Runs, other: str) -> List[float]:
    own = next(iter(runs.values()))
    return [mine["wall"] / cost["wall"] for mine, cost in zip(own, runs[other])]


def median(costs: List[Dict[str, float]], key: str) -> float:
    return statistics.median(cost[key] for cost in costs)


def shown(values: List[float], scale: float = 1, form: str = "{:.3f}") -> str:
    """Median and quartiles."""
    low, middle, high = statistics.quantiles(values, n=4, method="inclusive") if len(values) > 1 else values * 3
    middle_text, *others = (form.format(value * scale) for value in (middle, low, high))
    return f"{middle_text} [{', '.join(others)}]"


def print_figures(chosen: List[Case], results: Dict[str, Runs]) -> None:
    print("| what | who | rounds | ms: median [quartiles] | processor ms | peak KiB | in the rival's time |")
    print("|---|---|---|---|---|---|---|")
    for case in chosen:
        runs = results[case.name]
        for name, costs in runs.items():
            times = shown([cost["wall"] for cost in costs], 1000, "{:,.2f}")
            cells = [case.title, name, len(costs), times, f"{median(costs, 'processor') * 1000:,.2f}"]
            cells += [max(cost["peakKiB"] for cost in costs)]
            cells += [shown(ratios(runs, name)) if name != next(iter(runs)) else ""]
            print(f"| {' | '.join(map(str, cells))} |")


def goals(chosen: List[Case], results: Dict[str, Runs]) -> List[Goal]:
    found = []
    for case in chosen:
        for other in case.rivals:
            ratio = statistics.median(ratios(results[case.name], other.name))
            words = f"{case.title}: at most {case.most} of the time of {other.name}"
            found.append((words, f"{ratio:.3f}", ratio <= case.most))
    own = {name: next(iter(runs.values())) for name, runs in results.items()}
    return found + report_goals(own) + boot_goals(own)


def report_goals(own: Runs) -> List[Goal]:
    found: List[Goal] = []
    least, most = FLEETS.values()
    few, many = (own.get(name, []) for name in FLEETS)
    if few:
        words = f"report on {least} phones below {LONGEST_REPORT} s, on two processors"
        found.append((words, f"{median(few, 'wall'):.2f}", median(few, "wall") < LONGEST_REPORT))
    if few and many:
        # One long run is disturbed by others more than several short ones, but in its processor time.
        times, peaks = ([median(costs, key) for costs in (few, many)] for key in ("processor", "peakKiB"))
        growth, phones = times[1] / times[0], most / least
        words = f"{phones:.0f} times the phones: at most that much processor time"
        found.append((words, f"{growth:.2f}", growth <= phones))
        words = f"{phones:.0f} times the phones: memory within {FLAT_REPORT} KiB"
        found.append((words, "{:.0f} to {:.0f}".format(*peaks), peaks[1] - peaks[0] <= FLAT_REPORT))
    return found


def boot_goals(own: Runs) -> List[Goal]:
    found: List[Goal] = []
    peaks = {name: max(cost["peakKiB"] for cost in costs) for name, costs in own.items() if "report" not in name}
    if peaks:
        low, high = min(peaks.values()), max(peaks.values())
        words = f"peak memory of a boot below {LARGEST_PEAK} KiB, whatever there is to save"
        found.append((words, f"{low} to {high}", high < LARGEST_PEAK))
    full = [peak for name, peak in peaks.items() if name.startswith("full")]
    if any("2048" in name for name in peaks):
        words = f"peak memory flat: full dumps within {FLAT} KiB of each other"
        found.append((words, f"{min(full)} to {max(full)}", max(full) - min(full) <= FLAT))
    # In processor time: the rest of the boot, which waits for storage, varies by more than a thousand files cost.
    costs = [median(own[f"growth-{files}"], "processor") for files in GROWTH if f"growth-{files}" in own]
    if len(costs) == len(GROWTH):
        steps = [(b - a) / (more - few) for a, b, few, more in zip(costs, costs[1:], GROWTH, GROWTH[1:])]
        told = ", ".join(f"{step * 1e6:.2f} us a file up to {files:,}" for step, files in zip(steps, GROWTH[1:]))
        found.append(("growth linear in the number of files", told, steps[-1] < 1.5 * steps[-2]))
    return found


def sizes() -> List[Goal]:
    """Of the stripped daemon, for each machine that it is built for."""
    found = []
    for preset, strip in STRIPS.items():
        program, stripped = ROOT / "build" / preset / "vorta", PLACES["disk"] / "stripped"
        if program.exists() and shutil.which(strip):
            run(strip, "-s", "-o", stripped, program)
            size = stripped.stat().st_size
            found.append((f"stripped daemon, {preset}, below {LARGEST_DAEMON} bytes", str(size), size < LARGEST_DAEMON))
    return found


def main() -> None:
    parser = CommandLine("scripts/bench", __doc__)
    parser.add_argument("--quick", action="store_true", help="few rounds, no dump of 2 GiB")
    names = ", ".join(case.name for case in cases())
    parser.add_argument("--only", metavar="CASES", default="", help=f"whose names begin so, with commas: {names}")
    options = parser.parse_args()
    chosen = [case for case in cases() if case.name.startswith(tuple(options.only.split(",")))]
    if not chosen:
        parser.error(f"--only: no case begins with {options.only}")
    left_out = ["2048"] * options.quick + ["loop"] * (os.geteuid() != 0)  # root alone can make loop devices
    chosen = [case for case in chosen if not any(part in case.name for part in left_out)]
    need("demo", "test", "bench")
    run("cmake", "--preset", "host")
    run("cmake", "--build", "--preset", "host", "--target", "vorta", "factory_libraries")
    PLACES["disk"].mkdir(exist_ok=True)
    timer, results = PLACES["disk"] / "timer", {}
    run("cc", "-O2", "-static", "-o", timer, ROOT / "bench/timer.c")
    with tempfile.TemporaryDirectory(dir=PLACES["memory"]) as memory:
        for case in chosen:
            print(case.name, file=sys.stderr)
            rounds = max(case.rounds // 10, 1) if options.quick else case.rounds
            results[case.name] = measure(case, rounds, timer, Path(memory))
    print_figures(chosen, results)
    print("\n| goal | found | |\n|---|---|---|")
    for words, found, met in goals(chosen, results) + sizes():
        print(f"| {words} | {found} | {'met' if met else 'not met'} |")


if __name__ == "__main__":
    main()
