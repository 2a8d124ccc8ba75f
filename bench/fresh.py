"""A gateway in a lab of its own, for figures that need one without a past, and what a control point asks of it."""
import contextlib
import pathlib
import socket
import tempfile

import control_point as cp
import labs

DESCRIPTION = "libutp 10.0.0.5:51413 UDP"  # of the usual length
SHORT = "libutp"  # 60,000 of these are within what one host may describe
FIRST_PORT = 1024
PORTS = 65536 - FIRST_PORT  # of each protocol


class Gateway:
    """Both programs serve lan0 with wan0 as the external interface."""

    def __init__(self, lab):
        self.lab = lab
        self.control = f"/upnp/control/wanipconn-{lab.interface_id('wan0')}"

    def action(self, name, arguments=()):
        """The bytes of a request for an action of the connection."""
        body = cp.envelope(cp.action_element(name, arguments))
        return cp.post(self.control, body, f'"{cp.CONNECTION}#{name}"').encode()

    def add(self, number, description=DESCRIPTION):
        """A request for mapping `number`, counted from 0: all ports of TCP first, then those of UDP."""
        protocol, port = "TCP" if number < PORTS else "UDP", FIRST_PORT + number % PORTS
        return self.action("AddPortMapping", cp.mapping(port, protocol, port, labs.LAN1, description=description))

    def ask(self, requests):
        """Sends requests from lan1, one after the other, and sees that each is answered with 200."""
        with labs.namespace(f"/run/netns/gw-{self.lab.name}-lan1"):
            for request in requests:
                with connection() as made:
                    made.sendall(request)
                    answer = cp.read_to_end(made)
                assert answer.startswith(b"HTTP/1.1 200"), answer

    def map(self, first, last, description=DESCRIPTION):
        self.ask(self.add(number, description) for number in range(first, last))


def connection():
    """To the daemon, for a thread that is in lan1's namespace."""
    return socket.create_connection((labs.ROUTER_LAN, cp.PORT), timeout=labs.PATIENCE)


def description_request():
    return b"GET /gateway.xml HTTP/1.1\r\nHOST: " + f"{labs.ROUTER_LAN}:{cp.PORT}".encode() + b"\r\n\r\n"


@contextlib.contextmanager
def gateway(wrapper=()):
    """A gateway that has just been started, its daemon under `wrapper`."""
    with tempfile.TemporaryDirectory() as directory:
        pathlib.Path(directory).chmod(0o777)  # what a wrapper writes, it may write as the daemon's user
        lab = labs.Lab(directory)
        try:
            lab.start_routerd()
            lab.upnpd = labs.Program(lab, "upnpd", wrapper=[str(word).format(directory=directory) for word in wrapper])
            labs.eventually(lab.settings_answer, "upnpd serves its settings", 60)
            lab.tkctl("upnp", "interface", "add", "lan0", "internal")
            lab.tkctl("upnp", "interface", "add", "wan0", "external")
            lab.enable()
            yield Gateway(lab)
        finally:
            lab.down()
