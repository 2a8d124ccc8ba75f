"""Becomes the program of a systemd unit, in the sandbox that the unit describes, where no systemd runs.

    sandbox.py UNIT            runs the unit's program; a system call that the unit does not allow kills it
    sandbox.py UNIT --probe    tries what the unit forbids, and prints as JSON what it met
"""
import ctypes
import errno
import grp
import json
import os
import pathlib
import pwd
import resource
import socket
import stat
import subprocess
import sys

import seccomp
from seccomp import ALLOW, EQ, ERRNO, GE, GT, KILL_PROCESS, MASKED_EQ, NE, Arg

from unitfile import Unit

libc = ctypes.CDLL(None, use_errno=True)

CLONE_NEWNS, CLONE_NEWUTS, CLONE_NEWIPC, CLONE_NEWUSER = 0x20000, 0x4000000, 0x8000000, 0x10000000
NAMESPACES = (CLONE_NEWNS, CLONE_NEWUTS, CLONE_NEWIPC, CLONE_NEWUSER, 0x2000000, 0x20000000, 0x40000000)
MS_NOSUID, MS_NODEV, MS_NOEXEC, MS_BIND, MS_REC, MS_SLAVE = 2, 4, 8, 4096, 16384, 1 << 19
READ_ONLY, NO_EXEC = 1, 8  # attributes of mount_setattr
RECURSIVE = 0x8000
SYS_MOUNT_SETATTR, SYS_KEYCTL, SYS_CAPSET, SYS_PTRACE, SYS_BPF = 442, 250, 126, 101, 321
PR_CAPBSET_DROP, PR_SET_KEEPCAPS, PR_SET_NO_NEW_PRIVS, PR_CAP_AMBIENT = 24, 8, 38, 47
LAST_CAPABILITY = 40
CAPABILITIES = {"CAP_NET_ADMIN": 12}
DEVICES = ("null", "zero", "full", "random", "urandom", "tty")
TUNABLES = ("/proc/sys", "/proc/sysrq-trigger", "/proc/irq", "/proc/bus", "/proc/fs", "/proc/acpi", "/sys")
# What the Protect... lines forbid besides capabilities and paths.
FORBIDDEN_CALLS = {
    "ProtectClock": ("settimeofday", "clock_settime", "adjtimex", "clock_adjtime"),
    "ProtectHostname": ("sethostname", "setdomainname"),
    "ProtectKernelLogs": ("syslog",),
    "ProtectKernelModules": ("init_module", "finit_module", "delete_module"),
}


def check(outcome, what):
    if outcome < 0:
        code = ctypes.get_errno()
        raise OSError(code, f"{what}: {os.strerror(code)}")
    return outcome


def mount(source, target, kind=None, flags=0, options=None):
    encoded = [text and str(text).encode() for text in (source, target, kind, options)]
    check(libc.mount(encoded[0], encoded[1], encoded[2], ctypes.c_ulong(flags), encoded[3]), f"mount {target}")


def set_attributes(path, put=0, remove=0):
    """Changes a mount and all below it."""
    words = (ctypes.c_uint64 * 4)(put, remove, 0, 0)
    check(libc.syscall(SYS_MOUNT_SETATTR, -100, str(path).encode(), RECURSIVE, words, 32), f"attributes of {path}")


def prctl(*numbers):
    return check(libc.prctl(*map(ctypes.c_ulong, [*numbers, *[0] * (5 - len(numbers))])), f"prctl {numbers}")


def own_mount(path):
    mount(path, path, flags=MS_BIND | MS_REC)
    return path


def optional(paths):
    """Paths of a unit; one that begins with - may be absent."""
    return [path.lstrip("-") for path in paths if not path.startswith("-") or os.path.exists(path[1:])]


