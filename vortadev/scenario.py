"""A scenario: everything that a simulated device holds before a boot, how the daemon is started on it, and what has to
hold afterwards. scenarios/README.md lists the keys. All values are checked while reading, so that a Scenario is always
one that can be made."""

from __future__ import annotations

from dataclasses import dataclass
import json
from pathlib import Path
import posixpath
from typing import Any, Dict, List, Optional, Sequence

from . import phone, records
from .content import MINIDUMP, Fill, is_known, render
from .document import SHIPPED, Node, keyed, locate, read_document, read_json, read_object
from .errors import DeviceError, printable
from .records import Region
from .values import FILE_LIMIT, read_board_id, read_bytes, read_fill, read_hex, read_meta, read_record

SECTOR = 512
LARGEST_PARTITION = 2**63 - 1
CMDLINE_LIMIT, PON_LOG_LIMIT = 65536, 1 << 20  # of generated ones

PARTITION_SIZES = {records.RAWDUMP: 36 << 20, records.USERDATA: 64 << 20, records.BOOTFAIL: 1 << 20}
CMDLINE = b"console=ttyMSM0,115200n8 androidboot.hardware=qcom androidboot.slot_suffix=_a rootwait ro init=/init"
PON_LOG = (
    b"PON Trigger: KPDPWR_N\nReset Trigger: PS_HOLD\nReset Type: HARD_RESET\nWarm Reset Count: 0\nPON Successful\n"
)


@dataclass(frozen=True)
class Dump:
    """A minidump or full dump as the boot chain leaves it in its partition."""

    offset: int  # in the partition
    size: int
    header: bytes
    fill: Fill

    def render(self) -> bytes:
        return self.header + render(self.fill, MINIDUMP)[len(self.header) :]


@dataclass(frozen=True)
class DataEntry:
    """An entry of the data folder before the boot: a file, a link or, with neither of these, a folder."""

    path: str  # below /data
    fill: Optional[Fill] = None
    target: Optional[str] = None


def read_partition_sizes(node: Node) -> Dict[str, Optional[int]]:
    sizes: Dict[str, Optional[int]] = dict(PARTITION_SIZES)
    for name, value in node.members(records.PARTITIONS):
        size = None if value.value is None else value.size()
        fits = size is None or (size % SECTOR == 0 and size <= LARGEST_PARTITION)
        value.require(fits, "a multiple of 512 bytes, or null for a missing partition")
        sizes[name] = size
    return sizes


def read_properties(node: Node) -> Dict[str, str]:
    for _, value in node.members():
        fits = len(value.text().encode("utf-8")) <= phone.PROPERTY_SIZE and "\n" not in value.text()
        value.require(fits, f"a text of at most {phone.PROPERTY_SIZE} bytes without a line feed")
    return {name: value.text() for name, value in node.members()}


def read_cmdline(node: Node) -> bytes:
    return (read_bytes(node, CMDLINE_LIMIT) if node else CMDLINE) + b"\n"


def read_pon_log(node: Node) -> Optional[bytes]:
    return None if node.value is None else read_bytes(node, PON_LOG_LIMIT) if node else PON_LOG


def read_logs(node: Node) -> Dict[str, Fill]:
    """A fill for each log, or one for all of them."""
    for name in records.LOG_REGIONS:
        if not is_known(name):
            raise DeviceError(f"vortadev/content.py: LOG_STYLES: expected the style of the log {name}, found none")
    if not isinstance(node.value, str):
        node.members(list(records.LOG_REGIONS))
    logs = {}
    for index, (name, region) in enumerate(records.LOG_REGIONS.items()):
        # Where a range begins inside of another one, each fills its own part.
        later = [other.offset for other in records.LOG_REGIONS.values() if other.offset > region.offset]
        own = min([region.size] + [offset - region.offset for offset in later])
        logs[name] = read_fill(node if isinstance(node.value, str) else node[name], name, own, index)
    return logs


def read_dump(node: Node, keys: Sequence[str], region: Region) -> Dump:
    node.members(keys)
    header = read_record(node["header"], records.DUMP_HEADER)
    fill = read_fill(node["content"], MINIDUMP, region.size) if node["content"] else Fill()
    return Dump(region.offset, region.size, header, fill)


def read_minidump(node: Node) -> Dump:
    return read_dump(node, ("header", "content"), records.MINIDUMP_REGION)


def read_fulldump(node: Node) -> Optional[Dump]:
    if not node:
        return None
    keys = ("offset", "size", "header", "content")
    node.members(keys)
    offset, size, least = node["offset"].size(), node["size"].size(), records.DUMP_HEADER.size
    room = read_partition_sizes(node.beside("partitions"))[records.USERDATA] or 0
    if size < least or size > room or offset > room - size:
        node.fail(f"expected offset and size of a dump of at least {least} bytes within the {room} bytes of userdata")
    return read_dump(node, keys, Region(records.USERDATA, offset, size))


def read_data(node: Node) -> List[DataEntry]:
    return [read_data_entry(path, entry) for path, entry in node.members()]


def read_data_entry(path: str, node: Node) -> DataEntry:
    normal = posixpath.normpath(path)
    if not path or "\0" in path or normal.startswith("/") or normal.split("/")[0] in (".", ".."):
        node.fail("expected a path relative to /data that stays below it")
    if node.value == "folder":
        return DataEntry(normal)
    if node["link"]:
        node.members(("link",))
        target = node["link"].text()
        node["link"].require(bool(target) and "\0" not in target, "a path")
        return DataEntry(normal, target=target)
    node.require(isinstance(node.value, dict), '"folder", {"link": TARGET} or what fills a file, like {"text": ...}')
    return DataEntry(normal, read_fill(node, posixpath.basename(normal), FILE_LIMIT))


