"""tkctl setup: from nothing to a gateway, and what it refuses."""
import json
import os
import pty
import re
import select
import shutil
import subprocess
import time

import pytest

import labs
from control_point import LOCATION
from labs import LAN1, ROUTER_WAN, eventually

FORWARD = ("ip", "route", "add", "default", "via", "203.0.113.2", "dev", "wan1", "metric", "100")


def file_of(lab):
    return lab.root / "tesk" / "etc" / "router.toml"


def set_up(lab, *words, check=False):
    return lab.tkctl("setup", *words, check=check)


def items(lab):
    return [(item["name"], item["type"]) for item in lab.query("upnp", "interface", "list")]


def state(lab):
    """All that setup could change."""
    file = file_of(lab)
    return (file.read_text(), file.stat().st_ino, lab.query("upnp", "interface", "list"), lab.query("upnp", "get"),
            lab.query("history", "list"))


@pytest.fixture(scope="module")
def shared_router(tmp_path_factory):
    """A router whose second uplink is a fallback, so that nothing but lan0 is a LAN."""
    lab = labs.Lab(tmp_path_factory.mktemp("lab"))
    try:
        lab.router.run(*FORWARD)
        lab.start_routerd()
        lab.start_upnpd()
        yield lab
    finally:
        lab.down()


@pytest.fixture
def router(shared_router):
    """That router before any set-up, with a new daemon: as it is off, it leaves by itself 10 s later. Each test leaves the
    two programs running, if it does not take that long."""
    lab = shared_router
    lab.upnpd.stop()
    lab.start_upnpd()
    file_of(lab).write_text(labs.SIDES)
    for item in lab.query("upnp", "interface", "list"):
        lab.tkctl("upnp", "interface", "remove", item["id"])
    lab.disable()
    lab.tkctl("bus", "call", "0", "8")
    yield lab
    assert lab.routerd.running() and lab.upnpd.process.poll() in (None, 0)


@pytest.fixture
def new_router(bare_lab):
    """A router on which nothing runs and nothing is configured. Its programs lie together, where all users can run
    them."""
    bare_lab.router.run(*FORWARD)
    file_of(bare_lab).unlink()
    for name in ("tkctl", "routerd"):
        shutil.copy(labs.BIN / name, bare_lab.root / "tesk" / "bin" / name)
    return bare_lab


def own_tkctl(lab, *words):
    return lab.router.run("/tesk/bin/tkctl", *words, check=False)


def end_programs(lab):
    """Ends the router that a line of the shell started, with all that it runs."""
    left = lab.query("bus", "call", "0", "7")["fields"]
    programs = next(field["value"] for field in left if field["id"] == "0xfe0002")
    numbers = [next(field["value"] for field in program if field["id"] == "0x2") for program in programs]
    os.kill(numbers[0], 15)
    for number in numbers:
        eventually(lambda: not os.path.exists(f"/proc/{number}"), f"program {number} ends")


@pytest.mark.parametrize("packaged", [False, True])
def test_leads_from_nothing_or_the_package_to_a_mapped_port(new_router, packaged):
    lab = new_router
    if packaged:  # its triggers are for systemd
        shutil.copy(labs.ROOT / "packaging" / "router.toml", file_of(lab))
    first = own_tkctl(lab, "setup", "--yes")
    for line in ('+user = "routerd"\n', '+command = ["/tesk/bin/upnpd"]\n', '+user = "upnpd"\n',
                 '+command = ["/tesk/bin/resolverd"]\n', '+user = "resolverd"\n'):
        assert line in first.stdout
    assert first.stdout.count('+#trigger = "/run/tk/start/') == (2 if packaged else 0)
    assert first.returncode == 1
    line = re.search(r'run "(setsid /tesk/bin/routerd .*&)" and then tkctl setup again', first.stderr).group(1)
    lab.router.run("sh", "-c", line.replace("/var/log", str(lab.directory)))
    # The socket is there before anybody listens at it.
    eventually(lambda: own_tkctl(lab, "bus", "call", "65", "0xFE000D").returncode == 0, "routerd serves the bus")
    try:
        second = own_tkctl(lab, "setup", "--yes")
        assert (second.stderr, second.returncode) == ("", 0)
        assert items(lab) == [("lan0", "internal"), ("wan0", "external")]
        lab.lan1.run("upnpc", "-i", "-u", LOCATION, "-e", "web", "-a", LAN1, 8080, 1080, "TCP")
        with lab.lan1.listen(8080) as server, lab.wan.connect(ROUTER_WAN, 1080):
            server.accept()[0].close()
        again = own_tkctl(lab, "setup").stdout
        assert again.endswith("\nEverything is set up already.\n") and "Note:" not in again
    finally:
        end_programs(lab)


