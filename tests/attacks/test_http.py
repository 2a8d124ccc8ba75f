"""What a host in the LAN can do over HTTP."""
import contextlib
import time

from control_point import PORT
from labs import ROUTER_LAN


def test_requests_that_drip_in_keep_nobody_waiting(lab, bystander):
    """As many connections as one host may have, each with a byte of a header now and then."""
    def drip():
        with contextlib.ExitStack() as stack:
            held = [stack.enter_context(lab.lan1.connect(ROUTER_LAN, PORT)) for _ in range(120)]
            for byte in b"GET /gateway.xml":
                for connection in held:
                    connection.send(bytes([byte]))
                time.sleep(0.02)
    bystander.during(drip)
