"""The page as a browser has it: what it shows is asked of the document, not of its source."""

from __future__ import annotations

import base64
from collections import Counter
from pathlib import Path
from typing import Any, Iterator

from browser import Browser
from phones import HOSTILE, MADE, phones
import pytest

from vortadev.evidence import Boot, Phone, Restart, State, Totals
from vortadev.page import render

PICTURES = Path("build/browser").resolve()

# The lowest contrast of what is drawn in some elements, against the next background around them.
CONTRAST = """((elements, property) => {
  const linear = part => part <= .04045 ? part / 12.92 : ((part + .055) / 1.055) ** 2.4;
  const light = color => color.match(/[\\d.]+/g).slice(0, 3)
    .reduce((sum, part, i) => sum + linear(part / 255) * [.2126, .7152, .0722][i], .05);
  const fill = e => getComputedStyle(e).backgroundColor;
  const back = e => fill(e).endsWith(' 0)') ? back(e.parentElement) : fill(e);
  const ratio = e => light(getComputedStyle(e)[property]) / light(back(e));
  return Math.min(...elements.map(ratio).map(found => Math.max(found, 1 / found))) })"""


@pytest.fixture(scope="module", name="browser")
def started(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Browser]:
    PICTURES.mkdir(parents=True, exist_ok=True)
    browser = Browser(tmp_path_factory.mktemp("profile"))
    yield browser
    browser.close()


def show(browser: Browser, folder: Path, count: int, width: int = 1280, scheme: str = "light") -> None:
    (folder / "page.html").write_text("".join(render(*phones(count), MADE)), "utf-8")
    browser.open(folder / "page.html", width, scheme)


def every(browser: Browser, selector: str, what: str) -> Any:
    """An expression of each element e."""
    return browser.ask(f"[...document.querySelectorAll('{selector}')].map(e => {what})")


@pytest.mark.parametrize("scheme", ("light", "dark"))
@pytest.mark.parametrize("width", (400, 1280))
def test_it_fits_and_can_be_read(browser: Browser, tmp_path: Path, width: int, scheme: str) -> None:
    show(browser, tmp_path, 12, width, scheme)
    picture = browser.call("Page.captureScreenshot", captureBeyondViewport=True)["data"]
    (PICTURES / f"{width}-{scheme}.png").write_bytes(base64.b64decode(picture))
    every(browser, "details", "e.open = true")
    assert browser.ask("document.documentElement.scrollWidth") <= width
    texts = "h1, h2, h3, p, li, a, dt, dd, td, th, caption, summary, small, pre"
    marks = "use, .bar rect, #weeks rect"
    for elements, style, least in (
        (texts, "color", 4.5),
        ("text", "fill", 4.5),
        (marks, "fill", 3),
        (".ring", "stroke", 3),
    ):
        assert browser.ask(f"{CONTRAST}([...document.querySelectorAll('{elements}')], '{style}')") >= least, elements
    nodes = browser.call("Accessibility.getFullAXTree")["nodes"]
    names = [node["name"]["value"] for node in nodes if node.get("role", {}).get("value") == "image"]
    assert len(names) == 2 and all(names)


def test_it_shows_what_is_there(browser: Browser, tmp_path: Path) -> None:
    show(browser, tmp_path, 70)
    found, totals = phones(70)
    states = [totals.states[state] for state in (State.WHOLE, State.CUT, State.OPEN)]
    tiles = [totals.phones, totals.boots, totals.unexpected, *states, totals.waiting, totals.attention]
    assert every(browser, ".tiles dd", "+e.textContent") == tiles
    boots = [boot for phone in found[:60] for boot in phone.boots][1:]
    marks = every(browser, "#lanes .mark use", "e.getAttribute('class')")
    assert Counter(marks) == Counter(boot.restart.name for boot in boots)
    rings = every(browser, "#lanes .ring", "e.classList[1]")
    assert Counter(rings) == Counter(boot.collection.state.value for boot in boots if boot.collection)
    notes = every(browser, ".note", "e.textContent")
    assert "Of 70 phones, the 60 that" in notes[0] and "1 boot without a time" in notes[0]
    assert sum(every(browser, "#weeks text", "+e.textContent || 0")) == totals.boots - 1
    assert len(every(browser, ".attention li", "e")) == sum(len(phone.attentions) for phone in found)
    assert len(every(browser, ".fold tbody tr", "e")) == totals.boots


def test_it_loads_and_runs_nothing(browser: Browser, tmp_path: Path) -> None:
    show(browser, tmp_path, 12)
    assert browser.ask("document.body.textContent").count(HOSTILE) > 100
    assert not every(browser, "script, img, link, iframe, object, [src], [onerror]", "e.outerHTML")
    sent = [event["params"] for event in browser.events if event["method"] == "Network.requestWillBeSent"]
    assert [params["request"]["url"] for params in sent] == [(tmp_path / "page.html").as_uri()]
    assert not [e for e in browser.events if e["method"] in ("Log.entryAdded", "Runtime.consoleAPICalled")]
    assert browser.ask("new Promise(done => { document.onsecuritypolicyviolation = done; new Image().src = '//a/b' })")


def test_keys_links_and_paper(browser: Browser, tmp_path: Path) -> None:
    show(browser, tmp_path, 12)
    browser.call("Input.dispatchKeyEvent", type="rawKeyDown", key="Tab", windowsVirtualKeyCode=9)
    assert every(browser, ":focus", "[e.className, getComputedStyle(e).outlineStyle]") == [["skip", "solid"]]
    assert all(every(browser, "a", "!!document.getElementById(e.hash.slice(1))"))
    browser.ask("new Promise(done => { onhashchange = done; document.querySelector('.attention a').click() })")
    assert every(browser, ":target", "e.checkVisibility() && e.closest('details').open") == [True]
    shown = "e.checkVisibility({contentVisibilityAuto: true})"
    assert Counter(every(browser, ".fold table", shown)) == {True: 1, False: 11}
    browser.call("Emulation.setEmulatedMedia", media="print")
    browser.ask("new Promise(done => requestAnimationFrame(() => requestAnimationFrame(done)))")
    assert all(every(browser, ".fold table, pre", f"{shown} && e.offsetHeight"))
    (PICTURES / "page.pdf").write_bytes(base64.b64decode(browser.call("Page.printToPDF")["data"]))


@pytest.mark.parametrize("boots, pictures", ((0, 0), (1, 0), (2, 2)), ids=("no boot", "no time", "one boot"))
def test_little_is_enough(browser: Browser, tmp_path: Path, boots: int, pictures: int) -> None:
    known = (Boot("19700101000012-00000001", Restart.UNKNOWN), Boot("20260801080000-00000001", Restart.CRASH, MADE))
    phone, totals = Phone("SN1", "SN1", known[:boots]), Totals()
    totals.add(phone)
    (tmp_path / "page.html").write_text("".join(render([phone], totals, MADE)), "utf-8")
    browser.open(tmp_path / "page.html", 400)
    assert len(every(browser, "[role=img]", "e")) == pictures
    assert len(every(browser, "h2", "e")) == 8 and "NaN" not in browser.ask("document.body.innerHTML")
