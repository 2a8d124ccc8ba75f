"""Subscriptions and notifications, byte for byte, and subscribers that misbehave."""
import socket
import struct
import time

import pytest

from bus import GET, OBJECT, REMOVE, RESOLVER, SET, SET_OBJECT, Refusal, address, settings
from control_point import CONNECTION, bare, call, fault, file_answer, get, mapping, result
from labs import DATA, LAN1, ROUTER_WAN, eventually
from subscribers import GOOD, Subscriber, granted, notification, read_message, renew, sid_of, subscribe, unsubscribe
from traces import Trace, asked, by_daemon
from worlds import WAN

EVENTS = "/upnp/event/"
INITIAL = [("ConnectionStatus", "Connected"), ("ExternalIPAddress", ROUTER_WAN), ("PortMappingNumberOfEntries", "0"),
           ("PossibleConnectionTypes", "IP_Routed")]


def wan_events(interface):
    return f"{EVENTS}wanipconn-{interface}"


def wan_control(interface):
    return f"/upnp/control/wanipconn-{interface}"


PATH, CONTROL = wan_events(WAN), wan_control(WAN)


@pytest.fixture
def subscriber(scripted_lab):
    subscriber = Subscriber(scripted_lab.lan1)
    yield subscriber
    subscriber.close()


@pytest.fixture
def other(scripted_lab):
    subscriber = Subscriber(scripted_lab.lan2)
    yield subscriber
    subscriber.close()


def machine(world):
    name = world.lab.router.run("uname", "-n").stdout.strip()
    return name if len(name) < 4 else ""


def osinfo(world):
    return [("OSBuildNumber", "1234"), ("OSMachineName", machine(world)), ("OSMajorVersion", "2"), ("OSMinorVersion", "9")]


def begin(world, subscriber, path=PATH, initial=INITIAL, **options):
    """A subscription that has had its first notification; its id."""
    sid = sid_of(subscribe(subscriber.host, path, subscriber.callback, **options))
    subscriber.expect(sid, 0, initial)
    return sid


def change(world, running):
    """Changes ConnectionStatus."""
    world.router.tell_status([(OBJECT, "u32", WAN), (0x1000E, "bool", running)])


def settled(world, mark, lines):
    """Waits until these are the log lines since the mark, and asserts that there are no others."""
    eventually(lambda: len(world.daemon.since(mark)) >= len(lines), f"{lines}: {world.daemon.since(mark)}")
    assert world.daemon.since(mark) == lines


NOTIFY_LINES = [f"notify: {name} = '{value}'" for name, value in INITIAL]


def test_a_subscription_is_answered_logged_and_told_all_evented_variables(world, subscriber):
    world.serve()
    mark = world.daemon.mark()
    answer = subscribe(world.lab.lan1, PATH, subscriber.callback)
    sid = sid_of(answer)
    assert answer == granted(sid)
    subscriber.expect(sid, 0, INITIAL)
    settled(world, mark, [f"callback addr: {LAN1}, port: 5000, path: /notify", f"subscribe: {CONNECTION}", *NOTIFY_LINES])
    assert subscriber.silent()


def test_the_other_services_tell_their_evented_variables(world, subscriber):
    world.serve()
    begin(world, subscriber, f"{EVENTS}wancommonifc-{WAN}", [("PhysicalLinkStatus", "Up")])
    begin(world, subscriber, f"{EVENTS}osinfo", osinfo(world))


def test_the_answer_stands_on_the_wire_before_the_first_notification(world):
    """The subscriber listens at once, so its connection is ready before the answer is written."""
    world.serve()
    with world.lab.lan1.listen(5000) as listener, world.lab.lan1.connect("192.0.2.1", 2828) as request:
        request.sendall(f"SUBSCRIBE {PATH} HTTP/1.1\r\nHOST: 192.0.2.1\r\nNT: upnp:event\r\n"
                        f"CALLBACK: <http://{LAN1}:5000/>\r\n\r\n".encode())
        connection, _ = listener.accept()
        read_message(connection)  # the notification is here: so is the answer, without any wait
        request.setblocking(False)
        assert request.recv(65536).startswith(b"HTTP/1.1 200 OK\r\n")
        connection.close()


