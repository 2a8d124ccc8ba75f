"""router.toml is read again while the router serves: each section takes effect, and what runs goes on."""
import contextlib
import os
import signal

import pytest

import bus
import labs
from control_point import call, mapping, result
from labs import LAN1, ROUTER_WAN, WAN, eventually
from routerusers import DAEMON, IDS, MEMBER, OTHER, connect_as, connection_path, processes, run_as

FILE = "/tesk/etc/router.toml"
TRACE, REGISTER, PROGRAMS, RELOAD = 4, 1, 7, 8
NOT_ALLOWED, REFUSED, FAILED = 0xFE000F, 0xFE0003, 0xFE0008

ROUTER = '[router]\nuser = "routerd"\n'
LAN = '[lan]\ninterfaces = ["lan0"]\n'
DAEMON_PROGRAM = f'[[program]]\nnumber = 80\ncommand = ["/tesk/bin/upnpd"]\nuser = "{DAEMON}"\nstart = true\n'
BASE = ROUTER + LAN + DAEMON_PROGRAM


class Talk:
    """A connection from the WAN through a mapping, which has to live as long as the router does."""

    def __init__(self, lab):
        self.server = lab.lan1.listen(8080)
        self.near = lab.wan.connect(ROUTER_WAN, 80)
        self.far, _ = self.server.accept()

    def goes_on(self):
        for one, other in ((self.near, self.far), (self.far, self.near)):
            one.sendall(b"x")
            other.settimeout(labs.PATIENCE)
            assert other.recv(1) == b"x"
        return True


def write(lab, text, mode=0o644):
    path = lab.root / FILE[1:]
    path.write_text(text)
    path.chmod(mode)


def reload(lab, text=None, *words):
    """Reads a text that must be good, and returns what the command says."""
    if text is not None:
        write(lab, text)
    return lab.tkctl("reload", *words).stdout


@pytest.fixture(scope="module")
def serving(tmp_path_factory):
    lab = labs.Lab(tmp_path_factory.mktemp("lab"))
    try:
        write(lab, BASE)
        lab.start_routerd()
        lab.tkctl("upnp", "interface", "add", "lan0", "internal")
        lab.tkctl("upnp", "interface", "add", "wan0", "external")
        lab.tkctl("upnp", "set", "enabled=yes")
        lab.control = connection_path(lab)
        assert call(lab.lan1, lab.control, "AddPortMapping", mapping()) == result("AddPortMapping")
        lab.talk = Talk(lab)
        yield lab
    finally:
        lab.down()


def rules(lab):
    """The rules, without the traffic that used them."""
    return [{key: value for key, value in rule.items() if key not in ("packets", "bytes")} for rule in lab.rules()]


@pytest.fixture
def router(serving):
    """A router that serves a mapping, over which a connection goes before and after each test."""
    assert serving.talk.goes_on()
    before = rules(serving), processes(serving, "upnpd"), processes(serving, "routerd")
    yield serving
    reload(serving, BASE)
    assert (rules(serving), processes(serving, "upnpd"), processes(serving, "routerd")) == before
    assert serving.talk.goes_on()
    assert serving.tkctl("reload").stdout == "nothing has changed\n"


def refusal(lab):
    """What the command says when it must fail: one line."""
    refused = lab.tkctl("reload", check=False)
    assert refused.returncode == 1 and refused.stdout == ""
    beginning = "tkctl: nothing has changed: "
    assert refused.stderr.startswith(beginning) and refused.stderr.count("\n") == 1, refused.stderr
    return refused.stderr[len(beginning):-1]


def nat_test(lab, port=81, target=LAN1):
    return lab.tkctl("nat", "test", ROUTER_WAN, port, "tcp", target, 80, check=False).stderr[len("tkctl: "):-1]


def side(lab, name):
    reply = lab.query("bus", "call", "20,0", "2", f"1:u32={lab.interface_id(name)}")
    return next(field["value"] for field in reply["fields"] if field["id"] == "0x1")


def chain(lab, name):
    return lab.router.run("nft", "-n", "list", "chain", "ip", "tk", name, check=False).stdout


def test_a_file_that_says_the_same_changes_nothing(router):
    mark, table = router.routerd.mark(), router.table()
    assert reload(router, BASE + "# a word\n[nat]\nlimit = 0\n") == "nothing has changed\n"
    assert router.tkctl("reload", "--json").stdout == '{"changed":[]}\n'
    assert router.routerd.since(mark) == [f"routerd: read {FILE} again: nothing has changed (asked by user 0)"] * 2
    assert router.table() == table


