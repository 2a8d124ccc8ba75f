"""Attacks on a lab that the tests of a file share, and what has to be as before after each of them."""
import contextlib
import os
import pathlib
import re
import time

import pytest

import bystanders
import sanitizer
from labs import eventually

GROWTH = 2 << 20  # bytes that a program may keep after all attacks: what the C library does not give back of its heap
SETTLING = 15     # seconds until all is as before: a request may take 10 s
STEADY = 10       # equal readings in a row


class Condition:
    """What all attacks together must leave as they found it."""

    def __init__(self, lab, growth):
        self.lab, self.growth = lab, growth
        self.descriptors = settled(self.descriptors_now)
        self.memory = {program.name: memory(program) for program in self.programs()}
        self.table, self.rules = lab.table(), lab.rules()

    def programs(self):
        return self.lab.routerd, self.lab.upnpd

    def descriptors_now(self):
        return {program.name: descriptors(program) for program in self.programs()}

    def check(self):
        for program in self.programs():  # each is the same process while it runs, as nobody starts it again
            assert program.running(), program.log + program.errors.read_text()
            assert program.errors.read_text() == ""
        found = []
        with contextlib.suppress(AssertionError):  # the comparison tells more
            eventually(lambda: found.append(self.descriptors_now()) or found[-1] == self.descriptors, seconds=SETTLING)
        assert found[-1] == self.descriptors
        assert (self.lab.table(), self.lab.rules()) == (self.table, self.rules)
        for program in self.programs():
            grown = memory(program) - self.memory[program.name]
            assert sanitizer.within(grown, self.growth), f"{program.name} has grown by {grown} bytes"


def settled(read):
    """What read() returns when it does so for a while: the connections of commands that have ended are gone by then."""
    values = [read()]
    while len(values) < STEADY or any(value != values[-1] for value in values[-STEADY:]):
        time.sleep(0.02)
        values.append(read())
    return values[-1]


def descriptors(program):
    """What the program's descriptors refer to, without the numbers of single sockets, in no order."""
    folder = pathlib.Path(f"/proc/{program.process.pid}/fd")
    targets = []
    for entry in folder.iterdir():
        try:
            targets.append(re.sub(r"\d+", "", os.readlink(entry)))
        except FileNotFoundError:  # closed meanwhile
            continue
    return sorted(targets)


def memory(program):
    """The program's proportional set size in bytes."""
    text = pathlib.Path(f"/proc/{program.process.pid}/smaps_rollup").read_text()
    return int(re.search(r"^Pss:\s+(\d+) kB$", text, re.M)[1]) << 10


@pytest.fixture(scope="module")
def beginning(shared_lab, request):
    """A file may say how much its programs may grow."""
    return Condition(shared_lab, getattr(request.module, "GROWTH", GROWTH))


@pytest.fixture
def lab(beginning, lab):
    """The file's lab. After each test everything is as it was before the first one."""
    yield lab
    beginning.check()


@pytest.fixture
def bystander(lab, request):
    """A second host. bystander.during(attack) looks at how it is served during an attack from the first one."""
    for program in (lab.routerd, lab.upnpd):  # a router shares its processor neither with attackers nor with other tests
        os.setpriority(os.PRIO_PROCESS, program.process.pid, -20)
    return bystanders.Bystander(lab.lan2, request.node.user_properties.append)
