"""Do the campaigns notice? Builds daemons that are wrong on purpose, one change each, and runs a part of the campaigns
against each of them: every mutant must break an invariant, the unchanged daemon none.
    python3 tests/faults/mutants.py [JOBS]"""

from __future__ import annotations

import json
from pathlib import Path
import re
import shutil
import subprocess
import sys
import tempfile
from typing import Dict, List, Union

ROOT = Path(__file__).resolve().parents[2]
Changes = Dict[str, str]
PARTS = {"faults": "^panic:(write:half:[0-9]*[05]:|openat:[0-9]+:EIO:once|fsync)", "powercuts": "^panic:"}

# What is wrong, and the changes that make it so: patterns, each of one place in the sources, and replacements.
CLEAR = r"    UpdatePartDumpHeader(mode);\n\1"
MUTANTS: Dict[str, Changes] = {
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


def build(changes: Changes, tree: Path) -> Path:
    sources = [source for folder in ("handle", "rainbow") for source in (tree / folder).glob("*.cpp")]
    originals: Dict[Path, str] = {}
    for pattern, replacement in changes.items():
        places = [source for source in sources for _ in re.finditer(pattern, source.read_text())]
        if len(places) != 1:
            raise SystemExit(f"tests/faults/mutants.py: {pattern} matches {len(places)} places; expected one")
        originals.setdefault(places[0], places[0].read_text())
        places[0].write_text(re.sub(pattern, replacement, places[0].read_text()))
    subprocess.run(["cmake", "--build", tree / "build", "--target", "vorta"], check=True, capture_output=True)
    for source, text in originals.items():
        source.write_text(text)
    return tree / "build/vorta"


def try_mutant(part: str, only: str, daemon: Path, jobs: str) -> List[str]:
    """The invariants that broke."""
    result = daemon.with_name("result.json")
    result.unlink(missing_ok=True)
    command: List[Union[str, Path]]
    command = [ROOT / "scripts" / part, "--short", "--only", only, "--daemon", daemon, "--jobs", jobs, "--json", result]
    run = subprocess.run(command, capture_output=True, text=True, check=False)
    if not result.exists():  # even a boot without faults broke
        if "breaks without any fault" not in run.stderr:
            raise SystemExit(f"tests/faults/mutants.py: scripts/{part} ended with {run.returncode}: {run.stderr}")
        return [run.stderr.splitlines()[0]]
    broken = json.loads(result.read_text())["broken"]
    names = sorted({name for case in broken for name in case["invariants"]})
    first = [f"e.g. {broken[0]['case']}: {next(iter(broken[0]['invariants'].values()))}"] if broken else []
    return [f"{len(broken)} cases: {', '.join(names)}", *first] if broken else []


def main(jobs: str = "2") -> int:
    wrong = 0
    with tempfile.TemporaryDirectory(prefix="mutants-") as folder:
        tree = Path(folder) / "tree"
        shutil.copytree(ROOT, tree, ignore=shutil.ignore_patterns("build", ".git"))
        configure: List[Union[str, Path]]
        configure = ["cmake", "-S", tree, "-B", tree / "build", "-G", "Ninja", "-DCMAKE_BUILD_TYPE=RelWithDebInfo"]
        subprocess.run(configure, check=True, capture_output=True)
        for name, changes in MUTANTS.items():
            daemon = build(changes, tree)
            found = {part: try_mutant(part, only, daemon, jobs) for part, only in PARTS.items()}
            noticed = any(found.values())
            right = noticed == bool(changes)
            wrong += not right
            print(f"{name}: {'noticed' if noticed else 'nothing broke'}{'' if right else '  <-- WRONG'}")
            for part, lines in found.items():
                told = [line[:160] for line in lines] or ["nothing broke"]
                print("\n".join(f"    {part}: {line}" for line in told), flush=True)
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
