"""What stands in log regions, dumps and files: text as a phone leaves it, between binary bytes. The same seed gives the
same bytes with every Python."""

from __future__ import annotations

from dataclasses import dataclass
from random import Random
from typing import List, Sequence, TypeVar

from . import phone

MINIDUMP = "minidump"  # the name of memory pages
PAGE = 4096
DISTINCT = 200  # pages of a dump, or lines of a log, that differ; more of them would only take time
SHORT_LOG = 8192  # bytes that a log has unless it is full: the phone's `strings` is slow where there is much text
CHUNK = 1 << 20

# How each component logs. In the lines '#' stands for a hexadecimal and '%' for a decimal digit.
BOOT_LOADER = (
    "pm_device_init, Start, Delta %%% us",
    "DDR Frequency, %%%% MHz",
    "PM: PON REASON: 0x######",
    "Auth Metadata, Delta %%% us, hash ########",
    "UFS INQUIRY ID: lun %, serial ########",
    "ABL: slot _a active, retry %",
)
KERNEL = (
    "init: Service 'vendor.sensors' (pid %%%%) exited with status %",
    "binder: %%%%:%%%% transaction failed 29189/-22, size %%-0",
    "healthd: battery l=%% v=%%%% t=2%.% h=2 st=3",
    "ufshcd-qcom 1d84000.ufshc: gear %, lanes 2, clk scaling %",
    "audit: type=1400 avc: denied { read } pid=%%%%",
    "thermal thermal_zone%%: temperature %%%%% mC",
)
TRUST_ZONE = (
    "qsee: app %% loaded at 0x########",
    "TZBSP: SMC 0x######## core %",
    "qsee: listener 0x#### request, len %%%",
    "xPU: client 0x## address 0x######## granted",
)
LOG_STYLES = {  # the format of a time stamp in seconds, and lines
    "xbl_abl": ("B - %10.6f - ", BOOT_LOADER),
    "last_xbl_abl": ("B - %10.6f - ", BOOT_LOADER),
    "last_kmsg": ("[%12.6f] ", KERNEL),
    "tz_log": ("(%10.4f) ", TRUST_ZONE),
}

# Takes the printable characters out of random bytes, so that the text of a log is exactly its lines.
UNPRINTABLE = bytes(byte if byte >= 0x80 else byte % 8 for byte in range(256))
T = TypeVar("T")


@dataclass(frozen=True)
class Fill:
    """What fills a byte range."""

    kind: str = "bytes"  # "phone", "random" or "bytes"
    size: int = 0  # bytes
    seed: int = 0
    data: bytes = b""  # of "bytes": the content, with zeros behind it; of "phone": lines that close a log
    full: bool = False  # of "phone": a log fills its range


def is_known(name: str) -> bool:
    """Whether it is known what a phone leaves under this name."""
    return name in LOG_STYLES or name in (MINIDUMP, phone.HISTORY_NAME)


def render(fill: Fill, name: str = "") -> bytes:
    """The bytes of a fill, exactly its size; the name selects what a phone leaves."""
    random = Random(fill.seed)
    if fill.kind == "random":
        data = b"".join(random.randbytes(min(CHUNK, fill.size - at)) for at in range(0, fill.size, CHUNK))
    elif fill.kind == "bytes":
        data = fill.data
    elif name in LOG_STYLES:
        data = log(fill, *LOG_STYLES[name], random)
    else:
        data = memory(fill.size, random) if name == MINIDUMP else history(fill.size, random)
    return data[: fill.size].ljust(fill.size, b"\0")


def below(limit: int, random: Random) -> int:
    return int(random.random() * limit)  # randrange differs between versions


def one_of(choices: Sequence[T], random: Random) -> T:
    return choices[below(len(choices), random)]


def filled(pattern: str, random: Random) -> str:
    digits = {"#": "0123456789abcdef", "%": "0123456789"}
    return "".join(one_of(digits[char], random) if char in digits else char for char in pattern)


def log(fill: Fill, stamp: str, patterns: Sequence[str], random: Random) -> bytes:
    """Lines behind binary record headings. Both ends of the range hold some, so that a copy that lacks one shows."""
    lines = [filled(one_of(patterns, random), random) for _ in range(DISTINCT)]
    last = record(fill.size, stamp, fill.data.decode("utf-8").splitlines() or lines[:1], random)
    end = min(fill.size * 9 // 10 if fill.full else SHORT_LOG, fill.size - len(last) - PAGE)
    text = bytearray()
    while len(text) < end:
        some = [one_of(lines, random) for _ in range(1 + below(12, random))]
        text.extend(record(len(text), stamp, some, random))
    return bytes(text).ljust(fill.size - len(last), b"\0") + last


def record(offset: int, stamp: str, lines: Sequence[str], random: Random) -> bytes:
    text = bytearray(random.randbytes(16).translate(UNPRINTABLE))
    for line in lines:
        seconds = (offset + len(text)) / 10000  # time grows with the log
        text.extend(f"{stamp % seconds}{line}\n".encode("utf-8"))
    return bytes(text)


def memory_page(random: Random) -> bytes:
    """Kernel pointers and counters, text, noise or nothing."""
    kind = below(16, random)
    if kind < 6:
        base = 0xFFFFFFC000000000 | random.getrandbits(30)
        words = [random.getrandbits(8) if below(4, random) == 0 else base + 8 * below(4096, random) for _ in range(512)]
        return b"".join(word.to_bytes(8, "little") for word in words)
    if kind < 11:
        lines = [filled(line, random) for line in one_of((BOOT_LOADER, KERNEL, TRUST_ZONE), random)]
        return "\0".join(one_of(lines, random) for _ in range(PAGE // 16)).encode("ascii")[:PAGE]
    return random.randbytes(PAGE) if kind > 13 else bytes(PAGE)


def memory(size: int, random: Random) -> bytes:
    pages = [memory_page(random) for _ in range(DISTINCT)]
    return b"".join(one_of(pages, random) for _ in range(0, size, PAGE))


def history(size: int, random: Random) -> bytes:
    """Lines of past boots, one an hour; the first one's reason is stretched to reach the size."""
    lines: List[str] = []
    left = size
    while True:
        hour = len(lines)
        time = f"{2024 + hour // 8064}{hour // 672 % 12 + 1:02}{hour // 24 % 28 + 1:02}{hour % 24:02}"
        time += f"{below(60, random):02}{below(60, random):02}-{below(10**8, random):08}"
        line = phone.history_line(one_of(("reboot", "reboot_longkey"), random), time, "NORMALBOOT")
        if len(line) > left:
            break
        lines.append(line)
        left -= len(line)
    text = "".join(lines)
    reason_at = len(phone.HISTORY_TEXTS[0]) if lines else 0
    return (text[:reason_at] + "x" * left + text[reason_at:]).encode("ascii")
