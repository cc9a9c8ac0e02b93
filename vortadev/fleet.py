"""Makes folders as they are pulled from phones, by booting the daemon on simulated phones over simulated weeks, and an
account of what happened to each: what has to be found in them. Needs Linux."""

from __future__ import annotations

from dataclasses import dataclass, field, replace
from datetime import datetime, timedelta
from functools import partial
import json
from multiprocessing import Pool
import os
from pathlib import Path
from random import Random
import shutil
import tempfile
from typing import Any, Callable, Dict, List, Optional, Tuple

from . import content, device, phone, records, sandbox, scenario
from .check import RECORD_TIME
from .device import on_device
from .errors import DeviceError

Account = Dict[str, Any]

ACCOUNT_NAME = "fleet.json"
LARGEST = 200  # phones; each has crashes of its own
MEMORY = Path("/dev/shm")  # devices write synchronously, as a phone does; in memory that costs nothing
FIRST_DAY = datetime(2026, 6, 1, 7)
TIME_LIMIT = 120.0  # seconds of a boot, generous
SHARED = 3  # phones from which on a crash is more than one phone's

SMALL_DUMP = {"content": {"phone": True, "size": "128KiB"}}
PANIC: Account = {"logs": {"xbl_abl": None, "last_xbl_abl": None, "tz_log": None}, "minidump": SMALL_DUMP}
SOLD: Account = {**PANIC, "fulldump": None, "meta": {"reservedFlag": None}}
RESERVED = {"userType": "3", "reservedFlag": ";])W", "dumpOffset": 16777216, "dumpSize": 5000000}
FULL = {"offset": "16MiB", "size": 5000000, "header": {"text0": "FULLDUMP", "flag": 1}, "content": {"phone": True}}


@dataclass(frozen=True)
class Kind:
    """A way for a boot to go, and what it leaves."""

    restart: str  # why the phone had gone down
    scenario: str = ""  # none: the partitions are as the boot before left them
    patch: Account = field(default_factory=dict)
    folder: Optional[str] = None  # how whole it is
    minidump: str = "absent"
    fulldump: Optional[str] = None
    line: bool = True
    file_limit: int = 0  # bytes; the first longer file ends the daemon, as a power cut at this place would
    room: int = 0  # bytes that are left in /data


KINDS = {
    "normal": Kind("normal", "normal-restart"),
    "shipped": Kind("normal", "ship-mode"),
    "long key": Kind("forced", "long-key-reset"),
    "over-current": Kind("hardware fault", "over-current"),
    "low voltage": Kind("hardware fault", "pmic-xvlo"),
    "watchdog": Kind("hardware fault", "pmic-watchdog"),
    "boot loader": Kind("unknown", "boot-loader-dump"),
    "panic": Kind("crash", "kernel-panic", PANIC, "whole", "whole"),
    "sold panic": Kind("crash", "commercial-build", SOLD, "whole"),
    "full dump": Kind(
        "crash", "kernel-panic", {**PANIC, "fulldump": FULL, "meta": RESERVED}, "whole", "whole", "whole"
    ),
    # There is room for the minidump, not for the packed one beside it.
    "full disk": Kind(
        "crash",
        "kernel-panic",
        {**PANIC, "minidump": {"content": {"phone": True, "size": "2MiB"}}},
        "cut",
        "cut",
        room=records.MINIDUMP_REGION.size + (300 << 10),
    ),
    "cut in logs": Kind("crash", "kernel-panic", PANIC, "open", line=False, file_limit=100 << 10),
    "boot after it": Kind("crash", "", {}, "whole", "whole"),
    "cut in minidump": Kind("crash", "kernel-panic", PANIC, "open", "waiting", line=False, file_limit=20 << 20),
}

