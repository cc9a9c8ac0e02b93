"""What a boot costs, beside what a shell would cost: times the daemon and its rivals in turns, in the same
sandbox, and prints a table. Asserts nothing about times; stops when a rival saved other bytes."""
from __future__ import annotations

import argparse
from dataclasses import dataclass, field
import json
import os
from pathlib import Path
import platform
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
from typing import Any

from cases import GROWTH, Case, all_cases
from device import MINIDUMP_SIZE, Contender, Device

ROOT = Path(__file__).resolve().parent.parent
sys.path.append(str(ROOT / "scripts"))
from program import CommandLine, need, place_for, run
MEMORY_FOLDER = "/dev/shm"
SERVICE = ("-r", "boot")
FEW = 3  # up to so many rounds all count; with more, one is run before them
STATED = {"peak memory": (6 << 10, "KiB"), "stripped daemon": (100 << 10, "bytes"),
          "flat memory": (256, "KiB")}


def spread(values: list[float]) -> dict[str, float]:
    """Median and quartiles."""
    low, middle, high = statistics.quantiles(values, n=4, method="inclusive") if len(values) > 1 else values * 3
    return {"median": middle, "low": low, "high": high}


def file_system(folder: Path | str) -> str:
    return subprocess.run(["stat", "-f", "-c", "%T", folder], capture_output=True, text=True,
                          check=True).stdout.strip()


@dataclass
class Trial:
    """A case under way: who is timed on its device, what each run has cost, and what the first one saved."""
    case: Case
    device: Device
    contenders: list[Contender]
    runs: dict[str, list[dict]] = field(default_factory=dict)
    known: dict[str, tuple[int, str]] | None = None

    def round(self, number: int, counts: bool) -> None:
        for contender in turned(self.contenders, number):
            cost = self.device.boot(contender)
            if counts:
                self.runs.setdefault(contender.name, []).append(cost)
            self.check(contender, number == 0)

    def check(self, contender: Contender, digests: bool) -> None:
        """A rival that saves less than the daemon, or nothing because the daemon saved nothing, would make
        the figures worthless. Digests take as long as a run and fill the cache: once for each is enough."""
        where = f"bench: {self.case.name}: {contender.name}"
        saved, lines = self.device.saved(digests), self.device.history_lines()
        if len(saved) != self.case.saves:
            raise SystemExit(f"{where} saved {len(saved)} files of evidence; expected {self.case.saves}")
        if lines != contender.lines:
            raise SystemExit(f"{where} added {lines} lines to the history; expected {contender.lines}")
        self.known = saved if self.known is None else self.known
        compared = 2 if digests else 1
        for name in self.known.keys() | saved.keys():
            if self.known.get(name, ())[:compared] != saved.get(name, ())[:compared]:
                raise SystemExit(f"{where} left another {name} than the daemon did in the first round")
        if digests and self.case.name.startswith("abnormal-phone"):
            check_packing(self.device)


def check_packing(device: Device) -> None:
    """A dump that packs unlike a phone's would make the figures worthless as well."""
    packed = next(device.folder.rglob("rawdump.bin")).stat().st_size / MINIDUMP_SIZE
    if not 0.2 <= packed <= 0.5:
        raise SystemExit(f"bench: the minidump packs to {packed:.2f} of its size; expected a fifth to a half")


def turned(items: list[Any], number: int) -> list[Any]:
    """Another one begins each round, so that none always follows the same."""
    return items[number % len(items):] + items[:number % len(items)]


def run_group(trials: list[Trial], rounds: int) -> None:
    warming = 1 if rounds > FEW else 0  # the programs themselves come from the disk then
    for number in range(rounds + warming):
        for trial in turned(trials, number):
            trial.round(number, number >= warming)


def summary(trial: Trial) -> dict:
    case, runs = trial.case, trial.runs
    mine = runs[trial.contenders[0].name]
    result: dict = {"title": case.title, "place": case.place, "rounds": len(mine), "contenders": {}}
    for contender in trial.contenders:
        costs = runs[contender.name]
        figures = result["contenders"][contender.name] = {
            "wall": spread([cost["wall"] for cost in costs]), "runs": costs,
            "processor": spread([cost["user"] + cost["system"] for cost in costs]),
            "peakKiB": max(cost["peakKiB"] for cost in costs)}
        if costs is not mine:
            figures["daemonRatio"] = spread([a["wall"] / b["wall"] for a, b in zip(mine, costs)])
    result["goals"] = []
    for goal in case.goals:
        ratio = result["contenders"][goal.rival]["daemonRatio"]["median"]
        found, met = goal.judge(ratio)
        result["goals"].append({"words": goal.words, "found": found, "met": met})
    return result


def count(device: Device, contenders: list[Contender]) -> dict:
    """System calls by strace, and what storage took for each byte of evidence, in runs of their own."""
    counts = {}
    for contender in contenders:
        calls = {}
        for scope, follow in (("own", ""), ("all", "-f ")):
            device.boot(contender, f"{shutil.which('strace')} {follow}-c -o /out/calls")
            total = re.search(r"\s(\d+)(?:\s+\d+)? total$", (device.folder / "out/calls").read_text().strip())
            calls[scope] = int(total.group(1)) if total else -1
        cost = device.boot(contender)
        evidence = device.evidence()
        counts[contender.name] = {"calls": calls, "stored": cost["stored"], "handed": cost["handed"],
                                  "evidence": evidence, "amplification": cost["stored"] / max(evidence, 1)}
    return counts


