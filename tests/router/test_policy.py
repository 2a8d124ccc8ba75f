"""What the router refuses, and that it says so in advance."""
import contextlib
import json
import os

import pytest

import bus
import labs
from labs import ROUTER_LAN, ROUTER_WAN, ROUTER_WAN2, WAN, WAN2, eventually
from routerusers import GROUP, IDS, OTHER, configure

REFUSED, BUSY = 0xFE0003, 0xFE0010


def ask(lab, target, port=80, target_port=8080, address=ROUTER_WAN, protocol="tcp"):
    """What "nat test" answers: the reason of a refusal; empty for none."""
    done = lab.tkctl("nat", "test", address, port, protocol, target, target_port, check=False)
    assert done.returncode in (0, 1)
    assert done.returncode == 1 or done.stdout == "allowed\n"
    return "\n".join(line.removeprefix("tkctl: ") for line in done.stderr.splitlines() if line.startswith("tkctl: "))


@pytest.fixture(scope="module")
def router(tmp_path_factory):
    lab = labs.Lab(tmp_path_factory.mktemp("lab"))
    try:
        lab.start_routerd()
        yield lab
    finally:
        lab.down()


@pytest.mark.parametrize("target, reason", [
    ("192.0.2.2", ""),
    ("0.0.0.0", "no host has this address"),
    ("127.0.0.1", "it is a loopback address"),
    ("224.0.0.251", "it is a multicast address"),
    ("255.255.255.255", "it is the broadcast address"),
    ("192.0.2.255", "it is a broadcast address"),
    ("192.0.2.0", "it is the address of a network itself"),
    (ROUTER_LAN, "it is an address of the router itself"),
    (ROUTER_WAN, "it is an address of the router itself"),
    (ROUTER_WAN2, "it is an address of the router itself"),
    (WAN, "it is in the network of wan0, which is outside"),
    ("198.51.100.77", "it is in the network of wan0, which is outside"),
    (WAN2, "it is in the network of wan1, which is outside"),
    ("1.1.1.1", "it is in no network inside"),
    ("10.9.0.1", "it is in no network inside"),
])
def test_targets_are_judged_and_nothing_changes(router, target, reason):
    before = router.table()
    expected = f"target {target} refused: {reason}" if reason else ""
    assert ask(router, target) == expected
    assert ask(router, target, protocol="udp") == expected
    assert router.table() == before and router.rules() == []
    with bus.Client(router) as client:
        if not reason:
            client.add_rule(80, target)
            return
        with pytest.raises(bus.BusError) as refused:
            client.add_rule(80, target)
        assert (refused.value.code, refused.value.text) == (REFUSED, expected)
    assert router.table() == before


def test_a_rule_for_no_address_is_refused(router):
    assert ask(router, "192.0.2.2", address="0.0.0.0") == (
        "destination 0.0.0.0 refused: the rule would never match")


@contextlib.contextmanager
def network(lab, *lines):
    """Lets ip do each line on the router, and undoes them at the end, last first."""
    done = []
    try:
        for line in lines:
            lab.router.run(*line.split())
            done.append(line)
        yield
    finally:
        for line in reversed(done):
            lab.router.run(*("del" if word == "add" else word for word in line.split()), check=False)


def becomes(lab, target, fault, **words):
    """Waits until a rule to the target is refused for this reason (empty for none), once routerd has heard."""
    wanted = f"target {target} refused: {fault}" if fault else ""
    eventually(lambda: ask(lab, target, **words) == wanted, f"{target}: {fault or 'allowed'}", 2)


@pytest.mark.parametrize("route", [
    f"10.9.0.0/16 via {WAN2}", "10.9.0.0/16 via 192.0.2.3", "unreachable 10.9.0.0/16", f"10.0.0.0/8 via {WAN2} table 100"])
def test_a_route_does_not_make_a_target_inside(router, route):
    with network(router, f"ip route add {route}"):
        assert ask(router, "10.9.0.1") == "target 10.9.0.1 refused: it is in no network inside"
        assert ask(router, "192.0.2.2") == ""
    with network(router, f"ip route add 192.0.2.64/26 via {WAN2}"):
        assert ask(router, "192.0.2.65") == ""


def test_addresses_of_every_scope_are_the_routers(router):
    with network(router, "ip address add 169.254.9.9/16 scope link dev wan0",
                 "ip address add 203.0.113.99/32 scope host dev lo"):
        offered = {record["address"] for record in router.query("address", "list")}
        assert offered == {ROUTER_LAN, ROUTER_WAN, ROUTER_WAN2}
        becomes(router, "169.254.9.10", "it is in the network of wan0, which is outside")
        for own in ("169.254.9.9", "203.0.113.99"):
            becomes(router, own, "it is an address of the router itself")


