"""The command: what it finds, says and writes, for good folders and hostile ones."""

from __future__ import annotations

import contextlib
from datetime import datetime
import gzip
import io
import json
import os
from pathlib import Path
from random import Random
import re
import shutil
import sqlite3
import sys
from typing import Callable, Dict, List, Tuple
from zoneinfo import ZoneInfo

import pulled
from pulled import NO_PANIC, PANIC, WHOLE, time
import pytest

from vortadev import cli, finding, gather, lines, report

PAGE = Path(__file__).resolve().parents[2] / "docs/report.md"
NORMAL = [(time(1), "NORMALBOOT", "PS_HOLD")]
CRASH = (time(9), "AP_S_PANIC", "panic")
CUT = {**WHOLE, "rawdump.bin": pulled.MINIDUMP[:-1]}


def run(*arguments: object) -> Tuple[int, str, str]:
    """Status, standard output, standard error."""
    out, error = io.StringIO(), io.StringIO()
    with contextlib.redirect_stdout(out), contextlib.redirect_stderr(error):
        try:
            status = cli.perform(["report", *map(str, arguments)])
        except SystemExit as end:
            status = int(end.code or 0)
    return status, out.getvalue(), error.getvalue()


def lines_of(*arguments: object) -> List[Dict[str, object]]:
    _, out, error = run(*arguments, "--jsonl", "-")
    assert not error
    return [json.loads(line) for line in out.splitlines()]


def test_phones_are_found_and_named(tmp_path: Path) -> None:
    """However a pull nested them, each once; an image is found by what it holds, and a link not at all."""
    for name in ("SN1", "SN2/data/vendor/log", "monday/SN3", "monday/SN4", "again/SN5", "x/again/SN5", "x/SN6"):
        pulled.pull(tmp_path / name, NORMAL)
    for name in ("image.img", "SN2/rawdump.img", "SN1/reliability/a.img", "SN1/b.img"):
        (tmp_path / name).write_bytes(bytes(16) + b"MRAW" + bytes(456))
    (tmp_path / "SN7").symlink_to(tmp_path / "SN1")
    (tmp_path / "empty").mkdir()
    problems: List[str] = []
    found = finding.sources([tmp_path, tmp_path / "SN1", tmp_path / "again/SN5"], problems)
    names = [source.name for source in found]
    twice = [str(tmp_path / "again/SN5"), str(tmp_path / "x/again/SN5")]
    assert sorted(names) == sorted(["SN1", "SN2", "SN3", "SN4", "SN6", "image", *twice])
    assert problems == [f"{tmp_path / 'empty'}: no phone's folder or image was found in it"]
    images = {source.name: [Path(image["path"]).name for image in gather.read(source).images] for source in found}
    wanted = {"SN1": ["a.img", "b.img"], "SN2": ["rawdump.img"], "image": ["image.img"]}
    assert {name: told for name, told in images.items() if told} == wanted


def test_more_phones_than_are_looked_at(tmp_path: Path) -> None:
    for number in range(4100):
        (tmp_path / f"{number:04}").mkdir()
    pulled.pull(tmp_path / "0000", NORMAL)
    status, _, error = run(tmp_path)
    assert status == 0 and "holds 4 more names, which were not looked at" in error


def test_status_and_table(tmp_path: Path) -> None:
    whole, cut = pulled.pull(tmp_path / "whole", NORMAL), pulled.pull(tmp_path / "cut", [CRASH], {time(9): CUT})
    assert run(whole)[0] == 0
    status, out, _ = run(tmp_path, "--jobs", 2)
    head, worst, best, totals = out.splitlines()
    assert status == 1 and head.split() == list(report.HEADS)
    assert worst.startswith("cut ") and best.startswith("whole ") and "\x1b" not in out
    end = "2 phones, 2 boots, 1 unexpected; 1 collection: 1 cut; 1 phone needs attention"
    assert totals == end and "rawdump.bin ends early" in worst
    assert run(whole, tmp_path / "none")[0] == 1