def sizes(build: Path) -> dict[str, int | None]:
    """Bytes of the stripped daemon on each machine; None where it is not built."""
    found: dict[str, int | None] = {}
    for machine, program, strip in (("x86-64", build / "vorta", "strip"),
                                    ("arm64", build.parent / "arm64/vorta", "aarch64-linux-gnu-strip")):
        found[machine] = None
        if program.exists() and shutil.which(strip):
            with tempfile.TemporaryDirectory() as folder:
                stripped = Path(folder) / "vorta"
                if subprocess.run([strip, "-s", "-o", stripped, program], capture_output=True,
                                  check=False).returncode != 0:
                    raise SystemExit(f"bench: {program} cannot be stripped; expected an ELF program for {machine}")
                found[machine] = stripped.stat().st_size
    return found


def duration(*values: float) -> str:
    """The first, and the others in brackets, all in the unit that suits the first."""
    scale, unit = (1e3, "ms") if values[0] < 1 else (1, "s")
    first, *others = (f"{value * scale:#.3g}".rstrip(".") for value in values)
    return f"{first} {unit}" if not others else f"{first} [{', '.join(others)}] {unit}"


def print_times(results: dict[str, dict]) -> None:
    print("\n| boot | on | who | rounds | time: median [quartiles] | processor | peak KiB | daemon / rival |\n"
          "|---|---|---|---|---|---|---|---|")
    for result in results.values():
        where = f"{result['title']} | {result['place']}"
        for name, figures in result["contenders"].items():
            ratio = figures.get("daemonRatio")
            quotient = f"{ratio['median']:.3f} [{ratio['low']:.3f}, {ratio['high']:.3f}]" if ratio else ""
            print(f"| {where} | {name} | {result['rounds']} | {duration(*figures['wall'].values())} "
                  f"| {duration(figures['processor']['median'])} | {figures['peakKiB']} | {quotient} |")


def print_counts(results: dict[str, dict]) -> None:
    print("\n| boot | who | system calls, own | with children | bytes to storage | bytes of evidence | of them |\n"
          "|---|---|---|---|---|---|---|")
    for result in results.values():
        for name, figures in result.get("counts", {}).items():
            print(f"| {result['title']} | {name} | {figures['calls']['own']} | {figures['calls']['all']} | "
                  f"{figures['stored']} | {figures['evidence']} | {figures['amplification']:.2f} |")


def per_file(results: dict[str, dict]) -> dict[str, float]:
    """What one more file costs between each number of files and the next, in processor seconds: the rest of
    the boot, which waits for storage, varies by more than a thousand files cost."""
    costs = [results[f"growth-{files}"]["contenders"]["daemon"]["processor"]["median"] for files in GROWTH]
    return {f"from {few:,} to {many:,}": (more - less) / (many - few)
            for few, many, less, more in zip(GROWTH, GROWTH[1:], costs, costs[1:])}


def print_goals(report: dict) -> None:
    results = report["cases"]
    print("\n| goal | found | |\n|---|---|---|")

    def line(words: str, found: str, met: bool) -> None:
        print(f"| {words} | {found} | {'met' if met else 'not met'} |")

    for result in results.values():
        for goal in result["goals"]:
            words = f"{result['title']}, {result['place']}: {goal['words']}"
            line(words, f"{goal['found']:.3f}", goal["met"])
    peaks = {name: result["contenders"]["daemon"]["peakKiB"] for name, result in results.items()}
    if peaks:
        limit, unit = STATED["peak memory"]
        line(f"peak memory below {limit} {unit}, whatever there is to save",
             f"{min(peaks.values())} to {max(peaks.values())}", max(peaks.values()) < limit)
    full = [peak for name, peak in peaks.items() if name.startswith("full-")]
    if all(any(name.startswith(size) for name in peaks) for size in ("full-256-", "full-2048-")):
        limit, unit = STATED["flat memory"]
        line(f"peak memory flat: full dumps of 256 MiB and 2 GiB within {limit} {unit} of each other",
             f"{min(full)} to {max(full)}", max(full) - min(full) <= limit)
    for machine, size in report["sizes"].items():
        limit, unit = STATED["stripped daemon"]
        words = f"stripped daemon, {machine}, below {limit} {unit}"
        if size is None:
            print(f"| {words} | not built | scripts/test-{machine} builds it |")
        else:
            line(words, str(size), size < limit)
    if all(f"growth-{files}" in results for files in GROWTH):
        report["secondsPerFile"] = per_file(results)
        *_, before, last = report["secondsPerFile"].values()
        line("growth linear in the number of files", ", ".join(
            f"{cost * 1e6:.2f} us a file {step}" for step, cost in report["secondsPerFile"].items()),
             last < 1.5 * before)


