"""A scenario: everything that a simulated device holds before a boot, how the daemon is started on it, and what has to
hold afterwards. scenarios/README.md lists the keys. All values are checked while reading, so that a Scenario is always
one that can be made."""

from __future__ import annotations

from dataclasses import dataclass
import json
from pathlib import Path
import posixpath
from typing import Any, Callable, Dict, List, Optional

from . import phone, records
from .content import MINIDUMP, Fill, render
from .document import SHIPPED, Document, Node, locate, parse_size, read_json
from .errors import DeviceError, printable
from .values import FILE_LIMIT, read_board_id, read_bytes, read_fill, read_hex, read_meta, read_record

__all__ = ["Scenario", "load", "parse", "parse_size", "shipped"]

SECTOR = 512
LARGEST_PARTITION = 2**63 - 1
CMDLINE_LIMIT, PON_LOG_LIMIT = 65536, 1 << 20  # of generated ones

PARTITION_SIZES = {records.RAWDUMP: 36 << 20, records.USERDATA: 64 << 20, records.BOOTFAIL: 1 << 20}
CMDLINE = b"console=ttyMSM0,115200n8 androidboot.hardware=qcom androidboot.slot_suffix=_a rootwait ro init=/init"
PON_LOG = (
    b"PON Trigger: KPDPWR_N\nReset Trigger: PS_HOLD\nReset Type: HARD_RESET\nWarm Reset Count: 0\nPON Successful\n"
)
BOARD_ID = bytes((0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 5))

BEFORE = "base description seed run partitions properties cmdline ponLog boardId reasonHeader logs minidump"
BEFORE += " fulldump meta data factoryLibrary expect"
AFTER = "status history collected fulldump cleared reasonHeader firstBytes meta log notLog present gone factoryEvents"


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


@dataclass(frozen=True)
class History:
    """The one line that a run adds."""

    category: str
    reason: str
    renewed: bool  # the old history was discarded at its limit


@dataclass(frozen=True)
class Expectations:
    """What has to hold after the run. What is not named must not have happened: a partition byte that nothing here
    allows to change, a dump folder or a history line that is not expected breaks the promise."""

    status: int
    history: Optional[History]
    collected: List[str]  # all files of the new dump folder, sorted; none: no folder
    fulldump: bool  # a new full dump with the dump's bytes, closed by its marker
    cleared: List[str]
    reason_header: bytes
    meta: bytes
    log: List[str]  # texts that some line of the log contains
    not_log: List[str]
    present: List[str]  # paths below /data
    gone: List[str]
    factory_events: List[str]  # lines that the factory library received


@dataclass(frozen=True)
class Scenario:
    name: str
    description: str
    file: Path
    source: str  # the JSON text, without a base
    arguments: List[str]  # of the daemon
    data_size: Optional[int]  # bytes of a small /data
    partitions: Dict[str, Optional[int]]  # sizes; None: the partition is missing
    properties: Dict[str, str]
    cmdline: bytes  # with its line feed
    pon_log: Optional[bytes]  # None: no such file
    board_id: Optional[bytes]
    reason_header: bytes
    logs: Dict[str, Fill]
    minidump: Dump
    fulldump: Optional[Dump]
    meta: bytes
    data: List[DataEntry]
    factory_library: str  # "present", "withoutSymbol" or ""
    expect: Expectations

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
        document = Document(value, file)
        return read_scenario(Node(document, document.value), file)
    except RecursionError:
        raise DeviceError(f"{file}: expected JSON of fewer levels") from None


def read_scenario(root: Node, file: Path) -> Scenario:
    root.require_keys(BEFORE.split())
    seed = root["seed"].number(1)
    run = root["run"]
    run.require_keys(("arguments", "dataSize"))
    partitions = read_partition_sizes(root["partitions"])
    reason_header = read_record(root["reasonHeader"], records.REASON_HEADER, bytes(records.REASON_HEADER.size), seed)
    meta = read_meta(root["meta"], bytes(records.FULLDUMP_META.size), seed)
    return Scenario(
        name=file.stem,
        description=root["description"].text(),
        file=file,
        source=json.dumps(root.value, indent=2, ensure_ascii=False) + "\n",
        arguments=run["arguments"].texts(phone.RAINBOW),
        data_size=run["dataSize"].size() if run["dataSize"] else None,
        partitions=partitions,
        properties=read_properties(root["properties"]),
        cmdline=(read_bytes(root["cmdline"], CMDLINE_LIMIT, seed) if root["cmdline"] else CMDLINE) + b"\n",
        pon_log=read_input(root["ponLog"], PON_LOG, lambda node: read_bytes(node, PON_LOG_LIMIT, seed)),
        board_id=read_input(root["boardId"], BOARD_ID, read_board_id),
        reason_header=reason_header,
        logs=read_logs(root["logs"], seed),
        minidump=read_minidump(root["minidump"], seed),
        fulldump=read_fulldump(root["fulldump"], partitions[records.USERDATA] or 0, seed),
        meta=meta,
        data=[read_data_entry(path, node, seed) for path, node in root["data"].items()],
        factory_library=read_factory_library(root["factoryLibrary"]),
        expect=read_expectations(root["expect"], reason_header, meta, seed),
    )


