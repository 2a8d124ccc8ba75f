"""What a program may do with rules, which is less than root may. Tried as the daemon's user, with real sockets."""
import contextlib
import socket

import pytest

import bus
import labs
from control_point import call, fault, mapping, result
from labs import LAN1, ROUTER_LAN, ROUTER_WAN, eventually
from routerusers import DAEMON, DAEMON_AS_ITSELF, IDS, configure, connect_as

NOT_ALLOWED, REFUSED = 0xFE000F, 0xFE0003

# The user may change rules, but no daemon runs.
RULES_ALONE = f"""
[[user]]
name = "{DAEMON}"
writes = ["20,5"]

[nat]
router-ports = [51820, "8000-8010"]
"""


@pytest.fixture
def router(bare_lab):
    bare_lab.start_routerd(*configure(bare_lab, RULES_ALONE))
    return bare_lab


@pytest.fixture
def program(router):
    client, = connect_as(router, DAEMON, 1)
    with client:
        yield client


def refusal(client, *words, **changed):
    with pytest.raises(bus.BusError) as refused:
        client.add_rule(*words, **changed)
    return refused.value.code, refused.value.text


@contextlib.contextmanager
def service(lab, protocol=bus.TCP, port=22, address="", family=socket.AF_INET, interface=None, peer=None):
    """A program of the router that listens."""
    with lab.router.inside():
        made = socket.socket(family, socket.SOCK_STREAM if protocol == bus.TCP else socket.SOCK_DGRAM)
    with made:
        if interface:
            made.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, interface.encode())
        if family == socket.AF_INET6:
            made.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 0)
        made.bind((address, port))
        if peer:
            made.connect(peer)
        elif protocol == bus.TCP:
            made.listen(5)
        yield made


def test_a_program_makes_no_rule_that_would_outlive_it(router, program):
    assert refusal(program, 80, dynamic=False) == (NOT_ALLOWED, "only root may make a rule that is not dynamic")
    router.routerd.wait_for(f"nat: rule of user {IDS[DAEMON]} refused: only root may make a rule that is not dynamic")
    assert router.rules() == []
    program.add_rule(80)


def test_a_program_does_not_touch_the_rules_of_others(router, program):
    with bus.Client(router) as root, router.lan1.listen(8080) as server:
        stored, dynamic = root.add_rule(80, dynamic=False), root.add_rule(81)
        before = router.rules()
        for rule in (stored, dynamic):
            for command, fields in ((bus.REMOVE, []), (bus.SET_OBJECT, [(bus.DISABLED, bus.BOOL, True)]),
                                    (bus.SET_OBJECT, [(1000, bus.BE32, labs.LAN2), (1001, bus.BE32, labs.LAN2)])):
                with pytest.raises(bus.BusError) as refused:
                    program.call([20, 5], command, [(bus.OBJECT, bus.U32, rule), *fields])
                assert (refused.value.code, refused.value.text) == (NOT_ALLOWED, "the rule is not yours")
        assert router.rules() == before
        with router.wan.connect(ROUTER_WAN, 80):
            server.accept()
        root.call([20, 5], bus.REMOVE, [(bus.OBJECT, bus.U32, dynamic)])
        program.call([20, 5], bus.REMOVE, [(bus.OBJECT, bus.U32, dynamic)])


def test_root_removes_a_programs_rule_and_the_program_does_not_mind(router, program):
    added = program.add_rule(80)
    with bus.Client(router) as root:
        root.call([20, 5], bus.REMOVE, [(bus.OBJECT, bus.U32, added)])
    program.call([20, 5], bus.REMOVE, [(bus.OBJECT, bus.U32, added)])


def test_no_program_gets_the_port_of_a_tunnel_of_the_router(router, program):
    """Its socket is connected to the peer, which may be the one that sends first."""
    with service(router, bus.UDP, address=ROUTER_WAN, peer=(labs.WAN, 53)):
        why = f"udp {ROUTER_WAN}:22 refused: a service of the router listens there"
        assert refusal(program, 22, protocol=bus.UDP) == (REFUSED, why)
    program.add_rule(22, protocol=bus.UDP)