# What happens to a phone, and what of it needs attention. A boot: its kind; maybe a letter, as the same letter is the
# same crash ("S" on all phones); maybe "+" and the hours since the boot before, which else was days ago; maybe a wrong
# clock. What is none, in brackets, happens to the phone's data later or ends in the pulled folder.
STORIES: Tuple[Tuple[str, Tuple[str, ...]], ...] = (
    ("normal, panic A, normal, panic A, long key, normal", ("repeated",)),
    ("normal, panic A, (storage loses the end of the minidump), normal, shipped", ("cut",)),
    ("normal, cut in logs A, boot after it +0.1, normal", ("open", "tmp")),
    ("normal, normal, panic S, normal", ("shared",)),
    ("normal, sold panic A, normal, sold panic B, (an image of rawdump)", ("waiting",)),
    ("normal, long key, shipped, over-current, normal, normal", ()),
    ("normal, panic A, boot loader, normal, panic B, normal", ()),
    ("normal, watchdog, low voltage +9, boot loader +9, normal", ("restless",)),
    ("normal, full disk A, normal, normal", ("cut",)),
    ("normal, cut in minidump A, (an image of rawdump)", ("open", "tmp", "waiting")),
    ("full dump A, normal, normal, long key", ()),
    ("normal, normal 1970, normal, normal", ("clock",)),
    ("normal, normal, normal back, normal", ("clock",)),
    ("normal, panic A, (its folder is removed), normal", ("no-folder",)),
    ("normal, normal, (the history loses its end), normal, normal", ("history",)),
    ("panic A, panic B, (the history grows over its limit), normal, normal", ("history",)),
    ("normal, sold panic A, (other software fills dumplog), normal", ("storage",)),
)
DRIVERS = ("wlan_hdd", "ufs_qcom", "dwc3_gadget", "kgsl_pwr", "qcom_smd", "fg_gauge", "cam_req", "ion_heap")
DEEDS = ("process_rx", "scale_clk", "queue_ep", "handle_irq", "run_timeout", "read_temp", "flush_sched", "alloc_page")
WAYS = ("now", "locked", "async", "retry", "nested", "isr", "work", "atomic")


def kernel_log(crash: int, random: Random) -> Tuple[Account, List[str]]:
    """What the account says of a crash, by its number, and what the kernel says of it at the end of its log. Addresses
    and processes are other ones each time."""
    version = f"5.10.{80 + crash % 4}-android12-9"
    function = f"{DRIVERS[crash % 8]}_{DEEDS[crash // 8 % 8]}_{WAYS[crash // 64 % 8]}"
    process, pid = f"kworker/u16:{random.randrange(9)}", random.randrange(200, 30000)
    address = random.getrandbits(40)
    if crash % 3:
        start = [f"Unable to handle kernel paging request at virtual address ffffff80{address:010x}"]
        start += [f"Internal error: Oops: 96000005 [#{1 + crash % 2}] PREEMPT SMP"]
    else:
        start = [f"watchdog: BUG: soft lockup - CPU#4 stuck for {random.randrange(20, 60)}s! [{process}:{pid}]"]
    frames = [(function, 0x5F0), ("process_one_work", 0x5AC), ("worker_thread", 0x4E0), ("kthread", 0x1A4)]
    return {"crash": crash, "function": function, "version": version}, [
        *start,
        f"CPU: 4 PID: {pid} Comm: {process} Tainted: G S      W  O      {version} #1",
        f"pc : {function}+0x{random.randrange(0x100, 0x5F0):x}/0x5f0",
        "Call trace:",
        *(f" {name}+0x{random.randrange(0x10, size):x}/0x{size:x}" for name, size in frames),
        "Code: f9400268 b4000068 f9400508 d63f0100 (b9401268)",
        f"---[ end trace {random.getrandbits(64):016x} ]---",
        "Kernel panic - not syncing: " + ("Oops: Fatal exception" if crash % 3 else "softlockup: hung tasks"),
    ]


