"""The report as one HTML document that needs nothing but itself. Texts of phones go through `said`, or through `escape`
where no element may stand."""

from __future__ import annotations

from bisect import bisect
from collections import defaultdict
from dataclasses import dataclass
from datetime import date, datetime, timedelta
from html import escape
from itertools import groupby
from pathlib import Path
from statistics import median
from typing import Any, Callable, Dict, Iterable, Iterator, List, Optional, Sequence, Tuple, Union

from . import charts, show
from .errors import size_text
from .evidence import FIRST_YEAR, Boot, KernelLog, Phone, Restart, State, Totals

MOST_LANES = 60
SPANS = ("below 10 min", "10 to 60 min", "1 to 6 h", "6 to 24 h", "1 to 7 days", "1 to 4 weeks", "longer")
HOURS = (1 / 6, 1, 6, 24, 168, 672)  # what parts them
UNKNOWABLE = (
    "Which phone it was. No serial number and no build is recorded, unless the kernel log says so; the names are those"
    " of the folders.",
    "The zone of a time. Phones write local time without one, and their clock may have been wrong.",
    "How long a phone was powered off. That, like sleep, is a part of the time between two boots.",
    "Boots that never reached vorta: charger mode, recovery, power lost before.",
    "Collections that were rotated away, and what stood in a history that was begun anew.",
    "The logs of a hardware fault. Only a warm reset leaves some.",
    "Whether a collection is whole, from DONE: that says only that the run came to its end.",
)
Cell = Union[int, str]


@dataclass(frozen=True)
class Seen:
    """A boot that was seen on a phone; the number is the phone's place in the page."""

    number: int
    phone: Phone
    boot: Boot


class Fleet:
    def __init__(self, phones: Sequence[Phone], totals: Totals, made: datetime) -> None:
        self.phones, self.totals, self.made = list(enumerate(phones, 1)), totals, made
        self.seen = [Seen(number, phone, boot) for number, phone in self.phones for boot in phone.boots]
        self.timed = [seen for seen in self.seen if self.likely(seen.boot)]
        dates = [seen.boot.when.date() for seen in self.timed if seen.boot.when]
        self.first, self.last = min(dates, default=made.date()), max(dates, default=made.date())

    def likely(self, boot: Boot) -> bool:
        """Whether its time can be true, so that it may stretch an axis. Zones differ by a day at most."""
        latest = self.made.replace(tzinfo=None) + timedelta(days=1)
        return boot.when is not None and boot.when.year >= FIRST_YEAR and boot.when <= latest

    def spread(self, found: Sequence[Seen]) -> Tuple[int, int, str, str]:
        """How many boots of how many phones, the first and the last time."""
        times = sorted(moment(seen.boot) for seen in found if self.likely(seen.boot)) or ["not known"]
        return len(found), len({seen.number for seen in found}), times[0], times[-1]


# Parts of HTML


def said(text: Optional[str]) -> str:
    """A text of a phone, which must not turn the direction of what stands beside it."""
    return f"<bdi>{escape(text)}</bdi>" if text else ""


def given(text: Optional[str]) -> str:
    """A text of the history line, which may be empty, or not be there with its whole line."""
    return "no line" if text is None else said(text) or "empty"


def link(number: int, phone: Phone) -> str:
    return f'<a href="#phone-{number}">{said(phone.name)}</a>'


def counted(number: int, what: str) -> str:
    return f"{number:,} {what}{'' if number == 1 else 's'}"


def moment(boot: Boot) -> str:
    return boot.when.isoformat(" ", "minutes") if boot.when else boot.time


def duration(seconds: float) -> str:
    return f"{seconds / 60:.1f} min" if seconds < 3600 else f"{seconds / 3600:,.1f} h"


def collected(boot: Boot) -> str:
    return ", ".join(f"{'full dump ' if found.is_fulldump else ''}{found.state.value}" for found in boot.collections)


