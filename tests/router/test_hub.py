"""The bus as whole programs see it: who may do what, many at once, and what can be undone."""
import json

import busclient as bus
import labs
from labs import eventually
from routerusers import DAEMON, IDS, OTHER, add_users, configure, run_as

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
    add_users(bare_lab)
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
    assert run_as(bare_lab, DAEMON, tkctl, "nat", "list").returncode == 0
    assert run_as(bare_lab, OTHER, tkctl, "nat", "list").returncode == 0
    assert run_as(bare_lab, DAEMON, tkctl, *write).returncode == 0
    assert run_as(bare_lab, DAEMON, tkctl, *register).returncode == 0
    for user, words in ((OTHER, write), (OTHER, down), (DAEMON, down), (OTHER, register)):
        refused = run_as(bare_lab, user, tkctl, *words)
        assert refused.returncode == 1
        assert refused.stderr.startswith(f"tkctl: user {IDS[user]} may not "), refused.stderr
    outsider = bare_lab.router.run("setpriv", "--reuid", 64009, "--regid", 64009, "--clear-groups", tkctl, "nat",
                                   "list", check=False)
    assert outsider.returncode == 1 and "Permission denied" in outsider.stderr


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
