"""`vortadev report`: many phones, the worst first. They are read side by side, and but for the page only a row of each
is kept."""

from __future__ import annotations

import argparse
from collections import Counter, deque
from concurrent.futures import Future, ThreadPoolExecutor
from contextlib import ExitStack, contextmanager
from dataclasses import dataclass, replace
from datetime import datetime, tzinfo
import os
from pathlib import Path
import textwrap
from typing import Callable, Deque, Dict, Iterator, List, Optional, Sequence, Tuple

from . import attention, finding, gather, lines, page, terminal
from .errors import DeviceError
from .evidence import Attention, Phone, State, Totals, worst_first
from .options import local_time, number
from .terminal import complain, say

NEEDED, FAILED = 1, 2  # statuses: some phone needs attention; there is no report
HEADS = ("PHONE", "BOOTS", "UNEXPECTED", "DAYS", "LAST", "CAUSES", "DUMPS", "ATTENTION")
NUMBERS = ("BOOTS", "UNEXPECTED", "DAYS")
# What gives way, in this order, where the terminal leaves less than that to the last column.
LEAST_LEFT = 40
SHRINK = (("PHONE", 24), ("LAST", 10), ("UNEXPECTED", 5), ("CAUSES", 10), ("PHONE", 12), ("DUMPS", 8))
NARROW = 100  # columns
MOST_SENTENCES = 20
MOST_JOBS = 64
WORST_FIRST = (State.CUT, State.OPEN, State.WAITING, State.WHOLE)
BOLD, RED = "1", "31"


@dataclass
class Row:
    key: Tuple[int, int, str]
    cells: Dict[str, str]
    attentions: Tuple[Attention, ...]
    crashes: Dict[str, attention.Place]
    phone: Optional[Phone]  # kept for the page alone


def add_options(parser: argparse.ArgumentParser) -> None:
    what = "log folder pulled from a phone, a folder of such folders, a simulated device, or an image of a partition"
    parser.add_argument("paths", metavar="PATH", type=Path, nargs="+", help=what)
    parser.add_argument("--html", metavar="FILE", help="write a page for a browser; - is standard output")
    parser.add_argument("--jsonl", metavar="FILE", help="write a line a boot and a phone; - is standard output")
    what = "leave out boots before that local time, e.g. 2026-08-01 or '2026-08-01 09:30'"
    parser.add_argument("--since", metavar="WHEN", type=local_time, help=what)
    what = "the zone that the phones had, e.g. Europe/Paris: the lines have UTC as well"
    parser.add_argument("--tz", dest="zone", metavar="ZONE", type=zone, help=what)
    jobs = number(int, 1, MOST_JOBS)
    parser.add_argument("--jobs", metavar="N", type=jobs, help="phones at once; default: one a processor")


def zone(name: str) -> tzinfo:
    import zoneinfo

    try:
        return zoneinfo.ZoneInfo(name)
    except (ValueError, OSError, zoneinfo.ZoneInfoNotFoundError):
        known = zoneinfo.available_timezones()
        hint = "" if known else " (this machine has no zones: python3 -m pip install tzdata brings them)"
        raise argparse.ArgumentTypeError(
            f"expected a zone like Europe/Paris{hint}, found {name or 'nothing'}"
        ) from None


def report(arguments: argparse.Namespace) -> int:
    """what phones collected: a table, a page, lines for programs"""
    try:
        return NEEDED if make(arguments) else 0
    except DeviceError as error:
        complain(str(error))
        return FAILED


def make(arguments: argparse.Namespace) -> int:
    """Gives how many phones need attention."""
    problems: List[str] = []
    sources = finding.sources(arguments.paths, problems)
    for problem in problems:
        complain(problem)
    if not sources:
        raise DeviceError("nothing to report on was found")
    totals, rows = Totals(), []
    with ExitStack() as stack:
        write_line = stack.enter_context(writer(arguments.jsonl)) if arguments.jsonl else None
        write_page = stack.enter_context(writer(arguments.html)) if arguments.html else None
        for phone in read_all(sources, arguments.since, arguments.jobs or os.cpu_count() or 1):
            if write_line:
                write_line(lines.of_whole(phone, arguments.zone))
            totals.add(phone)
            rows.append(row_of(phone, bool(write_page)))
        totals.attention += add_shared(rows)
        rows.sort(key=lambda row: row.key)
        if write_page:
            for part in page.render([row.phone for row in rows if row.phone], totals, datetime.now()):
                write_page(part)
    if "-" not in (arguments.jsonl, arguments.html):
        say(table(rows, terminal.width()) + summary(totals, terminal.width()))
    return totals.attention


@contextmanager
def writer(path: str) -> Iterator[Callable[[str], object]]:
    if path == "-":
        yield say
        return
    try:
        with open(path, "w", encoding="utf-8", newline="\n") as file:
            yield file.write
    except BrokenPipeError:
        raise
    except OSError as error:
        raise DeviceError(f"cannot write {path}: {error.strerror}") from error


