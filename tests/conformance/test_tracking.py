"""How the daemon follows the router's interfaces and addresses."""
import pytest

from bus import (ADD, ADDRESSES, CHANGED, DELETED, DISABLED, GET, GET_ALL, IDENTITY, INTERFACE_CHANGED, INTERFACES, NEXT,
                 OBJECT, OBJECTS, SET, Refusal, address, interface, item, settings, value_of)
from control_point import call, outputs, result
from labs import ROUTER_LAN, ROUTER_WAN
from traces import Trace, asked, by_daemon, routing
from worlds import LAN, WAN, WAN2

HUB, SUBSCRIBE, UNSUBSCRIBE = (0,), 2, 3


def subscription(path, command):
    return [(1, "u32[]", list(path)), (2, "u32", command), (3, "message[]", [[]]), (0xFF0001, "u32[]", [0])]


def to(path):
    return (0xFF0001, "u32[]", list(path))


def status_of(world, interface_id=WAN):
    answer = call(world.lab.lan1, f"/upnp/control/wanipconn-{interface_id}", "GetStatusInfo")
    return dict(outputs(answer))["NewConnectionStatus"]


def external_address(world, interface_id=WAN):
    answer = call(world.lab.lan1, f"/upnp/control/wanipconn-{interface_id}", "GetExternalIPAddress")
    return dict(outputs(answer))["NewExternalIPAddress"]


def pages(*answers):
    """The interface list in the pages that a test gives."""
    by_request = {(): answers[0], **{(number,): answer for number, answer in enumerate(answers[1:], 1)}}
    return lambda request: by_request[tuple([value_of(request, NEXT)] if value_of(request, NEXT) is not None else [])]


def test_enabling_subscribes_pages_and_walks_in_order(world):
    world.start()
    world.take_requests()
    world.router.ask(SET, settings(True))
    assert world.take_requests()[:-1] == [
        (HUB, SUBSCRIBE, subscription(INTERFACES, INTERFACE_CHANGED)),
        (INTERFACES, 1, [to(INTERFACES)]),
        (HUB, SUBSCRIBE, subscription(INTERFACES, CHANGED)),
        (HUB, SUBSCRIBE, subscription(ADDRESSES, CHANGED)),
        (INTERFACES, GET_ALL, [to(INTERFACES)]),
        (ADDRESSES, GET_ALL, [to(ADDRESSES)]),
    ]


def test_disabling_drops_the_subscriptions(world):
    world.serve(item(LAN, 2))
    world.take_requests()
    world.router.ask(SET, settings(False))
    assert world.take_requests()[:-1] == [
        (HUB, UNSUBSCRIBE, subscription(INTERFACES, INTERFACE_CHANGED)),
        (HUB, UNSUBSCRIBE, subscription(INTERFACES, CHANGED)),
        (HUB, UNSUBSCRIBE, subscription(ADDRESSES, CHANGED)),
    ]


def test_the_interface_list_is_read_page_by_page(world):
    world.start()
    world.router.answers[INTERFACES, 1] = pages(
        [(OBJECTS, "message[]", [world.lan]), (NEXT, "u32", 1)],
        [(OBJECTS, "message[]", []), (NEXT, "u32", 2)],  # a page without records also leads on
        [(OBJECTS, "message[]", [world.wan])])
    world.take_requests()
    mark = world.daemon.mark()
    world.router.ask(SET, settings(True))
    assert [fields for path, command, fields in world.take_requests() if (path, command) == (INTERFACES, 1)] == [
        [to(INTERFACES)], [to(INTERFACES), (NEXT, "u32", 1)], [to(INTERFACES), (NEXT, "u32", 2)]]
    assert world.daemon.since(mark)[:3] == ["add dev: inside", "add dev: uplink", "enable"]


