"""What is told about the use of a rule: the packets and bytes that passed by it, and whose it is."""
import socket

import pytest

import bus
import labs
from labs import LAN1, LAN2, ROUTER_WAN, eventually

OPTIONS, WITH_TRAFFIC = 0xFE000C, 256
PACKETS, BYTES, OWNER = 1100, 1101, 1102
HEADERS = 28  # bytes of IP and UDP before the payload


@pytest.fixture(scope="module")
def router(tmp_path_factory):
    lab = labs.Lab(tmp_path_factory.mktemp("traffic"))
    try:
        lab.start_routerd()
        yield lab
    finally:
        lab.down()


@pytest.fixture
def client(router):
    """Its rules go with it."""
    with bus.Client(router) as connected:
        yield connected
    eventually(lambda: router.rules() == [], "the rules are gone")


def records(client):
    """The records of all rules by id, with their traffic."""
    found, more = {}, ()
    while True:
        page = client.call([20, 5], bus.GET_ALL, [(OPTIONS, bus.U32, WITH_TRAFFIC), *more])
        found |= {record[bus.OBJECT]: record for record in page[bus.OBJECTS]}
        if bus.NEXT not in page:
            return found
        more = ((bus.NEXT, bus.U32, page[bus.NEXT]),)


def traffic(client, rule):
    """The packets and bytes of a rule, which the list and its own record tell alike."""
    listed = records(client)[rule]
    own = client.call([20, 5], bus.GET_OBJECT, [(bus.OBJECT, bus.U32, rule), (OPTIONS, bus.U32, WITH_TRAFFIC)])
    assert (own[PACKETS], own[BYTES]) == (listed[PACKETS], listed[BYTES])
    return own[PACKETS], own[BYTES]


def change(client, rule, *fields):
    client.call([20, 5], bus.SET_OBJECT, [(bus.OBJECT, bus.U32, rule), *fields])


def exchange(router, port, there, back, size=100, host="wan"):
    """Sends so many datagrams from a host to the router's port, of which some are answered."""
    with getattr(router, host).datagrams() as near, router.lan1.datagrams(5353) as server:
        for number in range(there):
            near.sendto(bytes(size), (ROUTER_WAN, port))
            data, peer = server.recvfrom(2000)
            assert len(data) == size
            if number < back:
                server.sendto(bytes(size), peer)
                near.recv(2000)


def add(client, port, **options):
    return client.add_rule(port, LAN1, 5353, protocol=bus.UDP, **options)


def test_packets_and_bytes_of_both_directions_are_counted_exactly(router, client):
    used, unused = add(client, 1001), add(client, 1002)
    assert traffic(client, used) == (0, 0)
    exchange(router, 1001, there=7, back=3)
    assert traffic(client, used) == (10, 10 * (100 + HEADERS))
    exchange(router, 1001, there=1, back=0, size=1000)
    assert traffic(client, used) == (11, 10 * (100 + HEADERS) + 1000 + HEADERS)
    assert traffic(client, unused) == (0, 0)


def test_a_hairpin_connection_counts_too(router, client):
    rule = add(client, 1003)
    exchange(router, 1003, there=4, back=4, host="lan2")
    assert traffic(client, rule)[0] == 8


def test_a_tcp_connection_counts_from_its_first_packet_to_its_last(router, client):
    rule = client.add_rule(1004)
    with router.lan1.listen(8080) as server:
        near = router.wan.connect(ROUTER_WAN, 1004)
        far, _ = server.accept()
        assert traffic(client, rule)[0] == 3, "the handshake"
        near.sendall(b"x" * 500)
        assert len(far.recv(1000)) == 500
        near.shutdown(socket.SHUT_WR)
        assert far.recv(1) == b""
        far.close()
        assert near.recv(1) == b""
        near.close()
    # Three of the handshake, the data, both ends and what confirms the last one, which may still be on its way.
    eventually(lambda: records(client)[rule][PACKETS] >= 7, "the last packet is counted")
    packets, size = traffic(client, rule)
    assert size >= 500 + packets * 40


