"""Flows through a lab's router: how they begin, go on and end."""
import contextlib
import re
import time

import bus
from labs import ROUTER_WAN


class Talk:
    """A UDP flow from the WAN that is kept alive: one socket, one source port."""

    def __init__(self, lab, port=53):
        self.socket, self.port = lab.wan.datagrams(), port

    def send(self):
        with contextlib.suppress(ConnectionRefusedError):
            self.socket.sendto(b"x", (ROUTER_WAN, self.port))

    def reaches(self, server):
        """True when a datagram sent now arrives at the server within a moment."""
        text = b"%d" % time.monotonic_ns()
        server.settimeout(0.2)
        for _ in range(2):  # the first may meet the router's answer to an earlier one
            try:
                self.socket.sendto(text, (ROUTER_WAN, self.port))
                break
            except ConnectionRefusedError:
                continue
        try:
            while server.recvfrom(100)[0] != text:
                pass
            return True
        except TimeoutError:
            return False


def passes(near, far):
    """True when what one end of a connection sends arrives at the other within a moment."""
    far.settimeout(0.2)
    try:
        near.sendall(b"x")
        return bool(far.recv(100))
    except OSError:
        return False


def packets(host, match):
    """Makes a host's kernel count packets that match at its input; returns a function that gives the count."""
    host.run("nft", f"add table ip seen; add chain ip seen in {{ type filter hook input priority -300; }}; "
                    f"add rule ip seen in {match} counter")

    def count():
        return int(re.search(r"counter packets (\d+)", host.run("nft", "list", "chain", "ip", "seen", "in").stdout)[1])
    return count


def translate_too(lab, *rules):
    """The administrator's own table that translates destinations, at the usual priority."""
    lab.router.run("nft", "add table ip other; add chain ip other in { type nat hook prerouting priority dstnat; }; "
                   + "; ".join(f"add rule ip other in {rule}" for rule in rules))


def change(client, rule, *fields):
    client.call([20, 5], bus.SET_OBJECT, [(bus.OBJECT, bus.U32, rule), *fields])


def lead_to(target):
    """The fields that lead a rule elsewhere."""
    return (1000, bus.BE32, target), (1001, bus.BE32, target)


def is_reset(end):
    """True when the connection was reset, or is once it sends something; an earlier answer may still come first."""
    end.settimeout(0.2)
    try:
        end.sendall(b"x")
        while end.recv(100):
            pass
        return False  # it was closed, in peace
    except (ConnectionResetError, BrokenPipeError):
        return True
    except TimeoutError:
        return False


def go_on(near, far):
    """True when both ends hear each other for as long as anything could still end the connection."""
    deadline = time.monotonic() + 0.3
    while time.monotonic() < deadline:
        if not passes(near, far) or not passes(far, near):
            return False
    return True


def connection(lab, server, port=80, host="wan"):
    """Both ends of a connection to a mapped port. Data has passed over it."""
    near = getattr(lab, host).connect(ROUTER_WAN, port)
    far, _ = server.accept()
    assert passes(near, far)
    return near, far