def hide(path):
    if os.path.isdir(path):
        mount("tmpfs", path, "tmpfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, "mode=000,size=0")
        set_attributes(path, READ_ONLY)
    elif os.path.exists(path):
        mount("/dev/null", path, flags=MS_BIND)


def private_devices():
    here = pathlib.Path("/dev")
    made = pathlib.Path("/run/.devices")
    made.mkdir(exist_ok=True)
    mount("tmpfs", made, "tmpfs", MS_NOSUID, "mode=755")
    for name in DEVICES:
        device = (here / name).stat().st_rdev
        os.mknod(made / name, stat.S_IFCHR | 0o666, device)
        os.chmod(made / name, 0o666)
    for name in ("pts", "shm", "mqueue"):
        (made / name).mkdir()
    (made / "shm").chmod(0o1777)
    mount(made, here, flags=MS_BIND)
    set_attributes(here, READ_ONLY | NO_EXEC)
    libc.umount2(str(made).encode(), 2)
    made.rmdir()


def runtime_directory(unit, user, group):
    for name in unit.words("RuntimeDirectory"):
        path = pathlib.Path("/run", name)
        path.mkdir(exist_ok=True)
        path.chmod(int(unit.get("RuntimeDirectoryMode", "0755"), 8))
        os.chown(path, user, group)
        yield path


def files(unit, writable):
    """The unit's view of the files."""
    check(libc.unshare(CLONE_NEWNS), "unshare")
    mount(None, "/", flags=MS_REC | MS_SLAVE)
    writable = [own_mount(path) for path in [*optional(unit.words("ReadWritePaths")), *writable]]
    executable = [own_mount(path) for path in optional(unit.words("ExecPaths"))]
    if unit.says("PrivateDevices"):
        private_devices()
    if unit.says("ProtectHome"):
        for path in ("/home", "/root", "/run/user"):
            hide(path)
    if unit.says("ProtectKernelModules"):
        hide("/usr/lib/modules")
    if unit.says("ProtectSystem", "strict"):
        set_attributes("/", READ_ONLY)
        for path in ("/proc", "/sys", *writable):
            set_attributes(path, remove=READ_ONLY)
    for path in optional(unit.words("NoExecPaths")):
        set_attributes(path, NO_EXEC)
    for path in executable:
        set_attributes(path, remove=NO_EXEC)
    if unit.says("PrivateTmp"):
        flags = MS_NOSUID | MS_NODEV | (MS_NOEXEC if unit.get("NoExecPaths") else 0)
        for path in ("/tmp", "/var/tmp"):
            mount("tmpfs", path, "tmpfs", flags, "mode=1777")
    processes(unit)
    if unit.says("ProtectKernelLogs"):
        hide("/proc/kmsg")
    if unit.says("ProtectKernelTunables"):
        for path in filter(os.path.exists, TUNABLES):
            set_attributes(own_mount(path), READ_ONLY)
    if unit.says("ProtectControlGroups") and os.path.exists("/sys/fs/cgroup"):
        set_attributes(own_mount("/sys/fs/cgroup"), READ_ONLY)


def processes(unit):
    options = []
    if unit.get("ProtectProc"):
        options.append("hidepid=" + unit.get("ProtectProc"))
    if unit.get("ProcSubset"):
        options.append("subset=" + unit.get("ProcSubset"))
    mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, ",".join(options))


def private_users(user, group):
    """A user namespace in which root and the unit's own user exist, and nobody else."""
    reading, writing = os.pipe()
    parent, child = os.getpid(), os.fork()
    if child == 0:
        os.close(writing)
        os.read(reading, 1)  # until the namespace is there
        for name, number in (("uid_map", user), ("gid_map", group)):
            pathlib.Path(f"/proc/{parent}/{name}").write_text(f"0 0 1\n{number} {number} 1\n")
        os._exit(0)
    os.close(reading)
    check(libc.unshare(CLONE_NEWUSER), "unshare users")
    os.close(writing)
    if os.waitpid(child, 0)[1] != 0:
        sys.exit("the map of users cannot be written")


def drop_rights(unit, user, group):
    kept = {CAPABILITIES[name] for name in unit.words("CapabilityBoundingSet")}
    ambient = {CAPABILITIES[name] for name in unit.words("AmbientCapabilities")}
    os.setgroups([grp.getgrnam(name).gr_gid for name in unit.words("SupplementaryGroups")])
    if unit.says("PrivateUsers"):
        private_users(user, group)
    for number in range(LAST_CAPABILITY + 1):
        if number not in kept:
            prctl(PR_CAPBSET_DROP, number)
    prctl(PR_SET_KEEPCAPS, 1)
    os.setresgid(group, group, group)
    os.setresuid(user, user, user)
    mask = sum(1 << number for number in ambient)
    header = (ctypes.c_uint32 * 2)(0x20080522, 0)
    check(libc.syscall(SYS_CAPSET, header, (ctypes.c_uint32 * 6)(mask, mask, mask, 0, 0, 0)), "capset")
    for number in ambient:
        prctl(PR_CAP_AMBIENT, 2, number)
    prctl(PR_SET_KEEPCAPS, 0)


