"""A simulated device: a folder in which every input and output of the daemon is a plain file.

dev/block/by-name/{rawdump,userdata,bootfail_info}   the partitions, sparse files
proc/{cmdline,pmic_pon_log}  proc/device-tree/rootparam/qcom,boardid
vendor/build.prop  vendor/bin/vorta (where the daemon appears)  vendor/lib64
data/vendor/log/reliability/{dumplog,fulldumplog}
system/bin: mksh as sh, toybox with cat and strings; bin -> system/bin
scenario.json, from which it was made; logcat.txt, the Android log of all runs
"""

from __future__ import annotations

from dataclasses import dataclass, field
import os
from pathlib import Path
import shutil
from typing import Dict, Iterator, Tuple

from . import phone, records
from .content import render
from .errors import DeviceError, printable
from .scenario import Scenario

SCENARIO_FILE = "scenario.json"
LOGCAT_FILE = "logcat.txt"
FACTORY_EVENTS = "/data/vendor/factory/events.txt"  # what the device's factory library was told

FACTORY_LIBRARIES = Path(__file__).resolve().parents[1] / "build/host"
FACTORY_NAMES = {"present": "lib_factory_interface.so", "withoutSymbol": "lib_factory_without_symbol.so"}
TOYBOX = "/system/bin/toybox"
TOOLS = ("cat", "strings", "ls", "head", "tail", "xxd", "stat")
# The leak checker of a sanitizer build looks at its own threads; the sandbox keeps the real /proc aside for it. The
# daemon is one of the first processes there.
PROCESSES = ("self", *"23456789")
LINKS = {
    "/bin": "system/bin",
    **{f"/system/bin/{name}": "toybox" for name in TOOLS},
    **{f"/proc/{name}": f"/.proc/{name}" for name in PROCESSES},
}

BLOCK = 4096
CHUNK = 256 * BLOCK


@dataclass
class Image:
    """A partition's content at one moment: its size, and its blocks that are not all zeros by their offset. Equal
    images have equal content."""

    size: int
    blocks: Dict[int, bytes] = field(default_factory=dict)

    def read(self, offset: int, size: int) -> bytes:
        """What lies behind the end of the partition is missing."""
        end = min(offset + size, self.size)
        first = offset - offset % BLOCK
        zeros = bytes(BLOCK)
        whole = b"".join(self.blocks.get(at, zeros) for at in range(first, end, BLOCK))
        return whole[offset - first : max(end - first, 0)]

    def put(self, offset: int, data: bytes) -> None:
        """Sets the bytes at the offset, as far as the partition reaches."""
        first, end = offset - offset % BLOCK, offset + len(data)
        whole = self.read(first, offset - first) + data + self.read(end, -end % BLOCK)
        for at in range(first, min(end, self.size), BLOCK):
            block = whole[at - first : min(at - first + BLOCK, self.size - first)]
            if block.strip(b"\0"):
                self.blocks[at] = block.ljust(BLOCK, b"\0")
            else:
                self.blocks.pop(at, None)


def put(images: Dict[str, Image], partition: str, offset: int, data: bytes) -> None:
    if partition in images:
        images[partition].put(offset, data)


def on_device(folder: Path, phone_path: str) -> Path:
    """The place of an absolute path of the phone."""
    return folder / phone_path[1:]


def is_device(folder: Path) -> bool:
    return on_device(folder, phone.BLOCK_FOLDER).is_dir() and (folder / SCENARIO_FILE).exists()


def partition_path(folder: Path, name: str) -> Path:
    return on_device(folder, phone.BLOCK_FOLDER) / name


def read_image(path: Path) -> Image:
    with path.open("rb", buffering=0) as file:
        image = Image(os.fstat(file.fileno()).st_size)
        for start, end in extents(file.fileno(), image.size):
            for at in range(start, end, CHUNK):
                file.seek(at)
                image.put(at, file.read(min(CHUNK, end - at)))
    return image


def extents(file: int, size: int) -> Iterator[Tuple[int, int]]:
    """Where the file has data, as far as the system tells."""
    end = 0
    while end < size:
        try:
            start = os.lseek(file, end, os.SEEK_DATA)
        except OSError:  # nothing but a hole is left
            return
        end = os.lseek(file, start, os.SEEK_HOLE)
        yield start, end


def read_partitions(folder: Path) -> Dict[str, Image]:
    paths = {name: partition_path(folder, name) for name in records.PARTITIONS}
    return {name: read_image(path) for name, path in paths.items() if path.exists()}


