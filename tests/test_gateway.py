"""The command that shows the system at work, on the interfaces of the machine it runs on: here a lab's router."""
import os
import pathlib
import re
import select
import shutil
import signal
import subprocess
import textwrap
import time

import pytest

import documents
import labs
from control_point import call, mapping, result

GATEWAY = labs.ROOT / "gateway"
ENVIRONMENT = {**os.environ, "GATEWAY_BIN": str(labs.BIN), "LC_ALL": "C.UTF-8"}
SERVES = "The gateway serves lan0, with wan0 as its external interface, until you interrupt it."


def heed_interrupts():
    """A shell cannot trap a signal that was ignored when it started, as is common for background jobs."""
    signal.signal(signal.SIGINT, signal.SIG_DFL)


class Gateway:
    """./gateway on the router's own interfaces, with everything that it writes."""

    def __init__(self, lab, lan="lan0", wan="wan0"):
        self.lab = lab
        self.path = lab.directory / "gateway.log"
        with open(self.path, "wb") as out:
            self.process = subprocess.Popen(lab.router.command(GATEWAY, "--lan", lan, "--wan", wan), env=ENVIRONMENT,
                                            stdin=subprocess.DEVNULL, stdout=out, stderr=subprocess.STDOUT,
                                            preexec_fn=heed_interrupts)

    @property
    def lines(self):
        return self.path.read_text().splitlines()

    def serves(self):
        assert self.process.poll() is None, self.lines
        return SERVES in self.lines

    def wait(self):
        return self.process.wait(2 * labs.PATIENCE)

    def end(self, how):
        self.process.send_signal(how)
        return self.wait()


@pytest.fixture
def on_machine(bare_lab):
    started = []

    def start(*words):
        started.append(Gateway(bare_lab, *words))
        return started[0]
    yield start
    for gateway in started:
        if gateway.process.poll() is None:
            gateway.end(signal.SIGTERM)


def tree(root):
    """Every file and folder below, with its content and its time of change."""
    return {path.relative_to(root): (path.stat().st_mtime_ns, path.read_bytes() if path.is_file() else None)
            for path in [root, *pathlib.Path(root).rglob("*")]}


def test_it_serves_the_interfaces_and_leaves_what_it_found_as_it_was(bare_lab, on_machine):
    tesk = bare_lab.root / "tesk"
    (tesk / "etc" / "upnp" / "osinfo.xml").unlink()
    (tesk / "etc" / "router.toml").write_text("[nat]\nlimit = nonsense\n")
    (tesk / "store" / "settings").write_text("somebody's")
    before = tree(tesk)
    gateway = on_machine()
    labs.eventually(gateway.serves, "./gateway serves", 2 * labs.PATIENCE)
    path = f"/upnp/control/wanipconn-{bare_lab.interface_id('wan0')}"
    assert call(bare_lab.lan1, path, "AddPortMapping", mapping()) == result("AddPortMapping")
    assert [rule["dstPort"] for rule in bare_lab.rules()] == [80]
    assert tree(tesk) == before
    assert gateway.end(signal.SIGINT) == 128 + signal.SIGINT
    assert tree(tesk) == before
    assert bare_lab.table() == ""


def test_it_takes_hosts_behind_the_named_interface_for_those_inside(bare_lab, on_machine):
    bare_lab.router.run("sh", "-c", "ip link set lan0 down && ip link set lan0 name home && ip link set home up")
    gateway = on_machine("home")
    serves = SERVES.replace("lan0", "home")
    labs.eventually(lambda: serves in gateway.lines, "./gateway serves", 2 * labs.PATIENCE)
    path = f"/upnp/control/wanipconn-{bare_lab.interface_id('wan0')}"
    assert call(bare_lab.lan1, path, "AddPortMapping", mapping()) == result("AddPortMapping")


def test_it_leaves_nothing_where_nothing_was(bare_lab, on_machine):
    shutil.rmtree(bare_lab.root / "tesk")
    (bare_lab.root / "run" / "tk").rmdir()
    gateway = on_machine()
    labs.eventually(gateway.serves, "./gateway serves", 2 * labs.PATIENCE)
    assert gateway.end(signal.SIGTERM) == 128 + signal.SIGTERM
    assert not (bare_lab.root / "tesk").exists()
    assert not (bare_lab.root / "run" / "tk").exists()
    assert {path.name for path in (bare_lab.root / "run").iterdir()} <= {"mount"}  # which mount makes for its own use


def test_it_starts_the_resolver_when_it_is_asked_for(bare_lab, on_machine):
    labs.eventually(on_machine().serves, "./gateway serves", 2 * labs.PATIENCE)
    asked = bare_lab.tkctl("bus", "call", "14", "0x7777", check=False)
    assert asked.stderr == "tkctl: no such command\n"