def test_a_page_that_fails_is_logged_and_ends_the_list_without_a_continuation(world):
    world.start()
    world.router.answers[INTERFACES, 1] = Refusal(7, "not now")
    mark = world.daemon.mark()
    world.router.ask(SET, settings(True))
    assert world.daemon.since(mark)[:2] == ["device::CMD_GETDEVS failed: not now", "enable"]


def test_a_page_without_records_is_logged_and_its_continuation_honoured(world):
    world.start()
    world.router.answers[INTERFACES, 1] = pages([(NEXT, "u32", 1)], [(OBJECTS, "message[]", [world.lan])])
    mark = world.daemon.mark()
    world.router.ask(SET, settings(True))
    assert world.daemon.since(mark)[:3] == ["device::CMD_GETDEVS failed: ", "add dev: inside", "enable"]


def test_an_interface_is_added_changed_and_removed_with_a_line_each(world):
    world.serve(item(LAN, 2))
    record = interface(9, "tun0", 99, display="Tunnel")
    tell = world.router.tell_interface
    assert world.log_after(tell, record) == ["add dev: Tunnel"]
    assert world.log_after(tell, interface(9, "tun0", 99, display="Other")) == ["set dev: Other (9)"]
    assert world.log_after(tell, interface(9, "tun0", 99, flags=0x82)) == ["rem dev: tun0"]
    assert world.log_after(tell, interface(9, "tun0", 99, flags=0x82)) == ["rem dev: tun0"]  # unknown: only the line
    assert world.log_after(tell, record) == ["add dev: Tunnel"]


@pytest.mark.parametrize("flags, gone", [(0x80, True), (0x02, True), (0x82, True), (0xFF, True), (0x7D, False), (0x100, False)])
def test_an_interface_is_gone_with_any_bit_of_0x82(world, flags, gone):
    world.serve(item(LAN, 2))
    line = "rem dev: wan0" if gone else "set dev: wan0 (2)"
    assert world.log_after(world.router.tell_interface, interface(WAN, "wan0", 3, flags=flags)) == [line]


def test_an_interface_that_arrives_takes_the_role_of_its_item_even_of_a_disabled_one(world):
    world.serve(item(LAN, 2), item(WAN2, 1, True))
    assert world.log_after(world.router.tell_interface, world.wan2) == [
        "add dev: second", "set type: 1 3", "start ext: second", "initial external addr: 0.0.0.0", "sendAdverts"]


def test_an_interface_that_arrives_takes_the_smallest_of_its_addresses(world):
    world.router.addresses += [address(30, "10.0.0.5", WAN2), address(31, "10.0.0.2", WAN2), address(32, "9.255.0.9", WAN)]
    world.serve(item(LAN, 2), item(WAN2, 1))
    world.router.tell_interface(world.wan2)
    assert external_address(world, WAN2) == "10.0.0.2"


def test_a_changed_record_keeps_status_addresses_and_role(world):
    world.serve()
    changed = interface(WAN, "wan0", 3, disabled=True, running=False, display="renamed")
    assert world.log_after(world.router.tell_interface, changed) == ["set dev: renamed (2)"]
    assert (status_of(world), external_address(world)) == ("Connected", ROUTER_WAN)


def test_the_removal_of_a_served_interface_stops_its_role_behind_its_line(world):
    world.serve()
    gone = interface(WAN, "wan0", 3, flags=0x82, display="uplink")
    assert world.log_after(world.router.tell_interface, gone) == ["rem dev: uplink", "stop ext: uplink", "sendAdverts"]
    gone = interface(LAN, "lan0", 2, flags=0x82, display="inside")
    assert world.log_after(world.router.tell_interface, gone) == ["rem dev: inside", "stop int: inside", "sendAdverts"]


@pytest.mark.parametrize("disabled, running, status", [
    (False, True, "Connected"), (False, False, "Connecting"), (True, False, "Disconnected"), (True, True, "Disconnected")])
def test_a_status_record_moves_the_connection_status(world, disabled, running, status):
    world.serve()
    record = interface(WAN, "wan0", 3, disabled=disabled, running=running)
    assert world.log_after(world.router.tell_status, record) == [
        f"dev: 2 disabled: {int(disabled)} running: {int(running)}"]
    assert status_of(world) == status


