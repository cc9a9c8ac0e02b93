"""What every part of the tool says when something is wrong with what it was given."""

from __future__ import annotations


class DeviceError(Exception):
    """A complaint for the person at the terminal: one line that names the file, the key and what was expected."""


def printable(text: str) -> str:
    """The text with nothing in it that a terminal would act on: control characters become \\n, \\x1b, \\u202e, and
    bytes that are no UTF-8 (as surrogates) \\xNN."""
    return "".join(char if char.isprintable() else _escaped(char) for char in text)


def _escaped(char: str) -> str:
    return f"\\x{ord(char) - 0xDC00:02x}" if "\udc80" <= char <= "\udcff" else repr(char)[1:-1]


def size_text(size: int) -> str:
    """Bytes as a person reads them: "512 B", "28.0 MiB"."""
    units = ("B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB")
    shown, unit = float(size), 0
    while shown >= 1024 and unit + 1 < len(units):
        shown, unit = shown / 1024, unit + 1
    return f"{shown:.1f} {units[unit]}" if unit else f"{size} B"
