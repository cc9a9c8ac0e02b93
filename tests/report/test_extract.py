"""What `extract` and `show` make of images and of folders that may come from anybody."""

from __future__ import annotations

import errno
import gzip
import json
import os
from pathlib import Path
from typing import Any, Callable, Dict

import pytest
from simulated import Phone, variation

from vortadev import extract, reading, records, scenario, show
from vortadev.errors import DeviceError

BOOT = "20240101080000-00000001"


def rawdump(image: Path, out: Path, **changes: Any) -> Dict[str, Any]:
    return extract.rawdump(image, out, **{"minidump": False, "force": False, **changes})


def files(folder: Path) -> Dict[str, bytes]:
    """The dump unpacked: how well it is packed is nobody's promise."""
    found = {path.name: path.read_bytes() for path in folder.iterdir() if path.name not in ("DONE", "reason.json")}
    return {name: gzip.decompress(data) if name == "rawdump.bin" else data for name, data in found.items()}


def test_extract_is_what_the_daemon_collects(tmp_path: Path) -> None:
    phone = Phone(tmp_path / "phone", variation("panic"))
    report = rawdump(phone.partition("rawdump"), tmp_path / "out")
    phone.boot()
    assert files(tmp_path / "out") == files(phone.boots()[0])
    assert report["waiting"] == ["logs", "minidump"] and report["damaged"] == []
    assert report == json.loads((tmp_path / "out/reason.json").read_text("utf-8"))
    assert '  category              "AP_S_PANIC"' in report["words"]
    # What was collected waits no longer, but is there if it is asked for.
    assert "rawdump.bin" not in rawdump(phone.partition("rawdump"), tmp_path / "later")["files"]
    rawdump(phone.partition("rawdump"), tmp_path / "later", minidump=True, force=True)
    assert len(files(tmp_path / "later")["rawdump.bin"]) == records.MINIDUMP_REGION.size


@pytest.mark.parametrize("name", ["full-dump", "full-dump-below-one-chunk"])
def test_full_dump_is_what_the_daemon_copies(tmp_path: Path, name: str) -> None:
    phone = Phone(tmp_path / "phone", scenario.load(name) if name == "full-dump" else variation(name))
    image, meta = phone.partition("userdata"), phone.partition("bootfail_info")
    report = extract.userdata(image, tmp_path / "out", meta, force=False)
    assert report["waiting"] == ["fulldump"] and report["damaged"] == []
    phone.boot()
    (saved,) = (phone / "data/vendor/log/reliability/fulldumplog").glob("*-fulldump.bin")
    assert (tmp_path / "out/fulldump.bin").read_bytes() == saved.read_bytes()
    os.truncate(image, report["fulldump"]["offset"] + 1000)
    report = extract.userdata(image, tmp_path / "out", meta, force=True)
    assert report["files"]["fulldump.bin"] == 1000 and report["damaged"]
    phone.poke("bootfail_info", {1024 + 48: b"\0\0\0\0"})
    with pytest.raises(DeviceError, match="checksum is broken"):
        extract.userdata(image, tmp_path / "other", meta, force=False)


def test_image_that_ends_early_gives_what_is_there(tmp_path: Path) -> None:
    phone = Phone(tmp_path / "phone", variation("panic"))
    os.truncate(phone.partition("rawdump"), 0x280000)
    report = rawdump(phone.partition("rawdump"), tmp_path / "out")
    assert sorted(report["files"]) == ["last_kmsg", "last_xbl_abl", "xbl_abl"]
    assert report["damaged"] == ["last_kmsg: 524288 of 1572864 bytes are there", "tz_log: 0 of 1048576 bytes are there"]


