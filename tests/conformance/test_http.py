"""Requests and responses over HTTP, byte for byte, and what happens to connections."""
import re
import socket
import struct
import time

import pytest

from bus import address, item
from control_point import (CONNECTION, DATE, PORT, SERVER, action_element, bare, envelope, exchange, file_answer, get,
                           post, read_to_end, result)
from labs import DATA, ROUTER_LAN, ROUTER_WAN, eventually, second_of_now
from worlds import LAN

OSINFO_TEXT = (DATA / "osinfo.xml").read_text()
GET_OSINFO = b"GET /osinfo.xml HTTP/1.1\r\n\r\n"


@pytest.fixture
def wan_id(lab):
    return lab.interface_id("wan0")


@pytest.fixture
def path(wan_id):
    return f"/upnp/control/wanipconn-{wan_id}"


def binary(lab, request):
    with lab.lan1.connect(ROUTER_LAN, PORT) as connection:
        connection.sendall(request)
        return read_to_end(connection)


@pytest.mark.parametrize("path, name", [
    ("/osinfo.xml", "osinfo.xml"), ("/wancommonifc-{}.xml", "wancommonifcfg.xml"), ("/wanipconn-{}.xml", "wanipconn.xml")])
def test_a_service_description_is_served_whole(lab, wan_id, path, name):
    assert get(lab.lan1, path.format(wan_id)) == file_answer((DATA / name).read_text())


@pytest.mark.parametrize("size", [16, 32, 48])
def test_an_icon_is_served_whole(lab, size):
    picture = (DATA / f"logo{size}.gif").read_bytes()
    received = binary(lab, f"GET /logo{size}.gif HTTP/1.1\r\n\r\n".encode())
    head, body = received.split(b"\r\n\r\n", 1)
    assert body == picture
    assert DATE.sub("NOW", head.decode() + "\r\n") == "\r\n".join([
        "HTTP/1.1 200 OK", "CONTENT-TYPE: image/gif", f"CONTENT-LENGTH: {len(picture)}", "DATE: NOW",
        f"SERVER: {SERVER}", "CONNECTION: close", ""])


@pytest.mark.parametrize("header", ["accept-language: de", "ACCEPT-LANGUAGE:", "Accept-Language: nonsense"])
def test_the_language_is_told_to_those_who_ask_whatever_they_ask_for(lab, header):
    assert get(lab.lan1, "/osinfo.xml", header) == file_answer(OSINFO_TEXT, language=True)


def test_the_date_is_of_now_in_universal_time(lab):
    before = second_of_now()
    answer = binary(lab, GET_OSINFO).decode()
    told = re.search(r"\r\nDATE: (.*)\r\n", answer).group(1)
    seconds = range(before, second_of_now() + 1)
    dates = [time.strftime("%a, %d %b %Y %H:%M:%S GMT", time.gmtime(second)) for second in seconds]
    assert told in dates


def test_the_server_text_has_no_blank_between_version_and_protocol(lab):
    kernel = lab.router.run("uname", "-r").stdout.strip()
    assert f"\r\nSERVER: Quillnet/{kernel}UPnP/1.0 Vantorel UPnP/1.0\r\n" in binary(lab, GET_OSINFO).decode()


@pytest.mark.parametrize("request_line, status", [
    ("GET /none.xml HTTP/1.1", "404 Not Found"),
    ("GET / HTTP/1.1", "404 Not Found"),
    ("GET /gateway.xml?a=b HTTP/1.1", "404 Not Found"),
    ("GET /GATEWAY.XML HTTP/1.1", "404 Not Found"),
    ("GET /../store/upnp HTTP/1.1", "404 Not Found"),
    ("GET /osinfo.xml/ HTTP/1.1", "404 Not Found"),
    ("GET osinfo.xml HTTP/1.1", "404 Not Found"),
    ("GET  HTTP/1.1", "404 Not Found"),
    ("GET /upnp/control/osinfo HTTP/1.1", "404 Not Found"),
    ("POST /gateway.xml HTTP/1.1", "404 Not Found"),
    ("POST /upnp/event/osinfo HTTP/1.1", "404 Not Found"),
    ("POST /upnp/control/none HTTP/1.1", "404 Not Found"),
    ("SUBSCRIBE /gateway.xml HTTP/1.1", "404 Not Found"),
    ("SUBSCRIBE /upnp/control/osinfo HTTP/1.1", "404 Not Found"),
    ("UNSUBSCRIBE /upnp/event/none HTTP/1.1", "404 Not Found"),
])
def test_what_is_not_there_is_answered_with_a_bare_status_and_no_line(lab, request_line, status):
    mark = lab.upnpd.mark()
    assert exchange(lab.lan1, request_line + "\r\n\r\n") == bare(status)
    assert lab.upnpd.since(mark) == []


