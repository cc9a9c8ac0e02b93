#!/usr/bin/env python3
"""Checks android/vorta.rc against the rest of the project; each fault is a line.

usage: check_init_script.py [PROJECT_DIR]

The tables hold the part of init's language that the script uses. Programs must be built by Android.bp and
take the options given, folders must be those that rainbow/RainbowPaths.cpp names, and the two services must
not be able to run at once.
"""
import pathlib
import re
import shlex
import sys

# Stages of a boot in their order, and those that a restart of the user space repeats: a service started there would run
# twice in one boot.
STAGES = "early-init init late-init early-fs fs post-fs late-fs post-fs-data load_persist_props_action".split()
REPEATED = ["post-fs-data", "zygote-start", "early-boot", "boot"]
STAGES += REPEATED[1:]
# Keywords and their arguments. In a folder root works without dac_override, so its modes must let the owner.
COMMANDS = {"mkdir": r"/\S+ 07[0-7]{2} root system", "start": r"\S+", "exec_start": r"\S+"}
# Root owns what the daemon writes, system is the group of its files, and no step needs a capability.
REQUIRED = {
    "user": "root",
    "group": "system",
    "capabilities": "",
    "setenv": "PATH /vendor/bin",
    "disabled": "",
    "oneshot": "",
}
OPTIONS = {**REQUIRED, "timeout_period": r"[1-9]\d*"}


def parse(text):
    """Faults; commands in the order of a boot: line, stage, keyword, arguments; services by their names: line, program
    with its arguments, options."""
    faults, commands, services, table = [], [], {}, {}
    for number, line in enumerate(text.splitlines(), 1):
        keyword, *words = shlex.split(line, comments=True) or [""]
        arguments = " ".join(words)
        if keyword == "on":
            table, section = COMMANDS, arguments
            if section not in STAGES:
                faults.append((number, f"stage {section}; expected {', '.join(STAGES)}"))
        elif keyword == "service":
            table, section = OPTIONS, words[0]
            services[section] = (number, " ".join(words[1:]), set())
        elif keyword and not re.fullmatch(table.get(keyword, "(?!)"), arguments):
            faults.append((number, f"{keyword} {arguments}; expected {table.get(keyword, ', '.join(table))}"))
        elif keyword and table is COMMANDS:
            commands.append((number, section, keyword, arguments))
        elif keyword:
            services[section][2].add(keyword)
    if not faults:
        commands.sort(key=lambda command: (STAGES.index(command[1]), command[0]))
    return faults, commands, services


def wrong_services(services, blueprint, main):
    programs = "|".join(re.findall(r'cc_binary \{\s*name: "(\w+)"', blueprint))
    letters = "|".join(re.findall("([a-z]):", re.search(r'getopt\(argc, argv, "([a-z:]+)"\)', main)[1]))
    for name, (line, program, options) in services.items():
        if not re.fullmatch(rf"/vendor/bin/({programs}) -({letters}) \S+", program):
            yield line, f"{program}; expected /vendor/bin/({programs}) -({letters}) and a value"
        if not name.startswith("vendor."):
            yield line, f"service {name}; expected vendor.{name}"
        for keyword in REQUIRED.keys() - options:
            yield line, f"{name} lacks {keyword}"


def wrong_order(commands, services):
    """Each service is started once a boot, and no two can be alive at the same time."""
    starts = [command for command in commands if command[2] != "mkdir"]
    for name, (line, _, _) in services.items():
        times = sum(start[3] == name for start in starts)
        if times != 1:
            yield line, f"{name} is started {times} times"
    for start in starts:
        number, stage, keyword, name = start
        if name not in services:
            yield number, f"no service {name}"
        if stage in REPEATED:
            yield number, f"{name} is started in {stage}, which a restart of the user space repeats"
        if start != starts[-1] and keyword != "exec_start":
            yield number, f"{name} may still run when the next one starts; expected exec_start, which waits"
        if keyword == "exec_start" and "timeout_period" not in services.get(name, [()])[-1]:
            yield number, f"the boot may wait for {name} for ever; expected a timeout_period"


def wrong_folders(commands, services, paths):
    """Every folder is one of the daemon's constants or a parent of one, and all are there when rainbow starts."""
    constants = re.findall(r'(k\w+)[ ={(]+"(/data/[^"]+)"', paths)
    needed = {path if name.endswith("Root") else str(pathlib.PurePath(path).parent) for name, path in constants}
    known = needed.union(str(parent) for path in needed for parent in pathlib.PurePath(path).parents)
    made = {"/data/vendor"}
    for number, stage, keyword, arguments in commands:
        if keyword == "mkdir":
            path = pathlib.PurePath(arguments.split()[0])
            if str(path) not in known:
                yield number, f"folder {path}; expected {', '.join(sorted(needed))} or a parent"
            if stage != "post-fs-data":
                yield number, f"folder {path} in {stage}; expected post-fs-data"
            if str(path.parent) not in made:
                yield number, f"folder {path} without {path.parent}"
            made.add(str(path))
        elif " -r " in services.get(arguments, [0, ""])[1] and not needed <= made:
            yield number, f"{arguments} starts without {', '.join(sorted(needed - made))}"


def main():
    project = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).parent.parent)
    faults, commands, services = parse((project / "android/vorta.rc").read_text())
    if not faults:
        paths = "\n".join(path.read_text() for path in project.glob("rainbow/RainbowPaths.*"))
        faults += wrong_services(services, *((project / name).read_text() for name in ("Android.bp", "main/main.cpp")))
        faults += wrong_order(commands, services)
        faults += wrong_folders(commands, services, paths)
    for line, fault in faults:
        print(f"android/vorta.rc:{line}: {fault}")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
