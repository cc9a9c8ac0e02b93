"""What a phone's file system holds for the daemon, and what the daemon leaves there: paths, names, modes, limits and
the format of the history. Paths are the phone's own."""

from __future__ import annotations

from dataclasses import dataclass
import re
from typing import List, Tuple

BLOCK_FOLDER = "/dev/block/by-name"  # the partitions, by their names

# Inputs
CMDLINE = "/proc/cmdline"
PON_LOG = "/proc/pmic_pon_log"
BOARD_ID = "/proc/device-tree/rootparam/qcom,boardid"
BUILD_PROP = "/vendor/build.prop"
DAEMON = "/vendor/bin/vorta"
FACTORY_LIBRARY = "/vendor/lib64/lib_factory_interface.so"
SHELL = "/system/bin/sh"
CORVEL, RAINBOW = ("-h", "boot"), ("-r", "boot")  # arguments of the daemon
SERVICES = (CORVEL, RAINBOW)  # in the order in which init runs them

# What is collected
RELIABILITY = "/data/vendor/log/reliability"
DUMPLOG = RELIABILITY + "/dumplog"
FULLDUMPLOG = RELIABILITY + "/fulldumplog"
SHIPMODE = RELIABILITY + "/shipmode_shutdown"
HISTORY_NAME = "history.log"
HISTORY = DUMPLOG + "/" + HISTORY_NAME
RAWDUMP_NAME = "rawdump.bin"  # the packed minidump
TMP_DUMP_NAME = "tmp.bin"  # the raw one, while it is packed
FULLDUMP_NAME = "fulldump.bin"  # behind the time and a "-"
DONE_NAME = "DONE"
TMP_SUFFIX = "_tmp"  # the raw copy of a log, while it is converted

OWNER, GROUP = 0, 1000
FILE_MODE, FOLDER_MODE, ROOT_FOLDER_MODE = 0o644, 0o775, 0o770  # the root folders are init's

PROPERTY_SIZE = 91  # bytes of a property's value at most
HISTORY_LIMIT = 1048576  # a larger history is begun anew
DUMPLOG_LIMITS = {"commercial": 5242880, "internal": 83886080}

RECORD_TIME = re.compile(r"\d{14}-\d{8}", re.ASCII)  # local time to the second, tens of nanoseconds

# One line of the history: reason, time, category. The texts may hold anything but a NUL, even a line feed.
HISTORY_TEXTS = (
    "system exception core [NA], reason [",
    "], time [",
    "], sysreboot [true], bootup_keypoint [NA], category [",
    "]\n",
)


@dataclass(frozen=True)
class HistoryEntry:
    time: str
    category: str
    reason: str


def history_line(reason: str, time: str, category: str) -> str:
    start, before_time, before_category, end = HISTORY_TEXTS
    return start + reason + before_time + time + before_category + category + end


def parse_history(text: str) -> Tuple[List[HistoryEntry], int]:
    """The entries, oldest first, and how many characters belong to none."""
    start, before_time, before_category, end = HISTORY_TEXTS
    middle = re.compile(f"{re.escape(before_time)}({RECORD_TIME.pattern}){re.escape(before_category)}", re.ASCII)
    entries = []
    head, *lines = text.split(start)
    damaged = len(head)
    for line in lines:
        found = middle.search(line)
        category, found_end, behind = line[found.end() :].rpartition(end) if found else ("", "", "")
        if found and found_end:
            entries.append(HistoryEntry(found[1], category, line[: found.start()]))
            damaged += len(behind)
        else:
            damaged += len(start) + len(line)
    return entries, damaged


def strings(data: bytes) -> bytes:
    """What the phone's `strings` makes of a log: runs of at least four printable characters, a line each."""
    return b"".join(run + b"\n" for run in re.findall(rb"[\x20-\x7e\t]{4,}", data))
