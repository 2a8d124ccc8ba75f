"""Deliveries of events, and subscribers that misbehave."""
import socket
import struct
import time

import pytest

from bus import GET, OBJECT, REMOVE, SET, settings
from control_point import CONNECTION, bare, file_answer, get
from labs import DATA, LAN1, eventually
from subscribers import GOOD, Subscriber, notification, read_message, sid_of, subscribe, unsubscribe
from subscriptions import INITIAL, NOTIFY_LINES, PATH, begin, change, settled

BAD_REPLIES = [
    (b"HTTP/1.1 412 Precondition Failed\r\n\r\n", "bad notify reply: HTTP/1.1 412 Precondition Failed"),
    (b"HTTP/1.1 2000 OK\r\n\r\n", None),
    (b"HTTP/1.0 200 OK\r\n\r\n", None),
    (b"gibberish 200 no\r\n", "bad notify reply: gibberish 200 no"),
    (b"\x00\xff\x00\xff", "bad notify reply: "),
]


@pytest.mark.parametrize("reply, line", BAD_REPLIES, ids=["412", "2000", "HTTP/1.0", "garbage", "noise"])
def test_a_bad_reply_is_logged_and_the_subscription_stays(world, subscriber, reply, line):
    world.serve()
    mark = world.daemon.mark()
    subscriber.reply = reply
    sid = begin(world, subscriber)
    lines = [f"callback addr: {LAN1}, port: 5000, path: /notify", f"subscribe: {CONNECTION}", *NOTIFY_LINES]
    settled(world, mark, lines + ([line] if line else []))
    subscriber.reply = GOOD
    change(world, False)
    subscriber.expect(sid, 1, [("ConnectionStatus", "Connecting")])
    for _ in range(2):  # the second is answered in a later turn than the replies, which have come by now
        world.router.ask(GET)
    assert [told for told in world.daemon.since(mark) if told.startswith("bad notify reply")] == ([line] if line else [])


class Raw:
    """A subscriber that is only a listening socket on lan1."""

    callback = f"<http://{LAN1}:5000/notify>"

    def __init__(self, host):
        self.listener = host.listen(5000)
        self.held = []

    def accept(self):
        """The next notification's connection, and what it carries."""
        connection, _ = self.listener.accept()
        connection.settimeout(10)
        self.held.append(connection)
        return connection, read_message(connection)

    def close(self):
        for connection in [*self.held, self.listener]:
            connection.close()


@pytest.fixture
def raw(scripted_lab):
    raw = Raw(scripted_lab.lan1)
    yield raw
    raw.close()


def undisturbed(world, other, sid, number, status):
    """Another subscriber and another client notice nothing."""
    change(world, status == "Connected")
    other.expect(sid, number, [("ConnectionStatus", status)])
    assert get(world.lab.lan2, "/osinfo.xml") == file_answer((DATA / "osinfo.xml").read_text())


def test_a_refused_connection_takes_its_number_and_disturbs_nobody(world, other):
    world.serve()
    sid = begin(world, other)
    mark = world.daemon.mark()
    dead = sid_of(subscribe(world.lab.lan1, PATH, f"<http://{LAN1}:5000/notify>"))
    settled(world, mark, [f"callback addr: {LAN1}, port: 5000, path: /notify", f"subscribe: {CONNECTION}", *NOTIFY_LINES,
                          "write failed", "notify timeout"])
    undisturbed(world, other, sid, 1, "Connecting")
    eventually(lambda: world.daemon.since(mark).count("write failed") == 2)
    subscriber = Subscriber(world.lab.lan1)
    undisturbed(world, other, sid, 2, "Connected")
    subscriber.expect(dead, 2, [("ConnectionStatus", "Connected")])  # two numbers went with what was refused
    subscriber.close()


def test_a_subscriber_that_dies_in_the_middle_disturbs_nobody(world, raw, other):
    world.serve()
    sid = begin(world, other)
    mark = world.daemon.mark()
    dead = sid_of(subscribe(world.lab.lan1, PATH, raw.callback))
    connection, heard = raw.accept()
    assert heard == notification(dead, 0, INITIAL, LAN1, 5000)
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()  # reset
    world.daemon.wait_for("notify reply read failed", mark)
    undisturbed(world, other, sid, 1, "Connecting")
    connection, heard = raw.accept()
    assert heard == notification(dead, 1, [("ConnectionStatus", "Connecting")], LAN1, 5000)
    connection.close()  # ended, without a reply
    eventually(lambda: world.daemon.since(mark).count("notify reply read failed") == 2)
    undisturbed(world, other, sid, 2, "Connected")
    assert world.daemon.since(mark).count("notify reply read failed") == 2  # told once each, not for ever