@pytest.mark.parametrize(
    "wrong",
    ([], ["none"], [".", "--tz", "Mars"], [".", "--tz", "/"], [".", "--jobs", 0], [".", *"--html - --jsonl -".split()]),
)
def test_wrong_use(tmp_path: Path, monkeypatch: pytest.MonkeyPatch, wrong: List[object]) -> None:
    monkeypatch.chdir(pulled.pull(tmp_path, NORMAL))
    status, out, error = run(*wrong)
    assert status == 2 and not out and error.startswith("vortadev: ")


@pytest.mark.skipif(not os.path.exists("/dev/full"), reason="needs Linux")
def test_what_cannot_be_written_fails(tmp_path: Path) -> None:
    phone = pulled.pull(tmp_path, NORMAL)
    for file, why in (("/dev/full", "No space left on device"), (tmp_path / "none/x", "No such file or directory")):
        assert run(phone, "--jsonl", file) == (2, "", f"vortadev: cannot write {file}: {why}\n")


@pytest.mark.parametrize("columns", (80, 120, 200))
def test_table_fits(tmp_path: Path, columns: int) -> None:
    for name in ("SN1", "a-rather-long-name-of-a-phone-from-the-field"):
        pulled.pull(tmp_path / name, [*NORMAL, (time(5), "A_CATEGORY", "x"), CRASH], {time(9): CUT})
    rows = [report.row_of(gather.read(source), False) for source in finding.sources([tmp_path], [])]
    table = report.table(rows, columns).splitlines()
    assert max(map(len, table)) <= columns
    assert all(len(line) > columns - 30 for line in table[1:])  # what is left is used


def test_one_crash_of_three_phones(tmp_path: Path) -> None:
    for number in range(4):
        log = PANIC.replace(b"1873", str(number).encode()) if number else NO_PANIC["last_kmsg"]
        pulled.pull(tmp_path / f"SN{number}", [CRASH], {time(9): {**NO_PANIC, "last_kmsg": log}})
    status, out, _ = run(tmp_path)
    assert status == 1 and out.count("on 3 phones: Kernel panic") == 3 and out.splitlines()[-2].startswith("SN0")
    assert out.endswith("3 phones need attention\n")


@pytest.mark.parametrize(
    "local, utc",
    (
        ("2026-08-14 09:30:11", "2026-08-14T07:30:11Z"),
        ("2026-10-25 02:30:00", None),  # there twice
        ("2026-03-29 02:30:00", None),  # not there
        ("0001-01-01 00:00:00", None),
    ),
)
def test_utc(local: str, utc: str) -> None:
    pytest.importorskip("zoneinfo").ZoneInfo("Europe/Paris")
    assert lines.utc(datetime.fromisoformat(local), ZoneInfo("Europe/Paris")) == utc


def test_lines_are_as_the_page_says(tmp_path: Path) -> None:
    pulled.pull(tmp_path / "SN1", [*NORMAL, CRASH], {time(9): CUT})
    boot, crash, phone = lines_of(tmp_path, "--tz", "Europe/Paris")
    tables = PAGE.read_text("utf-8").split("Of a phone:")
    for object_, text in ((boot, tables[0].split("Of a boot:")[1]), (crash, tables[0]), (phone, tables[1])):
        documented = re.findall(r"`(\w+)`", " ".join(re.findall(r"^\| (`[^|]*) \|", text, re.MULTILINE)))
        assert set(object_) <= set(documented)
    assert (boot["restart"], boot["collection"], boot["seconds"]) == ("normal", None, None)
    assert (crash["name"], crash["time_utc"], crash["minidump"]) == (time(9), "2026-08-09T08:00:00Z", "cut")
    assert (phone["days"], phone["kernel_version"], phone["waiting"]) == (9, "5.10.66-android12-9", None)


