"""Makes folders as they are pulled from phones, by booting the daemon on simulated phones over simulated weeks, and an
account of what happened to each: what has to be found in them. Needs Linux."""

from __future__ import annotations

import argparse
from datetime import datetime, timedelta
from functools import partial
import json
import os
from pathlib import Path
from random import Random
import shutil
import signal
import tempfile
from typing import Any, Callable, Dict, List, Optional, Sequence

from . import content, device, phone, records, scenario
from .bubblewrap import Options
from .device import on_device
from .document import SHIPPED, read_json
from .errors import DeviceError
from .options import number
from .terminal import say

Account = Dict[str, Any]

STORIES = SHIPPED / "fleet/stories.json"  # scenarios/README.md tells how they are written
ACCOUNT_NAME = "fleet.json"
LARGEST = 200  # phones; each has crashes of its own
MEMORY = Path("/dev/shm")  # devices write synchronously, as a phone does; in memory that costs nothing
FIRST_DAY, UNSET = datetime(2026, 6, 1, 7), datetime(1970, 1, 1, 0, 0, 10)
TIME_LIMIT = 120.0  # seconds of a boot, generous
SANITIZER = {"ASAN_OPTIONS": "verify_asan_link_order=0"}  # the library that sets the clock comes first
SHARED, SHARED_CRASH = 3, 511  # phones from which on a crash is more than one phone's; the number of that crash
KEEP_IMAGE = "(somebody keeps an image)"


