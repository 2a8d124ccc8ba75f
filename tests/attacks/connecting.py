"""How a host connects to the daemon's HTTP server while it floods it, and asks for what it will not read."""
import contextlib
import socket
import time

import labs
from control_point import CONNECTION, PORT, action_element, call, envelope, mapping, post, result
from labs import ROUTER_LAN

LONG = 120000  # bytes of a description
FREE_ANSWERS = (32 << 20) * 2 // (5 * LONG)  # of such, which the daemon leaves to the kernel alone in 10 s


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


@contextlib.contextmanager
def long_entry(host, path, length=LONG):
    """Maps a port with a long description. Gives the request that lists it, and its answer."""
    entry = mapping(description="d" * length)
    assert call(host, path, "AddPortMapping", entry) == result("AddPortMapping")
    action = "GetGenericPortMappingEntry"
    request = post(path, envelope(action_element(action, [("NewPortMappingIndex", 1)])), f'"{CONNECTION}#{action}"')
    yield request, result(action, entry)
    assert call(host, path, "DeletePortMapping", entry[:3]) == result("DeletePortMapping")


def never_read(host, request, count):
    """Connections that have asked, and do not read; to be closed at the end of the block."""
    stack = contextlib.ExitStack()
    for _ in range(count):
        stack.enter_context(connect_at_once(host, room=1)).sendall(request.encode())
    return stack
