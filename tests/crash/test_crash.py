"""The short version of tests/crash/run, and proof that its checks find what they look for."""
import os
import random
import signal

import pytest

import bus
import rounds


def test_thirty_rounds_leave_nothing_behind_and_lose_nothing(tmp_path):
    seed = random.SystemRandom().randrange(1 << 31)
    print(f"seed {seed}")
    print(rounds.run(tmp_path, seed, 30))


@pytest.fixture(scope="module")
def shared_world(tmp_path_factory):
    """A world after a round of undisturbed work."""
    made = rounds.World(tmp_path_factory.mktemp("lab"), 1)
    try:
        made.up()
        made.finish(made.work("calm", 40), at_once=False)
        made.reckon(random.Random(1))
        yield made
    finally:
        made.down()


@pytest.fixture
def world(shared_world):
    """A world that is in order before and after the test, but not during it."""
    yield shared_world
    shared_world.reckon(random.Random(1))


@pytest.fixture
def client(world):
    with bus.Client(world.lab) as connected:
        yield connected


def fails(world, text):
    with pytest.raises(AssertionError, match=text):
        world.reckon(random.Random(1))


def test_a_rule_that_nobody_asked_for_is_seen(world, client):
    added = client.add_rule(999, destination="198.51.100.1")
    fails(world, "only the router's: .*999")
    client.call([20, 5], bus.REMOVE, [(bus.OBJECT, bus.U32, added)])


def test_a_rule_that_is_gone_is_seen(world, client):
    rule = next(rule for rule in world.lab.rules() if rule["dstAddress"] == rounds.OWN_ADDRESSES[rounds.STORED])
    client.call([20, 5], bus.REMOVE, [(bus.OBJECT, bus.U32, rule["id"])])
    fails(world, f"{rule['dstPort']}.* is None")
    again = client.add_rule(rule["dstPort"], rule["toAddress"], rule["toPort"], destination=rule["dstAddress"],
                            dynamic=False, disabled=rule["disabled"])
    fails(world, f"was rule {rule['id']}, is {again}")
    key = world.key_of(rule)
    world.rules.stored[key] = again


def test_an_element_too_many_or_too_few_is_seen(world):
    listed = world.lab.rules()
    world.compare_kernel(listed)
    enabled = [rule for rule in listed if not rule["disabled"]]
    for told in ([rule for rule in listed if rule is not enabled[0]], [*listed, {**enabled[0], "dstPort": 1}],
                 [{**rule, "toPort": 1} if rule is enabled[0] else rule for rule in listed]):
        with pytest.raises(AssertionError):
            world.compare_kernel(told)


def test_a_flow_that_goes_on_without_a_rule_is_seen(world):
    address = world.router.addresses["wan0"]
    world.lab.router.run("nft", "add table ip other; "
                                "add chain ip other in { type nat hook prerouting priority -110; }; "
                                f"add rule ip other in ip daddr {address} udp dport 1999 dnat to 192.0.2.2:8000")
    flow = rounds.Flow(world.lab.wan, rounds.Key("wan0", 1999, "udp"), address)
    world.flows.append(flow)
    fails(world, "goes to 192.0.2.2:8000, not to None")
    world.flows.remove(flow)
    flow.close()
    world.lab.router.run("nft", "delete", "table", "ip", "other")


def test_a_daemon_that_does_not_recover_is_seen(world):
    number, = world.router.processes("upnpd")
    os.kill(number, signal.SIGSTOP)
    try:
        world.told, world.router.started = ["stop"], rounds.time.monotonic()
        with pytest.raises(AssertionError, match="no new mapping passes packets"):
            world.recover(1)
    finally:
        os.kill(number, signal.SIGCONT)
    # The daemon answers late what it was asked in the meantime.
    rounds.delete_mapping(world.lab.lan1, world.interfaces["wan0"], rounds.PROBE_PORTS + 1, "tcp")
    rounds.labs.eventually(lambda: all(rule["dstPort"] != rounds.PROBE_PORTS + 1 for rule in world.lab.rules()))
