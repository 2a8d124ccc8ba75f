"""The bus for tests: its messages, a client, and a router that answers as a test says.

A message is a list of fields, each a triple of id, type and value; values of message[] are lists of such lists. What
a client receives comes as a dict of values by their ids, in which the order and the types are left out.
"""
import contextlib
import os
import queue
import socket
import struct
import threading
import time

from labs import PATIENCE, meanwhile

DESTINATION, SENDER, NUMBER, KIND, COMMAND = 0xFF0001, 0xFF0002, 0xFF0003, 0xFF0005, 0xFF0007
CODE, TEXT = 0xFF0008, 0xFF0009
ROUTING = (SENDER, NUMBER, KIND, COMMAND)
REQUEST, REPLY, ERROR, NOTIFICATION = 1, 2, 3, 4
OBJECT, OBJECTS, NEXT, DYNAMIC, DISABLED = 0xFE0001, 0xFE0002, 0xFE0003, 0xFE0007, 0xFE000A
COUNT, DELETED = 0xFE000F, 0xFE0013

IDENTITY, INTERFACES, ADDRESSES, NAT, HISTORY, RESOLVER = (65,), (20, 0), (20, 1), (20, 5), (24,), (14,)
GET_OBJECT, SET_OBJECT, GET_ALL, ADD, REMOVE = 0xFE0002, 0xFE0003, 0xFE0004, 0xFE0005, 0xFE0006
GET, SET, GET_COUNT, CHANGED, INTERFACE_CHANGED = 0xFE000D, 0xFE000E, 0xFE000F, 0xFE000B, 0x10004

TCP, UDP = 6, 17

GROUP = 64000  # tk, of a lab's router

TYPES = U32, BOOL, STRING, BE32, U64, U32S, MESSAGES = "u32", "bool", "string", "be32", "u64", "u32[]", "message[]"


def flat_value(kind, value):
    if kind == "u32":
        return struct.pack("<I", value)
    if kind == "bool":
        return bytes([value])
    if kind == "string":
        data = value.encode()
        return struct.pack("<I", len(data)) + data
    if kind == "be32":
        return socket.inet_aton(value)
    if kind == "u64":
        return struct.pack("<Q", value)
    if kind == "u32[]":
        return struct.pack(f"<{len(value) + 1}I", len(value), *value)
    parts = [flat(inner) for inner in value]
    return struct.pack("<I", len(parts)) + b"".join(struct.pack("<I", len(part)) + part for part in parts)


def flat(message):
    """The serialised form of a message."""
    return b"".join(struct.pack("<IB", identifier, TYPES.index(kind) + 1) + flat_value(kind, value)
                    for identifier, kind, value in message)


def value_at(data, at, kind):
    """A value of this type, and where the next field begins."""
    if kind == "u32":
        return struct.unpack_from("<I", data, at)[0], at + 4
    if kind == "bool":
        return bool(data[at]), at + 1
    if kind == "be32":
        return socket.inet_ntoa(data[at:at + 4]), at + 4
    if kind == "u64":
        return struct.unpack_from("<Q", data, at)[0], at + 8
    count, = struct.unpack_from("<I", data, at)
    at += 4
    if kind == "string":
        return data[at:at + count].decode(errors="surrogateescape"), at + count
    if kind == "u32[]":
        return list(struct.unpack_from(f"<{count}I", data, at)), at + 4 * count
    inner = []
    for _ in range(count):
        length, = struct.unpack_from("<I", data, at)
        inner.append(unflat(data[at + 4:at + 4 + length]))
        at += 4 + length
    return inner, at


def unflat(data):
    """The message with this serialised form."""
    message, at = [], 0
    while at < len(data):
        identifier, kind = struct.unpack_from("<IB", data, at)
        value, at = value_at(data, at + 5, TYPES[kind - 1])
        message.append((identifier, TYPES[kind - 1], value))
    return message


def by_id(message):
    """The values of a message by their ids, and likewise those of the messages in it."""
    return {identifier: [by_id(inner) for inner in value] if kind == MESSAGES else value
            for identifier, kind, value in message}


def value_of(message, wanted, default=None):
    return next((value for identifier, _, value in message if identifier == wanted), default)


def own_fields(message):
    """The fields of a message without those that the platform appends."""
    return [field for field in message if field[0] not in ROUTING]


