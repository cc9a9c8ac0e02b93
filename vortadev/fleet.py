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
from typing import Any, Callable, Dict, List, Optional, Sequence, Tuple

from . import content, device, phone, records, scenario
from .bubblewrap import Options
from .device import on_device
from .errors import DeviceError

Account = Dict[str, Any]

ACCOUNT_NAME = "fleet.json"
LARGEST = 200  # phones; each has crashes of its own
MEMORY = Path("/dev/shm")  # devices write synchronously, as a phone does; in memory that costs nothing
FIRST_DAY = datetime(2026, 6, 1, 7)
TIME_LIMIT = 120.0  # seconds of a boot, generous
SHARED = 3  # phones from which on a crash is more than one phone's
SHARED_CRASH = 511  # its number

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
    has_kernel_log: bool = False
    file_limit: int = 0  # bytes; the first longer file ends the daemon, as a power cut at this place would
    room: int = 0  # bytes that are left in /data


CRASH = Kind("crash", "kernel-panic", PANIC, "whole", "whole", has_kernel_log=True)
CUT = replace(CRASH, folder="open", line=False)
KINDS = {
    "normal": Kind("normal", "normal-restart"),
    "shipped": Kind("normal", "ship-mode"),
    "late minidump": Kind("normal", "remote-debug-minidump", {"minidump": SMALL_DUMP}, "whole", "whole"),
    "long key": Kind("forced", "long-key-reset"),
    "over-current": Kind("hardware fault", "over-current"),
    "low voltage": Kind("hardware fault", "pmic-xvlo"),
    "watchdog": Kind("hardware fault", "pmic-watchdog"),
    "boot loader": Kind("unknown", "boot-loader-dump"),
    "panic": CRASH,
    "panic without tz_log": replace(CRASH, patch={**PANIC, "logs": {**PANIC["logs"], "tz_log": "zeros"}}),
    "sold panic": replace(CRASH, scenario="commercial-build", patch=SOLD, minidump="absent"),
    "full dump": replace(CRASH, patch={**PANIC, "fulldump": FULL, "meta": RESERVED}, fulldump="whole"),
    # There is room for the minidump, not for the packed one beside it.
    "full disk": replace(
        CRASH,
        patch={**PANIC, "minidump": {"content": {"phone": True, "size": "2MiB"}}},
        folder="cut",
        minidump="cut",
        room=records.MINIDUMP_REGION.size + (300 << 10),
    ),
    "cut in logs": replace(CUT, minidump="absent", has_kernel_log=False, file_limit=100 << 10),
    "boot after it": replace(CRASH, scenario=""),
    "cut in minidump": replace(CUT, minidump="cut", file_limit=20 << 20),
}

