"""What passes the wires of a lab, and packets that say that they come from somebody else."""
import contextlib
import socket
import struct

from control_point import GROUP

EVERY_PROTOCOL, IPV4 = 0x0003, 0x0800  # as Ethernet numbers them
LIFETIME = 4
SO_RCVBUFFORCE, SOL_PACKET, PACKET_STATISTICS = 33, 263, 6  # which Python does not name
ROOM = 8 << 20  # bytes for what has passed and is not looked at yet


class Ears:
    """Hears whatever passes a host's interface, for whomever it is."""

    def __init__(self, host):
        with host.inside():
            self.socket = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(EVERY_PROTOCOL))
            self.socket.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, ROOM)
            self.socket.bind(("eth0", EVERY_PROTOCOL))
        self.socket.setblocking(False)

    def heard(self):
        """The IPv4 packets that have passed since the last call; all of them, or it fails."""
        packets = []
        with contextlib.suppress(BlockingIOError):
            while True:
                frame = self.socket.recv(65536)
                if frame[12:14] == struct.pack("!H", IPV4):
                    packets.append(frame[14:])
        _, missed = struct.unpack("II", self.socket.getsockopt(SOL_PACKET, PACKET_STATISTICS, 8))
        assert missed == 0, f"{missed} packets have passed unheard"
        return packets

    def close(self):
        self.socket.close()


class Forger:
    """Sends datagrams from a host with a source of its choice, to the group or to the same port of another address."""

    def __init__(self, host):
        with host.inside():
            self.socket = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_RAW)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
        self.socket.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(host.address))

    def send(self, source, port, datagram, destination=GROUP[0]):
        length = 8 + len(datagram)
        udp = struct.pack("!HHHH", port, GROUP[1], length, 0)  # without a checksum
        ip = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + length, 0, 0, LIFETIME, socket.IPPROTO_UDP, 0,
                         socket.inet_aton(source), socket.inet_aton(destination))
        self.socket.sendto(ip + udp + datagram, (destination, 0))

    def close(self):
        self.socket.close()
