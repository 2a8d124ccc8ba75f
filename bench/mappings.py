"""What mappings cost when there are many, and when the kernel tracks many connections."""
import contextlib
import statistics
import time

import place as places
from samples import Sample

import labs

COUNTS = (1000, 10000, 60000)  # mappings that there are, beside 1
CONNECTIONS = 60000
FILLED_FROM = 1024
MEASURED = "62000-62399"       # ports that stay free
SLICES = 8                     # ours and the floor in turn, so that drift meets both
ENUMERATION_LIMITS = {10000: 1.2}
DESCRIPTION = "libutp"         # 60,000 of these are within what one host may describe
INVALID_INDEX = "713"
ACTIONS = ("AddPortMapping", "GetSpecificPortMappingEntry", "DeletePortMapping")


def measure(_):
    with gateway(1) as alone:
        yield against_plain_request(alone)
    with gateway(1) as one, gateway(1) as busy, gateway(0) as many:
        filled = 0
        for count in COUNTS:
            fill(many, filled, count)
            filled = count
            yield from compare(f"at {count:,} mappings", many, one, limited=count == COUNTS[-1])
            yield enumeration(many, count)
        track(busy, CONNECTIONS)
        yield from compare(f"with {CONNECTIONS:,} connections", busy, one, limited=True)
        track(many, CONNECTIONS)
        yield from compare(f"at {COUNTS[-1]:,} mappings, with {CONNECTIONS:,} connections", many, one, limited=True)


@contextlib.contextmanager
def gateway(count):
    with places.serving() as place:
        if count:
            fill(place, 0, count)
        yield place


def fill(place, present, wanted):
    place.http(places.add_mapping(place.control, description=DESCRIPTION),
               ports=f"{FILLED_FROM + present}-{FILLED_FROM + wanted - 1}")


def requests(place):
    """One for each action, in the order in which they are possible."""
    key = [("NewRemoteHost", ""), ("NewExternalPort", "@PORT@"), ("NewProtocol", "TCP")]
    added = places.add_mapping(place.control, description=DESCRIPTION)
    return [added, *(places.soap(place.control, action, key) for action in ACTIONS[1:])]


def compare(circumstances, ours, floor, limited):
    """The three actions here and at one mapping without other connections."""
    times = {place: [[] for _ in ACTIONS] for place in (ours, floor)}
    for _ in range(SLICES):
        for place, taken in times.items():
            for request, figures in zip(requests(place), taken):
                figures.append(place.http(request, ports=MEASURED))
    for number, action in enumerate(ACTIONS):
        for quantile in ("p50", "p99"):
            here, there = (statistics.median(figures[quantile] for figures in times[place][number])
                           for place in (ours, floor))
            yield Sample(f"{action} {circumstances}, {quantile}", "us", here, there, "at 1 mapping",
                         1.1 if limited else None)


def against_plain_request(place):
    plain = places.soap(place.control, "GetExternalIPAddress")
    added, _, deleted = requests(place)
    ours, floor = [], []
    for _ in range(SLICES):
        ours.append(place.http(added, ports=MEASURED)["p50"])
        floor.append(place.http(plain, count=400)["p50"])
        place.http(deleted, ports=MEASURED)
    return Sample("AddPortMapping, p50", "us", statistics.median(ours), statistics.median(floor),
                  "GetExternalIPAddress", 1.6)


def enumeration(place, count):
    """Index by index until there is no more. The first entry is none of the mappings."""
    entries = count + 1
    entry = places.soap(place.control, "GetGenericPortMappingEntry", [("NewPortMappingIndex", "@INDEX@")])
    ours = place.http(entry, indexes=f"0-{entries - 1}")["seconds"]
    past = places.soap(place.control, "GetGenericPortMappingEntry", [("NewPortMappingIndex", entries)])
    assert f"<errorCode>{INVALID_INDEX}<".encode() in place.answer(past), f"there are more than {count} mappings"
    floor = place.http(places.soap(place.control, "GetExternalIPAddress"), count=entries)["seconds"]
    return Sample(f"enumeration of {count:,}", "s", ours, floor, "as many GetExternalIPAddress",
                  ENUMERATION_LIMITS.get(count))


def track(place, count):
    """Makes the router track so many connections: datagrams from the WAN, each to a port of its own."""
    lab = place.lab
    lab.router.run("sysctl", "-qw", "net.netfilter.nf_conntrack_udp_timeout=3600")
    with lab.wan.datagrams() as sender, lab.wan.datagrams() as other:
        for number in range(count):
            chosen = sender if number < count // 2 else other
            chosen.sendto(b"x", (labs.ROUTER_WAN, 1 + number % (count // 2)))
            if number % 100 == 0:
                time.sleep(0.001)  # the receive queue of a veth is short
    tracked = int(lab.router.run("cat", "/proc/sys/net/netfilter/nf_conntrack_count").stdout)
    assert tracked >= count * 0.95, f"{tracked} of {count} connections are tracked"
