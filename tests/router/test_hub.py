"""The bus as whole programs see it: who may do what, many at once, and what can be undone."""
import json

import pytest

import bus
import labs
from labs import eventually
from routerusers import DAEMON, IDS, MEMBER, PROGRAM, configure, connect_as, run_as

BUSY = 0xFE0010
OUTSIDER = "setpriv", "--reuid", 64009, "--regid", 64009, "--clear-groups"


def test_two_hundred_connections_are_served_at_once(bare_lab):
    bare_lab.start_routerd()
    clients = [bus.Client(bare_lab) for _ in range(200)]
    numbers = [client.request([20, 0], bus.GET_COUNT) for client in clients]
    assert {client.end(number)[bus.COUNT] for client, number in zip(clients, numbers)} == {5}
    for client in clients:
        client.socket.close()
    eventually(lambda: bare_lab.bus_answers(), "the bus goes on")


def test_a_connection_that_does_not_read_is_closed_and_the_others_go_on(bare_lab):
    bare_lab.start_routerd()
    slow, busy = bus.Client(bare_lab), bus.Client(bare_lab)
    text = "x" * (1 << 20)
    slow.call([0], 4)
    eventually(lambda: busy.call([20, 0], bus.GET_COUNT, [(77, bus.STRING, text)]) and
               "left: " in bare_lab.routerd.log, "the slow one is closed", 30)
    assert busy.call([20, 0], bus.GET_COUNT)[bus.COUNT] == 5


def test_users_do_what_the_table_says_and_no_more(bare_lab):
    bare_lab.start_routerd(*configure(bare_lab, f"""
        [[user]]
        name = "{DAEMON}"
        programs = [80]
        writes = ["20,5"]
        """))
    tkctl = labs.BIN / "tkctl"
    write = "bus", "call", "20,5", "0xFE0006", "0xFE0001:u32=1"
    down = "bus", "call", "20,0", "0xFE0003", "0xFE0001:u32=1", "0xFE000A:bool=no"
    register = "bus", "call", "0", "1", "1:u32=80"
    undo = "history", "undo"
    assert run_as(bare_lab, DAEMON, tkctl, "nat", "list").returncode == 0
    assert run_as(bare_lab, MEMBER, tkctl, "nat", "list").returncode == 0
    assert run_as(bare_lab, DAEMON, tkctl, *write).returncode == 0
    assert run_as(bare_lab, DAEMON, tkctl, *register).returncode == 0
    for user, words in ((MEMBER, write), (MEMBER, down), (DAEMON, undo), (MEMBER, register)):
        refused = run_as(bare_lab, user, tkctl, *words)
        assert refused.returncode == 1
        assert refused.stderr.startswith(f"tkctl: user {IDS[user]} may not "), refused.stderr
    outsider = bare_lab.router.run(*OUTSIDER, tkctl, "nat", "list", check=False)
    assert outsider.returncode == 1 and "only root and members of the group tk may" in outsider.stderr


def test_one_user_cannot_take_all_connections(bare_lab):
    bare_lab.start_routerd()
    tkctl = labs.BIN / "tkctl"
    clients = connect_as(bare_lab, MEMBER, 64)
    assert {client.call([20, 0], bus.GET_COUNT)[bus.COUNT] for client in clients} == {5}
    surplus, = connect_as(bare_lab, MEMBER, 1)
    told = surplus.read()
    assert told == {bus.CODE: BUSY, bus.TEXT: "too many connections of one user", bus.SENDER: [0],
                    bus.KIND: bus.ERROR, bus.COMMAND: 0}
    with pytest.raises(EOFError):
        surplus.read()
    refused = run_as(bare_lab, MEMBER, tkctl, "nat", "list")
    assert (refused.returncode, refused.stderr) == (1, "tkctl: too many connections of one user\n")
    refused = run_as(bare_lab, MEMBER, PROGRAM)
    assert (refused.returncode, refused.stderr) == (1, "")
    assert refused.stdout == "cannot join the bus at /run/tk/bus: too many connections of one user\n"
    assert run_as(bare_lab, DAEMON, tkctl, "nat", "list").returncode == 0
    clients.pop().socket.close()
    eventually(lambda: run_as(bare_lab, MEMBER, tkctl, "nat", "list").returncode == 0, "there is room again")


def test_a_user_who_is_not_in_the_group_is_told_so(bare_lab):
    bare_lab.start_routerd()
    bare_lab.router.run("chmod", "666", "/run/tk/bus")  # otherwise the file itself keeps others out
    reason = "only root and members of the group tk may use the bus"
    refused = bare_lab.router.run(*OUTSIDER, labs.BIN / "tkctl", "nat", "list", check=False)
    assert (refused.returncode, refused.stdout, refused.stderr) == (1, "", f"tkctl: {reason}\n")
    refused = bare_lab.router.run(*OUTSIDER, PROGRAM, check=False)
    assert (refused.returncode, refused.stderr) == (1, "")
    assert refused.stdout == f"cannot join the bus at /run/tk/bus: {reason}\n"
    told = [line for line in bare_lab.routerd.lines if "refused" in line]
    assert told == [f"bus: connection of user 64009 refused: {reason}"], "the second one waits for its minute"
    mark = bare_lab.routerd.mark()
    assert bare_lab.routerd.stop() == 0
    assert f"bus: 1 more connections refused, the last of user 64009: {reason}" in bare_lab.routerd.since(mark)


def test_the_group_is_looked_up_once(bare_lab):
    bare_lab.start_routerd()
    groups = bare_lab.directory / "group"
    groups.write_text("root:x:0:\n")
    bare_lab.router.run("mount", "--bind", groups, "/etc/group")
    assert run_as(bare_lab, MEMBER, labs.BIN / "tkctl", "nat", "list").returncode == 0


def test_a_change_of_the_settings_is_undone_and_once_more(fresh_lab):
    before = fresh_lab.query("upnp", "get")
    fresh_lab.tkctl("upnp", "set", "show-dummy-rule=no")
    fresh_lab.tkctl("upnp", "set", "allow-disable-external=no")
    count = len(fresh_lab.query("history", "list"))
    assert json.loads(fresh_lab.tkctl("history", "undo", "--json").stdout)["description"] == "upnp config changed"
    assert fresh_lab.query("upnp", "get") == {**before, "show-dummy-rule": False}
    assert fresh_lab.tkctl("history", "undo").stdout == "undone: upnp config changed\n"
    assert fresh_lab.query("upnp", "get") == before
    assert len(fresh_lab.query("history", "list")) == count - 2


def test_an_added_interface_is_undone(fresh_lab):
    before = fresh_lab.query("upnp", "interface", "list")
    fresh_lab.tkctl("upnp", "interface", "add", "wan1", "external")
    fresh_lab.tkctl("history", "undo")
    assert fresh_lab.query("upnp", "interface", "list") == before
    fresh_lab.tkctl("upnp", "interface", "remove", before[-1]["id"])
    fresh_lab.tkctl("history", "undo")
    roles = [(item["name"], item["type"]) for item in before]
    assert [(item["name"], item["type"]) for item in fresh_lab.query("upnp", "interface", "list")] == roles


def test_nothing_to_undo_is_said(bare_lab):
    bare_lab.start_routerd()
    done = bare_lab.tkctl("history", "undo", check=False)
    assert (done.returncode, done.stderr) == (1, "tkctl: there is nothing to undo\n")