def test_a_change_is_told_to_every_subscriber_with_the_next_number(world, subscriber, other):
    world.serve()
    sids = {one: begin(world, one) for one in (subscriber, other)}
    mark = world.daemon.mark()
    change(world, False)
    for one, sid in sids.items():
        one.expect(sid, 1, [("ConnectionStatus", "Connecting")])
    change(world, True)
    for one, sid in sids.items():
        one.expect(sid, 2, [("ConnectionStatus", "Connected")])
    assert sorted(set(world.daemon.since(mark))) == [
        "dev: 2 disabled: 0 running: 0", "dev: 2 disabled: 0 running: 1", "notify: ConnectionStatus = 'Connected'",
        "notify: ConnectionStatus = 'Connecting'"]


def test_a_value_that_stays_the_same_is_not_told(world, subscriber):
    world.serve()
    sid = begin(world, subscriber)
    change(world, True)
    world.router.tell_addresses(address(20, ROUTER_WAN, WAN))
    change(world, False)
    subscriber.expect(sid, 1, [("ConnectionStatus", "Connecting")])


def test_mappings_and_addresses_are_told_as_they_change(world, subscriber):
    world.serve()
    sid = begin(world, subscriber)
    assert call(world.lab.lan1, CONTROL, "AddPortMapping", mapping()) == result("AddPortMapping")
    subscriber.expect(sid, 1, [("PortMappingNumberOfEntries", "2")])
    assert call(world.lab.lan1, CONTROL, "AddPortMapping", mapping(internal=9)) == result("AddPortMapping")  # no other count
    assert call(world.lab.lan1, CONTROL, "DeletePortMapping", mapping()[:3]) == result("DeletePortMapping")
    subscriber.expect(sid, 2, [("PortMappingNumberOfEntries", "1")])
    world.router.ask(SET, settings(True, True, False))
    subscriber.expect(sid, 3, [("PortMappingNumberOfEntries", "0")])
    world.router.tell_addresses(address(20, "198.51.100.9", WAN))
    subscriber.expect(sid, 4, [("ExternalIPAddress", "198.51.100.9")])


def test_variables_that_are_not_evented_are_not_told(world, subscriber):
    world.serve()
    begin(world, subscriber)
    answer = call(world.lab.lan1, CONTROL, "SetConnectionType", [("NewConnectionType", "IP_Bridged")])
    assert answer == fault(501, "Action Failed")
    assert call(world.lab.lan1, CONTROL, "GetStatusInfo").startswith("HTTP/1.1 200 OK")
    change(world, False)
    assert subscriber.next().endswith(
        "    <ConnectionStatus>Connecting</ConnectionStatus>\r\n  </e:property>\r\n</e:propertyset>\r\n")


@pytest.mark.parametrize("asked, seconds", [
    ("Second-60", 1800), ("Second-1800", 1800), ("Second-1801", 1801), ("Second-3600", 3600), ("Second-86400", 86400),
    ("Second-86401", 86400), ("Second-100000", 86400), ("Second-infinite", 86400), ("Second--5", 86400), ("Second-0", 1800),
    ("Second-", 1800), ("Second-many", 1800), ("Second-3600x", 3600), ("second-3600", 1800), ("3600", 1800),
    ("infinite", 1800), ("Second-Infinite", 1800), ("", 1800), (None, 1800)])
def test_the_duration_is_granted_within_its_bounds(world, subscriber, asked, seconds):
    world.serve()
    answer = subscribe(world.lab.lan1, f"{EVENTS}osinfo", subscriber.callback, asked)
    sid = sid_of(answer)
    assert answer == granted(sid, seconds)
    assert renew(world.lab.lan1, f"{EVENTS}osinfo", sid, asked) == granted(sid, seconds)


