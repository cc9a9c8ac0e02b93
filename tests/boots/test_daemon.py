"""What a run leaves besides its promise: output and exit status, modes and owners, what a later boot finds, the end of
a partition. Paths, texts and numbers that others rely on are spelt out here."""

from __future__ import annotations

from dataclasses import replace
import os
from pathlib import Path
import re
from typing import Dict

from conftest import MakePhone
import pytest
from simulated import DUMPLOG, FULLDUMPLOG, Phone, options, traced, variation

from vortadev import device, loop, scenario
from vortadev.errors import DeviceError

USAGE = """\
Usage: /vendor/bin/vorta [options] 
options include:
  -r <rainbow>     Trigger a pre-defined rainbow service <rainbow>
  -h <corvel>      Trigger a pre-defined corvel service <corvel>
"""
UNKNOWN = "Main:Unrecognized Option\n" + USAGE
NO_SERVICE = (0, "StartVorta\n", "[vorta] input srvName is invalid\n")
REFUSED = (255, "", f"/vendor/bin/vorta: invalid option -- '-'\n{UNKNOWN}")

COMMAND_LINES = {  # exit status, standard output, standard error
    "": NO_SERVICE,
    "operand": NO_SERVICE,
    "operand -x": NO_SERVICE,
    "--help": (0, "", USAGE),
    "--helpme -r x": (0, "", USAGE),
    "--hel": REFUSED,
    "-r x --help": REFUSED,
    "-r": (255, "", f"/vendor/bin/vorta: option requires an argument -- 'r'\n{UNKNOWN}"),
    "-x": (255, "", f"/vendor/bin/vorta: invalid option -- 'x'\n{UNKNOWN}"),
}


def test_options_choose_the_service(make_phone: MakePhone) -> None:
    phone = make_phone(replace(scenario.load("normal-restart"), arguments=[]))
    for line, wanted in COMMAND_LINES.items():
        boot = phone.boot(*line.split())
        assert (boot.run.status, boot.run.out.decode(), boot.run.err.decode()) == wanted, line
        assert boot.after == boot.before


def test_closed_standard_descriptors_are_occupied(make_phone: MakePhone) -> None:
    """A partition that got the number of one would have the log's echo, or "StartVorta", written into it."""
    boot = make_phone(scenario.load("normal-restart")).boot(wrapper=["/bin/sh", "-c", 'exec "$0" "$@" <&- >&- 2>&-'])
    assert boot.run.err == b""
    assert boot.broken() == ["broken promise: standard output b'StartVorta\\n', found b''"]


def mode_and_owner(path: Path) -> str:
    found = path.stat()
    owner = f" {found.st_uid}:{found.st_gid}" if os.geteuid() == 0 else ""
    return f"{found.st_mode & 0o7777:o}{owner}"


@pytest.mark.parametrize("umask, text_mode", [(0o000, "666"), (0o077, "600")])
def test_files_have_their_names_modes_and_owners(panicked: Phone, umask: int, text_mode: str) -> None:
    history = panicked / DUMPLOG / "history.log"
    history.write_text("earlier\n")
    history.chmod(0o600)
    panicked.boot(umask=umask)
    (folder,) = panicked.boots()
    owner = " 0:1000" if os.geteuid() == 0 else ""
    assert mode_and_owner(history) == f"644{owner}"
    assert mode_and_owner(folder) == f"775{owner}"
    assert {path.name: mode_and_owner(path).split()[0] for path in folder.iterdir()} == {
        "DONE": "644",
        "rawdump.bin": "644",
        # The shell makes the text logs: the caller's mask decides.
        **{name: text_mode for name in ("last_kmsg", "last_xbl_abl", "tz_log", "xbl_abl")},
    }
    assert mode_and_owner(folder / "DONE") == mode_and_owner(folder / "rawdump.bin") == f"644{owner}"
    assert re.fullmatch(
        r"earlier\nsystem exception core \[NA\], reason \[panic\], time \[" + folder.name + r"\], "
        r"sysreboot \[true\], bootup_keypoint \[NA\], category \[AP_S_PANIC\]\n",
        history.read_text(),
    )
    assert re.fullmatch(r"20\d{12}-\d{8}", folder.name)


def test_full_dump_has_its_name_mode_and_owner(make_phone: MakePhone) -> None:
    phone = make_phone(scenario.load("full-dump"))
    phone.boot(umask=0o077)
    done, dump = sorted((phone / FULLDUMPLOG).iterdir(), reverse=True)
    assert done.name == "DONE"
    assert re.fullmatch(r"20\d{12}-\d{8}-fulldump\.bin", dump.name)
    owner = " 0:1000" if os.geteuid() == 0 else ""
    assert mode_and_owner(dump) == mode_and_owner(done) == f"644{owner}"


def test_second_boot_collects_nothing_again(panicked: Phone) -> None:
    first = panicked.boot()
    second = panicked.boot()
    assert second.after.partitions == first.after.partitions
    assert second.after.dumps == first.after.dumps
    assert second.after.history.count(b"system exception") == 2