def forbid(unit):
    """The filter of the lines other than SystemCallFilter."""
    deny = seccomp.SyscallFilter(ALLOW)
    refused = ERRNO(errno.EPERM)
    families = unit.words("RestrictAddressFamilies")
    if families:
        allowed = {int(getattr(socket, name)) for name in families}
        for family in set(range(46)) - allowed:
            deny.add_rule(ERRNO(errno.EAFNOSUPPORT), "socket", Arg(0, EQ, family))
        deny.add_rule(ERRNO(errno.EAFNOSUPPORT), "socket", Arg(0, GE, 46))
    if unit.says("RestrictNamespaces"):
        for call in ("unshare", "setns"):
            deny.add_rule(refused, call)
        for flag in NAMESPACES:
            deny.add_rule(refused, "clone", Arg(0, MASKED_EQ, flag, flag))
        deny.add_rule(ERRNO(errno.ENOSYS), "clone3")
    if unit.says("RestrictRealtime"):
        deny.add_rule(refused, "sched_setscheduler", Arg(1, GT, 0))
    if unit.says("RestrictSUIDSGID"):
        for bit in (stat.S_ISUID, stat.S_ISGID):
            for call, argument in (("chmod", 1), ("fchmod", 1), ("fchmodat", 2), ("mkdir", 1), ("mkdirat", 2)):
                deny.add_rule(refused, call, Arg(argument, MASKED_EQ, bit, bit))
    if unit.says("LockPersonality"):
        deny.add_rule(refused, "personality", Arg(0, NE, 0))
    if unit.says("MemoryDenyWriteExecute"):
        deny.add_rule(refused, "mmap", Arg(2, MASKED_EQ, 6, 6))
        for call in ("mprotect", "pkey_mprotect"):
            deny.add_rule(refused, call, Arg(2, MASKED_EQ, 4, 4))
        deny.add_rule(refused, "shmat", Arg(2, MASKED_EQ, 0o100000, 0o100000))
    for key, calls in FORBIDDEN_CALLS.items():
        for call in calls if unit.says(key) else ():
            deny.add_rule(refused, call)
    deny.load()


def allowed_calls(unit):
    """The numbers of the system calls that the unit names, one by one or by systemd's groups."""
    names, groups = set(), unit.words("SystemCallFilter")
    while groups:
        name = groups.pop()
        if not name.startswith("@"):
            names.add(name)
            continue
        shown = subprocess.run(["systemd-analyze", "syscall-filter", name], capture_output=True, text=True, check=True)
        lines = [line.strip() for line in shown.stdout.splitlines()[1:]]
        groups += [line for line in lines if line and not line.startswith("#")]
    return names


def allow(names, otherwise):
    filter = seccomp.SyscallFilter(otherwise)  # other architectures than the machine's own are killed
    for name in sorted(names):
        # Those that only other architectures have get a number below 0; -1 is a name that nobody knows.
        number = seccomp.resolve_syscall(seccomp.Arch(), name)
        if number >= 0:
            filter.add_rule(ALLOW, number)
    filter.load()


def enter(unit, account):
    """Puts this process where the unit's program runs, as who it is."""
    user, group = account.pw_uid, grp.getgrnam(unit.get("Group")).gr_gid
    writable = list(runtime_directory(unit, user, group))
    if unit.says("PrivateIPC"):
        check(libc.unshare(CLONE_NEWIPC), "unshare IPC")
    if unit.says("ProtectHostname"):
        check(libc.unshare(CLONE_NEWUTS), "unshare UTS")
    files(unit, writable)
    if unit.says("KeyringMode", "private"):
        check(libc.syscall(SYS_KEYCTL, 1, None), "keyring")
    for key in ("LimitNOFILE", "LimitCORE"):
        limit = int(unit.get(key))
        resource.setrlimit(getattr(resource, key.replace("Limit", "RLIMIT_")), (limit, limit))
    os.umask(int(unit.get("UMask"), 8))
    drop_rights(unit, user, group)
    os.chdir("/")
    if unit.says("NoNewPrivileges"):
        prctl(PR_SET_NO_NEW_PRIVS, 1)


