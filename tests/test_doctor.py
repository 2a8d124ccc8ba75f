"""tkctl doctor: each fault is made in a lab, named, and mended by the lines that are printed."""
import contextlib
import json
import os
import socket
import threading
import time

import pytest

import labs
from control_point import call, mapping, result
from labs import LAN1, LAN2, ROUTER_WAN, ROUTER_WAN2, eventually

BEYOND = "192.31.196.9"  # a host of the Internet behind the second uplink


class Clinic:
    """A lab with the doctor at hand."""

    def __init__(self, lab):
        self.lab = lab

    def examine(self, *options):
        """The findings by their codes, as lists."""
        done = self.lab.tkctl("doctor", "--json", *(options or ("--no-search",)), check=False)
        assert done.stderr == ""
        findings = json.loads(done.stdout)
        assert done.returncode == any(one["severity"] == "error" for one in findings)
        codes = {}
        for one in findings:
            assert set(one) == {"code", "severity", "subject", "what", "why", "mend"}
            codes.setdefault(one["code"], []).append(one)
        return codes

    def mend(self, finding, tools="/nowhere", wrapper=()):
        """Runs the lines as they stand; `tools` is a folder of programs that come first."""
        script = "\n".join(finding["mend"])
        path = f"PATH={tools}:{labs.BIN}:{os.environ['PATH']}"
        self.lab.router.run(*wrapper, "env", path, "sh", "-ec", script)

    def run(self, *lines):
        for line in lines:
            self.lab.router.run("sh", "-ec", line)


@pytest.fixture(scope="module")
def healthy_lab(tmp_path_factory):
    """A router as it should be: each program has a user of its own, and hosts in the LAN may not disconnect."""
    lab = labs.Lab(tmp_path_factory.mktemp("lab"))
    try:
        lab.start_routerd("--config", "/tesk/etc/lab.toml")
        lab.tkctl("upnp", "interface", "add", "lan0", "internal")
        lab.tkctl("upnp", "interface", "add", "wan0", "external")
        lab.tkctl("upnp", "set", "enabled=yes")
        yield lab
    finally:
        lab.down()


@pytest.fixture
def clinic(healthy_lab):
    """The healthy lab, with a mapping of TCP 80. Each test leaves it healthy."""
    path = f"/upnp/control/wanipconn-{healthy_lab.interface_id('wan0')}"
    assert call(healthy_lab.lan1, path, "AddPortMapping", mapping()) == result("AddPortMapping")
    made = Clinic(healthy_lab)
    yield made
    assert made.examine() == {}


def arrives(host, address=ROUTER_WAN, source=None, seconds=0.3):
    """True when the mapped port accepts a connection."""
    with host.socket(seconds=seconds) as made:
        if source:
            made.bind((source, 0))
        try:
            made.connect((address, 80))
        except OSError:
            return False
        return True


@pytest.fixture
def server(healthy_lab):
    with healthy_lab.lan1.listen(8080) as listening:
        yield listening


# Healthy

def test_a_healthy_router_has_no_findings(clinic):
    began = time.monotonic()
    assert clinic.examine("--json") == {}
    assert time.monotonic() - began < 2.5
    done = clinic.lab.tkctl("doctor", "--no-search")
    assert done.stdout == "Nothing found that would keep mappings from working.\n"


# A forward chain elsewhere that drops mapped traffic

