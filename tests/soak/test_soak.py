"""The short version of tests/soak/run, and proof that what it reads is what a router has."""
import os
import pathlib
import random
import socket

import endurance
import gauges
import pytest

import bus
import labs
import sanitizer

SECONDS = int(os.environ.get("SOAK_SECONDS", 120))
# An attempt to connect that meets a full queue costs a second. Beside other tests that happens to more than one in a hundred.
LATEST_BESIDE_OTHERS = 1.25
other_heap = sanitizer.unless_sanitized("has another heap, which keeps what is freed")


@other_heap
def test_in_the_long_run_nothing_grows_and_all_is_answered_in_time(tmp_path):
    seed = random.SystemRandom().randrange(1 << 31)
    print(f"seed {seed}")
    text, wrong = endurance.run(tmp_path, seed, SECONDS, latest=LATEST_BESIDE_OTHERS)
    print(text)
    assert not wrong, text


@pytest.fixture
def daemon(lab):
    return lab.upnpd.process.pid


def test_each_connection_is_a_descriptor_and_a_timer(lab, daemon):
    before, timers = gauges.descriptors(daemon), labs.eventually(lambda: gauges.timers(daemon), "the loop is found")
    open_ones = [lab.lan1.connect(labs.ROUTER_LAN, 2828) for _ in range(7)]
    labs.eventually(lambda: gauges.timers(daemon) == timers + 7, "each request has its timer")
    assert gauges.descriptors(daemon) - before == {"socket": 7}
    for connection in open_ones:
        connection.close()
    labs.eventually(lambda: gauges.timers(daemon) == timers, "each timer goes with its connection")
    labs.eventually(lambda: gauges.descriptors(daemon) == before, "each descriptor goes with its connection")


@other_heap
def test_what_each_connection_takes_of_the_heap_is_given_back(lab, daemon):
    def opened():
        connection = lab.lan1.connect(labs.ROUTER_LAN, 2828)
        connection.sendall(b"POST /x HTTP/1.1\r\nContent-Length: 99\r\n\r\n")
        return connection

    def close(connections):
        for connection in connections:
            connection.close()
        labs.eventually(lambda: gauges.timers(daemon) == timers, "each timer goes with its connection")

    def heap():
        """Once it is read twice alike: it may change while it is read."""
        found = [None]
        return labs.eventually(lambda: found.append(gauges.heap(daemon)) or found[-2] == found[-1] and found[-1],
                               "the heap is read")
    timers = labs.eventually(lambda: gauges.timers(daemon), "the loop is found")
    close([opened() for _ in range(20)])  # what the daemon keeps for later is there from now on
    before = heap()
    open_ones = [opened() for _ in range(20)]
    labs.eventually(lambda: gauges.timers(daemon) == timers + 20, "each request has its timer")
    assert heap() > before + 20 * 100
    close(open_ones)
    labs.eventually(lambda: gauges.heap(daemon) == before, "what they took is given back")


def test_the_elements_and_sockets_of_the_kernel_are_counted(lab):
    before = gauges.of_kernel(lab)
    with bus.Client(lab) as client, lab.router.socket(socket.SOCK_DGRAM) as used:
        used.bind(("", 999))
        for port in (81, 82, 83):
            client.add_rule(port)
        after = gauges.of_kernel(lab)
    gained = {name: after[name] - before[name] for name in after if after[name] != before[name]}
    assert gained == {"kernel: elements of dstnat": 3, "kernel: elements of live": 3, "kernel: UDP sockets": 1}
    labs.eventually(lambda: gauges.of_kernel(lab)["kernel: elements of live"] == 0, "the rules go with their owner")


def test_memory_that_a_process_touches_is_its_own():
    before = gauges.memory(os.getpid())
    held = bytearray(os.urandom(1 << 20)) * 8
    assert 7 << 10 < gauges.memory(os.getpid()) - before < 10 << 10
    del held


def test_stores_are_measured_in_bytes(lab):
    before = gauges.stored(lab)
    pathlib.Path(lab.root / "tesk" / "store" / "more").write_bytes(b"x" * 77)
    assert gauges.stored(lab)["store of upnpd, bytes"] == before["store of upnpd, bytes"] + 77
    (lab.root / "tesk" / "store" / "more").unlink()
