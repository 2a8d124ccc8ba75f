"""A router that goes through many rounds of work and crashes, and what must be true after each of them."""
import collections
import contextlib
import os
import pathlib
import random
import re
import sys
import time

FOLDER = pathlib.Path(__file__).resolve().parent
sys.path += [str(FOLDER.parent / name) for name in (".", "router")]

import labs  # noqa: E402
import nameserver  # noqa: E402
import uplink  # noqa: E402
from beliefs import Beliefs, Contradiction, Held, Key, State  # noqa: E402
from disturbances import CHOICES, PEERS, Router  # noqa: E402
from workload import (EXTERNALS, OWN_ADDRESSES, STORED, TARGET_PORTS, ControlPoint, DatagramGreeter,  # noqa: E402
                      EventSink, Flow, Greeter, RuleMaker, Rules, add_mapping, delete_mapping, list_mappings, sid_in,
                      status_of, subscribe, subscription)

RECOVERY_SECONDS = 2 * labs.SLOWNESS  # from the restart until a new mapping passes packets
PROBE_SECONDS = 0.4 * labs.SLOWNESS   # a try; a connect that the full queue of the listener drops is repeated after 1 s
WATCHER = "192.0.2.4"  # a second address of lan2, which subscribes after each round
ELEMENT = re.compile(r"([\d.]+) \. (tcp|udp|6|17) \. (\d+) : ([\d.]+) \. (\d+)")
LIVE = re.compile(ELEMENT.pattern.replace(" : ", r" \. "))
PROTOCOLS = {"6": "tcp", "17": "udp"}
PROBE_PORTS = 4000
FLOWS = 8  # kept from round to round
FLOW_SECONDS = 1  # in which flows follow the rules