NFT = """nft -f - <<'END'
table inet filter {
    chain forward {
        type filter hook forward priority filter; policy drop;
        ct state { established, related } accept
        ct state invalid drop
        iifname "lan0" accept
    }
}
END"""
NFT_RULE = """nft -f - <<'END'
table ip mine {
    chain check {
        ct state new counter reject with icmp admin-prohibited
    }
    chain forward {
        type filter hook forward priority 10; policy accept;
        ct state vmap { established : accept, related : accept }
        iifname vmap { "lan0" : accept, "wan0" : jump check }
    }
}
END"""
IPTABLES = """{tool}-restore <<'END'
*filter
:INPUT ACCEPT [0:0]
:FORWARD DROP [0:0]
:OUTPUT ACCEPT [0:0]
-A FORWARD -m conntrack --ctstate RELATED,ESTABLISHED -j ACCEPT
-A FORWARD -i lan0 -j ACCEPT
COMMIT
END"""
UFW = """iptables-nft-restore <<'END'
*filter
:INPUT ACCEPT [0:0]
:FORWARD DROP [0:0]
:OUTPUT ACCEPT [0:0]
:ufw-after-forward - [0:0]
:ufw-after-logging-forward - [0:0]
:ufw-before-forward - [0:0]
:ufw-before-logging-forward - [0:0]
:ufw-reject-forward - [0:0]
:ufw-track-forward - [0:0]
:ufw-user-forward - [0:0]
-A FORWARD -j ufw-before-logging-forward
-A FORWARD -j ufw-before-forward
-A FORWARD -j ufw-after-forward
-A FORWARD -j ufw-after-logging-forward
-A FORWARD -j ufw-reject-forward
-A FORWARD -j ufw-track-forward
-A ufw-after-logging-forward -m limit --limit 3/min --limit-burst 10 -j LOG --log-prefix "[UFW BLOCK] "
-A ufw-before-forward -m conntrack --ctstate RELATED,ESTABLISHED -j ACCEPT
-A ufw-before-forward -p icmp -m icmp --icmp-type 8 -j ACCEPT
-A ufw-before-forward -j ufw-user-forward
COMMIT
END"""
DOCKER = """iptables-nft-restore <<'END'
*filter
:INPUT ACCEPT [0:0]
:FORWARD DROP [0:0]
:OUTPUT ACCEPT [0:0]
:DOCKER - [0:0]
:DOCKER-ISOLATION-STAGE-1 - [0:0]
:DOCKER-ISOLATION-STAGE-2 - [0:0]
:DOCKER-USER - [0:0]
-A FORWARD -j DOCKER-USER
-A FORWARD -j DOCKER-ISOLATION-STAGE-1
-A FORWARD -o docker0 -m conntrack --ctstate RELATED,ESTABLISHED -j ACCEPT
-A FORWARD -o docker0 -j DOCKER
-A FORWARD -i docker0 ! -o docker0 -j ACCEPT
-A FORWARD -i docker0 -o docker0 -j ACCEPT
-A DOCKER-ISOLATION-STAGE-1 -i docker0 ! -o docker0 -j DOCKER-ISOLATION-STAGE-2
-A DOCKER-ISOLATION-STAGE-1 -j RETURN
-A DOCKER-ISOLATION-STAGE-2 -o docker0 -j DROP
-A DOCKER-ISOLATION-STAGE-2 -j RETURN
-A DOCKER-USER -j RETURN
COMMIT
END"""
FIREWALLD = """nft -f - <<'END'
table inet firewalld {
    chain filter_FWD_public { jump filter_FWD_public_allow; reject with icmpx admin-prohibited; }
    chain filter_FWD_public_allow { }
    chain filter_FORWARD_POLICIES_pre { }
    chain filter_FORWARD_POLICIES { iifname "wan0" goto filter_FWD_public; iifname "lan0" accept; }
    chain filter_FORWARD {
        type filter hook forward priority filter + 10; policy accept;
        ct state { established, related } accept
        iifname "lo" accept
        ct state invalid drop
        jump filter_FORWARD_POLICIES_pre
        jump filter_FORWARD_POLICIES
        reject with icmpx admin-prohibited
    }
}
END"""
FIREWALLD_IPTABLES = """iptables-nft-restore <<'END'
*filter
:INPUT ACCEPT [0:0]
:FORWARD ACCEPT [0:0]
:OUTPUT ACCEPT [0:0]
:FORWARD_direct - [0:0]
-A FORWARD -m conntrack --ctstate RELATED,ESTABLISHED -j ACCEPT
-A FORWARD -i lo -j ACCEPT
-A FORWARD -j FORWARD_direct
-A FORWARD -m conntrack --ctstate INVALID -j DROP
-A FORWARD -j REJECT --reject-with icmp-host-prohibited
COMMIT
END"""
# Stands in for the tool that talks to firewalld: it makes the rules that firewalld makes of these lines.
FIREWALL_CMD = r"""#!/bin/sh -e
state=$(dirname "$0")/firewalld
case "$*" in
    "--permanent --new-policy=mappings") ;;
    "--permanent --policy=mappings --add-ingress-zone=ANY --add-egress-zone=ANY") ;;
    "--permanent --policy=mappings --add-rich-rule=rule family=\"ipv4\" destination address="*" accept")
        network=${3#*address=\"}; echo "nft add rule inet firewalld filter_FORWARD_POLICIES_pre ip daddr ${network%%\"*} accept" >"$state" ;;
    "--permanent --direct --add-rule ipv4 filter FORWARD 0 "*)
        shift 7; echo "iptables-nft -I FORWARD_direct $*" >"$state" ;;
    "--reload") sh -e "$state" ;;
    *) echo "firewall-cmd: $*" >&2; exit 2 ;;
esac
"""
NFT_CLEANUP = "nft list tables | grep -E 'inet filter|ip mine|inet firewalld|ip filter' | sed 's/^/delete /' | nft -f -"
LEGACY_CLEANUP = "iptables-legacy -P FORWARD ACCEPT; iptables-legacy -F"


