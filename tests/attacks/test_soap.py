"""What a host in the LAN can put into a call of an action, and what it costs another one."""
from string import ascii_letters

import pytest

from bystanders import watched
from control_point import (CONNECTION, action_element, bare, call, envelope, exchange, fault, mapping, outputs, post,
                           query, result, variable_answer)
from labs import LAN1, ROUTER_WAN

BAD_REQUEST = bare("400 Bad Request")
ADDED, INVALID_ARGS, FAILED = result("AddPortMapping"), fault(402, "Invalid Args"), fault(501, "Action Failed")
ONLY_PERMANENT = fault(725, "OnlyPermanentLeasesSupported")
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


def outcome(lab, path, arguments):
    """The answer to AddPortMapping, and the listing of what it has mapped, which is unmapped again."""
    answer, listing = call(lab.lan1, path, "AddPortMapping", arguments), listed(lab, path)
    mapped = dict(outputs(listing))
    if answer == ADDED:
        gone = [("NewRemoteHost", ""), *((name, mapped[name]) for name in ("NewExternalPort", "NewProtocol"))]
        assert call(lab.lan1, path, "DeletePortMapping", gone) == result("DeletePortMapping")
    assert lab.rules() == []
    return answer, listing


def listed(lab, path):
    """The first entry after the dummy."""
    return call(lab.lan1, path, "GetGenericPortMappingEntry", [("NewPortMappingIndex", 1)])


def entry(external="81", protocol="UDP", internal="8081", client=LAN1, enabled="1", description="usual"):
    return result("GetGenericPortMappingEntry", list(zip(
        NAMES, ["", external, protocol, internal, client, enabled, description, "0"])))


NOTHING = fault(713, "SpecifiedArrayIndexInvalid")
MAPPED = ADDED, entry()
REFUSED = INVALID_ARGS, NOTHING


def changed(position, value):
    return [(name, value if at == position else given) for at, (name, given) in enumerate(USUAL)]


@watched
def test_a_missing_argument_is_a_fault(lab, bystander, path):
    for position, name in enumerate(NAMES):
        assert outcome(lab, path, USUAL[:position] + USUAL[position + 1:]) == REFUSED, name
    assert outcome(lab, path, []) == REFUSED


# An empty element takes the text of the one before it, on purpose.
EMPTY = [MAPPED, REFUSED, REFUSED, REFUSED, (FAILED, NOTHING), REFUSED, (ADDED, entry(description="1")), REFUSED]


@watched
def test_an_empty_argument_counts_as_the_text_before_it(lab, bystander, path):
    for position, expected in enumerate(EMPTY):
        assert outcome(lab, path, changed(position, "")) == expected, NAMES[position]
    assert outcome(lab, path, [(name, "") for name in NAMES]) == REFUSED  # an empty protocol is none
    assert outcome(lab, path, [("NewRemoteHost", ""), ("NewExternalPort", ""), *USUAL[2:]]) == (NO_WILDCARD, NOTHING)


@watched
def test_the_first_of_an_argument_that_comes_twice_counts(lab, bystander, path):
    for position, name in enumerate(NAMES):
        hostile = name, "hostile"
        assert outcome(lab, path, [*USUAL[:position + 1], hostile, *USUAL[position + 1:], hostile]) == MAPPED, name


@watched
def test_arguments_come_in_any_order(lab, bystander, path):
    for turn in range(len(USUAL)):
        assert outcome(lab, path, [*USUAL[turn:], *USUAL[:turn]][::-1]) == MAPPED, turn


KEY = USUAL[:3]
NO_ENTRY = fault(714, "NoSuchEntryInArray")
REMOVED = result("DeletePortMapping")
SPECIFIC = result("GetSpecificPortMappingEntry", [(name, value) for name, value in zip(
    NAMES[3:], ["8081", LAN1, "1", "usual", "0"])])
