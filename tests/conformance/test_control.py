"""The control endpoint: envelopes, actions, queries and faults, byte for byte, with their log lines."""
import pytest

from control_point import (COMMON, CONNECTION, CONTROL, OSINFO, action_element, bare, call, envelope, exchange, fault,
                           mapping, post, query, result, variable_answer)
from labs import ROUTER_WAN

ENCODING = "http://schemas.xmlsoap.org/soap/encoding/"
GET_ADDRESS = envelope(action_element("GetExternalIPAddress"))
GET_ADDRESS_ACTION = f'"{CONNECTION}#GetExternalIPAddress"'
ADDRESS = result("GetExternalIPAddress", [("NewExternalIPAddress", ROUTER_WAN)])


@pytest.fixture
def path(lab):
    return f"/upnp/control/wanipconn-{lab.interface_id('wan0')}"


@pytest.fixture
def common(lab):
    return f"/upnp/control/wancommonifc-{lab.interface_id('wan0')}"


def answer_and_lines(lab, path, body, soap_action, **options):
    mark = lab.upnpd.mark()
    answer = exchange(lab.lan1, post(path, body, soap_action, **options))
    return answer, lab.upnpd.since(mark)


def query_body(content):
    return envelope(f'<u:QueryStateVariable xmlns:u="{CONTROL}">{content}</u:QueryStateVariable>')


QUERY = f'"{CONTROL}#QueryStateVariable"'


@pytest.mark.parametrize("body, soap_action, line", [
    pytest.param("not xml", GET_ADDRESS_ACTION, "POST: with bad xml", id="no XML"),
    pytest.param(GET_ADDRESS[:-5], GET_ADDRESS_ACTION, "POST: with bad xml", id="half a document"),
    pytest.param(GET_ADDRESS + "<more/>", GET_ADDRESS_ACTION, "POST: with bad xml", id="two documents"),
    pytest.param("", GET_ADDRESS_ACTION, "POST: with bad xml", id="no body"),
    pytest.param(GET_ADDRESS.replace("s:Envelope", "s:envelope"), GET_ADDRESS_ACTION,
                 "POST: XML bad node name: s:envelope", id="no envelope"),
    pytest.param(GET_ADDRESS.replace(f' s:encodingStyle="{ENCODING}"', ""), GET_ADDRESS_ACTION,
                 "POST: XML no encoding style", id="no encoding style"),
    pytest.param(GET_ADDRESS.replace("s:encodingStyle", "s:encodingstyle"), GET_ADDRESS_ACTION,
                 "POST: XML no encoding style", id="encoding style in another case"),
    pytest.param(GET_ADDRESS.replace(ENCODING, ENCODING[:-1]), GET_ADDRESS_ACTION,
                 "POST: XML bad encoding style", id="another encoding style"),
    pytest.param(GET_ADDRESS.replace(ENCODING, ""), GET_ADDRESS_ACTION,
                 "POST: XML bad encoding style", id="an empty encoding style"),
    pytest.param(GET_ADDRESS.replace("s:Body", "s:body"), GET_ADDRESS_ACTION, "POST: XML no body", id="no Body"),
    pytest.param(GET_ADDRESS, None, "POST: with no SOAPACTION", id="no SOAPACTION"),
    pytest.param(GET_ADDRESS, "", "POST: with no SOAPACTION", id="empty SOAPACTION"),
])
def test_a_bad_envelope_is_answered_with_a_bare_400_and_one_line(lab, path, body, soap_action, line):
    assert answer_and_lines(lab, path, body, soap_action) == (bare("400 Bad Request"), [line])


@pytest.mark.parametrize("content_type", ["application/soap+xml", "text/html", "TEXT/XML", "text/ xml", ""])
def test_a_content_type_without_text_xml_is_refused(lab, path, content_type):
    assert answer_and_lines(lab, path, GET_ADDRESS, GET_ADDRESS_ACTION, content_type=content_type) == (
        bare("400 Bad Request"), [f"POST method with bad CONTENT-TYPE: {content_type}"])


