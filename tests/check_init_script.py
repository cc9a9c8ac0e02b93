#!/usr/bin/env python3
"""Checks android/vorta.rc against the rest of the project; a fault is a line with what was expected.

usage: check_init_script.py [PROJECT_DIR]

The tables hold the part of init's language that the script uses. Programs must be built by Android.bp and
take the options given, folders must be those that rainbow/RainbowPaths.cpp names, and the two services must
not be able to run at once.
"""
import pathlib
import re
import shlex
import sys

# Stages of a boot in their order. A restart of the user space repeats those marked True: a service
# started there would run twice in one boot.
STAGES = {
    "early-init": False,
    "init": False,
    "late-init": False,
    "early-fs": False,
    "fs": False,
    "post-fs": False,
    "late-fs": False,
    "post-fs-data": True,
    "load_persist_props_action": False,
    "zygote-start": True,
    "early-boot": True,
    "boot": True,
}
ORDER = list(STAGES)
# Keyword: what its arguments look like, in the words of an error message.
COMMANDS = {
    "mkdir": (r"/\S+ 0[0-7]{3} \w+ \w+", "a path, a mode of four digits, owner and group"),
    "start": (r"\S+", "a service"),
    "exec_start": (r"\S+", "a service"),
}
OPTIONS = {
    "user": (r"root", "root, which owns what the daemon writes"),
    "group": (r"system", "system, the group of its files"),
    "capabilities": (r"", "no capability: no step needs one"),
    "setenv": (r"PATH /vendor/bin", "PATH /vendor/bin"),
    "disabled": (r"", "nothing"),
    "oneshot": (r"", "nothing"),
    "timeout_period": (r"[1-9]\d*", "seconds"),
}
REQUIRED = ("user", "group", "capabilities", "setenv", "disabled", "oneshot")


class Script:
    """Sections of an init script: lines of each stage and each service, with their numbers."""

    def __init__(self, path):
        self.name, self.faults, self.services, self.commands = path.name, [], {}, []
        section = None
        for number, line in enumerate(path.read_text().splitlines(), 1):
            words = shlex.split(line, comments=True)
            if not words:
                continue
            if words[0] == "on":
                section = ("on", " ".join(words[1:]))
                self.expect(section[1] in STAGES, number, f'stage "{section[1]}"', " or ".join(STAGES))
            elif words[0] == "service" and len(words) > 2:
                section = ("service", words[1])
                self.services[words[1]] = {"line": number, "argv": words[2:], "options": {}}
            elif section is None:
                self.expect(False, number, f'"{words[0]}" in front of all sections', "on or service")
            else:
                self.add(section, number, words[0], " ".join(words[1:]))

    def add(self, section, number, keyword, arguments):
        table = COMMANDS if section[0] == "on" else OPTIONS
        pattern, expected = table.get(keyword, (None, None))
        if pattern is None:
            self.expect(False, number, f'keyword "{keyword}"', ", ".join(table))
        elif self.expect(re.fullmatch(pattern, arguments), number, f'{keyword} "{arguments}"', expected):
            if section[0] == "on":
                self.commands.append((number, section[1], keyword, arguments))
            else:
                self.services[section[1]]["options"][keyword] = arguments

    def expect(self, holds, number, what, expected):
        if not holds:
            self.faults.append(f"{self.name}:{number}: {what}; expected {expected}")
        return holds


def check_services(script, blueprint, main):
    programs = re.findall(r'cc_binary \{\s*name: "(\w+)"', blueprint)
    accepted = re.search(r'getopt\(argc, argv, "([a-z:]+)"\)', main)[1]
    for name, service in script.services.items():
        line, argv = service["line"], service["argv"]
        script.expect(
            argv[0] in [f"/vendor/bin/{program}" for program in programs],
            line,
            f"program {argv[0]}",
            " or ".join(f"/vendor/bin/{p}" for p in programs),
        )
        option = re.fullmatch(r"-(\w)", argv[1]) if len(argv) == 3 else None
        script.expect(
            option and option[1] + ":" in accepted,
            line,
            f'arguments "{" ".join(argv[1:])}"',
            f'one option of "{accepted}" and its value',
        )
        script.expect(name.startswith("vendor."), line, f"service {name}", "a name that begins with vendor.")
        for keyword in REQUIRED:
            script.expect(keyword in service["options"], line, f"no {keyword}", keyword)


