"""The bus under attack: users and their rights, forged senders, broken frames, and peers that do not read."""
import contextlib
import itertools
import select
import struct
import sys
import time

import pytest

import bus
import labs
from attacks import installed
from bystanders import longest_but_one, watched
from routerusers import DAEMON, GRANTED, GRANTS, IDS, MEMBER, OTHER, ROUTER, admit, connect_as, run_as

REGISTER, SUBSCRIBE, UNSUBSCRIBE, TRACE, UNREGISTER, PROGRAMS, RELOAD = 1, 2, 3, 4, 6, 7, 8
POLICIES = 0xFE0001
INVALID, TAKEN, NOT_ALLOWED = 0xFE0006, 0xFE0009, 0xFE000F
TEXT = 77  # the field of our own texts
GROWTH = 32 << 20  # bytes that routerd may keep: what one user has made it hold, and what the allocator loses
MEMBERS_FRAME = 1 << 20  # bytes of the largest
NESTING, FIELDS = 16, 1024


@pytest.fixture(scope="module")
def shared_lab(tmp_path_factory):
    with installed.serving(tmp_path_factory.mktemp("lab"), admit, GRANTED) as lab:
        yield lab


def client_of(lab, user):
    client, = connect_as(lab, user, 1)
    return client


def outcome(client, path, command, fields=()):
    """The code and the text of the error that a request ends with; nothing for a reply."""
    end = client.end(client.request(path, command, fields))
    return (end[bus.CODE], end[bus.TEXT]) if end[bus.KIND] == bus.ERROR else None


# Who may do what, as docs/bus.md has it.

USERS = DAEMON, OTHER, MEMBER, ROUTER, *GRANTS  # routerd's is none of a program, and so like any member
LOOKS = {POLICIES, bus.GET_OBJECT, bus.GET_ALL, bus.GET, bus.GET_COUNT}
LOOKS_OF_HANDLERS = {((20, 0), 1), ((20, 0), 2), ((20, 5), 2), ((80, 1), 2), ((14, 0), 3)}
MAY_LOOK_AT = {**dict.fromkeys(USERS, {20, 24, 65, 80}), DAEMON: {20, 65, 14}, OTHER: set()}
MAY_CHANGE = {DAEMON: {((20, 5), bus.ADD), ((20, 5), bus.SET_OBJECT), ((20, 5), bus.REMOVE), ((20, 0), bus.SET_OBJECT)}}
MAY_WRITE = {"mapper": {(20, 5)}, "manager": {(80, 0), (80, 1), (80, 7)}, "recorder": {(24, 0), (24, 1)}}
MAY_BE = {DAEMON: 80, OTHER: 14, "speaker": 81}
UNDO = 2  # of {24}
CHANGES_WITHOUT_FIELDS = {((24, 0), UNDO), ((24, 1), UNDO), ((80, 0), bus.ADD), ((80, 0), bus.SET)}

PATHS = [(14,), (20,), (20, 0), (20, 1), (20, 5), (20, 9), (24,), (24, 1), (65,), (65, 1), (80,), (80, 0), (80, 1), (80, 7),
         (81,), (999,), (1000,), (0xFFFFFFFF,), (20, 5, 5)]
COMMANDS = [*range(10), *range(0xFE0000, 0xFE0014), 0x10004, 0xFFFFFFFF]


def handler_of(path):
    return (*path, 0)[:2]


def is_look(path, command):
    return command in LOOKS or (handler_of(path), command) in LOOKS_OF_HANDLERS


def granted(user, path, command):
    if path[0] == 24 and command == UNDO:
        return user in ("undoer", "admin")
    return user == "admin" or handler_of(path) in MAY_WRITE.get(user, ()) or \
        (path[0] in MAY_LOOK_AT[user] and is_look(path, command)) or \
        (handler_of(path), command) in MAY_CHANGE.get(user, ())


