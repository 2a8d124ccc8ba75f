"""What a host in the LAN can do over HTTP, and what it costs another one."""
import concurrent.futures
import contextlib
import errno
import socket
import struct
import subprocess
import time

import pytest

import labs
from attacks.connecting import connect_at_once
from bystanders import watched
from control_point import (CONNECTION, DATE, PORT, action_element, bare, envelope, exchange, file_answer, get, post,
                           read_to_end, result)
from labs import DATA, LAN1, ROUTER_LAN, ROUTER_WAN, eventually

OSINFO = file_answer((DATA / "osinfo.xml").read_text())
GET_OSINFO = b"GET /osinfo.xml HTTP/1.1\r\n\r\n"
NOT_FOUND, BAD_REQUEST = bare("404 Not Found"), bare("400 Bad Request")
NOT_IMPLEMENTED = bare("501 Not Implemented")
OWN_LIMIT = 128          # connections that the daemon keeps of one address
ALL = 512                # and of all
REQUEST_LIMIT = 128 << 10
REQUEST_SECONDS = 10     # from accept
LATE = 3 * labs.SLOWNESS  # seconds that pass at most until the end of a request's time is noticed
RESET = struct.pack("ii", 1, 0)


@pytest.fixture
def path(lab):
    return f"/upnp/control/wanipconn-{lab.interface_id('wan0')}"


@contextlib.contextmanager
def crowd(host, count):
    """Connections from one host."""
    with contextlib.ExitStack() as stack:
        yield [stack.enter_context(connect_at_once(host)) for _ in range(count)]


def with_headers(*lines):
    return "\r\n".join(["GET /osinfo.xml HTTP/1.1", *lines, "", ""])


ODD = {
    "a length with a sign": (with_headers("Content-Length: +3") + "abc", OSINFO),
    "two lengths in one": (with_headers("Content-Length: 3 3") + "abc", OSINFO),
    "the first of two lengths": (with_headers("Content-Length: 3", "Content-Length: 4") + "abc", OSINFO),
    "a hexadecimal length": (with_headers("Content-Length: 0x3"), OSINFO),
    "chunks": (with_headers("Transfer-Encoding: chunked") + "3\r\nabc\r\n0\r\n\r\n", OSINFO),
    "chunks and a length": (with_headers("Transfer-Encoding: chunked", "Content-Length: 3") + "abc", OSINFO),
    "an expectation": (with_headers("Expect: 100-continue"), OSINFO),
    "an upgrade": (with_headers("Connection: keep-alive", "Upgrade: h2c"), OSINFO),
    "control bytes in a value": (with_headers("X: " + "\x00\x01\x7f\x1b[2J"), OSINFO),
    "control bytes and nothing in a name": (with_headers("\x00\x01: x", ": x", ":"), OSINFO),
    "NUL in the path": ("GET /osinfo.xml\x00 HTTP/1.1\r\n\r\n", NOT_FOUND),
    "NUL before a path": ("GET /osinfo.xml\x00/../../etc/passwd HTTP/1.1\r\n\r\n", NOT_FOUND),
    "NUL in the method": ("GET\x00 /osinfo.xml HTTP/1.1\r\n\r\n", NOT_IMPLEMENTED),
    "control bytes in the method": ("\x1b[2J\x07 / HTTP/1.1\r\n\r\n", NOT_IMPLEMENTED),
    "a title of one byte": ("G\r\n\r\n", NOT_IMPLEMENTED),
    "a title of one blank": (" \r\n\r\n", NOT_IMPLEMENTED),
    "an answer": ("HTTP/1.1 200 OK\r\n\r\n", NOT_IMPLEMENTED),
    "a huge header": (with_headers("X: " + "x" * (REQUEST_LIMIT - 200)), OSINFO),
    "a huge name": (with_headers("x" * (REQUEST_LIMIT - 200) + ":"), OSINFO),
    "30000 headers": (with_headers(*["X:"] * 30000), OSINFO),
    "a huge path": ("GET /" + "x" * (REQUEST_LIMIT - 200) + " HTTP/1.1\r\n\r\n", NOT_FOUND),
    "a huge method": ("x" * 60000 + "\r\n\r\n", NOT_IMPLEMENTED),
    "leave for all": ("OPTIONS * HTTP/1.1\r\n\r\n", NOT_IMPLEMENTED),
    "leave for a file": ("OPTIONS /osinfo.xml HTTP/1.1\r\n\r\n", NOT_IMPLEMENTED),
}


