"""The judge of a soak bites: it finds a made-up leak of each kind, and takes nothing else for one."""
import random

import gauges
import pytest
import slopes

from bystanders import percentile

CYCLE = 13  # seconds
USUAL = {
    "memory of upnpd, KiB": 900, "heap of upnpd, bytes": 140000, "timers of upnpd": 12,
    "descriptors of upnpd, socket": 14, "descriptors of upnpd, file": 5,
    "kernel: elements of dstnat": 0, "kernel: rules, chains and sets": 40, "kernel: connections known": 60,
    "kernel: neighbours": 9, "kernel: TCP sockets": 6, "store of routerd, bytes": 30000, "log lines a busy second": 300}

NOISE = {"memory": 4, "heap": 700}


def soak(cycles=9, name=None, each=0.0, start=slopes.WARM_UP, odd=()):
    """The series of a router of which one gauge grows by so much a cycle; noise is what a real one has."""
    chance = random.Random(1)
    series = slopes.Series()
    for cycle in range(cycles):
        found = {gauge: value + chance.randrange(-1, 2) * NOISE.get(gauge.split()[0], 0) for gauge, value in USUAL.items()}
        if name:
            found[name] += int(each * max(0, cycle - start))
        found |= {gauge: value for at, gauge, value in odd if at == cycle}
        series.quiet.append((cycle * CYCLE, {"upnpd": (10,), "routerd": (11,)}, found))
    return series


def wrong(series):
    return [one.name for one in series.trends() if one.is_wrong]


def test_a_router_that_comes_back_to_the_same_is_in_order():
    assert wrong(soak()) == []


@pytest.mark.parametrize("name, each", [
    ("memory of upnpd, KiB", 36), ("heap of upnpd, bytes", 1200), ("timers of upnpd", 1), ("timers of upnpd", 0.34),
    ("descriptors of upnpd, socket", 1),
    ("descriptors of upnpd, file", 0.34), ("kernel: elements of dstnat", 1), ("kernel: rules, chains and sets", 0.5),
    ("kernel: connections known", 10), ("kernel: neighbours", 2), ("kernel: TCP sockets", 1), ("store of routerd, bytes", 300)])
def test_what_grows_from_cycle_to_cycle_is_found(name, each):
    assert wrong(soak(name=name, each=each)) == [name]


@pytest.mark.parametrize("name, each", [("memory of upnpd, KiB", 1), ("heap of upnpd, bytes", 32)])
def test_a_small_leak_is_found_in_an_hour(name, each):
    assert wrong(soak(cycles=3600 // CYCLE, name=name, each=each)) == [name]


def test_noise_is_no_growth_however_long_it_is_heard():
    assert wrong(soak(cycles=3600 // CYCLE)) == []


def test_what_grows_in_the_warm_up_alone_does_not_count():
    series = soak()
    for _, _, found in series.quiet[:slopes.WARM_UP]:
        found["memory of upnpd, KiB"] -= 500
    assert wrong(series) == []


def test_one_odd_sample_is_no_growth():
    assert wrong(soak(odd=[(8, "descriptors of upnpd, socket", 15)])) == []


def test_a_new_process_begins_anew_and_too_few_samples_prove_nothing():
    series = soak(cycles=12)
    for at, (time, processes, found) in enumerate(series.quiet):
        if at >= 8:
            series.quiet[at] = time, {**processes, "upnpd": (99,)}, {**found, "timers of upnpd": 30}
    assert wrong(series) == []
    assert len(wrong(soak(cycles=slopes.WARM_UP + 2))) == len(USUAL)


def test_timers_that_could_not_be_read_are_not_none():
    assert wrong(soak(odd=[(cycle, "timers of upnpd", None) for cycle in range(9)])) == ["timers of upnpd"]


def test_a_peak_while_it_is_busy_counts():
    series = soak()
    series.busy += [{"memory of upnpd, KiB": 20000}]
    assert wrong(series) == ["memory of upnpd, KiB"]


def test_a_log_that_is_flooded_in_one_cycle_is_found():
    assert wrong(soak(odd=[(5, "log lines a busy second", 5000)])) == ["log lines a busy second"]


def test_the_99th_percentile_is_the_least_value_that_99_percent_do_not_exceed():
    assert percentile(range(1, 101), 0.99) == 99
    assert percentile(range(1, 201), 0.99) == 198
    assert percentile([7], 0.99) == 7


def test_late_answers_are_found_though_most_are_quick():
    quick, late = [0.001] * 990, [1.0] * 11
    assert not slopes.lateness("search", quick + late[:9]).is_wrong
    assert slopes.lateness("search", quick + late).is_wrong


@pytest.mark.parametrize("target, kind", [
    ("socket:[4711]", "socket"), ("pipe:[12]", "pipe"), ("anon_inode:[eventpoll]", "eventpoll"), ("/dev/null", "file"),
    ("anon_inode:[signalfd]", "signalfd"), ("/tesk/store/a:[1]", "file")])
def test_descriptors_are_told_apart(target, kind):
    assert gauges.kind_of(target) == kind


def loop(pair, sockets, timers, queue):
    """The bytes of a loop among others."""
    fields = [0] * len(gauges.RUNNER.unpack(bytes(gauges.RUNNER.size)))
    fields[0:2] = pair
    fields[gauges.SOCKETS], fields[gauges.TIMERS], fields[gauges.QUEUE] = sockets, timers, queue
    return b"\1" * 40 + gauges.RUNNER.pack(*fields) + b"\2" * 40


def test_the_timers_are_those_of_the_loop_whose_counts_fit():
    strangers = loop((4, 5), 9, 77, 77) + loop((4, 5), 8, 3, 4) + loop((5, 4), 8, 66, 66)
    assert gauges.loop_in(strangers + loop((4, 5), 8, 21, 21), [4, 5], 8) == 21
    assert gauges.loop_in(strangers, [4, 5], 8) is None


def test_elements_of_a_map_are_counted():
    table = ("table ip tk { # handle 1\n\tmap dstnat { # handle 5\n\t\ttype ipv4_addr : ipv4_addr\n"
             "\t\telements = { 198.51.100.1 . 6 . 80 : 192.0.2.2 . 80,\n\t\t\t     198.51.100.1 . 6 . 81 : 192.0.2.2 . 81 }\n"
             "\t}\n\n\tset live {\n\t\ttype ipv4_addr\n\t}\n}\n")
    assert gauges.elements(table, "dstnat") == 2
    assert gauges.elements(table, "live") == 0
