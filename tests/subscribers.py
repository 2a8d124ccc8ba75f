"""Hosts that subscribe to events, and what reaches them."""
import queue
import re
import socket
import threading

from control_point import DATE, PORT, SERVER, exchange
from labs import PATIENCE, ROUTER_LAN

EVENT = "urn:schemas-upnp-org:event-1-0"
GOOD = b"HTTP/1.1 200 OK\r\nCONTENT-LENGTH: 0\r\n\r\n"
SID = re.compile(r"^SID: (uuid:[0-9a-f]{8}(?:-[0-9a-f]{4}){3}-[0-9a-f]{12})\r$", re.M)


def subscribe(host, path, callback, timeout="Second-1800", nt="upnp:event", host_header=f"{ROUTER_LAN}:{PORT}", sid=None):
    """Sends a SUBSCRIBE, and returns the whole answer. A header that is None is not sent."""
    headers = {"HOST": host_header, "CALLBACK": callback, "NT": nt, "SID": sid, "TIMEOUT": timeout}
    lines = [f"SUBSCRIBE {path} HTTP/1.1", *(f"{name}: {value}" for name, value in headers.items() if value is not None)]
    return exchange(host, "\r\n".join([*lines, "", ""]))


def renew(host, path, sid, timeout="Second-1800"):
    return subscribe(host, path, None, timeout, None, sid=sid)


def unsubscribe(host, path, sid, host_header=f"{ROUTER_LAN}:{PORT}"):
    headers = {"HOST": host_header, "SID": sid}
    lines = [f"UNSUBSCRIBE {path} HTTP/1.1", *(f"{name}: {value}" for name, value in headers.items() if value is not None)]
    return exchange(host, "\r\n".join([*lines, "", ""]))


def granted(sid, seconds=1800):
    """The whole answer to a subscription."""
    return "\r\n".join(["HTTP/1.1 200 OK", "DATE: NOW", f"SERVER: {SERVER}", f"SID: {sid}", f"TIMEOUT: Second-{seconds}",
                        "", ""])


def sid_of(answer):
    found = SID.search(answer)
    assert found, answer
    return found.group(1)


def notification(sid, number, variables, address, port, path="/notify"):
    """The whole NOTIFY with these names and values."""
    lines = ['<?xml version="1.0"?>']
    if variables:
        lines.append(f'<e:propertyset xmlns:e="{EVENT}">')
        for name, value in variables:
            lines += ["  <e:property>", f"    <{name}>{value}</{name}>", "  </e:property>"]
        lines.append("</e:propertyset>")
    else:
        lines.append(f'<e:propertyset xmlns:e="{EVENT}"></e:propertyset>')
    body = "".join(line + "\r\n" for line in lines)
    return "\r\n".join([f"NOTIFY {path} HTTP/1.1", f"HOST: {address}:{port}", "CONTENT-TYPE: text/xml",
                        f"CONTENT-LENGTH: {len(body)}", "NT: upnp:event", "NTS: upnp:propchange", f"SID: {sid}",
                        f"SEQ: {number}", "", body])


def read_message(connection):
    """One whole message with its body."""
    data = b""
    while b"\r\n\r\n" not in data:
        part = connection.recv(65536)
        assert part, data
        data += part
    head, body = data.split(b"\r\n\r\n", 1)
    length = int(re.search(rb"^CONTENT-LENGTH: (\d+)\r?$", head, re.M).group(1))
    while len(body) < length:
        part = connection.recv(65536)
        assert part, body
        body += part
    return (head + b"\r\n\r\n" + body).decode()


class Subscriber:
    """A host that takes notifications on a port, and answers each with the same bytes."""

    def __init__(self, host, port=5000, reply=GOOD, address=""):
        self.host, self.port, self.reply = host, port, reply
        self.wordless = 0  # connections that ended without a notification
        self.listener = host.socket(seconds=None)
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.listener.bind((address, port))
        self.listener.listen(128)
        self.heard = queue.Queue()
        threading.Thread(target=self.serve, daemon=True).start()

    @property
    def callback(self):
        return f"<http://{self.host.address}:{self.port}/notify>"

    def serve(self):
        while True:
            try:
                connection, _ = self.listener.accept()
            except OSError:  # closed
                return
            with connection:
                connection.settimeout(PATIENCE)
                to = connection.getsockname()[0]
                if not connection.recv(1, socket.MSG_PEEK):
                    self.wordless += 1
                    continue
                self.heard.put((to, read_message(connection)))
                connection.sendall(self.reply)

    def next(self):
        return self.heard.get(timeout=PATIENCE)[1]

    def next_with_address(self):
        return self.heard.get(timeout=PATIENCE)

    def silent(self):
        return self.heard.empty()

    def expect(self, sid, number, variables):
        """The next notification is exactly this one."""
        assert self.next() == notification(sid, number, variables, self.host.address, self.port)

    def close(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()


def undated(text):
    return DATE.sub("NOW", text)
