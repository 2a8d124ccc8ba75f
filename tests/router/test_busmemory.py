"""How much one user can make the router keep for it, without anybody else noticing."""
import contextlib
import os
import pathlib
import struct
import time

import pytest

import bus
import labs
import sanitizer
from routerusers import DAEMON, MEMBER, OTHER, configure, connect_as, run_as

REGISTER, SUBSCRIBE, TRACE = 1, 2, 4
SETTINGS_GET, RECORD = 0xFE000D, 0xFE0005
CONNECTIONS = 60
GROWTH = 32 << 20  # the budget of 16 MiB, what the allocator loses, and what a large message takes in passing

CONFIGURATION = f"""
[[user]]
name = "{DAEMON}"
programs = [80]

[[user]]
name = "{OTHER}"
trace = true
"""


@pytest.fixture
def router(bare_lab):
    bare_lab.start_routerd(*configure(bare_lab, CONFIGURATION))
    return bare_lab


def peak(lab):
    """The most memory that the router has had since the last reset(), in bytes."""
    status = pathlib.Path(f"/proc/{lab.routerd.process.pid}/status").read_text()
    return int(status.partition("VmHWM:")[2].split()[0]) << 10


def reset(lab):
    pathlib.Path(f"/proc/{lab.routerd.process.pid}/clear_refs").write_text("5")


def frame(fields):
    data = bus.flat(fields)
    return struct.pack("<I", len(data)) + data


def push(clients, data):
    """Sends the bytes on each connection, as far as the router takes them within a moment."""
    for client in clients:
        client.socket.settimeout(0.2)
        try:
            client.socket.sendall(data)
        except OSError:  # it takes no more, or has closed the connection
            pass


def request(path, command, fields=(), number=1):
    return [(bus.DESTINATION, bus.U32S, path), *fields, (bus.NUMBER, bus.U32, number), (bus.KIND, bus.U32, bus.REQUEST),
            (bus.COMMAND, bus.U32, command)]


def text(size):
    return 77, bus.STRING, "x" * size


def still_program(lab):
    """A program 80 that has stopped reading."""
    program, = connect_as(lab, DAEMON, 1)
    program.register(80)
    return program


# Each attack returns its connections, which must stay open.

def unfinished_frames(lab):
    clients = connect_as(lab, OTHER, CONNECTIONS), connect_as(lab, MEMBER, CONNECTIONS)
    push(clients[0], struct.pack("<I", 16 << 20) + b"x" * (4 << 20))
    push(clients[1], frame(request([65], 0, [text(1000000)]))[:-1])
    return clients


def tracers_that_do_not_read(lab):
    clients = connect_as(lab, OTHER, CONNECTIONS)
    for client in clients:
        client.call([0], TRACE)
    administrator = bus.Client(lab)
    for _ in range(16):
        administrator.call([20, 0], bus.GET_COUNT, [text(1 << 20)])
    return clients


def subscribers_that_do_not_read(lab):
    clients = connect_as(lab, MEMBER, CONNECTIONS)
    for client in clients:
        client.subscribe([80, 0], bus.CHANGED)
    program = still_program(lab)
    for _ in range(16):
        program.send([text(1000000), (bus.SENDER, bus.U32S, [80, 0]), (bus.KIND, bus.U32, bus.NOTIFICATION),
                      (bus.COMMAND, bus.U32, bus.CHANGED)])
    program.call([20, 0], bus.GET_COUNT)  # is served after them
    return clients, program


def replies_that_are_not_read(lab):
    program = still_program(lab)
    program.call([24], RECORD, [(1, bus.MESSAGES, [[]]), (2, bus.MESSAGES, [[]]), (3, bus.STRING, "x" * 900000)])
    clients = connect_as(lab, MEMBER, CONNECTIONS)
    push(clients, b"".join(frame(request([24], bus.GET_ALL, number=number)) for number in range(1, 9)))
    program.call([20, 0], bus.GET_COUNT)
    return clients, program


def requests_to_a_program_that_stands_still(lab):
    clients = connect_as(lab, MEMBER, CONNECTIONS)
    program = still_program(lab)
    for number in range(1, 5):
        push(clients, frame(request([80], SETTINGS_GET, [text(900000)], number)))
    return clients, program


ATTACKS = [unfinished_frames, tracers_that_do_not_read, subscribers_that_do_not_read, replies_that_are_not_read,
           requests_to_a_program_that_stands_still]


@pytest.mark.parametrize("attack", ATTACKS, ids=lambda attack: attack.__name__)
def test_what_one_user_can_make_the_router_keep_is_bounded(router, attack):
    bus.Client(router).call([20, 0], bus.GET_COUNT, [text(1 << 20)])  # one large message has been there before
    reset(router)
    before = peak(router)
    kept = attack(router)
    began = time.monotonic()
    assert run_as(router, MEMBER, labs.BIN / "tkctl", "nat", "list").returncode in (0, 1)  # of a user that may be full
    assert router.tkctl("nat", "list").returncode == 0
    assert time.monotonic() - began < 5 * labs.SLOWNESS
    grown = peak(router) - before
    print(f"{attack.__name__}: {before >> 20} MiB before, {grown >> 20} MiB more at most")
    assert sanitizer.within(grown, GROWTH)
    del kept


def test_the_program_that_is_asked_is_not_closed_for_what_others_send_it(router):
    clients, program = requests_to_a_program_that_stands_still(router)
    root = bus.Client(router)
    number = root.request([80], SETTINGS_GET)
    message = program.read()
    while 77 in message:  # of the others
        message = program.read()
    program.send([(bus.DESTINATION, bus.U32S, message[bus.SENDER]), (bus.NUMBER, bus.U32, message[bus.NUMBER]),
                  (bus.KIND, bus.U32, bus.REPLY), (bus.COMMAND, bus.U32, SETTINGS_GET)])
    assert root.end(number)[bus.KIND] == bus.REPLY
    assert "bus: 80 left" not in router.routerd.log
    del clients


def test_many_rules_are_listed_by_a_user_that_reads(router):
    root = bus.Client(router)
    for port in range(1, 5001):
        root.add_rule(port)
    listed = run_as(router, MEMBER, labs.BIN / "tkctl", "nat", "list", "--json")
    assert listed.returncode == 0 and listed.stdout.count('"id"') == 5000


def processor_seconds(lab):
    times = pathlib.Path(f"/proc/{lab.routerd.process.pid}/stat").read_text().rpartition(")")[2].split()
    return (int(times[11]) + int(times[12])) / os.sysconf("SC_CLK_TCK")


def test_what_slow_tracers_are_behind_costs_the_router_no_time(router):
    tracers = [bus.Client(router) for _ in range(4)]
    for tracer in tracers:
        tracer.call([0], TRACE)
        tracer.socket.setblocking(False)
    administrator = bus.Client(router)
    ask = lambda: administrator.call([20, 0], bus.GET_COUNT, [text(60000)])
    for _ in range(700):  # each has now some 40 MiB unread
        ask()
    began = processor_seconds(router)
    for _ in range(1000):
        ask()
        for tracer in tracers:
            with contextlib.suppress(BlockingIOError):
                tracer.socket.recv(60300)
    spent = processor_seconds(router) - began
    print(f"{spent:.2f} ms of processor time a message")  # of 1000
    assert spent < 1.5