# What happens to a phone, and what of it needs attention. A boot: its kind; maybe a letter, as the same letter is the
# same crash ("S" on all phones); maybe "+" and the hours since the boot before, which else was days ago; maybe a wrong
# clock. What stands in brackets happens to the phone's data later.
STORIES: Tuple[Tuple[str, Tuple[str, ...]], ...] = (
    ("normal, panic A, normal, panic A, long key, normal", ("repeated",)),
    ("normal, panic S, (storage loses the end of the minidump), normal, shipped", ("cut", "shared")),
    ("normal, cut in logs A, boot after it +0.1, normal", ("open", "tmp")),
    ("normal, normal, panic S, normal, normal", ("shared",)),
    ("normal, sold panic A, normal, sold panic B, (somebody keeps an image)", ("waiting",)),
    ("normal, long key, long key +2, long key +2, shipped, over-current, normal", ()),
    ("normal, panic A, boot loader +9, normal, panic B, normal", ()),
    ("normal, watchdog, low voltage +9, boot loader +9, normal", ("restless",)),
    ("normal, full disk S, normal, normal", ("cut", "shared")),
    ("normal, cut in minidump A, (somebody keeps an image)", ("open", "tmp", "waiting")),
    ("full dump A, normal, normal, long key, (somebody keeps an image)", ()),
    ("normal, normal 1970, normal, normal", ("clock",)),
    ("normal, normal, normal back, normal", ("clock",)),
    ("normal, panic A, (its folder is removed), normal", ("no-folder",)),
    ("normal, normal, (the history loses its end), normal, normal", ("history",)),
    ("panic A, panic B, (the history grows over its limit), normal, normal", ("history",)),
    ("sold panic A, (other software fills dumplog), sold panic B, normal", ("no-folder", "storage")),
    ("normal, panic without tz_log A, normal, over-current", ("log",)),
    ("normal, late minidump, normal, normal, normal", ()),
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
        self.has_image = False
        self.reason: Account = {}  # as the history has to tell it
        self.kernel: Optional[Account] = None  # what the kernel log tells

    def on_data(self, path: str) -> Path:
        return on_device(self.folder, path)

    def collected(self) -> Path:
        """The folder of the latest boot."""
        return self.on_data(phone.DUMPLOG) / str(self.boots[-1]["time"])

    def live(self, story: str) -> None:
        for step in story.split(", "):
            if step.startswith("("):
                LATER[step](self)
            else:
                self.boot(step.split())

    def boot(self, words: Sequence[str]) -> None:
        from . import check, sandbox

        name = " ".join(word for word in words if word.islower() and word != "back" or word == "tz_log")
        kind, letter = KINDS[name], next((word for word in words if word.isupper()), "")
        self.now += timedelta(
            hours=next((float(word) for word in words if word[0] == "+"), self.random.uniform(30, 140))
        )
        when = datetime(1970, 1, 1, 0, 0, 10) if "1970" in words else self.now - timedelta(days=40 * ("back" in words))
        if kind.scenario:
            self.prepare(kind, letter)
        options = Options(daemon=self.daemon, date=when, timeout=TIME_LIMIT, data_size=self.room(kind.room))
        options.wrapper = ["prlimit", f"--fsize={kind.file_limit}"] if kind.file_limit else []
        found = check.RECORD_TIME.search(sandbox.run(self.folder, phone.RAINBOW, options, capture=True).log)
        told = {"time": found[1] if found else "", "simulated": name, "restart": kind.restart, "line": kind.line}
        told.update(self.reason if kind.line else dict.fromkeys(self.reason))
        told.update(collection=kind.folder, minidump=kind.minidump, fulldump=kind.fulldump)
        self.boots.append({**told, "kernel": self.kernel if kind.has_kernel_log else None})

    def prepare(self, kind: Kind, letter: str) -> None:
        """A new device by the scenario, with the data of the one before."""
        patch: Account = {"base": kind.scenario, **kind.patch, "seed": self.random.getrandbits(30)}
        if letter:
            crash = SHARED_CRASH if letter == "S" else 2 * self.number + (letter == "B")
            self.kernel, lines = kernel_log(crash, self.random)
            patch["logs"] = {**patch["logs"], "last_kmsg": {"phone": lines, "full": None}}
        made = scenario.parse(patch, Path(ACCOUNT_NAME))
        if made.expect.history:
            self.reason = {"category": made.expect.history.category, "reason": made.expect.history.reason}
        data, kept = self.folder / "data", self.folder.with_suffix(".data")
        if data.exists():
            data.rename(kept)
        device.create(self.folder, made, force=True)
        if kept.exists():
            shutil.copytree(data, kept, dirs_exist_ok=True)  # a marker of ship mode
            shutil.rmtree(data)
            kept.rename(data)

    def room(self, left: int) -> Optional[int]:
        """The size of a /data in which so much is left."""
        sizes = [path.stat().st_size for path in self.on_data("/data").rglob("*") if path.is_file()]
        return sum(-(-size // device.BLOCK) * device.BLOCK for size in sizes) + left if left else None

    def pull(self, out: Path, deeper: bool) -> None:
        """As a person does: what is pulled may get a folder of its own, and an image stands beside it."""
        pulled = out / Path(phone.RELIABILITY).name if deeper or self.has_image else out
        shutil.copytree(self.on_data(phone.RELIABILITY), pulled, copy_function=shutil.copyfile)
        if self.has_image:
            image = device.read_image(device.partition_path(self.folder, records.RAWDUMP))
            device.write_image(out / f"{records.RAWDUMP}.img", image)

    def require_account(self) -> None:
        """An account of what the daemon did not do helps nobody."""
        found = {path.name for path in self.on_data(phone.DUMPLOG).iterdir() if path.is_dir()}
        lines, damaged = phone.parse_history(self.on_data(phone.HISTORY).read_text("ascii"))
        told = [boot["time"] for boot in self.boots if boot["line"]]
        if found != {boot["time"] for boot in self.boots if boot["collection"]} or [one.time for one in lines] != told:
            raise DeviceError(f"the daemon did not do what the story tells: {self.boots}, {damaged} bytes damaged")


# What happens later


def cut_minidump(lived: SimulatedPhone) -> None:
    dump = lived.collected() / phone.RAWDUMP_NAME
    os.truncate(dump, dump.stat().st_size * 3 // 5)
    lived.boots[-1].update(collection="cut", minidump="cut")


def remove_folder(lived: SimulatedPhone) -> None:
    shutil.rmtree(lived.collected())
    lived.boots[-1].update(NO_FOLDER)


def tear_history(lived: SimulatedPhone) -> None:
    os.truncate(lived.on_data(phone.HISTORY), lived.on_data(phone.HISTORY).stat().st_size - 30)
    lived.boots[-1].update(NO_LINE)


def fill_history(lived: SimulatedPhone) -> None:
    """The next line begins it anew."""
    fill = content.Fill("phone", phone.HISTORY_LIMIT + 1, 1)
    lived.on_data(phone.HISTORY).write_bytes(content.render(fill, phone.HISTORY_NAME))
    for boot in lived.boots:
        boot.update(NO_LINE)


def fill_dumplog(lived: SimulatedPhone) -> None:
    """The next crash removes the folder."""
    lived.collected().with_name("zz-other-software.bin").write_bytes(bytes(phone.DUMPLOG_LIMITS["commercial"]))
    lived.boots[-1].update(NO_FOLDER)


def keep_image(lived: SimulatedPhone) -> None:
    lived.has_image = True


NO_LINE = {"line": False, "category": None, "reason": None}
NO_FOLDER = {"collection": None, "minidump": "absent", "kernel": None}
LATER: Dict[str, Callable[[SimulatedPhone], None]] = {
    "(storage loses the end of the minidump)": cut_minidump,
    "(its folder is removed)": remove_folder,
    "(the history loses its end)": tear_history,
    "(the history grows over its limit)": fill_history,
    "(other software fills dumplog)": fill_dumplog,
    "(somebody keeps an image)": keep_image,
}


# Many of them


def simulate(number: int, out: Path, scratch: Path, seed: int, daemon: Optional[Path]) -> Account:
    name, (story, attention) = f"SN{1001 + number}", STORIES[(number + seed) % len(STORIES)]
    lived = SimulatedPhone(scratch / name, number, seed, daemon)
    lived.live(story)
    lived.require_account()
    lived.pull(out / name, deeper=number % 5 == 3)
    shutil.rmtree(lived.folder)
    # What has neither a line nor a folder, nobody can find.
    boots = [boot for boot in lived.boots if boot["line"] or boot["collection"]]
    waiting = int("waiting" in attention)
    return {"name": name, "story": story, "attention": list(attention), "waiting": waiting, "boots": boots}


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
