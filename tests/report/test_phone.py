"""What is told of one phone."""

from __future__ import annotations

from datetime import datetime
import gzip
from pathlib import Path
from typing import Dict, List, Mapping, Optional, Sequence, Tuple

import pulled
from pulled import MINIDUMP, MINIDUMP_SIZE, NO_PANIC, PANIC, WHOLE, Files, Line, time, without
import pytest

from vortadev import gather, kernellog
from vortadev.evidence import Phone
from vortadev.finding import Source


def read(phone: Path, since: Optional[datetime] = None) -> Phone:
    return gather.read(Source("SN1", phone / "reliability"), since)


RESTARTS: Sequence[Tuple[str, str, Optional[Files], str]] = (
    ("NORMALBOOT", "PS_HOLD", None, "normal"),
    ("NORMALBOOT", "", None, "normal"),  # a reset cause of 128 characters
    ("NORMALBOOT", "reboot_longkey", None, "forced"),
    ("NORMALBOOT", "reboot_longkey\n", None, "forced"),  # last on the kernel command line
    ("NORMALBOOT\n", "PS_HOLD", None, "normal"),
    ("AP_S_HANG", "reboot_longkey", NO_PANIC, "forced"),
    ("HARDWARE_FAULT", "XVDD", None, "hardware fault"),
    ("UNKNOWN", "XBL_DUMP_EXCEPTION", None, "unknown"),
    ("", "", None, "unknown"),
    ("", "panic", None, "unknown"),
    ("AP_S_PANIC", "", None, "unknown"),
    ("AP_S_PANIC", "panic", None, "crash"),
    ("", "", NO_PANIC, "crash"),
    ("NORMALBOOT", "PS_HOLD", {"rawdump.bin": MINIDUMP}, "normal"),  # a minidump that had waited
)


@pytest.mark.parametrize("category, reason, files, restart", RESTARTS)
def test_restart(tmp_path: Path, category: str, reason: str, files: Optional[Files], restart: str) -> None:
    folders = {} if files is None else {time(1): files}
    (boot,) = read(pulled.pull(tmp_path, [(time(1), category, reason)], folders)).boots
    assert boot.restart.value == restart


NORMAL = [(time(day), "NORMALBOOT", "PS_HOLD") for day in (1, 3, 5)]
CRASH, PANICKED = (time(9), "AP_S_PANIC", "panic"), (time(5), "AP", "panic")
LATER = {**WHOLE, "last_kmsg": PANIC.replace(b"102.", b"99102.")}  # of another boot
FATAL_OOPS = "Kernel panic - not syncing: Oops: Fatal exception"
Told = Sequence[str]  # rule and a part of the sentence


def fault(day: int, hour: int) -> Line:
    return time(day, hour), "UNKNOWN", "UNKNOWN"


def expect(phone: Phone, told: Told) -> None:
    """These attentions, and no others."""
    wanted = [one.partition(": ") for one in told]
    assert [found.rule for found in phone.attentions] == [rule for rule, _, _ in wanted]
    assert all(part in found.text for found, (_, _, part) in zip(phone.attentions, wanted))
    assert all(Path(found.path).exists() for found in phone.attentions)


