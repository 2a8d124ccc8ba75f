"""What the clients may believe after a disturbance: for each mapping, all the states that it can be in.

A request that was answered before a crash began, or asked after it ended, leaves one state. A request that ran beside the
crash, or got no answer, leaves several; the router must then be in one of them.
"""
import collections
import dataclasses
import math

Key = collections.namedtuple("Key", "place port protocol")  # the place: an external interface, or another kind of owner
State = collections.namedtuple("State", "destination target targetPort enabled")

DONE, NO_SUCH_ENTRY = 200, 714


@dataclasses.dataclass
class Span:
    """A time in which something was disturbed, open until it is closed."""
    begun: float
    ended: float = math.inf
    what: str = ""

    def overlaps(self, other):
        return self.begun <= other.ended and other.begun <= self.ended


@dataclasses.dataclass
class Loss(Span):
    """At some moment in this time all mappings of these places were lost."""
    places: tuple = ()


@dataclasses.dataclass
class Held(Span):
    """An address that a place had."""
    place: str = ""
    address: str = ""


@dataclasses.dataclass
class Request(Span):
    key: Key = None
    wanted: State = None  # without a destination; none for a removal
    status: int = None  # none when no answer came

    def __str__(self):
        wanted = "remove"
        if self.wanted:
            wanted = f"to {self.wanted.target}:{self.wanted.targetPort}, enabled {self.wanted.enabled}"
        return f"{self.begun:.4f} to {self.ended:.4f} {tuple(self.key)} {wanted}: {self.status}"


class Contradiction(AssertionError):
    """Something was seen that is possible in none of the states."""


class Beliefs:
    """The possible states of all mappings that were ever asked for."""

    def __init__(self):
        self.states = {}  # those of each key; a key that is missing has no mapping
        self.requests, self.losses, self.disturbances, self.held = [], [], [], []

    def had(self, place, span):
        """The addresses that a mapping made in this time may have got."""
        return {held.address for held in self.held if held.place == place and held.overlaps(span)}

    def settle(self, present):
        """Compares with the state that each key really has. From now on that is the only possible one.

        Returns how many keys were compared, and how many of them could have been in several states.
        """
        requests = collections.defaultdict(list)
        for request in self.requests:
            requests[request.key].append(request)
        keys = set(requests) | set(self.states)
        for key in set(present) - keys:
            raise Contradiction(f"nobody asked for {tuple(key)}: {present[key]}")
        several = 0
        for key in keys:
            possible = self.possible(key, requests[key])
            several += len(possible) > 1
            if present.get(key) not in possible:
                told = "\n".join(map(str, [*requests[key], *self.losses, *self.disturbances]))
                raise Contradiction(f"{tuple(key)} is {present.get(key)}, but could only be one of {possible}; "
                                    f"it was {self.states.get(key, {None})} before\n{told}")
        self.states = {key: {state} for key, state in present.items()}
        now = max([span.ended for span in self.requests], default=0)
        self.requests, self.losses, self.disturbances = [], [], []
        self.held = [held for held in self.held if held.ended > now]
        return len(keys), several

    def possible(self, key, requests):
        """The states that a key can be in after these requests and all losses."""
        states = self.states.get(key, {None})
        losses = [loss for loss in self.losses if key.place in loss.places]
        pending = losses  # those that no request has met yet
        for request in sorted(requests, key=lambda request: request.begun):
            if any(loss.ended < request.begun for loss in pending):
                states = {None}
            beside = any(loss.overlaps(request) for loss in losses)
            pending = [loss for loss in pending if loss.begun > request.ended]
            # A loss beside the request came before its effect, or after it.
            states = self.after(request, states | {None}) | {None} if beside else self.after(request, states)
        return {None} if pending else states

    def after(self, request, states):
        """The states that the request can leave."""
        calm = not any(span.overlaps(request) for span in self.disturbances)
        if request.status == DONE:
            return self.done(request, states)
        if request.status is None and not calm:
            return states | self.done(request, states)
        if request.status == NO_SUCH_ENTRY and request.wanted is None:
            if None not in states:
                raise Contradiction(f"a mapping is gone that must be there: {request}")
            return {None}
        if calm:
            raise Contradiction(f"failed, though nothing disturbed it: {request}")
        return states

    def done(self, request, states):
        if request.wanted is None:
            if request.status == DONE and states == {None}:
                raise Contradiction(f"removed what cannot have been there: {request}")
            return {None}
        out = set()
        for state in states:  # a change leaves the destination as it was
            destinations = {state.destination} if state else self.had(request.key.place, request)
            out |= {request.wanted._replace(destination=address) for address in destinations}
        return out
