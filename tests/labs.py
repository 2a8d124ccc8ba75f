"""The world of the whole-program tests: a lab, its hosts, and the programs that run on its router."""
import concurrent.futures
import contextlib
import ctypes
import fcntl
import itertools
import json
import os
import pathlib
import re
import select
import shutil
import socket
import subprocess
import threading
import time

import pytest

ROOT = pathlib.Path(__file__).resolve().parent.parent
LAB = ROOT / "lab" / "lab"
DATA = ROOT / "data" / "upnp"
BIN = pathlib.Path(os.environ.get("GATEWAY_BIN", ROOT / "build" / "release" / "bin")).resolve()

ROUTER_LAN = "192.0.2.1"
LAN1 = "192.0.2.2"
LAN2 = "192.0.2.3"
ROUTER_WAN = "198.51.100.1"
WAN = "198.51.100.2"
ROUTER_WAN2 = "203.0.113.1"
WAN2 = "203.0.113.2"

# What a router knows about its interfaces, unless a test gives it a configuration.
SIDES = """
[lan]
interfaces = ["lan0"]

[[interface]]
name = "wan0"
terminate = true

[[interface]]
name = "wan1"
terminate = true
"""

SLOWNESS = float(os.environ.get("LAB_PATIENCE", 1))  # how many times slower than usual the programs run
PATIENCE = 10 * SLOWNESS  # seconds until a test gives up on a condition

CLONE_NEWNET = 0x40000000
CLOCK_REALTIME_COARSE = 5
libc = ctypes.CDLL(None, use_errno=True)
numbers = itertools.count(1)


def eventually(condition, what="the condition", seconds=PATIENCE):
    """Waits until condition() is true, returns its value, and fails when it stays false."""
    deadline = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        assert time.monotonic() < deadline, f"{what}: not within {seconds} s"
        time.sleep(0.02)


def next_line(stream, seconds=PATIENCE):
    """The next line of a process's pipe that nobody else reads, or what came before its end; fails when it stays out."""
    line, deadline = b"", time.monotonic() + seconds
    while not line.endswith(b"\n"):
        left = max(0, deadline - time.monotonic())
        assert select.select([stream], [], [], left)[0], f"no line within {seconds} s, only {line}"
        letter = os.read(stream.fileno(), 1)
        if not letter:
            break
        line += letter
    return line.decode()


@contextlib.contextmanager
def meanwhile(work):
    """Does work() once and again on a thread of its own, until the block ends. What fails there fails the test."""
    ended = threading.Event()

    def repeat():
        work()
        while not ended.is_set():
            work()
    with concurrent.futures.ThreadPoolExecutor(1) as thread:
        outcome = thread.submit(repeat)
        try:
            yield
        finally:
            ended.set()
            outcome.result()


def modified(path):
    """When the file was written; None while it does not exist, or the router that has it has ended."""
    try:
        return path.stat().st_mtime_ns
    except OSError:
        return None


def status(pid):
    """What the kernel says about a process, each line as its words by its name."""
    lines = pathlib.Path(f"/proc/{pid}/status").read_text().splitlines()
    return {name: words.split() for name, _, words in (line.partition(":") for line in lines)}


def second_of_now():
    """The second as time(2) tells it: that of the kernel's last tick, so up to a tick behind time.time()."""
    return int(time.clock_gettime(CLOCK_REALTIME_COARSE))


def can_trace():
    attempt = ["strace", "-qq", "-o", os.devnull, "true"]
    return bool(shutil.which("strace")) and subprocess.run(attempt, capture_output=True, timeout=PATIENCE).returncode == 0


tracing = pytest.mark.skipif(not can_trace(), reason="this machine lets nobody trace system calls")


def set_namespace(descriptor):
    if libc.setns(descriptor, CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), "setns")


@contextlib.contextmanager
def namespace(path):
    """Puts this thread into a network namespace; sockets that are made there stay there."""
    home = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
    target = os.open(path, os.O_RDONLY)
    try:
        set_namespace(target)
        try:
            yield
        finally:
            set_namespace(home)
    finally:
        os.close(target)
        os.close(home)


