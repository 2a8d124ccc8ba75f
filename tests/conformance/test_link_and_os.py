"""The external link's properties and counters, and what is told about the system."""
import pytest

from bus import GET_OBJECT, INTERFACES, OBJECT, Refusal, interface
from control_point import COMMON, OSINFO, call, fault, outputs, query, result, variable_answer
from labs import eventually
from traces import Trace, asked, by_daemon
from worlds import WAN

PATH = f"/upnp/control/wancommonifc-{WAN}"
QUERY = (INTERFACES, GET_OBJECT, [(0xFF0001, "u32[]", [20, 0]), (OBJECT, "u32", WAN), (0xFE000C, "u32", 256)])
COUNTERS = [("GetTotalBytesSent", "NewTotalBytesSent", 0x100FD, "tx_bytes"),
            ("GetTotalBytesReceived", "NewTotalBytesReceived", 0x100FC, "rx_bytes"),
            ("GetTotalPacketsSent", "NewTotalPacketsSent", 0x100FF, "tx_packets"),
            ("GetTotalPacketsReceived", "NewTotalPacketsReceived", 0x100FE, "rx_packets")]
STATISTICS = ["TotalBytesSent", "TotalBytesReceived", "TotalPacketsSent", "TotalPacketsReceived",
              "Layer1DownstreamMaxBitRate", "Uptime"]


def count(world, bytes_in=0, bytes_out=0, packets_in=0, packets_out=0):
    world.router.answers[INTERFACES, GET_OBJECT] = [
        (0x100FE, "u64", packets_in), (0x100FF, "u64", packets_out), (0x100FC, "u64", bytes_in), (0x100FD, "u64", bytes_out)]


def properties(kind):
    return result("GetCommonLinkProperties", [
        ("NewWANAccessType", kind), ("NewLayer1UpstreamMaxBitRate", "10000000"),
        ("NewLayer1DownstreamMaxBitRate", "10000000"), ("NewPhysicalLinkStatus", "Up")], COMMON)


def test_the_link_properties_are_fixed(world):
    world.serve()
    assert call(world.lab.lan1, PATH, "GetCommonLinkProperties", service=COMMON) == properties("Ethernet")
    world.router.tell_status(interface(WAN, "wan0", 3, disabled=True, running=False))
    assert call(world.lab.lan1, PATH, "GetCommonLinkProperties", service=COMMON) == properties("Ethernet")


@pytest.mark.parametrize("kind", [0, 2, 512, 65534])
def test_every_link_but_ethernet_is_other(world, kind):
    world.router.interfaces[1] = [*world.wan[:1], (0x10001, "u32", kind), *world.wan[2:]]
    world.serve()
    assert call(world.lab.lan1, PATH, "GetCommonLinkProperties", service=COMMON) == properties("Other")


@pytest.mark.parametrize("action, argument, field, _", COUNTERS)
@pytest.mark.parametrize("counted, told", [(0, 0), (1, 1), (4294967295, 4294967295), (4294967296, 0), (5000000000, 705032704)])
def test_a_counter_keeps_its_low_32_bits(world, action, argument, field, _, counted, told):
    world.router.answers[INTERFACES, GET_OBJECT] = [
        (identifier, "u64", counted if identifier == field else 77) for _, _, identifier, _ in COUNTERS]
    world.serve()
    world.take_requests()
    assert call(world.lab.lan1, PATH, action, service=COMMON) == result(action, [(argument, told)], COMMON)
    assert world.take_requests() == [QUERY]


def test_a_counter_that_the_router_does_not_tell_reads_as_0(world):
    world.serve()
    for action, argument, _, _ in COUNTERS:
        assert call(world.lab.lan1, PATH, action, service=COMMON) == result(action, [(argument, "0")], COMMON)


def test_a_query_that_is_refused_is_one_line_and_the_counter_0(world):
    world.router.answers[INTERFACES, GET_OBJECT] = Refusal(4, "no such object")
    world.serve()
    mark = world.daemon.mark()
    assert call(world.lab.lan1, PATH, "GetTotalBytesSent", service=COMMON) == result(
        "GetTotalBytesSent", [("NewTotalBytesSent", "0")], COMMON)
    assert world.daemon.since(mark) == ["action: GetTotalBytesSent", "get device stats: no such object",
                                        "ret: NewTotalBytesSent, val: 0"]


