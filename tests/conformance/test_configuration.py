"""The items and the settings: what is accepted, kept, told and started."""
import time

import bus
from bus import (ADD, CHANGED, COMMAND, DELETED, DISABLED, GET, GET_ALL, GET_OBJECT, HISTORY, IDENTITY, INTERFACES, OBJECT,
                 OBJECTS, REMOVE, SET, SET_OBJECT, Refusal, item, own_fields, settings, value_of)
from control_point import call, get, query, variable_answer
from labs import ROUTER_LAN
from worlds import LAN, WAN, WAN2, refused

EXISTS, NO_OBJECT, UNKNOWN = 0xFE0009, 0xFE0004, 0xFE0002
GATEWAY = (80, 0)


def records(world):
    return value_of(world.router.ask(GET_ALL), OBJECTS)


def numbered(identifier, fields):
    return [(OBJECT, "u32", identifier), *fields]


def generic(world, path, index):
    return call(world.lab.lan1, path, "GetGenericPortMappingEntry", [("NewPortMappingIndex", index)])


def undo_of(request):
    """A history request as the request that was applied, the one that would undo it, and the description."""
    path, command, fields = request
    assert (path, command) == (HISTORY, ADD)
    (applied,), (inverse,), text = (value for _, _, value in fields[:3])
    assert fields[:2] == [(1, "message[]", [applied]), (2, "message[]", [inverse])]
    assert fields[2:] == [(3, "string", text), (0xFF0001, "u32[]", [24])]
    return [field for field in own_fields(applied) if field[0] != 0xFF0001], inverse, text


def test_a_first_start_asks_for_the_identity_alone_and_leaves_after_ten_seconds_without_a_socket(world):
    began = time.monotonic()
    world.start()
    assert world.router.requests == [((0,), 1, [(1, "u32", 80), (0xFF0001, "u32[]", [0])]),
                                     (IDENTITY, GET, [(0xFF0001, "u32[]", [65])])]
    assert world.router.ask(GET) == settings(False)
    assert world.lab.router.run("ss", "-Hlnut").stdout == ""
    assert not (world.store / "upnpm").exists() and not (world.store / "upnp").exists()
    # Not before ten seconds, and by itself soon after; core/gateway_test holds them to the tick.
    assert world.daemon.wait(15) == 0
    assert time.monotonic() - began >= 9.5
    assert world.daemon.lines == ["exit"]


def test_the_settings_are_answered_whatever_is_asked_for(world):
    world.start()
    world.router.ask(ADD, item(LAN, 2))
    for fields in ([], [(OBJECT, "u32", 1)], [(1, "bool", True)]):
        assert world.router.ask(GET, fields) == settings(False)


def test_a_setting_that_a_request_lacks_keeps_its_value(world):
    world.serve()
    assert world.router.ask(SET, [(2, "bool", False)]) == []
    assert world.router.ask(GET) == settings(True, False, True)
    assert world.router.ask(SET, [(3, "bool", False)]) == []
    assert world.router.ask(GET) == settings(True, False, False)


def test_settings_are_kept_as_received_so_that_what_was_left_out_is_a_default_at_the_next_start(world):
    world.serve()
    world.router.ask(SET, [(2, "bool", False)])
    world.restart()
    assert world.router.ask(GET) == settings(False, False, True)


def test_a_settings_change_is_told_with_its_fields_and_recorded_with_the_values_before_it(world):
    world.start()
    world.take_requests()
    assert world.router.ask(SET, [(2, "bool", False), (3, "bool", False)]) == []
    assert world.router.notifications == [(GATEWAY, CHANGED, [(OBJECTS, "message[]", [
        [(OBJECT, "u32", 0xFFFFFFFF), (2, "bool", False), (3, "bool", False)]])])]
    requests = world.take_requests()
    assert len(requests) == 1
    applied, inverse, text = undo_of(requests[0])
    assert applied == [(2, "bool", False), (3, "bool", False)]
    assert inverse == [(COMMAND, "u32", SET), *settings(False, True, True)]
    assert text == "upnp config changed"


def test_settings_that_change_nothing_are_still_written_told_and_recorded(world):
    world.serve()
    stored = (world.store / "upnpm").stat().st_ino
    world.take_requests()
    world.router.notifications.clear()
    assert world.router.ask(SET, settings(True)) == []
    assert (world.store / "upnpm").stat().st_ino != stored
    assert len(world.router.notifications) == 1
    assert [(path, command) for path, command, _ in world.take_requests()] == [(HISTORY, ADD)]


