"""What is left of root's rights in a router that runs as its own user."""
import os

import pytest

from labs import LAN1, ROUTER_WAN, eventually, status
from routerusers import DAEMON, DAEMON_AS_ITSELF, GROUP, IDS, OTHER, ROUTER, configure, processes

CONFIGURATION = f"""
[router]
user = "{ROUTER}"

{DAEMON_AS_ITSELF}"""


@pytest.fixture
def router(bare_lab):
    bare_lab.start_routerd(*configure(bare_lab, CONFIGURATION))
    eventually(lambda: bare_lab.tkctl("upnp", "get", check=False).returncode == 0, "the daemon serves its settings")
    return bare_lab


def test_the_router_keeps_one_capability(router):
    told = status(router.routerd.process.pid)
    user, net_admin, none = str(IDS[ROUTER]), f"{1 << 12:016x}", f"{0:016x}"
    assert told["Uid"] == [user] * 4 and told["Gid"] == [user] * 4 and str(GROUP) in told["Groups"]
    assert (told["CapEff"], told["CapPrm"], told["CapBnd"]) == ([net_admin], [net_admin], [net_admin])
    assert (told["CapInh"], told["CapAmb"], told["NoNewPrivs"]) == ([none], [none], ["1"])
    daemon, = processes(router, "upnpd")
    told = status(daemon)
    assert told["Uid"] == [str(IDS[DAEMON])] * 4 and told["CapEff"] == [none]


def test_in_the_lab_each_program_has_a_user_of_its_own_and_the_daemon_is_guarded(bare_lab):
    bare_lab.start_routerd("--config", "/tesk/etc/lab.toml")
    bare_lab.tkctl("upnp", "get")
    bare_lab.tkctl("bus", "call", "14", "2", "1:string=localhost", check=False)
    for name, user in (("routerd", ROUTER), ("upnpd", DAEMON), ("resolverd", OTHER)):
        program, = processes(bare_lab, name)
        assert status(program)["Uid"] == [str(IDS[user])] * 4, name
    assert f"elements = {{ {IDS[DAEMON]} }}" in bare_lab.router.run("nft", "-n", "list", "table", "ip", "tk").stdout


def test_the_bus_belongs_to_the_router_and_the_group(router):
    told = router.router.run("stat", "-c", "%a %u %g %F", "/run/tk/bus").stdout
    assert told == f"660 {IDS[ROUTER]} {GROUP} socket\n"


def test_nobody_else_may_look_into_the_stores_of_the_router(router):
    assert router.router.run("stat", "-c", "%a %u", "/tesk/router").stdout == f"700 {IDS[ROUTER]}\n"


def test_everything_works_as_before(router):
    router.tkctl("upnp", "interface", "add", "lan0", "internal")
    router.tkctl("upnp", "interface", "add", "wan0", "external")
    router.tkctl("upnp", "set", "enabled=yes")
    told = lambda: router.lan1.run("upnpc", "-i", "-m", LAN1, "-a", LAN1, "8080", "80", "TCP", check=False).stdout
    eventually(lambda: "is redirected to internal" in told(), "a mapping is made")
    with router.lan1.listen(8080) as server, router.wan.connect(ROUTER_WAN, 80):
        server.accept()
    identity = router.interface_id("wan1")
    router.tkctl("bus", "call", "20,0", "0xFE0003", f"0xFE0001:u32={identity}", "0xFE000A:bool=yes")
    eventually(lambda: "DOWN" in router.router.run("ip", "link", "show", "wan1").stdout, "the interface goes down")


def test_the_end_is_clean(router):
    everybody = [pid for name in ("routerd", "routerd-start", "upnpd") for pid in processes(router, name)]
    assert len(everybody) == 3, "the router, its launcher, the daemon"
    assert router.routerd.stop() == 0
    eventually(lambda: not any(os.path.exists(f"/proc/{pid}") for pid in everybody), "all have ended")
    assert router.table() == ""
    assert router.router.run("ls", "/run/tk").stdout == ""


def test_a_killed_router_leaves_nobody_behind(router):
    everybody = [pid for name in ("routerd", "routerd-start", "upnpd") for pid in processes(router, name)]
    router.routerd.kill()
    eventually(lambda: not any(os.path.exists(f"/proc/{pid}") for pid in everybody), "all have ended")
