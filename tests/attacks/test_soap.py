"""What a host in the LAN can put into a call of an action, and what it costs another one."""
import pytest

from control_point import (CONNECTION, action_element, bare, call, envelope, exchange, fault, mapping, post, query,
                           result, variable_answer)
from labs import LAN1, ROUTER_WAN

BAD_REQUEST = bare("400 Bad Request")
ADDED, INVALID_ARGS, FAILED = result("AddPortMapping"), fault(402, "Invalid Args"), fault(501, "Action Failed")
ONLY_PERMANENT, ONLY_WILDCARD = fault(725, "OnlyPermanentLeasesSupported"), fault(726, "RemoteHostOnlySupportsWildcard")
NO_WILDCARD = fault(716, "WildcardNotPermittedInExtPort")
ADDRESS = result("GetExternalIPAddress", [("NewExternalIPAddress", ROUTER_WAN)])
GET_ADDRESS = envelope(action_element("GetExternalIPAddress"))
LONG = 60 << 10
# Each argument of AddPortMapping, with a value after which it can be told apart.
USUAL = mapping(external="81", protocol="UDP", internal="8081", client=LAN1, description="usual", remote="none")
NAMES = [name for name, _ in USUAL]


@pytest.fixture
def path(lab):
    return f"/upnp/control/wanipconn-{lab.interface_id('wan0')}"


@pytest.fixture
def calls(lab, path):
    """Calls of AddPortMapping. What they have mapped is unmapped at the end."""
    def add(arguments):
        return call(lab.lan1, path, "AddPortMapping", arguments)
    yield add
    while len(mapped := entry(lab, path, 1)) > 1:
        gone = [("NewRemoteHost", ""), ("NewExternalPort", mapped[1]), ("NewProtocol", mapped[2])]
        assert call(lab.lan1, path, "DeletePortMapping", gone) == result("DeletePortMapping")


def listed(lab, path, index):
    return call(lab.lan1, path, "GetGenericPortMappingEntry", [("NewPortMappingIndex", index)])


def entry(lab, path, index):
    """The values of a mapping as they are listed, without the remote host's; one only when there is none."""
    answer = listed(lab, path, index)
    if answer == fault(713, "SpecifiedArrayIndexInvalid"):
        return [""]
    lines = answer.partition("\r\n\r\n")[2].split("\r\n")
    return [line.partition(">")[2].rpartition("</")[0] for line in lines if line.lstrip().startswith("<New")]


def changed(position, value):
    return [(name, value if at == position else given) for at, (name, given) in enumerate(USUAL)]


def entry_answer(external="81", protocol="UDP", internal="8081", client=LAN1, enabled="1", description="usual"):
    return result("GetGenericPortMappingEntry", list(zip(
        NAMES, ["", external, protocol, internal, client, enabled, description, "0"])))


# An empty element takes the text of the one before it, on purpose.
@pytest.mark.parametrize("position, answer, entry", [
    pytest.param(0, ADDED, {}, id=NAMES[0]),
    pytest.param(1, INVALID_ARGS, None, id=NAMES[1]),
    pytest.param(2, INVALID_ARGS, None, id=NAMES[2]),
    pytest.param(3, INVALID_ARGS, None, id=NAMES[3]),
    pytest.param(4, FAILED, None, id=NAMES[4]),
    pytest.param(5, INVALID_ARGS, None, id=NAMES[5]),
    pytest.param(6, ADDED, {"description": "1"}, id=NAMES[6]),
    pytest.param(7, INVALID_ARGS, None, id=NAMES[7]),
])
def test_an_empty_argument_counts_as_the_text_before_it(lab, path, calls, position, answer, entry):
    assert calls(changed(position, "")) == answer
    assert listed(lab, path, 1) == (fault(713, "SpecifiedArrayIndexInvalid") if entry is None else entry_answer(**entry))


def test_a_call_with_nothing_in_it_is_a_fault(lab, calls):
    assert calls([(name, "") for name in NAMES]) == INVALID_ARGS  # an empty protocol is none
    assert calls([]) == INVALID_ARGS
    assert lab.rules() == []


def test_an_external_port_of_no_text_is_refused(lab, path, calls):
    assert calls([("NewRemoteHost", ""), ("NewExternalPort", ""), *USUAL[2:]]) == NO_WILDCARD
    assert lab.rules() == []


@pytest.mark.parametrize("position", range(8), ids=NAMES)
def test_the_first_of_an_argument_that_comes_twice_counts(lab, path, calls, position):
    hostile = (NAMES[position], "hostile")
    assert calls([*USUAL[:position + 1], hostile, *USUAL[position + 1:], hostile]) == ADDED
    assert listed(lab, path, 1) == entry_answer()


