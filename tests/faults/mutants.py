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
from typing import Dict, List

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


def build(changes: Dict[str, str], tree: Path) -> Path:
    for folder in ("handle", "rainbow"):
        shutil.rmtree(tree / folder, ignore_errors=True)
        shutil.copytree(ROOT / folder, tree / folder, copy_function=shutil.copy)  # new times: all of it is built
    sources = [source for folder in ("handle", "rainbow") for source in (tree / folder).glob("*.cpp")]
    for pattern, replacement in changes.items():
        places = [source for source in sources for _ in re.finditer(pattern, source.read_text())]
        if len(places) != 1:
            raise SystemExit(f"tests/faults/mutants.py: {pattern} matches {len(places)} places; expected one")
        places[0].write_text(re.sub(pattern, replacement, places[0].read_text()))
    subprocess.run(["cmake", "--build", tree / "build", "--target", "vorta"], check=True, capture_output=True)
    return tree / "build/vorta"


def noticed(part: str, only: str, daemon: Path, jobs: str) -> List[str]:
    """What a campaign said of the daemon: nothing if it found nothing wrong."""
    command = [f"{ROOT}/scripts/{part}", "--short", "--only", only, "--daemon", str(daemon), "--jobs", jobs]
    run = subprocess.run([*command, "--json", f"{daemon}.json"], capture_output=True, text=True, check=False)
    wrong = re.findall(r"BROKEN .*\n.*|.*breaks without any fault.*", run.stdout + run.stderr)
    if run.returncode and not wrong:
        raise SystemExit(f"tests/faults/mutants.py: scripts/{part} ended with {run.returncode}: {run.stderr}")
    return wrong and [" ".join(wrong[0].split())[:200], *run.stdout.splitlines()[-1:]]


def main(jobs: str = "2") -> int:
    wrong = 0
    with tempfile.TemporaryDirectory(prefix="mutants-") as folder:
        tree = Path(folder) / "tree"
        shutil.copytree(ROOT, tree, ignore=shutil.ignore_patterns("build", ".git"))
        configure = [
            "cmake",
            "-S",
            str(tree),
            "-B",
            f"{tree}/build",
            "-G",
            "Ninja",
            "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
        ]
        subprocess.run(configure, check=True, capture_output=True)
        for name, changes in MUTANTS.items():
            daemon = build(changes, tree)
            print(f"{name}:", flush=True)
            found = {part: noticed(part, only, daemon, jobs) for part, only in PARTS.items()}
            for part, lines in found.items():
                print(f"    {part}: {'; '.join(lines) or 'nothing broke'}", flush=True)
            if any(found.values()) != bool(changes):
                wrong += 1
                print("    WRONG")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
