"""Interfaces and addresses: the bus tells what the kernel has, within a tenth of a second."""
import os
import signal
import subprocess
import time

import pytest

import bus
import labs
from labs import eventually

AGREEMENT = 0.1  # seconds from the kernel's change to the bus's word
NAME, INDEX, FLAGS, RUNNING, TYPE, DISPLAY = 0x10005, 0x10004, 0x10003, 0x1000E, 0x10001, 0x10006
NEXT, DELETED = 0xFE0003, 0xFE0013
GONE = 0x82


def knows(*kind):
    """True when this kernel can make such an interface."""
    return subprocess.run(["unshare", "-n", "ip", "link", "add", "t-try", "type", *kind], capture_output=True,
                          check=False).returncode == 0


PLAIN = "dummy" if knows("dummy") else "ifb"  # an interface with no other end, whose driver knows no state


@pytest.fixture(scope="module")
def lab(tmp_path_factory):
    made = labs.Lab(tmp_path_factory.mktemp("lab"))
    try:
        made.start_routerd()
        yield made
    finally:
        made.down()


@pytest.fixture
def client(lab):
    with bus.Client(lab) as connected:
        for path, command in (([20, 0], bus.INTERFACE_CHANGED), ([20, 0], bus.CHANGED), ([20, 1], bus.CHANGED)):
            connected.subscribe(path, command)
        yield connected


@pytest.fixture
def ip(lab):
    """Runs ip on the router, and removes what it made."""
    def run(*words):
        return subprocess.run(["ip", "-n", f"gw-{lab.name}-router", *map(str, words)], check=True, text=True,
                              capture_output=True, timeout=10).stdout
    yield run
    for line in run("-o", "link").splitlines():
        name = line.split(": ")[1].split("@")[0]
        if name.startswith("t-"):
            run("link", "del", name)


def told(client):
    """The next notification: its kind and its record."""
    message = client.next_notification()
    if message[bus.COMMAND] == bus.INTERFACE_CHANGED:
        return "interface", message
    assert message[bus.COMMAND] == bus.CHANGED and len(message[bus.OBJECTS]) == 1
    return ("status" if message[bus.SENDER] == [20, 0] else "address"), message[bus.OBJECTS][0]


def changes(client, count):
    """The next notifications, in short."""
    out = []
    for _ in range(count):
        kind, record = told(client)
        if kind == "interface":
            out.append(("gone" if record[FLAGS] == GONE else "there", record[NAME]))
        elif kind == "status":
            out.append((not record[bus.DISABLED], record[RUNNING]))
        else:
            out.append(("-" if record.get(DELETED) else "+") + record[1])
    return out


def status_within(client, wanted, seconds=AGREEMENT):
    """Waits for the status of up and running, within the time allowed."""
    start = time.monotonic()
    while (change := changes(client, 1)[0]) != wanted:
        assert isinstance(change, tuple), change
    elapsed = time.monotonic() - start
    assert elapsed < seconds, f"{elapsed * 1000:.0f} ms"


def get(client, identity):
    return client.call([20, 0], bus.GET_OBJECT, [(bus.OBJECT, bus.U32, identity)])


def nothing_more(client):
    client.socket.settimeout(0.15)
    with pytest.raises(TimeoutError):
        client.next_notification()
    client.socket.settimeout(10)


def test_an_interface_that_comes_back_has_its_id_and_a_new_index(client, ip):
    seen = []
    for _ in range(2):
        ip("link", "add", "t-ppp", "type", PLAIN)
        kind, record = told(client)
        assert (kind, record[NAME], record[FLAGS]) == ("interface", "t-ppp", 0)
        assert changes(client, 1) == [(False, False)]
        seen.append((record[bus.OBJECT], record[INDEX]))
        ip("address", "add", "203.0.113.9", "peer", "203.0.113.10", "dev", "t-ppp")
        ip("address", "add", "203.0.113.77/32", "dev", "t-ppp")
        assert changes(client, 2) == ["+203.0.113.9", "+203.0.113.77"]
        ip("link", "del", "t-ppp")
        assert sorted(changes(client, 2)) == ["-203.0.113.77", "-203.0.113.9"]
        assert changes(client, 1) == [("gone", "t-ppp")]
        with pytest.raises(bus.BusError):
            get(client, record[bus.OBJECT])
    assert seen[0][0] == seen[1][0] and seen[0][1] != seen[1][1]
    nothing_more(client)


