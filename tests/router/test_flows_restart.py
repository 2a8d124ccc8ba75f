"""Flows and the end of the router, and its next start."""
import contextlib

import pytest

import bus
import labs
import uplink
from control_point import call, mapping, result
from flows import Talk, connection, is_reset, passes, translate_too
from labs import LAN2, ROUTER_WAN, eventually
from routerusers import configure


def test_flows_that_are_alive_end_with_the_router_and_the_others_at_its_next_start(router):
    with bus.Client(router) as client, router.lan1.listen(8080) as server, router.lan1.datagrams(5353) as datagrams:
        client.add_rule(80)
        client.add_rule(53, target_port=5353, protocol=bus.UDP)
        alive, idle = connection(router, server), connection(router, server)
        talk = Talk(router)
        assert talk.reaches(datagrams)
        router.routerd.process.terminate()
        while router.routerd.running():
            talk.send()
            with contextlib.suppress(OSError):
                alive[0].send(b"x")
        assert router.routerd.wait() == 0
        assert is_reset(alive[0])
        assert router.table() == ""
        assert not talk.reaches(datagrams)
        router.start_routerd()
        assert is_reset(idle[0])


@pytest.mark.parametrize("beside", [False, True])
def test_flows_that_a_killed_router_left_end_at_its_next_start_and_no_others_do(router, beside):
    if beside:
        translate_too(router, f"ip daddr {ROUTER_WAN} udp dport 55 dnat to {LAN2}:5555",
                      f"ip daddr {ROUTER_WAN} tcp dport 81 dnat to {LAN2}:8181")
    with (router.lan1.datagrams(5353) as server, router.lan1.datagrams(5454) as kept, router.lan1.listen(8080) as web,
          router.lan1.listen(8888) as kept_web, router.lan2.datagrams(5555) as theirs, router.lan2.listen(8181) as other):
        with bus.Client(router) as client:
            client.add_rule(53, target_port=5353, protocol=bus.UDP)
            client.add_rule(80)
            client.add_rule(54, target_port=5454, protocol=bus.UDP, dynamic=False)
            client.add_rule(88, target_port=8888, dynamic=False)
            goes, stays, his = Talk(router), Talk(router, 54), Talk(router, 55)
            near, far = connection(router, web)
            stored = connection(router, kept_web, 88)
            of_other = connection(router, other, 81) if beside else None
            assert goes.reaches(server) and stays.reaches(kept)
            assert his.reaches(theirs) == beside
            router.routerd.kill()
        assert goes.reaches(server) and passes(near, far), "the kernel keeps to what it has once decided"
        router.start_routerd()
        assert not goes.reaches(server)
        assert is_reset(near)
        assert stays.reaches(kept)
        assert passes(*stored) and passes(stored[1], stored[0])
        if beside:
            assert his.reaches(theirs) and passes(*of_other)


def test_flows_end_when_the_router_ends_the_daemon(bare_lab):
    """A daemon that the router started is ended with it, and its flows too."""
    uplink.masquerade(bare_lab)
    bare_lab.start_routerd(*configure(bare_lab, f"""
        [[program]]
        number = 80
        command = ["{labs.BIN}/upnpd"]
        """))
    bare_lab.tkctl("upnp", "interface", "add", "lan0", "internal")
    bare_lab.tkctl("upnp", "interface", "add", "wan0", "external")
    bare_lab.tkctl("upnp", "set", "enabled=yes")
    path = f"/upnp/control/wanipconn-{bare_lab.interface_id('wan0')}"
    arguments = mapping(external=53, protocol="UDP", internal=5353)
    answers = []

    def mapped():
        try:
            answers.append(call(bare_lab.lan1, path, "AddPortMapping", arguments))
        except OSError:
            return False
        return answers[-1] == result("AddPortMapping")
    eventually(mapped, f"a mapping is made: {answers[-1:]}")
    with bare_lab.lan1.datagrams(5353) as server:
        talk = Talk(bare_lab)
        eventually(lambda: talk.reaches(server), "the flow begins")
        bare_lab.routerd.process.terminate()
        while bare_lab.routerd.running():
            talk.send()
        assert bare_lab.routerd.wait() == 0
        assert not talk.reaches(server)