def has_legacy_tables():
    return labs.subprocess.run(["unshare", "-n", "iptables-legacy", "-S"], capture_output=True, timeout=10).returncode == 0


legacy = pytest.mark.skipif(not has_legacy_tables(), reason="the kernel has no older iptables")


@pytest.mark.parametrize("fault, subject, line", [
    (NFT, "inet filter forward", "nft insert rule inet filter forward ct status dnat accept"),
    (NFT_RULE, "ip mine forward", "nft insert rule ip mine forward ct status dnat accept"),
    (IPTABLES.format(tool="iptables-nft"), "ip filter FORWARD",
     "iptables -I FORWARD -m conntrack --ctstate DNAT -j ACCEPT"),
    pytest.param(IPTABLES.format(tool="iptables-legacy"), "ip filter FORWARD",
                 "iptables-legacy -I FORWARD -m conntrack --ctstate DNAT -j ACCEPT", marks=legacy),
    (DOCKER, "ip filter FORWARD", "iptables -I DOCKER-USER -m conntrack --ctstate DNAT -j ACCEPT"),
    (FIREWALLD, "inet firewalld filter_FORWARD", "firewall-cmd --permanent --new-policy=mappings"),
    (FIREWALLD_IPTABLES, "ip filter FORWARD", "firewall-cmd --permanent --direct --add-rule ipv4 filter FORWARD 0 "
                                              "-m conntrack --ctstate DNAT -j ACCEPT"),
], ids=["nft policy", "nft rule", "iptables-nft", "iptables-legacy", "docker", "firewalld", "firewalld with iptables"])
def test_a_chain_that_drops_is_named_and_mended(clinic, server, tmp_path, fault, subject, line):
    tool = tmp_path / "firewall-cmd"
    tool.write_text(FIREWALL_CMD)
    tool.chmod(0o755)
    assert arrives(clinic.lab.wan)
    clinic.run(fault)
    try:
        assert not arrives(clinic.lab.wan)
        found = clinic.examine()
        assert list(found) == ["forward-drop"], json.dumps(found)
        finding, = found["forward-drop"]
        assert (finding["severity"], finding["subject"], finding["mend"][0]) == ("error", subject, line)
        assert f"such as tcp {ROUTER_WAN}:80 to {LAN1}:8080" in finding["what"]
        clinic.mend(finding, tools=tmp_path)
        assert arrives(clinic.lab.wan)
        assert clinic.examine() == {}
    finally:
        clinic.run(LEGACY_CLEANUP if "legacy" in fault else NFT_CLEANUP)


