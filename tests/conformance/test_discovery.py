"""Search and announcement, datagram by datagram."""
import pytest

from bus import OBJECT, SET_OBJECT, address, item
from control_point import (Listener, Searcher, advert, root_pairs, search, search_answer, table_order, wan_pairs)
from labs import ROUTER_LAN, eventually
from worlds import LAN, WAN2

SENTINEL = "urn:schemas-upnp-org:device:WANDevice:1"  # has one answer; after it, earlier searches are done


@pytest.fixture
def listener(fresh_lab):
    listener = Listener(fresh_lab.lan1)
    yield listener
    listener.close()


def answers_before_the_sentinel(searcher, pairs, datagram):
    """The answers to a search: everything that arrives before the answer to a second search."""
    searcher.send(datagram)
    searcher.send(search(SENTINEL))
    last = search_answer(SENTINEL, dict(pairs)[SENTINEL])
    answers = []
    while (answer := searcher.next()[0]) != last:
        answers.append(answer)
    return answers


def test_a_search_for_all_is_answered_with_every_pair_in_order(lab, searcher, pairs):
    searcher.send(search("ssdp:all"))
    answers = searcher.receive(len(pairs))
    assert [text for text, _ in answers] == [search_answer(*pair) for pair in pairs]


def test_the_answers_come_from_the_address_of_the_interface_and_one_new_port(lab, searcher, pairs):
    searcher.send(search("ssdp:all"))
    senders = {sender for _, sender in searcher.receive(len(pairs))}
    assert len(senders) == 1
    (address, port), = senders
    assert address == ROUTER_LAN and port not in (1900, 2828)


def test_a_search_for_each_type_is_answered_with_its_pairs_alone(lab, searcher, pairs):
    for target, usn in pairs:
        if target != SENTINEL:
            assert answers_before_the_sentinel(searcher, pairs, search(target)) == [search_answer(target, usn)]


@pytest.mark.parametrize("datagram", [
    pytest.param(search("urn:schemas-upnp-org:device:Other:1"), id="a type that nobody has"),
    pytest.param(search("UPNP:rootdevice"), id="a type in another case"),
    pytest.param(search("upnp:rootdevice", host="239.255.255.250"), id="HOST without port"),
    pytest.param(search("upnp:rootdevice", host="239.255.255.250: 1900"), id="HOST with a blank"),
    pytest.param(search("upnp:rootdevice", man="ssdp:discover"), id="MAN without quotes"),
    pytest.param(search("upnp:rootdevice", man='"ssdp:Discover"'), id="MAN in another case"),
    pytest.param(search("upnp:rootdevice", mx=None), id="no MX"),
    pytest.param(search(None), id="no ST"),
    pytest.param(search("upnp:rootdevice").replace("HTTP/1.1", "HTTP/1.0"), id="another version"),
    pytest.param(search("upnp:rootdevice").replace("M-SEARCH", "m-search"), id="another method"),
    pytest.param(advert("alive", "upnp:rootdevice", "uuid:other::upnp:rootdevice"), id="an advert"),
    pytest.param("\r\n", id="a blank line"),
    pytest.param(b"\x00\xff" * 700, id="noise"),
])
def test_is_not_answered(lab, searcher, pairs, datagram):
    assert answers_before_the_sentinel(searcher, pairs, datagram) == []


@pytest.mark.parametrize("datagram", [
    pytest.param("M-SEARCH * HTTP/1.1\r\nhost: 239.255.255.250:1900\r\nman: \"ssdp:discover\"\r\nmx: 2\r\n"
                 "st: upnp:rootdevice\r\n\r\n", id="lower-case names"),
    pytest.param("M-SEARCH * HTTP/1.1\r\nST:upnp:rootdevice\r\nMX:\r\nMAN:   \"ssdp:discover\"\r\n"
                 "HOST:239.255.255.250:1900\r\n\r\n", id="another order and other blanks"),
    pytest.param("M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\nMX: soon\r\n"
                 "ST: upnp:rootdevice\r\nCONTENT-LENGTH: 7\r\n\r\n", id="incomplete"),
])
def test_is_answered(lab, searcher, pairs, datagram):
    usn = dict(pairs)["upnp:rootdevice"]
    assert answers_before_the_sentinel(searcher, pairs, datagram) == [search_answer("upnp:rootdevice", usn)]


def test_a_search_sent_to_the_router_alone_is_answered_too(lab, searcher, pairs):
    searcher.socket.sendto(search("upnp:rootdevice").encode(), (ROUTER_LAN, 1900))
    assert searcher.receive(1)[0][0] == search_answer("upnp:rootdevice", dict(pairs)["upnp:rootdevice"])


def test_a_search_from_the_wan_is_not_answered(lab, searcher, pairs):
    outside = Searcher(lab.wan)
    outside.send(search("ssdp:all"))
    outside.socket.sendto(search("ssdp:all").encode(), ("198.51.100.1", 1900))
    assert answers_before_the_sentinel(searcher, pairs, search("urn:none")) == []  # the daemon has been busy since
    outside.socket.setblocking(False)
    with pytest.raises((BlockingIOError, ConnectionRefusedError)):
        outside.next()
    outside.close()


def test_a_real_control_point_finds_the_root_device(lab, pairs):
    found = lab.lan1.run("gssdp-discover", "-i", "eth0", "-n", "2", "-t", "upnp:rootdevice").stdout
    assert dict(pairs)["upnp:rootdevice"] in found
    assert f"http://{ROUTER_LAN}:2828/gateway.xml" in found


