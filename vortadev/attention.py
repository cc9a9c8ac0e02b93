"""What a person should look at: one rule a function, each from what is known of one phone. A cause is told once: where
one rule explains what another one would find as well, the other is silent."""

from __future__ import annotations

from bisect import bisect_right
from collections import Counter
from datetime import timedelta
from itertools import islice
from typing import Callable, Dict, Iterator, List, Sequence, Tuple

from . import phone as phones
from . import records
from .errors import size_text
from .evidence import DERIVED, FIRST_YEAR, Attention, Boot, Collection, Phone, State

Rule = Callable[[Phone], Iterator[Attention]]
Place = Tuple[str, str]  # path and time of a log

MANY, WITHIN = 3, timedelta(days=1)  # unexpected restarts
SHARED = 3  # phones with the same crash
NEAR = 0.9  # of the limit
MOST = 50  # of a rule on one phone: what comes from outside may break one without end
KERNEL_LOG = "last_kmsg"


def folders(phone: Phone) -> Iterator[Tuple[Boot, Collection]]:
    return ((boot, boot.collection) for boot in phone.boots if boot.collection)


def cut(phone: Phone) -> Iterator[Attention]:
    for boot in phone.boots:
        for found in boot.collections:
            if found.problem:
                yield Attention("cut", found.problem + (", though DONE" if found.done else ""), found.path, boot.time)


def not_closed(phone: Phone) -> Iterator[Attention]:
    for boot in phone.boots:
        for found in boot.collections:
            if found.state is not State.OPEN:
                continue
            text = "neither DONE nor a line: the run was cut off"
            if found.is_fulldump:
                text = "the full dump has no DONE: it was not copied whole"
            elif boot.category is not None:
                text = "no DONE, though it has its line"
            yield Attention("open", text, found.path, boot.time)


def unfinished(phone: Phone) -> Iterator[Attention]:
    """Working copies that should have gone."""
    for boot, found in folders(phone):
        for name, size in found.files.items():
            log = name[: -len(phones.TMP_SUFFIX)] if name.endswith(phones.TMP_SUFFIX) else ""
            if name == phones.TMP_DUMP_NAME:
                whole = size == records.MINIDUMP_REGION.size
                text = f"{name}: the minidump was {'not packed' if whole else 'not copied'}; it waits in its partition"
            elif log not in records.LOG_REGIONS:
                continue
            elif log in found.files:
                text = f"{name} was left beside {log}: trust {name}"
            else:
                text = f"{name} was left and {log} never made: strings {name} gives the text"
            yield Attention("tmp", text, f"{found.path}/{name}", boot.time)


def lacking(phone: Phone) -> Iterator[Attention]:
    for boot, found in folders(phone):
        logs = [name for name in records.LOG_REGIONS if name + phones.TMP_SUFFIX not in found.files]
        kinds = {
            "missing": [name for name in logs if name not in found.files],
            "empty": [name for name in logs if found.files.get(name) == 0],
        }
        texts = [f"{', '.join(names)} {kind}" for kind, names in kinds.items() if names]
        if found.done and texts:
            yield Attention("log", f"{' and '.join(texts)}, though DONE", found.path, boot.time)


def lost_lines(phone: Phone) -> List[Tuple[Boot, Collection]]:
    """Closed folders in front of the first line; several of them say that the history was begun anew."""
    lined = [place for place, boot in enumerate(phone.boots) if boot.category is not None]
    before = phone.boots[: lined[0]] if lined else phone.boots
    found = [(boot, boot.collection) for boot in before if boot.collection and boot.collection.done]
    return found if phone.history and len(found) > 1 else []


def history(phone: Phone) -> Iterator[Attention]:
    path = phone.history or phone.path
    if phone.damaged:
        yield Attention("history", f"{phone.damaged} bytes of the history are damaged", path)
    lost = lost_lines(phone)
    if lost:
        yield Attention("history", f"the history was begun anew or lost: {len(lost)} folders are older", path)


def no_line(phone: Phone) -> Iterator[Attention]:
    lost = {boot.time for boot, _ in lost_lines(phone)}
    for boot, found in folders(phone):
        if phone.history and boot.category is None and found.state is not State.OPEN and boot.time not in lost:
            yield Attention("no-line", "a folder without a line in the history", found.path, boot.time)


def no_folder(phone: Phone) -> Iterator[Attention]:
    for boot in phone.boots:
        if phone.dumplog and boot.category and boot.category not in DERIVED and not boot.collections:
            text = f"{boot.category} has no folder: none was made, or it was removed since"
            yield Attention("no-folder", text, phone.history or phone.path, boot.time)