def test_a_renewal_keeps_the_id_and_tells_nothing(world, subscriber):
    world.serve()
    sid = begin(world, subscriber)
    mark = world.daemon.mark()
    assert renew(world.lab.lan1, PATH, sid, "Second-7200") == granted(sid, 7200)
    assert world.daemon.since(mark) == [f"resubscribe: {CONNECTION}"]
    change(world, False)
    subscriber.expect(sid, 1, [("ConnectionStatus", "Connecting")])


def test_a_renewal_does_not_read_a_callback(world, subscriber):
    world.serve()
    sid = begin(world, subscriber)
    answer = subscribe(world.lab.lan1, PATH, "<http://192.0.2.3:1/elsewhere>", nt=None, sid=sid)
    assert answer == granted(sid)
    change(world, False)
    subscriber.expect(sid, 1, [("ConnectionStatus", "Connecting")])


@pytest.mark.parametrize("sid", [None, "", "none", "uuid:00000000-0000-0000-0000-000000000000"])
def test_an_unknown_id_is_neither_renewed_nor_ended(world, sid):
    world.serve()
    mark = world.daemon.mark()
    assert renew(world.lab.lan1, PATH, sid) == bare("412 Precondition Failed")
    assert unsubscribe(world.lab.lan1, PATH, sid) == bare("412 Precondition Failed")
    assert world.daemon.since(mark) == []


def test_an_id_counts_whole_and_at_its_own_service_alone(world, subscriber):
    world.serve()
    sid = begin(world, subscriber)
    for wrong in (sid[5:], sid.upper(), sid + " "):
        assert renew(world.lab.lan1, PATH, wrong) == bare("412 Precondition Failed")
    assert unsubscribe(world.lab.lan1, f"{EVENTS}osinfo", sid) == bare("412 Precondition Failed")


def test_unsubscribing_is_answered_with_a_bare_200_and_ends_the_events(world, subscriber, other):
    world.serve()
    gone, stays = begin(world, subscriber), begin(world, other)
    mark = world.daemon.mark()
    assert unsubscribe(world.lab.lan1, PATH, gone) == bare("200 OK")
    assert world.daemon.since(mark) == ["unsubscribe"]
    change(world, False)
    other.expect(stays, 1, [("ConnectionStatus", "Connecting")])
    assert unsubscribe(world.lab.lan1, PATH, gone) == bare("412 Precondition Failed")
    assert subscriber.silent()


@pytest.mark.parametrize("nt", ["", "upnp:propchange", "UPNP:event", "upnp:event "])
def test_another_notification_type_is_refused_even_with_a_known_id(world, subscriber, nt):
    world.serve()
    sid = begin(world, subscriber)
    mark = world.daemon.mark()
    assert subscribe(world.lab.lan1, PATH, "<http://192.0.2.3:1/>", nt=nt, sid=sid) == bare("412 Precondition Failed")
    assert world.daemon.since(mark) == []


@pytest.mark.parametrize("callback", [
    None, "", "http://192.0.2.2:5000/notify", "<http://192.0.2.2:5000/notify", "http://192.0.2.2:5000/notify>", "<>", "<",
    "<https://192.0.2.2:5000/>", "<HTTP://192.0.2.2:5000/>", "<http://192.0.2.2:5000>", "<http://192.0.2.2>", "<http://>",
    "<notify>", "< http://192.0.2.2:5000/notify>"])
def test_a_malformed_callback_is_refused(world, callback):
    world.serve()
    world.take_requests()
    mark = world.daemon.mark()
    assert subscribe(world.lab.lan1, PATH, callback) == bare("412 Precondition Failed")
    assert world.daemon.since(mark) == [] and world.take_requests() == []


@pytest.mark.parametrize("callback, port, path", [
    ("<http://192.0.2.2/>", 80, "/"), ("<http://192.0.2.2:5000/notify>", 5000, "/notify"),
    ("<http://192.0.2.2:5000/a/b?c=d:e>", 5000, "/a/b?c=d:e"), ("<http://192.0.2.2:65546/n>", 10, "/n"),
    ("<http://192.0.2.2:/n>", 0, "/n"), ("<http://192.0.2.2:5000x/n>", 5000, "/n"),
    ("<http://192.0.2.2:5000/first><http://192.0.2.3:6000/second>", 5000, "/first"),
    ("<http://192.0.2.2:5000/first> <http://192.0.2.3/>", 5000, "/first"), ("<http://192.0.514:5000/>", 5000, "/")])
