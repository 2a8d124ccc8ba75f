"""The list of mappings for the administrator: who asked for what and since when, and what was refused."""
import datetime
import re

import pytest

import bus
import labs
from control_point import call, fault, mapping, result
from labs import LAN1, LAN2, ROUTER_WAN

MAPPINGS = [80, 1]
INTERFACE, PORT, PROTOCOL, CLIENT, CLIENT_PORT, ENABLED, DESCRIPTION, REQUESTED_BY, SINCE = range(1, 10)
REFUSALS = 2
NO_SUCH_COMMAND = 0xFE0002
HEADERS = 28  # bytes of IP and UDP before the payload


@pytest.fixture(scope="module")
def shared_lab(tmp_path_factory):
    """With two external interfaces."""
    lab = labs.Lab(tmp_path_factory.mktemp("lab"))
    try:
        yield lab.serve(external=("wan0", "wan1"))
    finally:
        lab.down()


@pytest.fixture
def served(lab):
    """The tests leave the gateway without mappings."""
    yield lab
    lab.disable()
    lab.enable()


def ask_for(lab, interface, host=None, **wanted):
    """Asks for a mapping, and returns the whole answer."""
    return call(host or lab.lan1, f"/upnp/control/wanipconn-{lab.interface_id(interface)}", "AddPortMapping",
                mapping(**wanted))


def add(lab, interface, host=None, **wanted):
    assert ask_for(lab, interface, host, **wanted) == result("AddPortMapping")


def entry(lab, interface, port, **changed):
    return {"interface": lab.interface_id(interface), "externalPort": port, "protocol": "tcp", "internalClient": LAN1,
            "internalPort": 8080, "enabled": True, "description": "web", "requestedBy": LAN1, "packets": 0, "bytes": 0,
            **changed}


def seconds(text):
    return datetime.datetime.strptime(text, "%Y-%m-%dT%H:%M:%S%z").timestamp()


def test_mappings_of_all_external_interfaces_are_listed_whole(served):
    began = labs.second_of_now()
    told = served.lan1.run("upnpc", "-i", "-m", LAN1, "-e", "by upnpc", "-a", LAN1, "8080", "80", "TCP").stdout
    external = re.search(r"external (\S+):80 TCP is redirected", told)[1]
    chosen, other = ("wan0", "wan1") if external == ROUTER_WAN else ("wan1", "wan0")
    add(served, other, served.lan2, external=53, protocol="UDP", internal=5353, enabled="0", description='"\x7f\u00e9')
    listed = served.query("upnp", "mappings")
    times = [seconds(one.pop("since")) for one in listed]
    assert all(began <= each <= labs.second_of_now() for each in times)
    expected = [entry(served, chosen, 80, description="by upnpc"),
                entry(served, other, 53, protocol="udp", internalPort=5353, enabled=False, description='"\x7f\u00e9',
                      requestedBy=LAN2)]
    assert listed == sorted(expected, key=lambda one: one["interface"])
    assert list(served.query("upnp", "mappings")[0]) == [
        "interface", "externalPort", "protocol", "internalClient", "internalPort", "enabled", "description", "requestedBy",
        "since", "packets", "bytes"]
    table = served.tkctl("upnp", "mappings").stdout.splitlines()
    assert re.split("  +", table[0]) == ["INTERFACE", "PROTOCOL", "PORT", "TO", "ENABLED", "DESCRIPTION", "ASKED BY", "SINCE",
                                         "PACKETS", "BYTES"]
    assert len(table) == 3 and any(line.startswith(other) and '"\\x7f\u00e9  ' in line for line in table)


def test_each_mapping_names_its_rule_and_who_asked_last(served):
    add(served, "wan0")
    add(served, "wan0", served.lan2, description="again")
    with bus.Client(served) as client:
        record, = client.call(MAPPINGS, bus.GET_ALL)[bus.OBJECTS]
        assert client.call(MAPPINGS, bus.GET_COUNT)[bus.COUNT] == 1
    assert record[bus.OBJECT] == served.rules()[0]["id"]
    assert (record[DESCRIPTION], record[REQUESTED_BY]) == ("again", LAN2)


def test_the_traffic_of_each_mapping_is_counted_both_ways(served):
    add(served, "wan0", external=53, protocol="UDP", internal=5353)
    add(served, "wan0", external=54, protocol="UDP", internal=5354)
    with served.wan.datagrams() as near, served.lan1.datagrams(5353) as server:
        for _ in range(3):
            near.sendto(bytes(100), (ROUTER_WAN, 53))
            _, peer = server.recvfrom(2000)
        server.sendto(bytes(10), peer)
        near.recvfrom(2000)
    used = {one["externalPort"]: (one["packets"], one["bytes"]) for one in served.query("upnp", "mappings")}
    assert used == {53: (4, 3 * (HEADERS + 100) + HEADERS + 10), 54: (0, 0)}


