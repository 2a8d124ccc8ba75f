"""What a control point says and hears, byte for byte: HTTP, SOAP and SSDP from a host of the lab."""
import os
import re
import socket
import struct
import time

from labs import ROUTER_LAN

PORT = 2828
GROUP = ("239.255.255.250", 1900)
SERVER = f"Quillnet/{os.uname().release}UPnP/1.0 Vantorel UPnP/1.0"
LOCATION = f"http://{ROUTER_LAN}:{PORT}/gateway.xml"
CONNECTION = "urn:schemas-upnp-org:service:WANIPConnection:1"
COMMON = "urn:schemas-upnp-org:service:WANCommonInterfaceConfig:1"
OSINFO = "urn:schemas-microsoft-com:service:OSInfo:1"
CONTROL = "urn:schemas-upnp-org:control-1-0"
DATE = re.compile(r"(?<=\r\nDATE: )(Mon|Tue|Wed|Thu|Fri|Sat|Sun), \d\d [A-Z][a-z]{2} \d{4} \d\d:\d\d:\d\d GMT(?=\r\n)")


def read_to_end(connection):
    received = b""
    while chunk := connection.recv(65536):
        received += chunk
    return received


def exchange(host, request, pieces=1, address=ROUTER_LAN):
    """Sends the request, in several segments if asked, and returns the whole answer; the date's value reads NOW."""
    data = request if isinstance(request, bytes) else request.encode()
    with host.connect(address, PORT) as connection:
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        size = -(-len(data) // pieces)
        for start in range(0, len(data), size):
            connection.sendall(data[start:start + size])
            if start + size < len(data):
                time.sleep(0.05)  # lets the segments arrive apart; the outcome does not depend on it
        answer = read_to_end(connection).decode()
    return DATE.sub("NOW", answer)


def get(host, path, *headers):
    return exchange(host, "\r\n".join([f"GET {path} HTTP/1.1", *headers, "", ""]))


def file_answer(body, kind="text/xml", language=False):
    """The whole answer to a GET."""
    return "".join([
        "HTTP/1.1 200 OK\r\n",
        "CONTENT-LANGUAGE: en-us\r\n" if language else "",
        f"CONTENT-TYPE: {kind}\r\n",
        f"CONTENT-LENGTH: {len(body.encode())}\r\n",
        "DATE: NOW\r\n",
        f"SERVER: {SERVER}\r\n",
        "CONNECTION: close\r\n",
        "\r\n",
        body,
    ])


def bare(status):
    return f"HTTP/1.1 {status}\r\n\r\n"


def envelope(content):
    """A request's envelope, without a blank between the elements."""
    return ('<?xml version="1.0"?>'
            '<s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/"'
            ' s:encodingStyle="http://schemas.xmlsoap.org/soap/encoding/">'
            f"<s:Body>{content}</s:Body></s:Envelope>")


def action_element(action, arguments=(), service=CONNECTION):
    inside = "".join(f"<{name}>{value}</{name}>" for name, value in arguments)
    return f'<u:{action} xmlns:u="{service}">{inside}</u:{action}>'


def post(path, body, soap_action, host_header=f"{ROUTER_LAN}:{PORT}", content_type='text/xml; charset="utf-8"'):
    lines = [f"POST {path} HTTP/1.1", f"HOST: {host_header}", f"CONTENT-TYPE: {content_type}",
             f"CONTENT-LENGTH: {len(body.encode())}"]
    if soap_action is not None:
        lines.append(f"SOAPACTION: {soap_action}")
    return "\r\n".join([*lines, "", body])


def call(host, path, action, arguments=(), service=CONNECTION):
    """Calls an action, and returns the whole answer."""
    return exchange(host, post(path, envelope(action_element(action, arguments, service)), f'"{service}#{action}"'))


def query(host, path, variable):
    body = envelope(f'<u:QueryStateVariable xmlns:u="{CONTROL}"><u:varName>{variable}</u:varName></u:QueryStateVariable>')
    return exchange(host, post(path, body, f'"{CONTROL}#QueryStateVariable"'))


def soap_answer(status, lines):
    """The whole answer that carries these lines in its body element."""
    body = "".join(line + "\r\n" for line in [
        '<?xml version="1.0"?>',
        '<s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/"'
        ' s:encodingStyle="http://schemas.xmlsoap.org/soap/encoding/">',
        "  <s:Body>",
        *("    " + line for line in lines),
        "  </s:Body>",
        "</s:Envelope>",
    ])
    return "".join([
        f"HTTP/1.1 {status}\r\n",
        f"CONTENT-LENGTH: {len(body.encode())}\r\n",
        'CONTENT-TYPE: text/xml; charset="utf-8"\r\n',
        "DATE: NOW\r\n",
        "EXT: \r\n",
        f"SERVER: {SERVER}\r\n",
        "\r\n",
        body,
    ])


def result(action, outputs=(), service=CONNECTION):
    """The whole answer to an action that succeeded with these outputs."""
    start, end = f'<u:{action}Response xmlns:u="{service}">', f"</u:{action}Response>"
    if not outputs:
        return soap_answer("200 OK", [start + end])
    return soap_answer("200 OK", [start, *(f"  <{name}>{value}</{name}>" for name, value in outputs), end])


def variable_answer(value):
    return soap_answer("200 OK", [
        f'<u:QueryStateVariableResponse xmlns:u="{CONTROL}">',
        f"  <return>{value}</return>",
        "</u:QueryStateVariableResponse>",
    ])


def fault(code, description):
    return soap_answer("500 Internal Server Error", [
        "<s:Fault>",
        "  <faultCode>s:Client</faultCode>",
        "  <faultString>UPnPError</faultString>",
        "  <detail>",
        f'    <UPnPError xmlns="{CONTROL}">',
        f"      <errorCode>{code}</errorCode>",
        f"      <errorDescription>{description}</errorDescription>",
        "    </UPnPError>",
        "  </detail>",
        "</s:Fault>",
    ])


def outputs(answer):
    """The names and values of an answer, for values that a test cannot know in advance."""
    return re.findall(r"^      <(\w+)>(.*)</\w+>\r$", answer, re.M)


def mapping(external=80, protocol="TCP", internal=8080, client="192.0.2.2", enabled="1", description="web", lease="0",
            remote=""):
    """The arguments of AddPortMapping."""
    return [("NewRemoteHost", remote), ("NewExternalPort", external), ("NewProtocol", protocol),
            ("NewInternalPort", internal), ("NewInternalClient", client), ("NewEnabled", enabled),
            ("NewPortMappingDescription", description), ("NewLeaseDuration", lease)]


def search(target, host="239.255.255.250:1900", man='"ssdp:discover"', mx="2"):
    lines = ["M-SEARCH * HTTP/1.1", f"HOST: {host}", f"MAN: {man}"]
    lines += [f"MX: {mx}"] if mx is not None else []
    lines += [f"ST: {target}"] if target is not None else []
    return "\r\n".join([*lines, "", ""])


def search_answer(target, usn, location=LOCATION):
    """The whole datagram that answers a search."""
    return "\r\n".join([
        "HTTP/1.1 200 OK",
        "CACHE-CONTROL: max-age=3600",
        "EXT: ",
        f"LOCATION: {location}",
        f"SERVER: {SERVER}",
        f"ST: {target}",
        f"USN: {usn}",
        "", "",
    ])


def advert(kind, target, usn, location=LOCATION):
    """The whole datagram of an advert; the kind is alive or byebye."""
    alive = kind == "alive"
    return "\r\n".join([
        "NOTIFY * HTTP/1.1",
        "HOST: 239.255.255.250:1900",
        *(["CACHE-CONTROL: max-age=3600", f"LOCATION: {location}"] if alive else []),
        f"NT: {target}",
        f"NTS: ssdp:{kind}",
        *([f"SERVER: {SERVER}"] if alive else []),
        f"USN: {usn}",
        "", "",
    ])


class Searcher:
    """A socket that searches, and collects answers."""

    def __init__(self, host):
        self.socket = host.datagrams()
        self.address = self.socket.getsockname()

    def send(self, datagram):
        self.socket.sendto(datagram if isinstance(datagram, bytes) else datagram.encode(), GROUP)

    def receive(self, count):
        """The next answers, each with its sender."""
        return [self.next() for _ in range(count)]

    def next(self):
        data, sender = self.socket.recvfrom(65536)
        return data.decode(), sender

    def close(self):
        self.socket.close()


class Listener:
    """A host that has joined the group and hears the adverts."""

    IP_RECVTTL = 12

    def __init__(self, host):
        self.socket = host.socket(socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.socket.setsockopt(socket.IPPROTO_IP, self.IP_RECVTTL, 1)
        self.socket.bind(("", GROUP[1]))
        member = socket.inet_aton(GROUP[0]) + socket.inet_aton(host.address)
        self.socket.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, member)

    def next(self):
        """The next datagram, its sender and its time to live."""
        data, control, _, sender = self.socket.recvmsg(65536, socket.CMSG_SPACE(4))
        ttl = next(struct.unpack("i", value)[0] for _, kind, value in control if kind == socket.IP_TTL)
        return data.decode(), sender, ttl

    def receive(self, count):
        return [self.next()[0] for _ in range(count)]

    def until(self, host, text):
        """Sends a datagram of our own as a mark, and returns all that is heard before it."""
        end = b"end " + text.encode()
        with host.datagrams() as ours:
            ours.sendto(end, GROUP)
        heard = []
        while (data := self.next()[0]) != end.decode():
            heard.append(data)
        return heard

    def close(self):
        self.socket.close()


def root_pairs(identity):
    """The notification types and service names of the root device, in no order."""
    root = f"uuid:UUID-VANTOREL-INTERNET-GATEWAY-DEVICE-{identity}"
    kind = "urn:schemas-upnp-org:device:InternetGatewayDevice:1"
    return [("upnp:rootdevice", f"{root}::upnp:rootdevice"), (root, root), (kind, f"{root}::{kind}"),
            (OSINFO, f"{root}::{OSINFO}")]


def wan_pairs(identity, interface):
    """Those of one external interface's devices."""
    wan = f"uuid:UUID-VANTOREL-WAN-DEVICE-{identity}-{interface}"
    connection = f"uuid:UUID-VANTOREL-WAN-CONNECTION-DEVICE-{identity}-{interface}"
    kinds = "urn:schemas-upnp-org:device:WANDevice:1", "urn:schemas-upnp-org:device:WANConnectionDevice:1"
    return [(wan, wan), (kinds[0], f"{wan}::{kinds[0]}"), (COMMON, f"{wan}::{COMMON}"),
            (connection, connection), (kinds[1], f"{connection}::{kinds[1]}"), (CONNECTION, f"{connection}::{CONNECTION}")]


def table_order(*groups):
    """Sorted by type; those of one type stay in the order in which they were added."""
    return sorted((pair for group in groups for pair in group), key=lambda pair: pair[0])
