"""What is told of one phone."""

from __future__ import annotations

from datetime import datetime
import gzip
from pathlib import Path
from typing import Dict, List, Mapping, Optional, Sequence, Tuple

import pulled
from pulled import LOGS, MINIDUMP, NO_PANIC, PANIC, WHOLE, Files, Line, time, without
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


# Files, whether there is a line, state of the collection and of its minidump.
STATES: Mapping[str, Tuple[Files, bool, str, str]] = {
    "all of it": (WHOLE, True, "whole", "whole"),
    "no minidump": (NO_PANIC, True, "whole", "absent"),
    "a minidump alone": ({"rawdump.bin": MINIDUMP}, True, "whole", "whole"),
    "a minidump alone, cut off": ({"rawdump.bin": MINIDUMP}, False, "open", "whole"),
    "half a minidump": ({**WHOLE, "rawdump.bin": MINIDUMP[:9999]}, True, "cut", "cut"),
    "without its last byte": ({**WHOLE, "rawdump.bin": MINIDUMP[:-1]}, True, "cut", "cut"),
    "with another checksum": ({**WHOLE, "rawdump.bin": MINIDUMP[:-8] + b"12345678"}, True, "cut", "cut"),
    "two packed as one": ({**WHOLE, "rawdump.bin": gzip.compress(bytes(99))}, True, "cut", "cut"),
    "an empty file": ({**WHOLE, "rawdump.bin": b""}, True, "cut", "cut"),
    "not packed": ({**without(WHOLE, "rawdump.bin"), "tmp.bin": b"1234"}, True, "cut", "cut"),
    "not packed, but whole": (
        {**without(WHOLE, "rawdump.bin"), "tmp.bin": bytes(pulled.MINIDUMP_SIZE)},
        True,
        "whole",
        "waiting",
    ),
    "never closed": (without(WHOLE, "DONE"), False, "open", "whole"),
    "nothing in it": ({}, True, "open", "absent"),
}


@pytest.mark.parametrize("case", STATES)
def test_state(tmp_path: Path, case: str) -> None:
    files, has_line, state, minidump = STATES[case]
    phone = read(pulled.pull(tmp_path, [(time(1), "AP", "panic")] if has_line else [], {time(1): files}))
    (found,) = phone.collections
    assert (found.state.value, found.minidump.value) == (state, minidump)


def test_unpacking_is_left_at_twice_the_size(tmp_path: Path) -> None:
    """So the damage behind it is not met."""
    far = gzip.compress(bytes(4 * pulled.MINIDUMP_SIZE), 1)[:-8] + b"12345678"
    phone = read(pulled.pull(tmp_path, [(time(1), "AP", "panic")], {time(1): {**WHOLE, "rawdump.bin": far}}))
    assert phone.collections[0].problem == "rawdump.bin unpacks to more than 28.0 MiB"


NORMAL = [(time(day), "NORMALBOOT", "PS_HOLD") for day in (1, 3, 5)]
CRASH = (time(9), "AP_S_PANIC", "panic")
OTHER_PANIC = PANIC.replace(b"102.", b"99102.")  # of another boot
Told = List[Tuple[str, str]]  # rule, and a part of the sentence

ATTENTION: Dict[str, Tuple[List[Line], Dict[str, Files], Told]] = {
    "nothing": (NORMAL, {}, []),
    "a whole collection": ([*NORMAL, CRASH], {time(9): WHOLE}, []),
    "derived causes": ([(time(1), "HARDWARE_FAULT", "XVDD"), (time(8), "UNKNOWN", "UNKNOWN")], {}, []),
    "a minidump that had waited": (NORMAL, {time(3): {"rawdump.bin": MINIDUMP}}, []),
    "somebody else's folder": (NORMAL, {"lost+found": {"x": b""}}, []),
    "dump cut": ([CRASH], {time(9): {**WHOLE, "rawdump.bin": MINIDUMP[:-1]}}, [("cut", "ends early")]),
    "run cut off": (NORMAL, {time(9): without(WHOLE, "DONE")}, [("open", "the run was cut off")]),
    "marker lost": ([CRASH], {time(9): without(WHOLE, "DONE")}, [("open", "though it has its line")]),
    "copy left": (
        [CRASH],
        {time(9): {**without(WHOLE, "tz_log"), "tz_log_tmp": b"x"}},
        [("tmp", "strings tz_log_tmp")],
    ),
    "copy left beside": ([CRASH], {time(9): {**WHOLE, "tz_log_tmp": b"x"}}, [("tmp", "trust tz_log_tmp")]),
    "dump not packed": (
        [CRASH],
        {time(9): {**without(WHOLE, "rawdump.bin"), "tmp.bin": b"x"}},
        [("tmp", "is not whole")],
    ),
    "logs lacking": (
        [CRASH],
        {time(9): {**without(WHOLE, "tz_log"), "xbl_abl": b""}},
        [("log", "xbl_abl empty, tz_log missing, though DONE")],
    ),
    "no line": (NORMAL, {time(9): WHOLE}, [("no-line", "without a line")]),
    "two without a line": (NORMAL, {time(8): WHOLE, time(9): WHOLE}, [("no-line", ""), ("no-line", "")]),
    "no folder": ([CRASH], {}, [("no-folder", "AP_S_PANIC has no folder")]),
    "three within a day": (
        [(time(2, hour), "UNKNOWN", "UNKNOWN") for hour in (1, 9, 17)],
        {},
        [("restless", "3 unexpected restarts within 16 h")],
    ),
    "three within more": ([(time(2 + n, 10 + n), "UNKNOWN", "UNKNOWN") for n in range(3)], {}, []),
    "one crash twice": (
        [(time(5), "AP", "panic"), CRASH],
        {time(5): WHOLE, time(9): {**WHOLE, "last_kmsg": OTHER_PANIC}},
        [("repeated", "twice: Kernel panic - not syncing: Oops: Fatal exception in wlan_rx")],
    ),
    "one log collected twice": ([(time(5), "AP", "panic"), CRASH], {time(5): WHOLE, time(9): WHOLE}, []),
    "no time": ([(time(1, 1, 1970), "NORMALBOOT", ""), (time(1, 2, 1970), "NORMALBOOT", "")], {}, [("clock", "2020")]),
    "backwards": ([*NORMAL, (time(4), "NORMALBOOT", "")], {}, [("clock", "from 2026-08-05 10:00")]),
    "history damaged": ([(time(1), "NORMALBOOT", "PS_HOLD"), ("2026", "NORMALBOOT", "")], {}, [("history", "damaged")]),
    "history begun anew": (
        [(time(9), "NORMALBOOT", "")],
        {time(1): WHOLE, time(2): NO_PANIC},
        [("history", "2 folders are older")],
    ),
    "nearly full": (
        [CRASH],
        {time(9): {**NO_PANIC, "xbl_abl": bytes(4718592)}},
        [("storage", f"of 5.0 MiB, the likely limit, in dumplog: {time(9)} goes next")],
    ),
}