class SimulatedPhone:
    """A phone that lives through a story; its boots are what the account says of it."""

    def __init__(self, folder: Path, number: int, seed: int, daemon: Optional[Path]) -> None:
        self.folder, self.number, self.daemon = folder, number, daemon
        self.random = Random(seed * 1000 + number)
        self.now = FIRST_DAY + timedelta(minutes=self.random.randrange(7 * 24 * 60))
        self.boots: List[Account] = []
        self.later: List[str] = []  # what happened to its data
        self.expected = ("", "")  # category and reason of the latest scenario
        self.crash: Account = {}  # the one that the logs tell of
        self.has_image = False

    @property
    def collected(self) -> Path:
        """The folder of the latest boot."""
        return on_device(self.folder, phone.DUMPLOG) / str(self.boots[-1]["time"])

    def live(self, story: str) -> None:
        for step in story.split(", "):
            if step.startswith("("):
                self.later.append(step[1:-1])
                LATER[step[1:-1]](self)
            else:
                self.boot(step)

    def boot(self, step: str) -> None:
        words = step.split()
        name = " ".join(word for word in words if word.islower() and word != "back")
        kind, letter = KINDS[name], next((word for word in words if word.isupper()), "")
        hours = next((float(word) for word in words if word[0] == "+"), self.random.uniform(30, 140))
        self.now += timedelta(hours=hours)
        when = self.now - timedelta(days=40 if "back" in words else 0)
        when = datetime(1970, 1, 1, 0, 0, 10) if "1970" in words else when
        if kind.scenario:
            self.prepare(kind, letter)
        run = sandbox.run(self.folder, phone.RAINBOW, self.options(kind, when), capture=True)
        found = RECORD_TIME.search(run.log)
        self.boots.append(self.told(name, kind, found[1] if found else ""))
        history = on_device(self.folder, phone.HISTORY)
        line = history.exists() and self.boots[-1]["time"] in history.read_text("ascii")
        if not found or run.timed_out or (line, self.collected.is_dir()) != (kind.line, kind.folder is not None):
            raise DeviceError(f"the daemon did not do what belongs to: {step}; its log is {self.folder}/logcat.txt")

    def told(self, name: str, kind: Kind, time: str) -> Account:
        category, reason = self.expected if kind.line else (None, None)
        what: Account = {"time": time, "simulated": name, "restart": kind.restart, "line": kind.line}
        what.update(category=category, reason=reason, collection=kind.folder, minidump=kind.minidump)
        has_log = kind.folder and not 0 < kind.file_limit < records.LOG_REGIONS["last_kmsg"].size
        return {**what, "fulldump": kind.fulldump, "kernel": self.crash if has_log else None}

    def prepare(self, kind: Kind, letter: str) -> None:
        """A new device by the scenario, with the data of the one before."""
        patch: Account = {"base": kind.scenario, **kind.patch, "seed": self.random.getrandbits(30)}
        if kind.folder:
            crash = 511 if letter == "S" else 2 * self.number + (letter == "B")
            self.crash, lines = kernel_log(crash, self.random)
            patch["logs"] = {**patch["logs"], "last_kmsg": {"phone": lines, "full": None}}
        made = scenario.parse(patch, Path(ACCOUNT_NAME))
        history = made.expect.history
        self.expected = (history.category, history.reason) if history else ("", "")
        data, kept = self.folder / "data", self.folder.with_suffix(".data")
        if data.exists():
            data.rename(kept)
        device.create(self.folder, made, force=True)
        if kept.exists():
            shutil.copytree(data, kept, dirs_exist_ok=True)  # a marker of ship mode
            shutil.rmtree(data)
            kept.rename(data)

    def options(self, kind: Kind, when: datetime) -> sandbox.Options:
        options = sandbox.Options(daemon=self.daemon, date=when, timeout=TIME_LIMIT)
        if kind.room:
            files = (path.lstat().st_size for path in (self.folder / "data").rglob("*") if path.is_file())
            options.data_size = sum(-(-size // device.BLOCK) * device.BLOCK for size in files) + kind.room
        return replace(options, wrapper=["prlimit", f"--fsize={kind.file_limit}"] if kind.file_limit else [])

    def pull(self, out: Path, deeper: bool) -> None:
        """As a person does: what is pulled may get a folder of its own, and an image stands beside it."""
        name = Path(phone.RELIABILITY).name
        pulled = out / name if deeper or self.has_image else out
        shutil.copytree(on_device(self.folder, phone.RELIABILITY), pulled, copy_function=shutil.copyfile)
        if self.has_image:
            image = device.read_image(device.partition_path(self.folder, records.RAWDUMP))
            device.write_image(out / f"{records.RAWDUMP}.img", image)


# What happens later


def cut_minidump(lived: SimulatedPhone) -> None:
    dump = lived.collected / phone.RAWDUMP_NAME
    os.truncate(dump, dump.stat().st_size * 3 // 5)
    lived.boots[-1].update(collection="cut", minidump="cut")


def remove_folder(lived: SimulatedPhone) -> None:
    shutil.rmtree(lived.collected)
    lived.boots[-1].update(collection=None, minidump="absent", kernel=None)


def tear_history(lived: SimulatedPhone) -> None:
    history = on_device(lived.folder, phone.HISTORY)
    os.truncate(history, history.stat().st_size - 30)
    lived.boots[-1].update(line=False, category=None, reason=None)


def fill_history(lived: SimulatedPhone) -> None:
    """The next line begins it anew."""
    fill = content.Fill("phone", phone.HISTORY_LIMIT + 1, 1)
    on_device(lived.folder, phone.HISTORY).write_bytes(content.render(fill, phone.HISTORY_NAME))
    for boot in lived.boots:
        boot.update(line=False, category=None, reason=None)


def fill_dumplog(lived: SimulatedPhone) -> None:
    with (on_device(lived.folder, phone.DUMPLOG) / "zz-other-software.bin").open("wb") as file:
        file.truncate(phone.DUMPLOG_LIMITS["commercial"] * 19 // 20)


def keep_image(lived: SimulatedPhone) -> None:
    lived.has_image = True


LATER: Dict[str, Callable[[SimulatedPhone], None]] = {
    "storage loses the end of the minidump": cut_minidump,
    "its folder is removed": remove_folder,
    "the history loses its end": tear_history,
    "the history grows over its limit": fill_history,
    "other software fills dumplog": fill_dumplog,
    "an image of rawdump": keep_image,
}


# Many of them


def simulate(number: int, out: Path, scratch: Path, seed: int, daemon: Optional[Path]) -> Account:
    name, (story, attention) = f"SN{1001 + number}", STORIES[(number + seed) % len(STORIES)]
    lived = SimulatedPhone(scratch / name, number, seed, daemon)
    lived.live(story)
    lived.pull(out / name, deeper=number % 5 == 3)
    shutil.rmtree(lived.folder)
    # What has neither a line nor a folder, nobody can find.
    boots = [boot for boot in lived.boots if boot["line"] or boot["collection"]]
    told = {"name": name, "story": story, "afterwards": lived.later, "attention": list(attention), "boots": boots}
    return {**told, "waiting": int("waiting" in attention)}


def make(out: Path, phones: int, seed: int, jobs: int, daemon: Optional[Path] = None) -> Account:
    """The folders, a phone each, and beside them the account, which it gives as well."""
    try:
        out.mkdir(parents=True)
    except OSError as error:
        raise DeviceError(f"cannot make the folder {out}: {error.strerror}") from error
    memory = MEMORY if os.access(MEMORY, os.W_OK) else None
    with tempfile.TemporaryDirectory(prefix="vortadev-", dir=memory) as scratch, Pool(jobs) as pool:
        work = partial(simulate, out=out.absolute(), scratch=Path(scratch), seed=seed, daemon=daemon)
        account: Account = {"seed": seed, "phones": pool.map(work, range(phones), chunksize=1)}
    share(account["phones"])
    account["totals"] = totals(account["phones"])
    (out / ACCOUNT_NAME).write_text(json.dumps(account, indent=2) + "\n", "ascii")
    return account


def share(phones: List[Account]) -> None:
    """A crash of a few phones needs no attention."""
    sharing = [told for told in phones if "shared" in told["attention"]]
    for told in sharing if len(sharing) < SHARED else ():
        told["attention"].remove("shared")


def totals(phones: List[Account]) -> Account:
    boots = [boot for told in phones for boot in told["boots"]]
    states = [state for boot in boots for state in (boot["collection"], boot["fulldump"]) if state]
    return {
        "phones": len(phones),
        "boots": len(boots),
        "unexpected": sum(boot["restart"] not in ("normal", "forced") for boot in boots),
        "attention": sum(bool(told["attention"]) for told in phones),
        "waiting": sum(told["waiting"] for told in phones),
        "collections": {state: states.count(state) for state in ("whole", "cut", "open")},
    }
