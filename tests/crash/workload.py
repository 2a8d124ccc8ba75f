"""Those who change the router while it is disturbed: control points in the LAN, and a program on the router's bus."""
import collections
import queue
import random
import re
import socket
import struct
import threading
import time

import bus
import control_point
from beliefs import Key, Loss, Request, State
from labs import LAN2, ROUTER_LAN
from subscribers import GOOD, SID, read_message

ANSWER_SECONDS = 2  # how long a control point waits
PORTS_EACH = 16
MAPPINGS_LIMIT = 200  # of one interface; there are fewer keys
TARGET_PORTS = range(8000, 8004)
EXTERNALS = ("wan0", "wan1")
OWNER, STORED = "owner", "stored"  # places of the rules that a program made: those that go with it, and those that stay
OWN_ADDRESSES = {OWNER: "198.51.100.200", STORED: "198.51.100.201"}
FAULT = re.compile(r"<errorCode>(\d+)</errorCode>")
NOTIFIED = re.compile(r"^SID: (\S+)\r\n(?:.*\r\n)*?SEQ: (\d+)\r$", re.M)


def ask(host, request, seconds=ANSWER_SECONDS):
    """The whole answer to a request, or nothing when none came. The rest of the request is then never sent."""
    connection = None
    try:
        connection = host.connect(ROUTER_LAN, control_point.PORT, seconds=seconds)
        connection.sendall(request.encode())
        answer = control_point.read_to_end(connection).decode()
    except (OSError, ValueError):
        answer = ""
    whole = "\r\n\r\n" in answer
    if whole and (length := re.search(r"^CONTENT-LENGTH: (\d+)\r$", answer, re.M)):
        whole = len(answer.split("\r\n\r\n", 1)[1].encode()) == int(length.group(1))
    if connection:
        if not whole:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        connection.close()
    return answer if whole else None


def status_of(answer):
    """The status of an answer, or the code of its fault."""
    if answer is None:
        return None
    fault = FAULT.search(answer)
    return int(fault.group(1)) if fault else int(answer.split(" ", 2)[1])


def call(host, interface, action, arguments, seconds=ANSWER_SECONDS):
    body = control_point.envelope(control_point.action_element(action, arguments))
    return ask(host, control_point.post(f"/upnp/control/wanipconn-{interface}", body,
                                        f'"{control_point.CONNECTION}#{action}"'), seconds)


def add_mapping(host, interface, port, protocol, target, target_port, enabled=True, seconds=ANSWER_SECONDS):
    return call(host, interface, "AddPortMapping", control_point.mapping(
        port, protocol.upper(), target_port, target, "1" if enabled else "0"), seconds)


def delete_mapping(host, interface, port, protocol):
    return call(host, interface, "DeletePortMapping",
                [("NewRemoteHost", ""), ("NewExternalPort", port), ("NewProtocol", protocol.upper())])


def list_mappings(host, interface):
    """All mappings of an interface, without the inactive entry at the head of the list."""
    found = []
    for index in range(1, MAPPINGS_LIMIT):
        answer = call(host, interface, "GetGenericPortMappingEntry", [("NewPortMappingIndex", index)])
        if status_of(answer) == 713:  # no such index
            return found
        assert status_of(answer) == 200, answer
        found.append(dict(control_point.outputs(answer)))
    raise AssertionError("the list of mappings has no end")


def subscription(host, interface, **headers):
    """One request of a subscriber; the headers say which one."""
    method = "UNSUBSCRIBE" if set(headers) == {"SID"} else "SUBSCRIBE"
    lines = [f"{method} /upnp/event/wanipconn-{interface} HTTP/1.1", f"HOST: {ROUTER_LAN}:{control_point.PORT}",
             *(f"{name}: {value}" for name, value in headers.items())]
    return ask(host, "\r\n".join([*lines, "", ""]))


def subscribe(host, interface, callback):
    return subscription(host, interface, CALLBACK=f"<http://{callback}/notify>", NT="upnp:event", TIMEOUT="Second-1800")


def sid_in(answer):
    found = SID.search(answer or "")
    return found.group(1) if found else None