@pytest.mark.parametrize("request_line, method", [
    ("HEAD /gateway.xml HTTP/1.1", "HEAD"), ("get /gateway.xml HTTP/1.1", "get"), ("NOTIFY * HTTP/1.1", "NOTIFY"),
    ("OPTIONS * HTTP/1.1", "OPTIONS"), ("gibberish", "gibberish"), ("", "")])
def test_another_method_is_answered_with_a_bare_501_and_named_in_the_log(lab, request_line, method):
    mark = lab.upnpd.mark()
    assert exchange(lab.lan1, request_line + "\r\n\r\n") == bare("501 Not Implemented")
    assert lab.upnpd.since(mark) == [f"what is this: '{method}'"]


@pytest.mark.parametrize("version", ["HTTP/1.1", "HTTP/1.0", "HTTP/9", "HTTP/"])
def test_the_version_of_a_request_is_not_looked_at(lab, version):
    assert exchange(lab.lan1, f"GET /osinfo.xml {version}\r\n\r\n") == file_answer(OSINFO_TEXT)


def test_a_title_without_a_version_has_the_rest_for_its_path(lab):
    assert exchange(lab.lan1, "GET /osinfo.xml\r\n\r\n") == file_answer(OSINFO_TEXT)


@pytest.mark.parametrize("method", ["POST", "SUBSCRIBE", "UNSUBSCRIBE"])
@pytest.mark.parametrize("host", [
    None, "", "192.0.2.1:80", "192.0.2.1:2828 ", "192.0.2.1:02828", "198.51.100.1:2828", "router.example:2828", "192.0.2.2"])
def test_another_host_is_refused_with_a_bare_400_and_named_in_the_log(lab, method, host):
    folder = "control" if method == "POST" else "event"
    lines = [f"{method} /upnp/{folder}/osinfo HTTP/1.1", *([] if host is None else [f"HOST: {host}"]), "", ""]
    mark = lab.upnpd.mark()
    assert exchange(lab.lan1, "\r\n".join(lines)) == bare("400 Bad Request")
    assert lab.upnpd.since(mark) == [f"{method}: host mismatch '{host or ''}'"]


@pytest.mark.parametrize("method, folder", [("POST", "control"), ("SUBSCRIBE", "event"), ("UNSUBSCRIBE", "event")])
def test_the_path_is_looked_at_before_the_host(lab, method, folder):
    mark = lab.upnpd.mark()
    assert exchange(lab.lan1, f"{method} /upnp/{folder}/none HTTP/1.1\r\nHOST: other\r\n\r\n") == bare("404 Not Found")
    assert lab.upnpd.since(mark) == []


@pytest.mark.parametrize("host", [ROUTER_LAN, f"{ROUTER_LAN}:2828"])
def test_the_interfaces_own_address_is_accepted_with_and_without_the_port(lab, path, host):
    body = envelope(action_element("GetExternalIPAddress"))
    assert exchange(lab.lan1, post(path, body, f'"{CONNECTION}#GetExternalIPAddress"', host)) == result(
        "GetExternalIPAddress", [("NewExternalIPAddress", ROUTER_WAN)])


def test_a_request_to_another_address_of_the_router_is_checked_against_the_interfaces_own(lab):
    request = f"SUBSCRIBE /upnp/event/osinfo HTTP/1.1\r\nHOST: {ROUTER_WAN}:2828\r\n\r\n"
    assert exchange(lab.lan1, request, address=ROUTER_WAN) == bare("400 Bad Request")


def test_header_names_are_read_in_any_case(lab):
    request = f"SUBSCRIBE /upnp/event/osinfo HTTP/1.1\r\nhOsT:    {ROUTER_LAN}\r\nsid: none\r\n\r\n"
    assert exchange(lab.lan1, request) == bare("412 Precondition Failed")


@pytest.mark.parametrize("pieces", [2, 5, 44])
def test_a_request_in_segments_is_answered_once_it_is_complete(lab, pieces):
    request = f"GET /osinfo.xml HTTP/1.1\r\nHOST: {ROUTER_LAN}\r\n\r\n"
    assert exchange(lab.lan1, request, pieces) == file_answer(OSINFO_TEXT)