class Host:
    """One host of a lab."""

    def __init__(self, lab, name, address):
        self.lab, self.name, self.address = lab, name, address

    def inside(self):
        """Puts this thread onto the host until the block ends; sockets that are made there stay there."""
        return namespace(f"/run/netns/gw-{self.lab.name}-{self.name}")

    def socket(self, kind=socket.SOCK_STREAM, seconds=PATIENCE):
        with self.inside():
            made = socket.socket(socket.AF_INET, kind)
        made.settimeout(seconds)
        return made

    def command(self, *words):
        return [str(LAB), "exec", self.lab.name, self.name, *map(str, words)]

    def run(self, *words, check=True, **options):
        """Runs a command to its end; standard output and error come as text."""
        done = subprocess.run(self.command(*words), capture_output=True, text=True, timeout=60 * SLOWNESS, **options)
        assert not check or done.returncode == 0, f"{words}: status {done.returncode}\n{done.stdout}{done.stderr}"
        return done

    def connect(self, address, port, seconds=PATIENCE):
        made = self.socket(seconds=seconds)
        try:
            made.connect((address, port))
        except OSError:
            made.close()
            raise
        return made

    def listen(self, port):
        made = self.socket()
        made.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        made.bind((self.address, port))
        made.listen(16)
        return made

    @contextlib.contextmanager
    def dropping(self, hook, match):
        """Makes the host's kernel drop packets that match, at its input or its output, until the block ends."""
        self.run("nft", f"add table ip gate; add chain ip gate {hook} {{ type filter hook {hook} priority 0; }}; "
                        f"add rule ip gate {hook} {match} drop")
        try:
            yield
        finally:
            self.run("nft", "delete table ip gate")

    def datagrams(self, port=0):
        made = self.socket(socket.SOCK_DGRAM)
        made.bind((self.address, port))
        return made


class Program:
    """A program on the router, with everything that it writes to standard output."""

    def __init__(self, lab, name, *words, wrapper=(), folder=BIN):
        number = next(numbers)
        self.name = name
        self.path = lab.directory / f"{number:02}-{name}.log"
        self.errors = self.path.with_suffix(".err")
        with open(self.path, "wb") as out, open(self.errors, "wb") as err:
            # A program that is traced already cannot have its memory searched for leaks by a sanitizer.
            environment = {**os.environ, "LSAN_OPTIONS": "detect_leaks=0"} if "strace" in wrapper else None
            self.process = subprocess.Popen(lab.router.command(*wrapper, folder / name, *words), stdin=subprocess.DEVNULL,
                                            stdout=out, stderr=err, env=environment)

    @property
    def log(self):
        return self.path.read_text(errors="replace")

    @property
    def lines(self):
        return self.log.splitlines()

    def mark(self):
        """The present length of the log, for since()."""
        return len(self.log)

    def since(self, mark):
        return self.log[mark:].splitlines()

    def wait_for(self, text, mark=0, seconds=PATIENCE):
        """Waits for a log line with the text, and fails at once if the program ends without it."""
        def found():
            ended = self.process.poll() is not None
            line = next((line for line in self.since(mark) if text in line), None)
            assert line is not None or not ended, f"{self.name} ended without {text!r}:\n{self.log}{self.errors.read_text()}"
            return line is not None
        eventually(found, f"{self.name}: {text!r}\n{self.log}", seconds)

    def running(self):
        return self.process.poll() is None

    def wait(self, seconds=PATIENCE):
        return self.process.wait(seconds)

    def stop(self, seconds=PATIENCE):
        """Asks the program to end, and returns its status."""
        if self.running():
            self.process.terminate()
        return self.process.wait(seconds)

    def kill(self):
        self.process.kill()
        self.process.wait(PATIENCE)