DUMMY = entry("0", "TCP", "0", "0.0.0.0", "0", "Dummy inactive rule for windows to work")
# The other actions that take arguments, with usual ones, the answer to these, and to each that is empty, and that is long.
ACTIONS = {
    "DeletePortMapping": (KEY, REMOVED, [REMOVED, INVALID_ARGS, INVALID_ARGS],
                          [("x" * LONG, REMOVED), ("9" * LONG, INVALID_ARGS), ("UDP" * (LONG // 3), INVALID_ARGS)]),
    "GetSpecificPortMappingEntry": ([(NAMES[0], ""), *KEY[1:]], SPECIFIC, [SPECIFIC, NO_ENTRY, INVALID_ARGS],
                                    [("x" * LONG, NO_ENTRY), ("9" * LONG, INVALID_ARGS), ("UDP" * (LONG // 3), INVALID_ARGS)]),
    "GetGenericPortMappingEntry": ([("NewPortMappingIndex", "1")], entry(), [DUMMY], [("9" * LONG, INVALID_ARGS)]),
    "SetConnectionType": ([("NewConnectionType", "IP_Routed")], FAILED, [INVALID_ARGS], [("x" * LONG, INVALID_ARGS)]),
}


@pytest.mark.parametrize("action", ACTIONS)
@watched
def test_odd_arguments_of_the_other_actions_count_as_those_of_a_mapping(lab, bystander, path, action):
    usual, good, empty, long = ACTIONS[action]

    def answer(arguments):
        """What the action says of one mapping, which is unmapped again."""
        assert call(lab.lan1, path, "AddPortMapping", USUAL) == ADDED
        said = call(lab.lan1, path, action, arguments)
        left = call(lab.lan1, path, "DeletePortMapping", KEY)
        assert left == (NO_ENTRY if said == REMOVED else REMOVED)
        return said

    assert answer(usual) == answer([usual[0], *usual[:0:-1]]) == good  # in any order, but an empty one first
    for position, (name, value) in enumerate(usual):
        before, after = usual[:position], usual[position + 1:]
        assert answer(before + after) == INVALID_ARGS, f"{name} is missing"
        assert answer([*before, (name, ""), *after]) == empty[position], f"{name} is empty"
        assert answer([*usual[:position + 1], (name, "hostile"), *after]) == good, f"{name} comes twice"
        text, expected = long[position]
        assert answer([*before, (name, text), *after]) == expected, f"{name} is long"


LONG_ARGUMENTS = [
    (0, "x" * LONG, MAPPED),
    (1, "9" * LONG, REFUSED),
    (1, "0" * LONG + "81", MAPPED),
    (2, "UDP" * (LONG // 3), REFUSED),
    (3, "9" * LONG, REFUSED),
    (4, LAN1 + "." * LONG, (FAILED, NOTHING)),
    (5, "1" * LONG, REFUSED),
    (6, "x" * LONG, (ADDED, entry(description="x" * LONG))),
    (7, "9" * LONG, (ONLY_PERMANENT, NOTHING)),
]


@watched
def test_an_argument_of_60_kb_is_judged_as_any_other(lab, bystander, path):
    for position, value, expected in LONG_ARGUMENTS:
        assert outcome(lab, path, changed(position, value)) == expected, (NAMES[position], value[:5])


@watched
def test_a_variable_with_a_name_of_60_kb_is_an_unknown_one(lab, bystander, path):
    assert query(lab.lan1, path, "x" * LONG) == fault(404, "Invalid Var")
    assert query(lab.lan1, path, "NATEnabled") == variable_answer("1")


FORMAT = "%n%n%s%s%x%p%1000000d%*.*s{}{0}$(id)`id`\\x41"
FORMATS = [MAPPED, REFUSED, REFUSED, REFUSED, (FAILED, NOTHING), REFUSED, (ADDED, entry(description=FORMAT)), REFUSED]


@watched
def test_a_format_is_a_text_as_any_other(lab, bystander, path):
    for position, expected in enumerate(FORMATS):
        mark = lab.upnpd.mark()
        assert outcome(lab, path, changed(position, FORMAT)) == expected, NAMES[position]
        assert lab.upnpd.since(mark)[position + 1] == f"arg: {NAMES[position]}, val: {FORMAT}"


PORTS = [("-1", REFUSED), ("+81", MAPPED), (" 81", MAPPED), ("81 ", REFUSED), ("0x51", REFUSED),
         ("18446744073709551697", REFUSED), ("8\u0661", REFUSED),
         ("8&#49;", (ADDED, entry(external="1")))]  # only the text behind a reference counts


@watched
def test_a_port_in_an_odd_form_is_read_as_a_number_or_refused(lab, bystander, path):
    for value, expected in PORTS:
        assert outcome(lab, path, changed(1, value)) == expected, value


DESCRIPTIONS = [
    ("<![CDATA[<b>&amp;</b>]]>", "<b>&amp;</b>"),
    ("a<![CDATA[<b/>]]>c", "c"),
    ("<![CDATA[]]>", "1"),  # is empty, and the flag stands before it
    ("<![CDATA[</NewPortMappingDescription><NewLeaseDuration>9]]>",
     "</NewPortMappingDescription><NewLeaseDuration>9"),
    ("<![CDATA[]]]]><![CDATA[>]]>", ">"),
    ("<![CDATA[" + "]" * LONG + "]]>", "]"),  # a bracket is a piece of its own
    ("<![CDATA[" + "x" * LONG + "]]>", "x" * LONG),
    ("<!-- <x> -->text", "text"), ("text<?php x?>", "text"), ("text<b>bold</b>", ""),
]


@watched
def test_a_description_keeps_its_last_piece_of_text_as_it_came(lab, bystander, path):
    for text, kept in DESCRIPTIONS:
        assert outcome(lab, path, changed(6, text)) == (ADDED, entry(description=kept)), text[:50]


# What SOAPACTION holds, and the name of the action in the log; without one it counts as no header.
NAME = "GetExternalIPAddress"
SOAP_ACTIONS = [
    ("", None), ('"', ""), ('""', ""), ("#", ""), ("##", "#"), ('"' * LONG, '"' * (LONG - 2)),
    ("#" * LONG, "#" * (LONG - 1)), ("x" * LONG + "#" + NAME, NAME), ('"#' + "x" * LONG + '"', "x" * LONG),
    (f'"{CONNECTION}#%n%s"', "%n%s"), ('"\x00"', r"\x00"), (f"#\x00{NAME}", rf"\x00{NAME}"),
]
LINE_LIMIT = 4096  # bytes of a line in the log


@watched
def test_an_odd_soap_action_names_what_follows_its_first_hash(lab, bystander, path):
    for soap_action, name in SOAP_ACTIONS:
        mark = lab.upnpd.mark()
        answer = exchange(lab.lan1, post(path, GET_ADDRESS, soap_action))
        assert answer == (ADDRESS if name == NAME else BAD_REQUEST), soap_action[:50]
        line = "POST: with no SOAPACTION" if name is None else f"action: {name}"
        assert lab.upnpd.since(mark)[0][:LINE_LIMIT // 2] == line[:LINE_LIMIT // 2], soap_action[:50]


def laughs():
    """An entity that stands for a billion of texts."""
    levels = "".join(f'<!ENTITY l{level} "{f"&l{level - 1};" * 10}">' for level in range(1, 10))
    return f'<!DOCTYPE x [<!ENTITY l0 "ha">{levels}]>' + called("<NewPortMappingDescription>&l9;</NewPortMappingDescription>")


def called(inside):
    return envelope(f"<AddPortMapping>{inside}</AddPortMapping>").partition("?>")[2]


DOCUMENTS = {
    "a billion laughs": laughs(),
    "a quadratic entity": '<!DOCTYPE x [<!ENTITY e "' + "e" * 30000 + '">]>' + called("&e;" * 10000),
    "a file": '<!DOCTYPE x [<!ENTITY e SYSTEM "file:///etc/passwd">]>' + called("<NewRemoteHost>&e;</NewRemoteHost>"),
    "a host": '<!DOCTYPE x [<!ENTITY e SYSTEM "http://192.0.2.2:8000/">]>' + called("&e;"),
    "a parameter entity": '<!DOCTYPE x [<!ENTITY % e SYSTEM "http://192.0.2.2:8000/"> %e;]>' + called(""),
    "an entity in itself": '<!DOCTYPE x [<!ENTITY e "&e;">]>' + called("&e;"),
    "40000 levels": "<a>" * 40000,
    "20000 elements": called("<a/>" * 20000),
    "7000 declared attributes": "<!DOCTYPE x [<!ATTLIST b " + "".join(
        f"{x}{y}{z} ID #IMPLIED " for x in "abc" for y in ascii_letters for z in ascii_letters[:45])
        + ">]>" + called("<b/>" * 4080),
    "9000 attributes": "<a " + " ".join(f'a{number}=""' for number in range(9000)) + "/>",
    "a long name of an element": f"<{'a' * 120000}/>",
    "brackets": "<" * 120000,
    "open CDATA": "<![CDATA[" * 10000,
    "open comments": "<!--" * 30000,
    "references to NUL": "&#0;" * 10000,
    "marks of the byte order": "\ufeff" * 3 + called(""),
    "what is no character": called("\ud800".encode("utf-8", "surrogatepass").decode("latin1") + "\x01"),
}
HEAVY = "a billion laughs", "7000 declared attributes", "40000 levels", "20000 elements", "9000 attributes", "brackets"


def send(lab, path, document):
    return exchange(lab.lan1, post(path, document, f'"{CONNECTION}#AddPortMapping"'))


@watched
def test_a_hostile_document_is_a_bare_400(lab, bystander, path):
    with lab.lan1.listen(8000) as outer:
        for name, document in DOCUMENTS.items():
            assert send(lab, path, document) == BAD_REQUEST, name
        outer.setblocking(False)
        with pytest.raises(BlockingIOError):
            outer.accept()


@pytest.mark.parametrize("name", HEAVY)
@watched
def test_a_flood_of_one_hostile_document_keeps_nobody_waiting(lab, bystander, path, name):
    for _ in range(20):
        assert send(lab, path, DOCUMENTS[name]) == BAD_REQUEST


@watched
def test_a_flood_of_references_keeps_nobody_waiting(lab, bystander, path):
    document = called("<NewRemoteHost>" + "&amp;" * 20000 + "</NewRemoteHost>")
    for _ in range(20):
        assert send(lab, path, document) == INVALID_ARGS


@pytest.mark.parametrize("levels, answer", [(64, ADDRESS), (65, BAD_REQUEST)])
def test_64_levels_are_read(lab, path, levels, answer):
    inner = levels - 3  # within envelope, body and action
    body = envelope("<GetExternalIPAddress>" + "<a>" * inner + "</a>" * inner + "</GetExternalIPAddress>")
    assert exchange(lab.lan1, post(path, body, "#GetExternalIPAddress")) == answer
