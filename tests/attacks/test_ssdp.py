"""What a host in the LAN can do with datagrams to the searches' port, and what it costs another one."""
import contextlib
import socket
import struct
import time

import pytest

import labs
from control_point import GROUP, search, search_answer
from labs import LAN1, LAN2, ROUTER_LAN, ROUTER_WAN, WAN

ROOT = "upnp:rootdevice"
ALL = search("ssdp:all").encode()
WHOLE = 65507  # the longest datagram
READ = 4096    # what the daemon reads of one
EVERY_PROTOCOL = 3
SECONDS = 1.5  # of a flood
ANSWER = b"HTTP/1.1 200 OK\r\n"


def answers_to(searcher, pairs, *datagrams):
    """The answers to the datagrams: all that comes before the answer to a search after them."""
    target = "urn:schemas-upnp-org:device:WANDevice:1"
    for datagram in datagrams:
        searcher.send(datagram)
    searcher.send(search(target))
    last = search_answer(target, dict(pairs)[target])
    answers = []
    while (answer := searcher.next()[0]) != last:
        answers.append(answer)
    return answers


def with_header(line, before_target):
    """A search for the root device, with a line more before or after the line that names it."""
    begin, _, target = search(ROOT)[:-2].rpartition("ST: ")
    return begin + (f"{line}\r\nST: {target}" if before_target else f"ST: {target}{line}\r\n") + "\r\n"


LONG = "X: " + "x" * READ


@pytest.mark.parametrize("datagram, answered", [
    pytest.param(with_header(LONG, before_target=False), True, id="an overlong header after what counts"),
    pytest.param(with_header(LONG, before_target=True), False, id="an overlong header before the target"),
    pytest.param(with_header("X: " + "x" * 60000, before_target=False), True, id="60 KB"),
    pytest.param(with_header("x" * 60000, before_target=False), True, id="60 KB without a colon"),
    pytest.param(with_header("\r\n".join(["X:"] * 500), before_target=True), True, id="500 headers"),
    pytest.param(with_header("\r\n".join(["X:"] * 15000), before_target=False), True, id="15000 headers"),
    pytest.param(with_header("ST: ssdp:all", before_target=False), True, id="a second target"),
    pytest.param(with_header("CONTENT-LENGTH: -1", before_target=False), True, id="a length"),
    pytest.param(with_header("\x00\x01: \x1b[2J\x00", before_target=True), True, id="control bytes"),
    pytest.param(search(ROOT + "\x00"), False, id="NUL after the target"),
    pytest.param(search(ROOT + " "), False, id="a blank after the target"),
    pytest.param(search("x" * 3000), False, id="a long target"),
    pytest.param(search("%n%s%n%s" * 100), False, id="a format"),
    pytest.param(search(ROOT).replace("M-SEARCH", "M-SEARCH" * 400), False, id="a long title"),
    pytest.param(search(ROOT).replace("HTTP/1.1", "HTTP/1.1 "), False, id="a blank after the title"),
    pytest.param(search(ROOT).replace("\r\n", "\n"), False, id="lines without CR"),
    pytest.param(search(ROOT)[:-4], False, id="without the last line end"),
    pytest.param("\r", False, id="CR"),
    pytest.param("M", False, id="one byte"),
    pytest.param("x" * WHOLE, False, id="64 KiB of noise"),
    pytest.param("\r\n" * (WHOLE // 2), False, id="64 KiB of blank lines"),
    pytest.param("M-SEARCH * HTTP/1.1\r\n" + ":\r\n" * 20000, False, id="64 KiB of colons"),
])
def test_an_odd_search_is_answered_by_what_the_daemon_reads_of_it(lab, searcher, pairs, datagram, answered):
    mark = lab.upnpd.mark()
    expected = [search_answer(ROOT, dict(pairs)[ROOT])] if answered else []
    assert answers_to(searcher, pairs, datagram) == expected
    assert lab.upnpd.since(mark) == []


def flood(host, datagram):
    """As many datagrams as one socket sends to the group within SECONDS."""
    with host.datagrams() as sender:
        deadline = time.monotonic() + SECONDS
        while time.monotonic() < deadline:
            sender.sendto(datagram, GROUP)


@pytest.mark.parametrize("datagram", [
    pytest.param(ALL, id="searches"), pytest.param(b"", id="nothing"), pytest.param(b"x" * WHOLE, id="64 KiB"),
    pytest.param(with_header(LONG, before_target=True).encode(), id="long headers"),
    pytest.param(b"M-SEARCH * HTTP/1.1\r\n" + b":\r\n" * 1300, id="many headers")])
def test_a_flood_keeps_nobody_waiting(lab, bystander, datagram):
    bystander.during(lambda: flood(lab.lan1, datagram))


class Ears:
    """Hears whatever passes a host's interface, for whomever it is."""

    def __init__(self, host):
        with labs.namespace(f"/run/netns/gw-{host.lab.name}-{host.name}"):
            self.socket = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(EVERY_PROTOCOL))
            self.socket.bind(("eth0", EVERY_PROTOCOL))
        self.socket.setblocking(False)

    def answers(self):
        """The destinations of the answers to searches that have passed since the last call."""
        heard = []
        with contextlib.suppress(BlockingIOError):
            while True:
                frame = self.socket.recv(65536)
                if ANSWER in frame and frame[23] == socket.IPPROTO_UDP:  # else an error that quotes it
                    heard.append(socket.inet_ntoa(frame[30:34]))
        return heard

    def close(self):
        self.socket.close()


@pytest.fixture
def ears(lab):
    """What the other hosts of the lab hear."""
    made = {name: Ears(getattr(lab, name)) for name in ("lan1", "lan2", "wan", "wan2")}
    yield made
    for each in made.values():
        each.close()


class Forger:
    """Sends datagrams from a host with a source of its choice."""

    def __init__(self, host):
        with labs.namespace(f"/run/netns/gw-{host.lab.name}-{host.name}"):
            self.socket = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_RAW)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)

    def send(self, source, port, datagram, destination=GROUP[0]):
        length = 8 + len(datagram)
        udp = struct.pack("!HHHH", port, GROUP[1], length, 0)  # without a checksum
        ip = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + length, 0, 0, 4, socket.IPPROTO_UDP, 0,
                         socket.inet_aton(source), socket.inet_aton(destination))
        self.socket.sendto(ip + udp + datagram, (destination, 0))

    def close(self):
        self.socket.close()


