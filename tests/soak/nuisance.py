#!/usr/bin/python3
"""A hostile host in the LAN, and a hostile member of the bus.

    nuisance.py SEED ADDRESS BUS INTERFACE...

Runs on a LAN host that has ADDRESS; BUS is the folder of the bus's socket, INTERFACE the numbers of the external
interfaces. Does one thing after another as long as its standard input says "go": mutated searches and requests, requests
that stop in the middle and never end, callbacks that hang, are closed or lead nowhere, frames of a user who may do nothing.
At "stop" it lets everything go, and prints "stopped" and how often it has done each of them, as JSON. It never asks for
a mapping that could be granted, so nobody's mappings are touched.
"""
import collections
import contextlib
import json
import os
import pathlib
import random
import re
import select
import socket
import struct
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))

import bus  # noqa: E402
import control_point  # noqa: E402
from labs import ROUTER_LAN  # noqa: E402

PAUSE = 0.04      # seconds between two things
SECONDS = 1       # how long it waits for an answer
HELD = 8          # connections that never end, at most
MEMBER = 64004    # a user of the bus's group, and nothing else
NOBODY = "192.0.2.99"
OUTSIDE = "8.8.8.8"
SID = re.compile(r"^SID: (\S+)\r$", re.M)
PIECES = [b"\x00", b"\xff", b"\r\n", b"\n\n", b"<", b">", b"&", b'"', b"%n", b":", b"#", b"-1", b"A" * 300, b"HTTP/1.1", b"]]>",
          b"18446744073709551616", b" ", b"\t", b"uuid:", b"<![CDATA["]


