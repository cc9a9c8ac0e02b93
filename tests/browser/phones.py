"""Phones for a page: made up, with texts that try to break out of it."""

from __future__ import annotations

from datetime import datetime, timedelta
import random
from typing import List, Tuple

from vortadev.evidence import Attention, Boot, Collection, KernelLog, Phone, Restart, State, Storage, Totals

MADE = datetime(2026, 8, 20, 9, 0)
HOSTILE = "<script>alert(1)</script>\"'><img src=x onerror=alert(2)>\u202egnp&amp;"
KINDS = {
    Restart.NORMAL: ("NORMALBOOT", "PS_HOLD", 70),
    Restart.FORCED: ("NORMALBOOT", "reboot_longkey", 8),
    Restart.HARDWARE: ("HARDWARE_FAULT", "OCP_TYPE_LDO_LSB", 6),
    Restart.CRASH: ("AP_S_PANIC", HOSTILE, 10),
    Restart.UNKNOWN: ("UNKNOWN", "unknown", 6),
}
STATES = (State.WHOLE, State.WHOLE, State.CUT, State.OPEN)
KERNEL = KernelLog(
    version="5.4.147-qgki-g6b1f2f0",
    crash_line=f"Kernel panic - not syncing: Fatal exception in {HOSTILE}",
    function="ufshcd_queuecommand",
    signature=f"Kernel panic - not syncing: Fatal exception in {HOSTILE} ufshcd_queuecommand",
    seconds=123456.7,
    excerpt=(
        f"[  123.456789] Kernel panic - not syncing: {HOSTILE}",
        "[  123.456790] CPU: 3 PID: 417 Comm: kworker/3:2",
    ),
    tail=tuple(f"[  123.4567{n:02}] a line of the kernel log {HOSTILE * (n == 3)}" for n in range(20)),
)


def collection(time: str, state: State) -> Collection:
    files = {"xbl_abl": 1234, "last_xbl_abl": 2345, "last_kmsg": 345678, "tz_log": 45678, "rawdump.bin": 2 << 20}
    return Collection(f"/pulled/dumplog/{time}", state, state is not State.OPEN, files, state)


def boot(chance: random.Random, when: datetime) -> Boot:
    restart = chance.choices(list(KINDS), [weight for _, _, weight in KINDS.values()])[0]
    category, reason, _ = KINDS[restart]
    time = f"{when:%Y%m%d%H%M%S}-{chance.randrange(10**8):08}"
    if restart is not Restart.CRASH:
        return Boot(time, restart, when, category, reason)
    return Boot(time, restart, when, category, reason, collection(time, chance.choice(STATES)), kernel=KERNEL)


def phones(count: int, boots: int = 6) -> Tuple[List[Phone], Totals]:
    """Each has some boots; the last one's clock was at 1970 once."""
    chance, made = random.Random(7), []
    for number in range(count):
        when, found = datetime(2026, 6, 1, 8, 30), []
        for _ in range(boots):
            when += timedelta(hours=chance.expovariate(1 / 240))
            found.append(boot(chance, min(when, MADE)))
        if number == count - 1:
            found.insert(
                0, Boot("19700101000012-00000001", Restart.NORMAL, datetime(1970, 1, 1), "NORMALBOOT", "PS_HOLD")
            )
        bad = [item for item in found if item.collection and item.collection.state is not State.WHOLE]
        wrong = [
            Attention("cut", f"{item.time}: rawdump.bin ends early {HOSTILE}", item.collection.path) for item in bad
        ]
        storage = Storage(chance.randrange(6 << 20), 5 << 20, "commercial", found[0].time)
        made.append(Phone(f"SN{1000 + number}", f"/pulled/SN{1000 + number}", tuple(found), tuple(wrong), storage))
    totals = Totals()
    for phone in made:
        totals.add(phone)
    return made, totals
