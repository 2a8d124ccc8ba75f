"""What the programs take: system calls and instructions a request, memory, room on the disk, and time to start and end."""
import contextlib
import os
import pathlib
import re
import signal
import socket
import statistics
import subprocess
import tempfile
import time

import place as places
from samples import Sample

import bus
import labs

COUNTED = 200     # requests for each figure
MAPPINGS = 10000
FIRST_PORT = 1024
DESCRIPTION = "libutp 10.0.0.5:51413 UDP"  # of the usual length
STARTS = 5
UNTIL_IDLE = 65   # seconds: the interval in which refusals are counted, those of the start too, is a minute
IDLE_SECONDS = 60
DAEMON = 64002    # the user that upnpd becomes in a lab
SETTLED = 0.2     # seconds after which nothing more comes of a request

CALL_LIMITS = {("description", "upnpd"): 7, ("AddPortMapping", "upnpd"): 12, ("AddPortMapping", "routerd"): 8}
IDLE_LIMITS = {"upnpd": 1.0, "routerd": 1.5}    # MiB
MAPPING_LIMITS = {"upnpd": 200, "routerd": 300}  # bytes

wake_ups_known = False  # they take two minutes, and are exact: one round is enough


def measure(place):
    global wake_ups_known
    for (request, program), calls in system_calls().items():
        yield Sample(f"system calls of {program}, {request}", "calls", sum(calls.values()),
                     limit=CALL_LIMITS.get((request, program)))
    for request, count in instructions().items():
        yield Sample(f"instructions of upnpd, {request}", "instructions", count)
    for program in ("upnpd", "routerd", "resolverd", "tkctl"):
        yield Sample(f"stripped size, {program}", "KiB", stripped_size(program) / 1024)
    yield Sample("from start to the first answer", "ms", start_time() * 1000)
    with alone(place):
        yield from memory_and_teardown()
    if not wake_ups_known:
        wake_ups_known = True
        for program, count in wake_ups().items():
            yield Sample(f"wake-ups a minute, idle, {program}", "times", count, limit=0)


def process_of(place, program):
    return getattr(place.lab, program).process.pid


def requests(place):
    """What is counted, each as a request and the client's options."""
    return {
        "description": (places.get("/gateway.xml"), {}),
        "GetExternalIPAddress": (places.soap(place.control, "GetExternalIPAddress"), {}),
        "AddPortMapping": (places.add_mapping(place.control, description=DESCRIPTION),
                           {"ports": f"{FIRST_PORT}-{FIRST_PORT + COUNTED - 1}"}),
    }


def warm(place):
    """The first requests of a process do what is done once."""
    for request, _ in requests(place).values():
        place.http(request, ports="1-20", count=20)


def system_calls():
    """The calls a request by their names, for each kind of request and program that does any."""
    found = {}
    with places.serving() as place:
        warm(place)
        for name, (request, options) in requests(place).items():
            for program, calls in counted(place, request, options).items():
                if calls:
                    found[name, program] = calls
    assert found.keys() >= CALL_LIMITS.keys(), f"nothing was counted for {CALL_LIMITS.keys() - found.keys()}"
    return found


def counted(place, request, options):
    """The system calls of both programs while requests are answered. What happens less than once in ten requests, such
    as growing the heap, is left out."""
    with tempfile.TemporaryDirectory() as directory:
        results = {program: pathlib.Path(directory, program) for program in ("upnpd", "routerd")}
        tracers = [tracer(process_of(place, program), result) for program, result in results.items()]
        place.http(request, count=COUNTED, **options)
        time.sleep(SETTLED)
        for running in tracers:
            running.terminate()
            running.communicate()
        totals = {program: result.read_text() for program, result in results.items()}
    return {program: {name: round(int(calls) / COUNTED, 1)
                      for calls, name in re.findall(r"^ *(\d+) (\w+)$", text, re.M)
                      if name != "total" and int(calls) >= COUNTED / 10}
            for program, text in totals.items()}


def tracer(process, result):
    running = subprocess.Popen(["strace", "-f", "-c", "-U", "calls,name", "-o", result, "-p", str(process)],
                               stderr=subprocess.PIPE, text=True)
    told = running.stderr.readline()
    assert "attached" in told, told
    return running


def instructions():
    """The instructions of upnpd in user space for each kind of request: what a process with such requests takes more
    than one without."""
    base = instructions_of(None)
    return {request: (instructions_of(request) - base) / COUNTED
            for request in ("description", "GetExternalIPAddress", "AddPortMapping")}


def instructions_of(kind):
    """The instructions of a whole process, from its start to the requests of this kind."""
    with tempfile.TemporaryDirectory() as directory:
        result = pathlib.Path(directory, "counted")
        counter = ("valgrind", "-q", "--tool=callgrind", "--vgdb=no", f"--callgrind-out-file={result}")
        with places.serving(upnpd_wrapper=counter) as place:
            for path in (directory, result):  # made before the daemon gives up root's rights, and written after
                os.chown(path, DAEMON, DAEMON)
            warm(place)
            if kind:
                request, options = requests(place)[kind]
                place.http(request, count=COUNTED, **options)
            time.sleep(SETTLED)
            place.lab.upnpd.process.send_signal(signal.SIGALRM)  # ends it without the teardown of its mappings
            place.lab.upnpd.wait()
            return int(re.search(r"^totals: (\d+)$", result.read_text(), re.M)[1])