def denial(user, path, command):
    """What a user hears that may not do this."""
    place = ",".join(map(str, path[:2]))
    if path[0] == 24 and command == UNDO:
        missing = "undo changes: it needs undo = true"
    elif user == DAEMON and path[0] == 24 and command == bus.ADD:
        missing = "record changes: it is no program"
    else:
        missing = f'{"look at" if is_look(path, command) else "change"} {{{place}}}: it needs writes = ["{place}"]'
    return NOT_ALLOWED, f"user {IDS[user]} may not {missing}"


def state(lab):
    """Everything that the attackers would like to change."""
    return [lab.query(*words) for words in (("upnp", "get"), ("upnp", "interface", "list"), ("nat", "list"),
                                            ("history", "list"), ("interface", "list"))] + [lab.table()]


@watched
def test_each_user_is_refused_all_that_its_row_does_not_grant(lab, bystander):
    before, wrong = state(lab), []
    for user in USERS:
        with client_of(lab, user) as client:
            for path, command in itertools.product(PATHS, COMMANDS):
                if (handler_of(path), command) in CHANGES_WITHOUT_FIELDS and granted(user, path, command):
                    continue  # the lab stays as it was set up
                heard = outcome(client, path, command)
                is_denied = bool(heard) and heard[1].startswith(f"user {IDS[user]} may not ")
                if granted(user, path, command) == is_denied or (is_denied and heard != denial(user, path, command)):
                    wrong.append((user, path, command, heard))
    assert wrong == []
    assert state(lab) == before


def subscription(path):
    return [(1, bus.U32S, list(path)), (2, bus.U32, bus.CHANGED)]


@watched
def test_each_user_may_ask_the_hub_itself_only_what_its_row_grants(lab, bystander):
    for user in USERS:
        with client_of(lab, user) as client:
            name = f"user {IDS[user]} may not "
            for number in (0, 1, 14, 20, 24, 65, 80, 81, 999, 1000, 0xFFFFFFFF):
                if user == "admin" or number == MAY_BE.get(user):
                    continue
                assert outcome(client, [0], REGISTER, [(1, bus.U32, number)]) == (
                    NOT_ALLOWED, f"{name}register program {number}: it needs programs = [{number}]"), (user, number)
            denied = NOT_ALLOWED, f"{name}reload the configuration: it needs admin = true"
            assert (outcome(client, [0], RELOAD) == denied) == (user != "admin")
            listed = outcome(client, [0], PROGRAMS)
            assert (listed is None) == (20 in MAY_LOOK_AT[user]), (user, listed)
            for path in ((14,), (20, 0), (20, 5), (24,), (65,), (80, 0), (80, 1), (81,), (1000,)):
                heard = outcome(client, [0], SUBSCRIBE, subscription(path))
                assert heard == (None if granted(user, path, bus.GET) else denial(user, path, bus.GET)), (user, path)
                assert outcome(client, [0], UNSUBSCRIBE, subscription(path)) is None
            assert outcome(client, [0], UNREGISTER, [(1, bus.U32, 80)]) == (
                INVALID, "this connection is not registered as program 80")
            assert outcome(client, [0], TRACE) == (
                None if user in ("tracer", "admin") else (NOT_ALLOWED, f"{name}trace: it needs trace = true"))


@watched
def test_a_number_that_is_taken_stays_with_its_holder(lab, bystander):
    """Neither its own user nor root gets it, nor the numbers of routerd's services, nor those that are no programs'."""
    before = state(lab)
    holder = f"program 80 is running already, as process {lab.upnpd.process.pid}: end that one first"
    with client_of(lab, DAEMON) as twin, bus.Client(lab) as root:
        for client in (twin, root):
            assert outcome(client, [0], REGISTER, [(1, bus.U32, 80)]) == (TAKEN, holder)
        for number in (20, 24, 65):
            assert outcome(root, [0], REGISTER, [(1, bus.U32, number)]) == (TAKEN, f"program {number} is running already")
        for number in (0, 1000, 0xFFFFFFFF):
            assert outcome(root, [0], REGISTER, [(1, bus.U32, number)]) == (
                INVALID, "a program number lies between 1 and 999")
        root.register(81)
        assert outcome(root, [0], REGISTER, [(1, bus.U32, 82)]) == (TAKEN, "this connection is registered as program 81")
    assert state(lab) == before


