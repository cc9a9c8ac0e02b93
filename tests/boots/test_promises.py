"""Whole boots against their promises: each partition byte, each collected file, the history, the whole log. The shipped
scenarios, and variations of them that a phone meets.

    /usr/bin/python3 -m pytest tests/boots/test_promises.py --update-logs    writes the logs of the variations
"""

from __future__ import annotations

from pathlib import Path
import shutil
from typing import Any, Dict

import pytest
from conftest import MakePhone
from simulated import DUMPLOG, FULLDUMPLOG, VARIATIONS, options, traced

from vortadev import scenario

# What a scenario cannot say: how it is booted, and folders that are not there.
NO_FLUSH = traced("-o", "/dev/null", "-e", "trace=fsync", "-e", "inject=fsync:error=EIO")
NO_RECORD = traced("-o", "/dev/null", "-P", "/dev/block/by-name/rawdump", "-e", "inject=write:error=EIO")
NO_SEEK = traced("-o", "/dev/null", "-P", f"/{DUMPLOG}/history.log", "-e", "inject=lseek:error=EIO")
OPTIONS: Dict[str, Dict[str, Any]] = {
    "data-read-only": {"read_only_data": True},
    "flush-fails": NO_FLUSH,
    "record-cannot-be-written": NO_RECORD,
    "history-cannot-be-extended": NO_SEEK,
}
MISSING = {"dump-folder-missing": DUMPLOG, "full-dump-folder-missing": FULLDUMPLOG}

ALL = [*scenario.shipped(), *(str(file) for file in sorted(VARIATIONS.glob("*.json")))]


@pytest.mark.parametrize("name", ALL, ids=lambda name: Path(name).stem)
def test_boot_keeps_its_promise(name: str, make_phone: MakePhone, pytestconfig: pytest.Config) -> None:
    wanted = scenario.load(name)
    how = OPTIONS.get(wanted.name, {})
    if options().emulator and (wanted.factory_library or "wrapper" in how):
        pytest.skip("the factory library and strace are those of this machine, not of the daemon's")
    phone = make_phone(wanted)
    if wanted.name in MISSING:
        shutil.rmtree(phone / MISSING[wanted.name])
    boot = phone.boot(**how)
    if pytestconfig.getoption("--update-logs") and not wanted.is_shipped:
        wanted.golden.write_text(boot.masked_log(), "utf-8", "surrogateescape")
    assert wanted.golden.exists(), "--update-logs writes it"
    assert boot.broken() == []
