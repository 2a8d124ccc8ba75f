"""Flows that exist already follow the rules: conntrack, and the way back from inside."""
import time

import pytest

import busclient as bus
import labs
from control_point import call, mapping, result
from labs import LAN2, ROUTER_LAN, ROUTER_WAN, WAN, eventually
from routerusers import configure


@pytest.fixture
def router(bare_lab):
    bare_lab.start_routerd()
    return bare_lab


@pytest.fixture
def client(router):
    with bus.Client(router) as connected:
        yield connected


class Talk:
    """A UDP flow from the WAN that is kept alive: one socket, one source port."""

    def __init__(self, lab, port=53):
        self.socket, self.port = lab.wan.datagrams(), port

    def reaches(self, server):
        """True when a datagram of now arrives at the server within a moment."""
        text = b"%d" % time.monotonic_ns()
        server.settimeout(0.2)
        for _ in range(2):  # the first may meet the router's answer to an earlier one
            try:
                self.socket.sendto(text, (ROUTER_WAN, self.port))
                break
            except ConnectionRefusedError:
                continue
        try:
            while server.recvfrom(100)[0] != text:
                pass
            return True
        except TimeoutError:
            return False


def test_a_udp_flow_from_before_the_rule_follows_it_and_ends_with_it(router, client):
    with router.lan1.datagrams(5353) as server:
        talk = Talk(router)
        assert not talk.reaches(server)
        added = client.add_rule(53, target_port=5353, protocol=bus.UDP)
        eventually(lambda: talk.reaches(server), "the flow follows the rule")
        client.call([20, 5], bus.SET, [(bus.ID, bus.U32, added), (bus.DISABLED, bus.BOOL, True)])
        eventually(lambda: not talk.reaches(server), "the flow ends with the rule")
        client.call([20, 5], bus.SET, [(bus.ID, bus.U32, added), (bus.DISABLED, bus.BOOL, False)])
        eventually(lambda: talk.reaches(server), "the flow follows the rule again")
        client.call([20, 5], bus.REMOVE, [(bus.ID, bus.U32, added)])
        eventually(lambda: not talk.reaches(server), "the flow ends with the rule")


def test_a_udp_flow_follows_a_rule_that_leads_elsewhere_now(router, client):
    with router.lan1.datagrams(5353) as first, router.lan2.datagrams(5353) as second:
        added = client.add_rule(53, target_port=5353, protocol=bus.UDP)
        talk = Talk(router)
        eventually(lambda: talk.reaches(first), "the flow begins")
        client.call([20, 5], bus.SET, [(bus.ID, bus.U32, added), (1000, bus.BE32, LAN2), (1001, bus.BE32, LAN2)])
        eventually(lambda: talk.reaches(second), "the flow follows")
        assert not talk.reaches(first)


def test_flows_end_with_their_owners_connection(router):
    with router.lan1.datagrams(5353) as server:
        talk = Talk(router)
        with bus.Client(router) as owner:
            owner.add_rule(53, target_port=5353, protocol=bus.UDP)
            eventually(lambda: talk.reaches(server), "the flow begins")
        eventually(lambda: not talk.reaches(server), "the flow ends with the rule")


def test_flows_of_other_rules_are_not_disturbed(router, client):
    with router.lan1.listen(8080) as server, router.lan1.datagrams(5353) as datagrams:
        client.add_rule(80)
        near = router.wan.connect(ROUTER_WAN, 80)
        far, _ = server.accept()
        far.settimeout(10)
        client.add_rule(53, target_port=5353, protocol=bus.UDP)
        talk = Talk(router)
        eventually(lambda: talk.reaches(datagrams), "the other flow begins")
        for port in range(1000, 1100):
            added = client.add_rule(port)
            client.call([20, 5], bus.REMOVE, [(bus.ID, bus.U32, added)])
            near.sendall(b"x")
            assert far.recv(1) == b"x"
        assert talk.reaches(datagrams)


