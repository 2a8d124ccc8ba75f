"""The administrator's command line."""
import json
import time

import pytest

import labs
from control_point import call, mapping, result
from labs import LAN1, ROUTER_WAN
from traces import Trace, fields


def record(identifier, name, index):
    return {"id": identifier, "name": name, "displayName": name, "index": index, "type": 1, "disabled": False,
            "running": True}


def test_interfaces_are_listed(lab):
    links = json.loads(lab.router.run("ip", "-json", "link", "show").stdout)
    listed = lab.query("interface", "list")
    assert sorted(listed, key=lambda one: one["index"]) == [
        record(lab.interface_id(link["ifname"]), link["ifname"], link["ifindex"])
        for link in sorted(links, key=lambda one: one["ifindex"]) if link["ifname"] != "lo"]
    assert [one["id"] for one in listed] == sorted({one["id"] for one in listed})
    table = lab.tkctl("interface", "list").stdout
    assert all(one["name"] in table for one in listed)


def test_an_alias_is_the_display_name(fresh_lab):
    fresh_lab.router.run("ip", "link", "set", "wan1", "alias", "Fibre")
    labs.eventually(lambda: [one["displayName"] for one in fresh_lab.query("interface", "list")
                             if one["name"] == "wan1"] == ["Fibre"])


def test_a_name_cannot_steer_the_terminal(fresh_lab):
    fresh_lab.router.run("ip", "link", "set", "wan1", "alias", "a\x1b[2J\u202eb")
    labs.eventually(lambda: "a\\x1b[2J\\xe2\\x80\\xaeb" in fresh_lab.tkctl("interface", "list").stdout)


def test_addresses_are_listed(lab):
    listed = lab.query("address", "list")
    assert sorted((one["address"], one["interface"], one["disabled"]) for one in listed) == sorted(
        (address, lab.interface_id(name), False)
        for address, name in (("192.0.2.1", "lan0"), ("198.51.100.1", "wan0"), ("203.0.113.1", "wan1")))
    assert all(set(one) == {"id", "address", "interface", "disabled"} for one in listed)
    assert "198.51.100.1" in lab.tkctl("address", "list").stdout


def test_settings_are_read_and_set_one_by_one(lab):
    assert lab.query("upnp", "get") == {"enabled": True, "allow-disable-external": True, "show-dummy-rule": True}
    lab.tkctl("upnp", "set", "allow-disable-external=no", "show-dummy-rule=no")
    assert lab.query("upnp", "get") == {"enabled": True, "allow-disable-external": False, "show-dummy-rule": False}
    lab.tkctl("upnp", "set", "allow-disable-external=yes")
    assert lab.query("upnp", "get") == {"enabled": True, "allow-disable-external": True, "show-dummy-rule": False}
    lab.tkctl("upnp", "set", "show-dummy-rule=yes")
    assert "show-dummy-rule" in lab.tkctl("upnp", "get").stdout


def test_items_are_added_changed_listed_and_removed(lab):
    lan, wan, spare = (lab.interface_id(name) for name in ("lan0", "wan0", "wan1"))
    before = lab.query("upnp", "interface", "list")
    assert [(item["interface"], item["name"], item["type"], item["disabled"]) for item in before] == [
        (lan, "lan0", "internal", False), (wan, "wan0", "external", False)]
    added = lab.tkctl("upnp", "interface", "add", "wan1", "external", "disabled=yes").stdout
    identifier = int(added)
    assert added == f"{identifier}\n"
    expected = {"id": identifier, "interface": spare, "name": "wan1", "type": "external", "disabled": True}
    assert lab.query("upnp", "interface", "list") == [*before, expected]
    lab.tkctl("upnp", "interface", "set", identifier, "disabled=no")
    expected["disabled"] = False
    assert lab.query("upnp", "interface", "list") == [*before, expected]
    lab.tkctl("upnp", "interface", "set", identifier, "type=internal", "--force")
    expected["type"] = "internal"
    assert lab.query("upnp", "interface", "list") == [*before, expected]
    assert "wan1" in lab.tkctl("upnp", "interface", "list").stdout
    lab.tkctl("upnp", "interface", "remove", identifier)
    assert lab.query("upnp", "interface", "list") == before


