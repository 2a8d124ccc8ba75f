"""The hosts of a soak: thirty clients behind two links, and the programs that run on their hosts."""
import collections
import contextlib
import pathlib
import subprocess
import sys
import time

import control_point
import labs
import workload
from beliefs import Key, State
from workload import EXTERNALS, TARGET_PORTS, ControlPoint, RuleMaker, status_of

FOLDER = pathlib.Path(__file__).resolve().parent
FIRST_GUEST = 100  # of 192.0.2.0/24
LONGEST_LINE = 60  # seconds until a helper tells its next line: it ends what it has begun, a few questions of 5 s each


class Guest(labs.Host):
    """One of many hosts behind the same link: an address of lan1 or lan2."""

    def __init__(self, host, number):
        super().__init__(host.lab, host.name, f"192.0.2.{FIRST_GUEST + number}")
        self.target = host.address  # where somebody answers on the target ports
        self.label = f"guest{number}"

    def connect(self, address, port, seconds=labs.PATIENCE):
        """Waits longer than its callers would: the listener's queue is short, so a busy router drops some attempts, and the
        next one follows after 1 s, 2 s, 4 s."""
        made = self.socket(seconds=max(seconds, labs.PATIENCE))
        try:
            made.bind((self.address, 0))
            made.connect((address, port))
        except OSError:
            made.close()
            raise
        return made

    def vanish(self, gone):
        """From now on no packet comes from the host or reaches it; or it is back."""
        self.run("nft", "add" if gone else "delete", "element", "ip", "guests", "gone", f"{{ {self.address} }}")


class Client(ControlPoint):
    """A guest that searches, describes, maps, lists, unmaps, subscribes and vanishes; it counts the good answers."""
    longest_pause = 2.0
    KINDS = {"search": 3, "describe": 3, "add": 4, "delete": 3, "look": 3, "subscribe": 1, "vanish": 3}
    VANISH_SECONDS = 2  # after which nobody vanishes: what is left behind lasts 10 s, and so does not delay the rest

    def __init__(self, guest, interfaces, sids, seed, number):
        super().__init__(guest, interfaces, sids, seed, 1 << 30)
        self.base = 10000 + 8 * number
        self.done = collections.Counter()
        self.began = time.monotonic()

    def step(self):
        kind = self.random.choices(list(self.KINDS), list(self.KINDS.values()))[0]
        if kind == "vanish" and time.monotonic() > self.began + self.VANISH_SECONDS:
            return
        self.done[kind] += getattr(self, kind)(self.random.choice(EXTERNALS))

    def search(self, _):
        """Goes after the first answer."""
        with self.host.datagrams() as searching, contextlib.suppress(TimeoutError):
            searching.settimeout(workload.ANSWER_SECONDS)
            searching.sendto(control_point.search(self.random.choice(("ssdp:all", "upnp:rootdevice"))).encode(),
                             control_point.GROUP)
            return searching.recv(65536).startswith(b"HTTP/1.1 200 OK\r\n")
        return False

    def describe(self, _):
        request = f"GET /gateway.xml HTTP/1.1\r\nHOST: {labs.ROUTER_LAN}:{control_point.PORT}\r\n\r\n"
        return status_of(workload.ask(self.host, request)) == 200

    def add(self, place):
        key = Key(place, self.base + self.random.randrange(3), self.random.choice(("tcp", "udp")))
        wanted = State(None, self.host.target, self.random.choice(TARGET_PORTS), self.random.random() < 0.8)
        begun = time.monotonic()
        answer = workload.add_mapping(self.host, self.interfaces[place], key.port, key.protocol, *wanted[1:])
        return self.noted(begun, key, wanted, answer)

    def delete(self, _):
        """Takes back a mapping that it has asked for, if it still has it."""
        if not self.requests:
            return False
        key, begun = self.random.choice(self.requests).key, time.monotonic()
        answer = workload.delete_mapping(self.host, self.interfaces[key.place], key.port, key.protocol)
        return self.noted(begun, key, None, answer)

    def noted(self, begun, key, wanted, answer):
        self.note(begun, key, wanted, status_of(answer))
        return status_of(answer) == 200

    def look(self, place):
        answers = [workload.call(self.host, self.interfaces[place], "GetGenericPortMappingEntry",
                                 [("NewPortMappingIndex", index)]) for index in range(self.random.randrange(1, 4))]
        return status_of(answers[0]) == 200  # others may have unmapped the rest

    def subscribe(self, place):
        """By a name or an address. One that is subscribed already renews, unsubscribes, or forgets what it had."""
        interface, known = self.interfaces[place], self.sids.get((self.host.label, place))
        kind, answer = self.random.randrange(3), None
        if known is None:
            callback = self.random.choice((f"{self.host.label}.home:5000", f"{self.host.address}:5000"))
            answer = workload.subscribe(self.host, interface, callback)
            if sid := workload.sid_in(answer):
                self.sids[self.host.label, place] = sid
        elif kind == 0:
            answer = workload.subscription(self.host, interface, SID=known, TIMEOUT="Second-1800")
        elif kind == 1:
            answer = workload.subscription(self.host, interface, SID=known)
            del self.sids[self.host.label, place]
        return status_of(answer) == 200

    def vanish(self, _):
        """Goes in the middle of a request, and comes back when the router may have noticed."""
        request = f"POST /upnp/control/wanipconn-1 HTTP/1.1\r\nContent-Length: {self.random.randrange(1, 9999)}\r\n\r\n<"
        try:
            connection = self.host.connect(labs.ROUTER_LAN, control_point.PORT, seconds=workload.ANSWER_SECONDS)
        except OSError:  # the router is disturbed
            return False
        connection.sendall(request[:self.random.randrange(1, len(request))].encode())
        self.host.vanish(True)
        connection.close()
        self.ended.wait(self.random.uniform(0.3, 3))
        self.host.vanish(False)
        return True


class Rules(RuleMaker):
    longest_pause = 0.5


class Helper:
    """A program of this folder that runs on a LAN host, between "go" and "stop"."""

    def __init__(self, host, name, *words):
        self.errors = host.lab.directory / f"{name}.err"
        with open(self.errors, "wb") as errors:
            self.process = subprocess.Popen(host.command(sys.executable, FOLDER / f"{name}.py", *words), bufsize=0,
                                            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=errors)

    def go(self):
        self.process.stdin.write(b"go\n")

    def stop(self):
        """Returns the lines that it has printed since it went."""
        self.process.stdin.write(b"stop\n")
        told = []
        while True:
            line = labs.next_line(self.process.stdout, LONGEST_LINE)
            assert line, f"{self.process.args} has ended: {self.errors.read_text()}"
            told.append(line.strip())
            if line.startswith("stopped"):
                return told

    def close(self):
        self.process.stdin.close()
        self.process.wait(labs.PATIENCE)
        self.process.stdout.close()