def table(caption: str, heads: Sequence[str], rows: Iterable[Sequence[Cell]]) -> Iterator[str]:
    """Cells are HTML; the first one names its row."""
    there = list(rows)
    if not there:
        yield "<p>There is nothing to show.</p>"
        return
    yield f'<div class="scroll" tabindex="0" role="region" aria-label="{escape(caption)}"><table><caption>{caption}'
    yield '</caption><thead><tr><th scope="col">' + '<th scope="col">'.join(heads) + "</thead><tbody>\n"
    for first, *others in there:
        cells = (f'<td class="number">{cell:,}' if isinstance(cell, int) else f"<td>{cell}" for cell in others)
        yield f'<tr><th scope="row">{first}{"".join(cells)}\n'
    yield "</tbody></table></div>"


def numbers(caption: str, heads: Sequence[str], rows: Iterable[Sequence[Cell]]) -> Iterator[str]:
    """What a picture shows, for those who do not see it or want to know exactly. Paper has it in the phones' folds."""
    yield '<details class="same"><summary>The same as a table</summary>'
    yield from table(caption, heads, rows)
    yield "</details>"


def log_lines(summary: str, lines: Sequence[str]) -> str:
    text = escape("\n".join(lines))
    return f"<details><summary>{summary}</summary><pre>{text}</pre></details>" if lines else ""


def note(*sentences: str) -> str:
    return f'<p class="note">{" ".join(filter(None, sentences))}</p>' if any(sentences) else ""


# Sections


def tiles(fleet: Fleet) -> Iterator[str]:
    totals = fleet.totals
    shown = {"phones": totals.phones, "boots": totals.boots, "unexpected restarts": totals.unexpected}
    shown.update({f"dumps {state.value}": totals.states[state] for state in (State.WHOLE, State.CUT, State.OPEN)})
    shown.update({"dumps waiting": totals.waiting, "phones that need attention": totals.attention})
    items = (f"<div><dt>{name}</dt><dd>{number:,}</dd></div>" for name, number in shown.items())
    yield f'<dl class="tiles">{"".join(items)}</dl>'


def attention(fleet: Fleet) -> Iterator[str]:
    yield "" if fleet.totals.attention else "<p>No phone needs attention.</p>"
    for number, phone in fleet.phones:
        if phone.attentions:
            yield f'<div class="attention">{link(number, phone)}{attentions(phone)}</div>\n'


def attentions(phone: Phone) -> str:
    found = ((f"{item.time}: " if item.time else "") + item.text for item in phone.attentions)
    items = (f"<li>{said(text)} <small>{said(item.path)}</small>" for text, item in zip(found, phone.attentions))
    return f"<ul>{''.join(items)}</ul>"


def time(fleet: Fleet) -> Iterator[str]:
    lanes = [list(lane) for _, lane in groupby(fleet.timed, lambda seen: seen.number)]
    shown = lanes[:MOST_LANES]
    untimed, without, more = len(fleet.seen) - len(fleet.timed), len(fleet.phones) - len(lanes), len(lanes) > len(shown)
    yield note(
        f"Of {len(lanes):,} phones, the {len(shown)} that need attention most have a lane." if more else "",
        f"Not on any axis: {counted(untimed, 'boot')} without a time that can be true." if untimed else "",
        f"Without a lane: {counted(without, 'phone')}, with no boot at a time that can be true." if without else "",
    )
    if shown:
        title = f"Boots from {fleet.first} to {fleet.last}, a lane a phone, a mark a boot"
        names = [link(lane[0].number, lane[0].phone) for lane in shown]
        marks = [[(seen.boot, hover(seen)) for seen in lane] for lane in shown]
        body = charts.lanes(charts.Days(fleet.first, fleet.last), marks)
        yield charts.legend() + charts.rows_picture("lanes", title, names, body)
        rows = ((link(seen.number, seen.phone), *told(seen.boot)) for lane in shown for seen in lane)
        yield from numbers(title, ("Phone", *TOLD), rows)


def hover(seen: Seen) -> str:
    boot = seen.boot
    crash = boot.kernel.crash_line if boot.kernel else None
    parts = (seen.phone.name, moment(boot), boot.restart.value, boot.category, boot.reason, crash, collected(boot))
    return "\n".join(part for part in parts if part)


