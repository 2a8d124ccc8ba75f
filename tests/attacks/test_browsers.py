"""What a page in a browser of the LAN can make it send to the router."""
import pytest

from bystanders import watched
from control_point import CONNECTION, PORT, action_element, bare, envelope, exchange, file_answer, get, mapping
from labs import ROUTER_LAN

OWN = f"{ROUTER_LAN}:{PORT}"
NAME = "attacker.example"
BAD_REQUEST, NOT_IMPLEMENTED = bare("400 Bad Request"), bare("501 Not Implemented")
ADD = envelope(action_element("AddPortMapping", mapping()))
SOAP_ACTION = f'SOAPACTION: "{CONNECTION}#AddPortMapping"'
XML = 'CONTENT-TYPE: text/xml; charset="utf-8"'


@pytest.fixture
def path(lab):
    return f"/upnp/control/wanipconn-{lab.interface_id('wan0')}"


def request(method, path, host, *lines, body=""):
    """As a browser sends it for a page of the attacker's."""
    return "\r\n".join([
        f"{method} {path} HTTP/1.1", f"Host: {host}", "Connection: keep-alive", f"Origin: http://{NAME}:{PORT}",
        f"Referer: http://{NAME}:{PORT}/", "User-Agent: Mozilla/5.0", "Accept: */*", *lines,
        *([f"Content-Length: {len(body)}"] if body else []), "", body])


def sent(lab, text):
    """The answer, and the daemon's lines."""
    mark = lab.upnpd.mark()
    return exchange(lab.lan1, text), lab.upnpd.since(mark)


REBOUND = [
    NAME, f"{NAME}:{PORT}", "localhost:2828", "127.0.0.1:2828", "[::ffff:192.0.2.1]:2828", "192.0.2.1.:2828",
    "192.0.2.1.attacker.example:2828", "0xc0.0.2.1:2828", "3221225985:2828", "192.000.002.001:2828", "192.0.513:2828",
    "attacker@192.0.2.1:2828", "192.0.2.1:2828@attacker.example", "192.0.2.1:2828, 192.0.2.1:2828", "192.0.2.1:2828\x00",
    "192.0.2.1:2828/", "http://192.0.2.1:2828", "198.51.100.1:2828", "", " "]


@pytest.mark.parametrize("host", REBOUND)
def test_a_name_that_was_bound_to_the_router_reaches_no_action(lab, path, host):
    """The page is of the same origin then, so that the browser sends any header it asks for."""
    answer, lines = sent(lab, request("POST", path, host, XML, SOAP_ACTION, body=ADD))
    assert answer == BAD_REQUEST
    assert [line.partition(" '")[0] for line in lines] == ["POST: host mismatch"]
    assert lab.rules() == []


@pytest.mark.parametrize("method", ["SUBSCRIBE", "UNSUBSCRIBE"])
def test_a_name_that_was_bound_to_the_router_reaches_no_events(lab, path, method):
    events = path.replace("control", "event")
    answer, lines = sent(lab, request(method, events, f"{NAME}:{PORT}", f"CALLBACK: <http://{ROUTER_LAN}:80/>",
                                      "NT: upnp:event", "TIMEOUT: Second-1800"))
    assert (answer, lines) == (BAD_REQUEST, [f"{method}: host mismatch '{NAME}:{PORT}'"])


def test_the_first_host_counts(lab, path):
    other, own = f"Host: {NAME}", f"Host: {OWN}"
    for first, second in ((other, own), (f"Host : {OWN}", own), (f"X-Host: {OWN}\r\n{other}", own)):
        text = request("POST", path, "x", XML, SOAP_ACTION, body=ADD).replace("Host: x", f"{first}\r\n{second}")
        if first == f"Host : {OWN}":  # is another header
            text = text.replace(own, other)
        assert sent(lab, text)[0] == BAD_REQUEST
    assert lab.rules() == []


SIMPLE = ["text/plain", "text/plain;charset=UTF-8", "application/x-www-form-urlencoded",
          "multipart/form-data; boundary=----x"]