def test_subscribers_that_never_reply_or_never_accept_are_given_up_after_thirty_seconds(world, raw, other):
    """One subscriber accepts and says nothing, then closes without a word; one swallows what comes; one is well."""
    world.serve()
    lan1, well = world.lab.lan1, begin(world, other)
    lan1.run("ip", "address", "add", "192.0.2.40/24", "dev", "eth0")
    mark = world.daemon.mark()
    with lan1.dropping("input", "ip daddr 192.0.2.40"):
        began = time.monotonic()
        silent = sid_of(subscribe(lan1, PATH, raw.callback))
        held, _ = raw.accept()
        swallowed = sid_of(subscribe(lan1, PATH, "<http://192.0.2.40:5000/notify>"))
        undisturbed(world, other, well, 1, "Connecting")
        wordless, heard = raw.accept()
        assert heard == notification(silent, 1, [("ConnectionStatus", "Connecting")], LAN1, 5000)
        wordless.close()
        world.daemon.wait_for("notify timeout", mark, 40)
        assert 29.5 <= time.monotonic() - began <= 33
        eventually(lambda: world.daemon.since(mark).count("notify timeout") == 4, "each is given up", 10)
        assert held.recv(1) == b""  # closed by the daemon
    assert world.daemon.since(mark).count("notify reply read failed") == 1
    raw.listener.close()
    subscriber = Subscriber(lan1)
    change(world, True)  # all subscriptions stay; what never connected took no number
    assert sorted(subscriber.next() for _ in range(2)) == sorted([
        notification(silent, 2, [("ConnectionStatus", "Connected")], LAN1, 5000),
        notification(swallowed, 0, [("ConnectionStatus", "Connected")], "192.0.2.40", 5000)])
    subscriber.close()
    lan1.run("ip", "address", "del", "192.0.2.40/24", "dev", "eth0")


def test_a_host_without_a_route_is_logged_at_once_and_takes_no_number(world):
    world.serve()
    world.lab.router.run("ip", "route", "add", "unreachable", "198.18.0.0/15")
    mark = world.daemon.mark()
    assert subscribe(world.lab.lan1, PATH, "<http://198.18.0.1:5000/>").startswith("HTTP/1.1 200 OK\r\n")
    assert world.daemon.since(mark) == ["callback addr: 198.18.0.1, port: 5000, path: /", f"subscribe: {CONNECTION}",
                                        "tcp connect: No route to host"]
    world.lab.router.run("ip", "route", "del", "unreachable", "198.18.0.0/15")


def test_a_delivery_whose_subscription_is_gone_is_dropped_when_it_connects(world, subscriber):
    world.serve()
    lan1 = world.lab.lan1
    with lan1.dropping("input", "tcp dport 5000"):
        sid = sid_of(subscribe(lan1, PATH, subscriber.callback))
        assert unsubscribe(lan1, PATH, sid) == bare("200 OK")
        mark = world.daemon.mark()
    settled(world, mark, ["notify timeout"])  # the connection has come to stand with its next attempt
    eventually(lambda: subscriber.wordless == 1)
    assert subscriber.silent()


def test_a_notification_has_the_values_and_the_number_of_the_moment_its_connection_stands(world, subscriber):
    world.serve()
    lan1 = world.lab.lan1
    with lan1.dropping("input", "tcp dport 5000"):
        sid = sid_of(subscribe(lan1, PATH, subscriber.callback))
        change(world, False)
    told = dict(INITIAL) | {"ConnectionStatus": "Connecting"}
    heard = sorted(subscriber.next() for _ in range(2))
    whole, single = sorted(told.items()), [("ConnectionStatus", "Connecting")]
    orders = [sorted([notification(sid, first, whole, LAN1, 5000), notification(sid, 1 - first, single, LAN1, 5000)])
              for first in (0, 1)]
    assert heard in orders  # whichever connects first has number 0


@pytest.mark.parametrize("how", ["disable", "item", "interface", "end"])
def test_the_end_of_a_service_drops_its_deliveries_and_subscriptions_without_a_line(world, raw, how):
    world.serve()
    subscribe(world.lab.lan1, PATH, raw.callback)
    held, _ = raw.accept()
    mark = world.daemon.mark()
    if how == "disable":
        world.router.ask(SET, settings(False))
    elif how == "item":
        world.router.ask(REMOVE, [(OBJECT, "u32", 2)])
    elif how == "interface":
        world.router.tell_interface([*world.wan[:2], (0x10003, "u32", 0x82), *world.wan[3:]])
    else:
        assert world.stop() == 0
    told = {"disable": ["disable", "stop int: inside", "sendAdverts", "stop ext: uplink"],
            "item": ["stop ext: uplink", "sendAdverts"],
            "interface": ["rem dev: uplink", "stop ext: uplink", "sendAdverts"]}
    assert world.daemon.since(mark) == told.get(how, [*told["disable"], "exit"])
    assert held.recv(1) == b""  # closed