def test_what_may_be_mapped_changes(router):
    mark = router.routerd.mark()
    nat = '[nat]\nlimit = 1\nexternal-ports = [80, 82]\nrouter-ports = [82]\n'
    assert reload(router, BASE + nat) == "changed: nat\n"
    assert router.routerd.since(mark) == [f"routerd: read {FILE} again: changed: nat (asked by user 0)"]
    assert nat_test(router) == "there are 1 rules already, as many as configured"
    reload(router, BASE + nat.replace("limit = 1", "limit = 2"))
    assert nat_test(router) == "external port 81 refused: it is not among those configured"
    assert nat_test(router, 82) == "external port 82 refused: it is one of the router's own"
    assert reload(router, BASE, "--json") == '{"changed":["nat"]}\n'
    assert nat_test(router, 82) == nat_test(router) == ""


def test_the_check_of_targets_changes(router):
    assert "outside" in nat_test(router, target=WAN)
    reload(router, BASE + "[nat]\ncheck-targets = false\n")
    assert nat_test(router, target=WAN) == ""
    assert "goto ended" not in chain(router, "missed")
    reload(router, BASE)
    assert "outside" in nat_test(router, target=WAN)
    assert "goto ended" in chain(router, "missed")


def test_inside_changes(router):
    assert side(router, "wan1") == 2
    assert "in no network" in nat_test(router, target="10.1.2.3")
    assert reload(router, ROUTER + '[lan]\ninterfaces = ["lan0", "wan1"]\nnetworks = ["10.0.0.0/8"]\n'
                  + DAEMON_PROGRAM) == "changed: lan\n"
    assert side(router, "wan1") == 1
    assert nat_test(router, target="10.1.2.3") == ""
    assert "10.0.0.0/8" in router.router.run("nft", "list", "set", "ip", "tk", "inside").stdout


def test_routes_say_what_is_inside_where_the_file_does_not_any_more(router):
    assert reload(router, ROUTER + DAEMON_PROGRAM) == "changed: lan\n"
    assert [side(router, name) for name in ("lan0", "wan0", "wan1")] == [1, 2, 1]
    router.router.run("ip", "route", "add", "9.9.9.0/24", "dev", "wan1")
    eventually(lambda: side(router, "wan1") == 2, "a route that comes later counts")
    router.router.run("ip", "route", "del", "9.9.9.0/24", "dev", "wan1")


def test_interfaces_may_go_down(router):
    def set_down():
        daemon, = connect_as(router, DAEMON, 1)
        with daemon:
            daemon.call([20, 0], bus.SET_OBJECT, [(bus.OBJECT, bus.U32, router.interface_id("wan1")),
                                                 (bus.DISABLED, bus.BOOL, True)])
    with pytest.raises(bus.BusError, match="no .* with terminate allows it"):
        set_down()
    mark = router.routerd.mark()
    script = router.directory / "down"
    script.write_text('#!/bin/sh\nid -u >"$1"\n')
    script.chmod(0o755)
    note = router.directory / "note"
    assert reload(router, BASE + f'[[interface]]\nname = "other"\ndown = ["/bin/false"]\n[[interface]]\nname = "wan1"\n'
                                 f'terminate = true\ndown = ["{script}", "{note}"]\n') == "changed: interface\n"
    set_down()
    assert note.read_text() == "0\n", "the small process that stays root knows the new command"
    assert f"interface wan1: {script} ended with status 0" in router.routerd.since(mark)
    reload(router, BASE)
    with pytest.raises(bus.BusError, match="no .* with terminate allows it"):
        set_down()


def test_the_guard_changes_in_place(router):
    def handle():
        return router.router.run("nft", "-a", "list", "table", "ip", "tk").stdout.splitlines()[0]

    def guarded():
        return str(IDS[DAEMON]) in router.router.run("nft", "-n", "list", "set", "ip", "tk", "guarded", check=False).stdout
    before = handle()
    assert reload(router, BASE + "[guard]\nconnections = 50\nsearches-per-second = 0\n") == "changed: guard\n"
    assert "ct count over 50" in chain(router, "input") and "@searches" not in chain(router, "input")
    assert guarded() and "@guarded" in chain(router, "output")
    reload(router, BASE + "[guard]\nlimit-connections = false\n")
    assert chain(router, "output") == "" and not guarded()
    reload(router, BASE)
    assert guarded() and "@guarded" in chain(router, "output") and "@searches" in chain(router, "input")
    assert handle() == before, "it is the same table"


def test_rights_change_for_connections_that_are_open(router):
    client, = connect_as(router, MEMBER, 1)
    with client:
        for _ in range(2):
            with pytest.raises(bus.BusError, match="it needs trace = true"):
                client.call([0], TRACE)
            assert reload(router, BASE + f'[[user]]\nname = "{OTHER}"\nwrites = ["20,5"]\n') == "changed: user\n"
            other, = connect_as(router, OTHER, 1)
            with other:
                other.add_rule(81)
                reload(router, BASE)
                with pytest.raises(bus.BusError, match="it needs writes"):
                    other.add_rule(82)


