"""What the daemon did on a simulated device, in the terms of the phone's SELinux policy.

The input is what `strace -ff -y --decode-pids=pidns` writes: a file for each process, a system call a line,
descriptors with the path they stand for. The result is a set of uses, each a (target type, class, permission), as
the kernel's hooks would ask for them on the phone. A system call that no table here knows is a fault, so
that a change of the daemon cannot slip through.
"""

import functools
import os
from pathlib import Path
import re
import subprocess
import sys
import tempfile

from program import ROOT

sys.path.insert(0, str(ROOT))
from vortadev import phone, scenario

# Not traced, as they ask no permission: descriptors were checked when they were opened, and the rest
# concerns the process itself.
UNTRACED = (
    "read|write|pread64|lseek|close|fsync|fadvise64|sendfile|dup.?|fcntl|pipe2?|brk|mprotect|munmap|wait4|exit_group|"
    "umask|chdir|uname|sysinfo|arch_prctl|prctl|set_.*|rseq|futex|getrandom|get.*id|getpgrp|getrusage|rt_sig.*|"
    "clock_.*|sched_.*|prlimit64"
)
STRACE = "strace -ff -y --decode-pids=pidns --seccomp-bpf -qq -s 256 -e signal=none -e".split()

# Where the host differs from the phone: path on the simulated device, path on the phone. The phone's
# popen starts the vendor shell, which finds the vendor tools; C library and loader are the platform's.
ALIASES = (
    (r"^/(system/)?bin/(sh|mksh)$", "/vendor/bin/sh"),
    (r"^/(system/)?bin/(cat|strings|toybox)$", "/vendor/bin/toybox_vendor"),
    (r"^/(system/)?bin$", "/vendor/bin"),
    (r"^(/usr)?/lib(64)?/.*", "/system/lib64/libc.so"),
    (r"^/proc/device-tree(?=/|$)", "/sys/firmware/devicetree/base"),
    (r"^/dev/log$", "/dev/socket/logdw"),
)
# The host's loader cache and locales, the sandbox's own /proc and program, and what the stand-in for the board's
# factory library writes: on the phone that library brings its own rules.
IGNORED = re.compile(r"/(etc|usr/share|\.[a-z]+|data/vendor/factory)(/|$)|/pipe:|[^/]")
PARTITIONS = phone.BLOCK_FOLDER + "/"
# The board's own policy has this one on every phone: init, vold and fsck need it.
BOARD_CONTEXTS = f"{PARTITIONS}userdata u:object_r:userdata_block_device:s0\n"
READING = {"dir": "search open read getattr", "file": "open read getattr"}

CALL = re.compile(r"(\w+)\((.*)\)\s+= (?:-?\w+)(?:<([^>]*)>)?(?: (E\w+))?")
PATH = re.compile(r'(?:(?:AT_FDCWD|\d+)(?:<([^>]*)>)?, )?"([^"]*)"')
DESCRIPTOR = re.compile(r"\d+<([^>]*)>")
MODES = {"REG": "file", "DIR": "dir", "LNK": "lnk_file", "IFO": "fifo_file", "CHR": "chr_file", "BLK": "blk_file"}