def test_a_new_name_is_another_interface_and_the_old_one_keeps_its_id(client, ip):
    ip("link", "add", "t-old", "type", PLAIN)
    identity = told(client)[1][bus.OBJECT]
    changes(client, 1)
    ip("address", "add", "203.0.113.9/24", "dev", "t-old")
    assert changes(client, 1) == ["+203.0.113.9"]
    ip("link", "set", "t-old", "name", "t-new")
    assert changes(client, 2) == ["-203.0.113.9", ("gone", "t-old")]
    other = told(client)[1]
    assert (other[NAME], other[FLAGS]) == ("t-new", 0) and other[bus.OBJECT] != identity
    assert changes(client, 2) == [(False, False), "+203.0.113.9"]
    ip("link", "set", "t-new", "name", "t-old")
    assert changes(client, 2) == ["-203.0.113.9", ("gone", "t-new")]
    assert told(client)[1][bus.OBJECT] == identity


def test_several_addresses_come_and_go_one_by_one(client, ip):
    ip("link", "add", "t-many", "type", PLAIN)
    changes(client, 2)
    for address in ("203.0.113.9/24", "203.0.113.10/24", "203.0.113.10/25", "192.0.2.77/32"):
        ip("address", "add", address, "dev", "t-many")
    assert changes(client, 3) == ["+203.0.113.9", "+203.0.113.10", "+192.0.2.77"]
    ip("address", "del", "203.0.113.10/25", "dev", "t-many")
    nothing_more(client)
    ip("address", "del", "203.0.113.9/24", "dev", "t-many")  # the next one of its network takes its place
    assert changes(client, 1) == ["-203.0.113.9"]
    listed = [record[1] for record in client.call([20, 1], bus.GET_ALL)[bus.OBJECTS]]
    assert "203.0.113.10" in listed and "192.0.2.77" in listed and "203.0.113.9" not in listed
    # No mapping could lead from a link address.
    ip("address", "add", "169.254.7.7/16", "scope", "link", "dev", "t-many")
    nothing_more(client)


def test_an_interface_of_unknown_state_runs_when_it_is_up(client, ip, lab):
    ip("link", "add", "t-dummy", "type", PLAIN)
    changes(client, 2)
    ip("link", "set", "t-dummy", "up")
    status_within(client, (True, True))
    assert lab.router.run("cat", "/sys/class/net/t-dummy/operstate").stdout == "unknown\n"
    ip("link", "set", "t-dummy", "down")
    status_within(client, (False, False))


