"""Starts, ends and changes of the programs and of what they depend on."""
import re
import subprocess
import time

import pytest

import bus
import labs
from control_point import (Listener, advert, call, get, mapping, query, result, root_pairs, table_order,
                           variable_answer, wan_pairs)
from labs import ROUTER_LAN, ROUTER_WAN, ROUTER_WAN2, eventually


def path(lab, name="wan0"):
    return f"/upnp/control/wanipconn-{lab.interface_id(name)}"


def add(lab, name="wan0", **changed):
    assert call(lab.lan1, path(lab, name), "AddPortMapping", mapping(**changed)) == result("AddPortMapping")


def item_of(lab, name):
    return next(item["id"] for item in lab.query("upnp", "interface", "list") if item["name"] == name)


def serves(lab, address=ROUTER_LAN):
    try:
        with lab.lan2.connect(address, 2828, seconds=2):
            return True
    except OSError:
        return False


def test_disabling_ends_the_daemon_after_ten_seconds(fresh_lab):
    began = time.monotonic()
    fresh_lab.disable()
    assert not serves(fresh_lab)
    assert fresh_lab.upnpd.wait(15) == 0
    assert 9.5 <= time.monotonic() - began <= 12


def test_enabling_again_keeps_the_daemon(fresh_lab):
    fresh_lab.disable()
    fresh_lab.enable()
    with pytest.raises(subprocess.TimeoutExpired):
        fresh_lab.upnpd.wait(11)
    assert serves(fresh_lab)


def test_stored_settings_and_items_are_taken_up_at_the_next_start(fresh_lab):
    fresh_lab.tkctl("upnp", "set", "allow-disable-external=no")
    settings, items = fresh_lab.query("upnp", "get"), fresh_lab.query("upnp", "interface", "list")
    description = get(fresh_lab.lan1, "/gateway.xml")
    assert fresh_lab.upnpd.stop() == 0
    fresh_lab.start_upnpd()
    fresh_lab.upnpd.wait_for(f"start int: lan0 {ROUTER_LAN}")
    assert fresh_lab.query("upnp", "get") == settings
    assert fresh_lab.query("upnp", "interface", "list") == items
    assert get(fresh_lab.lan1, "/gateway.xml") == description


def test_identity_and_interfaces_keep_their_ids_when_the_router_restarts(fresh_lab):
    identity, interfaces = fresh_lab.identity(), fresh_lab.query("interface", "list")
    assert fresh_lab.upnpd.stop() == 0
    assert fresh_lab.routerd.stop() == 0
    fresh_lab.start_routerd()
    assert fresh_lab.identity() == identity and identity
    assert fresh_lab.query("interface", "list") == interfaces


def test_a_request_to_end_is_followed_by_goodbye_and_removal_of_rules(fresh_lab):
    add(fresh_lab)
    expected = table_order(root_pairs(fresh_lab.identity()),
                           wan_pairs(fresh_lab.identity(), fresh_lab.interface_id("wan0")))
    listener = Listener(fresh_lab.lan1)
    assert fresh_lab.upnpd.stop() == 0
    assert listener.receive(len(expected)) == [advert("byebye", *pair) for pair in expected]
    assert fresh_lab.upnpd.lines[-1] == "exit"
    assert fresh_lab.rules() == [] and "192.0.2.2" not in fresh_lab.table()
    listener.close()


def test_no_rule_outlives_a_killed_daemon(fresh_lab):
    add(fresh_lab)
    assert "192.0.2.2 . 8080" in fresh_lab.table()
    fresh_lab.upnpd.kill()
    eventually(lambda: fresh_lab.rules() == [], "the rules go")
    assert "192.0.2.2" not in fresh_lab.table()


def test_a_daemon_started_after_a_kill_serves_again(fresh_lab):
    add(fresh_lab)
    fresh_lab.upnpd.kill()
    fresh_lab.start_upnpd()
    fresh_lab.upnpd.wait_for(f"start int: lan0 {ROUTER_LAN}")
    assert fresh_lab.rules() == []
    assert query(fresh_lab.lan1, path(fresh_lab), "PortMappingNumberOfEntries") == variable_answer("0")
    add(fresh_lab)
    assert len(fresh_lab.rules()) == 1


def test_no_table_outlives_a_killed_router(fresh_lab):
    add(fresh_lab)
    fresh_lab.routerd.kill()
    assert fresh_lab.table() == ""
    assert fresh_lab.upnpd.wait() == 0  # it lost its bus
    assert fresh_lab.upnpd.lines[-1] == "exit"


def test_the_router_ends_cleanly_on_request(fresh_lab):
    add(fresh_lab)
    assert fresh_lab.routerd.stop() == 0
    assert fresh_lab.table() == ""
    assert not fresh_lab.router.run("test", "-e", "/run/tk/bus", check=False).returncode == 0
    assert fresh_lab.upnpd.wait() == 0