@watched
def test_an_odd_request_is_answered_as_any_other(lab, bystander):
    for name, (request, answer) in ODD.items():
        assert exchange(lab.lan1, request) == answer, name


def test_a_length_that_does_not_count_lets_a_request_wait_for_its_end(lab):
    request = with_headers("Content-Length: 18446744073709551616x", "Content-Length:") + "abc"
    with lab.lan1.connect(ROUTER_LAN, PORT) as connection:
        connection.sendall(request.encode())
        assert get(lab.lan2, "/osinfo.xml") == OSINFO  # the daemon has gone on in the meantime
        connection.setblocking(False)
        with pytest.raises(BlockingIOError):
            connection.recv(1)


PATHS = [
    "/../../../../etc/passwd", "/..", "/.", "//", "//etc/passwd", "/osinfo.xml/../osinfo.xml", "/./osinfo.xml",
    "//osinfo.xml", "/%6fsinfo.xml", "/%2e%2e/%2e%2e/etc/passwd", "/..%2f..%2fetc%2fpasswd", "/..%c0%af..%c0%afetc/passwd",
    "/..\\..\\etc\\passwd", "/....//....//etc/passwd", "/osinfo.xml%00.gif", "/osinfo.xml#x", "/osinfo.xml;x",
    f"http://{ROUTER_LAN}:{PORT}/osinfo.xml", "file:///etc/passwd", "/proc/self/environ", "/tesk/etc/upnp/osinfo.xml",
    "/upnp/control/../../osinfo.xml"]


@watched
def test_no_path_leads_to_anything_but_what_is_served(lab, bystander):
    mark = lab.upnpd.mark()
    for path in PATHS:
        assert get(lab.lan1, path) == NOT_FOUND, path
    assert lab.upnpd.since(mark) == [], "no file was tried"


def test_control_bytes_reach_the_log_escaped(lab):
    mark = lab.upnpd.mark()
    assert exchange(lab.lan1, "\x1b[2J\x00\n\u009b31m\u2028 / HTTP/1.1\r\n\r\n") == NOT_IMPLEMENTED
    assert lab.upnpd.since(mark) == [r"what is this: '\x1b[2J\x00\x0a\xc2\x9b31m\xe2\x80\xa8'"]


def test_a_request_that_expects_to_be_told_to_continue_is_only_answered(lab, path):
    body = envelope(action_element("GetExternalIPAddress"))
    head, _, rest = post(path, body, f'"{CONNECTION}#GetExternalIPAddress"').partition("\r\n\r\n")
    with lab.lan1.connect(ROUTER_LAN, PORT) as connection:
        connection.sendall((head + "\r\nEXPECT: 100-continue\r\n\r\n").encode())
        assert get(lab.lan2, "/osinfo.xml") == OSINFO
        connection.sendall(rest.encode())
        assert DATE.sub("NOW", read_to_end(connection).decode()) == result(
            "GetExternalIPAddress", [("NewExternalIPAddress", ROUTER_WAN)])


@pytest.mark.parametrize("chunks, answer", [("", BAD_REQUEST), ("3\r\nabc\r\n0\r\n\r\n", BAD_REQUEST)])
def test_a_body_in_chunks_is_read_as_it_is(lab, path, chunks, answer):
    request = post(path, "", f'"{CONNECTION}#GetExternalIPAddress"').replace("CONTENT-LENGTH: 0", "TRANSFER-ENCODING: chunked")
    mark = lab.upnpd.mark()
    assert exchange(lab.lan1, request + chunks) == answer
    assert lab.upnpd.since(mark) == ["POST: with bad xml"]


