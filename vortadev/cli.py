"""The command line."""

from __future__ import annotations

import argparse
import difflib
import io
import json
import os
from pathlib import Path
import signal
import sys
from typing import Any, List, NoReturn, Optional, Sequence

from . import __version__, device, extract, fleet, phone, reading, records, report, scenario, show
from .document import read_document, read_json
from .errors import DeviceError, printable
from .options import add_run_options, number, run_options
from .terminal import complain, say

FAILED, USAGE, TIME_LIMIT, INTERRUPTED = 1, 2, 124, 128 + signal.SIGINT

DESCRIPTION = "A phone in a folder: makes a simulated device, runs vorta on it, shows what it holds."


def create(arguments: argparse.Namespace) -> int:
    """make a device from a scenario"""
    device.create(arguments.device, scenario.load(arguments.scenario), arguments.force)
    return 0


def run(arguments: argparse.Namespace) -> int:
    """run the daemon; its arguments stand behind --, or are those of the device's scenario"""
    runs: Sequence[Sequence[str]] = [arguments.behind or []]
    if arguments.behind is None and arguments.as_init:
        runs = phone.SERVICES
    elif arguments.behind is None and device.is_device(arguments.device):
        file = arguments.device / device.SCENARIO_FILE
        runs = [read_document(read_json(file), file)["run"]["arguments"].texts(phone.RAINBOW)]
    statuses = [run_program(phone.DAEMON, arguments, behind) for behind in runs]
    return next(filter(None, statuses), 0)


def shell(arguments: argparse.Namespace) -> int:
    """a shell on the device; its arguments stand behind --"""
    return run_program(phone.SHELL, arguments, arguments.behind or [])


def run_program(program: str, arguments: argparse.Namespace, behind: Sequence[str]) -> int:
    require_linux()
    from . import sandbox  # pylint: disable=import-outside-toplevel

    ended = sandbox.run(arguments.device, behind, run_options(arguments), program)
    if ended.timed_out:
        complain("the daemon did not end in time and was killed")
        return TIME_LIMIT
    return ended.status


def show_paths(arguments: argparse.Namespace) -> int:
    """the records in words, what was collected, the history"""
    reports, status = [], 0
    for path in arguments.paths:
        try:
            reports.append(reading.read(path, arguments.kind))
            status = FAILED if reports[-1]["problems"] else status
        except DeviceError as error:
            complain(str(error))
            status = FAILED
    if arguments.json and reports:
        say(json.dumps(reports if len(arguments.paths) > 1 else reports[0], indent=2, ensure_ascii=False) + "\n")
    else:
        say("\n".join(show.words(report, arguments.lines) for report in reports))
    return status


def list_scenarios(_arguments: argparse.Namespace) -> int:
    """the shipped scenarios, a line each"""
    say("".join(f"{name:<22} {scenario.load(name).description}\n" for name in scenario.shipped()))
    return 0


def check(arguments: argparse.Namespace) -> int:
    """run scenarios on fresh devices and hold each to its promise"""
    require_linux()
    import tempfile  # pylint: disable=import-outside-toplevel

    from . import check as checks, signals  # pylint: disable=import-outside-toplevel

    look, status = checks.update if arguments.update else checks.check, 0
    for name in arguments.names or scenario.shipped():
        wanted = scenario.load(name)
        # Until the scratch folder is gone, signals wait.
        with signals.HeldSignals(), tempfile.TemporaryDirectory(prefix="vortadev-") as scratch:
            broken = look(wanted, Path(scratch, "device"), run_options(arguments))
        lines = [f"{name:<22} {'BROKEN' if broken else 'as promised'}", *(f"  {printable(line)}" for line in broken)]
        say("\n".join(lines) + "\n")
        status = FAILED if broken else status
    return status


def make_fleet(arguments: argparse.Namespace) -> int:
    """folders as pulled from many phones, to try report on, and an account of what is in them"""
    require_linux()
    return fleet.fleet(arguments)


COMMANDS = {
    "create": create,
    "run": run,
    "show": show_paths,
    "extract": extract.extract,
    "report": report.report,
    "scenarios": list_scenarios,
    "check": check,
    "shell": shell,
    "fleet": make_fleet,
}


def require_linux() -> None:
    if not sys.platform.startswith("linux"):
        raise DeviceError(
            "run, check, shell and fleet need Linux; show, extract and report read devices, images and folders anywhere"
        )


class Parser(argparse.ArgumentParser):
    """Complains in one line, also where its help cannot be written."""

    def error(self, message: str) -> NoReturn:
        complain(f"{message[9:] if message.startswith('argument ') else message}; {self.prog} --help tells more")
        sys.exit(USAGE)

    def print_help(self, file: Any = None) -> None:
        say(self.format_help())


