"""The rules themselves: what is refused, what stays, what goes, and what it costs."""
import time

import pytest

import bus
import labs
from labs import ROUTER_WAN, WAN, eventually

EXISTS, REFUSED = 0xFE0009, 0xFE0003


@pytest.fixture
def router(bare_lab):
    bare_lab.start_routerd()
    return bare_lab


def elements(lab):
    """How many rules the kernel has: each is in its map, and in its set of live rules."""
    mapped, live = (lab.router.run("nft", "list", *words, check=False).stdout.count(f"{ROUTER_WAN} . ")
                    for words in (("map", "ip", "tk", "dstnat"), ("set", "ip", "tk", "live")))
    assert mapped == live
    return mapped


def test_two_enabled_rules_of_one_port_are_refused(router):
    with bus.Client(router) as client:
        first = client.add_rule(80)
        with pytest.raises(bus.BusError) as refused:
            client.add_rule(80, "192.0.2.3")
        assert refused.value.code == EXISTS
        assert refused.value.text == f"tcp {ROUTER_WAN}:80 is mapped already, by rule {first}"
        client.add_rule(80, protocol=bus.UDP)
        disabled = client.add_rule(80, "192.0.2.3", disabled=True)
        assert elements(router) == 2
        with pytest.raises(bus.BusError):
            client.call([20, 5], bus.SET_OBJECT, [(bus.OBJECT, bus.U32, disabled), (bus.DISABLED, bus.BOOL, False)])
        client.call([20, 5], bus.REMOVE, [(bus.OBJECT, bus.U32, first)])
        client.call([20, 5], bus.REMOVE, [(bus.OBJECT, bus.U32, first)])
        client.call([20, 5], bus.SET_OBJECT, [(bus.OBJECT, bus.U32, disabled), (bus.DISABLED, bus.BOOL, False)])
        assert elements(router) == 2 and client.add_rule(81) > disabled


def test_dynamic_rules_go_with_their_connection_and_static_ones_stay(router):
    client = bus.Client(router)
    client.add_rule(80)
    client.add_rule(81)
    kept = client.add_rule(82, dynamic=False)
    assert elements(router) == 3
    client.socket.close()
    eventually(lambda: elements(router) == 1, "the dynamic rules are gone")
    assert [rule["id"] for rule in router.rules()] == [kept]


def test_static_rules_are_back_after_a_restart_and_pass_packets(router):
    with bus.Client(router) as client:
        kept = client.add_rule(80, dynamic=False)
        off = client.add_rule(81, dynamic=False, disabled=True)
        client.add_rule(82)
    router.routerd.kill()
    assert router.table() == ""
    router.start_routerd()
    assert [(rule["id"], rule["disabled"], rule["dynamic"]) for rule in router.rules()] == [
        (kept, False, False), (off, True, False)]
    assert elements(router) == 1
    with router.lan1.listen(8080) as server, router.wan.connect(ROUTER_WAN, 80):
        assert server.accept()[1][0] == WAN
    with bus.Client(router) as client:
        assert client.add_rule(90) > off


def test_many_rules_go_with_their_connection_in_a_container_too(bare_lab):
    """Its root may not make a socket's buffers larger than anybody else may."""
    group = bare_lab.directory / "group"  # the bus's own does not exist there
    group.write_text("root:x:0:\n")
    script = (f"mount --bind {group} /etc/group; ip link add lan0 type veth peer name lan1; ip link set lan1 up; "
              "ip address add 192.0.2.1/24 dev lan0; ip link set lan0 up; exec \"$0\"")
    bare_lab.routerd = labs.Program(bare_lab, "routerd", wrapper=("unshare", "--user", "--map-root-user", "--net",
                                                                  "--mount", "sh", "-c", script))
    eventually(bare_lab.bus_answers, "routerd serves")
    with bus.Client(bare_lab, seconds=60) as watcher:
        with bus.Client(bare_lab, seconds=60) as owner:
            asked = [owner.request([20, 5], bus.ADD, bus.rule(port)) for port in range(1, 20001)]
            assert all(owner.end(number)[bus.KIND] == bus.REPLY for number in asked)
            assert watcher.count_rules() == 20000
        eventually(lambda: watcher.count_rules() == 0, "the rules are gone")


def test_no_rule_outlives_a_killed_router(router):
    with bus.Client(router) as client:
        client.add_rule(80)
        assert elements(router) == 1
        router.routerd.kill()
    assert router.table() == ""


def test_a_flush_of_the_ruleset_leaves_the_rules_alone(router):
    with bus.Client(router) as client, router.lan1.listen(8080) as server:
        client.add_rule(80)
        router.router.run("nft", "flush", "ruleset", check=False)
        assert elements(router) == 1
        with router.wan.connect(ROUTER_WAN, 80):
            server.accept()
        client.add_rule(81)
        assert elements(router) == 2


def test_another_firewall_comes_and_goes_beside_ours(router):
    with bus.Client(router) as client, router.lan1.listen(8080) as server:
        client.add_rule(80)
        for _ in range(2):
            router.router.run("nft", "add table ip other; add chain ip other forward "
                              "{ type filter hook forward priority 0; policy accept; }")
            router.router.run("nft", "delete table ip other")
        with router.wan.connect(ROUTER_WAN, 80):
            server.accept()


def test_every_port_of_each_protocol_can_be_mapped_and_the_last_costs_what_the_first_did(router):
    """Requests are sent in series of a thousand. The time of a series is that of its slowest part, the kernel."""
    def series(client, protocol, ports):
        start = time.monotonic()
        numbers = [client.request([20, 5], bus.ADD, bus.rule(port, protocol=protocol)) for port in ports]
        for number in numbers:
            assert client.end(number)[bus.KIND] == bus.REPLY
        return time.monotonic() - start

    with bus.Client(router, seconds=60) as client:
        times = [series(client, protocol, range(first, min(first + 1000, 65536)))
                 for protocol in (bus.TCP, bus.UDP) for first in range(1, 65536, 1000)]
        assert client.count_rules() == elements(router) == 2 * 65535
        early, late = sorted(times[:10])[5], sorted(times[-11:-1])[5]
        assert late < early * 2 + 0.05, f"the first thousand: {early:.3f} s, the last: {late:.3f} s"
        with router.lan1.listen(8080) as server, router.wan.connect(ROUTER_WAN, 65535):
            server.accept()
    # All of them go with the connection, in one transaction.
    with bus.Client(router, seconds=60) as client:
        eventually(lambda: client.count_rules() == 0, "the rules are gone")
    assert elements(router) == 0
    assert router.routerd.running()