class World:
    """The lab with everything in it, and what its clients believe, from the first round to the last."""
    router_kind = Router

    def __init__(self, directory, seed):
        self.seed = seed
        self.lab = labs.Lab(directory)
        self.beliefs, self.sids, self.rules = Beliefs(), {}, Rules()
        self.listeners, self.flows = [], []
        self.figures = {"rounds": 0, "requests": 0, "answered": 0, "refused": 0, "unanswered": 0, "subscriptions": 0,
                        "compared": 0, "in several states": 0, "elements": 0, "flows": 0, "flows ended": 0}
        self.disturbances = collections.Counter()
        self.recoveries = []

    def up(self):
        lab = self.lab
        nameserver.replace(lab, "hosts", "".join(f"{host.address} {host.name}.home\n" for host in (lab.lan1, lab.lan2))
                           + f"127.0.0.1 localhost\n{WATCHER} watcher.home\n")
        nameserver.replace(lab, "resolv.conf", f"nameserver {labs.WAN}\n")
        lab.lan2.run("ip", "address", "add", f"{WATCHER}/24", "dev", "eth0")
        for host in (lab.lan1, lab.lan2):
            self.listeners += [kind(host, port) for port in TARGET_PORTS for kind in (Greeter, DatagramGreeter)]
        self.sinks = {host.name: EventSink(host) for host in (lab.lan1, lab.lan2)}
        self.watcher = EventSink(lab.lan2, 5001)
        self.listeners += [*self.sinks.values(), self.watcher]
        uplink.masquerade(lab)
        self.router = self.router_kind(lab, self.beliefs)
        self.router.start_routerd()
        self.router.items = {name: int(lab.tkctl("upnp", "interface", "add", name, kind).stdout)
                             for name, kind in (("lan0", "internal"), ("wan0", "external"), ("wan1", "external"))}
        lab.tkctl("upnp", "set", "enabled=yes")
        held = {**self.router.addresses, **OWN_ADDRESSES}
        self.beliefs.held += [Held(0, place=place, address=address) for place, address in held.items()]
        self.interfaces = {name: lab.interface_id(name) for name in EXTERNALS}
        self.router.calm()
        self.lasting = self.what_lasts()
        return self

    def down(self):
        if self.rules.client:
            self.rules.client.socket.close()
        for used in [*self.flows, *self.listeners]:
            used.close()
        self.lab.down()

    def play(self, number):
        """One round: disturbed work, recovery, undisturbed work, and the reckoning."""
        chance = random.Random(f"{self.seed}/{number}")
        before = self.running()
        disturbed = self.work(f"{self.seed}/{number}/disturbed", 1000)
        self.told = []
        for _ in range(chance.randint(1, 4)):
            time.sleep(chance.uniform(0, 0.12))
            disturb = chance.choices(list(CHOICES), list(CHOICES.values()))[0]
            self.told.append(disturb.__name__)
            self.disturbances[disturb.__name__] += 1
            disturb(self.router, chance)
        time.sleep(chance.uniform(0, 0.05))
        self.router.started = time.monotonic()
        self.router.mend_all()
        self.settle()
        self.recover(number)
        self.finish(disturbed, at_once=True)
        self.router.calm()
        running = self.running()
        if not {"kill_upnpd", "kill_routerd"} & set(self.told):
            assert running == before, f"a program has ended by itself: {before} are now {running}, after {self.told}"
        assert all(len(numbers) == 1 for numbers in running.values()), running
        calm = self.work(f"{self.seed}/{number}/calm", 12)
        self.router.flush(chance)
        self.disturbances[Router.flush.__name__] += 1
        self.finish(calm, at_once=False)
        self.reckon(chance)
        assert self.running() == running, f"a program has ended by itself: {running} are now {self.running()}"
        self.figures["rounds"] += 1

    def work(self, seed, limit):
        hosts = (self.lab.lan1, self.lab.lan2)
        workers = [ControlPoint(host, self.interfaces, self.sids, f"{seed}/{host.name}", limit) for host in hosts]
        workers.append(RuleMaker(self.lab, self.rules, f"{seed}/rules", limit))
        for worker in workers:
            worker.start()
        return workers

    def finish(self, workers, at_once):
        for worker in workers:
            requests = worker.finish(at_once)
            self.beliefs.requests += requests
            self.figures["requests"] += len(requests)
            for request in requests:
                kind = {200: "answered", None: "unanswered"}.get(request.status, "refused")
                self.figures[kind] += 1
        for worker in workers[:2]:
            self.figures["subscriptions"] += len(worker.subscriptions)
            for asked in worker.subscriptions if not at_once else []:
                # A name or a number that an earlier crash made stale is refused, but always answered.
                assert asked.status in (200, 412), f"a subscriber was answered {asked.status}"
        self.beliefs.losses += workers[2].losses

    # Recovery

    def settle(self):
        """Waits until the router knows its links and addresses, and the daemon knows what the router has told it."""
        expected = sorted([labs.ROUTER_LAN, *self.router.addresses.values()])
        index = {name: int(self.lab.router.run("cat", f"/sys/class/net/{name}/ifindex").stdout) for name in EXTERNALS}

        def known():
            records = {record["name"]: record for record in self.lab.query("interface", "list")}
            return (sorted(record["address"] for record in self.lab.query("address", "list")) == expected
                    and all(records.get(name, {}).get("index") == index[name] for name in index)
                    and all(records[name]["running"] for name in ("lan0", *EXTERNALS)))
        labs.eventually(known, "the router knows its links and addresses", RECOVERY_SECONDS)
        self.lab.tkctl("upnp", "get")

    def recover(self, number):
        """A new mapping passes packets in time."""
        deadline = self.router.started + RECOVERY_SECONDS
        key = Key("wan0", PROBE_PORTS + number % 1000, "tcp")
        interface, address = self.interfaces["wan0"], self.router.addresses["wan0"]

        def passes():
            status = status_of(add_mapping(self.lab.lan1, interface, key.port, key.protocol, labs.LAN1, TARGET_PORTS[0],
                                           seconds=PROBE_SECONDS))
            return status == 200 and self.reached(key, address) == f"{labs.LAN1}:{TARGET_PORTS[0]}"
        while not passes():
            assert time.monotonic() < deadline, f"no new mapping passes packets {RECOVERY_SECONDS} s after {self.told}"
        self.recoveries.append(time.monotonic() - self.router.started)
        assert time.monotonic() < deadline, f"a new mapping passes packets only after {self.recoveries[-1]:.2f} s"
        accepted = [200]
        while (status := status_of(delete_mapping(self.lab.lan1, interface, key.port, key.protocol))) not in accepted:
            assert status is None and time.monotonic() < deadline, f"DeletePortMapping is answered {status}"
            accepted = [200, 714]  # the one that was not answered may have been carried out

    def reached(self, key, address):
        """Who answers at an external address, if anybody does."""
        host = getattr(self.lab, PEERS.get(key.place, PEERS["wan0"])[0])
        try:
            with host.connect(address, key.port, seconds=0.3) as connection:
                return connection.recv(100).decode()
        except OSError:
            return None

    # Reckoning

    def running(self):
        return {name: self.router.processes(name) for name in ("routerd", "routerd-start", "upnpd")}

    def what_lasts(self):
        """What is the same after every crash."""
        query = self.lab.query
        return {"interfaces": {record["name"]: record["id"] for record in query("interface", "list")},
                "items": query("upnp", "interface", "list"), "settings": query("upnp", "get"),
                "identity": self.lab.identity()}

    def reckon(self, chance):
        lasting = self.what_lasts()
        assert lasting == self.lasting, f"{self.lasting} has become {lasting}"
        listed, mappings = self.lab.rules(), self.mappings()
        keys = {rule["id"]: self.key_of(rule) for rule in listed}
        present = {keys[rule["id"]]: State(rule["dstAddress"], rule["toAddress"], rule["toPort"], not rule["disabled"])
                   for rule in listed}
        assert len(present) == len(listed), f"two rules of one mapping: {listed}"
        self.compare_kernel(listed)
        self.compare_mappings(mappings, present)
        compared, several = self.beliefs.settle(present)
        self.compare_stored({key: number for number, key in keys.items()})
        self.figures["compared"] += compared
        self.figures["in several states"] += several
        self.pass_packets(present, chance)
        self.follow_flows(present)
        self.begin_flows(present, chance)
        self.subscribe_anew(sum(key.place == "wan0" for key in present))
        for name, sink in {**self.sinks, "watcher": self.watcher}.items():
            twice = [told for told, count in sink.counts.items() if count > 1]
            assert not twice, f"{name} heard twice: {twice}"

    def mappings(self):
        """What control points list."""
        return {Key(name, int(entry["NewExternalPort"]), entry["NewProtocol"].lower()):
                (entry["NewInternalClient"], int(entry["NewInternalPort"]), entry["NewEnabled"] == "1")
                for name, number in self.interfaces.items() for entry in list_mappings(self.lab.lan1, number)}

    def key_of(self, rule):
        address, of_port = rule["dstAddress"], (rule["dstPort"], rule["protocol"])
        places = [place for place, own in OWN_ADDRESSES.items() if own == address]
        places += [name for name, (_, network) in PEERS.items() if address.startswith(network + ".")]
        assert places, f"nobody asked for {rule}"
        assert rule["dynamic"] == (places[0] != STORED), rule
        return Key(places[0], *of_port)

    def compare_kernel(self, listed):
        """The elements of the kernel's map and of its set of live rules are exactly the enabled rules."""
        text = self.lab.router.run("nft", "--numeric", "list", "map", "ip", "tk", "dstnat").stdout
        elements = sorted((address, PROTOCOLS.get(protocol, protocol), int(port), target, int(target_port))
                          for address, protocol, port, target, target_port in ELEMENT.findall(text))
        rules = sorted((rule["dstAddress"], rule["protocol"], rule["dstPort"], rule["toAddress"], rule["toPort"])
                       for rule in listed if not rule["disabled"])
        assert text.count(" : ") - text.count("type ipv4_addr") == len(elements), f"elements of another form: {text}"
        if elements != rules:
            raise Contradiction(f"only in the kernel: {set(elements) - set(rules)}, "
                                f"only told: {set(rules) - set(elements)}")
        live = self.lab.router.run("nft", "--numeric", "list", "set", "ip", "tk", "live").stdout
        assert sorted(LIVE.findall(live)) == sorted(ELEMENT.findall(text)), f"live is {live}, mapped is {text}"
        self.figures["elements"] += len(elements)

    @staticmethod
    def compare_mappings(mappings, present):
        """The mappings that control points list are the rules that are neither a program's nor stored."""
        told = {(*key, *content) for key, content in mappings.items()}
        rules = {(*key, *state[1:]) for key, state in present.items() if key.place in EXTERNALS}
        assert told == rules, f"only the daemon's: {told - rules}, only the router's: {rules - told}"

    def compare_stored(self, ids):
        """Stored rules keep their ids; what no answer told is learnt."""
        for key, number in self.rules.stored.items():
            assert key in self.rules.unclear or ids.get(key) == number, f"{key} was rule {number}, is {ids.get(key)}"
        self.rules.stored = {key: number for key, number in ids.items() if key.place == STORED}
        self.rules.unclear.clear()

    def pass_packets(self, present, chance):
        """Packets go where a mapping leads, and nowhere if there is no mapping."""
        passing = sorted(key for key, state in present.items() if key.protocol == "tcp" and state.enabled
                         and state.destination == self.router.addresses.get(key.place))
        if passing:
            key = chance.choice(passing)
            state = present[key]
            found = self.reached(key, state.destination)
            assert found == f"{state.target}:{state.targetPort}", f"{key} leads to {found}, not as {state}"
        closed = [port for port in range(1000, 1016) if ("wan0", port, "tcp") not in passing]
        if closed:
            key = Key("wan0", chance.choice(closed), "tcp")
            found = self.reached(key, self.router.addresses["wan0"])
            assert found is None, f"{key} has no mapping, but leads to {found}"

    def follow_flows(self, present):
        """Flows of earlier rounds go where the rules lead now, and nowhere if there is no rule."""
        for flow in list(self.flows):
            if self.router.addresses[flow.key.place] != flow.address:
                continue  # nothing reaches the router there
            state = present.get(flow.key)
            leads = state and state.enabled and state.destination == flow.address
            expected = f"{state.target}:{state.targetPort}" if leads else None
            found = []
            try:
                labs.eventually(lambda: found.append(flow.reaches()) or found[-1] == expected, seconds=FLOW_SECONDS)
            except AssertionError:
                raise AssertionError(f"a flow to {flow.key} goes to {found[-1]}, not to {expected}") from None
            self.figures["flows"] += 1
            if expected is None:
                self.figures["flows ended"] += 1
                self.flows.remove(flow)
                flow.close()

    def begin_flows(self, present, chance):
        """Starts flows through mappings that have none yet."""
        known = {(flow.key, flow.address) for flow in self.flows}
        fresh = sorted(key for key, state in present.items() if key.protocol == "udp" and state.enabled
                       and state.destination == self.router.addresses.get(key.place)
                       and (key, state.destination) not in known)
        for key in chance.sample(fresh, min(len(fresh), max(FLOWS - len(self.flows), 0))):
            flow = Flow(getattr(self.lab, PEERS[key.place][0]), key, present[key].destination)
            self.flows.append(flow)
            assert flow.reaches(), f"nobody answers at {key}"

    def subscribe_anew(self, count):
        """A subscriber whose name must be resolved hears the current number of mappings."""
        interface = self.interfaces["wan0"]
        sid = sid_in(subscribe(self.lab.lan2, interface, "watcher.home:5001"))
        assert sid, "a subscriber with a name is refused"
        told = self.watcher.heard.get(timeout=labs.PATIENCE)
        number = re.search(r"<PortMappingNumberOfEntries>(\d+)<", told)
        assert f"SID: {sid}\r\n" in told and number and int(number.group(1)) == count + 1, f"{count} mappings: {told}"
        assert status_of(subscription(self.lab.lan2, interface, SID=sid)) == 200


