"""Switching on and off as a whole, and the start and stop of each role, line by line and request by request."""
import re

from bus import ADDRESSES, CHANGED, INTERFACES, NAT, OBJECT, REMOVE, SET, SET_OBJECT, Refusal, address, item, settings
from control_point import (COMMON, CONNECTION, Listener, advert, bare, call, file_answer, get, mapping, result, root_pairs,
                           table_order, wan_pairs)
from labs import DATA, ROUTER_LAN, ROUTER_WAN, eventually
from worlds import LAN, WAN, WAN2

IDENTITY = "0123abcd"
ROOT = root_pairs(IDENTITY)
TREE = table_order(ROOT, wan_pairs(IDENTITY, WAN))

ENABLED = ["add dev: inside", "set type: 2 1", "intr: 0 0", "add dev: uplink", "set type: 1 2", "start ext: uplink",
           "initial external addr: 0.0.0.0", "enable", "dev: 1 disabled: 0 running: 1", "dev: 2 disabled: 0 running: 1",
           "dev: 1 add address: 192.0.2.1 (10)", "dev: 1 ip: 192.0.2.1", "intr: 0 3221225985",
           "start int: inside 192.0.2.1", "sendAdverts", "dev: 2 add address: 198.51.100.1 (20)",
           "dev: 2 ip: 198.51.100.1", "set external ip 198.51.100.1", "intr: 1 3221225985"]
DISABLED = ["disable", "stop int: inside", "sendAdverts", "stop ext: uplink"]


def sockets(world):
    """The ports that are open on the router, each with its device."""
    lines = world.lab.router.run("ss", "-Hlnutp").stdout.splitlines()
    return sorted(re.findall(r"0\.0\.0\.0%(\w+):(\d+)", "\n".join(lines)))


def memberships(world, device):
    told = world.lab.router.run("ip", "-4", "maddress", "show", "dev", device).stdout
    return re.findall(r"inet +(\S+)", told)


def test_start_disabled_writes_nothing_and_its_end_says_exit(world):
    world.start()
    assert world.daemon.lines == []
    assert world.stop() == 0
    assert world.daemon.lines == ["exit"]


def test_start_enabled_writes_exactly_these_lines(world):
    world.serve()
    world.restart()
    assert world.daemon.lines == ENABLED


def test_enabling_writes_exactly_these_lines(world):
    world.start()
    for one in (item(LAN, 2), item(WAN, 1)):
        world.router.ask(0xFE0005, one)
    assert world.log_of(SET, settings(True)) == ENABLED


def test_disabling_writes_exactly_these_lines(world):
    world.serve()
    assert world.log_of(SET, settings(False)) == DISABLED


def test_the_end_writes_exactly_these_lines(world):
    world.serve()
    mark = world.daemon.mark()
    assert world.stop() == 0
    assert world.daemon.since(mark) == [*DISABLED, "exit"]


def test_the_end_asks_for_the_removal_of_rules_and_subscriptions(world):
    world.serve()
    for port in (80, 22):
        assert call(world.lab.lan1, f"/upnp/control/wanipconn-{WAN}", "AddPortMapping",
                    mapping(external=port)) == result("AddPortMapping")
    world.take_requests()
    assert world.stop() == 0
    assert [(path, command, fields[:2]) for path, command, fields in world.router.requests] == [
        ((0,), 3, [(1, "u32[]", list(INTERFACES)), (2, "u32", CHANGED)]),
        ((0,), 3, [(1, "u32[]", list(ADDRESSES)), (2, "u32", CHANGED)]),
        (NAT, REMOVE, [(0xFF0001, "u32[]", [20, 5]), (OBJECT, "u32", 2)]),  # in the order of the ports
        (NAT, REMOVE, [(0xFF0001, "u32[]", [20, 5]), (OBJECT, "u32", 1)])]


def test_enabled_again_at_once_it_serves_as_before(world):
    world.serve()
    world.router.ask(SET, settings(False))
    assert sockets(world) == []
    # The addresses are known already, so both roles start as soon as their interface is read.
    assert world.log_of(SET, settings(True)) == [
        "add dev: inside", "set type: 2 1", "intr: 0 3221225985", "start int: inside 192.0.2.1", "sendAdverts",
        "add dev: uplink", "set type: 1 2", "start ext: uplink", "initial external addr: 198.51.100.1", "sendAdverts",
        "enable", "dev: 1 disabled: 0 running: 1", "dev: 2 disabled: 0 running: 1",
        "dev: 1 set address: 192.0.2.1 (10)", "dev: 2 set address: 198.51.100.1 (20)", "intr: 1 3221225985"]
    assert sockets(world) == [("lan0", "1900"), ("lan0", "2828")]


