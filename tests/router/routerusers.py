"""Users that exist on a lab's router alone: its /etc/passwd and /etc/group are replaced in its mount namespace."""
import os

import labs

DAEMON, OTHER = "upnpd-test", "other-test"
IDS = {DAEMON: 64001, OTHER: 64002}
GROUP = 64000
PROGRAM = "/tesk/bin/upnpd"  # a copy, for a user cannot reach every folder that the programs may be built in

# The daemon runs as a user of its own, whom the guard is for.
DAEMON_AS_ITSELF = f"""
[[program]]
number = 80
command = ["{PROGRAM}"]
user = "{DAEMON}"
start = true

[[user]]
name = "{DAEMON}"
writes = ["20,0", "20,5"]
"""


def add_users(lab):
    """Two users, both in the group tk, and a daemon that they can run."""
    lab.router.run("install", "-D", labs.BIN / "upnpd", PROGRAM)
    passwd, group = lab.directory / "passwd", lab.directory / "group"
    text = open("/etc/passwd", encoding="utf-8").read().rstrip("\n") + "\n"
    passwd.write_text(text + "".join(f"{name}:x:{uid}:{uid}::/:/bin/false\n" for name, uid in IDS.items()))
    lines = [line for line in open("/etc/group", encoding="utf-8").read().splitlines() if not line.startswith("tk:")]
    group.write_text("\n".join([*lines, f"tk:x:{GROUP}:{DAEMON},{OTHER}", ""]))
    for path, target in ((passwd, "/etc/passwd"), (group, "/etc/group")):
        os.chmod(path, 0o644)
        lab.router.run("mount", "--bind", path, target)


def configure(lab, text):
    """Writes a configuration file and returns the arguments that name it."""
    path = lab.directory / "router.toml"
    path.write_text(text)
    path.chmod(0o644)
    return "--config", path


def run_as(lab, user, *words, check=False):
    return lab.router.run("setpriv", "--reuid", IDS[user], "--regid", IDS[user], "--groups", GROUP, "--inh-caps=-all",
                          *words, check=check)
