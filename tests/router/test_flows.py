"""Flows end with the rule that began them."""
import contextlib
import os
import pathlib
import signal
import socket
import time

import pytest

import bus
import labs
from flows import Talk, change, connection, is_reset, lead_to, packets, passes
from labs import LAN1, LAN2, ROUTER_WAN, WAN, eventually
from routerusers import processes


def entries(lab, *marks):
    """The router's entries of the kernel's table of connections that show all these texts."""
    text = lab.router.run("cat", "/proc/net/nf_conntrack").stdout
    return [line for line in text.splitlines() if all(mark in line for mark in marks)]


def test_a_udp_flow_from_before_the_rule_follows_it_and_ends_with_it(router, client):
    with router.lan1.datagrams(5353) as server:
        talk = Talk(router)
        assert not talk.reaches(server)
        added = client.add_rule(53, target_port=5353, protocol=bus.UDP)
        eventually(lambda: talk.reaches(server), "the flow follows the rule")
        change(client, added, (bus.DISABLED, bus.BOOL, True))
        eventually(lambda: not talk.reaches(server), "the flow ends with the rule")
        change(client, added, (bus.DISABLED, bus.BOOL, False))
        eventually(lambda: talk.reaches(server), "the flow follows the rule again")
        client.call([20, 5], bus.REMOVE, [(bus.OBJECT, bus.U32, added)])
        eventually(lambda: not talk.reaches(server), "the flow ends with the rule")


def test_a_udp_flow_follows_a_rule_that_leads_elsewhere_now(router, client):
    with router.lan1.datagrams(5353) as first, router.lan2.datagrams(5353) as second:
        added = client.add_rule(53, target_port=5353, protocol=bus.UDP)
        talk = Talk(router)
        eventually(lambda: talk.reaches(first), "the flow begins")
        change(client, added, *lead_to(LAN2))
        eventually(lambda: talk.reaches(second), "the flow follows")
        assert not talk.reaches(first)


def keep_sending(client, sender, server, port=53):
    """Sends without a pause from one source port until a datagram arrives, and returns how many it took at most."""
    server.settimeout(0.01)
    for count in range(1, 200):
        with contextlib.suppress(ConnectionRefusedError):
            sender.sendto(b"x", (ROUTER_WAN, port))
        with contextlib.suppress(TimeoutError):
            return server.recvfrom(100) and count
        client.count_rules(), client.count_rules()  # by then the router has seen what the datagram was shown for
    return None


@pytest.mark.parametrize("host", ["wan", "lan2"])
def test_a_peer_that_never_stops_sending_is_followed_at_once(router, client, host):
    """Its datagrams keep the kernel's entry alive: only a removal of that entry leads it to the new target."""
    other = getattr(router, host)
    with router.lan1.datagrams(5353) as first, router.lan1.datagrams(5454) as second, other.datagrams() as sender:
        assert keep_sending(client, sender, first) is None, "nothing is mapped"
        added = client.add_rule(53, target_port=5353, protocol=bus.UDP)
        assert keep_sending(client, sender, first) <= 5
        client.call([20, 5], bus.REMOVE, [(bus.OBJECT, bus.U32, added)])
        client.add_rule(53, target_port=5454, protocol=bus.UDP)
        assert keep_sending(client, sender, second) <= 5


def test_a_client_that_uses_its_source_port_again_reaches_the_new_target(router, client):
    with router.lan1.listen(8080) as first, router.lan2.listen(8080) as second:
        added = client.add_rule(80)
        near = router.wan.socket()
        near.bind((WAN, 4000))
        near.connect((ROUTER_WAN, 80))
        far, _ = first.accept()
        change(client, added, *lead_to(LAN2))
        assert is_reset(near)
        near.close()

        def connects():
            with router.wan.socket(seconds=1) as again:
                again.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
                again.bind((WAN, 4000))
                try:
                    again.connect((ROUTER_WAN, 80))
                except OSError:
                    return False
                return second.accept()[0]
        eventually(connects, "the client is followed", 3)
        far.close()


@pytest.mark.parametrize("ending", ["remove", "disable", "lead elsewhere", "its owner leaves"])
@pytest.mark.parametrize("speaker", ["client", "server"])
def test_a_connection_is_reset_when_its_rule_ends(router, ending, speaker):
    with router.lan1.listen(8080) as server, bus.Client(router) as owner:
        added = owner.add_rule(80)
        near, far = connection(router, server)
        idle = connection(router, server)
        if ending == "remove":
            owner.call([20, 5], bus.REMOVE, [(bus.OBJECT, bus.U32, added)])
        elif ending == "disable":
            change(owner, added, (bus.DISABLED, bus.BOOL, True))
        elif ending == "lead elsewhere":
            change(owner, added, *lead_to(LAN2))
        else:
            owner.socket.close()
            eventually(lambda: router.rules() == [], "the rules are gone")
        assert is_reset(near if speaker == "client" else far), "the first packet is answered"
        assert is_reset(idle[0]) and is_reset(idle[1])


