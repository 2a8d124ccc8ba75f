"""What packets cost: the first of a flow through a mapping, and those that follow."""
import contextlib
import json
import statistics
import subprocess
import tempfile

import mappings
import place as places
from samples import Sample

import labs

COUNTS = (10000, 60000)  # mappings that there are, beside 1
SLICES = 20              # ours and the floor in turn, so that drift meets both
FLOWS = 1000             # new ones in a slice
PACKETS = 3000           # of one flow in a slice, there and back
PORT = 5000
SOURCES = range(1024, 60000, FLOWS)
PLAIN = f"""
add table ip plain
add chain ip plain prerouting {{ type nat hook prerouting priority dstnat; }}
add rule ip plain prerouting ip daddr {labs.ROUTER_WAN} udp dport {PORT} dnat to {labs.LAN1}:{PORT}
"""


def measure(_):
    with mapped(1) as one, plain() as floor:
        ours, there = alternately(established, one, floor)
        yield Sample("packet of a mapped flow, there and back", "us", ours, there, "plain DNAT", 1.08)
        ours, there = alternately(new_flows, one, floor)
        yield Sample("first packet of a flow, 1 mapping", "us", ours, there, "plain DNAT")
        for count in COUNTS:
            with mapped(count) as many:
                ours, there = alternately(new_flows, many, one)
                yield Sample(f"first packet of a flow, {count:,} mappings", "us", ours, there, "at 1 mapping", 1.05)


@contextlib.contextmanager
def mapped(count):
    """A router with so many mappings; one of them is that of the port."""
    with places.serving() as place:
        place.http(places.add_mapping(place.control, protocol="UDP"), ports=f"{PORT}-{PORT}")
        if count > 1:
            mappings.fill(place, 0, count - 1)
        forget_soon(place.lab)
        yield place.lab


@contextlib.contextmanager
def plain():
    """A router that maps the port by a rule, and runs none of our programs."""
    with tempfile.TemporaryDirectory() as directory:
        lab = labs.Lab(directory)
        try:
            lab.router.run("nft", PLAIN)
            forget_soon(lab)
            yield lab
        finally:
            lab.down()


def forget_soon(lab):
    """A source port that is used again begins a new flow."""
    lab.router.run("sysctl", "-qw", "net.netfilter.nf_conntrack_udp_timeout=1")


def alternately(figure, *measured):
    """The figure of each lab."""
    taken = {lab: [] for lab in measured}
    for number in range(SLICES):
        for lab, times in taken.items():
            times.append(figure(lab, number))
    return [statistics.median(times) for times in taken.values()]


def established(lab, _):
    return datagrams(lab, "--count", PACKETS)


def new_flows(lab, number):
    return datagrams(lab, "--count", FLOWS, "--sources", SOURCES[number % len(SOURCES)])


def datagrams(lab, *words):
    """The time of one from wan to lan1, p50."""
    spaces = (f"/run/netns/gw-{lab.name}-{host}" for host in ("wan", "lan1"))
    command = [places.PROGRAMS / "packets", "--from", next(spaces), "--at", next(spaces),
               "--to", f"{labs.ROUTER_WAN}:{PORT}", "--listen", PORT, *words]
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True, timeout=60,
                          preexec_fn=places.stay_on(places.CLIENT_CORES))
    assert done.returncode == 0, done.stderr
    return json.loads(done.stdout)["p50"]
