"""Folders as they are pulled from phones, written by hand: nothing here comes from the tool that reads them."""

from __future__ import annotations

import gzip
from pathlib import Path
from typing import Dict, Mapping, Sequence, Tuple

Line = Tuple[str, str, str]  # time, category, reason
Files = Mapping[str, bytes]

MINIDUMP_SIZE = 29360128
MINIDUMP = gzip.compress(bytes(MINIDUMP_SIZE), 1)
PANIC = b"""\
[  101.000001] binder: 12:13 transaction failed
[  102.100000] Unable to handle kernel NULL pointer dereference at virtual address 0000000000000010
[  102.200000] CPU: 4 PID: 1873 Comm: kworker/u16:3 Tainted: G S      W  O      5.10.66-android12-9 #1
[  102.300000] Call trace:
[  102.400000]  wlan_rx.cfi_jt+0x1c8/0x5f0 [wlan]
[  102.500000]  process_one_work+0x274/0x5ac
[  102.600000] Kernel panic - not syncing: Oops: Fatal exception
"""
LOGS: Dict[str, bytes] = dict.fromkeys(("xbl_abl", "last_xbl_abl", "tz_log"), b"a line\n")
NO_PANIC: Dict[str, bytes] = {**LOGS, "last_kmsg": b"[   10.000000] healthd: battery\n", "DONE": b""}
WHOLE: Dict[str, bytes] = {**LOGS, "last_kmsg": PANIC, "rawdump.bin": MINIDUMP, "DONE": b""}


def time(day: int, hour: int = 10, year: int = 2026) -> str:
    return f"{year}08{day:02}{hour:02}0000-0000{day:02}{hour:02}"


def without(files: Files, *names: str) -> Dict[str, bytes]:
    return {name: data for name, data in files.items() if name not in names}


def history(lines: Sequence[Line]) -> bytes:
    text = (
        "system exception core [NA], reason [{2}], time [{0}], sysreboot [true], bootup_keypoint [NA], category [{1}]\n"
    )
    return "".join(text.format(*line) for line in lines).encode("latin-1")


def pull(phone: Path, lines: Sequence[Line], folders: Mapping[str, Files] = {}, full: Files = {}) -> Path:
    """Gives the folder of the phone, in which the pulled one lies."""
    root = phone / "reliability"
    (root / "dumplog").mkdir(parents=True)
    (root / "dumplog/history.log").write_bytes(history(lines))
    for name, files in {**{f"dumplog/{time}": files for time, files in folders.items()}, "fulldumplog": full}.items():
        (root / name).mkdir()
        for file, data in files.items():
            (root / name / file).write_bytes(data)
    return phone