def test_a_status_record_keeps_what_it_lacks_and_one_of_an_unknown_interface_is_ignored(world):
    world.serve()
    tell = world.router.tell_status
    assert world.log_after(tell, [(OBJECT, "u32", WAN), (0x1000E, "bool", False)]) == ["dev: 2 disabled: 0 running: 0"]
    assert world.log_after(tell, [(OBJECT, "u32", WAN), (DISABLED, "bool", True)]) == ["dev: 2 disabled: 1 running: 0"]
    assert world.log_after(tell, [(OBJECT, "u32", WAN)]) == ["dev: 2 disabled: 1 running: 0"]
    assert world.log_after(tell, [(OBJECT, "u32", 77), (DISABLED, "bool", True)]) == []


def test_status_records_are_applied_in_order(world):
    world.serve()
    assert world.log_after(world.router.tell_status, interface(WAN, "wan0", 3, running=False), world.lan, world.wan) == [
        "dev: 2 disabled: 0 running: 0", "dev: 1 disabled: 0 running: 1", "dev: 2 disabled: 0 running: 1"]


@pytest.mark.parametrize("fields", [[], [(OBJECTS, "message[]", [])]], ids=["no list", "an empty list"])
def test_a_status_notification_without_records_walks_all_interfaces(world, fields):
    world.serve()
    world.take_requests()
    mark = world.daemon.mark()
    world.router.notify(INTERFACES, CHANGED, fields)
    assert world.take_requests() == [(INTERFACES, GET_ALL, [to(INTERFACES)])]
    assert world.daemon.since(mark) == ["dev: 1 disabled: 0 running: 1", "dev: 2 disabled: 0 running: 1"]


def test_an_added_lower_address_does_not_displace_the_one_in_use(world):
    world.serve()
    tell = world.router.tell_addresses
    assert world.log_after(tell, address(21, "198.51.100.0", WAN)) == ["dev: 2 add address: 198.51.100.0 (21)"]
    assert external_address(world) == ROUTER_WAN
    gone = [*address(20, ROUTER_WAN, WAN), (DELETED, "u32", 1)]
    assert world.log_after(tell, gone) == ["dev: 2 remove address: 198.51.100.1 (20)", "dev: 2 ip: 198.51.100.0",
                                           "set external ip 198.51.100.0"]
    assert external_address(world) == "198.51.100.0"


def test_the_smallest_of_the_addresses_left_is_taken_in_numeric_order(world):
    world.serve()
    world.router.tell_addresses(*(address(30 + number, dotted, WAN) for number, dotted in enumerate(
        ["203.0.113.9", "10.0.0.5", "10.0.0.2", "1.2.3.200"])))
    gone = [*address(20, ROUTER_WAN, WAN), (DELETED, "u32", 1)]
    assert world.log_after(world.router.tell_addresses, gone)[1:] == ["dev: 2 ip: 1.2.3.200", "set external ip 1.2.3.200"]


def test_an_internal_interface_moves_with_its_address(world):
    world.serve()
    world.lab.router.run("ip", "address", "replace", "192.0.2.9/24", "dev", "lan0")
    world.router.tell_addresses(address(11, "192.0.2.9", LAN))
    gone = [*address(10, ROUTER_LAN, LAN), (DELETED, "u32", 1)]
    assert world.log_after(world.router.tell_addresses, gone) == [
        "dev: 1 remove address: 192.0.2.1 (10)", "dev: 1 ip: 192.0.2.9", "stop int: inside", "sendAdverts",
        "intr: 0 3221225993", "start int: inside 192.0.2.9", "sendAdverts"]
    world.lab.router.run("ip", "address", "del", "192.0.2.9/24", "dev", "lan0")


