"""The documents that the daemon serves, and that they say what the daemon does."""
import xml.etree.ElementTree as etree

import pytest

from control_point import COMMON, CONNECTION, OSINFO, call, fault, file_answer, get, outputs, query
from labs import DATA

SCPD = "{urn:schemas-upnp-org:service-1-0}"


def names(identity, interface):
    root = f"UUID-VANTOREL-INTERNET-GATEWAY-DEVICE-{identity}"
    return root, f"UUID-VANTOREL-WAN-DEVICE-{identity}-{interface}", \
        f"UUID-VANTOREL-WAN-CONNECTION-DEVICE-{identity}-{interface}"


def service_lines(kind, domain, identifier, name):
    return ["<service>",
            f"  <serviceType>urn:schemas-{domain}:service:{kind}</serviceType>",
            f"  <serviceId>urn:{domain}:serviceId:{identifier}</serviceId>",
            f"  <SCPDURL>/{name}.xml</SCPDURL>",
            f"  <controlURL>/upnp/control/{name}</controlURL>",
            f"  <eventSubURL>/upnp/event/{name}</eventSubURL>",
            "</service>"]


def device_lines(kind, friendly, udn, services, devices=(), icons=(), presentation=(), maker_url=""):
    return ["<device>", *indent([
        f"<deviceType>urn:schemas-upnp-org:device:{kind}:1</deviceType>",
        f"<friendlyName>{friendly}</friendlyName>",
        "<manufacturer>Vantorel</manufacturer>",
        f"<manufacturerURL>{maker_url}</manufacturerURL>",
        "<modelName>Quillnet</modelName>",
        f"<UDN>uuid:{udn}</UDN>",
        *icons,
        "<serviceList>", *indent(services), "</serviceList>",
        *(["<deviceList>", *indent(devices), "</deviceList>"] if devices else []),
        *presentation]), "</device>"]


def indent(lines):
    return ["  " + line for line in lines]


def icon_lines():
    return ["<iconList>", *indent(line for size in (16, 32, 48) for line in [
        "<icon>", "  <mimetype>image/gif</mimetype>", f"  <width>{size}</width>", f"  <height>{size}</height>",
        "  <depth>8</depth>", f"  <url>/logo{size}.gif</url>", "</icon>"]), "</iconList>"]


def root_document(identity, interface, maker_url):
    root, wan, connection = names(identity, interface)
    connection_device = device_lines(
        "WANConnectionDevice", "WAN Connection Device", connection,
        service_lines("WANIPConnection:1", "upnp-org", "WANIPConn1", f"wanipconn-{interface}"), maker_url=maker_url)
    wan_device = device_lines(
        "WANDevice", "WAN Device", wan,
        service_lines("WANCommonInterfaceConfig:1", "upnp-org", "WANCommonIFC1", f"wancommonifc-{interface}"),
        connection_device, maker_url=maker_url)
    root_device = device_lines(
        "InternetGatewayDevice", "Vantorel Router", root,
        service_lines("OSInfo:1", "microsoft-com", "OSInfo1", "osinfo"), wan_device, icon_lines(),
        ["<presentationURL>http://192.0.2.1/</presentationURL>"], maker_url)
    lines = ['<?xml version="1.0"?>', '<root xmlns="urn:schemas-upnp-org:device-1-0">',
             *indent(["<specVersion>", "  <major>1</major>", "  <minor>0</minor>", "</specVersion>", *root_device,
                      "<URLBase>http://192.0.2.1:2828</URLBase>"]), "</root>"]
    return "".join(line + "\r\n" for line in lines)


@pytest.fixture
def wan_id(lab):
    return lab.interface_id("wan0")


def test_the_root_description_is_served_whole(lab, wan_id):
    answer = get(lab.lan1, "/gateway.xml", "HOST: 192.0.2.1:2828")
    maker_url = next(value for name, value in outputs(answer.replace("    <", "      <")) if name == "manufacturerURL")
    assert maker_url.startswith("http://")  # ours to choose; the rest is laid down
    assert answer == file_answer(root_document(lab.identity(), wan_id, maker_url))


