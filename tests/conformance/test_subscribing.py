"""Subscriptions: how they are asked for, granted, renewed, ended and refused."""
import pytest

from bus import RESOLVER, Refusal
from control_point import CONNECTION, bare
from labs import LAN1
from subscribers import Subscriber, granted, notification, read_message, renew, sid_of, subscribe, unsubscribe
from subscriptions import EVENTS, INITIAL, NOTIFY_LINES, PATH, begin, change, osinfo, settled
from traces import Trace, asked, by_daemon


def test_a_subscription_is_answered_logged_and_told_all_evented_variables(world, subscriber):
    world.serve()
    mark = world.daemon.mark()
    answer = subscribe(world.lab.lan1, PATH, subscriber.callback)
    sid = sid_of(answer)
    assert answer == granted(sid)
    subscriber.expect(sid, 0, INITIAL)
    settled(world, mark, [f"callback addr: {LAN1}, port: 5000, path: /notify", f"subscribe: {CONNECTION}", *NOTIFY_LINES])
    assert subscriber.silent()


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