def test_nothing_is_replaced_or_left_half_done(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    phone, out = Phone(tmp_path / "phone", variation("panic")), tmp_path / "out"
    image = phone.partition("rawdump")
    out.mkdir()
    (out / "tz_log").write_text("mine")
    with pytest.raises(DeviceError, match="--force"):
        rawdump(image, out)
    assert [path.name for path in out.iterdir()] == ["tz_log"]
    image.rename(out / "last_kmsg")
    with pytest.raises(DeviceError, match="is what is to be read"):
        rawdump(out / "last_kmsg", out, force=True)
    for place in (Path("/dev/full"), Path("/dev/full/out")):
        with pytest.raises(DeviceError, match="/dev/full"):
            rawdump(out / "last_kmsg", place, force=True)

    def full(*_: Any) -> None:
        raise OSError(errno.ENOSPC, os.strerror(errno.ENOSPC))

    monkeypatch.setattr(gzip.GzipFile, "write", full)
    with pytest.raises(DeviceError, match="No space left"):
        rawdump(out / "last_kmsg", tmp_path / "full")
    assert not list((tmp_path / "full").glob("rawdump.bin*"))


def poses_as_device(folder: Path, link: str, target: Path) -> None:
    (folder / "dev/block/by-name").mkdir(parents=True)
    (folder / "scenario.json").write_text("[" * 100000)
    (folder / link).symlink_to(target)


def history_of(size: int) -> Callable[[Path], Any]:
    return lambda dumplog: os.truncate(os.open(dumplog / "history.log", os.O_WRONLY | os.O_CREAT), size)


HOSTILE: Dict[str, Callable[[Path], Any]] = {  # what is done to a dumplog beside which a secret lies
    "history.log is no regular file": lambda dumplog: os.mkfifo(dumplog / "history.log"),
    "history.log is a link": lambda dumplog: (dumplog / "history.log").symlink_to(
        dumplog.parent / "secret/history.log"
    ),
    "only the first 2.0 MiB": history_of(1 << 30),
    "905 more names": lambda dumplog: [(dumplog / name).mkdir() for name in [BOOT, *map("{:05}".format, range(5000))]],
    "  DONE\n    51 more names": lambda dumplog: [
        os.makedirs(dumplog / BOOT / name) for name in ["DONE", *map(str, range(150))]
    ],
    "\\xff" * 255: lambda dumplog: os.makedirs(os.fsencode(dumplog / BOOT) + b"/" + b"\xff" * 255),
    "data: no such folder": lambda dumplog: poses_as_device(dumplog, "data", dumplog.parent / "secret"),
    "rawdump is a link": lambda dumplog: poses_as_device(dumplog, "dev/block/by-name/rawdump", Path("/etc/passwd")),
}


@pytest.mark.parametrize("said", HOSTILE)
def test_hostile_folder_is_told_in_a_sentence(tmp_path: Path, said: str) -> None:
    dumplog, secret = tmp_path / "dumplog", tmp_path / "secret"
    for folder in (dumplog, secret / "vendor/log/reliability/dumplog"):
        folder.mkdir(parents=True)
    for folder in (secret, secret / "vendor/log/reliability/dumplog"):
        (folder / "history.log").write_text("system exception core [NA], reason [secret], time [")
    HOSTILE[said](dumplog)
    text = show.words(reading.read(dumplog))
    assert BOOT in text or not (dumplog / BOOT).exists()
    assert said in text and "[secret" not in text and all(char.isprintable() or char == "\n" for char in text)


def test_images_one_folder_deeper_are_found(tmp_path: Path) -> None:
    phone = Phone(tmp_path / "phone", variation("panic"))
    (tmp_path / "pulled/deeper").mkdir(parents=True)
    phone.partition("rawdump").rename(tmp_path / "pulled/deeper/customer.img")
    os.mkfifo(tmp_path / "pulled/deeper/rawdump.img")
    report = reading.read(tmp_path / "pulled")
    assert [image["minidump"]["waiting"] for image in report["images"]] == [True]
    with pytest.raises(DeviceError):
        rawdump(tmp_path / "pulled/deeper/rawdump.img", tmp_path / "out")
