"""The users of a lab's router, and what they may do there."""
import contextlib
import os
import pathlib
import subprocess

import bus
import labs
from control_point import call

ROUTER, DAEMON, OTHER = "routerd", "upnpd", "resolverd"  # the last two are in the group tk
MEMBER = "member"  # in the group, and nothing else
# Members with one right more, as a [[user]] grants it: those of a router to which they were admitted.
GRANTS = {"speaker": "programs = [81]", "mapper": 'writes = ["20,5"]', "manager": 'writes = ["80"]',
          "recorder": 'writes = ["24"]', "tracer": "trace = true", "undoer": "undo = true", "admin": "admin = true"}
GRANTED = "".join(f'[[user]]\nname = "{name}"\n{right}\n' for name, right in GRANTS.items())
IDS = {name: number for number, name in enumerate((ROUTER, DAEMON, OTHER, MEMBER, *GRANTS), 64001)}
GROUP = 64000
PROGRAM = "/tesk/bin/upnpd"  # a copy, where every user can reach it

# The daemon runs as a user of its own, whom the guard limits.
DAEMON_AS_ITSELF = f"""
[[program]]
number = 80
command = ["{PROGRAM}"]
user = "{DAEMON}"
start = true
"""


def configure(lab, text):
    """Writes a configuration file and returns the arguments that name it."""
    path = lab.directory / "router.toml"
    path.write_text(text)
    path.chmod(0o644)
    return "--config", path


def admit(lab):
    """Gives the router the users whom GRANTED names, before it starts with that in its configuration."""
    with open(f"/run/gateway-lab-{lab.name}/passwd", "a", encoding="utf-8") as users:  # the router's alone
        for name in GRANTS:
            users.write(f"{name}:x:{IDS[name]}:{GROUP}::/:/bin/false\n")


def run_as(lab, user, *words, check=False):
    return lab.router.run("setpriv", "--reuid", IDS[user], "--regid", IDS[user], "--groups", GROUP, "--inh-caps=-all",
                          *words, check=check)


def connect_as(lab, user, count):
    """Connections to the bus that are the user's, as far as the kernel can tell."""
    with contextlib.ExitStack() as home:
        # Only root finds the way into the router's root. From inside the socket's folder everybody can reach it.
        home.callback(os.chdir, os.getcwd())
        os.chdir(lab.root / "run" / "tk")
        home.callback(os.setegid, os.getegid())
        os.setegid(GROUP)
        home.callback(os.seteuid, os.geteuid())
        os.seteuid(IDS[user])
        return [bus.Client(lab, path="bus") for _ in range(count)]


def processes(lab, name):
    """The numbers of the router's processes of that name."""
    there = subprocess.run(["ip", "netns", "pids", f"gw-{lab.name}-router"], capture_output=True, text=True, check=True)

    def name_of(pid):
        try:
            return pathlib.Path(f"/proc/{pid}/comm").read_text().strip()
        except OSError:  # it has just ended
            return None
    return [int(pid) for pid in there.stdout.split() if name_of(pid) == name]


def connection_path(lab):
    """The path at which the daemon takes actions for wan0, on a router that has just started to serve."""
    path = f"/upnp/control/wanipconn-{lab.interface_id('wan0')}"

    def answers():
        try:
            return call(lab.lan1, path, "GetStatusInfo").startswith("HTTP/1.1 200")
        except OSError:
            return False
    labs.eventually(answers, "the gateway serves the LAN")
    return path