def test_a_killed_routers_socket_does_not_hinder_the_next(fresh_lab):
    fresh_lab.routerd.kill()
    fresh_lab.upnpd.wait()
    fresh_lab.start_routerd()
    fresh_lab.start_upnpd()
    fresh_lab.upnpd.wait_for(f"start int: lan0 {ROUTER_LAN}")
    assert serves(fresh_lab)


def test_a_second_router_refuses_to_start(fresh_lab):
    second = labs.Program(fresh_lab, "routerd")
    assert second.wait() == 1
    assert second.log == "routerd: /run/tk/bus: another router is running; end that one first\n"
    assert fresh_lab.routerd.running() and fresh_lab.bus_answers()


def test_a_second_daemon_says_so_and_ends(fresh_lab):
    second = labs.Program(fresh_lab, "upnpd")
    assert second.wait() == 1
    with bus.Client(fresh_lab) as client:
        router, daemon = client.call([0], 7)[bus.OBJECTS]
    assert (router[1], daemon[1]) == (20, 80)
    process = daemon[2]
    assert second.log == ("cannot join the bus at /run/tk/bus: program 80 is running already, "
                          f"as process {process}: end that one first\n")
    assert serves(fresh_lab)


def test_without_a_bus_the_daemon_says_so_and_ends(bare_lab):
    daemon = labs.Program(bare_lab, "upnpd")
    assert daemon.wait() == 1
    assert daemon.log == "cannot join the bus at /run/tk/bus: No such file or directory: start routerd first\n"
    assert daemon.errors.read_text() == ""


def test_the_internal_side_moves_with_its_address(fresh_lab):
    mark = fresh_lab.upnpd.mark()
    listener = Listener(fresh_lab.lan1)
    fresh_lab.router.run("ip", "address", "add", "192.0.2.9/24", "dev", "lan0")
    fresh_lab.router.run("ip", "address", "del", f"{ROUTER_LAN}/24", "dev", "lan0")
    fresh_lab.upnpd.wait_for("start int: lan0 192.0.2.9", mark)
    pairs = table_order(root_pairs(fresh_lab.identity()),
                        wan_pairs(fresh_lab.identity(), fresh_lab.interface_id("wan0")))
    heard = listener.receive(2 * len(pairs))
    assert heard[:len(pairs)] == [advert("byebye", *pair) for pair in pairs]
    assert heard[len(pairs):] == [advert("alive", *pair, "http://192.0.2.9:2828/gateway.xml") for pair in pairs]
    listener.close()
    assert "<URLBase>http://192.0.2.9:2828</URLBase>" in \
        labs_get(fresh_lab, "192.0.2.9", "/gateway.xml")


def labs_get(lab, address, name):
    with lab.lan1.connect(address, 2828) as connection:
        connection.sendall(f"GET {name} HTTP/1.1\r\n\r\n".encode())
        received = b""
        while chunk := connection.recv(65536):
            received += chunk
    return received.decode()


def test_an_internal_interface_without_address_is_not_served_until_it_has_one(fresh_lab):
    mark = fresh_lab.upnpd.mark()
    fresh_lab.router.run("ip", "address", "flush", "dev", "lan0")
    fresh_lab.upnpd.wait_for("stop int: lan0", mark)
    fresh_lab.router.run("ip", "address", "add", f"{ROUTER_LAN}/24", "dev", "lan0")
    fresh_lab.upnpd.wait_for(f"start int: lan0 {ROUTER_LAN}", mark)
    fresh_lab.tkctl("upnp", "get")  # answered when the work that this line begins is done
    assert serves(fresh_lab)


def test_removing_the_external_item_removes_its_rules(fresh_lab):
    add(fresh_lab)
    fresh_lab.tkctl("upnp", "interface", "remove", item_of(fresh_lab, "wan0"))
    assert fresh_lab.rules() == []
    assert "<deviceList>" not in get(fresh_lab.lan1, "/gateway.xml")


def test_disabling_an_item_stops_its_interface(fresh_lab):
    fresh_lab.tkctl("upnp", "interface", "set", item_of(fresh_lab, "lan0"), "disabled=yes")
    assert not serves(fresh_lab)
    fresh_lab.tkctl("upnp", "interface", "set", item_of(fresh_lab, "lan0"), "disabled=no")
    assert serves(fresh_lab)


def test_two_external_interfaces_map_the_same_port_apart(bare_lab):
    bare_lab.serve(external=("wan0", "wan1"))
    add(bare_lab, "wan0", internal=8080)
    add(bare_lab, "wan1", internal=9090)
    assert sorted((rule["dstAddress"], rule["toPort"]) for rule in bare_lab.rules()) == [
        (ROUTER_WAN, 8080), (ROUTER_WAN2, 9090)]
    for host, address, port in ((bare_lab.wan, ROUTER_WAN, 8080), (bare_lab.wan2, ROUTER_WAN2, 9090)):
        with bare_lab.lan1.listen(port) as server:
            # The answers to both hosts must find their way back: the second WAN is directly connected.
            near = host.connect(address, 80)
            far, _ = server.accept()
            far.sendall(b"hello")
            assert near.recv(5) == b"hello"
            near.close()
            far.close()
    bare_lab.tkctl("upnp", "interface", "remove", item_of(bare_lab, "wan1"))
    assert [rule["dstAddress"] for rule in bare_lab.rules()] == [ROUTER_WAN]


