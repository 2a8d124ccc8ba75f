"""Flows that are not ours go on: those of other rules, of other tables, and of the router itself."""
import re
import socket

import pytest

import bus
import uplink
from flows import Talk, change, connection, go_on, lead_to, packets, translate_too
from labs import LAN1, LAN2, ROUTER_WAN, WAN, eventually


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