def causes(fleet: Fleet) -> Iterator[str]:
    if fleet.timed:
        counts: Dict[date, Dict[Restart, int]] = defaultdict(lambda: dict.fromkeys(Restart, 0))
        for seen in fleet.timed:
            counts[monday(seen.boot.when)][seen.boot.restart] += 1
        days = charts.Days(min(counts), max(counts) + timedelta(days=6))
        title = f"Boots a week by kind of restart, {days.first} to {days.last}"
        body, names = charts.weeks(days, counts), [charts.icon(restart) for restart in Restart]
        yield note("Unexpected restarts have a scale of their own; the number of boots stands above each bar.")
        yield charts.rows_picture("weeks", title, names, body, charts.TALL_ROW)
        weeks: List[Sequence[Cell]] = [(str(week), *count.values()) for week, count in sorted(counts.items())]
        yield from numbers(title, ("Week of", *(restart.value for restart in Restart)), weeks)
    groups = ranked(fleet.seen, lambda boot: (boot.restart, boot.category, boot.reason))
    groups.sort(key=lambda group: not group[0][0].unexpected)
    reasons = (
        (given(reason), given(category), charts.icon(restart), *fleet.spread(found))
        for (restart, category, reason), found in groups
    )
    heads = ("Reason", "Category", "Restart", "Boots", "Phones", "First", "Last")
    yield from table("Reasons: the unexpected ones, then the others, each by their count", heads, reasons)


def monday(when: Optional[datetime]) -> date:
    day = when.date() if when else date.min
    return day - timedelta(days=day.weekday())


def ranked(found: Iterable[Seen], key: Callable[[Boot], Any]) -> List[Tuple[Any, List[Seen]]]:
    groups: Dict[Any, List[Seen]] = defaultdict(list)
    for seen in found:
        groups[key(seen.boot)].append(seen)
    return sorted(groups.items(), key=lambda group: -len(group[1]))


def signatures(fleet: Fleet) -> Iterator[str]:
    known = [(seen, seen.boot.kernel) for seen in fleet.seen if seen.boot.kernel and seen.boot.kernel.signature]
    excerpts = {kernel.signature: kernel.excerpt for _, kernel in known}
    rows = []
    for signature, found in ranked((seen for seen, _ in known), lambda boot: boot.kernel and boot.kernel.signature):
        links = ", ".join({seen.number: link(seen.number, seen.phone) for seen in found}.values())
        excerpt = log_lines("Excerpt", excerpts[signature])
        rows.append((said(signature) + excerpt, *fleet.spread(found), f"<p>{links}</p>"))
    heads = ("Signature", "Boots", "Phones", "First", "Last", "On")
    yield from table("Signatures by their count: the crash line and the first function behind it", heads, rows)


def between(fleet: Fleet) -> Iterator[str]:
    found: Dict[bool, List[float]] = {False: [], True: []}  # hours, by whether the restart was unexpected
    for before, after in zip(fleet.seen, fleet.seen[1:]):
        if before.number == after.number and fleet.likely(before.boot) and fleet.likely(after.boot):
            hours = ((after.boot.when or datetime.min) - (before.boot.when or datetime.min)) / timedelta(hours=1)
            if hours >= 0 and after.boot.restart is not Restart.FORCED:
                found[after.boot.restart.unexpected].append(hours)
    rows = []
    for number, name in enumerate(SPANS):
        counts = [sum(bisect(HOURS, hours) == number for hours in side) for side in found.values()]
        bars = map(charts.barred, counts, map(len, found.values()), ("NORMAL", "CRASH"))
        rows.append((name, *bars))
    rows.append(("half below", *(duration(3600 * median(side)) if side else "" for side in found.values())))
    title = "Time from a boot to the next one of the phone, by the restart between them; forced ones are left out"
    yield from table(title, ("Time", "Normal", "Unexpected"), rows)


