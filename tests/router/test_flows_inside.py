"""The way back from inside, and targets that are not inside any more."""
import pytest

import bus
import labs
from flows import connection, is_reset
from labs import LAN1, ROUTER_LAN, ROUTER_WAN, WAN, eventually
from routerusers import configure


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
