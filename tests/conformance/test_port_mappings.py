"""The table of mappings: each answer, each log line and each rule as the router is asked for it, field by field."""
import pytest

from bus import ADD, NAT, OBJECT, REMOVE, SET, SET_OBJECT, Refusal, address, item, settings
from control_point import call, fault, mapping, query, result, variable_answer
from labs import LAN1, ROUTER_WAN
from traces import Trace, asked, by_daemon, routing
from worlds import LAN, WAN, WAN2

PATH = f"/upnp/control/wanipconn-{WAN}"
CONTENT = ["NewRemoteHost", "NewExternalPort", "NewProtocol", "NewInternalPort", "NewInternalClient", "NewEnabled",
           "NewPortMappingDescription", "NewLeaseDuration"]
DUMMY = ["", "0", "TCP", "0", "0.0.0.0", "0", "Dummy inactive rule for windows to work", "0"]
FAILED, NO_INDEX, NO_ENTRY = (fault(501, "Action Failed"), fault(713, "SpecifiedArrayIndexInvalid"),
                              fault(714, "NoSuchEntryInArray"))
TO_NAT = (0xFF0001, "u32[]", [20, 5])


@pytest.fixture
def serving(world):
    world.serve()
    world.take_requests()
    return world


def add(world, **arguments):
    return call(world.lab.lan1, PATH, "AddPortMapping", mapping(**arguments))


def delete(world, port, protocol="TCP", remote=""):
    return call(world.lab.lan1, PATH, "DeletePortMapping",
                [("NewRemoteHost", remote), ("NewExternalPort", port), ("NewProtocol", protocol)])


def generic(world, index):
    return call(world.lab.lan1, PATH, "GetGenericPortMappingEntry", [("NewPortMappingIndex", index)])


def specific(world, port, protocol="TCP", remote=""):
    return call(world.lab.lan1, PATH, "GetSpecificPortMappingEntry",
                [("NewRemoteHost", remote), ("NewExternalPort", port), ("NewProtocol", protocol)])


def entry(port="80", protocol="TCP", internal="8080", client=LAN1, enabled="1", description="web"):
    return ["", port, protocol, internal, client, enabled, description, "0"]


def listed(values):
    return result("GetGenericPortMappingEntry", list(zip(CONTENT, values)))


def looked_up(values):
    return result("GetSpecificPortMappingEntry", list(zip(CONTENT[3:], values[3:])))


def count(world):
    return query(world.lab.lan1, PATH, "PortMappingNumberOfEntries")


ADDED, DELETED = result("AddPortMapping"), result("DeletePortMapping")


def created(port=80, protocol=6, client=LAN1, internal=8080, disabled=False, external=ROUTER_WAN):
    return (NAT, ADD, [
        TO_NAT, (0xFE0007, "bool", True), (0xFE000A, "bool", disabled), (39, "string", "dstnat"), (419, "bool", True),
        (52, "be32", external), (53, "be32", external), (406, "bool", True), (9, "u32", port), (10, "u32", port),
        (404, "bool", True), (11, "u32", protocol), (40, "u32", 22), (1006, "bool", True), (1000, "be32", client),
        (1001, "be32", client), (1007, "bool", True), (1002, "u32", internal), (1003, "u32", internal)])


def changed(rule, client=LAN1, internal=8080, disabled=False):
    return (NAT, SET_OBJECT, [
        TO_NAT, (OBJECT, "u32", rule), (0xFE000A, "bool", disabled), (1000, "be32", client), (1001, "be32", client),
        (1002, "u32", internal), (1003, "u32", internal)])


def removed(rule):
    return (NAT, REMOVE, [TO_NAT, (OBJECT, "u32", rule)])


def lines_of(arguments):
    return ["action: AddPortMapping", *(f"arg: {name}, val: {value}" for name, value in arguments)]


def test_a_new_mapping_makes_a_rule_and_is_listed_looked_up_and_counted(serving):
    mark = serving.daemon.mark()
    assert add(serving) == ADDED
    assert serving.daemon.since(mark) == [*lines_of(mapping()), f"add map 80->8080, {LAN1}"]
    assert serving.take_requests() == [created()]
    assert generic(serving, 0) == listed(DUMMY)
    assert generic(serving, 1) == listed(entry())
    assert generic(serving, 2) == NO_INDEX
    assert specific(serving, 80) == looked_up(entry())
    assert count(serving) == variable_answer("2")