def test_an_internal_interface_has_one_search_socket_and_one_listener_of_its_own(world):
    world.router.interfaces.append(world.wan2)
    world.router.addresses.append(address(30, "203.0.113.1", WAN2))
    world.serve(item(LAN, 2), item(WAN, 1), item(WAN2, 2))
    assert sockets(world) == [("lan0", "1900"), ("lan0", "2828"), ("wan1", "1900"), ("wan1", "2828")]
    for device in ("lan0", "wan1"):
        assert memberships(world, device).count("239.255.255.250") == 1
    assert "239.255.255.250" not in memberships(world, "wan0")
    world.router.ask(SET, settings(False))
    assert sockets(world) == []
    for device in ("lan0", "wan1"):
        assert "239.255.255.250" not in memberships(world, device)


def test_a_started_role_is_not_started_again(world):
    world.serve()
    assert world.log_after(world.router.tell_addresses, address(10, ROUTER_LAN, LAN)) == [
        "dev: 1 set address: 192.0.2.1 (10)"]
    assert sockets(world) == [("lan0", "1900"), ("lan0", "2828")]


def test_two_external_interfaces_differ_by_their_number_and_share_their_documents(world):
    world.router.interfaces.append(world.wan2)
    world.serve(item(LAN, 2), item(WAN, 1), item(WAN2, 1))
    for number in (WAN, WAN2):
        assert get(world.lab.lan1, f"/wancommonifc-{number}.xml") == file_answer((DATA / "wancommonifcfg.xml").read_text())
        assert get(world.lab.lan1, f"/wanipconn-{number}.xml") == file_answer((DATA / "wanipconn.xml").read_text())
        for service, name, action in ((COMMON, "wancommonifc", "GetCommonLinkProperties"),
                                      (CONNECTION, "wanipconn", "GetExternalIPAddress")):
            assert call(world.lab.lan1, f"/upnp/control/{name}-{number}", action,
                        service=service).startswith("HTTP/1.1 200 OK\r\n")
    document = get(world.lab.lan1, "/gateway.xml")
    assert re.findall(r"<controlURL>(.*)</controlURL>", document) == [
        "/upnp/control/osinfo", "/upnp/control/wancommonifc-2", "/upnp/control/wanipconn-2",
        "/upnp/control/wancommonifc-3", "/upnp/control/wanipconn-3"]


def test_a_stopped_external_interface_leaves_no_service_behind(world):
    world.serve()
    world.router.ask(REMOVE, [(OBJECT, "u32", 2)])
    for name in ("wancommonifc", "wanipconn"):
        assert call(world.lab.lan1, f"/upnp/control/{name}-{WAN}", "GetTotalBytesSent") == bare("404 Not Found")
    assert "<deviceList>" not in get(world.lab.lan1, "/gateway.xml")
    # The files stay in the table of files: nothing takes them out of it.
    assert get(world.lab.lan1, f"/wanipconn-{WAN}.xml") == file_answer((DATA / "wanipconn.xml").read_text())


def test_an_external_interface_needs_no_address(world):
    world.router.addresses = [address(10, ROUTER_LAN, LAN)]
    world.serve()
    assert call(world.lab.lan1, f"/upnp/control/wanipconn-{WAN}", "GetExternalIPAddress") == result(
        "GetExternalIPAddress", [("NewExternalIPAddress", "0.0.0.0")])


def test_a_start_with_the_flag_for_disconnecting_off_refuses_from_the_beginning(world):
    world.serve()
    world.router.ask(SET, settings(True, False, True))
    world.restart()
    world.take_requests()
    answer = call(world.lab.lan1, f"/upnp/control/wanipconn-{WAN}", "ForceTermination")
    assert "<errorCode>501</errorCode>" in answer
    assert world.take_requests() == []


def test_enabling_announces_the_whole_tree_and_disabling_takes_leave_of_it(world):
    listener = Listener(world.lab.lan1)
    world.serve()
    heard = [listener.next() for _ in TREE]
    assert [text for text, _, _ in heard] == [advert("alive", *pair) for pair in TREE]
    assert {(sender, ttl) for _, sender, ttl in heard} == {((ROUTER_LAN, 1900), 4)}
    world.router.ask(SET, settings(False))
    heard = [listener.next() for _ in TREE]
    assert [text for text, _, _ in heard] == [advert("byebye", *pair) for pair in TREE]
    assert {(sender, ttl) for _, sender, ttl in heard} == {((ROUTER_LAN, 1900), 4)}
    assert listener.until(world.lab.lan2, "no more") == []
    listener.close()


