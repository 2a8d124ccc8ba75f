"""A stand-in for a service manager: starts the programs as its units would, each as its own user, without root."""
import contextlib
import os
import pathlib
import shutil
import socket
import threading

import labs
from routerusers import DAEMON, GROUP, IDS, OTHER, ROUTER

PROGRAMS = pathlib.Path("/tesk/bin")  # copies, where every user can reach them
START = "/run/tk/start"
NAMES = {"upnpd": (80, DAEMON), "resolverd": (14, OTHER)}

TRIGGERS = "".join(f'[[program]]\nnumber = {number}\ntrigger = "{START}/{name}"\n'
                   for name, (number, _) in NAMES.items())

# Makes every mount read-only, except the folders that are named before the "--", and runs what follows that.
READ_ONLY = ("unshare", "--mount", "/usr/bin/python3", "-c", """
import ctypes, os, subprocess, sys
here, recursive, read_only, mount_setattr = -100, 0x8000, 1, 442
end = sys.argv.index("--")
kept, command = sys.argv[1:end], sys.argv[end + 1:]
for folder in kept:
    subprocess.run(["mount", "--bind", folder, folder], check=True)
for path, scope, setting, clearing in [("/", recursive, read_only, 0), *((folder, 0, 0, read_only) for folder in kept)]:
    attributes = (ctypes.c_uint64 * 4)(setting, clearing)
    done = ctypes.CDLL(None).syscall(mount_setattr, here, path.encode(), scope, attributes, ctypes.sizeof(attributes))
    assert done == 0, path
os.execvp(command[0], command)
""")


def as_user(user, *capabilities, group=None, groups=(GROUP,)):
    """What goes before a command so that it runs as the user, with these capabilities at most."""
    kept = ",".join(["-all", *(f"+{name}" for name in capabilities)])
    return ["setpriv", "--reuid", IDS[user], "--regid", group or IDS[user], "--groups", ",".join(map(str, groups)),
            "--bounding-set", kept, "--inh-caps", kept, "--ambient-caps", kept, "--no-new-privs"]


def read_only_but(*folders):
    return [*READ_ONLY, *folders, "--"]


def prepare(lab):
    """Makes the folders that the units name, and puts routerd where its user reaches it."""
    for folder in ("run/tk", "tesk/router"):
        path = lab.root / folder
        path.mkdir(exist_ok=True)
        os.chown(path, IDS[ROUTER], IDS[ROUTER])
    shutil.copy(labs.BIN / "routerd", lab.root / "tesk" / "bin")


def start_router(lab, configuration, *before, after=None):
    """Starts routerd with CAP_NET_ADMIN alone; returns it before it serves."""
    (lab.root / "tesk" / "etc" / "router.toml").write_text(configuration)
    wrapper = [*before, *(after or as_user(ROUTER, "net_admin"))]
    lab.routerd = labs.Program(lab, "routerd", wrapper=wrapper, folder=PROGRAMS)
    return lab.routerd


class Manager(contextlib.ExitStack):
    """Where a program says that it is ready, at a path or at a name that is no file."""

    def __init__(self, lab, abstract=True):
        super().__init__()
        self.name = "@manager" if abstract else "/run/manager"
        with lab.router.inside():  # a name that is no file exists only there
            self.socket = self.enter_context(socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM))
        path = f"{lab.root}{self.name}"
        self.socket.bind("\0manager" if abstract else path)
        if not abstract:
            self.callback(os.unlink, path)
            os.chmod(path, 0o777)
        self.socket.settimeout(labs.PATIENCE)

    def environment(self, *more):
        return ["env", f"NOTIFY_SOCKET={self.name}", *more]

    def hears(self):
        return self.socket.recv(1000).decode()


class PathUnit(contextlib.ExitStack):
    """Starts a program whenever its trigger is written while it does not run."""

    def __init__(self, lab, name, *before):
        super().__init__()
        self.lab, self.name = lab, name
        self.wrapper = [*before, *as_user(NAMES[name][1])]
        self.trigger = pathlib.Path(f"{lab.root}{START}/{name}")
        self.programs = []
        self.ending = threading.Event()
        self.seen = labs.modified(self.trigger)
        self.thread = threading.Thread(target=self.watch)
        self.thread.start()
        self.callback(self.end)

    def watch(self):
        while not self.ending.wait(0.02):
            now = labs.modified(self.trigger)
            if now not in (None, self.seen) and not self.running():
                self.programs.append(labs.Program(self.lab, self.name, wrapper=self.wrapper, folder=PROGRAMS))
            self.seen = now

    def running(self):
        return bool(self.programs) and self.programs[-1].running()

    def end(self):
        self.ending.set()
        self.thread.join()
        for program in self.programs:
            program.stop()