class Nuisance:
    def __init__(self, seed, address, folder, interfaces):
        self.random = random.Random(seed)
        self.address, self.folder, self.interfaces = address, folder, interfaces
        self.held, self.subscriptions = [], []
        self.hanging = socket.create_server((address, 5100), backlog=64)  # nobody ever takes a connection from it
        self.done = collections.Counter()

    def mutated(self, data):
        """A few changes at random places; most messages keep their form."""
        data = bytearray(data)
        for _ in range(self.random.choice((0, 1, 1, 2, 5))):
            at = self.random.randrange(len(data) + 1)
            kind = self.random.randrange(4)
            if kind == 0:
                data[at:at + 1] = bytes([self.random.randrange(256)])
            elif kind == 1:
                data[at:at] = self.random.choice(PIECES)
            elif kind == 2:
                del data[at:at + self.random.randrange(1, 30)]
            else:
                data[at:] = data[:self.random.randrange(400)]
        return bytes(data)

    def connect(self):
        return socket.create_connection((ROUTER_LAN, control_point.PORT), SECONDS, (self.address, 0))

    def exchange(self, request):
        with self.connect() as connection:
            connection.sendall(request)
            return control_point.read_to_end(connection).decode(errors="replace")

    def say(self, request):
        """Sends a request, and reads the answer; or goes away in one of several ways."""
        with self.connect() as connection:
            connection.sendall(request)
            manner = self.random.randrange(6)
            if manner == 0:
                connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                return ""
            if manner < 4:
                connection.shutdown(socket.SHUT_WR)
            return control_point.read_to_end(connection).decode(errors="replace")

    def soap(self, action, arguments=()):
        body = control_point.envelope(control_point.action_element(action, arguments))
        path = f"/upnp/control/wanipconn-{self.random.choice(self.interfaces)}"
        return control_point.post(path, body, f'"{control_point.CONNECTION}#{action}"').encode()

    # What it does

    def datagram(self):
        text = control_point.search(self.random.choice(("ssdp:all", "upnp:rootdevice", "uuid:")))
        data = self.random.choice((self.mutated(text.encode()), b"", self.random.randbytes(1400), text.encode() * 40))
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sending:
            sending.bind((self.address, 0))
            sending.sendto(data, self.random.choice((control_point.GROUP, (ROUTER_LAN, 1900))))

    def page(self):
        path = self.random.choice(("/gateway.xml", "/osinfo.xml", "/../../etc/passwd", "/" + "a" * 5000, "/%00", "*"))
        self.say(self.mutated(f"GET {path} HTTP/1.1\r\nHOST: {ROUTER_LAN}:{control_point.PORT}\r\n\r\n".encode()))

    def action(self):
        index = self.random.choice((0, 1, 65535, -1, "x", 2 ** 40))
        request = self.random.choice((
            self.soap("GetGenericPortMappingEntry", [("NewPortMappingIndex", index)]),
            self.soap("GetExternalIPAddress"), self.soap("SetConnectionType", [("NewConnectionType", "%s%n" * 20)]),
            # Leads outside, so it is refused, however its numbers are changed.
            self.soap("AddPortMapping", control_point.mapping(80, "TCP", 80, OUTSIDE, description="&" * 900))))
        self.say(self.mutated(request))

    def subscribe(self):
        host = self.random.choice((f"{self.address}:5100", f"{self.address}:5101", f"{NOBODY}:80", "127.0.0.1:2828",
                                   f"{ROUTER_LAN}:2828", f"{OUTSIDE}:80", "hangs.home:80", "unknown.home:80"))
        path = f"/upnp/event/wanipconn-{self.random.choice(self.interfaces)}"
        answer = self.exchange(f"SUBSCRIBE {path} HTTP/1.1\r\nHOST: {ROUTER_LAN}:{control_point.PORT}\r\n"
                          f"CALLBACK: <http://{host}/{'x' * self.random.choice((0, 3000))}>\r\nNT: upnp:event\r\n"
                          "TIMEOUT: Second-1800\r\n\r\n".encode())
        if found := SID.search(answer):
            self.subscriptions.append((path, found[1]))

    def unsubscribe(self):
        path, sid = subscription = self.random.choice(self.subscriptions)
        self.exchange(f"UNSUBSCRIBE {path} HTTP/1.1\r\nHOST: {ROUTER_LAN}:{control_point.PORT}\r\n"
                      f"SID: {sid}\r\n\r\n".encode())
        self.subscriptions.remove(subscription)  # only now, as the router may not have answered

    def begin_slowly(self):
        if len(self.held) >= HELD:
            self.held.pop(0).close()
        connection = self.connect()
        self.held.append(connection)
        connection.sendall(b"POST /upnp/control/osinfo HTTP/1.1\r\nContent-Length: 100\r\n")

    def go_on_slowly(self):
        connection = self.random.choice(self.held)
        try:
            connection.sendall(b"x")
        except OSError:  # its time was over
            self.held.remove(connection)
            connection.close()
            raise

    def frame(self):
        request = bus.flat([(bus.DESTINATION, bus.U32S, self.random.choice(([80], [20, 5], [20, 0], [0], [65], [24]))),
                            (bus.OBJECT, bus.U32, 1), (bus.NUMBER, bus.U32, 1), (bus.KIND, bus.U32, bus.REQUEST),
                            (bus.COMMAND, bus.U32, self.random.choice((1, 2, 4, bus.ADD, bus.SET, bus.REMOVE, bus.GET_ALL)))])
        data = self.random.choice((request, self.mutated(request)))
        with self.as_member() as member:
            member.settimeout(SECONDS)
            member.connect("bus")
            member.sendall(struct.pack("<I", self.random.choice((len(data), len(data), len(data) + 5, 1 << 31))) + data)
            with contextlib.suppress(TimeoutError):
                member.settimeout(0.05)
                member.recv(65536)

    @contextlib.contextmanager
    def as_member(self):
        """A socket for somebody who may do nothing. Only root finds the way to the folder."""
        os.chdir(self.folder)
        os.setegid(bus.GROUP)
        os.seteuid(MEMBER)
        try:
            with socket.socket(socket.AF_UNIX) as made:
                yield made
        finally:
            os.seteuid(0)
            os.setegid(0)

    DEEDS = {datagram: 8, page: 4, action: 6, subscribe: 2, unsubscribe: 2, begin_slowly: 1, go_on_slowly: 4, frame: 4}

    def act(self):
        deed = self.random.choices(list(self.DEEDS), list(self.DEEDS.values()))[0]
        with contextlib.suppress(OSError, IndexError):  # the router is disturbed, or nothing is there to do this with
            deed(self)
            self.done[deed.__name__] += 1

    def stop(self):
        deadline = time.monotonic() + 5
        while self.subscriptions and time.monotonic() < deadline:
            with contextlib.suppress(OSError):
                self.unsubscribe()
        for connection in self.held:
            connection.close()
        self.held = []
        self.hanging.close()  # and with it all connections that nobody took
        self.hanging = socket.create_server((self.address, 5100), backlog=64)


def main():
    seed, address, folder, *interfaces = sys.argv[1:]
    nuisance = Nuisance(seed, address, folder, interfaces)
    going = False
    while True:
        if select.select([sys.stdin], [], [], PAUSE if going else None)[0]:
            words = os.read(0, 100).decode().split()
            if not words:
                return
            going = words[-1] == "go"
            if not going:
                nuisance.stop()
                print("stopped", json.dumps({deed.__name__: nuisance.done[deed.__name__] for deed in nuisance.DEEDS}),
                      flush=True)
        if going:
            nuisance.act()


if __name__ == "__main__":
    main()
