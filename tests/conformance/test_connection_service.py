"""The connection service apart from its mappings: variables, status, address, connecting and disconnecting."""
import pytest

from bus import INTERFACES, OBJECT, SET, SET_OBJECT, Refusal, address, settings
from control_point import call, fault, outputs, query, result, variable_answer
from labs import ROUTER_WAN, eventually
from traces import Trace, asked, by_daemon, routing
from worlds import WAN

PATH = f"/upnp/control/wanipconn-{WAN}"
FAILED = fault(501, "Action Failed")

VALUES = {
    "ConnectionType": "IP_Routed", "PossibleConnectionTypes": "IP_Routed", "ConnectionStatus": "Connected",
    "X_Name": "Local Area Connection", "LastConnectionError": "ERROR_NONE", "RSIPAvailable": "0", "NATEnabled": "1",
    "ExternalIPAddress": ROUTER_WAN, "PortMappingNumberOfEntries": "0"}


def uptime(lab):
    return int(float(lab.router.run("cat", "/proc/uptime").stdout.split()[0]))


def status(world):
    return dict(outputs(call(world.lab.lan1, PATH, "GetStatusInfo")))["NewConnectionStatus"]


def request(disabled):
    return (INTERFACES, SET_OBJECT, [(0xFF0001, "u32[]", [20, 0]), (OBJECT, "u32", WAN), (0xFE000A, "bool", disabled)])


@pytest.mark.parametrize("variable, value", VALUES.items())
def test_a_variable_starts_with_its_value(world, variable, value):
    world.serve()
    assert query(world.lab.lan1, PATH, variable) == variable_answer(value)


@pytest.mark.parametrize("action, values", [
    ("GetConnectionTypeInfo", [("NewConnectionType", "IP_Routed"), ("NewPossibleConnectionTypes", "IP_Routed")]),
    ("GetNATRSIPStatus", [("NewRSIPAvailable", "0"), ("NewNATEnabled", "1")]),
    ("GetExternalIPAddress", [("NewExternalIPAddress", ROUTER_WAN)]),
])
def test_a_getter_answers_with_its_variables(world, action, values):
    world.serve()
    assert call(world.lab.lan1, PATH, action) == result(action, values)


def test_the_status_tells_the_uptime_of_now(world):
    world.serve()
    before = uptime(world.lab)
    answer = call(world.lab.lan1, PATH, "GetStatusInfo")
    told = int(dict(outputs(answer))["NewUptime"])
    assert before <= told <= uptime(world.lab)
    assert answer == result("GetStatusInfo", [("NewConnectionStatus", "Connected"),
                                              ("NewLastConnectionError", "ERROR_NONE"), ("NewUptime", told)])
    eventually(lambda: uptime(world.lab) > told)
    assert int(outputs(query(world.lab.lan1, PATH, "Uptime"))[0][1]) > told  # read again, not kept


@pytest.mark.parametrize("value, answer", [
    ("IP_Routed", FAILED), ("IP_Bridged", FAILED), ("Unconfigured", FAILED), ("Other", fault(402, "Invalid Args"))])
def test_the_connection_type_cannot_be_changed(world, value, answer):
    world.serve()
    assert call(world.lab.lan1, PATH, "SetConnectionType", [("NewConnectionType", value)]) == answer
    assert query(world.lab.lan1, PATH, "ConnectionType") == variable_answer("IP_Routed")


def test_disconnecting_disables_the_interface_on_the_bus(world):
    world.serve()
    world.take_requests()
    mark = world.daemon.mark()
    assert call(world.lab.lan1, PATH, "ForceTermination") == result("ForceTermination")
    assert world.take_requests() == [request(True)]
    assert world.daemon.since(mark) == ["action: ForceTermination"]
    assert status(world) == "Disconnected"


def test_connecting_enables_the_interface_on_the_bus(world):
    world.serve()
    world.take_requests()
    mark = world.daemon.mark()
    assert call(world.lab.lan1, PATH, "RequestConnection") == result("RequestConnection")
    assert world.take_requests() == [request(False)]
    assert world.daemon.since(mark) == ["action: RequestConnection"]
    assert status(world) == "Connecting"  # until the router reports the interface's state
    world.router.tell_status(world.wan)
    assert status(world) == "Connected"