@pytest.mark.parametrize("protocol", [bus.TCP, bus.UDP])
@pytest.mark.parametrize("place", [{"address": ""}, {"address": ROUTER_WAN}, {"address": "", "interface": "wan0"},
                                   {"address": "::", "family": socket.AF_INET6}])
def test_no_program_gets_a_port_on_which_the_router_can_be_reached_from_outside(router, program, protocol, place):
    name = "tcp" if protocol == bus.TCP else "udp"
    why = f"{name} {ROUTER_WAN}:22 refused: a service of the router listens there"
    with service(router, protocol, **place):
        assert refusal(program, 22, protocol=protocol) == (REFUSED, why)
        router.routerd.wait_for(f"nat: rule of user {IDS[DAEMON]} refused: {why}")
        asked = router.tkctl("nat", "test", ROUTER_WAN, 22, name, LAN1, 22, check=False)
        assert asked.returncode == 1 and why in asked.stderr
        program.add_rule(22, protocol=bus.TCP + bus.UDP - protocol)
        with bus.Client(router) as root:
            root.call([20, 5], bus.REMOVE, [(bus.OBJECT, bus.U32, root.add_rule(22, protocol=protocol))])
    program.add_rule(22, protocol=protocol)


@pytest.mark.parametrize("protocol", [bus.TCP, bus.UDP])
@pytest.mark.parametrize("place", [{"address": ROUTER_LAN}, {"address": "", "interface": "lan0"},
                                   {"address": "127.0.0.1"}])
def test_a_service_inside_does_not_keep_its_port(router, program, protocol, place):
    with service(router, protocol, **place):
        program.add_rule(22, protocol=protocol)


def test_the_routers_ports_are_kept_for_services_that_are_not_there_yet(router, program):
    for port, protocol in ((51820, bus.UDP), (8000, bus.TCP), (8010, bus.TCP)):
        why = f"external port {port} refused: it is one of the router's own"
        assert refusal(program, port, protocol=protocol) == (REFUSED, why)
    added = program.add_rule(80)
    with pytest.raises(bus.BusError):
        program.call([20, 5], bus.SET_OBJECT, [(bus.OBJECT, bus.U32, added), (9, bus.U32, 8005), (10, bus.U32, 8005)])
    with bus.Client(router) as root:
        root.add_rule(51820, protocol=bus.UDP)


def test_a_control_point_is_refused_a_port_of_the_routers(bare_lab):
    """Meanwhile a flow of the service goes on."""
    bare_lab.start_routerd(*configure(bare_lab, DAEMON_AS_ITSELF))
    for name, kind in (("lan0", "internal"), ("wan0", "external")):
        bare_lab.tkctl("upnp", "interface", "add", name, kind)
    bare_lab.tkctl("upnp", "set", "enabled=yes")
    path = f"/upnp/control/wanipconn-{bare_lab.interface_id('wan0')}"
    arguments = mapping(external=51820, protocol="UDP", internal=51820)

    def answer():
        with contextlib.suppress(OSError):
            return call(bare_lab.lan1, path, "AddPortMapping", arguments)
    with service(bare_lab, bus.UDP, 51820) as tunnel, bare_lab.wan.datagrams() as peer:
        eventually(lambda: answer() == fault(501, "Action Failed"), f"refused: {answer()}")
        bare_lab.routerd.wait_for(f"udp {ROUTER_WAN}:51820 refused: a service of the router listens there")
        for _ in range(3):
            peer.sendto(b"still here", (ROUTER_WAN, 51820))
            tunnel.settimeout(5)
            assert tunnel.recv(100) == b"still here"
    assert answer() == result("AddPortMapping")


def test_a_flood_of_refusals_is_counted_in_the_log(router, program):
    for _ in range(2000):
        assert refusal(program, 51820)[0] == REFUSED
    assert router.routerd.log.count("nat: ") == 1
    assert router.routerd.stop() == 0
    assert "nat: 1999 more rules refused" in router.routerd.log
