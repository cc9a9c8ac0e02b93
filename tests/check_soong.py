#!/usr/bin/env python3
"""Compares the daemon's sources in CMakeLists.txt and Android.bp, and the latter's form with bpfmt.

usage: check_soong.py [PROJECT_DIR]
"""
import pathlib
import re
import subprocess
import sys

# Where each build has the sources of the library and of the program.
CMAKE = (r"add_library\(vorta_core (.*?)\)", r"add_executable\(vorta (.*?)\)")
SOONG = (r'name: "vorta_defaults",.*?srcs: \[(.*?)\]', r'name: "vorta",.*?srcs: \[(.*?)\]')


def sources(text, pattern):
    found = re.search(pattern, text, re.DOTALL)
    return set(re.findall(r"[\w/]+\.cpp", found[1])) if found else set()


def main():
    project = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).parent.parent)
    cmake, soong = ((project / name).read_text() for name in ("CMakeLists.txt", "Android.bp"))
    faults = []
    for here, there in zip(CMAKE, SOONG):
        ours, theirs = sources(cmake, here), sources(soong, there)
        faults += [f"only one of CMakeLists.txt and Android.bp has {source}" for source in sorted(ours ^ theirs)]
        faults += [] if ours else [f"CMakeLists.txt: no sources at {here}"]
    named = sorted(set(re.findall(r'"([^"*]+\.(?:cpp|rc))"', soong)))
    faults += [f"Android.bp: {source} is no file" for source in named if not (project / source).is_file()]
    form = subprocess.run(["bpfmt", "-d", project / "Android.bp"], capture_output=True, text=True)
    faults += (form.stdout + form.stderr).splitlines()
    for fault in faults:
        print(fault)
    return 1 if faults or form.returncode else 0


if __name__ == "__main__":
    sys.exit(main())