def test_the_first_callback_is_taken_apart(world, callback, port, path):
    world.serve()
    mark = world.daemon.mark()
    assert subscribe(world.lab.lan1, PATH, callback).startswith("HTTP/1.1 200 OK\r\n")
    assert world.daemon.since(mark)[0] == f"callback addr: {LAN1}, port: {port}, path: {path}"


def test_a_named_host_is_asked_of_the_resolver(world, subscriber):
    world.serve()
    world.router.answers[RESOLVER, 3] = [(4, "be32", LAN1)]
    world.take_requests()
    answer = subscribe(world.lab.lan1, PATH, "<http://printer.example:5000/notify>")
    assert answer == granted(sid_of(answer))
    assert world.take_requests() == [(RESOLVER, 3, [(0xFF0001, "u32[]", [14]), (3, "string", "printer.example")])]
    subscriber.expect(sid_of(answer), 0, INITIAL)  # HOST is the address, not the name


@pytest.mark.parametrize("answer, lines", [
    (Refusal(7, "no such name"), ["resolving failed: no such name"]), ([], []), ([(4, "be32", "0.0.0.0")], [])],
    ids=["refused", "no address", "address 0"])
def test_a_host_that_cannot_be_resolved_is_refused(world, answer, lines):
    world.serve()
    world.router.answers[RESOLVER, 3] = answer
    mark = world.daemon.mark()
    assert subscribe(world.lab.lan1, PATH, "<http://printer.example/>") == bare("412 Precondition Failed")
    assert world.daemon.since(mark) == lines


def test_an_address_is_taken_even_from_an_error_of_the_resolver(world, subscriber):
    world.serve()
    refusal = Refusal(7, "half known")
    refusal.message.append((4, "be32", LAN1))
    world.router.answers[RESOLVER, 3] = refusal
    mark = world.daemon.mark()
    answer = subscribe(world.lab.lan1, PATH, "<http://printer.example:5000/notify>")
    subscriber.expect(sid_of(answer), 0, INITIAL)
    assert world.daemon.since(mark)[:2] == ["resolving failed: half known",
                                            f"callback addr: {LAN1}, port: 5000, path: /notify"]


def test_the_broadcast_address_reads_like_a_name(world):
    world.serve()
    world.take_requests()
    assert subscribe(world.lab.lan1, PATH, "<http://255.255.255.255/>") == bare("412 Precondition Failed")
    assert world.take_requests() == [
        (RESOLVER, 3, [(0xFF0001, "u32[]", [14]), (3, "string", "255.255.255.255")])]


def test_the_real_bus_carries_the_question_for_a_name(lab):
    trace, mark = Trace(lab, "--json"), lab.upnpd.mark()
    answer = subscribe(lab.lan1, f"{EVENTS}osinfo", "<http://no-such-host.invalid:5000/>")
    assert answer == bare("412 Precondition Failed")
    assert [asked(message) for message in trace.until_now(by_daemon)] == [
        ([14], "0x3", [("0xff0001", "u32[]", [14]), ("0x3", "string", "no-such-host.invalid")])]
    line, = lab.upnpd.since(mark)
    assert line.startswith("resolving failed: ") and len(line) > len("resolving failed: ")
    trace.close()


def test_one_address_has_one_subscription_at_a_service(world, subscriber):
    world.serve()
    sid = begin(world, subscriber)
    mark = world.daemon.mark()
    for callback in (subscriber.callback, f"<http://{LAN1}:6000/other>"):
        assert subscribe(world.lab.lan1, PATH, callback) == bare("412 Precondition Failed")
    assert world.daemon.since(mark) == [f"callback addr: {LAN1}, port: 5000, path: /notify",
                                        f"callback addr: {LAN1}, port: 6000, path: /other"]
    begin(world, subscriber, f"{EVENTS}osinfo", osinfo(world))  # another service counts apart
    assert unsubscribe(world.lab.lan1, PATH, sid) == bare("200 OK")
    begin(world, subscriber)