def test_questions_have_true_answers(tmp_path: Path) -> None:
    other = NO_PANIC["last_kmsg"] + b"[ 11.0] Kernel panic - not syncing: other\n"
    newer = PANIC.replace(b"5.10.66-android12-9", b"5.15.1")
    pulled.pull(tmp_path / "SN1", [*NORMAL, (time(4), "AP", "x"), CRASH], {time(4): WHOLE, time(9): CUT})
    pulled.pull(tmp_path / "SN2", [*NORMAL, (time(5), "AP", "x")], {time(5): {**NO_PANIC, "last_kmsg": newer}})
    pulled.pull(tmp_path / "SN3", [(time(6), "AP", "x")], {time(6): {**NO_PANIC, "last_kmsg": other}})
    pulled.pull(tmp_path / "SN4", [(time(2, 1, 1970), "NORMALBOOT", "")])
    store = sqlite3.connect(":memory:")
    store.execute("CREATE TABLE lines (line TEXT)")
    store.executemany("INSERT INTO lines VALUES (?)", ((json.dumps(line),) for line in lines_of(tmp_path)))
    views, *questions = re.findall("```sql\n(.*?)```", PAGE.read_text("utf-8"), re.DOTALL)
    store.executescript(views)
    answers = [store.execute(question).fetchall() for question in questions]
    signature = "Kernel panic - not syncing: Oops: Fatal exception in wlan_rx"
    assert answers == [
        [(None, 1, 1, 1000.0), ("5.10.66-android12-9", 1, 9, 222.2), ("5.15.1", 1, 5, 200.0)],
        [
            (signature, 3, 2, "2026-08-04 10:00:00", "2026-08-09 10:00:00"),
            ("Kernel panic - not syncing: other", 1, 1, "2026-08-06 10:00:00", "2026-08-06 10:00:00"),
        ],
        [("SN1", time(9))],
    ]


# Hostile folders


def removed(path: Path) -> Path:
    shutil.rmtree(path) if path.is_dir() else path.unlink()
    return path


def renamed(path: Path) -> None:
    os.rename(os.fsencode(path), os.fsencode(path.parent) + b"/" + b"\xff\n\x1b[31m" * 30)


def sparse(path: Path) -> None:
    with removed(path).open("wb") as file:
        file.truncate(1 << 30)


SPOILED: Dict[str, Callable[[Path], object]] = {
    "gone": removed,
    "a pipe": lambda path: os.mkfifo(removed(path)),
    "a link": lambda path: removed(path).symlink_to("/etc/passwd"),
    "a link to itself": lambda path: removed(path).symlink_to(path),
    "a folder": lambda path: removed(path).mkdir(),
    "another name": renamed,
    "200 MiB packed": lambda path: removed(path).write_bytes(gzip.compress(bytes(200 << 20), 1)),
    "1 GiB": sparse,
}


TOLD = ("a pipe", "a link", "a link to itself")


@pytest.mark.skipif(sys.platform == "win32", reason="has no such files")
@pytest.mark.parametrize("spoil", SPOILED)
@pytest.mark.parametrize("name", ("history.log", f"{time(9)}/rawdump.bin", f"{time(9)}/last_kmsg", time(9)))
def test_hostile_files(tmp_path: Path, name: str, spoil: str) -> None:
    """A report, whatever lies there."""
    folder = pulled.pull(tmp_path / "SN1", [CRASH], {time(9): WHOLE}) / "reliability/dumplog"
    SPOILED[spoil](folder / name)
    status, out, _ = run(tmp_path)
    assert status in ((1,) if spoil in TOLD else (0, 1)) and "SN1" in out and "root:" not in out
    assert all(line.isprintable() for line in out.splitlines())
    assert "without a line" not in out or name != "history.log" or spoil not in TOLD  # what is not read lacks nothing


def test_damaged_folders(tmp_path: Path) -> None:
    """Truncated, flipped and exchanged."""
    folders = {time(9): NO_PANIC, time(5): {"last_kmsg": PANIC, "rawdump.bin": pulled.MINIDUMP}}
    phone = pulled.pull(tmp_path / "SN1", [*NORMAL, CRASH], folders)
    files = [path for path in sorted(phone.rglob("*")) if path.is_file()]
    random = Random(7)
    for number in range(60):
        one, other = random.choice(files), random.choice(files)
        data = bytearray((other if number % 3 == 0 else one).read_bytes())
        if number % 3 == 1:
            del data[random.randrange(len(data) + 1) :]
        for _ in range(9 if number % 3 == 2 and data else 0):
            data[random.randrange(len(data))] ^= 1 << random.randrange(8)
        one.write_bytes(data)
        status, out, _ = run(tmp_path, "--jsonl", tmp_path / "lines")
        assert status in (0, 1) and all(line.isprintable() for line in out.splitlines())
        *_, last = (tmp_path / "lines").read_text("utf-8").splitlines()
        assert json.loads(last)["kind"] == "phone"
