"""The programs at work in the sandboxes that their units describe."""
import json
import pathlib
import subprocess
import threading
import time

import pytest

import nameserver
from attacks.connecting import FREE_ANSWERS, long_entry, never_read
from control_point import GROUP, call, exchange, mapping, result, search
from labs import LAN1, PATIENCE, ROUTER_LAN, ROUTER_WAN, WAN, eventually
from subscribers import Subscriber, sid_of, subscribe

SERVICES = ("routerd.service", "upnpd.service", "resolverd.service")
NET_ADMIN = "0000000000001000"
NOTHING = "0" * 16
IDLE_SECONDS = 10  # how long upnpd stays when it is switched off


# The work is that of another unit, which waits for the file.
HANDED_ON = """
[[interface]]
name = "wan1"
down = ["/usr/bin/touch", "/run/tk/wan1-down"]
"""


@pytest.fixture(scope="module")
def running(installed):
    """The router as it is a moment after its start, with a gateway that serves."""
    with open(installed.lab.root / "tesk" / "etc" / "router.toml", "a") as configuration:
        configuration.write(HANDED_ON)
    nameserver.replace(installed.lab, "resolv.conf", f"nameserver {WAN}\n")
    installed.start()
    installed.serve()
    return installed


@pytest.fixture(scope="module")
def probed(running):
    """What a process in each sandbox can reach, by the service."""
    def probe(name):
        words = running.manager.command(name, "--probe")
        done = subprocess.run(words, capture_output=True, text=True, timeout=2 * PATIENCE)
        assert done.stdout, done.stderr
        return json.loads(done.stdout) | {"runs others": done.returncode == 0}
    return {name: probe(name) for name in SERVICES}


def status(installation, name):
    """What the kernel says about the process of a service."""
    lines = pathlib.Path(f"/proc/{installation.manager.running[name].pid}/status").read_text().splitlines()
    return {key: value.split() for key, _, value in (line.partition(":") for line in lines)}


def ids(installation, file):
    """The numbers of the router's users or groups, by their names."""
    lines = (installation.lab.root / "etc" / file).read_text().splitlines()
    return {words[0]: words[2] for words in (line.split(":") for line in lines)}


def discover(host):
    with host.datagrams() as asking:
        asking.sendto(search("urn:schemas-upnp-org:device:InternetGatewayDevice:1", mx="1").encode(), GROUP)
        return asking.recv(2048).decode()


def hear(host, address, port):
    with host.connect(address, port) as connection:
        return connection.recv(64)


def greet(listener, guests):
    for _ in range(guests):
        connection, peer = listener.accept()
        with connection:
            connection.sendall(b"hello " + peer[0].encode())


def test_a_host_discovers_the_gateway_and_maps_a_port_that_carries_packets(running):
    lab, path = running.lab, running.wan_path()
    assert discover(lab.lan1).startswith("HTTP/1.1 200 OK\r\n")
    assert call(lab.lan1, path, "AddPortMapping", mapping()) == result("AddPortMapping")
    with lab.lan1.listen(8080) as listener:
        greeting = threading.Thread(target=greet, args=[listener, 2])
        greeting.start()
        assert hear(lab.wan, ROUTER_WAN, 80) == b"hello " + WAN.encode()
        assert hear(lab.lan2, ROUTER_WAN, 80) == b"hello " + ROUTER_LAN.encode()  # from the router, for the way back
        greeting.join()
    assert [used["packets"] > 0 for used in running.query("upnp", "mappings")] == [True]
    assert call(lab.lan1, path, "DeletePortMapping", mapping()[:3]) == result("DeletePortMapping")
    assert running.query("nat", "list") == []
    with pytest.raises(OSError):
        hear(lab.wan, ROUTER_WAN, 80)


def test_the_resolver_starts_when_a_subscriber_gives_a_name(running):
    lab = running.lab
    server = nameserver.NameServer(lab.wan, {"printer.example": LAN1})
    subscriber = Subscriber(lab.lan1)
    try:
        assert not running.manager.runs("resolverd.service")
        sid = sid_of(subscribe(lab.lan1, "/upnp/event/osinfo", "<http://printer.example:5000/notify>"))
        assert f"SID: {sid}" in subscriber.next()
        assert running.manager.runs("resolverd.service")
    finally:
        subscriber.close()
        server.close()


def test_the_daemon_comes_back_when_it_is_asked_for(running):
    assert running.manager.end("upnpd.service") == 0
    assert running.query("upnp", "get")["enabled"]
    assert running.manager.runs("upnpd.service")


def test_the_daemon_leaves_when_it_is_switched_off_and_comes_back_when_switched_on(running):
    daemon = running.manager.running["upnpd.service"]
    began = time.monotonic()
    running.tkctl("upnp", "set", "enabled=no")
    assert daemon.wait(IDLE_SECONDS + PATIENCE) == 0
    assert time.monotonic() - began > IDLE_SECONDS - 0.5
    assert not running.manager.runs("upnpd.service")  # it left in peace, and nobody has asked for it
    mark = len(running.manager.log("upnpd.service"))
    running.tkctl("upnp", "set", "enabled=yes")
    assert running.manager.runs("upnpd.service")
    eventually(lambda: "start int: lan0" in running.manager.log("upnpd.service")[mark:], "the gateway serves lan0")
    assert discover(running.lab.lan1).startswith("HTTP/1.1 200 OK\r\n")