def test_the_same_client_changes_its_mapping_and_the_count_stays(serving):
    assert add(serving, external=81) == ADDED
    assert add(serving) == ADDED
    serving.take_requests()
    mark = serving.daemon.mark()
    arguments = dict(internal=9090, enabled="0", description="other")
    assert add(serving, **arguments) == ADDED
    assert serving.daemon.since(mark) == [*lines_of(mapping(**arguments)), f"set map 80->9090, {LAN1}"]
    assert serving.take_requests() == [changed(2, internal=9090, disabled=True)]
    assert generic(serving, 1) == listed(entry(internal="9090", enabled="0", description="other"))
    assert count(serving) == variable_answer("3")
    assert delete(serving, 80) == DELETED
    assert serving.take_requests() == [removed(2)]  # it kept its rule


def test_the_mapping_of_another_client_is_not_overwritten_whoever_asks(serving):
    assert add(serving) == ADDED
    serving.take_requests()
    for asker in (serving.lab.lan1, serving.lab.lan2):
        mark = serving.daemon.mark()
        arguments = mapping(client="192.0.2.3", internal=1)
        assert call(asker, PATH, "AddPortMapping", arguments) == fault(718, "ConflictInMappingEntry")
        assert serving.daemon.since(mark) == [*lines_of(arguments), "set map 80->1, 192.0.2.3",
                                              "addPortMapping: CONFLICT_IN_ENTRY"]
    assert call(serving.lab.lan2, PATH, "AddPortMapping", mapping(internal=7)) == ADDED  # names the same client
    assert serving.take_requests() == [changed(1, internal=7)]


def test_a_deletion_removes_the_rule_and_ignores_the_remote_host(serving):
    assert add(serving) == ADDED
    serving.take_requests()
    mark = serving.daemon.mark()
    assert delete(serving, 80, remote="10.0.0.1") == DELETED
    assert serving.daemon.since(mark) == [
        "action: DeletePortMapping", "arg: NewRemoteHost, val: 10.0.0.1", "arg: NewExternalPort, val: 80",
        "arg: NewProtocol, val: TCP", "del map 80"]
    assert serving.take_requests() == [removed(1)]
    assert specific(serving, 80) == NO_ENTRY
    assert count(serving) == variable_answer("1")


def test_deleting_what_is_not_there_is_a_fault(serving):
    assert add(serving) == ADDED
    serving.take_requests()
    for port, protocol in ((81, "TCP"), (80, "UDP")):
        mark = serving.daemon.mark()
        assert delete(serving, port, protocol) == NO_ENTRY
        assert serving.daemon.since(mark)[-1] == "deletePortMapping: NO_SUCH_ENTRY"
    assert serving.take_requests() == []


@pytest.mark.parametrize("given, code, description, line", [
    ({"remote": "10.0.0.1"}, 726, "RemoteHostOnlySupportsWildcard", "addPortMapping: REMOTE_ONLY_WILDCARD: '10.0.0.1'"),
    ({"remote": "0.0.0.0"}, 726, "RemoteHostOnlySupportsWildcard", "addPortMapping: REMOTE_ONLY_WILDCARD: '0.0.0.0'"),
    ({"remote": "1"}, 726, "RemoteHostOnlySupportsWildcard", "addPortMapping: REMOTE_ONLY_WILDCARD: '1'"),
    ({"external": ""}, 716, "WildcardNotPermittedInExtPort", "addPortMapping: EXT_PORT_NO_WILDCARD"),
    ({"lease": "3600"}, 725, "OnlyPermanentLeasesSupported", "addPortMapping: ONLY_PERM_LEASES"),
    ({"lease": "1"}, 725, "OnlyPermanentLeasesSupported", "addPortMapping: ONLY_PERM_LEASES"),
    ({"remote": "10.0.0.1", "lease": "1"}, 726, "RemoteHostOnlySupportsWildcard",
     "addPortMapping: REMOTE_ONLY_WILDCARD: '10.0.0.1'"),
    ({"external": "", "lease": "1"}, 716, "WildcardNotPermittedInExtPort", "addPortMapping: EXT_PORT_NO_WILDCARD"),
], ids=str)
def test_a_mapping_of_another_kind_is_a_fault_by_the_first_check(serving, given, code, description, line):
    mark = serving.daemon.mark()
    assert add(serving, **given) == fault(code, description)
    assert serving.daemon.since(mark) == [*lines_of(mapping(**given)), line]
    assert serving.take_requests() == []


@pytest.mark.parametrize("remote", ["", "255.255.255.255", "host.example", "10.0.0.256"])
def test_a_remote_host_that_is_no_address_is_ignored(serving, remote):
    assert add(serving, remote=remote) == ADDED
    assert serving.take_requests() == [created()]
    assert generic(serving, 1) == listed(entry())


@pytest.mark.parametrize("enabled, on", [("1", True), ("true", True), ("yes", True), ("0", False), ("false", False),
                                         ("no", False)])
def test_the_enabled_flag_takes_each_boolean(serving, enabled, on):
    assert add(serving, enabled=enabled) == ADDED
    assert serving.take_requests() == [created(disabled=not on)]
    assert generic(serving, 1) == listed(entry(enabled=str(int(on))))