def test_what_can_never_be_complete_is_dropped_without_an_answer(lab, bystander):
    """Side by side, each from its own connection, until the time of all of them is up."""
    requests = [with_headers(f"Content-Length: {length}") + "abc" for length in (
        -1, 4294967296, 18446744073709551616, "9" * 1000, "99999999999999999999999", 4, "4 3")]
    requests += [
        with_headers("Content-Length: 3") + "abcd", with_headers("Content-Length:") + "abc",
        with_headers("no colon"), with_headers("\x00"), "\x00" * 4096, "\r", "\n" * 4096, "GET /osinfo.xml HTTP/1.1\n\n",
        with_headers("X: " + "x" * 2 * REQUEST_LIMIT), "x" * (1 << 20), with_headers(*["X: x"] * 100000),
        with_headers("no colon") + "x" * (1 << 20), with_headers(f"Content-Length: {1 << 30}") + "x" * (1 << 20)]

    def attack():
        began = time.monotonic()
        with crowd(lab.lan1, len(requests)) as held:
            accepted = time.monotonic()
            for request, connection in zip(requests, held):
                connection.sendall(request.encode())
            for request, connection in zip(requests, held):
                assert end_of(connection) == b"", request[:100]
                assert time.monotonic() - began >= REQUEST_SECONDS - 0.5, request[:100]
            assert time.monotonic() - accepted <= REQUEST_SECONDS + LATE
    mark = lab.upnpd.mark()
    bystander.during(attack)
    eventually(lambda: lab.upnpd.since(mark) == ["http request timeout"] * len(requests), "a line for each")


def end_of(connection):
    """All that comes before the end of the connection. One with bytes that nobody has read ends with a reset."""
    connection.settimeout(2 * REQUEST_SECONDS)
    try:
        return read_to_end(connection)
    except ConnectionResetError:
        return b""


def test_requests_that_drip_in_are_dropped_and_keep_nobody_waiting(lab, bystander):
    """As many connections as one host may have, with a byte of a header each now and then."""
    def drip(connection):
        with contextlib.suppress(OSError):  # it was dropped, as it should be
            connection.send(b"x")

    def attack():
        with crowd(lab.lan1, OWN_LIMIT) as held:
            for connection in held:
                connection.sendall(b"GET /osinfo.xml HTTP/1.1\r\nX: ")
            deadline = time.monotonic() + REQUEST_SECONDS + LATE
            while established(lab, LAN1):
                assert time.monotonic() < deadline
                for connection in held:
                    drip(connection)
                time.sleep(0.1)
    mark = lab.upnpd.mark()
    bystander.during(attack)
    eventually(lambda: lab.upnpd.since(mark) == ["http request timeout"] * OWN_LIMIT, "a line for each")


def established(lab, address):
    """The connections from an address that the kernel has for the daemon."""
    return lab.router.run("ss", "-Htn", "state", "established", "sport", "=", f":{PORT}", "dst", "=", address
                          ).stdout.splitlines()


def test_a_host_that_holds_all_the_connections_it_may_have_is_refused_more(lab, bystander):
    def attack():
        with crowd(lab.lan1, OWN_LIMIT) as held:
            for _ in range(20):
                with connect_at_once(lab.lan1) as another:
                    assert end_of(another) == b""
            assert get(lab.lan2, "/osinfo.xml") == OSINFO
            for connection in held[:3]:
                connection.sendall(GET_OSINFO)
                assert DATE.sub("NOW", read_to_end(connection).decode()) == OSINFO
    bystander.during(attack)
    assert get(lab.lan1, "/osinfo.xml") == OSINFO


@pytest.fixture
def addresses(lab):
    """Addresses that the attacker has taken besides its own."""
    taken = [f"192.0.2.{last}" for last in range(101, 111)]
    commands = [["ip", "-n", f"gw-{lab.name}-lan1", "address", verb, f"{address}/24", "dev", "eth0"]
                for verb in ("add", "del") for address in taken]
    for command in commands[:len(taken)]:
        subprocess.run(command, check=True, timeout=10)
    yield taken
    for command in commands[len(taken):]:
        subprocess.run(command, check=True, timeout=10)