def test_a_tracer_sees_nothing_more(router):
    reload(router, BASE + f'[[user]]\nname = "{OTHER}"\ntrace = true\n')
    tracer, = connect_as(router, OTHER, 1)
    with tracer:
        tracer.call([0], TRACE)
        reload(router, BASE)
        router.tkctl("nat", "list")
        tracer.request([0], PROGRAMS)
        shown = []
        while (message := tracer.read())[bus.KIND] == bus.NOTIFICATION:
            shown.append(message[1][0][bus.COMMAND])
        assert bus.GET_ALL not in shown and RELOAD in shown


def test_programs_come_and_go(router):
    others = set(processes(router, "sleep"))
    notes = [router.root / "tesk" / name for name in ("first", "second")]
    for note in notes:
        note.touch()
        note.chmod(0o666)

    def program(number, note, more=""):
        shell = f"id -u >/tesk/{note.name}; exec sleep 60"
        return f'[[program]]\nnumber = {number}\ncommand = ["/bin/sh", "-c", "{shell}"]\n{more}'

    def sleepers():
        return set(processes(router, "sleep")) - others
    mark = router.routerd.mark()
    assert reload(router, BASE + program(81, notes[0], f'user = "{OTHER}"\n')
                  + program(82, notes[1], "start = true\n")) == "changed: program\n"
    eventually(lambda: notes[1].read_text() == "64001\n", "a program that runs with the router is started, as its user")
    assert notes[0].read_text() == ""
    with bus.Client(router) as client:
        asked = client.request([81], bus.GET)
        eventually(lambda: notes[0].read_text() == "64003\n", "the message starts the other one")
        eventually(lambda: len(sleepers()) == 2, "both shells have become what they run")
        started = sleepers()
        reload(router, BASE)
        assert sleepers() == started, "what runs goes on"
        assert client.call([0], PROGRAMS)[bus.OBJECTS][0][1] == 20
        with pytest.raises(bus.BusError, match="nobody at this destination"):
            client.call([83], bus.GET)
        for pid in started:
            os.killpg(pid, signal.SIGTERM)
        assert client.end(asked)[bus.TEXT] == "the program ended by signal 15 before it came to the bus"
        with pytest.raises(bus.BusError, match="nobody at this destination"):
            client.call([81], bus.GET)
    router.routerd.wait_for("program 82 ended by signal 15", mark)


def test_a_program_that_is_named_no_more_goes_on_and_is_guarded(router):
    assert reload(router, ROUTER + LAN) == "changed: program\n"
    assert router.query("upnp", "get")["enabled"]
    assert call(router.lan1, router.control, "AddPortMapping", mapping(81)) == result("AddPortMapping")
    assert call(router.lan1, router.control, "DeletePortMapping", mapping(81)[:3]) == result("DeletePortMapping")
    assert str(IDS[DAEMON]) in router.router.run("nft", "-n", "list", "set", "ip", "tk", "guarded").stdout


def become(lab, user, program):
    """A connection of the user that is the program."""
    client, = connect_as(lab, user, 1)
    with contextlib.ExitStack() as held:
        held.enter_context(client)
        client.register(program)
        held.pop_all()
    return client


def cannot_become(lab, user, program):
    with pytest.raises(bus.BusError) as refused:
        become(lab, user, program)
    return refused.value.text == f"user {IDS[user]} may not register program {program}: it needs programs = [{program}]"


# A message starts it, and it does not come to the bus.
SLEEPER = '[[program]]\nnumber = 81\ncommand = ["/bin/sleep", "60"]\nuser = "{}"\n'


def test_the_right_to_be_a_program_that_is_named_no_more_ends_with_it(router):
    assert reload(router, BASE + SLEEPER.format(OTHER)) == "changed: program\n"
    with become(router, OTHER, 81), bus.Client(router) as client:
        reload(router, BASE)
        assert reload(router) == "nothing has changed\n"
        assert 81 in [record[1] for record in client.call([0], PROGRAMS)[bus.OBJECTS]], "it goes on"
    assert cannot_become(router, OTHER, 81)


def test_only_the_user_that_runs_a_program_keeps_the_right_to_be_it(router):
    others = set(processes(router, "sleep"))
    reload(router, BASE + SLEEPER.format(OTHER))
    with bus.Client(router) as client:
        asked = client.request([81], bus.GET)
        eventually(lambda: set(processes(router, "sleep")) - others, "the message starts it")
        sleeper, = set(processes(router, "sleep")) - others
        reload(router, BASE + SLEEPER.format(DAEMON))
        reload(router, BASE)
        assert cannot_become(router, DAEMON, 81)
        become(router, OTHER, 81).socket.close()
        client.end(asked)
    mark = router.routerd.mark()
    os.killpg(sleeper, signal.SIGTERM)
    router.routerd.wait_for("program 81 ended by signal 15", mark)
    assert cannot_become(router, OTHER, 81)


