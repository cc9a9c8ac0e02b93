"""The tool's modules and the daemon's headers say the same of records, regions, words, names and limits: neither side
has what the other lacks, but for what is listed here with a reason."""

from __future__ import annotations

import json
from pathlib import Path
import re
import subprocess
from typing import Any, Dict

from vortadev import phone, records

ROOT = Path(__file__).resolve().parents[2]
NODE = range(8, 328)  # of the reason header: a record of its own in the daemon's sources
HEADERS = ("handle/PartitionRecords.h", "handle/VortaHandle.h", "rainbow/RainbowPaths.h")
# The daemon's names that are not the tool's spelt its way (FILE_MODE is kFileMode).
DAEMONS = {
    "REASON_HEADER": "ReasonHeader",
    "DUMP_HEADER": "DumpHeader",
    "FULLDUMP_META": "fulldump_header",
    "REASON_REGION": "kReasonHeaderRegion",
    "REASON_NODE_REGION": "Region{offsetof(ReasonHeader, reasonNode), sizeof(ReasonNode)}",
    "META_REGION": "kFulldumpMetaRegion",
    "META_MAGIC": "kFulldumpMagic",
    "ABNORMAL_LEVEL": "kAbnormalBootLevel",
    "COPY_CHUNK": "VortaHandle::kCopyChunk",
    "PON_LOG": "kPmicPonLogPath",
    "BOARD_ID": "kBoardIdPath",
    "FACTORY_LIBRARY": '"/vendor/lib64/" + kFactoryLibrary',
    "DUMPLOG": "kDumplogRoot",
    "FULLDUMPLOG": "kFulldumplogRoot",
    "SHIPMODE": "kShipmodePath",
    "HISTORY_TEXTS": "std::string(kHistoryFormat)",
    "DUMPLOG_LIMIT_INTERNAL": "kDumplogLimit",
}
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


def constants() -> Dict[str, Any]:
    """The tool's, those of a table by a name of their own."""
    found = {name: value for module in (records, phone) for name, value in vars(module).items() if name.isupper()}
    for log, region in found.pop("LOG_REGIONS").items():
        found.update({f"{log.upper()}_REGION": region, f"{log.upper()}_NAME": log})
    for kind, limit in found.pop("DUMPLOG_LIMITS").items():
        found[f"DUMPLOG_LIMIT_{kind.upper()}"] = limit
    return found


def expressions(name: str, value: Any) -> Dict[str, Any]:
    """What the daemon's sources write for it, and what they should have there."""
    daemons = DAEMONS.get(name, f"k{name.title().replace('_', '')}")
    if isinstance(value, records.Region):
        return {f"({daemons}).offset": value.offset, f"({daemons}).size": value.size}
    if not isinstance(value, records.Record):
        return {daemons: "%s".join(value) if isinstance(value, tuple) else value}
    found = {f"sizeof({daemons})": value.size}
    for at in value.fields:
        node = "reasonNode." if name == "REASON_HEADER" and at.offset in NODE else ""
        member = f"{daemons}, {node}{at.name}"
        found.update({f"offsetof({member})": at.offset, f"SIZE({member})": at.size})
    return found


def program() -> str:
    """Prints what the daemon has otherwise."""
    lines = [f'#include "{header}"' for header in HEADERS]
    lines += ["#include <stdio.h>", "#define SIZE(type, member) sizeof(type().member)", "int main() {"]
    for name, value in constants().items():
        for daemons, ours in expressions(name, value).items() if name not in words(ONLY_TOOL) else ():
            lines.append(f"if ({daemons} != {json.dumps(ours)}) puts({json.dumps(f'{daemons} is not {ours}')});")
    return "\n".join([*lines, "}"])


def test_values_are_equal(tmp_path: Path) -> None:
    build = ["c++", "-std=gnu++17", "-I.", "-o", tmp_path / "table", "rainbow/RainbowPaths.cpp", "-x", "c++", "-"]
    subprocess.run(build, cwd=ROOT, input=program(), text=True, check=True)
    assert subprocess.run([tmp_path / "table"], capture_output=True, text=True, check=True).stdout == ""
    assert words(ONLY_TOOL) <= constants().keys()


def test_tool_knows_each_name_of_the_headers() -> None:
    headers = "".join((ROOT / header).read_text() for header in HEADERS)
    code = re.sub(r"//.*|static_assert\([^;]+;", "", headers)
    named = set(re.findall(r"\b(k[A-Z]\w*)", code))
    members = set(re.findall(r"^    (?:u?int\d+_t|char) ((?!reserved)\w+)(?:\[\d+\])?;", code, re.M))
    known = set(re.findall(r"\w+", program()))
    assert named - known == words(ONLY_DAEMON)
    assert members <= known
