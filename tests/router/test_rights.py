"""What the users of the programs, and members of the group without rights, cannot do on the bus."""
import pytest

import bus
import labs
from labs import LAN1, ROUTER_WAN, eventually
from routerusers import DAEMON, IDS, MEMBER, OTHER, configure, connect_as, run_as

NOT_ALLOWED, DISCONNECTED = 0xFE000F, 0xFE000E
TRACE, REGISTER, SUBSCRIBE = 4, 1, 2
UNDO, RECORD = 2, 0xFE0005
SETTINGS_GET, SETTINGS_SET = 0xFE000D, 0xFE000E


@pytest.fixture
def router(bare_lab):
    """The router as it is installed: each program is started as a user of its own."""
    bare_lab.start_routerd("--config", "/tesk/etc/lab.toml")
    bare_lab.tkctl("upnp", "interface", "add", "lan0", "internal")
    bare_lab.tkctl("upnp", "interface", "add", "wan0", "external")
    bare_lab.tkctl("upnp", "set", "enabled=yes")
    bare_lab.tkctl("nat", "list")
    return bare_lab


def refusal(client, path, command, fields=()):
    with pytest.raises(bus.BusError) as refused:
        client.call(path, command, fields)
    assert refused.value.code == NOT_ALLOWED, refused.value
    return refused.value.text


def state(lab):
    """Everything that the attacks try to change."""
    return [lab.query(*words) for words in (("upnp", "get"), ("upnp", "interface", "list"), ("nat", "list"),
                                            ("history", "list"), ("interface", "list"))]


def attacks(lab):
    """What only the administrator may do, by the right that it takes."""
    lan, wan = lab.interface_id("lan0"), lab.interface_id("wan1")
    item = [(0xFE0001, bus.U32, 0xFFFFFFFF), (1, bus.U32, wan), (2, bus.U32, 1)]
    forged = [(1, bus.MESSAGES, [[]]), (2, bus.MESSAGES, [[(bus.COMMAND, bus.U32, SETTINGS_SET)]]), (3, bus.STRING, "x")]
    stored = bus.rule(8443, dynamic=False)
    return {
        "role": ([80, 0], bus.ADD, item, 'change {80,0}: it needs writes = ["80,0"]'),
        "mapping": ([80, 1], bus.REMOVE, [(bus.OBJECT, bus.U32, 1)], 'change {80,1}: it needs writes = ["80,1"]'),
        "settings": ([80], SETTINGS_SET, [(1, bus.BOOL, False)], 'change {80}: it needs writes = ["80"]'),
        "undo": ([24], UNDO, [], "undo changes: it needs undo = true"),
        "record": ([24], RECORD, forged, 'change {24}: it needs writes = ["24"]'),
        "trace": ([0], TRACE, [], "trace: it needs trace = true"),
        "rule": ([20, 5], bus.ADD, stored, 'change {20,5}: it needs writes = ["20,5"]'),
        "removal": ([20, 5], bus.REMOVE, [(bus.OBJECT, bus.U32, 1)], 'change {20,5}: it needs writes = ["20,5"]'),
        "down": ([20, 0], bus.SET_OBJECT, [(bus.OBJECT, bus.U32, lan), (bus.DISABLED, bus.BOOL, True)],
                 'change {20,0}: it needs writes = ["20,0"]'),
        "daemon": ([0], REGISTER, [(1, bus.U32, 80)], "register program 80: it needs programs = [80]"),
        "resolver": ([0], REGISTER, [(1, bus.U32, 14)], "register program 14: it needs programs = [14]"),
    }


LOOKS = {"interfaces": ([20, 0], bus.GET_ALL), "addresses": ([20, 1], bus.GET_ALL), "rules": ([20, 5], bus.GET_ALL),
         "history": ([24], bus.GET_ALL), "identity": ([65], SETTINGS_GET), "settings": ([80], SETTINGS_GET),
         "items": ([80, 0], bus.GET_ALL), "mappings": ([80, 1], bus.GET_ALL), "refused mappings": ([80, 1], 2)}


def expect_refused(lab, user, names):
    before = state(lab)
    client, = connect_as(lab, user, 1)
    for name in names:
        path, command, fields, right = attacks(lab)[name]
        assert refusal(client, path, command, fields) == f"user {IDS[user]} may not {right}", name
    assert state(lab) == before


def test_the_resolver_may_only_resolve(router):
    router.tkctl("bus", "call", "14", "3", "3:string=localhost")
    expect_refused(router, OTHER, [name for name in attacks(router) if name != "resolver"])
    client, = connect_as(router, OTHER, 1)
    for name, (path, command) in LOOKS.items():
        assert "may not look at" in refusal(client, path, command), name
        assert "may not look at" in refusal(client, [0], SUBSCRIBE, [(1, bus.U32S, path), (2, bus.U32, bus.CHANGED)]), name


