"""The boots that the campaigns try: the device of each, the steps that the daemon takes in it, and
the bytes that it may write. Everything else in the campaigns is derived from these tables."""
from __future__ import annotations

from dataclasses import dataclass
import re
from typing import Any, Callable

from device import MINIDUMP, FULLDUMP_OFFSET, FULLDUMP_SIZE, LOG_FOLDER, State

NORMAL = {"ro.logsystem.usertype": "3", "msc.sys.country": "cn", "ro.runmode": "normal"}
CMDLINE = "console=ttyMSM0 sreason=panic reboot_reason=AP_S_PANIC CORVEL=0x4A0040000 rootwait"
ABNORMAL = {"innerResetReason": "ABNM", "resetType": "WARM", "bootLevel": 2, "mreasonStrFlag": "VALD",
            "sreasonStrFlag": "VALD", "mreasonStr": "AP_S_PANIC", "sreasonStr": "Fatal exception",
            "userType": "5", "boardIdMagic": "0xB0A1D1D", "boardId": 14}
OUTDATED = {"userType": "5"}
META = {"magic": "ZZZZ", "magicTail": "Z", "userType": "5"}
LOG_REGIONS = {"xbl_abl": ("rawdump", 0x80000, 0x40000), "last_xbl_abl": ("rawdump", 0xC0000, 0x40000),
               "last_kmsg": ("rawdump", 0x200000, 0x180000), "tz_log": ("rawdump", 0x300000, 0x100000)}
LOGS = {name: {"text": [f"{name} line {n}" for n in range(3)]} for name in LOG_REGIONS}


@dataclass(frozen=True)
class Boot:
    """One way a boot goes. `scenario` completes COMMON; `steps` are those that leave evidence."""
    name: str
    scenario: dict[str, Any]
    fields: tuple[str, ...]
    steps: tuple[str, ...]
    service: str = "-r"


COMMON: dict[str, Any] = {
    "properties": NORMAL, "cmdline": CMDLINE, "reasonHeader": OUTDATED, "meta": META, "logs": LOGS,
    "partitions": {"rawdump": "33MiB", "userdata": "8MiB"}}
LINE_TIME = re.compile(rb"time \[[^]]*\]")
LOG_STEPS = ("folder", "xbl_abl", "last_xbl_abl", "node", "last_kmsg", "tz_log")
CLOSING = ("history", "told", "usertype", "meta", "board")
HEADER_FIELDS = ("node", "usertype", "board", "meta")

BOOTS = {boot.name: boot for boot in (
    Boot("panic", {"properties": NORMAL | {"persist.log.remotedebug": "true"}, "reasonHeader": ABNORMAL,
                   "minidump": {"header": {"text0": "MINIDUMP", "flag": 1},
                                "content": {"file": "minidump.bin"}}},
         HEADER_FIELDS + ("minidump",), LOG_STEPS + ("minidump", "marker") + CLOSING),
    Boot("normal", {"ponLog": ["PON Trigger: KPDPWR_N", "Fault: XVDD", "PON Successful"],
                    "data": {"vendor/log/reliability/shipmode_shutdown": {"text": ""}}},
         HEADER_FIELDS, ("reason",) + CLOSING),
    Boot("fulldump", {"meta": META | {"reservedFlag": ";])W", "dumpOffset": FULLDUMP_OFFSET,
                                      "dumpSize": FULLDUMP_SIZE},
                      "fulldump": {"offset": FULLDUMP_OFFSET, "size": FULLDUMP_SIZE,
                                   "header": {"text0": "FULLDUMP", "flag": 1},
                                   "content": {"file": "fulldump.bin"}},
                      "data": {LOG_FOLDER + "fulldumplog/20240101080000-00000001-fulldump.bin":
                               {"text": "the dump of before"}}},
         HEADER_FIELDS + ("fulldump",), CLOSING + ("fulldump", "fullmarker")),
    Boot("limits", {"properties": NORMAL | {"ro.logsystem.usertype": "1"}, "reasonHeader": ABNORMAL,
                    "meta": {},  # no record: it is rebuilt from the reason header, in memory
                    "data": {LOG_FOLDER + "dumplog/history.log": {"phone": True, "size": 1048577},
                             LOG_FOLDER + "dumplog/20240101080000-00000001/last_kmsg":
                             {"random": 5, "size": "2MiB"},
                             LOG_FOLDER + "dumplog/20240301080000-00000002/last_kmsg":
                             {"random": 6, "size": "3MiB"},
                             LOG_FOLDER + "fulldumplog/old-fulldump.bin": {"text": "old"}}},
         ("node", "usertype", "board"),
         ("prune",) + LOG_STEPS + ("marker", "history", "told", "usertype", "board", "purge")),
    Boot("factory", {"properties": NORMAL | {"ro.runmode": "factory"}, "reasonHeader": ABNORMAL,
                     "factoryLibrary": "present"},
         HEADER_FIELDS, LOG_STEPS + ("marker", "factory") + CLOSING),
    Boot("corvel", {}, ("corvel",), ("corvel",), service="-h"),
)}

# Fields that a boot may write: partition, offset, size. A field is whole, old or new, at any time.
FIELDS = {
    "corvel": ("rawdump", 0, 8), "node": ("rawdump", 8, 320), "usertype": ("rawdump", 404, 8),
    "board": ("rawdump", 456, 12), "minidump": ("rawdump", MINIDUMP, 56),
    "fulldump": ("userdata", FULLDUMP_OFFSET, 56), "meta": ("bootfail_info", 1024, 56)}


