"""Mappings end to end: a real control point sets them, real packets pass them."""
import re
import socket

import pytest

from control_point import call, fault, mapping, result
from labs import LAN1, LAN2, ROUTER_WAN, WAN, eventually


@pytest.fixture
def path(lab):
    return f"/upnp/control/wanipconn-{lab.interface_id('wan0')}"


@pytest.fixture
def server(lab):
    """A TCP server in the LAN."""
    with lab.lan1.listen(8080) as listening:
        yield listening


def add(lab, path, **changed):
    assert call(lab.lan1, path, "AddPortMapping", mapping(**changed)) == result("AddPortMapping")


def delete(lab, path, external=80, protocol="TCP"):
    answer = call(lab.lan1, path, "DeletePortMapping",
                  [("NewRemoteHost", ""), ("NewExternalPort", external), ("NewProtocol", protocol)])
    assert answer == result("DeletePortMapping")


def upnpc(host, *words):
    # -i: otherwise upnpc doubts that a WAN with a documentation address is connected.
    return host.run("upnpc", "-i", "-m", host.address, *words).stdout


def talk(client, server, port=80):
    """Connects the client to the router's external address; returns both ends, and the peer that the server sees."""
    near = client.connect(ROUTER_WAN, port)
    far, peer = server.accept()
    far.settimeout(10)
    near.sendall(b"ping")
    assert far.recv(4) == b"ping"
    far.sendall(b"pong")
    assert near.recv(4) == b"pong"
    return near, far, peer[0]


def is_refused(client, port=80):
    try:
        client.connect(ROUTER_WAN, port, seconds=3).close()
    except (ConnectionRefusedError, TimeoutError):
        return True
    return False


def test_a_control_point_finds_the_gateway(lab):
    told = upnpc(lab.lan1, "-s")
    assert f"IGD : http://192.0.2.1:2828/upnp/control/wanipconn-{lab.interface_id('wan0')}\n" in told
    assert re.search(r"^ExternalIPAddress = 198\.51\.100\.1$", told, re.M)
    assert re.search(r"^Connection Type : IP_Routed$", told, re.M)
    assert re.search(r"^Status : Connected, ", told, re.M)


def test_a_control_point_maps_lists_and_deletes(lab, server):
    assert is_refused(lab.wan)
    told = upnpc(lab.lan1, "-e", "web", "-a", LAN1, "8080", "80", "TCP")
    assert f"external {ROUTER_WAN}:80 TCP is redirected to internal {LAN1}:8080" in told
    told = upnpc(lab.lan2, "-l")
    assert re.search(r"^ ?1 TCP +80->192\.0\.2\.2:8080 +'web' '' 0$", told, re.M), told
    near, far, _ = talk(lab.wan, server)
    near.close()
    far.close()
    assert "UPNP_DeletePortMapping() returned : 0" in upnpc(lab.lan1, "-d", "80", "TCP")
    assert is_refused(lab.wan)
    assert lab.rules() == []


def test_tcp_reaches_the_server_and_the_client_is_seen(lab, path, server):
    add(lab, path)
    near, far, peer = talk(lab.wan, server)
    assert peer == WAN
    near.close()
    far.close()
    delete(lab, path)


def test_nothing_passes_a_deleted_mapping_not_even_on_an_old_connection(lab, path, server):
    add(lab, path)
    near, far, _ = talk(lab.wan, server)
    delete(lab, path)
    assert is_refused(lab.wan)
    far.settimeout(1)

    def cut():
        try:
            near.sendall(b"more")
            return far.recv(4) == b""
        except TimeoutError:
            return True
        except OSError:  # reset, because the packet went to the router itself
            return True
    eventually(cut, "the old connection is cut")
    near.close()
    far.close()


def test_udp_reaches_the_server_until_the_mapping_is_deleted(lab, path):
    with lab.lan1.datagrams(5353) as server, lab.wan.datagrams() as client:
        add(lab, path, external=53, protocol="UDP", internal=5353)
        client.sendto(b"ask", (ROUTER_WAN, 53))
        data, peer = server.recvfrom(100)
        assert data == b"ask" and peer == (WAN, client.getsockname()[1])
        server.sendto(b"answer", peer)
        assert client.recvfrom(100) == (b"answer", (ROUTER_WAN, 53))
        delete(lab, path, external=53, protocol="UDP")
        server.settimeout(0.3)

        def silent():
            try:
                client.sendto(b"again", (ROUTER_WAN, 53))
                server.recvfrom(100)
                return False
            except (TimeoutError, ConnectionRefusedError):
                return True
        eventually(silent, "the flow is forgotten")


def test_a_udp_flow_that_began_before_the_mapping_finds_it(lab, path):
    with lab.lan1.datagrams(5353) as server, lab.wan.datagrams() as client:
        server.settimeout(0.3)
        client.sendto(b"early", (ROUTER_WAN, 53))
        add(lab, path, external=53, protocol="UDP", internal=5353)

        def arrives():
            try:
                client.sendto(b"late", (ROUTER_WAN, 53))
            except ConnectionRefusedError:  # the router's answer to the early one
                client.sendto(b"late", (ROUTER_WAN, 53))
            try:
                return server.recvfrom(100)[0] == b"late"
            except TimeoutError:
                return False
        eventually(arrives, "the stale flow is forgotten")
        delete(lab, path, external=53, protocol="UDP")