def create(folder: Path, scenario: Scenario, force: bool = False) -> None:
    """The folder may be missing or empty, or with `force` an earlier device, which is removed first; any other folder
    is refused. As root the log folders belong to 0:1000, as on a phone, otherwise to the caller."""
    programs = programs_of(scenario)  # complains before anything is made
    mask = os.umask(0o022)
    try:
        make_room(folder, force)
        make_partitions(folder, scenario)
        for path, data in files_of(scenario).items():
            write(folder, path, data)
        for path, program in programs.items():
            on_device(folder, path).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(program, on_device(folder, path))
        for path, target in LINKS.items():
            on_device(folder, path).symlink_to(target)
        make_data(folder, scenario)
    except OSError as error:
        raise DeviceError(f"cannot make {printable(str(error.filename or folder))}: {error.strerror}") from None
    finally:
        os.umask(mask)


def programs_of(scenario: Scenario) -> Dict[str, Path]:
    """What is copied from the host, by its place."""
    programs = {phone.SHELL: host_program("mksh"), TOYBOX: host_program("toybox")}
    if scenario.factory_library:
        library = FACTORY_LIBRARIES / FACTORY_NAMES[scenario.factory_library]
        if not library.exists():
            raise DeviceError(f"{library} is missing; cmake --preset host && cmake --build --preset host makes it")
        programs[phone.FACTORY_LIBRARY] = library
    return programs


def host_program(name: str) -> Path:
    """A program that the device gets from the host; it is called as the Debian package that brings it."""
    program = shutil.which(name, path=os.environ.get("PATH", "") + ":/usr/bin:/bin")
    if program is None:
        raise DeviceError(f"{name} is missing on this machine; install the package {name} (needs Linux)")
    return Path(program)


def files_of(scenario: Scenario) -> Dict[str, bytes]:
    properties = "".join(f"{name}={value}\n" for name, value in scenario.properties.items())
    files = {
        "/" + SCENARIO_FILE: scenario.source.encode("utf-8"),
        phone.CMDLINE: scenario.cmdline,
        phone.PON_LOG: scenario.pon_log,
        phone.BOARD_ID: scenario.board_id,
        phone.BUILD_PROP: properties.encode("utf-8"),
        phone.DAEMON: b"",
    }
    return {path: data for path, data in files.items() if data is not None}


def make_room(folder: Path, force: bool) -> None:
    if not folder.exists() or (folder.is_dir() and not any(folder.iterdir())):
        return
    if not is_device(folder):
        raise DeviceError(f"{folder} exists and is no simulated device; choose another folder")
    if not force:
        raise DeviceError(f"{folder} is a simulated device already; --force replaces it")
    shutil.rmtree(folder)


def make_partitions(folder: Path, scenario: Scenario) -> None:
    images = {name: Image(size) for name, size in scenario.partitions.items() if size is not None}
    for name, fill in scenario.logs.items():
        region = records.LOG_REGIONS[name]
        put(images, region.partition, region.offset, render(fill, name))
    put(images, records.RAWDUMP, scenario.minidump.offset, scenario.minidump.render())
    put(images, records.RAWDUMP, records.REASON_REGION.offset, scenario.reason_header)
    put(images, records.BOOTFAIL, records.META_REGION.offset, scenario.meta)
    if scenario.fulldump:
        put(images, records.USERDATA, scenario.fulldump.offset, scenario.fulldump.render())
    on_device(folder, phone.BLOCK_FOLDER).mkdir(parents=True)
    for name, image in images.items():
        write_image(partition_path(folder, name), image)


def write_image(path: Path, image: Image) -> None:
    with path.open("xb", buffering=0) as file:
        for offset, block in image.blocks.items():
            file.seek(offset)
            file.write(block)
    os.truncate(path, image.size)


def write(folder: Path, phone_path: str, data: bytes) -> None:
    path = on_device(folder, phone_path)
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(data)


def make_data(folder: Path, scenario: Scenario) -> None:
    roots = [on_device(folder, path) for path in (phone.DUMPLOG, phone.FULLDUMPLOG, phone.RELIABILITY)]
    folders = [folder / "data" / entry.path for entry in scenario.data if entry.fill is None and entry.target is None]
    if scenario.factory_library:
        folders.append(on_device(folder, FACTORY_EVENTS).parent)
    for path in [*roots, *folders, on_device(folder, phone.FACTORY_LIBRARY).parent]:
        path.mkdir(parents=True, exist_ok=True)
    # Links come last: nothing is written through one.
    for entry in sorted(scenario.data, key=lambda entry: entry.target is not None):
        path = folder / "data" / entry.path
        if entry.fill is not None:
            write(folder, f"/data/{entry.path}", render(entry.fill, path.name))
        elif entry.target is not None:
            path.parent.mkdir(parents=True, exist_ok=True)
            path.symlink_to(entry.target)
    for root in roots:
        root.chmod(phone.ROOT_FOLDER_MODE)
        if os.geteuid() == 0:
            os.chown(root, phone.OWNER, phone.GROUP)