@contextlib.contextmanager
def priority():
    """A router shares its processor with no other tests: it recovers in time only if it runs. Timed attacks go before."""
    usual = os.getpriority(os.PRIO_PROCESS, 0)
    os.setpriority(os.PRIO_PROCESS, 0, -10)
    try:
        yield
    finally:
        os.setpriority(os.PRIO_PROCESS, 0, usual)


@priority()
def run(directory, seed, rounds, report=print):
    """Plays the rounds; a failure tells how to repeat it."""
    world = World(directory, seed)
    began = time.monotonic()
    number = 0
    try:
        world.up()
        for number in range(1, rounds + 1):
            world.play(number)
            if number % 25 == 0:
                report(f"round {number} of {rounds}")
    except Exception as failure:
        raise AssertionError(f"round {number} of seed {seed}: {type(failure).__name__}: {failure}\n"
                             f"repeat it with: tests/crash/run --rounds {number} --seed {seed}\n"
                             f"the router's logs: {directory}") from failure
    finally:
        world.down()
    return summary(world, time.monotonic() - began)


def summary(world, seconds):
    figures, recoveries = world.figures, sorted(world.recoveries)
    kills = ", ".join(f"{name} {count}" for name, count in world.router.kills.items())
    return "\n".join([
        f"seed {world.seed}: {figures['rounds']} rounds in {seconds:.0f} s",
        "done to the router: " + ", ".join(f"{name} {count}" for name, count in sorted(world.disturbances.items())),
        f"processes killed: {kills}",
        f"requests for mappings: {figures['requests']}, done {figures['answered']}, refused {figures['refused']}, "
        f"unanswered {figures['unanswered']}; of subscribers: {figures['subscriptions']}",
        f"mappings compared: {figures['compared']}, of which {figures['in several states']} could be in several states; "
        f"elements in the kernel: {figures['elements']}; flows followed: {figures['flows']}, of which ended "
        f"{figures['flows ended']}",
        f"from the restart to packets: median {recoveries[len(recoveries) // 2]:.2f} s, longest {recoveries[-1]:.2f} s",
    ])