@pytest.mark.parametrize("content_type", ["text/xml", 'text/xml; charset="utf-8"', "a text/xml b", "text/xmlish"])
def test_a_content_type_that_holds_text_xml_anywhere_is_accepted(lab, path, content_type):
    assert answer_and_lines(lab, path, GET_ADDRESS, GET_ADDRESS_ACTION, content_type=content_type)[0] == ADDRESS


def test_the_first_failing_check_decides(lab, path):
    """Each body is also bad in everything that follows its own fault."""
    for body, content_type, soap_action, line in [
            ("no xml", "text/plain", None, "POST method with bad CONTENT-TYPE: text/plain"),
            ("no xml", "text/xml", None, "POST: with bad xml"),
            ("<a/>", "text/xml", None, "POST: XML bad node name: a"),
            ("<x:Envelope xmlns:x='urn:x'/>", "text/xml", None, "POST: XML no encoding style"),
            ("<Envelope encodingStyle='x'/>", "text/xml", None, "POST: XML bad encoding style"),
            (f"<Envelope encodingStyle='{ENCODING}'/>", "text/xml", None, "POST: XML no body"),
            (f"<Envelope encodingStyle='{ENCODING}'><Body/></Envelope>", "text/xml", None, "POST: with no SOAPACTION")]:
        assert answer_and_lines(lab, path, body, soap_action, content_type=content_type) == (bare("400 Bad Request"), [line])


def test_an_action_that_the_body_does_not_hold_is_a_bare_400_and_not_a_fault(lab, path):
    assert answer_and_lines(lab, path, GET_ADDRESS, f'"{CONNECTION}#GetStatusInfo"') == (
        bare("400 Bad Request"), ["action: GetStatusInfo", "POST: XML has no such action"])


@pytest.mark.parametrize("soap_action, name", [
    ('"', ""), ('""', ""), (f'"{CONNECTION}#"', ""), ("#", ""),
    (f'{CONNECTION}#GetExternalIPAddress#GetStatusInfo', "GetExternalIPAddress#GetStatusInfo")])
def test_an_odd_soap_action_names_what_follows_its_first_hash(lab, path, soap_action, name):
    assert answer_and_lines(lab, path, GET_ADDRESS, soap_action) == (
        bare("400 Bad Request"), [f"action: {name}", "POST: XML has no such action"])


@pytest.mark.parametrize("soap_action", [
    GET_ADDRESS_ACTION, f"{CONNECTION}#GetExternalIPAddress", f'"{COMMON}#GetExternalIPAddress"', "GetExternalIPAddress",
    "#GetExternalIPAddress", '"GetExternalIPAddress"', '"urn:x#GetExternalIPAddress!'])
def test_the_action_is_named_by_what_follows_the_hash(lab, path, soap_action):
    """Quoted or not. When quoted, its last byte is cut off, whatever it is. The type before the hash is ignored."""
    assert answer_and_lines(lab, path, GET_ADDRESS, soap_action) == (
        ADDRESS, ["action: GetExternalIPAddress", f"ret: NewExternalIPAddress, val: {ROUTER_WAN}"])


@pytest.mark.parametrize("prefix", ["s:", "SOAP-ENV:", ""])
def test_any_prefix_or_none_is_accepted(lab, path, prefix):
    body = (f'<{prefix}Envelope{f" xmlns:{prefix[:-1]}=%surn:e%s" % (chr(34), chr(34)) if prefix else ""} '
            f'{prefix}encodingStyle="{ENCODING}"><{prefix}Header/><{prefix}Body>'
            f"<{prefix}GetExternalIPAddress/></{prefix}Body></{prefix}Envelope>")
    assert answer_and_lines(lab, path, body, GET_ADDRESS_ACTION)[0] == ADDRESS