def test_a_thousand_mappings_are_listed_while_others_come_and_go(served):
    path = f"/upnp/control/wanipconn-{served.interface_id('wan0')}"
    for port in range(1000, 2000):
        assert call(served.lan1, path, "AddPortMapping", mapping(port)).startswith("HTTP/1.1 200 OK\r\n"), port
    listed, pages, start = [], 0, []
    with bus.Client(served) as client:
        while True:
            page = client.call(MAPPINGS, bus.GET_ALL, start)
            listed += [(record[INTERFACE], record[PORT]) for record in page[bus.OBJECTS]]
            if bus.NEXT not in page:
                break
            pages += 1
            start = [(bus.NEXT, bus.U32, page[bus.NEXT])]
            # Before, at and after the place where the list goes on.
            last = listed[-1][1]
            for port in (last - 1, last + 1):
                call(served.lan1, path, "DeletePortMapping",
                     [("NewRemoteHost", ""), ("NewExternalPort", port), ("NewProtocol", "TCP")])
            add(served, "wan0", external=pages)
            add(served, "wan0", external=10000 + pages)
            add(served, "wan1", external=80 + pages)
    assert pages == 3
    wan0, wan1 = served.interface_id("wan0"), served.interface_id("wan1")
    gone = {1256, 1513, 1770}  # each is the first after a page
    assert listed == [(wan0, port) for port in range(1000, 2000) if port not in gone] + \
        [(wan0, 10000 + page) for page in (1, 2, 3)] + [(wan1, 80 + page) for page in (1, 2, 3)]
    assert len(served.query("upnp", "mappings")) == 1000 - 6 + 9


def test_the_mappings_of_an_interface_that_goes_are_gone_and_the_others_stay(served):
    add(served, "wan0")
    add(served, "wan1", external=81)
    spare = next(item["id"] for item in served.query("upnp", "interface", "list") if item["name"] == "wan0")
    served.tkctl("upnp", "interface", "set", spare, "disabled=yes")
    assert [one["externalPort"] for one in served.query("upnp", "mappings")] == [81]
    served.tkctl("upnp", "interface", "set", spare, "disabled=no")
    assert [one["externalPort"] for one in served.query("upnp", "mappings")] == [81]


def test_what_was_refused_is_told_with_its_reason(served):
    began = labs.second_of_now()
    add(served, "wan0", external=90)
    refused = [
        ({"external": 91, "lease": "60"}, fault(725, "OnlyPermanentLeasesSupported")),
        ({"external": 91, "lease": "60"}, fault(725, "OnlyPermanentLeasesSupported")),
        ({"external": 90, "client": LAN2, "protocol": "TCP"}, fault(718, "ConflictInMappingEntry")),
        ({"external": 92, "client": "127.0.0.1", "protocol": "UDP"}, fault(501, "Action Failed")),
    ]
    for wanted, answer in refused:
        assert ask_for(served, "wan0", served.lan2, **wanted) == answer
    with bus.Client(served) as client:
        records = client.call(MAPPINGS, REFUSALS)[bus.OBJECTS][-3:]
    assert all(began <= record.pop(1) <= labs.second_of_now() for record in records)
    assert [list(record.values()) for record in records] == [
        [LAN2, 91, 6, LAN1, 8080, 725, "a mapping for a limited time is not supported", 2],
        [LAN2, 90, 6, LAN2, 8080, 718, f"the port is mapped to {LAN1} already", 1],
        [LAN2, 92, 17, "127.0.0.1", 8080, 501, "target 127.0.0.1 refused: it is a loopback address", 1],
    ]


@pytest.mark.parametrize("command", [bus.ADD, bus.REMOVE, bus.SET_OBJECT, bus.SET])
def test_nothing_can_be_changed_there(served, command):
    add(served, "wan0")
    rule = served.rules()[0]["id"]
    with bus.Client(served) as client, pytest.raises(bus.BusError) as refused:
        client.call(MAPPINGS, command, [(bus.OBJECT, bus.U32, rule), (bus.DISABLED, bus.BOOL, True)])
    assert refused.value.code == NO_SUCH_COMMAND
    assert [one["externalPort"] for one in served.query("upnp", "mappings")] == [80]