def test_it_leaves_a_router_that_runs_already_alone(bare_lab, on_machine):
    bare_lab.start_routerd()
    before = tree(bare_lab.root / "tesk")
    gateway = on_machine()
    assert gateway.wait() == 1
    assert gateway.lines == ["gateway: routerd is running on this machine already; tkctl administers it"]
    assert bare_lab.bus_answers()
    assert tree(bare_lab.root / "tesk") == before


def test_it_does_not_start_without_its_interfaces(bare_lab, on_machine):
    gateway = on_machine("lan0", "nosuch0")
    assert gateway.wait() == 1
    assert gateway.lines == ["gateway: no interface nosuch0 on this machine"]


def test_it_does_not_serve_the_interface_that_leads_to_the_internet(bare_lab, on_machine):
    gateway = on_machine("wan0", "lan0")
    assert gateway.wait() == 1
    assert gateway.lines == [
        "gateway: wan0 carries the default route, so it is no LAN; are --lan and --wan swapped?"]


@pytest.fixture(scope="module")
def tour():
    """What the tour prints where it is no terminal."""
    began = time.monotonic()
    done = subprocess.run([GATEWAY, "--once"], env=ENVIRONMENT, capture_output=True, text=True, timeout=120)
    assert (done.returncode, done.stderr) == (0, ""), done.stdout + done.stderr
    assert time.monotonic() - began < 60
    return done.stdout


def test_the_tour_sees_every_step(tour):
    steps = [line for line in tour.splitlines() if line.startswith("  ") and not line.startswith("      ")]
    assert len(steps) == 13
    assert all(line.startswith("  ✓ ") for line in steps), tour
    for shown in ["wan$ lab/greeting hear 198.51.100.1 80\n      hello 198.51.100.2, this is the LAN",
                  "external 198.51.100.1:80 TCP is redirected to internal 192.0.2.2:8080"]:
        assert shown in tour
    assert "\x1b" not in tour


def test_the_tour_is_as_the_document_shows_it(tour):
    block, = (block for block in documents.blocks_of((labs.ROOT / "README.md").read_text()) if "✓" in block.lines[0])
    printed = textwrap.dedent("\n".join(tour.splitlines()[1:])).splitlines()
    assert documents.matches(["...", *block.lines], printed), tour


# --- how it builds, with stand-ins for what builds and for the lab ---

CMAKE = """#!/bin/bash
echo "cmake $*" >>commands
[[ $1 == --build ]] || { echo "-- Configuring done"; exit; }
for step in {1..45}; do echo "[$step/45] Building CXX object $step.o"; done
[[ ! -e broken ]] || { echo "x.cpp:1:1: error: there is no x"; exit 1; }
"""
NEEDS = """#!/bin/bash
echo "lab/needs $*" >>commands
[[ ! -e offline ]] || { echo "there is no network" >&2; exit 1; }
"""
TOUR = """
lab_tour() {
    echo "The tour"
    step "what is seen" echo shown
    [[ ! -e dark ]] || step "what is not seen" false
}
"""
CONFIGURED = "cmake --preset release"
BUILT = "cmake --build --preset release --target routerd upnpd resolverd tkctl"
SEEN = "The tour\n  ✓ what is seen\n      shown\n"


class Copy:
    """A copy of the command in a tree of its own, whose tour has one step, or two when it is dark."""

    def __init__(self, root):
        self.root = root
        (root / "lab").mkdir()
        (root / "tools").mkdir()
        shutil.copy(GATEWAY, root)
        (root / "lab" / "tour.bash").write_text((labs.ROOT / "lab" / "tour.bash").read_text() + TOUR)
        for path, text in (("lab/lab", "#!/bin/sh\n"), ("lab/needs", NEEDS), ("tools/cmake", CMAKE)):
            (root / path).write_text(text)
            (root / path).chmod(0o755)
        kept = {key: value for key, value in os.environ.items() if key not in ("GATEWAY_BIN", "NO_COLOR")}
        path = f"{root / 'tools'}:{os.environ['PATH']}"
        self.environment = kept | {"PATH": path, "LC_ALL": "C.UTF-8", "TERM": "xterm"}

    def put(self, name):
        (self.root / name).touch()

    def commands(self):
        """What it ran, in order."""
        path = self.root / "commands"
        return path.read_text().splitlines() if path.exists() else []

    def run(self, *words, **variables):
        """Its status, standard output and standard error; the seconds that the build has taken are N."""
        done = subprocess.run([self.root / "gateway", *words], env=self.environment | variables, capture_output=True,
                              text=True, timeout=labs.PATIENCE, stdin=subprocess.DEVNULL)
        return done.returncode, plain(done.stdout), done.stderr

    def run_on_terminal(self, *words, **variables):
        """Its status, and everything that it writes to the terminal."""
        ours, theirs = os.openpty()
        with open(ours, "rb", buffering=0) as screen:
            with open(theirs, "wb") as terminal:
                process = subprocess.Popen([self.root / "gateway", *words], env=self.environment | variables,
                                           stdin=subprocess.DEVNULL, stdout=terminal, stderr=terminal)
            try:
                shown = b"".join(iter(lambda: read(screen), b""))
                return process.wait(labs.PATIENCE), plain(shown.decode()).replace("\r\n", "\n")
            finally:
                process.kill()