@watched
def test_a_forged_sender_gives_no_rights_and_leads_no_answer_astray(lab, bystander):
    before = state(lab)
    with client_of(lab, MEMBER) as forger, bus.Client(lab) as root:
        root.call([20, 5], bus.GET_COUNT)
        for sender in ([0], [14], [20], [20, 5], [24], [80], [80, 0], [81], [1000], [0xFFFFFFFF], list(range(256)), []):
            forged = [(bus.SENDER, bus.U32S, sender)]
            assert outcome(forger, [80], bus.SET, [(1, bus.BOOL, False), *forged]) == denial(MEMBER, (80,), bus.SET)
            assert outcome(forger, [0], REGISTER, [(1, bus.U32, 80), *forged]) == (
                NOT_ALLOWED, f"user {IDS[MEMBER]} may not register program 80: it needs programs = [80]")
            assert forger.end(forger.request([20, 5], bus.GET_COUNT, forged))[bus.COUNT] == 0
        following = root.request([20, 5], bus.GET_COUNT)
        assert root.read()[bus.NUMBER] == following, "nothing else has come"
    assert state(lab) == before


def end_of(request, kind, text, sender=None):
    """An end of the request as its callee received it, from whom the sender says."""
    return [(TEXT, bus.STRING, text), (bus.DESTINATION, bus.U32S, request[bus.SENDER]),
            (bus.SENDER, bus.U32S, sender or request[bus.DESTINATION]), (bus.NUMBER, bus.U32, request[bus.NUMBER]),
            (bus.KIND, bus.U32, kind), (bus.COMMAND, bus.U32, request[bus.COMMAND]),
            *([(bus.CODE, bus.U32, 1), (bus.TEXT, bus.STRING, text)] if kind == bus.ERROR else [])]


@watched
def test_only_the_program_that_was_asked_can_answer(lab, bystander):
    """Everybody else answers first, in its name, while the request is with it."""
    with bus.Client(lab) as program, bus.Client(lab) as asking, bus.Client(lab) as other_program, \
            contextlib.ExitStack() as forgers:
        program.register(81)
        other_program.register(82)
        asked = asking.request([81, 5], 7)
        request = program.read()
        others = [forgers.enter_context(client_of(lab, user)) for user in (DAEMON, OTHER, MEMBER)]
        for forger in (*others, other_program, forgers.enter_context(bus.Client(lab)), asking):
            for kind, sender in itertools.product((bus.REPLY, bus.ERROR), ([81, 5], [81], None, [82])):
                forger.send(end_of(request, kind, "forged", sender))
            forger.end(forger.request([0], UNREGISTER, [(1, bus.U32, 999)]))  # is served after them
        program.send(end_of(request, bus.REPLY, "true"))
        program.send(end_of(request, bus.REPLY, "once more"))
        program.end(program.request([20, 5], bus.GET_COUNT))
        end = asking.end(asked)
        assert (end[bus.KIND], end[TEXT], end[bus.SENDER]) == (bus.REPLY, "true", [81, 5])
        following = asking.request([20, 5], bus.GET_COUNT)
        assert asking.read()[bus.NUMBER] == following, "no second end"


@watched
def test_nobody_hears_a_notification_that_a_client_forges(lab, bystander):
    with bus.Client(lab) as listener, contextlib.ExitStack() as forgers:
        for path in ([20, 0], [20, 1], [20, 5], [80, 0]):
            listener.subscribe(path, bus.CHANGED)
        for user in (DAEMON, OTHER, MEMBER):
            forger = forgers.enter_context(client_of(lab, user))
            for path in ([20, 0], [20, 1], [20, 5], [80, 0]):
                forger.send([(bus.SENDER, bus.U32S, path), (bus.KIND, bus.U32, bus.NOTIFICATION),
                             (bus.COMMAND, bus.U32, bus.CHANGED), (bus.OBJECTS, bus.MESSAGES, [])])
            forger.end(forger.request([0], UNREGISTER, [(1, bus.U32, 999)]))
        listener.call([20, 5], bus.GET_COUNT)
        assert listener.notifications == []


def framed(data):
    return struct.pack("<I", len(data)) + data


