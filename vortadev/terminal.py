"""What the person at the terminal is told, and how it fits there."""

from __future__ import annotations

from contextlib import suppress
import os
import shutil
import sys
import time
from typing import Optional, TextIO

from .errors import DeviceError, printable

BAR = 30  # characters
CLEAR = "\r\x1b[K"


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


class Progress:
    """How far it is and the time left, on standard error if that is a terminal."""

    def __init__(self, total: int, what: str) -> None:
        self.total, self.what, self.done = total, what, 0
        self.start = self.shown = time.monotonic()
        self.shows = is_terminal(sys.stderr)

    def step(self) -> None:
        self.done += 1
        now = time.monotonic()
        if not self.shows or now - self.shown < 0.1:
            return
        self.shown = now
        full = BAR * self.done // self.total
        left = round((now - self.start) / self.done * (self.total - self.done))
        so_far = f"[{'#' * full}{' ' * (BAR - full)}] {self.done} of {self.total} {self.what}"
        self.write(f"{CLEAR}{so_far}, {left // 60}:{left % 60:02} left")

    def clear(self) -> None:
        if self.shows:
            self.write(CLEAR)

    def write(self, text: str) -> None:
        with suppress(OSError):
            sys.stderr.write(text)
            sys.stderr.flush()