def test_ufw_is_mended_in_its_own_file(clinic, server, tmp_path):
    """The file is /etc/ufw/before.rules, in a copy of /etc that only the lines see."""
    rules = tmp_path / "ufw" / "before.rules"
    rules.parent.mkdir()
    rules.write_text("*filter\n:ufw-before-forward - [0:0]\n:ufw-not-local - [0:0]\n# End required lines\nCOMMIT\n")
    clinic.run(UFW)
    try:
        assert not arrives(clinic.lab.wan)
        finding, = clinic.examine()["forward-drop"]
        assert finding["mend"][0] == "iptables -I ufw-before-forward -m conntrack --ctstate DNAT -j ACCEPT"
        clinic.mend(finding, wrapper=("unshare", "-m", "sh", "-ec",
                                      'mount -t tmpfs tmpfs /mnt; mkdir /mnt/ufw /mnt/alternatives; '
                                      'mount --bind /etc/alternatives /mnt/alternatives; mount --bind "$0" /mnt/ufw; '
                                      'mount --rbind /mnt /etc; exec "$@"',
                                      rules.parent))
        assert arrives(clinic.lab.wan)
        assert clinic.examine() == {}
        assert rules.read_text().splitlines()[2:4] == [
            ":ufw-not-local - [0:0]", "-A ufw-before-forward -m conntrack --ctstate DNAT -j ACCEPT"]
    finally:
        clinic.run(NFT_CLEANUP)


def test_the_counter_proves_a_drop(clinic, server):
    clinic.run(IPTABLES.format(tool="iptables-nft"))
    try:
        assert not arrives(clinic.lab.wan)
        finding, = clinic.examine()["forward-drop"]
        assert "It has dropped " in finding["what"] and "and the mappings had " in finding["what"]
    finally:
        clinic.run(NFT_CLEANUP)


def test_a_rule_that_nobody_can_judge_is_a_warning(clinic):
    clinic.run("nft 'add table ip odd; add chain ip odd forward { type filter hook forward priority 0; }; "
               "add rule ip odd forward meta hour \"03:00\"-\"04:00\" drop'")
    try:
        found = clinic.examine()
        assert list(found) == ["forward-may-drop"]
        assert found["forward-may-drop"][0]["severity"] == "warning"
        assert "meta hour" in found["forward-may-drop"][0]["why"]
        clinic.mend(found["forward-may-drop"][0])
        assert clinic.examine() == {}
    finally:
        clinic.run("nft delete table ip odd")


def test_limits_that_a_usual_packet_does_not_reach(clinic, server):
    clinic.run("""nft 'add table ip odd; add limit ip odd lim { rate over 1000/second; };
add quota ip odd q { over 100 mbytes; }; add chain ip odd forward { type filter hook forward priority 0; }'
nft 'add rule ip odd forward quota over 100 mbytes drop; add rule ip odd forward limit name lim drop;
add rule ip odd forward quota name q drop;
add rule ip odd forward meter m1 { ip saddr limit rate over 1000/second } drop'""")
    try:
        assert arrives(clinic.lab.wan)
        assert clinic.examine() == {}
    finally:
        clinic.run("nft delete table ip odd")


def test_a_flowtable_past_the_rules_is_a_warning(clinic):
    made = clinic.lab.router.run("sh", "-ec", """nft -f - <<'END'
table ip fast {
    flowtable f {
        hook ingress priority 0; devices = { lan0, wan0 };
    }
    chain forward {
        type filter hook forward priority 0; policy accept;
        ct state established flow add @f
    }
}
END""", check=False)
    if made.returncode != 0:
        pytest.skip("the kernel has no flowtables")
    try:
        found = clinic.examine()
        assert list(found) == ["flowtable-bypass"]
        clinic.mend(found["flowtable-bypass"][0])
        assert clinic.examine() == {}
    finally:
        clinic.run("nft delete table ip fast")


