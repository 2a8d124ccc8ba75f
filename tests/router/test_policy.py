"""What the router refuses, and that it says so beforehand."""
import contextlib
import json
import os

import pytest

import busclient as bus
import labs
from labs import ROUTER_LAN, ROUTER_WAN, ROUTER_WAN2, WAN, WAN2
from routerusers import GROUP, IDS, OTHER, configure

REFUSED, BUSY = 0xFE0003, 0xFE0010


def ask(lab, target, port=80, target_port=8080, address=ROUTER_WAN, protocol="tcp"):
    """What "nat test" answers: the reason of a refusal, empty for none."""
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
    (ROUTER_LAN, "it is an address of the router itself"),
    (ROUTER_WAN, "it is an address of the router itself"),
    (ROUTER_WAN2, "it is an address of the router itself"),
    (WAN, "it is reached over the interface that holds the destination address"),
    ("198.51.100.77", "it is reached over the interface that holds the destination address"),
    ("192.0.3.1", "it is reached over the default route"),
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


def test_a_target_behind_the_other_uplink_is_judged_by_the_rules_own(router):
    assert ask(router, WAN2) == ""
    assert ask(router, WAN2, address=ROUTER_WAN2).endswith("the interface that holds the destination address")


def test_a_target_without_a_route_is_refused(router):
    router.router.run("ip", "route", "del", "default")
    try:
        assert ask(router, "192.0.3.1") == "target 192.0.3.1 refused: there is no route to it"
    finally:
        router.router.run("ip", "route", "add", "default", "via", WAN)


OUTSIDE = "it is reached over the interface that holds the destination address"
DEFAULT = "it is reached over the default route"


@contextlib.contextmanager
def network(lab, *lines):
    """Lets ip do each line on the router, and takes it back in the end, last first."""
    done = []
    try:
        for line in lines:
            lab.router.run(*line.split())
            done.append(line)
        yield
    finally:
        for line in reversed(done):
            lab.router.run(*("del" if word == "add" else word for word in line.split()), check=False)


@pytest.fixture(params=[True, False], ids=["routes name their interfaces", "routes name nexthops alone"])
def nexthops(router, request):
    """Routes by nexthop objects, as the kernel shows them to older programs or to those that know them."""
    if router.router.run("ip", "nexthop", "add", "id", 1, "blackhole", check=False).returncode != 0:
        pytest.skip("this kernel knows no nexthop objects")
    mode = "net.ipv4.nexthop_compat_mode="
    router.router.run("sysctl", "-qw", mode + str(int(request.param)))
    yield
    router.router.run("sysctl", "-qw", mode + "1")
    router.router.run("ip", "nexthop", "flush")


@pytest.mark.parametrize("made, reason", [
    ([f"nexthop add id 7 via {WAN} dev wan0"], OUTSIDE),
    (["nexthop add id 7 via 192.0.2.3 dev lan0"], ""),
    (["nexthop add id 5 via 192.0.2.3 dev lan0", f"nexthop add id 6 via {WAN} dev wan0", "nexthop add id 7 group 5/6"],
     OUTSIDE),
    (["nexthop add id 5 via 192.0.2.3 dev lan0", f"nexthop add id 6 via {WAN2} dev wan1", "nexthop add id 7 group 5/6"],
     ""),
    (["nexthop add id 7 blackhole"], "there is no route to it"),
], ids=["outside", "inside", "outside and inside", "inside twice", "nowhere"])
def test_a_route_by_a_nexthop_object_leads_where_the_object_does(router, nexthops, made, reason):
    with network(router, *(f"ip {line}" for line in made), "ip route add 10.9.0.0/16 nhid 7"):
        assert ask(router, "10.9.0.1") == (f"target 10.9.0.1 refused: {reason}" if reason else "")


def test_a_default_route_by_a_nexthop_object_is_one(router, nexthops):
    with network(router, f"ip nexthop add id 7 via {WAN2} dev wan1", "ip route add 0.0.0.0/1 nhid 7"):
        assert ask(router, "10.9.0.1") == f"target 10.9.0.1 refused: {DEFAULT}"


def test_addresses_of_every_scope_are_the_routers(router):
    with network(router, "ip address add 169.254.9.9/16 scope link dev wan0",
                 "ip address add 203.0.113.99/32 scope host dev lo"):
        offered = {record["address"] for record in router.query("address", "list")}
        assert offered == {ROUTER_LAN, ROUTER_WAN, ROUTER_WAN2}
        assert ask(router, "169.254.9.10", address="169.254.9.9") == f"target 169.254.9.10 refused: {OUTSIDE}"
        assert ask(router, "169.254.9.10") == f"target 169.254.9.10 refused: {OUTSIDE}"
        for own in ("169.254.9.9", "203.0.113.99"):
            assert ask(router, own) == f"target {own} refused: it is an address of the router itself"


def test_the_other_end_of_a_link_to_one_host_is_judged_like_any_host(router):
    with network(router, "ip address add 203.0.113.99 peer 10.9.9.9 dev wan1"):
        assert ask(router, "10.9.9.9", address="203.0.113.99") == f"target 10.9.9.9 refused: {OUTSIDE}"
        assert ask(router, "10.9.9.9") == ""
        assert ask(router, "203.0.113.99") == "target 203.0.113.99 refused: it is an address of the router itself"


def test_an_address_without_a_network_holds_its_interface(router):
    with network(router, "ip address add 203.0.113.99/32 dev wan1"):
        assert ask(router, WAN2, address="203.0.113.99") == f"target {WAN2} refused: {OUTSIDE}"
        assert ask(router, "192.0.2.2", address="203.0.113.99") == ""


@pytest.mark.parametrize("kind", ["unreachable", "blackhole", "prohibit", "throw"])
def test_a_target_that_a_route_excludes_is_refused(router, kind):
    """Also where the exception is all there is: a throw leaves the choice to the next table, which has no route."""
    with network(router, f"ip route add {kind} 10.9.0.0/16"):
        assert ask(router, "10.9.0.1") == "target 10.9.0.1 refused: there is no route to it"


def test_routes_of_other_tables_count_as_their_rules_say(router):
    with network(router, f"ip route add default via {WAN2} dev wan1 table 100",
                 f"ip route add 10.8.0.0/16 via {WAN} dev wan0 table 100", "ip route add 10.0.0.0/8 via 192.0.2.3"):
        assert ask(router, "10.9.0.1") == ask(router, "10.8.0.1") == ""
        with network(router, "ip rule add to 10.0.0.0/8 lookup 100"):
            assert ask(router, "10.9.0.1") == f"target 10.9.0.1 refused: {DEFAULT}"
            assert ask(router, "10.8.0.1") == f"target 10.8.0.1 refused: {OUTSIDE}"


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
        [nat]
        internal-prefixes = ["192.0.3.0/24"]
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
            client.call([20, 5], bus.SET, [(bus.ID, bus.U32, last), (1000, bus.BE32, "192.0.2.2")])
        client.call([20, 5], bus.SET, [(bus.ID, bus.U32, first), (1000, bus.BE32, "192.0.2.4")])
        client.call([20, 5], bus.REMOVE, [(bus.ID, bus.U32, first)])
        client.add_rule(2004, "192.0.2.3")


@pytest.mark.parametrize("text, reason", [
    ("[nat]\nlimits = 3\n", "2: limits: unknown key"),
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
