"""Rules, flow tables and settings that keep mapped traffic from being forwarded."""
import json
import re

import pytest

import labs
from clinic import arrives, role
from firewalls import (DOCKER, FIREWALL_CMD, FIREWALLD, FIREWALLD_IPTABLES, IPTABLES, LEGACY_CLEANUP, NFT, NFT_CLEANUP,
                       NFT_RULE, UFW)
from labs import LAN1, ROUTER_WAN, eventually


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
        finding, = clinic.examine()["forward-drop"]
        assert "dropped" not in finding["what"]
        assert not arrives(clinic.lab.wan)
        finding, = clinic.examine()["forward-drop"]
        told = re.search(r" It has dropped (\d+) packets, and the mappings had (\d+)\.$", finding["what"])
        assert 1 <= int(told[1]) <= 2 and int(told[2]) >= 1, finding["what"]  # a SYN, and perhaps its repetition
    finally:
        clinic.run(NFT_CLEANUP)


def test_a_table_of_iptables_is_left_to_its_tool(clinic, tmp_path):
    clinic.run(IPTABLES.format(tool="iptables-nft"))
    script = tmp_path / "nft"
    script.write_text(f"""#!/bin/sh
case "$*" in *" ip filter") echo "cannot show this" >&2; exit 1 ;; esac
exec {tmp_path}/real "$@"
""")
    script.chmod(0o755)
    try:
        done = clinic.lab.router.run("unshare", "-m", "sh", "-ec", f"cp $(command -v nft) {tmp_path}/real; mount --bind "
                                     f"{script} $(command -v nft); exec {labs.BIN}/tkctl doctor --no-search --json",
                                     check=False)
        assert [one["code"] for one in json.loads(done.stdout)] == ["forward-drop"], done.stdout
    finally:
        clinic.run(NFT_CLEANUP)


def test_a_table_that_sleeps_drops_nothing(clinic, server):
    clinic.run("nft 'add table ip odd { flags dormant; }; "
               "add chain ip odd forward { type filter hook forward priority 0; policy drop; }'")
    try:
        assert arrives(clinic.lab.wan)
        assert clinic.examine() == {}
    finally:
        clinic.run("nft delete table ip odd")


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
