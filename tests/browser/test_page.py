"""The page as a browser has it: what it shows is asked of the document, not of its source."""

from __future__ import annotations

import base64
from collections import Counter
from pathlib import Path
from typing import Iterator

from browser import Browser
from phones import HOSTILE, MADE, phones
import pytest

from vortadev.evidence import Boot, Phone, Restart, State, Totals
from vortadev.page import render

PICTURES = Path("build/browser").resolve()
COUNT = 70  # more than there are lanes
ALL = "[...document.querySelectorAll('{}')]"

# The lowest contrast of what is drawn in some elements, against the next background around them.
CONTRAST = """((elements, property) => {
  const light = c => c.match(/[\\d.]+/g).slice(0, 3).map(v => v / 255)
    .map(v => v <= .04045 ? v / 12.92 : ((v + .055) / 1.055) ** 2.4).reduce((s, v, i) => s + v * [.2126, .7152, .0722][i], 0);
  const back = e => { while (getComputedStyle(e).backgroundColor == 'rgba(0, 0, 0, 0)') e = e.parentElement;
    return getComputedStyle(e).backgroundColor };
  return Math.min(...elements.map(e => [light(getComputedStyle(e)[property]), light(back(e))].sort((a, b) => b - a))
    .map(([a, b]) => (a + .05) / (b + .05))) })"""


@pytest.fixture(scope="module", name="browser")
def started(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Browser]:
    PICTURES.mkdir(parents=True, exist_ok=True)
    browser = Browser(tmp_path_factory.mktemp("profile"))
    yield browser
    browser.close()


@pytest.fixture(scope="module", name="page")
def written(tmp_path_factory: pytest.TempPathFactory) -> Path:
    page = tmp_path_factory.mktemp("page") / "page.html"
    page.write_text("".join(render(*phones(COUNT), MADE)), "utf-8")
    return page


@pytest.mark.parametrize("scheme", ("light", "dark"))
@pytest.mark.parametrize("width", (400, 1280))
def test_it_fits_and_can_be_told_apart(browser: Browser, page: Path, width: int, scheme: str) -> None:
    browser.open(page, width, scheme)
    picture = browser.call("Page.captureScreenshot", captureBeyondViewport=True)["data"]
    (PICTURES / f"{width}-{scheme}.png").write_bytes(base64.b64decode(picture))
    browser.ask(ALL.format("details") + ".forEach(fold => fold.open = true)")
    assert browser.ask("document.documentElement.scrollWidth") <= width
    for elements, style, least in (
        ("h1, h2, h3, p, li, a, dt, dd, td, th, caption, summary, small, pre", "color", 4.5),
        ("svg text", "fill", 4.5),
        ("use, .bar rect, #weeks rect", "fill", 3),
        (".ring", "stroke", 3),
    ):
        assert browser.ask(f"{CONTRAST}({ALL.format(elements)}, '{style}')") >= least, elements
    names = browser.call("Accessibility.getFullAXTree")["nodes"]
    pictures = [node["name"]["value"] for node in names if node.get("role", {}).get("value") in ("image", "img")]
    assert len(pictures) == 2 and all(pictures)