def test_a_request_longer_than_one_read_is_answered(lab, path):
    body = envelope(action_element("GetExternalIPAddress", [("Filler", "x" * 20000)]))
    assert exchange(lab.lan1, post(path, body, f"{CONNECTION}#GetExternalIPAddress")) == result(
        "GetExternalIPAddress", [("NewExternalIPAddress", ROUTER_WAN)])


def test_one_request_is_answered_and_the_connection_closed(lab):
    answer = binary(lab, GET_OSINFO + GET_OSINFO)  # the second is the body of the first
    assert answer.count(b"HTTP/1.1 200 OK\r\n") == 1


@pytest.mark.parametrize("unfinished", [
    b"", b"GET /osinfo.xml HTTP/1.1", GET_OSINFO[:-2],
    b"GET /osinfo.xml HTTP/1.1\r\nno colon\r\n\r\n",
    b"GET /osinfo.xml HTTP/1.1\r\nContent-Length: 3\r\n\r\nab",
    b"GET /osinfo.xml HTTP/1.1\r\nContent-Length: 3\r\n\r\nabcd",
], ids=["nothing", "half a line", "no empty line", "no colon", "too short", "too long"])
def test_what_never_completes_is_not_answered_but_kept(lab, unfinished):
    with lab.lan1.connect(ROUTER_LAN, PORT) as connection:
        connection.sendall(unfinished)
        assert get(lab.lan2, "/osinfo.xml") == file_answer(OSINFO_TEXT)  # the daemon has gone on in the meantime
        connection.setblocking(False)
        with pytest.raises(BlockingIOError):
            connection.recv(1)


def test_a_carriage_return_alone_may_end_a_request(lab):
    assert exchange(lab.lan1, GET_OSINFO[:-1]) == file_answer(OSINFO_TEXT)


def test_a_body_that_arrives_with_its_length_is_complete(lab):
    request = "GET /osinfo.xml HTTP/1.1\r\nContent-Length: 3\r\n\r\nabc"
    assert exchange(lab.lan1, request) == file_answer(OSINFO_TEXT)


def test_a_client_that_closes_early_leaves_no_line(lab):
    mark = lab.upnpd.mark()
    for reset in (False, True):
        connection = lab.lan1.connect(ROUTER_LAN, PORT)
        connection.sendall(b"GET /osinfo.xml HT")
        if reset:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        connection.close()
    assert get(lab.lan1, "/osinfo.xml") == file_answer(OSINFO_TEXT)
    eventually(lambda: lab.router.run("ss", "-Htn", "state", "established", "sport", "=", ":2828").stdout == "",
               "the connections go")
    assert lab.upnpd.since(mark) == []


def test_a_request_that_never_ends_is_dropped_ten_seconds_after_the_accept_however_much_arrives(lab):
    mark = lab.upnpd.mark()
    with lab.lan1.connect(ROUTER_LAN, PORT, seconds=1) as connection:
        began = time.monotonic()
        connection.sendall(b"POST /upnp/control/osinfo HTTP/1.1\r\nCONTENT-LENGTH: 1000\r\n\r\n")
        received = None
        while received is None:
            assert time.monotonic() - began < 15
            try:
                received = connection.recv(1)
            except TimeoutError:
                connection.sendall(b"x")  # would start another time limit again
            except ConnectionResetError:
                received = b""
        assert received == b""
        assert 9.5 <= time.monotonic() - began <= 12
    lab.upnpd.wait_for("http request timeout", mark)  # written after the end of the connection
    assert lab.upnpd.since(mark) == ["http request timeout"]


def test_many_connections_are_served_side_by_side(lab):
    waiting = [lab.lan1.connect(ROUTER_LAN, PORT) for _ in range(100)]
    assert get(lab.lan2, "/osinfo.xml") == file_answer(OSINFO_TEXT)
    for connection in waiting:
        connection.close()
    eventually(lambda: lab.router.run("ss", "-Htn", "state", "established", "sport", "=", ":2828").stdout == "",
               "the connections go")


def test_a_client_that_reads_nothing_keeps_nobody_waiting(lab):
    with lab.lan1.socket() as stalled:
        stalled.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1)
        stalled.connect((ROUTER_LAN, PORT))
        stalled.sendall(b"GET /gateway.xml HTTP/1.1\r\n\r\n")
        assert get(lab.lan2, "/osinfo.xml") == file_answer(OSINFO_TEXT)