def test_a_hundred_addresses_subscribe_and_the_next_one_is_refused(world):
    world.serve()
    lan1 = world.lab.lan1
    addresses = [f"192.0.2.{number}" for number in range(100, 201)]
    lan1.run("sh", "-c", "for n in $(seq 100 200); do ip address add 192.0.2.$n/24 dev eth0; done")
    crowd = Subscriber(lan1, 5000)
    try:
        sids = {}
        for one in addresses[:100]:
            answer = subscribe(lan1, PATH, f"<http://{one}:5000/notify>")
            sids[one] = sid_of(answer)
            assert answer == granted(sids[one])
        assert len(set(sids.values())) == 100
        assert sorted(crowd.next_with_address() for _ in sids) == sorted(
            (one, notification(sid, 0, INITIAL, one, 5000)) for one, sid in sids.items())
        mark = world.daemon.mark()
        refused = bare("500 Internal Server Error")
        assert subscribe(lan1, PATH, f"<http://{addresses[100]}:5000/notify>") == refused
        assert subscribe(lan1, PATH, f"<http://{addresses[0]}:5000/notify>") == refused  # the limit is checked first
        assert world.daemon.since(mark) == [f"callback addr: {one}, port: 5000, path: /notify"
                                            for one in (addresses[100], addresses[0])]
        change(world, False)
        assert sorted(crowd.next_with_address() for _ in sids) == sorted(
            (one, notification(sid, 1, [("ConnectionStatus", "Connecting")], one, 5000)) for one, sid in sids.items())
        assert unsubscribe(lan1, PATH, sids[addresses[7]]) == bare("200 OK")
        answer = subscribe(lan1, PATH, f"<http://{addresses[100]}:5000/notify>")
        assert answer == granted(sid_of(answer))
    finally:
        crowd.close()
        lan1.run("sh", "-c", "for n in $(seq 100 200); do ip address del 192.0.2.$n/24 dev eth0; done")


BAD_REPLIES = [
    (b"HTTP/1.1 412 Precondition Failed\r\n\r\n", "bad notify reply: HTTP/1.1 412 Precondition Failed"),
    (b"HTTP/1.1 2000 OK\r\n\r\n", None),
    (b"HTTP/1.0 200 OK\r\n\r\n", None),
    (b"gibberish 200 no\r\n", "bad notify reply: gibberish 200 no"),
    (b"\x00\xff\x00\xff", "bad notify reply: "),
]


@pytest.mark.parametrize("reply, line", BAD_REPLIES, ids=["412", "2000", "HTTP/1.0", "garbage", "noise"])
def test_a_bad_reply_is_logged_and_the_subscription_stays(world, subscriber, reply, line):
    world.serve()
    mark = world.daemon.mark()
    subscriber.reply = reply
    sid = begin(world, subscriber)
    lines = [f"callback addr: {LAN1}, port: 5000, path: /notify", f"subscribe: {CONNECTION}", *NOTIFY_LINES]
    settled(world, mark, lines + ([line] if line else []))
    subscriber.reply = GOOD
    change(world, False)
    subscriber.expect(sid, 1, [("ConnectionStatus", "Connecting")])
    for _ in range(2):  # the second is answered in a later turn than the replies, which have come by now
        world.router.ask(GET)
    assert [told for told in world.daemon.since(mark) if told.startswith("bad notify reply")] == ([line] if line else [])


class Raw:
    """A subscriber that is only a listening socket on lan1."""

    callback = f"<http://{LAN1}:5000/notify>"

    def __init__(self, host):
        self.listener = host.listen(5000)
        self.held = []

    def accept(self):
        """The next notification's connection, and what it carries."""
        connection, _ = self.listener.accept()
        connection.settimeout(10)
        self.held.append(connection)
        return connection, read_message(connection)

    def close(self):
        for connection in [*self.held, self.listener]:
            connection.close()