@dataclass(frozen=True)
class Step:
    """A step of the flow. It begins at the first call that matches `begins` while the step before is
    one of `after` (none: any). `needs` names the steps without which it cannot be done. `evidence`
    gives what it leaves; it is done when that equals what a boot without faults leaves."""
    name: str
    begins: str = ""
    after: tuple[str, ...] = ()
    needs: tuple[str, ...] = ()
    evidence: Callable[[State], Any] = lambda state: None


def text_of(name: str) -> Callable[[State], Any]:
    return lambda state: sorted(state.collected(name))


def field_of(name: str) -> Callable[[State], Any]:
    return lambda state: state.field(*FIELDS[name])


AFTER_LOGS = ("xbl_abl", "last_xbl_abl", "last_kmsg", "tz_log", "node", "folder")
STEPS = {step.name: step for step in (
    Step("start"),
    Step("flags", r"^openat\(.*build\.prop", ("start",)),
    Step("header", r'^openat\(.*by-name/rawdump"'),
    Step("corvel", needs=("flags", "header"), evidence=field_of("corvel")),
    Step("reason", r"^pipe2\(", ("header",), ("header",),
         lambda state: LOG_FOLDER + "shipmode_shutdown" in state.files),
    Step("prune", r'^openat\(.*/dumplog", .*O_DIRECTORY', ("header", "reason"), ("header",),
         lambda state: sorted(name for name in state.files if "/20240" in name)),
    Step("folder", r"^mkdir\(", (), ("header",), lambda state: len(state.new_folders())),
    Step("xbl_abl", r"^openat\(.*/xbl_abl_tmp", (), ("folder",), text_of("xbl_abl")),
    Step("last_xbl_abl", r"^openat\(.*/last_xbl_abl_tmp", (), ("xbl_abl",), text_of("last_xbl_abl")),
    Step("node", r"^lseek\(.*by-name/rawdump>, 0, SEEK_SET", AFTER_LOGS, ("folder",),
         lambda state: state.field("rawdump", 12, 20)),
    Step("last_kmsg", r"^openat\(.*/last_kmsg_tmp", (), ("folder",), text_of("last_kmsg")),
    Step("tz_log", r"^openat\(.*/tz_log_tmp", (), ("folder",), text_of("tz_log")),
    Step("minidump", r"^lseek\(.*by-name/rawdump>, 4194304", AFTER_LOGS, ("flags", "folder"),
         lambda state: (state.field(*FIELDS["minidump"]), state.collected("rawdump.bin"))),
    Step("marker", r'^openat\(.*-\d+/DONE"', (), ("folder",), text_of("DONE")),
    Step("factory", r"^openat\(.*build\.prop", ("marker",), ("header",),
         lambda state: state.files.get("vendor/factory/events.txt")),
    Step("history", r"^openat\(.*history\.log.*O_APPEND", (), ("header",),
         lambda state: -1 if len(state.history()) > 1 << 20 else state.history().count(b"\n")),
    # What the line of the history says: it depends on more than that there is one.
    Step("told", needs=("history", "reason", "node"), evidence=lambda state: LINE_TIME.sub(b"", state.history())),
    Step("usertype", r"^openat\(.*build\.prop", ("history",), ("header",),
         field_of("usertype")),
    Step("meta", r'^openat\(.*bootfail_info"', (), ("header",), field_of("meta")),
    Step("fulldump", r'^openat\(.*by-name/userdata"', (), ("flags", "header", "meta"),
         lambda state: (state.field(*FIELDS["fulldump"]), state.fulldumps())),
    Step("fullmarker", r"^openat\(.*/fulldumplog/DONE", (), ("fulldump",),
         lambda state: LOG_FOLDER + "fulldumplog/DONE" in state.files),
    Step("purge", r'^openat\(.*/fulldumplog", .*O_DIRECTORY', ("meta",), ("header",),
         lambda state: state.fulldumps()),
    Step("board", r"^openat\(.*boardid", (), ("header",), field_of("board")),
    Step("remote", r"^lseek\(.*by-name/rawdump>, 4194304", ("board",), ("header",)),
)}


# Calls whose failure leaves their own step undone at most: those that need it are expected all the same,
# but for the words of a history line that is not there.
ALONE = re.compile(r"^(f?chmod|f?chown|unlink|rmdir|newfstatat|fstat|stat|close|pipe2?|clone3?|v?fork|wait4)\(|"
                   r"^write\(.*bootfail_info")


def affected_by(calls: list[tuple[str, str]]) -> set[str]:
    """The steps that cannot be expected when these calls (text, step) fail."""
    stopped = {step for text, step in calls if not ALONE.match(text) or step == "history"}
    return with_dependents(stopped) | {step for _, step in calls}


def steps_of(calls: list[str]) -> list[str]:
    """The step that each of a boot's calls belongs to."""
    current, begun, steps = "start", {"start"}, []
    for call in calls:
        for step in STEPS.values():
            if (step.begins and step.name not in begun and (not step.after or current in step.after)
                    and re.search(step.begins, call)):
                current = step.name
                begun.add(current)
                break
        steps.append(current)
    return steps


def with_dependents(failed: set[str]) -> set[str]:
    """The steps that cannot be expected to be done when those given failed."""
    affected = set(failed)
    while more := {step.name for step in STEPS.values()
                   if step.name not in affected and affected & set(step.needs)}:
        affected |= more
    return affected
