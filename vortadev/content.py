"""What stands in log regions, dumps and files: text as a phone leaves it, between binary bytes. The same seed gives the
same bytes with every Python."""
from __future__ import annotations

from dataclasses import dataclass
from random import Random
from typing import List, Sequence, Tuple, TypeVar

from . import phone

MINIDUMP = "minidump"  # the name of memory pages
PAGE = 4096
DISTINCT = 200  # pages of a dump, or lines of a log, that differ; more of them would only take time
SHORT_LOG = 8192  # bytes that a log has unless it is full: the phone's `strings` is slow where there is much text
CHUNK = 1 << 20

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


@dataclass(frozen=True)
class LogStyle:
    """How a component logs. In the lines, '#' stands for a hexadecimal and '%' for a decimal digit."""

    stamp: str  # format of the time in seconds
    step: float  # seconds between two lines at most
    opening: Tuple[str, ...]
    body: Tuple[str, ...]


BOOT_LOADER = LogStyle(
    "B - %10.6f - ",
    0.004,
    (
        "Format: Log Type - Time(s) - Message",
        "PBL, Start",
        "bootable_media_detect, Start",
        "XBL Start, Chip Serial 0x####%%%%",
    ),
    (
        "pm_device_init, Start, Delta %%% us",
        "DDR Frequency, %%%% MHz",
        "PM: PON REASON: 0x######",
        "Image Load, Start: partition %%",
        "Auth Metadata, Delta %%% us, hash ########",
        "UFS INQUIRY ID: lun %, serial ########",
        "ABL: slot _a active, retry %",
    ),
)
KERNEL = LogStyle(
    "[%12.6f] ",
    0.02,
    (
        "Booting Linux on physical CPU 0x0000000000 [0x412fd050]",
        "Linux version 5.4.147-qgki (build@host) SMP PREEMPT",
        "Kernel command line: console=ttyMSM0,115200n8",
    ),
    (
        "init: Service 'vendor.sensors' (pid %%%%) exited with status %",
        "binder: %%%%:%%%% transaction failed 29189/-22, size %%-0",
        "healthd: battery l=%% v=%%%% t=2%.% h=2 st=3",
        "ufshcd-qcom 1d84000.ufshc: gear %, lanes 2, clk scaling %",
        "cpufreq: cluster % at 1%%%% MHz",
        "audit: type=1400 avc: denied { read } pid=%%%%",
        "thermal thermal_zone%%: temperature %%%%% mC",
    ),
)
TRUST_ZONE = LogStyle(
    "(%10.4f) ",
    0.01,
    ("TZ log, version 2", "Boot entry, core 0", "xPU static configuration done"),
    (
        "qsee: app %% loaded at 0x########",
        "TZBSP: SMC 0x######## core %",
        "qsee: listener 0x#### request, len %%%",
        "xPU: client 0x## address 0x######## granted",
    ),
)
LOG_STYLES = {"xbl_abl": BOOT_LOADER, "last_xbl_abl": BOOT_LOADER, "last_kmsg": KERNEL, "tz_log": TRUST_ZONE}
PAST_BOOTS = (
    ("reboot", "NORMALBOOT"),
    ("reboot_longkey", "NORMALBOOT"),
    ("panic", "AP_CRASH"),
    ("XVDD", "HARDWARE_FAULT"),
)


def is_known(name: str) -> bool:
    """Whether it is known what a phone leaves under this name."""
    return name in LOG_STYLES or name in (MINIDUMP, phone.HISTORY_NAME)


def render(fill: Fill, name: str = "") -> bytes:
    """The bytes of a fill, exactly its size; the name selects what a phone leaves."""
    if fill.kind == "random":
        return random_bytes(fill.size, Random(fill.seed))
    data = fill.data
    if fill.kind == "phone" and name in LOG_STYLES:
        data = log_content(LOG_STYLES[name], fill)
    elif fill.kind == "phone":
        data = {MINIDUMP: memory, phone.HISTORY_NAME: history}[name](fill.size, Random(fill.seed))
    return data[: fill.size].ljust(fill.size, b"\0")


def below(limit: int, random: Random) -> int:
    return int(random.random() * limit)  # randrange differs between versions


def one_of(choices: Sequence[T], random: Random) -> T:
    return choices[below(len(choices), random)]


def random_bytes(size: int, random: Random) -> bytes:
    return b"".join(random.randbytes(min(CHUNK, size - at)) for at in range(0, size, CHUNK))


def filled(pattern: str, random: Random) -> str:
    digits = {"#": "0123456789abcdef", "%": "0123456789"}
    return "".join(one_of(digits[char], random) if char in digits else char for char in pattern)


def log_content(style: LogStyle, fill: Fill) -> bytes:
    """Lines behind binary record headings, then unused space, as in a log that has not wrapped."""
    random = Random(fill.seed)
    seconds = 0.0
    log = bytearray()

    def add(line: str) -> None:
        nonlocal seconds
        log.extend(f"{style.stamp % seconds}{line}\n".encode("utf-8"))
        seconds += style.step * random.random()

    for line in style.opening:
        add(filled(line, random))
    lines = [filled(one_of(style.body, random), random) for _ in range(DISTINCT)]
    closing = fill.data.decode("utf-8").splitlines()
    room = fill.size - sum(len(line) + 64 for line in closing) - 2048  # behind the last lines below
    end = min(fill.size * 9 // 10 if fill.full else SHORT_LOG, room)
    while len(log) < end:
        log.extend(random.randbytes(16).translate(UNPRINTABLE))
        for _ in range(1 + below(12, random)):
            add(one_of(lines, random))
    log.extend(random.randbytes(8).translate(UNPRINTABLE))
    for line in closing:
        add(line)
    return bytes(log)


def memory_page(random: Random) -> bytes:
    """Kernel pointers and counters, text, noise or nothing."""
    kind = below(16, random)
    if kind < 6:
        base = 0xFFFFFFC000000000 | random.getrandbits(30)
        words = [random.getrandbits(8) if below(4, random) == 0 else base + 8 * below(4096, random) for _ in range(512)]
        return b"".join(word.to_bytes(8, "little") for word in words)
    if kind < 11:
        style = one_of(list(LOG_STYLES.values()), random)
        lines = [filled(line, random) for line in style.body]
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
        reason, category = one_of(PAST_BOOTS, random)
        line = phone.history_line(reason, time, category)
        if len(line) > left:
            break
        lines.append(line)
        left -= len(line)
    text = "".join(lines)
    reason_at = len(phone.HISTORY_TEXTS[0]) if lines else 0
    return (text[:reason_at] + "x" * left + text[reason_at:]).encode("ascii")
