"""What the person at the terminal is told, and how it fits there."""

from __future__ import annotations

from contextlib import suppress
import os
import shutil
import sys
import time
from typing import Iterable, Iterator, Optional, TextIO, TypeVar

from .errors import DeviceError, printable

BAR = 30  # characters
CLEAR = "\r\x1b[K"
T = TypeVar("T")


def complain(text: str) -> None:
    with suppress(OSError):  # nobody is left to hear it
        print(f"vortadev: {printable(text)}", file=sys.stderr)


def say(text: str) -> None:
    if sys.stdout is None:
        raise DeviceError("cannot write standard output: it is closed")
    try:
        sys.stdout.write(text)
        sys.stdout.flush()
    except BrokenPipeError:
        raise
    except OSError as error:
        raise DeviceError(f"cannot write standard output: {error.strerror}") from None


def is_terminal(stream: Optional[TextIO]) -> bool:
    return stream is not None and stream.isatty()


def width() -> int:
    """Of the terminal that standard output is; elsewhere lines have no end."""
    return shutil.get_terminal_size().columns if is_terminal(sys.stdout) else 1 << 16


def coloured(text: str, colour: str) -> str:
    shows = is_terminal(sys.stdout) and not os.environ.get("NO_COLOR") and os.environ.get("TERM") != "dumb"
    return f"\x1b[{colour}m{text}\x1b[0m" if shows and text else text


def progress(found: Iterable[T], total: int, what: str) -> Iterator[T]:
    """Passes on what is found and says how far that is and the time left, on standard error if it is a terminal."""
    start = time.monotonic()
    try:
        for done, one in enumerate(found, 1):
            yield one
            left = round((time.monotonic() - start) / done * (total - done))
            full = "#" * (BAR * done // total)
            draw(f"[{full:<{BAR}}] {done} of {total} {what}, {left // 60}:{left % 60:02} left")
    finally:
        draw("")


def draw(text: str) -> None:
    if is_terminal(sys.stderr):
        with suppress(OSError):
            print(end=CLEAR + text, file=sys.stderr, flush=True)