class Lab:
    """A lab from up to down, and what runs on its router."""

    def __init__(self, directory):
        self.name = f"test-{os.getpid()}-{next(numbers)}"
        self.directory = pathlib.Path(directory)
        self.router = Host(self, "router", ROUTER_LAN)
        self.lan1 = Host(self, "lan1", LAN1)
        self.lan2 = Host(self, "lan2", LAN2)
        self.wan = Host(self, "wan", WAN)
        self.wan2 = Host(self, "wan2", WAN2)
        self.routerd = self.upnpd = None
        try:
            subprocess.run([LAB, "up", self.name], check=True, timeout=60, env={**os.environ, "GATEWAY_BIN": str(BIN)})
        except BaseException:
            self.down()  # nobody else knows of what is there already
            raise
        # Tests start the programs themselves, so that each has a log of its own, unless they ask for this file.
        etc = self.root / "tesk" / "etc"
        (etc / "router.toml").rename(etc / "lab.toml")
        (etc / "router.toml").write_text(SIDES)
        (etc / "router.toml").chmod(0o644)

    @property
    def root(self):
        """The router's root directory, as this process sees it."""
        holder = pathlib.Path(f"/run/gateway-lab-{self.name}/holder").read_text().strip()
        return pathlib.Path("/proc", holder, "root")

    def down(self):
        for program in (self.upnpd, self.routerd):
            if program and program.running():
                program.process.terminate()
                try:
                    program.wait(PATIENCE / 2)
                except subprocess.TimeoutExpired:
                    program.kill()
        subprocess.run([LAB, "down", self.name], check=True, timeout=60)

    def start_routerd(self, *words):
        self.routerd = Program(self, "routerd", *words)
        eventually(self.bus_answers, f"routerd does not serve the bus: {self.routerd.log}")

    def bus_answers(self):
        assert self.routerd.running(), f"routerd ended: {self.routerd.log}{self.routerd.errors.read_text()}"
        return self.tkctl("bus", "call", "65", "0xFE000D", check=False).returncode == 0

    def start_upnpd(self):
        self.upnpd = Program(self, "upnpd")
        eventually(self.settings_answer, f"upnpd does not serve its settings: {self.upnpd.log}")

    def settings_answer(self):
        assert self.upnpd.running(), f"upnpd ended: {self.upnpd.log}{self.upnpd.errors.read_text()}"
        return self.tkctl("upnp", "get", check=False).returncode == 0

    def serve(self, external=("wan0",)):
        """Both programs run, lan0 is internal, the named interfaces are external, and the gateway is enabled."""
        self.start_routerd()
        self.start_upnpd()
        self.tkctl("upnp", "interface", "add", "lan0", "internal")
        for name in external:
            self.tkctl("upnp", "interface", "add", name, "external")
        self.enable()
        return self

    def enable(self):
        mark = self.upnpd.mark()
        self.tkctl("upnp", "set", "enabled=yes")
        self.upnpd.wait_for(f"start int: lan0 {ROUTER_LAN}", mark)

    def disable(self):
        self.tkctl("upnp", "set", "enabled=no")

    def reconnect_wan(self):
        """Makes a new wan0 when the router has lost its own. It has no address yet."""
        router, wan = f"gw-{self.name}-router", f"gw-{self.name}-wan"
        for words in (["link", "add", "wan0", "type", "veth", "peer", "name", "eth0", "netns", wan],
                      ["link", "set", "wan0", "up"]):
            subprocess.run(["ip", "-n", router, *words], check=True, timeout=10)
        self.wan.run("ip", "link", "set", "eth0", "up")

    def tkctl(self, *words, check=True):
        return self.router.run(BIN / "tkctl", *words, check=check)

    def query(self, *words):
        """The JSON answer of a tkctl command."""
        return json.loads(self.tkctl(*words, "--json").stdout)

    def interface_id(self, name):
        return next(record["id"] for record in self.query("interface", "list") if record["name"] == name)

    def identity(self):
        reply = self.query("bus", "call", "65", "0xFE000D")
        return next((field["value"] for field in reply["fields"] if field["id"] == "0x1"), "")

    def rules(self):
        """The destination NAT rules as routerd lists them."""
        return self.query("nat", "list")

    def table(self):
        """Our table as the kernel shows it, without what it counts and the sources that it remembers for its limits;
        empty when there is none."""
        text = self.router.run("nft", "list", "table", "ip", "tk", check=False).stdout
        text = re.sub(r" counter packets \d+ bytes \d+", " counter", text)
        return re.sub(r"\tset (searches|requests|connections) {\n.*?\n\t}\n", "", text, flags=re.DOTALL)


def remove_leftovers():
    """Takes down the labs that aborted test runs left behind. Runs that begin together take turns: what one has
    removed, the next does not find."""
    turn = os.open("/run", os.O_RDONLY | os.O_CLOEXEC)  # where the labs are; a file would be left over itself
    try:
        fcntl.flock(turn, fcntl.LOCK_EX)
        for name in subprocess.run([LAB, "list"], capture_output=True, text=True, check=True).stdout.split():
            words = name.split("-")
            if words[0] == "test" and len(words) == 3 and not os.path.exists(f"/proc/{words[1]}"):
                subprocess.run([LAB, "down", name], check=True, timeout=60)
    finally:
        os.close(turn)
