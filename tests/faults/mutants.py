"""Do the campaigns notice? Builds daemons that are wrong on purpose, one change each, and runs a part of the campaigns
against each of them: every mutant must break an invariant, the unchanged daemon none.
    python3 tests/faults/mutants.py [JOBS]"""

from __future__ import annotations

from pathlib import Path
import re
import shutil
import subprocess
import sys
import tempfile
from typing import Dict

ROOT = Path(__file__).resolve().parents[2]
PARTS = {
    "faults": "^panic:(write:[0-9]*[05]:half|openat:[0-9]+:EIO:once|fsync)",
    "powercuts": "^panic:(fsync|unlink|openat|close|wait4|lseek):[0-9]*[05]:",
}

# What is wrong, and the changes that make it so: patterns, each of one place in the sources, and replacements.
CLEAR = r"    UpdatePartDumpHeader(mode);\n\1"
MUTANTS: Dict[str, Dict[str, str]] = {
    "unchanged": {},
    "no flush before the header is cleared": {r"fsync\(fd\) != 0 \? [^;]*;": "fd < 0;"},
    "texts not flushed before their raw copy goes": {r"fd\.ok\(\) && fsync\(fd\.get\(\)\) != 0": "false"},
    "dump header cleared before the copy": {r"(    unique_fd tmpFd)": CLEAR},
    "dump header cleared before the packing": {r"(    const unique_fd rawFd)": CLEAR},
    "reason node cleared at the end": {
        r"    UpdatePartReasonHeader\(\);\n": "",
        r"(markerPath, .*\n)": r"\1    UpdatePartReasonHeader();\n",
    },
    "partitions not written through": {r"O_RDWR \| O_SYNC": "O_RDWR"},
    "WriteRetry without its loop": {r"(?s)(int VortaHandle::WriteRetry.*?)while( \(done < length\))": r"\1if\2"},
}


def build(changes: Dict[str, str], tree: Path) -> str:
    for folder in ("handle", "rainbow"):  # copied with new times, so that all of it is built
        shutil.copytree(ROOT / folder, tree / folder, copy_function=shutil.copy, dirs_exist_ok=True)
    sources = [*tree.glob("handle/*.cpp"), *tree.glob("rainbow/*.cpp")]
    for pattern, replacement in changes.items():
        places = [source for source in sources for _ in re.finditer(pattern, source.read_text())]
        if len(places) != 1:
            raise SystemExit(f"tests/faults/mutants.py: {pattern} matches {len(places)} places; expected one")
        places[0].write_text(re.sub(pattern, replacement, places[0].read_text()))
    subprocess.run(["cmake", "--build", tree / "build", "--target", "vorta"], check=True, capture_output=True)
    return f"{tree}/build/vorta"


def noticed(part: str, only: str, daemon: str, jobs: str) -> str:
    """What a campaign said of the daemon; empty if it found nothing wrong."""
    options = ["--short", "--only", only, "--daemon", daemon, "--jobs", jobs, "--json", f"{daemon}.json"]
    run = subprocess.run([f"{ROOT}/scripts/{part}", *options], capture_output=True, text=True, check=False)
    wrong = re.findall(r"BROKEN .*\n.*|.*breaks without any fault.*", run.stdout + run.stderr)
    if run.returncode and not wrong:
        raise SystemExit(f"tests/faults/mutants.py: scripts/{part} ended with {run.returncode}: {run.stderr}")
    return f"{' '.join(wrong[0].split())[:300]} {run.stdout.splitlines()[-1:]}" if wrong else ""


def main(jobs: str = "2") -> int:
    status = 0
    with tempfile.TemporaryDirectory(prefix="mutants-") as folder:
        tree = Path(folder) / "tree"
        shutil.copytree(ROOT, tree, ignore=shutil.ignore_patterns("build", ".git"))
        configure = ["cmake", "-S", str(tree), "-B", f"{tree}/build", "-G", "Ninja"]
        subprocess.run([*configure, "-DCMAKE_BUILD_TYPE=RelWithDebInfo"], check=True, capture_output=True)
        for name, changes in MUTANTS.items():
            daemon = build(changes, tree)
            found = {part: noticed(part, only, daemon, jobs) for part, only in PARTS.items()}
            right = any(found.values()) == bool(changes)
            status |= not right
            print(name, "" if right else "  <-- WRONG")
            for part, said in found.items():
                print(f"    {part}: {said or 'nothing broke'}", flush=True)
    return status


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