@pytest.mark.parametrize("port", ["0", "1", "65535"])
def test_the_lowest_and_highest_ports_are_mapped_and_0_is_no_wildcard(serving, port):
    assert add(serving, external=port, internal=port) == ADDED
    assert serving.take_requests() == [created(port=int(port), internal=int(port))]
    assert generic(serving, 1) == listed(entry(port, internal=port))


def test_a_client_that_is_no_address_is_the_broadcast_address(serving):
    assert add(serving, client="printer") == ADDED
    assert serving.take_requests() == [created(client="255.255.255.255")]
    assert generic(serving, 1) == listed(entry(client="255.255.255.255"))
    assert add(serving, client="another name") == ADDED  # the same address: a change
    assert serving.take_requests() == [changed(1, client="255.255.255.255")]


def test_mappings_are_listed_by_port_then_tcp_before_udp_whatever_their_order(serving):
    for port, protocol in ((443, "UDP"), (8443, "TCP"), (22, "TCP"), (443, "TCP"), (5, "UDP")):
        assert add(serving, external=port, protocol=protocol) == ADDED
    expected = [("5", "UDP"), ("22", "TCP"), ("443", "TCP"), ("443", "UDP"), ("8443", "TCP")]
    for index, (port, protocol) in enumerate(expected, 1):
        assert generic(serving, index) == listed(entry(port, protocol))
    assert generic(serving, 6) == NO_INDEX
    assert [request[2][11] for request in serving.take_requests()] == [
        (11, "u32", number) for number in (17, 6, 6, 6, 17)]


def test_the_dummy_entry_stands_before_an_empty_table_although_the_count_begins_at_0(serving):
    assert count(serving) == variable_answer("0")
    assert generic(serving, 0) == listed(DUMMY)
    assert generic(serving, 1) == NO_INDEX
    assert add(serving) == ADDED
    assert count(serving) == variable_answer("2")
    assert delete(serving, 80) == DELETED
    assert count(serving) == variable_answer("1")


def test_the_dummy_entry_is_hidden_on_demand(serving):
    assert add(serving) == ADDED
    serving.router.ask(SET, settings(True, True, False))
    assert count(serving) == variable_answer("1")
    assert generic(serving, 0) == listed(entry())
    assert generic(serving, 1) == NO_INDEX
    assert delete(serving, 80) == DELETED
    assert count(serving) == variable_answer("0")
    assert generic(serving, 0) == NO_INDEX
    assert add(serving) == ADDED
    assert count(serving) == variable_answer("1")
    serving.router.ask(SET, settings(True, True, True))
    assert count(serving) == variable_answer("2")


@pytest.mark.parametrize("shown", [True, False])
def test_the_dummy_entry_is_looked_up_whether_shown_or_not_and_hides_tcp_port_0(serving, shown):
    assert add(serving, external=0) == ADDED
    assert add(serving, external=0, protocol="UDP") == ADDED
    serving.router.ask(SET, settings(True, True, shown))
    assert specific(serving, 0) == looked_up(DUMMY)
    assert specific(serving, "00") == looked_up(entry())  # only the exact text 0
    assert specific(serving, 0, "UDP") == looked_up(entry())
    assert specific(serving, 0, remote="none") == NO_ENTRY


def test_an_entry_of_a_remote_host_is_never_there(serving):
    assert add(serving) == ADDED
    for remote in ("198.51.100.2", "none", "255.255.255.255"):
        assert specific(serving, 80, remote=remote) == NO_ENTRY
    assert specific(serving, 80, "UDP") == NO_ENTRY
    assert specific(serving, 81) == NO_ENTRY


@pytest.mark.parametrize("index", ["2", "65535"])
def test_an_index_past_the_end_is_a_fault_without_a_line(serving, index):
    assert add(serving) == ADDED
    mark = serving.daemon.mark()
    assert generic(serving, index) == NO_INDEX
    assert serving.daemon.since(mark) == ["action: GetGenericPortMappingEntry", f"arg: NewPortMappingIndex, val: {index}"]


def test_a_creation_that_the_router_refuses_is_a_fault_and_leaves_nothing(serving):
    serving.router.answers[NAT, ADD] = Refusal(3, "full")
    mark = serving.daemon.mark()
    assert add(serving) == FAILED
    assert serving.daemon.since(mark)[-2:] == [f"add map 80->8080, {LAN1}", "add nat failed: full"]
    assert generic(serving, 1) == NO_INDEX and count(serving) == variable_answer("0")


def test_a_change_that_the_router_refuses_is_a_fault_and_leaves_the_entry(serving):
    assert add(serving) == ADDED
    serving.router.answers[NAT, SET_OBJECT] = Refusal(3, "not now")
    mark = serving.daemon.mark()
    assert add(serving, internal=9, enabled="0", description="x") == FAILED
    assert serving.daemon.since(mark)[-2:] == [f"set map 80->9, {LAN1}", "set nat failed: not now"]
    assert generic(serving, 1) == listed(entry())