def test_the_first_of_several_attributes_bodies_and_elements_counts(lab, path):
    good, bad = f'a:encodingStyle="{ENCODING}"', 'b:encodingStyle="none"'
    content = '<Body><x:GetExternalIPAddress xmlns:x="urn:x"/><GetExternalIPAddress/></Body><Body/>'

    def body(*attributes):
        return f'<Envelope xmlns:a="urn:a" xmlns:b="urn:b" {" ".join(attributes)}>{content}</Envelope>'
    assert answer_and_lines(lab, path, body(good, bad), GET_ADDRESS_ACTION)[0] == ADDRESS
    assert answer_and_lines(lab, path, body(bad, good), GET_ADDRESS_ACTION) == (
        bare("400 Bad Request"), ["POST: XML bad encoding style"])
    assert answer_and_lines(lab, path, body(good).replace("<Body><x", "<Body/><Body><x"), GET_ADDRESS_ACTION) == (
        bare("400 Bad Request"), ["action: GetExternalIPAddress", "POST: XML has no such action"])


def test_an_action_that_is_not_registered_is_a_fault(lab, path):
    mark = lab.upnpd.mark()
    assert call(lab.lan1, path, "NoSuchAction") == fault(401, "Invalid Action")
    assert call(lab.lan1, "/upnp/control/osinfo", "GetExternalIPAddress", service=OSINFO) == fault(401, "Invalid Action")
    assert lab.upnpd.since(mark) == ["action: NoSuchAction", "POST: no such action registered",
                                     "action: GetExternalIPAddress", "POST: no such action registered"]


def test_the_name_of_an_action_counts_in_its_case(lab, path):
    assert call(lab.lan1, path, "getexternalipaddress") == fault(401, "Invalid Action")


def argument_lines(arguments):
    return [f"arg: {name}, val: {value}" for name, value in arguments]


@pytest.mark.parametrize("position", range(8))
def test_a_missing_argument_is_a_fault_behind_the_lines_of_those_before_it(lab, path, position):
    arguments = mapping(remote="none", description="d")
    name = arguments[position][0]
    mark = lab.upnpd.mark()
    given = arguments[:position] + arguments[position + 1:]
    assert call(lab.lan1, path, "AddPortMapping", given) == fault(402, "Invalid Args")
    assert lab.upnpd.since(mark) == ["action: AddPortMapping", *argument_lines(arguments[:position]),
                                     f"POST: action xml doesn't have var: {name}"]
    assert lab.rules() == []


@pytest.mark.parametrize("position, changed", [
    (1, {"external": "65536"}), (1, {"external": "80x"}), (1, {"external": "-1"}), (1, {"external": "4294967376"}),
    (3, {"internal": "65536"}), (3, {"internal": "http"}), (2, {"protocol": "tcp"}), (2, {"protocol": "ICMP"}),
    (2, {"protocol": "TCP "}), (5, {"enabled": "TRUE"}), (5, {"enabled": "on"}), (5, {"enabled": "2"}),
    (7, {"lease": "forever"}), (7, {"lease": "0x"}),
], ids=str)
def test_a_value_that_its_variable_does_not_take_is_a_fault(lab, path, position, changed):
    arguments = mapping(remote="none", **changed)
    mark = lab.upnpd.mark()
    assert call(lab.lan1, path, "AddPortMapping", arguments) == fault(402, "Invalid Args")
    assert lab.upnpd.since(mark) == ["action: AddPortMapping", *argument_lines(arguments[:position + 1]),
                                     "POST: action xml bad variable value"]
    assert lab.rules() == []


def test_arguments_are_found_by_name_in_any_order_with_any_prefix_and_logged_with_it(lab, path):
    arguments = [("NewProtocol", "UDP"), ("Extra", "1"), ("NewExternalPort", "9"), ("NewRemoteHost", "none")]
    inside = "".join(f"<x:{name} xmlns:x='urn:x'>{value}</x:{name}>" for name, value in arguments)
    answer, lines = answer_and_lines(lab, path, envelope(f"<DeletePortMapping>{inside}</DeletePortMapping>"),
                                     f"{CONNECTION}#DeletePortMapping")
    assert answer == fault(714, "NoSuchEntryInArray")
    assert lines == ["action: DeletePortMapping", "arg: x:NewRemoteHost, val: none", "arg: x:NewExternalPort, val: 9",
                     "arg: x:NewProtocol, val: UDP", "deletePortMapping: NO_SUCH_ENTRY"]