@pytest.fixture
def forger(lab):
    forger = Forger(lab.lan1)
    yield forger
    forger.close()


def test_answers_reach_only_the_asker(lab, searcher, pairs, ears):
    answers_to(searcher, pairs)  # so that the bridge knows where the asker is
    for each in ears.values():
        each.answers()
    searcher.send(ALL)
    assert [text for text, _ in searcher.receive(len(pairs))] == [search_answer(*pair) for pair in pairs]
    assert ears["lan1"].answers() == [LAN1] * len(pairs)
    assert [ears[name].answers() for name in ("lan2", "wan", "wan2")] == [[], [], []]


FORGED = [  # source, port, where the answers go
    pytest.param("8.8.8.8", 53, None, id="a host of the Internet"),
    pytest.param(WAN, 1900, None, id="a host beyond the uplink"),
    pytest.param(ROUTER_WAN, 1900, None, id="the router outside"),
    pytest.param(ROUTER_LAN, 1900, None, id="the router inside"),
    pytest.param("127.0.0.1", 1900, None, id="loopback"),
    pytest.param("0.0.0.1", 1900, None, id="no address"),
    pytest.param("192.0.2.255", 1900, None, id="everybody in the LAN"),
    pytest.param("255.255.255.255", 1900, None, id="everybody"),
    pytest.param(GROUP[0], 1900, None, id="the group"),
    pytest.param("10.0.0.1", 1900, None, id="a private network elsewhere"),
    pytest.param(LAN2, 1900, LAN2, id="another host"),
    pytest.param(LAN2, 7, LAN2, id="another host's echo service"),
]


@pytest.mark.parametrize("source, port, target", FORGED)
def test_a_forged_search_is_answered_only_into_the_lan(lab, searcher, pairs, ears, forger, source, port, target):
    for each in ears.values():
        each.answers()
    for destination in (GROUP[0], ROUTER_LAN):
        for _ in range(5):
            forger.send(source, port, ALL, destination)
    answers_to(searcher, pairs)  # what came before it has been handled
    expected = [target] * (10 * len(pairs)) if target else []
    assert [to for to in ears["lan2"].answers() if to != LAN1] == expected
    assert [to for to in ears["lan1"].answers() if to != LAN1] == []
    assert (ears["wan"].answers(), ears["wan2"].answers()) == ([], [])


def test_a_search_from_port_0_cannot_be_answered(lab, searcher, pairs, ears, forger):
    for each in ears.values():
        each.answers()
    mark = lab.upnpd.mark()
    forger.send(LAN2, 0, ALL)
    answers_to(searcher, pairs)
    assert ears["lan2"].answers() == []
    assert lab.upnpd.since(mark) == ["search sendto failed"] * len(pairs)


def test_a_flood_of_forged_searches_keeps_nobody_waiting(lab, bystander, forger):
    """From every address of the LAN, from the bystander's own too."""
    def attack():
        deadline = time.monotonic() + SECONDS
        while time.monotonic() < deadline:
            for last in range(3, 255):
                forger.send(f"192.0.2.{last}", 1900, ALL)
    bystander.during(attack)


def test_a_search_from_outside_to_any_address_is_not_answered(lab, searcher, pairs, ears):
    for each in ears.values():
        each.answers()
    with lab.wan.datagrams() as outside:
        for address in (ROUTER_WAN, GROUP[0]):
            outside.sendto(ALL, (address, 1900))
    answers_to(searcher, pairs)
    assert (ears["wan"].answers(), ears["wan2"].answers()) == ([], [])
