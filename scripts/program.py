"""What the Python programs of this project share: the command line, packages, and where results go."""

from __future__ import annotations

import argparse
from pathlib import Path
import subprocess
import sys
from typing import NoReturn

ROOT = Path(__file__).resolve().parent.parent
NAME = Path(sys.argv[0]).name


class CommandLine(argparse.ArgumentParser):
    """A command line whose help is the program's own text, and which refuses what is wrong in one line."""

    def __init__(self, name: str, about: str | None) -> None:
        super().__init__(
            name, description=about, allow_abbrev=False, formatter_class=argparse.RawDescriptionHelpFormatter
        )

    def error(self, message: str) -> NoReturn:
        self.exit(2, f"{self.prog}: {message}; --help says what there is\n")


def need(*groups: str) -> None:
    """Installs packages that are missing; ends the program if that fails, as scripts/setup said why."""
    done = subprocess.run([ROOT / "scripts/setup", *groups], check=False)
    if done.returncode != 0:
        sys.exit(done.returncode)


def place_for(result: Path) -> None:
    """Before the work: its result can be written."""
    try:
        result.parent.mkdir(parents=True, exist_ok=True)
        result.touch()
    except OSError as error:
        sys.exit(f"{NAME}: cannot write {result}: {error}")


def run(*command: str | Path, env: dict[str, str] | None = None) -> None:
    """A step whose output matters only when it fails; then the program ends."""
    done = subprocess.run(
        command, cwd=ROOT, env=env, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False
    )
    if done.returncode != 0:
        sys.exit(f"{done.stdout}{NAME}: {' '.join(map(str, command))} failed")
