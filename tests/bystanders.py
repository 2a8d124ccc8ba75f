"""A host that asks for the description while another one attacks, and the table of how long it waited."""
import contextlib
import functools
import json
import math
import pathlib
import subprocess
import sys
import threading
import time

import labs
import sanitizer
from control_point import PORT, file_answer

SCRIPT = pathlib.Path(__file__).parent / "attacks" / "askagain.py"
SAMPLES = 300     # at least, for a percentile that one slow answer does not decide
LIMIT_MS = 100.0  # for the 99th percentile of the answers
ENOUGH = 30 * labs.SLOWNESS  # seconds, after which no attack begins again
PROPERTY = "bystander"


def percentile(values, share):
    """The least value that this share of all values does not exceed."""
    return sorted(values)[math.ceil(share * len(values)) - 1]


def longest_but_one(times):
    """What a bound may judge of a few times: a lost packet or a busy processor makes any single one long."""
    return sorted(times)[-2:][0]


class Bystander:
    """Asks from a process of its own on the host. Takes a function that keeps a property for the table."""

    def __init__(self, host, keep):
        self.host, self.keep = host, keep
        self.times, self.wrong = [], []  # milliseconds; and what came instead of an answer

    def during(self, attack, pause=0.001):
        """Does attack() once, and again until enough answers were timed; then looks at all of them. Returns what the last
        attack returned. The pause is that between two requests, in seconds."""
        with self.asking(pause):
            deadline = time.monotonic() + ENOUGH
            outcome = attack()
            while len(self.times) + len(self.wrong) < SAMPLES and time.monotonic() < deadline:
                outcome = attack()
        self.keep((PROPERTY, self.figures()))
        assert self.wrong == []
        assert len(self.times) >= SAMPLES, f"only {len(self.times)} answers, the slowest: {sorted(self.times)[-10:]}"
        assert self.description == file_answer(self.description.partition("\r\n\r\n")[2])
        assert sanitizer.within(percentile(self.times, 0.99), LIMIT_MS), f"the slowest: {sorted(self.times)[-10:]}"
        return outcome

    @contextlib.contextmanager
    def asking(self, pause):
        command = self.host.command(sys.executable, SCRIPT, labs.ROUTER_LAN, PORT, pause)
        with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as process:
            begin = process.stdout.readline()
            assert begin, "the bystander is not answered even in peace"
            self.description = json.loads(begin)
            reader = threading.Thread(target=self.note, args=[process.stdout])
            reader.start()
            try:
                yield
            finally:
                process.stdin.close()
                reader.join()
        assert process.returncode == 0

    def note(self, lines):
        for line in lines:
            try:
                self.times.append(float(line))
            except ValueError:
                self.wrong.append(line.rstrip())

    def figures(self):
        """What the table shows: the number of answers, and milliseconds."""
        times = self.times or [math.inf]
        return [len(self.times), percentile(times, 0.5), percentile(times, 0.99), max(times)]


def watched(attack):
    """Makes a test that is one attack from its first line to its last run while the bystander looks, and again until it
    has seen enough."""
    @functools.wraps(attack)
    def test(bystander, **fixtures):
        bystander.during(lambda: attack(bystander=bystander, **fixtures))
    return test


def tell(terminal):
    """Prints the figures that the tests have left as a property, a line for each test."""
    rows = [(report.nodeid.rpartition("/")[2], value)
            for reports in terminal.stats.values() for report in reports
            for name, value in getattr(report, "user_properties", []) if name == PROPERTY and report.when == "call"]
    if not rows:
        return
    terminal.section("the other host's description during attacks, in ms")
    terminal.write_line(f"{'answers':>8} {'median':>8} {'99th %':>8} {'longest':>8}  attack")
    for name, (answers, *times) in sorted(rows):
        terminal.write_line(f"{answers:8} " + " ".join(f"{time:8.2f}" for time in times) + f"  {name}")
    worst, name = max((value[2], name) for name, value in rows)
    terminal.write_line(f"the highest 99th percentile of {len(rows)} attacks: {worst:.2f} ms, {name}")