def test_an_interface_takes_one_item_alone(lab):
    items = lab.query("upnp", "interface", "list")
    refused = lab.tkctl("upnp", "interface", "add", "lan0", "external", check=False)
    assert (refused.returncode, refused.stdout, refused.stderr) == (
        1, "", f"tkctl: Interface already added; change it: tkctl upnp interface set {items[0]['id']} type=external\n")
    refused = lab.tkctl("upnp", "interface", "set", items[1]["id"], "interface=lan0", check=False)
    assert (refused.returncode, refused.stdout, refused.stderr) == (1, "", "tkctl: Interface already set\n")
    assert lab.query("upnp", "interface", "list") == items


NO_ITEM = 'there is no item 4000; "tkctl upnp interface list" lists the items'
REFUSED = {
    "upnp interface add nosuch0 internal":
        "there is no interface 'nosuch0'; there are: lan0, lanp1, lanp2, wan0, wan1",
    "upnp interface remove 4000": NO_ITEM,
    "upnp interface set 4000 disabled=yes": NO_ITEM,
    "bus call 77 0xFE000D": "nobody at this destination",
    "bus call 20,0 0x7777": "no such command",
}


@pytest.mark.parametrize("words", REFUSED)
def test_what_is_refused_says_why_and_has_status_1(lab, words):
    done = lab.tkctl(*words.split(), check=False)
    assert (done.returncode, done.stdout, done.stderr) == (1, "", f"tkctl: {REFUSED[words]}\n")


NO_ADDRESS = "expected an IPv4 address such as 192.0.2.1"
MISUSED = {
    "nosuch": "unknown command 'nosuch'; there are: setup, status, watch, doctor, reload, upnp, interface, address, "
              "nat, history, bus, help (--help tells more)",
    "stauts": "unknown command 'stauts'; did you mean 'status'? (--help tells more)",
    "upnp nosuch": "unknown command 'nosuch'; there are: get, set, mappings, interface (--help tells more)",
    "upnp set": "KEY=VALUE is missing; usage: tkctl upnp set KEY=VALUE...; for example: tkctl upnp set enabled=yes "
                "(--help tells more)",
    "upnp set enabled=maybe": "'enabled=maybe': the value is yes or no",
    "upnp set colour=blue":
        "unknown key 'colour'; there are: enabled, allow-disable-external, show-dummy-rule",
    "upnp interface add lan0":
        "internal|external is missing; usage: tkctl upnp interface add NAME internal|external [KEY=VALUE...]; "
        "for example: tkctl upnp interface add lan0 internal (--help tells more)",
    "upnp interface add lan0 sideways": "'sideways': the type is internal or external",
    "upnp interface set one disabled=yes":
        "'one': expected the id of an item, as \"tkctl upnp interface list\" shows it",
    "upnp interface remove": "ID is missing; usage: tkctl upnp interface remove ID; "
                             "for example: tkctl upnp interface remove 1 (--help tells more)",
    "nat nosuch": "unknown command 'nosuch'; there are: list, test (--help tells more)",
    "nat list --nosuch": "unknown option '--nosuch' (--help tells more)",
    "nat test": "ADDRESS is missing; usage: tkctl nat test ADDRESS PORT PROTOCOL TARGET TARGETPORT; "
                "for example: tkctl nat test 198.51.100.1 80 tcp 192.0.2.2 8080 (--help tells more)",
    f"nat test {ROUTER_WAN} 65536 tcp {LAN1} 80": "'65536': expected a port, 0 to 65535",
    f"nat test {ROUTER_WAN} 80 sctp {LAN1} 80": "'sctp': the protocol is tcp or udp",
    f"nat test wan0 80 tcp {LAN1} 80": f"'wan0': {NO_ADDRESS}",
    f"nat test {ROUTER_WAN} 80 tcp 192.0.2 80": f"'192.0.2': {NO_ADDRESS}",
    "bus call 20,x 1": "'20,x': a path is numbers separated by commas, such as 20,5",
    "bus call 20,5": "COMMAND is missing; usage: tkctl bus call PATH COMMAND [FIELD:TYPE=VALUE...]; "
                     "for example: tkctl bus call 20,5 0xFE0004 (--help tells more)",
    "bus call 20,5 1 1:colour=blue":
        "'1:colour=blue': the type is u32, bool, string, be32, u64, u32[] or message[]",
    "bus call 20,5 1 1:u32=many": "'1:u32=many': a u32 is a number from 0 to 4294967295",
}


@pytest.mark.parametrize("words", MISUSED)
def test_misuse_is_answered_with_what_to_give_and_has_status_2(lab, words):
    done = lab.tkctl(*words.split(), check=False)
    assert (done.returncode, done.stdout, done.stderr) == (2, "", f"tkctl: {MISUSED[words]}\n")