def storage(fleet: Fleet) -> Iterator[str]:
    stored = [(link(number, phone), phone.storage) for number, phone in fleet.phones if phone.storage]
    stored.sort(key=lambda item: -item[1].size / item[1].limit)
    rows = []
    for name, store in stored:
        size = charts.barred(store.size, store.limit, "storage", size_text(store.size))
        limit = f"{size_text(store.limit)}, {store.build or 'likely'}"
        rows.append((name, size, limit, said(store.first) or "nothing"))
    title = "Size of dumplog against the limit of its build. Above it, a crash removes the folder that goes next."
    yield from table(title, ("Phone", "Size", "Limit", "Goes next"), rows)


def folds(fleet: Fleet) -> Iterator[str]:
    for number, phone in fleet.phones:
        about = f"{counted(len(phone.boots), 'boot')}, {phone.unexpected} unexpected"
        about += f", {len(phone.attentions)} to look at" if phone.attentions else ""
        yield f'<details class="fold"><summary><h3>{said(phone.name)}</h3> {about}</summary>'
        yield f'<p id="phone-{number}"><small>{said(phone.path)}</small></p>{attentions(phone)}'
        if phone.boots:
            yield from table("Boots, in the order of the history", TOLD, map(told, phone.boots))
        for boot in phone.boots:
            yield logs(boot)
        for image in phone.images:
            yield f"<h4>Image</h4><pre>{escape(show.words(image))}</pre>"
        yield "</details>\n"


TOLD = ("Time", "Restart", "Category", "Reason", "Collection", "Minidump", "Size", "Kernel ran", "Kernel", "Crash line")


def told(boot: Boot) -> Tuple[Cell, ...]:
    kernel = boot.kernel or KernelLog()
    return (
        moment(boot),
        charts.icon(boot.restart),
        given(boot.category),
        given(boot.reason),
        collected(boot),
        boot.collection.minidump.value if boot.collection else "",
        size_text(sum(found.size for found in boot.collections)) if boot.collections else "",
        duration(kernel.seconds) if kernel.seconds is not None else "",
        said(kernel.version),
        said(kernel.crash_line),
    )


def logs(boot: Boot) -> str:
    parts = [f"<h4>{moment(boot)}</h4>"] if boot.collections or boot.kernel else []
    for found in boot.collections:
        files = "; ".join(f"{said(name)} {size_text(size)}" for name, size in found.files.items())
        parts.append(f"<p>{files or 'no files'}. <small>{said(found.path)}</small></p>")
    if boot.kernel:
        parts.append(log_lines("The last lines of the kernel log", boot.kernel.tail))
    return "".join(parts)


def limits(_fleet: Fleet) -> Iterator[str]:
    yield f"<ul><li>{'<li>'.join(UNKNOWABLE)}</ul>"


SECTIONS: Dict[str, Callable[[Fleet], Iterator[str]]] = {
    "Attention": attention,
    "Time": time,
    "Causes": causes,
    "Signatures": signatures,
    "Time between boots": between,
    "Storage": storage,
    "Phones": folds,
    "What this cannot tell": limits,
}


def render(phones: Sequence[Phone], totals: Totals, made: datetime) -> Iterator[str]:
    """The document in pieces; the phones come worst first."""
    fleet = Fleet(phones, totals, made)
    style = Path(__file__).with_name("page.css").read_text("utf-8")
    yield '<!DOCTYPE html>\n<html lang="en"><head><meta charset="utf-8"><title>What the phones collected</title>'
    yield '<meta name="viewport" content="width=device-width, initial-scale=1">'
    yield "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src 'unsafe-inline'\">"
    yield f'<style>{style}</style></head><body><a class="skip" href="#main">Skip to the content</a>'
    yield "<header><h1>What the phones collected</h1><p>Times are local times of the"
    yield f' phones; made {made:%Y-%m-%d %H:%M}</p></header><nav aria-label="Sections"><ul>'
    yield "".join(f'<li><a href="#part-{number}">{name}</a>' for number, name in enumerate(SECTIONS)) + "</ul></nav>"
    yield f'{charts.definitions()}<main id="main" tabindex="-1">\n'
    yield from tiles(fleet)
    for number, (name, section) in enumerate(SECTIONS.items()):
        yield f'<section aria-labelledby="part-{number}"><h2 id="part-{number}">{name}</h2>\n'
        yield from section(fleet)
        yield "</section>\n"
    yield "</main></body></html>\n"