def test_the_goodbye_of_the_internal_side_is_for_what_the_tree_still_holds(world):
    """Items are stopped in their order: an external one that comes first is not in the goodbye of the second."""
    listener = Listener(world.lab.lan1)
    world.serve(item(WAN, 1), item(LAN, 2))
    wan, root = table_order(wan_pairs(IDENTITY, WAN)), table_order(ROOT)
    listener.receive(len(TREE))
    world.router.ask(SET, settings(False))
    assert listener.receive(len(wan) + len(root)) == [advert("byebye", *pair) for pair in [*wan, *root]]
    assert listener.until(world.lab.lan2, "no more") == []
    listener.close()


def test_each_internal_interface_announces_its_own_address(world):
    world.router.interfaces.append(world.wan2)
    world.router.addresses.append(address(30, "203.0.113.1", WAN2))
    inside, second = Listener(world.lab.lan1), Listener(world.lab.wan2)
    world.serve(item(LAN, 2), item(WAN, 1), item(WAN2, 2))
    assert inside.receive(len(TREE)) == [advert("alive", *pair) for pair in TREE]
    location = "http://203.0.113.1:2828/gateway.xml"
    assert second.receive(len(TREE)) == [advert("alive", *pair, location) for pair in TREE]
    # A WAN device that goes is announced on both, on each with its own address.
    world.router.ask(SET_OBJECT, [(OBJECT, "u32", 2)])
    wan = table_order(wan_pairs(IDENTITY, WAN))
    for listener, place in ((inside, None), (second, location)):
        alive = [advert("alive", *pair, *([place] if place else [])) for pair in wan]
        assert listener.receive(2 * len(wan)) == [advert("byebye", *pair) for pair in wan] + alive
        listener.close()


def test_the_order_of_lines_when_rules_cannot_be_removed_at_the_end(world):
    world.serve()
    assert call(world.lab.lan1, f"/upnp/control/wanipconn-{WAN}", "AddPortMapping", mapping()) == result("AddPortMapping")
    world.router.answers[NAT, REMOVE] = Refusal(5, "no way")
    assert world.log_of(SET, settings(False)) == [*DISABLED, "on cleanup remove nat failed: no way"]


def test_sockets_that_cannot_be_opened_are_logged_and_the_role_counts_as_started(world):
    # The router gives a name that its kernel does not know.
    world.router.interfaces.append([*world.wan2[:4], (0x10005, "string", "nosuch0"), *world.wan2[5:]])
    world.router.addresses.append(address(30, "203.0.113.1", WAN2))
    world.serve()
    assert world.log_of(0xFE0005, item(WAN2, 2)) == [
        "intr: 0 3405803777", "start int: second 203.0.113.1",
        "udp setsockopt SO_BINDTODEVICE: No such device", "setsockopt SO_BINDTODEVICE: No such device",
        "sendAdverts", *["advert sendto failed: Bad file descriptor"] * len(TREE)]
    assert world.log_of(0xFE0006, [(OBJECT, "u32", 3)])[:2] == ["stop int: second", "sendAdverts"]


def test_losing_the_bus_is_an_end_like_any_other(world):
    world.serve()
    mark = world.daemon.mark()
    world.router.daemon.shutdown(2)
    assert world.daemon.wait() == 0
    assert world.daemon.since(mark)[-5:] == [*DISABLED, "exit"]


def test_an_interface_of_the_real_router_goes_and_comes_back_under_its_number(fresh_lab):
    lab, interface = fresh_lab, fresh_lab.interface_id("wan0")
    path = f"/upnp/control/wanipconn-{interface}"
    assert call(lab.lan1, path, "AddPortMapping", mapping()) == result("AddPortMapping")
    mark = lab.upnpd.mark()
    lab.router.run("ip", "link", "delete", "wan0")
    lab.upnpd.wait_for("rem dev: wan0", mark)
    eventually(lambda: lab.rules() == [], "the rule goes")
    assert get(lab.lan1, path) == bare("404 Not Found")
    mark = lab.upnpd.mark()
    lab.reconnect_wan()
    lab.router.run("ip", "address", "add", f"{ROUTER_WAN}/24", "dev", "wan0")
    lab.upnpd.wait_for("start ext: wan0", mark)
    assert lab.interface_id("wan0") == interface
    eventually(lambda: call(lab.lan1, path, "GetExternalIPAddress") == result(
        "GetExternalIPAddress", [("NewExternalIPAddress", ROUTER_WAN)]), "the address is told again")
