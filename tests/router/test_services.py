"""The programs as services: started by a manager, none as root, and each with nothing but what it needs."""
import os
import pathlib
import signal

import pytest

import labs
from labs import LAN1, ROUTER_WAN, eventually, status
from routerusers import GROUP, IDS, ROUTER, processes
from services import NAMES, START, TRIGGERS, Manager, PathUnit, as_user, prepare, read_only_but, start_router

CONFIGURATION = f'[router]\nuser = "{ROUTER}"\n{TRIGGERS}{labs.SIDES}'
NET_ADMIN, NONE = f"{1 << 12:016x}", f"{0:016x}"
CAPABILITIES = ("CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb")


@pytest.fixture(scope="module")
def shared(tmp_path_factory):
    """A router without routerd, but with its folders."""
    lab = labs.Lab(tmp_path_factory.mktemp("lab"))
    try:
        prepare(lab)
        yield lab
    finally:
        lab.down()


@pytest.fixture
def prepared(shared):
    """The same for one test, which starts routerd as it likes."""
    yield shared
    if shared.routerd.running():  # the test has failed
        shared.routerd.kill()


@pytest.fixture
def router(prepared):
    """All programs as services, each with a read-only root."""
    start_router(prepared, CONFIGURATION, *read_only_but("/run/tk", "/tesk/router")).wait_for("serving")
    with PathUnit(prepared, "upnpd", *read_only_but("/tesk/store")) as prepared.daemon, \
         PathUnit(prepared, "resolverd", *read_only_but()) as prepared.resolver:
        yield prepared
        assert prepared.routerd.stop() == 0


def writable(pid):
    """Where a process finds mounts that are not read-only."""
    mounts = [line.split() for line in pathlib.Path(f"/proc/{pid}/mountinfo").read_text().splitlines()]
    return {mount[4] for mount in mounts if "ro" not in mount[5].split(",")}


def holder(lab):
    return int(pathlib.Path(f"/run/gateway-lab-{lab.name}/holder").read_text())


def is_mapped(lab):
    told = lab.lan1.run("upnpc", "-i", "-m", LAN1, "-a", LAN1, "8080", "80", "TCP", check=False).stdout
    return "is redirected to internal" in told


def test_the_gateway_works_without_any_right_that_it_does_not_need(router):
    assert router.daemon.programs == [], "nobody has asked for the daemon yet"
    router.tkctl("upnp", "interface", "add", "lan0", "internal")
    router.tkctl("upnp", "interface", "add", "wan0", "external")
    router.tkctl("upnp", "set", "enabled=yes")
    eventually(lambda: is_mapped(router), "a mapping is made")
    with router.lan1.listen(8080) as server, router.wan.connect(ROUTER_WAN, 80):
        server.accept()
    assert "127.0.0.1" in router.tkctl("bus", "call", "14", "3", "3:string=localhost").stdout
    programs = {"routerd": (ROUTER, NET_ADMIN, {"/run/tk", "/tesk/router"}),
                "upnpd": (NAMES["upnpd"][1], NONE, {"/tesk/store"}), "resolverd": (NAMES["resolverd"][1], NONE, set())}
    for name, (user, capability, folders) in programs.items():
        pid, = processes(router, name)
        told = status(pid)
        assert told["Uid"] == [str(IDS[user])] * 4 and told["NoNewPrivs"] == ["1"], name
        given = [capability] * 5
        assert [told[key][0] for key in CAPABILITIES] == given, name
        assert writable(pid) == folders, name
    assert router.routerd.lines == ["routerd: serving /run/tk/bus", f"program 80 asked for: {START}/upnpd",
                                    f"program 14 asked for: {START}/resolverd"]
    assert router.router.run("stat", "-c", "%a %u %g %F", "/run/tk/bus").stdout == f"660 {IDS[ROUTER]} {GROUP} socket\n"


def test_a_daemon_that_was_stopped_is_started_by_the_next_request(router):
    router.tkctl("upnp", "set", "enabled=yes")
    for _ in range(2):
        os.kill(router.daemon.programs[-1].process.pid, signal.SIGTERM)
        assert router.daemon.programs[-1].wait() == 0
        router.tkctl("upnp", "set", "enabled=yes")
    assert len(router.daemon.programs) == 3


def test_a_daemon_that_runs_with_the_router_is_asked_for_until_somebody_listens(prepared):
    start_router(prepared, CONFIGURATION.replace("number = 80\n", "number = 80\nstart = true\n"))
    prepared.routerd.wait_for(f"program 80 asked for: {START}/upnpd")
    with PathUnit(prepared, "upnpd") as daemon:
        eventually(daemon.running, "the daemon is started")
        assert prepared.routerd.stop() == 0