def read_factory_library(node: Node) -> str:
    node.require(not node or node.value in ("present", "withoutSymbol"), '"present" or "withoutSymbol"')
    return node.text()


def read_reason_header(node: Node, before: bytes = b"") -> bytes:
    return read_record(node, records.REASON_HEADER, before)


def read_collected(node: Node) -> List[str]:
    """ "logs" stands for all of them."""
    names = node.texts()
    return sorted({*names, *records.LOG_REGIONS} - {"logs"}) if "logs" in names else sorted(names)


def read_cleared(node: Node) -> List[str]:
    known = {"reasonNode", "minidump", "fulldump"}
    node.require(set(node.texts()) <= known, 'a list of "reasonNode", "minidump", "fulldump"')
    return node.texts()


def read_header_after(node: Node) -> bytes:
    header = bytearray(read_reason_header(node.beside("reasonHeader")))
    if "reasonNode" in node["cleared"].texts():
        region = records.REASON_NODE_REGION
        header[region.offset : region.offset + region.size] = bytes(region.size)
    header[:] = read_reason_header(node["reasonHeader"], bytes(header))
    if node["firstBytes"]:
        header[:8] = read_hex(node["firstBytes"], "{8}", "eight bytes in hexadecimal")
    return bytes(header)


@dataclass(frozen=True)
class History:
    """The one line that a run adds."""

    category: str = keyed(Node.text)
    reason: str = keyed(Node.text)
    renewed: bool = keyed(Node.boolean)  # the old history was discarded at its limit


@dataclass(frozen=True)
class Expectations:
    """What has to hold after the run. What is not named must not have happened: a partition byte that nothing here
    allows to change, a dump folder or a history line that is not expected breaks the promise."""

    reason_header: bytes
    meta: bytes
    status: int = keyed(lambda node: node.number(0, 255))
    history: Optional[History] = keyed(lambda node: read_object(History, node) if node else None)
    collected: List[str] = keyed(read_collected)  # all files of the new dump folder; none: no folder
    fulldump: bool = keyed(Node.boolean)  # a new full dump with the dump's bytes, closed by its marker
    cleared: List[str] = keyed(read_cleared)
    log: List[str] = keyed(Node.texts)  # texts that some line of the log contains
    not_log: List[str] = keyed(Node.texts)
    present: List[str] = keyed(Node.texts)  # paths below /data
    gone: List[str] = keyed(Node.texts)
    factory_events: List[str] = keyed(Node.texts)  # lines that the factory library received


def read_expectations(node: Node) -> Any:
    node.members()
    header = read_header_after(node)
    meta = read_meta(node["meta"], read_meta(node.beside("meta")))
    return read_object(Expectations, node, ("reasonHeader", "firstBytes", "meta"), reason_header=header, meta=meta)


@dataclass(frozen=True)
class Scenario:
    name: str
    file: Path
    source: str  # the JSON text, without a base
    arguments: List[str]  # of the daemon
    data_size: Optional[int]  # bytes of a small /data
    description: str = keyed(Node.text)
    partitions: Dict[str, Optional[int]] = keyed(read_partition_sizes)  # None: the partition is missing
    properties: Dict[str, str] = keyed(read_properties)
    cmdline: bytes = keyed(read_cmdline)  # with its line feed
    pon_log: Optional[bytes] = keyed(read_pon_log)  # None: no such file
    board_id: Optional[bytes] = keyed(read_board_id)
    reason_header: bytes = keyed(read_reason_header)
    logs: Dict[str, Fill] = keyed(read_logs)
    minidump: Dump = keyed(read_minidump)
    fulldump: Optional[Dump] = keyed(read_fulldump)
    meta: bytes = keyed(read_meta)
    data: List[DataEntry] = keyed(read_data)
    factory_library: str = keyed(read_factory_library)  # "present", "withoutSymbol" or ""
    expect: Expectations = keyed(read_expectations)

    @property
    def golden(self) -> Path:
        """The whole log that the boot has to leave, times masked."""
        return self.file.with_suffix(".log")

    @property
    def is_shipped(self) -> bool:
        return self.file.parent == SHIPPED


def shipped() -> List[str]:
    return sorted(file.stem for file in SHIPPED.glob("*.json"))


def load(name_or_path: str) -> Scenario:
    file = locate(name_or_path, Path())
    if file.parent == SHIPPED and not file.exists():
        what = "vortadev scenarios lists them, and a file ends in .json"
        raise DeviceError(f"no shipped scenario is called {printable(name_or_path)}; {what}")
    return parse(read_json(file), file)


def parse(value: Any, file: Path) -> Scenario:
    """The scenario of a JSON value; `file` stands for it in complaints, and relative files are looked up beside it."""
    try:
        made: Scenario = read_scenario(read_document(value, file), file)
        return made
    except RecursionError:
        raise DeviceError(f"{file}: expected JSON of fewer levels") from None


def read_scenario(root: Node, file: Path) -> Any:
    run = root["run"]
    run.members(("arguments", "dataSize"))
    return read_object(
        Scenario,
        root,
        ("base", "seed", "run"),
        name=file.stem,
        file=file,
        source=json.dumps(root.value, indent=2, ensure_ascii=False) + "\n",
        arguments=run["arguments"].texts(phone.RAINBOW),
        data_size=run["dataSize"].size() if run["dataSize"] else None,
    )