def u32_count(kind, count, rest=b""):
    """A field whose count does not fit what follows."""
    return framed(struct.pack("<IBI", TEXT, bus.TYPES.index(kind) + 1, count) + rest)


def nested(depth):
    message = [(TEXT, bus.U32, 1)]
    for _ in range(depth):
        message = [(TEXT, bus.MESSAGES, [message])]
    return message


def asking_for_the_count(fields):
    """A whole request of these fields, which is answered."""
    return framed(bus.flat([(bus.DESTINATION, bus.U32S, [20, 5]), (bus.NUMBER, bus.U32, 1), (bus.KIND, bus.U32, bus.REQUEST),
                            (bus.COMMAND, bus.U32, bus.GET_COUNT), *fields]))


ROUTING_BYTES = len(asking_for_the_count([])) + 5  # all but a text's own bytes, with the length of the frame
ROUTING_FIELDS = 4
BROKEN = {
    "one byte more than a member may": struct.pack("<I", MEMBERS_FRAME + 1),
    "the longest length": struct.pack("<I", 0xFFFFFFFF),
    "a field cut off": framed(b"\1\0\0\0\1\1\1"),
    "an id without a type": framed(b"\1\0\0\0"),
    "type 0": framed(b"\1\0\0\0\0\1\1\1\1"),
    "type 8": framed(b"\1\0\0\0\x08\1\1\1\1"),
    "type 255": framed(b"\1\0\0\0\xff\1\1\1\1"),
    "a bool of 2": framed(b"\1\0\0\0\2\2"),
    "a string of 4 GiB": u32_count(bus.STRING, 0xFFFFFFFF, b"x" * 100),
    "4 G numbers": u32_count(bus.U32S, 0xFFFFFFFF, b"x" * 100),
    "1 G numbers": u32_count(bus.U32S, 0x40000001, b"\1\0\0\0"),
    "4 G messages": u32_count(bus.MESSAGES, 0xFFFFFFFF, b"\0" * 100),
    "a message longer than its array": u32_count(bus.MESSAGES, 1, struct.pack("<I", 100)),
    "17 levels": asking_for_the_count(nested(NESTING + 1)),
    "20000 levels": framed(b"".join(struct.pack("<IBII", TEXT, 7, 1, 13 * level) for level in reversed(range(20000)))),
    "one field too many": asking_for_the_count([(identifier, bus.U32, 1) for identifier in range(FIELDS)]),
    "an id twice": framed(bus.flat([(TEXT, bus.U32, 1), (TEXT, bus.U32, 1)])),
    "an id twice, deep inside": framed(bus.flat([(1, bus.MESSAGES, [[(TEXT, bus.U32, 1), (TEXT, bus.BOOL, True)]])])),
}


VALID = framed(bus.flat([(bus.DESTINATION, bus.U32S, [20, 5]), *bus.rule(8443), (bus.NUMBER, bus.U32, 1),
                         (bus.KIND, bus.U32, bus.REQUEST), (bus.COMMAND, bus.U32, bus.ADD)]))


@watched
def test_a_broken_frame_ends_its_connection_alone_and_nothing_behind_it_is_done(lab, bystander):
    with client_of(lab, DAEMON) as other:
        for name, frame in BROKEN.items():
            with client_of(lab, DAEMON) as attacker:
                with contextlib.suppress(BrokenPipeError, ConnectionResetError):
                    attacker.socket.sendall(frame + VALID)
                with pytest.raises((EOFError, ConnectionResetError)):
                    pytest.fail(f"{name} is answered: {attacker.read()}")
                assert other.count_rules() == 0, name
        other.socket.sendall(VALID)
        assert other.end(1)[bus.KIND] == bus.REPLY
        assert other.count_rules() == 1, "the rest is what it should be"