def stripped_size(program):
    with tempfile.NamedTemporaryFile() as result:
        subprocess.run(["strip", "-o", result.name, labs.BIN / program], check=True)
        return os.path.getsize(result.name)


def memory(process):
    """What a program takes, with the process that it keeps for what it may not do itself.
    Units: bytes, the proportional set size."""
    own = pathlib.Path("/proc", str(process))
    children = [pathlib.Path("/proc", child) for child in (own / "task" / own.name / "children").read_text().split()]
    name = (own / "comm").read_text().strip()
    return sum(proportional_size(each) for each in (own, *children) if (each / "comm").read_text().startswith(name))


def proportional_size(process):
    return int(re.search(r"^Pss: +(\d+) kB$", (process / "smaps_rollup").read_text(), re.M)[1]) * 1024


@contextlib.contextmanager
def alone(place):
    """Ends the programs of the place until the block ends: pages that they share would count by half."""
    place.lab.upnpd.stop()
    place.lab.routerd.stop()
    try:
        yield
    finally:
        place.lab.start_routerd()
        place.lab.start_upnpd()
        place.lab.upnpd.wait_for(f"start int: lan0 {labs.ROUTER_LAN}")
        for program in IDLE_LIMITS:
            os.sched_setaffinity(process_of(place, program), places.ROUTER_CORES)


def memory_and_teardown():
    with places.serving() as place:
        idle = {program: memory(process_of(place, program)) for program in IDLE_LIMITS}
        place.http(places.add_mapping(place.control, description=DESCRIPTION),
                   ports=f"{FIRST_PORT}-{FIRST_PORT + MAPPINGS - 1}")
        for program, before in idle.items():
            mapping = (memory(process_of(place, program)) - before) / MAPPINGS
            yield Sample(f"memory, idle, {program}", "MiB", before / 2**20, limit=IDLE_LIMITS[program])
            yield Sample(f"memory of a mapping, {program}", "bytes", mapping, limit=MAPPING_LIMITS[program])
        yield Sample(f"teardown with {MAPPINGS:,} mappings", "s", teardown(place.lab), limit=0.5)


def teardown(lab):
    """How long it takes from switching UPnP off until no rule is left."""
    with bus.Client(lab, seconds=60) as client:
        assert client.count_rules() == MAPPINGS
        start = time.perf_counter()
        client.call([80, 0], bus.SET, [(1, bus.BOOL, False)])
        while client.count_rules() > 0:
            time.sleep(0.001)
        spent = time.perf_counter() - start
    assert "198.51.100.1 . tcp" not in lab.table()
    return spent


def start_time():
    """How long it takes from the start of routerd until upnpd, started when the bus opens, answers for the first time."""
    with places.serving() as place:
        times = []
        for _ in range(STARTS):
            place.lab.upnpd.stop()
            place.lab.routerd.stop()
            times.append(start(place.lab))
        return statistics.median(times)


class Prepared(labs.Program):
    """A program that is on its mark already: a shell in the right namespaces, which becomes it at a word."""

    def __init__(self, lab, name):
        super().__init__(lab, name, wrapper=("sh", "-c", 'kill -STOP $$; exec "$0"'))
        labs.eventually(lambda: self.state() == "T", f"{name} is on its mark")

    def state(self):
        return pathlib.Path("/proc", str(self.process.pid), "stat").read_text().rpartition(")")[2].split()[0]

    def go(self):
        self.process.send_signal(signal.SIGCONT)


def start(lab):
    path = lab.root / "run" / "tk" / "bus"
    lab.routerd, lab.upnpd = Prepared(lab, "routerd"), Prepared(lab, "upnpd")
    begun = time.perf_counter()
    lab.routerd.go()
    soon(lambda: bus.Client(lab, path=path).socket.close())
    lab.upnpd.go()
    with labs.namespace(f"/run/netns/gw-{lab.name}-lan1"):
        answer = soon(first_answer)
    spent = time.perf_counter() - begun
    assert answer.startswith(b"HTTP/1.1 200"), answer
    return spent


def soon(attempt):
    """Tries until it works."""
    deadline = time.monotonic() + labs.PATIENCE
    while True:
        try:
            return attempt()
        except OSError:
            assert time.monotonic() < deadline
            time.sleep(0.0005)


def first_answer():
    with socket.create_connection((labs.ROUTER_LAN, places.cp.PORT), timeout=labs.PATIENCE) as connection:
        connection.sendall(places.get("/gateway.xml").encode())
        return places.cp.read_to_end(connection)


def wake_ups():
    """How often each program runs in a minute in which nobody wants anything."""
    with places.serving() as place:
        time.sleep(UNTIL_IDLE)
        before = {program: switches(process_of(place, program)) for program in IDLE_LIMITS}
        time.sleep(IDLE_SECONDS)
        return {program: switches(process_of(place, program)) - count for program, count in before.items()}


def switches(process):
    text = pathlib.Path("/proc", str(process), "status").read_text()
    return int(re.search(r"^voluntary_ctxt_switches:\s+(\d+)$", text, re.M)[1])