@pytest.mark.parametrize("case", ATTENTION)
def test_attention(tmp_path: Path, case: str) -> None:
    """These, and no others."""
    lines, folders, told = ATTENTION[case]
    phone = read(pulled.pull(tmp_path, lines, folders))
    assert [found.rule for found in phone.attentions] == [rule for rule, _ in told]
    assert all(part in found.text for found, (_, part) in zip(phone.attentions, told))
    assert all(Path(found.path).exists() for found in phone.attentions)


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
LOG_CASES: Dict[str, Tuple[bytes, Dict[str, object]]] = {
    "oops": (
        PANIC,
        {
            "version": "5.10.66-android12-9",
            "crash_line": "Kernel panic - not syncing: Oops: Fatal exception",
            "function": "wlan_rx",
            "seconds": 102.6,
        },
    ),
    "panic with its own trace": (
        b"<0>[ 9.5] Kernel panic - not syncing: sysrq triggered crash\n[ 9.5][ C1] CPU: 1 PID: 1 Comm: sh\n"
        b"[ 9.5] Call trace:\n[ 9.5]  dump_backtrace+0x0/0x1d8\n[ 9.5]  panic+0x1/0x2\n[ 9.5]  sysrq_crash+0x1c/0x30\n",
        {"crash_line": "Kernel panic - not syncing: sysrq triggered crash", "function": "sysrq_crash", "seconds": 9.5},
    ),
    "trace of another processor": (
        f"[ 9.5] {FATAL}\n[ 9.6] CPU2: stopping\n[ 9.6] Call trace:\n[ 9.6]  idle+0x1/0x2\n".encode(),
        {"crash_line": FATAL, "function": None},
    ),
    "the last one of two": (
        STAMPS
        + b"[ 4.0] Internal error: Oops: 96000045 [#1]\n"
        + b"[ 5.0] x\n" * 150
        + b"[ 6.0] wdt: Watchdog bark!\n",
        {"crash_line": "wdt: Watchdog bark!", "function": None},
    ),
    "an older log behind": (
        STAMPS + b"[    0.000000] Kernel panic - not syncing: old\n",
        {"crash_line": None, "seconds": 3.5},
    ),
    "TrustZone's behind": (
        STAMPS + b"(    9.0000) watchdog bark\n",
        {"crash_line": None, "tail": ("[    1.000000] a", "[    3.500000][T12] b")},
    ),
    "not a crash": (b"[ 1.0] watchdog: watchdog0: timeout 30\n[ 2.0] init: Kernel panic x\n", {"crash_line": None}),
    "without stamps": (FATAL.encode(), {"crash_line": FATAL, "seconds": None}),
    "controls": (
        b"[ 1.0] Kernel panic - not syncing: \x1b[31m\xff",
        {"crash_line": "Kernel panic - not syncing: \\x1b[31m\\xff"},
    ),
    "nothing": (b"", {"crash_line": None, "seconds": None, "signature": None}),
}


@pytest.mark.parametrize("case", LOG_CASES)
def test_kernel_log(case: str) -> None:
    text, expected = LOG_CASES[case]
    found = vars(kernellog.read(text))
    assert {name: found[name] for name in expected} == expected


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
