"""Finds in the log of the kernel that went down what it died of. The text comes from a stranger's phone: every line is
cut to a length, and every look at it takes time in proportion to that."""

from __future__ import annotations

import re
from typing import List, Optional, Tuple

from .errors import printable
from .evidence import KernelLog

LINE_LIMIT = 240  # characters of a line that are looked at
TAIL_LINES, EXCERPT_LINES = 20, 16
REPORT_LINES = 100  # lines of one crash follow each other within so many
SLACK = 1.0  # seconds: the processors' stamps may be that much out of order

# "[   12.345678] ", maybe behind a level like <6>, maybe with the task or processor as "[T123]" behind it.
STAMP = re.compile(r"[^\[]{0,16}\[ {0,12}(\d{1,10}\.\d{1,9})\](?: ?\[ {0,8}[TC]\d{1,9}\])? ?")
CRASHES = ("Kernel panic - not syncing", "Unable to handle kernel", "Internal error: ", "kernel BUG at ", "Oops")
WATCHDOG = re.compile(r"(?:\S{1,40} ){0,5}(?:\S{1,40}_)?watchdog:? (?:bark|bite|bug|detected|expired)", re.IGNORECASE)
VERSION = re.compile(r"Linux version (\d\S{0,90})|(?:Not t|T)ainted(?:: [A-Z ]{1,40})? (\d{1,3}\.\d{1,3}\S{0,90})")
FRAME = re.compile(r"(?:\[<[0-9a-fx]{1,20}>\] )?\??\s{0,4}([A-Za-z_$][\w.$]{0,127})\+0x[0-9a-f]{1,16}/0x[0-9a-f]")
# What stands above the function that failed in the trace of a plain panic: the report itself.
REPORTERS = frozenset("dump_backtrace show_stack dump_stack dump_stack_lvl die panic vpanic nmi_panic".split())

# What differs between two phones with the same crash.
DIFFERENT = (
    (re.compile(r"\[[^\]\s]{1,40}:\d{1,9}\]|\(?\bpid[:=]? ?\d{1,9}\)?", re.IGNORECASE), ""),
    (re.compile(r"\b(Comm:?|process|task) \S{1,40}", re.IGNORECASE), r"\1"),
    (re.compile(r"\b0x[0-9a-f]+|\b(?=[a-f]*\d)[0-9a-f]{8,16}\b|\d+", re.IGNORECASE), "#"),
    (re.compile(r"\s+"), " "),
)


def read(data: bytes) -> KernelLog:
    """`data` is a text log, last_kmsg as a rule."""
    lines, messages, seconds = kernel_lines(data.decode("ascii", "surrogateescape"))
    first, last = last_crash(messages)
    crash_line = function = None
    if last is not None:
        crash_line = printable(messages[last].strip())
        function = first_function(messages[first : last + REPORT_LINES])
    return KernelLog(
        version=version(lines),
        crash_line=crash_line,
        function=function,
        signature=signature(crash_line, function) if crash_line else None,
        seconds=seconds,
        excerpt=() if last is None else tuple(map(printable, lines[first : first + EXCERPT_LINES])),
        tail=tuple(map(printable, lines[-TAIL_LINES:])),
    )


def kernel_lines(text: str) -> Tuple[List[str], List[str], Optional[float]]:
    """The lines up to the last one whose stamp does not fall, the same without their stamps, and that last stamp: an
    older log or TrustZone's may follow. A log without stamps is taken whole."""
    lines = [line[:LINE_LIMIT] for line in text.rstrip("\n").split("\n")]
    messages: List[str] = []
    latest, end = -1.0, len(lines)
    for place, line in enumerate(lines, 1):
        found = STAMP.match(line)
        if found:
            seconds = float(found[1])
            if seconds < latest - SLACK:
                break
            latest, end = seconds if seconds > latest else latest, place
        messages.append(line[found.end() :] if found else line)
    return lines[:end], messages[:end], latest if latest >= 0 else None


def last_crash(messages: List[str]) -> Tuple[int, Optional[int]]:
    """Where the report of the last crash begins, and its last panic, oops or watchdog line."""
    first, last = 0, None
    for place, message in enumerate(messages):
        if message.startswith(CRASHES) or ("atchdog" in message and WATCHDOG.match(message)):
            first = place if last is None or place - last > REPORT_LINES else first
            last = place
    return first, last


def first_function(messages: List[str]) -> Optional[str]:
    """The first function of the first call trace, but for those that made the report."""
    functions: List[str] = []
    in_trace = False
    for message in messages:
        frame = FRAME.match(message.strip())
        if in_trace and frame:
            functions.append(frame[1].partition(".")[0])  # behind the dot is the compiler's
        elif functions or "stopping" in message:  # of the other processors
            break
        in_trace = in_trace or message.strip().lower() == "call trace:"
    return next((name for name in functions if name not in REPORTERS), functions[0] if functions else None)


def version(lines: List[str]) -> Optional[str]:
    found = next(filter(None, (VERSION.search(line) for line in lines if "ersion " in line or "ainted" in line)), None)
    return printable(found[1] or found[2]) if found else None


def signature(crash_line: str, function: Optional[str]) -> str:
    for pattern, other in DIFFERENT:
        crash_line = pattern.sub(other, crash_line)
    return crash_line.strip() + (f" in {function}" if function else "")
