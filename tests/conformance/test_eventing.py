"""Events: what subscribers are told, byte for byte, and when they are told no more."""
from bus import OBJECT, SET, SET_OBJECT, address, settings
from control_point import bare, call, fault, mapping, result
from labs import ROUTER_WAN
from subscribers import granted, renew
from subscriptions import CONTROL, EVENTS, PATH, begin, change, osinfo
from worlds import WAN


def test_the_other_services_tell_their_evented_variables(world, subscriber):
    world.serve()
    begin(world, subscriber, f"{EVENTS}wancommonifc-{WAN}", [("PhysicalLinkStatus", "Up")])
    begin(world, subscriber, f"{EVENTS}osinfo", osinfo(world))


def test_a_change_is_told_to_every_subscriber_with_the_next_number(world, subscriber, other):
    world.serve()
    sids = {one: begin(world, one) for one in (subscriber, other)}
    mark = world.daemon.mark()
    change(world, False)
    for one, sid in sids.items():
        one.expect(sid, 1, [("ConnectionStatus", "Connecting")])
    change(world, True)
    for one, sid in sids.items():
        one.expect(sid, 2, [("ConnectionStatus", "Connected")])
    assert sorted(set(world.daemon.since(mark))) == [
        "dev: 2 disabled: 0 running: 0", "dev: 2 disabled: 0 running: 1", "notify: ConnectionStatus = 'Connected'",
        "notify: ConnectionStatus = 'Connecting'"]


def test_a_value_that_stays_the_same_is_not_told(world, subscriber):
    world.serve()
    sid = begin(world, subscriber)
    change(world, True)
    world.router.tell_addresses(address(20, ROUTER_WAN, WAN))
    change(world, False)
    subscriber.expect(sid, 1, [("ConnectionStatus", "Connecting")])


def test_mappings_and_addresses_are_told_as_they_change(world, subscriber):
    world.serve()
    sid = begin(world, subscriber)
    assert call(world.lab.lan1, CONTROL, "AddPortMapping", mapping()) == result("AddPortMapping")
    subscriber.expect(sid, 1, [("PortMappingNumberOfEntries", "2")])
    assert call(world.lab.lan1, CONTROL, "AddPortMapping", mapping(internal=9)) == result("AddPortMapping")  # no other count
    assert call(world.lab.lan1, CONTROL, "DeletePortMapping", mapping()[:3]) == result("DeletePortMapping")
    subscriber.expect(sid, 2, [("PortMappingNumberOfEntries", "1")])
    world.router.ask(SET, settings(True, True, False))
    subscriber.expect(sid, 3, [("PortMappingNumberOfEntries", "0")])
    world.router.tell_addresses(address(20, "198.51.100.9", WAN))
    subscriber.expect(sid, 4, [("ExternalIPAddress", "198.51.100.9")])


def test_variables_that_are_not_evented_are_not_told(world, subscriber):
    world.serve()
    begin(world, subscriber)
    answer = call(world.lab.lan1, CONTROL, "SetConnectionType", [("NewConnectionType", "IP_Bridged")])
    assert answer == fault(501, "Action Failed")
    assert call(world.lab.lan1, CONTROL, "GetStatusInfo").startswith("HTTP/1.1 200 OK")
    change(world, False)
    assert subscriber.next().endswith(
        "    <ConnectionStatus>Connecting</ConnectionStatus>\r\n  </e:property>\r\n</e:propertyset>\r\n")


def test_disabling_ends_the_subscriptions_of_the_system_information(world, subscriber):
    world.serve()
    sid = begin(world, subscriber, f"{EVENTS}osinfo", osinfo(world))
    world.router.ask(SET, settings(False))
    world.router.ask(SET, settings(True))
    assert renew(world.lab.lan1, f"{EVENTS}osinfo", sid) == bare("412 Precondition Failed")


def test_an_edit_of_the_external_item_ends_its_subscriptions_but_not_those_of_the_root(world, subscriber):
    world.serve()
    sid = begin(world, subscriber)
    root = begin(world, subscriber, f"{EVENTS}osinfo", osinfo(world))
    world.router.ask(SET_OBJECT, [(OBJECT, "u32", 2)])
    assert renew(world.lab.lan1, PATH, sid) == bare("412 Precondition Failed")
    assert renew(world.lab.lan1, f"{EVENTS}osinfo", root) == granted(root)
