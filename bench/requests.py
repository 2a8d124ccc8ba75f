"""Plain requests: how many a second, the processor time of one, and the connections that meet a full queue."""
import place as places
from samples import Sample

MINIMAL = "minimal server"
COUNTS = {1: 5000, 4: 20000, 16: 5000}  # requests, by how many are in flight
LIMITS = {1: 1.15, 4: 1.1}
BURST_LIMIT = 2  # of the 80 connections of 5 bursts


def measure(place):
    requests = {"description": places.get("/gateway.xml"),
                "GetExternalIPAddress": places.soap(place.control, "GetExternalIPAddress")}
    for name, request in requests.items():
        answer = place.answer(request)
        with place.floor("http", answer) as minimal:
            for in_flight in COUNTS:
                yield from rates(place, name, request, in_flight)
            yield processor_time(place, name, request, minimal)
        with place.floor("eager", answer):
            yield bursts(place, name, request)


def rates(place, name, request, in_flight):
    ours, floor = (place.http(request, port=port, count=COUNTS[in_flight], in_flight=in_flight)
                   for port in (places.cp.PORT, places.FLOOR_PORT))
    yield Sample(f"{name}, {in_flight} in flight", "requests/s", ours["requestsPerSecond"], floor["requestsPerSecond"],
                 MINIMAL, LIMITS.get(in_flight), more_is_better=True)
    if in_flight == 4:
        yield Sample(f"{name}, 4 in flight: lost SYNs in {COUNTS[4]:,}", "", ours["lost"], floor["lost"], MINIMAL, 1)


def processor_time(place, name, request, minimal):
    """The processor time of a request, 1 in flight, what the kernel does in the program's time included."""
    def spent(process, port):
        before = places.processor_seconds(process)
        place.http(request, port=port, count=COUNTS[1])
        return (places.processor_seconds(process) - before) / COUNTS[1] * 1e6
    return Sample(f"{name}: processor time of a request", "us", spent(place.lab.upnpd.process, places.cp.PORT),
                  spent(minimal, places.FLOOR_PORT), MINIMAL)


def bursts(place, name, request):
    ours, floor = (place.burst(request, port=port, size=16, bursts=5)["lost"]
                   for port in (places.cp.PORT, places.FLOOR_PORT))
    return Sample(f"{name}, 5 bursts of 16 connects: lost SYNs", "", ours, floor, "minimal server that accepts first",
                  BURST_LIMIT, absolute=True)