def test_the_listener_is_not_reached_from_the_wan(lab):
    with pytest.raises(OSError):
        lab.wan.connect(ROUTER_WAN, PORT, seconds=2)


def test_two_internal_interfaces_describe_their_own_addresses(world):
    world.router.interfaces.append(world.wan2)
    world.router.addresses.append(address(30, "203.0.113.1", 3))
    world.serve(item(LAN, 2), item(3, 2))
    for host, own in ((world.lab.lan1, ROUTER_LAN), (world.lab.wan2, "203.0.113.1"), (world.lab.lan1, ROUTER_LAN)):
        answer = exchange(host, "GET /gateway.xml HTTP/1.1\r\n\r\n", address=own)
        assert f"<URLBase>http://{own}:2828</URLBase>\r\n</root>\r\n" in answer
        assert f"<presentationURL>http://{own}/</presentationURL>" in answer


def file_of(world, name):
    return world.lab.root / "tesk" / "etc" / "upnp" / name


@pytest.fixture
def files(world):
    """The served files of a world. They are put back at the end."""
    world.serve()
    yield world
    for name in ("osinfo.xml", "wanipconn.xml"):
        target = file_of(world, name)
        if target.is_dir():
            target.rmdir()
        target.write_bytes((DATA / name).read_bytes())


@pytest.mark.parametrize("size, served", [(0, 0), (1, 1), (16383, 16383), (16384, 16384), (16385, 16384), (40000, 16384)])
def test_a_file_is_served_up_to_16384_bytes(files, size, served):
    text = ("0123456789abcdef" * 2501)[:size]
    file_of(files, "osinfo.xml").write_text(text)
    assert get(files.lab.lan1, "/osinfo.xml") == file_answer(text[:served])


def test_a_file_that_cannot_be_opened_is_logged_and_answered_with_a_bare_404(files):
    file_of(files, "osinfo.xml").unlink()
    mark = files.daemon.mark()
    assert get(files.lab.lan1, "/osinfo.xml") == bare("404 Not Found")
    assert files.daemon.since(mark) == ["open file /tesk/etc/upnp/osinfo.xml: No such file or directory"]


def test_a_file_that_cannot_be_read_is_logged_and_answered_with_a_bare_404(files):
    file_of(files, "osinfo.xml").unlink()
    file_of(files, "osinfo.xml").mkdir()
    mark = files.daemon.mark()
    assert get(files.lab.lan1, "/osinfo.xml") == bare("404 Not Found")
    assert files.daemon.since(mark) == ["read file /tesk/etc/upnp/osinfo.xml: Is a directory"]


def test_an_open_connection_is_answered_although_its_interface_has_lost_its_role(world):
    world.serve()
    with world.lab.lan1.connect(ROUTER_LAN, PORT) as connection:
        connection.sendall(GET_OSINFO[:10])
        eventually(lambda: world.lab.router.run("ss", "-Htn", "state", "established", "sport", "=", ":2828").stdout.split()[:1]
                   == ["0"], "the bytes are read")
        world.router.ask(0xFE0006, [(0xFE0001, "u32", 1)])
        connection.sendall(GET_OSINFO[10:])
        assert DATE.sub("NOW", read_to_end(connection).decode()) == file_answer(OSINFO_TEXT)


def test_the_connections_of_an_interface_that_goes_are_closed_silently(world):
    world.serve()
    with world.lab.lan1.connect(ROUTER_LAN, PORT) as connection:
        connection.sendall(GET_OSINFO[:10])
        eventually(lambda: world.lab.router.run("ss", "-Htn", "state", "established", "sport", "=", ":2828").stdout.split()[:1]
                   == ["0"], "the bytes are read")
        gone = [*world.lan[:2], (0x10003, "u32", 0x82), *world.lan[3:]]
        assert world.log_after(world.router.tell_interface, gone) == ["rem dev: inside", "stop int: inside", "sendAdverts"]
        assert connection.recv(1) == b""


def test_a_query_is_answered_over_several_connections_in_any_order(lab, path):
    first, second = (lab.lan1.connect(ROUTER_LAN, PORT) for _ in range(2))
    first.sendall(GET_OSINFO[:8])
    second.sendall(GET_OSINFO)
    assert DATE.sub("NOW", read_to_end(second).decode()) == file_answer(OSINFO_TEXT)
    first.sendall(GET_OSINFO[8:])
    assert DATE.sub("NOW", read_to_end(first).decode()) == file_answer(OSINFO_TEXT)
    for connection in (first, second):
        connection.close()