def test_a_daemon_that_does_not_run_is_told(new_router):
    lab = new_router
    file_of(lab).write_text(labs.SIDES + '[[program]]\nnumber = 80\ncommand = ["/bin/false"]\n')
    lab.start_routerd()
    refused = own_tkctl(lab, "setup", "--yes")
    assert refused.returncode == 1 and refused.stderr.endswith(
        "tkctl: upnpd does not run; start it: setsid /tesk/bin/upnpd </dev/null >>/var/log/upnpd.log 2>&1 &; done so "
        "far: /tesk/etc/router.toml is written, routerd has read it; the rest is not done\n")


def test_starts_the_unit_where_systemd_runs_and_says_how_far_it_came_when_that_fails(new_router):
    lab = new_router
    if not os.path.exists("/usr/bin/systemctl"):
        pytest.skip("there is no systemctl to put a script in the place of")
    calls, script = lab.directory / "calls", lab.directory / "systemctl"
    program = "{ path=/tesk/bin/routerd ; argv[]=/tesk/bin/routerd --config /tesk/etc/mine.toml ; ignore_errors=no ; }"
    script.write_text(f"#!/bin/sh\n[ $1 = show ] && echo 'ExecStart={program}'\n")
    script.chmod(0o755)
    lab.router.run("mount", "--bind", script, "/usr/bin/systemctl")
    (lab.root / "run/systemd/system").mkdir(parents=True)
    other = own_tkctl(lab, "setup", "--yes")
    assert (other.returncode, other.stdout, other.stderr) == (
        1, "", "tkctl: routerd.service reads /tesk/etc/mine.toml: give --config /tesk/etc/mine.toml\n")
    assert not file_of(lab).exists()
    script.write_text("#!/bin/sh\necho 'Failed to enable unit' >&2\nexit 5\n")
    failed = own_tkctl(lab, "setup", "--yes")
    assert (failed.returncode, failed.stderr) == (
        1, "tkctl: systemctl: Failed to enable unit; journalctl -u routerd.service tells more; done so far: "
           "/tesk/etc/router.toml is written; the rest is not done\n")
    script.write_text(f"#!/bin/sh\n[ $1 = show ] && exit\necho \"$*\" >>{calls}\nsetsid /tesk/bin/routerd >/dev/null 2>&1 &\n")
    done = own_tkctl(lab, "setup", "--yes")
    try:
        assert (done.stderr, done.returncode) == ("", 0)
        assert calls.read_text() == "enable --now routerd.service\n"
        assert items(lab) == [("lan0", "internal"), ("wan0", "external")]
        assert lab.query("upnp", "get")["enabled"] is True
    finally:
        end_programs(lab)


def test_shows_what_it_would_change_and_changes_nothing_without_a_terminal(router):
    before = state(router)
    shown = set_up(router)
    assert (shown.stderr, shown.returncode) == ("tkctl: nothing has been changed: --yes applies this\n", 1)
    assert shown.stdout == """\
INTERFACE  ROLE      BECAUSE
lan0       internal  named in [lan] interfaces
wan0       external  it carries the default route
wan1       -         it carries a default route that is not the best one

--- /tesk/etc/router.toml
+++ /tesk/etc/router.toml
@@ -9,3 +9,12 @@
 [[interface]]
 name = "wan1"
 terminate = true
+
+[nat]
+external-ports = ["1024-65535"]
+limit-per-client = 128
+limit = 1024
+
+[guard]
+requests-per-second = 200
+connections = 64

add lan0 as internal
add wan0 as external
switch UPnP on

Note: --lan NAME and --wan NAME choose other interfaces
"""
    assert state(router) == before


