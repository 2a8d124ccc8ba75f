"""A LAN host that wants an interface down gets what router.toml allows, and no more."""
import os
import time

import pytest

import bus
from control_point import call, fault, outputs, result
from labs import WAN, eventually
from routerusers import DAEMON, DAEMON_AS_ITSELF, IDS, ROUTER, configure, connect_as, connection_path

FAILED = fault(501, "Action Failed")
ALLOWED = """
[[interface]]
name = "wan0"
terminate = true
"""
USER = IDS[DAEMON]


def serve(lab, text=""):
    """A gateway whose daemon runs as a user of its own; the path of its external connection."""
    lab.start_routerd(*configure(lab, text + DAEMON_AS_ITSELF))
    lab.tkctl("upnp", "interface", "add", "lan0", "internal")
    lab.tkctl("upnp", "interface", "add", "wan0", "external")
    lab.tkctl("upnp", "set", "enabled=yes")
    return connection_path(lab)


def status(lab, path):
    return dict(outputs(call(lab.lan1, path, "GetStatusInfo")))["NewConnectionStatus"]


def is_up(lab):
    return "state UP" in lab.router.run("ip", "link", "show", "wan0").stdout


def routes(lab):
    return lab.router.run("ip", "route", "show", "default").stdout


@pytest.mark.parametrize("text", ["", "[[interface]]\nname = \"wan0\"\n", ALLOWED.replace("wan0", "wan1")],
                         ids=["nothing said", "not terminate", "another one"])
def test_two_calls_do_not_cut_the_router_off(bare_lab, text):
    path = serve(bare_lab, text)
    before = routes(bare_lab)
    assert "via " + WAN in before
    assert call(bare_lab.lan1, path, "ForceTermination") == FAILED
    assert call(bare_lab.lan1, path, "RequestConnection") == FAILED
    assert routes(bare_lab) == before and is_up(bare_lab)
    assert status(bare_lab, path) == "Connected"
    reason = f"user {USER} may not set wan0 down: no [[interface]] with terminate allows it"
    assert f"disable device failed: {reason}\n" in bare_lab.routerd.log
    assert bare_lab.routerd.log.count(f"interfaces: request of user {USER} refused: {reason}\n") == 1
    for _ in range(5):
        call(bare_lab.lan1, path, "ForceTermination")
    assert bare_lab.routerd.log.count("interfaces: request of user") == 1, "further ones are counted"


def test_the_daemons_user_itself_sets_no_interface(bare_lab):
    serve(bare_lab)
    client, = connect_as(bare_lab, DAEMON, 1)
    for name in ("lan0", "wan0", "wan1"):
        for state in (True, False):
            with pytest.raises(bus.BusError) as refused:
                client.call([20, 0], bus.SET_OBJECT, [(bus.OBJECT, bus.U32, bare_lab.interface_id(name)),
                                               (bus.DISABLED, bus.BOOL, state)])
            assert refused.value.code == 0xFE000F
    client.socket.close()


def test_where_it_is_allowed_the_flag_is_set(bare_lab):
    path = serve(bare_lab, ALLOWED)
    assert call(bare_lab.lan1, path, "ForceTermination") == result("ForceTermination")
    assert not is_up(bare_lab) and status(bare_lab, path) == "Disconnected"
    assert call(bare_lab.lan1, path, "RequestConnection") == result("RequestConnection")
    eventually(lambda: is_up(bare_lab))
    for state in ("down", "up"):
        assert f"interface wan0 {state} for user {USER}\n" in bare_lab.routerd.log


# Writes down who runs it and with which arguments, one a line, and does its work. Only a shell would do anything with
# the last argument.
SCRIPT = """#!/bin/sh
{ id -u; printf '%s\\n' "$@"; } >>/tesk/commands
ip link set "$1" "$2"
"""
TRAP = "; touch /tesk/trap $(touch /tesk/trap) `touch /tesk/trap`"
COMMANDS = f"""
[[interface]]
name = "wan0"
terminate = true
down = ["/tesk/bin/ifchange", "wan0", "down", "{TRAP}"]
up = ["/tesk/bin/ifchange", "wan0", "up"]
"""


def install(lab, text):
    script = lab.root / "tesk" / "bin" / "ifchange"
    script.write_text(text)
    script.chmod(0o755)


@pytest.mark.parametrize("user", ["", f"[router]\nuser = \"{ROUTER}\"\n"], ids=["router of root", "router of its own user"])
def test_commands_are_run_by_root_and_by_no_shell(bare_lab, user):
    install(bare_lab, SCRIPT)
    path = serve(bare_lab, user + COMMANDS)
    assert call(bare_lab.lan1, path, "ForceTermination") == result("ForceTermination")
    assert not is_up(bare_lab), "it is answered when it is done"
    assert call(bare_lab.lan1, path, "RequestConnection") == result("RequestConnection")
    eventually(lambda: is_up(bare_lab))
    told = (bare_lab.root / "tesk" / "commands").read_text().splitlines()
    assert told == ["0", "wan0", "down", TRAP, "0", "wan0", "up"]
    assert not (bare_lab.root / "tesk" / "trap").exists()
    log = bare_lab.routerd.log
    for state in ("down", "up"):
        assert f"interface wan0 {state} for user {USER}: /tesk/bin/ifchange started\n" in log
    assert log.count("interface wan0: /tesk/bin/ifchange ended with status 0\n") == 2


def test_root_gets_the_commands_too_and_their_failure(bare_lab):
    install(bare_lab, "#!/bin/sh\nexit 3\n")
    path = serve(bare_lab, COMMANDS.replace("terminate = true", "terminate = false"))
    words = ("bus", "call", "20,0", "0xFE0003", f"0xFE0001:u32={bare_lab.interface_id('wan0')}", "0xFE000A:bool=yes")
    done = bare_lab.tkctl(*words, check=False)
    assert (done.returncode, done.stderr) == (1, "tkctl: /tesk/bin/ifchange ended with status 3\n")
    assert is_up(bare_lab)
    assert call(bare_lab.lan1, path, "ForceTermination") == FAILED


def test_a_command_that_hangs_keeps_neither_the_router_nor_the_daemon(bare_lab):
    install(bare_lab, "#!/bin/sh\necho $$ >/tesk/hanging\nexec sleep 1000\n")
    path = serve(bare_lab, COMMANDS)
    start = time.monotonic()
    with bus.Client(bare_lab) as client:
        number = client.request([20, 0], bus.SET_OBJECT, [(bus.OBJECT, bus.U32, bare_lab.interface_id("wan0")),
                                                   (bus.DISABLED, bus.BOOL, True)])
        assert client.call([20, 5], bus.GET_COUNT)[bus.COUNT] == 0, "others are served meanwhile"
        assert time.monotonic() - start < 2
        assert call(bare_lab.lan1, path, "ForceTermination") == FAILED, "one at a time"
        assert client.end(number)[bus.TEXT] == "/tesk/bin/ifchange still runs"
    assert 4 < time.monotonic() - start < 8
    hanging = int((bare_lab.root / "tesk" / "hanging").read_text())
    os.kill(hanging, 15)
    bare_lab.routerd.wait_for("interface wan0: /tesk/bin/ifchange ended by signal 15")
    install(bare_lab, SCRIPT)
    assert call(bare_lab.lan1, path, "ForceTermination") == result("ForceTermination")
