"""The tool's modules and the daemon's headers say the same of records, regions, words, names and limits: neither side
has what the other lacks, but for what is listed here with a reason."""

from __future__ import annotations

from pathlib import Path
import re
import subprocess
from typing import Any, Dict

from vortadev import phone, records

ROOT = Path(__file__).resolve().parents[2]
PRINTER = ROOT / "build/host/tests/print_table"
SOURCE = ROOT / "tests/print_table.cpp"

ONLY_TOOL = {
    "BLOCK_FOLDER CMDLINE RAWDUMP USERDATA BOOTFAIL PARTITIONS": "the daemon's sources have it, no boot goes without",
    "BUILD_PROP DAEMON SHELL PROPERTY_SIZE": "the phone's, not the daemon's",
    "CORVEL RAINBOW SERVICES ROOT_FOLDER_MODE": "init's",
    "RELIABILITY HISTORY": "made of names that are compared",
    "RECORD_TIME": "the daemon formats it; boots look at the text",
}
ONLY_DAEMON = {
    "kModeRawdump kModeUserdata kModeBootfail kRead kWrite": "inside the daemon only",
    "kCorvelPayload kFulldumpCrcLength kFulldumpDescriptorRegion": "follows from what is compared",
    "kNormalBootLevel kFulldumpMagicTail kDumpPresent kUnknownSreason kFulldumpRebuiltSize": "a value in scenarios",
    "kOcpKey kSreasonKey kRebootReasonKey": "words on the command lines of scenarios",
    "kDataMount kCreationMode kMaxTransfer kMaxCopy": "nothing that can be seen on the phone",
    "kVendorDeviceProperty": "read by no step",
}


def words(reasons: Dict[str, str]) -> set[str]:
    return set(" ".join(reasons).split())


def flat(name: str, value: Any) -> Dict[str, str]:
    """As the printer writes it."""
    if isinstance(value, records.Record):
        return {name: str(value.size), **{f"{name}.{at.name}": f"{at.offset} {at.size}" for at in value.fields}}
    if isinstance(value, dict):
        return {key: text for member, part in value.items() for key, text in flat(f"{name}.{member}", part).items()}
    if isinstance(value, records.Region):
        return {name: f"{value.offset} {value.size}"}
    return {name: "%s".join(value).rstrip("\n") if isinstance(value, tuple) else str(value)}


def constants(module: Any) -> Dict[str, Any]:
    return {name: value for name, value in vars(module).items() if re.fullmatch("[A-Z_]+", name)}


def test_values_are_equal() -> None:
    assert PRINTER.exists(), "cmake --build --preset host makes it"
    printed = subprocess.run([PRINTER], capture_output=True, text=True, check=True).stdout
    known = {**constants(records), **constants(phone)}
    compared = {name: value for name, value in known.items() if name not in words(ONLY_TOOL)}
    tool = {key: text for name, value in compared.items() for key, text in flat(name, value).items()}
    assert dict(re.findall(r"^(\S+) (.+)$", printed, re.M)) == tool
    assert words(ONLY_TOOL) <= known.keys()


def test_printer_knows_each_name_of_the_headers() -> None:
    source = SOURCE.read_text()
    headers = "".join((ROOT / name).read_text() for name in re.findall(r'^#include "(.+)"', source, re.M))
    code = re.sub(r"//.*|static_assert\([^;]+;", "", headers)
    named = set(re.findall(r"\b(k[A-Z]\w*)", code))
    members = set(re.findall(r"^    (?:u?int\d+_t|char) ((?!reserved)\w+)(?:\[\d+\])?;", code, re.M))
    known = set(re.findall(r"\w+", source))
    assert named - known == words(ONLY_DAEMON)
    assert members <= known
