"""The host tool: scenario files that are wrong, folders and images that are damaged or hostile, promises that do not
hold."""

from __future__ import annotations

from dataclasses import replace
import json
import os
from pathlib import Path
from random import Random
from typing import Any, Callable, Dict

from conftest import MakePhone
import pytest
from simulated import DUMPLOG, Phone, options

from vortadev import check, device, reading, scenario, show
from vortadev.device import Image
from vortadev.errors import DeviceError

RELIABILITY = str(Path(DUMPLOG).parent)
WRONG = [  # a scenario, the key that the complaint names, what was expected
    ("{", "", "JSON"),
    ("[]", "", "object"),
    ('{"bootlevel": 1}', "bootlevel", "properties"),
    ('{"reasonHeader": {"bootlevel": 1}}', "reasonHeader", "bootLevel"),
    ('{"reasonHeader": {"bootLevel": 4294967296}}', "reasonHeader.bootLevel", "at most 0xFFFFFFFF"),
    ('{"reasonHeader": {"bootLevel": -1}}', "reasonHeader.bootLevel", "whole number"),
    ('{"reasonHeader": {"bootLevel": NaN}}', "", "NaN"),
    ('{"reasonHeader": {"resetType": "WARMER"}}', "reasonHeader.resetType", "four"),
    ('{"reasonHeader": {"mreasonStr": "0123456789012345678901234567890123"}}', "reasonHeader.mreasonStr", "32"),
    ('{"properties": {"ro.runmode": 1}}', "properties.ro.runmode", "text"),
    ('{"partitions": {"rawdump": 1000}}', "partitions.rawdump", "multiple of 512"),
    ('{"logs": {"tz_log": {"file": "missing.txt"}}}', "logs.tz_log", "missing.txt"),
    ('{"logs": {"tz_log": {"text": "x", "size": "1GiB"}}}', "logs.tz_log", "1048576"),
    ('{"boardId": "zz"}', "boardId", "hex"),
    ('{"data": {"../outside": "folder"}}', "data", "below"),
    ('{"fulldump": {"offset": 0, "size": "1GiB"}}', "fulldump", "userdata"),
    ('{"expect": {"cleared": ["everything"]}}', "expect.cleared", "minidump"),
    ('{"base": "no-such-scenario"}', "base", "shipped scenario"),
    ('{"base": "phone.json"}', "base", "does not build on this one"),
    ('{"base": "full-dump", "partitions": {"userdata": 0}}', "fulldump", "0 bytes of userdata"),
]


@pytest.mark.parametrize("text, key, expected", WRONG)
def test_complaint_is_one_line_of_file_key_and_expectation(scratch: Path, text: str, key: str, expected: str) -> None:
    file = scratch / "phone.json"
    file.write_text(text)
    with pytest.raises(DeviceError) as caught:
        scenario.load(str(file))
    said = str(caught.value)
    assert said.startswith((f"{file}: ", f"{scenario.load('full-dump').file}: ")) and "\n" not in said
    assert key in said and expected in said


def test_base_gives_what_the_scenario_does_not_say(scratch: Path) -> None:
    (scratch / "middle.json").write_text('{"base": "kernel-panic", "properties": {"ro.runmode": null}, "ponLog": null}')
    file = scratch / "phone.json"
    file.write_text('{"base": "middle.json", "properties": {"persist.log.remotedebug": "true"}}')
    made, base = scenario.load(str(file)), scenario.load("kernel-panic")
    expected = {name: value for name, value in base.properties.items() if name != "ro.runmode"}
    assert made.properties == {**expected, "persist.log.remotedebug": "true"}
    assert made.pon_log is None and made.reason_header == base.reason_header
    assert "base" not in json.loads(made.source)


def test_foreign_folders_are_left_alone(make_phone: MakePhone) -> None:
    phone = make_phone(scenario.load("normal-restart"))
    for folder, force in ((phone / "data", False), (phone / "data", True), (phone.folder, False)):
        with pytest.raises(DeviceError):
            device.create(folder, phone.scenario, force)
    device.create(phone.folder, phone.scenario, force=True)
    assert device.is_device(phone.folder)


@pytest.mark.parametrize("seed", range(4))
def test_image_is_the_bytes_of_its_file(scratch: Path, seed: int) -> None:
    random, path = Random(seed), scratch / "image"
    model = bytearray(random.choice((8192, 20480, 12800)))
    image = Image(len(model))
    for _ in range(40):
        at, size = random.randrange(len(model) + 600), random.choice((0, 1, 500, 4096, 9000))
        data = random.choice((bytes(size), random.randbytes(size)))
        image.put(at, data)
        model[at : at + size] = data[: max(len(model) - at, 0)]
        first, wanted = random.randrange(len(model) + 600), random.randrange(9000)
        assert image.read(first, wanted) == model[first : first + wanted]
    device.write_image(path, image)
    assert path.read_bytes() == model
    assert device.read_image(path) == image


