"""What the programs take: system calls and instructions a request, memory, room on the disk, and time to start and end."""
import os
import pathlib
import re
import signal
import statistics
import subprocess
import tempfile
import time

import bus
import control_point as cp
import fresh
import labs
from samples import Sample

COUNTED = 200     # requests for each figure
MAPPINGS = 10000
STARTS = 5
IDLE_SECONDS = 60
DAEMON = 64002    # the user that upnpd becomes in a lab
SETTLED = 0.2     # seconds after which nothing more comes of a request

CALL_LIMITS = {("description", "upnpd"): 7, ("AddPortMapping", "upnpd"): 12, ("AddPortMapping", "routerd"): 8}
IDLE_LIMITS = {"upnpd": 1.0, "routerd": 1.5}    # MiB
MAPPING_LIMITS = {"upnpd": 200, "routerd": 300}  # bytes

wake_ups_known = False  # they take a minute, and are exact: one round is enough


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
    yield from memory_and_teardown()
    if not wake_ups_known:
        wake_ups_known = True
        for program, count in wake_ups().items():
            yield Sample(f"wake-ups a minute, idle, {program}", "times", count, limit=0)


def process_of(gateway, program):
    return getattr(gateway.lab, program).process.pid


def requests(gateway):
    """What is counted: `COUNTED` requests each, AddPortMapping from the 20th mapping on."""
    return {
        "description": [fresh.description_request()] * COUNTED,
        "GetExternalIPAddress": [gateway.action("GetExternalIPAddress")] * COUNTED,
        "AddPortMapping": [gateway.add(20 + number) for number in range(COUNTED)],
    }


def warm(gateway):
    """The first requests of a process do what is done once."""
    gateway.ask([fresh.description_request(), gateway.action("GetExternalIPAddress")] * 20)
    gateway.map(0, 20)


def system_calls():
    """The calls a request by their names, for each kind of request and program that does any."""
    found = {}
    with fresh.gateway() as gateway:
        warm(gateway)
        for request, asked in requests(gateway).items():
            for program, calls in counted(gateway, asked).items():
                if calls:
                    found[request, program] = calls
    return found


def counted(gateway, asked):
    """The system calls of both programs while requests are answered. What happens less than once in ten requests, such
    as growing the heap, is left out."""
    with tempfile.TemporaryDirectory() as directory:
        results = {program: pathlib.Path(directory, program) for program in ("upnpd", "routerd")}
        tracers = [tracer(process_of(gateway, program), result) for program, result in results.items()]
        gateway.ask(asked)
        time.sleep(SETTLED)
        for running in tracers:
            running.terminate()
            running.communicate()
        totals = {program: result.read_text() for program, result in results.items()}
    return {program: {name: round(int(calls) / len(asked), 1)
                      for calls, name in re.findall(r"^ *(\d+) (\w+)$", text, re.M)
                      if name != "total" and int(calls) >= len(asked) / 10}
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


def instructions_of(request):
    """The instructions of a whole process, from its start to the requests of this kind."""
    counter = ("valgrind", "-q", "--tool=callgrind", "--vgdb=no", "--callgrind-out-file={directory}/counted")
    with fresh.gateway(counter) as gateway:
        result = gateway.lab.directory / "counted"
        os.chown(result, DAEMON, DAEMON)  # it is made before the daemon gives up root's rights, and written after
        warm(gateway)
        gateway.ask(requests(gateway).get(request, []))
        time.sleep(SETTLED)
        gateway.lab.upnpd.process.send_signal(signal.SIGALRM)  # ends it without the teardown of its mappings
        gateway.lab.upnpd.wait()
        return int(re.search(r"^totals: (\d+)$", result.read_text(), re.M)[1])


def stripped_size(program):
    with tempfile.NamedTemporaryFile() as result:
        subprocess.run(["strip", "-o", result.name, labs.BIN / program], check=True)
        return os.path.getsize(result.name)


def memory(process):
    """Units: bytes, the proportional set size."""
    text = pathlib.Path("/proc", str(process), "smaps_rollup").read_text()
    return int(re.search(r"^Pss: +(\d+) kB$", text, re.M)[1]) * 1024


def memory_and_teardown():
    with fresh.gateway() as gateway:
        idle = {program: memory(process_of(gateway, program)) for program in IDLE_LIMITS}
        gateway.map(0, MAPPINGS)
        for program, before in idle.items():
            mapping = (memory(process_of(gateway, program)) - before) / MAPPINGS
            yield Sample(f"memory, idle, {program}", "MiB", before / 2**20, limit=IDLE_LIMITS[program])
            yield Sample(f"memory a mapping, {program}", "bytes", mapping, limit=MAPPING_LIMITS[program])
        yield Sample(f"teardown with {MAPPINGS:,} mappings", "s", teardown(gateway.lab), limit=0.5)


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
    with fresh.gateway() as gateway:
        times = []
        for _ in range(STARTS):
            gateway.lab.upnpd.stop()
            gateway.lab.routerd.stop()
            times.append(start(gateway.lab))
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
    with fresh.connection() as made:
        made.sendall(fresh.description_request())
        return cp.read_to_end(made)


def wake_ups():
    """How often each program runs in a minute in which nobody wants anything."""
    with fresh.gateway() as gateway:
        time.sleep(5)  # the adverts of the start, and what the start left for later
        before = {program: switches(process_of(gateway, program)) for program in IDLE_LIMITS}
        time.sleep(IDLE_SECONDS)
        return {program: switches(process_of(gateway, program)) - count for program, count in before.items()}


def switches(process):
    text = pathlib.Path("/proc", str(process), "status").read_text()
    return int(re.search(r"^voluntary_ctxt_switches:\s+(\d+)$", text, re.M)[1])
