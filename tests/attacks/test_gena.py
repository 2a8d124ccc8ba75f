"""Events under attack: subscribers that lead the daemon astray, hang, answer nonsense, or come in crowds."""
import contextlib
import itertools
import selectors
import socket
import struct
import threading
import time

import pytest

import labs
import nameserver
from attacks import installed
from bystanders import longest_but_one, watched
from control_point import PORT, bare, call, mapping, read_to_end, result
from labs import LAN1, ROUTER_LAN, ROUTER_WAN, ROUTER_WAN2, WAN, WAN2, eventually
from subscribers import Subscriber, granted, sid_of, subscribe, unsubscribe
from wires import Ears

OSINFO_EVENTS = "/upnp/event/osinfo"
CROWD = [f"192.0.2.{number}" for number in range(100, 199)]  # more addresses of lan1; with lan2's own a hundred
BAIT = 8000  # a port on which somebody listens wherever the daemon must not go
REFUSED, FULL = bare("412 Precondition Failed"), bare("500 Internal Server Error")


def use_name_server(lab):
    nameserver.replace(lab, "hosts", "127.0.0.1 localhost\n")
    nameserver.replace(lab, "resolv.conf", f"nameserver {WAN}\n")


@pytest.fixture(scope="module")
def shared_lab(tmp_path_factory):
    with installed.serving(tmp_path_factory.mktemp("lab"), use_name_server) as lab:
        lab.lan1.run("sh", "-c", "for n in $(seq 100 198); do ip address add 192.0.2.$n/24 dev eth0; done")
        yield lab


@pytest.fixture(autouse=True)
def ended(lab):
    """Deliveries end with their services, so nobody has to wait until the time for them is over."""
    yield
    lab.disable()
    lab.enable()


class Connection:
    """The service whose events count the mappings."""

    def __init__(self, lab):
        number = lab.interface_id("wan0")
        self.events, self.control = f"/upnp/event/wanipconn-{number}", f"/upnp/control/wanipconn-{number}"
        self.host, self.is_mapped = lab.lan2, False

    def change(self):
        """Makes one event: a mapping comes or goes. Returns what is told."""
        action, arguments = ("DeletePortMapping", mapping()[:3]) if self.is_mapped else ("AddPortMapping", mapping())
        assert call(self.host, self.control, action, arguments) == result(action)
        self.is_mapped = not self.is_mapped
        return [("PortMappingNumberOfEntries", "2" if self.is_mapped else "1")]


@pytest.fixture
def connection(lab):
    return Connection(lab)


@pytest.fixture
def well(lab, connection):
    """The other host has subscribed; each call makes an event, which it gets as it should."""
    subscriber = Subscriber(lab.lan2)
    sid = sid_of(subscribe(lab.lan2, connection.events, subscriber.callback))
    assert "\r\nSEQ: 0\r\n" in subscriber.next()
    numbers = iter(range(1, 1 << 30))
    yield lambda: subscriber.expect(sid, next(numbers), connection.change())
    subscriber.close()


def callback(address, port, path="/notify"):
    return f"<http://{address}:{port}{path}>"


@contextlib.contextmanager
def bait(lab):
    """Listeners everywhere on the router and outside, and what passes the wires of the hosts outside."""
    with contextlib.ExitStack() as stack:
        listeners, wires = [], []
        for host in (lab.router, lab.wan, lab.wan2):
            listeners.append(stack.enter_context(host.socket()))
            listeners[-1].bind(("", BAIT))
            listeners[-1].listen(16)
        for host in (lab.wan, lab.wan2):
            wires.append(stack.enter_context(contextlib.closing(Ears(host))))
        for each in listeners:
            each.setblocking(False)
        yield listeners, wires


# Where an attempt ends: at the guard, which resets it, or at the kernel, which connects to no group of hosts.
AT_THE_GUARD = ["127.0.0.1", "127.5.5.5", "0.0.0.0", ROUTER_LAN, ROUTER_WAN, ROUTER_WAN2, WAN, WAN2, "198.51.100.77", "8.8.8.8"]
AT_THE_KERNEL = ["224.0.0.251", "239.255.255.250", "192.0.2.255"]
SPELLINGS = ["127.1", "0", "3221225985", "0xC0000201", "0300.0.2.1"]  # of addresses that are among those
CHANGES = 3


