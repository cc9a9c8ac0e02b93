"""Phones for a page: some of everything that it tells apart, with texts that try to break out of it."""

from __future__ import annotations

from datetime import datetime, timedelta
from typing import Dict, List, Tuple

from vortadev.evidence import Attention, Boot, Collection, KernelLog, Phone, Restart, State, Storage, Totals

MADE = datetime(2026, 8, 20, 9, 0)
HOSTILE = "<script>alert(1)</script>\"'></style></pre><img src=x onerror=alert(2)>&amp;\u202e"
KERNEL = KernelLog("5.10.80", f"panic {HOSTILE}", "free", f"panic {HOSTILE} free", 4711, (HOSTILE,), (HOSTILE,) * 20)
FILES: Dict[str, int] = {"last_kmsg": 345678, HOSTILE: 2 << 20}
STATES = (State.WHOLE, State.CUT, State.OPEN)


def boot(number: int, when: datetime) -> Boot:
    restart = list(Restart)[number % len(Restart)]
    time, kept = f"{when:%Y%m%d%H%M%S}-00000001", None
    if restart is Restart.CRASH:
        state = STATES[number // len(Restart) % len(STATES)]
        kept = Collection(f"/{HOSTILE}/{time}", state, True, FILES, state, kernel=KERNEL)
    return Boot(time, restart, when, restart.name, HOSTILE if kept else "reason", kept)


def phones(count: int) -> Tuple[List[Phone], Totals]:
    """Phones with five boots each, the first one's clock at 1970 once, and their counts."""
    made, totals = [], Totals()
    for number in range(count):
        start = datetime(2026, 6, 1, 8, 30) + timedelta(hours=7 * number)
        boots = [boot(number * 2 + at * at, start + timedelta(days=9, hours=5) * at) for at in range(5)]
        boots[:1] = [Boot("19700101000012-00000001", Restart.NORMAL, datetime(1970, 1, 1))] if not number else boots[:1]
        wrong = [Attention("cut", f"cut {HOSTILE}", item.collection.path) for item in boots if item.collection]
        storage = Storage((number << 20) // 2, 5 << 20, None, boots[0].time)
        made.append(Phone(f"SN{1000 + number}" if number else HOSTILE, HOSTILE, tuple(boots), tuple(wrong), storage))
        totals.add(made[-1])
    return made, totals
