"""A name server in a lab, and how the router finds it."""
import queue
import socket
import struct
import threading

import labs

ADDRESS = 1  # the type of the records


class NameServer:
    """Answers on UDP port 53 of a host.

    records holds names and their addresses; other names are unknown. silent ones are never answered. Answers to long
    ones do not fit in a datagram, so they must be asked for over TCP.
    """

    def __init__(self, host, records, silent=(), long=(), lifetime=60):
        self.records, self.silent, self.long, self.lifetime = dict(records), set(silent), set(long), lifetime
        self.asked = queue.Queue()  # names and types
        self.listener = host.listen(53)
        self.listener.settimeout(None)
        self.socket = host.datagrams(53)
        self.socket.settimeout(None)
        self.threads = [threading.Thread(target=serve, daemon=True) for serve in (self.serve, self.serve_streams)]
        for thread in self.threads:
            thread.start()

    def serve(self):
        while True:
            packet, peer = self.socket.recvfrom(512)
            if not packet:  # our own, see close()
                return
            name, end = name_at(packet, 12)
            kind, = struct.unpack_from(">H", packet, end)
            self.asked.put((name, kind))
            if name in self.long:
                self.socket.sendto(packet[:2] + struct.pack(">HHHHH", 0x8380, 1, 0, 0, 0) + packet[12:end + 4], peer)
            elif name not in self.silent:
                self.socket.sendto(self.answer(packet, name, end + 4), peer)

    def serve_streams(self):
        while True:
            try:
                connection, _ = self.listener.accept()
            except OSError:  # closed
                return
            with connection:
                connection.settimeout(labs.PATIENCE)
                packet = connection.recv(512)[2:]
                name, end = name_at(packet, 12)
                self.asked.put((name, "over TCP"))
                answer = self.answer(packet, name, end + 4)
                connection.sendall(struct.pack(">H", len(answer)) + answer)

    def answer(self, packet, name, end):
        address = self.records.get(name)
        head = packet[:2] + struct.pack(">HHHHH", 0x8180 if address else 0x8183, 1, 1 if address else 0, 0, 0)
        record = struct.pack(">HHHIH", 0xC00C, ADDRESS, 1, self.lifetime, 4) + socket.inet_aton(address) if address else b""
        return head + packet[12:end] + record

    def questions(self):
        """What was asked since the last call."""
        return [self.asked.get() for _ in range(self.asked.qsize())]

    def close(self):
        self.socket.sendto(b"", self.socket.getsockname())
        self.listener.shutdown(socket.SHUT_RDWR)
        for thread in self.threads:
            thread.join(labs.PATIENCE)
        self.socket.close()
        self.listener.close()


def name_at(packet, at):
    labels = []
    while length := packet[at]:
        labels.append(packet[at + 1:at + 1 + length].decode())
        at += 1 + length
    return ".".join(labels), at + 1


def replace(lab, name, text):
    """Gives the lab's router a file of its own in /etc; the machine's is not changed."""
    own = lab.root / "run" / name
    is_new = not own.exists()
    own.write_text(text)
    if is_new:
        lab.router.run("mount", "--bind", f"/run/{name}", f"/etc/{name}")
