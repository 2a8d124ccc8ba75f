"""Mappings under attack: targets that would open the router, floods, and hosts that want the same port."""
import concurrent.futures
import time

import pytest

from attacks import installed
from bystanders import watched
from control_point import call, fault, mapping, result
from labs import LAN1, LAN2, ROUTER_LAN, ROUTER_WAN, ROUTER_WAN2, WAN, WAN2

ADDED, DELETED = result("AddPortMapping"), result("DeletePortMapping")
FAILED, CONFLICT = fault(501, "Action Failed"), fault(718, "ConflictInMappingEntry")
SHARE, ALL = 200, 300  # rules that lead to one host, and rules in total
LIMITS = f"""
[nat]
limit-per-client = {SHARE}
limit = {ALL}
"""


@pytest.fixture(scope="module")
def shared_lab(tmp_path_factory):
    with installed.serving(tmp_path_factory.mktemp("lab"), more=LIMITS) as lab:
        yield lab


@pytest.fixture
def path(lab):
    return f"/upnp/control/wanipconn-{lab.interface_id('wan0')}"


def add(host, path, port, **more):
    return call(host, path, "AddPortMapping", mapping(external=port, client=more.pop("client", host.address), **more))


def delete(host, path, port, protocol="TCP"):
    return call(host, path, "DeletePortMapping", mapping(external=port, protocol=protocol)[:3])


# Addresses of the router, loopback, outside and of no host; some as the C library reads them from a text; what is no address.
TARGETS = [ROUTER_LAN, ROUTER_WAN, ROUTER_WAN2, WAN, WAN2, "8.8.8.8", "10.0.0.1", "127.0.0.1", "127.255.255.254", "0.0.0.0",
           "224.0.0.1", "239.255.255.250", "255.255.255.255", "192.0.2.0",
           "127.1", "0x7f.1", "2130706433", "017700000001", "0", "00", "1", "192.0.513", "0xc0000201", "3221225985",
           "0300.0.2.1", "192.0.2.1 and more", "198.51.100.2\t", "192.0.2.255", "0xffffffff", "-1", "", "router", "::1",
           "192.0.2.2;reboot", "$(reboot)", "%s%n%n", "192.0.2.2/24", "192.0.2.256", "9" * 5000]


@watched
def test_no_target_outside_and_no_spelling_of_one_opens_the_router(lab, bystander, path):
    before = lab.table()
    for target in TARGETS:
        for protocol in ("TCP", "UDP"):
            assert add(lab.lan1, path, 80, client=target, protocol=protocol) == FAILED, target
    assert lab.table() == before and lab.rules() == []


@watched
def test_a_flood_of_mappings_fills_the_share_of_one_host_alone(lab, bystander, path):
    answers = [add(lab.lan1, path, port) for port in range(1000, 1000 + 2 * SHARE)]
    assert answers == [ADDED] * SHARE + [FAILED] * SHARE
    assert add(lab.lan2, path, 80) == ADDED
    assert len(lab.rules()) == SHARE + 1
    for port in (*range(1000, 1000 + SHARE), 80):
        assert delete(lab.lan1, path, port) == DELETED


@watched
def test_two_hosts_that_fill_the_table_fill_it_to_its_limit(lab, bystander, path):
    wanted = [(lab.lan1, port) for port in range(1000, 1000 + SHARE)]
    wanted += [(lab.lan2, port) for port in range(2000, 2000 + ALL - SHARE)]
    for host, port in wanted:
        assert add(host, path, port) == ADDED, port
    for host in (lab.lan1, lab.lan2):
        assert add(host, path, 80) == FAILED
    assert len(lab.rules()) == ALL
    for host, port in wanted:
        assert delete(host, path, port) == DELETED


@watched
def test_a_mapping_that_comes_and_goes_keeps_nobody_waiting(lab, bystander, path):
    deadline = time.monotonic() + 0.5
    while time.monotonic() < deadline:
        assert add(lab.lan1, path, 80) == ADDED
        assert add(lab.lan1, path, 80, internal=81, enabled="0") == ADDED  # a change
        assert delete(lab.lan1, path, 80) == DELETED


@watched
def test_long_descriptions_fill_the_share_of_one_host_alone(lab, bystander, path):
    """A host has 1 MiB for them."""
    text = "d" * 60000
    answers = [add(lab.lan1, path, port, description=text) for port in range(1, 25)]
    assert answers == [ADDED] * 17 + [FAILED] * 7
    assert add(lab.lan2, path, 80, description=text) == ADDED
    for port in (*range(1, 18), 80):
        assert delete(lab.lan1, path, port) == DELETED


@watched
def test_of_two_hosts_that_want_a_port_one_gets_it(lab, bystander, path):
    ports = range(2000, 2100)
    hosts = lab.lan1, lab.lan2
    with concurrent.futures.ThreadPoolExecutor(2) as threads:
        wants = lambda host: [add(host, path, port) for port in ports]
        answers = list(zip(*threads.map(wants, hosts)))
    assert {tuple(sorted(pair)) for pair in answers} == {tuple(sorted((ADDED, CONFLICT)))}
    winners = [hosts[pair.index(ADDED)] for pair in answers]
    assert {rule["dstPort"]: rule["toAddress"] for rule in lab.rules()} == {
        port: host.address for port, host in zip(ports, winners)}
    for port, winner in zip(ports, winners):
        assert delete(hosts[winner is lab.lan1], path, port) == DELETED  # by the other one: ports are nobody's own


def test_a_port_leads_to_its_holder_whatever_the_other_host_asks(lab, path):
    assert add(lab.lan1, path, 80) == ADDED
    assert add(lab.lan2, path, 80) == CONFLICT
    assert add(lab.lan2, path, 80, client=LAN1, internal=9090) == ADDED  # who names the same client may change the rest
    assert add(lab.lan2, path, 80, internal=9090) == CONFLICT
    with lab.lan1.listen(9090) as holder, lab.lan2.listen(9090), lab.wan.connect(ROUTER_WAN, 80) as caller:
        made, peer = holder.accept()
        made.close()
        assert peer == caller.getsockname()
    assert [(rule["toAddress"], rule["toPort"]) for rule in lab.rules()] == [(LAN1, 9090)]
    assert delete(lab.lan2, path, 80) == DELETED
    assert add(lab.lan2, path, 80) == ADDED
    assert [rule["toAddress"] for rule in lab.rules()] == [LAN2]
    assert delete(lab.lan1, path, 80) == DELETED