def read_all(sources: Sequence[finding.Source], since: Optional[datetime], jobs: int) -> Iterator[Phone]:
    """In their order, some ahead of the one that is wanted. Unpacking, most of the work, needs no interpreter lock."""
    progress = terminal.Progress(len(sources), "phones")
    running: Deque["Future[Phone]"] = deque()
    pool = ThreadPoolExecutor(jobs)
    try:
        for source in sources:
            running.append(pool.submit(gather.read, source, since))
            if len(running) > 4 * jobs:
                yield running.popleft().result()
                progress.step()
        while running:
            yield running.popleft().result()
            progress.step()
    finally:
        pool.shutdown(cancel_futures=True)
        progress.clear()


def add_shared(rows: List[Row]) -> int:
    """Crashes that several phones had; gives how many phones need attention for that alone."""
    more = 0
    for row, found in zip(rows, attention.shared([row.crashes for row in rows])):
        if not found:
            continue
        more += not row.attentions
        row.attentions += found
        row.key = (row.key[0] - len(found), *row.key[1:])
        row.phone = row.phone and replace(row.phone, attentions=row.attentions)
    return more


# The table


def row_of(phone: Phone, keep: bool) -> Row:
    causes = Counter(boot.cause for boot in phone.boots if boot.restart.unexpected)
    states = Counter(found.state for found in phone.collections)
    states[State.WAITING] = phone.waiting
    last = phone.last
    shown = (
        phone.name,
        str(len(phone.boots)),
        str(phone.unexpected),
        str(phone.days or "-"),
        last.when.isoformat(" ", "minutes") if last and last.when else last.time if last else "-",
        ", ".join(f"{cause} {count}" for cause, count in causes.most_common()) or "-",
        ", ".join(f"{states[state]} {state.value}" for state in WORST_FIRST if states[state]) or "-",
    )
    crashes = attention.signatures(phone)
    return Row(worst_first(phone), dict(zip(HEADS, shown)), phone.attentions, crashes, phone if keep else None)


def sentences(found: Sequence[Attention], room: int) -> str:
    """As many as there is room for, or else the words of their rules."""
    texts = [f"{one.time}: {one.text}" if one.time else one.text for one in found]
    for shown in range(min(len(texts), MOST_SENTENCES), 0, -1):
        more = [f"{len(texts) - shown} more"] if len(texts) > shown else []
        text = "; ".join(texts[:shown] + more)
        if len(text) <= room:
            return text
    words = ", ".join(dict.fromkeys(one.rule for one in found))
    return shortened(texts[0] if texts and room >= LEAST_LEFT else words, room)


def shortened(text: str, room: int) -> str:
    return text if len(text) <= room else text[: max(room - 1, 0)] + "…"


def table(rows: Sequence[Row], columns: int) -> str:
    gap = " " if columns < NARROW else "  "
    widths = {head: max(len(head), *(len(row.cells[head]) for row in rows)) for head in HEADS[:-1]}
    room = columns - sum(widths.values()) - len(gap) * len(widths)
    for head, least in SHRINK:
        less = min(max(LEAST_LEFT - room, 0), max(widths[head] - least, 0))
        widths[head] -= less
        room += less
    heads = line_of({head: head[:width] for head, width in widths.items()}, widths, gap) + HEADS[-1][:room]
    text = [terminal.coloured(heads, BOLD)]
    for row in rows:
        cells = {**row.cells, "LAST": row.cells["LAST"][: widths["LAST"]]}  # the day is what counts
        cells["PHONE"] = shortened(cells["PHONE"][::-1], widths["PHONE"])[::-1]  # of a path, its end
        needs = terminal.coloured(sentences(row.attentions, room), RED)
        text.append((line_of(cells, widths, gap) + needs).rstrip())
    return "\n".join(text) + "\n"


def line_of(cells: Dict[str, str], widths: Dict[str, int], gap: str) -> str:
    shown = ((head, shortened(cells[head], width), width) for head, width in widths.items())
    return "".join((text.rjust(width) if head in NUMBERS else text.ljust(width)) + gap for head, text, width in shown)


def summary(totals: Totals, columns: int) -> str:
    states = ", ".join(f"{count} {state.value}" for state, count in totals.states.items() if count)
    collected = many(sum(totals.states.values()), "collection") + (f": {states}" if states else "")
    waiting = f"; {many(totals.waiting, 'dump')} waiting" if totals.waiting else ""
    text = f"{many(totals.phones, 'phone')}, {many(totals.boots, 'boot')}, {totals.unexpected} unexpected; {collected}"
    text += f"{waiting}; {many(totals.attention, 'phone')} need{'s' if totals.attention == 1 else ''} attention"
    return textwrap.fill(text, columns) + "\n"


def many(count: int, what: str) -> str:
    return f"{count} {what}{'' if count == 1 else 's'}"
