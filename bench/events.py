"""Events: from the answer of the request that brings them until the last subscriber has its own."""
import contextlib

import place as places
import subscribers
from samples import Sample

ROUNDS = 500
PORT = 5000  # of every subscriber
SUBSCRIBERS = [f"192.0.2.{number}" for number in range(101, 117)]  # one subscription has an address of its own
MINIMAL = "minimal server's one"


def measure(place):
    with addresses(place):
        yield initial(place)
        for count, limit in ((1, None), (len(SUBSCRIBERS), len(SUBSCRIBERS))):
            yield change(place, count, limit)


@contextlib.contextmanager
def addresses(place):
    """Gives lan1 the subscribers' addresses."""
    for verb in ("add", "delete"):
        for address in SUBSCRIBERS:
            place.lab.lan1.run("ip", "address", verb, f"{address}/32", "dev", "eth0")
        if verb == "add":
            yield


def initial(place):
    request = subscription(place, SUBSCRIBERS[0])
    undo = f"UNSUBSCRIBE {place.events} HTTP/1.1\r\nHOST: {places.labs.ROUTER_LAN}:{places.cp.PORT}\r\nSID: @SID@\r\n\r\n"
    ours = place.notified(request, count=ROUNDS, undo=place.file(undo))
    return Sample("initial event after the answer, p50", "us", ours["p50"], minimal(place, request), MINIMAL)


def change(place, count, limit):
    """Mappings come and go, and each time their number is told."""
    sids = [subscribe(place, address) for address in SUBSCRIBERS[:count]]
    requests = places.add_mapping(place.control), places.delete_mapping(place.control)
    try:
        ours = place.notified(*requests, ports=f"{places.FIRST_PORT}-{places.FIRST_PORT + ROUNDS // 2 - 1}",
                              subscribers=count)
    finally:
        for sid in sids:
            subscribers.unsubscribe(place.lab.lan1, place.events, sid)
    text = f"change event to {count} subscribers, all delivered" if count > 1 else "change event to 1 subscriber"
    return Sample(f"{text}, p50", "us", ours["p50"], minimal(place, requests[0]), MINIMAL, limit)


def subscription(place, address):
    lines = [f"SUBSCRIBE {place.events} HTTP/1.1", f"HOST: {places.labs.ROUTER_LAN}:{places.cp.PORT}",
             f"CALLBACK: <http://{address}:{PORT}/notify>", "NT: upnp:event", "TIMEOUT: Second-1800"]
    return "\r\n".join([*lines, "", ""])


def subscribe(place, address):
    """Subscribes for the address, takes the first event, and returns the id."""
    with contextlib.closing(subscribers.Subscriber(place.lab.lan1, PORT, address=address)) as subscriber:
        sid = subscribers.sid_of(place.answer(subscription(place, address)).decode())
        subscriber.next()
    return sid


def minimal(place, request):
    """The same from a server that does nothing but answer and deliver one event."""
    notify = subscribers.notification("uuid:5f0a0f3c-52d2-4d6b-9f6b-0d6f4e0a8b11", 1,
                                      [("PortMappingNumberOfEntries", "1")], SUBSCRIBERS[0], PORT)
    answer = subscribers.granted("uuid:5f0a0f3c-52d2-4d6b-9f6b-0d6f4e0a8b11")
    with place.floor("events", answer, "--notify", place.file(notify), "--subscriber", f"{SUBSCRIBERS[0]}:{PORT}"):
        return place.notified(request, port=places.FLOOR_PORT, count=ROUNDS)["p50"]