@pytest.mark.parametrize("turn", range(8))
def test_arguments_come_in_any_order(lab, path, calls, turn):
    assert calls([*USUAL[turn:], *USUAL[:turn]][::-1]) == ADDED
    assert listed(lab, path, 1) == entry_answer()


@pytest.mark.parametrize("position, value, answer, entry", [
    pytest.param(0, "x" * LONG, ADDED, {}, id=NAMES[0]),
    pytest.param(1, "9" * LONG, INVALID_ARGS, None, id=NAMES[1]),
    pytest.param(1, "0" * LONG + "81", ADDED, {}, id="zeros before " + NAMES[1]),
    pytest.param(2, "UDP" * (LONG // 3), INVALID_ARGS, None, id=NAMES[2]),
    pytest.param(3, "9" * LONG, INVALID_ARGS, None, id=NAMES[3]),
    pytest.param(4, LAN1 + "." * LONG, FAILED, None, id=NAMES[4]),
    pytest.param(5, "1" * LONG, INVALID_ARGS, None, id=NAMES[5]),
    pytest.param(6, "x" * LONG, ADDED, {"description": "x" * LONG}, id=NAMES[6]),
    pytest.param(7, "9" * LONG, ONLY_PERMANENT, None, id=NAMES[7]),
])
def test_an_argument_of_60_kb_is_judged_as_any_other(lab, path, calls, position, value, answer, entry):
    assert calls(changed(position, value)) == answer
    assert listed(lab, path, 1) == (fault(713, "SpecifiedArrayIndexInvalid") if entry is None else entry_answer(**entry))


FORMATS = "%n%n%s%s%x%p%1000000d%*.*s{}{0}$(id)`id`\\x41"


@pytest.mark.parametrize("position, answer", [
    (0, ADDED), (1, INVALID_ARGS), (2, INVALID_ARGS), (3, INVALID_ARGS), (4, FAILED), (5, INVALID_ARGS), (6, ADDED),
    (7, INVALID_ARGS)], ids=lambda value: NAMES[value] if isinstance(value, int) else "")
def test_a_format_is_a_text_as_any_other(lab, path, calls, position, answer):
    mark = lab.upnpd.mark()
    assert calls(changed(position, FORMATS)) == answer
    assert lab.upnpd.since(mark)[position + 1] == f"arg: {NAMES[position]}, val: {FORMATS}"
    if position == 6:
        assert listed(lab, path, 1) == entry_answer(description=FORMATS)


@pytest.mark.parametrize("value, answer", [
    ("-1", INVALID_ARGS), ("+81", ADDED), (" 81", ADDED), ("81 ", INVALID_ARGS), ("0x51", INVALID_ARGS),
    ("18446744073709551697", INVALID_ARGS), ("8&#49;", ADDED), ("8\u0661", INVALID_ARGS)])
def test_a_port_in_an_odd_form_is_read_as_a_number_or_refused(lab, path, calls, value, answer):
    arguments = changed(1, value)
    if value == "8&#49;":  # only the text behind a reference counts
        assert calls(arguments) == answer
        assert listed(lab, path, 1) == entry_answer(external="1")
        return
    assert calls(arguments) == answer
    if answer == ADDED:
        assert listed(lab, path, 1) == entry_answer()


@pytest.mark.parametrize("text, kept", [
    ("<![CDATA[<b>&amp;</b>]]>", "<b>&amp;</b>"),
    ("a<![CDATA[<b/>]]>c", "c"),
    ("<![CDATA[]]>", "1"),  # is empty, and the flag stands before it
    ("<![CDATA[</NewPortMappingDescription><NewLeaseDuration>9]]>",
     "</NewPortMappingDescription><NewLeaseDuration>9"),
    ("<![CDATA[]]]]><![CDATA[>]]>", ">"),
    ("<!-- <x> -->text", "text"), ("text<?php x?>", "text"), ("text<b>bold</b>", ""),
])
def test_a_description_keeps_its_last_piece_of_text_as_it_came(lab, path, calls, text, kept):
    assert calls(changed(6, text)) == ADDED
    assert listed(lab, path, 1) == entry_answer(description=kept)


def odd_soap_actions():
    name = "GetExternalIPAddress"
    yield '"' * LONG, '"' * (LONG - 2)
    yield "#" * LONG, "#" * (LONG - 1)
    yield "x" * LONG + "#" + name, name
    yield '"' + "#" + "x" * LONG + '"', "x" * LONG
    yield f'"{CONNECTION}#%n%s"', "%n%s"
    yield '"\x00"', "\x00"
    yield f"#\x00{name}", f"\x00{name}"


@pytest.mark.parametrize("soap_action, name", odd_soap_actions(), ids=[
    "quotes", "hashes", "a long type", "a long name", "a format", "NUL", "NUL before the name"])
def test_an_odd_name_of_an_action_is_looked_for_as_it_is(lab, path, soap_action, name):
    answer = exchange(lab.lan1, post(path, GET_ADDRESS, soap_action))
    assert answer == (ADDRESS if name == "GetExternalIPAddress" else BAD_REQUEST)


def laughs():
    """An entity that stands for a billion of texts."""
    levels = "".join(f'<!ENTITY l{level} "{f"&l{level - 1};" * 10}">' for level in range(1, 10))
    return f'<!DOCTYPE x [<!ENTITY l0 "ha">{levels}]>' + called("<NewPortMappingDescription>&l9;</NewPortMappingDescription>")


def called(inside):
    return envelope(f"<AddPortMapping>{inside}</AddPortMapping>").partition("?>")[2]


DOCUMENTS = [
    pytest.param(laughs(), id="a billion laughs"),
    pytest.param('<!DOCTYPE x [<!ENTITY e "' + "e" * 30000 + '">]>' + called("&e;" * 10000), id="a quadratic entity"),
    pytest.param('<!DOCTYPE x [<!ENTITY e SYSTEM "file:///etc/passwd">]>' + called("<NewRemoteHost>&e;</NewRemoteHost>"),
                 id="a file"),
    pytest.param('<!DOCTYPE x [<!ENTITY e SYSTEM "http://192.0.2.2:8000/">]>' + called("&e;"), id="a host"),
    pytest.param('<!DOCTYPE x [<!ENTITY % e SYSTEM "http://192.0.2.2:8000/"> %e;]>' + called(""), id="a parameter entity"),
    pytest.param('<!DOCTYPE x [<!ENTITY e "&e;">]>' + called("&e;"), id="an entity in itself"),
    pytest.param("<a>" * 40000, id="40000 levels"),
    pytest.param(called("<a/>" * 20000), id="20000 elements"),
    pytest.param("<a " + " ".join(f'a{number}=""' for number in range(5000)) + "/>", id="5000 attributes"),
    pytest.param(f"<{'a' * 120000}/>", id="a long name of an element"),
    pytest.param("<![CDATA[" * 10000, id="open CDATA"),
    pytest.param("<!--" * 30000, id="open comments"),
    pytest.param("&#0;" * 10000, id="references to NUL"),
    pytest.param("\ufeff" * 3 + called(""), id="marks of the byte order"),
    pytest.param(called("\ud800".encode("utf-8", "surrogatepass").decode("latin1") + "\x01"), id="what is no character"),
]


@pytest.mark.parametrize("document", DOCUMENTS)
def test_a_hostile_document_is_a_bare_400(lab, path, document):
    with lab.lan1.listen(8000) as outer:
        assert exchange(lab.lan1, post(path, document, f'"{CONNECTION}#AddPortMapping"')) == BAD_REQUEST
        outer.setblocking(False)
        with pytest.raises(BlockingIOError):
            outer.accept()


@pytest.mark.parametrize("levels, answer", [(64, ADDRESS), (65, BAD_REQUEST)])
def test_64_levels_are_read(lab, path, levels, answer):
    inner = levels - 3  # within envelope, body and action
    body = envelope("<GetExternalIPAddress>" + "<a>" * inner + "</a>" * inner + "</GetExternalIPAddress>")
    assert exchange(lab.lan1, post(path, body, "#GetExternalIPAddress")) == answer


@pytest.mark.parametrize("document", [
    pytest.param(laughs(), id="a billion laughs"), pytest.param("<a>" * 40000, id="40000 levels"),
    pytest.param(called("<a/>" * 20000), id="20000 elements"),
    pytest.param("<a " + " ".join(f'a{number}=""' for number in range(9000)) + "/>", id="9000 attributes"),
    pytest.param(called("<NewRemoteHost>" + "&amp;" * 20000 + "</NewRemoteHost>"), id="20000 references"),
    pytest.param("<" * 120000, id="brackets")])
def test_hostile_documents_keep_nobody_waiting(lab, path, bystander, document):
    def attack():
        for _ in range(20):
            answer = exchange(lab.lan1, post(path, document, f'"{CONNECTION}#AddPortMapping"'))
            assert answer in (BAD_REQUEST, INVALID_ARGS)
    bystander.during(attack)


def test_long_calls_keep_nobody_waiting(lab, path, calls, bystander):
    def attack():
        for position in (0, 1, 2, 4, 6):
            calls(changed(position, "x" * LONG))
        assert query(lab.lan1, path, "x" * LONG) == fault(404, "Invalid Var")
        assert query(lab.lan1, path, "NATEnabled") == variable_answer("1")
    bystander.during(attack)