def test_forwarding_that_is_off(clinic):
    clinic.run("sysctl -qw net.ipv4.ip_forward=0")
    assert list(clinic.examine()) == ["ip-forward-off"]
    clinic.run("sysctl -qw net.ipv4.ip_forward=1 net.ipv4.conf.wan0.forwarding=0")
    finding, = clinic.examine()["ip-forward-off"]
    assert finding["subject"] == "wan0"
    clinic.run(finding["mend"][0])


def test_forwarding_of_an_interface_whose_name_has_dots(clinic):
    clinic.run("ip link add wan0.7 type veth peer name other")
    eventually(lambda: "wan0.7" in clinic.lab.tkctl("interface", "list").stdout)
    with role(clinic.lab, "wan0.7", "external"):
        clinic.run("sysctl -qw net/ipv4/conf/wan0.7/forwarding=0")
        finding, = clinic.examine()["ip-forward-off"]
        assert finding["subject"] == "wan0.7"
        clinic.run(finding["mend"][0])
        assert "ip-forward-off" not in clinic.examine()
    clinic.run("ip link delete wan0.7")


# Roles, interfaces, addresses

@contextlib.contextmanager
def role(lab, name, kind, *options):
    identifier = lab.tkctl("upnp", "interface", "add", name, kind, *options).stdout.strip()
    try:
        yield identifier
    finally:
        lab.tkctl("upnp", "interface", "remove", identifier)


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
    clinic.run("ip route add default via 203.0.113.2 dev wan1 metric 500")
    with role(clinic.lab, "wan1", "external"):
        clinic.run(*(f"ip address add {address} dev wan1" for address in
                     ("192.168.77.2/24", "100.64.0.5/24", "169.254.7.7/16")))
        found = clinic.examine()
        assert {"address-private", "address-shared", "address-link-local"} <= set(found)
        assert "203.0.113.2" in found["address-private"][0]["mend"][0]
        clinic.run("ip address del 192.168.77.2/24 dev wan1; ip address del 100.64.0.5/24 dev wan1; "
                   "ip address del 169.254.7.7/16 dev wan1; ip route del default dev wan1")


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


# Discovery

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


# Programs, rights, stores

def test_what_may_not_be_looked_at_is_noted(clinic):
    tool = clinic.lab.root / "tesk" / "tkctl"
    labs.shutil.copy(labs.BIN / "tkctl", tool)
    done = clinic.lab.router.run("setpriv", "--reuid", "64002", "--regid", "64002", "--groups", "64000", "/tesk/tkctl",
                                 "doctor", "--no-search", "--json", check=False)
    assert "not-seen" in {one["code"] for one in json.loads(done.stdout)}, done.stderr


def test_a_tool_that_is_missing_is_noted(clinic):
    done = clinic.lab.router.run("unshare", "-m", "sh", "-c", f"mount --bind /dev/null $(command -v nft); "
                                 f"exec {labs.BIN}/tkctl doctor --no-search --json", check=False)
    notes = [one for one in json.loads(done.stdout) if one["code"] == "not-seen"]
    assert [one["subject"] for one in notes] == ["the rules of nftables"]
    assert done.returncode == 0


def test_programs_that_do_not_answer(bare_lab):
    clinic = Clinic(bare_lab)
    assert clinic.examine()["router-silent"][0]["severity"] == "error"
    bare_lab.start_routerd()
    found = clinic.examine()
    assert "daemon-silent" in found and "router-silent" not in found
    text = bare_lab.tkctl("doctor", "--no-search", check=False).stdout
    assert text.startswith("error: upnpd does not answer: nobody at this destination.\n") and text.endswith("1 problem, 1 warning\n")


