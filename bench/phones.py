"""Folders as they are pulled from a fleet, for the benchmark: two phones that lived, and others whose files are links
to theirs."""

from __future__ import annotations

import json
import os
from pathlib import Path
import shutil
import subprocess
import tempfile
from typing import Dict

from vortadev import fleet, phone

from device import Contender
from program import ROOT

# Three phones have 16 boots and six minidumps.
STORIES = ("crash A, normal, normal, crash B, normal, normal", *2 * ["normal, crash A, normal, crash B, normal"])
GZIP = Contender("gzip -t", Path("/bin/sh"), ["-c", "find pulled -name rawdump.bin | xargs -P $(nproc) -n 1 gzip -t"])


class Fleet:
    own = Contender("report", ROOT / "scripts/vortadev", ["report", "--jsonl", "lines", "pulled"])

    def __init__(self, folder: Path, timer: Path, phones: int) -> None:
        self.folder, self.timer, self.dumps = folder, timer, 2 * phones
        shutil.rmtree(folder, ignore_errors=True)
        lived = {story: self.live(number, story) for number, story in enumerate(sorted(set(STORIES)))}
        for number in range(phones):
            story = STORIES[number % len(STORIES)]
            shutil.copytree(lived[story], folder / f"pulled/SN{1001 + number}", copy_function=os.link)

    def live(self, number: int, story: str) -> Path:
        """What is pulled from a phone after that story."""
        kept = self.folder / f"kept-{number}"
        with tempfile.TemporaryDirectory(dir=fleet.MEMORY) as scratch:
            lived = fleet.SimulatedPhone(Path(scratch, "phone"), number, seed=1, daemon=None)
            kinds = lived.told["kinds"]
            kinds["crash"] = {**kinds["panic"], "base": "kernel-panic"}  # its minidump packs as badly as a real one
            for step in story.split(", "):
                lived.boot(step.split())
            shutil.copytree(lived.on_data(phone.RELIABILITY), kept)
        return kept

    def run(self, contender: Contender) -> Dict[str, float]:
        command = [self.timer, "cost", contender.program, *contender.arguments]
        done = subprocess.run(command, cwd=self.folder, stdout=subprocess.DEVNULL, check=False)
        if done.returncode not in (0, 1):  # 1: phones need attention
            raise SystemExit(f"bench: {contender.name} ended with {done.returncode}")
        if contender == self.own:
            self.check()
        cost: Dict[str, float] = json.loads((self.folder / "cost").read_text())
        return cost

    def check(self) -> None:
        """A report that unpacked less than the rival did would make the figures worthless."""
        lines = map(json.loads, (self.folder / "lines").read_text().splitlines())
        whole = sum(line.get("minidump") == "whole" for line in lines)
        if whole != self.dumps:
            raise SystemExit(f"bench: the report found {whole} whole minidumps; expected {self.dumps}")
