"""Do the campaigns notice? Builds daemons that are wrong on purpose, one change each, and runs a part of
the campaigns against each of them: every mutant must break an invariant, the unchanged daemon none.
    python3 faults/mutants.py [--build FOLDER] [--jobs N]"""
from __future__ import annotations

import argparse
from dataclasses import dataclass
import json
from pathlib import Path
import re
import shutil
import subprocess
import sys
import tempfile

ROOT = Path(__file__).resolve().parent.parent
PARTS = (("faults", "^panic:(write:(half|none):|write:[0-9]+:EIO:once|fsync)"), ("powercuts", "^panic:"))


@dataclass(frozen=True)
class Mutant:
    """What is wrong, and the change that makes it so: a pattern in one source and its replacement."""
    name: str
    source: str = "rainbow/DumpUpdate.cpp"
    pattern: str = "$^"
    replacement: str = ""


MUTANTS = (
    Mutant("unchanged"),
    Mutant("no flush before the header is cleared", pattern=r"if \(fsync\(fd\) != 0[^{]*\{",
           replacement="if (fd < 0) {"),
    Mutant("dump header cleared before the copy", pattern=r"(    const int tmpFd = )",
           replacement=r"    UpdatePartDumpHeader(kind);\n\1"),
    Mutant("dump header cleared before the packing", pattern=r"(    const int rawFd = )",
           replacement=r"    UpdatePartDumpHeader(kind);\n\1"),
    Mutant("reason node cleared at the end", pattern=r"(?s)    UpdatePartReasonHeader\(\);\n(.*?kDumpTypeMini\)\);\n\})",
           replacement=r"\1"),
    Mutant("WriteRetry without its loop", "handle/VortaHandle.cpp",
           r"(?s)(int VortaHandle::WriteRetry.*?)while( \(done < length\))", r"\1if\2"),
)


def changed(mutant: Mutant, text: str) -> str:
    if mutant.name == "unchanged":
        return text
    mutated, count = re.subn(mutant.pattern, mutant.replacement, text, count=1)
    if mutant.name.startswith("reason node"):  # the call that was taken out goes behind the marker
        mutated = re.sub(r"(markerPath, [^\n]*\n)", r"\1    UpdatePartReasonHeader();\n", mutated, count=1)
    if count != 1:
        raise SystemExit(f"faults/mutants.py: {mutant.source} has changed: nothing matches {mutant.pattern}")
    return mutated


def build(mutant: Mutant, tree: Path) -> Path:
    source = tree / mutant.source
    original = source.read_text()
    source.write_text(changed(mutant, original))
    subprocess.run(["cmake", "--build", tree / "build", "--target", "vorta"], check=True, capture_output=True)
    source.write_text(original)
    return tree / "build/vorta"


def try_mutant(part: str, only: str, daemon: Path, options: argparse.Namespace) -> list[str]:
    """The invariants that broke."""
    result = daemon.with_name("result.json")
    result.unlink(missing_ok=True)
    run = subprocess.run([ROOT / "scripts" / part, "--short", "--only", only, "--daemon", daemon, "--build",
                          options.build, "--jobs", str(options.jobs), "--json", result],
                         capture_output=True, text=True, check=False)
    if not result.exists():  # even a boot without faults broke
        return [run.stderr.splitlines()[0]] if run.returncode else []
    broken = json.loads(result.read_text())["broken"]
    names = sorted({name for case in broken for name in case["invariants"]})
    first = [f"e.g. {broken[0]['case']}: {next(iter(broken[0]['invariants'].values()))}"] if broken else []
    return [f"{len(broken)} cases: {', '.join(names)}", *first] if broken else []


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", type=Path, default=ROOT / "build/host")
    parser.add_argument("--jobs", type=int, default=2)
    options = parser.parse_args()
    wrong = 0
    with tempfile.TemporaryDirectory(prefix="mutants-") as folder:
        tree = Path(folder) / "tree"
        shutil.copytree(ROOT, tree, ignore=shutil.ignore_patterns("build", ".git"))
        subprocess.run(["cmake", "-S", tree, "-B", tree / "build", "-G", "Ninja",
                        "-DCMAKE_BUILD_TYPE=RelWithDebInfo"], check=True, capture_output=True)
        for mutant in MUTANTS:
            daemon = build(mutant, tree)
            found = {part: try_mutant(part, only, daemon, options) for part, only in PARTS}
            noticed = any(found.values())
            right = noticed != (mutant.name == "unchanged")
            wrong += not right
            print(f"{mutant.name}: {'noticed' if noticed else 'nothing broke'}{'' if right else '  <-- WRONG'}")
            for part, lines in found.items():
                print("\n".join(f"    {part}: {line[:160]}" for line in lines) or f"    {part}: nothing broke", flush=True)
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