def test_a_command_of_the_administrator_can_hand_its_work_to_another_unit(running):
    wan1, = (record["id"] for record in running.query("interface", "list") if record["name"] == "wan1")
    running.tkctl("bus", "call", "20,0", "0xFE0003", f"0xFE0001:u32={wan1}", "0xFE000A:bool=yes")
    written = running.lab.root / "run" / "tk" / "wan1-down"
    assert str(written.stat().st_uid) == ids(running, "passwd")["routerd"]


def test_the_router_reads_its_configuration_again(running):
    file = running.lab.root / "tesk" / "etc" / "router.toml"
    before = file.read_text()
    process = running.manager.running["routerd.service"].pid
    faulty = before + "limitt = 1\n"
    refusal = f"tkctl: nothing has changed: /tesk/etc/router.toml:{faulty.count(chr(10))}: limitt: unknown key\n"
    for text, status, output, errors in (
            (before + '[[user]]\nname = "nobody"\ntrace = true\n', 0, "changed: user\n", ""),
            (faulty, 1, "", refusal),
            (before, 0, "changed: user\n", "")):
        file.write_text(text)
        done = running.manager.reload("routerd.service")
        assert (done.returncode, done.stdout, done.stderr) == (status, output, errors)
    assert running.manager.running["routerd.service"].pid == process and running.manager.runs("routerd.service")


def test_the_router_shows_that_it_is_alive(running):
    seen = running.manager.signs.count("WATCHDOG=1")
    eventually(lambda: running.manager.signs.count("WATCHDOG=1") > seen + 1, "signs of life")


def test_hosts_that_never_read_leave_the_daemon_running(running):
    """The calls that it makes for them are allowed, too."""
    host, daemon = running.lab.lan1, running.manager.running["upnpd.service"].pid
    with long_entry(host, running.wan_path()) as (request, answer), never_read(host, request, FREE_ANSWERS + 10):
        assert exchange(host, request) == answer
    assert running.manager.running["upnpd.service"].pid == daemon


@pytest.mark.parametrize("name, path", (
    ("routerd.service", "20,0"), ("upnpd.service", "80"), ("resolverd.service", "14")))
def test_a_program_is_its_own_user_with_no_right_but_its_own(running, name, path):
    asked = running.lab.router.run("/usr/sbin/tkctl", "bus", "call", path, "0x7777", check=False)
    assert asked.stderr == "tkctl: no such command\n"  # and the program runs, if it did not
    user, group = (ids(running, file)[name.removesuffix(".service")] for file in ("passwd", "group"))
    told = status(running, name)
    assert (told["Uid"], told["Gid"], told["Groups"]) == ([user] * 4, [group] * 4, [ids(running, "group")["tk"]])
    rights = NET_ADMIN if name == "routerd.service" else NOTHING
    assert [told[key] for key in ("CapPrm", "CapEff", "CapBnd")] == [[rights]] * 3
    assert (told["NoNewPrivs"], told["Seccomp"]) == (["1"], ["2"])  # 2: by a filter


@pytest.mark.parametrize("name, folders", (
    ("routerd.service", ["/var/tmp", "/tmp", "/tesk/router", "/run/tk"]),
    ("upnpd.service", ["/var/tmp", "/tmp", "/tesk/store"]),
    ("resolverd.service", ["/var/tmp", "/tmp"])))
def test_a_program_writes_only_where_its_unit_says(probed, name, folders):
    assert probed[name]["writable"] == folders


@pytest.mark.parametrize("name, families", (
    ("routerd.service", ["AF_UNIX", "AF_INET", "AF_INET6", "AF_NETLINK"]),
    ("upnpd.service", ["AF_UNIX", "AF_INET"]),
    ("resolverd.service", ["AF_UNIX", "AF_INET", "AF_INET6"])))
def test_a_program_makes_only_the_sockets_that_it_needs(probed, name, families):
    assert probed[name]["families"] == families


@pytest.mark.parametrize("name", SERVICES)
def test_what_no_program_needs_is_refused(probed, name):
    assert set(probed[name]["calls"].values()) == {"EPERM"}, probed[name]["calls"]


@pytest.mark.parametrize("name, descriptors", (
    ("routerd.service", 8192), ("upnpd.service", 16384), ("resolverd.service", 1024)))
def test_a_program_sees_only_itself(probed, name, descriptors):
    seen = probed[name]
    assert seen["devices"] == ["full", "null", "random", "tty", "urandom", "zero"]
    assert seen["proc"] == ["self", "thread-self"]
    assert (seen["other users"], seen["home"]) == ([], "EACCES")
    assert seen["limits"] == [descriptors, 0]


def test_only_the_router_may_run_other_programs_and_knows_other_users(probed):
    assert {name: seen["runs others"] for name, seen in probed.items()} == dict(zip(SERVICES, (True, False, False)))
    # A namespace of users of its own maps root and the program's user, and nobody else.
    assert {name: seen["users"] for name, seen in probed.items()} == dict(zip(SERVICES, (1, 2, 2)))
    ambient = {name: seen["ambient"] for name, seen in probed.items()}
    assert ambient == dict(zip(SERVICES, (NET_ADMIN, NOTHING, NOTHING)))