def test_a_connection_to_the_router_itself_survives_the_mapping_of_its_port(router, client):
    made = router.router.socket()
    made.bind((ROUTER_WAN, 2222))
    made.listen(1)
    near = router.wan.connect(ROUTER_WAN, 2222)
    far, _ = made.accept()
    with router.lan1.listen(22) as server:
        client.add_rule(2222, target_port=22)
        with router.wan.connect(ROUTER_WAN, 2222):
            server.accept()
        # The pass over the table that this change begins is over when a flow that it must end has ended.
        with router.lan1.datagrams(5353) as datagrams:
            talk = Talk(router)
            assert not talk.reaches(datagrams)
            client.add_rule(53, target_port=5353, protocol=bus.UDP)
            eventually(lambda: talk.reaches(datagrams), "the pass is over")
        near.sendall(b"still here")
        far.settimeout(10)
        assert far.recv(100) == b"still here"


def test_changes_are_answered_before_flows_are_looked_at(router, client):
    """A hundred changes in a row, each of which makes a pass necessary, take no longer than the passes apart."""
    talk = Talk(router)
    with router.lan1.datagrams(5353) as server:
        talk.reaches(server)
    slowest = 0.0
    for port in range(2000, 2100):
        start = time.monotonic()
        client.add_rule(port, protocol=bus.UDP)
        slowest = max(slowest, time.monotonic() - start)
    assert slowest < 0.5, f"{slowest * 1000:.1f} ms"


@pytest.mark.parametrize("host", ["lan1", "lan2"])
def test_a_host_inside_reaches_the_server_by_the_external_address(router, client, host):
    client.add_rule(80)
    with router.lan1.listen(8080) as server:
        near = getattr(router, host).connect(ROUTER_WAN, 80)
        far, peer = server.accept()
        assert peer[0] == ROUTER_LAN, "the answer has to come back through the router"
        near.sendall(b"ping")
        far.settimeout(10)
        assert far.recv(4) == b"ping"
        far.sendall(b"pong")
        assert near.recv(4) == b"pong"


def test_a_datagram_from_inside_reaches_the_server_by_the_external_address(router, client):
    client.add_rule(53, target_port=5353, protocol=bus.UDP)
    with router.lan1.datagrams(5353) as server, router.lan2.datagrams() as asker:
        asker.sendto(b"ask", (ROUTER_WAN, 53))
        data, peer = server.recvfrom(100)
        assert data == b"ask" and peer[0] == ROUTER_LAN
        server.sendto(b"answer", peer)
        assert asker.recvfrom(100) == (b"answer", (ROUTER_WAN, 53))


def test_a_host_outside_is_seen_as_itself(router, client):
    client.add_rule(80)
    with router.lan1.listen(8080) as server, router.wan.connect(ROUTER_WAN, 80):
        assert server.accept()[1][0] == WAN


def test_flows_end_when_the_router_ends_the_daemon(bare_lab):
    """A daemon that the router started is ended with it, and its flows too."""
    bare_lab.start_routerd(*configure(bare_lab, f"""
        [[program]]
        number = 80
        command = ["{labs.BIN}/upnpd"]
        """))
    bare_lab.tkctl("upnp", "interface", "add", "lan0", "internal")
    bare_lab.tkctl("upnp", "interface", "add", "wan0", "external")
    bare_lab.tkctl("upnp", "set", "enabled=yes")
    path = f"/upnp/control/wanipconn-{bare_lab.interface_id('wan0')}"
    arguments = mapping(external=53, protocol="UDP", internal=5353)
    answers = []

    def mapped():
        try:
            answers.append(call(bare_lab.lan1, path, "AddPortMapping", arguments))
        except OSError:
            return False
        return answers[-1] == result("AddPortMapping")
    eventually(mapped, f"a mapping is made: {answers[-1:]}")
    with bare_lab.lan1.datagrams(5353) as server:
        talk = Talk(bare_lab)
        eventually(lambda: talk.reaches(server), "the flow begins")
        assert bare_lab.routerd.stop() == 0
        assert not talk.reaches(server)
