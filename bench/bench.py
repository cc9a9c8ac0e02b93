"""What a boot costs, beside what a shell would cost: times the daemon and its rivals in turns, in the same
sandbox, and prints a table. Asserts nothing about times; stops when a rival saved other bytes."""
from __future__ import annotations

import argparse
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

from cases import GROWTH, Case, all_cases
from device import MINIDUMP_SIZE, Contender, Device

ROOT = Path(__file__).resolve().parent.parent
MEMORY_FOLDER = "/dev/shm"
SERVICE = ("-r", "boot")
FEW = 3  # up to so many rounds all count; with more, one is run before them
STATED = {"peak memory": (6 << 10, "KiB"), "stripped daemon": (100 << 10, "bytes")}


def spread(values: list[float]) -> dict[str, float]:
    """Median and quartiles."""
    low, middle, high = statistics.quantiles(values, n=4, method="inclusive") if len(values) > 1 else values * 3
    return {"median": middle, "low": low, "high": high}


def file_system(folder: Path | str) -> str:
    return subprocess.run(["stat", "-f", "-c", "%T", folder], capture_output=True, text=True,
                          check=True).stdout.strip()


def check_same(device: Device, contender: Contender, saved: dict, first: dict) -> None:
    """A rival that saves less, or a dump that packs unlike a phone's, would make the figures worthless."""
    if not first:
        return
    for name in first.keys() | saved.keys():
        if name != "DONE" and first.get(name) != saved.get(name):
            raise SystemExit(f"bench: {device.folder.name}: {name} of {contender.name} is not what the daemon saved")


def check_packing(device: Device) -> None:
    packed = next(device.folder.rglob("rawdump.bin")).stat().st_size / MINIDUMP_SIZE
    if not 0.2 <= packed <= 0.5:
        raise SystemExit(f"bench: the minidump packs to {packed:.2f} of its size; expected a fifth to a half")


def run_case(case: Case, contenders: list[Contender], rounds: int, device: Device) -> dict:
    runs: dict[str, list[dict]] = {contender.name: [] for contender in contenders}
    saved: dict = {}
    warming = 1 if rounds > FEW else 0  # the programs themselves come from the disk then
    for number in range(rounds + warming):
        turn = number % len(contenders)  # another one begins each round: none always follows the same
        for contender in contenders[turn:] + contenders[:turn]:
            cost = device.boot(contender)
            if number >= warming:
                runs[contender.name].append(cost)
            if number:
                continue
            now = device.saved()
            if case.rivals:
                check_same(device, contender, now, saved)
                saved = saved or now
            if case.name.startswith("abnormal-phone"):
                check_packing(device)
    result: dict = {"title": case.title, "place": case.place, "rounds": rounds, "contenders": {}}
    mine = runs[contenders[0].name]
    for name, costs in runs.items():
        result["contenders"][name] = {
            "wall": spread([cost["wall"] for cost in costs]), "runs": costs,
            "processor": spread([cost["user"] + cost["system"] for cost in costs]),
            "peakKiB": max(cost["peakKiB"] for cost in costs)}
        if name != contenders[0].name:
            result["contenders"][name]["daemonRatio"] = spread(
                [a["wall"] / b["wall"] for a, b in zip(mine, costs)])
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


def sizes(build: Path) -> dict[str, int]:
    found = {}
    for machine, program, strip in (("x86-64", build / "vorta", "strip"),
                                    ("arm64", build.parent / "arm64/vorta", "aarch64-linux-gnu-strip")):
        if program.exists() and shutil.which(strip):
            with tempfile.NamedTemporaryFile() as stripped:
                subprocess.run([strip, "-s", "-o", stripped.name, program], check=True)
                found[machine] = os.path.getsize(stripped.name)
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
    for machine, size in report["sizes"].items():
        limit, unit = STATED["stripped daemon"]
        line(f"stripped daemon, {machine}, below {limit} {unit}", str(size), size < limit)
    if all(f"growth-{files}" in results for files in GROWTH):
        report["secondsPerFile"] = per_file(results)
        *_, before, last = report["secondsPerFile"].values()
        line("growth linear in the number of files", ", ".join(
            f"{cost * 1e6:.2f} us a file {step}" for step, cost in report["secondsPerFile"].items()),
             last < 1.5 * before)


def options() -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="scripts/bench", description=__doc__)
    parser.add_argument("--quick", action="store_true", help="few rounds, no dump of 2 GiB")
    parser.add_argument("--json", metavar="FILE", type=Path, default=ROOT / "build/bench.json",
                        help="where the figures go, each run included (default build/bench.json)")
    parser.add_argument("--only", metavar="CASES", default="",
                        help="only cases whose names begin so, several with commas: " +
                        ", ".join(case.name for case in all_cases()))
    parser.add_argument("--build", metavar="FOLDER", type=Path, default=ROOT / "build/host",
                        help="the build to measure (default build/host)")
    parser.add_argument("--against", metavar="PROGRAM", type=Path,
                        help="another build of the daemon, as one more rival")
    return parser.parse_args()


def measure(chosen: argparse.Namespace, places: dict[str, Path], build: Path, results: dict[str, dict]) -> None:
    """Runs the chosen cases one after the other; each result is there as soon as its case is done."""
    started = time.monotonic()
    contenders = [Contender("daemon", build / "vorta", SERVICE)]
    if chosen.against:
        contenders.append(Contender("other daemon", chosen.against.resolve(), SERVICE))
    for case in all_cases():
        if not case.name.startswith(tuple(chosen.only.split(","))) or (chosen.quick and case.long):
            continue
        if case.skipped:
            print(f"{case.name}: skipped, {case.skipped}", file=sys.stderr)
            continue
        print(f"{time.monotonic() - started:5.0f} s  {case.name}", file=sys.stderr, flush=True)
        device = case.make(places[case.place] / case.name, build)
        everyone = [*contenders, *case.rivals]
        result = run_case(case, everyone, case.quick_rounds if chosen.quick else case.rounds, device)
        if case.counted:
            result["counts"] = count(device, everyone)
        results[case.name] = result
        shutil.rmtree(device.folder)


def main() -> None:
    chosen = options()
    build = chosen.build.resolve()
    (build / "bench").mkdir(exist_ok=True)
    subprocess.run(["cc", "-O2", "-static", "-o", build / "bench/timer", ROOT / "bench/timer.c"], check=True)
    places = {"disk": build / "bench", "memory": Path(tempfile.mkdtemp(dir=MEMORY_FOLDER))}
    machine = {name: file_system(folder) for name, folder in places.items()}
    if machine["disk"] == "tmpfs":
        raise SystemExit(f"bench: {build} is on a tmpfs; expected a file system on a disk")
    report: dict = {"machine": machine | {"processors": os.cpu_count(), "kernel": platform.release().split("-")[0],
                                          "load": round(os.getloadavg()[0], 1)}, "cases": {}, "sizes": sizes(build)}
    try:
        measure(chosen, places, build, report["cases"])
    except KeyboardInterrupt:
        print("bench: interrupted; the figures are those of the cases that were done", file=sys.stderr)
    finally:
        shutil.rmtree(places["memory"])
    print(", ".join(f"{name}: {value}" for name, value in report["machine"].items()))
    print_times(report["cases"])
    print_counts(report["cases"])
    print_goals(report)
    chosen.json.write_text(json.dumps(report, indent=1) + "\n")
    print(f"\nEach run: {chosen.json}")


if __name__ == "__main__":
    main()