def check_order(script):
    """Each service is started once a boot, and no two can be alive at the same time."""
    starts = [c for c in script.commands if c[2] in ("start", "exec_start")]
    for number, stage, _, name in starts:
        script.expect(name in script.services, number, f"start of {name}", " or ".join(script.services))
        script.expect(
            not STAGES[stage],
            number,
            f"{name} is started in {stage}",
            "a stage that a restart of the user space does not repeat",
        )
    for name, service in script.services.items():
        number_of_starts = sum(c[3] == name for c in starts)
        script.expect(number_of_starts == 1, service["line"], f"{name} is started {number_of_starts} times", "once")
    # All but the last to start must have ended before init goes on.
    for number, stage, keyword, name in sorted(starts, key=lambda c: (ORDER.index(c[1]), c[0]))[:-1]:
        script.expect(
            keyword == "exec_start",
            number,
            f"{name} may still run when the next one starts",
            "exec_start, which waits for the end",
        )
        script.expect(
            "timeout_period" in script.services.get(name, {"options": ()})["options"],
            number,
            f"the boot waits for {name} for ever",
            "timeout_period",
        )


def check_folders(script, paths):
    """Every folder is one of the daemon's constants or a parent of one, and none is missing."""
    constants = dict(re.findall(r'(k\w+)[ ={(]+"(/data/[^"]+)"', paths))
    script.expect("kDumplogRoot" in constants, 1, "kDumplogRoot is not in rainbow/RainbowPaths.*", "its path")
    needed = {}  # folders that must be there, and the constant that says so
    for name, path in constants.items():
        needed[path if name.endswith("Root") else str(pathlib.PurePath(path).parent)] = name
    known = {str(p) for path in needed for p in (pathlib.PurePath(path), *pathlib.PurePath(path).parents)}
    made = {}
    for number, stage, keyword, arguments in script.commands:
        if keyword != "mkdir":
            continue
        path, mode, owner, group = arguments.split()
        made[path] = number
        script.expect(
            path in known,
            number,
            f"folder {path}",
            " or ".join(f"{path} ({name})" for path, name in needed.items()) + " or a parent",
        )
        script.expect(
            (owner, group) == ("root", "system") and mode[1] == "7",
            number,
            f"folder {path} is {mode} {owner} {group}",
            "root system and 07xx: root works here without dac_override",
        )
        script.expect(stage == "post-fs-data", number, f"folder {path} in {stage}", "post-fs-data")
        parent = str(pathlib.PurePath(path).parent)
        script.expect(parent == "/data/vendor" or made.get(parent), number, f"folder {path}", f"{parent} made before")
    for path, name in needed.items():
        script.expect(path in made, 1, f"no mkdir of {path}", f"one, as {name} lies there")
    runs = [c for c in script.commands if "-r" in script.services.get(c[3], {"argv": ()})["argv"]]
    for number, stage, _, name in runs:
        script.expect(
            ORDER.index(stage) > ORDER.index("post-fs-data"),
            number,
            f"{name} in {stage}",
            "a later stage than post-fs-data, which makes its folders",
        )


def main():
    project = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).parent.parent)
    script = Script(project / "android/vorta.rc")
    check_services(script, (project / "Android.bp").read_text(), (project / "main/main.cpp").read_text())
    check_order(script)
    check_folders(script, "\n".join(p.read_text() for p in project.glob("rainbow/RainbowPaths.*")))
    print("\n".join(script.faults), end="\n" if script.faults else "")
    return 1 if script.faults else 0


if __name__ == "__main__":
    sys.exit(main())
