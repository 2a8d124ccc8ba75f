"""Every socket that the daemon makes, as the kernel records them, while it does everything that it can."""
import re

import labs
from control_point import GROUP, call, get, result
from labs import LAN1, eventually
from subscribers import Subscriber, sid_of, subscribe, unsubscribe

MAPPING = [("NewRemoteHost", ""), ("NewExternalPort", "80"), ("NewProtocol", "TCP"), ("NewInternalPort", "8080"),
           ("NewInternalClient", LAN1), ("NewEnabled", "1"), ("NewPortMappingDescription", "web"),
           ("NewLeaseDuration", "0")]
SEARCH = (f"M-SEARCH * HTTP/1.1\r\nHOST: {GROUP[0]}:{GROUP[1]}\r\nMAN: \"ssdp:discover\"\r\nMX: 1\r\n"
          "ST: upnp:rootdevice\r\n\r\n")


def every_service(lab):
    """Searches, reads, maps, subscribes and leaves again, as a control point on lan1."""
    wan = lab.interface_id("wan0")
    with lab.lan1.datagrams() as searching:
        searching.sendto(SEARCH.encode(), GROUP)
        assert searching.recv(65536).startswith(b"HTTP/1.1 200 OK")
    assert get(lab.lan1, "/gateway.xml").startswith("HTTP/1.1 200 OK")
    subscriber = Subscriber(lab.lan1)
    path = f"/upnp/event/wanipconn-{wan}"
    sid = sid_of(subscribe(lab.lan1, path, subscriber.callback))
    assert "SEQ: 0" in subscriber.next()
    control = f"/upnp/control/wanipconn-{wan}"
    assert call(lab.lan1, control, "AddPortMapping", MAPPING) == result("AddPortMapping")
    assert "SEQ: 1" in subscriber.next()
    unsubscribe(lab.lan1, path, sid)
    subscriber.close()


@labs.tracing
def test_the_daemon_has_the_sockets_of_its_protocols_and_no_other(bare_lab):
    record = bare_lab.directory / "sockets"
    bare_lab.start_routerd()
    bare_lab.upnpd = labs.Program(bare_lab, "upnpd",
                                  wrapper=("strace", "-f", "-qq", "-e", "trace=%network", "-o", record))
    eventually(bare_lab.settings_answer, "upnpd does not serve")
    for name, role in (("lan0", "internal"), ("wan0", "external")):
        bare_lab.tkctl("upnp", "interface", "add", name, role)
    bare_lab.enable()
    every_service(bare_lab)
    bare_lab.routerd.stop()
    bare_lab.upnpd.wait()
    text = record.read_text()

    def all_of(pattern):
        return re.findall(pattern, text, re.M)

    kinds = all_of(r"\bsocket\(([A-Z_]+, SOCK_[A-Z]+)")
    assert set(kinds) == {"AF_UNIX, SOCK_STREAM", "AF_INET, SOCK_DGRAM", "AF_INET, SOCK_STREAM"}
    # The system's library asks its cache of users which one to become. After that there is only the bus.
    local = all_of(r"\bconnect\(.*sun_path=\"(.*?)\"")
    assert set(local[:-1]) <= {"/var/run/nscd/socket"} and local[-1] == "/run/tk/bus"
    assert kinds.count("AF_UNIX, SOCK_STREAM") == len(local)
    # The two that listen are bound, each to the interface. Only the two notifications are connected.
    assert all_of(r"\bbind\(.*htons\((\d+)\)") == ["1900", "2828"]
    assert len(all_of(r"\blisten\(")) == 1
    connected = all_of(r"\bconnect\(.*htons\((\d+)\), sin_addr=inet_addr\(\"(.*?)\"\)")
    assert connected == [("5000", LAN1)] * 2
    # Notifications, the listener, and SSDP. Everything else goes to the bus.
    assert kinds.count("AF_INET, SOCK_STREAM") == 1 + len(connected)
    addressed = set(all_of(r"\bsendto\(.*htons\((\d+)\), sin_addr=inet_addr\(\"(.*?)\"\)"))
    assert {address for _, address in addressed} == {GROUP[0], LAN1}
    bound_to = all_of(r"\bsetsockopt\(\d+, SOL_SOCKET, SO_BINDTODEVICE, \"(\w+)")
    assert set(bound_to) == {"lan0"}
    assert len(bound_to) == kinds.count("AF_INET, SOCK_DGRAM") + 1
