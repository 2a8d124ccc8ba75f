"""A router that serves thirty clients for a long time, among hostile hosts, while the ground under it moves.

Time goes in cycles. In the busy part clients work, a hostile host does its worst, an observer measures how long answers
take, and the router is disturbed. Then all that the clients believe is compared with the router and its kernel; they take
their mappings and subscriptions back, and once the router has come to rest, what it has in use is written down. It must
come back to the same each time.
"""
import collections
import concurrent.futures
import contextlib
import json
import pathlib
import random
import subprocess
import sys
import threading
import time

FOLDER = pathlib.Path(__file__).resolve().parent
sys.path += [str(FOLDER.parent / name) for name in (".", "router", "crash")]

import bus  # noqa: E402
import gauges  # noqa: E402
import labs  # noqa: E402
import nameserver  # noqa: E402
import rounds  # noqa: E402
import slopes  # noqa: E402
import workload  # noqa: E402
from clients import Client, Guest, Helper, Rules  # noqa: E402
from disturbances import Router  # noqa: E402
from workload import EXTERNALS, status_of  # noqa: E402

BUSY_SECONDS = 6
REST_SECONDS = 45     # until everything that has a time limit is over: requests 10 s, deliveries 30 s, names 6 s
FEW_CONNECTIONS = 10  # that the kernel may still know at rest
SAMPLE_SECONDS = 3    # between samples while the router is busy
NUISANCE = "192.0.2.90"
HISTORY = 120         # changes before the first cycle, so that the history of 100 is full from then on
LAB_FILE = "lab.toml"
FEWEST_ANSWERS = 100  # of each kind, for a percentile that means something
ENOUGH_CLIENTS = 10   # to do everything in the shortest run
KINDS_OF_ANSWERS = 4
GAUGES = ("memory of {}, KiB", "heap of {}, bytes", "timers of {}", "descriptors of {}, socket")  # of each program


class Disturber(Router):
    """What else may happen to a router in its long life."""

    def change_lan_address(self, _):
        """Another address takes over for a moment."""
        self.disturb("lan0 has another address")
        self.ip("address", "add", "192.0.2.9/24", "broadcast", "+", "dev", "lan0")
        self.ip("address", "del", f"{labs.ROUTER_LAN}/24", "dev", "lan0")
        self.to_mend["lan0 address"] = self.mend_lan_address

    def mend_lan_address(self):
        self.ip("address", "add", f"{labs.ROUTER_LAN}/24", "broadcast", "+", "dev", "lan0")
        self.ip("address", "del", "192.0.2.9/24", "dev", "lan0")

    def switch_off(self, _):
        self.disturb("UPnP is off", *EXTERNALS)
        self.to_mend["UPnP"] = lambda: self.lab.tkctl("upnp", "set", "enabled=yes")
        self.lab.tkctl("upnp", "set", "enabled=no")

    def reload(self, random):
        """Not a disturbance: nobody may notice, whether the file is good or broken."""
        path = self.lab.root / "tesk" / "etc" / LAB_FILE
        good = path.read_text()
        changed = good + random.choice(("\n[nat]\nlimit = 900\n", "\n[guard]\nrequests-per-second = 1000\n",
                                        "\n[guard]\nsearches-per-second = 100\n"))
        for text, status in ((changed, 0), (good + random.choice(("\n[nat\n", "\n[nat]\nlimit = \"x\"\n")), 1), (good, 0)):
            path.write_text(text)
            done = self.lab.tkctl("reload", check=False)
            assert done.returncode == status, f"{text}: {done}"

    CHOICES = (Router.flush, Router.change_address, Router.remove_link, Router.flap, Router.flap_item, change_lan_address,
               switch_off, reload)


