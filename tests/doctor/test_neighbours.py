"""What keeps hosts in the LAN from finding the gateway."""
import concurrent.futures as futures
import contextlib
import os
import socket

from labs import LAN1, LAN2, ROUTER_LAN, WAN


def test_ports_that_another_program_holds(clinic):
    clinic.lab.tkctl("upnp", "set", "enabled=no")
    with clinic.lab.router.socket() as stranger, clinic.lab.router.socket(socket.SOCK_DGRAM) as second:
        stranger.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        stranger.bind(("", 2828))
        stranger.listen()
        second.bind(("", 1900))
        clinic.lab.tkctl("upnp", "set", "enabled=yes")
        found = clinic.examine()
        assert {one["subject"] for one in found["port-taken"]} == {"TCP 2828", "UDP 1900"}
        assert f"process {os.getpid()}" in found["port-taken"][0]["what"]
    clinic.mend(found["port-taken"][0])


@contextlib.contextmanager
def group_member(host, address):
    """A socket that hears what is sent to the group of discovery."""
    with host.socket(socket.SOCK_DGRAM) as made:
        made.bind(("", 1900))
        made.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                        socket.inet_aton("239.255.255.250") + socket.inet_aton(address))
        yield made


def searches(member):
    """What has arrived of searches, and who sent them."""
    member.setblocking(False)
    arrived = []
    with contextlib.suppress(BlockingIOError):
        while True:
            arrived.append(member.recvfrom(2000))
    return [peer[0] for text, peer in arrived if text.startswith(b"M-SEARCH * HTTP/1.1\r\n")]


def test_another_gateway_in_the_lan_is_named_and_asked_once(clinic):
    answer = ("HTTP/1.1 200 OK\r\nST: urn:schemas-upnp-org:device:InternetGatewayDevice:1\r\n"
              "SERVER: Box\x1b[2J/1.0\r\nLOCATION: http://192.0.2.3:80/\r\n\r\n").encode()
    with (group_member(clinic.lab.lan2, LAN2) as other, group_member(clinic.lab.lan1, LAN1) as witness,
          group_member(clinic.lab.wan, WAN) as outside, futures.ThreadPoolExecutor(1) as pool):
        def serve():
            text = b""
            while not text.startswith(b"M-SEARCH"):
                text, peer = other.recvfrom(2000)
            other.sendto(answer, peer)
        served = pool.submit(serve)
        finding, = clinic.examine("--json")["other-gateway"]
        served.result()
        assert (searches(witness), searches(other), searches(outside)) == ([ROUTER_LAN], [], [])
        clinic.examine("--no-search")
        assert (searches(witness), searches(outside)) == ([], [])
    assert finding["subject"] == "lan0"
    assert f'{LAN2}, "Box\\x1b[2J/1.0"' in finding["what"]


def test_snooping_without_a_querier(clinic):
    clinic.run("ip link set lan0 type bridge mcast_snooping 1")
    found = clinic.examine()
    assert list(found) == ["snooping-without-querier"]
    clinic.mend(found["snooping-without-querier"][0])
    assert clinic.examine() == {}
    clinic.run("ip link set lan0 type bridge mcast_snooping 0 mcast_querier 0")
