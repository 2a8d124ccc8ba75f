"""A daemon whose router does what a test tells it."""
import bus
import labs
from bus import ScriptedRouter, address, interface, item, settings

LAN, WAN, WAN2 = 1, 2, 3  # the ids of the scripted router's interfaces


class World:
    """A lab in which the daemon runs against a scripted router: lan0, wan0 and wan1 have the ids 1, 2 and 3."""

    def __init__(self, lab):
        self.lab = lab
        self.store = lab.root / "tesk" / "store"
        for entry in self.store.iterdir():
            entry.unlink()
        self.router = self.daemon = None
        self.new_router()

    def new_router(self):
        self.router = ScriptedRouter(self.lab)
        index = {name: int(self.lab.router.run("cat", f"/sys/class/net/{name}/ifindex").stdout)
                 for name in ("lan0", "wan0", "wan1")}
        self.lan = interface(LAN, "lan0", index["lan0"], display="inside")
        self.wan = interface(WAN, "wan0", index["wan0"], display="uplink")
        self.wan2 = interface(WAN2, "wan1", index["wan1"], display="second")
        self.router.interfaces = [self.lan, self.wan]
        self.router.addresses = [address(10, labs.ROUTER_LAN, LAN), address(20, labs.ROUTER_WAN, WAN)]

    def start(self, wrapper=()):
        """The daemon runs and has gone through its start."""
        self.daemon = labs.Program(self.lab, "upnpd", wrapper=wrapper)
        self.router.accept()
        self.router.ask(bus.GET)
        return self

    def start_under_the_name(self, name):
        """The daemon serves on a machine with another host name."""
        script = 'hostname "$0"; exec "$@"'
        self.start(("unshare", "--uts", "sh", "-c", script, name))
        self.configure()

    def serve(self, *items):
        """The daemon is enabled. Without items, lan0 is internal and wan0 external."""
        self.start()
        return self.configure(*items)

    def configure(self, *items):
        for one in items or (item(LAN, 2), item(WAN, 1)):
            assert not refused(self.router.ask(bus.ADD, one))
        assert self.router.ask(bus.SET, settings(True)) == []
        return self

    def restart(self):
        """Ends the daemon, and starts it again from its stores."""
        assert self.stop() == 0
        answers = self.router.answers
        interfaces, addresses = self.router.interfaces, self.router.addresses
        self.router.close()
        self.new_router()
        self.router.answers.update({key: value for key, value in answers.items() if not callable(value)})
        self.router.interfaces, self.router.addresses = interfaces, addresses
        return self.start()

    def log_of(self, *words):
        """Sends the daemon this, and returns the log lines that it writes in the meantime."""
        mark = self.daemon.mark()
        self.router.ask(*words)
        return self.daemon.since(mark)

    def log_after(self, tell, *words):
        mark = self.daemon.mark()
        tell(*words)
        return self.daemon.since(mark)

    def take_requests(self):
        """What the daemon has asked since the last call."""
        self.router.ask(bus.GET)
        taken, self.router.requests[:] = list(self.router.requests), []
        return taken

    def stop(self):
        return self.daemon.stop()

    def close(self):
        if self.daemon and self.daemon.running():
            self.daemon.stop()
        self.router.close()


def refused(answer):
    """The code and the text of an answer that is an error; otherwise nothing."""
    code = bus.value_of(answer, bus.CODE)
    return None if code is None else (code, bus.value_of(answer, bus.TEXT))
