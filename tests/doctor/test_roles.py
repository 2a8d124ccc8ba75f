"""Roles, interfaces, addresses and routes."""
from clinic import arrives, role
from control_point import call, mapping, result
from labs import ROUTER_WAN2, eventually

BEYOND = "192.31.196.9"  # a host of the Internet behind the second uplink


def test_missing_roles(clinic):
    items = clinic.lab.query("upnp", "interface", "list")
    for item in items:
        clinic.lab.tkctl("upnp", "interface", "remove", item["id"])
    found = clinic.examine()
    assert set(found) == {"no-internal-role", "no-external-role"}
    assert found["no-internal-role"][0]["mend"] == ["tkctl upnp interface add lan0 internal"]
    clinic.mend(found["no-internal-role"][0])
    clinic.mend(found["no-external-role"][0])  # the first that is outside: wan0


def test_a_role_on_an_interface_that_is_gone(clinic):
    clinic.run("ip link add gone0 type veth peer name gone1")
    eventually(lambda: "gone0" in clinic.lab.tkctl("interface", "list").stdout)
    clinic.lab.tkctl("upnp", "interface", "add", "gone0", "external")
    clinic.run("ip link delete gone0")
    eventually(lambda: "gone0" not in clinic.lab.tkctl("interface", "list").stdout)
    found = clinic.examine()
    assert list(found) == ["role-on-missing-interface"]
    clinic.mend(found["role-on-missing-interface"][0])


def test_a_role_on_a_member_of_a_bridge(clinic):
    with role(clinic.lab, "lanp1", "external"):
        finding, = clinic.examine()["role-on-member"]
        assert finding["subject"] == "lanp1" and "interface=lan0" in finding["mend"][0]


def test_a_role_on_the_wrong_side(clinic):
    with role(clinic.lab, "wan1", "internal", "--force"):
        assert list(clinic.examine()) == ["internal-role-outside"]
    inside = clinic.lab.query("upnp", "interface", "list")[0]
    clinic.lab.tkctl("upnp", "interface", "set", inside["id"], "type=external")
    assert {"external-role-inside", "no-internal-role"} <= set(clinic.examine())
    clinic.lab.tkctl("upnp", "interface", "set", inside["id"], "type=internal")


def test_a_link_that_is_down_and_an_interface_without_address(clinic):
    with role(clinic.lab, "wan1", "external"):
        clinic.run("ip link set wan1 down; ip address flush dev wan1")
        found = clinic.examine()
        assert {one["subject"] for one in found["link-down"] + found["no-address"]} == {"wan1"}
        clinic.mend(found["link-down"][0])
        clinic.run(f"ip address add {ROUTER_WAN2}/24 broadcast + dev wan1")
        clinic.lab.wan2.run("ip", "link", "set", "eth0", "down")
        assert "nothing is connected" in clinic.examine()["link-down"][0]["what"]
        clinic.lab.wan2.run("ip", "link", "set", "eth0", "up")
        assert not {"link-down", "no-address"} & set(clinic.examine())


def test_an_address_that_the_internet_does_not_reach(clinic):
    """One that it does reach makes the others mere addresses for management."""
    codes = {"192.168.77.2": "address-private", "100.64.0.5": "address-shared", "169.254.7.7": "address-link-local"}
    with role(clinic.lab, "wan1", "external"):
        for address, code in codes.items():
            clinic.run(f"ip address add {address}/24 dev wan1")
            assert not set(codes.values()) & set(clinic.examine())
            clinic.run(f"ip address del {ROUTER_WAN2}/24 dev wan1",
                       "ip route add default via 203.0.113.2 dev wan1 onlink metric 500")
            found = clinic.examine()
            clinic.run("ip route del default dev wan1", f"ip address add {ROUTER_WAN2}/24 broadcast + dev wan1",
                       f"ip address del {address}/24 dev wan1")
            assert set(codes.values()) & set(found) == {code}
            if code == "address-private":
                assert "203.0.113.2" in found[code][0]["mend"][0]


def test_answers_that_leave_by_the_wrong_uplink(clinic, server):
    """The lines that are printed lead the answers of a real connection back by the uplink that it came by."""
    clinic.lab.wan2.run("ip", "address", "add", BEYOND + "/32", "dev", "lo")
    with role(clinic.lab, "wan1", "external"):
        path = f"/upnp/control/wanipconn-{clinic.lab.interface_id('wan1')}"
        assert call(clinic.lab.lan1, path, "AddPortMapping", mapping()) == result("AddPortMapping")
        clinic.run("sysctl -qw net.ipv4.conf.wan1.rp_filter=1")
        found = clinic.examine()
        assert set(found) == {"answers-leave-elsewhere", "rp-filter-drops"}
        assert not arrives(clinic.lab.wan2, ROUTER_WAN2, BEYOND)
        clinic.run(found["rp-filter-drops"][0]["mend"][0])
        assert list(clinic.examine()) == ["answers-leave-elsewhere"]
        assert not arrives(clinic.lab.wan2, ROUTER_WAN2, BEYOND)
        clinic.mend(found["answers-leave-elsewhere"][0])
        assert arrives(clinic.lab.wan2, ROUTER_WAN2, BEYOND, seconds=3)
        assert clinic.examine() == {}
    clinic.run("nft delete table ip uplinks; ip rule del fwmark $(ip rule | sed -n 's/.*fwmark \\(0x[0-9a-f]*\\).*/\\1/p'); "
               "sysctl -qw net.ipv4.conf.wan1.rp_filter=0")


def test_a_router_without_a_way_out(clinic):
    clinic.run("ip route del default")
    assert list(clinic.examine()) == ["no-way-out"]
    clinic.run("ip route add default via 198.51.100.2")