def test_an_internal_interface_stops_with_its_last_address_and_starts_with_its_first(world):
    world.serve()
    gone = [*address(10, ROUTER_LAN, LAN), (DELETED, "u32", 1)]
    assert world.log_after(world.router.tell_addresses, gone) == [
        "dev: 1 remove address: 192.0.2.1 (10)", "dev: 1 ip: 0.0.0.0", "stop int: inside", "sendAdverts"]
    assert world.log_after(world.router.tell_addresses, address(12, ROUTER_LAN, LAN)) == [
        "dev: 1 add address: 192.0.2.1 (12)", "dev: 1 ip: 192.0.2.1", "intr: 0 3221225985",
        "start int: inside 192.0.2.1", "sendAdverts"]


def test_an_address_that_is_disabled_is_tracked_but_not_used(world):
    world.serve()
    assert world.log_after(world.router.tell_addresses, address(20, ROUTER_WAN, WAN, disabled=True)) == [
        "dev: 2 set address: 198.51.100.1 (20)", "dev: 2 ip: 0.0.0.0", "set external ip 0.0.0.0"]
    assert external_address(world) == "0.0.0.0"
    assert world.log_after(world.router.tell_addresses, [(OBJECT, "u32", 20)]) == [
        "dev: 2 set address: 198.51.100.1 (20)", "dev: 2 ip: 198.51.100.1", "set external ip 198.51.100.1"]


def test_an_address_moves_to_another_interface(world):
    world.router.interfaces.append(world.wan2)
    world.serve(item(LAN, 2), item(WAN, 1), item(WAN2, 1))
    assert world.log_after(world.router.tell_addresses, address(20, ROUTER_WAN, WAN2)) == [
        "dev: 3 set address: 198.51.100.1 (20)", "dev: 3 ip: 198.51.100.1", "set external ip 198.51.100.1",
        "dev: 2 ip: 0.0.0.0", "set external ip 0.0.0.0"]


def test_an_address_object_may_change_its_address(world):
    world.serve()
    assert world.log_after(world.router.tell_addresses, [(OBJECT, "u32", 20), (1, "be32", "198.51.100.7")]) == [
        "dev: 2 set address: 198.51.100.7 (20)", "dev: 2 ip: 198.51.100.7", "set external ip 198.51.100.7"]


def test_the_interface_of_an_address_is_read_from_field_10_where_field_5_is_absent(world):
    world.serve()
    tell = world.router.tell_addresses
    record = [(OBJECT, "u32", 40), (1, "be32", "198.51.100.8"), (10, "u32", WAN)]
    assert world.log_after(tell, record) == ["dev: 2 add address: 198.51.100.8 (40)"]
    assert world.log_after(tell, [(OBJECT, "u32", 41)]) == ["dev: 0 add address: 0.0.0.0 (41)"]


@pytest.mark.parametrize("record", [
    [(OBJECT, "u32", 99), (DELETED, "u32", 1)],
    [(OBJECT, "u32", 20), (DISABLED, "bool", True), (DELETED, "u32", 1)],
], ids=["unknown", "disabled"])
def test_a_deleted_record_that_is_unknown_or_disabled_changes_nothing(world, record):
    world.serve()
    assert world.log_after(world.router.tell_addresses, record) == []
    assert external_address(world) == ROUTER_WAN


def test_addresses_that_a_walk_misses_are_forgotten_but_stay_in_use(world):
    world.serve()
    world.router.addresses = [address(10, ROUTER_LAN, LAN)]
    world.take_requests()
    mark = world.daemon.mark()
    world.router.notify(ADDRESSES, CHANGED)
    assert world.take_requests() == [(ADDRESSES, GET_ALL, [to(ADDRESSES)])]
    assert world.daemon.since(mark) == ["dev: 1 set address: 192.0.2.1 (10)"]
    assert external_address(world) == ROUTER_WAN
    gone = [*address(20, ROUTER_WAN, WAN), (DELETED, "u32", 1)]
    assert world.log_after(world.router.tell_addresses, gone) == []  # nothing is known about it any more