def test_tells_the_proposal_as_json(router):
    shown = set_up(router, "--json")
    assert shown.returncode == 1
    proposal = json.loads(shown.stdout)
    assert [(role["interface"], role["type"]) for role in proposal["roles"]] == [("lan0", "internal"),
                                                                                ("wan0", "external")]
    assert (proposal["applied"], proposal["start"], proposal["enable"]) == (False, False, True)
    applied = json.loads(set_up(router, "--json", "--yes", check=True).stdout)
    assert applied == {**proposal, "applied": True}
    settled = json.loads(set_up(router, "--json", check=True).stdout)
    assert (settled["difference"], settled["items"], settled["enable"]) == ("", [], False)


def test_applied_twice_it_changes_nothing_the_second_time(router):
    done = set_up(router, "--yes", check=True)
    assert done.stdout.endswith("\nDone.\n\n" + router.tkctl("status").stdout)
    before = state(router)
    assert before[0].startswith(labs.SIDES) and before[3]["enabled"]
    again = set_up(router, "--yes", check=True)
    assert again.stdout.endswith("\nEverything is set up already.\n")
    assert state(router) == before


def answer(lab, text):
    """Runs setup on a terminal, gives an answer, and returns its status with all that it showed."""
    ours, theirs = pty.openpty()
    with subprocess.Popen(lab.router.command(labs.BIN / "tkctl", "setup"), stdin=theirs, stdout=theirs, stderr=theirs,
                          start_new_session=True, env={**os.environ, "TERM": "xterm", "NO_COLOR": ""}) as process:
        os.close(theirs)
        os.write(ours, text.encode())
        shown, deadline = b"", time.monotonic() + labs.PATIENCE
        try:
            while select.select([ours], [], [], max(0, deadline - time.monotonic()))[0]:
                shown += os.read(ours, 65536)
            process.kill()  # or this would wait for its end
            pytest.fail(f"tkctl setup does not end: {shown}")
        except OSError:  # the terminal has lost its last user
            pass
        finally:
            os.close(ours)
        return process.wait(labs.PATIENCE), shown.decode()


def test_asks_once_on_a_terminal(router):
    before = state(router)
    status, shown = answer(router, "no\n")
    assert status == 1 and shown.count("Apply? [y/N]") == 1 and "nothing has been changed" in shown
    assert "\n\x1b[32m+limit = 1024\x1b[0m\r\n" in shown and "\n\x1b[1m+++ /tesk/etc/router.toml\x1b[0m\r\n" in shown
    assert state(router) == before
    status, shown = answer(router, "y\n")
    assert status == 0 and shown.count("Apply? [y/N]") == 1
    assert items(router) == [("lan0", "internal"), ("wan0", "external")]


def test_an_outside_interface_becomes_internal_only_by_force(router):
    router.router.run("ip", "route", "add", "8.0.0.0/8", "via", "203.0.113.2")
    try:
        before = state(router)
        words = ("--yes", "--lan", "lan0", "--lan", "wan1")
        refused = set_up(router, *words)
        assert (refused.returncode, refused.stderr) == (
            1, "tkctl: wan1 (named with --lan) is outside: it carries a route to 8.0.0.0/8; --force makes it internal "
               "anyway\n")
        assert state(router) == before
        set_up(router, *words, "--force", check=True)
        assert items(router) == [("lan0", "internal"), ("wan1", "internal"), ("wan0", "external")]
        assert 'interfaces = ["lan0", "wan1"]\n' in file_of(router).read_text()
    finally:
        router.router.run("ip", "route", "del", "8.0.0.0/8")


