"""How a host connects to the daemon's HTTP server while it floods it."""
import socket
import time

import labs
from control_point import PORT
from labs import ROUTER_LAN


def connect_at_once(host, source=None, room=None):
    """A connection, if asked from another address of the host, or with little room for what it receives.
    The listener's queue is short: what finds it full is tried again, long before the kernel would. The next one takes a
    moment, for a flood of connects is another attack."""
    deadline = time.monotonic() + labs.PATIENCE
    while True:
        made = host.socket(seconds=0.05)
        if room:
            made.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, room)
        try:
            made.bind((source or host.address, 0))
            made.connect((ROUTER_LAN, PORT))
        except TimeoutError:
            made.close()
            assert time.monotonic() < deadline, "the router takes no connection"
            continue
        made.settimeout(labs.PATIENCE)
        time.sleep(0.002)
        return made