def test_a_router_that_root_did_not_start_reads_its_configuration_again(prepared):
    router = start_router(prepared, CONFIGURATION)
    router.wait_for("serving")
    file = prepared.root / "tesk" / "etc" / "router.toml"
    for text, line in ((CONFIGURATION + "[nat]\nlimit = 5\n", "read /tesk/etc/router.toml again: changed: nat"),
                       (CONFIGURATION.replace(f'trigger = "{START}/resolverd"', 'command = ["/a"]\nuser = "upnpd"'),
                        "nothing has changed: /tesk/etc/router.toml: program 14: user: only root can start it as upnpd")):
        file.write_text(text)
        router.process.send_signal(signal.SIGHUP)
        router.wait_for("routerd: " + line)
    assert router.stop() == 0


@pytest.mark.parametrize("abstract", [False, True], ids=["a_file", "no_file"])
def test_the_manager_hears_when_the_bus_is_open_that_the_loop_turns_and_that_it_ends(prepared, abstract):
    with Manager(prepared, abstract) as manager:
        router = start_router(prepared, CONFIGURATION, *manager.environment("WATCHDOG_USEC=200000"))
        assert manager.hears() == "READY=1\nSTATUS=serving /run/tk/bus"
        prepared.tkctl("bus", "call", "65", "0xFE000D")
        assert [manager.hears() for _ in range(3)] == ["WATCHDOG=1"] * 3
        router.process.terminate()
        while (heard := manager.hears()) == "WATCHDOG=1":
            pass
        assert heard == "STOPPING=1"
        assert router.wait() == 0


def test_no_program_of_the_routers_hears_of_the_manager(prepared):
    text = '[[program]]\nnumber = 81\ncommand = ["/bin/sleep", "60"]\nstart = true\n'
    with Manager(prepared) as manager:
        environment = manager.environment("WATCHDOG_USEC=60000000", "KEPT=yes")
        router = start_router(prepared, text, *environment)
        assert manager.hears().startswith("READY=1\n")
        pid, = eventually(lambda: [pid for pid in processes(prepared, "sleep") if pid != holder(prepared)],
                          "the program is started")
        names = {entry.partition("=")[0] for entry in pathlib.Path(f"/proc/{pid}/environ").read_text().split("\0")}
        assert "KEPT" in names and not names & {"NOTIFY_SOCKET", "WATCHDOG_USEC"}
        assert router.stop() == 0


REFUSALS = {
    "no_capability": ("", dict(after=as_user(ROUTER)),
                      "it lacks CAP_NET_ADMIN: start it as root, or as a service with AmbientCapabilities=CAP_NET_ADMIN"),
    "not_in_the_group": (labs.SIDES, dict(after=as_user(ROUTER, "net_admin", groups=[IDS[ROUTER]])),
                         "/run/tk/bus cannot be given to the group tk, in which the router's user has to be: "
                         "Operation not permitted"),
    "another_user": ('[router]\nuser = "upnpd"\n', {}, "/tesk/etc/router.toml: [router] user: only root can start it as upnpd"),
    "a_program_of_another_user": (
        '[[program]]\nnumber = 80\ncommand = ["/tesk/bin/upnpd"]\nuser = "upnpd"\n', {},
        "/tesk/etc/router.toml: program 80: user: only root can start it as upnpd; give it a trigger in place of command and user"),
}


@pytest.mark.parametrize("text, how, reason", REFUSALS.values(), ids=REFUSALS)
def test_what_keeps_routerd_from_serving_is_one_line(prepared, text, how, reason):
    with Manager(prepared) as manager:
        router = start_router(prepared, text, *manager.environment(), **how)
        assert router.wait() == 1
        assert router.lines == ["routerd: " + reason]
        assert manager.hears() == "STATUS=" + reason


@labs.tracing
def test_a_router_in_the_group_of_the_bus_needs_not_change_its_file(prepared):
    forbidden = ["strace", "-f", "-qq", "-o", os.devnull, "-e", "trace=chown,fchownat",
                 "-e", "inject=chown,fchownat:error=EPERM"]
    after = [*as_user(ROUTER, "net_admin", group=GROUP), *forbidden]
    router = start_router(prepared, "", after=after)
    router.wait_for("serving")
    assert prepared.router.run("stat", "-c", "%a %u %g", "/run/tk/bus").stdout == f"660 {IDS[ROUTER]} {GROUP}\n"
    pid, = processes(prepared, "routerd")
    os.kill(pid, signal.SIGTERM)
    assert router.wait() == 0