def test_the_root_description_does_not_depend_on_the_host_header(lab):
    expected = get(lab.lan1, "/gateway.xml", "HOST: 192.0.2.1:2828")
    assert get(lab.lan1, "/gateway.xml", "HOST: elsewhere.example") == expected
    assert get(lab.lan2, "/gateway.xml") == expected


def test_every_document_is_small_enough_to_be_served_whole():
    assert all(path.stat().st_size < 16384 for path in DATA.iterdir())


def described(name):
    """The actions and variables of a service description."""
    root = etree.parse(DATA / name).getroot()
    assert root.tag == SCPD + "scpd"
    actions = {}
    for action in root.iterfind(f"{SCPD}actionList/{SCPD}action"):
        arguments = [tuple(argument.findtext(SCPD + tag) for tag in ("name", "direction", "relatedStateVariable"))
                     for argument in action.iterfind(f"{SCPD}argumentList/{SCPD}argument")]
        actions[action.findtext(SCPD + "name")] = arguments
    variables = {variable.findtext(SCPD + "name"): (
        variable.get("sendEvents"), variable.findtext(SCPD + "dataType"),
        [value.text for value in variable.iterfind(f"{SCPD}allowedValueList/{SCPD}allowedValue")])
        for variable in root.iterfind(f"{SCPD}serviceStateTable/{SCPD}stateVariable")}
    return actions, variables


SERVICES = [("osinfo.xml", "osinfo", OSINFO), ("wancommonifcfg.xml", "wancommonifc-{}", COMMON),
            ("wanipconn.xml", "wanipconn-{}", CONNECTION)]

# Variables that exist only for arguments.
WITHOUT_VALUE = {"PortMappingEnabled", "PortMappingLeaseDuration", "RemoteHost", "ExternalPort", "InternalPort",
                 "PortMappingProtocol", "InternalClient", "PortMappingDescription"}


@pytest.mark.parametrize("document, name, service", SERVICES)
def test_every_described_variable_exists(lab, wan_id, document, name, service):
    path = "/upnp/control/" + name.format(wan_id)
    for variable, (_, kind, allowed) in described(document)[1].items():
        answer = query(lab.lan1, path, variable)
        if variable in WITHOUT_VALUE:
            assert answer == fault(404, "Invalid Var")
            continue
        (_, value), = outputs(answer)
        assert answer.startswith("HTTP/1.1 200 OK\r\n"), variable
        assert kind not in ("ui4", "ui2") or value.isdigit(), variable
        assert kind != "boolean" or value in "01", variable
        assert not allowed or value in allowed, variable


@pytest.mark.parametrize("document, name, service", SERVICES)
def test_every_described_getter_answers_with_its_arguments_in_order(lab, wan_id, document, name, service):
    path = "/upnp/control/" + name.format(wan_id)
    for action, arguments in described(document)[0].items():
        if not arguments or any(direction == "in" for _, direction, _ in arguments):
            continue
        answer = call(lab.lan1, path, action, service=service)
        assert answer.startswith("HTTP/1.1 200 OK\r\n"), action
        assert [argument for argument, _ in outputs(answer)] == [argument for argument, _, _ in arguments]


@pytest.mark.parametrize("document, name, service", SERVICES)
def test_every_described_argument_belongs_to_a_variable(document, name, service):
    actions, variables = described(document)
    for arguments in actions.values():
        directions = [direction for _, direction, _ in arguments]
        assert directions == sorted(directions)  # all inputs come before all outputs
        assert all(variable in variables for _, _, variable in arguments)
    assert {kind for _, kind, _ in variables.values()} <= {"ui2", "ui4", "string", "boolean"}
    assert {evented for evented, _, _ in variables.values()} <= {"yes", "no"}