def test_a_file_that_routerd_would_not_start_with_is_left_as_it_is(new_router):
    lab = new_router
    wrong = "# mine\n[nat]\nlimitt = 7\n" + labs.SIDES
    file_of(lab).write_text(wrong)
    refused = own_tkctl(lab, "setup", "--yes")
    assert (refused.returncode, refused.stdout, refused.stderr) == (
        1, "", "tkctl: /tesk/etc/router.toml:3: limitt: unknown key; mend the file, and then run tkctl setup again\n")
    assert file_of(lab).read_text() == wrong


def test_what_routerd_would_not_start_with_is_not_written(new_router):
    """The present file is absent, so only what would be written is judged."""
    lab = new_router
    words = ("--yes", "--config", "/run/own/router.toml")
    (lab.root / "run/own").mkdir(exist_ok=True)
    script = lab.root / "run/own/routerd"
    shutil.copy(labs.BIN / "tkctl", lab.root / "run/own/tkctl")
    script.write_text("#!/bin/sh\necho \"$3:7: limit: refused\"; exit 1\n")
    script.chmod(0o755)
    refused = lab.router.run("/run/own/tkctl", "setup", *words, check=False)
    assert (refused.returncode, refused.stderr) == (
        1, "tkctl: /run/own/router.toml:7: limit: refused; nothing has been changed\n")
    assert sorted(path.name for path in script.parent.iterdir()) == ["routerd", "tkctl"]


def test_a_file_is_judged_as_the_user_of_the_unit(new_router):
    """Root may read every file, and start programs as other users."""
    lab = new_router
    if not os.path.exists("/usr/bin/systemctl"):
        pytest.skip("there is no systemctl to put a script in the place of")
    script = lab.directory / "systemctl"
    script.write_text("#!/bin/sh\n[ $2 = --property=User ] && echo routerd\nexit 0\n")
    script.chmod(0o755)
    lab.router.run("mount", "--bind", script, "/usr/bin/systemctl")
    (lab.root / "run/systemd/system").mkdir(parents=True)
    written = own_tkctl(lab, "setup", "--yes")
    assert (written.returncode, written.stderr) == (
        1, "tkctl: /tesk/etc/router.toml: program 80: user: only root can start it as upnpd; give it a trigger in place "
           "of command and user; nothing has been changed\n")
    assert not list(file_of(lab).parent.glob("router*"))
    file = file_of(lab)
    file.write_text('[router]\nuser = "upnpd"\n' + labs.SIDES)
    mend = "; mend the file, and then run tkctl setup again\n"
    for mode, reason in ((0o644, ": [router] user: only root can start it as upnpd"), (0o600, ": Permission denied")):
        file.chmod(mode)
        refused = own_tkctl(lab, "setup", "--yes")
        assert (refused.returncode, refused.stderr) == (1, f"tkctl: /tesk/etc/router.toml{reason}{mend}")


def test_a_file_that_routerd_refuses_is_put_back(router):
    file = file_of(router)
    wrong = "# mine\n[router]\nuser = \"upnpd\"\n" + labs.SIDES
    file.write_text(wrong)
    file.chmod(0o640)
    before = state(router)[2:]
    refused = set_up(router, "--yes")
    assert (refused.returncode, refused.stderr) == (
        1, "tkctl: routerd refuses the new file, so the old one is back: /tesk/etc/router.toml: user in [router] has "
           "changed: that needs a restart of routerd; nothing has been changed\n")
    assert file.read_text() == wrong and file.stat().st_mode & 0o777 == 0o640
    assert state(router)[2:] == before
    assert sorted(path.name for path in file.parent.glob("router*")) == ["router.toml"]
    file.chmod(0o644)


def test_a_broken_file_is_named_with_its_line(router):
    file_of(router).write_text("[lan]\ninterfaces = lan0\n")
    broken = set_up(router, "--yes")
    assert broken.returncode == 1 and broken.stdout == ""
    assert broken.stderr.startswith("tkctl: /tesk/etc/router.toml:2: ")


