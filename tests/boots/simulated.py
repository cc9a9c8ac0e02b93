"""A simulated phone in a scratch folder: what the system tests run the unmodified daemon on."""

from __future__ import annotations

from dataclasses import replace
import os
from pathlib import Path
from typing import Any, Dict, List, Sequence, Tuple

from vortadev import check, device, sandbox, scenario

VARIATIONS = Path(__file__).parent / "variations"
DUMPLOG = "data/vendor/log/reliability/dumplog"  # on disk
FULLDUMPLOG = "data/vendor/log/reliability/fulldumplog"
TIME_LIMIT = 120  # seconds, generous: under qemu and sanitizers as well


def options() -> sandbox.Options:
    """For every run: the daemon and the emulator that VORTA_DAEMON and VORTA_EMULATOR name. What malloc gives is never
    zeros, so that a buffer that is not cleared shows."""
    named = {name: os.environ.get(f"VORTA_{name}", "") for name in ("DAEMON", "EMULATOR")}
    made = sandbox.Options(timeout=TIME_LIMIT, environment={"MALLOC_PERTURB_": "165"})
    made.daemon = Path(named["DAEMON"]) if named["DAEMON"] else None
    made.emulator = Path(named["EMULATOR"]) if named["EMULATOR"] else None
    return made


def traced(*arguments: str, binds: Sequence[Tuple[str, str]] = ()) -> Dict[str, Any]:
    """Options for a run under strace, where a leak checker cannot work."""
    wrapper = ["strace", "-qq", *arguments]
    return {"wrapper": wrapper, "binds": [*options().binds, *binds], "environment": {"ASAN_OPTIONS": "detect_leaks=0"}}


def variation(name: str) -> scenario.Scenario:
    return scenario.load(str(VARIATIONS / f"{name}.json"))


class Phone:
    """Made from a scenario. Paths below it are the phone's without their first slash."""

    def __init__(self, folder: Path, made: scenario.Scenario) -> None:
        self.folder, self.scenario = folder, made
        device.create(folder, made)

    def __truediv__(self, path: str) -> Path:
        return self.folder / path

    def boot(self, *arguments: str, **changes: Any) -> check.Boot:
        """One boot, with the scenario's arguments if none are given; `changes` are fields of sandbox.Options."""
        environment = {**options().environment, **changes.pop("environment", {})}
        wanted = replace(options(), environment=environment, data_size=self.scenario.data_size)
        wanted = replace(wanted, **changes)
        before = check.read_state(self.folder)
        run = sandbox.run(self.folder, arguments or self.scenario.arguments, wanted, capture=True)
        ended = check.Boot(self.scenario, self.folder, before, run, echoes=not wanted.wrapper)
        assert not run.timed_out
        sizes = {name: image.size for name, image in before.partitions.items()}
        assert {name: image.size for name, image in ended.after.partitions.items()} == sizes, "a partition file grew"
        return ended

    def boots(self) -> List[Path]:
        """The folders of the collected boots, oldest first."""
        return sorted(path for path in (self / DUMPLOG).iterdir() if path.is_dir())

    def partition(self, name: str) -> Path:
        return device.partition_path(self.folder, name)

    def write(self, phone_path: str, data: bytes) -> None:
        device.write(self.folder, phone_path, data)

    def poke(self, partition: str, values: Dict[int, bytes]) -> None:
        """Puts bytes at offsets of a partition."""
        with self.partition(partition).open("r+b") as image:
            for offset, data in values.items():
                image.seek(offset)
                image.write(data)