def test_tcp_and_udp_of_one_port_are_mapped_apart(lab, path, server):
    add(lab, path, external=80, protocol="UDP", internal=8080)
    assert is_refused(lab.wan)
    add(lab, path, external=80, protocol="TCP", internal=8080)
    near, far, _ = talk(lab.wan, server)
    near.close()
    far.close()
    delete(lab, path, protocol="UDP")
    delete(lab, path, protocol="TCP")


def test_a_changed_mapping_leads_to_its_new_port(lab, path, server):
    with lab.lan1.listen(9090) as other:
        add(lab, path)
        near, far, _ = talk(lab.wan, server)
        add(lab, path, internal=9090)
        second, end, _ = talk(lab.wan, other)
        for connection in (near, far, second, end):
            connection.close()
        delete(lab, path)


def test_a_disabled_mapping_passes_nothing_until_it_is_enabled(lab, path, server):
    add(lab, path, enabled="0")
    assert is_refused(lab.wan)
    add(lab, path, enabled="1")
    near, far, _ = talk(lab.wan, server)
    near.close()
    far.close()
    add(lab, path, enabled="0")
    assert is_refused(lab.wan)
    delete(lab, path)


@pytest.mark.parametrize("client", ["lan1", "lan2"])
def test_a_lan_host_reaches_the_server_by_the_external_address(lab, path, server, client):
    add(lab, path)
    near, far, _ = talk(getattr(lab, client), server)
    near.close()
    far.close()
    delete(lab, path)


def test_another_host_may_be_the_target(lab, path):
    with lab.lan2.listen(22) as server:
        add(lab, path, external=2222, internal=22, client=LAN2)
        near, far, _ = talk(lab.wan, server, 2222)
        near.close()
        far.close()
        delete(lab, path, 2222)


def test_a_mapping_is_one_element_of_the_kernels_map(lab, path):
    add(lab, path)
    assert re.search(r"198\.51\.100\.1 \. tcp \. 80 : 192\.0\.2\.2 \. 8080", lab.table())
    delete(lab, path)
    assert "192.0.2.2" not in lab.table()


def test_the_table_belongs_to_the_router_alone(lab, path, server):
    add(lab, path)
    flushed = lab.router.run("nft", "flush", "ruleset", check=False)
    assert flushed.returncode == 0 or "not permitted" in flushed.stderr
    assert lab.router.run("nft", "flush", "map", "ip", "tk", "dstnat", check=False).returncode != 0
    assert lab.router.run("nft", "delete", "table", "ip", "tk", check=False).returncode != 0
    near, far, _ = talk(lab.wan, server)
    near.close()
    far.close()
    delete(lab, path)


def test_the_rule_is_told_to_the_administrator(lab, path):
    add(lab, path)
    rules = lab.rules()
    assert rules == [{"id": rules[0]["id"], "disabled": False, "dynamic": True, "chain": "dstnat",
                      "dstAddress": ROUTER_WAN, "protocol": "tcp", "dstPort": 80, "toAddress": LAN1, "toPort": 8080,
                      "owner": 80, "packets": 0, "bytes": 0}]
    assert "upnpd" in lab.tkctl("nat", "list").stdout
    delete(lab, path)


def test_two_hundred_mappings_are_set_and_deleted(lab, path):
    ports = range(10000, 10200)
    for port in ports:
        add(lab, path, external=port)
    assert [rule["dstPort"] for rule in sorted(lab.rules(), key=lambda rule: rule["id"])] == list(ports)
    for port in ports:
        delete(lab, path, port)
    assert lab.table().count("192.0.2.2") == 0


def test_the_highest_and_lowest_ports_are_mapped(lab, path, server):
    for port in (1, 65535):
        add(lab, path, external=port)
        near, far, _ = talk(lab.wan, server, port)
        near.close()
        far.close()
        delete(lab, path, port)


def test_large_transfers_pass_unharmed(lab, path, server):
    add(lab, path)
    near, far, _ = talk(lab.wan, server)
    sent = bytes(range(256)) * 4096
    received = bytearray()
    near.settimeout(10)
    for start in range(0, len(sent), 65536):
        near.sendall(sent[start:start + 65536])
        while len(received) < start + 65536:
            received += far.recv(65536)
    near.shutdown(socket.SHUT_WR)
    assert far.recv(1) == b"" and bytes(received) == sent
    near.close()
    far.close()
    delete(lab, path)


def test_a_host_that_fills_its_share_of_descriptions_harms_no_other(lab, path):
    text = "x" * 100000
    full = fault(501, "Action Failed")
    answers = []
    for port in range(1001, 1012):  # 1.1 MB, of 1 MiB
        answers.append(call(lab.lan1, path, "AddPortMapping", mapping(external=port, description=text)))
    assert answers == [result("AddPortMapping")] * 10 + [full]
    assert call(lab.lan1, path, "AddPortMapping", mapping(external=1011, description="x" * 50000)) == full
    assert "add nat failed: the descriptions of this host's mappings take too much memory" in lab.upnpd.lines
    assert call(lab.lan2, path, "AddPortMapping",
                mapping(external=1011, client=LAN2, description=text)) == result("AddPortMapping")
    for port in range(1001, 1012):
        delete(lab, path, port)
    add(lab, path, external=1001, description=text)  # deleted mappings no longer count
    delete(lab, path, 1001)
