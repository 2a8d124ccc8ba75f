"""Searches: the first answer, and how many are answered a second."""
import place as places
from samples import Sample

ECHO_PORT = 1901
ROUNDS = 3000
SUSTAINED = 50000
WINDOW = 32  # on their way at once


def measure(place):
    search = places.cp.search("upnp:rootdevice", mx="1")
    with place.lab.lan1.datagrams() as asker:
        asker.sendto(search.encode(), places.cp.GROUP)
        answer = asker.recv(65536)
    group = places.cp.GROUP[0]
    with place.floor("udp", answer, "--group", f"{places.labs.ROUTER_LAN},{group}", port=ECHO_PORT):
        ours, floor = (place.udp(search, group, port, count=ROUNDS) for port in (places.cp.GROUP[1], ECHO_PORT))
        yield Sample("first answer to a search, p50", "us", ours["p50"], floor["p50"], "UDP echo in the group", 1)
        ours, floor = (place.udp(search, group, port, count=SUSTAINED, window=WINDOW)["answersPerSecond"]
                       for port in (places.cp.GROUP[1], ECHO_PORT))
        yield Sample("searches, sustained", "answers/s", ours, floor, "UDP echo in the group", more_is_better=True)
