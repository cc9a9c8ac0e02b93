"""What every part of the tool says when something is wrong with what it was given."""
from __future__ import annotations


class DeviceError(Exception):
    """A complaint for the person at the terminal: one line that names the file, the key and what was expected."""


def printable(text: str) -> str:
    """The text with nothing in it that a terminal would act on: control characters, and bytes that are no UTF-8 (as
    surrogates), become \\xNN."""
    return "".join(
        char if char.isprintable() else "".join(f"\\x{byte:02x}" for byte in char.encode("utf-8", "surrogateescape"))
        for char in text
    )
