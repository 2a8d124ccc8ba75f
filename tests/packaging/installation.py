"""The package, installed in a lab's router, and what stands in there for systemd."""
import json
import os
import pathlib
import socket
import stat
import subprocess
import threading

import labs
from labs import modified
from unitfile import UNITS, Unit

SANDBOX = pathlib.Path(__file__).parent / "sandbox.py"
UNIT_FOLDER = "/usr/lib/systemd/system"
LAYERS = "/run/layers"
CHANGED = ("usr", "etc", "var")  # folders in which an installation writes, besides /tesk
WATCHDOG_SHARE = 100  # how much sooner than the unit says the tests want a sign of life

# /tesk and /run are the router's own already; the rest is the machine's, with a layer over it that takes the changes.
OVERLAYS = f"""
set -e
mkdir {LAYERS}
mount -t tmpfs layers {LAYERS}
for name in {' '.join(CHANGED)}; do
    mkdir {LAYERS}/$name {LAYERS}/$name.work
    mount -t overlay -o lowerdir=/$name,upperdir={LAYERS}/$name,workdir={LAYERS}/$name.work overlay /$name
done
rm -rf --one-file-system /tesk/* /run/tk
"""


def build_package(folder):
    """Makes the package from what is built already, and returns its path."""
    configuration = labs.BIN.parent / "CPackConfig.cmake"
    words = ["cpack", "--config", configuration, "-B", folder]
    done = subprocess.run(words, capture_output=True, text=True, timeout=120)
    assert done.returncode == 0, done.stdout + done.stderr
    package, = pathlib.Path(folder).glob("*.deb")
    return package


class Manager:
    """Starts units as systemd does, as far as one needs no systemd for it."""

    def __init__(self, lab):
        self.lab = lab
        self.running = {}
        self.signs = []  # what programs told by their notification sockets
        self.ended = threading.Event()
        self.watchers = []
        self.socket = None

    def open_socket(self):
        path = self.lab.root / "run" / "notify"
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(str(path))
        path.chmod(0o777)
        self.watch(self.listen)

    def watch(self, work):
        self.watchers.append(threading.Thread(target=work, daemon=True))
        self.watchers[-1].start()

    def listen(self):
        while not self.ended.is_set():
            self.signs += self.socket.recv(4096).decode().splitlines()

    def command(self, name, *words):
        return self.lab.router.command("/usr/bin/python3", SANDBOX, f"{UNIT_FOLDER}/{name}", *words)

    def start(self, name):
        """Starts a service; returns when it is ready, if that is something it tells."""
        unit = Unit(UNITS / name)
        variables = dict(os.environ)
        if unit.says("Type", "notify"):
            if not self.socket:
                self.open_socket()
            watched = int(unit.get("WatchdogSec")) * 1000000 // WATCHDOG_SHARE
            variables |= {"NOTIFY_SOCKET": "/run/notify", "WATCHDOG_USEC": str(watched)}
        log = self.lab.directory / f"{name}.log"
        with open(log, "ab") as out:
            self.running[name] = subprocess.Popen(self.command(name), env=variables, stdin=subprocess.DEVNULL,
                                                  stdout=out, stderr=out)
        if unit.says("Type", "notify"):
            labs.eventually(lambda: "READY=1" in self.signs or not self.runs(name), f"{name} is ready")
        assert self.runs(name), self.log(name)

    def heed(self, name):
        """Stands in for a path unit: starts its service when the file that it names is written."""
        path = self.lab.root / Unit(UNITS / name).get("PathModified").lstrip("/")
        service = name.replace(".path", ".service")

        def watch():
            seen = None
            while not self.ended.wait(0.02):
                now = modified(path)
                if now not in (None, seen) and not self.runs(service):
                    self.start(service)
                seen = now
        self.watch(watch)

    def reload(self, name):
        """Has a service read its configuration again, and returns how that ended."""
        line = Unit(UNITS / name).get("ExecReload")
        assert line.startswith("+"), f"{line}: without + it would run in the sandbox"
        return self.lab.router.run(*line[1:].split(), check=False)

    def runs(self, name):
        return name in self.running and self.running[name].poll() is None

    def log(self, name):
        return (self.lab.directory / f"{name}.log").read_text(errors="replace")

    def stop(self):
        """Stops the services, and returns their statuses."""
        self.ended.set()
        if self.socket:
            with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as own:
                own.sendto(b"", self.socket.getsockname())
        for watcher in self.watchers:
            watcher.join(labs.PATIENCE)
        if self.socket:
            self.socket.close()
        # As PartOf= says: what belongs to the router ends first.
        return {name: self.end(name) for name in reversed(self.running)}

    def end(self, name):
        if self.runs(name):
            self.running[name].terminate()
        return self.running[name].wait(labs.PATIENCE)


class Installation:
    """A lab whose router has a root of its own, in which packages can be installed and removed."""

    def __init__(self, lab, package):
        self.lab, self.package = lab, package
        lab.router.run("sh", "-c", OVERLAYS)
        self.manager = Manager(lab)

    def install(self):
        return self.lab.router.run("dpkg", "-i", self.package)

    def purge(self):
        return self.lab.router.run("dpkg", "--purge", "gateway")

    def start(self):
        """What the package's units do at a start of the system."""
        self.manager.heed("upnpd.path")
        self.manager.heed("resolverd.path")
        self.manager.start("routerd.service")

    def tkctl(self, *words):
        return self.lab.router.run("/usr/sbin/tkctl", *words)

    def query(self, *words):
        return json.loads(self.tkctl(*words, "--json").stdout)

    def serve(self):
        """Gives the interfaces their roles, and switches the gateway on."""
        self.tkctl("upnp", "interface", "add", "lan0", "internal")
        self.tkctl("upnp", "interface", "add", "wan0", "external")
        self.tkctl("upnp", "set", "enabled=yes")
        labs.eventually(lambda: "start int: lan0" in self.manager.log("upnpd.service"), "the gateway serves lan0")

    def wan_path(self):
        interface, = (record["id"] for record in self.query("interface", "list") if record["name"] == "wan0")
        return f"/upnp/control/wanipconn-{interface}"

    def left(self, folder):
        """What the layer over a folder holds that is not below it: files that were added or changed."""
        layer = self.lab.root / LAYERS.lstrip("/") / folder
        for path in sorted(layer.rglob("*")):
            mode = path.lstat().st_mode
            name = pathlib.Path(folder, path.relative_to(layer))
            is_removed = stat.S_ISCHR(mode) and path.lstat().st_rdev == 0
            if not is_removed and not (stat.S_ISDIR(mode) and pathlib.Path("/", name).is_dir()):
                yield str(name)