def test_a_walk_follows_every_page(world):
    world.start()
    world.router.answers[ADDRESSES, GET_ALL] = pages(
        [(OBJECTS, "message[]", [address(10, ROUTER_LAN, LAN)]), (NEXT, "u32", 1)],
        [(OBJECTS, "message[]", [address(20, ROUTER_WAN, WAN)])])
    world.router.ask(ADD, item(WAN, 1))
    mark = world.daemon.mark()
    world.router.ask(SET, settings(True))
    assert "set external ip 198.51.100.1" in world.daemon.since(mark)


def test_addresses_of_an_unknown_interface_wait_for_it(world):
    world.serve(item(LAN, 2), item(WAN2, 1))
    assert world.log_after(world.router.tell_addresses, address(30, "203.0.113.1", WAN2)) == [
        "dev: 3 add address: 203.0.113.1 (30)"]
    world.router.tell_interface(world.wan2)
    assert external_address(world, WAN2) == "203.0.113.1"


def test_the_map_of_interfaces_is_made_anew_with_every_enabling(world):
    world.serve()
    world.router.ask(SET, settings(False))
    world.router.interfaces = [world.lan]
    mark = world.daemon.mark()
    world.router.ask(SET, settings(True))
    lines = world.daemon.since(mark)
    assert [line for line in lines if line.startswith("add dev")] == ["add dev: inside"]
    assert not any(line.startswith("start ext") for line in lines)


def test_the_real_router_tells_what_the_daemon_follows(fresh_lab):
    lab = fresh_lab
    wan, mark = lab.interface_id("wan0"), lab.upnpd.mark()
    lab.router.run("ip", "address", "add", "198.51.100.77/24", "dev", "wan0")
    lab.upnpd.wait_for(f"dev: {wan} add address: 198.51.100.77", mark)
    lab.router.run("ip", "address", "del", f"{ROUTER_WAN}/24", "dev", "wan0")
    lab.upnpd.wait_for("set external ip 198.51.100.77", mark)
    assert call(lab.lan1, f"/upnp/control/wanipconn-{wan}", "GetExternalIPAddress") == result(
        "GetExternalIPAddress", [("NewExternalIPAddress", "198.51.100.77")])
    lines = lab.upnpd.since(mark)
    assert [line.split(" (")[0] for line in lines if line.startswith("dev:")] == [
        f"dev: {wan} add address: 198.51.100.77", f"dev: {wan} remove address: {ROUTER_WAN}", f"dev: {wan} ip: 198.51.100.77"]


def told(path, command, own):
    """A request as the trace shows it."""
    return list(path), f"0x{command:x}", [(f"0x{identifier:x}", kind, value) for identifier, kind, value in own]


def test_the_real_bus_carries_the_identity_the_list_and_both_walks_at_a_start(fresh_lab):
    lab = fresh_lab
    assert lab.upnpd.stop() == 0
    trace = Trace(lab, "--json")
    lab.start_upnpd()
    requests = trace.until_now(by_daemon)
    expected = [told(IDENTITY, GET, [to(IDENTITY)]),
                told(HUB, SUBSCRIBE, subscription(INTERFACES, INTERFACE_CHANGED)),
                told(INTERFACES, 1, [to(INTERFACES)]),
                told(HUB, SUBSCRIBE, subscription(INTERFACES, CHANGED)),
                told(HUB, SUBSCRIBE, subscription(ADDRESSES, CHANGED)),
                told(INTERFACES, GET_ALL, [to(INTERFACES)]),
                told(ADDRESSES, GET_ALL, [to(ADDRESSES)])]
    assert [asked(message) for message in requests] == expected
    assert {tuple(routing(message)) for message in requests} == {
        (("0xff0002", "u32[]"), ("0xff0003", "u32"), ("0xff0005", "u32"), ("0xff0007", "u32"))}
    numbers = [message["number"] for message in requests]
    assert numbers == sorted(set(numbers))
    trace.close()