# Calls whose permissions do not depend on their arguments, as (target, class, permissions).
LOG_SOCKET = ("vorta", "unix_dgram_socket", "create connect write")
FIXED = {
    "clone clone3 fork vfork": [("vorta", "process", "fork sigchld")],
    "kill tgkill": [("vorta", "process", "signal")],
    "socket": [LOG_SOCKET],
    "connect sendto sendmsg": [
        LOG_SOCKET,
        ("logdw_socket", "sock_file", "write"),
        ("logd", "unix_dgram_socket", "sendto"),
    ],
}
# Calls on a path or descriptor: permissions on the object, then on its folder if the call changes that.
ON_OBJECT = {
    "stat lstat fstat newfstatat statx": ("getattr", ""),
    "chmod fchmod fchmodat chown fchown fchownat": ("setattr", ""),
    "getdents64 readlink": ("read", ""),
    "ioctl": ("ioctl", ""),
    "mkdir": ("create", "write add_name"),
    "rmdir": ("rmdir", "write remove_name"),
    "unlink": ("unlink", "write remove_name"),
    "execve": ("getattr open read execute map", ""),
    "openat": ("open", ""),
    "statfs fstatfs access faccessat2": ("", ""),
}
FIXED, ON_OBJECT = ({call: row[calls] for calls in row for call in calls.split()} for row in (FIXED, ON_OBJECT))
# What an open and a question for access ask of the object, by their flags. The kernel checks an appending descriptor
# for append in the place of write. A file that would be made is taken as new: in some scenario each of them is.
ASKED = (
    ("O_RDONLY|O_RDWR|R_OK", "read"),
    ("O_APPEND", "append"),
    (r"(O_WRONLY|O_RDWR)\b(?!.*O_APPEND)|W_OK", "write"),
    ("X_OK", "execute"),
    ("O_CREAT", "create"),
)


def phone_path(path):
    for host, there in ALIASES:
        path = re.sub(host, there, path)
    return path


class Labels:
    """Types of the phone's paths, by the file contexts and the genfs labels of a policy."""

    def __init__(self, platform, fragment, genfs, contexts):
        own, common = (folder / "file_contexts" for folder in (fragment, platform / "private"))
        contexts.write_text(common.read_text() + BOARD_CONTEXTS + own.read_text())
        self.genfs, self.contexts = genfs, contexts

    @functools.lru_cache(maxsize=None)
    def type_of(self, path):
        if re.match(r"/(proc|sys)(/|$)", path):
            return self.genfs[max((known for known in self.genfs if path.startswith(known)), key=len)]
        command = ["selabel_lookup", "-b", "file", "-f", self.contexts, "-k", path]
        found = subprocess.run(command, capture_output=True, text=True, check=True).stdout
        return re.search(r"object_r:(\w+):s0", found)[1]


def trace(name):
    """Boots a scenario as init does; gives its name and what the daemon and its children called."""
    with tempfile.TemporaryDirectory() as folder:
        command = [*STRACE, f"trace=!/^({UNTRACED})$", "-o", f"{folder}/trace", ROOT / "scripts/vortadev", "check"]
        done = subprocess.run([*command, name, "--as-init"], capture_output=True, text=True, check=False)
        if done.returncode:
            sys.exit(f"check-policy: {name}: status {done.returncode}: {(done.stdout + done.stderr).strip()}")
        traces = {file.suffix[1:]: file.read_text(errors="replace") for file in Path(folder).glob("trace.*")}
    start = f'execve("{phone.DAEMON}"'
    found = [pid for pid, text in traces.items() if start in text]
    if not found:
        sys.exit(f"check-policy: {name}: strace saw no start of the daemon")
    daemon = traces[found[0]]  # what it did before it was the daemon belongs to the sandbox
    traces[found[0]] = daemon[daemon.index(start) :]
    for pid in found:  # grows
        found += re.findall(r"^(?:clone3?|v?fork)\(.*\) = \d+ /\* (\d+) in strace's PID NS", traces[pid], re.MULTILINE)
    return name, "\n".join(traces[pid] for pid in found)


