"""tkctl doctor: each fault is made in a lab, named, and mended by the lines that are printed."""
import contextlib
import json
import os
import socket
import struct
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

    def mend(self, finding, *wrapper, **options):
        """Runs the lines as they stand."""
        script = "\n".join(finding["mend"])
        self.lab.router.run(*wrapper, "env", f"PATH={labs.BIN}:{os.environ['PATH']}", "sh", "-ec", script, **options)

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
    chain check { ct state new counter reject with icmp admin-prohibited }
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
        shift 6; echo "iptables-nft -I FORWARD_direct $*" >"$state" ;;
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
        assert list(found) == ["forward-drop"]
        finding, = found["forward-drop"]
        assert (finding["severity"], finding["subject"], finding["mend"][0]) == ("error", subject, line)
        assert f"such as tcp {ROUTER_WAN}:80 to {LAN1}:8080" in finding["what"]
        clinic.mend(finding, "env", f"PATH={tmp_path}:{os.environ['PATH']}", "env")
        assert arrives(clinic.lab.wan)
        assert clinic.examine() == {}
    finally:
        clinic.run(LEGACY_CLEANUP if "legacy" in fault else NFT_CLEANUP)