class Listener:
    """A host's port on which a thread serves each connection."""

    def __init__(self, host, port):
        self.host, self.port = host, port
        self.socket = host.socket(seconds=None)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.socket.bind(("", port))
        self.socket.listen(128)
        self.thread = threading.Thread(target=self.accept, daemon=True)
        self.thread.start()

    def accept(self):
        while True:
            try:
                connection, _ = self.socket.accept()
            except OSError:  # closed
                return
            with connection:
                connection.settimeout(ANSWER_SECONDS)
                try:
                    self.serve(connection)
                except (OSError, AssertionError):  # its other end was killed
                    pass

    def close(self):
        self.socket.shutdown(socket.SHUT_RDWR)
        self.socket.close()
        self.thread.join(2 * ANSWER_SECONDS)


class Greeter(Listener):
    """Tells each caller which host and port it has reached."""

    def serve(self, connection):
        connection.sendall(f"{self.host.address}:{self.port}".encode())


class DatagramGreeter:
    """Tells each sender of a datagram which host and port it has reached."""

    def __init__(self, host, port):
        self.host, self.port = host, port
        self.socket = host.datagrams(port)
        self.socket.settimeout(0.5)
        self.ended = threading.Event()
        self.thread = threading.Thread(target=self.answer, daemon=True)
        self.thread.start()

    def answer(self):
        while not self.ended.is_set():
            try:
                text, sender = self.socket.recvfrom(100)
                self.socket.sendto(text + f" {self.host.address}:{self.port}".encode(), sender)
            except OSError:  # nothing came, or there is no way back to the sender
                continue

    def close(self):
        self.ended.set()
        self.thread.join(2 * ANSWER_SECONDS)
        self.socket.close()


class Flow:
    """Datagrams from one port outside to a mapped port, from round to round."""

    def __init__(self, host, key, address):
        self.key, self.address = key, address
        self.socket = host.datagrams()
        self.socket.settimeout(0.2)

    def reaches(self):
        """Who answers a datagram sent now, if anybody does."""
        text = b"%d" % time.monotonic_ns()
        try:
            self.socket.sendto(text, (self.address, self.key.port))
            while True:
                told, _, place = self.socket.recv(100).partition(b" ")
                if told == text:
                    return place.decode()
        except OSError:
            return None

    def close(self):
        self.socket.close()


class EventSink(Listener):
    """Receives the notifications to a host."""

    def __init__(self, host, port=5000):
        self.heard, self.counts = queue.Queue(), collections.Counter()
        super().__init__(host, port)

    def serve(self, connection):
        told = read_message(connection)
        connection.sendall(GOOD)
        found = NOTIFIED.search(told)
        self.counts[found.groups() if found else told] += 1
        self.heard.put(told)


class Worker(threading.Thread):
    """Makes random requests until it is told to stop, up to a given number of them."""
    longest_pause = 0.008  # seconds between two requests

    def __init__(self, seed, limit):
        super().__init__(daemon=True)
        self.random, self.limit = random.Random(seed), limit
        self.ended = threading.Event()
        self.requests, self.failure = [], None

    def run(self):
        try:
            for _ in range(self.limit):
                if self.ended.wait(self.random.uniform(0, self.longest_pause)):
                    break
                self.step()
        except BaseException as failure:  # told by whoever joins
            self.failure = failure

    def finish(self, at_once=True):
        """Waits for the end, and returns the requests that were made."""
        if at_once:
            self.ended.set()
        self.join(30)
        assert not self.is_alive(), "a worker hangs"
        if self.failure:
            raise self.failure
        return self.requests

    def note(self, begun, key, wanted, status):
        self.requests.append(Request(begun, time.monotonic(), "", key, wanted, status))


