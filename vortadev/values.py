"""What the values of a scenario stand for: fills, bytes, records. A fill without a seed has the scenario's."""

from __future__ import annotations

import re
from typing import Optional, Sequence, Union

from . import content, records
from .content import Fill
from .document import Node, is_whole
from .records import Field, Kind, Record

FILE_LIMIT = 1 << 30  # bytes of a file; also the mark of a range that has no size of its own
BOARD_ID = bytes((0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 5))  # where a scenario names none
FILL_KEYS = ("phone", "zeros", "random", "text", "file", "size", "full")


def fill_kind(node: Node) -> str:
    """The key that says what fills, or what stands for it; several of them make a kind that is not known. What a
    scenario does not name at all is filled as a phone does."""
    if isinstance(node.value, str):
        return node.value
    return "".join(key for key, _ in node.members(FILL_KEYS) if key not in ("size", "full")) if node else "phone"


def read_fill(node: Node, name: str, limit: int, variation: int = 0) -> Fill:
    """`name` selects the phone content, `limit` is the size of the range in bytes. Variations of a seed differ."""
    seed = node.beside("seed").number(1) + variation
    kind = fill_kind(node)
    value, data = node[kind], b""
    if kind == "phone":
        if not content.is_known(name):
            node.fail(f'no phone content is known for "{name}"; expected text, file, zeros or random')
        data = value.text_or_lines() if isinstance(value.value, list) else b""
    elif kind == "random":
        seed = value.number(seed)
    elif kind in ("text", "file") and value:
        data = value.text_or_lines() if kind == "text" else read_beside(value)
    elif kind != "zeros":
        node.expected("phone, zeros or random, or an object with one of these, text or file")
    known = kind in ("text", "file")
    if not known and not node["size"] and limit >= FILE_LIMIT:
        node.fail('expected a "size" as well')
    size = node["size"].size(len(data) if known else limit)
    if size > limit:
        node.fail(f"expected at most {limit} bytes, found {size}")
    return Fill(kind if kind in ("phone", "random") else "bytes", size, seed, data, node["full"].boolean())


def read_beside(node: Node) -> bytes:
    try:
        return (node.file().parent / node.text()).read_bytes()
    except (OSError, ValueError):
        node.expected("an existing file")


def read_bytes(node: Node, limit: int) -> bytes:
    """A text, a list of lines or a fill."""
    return content.render(read_fill(node, "", limit)) if isinstance(node.value, dict) else node.text_or_lines()


def read_hex(node: Node, count: str, expected: str) -> bytes:
    """ "00 FE b6"; anything else is not what was expected. `count` of bytes is that of a regular expression."""
    digits = node.value.replace(" ", "") if isinstance(node.value, str) else "-"
    node.require(bool(re.fullmatch(f"([0-9A-Fa-f]{{2}}){count}", digits)), expected)
    return bytes.fromhex(digits)


def read_board_id(node: Node) -> Optional[bytes]:
    if not node or node.value is None:
        return None if node else BOARD_ID
    if not isinstance(node.value, list) or len(node.value) != 4:
        return read_hex(node, "*", 'four cells, or bytes in hexadecimal like "00 00 00 05"')
    return b"".join(cell.number(largest=0xFFFFFFFF).to_bytes(4, "big") for cell in node.elements())


def read_field(node: Node, field: Field) -> Union[int, bytes]:
    """A magic word may be its four characters, each number "0x..."."""
    text = node.value if isinstance(node.value, str) else ""
    data = text.encode("utf-8")
    if field.kind == Kind.TEXT:
        node.require(node.value == text and len(data) <= field.size, f"a text of at most {field.size} bytes")
        return data
    is_hex = re.fullmatch("0x[0-9A-Fa-f]+", text)
    if field.kind == Kind.MAGIC and len(data) == 4 and not is_hex:
        return int.from_bytes(data, "big")
    number, largest = int(text, 16) if is_hex else node.value, (1 << 8 * field.size) - 1
    characters = "four characters, " if field.kind == Kind.MAGIC else ""
    node.require(is_whole(number), f'{characters}a whole number or "0x..."')
    node.require(number <= largest, f"at most 0x{largest:X}")
    return int(number)


def read_record(node: Node, layout: Record, before: bytes = b"", left_out: Sequence[str] = ()) -> bytes:
    """The record as it was before, or zeros, with the fields that the node names, but for those that are left out."""
    members = dict(node.members(["fill"] + [field.name for field in layout.fields]))
    record = bytearray(before or bytes(layout.size))
    if "fill" in members:
        data = content.render(read_fill(members["fill"], "", len(record)))
        record[: len(data)] = data
    for field in layout.fields:
        if field.name in members and field.name not in left_out:
            layout.put(record, field.name, read_field(members[field.name], field))
    return bytes(record)


def read_meta(node: Node, before: bytes = b"") -> bytes:
    """A meta record, whose checksum is valid unless the node says otherwise."""
    crc, layout = node["crc"], records.FULLDUMP_META
    if not node or (crc and crc.value not in ("valid", "damaged")):
        return read_record(node, layout, before)
    record = bytearray(read_record(node, layout, before, ["crc"]))
    valid = records.meta_crc(bytes(record))
    layout.put(record, "crc", valid ^ 0xFFFFFFFF if crc.value == "damaged" else valid)
    return bytes(record)