def options() -> argparse.Namespace:
    parser = CommandLine("scripts/bench", __doc__)
    parser.add_argument("--quick", action="store_true", help="few rounds, no dump of 2 GiB")
    parser.add_argument("--json", metavar="FILE", type=Path, default=ROOT / "build/bench.json",
                        help="where the figures go, each run included (default build/bench.json)")
    parser.add_argument("--only", metavar="CASES", default="",
                        help="only cases whose names begin so, several with commas: " +
                        ", ".join(case.name for case in all_cases()))
    parser.add_argument("--build", metavar="FOLDER", type=Path,
                        help="the build to measure (default build/host, which is then built)")
    parser.add_argument("--against", metavar="PROGRAM", type=Path,
                        help="another build of the daemon, as one more rival")
    return parser.parse_args()


def build_daemons() -> None:
    run("cmake", "--preset", "host")
    run("cmake", "--build", "--preset", "host", "--target", "vorta", "vortadev")
    if (ROOT / "build/arm64/build.ninja").exists():  # only its size is of interest
        run("cmake", "--build", "--preset", "arm64", "--target", "vorta")


def check_paths(chosen: argparse.Namespace) -> None:
    """Before hours go by: what is to be measured is there."""
    for option, program in (("--build", chosen.build / "vorta"), ("--build", chosen.build / "vortadev"),
                            ("--against", chosen.against)):
        if program and not (program.is_file() and os.access(program, os.R_OK | os.X_OK)):
            raise SystemExit(f"bench: {option}: {program} cannot be run; expected a program")


def chosen_groups(chosen: argparse.Namespace) -> list[list[Case]]:
    """The cases to be run, those of one group together."""
    able = [case for case in all_cases() if not (chosen.quick and case.long)]
    beginnings = chosen.only.split(",")
    for beginning in beginnings:
        if not any(case.name.startswith(beginning) for case in able):
            raise SystemExit(f"bench: --only: no case{' of a quick run' if chosen.quick else ''} begins with "
                             f"'{beginning}'; expected some of " + ", ".join(case.name for case in able))
    groups: dict[str, list[Case]] = {}
    for case in able:
        if case.name.startswith(tuple(beginnings)):
            if case.skipped:
                print(f"{case.name}: skipped, {case.skipped}", file=sys.stderr)
            else:
                groups.setdefault(case.group or case.name, []).append(case)
    return list(groups.values())


def measure(chosen: argparse.Namespace, groups: list[list[Case]], places: dict[str, Path], build: Path,
            results: dict[str, dict]) -> None:
    """Runs one group after the other; the results are there as soon as their group is done."""
    started = time.monotonic()
    contenders = [Contender("daemon", build / "vorta", SERVICE)]
    if chosen.against:
        contenders.append(Contender("other daemon", chosen.against.resolve(), SERVICE))
    for group in groups:
        print(f"{time.monotonic() - started:5.0f} s  {', '.join(case.name for case in group)}",
              file=sys.stderr, flush=True)
        trials = [Trial(case, case.make(places[case.place] / case.name, build), [*contenders, *case.rivals])
                  for case in group]
        run_group(trials, group[0].quick_rounds if chosen.quick else group[0].rounds)
        for trial in trials:
            results[trial.case.name] = summary(trial)
            if trial.case.counted:
                results[trial.case.name]["counts"] = count(trial.device, trial.contenders)
            shutil.rmtree(trial.device.folder)


def main() -> None:
    chosen = options()
    need("demo", "test", "bench")
    place_for(chosen.json)
    if not chosen.build:
        build_daemons()
        chosen.build = ROOT / "build/host"
    check_paths(chosen)
    groups = chosen_groups(chosen)
    build = chosen.build.resolve()
    (build / "bench").mkdir(exist_ok=True)
    subprocess.run(["cc", "-O2", "-static", "-o", build / "bench/timer", ROOT / "bench/timer.c"], check=True)
    machine = {"disk": file_system(build / "bench"), "memory": file_system(MEMORY_FOLDER)}
    if machine["disk"] == "tmpfs":
        raise SystemExit(f"bench: {build} is on a tmpfs; expected a file system on a disk")
    report: dict = {"machine": machine | {"processors": os.cpu_count(), "kernel": platform.release().split("-")[0],
                                          "load": round(os.getloadavg()[0], 1)}, "cases": {}, "sizes": sizes(build)}
    results: dict[str, dict] = {}
    with tempfile.TemporaryDirectory(dir=MEMORY_FOLDER) as memory:
        try:
            measure(chosen, groups, {"disk": build / "bench", "memory": Path(memory)}, build, results)
        except KeyboardInterrupt:
            print("bench: interrupted; the figures are those of the cases that were done", file=sys.stderr)
    report["cases"] = {case.name: results[case.name] for case in all_cases() if case.name in results}
    print(", ".join(f"{name}: {value}" for name, value in report["machine"].items()))
    print_times(report["cases"])
    print_counts(report["cases"])
    print_goals(report)
    chosen.json.write_text(json.dumps(report, indent=1) + "\n")
    print(f"\nEach run: {chosen.json}")


if __name__ == "__main__":
    main()
