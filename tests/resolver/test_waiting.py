"""Subscribers whose names nobody resolves, and everybody else."""
import select
import socket
import struct
import time

import pytest

import bus
import labs
import nameserver
from control_point import bare, get, read_to_end
from labs import LAN1, PATIENCE, ROUTER_LAN, WAN
from subscribers import Subscriber, sid_of, subscribe

SUBSCRIBERS = 100
CONFIGURATION = f"""
[[program]]
number = 14
command = ["{labs.BIN}/resolverd"]
"""


@pytest.fixture
def router(bare_lab):
    nameserver.replace(bare_lab, "hosts", f"127.0.0.1 localhost\n{LAN1} printer.home\n")
    nameserver.replace(bare_lab, "resolv.conf", f"nameserver {WAN}\n")
    (bare_lab.root / "tesk" / "etc" / "router.toml").write_text(CONFIGURATION)
    return bare_lab.serve()


class HungResolver:
    """Holds the resolver's number on the bus, and answers nothing."""

    def __init__(self, lab):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(PATIENCE)
        self.socket.connect(str(lab.root / "run" / "tk" / "bus"))
        request = bus.flat([(1, "u32", 14), (bus.DESTINATION, "u32[]", [0]), (bus.NUMBER, "u32", 1),
                            (bus.KIND, "u32", bus.REQUEST), (bus.COMMAND, "u32", 1)])
        self.socket.sendall(struct.pack("<I", len(request)) + request)
        assert bus.value_of(self.next(), bus.KIND) == bus.REPLY

    def next(self):
        """The next message that reaches it."""
        def read(length):
            data = self.socket.recv(length, socket.MSG_WAITALL)
            assert len(data) == length
            return data
        return bus.unflat(read(struct.unpack("<I", read(4))[0]))

    def close(self):
        self.socket.close()


def send_subscribe(lab, number):
    """Opens a connection of lan1 and subscribes over it with a name of its own."""
    connection = lab.lan1.connect(ROUTER_LAN, 2828)
    connection.sendall((f"SUBSCRIBE /upnp/event/osinfo HTTP/1.1\r\nHOST: {ROUTER_LAN}:2828\r\nNT: upnp:event\r\n"
                        f"CALLBACK: <http://name{number}.example:5000/>\r\n\r\n").encode())
    return connection


def send_subscribes(lab, count):
    """Sends this many, and returns the longest that the other host meanwhile waited for a description."""
    connections, longest = [], 0
    for number in range(count):
        connections.append(send_subscribe(lab, number))
        answer, took = timed(lambda: get(lab.lan2, "/gateway.xml"))  # after it the listener's short queue is empty
        assert answer.startswith("HTTP/1.1 200 OK\r\n")
        longest = max(longest, took)
    return connections, longest


def timed(work):
    began = time.monotonic()
    result = work()
    return result, time.monotonic() - began


def slowest_description(lab, until):
    """Fetches the description from the other host until the condition holds; returns the longest time that took."""
    longest = 0
    deadline = time.monotonic() + 30
    while not until():
        assert time.monotonic() < deadline, "the condition never holds"
        answer, took = timed(lambda: get(lab.lan2, "/gateway.xml"))
        assert answer.startswith("HTTP/1.1 200 OK\r\n")
        longest = max(longest, took)
    return longest


def is_unanswered(connection):
    return not select.select([connection], [], [], 0)[0]


def answers_of(connections):
    for connection in connections:
        with connection:
            yield read_to_end(connection).decode()


def test_names_that_nobody_answers_keep_nobody_else_waiting(router):
    with router.router.dropping("input", f"ip saddr {WAN} udp sport 53"), router.wan.datagrams(53):
        connections, longest = send_subscribes(router, SUBSCRIBERS)
        longest = max(longest, slowest_description(
            router, lambda: router.upnpd.log.count("resolving failed: ") >= SUBSCRIBERS))
        print(f"slowest description during {SUBSCRIBERS} subscriptions: {longest * 1000:.1f} ms")
        assert longest < 0.5
        assert list(answers_of(connections)) == [bare("412 Precondition Failed")] * SUBSCRIBERS
    lines = router.upnpd.lines
    assert sum("the name servers do not answer" in line for line in lines) == 16, lines  # the share of one host
    assert sum(line == "resolving failed: too many requests wait for names" for line in lines) == SUBSCRIBERS - 16, lines


def test_a_resolver_that_hangs_harms_only_those_who_wait_for_it(bare_lab):
    router = bare_lab.serve()
    hung = HungResolver(router)
    connection = send_subscribe(router, 1)
    longest = slowest_description(router, lambda: "resolving failed" in router.upnpd.log)
    print(f"slowest description beside a resolver that hangs: {longest * 1000:.1f} ms")
    assert longest < 0.5
    assert router.upnpd.lines[-1] == "resolving failed: timed out"
    assert list(answers_of([connection])) == [bare("412 Precondition Failed")]
    hung.close()


def test_another_named_subscriber_is_answered_meanwhile(router):
    with router.router.dropping("input", f"ip saddr {WAN} udp sport 53"), router.wan.datagrams(53):
        waiting, _ = send_subscribes(router, 16)
        subscriber = Subscriber(router.lan1)
        answer, took = timed(lambda: subscribe(router.lan2, "/upnp/event/osinfo", "<http://printer.home:5000/notify>"))
        assert sid_of(answer) in subscriber.next()
        print(f"a named subscriber beside 16 that wait: {took * 1000:.1f} ms")
        assert took < 0.5 and any(is_unanswered(connection) for connection in waiting)
        assert list(answers_of(waiting)) == [bare("412 Precondition Failed")] * 16
        subscriber.close()


def test_a_waiting_subscriber_ends_with_the_daemon(bare_lab):
    router = bare_lab.serve()
    hung = HungResolver(router)
    first = send_subscribe(router, 1)
    assert bus.value_of(hung.next(), 3) == "name1.example"
    _, took = timed(router.upnpd.stop)
    assert router.upnpd.wait() == 0 and took < 3  # it does not wait for the name
    assert list(answers_of([first])) == [""]
    assert router.upnpd.lines[-1] == "exit"
    hung.close()
