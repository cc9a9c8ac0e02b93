"""The options of run, shell and check: how the daemon is run."""

from __future__ import annotations

import argparse
from dataclasses import fields
from datetime import datetime
import math
import os
from pathlib import Path
import shlex
from typing import Any, Callable, Dict, List, Tuple, Type, Union

from .bubblewrap import Options
from .document import parse_size

LARGEST_DATA = 1 << 50


def add_run_options(parser: argparse.ArgumentParser) -> None:
    """Each is kept under the name of its field in Options."""
    add = parser.add_argument
    add("--daemon", metavar="PROGRAM", type=Path, help="the daemon to run; default: build/host/vorta")
    add("--as-init", action="store_true", help="run it as init does; without arguments, both services")
    add("--date", metavar="WHEN", type=date, help="where the phone's clock begins, e.g. '1970-01-01 00:00:10'")
    add("--loop", action="store_true", help="put loop devices under the partition names (root)")
    add("--data-size", metavar="SIZE", type=data_size, help="make /data a file system of that size, e.g. 64MiB")
    add("--read-only-data", action="store_true", help="mount /data read-only")
    add("--umask", metavar="MASK", type=umask, help="octal; default 0, and 077 with --as-init")
    add("--emulator", metavar="PROGRAM", type=Path, help="program that runs a daemon of another machine")
    add("--timeout", metavar="SECONDS", type=number(float, 0.001, 1e6), help="end the run after that time")
    what = "program with arguments to put in front, e.g. 'strace -f'"
    add("--wrap", dest="wrapper", metavar="COMMAND", type=command, default=[], help=what)
    many: Dict[str, Any] = {"action": "append", "default": []}
    what = "make a file or folder of the host writable inside"
    add("--bind", dest="binds", metavar="HOST:INSIDE", type=bind, help=what, **many)
    add("--env", dest="environment", metavar="NAME=VALUE", type=variable, help="set a variable inside", **many)
    add("--drop-cap", dest="drop_caps", metavar="CAP", help="run without a capability (root)", **many)


def run_options(arguments: argparse.Namespace) -> Options:
    values: Dict[str, Any] = {field.name: getattr(arguments, field.name) for field in fields(Options)}
    values["environment"] = dict(arguments.environment)
    return Options(**values)


def expected(what: str, found: str) -> argparse.ArgumentTypeError:
    return argparse.ArgumentTypeError(f"expected {what}, found {found or 'nothing'}")


def number(kind: Type[Union[int, float]], lowest: float, highest: float) -> Callable[[str], Union[int, float]]:
    def read(text: str) -> Union[int, float]:
        try:
            value = kind(text)
        except ValueError:
            value = math.nan
        if not lowest <= value <= highest:
            raise expected(f"a{' whole' if kind is int else ''} number from {lowest} to {highest:.0f}", text)
        return value

    return read


def data_size(text: str) -> int:
    size = parse_size(text)
    if size is None or not 0 < size <= LARGEST_DATA:
        raise expected("bytes or a size like 64MiB, up to 1048576GiB", text)
    return size


def umask(text: str) -> int:
    if not text or set(text) - set("01234567") or int(text, 8) > 0o777:
        raise expected("an octal number up to 777", text)
    return int(text, 8)


def date(text: str) -> datetime:
    try:
        when = datetime.fromisoformat(text)
    except ValueError:
        when = datetime.min
    if when.year < 1970 or when.tzinfo:
        raise expected("a local time from 1970 on, like 1970-01-01 00:00:10", text)
    return when


def command(text: str) -> List[str]:
    try:
        return shlex.split(text)
    except ValueError:
        raise expected("a program with its arguments", text) from None


def bind(text: str) -> Tuple[str, str]:
    host, _, inside = text.partition(":")
    if not os.path.exists(host) or not inside.startswith("/"):
        raise expected("HOST:INSIDE, a path that is there and an absolute one", text)
    return host, inside


def variable(text: str) -> Tuple[str, str]:
    name, separator, value = text.partition("=")
    if not name or not separator:
        raise expected("NAME=VALUE", text)
    return name, value