@pytest.mark.parametrize("words", [("--json", "nat", "list"), ("nat", "--json", "list"), ("nat", "list", "--json"),
                                   ("nat", "--socket", "/run/tk/bus", "--json", "list")], ids=" ".join)
def test_options_may_stand_anywhere(lab, words):
    assert lab.tkctl(*words).stdout == "[]\n"


def test_a_rule_for_a_foreign_address_is_refused(lab):
    done = lab.tkctl("nat", "test", "198.51.100.9", "80", "tcp", LAN1, "80", check=False)
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr == "tkctl: destination 198.51.100.9 refused: it is no address of an outside interface of the router\n"
    assert lab.tkctl("nat", "test", ROUTER_WAN, "80", "tcp", LAN1, "80").stderr == ""


def test_an_answer_that_cannot_be_written_is_a_failure(lab):
    for words in ("nat list", "nat list --json", "--help"):
        done = lab.router.run("sh", "-c", f"{labs.BIN}/tkctl {words} >/dev/full", check=False)
        assert (done.returncode, done.stderr) == (1, "tkctl: cannot write the answer: No space left on device\n")


def test_a_reader_that_leaves_ends_the_command_without_a_word(lab):
    assert lab.router.run("sh", "-c", f"{labs.BIN}/tkctl interface list | true").stderr == ""


def test_help_is_no_misuse(lab):
    done = lab.tkctl("--help")
    assert "upnp" in done.stdout and "bus" in done.stdout


@pytest.mark.parametrize("words", [("interface", "list"), ("upnp", "get"), ("nat", "list"), ("bus", "trace"),
                                   ("upnp", "set", "enabled=yes"), ("bus", "call", "65", "0xFE000D")], ids=" ".join)
def test_without_a_router_every_command_fails_at_once(bare_lab, words):
    began = time.monotonic()
    done = bare_lab.tkctl(*words, check=False)
    assert time.monotonic() - began < 2 * labs.SLOWNESS
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr == ("tkctl: cannot reach routerd at /run/tk/bus: it is not running; start it: setsid "
                           f"{labs.BIN}/routerd </dev/null >>/var/log/routerd.log 2>&1 &\n")


def test_without_a_daemon_its_commands_fail_at_once(bare_lab):
    bare_lab.start_routerd()
    began = time.monotonic()
    done = bare_lab.tkctl("upnp", "get", check=False)
    assert time.monotonic() - began < 2
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr == ("tkctl: upnpd does not answer: nobody at this destination; start it: setsid "
                           f"{labs.BIN}/upnpd </dev/null >>/var/log/upnpd.log 2>&1 &\n")
    assert bare_lab.query("nat", "list") == []


def test_a_call_answers_with_the_whole_reply(lab):
    reply = lab.query("bus", "call", "80", "0xFE000D")
    assert {key: reply[key] for key in ("kind", "from", "command")} == {
        "kind": "reply", "from": [80, 0], "command": "0xfe000d"}
    assert reply["to"][0] >= 1000
    assert reply["fields"][:3] == [{"id": f"0x{number}", "type": "bool", "value": True} for number in (1, 2, 3)]
    routing = {field["id"]: (field["type"], field["value"]) for field in reply["fields"][3:]}
    assert routing["0xff0002"] == ("u32[]", [80, 0])
    assert routing["0xff0003"] == ("u32", reply["number"])
    assert routing["0xff0005"] == ("u32", 2)
    assert routing["0xff0007"] == ("u32", 0xFE000D)


def test_a_call_takes_fields_of_every_type(lab):
    """A rule set by hand stays until it is removed, unless it is called dynamic."""
    reply = lab.query("bus", "call", "20,5", "0xFE0005", "0xFE000A:bool=no", "39:string=dstnat", "419:bool=yes",
                      f"52:be32={ROUTER_WAN}", f"53:be32={ROUTER_WAN}", "406:bool=1", "9:u32=81", "0xa:u32=81",
                      "404:bool=true", "11:u32=6", "40:u32=22", "1006:bool=yes", f"1000:be32={LAN1}", f"1001:be32={LAN1}",
                      "1007:bool=yes", "1002:u32=8080", "1003:u32=8080")
    identifier = next(field["value"] for field in reply["fields"] if field["id"] == "0xfe0001")
    assert lab.rules() == [{"id": identifier, "disabled": False, "dynamic": False, "chain": "dstnat",
                            "dstAddress": ROUTER_WAN, "protocol": "tcp", "dstPort": 81, "toAddress": LAN1,
                            "toPort": 8080, "packets": 0, "bytes": 0}]
    assert LAN1 in lab.tkctl("nat", "list").stdout
    lab.tkctl("bus", "call", "20,5", "0xFE0006", f"0xFE0001:u32={identifier}")
    assert lab.rules() == []
    lab.tkctl("bus", "call", "20,5", "0xFE0006", f"0xFE0001:u32={identifier}")  # gone already: no error


