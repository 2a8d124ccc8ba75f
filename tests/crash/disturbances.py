"""What is done to the router while others work with it: kills, and changes of what it depends on."""
import os
import pathlib
import signal
import subprocess
import time

import labs
import uplink
from beliefs import Held, Loss, Span
from workload import EXTERNALS, OWNER

PEERS = {"wan0": ("wan", "198.51.100"), "wan1": ("wan2", "203.0.113")}
ENDING_SECONDS = 5  # that a program which has lost its bus may take to leave


class Router:
    """A lab's router to be disturbed: its programs by process number, and what must be mended."""

    def __init__(self, lab, beliefs):
        self.lab, self.beliefs = lab, beliefs
        self.addresses = {name: f"{network}.1" for name, (_, network) in PEERS.items()}
        self.items = {}
        self.to_mend = {}  # by what they mend; each only once
        self.asking = []  # requests of the administrator that nobody waits for until the end
        self.kills = dict.fromkeys(("upnpd", "routerd", "resolverd"), 0)
        self.network = os.stat(f"/run/netns/gw-{lab.name}-router").st_ino

    def ip(self, *words, host="router"):
        subprocess.run(["ip", "-n", f"gw-{self.lab.name}-{host}", *words], check=True, timeout=10)

    def processes(self, name):
        """The numbers of the router's running programs of this name."""
        found = []
        for path in pathlib.Path("/proc").glob("[0-9]*"):
            try:
                if (path / "comm").read_text().strip() == name and (path / "ns/net").stat().st_ino == self.network:
                    found.append(int(path.name))
            except OSError:  # it has ended meanwhile
                continue
        return found

    def wait_for_end_of(self, name, numbers):
        labs.eventually(lambda: not set(numbers) & set(self.processes(name)), f"{name} ends", ENDING_SECONDS)

    def disturb(self, what, *lost):
        """Notes that from now on, until calm(), requests may fail, and mappings of the lost places go."""
        span = Span(time.monotonic(), what=what)
        self.beliefs.disturbances.append(span)
        if lost:
            self.beliefs.losses.append(Loss(span.begun, what=what, places=lost))

    def calm(self):
        """Notes that everything is as usual again."""
        now = time.monotonic()
        for span in [*self.beliefs.disturbances, *self.beliefs.losses]:
            span.ended = min(span.ended, now)
        for held in self.beliefs.held:
            if held.place in self.addresses and held.address != self.addresses[held.place]:
                held.ended = min(held.ended, now)

    # Programs

    def kill(self, name, *lost):
        numbers = self.processes(name)
        self.disturb(f"SIGKILL of {name} {numbers}", *lost)
        for number in numbers:
            try:
                os.kill(number, signal.SIGKILL)
                self.kills[name] += 1
            except ProcessLookupError:
                pass
        return numbers

    def kill_upnpd(self, random):
        """Sometimes while it writes its settings, which do not change."""
        if random.random() < 0.5:
            self.ask_in_passing("upnp", "set", "enabled=yes")
            time.sleep(random.uniform(0, 0.02))
        killed = self.kill("upnpd", *EXTERNALS)
        self.wait_for_end_of("upnpd", killed)
        self.beliefs.losses[-1].ended = time.monotonic()
        self.start_later(random)

    def kill_routerd(self, random):
        """Its programs leave by themselves; the next routerd may start before or after."""
        left = {name: self.processes(name) for name in ("upnpd", "resolverd")}
        self.kill("routerd", *EXTERNALS, OWNER)
        self.lab.routerd.wait()
        if random.random() < 0.5:
            for name, numbers in left.items():
                self.wait_for_end_of(name, numbers)
        self.to_mend["routerd"] = self.start_routerd
        if random.random() < 0.5:
            self.mend("routerd")
        self.start_later(random)

    def kill_resolverd(self, _):
        self.kill("resolverd")

    def start_routerd(self):
        self.started = time.monotonic()
        self.lab.start_routerd("--config", "/tesk/etc/lab.toml")

    def start_later(self, random):
        """upnpd is started now without waiting for it, or once everything is mended."""
        self.to_mend["upnpd"] = self.start_upnpd
        if random.random() < 0.5 and "routerd" not in self.to_mend:
            self.ask_in_passing("upnp", "get")

    def ask_in_passing(self, *words):
        """The administrator asks, and may get no answer."""
        self.asking.append(subprocess.Popen(self.lab.router.command(labs.BIN / "tkctl", *words),
                                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))

    def start_upnpd(self):
        """The first question starts it."""
        if not self.processes("upnpd"):
            self.started = time.monotonic()
        self.lab.tkctl("upnp", "get")

    # What they depend on

    def present(self, random):
        """An external interface that is present, if any."""
        names = [name for name in EXTERNALS if name not in self.to_mend]
        return random.choice(names) if names else None

    def flush(self, _):
        """Not a disturbance: nobody may notice."""
        self.lab.router.run("nft", "flush", "ruleset")
        uplink.masquerade(self.lab)  # that was not ours to keep

    def change_address(self, random):
        name = self.present(random)
        if name is None:
            return
        old, network = self.addresses[name], PEERS[name][1]
        new = random.choice([address for number in (1, 11, 12) if (address := f"{network}.{number}") != old])
        self.disturb(f"{name} changes to {new}")
        self.addresses[name] = new
        self.hold(name, new)
        self.ip("address", "add", f"{new}/24", "broadcast", "+", "dev", name)
        self.ip("address", "del", f"{old}/24", "dev", name)
        self.to_mend["route"] = self.mend_route

    def hold(self, name, address):
        self.beliefs.held.append(Held(time.monotonic(), place=name, address=address))

    def mend_route(self):
        self.ip("route", "replace", "default", "via", labs.WAN)

    def remove_link(self, random):
        name = self.present(random)
        if name is None:
            return
        self.disturb(f"{name} is removed", name)
        self.ip("link", "del", name)
        self.to_mend[name] = lambda: self.make_link(name)
        self.to_mend["route"] = self.mend_route
        if random.random() < 0.5:
            self.mend(name)

    def make_link(self, name):
        peer, network = PEERS[name]
        self.ip("link", "add", name, "type", "veth", "peer", "name", "eth0", "netns", f"gw-{self.lab.name}-{peer}")
        self.ip("address", "add", f"{network}.2/24", "broadcast", "+", "dev", "eth0", host=peer)
        self.ip("link", "set", "eth0", "up", host=peer)
        self.ip("address", "add", f"{self.addresses[name]}/24", "broadcast", "+", "dev", name)
        self.ip("link", "set", name, "up")

    def flap(self, random):
        """An interface goes down, and comes up at once or later."""
        names = [name for name in (*EXTERNALS, "lan0", "lanp1") if name not in self.to_mend]
        if not names:
            return
        name = random.choice(names)
        self.disturb(f"{name} flaps")
        self.ip("link", "set", name, "down")
        self.to_mend[f"{name} up"] = lambda: self.ip("link", "set", name, "up") if name not in self.to_mend else None
        self.to_mend["route"] = self.mend_route
        if random.random() < 0.5:
            self.mend(f"{name} up")

    def flap_item(self, random):
        """The administrator takes an external interface's role away, and gives it back."""
        name = random.choice(EXTERNALS)
        self.disturb(f"the item of {name} is disabled", name)
        change = ("upnp", "interface", "set", self.items[name])
        self.to_mend["item of " + name] = lambda: self.lab.tkctl(*change, "disabled=no")
        if "routerd" not in self.to_mend:
            self.lab.tkctl(*change, "disabled=yes")

    def mend(self, what):
        self.to_mend.pop(what)()

    def mend_all(self):
        """Mends links, then starts what does not run, then gives the roles back."""
        order = {"upnpd": 3, "routerd": 2, "route": 1}
        for what in sorted(self.to_mend, key=lambda what: order.get(what, 4 if what.startswith("item") else 0)):
            mended = self.to_mend.pop(what)
            begun = time.monotonic()
            mended()
            if order.get(what, 0) < 2:
                self.started = begun
        for asking in self.asking:
            asking.wait(30)
        self.asking = []


CHOICES = {  # and how often each is chosen
    Router.kill_upnpd: 4, Router.kill_routerd: 4, Router.kill_resolverd: 2, Router.flush: 2, Router.change_address: 2,
    Router.remove_link: 2, Router.flap: 2, Router.flap_item: 1}
