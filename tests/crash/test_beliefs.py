"""The reckoning itself: what is possible after which requests and crashes, and what it must not let pass."""
import pytest

from beliefs import Beliefs, Contradiction, Held, Key, Loss, Request, Span, State

KEY = Key("wan0", 80, "tcp")
WANTED = State(None, "192.0.2.2", 8080, True)
OTHER = WANTED._replace(targetPort=9090)


def at(address, wanted=WANTED):
    return wanted._replace(destination=address)


FIRST, SECOND = "198.51.100.1", "198.51.100.11"


def added(begun, ended, wanted=WANTED, status=200):
    return Request(begun, ended, "", KEY, wanted, status)


def deleted(begun, ended, status=200):
    return Request(begun, ended, "", KEY, None, status)


def beliefs(*requests, losses=(), disturbances=()):
    made = Beliefs()
    made.held = [Held(0, place="wan0", address=FIRST)]
    made.requests = list(requests)
    made.losses = [Loss(*times, "loss", ("wan0",)) for times in losses]
    made.disturbances = [Span(*times) for times in (*losses, *disturbances)]
    return made


@pytest.mark.parametrize("made, states", [
    (beliefs(added(1, 2)), {at(FIRST)}),
    (beliefs(added(1, 2), added(3, 4, OTHER)), {at(FIRST, OTHER)}),
    (beliefs(added(1, 2), deleted(3, 4)), {None}),
    (beliefs(deleted(1, 2, 714)), {None}),
    # A crash after it, before it, and beside it.
    (beliefs(added(1, 2), losses=[(3, 4)]), {None}),
    (beliefs(added(3, 4), losses=[(1, 2)]), {at(FIRST)}),
    (beliefs(added(1, 3), losses=[(2, 4)]), {at(FIRST), None}),
    (beliefs(added(1, 2), losses=[(3, 4), (5, 6)]), {None}),
    (beliefs(added(1, 2), added(5, 6, OTHER), losses=[(3, 4)]), {at(FIRST, OTHER)}),
    (beliefs(added(1, 3), added(4, 6, OTHER), losses=[(2, 5)]), {at(FIRST, OTHER), None}),
    (beliefs(added(1, 3), losses=[(2, 4), (5, 6)]), {None}),
    # No answer, or a refusal, while something was disturbed.
    (beliefs(added(1, 3, status=None), disturbances=[(2, 4)]), {at(FIRST), None}),
    (beliefs(added(1, 3, status=501), disturbances=[(2, 4)]), {None}),
    (beliefs(added(1, 2), deleted(5, 6, None), disturbances=[(3, 6)]), {at(FIRST), None}),
])
def test_states_are_as_tabled(made, states):
    assert made.possible(KEY, made.requests) == states


@pytest.mark.parametrize("made", [
    beliefs(added(1, 2, status=None)),
    beliefs(added(1, 2, status=501)),
    beliefs(added(1, 2, status=501), disturbances=[(3, 4)]),
    beliefs(added(1, 2), deleted(3, 4, 714)),
    beliefs(deleted(1, 2)),
    beliefs(added(1, 2), deleted(5, 6), losses=[(3, 4)]),
])
def test_what_fails_or_succeeds_without_a_reason_is_a_contradiction(made):
    with pytest.raises(Contradiction):
        made.possible(KEY, made.requests)


def test_a_mapping_takes_an_address_of_its_time_and_keeps_it():
    made = beliefs(added(1, 2), added(5, 6, OTHER))
    made.held = [Held(0, 3, place="wan0", address=FIRST), Held(3, place="wan0", address=SECOND)]
    assert made.possible(KEY, made.requests) == {at(FIRST, OTHER)}
    later = beliefs(added(5, 6))
    later.held = made.held
    assert later.possible(KEY, later.requests) == {at(SECOND)}


@pytest.mark.parametrize("made, present", [
    (beliefs(), {KEY: at(FIRST)}),
    (beliefs(added(1, 2)), {}),
    (beliefs(added(1, 2)), {KEY: at(SECOND)}),
    (beliefs(added(1, 2)), {KEY: at(FIRST, OTHER)}),
    (beliefs(added(1, 2)), {KEY: at(FIRST)._replace(enabled=False)}),
    (beliefs(added(1, 2), losses=[(3, 4)]), {KEY: at(FIRST)}),
])
def test_what_differs_from_every_possible_state_is_a_contradiction(made, present):
    with pytest.raises(Contradiction):
        made.settle(present)


def test_what_was_seen_is_all_that_is_possible_from_then_on():
    made = beliefs(added(1, 3), losses=[(2, 4)])
    assert made.settle({KEY: at(FIRST)}) == (1, 1)
    assert made.settle({KEY: at(FIRST)}) == (1, 0)
    with pytest.raises(Contradiction):
        made.settle({})