Change = Callable[[Phone], Any]
DAMAGE: Dict[str, Change] = {  # what the report then says
    "a dump waits at 0x400000": lambda phone: None,
    "broken: 0x5A5A5A5A": lambda phone: phone.partition("bootfail_info").write_bytes(b"Z" * 4096),
    "cut off: 16 of 56 bytes": lambda phone: phone.partition("bootfail_info").write_bytes(b"Z" * 1040),
    "8 bytes damaged": lambda phone: (phone / DUMPLOG / "history.log").write_bytes(b"\0\xff\x1b[31m\n"),
    "cut off: 300 of 472 bytes": lambda phone: os.truncate(phone.partition("rawdump"), 300),
    "No such file": lambda phone: phone.partition("rawdump").unlink(),
    "is no regular file": lambda phone: os.mkfifo(phone.partition("rawdump")),
}


def test_damage_is_shown_as_damage(panicked: Phone) -> None:
    """What is whole is still shown."""
    for said, damage in DAMAGE.items():
        damage(panicked)
        report = reading.read(panicked.folder)
        text = show.words(report)
        assert said in text and "\x1b" not in text
        json.dumps(report)


def test_images_and_pulled_folders_are_read(panicked: Phone) -> None:
    panicked.boot()
    sources = {
        panicked.partition("rawdump"): "reasonHeader",
        panicked.partition("bootfail_info"): "meta",
        panicked / RELIABILITY: "history",
        panicked / DUMPLOG: "history",
        panicked / DUMPLOG / "history.log": "history",
        panicked.boots()[0]: "dumps",
    }
    assert [key in reading.read(path) for path, key in sources.items()] == [True] * len(sources)
    with pytest.raises(DeviceError):
        reading.read(panicked / "missing")


HOSTILE: Dict[str, Callable[[Path], Any]] = {
    "pipe for a history": lambda dumplog: os.mkfifo(dumplog / "history.log"),
    "link for a history": lambda dumplog: (dumplog / "history.log").symlink_to(dumplog.parent / "secret"),
    "link for a dump": lambda dumplog: (dumplog / "20240101080000-00000001").symlink_to(dumplog.parent),
    "terminal codes": lambda dumplog: (dumplog / "20240101080000-00000001/\x1b[31m\u202e\n").mkdir(parents=True),
    "name that is no text": lambda dumplog: os.makedirs(os.fsencode(dumplog) + b"/20240101080000-00000001/\xff"),
}


@pytest.mark.parametrize("name", HOSTILE)
def test_hostile_folder_is_only_looked_at(scratch: Path, name: str) -> None:
    dumplog = scratch / "dumplog"
    dumplog.mkdir()
    (scratch / "secret").write_text("system exception core [NA], reason [secret], time [")
    HOSTILE[name](dumplog)
    for folder in dumplog.glob("*/*/"):
        (folder / "DONE").touch()
    report = reading.read(dumplog)
    text = show.words(report)
    assert "secret" not in text and all(char.isprintable() or char == "\n" for char in text)
    assert json.dumps(report, ensure_ascii=False).encode("utf-8")


# A promise that does not hold is told as broken.

BROKEN: Dict[str, Dict[str, Any]] = {
    "exit status 1, found 0": {"status": 1},
    "line 1 of the history": {"history": None},
    "dump folder with DONE; found": {"collected": ["DONE"]},
    "new dump folder with nothing": {"collected": []},
    "rawdump as promised; the first other byte is at offset 4194304": {"cleared": ["reasonNode"]},
    "rawdump as promised; the first other byte is at offset 1": {"reason_header": bytes(472)},
    "a full dump is collected": {"fulldump": True},
    "bootfail_info as promised; the first other byte is at offset 1024": {"meta": b"\1" * 56},
    "a log line with: never": {"log": ["never"]},
    "no log line with: abnormal boot": {"not_log": ["abnormal boot"]},
    "/data/never is there": {"present": ["never"]},
    "/data/vendor is gone": {"gone": ["vendor"]},
    "line 1 of the factory events": {"factory_events": ["one"]},
}


def test_broken_promises_are_told(panicked: Phone) -> None:
    boot = panicked.boot()
    assert boot.broken() == []
    for said, change in BROKEN.items():
        boot.expect = replace(panicked.scenario.expect, **change)
        assert any(promise.startswith(f"broken promise: {said}") for promise in boot.broken()), (said, boot.broken())
    boot.expect = panicked.scenario.expect
    boot.run.err += b"==1==ERROR\n"
    boot.run.out = b""
    (panicked.boots()[0] / "last_kmsg").write_bytes(b"other")
    (panicked.boots()[0] / "rawdump.bin").write_bytes(b"\x1f\x8b")
    told = "\n".join(boot.broken())
    for said in ("of standard error", "standard output", "last_kmsg holds the text", "rawdump.bin is a whole gzip"):
        assert said in told


def test_golden_log_is_needed_and_held(scratch: Path) -> None:
    file = scratch / "phone.json"
    file.write_text('{"base": "normal-restart"}')
    golden = scenario.load("normal-restart").golden.read_text()
    file.with_suffix(".log").write_text(golden.replace("I vorta: vorta is beta", "E vorta: vorta is beta"))
    boot = check.boot(scenario.load(str(file)), scratch / "phone", options())
    assert boot.broken() == ["broken promise: line 1 of the log: E vorta: vorta is beta; found I vorta: vorta is beta"]
    boot.scenario = replace(boot.scenario, file=scenario.load("normal-restart").file.with_name("new.json"))
    assert "vortadev check --update phone writes it" in "".join(boot.broken())
    boot.scenario = scenario.load(str(file))
    assert check.update(boot.scenario, scratch / "again", options()) == []
    assert file.with_suffix(".log").read_text() == golden