class World(rounds.World):
    """The lab with the clients, the hostile host and the observer, from the first cycle to the last."""
    router_kind = Disturber

    def __init__(self, directory, seed, clients):
        super().__init__(directory, seed)
        self.guests = [Guest((self.lab.lan1, self.lab.lan2)[number % 2], number) for number in range(clients)]
        self.series, self.seconds = slopes.Series(), collections.defaultdict(list)
        self.done, self.helpers, self.nuisances, self.log_rate = collections.Counter(), [], {}, 0.0
        self.to_come = []  # of the disturbances

    def up(self):
        lab = self.lab
        lab.router.run("sysctl", "-qw", *(f"net.netfilter.nf_conntrack_{name}=2" for name in (
            "tcp_timeout_time_wait", "tcp_timeout_close", "tcp_timeout_fin_wait", "tcp_timeout_last_ack", "udp_timeout",
            "udp_timeout_stream", "tcp_timeout_syn_sent", "tcp_timeout_syn_recv", "tcp_timeout_close_wait", "icmp_timeout",
            "generic_timeout")))  # so that they come to rest soon
        super().up()
        for host in (lab.lan1, lab.lan2):
            self.move_in(host)
        self.name_everybody()
        self.observer = Helper(lab.lan2, "observer", self.interfaces["wan0"])
        self.nuisance = Helper(lab.lan1, "nuisance", self.seed, NUISANCE, lab.root / "run" / "tk", *self.interfaces.values())
        self.helpers = [self.observer, self.nuisance]
        self.idle = self.gauges()
        with bus.Client(lab) as client:
            for _ in range(HISTORY):
                client.call([80, 0], bus.SET, bus.settings(True))
        return self

    def move_in(self, host):
        """Gives the host the addresses of its guests, and a way to make one of them vanish."""
        own = [guest.address for guest in self.guests if guest.name == host.name]
        own += [NUISANCE] if host is self.lab.lan1 else []
        lines = "".join(f"address add {address}/24 dev eth0\n" for address in own)
        subprocess.run(["ip", "-n", f"gw-{self.lab.name}-{host.name}", "-batch", "-"], input=lines, text=True, check=True,
                       timeout=labs.PATIENCE)
        host.run("nft", "add table ip guests; add set ip guests gone { type ipv4_addr; }; "
                        "add chain ip guests in { type filter hook input priority 0; }; "
                        "add chain ip guests out { type filter hook output priority 0; }; "
                        "add rule ip guests in ip daddr @gone drop; add rule ip guests out ip saddr @gone drop")

    def name_everybody(self):
        named = {guest.label: guest.address for guest in self.guests}
        named |= {"lan1": labs.LAN1, "lan2": labs.LAN2, "watcher": rounds.WATCHER}
        nameserver.replace(self.lab, "hosts", "127.0.0.1 localhost\n"
                           + "".join(f"{address} {name}.home\n" for name, address in named.items()))
        self.listeners.append(nameserver.NameServer(self.lab.wan, {}, silent=("hangs.home",)))

    def down(self):
        for helper in self.helpers:
            helper.close()
        super().down()

    # One cycle

    def play(self, number):
        chance = random.Random(f"{self.seed}/{number}")
        before = self.running()
        mark, began = self.log_length(), time.monotonic()
        clients = [Client(guest, self.interfaces, self.sids, f"{self.seed}/{number}/{guest.label}", index)
                   for index, guest in enumerate(self.guests)]
        maker = Rules(self.lab, self.rules, f"{self.seed}/{number}/rules", 1 << 30)
        for worker in [*clients, maker]:
            worker.start()
        for helper in self.helpers:
            helper.go()
        with sampling(self):
            self.disturb_for(BUSY_SECONDS, chance)
        self.observed(self.observer.stop())
        self.nuisances = json.loads(self.nuisance.stop()[-1].removeprefix("stopped "))
        self.collect(clients, maker)
        self.log_rate = (self.log_length() - mark) / (time.monotonic() - began)
        assert self.running() == before, f"a program has ended by itself: {before} are now {self.running()}"
        self.reckon(chance)
        self.clear()
        self.rest()
        self.figures["rounds"] += 1

    def disturb_for(self, seconds, chance):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            time.sleep(chance.uniform(0.5, 2.5))
            disturb = self.next_disturbance()
            self.disturbances[disturb.__name__] += 1
            disturb(self.router, chance)
            time.sleep(chance.uniform(0, 0.3))
            self.router.mend_all()
            self.settle()
            self.serving()
            self.router.calm()

    def next_disturbance(self):
        """All come once before any comes again."""
        if not self.to_come:
            chance = random.Random(f"{self.seed}/{sum(self.disturbances.values())}")
            self.to_come = chance.sample(Disturber.CHOICES, len(Disturber.CHOICES))
        return self.to_come.pop()

    def spared(self):
        """What has not yet been done to the router."""
        return {disturb.__name__ for disturb in Disturber.CHOICES} - set(self.disturbances)

    def serving(self):
        """Waits until a client is answered again: all come at once, and the listener turns many away."""
        def answers():
            return status_of(workload.call(self.lab.lan1, self.interfaces["wan0"], "GetExternalIPAddress", ())) == 200
        labs.eventually(answers, "the daemon serves the LAN")

    def observed(self, told):
        """Keeps what was asked while nothing was disturbed."""
        for kind, begun, seconds, instead in map(json.loads, told[:-1]):
            ended = begun + seconds
            if any(span.begun <= ended and begun <= span.ended for span in self.beliefs.disturbances):
                continue
            assert not instead, f"{kind} was answered wrongly, though nothing disturbed it: {instead}"
            self.seconds[kind].append(seconds)

    def collect(self, clients, maker):
        for worker in [*clients, maker]:
            worker.ended.set()
        for worker in [*clients, maker]:
            requests = worker.finish()
            self.beliefs.requests += requests
            self.figures["requests"] += len(requests)
        self.beliefs.losses += maker.losses
        for client in clients:
            self.done += client.done

    def clear(self):
        """Everybody takes back what is theirs. Now nothing is disturbed, so each answer must be good."""
        for (label, place), sid in self.sids.items():
            workload.subscription(self.guests[int(label[5:])], self.interfaces[place], SID=sid)  # it may have ended before
        self.sids.clear()
        for name, interface in self.interfaces.items():
            for entry in workload.list_mappings(self.lab.lan1, interface):
                answer = workload.delete_mapping(self.lab.lan1, interface, entry["NewExternalPort"], entry["NewProtocol"])
                assert status_of(answer) == 200, f"{entry} on {name}: {answer}"
        for rule in self.lab.rules():
            self.lab.tkctl("bus", "call", "20,5", "0xFE0006", f"0xFE0001:u32={rule['id']}")
        if self.rules.client:
            self.rules.client.socket.close()
        self.rules = workload.Rules()
        self.beliefs.states = {}
        for flow in self.flows:
            flow.close()
        self.flows = []

    # Rest

    def rest(self):
        """Waits until the daemon's descriptors are what they were at first, for as long as anything may take;
        what they are then is judged. Then nothing of the clients' is left, and all gauges are read."""
        deadline = time.monotonic() + REST_SECONDS
        while not self.is_calm(found := self.gauges()) and time.monotonic() < deadline:
            time.sleep(0.2)
        left = self.lab.rules()
        assert left == [], f"rules outlive their mappings: {left}"
        self.compare_kernel(left)
        processes = {name: tuple(self.router.processes(name)) for name in gauges.PROGRAMS}
        self.series.quiet.append((time.monotonic(), processes, found))

    def is_calm(self, found):
        """True when the daemon has no more sockets than before the first cycle, nothing changes while it is read, and the kernel
        has forgotten the connections."""
        sockets = "descriptors of upnpd, socket"
        return (None not in found.values() and found[sockets] <= self.idle[sockets]
                and found["kernel: connections known"] <= FEW_CONNECTIONS)

    def gauges(self):
        found = gauges.of_kernel(self.lab) | gauges.stored(self.lab) | {"log lines a busy second": self.log_rate}
        for name in gauges.PROGRAMS:
            for pid in self.router.processes(name)[:1]:
                with contextlib.suppress(FileNotFoundError, ProcessLookupError):  # it has just ended
                    found |= gauges.of_program(pid, name)
        return found

    def log_length(self):
        return self.lab.routerd.path.read_bytes().count(b"\n")