def test_a_new_external_interface_is_announced_alone(fresh_lab, listener):
    fresh_lab.tkctl("upnp", "interface", "add", "wan1", "external")
    expected = table_order(wan_pairs(fresh_lab.identity(), fresh_lab.interface_id("wan1")))
    assert listener.receive(len(expected)) == [advert("alive", *pair) for pair in expected]
    assert listener.until(fresh_lab.lan2, "no more") == []


def test_a_removed_external_interface_says_goodbye_alone(fresh_lab, listener):
    item = next(item["id"] for item in fresh_lab.query("upnp", "interface", "list") if item["name"] == "wan0")
    fresh_lab.tkctl("upnp", "interface", "remove", item)
    expected = table_order(wan_pairs(fresh_lab.identity(), fresh_lab.interface_id("wan0")))
    assert listener.receive(len(expected)) == [advert("byebye", *pair) for pair in expected]
    assert listener.until(fresh_lab.lan2, "no more") == []


def test_two_external_interfaces_give_two_answers_for_each_type(fresh_lab):
    fresh_lab.tkctl("upnp", "interface", "add", "wan1", "external")
    identity = fresh_lab.identity()
    pairs = table_order(root_pairs(identity), wan_pairs(identity, fresh_lab.interface_id("wan0")),
                        wan_pairs(identity, fresh_lab.interface_id("wan1")))
    searcher = Searcher(fresh_lab.lan1)
    searcher.send(search("ssdp:all"))
    assert [text for text, _ in searcher.receive(len(pairs))] == [search_answer(*pair) for pair in pairs]
    searcher.close()


def test_searches_of_several_hosts_are_answered_to_each(lab, searcher, pairs):
    other = Searcher(lab.lan2)
    searcher.send(search("ssdp:all"))
    other.send(search("ssdp:all"))
    for one in (searcher, other):
        assert [text for text, _ in one.receive(len(pairs))] == [search_answer(*pair) for pair in pairs]
    other.close()


def test_a_search_writes_no_line_and_needs_no_socket_afterwards(lab, searcher, pairs):
    def sockets():
        return lab.router.run("ss", "-Hnuap").stdout
    before, mark = sockets(), lab.upnpd.mark()
    for datagram in (search("ssdp:all"), search("urn:nobody"), "noise", search(None)):
        searcher.send(datagram)
    searcher.send(search(SENTINEL))
    while searcher.next()[0] != search_answer(SENTINEL, dict(pairs)[SENTINEL]):
        pass
    eventually(lambda: sockets() == before, "the sockets of the answers are closed")
    assert lab.upnpd.since(mark) == []


def test_answers_that_cannot_be_sent_are_logged_one_by_one(world):
    world.serve()
    tree = table_order(root_pairs("0123abcd"), wan_pairs("0123abcd", 2))
    shunned, searcher = Searcher(world.lab.lan2), Searcher(world.lab.lan1)
    mark = world.daemon.mark()
    with world.lab.router.dropping("output", f"ip daddr {world.lab.lan2.address}"):
        shunned.send(search("upnp:rootdevice"))
        shunned.send(search("ssdp:all"))
        searcher.send(search("ssdp:all"))
        assert [text for text, _ in searcher.receive(len(tree))] == [search_answer(*pair) for pair in tree]
    assert world.daemon.since(mark) == ["search sendto failed"] * (1 + len(tree))
    shunned.close()
    searcher.close()


def test_adverts_that_cannot_be_sent_are_logged_one_by_one(world):
    world.serve()
    wan = wan_pairs("0123abcd", 2)
    with world.lab.router.dropping("output", "ip daddr 239.255.255.250"):
        failed = ["advert sendto failed: Operation not permitted"] * len(wan)
        assert world.log_of(SET_OBJECT, [(OBJECT, "u32", 2)]) == [
            "stop ext: uplink", "sendAdverts", *failed, "start ext: uplink", "initial external addr: 198.51.100.1",
            "sendAdverts", *failed]


def test_an_empty_datagram_is_logged_and_the_next_search_answered(lab, searcher, pairs):
    mark = lab.upnpd.mark()
    assert answers_before_the_sentinel(searcher, pairs, b"") == []
    assert lab.upnpd.since(mark) == ["search recvfrom failed"]


def test_each_internal_interface_answers_with_its_own_address(world):
    world.router.interfaces.append(world.wan2)
    world.router.addresses.append(address(30, "203.0.113.1", WAN2))
    world.serve(item(LAN, 2), item(WAN2, 2))
    root = dict(root_pairs("0123abcd"))["upnp:rootdevice"]
    for host, own in ((world.lab.lan1, ROUTER_LAN), (world.lab.wan2, "203.0.113.1")):
        searcher = Searcher(host)
        if host is world.lab.wan2:
            searcher.socket.sendto(search("upnp:rootdevice").encode(), (own, 1900))
        else:
            searcher.send(search("upnp:rootdevice"))
        (text, (sender, _)), = searcher.receive(1)
        assert text == search_answer("upnp:rootdevice", root, f"http://{own}:2828/gateway.xml")
        assert sender == own
        searcher.close()


def test_nothing_is_open_while_the_gateway_is_disabled(bare_lab):
    bare_lab.start_routerd()
    bare_lab.start_upnpd()
    bare_lab.tkctl("upnp", "interface", "add", "lan0", "internal")
    sockets = bare_lab.router.run("ss", "-Hlnutp").stdout
    assert ":1900" not in sockets and ":2828" not in sockets
    bare_lab.enable()
    eventually(lambda: ":2828" in bare_lab.router.run("ss", "-Hlnt").stdout)
