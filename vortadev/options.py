"""The options of run, shell and check: how the daemon is run."""

from __future__ import annotations

import argparse
from contextlib import suppress
from dataclasses import fields
from datetime import datetime
import os
from pathlib import Path
import re
import shlex
from typing import Any, Callable, Dict, Optional, Tuple, Type, TypeVar

from .bubblewrap import Options
from .document import parse_size

LARGEST_DATA = 1 << 50
T = TypeVar("T")
N = TypeVar("N", int, float)


def checked(what: str, read: Callable[[str], Optional[T]]) -> Callable[[str], T]:
    """Complains where nothing can be read."""

    def checking(text: str) -> T:
        with suppress(ValueError):
            value = read(text)
            if value is not None:
                return value
        raise argparse.ArgumentTypeError(f"expected {what}, found {text or 'nothing'}")

    return checking


def number(kind: Type[N], lowest: float, highest: float) -> Callable[[str], N]:
    what = f"a{' whole' if kind is int else ''} number from {lowest} to {highest:.0f}"
    return checked(what, lambda text: kind(text) if lowest <= kind(text) <= highest else None)


def data_size(text: str) -> Optional[int]:
    size = parse_size(text) or 0
    return size if 0 < size <= LARGEST_DATA else None


def umask(text: str) -> Optional[int]:
    return int(text, 8) if re.fullmatch("0*[0-7]{1,3}", text) else None


def date(text: str) -> Optional[datetime]:
    when = datetime.fromisoformat(text)
    return when if when.year >= 1970 and not when.tzinfo else None


local_time = checked("a local time from 1970 on, like 1970-01-01 00:00:10", date)


def bind(text: str) -> Optional[Tuple[str, str]]:
    host, _, inside = text.partition(":")
    return (host, inside) if os.path.exists(host) and inside.startswith("/") else None


def variable(text: str) -> Optional[Tuple[str, str]]:
    name, separator, value = text.partition("=")
    return (name, value) if name and separator else None


def add_run_options(parser: argparse.ArgumentParser) -> None:
    """Each is kept under the name of its field in Options."""
    add = parser.add_argument
    add("--daemon", metavar="PROGRAM", type=Path, help="the daemon to run; default: build/host/vorta")
    add("--as-init", action="store_true", help="run it as init does; without arguments, both services")
    add("--date", metavar="WHEN", type=local_time, help="where the phone's clock begins, e.g. '1970-01-01 00:00:10'")
    add("--loop", action="store_true", help="put loop devices under the partition names (root)")
    size = checked("bytes or a size like 64MiB, up to 1048576GiB", data_size)
    add("--data-size", metavar="SIZE", type=size, help="make /data a file system of that size, e.g. 64MiB")
    add("--read-only-data", action="store_true", help="mount /data read-only")
    mask = checked("an octal number up to 777", umask)
    add("--umask", metavar="MASK", type=mask, help="octal; default 0, and 077 with --as-init")
    add("--emulator", metavar="PROGRAM", type=Path, help="program that runs a daemon of another machine")
    add("--timeout", metavar="SECONDS", type=number(float, 0.001, 1e6), help="end the run after that time")
    wrapper = checked("a program with its arguments", shlex.split)
    what = "program with arguments to put in front, e.g. 'strace -f'"
    add("--wrap", dest="wrapper", metavar="COMMAND", type=wrapper, default=[], help=what)
    many: Dict[str, Any] = {"action": "append", "default": []}
    place = checked("HOST:INSIDE, a path that is there and an absolute one", bind)
    what = "make a file or folder of the host writable inside"
    add("--bind", dest="binds", metavar="HOST:INSIDE", type=place, help=what, **many)
    value = checked("NAME=VALUE", variable)
    add("--env", dest="environment", metavar="NAME=VALUE", type=value, help="set a variable inside", **many)
    add("--drop-cap", dest="drop_caps", metavar="CAP", help="run without a capability (root)", **many)


def run_options(arguments: argparse.Namespace) -> Options:
    values: Dict[str, Any] = {field.name: getattr(arguments, field.name) for field in fields(Options)}
    values["environment"] = dict(arguments.environment)
    return Options(**values)
