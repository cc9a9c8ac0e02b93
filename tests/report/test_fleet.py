"""What `report` finds in the folders of a fleet is what happened to its phones: all of it, and nothing else.

VORTA_FLEET=30 makes more phones than the few of every day; VORTA_FLEET_SEED tells other stories."""

from __future__ import annotations

import json
import os
from pathlib import Path
import re
import subprocess
import sys
from typing import Any, Dict, List, Tuple

import pytest
from simulated import options

from vortadev import attention, finding, fleet, gather
from vortadev.evidence import Boot, Phone

PHONES, SEED = int(os.environ.get("VORTA_FLEET", "6")), int(os.environ.get("VORTA_FLEET_SEED", "1"))
Account = Dict[str, Any]


@pytest.fixture(name="made", scope="module")
def fixture_made(tmp_path_factory: pytest.TempPathFactory) -> Tuple[Path, Account]:
    out = tmp_path_factory.mktemp("fleet") / "phones"
    account = fleet.make(out, PHONES, SEED, 2, options().daemon)
    assert account == json.loads((out / "fleet.json").read_text())
    return out, account


def read(out: Path) -> List[Phone]:
    problems: List[str] = []
    found = [gather.read(source) for source in finding.sources([out], problems)]
    assert problems == []
    return sorted(found, key=lambda phone: phone.name)


def told(boot: Boot) -> Account:
    """A boot in the words of the account."""
    kernel = boot.kernel and boot.kernel.crash_line and boot.kernel
    return {
        "time": boot.time,
        "restart": boot.restart.value,
        "line": boot.category is not None,
        "category": boot.category,
        "reason": boot.reason,
        "collection": boot.collection.state.value if boot.collection else None,
        "minidump": boot.collection.minidump.value if boot.collection else None,
        "fulldump": boot.fulldump.state.value if boot.fulldump else None,
        # The log of a boot that collected no crash may well be there, but tells of none.
        "function": kernel.function if kernel else None,
        "version": kernel.version if kernel else None,
    }


def test_each_boot_and_each_attention_is_found_and_no_other(made: Tuple[Path, Account]) -> None:
    out, account = made
    found = read(out)
    shared = attention.shared([attention.signatures(phone) for phone in found])
    expectations = sorted(account["phones"], key=lambda phone: str(phone["name"]))
    assert [phone.name for phone in found] == [phone["name"] for phone in expectations]
    for phone, common, expected in zip(found, shared, expectations):
        for boot, wanted in zip(phone.boots, expected["boots"]):
            assert {**wanted, **told(boot)} == wanted, expected["story"]
        assert len(phone.boots) == len(expected["boots"])
        rules = sorted(one.rule for one in phone.attentions + common)
        assert rules == sorted(expected["attention"]), expected["story"]
        assert phone.waiting == expected["waiting"]


def test_a_signature_is_a_crash(made: Tuple[Path, Account]) -> None:
    """The same crash has one signature on all phones, another one has another."""
    out, account = made
    boots = {boot.time: boot for phone in read(out) for boot in phone.boots}
    crashes = {
        boot["time"]: boot["crash"] for told in account["phones"] for boot in told["boots"] if boot["crash"] is not None
    }
    pairs = {(crash, boots[time].kernel.signature) for time, crash in crashes.items()}  # type: ignore[union-attr]
    assert len(pairs) == len({crash for crash, _ in pairs}) == len({signature for _, signature in pairs}) > 0


def test_totals_are_those_of_the_account(made: Tuple[Path, Account]) -> None:
    out, account = made
    command = [sys.executable, "-m", "vortadev", "report", str(out), "--jobs", "2"]
    ended = subprocess.run(command, capture_output=True, text=True, check=False, timeout=120)
    totals = account["totals"]
    assert (ended.returncode, ended.stderr) == (1 if totals["attention"] else 0, "")
    told = [int(number) for number in re.findall(r"\d+", ended.stdout.splitlines()[-1])]
    states = totals["collections"].values()
    counts = [*states, totals["waiting"], totals["attention"]]
    wanted = [totals["phones"], totals["boots"], totals["unexpected"], sum(states), *filter(None, counts)]
    assert told == wanted