@contextlib.contextmanager
def sampling(world):
    """Reads the gauges every few seconds until the block ends."""
    ended = threading.Event()

    def sample():
        while not ended.wait(SAMPLE_SECONDS):
            with contextlib.suppress(OSError, AssertionError, TypeError):  # a process or an interface has just gone
                world.series.busy.append(world.gauges())
    with concurrent.futures.ThreadPoolExecutor(1) as thread:
        outcome = thread.submit(sample)
        try:
            yield
        finally:
            ended.set()
            outcome.result()


def run(directory, seed, seconds, clients=30, report=print, latest=slopes.LATEST):
    """Plays cycles for so long; a failure tells how to repeat it. Returns the report, and what is wrong."""
    world = World(directory, seed, clients)
    began = time.monotonic()
    number = 0
    try:
        world.up()
        while time.monotonic() < began + seconds or number < slopes.WARM_UP + slopes.FEWEST or world.spared():
            number += 1
            world.play(number)
            if number % 20 == 0:
                report(f"cycle {number}, {time.monotonic() - began:.0f} of {seconds} s")
    except Exception as failure:
        raise AssertionError(f"cycle {number} of seed {seed}: {type(failure).__name__}: {failure}\n"
                             f"repeat it with: tests/soak/run --seconds {seconds} --seed {seed}\n"
                             f"the router's logs: {directory}") from failure
    finally:
        world.down()
    return summary(world, time.monotonic() - began, latest)


def summary(world, seconds, latest):
    trends = world.series.trends()
    wanted = {gauge.format(name) for name in gauges.PROGRAMS for gauge in GAUGES}
    assert not (missing := wanted - {one.name for one in trends}), f"not judged: {missing}"
    assert world.series.busy, "no peak was judged"
    counts = {kind: len(found) for kind, found in world.seconds.items()}
    assert len(counts) == KINDS_OF_ANSWERS and min(counts.values()) >= FEWEST_ANSWERS, f"answers were few: {counts}"
    if len(world.guests) >= ENOUGH_CLIENTS:
        assert set(world.done) == set(Client.KINDS), f"only this was answered well: {world.done}"
    assert all(world.nuisances.values()), f"the hostile host has not done all it can: {world.nuisances}"
    answers = [slopes.lateness(kind, found, latest) for kind, found in sorted(world.seconds.items())]
    wrong = [one.name for one in trends if one.is_wrong] + [one.kind for one in answers if one.is_wrong]
    done, disturbed, hostile = (", ".join(f"{name} {count}" for name, count in sorted(counter.items()))
                                for counter in (world.done, world.disturbances, world.nuisances))
    text = "\n".join([
        f"seed {world.seed}: {len(world.guests)} clients, {world.figures['rounds']} cycles in {seconds:.0f} s",
        f"done by clients: {done}", f"done to the router: {disturbed}", f"done by a hostile host: {hostile}",
        f"mappings compared: {world.figures['compared']}, elements in the kernel: {world.figures['elements']}",
        "", *slopes.table(trends, answers), "", f"WRONG: {', '.join(wrong)}" if wrong else "nothing grew, nothing was late"])
    return text, wrong
