"""Flows that exist already follow the rules: conntrack, and the way back from inside."""
import os
import re
import signal
import time

import pytest

import busclient as bus
import labs
import uplink
from control_point import call, mapping, result
from labs import LAN1, LAN2, ROUTER_LAN, ROUTER_WAN, WAN, eventually
from routerusers import configure, processes


@pytest.fixture
def router(bare_lab):
    uplink.masquerade(bare_lab)
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


def passes(near, far):
    """True when what one end of a connection sends arrives at the other within a moment."""
    far.settimeout(0.2)
    try:
        near.sendall(b"x")
        return bool(far.recv(100))
    except OSError:
        return False


def packets(host, match):
    """Lets a host's kernel count what matches at its input; the function that comes back tells how many there were."""
    host.run("nft", f"add table ip seen; add chain ip seen in {{ type filter hook input priority -300; }}; "
                    f"add rule ip seen in {match} counter")

    def count():
        return int(re.search(r"counter packets (\d+)", host.run("nft", "list", "chain", "ip", "seen", "in").stdout)[1])
    return count


def translate_too(lab, rules):
    """Another table that translates destinations."""
    lab.router.run("nft", "add table ip other; add chain ip other in { type nat hook prerouting priority -110; }; "
                   + "; ".join(f"add rule ip other in {rule}" for rule in rules))


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


def test_an_established_connection_that_led_elsewhere_ends_when_its_port_is_mapped(router, client):
    translate_too(router, [f"ip daddr {ROUTER_WAN} tcp dport 80 dnat to {LAN1}:8080"])
    with router.lan1.listen(8080) as former, router.lan2.listen(8080) as present:
        near = router.wan.connect(ROUTER_WAN, 80)
        far, _ = former.accept()
        router.router.run("nft", "delete", "table", "ip", "other")
        assert passes(near, far), "the kernel keeps to what it has once decided"
        client.add_rule(80, LAN2)
        eventually(lambda: not passes(near, far), "the connection ends")
        with router.wan.connect(ROUTER_WAN, 80):
            present.accept()


def test_a_target_port_of_zero_is_port_zero(router, client):
    count = packets(router.lan1, "udp dport 0")
    talk = Talk(router)

    def arrives():
        before = count()
        talk.socket.sendto(b"x", (ROUTER_WAN, 53))
        time.sleep(0.05)  # on its way through two kernels, where there is one
        return count() > before
    added = client.add_rule(53, target_port=0, protocol=bus.UDP)
    eventually(arrives, "the flow begins")
    client.call([20, 5], bus.REMOVE, [(bus.ID, bus.U32, added)])
    eventually(lambda: not any(arrives() for _ in range(3)), "the flow ends with the rule")


@labs.tracing
def test_changes_are_answered_before_flows_are_looked_at(bare_lab):
    """The router's system calls tell the order: the change, its answer, and only then the table of flows."""
    record = bare_lab.directory / "calls"
    bare_lab.routerd = labs.Program(bare_lab, "routerd", wrapper=("strace", "-qq", "-yy", "-e", "trace=%network", "-o",
                                                                  record))
    eventually(bare_lab.bus_answers, "routerd does not serve the bus")
    with bus.Client(bare_lab) as client, bare_lab.lan1.datagrams(5353) as server:
        talk = Talk(bare_lab)
        assert not talk.reaches(server)
        client.add_rule(53, target_port=5353, protocol=bus.UDP)
        eventually(lambda: talk.reaches(server), "the flow follows the rule")
    for number in processes(bare_lab, "routerd"):
        os.kill(number, signal.SIGTERM)
    bare_lab.routerd.wait()
    kinds = [("change", "NFT_MSG_NEWSETELEM"), ("look", "IPCTNL_MSG_CT_GET"), ("answer", "<UNIX")]
    lines = [line for line in record.read_text().splitlines() if re.match(r"send\w*\(", line)]
    sent = [kind for line in lines for kind, mark in kinds if mark in line]
    last = len(sent) - 1 - sent[::-1].index("change")
    assert sent[last:last + 3] == ["change", "answer", "look"], sent


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
    uplink.masquerade(bare_lab)
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


def test_flows_of_all_rules_end_with_the_router(router):
    with bus.Client(router) as client, router.lan1.listen(8080) as server, router.lan1.datagrams(5353) as datagrams:
        client.add_rule(80, dynamic=False)
        client.add_rule(53, target_port=5353, protocol=bus.UDP)
        near = router.wan.connect(ROUTER_WAN, 80)
        far, _ = server.accept()
        talk = Talk(router)
        eventually(lambda: passes(near, far) and talk.reaches(datagrams), "the flows begin")
        assert router.routerd.stop() == 0
        assert not passes(near, far)
        assert not talk.reaches(datagrams)


def test_flows_that_a_killed_router_left_end_at_its_next_start_and_those_of_stored_rules_go_on(router):
    with router.lan1.datagrams(5353) as server, router.lan1.datagrams(5454) as kept, router.lan1.listen(8080) as web:
        with bus.Client(router) as client:
            client.add_rule(53, target_port=5353, protocol=bus.UDP)
            client.add_rule(80)
            client.add_rule(54, target_port=5454, protocol=bus.UDP, dynamic=False)
            goes, stays = Talk(router), Talk(router, 54)
            near = router.wan.connect(ROUTER_WAN, 80)
            far, _ = web.accept()
            eventually(lambda: goes.reaches(server) and stays.reaches(kept) and passes(near, far), "the flows begin")
            router.routerd.kill()
        assert goes.reaches(server) and passes(near, far), "the kernel keeps to what it has once decided"
        router.start_routerd()
        assert not goes.reaches(server)
        assert not passes(near, far)
        assert stays.reaches(kept)


def test_flows_that_may_be_of_another_table_are_left_alone(router):
    with router.lan1.datagrams(5353) as server, router.lan1.datagrams(5454) as theirs:
        translate_too(router, [f"ip daddr {ROUTER_WAN} udp dport 54 dnat to {LAN1}:5454"])
        with bus.Client(router) as client:
            client.add_rule(53, target_port=5353, protocol=bus.UDP)
            ours, other = Talk(router), Talk(router, 54)
            eventually(lambda: ours.reaches(server) and other.reaches(theirs), "the flows begin")
            router.routerd.kill()
        router.start_routerd()
        assert ours.reaches(server) and other.reaches(theirs)
        router.routerd.wait_for("nat: 2 translated flows are not of a present rule, but may be of another table")


@pytest.mark.parametrize("guard", ["true", "false"])
def test_a_connection_from_outside_is_not_sent_back_when_its_target_is_routed_there(bare_lab, guard):
    bare_lab.start_routerd(*configure(bare_lab, f"[guard]\nlimit-connections = {guard}\n"))
    wan = bare_lab.wan
    wan.run("ip", "address", "add", f"{LAN1}/32", "dev", "eth0")
    with bus.Client(bare_lab) as client, wan.socket() as server:
        server.bind((LAN1, 8080))
        server.listen(1)
        client.add_rule(80)
        bare_lab.router.run("ip", "link", "set", "lan0", "down")
        eventually(lambda: "dev wan0" in bare_lab.router.run("ip", "route", "get", LAN1).stdout, "the way out is wan0")
        with pytest.raises(TimeoutError):
            wan.connect(ROUTER_WAN, 80, seconds=2)
        server.settimeout(0.1)
        with pytest.raises(TimeoutError):
            server.accept()
