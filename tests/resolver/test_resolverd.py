"""Host names: resolverd, started by the first question, and the daemon that asks it."""
import json
import pathlib
import subprocess
import time

import pytest

import bus
import labs
import nameserver
from control_point import bare
from labs import LAN1, PATIENCE, WAN, eventually
from subscribers import Subscriber, granted, sid_of, subscribe, undated

IDLE = 2  # seconds
CONFIGURATION = f"""
[[program]]
number = 14
command = ["{labs.BIN}/resolverd", "--idle", "{IDLE}"]
"""
HOSTS = f"127.0.0.1 localhost\n{LAN1} printer.home printer\n2001:db8::7 six.home\n"


@pytest.fixture(scope="module")
def router(tmp_path_factory):
    """A lab whose router finds names in a file of its own, and at a name server in the WAN."""
    lab = labs.Lab(tmp_path_factory.mktemp("lab"))
    try:
        nameserver.replace(lab, "hosts", HOSTS)
        nameserver.replace(lab, "resolv.conf", f"nameserver {WAN}\n")
        (lab.root / "tesk" / "etc" / "router.toml").write_text(CONFIGURATION)
        yield lab.serve()
    finally:
        lab.down()


@pytest.fixture
def server(router):
    server = nameserver.NameServer(router.wan, {"nas.example": "192.0.2.77", "long.example": "192.0.2.78"},
                                   silent={"slow.example"}, long={"long.example"})
    yield server
    server.close()


def ask(lab, name, check=True):
    return lab.tkctl("bus", "call", "14", "3", f"3:string={name}", "--json", check=check)


def resolve(lab, name):
    """The fields of the reply, without those of the platform."""
    reply = json.loads(ask(lab, name).stdout)
    assert reply["kind"] == "reply" and reply["from"] == [14, 0]
    return [(field["id"], field["type"], field["value"]) for field in reply["fields"] if int(field["id"], 16) < 0xFF0000]


def address(dotted):
    return [("0x4", "be32", dotted)]


def refusal(lab, name):
    done = ask(lab, name, check=False)
    assert done.returncode == 1
    error = json.loads(done.stdout)
    return error["code"], error["text"]


def timed_refusal(lab, name):
    """The refusal as the bus tells it, and after how many seconds: no start of a program counts."""
    with bus.Client(lab) as client:
        began = time.monotonic()
        with pytest.raises(bus.BusError) as refused:
            client.call([14], 3, [(3, bus.STRING, name)])
        return str(refused.value), time.monotonic() - began


def process(lab):
    """The number of the running resolverd, if there is one."""
    pids = subprocess.run(["ip", "netns", "pids", f"gw-{lab.name}-router"], capture_output=True, text=True,
                          check=True).stdout.split()
    names = {pid: pathlib.Path(f"/proc/{pid}/comm") for pid in pids}
    found = [pid for pid, name in names.items() if name.exists() and name.read_text().strip() == "resolverd"]
    assert len(found) <= 1
    return found[0] if found else None


def test_a_name_of_the_hosts_file_needs_no_server(router, server):
    assert resolve(router, "printer.home") == address(LAN1)
    assert resolve(router, "PRINTER") == address(LAN1)
    assert server.questions() == []


def test_a_name_is_asked_of_the_server_once(router, server):
    assert resolve(router, "nas.example") == address("192.0.2.77")
    assert resolve(router, "Nas.Example") == address("192.0.2.77")
    assert server.questions() == [("nas.example", nameserver.ADDRESS)]


def test_an_answer_that_is_too_long_for_a_datagram_comes_over_tcp(router, server):
    assert resolve(router, "long.example") == address("192.0.2.78")
    assert server.questions() == [("long.example", nameserver.ADDRESS), ("long.example", "over TCP")]


def test_an_unknown_name_is_refused_and_asked_once(router, server):
    expected = ("0xfe0004", "unknown host name: nosuch.example")
    assert refusal(router, "nosuch.example") == expected
    assert refusal(router, "nosuch.example") == expected
    assert server.questions() == [("nosuch.example", nameserver.ADDRESS)]


def test_a_host_of_another_kind_of_address_is_refused(router, server):
    assert refusal(router, "six.home")[0] == "0xfe0004"


def test_a_server_that_does_not_answer_costs_a_second(router, server):
    resolve(router, "printer.home")  # the program runs
    told, seconds = timed_refusal(router, "slow.example")
    assert told == "0xfe0008: the name servers do not answer in time: slow.example"
    assert 0.9 < seconds < 2, "it asks for the whole second, and does not ask again for another one"
    assert set(server.questions()) == {("slow.example", nameserver.ADDRESS)}


def test_without_a_server_a_name_is_refused_at_once(router):
    resolve(router, "printer.home")
    told, seconds = timed_refusal(router, "other.example")
    assert told == "0xfe0008: no name server can be reached: other.example"
    assert seconds < 0.9, "it does not wait for the second in which a server could answer"


@pytest.mark.parametrize("name", ["", "192.0.2.1", "a b", "under_score.example", "a..b", "-a.example", "a" * 64])
def test_what_is_no_host_name_is_refused_and_not_asked(router, server, name):
    assert refusal(router, name) == ("0xfe0006", "not a host name")
    assert server.questions() == []