class Refusal:
    """An answer that is an error."""

    def __init__(self, code, text):
        self.message = [(CODE, "u32", code), (TEXT, "string", text)]


def interface(identifier, name, index, kind=1, flags=0, disabled=False, running=True, display=None):
    """An interface as the router tells it."""
    return [(OBJECT, "u32", identifier), (0x10001, "u32", kind), (0x10003, "u32", flags), (0x10004, "u32", index),
            (0x10005, "string", name), (0x10006, "string", display or name), (DISABLED, "bool", disabled),
            (0x1000E, "bool", running)]


def address(identifier, dotted, owner, disabled=False):
    """An address as the router tells it."""
    return [(OBJECT, "u32", identifier), (1, "be32", dotted), (5, "u32", owner), (DISABLED, "bool", disabled)]


def item(owner, role, disabled=False):
    """A "upnp interface" item: role 1 is external, 2 internal."""
    return [(DISABLED, "bool", disabled), (1, "u32", owner), (2, "u32", role)]


def settings(enabled, allow=True, dummy=True):
    return [(1, "bool", enabled), (2, "bool", allow), (3, "bool", dummy)]


def rule(port, target="192.0.2.2", target_port=8080, protocol=TCP, destination="198.51.100.1", dynamic=True,
         disabled=False):
    """The fields of a destination NAT rule."""
    return [(DYNAMIC, BOOL, dynamic), (DISABLED, BOOL, disabled), (39, STRING, "dstnat"), (52, BE32, destination),
            (9, U32, port), (11, U32, protocol), (40, U32, 22), (1000, BE32, target), (1002, U32, target_port)]


class BusError(Exception):
    def __init__(self, code, text):
        super().__init__(f"{code:#x}: {text}")
        self.code, self.text = code, text


class Client:
    """One connection to the bus of a lab's router."""

    def __init__(self, lab, seconds=10, path=None):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(seconds)
        self.socket.connect(str(path or lab.root / "run" / "tk" / "bus"))
        self.received = bytearray()
        self.number = 0
        self.notifications = []

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def send(self, fields):
        data = flat(fields)
        self.socket.sendall(struct.pack("<I", len(data)) + data)

    def request(self, path, command, fields=()):
        """Sends a request without waiting for its end."""
        self.number += 1
        self.send([(DESTINATION, U32S, path), *fields, (NUMBER, U32, self.number), (KIND, U32, REQUEST),
                   (COMMAND, U32, command)])
        return self.number

    def read(self):
        """The next message, whatever it is."""
        while len(self.received) < 4 or len(self.received) < 4 + struct.unpack_from("<I", self.received)[0]:
            chunk = self.socket.recv(1 << 20)
            if not chunk:
                raise EOFError("the bus has closed the connection")
            self.received += chunk
        size = struct.unpack_from("<I", self.received)[0]
        message = by_id(unflat(bytes(self.received[4:4 + size])))
        del self.received[:4 + size]
        return message

    def end(self, number):
        """The end of a request; notifications on the way are kept."""
        while True:
            message = self.read()
            if message[KIND] == NOTIFICATION:
                self.notifications.append(message)
            elif message[NUMBER] == number:
                return message

    def call(self, path, command, fields=()):
        end = self.end(self.request(path, command, fields))
        if end[KIND] == ERROR:
            raise BusError(end[CODE], end[TEXT])
        return end

    def subscribe(self, path, command):
        self.call([0], 2, [(1, U32S, path), (2, U32, command), (3, MESSAGES, [[]])])

    def register(self, program):
        self.call([0], 1, [(1, U32, program)])

    def next_notification(self):
        while not self.notifications:
            message = self.read()
            if message[KIND] == NOTIFICATION:
                self.notifications.append(message)
        return self.notifications.pop(0)

    def add_rule(self, *words, **changed):
        return self.call([20, 5], ADD, rule(*words, **changed))[OBJECT]

    def count_rules(self):
        return self.call([20, 5], GET_COUNT)[COUNT]


@contextlib.contextmanager
def asking(lab, pause=0.0):
    """Asks one question after another until the block ends, and gives the seconds that each answer takes."""
    times = []

    def ask():
        began = time.monotonic()
        client.count_rules()
        times.append(time.monotonic() - began)
        time.sleep(pause)
    with Client(lab) as client, meanwhile(ask):
        yield times