def test_a_broken_configuration_is_told_by_line(bare_lab):
    clinic = Clinic(bare_lab)
    config = bare_lab.root / "tesk" / "etc" / "router.toml"
    good = config.read_text()
    for text, what in ((f"{good}\n[nat]\ncolour = 1\n", ": colour: "), (f"{good}\n[[program]\n", "")):
        config.write_text(text)
        line = text.count("\n")
        found = clinic.examine()
        broken, = found["config-broken"]
        assert broken["what"].startswith(f"/tesk/etc/router.toml:{line}{what}"), broken
        assert broken["mend"][1] in found["router-silent"][0]["mend"]
        assert "not-seen" not in found
    check = broken["mend"][1]
    assert bare_lab.router.run("sh", "-c", check, check=False).returncode == 1
    config.write_text(good)
    assert bare_lab.router.run("sh", "-c", check).returncode == 0
    assert "config-broken" not in clinic.examine()
    bare_lab.start_routerd()
    config.write_text(text)
    found = clinic.examine()
    assert "router-silent" not in found and found["config-broken"][0]["mend"][-1] == "tkctl reload"
    config.write_text(good)
    clinic.mend(found["config-broken"][0])
    assert "config-broken" not in clinic.examine()


def test_a_member_of_the_group_gets_no_false_alarm(clinic):
    """Without root, ss tells no holders, and nft tells nothing."""
    tool = clinic.lab.root / "tesk" / "tkctl"
    labs.shutil.copy(labs.BIN / "tkctl", tool)
    command = ("setpriv", "--reuid", "64002", "--regid", "64002", "--groups", "64000", "/tesk/tkctl", "doctor",
               "--no-search")
    found = json.loads(clinic.lab.router.run(*command, "--json").stdout)
    assert "the settings and roles" in {one["subject"] for one in found}  # which routerd does not let it read
    assert {one["code"] for one in found} == {"not-seen"}, found
    assert not any(line.startswith("apt ") for one in found for line in one["mend"])
    assert clinic.lab.router.run(*command).stdout.endswith("\nNothing found, but not everything could be looked at.\n")


def test_root_and_disconnection(lab):
    """The usual lab of the tests: its routerd runs as root, and its hosts may disconnect."""
    clinic = Clinic(lab)
    found = clinic.examine()
    assert [one["subject"] for one in found["runs-as-root"]] == ["routerd"]
    assert [one["subject"] for one in found["lan-may-disconnect"]] == ["wan0"]
    clinic.mend(found["lan-may-disconnect"][0])
    assert "lan-may-disconnect" not in clinic.examine()
    lab.tkctl("upnp", "set", "allow-disable-external=yes")


def test_guard_versions_stores_and_clock(bare_lab):
    clinic = Clinic(bare_lab)
    tesk = bare_lab.root / "tesk"
    config = tesk / "etc" / "lab.toml"
    config.write_text(config.read_text() + "\n[guard]\nlimit-connections = false\n")
    program = tesk / "bin" / "upnpd"
    version = bare_lab.tkctl("--version").stdout.strip().encode()
    whole = program.read_bytes()
    assert b"@(#)gateway " + version in whole
    program.write_bytes(whole.replace(b"@(#)gateway " + version, b"@(#)gateway " + b"9" * len(version)))
    bare_lab.start_routerd("--config", "/tesk/etc/lab.toml")
    bare_lab.tkctl("upnp", "interface", "add", "lan0", "internal")
    found = clinic.examine()
    assert [one["subject"] for one in found["guard-off"]] == ["upnpd"]
    assert [one["subject"] for one in found["version-differs"]] == ["upnpd"]
    assert [one["subject"] for one in found["switched-off"]] == ["upnpd"]
    assert not {"store-damaged", "store-closed", "clock-wrong"} & set(found)
    damaged = tesk / "store" / "upnp.damaged"
    damaged.write_text("x")
    os.utime(damaged, (time.time() + 86400,) * 2)
    os.chown(tesk / "store", 0, 0)
    found = clinic.examine()
    assert [one["subject"] for one in found["store-damaged"]] == ["/tesk/store/upnp.damaged"]
    assert [one["subject"] for one in found["store-closed"]] == ["/tesk/store"]
    assert "clock-wrong" in found
    clinic.mend(found["store-damaged"][0])
    clinic.mend(found["store-closed"][0])
    assert not {"store-damaged", "store-closed", "clock-wrong"} & set(clinic.examine())