def environment(unit, account):
    passed = {name: os.environ[name] for name in ("NOTIFY_SOCKET",) if name in os.environ}
    if "WATCHDOG_USEC" in os.environ:
        passed |= {"WATCHDOG_USEC": os.environ["WATCHDOG_USEC"], "WATCHDOG_PID": str(os.getpid())}
    return passed | {"PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin", "LANG": "C.UTF-8",
                     "USER": account.pw_name, "LOGNAME": account.pw_name, "HOME": account.pw_dir,
                     "SHELL": account.pw_shell}


# --- the probe --------------------------------------------------------------------------------------------------------

def outcome(work):
    try:
        work()
    except OSError as error:
        return errno.errorcode.get(error.errno, str(error))
    return "done"


def call(number, *arguments):
    return lambda: check(libc.syscall(number, *arguments), "call")


def datagrams(family):
    return lambda: socket.socket(getattr(socket, family), socket.SOCK_DGRAM).close()


def executable_memory():
    page = libc.mmap(None, 4096, 3, 0x22, -1, 0)
    check(libc.mprotect(ctypes.c_void_p(page), 4096, 5), "mprotect")


def suid_file():
    path = pathlib.Path("/tmp/.suid")
    path.touch()
    path.chmod(0o4755)


FOLDERS = ("/", "/etc", "/usr", "/usr/sbin", "/var", "/var/tmp", "/tmp", "/tesk", "/tesk/etc", "/tesk/router",
           "/tesk/store", "/run", "/run/tk", "/dev", "/proc", "/sys")
FAMILIES = ("AF_UNIX", "AF_INET", "AF_INET6", "AF_NETLINK", "AF_PACKET", "AF_ALG", "AF_VSOCK")
libc.mmap.restype = ctypes.c_void_p
libc.mmap.argtypes = [ctypes.c_void_p, ctypes.c_size_t, ctypes.c_int, ctypes.c_int, ctypes.c_int, ctypes.c_long]


def look():
    """What the process sees, for which some sandboxes allow no call."""
    lines = pathlib.Path("/proc/self/status").read_text().splitlines()
    status = dict(line.split(":\t", 1) for line in lines if ":\t" in line)
    return {
        "devices": sorted(name for name in os.listdir("/dev") if not os.path.isdir(f"/dev/{name}")),
        "proc": sorted(name for name in os.listdir("/proc") if not name.isdigit()),
        "other users": sorted({os.stat(f"/proc/{name}").st_uid for name in os.listdir("/proc") if name.isdigit()}
                              - {os.getuid()}),
        "home": outcome(lambda: os.listdir("/root")),
        "ambient": status["CapAmb"].strip(),
        "limits": [resource.getrlimit(resource.RLIMIT_NOFILE)[1], resource.getrlimit(resource.RLIMIT_CORE)[1]],
        "users": len(pathlib.Path("/proc/self/uid_map").read_text().splitlines()),
    }


def attempt():
    """What the process can do."""
    return {
        "writable": [folder for folder in FOLDERS if os.access(folder, os.W_OK)],
        "families": [name for name in FAMILIES if outcome(datagrams(name)) != "EAFNOSUPPORT"],
        "calls": {name: outcome(work) for name, work in {
            "mount": lambda: mount("tmpfs", "/tmp", "tmpfs"),
            "unshare": lambda: check(libc.unshare(CLONE_NEWUSER), "unshare"),
            "ptrace": call(SYS_PTRACE, 0, 0, 0, 0),
            "bpf": call(SYS_BPF, 5, None, 0),
            "keyctl": call(SYS_KEYCTL, 0, -3, 0),
            "personality": lambda: check(libc.personality(ctypes.c_ulong(0x40000)), "personality"),
            "executable memory": executable_memory,
            "suid": suid_file,
            "sethostname": lambda: check(libc.sethostname(b"other", 5), "sethostname"),
            "setuid": lambda: os.setuid(0),
        }.items()},
    }


def main():
    unit = Unit(sys.argv[1])
    probing = "--probe" in sys.argv
    program = unit.get("ExecStart").split()
    account = pwd.getpwnam(unit.get("User"))
    calls = allowed_calls(unit)
    enter(unit, account)
    seen = look() if probing else {}
    forbid(unit)
    allow(calls, ERRNO(getattr(errno, unit.get("SystemCallErrorNumber"))) if probing else KILL_PROCESS)
    if probing:
        print(json.dumps(seen | attempt()), flush=True)
        os.execv("/bin/true", ["true"])  # fails where the unit runs nothing but its program
    os.execve(program[0], program, environment(unit, account))


main()