def test_a_tunnel_runs_when_somebody_serves_it(client, ip, lab):
    ip("tuntap", "add", "t-tun", "mode", "tun")
    changes(client, 2)
    ip("link", "set", "t-tun", "up")
    status_within(client, (True, False))
    serve = ("import fcntl, struct, sys; tun = open('/dev/net/tun', 'r+b', buffering=0);"
             "fcntl.ioctl(tun, 0x400454ca, struct.pack('16sH', b't-tun', 0x1001)); print('served', flush=True);"
             "sys.stdin.read()")
    server = subprocess.Popen(lab.router.command("python3", "-c", serve), stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    assert labs.next_line(server.stdout) == "served\n"
    status_within(client, (True, True))
    server.stdin.close()
    server.wait(10)
    # The kernel itself takes up to a second before it calls a tunnel without a server not running.
    status_within(client, (True, False), 1.5)
    assert "NO-CARRIER" in ip("link", "show", "t-tun")


def test_a_pair_runs_as_its_other_end_elsewhere_does(client, ip, lab):
    ip("link", "add", "t-veth", "type", "veth", "peer", "name", "t-peer", "netns", f"gw-{lab.name}-wan")
    changes(client, 2)
    ip("link", "set", "t-veth", "up")
    status_within(client, (True, False))
    peer = ("ip", "link", "set", "t-peer")
    for state, running in (("up", True), ("down", False), ("up", True)):
        lab.wan.run(*peer, state)
        status_within(client, (True, running))
    lab.wan.run("ip", "link", "del", "t-peer")
    while changes(client, 1)[0] != ("gone", "t-veth"):
        pass


def test_bridges_and_their_members_are_offered(client, ip):
    ip("link", "add", "t-bridge", "type", "bridge")
    ip("link", "add", "t-member", "type", PLAIN)
    changes(client, 4)
    ip("link", "set", "t-member", "master", "t-bridge", "up")
    status_within(client, (True, True))
    names = {record[NAME] for record in client.call([20, 0], bus.GET_ALL)[bus.OBJECTS]}
    assert {"t-bridge", "t-member", "lan0", "lanp1"} <= names and "lo" not in names


def test_vlans_are_offered(client, ip):
    try:
        ip("link", "add", "link", "lanp1", "name", "t-lan.7", "type", "vlan", "id", "7")
    except subprocess.CalledProcessError:
        pytest.skip("this kernel makes no VLANs")
    assert changes(client, 2)[0] == ("there", "t-lan.7")


def test_an_alias_is_the_display_name(client, ip):
    ip("link", "add", "t-alias", "type", PLAIN)
    changes(client, 2)
    ip("link", "set", "t-alias", "up")  # the kernel does not tell it of one that is down
    status_within(client, (True, True))
    ip("link", "set", "t-alias", "alias", "the uplink")
    kind, record = told(client)
    assert (kind, record[NAME], record[DISPLAY], record[FLAGS]) == ("interface", "t-alias", "the uplink", 0)


def test_disabled_brings_the_link_down_and_up(client, ip):
    ip("link", "add", "t-switch", "type", PLAIN)
    identity = told(client)[1][bus.OBJECT]
    changes(client, 1)
    for disabled in (False, True):
        client.call([20, 0], bus.SET_OBJECT, [(bus.OBJECT, bus.U32, identity), (bus.DISABLED, bus.BOOL, disabled)])
        status_within(client, (not disabled, not disabled))
        assert ("UP" in ip("link", "show", "t-switch").split(">")[0]) is not disabled


def test_a_long_list_has_several_pages(client, ip, lab):
    lines = "".join(f"link add t-{number} type {PLAIN}\n" for number in range(150))
    subprocess.run(["ip", "-n", f"gw-{lab.name}-router", "-batch", "-"], input=lines, text=True, check=True, timeout=30)
    eventually(lambda: client.call([20, 0], bus.GET_COUNT)[bus.COUNT] >= 155, "all are known")
    for command in (1, bus.GET_ALL):
        names, sizes, start = [], [], []
        while True:
            page = client.call([20, 0], command, start)
            names += [record[NAME] for record in page[bus.OBJECTS]]
            sizes.append(len(page[bus.OBJECTS]))
            if NEXT not in page:
                break
            start = [(NEXT, bus.U32, page[NEXT])]
        assert len(sizes) == 3 and sizes[:2] == [64, 64]
        assert len(names) == len(set(names)) and {f"t-{number}" for number in range(150)} <= set(names)


def test_lost_notifications_are_made_up_for(client, ip, lab):
    """The router stands still while more happens than the kernel keeps for it. Afterwards they agree again."""
    ip("link", "add", "t-kept", "type", PLAIN)
    ip("link", "add", "t-lost", "type", PLAIN)
    changes(client, 4)
    identity = lab.interface_id("t-kept")
    os.kill(lab.routerd.process.pid, signal.SIGSTOP)
    try:
        churn = "".join(f"address {verb} 203.0.113.9/24 dev t-kept\nlink set t-kept {state}\n"
                        for _ in range(2000) for verb, state in (("add", "up"), ("del", "down")))
        subprocess.run(["ip", "-n", f"gw-{lab.name}-router", "-batch", "-"], input=churn, text=True, check=True,
                       timeout=60)
        ip("link", "del", "t-lost")
        ip("link", "set", "t-kept", "up")
        ip("address", "add", "203.0.113.77/24", "dev", "t-kept")
        ip("link", "add", "t-late", "type", PLAIN)
    finally:
        os.kill(lab.routerd.process.pid, signal.SIGCONT)
    heard = []
    while "+203.0.113.77" not in heard or ("there", "t-late") not in heard:
        heard += changes(client, 1)
    assert ("gone", "t-lost") in heard
    assert len(heard) < 8000, "some were lost, or this shows nothing"
    record = get(client, identity)
    assert (record[bus.DISABLED], record[RUNNING]) == (False, True)
    listed = [record[1] for record in client.call([20, 1], bus.GET_ALL)[bus.OBJECTS]]
    assert "203.0.113.77" in listed and "203.0.113.9" not in listed


def test_ids_are_the_same_after_a_restart(lab, ip):
    before = {record["name"]: record["id"] for record in lab.query("interface", "list")}
    lab.routerd.kill()
    lab.start_routerd()
    assert {record["name"]: record["id"] for record in lab.query("interface", "list")} == before
