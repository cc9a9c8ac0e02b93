"""What a person should look at, from what is known of one phone. A cause is told once: where one rule explains what
another one would find as well, the other is silent."""

from __future__ import annotations

from bisect import bisect_right
from collections import Counter
from datetime import timedelta
from itertools import groupby, islice, takewhile
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


def folders(boots: Sequence[Boot]) -> Iterator[Tuple[Boot, Collection]]:
    return ((boot, boot.collection) for boot in boots if boot.collection)


def unfinished(phone: Phone) -> Iterator[Attention]:
    for boot in phone.boots:
        for found in boot.collections:
            if found.problem:
                yield Attention("cut", found.problem + (", though DONE" if found.done else ""), found.path, boot.time)
            if found.state is State.OPEN:
                text = "neither DONE nor a line: the run was cut off"
                if found.is_fulldump:
                    text = "the full dump has no DONE: it was not copied whole"
                elif boot.category is not None:
                    text = "no DONE, though it has its line"
                yield Attention("open", text, found.path, boot.time)


def logs(phone: Phone) -> Iterator[Attention]:
    """Those that are not there, and working copies that should have gone."""
    for boot, found in folders(phone.boots):
        lacking = []
        for name in records.LOG_REGIONS:
            copy = name + phones.TMP_SUFFIX
            if copy in found.files:
                beside = name in found.files
                text = f"beside {name}: trust {copy}" if beside else f"and {name} never made: strings {copy} gives it"
                yield Attention("tmp", f"{copy} was left {text}", f"{found.path}/{copy}", boot.time)
            elif not found.files.get(name):
                lacking.append(f"{name} {'empty' if name in found.files else 'missing'}")
        if found.done and lacking:
            yield Attention("log", f"{', '.join(lacking)}, though DONE", found.path, boot.time)
        if phones.TMP_DUMP_NAME in found.files:
            saved = {State.WHOLE: "is packed", State.WAITING: "is not packed"}.get(found.minidump, "is not whole")
            text = f"{phones.TMP_DUMP_NAME} was left: the minidump {saved}, and waits in its partition as well"
            yield Attention("tmp", text, f"{found.path}/{phones.TMP_DUMP_NAME}", boot.time)


def history(phone: Phone) -> Iterator[Attention]:
    """Several closed folders in front of the first line are told as one: it was begun anew."""
    if phone.damaged:
        yield Attention("history", f"{phone.damaged} bytes of the history are damaged", phone.history)
    if not phone.dumplog:
        return
    first = sum(1 for _ in takewhile(lambda boot: boot.category is None, phone.boots))
    older = sum(found.done for _, found in folders(phone.boots[:first]))
    if older > 1:
        text = f"the history was begun anew or lost: {older} folders are older"
        yield Attention("history", text, phone.history)
    for boot, found in folders(phone.boots[first if older > 1 else 0 :]):
        if boot.category is None and found.done:
            yield Attention("no-line", "a folder without a line in the history", found.path, boot.time)


def no_folder(phone: Phone) -> Iterator[Attention]:
    for boot in phone.boots:
        if phone.dumplog and boot.category and boot.category not in DERIVED and not boot.collections:
            text = f"{boot.category} has no folder: none was made, or it was removed since"
            yield Attention("no-folder", text, phone.history, boot.time)


def restless(phone: Phone) -> Iterator[Attention]:
    found = sorted(
        (boot.when, boot.time) for boot in phone.boots if boot.restart.unexpected and boot.when and boot.is_set
    )
    times = [when for when, _ in found]
    at = 0
    while at < len(times):
        end = bisect_right(times, times[at] + WITHIN)
        if end - at >= MANY:
            hours = max(round((times[end - 1] - times[at]) / timedelta(hours=1)), 1)
            text = f"{end - at} unexpected restarts within {hours} h"
            yield Attention("restless", text, phone.history, found[end - 1][1])
        at = end if end - at >= MANY else at + 1


def signatures(phone: Phone) -> Dict[str, Place]:
    """The crashes of a phone, each with the last log that tells of it."""
    shown = ((boot.kernel, boot.time, found.path) for boot, found in folders(phone.boots))
    return {log.signature: (f"{path}/{KERNEL_LOG}", time) for log, time, path in shown if log and log.signature}


def repeated(phone: Phone) -> Iterator[Attention]:
    """A log that was collected twice is one crash: no log region is cleared."""
    counts = Counter(log.signature for log in {boot.kernel for boot in phone.boots} if log)
    for signature, place in signatures(phone).items():
        times = counts[signature]
        if times > 1:
            text = f"the same crash {'twice' if times == 2 else f'{times} times'}: {signature}"
            yield Attention("repeated", text, *place)


def clock(phone: Phone) -> Iterator[Attention]:
    """Told where it begins; folders without a line say nothing of their order."""
    before = None
    for boot in phone.boots:
        if boot.category is None or boot.when is None:
            continue
        if not boot.is_set and (before is None or before.is_set):
            text = f"a time before {FIRST_YEAR}: the clock was not set"
            yield Attention("clock", text, phone.history, boot.time)
        elif boot.is_set and before and before.when and boot.when < before.when:
            text = f"time ran backwards, from {before.when:%Y-%m-%d %H:%M}"
            yield Attention("clock", text, phone.history, boot.time)
        before = boot


def waiting(phone: Phone) -> Iterator[Attention]:
    for image in phone.images:
        for name, text in (("minidump", "a minidump"), ("fulldump", "a full dump")):
            if image.get(name, {}).get("waiting"):
                yield Attention("waiting", f"{text} still waits in the partition", image["path"])


def full(phone: Phone) -> Iterator[Attention]:
    store = phone.storage
    if store and store.first and store.size >= NEAR * store.limit:
        limit = size_text(store.limit) + ("" if store.build else ", the likely limit,")
        text = f"{size_text(store.size)} of {limit} in dumplog: {store.first} goes next"
        yield Attention("storage", text, f"{phone.dumplog}/{store.first}")


def unread(phone: Phone) -> Iterator[Attention]:
    for problem in phone.problems:
        yield Attention("unread", problem.replace(f"{phone.path}/", ""), phone.path)


RULES: Sequence[Rule] = (unfinished, waiting, restless, repeated, logs, history, no_folder, clock, full, unread)
# What weighs most comes first, on a phone and among phones: what can still be saved, then phones that keep going down.
ORDER = "waiting restless repeated shared unread cut open tmp log storage no-line no-folder history clock".split()


def urgency(found: Sequence[Attention]) -> int:
    return min((ORDER.index(one.rule) for one in found), default=len(ORDER))


def of_phone(phone: Phone) -> Tuple[Attention, ...]:
    found = sorted((one for rule in RULES for one in rule(phone)), key=lambda one: ORDER.index(one.rule))
    told: List[Attention] = []
    for name, alike in groupby(found, key=lambda one: one.rule):
        told += islice(alike, MOST)
        told += [Attention(name, f"and more than {MOST} like that", phone.path)] if next(alike, None) else []
    return tuple(told)


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
