"""What the router refuses, and that it says so beforehand."""
import json

import pytest

import busclient as bus
import labs
from labs import ROUTER_LAN, ROUTER_WAN, ROUTER_WAN2, WAN, WAN2
from routerusers import configure

REFUSED, BUSY = 0xFE0003, 0xFE0010


def ask(lab, target, port=80, target_port=8080, address=ROUTER_WAN, protocol="tcp"):
    """What "nat test" answers: the reason of a refusal, empty for none."""
    done = lab.tkctl("nat", "test", address, port, protocol, target, target_port, check=False)
    assert done.returncode in (0, 1)
    assert done.returncode == 1 or done.stdout == "allowed\n"
    return done.stderr.removeprefix("tkctl: ").rstrip("\n")


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
    assert program.errors.read_text() == f"routerd: {words[1]}:{reason}\n"


def test_a_configuration_that_everybody_may_write_is_not_followed(bare_lab):
    words = configure(bare_lab, "")
    words[1].chmod(0o666)
    program = labs.Program(bare_lab, "routerd", *words)
    assert program.wait() == 1
    assert program.errors.read_text() == f"routerd: {words[1]}: everybody may write this file, so it is not followed\n"
