"""Fixtures of the system tests, and the option --update-logs, which writes the golden logs of the variations anew."""

from __future__ import annotations

import os
from pathlib import Path
import tempfile
from typing import Callable, Iterator

import pytest
from simulated import Phone, variation

from vortadev.scenario import Scenario

# The devices write synchronously, as a phone does; in memory that costs nothing.
MEMORY = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None

MakePhone = Callable[[Scenario], Phone]


def pytest_addoption(parser: pytest.Parser) -> None:
    parser.addoption("--update-logs", action="store_true", help="promise the logs of these boots from now on")


@pytest.fixture
def scratch() -> Iterator[Path]:
    with tempfile.TemporaryDirectory(prefix="vorta-", dir=MEMORY) as folder:
        yield Path(folder)


@pytest.fixture
def make_phone(scratch: Path) -> MakePhone:
    made = iter(range(1000))
    return lambda wanted: Phone(scratch / f"phone{next(made)}", wanted)


@pytest.fixture
def panicked(make_phone: MakePhone) -> Phone:
    """A phone after a kernel panic that is quick to collect."""
    return make_phone(variation("panic"))
