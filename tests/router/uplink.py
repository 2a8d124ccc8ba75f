"""What every router has besides our table: a chain for what leaves by the uplink."""


def masquerade(lab):
    """Gives what leaves by wan0 the router's own address. As long as there is such a chain, the kernel translates the
    flows that it knows, whatever happens to our table."""
    lab.router.run("nft", "add table ip uplink; "
                          "add chain ip uplink out { type nat hook postrouting priority srcnat; }; "
                          "add rule ip uplink out oifname \"wan0\" masquerade")