def test_the_daemon_may_do_what_its_row_says_and_no_more(router):
    expect_refused(router, DAEMON, ["role", "mapping", "settings", "undo", "trace", "resolver"])
    client, = connect_as(router, DAEMON, 1)
    for name in ("history", "settings", "items", "mappings", "refused mappings"):
        assert "may not look at" in refusal(client, *LOOKS[name]), name
    for name in ("interfaces", "addresses", "rules", "identity"):
        client.call(*LOOKS[name])
    rule = client.add_rule(8080, LAN1, 8080, bus.TCP, ROUTER_WAN)
    client.call([20, 5], bus.REMOVE, [(bus.OBJECT, bus.U32, rule)])
    client.subscribe([20, 0], bus.CHANGED)
    client.call([14], 3, [(3, bus.STRING, "localhost")])


def test_a_member_of_the_group_looks_and_changes_nothing(router):
    expect_refused(router, MEMBER, attacks(router))
    client, = connect_as(router, MEMBER, 1)
    for path, command in LOOKS.values():
        client.call(path, command)
        client.subscribe(path, bus.CHANGED)
    assert "may not look at" in refusal(client, [14], 3, [(3, bus.STRING, "localhost")])
    for words in (("upnp", "get"), ("upnp", "mappings"), ("interface", "list"), ("history", "list"),
                  ("nat", "test", ROUTER_WAN, "80", "tcp", LAN1, "8080")):
        assert run_as(router, MEMBER, labs.BIN / "tkctl", *words).returncode == 0, words
    undone = run_as(router, MEMBER, labs.BIN / "tkctl", "history", "undo")
    assert (undone.returncode, undone.stderr) == \
        (1, f"tkctl: user {IDS[MEMBER]} may not undo changes: it needs undo = true\n")


def test_a_client_cannot_speak_in_the_name_of_a_program(router):
    listener = bus.Client(router)
    listener.subscribe([80, 0], bus.CHANGED)
    for user in (DAEMON, MEMBER):
        forger, = connect_as(router, user, 1)
        forger.send([(bus.SENDER, bus.U32S, [80, 0]), (bus.KIND, bus.U32, bus.NOTIFICATION),
                     (bus.COMMAND, bus.U32, bus.CHANGED), (77, bus.STRING, "forged")])
        forger.call([20, 0], bus.GET_COUNT)  # is served after it
    router.tkctl("upnp", "set", "show-dummy-rule=no")
    assert 77 not in listener.next_notification()
    assert listener.notifications == []


def test_refusals_are_counted(router):
    mark = router.routerd.mark()
    client, = connect_as(router, MEMBER, 1)
    for _ in range(50):
        refusal(client, [80], SETTINGS_SET)
    for _ in range(20):
        broken, = connect_as(router, MEMBER, 1)
        broken.socket.sendall(b"\x05\0\0\0\x01\0\0\0\x63")
        with pytest.raises(EOFError):
            broken.read()
    assert router.routerd.stop() == 0
    told = [line for line in router.routerd.since(mark) if line.startswith("bus: ") and not line.startswith("bus: 80 ")]
    member = IDS[MEMBER]
    missing = 'it may not change {80}: it needs writes = ["80"]'
    assert len(told) == 4
    assert f"bus: message of user {member} refused: {missing}" in told
    assert f"bus: 49 more messages refused, the last of user {member}: {missing}" in told
    assert f"bus: 19 more connections dropped, the last of user {member}: it sent a malformed frame" in told


def recording(lab, inverse=SETTINGS_SET):
    """A program 80 of the test, which has recorded a change."""
    program, = connect_as(lab, DAEMON, 1)
    program.register(80)
    program.call([24], RECORD, [(1, bus.MESSAGES, [[]]), (2, bus.MESSAGES, [[(bus.COMMAND, bus.U32, inverse)]]),
                                (3, bus.STRING, "a change")])
    return program


@pytest.fixture
def bare_router(bare_lab):
    bare_lab.start_routerd(*configure(bare_lab, f'[[user]]\nname = "{DAEMON}"\nprograms = [80]\n'))
    return bare_lab


def end_of(program, request, to):
    program.send([(bus.DESTINATION, bus.U32S, to), (bus.NUMBER, bus.U32, request[bus.NUMBER]),
                  (bus.KIND, bus.U32, bus.REPLY), (bus.COMMAND, bus.U32, request[bus.COMMAND])])


def test_an_undoing_ends_although_its_answer_goes_to_somebody_else(bare_router):
    root = bus.Client(bare_router)
    program = recording(bare_router)
    undoing = root.request([24], UNDO)
    end_of(program, program.read(), [20, 5])
    program.call([20, 0], bus.GET_COUNT)  # is served after it
    program.socket.close()
    end = root.end(undoing)
    assert (end[bus.KIND], end[bus.CODE]) == (bus.ERROR, DISCONNECTED)
    program = recording(bare_router)
    undoing = root.request([24], UNDO)
    request = program.read()
    end_of(program, request, [20, 5])
    end_of(program, request, request[bus.SENDER])
    assert root.end(undoing)[3] == "a change"
    eventually(lambda: len(bare_router.query("history", "list")) == 1, "the first one is left")