@watched
def test_no_event_leads_to_the_router_itself_or_outside(lab, bystander, connection, well):
    with bait(lab) as (listeners, wires):
        mark, sids = lab.upnpd.mark(), []
        for address in AT_THE_GUARD + AT_THE_KERNEL:
            for path, port in ((connection.events, BAIT), (OSINFO_EVENTS, PORT)):
                answer = subscribe(lab.lan1, path, callback(address, port))
                sids.append((path, sid_of(answer)))
                assert answer == granted(sids[-1][1])
        for address in SPELLINGS:
            assert subscribe(lab.lan1, connection.events, callback(address, BAIT)) == REFUSED
        for _ in range(CHANGES):
            well()
        lines = {"write failed": (2 + CHANGES) * len(AT_THE_GUARD),
                 "tcp connect: Network is unreachable": (2 + CHANGES) * len(AT_THE_KERNEL)}
        eventually(lambda: {line: lab.upnpd.since(mark).count(line) for line in lines} == lines, "each attempt has ended")
        for path, sid in sids:
            assert unsubscribe(lab.lan1, path, sid) == bare("200 OK")
        for listener in listeners:
            with pytest.raises(BlockingIOError):
                listener.accept()
        assert [wire.heard() for wire in wires] == [[], []]
        assert not [line for line in lab.upnpd.since(mark) if "NOTIFY" in line], "it did not tell itself either"


class Ports:
    """What the crowd does with a notification, by the port that it is sent to."""
    NOBODY, HANGS, SWALLOWS, TALKS, LEAVES = ALL = range(5001, 5006)
    NONSENSE = b"\x00\xffHTTP/1.1 \x1b[2J 20" * 100

    def __init__(self, host):
        self.stack = contextlib.ExitStack()
        self.ready = selectors.DefaultSelector()
        for port in (self.HANGS, self.TALKS, self.LEAVES):
            listener = self.stack.enter_context(host.socket())
            listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 2048)
            listener.bind(("", port))
            listener.listen(4096)
            if port != self.HANGS:  # there the kernel accepts, and nobody reads
                self.ready.register(listener, selectors.EVENT_READ, port)
        self.stack.enter_context(host.dropping("input", f"tcp dport {self.SWALLOWS}"))
        self.ended = threading.Event()
        self.thread = threading.Thread(target=self.serve)
        self.thread.start()

    def serve(self):
        while not self.ended.is_set():
            for key, _ in self.ready.select(0.1):
                made, _ = key.fileobj.accept()
                with made, contextlib.suppress(OSError):
                    if key.data == self.TALKS:
                        made.settimeout(1)
                        made.recv(4096)
                        made.sendall(self.NONSENSE)

    def close(self):
        self.ended.set()
        self.thread.join()
        self.stack.close()


@pytest.fixture
def ports(lab):
    made = Ports(lab.lan1)
    yield made
    made.close()


@watched
def test_a_hundred_subscribers_that_misbehave_keep_nobody_else_from_an_event(lab, bystander, connection, well, ports):
    mark = lab.upnpd.mark()
    sids = [sid_of(subscribe(lab.lan1, connection.events, callback(address, Ports.ALL[number % len(Ports.ALL)])))
            for number, address in enumerate(CROWD)]
    assert subscribe(lab.lan1, connection.events, callback(LAN1, Ports.HANGS)) == FULL
    times = []
    for _ in range(30):
        began = time.monotonic()
        well()
        times.append(time.monotonic() - began)
    print(f"the longest from a request to the event that it makes: {max(times) * 1000:.1f} ms")
    assert longest_but_one(times) < labs.SLOWNESS
    for line in ("write failed", "notify dropped: too many are on their way to ", "notify reply read failed",
                 "bad notify reply: "):
        lab.upnpd.wait_for(line, mark)  # some of the crowd are slow to misbehave
    assert not any("\x1b" in line or "\0" in line for line in lab.upnpd.since(mark))
    for sid in sids:
        assert unsubscribe(lab.lan1, connection.events, sid) == bare("200 OK")


REPLIES = [
    (b"HTTP/1.1 500 %s%n%x%99999d\r\n\r\n", "bad notify reply: HTTP/1.1 500 %s%n%x%99999d"),
    (b"\x1b[2J\x1b]0;x\x7f\x00\x9b\r\n\r\n", r"bad notify reply: \x1b[2J\x1b]0;x\x7f\x00\x9b"),
    (b"\r\n\r\n", "bad notify reply: "),
    (b"H", "bad notify reply: "),
    (b"HTTP/1.1 200 OK", "bad notify reply: "),
    (b"x" * 50000, "bad notify reply: "),
    (b"x" * 1000 + b"\r\n\r\n", "bad notify reply: " + "x" * 1000),
    (b"NOTIFY / HTTP/1.1\r\nCONTENT-LENGTH: 18446744073709551616\r\n\r\n", "bad notify reply: NOTIFY / HTTP/1.1"),
    (b"", "notify reply read failed"),
    (b"HTTP/1.1 200 OK\r\n" + b"X: y\r\n" * 8000, None),
    (b"HTTP/1.1 200 " + b"\xff" * 10000 + b"\r\n\r\n", "bad notify reply: "),
]


