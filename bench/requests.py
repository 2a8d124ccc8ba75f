"""Plain requests: how many a second, the processor time of one, and the connections that meet a full queue."""
import place as places
from samples import Sample

MINIMAL = "minimal server"
COUNT = 6000  # requests of one measurement
LIMITS = {1: 1.15, 4: 1.1, 16: None}  # by how many are in flight
BURST_LIMIT = 2  # of the 80 connections of 5 bursts


def measure(place):
    requests = {"description": places.get("/gateway.xml"),
                "GetExternalIPAddress": places.soap(place.control, "GetExternalIPAddress")}
    for name, request in requests.items():
        answer = place.answer(request)
        with place.floor("http", answer) as minimal:
            for in_flight in LIMITS:
                yield from rates(place, name, request, in_flight, minimal)
        with place.floor("eager", answer):
            yield bursts(place, name, request)


def rates(place, name, request, in_flight, minimal):
    ours, busy = load(place, request, in_flight, place.lab.upnpd.process, places.cp.PORT)
    floor, minimal_busy = load(place, request, in_flight, minimal, places.FLOOR_PORT)
    yield Sample(f"{name}, {in_flight} in flight", "requests/s", ours["requestsPerSecond"], floor["requestsPerSecond"],
                 MINIMAL, LIMITS[in_flight], more_is_better=True)
    if in_flight == 1:
        yield Sample(f"{name}: processor time of a request", "us", busy, minimal_busy, MINIMAL)
    else:
        yield Sample(f"{name}, {in_flight} in flight: lost SYNs in {COUNT:,}", "", ours["lost"], floor["lost"], MINIMAL,
                     1 if in_flight == 4 else None)


def load(place, request, in_flight, process, port):
    """The client's figures, and the processor time that a request took, in microseconds."""
    before = places.processor_seconds(process)
    figures = place.http(request, port=port, count=COUNT, in_flight=in_flight)
    return figures, (places.processor_seconds(process) - before) / COUNT * 1e6


def bursts(place, name, request):
    ours, floor = (place.burst(request, port=port, size=16, bursts=5)["lost"]
                   for port in (places.cp.PORT, places.FLOOR_PORT))
    return Sample(f"{name}, 5 bursts of 16 connects: lost SYNs", "", ours, floor, "minimal server that accepts first",
                  BURST_LIMIT, absolute=True)