def test_the_settings_reach_the_external_service(world):
    world.serve()
    path = f"/upnp/control/wanipconn-{WAN}"
    assert query(world.lab.lan1, path, "PortMappingNumberOfEntries") == variable_answer("0")
    world.router.ask(SET, settings(True, True, False))
    assert query(world.lab.lan1, path, "PortMappingNumberOfEntries") == variable_answer("0")
    world.router.ask(SET, settings(True, True, True))
    assert query(world.lab.lan1, path, "PortMappingNumberOfEntries") == variable_answer("1")


def test_an_item_is_added_read_listed_counted_changed_and_removed(world):
    world.start()
    assert own_fields(world.router.ask(ADD, item(LAN, 2))) == [(OBJECT, "u32", 1)]
    assert own_fields(world.router.ask(ADD, item(WAN, 1, True))) == [(OBJECT, "u32", 2)]
    first, second = numbered(1, item(LAN, 2)), numbered(2, item(WAN, 1, True))
    assert records(world) == [first, second]
    assert world.router.ask(GET_OBJECT, [(OBJECT, "u32", 2)]) == second
    assert world.router.ask(0xFE000F) == [(0xFE000F, "u32", 2)]
    assert world.router.ask(SET_OBJECT, [(OBJECT, "u32", 2), (DISABLED, "bool", False)]) == []
    assert records(world) == [first, numbered(2, item(WAN, 1))]
    assert world.router.ask(REMOVE, [(OBJECT, "u32", 1)]) == []
    assert records(world) == [numbered(2, item(WAN, 1))]


def test_an_item_starts_from_its_defaults(world):
    world.start()
    world.router.ask(ADD)
    assert records(world) == [numbered(1, item(0, 0))]


def test_items_are_told_and_recorded_with_what_would_undo_them(world):
    world.start()
    world.take_requests()
    world.router.ask(ADD, item(LAN, 2))
    world.router.ask(SET_OBJECT, [(OBJECT, "u32", 1), (2, "u32", 1)])
    world.router.ask(REMOVE, [(OBJECT, "u32", 1)])
    assert world.router.notifications == [(GATEWAY, CHANGED, [(OBJECTS, "message[]", [record])]) for record in (
        numbered(1, item(LAN, 2)), numbered(1, item(LAN, 1)), [*numbered(1, item(LAN, 1)), (DELETED, "u32", 1)])]
    assert [undo_of(request) for request in world.take_requests()] == [
        (item(LAN, 2), [(COMMAND, "u32", REMOVE), (OBJECT, "u32", 1)], "upnp interface added"),
        ([(OBJECT, "u32", 1), (2, "u32", 1)], [(COMMAND, "u32", SET_OBJECT), *numbered(1, item(LAN, 2))],
         "upnp interface changed"),
        ([(OBJECT, "u32", 1)], [(COMMAND, "u32", ADD), *item(LAN, 1)], "upnp interface removed")]


def test_an_interface_takes_one_item_alone(world):
    world.serve()
    before = records(world)
    world.take_requests()
    world.router.notifications.clear()
    mark = world.daemon.mark()
    assert refused(world.router.ask(ADD, item(LAN, 1))) == (EXISTS, "Interface already added")
    assert refused(world.router.ask(SET_OBJECT, [(OBJECT, "u32", 2), (1, "u32", LAN)])) == (
        EXISTS, "Interface already set")
    assert records(world) == before
    assert world.daemon.since(mark) == [] and world.take_requests() == [] and world.router.notifications == []


def test_an_unknown_item_cannot_be_read_changed_or_removed(world):
    world.start()
    for command in (GET_OBJECT, SET_OBJECT, REMOVE):
        assert refused(world.router.ask(command, [(OBJECT, "u32", 7)]))[0] == NO_OBJECT


def test_an_item_of_an_unknown_interface_is_accepted_and_starts_nothing(world):
    world.serve()
    assert world.log_of(ADD, item(WAN2, 1)) == []
    assert records(world)[-1] == numbered(3, item(WAN2, 1))


def test_a_disabled_item_is_accepted_and_starts_nothing(world):
    world.serve(item(LAN, 2))
    assert world.log_of(ADD, item(WAN, 1, True)) == []


def test_adding_an_item_starts_its_role(world):
    world.serve(item(LAN, 2))
    assert world.log_of(ADD, item(WAN, 1)) == ["start ext: uplink", "initial external addr: 198.51.100.1", "sendAdverts"]
    assert world.log_of(REMOVE, [(OBJECT, "u32", 1)]) == ["stop int: inside", "sendAdverts"]
    assert world.log_of(ADD, item(LAN, 2)) == ["intr: 0 3221225985", f"start int: inside {ROUTER_LAN}", "sendAdverts"]


