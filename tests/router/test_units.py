"""Programs that are units of systemd. A script stands in for systemctl."""
import os
import signal
import time

import pytest

from labs import eventually
from routerusers import DAEMON, GROUP, IDS, ROUTER, PROGRAM, configure, processes

SYSTEMCTL = "/usr/bin/systemctl"
CONFIGURATION = f"""
[[program]]
number = 80
unit = "upnpd.service"

[[user]]
name = "{DAEMON}"
programs = [80]
"""
START = f"setsid setpriv --reuid {IDS[DAEMON]} --regid {IDS[DAEMON]} --groups {GROUP} {PROGRAM} >/dev/null 2>&1 &"


@pytest.fixture
def router(bare_lab):
    if not os.path.exists(SYSTEMCTL):
        pytest.skip(f"there is no {SYSTEMCTL} to put a script in the place of")
    return bare_lab


def put_in_place(lab, action):
    """Puts a script in the place of systemctl, for the router alone; returns the file in which it notes its calls."""
    calls, script = lab.directory / "calls", lab.directory / "systemctl"
    calls.touch()
    script.write_text(f"#!/bin/sh\necho \"$(id -u) $*\" >>{calls}\n{action}\n")
    script.chmod(0o755)
    lab.router.run("mount", "--bind", script, SYSTEMCTL)
    return calls


@pytest.mark.parametrize("section", ["", f'[router]\nuser = "{ROUTER}"\n'], ids=["of_root", "of_a_user"])
def test_a_router_asks_systemd_for_a_program_that_is_a_unit(router, section):
    calls = put_in_place(router, START)
    router.start_routerd(*configure(router, section + CONFIGURATION))
    assert calls.read_text() == "", "nobody has asked for the program yet"
    router.tkctl("upnp", "get")
    call = "0 start --no-block upnpd.service\n"
    assert set(calls.read_text().splitlines(keepends=True)) == {call}
    daemon, = processes(router, "upnpd")
    os.kill(daemon, signal.SIGTERM)
    eventually(lambda: not processes(router, "upnpd"), "the daemon ends")
    before = calls.read_text()
    router.tkctl("upnp", "get")
    assert calls.read_text().startswith(before + call), "a program that left the bus is asked for again"
    assert router.routerd.stop() == 0
    assert set(calls.read_text().splitlines(keepends=True)) == {call}, "no unit is stopped"


def test_what_systemd_refuses_is_told_at_once(router):
    put_in_place(router, "exit 5")
    router.start_routerd(*configure(router, CONFIGURATION))
    began = time.monotonic()
    refused = router.tkctl("bus", "call", "80", "0xFE000D", check=False)
    assert refused.stderr == "tkctl: upnpd.service could not be started: systemctl ended with status 5\n"
    assert refused.returncode == 1 and time.monotonic() - began < 5
    assert router.routerd.running()