ALONE = dict.fromkeys(NO_PANIC)  # what a minidump that had waited lies without
TMP = {"rawdump.bin": None, "tmp.bin": b"1234"}
TOO_MUCH = gzip.compress(bytes(4 * MINIDUMP_SIZE), 1)[:-8] + b"12345678"  # the damage behind it is not met
# What differs from a whole folder (None: is not there), whether there is a line, the states of the collection and its
# minidump, attentions.
FOLDERS: Mapping[str, Tuple[Mapping[str, Optional[bytes]], bool, str, Told]] = {
    "all of it": ({}, True, "whole whole", []),
    "no minidump": ({"rawdump.bin": None}, True, "whole absent", []),
    "a minidump alone": (ALONE, True, "whole whole", []),
    "a minidump alone, cut off": (ALONE, False, "open whole", ["open: the run was cut off"]),
    "half a minidump": ({"rawdump.bin": MINIDUMP[:9999]}, True, "cut cut", ["cut: ends early"]),
    "without its last byte": ({"rawdump.bin": MINIDUMP[:-1]}, True, "cut cut", ["cut: though DONE"]),
    "with another checksum": ({"rawdump.bin": MINIDUMP[:-8] + b"12345678"}, True, "cut cut", ["cut: is damaged"]),
    "another one": ({"rawdump.bin": gzip.compress(bytes(99))}, True, "cut cut", ["cut: unpacks to 99 B of 28.0 MiB"]),
    "a far larger one": ({"rawdump.bin": TOO_MUCH}, True, "cut cut", ["cut: unpacks to more than 28.0 MiB"]),
    "an empty file": ({"rawdump.bin": b""}, True, "cut cut", ["cut: ends early, at 0 B"]),
    "not copied": (TMP, True, "cut cut", ["tmp: is not whole"]),
    "not packed": ({**TMP, "tmp.bin": bytes(MINIDUMP_SIZE)}, True, "whole waiting", ["tmp: is not packed"]),
    "packed, and not": ({"tmp.bin": b"1234"}, True, "whole whole", ["tmp: is packed"]),
    "never closed": ({"DONE": None}, False, "open whole", ["open: the run was cut off"]),
    "marker lost": ({"DONE": None}, True, "open whole", ["open: though it has its line"]),
    "nothing in it": (dict.fromkeys(WHOLE), True, "open absent", ["open: though it has its line"]),
    "copy left": ({"tz_log": None, "tz_log_tmp": b"x"}, True, "whole whole", ["tmp: strings tz_log_tmp"]),
    "copy left beside": ({"tz_log_tmp": b"x"}, True, "whole whole", ["tmp: trust tz_log_tmp"]),
    "logs lacking": ({"tz_log": None, "xbl_abl": b""}, True, "whole whole", ["log: xbl_abl empty, tz_log missing"]),
    "no line": ({}, False, "whole whole", ["no-line: without a line"]),
    "nearly full": (
        {"rawdump.bin": None, "xbl_abl": bytes(4718592)},
        True,
        "whole absent",
        ["storage: 5.0 MiB, the likely"],
    ),
}


@pytest.mark.parametrize("case", FOLDERS)
def test_folder(tmp_path: Path, case: str) -> None:
    changes, has_line, states, told = FOLDERS[case]
    files = {name: data for name, data in {**WHOLE, **changes}.items() if data is not None}
    phone = read(pulled.pull(tmp_path, [CRASH] if has_line else NORMAL, {time(9): files}))
    (found,) = phone.collections
    assert f"{found.state.value} {found.minidump.value}" == states
    expect(phone, told)


LINES: Dict[str, Tuple[List[Line], Dict[str, Files], Told]] = {
    "nothing": (NORMAL, {}, []),
    "derived causes": ([(time(1), "HARDWARE_FAULT", "XVDD"), (time(8), "UNKNOWN", "UNKNOWN")], {}, []),
    "a minidump that had waited": (NORMAL, {time(3): {"rawdump.bin": MINIDUMP}}, []),
    "somebody else's folder": (NORMAL, {"lost+found": {"x": b""}}, []),
    "two without a line": (NORMAL, {time(8): WHOLE, time(9): WHOLE}, ["no-line", "no-line"]),
    "no folder": ([CRASH], {}, ["no-folder: AP_S_PANIC has no folder"]),
    "three within a day": (
        [fault(2, 1), fault(2, 9), fault(2, 17)],
        {},
        ["restless: 3 unexpected restarts within 16 h"],
    ),
    "three within more": ([fault(2, 10), fault(3, 11), fault(4, 12)], {}, []),
    "one crash twice": (
        [PANICKED, CRASH],
        {time(5): WHOLE, time(9): LATER},
        [f"repeated: twice: {FATAL_OOPS} in wlan_rx"],
    ),
    "one log collected twice": ([PANICKED, CRASH], {time(5): WHOLE, time(9): WHOLE}, []),
    "no time": ([(time(1, hour, 1970), "NORMALBOOT", "") for hour in (1, 2)], {}, ["clock: 2020"]),
    "backwards": ([*NORMAL, (time(4), "NORMALBOOT", "")], {}, ["clock: from 2026-08-05 10:00"]),
    "history damaged": ([NORMAL[0], ("2026", "NORMALBOOT", "")], {}, ["history: damaged"]),
    "history begun anew": (
        [CRASH],
        {day: NO_PANIC for day in (time(1), time(2), time(9))},
        ["history: 2 folders are older"],
    ),
}


@pytest.mark.parametrize("case", LINES)
def test_lines(tmp_path: Path, case: str) -> None:
    lines, folders, told = LINES[case]
    expect(read(pulled.pull(tmp_path, lines, folders)), told)