def test_the_other_end_of_a_link_to_one_host_is_judged_like_any_host(router):
    with network(router, "ip address add 203.0.113.99 peer 10.9.9.9 dev wan1",
                 "ip address add 192.0.2.99 peer 10.8.8.8 dev lan0"):
        becomes(router, "10.9.9.9", "it is in the network of wan1, which is outside")
        becomes(router, "10.8.8.8", "")
        becomes(router, "203.0.113.99", "it is an address of the router itself")


def test_a_broadcast_address_is_what_it_was_configured_as(router):
    with network(router, "ip address add 10.7.0.1/24 broadcast 10.7.0.99 dev lan0"):
        for target in ("10.7.0.99", "10.7.0.255"):
            becomes(router, target, "it is a broadcast address")
        becomes(router, "10.7.0.98", "")
    becomes(router, "10.7.0.98", "it is in no network inside")


def test_a_lan_that_is_down_has_no_hosts(bare_lab):
    bare_lab.start_routerd()
    bare_lab.router.run("ip", "link", "set", "lan0", "down")
    becomes(bare_lab, "192.0.2.2", "it is in the network of lan0, which is down")
    bare_lab.router.run("ip", "link", "set", "lan0", "up")
    becomes(bare_lab, "192.0.2.2", "")


def test_networks_of_the_configuration_are_inside_except_those_connected_outside(bare_lab):
    bare_lab.start_routerd(*configure(bare_lab, """
        [lan]
        interfaces = ["lan0"]
        networks = ["10.0.0.0/8", "203.0.113.0/24", "192.0.0.0/16"]
        """))
    bare_lab.router.run("ip", "address", "add", "10.9.0.1/24", "dev", "wan1")
    becomes(bare_lab, "10.9.0.2", "it is in the network of wan1, which is outside")
    assert ask(bare_lab, "10.9.1.2") == ask(bare_lab, "192.0.3.1") == ask(bare_lab, "192.0.2.2") == ""
    assert ask(bare_lab, WAN2).endswith("it is in the network of wan1, which is outside"), "of two as large, outside wins"
    assert ask(bare_lab, "10.255.255.255").endswith("it is a broadcast address")


def test_without_names_routes_tell_what_is_outside(bare_lab):
    """As when a second uplink carries the traffic that a VPN is for."""
    bare_lab.start_routerd(*configure(bare_lab, ""))
    assert ask(bare_lab, WAN).endswith("it is in the network of wan0, which is outside"), "the provider's gateway"
    assert ask(bare_lab, WAN2) == ""
    with network(bare_lab, f"ip route add 8.0.0.0/7 via {WAN2}"):
        for target, fault in ((WAN2, "it is in the network of wan1, which is outside"),
                              ("8.8.8.8", "it is in no network inside")):
            becomes(bare_lab, target, fault)
    bare_lab.router.run("ip", "route", "del", "default")
    bare_lab.router.run("ip", "address", "add", "10.7.0.1/24", "dev", "lan0")
    becomes(bare_lab, "10.7.0.2", "")  # by now the end of the routes is known too
    for target, name in ((WAN, "wan0"), (WAN2, "wan1")):
        assert ask(bare_lab, target) == f"target {target} refused: it is in the network of {name}, which is outside"


@pytest.fixture
def nexthops(bare_lab):
    if bare_lab.router.run("sysctl", "-qw", "net.ipv4.nexthop_compat_mode=0", check=False).returncode != 0:
        pytest.skip("this kernel knows no nexthop objects")


def test_a_route_by_a_nexthop_object_counts_where_the_object_leads(bare_lab, nexthops):
    bare_lab.start_routerd(*configure(bare_lab, ""))
    assert ask(bare_lab, WAN2) == ""
    with network(bare_lab, "ip nexthop add id 5 via 192.0.2.3 dev lan0", f"ip nexthop add id 6 via {WAN2} dev wan1",
                 "ip nexthop add id 7 group 6", "ip route add 10.9.0.0/16 nhid 5", "ip route add 8.0.0.0/7 nhid 7"):
        becomes(bare_lab, WAN2, "it is in the network of wan1, which is outside")
        assert ask(bare_lab, "192.0.2.2") == ""


def test_the_network_above_a_lower_device_is_outside_and_so_is_the_one_below(bare_lab):
    """As with a modem that is reached below the line that it carries."""
    bare_lab.start_routerd(*configure(bare_lab, ""))
    ip = lambda *words: bare_lab.router.run("ip", *words)
    ip("link", "add", "line0", "type", "bridge")
    ip("link", "set", "wan1", "master", "line0")
    ip("address", "add", "10.6.0.1/24", "dev", "line0")
    ip("link", "set", "line0", "up")
    becomes(bare_lab, WAN2, "")
    becomes(bare_lab, "10.6.0.2", "")
    ip("route", "add", "128.0.0.0/1", "via", "10.6.0.2")
    becomes(bare_lab, "10.6.0.2", "it is in the network of line0, which is outside")
    becomes(bare_lab, WAN2, "it is in the network of wan1, which is outside")


