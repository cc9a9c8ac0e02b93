#!/usr/bin/env python3
"""Compares the daemon's sources in CMakeLists.txt and Android.bp, and the latter's form with bpfmt.

usage: check_soong.py [PROJECT_DIR]
"""
import pathlib
import re
import subprocess
import sys


def cmake_sources(text, target):
    match = re.search(r"add_(?:library|executable)\(" + target + r"\s+(?:STATIC\s+)?([^)]*)\)", text)
    return set(re.findall(r"\S+\.cpp", match[1])) if match else set()


def soong_sources(text, module):
    """Sources of the module of that name, those of its defaults not included."""
    for block in re.findall(r"^\w+ \{\n(.*?)^\}", text, re.MULTILINE | re.DOTALL):
        if f'name: "{module}"' in block:
            return set(re.findall(r'"(\S+\.cpp)"', block))
    return set()


def main():
    project = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).parent.parent)
    cmake = (project / "CMakeLists.txt").read_text()
    soong = (project / "Android.bp").read_text()
    faults = []
    for target, module in (("vorta_core", "vorta_defaults"), ("vorta", "vorta")):
        here, there = cmake_sources(cmake, target), soong_sources(soong, module)
        faults += [f"CMakeLists.txt: no sources of {target}"] if not here else []
        faults += [
            f"Android.bp: {module} lacks {source}, which CMakeLists.txt has in {target}"
            for source in sorted(here - there)
        ]
        faults += [
            f"CMakeLists.txt: {target} lacks {source}, which Android.bp has in {module}"
            for source in sorted(there - here)
        ]
    faults += [
        f"Android.bp: names {source}, which is no file"
        for source in sorted(set(re.findall(r'"([^"*]+\.(?:cpp|rc))"', soong)))
        if not (project / source).is_file()
    ]
    form = subprocess.run(["bpfmt", "-l", project / "Android.bp"], capture_output=True, text=True)
    if form.returncode != 0:
        faults.append(f"Android.bp: {form.stderr.strip() or form.stdout.strip()}")
    elif form.stdout:
        faults.append("Android.bp: not formatted; bpfmt -w Android.bp does it")
    print("\n".join(faults), end="\n" if faults else "")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