def test_a_connection_goes_on_when_its_rule_is_changed_to_what_it_was(router, client):
    with router.lan1.listen(8080) as server:
        added = client.add_rule(80)
        near, far = connection(router, server)
        change(client, added, *lead_to(LAN1))
        for port in range(1000, 1050):
            client.call([20, 5], bus.REMOVE, [(bus.OBJECT, bus.U32, client.add_rule(port))])
        assert passes(near, far) and passes(far, near)


def test_an_icmp_error_passes_with_the_flow_that_it_tells_of(router, client):
    """Otherwise the path MTU, for one, would never be learnt through a mapping."""
    client.add_rule(53, target_port=5353, protocol=bus.UDP)
    with router.lan1.datagrams(5353) as server:
        sender = router.wan.datagrams()
        sender.sendto(b"x", (ROUTER_WAN, 53))
        server.connect(server.recvfrom(100)[1])
        sender.close()
        server.send(b"to a port that is closed now")
        with pytest.raises(ConnectionRefusedError):
            server.recv(100)


@labs.tracing
def test_the_table_of_connections_is_never_read(bare_lab):
    """The router's system calls show that it only asks for the removal of single entries."""
    record = bare_lab.directory / "calls"
    bare_lab.routerd = labs.Program(bare_lab, "routerd", wrapper=("strace", "-qq", "-yy", "-e", "trace=%network", "-o",
                                                                  record))
    eventually(bare_lab.bus_answers, "routerd does not serve the bus")
    with bus.Client(bare_lab) as client, bare_lab.lan1.datagrams(5353) as server:
        talk = Talk(bare_lab)
        assert not talk.reaches(server)
        added = client.add_rule(53, target_port=5353, protocol=bus.UDP)
        eventually(lambda: talk.reaches(server), "the flow follows the rule")
        client.call([20, 5], bus.REMOVE, [(bus.OBJECT, bus.U32, added)])
        assert not talk.reaches(server)
    for number in processes(bare_lab, "routerd"):
        os.kill(number, signal.SIGTERM)
    bare_lab.routerd.wait()
    lines = [line for line in record.read_text().splitlines() if "CTNETLINK" in line and line.startswith("send")]
    assert lines and all("IPCTNL_MSG_CT_DELETE" in line and "NLM_F_DUMP" not in line for line in lines), lines


def test_a_rule_costs_the_same_whatever_the_table_of_connections_holds(router, client):
    """Processor time of the router for rules that come one by one, as mappings do, with 30000 entries beside them."""
    number, = processes(router, "routerd")

    def spent():
        return int(pathlib.Path(f"/proc/{number}/schedstat").read_text().split()[0]) / 1e9

    def costs():
        marks = [spent()]
        for port in range(1000, 1200):
            client.call([20, 5], bus.REMOVE, [(bus.OBJECT, bus.U32, client.add_rule(port))])
            time.sleep(0.003)  # in which it would do what it puts off
            marks.append(spent())
        return sorted(after - before for before, after in zip(marks, marks[1:]))
    without = costs()
    fill_connections(router, 30000)
    full = costs()
    assert full[100] < without[100] * 1.5 + 0.0001, "the usual rule"
    assert full[-1] < 0.005, "the dearest rule: a look at the whole table takes 10 ms"


def fill_connections(lab, count):
    """Makes the router's kernel track this many flows from inside to outside."""
    with lab.wan.dropping("input", "udp dport 1000-65535"), lab.lan1.datagrams() as sender:
        for port in range(count):
            sender.sendto(b"", (WAN, 20000 + port))
        eventually(lambda: len(entries(lab, "udp")) >= count, "the flows are tracked")


def test_flows_end_with_their_owners_connection(router):
    with router.lan1.datagrams(5353) as server:
        talk = Talk(router)
        with bus.Client(router) as owner:
            owner.add_rule(53, target_port=5353, protocol=bus.UDP)
            eventually(lambda: talk.reaches(server), "the flow begins")
        eventually(lambda: not talk.reaches(server), "the flow ends with the rule")


def test_a_target_port_of_zero_is_port_zero(router, client):
    count = packets(router.lan1, "udp dport 0")
    talk = Talk(router)

    def arrives():
        before = count()
        talk.socket.sendto(b"x", (ROUTER_WAN, 53))
        time.sleep(0.05)  # the datagram, if there is one, passes two kernels
        return count() > before
    added = client.add_rule(53, target_port=0, protocol=bus.UDP)
    eventually(arrives, "the flow begins")
    client.call([20, 5], bus.REMOVE, [(bus.OBJECT, bus.U32, added)])
    eventually(lambda: not any(arrives() for _ in range(3)), "the flow ends with the rule")
