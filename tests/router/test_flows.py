"""Flows end with the rule that began them, and no other flows do; and the way back from inside."""
import contextlib
import os
import pathlib
import re
import signal
import socket
import time

import pytest

import bus
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

    def send(self):
        with contextlib.suppress(ConnectionRefusedError):
            self.socket.sendto(b"x", (ROUTER_WAN, self.port))

    def reaches(self, server):
        """True when a datagram sent now arrives at the server within a moment."""
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
    """Makes a host's kernel count packets that match at its input; returns a function that gives the count."""
    host.run("nft", f"add table ip seen; add chain ip seen in {{ type filter hook input priority -300; }}; "
                    f"add rule ip seen in {match} counter")

    def count():
        return int(re.search(r"counter packets (\d+)", host.run("nft", "list", "chain", "ip", "seen", "in").stdout)[1])
    return count


def translate_too(lab, *rules):
    """The administrator's own table that translates destinations, at the usual priority."""
    lab.router.run("nft", "add table ip other; add chain ip other in { type nat hook prerouting priority dstnat; }; "
                   + "; ".join(f"add rule ip other in {rule}" for rule in rules))


def change(client, rule, *fields):
    client.call([20, 5], bus.SET_OBJECT, [(bus.OBJECT, bus.U32, rule), *fields])


def lead_to(target):
    """The fields that lead a rule elsewhere."""
    return (1000, bus.BE32, target), (1001, bus.BE32, target)


def is_reset(end):
    """True when the connection was reset, or is once it sends something; an earlier answer may still come first."""
    end.settimeout(0.2)
    try:
        end.sendall(b"x")
        while end.recv(100):
            pass
        return False  # it was closed, in peace
    except (ConnectionResetError, BrokenPipeError):
        return True
    except TimeoutError:
        return False


def go_on(near, far):
    """True when both ends hear each other for as long as anything could still end the connection."""
    deadline = time.monotonic() + 0.3
    while time.monotonic() < deadline:
        if not passes(near, far) or not passes(far, near):
            return False
    return True


def connection(lab, server, port=80, host="wan"):
    """Both ends of a connection to a mapped port. Data has passed over it."""
    near = getattr(lab, host).connect(ROUTER_WAN, port)
    far, _ = server.accept()
    assert passes(near, far)
    return near, far


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


def test_the_labels_of_others_stay_as_they_are(router, client):
    router.router.run("nft", "add table ip other; add chain ip other in { type filter hook prerouting priority mangle; }; "
                             "add rule ip other in ct label set 5; add rule ip other in ct label set 100; "
                             "add chain ip other pass { type filter hook forward priority filter; }; "
                             "add rule ip other pass ct label 5 ct label 100 ct label 116 counter")
    client.add_rule(53, target_port=5353, protocol=bus.UDP)
    with router.lan1.datagrams(5353) as server:
        assert Talk(router).reaches(server)
    seen = re.search(r"counter packets (\d+)", router.router.run("nft", "list", "table", "ip", "other").stdout)
    assert int(seen[1]) > 0


def test_a_rule_for_an_address_that_the_router_does_not_hold_catches_nothing(router, client):
    client.add_rule(443, destination=WAN)
    with router.lan1.listen(8080) as mapped, router.wan.listen(443) as real:
        router.lan2.connect(WAN, 443).close()
        real.accept()
        mapped.settimeout(0.1)
        with pytest.raises(TimeoutError):
            mapped.accept()


# Others come first.

@pytest.mark.parametrize("order", ["his table is loaded first", "ours is first"])
@pytest.mark.parametrize("kind", ["dnat", "redirect"])
def test_a_forward_of_the_administrator_wins_and_its_connections_are_his(bare_lab, order, kind):
    uplink.masquerade(bare_lab)
    his = f"tcp dport 80 dnat to {LAN2}:9090" if kind == "dnat" else "tcp dport 80 redirect to :9090"
    if order == "ours is first":
        bare_lab.start_routerd()
    translate_too(bare_lab, f"ip daddr {ROUTER_WAN} {his}")
    if order != "ours is first":
        bare_lab.start_routerd()
    host = bare_lab.lan2 if kind == "dnat" else bare_lab.router
    theirs = host.socket()
    theirs.bind(("0.0.0.0", 9090))
    theirs.listen(5)
    with bus.Client(bare_lab) as client, bare_lab.lan1.listen(8080) as ours:
        near, far = connection(bare_lab, theirs)
        added = client.add_rule(80)
        assert go_on(near, far), "his connection from before"
        another = connection(bare_lab, theirs)
        change(client, added, *lead_to(LAN2))
        client.call([20, 5], bus.REMOVE, [(bus.OBJECT, bus.U32, added)])
        bare_lab.routerd.kill()
        bare_lab.start_routerd()
        for one, other in ((near, far), another):
            assert go_on(one, other)
        ours.settimeout(0.1)
        with pytest.raises(TimeoutError):
            ours.accept()


def test_a_connection_that_the_administrators_former_forward_began_goes_on(router, client):
    translate_too(router, f"ip daddr {ROUTER_WAN} tcp dport 80 dnat to {LAN1}:8080")
    with router.lan1.listen(8080) as former, router.lan2.listen(8080) as present:
        near, far = connection(router, former)
        router.router.run("nft", "delete", "table", "ip", "other")
        client.add_rule(80, LAN2)
        assert go_on(near, far), "it was never ours to end"
        with router.wan.connect(ROUTER_WAN, 80):
            present.accept()


def test_connections_to_the_router_itself_survive_the_mapping_of_their_port(router, client):
    made = router.router.socket()
    made.bind((ROUTER_WAN, 2222))
    made.listen(1)
    near, far = connection(router, made, 2222)
    with router.lan1.listen(22) as server:
        client.add_rule(2222, target_port=22)
        with router.wan.connect(ROUTER_WAN, 2222):
            server.accept()
        assert go_on(near, far)