def test_an_answer_in_json_and_misuse(router):
    done = router.tkctl("nat", "test", ROUTER_WAN, 80, "tcp", "192.0.2.2", 80, "--json")
    assert json.loads(done.stdout) == {"allowed": True}
    for words in ((ROUTER_WAN, 65536, "tcp", "192.0.2.2", 80), (ROUTER_WAN, 80, "sctp", "192.0.2.2", 80),
                  ("wan0", 80, "tcp", "192.0.2.2", 80), (ROUTER_WAN, 80, "tcp", "192.0.2.2")):
        assert router.tkctl("nat", "test", *words, check=False).returncode == 2


def test_a_mapped_port_is_told_as_such(router):
    with bus.Client(router) as client:
        number = client.add_rule(80)
        assert ask(router, "192.0.2.3") == f"tcp {ROUTER_WAN}:80 is mapped already, by rule {number}"


def test_the_configuration_widens_and_narrows(bare_lab):
    bare_lab.start_routerd(*configure(bare_lab, """
        [lan]
        networks = ["192.0.3.0/24"]

        [nat]
        external-ports = [80, "1024-65535"]
        internal-ports = [8080, 22]
        limit-per-client = 2
        limit = 3
        """))
    assert ask(bare_lab, "192.0.3.1") == ""
    assert ask(bare_lab, "192.0.2.2", port=81) == (
        "external port 81 refused: it is not among those configured")
    assert ask(bare_lab, "192.0.2.2", target_port=23) == (
        "internal port 23 refused: it is not among those configured")
    with bus.Client(bare_lab) as client:
        first = client.add_rule(2001)
        client.add_rule(2002)
        with pytest.raises(bus.BusError) as refused:
            client.add_rule(2003)
        assert (refused.value.code, refused.value.text) == (
            BUSY, "2 rules lead to 192.0.2.2 already, as many as configured")
        last = client.add_rule(2003, "192.0.2.3")
        with pytest.raises(bus.BusError) as refused:
            client.add_rule(2004, "192.0.2.3")
        assert refused.value.text == "there are 3 rules already, as many as configured"
        with pytest.raises(bus.BusError):
            client.call([20, 5], bus.SET_OBJECT, [(bus.OBJECT, bus.U32, last), (1000, bus.BE32, "192.0.2.2")])
        client.call([20, 5], bus.SET_OBJECT, [(bus.OBJECT, bus.U32, first), (1000, bus.BE32, "192.0.2.4")])
        client.call([20, 5], bus.REMOVE, [(bus.OBJECT, bus.U32, first)])
        client.add_rule(2004, "192.0.2.3")


@pytest.mark.parametrize("text, reason", [
    ("[nat]\nlimits = 3\n", "2: limits: unknown key"),
    ("[nat]\ninternal-prefixes = []\n", "2: internal-prefixes: is now \"networks\" in [lan]"),
    ("\n[guard]\nlimit-connections = 1\n", "3: limit-connections: must be true or false"),
    ("[[user]]\nname = \"nobody-here\"\n", "2: name: there is no user \"nobody-here\""),
])
def test_a_fault_in_the_configuration_keeps_the_router_from_starting(bare_lab, text, reason):
    words = configure(bare_lab, text)
    program = labs.Program(bare_lab, "routerd", *words)
    assert program.wait() == 1
    assert (program.log, program.errors.read_text()) == (f"routerd: {words[1]}:{reason}\n", "")


def test_a_configuration_that_others_may_write_is_not_followed(bare_lab):
    words = configure(bare_lab, "")
    words[1].chmod(0o666)
    program = labs.Program(bare_lab, "routerd", *words)
    assert program.wait() == 1
    assert program.log == f"routerd: {words[1]}: everybody may write this file, so it is not followed\n"
    words[1].chmod(0o664)
    os.chown(words[1], IDS[OTHER], GROUP)
    program = labs.Program(bare_lab, "routerd", *words)
    assert program.wait() == 1
    assert program.log == f"routerd: {words[1]}: group {GROUP} may write this file, so it is not followed\n"
    words[1].chmod(0o644)
    program = labs.Program(bare_lab, "routerd", *words)
    assert program.wait() == 1
    assert program.log == f"routerd: {words[1]}: this file belongs to user {IDS[OTHER]}, so it is not followed\n"