@pytest.mark.parametrize("action, line", [
    ("RequestConnection", "enable device failed: not today"), ("ForceTermination", "disable device failed: not today")])
def test_a_refusal_of_the_router_is_a_fault_and_the_status_stays(world, action, line):
    world.serve()
    world.router.answers[INTERFACES, SET_OBJECT] = Refusal(3, "not today")
    mark = world.daemon.mark()
    assert call(world.lab.lan1, PATH, action) == FAILED
    assert world.daemon.since(mark) == [f"action: {action}", line]
    assert status(world) == "Connected"


@pytest.mark.parametrize("action", ["RequestConnection", "ForceTermination"])
def test_both_are_refused_without_a_message_where_control_points_may_not_disconnect(world, action):
    world.serve()
    world.router.ask(SET, settings(True, False, True))
    world.take_requests()
    mark = world.daemon.mark()
    assert call(world.lab.lan1, PATH, action) == FAILED
    assert world.take_requests() == []
    assert world.daemon.since(mark) == [f"action: {action}"]
    world.router.ask(SET, settings(True, True, True))
    assert call(world.lab.lan1, PATH, action) == result(action)


def test_the_external_address_follows_the_interface(world):
    world.serve()
    world.router.tell_addresses(address(20, "198.51.100.200", WAN))
    assert call(world.lab.lan1, PATH, "GetExternalIPAddress") == result(
        "GetExternalIPAddress", [("NewExternalIPAddress", "198.51.100.200")])
    assert query(world.lab.lan1, PATH, "ExternalIPAddress") == variable_answer("198.51.100.200")


@pytest.mark.parametrize("fields, value", [
    ([(0x1000E, "bool", False), (0xFE000A, "bool", False)], "Connecting"),
    ([(0x1000E, "bool", True), (0xFE000A, "bool", True)], "Disconnected")])
def test_a_new_service_takes_the_status_of_its_interface(world, fields, value):
    world.serve()
    world.router.tell_status([(OBJECT, "u32", WAN), *fields])
    world.router.ask(SET_OBJECT, [(OBJECT, "u32", 2)])  # stops and restarts the role
    assert status(world) == value


def test_the_real_interface_is_switched_off_and_on(fresh_lab):
    lab = fresh_lab
    interface = lab.interface_id("wan0")
    path = f"/upnp/control/wanipconn-{interface}"

    def told():
        return dict(outputs(call(lab.lan1, path, "GetStatusInfo")))["NewConnectionStatus"]

    trace = Trace(lab, "--json")
    assert call(lab.lan1, path, "ForceTermination") == result("ForceTermination")
    assert told() == "Disconnected"
    eventually(lambda: "state UP" not in lab.router.run("ip", "link", "show", "wan0").stdout)
    assert call(lab.lan1, path, "RequestConnection") == result("RequestConnection")
    eventually(lambda: told() == "Connected")
    assert "state UP" in lab.router.run("ip", "link", "show", "wan0").stdout
    requests = trace.until_now(by_daemon)
    assert [asked(message) for message in requests] == [
        ([20, 0], "0xfe0003", [("0xff0001", "u32[]", [20, 0]), ("0xfe0001", "u32", interface), ("0xfe000a", "bool", off)])
        for off in (True, False)]
    assert {tuple(routing(message)) for message in requests} == {
        (("0xff0002", "u32[]"), ("0xff0003", "u32"), ("0xff0005", "u32"), ("0xff0007", "u32"))}
    trace.close()


def test_a_cable_that_is_pulled_and_plugged_moves_the_status(fresh_lab):
    path = f"/upnp/control/wanipconn-{fresh_lab.interface_id('wan0')}"

    def told():
        return dict(outputs(call(fresh_lab.lan1, path, "GetStatusInfo")))["NewConnectionStatus"]
    assert told() == "Connected"
    fresh_lab.wan.run("ip", "link", "set", "eth0", "down")
    eventually(lambda: told() == "Connecting", "no carrier")
    fresh_lab.wan.run("ip", "link", "set", "eth0", "up")
    eventually(lambda: told() == "Connected", "carrier")