@pytest.fixture
def raw(scripted_lab):
    raw = Raw(scripted_lab.lan1)
    yield raw
    raw.close()


def undisturbed(world, other, sid, number, status):
    """Another subscriber and another client notice nothing."""
    change(world, status == "Connected")
    other.expect(sid, number, [("ConnectionStatus", status)])
    assert get(world.lab.lan2, "/osinfo.xml") == file_answer((DATA / "osinfo.xml").read_text())


def test_a_refused_connection_takes_its_number_and_disturbs_nobody(world, other):
    world.serve()
    sid = begin(world, other)
    mark = world.daemon.mark()
    dead = sid_of(subscribe(world.lab.lan1, PATH, f"<http://{LAN1}:5000/notify>"))
    settled(world, mark, [f"callback addr: {LAN1}, port: 5000, path: /notify", f"subscribe: {CONNECTION}", *NOTIFY_LINES,
                          "write failed", "notify timeout"])
    undisturbed(world, other, sid, 1, "Connecting")
    eventually(lambda: world.daemon.since(mark).count("write failed") == 2)
    subscriber = Subscriber(world.lab.lan1)
    undisturbed(world, other, sid, 2, "Connected")
    subscriber.expect(dead, 2, [("ConnectionStatus", "Connected")])  # two numbers went with what was refused
    subscriber.close()


def test_a_subscriber_that_dies_in_the_middle_disturbs_nobody(world, raw, other):
    world.serve()
    sid = begin(world, other)
    mark = world.daemon.mark()
    dead = sid_of(subscribe(world.lab.lan1, PATH, raw.callback))
    connection, heard = raw.accept()
    assert heard == notification(dead, 0, INITIAL, LAN1, 5000)
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()  # reset
    world.daemon.wait_for("notify reply read failed", mark)
    undisturbed(world, other, sid, 1, "Connecting")
    connection, heard = raw.accept()
    assert heard == notification(dead, 1, [("ConnectionStatus", "Connecting")], LAN1, 5000)
    connection.close()  # ended, without a reply
    eventually(lambda: world.daemon.since(mark).count("notify reply read failed") == 2)
    undisturbed(world, other, sid, 2, "Connected")
    assert world.daemon.since(mark).count("notify reply read failed") == 2  # told once each, not for ever


def test_subscribers_that_never_reply_or_never_accept_are_given_up_after_thirty_seconds(world, raw, other):
    """One subscriber accepts and says nothing, then closes without a word; one swallows what comes; one is well."""
    world.serve()
    lan1, well = world.lab.lan1, begin(world, other)
    lan1.run("ip", "address", "add", "192.0.2.40/24", "dev", "eth0")
    mark = world.daemon.mark()
    with lan1.dropping("input", "ip daddr 192.0.2.40"):
        began = time.monotonic()
        silent = sid_of(subscribe(lan1, PATH, raw.callback))
        held, _ = raw.accept()
        swallowed = sid_of(subscribe(lan1, PATH, "<http://192.0.2.40:5000/notify>"))
        undisturbed(world, other, well, 1, "Connecting")
        wordless, heard = raw.accept()
        assert heard == notification(silent, 1, [("ConnectionStatus", "Connecting")], LAN1, 5000)
        wordless.close()
        world.daemon.wait_for("notify timeout", mark, 40)
        assert 29.5 <= time.monotonic() - began <= 33
        eventually(lambda: world.daemon.since(mark).count("notify timeout") == 4, "each is given up", 10)
        assert held.recv(1) == b""  # closed by the daemon
    assert world.daemon.since(mark).count("notify reply read failed") == 1
    raw.listener.close()
    subscriber = Subscriber(lan1)
    change(world, True)  # all subscriptions stay; what never connected took no number
    assert sorted(subscriber.next() for _ in range(2)) == sorted([
        notification(silent, 2, [("ConnectionStatus", "Connected")], LAN1, 5000),
        notification(swallowed, 0, [("ConnectionStatus", "Connected")], "192.0.2.40", 5000)])
    subscriber.close()
    lan1.run("ip", "address", "del", "192.0.2.40/24", "dev", "eth0")