def test_other_commands_are_refused(router):
    done = router.tkctl("bus", "call", "14", "4", "3:string=printer.home", check=False)
    assert (done.returncode, done.stdout) == (1, "") and "no such command" in done.stderr


def test_a_change_of_the_files_is_seen_at_once(router, server):
    assert refusal(router, "new.home")[0] == "0xfe0004"
    nameserver.replace(router, "hosts", HOSTS + "192.0.2.9 new.home\n")
    assert resolve(router, "new.home") == address("192.0.2.9")
    nameserver.replace(router, "hosts", HOSTS)
    assert refusal(router, "new.home")[0] == "0xfe0004"


def test_many_ask_at_once(router, server):
    server.records.update({f"host{number}.example": f"192.0.2.{number + 100}" for number in range(8)})
    names = [f"host{number % 8}.example" for number in range(24)]
    calls = [subprocess.Popen(router.router.command(labs.BIN / "tkctl", "bus", "call", "14", "3", f"3:string={name}",
                                                    "--json"), stdout=subprocess.PIPE, text=True) for name in names]
    replies = [json.loads(call.communicate(timeout=PATIENCE)[0]) for call in calls]
    assert [next(field["value"] for field in reply["fields"] if field["id"] == "0x4") for reply in replies] == [
        server.records[name] for name in names]


def test_it_leaves_when_idle_and_is_started_again(router):
    assert resolve(router, "printer.home") == address(LAN1)
    first = process(router)
    assert first
    mark = router.routerd.mark()
    eventually(lambda: process(router) is None, "it leaves")
    eventually(lambda: "program 14 ended with status 0" in router.routerd.since(mark))
    assert resolve(router, "printer.home") == address(LAN1)
    assert process(router) not in (None, first)


def test_it_stays_while_it_is_asked(router):
    resolve(router, "printer.home")
    first = process(router)
    until = time.monotonic() + 1.5 * IDLE
    while time.monotonic() < until:
        resolve(router, "printer.home")
    assert process(router) == first


def test_it_has_no_capability_and_no_open_port(router):
    resolve(router, "printer.home")
    told = labs.status(process(router))
    assert [told[name] for name in ("CapInh", "CapPrm", "CapEff", "CapAmb")] == [["0" * 16]] * 4
    assert told["NoNewPrivs"] == ["1"]
    assert "resolverd" not in router.router.run("ss", "-Hatunp").stdout


def event_path(lab):
    return f"/upnp/event/wanipconn-{lab.interface_id('wan0')}"


def test_a_subscriber_may_be_named(router):
    subscriber = Subscriber(router.lan1)
    mark = router.upnpd.mark()
    answer = subscribe(router.lan1, event_path(router), "<http://printer.home:5000/notify>")
    sid = sid_of(answer)
    assert undated(answer) == granted(sid)
    assert router.upnpd.since(mark)[0] == f"callback addr: {LAN1}, port: 5000, path: /notify"
    told = subscriber.next()
    assert told.startswith(f"NOTIFY /notify HTTP/1.1\r\nHOST: {LAN1}:5000\r\n") and f"SID: {sid}\r\n" in told
    subscriber.close()


def test_a_subscriber_of_an_unknown_name_is_refused(router, server):
    mark = router.upnpd.mark()
    assert subscribe(router.lan1, event_path(router), "<http://nohost.example:5000/notify>") == bare("412 Precondition Failed")
    assert router.upnpd.since(mark) == ["resolving failed: unknown host name: nohost.example"]


def test_without_a_bus_it_says_so_and_ends(bare_lab):
    program = labs.Program(bare_lab, "resolverd")
    assert program.wait() == 1
    assert len(program.lines) == 1 and program.lines[0].startswith("cannot join the bus at /run/tk/bus: ")


def test_a_second_one_says_so_and_ends(bare_lab):
    nameserver.replace(bare_lab, "hosts", HOSTS)
    bare_lab.start_routerd()
    first = labs.Program(bare_lab, "resolverd")
    eventually(lambda: ask(bare_lab, "printer.home", check=False).returncode == 0)
    second = labs.Program(bare_lab, "resolverd")
    assert second.wait() == 1
    assert len(second.lines) == 1 and second.lines[0].startswith("cannot join the bus at /run/tk/bus: ")
    assert first.stop() == 0 and first.log == ""


@pytest.mark.parametrize("words", [["--idle", "0"], ["--idle", "soon"], ["--idle", "86401"], ["--idle"], ["now"], ["--nosuch"]],
                         ids=" ".join)
def test_misuse_has_status_2(words):
    done = subprocess.run([labs.BIN / "resolverd", *words], capture_output=True, text=True, timeout=PATIENCE)
    assert (done.returncode, done.stderr) == (2, "") and done.stdout.startswith("usage: resolverd ")


def test_the_labs_own_configuration_activates_both_programs(bare_lab):
    nameserver.replace(bare_lab, "hosts", HOSTS)
    bare_lab.start_routerd("--config", "/tesk/etc/lab.toml")
    assert process(bare_lab) is None
    assert resolve(bare_lab, "printer.home") == address(LAN1)
    assert bare_lab.query("upnp", "get")["enabled"] is False
