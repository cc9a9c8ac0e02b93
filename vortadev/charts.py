"""The pictures of the page, as inline SVG: rows, whose names stand beside the picture. Places from left to right are
percentages and all else is in pixels, so a picture is as wide as its page without scaling its texts and marks."""

from __future__ import annotations

from dataclasses import dataclass
from datetime import date, datetime, time, timedelta
from html import escape
from typing import Dict, Iterable, Iterator, Sequence, Tuple

from .evidence import Boot, Restart, State

# Told apart by shape as well as by colour: round, square, pointed, on its edge, crossed.
SHAPES = {
    Restart.NORMAL: "M-4 0a4 4 0 1 0 8 0a4 4 0 1 0-8 0",
    Restart.FORCED: "M-5-5H5V5H-5z",
    Restart.HARDWARE: "M0-6.5L6.5 5H-6.5z",
    Restart.CRASH: "M0-7.5L7.5 0L0 7.5L-7.5 0z",
    Restart.UNKNOWN: "M-6-3.5L-3.5-6L0-2.5L3.5-6L6-3.5L2.5 0L6 3.5L3.5 6L0 2.5L-3.5 6L-6 3.5L-2.5 0z",
}
RINGS = {State.WHOLE: "collected whole", State.CUT: "collection cut", State.OPEN: "collection open"}
HEAD = 24  # pixels above the rows, for what stands on the axis
ROW = 26
TALL_ROW = 58
MOST_TICKS = 6


def definitions() -> str:
    shapes = "".join(f'<path id="{restart.name}" d="{path}"/>' for restart, path in SHAPES.items())
    return f'<svg class="definitions" width="0" height="0" aria-hidden="true"><defs>{shapes}</defs></svg>'


def icon(restart: Restart) -> str:
    use = f'<use class="{restart.name}" href="#{restart.name}"/>'
    return f'<svg class="icon" viewBox="-10 -10 20 20" aria-hidden="true">{use}</svg>{restart.value}'


def ring(state: State, place: str = "0", middle: float = 0) -> str:
    return f'<circle class="ring {state.value}" cx="{place}" cy="{middle}" r="9.5"/>'


def legend() -> str:
    rings = (f'<svg class="icon" viewBox="-11 -11 22 22" aria-hidden="true">{ring(s)}</svg>{RINGS[s]}' for s in RINGS)
    return f'<ul class="legend"><li>{"<li>".join((*map(icon, Restart), *rings))}</ul>'


def rows_picture(name: str, title: str, names: Sequence[str], body: Iterable[str], row: int = ROW) -> str:
    """The names are HTML; the title is what a screen reader says in place of the picture."""
    items = "".join(f'<li style="height: {row}px; line-height: {row}px">{item}</li>' for item in names)
    return (
        f'<div class="rows"><ol>{items}</ol><svg id="{name}" role="img" aria-labelledby="{name}-title" width="100%"'
        f' height="{HEAD + row * len(names)}"><title id="{name}-title">{escape(title)}</title>{"".join(body)}</svg></div>'
    )


def text(place: float, height: float, words: str, style: str = "") -> str:
    return f'<text class="{style}" x="{place:.2f}%" y="{height:.0f}">{words}</text>'


def upright(place: float, rows: int, row: int = ROW, style: str = "grid") -> str:
    return f'<line class="{style}" x1="{place:.2f}%" x2="{place:.2f}%" y1="{HEAD - 5}" y2="{HEAD + rows * row}"/>'


def level(height: float) -> str:
    return f'<line class="grid" x1="0" x2="100%" y1="{height:.0f}" y2="{height:.0f}"/>'


def bar(place: float, wide: float, top: float, high: float, style: str, words: str) -> str:
    size = f'x="{place:.2f}%" width="{wide:.2f}%" y="{top:.1f}" height="{high:.1f}"'
    return f'<rect class="bar {style}" {size}><title>{escape(words)}</title></rect>'