def test_a_host_without_a_route_is_logged_at_once_and_takes_no_number(world):
    world.serve()
    world.lab.router.run("ip", "route", "add", "unreachable", "198.18.0.0/15")
    mark = world.daemon.mark()
    assert subscribe(world.lab.lan1, PATH, "<http://198.18.0.1:5000/>").startswith("HTTP/1.1 200 OK\r\n")
    assert world.daemon.since(mark) == ["callback addr: 198.18.0.1, port: 5000, path: /", f"subscribe: {CONNECTION}",
                                        "tcp connect: No route to host"]
    world.lab.router.run("ip", "route", "del", "unreachable", "198.18.0.0/15")


def test_a_delivery_whose_subscription_is_gone_is_dropped_when_it_connects(world, subscriber):
    world.serve()
    lan1 = world.lab.lan1
    with lan1.dropping("input", "tcp dport 5000"):
        sid = sid_of(subscribe(lan1, PATH, subscriber.callback))
        assert unsubscribe(lan1, PATH, sid) == bare("200 OK")
        mark = world.daemon.mark()
    settled(world, mark, ["notify timeout"])  # the connection has come to stand with its next attempt
    eventually(lambda: subscriber.wordless == 1)
    assert subscriber.silent()


def test_a_notification_has_the_values_and_the_number_of_the_moment_its_connection_stands(world, subscriber):
    world.serve()
    lan1 = world.lab.lan1
    with lan1.dropping("input", "tcp dport 5000"):
        sid = sid_of(subscribe(lan1, PATH, subscriber.callback))
        change(world, False)
    told = dict(INITIAL) | {"ConnectionStatus": "Connecting"}
    heard = sorted(subscriber.next() for _ in range(2))
    whole, single = sorted(told.items()), [("ConnectionStatus", "Connecting")]
    orders = [sorted([notification(sid, first, whole, LAN1, 5000), notification(sid, 1 - first, single, LAN1, 5000)])
              for first in (0, 1)]
    assert heard in orders  # whichever connects first has number 0


@pytest.mark.parametrize("how", ["disable", "item", "interface", "end"])
def test_the_end_of_a_service_drops_its_deliveries_and_subscriptions_without_a_line(world, raw, how):
    world.serve()
    subscribe(world.lab.lan1, PATH, raw.callback)
    held, _ = raw.accept()
    mark = world.daemon.mark()
    if how == "disable":
        world.router.ask(SET, settings(False))
    elif how == "item":
        world.router.ask(REMOVE, [(OBJECT, "u32", 2)])
    elif how == "interface":
        world.router.tell_interface([*world.wan[:2], (0x10003, "u32", 0x82), *world.wan[3:]])
    else:
        assert world.stop() == 0
    told = {"disable": ["disable", "stop int: inside", "sendAdverts", "stop ext: uplink"],
            "item": ["stop ext: uplink", "sendAdverts"],
            "interface": ["rem dev: uplink", "stop ext: uplink", "sendAdverts"]}
    assert world.daemon.since(mark) == told.get(how, [*told["disable"], "exit"])
    assert held.recv(1) == b""  # closed


def test_disabling_ends_the_subscriptions_of_the_system_information(world, subscriber):
    world.serve()
    sid = begin(world, subscriber, f"{EVENTS}osinfo", osinfo(world))
    world.router.ask(SET, settings(False))
    world.router.ask(SET, settings(True))
    assert renew(world.lab.lan1, f"{EVENTS}osinfo", sid) == bare("412 Precondition Failed")


def test_an_edit_of_the_external_item_ends_its_subscriptions_but_not_those_of_the_root(world, subscriber):
    world.serve()
    sid = begin(world, subscriber)
    root = begin(world, subscriber, f"{EVENTS}osinfo", osinfo(world))
    world.router.ask(SET_OBJECT, [(OBJECT, "u32", 2)])
    assert renew(world.lab.lan1, PATH, sid) == bare("412 Precondition Failed")
    assert renew(world.lab.lan1, f"{EVENTS}osinfo", root) == granted(root)