def test_counts_stay_while_other_rules_come_and_go(router, client):
    rule = add(client, 1005)
    exchange(router, 1005, there=2, back=0)
    for port in range(2000, 2020):
        other = add(client, port)
        client.call([20, 5], bus.REMOVE, [(bus.OBJECT, bus.U32, other)])
    change(client, rule, (1000, bus.BE32, LAN1), (1001, bus.BE32, LAN1))  # to what it was
    exchange(router, 1005, there=1, back=0)
    assert traffic(client, rule)[0] == 3


def test_counts_begin_at_zero_when_a_rule_takes_effect(router, client):
    rule = add(client, 1006)
    exchange(router, 1006, there=2, back=0)
    assert traffic(client, rule)[0] == 2
    change(client, rule, (bus.DISABLED, bus.BOOL, True))
    assert traffic(client, rule) == (0, 0)
    change(client, rule, (bus.DISABLED, bus.BOOL, False))
    assert traffic(client, rule) == (0, 0)
    exchange(router, 1006, there=1, back=0)
    assert traffic(client, rule)[0] == 1
    change(client, rule, (1000, bus.BE32, LAN2), (1001, bus.BE32, LAN2))
    assert traffic(client, rule) == (0, 0)
    client.call([20, 5], bus.REMOVE, [(bus.OBJECT, bus.U32, rule)])
    assert traffic(client, add(client, 1006)) == (0, 0)


def test_packets_that_are_turned_away_do_not_count(router, client):
    rule = add(client, 1007)
    with router.wan.datagrams() as near, router.lan1.datagrams(5353) as server:
        near.sendto(b"x", (ROUTER_WAN, 1007))
        server.recvfrom(100)
        router.router.run("ip", "address", "add", "10.9.9.1/24", "dev", "lan0")
        assert traffic(client, rule)[0] == 1, "another network inside changes nothing"
        router.router.run("ip", "address", "del", "10.9.9.1/24", "dev", "lan0")
        change(client, rule, (1000, bus.BE32, LAN2), (1001, bus.BE32, LAN2))
        near.sendto(b"x", (ROUTER_WAN, 1007))  # of a flow that has ended
        server.settimeout(0.1)
        with pytest.raises(TimeoutError):
            server.recvfrom(100)
        assert traffic(client, rule) == (0, 0)


def test_connections_that_another_table_leads_to_the_same_place_count_too(router, client):
    rule = add(client, 1011)
    router.router.run("nft", "add table ip other; add chain ip other in { type nat hook prerouting priority dstnat; }; "
                             f"add rule ip other in ip daddr {ROUTER_WAN} udp dport 1011 dnat to {LAN1}:5353; "
                             f"add rule ip other in ip daddr {ROUTER_WAN} udp dport 1012 dnat to {LAN1}:5353")
    try:
        exchange(router, 1011, there=2, back=1)
        exchange(router, 1012, there=2, back=1)
    finally:
        router.router.run("nft", "delete table ip other")
    assert traffic(client, rule)[0] == 3


def test_each_of_many_rules_has_its_own_count(router, client):
    ports = {add(client, port): port for port in range(3000, 4100)}  # more than a page
    for port, count in ((3000, 4), (3500, 2), (4099, 3)):
        exchange(router, port, there=count, back=0)
    told = records(client)
    assert len(told) == len(ports)
    assert {ports[rule]: record[PACKETS] for rule, record in told.items() if record[PACKETS] != 0} == {
        3000: 4, 3500: 2, 4099: 3}


def test_a_dynamic_rule_names_its_owner_and_a_stored_one_none(router, client):
    rule = add(client, 1008)
    stored = add(client, 1009, dynamic=False)
    shown = {entry["id"]: entry for entry in router.rules()}
    assert shown[rule]["owner"] >= 1000 and "owner" not in shown[stored]
    lines = router.tkctl("nat", "list").stdout.splitlines()
    assert f"client {shown[rule]['owner']}" in lines[1] and " - " in lines[2]
    client.call([20, 5], bus.REMOVE, [(bus.OBJECT, bus.U32, stored)])


def test_the_command_line_shows_what_was_counted(router, client):
    rule = add(client, 1010)
    exchange(router, 1010, there=12, back=0)
    shown, = router.rules()
    assert (shown["id"], shown["packets"], shown["bytes"]) == (rule, 12, 12 * (100 + HEADERS))
    assert f"  12       {12 * (100 + HEADERS)}" in router.tkctl("nat", "list").stdout
