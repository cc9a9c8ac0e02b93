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
from typing import Callable, Deque, Dict, Iterator, List, Optional, Sequence

from . import attention, finding, gather, lines, page, terminal
from .errors import DeviceError
from .evidence import Attention, Phone, State, Totals
from .extract import new_file
from .options import checked, local_time, number
from .terminal import complain, say

NEEDED, FAILED = 1, 2  # statuses: some phone needs attention; there is no report
HEADS = ("PHONE", "BOOTS", "UNEXPECTED", "DAYS", "LAST", "CAUSES", "DUMPS", "ATTENTION")
NUMBERS = ("BOOTS", "UNEXPECTED", "DAYS")
PARTS = {"PHONE": 7, "UNEXPECTED": 14, "CAUSES": 8, "DUMPS": 8}  # of the terminal's width: one in so many at most
WIDE, DATE = 150, 10  # columns from which on LAST has the time of day as well; its columns elsewhere
LEAST_SENTENCE = 30  # columns that half a sentence is worth more in than words
MOST_SENTENCES = 20
MOST_JOBS = 64
WORST_FIRST = (State.CUT, State.OPEN, State.WAITING, State.WHOLE)
BOLD, RED = "1", "31"


@dataclass
class Row:
    phone: Phone  # without its boots, but for the page
    unexpected: int
    cells: Dict[str, str]
    crashes: Dict[str, attention.Place]


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


def zone_info(name: str) -> Optional[tzinfo]:
    import zoneinfo

    try:
        return zoneinfo.ZoneInfo(name)
    except (OSError, zoneinfo.ZoneInfoNotFoundError):
        return None


zone = checked("a zone that is known here, like Europe/Paris (the package tzdata of Python brings them)", zone_info)


def report(arguments: argparse.Namespace) -> int:
    """what phones collected: a table, a page, lines for programs"""
    try:
        return NEEDED if make(arguments) else 0
    except DeviceError as error:
        complain(str(error))
        return FAILED


def make(arguments: argparse.Namespace) -> int:
    """Gives how many phones need attention."""
    if arguments.html == arguments.jsonl == "-":
        raise DeviceError("--html and --jsonl cannot both be -: standard output takes one of them")
    problems: List[str] = []
    sources = finding.sources(arguments.paths, problems)
    for problem in problems:
        complain(problem)
    if not sources:
        raise DeviceError("nothing to report on was found")
    totals, rows = Totals(), []
    with ExitStack() as stack:
        write_line = stack.enter_context(writer(arguments.jsonl)) if arguments.jsonl else None
        write_page = stack.enter_context(writer(arguments.html, whole=True)) if arguments.html else None
        read = read_all(sources, arguments.since, arguments.jobs or os.cpu_count() or 1)
        for phone in terminal.progress(read, len(sources), "phones"):
            if write_line:
                write_line(lines.of_whole(phone, arguments.zone))
            totals.add(phone)
            rows.append(row_of(phone, bool(write_page)))
        add_shared(rows, totals)
        rows.sort(key=lambda row: (attention.urgency(row.phone.attentions), -row.unexpected, row.phone.name))
        if write_page:
            for part in page.render([row.phone for row in rows], totals, datetime.now()):
                write_page(part)
    if "-" not in (arguments.jsonl, arguments.html):
        say(table(rows, terminal.width()) + summary(totals, terminal.width()))
    return totals.attention


@contextmanager
def writer(path: str, whole: bool = False) -> Iterator[Callable[[str], object]]:
    """What is to be `whole` takes the place of an earlier file when it is."""
    if path == "-":
        yield say
    elif whole and (os.path.isfile(path) or not os.path.lexists(path)):
        with new_file(Path(path)) as target:
            yield lambda text: target.write(text.encode("utf-8"))
    else:
        try:
            with open(path, "w", encoding="utf-8", newline="\n") as file:
                yield file.write
        except BrokenPipeError:
            raise
        except OSError as error:
            raise DeviceError(f"cannot write {path}: {error.strerror}") from error


