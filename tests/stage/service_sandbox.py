"""A program as another user, under the system call filter of a unit.

The filter is the unit's own SystemCallFilter, its sets taken apart by
systemd-analyze, but a forbidden call ends the program instead of failing, so
that no test overlooks one.
"""
import ctypes
import os
import platform
import re
import struct
import subprocess

AUDIT_ARCH = {"x86_64": 0xC000003E, "aarch64": 0xC00000B7}
RET_ALLOW, RET_KILL_PROCESS = 0x7FFF0000, 0x80000000
LOAD, JUMP_EQUAL, RETURN = 0x20, 0x15, 0x06
PR_SET_NO_NEW_PRIVS, PR_SET_SECCOMP, SECCOMP_MODE_FILTER = 38, 22, 2


def expand(name):
    """The system calls of a name as SystemCallFilter= takes it."""
    if not name.startswith("@"):
        return {name}
    out = subprocess.run(["systemd-analyze", "syscall-filter", name], check=True,
                         capture_output=True, text=True).stdout
    calls = set()
    for line in out.splitlines()[1:]:
        word = line.strip()
        if word and not word.startswith("#"):
            calls |= expand(word)
    return calls


def allowed_calls(unit):
    with open(unit, encoding="utf-8") as text:
        values = re.findall(r"^SystemCallFilter=(~?)(.*)$", text.read(), re.M)
    # Whatever the list says, systemd allows these: they start the program.
    calls = expand("@default") | {"execve"}
    for deny, names in values:
        for name in names.split():
            calls = calls - expand(name) if deny else calls | expand(name)
    return calls


def filter_program(calls):
    """seccomp BPF that allows these calls of this machine."""
    header = subprocess.run(["gcc", "-E", "-dM", "-include", "sys/syscall.h", "-x", "c", os.devnull],
                            check=True, capture_output=True, text=True).stdout
    known = dict(re.findall(r"^#define __NR_(\w+) (\d+)$", header, re.M))
    numbers = sorted({int(known[call]) for call in calls if call in known})
    code = [(LOAD, 0, 0, 4),  # The architecture.
            (JUMP_EQUAL, 1, 0, AUDIT_ARCH[platform.machine()]),
            (RETURN, 0, 0, RET_KILL_PROCESS),
            (LOAD, 0, 0, 0)]  # The number.
    for number in numbers:
        code += [(JUMP_EQUAL, 0, 1, number), (RETURN, 0, 0, RET_ALLOW)]
    code.append((RETURN, 0, 0, RET_KILL_PROCESS))
    return b"".join(struct.pack("HBBI", *line) for line in code)


def install(program):
    """In the child, before it becomes the program."""
    buffer = ctypes.create_string_buffer(program, len(program))
    header = struct.pack("HxxxxxxP", len(program) // 8, ctypes.addressof(buffer))
    libc = ctypes.CDLL(None, use_errno=True)
    if (libc.prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0
            or libc.prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, header, 0, 0) != 0):
        os._exit(127)


class Identity:
    """Who a program runs as; as a unit's User=, Group= and SupplementaryGroups=."""

    def __init__(self, uid, gid, groups=()):
        self.uid, self.gid, self.groups = uid, gid, groups

    def start(self, argv, program=None, **options):
        def enter():
            os.umask(0o027)
            os.setgroups(self.groups)
            os.setresgid(self.gid, self.gid, self.gid)
            os.setresuid(self.uid, self.uid, self.uid)
            if program is not None:
                install(program)

        return subprocess.Popen(argv, preexec_fn=enter, text=True, **options)