def test_a_removal_that_the_router_refuses_is_a_fault_and_keeps_the_entry(serving):
    assert add(serving) == ADDED
    serving.router.answers[NAT, REMOVE] = Refusal(3, "in use")
    mark = serving.daemon.mark()
    assert delete(serving, 80) == FAILED
    assert serving.daemon.since(mark)[-2:] == ["del map 80", "remove nat failed: in use"]
    assert generic(serving, 1) == listed(entry()) and count(serving) == variable_answer("2")
    del serving.router.answers[NAT, REMOVE]
    assert delete(serving, 80) == DELETED


def test_a_creation_that_tells_no_number_is_taken_for_rule_0(serving):
    serving.router.answers[NAT, ADD] = []
    assert add(serving) == ADDED
    serving.take_requests()
    assert delete(serving, 80) == DELETED
    assert serving.take_requests() == [removed(0)]


def test_rules_made_after_a_change_of_the_address_carry_the_new_one_and_the_old_ones_stay(serving):
    assert add(serving) == ADDED
    serving.take_requests()
    serving.router.tell_addresses(address(20, "198.51.100.9", WAN))
    assert serving.take_requests() == []
    assert add(serving, external=81) == ADDED
    assert serving.take_requests() == [created(port=81, external="198.51.100.9")]


def test_the_end_of_the_service_removes_every_rule_in_order_and_goes_on_behind_a_failure(serving):
    for port in (443, 22, 80):
        assert add(serving, external=port) == ADDED
    serving.take_requests()
    serving.router.answers[NAT, REMOVE] = lambda message: (
        Refusal(3, "stuck") if (OBJECT, "u32", 2) in message else [])
    assert serving.log_of(REMOVE, [(OBJECT, "u32", 2)]) == [
        "stop ext: uplink", "sendAdverts", "on cleanup remove nat failed: stuck"]
    assert [request for request in serving.take_requests() if request[0] == NAT] == [removed(2), removed(3), removed(1)]


def test_a_restarted_service_begins_with_an_empty_table(serving):
    assert add(serving) == ADDED
    serving.router.ask(SET_OBJECT, [(OBJECT, "u32", 2)])
    assert generic(serving, 1) == NO_INDEX and count(serving) == variable_answer("0")


def test_two_external_interfaces_have_a_table_each(world):
    world.router.interfaces.append(world.wan2)
    world.serve(item(LAN, 2), item(WAN, 1), item(WAN2, 1))
    assert add(world) == ADDED
    assert call(world.lab.lan1, f"/upnp/control/wanipconn-{WAN2}", "GetGenericPortMappingEntry",
                [("NewPortMappingIndex", "1")]) == NO_INDEX


def traced(fields):
    """Fields as the trace shows them."""
    return [(f"0x{identifier:x}", kind, value) for identifier, kind, value in fields]


def test_the_real_router_gets_the_rules_field_by_field(lab):
    path = f"/upnp/control/wanipconn-{lab.interface_id('wan0')}"
    trace = Trace(lab, "--json")
    assert call(lab.lan1, path, "AddPortMapping", mapping()) == ADDED
    rule = lab.rules()[0]["id"]
    assert call(lab.lan1, path, "AddPortMapping", mapping(internal=9090, enabled="0")) == ADDED
    assert call(lab.lan1, path, "DeletePortMapping", mapping()[:3]) == DELETED
    requests = trace.until_now(by_daemon)
    assert [asked(message) for message in requests] == [
        (list(to), f"0x{command:x}", traced(fields)) for to, command, fields in (
            created(), changed(rule, internal=9090, disabled=True), removed(rule))]
    assert {tuple(routing(message)) for message in requests} == {
        (("0xff0002", "u32[]"), ("0xff0003", "u32"), ("0xff0005", "u32"), ("0xff0007", "u32"))}
    trace.close()


@pytest.mark.parametrize("client", ["0.0.0.0", "127.0.0.1", "224.0.0.1", "255.255.255.255", "192.0.2.1", ROUTER_WAN,
                                    "198.51.100.2", "10.0.0.1", "192.0.2.255"])
def test_a_target_that_would_open_the_router_is_refused_by_it(lab, client):
    path = f"/upnp/control/wanipconn-{lab.interface_id('wan0')}"
    mark = lab.upnpd.mark()
    assert call(lab.lan1, path, "AddPortMapping", mapping(client=client)) == FAILED
    lines = lab.upnpd.since(mark)
    assert lines[-2] == f"add map 80->8080, {client}"
    assert lines[-1].startswith("add nat failed: ") and len(lines[-1]) > len("add nat failed: ")