class ControlPoint(Worker):
    """A LAN host that adds, changes and deletes its own mappings, and subscribes."""

    def __init__(self, host, interfaces, sids, seed, limit):
        super().__init__(seed, limit)
        self.host, self.interfaces, self.sids = host, interfaces, sids
        self.base = 2000 if host.address == LAN2 else 1000
        self.subscriptions = []

    def step(self):
        place = self.random.choice(EXTERNALS)
        kind = self.random.choices(("add", "delete", "subscribe"), (6, 3, 1))[0]
        if kind == "subscribe":
            self.subscribe(self.interfaces[place], self.sids)
            return
        key = Key(place, self.base + self.random.randrange(PORTS_EACH), self.random.choice(("tcp", "tcp", "udp")))
        begun, wanted = time.monotonic(), None
        if kind == "add":
            wanted = State(None, self.host.address, self.random.choice(TARGET_PORTS), self.random.random() < 0.8)
            answer = add_mapping(self.host, self.interfaces[place], key.port, key.protocol, *wanted[1:])
        else:
            answer = delete_mapping(self.host, self.interfaces[place], key.port, key.protocol)
        self.note(begun, key, wanted, status_of(answer))

    def subscribe(self, interface, sids):
        """Subscribes, renews or unsubscribes; the callback is a name for resolverd, or an address."""
        begun, known = time.monotonic(), sids.pop((self.host.name, interface), None)
        if known is None:
            callback = self.random.choice((f"{self.host.name}.home:5000", f"{self.host.address}:5000"))
            answer = subscribe(self.host, interface, callback)
            known = sid_in(answer)
        elif self.random.random() < 0.5:
            answer = subscription(self.host, interface, SID=known, TIMEOUT="Second-1800")
        else:
            answer = subscription(self.host, interface, SID=known)
            known = None
        status = status_of(answer)
        if known and status == 200:
            sids[self.host.name, interface] = known
        self.subscriptions.append(Request(begun, time.monotonic(), "subscription", (), None, status))


class Rules:
    """What a program on the bus has made, and its connection, from one round to the next."""

    def __init__(self):
        self.client, self.owned, self.stored, self.unclear = None, {}, {}, set()


class RuleMaker(Worker):
    """A program on the bus that makes rules of its own: some go with its connection, some are stored."""

    def __init__(self, lab, rules, seed, limit):
        super().__init__(seed, limit)
        self.lab, self.rules = lab, rules
        self.losses = []  # times when it left the bus

    def step(self):
        if self.rules.client is None:
            try:
                self.rules.client = bus.Client(self.lab, 5 * ANSWER_SECONDS)
            except OSError:
                return
            self.rules.owned = {}
        key = Key(self.random.choice((OWNER, STORED)), 3000 + self.random.randrange(PORTS_EACH), "tcp")
        ids = self.rules.owned if key.place == OWNER else self.rules.stored
        if self.random.random() < 0.03:
            self.leave()
        elif key in ids:
            self.request(key, ids, None, bus.REMOVE, [(bus.OBJECT, bus.U32, ids[key])])
        elif key not in self.rules.unclear:
            wanted = State(None, LAN2, self.random.choice(TARGET_PORTS), self.random.random() < 0.8)
            self.request(key, ids, wanted, bus.ADD, bus.rule(
                key.port, wanted.target, wanted.targetPort, bus.TCP, OWN_ADDRESSES[key.place],
                key.place == OWNER, not wanted.enabled))

    def request(self, key, ids, wanted, command, fields):
        begun = time.monotonic()
        try:
            end = self.rules.client.end(self.rules.client.request([20, 5], command, fields))
            status = 200 if end[bus.KIND] == bus.REPLY else end[bus.CODE]
        except (OSError, EOFError):  # routerd has ended
            self.rules.client.socket.close()
            self.rules.client = status = None
            if key.place == STORED:
                self.rules.unclear.add(key)
        self.note(begun, key, wanted, status)
        if status == 200 and wanted:
            ids[key] = end[bus.OBJECT]
        elif status == 200:
            del ids[key]

    def leave(self):
        """Leaves the bus, and waits until its rules are gone with it."""
        loss = Loss(time.monotonic(), what="the owner leaves", places=(OWNER,))
        self.rules.client.socket.close()
        self.rules.client, self.rules.owned = None, {}
        while (listed := self.lab.tkctl("nat", "list", "--json", check=False)).returncode == 0:
            if OWN_ADDRESSES[OWNER] not in listed.stdout:
                break
            assert time.monotonic() < loss.begun + 2, f"rules outlive their owner: {listed.stdout}"
        loss.ended = time.monotonic()
        self.losses.append(loss)
