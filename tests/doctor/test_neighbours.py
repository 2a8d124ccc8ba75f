"""What keeps hosts in the LAN from finding the gateway."""
import os
import socket
import threading

from labs import LAN2


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


def test_another_gateway_in_the_lan_is_named(clinic):
    answer = ("HTTP/1.1 200 OK\r\nST: urn:schemas-upnp-org:device:InternetGatewayDevice:1\r\n"
              "SERVER: Box\x1b[2J/1.0\r\nLOCATION: http://192.0.2.3:80/\r\n\r\n").encode()
    with clinic.lab.lan2.socket(socket.SOCK_DGRAM) as other:
        other.bind(("", 1900))
        other.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                         socket.inet_aton("239.255.255.250") + socket.inet_aton(LAN2))
        heard = []

        def serve():
            text, peer = other.recvfrom(2000)
            heard.append(text)
            other.sendto(answer, peer)

        thread = threading.Thread(target=serve)
        thread.start()
        finding, = clinic.examine("--json")["other-gateway"]
        thread.join()
    assert heard[0].startswith(b"M-SEARCH * HTTP/1.1\r\n")
    assert finding["subject"] == "lan0"
    assert f'{LAN2}, "Box\\x1b[2J/1.0"' in finding["what"]


def test_snooping_without_a_querier(clinic):
    clinic.run("ip link set lan0 type bridge mcast_snooping 1")
    found = clinic.examine()
    assert list(found) == ["snooping-without-querier"]
    clinic.mend(found["snooping-without-querier"][0])
    assert clinic.examine() == {}
    clinic.run("ip link set lan0 type bridge mcast_snooping 0 mcast_querier 0")
