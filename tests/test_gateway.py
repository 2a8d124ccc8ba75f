"""The command that shows the system at work, on the interfaces of the machine it runs on: here a lab's router."""
import os
import pathlib
import shutil
import signal
import subprocess

import pytest

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


def test_the_tour_sees_every_step():
    done = subprocess.run([GATEWAY, "--once"], env=ENVIRONMENT, capture_output=True, text=True, timeout=120)
    assert (done.returncode, done.stderr) == (0, ""), done.stdout + done.stderr
    steps = [line for line in done.stdout.splitlines() if line.startswith("  ") and not line.startswith("      ")]
    assert len(steps) == 13
    assert all(line.startswith("  ✓ ") for line in steps), done.stdout
    for shown in ["wan$ lab/greeting hear 198.51.100.1 80\n      hello 198.51.100.2, this is the LAN",
                  "external 198.51.100.1:80 TCP is redirected to internal 192.0.2.2:8080"]:
        assert shown in done.stdout
    assert "\x1b" not in done.stdout