def parser_of(command: str) -> Parser:
    parser = Parser(f"vortadev {command}", description=COMMANDS[command].__doc__, allow_abbrev=False, add_help=False)
    parser.add_argument("--help", action="help", help="this text")
    if command in ("run", "shell"):
        parser.usage = f"vortadev {command} DEV [OPTION...] [-- ARGUMENT...]"
    if command in ("create", "run", "shell"):
        parser.add_argument("device", metavar="DEV", type=Path, help="device folder")
    if command == "create":
        parser.add_argument("scenario", metavar="SCENARIO", help="name of a shipped scenario or a .json file")
        parser.add_argument("--force", action="store_true", help="replace an earlier device")
    elif command == "show":
        what = "device, image of rawdump or bootfail_info, history.log, or folder pulled from a phone"
        parser.add_argument("paths", metavar="PATH", type=Path, nargs="+", help=what)
        parser.add_argument("--json", action="store_true", help="for programs; a list if there are several paths")
        lines = number(int, 0, 1e9)
        parser.add_argument("--lines", metavar="N", type=lines, default=10, help="history lines to show (default 10)")
        kinds = (records.RAWDUMP, records.BOOTFAIL)
        parser.add_argument("--as", dest="kind", choices=kinds, default="", help="read a file as an image of that")
    elif command == "extract":
        extract.add_options(parser)
    elif command == "report":
        report.add_options(parser)
    elif command == "fleet":
        fleet.add_options(parser)
    elif command == "check":
        parser.add_argument("names", metavar="SCENARIO", nargs="*", help="names or .json files; default: all shipped")
        parser.add_argument("--update", action="store_true", help="promise the log of these boots from now on")
    if command in ("run", "shell", "check"):
        add_run_options(parser)
    return parser


def parse(command: str, arguments: List[str]) -> argparse.Namespace:
    """What stands behind -- is for a program on the device, whatever it looks like."""
    behind: Optional[List[str]] = None
    if command in ("run", "shell") and "--" in arguments:
        place = arguments.index("--")
        arguments, behind = arguments[:place], arguments[place + 1 :]
    parser = parser_of(command)
    found, unknown = parser.parse_known_intermixed_args(arguments, argparse.Namespace(behind=behind))
    if unknown:
        hint = f"; what is for the device stands behind --: {parser.prog} DEV -- {' '.join(unknown)}"
        parser.error(f"unknown argument {unknown[0]}{hint if command in ('run', 'shell') else ''}")
    return found


def perform(arguments: List[str]) -> int:
    name = arguments[0] if arguments else ""
    if name in ("--help", "-h"):
        rows = [f"  {command:<10} {action.__doc__}" for command, action in COMMANDS.items()]
        say("\n".join([DESCRIPTION, "", *rows, "", "vortadev COMMAND --help tells more; --version is the version.\n"]))
        return 0
    if name == "--version":
        say(f"vortadev {__version__}\n")
        return 0
    if name in COMMANDS:
        return COMMANDS[name](parse(name, arguments[1:]))
    near = difflib.get_close_matches(name, COMMANDS, 1)
    hint = f"did you mean {near[0]}?" if near else "vortadev --help lists the commands"
    complain(f"unknown command {name}; {hint}" if name else f"a command is missing; {hint}")
    return USAGE


def occupy_standard_descriptors() -> None:
    """A file of a device must never take the place of one that the caller has closed."""
    for descriptor in (0, 1, 2):
        try:
            os.fstat(descriptor)
        except OSError:
            os.open(os.devnull, os.O_RDWR)


def interrupt(_number: int, _frame: Any) -> NoReturn:
    raise KeyboardInterrupt


def main() -> int:
    occupy_standard_descriptors()
    for wanted in signal.Signals:
        if wanted.name in ("SIGTERM", "SIGHUP") and signal.getsignal(wanted) is signal.SIG_DFL:
            signal.signal(wanted, interrupt)
    if isinstance(sys.stdout, io.TextIOWrapper):
        sys.stdout.reconfigure(errors="backslashreplace")  # what the terminal's encoding lacks
    try:
        return perform(sys.argv[1:])
    except KeyboardInterrupt:
        return INTERRUPTED
    except BrokenPipeError:
        return FAILED
    except DeviceError as error:
        complain(str(error))
    except OSError as error:
        complain(f"{error.filename}: {error.strerror}" if error.filename else str(error.strerror))
    return FAILED