def add_options(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("out", metavar="OUT", type=Path, help="folder that is made; it must not be there yet")
    phones, seed, jobs = number(int, 1, LARGEST), number(int, 0, 1e9), number(int, 1, 64)
    parser.add_argument("--phones", metavar="N", type=phones, default=30, help=f"at most {LARGEST} (default 30)")
    parser.add_argument("--seed", metavar="S", type=seed, default=1, help="the same one tells the same stories")
    parser.add_argument("--jobs", metavar="N", type=jobs, default=os.cpu_count(), help="phones at the same time")
    parser.add_argument("--daemon", metavar="PROGRAM", type=Path, help="the daemon to run; default: build/host/vorta")


def fleet(arguments: argparse.Namespace) -> int:
    account = make(arguments.out, arguments.phones, arguments.seed, arguments.jobs, arguments.daemon)
    say(f"{arguments.out / ACCOUNT_NAME} tells what happened to each phone: {json.dumps(account['totals'])}\n")
    return 0


def make(out: Path, phones: int, seed: int, jobs: int, daemon: Optional[Path] = None) -> Account:
    """The folders, a phone each, and beside them the account, which it gives as well."""
    from concurrent.futures import ProcessPoolExecutor

    try:
        out.mkdir(parents=True)
    except OSError as error:
        raise DeviceError(f"cannot make the folder {out}: {error.strerror}") from error
    memory = MEMORY if os.access(MEMORY, os.W_OK) else None
    with tempfile.TemporaryDirectory(prefix="vortadev-", dir=memory) as scratch:
        work = partial(simulate, out=out.absolute(), scratch=Path(scratch), seed=seed, daemon=daemon)
        # An interrupt is this process's to answer; it waits for the phones that are being made.
        with ProcessPoolExecutor(jobs, None, signal.signal, (signal.SIGINT, signal.SIG_IGN)) as pool:
            account: Account = {"seed": seed, "phones": list(pool.map(work, range(phones)))}
    sharing = [told for told in account["phones"] if "shared" in told["attention"]]
    for told in sharing if len(sharing) < SHARED else ():
        told["attention"].remove("shared")
    account["totals"] = totals(account["phones"])
    (out / ACCOUNT_NAME).write_text(json.dumps(account, indent=2) + "\n", "ascii")
    return account


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


def simulate(index: int, out: Path, scratch: Path, seed: int, daemon: Optional[Path]) -> Account:
    """What happened to a phone."""
    stories = list(read_json(STORIES)["stories"].items())
    name, (story, attention) = f"SN{1001 + index}", stories[(index + seed) % len(stories)]
    lived = SimulatedPhone(scratch / name, index, seed, daemon)
    for step in story.split(", "):
        if step in LATER:
            LATER[step](lived)
        elif step != KEEP_IMAGE:
            lived.boot(step.split())
    lived.require_account()
    # What is pulled into a folder that is there already gets one of its own in it.
    pulled = out / name / Path(phone.RELIABILITY).name if index % 5 == 3 else out / name
    shutil.copytree(lived.on_data(phone.RELIABILITY), pulled, copy_function=shutil.copyfile)
    if KEEP_IMAGE in story:
        image = device.read_image(device.partition_path(lived.folder, records.RAWDUMP))
        device.write_image(out / name / f"{records.RAWDUMP}.img", image)
    shutil.rmtree(lived.folder)
    # What has neither a line nor a folder, nobody can find.
    boots = [boot for boot in lived.boots if boot["line"] or boot["collection"]]
    return {
        "name": name,
        "story": story,
        "attention": attention,
        "waiting": attention.count("waiting"),
        "boots": boots,
    }


class SimulatedPhone:
    """A phone that lives through a story; its boots are what the account says of it."""

    def __init__(self, folder: Path, index: int, seed: int, daemon: Optional[Path]) -> None:
        self.folder, self.number, self.daemon = folder, index, daemon
        self.told = read_json(STORIES)
        self.random = Random(seed * 1000 + index)
        self.now = FIRST_DAY + timedelta(minutes=self.random.randrange(7 * 24 * 60))
        self.boots: List[Account] = []
        self.reason: Account = {}  # as the history has to tell it
        self.kernel: Account = {}  # what the kernel log tells

    def on_data(self, path: str) -> Path:
        return on_device(self.folder, path)

    def collected(self) -> Path:
        """The folder of the latest boot."""
        return self.on_data(phone.DUMPLOG) / str(self.boots[-1]["time"])

    def boot(self, words: Sequence[str]) -> None:
        from . import check, sandbox

        name = " ".join(word for word in words if word.islower() and word != "back")
        kind: Account = self.told["kinds"][name]
        hours = next((float(word) for word in words if word[0] == "+"), self.random.uniform(30, 140))
        self.now += timedelta(hours=hours)
        when = UNSET if "1970" in words else self.now - timedelta(days=40 if "back" in words else 0)
        if kind["base"]:
            self.prepare(kind["base"], next((word for word in words if word.isupper()), ""))
        options = Options(daemon=self.daemon, date=when, timeout=TIME_LIMIT, environment=SANITIZER)
        options.data_size = self.size_with_room(kind["room"]) if "room" in kind else None
        # The first longer file ends the daemon, as a power cut at this place would.
        options.wrapper = ["prlimit", f"--fsize={kind['fileLimit']}"] if "fileLimit" in kind else []
        run = sandbox.run(self.folder, phone.RAINBOW, options, capture=True)
        found = check.RECORD_TIME.search(run.log)
        if not found:
            raise DeviceError(f"the daemon did not boot: {run.err.decode('utf-8', 'replace')}")
        boot = {"time": found[1], "simulated": name, "restart": kind["restart"], "line": True}
        boot.update(self.reason, **(self.kernel if "log" in kind else NO_LOG))
        boot.update({part: kind.get(part) for part in ("collection", "minidump", "fulldump")})
        self.boots.append({**boot, **({} if kind.get("line", True) else NO_LINE)})

    def prepare(self, base: str, letter: str) -> None:
        """A new device by the scenario, with the data of the one before."""
        patch: Account = {"base": base, "seed": self.random.getrandbits(30)}
        if letter:
            crash = SHARED_CRASH if letter == "S" else 2 * self.number + (letter == "B")
            patch["logs"] = {"last_kmsg": {"phone": self.kernel_log(crash)}}
        made = scenario.parse(patch, STORIES)
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

    def kernel_log(self, crash: int) -> List[str]:
        """Its last lines. Addresses and processes are other ones each time, the function belongs to the crash."""
        parts = [self.told[part][crash >> 3 * place & 7] for place, part in enumerate(("drivers", "deeds", "ways"))]
        self.kernel = {"crash": crash, "function": "_".join(parts), "version": f"5.10.{80 + crash % 4}-android12-9"}
        numbers = {"at": 1504, "pid": 30000, "seconds": 60, "address": 1 << 40, "trace": 1 << 64}
        values: Account = {name: self.random.randrange(limit // 4, limit) for name, limit in numbers.items()}
        values.update(self.kernel, process=f"kworker/u16:{self.random.randrange(9)}")
        return [line.format_map(values) for line in self.told["kernelLog"][crash % 2]]

    def size_with_room(self, left: int) -> int:
        """Of a /data in which so many bytes are left."""
        sizes = [path.stat().st_size for path in self.on_data("/data").rglob("*") if path.is_file()]
        return sum(-(-size // device.BLOCK) * device.BLOCK for size in sizes) + left

    def require_account(self) -> None:
        """An account of what the daemon did not do helps nobody."""
        found = {path.name for path in self.on_data(phone.DUMPLOG).iterdir() if path.is_dir()}
        entries, _ = phone.parse_history(self.on_data(phone.HISTORY).read_text("ascii"))
        lines = [(boot["time"], boot["category"]) for boot in self.boots if boot["line"]]
        folders = {boot["time"] for boot in self.boots if boot["collection"]}
        if found != folders or [(entry.time, entry.category) for entry in entries] != lines:
            raise DeviceError(f"the daemon did not do what the story tells: {self.boots}")


# What happens later, by its words in a story


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
    """The next boot begins it anew."""
    fill = content.Fill("phone", phone.HISTORY_LIMIT + 1)
    lived.on_data(phone.HISTORY).write_bytes(content.render(fill, phone.HISTORY_NAME))
    for boot in lived.boots:
        boot.update(NO_LINE)


def fill_dumplog(lived: SimulatedPhone) -> None:
    """The next crash removes the folder."""
    lived.collected().with_name("zz-other-software.bin").write_bytes(bytes(phone.DUMPLOG_LIMITS["commercial"]))
    lived.boots[-1].update(NO_FOLDER)


NO_LINE = {"line": False, "category": None, "reason": None}
NO_LOG = {"crash": None, "function": None, "version": None}
NO_FOLDER = {"collection": None, "minidump": None, **NO_LOG}
LATER: Dict[str, Callable[[SimulatedPhone], None]] = {
    "(storage loses the end of the minidump)": cut_minidump,
    "(its folder is removed)": remove_folder,
    "(the history loses its end)": tear_history,
    "(the history grows over its limit)": fill_history,
    "(other software fills dumplog)": fill_dumplog,
}
