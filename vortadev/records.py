"""The records and regions of a phone's raw partitions: the one place, beside the daemon's headers, that knows where
each field lies. Integers are little-endian; offsets and sizes are in bytes."""

from __future__ import annotations

from dataclasses import dataclass
from enum import Enum
from typing import Dict, Tuple, Union

Value = Union[int, str]


class Kind(Enum):
    NUMBER = "number"
    MAGIC = "magic word"  # four characters taken as one number, the first one highest
    TEXT = "text"  # padded with NUL


@dataclass(frozen=True)
class Field:
    name: str
    offset: int  # in its record
    size: int
    kind: Kind


@dataclass(frozen=True)
class Region:
    partition: str
    offset: int
    size: int


@dataclass(frozen=True)
class Record:
    """A packed record. `get` takes the record's bytes, which may end early: what is missing reads as zero."""

    size: int
    fields: Tuple[Field, ...]

    def field(self, name: str) -> Field:
        return next(field for field in self.fields if field.name == name)

    def number(self, record: bytes, name: str) -> int:
        field = self.field(name)
        return int.from_bytes(record[field.offset : field.offset + field.size], "little")

    def text(self, record: bytes, name: str) -> bytes:
        """The bytes up to the first NUL, at most to the end of the field."""
        field = self.field(name)
        return record[field.offset : field.offset + field.size].split(b"\0")[0]

    def put(self, record: bytearray, name: str, value: Union[int, bytes]) -> None:
        field = self.field(name)
        stored = value.to_bytes(field.size, "little") if isinstance(value, int) else value.ljust(field.size, b"\0")
        record[field.offset : field.offset + field.size] = stored


def fields(*layout: Tuple[str, int, int, Kind]) -> Tuple[Field, ...]:
    return tuple(Field(*row) for row in layout)


def magic(word: str) -> int:
    return int.from_bytes(word.encode("ascii"), "big")


def magic_text(word: int) -> str:
    """The four characters, or the number in hexadecimal if they are not printable."""
    text = word.to_bytes(4, "big")
    return text.decode("ascii") if all(0x20 <= byte < 0x7F for byte in text) else f"0x{word:X}"


def crc32_mpeg2(data: bytes) -> int:
    """CRC-32/MPEG-2: polynomial 0x04C11DB7, all bits set at first, neither reflected nor inverted."""
    crc = 0xFFFFFFFF
    for byte in data:
        crc ^= byte << 24
        for _ in range(8):
            crc = (crc << 1 ^ (0x04C11DB7 if crc >> 31 else 0)) & 0xFFFFFFFF
    return crc


RAWDUMP, USERDATA, BOOTFAIL = "rawdump", "userdata", "bootfail_info"
PARTITIONS = (RAWDUMP, USERDATA, BOOTFAIL)

RESET_NORMAL, RESET_ABNORMAL, RESET_WARM = magic("NMAL"), magic("ABNM"), magic("WARM")
TEXT_VALID = magic("VALD")
FULLDUMP_RESERVED = magic(";])W")  # a full dump waits in userdata
ABNORMAL_LEVEL = 2  # boot level: from here on there are logs to save
BOARD_ID_MAGIC = 0x0B0A1D1D

# The corvel value: tag in bits 48 to 63, corrected mark in bit 46, payload below it.
CORVEL_TAG, CORVEL_CORRECTED = 0x434F << 48, 1 << 46

REASON_HEADER = Record(
    472,
    fields(
        ("corvel", 0, 8, Kind.NUMBER),
        ("innerResetReason", 12, 4, Kind.MAGIC),
        ("resetType", 16, 4, Kind.MAGIC),
        ("bootLevel", 20, 4, Kind.NUMBER),
        ("mreasonStrFlag", 24, 4, Kind.MAGIC),
        ("sreasonStrFlag", 28, 4, Kind.MAGIC),
        ("mreasonStr", 40, 32, Kind.TEXT),
        ("sreasonStr", 72, 128, Kind.TEXT),
        ("fulldumpOffset", 392, 8, Kind.NUMBER),
        ("fulldumpReservedFlag", 400, 4, Kind.MAGIC),
        ("userType", 404, 8, Kind.TEXT),
        ("boardIdMagic", 456, 4, Kind.NUMBER),
        ("boardId", 464, 4, Kind.NUMBER),
    ),
)
DUMP_HEADER = Record(
    56,
    fields(
        ("text0", 0, 8, Kind.TEXT),
        ("word32a", 8, 4, Kind.NUMBER),
        ("flag", 12, 4, Kind.NUMBER),  # bit 0: a dump waits
        ("word64a", 16, 8, Kind.NUMBER),
        ("text1", 24, 8, Kind.TEXT),
        ("word32b", 32, 4, Kind.NUMBER),
        ("word64b", 36, 8, Kind.NUMBER),
        ("word64c", 44, 8, Kind.NUMBER),
        ("word32c", 52, 4, Kind.NUMBER),
    ),
)
FULLDUMP_META = Record(
    56,
    fields(
        ("magic", 0, 4, Kind.MAGIC),  # "ZZZZ"
        ("magicTail", 5, 1, Kind.TEXT),  # "Z"
        ("userType", 6, 1, Kind.TEXT),
        ("reservedFlag", 8, 4, Kind.MAGIC),
        ("dumpOffset", 16, 8, Kind.NUMBER),
        ("dumpSize", 32, 8, Kind.NUMBER),
        ("crc", 48, 4, Kind.NUMBER),  # CRC-32/MPEG-2 of what stands before it
    ),
)
META_MAGIC = magic("ZZZZ")

REASON_REGION = Region(RAWDUMP, 0, REASON_HEADER.size)
REASON_NODE_REGION = Region(RAWDUMP, 8, 320)  # what is cleared when the logs are collected
MINIDUMP_REGION = Region(RAWDUMP, 0x400000, 0x1C00000)  # begins with a DUMP_HEADER
META_REGION = Region(BOOTFAIL, 1024, FULLDUMP_META.size)

# The boot logs, by the name of the file that each is collected into, in the order of collection. The kernel log's
# range overlaps the first 512 KiB of the TrustZone log's.
LOG_REGIONS: Dict[str, Region] = {
    "xbl_abl": Region(RAWDUMP, 0x80000, 0x40000),
    "last_xbl_abl": Region(RAWDUMP, 0xC0000, 0x40000),
    "last_kmsg": Region(RAWDUMP, 0x200000, 0x180000),
    "tz_log": Region(RAWDUMP, 0x300000, 0x100000),
}

COPY_CHUNK = 524288  # a dump of that size or more is copied in whole chunks


def meta_crc(meta: bytes) -> int:
    return crc32_mpeg2(meta[: FULLDUMP_META.field("crc").offset])