def test_full_dump_and_since(tmp_path: Path) -> None:
    """What is left out takes its attentions along; a full dump says that the build is internal."""
    full = {f"{time(9)}-fulldump.bin": b"1234"}
    phone = read(pulled.pull(tmp_path, [*NORMAL, CRASH], {time(2): without(WHOLE, "DONE")}, full))
    assert [found.rule for found in phone.attentions] == ["open", "open"]
    assert [boot.time for boot in phone.boots] == [time(day) for day in (1, 2, 3, 5, 9)]
    assert phone.storage and (phone.storage.build, phone.storage.limit) == ("internal", 83886080)
    later = read(tmp_path, datetime(2026, 8, 3))
    assert [boot.time for boot in later.boots] == [time(day) for day in (3, 5, 9)]
    assert [found.time for found in later.attentions] == [time(9)]


STAMPS = b"[    1.000000] a\n[    3.500000][T12] b\n"
FATAL = "Kernel panic - not syncing: Fatal exception"
SYSRQ = "Kernel panic - not syncing: sysrq triggered crash"
OWN_TRACE = f"""<0>[ 9.5] {SYSRQ}
[ 9.5][ C1] CPU: 1 PID: 1 Comm: sh
[ 9.5] Call trace:
[ 9.5]  dump_backtrace+0x0/0x1d8
[ 9.5]  panic+0x1/0x2
[ 9.5]  sysrq_crash+0x1c/0x30
"""
OTHER_TRACE = f"[ 9.5] {FATAL}\n[ 9.6] CPU2: stopping\n[ 9.6] Call trace:\n[ 9.6]  idle+0x1/0x2\n"
TWO = STAMPS + b"[ 4.0] Internal error: Oops: 96000045 [#1]\n" + b"[ 5.0] x\n" * 150 + b"[ 6.0] wdt: Watchdog bark!\n"
NONE = b"[ 1.0] watchdog: watchdog0: timeout 30\n[ 2.0] init: Kernel panic x\n"
# Text, crash line, function, seconds.
KERNEL_LOGS: Dict[str, Tuple[bytes, Optional[str], Optional[str], Optional[float]]] = {
    "oops": (PANIC, FATAL_OOPS, "wlan_rx", 102.6),
    "panic with its own trace": (OWN_TRACE.encode(), SYSRQ, "sysrq_crash", 9.5),
    "trace of another processor": (OTHER_TRACE.encode(), FATAL, None, 9.6),
    "the last one of two": (TWO, "wdt: Watchdog bark!", None, 6.0),
    "an older log behind": (STAMPS + b"[    0.000000] Kernel panic - not syncing: old\n", None, None, 3.5),
    "TrustZone's behind": (STAMPS + b"(    9.0000) watchdog bark\n", None, None, 3.5),
    "not a crash": (NONE, None, None, 2.0),
    "without stamps": (FATAL.encode(), FATAL, None, None),
    "controls": (b"[ 1.0] Oops: \x1b[31m\xff", "Oops: \\x1b[31m\\xff", None, 1.0),
    "nothing": (b"", None, None, None),
}


@pytest.mark.parametrize("case", KERNEL_LOGS)
def test_kernel_log(case: str) -> None:
    text, *expected = KERNEL_LOGS[case]
    found = kernellog.read(text)
    assert [found.crash_line, found.function, found.seconds] == expected
    assert (found.signature is None) == (found.crash_line is None)
    assert found.version == ("5.10.66-android12-9" if case == "oops" else None)
    assert case != "TrustZone's behind" or found.tail == ("[    1.000000] a", "[    3.500000][T12] b")


@pytest.mark.parametrize(
    "one, other, same",
    (
        ("panic: stack at ffffffc012345678", "panic: stack at ffffffc087654321", True),
        ("BUG: soft lockup - CPU#3 stuck for 22s! [sh:123]", "BUG: soft lockup - CPU#1 stuck for 23s! [init:1]", True),
        ("exitcode=0x0000000b", "exitcode=0x00000009", True),
        ("task system_server blocked", "task surfaceflinger blocked", True),
        ("Fatal exception", "Fatal exception in interrupt", False),
    ),
)
def test_signature(one: str, other: str, same: bool) -> None:
    assert (kernellog.signature(one, "f") == kernellog.signature(other, "f")) is same
    assert kernellog.signature(one, "f") != kernellog.signature(one, "g")