def test_mends_roles_that_are_on_the_wrong_interface(router):
    router.tkctl("upnp", "interface", "add", "lanp1", "internal", "--force")
    router.tkctl("upnp", "interface", "add", "wan0", "internal", "--force")
    shown = set_up(router, "--yes", check=True).stdout
    assert "remove lanp1 (internal)\n" in shown and "change wan0 to external\n" in shown
    assert items(router) == [("wan0", "external"), ("lan0", "internal")]


def test_a_member_of_the_group_sees_the_proposal_and_applies_nothing(router):
    before = state(router)
    shown = router.router.run("setpriv", "--reuid", 64004, "--regid", 64004, "--groups", 64000, labs.BIN / "tkctl",
                              "setup", "--yes", check=False)
    assert (shown.returncode, shown.stderr) == (1, "tkctl: nothing has been changed: only root may apply this\n")
    assert "switch UPnP on\n" in shown.stdout and state(router) == before


@pytest.mark.parametrize("words, reason", [
    (("--lan", "lan9"), "there is no interface 'lan9' that can have a role; there are: lan0, wan0, wan1"),
    (("--lan", "lanp1"), "lanp1 is a member of lan0: name lan0 instead"),
    (("--wan", "lo"), "there is no interface 'lo' that can have a role; there are: lan0, wan0, wan1"),
])
def test_a_slip_is_answered_by_one_line(router, words, reason):
    refused = set_up(router, "--yes", *words)
    assert (refused.stdout, refused.stderr, refused.returncode) == ("", f"tkctl: {reason}\n", 1)


def test_a_file_that_cannot_be_written_is_named(router):
    before = state(router)
    router.router.run("mount", "--bind", "/tesk/etc", "/tesk/etc")
    router.router.run("mount", "-o", "remount,bind,ro", "/tesk/etc")
    try:
        refused = set_up(router, "--yes")
    finally:
        router.router.run("umount", "/tesk/etc")
    assert (refused.returncode, refused.stderr) == (
        1, "tkctl: /tesk/etc/router.toml.new: Read-only file system; nothing has been changed\n")
    assert state(router) == before


def test_a_file_that_routerd_does_not_read_is_refused(router):
    before = state(router)
    refused = set_up(router, "--yes", "--config", "/tesk/etc/other.toml")
    assert (refused.stdout, refused.stderr, refused.returncode) == (
        "", "tkctl: routerd reads /tesk/etc/router.toml: give --config /tesk/etc/router.toml\n", 1)
    assert state(router) == before and not (router.root / "tesk" / "etc" / "other.toml").exists()
    assert set_up(router, "--config", "/tesk/./etc/router.toml").stderr == (
        "tkctl: nothing has been changed: --yes applies this\n")


def test_it_asks_for_the_file_that_routerd_reads(bare_lab):
    lab = bare_lab
    lab.start_routerd("--config", "/tesk/etc/lab.toml")
    before = (lab.root / "tesk" / "etc" / "lab.toml").read_text(), file_of(lab).read_text()
    refused = set_up(lab, "--yes")
    assert (refused.stdout, refused.stderr, refused.returncode) == (
        "", "tkctl: routerd reads /tesk/etc/lab.toml: give --config /tesk/etc/lab.toml\n", 1)
    assert ((lab.root / "tesk" / "etc" / "lab.toml").read_text(), file_of(lab).read_text()) == before
    shown = set_up(lab, "--wan", "wan0", "--lan", "lan0", "--config", "/tesk/etc/lab.toml")
    assert shown.stderr == "tkctl: nothing has been changed: --yes applies this\n"


def test_without_a_default_route_it_says_so(router):
    router.router.run("ip", "route", "flush", "default")
    try:
        refused = set_up(router)
        assert refused.stderr == ("tkctl: there is no default route, so there is no uplink: bring it up, or name it "
                                  "with --wan NAME\n")
    finally:
        router.router.run("ip", "route", "add", "default", "via", "198.51.100.2")
        router.router.run(*FORWARD)
