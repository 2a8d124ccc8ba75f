"""A program that leaves while it is asked: resolverd, when nobody has asked for long enough."""
import contextlib
import os
import signal

import pytest

import bus
import labs
from labs import eventually
from routerusers import configure, processes

CONFIGURATION = f"""
[[program]]
number = 14
command = ["{labs.BIN}/resolverd", "--idle", "1"]
"""
INVALID = 0xFE0006


@pytest.fixture
def router(bare_lab):
    bare_lab.start_routerd(*configure(bare_lab, CONFIGURATION))
    return bare_lab


@contextlib.contextmanager
def hub_stopped(lab):
    """Keeps the hub from reading. What is sent to it waits, in the order of sending."""
    hub = processes(lab, "routerd")
    for process in hub:
        os.kill(process, signal.SIGSTOP)
    try:
        yield
    finally:
        for process in hub:
            os.kill(process, signal.SIGCONT)


def is_unread(lab):
    """True when a program of the router has sent the hub something that the hub has not read."""
    connections = [line.split() for line in lab.router.run("ss", "-Hx").stdout.splitlines()]
    return any(words[4] == "/run/tk/bus" and int(words[2]) > 0 for words in connections)


def ask(client):
    """Asks something that needs neither a name server nor a file."""
    return client.request([14], 3, [(3, bus.STRING, "192.0.2.1")])


def expect_answer(client, number):
    end = client.end(number)
    assert (end.get(bus.CODE), end.get(bus.TEXT)) == (INVALID, "not a host name")
    assert end[bus.SENDER] == [14, 0]


def test_what_is_asked_around_its_leave_is_answered(router):
    for _ in range(3):
        with bus.Client(router) as early, bus.Client(router) as late:
            expect_answer(early, ask(early))
            leaving, = processes(router, "resolverd")
            mark = router.routerd.mark()
            with hub_stopped(router):
                before = ask(early)
                eventually(lambda: is_unread(router) or leaving not in processes(router, "resolverd"), "it leaves")
                after = ask(late)
            expect_answer(early, before)
            expect_answer(late, after)
        assert [line for line in router.routerd.since(mark) if "14" in line] == [
            "bus: 14 left: it has given its number up", "program 14 ended with status 0",
            f"program 14 started: {labs.BIN}/resolverd"]
        assert leaving not in processes(router, "resolverd")


def test_a_requester_is_told_that_its_program_left_without_a_word(router):
    with bus.Client(router) as client:
        expect_answer(client, ask(client))
        resolver, = processes(router, "resolverd")
        os.kill(resolver, signal.SIGSTOP)
        number = ask(client)
        os.kill(resolver, signal.SIGKILL)
        assert client.end(number)[bus.CODE] == 0xFE000E
        expect_answer(client, ask(client))