def read_partition_sizes(node: Node) -> Dict[str, Optional[int]]:
    node.require_keys(records.PARTITIONS)
    sizes: Dict[str, Optional[int]] = dict(PARTITION_SIZES)
    for name, value in node.items():
        size = None if value.value is None else value.size()
        if size is not None and (size % SECTOR != 0 or size > LARGEST_PARTITION):
            value.expected("a multiple of 512 bytes, or null for a missing partition")
        sizes[name] = size
    return sizes


def read_properties(node: Node) -> Dict[str, str]:
    properties = {}
    for name, value in node.items():
        text = value.text()
        if len(text.encode("utf-8")) > phone.PROPERTY_SIZE or "\n" in text:
            value.expected(f"a text of at most {phone.PROPERTY_SIZE} bytes without a line feed")
        properties[name] = text
    return properties


def read_input(node: Node, missing: bytes, read: Callable[[Node], bytes]) -> Optional[bytes]:
    """A file of the phone; None: the phone does not have it."""
    if node.value is None:
        return None
    return read(node) if node else missing


def read_logs(node: Node, seed: int) -> Dict[str, Fill]:
    node.require_keys(list(records.LOG_REGIONS))
    logs = {}
    for index, (name, region) in enumerate(records.LOG_REGIONS.items()):
        # Where a range begins inside of another one, each fills its own part.
        later = [other.offset for other in records.LOG_REGIONS.values() if other.offset > region.offset]
        own = min([region.size] + [offset - region.offset for offset in later])
        logs[name] = read_fill(node[name], name, own, seed + index)
    return logs


def read_dump(node: Node, offset: int, size: int, seed: int) -> Dump:
    header = read_record(node["header"], records.DUMP_HEADER, bytes(records.DUMP_HEADER.size), seed)
    fill = read_fill(node["content"], MINIDUMP, size, seed) if node["content"] else Fill()
    return Dump(offset, size, header, fill)


def read_minidump(node: Node, seed: int) -> Dump:
    node.require_keys(("header", "content"))
    return read_dump(node, records.MINIDUMP_REGION.offset, records.MINIDUMP_REGION.size, seed)


def read_fulldump(node: Node, room: int, seed: int) -> Optional[Dump]:
    if not node:
        return None
    node.require_keys(("offset", "size", "header", "content"))
    offset, size, least = node["offset"].size(), node["size"].size(), records.DUMP_HEADER.size
    if size < least or size > room or offset > room - size:
        node.fail(f"expected offset and size of a dump of at least {least} bytes within the {room} bytes of userdata")
    return read_dump(node, offset, size, seed)


def read_data_entry(path: str, node: Node, seed: int) -> DataEntry:
    normal = posixpath.normpath(path)
    if not path or "\0" in path or normal.startswith("/") or normal.split("/")[0] in (".", ".."):
        node.fail("expected a path relative to /data that stays below it")
    if node.value == "folder":
        return DataEntry(normal)
    if node["link"]:
        node.require_keys(("link",))
        target = node["link"].text()
        if not target or "\0" in target:
            node["link"].expected("a path")
        return DataEntry(normal, target=target)
    if not isinstance(node.value, dict):
        node.expected('"folder", {"link": TARGET} or what fills a file, like {"text": ...}')
    return DataEntry(normal, read_fill(node, posixpath.basename(normal), FILE_LIMIT, seed))


def read_factory_library(node: Node) -> str:
    if node and node.value not in ("present", "withoutSymbol"):
        node.expected('"present" or "withoutSymbol"')
    return node.text()


def read_expectations(node: Node, reason_header: bytes, meta: bytes, seed: int) -> Expectations:
    """`reason_header` and `meta` are those before the run."""
    node.require_keys(AFTER.split())
    cleared = node["cleared"].texts()
    if not set(cleared) <= {"reasonNode", "minidump", "fulldump"}:
        node["cleared"].expected('a list of "reasonNode", "minidump", "fulldump"')
    return Expectations(
        status=node["status"].number(0, 255),
        history=read_history(node["history"]),
        collected=sorted(node["collected"].texts()),
        fulldump=node["fulldump"].boolean(),
        cleared=cleared,
        reason_header=read_expected_header(node, reason_header, "reasonNode" in cleared, seed),
        meta=read_meta(node["meta"], meta, seed),
        log=node["log"].texts(),
        not_log=node["notLog"].texts(),
        present=node["present"].texts(),
        gone=node["gone"].texts(),
        factory_events=node["factoryEvents"].texts(),
    )


def read_history(node: Node) -> Optional[History]:
    node.require_keys(("category", "reason", "renewed"))
    history = History(node["category"].text(), node["reason"].text(), node["renewed"].boolean())
    return history if node else None


def read_expected_header(node: Node, before: bytes, cleared: bool, seed: int) -> bytes:
    header = bytearray(before)
    if cleared:
        region = records.REASON_NODE_REGION
        header[region.offset : region.offset + region.size] = bytes(region.size)
    header[:] = read_record(node["reasonHeader"], records.REASON_HEADER, bytes(header), seed)
    if node["firstBytes"]:
        expected = "eight bytes in hexadecimal"
        corvel = read_hex(node["firstBytes"], expected)
        if len(corvel) != records.REASON_HEADER.field("corvel").size:
            node["firstBytes"].expected(expected)
        header[: len(corvel)] = corvel
    return bytes(header)
