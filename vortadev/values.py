"""What the values of a scenario stand for: fills, bytes, records. `seed` is the scenario's own, used where a fill has
none."""

from __future__ import annotations

import re
from typing import Sequence, Union

from . import content, records
from .content import Fill
from .document import LARGEST, Node
from .records import Field, Kind, Record

FILE_LIMIT = 1 << 30  # bytes of a file; also the mark of a range that has no size of its own
FILL_KEYS = ("phone", "zeros", "random", "text", "file", "size", "full")


def fill_kind(node: Node) -> str:
    """The key that says what fills, or what stands for it; several of them make a kind that is not known. What a
    scenario does not name at all is filled as a phone does."""
    if not isinstance(node.value, str):
        node.require_keys(FILL_KEYS)
        return "".join(key for key, _ in node.items() if key not in ("size", "full")) if node else "phone"
    return node.value


def read_fill(node: Node, name: str, limit: int, seed: int) -> Fill:
    """`name` selects the phone content, `limit` is the size of the range in bytes."""
    kind = fill_kind(node)
    value = node[kind]
    data = b""
    if kind == "phone":
        if not content.is_known(name):
            node.fail(f'no phone content is known for "{name}"; expected text, file, zeros or random')
        data = value.text_or_lines() if isinstance(value.value, list) else b""
    elif kind == "random":
        seed = value.number(seed)
    elif kind == "text" and value:
        data = value.text_or_lines()
    elif kind == "file" and value:
        data = read_beside(value)
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


def read_bytes(node: Node, limit: int, seed: int) -> bytes:
    """A text, a list of lines or a fill."""
    return content.render(read_fill(node, "", limit, seed)) if isinstance(node.value, dict) else node.text_or_lines()


def read_hex(node: Node, expected: str) -> bytes:
    """ "00 FE b6"; anything else is not what was expected."""
    digits = node.value.replace(" ", "") if isinstance(node.value, str) else "-"
    if not re.fullmatch("([0-9A-Fa-f]{2})*", digits):
        node.expected(expected)
    return bytes.fromhex(digits)


def read_board_id(node: Node) -> bytes:
    if not isinstance(node.value, list) or len(node.value) != 4:
        return read_hex(node, 'four cells, or bytes in hexadecimal like "00 00 00 05"')
    return b"".join(cell.number(largest=0xFFFFFFFF).to_bytes(4, "big") for cell in node.elements())


def read_number(node: Node, field: Field, what: str) -> int:
    text = node.value if isinstance(node.value, str) else ""
    if not node.is_number() and not re.fullmatch("0x[0-9A-Fa-f]+", text):
        node.expected(what)
    number = int(text, 16) if text else int(node.value)
    largest = LARGEST >> (64 - 8 * field.size)
    if number > largest:
        node.expected(f"at most 0x{largest:X}")
    return number


def read_field(node: Node, field: Field) -> Union[int, bytes]:
    text = node.value.encode("utf-8") if isinstance(node.value, str) else b""
    if field.kind == Kind.NUMBER:
        return read_number(node, field, 'a whole number or "0x..."')
    if field.kind == Kind.MAGIC:
        is_word = len(text) == 4 and not re.fullmatch(b"0x[0-9A-Fa-f]{2}", text)
        what = 'four characters, a whole number or "0x..."'
        return int.from_bytes(text, "big") if is_word else read_number(node, field, what)
    if not isinstance(node.value, str) or len(text) > field.size:
        node.expected(f"a text of at most {field.size} bytes")
    return text


def read_record(node: Node, layout: Record, before: bytes, seed: int, left_out: Sequence[str] = ()) -> bytes:
    """The record as it was before, with the fields that the node names, but for those that are left out."""
    node.require_keys(["fill"] + [field.name for field in layout.fields])
    record = bytearray(before)
    if node["fill"]:
        data = content.render(read_fill(node["fill"], "", len(record), seed))
        record[: len(data)] = data
    for field in layout.fields:
        if node[field.name] and field.name not in left_out:
            layout.put(record, field.name, read_field(node[field.name], field))
    return bytes(record)


def read_meta(node: Node, before: bytes, seed: int) -> bytes:
    """A meta record, whose checksum is valid unless the node says otherwise."""
    if not node:
        return before
    crc = node["crc"]
    if crc and crc.value not in ("valid", "damaged"):
        return read_record(node, records.FULLDUMP_META, before, seed)
    record = bytearray(read_record(node, records.FULLDUMP_META, before, seed, ["crc"]))
    valid = records.meta_crc(bytes(record))
    records.FULLDUMP_META.put(record, "crc", valid ^ 0xFFFFFFFF if crc.value == "damaged" else valid)
    return bytes(record)