BAD = {
    "no_toml": ("[nat\n", f"{FILE}:1: "),
    "unknown_key": (BASE + "[nat]\nlimits = 1\n", f"{FILE}:11: limits: unknown key"),
    "bad_value": (BASE + "[nat]\nlimit = -1\n", f"{FILE}:11: limit: must be a number from 0 to 4294967295"),
    "unknown_user": (BASE + '[[user]]\nname = "none"\n', f'{FILE}:11: name: there is no user "none"'),
    "another_user": (BASE.replace("routerd", OTHER), f"{FILE}: user in [router] has changed: that needs a restart"),
    "no_user": (LAN + DAEMON_PROGRAM, f"{FILE}: user in [router] has changed: that needs a restart"),
}


@pytest.mark.parametrize("name", BAD)
def test_a_bad_file_changes_nothing(router, name):
    text, reason = BAD[name]
    table = router.table()
    write(router, text + "[guard]\nconnections = 7\n")
    mark = router.routerd.mark()
    told = refusal(router)
    assert told.startswith(reason)
    os.kill(processes(router, "routerd")[0], signal.SIGHUP)
    router.routerd.wait_for(f"routerd: nothing has changed: {told} (asked by SIGHUP)", mark)
    assert router.routerd.since(mark) == [f"routerd: nothing has changed: {told} (asked by {who})"
                                          for who in ("user 0", "SIGHUP")]
    assert router.table() == table and nat_test(router) == ""


def test_a_file_that_others_may_write_or_the_router_cannot_read_changes_nothing(router):
    text = BASE + "[nat]\nlimit = 1\n"
    write(router, text, 0o666)
    assert refusal(router) == f"{FILE}: everybody may write this file, so it is not followed"
    write(router, text, 0o600)
    assert refusal(router) == (f"{FILE}: Permission denied: routerd runs as user routerd, who must be able to read it")
    write(router, text)
    os.chown(router.root / FILE[1:], IDS["routerd"], 0)
    assert refusal(router) == f"{FILE}: this file belongs to user 64001, so it is not followed"
    os.chown(router.root / FILE[1:], 0, 0)
    assert nat_test(router) == ""


def test_a_file_that_is_gone_changes_nothing(router):
    (router.root / FILE[1:]).rename(router.root / f"{FILE[1:]}.old")
    assert refusal(router) == f"{FILE}: it is gone"
    assert nat_test(router, target=WAN) != "" and router.query("upnp", "get")["enabled"]


def test_who_may_not_reload_is_told_so(router):
    write(router, BASE + "[nat]\nlimit = 1\n")
    for user in (MEMBER, OTHER, DAEMON):
        refused = run_as(router, user, labs.BIN / "tkctl", "reload")
        assert (refused.returncode, refused.stderr) == (
            1, f"tkctl: user {IDS[user]} may not reload the configuration: it needs admin = true\n")
    assert nat_test(router) == ""
    reload(router, BASE + f'[[user]]\nname = "{OTHER}"\nadmin = true\n')
    write(router, BASE)
    assert run_as(router, OTHER, labs.BIN / "tkctl", "reload").stdout == "changed: user\n"
    assert run_as(router, OTHER, labs.BIN / "tkctl", "reload").returncode == 1


def test_a_hangup_does_the_same(router):
    mark = router.routerd.mark()
    write(router, BASE + "[nat]\nlimit = 1\n[guard]\nconnections = 9\n")
    os.kill(processes(router, "routerd")[0], signal.SIGHUP)
    router.routerd.wait_for(f"routerd: read {FILE} again: changed: nat, guard (asked by SIGHUP)", mark)
    assert nat_test(router) == "there are 1 rules already, as many as configured"
    assert "ct count over 9" in chain(router, "input")


def test_control_points_do_not_notice(router):
    def map_and_unmap():
        for action, arguments in (("AddPortMapping", mapping(90)), ("DeletePortMapping", mapping(90)[:3])):
            assert call(router.lan1, router.control, action, arguments) == result(action)
    with labs.meanwhile(map_and_unmap):
        for number in range(20):
            more = f"[guard]\nconnections = {100 + number}\n[nat]\nlimit = {100 + number}\n"
            networks = f'networks = ["10.{number}.0.0/16"]\n'
            assert reload(router, ROUTER + LAN + networks + DAEMON_PROGRAM + more) == "changed: lan, nat, guard\n"
            assert router.talk.goes_on()