class ScriptedRouter:
    """A router on the bus of a lab that does what a test tells it, and remembers all that the daemon asks.

    answers holds, by path and command, a message, a Refusal, or a function of the request that returns either. Any
    other request is answered with an empty message.
    """

    def __init__(self, lab):
        self.path = str(lab.root / "run" / "tk" / "bus")
        if os.path.exists(self.path):
            os.unlink(self.path)
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(self.path)
        os.chown(self.path, 0, GROUP)  # as the hub's own
        os.chmod(self.path, 0o660)
        self.listener.listen(1)
        self.listener.settimeout(PATIENCE)
        self.daemon = None
        self.requests = []       # all requests of the daemon: path, command and own fields
        self.notifications = []  # its notifications: sender, command and own fields
        self.ends = queue.Queue()
        self.interfaces, self.addresses = [], []
        self.rules = 0
        self.answers = {
            (IDENTITY, GET): [(1, "string", "0123abcd")],
            (INTERFACES, 1): lambda _: [(OBJECTS, "message[]", self.interfaces)],
            (INTERFACES, GET_ALL): lambda _: [(OBJECTS, "message[]", self.interfaces)],
            (ADDRESSES, GET_ALL): lambda _: [(OBJECTS, "message[]", self.addresses)],
            (NAT, ADD): lambda _: [(OBJECT, "u32", self.next_rule())],
        }

    def next_rule(self):
        self.rules += 1
        return self.rules

    def accept(self):
        """Takes the daemon's connection, and serves it from now on."""
        self.daemon, _ = self.listener.accept()
        self.thread = threading.Thread(target=self.serve, daemon=True)
        self.thread.start()

    def serve(self):
        try:
            while frame := self.read(4):
                self.take(unflat(self.read(struct.unpack("<I", frame)[0])))
        except OSError:  # the daemon has ended
            pass

    def read(self, length):
        data = b""
        while len(data) < length:
            part = self.daemon.recv(length - len(data))
            if not part:
                return b""
            data += part
        return data

    def send(self, message):
        data = flat(message)
        self.daemon.sendall(struct.pack("<I", len(data)) + data)

    def take(self, message):
        kind, command = value_of(message, KIND), value_of(message, COMMAND)
        if kind in (REPLY, ERROR):
            return self.ends.put(message)
        if kind == NOTIFICATION:
            return self.notifications.append((tuple(value_of(message, SENDER)), command, own_fields(message)))
        path = tuple(value_of(message, DESTINATION))
        self.requests.append((path, command, own_fields(message)))
        answer = self.answers.get((path, command), [])
        if callable(answer):
            answer = answer(message)
        refused = isinstance(answer, Refusal)
        self.send([*(answer.message if refused else answer), (DESTINATION, "u32[]", value_of(message, SENDER)),
                   (SENDER, "u32[]", list(path)), (NUMBER, "u32", value_of(message, NUMBER)),
                   (KIND, "u32", ERROR if refused else REPLY), (COMMAND, "u32", command)])

    def ask(self, command, fields=()):
        """Sends the daemon a request, and returns its answer: for an error, a Refusal's message."""
        self.send([*fields, (DESTINATION, "u32[]", [80, 0]), (SENDER, "u32[]", [1000]), (NUMBER, "u32", 1),
                   (KIND, "u32", REQUEST), (COMMAND, "u32", command)])
        return [field for field in own_fields(self.ends.get(timeout=PATIENCE)) if field[0] != DESTINATION]

    def notify(self, path, command, fields=()):
        """Sends the daemon a notification, and returns when it has been handled."""
        self.send([*fields, (SENDER, "u32[]", list(path)), (KIND, "u32", NOTIFICATION), (COMMAND, "u32", command)])
        self.ask(GET)

    def tell_interface(self, record):
        self.notify(INTERFACES, INTERFACE_CHANGED, record)

    def tell_status(self, *records):
        self.notify(INTERFACES, CHANGED, [(OBJECTS, "message[]", list(records))])

    def tell_addresses(self, *records):
        self.notify(ADDRESSES, CHANGED, [(OBJECTS, "message[]", list(records))])

    def close(self):
        if self.daemon:
            self.daemon.shutdown(socket.SHUT_RDWR)
            self.thread.join(PATIENCE)
            self.daemon.close()
        self.listener.close()
        if os.path.exists(self.path):
            os.unlink(self.path)
