"""Subscribers whose names nobody resolves, and everybody else."""
import select
import time

import pytest

import bus
import labs
import nameserver
from control_point import bare, get, read_to_end
from labs import LAN1, ROUTER_LAN, WAN, eventually
from subscribers import Subscriber, sid_of, subscribe

SUBSCRIBERS = 100
SHARE = 16  # requests of one host that may wait for names
EXCHANGE = 6  # seconds after which the daemon gives up the resolver
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


class HungResolver(bus.Client):
    """Is the resolver on the bus, and answers nothing."""

    def __init__(self, lab):
        super().__init__(lab)
        self.register(14)
        self.names = 0

    def asked(self):
        """How many names it has been asked for by now."""
        while self.received or select.select([self.socket], [], [], 0)[0]:
            self.names += self.read()[bus.KIND] == bus.REQUEST
        return self.names


def send_subscribe(lab, number):
    """Opens a connection of lan1 and subscribes over it with a name of its own."""
    connection = lab.lan1.connect(ROUTER_LAN, 2828)
    connection.sendall((f"SUBSCRIBE /upnp/event/osinfo HTTP/1.1\r\nHOST: {ROUTER_LAN}:2828\r\nNT: upnp:event\r\n"
                        f"CALLBACK: <http://name{number}.example:5000/>\r\n\r\n").encode())
    return connection


def send_subscribes(lab, count):
    connections = []
    for number in range(count):
        connections.append(send_subscribe(lab, number))
        get(lab.lan2, "/gateway.xml")  # after it the listener's short queue is empty
    return connections


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


def refused(lab):
    return lab.upnpd.lines.count("resolving failed: too many requests wait for names")


def test_at_most_16_requests_of_one_host_wait_for_names(bare_lab):
    router, connections = bare_lab.serve(), []

    def given_up():
        return router.upnpd.lines.count("resolving failed: timed out")
    with HungResolver(router) as hung:
        for number in range(SUBSCRIBERS):
            before, asked = given_up(), hung.asked()
            connections.append(send_subscribe(router, number))
            eventually(lambda: hung.asked() + refused(router) == number + 1, f"request {number} waits or is refused")
            # On a slow machine the daemon gives up the first of them meanwhile, and takes as many others.
            if hung.asked() > asked:
                assert hung.asked() - given_up() <= SHARE
            else:
                assert asked - before >= SHARE
        assert list(answers_of(connections)) == [bare("412 Precondition Failed")] * SUBSCRIBERS


def test_a_resolver_that_hangs_harms_only_those_who_wait_for_it(bare_lab):
    router = bare_lab.serve()
    with HungResolver(router):
        connection = send_subscribe(router, 1)
        longest = slowest_description(router, lambda: "resolving failed" in router.upnpd.log)
        print(f"slowest description beside a resolver that hangs: {longest * 1000:.1f} ms")
        assert longest < EXCHANGE / 2, "nobody else waits for the resolver"
        assert router.upnpd.lines[-1] == "resolving failed: timed out"
        assert list(answers_of([connection])) == [bare("412 Precondition Failed")]


def test_another_named_subscriber_is_answered_meanwhile(router):
    with router.router.dropping("input", f"ip saddr {WAN} udp sport 53"), router.wan.datagrams(53):
        subscriber = Subscriber(router.lan1)
        waiting = send_subscribes(router, SHARE)
        answer, took = timed(lambda: subscribe(router.lan2, "/upnp/event/osinfo", "<http://printer.home:5000/notify>"))
        assert is_unanswered(waiting[-1]), "the others wait for their names still"
        assert sid_of(answer) in subscriber.next()
        print(f"a named subscriber beside {SHARE} that wait: {took * 1000:.1f} ms")
        assert list(answers_of(waiting)) == [bare("412 Precondition Failed")] * 16
        subscriber.close()


def test_a_waiting_subscriber_ends_with_the_daemon(bare_lab):
    router = bare_lab.serve()
    with HungResolver(router) as hung:
        first = send_subscribe(router, 1)
        assert hung.read()[3] == "name1.example"
        status, took = timed(router.upnpd.stop)
        assert status == 0 and took < EXCHANGE / 2, "it does not wait for the name"
        assert list(answers_of([first])) == [""]
        assert router.upnpd.lines[-1] == "exit"
