"""Hosts that ask, and never read the answer."""
import contextlib

import pytest

from attacks.connecting import connect_at_once
from bystanders import watched
from control_point import CONNECTION, PORT, action_element, call, envelope, exchange, file_answer, get, mapping, post, result
from labs import DATA, eventually

OSINFO = file_answer((DATA / "osinfo.xml").read_text())


@pytest.fixture
def path(lab):
    return f"/upnp/control/wanipconn-{lab.interface_id('wan0')}"


@watched
def test_hosts_that_never_read_keep_nobody_waiting(lab, bystander):
    mark = lab.upnpd.mark()
    with contextlib.ExitStack() as stack:
        for _ in range(100):
            stalled = stack.enter_context(connect_at_once(lab.lan1, room=1))
            stalled.sendall(b"GET /gateway.xml HTTP/1.1\r\n\r\n")
        assert get(lab.lan1, "/osinfo.xml") == OSINFO
    assert lab.upnpd.since(mark) == []


LONG = "d" * 60000  # a description


@pytest.fixture
def long_entry(lab, path):
    """A mapping whose listing is long; the request for it, and its answer."""
    assert call(lab.lan1, path, "AddPortMapping", mapping(description=LONG)) == result("AddPortMapping")
    action = "GetGenericPortMappingEntry"
    request = post(path, envelope(action_element(action, [("NewPortMappingIndex", 1)])), f'"{CONNECTION}#{action}"')
    yield request, result(action, mapping(description=LONG))
    assert call(lab.lan1, path, "DeletePortMapping", mapping()[:3]) == result("DeletePortMapping")


@watched
def test_hosts_that_never_read_a_long_answer_keep_nobody_waiting(lab, bystander, long_entry):
    """What the kernel does not take of an answer at once is dropped."""
    request, answer = long_entry
    mark = lab.upnpd.mark()
    with contextlib.ExitStack() as stack:
        assert exchange(lab.lan1, request) == answer
        usual = lab.upnpd.since(mark)
        for _ in range(50):
            stack.enter_context(connect_at_once(lab.lan1, room=1)).sendall(request.encode())
        assert exchange(lab.lan1, request) == answer
    assert set(lab.upnpd.since(mark)) <= {*usual, "write error"}


def kept_answers(lab):
    """How many answers the router's kernel still keeps, of connections that the daemon has closed."""
    return len(lab.router.run("ss", "-Htn", "state", "fin-wait-1", f"sport = :{PORT}").stdout.splitlines())


def test_the_kernel_drops_an_answer_that_nobody_takes(lab, long_entry):
    request, _ = long_entry
    with contextlib.ExitStack() as stack:
        for _ in range(20):
            stack.enter_context(connect_at_once(lab.lan1, room=1)).sendall(request.encode())
        eventually(lambda: kept_answers(lab) == 20, "the answers wait for their clients")
        eventually(lambda: kept_answers(lab) == 0, "the kernel has dropped them", seconds=60)


def test_what_the_kernel_keeps_for_hosts_that_never_read_has_a_limit(lab, path):
    """As long as little was answered the kernel keeps it alone, beyond that the daemon keeps a few sockets."""
    length = 120000  # of a description
    assert call(lab.lan1, path, "AddPortMapping", mapping(description="d" * length)) == result("AddPortMapping")
    action = "GetGenericPortMappingEntry"
    request = post(path, envelope(action_element(action, [("NewPortMappingIndex", 1)])), f'"{CONNECTION}#{action}"')
    limit = (64 << 20) // (2 * length) + 256
    with contextlib.ExitStack() as stack:
        for _ in range(limit + 150):
            stack.enter_context(connect_at_once(lab.lan1, room=1)).sendall(request.encode())
        assert get(lab.lan1, "/osinfo.xml") == OSINFO
        assert limit // 2 < kept_answers(lab) <= limit
        eventually(lambda: kept_answers(lab) == 0, "nothing is kept", seconds=60)
    assert call(lab.lan1, path, "DeletePortMapping", mapping()[:3]) == result("DeletePortMapping")