def test_the_statistics_name_their_arguments_without_prefix_and_ask_once_for_each_counter(world):
    count(world, bytes_in=2, bytes_out=1, packets_in=4, packets_out=3)
    world.serve()
    world.take_requests()
    answer = call(world.lab.lan1, PATH, "X_GetICSStatistics", service=COMMON)
    values = outputs(answer)
    uptime = dict(values)["Uptime"]
    assert uptime.isdigit()
    assert answer == result("X_GetICSStatistics", list(zip(STATISTICS, ["1", "2", "3", "4", "10000000", uptime])), COMMON)
    assert world.take_requests() == [QUERY] * 4


def test_the_uptime_is_the_routers(world):
    world.serve()
    before = int(float(world.lab.router.run("cat", "/proc/uptime").stdout.split()[0]))
    told = int(outputs(query(world.lab.lan1, PATH, "X_Uptime"))[0][1])
    assert before <= told <= int(float(world.lab.router.run("cat", "/proc/uptime").stdout.split()[0]))


@pytest.mark.parametrize("variable, value", [
    ("WANAccessType", "Ethernet"), ("Layer1UpstreamMaxBitRate", "10000000"), ("Layer1DownstreamMaxBitRate", "10000000"),
    ("PhysicalLinkStatus", "Up"), ("TotalBytesSent", "1"), ("TotalBytesReceived", "2"), ("TotalPacketsSent", "3"),
    ("TotalPacketsReceived", "4")])
def test_every_variable_of_the_link_has_its_value(world, variable, value):
    count(world, bytes_in=2, bytes_out=1, packets_in=4, packets_out=3)
    world.serve()
    assert query(world.lab.lan1, PATH, variable) == variable_answer(value)


@pytest.mark.parametrize("action, argument, _, counter", COUNTERS)
def test_a_counter_is_the_real_interfaces_own(lab, action, argument, _, counter):
    path = f"/upnp/control/wancommonifc-{lab.interface_id('wan0')}"

    def counted():
        return lab.router.run("cat", f"/sys/class/net/wan0/statistics/{counter}").stdout.strip()
    with lab.wan.datagrams() as outside:
        outside.sendto(b"x", ("198.51.100.1", 9))
    eventually(lambda: counted() != "0")

    def agrees():
        before = counted()
        answer = call(lab.lan1, path, action, service=COMMON)
        return before == counted() and answer == result(action, [(argument, before)], COMMON)
    eventually(agrees, f"{action} is {counter}")


def test_the_real_bus_carries_one_query_for_each_counter(lab):
    interface_id = lab.interface_id("wan0")
    trace = Trace(lab, "--json")
    call(lab.lan1, f"/upnp/control/wancommonifc-{interface_id}", "X_GetICSStatistics", service=COMMON)
    assert [asked(message) for message in trace.until_now(by_daemon)] == [
        ([20, 0], "0xfe0002", [("0xff0001", "u32[]", [20, 0]), ("0xfe0001", "u32", interface_id),
                               ("0xfe000c", "u32", 256)])] * 4
    trace.close()


@pytest.mark.parametrize("variable, value", [("OSMajorVersion", "2"), ("OSMinorVersion", "9"), ("OSBuildNumber", "1234")])
def test_the_system_information_is_fixed(lab, variable, value):
    assert query(lab.lan1, "/upnp/control/osinfo", variable) == variable_answer(value)


@pytest.mark.parametrize("name, told", [("gw", "gw"), ("abc", "abc"), ("four", ""), ("gateway", "")])
def test_the_machine_is_named_only_with_up_to_three_characters(world, name, told):
    world.start_under_the_name(name)
    assert query(world.lab.lan1, "/upnp/control/osinfo", "OSMachineName") == variable_answer(told)


def test_the_system_information_has_no_action(lab):
    for action in ("GetOSInfo", "OSMajorVersion"):
        assert call(lab.lan1, "/upnp/control/osinfo", action, service=OSINFO) == fault(401, "Invalid Action")