def test_it_shows_what_is_there(browser: Browser, page: Path) -> None:
    found, totals = phones(COUNT)
    browser.open(page)
    tiles = browser.ask(ALL.format(".tiles dd") + ".map(tile => +tile.textContent)")
    states = [totals.states[state] for state in (State.WHOLE, State.CUT, State.OPEN)]
    assert tiles == [totals.phones, totals.boots, totals.unexpected, *states, totals.waiting, totals.attention]
    boots = [boot for phone in found[:60] for boot in phone.boots]
    marks = browser.ask(ALL.format("#lanes .mark use") + ".map(mark => mark.getAttribute('class'))")
    assert Counter(marks) == Counter(boot.restart.name for boot in boots)
    rings = browser.ask(ALL.format("#lanes .ring") + ".map(ring => ring.classList[1])")
    assert Counter(rings) == Counter(boot.collection.state.value for boot in boots if boot.collection)
    assert browser.ask("document.querySelectorAll('#lanes').length && document.querySelector('.note').textContent") == (
        "Shown are 60 of 70 phones: those that need attention most. Not on any axis: 1 boot with no time or one that"
        " cannot be true."
    )
    sums = browser.ask(
        ALL.format("#weeks text.tick") + ".map(t => +t.textContent).filter(n => n).reduce((a, b) => a + b)"
    )
    assert sums == totals.boots - 1
    assert browser.ask(ALL.format(".attention li") + ".length") == sum(len(phone.attentions) for phone in found)
    assert browser.ask(ALL.format(".fold tbody tr") + ".length") == totals.boots


def test_it_loads_and_runs_nothing(browser: Browser, page: Path) -> None:
    browser.open(page)
    assert browser.ask("document.body.textContent").count(HOSTILE) > 100
    assert browser.ask(ALL.format("script, img, link, iframe, object, [onerror], [src]") + ".length") == 0
    sent = [event for event in browser.events if event["method"] == "Network.requestWillBeSent"]
    assert [event["params"]["request"]["url"] for event in sent] == [page.as_uri()]
    assert not [e for e in browser.events if e["method"] in ("Log.entryAdded", "Runtime.consoleAPICalled")]
    blocked = (
        "new Promise(done => { document.onsecuritypolicyviolation = () => done(true); new Image().src = '//a/b' })"
    )
    assert browser.ask(blocked)


def test_links_folds_and_paper(browser: Browser, page: Path) -> None:
    browser.open(page)
    browser.call("Input.dispatchKeyEvent", type="rawKeyDown", key="Tab", windowsVirtualKeyCode=9)
    skip = "(s => [s.className, s.getBoundingClientRect().left >= 0, getComputedStyle(s).outlineStyle])"
    assert browser.ask(f"{skip}(document.activeElement)") == ["skip", True, "solid"]
    seen = "(e => { const r = e.getBoundingClientRect(); return [e.closest('details').open, r.top >= 0, r.top < innerHeight] })"
    browser.ask("document.querySelector('.attention a').click()")
    assert (
        browser.ask(f"new Promise(requestAnimationFrame).then(() => {seen}(document.querySelector(':target')))")
        == [True] * 3
    )
    assert browser.ask("[...document.links].every(a => document.getElementById(a.hash.slice(1)))")
    hidden = (
        ALL.format(".fold:not([open]) table")
        + ".filter(table => !table.checkVisibility({contentVisibilityAuto: true})).length"
    )
    assert browser.ask(hidden) == COUNT - 1
    browser.call("Emulation.setEmulatedMedia", media="print")
    assert browser.ask(ALL.format("table, pre") + ".filter(part => !part.getBoundingClientRect().height).length") == 0
    (PICTURES / "page.pdf").write_bytes(base64.b64decode(browser.call("Page.printToPDF")["data"]))


LONE = Boot("20260801080000-00000001", Restart.CRASH, MADE)
EARLY = Boot("19700101000012-00000001", Restart.UNKNOWN)


@pytest.mark.parametrize("boots, pictures", (((), 0), ((EARLY,), 0), ((LONE,), 2)), ids=("none", "no time", "one"))
def test_little_is_enough(browser: Browser, tmp_path: Path, boots: "tuple[Boot, ...]", pictures: int) -> None:
    phone, totals = Phone("SN1", "SN1", boots), Totals()
    totals.add(phone)
    (tmp_path / "page.html").write_text("".join(render([phone], totals, MADE)), "utf-8")
    browser.open(tmp_path / "page.html", 400)
    assert browser.ask(ALL.format("[role=img]") + ".length") == pictures
    assert "NaN" not in browser.ask("document.body.innerHTML")