def test_the_first_of_two_equal_arguments_counts(lab, path):
    arguments = [("NewRemoteHost", "none"), ("NewExternalPort", "9"), ("NewExternalPort", "bad"), ("NewProtocol", "TCP")]
    assert call(lab.lan1, path, "DeletePortMapping", arguments) == fault(714, "NoSuchEntryInArray")
    arguments[1], arguments[2] = arguments[2], arguments[1]
    assert call(lab.lan1, path, "DeletePortMapping", arguments) == fault(402, "Invalid Args")


def test_a_fault_of_the_handler_is_a_500_with_its_code_and_description(lab, path):
    index = [("NewPortMappingIndex", "77")]
    mark = lab.upnpd.mark()
    assert call(lab.lan1, path, "GetGenericPortMappingEntry", index) == fault(713, "SpecifiedArrayIndexInvalid")
    assert lab.upnpd.since(mark) == ["action: GetGenericPortMappingEntry", "arg: NewPortMappingIndex, val: 77"]


def test_an_answer_names_the_type_of_the_service_that_the_path_leads_to(lab, common):
    body = envelope(action_element("GetCommonLinkProperties", service=CONNECTION))
    answer, _ = answer_and_lines(lab, common, body, f'"{CONNECTION}#GetCommonLinkProperties"')
    assert f'<u:GetCommonLinkPropertiesResponse xmlns:u="{COMMON}">' in answer


def test_results_are_logged_one_by_one(lab, path):
    mark = lab.upnpd.mark()
    call(lab.lan1, path, "GetNATRSIPStatus")
    call(lab.lan1, path, "GetSpecificPortMappingEntry", [
        ("NewRemoteHost", "none"), ("NewExternalPort", "0"), ("NewProtocol", "UDP")])
    call(lab.lan1, path, "GetGenericPortMappingEntry", [("NewPortMappingIndex", "0")])
    assert lab.upnpd.since(mark) == [
        "action: GetNATRSIPStatus", "ret: NewRSIPAvailable, val: 0", "ret: NewNATEnabled, val: 1",
        "action: GetSpecificPortMappingEntry", "arg: NewRemoteHost, val: none", "arg: NewExternalPort, val: 0",
        "arg: NewProtocol, val: UDP",
        "action: GetGenericPortMappingEntry", "arg: NewPortMappingIndex, val: 0", "ret: NewRemoteHost, val: ",
        "ret: NewExternalPort, val: 0", "ret: NewProtocol, val: TCP", "ret: NewInternalPort, val: 0",
        "ret: NewInternalClient, val: 0.0.0.0", "ret: NewEnabled, val: 0",
        "ret: NewPortMappingDescription, val: Dummy inactive rule for windows to work", "ret: NewLeaseDuration, val: 0"]


@pytest.mark.parametrize("variable, value", [
    ("ExternalIPAddress", ROUTER_WAN), ("X_Name", "Local Area Connection"), ("NATEnabled", "1"),
    ("PossibleConnectionTypes", "IP_Routed")])
def test_a_variable_is_queried_by_name_whether_evented_or_not(lab, path, variable, value):
    mark = lab.upnpd.mark()
    assert query(lab.lan1, path, variable) == variable_answer(value)
    assert lab.upnpd.since(mark) == [f"query variable: {variable}"]


@pytest.mark.parametrize("variable, line", [
    ("NoSuchVariable", "POST: no such variable name registered"), ("uptime", "POST: no such variable name registered"),
    ("ExternalPort", "POST: variable has no value"), ("PortMappingEnabled", "POST: variable has no value"),
    ("PortMappingLeaseDuration", "POST: variable has no value"), ("RemoteHost", "POST: variable has no value"),
    ("InternalPort", "POST: variable has no value"), ("PortMappingProtocol", "POST: variable has no value"),
    ("InternalClient", "POST: variable has no value"), ("PortMappingDescription", "POST: variable has no value")])