class Uses:
    """Collects uses; `found` maps each to the scenario and call that it was first seen in."""

    def __init__(self, labels):
        self.labels, self.found, self.faults = labels, {}, []
        self.properties_read, self.where, self.folders = False, "", set()

    def take_all(self, traces):
        for name, text in traces:
            for line in text.splitlines():
                match = CALL.match(line)
                if match:
                    self.where = f"{name}: {line.strip()[:120]}"
                    self.take(*match.groups())

    def add_properties(self, fragment):
        """A read of the property store is one of every property that the daemon's sources name."""
        contexts = (fragment / "property_contexts").read_text()
        sources = "".join(file.read_text() for file in ROOT.glob("*/*.cpp"))
        for name, of_type in re.findall(r"^([^#\s]\S*)\s+u:object_r:(\w+):s0", contexts, re.MULTILINE):
            if self.properties_read and f'"{name}"' in sources:
                self.where = f"property {name}"
                self.use(of_type, "file", "open read getattr map")

    def reading(self):
        """What a program asks for that reads whatever the daemon made in the dump folders."""
        reader = Uses(self.labels)
        for folder in (phone.DUMPLOG, phone.FULLDUMPLOG):
            reader.walk(folder)
            reader.use(self.labels.type_of(folder), "dir", READING["dir"])
        for target, tclass, permission in self.found:
            if permission == "create" and tclass in READING:
                reader.use(target, tclass, READING[tclass])
        return reader.found

    def use(self, target, tclass, permissions):
        for permission in permissions.split():
            self.found.setdefault((target, tclass, permission), self.where)

    def take(self, name, arguments, opened, error):
        if name in FIXED:
            for use in FIXED[name]:
                self.use(*use)
            if name == "socket" and not arguments.startswith("AF_UNIX, SOCK_DGRAM"):
                self.faults.append(f"a socket that is not the log: {self.where}")
        elif name == "mmap":
            match = re.search(r", \d+<(/[^>]*)>", arguments)
            if match and not IGNORED.match(match[1]):
                executed = " execute" if "PROT_EXEC" in arguments else ""
                self.use(self.labels.type_of(phone_path(match[1])), "file", "map read" + executed)
        elif name in ON_OBJECT:
            self.on_path(name, arguments, opened, error)
        else:
            self.faults.append(f"system call without an entry in policy_uses.py: {self.where}")

    def on_path(self, name, arguments, opened, error):
        match = PATH.match(arguments)
        folder, named = match.groups() if match else (DESCRIPTOR.match(arguments)[1], "")
        path = os.path.normpath(os.path.join(folder or "/", named))
        if IGNORED.match(path):
            return
        if error in ("EPERM", "EACCES", "EROFS"):
            self.faults.append(f"denied to root without capabilities: {self.where}")
        if path == phone.BUILD_PROP:  # the stand-in for the phone's property areas
            self.properties_read = True
            return
        if named:
            self.walk(path)
        if not error:
            # The result of an open names the end of a chain of links.
            there = phone_path(opened or path)
            self.reach(name, arguments, there, self.labels.type_of(there))

    def walk(self, path):
        """Searches each folder above, and reads the phone's links on the way."""
        there = phone_path(path)
        if path.startswith("/proc/device-tree"):
            self.use("proc", "lnk_file", "read")
        if there.startswith(PARTITIONS):
            self.use(self.labels.type_of(there), "lnk_file", "read")
        while there != "/":
            there = os.path.dirname(there)
            self.use(self.labels.type_of(there), "dir", "search")

    def class_of(self, name, arguments, there):
        mode = re.search(r"stx?_mode=S_IF(\w+)", arguments)
        if there.startswith(PARTITIONS):
            return "blk_file"
        if mode:
            return MODES[mode[1]]
        if "O_DIRECTORY" in arguments or name in ("getdents64", "mkdir", "rmdir") or there in self.folders:
            return "dir"
        return "chr_file" if there.startswith("/dev/") else "file"

    def reach(self, name, arguments, there, target):
        """The permissions on the object itself and, for a new or a removed one, on its folder."""
        tclass, parent = self.class_of(name, arguments, there), self.labels.type_of(os.path.dirname(there))
        own, folder = ON_OBJECT[name]
        self.use(target, tclass, own)
        self.use(parent, "dir", folder)
        for flags, permission in ASKED:
            if re.search(flags, arguments):
                self.use(target, tclass, permission)
        if "O_CREAT" in arguments:
            self.use(parent, "dir", "write add_name")
        if name == "execve":
            # init's transition enters the program of the service; all others stay in the domain.
            self.use(target, "file", "entrypoint" if target == "vorta_exec" else "execute_no_trans")
        elif name == "mkdir":
            self.folders.add(there)
        elif name in ("statfs", "fstatfs"):
            self.use("labeledfs", "filesystem", "getattr")