@watched
def test_each_reply_is_read_once_and_what_it_says_changes_nothing(lab, bystander, connection, well):
    subscriber = Subscriber(lab.lan1)
    try:
        sid = sid_of(subscribe(lab.lan1, connection.events, subscriber.callback))
        assert "\r\nSEQ: 0\r\n" in subscriber.next()
        for number, (subscriber.reply, line) in enumerate(REPLIES, 1):
            mark = lab.upnpd.mark()
            subscriber.expect(sid, number, connection.change())
            if line is not None:
                eventually(lambda: line in lab.upnpd.since(mark), f"{line}: {lab.upnpd.since(mark)}")
            else:
                lab.upnpd.wait_for("notify: ", mark)
        assert unsubscribe(lab.lan1, connection.events, sid) == bare("200 OK")
    finally:
        subscriber.close()


LONG = "/" + "p" * 120000


def test_a_long_path_comes_back_whole(lab, connection):
    path = LONG + "%s%n<&?#"
    with contextlib.closing(Subscriber(lab.lan1)) as subscriber:
        sid = sid_of(subscribe(lab.lan1, connection.events, callback(LAN1, 5000, path)))
        assert subscriber.next().partition("\r\n")[0] == f"NOTIFY {path} HTTP/1.1"
        assert subscribe(lab.lan1, connection.events, callback(LAN1, 5000)) == REFUSED
        assert unsubscribe(lab.lan1, connection.events, sid) == bare("200 OK")


@watched
def test_long_paths_of_hosts_that_never_read_keep_nobody_waiting(lab, bystander, connection, well, ports):
    """They are refused before they take up what others need."""
    answers = [subscribe(lab.lan1, connection.events, callback(address, Ports.HANGS, LONG)) for address in CROWD]
    sids = [sid_of(answer) for answer in answers if answer != FULL]
    assert len(sids) == 2
    for _ in range(10):
        well()
    usual = subscribe(lab.lan1, connection.events, callback(LAN1, Ports.HANGS, "/" + "p" * 1000))
    for sid in (*sids, sid_of(usual)):
        assert unsubscribe(lab.lan1, connection.events, sid) == bare("200 OK")


@watched
def test_subscriptions_that_come_and_go_keep_nobody_waiting(lab, bystander):
    deadline = time.monotonic() + 0.5
    while time.monotonic() < deadline:
        sid = sid_of(subscribe(lab.lan1, OSINFO_EVENTS, callback(LAN1, Ports.NOBODY), "Second-infinite"))
        assert unsubscribe(lab.lan1, OSINFO_EVENTS, sid) == bare("200 OK")


NAMES = 40  # of which 16 may wait at once
fresh = itertools.count()  # no name is asked for twice


def named_subscribe(lab):
    """A connection that waits for the answer to a subscription whose host has a name."""
    connection = lab.lan1.connect(ROUTER_LAN, PORT)
    connection.sendall((f"SUBSCRIBE {OSINFO_EVENTS} HTTP/1.1\r\nHOST: {ROUTER_LAN}:{PORT}\r\nNT: upnp:event\r\n"
                        f"CALLBACK: <http://name{next(fresh)}.example:5000/>\r\n\r\n").encode())
    return connection


@contextlib.contextmanager
def silent_name_server(lab):
    with lab.router.dropping("input", f"ip saddr {WAN} udp sport 53"), lab.wan.datagrams(53):
        yield


@watched
def test_names_that_nobody_answers_keep_nobody_else_waiting(lab, bystander):
    mark = lab.upnpd.mark()
    with silent_name_server(lab):
        for connection in [named_subscribe(lab) for _ in range(NAMES)]:
            with connection:
                assert read_to_end(connection).decode() == REFUSED
    told = lab.upnpd.since(mark)
    given_up = sum("resolving failed: the name servers do not answer" in line for line in told)
    refused = told.count("resolving failed: too many requests wait for names")
    assert given_up >= 16 and given_up + refused == NAMES, told


@watched
def test_subscribers_that_leave_while_their_names_are_looked_for_leave_nothing(lab, bystander):
    with silent_name_server(lab):
        for number in range(NAMES):
            connection = named_subscribe(lab)
            if number % 2:
                connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))  # a reset
            connection.close()
