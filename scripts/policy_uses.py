"""What the daemon did on a simulated device, in the terms of the phone's SELinux policy.

The input is what `strace -ff -y --decode-pids=pidns` writes: a file for each process, a system call a line,
descriptors with the path they stand for. The result is a set of uses, each a (target type, class, permission), as
the kernel's hooks would ask for them on the phone. A system call that no table here knows is a fault, so
that a change of the daemon cannot slip through.
"""
import os
import re
import subprocess

# Not traced, as they ask no permission: descriptors were checked when they were opened, and the rest
# concerns the process itself.
UNTRACED = ('read|write|pread64|lseek|close|fsync|fadvise64|sendfile|dup.?|fcntl|pipe2?|brk|mprotect|munmap|'
            'wait4|exit_group|umask|chdir|uname|sysinfo|arch_prctl|prctl|set_.*|rseq|futex|getrandom|'
            'get.*id|getpgrp|getrusage|rt_sig.*|clock_.*|sched_.*')

# Where the host differs from the phone: path on the simulated device, path on the phone. The phone's
# popen starts the vendor shell, which finds the vendor tools; C library and loader are the platform's.
ALIASES = [(re.compile(host), phone) for host, phone in (
    (r'^/(system/)?bin/(sh|mksh)$', '/vendor/bin/sh'),
    (r'^/(system/)?bin/(cat|strings|toybox)$', '/vendor/bin/toybox_vendor'),
    (r'^/(system/)?bin$', '/vendor/bin'),
    (r'^(/usr)?/lib(64)?/.*', '/system/lib64/libc.so'),
    (r'^/proc/device-tree(?=/|$)', '/sys/firmware/devicetree/base'),
    (r'^/dev/log$', '/dev/socket/logdw'))]
# The host's loader cache and locales, the sandbox's own /proc and program, and what the stand-in for the board's
# factory library writes: on the phone that library brings its own rules.
IGNORED = re.compile(r'/(etc|usr/share|\.[a-z]+|data/vendor/factory)(/|$)')
PROPERTY_STORE = '/vendor/build.prop'  # the stand-in for the phone's property areas
PARTITIONS = '/dev/block/by-name/'

CALL = re.compile(r'(\w+)\((.*)\)\s+= (?:-?\w+)(?:<([^>]*)>)?(?: (E\w+))?')
PATH = re.compile(r'(?:(?:AT_FDCWD|\d+)(?:<([^>]*)>)?, )?"([^"]*)"')
DESCRIPTOR = re.compile(r'\d+<([^>]*)>')
CLASS_OF_MODE = {'S_IFREG': 'file', 'S_IFDIR': 'dir', 'S_IFLNK': 'lnk_file', 'S_IFIFO': 'fifo_file',
                 'S_IFCHR': 'chr_file', 'S_IFBLK': 'blk_file'}


class Labels:
    """Types of the phone's paths, by the file contexts and the genfs lines of a policy."""

    def __init__(self, contexts_file, genfs_lines):
        self.contexts, self.cache, self.genfs = contexts_file, {}, {}
        for line in genfs_lines:
            match = re.match(r'genfscon (proc|sysfs) (\S+)\s+u:object_r:(\w+):s0', line)
            if match:
                self.genfs[{'proc': '/proc', 'sysfs': '/sys'}[match[1]] + match[2].rstrip('/')] = match[3]

    def type_of(self, path):
        if path not in self.cache:
            self.cache[path] = self._look_up(path)
        return self.cache[path]

    def _look_up(self, path):
        if re.match(r'/(proc|sys)(/|$)', path):
            return self.genfs[max((p for p in self.genfs if path.startswith(p)), key=len)]
        found = subprocess.run(['selabel_lookup', '-b', 'file', '-f', self.contexts, '-k', path],
                               capture_output=True, text=True, check=True).stdout
        return re.search(r'object_r:(\w+):s0', found)[1]