def restless(phone: Phone) -> Iterator[Attention]:
    found = sorted(
        (boot.when, boot.time) for boot in phone.boots if boot.restart.unexpected and boot.when and is_set(boot)
    )
    times = [when for when, _ in found]
    at = 0
    while at < len(times):
        end = bisect_right(times, times[at] + WITHIN)
        if end - at >= MANY:
            hours = max(round((times[end - 1] - times[at]) / timedelta(hours=1)), 1)
            text = f"{end - at} unexpected restarts within {hours} h"
            yield Attention("restless", text, phone.history or phone.path, found[end - 1][1])
        at = end if end - at >= MANY else at + 1


def signatures(phone: Phone) -> Dict[str, Place]:
    """The crashes of a phone, each with the last log that tells of it."""
    shown = ((boot.kernel, boot.time, found.path) for boot, found in folders(phone))
    return {log.signature: (f"{path}/{KERNEL_LOG}", time) for log, time, path in shown if log and log.signature}


def repeated(phone: Phone) -> Iterator[Attention]:
    """A log that was collected twice is one crash: no log region is cleared."""
    logs = Counter(log.signature for log in {boot.kernel for boot in phone.boots} if log)
    for signature, place in signatures(phone).items():
        times = logs[signature]
        if times > 1:
            text = f"the same crash {'twice' if times == 2 else f'{times} times'}: {signature}"
            yield Attention("repeated", text, *place)


def clock(phone: Phone) -> Iterator[Attention]:
    """Told where it begins; folders without a line say nothing of their order."""
    before = None
    for boot in phone.boots:
        if boot.category is None or boot.when is None:
            continue
        if not is_set(boot) and (before is None or is_set(before)):
            text = f"a time before {FIRST_YEAR}: the clock was not set"
            yield Attention("clock", text, phone.history or phone.path, boot.time)
        elif is_set(boot) and before and before.when and boot.when < before.when:
            text = f"time ran backwards, from {before.when:%Y-%m-%d %H:%M}"
            yield Attention("clock", text, phone.history or phone.path, boot.time)
        before = boot


def is_set(boot: Boot) -> bool:
    """Whether the clock of the phone had been set."""
    return boot.when is not None and boot.when.year >= FIRST_YEAR


def waiting(phone: Phone) -> Iterator[Attention]:
    for image in phone.images:
        for name, text in (("minidump", "a minidump"), ("fulldump", "a full dump")):
            if image.get(name, {}).get("waiting"):
                yield Attention("waiting", f"{text} still waits in the partition", image["path"])


def full(phone: Phone) -> Iterator[Attention]:
    store = phone.storage
    if store and store.first and store.size >= NEAR * store.limit:
        if_so = "" if store.build else f", if the build is {build_of(store.limit)}"
        text = f"{size_text(store.size)} of {size_text(store.limit)} in dumplog{if_so}: {store.first} goes next"
        yield Attention("storage", text, f"{phone.dumplog}/{store.first}")


def build_of(limit: int) -> str:
    return next(build for build, most in phones.DUMPLOG_LIMITS.items() if most == limit)


def unread(phone: Phone) -> Iterator[Attention]:
    for problem in phone.problems:
        yield Attention("unread", problem.replace(f"{phone.path}/", ""), phone.path)


# What weighs most comes first: a narrow terminal has no room for more.
RULES: Tuple[Rule, ...] = (
    cut,
    not_closed,
    waiting,
    restless,
    repeated,
    unfinished,
    lacking,
    no_line,
    no_folder,
    history,
    clock,
    full,
    unread,
)


def of_phone(phone: Phone) -> Tuple[Attention, ...]:
    found: List[Attention] = []
    for rule in RULES:
        some = list(islice(rule(phone), MOST + 1))
        if len(some) > MOST:
            some[MOST:] = [Attention(some[0].rule, f"and more than {MOST} like that", phone.path)]
        found += some
    return tuple(found)


def shared(phones_signatures: Sequence[Dict[str, Place]]) -> List[Tuple[Attention, ...]]:
    """For each of many phones, by its signatures, the crashes that others have as well."""
    counts = Counter(signature for found in phones_signatures for signature in found)
    return [
        tuple(
            Attention("shared", f"on {counts[signature]} phones: {signature}", *place)
            for signature, place in found.items()
            if counts[signature] >= SHARED
        )
        for found in phones_signatures
    ]