def read_all(sources: Sequence[finding.Source], since: Optional[datetime], jobs: int) -> Iterator[Phone]:
    """In their order, some ahead of the one that is wanted. Unpacking, most of the work, needs no interpreter lock."""
    running: Deque["Future[Phone]"] = deque()
    pool = ThreadPoolExecutor(jobs)
    try:
        for source in sources:
            running.append(pool.submit(gather.read, source, since))
            if len(running) > 4 * jobs:
                yield running.popleft().result()
        while running:
            yield running.popleft().result()
    finally:
        pool.shutdown(cancel_futures=True)


def add_shared(rows: List[Row], totals: Totals) -> None:
    """Crashes that several phones had."""
    for row, found in zip(rows, attention.shared([row.crashes for row in rows])):
        totals.attention += bool(found and not row.phone.attentions)
        row.phone = replace(row.phone, attentions=(*row.phone.attentions, *found))


# The table


def row_of(phone: Phone, keep: bool) -> Row:
    causes = Counter(boot.cause for boot in phone.boots if boot.restart.unexpected)
    states = Counter(found.state for found in phone.collections)
    states[State.WAITING] = phone.waiting
    last = phone.boots[-1] if phone.boots else None
    shown = (
        phone.name,
        str(len(phone.boots)),
        str(phone.unexpected),
        str(phone.days or "-"),
        last.when.isoformat(" ", "minutes") if last and last.when else last.time if last else "-",
        ", ".join(f"{cause} {count}" for cause, count in causes.most_common()) or "-",
        ", ".join(f"{states[state]} {state.value}" for state in WORST_FIRST if states[state]) or "-",
    )
    kept = phone if keep else replace(phone, boots=(), images=())
    return Row(kept, phone.unexpected, dict(zip(HEADS, shown)), attention.signatures(phone))


def sentences(found: Sequence[Attention], room: int) -> str:
    """As many as there is room for, or else the words of their rules."""
    texts = [f"{one.time}: {one.text}" if one.time else one.text for one in found]
    for shown in range(min(len(texts), MOST_SENTENCES), 0, -1):
        more = [f"{len(texts) - shown} more"] if len(texts) > shown else []
        text = "; ".join(texts[:shown] + more)
        if len(text) <= room:
            return text
    words = ", ".join(dict.fromkeys(one.rule for one in found))
    return fitted(HEADS[-1], texts[0] if texts and room >= LEAST_SENTENCE else words, room).rstrip()


def table(rows: Sequence[Row], columns: int) -> str:
    gap = "  " if columns >= WIDE else " "
    widths = {head: max(len(head), *(len(row.cells[head]) for row in rows)) for head in HEADS[:-1]}
    widths.update({head: min(widths[head], columns // part) for head, part in PARTS.items()})
    widths["LAST"] = widths["LAST"] if columns >= WIDE else min(widths["LAST"], DATE)
    room = max(columns - sum(widths.values()) - len(gap) * len(widths), 1)
    heads = "".join(fitted(head, head, width) + gap for head, width in widths.items()) + HEADS[-1][:room]
    text = [terminal.coloured(heads, BOLD)]
    for row in rows:
        line = "".join(fitted(head, row.cells[head], width) + gap for head, width in widths.items())
        text.append((line + terminal.coloured(sentences(row.phone.attentions, room), RED)).rstrip())
    return "\n".join(text) + "\n"


def fitted(head: str, text: str, width: int) -> str:
    if len(text) > width and head == "PHONE":
        text = "…" + text[len(text) - width + 1 :]  # of a path, the end
    elif len(text) > width:
        text = text[:width] if head == "LAST" else text[: width - 1] + "…"
    return text.rjust(width) if head in NUMBERS else text.ljust(width)


def summary(totals: Totals, columns: int) -> str:
    states = ", ".join(f"{count} {state.value}" for state, count in totals.states.items() if count)
    collected = many(sum(totals.states.values()), "collection") + (f": {states}" if states else "")
    waiting = f"; {many(totals.waiting, 'dump')} waiting" if totals.waiting else ""
    text = f"{many(totals.phones, 'phone')}, {many(totals.boots, 'boot')}, {totals.unexpected} unexpected; {collected}"
    text += f"{waiting}; {many(totals.attention, 'phone')} need{'s' if totals.attention == 1 else ''} attention"
    return textwrap.fill(text, columns) + "\n"


def many(count: int, what: str) -> str:
    return f"{count} {what}{'' if count == 1 else 's'}"