def test_a_host_with_many_addresses_ends_its_own_connections(lab, bystander, addresses):
    """It fills the room for all. Each connection of another host takes the place of one of its own."""
    def attack():
        with contextlib.ExitStack() as stack:
            for number in range(ALL + 40):
                stack.enter_context(connect_at_once(lab.lan1, addresses[number % len(addresses)]))
            assert sum(len(established(lab, address)) for address in addresses) <= ALL
            for _ in range(20):
                assert get(lab.lan2, "/osinfo.xml") == OSINFO
    bystander.during(attack)


def test_connections_that_end_at_once_keep_nobody_waiting(lab, bystander):
    """After nothing, half a request, and a whole one: the answer goes to nobody."""
    def attack():
        for unfinished in (b"", GET_OSINFO[:-1], GET_OSINFO, b"GET /gateway.xml HTTP/1.1\r\n\r\n"):
            for reset in (False, True):
                with lab.lan1.connect(ROUTER_LAN, PORT) as connection:
                    connection.sendall(unfinished)
                    if reset:
                        connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, RESET)
    mark = lab.upnpd.mark()
    bystander.during(attack)
    assert set(lab.upnpd.since(mark)) <= {"write error"}


@pytest.mark.parametrize("count", [2, 100])
def test_requests_in_a_row_get_one_answer(lab, count):
    with lab.lan1.connect(ROUTER_LAN, PORT) as connection:
        connection.sendall(GET_OSINFO * count)
        assert DATE.sub("NOW", read_to_end(connection).decode()) == OSINFO


def test_endless_bytes_after_a_request_keep_nobody_waiting(lab, bystander):
    def attack():
        with lab.lan1.connect(ROUTER_LAN, PORT) as connection, contextlib.suppress(ConnectionError):
            while True:  # until the daemon has closed
                connection.sendall(GET_OSINFO * 1000)
    bystander.during(attack)


def test_endless_bytes_without_a_request_keep_nobody_waiting(lab, bystander):
    """From several connections at once, as fast as they go; each is dropped when its time is up."""
    def push():
        with lab.lan1.connect(ROUTER_LAN, PORT, seconds=2 * REQUEST_SECONDS) as connection:
            began = time.monotonic()
            with contextlib.suppress(ConnectionError):
                while time.monotonic() - began < REQUEST_SECONDS + LATE:
                    connection.sendall(b"x" * 65536)
        return time.monotonic() - began

    def attack():
        with concurrent.futures.ThreadPoolExecutor(4) as threads:
            took = [each.result() for each in [threads.submit(push) for _ in range(4)]]
        assert all(REQUEST_SECONDS - 0.5 <= seconds < REQUEST_SECONDS + LATE for seconds in took), took
    bystander.during(attack)


LIMITED = labs.SIDES + "\n[guard]\nrequests-per-second = 200\nconnections = 64\n"


@pytest.fixture
def limited(lab):
    """The lab, limited as the setup of a router does it."""
    file = lab.root / "tesk" / "etc" / "router.toml"
    file.write_text(LIMITED)
    lab.tkctl("reload")
    yield lab
    file.write_text(labs.SIDES)
    lab.tkctl("reload")


@pytest.mark.parametrize("held", [0, 100])
def test_a_flood_of_connects_is_refused_by_the_kernel_and_keeps_nobody_waiting(limited, bystander, held):
    """Each is given up at once, or when 100 others have followed."""
    lab = limited

    def attack():
        refused = 0
        with contextlib.ExitStack() as stack, lab.lan1.inside():
            kept = []
            deadline = time.monotonic() + 3
            while time.monotonic() < deadline:
                kept.append(stack.enter_context(socket.socket()))
                kept[-1].setblocking(False)
                errors = [kept[-1].connect_ex((ROUTER_LAN, PORT))]
                while len(kept) > held:
                    with kept.pop(0) as oldest:
                        errors.append(oldest.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR))
                refused += errors.count(errno.ECONNREFUSED)
        return refused
    refused = bystander.during(attack, pause=0.01)
    print(f"{refused} refused")
    assert refused > 0 or held == 0  # one that is given up at once does not hear of it
    eventually(lambda: is_served(lab.lan1), "what it asks for more slowly is answered again")


def is_served(host):
    try:
        return get(host, "/osinfo.xml") == OSINFO
    except ConnectionError:
        return False