@pytest.mark.parametrize("content_type", SIMPLE)
def test_a_simple_request_across_sites_is_refused_for_its_content_type(lab, path, content_type):
    for lines in ([], [SOAP_ACTION]):
        answer, log = sent(lab, request("POST", path, OWN, f"Content-Type: {content_type}", *lines, body=ADD))
        assert (answer, log) == (BAD_REQUEST, [f"POST method with bad CONTENT-TYPE: {content_type}"])
    assert lab.rules() == []


@pytest.mark.parametrize("content_type", [
    "text/plain; charset=text/xml", "multipart/form-data; boundary=text/xml", "application/x-www-form-urlencoded; text/xml"])
def test_a_simple_request_with_the_right_content_type_in_a_parameter_lacks_the_header_for_the_action(
        lab, path, content_type):
    answer, log = sent(lab, request("POST", path, OWN, f"Content-Type: {content_type}", body=ADD))
    assert (answer, log) == (BAD_REQUEST, ["POST: with no SOAPACTION"])
    assert lab.rules() == []


def test_a_request_inside_the_body_of_a_simple_one_is_not_read(lab, path):
    inner = request("POST", path, OWN, XML, SOAP_ACTION, body=ADD)
    for lines in (["Content-Type: text/plain"], ["Content-Type: text/plain", "Transfer-Encoding: chunked"]):
        answer, _ = sent(lab, request("POST", path, OWN, *lines, body="0\r\n\r\n" + inner))
        assert answer == BAD_REQUEST
    # A length of none ends the first request at once; the rest is not a second one.
    text = request("POST", path, OWN, "Content-Type: text/plain", "Content-Length:") + inner
    with lab.lan1.connect(ROUTER_LAN, PORT) as connection:
        connection.sendall(text.encode())
        assert get(lab.lan2, "/none") == bare("404 Not Found")  # the daemon has gone on in the meantime
        connection.setblocking(False)
        with pytest.raises(BlockingIOError):
            connection.recv(1)
    assert lab.rules() == []


@pytest.mark.parametrize("method, headers", [
    ("POST", "soapaction, content-type"), ("SUBSCRIBE", "callback, nt, timeout"), ("GET", "x-other")])
def test_a_browser_that_asks_for_leave_gets_none(lab, path, method, headers):
    answer, log = sent(lab, request("OPTIONS", path, OWN, f"Access-Control-Request-Method: {method}",
                                    f"Access-Control-Request-Headers: {headers}",
                                    "Access-Control-Request-Private-Network: true"))
    assert (answer, log) == (NOT_IMPLEMENTED, ["what is this: 'OPTIONS'"])


@pytest.mark.parametrize("host", [OWN, f"{NAME}:{PORT}"])
def test_what_a_page_may_fetch_carries_no_leave_to_read_it(lab, host):
    answer, _ = sent(lab, request("GET", "/gateway.xml", host))
    assert answer == file_answer(answer.partition("\r\n\r\n")[2])
    assert f"<URLBase>http://{OWN}</URLBase>" in answer and NAME not in answer


@pytest.mark.parametrize("path", ["/upnp/control/osinfo", "/upnp/event/osinfo", "/none"])
def test_an_image_or_a_link_changes_nothing(lab, path):
    assert sent(lab, request("GET", f"{path}?NewExternalPort=80", OWN)) == (bare("404 Not Found"), [])


@watched
def test_a_page_that_sends_all_it_can_keeps_nobody_waiting(lab, bystander, path):
    for host in REBOUND:
        assert exchange(lab.lan1, request("POST", path, host, XML, SOAP_ACTION, body=ADD)) == BAD_REQUEST
    for content_type in SIMPLE:
        text = request("POST", path, OWN, f"Content-Type: {content_type}", SOAP_ACTION, body=ADD)
        assert exchange(lab.lan1, text) == BAD_REQUEST
    assert exchange(lab.lan1, request("OPTIONS", path, OWN)) == NOT_IMPLEMENTED
    assert lab.rules() == []
