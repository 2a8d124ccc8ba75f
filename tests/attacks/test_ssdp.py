"""What a host in the LAN can do with datagrams to the searches' port, and what it costs another one."""
import socket
import time

import pytest

from bystanders import watched
from control_point import GROUP, Searcher, search, search_answer
from labs import LAN1, LAN2, ROUTER_LAN, ROUTER_WAN, WAN
from wires import Ears, Forger

ROOT = "upnp:rootdevice"
ALL = search("ssdp:all").encode()
WHOLE = 65507  # the longest datagram
READ = 4096    # what the daemon reads of one
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


NO_BYTES = "search recvfrom failed"  # the line for a datagram of none
PACE = 0.02  # seconds for two searches of one source, of which the router takes 200 in one
ODD = {
    "an overlong header after what counts": (with_header(LONG, before_target=False), True),
    "an overlong header before the target": (with_header(LONG, before_target=True), False),
    "60 KB": (with_header("X: " + "x" * 60000, before_target=False), True),
    "60 KB without a colon": (with_header("x" * 60000, before_target=False), True),
    "500 headers": (with_header("\r\n".join(["X:"] * 500), before_target=True), True),
    "15000 headers": (with_header("\r\n".join(["X:"] * 15000), before_target=False), True),
    "a second target": (with_header("ST: ssdp:all", before_target=False), True),
    "a length": (with_header("CONTENT-LENGTH: -1", before_target=False), True),
    "control bytes": (with_header("\x00\x01: \x1b[2J\x00", before_target=True), True),
    "NUL after the target": (search(ROOT + "\x00"), False),
    "a blank after the target": (search(ROOT + " "), False),
    "a long target": (search("x" * 3000), False),
    "a format": (search("%n%s%n%s" * 100), False),
    "a long title": (search(ROOT).replace("M-SEARCH", "M-SEARCH" * 400), False),
    "a blank after the title": (search(ROOT).replace("HTTP/1.1", "HTTP/1.1 "), False),
    "lines without CR": (search(ROOT).replace("\r\n", "\n"), False),
    "without the last line end": (search(ROOT)[:-4], False),
    "CR": ("\r", False),
    "one byte": ("M", False),
    "64 KiB of noise": ("x" * WHOLE, False),
    "64 KiB of blank lines": ("\r\n" * (WHOLE // 2), False),
    "64 KiB of colons": ("M-SEARCH * HTTP/1.1\r\n" + ":\r\n" * 20000, False),
    "no byte": ("", False),
}


@watched
def test_an_odd_search_is_answered_by_what_the_daemon_reads_of_it(lab, bystander, searcher, pairs):
    mark = lab.upnpd.mark()
    for name, (datagram, is_answered) in ODD.items():
        expected = [search_answer(ROOT, dict(pairs)[ROOT])] if is_answered else []
        assert answers_to(searcher, pairs, datagram) == expected, name
        time.sleep(PACE)
    assert lab.upnpd.since(mark) == [NO_BYTES]


def flood(host, datagram):
    """As many datagrams as one socket sends to the group within SECONDS."""
    with host.datagrams() as sender:
        deadline = time.monotonic() + SECONDS
        while time.monotonic() < deadline:
            sender.sendto(datagram, GROUP)


@pytest.fixture
def other_searcher(lab):
    """On the host that does not attack."""
    made = Searcher(lab.lan2)
    yield made
    made.close()


@pytest.mark.parametrize("datagram", [
    pytest.param(ALL, id="searches"), pytest.param(b"", id="nothing"), pytest.param(b"x" * WHOLE, id="64 KiB"),
    pytest.param(with_header(LONG, before_target=True).encode(), id="long headers"),
    pytest.param(b"M-SEARCH * HTTP/1.1\r\n" + b":\r\n" * 1300, id="many headers")])
def test_a_flood_keeps_nobody_waiting(lab, bystander, other_searcher, pairs, datagram):
    mark = lab.upnpd.mark()
    bystander.during(lambda: flood(lab.lan1, datagram))
    assert answers_to(other_searcher, pairs, search(ROOT)) == [search_answer(ROOT, dict(pairs)[ROOT])]
    assert set(lab.upnpd.since(mark)) == ({NO_BYTES} if not datagram else set())


def answered(ears):
    """Whom the answers to searches were for that have passed since the last call."""
    return [socket.inet_ntoa(packet[16:20]) for packet in ears.heard()
            if packet[9] == socket.IPPROTO_UDP and ANSWER in packet]  # an error may quote one


@pytest.fixture
def ears(lab):
    """What the other hosts of the lab hear."""
    made = {name: Ears(getattr(lab, name)) for name in ("lan1", "lan2", "wan", "wan2")}
    yield made
    for each in made.values():
        each.close()


@pytest.fixture
def forger(lab):
    forger = Forger(lab.lan1)
    yield forger
    forger.close()


def test_answers_reach_only_the_asker(lab, searcher, pairs, ears):
    answers_to(searcher, pairs)  # so that the bridge knows where the asker is
    for each in ears.values():
        each.heard()
    searcher.send(ALL)
    assert [text for text, _ in searcher.receive(len(pairs))] == [search_answer(*pair) for pair in pairs]
    assert answered(ears["lan1"]) == [LAN1] * len(pairs)
    assert [answered(ears[name]) for name in ("lan2", "wan", "wan2")] == [[], [], []]


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
    for destination in (GROUP[0], ROUTER_LAN):
        for _ in range(5):
            forger.send(source, port, ALL, destination)
    answers_to(searcher, pairs)  # what came before it has been handled
    expected = [target] * (10 * len(pairs)) if target else []
    assert [to for to in answered(ears["lan2"]) if to != LAN1] == expected
    assert [to for to in answered(ears["lan1"]) if to != LAN1] == []
    assert (answered(ears["wan"]), answered(ears["wan2"])) == ([], [])


def test_a_search_from_port_0_cannot_be_answered(lab, searcher, pairs, ears, forger):
    mark = lab.upnpd.mark()
    forger.send(LAN2, 0, ALL)
    answers_to(searcher, pairs)
    assert answered(ears["lan2"]) == []
    assert lab.upnpd.since(mark) == ["search sendto failed"] * len(pairs)


def test_a_flood_of_forged_searches_keeps_nobody_waiting(lab, bystander, forger):
    """From every address of the LAN, from the bystander's own too."""
    def attack():
        deadline = time.monotonic() + SECONDS
        while time.monotonic() < deadline:
            for last in range(3, 255):
                forger.send(f"192.0.2.{last}", 1900, ALL)
    mark = lab.upnpd.mark()
    bystander.during(attack)
    assert lab.upnpd.since(mark) == []


@pytest.fixture
def outside(lab):
    """A forger outside, which has made itself a way to the LAN."""
    route = "192.0.2.0/24", "via", ROUTER_WAN
    lab.wan.run("ip", "route", "add", *route)
    made = Forger(lab.wan)
    yield made
    made.close()
    lab.wan.run("ip", "route", "del", *route)


@pytest.mark.parametrize("source", [WAN, "8.8.8.8", LAN2, ROUTER_LAN])
def test_a_search_from_outside_to_any_address_is_not_answered(lab, searcher, pairs, ears, outside, source):
    for address in (ROUTER_WAN, ROUTER_LAN, GROUP[0]):
        outside.send(source, 1900, ALL, address)
    answers_to(searcher, pairs)
    assert [to for to in answered(ears["lan1"]) if to != LAN1] == []
    assert [answered(ears[name]) for name in ("lan2", "wan", "wan2")] == [[], [], []]
