"""Hosts that ask, and never read the answer."""
import time

import pytest

import labs
from attacks.connecting import FREE_ANSWERS, long_entry, never_read
from bystanders import watched
from control_point import PORT, exchange, file_answer, get
from labs import DATA, eventually

KEPT_LIMIT = 256  # sockets of answers that nobody takes
OSINFO = file_answer((DATA / "osinfo.xml").read_text())
FORGOTTEN = 30 * labs.SLOWNESS  # seconds in which the kernel drops what nobody takes


@pytest.fixture
def path(lab):
    return f"/upnp/control/wanipconn-{lab.interface_id('wan0')}"


def kept_answers(lab):
    """How many answers the router's kernel still has, though nothing else will come."""
    return len(lab.router.run("ss", "-Htn", "state", "fin-wait-1", f"sport = :{PORT}").stdout.splitlines())


@watched
def test_hosts_that_never_read_keep_nobody_waiting(lab, bystander):
    mark = lab.upnpd.mark()
    with never_read(lab.lan1, "GET /gateway.xml HTTP/1.1\r\n\r\n", 100):
        assert get(lab.lan1, "/osinfo.xml") == OSINFO
    assert lab.upnpd.since(mark) == []


@pytest.fixture
def half_long(lab, path):
    with long_entry(lab.lan1, path, length=60000) as asked:
        yield asked


@watched
def test_hosts_that_never_read_a_long_answer_keep_nobody_waiting(lab, bystander, half_long):
    """What the kernel does not take of an answer at once is dropped."""
    request, answer = half_long
    mark = lab.upnpd.mark()
    assert exchange(lab.lan1, request) == answer
    usual = lab.upnpd.since(mark)
    with never_read(lab.lan1, request, 50):
        assert exchange(lab.lan1, request) == answer
    assert set(lab.upnpd.since(mark)) <= {*usual, "write error"}


def test_the_kernel_drops_an_answer_that_nobody_takes(lab, path):
    with long_entry(lab.lan1, path) as (request, _), never_read(lab.lan1, request, 20):
        eventually(lambda: kept_answers(lab) == 20, "the answers wait for their clients")
        eventually(lambda: kept_answers(lab) == 0, "the kernel has dropped them", seconds=FORGOTTEN)


def test_what_the_kernel_keeps_for_hosts_that_never_read_has_a_limit(lab, path):
    """As long as little was answered the kernel keeps it alone, beyond that the daemon keeps a few sockets."""
    began = time.monotonic()
    with long_entry(lab.lan1, path) as (request, _), never_read(lab.lan1, request, KEPT_LIMIT + 3 * FREE_ANSWERS):
        assert get(lab.lan1, "/osinfo.xml") == OSINFO
        kept = kept_answers(lab)
        periods = 2 + int((time.monotonic() - began) / 10)  # at most: one may have begun before
        assert kept <= KEPT_LIMIT + periods * FREE_ANSWERS
        eventually(lambda: kept_answers(lab) == 0, "nothing is kept", seconds=FORGOTTEN)
