"""A client of the bus, as another program than ours would be one: frames and messages by hand."""
import socket
import struct

U32, BOOL, STRING, BE32, U64, U32S, MESSAGES = range(1, 8)

DESTINATION, SENDER, NUMBER, KIND, COMMAND = 0xFF0001, 0xFF0002, 0xFF0003, 0xFF0005, 0xFF0007
ERROR_CODE, ERROR_TEXT = 0xFF0008, 0xFF0009
REQUEST, REPLY, ERROR, NOTIFICATION = 1, 2, 3, 4

ID, OBJECTS, DYNAMIC, DISABLED, COUNT = 0xFE0001, 0xFE0002, 0xFE0007, 0xFE000A, 0xFE000F
GET, SET, GET_ALL, ADD, REMOVE, GET_COUNT = 0xFE0002, 0xFE0003, 0xFE0004, 0xFE0005, 0xFE0006, 0xFE000F
CHANGED, INTERFACE_CHANGED = 0xFE000B, 0x10004

TCP, UDP = 6, 17


def pack(fields):
    out = bytearray()
    for field, kind, value in fields:
        out += struct.pack("<IB", field, kind)
        if kind == U32:
            out += struct.pack("<I", value)
        elif kind == BOOL:
            out.append(value)
        elif kind == STRING:
            data = value.encode()
            out += struct.pack("<I", len(data)) + data
        elif kind == BE32:
            out += socket.inet_aton(value)
        elif kind == U64:
            out += struct.pack("<Q", value)
        elif kind == U32S:
            out += struct.pack(f"<I{len(value)}I", len(value), *value)
        else:
            parts = [pack(inner) for inner in value]
            out += struct.pack("<I", len(parts)) + b"".join(struct.pack("<I", len(part)) + part for part in parts)
    return bytes(out)


def unpack(data):
    """The fields by their ids."""
    fields, at = {}, 0
    while at < len(data):
        field, kind = struct.unpack_from("<IB", data, at)
        at += 5
        if kind == U32:
            value, at = struct.unpack_from("<I", data, at)[0], at + 4
        elif kind == BOOL:
            value, at = bool(data[at]), at + 1
        elif kind == BE32:
            value, at = socket.inet_ntoa(data[at:at + 4]), at + 4
        elif kind == U64:
            value, at = struct.unpack_from("<Q", data, at)[0], at + 8
        else:
            size, at = struct.unpack_from("<I", data, at)[0], at + 4
            if kind == STRING:
                value, at = data[at:at + size].decode(errors="replace"), at + size
            elif kind == U32S:
                value, at = list(struct.unpack_from(f"<{size}I", data, at)), at + 4 * size
            else:
                value = []
                for _ in range(size):
                    length = struct.unpack_from("<I", data, at)[0]
                    value.append(unpack(data[at + 4:at + 4 + length]))
                    at += 4 + length
        fields[field] = value
    return fields


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
        data = pack(fields)
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
        message = unpack(bytes(self.received[4:4 + size]))
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
            raise BusError(end[ERROR_CODE], end[ERROR_TEXT])
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
        return self.call([20, 5], ADD, rule(*words, **changed))[ID]

    def count_rules(self):
        return self.call([20, 5], GET_COUNT)[COUNT]


def rule(port, target="192.0.2.2", target_port=8080, protocol=TCP, destination="198.51.100.1", dynamic=True,
         disabled=False):
    """The fields of a destination NAT rule."""
    return [(DYNAMIC, BOOL, dynamic), (DISABLED, BOOL, disabled), (39, STRING, "dstnat"), (52, BE32, destination),
            (9, U32, port), (11, U32, protocol), (40, U32, 22), (1000, BE32, target), (1002, U32, target_port)]
