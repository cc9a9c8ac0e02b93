"""The options of run, shell and check: how the daemon is run."""
from __future__ import annotations

import argparse
from datetime import datetime
import math
import os
from pathlib import Path
import shlex
from typing import Any, Callable, Tuple

from .scenario import parse_size

LONGEST_TIMEOUT = 10**6  # seconds
LARGEST_DATA = 1 << 50


def add_run_options(parser: argparse.ArgumentParser) -> None:
    def option(name: str, metavar: str, read: Callable[[str], Any], text: str, many: bool = False) -> None:
        default: Any = [] if many else None
        parser.add_argument(
            name, metavar=metavar, type=read, help=text, action="append" if many else "store", default=default
        )

    def flag(name: str, text: str) -> None:
        parser.add_argument(name, action="store_true", help=text)

    option("--daemon", "PROGRAM", Path, "the daemon to run; default: build/host/vorta")
    flag("--as-init", "run it as init does, both services if no arguments are given")
    option("--date", "WHEN", date, "where the phone's clock begins, e.g. '1970-01-01 00:00:10'")
    flag("--loop", "put loop devices under the partition names (root)")
    option("--data-size", "SIZE", data_size, "make /data a file system of that size, e.g. 64MiB")
    flag("--read-only-data", "mount /data read-only")
    option("--umask", "MASK", umask, "octal; default 0, and 077 with --as-init")
    option("--emulator", "PROGRAM", Path, "program that runs a daemon of another machine")
    option("--wrap", "COMMAND", command, "program with arguments to put in front, e.g. 'strace -f'")
    option("--bind", "HOST:INSIDE", bind, "make a file or folder of the host writable inside", many=True)
    option("--env", "NAME=VALUE", variable, "set an environment variable inside", many=True)
    option("--drop-cap", "CAP", str, "run without a capability (root)", many=True)
    option("--timeout", "SECONDS", seconds, "end the run after that time")


def run_options(arguments: argparse.Namespace) -> Any:
    from .sandbox import Options  # needs Linux

    return Options(
        daemon=arguments.daemon,
        loop=arguments.loop,
        data_size=arguments.data_size,
        read_only_data=arguments.read_only_data,
        umask=arguments.umask,
        emulator=arguments.emulator,
        wrapper=arguments.wrap or [],
        binds=arguments.bind,
        environment=dict(arguments.env),
        drop_caps=arguments.drop_cap,
        timeout=arguments.timeout,
        as_init=arguments.as_init,
        date=arguments.date,
    )


def expected(what: str, found: str) -> argparse.ArgumentTypeError:
    return argparse.ArgumentTypeError(f"expected {what}, found {found or 'nothing'}")


def whole_number(lowest: int, highest: int) -> Callable[[str], int]:
    def read(text: str) -> int:
        if not text.isascii() or not text.isdigit() or not lowest <= int(text[:20]) <= highest:
            raise expected(f"a whole number from {lowest} to {highest}", text)
        return int(text)

    return read


def seconds(text: str) -> float:
    try:
        number = float(text)
    except ValueError:
        number = math.nan
    if not 0 < number <= LONGEST_TIMEOUT:
        raise expected(f"seconds above 0 and up to {LONGEST_TIMEOUT}", text)
    return number


def data_size(text: str) -> int:
    size = parse_size(text)
    if size is None or not 0 < size <= LARGEST_DATA:
        raise expected("bytes or a size like 64MiB, above 0 and up to 1048576GiB", text)
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
    if when.year < 1970 or when.tzinfo is not None:
        raise expected("a local time from 1970 on, like 1970-01-01 00:00:10", text)
    return when


def command(text: str) -> Any:
    try:
        words = shlex.split(text)
    except ValueError:
        words = []
    if not words:
        raise expected("a program with its arguments", text)
    return words


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