def test_a_variable_that_is_unknown_or_has_no_value_is_a_fault(lab, path, variable, line):
    mark = lab.upnpd.mark()
    assert query(lab.lan1, path, variable) == fault(404, "Invalid Var")
    assert lab.upnpd.since(mark) == [f"query variable: {variable}", line]


@pytest.mark.parametrize("body, line", [
    (envelope('<u:Other xmlns:u="urn:other"></u:Other>'), "POST: query variable xml bad"),
    (query_body("<u:name>Uptime</u:name>"), "POST: query variable xml var name bad"),
    (query_body(""), "POST: query variable xml var name bad")])
def test_a_malformed_query_is_a_bare_400(lab, path, body, line):
    assert answer_and_lines(lab, path, body, QUERY) == (bare("400 Bad Request"), [line])


def test_a_query_by_another_namespace_is_an_action(lab, path):
    body = query_body("<u:varName>Uptime</u:varName>")
    assert answer_and_lines(lab, path, body, f'"{CONNECTION}#QueryStateVariable"') == (
        fault(401, "Invalid Action"), ["action: QueryStateVariable", "POST: no such action registered"])


def test_a_query_takes_any_prefix(lab, path):
    body = envelope("<QueryStateVariable><varName>X_Name</varName></QueryStateVariable>")
    assert answer_and_lines(lab, path, body, QUERY)[0] == variable_answer("Local Area Connection")


def test_an_empty_argument_takes_the_text_before_it(lab, path):
    """White space between the elements is also text: this remote host is no longer empty."""
    lines = ["<NewRemoteHost></NewRemoteHost>", "<NewExternalPort>0</NewExternalPort>", "<NewProtocol>TCP</NewProtocol>"]
    spaced = envelope("<GetSpecificPortMappingEntry>\n  " + "\n  ".join(lines) + "\n</GetSpecificPortMappingEntry>")
    close = envelope("<GetSpecificPortMappingEntry>" + "".join(lines) + "</GetSpecificPortMappingEntry>")
    soap_action = f"{CONNECTION}#GetSpecificPortMappingEntry"
    answer, logged = answer_and_lines(lab, path, spaced, soap_action)
    assert answer == fault(714, "NoSuchEntryInArray")
    assert logged[1] == "arg: NewRemoteHost, val:   "
    assert answer_and_lines(lab, path, close, soap_action)[0].startswith("HTTP/1.1 200 OK\r\n")


def test_only_the_text_behind_the_last_reference_survives(lab, path):
    body = query_body("<u:varName>gone&amp;X_&#78;ame</u:varName>")
    answer, lines = answer_and_lines(lab, path, body, QUERY)
    assert (answer, lines[0]) == (fault(404, "Invalid Var"), "query variable: ame")


def test_nothing_is_escaped_in_an_answer(lab, path):
    description = "a &lt;b&gt; &quot;"
    given = mapping(description=description)
    assert call(lab.lan1, path, "AddPortMapping", given) == result("AddPortMapping")
    answer = call(lab.lan1, path, "GetGenericPortMappingEntry", [("NewPortMappingIndex", "1")])
    assert '<NewPortMappingDescription>"</NewPortMappingDescription>\r\n' in answer
    assert call(lab.lan1, path, "DeletePortMapping", given[:3]) == result("DeletePortMapping")


@pytest.mark.parametrize("body", ["<?xml version='1.0' encoding='none'?><a/>", "\x00"],
                         ids=["an unknown encoding", "a byte 0"])
def test_hostile_xml_harms_nobody(lab, path, body):
    answer, _ = answer_and_lines(lab, path, body, QUERY)
    assert answer in (bare("400 Bad Request"), fault(404, "Invalid Var"))
    assert answer_and_lines(lab, path, GET_ADDRESS, GET_ADDRESS_ACTION)[0] == ADDRESS