@pytest.mark.skipif(options().emulator is not None, reason="strace is one of this machine")
def test_minidump_without_its_packed_file_waits(make_phone: MakePhone, scratch: Path) -> None:
    """The first boot tells which call of the daemon opens the file, the second one refuses it."""
    trace = scratch / "trace"
    trace.touch()
    calls = ("-o", "/trace", "-e", "trace=openat", "-e")
    make_phone(variation("panic")).boot(**traced(*calls, "signal=none", binds=[(str(trace), "/trace")]))
    opened = trace.read_text().splitlines()
    when = next(number for number, call in enumerate(opened, 1) if "rawdump.bin" in call)
    phone = make_phone(variation("panic"))
    refused = f"inject=openat:error=ENOSPC:when={when}"
    boot = phone.boot(**traced(*calls, refused, binds=[(str(trace), "/trace")]))
    assert re.search(r"^E vorta: \[DumpFileCreate\] open file /data/\S+/rawdump.bin errno = 28$", boot.run.log, re.M)
    assert "[DumpFileCompress]" not in boot.run.log
    assert sorted(path.name for path in phone.boots()[0].glob("*.bin")) == ["tmp.bin"]
    waiting, now = (state.partitions["rawdump"].read(0x400000, 56) for state in (boot.before, boot.after))
    assert waiting == now


@pytest.mark.skipif(options().emulator is not None, reason="strace is one of this machine")
def test_full_dump_that_cannot_be_read_waits(make_phone: MakePhone) -> None:
    phone = make_phone(scenario.load("full-dump"))
    behind_header = ("-P", "/dev/block/by-name/userdata", "-e", "inject=read:error=EIO:when=2+")
    boot = phone.boot(**traced("-o", "/dev/null", *behind_header))
    assert boot.run.log.endswith("E vorta: [DumpFileUpdate] PartToEmmc return fail\n")
    assert [path.stat().st_size for path in (phone / FULLDUMPLOG).iterdir()] == [0]
    waiting, now = (state.partitions["userdata"].read(0x1000000, 56) for state in (boot.before, boot.after))
    assert waiting == now


@pytest.mark.parametrize(
    "arguments, fields",
    [
        ("-h boot", {0: bytes.fromhex("00feb68504404f43")}),
        ("-r boot", {12: b"LAMN", 20: b"\1\0\0\0DLAVDLAV", 40: b"NORMALBOOT", 72: b"PS_HOLD", 404: b"3"}),
    ],
)
def test_what_rawdump_does_not_hold_is_zeros(make_phone: MakePhone, arguments: str, fields: Dict[int, bytes]) -> None:
    """An empty file stands for it; the record that is written to it holds the daemon's fields and no stray memory."""
    wanted = scenario.load("normal-restart")
    phone = make_phone(replace(wanted, partitions={**wanted.partitions, "rawdump": 0}))
    expected = bytearray(472)
    for offset, data in {**fields, **({456: b"\x1d\x1d\n\x0b", 464: b"\x0f"} if "-r" in arguments else {})}.items():
        expected[offset : offset + len(data)] = data
    with pytest.raises(AssertionError, match="a partition file grew"):
        phone.boot(*arguments.split())
    assert phone.partition("rawdump").read_bytes() == expected


# The end of a partition, on a block device: a chunk that meets it is dropped, nothing grows.

END, CHUNK = 64 << 20, 512 << 10
ENDS = [  # how far before the end a dump of three chunks begins, what is copied of it
    (4 * CHUNK, 3 * CHUNK),
    (2 * CHUNK, 2 * CHUNK),
    (2 * CHUNK - 512, CHUNK),
    (512, 0),
]


@pytest.fixture
def loops(scratch: Path) -> None:
    """Skips where there are no loop devices."""
    image = scratch / "image"
    image.write_bytes(bytes(4096))
    try:
        os.close(loop.attach(image)[1])
    except (OSError, DeviceError) as error:
        pytest.skip(f"no loop devices here: {error}")


@pytest.mark.usefixtures("loops")
@pytest.mark.parametrize("from_end, copied", ENDS)
def test_end_of_a_partition(make_phone: MakePhone, from_end: int, copied: int) -> None:
    offset = END - from_end
    source = scenario.load("full-dump")
    meta = {"dumpSize": 3 * CHUNK, "dumpOffset": offset}
    phone = make_phone(scenario.parse({"base": "full-dump", "meta": meta}, source.file.with_name("end.json")))
    phone.poke("userdata", {offset + 12: b"\1"})
    boot = phone.boot(loop=True)
    assert boot.run.status == 0
    assert sum(path.stat().st_size for path in (phone / FULLDUMPLOG).iterdir()) == copied  # DONE is empty
    assert boot.after.partitions["userdata"].read(offset, 56) == bytes(56)
