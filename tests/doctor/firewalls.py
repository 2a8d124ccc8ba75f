"""Rules that drop what is forwarded, as firewalls and administrators make them."""

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