def read(screen):
    """What comes next from a terminal; nothing when no process has it open any more."""
    assert select.select([screen], [], [], labs.PATIENCE)[0], "the terminal stays silent"
    try:
        return screen.read(4096)
    except OSError:
        return b""


def plain(text):
    return re.sub(r"steps, \d+ s", "steps, N s", text)


@pytest.fixture
def copy(tmp_path):
    return Copy(tmp_path)


def test_the_build_tells_each_tenth_on_a_line_of_its_own_where_it_is_no_terminal(copy):
    tenths = "".join(f"  {done} of 45 steps, N s\n" for done in (1, 5, 9, 14, 18, 23, 27, 32, 36, 41, 45))
    assert copy.run("--once") == (0, "Building the four programs\n" + tenths + SEEN, "")
    assert copy.commands() == ["lab/needs build lab", CONFIGURED, BUILT]


def test_the_build_tells_each_step_on_the_same_line_of_a_terminal(copy):
    steps = "".join(f"\r\x1b[K  {done} of 45 steps, N s" for done in range(1, 46))
    status, shown = copy.run_on_terminal("--once")
    assert (status, shown.partition("The tour")[0]) == (0, f"Building the four programs\n{steps}\r\x1b[K")


def test_a_terminal_that_cannot_begin_a_line_anew_gets_plain_lines(copy):
    assert copy.run_on_terminal("--once", TERM="dumb") == (0, "".join(copy.run("--once")[1:]))


@pytest.mark.parametrize("run", (Copy.run, Copy.run_on_terminal), ids=("plain", "terminal"))
def test_a_build_that_fails_shows_the_end_of_what_it_said(copy, run):
    copy.put("broken")
    status, *shown = run(copy, "--once")
    steps = "".join(f"[{step}/45] Building CXX object {step}.o\n" for step in range(7, 46))
    told = f"{steps}x.cpp:1:1: error: there is no x\ngateway: the build failed; its last lines stand above\n"
    before = re.escape("\r\x1b[K") if run is Copy.run_on_terminal else "^"
    assert status == 1 and re.search(before + re.escape(told) + "$", shown[-1]), shown[-1]
    assert "The tour" not in shown[0]


def test_without_the_packages_that_it_needs_nothing_is_built(copy):
    copy.put("offline")
    assert copy.run("--once") == (1, "", "there is no network\n")
    assert copy.commands() == ["lab/needs build lab"]


def test_on_the_machine_itself_it_installs_what_it_runs_and_not_the_lab(copy):
    status, _, told = copy.run("--lan", "nosuch0", "--wan", "nosuch1")
    assert (status, told) == (1, "gateway: no interface nosuch0 on this machine\n")
    assert copy.commands() == ["lab/needs build run", CONFIGURED, BUILT]


def test_programs_that_are_there_already_are_not_built(copy):
    assert copy.run("--once", GATEWAY_BIN="/programs") == (0, SEEN, "")
    assert copy.commands() == []


@pytest.mark.parametrize("variables, shown", [
    ({}, "  . what is seen\r\x1b[K  \x1b[32m✓\x1b[0m what is seen\n      \x1b[2mshown\x1b[0m\n"
         "  . what is not seen\r\x1b[K  \x1b[31m✗\x1b[0m what is not seen\n"),
    ({"NO_COLOR": "1"}, "  . what is seen\r\x1b[K  ✓ what is seen\n      shown\n"
                        "  . what is not seen\r\x1b[K  ✗ what is not seen\n"),
    ({"TERM": "dumb"}, "  ✓ what is seen\n      shown\n  ✗ what is not seen\n"),
    ({"LC_ALL": "C", "TERM": "dumb"}, "  ok what is seen\n      shown\n  FAILED what is not seen\n"),
], ids=["colour", "NO_COLOR", "dumb", "ASCII"])
def test_a_step_is_shown_as_the_terminal_can(copy, variables, shown):
    copy.put("dark")
    assert copy.run_on_terminal("--once", GATEWAY_BIN="/programs", **variables) == (
        1, f"The tour\n{shown}gateway: steps that were not seen: 1\n")


def test_a_tour_that_misses_a_step_fails(copy):
    copy.put("dark")
    assert copy.run("--once", GATEWAY_BIN="/programs") == (
        1, f"{SEEN}  ✗ what is not seen\n", "gateway: steps that were not seen: 1\n")