@pytest.fixture
def trace(lab):
    trace = Trace(lab, "--json")
    yield trace
    trace.close()


def to_nat(command):
    return lambda message: message["kind"] == "request" and message["to"] == [20, 5] and message["command"] == command


def test_the_trace_shows_the_rule_of_a_mapping_field_by_field(lab, trace):
    path = f"/upnp/control/wanipconn-{lab.interface_id('wan0')}"
    assert call(lab.lan1, path, "AddPortMapping", mapping()) == result("AddPortMapping")
    request = trace.next(to_nat("0xfe0005"))
    assert request["from"] == [80, 0]
    assert fields(request) == [
        ("0xff0001", "u32[]", [20, 5]), ("0xfe0007", "bool", True), ("0xfe000a", "bool", False),
        ("0x27", "string", "dstnat"), ("0x1a3", "bool", True), ("0x34", "be32", ROUTER_WAN),
        ("0x35", "be32", ROUTER_WAN), ("0x196", "bool", True), ("0x9", "u32", 80), ("0xa", "u32", 80),
        ("0x194", "bool", True), ("0xb", "u32", 6), ("0x28", "u32", 22), ("0x3ee", "bool", True),
        ("0x3e8", "be32", LAN1), ("0x3e9", "be32", LAN1), ("0x3ef", "bool", True), ("0x3ea", "u32", 8080),
        ("0x3eb", "u32", 8080)]
    reply = trace.next(lambda message: message["kind"] == "reply" and message["number"] == request["number"]
                       and message["to"] == [80, 0])
    assert (reply["from"], reply["command"]) == ([20, 5], "0xfe0005")
    identifier = lab.rules()[0]["id"]
    assert ("0xfe0001", "u32", identifier) in fields(reply)

    assert call(lab.lan1, path, "AddPortMapping", mapping(internal=9090, enabled="0")) == result("AddPortMapping")
    assert fields(trace.next(to_nat("0xfe0003"))) == [
        ("0xff0001", "u32[]", [20, 5]), ("0xfe0001", "u32", identifier), ("0xfe000a", "bool", True),
        ("0x3e8", "be32", LAN1), ("0x3e9", "be32", LAN1), ("0x3ea", "u32", 9090), ("0x3eb", "u32", 9090)]

    assert call(lab.lan1, path, "DeletePortMapping", mapping()[:3]) == result("DeletePortMapping")
    assert fields(trace.next(to_nat("0xfe0006"))) == [("0xff0001", "u32[]", [20, 5]), ("0xfe0001", "u32", identifier)]


def test_the_trace_shows_refusals_and_notifications(lab, trace):
    lab.tkctl("upnp", "interface", "add", "lan0", "external", check=False)
    error = trace.next(lambda message: message["kind"] == "error")
    assert (error["from"], error["code"], error["text"]) == ([80, 0], "0xfe0009", "Interface already added")
    lab.tkctl("upnp", "set", "show-dummy-rule=yes")
    changed = trace.next(lambda message: message["kind"] == "notification" and message["from"] == [80, 0])
    assert changed["command"] == "0xfe000b"
    records = next(field["value"] for field in changed["fields"] if field["id"] == "0xfe0002")
    assert [(field["id"], field["type"], field["value"]) for field in records[0]][:1] == [
        ("0xfe0001", "u32", 0xFFFFFFFF)]
    undo = trace.next(lambda message: message["kind"] == "request" and message["to"] == [24])
    assert undo["command"] == "0xfe0005"
    assert ("0x3", "string", "upnp config changed") in fields(undo)


def test_the_trace_for_people_is_one_line_a_message(lab):
    trace = Trace(lab)
    line = trace.lines.get(timeout=labs.PATIENCE)
    assert line.endswith("\n") and "mark" in line
    trace.close()