@dataclass(frozen=True)
class Days:
    """An axis of whole days from the first one to the last one, both there in full."""

    first: date
    last: date

    @property
    def count(self) -> int:
        return (self.last - self.first).days + 1

    def place(self, when: datetime) -> float:
        return 2 + 96 * ((when - datetime.combine(self.first, time())) / timedelta(days=self.count))

    def ticks(self, unit: int, rows: int, row: int) -> Iterator[str]:
        """Lines and their days, `unit` days or a multiple apart; a narrow page can do without every second day."""
        step = unit * -(-self.count // (unit * MOST_TICKS))
        for number, days in enumerate(range(0, self.count, step)):
            day = self.first + timedelta(days=days)
            place = self.place(datetime.combine(day, time()))
            yield upright(place, rows, row)
            words = f"{day:%d %b}" if self.count < 300 else f"{day:%b} {day.year}"
            yield text(place, HEAD - 9, words, "tick spare" if number % 2 else "tick")


def lanes(days: Days, rows: Sequence[Sequence[Tuple[Boot, str]]]) -> Iterator[str]:
    """A lane a row, a mark a boot; the words beside a boot are what hovering tells. What matters is painted last."""
    yield from days.ticks(1, len(rows), ROW)
    order = [Restart.NORMAL, Restart.FORCED, Restart.UNKNOWN, Restart.HARDWARE, Restart.CRASH]
    for number, row in enumerate(rows):
        middle = HEAD + ROW * (number + 0.5)
        yield level(middle)
        for boot, words in sorted(row, key=lambda mark: order.index(mark[0].restart)):
            place, name = f"{days.place(boot.when or datetime.min):.2f}%", boot.restart.name
            rings = "".join(ring(found.state, place, middle) for found in boot.collections[:1])
            yield f'<g class="mark"><title>{escape(words)}</title>'
            yield f'<use class="{name}" href="#{name}" x="{place}" y="{middle}"/>{rings}</g>'


def weeks(days: Days, counts: Dict[date, Dict[Restart, int]]) -> Iterator[str]:
    """A row a kind of restart, a bar a week from Monday to Sunday, all rows to one scale."""
    yield from days.ticks(7, len(Restart), TALL_ROW)
    most = max(max(week.values()) for week in counts.values())
    wide = 96 * 7 / days.count
    for number, restart in enumerate(Restart):
        bottom = HEAD + TALL_ROW * (number + 1)
        yield level(bottom)
        for monday, week in sorted(counts.items()):
            count, place = week[restart], days.place(datetime.combine(monday, time()))
            high = (TALL_ROW - 18) * count / most
            if count:
                words = f"week of {monday}: {count} {restart.value}"
                yield bar(place + wide * 0.1, wide * 0.8, bottom - high, high, restart.name, words)
                yield text(place + wide * 0.5, bottom - high - 3, f"{count:,}", "tick" + " spare" * (wide < 4))


def halves(rows: Sequence[Tuple[str, Sequence[int]]], titles: Sequence[str], styles: Sequence[str]) -> Iterator[str]:
    """Two distributions side by side: bars are shares of the sum of their side, to one scale."""
    sums = [sum(counts[side] for _, counts in rows) or 1 for side in (0, 1)]
    most = max(count / sums[side] for _, counts in rows for side, count in enumerate(counts)) or 1
    for side, left in enumerate((0, 52)):
        yield text(left, HEAD - 8, titles[side])
        yield upright(left, len(rows), style="edge")
        for number, (name, counts) in enumerate(rows):
            share, top = counts[side] / sums[side], HEAD + ROW * number
            if share:
                words = f"{counts[side]:,} ({share:.0%})"
                yield bar(left, 30 * share / most, top + 5, ROW - 10, styles[side], f"{name}: {words}")
                yield text(left + 30 * share / most + 1, top + 17, words)


def against_limit(rows: Sequence[Tuple[float, str]]) -> Iterator[str]:
    """Bars of shares of a limit, with the words that hovering tells."""
    scale = 98 / max(1.0, *(share for share, _ in rows))
    for percent in (0, 25, 50, 75, 100):
        yield upright(percent / 100 * scale, len(rows), style="limit" if percent == 100 else "grid")
        yield text(percent / 100 * scale, HEAD - 9, f"{percent} %", "tick")
    for number, (share, words) in enumerate(rows):
        style = "over" if share > 1 else "fill"
        yield bar(0, share * scale, HEAD + ROW * number + 5, ROW - 10, style, words)
