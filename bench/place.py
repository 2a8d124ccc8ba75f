"""Where things are measured: a lab with a serving gateway, the client, and the floors beside it."""
import contextlib
import itertools
import json
import os
import pathlib
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "tests"))

import control_point as cp  # noqa: E402
import labs  # noqa: E402

PROGRAMS = labs.ROOT / "build" / "release" / "bin"  # of the client and the floors, whatever GATEWAY_BIN says

# A client is another machine, so it has a core to itself where there are two. Where the scheduler may choose, it puts
# client and server now on one core and now on two, and a time is three times the other.
CORES = sorted(os.sched_getaffinity(0))
CLIENT_CORES, ROUTER_CORES = CORES[-1:], CORES[:-1] or CORES

# Every program runs as its own user, as installed. One host measures for many, so its searches are not limited.
CONFIGURATION = '[router]\nuser = "routerd"\n' + labs.SIDES + "\n[guard]\nsearches-per-second = 0\n"

FLOOR_PORT = 2829
FIRST_PORT = 20000


def soap(path, action, arguments=(), service=cp.CONNECTION):
    """A request that calls an action. @PORT@ and @INDEX@ stand for the numbers that the client goes through."""
    return cp.post(path, cp.envelope(cp.action_element(action, arguments, service)), f'"{service}#{action}"')


def get(path):
    return f"GET {path} HTTP/1.1\r\nHOST: {labs.ROUTER_LAN}:{cp.PORT}\r\n\r\n"


def add_mapping(path, **changes):
    """A request for the mapping of @PORT@ to lan1."""
    return soap(path, "AddPortMapping", cp.mapping(**{"external": "@PORT@", "internal": "@PORT@", "client": labs.LAN1,
                                                      **changes}))


def delete_mapping(path, protocol="TCP"):
    return soap(path, "DeletePortMapping",
                [("NewRemoteHost", ""), ("NewExternalPort", "@PORT@"), ("NewProtocol", protocol)])


class Place:
    """A lab in which the gateway serves. The client runs on lan1, the floors on the router, so that both go the same
    way."""

    def __init__(self, lab):
        self.lab = lab
        self.numbers = itertools.count(1)
        connection = f"wanipconn-{lab.interface_id('wan0')}"
        self.control = f"/upnp/control/{connection}"  # of wan0's connection service
        self.events = f"/upnp/event/{connection}"

    def file(self, content):
        """Writes the text or bytes to a file of their own, and returns its path."""
        path = self.lab.directory / f"file-{next(self.numbers)}"
        path.write_bytes(content if isinstance(content, bytes) else content.encode())
        return path

    def answer(self, request):
        """The gateway's answer to a request, byte for byte."""
        with self.lab.lan1.connect(labs.ROUTER_LAN, cp.PORT) as connection:
            connection.sendall(request.encode())
            return cp.read_to_end(connection)

    def load(self, *words, host=None):
        """Runs the client to its end, and returns the figures that it prints."""
        command = (host or self.lab.lan1).command(PROGRAMS / "load", *words)
        done = subprocess.run(command, capture_output=True, text=True, timeout=600, preexec_fn=stay_on(CLIENT_CORES))
        assert done.returncode == 0, f"{words}: {done.stdout}{done.stderr}"
        figures = json.loads(done.stdout)
        assert not figures.get("failed"), f"{words}: {figures} {done.stderr}"
        return figures

    def http(self, *requests, port=cp.PORT, address=labs.ROUTER_LAN, **options):
        """Sends requests in turn; the options are those of the client."""
        return self.load("http", "--to", f"{address}:{port}", *self.files(requests), *spelled(options))

    def burst(self, request, port=cp.PORT, **options):
        return self.load("burst", "--to", f"{labs.ROUTER_LAN}:{port}", *self.files([request]), *spelled(options))

    def udp(self, request, address, port, **options):
        return self.load("udp", "--to", f"{address}:{port}", *self.files([request]), *spelled(options))

    def notified(self, *requests, port=cp.PORT, **options):
        """Sends requests that bring events to lan1."""
        return self.load("events", "--to", f"{labs.ROUTER_LAN}:{port}", *self.files(requests), *spelled(options))

    def files(self, requests):
        return [word for request in requests for word in ("--request", self.file(request))]

    @contextlib.contextmanager
    def floor(self, kind, answer, *words, host=None, port=FLOOR_PORT):
        """The least of a server, on the router unless a host is given; yields its process."""
        host = host or self.lab.router
        process = subprocess.Popen(host.command(PROGRAMS / "floor", kind, "--port", port, "--answer", self.file(answer),
                                                *words), preexec_fn=stay_on(ROUTER_CORES))
        try:
            listing = "ss", "-Hln", "-u" if kind == "udp" else "-t", "sport", "=", f":{port}"
            labs.eventually(lambda: host.run(*listing).stdout.strip(), f"floor {kind} serves")
            yield process
        finally:
            process.terminate()
            process.wait(labs.PATIENCE)


@contextlib.contextmanager
def awake():
    """Keeps all cores from halting until the block ends, by a loop on each that yields to every other program. What it
    takes to wake a halted virtual core is the host's affair: it depends on how long the core has slept, and is more than
    all that is measured here."""
    loops = [subprocess.Popen([sys.executable, "-c", "while True: pass"], preexec_fn=idle_on(core)) for core in CORES]
    try:
        yield
    finally:
        for loop in loops:
            loop.terminate()
            loop.wait()


def idle_on(core):
    """Binds the process that calls the result to a core, where it runs only when nothing else does."""
    def become():
        os.sched_setaffinity(0, [core])
        os.sched_setscheduler(0, os.SCHED_IDLE, os.sched_param(0))
    return become


def stay_on(cores):
    """Binds the process that calls the result, and what it becomes, to the cores."""
    return lambda: os.sched_setaffinity(0, cores)


def spelled(options):
    """{"in_flight": 4} becomes --in-flight 4."""
    return [word for name, value in options.items() for word in (f"--{name.replace('_', '-')}", value)]


def processor_seconds(process):
    """How long a program of one thread has kept a processor busy."""
    return int(pathlib.Path(f"/proc/{process.pid}/schedstat").read_text().split()[0]) / 1e9


@contextlib.contextmanager
def serving(configuration=CONFIGURATION, routerd_wrapper=(), upnpd_wrapper=()):
    """A place of its own; lan0 is internal, and wan0 external. The programs run under the wrappers."""
    with tempfile.TemporaryDirectory() as directory:
        lab = labs.Lab(directory)
        try:
            (lab.root / "tesk" / "etc" / "router.toml").write_text(configuration)
            lab.routerd = labs.Program(lab, "routerd", wrapper=routerd_wrapper)
            labs.eventually(lab.bus_answers, "routerd serves the bus")
            lab.upnpd = labs.Program(lab, "upnpd", wrapper=upnpd_wrapper)
            labs.eventually(lab.settings_answer, "upnpd serves its settings")
            lab.tkctl("upnp", "interface", "add", "lan0", "internal")
            lab.tkctl("upnp", "interface", "add", "wan0", "external")
            lab.enable()
            for program in (lab.routerd, lab.upnpd):
                os.sched_setaffinity(program.process.pid, ROUTER_CORES)
            yield Place(lab)
        finally:
            lab.down()