@watched
def test_the_largest_frames_of_a_member_are_served(lab, bystander):
    """Those of one byte, one level or one field more are among the broken ones."""
    text = [(TEXT, bus.STRING, "x" * (MEMBERS_FRAME - ROUTING_BYTES))]
    assert len(asking_for_the_count(text)) == 4 + MEMBERS_FRAME
    fields = [(identifier, bus.U32, 1) for identifier in range(FIELDS - ROUTING_FIELDS - 1)]  # one more is stamped
    with client_of(lab, MEMBER) as client:
        for content in (text, nested(NESTING), fields):
            client.socket.sendall(asking_for_the_count(content))
            assert client.end(1)[bus.COUNT] == 0


FLOOD_SECONDS = 0.5  # at least, and until there were as many frames or connections as make a flood
FRAMES, CONNECTIONS = 10, 100
LONGEST = 2 * labs.SLOWNESS  # seconds that the administrator may wait on a busy machine, where 32 peers each take their turns


def flood(clients, data):
    """Sends the bytes again and again on all connections, as fast as the router takes them; reads nothing. Returns how
    often they went out."""
    left = {client.socket: data for client in clients}
    count, began = 0, time.monotonic()
    for client in clients:
        client.socket.setblocking(False)
    while (elapsed := time.monotonic() - began) < FLOOD_SECONDS or count < FRAMES:
        assert elapsed < labs.PATIENCE, f"only {count} frames were taken"
        _, writable, _ = select.select([], list(left), [], 0.1)
        for each in writable:
            try:
                left[each] = left[each][each.send(left[each]):]
            except OSError:  # the router has closed it
                del left[each]
                continue
            if not left[each]:
                left[each], count = data, count + 1
    return count


def request(path, command, fields=(), number=1):
    return framed(bus.flat([(bus.DESTINATION, bus.U32S, path), *fields, (bus.NUMBER, bus.U32, number),
                            (bus.KIND, bus.U32, bus.REQUEST), (bus.COMMAND, bus.U32, command)]))


FLOODS = {
    "looks at the router": request([20, 0], bus.GET_ALL),
    "looks at the daemon": request([80], bus.GET),
    "looks at the mappings": request([80, 1], bus.GET_ALL),
    "what is refused": request([80], bus.SET, [(1, bus.BOOL, False)]),
    "subscriptions": request([0], SUBSCRIBE, subscription([20, 0])),
    "the largest frames": request([20, 0], bus.GET_COUNT, [(TEXT, bus.STRING, "x" * 1000000)]),
    "deep ones": request([20, 0], bus.GET_COUNT, nested(NESTING)),
    "notifications": framed(bus.flat([(bus.SENDER, bus.U32S, [80, 0]), (bus.KIND, bus.U32, bus.NOTIFICATION),
                                      (bus.COMMAND, bus.U32, bus.CHANGED)])),
}


@pytest.mark.parametrize("data", FLOODS.values(), ids=FLOODS)
@watched
def test_a_flood_of_peers_that_read_nothing_keeps_nobody_waiting(lab, bystander, data):
    clients = connect_as(lab, MEMBER, 32)
    with bus.asking(lab, pause=0.005) as times:
        count = flood(clients, data)
    for client in clients:
        client.socket.close()
    print(f"{count} frames; the administrator's longest answer {max(times) * 1000:.1f} ms of {len(times)}")
    assert longest_but_one(times) < LONGEST


COMING_AND_GOING = f"""
import socket, time
count, end = 0, time.monotonic() + {FLOOD_SECONDS}
while time.monotonic() < end or count < {CONNECTIONS}:
    with socket.socket(socket.AF_UNIX) as made:
        made.connect("/run/tk/bus")
    count += 1
print(count)
"""


@watched
def test_a_flood_of_connections_keeps_nobody_out(lab, bystander):
    """Neither from the bus, where the administrator comes again and again, nor from the gateway."""
    times = []

    def come():
        began = time.monotonic()
        with bus.Client(lab, seconds=None) as client:  # waits for its place as tkctl does
            client.count_rules()
        times.append(time.monotonic() - began)
        time.sleep(0.005)
    with labs.meanwhile(come):
        count = int(run_as(lab, MEMBER, sys.executable, "-I", "-c", COMING_AND_GOING, check=True).stdout)
    print(f"{count} connections; the administrator's longest visit {max(times) * 1000:.1f} ms of {len(times)}")
    assert longest_but_one(times) < LONGEST
