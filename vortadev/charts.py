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
HEAD = 24  # pixels above the rows, for what stands on the axis
ROW = 26
TALL_ROW = 58
MOST_TICKS = 6


def definitions() -> str:
    shapes = "".join(f'<path id="{restart.name}" d="{path}"/>' for restart, path in SHAPES.items())
    return f'<svg class="definitions" width="0" height="0" aria-hidden="true"><defs>{shapes}</defs></svg>'


def icon(restart: Restart) -> str:
    shape = f'<use class="{restart.name}" href="#{restart.name}"/>'
    return f'<span class="icon"><svg viewBox="-10 -10 20 20" aria-hidden="true">{shape}</svg>{restart.value}</span>'


def ring(state: State, place: str = "0", middle: float = 0) -> str:
    return f'<circle class="ring {state.value}" cx="{place}" cy="{middle}" r="9.5"/>'


def legend() -> str:
    items = [icon(restart) for restart in Restart]
    for state in (State.WHOLE, State.CUT, State.OPEN):
        shape = f'<svg viewBox="-11 -11 22 22" aria-hidden="true">{ring(state)}</svg>'
        items.append(f'<span class="icon">{shape}collected, {state.value}</span>')
    return f'<p class="legend">{" ".join(items)}</p>'


def barred(part: int, whole: int, style: str, words: str = "") -> str:
    """A bar to stand in a table, with the numbers that it shows."""
    share = part / (whole or 1)
    shape = f'<rect class="{style}{" over" * (share > 1)}" width="{min(share, 1):.1%}" height="100%"/>'
    return f'<svg class="bar" aria-hidden="true">{shape}</svg>{words or f"{part:,}"} ({share:.0%})'


def rows_picture(name: str, title: str, names: Sequence[str], body: Iterable[str], row: int = ROW) -> str:
    """The names are HTML; the title is what a screen reader says in place of the picture."""
    items = "".join(f'<li style="height: {row}px; line-height: {row}px">{item}</li>' for item in names)
    size = f'width="100%" height="{HEAD + row * len(names)}"'
    return (
        f'<div class="rows"><ol>{items}</ol><svg id="{name}" role="img" aria-labelledby="{name}-title" {size}>'
        f'<title id="{name}-title">{escape(title)}</title>{"".join(body)}</svg></div>'
    )


def text(place: float, height: float, words: str, style: str = "tick") -> str:
    return f'<text class="{style}" x="{place:.2f}%" y="{height:.0f}">{words}</text>'


def level(height: float) -> str:
    return f'<line class="grid" x1="0" x2="100%" y1="{height:.0f}" y2="{height:.0f}"/>'


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

    def ticks(self, unit: int, bottom: int) -> Iterator[str]:
        """Lines and their days, `unit` days or a multiple apart; a narrow page can do without every second day."""
        step = unit * -(-self.count // (unit * MOST_TICKS))
        for number, days in enumerate(range(0, self.count, step)):
            day = self.first + timedelta(days=days)
            place = self.place(datetime.combine(day, time()))
            yield f'<line class="grid" x1="{place:.2f}%" x2="{place:.2f}%" y1="{HEAD - 5}" y2="{bottom}"/>'
            words = f"{day:%d %b}" if self.count < 300 else f"{day:%b} {day.year}"
            yield text(place, HEAD - 9, words, "tick spare" if number % 2 else "tick")


def lanes(days: Days, rows: Sequence[Sequence[Tuple[Boot, str]]]) -> Iterator[str]:
    """A lane a row, a mark a boot; the words beside a boot are what hovering tells. What matters is painted last."""
    yield from days.ticks(1, HEAD + ROW * len(rows))
    for number, row in enumerate(rows):
        middle = HEAD + ROW * (number + 0.5)
        yield level(middle)
        for boot, words in sorted(row, key=lambda mark: mark[0].restart.unexpected):
            place, name = f"{days.place(boot.when or datetime.min):.2f}%", boot.restart.name
            rings = "".join(ring(found.state, place, middle) for found in boot.collections[:1])
            shape = f'<use class="{name}" href="#{name}" x="{place}" y="{middle}"/>'
            yield f'<g class="mark"><title>{escape(words)}</title>{shape}{rings}</g>'


def weeks(days: Days, counts: Dict[date, Dict[Restart, int]]) -> Iterator[str]:
    """A row a kind of restart, a bar a week from Monday to Sunday. Unexpected ones have a scale of their own: there are
    few of them as a rule."""
    yield from days.ticks(7, HEAD + TALL_ROW * len(Restart))
    wide = 96 * 7 / days.count
    for number, restart in enumerate(Restart):
        alike = [kind for kind in Restart if kind.unexpected == restart.unexpected]
        most = max(week[kind] for week in counts.values() for kind in alike)
        bottom = HEAD + TALL_ROW * (number + 1)
        yield level(bottom)
        for monday, week in counts.items():
            place, high = days.place(datetime.combine(monday, time())), (TALL_ROW - 18) * week[restart] / (most or 1)
            if high:
                yield f'<rect class="{restart.name}" x="{place + wide * 0.1:.2f}%" width="{wide * 0.8:.2f}%"'
                yield f' y="{bottom - high:.1f}" height="{high:.1f}"/>'
                yield text(
                    place + wide / 2, bottom - high - 3, f"{week[restart]:,}", "tick spare" if wide < 6 else "tick"
                )