ACTIVATION = f'[[program]]\nnumber = 80\ncommand = ["{labs.BIN}/upnpd"]\nstart = '


def configure(lab, text):
    lab.router.run("tee", "/tesk/etc/router.toml", input=text)


def started_programs(lab):
    """What runs in the router beside routerd and the lab's own holder."""
    pids = subprocess.run(["ip", "netns", "pids", f"gw-{lab.name}-router"], capture_output=True, text=True,
                          check=True).stdout.split()
    names = [labs.pathlib.Path(f"/proc/{pid}/comm") for pid in pids]
    return sorted(name.read_text().strip() for name in names if name.exists())


def test_a_daemon_that_has_left_is_started_by_the_next_request(bare_lab):
    configure(bare_lab, ACTIVATION + "false\n")
    bare_lab.start_routerd()
    assert "upnpd" not in started_programs(bare_lab)
    assert bare_lab.query("upnp", "get")["enabled"] is False
    assert "upnpd" in started_programs(bare_lab)
    eventually(lambda: "upnpd" not in started_programs(bare_lab), "a disabled daemon leaves", 15)
    bare_lab.tkctl("upnp", "interface", "add", "lan0", "internal")
    bare_lab.tkctl("upnp", "set", "enabled=yes")
    eventually(lambda: serves(bare_lab))


def test_a_daemon_may_start_with_the_router_and_ends_with_it(bare_lab):
    configure(bare_lab, ACTIVATION + "true\n")
    bare_lab.start_routerd()
    eventually(lambda: "upnpd" in started_programs(bare_lab))
    assert bare_lab.routerd.stop() == 0
    eventually(lambda: "upnpd" not in started_programs(bare_lab))


def test_a_program_that_cannot_be_started_fails_the_request(bare_lab):
    configure(bare_lab, '[[program]]\nnumber = 80\ncommand = ["/nosuch/upnpd"]\n')
    bare_lab.start_routerd()
    done = bare_lab.tkctl("upnp", "get", check=False)
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr == ("tkctl: upnpd does not answer: /nosuch/upnpd: No such file or directory; start it: setsid "
                           f"{labs.BIN}/upnpd </dev/null >>/var/log/upnpd.log 2>&1 &\n")
    assert bare_lab.routerd.running()


@pytest.mark.parametrize("text, line", [
    ("colour = 'blue'\n", "1: colour: unknown key"),
    ("\n[[program]]\nnumber = 80\ncommand = ['upnpd']\n", "4: command: must begin with a full path"),
    ("[[program]\n", r"1: Error while parsing table header: expected ']', saw '\n'"),
], ids=["unknown key", "no full path", "no TOML"])
def test_a_bad_configuration_is_told_by_file_and_line(bare_lab, text, line):
    configure(bare_lab, text)
    router = labs.Program(bare_lab, "routerd")
    assert router.wait() == 1
    line = f"/tesk/etc/router.toml:{line}\n"
    assert (router.log, router.errors.read_text()) == (f"routerd: {line}", "")
    check = labs.Program(bare_lab, "routerd", "--check")
    assert (check.wait(), check.log, check.errors.read_text()) == (1, line, "")


def test_a_check_of_a_good_configuration_writes_nothing(bare_lab):
    check = labs.Program(bare_lab, "routerd", "--check")
    assert (check.wait(), check.log, check.errors.read_text()) == (0, "", "")


@pytest.mark.parametrize("words, prefix", [((), "routerd: "), (("--check",), "")], ids=["start", "check"])
def test_a_router_without_the_named_configuration_does_not_start(bare_lab, words, prefix):
    router = labs.Program(bare_lab, "routerd", *words, "--config", "/nosuch.toml")
    assert (router.wait(), router.log, router.errors.read_text()) == (
        1, f"{prefix}/nosuch.toml: No such file or directory\n", "")


def test_a_router_with_an_unknown_option_does_not_start(bare_lab):
    router = labs.Program(bare_lab, "routerd", "--nosuch")
    assert (router.wait(), router.errors.read_text()) == (2, "")
    assert router.log.startswith("usage: routerd [--config FILE] [--check]\n")


@pytest.mark.parametrize("words, status, told", [
    (["--version"], 0, r"upnpd \d+\.\d+\.\d+\n"),
    (["--help"], 0, r"usage: upnpd\n.*"),
    (["--config", "router.toml"], 2, r"usage: upnpd\n.*"),
], ids=["version", "help", "misuse"])
def test_a_daemon_that_is_given_an_argument_does_not_begin_to_serve(bare_lab, words, status, told):
    done = bare_lab.router.run(labs.BIN / "upnpd", *words, check=False)
    assert done.returncode == status
    assert re.fullmatch(told, done.stdout, re.DOTALL), done.stdout