def test_datagrams_that_another_table_leads_to_the_router_keep_their_entry(router, client):
    """They look like those of a flow from before the mapping, but would come here again."""
    translate_too(router, f"ip daddr {ROUTER_WAN} udp dport 53 redirect to :53")
    begun = packets(router.router, "udp dport 53 ct state new")
    client.add_rule(53, target_port=5353, protocol=bus.UDP)
    service = router.router.socket(socket.SOCK_DGRAM)
    service.bind((ROUTER_WAN, 53))
    with router.wan.datagrams() as asker:
        for number in range(50):
            asker.sendto(b"%d" % number, (ROUTER_WAN, 53))
            question, peer = service.recvfrom(100)
            service.sendto(question, peer)
            assert asker.recv(100) == b"%d" % number
    assert begun() == 1, "an entry that is removed begins anew"


# The end of the router, and its next start.

def test_flows_that_are_alive_end_with_the_router_and_the_others_at_its_next_start(router):
    with bus.Client(router) as client, router.lan1.listen(8080) as server, router.lan1.datagrams(5353) as datagrams:
        client.add_rule(80)
        client.add_rule(53, target_port=5353, protocol=bus.UDP)
        alive, idle = connection(router, server), connection(router, server)
        talk = Talk(router)
        assert talk.reaches(datagrams)
        router.routerd.process.terminate()
        while router.routerd.running():
            talk.send()
            with contextlib.suppress(OSError):
                alive[0].send(b"x")
        assert router.routerd.wait() == 0
        assert is_reset(alive[0])
        assert router.table() == ""
        assert not talk.reaches(datagrams)
        router.start_routerd()
        assert is_reset(idle[0])


@pytest.mark.parametrize("beside", [False, True])
def test_flows_that_a_killed_router_left_end_at_its_next_start_and_no_others_do(router, beside):
    if beside:
        translate_too(router, f"ip daddr {ROUTER_WAN} udp dport 55 dnat to {LAN2}:5555",
                      f"ip daddr {ROUTER_WAN} tcp dport 81 dnat to {LAN2}:8181")
    with (router.lan1.datagrams(5353) as server, router.lan1.datagrams(5454) as kept, router.lan1.listen(8080) as web,
          router.lan1.listen(8888) as kept_web, router.lan2.datagrams(5555) as theirs, router.lan2.listen(8181) as other):
        with bus.Client(router) as client:
            client.add_rule(53, target_port=5353, protocol=bus.UDP)
            client.add_rule(80)
            client.add_rule(54, target_port=5454, protocol=bus.UDP, dynamic=False)
            client.add_rule(88, target_port=8888, dynamic=False)
            goes, stays, his = Talk(router), Talk(router, 54), Talk(router, 55)
            near, far = connection(router, web)
            stored = connection(router, kept_web, 88)
            of_other = connection(router, other, 81) if beside else None
            assert goes.reaches(server) and stays.reaches(kept)
            assert his.reaches(theirs) == beside
            router.routerd.kill()
        assert goes.reaches(server) and passes(near, far), "the kernel keeps to what it has once decided"
        router.start_routerd()
        assert not goes.reaches(server)
        assert is_reset(near)
        assert stays.reaches(kept)
        assert passes(*stored) and passes(stored[1], stored[0])
        if beside:
            assert his.reaches(theirs) and passes(*of_other)


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
            client.call([20, 5], bus.REMOVE, [(bus.OBJECT, bus.U32, added)])
            near.sendall(b"x")
            assert far.recv(1) == b"x"
        assert talk.reaches(datagrams)


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
        bare_lab.routerd.process.terminate()
        while bare_lab.routerd.running():
            talk.send()
        assert bare_lab.routerd.wait() == 0
        assert not talk.reaches(server)


def test_a_connection_from_inside_by_the_external_address_ends_with_its_rule(router, client):
    added = client.add_rule(80)
    with router.lan1.listen(8080) as server:
        near, _ = connection(router, server, host="lan2")
        client.call([20, 5], bus.REMOVE, [(bus.OBJECT, bus.U32, added)])
        assert is_reset(near)


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
        with pytest.raises(ConnectionRefusedError):
            wan.connect(ROUTER_WAN, 80, seconds=2)
        server.settimeout(0.1)
        with pytest.raises(TimeoutError):
            server.accept()


def test_nobody_is_led_to_a_target_that_is_not_inside_any_more(router, client):
    client.add_rule(80)
    with router.lan1.listen(8080) as server, router.wan2.socket() as relay:
        near, _ = connection(router, server)
        router.wan2.run("ip", "address", "add", f"{LAN1}/32", "dev", "eth0")
        relay.bind((LAN1, 8080))
        relay.listen(1)
        router.router.run("ip", "link", "set", "lan0", "down")
        router.router.run("ip", "route", "add", LAN1, "via", labs.WAN2)
        eventually(lambda: "elements" not in router.router.run("nft", "list", "set", "ip", "tk", "inside").stdout,
                   "nothing is inside")
        assert is_reset(near)
        with pytest.raises(ConnectionRefusedError):
            router.wan.connect(ROUTER_WAN, 80, seconds=2)


def test_nobody_is_led_to_a_target_that_has_become_the_router_itself(router, client):
    target = "192.0.2.50"
    client.add_rule(80, target=target)
    router.router.run("ip", "address", "add", f"{target}/32", "dev", "lan0")
    with router.router.socket() as service:
        service.bind((target, 8080))
        service.listen(1)
        with pytest.raises(ConnectionRefusedError):
            router.wan.connect(ROUTER_WAN, 80, seconds=2)