class Uses:
    """Collects uses; `found` maps each to the scenario and call that it was first seen in."""

    def __init__(self, labels):
        self.labels, self.found, self.faults = labels, {}, []
        self.properties_read, self.calls = False, 0
        self.where, self.folders = '', set()

    def add(self, scenario, lines):
        """Takes the trace of one process."""
        for line in lines:
            match = CALL.match(line)
            if not match:
                continue
            self.calls += 1
            self.where = f'{scenario}: {line.strip()[:120]}'
            name, arguments, opened, error = match.groups()
            handler = HANDLERS.get(name)
            if handler is None:
                self.faults.append(f'system call without an entry in policy_uses.py: {self.where}')
            else:
                handler(self, name, arguments, opened, error)

    def use(self, target, tclass, *permissions):
        for permission in permissions:
            self.found.setdefault((target, tclass, permission), self.where)

    # Calls on processes, sockets and memory.

    def fork(self, *_):
        self.use('vorta', 'process', 'fork', 'sigchld')

    def signal(self, *_):
        self.use('vorta', 'process', 'signal')

    def limits(self, name, arguments, *_):
        if 'NULL, {' not in arguments:
            self.use('vorta', 'process', 'setrlimit')

    def socket(self, name, arguments, *_):
        if name == 'socket' and not arguments.startswith('AF_UNIX, SOCK_DGRAM'):
            self.faults.append(f'a socket that is not the log: {self.where}')
        self.use('vorta', 'unix_dgram_socket', 'create', 'connect', 'write')
        if name in ('connect', 'sendto', 'sendmsg'):
            self.use('logdw_socket', 'sock_file', 'write')
            self.use('logd', 'unix_dgram_socket', 'sendto')

    def mmap(self, name, arguments, *_):
        match = re.search(r', \d+<(/[^>]*)>', arguments)
        if match and not IGNORED.match(match[1]):
            target = self.labels.type_of(phone_path(match[1]))
            self.use(target, 'file', 'map', 'read', *(['execute'] if 'PROT_EXEC' in arguments else []))

    # Calls on a path or a descriptor.

    def on_path(self, name, arguments, opened, error):
        match = PATH.match(arguments)
        folder, path = match.groups() if match else (DESCRIPTOR.match(arguments)[1], '')
        by_name = path != ''
        path = os.path.normpath(os.path.join(folder or '/', path))
        if not path.startswith('/') or path.startswith('/pipe:') or IGNORED.match(path):
            return
        if error in ('EPERM', 'EACCES', 'EROFS'):
            self.faults.append(f'denied to root without capabilities: {self.where}')
        if path == PROPERTY_STORE:
            self.properties_read = True
            return
        if by_name:
            self.walk(path)
        if not error:
            # The result of an open names the end of a chain of links.
            phone = phone_path(opened or path)
            self.reach(name, arguments, phone, self.labels.type_of(phone))

    def walk(self, path):
        """Searches each folder above, and reads the phone's links on the way."""
        phone = phone_path(path)
        if path.startswith('/proc/device-tree'):
            self.use('proc', 'lnk_file', 'read')
        if phone.startswith(PARTITIONS):
            self.use(self.labels.type_of(phone), 'lnk_file', 'read')
        while phone != '/':
            phone = os.path.dirname(phone)
            self.use(self.labels.type_of(phone), 'dir', 'search')

    def class_of(self, name, arguments, phone):
        mode = re.search(r'stx?_mode=(S_IF\w+)', arguments)
        if phone.startswith(PARTITIONS):
            return 'blk_file'
        if mode:
            return CLASS_OF_MODE[mode[1]]
        if 'O_DIRECTORY' in arguments or name == 'getdents64' or phone in self.folders:
            return 'dir'
        return 'chr_file' if phone.startswith('/dev/') else 'file'

    def reach(self, name, arguments, phone, target):
        """The permissions on the object itself and, for a new or a removed one, on its folder."""
        tclass = self.class_of(name, arguments, phone)
        parent = self.labels.type_of(os.path.dirname(phone))
        if name == 'openat':
            self.open(arguments, target, tclass, parent)
        elif name == 'execve':
            # init's transition enters the program of the service; all others stay in the domain.
            entry = 'entrypoint' if target == 'vorta_exec' else 'execute_no_trans'
            self.use(target, 'file', 'getattr', 'open', 'read', 'execute', 'map', entry)
        elif name == 'mkdir':
            self.folders.add(phone)
            self.use(parent, 'dir', 'write', 'add_name')
            self.use(target, 'dir', 'create')
        elif name in ('unlink', 'rmdir'):
            self.use(parent, 'dir', 'write', 'remove_name')
            self.use(target, *(('dir', 'rmdir') if name == 'rmdir' else ('file', 'unlink')))
        elif name in ('statfs', 'fstatfs'):
            self.use('labeledfs', 'filesystem', 'getattr')
        elif name in ('access', 'faccessat2'):
            for mode, permission in (('R_OK', 'read'), ('W_OK', 'write'), ('X_OK', 'execute')):
                if mode in arguments:
                    self.use(target, tclass, permission)
        else:
            self.use(target, tclass, PERMISSION_OF[name])

    def open(self, arguments, target, tclass, parent):
        if 'O_CREAT' in arguments:  # taken as new: in some scenario each of them is
            self.use(parent, 'dir', 'write', 'add_name')
            self.use(target, tclass, 'create')
        self.use(target, tclass, 'open')
        if 'O_WRONLY' not in arguments:
            self.use(target, tclass, 'read')
        if 'O_WRONLY' in arguments or 'O_RDWR' in arguments:
            # The kernel checks an appending descriptor for append in the place of write.
            self.use(target, tclass, 'append' if 'O_APPEND' in arguments else 'write')


def daemon_traces(traces):
    """The processes that the daemon started, itself first; `traces` is text by process id."""
    found = [pid for pid, text in traces.items() if 'execve("/vendor/bin/vorta"' in text]
    for pid in found:
        text = traces[pid]
        if pid == found[0]:  # what it did before it was the daemon belongs to the sandbox
            text = traces[pid] = text[text.index('execve("/vendor/bin/vorta"'):]
        found += re.findall(r"^(?:clone3?|v?fork)\(.*\) = \d+ /\* (\d+) in strace's PID NS", text, re.MULTILINE)
    return [traces[pid] for pid in found]


def phone_path(path):
    for host, phone in ALIASES:
        path = host.sub(phone, path)
    return path


PERMISSION_OF = {'getdents64': 'read', 'readlink': 'read', 'ioctl': 'ioctl'}
PERMISSION_OF.update(dict.fromkeys(('stat', 'lstat', 'fstat', 'newfstatat', 'statx'), 'getattr'))
PERMISSION_OF.update(dict.fromkeys(('chmod', 'fchmod', 'fchmodat', 'chown', 'fchown', 'fchownat'), 'setattr'))
HANDLERS = dict.fromkeys(('openat', 'execve', 'mkdir', 'unlink', 'rmdir', 'statfs', 'fstatfs', 'access',
                          'faccessat2', *PERMISSION_OF), Uses.on_path)
HANDLERS.update(dict.fromkeys(('clone', 'clone3', 'fork', 'vfork'), Uses.fork))
HANDLERS.update(dict.fromkeys(('kill', 'tgkill'), Uses.signal))
HANDLERS.update(dict.fromkeys(('socket', 'connect', 'sendto', 'sendmsg'), Uses.socket))
HANDLERS.update({'prlimit64': Uses.limits, 'mmap': Uses.mmap})