def test_every_edit_of_an_item_stops_and_restarts_its_role(world):
    world.serve()
    assert world.log_of(SET_OBJECT, [(OBJECT, "u32", 1)]) == [
        "stop int: inside", "sendAdverts", "intr: 0 3221225985", "start int: inside 192.0.2.1", "sendAdverts"]
    assert world.log_of(SET_OBJECT, [(OBJECT, "u32", 2)]) == [
        "stop ext: uplink", "sendAdverts", "start ext: uplink", "initial external addr: 198.51.100.1", "sendAdverts"]


def test_disabling_an_item_leaves_its_interface_without_role(world):
    world.serve()
    assert world.log_of(SET_OBJECT, [(OBJECT, "u32", 2), (DISABLED, "bool", True)]) == ["stop ext: uplink", "sendAdverts"]
    mark = world.daemon.mark()
    world.router.ask(SET, settings(False))
    world.router.ask(SET, settings(True))
    assert "start ext: uplink" in world.daemon.since(mark)  # the disabled flag is not asked for a new interface


def test_an_item_changes_its_role_and_moves_to_another_interface(world):
    world.router.interfaces.append(world.wan2)
    world.router.addresses.append(bus.address(30, "203.0.113.1", WAN2))
    world.serve()
    assert world.log_of(SET_OBJECT, [(OBJECT, "u32", 2), (1, "u32", WAN2)]) == [
        "stop ext: uplink", "sendAdverts", "start ext: second", "initial external addr: 203.0.113.1", "sendAdverts"]
    assert world.log_of(SET_OBJECT, [(OBJECT, "u32", 2), (2, "u32", 2)]) == [
        "stop ext: second", "sendAdverts", "intr: 0 3405803777", "start int: second 203.0.113.1", "sendAdverts"]


def test_removing_an_item_stops_its_role(world):
    world.serve()
    assert world.log_of(REMOVE, [(OBJECT, "u32", 2)]) == ["stop ext: uplink", "sendAdverts"]
    assert "<deviceList>" not in get(world.lab.lan1, "/gateway.xml")


def test_items_taken_while_off_start_with_the_daemon(world):
    world.start()
    assert world.log_of(ADD, item(LAN, 2)) == []
    assert world.log_of(ADD, item(WAN, 1)) == []
    mark = world.daemon.mark()
    world.router.ask(SET, settings(True))
    lines = world.daemon.since(mark)
    assert "start ext: uplink" in lines and "start int: inside 192.0.2.1" in lines


def test_items_and_settings_survive_a_restart_and_are_taken_up_before_the_loop_runs(world):
    world.serve()
    world.router.ask(SET, settings(True, False, False))
    before = records(world)
    world.restart()
    assert records(world) == before
    assert world.router.ask(GET) == settings(True, False, False)
    assert [request[:2] for request in world.router.requests][:3] == [((0,), 1), (IDENTITY, GET), ((0,), 2)]
    assert "start int: inside 192.0.2.1" in world.daemon.lines


def test_a_service_made_after_the_change_counts_the_dummy_entry_until_the_settings_change_again(world):
    world.serve()
    world.router.ask(SET, settings(True, True, False))
    world.router.ask(SET_OBJECT, [(OBJECT, "u32", 2)])
    path = f"/upnp/control/wanipconn-{WAN}"
    assert query(world.lab.lan1, path, "PortMappingNumberOfEntries") == variable_answer("0")
    assert "Dummy inactive rule for windows to work" in generic(world, path, 0)
    world.router.ask(SET, settings(True, True, False))
    assert generic(world, path, 0).startswith("HTTP/1.1 500 ")


def test_an_empty_identity_leaves_the_names_with_their_prefixes(world):
    world.router.answers[IDENTITY, GET] = Refusal(0xFE000C, "nobody")
    world.serve()
    document = get(world.lab.lan1, "/gateway.xml")
    assert "<UDN>uuid:UUID-VANTOREL-INTERNET-GATEWAY-DEVICE-</UDN>" in document
    assert f"<UDN>uuid:UUID-VANTOREL-WAN-DEVICE--{WAN}</UDN>" in document


def test_notifications_of_others_change_nothing(world):
    world.serve()
    record = [(OBJECTS, "message[]", [bus.interface(WAN, "wan0", 1, running=False)])]
    for sender in ((20, 2), (21, 0), (20,), (20, 0, 0)):
        assert world.log_after(world.router.notify, sender, CHANGED, record) == []
    assert world.log_after(world.router.notify, INTERFACES, 0x7777, record) == []
    assert refused(world.router.ask(0x7777))[0] == UNKNOWN
